"""Expansions: coefficients against an independent numpy projection, the self-overlap formula,
the no-copy coefficient views, rotation and rendering."""

from __future__ import annotations

import gc
import warnings
from math import factorial, pi, sqrt

import numpy as np
import pytest
from numpy.polynomial.hermite import hermval

import hermite
from conftest import euler_xyz, random_rotation

# Values exactly representable in single precision, so that the library's float records hold
# the same density as the numpy reference.
CENTRES = np.array([[0.5, -0.25, 0.75], [-1.0, 0.5, 0.0], [0.25, 1.5, -0.5]])
PREFACTORS = np.array([2.0, 1.5, -0.5])
EXPONENTS = np.array([0.75, 1.25, 0.5])


def k_norm(i: int) -> float:
    return 2.0**i * factorial(i) * sqrt(pi)


def one_axis_table(order: int, lam: float, exponent: float, x0: float) -> np.ndarray:
    """F_k = lam * integral of exp(-a (x - x0)^2) H_k(lam x) exp(-lam^2 x^2 / 2) dx, k <= order,
    by the trapezoidal rule on a fine grid (exact to ~1e-12 for these smooth, decaying
    integrands)."""
    x = np.linspace(-25.0, 25.0, 50001)
    dx = x[1] - x[0]
    gaussian = np.exp(-exponent * (x - x0) ** 2) * np.exp(-(lam * x) ** 2 / 2)
    table = np.empty(order + 1)
    for k in range(order + 1):
        c = np.zeros(k + 1)
        c[k] = 1.0
        table[k] = lam * np.sum(gaussian * hermval(lam * x, c)) * dx
    return table


def projected_coefficients(order: int, lam: float) -> np.ndarray:
    """c_lmn = sum over Gaussians of w X_l Y_m Z_n / (K_l K_m K_n), in lmn order."""
    tables = [[one_axis_table(order, lam, a, p[axis]) for axis in range(3)]
              for p, a in zip(CENTRES, EXPONENTS)]
    result = []
    for i, j, k in hermite.lmn_triples(order):
        value = sum(w * t[0][i] * t[1][j] * t[2][k] for w, t in zip(PREFACTORS, tables))
        result.append(value / (k_norm(i) * k_norm(j) * k_norm(k)))
    return np.array(result)


@pytest.fixture
def density() -> hermite.Gaussians:
    return hermite.gaussians(CENTRES, PREFACTORS, EXPONENTS)


def test_lmn_order_and_index() -> None:
    triples = hermite.lmn_triples(4)
    assert triples.shape == (35, 3)
    for position, (l, m, n) in enumerate(triples):
        assert hermite.lmn_index(int(l), int(m), int(n)) == position
    degrees = triples.sum(axis=1)
    assert np.all(np.diff(degrees) >= 0)
    # Within a degree, l ascends, then m: (0, 0, 1), (0, 1, 0), (1, 0, 0).
    first = [(0, 0, 0), (0, 0, 1), (0, 1, 0), (1, 0, 0)]
    assert [hermite.lmn_index(*t) for t in first] == [0, 1, 2, 3]


@pytest.mark.parametrize("order,lam", [(0, 1.0), (4, 0.875), (7, 1.25)])
def test_coefficients_match_numpy_projection(density: hermite.Gaussians, order: int,
                                             lam: float) -> None:
    options = hermite.Options(order=order, lambda_=lam, optimal_lambdas=False)
    expansion = hermite.Expansion(density, options)
    assert expansion.order == order
    assert expansion.lambdas == (lam, lam, lam)
    assert expansion.num_coefficients == (order + 1) * (order + 2) * (order + 3) // 6
    np.testing.assert_allclose(expansion.coefficients, projected_coefficients(order, lam),
                               rtol=0, atol=1e-10)
    l, m, n = hermite.lmn_triples(order)[-1]
    assert expansion.coefficient(int(l), int(m), int(n)) == expansion.coefficients[-1]


def test_self_overlap_formula(density: hermite.Gaussians) -> None:
    expansion = hermite.Expansion(density, hermite.Options(order=6, lambdas=(0.8, 0.9, 1.1),
                                                           single_lambda=False,
                                                           optimal_lambdas=False))
    k = np.array([k_norm(i) for i in range(7)])
    triples = hermite.lmn_triples(6)
    weights = k[triples[:, 0]] * k[triples[:, 1]] * k[triples[:, 2]]
    lx, ly, lz = expansion.lambdas
    expected = np.sum(expansion.coefficients**2 * weights) / (lx * ly * lz)
    assert expansion.self_overlap == pytest.approx(expected, rel=1e-13)
    np.testing.assert_allclose(expansion.k_coefficients[:7], k, rtol=1e-14)


def test_self_overlap_approaches_exact_from_below() -> None:
    coords = np.array([[0.0, 0.0, 0.0], [1.4, 0.0, 0.0], [0.7, 1.2, 0.0], [0.7, 0.4, 1.1]])
    shape = hermite.shape_gaussians(coords)
    exact = hermite.exact_overlap(shape, shape)
    previous = 0.0
    for order in (2, 4, 6, 8, 10):
        value = hermite.Expansion(shape, hermite.Options(order=order)).self_overlap
        assert previous <= value <= exact * (1 + 1e-12)
        previous = value
    assert previous == pytest.approx(exact, rel=2e-3)


