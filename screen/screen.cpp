// The screening engine: queries, the overlay stage, and ranking in input order.

#include "screen/screen.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <iterator>
#include <map>
#include <utility>

#include "overlay/score_bound.h"
#include "screen/library_messages.h"

namespace hermite::screen {

namespace {

using Clock = std::chrono::steady_clock;

/// A database molecule prepared and overlaid, on its way to the ranking. Only what the
/// ranking needs travels: the rows, and the conformers of the rows that may still be hits. The
/// rest (RDKit molecules, densities) is freed by the worker that made it, which keeps the
/// consumer's thread light and the memory in flight small.
struct Outcome {
    std::vector<io::Problem> problems;
    /// One row per ranking; empty when the molecule has no usable conformer.
    std::vector<Row> rows;
    /// For each row, its best conformer when the row may be a hit (`Hit::conformer` and
    /// `Hit::library...` filled), else a hit with an empty conformer and `score` NaN.
    std::vector<Hit> candidates;
    unsigned long conformers = 0;
    unsigned long overlays = 0;
    Clock::duration overlayTime{};
};

/// The score a row must beat to enter each ranking's hit list, published by the consumer and
/// read by the workers. It only grows, so a worker that sees an old value keeps too much,
/// never too little.
class Thresholds {
public:
    explicit Thresholds(std::size_t rankings) : values_(rankings) {
        for (std::atomic<double>& value : values_) {
            value.store(-INFINITY);
        }
    }
    double Get(std::size_t ranking) const { return values_[ranking].load(); }
    void Set(std::size_t ranking, double value) { values_[ranking].store(value); }

private:
    std::vector<std::atomic<double>> values_;
};

/// True when a pair whose rank score is at most `bound` can neither pass the cutoff, nor beat
/// the last hit (`threshold`), nor replace its row's best pair. The bound is widened by a
/// millionth: the scores are computed from centres rounded to float after each move, which
/// changes the overlaps by parts in ten million.
bool OutOfReach(double bound, double cutoff, double threshold, const Row& row) {
    const double reach = bound + 1e-6 * std::abs(bound) + 1e-9;
    return reach < cutoff || reach <= threshold || (row.conformer != 0 && reach <= row.rankScore);
}

/// Overlays every conformer of `entry` onto every query conformer and keeps the best pair of
/// each ranking in `outcome.rows`; `bestFit` gets the index of each row's best conformer. With
/// `bounds` (one per query conformer), pairs out of reach of the hits are skipped.
void OverlayEntry(const QuerySet& queries, const ScreenSettings& settings,
                  const std::vector<overlay::ScoreBound>& bounds, const Thresholds& thresholds,
                  const RunControl& control, const PreparedEntry& entry, Outcome& outcome,
                  std::vector<std::size_t>& bestFit) {
    const std::vector<Fit>& fits = entry.fits;
    if (fits.empty()) {
        return;
    }
    const std::size_t rankings = settings.perQuery ? queries.titles.size() : 1;
    outcome.rows.assign(rankings, Row());
    bestFit.assign(rankings, 0);
    // used[r][i]: conformer i was overlaid in ranking r.
    std::vector<std::vector<bool>> used(rankings, std::vector<bool>(fits.size(), false));
    std::vector<std::string> firstError(rankings);
    std::vector<bool> skipped(rankings, false);
    std::vector<std::string> raised;  // the library's warnings, moved to their row
    MessageCapture capture(raised);
    const Clock::time_point start = Clock::now();
    for (std::size_t q = 0; q < queries.conformers.size(); ++q) {
        if (control.Cancelled()) {
            break;  // the outcome of a cancelled run is never used
        }
        const QueryConformer& query = queries.conformers[q];
        const std::size_t r = settings.perQuery ? query.molecule : 0;
        Row& row = outcome.rows[r];
        for (std::size_t i = 0; i < fits.size(); ++i) {
            if (!bounds.empty() &&
                OutOfReach(RankScore(settings.rankBy, bounds[q].Of(fits[i].prepared)),
                           settings.cutoff, thresholds.Get(r), row)) {
                skipped[r] = true;
                continue;
            }
            overlay::Result result;
            try {
                result = settings.scoreOnly ? query.query->Score(fits[i].prepared)
                                            : query.query->Overlay(fits[i].prepared);
                std::move(raised.begin(), raised.end(), std::back_inserter(row.warnings));
                raised.clear();
            } catch (const std::exception& error) {
                std::move(raised.begin(), raised.end(), std::back_inserter(row.warnings));
                raised.clear();
                // One failing conformer does not lose the others.
                const std::string message = "conformer " + std::to_string(i + 1) +
                                            " could not be overlaid: " + error.what();
                row.warnings.push_back(message);
                if (firstError[r].empty()) {
                    firstError[r] = message;
                }
                continue;
            }
            ++outcome.overlays;
            used[r][i] = true;
            const double score = RankScore(settings.rankBy, result.scores);
            if (row.conformer == 0 || RanksBefore(score, row.rankScore)) {
                row.conformer = static_cast<unsigned int>(i + 1);
                row.query = query.molecule;
                row.queryConformer = query.conformer;
                row.result = result;
                row.rankScore = score;
                bestFit[r] = i;
            }
        }
    }
    outcome.overlayTime = Clock::now() - start;
    outcome.conformers = static_cast<unsigned long>(fits.size());
    for (std::size_t r = 0; r < rankings; ++r) {
        Row& row = outcome.rows[r];
        row.title = entry.title;
        row.conformers = 0;
        for (bool u : used[r]) {
            row.conformers += u ? 1u : 0u;
        }
        const Fit& fit = fits[bestFit[r]];
        row.file = fit.file;
        row.record = fit.record;
        if (row.conformer == 0) {
            row.query = settings.perQuery ? r : 0;
            row.rankScore = NAN;
            row.skippedByBound = firstError[r].empty() && skipped[r];
            if (!row.skippedByBound) {
                row.error =
                    firstError[r].empty() ? "no conformer could be overlaid" : firstError[r];
            }
        }
    }
}

/// Keeps, for each row that may still enter its hit list, the conformer to write.
void KeepCandidates(const ScreenSettings& settings, const Thresholds& thresholds,
                    const PreparedEntry& entry, const std::vector<std::size_t>& bestFit,
                    Outcome& outcome) {
    outcome.candidates.assign(outcome.rows.size(), Hit());
    for (std::size_t r = 0; r < outcome.rows.size(); ++r) {
        const Row& row = outcome.rows[r];
        Hit& candidate = outcome.candidates[r];
        candidate.score = NAN;
        // A newcomer must beat the last hit: a tie loses, as it comes later in input order.
        if (!row.Ok() || !PassesCutoff(row.rankScore, settings.cutoff) ||
            !(row.rankScore > thresholds.Get(r))) {
            continue;
        }
        const Fit& fit = entry.fits[bestFit[r]];
        candidate.conformer = fit.conformer;
        candidate.score = row.rankScore;
        candidate.library = entry.library;
        candidate.libraryConformer = fit.libraryConformer;
    }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Queries

QuerySet MakeQueries(const std::vector<io::Molecule>& molecules,
                     const overlay::Settings& settings) {
    QuerySet queries;
    for (std::size_t m = 0; m < molecules.size(); ++m) {
        queries.titles.push_back(molecules[m].title);
        const std::vector<io::Conformer>& conformers = molecules[m].conformers;
        for (std::size_t k = 0; k < conformers.size(); ++k) {
            const io::Conformer& conformer = conformers[k];
            if (settings.electrostatics && !io::HasFiniteCharges(conformer.Mol())) {
                throw QueryError("cannot use the query " + io::DescribeSource(conformer) +
                                 ": its partial charges are not finite numbers; the "
                                 "electrostatic density needs them");
            }
            const std::string cloud = overlay::CloudProblem(conformer.Mol());
            if (!cloud.empty()) {
                throw QueryError("cannot use the query " + io::DescribeSource(conformer) + ": " +
                                 cloud);
            }
            QueryConformer query;
            query.molecule = m;
            query.conformer = static_cast<unsigned int>(k + 1);
            query.source = conformer;
            std::vector<std::string> warnings;
            try {
                MessageCapture capture(warnings);
                query.query = std::make_shared<const overlay::Query>(
                    conformer.Mol(), settings, ColourFeaturesOf(conformer.Features()));
            } catch (const std::exception& error) {
                throw QueryError("cannot prepare the query " + io::DescribeSource(conformer) +
                                 ": " + error.what());
            }
            for (const std::string& warning : warnings) {
                queries.problems.push_back(
                    {conformer.File(), conformer.Record(), conformer.Title(), warning, false});
            }
            queries.conformers.push_back(std::move(query));
        }
    }
    if (queries.conformers.empty()) {
        throw QueryError("no query molecule");
    }
    return queries;
}

// ---------------------------------------------------------------------------------------------
// Row tallies

void RowTally::Add(const Row& row, std::size_t ranking, double cutoff) {
    ++rows;
    if (ranking >= passing.size()) {
        passing.resize(ranking + 1, 0);
    }
    passing[ranking] += row.Ok() && PassesCutoff(row.rankScore, cutoff) ? 1 : 0;
    warnings += row.warnings.size();
    skippedByBound += row.skippedByBound ? 1 : 0;
    if (!row.Ok() && failedRows.size() < kKept) {
        failedRows.push_back(row);
    }
    if (!row.warnings.empty() && warnedRows.size() < kKept) {
        warnedRows.push_back(row);
    }
}

void RowTally::Add(const RowTally& later) {
    rows += later.rows;
    if (later.passing.size() > passing.size()) {
        passing.resize(later.passing.size(), 0);
    }
    for (std::size_t r = 0; r < later.passing.size(); ++r) {
        passing[r] += later.passing[r];
    }
    warnings += later.warnings;
    skippedByBound += later.skippedByBound;
    for (std::size_t i = 0; i < later.failedRows.size() && failedRows.size() < kKept; ++i) {
        failedRows.push_back(later.failedRows[i]);
    }
    for (std::size_t i = 0; i < later.warnedRows.size() && warnedRows.size() < kKept; ++i) {
        warnedRows.push_back(later.warnedRows[i]);
    }
}

// ---------------------------------------------------------------------------------------------
// Screening

DatabaseRequirements RequirementsOf(const QuerySet& queries, const ScreenSettings& settings) {
    const overlay::Settings& overlaySettings = queries.conformers.front().query->GetSettings();
    DatabaseRequirements requirements;
    requirements.hydrogens = settings.read.hydrogens;
    requirements.charges = overlaySettings.electrostatics;
    requirements.chargeModel = settings.read.charges;
    requirements.colour = overlaySettings.colour;
    requirements.features = settings.read.features;
    return requirements;
}

ScreenReport Screen(const QuerySet& queries, Database database, const ScreenSettings& settings,
                    const ScreenCallbacks& callbacks, RunControl& control) {
    const Clock::time_point start = Clock::now();
    const overlay::Settings& overlaySettings = queries.conformers.front().query->GetSettings();
    io::ReadOptions read = settings.read;
    read.computeCharges = overlaySettings.electrostatics;
    read.chargesRequired = overlaySettings.electrostatics;
    read.cancel = &control.Flag();

    if (!overlaySettings.colour) {
        read.features.reset();  // no perception where no colour is scored
    }
    std::unique_ptr<Database::Reader> reader = database.Open(RequirementsOf(queries, settings));

    const std::size_t rankings = settings.perQuery ? queries.titles.size() : 1;
    std::vector<BestList<Hit>> lists(rankings, BestList<Hit>(settings.best));
    Thresholds thresholds(rankings);
    std::vector<overlay::ScoreBound> bounds;
    if (settings.skipByBound && !settings.scoreOnly) {
        bounds.reserve(queries.conformers.size());
        for (const QueryConformer& query : queries.conformers) {
            bounds.emplace_back(*query.query);
        }
    }
    ScreenReport report;
    Clock::duration overlayTime{};
    std::size_t position = 0;

    const std::function<std::vector<Outcome>(SourceMolecule&)> process =
        [&](SourceMolecule& source) {
            std::vector<Outcome> outcomes;
            for (PreparedEntry& entry :
                 PrepareEntry(source, read, overlaySettings, overlaySettings.electrostatics)) {
                Outcome outcome;
                std::vector<std::size_t> bestFit;
                OverlayEntry(queries, settings, bounds, thresholds, control, entry, outcome,
                             bestFit);
                KeepCandidates(settings, thresholds, entry, bestFit, outcome);
                outcome.problems = std::move(entry.problems);
                outcomes.push_back(std::move(outcome));
            }
            return outcomes;
        };
    const std::function<void(Outcome&)> rank = [&](Outcome& outcome) {
        report.problems.Add(outcome.problems);
        if (outcome.rows.empty()) {
            return;
        }
        ++report.counts.molecules;
        report.counts.conformers += outcome.conformers;
        report.counts.overlays += outcome.overlays;
        overlayTime += outcome.overlayTime;
        for (std::size_t r = 0; r < outcome.rows.size(); ++r) {
            Row& row = outcome.rows[r];
            row.position = position;
            if (callbacks.row) {
                callbacks.row(row);
            }
            report.failed += row.Ok() ? 0 : 1;
            report.tally.Add(row, r, settings.cutoff);
            Hit& candidate = outcome.candidates[r];
            if (std::isnan(candidate.score)) {
                continue;
            }
            candidate.row = std::move(row);
            candidate.position = position;
            lists[r].Offer(std::move(candidate));
            thresholds.Set(r, lists[r].Threshold());
        }
        ++position;
    };

    const PipelineOptions options{settings.threads, settings.queueCapacity};
    const PipelineStatistics statistics =
        RunOverMolecules(*reader, settings.batchSize, options, control, process, rank,
                         PollCallbacks(callbacks, report.counts, control));

    report.interrupted = statistics.cancelled;
    report.peakInFlight = statistics.peakInFlight;
    report.overlaySeconds = std::chrono::duration<double>(overlayTime).count();
    for (BestList<Hit>& list : lists) {
        std::vector<Hit> hits = list.Sorted();
        for (std::size_t i = 0; i < hits.size(); ++i) {
            hits[i].rank = i + 1;
        }
        report.hits.push_back(std::move(hits));
    }
    if (!report.interrupted) {
        database.FinishHits(report);
    }
    report.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    return report;
}

}  // namespace hermite::screen
