/// \file
/// The screening engine: every database molecule overlaid onto every query conformer, on all
/// worker threads, with memory bounded by the queue sizes and never by the database size.
///
/// Stages (see `screen/pipeline.h`): a reader thread reads the database inputs without any
/// chemistry; the workers prepare each molecule (RDKit parsing, conformer generation, charges
/// only when a score needs them, densities and principal frames) and overlay its conformers;
/// the calling thread takes the molecules back in input order, streams their score rows to the
/// caller, keeps the best hits in bounded lists, and reports progress. Outputs are the same for
/// any number of threads.
///
/// Query modes: by default each database molecule keeps its best pair of (database conformer,
/// query conformer) over every conformer of every query molecule, and one ranking is made.
/// With `ScreenSettings::perQuery` each query molecule ranks the database separately: every
/// database molecule gets one row per query molecule (its best pair with that molecule's
/// conformers), and each query molecule has its own hit list. Among equal rank scores the
/// first pair wins, in the order query conformer, then database conformer.
///
/// Thread safety: `Screen` may run in several threads at once on different arguments; the
/// callbacks are called on the thread that called `Screen`.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "io/molecule_io.h"
#include "overlay/overlay.h"
#include "screen/database.h"
#include "screen/pipeline.h"
#include "screen/ranking.h"

namespace hermite::screen {

/// One conformer of a query molecule, prepared for overlays.
struct QueryConformer {
    /// The 0-based index of its molecule among the query molecules.
    std::size_t molecule = 0;
    /// Its 1-based index among the conformers of its molecule.
    unsigned int conformer = 1;
    io::Conformer source;
    std::shared_ptr<const overlay::Query> query;
};

/// The queries of a screen: every conformer of every query molecule.
struct QuerySet {
    /// The titles of the query molecules.
    std::vector<std::string> titles;
    /// Every conformer, molecule after molecule.
    std::vector<QueryConformer> conformers;
    /// Records of the query files that could not be used (none is dropped silently).
    std::vector<io::Problem> problems;
};

/// Thrown when the queries cannot be used; the message names the file and record.
class QueryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Prepares every conformer of `molecules` with `settings`. Throws `QueryError` when there is
/// none, or (with electrostatics) when a conformer's charges are not finite, and
/// `LibraryError` when the library fails on a query.
QuerySet MakeQueries(const std::vector<io::Molecule>& molecules, const overlay::Settings& settings);

/// Reads every molecule of `paths` and prepares its conformers. Throws `QueryError` naming the
/// file when a file cannot be read or holds no usable molecule, and naming the records when any
/// record cannot be used (every record of a query file is a query, so none is dropped);
/// partial problems (a record that still gave conformers) are kept in `QuerySet::problems`.
QuerySet ReadQueries(const std::vector<std::string>& paths, const io::ReadOptions& read,
                     const overlay::Settings& settings);

/// How a screen works and what it keeps.
struct ScreenSettings {
    /// How database molecule files are read (the seed, the conformer generation...). Charges
    /// are computed only when the overlay settings need them, whatever this says.
    io::ReadOptions read;
    /// The rank metric of the best pair of each molecule and of the hits.
    RankMetric rankBy = RankMetric::Shape;
    /// Score the database conformers in their input poses instead of overlaying them.
    bool scoreOnly = false;
    /// Hits need a rank score at least this high.
    double cutoff = 0.0;
    /// The hits kept per ranking (the best first).
    std::size_t best = 100;
    /// Rank the database separately for each query molecule.
    bool perQuery = false;
    /// Skip the overlay of a pair (database conformer, query conformer) when an upper bound
    /// on its rank score over every pose (`overlay::ScoreBound`) shows that it can enter
    /// neither the hits (it is below the cutoff, or not above the last of a full hit list) nor
    /// the best pair of its molecule. The hits are the same as without skipping (but for
    /// `Row::conformers`, which counts the conformers overlaid); the row of a molecule whose
    /// pairs were all skipped has no scores (`Row::skippedByBound`). No effect with `scoreOnly`.
    bool skipByBound = false;
    /// Worker threads (at least 1).
    unsigned int threads = 1;
    /// Batches waiting for a worker at most (0: 4 per thread); see `PipelineOptions`.
    std::size_t queueCapacity = 0;
    /// Molecules per batch at most (see `SourceBatch`).
    std::size_t batchSize = 16;
};

/// The outcome of one database molecule (against one query molecule in `perQuery` mode): one
/// row of the score table.
struct Row {
    /// The 0-based position of the molecule in the database, in input order.
    std::size_t position = 0;
    std::string title;
    /// The file and record of the best conformer (of the first conformer when none worked).
    std::string file;
    unsigned int record = 0;
    /// The 1-based index of the best conformer among the molecule's conformers (0: none).
    unsigned int conformer = 0;
    /// The conformers overlaid.
    unsigned int conformers = 0;
    /// The query molecule (0-based) and its conformer (1-based) of the best pair.
    std::size_t query = 0;
    unsigned int queryConformer = 0;
    overlay::Result result;
    double rankScore = 0.0;
    /// Why the molecule could not be overlaid; empty when it was.
    std::string error;
    /// No pair was overlaid because none could reach the hits (see
    /// `ScreenSettings::skipByBound`); the row has no scores and its rank score is NaN.
    bool skippedByBound = false;
    /// Warnings the library raised while overlaying it.
    std::vector<std::string> warnings;

