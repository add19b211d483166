// The screening engine on real molecules: determinism, query modes, bounded memory and
// cancellation while reading, generating conformers and overlaying.

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "screen/screen.h"

namespace hermite::screen {
namespace {

const char* const kCdk2 = "/usr/share/RDKit/Contrib/Fastcluster/testdata/cdk2.sdf";

/// `seconds` scaled for slow builds: HERMITE_TIME_SCALE (the sanitizer runs set it) multiplies
/// every time limit of the tests.
double Limit(double seconds) {
    const char* scale = std::getenv("HERMITE_TIME_SCALE");
    return seconds * (scale != nullptr && std::atof(scale) > 0.0 ? std::atof(scale) : 1.0);
}

/// A 113-heavy-atom peptide: ETKDG needs seconds for a handful of its conformers.
std::string SlowSmiles() {
    std::string smiles = "N";
    for (int i = 0; i < 12; ++i) {
        smiles += "CC(=O)NC(C)C(=O)N";
    }
    return smiles + "CC(=O)O";
}

std::string ReadText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

/// A temporary file with `text`, removed by the destructor.
class TempFile {
public:
    TempFile(const std::string& name, const std::string& text) : path_(testing::TempDir() + name) {
        std::ofstream(path_) << text;
    }
    ~TempFile() { std::remove(path_.c_str()); }
    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

std::vector<io::Molecule> Cdk2Molecules() {
    return io::ReadAll(kCdk2);
}

/// Queries from the given CDK2 molecules (0-based indices).
QuerySet Cdk2Queries(const std::vector<std::size_t>& indices) {
    const std::vector<io::Molecule> all = Cdk2Molecules();
    std::vector<io::Molecule> chosen;
    for (std::size_t i : indices) {
        chosen.push_back(all.at(i));
    }
    return MakeQueries(chosen, overlay::Settings());
}

struct ScreenRun {
    std::vector<Row> rows;
    ScreenReport report;
};

ScreenRun ScreenFiles(const QuerySet& queries, const std::vector<std::string>& files,
                      ScreenSettings settings, ScreenCallbacks callbacks = ScreenCallbacks()) {
    ScreenRun run;
    callbacks.row = [&run](const Row& row) { run.rows.push_back(row); };
    RunControl control;
    run.report = Screen(queries, Database::Files(files), settings, callbacks, control);
    return run;
}

TEST(ScreenTest, RowsAndHitsAreIdenticalForAnyNumberOfThreads) {
    const QuerySet queries = Cdk2Queries({0});
    TempFile smiles("determinism.smi", "c1ccccc1C(=O)O benzoic\nCC(C)Cc1ccc(cc1)C(C)C(=O)O ibu\n");
    ScreenSettings settings;
    settings.read.smilesConformers = 3;
    settings.best = 10;
    std::vector<ScreenRun> runs;
    for (unsigned int threads : {1u, 2u, 4u}) {
        settings.threads = threads;
        settings.queueCapacity = threads;  // small queues and batches: much reordering
        settings.batchSize = threads;
        runs.push_back(ScreenFiles(queries, {kCdk2, smiles.Path(), kCdk2}, settings));
    }
    ASSERT_EQ(runs[0].rows.size(), 96u);
    for (const ScreenRun& run : runs) {
        ASSERT_EQ(run.rows.size(), runs[0].rows.size());
        for (std::size_t i = 0; i < run.rows.size(); ++i) {
            const Row& a = runs[0].rows[i];
            const Row& b = run.rows[i];
            EXPECT_EQ(a.position, i);
            EXPECT_EQ(b.title, a.title);
            EXPECT_EQ(b.conformer, a.conformer);
            // Bit for bit: the same operations in the same order whatever the thread.
            EXPECT_EQ(b.result.scores.shapeTanimoto, a.result.scores.shapeTanimoto);
            EXPECT_EQ(b.result.scores.overlap, a.result.scores.overlap);
        }
        ASSERT_EQ(run.report.hits.size(), 1u);
        ASSERT_EQ(run.report.hits[0].size(), 10u);
        for (std::size_t i = 0; i < 10; ++i) {
            EXPECT_EQ(run.report.hits[0][i].row.position, runs[0].report.hits[0][i].row.position);
            EXPECT_EQ(run.report.hits[0][i].rank, i + 1);
        }
    }
    // The query scores itself 1 and is the first hit (ties keep input order).
    EXPECT_EQ(runs[0].report.hits[0][0].row.position, 0u);
    EXPECT_NEAR(runs[0].report.hits[0][0].score, 1.0, 1e-9);
}

TEST(ScreenTest, SeveralQueryConformersGiveTheBestOfSeparateRuns) {
    const std::vector<std::size_t> picks = {0, 10, 20};
    ScreenSettings settings;
    settings.threads = 2;
    const ScreenRun combined = ScreenFiles(Cdk2Queries(picks), {kCdk2}, settings);
    std::vector<ScreenRun> separate;
    for (std::size_t pick : picks) {
        separate.push_back(ScreenFiles(Cdk2Queries({pick}), {kCdk2}, settings));
    }
    ASSERT_EQ(combined.rows.size(), 47u);
    for (std::size_t i = 0; i < 47; ++i) {
        double best = -1.0;
        std::size_t bestQuery = 0;
        for (std::size_t q = 0; q < picks.size(); ++q) {
            const double score = separate[q].rows[i].rankScore;
            if (score > best) {
                best = score;
                bestQuery = q;
            }
        }
        EXPECT_EQ(combined.rows[i].rankScore, best) << i;
        EXPECT_EQ(combined.rows[i].query, bestQuery) << i;
        EXPECT_EQ(combined.rows[i].queryConformer, 1u);
    }
}

TEST(ScreenTest, PerQueryModeRanksEachQueryMoleculeOnItsOwn) {
    const std::vector<std::size_t> picks = {3, 30};
    ScreenSettings settings;
    settings.perQuery = true;
    settings.best = 5;
    const ScreenRun perQuery = ScreenFiles(Cdk2Queries(picks), {kCdk2}, settings);
    ASSERT_EQ(perQuery.rows.size(), 2u * 47u);
    ASSERT_EQ(perQuery.report.hits.size(), 2u);
    for (std::size_t q = 0; q < picks.size(); ++q) {
        settings.perQuery = false;
        const ScreenRun alone = ScreenFiles(Cdk2Queries({picks[q]}), {kCdk2}, settings);
        for (std::size_t i = 0; i < 47; ++i) {
            const Row& row = perQuery.rows[2 * i + q];
            EXPECT_EQ(row.query, q);
            EXPECT_EQ(row.position, i);
            EXPECT_EQ(row.rankScore, alone.rows[i].rankScore);
        }
        // Each query finds itself first.
        EXPECT_EQ(perQuery.report.hits[q][0].row.position, picks[q]);
        ASSERT_EQ(perQuery.report.hits[q].size(), 5u);
        for (std::size_t k = 0; k < 5; ++k) {
            EXPECT_EQ(perQuery.report.hits[q][k].row.position,
                      alone.report.hits[0][k].row.position);
        }
    }
}

/// The hits of two runs are the same molecules with the same rows, bit for bit.
void ExpectSameHits(const ScreenReport& expected, const ScreenReport& actual) {
    ASSERT_EQ(actual.hits.size(), expected.hits.size());
    for (std::size_t r = 0; r < expected.hits.size(); ++r) {
        ASSERT_EQ(actual.hits[r].size(), expected.hits[r].size()) << "ranking " << r;
        for (std::size_t k = 0; k < expected.hits[r].size(); ++k) {
            const Row& a = expected.hits[r][k].row;
            const Row& b = actual.hits[r][k].row;
            EXPECT_EQ(b.position, a.position) << "ranking " << r << ", hit " << k;
            EXPECT_EQ(b.conformer, a.conformer) << "ranking " << r << ", hit " << k;
            EXPECT_EQ(b.query, a.query) << "ranking " << r << ", hit " << k;
            EXPECT_EQ(b.rankScore, a.rankScore) << "ranking " << r << ", hit " << k;
            EXPECT_EQ(b.result.scores.overlap, a.result.scores.overlap);
        }
    }
}

// Skipping the overlays that cannot reach the hits leaves the hits as they were, for any
// number of threads and in both query modes, and really skips: the small molecules after the
// CDK2 ligands are below the cutoff whatever their pose, and the rows of skipped molecules say
// so, without scores.
TEST(ScreenTest, SkippingByTheScoreBoundKeepsTheHits) {
    const QuerySet queries = Cdk2Queries({4, 30});
    TempFile small("small.smi", "C methane\nCCO ethanol\nc1ccccc1 benzene\nCC(=O)N amide\n");
    ScreenSettings settings;
    settings.read.smilesConformers = 2;
    settings.best = 4;
    settings.cutoff = 0.6;
    for (const bool perQuery : {false, true}) {
        settings.perQuery = perQuery;
        settings.skipByBound = false;
        settings.threads = 1;
        const ScreenRun all = ScreenFiles(queries, {kCdk2, small.Path()}, settings);
        EXPECT_EQ(all.report.tally.skippedByBound, 0u);
        settings.skipByBound = true;
        for (unsigned int threads : {1u, 2u}) {
            settings.threads = threads;
            const ScreenRun skipping = ScreenFiles(queries, {kCdk2, small.Path()}, settings);
            SCOPED_TRACE("per query " + std::to_string(perQuery) + ", threads " +
                         std::to_string(threads));
            ExpectSameHits(all.report, skipping.report);
            EXPECT_LT(skipping.report.counts.overlays, all.report.counts.overlays);
            ASSERT_EQ(skipping.rows.size(), all.rows.size());
            const std::size_t rankings = perQuery ? 2 : 1;
            for (std::size_t i = 47 * rankings; i < skipping.rows.size(); ++i) {
                const Row& row = skipping.rows[i];
                EXPECT_TRUE(row.skippedByBound) << row.title;
                EXPECT_TRUE(row.Ok()) << row.title;
                EXPECT_TRUE(std::isnan(row.rankScore)) << row.title;
                EXPECT_EQ(row.conformers, 0u) << row.title;
            }
            EXPECT_GE(skipping.report.tally.skippedByBound, 4u * rankings);
            // Skipped molecules may lie above the cutoff, below the last hit: they are not
            // counted.
            for (std::size_t r = 0; r < rankings; ++r) {
                EXPECT_LE(skipping.report.tally.passing.at(r), all.report.tally.passing.at(r));
            }
        }
    }
}

TEST(ScreenTest, MoleculesInFlightAreBoundedByTheQueues) {
    // 20 copies of CDK2 (940 molecules) through queues of 2 batches of 3: never more than
    // 3 (2 (2 + 2) + 2) = 30 molecules alive in the pipeline, the bound of the pipeline's items
    // times the batch size.
    std::string text = ReadText(kCdk2);
    std::string big;
    for (int i = 0; i < 20; ++i) {
        big += text;
    }
    const TempFile file("bounded.sdf", big);
    ScreenSettings settings;
    settings.threads = 2;
    settings.queueCapacity = 2;
    settings.batchSize = 3;
    const ScreenRun run = ScreenFiles(Cdk2Queries({0}), {file.Path()}, settings);
    EXPECT_EQ(run.rows.size(), 940u);
    EXPECT_LE(run.report.peakInFlight, 30u);
    EXPECT_GE(run.report.peakInFlight, 6u);
    EXPECT_EQ(run.report.hits[0].size(), 100u);
}

TEST(ScreenTest, CancellationBeforeReadingReturnsAtOnce) {
    ScreenSettings settings;
    settings.threads = 2;
    ScreenCallbacks callbacks;
    callbacks.stop = [] { return true; };
    const auto start = std::chrono::steady_clock::now();
    const ScreenRun run = ScreenFiles(Cdk2Queries({0}), {kCdk2, kCdk2, kCdk2}, settings, callbacks);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_TRUE(run.report.interrupted);
    EXPECT_LT(run.rows.size(), 141u);
    EXPECT_LT(seconds, Limit(1.0));
}

TEST(ScreenTest, CancellationDuringOverlaysStopsWithinASecond) {
    std::string text = ReadText(kCdk2);
    std::string big;
    for (int i = 0; i < 50; ++i) {
        big += text;
    }
    const TempFile file("cancel.sdf", big);
    ScreenSettings settings;
    settings.threads = 2;
    std::size_t rowsAtStop = 0;
    ScreenRun run;
    ScreenCallbacks callbacks;
    callbacks.row = [&](const Row& row) { run.rows.push_back(row); };
    std::chrono::steady_clock::time_point stopped;
    callbacks.stop = [&] {
        if (run.rows.size() >= 200 && rowsAtStop == 0) {
            rowsAtStop = run.rows.size();
            stopped = std::chrono::steady_clock::now();
        }
        return rowsAtStop > 0;
    };
    RunControl control;
    run.report =
        Screen(Cdk2Queries({0}), Database::Files({file.Path()}), settings, callbacks, control);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - stopped).count();
    EXPECT_TRUE(run.report.interrupted);
    EXPECT_GE(rowsAtStop, 200u);
    EXPECT_LT(run.rows.size(), 2350u);
    EXPECT_LT(seconds, Limit(1.0));
}

TEST(ScreenTest, CancellationDuringConformerGenerationStopsWithinASecond) {
    const TempFile smiles("slow.smi", SlowSmiles() + " peptide\n" + SlowSmiles() + " again\n");
    ScreenSettings settings;
    settings.threads = 2;
    settings.read.smilesConformers = 20;
    ScreenCallbacks callbacks;
    const auto start = std::chrono::steady_clock::now();
    callbacks.stop = [&] {
        return std::chrono::steady_clock::now() - start > std::chrono::milliseconds(300);
    };
    const ScreenRun run = ScreenFiles(Cdk2Queries({0}), {smiles.Path()}, settings, callbacks);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_TRUE(run.report.interrupted);
    EXPECT_TRUE(run.rows.empty());
    EXPECT_LT(seconds, Limit(1.3));
}

TEST(ScreenTest, ConformerGenerationOverItsTimeLimitSkipsTheRecord) {
    const TempFile smiles("limit.smi", SlowSmiles() + " peptide\nCCO ethanol\n");
    io::ReadOptions options;
    options.smilesConformers = 20;
    options.conformerTimeLimit = 0.2;
    std::vector<io::Problem> problems;
    const auto start = std::chrono::steady_clock::now();
    const std::vector<io::Molecule> molecules = io::ReadAll(smiles.Path(), options, &problems);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_EQ(molecules.size(), 1u);
    EXPECT_EQ(molecules[0].title, "ethanol");
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].record, 1u);
    EXPECT_NE(problems[0].reason.find("time limit"), std::string::npos) << problems[0].reason;
    EXPECT_LT(seconds, Limit(3.0));  // checked between embedding attempts
}

