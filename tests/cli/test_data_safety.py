"""The tool never loses or silently corrupts the user's data: outputs that name inputs, write
errors on standard output, unusable query records, cutoffs outside the metric's range."""

import gzip
import os
import subprocess

import pytest

from hermite_cli_support import CDK2, cdk2_records, query_file, run, write_sdf

QUERY = query_file()


@pytest.fixture()
def db(tmp_path):
    """Ten CDK2 ligands in a file of their own."""
    return write_sdf(tmp_path / "db.sdf", cdk2_records()[:10])


@pytest.mark.parametrize("option", ["--out", "--scores"])
def test_an_output_that_is_a_database_input_is_refused_before_any_work(tmp_path, db, option):
    before = db.read_bytes()
    result = run("overlay", "--query", QUERY, "--db", db, option, db, "--best", "3",
                 cwd=tmp_path)
    assert result.returncode == 2, result.stderr
    assert f"{option} names the input file {db}; refusing to overwrite it" in result.stderr
    assert db.read_bytes() == before
    assert result.stdout == ""


def test_an_output_that_is_the_query_spelt_differently_is_refused(tmp_path, db):
    query = write_sdf(tmp_path / "q.sdf", cdk2_records()[:1])
    before = query.read_bytes()
    result = run("overlay", "--query", "q.sdf", "--db", db, "--scores", "./q.sdf", cwd=tmp_path)
    assert result.returncode == 2, result.stderr
    assert "--scores names the input file q.sdf" in result.stderr
    assert query.read_bytes() == before


def test_an_output_behind_a_symbolic_link_to_an_input_is_refused(tmp_path, db):
    os.symlink(db, tmp_path / "link.sdf")
    before = db.read_bytes()
    result = run("overlay", "--query", QUERY, "--db", db, "--out", "link.sdf", cwd=tmp_path)
    assert result.returncode == 2, result.stderr
    assert db.read_bytes() == before
    assert os.path.islink(tmp_path / "link.sdf")


@pytest.mark.parametrize("existing", [False, True])
def test_two_outputs_naming_one_file_are_refused(tmp_path, db, existing):
    if existing:
        (tmp_path / "a.sdf").write_text("keep me\n")
    result = run("overlay", "--query", QUERY, "--db", db, "--out", "a.sdf", "--scores",
                 "./a.sdf", cwd=tmp_path)
    assert result.returncode == 2, result.stderr
    assert "--out and --scores name the same file" in result.stderr
    if existing:
        assert (tmp_path / "a.sdf").read_text() == "keep me\n"
    else:
        assert not (tmp_path / "a.sdf").exists()


def test_prepare_grid_and_expand_refuse_to_overwrite_their_input(tmp_path, db):
    before = db.read_bytes()
    for args in (["prepare", db, "--out", db],
                 ["grid", db, "--spacing", "0.5", "--out", db],
                 ["expand", db, "--out", db]):
        result = run(*args, cwd=tmp_path)
        assert result.returncode == 2, (args, result.stderr)
        assert "names the input file" in result.stderr
    assert db.read_bytes() == before


def test_write_errors_on_standard_output_fail_the_command(tmp_path):
    # /dev/full accepts the open and fails every write with ENOSPC; it is only written to.
    for args in (["expand", CDK2, "--order", "30"],
                 ["overlay", "--query", QUERY, "--db", CDK2, "--quiet"]):
        with open("/dev/full", "w") as full:
            process = subprocess.run([os.environ["HERMITE_CLI"], *map(str, args)], stdout=full,
                                     stderr=subprocess.PIPE, text=True, timeout=120,
                                     cwd=tmp_path)
        assert process.returncode == 3, (args, process.stderr)
        assert "cannot write to standard output" in process.stderr


def test_an_unusable_query_record_stops_the_run_naming_it(tmp_path, db):
    records = cdk2_records()
    broken = records[1].replace("V2000", "V2000 broken").split("\n")
    broken[3] = "garbage counts line"
    query = write_sdf(tmp_path / "query.sdf", [records[0], "\n".join(broken), records[2]])
    result = run("overlay", "--query", query, "--db", db, "--out", "hits.sdf", cwd=tmp_path)
    assert result.returncode == 3, result.stderr
    assert "1 query record cannot be used" in result.stderr
    assert "query.sdf, record 2" in result.stderr
    assert not (tmp_path / "hits.sdf").exists()


@pytest.mark.parametrize("metric, cutoff", [("shape", "1.5"), ("shape", "-0.1"),
                                            ("combo", "2.5"), ("combo", "-0.1"),
                                            ("es-combo", "2.5"), ("es-combo", "-0.5"),
                                            ("tversky-query", "2.3"), ("tversky-fit", "-1")])
def test_a_cutoff_outside_the_range_of_the_rank_metric_is_refused(tmp_path, db, metric, cutoff):
    result = run("overlay", "--query", QUERY, "--db", db, "--rank-by", metric, "--cutoff", cutoff,
                 cwd=tmp_path)
    assert result.returncode == 2, result.stderr
    assert "--cutoff must be a number from" in result.stderr


def test_a_cutoff_at_the_edge_of_the_range_is_accepted(tmp_path, db):
    result = run("overlay", "--query", QUERY, "--db", db, "--rank-by", "tversky-query",
                 "--cutoff", "2.29", "--quiet", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    assert "No hits." in result.stdout


def with_outlier(record, atom, shift):
    """An SD record with atom `atom` (1-based) moved by `shift` angstrom along x."""
    lines = record.split("\n")
    line = lines[3 + atom]
    lines[3 + atom] = f"{float(line[:10]) + shift:10.4f}" + line[10:]
    return "\n".join(lines)


@pytest.mark.parametrize("shift", [100.0, 1000.0])
def test_a_record_with_a_distant_atom_is_skipped_naming_it(tmp_path, shift):
    records = cdk2_records()[:3]
    db = write_sdf(tmp_path / "outlier.sdf", [records[0], with_outlier(records[1], 2, shift),
                                              records[2]])
    result = run("overlay", "--query", QUERY, "--db", db, "--scores", "scores.tsv",
                 cwd=tmp_path)
    assert result.returncode == 1, result.stderr
    assert "outlier.sdf, record 2" in result.stderr
    assert "its atoms are not one cloud: 1 of" in result.stderr
    rows = (tmp_path / "scores.tsv").read_text().splitlines()[1:]
    assert [row.split("\t")[2] for row in rows] == ["1", "3"]


def test_a_query_with_a_distant_atom_is_refused(tmp_path, db):
    query = write_sdf(tmp_path / "query.sdf", [with_outlier(cdk2_records()[0], 1, 100.0)])
    result = run("overlay", "--query", query, "--db", db, cwd=tmp_path)
    assert result.returncode == 3, result.stderr
    assert "its atoms are not one cloud" in result.stderr


@pytest.mark.parametrize("name", ["hits.mol2", "hits.smi", "hits.txt", "hits"])
def test_hits_in_a_format_other_than_sd_are_refused(tmp_path, db, name):
    result = run("overlay", "--query", QUERY, "--db", db, "--out", name, cwd=tmp_path)
    assert result.returncode == 2, result.stderr
    assert "--out writes SD files" in result.stderr
    assert not (tmp_path / name).exists()


def test_gzipped_hits_are_gzip_compressed(tmp_path, db):
    result = run("overlay", "--query", QUERY, "--db", db, "--out", "hits.SDF.GZ", "--best", "2",
                 "--quiet", cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    data = (tmp_path / "hits.SDF.GZ").read_bytes()
    assert data[:2] == b"\x1f\x8b"
    assert gzip.decompress(data).decode().count("$$$$") == 2
