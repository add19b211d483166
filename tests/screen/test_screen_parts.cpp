// Screens in parts: the database split into runs of consecutive molecules, each part screened
// on its own and shipped as bytes, and the parts merged back. The merged screen must be the
// screen of the whole database bit for bit (rows, hits, problems, counts) whatever the part
// size and the order in which the parts come back, and bytes that are not a part must be
// refused with an exception, never believed.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "io/prepared_library.h"
#include "screen/prepare.h"
#include "screen/screen_parts.h"
#include "tests/io/io_test_support.h"

namespace hermite::screen {
namespace {

using io::testing::Cdk2Path;
using io::testing::ReadText;
using io::testing::SplitSdRecords;
using io::testing::TemporaryDirectory;
using io::testing::WriteGzip;
using io::testing::WriteText;

// ---------------------------------------------------------------------------------------------
// Inputs

/// Queries from the given CDK2 molecules (0-based indices).
QuerySet Cdk2Queries(const std::vector<std::size_t>& indices) {
    const std::vector<io::Molecule> all = io::ReadAll(Cdk2Path);
    std::vector<io::Molecule> chosen;
    for (std::size_t i : indices) {
        chosen.push_back(all.at(i));
    }
    return MakeQueries(chosen, overlay::Settings());
}

/// Five hits per ranking: most parts then hold hits that the whole screen drops, so the merge
/// has to cut the parts' lists, not just concatenate them.
ScreenSettings FewHits(bool perQuery = false) {
    ScreenSettings settings;
    settings.best = 5;
    settings.perQuery = perQuery;
    return settings;
}

/// CDK2 gzip-compressed and cut in half at `path`: the reader gives the molecules before the
/// cut, then stops with a read error.
void WriteTruncatedGzip(const TemporaryDirectory& directory, const std::string& path) {
    const std::string whole = directory.File("whole.sdf.gz");
    WriteGzip(whole, ReadText(Cdk2Path));
    const std::string compressed = ReadText(whole);
    WriteText(path, compressed.substr(0, compressed.size() / 2));
}

/// The first six CDK2 records, a record RDKit cannot parse (record 7), then six more.
std::string DamagedSdText() {
    const std::vector<std::string> records = SplitSdRecords(ReadText(Cdk2Path));
    std::string text;
    for (std::size_t i = 0; i < 6; ++i) {
        text += records.at(i);
    }
    text += "garbage\n  not a molfile\n\nthis is not a counts line\nM  END\n$$$$\n";
    for (std::size_t i = 6; i < 12; ++i) {
        text += records.at(i);
    }
    return text;
}

/// A prepared library of the 47 CDK2 ligands at `path`: heavy atoms, Gasteiger charges.
void PrepareCdk2Library(const std::string& path) {
    PrepareSettings settings;
    io::PreparedLibraryWriter writer(path, PreparationOf(settings));
    ASSERT_TRUE(writer.Ok()) << writer.Error();
    RunControl control;
    const PrepareReport report =
        PrepareLibrary({Cdk2Path}, writer, settings, PrepareCallbacks(), control);
    ASSERT_TRUE(report.writeError.empty()) << report.writeError;
    ASSERT_EQ(report.counts.molecules, 47u);
    ASSERT_TRUE(writer.Commit()) << writer.Error();
}

// ---------------------------------------------------------------------------------------------
// Runs

struct ScreenRun {
    std::vector<Row> rows;
    ScreenReport report;
};

/// One screen of the whole database: the reference every merge is held to.
ScreenRun ScreenWhole(const QuerySet& queries, const std::vector<std::string>& paths,
                      const ScreenSettings& settings) {
    ScreenRun run;
    ScreenCallbacks callbacks;
    callbacks.row = [&run](const Row& row) { run.rows.push_back(row); };
    RunControl control;
    run.report = Screen(queries, Database::Files(paths), settings, callbacks, control);
    return run;
}

/// Each part screened alone and turned into bytes, as another process would send it back.
std::vector<std::string> ScreenEncodedParts(const QuerySet& queries,
                                            const std::vector<PartSlices>& parts,
                                            const ScreenSettings& settings) {
    std::vector<std::string> encoded;
    for (const PartSlices& slices : parts) {
        RunControl control;
        encoded.push_back(EncodeScreenPart(
            ScreenSlices(queries, slices, settings, true, ScreenCallbacks(), control)));
    }
    return encoded;
}

/// The parts decoded and merged last to first: every part but the first has to wait for the
/// ones before it, the hardest order for the merger.
ScreenRun MergeReversed(const std::vector<std::string>& encoded, std::size_t rankings,
                        std::size_t best) {
    ScreenRun run;
    ScreenCallbacks callbacks;
    callbacks.row = [&run](const Row& row) { run.rows.push_back(row); };
    PartMerger merger(rankings, best, callbacks);
    for (std::size_t i = encoded.size(); i-- > 0;) {
        EXPECT_TRUE(merger.Add(i, DecodeScreenPart(encoded[i])));
        // Nothing can go out before part 0 is in; then everything does at once.
        EXPECT_EQ(merger.Merged(), i == 0 ? encoded.size() : 0u);
        if (i > 0) {
            EXPECT_TRUE(run.rows.empty());
        }
    }
    run.report = merger.Finish();
    return run;
}

/// The screen of `paths` split into parts of `partSize` molecules, screened part by part and
/// merged in reverse.
ScreenRun ScreenInParts(const QuerySet& queries, const std::vector<std::string>& paths,
                        const ScreenSettings& settings, std::size_t partSize) {
    const std::vector<PartSlices> parts =
        SplitIntoParts(paths, RequirementsOf(queries, settings), partSize);
    const std::size_t rankings = settings.perQuery ? queries.titles.size() : 1;
    return MergeReversed(ScreenEncodedParts(queries, parts, settings), rankings, settings.best);
}

// ---------------------------------------------------------------------------------------------
// Comparisons

/// The bits of a double. "The same result" means the same bits: stricter than ==, which takes
/// -0 for 0 and never matches the NaN rank score of a failed row.
std::uint64_t Bits(double value) {
    std::uint64_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

struct ScoreField {
    const char* name;
    double overlay::Scores::*field;
};

const ScoreField kScoreFields[] = {
    {"shapeTanimoto", &overlay::Scores::shapeTanimoto},
    {"shapeTverskyQuery", &overlay::Scores::shapeTverskyQuery},
    {"shapeTverskyFit", &overlay::Scores::shapeTverskyFit},
    {"hermiteTanimoto", &overlay::Scores::hermiteTanimoto},
    {"electrostaticTanimoto", &overlay::Scores::electrostaticTanimoto},
    {"electrostaticCarbo", &overlay::Scores::electrostaticCarbo},
    {"combo", &overlay::Scores::combo},
    {"overlap", &overlay::Scores::overlap},
    {"querySelfOverlap", &overlay::Scores::querySelfOverlap},
    {"fitSelfOverlap", &overlay::Scores::fitSelfOverlap},
};

void ExpectSameTransform(const QVChem::QVTrans& expected, const QVChem::QVTrans& actual) {
    double expectedR[9], expectedT[3], actualR[9], actualT[3];
    expected.Extract(expectedR, expectedT, true);
    actual.Extract(actualR, actualT, true);
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(Bits(actualR[i]), Bits(expectedR[i])) << "rotation " << i;
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Bits(actualT[i]), Bits(expectedT[i])) << "translation " << i;
    }
}

void ExpectSameRow(const Row& expected, const Row& actual) {
    SCOPED_TRACE("row of position " + std::to_string(expected.position) + " (" + expected.title +
                 ")");
    EXPECT_EQ(actual.position, expected.position);
    EXPECT_EQ(actual.title, expected.title);
    EXPECT_EQ(actual.file, expected.file);
    EXPECT_EQ(actual.record, expected.record);
    EXPECT_EQ(actual.conformer, expected.conformer);
    EXPECT_EQ(actual.conformers, expected.conformers);
    EXPECT_EQ(actual.query, expected.query);
    EXPECT_EQ(actual.queryConformer, expected.queryConformer);
    ExpectSameTransform(expected.result.transform, actual.result.transform);
    for (const ScoreField& score : kScoreFields) {
        EXPECT_EQ(Bits(actual.result.scores.*score.field),
                  Bits(expected.result.scores.*score.field))
            << score.name;
    }
    EXPECT_EQ(actual.result.hermiteEvaluations, expected.result.hermiteEvaluations);
    EXPECT_EQ(actual.result.exactEvaluations, expected.result.exactEvaluations);
    EXPECT_EQ(Bits(actual.rankScore), Bits(expected.rankScore));
    EXPECT_EQ(actual.error, expected.error);
    EXPECT_EQ(actual.skippedByBound, expected.skippedByBound);
    EXPECT_EQ(actual.warnings, expected.warnings);
}

void ExpectSameRows(const std::vector<Row>& expected, const std::vector<Row>& actual) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        ExpectSameRow(expected[i], actual[i]);
    }
}

