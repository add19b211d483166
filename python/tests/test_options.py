"""hermite.Options: keyword construction, properties, repr, copies."""

from __future__ import annotations

import copy
import pickle

import pytest

import hermite


def test_defaults_and_repr() -> None:
    options = hermite.Options()
    assert options.order == 5
    assert options.lambdas == (1.0, 1.0, 1.0)
    assert options.single_lambda and options.optimal_lambdas
    assert repr(options) == ("Options(order=5, lambdas=(1.0, 1.0, 1.0), single_lambda=True, "
                             "optimal_lambdas=True)")
    assert options.num_coefficients == 56
    assert "-NPolyMax" in options.describe()


def test_keywords_and_properties() -> None:
    options = hermite.Options(order=8, lambdas=(0.5, 0.6, 0.7), single_lambda=False,
                              optimal_lambdas=False)
    assert options.lambdas == (0.5, 0.6, 0.7)
    assert hermite.Options(lambda_=0.6).lambdas == (0.6, 0.6, 0.6)
    options.order = 3
    options.lambdas = 0.25  # type: ignore[assignment]  # one number sets all three
    options.single_lambda = True
    assert (options.order, options.lambdas, options.single_lambda) == (3, (0.25,) * 3, True)
    assert eval(repr(options), {"Options": hermite.Options}) == options


def test_copies_are_independent() -> None:
    options = hermite.Options(order=7)
    for clone in (options.copy(), copy.copy(options), copy.deepcopy(options),
                  pickle.loads(pickle.dumps(options))):
        assert clone == options
        clone.order = 2
        assert options.order == 7


def test_positional_arguments_are_refused() -> None:
    with pytest.raises(TypeError):
        hermite.Options(5)  # type: ignore[misc]
