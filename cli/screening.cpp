// Screening a database against a query: chunked reading, parallel overlays, bounded hit list.

#include "cli/screening.h"

#include <atomic>
#include <functional>
#include <limits>
#include <memory>
#include <thread>
#include <utility>

#include "cli/common.h"

namespace hermite::cli {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

/// Reads the database files one after the other and hands out their molecules in chunks.
/// Unusable files and records end up in the problem list, and reading goes on.
class ChunkReader {
public:
    ChunkReader(const std::vector<std::string>& paths, const io::ReadOptions& options,
                bool needCharges, std::vector<io::Problem>& problems)
        : paths_(paths), options_(options), needCharges_(needCharges), problems_(problems) {}

    /// Up to `size` more molecules; empty when every file is done.
    std::vector<io::Molecule> Next(std::size_t size) {
        std::vector<io::Molecule> chunk;
        io::Molecule molecule;
        while (chunk.size() < size && Current() != nullptr) {
            if (reader_->Next(molecule)) {
                TakeProblems();
                if (Usable(molecule)) {
                    chunk.push_back(std::move(molecule));
                }
            } else {
                TakeProblems();
                reader_.reset();
            }
        }
        return chunk;
    }

private:
    /// The reader of the file being read, opening the next file when needed; null at the end.
    io::MoleculeReader* Current() {
        while (reader_ == nullptr && next_ < paths_.size()) {
            problemsTaken_ = 0;
            reader_ = std::make_unique<io::MoleculeReader>(paths_[next_++], options_);
            if (!reader_->Ok()) {
                TakeProblems();
                reader_.reset();
            }
        }
        return reader_.get();
    }

    /// Moves the reader's new problems to the list.
    void TakeProblems() {
        const std::vector<io::Problem>& problems = reader_->Problems();
        for (; problemsTaken_ < problems.size(); ++problemsTaken_) {
            problems_.push_back(problems[problemsTaken_]);
        }
    }

    /// False (with a problem recorded) for a molecule whose charges are needed but not finite,
    /// as Gasteiger charges of metals can be.
    bool Usable(const io::Molecule& molecule) {
        if (!needCharges_) {
            return true;
        }
        for (const io::Conformer& conformer : molecule.conformers) {
            if (!HasFiniteCharges(conformer.Mol())) {
                io::Problem problem;
                problem.file = conformer.File();
                problem.record = conformer.Record();
                problem.title = conformer.Title();
                problem.reason = std::string("partial charges (") +
                                 io::ChargeModelName(options_.charges) +
                                 ") are not finite numbers; the electrostatic density needs them";
                problems_.push_back(problem);
                return false;
            }
        }
        return true;
    }

    const std::vector<std::string>& paths_;
    const io::ReadOptions& options_;
    bool needCharges_;
    std::vector<io::Problem>& problems_;
    std::size_t next_ = 0;
    std::size_t problemsTaken_ = 0;
    std::unique_ptr<io::MoleculeReader> reader_;
};

/// Runs `work(i)` for every i < count on `threads` threads: `threads - 1` workers start at
/// once, the calling thread joins in with `Finish`. Indices come from an atomic counter.
class ParallelLoop {
public:
    ParallelLoop(std::size_t count, unsigned int threads, std::function<void(std::size_t)> work)
        : count_(count), work_(std::move(work)) {
        const unsigned int state = CurrentFloatingPointState();
        for (unsigned int t = 1; t < threads && t < count; ++t) {
            workers_.emplace_back([this, state]() {
                SetFloatingPointState(state);
                Drain();
            });
        }
    }

    ~ParallelLoop() { Finish(); }
    ParallelLoop(const ParallelLoop&) = delete;
    ParallelLoop& operator=(const ParallelLoop&) = delete;

    /// Works on the remaining indices in the calling thread, then waits for the workers.
    void Finish() {
        Drain();
        for (std::thread& worker : workers_) {
            if (worker.joinable()) {
                worker.join();
            }
        }
    }

private:
    void Drain() {
        for (std::size_t i = next_.fetch_add(1); i < count_; i = next_.fetch_add(1)) {
            work_(i);
        }
    }