void ExpectSameHits(const std::vector<std::vector<Hit>>& expected,
                    const std::vector<std::vector<Hit>>& actual) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t r = 0; r < expected.size(); ++r) {
        ASSERT_EQ(actual[r].size(), expected[r].size()) << "ranking " << r;
        for (std::size_t k = 0; k < expected[r].size(); ++k) {
            SCOPED_TRACE("ranking " + std::to_string(r) + ", hit " + std::to_string(k));
            const Hit& a = expected[r][k];
            const Hit& b = actual[r][k];
            EXPECT_EQ(b.rank, a.rank);
            EXPECT_EQ(Bits(b.score), Bits(a.score));
            EXPECT_EQ(b.position, a.position);
            ExpectSameRow(a.row, b.row);
            EXPECT_EQ(b.molBlock, a.molBlock);
            EXPECT_EQ(b.properties, a.properties);
            EXPECT_EQ(b.writeError, a.writeError);
        }
    }
}

void ExpectSameProblems(const ProblemLog& expected, const ProblemLog& actual) {
    ASSERT_EQ(actual.Kept().size(), expected.Kept().size());
    for (std::size_t i = 0; i < expected.Kept().size(); ++i) {
        const io::Problem& a = expected.Kept()[i];
        const io::Problem& b = actual.Kept()[i];
        EXPECT_EQ(b.file, a.file) << "problem " << i;
        EXPECT_EQ(b.record, a.record) << "problem " << i;
        EXPECT_EQ(b.title, a.title) << "problem " << i;
        EXPECT_EQ(b.reason, a.reason) << "problem " << i;
        EXPECT_EQ(b.skipped, a.skipped) << "problem " << i;
    }
    EXPECT_EQ(actual.Files(), expected.Files());
    EXPECT_EQ(actual.Records(), expected.Records());
    EXPECT_EQ(actual.Partial(), expected.Partial());
}

