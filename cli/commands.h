/// \file
/// The subcommands of `hermite`. Each takes the arguments after its name and returns the exit
/// status (see `ExitStatus`); usage errors are thrown as `UsageError` and reported by `main`.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli/arguments.h"

namespace hermite::cli {

/// One subcommand: its name, a one-line summary, its parser (for the help) and its body.
struct Command {
    const char* name;
    const char* summary;
    ArgumentParser (*parser)();
    int (*run)(const CommandLine& line);
};

/// `hermite overlay`: overlays and ranks database molecules against a query.
ArgumentParser OverlayParser();
int RunOverlay(const CommandLine& line);

/// `hermite prepare`: turns molecule files into a prepared library.
ArgumentParser PrepareParser();
int RunPrepare(const CommandLine& line);

/// `hermite grid`: renders a molecule's Hermite density onto a map file.
ArgumentParser GridParser();
int RunGrid(const CommandLine& line);

/// `hermite expand`: prints a molecule's Hermite expansion as JSON.
ArgumentParser ExpandParser();
int RunExpand(const CommandLine& line);

/// Every subcommand, in the order of the help.
const std::vector<Command>& Commands();

/// Runs `body` as the tool runs a command: its exit status, or, after printing the error with
/// `prefix` ("hermite overlay: "), the exit status of the error (2 for `UsageError`, 3 for
/// others, 130 after an interrupt); then checks that standard output could be written (3 and
/// a message if not: output cut short must not look like success).
int RunReportingErrors(const std::string& prefix, const std::function<int()>& body);

}  // namespace hermite::cli
