"""The objectives for users' own optimisers, and the centring and inertial routines."""

from __future__ import annotations

from math import factorial, pi, sqrt

import numpy as np
import pytest

import hermite
from conftest import euler_xyz

COORDS = np.array([[0.0, 0.0, 0.0], [1.5, 0.2, 0.0], [2.2, 1.4, 0.3], [-0.8, 1.1, -0.6],
                   [0.4, -1.3, 0.9]])


@pytest.fixture
def shape() -> hermite.Gaussians:
    return hermite.shape_gaussians(COORDS)


def central_gradient(function, x: np.ndarray, h: float = 1e-5) -> np.ndarray:
    gradient = np.empty_like(x)
    for i in range(len(x)):
        step = np.zeros_like(x)
        step[i] = h
        gradient[i] = (function(x + step) - function(x - step)) / (2 * h)
    return gradient


def test_overlap_objective_value_is_minus_the_expansion_overlap(shape: hermite.Gaussians) -> None:
    fit = shape.translated([0.3, -0.2, 0.1])
    objective = hermite.OverlapObjective(shape, fit, hermite.Options(order=6))
    assert objective.num_variables == 6
    assert objective.fit_options.lambdas == objective.reference_options.lambdas
    options = objective.reference_options
    angles = (0.4, -0.3, 0.8)
    reference = hermite.Expansion(shape, options)
    reference.rotate(euler_xyz(*angles))
    fitted = hermite.Expansion(fit, options)
    k = np.array([2.0**i * factorial(i) * sqrt(pi) for i in range(options.order + 1)])
    t = hermite.lmn_triples(options.order)
    weights = k[t[:, 0]] * k[t[:, 1]] * k[t[:, 2]]
    expected = -np.sum(reference.coefficients * fitted.coefficients * weights) / np.prod(
        reference.lambdas)
    x = np.array([*angles, 0.0, 0.0, 0.0])
    assert objective.value(x) == pytest.approx(expected, rel=1e-6)
    assert objective(x) == objective.value(x)
    assert objective.fit_self_overlap == pytest.approx(fitted.self_overlap, rel=1e-12)


def test_overlap_objective_gradient(shape: hermite.Gaussians) -> None:
    objective = hermite.OverlapObjective(shape, shape.translated([0.5, 0.0, -0.4]))
    x = np.array([0.2, -0.1, 0.3, 0.25, -0.15, 0.1])
    value, gradient = objective.value_and_gradient(x)
    assert value == pytest.approx(objective.value(x), rel=1e-14)
    assert gradient.shape == (6,)
    np.testing.assert_allclose(gradient, central_gradient(objective.value, x), rtol=1e-5,
                               atol=1e-6 * abs(value))


def test_a_user_optimiser_recovers_the_identity(shape: hermite.Gaussians) -> None:
    """Plain gradient descent on the objective finds the overlap of a shifted copy."""
    objective = hermite.OverlapObjective(shape, shape.translated([0.4, -0.3, 0.2]),
                                         hermite.Options(order=6))
    x = np.zeros(6)
    for _ in range(2000):
        value, gradient = objective.value_and_gradient(x)
        x -= 1e-3 * gradient
    np.testing.assert_allclose(x[3:], [-0.4, 0.3, -0.2], atol=0.05)
    np.testing.assert_allclose(x[:3], 0.0, atol=0.05)


def test_self_overlap_objective(shape: hermite.Gaussians) -> None:
    single = hermite.SelfOverlapObjective(shape, hermite.Options(order=5))
    assert single.num_variables == 1
    x = np.array([np.log(0.8)])
    expected = hermite.Expansion(shape, hermite.Options(order=5, lambda_=0.8,
                                                        optimal_lambdas=False)).self_overlap
    assert single.value(x) == pytest.approx(-expected, rel=1e-12)
    _, gradient = single.value_and_gradient(x)
    np.testing.assert_allclose(gradient, central_gradient(single.value, x), rtol=1e-5)
    with pytest.raises(ValueError, match="three lambdas"):
        single.gradient_and_hessian(x)

    three = hermite.SelfOverlapObjective(shape, hermite.Options(order=5, single_lambda=False))
    assert three.num_variables == 3
    y = np.log([0.7, 0.8, 0.9])
    gradient, hessian = three.gradient_and_hessian(y)
    np.testing.assert_allclose(gradient, three.value_and_gradient(y)[1], rtol=1e-12)
    numeric = np.array([central_gradient(lambda z: three.value_and_gradient(z)[1][i], y)
                        for i in range(3)])
    np.testing.assert_allclose(hessian, numeric, rtol=1e-4, atol=1e-6)
    np.testing.assert_array_equal(hessian, hessian.T)


