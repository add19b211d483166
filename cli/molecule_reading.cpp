// Options of molecule reading, --order, and the one input molecule of grid and expand.

#include "cli/molecule_reading.h"

#include <iostream>

#include "cli/exit_status.h"
#include "io/features.h"
#include "overlay/overlay.h"

namespace hermite::cli {

namespace {

/// The largest legal expansion order.
constexpr long long kMaxOrder = 100;

}  // namespace

void AddReadOptions(ArgumentParser& parser, const std::string& seedAlsoFor) {
    parser.Flag("--hydrogens",
                "Include the hydrogens of the records in the densities (default: heavy atoms "
                "only; the charges of hydrogens are then added to their heavy atoms).");
    parser.Option("--charges", "MODEL",
                  "Partial charges for the electrostatic density: gasteiger (default), mmff "
                  "(MMFF94) or input (MOL2 atom charges or an SD data item with one charge per "
                  "atom).");
    parser.Option("--conformers", "N",
                  "Conformers generated for each SMILES (RDKit ETKDG), 1 to 1000; default 10.");
    parser.Option("--seed", "S",
                  "Random seed of the SMILES conformer generation" +
                      (seedAlsoFor.empty() ? std::string() : " and of " + seedAlsoFor) +
                      ", 0 to 4294967295; default 42. The same seed gives the same results. "
                      "Each SMILES line is embedded with its own seed, a hash of S and the line "
                      "number, so results do not depend on the number of threads.");
    parser.Flag("--minimize",
                "Minimise every generated SMILES conformer with the MMFF94 force field (at most "
                "200 iterations).");
    parser.Option("--prune-rms", "R",
                  "Drop generated SMILES conformers within R angstrom heavy-atom RMS of an "
                  "earlier one, 0 to 10; default 0 (keep all).");
    parser.Option("--conformer-time-limit", "SECONDS",
                  "Skip a SMILES, with a message, whose conformer generation takes longer than "
                  "this, 0 (no limit) to 86400; default 60. Checked between embedding attempts.");
}

io::ReadOptions ReadOptionsFrom(const CommandLine& line) {
    io::ReadOptions options;
    options.hydrogens = line.Has("--hydrogens");
    if (line.Has("--charges")) {
        const std::optional<io::ChargeModel> model = io::ParseChargeModel(line.Value("--charges"));
        if (!model) {
            throw UsageError("--charges must be gasteiger, mmff or input, got " +
                             line.Value("--charges"));
        }
        options.charges = *model;
    }
    options.smilesConformers =
        static_cast<unsigned int>(IntegerOption(line, "--conformers", 10, 1, 1000));
    options.seed = static_cast<unsigned int>(IntegerOption(line, "--seed", 42, 0, 4294967295LL));
    options.minimize = line.Has("--minimize");
    options.pruneRms = RealOption(line, "--prune-rms", 0.0, 0.0, 10.0);
    options.conformerTimeLimit = RealOption(line, "--conformer-time-limit", 60.0, 0.0, 86400.0);
    return options;
}

std::shared_ptr<const io::FeatureDefinitions> FeatureDefinitionsOption(const CommandLine& line) {
    if (!line.Has("--features")) {
        return std::make_shared<const io::FeatureDefinitions>(io::FeatureDefinitions::Default());
    }
    try {
        return std::make_shared<const io::FeatureDefinitions>(
            io::FeatureDefinitions::FromFile(line.Value("--features")));
    } catch (const std::exception& error) {
        throw UsageError(std::string("--features: ") + error.what());
    }
}

void AddOrderOption(ArgumentParser& parser, unsigned int defaultOrder) {
    parser.Option("--order", "N",
                  "Order of the Hermite expansions, an integer from 0 to 100; default " +
                      std::to_string(defaultOrder) + ".");
}

unsigned int OrderFrom(const CommandLine& line, unsigned int defaultOrder) {
    return static_cast<unsigned int>(IntegerOption(line, "--order", defaultOrder, 0, kMaxOrder));
}

FirstMolecule ReadFirstMolecule(const std::string& path, const io::ReadOptions& options) {
    io::MoleculeReader reader(path, options);
    io::Molecule molecule;
    FirstMolecule first;
    if (!reader.Next(molecule)) {
        std::string message = "no usable molecule in " + path;
        const std::vector<io::Problem>& problems = reader.Problems();
        if (problems.size() == 1 && problems.front().record == 0) {
            message = problems.front().Message();
        } else {
            for (const io::Problem& problem : problems) {
                message += "\n  " + problem.Message();
            }
        }
        throw FatalError(message);
    }
    first.problems = reader.Problems();
    first.conformer = molecule.conformers.front();
    first.conformers = molecule.conformers.size();
    io::Molecule next;
    first.hasMore = molecule.conformers.size() > 1 || reader.Next(next);
    return first;
}

FirstMolecule ReadInputMolecule(const std::string& command, const std::string& path,
                                const io::ReadOptions& options, bool needCharges) {
    FirstMolecule first = ReadFirstMolecule(path, options);
    for (const io::Problem& problem : first.problems) {
        std::cerr << "hermite " << command << ": " << (problem.skipped ? "skipped " : "warning: ")
                  << problem.Message() << "\n";
    }
    if (needCharges && !HasFiniteCharges(first.conformer.Mol())) {
        throw FatalError("cannot use " + DescribeSource(first.conformer) +
                         ": its partial charges are not finite numbers; the electrostatic "
                         "density needs them");
    }
    const std::string cloud = overlay::CloudProblem(first.conformer.Mol());
    if (!cloud.empty()) {
        throw FatalError("cannot use " + DescribeSource(first.conformer) + ": " + cloud);
    }
    if (first.hasMore) {
        std::cerr << "hermite " << command << ": note: " << path
                  << " holds more than one molecule or conformer; using the first, "
                  << DescribeSource(first.conformer) << "\n";
    }
    return first;
}

bool AnySkipped(const std::vector<io::Problem>& problems) {
    for (const io::Problem& problem : problems) {
        if (problem.skipped) {
            return true;
        }
    }
    return false;
}

}  // namespace hermite::cli
