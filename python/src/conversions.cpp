// Argument checks and conversions between Python objects and the library's types.

#include "conversions.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <sstream>
#include <utility>

namespace hermite::python {

namespace {

[[noreturn]] void ValueError(const std::string& message) {
    throw py::value_error(message);
}

bool AllFinite(const std::vector<double>& values) {
    return std::all_of(values.begin(), values.end(), [](double v) { return std::isfinite(v); });
}

/// The first non-finite entry, described for a message ("NaN" or "infinite").
std::string NonFiniteText(const std::vector<double>& values) {
    for (double v : values) {
        if (std::isnan(v)) {
            return "NaN";
        }
        if (std::isinf(v)) {
            return "infinite";
        }
    }
    return "non-finite";
}

std::string Number(double value) {
    std::ostringstream out;
    out.precision(17);
    out << value;
    return out.str();
}

}  // namespace

py::array_t<double, py::array::c_style | py::array::forcecast> AsDoubleArray(py::handle object,
                                                                             const char* name) {
    using Array = py::array_t<double, py::array::c_style | py::array::forcecast>;
    if (object.is_none()) {
        throw py::type_error(std::string(name) + " must be an array of numbers, got None");
    }
    // Casting complex values to double keeps only their real parts; refuse them instead.
    bool complex = PyComplex_Check(object.ptr()) != 0;
    if (!complex) {
        const py::array any = py::array::ensure(object);
        if (any) {
            complex = any.dtype().kind() == 'c';
        } else {
            PyErr_Clear();  // not array-like: reported as a TypeError below
        }
    }
    if (complex) {
        ValueError(std::string(name) + " must be real, got complex values");
    }
    Array array = Array::ensure(object);
    if (!array) {
        PyErr_Clear();
        throw py::type_error(std::string(name) + " must be an array of numbers, got " +
                             std::string(py::str(py::type::handle_of(object).attr("__name__"))));
    }
    return array;
}

std::string ShapeText(const py::array& array) {
    std::ostringstream out;
    out << "(";
    for (py::ssize_t i = 0; i < array.ndim(); ++i) {
        out << (i > 0 ? ", " : "") << array.shape(i);
    }
    out << (array.ndim() == 1 ? ",)" : ")");
    return out.str();
}

std::vector<double> Points(py::handle object, const char* name, bool allowEmpty) {
    const auto array = AsDoubleArray(object, name);
    if (array.ndim() != 2 || array.shape(1) != 3) {
        ValueError(std::string(name) + " must have shape (n, 3), got " + ShapeText(array));
    }
    if (!allowEmpty && array.shape(0) == 0) {
        ValueError(std::string(name) + " must hold at least one point, got shape (0, 3)");
    }
    std::vector<double> values(array.data(), array.data() + array.size());
    if (!AllFinite(values)) {
        ValueError(std::string(name) + " must be finite, found a " + NonFiniteText(values) +
                   " value");
    }
    return values;
}

std::vector<double> Values(py::handle object, const char* name, std::optional<std::size_t> length,
                           const char* lengthMeaning) {
    const auto array = AsDoubleArray(object, name);
    if (array.ndim() != 1) {
        ValueError(std::string(name) + " must be one-dimensional, got shape " + ShapeText(array));
    }
    if (length && static_cast<std::size_t>(array.shape(0)) != *length) {
        ValueError(std::string(name) + " must have length " + std::to_string(*length) +
                   (*lengthMeaning ? std::string(" (") + lengthMeaning + ")" : std::string()) +
                   ", got " + std::to_string(array.shape(0)));
    }
    std::vector<double> values(array.data(), array.data() + array.size());
    if (!AllFinite(values)) {
        ValueError(std::string(name) + " must be finite, found a " + NonFiniteText(values) +
                   " value");
    }
    return values;
}

void RequirePositive(const std::vector<double>& values, const char* name) {
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (!(values[i] > 0.0) || !std::isfinite(values[i])) {
            ValueError(std::string(name) + " must be finite and greater than 0, got " +
                       Number(values[i]) + " at index " + std::to_string(i));
        }
    }
}

double RequirePositive(double value, const char* name) {
    if (!(value > 0.0) || !std::isfinite(value)) {
        ValueError(std::string(name) + " must be finite and greater than 0, got " + Number(value));
    }
    return value;
}

