"""`hermite prepare` and screens of prepared libraries: a library gives exactly the results of
its source files, whatever the number of threads; damaged or mismatched libraries are refused
with a message naming the file; queries of several molecules and conformers; interruption and
the time limit of conformer generation."""

import os
import signal
import subprocess
import time

import h5py
import pytest

from hermite_cli_support import (CDK2, HERMITE, cdk2_records, query_file, ranked, read_sdf,
                                 read_tsv, retitled, run, scaled, sd_elements, sd_record_texts,
                                 time_limit, write_sdf, write_smiles)

# The first CDK2 ligand alone: every molecule of a query file is a query.
QUERY = query_file()

SCORE_COLUMNS = ["shape_tanimoto", "hermite_tanimoto", "tversky_query", "tversky_fit"]

HDF5_SIGNATURE = b"\x89HDF\r\n\x1a\n"

# Six small drugs as SMILES: (smiles, title, heavy atoms, all atoms with hydrogens).
DRUGS = [
    ("c1ccccc1C(=O)O", "benzoic_acid", 9, 15),
    ("CC(=O)Nc1ccc(O)cc1", "paracetamol", 11, 20),
    ("CC(C)Cc1ccc(cc1)C(C)C(=O)O", "ibuprofen", 15, 33),
    ("Cn1cnc2c1c(=O)n(C)c(=O)n2C", "caffeine", 14, 24),
    ("OC(=O)c1ccccc1OC(C)=O", "aspirin", 13, 21),
    ("c1ccc2c(c1)[nH]c1ccccc12", "carbazole", 13, 22),
]

# An octapeptide (KWRYFLEM, 83 heavy atoms): embedding 50 conformers of it takes tens of seconds
# on a 2-core machine (measured: 33 s with one thread), far beyond the limits used below.
PEPTIDE = ("CSCC[C@H](NC(=O)[C@H](CCC(=O)O)NC(=O)[C@H](CC(C)C)NC(=O)[C@H](Cc1ccccc1)"
           "NC(=O)[C@H](Cc1ccc(O)cc1)NC(=O)[C@H](CCCNC(=N)N)NC(=O)[C@H](Cc1c[nH]c2ccccc12)"
           "NC(=O)[C@@H](N)CCCCN)C(=O)O")

TIME_LIMIT_MESSAGE = "conformer generation took longer than the time limit"


def screen(directory, *db, extra=(), name="run"):
    """Overlays QUERY against `db` in `directory` with hits and scores named after `name`;
    returns (result, scores bytes, hits bytes)."""
    result = run("overlay", "--query", QUERY, "--db", *db, "--scores", f"{name}.tsv", "--out",
                 f"{name}.sdf", *extra, cwd=directory)
    scores = directory / f"{name}.tsv"
    hits = directory / f"{name}.sdf"
    return (result, scores.read_bytes() if scores.exists() else None,
            hits.read_bytes() if hits.exists() else None)


def prepare(directory, *arguments):
    """Runs `hermite prepare` in `directory`."""
    return run("prepare", *arguments, cwd=directory)


@pytest.fixture(scope="module")
def cdk2_library(tmp_path_factory):
    """The CDK2 set prepared with the defaults (heavy atoms, Gasteiger charges)."""
    directory = tmp_path_factory.mktemp("cdk2-library")
    result = prepare(directory, CDK2, "--out", "cdk2.h5", "--threads", "2")
    assert result.returncode == 0, result.stderr
    return directory / "cdk2.h5", result


@pytest.fixture(scope="module")
def drugs(tmp_path_factory):
    """The six drugs as a SMILES file and as a library made with 3 conformers, seed 5."""
    directory = tmp_path_factory.mktemp("drugs")
    smiles = write_smiles(directory / "drugs.smi", [(s, t) for s, t, _, _ in DRUGS])
    result = prepare(directory, "drugs.smi", "--out", "drugs.h5", "--conformers", "3",
                     "--seed", "5")
    assert result.returncode == 0, result.stderr
    return directory, smiles, directory / "drugs.h5", result


# --- a library screens exactly like its sources -------------------------------------------------

