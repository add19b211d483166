// hermite.Gaussians and the functions that make them, the exact overlap of two densities.

#include <sstream>

#include "bindings.h"
#include "conversions.h"
#include "gaussians.h"
#include "hermite/hermite.h"
#include "library_calls.h"

namespace hermite::python {

namespace {

using QVSystem::QVGaussian;

py::handle gaussianRecord;  // hermite.Gaussian, a named tuple

/// Tags as unsigned 32-bit values, one per Gaussian (zeros when `tags` is None).
std::vector<unsigned int> Tags(py::handle tags, std::size_t count) {
    std::vector<unsigned int> result(count, 0u);
    if (tags.is_none()) {
        return result;
    }
    const std::vector<double> values = Values(tags, "tags", count, "one per Gaussian");
    for (std::size_t i = 0; i < count; ++i) {
        const double v = values[i];
        if (v < 0.0 || v > 4294967295.0 || v != static_cast<double>(static_cast<long long>(v))) {
            throw py::value_error("tags must be integers in 0..4294967295, got " +
                                  std::string(py::repr(py::float_(v))) + " at index " +
                                  std::to_string(i));
        }
        result[i] = static_cast<unsigned int>(v);
    }
    return result;
}

GaussianList MakeGaussians(py::handle centres, py::handle prefactors, py::handle exponents,
                           py::handle tags) {
    const std::vector<double> xyz = Points(centres, "centres", true);
    const std::size_t n = xyz.size() / 3;
    const std::vector<double> w = Values(prefactors, "prefactors", n, "one per centre");
    const std::vector<double> a = Values(exponents, "exponents", n, "one per centre");
    RequirePositive(a, "exponents");
    RequireSinglePrecision(xyz, "centres");
    RequireSinglePrecision(w, "prefactors");
    RequireSinglePrecision(a, "exponents");
    for (std::size_t i = 0; i < n; ++i) {
        if (!(static_cast<float>(a[i]) > 0.0f)) {
            throw py::value_error("exponents must be representable in single precision, got " +
                                  std::string(py::repr(py::float_(a[i]))) + " at index " +
                                  std::to_string(i));
        }
    }
    const std::vector<unsigned int> t = Tags(tags, n);
    GaussianList list;
    list.items.reserve(n);
    for (std::size_t i = 0; i < n; ++i) {
        const float centre[3] = {static_cast<float>(xyz[3 * i]), static_cast<float>(xyz[3 * i + 1]),
                                 static_cast<float>(xyz[3 * i + 2])};
        list.items.emplace_back(static_cast<float>(w[i]), static_cast<float>(a[i]), centre, t[i]);
    }
    return list;
}

py::array_t<double> Centres(const GaussianList& list) {
    std::vector<double> xyz;
    xyz.reserve(3 * list.items.size());
    for (const QVGaussian& g : list.items) {
        xyz.push_back(g.GetX());
        xyz.push_back(g.GetY());
        xyz.push_back(g.GetZ());
    }
    return ToArray(std::move(xyz), {static_cast<py::ssize_t>(list.items.size()), 3});
}

template <class Get>
py::array_t<double> Column(const GaussianList& list, Get get) {
    std::vector<double> values;
    values.reserve(list.items.size());
    for (const QVGaussian& g : list.items) {
        values.push_back(get(g));
    }
    return ToArray(std::move(values));
}

py::array_t<double> Prefactors(const GaussianList& l) {
    return Column(l, [](const QVGaussian& g) { return g.GetPrefactor(); });
}

py::array_t<double> Exponents(const GaussianList& l) {
    return Column(l, [](const QVGaussian& g) { return g.GetExponent(); });
}

py::array_t<long long> TagArray(const GaussianList& l) {
    py::array_t<long long> tags(static_cast<py::ssize_t>(l.items.size()));
    auto out = tags.mutable_unchecked<1>();
    for (std::size_t i = 0; i < l.items.size(); ++i) {
        out(static_cast<py::ssize_t>(i)) = l.items[i].GetTag();
    }
    return tags;
}

py::object Item(const QVGaussian& g) {
    return gaussianRecord(g.GetPrefactor(), g.GetExponent(),
                          py::make_tuple(g.GetX(), g.GetY(), g.GetZ()), g.GetTag());
}

std::string GaussiansRepr(const GaussianList& list) {
    std::ostringstream out;
    out << "Gaussians(n=" << list.items.size();
    if (!list.items.empty()) {
        double weight = 0.0;
        for (const QVGaussian& g : list.items) {
            weight += g.GetPrefactor();
        }
        out << ", prefactor sum=" << std::string(py::repr(py::float_(weight)));
    }
    out << ")";
    return out.str();
}

}  // namespace

const std::vector<QVSystem::QVGaussian>& GaussiansArgument(py::handle object, const char* name,
                                                           bool allowEmpty) {
    if (!py::isinstance<GaussianList>(object)) {
        throw py::type_error(std::string(name) + " must be hermite.Gaussians, got " +
                             std::string(py::str(py::type::handle_of(object).attr("__name__"))));
    }
    const GaussianList& list = object.cast<const GaussianList&>();
    if (!allowEmpty && list.items.empty()) {
        throw py::value_error(std::string(name) + " is empty: at least one Gaussian is needed");
    }
    return list.items;
}

void BindGaussians(py::module_& m) {
    gaussianRecord = DefineRecord(m, "Gaussian", {"prefactor", "exponent", "centre", "tag"},
                                  "One Gaussian prefactor * exp(-exponent |r - centre|^2) of a "
                                  "hermite.Gaussians, with its caller's tag.");

    py::class_<GaussianList>(m, "Gaussians", R"doc(
An immutable list of isotropic 3-D Gaussians prefactor * exp(-exponent |r - centre|^2): a
density such as the shape or the charge distribution of a molecule.

The values are stored in single precision, as the library stores them; the arrays returned by
``centres``, ``prefactors``, ``exponents`` and ``tags`` are double-precision copies.

Args:
    centres: (n, 3) centres in angstrom.
    prefactors: (n,) heights (any sign).
    exponents: (n,) exponents in 1/angstrom^2, greater than 0.
    tags: (n,) optional integer labels that do not enter any computation.

Without arguments the list is empty.
)doc")
        .def(py::init([](py::object centres, py::object prefactors, py::object exponents,
                         py::object tags) {
                 if (centres.is_none() && prefactors.is_none() && exponents.is_none()) {
                     return GaussianList();
                 }
                 return MakeGaussians(centres, prefactors, exponents, tags);
             }),
             py::arg("centres") = py::none(), py::arg("prefactors") = py::none(),
             py::arg("exponents") = py::none(), py::arg("tags") = py::none())
        .def_property_readonly("centres", &Centres, "(n, 3) array of the centres (a copy).")
        .def_property_readonly("prefactors", &Prefactors, "(n,) array of the prefactors (a copy).")
        .def_property_readonly("exponents", &Exponents, "(n,) array of the exponents (a copy).")
        .def_property_readonly("tags", &TagArray, "(n,) integer array of the tags (a copy).")
        .def("__len__", [](const GaussianList& l) { return l.items.size(); })
        .def(
            "__getitem__",
            [](const GaussianList& l, long long index) {
                const long long n = static_cast<long long>(l.items.size());
                if (index < -n || index >= n) {
                    throw py::index_error("Gaussian index out of range");
                }
                return Item(l.items[static_cast<std::size_t>(index < 0 ? index + n : index)]);
            },
            py::arg("index"), "The Gaussian at `index` as a hermite.Gaussian named tuple.")
        .def(
            "__getitem__",
            [](const GaussianList& l, const py::slice& slice) {
                std::size_t start = 0, stop = 0, step = 0, length = 0;
                if (!slice.compute(l.items.size(), &start, &stop, &step, &length)) {
                    throw py::error_already_set();
                }
                GaussianList part;
                for (std::size_t i = 0; i < length; ++i, start += step) {
                    part.items.push_back(l.items[start]);
                }
                return part;
            },
            py::arg("index"), "The Gaussians of a slice.")
        .def(
            "__iter__",
            [](const GaussianList& l) {
                py::list items;
                for (const QVGaussian& g : l.items) {
                    items.append(Item(g));
                }
                return py::iter(items);
            },
            "Iterates over hermite.Gaussian named tuples.")
        .def(
            "__add__",
            [](const GaussianList& a, const GaussianList& b) {
                GaussianList sum = a;
                sum.items.insert(sum.items.end(), b.items.begin(), b.items.end());
                return sum;
            },
            py::is_operator(), "The Gaussians of both lists, this one's first.")
        .def(
            "translated",
            [](const GaussianList& l, py::object translation) {
                const std::vector<double> t = Values(translation, "translation", 3, "x, y, z");
                GaussianList moved = l;
                float shift[3] = {static_cast<float>(t[0]), static_cast<float>(t[1]),
                                  static_cast<float>(t[2])};
                RunLibrary([&] { QVHermiteMath::QVTranslateGaussians(moved.items, shift); }, false);
                return moved;
            },
            py::arg("translation"),
            "A copy with every centre moved by the (3,) translation (single-precision sums).")
        .def(
            "rotated",
            [](const GaussianList& l, py::object matrix) {
                const std::vector<double> R = RotationMatrix(matrix, "matrix");
                GaussianList turned = l;
                RunLibrary([&] { QVHermiteMath::QVRotateGaussians(turned.items, R); }, false);
                return turned;
            },
            py::arg("matrix"),
            "A copy with every centre turned about the origin by the 3 x 3 rotation matrix "
            "(p -> R p).")
        .def(
            "copy", [](const GaussianList& l) { return l; }, "A copy of the list.")
        .def("__copy__", [](const GaussianList& l) { return l; })
        .def("__deepcopy__", [](const GaussianList& l, py::dict) { return l; })
        .def("__repr__", &GaussiansRepr)
        .def(py::pickle(
            [](const GaussianList& l) {
                return py::make_tuple(Centres(l), Prefactors(l), Exponents(l), TagArray(l));
            },
            [](py::tuple state) {
                if (state.size() != 4) {
                    throw py::value_error("invalid pickled Gaussians state");
                }
                return MakeGaussians(state[0], state[1], state[2], state[3]);
            }));

    m.def(
        "gaussians",
        [](py::object centres, py::object prefactors, py::object exponents, py::object tags) {
            return MakeGaussians(centres, prefactors, exponents, tags);
        },
        py::arg("centres"), py::arg("prefactors"), py::arg("exponents"),
        py::arg("tags") = py::none(), R"doc(
Gaussians prefactors[i] * exp(-exponents[i] |r - centres[i]|^2).

Args:
    centres: (n, 3) centres in angstrom.
    prefactors: (n,) heights.
    exponents: (n,) exponents in 1/angstrom^2, greater than 0.
    tags: optional (n,) integer labels.

Returns:
    hermite.Gaussians
)doc");

    m.def(
        "shape_gaussians",
        [](py::object coords) {
            const std::vector<double> xyz = Points(coords, "coords", true);
            RequireSinglePrecision(xyz, "coords");
            GaussianList list;
            list.items = RunLibrary([&] { return QVHermiteMath::makeShapeGaussians(xyz); }, false);
            return list;
        },
        py::arg("coords"), R"doc(
The shape density of points: one carbon-sized Gaussian 2.7 exp(-0.811151803 |r - p|^2) per
point (per atom, whatever its element).

Args:
    coords: (n, 3) points in angstrom.
)doc");

    m.def(
        "electrostatic_gaussians",
        [](py::object coords, py::object charges, double width) {
            const std::vector<double> xyz = Points(coords, "coords", true);
            const std::vector<double> q =
                Values(charges, "charges", xyz.size() / 3, "one per point");
            RequirePositive(width, "width");
            RequireSinglePrecision(xyz, "coords");
            GaussianList list;
            list.items = RunLibrary(
                [&] { return QVHermiteMath::makeElectrostaticGaussians(xyz, q, width); }, false);
            return list;
        },
        py::arg("coords"), py::arg("charges"), py::arg("width") = 1.0, R"doc(
The electrostatic density of point charges: q / (sqrt(2 pi) w) exp(-|r - p|^2 / (2 w^2)) per
point. Zero charges give zero-height Gaussians, which are kept.

Args:
    coords: (n, 3) points in angstrom.
    charges: (n,) partial charges in elementary charges.
    width: the width w in angstrom, greater than 0.
)doc");

    m.def(
        "exact_overlap",
        [](py::object a, py::object b) {
            const auto& first = GaussiansArgument(a, "a", true);
            const auto& second = GaussiansArgument(b, "b", true);
            return RunLibrary([&] { return QVHermiteMath::GaussianOverlap(first, second); });
        },
        py::arg("a"), py::arg("b"), R"doc(
The exact overlap integral of two Gaussian densities over all space: the sum over all pairs of
w_i w_j (pi / (a_i + a_j))^(3/2) exp(-a_i a_j / (a_i + a_j) |p_i - p_j|^2). Independent of any
expansion; with a == b the exact self-overlap, the limit of an expansion's self-overlap.
)doc");
}

}  // namespace hermite::python