/// The tallies of the rows: counts, molecules above the cutoff, the kept failed and warned rows.
void ExpectSameTally(const RowTally& expected, const RowTally& actual) {
    EXPECT_EQ(actual.rows, expected.rows);
    EXPECT_EQ(actual.passing, expected.passing);
    EXPECT_EQ(actual.warnings, expected.warnings);
    ExpectSameRows(expected.failedRows, actual.failedRows);
    ExpectSameRows(expected.warnedRows, actual.warnedRows);
}

/// Everything a screen produces but its timings.
void ExpectSameScreen(const ScreenRun& expected, const ScreenRun& actual) {
    ExpectSameRows(expected.rows, actual.rows);
    ExpectSameHits(expected.report.hits, actual.report.hits);
    ExpectSameProblems(expected.report.problems, actual.report.problems);
    ExpectSameTally(expected.report.tally, actual.report.tally);
    EXPECT_EQ(actual.report.failed, expected.report.failed);
    EXPECT_EQ(actual.report.counts.molecules, expected.report.counts.molecules);
    EXPECT_EQ(actual.report.counts.conformers, expected.report.counts.conformers);
    EXPECT_EQ(actual.report.counts.overlays, expected.report.counts.overlays);
    EXPECT_FALSE(actual.report.interrupted);
}

/// Slice `s` of `part` is `count` molecules of `path` from `first`.
void ExpectSlice(const PartSlices& part, std::size_t s, const std::string& path, std::size_t first,
                 std::size_t count) {
    ASSERT_LT(s, part.size());
    EXPECT_EQ(part[s].path, path) << "slice " << s;
    EXPECT_EQ(part[s].first, first) << "slice " << s;
    EXPECT_EQ(part[s].count, count) << "slice " << s;
}

// ---------------------------------------------------------------------------------------------
// Splitting

TEST(ScreenParts, SplitsAFileIntoRunsOfConsecutiveMolecules) {
    const std::vector<PartSlices> parts = SplitIntoParts({Cdk2Path}, DatabaseRequirements(), 10);
    ASSERT_EQ(parts.size(), 5u);
    // Contiguous and complete: each part starts where the one before ended, and the last one
    // takes the 7 left over, so no molecule is screened twice or never.
    const std::size_t counts[] = {10, 10, 10, 10, 7};
    for (std::size_t p = 0; p < parts.size(); ++p) {
        ASSERT_EQ(parts[p].size(), 1u) << "part " << p;
        ExpectSlice(parts[p], 0, Cdk2Path, 10 * p, counts[p]);
    }
}

TEST(ScreenParts, PartsSpanFileBoundaries) {
    // 94 molecules in parts of 30: the second part ends the first file and starts the second,
    // so a part's size does not depend on where the files end.
    const std::vector<PartSlices> parts =
        SplitIntoParts({Cdk2Path, Cdk2Path}, DatabaseRequirements(), 30);
    ASSERT_EQ(parts.size(), 4u);
    ASSERT_EQ(parts[0].size(), 1u);
    ExpectSlice(parts[0], 0, Cdk2Path, 0, 30);
    ASSERT_EQ(parts[1].size(), 2u);
    ExpectSlice(parts[1], 0, Cdk2Path, 30, 17);
    ExpectSlice(parts[1], 1, Cdk2Path, 0, 13);
    ASSERT_EQ(parts[2].size(), 1u);
    ExpectSlice(parts[2], 0, Cdk2Path, 13, 30);
    ASSERT_EQ(parts[3].size(), 1u);
    ExpectSlice(parts[3], 0, Cdk2Path, 43, 4);
}