def test_prepare_writes_an_hdf5_library(cdk2_library):
    library, result = cdk2_library
    assert library.read_bytes()[:8] == HDF5_SIGNATURE
    assert "47 molecules, 47 conformers written to cdk2.h5" in result.stderr
    assert result.stdout == ""
    # Only the library is left: no temporary file.
    assert os.listdir(library.parent) == ["cdk2.h5"]


@pytest.mark.parametrize("extra", [(), ("--electrostatics",), ("--rank-by", "combo")],
                         ids=["shape", "electrostatics", "colour"])
def test_library_screens_like_its_source_file(cdk2_library, tmp_path, extra):
    library, _ = cdk2_library
    # The library records the source file as it was given to prepare: the same path here.
    from_library = screen(tmp_path, library, extra=extra, name="library")
    from_source = screen(tmp_path, CDK2, extra=extra, name="source")
    for result in (from_library[0], from_source[0]):
        assert result.returncode == 0, result.stderr
        assert "47 molecules read from 1 file, 47 conformers, 47 overlays" in result.stderr
    rows = read_tsv(tmp_path / "library.tsv")
    assert len(rows) == 47
    assert {row["file"] for row in rows} == {str(CDK2)}
    assert [int(row["record"]) for row in rows] == list(range(1, 48))
    if "--electrostatics" in extra:
        assert rows[0]["es_tanimoto"] == "1.0000" and rows[0]["es_combo"] == "2.0000"
    if "combo" in extra:
        assert rows[0]["colour_tanimoto"] == "1.0000" and rows[0]["combo"] == "2.0000"
        assert len({row["colour_tanimoto"] for row in rows}) > 30
    assert len(read_sdf(tmp_path / "library.sdf")) == 47
    assert from_library[1] == from_source[1]        # scores, byte for byte
    assert from_library[2] == from_source[2]        # hits, byte for byte
    assert from_library[0].stdout == from_source[0].stdout


def test_library_of_hydrogens_screens_like_its_source(tmp_path):
    result = prepare(tmp_path, CDK2, "--out", "h.h5", "--hydrogens", "--quiet")
    assert result.returncode == 0, result.stderr
    assert result.stderr == ""
    from_library = screen(tmp_path, "h.h5", extra=("--hydrogens",), name="library")
    from_source = screen(tmp_path, CDK2, extra=("--hydrogens",), name="source")
    assert from_library[0].returncode == 0 and from_source[0].returncode == 0
    assert from_library[1] == from_source[1]
    assert from_library[2] == from_source[2]
    assert from_library[0].stdout == from_source[0].stdout


def test_smiles_library_screens_like_the_smiles(drugs):
    directory, smiles, library, prepared = drugs
    assert "6 molecules, 18 conformers written to drugs.h5" in prepared.stderr
    options = ("--conformers", "3", "--seed", "5")
    from_library = screen(directory, library, extra=options, name="library")
    from_smiles = screen(directory, smiles.name, extra=options, name="smiles")
    for result in (from_library[0], from_smiles[0]):
        assert result.returncode == 0, result.stderr
        assert "6 molecules read from 1 file, 18 conformers, 18 overlays" in result.stderr
    rows = read_tsv(directory / "library.tsv")
    assert [row["title"] for row in rows] == [title for _, title, _, _ in DRUGS]
    assert all(row["file"] == "drugs.smi" and row["conformers"] == "3" for row in rows)
    assert [row["record"] for row in rows] == ["1", "2", "3", "4", "5", "6"]
    assert from_library[1] == from_smiles[1]
    assert from_library[0].stdout == from_smiles[0].stdout
    assert from_library[2] == from_smiles[2]


@pytest.mark.parametrize("source", ["library", "smiles"])
def test_smiles_hits_carry_hydrogens(drugs, source):
    directory, smiles, library, _ = drugs
    db = library if source == "library" else smiles.name
    result, _, _ = screen(directory, db, extra=("--conformers", "3", "--seed", "5", "--quiet"),
                          name=f"hydrogens-{source}")
    assert result.returncode == 0, result.stderr
    atoms = {title: (heavy, total) for _, title, heavy, total in DRUGS}
    hits = sd_record_texts(directory / f"hydrogens-{source}.sdf")
    assert len(hits) == 6
    for record in hits:
        title = record.split("\n")[0]
        elements = sd_elements(record)
        heavy, total = atoms[title]
        # The counts line counts every atom, the hydrogens included.
        assert int(record.split("\n")[3][:3]) == total > heavy, title
        assert len(elements) == total
        assert sum(1 for element in elements if element != "H") == heavy, title


