// `hermite overlay`: screens database molecules against queries by shape (and colour and
// electrostatics).

#include <algorithm>
#include <iostream>
#include <memory>
#include <optional>
#include <thread>

#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/file_identity.h"
#include "cli/interrupts.h"
#include "cli/library_errors.h"
#include "cli/molecule_reading.h"
#include "cli/overlay_run.h"
#include "cli/progress.h"
#include "cli/report_output.h"
#include "cli/score_output.h"
#include "cli/text_format.h"
#include "io/atomic_file.h"
#include "screen/pipeline.h"
#include "screen/screen.h"

namespace hermite::cli {

namespace {

/// Problems and warnings listed one by one in the summary; the rest are counted.
constexpr std::size_t kListedProblems = 20;
/// Rows of the ranked table on standard output at most.
constexpr std::size_t kTableRows = 10;

/// Everything the command line of `hermite overlay` asks for.
struct OverlayRequest {
    std::vector<std::string> queryPaths;
    std::vector<std::string> databasePaths;
    std::string hitsPath;    ///< empty: no hits file
    std::string scoresPath;  ///< empty: no score table
    ReportRequest report;    ///< empty directory: no report
    io::ReadOptions read;
    overlay::Settings overlay;
    screen::ScreenSettings screen;
    bool quiet = false;
};

/// The request of a parsed command line; throws `UsageError` for a bad value.
OverlayRequest RequestFrom(const CommandLine& line) {
    OverlayRequest request;
    request.queryPaths = line.Values("--query");
    request.databasePaths = line.Values("--db");
    request.hitsPath = line.Value("--out");
    if (!request.hitsPath.empty() && io::FormatFromPath(request.hitsPath) != io::FileFormat::Sdf) {
        throw UsageError(
            "--out writes SD files: its name must end in .sdf, .sd or .mol "
            "(optionally followed by .gz), got " +
            request.hitsPath);
    }
    request.scoresPath = line.Value("--scores");
    request.report.directory = line.Value("--report");
    request.report.activesPath = line.Value("--actives");
    request.report.maps = line.Has("--maps");
    if (!request.report.activesPath.empty() && request.report.directory.empty()) {
        throw UsageError("--actives labels the ROC curve of a report: add --report DIR");
    }
    if (request.report.maps && request.report.directory.empty()) {
        throw UsageError("--maps adds density maps to a report: add --report DIR");
    }
    if (!request.report.directory.empty()) {
        // The report reads the hits and the score table from its directory.
        const std::string directory = request.report.directory + "/";
        if (request.hitsPath.empty()) {
            request.hitsPath = directory + "hits.sdf";
        }
        if (request.scoresPath.empty()) {
            request.scoresPath = directory + "scores.tsv";
        }
    }
    request.read = ReadOptionsFrom(line);
    request.quiet = line.Has("--quiet");
    std::vector<std::string> inputs = request.queryPaths;
    inputs.insert(inputs.end(), request.databasePaths.begin(), request.databasePaths.end());
    RequireDistinctFiles(inputs, {{"--out", request.hitsPath}, {"--scores", request.scoresPath}});

    screen::ScreenSettings& screen = request.screen;
    const std::string rankBy = line.Value("--rank-by", "shape");
    const std::optional<screen::RankMetric> metric = screen::ParseRankMetric(rankBy);
    if (!metric) {
        throw UsageError(
            "--rank-by must be shape, combo, es-combo, tversky-query or tversky-fit, got " +
            rankBy);
    }
    screen.rankBy = *metric;
    screen.scoreOnly = line.Has("--score-only");
    screen.perQuery = line.Has("--per-query");
    screen.skipByBound = line.Has("--skip-by-bound");
    if (screen.skipByBound && !request.scoresPath.empty()) {
        throw UsageError(
            "--skip-by-bound leaves the molecules it skips without scores: it cannot be used "
            "with --scores or --report, which need the scores of every molecule");
    }
    if (screen.skipByBound && screen.scoreOnly) {
        throw UsageError("--skip-by-bound skips overlays: --score-only makes none");
    }
    const screen::ScoreRange range = screen::RankScoreRange(screen.rankBy);
    screen.cutoff = RealOption(line, "--cutoff", 0.0, range.lowest, range.highest);
    screen.best = static_cast<std::size_t>(IntegerOption(line, "--best", 100, 1, 1000000000));
    request.report.metric = screen.rankBy;
    if (line.Has("--cutoff")) {
        request.report.cutoff = screen.cutoff;
    }
    request.report.best = screen.best;
    const long long threads = IntegerOption(line, "--threads", 0, -100000, 100000);
    screen.threads = screen::ResolveThreadCount(threads, std::thread::hardware_concurrency());

    overlay::Settings& settings = request.overlay;
    const std::string effort = line.Value("--effort", "default");
    const std::optional<overlay::Effort> preset = overlay::ParseEffort(effort);
    if (!preset) {
        throw UsageError("--effort must be fast, default or thorough, got " + effort);
    }
    settings = overlay::WithEffort(settings, *preset);
    settings.order = OrderFrom(line, settings.order);
    request.report.order = settings.order;
    settings.lambda = RealOption(line, "--lambda", settings.lambda, 0.01, 10.0);
    settings.largeLambda = RealOption(line, "--large-lambda", settings.largeLambda, 0.0, 10.0);
    // The search options, when given, set the search of every kind of pair: with and without
    // colour, and of large molecules.
    if (line.Has("--scan")) {
        settings.scanRotations = settings.largeScanRotations =
            static_cast<unsigned int>(IntegerOption(line, "--scan", 0, 0, 100000));
    }
    settings.extraStarts = static_cast<unsigned int>(IntegerOption(line, "--starts", 0, 0, 1000));
    if (line.Has("--searches")) {
        settings.searchStarts = settings.colourSearchStarts = settings.largeSearchStarts =
            static_cast<unsigned int>(IntegerOption(line, "--searches", 0, 1, 1000));
    }
    if (line.Has("--refine")) {
        settings.refineCandidates = settings.colourRefineCandidates =
            settings.largeRefineCandidates =
                static_cast<unsigned int>(IntegerOption(line, "--refine", 0, 0, 1000));
    }
    settings.seed = request.read.seed;
    settings.electrostaticWeight =
        RealOption(line, "--electrostatic-weight", settings.electrostaticWeight, 0.0, 100000.0);
    settings.electrostatics = line.Has("--electrostatics") ||
                              screen.rankBy == screen::RankMetric::ElectrostaticCombo ||
                              settings.electrostaticWeight > 0.0;
    settings.colour =
        line.Has("--colour") || line.Has("--color") || screen.rankBy == screen::RankMetric::Combo;
    settings.colourWeight = RealOption(line, "--colour-weight", settings.colourWeight, 0.0, 100.0);
    settings.colourOrder = static_cast<unsigned int>(
        IntegerOption(line, "--colour-order", settings.colourOrder, 0, 100));
    if (!line.Value("--features").empty() && !settings.colour) {
        throw UsageError("--features defines the colour features: add --colour");
    }
    if (settings.colour) {
        request.read.features = FeatureDefinitionsOption(line);
    }
    screen.read = request.read;
    request.report.read = request.read;
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

/// Reads and prepares every conformer of every molecule of the query files.
screen::QuerySet ReadQueries(const OverlayRequest& request) {
    try {
        return screen::ReadQueries(request.queryPaths, request.read, request.overlay);
    } catch (const screen::QueryError& error) {
        throw FatalError(std::string("cannot read the query: ") + error.what());
    }
}

/// "file, record 3 (title)": where a row's molecule comes from.
std::string RowSource(const screen::Row& row) {
    return row.file + ", record " + std::to_string(row.record) + " (" + OneLine(row.title) + ")";
}

/// Writes the hits of every ranking and commits the hits file; `*hitsWritten` counts them.
/// Returns false after printing why when the file could not be written (it is then left
/// unwritten).
bool WriteHits(io::SdfWriter& writer, const screen::ScreenReport& report,
               const OutputContext& context, unsigned long* hitsWritten) {
    for (const std::vector<screen::Hit>& hits : report.hits) {
        for (const screen::Hit& hit : hits) {
            if (!hit.writeError.empty()) {
                // RDKit could not write this one record; the others go on.
                std::cerr << "hermite overlay: warning: hit " << hit.rank << ", "
                          << RowSource(hit.row) << ", not written: " << hit.writeError << "\n";
                continue;
            }
            if (!writer.Write(hit.molBlock, hit.properties, HitTags(hit, context))) {
                break;  // the file itself failed: Commit reports it
            }
        }
    }
    *hitsWritten = writer.RecordsWritten();
    if (!writer.Commit()) {
        std::cerr << "hermite overlay: cannot write the hits: " << writer.Error() << "\n";
        return false;
    }
    return true;
}

/// Prints a list of messages under a heading, the first `kListedProblems` of them;
/// `total` counts the messages, of which `messages` holds the first (all by default).
void PrintList(const std::string& heading, const std::vector<std::string>& messages,
               std::size_t total = 0) {
    total = std::max(total, messages.size());
    if (total == 0) {
        return;
    }
    std::cerr << "hermite overlay: " << heading << "\n";
    for (std::size_t i = 0; i < messages.size() && i < kListedProblems; ++i) {
        std::cerr << "  " << messages[i] << "\n";
    }
    if (total > kListedProblems) {
        std::cerr << "  ... and " << total - kListedProblems << " more\n";
    }
}

/// "1 molecule", "2 molecules".
std::string Count(std::size_t n, const std::string& noun) {
    return std::to_string(n) + " " + noun + (n == 1 ? "" : "s");
}

/// The problems as messages (files that could not be read, records skipped, and partial
/// problems: a record that still gave a molecule), with their counts.
struct ProblemMessages {
    std::vector<std::string> files;
    std::vector<std::string> records;
    std::vector<std::string> partial;
    unsigned long fileCount = 0;
    unsigned long recordCount = 0;
    unsigned long partialCount = 0;

    void Add(const io::Problem& problem) {
        std::vector<std::string>& list = !problem.skipped      ? partial
                                         : problem.record == 0 ? files
                                                               : records;
        list.push_back(problem.Message());
    }
    bool AnySkipped() const { return fileCount + recordCount > 0; }
};

ProblemMessages CollectProblems(const std::vector<io::Problem>& queryProblems,
                                const screen::ProblemLog& databaseProblems) {
    screen::ProblemLog log;
    log.Add(queryProblems);
    ProblemMessages messages;
    const screen::ProblemLog* const sources[] = {&log, &databaseProblems};
    for (const screen::ProblemLog* source : sources) {
        for (const io::Problem& problem : source->Kept()) {
            messages.Add(problem);
        }
        messages.fileCount += source->Files();
        messages.recordCount += source->Records();
        messages.partialCount += source->Partial();
    }
    return messages;
}

/// The failures and warnings of the rows as messages ("file, record 3 (title): reason"), the
/// first `kListedProblems` of each (the tally keeps at least as many rows).
struct RowMessages {
    std::vector<std::string> failed;
    std::vector<std::string> warnings;

    explicit RowMessages(const screen::RowTally& tally) {
        for (const screen::Row& row : tally.failedRows) {
            failed.push_back(RowSource(row) + ": " + row.error);
        }
        for (const screen::Row& row : tally.warnedRows) {
            for (const std::string& warning : row.warnings) {
                warnings.push_back(RowSource(row) + ": " + warning);
            }
        }
        failed.resize(std::min(failed.size(), kListedProblems));
        warnings.resize(std::min(warnings.size(), kListedProblems));
    }
};

/// The number of query conformers, for the summary.
std::string DescribeQueries(const screen::QuerySet& queries) {
    if (queries.conformers.size() == 1) {
        return DescribeSource(queries.conformers.front().source);
    }
    return Count(queries.titles.size(), "molecule") + ", " +
           Count(queries.conformers.size(), "conformer");
}

/// The final summary on standard error.
void PrintSummary(const OverlayRequest& request, const screen::QuerySet& queries,
                  const screen::ScreenReport& report, const ProblemMessages& problems,
                  unsigned long hitsWritten) {
    const screen::RowTally& tally = report.tally;
    const RowMessages rows(tally);
    std::cerr << "hermite overlay: query " << DescribeQueries(queries) << "\n";
    const double rate = report.seconds > 0.0 ? report.counts.overlays / report.seconds : 0.0;
    const double kernel =
        report.overlaySeconds > 0.0 ? report.counts.overlays / report.overlaySeconds : 0.0;
    std::cerr << "hermite overlay: " << Count(report.counts.molecules, "molecule") << " read from "
              << Count(request.databasePaths.size(), "file")
              << (problems.fileCount == 0
                      ? ""
                      : " (" + std::to_string(problems.fileCount) + " could not be read)")
              << ", " << Count(report.counts.conformers, "conformer") << ", "
              << Count(report.counts.overlays, request.screen.scoreOnly ? "score" : "overlay")
              << " in " << FormatFixed(report.seconds, 2) << " s (" << FormatFixed(rate, 1)
              << " overlays/s, " << Count(request.screen.threads, "thread")
              << "; overlay kernel: " << FormatFixed(kernel, 1) << " overlays/s per thread)\n";
    PrintList(Count(problems.fileCount, "file") + " could not be read:", problems.files,
              problems.fileCount);
    PrintList(Count(problems.recordCount, "record") + " skipped:", problems.records,
              problems.recordCount);
    PrintList(Count(problems.partialCount, "record") + " partly used:", problems.partial,
              problems.partialCount);
    PrintList(Count(report.failed, "molecule") + " could not be overlaid:", rows.failed,
              report.failed);
    PrintList(Count(tally.warnings, "warning") + ":", rows.warnings, tally.warnings);
    if (request.screen.skipByBound) {
        std::cerr << "hermite overlay: " << Count(tally.skippedByBound, "molecule")
                  << " skipped by the score bound (they could not reach the hits)\n";
    }
    if (!request.hitsPath.empty()) {
        std::cerr << "hermite overlay: " << Count(hitsWritten, "hit") << " written to "
                  << request.hitsPath << "\n";
    }
    if (!request.scoresPath.empty()) {
        std::cerr << "hermite overlay: " << Count(tally.rows, "row") << " of scores written to "
                  << request.scoresPath << "\n";
    }
}

}  // namespace

ArgumentParser OverlayParser() {
    ArgumentParser parser(
        "overlay", "--query FILE [FILE...] --db FILE [FILE...] [options]",
        "Overlays every molecule of the database files onto the query by shape (and optionally "
        "colour and electrostatics) and ranks them. The query is every conformer of every molecule "
        "of the "
        "query files. Every conformer of every database molecule is overlaid onto every query "
        "conformer (consecutive SD records with the same title and constitution are the "
        "conformers of one molecule; SMILES get generated conformers) and each database "
        "molecule keeps its best "
        "pair by the rank metric (the first of equal ones, query conformers first). With "
        "--per-query each query molecule ranks the database on its own.\n"
        "\n"
        "Files: SD (.sdf, .sd, .mol), MOL2 (.mol2) and SMILES (.smi, .smiles), each also "
        "gzip-compressed (.gz), and prepared libraries made by 'hermite prepare' (recognised by "
        "their content; they are read in chunks without any chemistry and give the same scores "
        "as their source files). Records that cannot be used are skipped with a message naming "
        "file and record; the others go on. Reading, preparation and overlays run on all "
        "worker threads; memory stays bounded whatever the size of the database.\n"
        "\n"
        "Outputs: the ranked table of the best hits on standard output; with --out the hits as "
        "SD records moved onto the query, with their titles and data items and tags "
        "hermite_rank, hermite_shape_tanimoto, hermite_hermite_tanimoto, hermite_tversky_query, "
        "hermite_tversky_fit (with electrostatics also hermite_es_tanimoto, hermite_es_carbo, "
        "hermite_es_combo; with colour hermite_colour_tanimoto, hermite_combo), "
        "hermite_conformer, hermite_query and hermite_query_conformer (1-based "
        "indices of the database conformer, the query molecule and its conformer) and "
        "hermite_query_title; with --scores a tab-separated table with one row per database "
        "molecule (per query molecule with --per-query) in input order, written as the screen "
        "goes. Files appear complete or not at all. Outputs are the same for any number of "
        "threads.\n"
        "\n"
        "Progress goes to standard error: a bar with rate and ETA on a terminal, a line every 5 "
        "seconds or 10% otherwise; then a summary (molecules read, records skipped with the "
        "reasons, overlays per second end to end and of the overlay kernel alone, where the "
        "outputs went).\n"
        "\n"
        "Exit status: 0 when everything was read and processed; 1 when any record or file was "
        "skipped (the results are still written); 2 for a mistake on the command line; 3 when "
        "the query cannot be read or an output cannot be written; 130 when interrupted (no "
        "output written).");
    parser.List("--query", "FILE", "Query files: every conformer of every molecule is used.", true)
        .List("--db", "FILE",
              "Database files (molecule files or prepared libraries), read in the order given.",
              true)
        .Option("--out", "FILE",
                "Write the best hits, ranked, to this SD file (.sdf, .sd or .mol; .gz for "
                "gzip-compressed), each moved onto the query.")
        .Option("--scores", "FILE",
                "Write the scores of every database molecule to this TSV, in input order, "
                "with the columns title, file, record and conformer (of the best conformer), "
                "conformers, query and query_conformer (of the best pair, 1-based), "
                "shape_tanimoto, hermite_tanimoto, tversky_query, tversky_fit (with "
                "electrostatics also es_tanimoto, es_carbo, es_combo; with colour "
                "colour_tanimoto, combo) and status (ok, or error: and "
                "the reason). Scores have 4 decimals.")
        .Option("--best", "N",
                "Hits written to --out at most (1 or more), per query molecule with "
                "--per-query; default 100.")
        .Option("--cutoff", "C",
                "Only molecules with a rank score of at least C are hits; default 0. C must "
                "lie in the range of the rank metric: 0 to 1 for shape, 0 to 2 for combo, -1/3 "
                "to 2 for es-combo, 0 to 2.2942 for the Tversky scores.")
        .Option("--rank-by", "METRIC",
                "Rank metric: shape (exact shape Tanimoto, the default), combo (shape + colour "
                "Tanimoto, 0 to 2; implies --colour), es-combo (shape + electrostatic "
                "Tanimoto; implies --electrostatics), tversky-query or tversky-fit (shape "
                "Tversky weighted 0.95 to the query or to the database molecule).")
        .Flag("--per-query",
              "Rank the database separately for each query molecule (one row per database "
              "molecule and query molecule, one hit list per query molecule).")
        .Flag("--skip-by-bound",
              "Skip the overlays that cannot change the hits: those whose upper bound on the "
              "rank score over every pose (from the molecules' sizes, self-overlaps and atom "
              "packing) is below --cutoff or not above the last of --best hits found so far. "
              "The hits are the same as without it. Pays when few hits are kept from a large "
              "database; not with --scores or --report.")
        .Option("--threads", "T",
                "Worker threads: 0 (the default) for all cores, a negative -n for all cores but "
                "n, a positive number for that many.");
    AddOrderOption(parser, overlay::Settings().order);
    parser.Option("--lambda", "L",
                  "Lambda of the Hermite functions of every expansion, 1/angstrom, 0.01 to 10 "
                  "(default " +
                      FormatFixed(overlay::Settings().lambda, 2) +
                      "; the same for both molecules, so that an overlay does not depend on "
                      "which is the query). Pairs of large molecules take --large-lambda.");
    parser.Option("--large-lambda", "L",
                  "Lambda for a pair of large molecules, both with " +
                      std::to_string(overlay::Settings().largeLambdaAtoms) +
                      " heavy atoms or more, overlaid by shape only, 0 to 10 (default " +
                      FormatFixed(overlay::Settings().largeLambda, 2) +
                      "; 0 keeps --lambda for every pair). Wider functions describe long "
                      "molecules better at the same order (docs/overlay.md).");
    AddReadOptions(parser, "the random orientations (--starts)");
    parser
        .Flag("--electrostatics",
              "Also compare the electrostatic densities of the partial charges (Tanimoto and "
              "Carbo) and report the electrostatic combo score (es_combo: shape + electrostatic "
              "Tanimoto). Scored at the final pose only.")
        .Option("--electrostatic-weight", "W",
                "Let the electrostatics move the pose: the search maximises shape (+ colour) + "
                "W * electrostatic overlap, 0 to 100000 (implies --electrostatics; default 0, "
                "scored only). Electrostatic overlaps are thousands of times smaller than shape "
                "overlaps, so useful weights are in the thousands (docs/colour.md).")
        .Flag("--colour",
              "Also match pharmacophore features (colour: donors, acceptors, cations, anions, "
              "aromatic rings, hydrophobes; docs/colour.md): the search maximises shape + w * "
              "colour overlap, and the colour Tanimoto and the combo score (shape + colour "
              "Tanimoto, 0 to 2) are reported.")
        .Flag("--color", "The same as --colour.")
        .Option("--colour-weight", "W",
                "Weight w of the colour overlap in the search, 0 to 100; default " +
                    FormatFixed(overlay::Settings().colourWeight, 1) + ".")
        .Option("--colour-order", "N",
                "Order of the Hermite expansions of the colour features in the search (at "
                "most --order; default " +
                    std::to_string(overlay::Settings().colourOrder) +
                    "). Higher orders place the features more closely before the exact "
                    "refinement, at a cost per feature type.")
        .Option("--features", "FILE",
                "Colour features from this RDKit feature-definition (.fdef) file instead of "
                "the built-in definitions (each family is one feature type). A prepared library "
                "serves a colour screen when it was prepared with the same definitions.")
        .Flag("--score-only", "Do not optimise: score each database molecule in its input pose.")
        .Option("--effort", "LEVEL",
                "How hard the pose search tries: fast, default or thorough (presets of --order, "
                "--scan, --searches and --refine, for pairs of large molecules their own, which "
                "those options override; speed and quality of each in docs/overlay.md).")
        .Option("--scan", "N",
                "Evenly spread orientations whose Hermite overlap is scanned besides the four "
                "principal-axis flips, 0 to 100000; default " +
                    std::to_string(overlay::Settings().scanRotations) + ", " +
                    std::to_string(overlay::Settings().largeScanRotations) +
                    " for a pair of large molecules (see --large-lambda).")
        .Option("--starts", "K",
                "Random orientations scanned besides them, 0 to 1000 (seeded by --seed); "
                "default 0.")
        .Option("--searches", "K",
                "Local searches (BFGS on the Hermite overlap), started from the scanned "
                "orientations with the largest overlaps, 1 to 1000; default " +
                    std::to_string(overlay::Settings().searchStarts) + ", " +
                    std::to_string(overlay::Settings().colourSearchStarts) + " with colour, " +
                    std::to_string(overlay::Settings().largeSearchStarts) +
                    " for a pair of large molecules.")
        .Option("--refine", "R",
                "Distinct poses of the local searches refined on the exact overlap of the atom "
                "Gaussians, the best one kept; 0 (no refinement) to 1000; default " +
                    std::to_string(overlay::Settings().refineCandidates) + ", " +
                    std::to_string(overlay::Settings().colourRefineCandidates) +
                    " with colour (the features set the poses apart), " +
                    std::to_string(overlay::Settings().largeRefineCandidates) +
                    " for a pair of large molecules.")
        .Option("--report", "DIR",
                "Also write a report into DIR (created if missing): the hits (hits.sdf), the "
                "score table (scores.tsv), the query records (query.sdf), a score "
                "distribution, a grid of the top hits and, with --actives, a ROC curve as PNG "
                "images, an HTML page (index.html) and a PyMOL script loading the query and "
                "each posed hit (hermite.pml). Made by the Python module (python3 -m "
                "hermite.report; $HERMITE_PYTHON names the interpreter), which needs "
                "matplotlib and RDKit.")
        .Flag("--maps",
              "Add the shape density maps of the queries and the posed hits to the report "
              "(maps/query-K.ccp4, maps/hit-NNN.ccp4; CCP4, 0.5 angstrom spacing), loaded and "
              "contoured by its PyMOL script.")
        .Option("--actives", "FILE",
                "Titles of the known actives, one per line (or a molecule file of them), for "
                "the report's ROC curve.")
        .Flag("--quiet", "No progress and no summary on standard error.");
    return parser;
}

int RunOverlay(const CommandLine& line) {
    const OverlayScreen localScreen = [](const OverlayPlan& plan,
                                         const screen::ScreenCallbacks& callbacks,
                                         screen::RunControl& control) {
        return screen::Screen(plan.queries, screen::Database::Files(plan.databasePaths),
                              plan.settings, callbacks, control);
    };
    return RunOverlayWith(line, localScreen);
}

OverlayPlan PlanOverlay(const std::vector<std::string>& arguments) {
    const OverlayRequest request = RequestFrom(OverlayParser().Parse(arguments));
    return OverlayPlan{request.databasePaths, ReadQueries(request), request.screen,
                       !request.scoresPath.empty()};
}

int RunOverlayWith(const CommandLine& line, const OverlayScreen& screen) {
    const OverlayRequest request = RequestFrom(line);
    LibraryErrors libraryErrors("overlay");
    io::SetRDKitLogging(false);
    CatchInterrupts();

    if (!request.report.directory.empty()) {
        PrepareReportDirectory(request.report.directory);
    }
    Outputs outputs = OpenOutputs(request);
    const OverlayPlan plan{request.databasePaths, ReadQueries(request), request.screen,
                           !request.scoresPath.empty()};
    const screen::QuerySet& queries = plan.queries;
    OutputContext context;
    context.queryTitles = queries.titles;
    context.electrostatics = request.overlay.electrostatics;
    context.colour = request.overlay.colour;
    context.rankBy = request.screen.rankBy;
    context.cutoff = request.screen.cutoff;
    context.skipByBound = request.screen.skipByBound;

    bool scoresFailed =
        !request.scoresPath.empty() && !outputs.scores.Append(ScoreTableHeader(context));
    screen::ScreenCallbacks callbacks;
    if (plan.rowsWanted) {
        callbacks.row = [&](const screen::Row& row) {
            if (!scoresFailed) {
                scoresFailed = !outputs.scores.Append(ScoreTableLine(row, context));
            }
        };
    }
    ProgressReporter progress("overlay", !request.quiet);
    callbacks.progress = [&](const screen::ScreenProgress& counts) {
        progress.Update(counts.molecules, counts.overlays);
    };
    callbacks.stop = [&] { return Interrupted() || scoresFailed; };

    screen::ScreenReport report;
    {
        std::unique_ptr<MoleculeCounter> counter;
        if (!request.quiet) {
            counter = std::make_unique<MoleculeCounter>(request.databasePaths, progress);
        }
        progress.Start();
        screen::RunControl control;
        report = screen(plan, callbacks, control);
        progress.Stop();
    }
    if (report.interrupted && !scoresFailed) {
        std::cerr << "hermite overlay: interrupted; no output written\n";
        return kExitInterrupted;
    }
    if (scoresFailed || (!request.scoresPath.empty() && !outputs.scores.Commit())) {
        std::cerr << "hermite overlay: cannot write the scores: " << outputs.scores.Error() << "\n";
        return kExitUnusable;
    }

    unsigned long hitsWritten = 0;
    if (outputs.hits != nullptr && !WriteHits(*outputs.hits, report, context, &hitsWritten)) {
        return kExitUnusable;
    }
    std::vector<unsigned long> passing = report.tally.passing;
    passing.resize(report.hits.size(), 0);
    std::cout << FormatRankedTable(report.hits, context, report.counts.molecules, passing,
                                   std::min(kTableRows, request.screen.best))
              << std::flush;

    const ProblemMessages problems = CollectProblems(queries.problems, report.problems);
    if (!request.quiet) {
        PrintSummary(request, queries, report, problems, hitsWritten);
    }
    if (!request.report.directory.empty() &&
        !WriteReport(request.report, queries, request.hitsPath, request.scoresPath)) {
        return kExitUnusable;
    }
    return problems.AnySkipped() || report.failed > 0 ? kExitSkipped : kExitOk;
}

}  // namespace hermite::cli