def test_optimal_lambda_is_stationary(density: hermite.Gaussians) -> None:
    expansion = hermite.Expansion(density, hermite.Options(order=5))
    used = expansion.options
    assert used.optimal_lambdas is False
    assert used.lambdas == expansion.lambdas
    assert abs(expansion.lambda_derivative) < 1e-4 * expansion.self_overlap
    # Expanding again with the options used gives the same coefficients.
    again = hermite.Expansion(density, used)
    np.testing.assert_array_equal(again.coefficients, expansion.coefficients)


def test_coefficients_are_a_read_only_view_without_copy(density: hermite.Gaussians) -> None:
    expansion = hermite.Expansion(density)
    first = expansion.coefficients
    second = expansion.coefficients
    assert np.shares_memory(first, second)
    assert first.base is expansion
    assert not first.flags.writeable and not first.flags.owndata
    with pytest.raises(ValueError):
        first[0] = 1.0
    # The view keeps the expansion alive.
    values = first.copy()
    del expansion, second
    gc.collect()
    np.testing.assert_array_equal(first, values)


def test_rotate_in_place_is_exact_and_views_follow(density: hermite.Gaussians) -> None:
    options = hermite.Options(order=8, lambda_=0.9, optimal_lambdas=False)
    expansion = hermite.Expansion(density, options)
    view = expansion.coefficients
    rotation = euler_xyz(0.3, -0.7, 1.1)
    expansion.rotate(rotation)
    direct = hermite.Expansion(density.rotated(rotation), options)
    np.testing.assert_allclose(expansion.coefficients, direct.coefficients, atol=1e-6)
    assert np.shares_memory(view, expansion.coefficients)
    np.testing.assert_array_equal(view, expansion.coefficients)
    # The self-overlap of the rotated density is unchanged.
    assert direct.self_overlap == pytest.approx(expansion.self_overlap, rel=1e-5)


def test_copy_is_independent(density: hermite.Gaussians) -> None:
    expansion = hermite.Expansion(density)
    copy = expansion.copy()
    copy.rotate(random_rotation(np.random.default_rng(1)))
    assert not np.shares_memory(copy.coefficients, expansion.coefficients)
    assert not np.allclose(copy.coefficients, expansion.coefficients)


def test_render_values_match_the_series(density: hermite.Gaussians) -> None:
    order, lam = 4, 0.9
    expansion = hermite.Expansion(
        density, hermite.Options(order=order, lambda_=lam, optimal_lambdas=False))
    grid = expansion.render(0.5)
    values, origin, spacing = grid
    n = int((expansion.extent + 6) / spacing + 1) + 1
    assert values.shape == (n, n, n) and values.dtype == np.float32
    assert spacing == 0.5
    np.testing.assert_allclose(origin, -(n - 1) / 2 * spacing)

    def hermite_function(k: int, u: np.ndarray) -> np.ndarray:
        c = np.zeros(k + 1)
        c[k] = 1.0
        return hermval(u, c) * np.exp(-u * u / 2)

    rng = np.random.default_rng(7)
    for ix, iy, iz in rng.integers(0, n, size=(20, 3)):
        x, y, z = origin + spacing * np.array([ix, iy, iz])
        expected = sum(c * hermite_function(l, lam * x) * hermite_function(m, lam * y)
                       * hermite_function(k, lam * z)
                       for c, (l, m, k) in zip(expansion.coefficients, hermite.lmn_triples(order)))
        assert values[ix, iy, iz] == pytest.approx(expected, abs=1e-5)


def test_render_with_transform_moves_the_density() -> None:
    shape = hermite.shape_gaussians(np.array([[0.0, 0.0, 0.0]]))
    expansion = hermite.Expansion(shape, hermite.Options(order=6))
    transform = np.eye(4)
    transform[:3, 3] = (1.0, 0.0, 0.0)
    plain = expansion.render(0.25, extent=4.0)
    moved = expansion.render(0.25, extent=4.0, transform=transform)
    peak_plain = np.unravel_index(np.argmax(plain.values), plain.values.shape)
    peak_moved = np.unravel_index(np.argmax(moved.values), moved.values.shape)
    assert peak_moved[0] - peak_plain[0] == 4  # 1 angstrom at 0.25 spacing
    assert peak_moved[1:] == peak_plain[1:]


def test_repr_is_readable(density: hermite.Gaussians) -> None:
    text = repr(hermite.Expansion(density, hermite.Options(order=3)))
    assert text.startswith("Expansion(order=3, lambdas=(") and "self_overlap=" in text


def test_an_expansion_that_loses_its_density_far_from_the_origin_warns(
        density: hermite.Gaussians) -> None:
    options = hermite.Options(order=5)
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        near = hermite.Expansion(density, options)  # no warning where the density is
    far = density.translated([150.0, 0.0, 0.0])
    with pytest.warns(hermite.HermiteWarning, match=r"holds only .*% of the density's exact "
                      r"self-overlap: the mean centre of the Gaussians lies 1[45]\d\.\d angstrom"):
        lost = hermite.Expansion(far, options)
    assert lost.self_overlap < 0.5 * near.self_overlap
    # Moved back, the same density expands as before.
    back = hermite.Expansion(far.translated([-150.0, 0.0, 0.0]), options)
    assert back.self_overlap == pytest.approx(near.self_overlap, rel=1e-5)
