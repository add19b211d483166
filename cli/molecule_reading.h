/// \file
/// How the commands take in molecules: the options of molecule reading they share (--hydrogens,
/// --charges, --conformers, --seed and the conformer generation, --features) and the expansion
/// order (--order), and reading the one molecule that `hermite grid` and `hermite expand` work
/// on.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "cli/arguments.h"
#include "io/molecule_io.h"

namespace hermite::cli {

using io::DescribeSource;
using io::HasFiniteCharges;

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

}  // namespace hermite::cli
