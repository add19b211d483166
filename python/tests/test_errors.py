"""Bad input raises ValueError (or TypeError) naming the argument; library warnings become
hermite.HermiteWarning; fatal library conditions become hermite.HermiteError; the interpreter
keeps IEEE floating-point semantics."""

from __future__ import annotations

import warnings
from typing import Any, Callable

import numpy as np
import pytest

import hermite

NAN, INF = float("nan"), float("inf")
XYZ = np.array([[0.0, 0.0, 0.0], [1.4, 0.0, 0.0]])
# Arguments of the wrong type, typed Any so that the type checker lets the tests pass them.
NOT_GAUSSIANS: Any = XYZ
NOT_MOLECULE: Any = XYZ
NOT_OPTIONS: Any = 5
NOT_MOLECULES: Any = hermite.Molecule([6], [[0.0, 0.0, 0.0]])


@pytest.fixture(scope="module")
def shape() -> hermite.Gaussians:
    return hermite.shape_gaussians(XYZ)


@pytest.fixture(scope="module")
def expansion(shape: hermite.Gaussians) -> hermite.Expansion:
    return hermite.Expansion(shape)


@pytest.fixture(scope="module")
def molecule() -> hermite.Molecule:
    return hermite.Molecule([6, 6], XYZ, title="ethane-ish")


def bad(call: Callable[[], Any], match: str, error: type = ValueError) -> None:
    with pytest.raises(error, match=match):
        call()


def test_gaussian_inputs() -> None:
    bad(lambda: hermite.gaussians([0.0, 0.0, 0.0], [1.0], [1.0]),
        r"centres must have shape \(n, 3\), got \(3,\)")
    bad(lambda: hermite.gaussians(np.zeros((2, 2)), [1, 1], [1, 1]), "centres must have shape")
    bad(lambda: hermite.gaussians([[NAN, 0, 0]], [1.0], [1.0]), "centres must be finite.*NaN")
    bad(lambda: hermite.gaussians([[INF, 0, 0]], [1.0], [1.0]), "centres must be finite.*infinite")
    bad(lambda: hermite.gaussians([[1e39, 0, 0]], [1.0], [1.0]), "single-precision")
    bad(lambda: hermite.gaussians(XYZ, [1.0], [1.0, 1.0]), "prefactors must have length 2")
    bad(lambda: hermite.gaussians(XYZ, [1.0, NAN], [1.0, 1.0]), "prefactors must be finite")
    bad(lambda: hermite.gaussians(XYZ, [1.0, 1.0], [1.0, 0.0]), "exponents must be finite and "
        "greater than 0, got 0 at index 1")
    bad(lambda: hermite.gaussians(XYZ, [1.0, 1.0], [-1.0, 1.0]), "exponents")
    bad(lambda: hermite.gaussians(XYZ, [1.0, 1.0], [1.0, 1.0], tags=[0.5, 1]), "tags")
    bad(lambda: hermite.gaussians("abc", [1.0], [1.0]), "centres must be an array of numbers",
        TypeError)
    bad(lambda: hermite.shape_gaussians(np.zeros((3, 4))), "coords must have shape")
    bad(lambda: hermite.shape_gaussians([[0, NAN, 0]]), "coords must be finite")
    for width in (0.0, -1.0, NAN, INF):
        bad(lambda: hermite.electrostatic_gaussians(XYZ, [0.1, -0.1], width=width),
            "width must be finite and greater than 0")
    bad(lambda: hermite.electrostatic_gaussians(XYZ, [0.1], width=1.0),
        r"charges must have length 2 \(one per point\), got 1")
    bad(lambda: hermite.electrostatic_gaussians(XYZ, [0.1, NAN]), "charges must be finite")
    bad(lambda: hermite.exact_overlap(NOT_GAUSSIANS, NOT_GAUSSIANS), "a must be hermite.Gaussians",
        TypeError)


def test_option_inputs() -> None:
    bad(lambda: hermite.Options(order=-1), r"order must lie in 0..100, got -1")
    bad(lambda: hermite.Options(order=101), r"order must lie in 0..100, got 101")
    for value in (0.0, -0.5, NAN, INF):
        bad(lambda: hermite.Options(lambdas=value), "lambdas must be finite and greater than 0")
        bad(lambda: hermite.Options(lambda_=value), "lambda_ must be finite and greater than 0")
    bad(lambda: hermite.Options(lambdas=(1.0, 2.0)), "lambdas must be a number or three numbers")
    bad(lambda: hermite.Options(lambdas=1.0, lambda_=1.0), "either lambdas or lambda_")
    options = hermite.Options()
    with pytest.raises(ValueError, match="order"):
        options.order = 200
    with pytest.raises(ValueError, match="lambdas"):
        options.lambdas = (1.0, -1.0, 1.0)
    assert options == hermite.Options()  # unchanged by the refused values


