// SD output: each conformer's record, moved to its pose, with its data items and extra tags.

#include <GraphMol/Conformer.h>
#include <GraphMol/FileParsers/FileParsers.h>
#include <GraphMol/MolOps.h>
#include <GraphMol/RWMol.h>

#include <stdexcept>
#include <utility>

#include "io/atomic_file.h"
#include "io/conformer_builder.h"
#include "io/molecule_io.h"
#include "io/sd_data.h"

namespace hermite::io {

namespace {

/// Unbonded atoms for a conformer that has no record behind it.
RDKit::RWMol AtomsOnly(const QVChem::QVMol& mol) {
    RDKit::RWMol molecule;
    auto conformer = new RDKit::Conformer(mol.NumAtoms());
    for (unsigned int i = 0; i < mol.NumAtoms(); ++i) {
        const QVChem::QVAtom& atom = mol.GetAtom(i);
        molecule.addAtom(new RDKit::Atom(static_cast<int>(atom.GetAtomicNumber())), true, true);
        double xyz[3];
        atom.GetCoords(xyz);
        conformer->setAtomPos(i, RDGeom::Point3D(xyz[0], xyz[1], xyz[2]));
    }
    conformer->set3D(true);
    molecule.addConformer(conformer, true);
    return molecule;
}

/// A copy of the conformer's record (or its atoms) with only its coordinates. Its
/// stereochemistry is the one of these coordinates: records read from 3-D files have it
/// already, while conformers embedded from a SMILES that leaves a centre open get the
/// configuration the embedding chose, so that a record is written the same whether it comes
/// from its source or from a prepared library.
RDKit::RWMol RecordCopy(const Conformer& conformer) {
    const Conformer::RecordData* data = ConformerAccess::Data(conformer);
    if (data == nullptr) {
        return AtomsOnly(conformer.Mol());
    }
    RDKit::RWMol copy(*data->molecule, false, data->conformerId);
    if (copy.getConformer().is3D()) {
        copy.updatePropertyCache(false);
        RDKit::MolOps::assignChiralTypesFrom3D(copy, copy.getConformer().getId(), true);
        RDKit::MolOps::assignStereochemistry(copy, true, true);
    }
    return copy;
}

/// Moves every atom of the molecule's conformer by `pose`.
void ApplyPose(RDKit::RWMol& molecule, const QVChem::QVTrans& pose) {
    for (RDGeom::Point3D& position : molecule.getConformer().getPositions()) {
        double xyz[3] = {position.x, position.y, position.z};
        pose.Apply(xyz);
        position = RDGeom::Point3D(xyz[0], xyz[1], xyz[2]);
    }
    molecule.getConformer().set3D(true);
}

/// `molBlock` with its third line (the free comment line, which RDKit's writer leaves empty)
/// replaced by the comment of the input record, if it had one.
std::string WithInputComment(std::string molBlock, const RDKit::ROMol& molecule) {
    std::string comment;
    if (!molecule.getPropIfPresent("_MolFileComments", comment) ||
        comment.find('\n') != std::string::npos) {
        return molBlock;
    }
    const std::size_t secondLineEnd = molBlock.find('\n', molBlock.find('\n') + 1);
    const std::size_t thirdLineEnd = molBlock.find('\n', secondLineEnd + 1);
    if (thirdLineEnd == std::string::npos) {
        return molBlock;
    }
    return molBlock.replace(secondLineEnd + 1, thirdLineEnd - secondLineEnd - 1, comment);
}

/// The molfile of `molecule`, kekulised when RDKit can, else with aromatic bonds.
std::string MolBlock(const RDKit::RWMol& molecule) {
    std::string molBlock;
    try {
        molBlock = RDKit::MolToMolBlock(molecule, true, -1, true);
    } catch (const std::exception&) {
        molBlock = RDKit::MolToMolBlock(molecule, true, -1, false);
    }
    return WithInputComment(std::move(molBlock), molecule);
}

}  // namespace

std::string FormatPosedMolBlock(const Conformer& conformer, const QVChem::QVTrans& pose) {
    try {
        RDKit::RWMol molecule = RecordCopy(conformer);
        ApplyPose(molecule, pose);
        molecule.setProp(RDKit::common_properties::_Name, conformer.Title());
        return MolBlock(molecule);
    } catch (const std::exception& error) {
        throw std::runtime_error("RDKit could not write the molecule: " +
                                 std::string(error.what()));
    }
}

std::string FormatSdRecord(const std::string& molBlock, const SdProperties& properties,
                           const SdProperties& extraTags) {
    return molBlock + FormatSdProperties(MergeSdProperties(properties, extraTags)) + "$$$$\n";
}

std::string FormatSdRecord(const Conformer& conformer, const QVChem::QVTrans& pose,
                           const SdProperties& extraTags) {
    return FormatSdRecord(FormatPosedMolBlock(conformer, pose), conformer.Properties(), extraTags);
}

// ---------------------------------------------------------------------------------------------
// SdfWriter

struct SdfWriter::State {
    AtomicFile file;
    std::string error;
};

SdfWriter::SdfWriter(const std::string& path) : state_(std::make_unique<State>()) {
    if (!state_->file.Open(path)) {
        state_->error = state_->file.Error();
    }
}

SdfWriter::~SdfWriter() = default;

bool SdfWriter::Write(const Conformer& conformer, const QVChem::QVTrans& pose,
                      const SdProperties& extraTags) {
    std::string record;
    try {
        record = FormatSdRecord(conformer, pose, extraTags);
    } catch (const std::exception& error) {
        state_->error = state_->file.Path() + ": " + conformer.Title() + ": " + error.what();
        return false;
    }
    return Append(record);
}

bool SdfWriter::Write(const std::string& molBlock, const SdProperties& properties,
                      const SdProperties& extraTags) {
    return Append(FormatSdRecord(molBlock, properties, extraTags));
}

bool SdfWriter::Append(const std::string& record) {
    if (!state_->file.Append(record)) {
        state_->error = state_->file.Error();
        return false;
    }
    ++recordsWritten_;
    return true;
}

bool SdfWriter::Commit() {
    if (!state_->file.Commit()) {
        state_->error = state_->file.Error();
        return false;
    }
    return true;
}

bool SdfWriter::Ok() const {
    return state_->file.Ok();
}

const std::string& SdfWriter::Error() const {
    return state_->error;
}

}  // namespace hermite::io
