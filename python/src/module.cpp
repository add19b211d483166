// The extension module hermite._hermite; the package hermite re-exports it.

#include "common.h"

namespace py = pybind11;

PYBIND11_MODULE(_hermite, m) {
    using namespace hermite::python;

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
