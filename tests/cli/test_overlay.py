"""`hermite overlay` on the CDK2 ligand set: the first ligand against all 47."""

import math

import pytest

from hermite_cli_support import (CDK2, cdk2_records, query_file, ranked, read_sdf, read_tsv, run,
                                 scaled, sd_coordinates)

# The first CDK2 ligand alone: every molecule of a query file is a query.
QUERY = query_file()

SCORE_COLUMNS = ["shape_tanimoto", "hermite_tanimoto", "tversky_query", "tversky_fit"]
ES_COLUMNS = ["es_tanimoto", "es_carbo", "es_combo"]


@pytest.fixture(scope="module")
def screen(tmp_path_factory):
    """One default run with hits and scores, shared by the tests of this module."""
    directory = tmp_path_factory.mktemp("screen")
    result = run("overlay", "--query", QUERY, "--db", CDK2, "--out", "hits.sdf",
                 "--scores", "scores.tsv", "--best", "20", "--threads", "2", cwd=directory)
    return directory, result


def test_exit_status_and_summary(screen):
    _, result = screen
    assert result.returncode == 0, result.stderr
    assert "47 molecules read from 1 file, 47 conformers, 47 overlays" in result.stderr
    assert "overlays/s" in result.stderr and "overlay kernel:" in result.stderr
    assert "20 hits written to hits.sdf" in result.stderr
    assert "47 rows of scores written to scores.tsv" in result.stderr
    assert "query " in result.stderr and "record 1 (ZINC03814457)" in result.stderr


def test_score_table_has_one_row_per_molecule_in_input_order(screen):
    directory, _ = screen
    rows = read_tsv(directory / "scores.tsv")
    header = (directory / "scores.tsv").read_text().split("\n")[0].split("\t")
    assert header == ["title", "file", "record", "conformer", "conformers", "query",
                      "query_conformer", *SCORE_COLUMNS, "status"]
    titles = [record.split("\n")[0] for record in cdk2_records()]
    assert [row["title"] for row in rows] == titles
    assert [int(row["record"]) for row in rows] == list(range(1, 48))
    for row in rows:
        assert row["status"] == "ok"
        assert row["conformer"] == "1" and row["conformers"] == "1"
        assert row["query"] == "1" and row["query_conformer"] == "1"
        for column in SCORE_COLUMNS:
            assert len(row[column].split(".")[1]) == 4  # four decimals
        assert 0.0 <= float(row["shape_tanimoto"]) <= 1.0


def test_first_hit_is_the_query_itself(screen):
    directory, _ = screen
    hits = read_sdf(directory / "hits.sdf")
    title, tags = hits[0]
    assert title == "ZINC03814457"
    assert tags["hermite_rank"] == "1"
    assert float(tags["hermite_shape_tanimoto"]) >= 0.99
    assert tags["hermite_query"] == "1" and tags["hermite_query_conformer"] == "1"
    assert tags["hermite_query_title"] == "ZINC03814457"


def test_hits_file_holds_the_best_with_tags_and_titles(screen):
    directory, _ = screen
    hits = read_sdf(directory / "hits.sdf")
    rows = {row["title"]: row for row in read_tsv(directory / "scores.tsv")}
    expected = [row["title"] for row in ranked(read_tsv(directory / "scores.tsv"))][:20]
    assert [title for title, _ in hits] == expected
    for rank, (title, tags) in enumerate(hits, start=1):
        assert title in rows
        assert tags["hermite_rank"] == str(rank)
        assert tags["hermite_shape_tanimoto"] == rows[title]["shape_tanimoto"]
        assert tags["hermite_hermite_tanimoto"] == rows[title]["hermite_tanimoto"]
        assert tags["hermite_tversky_query"] == rows[title]["tversky_query"]
        assert tags["hermite_tversky_fit"] == rows[title]["tversky_fit"]
        assert tags["hermite_conformer"] == "1"
        assert "hermite_es_tanimoto" not in tags and "hermite_es_combo" not in tags
        assert "hermite_colour_tanimoto" not in tags and "hermite_combo" not in tags
        # The input's own data items are kept.
        assert tags["id"] == title


def test_hits_are_moved_onto_the_query(screen):
    directory, _ = screen
    records = {record.split("\n")[0]: record for record in cdk2_records()}
    written = (directory / "hits.sdf").read_text().split("$$$$\n")
    # The query overlaid onto itself stays (nearly) where it is.
    query_out = sd_coordinates(written[0])
    query_in = sd_coordinates(records["ZINC03814457"])
    assert len(query_out) == len(query_in)
    rmsd = math.sqrt(sum((a - b) ** 2 for p, q in zip(query_out, query_in)
                         for a, b in zip(p, q)) / len(query_in))
    assert rmsd < 0.1


