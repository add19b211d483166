"""Molecules, overlays, scores and screening of CDK2 ligands."""

from __future__ import annotations

import os
import pickle
import signal
import threading
import time
from typing import Any, List, Tuple

import numpy as np
import pytest

import hermite
from conftest import random_rotation, time_limit


def moved_copy(molecule: hermite.Molecule, seed: int) -> hermite.Molecule:
    rng = np.random.default_rng(seed)
    rotation = random_rotation(rng)
    coords = molecule.coords @ rotation.T + rng.uniform(-5, 5, size=3)
    return hermite.Molecule(molecule.atomic_numbers, coords, molecule.charges,
                            title=molecule.title + " moved")


def rmsd(a: np.ndarray, b: np.ndarray) -> float:
    return float(np.sqrt(np.mean(np.sum((a - b) ** 2, axis=1))))


def test_molecule_from_numpy() -> None:
    molecule = hermite.Molecule([6, 8], [[0.0, 0.0, 0.0], [1.2, 0.0, 0.0]], [0.1, -0.1], "CO")
    assert len(molecule) == molecule.num_atoms == 2
    np.testing.assert_array_equal(molecule.atomic_numbers, [6, 8])
    np.testing.assert_array_equal(molecule.charges, [0.1, -0.1])
    assert molecule.title == "CO" and repr(molecule) == "Molecule(title='CO', num_atoms=2)"
    clone = pickle.loads(pickle.dumps(molecule))
    np.testing.assert_array_equal(clone.coords, molecule.coords)
    assert clone.title == "CO"
    assert len(molecule.shape_gaussians()) == 2
    np.testing.assert_allclose(molecule.electrostatic_gaussians(width=1.0).prefactors,
                               np.array([0.1, -0.1]) / np.sqrt(2 * np.pi), rtol=1e-6)


def test_reader_gives_heavy_atoms_with_titles(cdk2: List[hermite.Molecule]) -> None:
    assert len(cdk2) == 47
    assert cdk2[0].title == "ZINC03814457"
    assert np.all(cdk2[0].atomic_numbers > 1)


@pytest.mark.parametrize("index,seed", [(0, 1), (5, 2), (20, 3)])
def test_overlay_recovers_a_moved_copy(cdk2: List[hermite.Molecule], index: int,
                                       seed: int) -> None:
    query = cdk2[index]
    fit = moved_copy(query, seed)
    assert rmsd(fit.coords, query.coords) > 1.0
    result = hermite.overlay(query, fit)
    assert result.scores.shape_tanimoto >= 0.99
    assert rmsd(result.aligned_coords, query.coords) < 0.1
    np.testing.assert_allclose(result.apply(fit.coords), result.aligned_coords)
    transform = result.transform
    assert transform.shape == (4, 4)
    np.testing.assert_array_equal(transform[3], [0, 0, 0, 1])
    np.testing.assert_allclose(transform[:3, :3], result.rotation)
    np.testing.assert_allclose(transform[:3, 3], result.translation)
    np.testing.assert_allclose(fit.coords @ result.rotation.T + result.translation,
                               result.aligned_coords, atol=1e-12)
    assert result.title == fit.title and result.query_title == query.title


def test_scores_of_a_pair(cdk2: List[hermite.Molecule]) -> None:
    result = hermite.overlay(cdk2[0], cdk2[1], electrostatics=True)
    scores = result.scores
    o, qq, ff = scores.overlap, scores.query_self_overlap, scores.fit_self_overlap
    assert scores.shape_tanimoto == pytest.approx(o / (qq + ff - o), rel=1e-12)
    assert scores.tversky_query == pytest.approx(o / (0.95 * qq + 0.05 * ff), rel=1e-12)
    assert scores.tversky_fit == pytest.approx(o / (0.05 * qq + 0.95 * ff), rel=1e-12)
    assert scores.es_combo == pytest.approx(scores.shape_tanimoto + scores.es_tanimoto,
                                            rel=1e-12)
    # Without colour, combo is the shape Tanimoto alone.
    assert scores.combo == scores.shape_tanimoto and scores.colour_tanimoto == 0
    assert 0 < scores.es_carbo <= 1 and result.electrostatics and not result.colour
    # The exact overlap recomputed from the aligned atoms.
    query_shape = cdk2[0].shape_gaussians()
    aligned = hermite.Molecule(cdk2[1].atomic_numbers, result.aligned_coords).shape_gaussians()
    assert hermite.exact_overlap(query_shape, aligned) == pytest.approx(o, rel=1e-5)
    names = set(scores.as_dict())
    assert {"shape_tanimoto", "hermite_tanimoto", "tversky_query", "es_carbo"} <= names
    assert repr(scores).startswith("Scores(shape_tanimoto=")


