// `hermite overlay`: screens database molecules against a query by shape (and electrostatics).

#include <algorithm>
#include <iostream>
#include <memory>
#include <thread>

#include "cli/commands.h"
#include "cli/common.h"
#include "cli/progress.h"
#include "cli/score_output.h"
#include "cli/screening.h"
#include "io/atomic_file.h"

namespace hermite::cli {

namespace {

/// Problems and warnings listed one by one in the summary; the rest are counted.
constexpr std::size_t kListedProblems = 20;
/// Rows of the ranked table on standard output at most.
constexpr std::size_t kTableRows = 10;

/// Everything the command line of `hermite overlay` asks for.
struct OverlayRequest {
    std::string queryPath;
    std::vector<std::string> databasePaths;
    std::string hitsPath;    ///< empty: no hits file
    std::string scoresPath;  ///< empty: no score table
    io::ReadOptions read;
    overlay::Settings overlay;
    ScreenSettings screen;
    bool quiet = false;
};

/// The request of a parsed command line; throws `UsageError` for a bad value.
OverlayRequest RequestFrom(const CommandLine& line) {
    OverlayRequest request;
    request.queryPath = line.Value("--query");
    request.databasePaths = line.Values("--db");
    request.hitsPath = line.Value("--out");
    request.scoresPath = line.Value("--scores");
    request.read = ReadOptionsFrom(line);
    request.quiet = line.Has("--quiet");

    ScreenSettings& screen = request.screen;
    const std::string rankBy = line.Value("--rank-by", "shape");
    const std::optional<RankMetric> metric = ParseRankMetric(rankBy);
    if (!metric) {
        throw UsageError("--rank-by must be shape, combo, tversky-query or tversky-fit, got " +
                         rankBy);
    }
    screen.rankBy = *metric;
    screen.scoreOnly = line.Has("--score-only");
    screen.cutoff = RealOption(line, "--cutoff", 0.0, -1e6, 1e6);
    screen.best = static_cast<std::size_t>(IntegerOption(line, "--best", 100, 1, 1000000000));
    const long long threads = IntegerOption(line, "--threads", 0, -100000, 100000);
    screen.threads = ResolveThreadCount(threads, std::thread::hardware_concurrency());

    overlay::Settings& settings = request.overlay;
    settings.order = OrderFrom(line, settings.order);
    settings.extraStarts = static_cast<unsigned int>(IntegerOption(line, "--starts", 0, 0, 1000));
    settings.seed = request.read.seed;
    settings.electrostatics = line.Has("--electrostatics") || screen.rankBy == RankMetric::Combo;
    screen.needCharges = settings.electrostatics;
    // A shape-only screen keeps molecules whose charges cannot be computed (metals).
    request.read.chargesRequired = settings.electrostatics;
    return request;
}

/// The output files, opened before any work so that an unwritable destination stops the run
/// at once. Nothing appears at a destination until `Commit`; destroyed uncommitted, they leave
/// no file.
struct Outputs {
    std::unique_ptr<io::SdfWriter> hits;
    io::AtomicFile scores;
};

/// Opens the requested outputs; throws `FatalError` naming the file when one cannot be created.
Outputs OpenOutputs(const OverlayRequest& request) {
    Outputs outputs;
    if (!request.hitsPath.empty()) {
        outputs.hits = std::make_unique<io::SdfWriter>(request.hitsPath);
        if (!outputs.hits->Ok()) {
            throw FatalError("cannot write the hits: " + outputs.hits->Error());
        }
    }
    if (!request.scoresPath.empty() && !outputs.scores.Open(request.scoresPath)) {
        throw FatalError("cannot write the scores: " + outputs.scores.Error());
    }
    return outputs;
}

/// Reads the query: the first conformer of the first molecule of its file.
FirstMolecule ReadQuery(const OverlayRequest& request) {
    FirstMolecule query;
    try {
        query = ReadFirstMolecule(request.queryPath, request.read);
    } catch (const FatalError& error) {
        throw FatalError(std::string("cannot read the query: ") + error.what());
    }
    if (request.overlay.electrostatics && !HasFiniteCharges(query.conformer.Mol())) {
        throw FatalError("cannot use the query " + DescribeSource(query.conformer) +
                         ": its partial charges are not finite numbers; the electrostatic "
                         "density needs them");
    }
    return query;
}

/// Writes the score table and the hits, then commits both; `*hitsWritten` counts the hits
/// written. Returns false after printing why when an output could not be written (no output is
/// then left half written).
bool WriteOutputs(Outputs& outputs, const OverlayRequest& request, const ScreenResults& results,
                  const OutputContext& context, unsigned long* hitsWritten) {
    if (!request.scoresPath.empty()) {
        if (!outputs.scores.Append(FormatScoreTable(results, context)) ||
            !outputs.scores.Commit()) {
            std::cerr << "hermite overlay: cannot write the scores: " << outputs.scores.Error()
                      << "\n";
            return false;
        }
    }
    if (outputs.hits == nullptr) {
        return true;
    }
    for (const Hit& hit : results.hits) {
        const MoleculeOutcome& row = results.rows[hit.row];
        const std::size_t rank = results.ranks[hit.row];
        if (outputs.hits->Write(hit.conformer, hit.transform, HitTags(row, rank, context))) {
            continue;
        }
        if (!outputs.hits->Ok()) {
            break;  // the file itself failed: Commit reports it
        }
        // RDKit could not write this one record; the others go on.
        std::cerr << "hermite overlay: warning: hit " << rank << ", "
                  << DescribeSource(hit.conformer) << ", not written: " << outputs.hits->Error()
                  << "\n";
    }
    *hitsWritten = outputs.hits->RecordsWritten();
    if (!outputs.hits->Commit()) {
        std::cerr << "hermite overlay: cannot write the hits: " << outputs.hits->Error() << "\n";
        return false;
    }
    return true;
}

/// Prints a list of messages under a heading, the first `kListedProblems` of them.
void PrintList(const std::string& heading, const std::vector<std::string>& messages) {
    if (messages.empty()) {
        return;
    }
    std::cerr << "hermite overlay: " << heading << "\n";
    for (std::size_t i = 0; i < messages.size() && i < kListedProblems; ++i) {
        std::cerr << "  " << messages[i] << "\n";
    }
    if (messages.size() > kListedProblems) {
        std::cerr << "  ... and " << messages.size() - kListedProblems << " more\n";
    }
}

/// "1 molecule", "2 molecules".
std::string Count(std::size_t n, const std::string& noun) {
    return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

/// The problems as messages: files that could not be read, records skipped, and partial
/// problems (a record that still gave a molecule).
struct ProblemMessages {
    std::vector<std::string> files;
    std::vector<std::string> records;
    std::vector<std::string> partial;

    bool AnySkipped() const { return !files.empty() || !records.empty(); }
};

ProblemMessages CollectProblems(const std::vector<io::Problem>& queryProblems,
                                const ScreenResults& results) {
    ProblemMessages messages;
    for (const auto* list : {&queryProblems, &results.problems}) {
        for (const io::Problem& problem : *list) {
            std::vector<std::string>& list = !problem.skipped      ? messages.partial
                                             : problem.record == 0 ? messages.files
                                                                   : messages.records;
            list.push_back(problem.Message());
        }
    }
    return messages;
}

/// The molecules that failed and the library's warnings, as messages naming the molecule.
void CollectFailures(const ScreenResults& results, std::vector<std::string>& failed,
                     std::vector<std::string>& warnings) {
    for (const MoleculeOutcome& row : results.rows) {
        const std::string where =
            row.file + ", record " + std::to_string(row.record) + " (" + OneLine(row.title) + ")";
        if (!row.Ok()) {
            failed.push_back(where + ": " + row.error);
        }
        for (const std::string& warning : row.warnings) {
            warnings.push_back(where + ": " + warning);
        }
    }
}

/// The final summary on standard error.
void PrintSummary(const OverlayRequest& request, const FirstMolecule& query,
                  const ScreenResults& results, const ProblemMessages& problems, double seconds,
                  unsigned long hitsWritten) {
    std::cerr << "hermite overlay: query " << DescribeSource(query.conformer) << "\n";
    const double rate = seconds > 0.0 ? results.overlays / seconds : 0.0;
    std::cerr << "hermite overlay: " << Count(results.molecules, "molecule") << " read from "
              << Count(request.databasePaths.size(), "file")
              << (problems.files.empty()
                      ? ""
                      : " (" + std::to_string(problems.files.size()) + " could not be read)")
              << ", " << Count(results.overlays, "conformer") << " "
              << (request.screen.scoreOnly ? "scored" : "overlaid") << " in "
              << FormatFixed(seconds, 2) << " s (" << FormatFixed(rate, 1) << " overlays/s, "
              << Count(request.screen.threads, "thread") << ")\n";
    PrintList(Count(problems.files.size(), "file") + " could not be read:", problems.files);
    PrintList(Count(problems.records.size(), "record") + " skipped:", problems.records);
    PrintList(Count(problems.partial.size(), "record") + " partly used:", problems.partial);
    std::vector<std::string> failed;
    std::vector<std::string> warnings;
    CollectFailures(results, failed, warnings);
    PrintList(Count(failed.size(), "molecule") + " could not be overlaid:", failed);
    PrintList(Count(warnings.size(), "warning") + ":", warnings);
    if (!request.hitsPath.empty()) {
        std::cerr << "hermite overlay: " << Count(hitsWritten, "hit") << " written to "
                  << request.hitsPath << "\n";
    }
    if (!request.scoresPath.empty()) {
        std::cerr << "hermite overlay: " << Count(results.rows.size(), "row")
                  << " of scores written to " << request.scoresPath << "\n";
    }
}

/// True when any molecule could not be overlaid.
bool AnyFailed(const ScreenResults& results) {
    return std::any_of(results.rows.begin(), results.rows.end(),
                       [](const MoleculeOutcome& row) { return !row.Ok(); });
}

}  // namespace

ArgumentParser OverlayParser() {
    ArgumentParser parser(
        "overlay", "--query FILE --db FILE [FILE...] [options]",
        "Overlays every molecule of the database files onto a query molecule by shape (and "
        "optionally electrostatics) and ranks them. The query is the first conformer of the "
        "first molecule of its file. Every conformer of every database molecule is overlaid "
        "(consecutive SD records with the same title are the conformers of one molecule; "
        "SMILES get generated conformers) and the best conformer by the rank metric is kept "
        "(the first of equal ones).\n"
        "\n"
        "Files: SD (.sdf, .sd, .mol), MOL2 (.mol2) and SMILES (.smi, .smiles), each also "
        "gzip-compressed (.gz). Records that cannot be used are skipped with a message naming "
        "file and record; the others go on.\n"
        "\n"
        "Outputs: the ranked table of the best hits on standard output; with --out the hits as "
        "SD records moved onto the query, with their titles and data items and tags "
        "hermite_rank, hermite_shape_tanimoto, hermite_hermite_tanimoto, hermite_tversky_query, "
        "hermite_tversky_fit (with electrostatics also hermite_es_tanimoto, hermite_es_carbo, "
        "hermite_combo), hermite_conformer (1-based) and hermite_query; with --scores a "
        "tab-separated table with one row per database molecule in input order. Files appear "
        "complete or not at all. Outputs are the same for any number of threads.\n"
        "\n"
        "Progress goes to standard error: a bar with rate and ETA on a terminal, a line every 5 "
        "seconds or 10% otherwise; then a summary (molecules read, records skipped with the "
        "reasons, overlays per second, where the outputs went).\n"
        "\n"
        "Exit status: 0 when everything was read and processed; 1 when any record or file was "
        "skipped (the results are still written); 2 for a mistake on the command line; 3 when "
        "the query cannot be read or an output cannot be written; 130 when interrupted (no "
        "output written).");
    parser.Option("--query", "FILE", "The query molecule (its first conformer).", true)
        .List("--db", "FILE", "Database files to screen, read in the order given.", true)
        .Option("--out", "FILE",
                "Write the best hits, ranked, to this SD file, each moved onto the query.")
        .Option("--scores", "FILE",
                "Write the scores of every database molecule to this TSV, in input order, "
                "with the columns title, file, record and conformer (of the best conformer), "
                "conformers, rank (empty below the cutoff), shape_tanimoto, hermite_tanimoto, "
                "tversky_query, tversky_fit (with electrostatics also es_tanimoto, es_carbo, "
                "combo) and status (ok, or error: and the reason). Scores have 4 decimals.")
        .Option("--best", "N", "Hits written to --out at most (1 or more); default 100.")
        .Option("--cutoff", "C",
                "Only molecules with a rank score of at least C are hits and get a rank; "
                "default 0.")
        .Option("--rank-by", "METRIC",
                "Rank metric: shape (exact shape Tanimoto, the default), combo (shape + "
                "electrostatic Tanimoto, 0 to 2; implies --electrostatics), tversky-query or "
                "tversky-fit (shape Tversky weighted 0.95 to the query or to the database "
                "molecule).")
        .Option("--threads", "T",
                "Worker threads: 0 (the default) for all cores, a negative -n for all cores but "
                "n, a positive number for that many.");
    AddOrderOption(parser, overlay::Settings().order);
    AddReadOptions(parser, "the extra starts (--starts)");
    parser
        .Flag("--electrostatics",
              "Also compare the electrostatic densities of the partial charges (Tanimoto and "
              "Carbo) and report the combo score.")
        .Flag("--score-only", "Do not optimise: score each database molecule in its input pose.")
        .Option("--starts", "K",
                "Random starting orientations tried in addition to the four principal-axis "
                "flips, 0 to 1000 (seeded by --seed); default 0.")
        .Flag("--quiet", "No progress and no summary on standard error.");
    return parser;
}

int RunOverlay(const CommandLine& line) {
    const OverlayRequest request = RequestFrom(line);
    LibraryErrors libraryErrors("overlay");
    io::SetRDKitLogging(false);
    CatchInterrupts();

    Outputs outputs = OpenOutputs(request);
    const FirstMolecule query = ReadQuery(request);
    if (query.hasMore && !request.quiet) {
        std::cerr << "hermite overlay: note: the query file holds more than one molecule or "
                     "conformer; using the first, "
                  << DescribeSource(query.conformer) << "\n";
    }
    std::unique_ptr<overlay::Query> prepared;
    try {
        prepared = std::make_unique<overlay::Query>(query.conformer.Mol(), request.overlay);
    } catch (const LibraryError& error) {
        throw FatalError("cannot prepare the query " + DescribeSource(query.conformer) + ": " +
                         error.what());
    }

    ProgressReporter progress("overlay", !request.quiet);
    ScreenResults results;
    {
        std::unique_ptr<MoleculeCounter> counter;
        if (!request.quiet) {
            counter = std::make_unique<MoleculeCounter>(request.databasePaths, progress);
        }
        progress.Start();
        results = Screen(*prepared, request.databasePaths, request.read, request.screen, progress);
        progress.Stop();
    }
    const double seconds = progress.Elapsed();
    if (results.interrupted) {
        std::cerr << "hermite overlay: interrupted; no output written\n";
        return kExitInterrupted;
    }

    OutputContext context;
    context.queryTitle = query.conformer.Title();
    context.electrostatics = request.overlay.electrostatics;
    context.rankBy = request.screen.rankBy;
    context.cutoff = request.screen.cutoff;
    unsigned long hitsWritten = 0;
    if (!WriteOutputs(outputs, request, results, context, &hitsWritten)) {
        return kExitUnusable;
    }
    std::cout << FormatRankedTable(results, context, std::min(kTableRows, request.screen.best))
              << std::flush;

    const ProblemMessages problems = CollectProblems(query.problems, results);
    if (!request.quiet) {
        PrintSummary(request, query, results, problems, seconds, hitsWritten);
    }
    return problems.AnySkipped() || AnyFailed(results) ? kExitSkipped : kExitOk;
}

}  // namespace hermite::cli