def test_expansion_inputs(shape: hermite.Gaussians, expansion: hermite.Expansion) -> None:
    bad(lambda: hermite.Expansion(hermite.Gaussians()), "gaussians is empty")
    bad(lambda: hermite.Expansion(NOT_GAUSSIANS), "gaussians must be hermite.Gaussians", TypeError)
    bad(lambda: hermite.Expansion(shape, options=NOT_OPTIONS), "options must be hermite.Options",
        TypeError)
    before = expansion.coefficients.copy()
    bad(lambda: expansion.rotate(2 * np.eye(3)), "matrix must be a rotation matrix")
    bad(lambda: expansion.rotate(np.diag([1.0, 1.0, -1.0])), "matrix must be a rotation matrix")
    bad(lambda: expansion.rotate(np.eye(2)), r"matrix must have shape \(3, 3\)")
    bad(lambda: expansion.rotate(np.full((3, 3), NAN)), "matrix must be finite")
    np.testing.assert_array_equal(expansion.coefficients, before)
    for spacing in (0.0, -0.5, NAN, INF):
        bad(lambda: expansion.render(spacing), "spacing must be finite and greater than 0")
    bad(lambda: expansion.render(0.5, extent=-1.0), "extent must be finite and at least 0")
    bad(lambda: expansion.render(0.5, extent=NAN), "extent must be finite")
    bad(lambda: expansion.render(0.5, transform=np.eye(3)), "transform must be a 4 x 4 matrix")
    shear = np.eye(4)
    shear[3, 0] = 1.0
    bad(lambda: expansion.render(0.5, transform=shear), r"last row \(0, 0, 0, 1\)")
    scaled = np.eye(4)
    scaled[0, 0] = 2.0
    bad(lambda: expansion.render(0.5, transform=scaled), "rotation matrix")
    bad(lambda: expansion.coefficient(3, 3, 3), "exceeds the expansion order", IndexError)
    bad(lambda: hermite.lmn_index(-1, 0, 0), "at least 0")
    bad(lambda: hermite.lmn_triples(101), "order must lie in 0..100")


def test_objective_inputs(shape: hermite.Gaussians) -> None:
    objective = hermite.OverlapObjective(shape, shape)
    bad(lambda: objective.value(np.zeros(5)), r"x must have length 6 \(one per variable\), got 5")
    bad(lambda: objective.value_and_gradient([0, 0, 0, 0, 0, NAN]), "x must be finite")
    bad(lambda: objective.value(np.zeros((2, 3))), "x must be one-dimensional")
    bad(lambda: hermite.OverlapObjective(shape, hermite.Gaussians()), "fit is empty")
    bad(lambda: hermite.COMObjective(hermite.Gaussians()), "gaussians is empty")
    bad(lambda: hermite.centre_of_mass(shape, order=101), "order must lie in 0..100")
    bad(lambda: hermite.centre_of_mass(shape, lambdas=0.0), "lambdas must be finite")
    bad(lambda: hermite.optimization_search_com(shape, lambda_=-1.0), "lambda_ must be finite")
    bad(lambda: hermite.iterative_search_com(shape, tolerance=0.0), "tolerance")
    bad(lambda: hermite.orient_by_moments_of_inertia(shape, lambdas=(1.0, NAN, 1.0)), "lambdas")