# --- queries of several molecules and conformers ------------------------------------------------

@pytest.fixture(scope="module")
def multi_query(tmp_path_factory):
    """Three CDK2 ligands as queries, the second with two conformers (its own record and a copy
    shrunk towards its first atom), and the runs of each query alone."""
    directory = tmp_path_factory.mktemp("multi-query")
    records = cdk2_records()
    first, second, third = records[0], records[10], records[30]
    extra = scaled(second, 0.85)
    second_title = second.split("\n")[0]
    conformers = {(1, 1): [first], (2, 1): [second], (2, 2): [retitled(extra, second_title)],
                  (3, 1): [third]}
    molecules = {1: [first], 2: [second, retitled(extra, second_title)], 3: [third]}
    titles = {1: first.split("\n")[0], 2: second_title, 3: third.split("\n")[0]}
    write_sdf(directory / "queries.sdf", [record for q in (1, 2, 3) for record in molecules[q]])

    def overlay(query, name, *extra_options, best="47"):
        result = run("overlay", "--query", query, "--db", CDK2, "--scores", f"{name}.tsv",
                     "--out", f"{name}.sdf", "--best", best, "--threads", "2",
                     *extra_options, cwd=directory)
        assert result.returncode == 0, result.stderr
        return result, read_tsv(directory / f"{name}.tsv"), read_sdf(directory / f"{name}.sdf")

    alone = {}
    for (q, c), recs in conformers.items():
        write_sdf(directory / f"query-conformer-{q}-{c}.sdf", recs)
        alone[(q, c)] = overlay(f"query-conformer-{q}-{c}.sdf", f"conformer-{q}-{c}")
    per_molecule = {}
    for q, recs in molecules.items():
        write_sdf(directory / f"query-molecule-{q}.sdf", recs)
        per_molecule[q] = overlay(f"query-molecule-{q}.sdf", f"molecule-{q}", best="5")
    combined = overlay("queries.sdf", "combined")
    per_query = overlay("queries.sdf", "per-query", "--per-query", best="5")
    return dict(directory=directory, titles=titles, alone=alone, per_molecule=per_molecule,
                combined=combined, per_query=per_query)


def test_combined_query_keeps_the_best_pair(multi_query):
    result, rows, hits = multi_query["combined"]
    alone = multi_query["alone"]
    assert "query 3 molecules, 4 conformers" in result.stderr
    assert "47 molecules read from 1 file, 47 conformers, 188 overlays" in result.stderr
    assert len(rows) == 47
    for i, row in enumerate(rows):
        separate = {pair: runs[1][i] for pair, runs in alone.items()}
        assert all(other["title"] == row["title"] for other in separate.values())
        best = max(float(other["shape_tanimoto"]) for other in separate.values())
        assert row["shape_tanimoto"] == f"{best:.4f}", row["title"]
        # The query and conformer named are the ones that gave this score, and the pose is theirs.
        source = separate[(int(row["query"]), int(row["query_conformer"]))]
        for column in ["conformer", *SCORE_COLUMNS]:
            assert row[column] == source[column], (row["title"], column)
    # Every query conformer wins somewhere: the ligands themselves come back with 1.0.
    pairs = {(int(row["query"]), int(row["query_conformer"])) for row in rows}
    assert pairs == set(alone)
    by_title = {row["title"]: row for row in rows}
    for title in multi_query["titles"].values():
        assert by_title[title]["shape_tanimoto"] == "1.0000"