TEST(ScreenParts, UnusableFilesGoWholeIntoThePartBeingFilled) {
    TemporaryDirectory directory;
    const std::string missing = directory.File("missing.sdf");
    const std::string truncated = directory.File("truncated.sdf.gz");
    WriteTruncatedGzip(directory, truncated);
    const std::string unknown = directory.File("molecules.xyz");
    WriteText(unknown, "3\nwater\nO 0 0 0\nH 0 0 1\nH 0 1 0\n");
    // A file that cannot be read to its end is screened whole, by one part, so that its
    // problem is reported once and in its place; it does not count towards the part's size.
    const std::vector<PartSlices> parts = SplitIntoParts(
        {missing, Cdk2Path, truncated, unknown, Cdk2Path}, DatabaseRequirements(), 20);
    ASSERT_EQ(parts.size(), 5u);
    ASSERT_EQ(parts[0].size(), 2u);
    ExpectSlice(parts[0], 0, missing, 0, kNoIndex);
    ExpectSlice(parts[0], 1, Cdk2Path, 0, 20);
    ASSERT_EQ(parts[1].size(), 1u);
    ExpectSlice(parts[1], 0, Cdk2Path, 20, 20);
    ASSERT_EQ(parts[2].size(), 4u);
    ExpectSlice(parts[2], 0, Cdk2Path, 40, 7);
    ExpectSlice(parts[2], 1, truncated, 0, kNoIndex);
    ExpectSlice(parts[2], 2, unknown, 0, kNoIndex);
    ExpectSlice(parts[2], 3, Cdk2Path, 0, 13);
    ASSERT_EQ(parts[3].size(), 1u);
    ExpectSlice(parts[3], 0, Cdk2Path, 13, 20);
    ASSERT_EQ(parts[4].size(), 1u);
    ExpectSlice(parts[4], 0, Cdk2Path, 33, 14);

    // A full part still takes the unusable file that follows it rather than opening a part of
    // its own for nothing but a problem.
    const std::vector<PartSlices> full =
        SplitIntoParts({Cdk2Path, missing, Cdk2Path}, DatabaseRequirements(), 47);
    ASSERT_EQ(full.size(), 2u);
    ASSERT_EQ(full[0].size(), 2u);
    ExpectSlice(full[0], 0, Cdk2Path, 0, 47);
    ExpectSlice(full[0], 1, missing, 0, kNoIndex);
    ASSERT_EQ(full[1].size(), 1u);
    ExpectSlice(full[1], 0, Cdk2Path, 0, 47);
}

TEST(ScreenParts, ZeroMoleculesIsTakenAsOne) {
    // A part of no molecules would never be filled: the splitting could not move on.
    const std::vector<PartSlices> parts = SplitIntoParts({Cdk2Path}, DatabaseRequirements(), 0);
    ASSERT_EQ(parts.size(), 47u);
    for (std::size_t p = 0; p < parts.size(); ++p) {
        ASSERT_EQ(parts[p].size(), 1u) << "part " << p;
        ExpectSlice(parts[p], 0, Cdk2Path, p, 1);
    }
}

// ---------------------------------------------------------------------------------------------
// Measuring

TEST(ScreenParts, MeasureFileCountsMoleculesAndChecksTheFileToItsEnd) {
    const FileExtent cdk2 = MeasureFile(Cdk2Path, DatabaseRequirements());
    EXPECT_EQ(cdk2.molecules, 47u);
    EXPECT_TRUE(cdk2.usable);

    TemporaryDirectory directory;
    const FileExtent missing = MeasureFile(directory.File("missing.sdf"), DatabaseRequirements());
    EXPECT_FALSE(missing.usable);
    EXPECT_EQ(missing.molecules, 0u);

    // The molecules before the damage are counted, but the file cannot be split: slices after
    // the damage would not exist.
    const std::string truncated = directory.File("truncated.sdf.gz");
    WriteTruncatedGzip(directory, truncated);
    const FileExtent damaged = MeasureFile(truncated, DatabaseRequirements());
    EXPECT_FALSE(damaged.usable);
    EXPECT_GT(damaged.molecules, 0u);
    EXPECT_LT(damaged.molecules, 47u);

    // An SD file with a bad record is still read to its end: its records split fine, only
    // the chemistry fails later, record by record.
    const std::string bad = directory.File("damaged.sdf");
    WriteText(bad, DamagedSdText());
    const FileExtent badRecord = MeasureFile(bad, DatabaseRequirements());
    EXPECT_TRUE(badRecord.usable);
    EXPECT_EQ(badRecord.molecules, 13u);
}

TEST(ScreenParts, MeasureFileChecksPreparedLibrariesAgainstTheRequirements) {
    TemporaryDirectory directory;
    const std::string library = directory.File("cdk2.h5");
    ASSERT_NO_FATAL_FAILURE(PrepareCdk2Library(library));

    const FileExtent shape = MeasureFile(library, DatabaseRequirements());
    EXPECT_EQ(shape.molecules, 47u);
    EXPECT_TRUE(shape.usable);

    // Prepared without hydrogens: a screen that wants them must get the library's refusal
    // once, from a whole file, not once per slice.
    DatabaseRequirements hydrogens;
    hydrogens.hydrogens = true;
    const FileExtent refused = MeasureFile(library, hydrogens);
    EXPECT_FALSE(refused.usable);
    EXPECT_EQ(refused.molecules, 47u);

    DatabaseRequirements mmff;
    mmff.charges = true;
    mmff.chargeModel = io::ChargeModel::MMFF94;
    EXPECT_FALSE(MeasureFile(library, mmff).usable);
    DatabaseRequirements gasteiger;
    gasteiger.charges = true;
    EXPECT_TRUE(MeasureFile(library, gasteiger).usable);

    // A usable library splits like a molecule file; a refused one goes whole.
    const std::vector<PartSlices> parts = SplitIntoParts({library}, DatabaseRequirements(), 20);
    ASSERT_EQ(parts.size(), 3u);
    ExpectSlice(parts[0], 0, library, 0, 20);
    ExpectSlice(parts[1], 0, library, 20, 20);
    ExpectSlice(parts[2], 0, library, 40, 7);
    const std::vector<PartSlices> whole = SplitIntoParts({library}, hydrogens, 20);
    ASSERT_EQ(whole.size(), 1u);
    ASSERT_EQ(whole[0].size(), 1u);
    ExpectSlice(whole[0], 0, library, 0, kNoIndex);
}

