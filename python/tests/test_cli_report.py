"""`hermite overlay --report DIR`: the tool gathers its files in DIR and the Python report turns
them into pictures, an HTML page and a PyMOL script."""

from __future__ import annotations

import os
import struct
import subprocess
from pathlib import Path

import numpy
import pytest

from conftest import CDK2_SDF, time_limit

HERMITE = os.environ.get("HERMITE_CLI", "")
pytest.importorskip("matplotlib", reason="the report draws with matplotlib")


def png_size(path: Path) -> tuple:
    header = path.read_bytes()[:24]
    assert header[:8] == b"\x89PNG\r\n\x1a\n", f"{path.name} is not a PNG"
    return struct.unpack(">II", header[16:24])


def overlay(arguments: list, cwd: Path, environment: dict = None) -> subprocess.CompletedProcess:
    if not HERMITE or not Path(HERMITE).is_file():
        pytest.fail(f"HERMITE_CLI does not name the built hermite binary: {HERMITE!r}")
    return subprocess.run([HERMITE, "overlay", *arguments], cwd=cwd, capture_output=True,
                          text=True, timeout=time_limit(300),
                          env={**os.environ, **(environment or {})})


def cdk2_titles() -> list:
    lines = Path(CDK2_SDF).read_text().split("$$$$\n")
    return [record.splitlines()[0] for record in lines if record.strip()]


def test_the_report_holds_the_files_pictures_page_and_script(tmp_path):
    query = tmp_path / "query.sdf"
    query.write_text(Path(CDK2_SDF).read_text().split("$$$$\n")[0] + "$$$$\n")
    actives = tmp_path / "actives.txt"
    actives.write_text("\n".join(cdk2_titles()[1:8]) + "\n")
    done = overlay(["--query", str(query), "--db", CDK2_SDF, "--best", "12", "--quiet",
                    "--report", "report", "--actives", str(actives)], tmp_path)
    assert done.returncode == 0, done.stderr
    report = tmp_path / "report"
    for name in ("hits.sdf", "scores.tsv", "query.sdf", "index.html", "hermite.pml"):
        assert (report / name).is_file(), name
    assert (report / "hits.sdf").read_text().count("$$$$") == 12
    assert len((report / "scores.tsv").read_text().splitlines()) == 1 + len(cdk2_titles())
    for picture in ("score_distribution.png", "roc.png", "top_hits.png"):
        width, height = png_size(report / picture)
        assert width >= 300 and height >= 200, picture
        assert picture in (report / "index.html").read_text()
    script = (report / "hermite.pml").read_text()
    assert "query.sdf" in script
    assert script.count("load ") >= 13  # the query and each of the 12 hits


def test_the_report_goes_beside_the_requested_outputs(tmp_path):
    done = overlay(["--query", CDK2_SDF, "--db", CDK2_SDF, "--best", "3", "--quiet",
                    "--out", "hits.sdf", "--report", "report"], tmp_path)
    assert done.returncode == 0, done.stderr
    assert (tmp_path / "hits.sdf").read_bytes() == (tmp_path / "report" / "hits.sdf").read_bytes()


def ccp4_header(path: Path) -> tuple:
    """Points per axis and the minimum, maximum and mean density of a CCP4 map."""
    header = path.read_bytes()[:1024]
    points = struct.unpack("<3i", header[:12])
    low, high, mean = struct.unpack("<3f", header[76:88])
    return points, low, high, mean


def test_maps_of_the_query_and_each_hit_are_loaded_by_the_script(tmp_path):
    records = Path(CDK2_SDF).read_text().split("$$$$\n")
    query = tmp_path / "query.sdf"
    query.write_text(records[0] + "$$$$\n")
    done = overlay(["--query", str(query), "--db", CDK2_SDF, "--best", "4", "--quiet",
                    "--report", "report", "--maps"], tmp_path)
    assert done.returncode == 0, done.stderr
    maps = tmp_path / "report" / "maps"
    names = sorted(path.name for path in maps.iterdir())
    assert names == ["hit-001.ccp4", "hit-002.ccp4", "hit-003.ccp4", "hit-004.ccp4",
                     "query-1.ccp4"]
    for name in names:
        points, low, high, mean = ccp4_header(maps / name)
        assert points[0] == points[1] == points[2] > 20
        # A truncated expansion ripples below zero, well under its peak.
        assert high > 0.5 and low > -0.3 * high and 0 < mean < high
    # The best hit is the query itself, moved back onto it: the same density where it lies.
    query_map, hit_map = (numpy.frombuffer((maps / name).read_bytes()[1024:], dtype="<f4")
                          for name in ("query-1.ccp4", "hit-001.ccp4"))
    assert query_map.shape == hit_map.shape
    assert numpy.abs(query_map - hit_map).max() < 0.02 * query_map.max()
    script = (tmp_path / "report" / "hermite.pml").read_text()
    for name in names:
        assert f"maps/{name}" in script


def test_maps_without_a_report_is_a_usage_error(tmp_path):
    done = overlay(["--query", CDK2_SDF, "--db", CDK2_SDF, "--maps"], tmp_path)
    assert done.returncode == 2
    assert "--report" in done.stderr


def test_a_missing_interpreter_is_reported_with_status_3(tmp_path):
    done = overlay(["--query", CDK2_SDF, "--db", CDK2_SDF, "--quiet", "--report", "report"],
                   tmp_path, {"HERMITE_PYTHON": str(tmp_path / "no-python")})
    assert done.returncode == 3
    assert "the report was not made" in done.stderr
    assert "HERMITE_PYTHON" in done.stderr


def test_actives_without_a_report_is_a_usage_error(tmp_path):
    done = overlay(["--query", CDK2_SDF, "--db", CDK2_SDF, "--actives", CDK2_SDF], tmp_path)
    assert done.returncode == 2
    assert "--report" in done.stderr
