/// \file
/// Progress of long runs on standard error.
///
/// On a terminal (standard error is a tty) one line is redrawn about five times a second: a
/// bar, molecules done out of the total, overlays per second and the estimated time left.
/// Otherwise (a log file, a pipe) a plain line is printed every 5 seconds or whenever another
/// tenth of the work is done, whichever comes first:
///
///     overlay: 1200/47000 molecules, 850 overlays/s, ETA 55 s
///
/// The total is not known at the start: it is counted in the background by a quick pass over
/// the input files that splits them into records without any chemistry (`MoleculeCounter`).
/// Until the count is in (or when it cannot be made), progress shows the molecules done and
/// the rate without a bar or ETA. Nothing is printed during the first half second, so short
/// runs stay quiet apart from their summary.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace hermite::cli {

/// Reports progress from a thread of its own; `Advance` and `SetTotal` may be called from any
/// thread.
class ProgressReporter {
public:
    /// `label` starts every line ("overlay"); `unit` names the work whose rate is shown
    /// ("overlays"); nothing is shown unless `enabled`.
    ProgressReporter(std::string label, bool enabled, std::string unit = "overlays");
    ~ProgressReporter();
    ProgressReporter(const ProgressReporter&) = delete;
    ProgressReporter& operator=(const ProgressReporter&) = delete;

    /// Starts the clock and, when enabled, the reporting thread.
    void Start();
    /// Stops the reporting thread and clears the terminal line. Idempotent.
    void Stop();

    /// The number of molecules in all (0: not known).
    void SetTotal(unsigned long molecules) { total_.store(molecules); }
    /// The work done so far: molecules and units of work (overlays, conformers).
    void Update(unsigned long molecules, unsigned long work);

    /// Seconds since `Start`.
    double Elapsed() const;

private:
    using Clock = std::chrono::steady_clock;

    void Run();
    /// The text of a progress report (without line ends).
    std::string Report(bool forTerminal) const;

    std::string label_;
    std::string unit_;
    bool enabled_;
    bool terminal_;
    Clock::time_point start_;
    std::atomic<unsigned long> total_{0};
    std::atomic<unsigned long> molecules_{0};
    std::atomic<unsigned long> overlays_{0};
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    bool lineShown_ = false;
    std::thread thread_;
};

/// Counts the molecules of files in a background thread, for the progress total: SD records
/// (consecutive records with the same non-empty title count once), MOL2 records, SMILES
/// lines and the molecules of prepared libraries. Reads the files as text only, much faster
/// than the chemistry.
class MoleculeCounter {
public:
    /// Starts counting `paths`; calls `reporter.SetTotal` with the sum when done. Files that
    /// cannot be read count as 0.
    MoleculeCounter(std::vector<std::string> paths, ProgressReporter& reporter);
    /// Stops counting (if still running) and waits for the thread.
    ~MoleculeCounter();
    MoleculeCounter(const MoleculeCounter&) = delete;
    MoleculeCounter& operator=(const MoleculeCounter&) = delete;

private:
    /// The molecules of one file (stops early, returning 0, when asked to stop).
    unsigned long Count(const std::string& path) const;

    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/// "1 h 02 min", "3 min 05 s", "42 s": a duration for people.
std::string FormatDuration(double seconds);

}  // namespace hermite::cli
