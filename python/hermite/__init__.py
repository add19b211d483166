"""hermite: molecular shape comparison with 3-D Hermite expansions of Gaussian densities.

A molecule's shape (or its charge distribution) is a sum of isotropic Gaussians; hermite expands
it in 3-D Hermite functions and compares molecules through the coefficients: overlaps with
analytic gradients, exact rotations, optimal basis scales, centres of mass, principal axes and
rendering onto grids. On top of that, ``overlay`` and ``screen`` superpose molecules by shape
and score them.

The compiled core lives in ``hermite._hermite``; everything public is re-exported here, with
the molecule file readers and writer of :mod:`hermite.molfiles` (``read_molecules``,
``read_mols``, ``write_sd``). The RDKit helpers are in :mod:`hermite.rdkit` (imported on first
use); the file functions import RDKit when they are called, so that ``import hermite`` does not
load RDKit.

Library warnings are issued as :class:`HermiteWarning`; fatal library conditions raise
:class:`HermiteError`; invalid arguments raise ``ValueError`` (or ``TypeError``).
"""

from __future__ import annotations

import importlib
from types import ModuleType

from ._hermite import (
    COMObjective,
    Centring,
    Expansion,
    Gaussian,
    Gaussians,
    Grid,
    HermiteError,
    HermiteWarning,
    InertialFrame,
    Molecule,
    Options,
    OverlapObjective,
    OverlayResult,
    OverlaySettings,
    Scores,
    SelfOverlapObjective,
    centre_of_mass,
    electrostatic_gaussians,
    exact_overlap,
    gaussians,
    iterative_search_com,
    lmn_index,
    lmn_triples,
    optimization_search_com,
    orient_by_moments_of_inertia,
    overlay,
    score,
    screen,
    shape_gaussians,
)
from .molfiles import read_mols, read_molecules, write_sd

__version__ = "0.1.0"

__all__ = [
    "COMObjective",
    "Centring",
    "Expansion",
    "Gaussian",
    "Gaussians",
    "Grid",
    "HermiteError",
    "HermiteWarning",
    "InertialFrame",
    "Molecule",
    "Options",
    "OverlapObjective",
    "OverlayResult",
    "OverlaySettings",
    "Scores",
    "SelfOverlapObjective",
    "centre_of_mass",
    "electrostatic_gaussians",
    "exact_overlap",
    "gaussians",
    "iterative_search_com",
    "lmn_index",
    "lmn_triples",
    "optimization_search_com",
    "orient_by_moments_of_inertia",
    "overlay",
    "read_mols",
    "read_molecules",
    "score",
    "screen",
    "shape_gaussians",
    "write_sd",
]

# The classes present themselves as hermite.X (repr, help, pickling by reference).
for _name in __all__:
    _object = globals()[_name]
    if isinstance(_object, type):
        try:
            _object.__module__ = __name__
        except (AttributeError, TypeError):  # pragma: no cover - immutable built-in types
            pass
del _name, _object


def __getattr__(name: str) -> ModuleType:
    """Imports the submodule ``hermite.rdkit`` on first access."""
    if name == "rdkit":
        return importlib.import_module(".rdkit", __name__)
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