def test_com_objective_and_centre_of_mass(shape: hermite.Gaussians) -> None:
    options = hermite.Options(order=6, lambda_=0.7, optimal_lambdas=False)
    objective = hermite.COMObjective(shape, options)
    t = np.array([0.3, -0.2, 0.1])
    centre = hermite.centre_of_mass(shape.translated(t), order=6, lambdas=0.7)
    assert objective.value(t) == pytest.approx(np.sum(centre**2), rel=1e-5)
    value, gradient, hessian = objective.value_gradient_hessian(t)
    assert value == pytest.approx(objective.value(t), rel=1e-12)
    np.testing.assert_allclose(gradient, objective.value_and_gradient(t)[1], rtol=1e-10)
    np.testing.assert_allclose(gradient, central_gradient(objective.value, t, 1e-3), rtol=1e-3,
                               atol=1e-6)
    np.testing.assert_array_equal(hessian, hessian.T)


def test_centring_searches(shape: hermite.Gaussians) -> None:
    found = hermite.optimization_search_com(shape, order=6, lambda_=0.7)
    assert found.shape == (3,)
    # -found is a minimiser of |c(t)|^2 reached by Newton steps from t = 0: lower than the start,
    # with a small gradient.
    objective = hermite.COMObjective(shape, hermite.Options(order=6, lambda_=0.7,
                                                            optimal_lambdas=False))
    value, gradient = objective.value_and_gradient(-found)
    assert value < objective.value(np.zeros(3))
    assert np.linalg.norm(gradient) < 1e-3
    # A density symmetric about the origin is centred: both searches stay there.
    symmetric = hermite.shape_gaussians(np.array([[1.0, 0.0, 0.0], [-1.0, 0.0, 0.0],
                                                  [0.0, 0.5, 0.0], [0.0, -0.5, 0.0]]))
    np.testing.assert_allclose(hermite.optimization_search_com(symmetric, order=6, lambda_=0.7),
                               0.0, atol=1e-6)
    centring = hermite.iterative_search_com(symmetric, order=6, lambdas=0.7, tolerance=1e-4)
    assert isinstance(centring, hermite.Centring)
    np.testing.assert_allclose(centring.centre, 0.0, atol=1e-6)
    np.testing.assert_array_equal(centring.gaussians.centres, symmetric.centres)
    # Off-centre, the first move is by minus the measured centre of mass.
    one_step = hermite.iterative_search_com(shape, order=6, lambdas=0.7, max_iterations=1)
    measured = hermite.centre_of_mass(shape, order=6, lambdas=0.7)
    np.testing.assert_allclose(one_step.gaussians.centres, shape.centres - measured, atol=1e-5)


def test_orientation_by_moments_of_inertia(shape: hermite.Gaussians) -> None:
    frame = hermite.orient_by_moments_of_inertia(shape, order=6, lambdas=0.7)
    rotation = frame.rotation
    np.testing.assert_allclose(rotation @ rotation.T, np.eye(3), atol=1e-10)
    assert np.linalg.det(rotation) == pytest.approx(1.0)
    assert np.all(np.diff(frame.eigenvalues) <= 0)
    np.testing.assert_allclose(frame.inertia, frame.inertia.T)
    np.testing.assert_allclose(rotation @ frame.inertia @ rotation.T, np.diag(frame.eigenvalues),
                               atol=1e-8 * np.max(np.abs(frame.eigenvalues)))
    np.testing.assert_allclose(frame.gaussians.centres, shape.centres @ rotation.T, atol=1e-5)
    assert frame.translation.shape == (3,)
