"""Bad input never crashes and never loses work: each problem gets a message naming the file
and record, the other records go on, and the exit status says whether anything was skipped.
Outputs appear complete or not at all."""

import os
import signal
import subprocess
import time

import pytest

from hermite_cli_support import (CDK2, HERMITE, cdk2_records, query_file, read_sdf, read_tsv, run,
                                 write_sdf)

QUERY = query_file()

GARBAGE = "garbage title\nthis is not a molfile\n\n  3  2  0  0\nM  END\n$$$$\n"

FLAT = """flat
     RDKit          2D

  3  2  0  0  0  0  0  0  0  0999 V2000
    0.0000    0.0000    0.0000 C   0  0  0  0  0  0  0  0  0  0  0  0
    1.5000    0.0000    0.0000 C   0  0  0  0  0  0  0  0  0  0  0  0
    1.5000    1.5000    0.0000 O   0  0  0  0  0  0  0  0  0  0  0  0
  1  2  1  0
  2  3  1  0
M  END
$$$$
"""

EMPTY = """empty
     RDKit          3D

  0  0  0  0  0  0  0  0  0  0999 V2000
M  END
$$$$
"""

# Iron(III) chloride: RDKit's Gasteiger parameters have no iron, so its charges come out NaN.
METAL = """metal
     RDKit          3D

  4  3  0  0  0  0  0  0  0  0999 V2000
    0.0000    0.0000    0.1000 Fe  0  0  0  0  0  0  0  0  0  0  0  0
    2.1000    0.0000    0.2000 Cl  0  0  0  0  0  0  0  0  0  0  0  0
   -1.0000    1.8000    0.0000 Cl  0  0  0  0  0  0  0  0  0  0  0  0
   -1.0000   -1.8000   -0.3000 Cl  0  0  0  0  0  0  0  0  0  0  0  0
  1  2  1  0
  1  3  1  0
  1  4  1  0
M  END
$$$$
"""


def overlay(tmp_path, *db, extra=()):
    """Runs an overlay of the first CDK2 ligand against `db` with scores and hits."""
    return run("overlay", "--query", QUERY, "--db", *db, "--scores", "scores.tsv", "--out",
               "hits.sdf", *extra, cwd=tmp_path)


def test_missing_query_file(tmp_path):
    result = run("overlay", "--query", "missing.sdf", "--db", CDK2, "--scores", "scores.tsv",
                 cwd=tmp_path)
    assert result.returncode == 3
    assert result.stderr == ("hermite overlay: cannot read the query: missing.sdf: cannot open "
                             "file: No such file or directory\n")
    assert os.listdir(tmp_path) == []


def test_query_without_usable_molecule(tmp_path):
    (tmp_path / "query.sdf").write_text(GARBAGE)
    result = run("overlay", "--query", "query.sdf", "--db", CDK2, cwd=tmp_path)
    assert result.returncode == 3
    assert "cannot read the query" in result.stderr
    assert "query.sdf, record 1" in result.stderr


def test_missing_database_file_others_processed(tmp_path):
    result = overlay(tmp_path, "missing.sdf", CDK2)
    assert result.returncode == 1, result.stderr
    assert "missing.sdf: cannot open file: No such file or directory" in result.stderr
    assert "1 file could not be read" in result.stderr
    assert len(read_tsv(tmp_path / "scores.tsv")) == 47
    assert len(read_sdf(tmp_path / "hits.sdf")) == 47


def test_unparsable_record_in_the_middle(tmp_path):
    records = cdk2_records()
    write_sdf(tmp_path / "db.sdf", [records[0], GARBAGE, records[1]])
    result = overlay(tmp_path, "db.sdf")
    assert result.returncode == 1
    assert "1 record skipped" in result.stderr
    assert "db.sdf, record 2 (garbage title): " in result.stderr
    rows = read_tsv(tmp_path / "scores.tsv")
    assert [(row["title"], row["record"]) for row in rows] == \
        [("ZINC03814457", "1"), ("ZINC03814459", "3")]
    assert all(row["status"] == "ok" for row in rows)
    assert len(read_sdf(tmp_path / "hits.sdf")) == 2


def test_two_dimensional_record(tmp_path):
    records = cdk2_records()
    write_sdf(tmp_path / "db.sdf", [FLAT, records[2]])
    result = overlay(tmp_path, "db.sdf")
    assert result.returncode == 1
    assert "db.sdf, record 1 (flat): " in result.stderr
    assert "3-D" in result.stderr
    assert [row["record"] for row in read_tsv(tmp_path / "scores.tsv")] == ["2"]


