// SD, MOL2 and SMILES records through RDKit's parsers; SMILES embedded with ETKDGv3 (optionally
// minimised with MMFF94), under a time limit and a cancellation flag.

#include "io/record_parsers.h"

#include <ForceField/ForceField.h>
#include <GraphMol/DistGeomHelpers/Embedder.h>
#include <GraphMol/FileParsers/FileParsers.h>
#include <GraphMol/ForceFieldHelpers/MMFF/AtomTyper.h>
#include <GraphMol/ForceFieldHelpers/MMFF/Builder.h>
#include <GraphMol/MolOps.h>
#include <GraphMol/RWMol.h>
#include <GraphMol/SmilesParse/SmilesParse.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "io/conformer_builder.h"
#include "io/mol2_check.h"
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

/// The dimension code of a molfile's program line (its second line), columns 21-22.
DeclaredDimension MolfileDimension(const std::string& molBlock) {
    const std::size_t start = molBlock.find('\n');
    if (start == std::string::npos) {
        return DeclaredDimension::None;
    }
    const std::size_t end = molBlock.find('\n', start + 1);
    const std::string line =
        molBlock.substr(start + 1, end == std::string::npos ? std::string::npos : end - start - 1);
    if (line.size() < 22 || (line[21] != 'D' && line[21] != 'd')) {
        return DeclaredDimension::None;
    }
    if (line[20] == '2') {
        return DeclaredDimension::TwoD;
    }
    return line[20] == '3' ? DeclaredDimension::ThreeD : DeclaredDimension::None;
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
    Require3D(*molecule, -1, MolfileDimension(parts.molBlock));
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
    CheckMol2Record(record.text);
    MoleculePointer molecule =
        ParseWithRDKit([&] { return RDKit::Mol2BlockToMol(record.text, true, false); },
                       "RDKit could not parse the record");
    RequireAtoms(*molecule);
    Require3D(*molecule, -1);
    const RDKit::ROMol& parsed = *molecule;
    return FromFileRecord(std::move(molecule), InfoOf(record, file, {}), options,
                          [&parsed] { return Mol2Charges(parsed); });
}

/// The limits of the conformer generation running in this thread: RDKit's embedder calls
/// `CheckEmbedding` between its attempts, and a plain function pointer cannot carry state.
struct EmbeddingLimits {
    const std::atomic<bool>* cancel = nullptr;
    std::chrono::steady_clock::time_point deadline = std::chrono::steady_clock::time_point::max();
};
thread_local EmbeddingLimits embeddingLimits;

/// Thrown through RDKit's embedder to stop it; caught in `EmbedConformers`. The embedder keeps
/// the coordinates of the attempt in progress in raw pointers, so each stop leaks those few
/// bytes; there is no other way to interrupt it.
struct EmbeddingStopped {
    std::string reason;
};

/// Throws `EmbeddingStopped` when the run was cancelled or the record's time is up.
void CheckEmbedding(unsigned int /*attempt*/ = 0) {
    const EmbeddingLimits& limits = embeddingLimits;
    if (limits.cancel != nullptr && limits.cancel->load(std::memory_order_relaxed)) {
        throw EmbeddingStopped{"interrupted"};
    }
    if (std::chrono::steady_clock::now() > limits.deadline) {
        throw EmbeddingStopped{"conformer generation took longer than the time limit"};
    }
}

/// Sets the limits of this thread's conformer generation for the lifetime of the object.
class EmbeddingScope {
public:
    explicit EmbeddingScope(const ReadOptions& options) {
        embeddingLimits.cancel = options.cancel;
        if (options.conformerTimeLimit > 0.0) {
            embeddingLimits.deadline =
                std::chrono::steady_clock::now() +
                std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                    std::chrono::duration<double>(options.conformerTimeLimit));
        }
    }
    ~EmbeddingScope() { embeddingLimits = EmbeddingLimits(); }
    EmbeddingScope(const EmbeddingScope&) = delete;
    EmbeddingScope& operator=(const EmbeddingScope&) = delete;
};

/// Embeds `count` conformers of `molecule` (hydrogens explicit) with ETKDGv3 and `seed`,
/// pruned by `options.pruneRms`; returns the ids of those that could be embedded.
std::vector<int> EmbedConformers(RDKit::RWMol& molecule, unsigned int count, unsigned int seed,
                                 const ReadOptions& options) {
    RDKit::DGeomHelpers::EmbedParameters parameters = RDKit::DGeomHelpers::ETKDGv3;
    parameters.randomSeed = static_cast<int>(seed & 0x7fffffffu);
    parameters.numThreads = 1;
    parameters.pruneRmsThresh = options.pruneRms > 0.0 ? options.pruneRms : -1.0;
    parameters.callback = &CheckEmbedding;
    try {
        return RDKit::DGeomHelpers::EmbedMultipleConfs(molecule, count, parameters);
    } catch (const EmbeddingStopped& stopped) {
        throw RecordError(stopped.reason);
    } catch (const std::exception& error) {
        throw RecordError(std::string("3-D embedding failed: ") + error.what());
    }
}

/// Minimises every conformer of `molecule` with MMFF94 (at most 200 iterations each), checking
/// the limits between conformers. Returns a note when MMFF94 cannot type the molecule.
std::string MinimizeConformers(RDKit::RWMol& molecule, const std::vector<int>& conformerIds) {
    RDKit::MMFF::MMFFMolProperties properties(molecule);
    if (!properties.isValid()) {
        return "not minimised: MMFF94 atom typing failed";
    }
    for (int conformerId : conformerIds) {
        try {
            CheckEmbedding();
        } catch (const EmbeddingStopped& stopped) {
            throw RecordError(stopped.reason);
        }
        std::unique_ptr<ForceFields::ForceField> field(
            RDKit::MMFF::constructForceField(molecule, &properties, 100.0, conformerId));
        field->initialize();
        field->minimize(200);
    }
    return "";
}

ParsedRecord ParseSmilesRecord(const RawRecord& record, const std::string& file,
                               const ReadOptions& options) {
    MoleculePointer molecule =
        ParseWithRDKit([&] { return RDKit::SmilesToMol(record.text); },
                       "RDKit could not parse the SMILES '" + record.text + "'");
    RequireAtoms(*molecule);
    if (options.charges == ChargeModel::Input && options.chargesRequired &&
        options.computeCharges) {
        throw RecordError(NoSmilesCharges);  // before the costly embedding
    }
    const unsigned int wanted = std::max(1u, options.smilesConformers);
    RDKit::MolOps::addHs(*molecule);
    const EmbeddingScope limits(options);
    const std::vector<int> embedded =
        EmbedConformers(*molecule, wanted, RecordSeed(options.seed, record.number), options);
    if (embedded.empty()) {
        throw RecordError("no 3-D conformer could be embedded (RDKit ETKDG)");
    }
    ParsedRecord parsed;
    if (options.minimize) {
        const std::string note = MinimizeConformers(*molecule, embedded);
        if (!note.empty()) {
            parsed.notes.push_back(note);
        }
    }
    // The hydrogens stay in the record (written hits carry them); the atom selection decides
    // whether they belong to the density.
    std::shared_ptr<const RDKit::ROMol> shared(std::move(molecule));
    parsed.conformers = BuildConformers(
        shared, embedded, InfoOf(record, file, {}), options,
        []() -> std::vector<double> { throw RecordError(NoSmilesCharges); }, parsed.notes);
    if (embedded.size() < wanted && options.pruneRms <= 0.0) {
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
