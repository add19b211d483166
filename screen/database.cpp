// Database molecules given in memory, and the preparation of every database molecule in the
// workers. The files are read in database_files.cpp.

#include "screen/database.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <utility>

namespace hermite::screen {

namespace {

/// Hands out molecules given in memory.
class MemoryReader : public Database::Reader {
public:
    explicit MemoryReader(std::vector<io::Molecule> molecules) : molecules_(std::move(molecules)) {}

    bool Next(SourceMolecule& out) override {
        if (next_ == molecules_.size()) {
            return false;
        }
        out = SourceMolecule();
        out.kind = SourceMolecule::Kind::Parsed;
        out.parsed = std::move(molecules_[next_++]);
        return true;
    }

private:
    std::vector<io::Molecule> molecules_;
    std::size_t next_ = 0;
};

/// False, with a problem recorded, for a conformer whose charges are needed but not finite
/// (Gasteiger charges of metals can be NaN).
bool UsableCharges(const QVChem::QVMol& mol, const std::string& file, unsigned int record,
                   const io::ReadOptions& read, std::vector<io::Problem>& problems) {
    if (io::HasFiniteCharges(mol)) {
        return true;
    }
    problems.push_back({file, record, mol.GetTitle(),
                        std::string("partial charges (") + io::ChargeModelName(read.charges) +
                            ") are not finite numbers; the electrostatic density needs them",
                        true});
    return false;
}

/// False, with a problem recorded, for a conformer whose atoms are not one cloud.
bool OneCloud(const QVChem::QVMol& mol, const std::string& file, unsigned int record,
              std::vector<io::Problem>& problems) {
    const std::string problem = overlay::CloudProblem(mol);
    if (!problem.empty()) {
        problems.push_back({file, record, mol.GetTitle(), problem, true});
    }
    return problem.empty();
}

/// Adds the conformers of a parsed molecule.
void AddParsedFits(io::Molecule& molecule, const io::ReadOptions& read,
                   const overlay::Settings& overlay, bool needCharges, PreparedEntry& entry) {
    for (io::Conformer& conformer : molecule.conformers) {
        if (conformer.Mol().NumAtoms() == 0 ||
            (needCharges && !UsableCharges(conformer.Mol(), conformer.File(), conformer.Record(),
                                           read, entry.problems)) ||
            !OneCloud(conformer.Mol(), conformer.File(), conformer.Record(), entry.problems)) {
            continue;
        }
        overlay::PreparedMolecule prepared(conformer.Mol(), overlay,
                                           ColourFeaturesOf(conformer.Features()));
        const std::string file = conformer.File();
        const unsigned int record = conformer.Record();
        entry.fits.push_back(
            Fit{std::move(conformer), file, record, std::move(prepared), kNoIndex});
    }
}

/// Adds the conformers of a prepared-library molecule, with their stored frames.
void AddLibraryFits(io::LibraryMolecule& molecule, const io::ReadOptions& read,
                    const overlay::Settings& overlay, bool needCharges, PreparedEntry& entry) {
    for (io::LibraryConformer& stored : molecule.conformers) {
        if ((needCharges &&
             !UsableCharges(stored.mol, stored.file, stored.record, read, entry.problems)) ||
            !OneCloud(stored.mol, stored.file, stored.record, entry.problems)) {
            continue;
        }
        overlay::PreparedMolecule prepared(stored.mol, overlay, stored.frame,
                                           ColourFeaturesOf(stored.features));
        entry.fits.push_back(Fit{io::Conformer(std::move(stored.mol)), std::move(stored.file),
                                 stored.record, std::move(prepared), stored.index});
    }
}

}  // namespace

Database Database::Molecules(std::vector<io::Molecule> molecules) {
    Database database;
    database.molecules_ = std::move(molecules);
    database.open_ = [](Database& self, const DatabaseRequirements&,
                        std::size_t) -> std::unique_ptr<Reader> {
        return std::make_unique<MemoryReader>(std::move(self.molecules_));
    };
    return database;
}

std::vector<std::string> Database::Paths() const {
    std::vector<std::string> paths;
    for (const FileSlice& slice : slices_) {
        paths.push_back(slice.path);
    }
    return paths;
}

std::unique_ptr<Database::Reader> Database::Open(const DatabaseRequirements& requirements,
                                                 std::size_t libraryChunk) {
    if (open_ == nullptr) {
        return std::make_unique<MemoryReader>(std::vector<io::Molecule>());
    }
    return open_(*this, requirements, std::max<std::size_t>(1, libraryChunk));
}

overlay::ColourFeatures ColourFeaturesOf(const std::vector<io::Feature>& features) {
    overlay::ColourFeatures converted;
    converted.reserve(features.size());
    for (const io::Feature& feature : features) {
        converted.push_back({feature.type, {feature.x, feature.y, feature.z}});
    }
    return converted;
}

void Database::FinishHits(ScreenReport& report) const {
    if (finish_ != nullptr) {
        finish_(*this, report);
    }
}

void ProblemLog::Add(const io::Problem& problem) {
    if (kept_.size() < kKept) {
        kept_.push_back(problem);
    }
    if (!problem.skipped) {
        ++partial_;
    } else if (problem.record == 0) {
        ++files_;
    } else {
        ++records_;
    }
}

void ProblemLog::Add(const ProblemLog& other) {
    for (std::size_t i = 0; i < other.kept_.size() && kept_.size() < kKept; ++i) {
        kept_.push_back(other.kept_[i]);
    }
    files_ += other.files_;
    records_ += other.records_;
    partial_ += other.partial_;
}

bool NextBatch(Database::Reader& reader, std::size_t maxBatch, SourceBatch& batch) {
    batch.clear();
    SourceMolecule source;
    while (batch.size() < std::max<std::size_t>(1, maxBatch) && reader.Next(source)) {
        const bool alone = source.kind == SourceMolecule::Kind::Records &&
                           source.records.format == io::FileFormat::Smiles;
        batch.push_back(std::move(source));
        if (alone) {
            break;
        }
    }
    return !batch.empty();
}

std::vector<PreparedEntry> PrepareEntry(SourceMolecule& source, const io::ReadOptions& read,
                                        const overlay::Settings& overlay, bool needCharges) {
    std::vector<PreparedEntry> entries(1);
    entries.front().problems = std::move(source.problems);
    switch (source.kind) {
        case SourceMolecule::Kind::ProblemsOnly:
            break;
        case SourceMolecule::Kind::Records: {
            std::vector<io::Problem> problems;
            std::vector<io::Molecule> molecules = source.parse(source.records, read, problems);
            entries.front().title = source.records.title;
            // Molecule m covers its records from the first of its conformers up to the first
            // record of molecule m + 1; a problem goes with the molecule whose records hold it.
            std::size_t m = 0;
            for (io::Problem& problem : problems) {
                while (m + 1 < molecules.size() &&
                       molecules[m + 1].conformers.front().Record() <= problem.record) {
                    ++m;
                }
                if (m >= entries.size()) {
                    entries.resize(m + 1);
                }
                entries[m].problems.push_back(std::move(problem));
            }
            entries.resize(std::max<std::size_t>(1, molecules.size()));
            for (std::size_t i = 0; i < molecules.size(); ++i) {
                entries[i].title = molecules[i].title;
                AddParsedFits(molecules[i], read, overlay, needCharges, entries[i]);
            }
            break;
        }
        case SourceMolecule::Kind::Library:
            entries.front().title = source.prepared.title;
            entries.front().library = source.library;
            AddLibraryFits(source.prepared, read, overlay, needCharges, entries.front());
            break;
        case SourceMolecule::Kind::Parsed:
            entries.front().title = source.parsed.title;
            AddParsedFits(source.parsed, read, overlay, needCharges, entries.front());
            break;
    }
    return entries;
}

}  // namespace hermite::screen
