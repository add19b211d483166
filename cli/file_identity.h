/// \file
/// Outputs that would destroy inputs: every command refuses, before any work, an output path
/// that names an input file or another output. Files are compared by identity (device and
/// inode, through symbolic links), not by spelling, so "./a.sdf", "a.sdf" and a link to it are
/// the same file. Character devices (such as /dev/null) may take several outputs.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace hermite::cli {

/// An output of a command: the option that names it ("--out") and its path (empty: none).
using NamedOutput = std::pair<std::string, std::string>;

/// Throws `UsageError` (exit status 2) when an output is the same file as an input or as
/// another output, e.g. "--out names the input file db.sdf; refusing to overwrite it". Two
/// outputs that do not exist yet clash when they name the same place.
void RequireDistinctFiles(const std::vector<std::string>& inputs,
                          const std::vector<NamedOutput>& outputs);

}  // namespace hermite::cli
