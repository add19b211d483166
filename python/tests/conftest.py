"""Shared fixtures of the hermite Python tests: CDK2 ligands from Debian's rdkit-data."""

from __future__ import annotations

import os
from typing import List

import numpy as np
import pytest

import hermite

CDK2_SDF = "/usr/share/RDKit/Contrib/Fastcluster/testdata/cdk2.sdf"


def time_limit(seconds: float) -> float:
    """`seconds` scaled for slow builds: HERMITE_TIME_SCALE (set by the sanitizer runs)
    multiplies every time limit of the tests."""
    return seconds * float(os.environ.get("HERMITE_TIME_SCALE", "1") or 1)


@pytest.fixture(scope="session")
def cdk2_path() -> str:
    """The CDK2 ligand file (47 ligands with hydrogens and 3-D coordinates)."""
    assert os.path.exists(CDK2_SDF), "install Debian's rdkit-data (scripts/install-deps.sh)"
    return CDK2_SDF


@pytest.fixture(scope="session")
def cdk2_rdkit(cdk2_path: str) -> list:
    """The CDK2 ligands as RDKit molecules, hydrogens kept."""
    from rdkit import Chem

    mols = [mol for mol in Chem.SDMolSupplier(cdk2_path, removeHs=False)]
    assert len(mols) == 47 and all(mol is not None for mol in mols)
    return mols


@pytest.fixture(scope="session")
def cdk2(cdk2_path: str) -> List[hermite.Molecule]:
    """The CDK2 ligands read by hermite's own reader (heavy atoms, Gasteiger charges)."""
    return hermite.read_molecules(cdk2_path)


def random_rotation(rng: np.random.Generator) -> np.ndarray:
    """A uniformly distributed random rotation matrix."""
    q = rng.normal(size=4)
    w, x, y, z = q / np.linalg.norm(q)
    return np.array([
        [1 - 2 * (y * y + z * z), 2 * (x * y - w * z), 2 * (x * z + w * y)],
        [2 * (x * y + w * z), 1 - 2 * (x * x + z * z), 2 * (y * z - w * x)],
        [2 * (x * z - w * y), 2 * (y * z + w * x), 1 - 2 * (x * x + y * y)],
    ])


def euler_xyz(a: float, b: float, c: float) -> np.ndarray:
    """R = Rx(a) Ry(b) Rz(c), the library's Euler convention."""
    ca, sa, cb, sb, cc, sc = np.cos(a), np.sin(a), np.cos(b), np.sin(b), np.cos(c), np.sin(c)
    rx = np.array([[1, 0, 0], [0, ca, -sa], [0, sa, ca]])
    ry = np.array([[cb, 0, sb], [0, 1, 0], [-sb, 0, cb]])
    rz = np.array([[cc, -sc, 0], [sc, cc, 0], [0, 0, 1]])
    return rx @ ry @ rz