// ---------------------------------------------------------------------------------------------
// Merging equals one screen

TEST(ScreenParts, MergedPartsEqualOneScreenBitForBit) {
    const QuerySet queries = Cdk2Queries({0});
    const ScreenSettings settings = FewHits();
    const ScreenRun whole = ScreenWhole(queries, {Cdk2Path}, settings);
    ASSERT_EQ(whole.rows.size(), 47u);
    ASSERT_EQ(whole.report.hits.size(), 1u);
    ASSERT_EQ(whole.report.hits[0].size(), 5u);
    EXPECT_EQ(whole.report.hits[0][0].position, 0u);  // the query finds itself first
    // The parts run on two threads in small batches, the whole screen on one: neither the
    // split nor the threads may change a bit.
    ScreenSettings partSettings = settings;
    partSettings.threads = 2;
    partSettings.batchSize = 3;
    // One molecule per part (every hit list holds one candidate), a size that does not divide
    // 47, exactly the database, and more than the database (a single part).
    for (std::size_t size : {1u, 7u, 47u, 100u}) {
        SCOPED_TRACE("parts of " + std::to_string(size));
        ExpectSameScreen(whole, ScreenInParts(queries, {Cdk2Path}, partSettings, size));
    }
}

TEST(ScreenParts, PartsSkippingByTheScoreBoundKeepTheHitsOfOneScreen) {
    // Each part skips against its own hit list, whose threshold is at most the whole screen's:
    // it keeps every molecule that may be a hit of the whole, and the merge ranks them. Small
    // molecules after the ligands cannot reach the cutoff and are skipped.
    TemporaryDirectory directory;
    const std::string small = directory.File("small.smi");
    WriteText(small, "C methane\nCCO ethanol\nc1ccccc1 benzene\n");
    const QuerySet queries = Cdk2Queries({4});
    ScreenSettings settings = FewHits();
    settings.cutoff = 0.6;
    settings.read.smilesConformers = 2;
    const ScreenRun whole = ScreenWhole(queries, {Cdk2Path, small}, settings);
    ScreenSettings skipping = settings;
    skipping.skipByBound = true;
    skipping.threads = 2;
    for (std::size_t size : {7u, 50u}) {
        SCOPED_TRACE("parts of " + std::to_string(size));
        const ScreenRun parts = ScreenInParts(queries, {Cdk2Path, small}, skipping, size);
        ExpectSameHits(whole.report.hits, parts.report.hits);
        EXPECT_LT(parts.report.counts.overlays, whole.report.counts.overlays);
        EXPECT_GE(parts.report.tally.skippedByBound, 3u);
    }
}

TEST(ScreenParts, PerQueryPartsEqualOneScreen) {
    // Two rows per molecule share its position, and each query molecule has its own hits.
    const QuerySet queries = Cdk2Queries({0, 1});
    const ScreenSettings settings = FewHits(true);
    const ScreenRun whole = ScreenWhole(queries, {Cdk2Path}, settings);
    ASSERT_EQ(whole.rows.size(), 94u);
    EXPECT_EQ(whole.rows[93].position, 46u);
    ASSERT_EQ(whole.report.hits.size(), 2u);
    EXPECT_EQ(whole.report.hits[1][0].position, 1u);
    for (std::size_t size : {1u, 6u, 100u}) {
        SCOPED_TRACE("parts of " + std::to_string(size));
        ExpectSameScreen(whole, ScreenInParts(queries, {Cdk2Path}, settings, size));
    }
}

TEST(ScreenParts, ProblemsMergeInReadingOrder) {
    TemporaryDirectory directory;
    const std::string missing = directory.File("missing.sdf");
    const std::string damaged = directory.File("damaged.sdf");
    WriteText(damaged, DamagedSdText());
    const std::string truncated = directory.File("truncated.sdf.gz");
    WriteTruncatedGzip(directory, truncated);
    const std::vector<std::string> paths = {missing, damaged, truncated};

    const QuerySet queries = Cdk2Queries({0});
    const ScreenSettings settings = FewHits();
    const ScreenRun whole = ScreenWhole(queries, paths, settings);
    // The missing file, the bad record, the read error, in that order.
    const std::vector<io::Problem>& problems = whole.report.problems.Kept();
    ASSERT_EQ(problems.size(), 3u);
    EXPECT_EQ(problems[0].file, missing);
    EXPECT_EQ(problems[0].record, 0u);
    EXPECT_EQ(problems[1].file, damaged);
    EXPECT_EQ(problems[1].record, 7u);
    EXPECT_EQ(problems[2].file, truncated);
    EXPECT_EQ(problems[2].record, 0u);
    EXPECT_EQ(whole.report.problems.Files(), 2u);
    EXPECT_EQ(whole.report.problems.Records(), 1u);
    ASSERT_GT(whole.rows.size(), 12u);  // the damaged file's 12 and the truncated file's
    // The bad record leaves no row: the molecule after it takes its position.
    const std::string seventh = SplitSdRecords(ReadText(Cdk2Path)).at(6);
    EXPECT_EQ(whole.rows[6].title, seventh.substr(0, seventh.find('\n')));

    for (std::size_t size : {1u, 4u, 100u}) {
        SCOPED_TRACE("parts of " + std::to_string(size));
        ExpectSameScreen(whole, ScreenInParts(queries, paths, settings, size));
    }
}