TEST(ScreenTest, SmilesSeedsDependOnTheRecordNotOnTheOrder) {
    EXPECT_NE(io::RecordSeed(42, 1), io::RecordSeed(42, 2));
    EXPECT_NE(io::RecordSeed(42, 1), io::RecordSeed(43, 1));
    EXPECT_EQ(io::RecordSeed(42, 7), io::RecordSeed(42, 7));
    EXPECT_LE(io::RecordSeed(0xffffffffu, 0xffffffffu), 0x7fffffffu);
    // The same line gives the same conformers in any file position and read.
    const TempFile a("seed_a.smi", "CCO x\nc1ccccc1CCN y\n");
    io::ReadOptions options;
    options.smilesConformers = 2;
    const std::vector<io::Molecule> first = io::ReadAll(a.Path(), options);
    const std::vector<io::Molecule> second = io::ReadAll(a.Path(), options);
    ASSERT_EQ(first.size(), 2u);
    double p[3], q[3];
    first[1].conformers[1].Mol().GetAtom(3).GetCoords(p);
    second[1].conformers[1].Mol().GetAtom(3).GetCoords(q);
    EXPECT_EQ(p[0], q[0]);
    EXPECT_EQ(p[2], q[2]);
    // Hydrogens stay in the record for writing, out of the heavy-atom density.
    EXPECT_EQ(first[1].conformers[0].Mol().NumAtoms(), 9u);
    EXPECT_EQ(first[1].conformers[0].NumRecordAtoms(), 20u);
}

