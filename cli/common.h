/// \file
/// What the subcommands share: exit statuses, the options that describe how molecules are read,
/// thread counts, the library's error handler, interruption by signals, reading the one
/// molecule a command works on, and number formatting.
#pragma once

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

#include "cli/arguments.h"
#include "io/molecule_io.h"
#include "screen/pipeline.h"

namespace hermite::cli {

using io::DescribeSource;
using io::HasFiniteCharges;
using screen::ResolveThreadCount;

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

/// A fatal error reported by the library through `QVSystem::QVThrow` (see `LibraryErrors`).
class LibraryError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// =============================================================================================
// Reading molecules

/// Adds the options of molecule reading that commands share: --hydrogens, --charges,
/// --conformers and --seed; `seedAlsoFor` names what else the seed drives (empty: nothing).
void AddReadOptions(ArgumentParser& parser, const std::string& seedAlsoFor = "");

/// The `io::ReadOptions` of a command line with the options of `AddReadOptions`.
io::ReadOptions ReadOptionsFrom(const CommandLine& line);

/// The colour feature definitions of --features FILE (an RDKit .fdef file), or the built-in
/// ones when the option is absent. Throws `UsageError` naming the file and the line when the
/// file cannot be used.
std::shared_ptr<const io::FeatureDefinitions> FeatureDefinitionsOption(const CommandLine& line);

/// Adds --order N (0 to 100, default `defaultOrder`).
void AddOrderOption(ArgumentParser& parser, unsigned int defaultOrder);

/// The --order of a command line ("--order must be an integer from 0 to 100, got 101").
unsigned int OrderFrom(const CommandLine& line, unsigned int defaultOrder);

/// The first conformer of the first molecule of a file, with what reading it took.
struct FirstMolecule {
    io::Conformer conformer;
    /// The problems met before the molecule was found (skipped records), in file order.
    std::vector<io::Problem> problems;
    /// True when the file holds more than this conformer (more conformers or molecules).
    bool hasMore = false;
    /// The number of conformers of the first molecule.
    std::size_t conformers = 0;
};

/// Reads the first molecule of `path`. Throws `FatalError` naming the file (and the problems
/// met) when it holds no usable molecule.
FirstMolecule ReadFirstMolecule(const std::string& path, const io::ReadOptions& options);

/// Reads the molecule `hermite grid` and `hermite expand` work on: the first conformer of the
/// first molecule of `path`. Throws `FatalError` when there is none, or when `needCharges` and
/// its partial charges are not finite. Prints a note to standard error when the file holds
/// more, and the problems met before the molecule (skipped records).
FirstMolecule ReadInputMolecule(const std::string& command, const std::string& path,
                                const io::ReadOptions& options, bool needCharges);

/// True when any of the problems made a record or file be skipped.
bool AnySkipped(const std::vector<io::Problem>& problems);

// =============================================================================================
// Library errors and signals

/// Routes the library's `QVThrow` messages for the lifetime of the object: warnings are printed
/// as "hermite <command>: warning: <text>" (or collected, in threads that set a collector with
/// `CollectWarnings`); fatal errors throw `LibraryError`. The previous handler is restored by
/// the destructor.
class LibraryErrors {
public:
    explicit LibraryErrors(std::string command);
    ~LibraryErrors();
    LibraryErrors(const LibraryErrors&) = delete;
    LibraryErrors& operator=(const LibraryErrors&) = delete;

    /// Makes the warnings raised in the calling thread go to `*sink` (null: print them again).
    static void CollectWarnings(std::vector<std::string>* sink);
};

/// Installs handlers for SIGINT, SIGTERM and SIGHUP that set the flag returned by
/// `Interrupted`; a second such signal removes the temporary files of all outputs
/// (`io::RemoveTemporaryFilesNow`) and ends the process at once with `kExitInterrupted`.
/// Also ignores SIGPIPE, so that writing to a reader that went away is an error to report.
void CatchInterrupts();

/// True once SIGINT, SIGTERM or SIGHUP arrived after `CatchInterrupts`.
bool Interrupted();

// =============================================================================================
// Formatting

/// `value` with `decimals` digits after the point ("nan" and "inf" as printf writes them).
std::string FormatFixed(double value, int decimals);

/// `value` with 17 significant digits, enough to read back the same double.
std::string FormatExact(double value);

/// `text` with tabs, carriage returns and newlines replaced by spaces (for one-line fields).
std::string OneLine(const std::string& text);

/// True when `path` ends with `suffix`, ignoring ASCII case.
bool EndsWithIgnoringCase(const std::string& path, const std::string& suffix);

}  // namespace hermite::cli
