/// \file
/// Screening: every molecule of the database files overlaid onto one query, in parallel.
///
/// The database is read on the calling thread (RDKit parsing, charges and conformer generation
/// are not shared with the workers) in chunks of molecules; while the workers overlay one
/// chunk, the next one is read. Workers take molecule indices from an atomic counter and touch
/// only the molecules' `QVChem::QVMol` data and their own result slot, so the results do not
/// depend on the number of threads or on timing. Ranking and every output happen afterwards, on
/// the calling thread, in input order.
///
/// Memory: the score rows of all molecules (titles and numbers) are kept; the parsed records
/// only of the molecules that can still be among the best hits.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "cli/progress.h"
#include "cli/ranking.h"
#include "io/molecule_io.h"
#include "overlay/overlay.h"

namespace hermite::cli {

/// How a screening run works and what it keeps.
struct ScreenSettings {
    /// Rank metric of the best conformer of each molecule and of the hits.
    RankMetric rankBy = RankMetric::Shape;
    /// Score the molecules in their input poses instead of overlaying them.
    bool scoreOnly = false;
    /// Hits need a rank score at least this high.
    double cutoff = 0.0;
    /// The number of hits kept (the best first).
    std::size_t best = 100;
    /// Worker threads (at least 1; the calling thread is one of them).
    unsigned int threads = 1;
    /// Molecules read ahead at a time.
    std::size_t chunkSize = 512;
    /// Check partial charges (the electrostatic density needs finite ones).
    bool needCharges = false;
};

/// The outcome for one database molecule: one row of the score table.
struct MoleculeOutcome {
    std::string title;
    /// The file and record of the conformer used (the first conformer when none could be).
    std::string file;
    unsigned int record = 0;
    /// The 1-based index of the best conformer (0 when none was overlaid).
    unsigned int conformer = 0;
    /// The number of conformers overlaid.
    unsigned int conformers = 0;
    /// The result of the best conformer.
    overlay::Result result;
    /// Its rank score.
    double rankScore = 0.0;
    /// Why the molecule could not be overlaid; empty when it was.
    std::string error;
    /// Warnings of the library raised while overlaying it.
    std::vector<std::string> warnings;

    bool Ok() const { return error.empty(); }
};

/// Everything a screening run produced.
struct ScreenResults {
    /// One row per molecule, in input order.
    std::vector<MoleculeOutcome> rows;
    /// The best hits, best first (at most `ScreenSettings::best`).
    std::vector<Hit> hits;
    /// The rank of each row (0: below the cutoff or not overlaid).
    std::vector<std::size_t> ranks;
    /// Records and files that could not be used, and partial problems, in reading order.
    std::vector<io::Problem> problems;
    /// Molecules read and conformers overlaid.
    unsigned long molecules = 0;
    unsigned long overlays = 0;
    /// True when the run stopped early because of SIGINT or SIGTERM.
    bool interrupted = false;
};

/// Overlays (or scores) every molecule of `databases` onto `query`.
ScreenResults Screen(const overlay::Query& query, const std::vector<std::string>& databases,
                     const io::ReadOptions& readOptions, const ScreenSettings& settings,
                     ProgressReporter& progress);

/// Overlays every conformer of `molecule` and keeps the best by the rank metric (the first of
/// equal ones). Never throws: failures end up in `MoleculeOutcome::error`.
MoleculeOutcome OverlayMolecule(const overlay::Query& query, const io::Molecule& molecule,
                                const ScreenSettings& settings);

}  // namespace hermite::cli
