/// \file
/// The real ligands of the overlay tests: the 47 CDK2 inhibitors shipped in Debian's rdkit-data.
#pragma once

#include <vector>

#include "io/molecule_io.h"

namespace hermite_test {

inline constexpr const char* kCdk2Path = "/usr/share/RDKit/Contrib/Fastcluster/testdata/cdk2.sdf";

/// The first conformer of every CDK2 ligand in file order: heavy atoms with Gasteiger charges
/// (the reader's defaults), read once.
inline const std::vector<QVChem::QVMol>& Cdk2Ligands() {
    static const std::vector<QVChem::QVMol> ligands = [] {
        std::vector<QVChem::QVMol> mols;
        for (const hermite::io::Molecule& molecule : hermite::io::ReadAll(kCdk2Path)) {
            mols.push_back(molecule.conformers.front().Mol());
        }
        return mols;
    }();
    return ligands;
}

}  // namespace hermite_test
