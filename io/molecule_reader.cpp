// The molecule reader: records grouped into molecules, problems collected, counters kept.

#include <RDGeneral/RDLog.h>

#include <algorithm>
#include <cctype>

#include "io/conformer_builder.h"
#include "io/molecule_io.h"
#include "io/record_parsers.h"
#include "io/record_source.h"
#include "io/text_source.h"

namespace hermite::io {

namespace {

std::string Lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool EndsWith(const std::string& text, const std::string& suffix) {
    return text.size() >= suffix.size() &&
           text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

/// The extension of the file name in `path` ("" if none), lower case, after removing ".gz".
std::string Extension(const std::string& path) {
    std::string name = Lowercase(path.substr(path.find_last_of('/') + 1));
    if (EndsWith(name, ".gz")) {
        name.resize(name.size() - 3);
    }
    const std::size_t dot = name.find_last_of('.');
    return dot == std::string::npos ? std::string() : name.substr(dot + 1);
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Options, formats and problems

std::optional<ChargeModel> ParseChargeModel(std::string_view text) {
    if (text == "gasteiger") {
        return ChargeModel::Gasteiger;
    }
    if (text == "mmff" || text == "mmff94") {
        return ChargeModel::MMFF94;
    }
    if (text == "input") {
        return ChargeModel::Input;
    }
    return std::nullopt;
}

const char* ChargeModelName(ChargeModel model) {
    switch (model) {
        case ChargeModel::Gasteiger:
            return "gasteiger";
        case ChargeModel::MMFF94:
            return "mmff";
        case ChargeModel::Input:
            return "input";
    }
    return "unknown";
}

FileFormat FormatFromPath(const std::string& path) {
    const std::string extension = Extension(path);
    if (extension == "sdf" || extension == "sd" || extension == "mol") {
        return FileFormat::Sdf;
    }
    if (extension == "mol2") {
        return FileFormat::Mol2;
    }
    if (extension == "smi" || extension == "smiles") {
        return FileFormat::Smiles;
    }
    return FileFormat::Unknown;
}

std::string Problem::Message() const {
    std::string message = file;
    if (record > 0) {
        message += ", record " + std::to_string(record);
        if (!title.empty()) {
            message += " (" + title + ")";
        }
    }
    return message + ": " + reason;
}

void SetRDKitLogging(bool enabled) {
    if (enabled) {
        if (rdErrorLog == nullptr) {
            RDLog::InitLogs();  // RDKit's C++ loggers do not exist until initialised
        }
        boost::logging::enable_logs("rdApp.*");
    } else {
        boost::logging::disable_logs("rdApp.*");
    }
}

// ---------------------------------------------------------------------------------------------
// MoleculeReader

struct MoleculeReader::State {
    State(const std::string& path, const ReadOptions& options)
        : path(path), options(options), format(FormatFromPath(path)), text(path) {}

    /// Records a problem of the whole file.
    void FileProblem(const std::string& reason) { problems.push_back({path, 0, "", reason, true}); }

    /// Reads and parses the next record into `record` and `conformers` (empty when the record
    /// is skipped), recording its problems. False at the end of the file.
    bool ReadRecord(RawRecord& record, std::vector<Conformer>& conformers);

    /// Makes `pending` a new molecule titled like `record`; returns the previous one if it has
    /// conformers.
    bool StartMolecule(const RawRecord& record, std::vector<Conformer> conformers,
                       Molecule& finished);

    /// Hands `molecule` out through `out` and counts it.
    bool Deliver(Molecule& molecule, Molecule& out);

    std::string path;
    ReadOptions options;
    FileFormat format;
    TextSource text;
    std::unique_ptr<RecordSource> records;
    std::vector<Problem> problems;
    Molecule pending;
    bool hasPending = false;
    bool finished = false;
    unsigned long recordsRead = 0;
    unsigned long recordsSkipped = 0;
    unsigned long moleculesReturned = 0;
    unsigned long conformersReturned = 0;
};

bool MoleculeReader::State::ReadRecord(RawRecord& record, std::vector<Conformer>& conformers) {
    conformers.clear();
    if (!records->Next(record)) {
        if (!records->Error().empty()) {
            FileProblem(records->Error());
        }
        return false;
    }
    ++recordsRead;
    try {
        ParsedRecord parsed = ParseRecord(format, record, path, options);
        conformers = std::move(parsed.conformers);
        for (const std::string& note : parsed.notes) {
            problems.push_back({path, record.number, record.title, note, false});
        }
    } catch (const std::exception& error) {
        problems.push_back({path, record.number, record.title, error.what(), true});
        ++recordsSkipped;
    } catch (...) {
        problems.push_back({path, record.number, record.title, "unexpected error", true});
        ++recordsSkipped;
    }
    return true;
}

bool MoleculeReader::State::StartMolecule(const RawRecord& record,
                                          std::vector<Conformer> conformers, Molecule& finished) {
    const bool hadMolecule = hasPending && !pending.conformers.empty();
    if (hadMolecule) {
        finished = std::move(pending);
    }
    pending = Molecule{record.title, std::move(conformers)};
    hasPending = true;
    return hadMolecule;
}

bool MoleculeReader::State::Deliver(Molecule& molecule, Molecule& out) {
    ++moleculesReturned;
    conformersReturned += molecule.conformers.size();
    out = std::move(molecule);
    molecule = Molecule();
    return true;
}

MoleculeReader::MoleculeReader(const std::string& path, const ReadOptions& options)
    : state_(std::make_unique<State>(path, options)) {
    if (!state_->text.Ok()) {
        state_->FileProblem(state_->text.Error());
    } else if (state_->format == FileFormat::Unknown) {
        state_->FileProblem(
            "unknown file extension (expected .sdf, .sd, .mol, .mol2, .smi or "
            ".smiles, optionally followed by .gz)");
    } else {
        state_->records = MakeRecordSource(state_->format, state_->text);
    }
}

MoleculeReader::~MoleculeReader() = default;
MoleculeReader::MoleculeReader(MoleculeReader&&) noexcept = default;
MoleculeReader& MoleculeReader::operator=(MoleculeReader&&) noexcept = default;

bool MoleculeReader::Ok() const {
    return state_ != nullptr && state_->records != nullptr;
}

bool MoleculeReader::Next(Molecule& out) {
    State& state = *state_;
    if (!Ok() || state.finished) {
        return false;
    }
    // SD records join the pending molecule while their title repeats; other formats give one
    // molecule per record.
    const bool groupByTitle = state.format == FileFormat::Sdf;
    RawRecord record;
    std::vector<Conformer> conformers;
    Molecule finished;
    while (state.ReadRecord(record, conformers)) {
        const bool continuesPending = groupByTitle && state.hasPending && !record.title.empty() &&
                                      record.title == state.pending.title;
        if (continuesPending) {
            std::move(conformers.begin(), conformers.end(),
                      std::back_inserter(state.pending.conformers));
        } else if (state.StartMolecule(record, std::move(conformers), finished)) {
            return state.Deliver(finished, out);
        }
        if (!groupByTitle && !state.pending.conformers.empty()) {
            state.hasPending = false;
            return state.Deliver(state.pending, out);
        }
    }
    state.finished = true;
    if (state.hasPending && !state.pending.conformers.empty()) {
        state.hasPending = false;
        return state.Deliver(state.pending, out);
    }
    return false;
}

const std::vector<Problem>& MoleculeReader::Problems() const {
    return state_->problems;
}
FileFormat MoleculeReader::Format() const {
    return state_->format;
}
unsigned long MoleculeReader::RecordsRead() const {
    return state_->recordsRead;
}
unsigned long MoleculeReader::RecordsSkipped() const {
    return state_->recordsSkipped;
}
unsigned long MoleculeReader::MoleculesReturned() const {
    return state_->moleculesReturned;
}
unsigned long MoleculeReader::ConformersReturned() const {
    return state_->conformersReturned;
}

std::vector<Molecule> ReadAll(const std::string& path, const ReadOptions& options,
                              std::vector<Problem>* problems) {
    MoleculeReader reader(path, options);
    std::vector<Molecule> molecules;
    Molecule molecule;
    while (reader.Next(molecule)) {
        molecules.push_back(std::move(molecule));
    }
    if (problems != nullptr) {
        problems->insert(problems->end(), reader.Problems().begin(), reader.Problems().end());
    }
    return molecules;
}

}  // namespace hermite::io
