"""What crosses the Python boundary: text that is not UTF-8, integers of any size, path-like
objects, complex arrays, pickling (and so multiprocessing), None molecules from RDKit suppliers,
Ctrl-C while reading, and results that are not finite."""

from __future__ import annotations

import multiprocessing
import os
import pathlib
import pickle
import signal
import threading
import time
import warnings
from typing import Any, Callable, List

import numpy as np
import pytest

import hermite
from conftest import time_limit

CDK2_FIRST_TITLE = b"ZINC03814457"
XYZ = np.array([[0.0, 0.0, 0.0], [1.4, 0.0, 0.0], [0.7, 1.2, 0.0]])


@pytest.fixture(scope="module")
def pair(cdk2: List[hermite.Molecule]) -> List[hermite.Molecule]:
    return cdk2[:2]


# ---------------------------------------------------------------------------------------------
# Text that is not UTF-8


def test_latin1_title_does_not_lose_the_file(cdk2_path: str, tmp_path: pathlib.Path) -> None:
    data = pathlib.Path(cdk2_path).read_bytes()
    assert data.startswith(CDK2_FIRST_TITLE)
    # A Latin-1 title (0xe9 is 'é') and a Latin-1 data item in the first record.
    latin1 = data.replace(CDK2_FIRST_TITLE, b"Ph\xe9nol-1", 1)
    first_end = latin1.index(b"$$$$")
    latin1 = latin1[:first_end] + b">  <note>\nr\xe9sum\xe9\n\n" + latin1[first_end:]
    path = tmp_path / "latin1.sdf"
    path.write_bytes(latin1)

    molecules = hermite.read_molecules(str(path))
    assert len(molecules) == 47
    assert molecules[0].title == "Ph\u00e9nol-1"
    assert molecules[1].title == "ZINC03814459"  # valid UTF-8 is decoded as UTF-8
    assert repr(molecules[0]) == "Molecule(title='Ph\u00e9nol-1', num_atoms=%d)" % len(
        molecules[0])
    assert pickle.loads(pickle.dumps(molecules[0])).title == "Ph\u00e9nol-1"
    result = hermite.overlay(molecules[0], molecules[0])
    assert result.title == result.query_title == "Ph\u00e9nol-1"
    assert "Ph\u00e9nol-1" in repr(result)
    screened = hermite.screen(molecules[0], molecules[:3], threads=1)
    assert [r.title for r in screened] == [m.title for m in molecules[:3]]


def test_utf8_title_stays_utf8(cdk2_path: str, tmp_path: pathlib.Path) -> None:
    data = pathlib.Path(cdk2_path).read_bytes()
    path = tmp_path / "utf8.sdf"
    path.write_bytes(data.replace(CDK2_FIRST_TITLE, "Ph\u00e9nol-\u03b1".encode(), 1))
    assert hermite.read_molecules(path)[0].title == "Ph\u00e9nol-\u03b1"


def test_latin1_title_in_a_reader_warning(tmp_path: pathlib.Path) -> None:
    from rdkit import Chem
    from rdkit.Chem import AllChem

    mol = Chem.MolFromSmiles("c1ccccc1O")
    AllChem.Compute2DCoords(mol)
    mol.SetProp("_Name", "PLACEHOLDER")
    block = Chem.MolToMolBlock(mol).encode().replace(b"PLACEHOLDER", b"Ph\xe9nol")
    path = tmp_path / "flat.sdf"
    path.write_bytes(block + b"$$$$\n")
    with pytest.warns(hermite.HermiteWarning, match="Ph\u00e9nol"):
        assert hermite.read_molecules(path) == []


def test_missing_file_with_a_latin1_name(tmp_path: pathlib.Path) -> None:
    missing = os.fsencode(str(tmp_path)) + b"/missing-\xe9.sdf"
    with pytest.raises(OSError, match="cannot open"):
        hermite.read_molecules(missing)


# ---------------------------------------------------------------------------------------------
# Integers out of range

MOLECULE = hermite.Molecule([6, 6, 8], XYZ, title="m")
OVERLAY_INTEGERS = [
    ("order", 0, 100),
    ("starts", 0, 100000),
    ("search_starts", 0, 100000),
    ("colour_search_starts", 0, 100000),
    ("seed", 0, 2**64 - 1),
    ("iteration_limit", 0, 1000000),
    ("refine_candidates", 0, 1000),
    ("refine_iteration_limit", 0, 1000000),
    ("refine_field_atoms", 0, 100000),
    ("large_lambda_atoms", 0, 100000),
]


