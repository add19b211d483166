/// \file
/// Stopping a command by signals: SIGINT, SIGTERM and SIGHUP ask the run to wind down with no
/// output written, a second one ends the process at once; SIGPIPE is ignored.
#pragma once

namespace hermite::cli {

/// Installs handlers for SIGINT, SIGTERM and SIGHUP that set the flag returned by
/// `Interrupted`; a second such signal removes the temporary files of all outputs
/// (`io::RemoveTemporaryFilesNow`) and ends the process at once with `kExitInterrupted`.
/// Also ignores SIGPIPE, so that writing to a reader that went away is an error to report.
void CatchInterrupts();

/// True once SIGINT, SIGTERM or SIGHUP arrived after `CatchInterrupts`.
bool Interrupted();

}  // namespace hermite::cli