def test_combined_query_hits_name_their_query(multi_query):
    _, rows, hits = multi_query["combined"]
    titles = multi_query["titles"]
    by_title = {row["title"]: row for row in rows}
    assert len(hits) == 47
    # Ranked by score: the table's rounded scores cannot order hits that round alike (the three
    # queries' own ligands, 1.0000 each), so those may come in either order.
    assert sorted(title for title, _ in hits) == sorted(by_title)
    assert [by_title[title]["shape_tanimoto"] for title, _ in hits] == \
        [row["shape_tanimoto"] for row in ranked(rows)]
    for rank, (title, tags) in enumerate(hits, start=1):
        row = by_title[title]
        assert tags["hermite_rank"] == str(rank)
        assert tags["hermite_query"] == row["query"]
        assert tags["hermite_query_conformer"] == row["query_conformer"]
        assert tags["hermite_query_title"] == titles[int(row["query"])]
        assert tags["hermite_shape_tanimoto"] == row["shape_tanimoto"]
        assert tags["hermite_conformer"] == row["conformer"]


def test_combined_query_table_counts_every_hit(multi_query, tmp_path):
    result = run("overlay", "--query", multi_query["directory"] / "queries.sdf", "--db", CDK2,
                 "--scores", "scores.tsv", "--out", "hits.sdf", "--cutoff", "0.8", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    rows = read_tsv(tmp_path / "scores.tsv")
    passing = sum(1 for row in rows if float(row["shape_tanimoto"]) >= 0.8)
    assert passing > 10
    assert len(read_sdf(tmp_path / "hits.sdf")) == passing
    assert f"{passing} hits written to hits.sdf" in result.stderr
    table = result.stdout.splitlines()
    assert table[0] == f"3 query molecules; 47 molecules, {passing} with shape Tanimoto >= 0.8000"
    assert len(table) == 2 + 10


def test_per_query_rows_equal_the_runs_of_each_query_molecule(multi_query):
    result, rows, _ = multi_query["per_query"]
    per_molecule = multi_query["per_molecule"]
    assert "141 rows of scores written to per-query.tsv" in result.stderr
    assert len(rows) == 3 * 47
    for i in range(47):
        for q in (1, 2, 3):
            row = rows[3 * i + q - 1]
            alone = per_molecule[q][1][i]
            assert row["query"] == str(q)
            for column in ["title", "file", "record", "conformer", "conformers",
                           "query_conformer", *SCORE_COLUMNS, "status"]:
                assert row[column] == alone[column], (i, q, column)
    # The second query molecule's best pairs use both of its conformers.
    assert {row["query_conformer"] for row in rows if row["query"] == "2"} == {"1", "2"}


def test_per_query_hit_lists_one_after_the_other(multi_query):
    result, _, hits = multi_query["per_query"]
    titles = multi_query["titles"]
    assert "15 hits written to per-query.sdf" in result.stderr
    assert len(hits) == 15
    for q in (1, 2, 3):
        own = hits[5 * (q - 1):5 * q]
        alone = multi_query["per_molecule"][q][2]
        assert [title for title, _ in own] == [title for title, _ in alone]
        for rank, ((_, tags), (_, alone_tags)) in enumerate(zip(own, alone), start=1):
            assert tags["hermite_rank"] == str(rank)
            assert tags["hermite_query"] == str(q)
            assert tags["hermite_query_title"] == titles[q]
            assert alone_tags["hermite_query"] == "1"
            for tag in ["hermite_query_conformer", "hermite_conformer",
                        "hermite_shape_tanimoto", "hermite_tversky_fit"]:
                assert tags[tag] == alone_tags[tag], (q, rank, tag)
        # Each list starts with its own query molecule, scoring 1.
        assert own[0][0] == titles[q]
        assert own[0][1]["hermite_shape_tanimoto"] == "1.0000"
    table = result.stdout.split("\n\n")
    assert [block.splitlines()[0] for block in table] == \
        [f"Query: {titles[q]}; 47 molecules, 47 with shape Tanimoto >= 0.0000" for q in (1, 2, 3)]


# --- determinism --------------------------------------------------------------------------------

def test_library_screen_identical_for_any_thread_count(cdk2_library, tmp_path):
    library, _ = cdk2_library
    outputs = []
    for threads in ["1", "2"]:
        result, scores, hits = screen(tmp_path, library, name=f"t{threads}",
                                      extra=("--threads", threads, "--starts", "2",
                                             "--electrostatics", "--quiet"))
        assert result.returncode == 0, result.stderr
        assert result.stderr == ""
        outputs.append((scores, hits, result.stdout))
    assert len(read_tsv(tmp_path / "t1.tsv")) == 47
    assert outputs[0] == outputs[1]


def library_contents(path):
    """Every attribute and dataset of an HDF5 file, as comparable Python values."""
    contents = {}
    with h5py.File(path, "r") as handle:
        contents["/"] = sorted((key, repr(value)) for key, value in handle.attrs.items())

        def visit(name, item):
            attributes = sorted((key, repr(value)) for key, value in item.attrs.items())
            data = item[()].tobytes() if isinstance(item, h5py.Dataset) else None
            contents[name] = (attributes, data)
        handle.visititems(visit)
    return contents


def test_smiles_preparation_identical_for_any_thread_count(drugs, tmp_path):
    _, smiles, _, _ = drugs
    options = ("--conformers", "3", "--seed", "5")
    libraries = []
    for threads in ["1", "2"]:
        result = prepare(tmp_path, smiles, "--out", f"t{threads}.h5", "--threads", threads,
                         "--quiet", *options)
        assert result.returncode == 0, result.stderr
        libraries.append(tmp_path / f"t{threads}.h5")
    assert library_contents(libraries[0]) == library_contents(libraries[1])
    screens = []
    for threads in ["1", "2"]:
        for db in [f"t{threads}.h5", smiles]:
            result, scores, hits = screen(tmp_path, db, name=f"s{len(screens)}",
                                          extra=("--threads", threads, "--quiet", *options))
            assert result.returncode == 0, result.stderr
            screens.append((db, scores, hits, result.stdout))
    assert len(read_tsv(tmp_path / "s0.tsv")) == 6
    # The generated conformers do not depend on the threads, screened from the SMILES directly
    # or from the library.
    assert screens[0][1:] == screens[2][1:]
    assert screens[1][1:] == screens[3][1:]


# --- damaged and foreign files ------------------------------------------------------------------

def damaged_screen(tmp_path, name):
    """Screens the damaged library `name` and a SMILES file after it."""
    write_smiles(tmp_path / "other.smi", [("c1ccccc1C(=O)O", "benzoic_acid"), ("CCO", "ethanol")])
    result, _, _ = screen(tmp_path, name, "other.smi", extra=("--conformers", "2"))
    rows = read_tsv(tmp_path / "run.tsv")
    return result, rows


def chunk_middle(library, dataset):
    """The file offset of the middle byte of the first chunk of `dataset`."""
    with h5py.File(library, "r") as handle:
        chunk = handle[dataset].id.get_chunk_info(0)
    return chunk.byte_offset + chunk.size // 2


def damaged_copy(library, directory, damage):
    """A damaged copy of `library` in `directory`: `damage` is truncated (the first half of the
    bytes), flipped (one byte inverted in the atom coordinates, which every screen reads),
    flipped-record (one byte inverted in the records' SD text, read for hits only) or foreign
    (another HDF5 file)."""
    path = directory / f"{damage}.h5"
    data = bytearray(library.read_bytes())
    if damage == "truncated":
        path.write_bytes(bytes(data[:len(data) // 2]))
    elif damage.startswith("flipped"):
        dataset = "atoms/xyz" if damage == "flipped" else "conformers/sd_bytes"
        data[chunk_middle(library, dataset)] ^= 0xFF
        path.write_bytes(bytes(data))
    else:
        with h5py.File(path, "w") as handle:
            handle.create_dataset("values", data=[1.0, 2.0, 3.0])
    return path


@pytest.mark.parametrize("damage", ["truncated", "flipped", "foreign"])
def test_damaged_library_is_refused(cdk2_library, tmp_path, damage):
    damaged_copy(cdk2_library[0], tmp_path, damage)
    result, rows = damaged_screen(tmp_path, f"{damage}.h5")
    assert result.returncode == 1, result.stderr
    assert "1 file could not be read" in result.stderr
    assert f"\n  {damage}.h5: " in result.stderr
    # The other file is still screened; nothing of the damaged library is.
    assert [(row["title"], row["file"]) for row in rows] == \
        [("benzoic_acid", "other.smi"), ("ethanol", "other.smi")]
    assert all(row["status"] == "ok" for row in rows)


@pytest.mark.parametrize("damage", ["truncated", "flipped", "flipped-record", "foreign"])
def test_damaged_library_message_names_the_file_once(cdk2_library, tmp_path, damage):
    damaged_copy(cdk2_library[0], tmp_path, damage)
    result, _ = damaged_screen(tmp_path, f"{damage}.h5")
    assert result.returncode == 1
    line = next(line for line in result.stderr.splitlines()
                if line.startswith(f"  {damage}.h5: "))
    # "  file: reason", like every other problem listed, with a reason after the name.
    reason = line[len(f"  {damage}.h5: "):]
    assert reason and f"{damage}.h5" not in reason, line


def test_text_file_named_like_a_library_is_refused(tmp_path):
    (tmp_path / "fake.h5").write_text("not a library\n")
    result, rows = damaged_screen(tmp_path, "fake.h5")
    assert result.returncode == 1, result.stderr
    assert "\n  fake.h5: " in result.stderr
    assert [row["title"] for row in rows] == ["benzoic_acid", "ethanol"]


def test_library_is_recognised_by_content_not_name(cdk2_library, tmp_path):
    library, _ = cdk2_library
    (tmp_path / "library.data").write_bytes(library.read_bytes())
    result, scores, hits = screen(tmp_path, "library.data", extra=("--quiet",))
    assert result.returncode == 0, result.stderr
    assert len(read_tsv(tmp_path / "run.tsv")) == 47
    assert (scores, hits) == screen(tmp_path, CDK2, extra=("--quiet",), name="source")[1:]


def test_prepare_to_a_missing_directory(tmp_path):
    result = prepare(tmp_path, CDK2, "--out", "nodir/library.h5")
    assert result.returncode == 3
    assert "nodir/library.h5" in result.stderr
    assert os.listdir(tmp_path) == []


def test_prepare_skips_unreadable_inputs_and_still_writes(tmp_path):
    records = cdk2_records()
    write_sdf(tmp_path / "two.sdf", [records[0], "garbage\nnot a molfile\n\n  3  2  0  0\n"
                                     "M  END\n$$$$\n", records[1]])
    result = prepare(tmp_path, "two.sdf", "missing.sdf", "--out", "library.h5")
    assert result.returncode == 1, result.stderr
    assert "missing.sdf: cannot open file" in result.stderr
    assert "two.sdf, record 2 (garbage)" in result.stderr
    assert "2 molecules, 2 conformers written to library.h5" in result.stderr
    screened, _, _ = screen(tmp_path, "library.h5", extra=("--quiet",))
    assert screened.returncode == 0, screened.stderr
    rows = read_tsv(tmp_path / "run.tsv")
    assert [(row["file"], row["record"]) for row in rows] == [("two.sdf", "1"), ("two.sdf", "3")]


# --- libraries prepared otherwise than the screen -----------------------------------------------

RINGS_FDEF = "DefineFeature Ring6 a1aaaaa1\n  Family Ring\n  Weights 1,1,1,1,1,1\nEndFeature\n"


@pytest.fixture(scope="module")
def variants(tmp_path_factory):
    """The CDK2 set prepared without charges, with hydrogens, with MMFF94 charges and with
    colour features of the user's definitions (rings.fdef, one family)."""
    directory = tmp_path_factory.mktemp("variants")
    (directory / "rings.fdef").write_text(RINGS_FDEF)
    for name, options in [("nocharges", ["--no-charges"]), ("hydrogens", ["--hydrogens"]),
                          ("mmff", ["--charges", "mmff"]),
                          ("rings", ["--features", "rings.fdef"])]:
        result = prepare(directory, CDK2, "--out", f"{name}.h5", "--quiet", *options)
        assert result.returncode == 0, result.stderr
    return directory


@pytest.mark.parametrize("library, extra, words", [
    ("cdk2", ("--hydrogens",), "without hydrogens"),
    ("hydrogens", (), "with hydrogens"),
    ("nocharges", ("--electrostatics",), "charges"),
    ("nocharges", ("--rank-by", "es-combo"), "charges"),
    ("rings", ("--colour",), "colour features were perceived with other feature definitions"),
])
def test_mismatched_library_is_refused(cdk2_library, variants, tmp_path, library, extra, words):
    source = cdk2_library[0] if library == "cdk2" else variants / f"{library}.h5"
    (tmp_path / f"{library}.h5").write_bytes(source.read_bytes())
    write_smiles(tmp_path / "other.smi", [("c1ccccc1C(=O)O", "benzoic_acid")])
    result, _, _ = screen(tmp_path, f"{library}.h5", "other.smi",
                          extra=("--conformers", "2", *extra))
    assert result.returncode == 1, result.stderr
    message = next(line for line in result.stderr.splitlines()
                   if line.startswith(f"  {library}.h5: "))
    assert words in message
    assert [row["title"] for row in read_tsv(tmp_path / "run.tsv")] == ["benzoic_acid"]


def test_library_of_user_feature_definitions(variants, tmp_path):
    """A library prepared with --features serves colour screens with the same file, whose
    colour scores are those of the source file screened with it; a bad file is a usage error."""
    (tmp_path / "rings.fdef").write_text(RINGS_FDEF)
    extra = ("--colour", "--features", "rings.fdef")
    from_library = screen(tmp_path, variants / "rings.h5", extra=extra, name="library")
    from_source = screen(tmp_path, CDK2, extra=extra, name="source")
    assert from_library[0].returncode == 0, from_library[0].stderr
    assert from_library[1] == from_source[1] and from_library[2] == from_source[2]
    default = screen(tmp_path, CDK2, extra=("--colour",), name="default")
    assert default[1] != from_source[1]
    (tmp_path / "bad.fdef").write_text("DefineFeature Broken [C\n  Family X\nEndFeature\n")
    bad = prepare(tmp_path, CDK2, "--out", "bad.h5", "--features", "bad.fdef")
    assert bad.returncode == 2 and "--features" in bad.stderr and "bad.fdef" in bad.stderr
    assert not (tmp_path / "bad.h5").exists()


def test_library_without_charges_serves_shape_screens(cdk2_library, variants, tmp_path):
    shape = screen(tmp_path, variants / "nocharges.h5", extra=("--quiet",), name="nocharges")
    reference = screen(tmp_path, cdk2_library[0], extra=("--quiet",), name="reference")
    assert shape[0].returncode == 0, shape[0].stderr
    assert shape[1] == reference[1] and shape[2] == reference[2]


@pytest.mark.parametrize("library, model", [("cdk2", "mmff"), ("mmff", "gasteiger")])
def test_library_of_another_charge_model(cdk2_library, variants, tmp_path, library, model):
    """A library whose charges come from another model than the screen's --charges: either it is
    refused with a message naming it, or the screen uses the right charges; never silently other
    scores than the source file's."""
    source = cdk2_library[0] if library == "cdk2" else variants / f"{library}.h5"
    (tmp_path / f"{library}.h5").write_bytes(source.read_bytes())
    extra = ("--electrostatics", "--charges", model)
    from_library = screen(tmp_path, f"{library}.h5", extra=extra, name="library")
    from_source = screen(tmp_path, CDK2, extra=extra, name="source")
    assert from_source[0].returncode == 0
    if from_library[0].returncode == 1:
        assert f"  {library}.h5: " in from_library[0].stderr
    else:
        assert from_library[0].returncode == 0
        rows = read_tsv(tmp_path / "library.tsv")
        assert rows[0]["es_tanimoto"] == "1.0000"      # the query against itself
        assert from_library[1] == from_source[1]
        assert from_library[2] == from_source[2]


# --- interruption and the time limit ------------------------------------------------------------

def interrupt(directory, arguments, inputs, sig, after=1.5):
    """Starts hermite with `arguments` in `directory`, sends `sig` `after` seconds later (once
    its outputs are open) and checks that it stops with 130 within 2 s, writing nothing."""
    process = subprocess.Popen([HERMITE, *map(str, arguments)], cwd=directory,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    started = time.monotonic()
    try:
        while not any(".tmp" in name for name in os.listdir(directory)):
            assert process.poll() is None, process.communicate()
            assert time.monotonic() < started + 30
            time.sleep(0.05)
        time.sleep(max(0.0, started + after - time.monotonic()))
        assert process.poll() is None, "finished before the signal"
        process.send_signal(sig)
        signalled = time.monotonic()
        stdout, stderr = process.communicate(timeout=time_limit(2.0))
        elapsed = time.monotonic() - signalled
    except subprocess.TimeoutExpired:
        process.kill()
        process.communicate()
        pytest.fail(f"still running 2 s after {sig.name}")
    finally:
        if process.poll() is None:
            process.kill()
            process.communicate()
    assert process.returncode == 130, stderr
    assert elapsed < time_limit(2.0)
    assert stdout == ""
    assert "interrupted" in stderr
    assert sorted(os.listdir(directory)) == sorted(inputs)
    return stderr


def peptides(directory):
    """20 copies of the slow peptide, each with its own title."""
    return write_smiles(directory / "peptides.smi",
                        [(PEPTIDE, f"peptide_{i}") for i in range(1, 21)])


def test_interrupted_prepare_leaves_no_library(tmp_path):
    peptides(tmp_path)
    stderr = interrupt(tmp_path, ["prepare", "peptides.smi", "--out", "library.h5",
                                  "--conformers", "50"], ["peptides.smi"], signal.SIGINT)
    assert "no library written" in stderr


def test_interrupted_smiles_overlay_leaves_no_output(tmp_path):
    peptides(tmp_path)
    stderr = interrupt(tmp_path, ["overlay", "--query", QUERY, "--db", "peptides.smi",
                                  "--conformers", "50", "--scores", "scores.tsv", "--out",
                                  "hits.sdf"], ["peptides.smi"], signal.SIGINT)
    assert "no output written" in stderr


def test_terminated_overlay_of_a_large_file_leaves_no_output(tmp_path):
    (tmp_path / "big.sdf").write_text(CDK2.read_text() * 200)
    stderr = interrupt(tmp_path, ["overlay", "--query", QUERY, "--db", "big.sdf", "--searches",
                                  "20", "--scores", "scores.tsv", "--out", "hits.sdf"],
                       ["big.sdf"], signal.SIGTERM)
    assert "no output written" in stderr


@pytest.mark.parametrize("command", ["overlay", "prepare"])
def test_conformer_time_limit_skips_the_slow_molecule(tmp_path, command):
    write_smiles(tmp_path / "db.smi", [("c1ccccc1C(=O)O", "benzoic_acid"),
                                       (PEPTIDE, "peptide"), ("CC(=O)Nc1ccc(O)cc1", "paracetamol")])
    options = ("--conformers", "50", "--conformer-time-limit", "0.5", "--threads", "1")
    started = time.monotonic()
    if command == "overlay":
        result, _, _ = screen(tmp_path, "db.smi", extra=options)
    else:
        result = prepare(tmp_path, "db.smi", "--out", "library.h5", *options)
    elapsed = time.monotonic() - started
    assert result.returncode == 1, result.stderr
    assert f"db.smi, record 2 (peptide): {TIME_LIMIT_MESSAGE}" in result.stderr
    # Stopped near the limit, not after the whole embedding (tens of seconds).
    assert elapsed < 10
    if command == "prepare":
        assert "2 molecules, 100 conformers written to library.h5" in result.stderr
        result, _, _ = screen(tmp_path, "library.h5", extra=("--quiet",))
        assert result.returncode == 0, result.stderr
    rows = read_tsv(tmp_path / "run.tsv")
    assert [(row["title"], row["record"], row["conformers"]) for row in rows] == \
        [("benzoic_acid", "1", "50"), ("paracetamol", "3", "50")]
    assert all(row["status"] == "ok" for row in rows)


# --- help ---------------------------------------------------------------------------------------

def test_prepare_help():
    result = run("prepare", "--help")
    assert result.returncode == 0
    assert result.stdout.startswith("Usage: hermite prepare ")
    assert "HDF5" in result.stdout and ".h5" in result.stdout
    for option in ["--out", "--threads", "--hydrogens", "--charges", "--no-charges",
                   "--conformers", "--seed", "--minimize", "--prune-rms",
                   "--conformer-time-limit", "--quiet", "--help"]:
        assert f"  {option}" in result.stdout or f"-h, {option}" in result.stdout, option
    assert "Exit status" in result.stdout
    assert run("help", "prepare").stdout == result.stdout
    assert "  prepare " in run("--help").stdout