double RequireFinite(double value, const char* name) {
    if (!std::isfinite(value)) {
        ValueError(std::string(name) + " must be finite, got " + Number(value));
    }
    return value;
}

void RequireSinglePrecision(const std::vector<double>& values, const char* name) {
    const double largest = std::numeric_limits<float>::max();
    for (double v : values) {
        if (std::fabs(v) > largest) {
            ValueError(std::string(name) + " holds " + Number(v) +
                       ", too large for the single-precision Gaussian records");
        }
    }
}

unsigned int Order(long long order, const char* name) {
    if (order < 0 || order > 100) {
        ValueError(std::string(name) + " must lie in 0..100, got " + std::to_string(order));
    }
    return static_cast<unsigned int>(order);
}

unsigned int Order(py::handle order, const char* name) {
    return static_cast<unsigned int>(Integer(order, name, 0, 100));
}

py::int_ IntegerValue(py::handle object, const char* name) {
    if (PyFloat_Check(object.ptr()) || !PyIndex_Check(object.ptr())) {
        throw py::type_error(std::string(name) + " must be an integer, got " +
                             std::string(py::str(py::type::handle_of(object).attr("__name__"))));
    }
    PyObject* index = PyNumber_Index(object.ptr());
    if (index == nullptr) {
        throw py::error_already_set();
    }
    return py::reinterpret_steal<py::int_>(index);
}

namespace {

template <class Int>
Int CheckedInteger(py::handle object, const char* name, Int minimum, Int maximum) {
    const py::int_ value = IntegerValue(object, name);
    if (value < py::int_(minimum) || value > py::int_(maximum)) {
        ValueError(std::string(name) + " must lie in " + std::to_string(minimum) + ".." +
                   std::to_string(maximum) + ", got " + std::string(py::repr(value)));
    }
    return value.cast<Int>();
}

}  // namespace

long long Integer(py::handle object, const char* name, long long minimum, long long maximum) {
    return CheckedInteger<long long>(object, name, minimum, maximum);
}

std::uint64_t Unsigned(py::handle object, const char* name, std::uint64_t maximum) {
    return CheckedInteger<std::uint64_t>(object, name, 0, maximum);
}

std::string PathArgument(py::handle object, const char* name) {
    const py::module_ os = py::module_::import("os");
    py::object path;
    try {
        path = os.attr("fspath")(object);
    } catch (const py::error_already_set& error) {
        if (!error.matches(PyExc_TypeError)) {
            throw;
        }
        throw py::type_error(std::string(name) + " must be a str, bytes or os.PathLike, got " +
                             std::string(py::str(py::type::handle_of(object).attr("__name__"))));
    }
    const std::string bytes = py::bytes(os.attr("fsencode")(path));
    if (bytes.find('\0') != std::string::npos) {
        ValueError(std::string(name) + " must not contain NUL characters");
    }
    return bytes;
}

py::str Text(const std::string& bytes) {
    const auto size = static_cast<Py_ssize_t>(bytes.size());
    PyObject* text = PyUnicode_DecodeUTF8(bytes.data(), size, "strict");
    if (text == nullptr) {
        PyErr_Clear();
        text = PyUnicode_DecodeLatin1(bytes.data(), size, nullptr);  // cannot fail but for memory
        if (text == nullptr) {
            throw py::error_already_set();
        }
    }
    return py::reinterpret_steal<py::str>(text);
}

std::string Utf8(const std::string& bytes) {
    const py::str text = Text(bytes);
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(text.ptr(), &size);
    if (data == nullptr) {
        throw py::error_already_set();
    }
    return std::string(data, static_cast<std::size_t>(size));
}

void RequireFiniteResult(const std::vector<double>& values, const std::string& what,
                         const std::string& reason) {
    if (!AllFinite(values)) {
        ValueError(what + " is not finite (found a " + NonFiniteText(values) + " value); " +
                   reason);
    }
}

double RequireFiniteResult(double value, const std::string& what, const std::string& reason) {
    RequireFiniteResult(std::vector<double>{value}, what, reason);
    return value;
}

