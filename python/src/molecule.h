/// \file
/// hermite.Molecule, a molecule for overlays: `MoleculeObject` behind the Python class (bound in
/// overlay.cpp).
#pragma once

#include "overlay/colour.h"
#include "qv/chem.h"

namespace hermite::python {

/// A molecule for overlays, the Python class hermite.Molecule: its atoms and its colour
/// (pharmacophore) features, in the same coordinates.
struct MoleculeObject {
    QVChem::QVMol mol;
    overlay::ColourFeatures features;
};

}  // namespace hermite::python
