"""hermite.distributed: `hermite overlay` screened in parts on a Dask cluster of this machine.

The reference of every test is the `hermite` binary itself (HERMITE_CLI, set by CTest): the
files a distributed run writes must be those of one single-machine run, byte for byte. The
cluster is local (loopback only), two worker processes of one thread, shared by the tests of
this file and closed at the end.
"""

from __future__ import annotations

import os
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest

from conftest import CDK2_SDF, time_limit

distributed = pytest.importorskip("distributed", reason="install python3-distributed")

import hermite.distributed  # noqa: E402

HERMITE = os.environ.get("HERMITE_CLI", "")


def cdk2_records() -> list:
    text = Path(CDK2_SDF).read_text()
    return [record + "$$$$\n" for record in text.split("$$$$\n") if record.strip()]


def write(path: Path, records: list) -> Path:
    path.write_text("".join(records))
    return path


@pytest.fixture(scope="module")
def cluster():
    """A local cluster of two single-threaded worker processes and a client of it."""
    local = distributed.LocalCluster(
        n_workers=2, threads_per_worker=1, processes=True, host="127.0.0.1",
        dashboard_address=None)
    client = distributed.Client(local)
    yield client
    client.close()
    local.close()


def run_tool(arguments: list, cwd: Path) -> subprocess.CompletedProcess:
    """One single-machine run of `hermite overlay`."""
    if not HERMITE or not Path(HERMITE).is_file():
        pytest.fail(f"HERMITE_CLI does not name the built hermite binary: {HERMITE!r}")
    return subprocess.run([HERMITE, "overlay", *arguments], cwd=cwd, capture_output=True,
                          text=True, timeout=time_limit(300))


def run_distributed(arguments: list, cwd: Path, scheduler: str,
                    part_size: int = 5) -> subprocess.CompletedProcess:
    """`python3 -m hermite.distributed overlay` with the same arguments."""
    command = [sys.executable, "-m", "hermite.distributed", "overlay", "--scheduler", scheduler,
               "--part-size", str(part_size), *arguments]
    return subprocess.run(command, cwd=cwd, capture_output=True, text=True,
                          timeout=time_limit(300))


def outputs(directory: Path, names: list) -> dict:
    return {name: (directory / name).read_bytes() for name in names}


@pytest.fixture()
def inputs(tmp_path: Path) -> Path:
    """Query files (one and two molecules), an SD database with a bad record in the middle, and
    a prepared library of the CDK2 set."""
    records = cdk2_records()
    write(tmp_path / "query.sdf", records[:1])
    write(tmp_path / "queries.sdf", records[3:5])
    write(tmp_path / "with-bad-record.sdf",
          records[:20] + ["garbage\n  no molfile here\n\n$$$$\n"] + records[20:])
    prepared = subprocess.run(
        [HERMITE, "prepare", CDK2_SDF, "--out", str(tmp_path / "cdk2.h5"), "--quiet"],
        capture_output=True, text=True, timeout=time_limit(300))
    assert prepared.returncode == 0, prepared.stderr
    return tmp_path


SCREENS = {
    "sd-database": ["--query", "query.sdf", "--db", CDK2_SDF, "--best", "10"],
    "library-and-sd-per-query": ["--query", "queries.sdf", "--db", "cdk2.h5", CDK2_SDF,
                                 "--best", "7", "--per-query"],
    "electrostatics-combo-cutoff": ["--query", "query.sdf", "--db", "cdk2.h5",
                                    "--rank-by", "es-combo", "--cutoff", "0.9", "--best", "15"],
    "bad-record": ["--query", "query.sdf", "--db", "with-bad-record.sdf", "--best", "5"],
}


@pytest.mark.parametrize("name", sorted(SCREENS))
def test_parts_merge_into_the_files_of_one_run(name, inputs, cluster):
    arguments = SCREENS[name]
    single = run_tool([*arguments, "--out", "single.sdf", "--scores", "single.tsv", "--quiet"],
                      inputs)
    spread = run_distributed([*arguments, "--out", "spread.sdf", "--scores", "spread.tsv",
                              "--quiet"], inputs, cluster.scheduler.address, part_size=4)
    assert spread.returncode == single.returncode, spread.stderr
    assert spread.stdout == single.stdout  # the ranked table
    assert (inputs / "spread.sdf").read_bytes() == (inputs / "single.sdf").read_bytes()
    assert (inputs / "spread.tsv").read_bytes() == (inputs / "single.tsv").read_bytes()
    assert len(single.stdout.splitlines()) >= 5


def test_bad_records_are_named_as_in_one_run_and_the_run_goes_on(inputs, cluster):
    arguments = ["--query", "query.sdf", "--db", "with-bad-record.sdf", "--best", "3"]
    single = run_tool(arguments, inputs)
    spread = run_distributed(arguments, inputs, cluster.scheduler.address, part_size=3)
    assert single.returncode == spread.returncode == 1
    problem = "with-bad-record.sdf, record 21"
    assert problem in single.stderr
    assert problem in spread.stderr
    assert "47 molecules read" in spread.stderr