std::vector<double> RotationMatrix(py::handle object, const char* name) {
    const auto array = AsDoubleArray(object, name);
    if (array.ndim() != 2 || array.shape(0) != 3 || array.shape(1) != 3) {
        ValueError(std::string(name) + " must have shape (3, 3), got " + ShapeText(array));
    }
    std::vector<double> R(array.data(), array.data() + 9);
    if (!AllFinite(R)) {
        ValueError(std::string(name) + " must be finite, found a " + NonFiniteText(R) + " value");
    }
    double deviation = 0.0;
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            double dot = 0.0;
            for (int k = 0; k < 3; ++k) {
                dot += R[3 * i + k] * R[3 * j + k];
            }
            deviation = std::max(deviation, std::fabs(dot - (i == j ? 1.0 : 0.0)));
        }
    }
    const double determinant = R[0] * (R[4] * R[8] - R[5] * R[7]) -
                               R[1] * (R[3] * R[8] - R[5] * R[6]) +
                               R[2] * (R[3] * R[7] - R[4] * R[6]);
    if (deviation > 1e-6 || determinant <= 0.0) {
        ValueError(std::string(name) +
                   " must be a rotation matrix (orthonormal with determinant +1 within 1e-6)");
    }
    return R;
}

QVChem::QVTrans TransformMatrix(py::handle object, const char* name) {
    const auto array = AsDoubleArray(object, name);
    if (array.ndim() != 2 || array.shape(0) != 4 || array.shape(1) != 4) {
        ValueError(std::string(name) + " must be a 4 x 4 matrix, got shape " + ShapeText(array));
    }
    const double* a = array.data();
    std::vector<double> all(a, a + 16);
    if (!AllFinite(all)) {
        ValueError(std::string(name) + " must be finite, found a " + NonFiniteText(all) + " value");
    }
    if (a[12] != 0.0 || a[13] != 0.0 || a[14] != 0.0 || a[15] != 1.0) {
        ValueError(std::string(name) + " must have the last row (0, 0, 0, 1)");
    }
    const double block[9] = {a[0], a[1], a[2], a[4], a[5], a[6], a[8], a[9], a[10]};
    RotationMatrix(py::array_t<double>({3, 3}, block), name);
    const double translation[3] = {a[3], a[7], a[11]};
    return QVChem::QVTrans(block, translation);
}

py::array_t<double> TransformToArray(const QVChem::QVTrans& transform) {
    double R[9];
    double t[3];
    transform.Extract(R, t, true);
    std::vector<double> m = {R[0], R[1], R[2], t[0], R[3], R[4], R[5], t[1],
                             R[6], R[7], R[8], t[2], 0.0,  0.0,  0.0,  1.0};
    return ToArray(std::move(m), {4, 4});
}

std::vector<double> Lambdas(py::handle object, const char* name) {
    std::vector<double> lambdas;
    if (py::isinstance<py::float_>(object) || py::isinstance<py::int_>(object)) {
        const double value = object.cast<double>();
        lambdas.assign(3, value);
    } else {
        const auto array = AsDoubleArray(object, name);
        if (array.ndim() == 0) {
            lambdas.assign(3, *array.data());
        } else if (array.ndim() == 1 && array.shape(0) == 3) {
            lambdas.assign(array.data(), array.data() + 3);
        } else {
            ValueError(std::string(name) + " must be a number or three numbers, got shape " +
                       ShapeText(array));
        }
    }
    RequirePositive(lambdas, name);
    return lambdas;
}

py::array_t<double> ToArray(std::vector<double>&& values, std::vector<py::ssize_t> shape) {
    auto* owned = new std::vector<double>(std::move(values));
    py::capsule free(owned, [](void* p) { delete static_cast<std::vector<double>*>(p); });
    return py::array_t<double>(shape, owned->data(), free);
}

py::array_t<double> ToArray(std::vector<double>&& values) {
    const auto n = static_cast<py::ssize_t>(values.size());
    return ToArray(std::move(values), {n});
}

py::array_t<double> ReadOnlyView(const double* data, std::size_t count, py::handle owner) {
    py::array_t<double> view({static_cast<py::ssize_t>(count)}, {sizeof(double)}, data, owner);
    view.attr("setflags")(py::arg("write") = false);
    return view;
}

py::handle DefineRecord(py::module_& m, const char* name, const std::vector<const char*>& fields,
                        const char* doc) {
    py::list names;
    for (const char* field : fields) {
        names.append(field);
    }
    py::object type = py::module_::import("collections").attr("namedtuple")(name, names);
    type.attr("__module__") = "hermite";
    type.attr("__doc__") = doc;
    m.attr(name) = type;
    return type.release();
}

}  // namespace hermite::python