TEST(ScreenParts, LibraryPartsEqualOneScreen) {
    // A part may hold a library slice after a file slice: its hits must be loaded from the
    // library by the part's own numbering of its inputs.
    TemporaryDirectory directory;
    const std::string library = directory.File("cdk2.h5");
    ASSERT_NO_FATAL_FAILURE(PrepareCdk2Library(library));
    const std::vector<std::string> paths = {Cdk2Path, library};
    const QuerySet queries = Cdk2Queries({0});
    const ScreenSettings settings = FewHits();
    const ScreenRun whole = ScreenWhole(queries, paths, settings);
    ASSERT_EQ(whole.rows.size(), 94u);
    ASSERT_EQ(whole.report.hits[0].size(), 5u);
    EXPECT_TRUE(whole.report.problems.Kept().empty());
    ExpectSameScreen(whole, ScreenInParts(queries, paths, settings, 30));
}

TEST(ScreenParts, TiesAcrossPartsKeepInputOrder) {
    // CDK2 twice: every molecule has a twin with the very same score in another part, so the
    // merged hit lists must break ties by the global position, as one run does.
    const QuerySet queries = Cdk2Queries({0});
    const ScreenSettings settings = FewHits();
    const std::vector<std::string> paths = {Cdk2Path, Cdk2Path};
    const ScreenRun whole = ScreenWhole(queries, paths, settings);
    ASSERT_EQ(whole.rows.size(), 94u);
    const std::vector<Hit>& hits = whole.report.hits.at(0);
    ASSERT_EQ(hits.size(), 5u);
    EXPECT_EQ(hits[0].position, 0u);
    EXPECT_EQ(hits[1].position, 47u);
    EXPECT_EQ(Bits(hits[1].score), Bits(hits[0].score));
    for (std::size_t size : {1u, 30u}) {
        SCOPED_TRACE("parts of " + std::to_string(size));
        ExpectSameScreen(whole, ScreenInParts(queries, paths, settings, size));
    }
}

TEST(ScreenParts, RecordGroupsStayWholeAndKeepTheirPositions) {
    // Two records of one title and constitution are one molecule with two conformers; two of
    // one title but different constitutions are one source molecule that gives two molecules
    // (two positions). Parts count source molecules, but the merge must shift positions by
    // the molecules each part screened.
    const std::vector<std::string> records = SplitSdRecords(ReadText(Cdk2Path));
    const std::string text = io::testing::Retitled(records.at(0), "pair") +
                             io::testing::Retitled(records.at(0), "pair") +
                             io::testing::Retitled(records.at(1), "twin") +
                             io::testing::Retitled(records.at(2), "twin") + records.at(3) +
                             records.at(4) + records.at(5);
    TemporaryDirectory directory;
    const std::string path = directory.File("groups.sdf");
    WriteText(path, text);
    const FileExtent extent = MeasureFile(path, DatabaseRequirements());
    EXPECT_TRUE(extent.usable);
    EXPECT_EQ(extent.molecules, 5u);

    const QuerySet queries = Cdk2Queries({0});
    const ScreenSettings settings = FewHits();
    const ScreenRun whole = ScreenWhole(queries, {path}, settings);
    ASSERT_EQ(whole.rows.size(), 6u);
    EXPECT_EQ(whole.rows[0].conformers, 2u);
    EXPECT_EQ(whole.rows[1].title, "twin");
    EXPECT_EQ(whole.rows[2].title, "twin");
    EXPECT_EQ(whole.rows[2].position, 2u);
    EXPECT_EQ(whole.rows[5].position, 5u);
    EXPECT_EQ(whole.report.problems.Partial(), 1u);
    for (std::size_t size : {1u, 2u}) {
        SCOPED_TRACE("parts of " + std::to_string(size));
        ExpectSameScreen(whole, ScreenInParts(queries, {path}, settings, size));
    }
}

TEST(ScreenParts, SmilesPartsGenerateTheSameConformers) {
    // A SMILES is embedded with a seed made from its line number: a part that starts in the
    // middle of the file must still number its lines from the file's start, or its conformers,
    // and so every score, would differ from one run's.
    TemporaryDirectory directory;
    const std::string path = directory.File("small.smi");
    WriteText(path,
              "c1ccccc1C(=O)O benzoic\nCC(C)Cc1ccc(cc1)C(C)C(=O)O ibuprofen\n"
              "CC(=O)Oc1ccccc1C(=O)O aspirin\nCN1C=NC2=C1C(=O)N(C(=O)N2C)C caffeine\n"
              "OCC(O)C(O)C(O)C(O)CO sorbitol\n");
    const QuerySet queries = Cdk2Queries({0});
    ScreenSettings settings = FewHits();
    settings.best = 2;
    settings.read.smilesConformers = 3;
    const ScreenRun whole = ScreenWhole(queries, {path}, settings);
    ASSERT_EQ(whole.rows.size(), 5u);
    EXPECT_EQ(whole.rows[4].title, "sorbitol");
    for (std::size_t size : {1u, 2u}) {
        SCOPED_TRACE("parts of " + std::to_string(size));
        ExpectSameScreen(whole, ScreenInParts(queries, {path}, settings, size));
    }
}

