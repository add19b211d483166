"""The type stubs match the module: mypy's stubtest compares hermite/__init__.pyi and
hermite/_hermite.pyi with what the module holds at run time (names, signatures, properties,
__all__), and type-checks the modules written in Python while it builds them. What it reports
that is not a difference is listed, with the reasons, in python/stubtest-allowlist.txt."""

from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

import pytest

from conftest import time_limit

pytest.importorskip("mypy.stubtest", reason="install mypy (Debian python3-mypy)")

SOURCE = Path(__file__).resolve().parents[2]


def test_stubtest_finds_no_difference(tmp_path):
    import hermite

    package_parent = str(Path(hermite.__file__).resolve().parent.parent)
    environment = {**os.environ, "PYTHONPATH": package_parent, "MYPY_CACHE_DIR": str(tmp_path)}
    done = subprocess.run(
        [sys.executable, "-m", "mypy.stubtest", "--mypy-config-file",
         str(SOURCE / "pyproject.toml"), "--allowlist",
         str(SOURCE / "python" / "stubtest-allowlist.txt"), "hermite"],
        cwd=tmp_path, env=environment, capture_output=True, text=True,
        timeout=time_limit(600))
    assert done.returncode == 0, done.stdout + done.stderr
    assert "Success" in done.stdout