def test_empty_molecule(tmp_path):
    records = cdk2_records()
    write_sdf(tmp_path / "db.sdf", [records[2], EMPTY, records[3]])
    result = overlay(tmp_path, "db.sdf")
    assert result.returncode == 1
    assert "db.sdf, record 2 (empty): " in result.stderr
    assert [row["record"] for row in read_tsv(tmp_path / "scores.tsv")] == ["1", "3"]


@pytest.mark.parametrize("electrostatics", [False, True])
def test_nan_charges_of_a_metal(tmp_path, electrostatics):
    records = cdk2_records()
    write_sdf(tmp_path / "db.sdf", [records[4], METAL, records[5]])
    extra = ("--electrostatics",) if electrostatics else ()
    result = overlay(tmp_path, "db.sdf", extra=extra)
    rows = read_tsv(tmp_path / "scores.tsv")
    if electrostatics:
        # The electrostatic density needs the charges: the record is skipped with a reason.
        assert result.returncode == 1
        assert "db.sdf, record 2 (metal): " in result.stderr
        assert "NaN" in result.stderr or "not finite" in result.stderr
        assert [row["record"] for row in rows] == ["1", "3"]
    else:
        # Shape alone: either the metal is screened or skipped with a message, never a crash.
        assert result.returncode in (0, 1)
        if result.returncode == 1:
            assert "db.sdf, record 2 (metal): " in result.stderr
        assert {row["record"] for row in rows} >= {"1", "3"}
    for row in rows:
        assert "nan" not in "".join(row.values()).lower()


def test_bad_records_in_several_files_are_all_listed(tmp_path):
    records = cdk2_records()
    write_sdf(tmp_path / "a.sdf", [GARBAGE, records[6]])
    write_sdf(tmp_path / "b.sdf", [records[7], FLAT])
    result = overlay(tmp_path, "a.sdf", "missing.sdf", "b.sdf")
    assert result.returncode == 1
    assert "a.sdf, record 1 (garbage title)" in result.stderr
    assert "missing.sdf: cannot open file" in result.stderr
    assert "b.sdf, record 2 (flat)" in result.stderr
    rows = read_tsv(tmp_path / "scores.tsv")
    assert [(row["file"], row["record"]) for row in rows] == [("a.sdf", "2"), ("b.sdf", "1")]


def test_unknown_file_extension(tmp_path):
    (tmp_path / "db.xyz").write_text("3\n\nC 0 0 0\n")
    result = overlay(tmp_path, "db.xyz", CDK2)
    assert result.returncode == 1
    assert "db.xyz" in result.stderr
    assert len(read_tsv(tmp_path / "scores.tsv")) == 47


@pytest.mark.parametrize("option", ["--out", "--scores"])
def test_output_directory_missing(tmp_path, option):
    outputs = {"--scores": "scores.tsv", "--out": "hits.sdf", option: "nodir/file.sdf"}
    arguments = [item for pair in outputs.items() for item in pair]
    result = run("overlay", "--query", QUERY, "--db", CDK2, *arguments, cwd=tmp_path)
    assert result.returncode == 3
    assert "nodir/file.sdf" in result.stderr
    # Nothing at all is left behind: neither outputs nor temporary files.
    assert os.listdir(tmp_path) == []


def test_existing_outputs_survive_a_failed_run(tmp_path):
    (tmp_path / "scores.tsv").write_text("old scores\n")
    result = run("overlay", "--query", QUERY, "--db", CDK2, "--scores", "scores.tsv", "--out",
                 "nodir/hits.sdf", cwd=tmp_path)
    assert result.returncode == 3
    assert (tmp_path / "scores.tsv").read_text() == "old scores\n"
    assert os.listdir(tmp_path) == ["scores.tsv"]


def test_interrupted_run_leaves_no_file(tmp_path):
    # A database large enough to be interrupted in the middle.
    (tmp_path / "big.sdf").write_text(CDK2.read_text() * 100)
    process = subprocess.Popen([HERMITE, "overlay", "--query", str(QUERY), "--db", "big.sdf",
                                "--scores", "scores.tsv", "--out", "hits.sdf", "--threads", "1",
                                "--searches", "20"],
                               cwd=tmp_path, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                               text=True)
    # Interrupt once the run is under way: its outputs are open (as temporary files).
    deadline = time.monotonic() + 60
    while not any(".tmp-" in name for name in os.listdir(tmp_path)):
        assert process.poll() is None and time.monotonic() < deadline
        time.sleep(0.05)
    time.sleep(0.3)
    process.send_signal(signal.SIGINT)
    stdout, stderr = process.communicate(timeout=120)
    assert process.returncode == 130, stderr
    assert "interrupted; no output written" in stderr
    assert stdout == ""
    assert os.listdir(tmp_path) == ["big.sdf"]