def calls_with(name: str, value: Any) -> List[Callable[[], Any]]:
    """Every way to pass overlay setting `name`."""
    keywords = {name: value}
    return [
        lambda: hermite.overlay(MOLECULE, MOLECULE, **keywords),
        lambda: hermite.score(MOLECULE, MOLECULE, **keywords),
        lambda: hermite.screen(MOLECULE, [MOLECULE], **keywords),
        lambda: hermite.OverlaySettings(**keywords),
        lambda: setattr(hermite.OverlaySettings(), name, value),
    ]


def outside(low: int, high: int) -> List[int]:
    """Integers just outside low..high and far outside, beyond 64 bits too."""
    values = [low - 1, high + 1, -2**63 - 1, -1, 2**63, 2**64, 2**200, -2**200]
    return [v for v in values if not low <= v <= high]


@pytest.mark.parametrize("name,low,high", OVERLAY_INTEGERS)
def test_overlay_integers_out_of_range(name: str, low: int, high: int) -> None:
    for value in outside(low, high):
        for call in calls_with(name, value):
            with pytest.raises(ValueError, match=f"^{name} must lie in {low}..{high}, got "
                                                 f"{value}$"):
                call()
    # The limits themselves are accepted; numpy integers too.
    settings = hermite.OverlaySettings(**{name: high})
    assert getattr(settings, name) == high
    settings = hermite.OverlaySettings(**{name: np.int64(low)})
    assert getattr(settings, name) == low
    with pytest.raises(TypeError, match=f"{name} must be an integer, got float"):
        hermite.OverlaySettings(**{name: 1.0})


def test_other_integers_out_of_range(cdk2_path: str, tmp_path: pathlib.Path) -> None:
    expansion = hermite.Expansion(MOLECULE.shape_gaussians(), hermite.Options(order=4))
    shape = MOLECULE.shape_gaussians()
    cases: List[Any] = [
        ("threads", -1024, 1024, lambda v: hermite.screen(MOLECULE, [MOLECULE], threads=v)),
        ("smiles_conformers", 1, 10000,
         lambda v: hermite.read_molecules(cdk2_path, smiles_conformers=v)),
        ("seed", 0, 4294967295, lambda v: hermite.read_molecules(cdk2_path, seed=v)),
        ("order", 0, 100, lambda v: hermite.Options(order=v)),
        ("order", 0, 100, lambda v: setattr(hermite.Options(), "order", v)),
        ("order", 0, 100, lambda v: hermite.lmn_triples(v)),
        ("order", 0, 100, lambda v: hermite.centre_of_mass(shape, order=v)),
        ("order", 0, 100, lambda v: hermite.iterative_search_com(shape, order=v)),
        ("order", 0, 100, lambda v: hermite.optimization_search_com(shape, order=v)),
        ("order", 0, 100, lambda v: hermite.orient_by_moments_of_inertia(shape, order=v)),
        ("max_iterations", 0, 1000000,
         lambda v: hermite.iterative_search_com(shape, max_iterations=v)),
    ]
    for name, low, high, call in cases:
        for value in outside(low, high):
            with pytest.raises(ValueError, match=f"^{name} must lie in {low}..{high}, got "
                                                 f"{value}$"):
                call(value)
    # Degrees of a coefficient: below 0 a ValueError, above the order an IndexError.
    for value in (-1, -2**63 - 1, -2**200):
        with pytest.raises(ValueError, match="l, m and n must be at least 0"):
            expansion.coefficient(0, value, 0)
        with pytest.raises(ValueError, match="l, m and n must be at least 0"):
            hermite.lmn_index(0, 0, value)
    for value in (5, 2**63, 2**200):
        with pytest.raises(IndexError, match="exceeds the expansion order"):
            expansion.coefficient(value, 0, 0)
    for value in (1001, 2**63, 2**200):
        with pytest.raises(ValueError, match="must be at most 1000"):
            hermite.lmn_index(value, 0, 0)
    assert expansion.coefficient(np.int32(4), 0, 0) == expansion.coefficients[
        hermite.lmn_index(4, 0, 0)]


# ---------------------------------------------------------------------------------------------
# Paths


