/// \file
/// Shared machinery of the Python bindings: routing of the library's error handler into Python
/// warnings and exceptions, the floating-point mode of computing threads, the checks that turn
/// bad arguments into ValueError, and conversions between numpy arrays and the library's types.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "hermite/hermite.h"
#include "overlay/colour.h"
#include "screen/library_messages.h"

namespace hermite::python {

namespace py = pybind11;

// =============================================================================================
// Errors and warnings

/// A fatal condition reported by the library through `QVSystem::QVThrow` (routed by the
/// screening engine's `MessageCapture`); Python sees it as `hermite.HermiteError`.
using LibraryError = screen::LibraryError;

/// The warnings reported by the library during one call of the module, from any of the threads
/// working for it. Thread-safe.
class Diagnostics {
public:
    void AddWarning(std::string text);
    /// The warnings in the order they arrived, each distinct text once.
    std::vector<std::string> TakeWarnings();

private:
    std::mutex mutex_;
    std::vector<std::string> warnings_;
};

/// While alive, the library's messages raised in the constructing thread go to `diagnostics`
/// (warnings, when the route ends) or are thrown as `LibraryError` (fatal errors); see
/// `screen::MessageCapture`, which routes them. Threads without a route (code outside the
/// module using the library at the same time) keep the handler they had.
class ThreadRoute {
public:
    explicit ThreadRoute(Diagnostics& diagnostics) : diagnostics_(diagnostics), capture_(raised_) {}
    ~ThreadRoute();
    ThreadRoute(const ThreadRoute&) = delete;
    ThreadRoute& operator=(const ThreadRoute&) = delete;

private:
    Diagnostics& diagnostics_;
    std::vector<std::string> raised_;
    screen::MessageCapture capture_;
};

/// While alive, the calling thread computes with flush-to-zero and denormals-are-zero, the
/// floating-point mode the library is written for (it switches it on in the thread that loads
/// it); the thread's own mode is restored afterwards. Every computation of the module runs
/// inside such a scope, in the calling thread and in worker threads alike, so that results do
/// not depend on the thread that computed them and the interpreter's own mode stays as Python
/// expects it.
class FloatingPointScope {
public:
    FloatingPointScope();
    ~FloatingPointScope();
    FloatingPointScope(const FloatingPointScope&) = delete;
    FloatingPointScope& operator=(const FloatingPointScope&) = delete;

private:
    unsigned int saved_;
};

/// Switches flush-to-zero and denormals-are-zero off in the calling thread (the module does this
/// once on import, undoing what loading the library did to the importing thread).
void RestoreDefaultFloatingPointMode();

/// Issues every collected warning as a `hermite.HermiteWarning` in the calling thread, which
/// must hold the GIL. Throws `py::error_already_set` when a warning filter turns one into an
/// exception.
void EmitWarnings(Diagnostics& diagnostics);

/// The Python class of `hermite.HermiteWarning` (set up by the module).
void SetWarningType(py::handle type);

/// Runs `work` (which must not touch Python objects) with the library's messages routed and in
/// the library's floating-point mode, the GIL released when `releaseGil` is true, then issues
/// the warnings it raised. A fatal error propagates as `LibraryError` after the warnings.
template <class Work>
auto RunLibrary(Work&& work, bool releaseGil = true) -> decltype(work()) {
    using Result = decltype(work());
    Diagnostics diagnostics;
    const auto body = [&]() -> Result {
        ThreadRoute route(diagnostics);
        FloatingPointScope mode;
        return work();
    };
    const auto run = [&]() -> Result {
        if (releaseGil) {
            py::gil_scoped_release release;
            return body();
        }
        return body();
    };
    try {
        if constexpr (std::is_void_v<Result>) {
            run();
            EmitWarnings(diagnostics);
        } else {
            Result result = run();
            EmitWarnings(diagnostics);
            return result;
        }
    } catch (const LibraryError&) {
        EmitWarnings(diagnostics);
        throw;
    }
}

// =============================================================================================
// Argument checks and conversions

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

// =============================================================================================
// Gaussians

/// A list of Gaussians, the Python class hermite.Gaussians.
struct GaussianList {
    std::vector<QVSystem::QVGaussian> items;
};

/// The Gaussians of a hermite.Gaussians argument; TypeError naming `name` for anything else,
/// ValueError when empty unless `allowEmpty`.
const std::vector<QVSystem::QVGaussian>& GaussiansArgument(py::handle object, const char* name,
                                                           bool allowEmpty = false);

// =============================================================================================
// Molecules

/// A molecule for overlays, the Python class hermite.Molecule: its atoms and its colour
/// (pharmacophore) features, in the same coordinates.
struct MoleculeObject {
    QVChem::QVMol mol;
    overlay::ColourFeatures features;
};

// =============================================================================================
// Binding entry points, one per topic

void BindOptions(py::module_& m);
void BindGaussians(py::module_& m);
void BindExpansion(py::module_& m);
void BindObjectives(py::module_& m);
void BindOverlay(py::module_& m);

}  // namespace hermite::python