def test_ranked_table_on_stdout(screen):
    directory, result = screen
    lines = result.stdout.splitlines()
    assert lines[0].startswith("Query: ZINC03814457; 47 molecules, 47 with shape Tanimoto")
    assert lines[1].split() == ["rank", "title", "shape", "hermite", "tv_query", "tv_fit", "conf"]
    assert len(lines) == 2 + 10
    first = lines[2].split()
    assert first[0] == "1" and first[1] == "ZINC03814457"
    # Aligned: every row as long as the header or shorter only by trailing blanks.
    assert len({len(line) for line in lines[1:]}) == 1
    hits = read_sdf(directory / "hits.sdf")
    assert [line.split()[1] for line in lines[2:]] == [title for title, _ in hits[:10]]


def test_output_identical_for_any_thread_count(tmp_path):
    outputs = []
    for threads in ["1", "2", "-1", "0"]:
        directory = tmp_path / f"t{threads}"
        directory.mkdir()
        result = run("overlay", "--query", QUERY, "--db", CDK2, "--out", "hits.sdf", "--scores",
                     "scores.tsv", "--threads", threads, "--starts", "2", "--quiet",
                     cwd=directory)
        assert result.returncode == 0, result.stderr
        assert result.stderr == ""
        outputs.append(((directory / "hits.sdf").read_bytes(),
                        (directory / "scores.tsv").read_bytes(), result.stdout))
    assert all(output == outputs[0] for output in outputs[1:])


