// The extension module hermite._hermite; the package hermite re-exports it.

#include "bindings.h"
#include "conversions.h"
#include "library_calls.h"

namespace py = pybind11;

namespace {

/// Refuses to load beside NumPy 2 when built with a pybind11 older than 2.12, which reads
/// NumPy 2's arrays with NumPy 1's layout and would give wrong numbers without an error.
void RequireSupportedNumpy() {
#if PYBIND11_VERSION_MAJOR < 2 || (PYBIND11_VERSION_MAJOR == 2 && PYBIND11_VERSION_MINOR < 12)
    const std::string version =
        py::module_::import("numpy").attr("__version__").cast<std::string>();
    if (!version.empty() && version.front() != '0' && version.front() != '1') {
        throw py::import_error("hermite was built with pybind11 " PYBIND11_TOSTRING(
            PYBIND11_VERSION_MAJOR) "." PYBIND11_TOSTRING(PYBIND11_VERSION_MINOR) ", which does "
            "not support NumPy " + version + "; build it with pybind11 2.12 or later (pip "
            "install . does) or use NumPy 1");
    }
#endif
}

}  // namespace

PYBIND11_MODULE(_hermite, m) {
    using namespace hermite::python;

    RequireSupportedNumpy();

    // Loading the library switched the importing thread to flush-to-zero and
    // denormals-are-zero; the module computes in that mode inside its own calls only and leaves
    // the interpreter (and numpy) with IEEE semantics.
    RestoreDefaultFloatingPointMode();

    m.doc() =
        "Compiled core of the hermite package: 3-D Hermite expansions of Gaussian "
        "densities, shape overlays and scores.";

    auto& error = py::register_exception<LibraryError>(m, "HermiteError", PyExc_RuntimeError);
    error.attr("__module__") = "hermite";
    error.attr("__doc__") =
        "A fatal condition reported by the hermite library (the call was abandoned).";
    // Messages may quote titles from files that are not UTF-8; PyErr_SetString would fail on
    // them and report a UnicodeDecodeError instead. Translators registered later are tried
    // first, so this one replaces the plain translation of register_exception.
    static PyObject* errorType = error.ptr();
    py::register_exception_translator([](std::exception_ptr raised) {
        try {
            if (raised) {
                std::rethrow_exception(raised);
            }
        } catch (const LibraryError& e) {
            PyErr_SetString(errorType, Utf8(e.what()).c_str());
        }
    });

    py::object warning = py::reinterpret_steal<py::object>(PyErr_NewExceptionWithDoc(
        "hermite.HermiteWarning", "A warning reported by the hermite library.",
        PyExc_RuntimeWarning, nullptr));
    if (!warning) {
        throw py::error_already_set();
    }
    m.attr("HermiteWarning") = warning;
    SetWarningType(warning.release());

    BindOptions(m);
    BindGaussians(m);
    BindExpansion(m);
    BindObjectives(m);
    BindOverlay(m);
}
