// hermite.Expansion: the Hermite expansion of a density, its coefficients as numpy views,
// rotation and rendering; the lmn indexing of the coefficients.

#include <cmath>
#include <memory>
#include <optional>
#include <sstream>

#include "bindings.h"
#include "conversions.h"
#include "gaussians.h"
#include "hermite/hermite.h"
#include "library_calls.h"

namespace hermite::python {

namespace {

using QVHermiteMath::QVHermite;
using QVHermiteMath::QVHermiteOptions;

/// The Python class hermite.Expansion. The library's expansion cannot be given coefficients
/// from outside, so the object also keeps what made it: the density and the rotations applied
/// since. Pickling stores those; unpickling expands the density again with the options used
/// (the lambdas chosen, not optimised again) and replays the rotations, which reproduces the
/// coefficients bit for bit.
struct ExpansionObject {
    QVHermite expansion;
    std::vector<QVSystem::QVGaussian> gaussians;
    std::vector<std::vector<double>> rotations;  // row-major 3 x 3, in the order applied
};

py::handle gridRecord;  // hermite.Grid, a named tuple

/// A degree l, m or n: an integer of at least 0 (ValueError otherwise). Values above `cap` are
/// returned as `cap`, so that the callers' own limit on l + m + n reports them, whatever their
/// size, without overflowing.
long long Degree(py::handle value, const char* name, long long cap) {
    const py::int_ degree = IntegerValue(value, name);
    if (degree < py::int_(0)) {
        throw py::value_error("l, m and n must be at least 0, got " + std::string(name) + " = " +
                              std::string(py::repr(degree)));
    }
    return degree > py::int_(cap) ? cap : degree.cast<long long>();
}

/// Warns (hermite.HermiteWarning) when the truncated expansion holds less than half of the
/// density's exact self-overlap `exact`: Hermite functions are centred on the origin, and a
/// density far from it is mostly lost.
void WarnAboutLostDensity(const ExpansionObject& object, double exact) {
    const double held = object.expansion.GetSelfOverlap();
    if (!(exact > 0.0) || held >= 0.5 * exact) {
        return;
    }
    double mean[3] = {0.0, 0.0, 0.0};
    for (const QVSystem::QVGaussian& g : object.gaussians) {
        mean[0] += g.GetX();
        mean[1] += g.GetY();
        mean[2] += g.GetZ();
    }
    const double count = static_cast<double>(object.gaussians.size());
    const double distance =
        std::sqrt(mean[0] * mean[0] + mean[1] * mean[1] + mean[2] * mean[2]) / count;
    std::ostringstream message;
    message.precision(1);
    message << std::fixed << "the expansion holds only " << 100.0 * held / exact
            << "% of the density's exact self-overlap: the mean centre of the Gaussians lies "
            << distance
            << " angstrom from the origin, where the Hermite functions are centred; move them "
               "there first (Gaussians.translated)";
    Diagnostics diagnostics;
    diagnostics.AddWarning(message.str());
    EmitWarnings(diagnostics);
}

ExpansionObject MakeExpansion(py::handle gaussians, py::object options) {
    const auto& density = GaussiansArgument(gaussians, "gaussians");
    QVHermiteOptions used;
    if (!options.is_none()) {
        if (!py::isinstance<QVHermiteOptions>(options)) {
            throw py::type_error("options must be hermite.Options");
        }
        used = options.cast<const QVHermiteOptions&>();
    }
    ExpansionObject object;
    const double exact = RunLibrary([&] {
        object.expansion.Setup(density, used);
        return QVHermiteMath::GaussianOverlap(density, density);
    });
    object.gaussians = density;
    WarnAboutLostDensity(object, exact);
    return object;
}

py::tuple ExpansionState(const ExpansionObject& object) {
    py::list rotations;
    for (const std::vector<double>& R : object.rotations) {
        rotations.append(ToArray(std::vector<double>(R), {3, 3}));
    }
    return py::make_tuple(GaussianList{object.gaussians},
                          QVHermiteOptions(object.expansion.GetOptions()), rotations);
}

ExpansionObject ExpansionFromState(const py::tuple& state) {
    if (state.size() != 3) {
        throw py::value_error("invalid pickled Expansion state");
    }
    ExpansionObject object = MakeExpansion(state[0], state[1]);
    std::vector<std::vector<double>> rotations;
    for (py::handle matrix : state[2].cast<py::list>()) {
        rotations.push_back(RotationMatrix(matrix, "rotation"));
    }
    RunLibrary(
        [&] {
            for (const std::vector<double>& R : rotations) {
                object.expansion.RotateHermites(R);
            }
        },
        false);
    object.rotations = std::move(rotations);
    return object;
}

py::tuple Lambdas(const QVHermite& e) {
    const QVHermiteOptions& o = e.GetOptions();
    return py::make_tuple(o.GetLambda(0), o.GetLambda(1), o.GetLambda(2));
}

std::string ExpansionRepr(const ExpansionObject& object) {
    const QVHermite& e = object.expansion;
    const QVHermiteOptions& o = e.GetOptions();
    std::ostringstream out;
    out << "Expansion(order=" << o.GetNPolyMax()
        << ", lambdas=" << std::string(py::repr(Lambdas(e)))
        << ", coefficients=" << e.NumCoefficients()
        << ", self_overlap=" << std::string(py::repr(py::float_(e.GetSelfOverlap()))) << ")";
    return out.str();
}

/// Renders a snapshot of the expansion; the values array takes over the grid (no copy) and is
/// indexed [ix, iy, iz].
py::object Render(const ExpansionObject& object, double spacing, py::object extent,
                  py::object transform) {
    RequirePositive(spacing, "spacing");
    double range = object.expansion.GetExtent();
    if (!extent.is_none()) {
        range = py::float_(extent).cast<double>();  // TypeError for a non-number
        if (!std::isfinite(range) || range < 0.0) {
            throw py::value_error("extent must be finite and at least 0, got " +
                                  std::string(py::repr(extent)));
        }
    }
    std::optional<QVChem::QVTrans> motion;
    if (!transform.is_none()) {
        motion = TransformMatrix(transform, "transform");
    }
    const QVHermite snapshot = object.expansion;
    auto grid = std::make_unique<QVSystem::QVScalarGrid>();
    RunLibrary([&] {
        if (motion) {
            snapshot.CreateGrid(*grid, spacing, range, *motion);
        } else {
            snapshot.CreateGrid(*grid, spacing, range);
        }
    });
    const py::ssize_t nx = grid->GetXDim(), ny = grid->GetYDim(), nz = grid->GetZDim();
    const std::vector<double> origin = {grid->GetCoord(0, 0), grid->GetCoord(1, 0),
                                        grid->GetCoord(2, 0)};
    const double step = grid->GetSpacing();
    const float* data = grid->GetValues().data();
    auto* owned = grid.release();
    py::capsule free(owned, [](void* p) { delete static_cast<QVSystem::QVScalarGrid*>(p); });
    // Element order x fastest: Fortran order of an (nx, ny, nz) array.
    const py::ssize_t item = sizeof(float);
    py::array_t<float> values({nx, ny, nz}, {item, item * nx, item * nx * ny}, data, free);
    return gridRecord(values, ToArray(std::vector<double>(origin)), step);
}

/// lmn triples of every coefficient of an order-N expansion, in lmn order.
py::array_t<long long> LmnTriples(py::object order) {
    const unsigned int N = Order(order);
    const std::size_t count = static_cast<std::size_t>(N + 1) * (N + 2) * (N + 3) / 6;
    py::array_t<long long> triples({static_cast<py::ssize_t>(count), py::ssize_t{3}});
    auto out = triples.mutable_unchecked<2>();
    py::ssize_t row = 0;
    for (unsigned int s = 0; s <= N; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int mm = 0; mm <= s - l; ++mm, ++row) {
                out(row, 0) = l;
                out(row, 1) = mm;
                out(row, 2) = s - l - mm;
            }
        }
    }
    return triples;
}

}  // namespace

