/// \file
/// Arguments and results of the bindings: the checks that turn bad arguments into TypeError or
/// ValueError, and the conversions between Python objects (numpy arrays, integers, paths, text)
/// and the library's types.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qv/chem.h"

namespace hermite::python {

namespace py = pybind11;

/// A C-contiguous double array made from any array-like; TypeError naming `name` when it is not
/// numeric, ValueError when it is complex (numpy would drop the imaginary parts with no more
/// than a ComplexWarning).
py::array_t<double, py::array::c_style | py::array::forcecast> AsDoubleArray(py::handle object,
                                                                             const char* name);

/// "(2, 3)": a shape for messages.
std::string ShapeText(const py::array& array);

/// Points as an (n, 3) array, returned flat (x0, y0, z0, x1, ...). ValueError for another shape
/// or non-finite values; with `allowEmpty` false also for n = 0.
std::vector<double> Points(py::handle object, const char* name, bool allowEmpty = false);

/// A one-dimensional array of finite values; when `length` is given it must have that length
/// (`lengthMeaning` explains it in the message, e.g. "one per atom").
std::vector<double> Values(py::handle object, const char* name,
                           std::optional<std::size_t> length = std::nullopt,
                           const char* lengthMeaning = "");

/// ValueError unless every value is finite and greater than zero.
void RequirePositive(const std::vector<double>& values, const char* name);
/// ValueError unless the scalar is finite and greater than zero.
double RequirePositive(double value, const char* name);
/// ValueError unless the scalar is finite.
double RequireFinite(double value, const char* name);

/// ValueError unless the values survive narrowing to single precision (the library's Gaussian
/// records are single precision).
void RequireSinglePrecision(const std::vector<double>& values, const char* name);

/// An expansion order checked to lie in 0..100.
unsigned int Order(long long order, const char* name = "order");
/// The same for a Python object: an integer (anything with __index__) in 0..100.
unsigned int Order(py::handle order, const char* name = "order");

/// A Python integer (int, numpy integer, anything with __index__) checked to lie in
/// minimum..maximum. Integers of any size are compared exactly, so that -1 or 2**64 give a
/// ValueError naming `name` and the range rather than the opaque TypeError of a failed
/// conversion to a C++ integer. TypeError for non-integers (floats included).
long long Integer(py::handle object, const char* name, long long minimum, long long maximum);
/// The value of a Python integer of any size (operator.index); TypeError naming `name` for
/// anything else, floats included.
py::int_ IntegerValue(py::handle object, const char* name);
/// The same for the unsigned 64-bit range 0..maximum.
std::uint64_t Unsigned(py::handle object, const char* name, std::uint64_t maximum);

/// A file path from str, bytes or os.PathLike (os.fspath), as the bytes the operating system
/// sees (os.fsencode, so names that are not valid UTF-8 work too); TypeError for anything else.
std::string PathArgument(py::handle object, const char* name);

/// Text from the library (titles, messages) as a Python str. Files are not always UTF-8: bytes
/// that do not decode as UTF-8 are taken as Latin-1, the whole string at once, so that every
/// title converts and a Latin-1 title reads as intended.
py::str Text(const std::string& bytes);
/// The same text re-encoded as UTF-8, for the C-string APIs of Python (warnings, exception
/// messages), which decode strictly. Needs the GIL.
std::string Utf8(const std::string& bytes);

/// ValueError unless every value of a result is finite: "<what> is not finite (found a NaN
/// value); <reason>". The library's numerics are left as they are, but a NaN or an infinity
/// must not reach Python looking like an answer; `reason` tells which inputs lead there.
void RequireFiniteResult(const std::vector<double>& values, const std::string& what,
                         const std::string& reason);
double RequireFiniteResult(double value, const std::string& what, const std::string& reason);

/// A 3 x 3 rotation matrix, row-major; ValueError unless it is finite, orthonormal and of
/// determinant +1 (within 1e-6).
std::vector<double> RotationMatrix(py::handle object, const char* name);

/// A rigid transform given as a 4 x 4 homogeneous matrix [[R, t], [0, 0, 0, 1]].
QVChem::QVTrans TransformMatrix(py::handle object, const char* name);

/// The 4 x 4 homogeneous matrix of a transform.
py::array_t<double> TransformToArray(const QVChem::QVTrans& transform);

/// Lambdas from a scalar (the same for all three axes) or three values; all finite and > 0.
std::vector<double> Lambdas(py::handle object, const char* name);

/// A new numpy array that takes over `values` (no copy), with the given shape (C order).
py::array_t<double> ToArray(std::vector<double>&& values, std::vector<py::ssize_t> shape);
py::array_t<double> ToArray(std::vector<double>&& values);

/// A read-only numpy view of `count` doubles at `data`, kept alive by `owner`.
py::array_t<double> ReadOnlyView(const double* data, std::size_t count, py::handle owner);

/// Defines a named-tuple class `name` with `fields` in the module (collections.namedtuple, shown
/// as hermite.<name>) and returns it; the class lives as long as the process.
py::handle DefineRecord(py::module_& m, const char* name, const std::vector<const char*>& fields,
                        const char* doc);

}  // namespace hermite::python