def test_score_keeps_the_pose(cdk2: List[hermite.Molecule]) -> None:
    result = hermite.score(cdk2[0], cdk2[0])
    np.testing.assert_array_equal(result.transform, np.eye(4))
    assert result.scores.shape_tanimoto == pytest.approx(1.0, abs=1e-12)
    np.testing.assert_allclose(result.aligned_coords, cdk2[0].coords)


def test_settings_by_keyword_or_object(cdk2: List[hermite.Molecule]) -> None:
    settings = hermite.OverlaySettings(order=4, starts=3, seed=7)
    assert settings.order == 4 and settings.starts == 3 and settings.seed == 7
    assert repr(settings).startswith("OverlaySettings(order=4, lambda_=0.5, large_lambda=0.3, "
                                     "large_lambda_atoms=50, large_scan_rotations=30, "
                                     "large_search_starts=4, large_refine_candidates=3, "
                                     "scan_rotations=")
    assert ", starts=3, scan_shift=" in repr(settings) and ", seed=7," in repr(settings)
    by_object = hermite.overlay(cdk2[2], cdk2[3], settings=settings)
    by_keywords = hermite.overlay(cdk2[2], cdk2[3], order=4, starts=3, seed=7)
    np.testing.assert_array_equal(by_object.transform, by_keywords.transform)
    overridden = hermite.overlay(cdk2[2], cdk2[3], settings=settings, order=5)
    plain = hermite.overlay(cdk2[2], cdk2[3], order=5, starts=3, seed=7)
    np.testing.assert_array_equal(overridden.transform, plain.transform)
    with pytest.raises(TypeError, match="unexpected keyword argument 'ordr'"):
        misspelt: Any = {"ordr": 4}
        hermite.overlay(cdk2[2], cdk2[3], **misspelt)


def test_screen_in_input_order_and_independent_of_threads(cdk2: List[hermite.Molecule]) -> None:
    molecules = cdk2[:12]
    single = hermite.screen(cdk2[0], molecules, threads=1, electrostatics=True)
    double = hermite.screen(cdk2[0], molecules, threads=2, electrostatics=True)
    every = hermite.screen(cdk2[0], iter(molecules), threads=0, electrostatics=True)
    assert [r.title for r in single] == [m.title for m in molecules]
    for a, b, c in zip(single, double, every):
        np.testing.assert_array_equal(a.transform, b.transform)
        np.testing.assert_array_equal(a.transform, c.transform)
        assert a.scores.as_dict() == b.scores.as_dict() == c.scores.as_dict()
        np.testing.assert_array_equal(a.aligned_coords, b.aligned_coords)
    # The same as overlaying one at a time.
    one = hermite.overlay(cdk2[0], molecules[5], electrostatics=True)
    np.testing.assert_array_equal(one.transform, single[5].transform)
    assert single[0].scores.shape_tanimoto == pytest.approx(1.0, abs=1e-6)
    assert hermite.screen(cdk2[0], [], threads=2) == []


def test_screen_reports_progress_and_stops_on_its_exceptions(
        cdk2: List[hermite.Molecule]) -> None:
    calls: List[Tuple[int, int]] = []
    results = hermite.screen(cdk2[0], cdk2 * 3, threads=2,
                             progress=lambda done, overlays: calls.append((done, overlays)))
    assert len(results) == 141
    assert calls and calls[-1] == (141, 141)
    assert all(a[0] <= b[0] for a, b in zip(calls, calls[1:]))

    class Stop(Exception):
        pass

    def stop(done: int, overlays: int) -> None:
        raise Stop(f"stopped at {done}")

    with pytest.raises(Stop, match="stopped at"):
        hermite.screen(cdk2[0], cdk2 * 20, threads=2, progress=stop)
    with pytest.raises(TypeError, match="progress must be callable"):
        hermite.screen(cdk2[0], cdk2[:2], progress=3)  # type: ignore[arg-type]


def test_screen_stops_on_keyboard_interrupt(cdk2: List[hermite.Molecule]) -> None:
    # 47,000 overlays take several seconds; SIGINT after 0.3 s must stop the screen within
    # about a second and raise KeyboardInterrupt in the calling thread.
    sent: List[float] = []

    def interrupt() -> None:
        sent.append(time.monotonic())
        os.kill(os.getpid(), signal.SIGINT)

    timer = threading.Timer(0.3, interrupt)
    timer.start()
    try:
        with pytest.raises(KeyboardInterrupt):
            hermite.screen(cdk2[0], cdk2 * 1000, threads=2)
        stopped = time.monotonic()
    finally:
        timer.cancel()
    assert sent and stopped - sent[0] < time_limit(1.0)