// ---------------------------------------------------------------------------------------------
// The merger's bookkeeping

/// The decoded part with every score raised above any real one and its counts doubled: if the
/// merger took it, the hits and counts would show it.
ScreenPart Tampered(const std::string& encoded) {
    ScreenPart part = DecodeScreenPart(encoded);
    for (std::vector<Hit>& hits : part.report.hits) {
        for (Hit& hit : hits) {
            hit.score = 2.0;
            hit.row.rankScore = 2.0;
        }
    }
    for (Row& row : part.rows) {
        row.title = "tampered";
    }
    part.report.counts.molecules *= 2;
    part.report.counts.overlays *= 2;
    return part;
}

TEST(ScreenParts, APartGivenTwiceIsMergedOnce) {
    const QuerySet queries = Cdk2Queries({0});
    const ScreenSettings settings = FewHits();
    const ScreenRun whole = ScreenWhole(queries, {Cdk2Path}, settings);
    const std::vector<PartSlices> parts =
        SplitIntoParts({Cdk2Path}, RequirementsOf(queries, settings), 20);
    ASSERT_EQ(parts.size(), 3u);
    const std::vector<std::string> encoded = ScreenEncodedParts(queries, parts, settings);

    ScreenRun merged;
    ScreenCallbacks callbacks;
    callbacks.row = [&merged](const Row& row) { merged.rows.push_back(row); };
    std::vector<unsigned long> progress;  // the molecules merged, after each merged part
    callbacks.progress = [&progress](const ScreenProgress& counts) {
        progress.push_back(counts.molecules);
    };
    PartMerger merger(1, settings.best, callbacks);
    // The second part waits for the first: nothing is merged, no row goes out.
    EXPECT_TRUE(merger.Add(1, DecodeScreenPart(encoded[1])));
    EXPECT_EQ(merger.Merged(), 0u);
    EXPECT_TRUE(merged.rows.empty());
    // A part computed again (after a worker was presumed lost) is refused while it waits...
    EXPECT_FALSE(merger.Add(1, Tampered(encoded[1])));
    EXPECT_TRUE(merger.Add(0, DecodeScreenPart(encoded[0])));
    EXPECT_EQ(merger.Merged(), 2u);
    EXPECT_EQ(merged.rows.size(), 40u);
    // ...and once merged.
    EXPECT_FALSE(merger.Add(0, Tampered(encoded[0])));
    EXPECT_FALSE(merger.Add(1, Tampered(encoded[1])));
    EXPECT_EQ(merger.Merged(), 2u);
    EXPECT_EQ(merged.rows.size(), 40u);
    EXPECT_TRUE(merger.Add(2, DecodeScreenPart(encoded[2])));
    EXPECT_EQ(merger.Merged(), 3u);
    // One report per part merged, none for the parts refused.
    EXPECT_EQ(progress, (std::vector<unsigned long>{20, 40, 47}));
    merged.report = merger.Finish();
    ExpectSameScreen(whole, merged);
}

TEST(ScreenParts, APartWithMoreRankingsThanTheScreenIsRefused) {
    ScreenPart part;
    part.report.hits.resize(2);
    PartMerger merger(1, 5, ScreenCallbacks());
    EXPECT_THROW(merger.Add(0, part), std::runtime_error);
}

// ---------------------------------------------------------------------------------------------
// Encoding

/// A real part (the first five CDK2 molecules against the first, rows kept) with a warning and
/// a problem added, so that every field of the encoding carries something.
ScreenPart SmallPart() {
    RunControl control;
    ScreenPart part = ScreenSlices(Cdk2Queries({0}), {FileSlice{Cdk2Path, 0, 5}}, FewHits(), true,
                                   ScreenCallbacks(), control);
    part.rows.at(1).warnings = {"first warning", "second warning"};
    part.rows.at(3).skippedByBound = true;
    part.report.tally.skippedByBound = 7;
    part.report.problems.Add(io::Problem{"some.sdf", 3, "title", "cannot be parsed", true});
    part.report.problems.Add(io::Problem{"some.sdf", 4, "", "a conformer was lost", false});
    return part;
}

/// Decodes `bytes`: true when they were refused with std::runtime_error. Anything else thrown
/// (std::bad_alloc from a count taken at its word, std::length_error) escapes and fails.
bool Refused(std::string_view bytes) {
    try {
        DecodeScreenPart(bytes);
        return false;
    } catch (const std::runtime_error&) {
        return true;
    }
}

