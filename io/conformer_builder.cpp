// Conformers from parsed RDKit molecules.

#include "io/conformer_builder.h"

#include <GraphMol/Conformer.h>
#include <GraphMol/MolOps.h>
#include <GraphMol/RWMol.h>
#include <GraphMol/SmilesParse/SmilesWrite.h>

#include <cmath>
#include <limits>

#include "io/charges.h"

namespace hermite::io {

namespace {

/// Above this many atoms, all z = 0 means a 2-D drawing (up to three points always lie in a
/// plane).
const unsigned int MaxPlanarAtoms = 3;
/// |z| below this counts as zero (molfile coordinates have four decimals).
const double ZeroZ = 1e-4;

/// Indices of the atoms that become the conformer's atoms: heavy atoms, and hydrogens if asked.
std::vector<unsigned int> SelectAtoms(const RDKit::ROMol& molecule, bool hydrogens) {
    std::vector<unsigned int> selected;
    for (const RDKit::Atom* atom : molecule.atoms()) {
        const int element = atom->getAtomicNum();
        if (element > 1 || (element == 1 && hydrogens)) {
            selected.push_back(atom->getIdx());
        }
    }
    return selected;
}

/// The charges of every atom of `molecule`, hydrogens folded in unless they are selected.
std::vector<double> AtomCharges(const RDKit::ROMol& molecule, const ReadOptions& options,
                                const InputChargeSource& inputCharges) {
    std::vector<double> charges = options.charges == ChargeModel::Input
                                      ? inputCharges()
                                      : ComputeModelCharges(molecule, options.charges);
    if (!options.hydrogens) {
        FoldHydrogenCharges(molecule, charges);
    }
    return charges;
}

/// `AtomCharges`, checked to be finite on the selected atoms. Unless charges are required, a
/// failure is noted instead of thrown and the charges concerned are NaN.
std::vector<double> CheckedAtomCharges(const RDKit::ROMol& molecule,
                                       const std::vector<unsigned int>& selected,
                                       const ReadOptions& options,
                                       const InputChargeSource& inputCharges,
                                       std::vector<std::string>& notes) {
    std::vector<double> charges;
    if (!options.computeCharges) {
        charges.resize(molecule.getNumAtoms(), std::numeric_limits<double>::quiet_NaN());
        return charges;
    }
    try {
        charges = AtomCharges(molecule, options, inputCharges);
        RequireFiniteCharges(charges, selected);
    } catch (const RecordError& error) {
        if (options.chargesRequired) {
            throw;
        }
        notes.push_back(std::string(error.what()) + "; kept with NaN charges");
        charges.resize(molecule.getNumAtoms(), std::numeric_limits<double>::quiet_NaN());
    }
    return charges;
}

/// The selected atoms of one RDKit conformer with their charges.
QVChem::QVMol MakeMol(const RDKit::ROMol& molecule, int conformerId,
                      const std::vector<unsigned int>& selected, const std::vector<double>& charges,
                      const std::string& title) {
    const RDKit::Conformer& conformer = molecule.getConformer(conformerId);
    QVChem::QVMol mol;
    mol.SetTitle(title);
    for (unsigned int index : selected) {
        const RDGeom::Point3D& position = conformer.getAtomPos(index);
        mol.AddAtom(static_cast<unsigned int>(molecule.getAtomWithIdx(index)->getAtomicNum()),
                    position.x, position.y, position.z, charges[index]);
    }
    return mol;
}

}  // namespace

Conformer ConformerAccess::Make(QVChem::QVMol mol, const RecordInfo& info,
                                std::vector<unsigned int> recordAtomIndices,
                                std::shared_ptr<const Conformer::RecordData> data) {
    Conformer conformer(std::move(mol));
    conformer.properties_ = info.properties;
    conformer.file_ = info.file;
    conformer.record_ = info.number;
    conformer.recordAtomIndices_ = std::move(recordAtomIndices);
    conformer.recordData_ = std::move(data);
    return conformer;
}

void Require3D(const RDKit::ROMol& molecule, int conformerId, DeclaredDimension declared) {
    // The program line is what the writing program knew: a planar 3-D structure is as 3-D as
    // any other, and a drawing stays a drawing even if a tool left z values in it.
    if (molecule.getNumConformers() == 0 || declared == DeclaredDimension::TwoD) {
        throw RecordError("molecule has no 3-D coordinates");
    }
    if (declared == DeclaredDimension::ThreeD) {
        return;
    }
    const RDKit::Conformer& conformer = molecule.getConformer(conformerId);
    bool allZeroZ = true;
    for (const RDGeom::Point3D& position : conformer.getPositions()) {
        allZeroZ = allZeroZ && std::fabs(position.z) < ZeroZ;
    }
    if (!conformer.is3D() || (molecule.getNumAtoms() > MaxPlanarAtoms && allZeroZ)) {
        throw RecordError("molecule has no 3-D coordinates");
    }
}

std::string ConstitutionKey(const RDKit::ROMol& molecule) {
    try {
        RDKit::RWMol graph;
        std::vector<int> index(molecule.getNumAtoms(), -1);
        for (const RDKit::Atom* atom : molecule.atoms()) {
            if (atom->getAtomicNum() == 1) {
                continue;
            }
            auto* copy = new RDKit::Atom(atom->getAtomicNum());
            copy->setNoImplicit(true);
            index[atom->getIdx()] = static_cast<int>(graph.addAtom(copy, false, true));
        }
        for (const RDKit::Bond* bond : molecule.bonds()) {
            const int begin = index[bond->getBeginAtomIdx()];
            const int end = index[bond->getEndAtomIdx()];
            if (begin >= 0 && end >= 0) {
                graph.addBond(static_cast<unsigned int>(begin), static_cast<unsigned int>(end),
                              RDKit::Bond::SINGLE);
            }
        }
        graph.updatePropertyCache(false);
        RDKit::MolOps::fastFindRings(graph);
        return RDKit::MolToSmiles(graph, false, false, -1, true);
    } catch (const std::exception&) {
        return std::string();
    }
}

std::vector<Conformer> BuildConformers(const std::shared_ptr<const RDKit::ROMol>& molecule,
                                       const std::vector<int>& conformerIds, const RecordInfo& info,
                                       const ReadOptions& options,
                                       const InputChargeSource& inputCharges,
                                       std::vector<std::string>& notes) {
    const std::vector<unsigned int> selected = SelectAtoms(*molecule, options.hydrogens);
    if (selected.empty()) {
        throw RecordError("molecule has no atoms");
    }
    const std::vector<double> charges =
        CheckedAtomCharges(*molecule, selected, options, inputCharges, notes);
    std::vector<Conformer> conformers;
    for (int conformerId : conformerIds) {
        auto data = std::make_shared<Conformer::RecordData>();
        data->molecule = molecule;
        data->conformerId = conformerId;
        conformers.push_back(
            ConformerAccess::Make(MakeMol(*molecule, conformerId, selected, charges, info.title),
                                  info, selected, std::move(data)));
    }
    return conformers;
}

// ---------------------------------------------------------------------------------------------
// Conformer

unsigned int Conformer::NumRecordAtoms() const {
    return recordData_ ? recordData_->molecule->getNumAtoms() : mol_.NumAtoms();
}

}  // namespace hermite::io
