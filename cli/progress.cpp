// Progress lines on standard error and the background count of the molecules to come.

#include "cli/progress.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <iostream>

#include "io/molecule_io.h"
#include "io/prepared_library.h"

namespace hermite::cli {

namespace {

/// Redraw interval on a terminal.
constexpr std::chrono::milliseconds kTerminalInterval(200);
/// Longest interval between plain lines.
constexpr double kLogInterval = 5.0;
/// Nothing is shown before this many seconds.
constexpr double kQuietStart = 0.5;
/// Width of the bar in characters.
constexpr int kBarWidth = 24;

/// A rate for people: no decimals from 100 on.
std::string FormatRate(double rate) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, rate >= 100.0 ? "%.0f" : "%.1f", rate);
    return buffer;
}

}  // namespace

std::string FormatDuration(double seconds) {
    char buffer[64];
    const long whole = std::lround(seconds);
    if (whole >= 3600) {
        std::snprintf(buffer, sizeof buffer, "%ld h %02ld min", whole / 3600, (whole % 3600) / 60);
    } else if (whole >= 60) {
        std::snprintf(buffer, sizeof buffer, "%ld min %02ld s", whole / 60, whole % 60);
    } else {
        std::snprintf(buffer, sizeof buffer, "%ld s", whole);
    }
    return buffer;
}

// =============================================================================================
// ProgressReporter

ProgressReporter::ProgressReporter(std::string label, bool enabled, std::string unit)
    : label_(std::move(label)),
      unit_(std::move(unit)),
      enabled_(enabled),
      terminal_(::isatty(STDERR_FILENO) == 1) {}

ProgressReporter::~ProgressReporter() {
    Stop();
}

void ProgressReporter::Start() {
    start_ = Clock::now();
    if (enabled_) {
        thread_ = std::thread([this]() { Run(); });
    }
}

void ProgressReporter::Stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_all();
    if (thread_.joinable()) {
        thread_.join();
    }
    if (lineShown_ && terminal_) {
        std::cerr << "\r\x1b[K" << std::flush;
        lineShown_ = false;
    }
}

void ProgressReporter::Update(unsigned long molecules, unsigned long work) {
    molecules_.store(molecules);
    overlays_.store(work);
}

double ProgressReporter::Elapsed() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
}

void ProgressReporter::Run() {
    double lastPrint = 0.0;
    long lastTenth = 0;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!wake_.wait_for(lock, kTerminalInterval, [this]() { return stopping_; })) {
        const double now = Elapsed();
        if (now < kQuietStart) {
            continue;
        }
        if (terminal_) {
            std::cerr << "\r" << Report(true) << "\x1b[K" << std::flush;
            lineShown_ = true;
            continue;
        }
        const unsigned long total = total_.load();
        const long tenth = total > 0 ? static_cast<long>(10 * molecules_.load() / total) : 0;
        if (now - lastPrint >= kLogInterval || tenth > lastTenth) {
            std::cerr << Report(false) << "\n" << std::flush;
            lastPrint = now;
            lastTenth = tenth;
        }
    }
}

std::string ProgressReporter::Report(bool forTerminal) const {
    const double elapsed = Elapsed();
    const unsigned long done = molecules_.load();
    const unsigned long overlays = overlays_.load();
    // The count is an estimate (records skipped later still count): never below what is done.
    unsigned long total = total_.load();
    if (total > 0 && total < done) {
        total = done;
    }
    const double rate = elapsed > 0.0 ? overlays / elapsed : 0.0;
    std::string text = forTerminal ? "" : label_ + ": ";
    if (forTerminal && total > 0) {
        const int filled = static_cast<int>(kBarWidth * static_cast<double>(done) / total);
        text += "[" + std::string(filled, '#') + std::string(kBarWidth - filled, '-') + "] ";
    }
    text += std::to_string(done);
    if (total > 0) {
        text += "/" + std::to_string(total);
    }
    text += std::string(" molecules") + (forTerminal ? "  " : ", ") + FormatRate(rate) + " " +
            unit_ + "/s";
    if (total > 0 && done > 0) {
        const double left = elapsed * static_cast<double>(total - done) / done;
        text += std::string(forTerminal ? "  " : ", ") + "ETA " + FormatDuration(left);
    }
    return text;
}

// =============================================================================================
// MoleculeCounter

MoleculeCounter::MoleculeCounter(std::vector<std::string> paths, ProgressReporter& reporter)
    : thread_([this, paths = std::move(paths), &reporter]() {
          unsigned long total = 0;
          for (const std::string& path : paths) {
              total += Count(path);
              if (stop_.load()) {
                  return;
              }
          }
          reporter.SetTotal(total);
      }) {}

MoleculeCounter::~MoleculeCounter() {
    stop_.store(true);
    if (thread_.joinable()) {
        thread_.join();
    }
}

unsigned long MoleculeCounter::Count(const std::string& path) const {
    if (io::IsPreparedLibrary(path)) {
        const io::PreparedLibraryReader library(path);
        return library.Ok() ? static_cast<unsigned long>(library.NumMolecules()) : 0;
    }
    io::RecordReader records(path);
    io::RecordGroup group;
    unsigned long molecules = 0;
    while (!stop_.load() && records.Next(group)) {
        ++molecules;
    }
    return stop_.load() ? 0 : molecules;
}

}  // namespace hermite::cli
