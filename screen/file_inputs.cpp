// The file side of a screen: database files read without chemistry (molecule files as record
// groups, prepared libraries in chunks of molecules), query files, and the posed records of the
// hits. Only screens of files link the molecule parsers and their chemistry toolkit.

#include <algorithm>
#include <cctype>
#include <map>
#include <memory>
#include <utility>

#include "io/features.h"
#include "screen/database.h"
#include "screen/screen.h"

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

/// Why a library's colour features cannot serve a colour run, or empty.
std::string FeatureMismatch(const io::LibraryPreparation& preparation,
                            const DatabaseRequirements& requirements) {
    const std::string& wanted = requirements.features != nullptr
                                    ? requirements.features->Text()
                                    : io::FeatureDefinitions::DefaultText();
    if (!requirements.colour || preparation.featureDefinitions == wanted) {
        return "";
    }
    if (preparation.featureDefinitions.empty()) {
        return "the library holds no colour features; prepare it again";
    }
    return "the library's colour features were perceived with other feature definitions; give "
           "the --features file it was prepared with, or prepare it with yours";
}

/// Why a prepared library cannot serve a run with `requirements`; empty when it can.
std::string LibraryMismatch(const io::LibraryPreparation& preparation,
                            const DatabaseRequirements& requirements) {
    const std::string features = FeatureMismatch(preparation, requirements);
    if (!features.empty()) {
        return features;
    }
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
            out.parse = &io::ParseMolecule;
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

/// Loads the records of the hits that came from prepared libraries; hits that cannot be loaded
/// are dropped with a problem.
void LoadLibraryHits(const std::vector<std::string>& paths, ScreenReport& report) {
    std::map<std::size_t, std::unique_ptr<io::PreparedLibraryReader>> libraries;
    for (std::vector<Hit>& hits : report.hits) {
        std::vector<Hit> loaded;
        for (Hit& hit : hits) {
            if (hit.library == kNoIndex) {
                loaded.push_back(std::move(hit));
                continue;
            }
            std::unique_ptr<io::PreparedLibraryReader>& library = libraries[hit.library];
            if (library == nullptr) {
                library = std::make_unique<io::PreparedLibraryReader>(paths[hit.library]);
            }
            io::Conformer conformer;
            if (library->Ok() && library->LoadConformer(hit.libraryConformer, conformer)) {
                hit.conformer = std::move(conformer);
                loaded.push_back(std::move(hit));
            } else {
                // The problem names the library; the reader's error does too.
                std::string error = library->Error();
                const std::string prefix = paths[hit.library] + ": ";
                if (error.compare(0, prefix.size(), prefix) == 0) {
                    error.erase(0, prefix.size());
                }
                report.problems.Add(io::Problem{paths[hit.library], 0, hit.row.title,
                                                "the hit's record could not be loaded: " + error,
                                                true});
            }
        }
        hits = std::move(loaded);
    }
}

/// Makes the posed record of every hit.
void PoseHits(ScreenReport& report) {
    for (std::vector<Hit>& hits : report.hits) {
        for (Hit& hit : hits) {
            try {
                hit.molBlock = io::FormatPosedMolBlock(hit.conformer, hit.row.result.transform);
                hit.properties = hit.conformer.Properties();
            } catch (const std::exception& error) {
                hit.writeError = error.what();
            }
        }
    }
}

/// Every molecule of a query file is a query: a record that cannot be used would silently
/// change what the screen asks, so it stops the run, naming the records.
void RequireEveryRecord(const std::vector<io::Problem>& problems) {
    std::vector<std::string> skipped;
    for (const io::Problem& problem : problems) {
        if (problem.skipped) {
            skipped.push_back(problem.Message());
        }
    }
    if (skipped.empty()) {
        return;
    }
    std::string message = std::to_string(skipped.size()) + " query record" +
                          (skipped.size() == 1 ? "" : "s") + " cannot be used:";
    for (std::size_t i = 0; i < skipped.size() && i < 5; ++i) {
        message += "\n  " + skipped[i];
    }
    if (skipped.size() > 5) {
        message += "\n  ... and " + std::to_string(skipped.size() - 5) + " more";
    }
    throw QueryError(message);
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
    database.finish_ = [](const Database& self, ScreenReport& report) {
        LoadLibraryHits(self.Paths(), report);
        PoseHits(report);
    };
    database.open_ = [](Database& self, const DatabaseRequirements& requirements,
                        std::size_t libraryChunk) -> std::unique_ptr<Reader> {
        return std::make_unique<FileReader>(self.slices_, requirements, libraryChunk);
    };
    return database;
}

QuerySet ReadQueries(const std::vector<std::string>& paths, const io::ReadOptions& read,
                     const overlay::Settings& settings) {
    io::ReadOptions options = read;
    options.computeCharges = settings.electrostatics;
    options.chargesRequired = settings.electrostatics;
    if (!settings.colour) {
        options.features.reset();
    }
    std::vector<io::Molecule> molecules;
    std::vector<io::Problem> problems;
    for (const std::string& path : paths) {
        io::MoleculeReader reader(path, options);
        const std::size_t before = molecules.size();
        io::Molecule molecule;
        while (reader.Next(molecule)) {
            molecules.push_back(std::move(molecule));
        }
        problems.insert(problems.end(), reader.Problems().begin(), reader.Problems().end());
        if (!reader.Ok()) {
            throw QueryError(reader.Problems().front().Message());
        }
        RequireEveryRecord(reader.Problems());
        if (molecules.size() == before) {
            std::string message = path + ": no usable query molecule";
            for (const io::Problem& problem : reader.Problems()) {
                message += "\n  " + problem.Message();
            }
            throw QueryError(message);
        }
    }
    QuerySet queries = MakeQueries(molecules, settings);
    problems.insert(problems.end(), queries.problems.begin(), queries.problems.end());
    queries.problems = std::move(problems);
    return queries;
}

}  // namespace hermite::screen
