/// \file
/// The exit statuses of the subcommands of `hermite`, and `FatalError`, the failure that ends a
/// command with `kExitUnusable`. Mistakes on the command line are `UsageError` (cli/arguments.h).
#pragma once

#include <stdexcept>

namespace hermite::cli {

/// Exit statuses of every subcommand.
enum ExitStatus : int {
    kExitOk = 0,            ///< everything was read and processed
    kExitSkipped = 1,       ///< some record or file was skipped; the results are still written
    kExitUsage = 2,         ///< a mistake on the command line
    kExitUnusable = 3,      ///< an output could not be written, or the input molecule not read
    kExitInterrupted = 130  ///< stopped by SIGINT, SIGTERM or SIGHUP; no output written
};

/// A failure that stops a command with exit status 3 (message printed as
/// "hermite <command>: <message>").
class FatalError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace hermite::cli