TEST(ScreenTest, TheProblemLogCountsEveryProblemAndKeepsTheFirst) {
    ProblemLog log;
    for (unsigned int i = 1; i <= 2 * ProblemLog::kKept; ++i) {
        log.Add(io::Problem{"f.smi", i, "", "bad", i % 2 == 0});
    }
    log.Add(io::Problem{"g.sdf", 0, "", "cannot open file", true});
    EXPECT_EQ(log.Kept().size(), ProblemLog::kKept);
    EXPECT_EQ(log.Kept().front().record, 1u);
    EXPECT_EQ(log.Records(), ProblemLog::kKept);
    EXPECT_EQ(log.Partial(), ProblemLog::kKept);
    EXPECT_EQ(log.Files(), 1u);
}

TEST(ScreenTest, ProblemsOfFilesAndRecordsArriveInReadingOrder) {
    const TempFile bad("problems.smi", "CCO ok\nnot_a_smiles bad\n");
    ScreenSettings settings;
    settings.read.smilesConformers = 1;
    const ScreenRun run =
        ScreenFiles(Cdk2Queries({0}), {"/no/such/file.sdf", bad.Path()}, settings);
    const std::vector<io::Problem>& problems = run.report.problems.Kept();
    ASSERT_EQ(problems.size(), 2u);
    EXPECT_EQ(problems[0].file, "/no/such/file.sdf");
    EXPECT_EQ(problems[0].record, 0u);
    EXPECT_EQ(problems[1].record, 2u);
    EXPECT_EQ(run.report.problems.Files(), 1u);
    EXPECT_EQ(run.report.problems.Records(), 1u);
    EXPECT_TRUE(run.report.problems.AnySkipped());
    ASSERT_EQ(run.rows.size(), 1u);
    EXPECT_EQ(run.rows[0].title, "ok");
}

}  // namespace
}  // namespace hermite::screen
