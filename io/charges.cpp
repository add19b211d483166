// Gasteiger and MMFF94 partial charges through RDKit, and united-atom folding of hydrogens.

#include "io/charges.h"

#include <GraphMol/ForceFieldHelpers/MMFF/AtomTyper.h>
#include <GraphMol/MolOps.h>
#include <GraphMol/PartialCharges/GasteigerCharges.h>
#include <GraphMol/RWMol.h>

#include <cmath>

#include "io/conformer_builder.h"

namespace hermite::io {

namespace {

/// Iterations of the Gasteiger-Marsili equalisation (RDKit's default).
const int GasteigerIterations = 12;

/// A copy of `molecule` whose hydrogens are all explicit atoms, appended after the original
/// atoms (whose indices are unchanged). Coordinates are not needed for charges.
RDKit::RWMol WithExplicitHydrogens(const RDKit::ROMol& molecule) {
    RDKit::RWMol copy(molecule);
    RDKit::MolOps::addHs(copy);
    return copy;
}

/// Charges of the atoms of `withHydrogens` per `model`, one per atom.
std::vector<double> ChargesOfAllAtoms(RDKit::RWMol& withHydrogens, ChargeModel model) {
    const unsigned int count = withHydrogens.getNumAtoms();
    std::vector<double> charges(count, 0.0);
    if (model == ChargeModel::Gasteiger) {
        RDKit::computeGasteigerCharges(withHydrogens, GasteigerIterations, false);
        for (unsigned int i = 0; i < count; ++i) {
            const RDKit::Atom* atom = withHydrogens.getAtomWithIdx(i);
            double hydrogenCharge = 0.0;
            atom->getPropIfPresent(RDKit::common_properties::_GasteigerHCharge, hydrogenCharge);
            charges[i] =
                atom->getProp<double>(RDKit::common_properties::_GasteigerCharge) + hydrogenCharge;
        }
        return charges;
    }
    RDKit::MMFF::MMFFMolProperties properties(withHydrogens);
    if (!properties.isValid()) {
        throw RecordError("MMFF94 charges could not be computed: MMFF94 atom typing failed");
    }
    for (unsigned int i = 0; i < count; ++i) {
        charges[i] = properties.getMMFFPartialCharge(i);
    }
    return charges;
}

/// The first heavy neighbour of the atom `index`, or -1.
int HeavyNeighbour(const RDKit::ROMol& molecule, unsigned int index) {
    for (const RDKit::Atom* neighbour : molecule.atomNeighbors(molecule.getAtomWithIdx(index))) {
        if (neighbour->getAtomicNum() > 1) {
            return static_cast<int>(neighbour->getIdx());
        }
    }
    return -1;
}

}  // namespace

std::vector<double> ComputeModelCharges(const RDKit::ROMol& molecule, ChargeModel model) {
    RDKit::RWMol withHydrogens = WithExplicitHydrogens(molecule);
    std::vector<double> all = ChargesOfAllAtoms(withHydrogens, model);
    const unsigned int count = molecule.getNumAtoms();
    std::vector<double> charges(all.begin(), all.begin() + count);
    for (unsigned int added = count; added < all.size(); ++added) {
        const int owner = HeavyNeighbour(withHydrogens, added);
        if (owner >= 0 && static_cast<unsigned int>(owner) < count) {
            charges[owner] += all[added];
        }
    }
    return charges;
}

void FoldHydrogenCharges(const RDKit::ROMol& molecule, std::vector<double>& charges) {
    for (const RDKit::Atom* atom : molecule.atoms()) {
        if (atom->getAtomicNum() == 1) {
            const int owner = HeavyNeighbour(molecule, atom->getIdx());
            if (owner >= 0) {
                charges[owner] += charges[atom->getIdx()];
            }
        }
    }
}

void RequireFiniteCharges(const std::vector<double>& charges,
                          const std::vector<unsigned int>& atoms) {
    for (unsigned int atom : atoms) {
        if (!std::isfinite(charges[atom])) {
            throw RecordError("partial charges could not be computed (NaN)");
        }
    }
}

}  // namespace hermite::io
