/// \file
/// `hermite overlay` with a replaceable screen: the command as the tool runs it (one screen on
/// this machine), or with its database screened in parts elsewhere and merged here (the
/// coordinator of distributed screening, see cli/cluster_commands.h). Either way the command line,
/// the outputs, the messages and the exit status are the tool's.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "cli/arguments.h"
#include "screen/screen.h"

namespace hermite::cli {

/// What screening the database of an overlay command line needs.
struct OverlayPlan {
    /// The database files, in the order given.
    std::vector<std::string> databasePaths;
    /// Every conformer of every query molecule, prepared.
    screen::QuerySet queries;
    /// The screen's settings (threads resolved on this machine).
    screen::ScreenSettings settings;
    /// Every row is written (--scores); otherwise the rows' tally is all the outputs need.
    bool rowsWanted = false;
};

/// Screens the plan's database as `screen::Screen` does: rows to `callbacks.row` in input
/// order, progress and stop requests through the other callbacks.
using OverlayScreen = std::function<screen::ScreenReport(const OverlayPlan& plan,
                                                         const screen::ScreenCallbacks& callbacks,
                                                         screen::RunControl& control)>;

/// Runs `hermite overlay` for a parsed command line, with `screen` screening the database;
/// SIGINT, SIGTERM and SIGHUP stop it with no output written. Returns the exit status; throws
/// `UsageError` and `FatalError` as the tool's commands do.
int RunOverlayWith(const CommandLine& line, const OverlayScreen& screen);

/// The plan of an overlay command line (the arguments after "overlay"), with its queries read
/// and prepared: what a part of its screen needs wherever it runs. Throws `UsageError` and
/// `FatalError` as `hermite overlay` does.
OverlayPlan PlanOverlay(const std::vector<std::string>& arguments);

}  // namespace hermite::cli
