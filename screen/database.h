/// \file
/// The database side of a screen: reading the inputs one molecule at a time without any
/// chemistry (the reader stage), and preparing a molecule's conformers for overlays (the
/// worker stage: RDKit parsing, conformer generation, charges, densities, principal frames).
///
/// Inputs are molecule files (SD, MOL2, SMILES, optionally gzip-compressed), prepared libraries
/// (told apart by their content, whatever their name) and molecules handed over in memory.
#pragma once

#include <cstddef>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "io/molecule_io.h"
#include "io/prepared_library.h"
#include "overlay/overlay.h"
#include "screen/pipeline.h"

namespace hermite::screen {

struct ScreenReport;

/// "No index".
constexpr std::size_t kNoIndex = std::numeric_limits<std::size_t>::max();

/// What a database molecule must carry for the scores asked for; prepared libraries that
/// cannot provide it are refused with a message.
struct DatabaseRequirements {
    /// The density atoms include the hydrogens.
    bool hydrogens = false;
    /// Partial charges are needed (electrostatics), of this model.
    bool charges = false;
    io::ChargeModel chargeModel = io::ChargeModel::Gasteiger;
    /// Colour features are needed, perceived with these definitions (the built-in ones when
    /// null).
    bool colour = false;
    std::shared_ptr<const io::FeatureDefinitions> features;
};

/// Colour features (of a conformer, as read or stored) as the overlay takes them.
overlay::ColourFeatures ColourFeaturesOf(const std::vector<io::Feature>& features);

/// A database molecule as read, before its chemistry: one of the three kinds below, plus the
/// problems of whole files met on the way to it.
struct SourceMolecule {
    enum class Kind {
        ProblemsOnly,  ///< nothing but `problems` (e.g. a file that could not be opened)
        Records,       ///< the records of a molecule file
        Library,       ///< a molecule of a prepared library
        Parsed,        ///< a molecule given in memory
    };
    Kind kind = Kind::ProblemsOnly;
    io::RecordGroup records;
    /// How `records` become molecules (`io::ParseMolecule`), set by the reader of files: only
    /// screens of files link the parsers and their chemistry toolkit.
    std::vector<io::Molecule> (*parse)(const io::RecordGroup&, const io::ReadOptions&,
                                       std::vector<io::Problem>&) = nullptr;
    io::LibraryMolecule prepared;
    /// The index of the prepared library among the inputs (`Kind::Library`).
    std::size_t library = kNoIndex;
    io::Molecule parsed;
    /// Problems of whole files, reported before this molecule.
    std::vector<io::Problem> problems;
};

/// The problems of a run: every one counted, the first `kKept` kept in full, so that a
/// library with many bad records cannot fill the memory.
class ProblemLog {
public:
    static constexpr std::size_t kKept = 1000;

    ProblemLog() = default;
    /// A log as it was: its kept problems and its counts (which include the kept ones).
    ProblemLog(std::vector<io::Problem> kept, unsigned long files, unsigned long records,
               unsigned long partial)
        : kept_(std::move(kept)), files_(files), records_(records), partial_(partial) {}

    void Add(const io::Problem& problem);
    /// Adds another log's problems after these: its kept problems while there is room, and all
    /// its counts.
    void Add(const ProblemLog& other);
    void Add(const std::vector<io::Problem>& problems) {
        for (const io::Problem& problem : problems) {
            Add(problem);
        }
    }

    /// The first problems, in reading order.
    const std::vector<io::Problem>& Kept() const { return kept_; }
    /// Files that could not be read, records skipped, and records only partly used.
    unsigned long Files() const { return files_; }
    unsigned long Records() const { return records_; }
    unsigned long Partial() const { return partial_; }
    /// True when a file or a record was skipped.
    bool AnySkipped() const { return files_ + records_ > 0; }

private:
    std::vector<io::Problem> kept_;
    unsigned long files_ = 0;
    unsigned long records_ = 0;
    unsigned long partial_ = 0;
};

/// A run of consecutive source molecules of one input file: `count` of them from the `first`
/// (0-based). Source molecules are what the reader stage hands out: the record groups of a
/// molecule file (consecutive SD records of one title, one MOL2 record, one SMILES line) and
/// the molecules of a prepared library. Splitting the files of a screen into slices and
/// running them anywhere gives, slice after slice, exactly the rows of the whole screen: record
/// numbers stay those of the file, because the records before `first` are still read (as text
/// only) to find the slice.
struct FileSlice {
    std::string path;
    std::size_t first = 0;
    /// `kNoIndex`: to the end of the file.
    std::size_t count = kNoIndex;
};

/// What splitting a file into slices needs to know of it.
struct FileExtent {
    /// The source molecules the file holds.
    std::size_t molecules = 0;
    /// False when the file cannot be used by a run with the requirements it was measured for
    /// (it cannot be opened, a read error stops it early, or a prepared library does not meet
    /// the requirements): it must then be screened whole, so that its problem is reported once.
    bool usable = false;
};

/// Counts the source molecules of `path` without any chemistry (molecule files are split into
/// records; prepared libraries read their header) and checks that it can be read to its end.
FileExtent MeasureFile(const std::string& path, const DatabaseRequirements& requirements);

/// Where the molecules of a screen come from.
class Database {
public:
    /// The molecules of files, read in the order given: molecule files and prepared libraries.
    static Database Files(const std::vector<std::string>& paths);
    /// The molecules of slices of files, in the order given.
    static Database Slices(std::vector<FileSlice> slices);
    /// Molecules in memory (each with at least one conformer), in the order given.
    static Database Molecules(std::vector<io::Molecule> molecules);