class PathLike:
    def __init__(self, path: str) -> None:
        self.path = path

    def __fspath__(self) -> str:
        return self.path


def test_path_like_paths(cdk2_path: str) -> None:
    by_str = hermite.read_molecules(cdk2_path)
    for path in (pathlib.Path(cdk2_path), os.fsencode(cdk2_path), PathLike(cdk2_path)):
        read = hermite.read_molecules(path)  # type: ignore[arg-type]
        assert [m.title for m in read] == [m.title for m in by_str]
        np.testing.assert_array_equal(read[-1].coords, by_str[-1].coords)
    with pytest.raises(OSError, match="cannot open"):
        hermite.read_molecules(pathlib.Path(cdk2_path).with_name("missing.sdf"))
    with pytest.raises(TypeError, match="path must be a str, bytes or os.PathLike, got int"):
        hermite.read_molecules(3)  # type: ignore[arg-type]


# ---------------------------------------------------------------------------------------------
# Complex and non-finite arrays


def test_complex_arrays_are_refused() -> None:
    complex_xyz = XYZ.astype(complex)
    shape = hermite.shape_gaussians(XYZ)
    objective = hermite.OverlapObjective(shape, shape)
    expansion = hermite.Expansion(shape)
    cases: List[Any] = [
        ("coords", lambda: hermite.Molecule([6, 6, 8], complex_xyz)),
        ("coords", lambda: hermite.Molecule([6, 6, 8], XYZ.tolist()[:2] + [[0.7, 1.2, 1j]])),
        ("charges", lambda: hermite.Molecule([6, 6, 8], XYZ, np.array([0.1, -0.1, 0j]))),
        ("atomic_numbers", lambda: hermite.Molecule(np.array([6, 6, 8], complex), XYZ)),
        ("centres", lambda: hermite.gaussians(complex_xyz, [1.0] * 3, [1.0] * 3)),
        ("prefactors", lambda: hermite.gaussians(XYZ, np.ones(3, complex), [1.0] * 3)),
        ("exponents", lambda: hermite.gaussians(XYZ, [1.0] * 3, np.ones(3, complex))),
        ("coords", lambda: hermite.shape_gaussians(complex_xyz)),
        ("charges", lambda: hermite.electrostatic_gaussians(XYZ, np.zeros(3, complex))),
        ("x", lambda: objective.value(np.zeros(6, complex))),
        ("matrix", lambda: expansion.rotate(np.eye(3, dtype=complex))),
        ("lambdas", lambda: hermite.Options(lambdas=1.0 + 0.5j)),
        ("lambdas", lambda: hermite.Options(lambdas=np.ones(3, np.complex64))),
        ("coords", lambda: hermite.overlay(MOLECULE, MOLECULE).apply(complex_xyz)),
    ]
    with warnings.catch_warnings():
        warnings.simplefilter("error")  # no ComplexWarning either
        for name, call in cases:
            with pytest.raises(ValueError, match=f"^{name} must be real, got complex values$"):
                call()
    # Real arrays of any dtype still convert.
    assert hermite.Molecule(np.array([6, 6, 8], np.int8), XYZ.astype(np.float32)).num_atoms == 3


def test_non_finite_coordinates_are_refused() -> None:
    for bad in (np.nan, np.inf, -np.inf):
        coords = XYZ.copy()
        coords[1, 2] = bad
        with pytest.raises(ValueError, match="coords must be finite"):
            hermite.Molecule([6, 6, 8], coords)
        with pytest.raises(ValueError, match="coords must be finite"):
            hermite.shape_gaussians(coords)
        with pytest.raises(ValueError, match="centres must be finite"):
            hermite.gaussians(coords, [1.0] * 3, [1.0] * 3)


# ---------------------------------------------------------------------------------------------
# Pickling


def test_pickle_overlay_result_and_scores(pair: List[hermite.Molecule]) -> None:
    result = hermite.overlay(pair[0], pair[1], electrostatics=True, starts=2)
    for protocol in (2, pickle.HIGHEST_PROTOCOL):
        clone = pickle.loads(pickle.dumps(result, protocol))
        assert isinstance(clone, hermite.OverlayResult)
        np.testing.assert_array_equal(clone.transform, result.transform)
        np.testing.assert_array_equal(clone.aligned_coords, result.aligned_coords)
        assert clone.scores.as_dict() == result.scores.as_dict()
        assert (clone.title, clone.query_title) == (result.title, result.query_title)
        assert clone.electrostatics and repr(clone) == repr(result)
        assert clone.hermite_evaluations == result.hermite_evaluations
        assert clone.exact_evaluations == result.exact_evaluations
        np.testing.assert_array_equal(clone.apply(pair[1].coords), result.aligned_coords)
    scores = pickle.loads(pickle.dumps(result.scores))
    assert isinstance(scores, hermite.Scores)
    assert scores.as_dict() == result.scores.as_dict()