    std::size_t count_;
    std::function<void(std::size_t)> work_;
    std::atomic<std::size_t> next_{0};
    std::vector<std::thread> workers_;
};

/// Overlays or scores one conformer.
overlay::Result OverlayConformer(const overlay::Query& query, const io::Conformer& conformer,
                                 bool scoreOnly) {
    return scoreOnly ? query.Score(conformer.Mol()) : query.Overlay(conformer.Mol());
}

/// Adds a finished chunk to the results: its rows, and its molecules that may be hits.
void Collect(std::vector<io::Molecule>& chunk, std::vector<MoleculeOutcome>& outcomes,
             const ScreenSettings& settings, HitList& hits, ScreenResults& results) {
    for (std::size_t i = 0; i < chunk.size(); ++i) {
        MoleculeOutcome& outcome = outcomes[i];
        const std::size_t row = results.rows.size();
        if (outcome.Ok() && PassesCutoff(outcome.rankScore, settings.cutoff)) {
            hits.Offer({row, outcome.rankScore, chunk[i].conformers[outcome.conformer - 1],
                        outcome.result.transform});
        }
        ++results.molecules;
        results.overlays += outcome.conformers;
        results.rows.push_back(std::move(outcome));
    }
}

}  // namespace

MoleculeOutcome OverlayMolecule(const overlay::Query& query, const io::Molecule& molecule,
                                const ScreenSettings& settings) {
    MoleculeOutcome outcome;
    outcome.title = molecule.title;
    outcome.file = molecule.conformers.front().File();
    outcome.record = molecule.conformers.front().Record();
    outcome.rankScore = kNaN;
    LibraryErrors::CollectWarnings(&outcome.warnings);
    std::string firstError;
    for (std::size_t i = 0; i < molecule.conformers.size(); ++i) {
        const io::Conformer& conformer = molecule.conformers[i];
        try {
            const overlay::Result result = OverlayConformer(query, conformer, settings.scoreOnly);
            ++outcome.conformers;
            const double score = RankScore(settings.rankBy, result.scores);
            if (outcome.conformer == 0 || RanksBefore(score, outcome.rankScore)) {
                outcome.conformer = static_cast<unsigned int>(i + 1);
                outcome.file = conformer.File();
                outcome.record = conformer.Record();
                outcome.result = result;
                outcome.rankScore = score;
            }
        } catch (const std::exception& error) {
            // One failing conformer does not lose the others.
            const std::string message =
                "conformer " + std::to_string(i + 1) + " could not be overlaid: " + error.what();
            outcome.warnings.push_back(message);
            if (firstError.empty()) {
                firstError = message;
            }
        }
    }
    if (outcome.conformer == 0) {
        outcome.error = firstError.empty() ? "no conformer could be overlaid" : firstError;
    }
    LibraryErrors::CollectWarnings(nullptr);
    return outcome;
}

ScreenResults Screen(const overlay::Query& query, const std::vector<std::string>& databases,
                     const io::ReadOptions& readOptions, const ScreenSettings& settings,
                     ProgressReporter& progress) {
    ScreenResults results;
    HitList hits(settings.best);
    ChunkReader reader(databases, readOptions, settings.needCharges, results.problems);

    std::vector<io::Molecule> chunk = reader.Next(settings.chunkSize);
    while (!chunk.empty()) {
        std::vector<MoleculeOutcome> outcomes(chunk.size());
        std::vector<io::Molecule> next;
        {
            ParallelLoop loop(chunk.size(), settings.threads, [&](std::size_t i) {
                if (Interrupted()) {
                    return;
                }
                outcomes[i] = OverlayMolecule(query, chunk[i], settings);
                progress.Advance(1, outcomes[i].conformers);
            });
            // The next chunk is read while the workers overlay this one.
            if (!Interrupted()) {
                next = reader.Next(settings.chunkSize);
            }
            loop.Finish();
        }
        if (Interrupted()) {
            results.interrupted = true;
            break;
        }
        Collect(chunk, outcomes, settings, hits, results);
        chunk = std::move(next);
    }

    results.hits = hits.Sorted();
    std::vector<double> scores;
    scores.reserve(results.rows.size());
    for (const MoleculeOutcome& row : results.rows) {
        scores.push_back(row.Ok() ? row.rankScore : kNaN);
    }
    results.ranks = AssignRanks(scores, settings.cutoff);
    return results;
}

}  // namespace hermite::cli
