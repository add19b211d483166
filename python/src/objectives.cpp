// The library's objectives for the users' own optimisers, and the centring and inertial
// routines.

#include <cmath>
#include <memory>

#include "bindings.h"
#include "conversions.h"
#include "gaussians.h"
#include "hermite/hermite.h"
#include "library_calls.h"

namespace hermite::python {

namespace {

using QVHermiteMath::QVHermiteOptions;
using QVSystem::QVGaussian;

py::handle centringRecord;  // hermite.Centring
py::handle inertialRecord;  // hermite.InertialFrame

QVHermiteOptions OptionsArgument(py::handle options, const char* name) {
    if (options.is_none()) {
        return QVHermiteOptions();
    }
    if (!py::isinstance<QVHermiteOptions>(options)) {
        throw py::type_error(std::string(name) + " must be hermite.Options");
    }
    return options.cast<const QVHermiteOptions&>();
}

/// The unpacked symmetric n x n matrix of a packed lower triangle.
py::array_t<double> Unpacked(const std::vector<double>& packed, unsigned int n) {
    std::vector<double> full(static_cast<std::size_t>(n) * n);
    for (unsigned int i = 0; i < n; ++i) {
        for (unsigned int j = 0; j <= i; ++j) {
            full[i * n + j] = full[j * n + i] = packed[i * (i + 1) / 2 + j];
        }
    }
    return ToArray(std::move(full), {static_cast<py::ssize_t>(n), static_cast<py::ssize_t>(n)});
}

/// An objective of the library with the value and gradient operations, for Python.
/// The results are checked: x may be finite and still lie where the library's numerics give
/// NaN or infinity (log lambdas of +-800, translations far beyond the densities); Python gets a
/// ValueError saying so rather than a NaN that an optimiser would take for a number.
/// `Traits::kName` names the class, `Traits::kReason` says which x lead there.
template <class Function, class Traits>
struct Objective {
    std::unique_ptr<Function> function;

