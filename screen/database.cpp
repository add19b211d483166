// Reading database inputs without chemistry, and preparing their molecules in the workers.

#include "screen/database.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <utility>

namespace hermite::screen {

namespace {

/// A problem of a whole file; `reason` may start with the file's name, which is not repeated.
io::Problem FileProblem(const std::string& path, const std::string& reason) {
    const std::string prefix = path + ": ";
    const bool named = reason.compare(0, prefix.size(), prefix) == 0;
    return io::Problem{path, 0, "", named ? reason.substr(prefix.size()) : reason, true};
}

/// True when `path` ends in .h5 or .hdf5 (any case): meant as a prepared library.
bool NamedLikeALibrary(const std::string& path) {
    std::string lower;
    for (char c : path.substr(
             path.find_last_of('.') == std::string::npos ? path.size() : path.find_last_of('.'))) {
        lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return lower == ".h5" || lower == ".hdf5";
}

/// Why a prepared library cannot serve a run with `requirements`; empty when it can.
std::string LibraryMismatch(const io::LibraryPreparation& preparation,
                            const DatabaseRequirements& requirements) {
    if (preparation.hydrogens != requirements.hydrogens) {
        return preparation.hydrogens
                   ? "the library was prepared with hydrogens; add --hydrogens"
                   : "the library was prepared without hydrogens; prepare it with --hydrogens";
    }
    if (!requirements.charges) {
        return "";
    }
    const std::string wanted = io::ChargeModelName(requirements.chargeModel);
    if (preparation.charges == "none") {
        return "the library has no partial charges (it was prepared with --no-charges)";
    }
    if (preparation.charges != wanted) {
        return "the library's partial charges are " + preparation.charges + ", not " + wanted +
               "; use --charges " + preparation.charges + " or prepare it with --charges " + wanted;
    }
    return "";
}

/// Reads file slices one after the other: molecule files as record groups, prepared libraries
/// in chunks of molecules.
class FileReader : public Database::Reader {
public:
    FileReader(std::vector<FileSlice> slices, const DatabaseRequirements& requirements,
               std::size_t chunk)
        : slices_(std::move(slices)), requirements_(requirements), chunk_(chunk) {}

    bool Next(SourceMolecule& out) override {
        out = SourceMolecule();
        while (true) {
            if (records_ != nullptr && NextRecordGroup(out)) {
                return true;
            }
            if (library_ != nullptr && NextLibraryMolecule(out)) {
                return true;
            }
            if (records_ == nullptr && library_ == nullptr && !OpenNext(out)) {
                // Only problems left to report, at the end.
                return !out.problems.empty();
            }
        }
    }

private:
    const FileSlice& Current() const { return slices_[current_]; }

    bool NextRecordGroup(SourceMolecule& out) {
        if (left_ > 0 && records_->Next(out.records)) {
            --left_;
            out.kind = SourceMolecule::Kind::Records;
            return true;
        }
        if (!records_->Error().empty()) {
            out.problems.push_back(FileProblem(Current().path, records_->Error()));
        }
        records_.reset();
        return false;
    }

    bool NextLibraryMolecule(SourceMolecule& out) {
        if (buffered_ == buffer_.size()) {
            buffer_.clear();
            buffered_ = 0;
            if (nextMolecule_ >= endMolecule_ ||
                !library_->Read(nextMolecule_, std::min(chunk_, endMolecule_ - nextMolecule_),
                                buffer_)) {
                if (nextMolecule_ < endMolecule_) {
                    out.problems.push_back(FileProblem(Current().path, library_->Error()));
                }
                library_.reset();
                return false;
            }
            nextMolecule_ += buffer_.size();
        }
        out.kind = SourceMolecule::Kind::Library;
        out.prepared = std::move(buffer_[buffered_++]);
        out.library = current_;
        return true;
    }

    /// Opens the next slice's file; false when there is none. Files that cannot be used add a
    /// problem to `out` and are passed over.
    bool OpenNext(SourceMolecule& out) {
        while (next_ < slices_.size()) {
            current_ = next_++;
            const FileSlice& slice = Current();
            if (io::IsPreparedLibrary(slice.path)) {
                auto library = std::make_unique<io::PreparedLibraryReader>(slice.path);
                std::string mismatch = library->Ok()
                                           ? LibraryMismatch(library->Preparation(), requirements_)
                                           : library->Error();
                if (mismatch.empty()) {
                    library_ = std::move(library);
                    nextMolecule_ = std::min(slice.first, library_->NumMolecules());
                    endMolecule_ = library_->NumMolecules() - nextMolecule_ < slice.count
                                       ? library_->NumMolecules()
                                       : nextMolecule_ + slice.count;
                    buffer_.clear();
                    buffered_ = 0;
                    return true;
                }
                out.problems.push_back(FileProblem(slice.path, mismatch));
                continue;
            }
            auto records = std::make_unique<io::RecordReader>(slice.path);
            if (records->Ok()) {
                records_ = std::move(records);
                SkipRecordGroups(slice.first);
                left_ = slice.count;
                return true;
            }
            out.problems.push_back(FileProblem(
                slice.path,
                NamedLikeALibrary(slice.path) &&
                        io::FormatFromPath(slice.path) == io::FileFormat::Unknown
                    ? "not a prepared library (no HDF5 signature) and not a molecule file"
                    : records->Error()));
        }
        return false;
    }

    /// Reads past the first `count` record groups of the file just opened (text only).
    void SkipRecordGroups(std::size_t count) {
        io::RecordGroup skipped;
        for (std::size_t i = 0; i < count && records_->Next(skipped); ++i) {
        }
    }

    std::vector<FileSlice> slices_;
    DatabaseRequirements requirements_;
    std::size_t chunk_;
    std::size_t next_ = 0;
    std::size_t current_ = 0;
    std::unique_ptr<io::RecordReader> records_;
    std::size_t left_ = 0;
    std::unique_ptr<io::PreparedLibraryReader> library_;
    std::size_t nextMolecule_ = 0;
    std::size_t endMolecule_ = 0;
    std::vector<io::LibraryMolecule> buffer_;
    std::size_t buffered_ = 0;
};

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
        overlay::PreparedMolecule prepared(conformer.Mol(), overlay);
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
        overlay::PreparedMolecule prepared(stored.mol, overlay, stored.frame);
        entry.fits.push_back(Fit{io::Conformer(std::move(stored.mol)), std::move(stored.file),
                                 stored.record, std::move(prepared), stored.index});
    }
}

}  // namespace

