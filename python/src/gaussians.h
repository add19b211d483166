/// \file
/// hermite.Gaussians, the list of Gaussians the bindings of every topic take and return:
/// `GaussianList` behind the Python class and `GaussiansArgument`, which checks an argument
/// (bound in gaussians.cpp).
#pragma once

#include <pybind11/pybind11.h>

#include <vector>

#include "qv/gaussian.h"

namespace hermite::python {

namespace py = pybind11;

/// A list of Gaussians, the Python class hermite.Gaussians.
struct GaussianList {
    std::vector<QVSystem::QVGaussian> items;
};

/// The Gaussians of a hermite.Gaussians argument; TypeError naming `name` for anything else,
/// ValueError when empty unless `allowEmpty`.
const std::vector<QVSystem::QVGaussian>& GaussiansArgument(py::handle object, const char* name,
                                                           bool allowEmpty = false);

}  // namespace hermite::python