def test_molecule_and_overlay_inputs(molecule: hermite.Molecule) -> None:
    bad(lambda: hermite.Molecule([], np.zeros((0, 3))), "coords must hold at least one point")
    bad(lambda: hermite.Molecule([6], [[0.0, 0.0]]), "coords must have shape")
    bad(lambda: hermite.Molecule([6, 6], [[0.0, 0.0, 0.0], [INF, 0.0, 0.0]]),
        "coords must be finite")
    bad(lambda: hermite.Molecule([6], XYZ), "atomic_numbers must have length 2")
    bad(lambda: hermite.Molecule([6, 1.5], XYZ), "atomic_numbers must be integers")
    bad(lambda: hermite.Molecule([6, 200], XYZ), "atomic_numbers must be integers in 0..118")
    bad(lambda: hermite.Molecule([6, 6], XYZ, charges=[0.0, NAN]), "charges must be finite")
    bad(lambda: hermite.overlay(molecule, NOT_MOLECULE), "fit must be hermite.Molecule", TypeError)
    bad(lambda: hermite.overlay(molecule, molecule, order=101), "order must lie in 0..100")
    bad(lambda: hermite.overlay(molecule, molecule, starts=-1), "starts must lie in")
    bad(lambda: hermite.overlay(molecule, molecule, relative_tolerance=0.0), "relative_tolerance")
    bad(lambda: hermite.overlay(molecule, molecule, refine_tolerance=-1e-3), "refine_tolerance")
    bad(lambda: hermite.overlay(molecule, molecule, refine_tolerance=NAN), "refine_tolerance")
    bad(lambda: hermite.overlay(molecule, molecule, scan_shift=-1.0),
        "scan_shift must lie in 0..10, got -1.0")
    bad(lambda: hermite.overlay(molecule, molecule, scan_shift=INF), "scan_shift must lie in")
    bad(lambda: hermite.overlay(molecule, molecule, refine_field_spacing=-0.5),
        "refine_field_spacing must lie in 0..2, got -0.5")
    bad(lambda: hermite.overlay(molecule, molecule, refine_field_spacing=NAN),
        "refine_field_spacing must lie in")
    bad(lambda: hermite.overlay(molecule, molecule, electrostatic_width=NAN),
        "electrostatic_width")
    bad(lambda: hermite.OverlaySettings(iteration_limit=-5), "iteration_limit")
    bad(lambda: hermite.screen(molecule, [molecule, NOT_MOLECULE]), r"molecules\[1\] must be",
        TypeError)
    bad(lambda: hermite.screen(molecule, NOT_MOLECULES), "iterable of hermite.Molecule", TypeError)
    bad(lambda: hermite.screen(molecule, [molecule], threads=5000), "threads must lie in")
    bad(lambda: hermite.read_molecules("x.sdf", charges="eem"), "charges must be")


def test_reader_problems_are_warnings_and_missing_files_oserror(tmp_path: Any) -> None:
    with pytest.raises(OSError, match="cannot open"):
        hermite.read_molecules(str(tmp_path / "missing.sdf"))
    flat = tmp_path / "flat.sdf"
    from rdkit import Chem
    from rdkit.Chem import AllChem

    mol = Chem.MolFromSmiles("c1ccccc1O")
    AllChem.Compute2DCoords(mol)
    mol.SetProp("_Name", "phenol")
    flat.write_text(Chem.MolToMolBlock(mol) + "$$$$\n")
    with pytest.warns(hermite.HermiteWarning, match="no 3-D coordinates"):
        assert hermite.read_molecules(str(flat)) == []


def test_grid_clamp_warning(shape: hermite.Gaussians) -> None:
    small = hermite.Expansion(shape, hermite.Options(order=0))
    with pytest.warns(hermite.HermiteWarning, match="exceeding maximum allowed of 300"):
        grid = small.render(0.019, extent=0.0)
    assert grid.values.shape == (300, 300, 300)
    assert issubclass(hermite.HermiteWarning, RuntimeWarning)
    # A warning filter may turn it into an exception.
    with warnings.catch_warnings():
        warnings.simplefilter("error", hermite.HermiteWarning)
        with pytest.raises(hermite.HermiteWarning):
            small.render(0.019, extent=0.0)


def test_fatal_library_condition_is_an_exception(expansion: hermite.Expansion) -> None:
    # Positive but so fine that the point count overflows: the library's fatal error.
    with pytest.raises(hermite.HermiteError, match="greater than the maximum allowed"):
        expansion.render(1e-300)
    assert issubclass(hermite.HermiteError, RuntimeError)
    # The interpreter and the module go on working.
    assert expansion.render(1.0).values.shape[0] >= 5


def test_interpreter_keeps_denormals(expansion: hermite.Expansion) -> None:
    tiny = np.float64(1e-308)
    assert tiny / 1e10 > 0.0
    expansion.render(1.0)
    hermite.overlay(hermite.Molecule([6], [[0.0, 0.0, 0.0]]), hermite.Molecule([6], [[1.0, 0, 0]]))
    assert tiny / 1e10 > 0.0
