"""Gaussians from numpy, the shape and electrostatic makers and the exact overlap."""

from __future__ import annotations

import copy
import pickle

import numpy as np
import pytest

import hermite
from conftest import random_rotation


def test_gaussians_from_numpy_round_trip() -> None:
    centres = np.array([[0.5, 1.0, -2.0], [3.25, 0.0, 1.5]])
    g = hermite.gaussians(centres, [1.0, -0.5], [0.75, 2.0], tags=[3, 7])
    assert len(g) == 2
    np.testing.assert_array_equal(g.centres, centres)
    np.testing.assert_array_equal(g.prefactors, [1.0, -0.5])
    np.testing.assert_array_equal(g.exponents, [0.75, 2.0])
    np.testing.assert_array_equal(g.tags, [3, 7])
    first = g[0]
    assert first.prefactor == 1.0 and first.centre == (0.5, 1.0, -2.0) and first.tag == 3
    assert g[-1].exponent == 2.0
    assert [item.tag for item in g] == [3, 7]
    assert len(g[1:]) == 1 and len(g + g) == 4
    assert repr(g).startswith("Gaussians(n=2")
    with pytest.raises(IndexError):
        g[2]
    assert len(hermite.Gaussians()) == 0


def test_values_are_single_precision() -> None:
    g = hermite.gaussians([[0.1, 0.2, 0.3]], [1.1], [0.7])
    np.testing.assert_array_equal(g.centres,
                                  np.array([[0.1, 0.2, 0.3]], dtype=np.float32).astype(float))
    assert g.prefactors[0] == float(np.float32(1.1))


def test_shape_gaussians_are_carbon_sized() -> None:
    coords = np.array([[0.0, 0.0, 0.0], [1.5, 0.0, 0.0]])
    g = hermite.shape_gaussians(coords)
    np.testing.assert_allclose(g.prefactors, 2.7, rtol=1e-7)
    np.testing.assert_allclose(g.exponents, 0.811151803, rtol=1e-7)
    np.testing.assert_array_equal(g.centres, coords)


def test_electrostatic_gaussians_height_and_width() -> None:
    width = 1.5
    g = hermite.electrostatic_gaussians([[0.0, 0.0, 0.0], [1.0, 1.0, 1.0]], [0.5, -0.25],
                                        width=width)
    np.testing.assert_allclose(g.prefactors,
                               np.array([0.5, -0.25]) / (np.sqrt(2 * np.pi) * width), rtol=1e-6)
    np.testing.assert_allclose(g.exponents, 1 / (2 * width**2), rtol=1e-6)


def test_exact_overlap_analytic_formula() -> None:
    rng = np.random.default_rng(3)
    a = hermite.gaussians(rng.normal(size=(4, 3)), rng.uniform(0.5, 2, 4), rng.uniform(0.3, 1.5, 4))
    b = hermite.gaussians(rng.normal(size=(3, 3)), rng.uniform(-1, 2, 3), rng.uniform(0.3, 1.5, 3))
    expected = 0.0
    for pa, wa, ea in zip(a.centres, a.prefactors, a.exponents):
        for pb, wb, eb in zip(b.centres, b.prefactors, b.exponents):
            s = ea + eb
            expected += wa * wb * (np.pi / s) ** 1.5 * np.exp(-ea * eb / s * np.sum((pa - pb) ** 2))
    assert hermite.exact_overlap(a, b) == pytest.approx(expected, rel=1e-12)
    assert hermite.exact_overlap(a, b) == pytest.approx(hermite.exact_overlap(b, a), rel=1e-14)


def test_translated_and_rotated_copies() -> None:
    g = hermite.shape_gaussians(np.array([[1.0, 0.0, 0.0], [0.0, 2.0, 0.0]]))
    moved = g.translated([1.0, -1.0, 0.5])
    np.testing.assert_allclose(moved.centres, g.centres + [1.0, -1.0, 0.5])
    rotation = random_rotation(np.random.default_rng(5))
    turned = g.rotated(rotation)
    np.testing.assert_allclose(turned.centres, g.centres @ rotation.T, atol=1e-6)
    np.testing.assert_array_equal(g.centres, [[1.0, 0.0, 0.0], [0.0, 2.0, 0.0]])  # unchanged


def test_pickle_and_copy() -> None:
    g = hermite.gaussians([[0.5, 1.0, -2.0]], [1.0], [0.75], tags=[9])
    for clone in (pickle.loads(pickle.dumps(g)), copy.copy(g), copy.deepcopy(g), g.copy()):
        np.testing.assert_array_equal(clone.centres, g.centres)
        np.testing.assert_array_equal(clone.tags, g.tags)