void BindExpansion(py::module_& m) {
    gridRecord = DefineRecord(m, "Grid", {"values", "origin", "spacing"},
                              "A rendered density: values, a float32 array (nx, ny, nz) indexed "
                              "[ix, iy, iz]; origin, the (3,) coordinates of point [0, 0, 0]; "
                              "spacing, the distance between neighbouring points. Point "
                              "[i, j, k] lies at origin + spacing * (i, j, k).");

    py::class_<ExpansionObject>(m, "Expansion", R"doc(
The Hermite expansion of a Gaussian density.

Expanding may first optimise the lambdas (see hermite.Options); ``options`` then reports the
lambdas used. Coefficients are in lmn order: by total degree s = l + m + n, then l, then m
(see hermite.lmn_index and hermite.lmn_triples).

Args:
    gaussians: the density, a non-empty hermite.Gaussians.
    options: order and lambdas (default hermite.Options()).
)doc")
        .def(py::init(&MakeExpansion), py::arg("gaussians"), py::arg("options") = py::none())
        .def_property_readonly(
            "coefficients",
            [](py::object self) {
                const QVHermite& e = self.cast<const ExpansionObject&>().expansion;
                return ReadOnlyView(e.GetCoefficients().data(), e.GetCoefficients().size(), self);
            },
            "The coefficients in lmn order: a read-only numpy view of the expansion's own "
            "storage (no copy), which keeps the expansion alive and follows rotate().")
        .def_property_readonly(
            "coefficients_lambda_derivative",
            [](py::object self) {
                const QVHermite& e = self.cast<const ExpansionObject&>().expansion;
                return ReadOnlyView(e.GetLambdaDerivativeCoefficients().data(), e.NumCoefficients(),
                                    self);
            },
            "dc/dlambda for a common lambda, per coefficient: a read-only view like "
            "coefficients (not updated by rotate()).")
        .def_property_readonly(
            "k_coefficients",
            [](py::object self) {
                const QVHermite& e = self.cast<const ExpansionObject&>().expansion;
                return ReadOnlyView(e.GetKCoeffs().data(), e.GetKCoeffs().size(), self);
            },
            "K_i = 2^i i! sqrt(pi), the squared norms of the one-axis Hermite functions "
            "(read-only view).")
        .def_property_readonly(
            "options",
            [](const ExpansionObject& o) { return QVHermiteOptions(o.expansion.GetOptions()); },
            "The options used (a copy): the lambdas chosen, optimal_lambdas False.")
        .def_property_readonly(
            "order",
            [](const ExpansionObject& o) { return o.expansion.GetOptions().GetNPolyMax(); },
            "The expansion order N.")
        .def_property_readonly(
            "lambdas", [](const ExpansionObject& o) { return Lambdas(o.expansion); },
            "The lambdas (x, y, z) used, 1/angstrom.")
        .def_property_readonly(
            "num_coefficients",
            [](const ExpansionObject& o) { return o.expansion.NumCoefficients(); },
            "(N+1)(N+2)(N+3)/6.")
        .def_property_readonly(
            "self_overlap", [](const ExpansionObject& o) { return o.expansion.GetSelfOverlap(); },
            "S = (1 / (lx ly lz)) sum of c_lmn^2 K_l K_m K_n, in angstrom^3: approaches the "
            "exact self-overlap from below as the order grows.")
        .def_property_readonly(
            "lambda_derivative",
            [](const ExpansionObject& o) { return o.expansion.GetLambdaDerivative(); },
            "dS/dlambda for a common lambda (0 at the optimal lambda).")
        .def_property_readonly(
            "extent", [](const ExpansionObject& o) { return o.expansion.GetExtent(); },
            "Twice the largest absolute centre coordinate of the density, angstrom: the default "
            "extent of render().")
        .def(
            "coefficient",
            [](const ExpansionObject& o, py::object lArgument, py::object mArgument,
               py::object nArgument) {
                const long long order = o.expansion.GetOptions().GetNPolyMax();
                const long long l = Degree(lArgument, "l", order + 1);
                const long long mm = Degree(mArgument, "m", order + 1);
                const long long n = Degree(nArgument, "n", order + 1);
                if (l + mm + n > order) {
                    throw py::index_error("l + m + n exceeds the expansion order");
                }
                return o.expansion.GetCoefficient(QVHermiteMath::GetLmnIndex(
                    static_cast<unsigned int>(l), static_cast<unsigned int>(mm),
                    static_cast<unsigned int>(n)));
            },
            py::arg("l"), py::arg("m"), py::arg("n"), "The coefficient c_lmn.")
        .def(
            "rotate",
            [](ExpansionObject& o, py::object matrix) {
                const std::vector<double> R = RotationMatrix(matrix, "matrix");
                const double* storage = o.expansion.GetCoefficients().data();
                RunLibrary([&] { o.expansion.RotateHermites(R); }, false);
                o.rotations.push_back(R);
                if (o.expansion.GetCoefficients().data() != storage) {
                    throw std::logic_error("the coefficients moved in memory during rotation");
                }
            },
            py::arg("matrix"), R"doc(
Turns the expanded density in place by the 3 x 3 rotation matrix R (p -> R p, about the
origin). Exact for equal lambdas. Coefficient views handed out earlier see the rotated values.
)doc")
        .def("render", &Render, py::arg("spacing"), py::kw_only(), py::arg("extent") = py::none(),
             py::arg("transform") = py::none(), R"doc(
Renders the expansion onto a cubic grid about the origin.

The grid has n = trunc((extent + 6) / spacing + 1) + 1 points per axis, at least 5 and at most
300 (a finer spacing is clamped, with a hermite.HermiteWarning).

Args:
    spacing: grid spacing in angstrom, greater than 0.
    extent: the size of the density in angstrom (default: the expansion's ``extent``).
    transform: an optional 4 x 4 rigid transform [[R, t], [0, 0, 0, 1]]; the rendered density
        is moved by it and resampled by trilinear interpolation.

Returns:
    hermite.Grid(values, origin, spacing), values a float32 array (nx, ny, nz) indexed
    [ix, iy, iz].
)doc")
        .def(
            "copy", [](const ExpansionObject& o) { return o; }, "An independent copy.")
        .def("__copy__", [](const ExpansionObject& o) { return o; })
        .def("__deepcopy__", [](const ExpansionObject& o, py::dict) { return o; })
        .def("__repr__", &ExpansionRepr)
        .def(py::pickle(&ExpansionState, &ExpansionFromState));

    m.def(
        "lmn_index",
        [](py::object lArgument, py::object mArgument, py::object nArgument) {
            const long long l = Degree(lArgument, "l", 1001);
            const long long mm = Degree(mArgument, "m", 1001);
            const long long n = Degree(nArgument, "n", 1001);
            if (l + mm + n > 1000) {
                throw py::value_error("l + m + n must be at most 1000");
            }
            return QVHermiteMath::GetLmnIndex(static_cast<unsigned int>(l),
                                              static_cast<unsigned int>(mm),
                                              static_cast<unsigned int>(n));
        },
        py::arg("l"), py::arg("m"), py::arg("n"), R"doc(
The position of coefficient (l, m, n) in lmn order: s(s+1)(s+2)/6 + l(2s + 3 - l)/2 + m with
s = l + m + n. The same in every expansion of order at least s.
)doc");

    m.def("lmn_triples", &LmnTriples, py::arg("order"), R"doc(
The (l, m, n) of every coefficient of an expansion of order ``order``, in lmn order: an integer
array of shape ((N+1)(N+2)(N+3)/6, 3).
)doc");
}

}  // namespace hermite::python