def test_a_worker_killed_mid_run_loses_nothing(inputs, cluster, capfd):
    arguments = ["--query", "query.sdf", "--db", CDK2_SDF, CDK2_SDF, "--searches", "8",
                 "--best", "20", "--quiet"]
    single = run_tool([*arguments, "--out", "single.sdf", "--scores", "single.tsv"], inputs)
    assert single.returncode == 0, single.stderr

    pids = cluster.run(os.getpid)
    victim = sorted(pids.values())[0]
    killed = []

    def kill_after_the_first_part(done: int, parts: int) -> None:
        if not killed:
            os.kill(victim, signal.SIGKILL)
            killed.append(done)

    here = os.getcwd()
    os.chdir(inputs)
    try:
        status = hermite.distributed.overlay(
            [*arguments, "--out", "spread.sdf", "--scores", "spread.tsv"], cluster,
            part_size=2, progress=kill_after_the_first_part)
    finally:
        os.chdir(here)
    assert killed == [1]
    assert status == 0
    assert (inputs / "spread.sdf").read_bytes() == (inputs / "single.sdf").read_bytes()
    assert (inputs / "spread.tsv").read_bytes() == (inputs / "single.tsv").read_bytes()
    assert capfd.readouterr().out == single.stdout
    cluster.wait_for_workers(2, timeout=time_limit(60))


def test_a_local_cluster_started_for_the_run(inputs):
    arguments = ["--query", "query.sdf", "--db", "cdk2.h5", "--best", "5", "--out", "{}.sdf",
                 "--quiet"]
    single = run_tool([a.format("single") for a in arguments], inputs)
    spread = run_distributed([a.format("spread") for a in arguments], inputs, "local:2",
                             part_size=10)
    assert spread.returncode == single.returncode == 0, spread.stderr
    assert (inputs / "spread.sdf").read_bytes() == (inputs / "single.sdf").read_bytes()


@pytest.mark.parametrize("arguments, message", [
    (["--query", "q.sdf", "--db", "d.sdf"], "--scheduler is required"),
    (["--scheduler", "local:2", "--part-size", "0", "--query", "q.sdf", "--db", "d.sdf"],
     "--part-size must be an integer of at least 1, got 0"),
    (["--scheduler", "local:0", "--query", "q.sdf", "--db", "d.sdf"], "local:N needs"),
    (["--scheduler"], "--scheduler needs a value"),
])
def test_usage_errors_exit_with_status_2(arguments, message, tmp_path):
    result = subprocess.run(
        [sys.executable, "-m", "hermite.distributed", "overlay", *arguments], cwd=tmp_path,
        capture_output=True, text=True, timeout=time_limit(120))
    assert result.returncode == 2
    assert message in result.stderr


def test_options_of_hermite_overlay_are_checked_by_its_own_parser(inputs, cluster):
    result = run_distributed(["--query", "query.sdf", "--db", CDK2_SDF, "--best", "0"], inputs,
                             cluster.scheduler.address)
    assert result.returncode == 2
    assert "hermite.distributed overlay: --best must be an integer from 1" in result.stderr


def test_help_shows_the_cluster_options_and_those_of_hermite_overlay():
    result = subprocess.run([sys.executable, "-m", "hermite.distributed", "overlay", "--help"],
                            capture_output=True, text=True, timeout=time_limit(60))
    assert result.returncode == 0
    assert "--scheduler ADDRESS" in result.stdout
    assert "--part-size N" in result.stdout
    assert "--rank-by METRIC" in result.stdout


def test_part_size_is_checked_in_python(cluster):
    with pytest.raises(ValueError, match="part_size"):
        hermite.distributed.overlay(["--query", "q.sdf", "--db", "d.sdf"], cluster, part_size=0)


def test_sigterm_stops_the_run_and_writes_nothing(inputs):
    (inputs / "big.sdf").write_text(Path(CDK2_SDF).read_text() * 20)
    command = [sys.executable, "-m", "hermite.distributed", "overlay", "--scheduler", "local:2",
               "--part-size", "5", "--query", "query.sdf", "--db", "big.sdf", "--searches", "20",
               "--out", "hits.sdf", "--scores", "scores.tsv", "--quiet"]
    process = subprocess.Popen(command, cwd=inputs, stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True)
    try:
        deadline = time.monotonic() + time_limit(120)
        # The outputs are open (as temporary files) once the cluster is up and the run started.
        while not any(".tmp" in name for name in os.listdir(inputs)):
            assert process.poll() is None, process.communicate()
            assert time.monotonic() < deadline
            time.sleep(0.05)
        time.sleep(0.5)
        assert process.poll() is None, "finished before the signal"
        process.send_signal(signal.SIGTERM)
        _, stderr = process.communicate(timeout=time_limit(60))
    finally:
        if process.poll() is None:
            process.kill()
            process.communicate()
    assert process.returncode == 130, stderr
    assert "interrupted; no output written" in stderr
    assert not (inputs / "hits.sdf").exists() and not (inputs / "scores.tsv").exists()
    assert not [name for name in os.listdir(inputs) if ".tmp" in name]