def test_pickle_overlay_settings() -> None:
    settings = hermite.OverlaySettings(order=6, starts=3, seed=2**64 - 1, relative_tolerance=1e-4,
                                       iteration_limit=50, refine_candidates=2,
                                       refine_iteration_limit=7, refine_tolerance=2e-3,
                                       electrostatics=True,
                                       electrostatic_width=0.8)
    clone = pickle.loads(pickle.dumps(settings))
    assert isinstance(clone, hermite.OverlaySettings)
    assert repr(clone) == repr(settings)
    assert clone.seed == 2**64 - 1 and clone.electrostatic_width == 0.8
    assert repr(pickle.loads(pickle.dumps(hermite.OverlaySettings()))) == repr(
        hermite.OverlaySettings())


def test_pickle_expansion() -> None:
    expansion = hermite.Expansion(hermite.shape_gaussians(XYZ), hermite.Options(order=6))
    clone = pickle.loads(pickle.dumps(expansion))
    np.testing.assert_array_equal(clone.coefficients, expansion.coefficients)
    assert clone.lambdas == expansion.lambdas and clone.options == expansion.options
    assert clone.self_overlap == expansion.self_overlap
    np.testing.assert_array_equal(clone.coefficients_lambda_derivative,
                                  expansion.coefficients_lambda_derivative)
    # Rotations made before pickling travel with the state.
    rotation = np.array([[0.0, -1.0, 0.0], [1.0, 0.0, 0.0], [0.0, 0.0, 1.0]])
    expansion.rotate(rotation)
    expansion.rotate(rotation.T @ rotation.T)
    turned = pickle.loads(pickle.dumps(expansion))
    np.testing.assert_array_equal(turned.coefficients, expansion.coefficients)
    turned.rotate(rotation)
    expansion.rotate(rotation)
    np.testing.assert_array_equal(turned.coefficients, expansion.coefficients)
    np.testing.assert_array_equal(pickle.loads(pickle.dumps(expansion.copy())).coefficients,
                                  expansion.coefficients)


def overlay_in_worker(query: hermite.Molecule, fit: hermite.Molecule) -> hermite.OverlayResult:
    """Runs in a worker process of the multiprocessing test."""
    return hermite.overlay(query, fit, electrostatics=True)


def test_multiprocessing_pool_returns_overlay_results(cdk2: List[hermite.Molecule]) -> None:
    pairs = [(cdk2[0], cdk2[i]) for i in (1, 2, 3, 4)]
    context = multiprocessing.get_context("spawn")
    with context.Pool(2) as pool:
        results = pool.starmap(overlay_in_worker, pairs)
    assert len(results) == 4
    for (query, fit), result in zip(pairs, results):
        assert isinstance(result, hermite.OverlayResult)
        here = hermite.overlay(query, fit, electrostatics=True)
        np.testing.assert_array_equal(result.transform, here.transform)
        assert result.scores.as_dict() == here.scores.as_dict()
        assert result.title == fit.title


# ---------------------------------------------------------------------------------------------
# None molecules from RDKit suppliers


def test_screen_skips_none_with_one_warning(cdk2_rdkit: list) -> None:
    import hermite.rdkit as hr

    mols = [cdk2_rdkit[1], None, cdk2_rdkit[2], None, None, cdk2_rdkit[3]]
    with warnings.catch_warnings(record=True) as caught:
        warnings.simplefilter("always")
        table = hr.screen(cdk2_rdkit[0], mols, threads=1, progress=False)
    skipped = [w for w in caught if issubclass(w.category, hermite.HermiteWarning)]
    assert len(skipped) == 1
    message = str(skipped[0].message)
    assert "skipped 3 of 6" in message and "positions 1, 3, 4" in message
    assert skipped[0].filename == __file__  # reported at the caller
    assert sorted(table["position"]) == [0, 2, 5]
    titles = dict(zip(table["position"], table["title"]))
    assert [titles[p] for p in (0, 2, 5)] == [m.GetProp("_Name") for m in cdk2_rdkit[1:4]]
    alone = hr.screen(cdk2_rdkit[0], cdk2_rdkit[1:4], threads=1, progress=False)
    np.testing.assert_array_equal(table["shape_tanimoto"], alone["shape_tanimoto"])
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        assert len(hr.screen(cdk2_rdkit[0], [cdk2_rdkit[1]], threads=1, progress=False)) == 1


