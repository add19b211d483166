"""The package shares its process with the user's RDKit: importing hermite and screening never
load a chemistry toolkit or an HDF5 library of hermite's own, and the package finds the
command-line tool it drives for distributed screening and reports."""

from __future__ import annotations

import os
import subprocess
import sys
import textwrap

import pytest

from conftest import CDK2_SDF, time_limit

# Runs in a fresh interpreter (this test process may have imported RDKit already) and prints
# the shared libraries the process has mapped after a screen on two threads.
_SCREEN_AND_LIST_LIBRARIES = textwrap.dedent("""
    import numpy as np
    import hermite

    rng = np.random.default_rng(7)
    coords = rng.normal(scale=1.5, size=(12, 3))
    query = hermite.Molecule(np.full(12, 6), coords, title="query")
    fits = [hermite.Molecule(np.full(12, 6), coords + rng.normal(scale=0.3, size=(12, 3)))
            for _ in range(4)]
    results = hermite.screen(query, fits, threads=2)
    assert len(results) == 4 and all(r.scores.shape_tanimoto > 0.5 for r in results)
    with open("/proc/self/maps") as maps:
        print("\\n".join(sorted({line.split()[-1] for line in maps if ".so" in line})))
""")


def mapped_libraries() -> list:
    done = subprocess.run([sys.executable, "-c", _SCREEN_AND_LIST_LIBRARIES],
                          capture_output=True, text=True, timeout=time_limit(120))
    assert done.returncode == 0, done.stderr
    return done.stdout.split()


def test_screening_loads_no_toolkit_and_no_hdf5_of_its_own():
    libraries = mapped_libraries()
    assert any("_hermite" in path for path in libraries)
    assert not [path for path in libraries if "RDKit" in path or "rdkit" in path]
    assert not [path for path in libraries if "hdf5" in path]
    assert not [path for path in libraries if "boost" in path]


def test_the_package_screens_beside_the_users_rdkit():
    """RDKit imported first, then hermite's RDKit helpers on RDKit's own molecules."""
    script = textwrap.dedent(f"""
        from rdkit import Chem
        import hermite.rdkit

        supplier = Chem.SDMolSupplier({str(CDK2_SDF)!r}, removeHs=False)
        mols = [supplier[i] for i in range(4)]
        posed = hermite.rdkit.overlay_mols(mols[0], mols[1])
        print(round(posed.result.scores.shape_tanimoto, 4))
    """)
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True,
                          timeout=time_limit(120))
    assert done.returncode == 0, done.stderr
    assert 0.3 < float(done.stdout) <= 1.0


def test_the_tool_is_found_and_answers():
    from hermite.tool import tool_path

    if not os.environ.get("HERMITE_CLI"):
        pytest.skip("HERMITE_CLI names no tool here")
    done = subprocess.run([tool_path(), "--version"], capture_output=True, text=True,
                          timeout=time_limit(30))
    assert done.returncode == 0
    assert done.stdout.startswith("hermite ")
