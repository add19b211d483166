// hermite.Options: the order and lambdas of an expansion.

#include <sstream>

#include "bindings.h"
#include "conversions.h"
#include "hermite/hermite.h"
#include "library_calls.h"

namespace hermite::python {

namespace {

using QVHermiteMath::QVHermiteOptions;

/// "1.0", "0.63245553203367588": shortest text that reads back as the same double.
std::string Repr(double value) {
    return py::repr(py::float_(value));
}

void SetOrder(QVHermiteOptions& options, py::object order) {
    const unsigned int checked = Order(order);
    RunLibrary([&] { options.SetNPolyMax(checked); }, false);
}

void SetLambdas(QVHermiteOptions& options, const std::vector<double>& lambdas) {
    RunLibrary(
        [&] {
            for (unsigned int axis = 0; axis < 3; ++axis) {
                options.SetLambda(axis, lambdas[axis]);
            }
        },
        false);
}

py::tuple LambdaTuple(const QVHermiteOptions& options) {
    return py::make_tuple(options.GetLambda(0), options.GetLambda(1), options.GetLambda(2));
}

std::string OptionsRepr(const QVHermiteOptions& options) {
    std::ostringstream out;
    out << "Options(order=" << options.GetNPolyMax() << ", lambdas=(" << Repr(options.GetLambda(0))
        << ", " << Repr(options.GetLambda(1)) << ", " << Repr(options.GetLambda(2))
        << "), single_lambda=" << (options.GetUseSingleLambda() ? "True" : "False")
        << ", optimal_lambdas=" << (options.GetUseOptimalLambdas() ? "True" : "False") << ")";
    return out.str();
}

QVHermiteOptions MakeOptions(py::object order, py::object lambdas, py::object lambda,
                             bool singleLambda, bool optimalLambdas) {
    if (!lambdas.is_none() && !lambda.is_none()) {
        throw py::value_error("give either lambdas or lambda_, not both");
    }
    QVHermiteOptions options;
    SetOrder(options, order);
    if (!lambdas.is_none()) {
        SetLambdas(options, Lambdas(lambdas, "lambdas"));
    } else if (!lambda.is_none()) {
        SetLambdas(options, Lambdas(lambda, "lambda_"));
    }
    RunLibrary(
        [&] {
            options.SetUseSingleLambda(singleLambda);
            options.SetUseOptimalLambdas(optimalLambdas);
        },
        false);
    return options;
}

}  // namespace

void BindOptions(py::module_& m) {
    py::class_<QVHermiteOptions>(m, "Options", R"doc(
The settings of a Hermite expansion: order, the three basis scales (lambdas, 1/angstrom) and
whether the lambdas are kept equal and optimised.

An expansion of order N holds one coefficient per (l, m, n) with l + m + n <= N. With
``optimal_lambdas`` the expansion first chooses the lambdas that maximise its self-overlap
(starting from the lambdas given here), one common lambda when ``single_lambda`` is true, three
otherwise.

Args:
    order: expansion order N, 0 to 100.
    lambdas: the three lambdas (x, y, z), or one number for all three. Default 1.0.
    lambda_: one lambda for all three axes (an alternative to ``lambdas``).
    single_lambda: keep the three lambdas equal when optimising them.
    optimal_lambdas: optimise the lambdas before expanding.

>>> hermite.Options(order=8, lambda_=0.6, optimal_lambdas=False)
Options(order=8, lambdas=(0.6, 0.6, 0.6), single_lambda=True, optimal_lambdas=False)
)doc")
        .def(py::init(&MakeOptions), py::kw_only(), py::arg("order") = 5,
             py::arg("lambdas") = py::none(), py::arg("lambda_") = py::none(),
             py::arg("single_lambda") = true, py::arg("optimal_lambdas") = true)
        .def_property(
            "order", [](const QVHermiteOptions& o) { return o.GetNPolyMax(); }, &SetOrder,
            "The expansion order N (0 to 100).")
        .def_property(
            "lambdas", &LambdaTuple,
            [](QVHermiteOptions& o, py::object value) { SetLambdas(o, Lambdas(value, "lambdas")); },
            "The lambdas (x, y, z) in 1/angstrom; set with three numbers or one for all axes.")
        .def_property(
            "single_lambda", [](const QVHermiteOptions& o) { return o.GetUseSingleLambda(); },
            [](QVHermiteOptions& o, bool value) {
                RunLibrary([&] { o.SetUseSingleLambda(value); }, false);
            },
            "Keep the three lambdas equal when optimising them.")
        .def_property(
            "optimal_lambdas", [](const QVHermiteOptions& o) { return o.GetUseOptimalLambdas(); },
            [](QVHermiteOptions& o, bool value) {
                RunLibrary([&] { o.SetUseOptimalLambdas(value); }, false);
            },
            "Optimise the lambdas (maximum self-overlap) before expanding.")
        .def_property_readonly(
            "num_coefficients",
            [](const QVHermiteOptions& o) {
                const unsigned long N = o.GetNPolyMax();
                return (N + 1) * (N + 2) * (N + 3) / 6;
            },
            "(N+1)(N+2)(N+3)/6, the number of coefficients of an expansion of this order.")
        .def(
            "describe", [](const QVHermiteOptions& o) { return o.Describe(); },
            "A listing of the underlying named parameters with their defaults.")
        .def(
            "copy", [](const QVHermiteOptions& o) { return QVHermiteOptions(o); },
            "A copy of these options.")
        .def("__copy__", [](const QVHermiteOptions& o) { return QVHermiteOptions(o); })
        .def("__deepcopy__",
             [](const QVHermiteOptions& o, py::dict) { return QVHermiteOptions(o); })
        .def("__repr__", &OptionsRepr)
        .def(
            "__eq__",
            [](const QVHermiteOptions& a, const QVHermiteOptions& b) {
                return a.GetNPolyMax() == b.GetNPolyMax() && a.GetLambda(0) == b.GetLambda(0) &&
                       a.GetLambda(1) == b.GetLambda(1) && a.GetLambda(2) == b.GetLambda(2) &&
                       a.GetUseSingleLambda() == b.GetUseSingleLambda() &&
                       a.GetUseOptimalLambdas() == b.GetUseOptimalLambdas();
            },
            py::is_operator())
        .def(py::pickle(
            [](const QVHermiteOptions& o) {
                return py::make_tuple(o.GetNPolyMax(), LambdaTuple(o), o.GetUseSingleLambda(),
                                      o.GetUseOptimalLambdas());
            },
            [](py::tuple state) {
                if (state.size() != 4) {
                    throw py::value_error("invalid pickled Options state");
                }
                return MakeOptions(state[0], state[1], py::none(), state[2].cast<bool>(),
                                   state[3].cast<bool>());
            }));
    // Options are compared by value; they are mutable, hence not hashable.
    m.attr("Options").attr("__hash__") = py::none();
}

}  // namespace hermite::python
