// SD, MOL2 and SMILES records through RDKit's parsers; SMILES embedded with ETKDGv3.

#include "io/record_parsers.h"

#include <GraphMol/DistGeomHelpers/Embedder.h>
#include <GraphMol/FileParsers/FileParsers.h>
#include <GraphMol/MolOps.h>
#include <GraphMol/RWMol.h>
#include <GraphMol/SmilesParse/SmilesParse.h>

#include <algorithm>
#include <memory>

#include "io/conformer_builder.h"
#include "io/sd_data.h"

namespace hermite::io {

namespace {

using MoleculePointer = std::unique_ptr<RDKit::RWMol>;

/// Why SMILES cannot have `ChargeModel::Input` charges.
const char* const NoSmilesCharges = "SMILES have no input partial charges (use gasteiger or mmff)";

/// Runs an RDKit parser; a null result or an exception becomes a `RecordError` with `failure`
/// and RDKit's message.
template <typename Parser>
MoleculePointer ParseWithRDKit(Parser parse, const std::string& failure) {
    RDKit::RWMol* molecule = nullptr;
    try {
        molecule = parse();
    } catch (const std::exception& error) {
        throw RecordError(failure + ": " + error.what());
    }
    if (molecule == nullptr) {
        throw RecordError(failure);
    }
    return MoleculePointer(molecule);
}

/// The id of the molecule's only conformer; `Require3D` has checked that there is one.
int OnlyConformerId(const RDKit::ROMol& molecule) {
    return static_cast<int>(molecule.getConformer().getId());
}

RecordInfo InfoOf(const RawRecord& record, const std::string& file, SdProperties properties) {
    return RecordInfo{file, record.number, record.title, std::move(properties)};
}

void RequireAtoms(const RDKit::ROMol& molecule) {
    if (molecule.getNumAtoms() == 0) {
        throw RecordError("molecule has no atoms");
    }
}

/// Conformers of a parsed SD or MOL2 record with its single 3-D conformer.
ParsedRecord FromFileRecord(MoleculePointer parsed, const RecordInfo& info,
                            const ReadOptions& options, const InputChargeSource& inputCharges) {
    std::shared_ptr<const RDKit::ROMol> molecule(std::move(parsed));
    ParsedRecord record;
    record.conformers = BuildConformers(molecule, {OnlyConformerId(*molecule)}, info, options,
                                        inputCharges, record.notes);
    return record;
}

ParsedRecord ParseSdRecord(const RawRecord& record, const std::string& file,
                           const ReadOptions& options) {
    SdRecordParts parts = SplitSdRecord(record.text);
    MoleculePointer molecule =
        ParseWithRDKit([&] { return RDKit::MolBlockToMol(parts.molBlock, true, false); },
                       "RDKit could not parse the record");
    RequireAtoms(*molecule);
    Require3D(*molecule, -1);
    const unsigned int numAtoms = molecule->getNumAtoms();
    const InputChargeSource inputCharges = [&parts, numAtoms] {
        std::optional<std::vector<double>> charges =
            InputChargesFromSdProperties(parts.properties, numAtoms);
        if (!charges) {
            throw RecordError(
                "no input partial charges (need a data item atom.dprop.PartialCharge, "
                "PartialCharges or PUBCHEM_MMFF94_PARTIAL_CHARGES)");
        }
        return *charges;
    };
    const RecordInfo info = InfoOf(record, file, parts.properties);
    return FromFileRecord(std::move(molecule), info, options, inputCharges);
}

/// The MOL2 charges RDKit's parser stored on the atoms.
std::vector<double> Mol2Charges(const RDKit::ROMol& molecule) {
    std::vector<double> charges;
    for (const RDKit::Atom* atom : molecule.atoms()) {
        double charge = 0.0;
        if (!atom->getPropIfPresent("_TriposPartialCharge", charge)) {
            throw RecordError("no input partial charges in the MOL2 record");
        }
        charges.push_back(charge);
    }
    return charges;
}

ParsedRecord ParseMol2Record(const RawRecord& record, const std::string& file,
                             const ReadOptions& options) {
    MoleculePointer molecule =
        ParseWithRDKit([&] { return RDKit::Mol2BlockToMol(record.text, true, false); },
                       "RDKit could not parse the record");
    RequireAtoms(*molecule);
    Require3D(*molecule, -1);
    const RDKit::ROMol& parsed = *molecule;
    return FromFileRecord(std::move(molecule), InfoOf(record, file, {}), options,
                          [&parsed] { return Mol2Charges(parsed); });
}

/// Embeds `count` conformers of `molecule` (hydrogens explicit) with ETKDGv3 and `seed`;
/// returns the ids of those that could be embedded.
std::vector<int> EmbedConformers(RDKit::RWMol& molecule, unsigned int count, unsigned int seed) {
    RDKit::DGeomHelpers::EmbedParameters parameters = RDKit::DGeomHelpers::ETKDGv3;
    parameters.randomSeed = static_cast<int>(seed & 0x7fffffffu);
    parameters.numThreads = 1;
    try {
        return RDKit::DGeomHelpers::EmbedMultipleConfs(molecule, count, parameters);
    } catch (const std::exception& error) {
        throw RecordError(std::string("3-D embedding failed: ") + error.what());
    }
}

ParsedRecord ParseSmilesRecord(const RawRecord& record, const std::string& file,
                               const ReadOptions& options) {
    MoleculePointer molecule =
        ParseWithRDKit([&] { return RDKit::SmilesToMol(record.text); },
                       "RDKit could not parse the SMILES '" + record.text + "'");
    RequireAtoms(*molecule);
    if (options.charges == ChargeModel::Input && options.chargesRequired) {
        throw RecordError(NoSmilesCharges);  // before the costly embedding
    }
    const unsigned int wanted = std::max(1u, options.smilesConformers);
    RDKit::MolOps::addHs(*molecule);
    const std::vector<int> embedded = EmbedConformers(*molecule, wanted, options.seed);
    if (embedded.empty()) {
        throw RecordError("no 3-D conformer could be embedded (RDKit ETKDG)");
    }
    if (!options.hydrogens) {
        RDKit::MolOps::removeHs(*molecule);
    }
    std::shared_ptr<const RDKit::ROMol> shared(std::move(molecule));
    ParsedRecord parsed;
    parsed.conformers = BuildConformers(
        shared, embedded, InfoOf(record, file, {}), options,
        []() -> std::vector<double> { throw RecordError(NoSmilesCharges); }, parsed.notes);
    if (embedded.size() < wanted) {
        parsed.notes.push_back(std::to_string(wanted - embedded.size()) + " of " +
                               std::to_string(wanted) +
                               " conformers could not be embedded (RDKit ETKDG)");
    }
    return parsed;
}

}  // namespace

ParsedRecord ParseRecord(FileFormat format, const RawRecord& record, const std::string& file,
                         const ReadOptions& options) {
    switch (format) {
        case FileFormat::Sdf:
            return ParseSdRecord(record, file, options);
        case FileFormat::Mol2:
            return ParseMol2Record(record, file, options);
        case FileFormat::Smiles:
            return ParseSmilesRecord(record, file, options);
        case FileFormat::Unknown:
            break;
    }
    throw RecordError("unknown file format");
}

}  // namespace hermite::io
