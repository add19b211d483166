/// \file
/// The two hidden commands through which Python's distributed screening (hermite.distributed)
/// drives the tool, so that the Python module itself never loads the chemistry toolkit the
/// tool is built on:
///
/// - `hermite _overlay-coordinator IN_FD OUT_FD PART_SIZE PROGRAM <overlay arguments>` runs
///   `hermite overlay` (outputs, messages and exit status as the tool's, "PROGRAM overlay: "
///   before messages) with its database split into parts of about PART_SIZE molecules. It
///   writes the parts to OUT_FD and merges the screened parts it reads from IN_FD, in any
///   order.
/// - `hermite _overlay-worker` serves requests on standard input: each is one part of an
///   overlay command line, screened here, its encoded result written to standard output.
///
/// Both speak in frames: an unsigned 64-bit little-endian byte count, then the bytes.
/// - Coordinator to client: one frame with the number of parts in decimal, then one frame per
///   part with its encoded slices (`screen::EncodePartSlices`).
/// - Client to coordinator: for each screened part, a frame with its index in decimal and a
///   frame with the part (`screen::EncodeScreenPart`). Closing the pipe early stops the run
///   (exit status 130 after a signal, 3 otherwise).
/// - Client to worker: frames of the working directory (relative paths mean what they mean
///   there, when it exists), the encoded slices, and the overlay arguments joined by NUL
///   characters.
/// - Worker to client: a status frame ("ok", "usage" for a bad command line, "error"), then
///   the encoded part or the message. The worker ends at the end of its input.
#pragma once

#include <string>
#include <vector>

namespace hermite::cli {

/// The names of the hidden commands.
inline constexpr char kCoordinatorCommand[] = "_overlay-coordinator";
inline constexpr char kWorkerCommand[] = "_overlay-worker";

/// `hermite _overlay-coordinator` with the arguments after its name; returns the exit status.
int RunOverlayCoordinator(const std::vector<std::string>& arguments);

/// `hermite _overlay-worker` (no arguments); returns the exit status.
int RunOverlayWorker(const std::vector<std::string>& arguments);

}  // namespace hermite::cli