    std::vector<double> Point(py::handle x) const {
        const unsigned int n = function->NumVar();
        return Values(x, "x", n, n == 1 ? "one variable" : "one per variable");
    }
    /// Raises the ValueError unless every value of `result` is finite.
    void Check(const std::vector<double>& result, const char* what,
               const std::vector<double>& point) const {
        for (double v : result) {
            if (!std::isfinite(v)) {
                py::list x;
                for (double xi : point) {
                    x.append(xi);
                }
                RequireFiniteResult(result,
                                    std::string(Traits::kName) + ": the " + what +
                                        " at x = " + std::string(py::repr(x)),
                                    Traits::kReason);
            }
        }
    }
    double Value(py::handle x) {
        const std::vector<double> point = Point(x);
        const double value = RunLibrary([&] { return (*function)(point.data()); }, false);
        Check({value}, "value", point);
        return value;
    }
    py::tuple ValueAndGradient(py::handle x) {
        const std::vector<double> point = Point(x);
        std::vector<double> gradient(point.size());
        const double value =
            RunLibrary([&] { return (*function)(point.data(), gradient.data()); }, false);
        Check({value}, "value", point);
        Check(gradient, "gradient", point);
        return py::make_tuple(value, ToArray(std::move(gradient)));
    }
};

struct OverlapTraits {
    static constexpr const char* kName = "OverlapObjective";
    static constexpr const char* kReason =
        "the angles or the translation x[3:6] lie beyond the range in which the expansions can "
        "be evaluated";
};
struct SelfOverlapTraits {
    static constexpr const char* kName = "SelfOverlapObjective";
    static constexpr const char* kReason =
        "x holds the natural logarithms of the lambdas, and exp(x) is too large or too small a "
        "basis scale for the expansion to be evaluated (keep x within a few units of 0)";
};
struct COMTraits {
    static constexpr const char* kName = "COMObjective";
    static constexpr const char* kReason =
        "the translation, or the density itself, lies too far from the origin for the "
        "expansion";
};

struct OverlapObjective : Objective<QVHermiteMath::QVHermiteOverlap, OverlapTraits> {
    QVHermiteOptions referenceOptions;
    QVHermiteOptions fitOptions;
};
struct SelfOverlapObjective : Objective<QVHermiteMath::QVHermiteSelfOverlap, SelfOverlapTraits> {};
struct COMObjective : Objective<QVHermiteMath::QVHermiteCOMFunc, COMTraits> {};

/// Raises the ValueError of a centring or orientation result that is not finite.
void CheckCentring(const std::vector<double>& result, const char* function, const char* what,
                   unsigned int order) {
    RequireFiniteResult(result, std::string(function) + ": the " + what,
                        "the Gaussians lie too far from the origin, or the lambdas are too "
                        "extreme, for an order-" +
                            std::to_string(order) +
                            " expansion; move the Gaussians near the origin first (e.g. by "
                            "the mean of their centres)");
}

template <class Class>
void BindEvaluation(Class& cls) {
    using Type = typename Class::type;
    cls.def_property_readonly(
           "num_variables", [](const Type& o) { return o.function->NumVar(); },
           "The number of variables.")
        .def(
            "value", [](Type& o, py::object x) { return o.Value(x); }, py::arg("x"),
            "The objective at x.")
        .def(
            "__call__", [](Type& o, py::object x) { return o.Value(x); }, py::arg("x"),
            "The objective at x (the same as value).")
        .def(
            "value_and_gradient", [](Type& o, py::object x) { return o.ValueAndGradient(x); },
            py::arg("x"), "(value, gradient) at x, the gradient as a numpy array.");
}

/// The three lambdas of a `lambdas` argument and whether they are all equal.
std::vector<double> LambdaArgument(py::handle lambdas) {
    return Lambdas(lambdas, "lambdas");
}

}  // namespace

void BindObjectives(py::module_& m) {
    centringRecord = DefineRecord(
        m, "Centring", {"centre", "gaussians"},
        "Result of hermite.iterative_search_com: centre, the (3,) estimate of the Hermite centre "
        "of mass of the Gaussians as given; gaussians, the Gaussians moved by the iteration.");
    inertialRecord = DefineRecord(
        m, "InertialFrame", {"translation", "rotation", "inertia", "eigenvalues", "gaussians"},
        "Result of hermite.orient_by_moments_of_inertia: translation (3,) carrying the Hermite "
        "centre of mass to the origin (not applied to gaussians); rotation (3, 3) whose rows are "
        "the principal axes, largest moment first, right-handed; inertia (3, 3), the second "
        "moment tensor; eigenvalues (3,), largest first; gaussians, the input Gaussians turned "
        "by rotation.");

    py::class_<OverlapObjective> overlap(m, "OverlapObjective", R"doc(
The negated overlap of a reference and a fit density as a function of six variables, for
minimisers: x[0:3] are Euler angles (a, b, c) in radians turning the reference about the
origin by R = Rx(a) Ry(b) Rz(c), x[3:6] a translation of the fit in angstrom. The value is
-(sum of A_lmn B_lmn K_l K_m K_n) / (lx ly lz) with A the turned reference and B the moved fit
coefficients: for equal lambdas minus the overlap integral of the two expansions. The gradient
is analytic.

Args:
    reference: the reference density (hermite.Gaussians).
    fit: the fit density.
    options: the reference's options (may optimise its lambdas).
    fit_options: the fit's options; by default the options the reference was expanded with
        (its lambdas, not optimised again), so that both expansions share their lambdas.
)doc");
    overlap
        .def(py::init([](py::object reference, py::object fit, py::object options,
                         py::object fitOptions) {
                 const auto& ref = GaussiansArgument(reference, "reference");
                 const auto& moving = GaussiansArgument(fit, "fit");
                 OverlapObjective o;
                 o.referenceOptions = OptionsArgument(options, "options");
                 const bool shareOptions = fitOptions.is_none();
                 if (!shareOptions) {
                     o.fitOptions = OptionsArgument(fitOptions, "fit_options");
                 }
                 o.function = std::make_unique<QVHermiteMath::QVHermiteOverlap>();
                 RunLibrary([&] {
                     o.function->SetupRef(ref, o.referenceOptions);
                     if (shareOptions) {
                         o.fitOptions = o.referenceOptions;
                     }
                     o.function->Setup(moving, o.fitOptions);
                 });
                 return o;
             }),
             py::arg("reference"), py::arg("fit"), py::arg("options") = py::none(),
             py::arg("fit_options") = py::none())
        .def_property_readonly(
            "reference_options",
            [](const OverlapObjective& o) { return QVHermiteOptions(o.referenceOptions); },
            "The options the reference was expanded with.")
        .def_property_readonly(
            "fit_options", [](const OverlapObjective& o) { return QVHermiteOptions(o.fitOptions); },
            "The options the fit was expanded with.")
        .def_property_readonly(
            "reference_self_overlap",
            [](const OverlapObjective& o) { return o.function->GetRefSelfOverlap(); },
            "The self-overlap of the reference expansion.")
        .def_property_readonly(
            "fit_self_overlap",
            [](const OverlapObjective& o) { return o.function->GetFitSelfOverlap(); },
            "The self-overlap of the fit expansion.")
        .def("__repr__", [](const OverlapObjective& o) {
            return "OverlapObjective(order=" + std::to_string(o.referenceOptions.GetNPolyMax()) +
                   ", reference_self_overlap=" +
                   std::string(py::repr(py::float_(o.function->GetRefSelfOverlap()))) +
                   ", fit_self_overlap=" +
                   std::string(py::repr(py::float_(o.function->GetFitSelfOverlap()))) + ")";
        });
    BindEvaluation(overlap);

    py::class_<SelfOverlapObjective> self(m, "SelfOverlapObjective", R"doc(
The negated self-overlap -S of the expansion of a fixed density as a function of the natural
logarithms of the lambdas: one variable (a common lambda) with single_lambda, else three.

Args:
    gaussians: the density (hermite.Gaussians).
    options: order, and single_lambda for the number of variables (the lambdas are the
        variables).
)doc");
    self.def(py::init([](py::object gaussians, py::object options) {
                 const auto& density = GaussiansArgument(gaussians, "gaussians");
                 const QVHermiteOptions used = OptionsArgument(options, "options");
                 SelfOverlapObjective o;
                 o.function = RunLibrary(
                     [&] {
                         return std::make_unique<QVHermiteMath::QVHermiteSelfOverlap>(used,
                                                                                      density);
                     },
                     false);
                 return o;
             }),
             py::arg("gaussians"), py::arg("options") = py::none())
        .def(
            "gradient_and_hessian",
            [](SelfOverlapObjective& o, py::object x) {
                const std::vector<double> point = o.Point(x);
                if (point.size() != 3) {
                    throw py::value_error(
                        "the Hessian is available with three lambdas (single_lambda=False)");
                }
                std::vector<double> gradient(3), hessian(6);
                RunLibrary([&] { (*o.function)(point.data(), hessian.data(), gradient.data()); },
                           false);
                o.Check(gradient, "gradient", point);
                o.Check(hessian, "Hessian", point);
                return py::make_tuple(ToArray(std::move(gradient)), Unpacked(hessian, 3));
            },
            py::arg("x"), "(gradient (3,), Hessian (3, 3)) in the log lambdas at x.")
        .def("__repr__", [](const SelfOverlapObjective& o) {
            return "SelfOverlapObjective(num_variables=" + std::to_string(o.function->NumVar()) +
                   ")";
        });
    BindEvaluation(self);

    py::class_<COMObjective> com(m, "COMObjective", R"doc(
The squared length of the Hermite centre of mass of the Gaussians moved by t = (tx, ty, tz),
f(t) = |c(t)|^2, with its gradient and Hessian (exact for equal lambdas).

Args:
    gaussians: the density (hermite.Gaussians).
    options: order and lambdas of the expansions (used as they are).
)doc");
    com.def(
           py::init([](py::object gaussians, py::object options) {
               const auto& density = GaussiansArgument(gaussians, "gaussians");
               const QVHermiteOptions used = OptionsArgument(options, "options");
               COMObjective o;
               o.function = RunLibrary(
                   [&] { return std::make_unique<QVHermiteMath::QVHermiteCOMFunc>(used, density); },
                   false);
               return o;
           }),
           py::arg("gaussians"), py::arg("options") = py::none())
        .def(
            "value_gradient_hessian",
            [](COMObjective& o, py::object x) {
                const std::vector<double> point = o.Point(x);
                std::vector<double> gradient(3), hessian(6);
                const double value = RunLibrary(
                    [&] { return (*o.function)(point.data(), hessian.data(), gradient.data()); },
                    false);
                o.Check({value}, "value", point);
                o.Check(gradient, "gradient", point);
                o.Check(hessian, "Hessian", point);
                return py::make_tuple(value, ToArray(std::move(gradient)), Unpacked(hessian, 3));
            },
            py::arg("x"), "(value, gradient (3,), Hessian (3, 3)) at t = x.")
        .def("__repr__", [](const COMObjective&) { return std::string("COMObjective()"); });
    BindEvaluation(com);

    m.def(
        "centre_of_mass",
        [](py::object gaussians, py::object order, py::object lambdas) {
            std::vector<QVGaussian> density = GaussiansArgument(gaussians, "gaussians");
            const unsigned int N = Order(order);
            const std::vector<double> l = LambdaArgument(lambdas);
            const bool single = l[0] == l[1] && l[1] == l[2];
            std::vector<double> centre = RunLibrary(
                [&] { return QVHermiteMath::QVHermiteCM(density, N, l[0], l[1], l[2], single); });
            CheckCentring(centre, "centre_of_mass", "centre of mass", N);
            return ToArray(std::move(centre));
        },
        py::arg("gaussians"), py::kw_only(), py::arg("order") = 5, py::arg("lambdas") = 1.0,
        R"doc(
The Hermite centre of mass (m_100, m_010, m_001) / m_000 of the order-N expansion of the
Gaussians with the given lambdas (one number or three), as a (3,) array.
)doc");

    m.def(
        "iterative_search_com",
        [](py::object gaussians, py::object order, py::object lambdas, double tolerance,
           py::object maxIterationsArgument) {
            GaussianList moved;
            moved.items = GaussiansArgument(gaussians, "gaussians");
            const unsigned int N = Order(order);
            const std::vector<double> l = LambdaArgument(lambdas);
            RequirePositive(tolerance, "tolerance");
            const long long maxIterations =
                Integer(maxIterationsArgument, "max_iterations", 0, 1000000);
            std::vector<double> centre = RunLibrary([&] {
                return QVHermiteMath::QVIterativeSearchOfHermiteCOM(
                    moved.items, N, l[0], l[1], l[2], tolerance,
                    static_cast<unsigned int>(maxIterations));
            });
            CheckCentring(centre, "iterative_search_com", "centre of mass", N);
            return centringRecord(ToArray(std::move(centre)), moved);
        },
        py::arg("gaussians"), py::kw_only(), py::arg("order") = 5, py::arg("lambdas") = 1.0,
        py::arg("tolerance") = 1e-4, py::arg("max_iterations") = 100, R"doc(
Moves the Gaussians by minus their Hermite centre of mass, repeatedly, until it is at most
``tolerance`` or ``max_iterations`` moves were made.

Returns:
    hermite.Centring(centre, gaussians): the sum of the measured centres (an estimate of the
    centre of mass of the Gaussians as given) and the moved Gaussians.
)doc");

    m.def(
        "optimization_search_com",
        [](py::object gaussians, py::object order, double lambda) {
            std::vector<QVGaussian> density = GaussiansArgument(gaussians, "gaussians");
            const unsigned int N = Order(order);
            RequirePositive(lambda, "lambda_");
            std::vector<double> centre = RunLibrary([&] {
                return QVHermiteMath::QVOptimizationSearchOfHermiteCOM(density, N, lambda);
            });
            CheckCentring(centre, "optimization_search_com", "centre of mass", N);
            return ToArray(std::move(centre));
        },
        py::arg("gaussians"), py::kw_only(), py::arg("order") = 5, py::arg("lambda_") = 1.0,
        R"doc(
The Hermite centre of mass found by minimising |c(t)|^2 over a translation t with the Newton
minimiser (see hermite.COMObjective): returns -t*, a (3,) array. The Gaussians are not moved.
)doc");

    m.def(
        "orient_by_moments_of_inertia",
        [](py::object gaussians, py::object order, py::object lambdas) {
            GaussianList turned;
            turned.items = GaussiansArgument(gaussians, "gaussians");
            const unsigned int N = Order(order);
            const std::vector<double> l = LambdaArgument(lambdas);
            std::vector<double> translation, rotation, eigenvalues;
            std::vector<std::vector<double>> inertia;
            RunLibrary([&] {
                QVHermiteMath::QVOrientByHermiteMomentsOfInertia(
                    turned.items, N, l[0], l[1], l[2], translation, rotation, inertia, eigenvalues);
            });
            std::vector<double> tensor;
            for (const auto& row : inertia) {
                tensor.insert(tensor.end(), row.begin(), row.end());
            }
            const char* name = "orient_by_moments_of_inertia";
            CheckCentring(translation, name, "translation", N);
            CheckCentring(rotation, name, "rotation", N);
            CheckCentring(tensor, name, "inertia tensor", N);
            CheckCentring(eigenvalues, name, "eigenvalues", N);
            return inertialRecord(
                ToArray(std::move(translation)), ToArray(std::move(rotation), {3, 3}),
                ToArray(std::move(tensor), {3, 3}), ToArray(std::move(eigenvalues)), turned);
        },
        py::arg("gaussians"), py::kw_only(), py::arg("order") = 5, py::arg("lambdas") = 1.0,
        R"doc(
The frame of the Hermite moments of inertia of the Gaussians (order-N expansion with the given
lambdas, one number or three).

Returns:
    hermite.InertialFrame(translation, rotation, inertia, eigenvalues, gaussians).
)doc");
}

}  // namespace hermite::python