FileExtent MeasureFile(const std::string& path, const DatabaseRequirements& requirements) {
    FileExtent extent;
    if (io::IsPreparedLibrary(path)) {
        const io::PreparedLibraryReader library(path);
        extent.usable =
            library.Ok() && LibraryMismatch(library.Preparation(), requirements).empty();
        extent.molecules = library.NumMolecules();
        return extent;
    }
    io::RecordReader records(path);
    io::RecordGroup group;
    while (records.Next(group)) {
        ++extent.molecules;
    }
    extent.usable = records.Ok() && records.Error().empty();
    return extent;
}

Database Database::Files(const std::vector<std::string>& paths) {
    std::vector<FileSlice> slices;
    for (const std::string& path : paths) {
        slices.push_back(FileSlice{path});
    }
    return Slices(std::move(slices));
}

Database Database::Slices(std::vector<FileSlice> slices) {
    Database database;
    database.slices_ = std::move(slices);
    return database;
}

Database Database::Molecules(std::vector<io::Molecule> molecules) {
    Database database;
    database.molecules_ = std::move(molecules);
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
    if (!molecules_.empty()) {
        return std::make_unique<MemoryReader>(std::move(molecules_));
    }
    return std::make_unique<FileReader>(slices_, requirements,
                                        std::max<std::size_t>(1, libraryChunk));
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
            std::vector<io::Molecule> molecules = io::ParseMolecule(source.records, read, problems);
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
