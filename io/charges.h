/// \file
/// Partial charges of RDKit molecules (internal to hermite_io).
#pragma once

#include <vector>

#include <GraphMol/ROMol.h>

#include "io/molecule_io.h"

namespace hermite::io {

/// Gasteiger or MMFF94 charges of every atom of `molecule`, computed with all hydrogens
/// explicit; the charges of hydrogens the molecule leaves implicit are added to their heavy
/// atoms. Throws `RecordError` when MMFF94 typing fails. Non-finite values are returned as they
/// are (see `RequireFiniteCharges`).
std::vector<double> ComputeModelCharges(const RDKit::ROMol& molecule, ChargeModel model);

/// Adds each hydrogen's charge to the heavy atom it is bonded to (the hydrogen keeps its own;
/// it is simply not selected afterwards). Hydrogens without a heavy neighbour are left alone.
void FoldHydrogenCharges(const RDKit::ROMol& molecule, std::vector<double>& charges);

/// Throws `RecordError("partial charges could not be computed (NaN)")` if any of the charges
/// of the atoms in `atoms` is NaN or infinite.
void RequireFiniteCharges(const std::vector<double>& charges,
                          const std::vector<unsigned int>& atoms);

}  // namespace hermite::io