# ---------------------------------------------------------------------------------------------
# Ctrl-C while reading


def test_read_molecules_stops_on_keyboard_interrupt(cdk2_path: str,
                                                    tmp_path: pathlib.Path) -> None:
    # 400 copies of the CDK2 ligands (18,800 molecules) take several seconds to read.
    big = tmp_path / "big.sdf"
    big.write_bytes(pathlib.Path(cdk2_path).read_bytes() * 400)
    sent: List[float] = []

    def interrupt() -> None:
        sent.append(time.monotonic())
        os.kill(os.getpid(), signal.SIGINT)

    timer = threading.Timer(0.3, interrupt)
    timer.start()
    try:
        with pytest.raises(KeyboardInterrupt):
            hermite.read_molecules(big)
        stopped = time.monotonic()
    finally:
        timer.cancel()
    # The read was still going when the signal came (it raised KeyboardInterrupt), and stopped
    # soon after it. When the timer fires is not checked: a garbage collection of a large heap,
    # left by earlier tests, can hold the interpreter lock for a second and delay it.
    assert sent, "the read ended before the signal was sent"
    assert stopped - sent[0] < time_limit(1.0)


# ---------------------------------------------------------------------------------------------
# Results that are not finite


def test_self_overlap_objective_far_outside_is_an_error() -> None:
    shape = hermite.shape_gaussians(XYZ)
    single = hermite.SelfOverlapObjective(shape)
    three = hermite.SelfOverlapObjective(shape, hermite.Options(single_lambda=False))
    for x in (800.0, -800.0):
        with pytest.raises(ValueError, match=r"SelfOverlapObjective: the .* at x = \[%r\] is "
                                             r"not finite" % x):
            single.value_and_gradient([x])
        with pytest.raises(ValueError, match="SelfOverlapObjective.*not finite.*logarithms"):
            three.value_and_gradient([x] * 3)
        with pytest.raises(ValueError, match="SelfOverlapObjective.*not finite"):
            three.gradient_and_hessian([x] * 3)
    with pytest.raises(ValueError, match="not finite"):
        single([-800.0])
    # Ordinary log lambdas still give numbers.
    value, gradient = three.value_and_gradient(np.log([0.7, 0.7, 0.7]))
    assert np.isfinite(value) and np.all(np.isfinite(gradient))


def test_centre_of_mass_far_from_the_origin_is_an_error() -> None:
    far = hermite.shape_gaussians(XYZ + 1e8)
    with pytest.raises(ValueError, match="iterative_search_com: the centre of mass is not "
                                         "finite.*too far from the origin"):
        hermite.iterative_search_com(far)
    with pytest.raises(ValueError, match="centre_of_mass: the centre of mass is not finite"):
        hermite.centre_of_mass(far)
    with pytest.raises(ValueError, match="COMObjective: the value at x = .* is not finite"):
        hermite.COMObjective(far).value_gradient_hessian(np.zeros(3))
    # Near the origin the search converges and gives numbers.
    near = hermite.iterative_search_com(hermite.shape_gaussians(XYZ - XYZ.mean(axis=0)),
                                        order=6, lambdas=0.7)
    assert np.all(np.isfinite(near.centre))


def test_a_molecule_whose_atoms_are_not_one_cloud_is_refused() -> None:
    coords = np.array([[0.0, 0.0, 0.0], [1.4, 0.0, 0.0], [0.7, 1.2, 0.0], [100.0, 0.0, 0.0]])
    stray = hermite.Molecule([6, 6, 6, 6], coords)
    fine = hermite.Molecule([6, 6, 6], coords[:3])
    with pytest.raises(ValueError, match=r"fit: its atoms are not one cloud: 1 of 4 atoms"):
        hermite.overlay(fine, stray)
    with pytest.raises(ValueError, match=r"molecules\[1\]: its atoms are not one cloud"):
        hermite.screen(fine, [fine, stray])
