/// \file
/// The binding entry points, one per topic, that module.cpp calls to fill the extension module
/// hermite._hermite.
#pragma once

#include <pybind11/pybind11.h>

namespace hermite::python {

namespace py = pybind11;

void BindOptions(py::module_& m);
void BindGaussians(py::module_& m);
void BindExpansion(py::module_& m);
void BindObjectives(py::module_& m);
void BindOverlay(py::module_& m);

}  // namespace hermite::python