    bool Ok() const { return error.empty(); }
};

/// One of the best molecules of a ranking, with what is needed to write it posed.
struct Hit {
    Row row;
    /// The conformer to write: with its whole record (also for prepared libraries, whose
    /// records are loaded once the screen is over).
    io::Conformer conformer;
    /// Its 1-based rank in its ranking.
    std::size_t rank = 0;
    /// For `BestList`.
    double score = 0.0;
    std::size_t position = 0;
    /// Where a hit from a prepared library is stored (input index and conformer index).
    std::size_t library = kNoIndex;
    std::size_t libraryConformer = kNoIndex;
    /// The hit as it is written: its record's molfile moved by the row's transform (see
    /// `io::FormatPosedMolBlock`) and its data items, made when the screen ends so that the
    /// hit can travel without its conformer; `writeError` says why RDKit could not write it.
    std::string molBlock;
    io::SdProperties properties;
    std::string writeError;
};

/// What the rows of a screen add up to, for summaries that must not keep every row: a screen
/// of a billion molecules reports its failures without holding its rows.
struct RowTally {
    /// Rows kept in full, of failures and of rows with warnings each.
    static constexpr std::size_t kKept = 20;

    unsigned long rows = 0;
    /// Rows that worked with a rank score at or above the cutoff, per ranking.
    std::vector<unsigned long> passing;
    /// Library warnings raised over all rows.
    unsigned long warnings = 0;
    /// Rows skipped by their score bound (`Row::skippedByBound`).
    unsigned long skippedByBound = 0;
    /// The first rows that failed and the first rows with warnings, in input order.
    std::vector<Row> failedRows;
    std::vector<Row> warnedRows;

    /// Counts `row` of ranking `ranking` (0, or its query molecule with `perQuery`).
    void Add(const Row& row, std::size_t ranking, double cutoff);
    /// Adds the tally of the rows that follow these.
    void Add(const RowTally& later);
};

/// Counts of a running screen.
struct ScreenProgress {
    unsigned long molecules = 0;
    unsigned long conformers = 0;
    unsigned long overlays = 0;
};

/// What the caller hears while a screen runs; every member may be empty.
struct ScreenCallbacks : RunCallbacks<ScreenProgress> {
    /// Each row, in input order, as soon as its molecule is done.
    std::function<void(const Row&)> row;
};

/// Everything a screen produced besides the rows.
struct ScreenReport {
    /// The best hits of each ranking, best first: one ranking, or one per query molecule in
    /// `perQuery` mode.
    std::vector<std::vector<Hit>> hits;
    /// Files and records that could not be used, and partial problems, in reading order.
    ProblemLog problems;
    /// Molecules that could not be overlaid (rows with an error).
    unsigned long failed = 0;
    /// What the rows add up to.
    RowTally tally;
    ScreenProgress counts;
    /// Seconds the workers spent in overlays, summed over the workers.
    double overlaySeconds = 0.0;
    /// Seconds from start to end.
    double seconds = 0.0;
    /// The most database molecules alive in the pipeline at once: at most `batchSize` times
    /// the pipeline's bound on items (see `screen/pipeline.h`).
    std::size_t peakInFlight = 0;
    /// True when the run was cancelled; the rows and hits are then incomplete.
    bool interrupted = false;
};

/// The requirements a screen of `queries` with `settings` puts on its database.
DatabaseRequirements RequirementsOf(const QuerySet& queries, const ScreenSettings& settings);

/// Overlays (or scores) every molecule of `database` onto `queries`. Hits from prepared
/// libraries are loaded with their records before the function returns (a hit that cannot be
/// loaded becomes a problem and is dropped), and every hit's posed record is made. Throws only for
/// failures of the engine itself.
ScreenReport Screen(const QuerySet& queries, Database database, const ScreenSettings& settings,
                    const ScreenCallbacks& callbacks, RunControl& control);

}  // namespace hermite::screen