def test_score_only_scores_input_poses(tmp_path):
    result = run("overlay", "--query", QUERY, "--db", CDK2, "--scores", "scores.tsv",
                 "--score-only", "--quiet", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    rows = read_tsv(tmp_path / "scores.tsv")
    assert len(rows) == 47
    assert rows[0]["shape_tanimoto"] == "1.0000"
    # The CDK2 ligands are docked poses, already roughly superposed: scores in place are
    # lower than after the overlay for some, and never higher by more than rounding.
    optimised = run("overlay", "--query", QUERY, "--db", CDK2, "--scores", "opt.tsv", "--quiet",
                    cwd=tmp_path)
    assert optimised.returncode == 0
    best = read_tsv(tmp_path / "opt.tsv")
    in_place = [float(row["shape_tanimoto"]) for row in rows]
    overlaid = [float(row["shape_tanimoto"]) for row in best]
    assert all(a <= b + 1e-3 for a, b in zip(in_place, overlaid))
    assert sum(overlaid) > sum(in_place)


def test_electrostatics_columns_and_tags(tmp_path):
    result = run("overlay", "--query", QUERY, "--db", CDK2, "--electrostatics", "--scores",
                 "scores.tsv", "--out", "hits.sdf", "--best", "3", "--quiet", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    header = (tmp_path / "scores.tsv").read_text().split("\n")[0].split("\t")
    assert header[-4:] == [*ES_COLUMNS, "status"]
    rows = read_tsv(tmp_path / "scores.tsv")
    assert rows[0]["es_tanimoto"] == "1.0000" and rows[0]["es_combo"] == "2.0000"
    for row in rows:
        assert -1.0 / 3.0 - 1e-4 <= float(row["es_tanimoto"]) <= 1.0
        assert -1.0 <= float(row["es_carbo"]) <= 1.0
        combo = float(row["shape_tanimoto"]) + float(row["es_tanimoto"])
        assert abs(float(row["es_combo"]) - combo) <= 2e-4
    hits = read_sdf(tmp_path / "hits.sdf")
    assert len(hits) == 3
    for _, tags in hits:
        for tag in ["hermite_es_tanimoto", "hermite_es_carbo", "hermite_es_combo"]:
            assert tag in tags
    assert "es_tan" in result.stdout.splitlines()[1]


def test_rank_by_es_combo_implies_electrostatics(tmp_path):
    result = run("overlay", "--query", QUERY, "--db", CDK2, "--rank-by", "es-combo", "--scores",
                 "scores.tsv", "--out", "hits.sdf", "--quiet", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    combos = [float(tags["hermite_es_combo"]) for _, tags in read_sdf(tmp_path / "hits.sdf")]
    assert len(combos) == 47
    assert combos == sorted(combos, reverse=True)
    assert combos[0] == max(float(row["es_combo"]) for row in read_tsv(tmp_path / "scores.tsv"))
    assert "electrostatic combo score" in result.stdout.splitlines()[0]


def test_colour_columns_tags_and_ranking(tmp_path):
    """--rank-by combo implies --colour: shape + colour Tanimoto, ranked; the query itself is
    first with a colour Tanimoto of 1."""
    result = run("overlay", "--query", QUERY, "--db", CDK2, "--rank-by", "combo", "--scores",
                 "scores.tsv", "--out", "hits.sdf", "--quiet", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    rows = read_tsv(tmp_path / "scores.tsv")
    assert list(rows[0])[-3:] == ["colour_tanimoto", "combo", "status"]
    for row in rows:
        assert 0.0 <= float(row["colour_tanimoto"]) <= 1.0
        combo = float(row["shape_tanimoto"]) + float(row["colour_tanimoto"])
        assert abs(float(row["combo"]) - combo) <= 2e-4
    hits = read_sdf(tmp_path / "hits.sdf")
    combos = [float(tags["hermite_combo"]) for _, tags in hits]
    assert combos == sorted(combos, reverse=True)
    assert hits[0][1]["hermite_colour_tanimoto"] == "1.0000"
    assert "combo score (shape + colour Tanimoto)" in result.stdout.splitlines()[0]
    assert "colour" in result.stdout.splitlines()[1]


def test_colour_spelled_color_and_user_feature_definitions(tmp_path):
    """--color is --colour; a user's .fdef with one family changes the colour scores, and a bad
    one is a usage error naming the file."""
    default = run("overlay", "--query", QUERY, "--db", CDK2, "--color", "--scores", "d.tsv",
                  "--quiet", cwd=tmp_path)
    assert default.returncode == 0, default.stderr
    (tmp_path / "rings.fdef").write_text(
        "DefineFeature Ring6 a1aaaaa1\n  Family Ring\n  Weights 1,1,1,1,1,1\nEndFeature\n")
    rings = run("overlay", "--query", QUERY, "--db", CDK2, "--colour", "--features", "rings.fdef",
                "--scores", "r.tsv", "--quiet", cwd=tmp_path)
    assert rings.returncode == 0, rings.stderr
    by_default = [row["colour_tanimoto"] for row in read_tsv(tmp_path / "d.tsv")]
    by_rings = [row["colour_tanimoto"] for row in read_tsv(tmp_path / "r.tsv")]
    assert by_default != by_rings
    (tmp_path / "bad.fdef").write_text("DefineFeature Broken [C\n  Family X\nEndFeature\n")
    bad = run("overlay", "--query", QUERY, "--db", CDK2, "--colour", "--features", "bad.fdef",
              cwd=tmp_path)
    assert bad.returncode == 2
    assert "--features" in bad.stderr and "bad.fdef" in bad.stderr
    alone = run("overlay", "--query", QUERY, "--db", CDK2, "--features", "rings.fdef",
                cwd=tmp_path)
    assert alone.returncode == 2 and "add --colour" in alone.stderr


def test_electrostatic_weight_moves_the_pose(tmp_path):
    """--electrostatic-weight implies --electrostatics and lets the electrostatics move the
    poses: the electrostatic Tanimotos rise on the whole; 0 changes nothing; out of range is a
    usage error."""
    def scores(name, *options):
        result = run("overlay", "--query", QUERY, "--db", CDK2, "--scores", f"{name}.tsv",
                     "--quiet", *options, cwd=tmp_path)
        assert result.returncode == 0, result.stderr
        return read_tsv(tmp_path / f"{name}.tsv")
    scored = scores("scored", "--electrostatics")
    weighted = scores("weighted", "--electrostatic-weight", "5000")
    assert [row["title"] for row in scored] == [row["title"] for row in weighted]
    gains = [float(w["es_tanimoto"]) - float(s["es_tanimoto"]) for s, w in zip(scored, weighted)]
    assert sum(gains) / len(gains) > 0.02
    assert sum(gain > -0.01 for gain in gains) >= 40
    assert scores("zero", "--electrostatics", "--electrostatic-weight", "0") == scored
    bad = run("overlay", "--query", QUERY, "--db", CDK2, "--electrostatic-weight", "-1",
              cwd=tmp_path)
    assert bad.returncode == 2 and "--electrostatic-weight" in bad.stderr


def test_cutoff_and_best(tmp_path):
    result = run("overlay", "--query", QUERY, "--db", CDK2, "--scores", "scores.tsv", "--out",
                 "hits.sdf", "--cutoff", "0.8", "--best", "4", "--quiet", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    rows = read_tsv(tmp_path / "scores.tsv")
    assert len(rows) == 47
    passing = sum(1 for row in rows if float(row["shape_tanimoto"]) >= 0.8)
    assert passing >= 5
    assert len(read_sdf(tmp_path / "hits.sdf")) == 4
    table = result.stdout.splitlines()
    assert f"{passing} with shape Tanimoto >= 0.8000" in table[0]
    assert len(table) == 2 + 4


def test_skip_by_bound_keeps_the_hits(tmp_path):
    """Small molecules after the ligands cannot reach a cutoff of 0.6: their overlays are
    skipped, the summary says how many, and the hits are those of the full run."""
    (tmp_path / "small.smi").write_text("C methane\nCCO ethanol\nc1ccccc1 benzene\n")
    outputs = {}
    for name, extra in [("all", []), ("skipping", ["--skip-by-bound"])]:
        result = run("overlay", "--query", QUERY, "--db", CDK2, "small.smi", "--out",
                     f"{name}.sdf", "--cutoff", "0.6", "--best", "3", *extra, cwd=tmp_path)
        assert result.returncode == 0, result.stderr
        outputs[name] = result
    skipping = outputs["skipping"]
    skipped = int(skipping.stderr.split(" molecules skipped by the score bound")[0].split()[-1])
    assert skipped >= 3
    assert "skipped by the score bound" not in outputs["all"].stderr
    assert "among those overlaid" in skipping.stdout.splitlines()[0]
    assert (tmp_path / "skipping.sdf").read_text() == (tmp_path / "all.sdf").read_text()


def test_tversky_ranking(tmp_path):
    result = run("overlay", "--query", QUERY, "--db", CDK2, "--out", "hits.sdf",
                 "--rank-by", "tversky-fit", "--quiet", cwd=tmp_path)
    assert result.returncode == 0
    values = [float(tags["hermite_tversky_fit"]) for _, tags in read_sdf(tmp_path / "hits.sdf")]
    assert len(values) == 47 and values == sorted(values, reverse=True)


def test_smiles_database_gets_conformers(tmp_path):
    smiles = tmp_path / "db.smi"
    smiles.write_text("c1ccccc1C(=O)O benzoic_acid\nCCO ethanol\n")
    result = run("overlay", "--query", QUERY, "--db", smiles, "--scores", "scores.tsv",
                 "--out", "hits.sdf", "--conformers", "3", "--seed", "7", "--quiet",
                 cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    rows = read_tsv(tmp_path / "scores.tsv")
    assert [row["title"] for row in rows] == ["benzoic_acid", "ethanol"]
    assert all(row["conformers"] == "3" for row in rows)
    assert all(1 <= int(row["conformer"]) <= 3 for row in rows)
    hits = read_sdf(tmp_path / "hits.sdf")
    assert hits[0][1]["hermite_conformer"] == rows[0]["conformer"] or \
        hits[0][1]["hermite_conformer"] == rows[1]["conformer"]


def retitled(record, title):
    """An SD record with another title."""
    return title + "\n" + record.split("\n", 1)[1]


def test_best_conformer_is_kept(tmp_path):
    records = cdk2_records()
    # Three conformers of "multi": the query stretched and shrunk around the query itself, then
    # two equal conformers of "twin" (the first of equal ones wins).
    db = tmp_path / "multi.sdf"
    db.write_text(retitled(scaled(records[0], 1.3), "multi") + retitled(records[0], "multi") +
                  retitled(scaled(records[0], 0.8), "multi") + retitled(records[0], "twin") +
                  retitled(records[0], "twin"))
    result = run("overlay", "--query", QUERY, "--db", db, "--scores", "scores.tsv", "--out",
                 "hits.sdf", "--quiet", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    rows = read_tsv(tmp_path / "scores.tsv")
    assert [(row["title"], row["conformers"], row["conformer"], row["record"]) for row in rows] \
        == [("multi", "3", "2", "2"), ("twin", "2", "1", "4")]
    hits = read_sdf(tmp_path / "hits.sdf")
    # Equal scores rank in input order.
    assert [(title, tags["hermite_conformer"]) for title, tags in hits] == \
        [("multi", "2"), ("twin", "1")]