std::uint64_t WordAt(const std::string& bytes, std::size_t offset) {
    std::uint64_t word;
    std::memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

std::string WithWordAt(std::string bytes, std::size_t offset, std::uint64_t word) {
    std::memcpy(&bytes[offset], &word, sizeof word);
    return bytes;
}

TEST(ScreenParts, EncodingRoundTripsBitForBit) {
    const ScreenPart part = SmallPart();
    ASSERT_EQ(part.rows.size(), 5u);
    ASSERT_EQ(part.report.hits.at(0).size(), 5u);
    ASSERT_FALSE(part.report.hits[0][0].molBlock.empty());
    const std::string bytes = EncodeScreenPart(part);
    const ScreenPart decoded = DecodeScreenPart(bytes);
    ExpectSameRows(part.rows, decoded.rows);
    ExpectSameHits(part.report.hits, decoded.report.hits);
    ExpectSameProblems(part.report.problems, decoded.report.problems);
    EXPECT_EQ(decoded.report.failed, part.report.failed);
    EXPECT_EQ(decoded.report.tally.skippedByBound, 7u);
    EXPECT_EQ(decoded.report.counts.molecules, 5u);
    EXPECT_EQ(decoded.report.counts.conformers, part.report.counts.conformers);
    EXPECT_EQ(decoded.report.counts.overlays, part.report.counts.overlays);
    EXPECT_EQ(Bits(decoded.report.overlaySeconds), Bits(part.report.overlaySeconds));
    EXPECT_EQ(Bits(decoded.report.seconds), Bits(part.report.seconds));
    EXPECT_EQ(decoded.report.peakInFlight, part.report.peakInFlight);
    EXPECT_EQ(decoded.report.interrupted, part.report.interrupted);
    // Nothing is lost or added on the way: the decoded part encodes to the same bytes.
    EXPECT_EQ(EncodeScreenPart(decoded), bytes);
    // An empty part (a slice of nothing) travels too.
    EXPECT_EQ(EncodeScreenPart(DecodeScreenPart(EncodeScreenPart(ScreenPart()))),
              EncodeScreenPart(ScreenPart()));
}

TEST(ScreenParts, DecodeRefusesTruncatedAndAlteredBytes) {
    const std::string bytes = EncodeScreenPart(SmallPart());
    ASSERT_NO_THROW(DecodeScreenPart(bytes));
    EXPECT_THROW(DecodeScreenPart(""), std::runtime_error);

    // A part cut short, as a lost connection leaves it: about 64 cut points spread over the
    // whole encoding, plus every cut within the last field.
    const std::size_t step = std::max<std::size_t>(1, bytes.size() / 64);
    std::size_t cuts = 0;
    for (std::size_t length = 0; length < bytes.size(); length += step, ++cuts) {
        EXPECT_THROW(DecodeScreenPart(std::string_view(bytes).substr(0, length)),
                     std::runtime_error)
            << "cut at " << length << " of " << bytes.size();
    }
    EXPECT_GE(cuts, 50u);
    for (std::size_t length = bytes.size() - 8; length < bytes.size(); ++length) {
        EXPECT_THROW(DecodeScreenPart(std::string_view(bytes).substr(0, length)),
                     std::runtime_error);
    }

    // Not a part: the magic text follows its 8-byte length.
    std::string magic = bytes;
    magic[8] ^= 0x01;
    EXPECT_THROW(DecodeScreenPart(magic), std::runtime_error);
    // A part of a machine of the other byte order: the word after the magic text, reversed.
    const std::size_t byteOrder = 8 + WordAt(bytes, 0);
    const std::uint64_t order = WordAt(bytes, byteOrder);
    std::uint64_t reversed = 0;
    for (int i = 0; i < 8; ++i) {
        reversed |= ((order >> (8 * i)) & 0xFFu) << (8 * (7 - i));
    }
    EXPECT_THROW(DecodeScreenPart(WithWordAt(bytes, byteOrder, reversed)), std::runtime_error);
    // More than a part: two parts back to back are not one.
    EXPECT_THROW(DecodeScreenPart(bytes + '\0'), std::runtime_error);
    EXPECT_THROW(DecodeScreenPart(bytes + bytes), std::runtime_error);
}

TEST(ScreenParts, DecodeRefusesHugeCountsWithoutAllocating) {
    const std::string bytes = EncodeScreenPart(SmallPart());
    // The row count follows the byte-order word; a corrupt one must be checked against the
    // bytes left before anything is allocated for it.
    const std::size_t rowCount = 8 + WordAt(bytes, 0) + 8;
    ASSERT_EQ(WordAt(bytes, rowCount), 5u);
    for (std::uint64_t huge : {~std::uint64_t{0}, std::uint64_t{1} << 62, std::uint64_t{1} << 40,
                               std::uint64_t{bytes.size()}}) {
        EXPECT_THROW(DecodeScreenPart(WithWordAt(bytes, rowCount, huge)), std::runtime_error)
            << huge;
    }
    // The first row's title length (after its position).
    const std::size_t titleLength = rowCount + 16;
    EXPECT_THROW(DecodeScreenPart(WithWordAt(bytes, titleLength, ~std::uint64_t{0})),
                 std::runtime_error);

    // Every other count and length too, wherever it is: a word of all ones written at every
    // offset either still decodes (it landed in a score, a flag...) or is refused with
    // std::runtime_error; never std::bad_alloc or std::length_error, which would escape here.
    std::size_t refused = 0;
    for (std::size_t offset = 0; offset + 8 <= bytes.size(); ++offset) {
        refused += Refused(WithWordAt(bytes, offset, ~std::uint64_t{0})) ? 1 : 0;
    }
    EXPECT_GT(refused, 0u);
}

}  // namespace
}  // namespace hermite::screen
