// Reading molecules: files split into record groups (text only), then parsed into molecules.

#include <RDGeneral/RDLog.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <deque>
#include <iterator>

#include "io/conformer_builder.h"
#include "io/features.h"
#include "io/molecule_io.h"
#include "io/record_parsers.h"
#include "io/record_source.h"
#include "io/text_source.h"

namespace hermite::io {

namespace {

/// The conformers of one record, its problems appended to `problems`.
std::vector<Conformer> ParseOneRecord(const RecordGroup& group, const RawRecord& record,
                                      const ReadOptions& options, std::vector<Problem>& problems) {
    try {
        ParsedRecord parsed = ParseRecord(group.format, record, group.file, options);
        for (const std::string& note : parsed.notes) {
            problems.push_back({group.file, record.number, record.title, note, false});
        }
        if (options.features != nullptr) {
            for (Conformer& conformer : parsed.conformers) {
                conformer.SetFeatures(PerceiveFeatures(conformer, *options.features));
            }
        }
        return std::move(parsed.conformers);
    } catch (const std::exception& error) {
        problems.push_back({group.file, record.number, record.title, error.what(), true});
    } catch (...) {
        problems.push_back({group.file, record.number, record.title, "unexpected error", true});
    }
    return {};
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Options, formats and problems

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
// RecordReader

struct RecordReader::State {
    explicit State(const std::string& path)
        : path(path), format(FormatFromPath(path)), text(path) {}

    std::string path;
    FileFormat format;
    TextSource text;
    std::unique_ptr<RecordSource> records;
    std::string error;
    /// The record read ahead: the first of the next group (SD grouping looks one record ahead).
    RawRecord ahead;
    bool hasAhead = false;
    unsigned long recordsRead = 0;

    bool ReadAhead() {
        hasAhead = records->Next(ahead);
        if (hasAhead) {
            ++recordsRead;
        } else if (!records->Error().empty()) {
            error = records->Error();
        }
        return hasAhead;
    }
};

RecordReader::RecordReader(const std::string& path) : state_(std::make_unique<State>(path)) {
    if (!state_->text.Ok()) {
        state_->error = state_->text.Error();
    } else if (state_->format == FileFormat::Unknown) {
        state_->error =
            "unknown file extension (expected .sdf, .sd, .mol, .mol2, .smi or .smiles, "
            "optionally followed by .gz)";
    } else {
        state_->records = MakeRecordSource(state_->format, state_->text);
        state_->ReadAhead();
    }
}

RecordReader::~RecordReader() = default;
RecordReader::RecordReader(RecordReader&&) noexcept = default;
RecordReader& RecordReader::operator=(RecordReader&&) noexcept = default;

bool RecordReader::Ok() const {
    return state_ != nullptr && state_->records != nullptr;
}

bool RecordReader::Next(RecordGroup& out) {
    State& state = *state_;
    if (!Ok() || !state.hasAhead) {
        return false;
    }
    out.file = state.path;
    out.format = state.format;
    out.title = state.ahead.title;
    out.records.clear();
    out.records.push_back(std::move(state.ahead));
    // SD records join the group while their (non-empty) title repeats; other formats give one
    // molecule per record.
    const bool groupByTitle = state.format == FileFormat::Sdf && !out.title.empty();
    while (state.ReadAhead() && groupByTitle && state.ahead.title == out.title) {
        out.records.push_back(std::move(state.ahead));
    }
    return true;
}

const std::string& RecordReader::Error() const {
    return state_->error;
}
FileFormat RecordReader::Format() const {
    return state_->format;
}
unsigned long RecordReader::RecordsRead() const {
    return state_->recordsRead;
}

namespace {

/// A run of records of one constitution after the first: reported on its first record.
struct ConstitutionSplit {
    /// Where in the problems the report goes (before the problems of its first record).
    std::size_t at = 0;
    std::string title;
    unsigned int first = 0;
    unsigned int last = 0;
    /// The first record of the run before it.
    unsigned int previous = 0;

    Problem Report(const std::string& file) const {
        const std::string records = first == last ? "record " + std::to_string(first) + " shares"
                                                  : "records " + std::to_string(first) + ".." +
                                                        std::to_string(last) + " share";
        const std::string verb = first == last ? "has" : "have";
        return {file, first, title,
                records + " the title \"" + title + "\" with record " + std::to_string(previous) +
                    " but " + verb + " another constitution: read as a separate molecule",
                false};
    }
};

/// The constitution of the record behind `conformer` (empty for an atom-only conformer).
std::string ConstitutionOf(const Conformer& conformer) {
    const Conformer::RecordData* data = ConformerAccess::Data(conformer);
    return data != nullptr ? ConstitutionKey(*data->molecule) : std::string();
}

}  // namespace

std::vector<Molecule> ParseMolecule(const RecordGroup& group, const ReadOptions& options,
                                    std::vector<Problem>& problems) {
    std::vector<Molecule> molecules;
    // A title is only a name: tools that enumerate conformers repeat it, but so do files in
    // which different compounds carry one name (a series label, a placeholder). Only records of
    // one constitution are conformers of one molecule; compared only when there is a choice.
    const bool compare = group.records.size() > 1;
    std::string runConstitution;
    unsigned int runFirst = 0;
    std::vector<ConstitutionSplit> splits;
    for (const RawRecord& record : group.records) {
        const std::size_t before = problems.size();
        std::vector<Conformer> conformers = ParseOneRecord(group, record, options, problems);
        if (conformers.empty()) {
            continue;
        }
        const std::string constitution = compare ? ConstitutionOf(conformers.front()) : "";
        // An unknown constitution (empty) never splits: the title's word stands.
        const bool differs = !molecules.empty() && !constitution.empty() &&
                             !runConstitution.empty() && constitution != runConstitution;
        if (molecules.empty() || differs) {
            if (differs) {
                splits.push_back({before, group.title, record.number, record.number, runFirst});
            }
            molecules.push_back(Molecule{group.title, {}});
            runConstitution = constitution;
            runFirst = record.number;
        } else if (runConstitution.empty()) {
            runConstitution = constitution;
        }
        if (!splits.empty() && splits.back().first == runFirst) {
            splits.back().last = record.number;
        }
        std::move(conformers.begin(), conformers.end(),
                  std::back_inserter(molecules.back().conformers));
    }
    // From the last to the first, so that each position still counts the problems before it.
    for (auto split = splits.rbegin(); split != splits.rend(); ++split) {
        problems.insert(problems.begin() + static_cast<std::ptrdiff_t>(split->at),
                        split->Report(group.file));
    }
    return molecules;
}

// ---------------------------------------------------------------------------------------------
// MoleculeReader

struct MoleculeReader::State {
    State(const std::string& path, const ReadOptions& options)
        : path(path), options(options), records(path) {
        if (!records.Ok()) {
            problems.push_back({path, 0, "", records.Error(), true});
        }
    }

    std::string path;
    ReadOptions options;
    RecordReader records;
    std::vector<Problem> problems;
    /// Molecules of the last record group not handed out yet (a group whose records have
    /// different constitutions gives several).
    std::deque<Molecule> pending;
    bool errorReported = false;
    unsigned long recordsSkipped = 0;
    unsigned long moleculesReturned = 0;
    unsigned long conformersReturned = 0;
};

MoleculeReader::MoleculeReader(const std::string& path, const ReadOptions& options)
    : state_(std::make_unique<State>(path, options)) {}

MoleculeReader::~MoleculeReader() = default;
MoleculeReader::MoleculeReader(MoleculeReader&&) noexcept = default;
MoleculeReader& MoleculeReader::operator=(MoleculeReader&&) noexcept = default;

bool MoleculeReader::Ok() const {
    return state_ != nullptr && state_->records.Ok();
}

bool MoleculeReader::Next(Molecule& out) {
    State& state = *state_;
    RecordGroup group;
    while (state.pending.empty() && state.records.Next(group)) {
        const std::size_t before = state.problems.size();
        std::vector<Molecule> molecules = ParseMolecule(group, state.options, state.problems);
        state.recordsSkipped += static_cast<unsigned long>(
            std::count_if(state.problems.begin() + static_cast<std::ptrdiff_t>(before),
                          state.problems.end(), [](const Problem& p) { return p.skipped; }));
        for (Molecule& molecule : molecules) {
            if (!molecule.conformers.empty()) {
                state.pending.push_back(std::move(molecule));
            }
        }
    }
    if (!state.pending.empty()) {
        out = std::move(state.pending.front());
        state.pending.pop_front();
        ++state.moleculesReturned;
        state.conformersReturned += out.conformers.size();
        return true;
    }
    if (Ok() && !state.records.Error().empty() && !state.errorReported) {
        state.errorReported = true;
        state.problems.push_back({state.path, 0, "", state.records.Error(), true});
    }
    return false;
}

const std::vector<Problem>& MoleculeReader::Problems() const {
    return state_->problems;
}
FileFormat MoleculeReader::Format() const {
    return state_->records.Format();
}
unsigned long MoleculeReader::RecordsRead() const {
    return state_->records.RecordsRead();
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