    /// The file of each slice (empty for molecules in memory).
    std::vector<std::string> Paths() const;

    /// A reader of the molecules, one at a time, for one run. It reads prepared libraries in
    /// chunks of `libraryChunk` molecules and refuses those that do not meet `requirements`.
    /// Single-threaded. The in-memory molecules are moved out by the first reader.
    class Reader;
    std::unique_ptr<Reader> Open(const DatabaseRequirements& requirements,
                                 std::size_t libraryChunk = 256);

    /// Completes the hits of a screen of this database once it is over: loads the records of
    /// hits from prepared libraries (dropping, with a problem, those that cannot be loaded) and
    /// makes every hit's posed record (`Hit::molBlock`). Hits of molecules in memory have no
    /// record and are left as they are.
    void FinishHits(ScreenReport& report) const;

private:
    /// Opens the reader of this kind of database (files or memory): set by the factories, so
    /// that screens of molecules in memory do not link the file readers.
    using Opener = std::unique_ptr<Reader> (*)(Database& self,
                                               const DatabaseRequirements& requirements,
                                               std::size_t libraryChunk);

    /// Makes the posed records of the hits (of files only).
    using HitFinisher = void (*)(const Database& self, ScreenReport& report);

    std::vector<FileSlice> slices_;
    std::vector<io::Molecule> molecules_;
    Opener open_ = nullptr;
    HitFinisher finish_ = nullptr;
};

class Database::Reader {
public:
    virtual ~Reader() = default;
    /// The next molecule (or file problems); false at the end.
    virtual bool Next(SourceMolecule& out) = 0;
};

/// A batch of source molecules: the unit of work of the pipeline. Cheap molecules (records of
/// SD and MOL2 files, molecules of prepared libraries, molecules in memory) travel up to
/// `maxBatch` together, which keeps the cost of handing work between threads small against
/// the work itself; a SMILES, whose conformer generation can take seconds, travels alone, so
/// that the workers stay evenly loaded.
using SourceBatch = std::vector<SourceMolecule>;

/// Reads the next batch from `reader` into `batch` (cleared first); false at the end.
bool NextBatch(Database::Reader& reader, std::size_t maxBatch, SourceBatch& batch);

/// Runs the ordered pipeline over the molecules of `reader` in batches of up to `batchSize`:
/// `process` on the worker threads, one source molecule at a time, and `take` on the calling
/// thread for each of its results, in input order (a source molecule gives several results
/// when its records turn out to be several molecules). The statistics count source molecules:
/// `peakInFlight` is the most alive between reading and the end of their `take`.
template <class Result>
PipelineStatistics RunOverMolecules(
    Database::Reader& reader, std::size_t batchSize, const PipelineOptions& options,
    RunControl& control, const std::function<std::vector<Result>(SourceMolecule&)>& process,
    const std::function<void(Result&)>& take, const std::function<void()>& poll) {
    struct Done {
        std::vector<Result> results;
        std::size_t sources = 0;
    };
    FlightCounter inFlight;
    const std::function<bool(SourceBatch&)> produce = [&](SourceBatch& batch) {
        const bool more = NextBatch(reader, batchSize, batch);
        inFlight.Enter(batch.size());
        return more;
    };
    const std::function<Done(SourceBatch&)> work = [&](SourceBatch& batch) {
        Done done;
        done.sources = batch.size();
        done.results.reserve(batch.size());
        for (SourceMolecule& source : batch) {
            if (control.Cancelled()) {
                break;  // a cancelled run consumes nothing more
            }
            std::vector<Result> results = process(source);
            std::move(results.begin(), results.end(), std::back_inserter(done.results));
        }
        return done;
    };
    const std::function<void(Done&)> consume = [&](Done& done) {
        for (Result& result : done.results) {
            take(result);
        }
        inFlight.Leave(done.sources);
    };
    PipelineStatistics statistics =
        RunOrderedPipeline<SourceBatch, Done>(options, control, produce, work, consume, poll);
    statistics.peakInFlight = inFlight.Peak();
    return statistics;
}

/// One conformer of a database molecule, ready for overlays.
struct Fit {
    /// The conformer with its record (molecule files and molecules in memory); for prepared
    /// libraries an atom-only conformer.
    io::Conformer conformer;
    /// Its file and record (also for prepared libraries: the source the library was made from).
    std::string file;
    unsigned int record = 0;
    /// Its densities in its principal frame.
    overlay::PreparedMolecule prepared;
    /// Its index in its prepared library (`kNoIndex` otherwise).
    std::size_t libraryConformer = kNoIndex;
};

/// A database molecule ready for overlays; `fits` is empty when no conformer could be used.
struct PreparedEntry {
    std::string title;
    std::vector<Fit> fits;
    /// The prepared library it came from (`kNoIndex` otherwise).
    std::size_t library = kNoIndex;
    /// File problems met before it, then the problems of its own records, in reading order.
    std::vector<io::Problem> problems;
};

/// Prepares `source` (moved from): parses its records with `read` (molecule files), and makes
/// the densities of each conformer with `overlay` (frames of prepared libraries are used as
/// stored). Conformers without finite partial charges are dropped with a problem when
/// `needCharges`. Never throws for bad input; thread-safe.
///
/// Gives one entry per molecule, in input order, and always at least one (an entry without
/// fits carries problems only). The records of one title are several molecules when their
/// constitutions differ (see `io::ParseMolecule`); each record's problems go with the entry of
/// the molecule they concern, the file problems before it with the first.
std::vector<PreparedEntry> PrepareEntry(SourceMolecule& source, const io::ReadOptions& read,
                                        const overlay::Settings& overlay, bool needCharges);

}  // namespace hermite::screen