def test_screen_score_only(cdk2: List[hermite.Molecule]) -> None:
    results = hermite.screen(cdk2[0], cdk2[:4], score_only=True, threads=2)
    for molecule, result in zip(cdk2[:4], results):
        np.testing.assert_array_equal(result.transform, np.eye(4))
        assert result.scores.shape_tanimoto == pytest.approx(
            hermite.score(cdk2[0], molecule).scores.shape_tanimoto, rel=1e-12)


def test_effort_presets_set_the_search_and_other_keywords_override_them() -> None:
    fast = hermite.OverlaySettings(effort="fast")
    thorough = hermite.OverlaySettings(effort="thorough")
    default = hermite.OverlaySettings(effort="default")
    assert repr(default) == repr(hermite.OverlaySettings())
    assert fast.refine_candidates < default.refine_candidates < thorough.refine_candidates
    assert fast.search_starts <= default.search_starts < thorough.search_starts
    assert hermite.OverlaySettings(effort="thorough", refine_candidates=1).refine_candidates == 1
    # Pairs of large molecules scan fewer rotations and refine one pose more, at every effort.
    large = [(s.large_scan_rotations, s.large_search_starts, s.large_refine_candidates)
             for s in (fast, default, thorough)]
    assert large == [(20, 2, 2), (30, 4, 3), (60, 8, 4)]
    overridden = hermite.OverlaySettings(effort="fast", large_refine_candidates=5)
    assert overridden.large_refine_candidates == 5
    restored = pickle.loads(pickle.dumps(thorough))
    assert (restored.large_scan_rotations, restored.large_refine_candidates) == (60, 4)
    with pytest.raises(ValueError, match="effort must be 'fast', 'default' or 'thorough'"):
        hermite.OverlaySettings(effort="maximal")
    with pytest.raises(ValueError, match="effort must be"):
        hermite.OverlaySettings(effort=3)


def test_refine_tolerance_reaches_the_exact_refinement(cdk2: List[hermite.Molecule]) -> None:
    # A gradient tolerance as large as the query's self-overlap stops each refinement at its
    # first evaluation: one evaluation per distinct Hermite optimum (at most one per search).
    default = hermite.overlay(cdk2[2], cdk2[3], refine_candidates=2)
    stopped = hermite.overlay(cdk2[2], cdk2[3], refine_candidates=2, refine_tolerance=1.0)
    starts = hermite.OverlaySettings().search_starts
    assert 1 <= stopped.exact_evaluations <= starts
    assert stopped.exact_evaluations < default.exact_evaluations
    assert stopped.hermite_evaluations == default.hermite_evaluations
    assert stopped.scores.shape_tanimoto <= default.scores.shape_tanimoto + 1e-4


def test_refine_field_walks_to_the_exact_poses(cdk2: List[hermite.Molecule]) -> None:
    # Drug-sized molecules are refined on the exact pair sums by default; asked to walk on the
    # query's overlap field, they reach the same poses without an exact step.
    exact = hermite.overlay(cdk2[4], cdk2[9])
    on_field = hermite.overlay(cdk2[4], cdk2[9], refine_field_atoms=1)
    assert exact.exact_evaluations > 0
    assert on_field.exact_evaluations == 0
    assert on_field.scores.shape_tanimoto == pytest.approx(exact.scores.shape_tanimoto, abs=0.01)
    never = hermite.overlay(cdk2[4], cdk2[9], refine_field_atoms=1, refine_field_spacing=0.0)
    assert never.exact_evaluations == exact.exact_evaluations
    assert never.scores.shape_tanimoto == exact.scores.shape_tanimoto


