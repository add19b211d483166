/// \file
/// Preparing a library: every conformer of the input files parsed, its charges computed and
/// its principal frame found, on all worker threads, and written in input order to a prepared
/// library (see `io/prepared_library.h`), with memory bounded by the queue sizes.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "io/molecule_io.h"
#include "io/prepared_library.h"
#include "screen/database.h"
#include "screen/pipeline.h"

namespace hermite::screen {

/// How a library is prepared.
struct PrepareSettings {
    /// How the inputs are read: atom selection, charge model, conformer generation, colour
    /// feature definitions (`features`; none perceived when null). Charges that cannot be
    /// computed (metals) are kept as NaN with a note; such conformers can serve shape screens
    /// only.
    io::ReadOptions read;
    /// Compute partial charges (needed by electrostatic screens).
    bool charges = true;
    unsigned int threads = 1;
    /// Batches waiting for a worker at most (0: 4 per thread) and molecules per batch.
    std::size_t queueCapacity = 0;
    std::size_t batchSize = 16;
};

/// Counts of a running preparation.
struct PrepareProgress {
    unsigned long molecules = 0;
    unsigned long conformers = 0;
};

/// What the caller hears while a library is prepared.
using PrepareCallbacks = RunCallbacks<PrepareProgress>;

/// What a preparation did.
struct PrepareReport {
    PrepareProgress counts;
    /// Files and records that could not be used, and partial problems, in reading order.
    ProblemLog problems;
    std::size_t peakInFlight = 0;
    double seconds = 0.0;
    bool interrupted = false;
    /// Why writing the library failed; empty when it did not. The writer is not committed.
    std::string writeError;
};

/// The library's record of how it was prepared.
io::LibraryPreparation PreparationOf(const PrepareSettings& settings);

/// Reads `inputs` (molecule files) and adds every usable molecule to `writer`, in input order.
/// The caller commits the writer.
PrepareReport PrepareLibrary(const std::vector<std::string>& inputs,
                             io::PreparedLibraryWriter& writer, const PrepareSettings& settings,
                             const PrepareCallbacks& callbacks, RunControl& control);

}  // namespace hermite::screen
