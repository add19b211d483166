// `hermite prepare`: turns SD, MOL2 and SMILES files into a prepared library.

#include <iostream>
#include <thread>

#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/file_identity.h"
#include "cli/interrupts.h"
#include "cli/library_errors.h"
#include "cli/molecule_reading.h"
#include "cli/progress.h"
#include "cli/text_format.h"
#include "screen/pipeline.h"
#include "screen/prepare.h"

namespace hermite::cli {

namespace {

/// Problems listed one by one in the summary; the rest are counted.
constexpr std::size_t kListedProblems = 20;

/// Prints the problems of a preparation under a heading, the first `kListedProblems` of them.
void PrintProblems(const screen::ProblemLog& log) {
    const unsigned long total = log.Files() + log.Records() + log.Partial();
    if (total == 0) {
        return;
    }
    std::cerr << "hermite prepare: " << total << " problem" << (total == 1 ? "" : "s") << ":\n";
    const std::vector<io::Problem>& problems = log.Kept();
    for (std::size_t i = 0; i < problems.size() && i < kListedProblems; ++i) {
        std::cerr << "  " << problems[i].Message() << (problems[i].skipped ? "" : " (kept)")
                  << "\n";
    }
    if (total > kListedProblems) {
        std::cerr << "  ... and " << total - kListedProblems << " more\n";
    }
}

}  // namespace

ArgumentParser PrepareParser() {
    ArgumentParser parser(
        "prepare", "INPUT [INPUT...] --out LIBRARY [options]",
        "Reads SD, MOL2 and SMILES files (each also gzip-compressed) and writes one prepared "
        "library: for every conformer of every usable molecule, the atoms of its densities with "
        "their partial charges, its principal frame, its title, source file and record, and "
        "its whole record (every atom, the SD data items), so that 'hermite overlay --db "
        "LIBRARY' screens it in chunks without any chemistry and gives exactly the scores of "
        "the source files. SMILES get generated conformers (see --conformers, --minimize, "
        "--prune-rms). The library is an HDF5 file (extension .h5; readable with h5py; its "
        "layout is documented in docs/prepared-library.md) with checksums on every dataset; it "
        "appears complete or not at all.\n"
        "\n"
        "Screens of a library must select the same atoms (--hydrogens) as its preparation; "
        "electrostatic screens need its charges (the --charges model, computed by default); "
        "colour screens use its colour features, perceived with the built-in definitions or "
        "those of --features.\n"
        "\n"
        "Exit status: 0 when everything was read; 1 when a record or file was skipped (the "
        "library is still written); 2 for a mistake on the command line; 3 when the library "
        "cannot be written; 130 when interrupted (no library written).");
    parser
        .RepeatedPositional("INPUT",
                            "Molecule files (SD, MOL2 or SMILES, optionally .gz), read in order.")
        .Option("--out", "LIBRARY", "The prepared library to write (.h5).", true)
        .Flag("--no-charges",
              "Do not compute partial charges (the library then serves shape screens only).")
        .Option("--threads", "T",
                "Worker threads: 0 (the default) for all cores, a negative -n for all cores but "
                "n, a positive number for that many.")
        .Option("--features", "FILE",
                "Perceive the colour features with this RDKit feature-definition (.fdef) file "
                "instead of the built-in definitions; colour screens of the library must then "
                "give the same file.");
    AddReadOptions(parser);
    parser.Flag("--quiet", "No progress and no summary on standard error.");
    return parser;
}

int RunPrepare(const CommandLine& line) {
    screen::PrepareSettings settings;
    settings.read = ReadOptionsFrom(line);
    settings.read.features = FeatureDefinitionsOption(line);
    settings.charges = !line.Has("--no-charges");
    const long long threads = IntegerOption(line, "--threads", 0, -100000, 100000);
    settings.threads = screen::ResolveThreadCount(threads, std::thread::hardware_concurrency());
    const std::vector<std::string> inputs = line.Positionals();
    const std::string output = line.Value("--out");
    const bool quiet = line.Has("--quiet");
    RequireDistinctFiles(inputs, {{"--out", output}});

    LibraryErrors libraryErrors("prepare");
    io::SetRDKitLogging(false);
    CatchInterrupts();

    io::PreparedLibraryWriter writer(output, screen::PreparationOf(settings));
    if (!writer.Ok()) {
        throw FatalError("cannot write the library: " + writer.Error());
    }
    ProgressReporter progress("prepare", !quiet, "conformers");
    screen::PrepareCallbacks callbacks;
    callbacks.progress = [&](const screen::PrepareProgress& counts) {
        progress.Update(counts.molecules, counts.conformers);
    };
    callbacks.stop = [] { return Interrupted(); };
    screen::PrepareReport report;
    {
        std::unique_ptr<MoleculeCounter> counter;
        if (!quiet) {
            counter = std::make_unique<MoleculeCounter>(inputs, progress);
        }
        progress.Start();
        screen::RunControl control;
        report = screen::PrepareLibrary(inputs, writer, settings, callbacks, control);
        progress.Stop();
    }
    if (report.interrupted) {
        std::cerr << "hermite prepare: interrupted; no library written\n";
        return kExitInterrupted;
    }
    if (!report.writeError.empty() || !writer.Commit()) {
        throw FatalError("cannot write the library: " +
                         (report.writeError.empty() ? writer.Error() : report.writeError));
    }
    if (!quiet) {
        const double rate = report.seconds > 0.0 ? report.counts.conformers / report.seconds : 0.0;
        std::cerr << "hermite prepare: " << report.counts.molecules << " molecules, "
                  << report.counts.conformers << " conformers written to " << output << " in "
                  << FormatFixed(report.seconds, 2) << " s (" << FormatFixed(rate, 1)
                  << " conformers/s, " << settings.threads << " thread"
                  << (settings.threads == 1 ? "" : "s") << ")\n";
        PrintProblems(report.problems);
    }
    return report.problems.AnySkipped() ? kExitSkipped : kExitOk;
}

}  // namespace hermite::cli