def test_large_lambda_applies_to_pairs_of_large_molecules(cdk2: List[hermite.Molecule]) -> None:
    # CDK2 ligands are below the default size of large molecules: one lambda for all.
    settings = hermite.OverlaySettings()
    assert (settings.lambda_, settings.large_lambda, settings.large_lambda_atoms) == (0.5, 0.3, 50)
    default = hermite.overlay(cdk2[4], cdk2[9])
    one_lambda = hermite.overlay(cdk2[4], cdk2[9], large_lambda=0.0)
    assert default.scores.hermite_tanimoto == one_lambda.scores.hermite_tanimoto
    # Counted as large, the pair is searched and scored at the large lambda.
    large = hermite.overlay(cdk2[4], cdk2[9], large_lambda_atoms=1)
    at_large = hermite.overlay(cdk2[4], cdk2[9], lambda_=0.3, large_lambda=0.0)
    assert large.scores.hermite_tanimoto == at_large.scores.hermite_tanimoto
    assert large.scores.shape_tanimoto == at_large.scores.shape_tanimoto
    assert large.scores.hermite_tanimoto != default.scores.hermite_tanimoto
    scored = hermite.score(cdk2[4], cdk2[9], large_lambda_atoms=1)
    assert scored.scores.hermite_tanimoto == \
        hermite.score(cdk2[4], cdk2[9], lambda_=0.3, large_lambda=0.0).scores.hermite_tanimoto
    with pytest.raises(ValueError, match="large_lambda must lie in 0..10, got 11.0"):
        hermite.overlay(cdk2[4], cdk2[9], large_lambda=11.0)


def test_colour_search_starts_default_and_override() -> None:
    settings = hermite.OverlaySettings()
    assert settings.colour_search_starts <= settings.search_starts
    assert hermite.OverlaySettings(effort="thorough").colour_search_starts > \
        settings.colour_search_starts
    assert hermite.OverlaySettings(colour_search_starts=5).colour_search_starts == 5


def test_the_overlay_does_not_depend_on_the_input_pose(cdk2: List[hermite.Molecule]) -> None:
    # The principal frames, their signs included, are properties of the density: a moved copy
    # of the fit is overlaid to the same score (to rounding), whatever the motion.
    rng = np.random.default_rng(3)
    for q, f in [(0, 5), (12, 30), (40, 7)]:
        expected = hermite.overlay(cdk2[q], cdk2[f]).scores.shape_tanimoto
        for _ in range(4):
            coords = cdk2[f].coords @ random_rotation(rng).T + rng.uniform(-20, 20, 3)
            moved = hermite.Molecule(cdk2[f].atomic_numbers, coords)
            assert hermite.overlay(cdk2[q], moved).scores.shape_tanimoto == pytest.approx(
                expected, abs=1e-4)


def test_query_and_fit_give_the_same_score_both_ways_on_cdk2(
        cdk2: List[hermite.Molecule]) -> None:
    # Whichever molecule is the query, the search turns the smaller one and moves the larger, so
    # T(q, f) and T(f, q) come from the same search: the same pose, to the rounding of the
    # input coordinates, for all 120 pairs of the first 16 ligands.
    n = 16
    T = np.array([[r.scores.shape_tanimoto for r in hermite.screen(cdk2[q], cdk2[:n], threads=1)]
                  for q in range(n)])
    differences = np.abs(T - T.T)[np.triu_indices(n, 1)]
    assert differences.max() < 1e-6


def test_lambda_sets_the_expansions_of_both_molecules(cdk2: List[hermite.Molecule]) -> None:
    for bad in (0.0, -0.5, float("nan"), float("inf")):
        with pytest.raises(ValueError, match="lambda_ must be finite and greater than 0"):
            hermite.OverlaySettings(lambda_=bad)
    # Another lambda describes the shapes by other functions: the Hermite Tanimoto changes, the
    # exact pose stays about the best, and the overlay of the pair is the same both ways.
    default = hermite.overlay(cdk2[2], cdk2[3])
    narrow = hermite.overlay(cdk2[2], cdk2[3], lambda_=0.3)
    backward = hermite.overlay(cdk2[3], cdk2[2], lambda_=0.3)
    assert abs(narrow.scores.hermite_tanimoto - default.scores.hermite_tanimoto) > 1e-3
    assert narrow.scores.shape_tanimoto == pytest.approx(default.scores.shape_tanimoto, abs=0.02)
    assert backward.scores.shape_tanimoto == pytest.approx(narrow.scores.shape_tanimoto, abs=1e-6)


def test_a_thorough_search_is_never_worse_on_cdk2(cdk2: List[hermite.Molecule]) -> None:
    # Pairs whose best poses lie far from the flips of the principal frames.
    for q, f in [(21, 22), (24, 38), (0, 26)]:
        fast = hermite.overlay(cdk2[q], cdk2[f], effort="fast").scores.shape_tanimoto
        thorough = hermite.overlay(cdk2[q], cdk2[f], effort="thorough").scores.shape_tanimoto
        assert thorough >= fast - 1e-5  # the same pose, to the refinement's tolerance
