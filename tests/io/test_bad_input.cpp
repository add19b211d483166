// Bad input: every unusable file or record becomes a Problem naming file and record, and the
// other records are read.

#include <gtest/gtest.h>

#include <cmath>
#include <regex>

#include "io/molecule_io.h"
#include "io_test_support.h"

namespace hermite::io {
namespace {

using testing::Cdk2Path;
using testing::ReadText;
using testing::Retitled;
using testing::SplitSdRecords;
using testing::TemporaryDirectory;
using testing::WriteGzip;
using testing::WriteText;

/// Ethyl iron with hydrogens, in 3-D: Gasteiger charges come out NaN on the iron and its
/// carbon.
const char* const EthylIron =
    "ethyliron\n"
    "     RDKit          3D\n"
    "\n"
    "  8  7  0  0  0  0  0  0  0  0999 V2000\n"
    "   -0.7922    0.1899    0.0022 C   0  0  0  0  0  0  0  0  0  0  0  0\n"
    "    0.6079   -0.4074    0.0338 C   0  0  0  0  0  0  0  0  0  0  0  0\n"
    "    1.8518    1.1856   -0.1807 Fe  0  0  0  0  0  1  0  0  0  0  0  0\n"
    "   -0.9099    0.6559   -1.0039 H   0  0  0  0  0  0  0  0  0  0  0  0\n"
    "   -1.5753   -0.5633    0.1787 H   0  0  0  0  0  0  0  0  0  0  0  0\n"
    "   -0.7830    0.9928    0.7944 H   0  0  0  0  0  0  0  0  0  0  0  0\n"
    "    0.7891   -1.1041   -0.7996 H   0  0  0  0  0  0  0  0  0  0  0  0\n"
    "    0.8115   -0.9493    0.9753 H   0  0  0  0  0  0  0  0  0  0  0  0\n"
    "  1  2  1  0\n"
    "  2  3  1  0\n"
    "  1  4  1  0\n"
    "  1  5  1  0\n"
    "  1  6  1  0\n"
    "  2  7  1  0\n"
    "  2  8  1  0\n"
    "M  END\n"
    "$$$$\n";

/// A record without atoms.
const char* const EmptyRecord =
    "nothing\n"
    "     RDKit          3D\n"
    "\n"
    "  0  0  0  0  0  0  0  0  0  0999 V2000\n"
    "M  END\n"
    "> <note>\n"
    "no atoms at all\n"
    "\n"
    "$$$$\n";

/// Dihydrogen: atoms, but no heavy atom to select.
const char* const Dihydrogen =
    "dihydrogen\n"
    "     RDKit          3D\n"
    "\n"
    "  2  1  0  0  0  0  0  0  0  0999 V2000\n"
    "    0.0000    0.0000    0.0000 H   0  0  0  0  0  0  0  0  0  0  0  0\n"
    "    0.7400    0.0000    0.1000 H   0  0  0  0  0  0  0  0  0  0  0  0\n"
    "  1  2  1  0\n"
    "M  END\n"
    "$$$$\n";

std::vector<std::string> Cdk2Records() {
    return SplitSdRecords(ReadText(Cdk2Path));
}

/// `record` with every atom's z coordinate set to 0, as in a 2-D drawing.
std::string Flattened(const std::string& record) {
    static const std::regex atomLine(
        R"(^(\s+-?\d+\.\d{4}\s+-?\d+\.\d{4})\s+-?\d+\.\d{4}( [A-Z][a-z]? .*)$)");
    std::istringstream lines(record);
    std::string line;
    std::string flattened;
    while (std::getline(lines, line)) {
        std::smatch match;
        if (std::regex_match(line, match, atomLine)) {
            line = match[1].str() + "    0.0000" + match[2].str();
        }
        flattened += line + "\n";
    }
    return flattened;
}

/// `record` flattened, with no dimension declared on its program line: the z coordinates are
/// all there is to judge by.
std::string FlattenedUndeclared(const std::string& record) {
    std::string flat = Flattened(record);
    flat.replace(flat.find("3D"), 2, "  ");
    return flat;
}

/// Titles of the molecules read from `path`.
std::vector<std::string> Titles(const std::vector<Molecule>& molecules) {
    std::vector<std::string> titles;
    for (const Molecule& molecule : molecules) {
        titles.push_back(molecule.title);
    }
    return titles;
}

// ---------------------------------------------------------------------------------------------
// Files

TEST(BadInput, MissingFile) {
    const std::string path = "/nonexistent/directory/ligands.sdf";
    MoleculeReader reader(path);
    EXPECT_FALSE(reader.Ok());
    ASSERT_EQ(reader.Problems().size(), 1u);
    const Problem& problem = reader.Problems()[0];
    EXPECT_EQ(problem.file, path);
    EXPECT_EQ(problem.record, 0u);
    EXPECT_EQ(problem.reason, "cannot open file: No such file or directory");
    EXPECT_EQ(problem.Message(), path + ": cannot open file: No such file or directory");
    Molecule molecule;
    EXPECT_FALSE(reader.Next(molecule));
    EXPECT_EQ(reader.RecordsRead(), 0u);
}

TEST(BadInput, DirectoryInsteadOfFile) {
    TemporaryDirectory directory;
    const std::string path = directory.File("folder.sdf");
    ASSERT_EQ(::mkdir(path.c_str(), 0755), 0);
    MoleculeReader reader(path);
    EXPECT_FALSE(reader.Ok());
    ASSERT_EQ(reader.Problems().size(), 1u);
    EXPECT_EQ(reader.Problems()[0].reason, "cannot open file: Is a directory");
}

TEST(BadInput, UnknownExtension) {
    TemporaryDirectory directory;
    const std::string path = directory.File("ligands.pdb");
    WriteText(path, Cdk2Records()[0]);
    MoleculeReader reader(path);
    EXPECT_FALSE(reader.Ok());
    EXPECT_EQ(reader.Format(), FileFormat::Unknown);
    ASSERT_EQ(reader.Problems().size(), 1u);
    EXPECT_EQ(reader.Problems()[0].reason.rfind("unknown file extension", 0), 0u);
    Molecule molecule;
    EXPECT_FALSE(reader.Next(molecule));
}

TEST(BadInput, EmptyFileHasNoMoleculesAndNoProblems) {
    TemporaryDirectory directory;
    const std::string path = directory.File("empty.sdf");
    WriteText(path, "");
    MoleculeReader reader(path);
    EXPECT_TRUE(reader.Ok());
    Molecule molecule;
    EXPECT_FALSE(reader.Next(molecule));
    EXPECT_TRUE(reader.Problems().empty());
}

TEST(BadInput, TruncatedGzipKeepsTheMoleculesBeforeTheDamage) {
    TemporaryDirectory directory;
    const std::string whole = directory.File("whole.sdf.gz");
    WriteGzip(whole, ReadText(Cdk2Path));
    const std::string compressed = ReadText(whole);
    const std::string path = directory.File("truncated.sdf.gz");
    WriteText(path, compressed.substr(0, compressed.size() / 2));
    MoleculeReader reader(path);
    ASSERT_TRUE(reader.Ok());
    std::vector<Molecule> molecules;
    Molecule molecule;
    while (reader.Next(molecule)) {
        molecules.push_back(molecule);
    }
    EXPECT_GT(molecules.size(), 5u);
    EXPECT_LT(molecules.size(), 47u);
    ASSERT_FALSE(reader.Problems().empty());
    const Problem& last = reader.Problems().back();
    EXPECT_EQ(last.record, 0u);
    // zlib's own name for the file ("<fd:N>") does not leak: the problem names the path.
    EXPECT_EQ(last.reason, "read error: unexpected end of file") << last.Message();
    EXPECT_EQ(last.file, path);
}

// ---------------------------------------------------------------------------------------------
// Records

TEST(BadInput, UnparsableRecordInTheMiddle) {
    std::vector<std::string> records = Cdk2Records();
    // Record 2 loses its counts line; record 4 gets a pentavalent carbon (RDKit sanitisation).
    std::string unparsable = records[1];
    const std::size_t countsStart = unparsable.rfind('\n', unparsable.find(" V2000")) + 1;
    const std::size_t countsEnd = unparsable.find('\n', countsStart);
    unparsable.replace(countsStart, countsEnd - countsStart, "this is not a counts line");
    std::string overvalent = records[3];
    overvalent.replace(overvalent.find("  1  2  1  0"), 12, "  1  2  3  0");
    TemporaryDirectory directory;
    const std::string path = directory.File("damaged.sdf");
    WriteText(path, records[0] + unparsable + records[2] + overvalent + records[4]);
    MoleculeReader reader(path);
    std::vector<Molecule> molecules;
    Molecule molecule;
    while (reader.Next(molecule)) {
        molecules.push_back(molecule);
    }
    EXPECT_EQ(Titles(molecules),
              std::vector<std::string>({"ZINC03814457", "ZINC03814460", "ZINC03814458"}));
    ASSERT_EQ(reader.Problems().size(), 2u);
    const Problem& first = reader.Problems()[0];
    EXPECT_EQ(first.file, path);
    EXPECT_EQ(first.record, 2u);
    EXPECT_EQ(first.title, "ZINC03814459");
    EXPECT_TRUE(first.skipped);
    EXPECT_EQ(first.reason.rfind("RDKit could not parse the record", 0), 0u) << first.Message();
    const Problem& second = reader.Problems()[1];
    EXPECT_EQ(second.record, 4u);
    EXPECT_EQ(second.title, "ZINC00023543");
    EXPECT_NE(second.reason.find("valence"), std::string::npos) << second.Message();
    EXPECT_EQ(reader.RecordsRead(), 5u);
    EXPECT_EQ(reader.RecordsSkipped(), 2u);
    EXPECT_EQ(reader.MoleculesReturned(), 3u);
}

TEST(BadInput, TwoDimensionalRecord) {
    std::vector<std::string> records = Cdk2Records();
    TemporaryDirectory directory;
    const std::string path = directory.File("flat.sdf");
    std::string flat = FlattenedUndeclared(records[1]);
    ASSERT_NE(flat, records[1]);
    std::string marked2D = Flattened(records[2]);
    marked2D.replace(marked2D.find("3D"), 2, "2D");
    WriteText(path, records[0] + flat + marked2D + records[3]);
    MoleculeReader reader(path);
    std::vector<Molecule> molecules;
    Molecule molecule;
    while (reader.Next(molecule)) {
        molecules.push_back(molecule);
    }
    EXPECT_EQ(Titles(molecules), std::vector<std::string>({"ZINC03814457", "ZINC00023543"}));
    ASSERT_EQ(reader.Problems().size(), 2u);
    EXPECT_EQ(reader.Problems()[0].Message(),
              path + ", record 2 (ZINC03814459): molecule has no 3-D coordinates");
    EXPECT_EQ(reader.Problems()[1].Message(),
              path + ", record 3 (ZINC03814460): molecule has no 3-D coordinates");
}

TEST(BadInput, EmptyMolecules) {
    TemporaryDirectory directory;
    const std::string path = directory.File("empty-molecules.sdf");
    WriteText(path, std::string(EmptyRecord) + Cdk2Records()[0] + Dihydrogen);
    MoleculeReader reader(path);
    std::vector<Molecule> molecules;
    Molecule molecule;
    while (reader.Next(molecule)) {
        molecules.push_back(molecule);
    }
    EXPECT_EQ(Titles(molecules), std::vector<std::string>({"ZINC03814457"}));
    ASSERT_EQ(reader.Problems().size(), 2u);
    EXPECT_EQ(reader.Problems()[0].Message(), path + ", record 1 (nothing): molecule has no atoms");
    // Dihydrogen has atoms, but no heavy atom is left to select.
    EXPECT_EQ(reader.Problems()[1].Message(),
              path + ", record 3 (dihydrogen): molecule has no atoms");
    // With hydrogens selected it is a molecule.
    ReadOptions withHydrogens;
    withHydrogens.hydrogens = true;
    std::vector<Problem> problems;
    EXPECT_EQ(ReadAll(path, withHydrogens, &problems).size(), 2u);
    EXPECT_EQ(problems.size(), 1u);
}

TEST(BadInput, GasteigerChargesOfAMetalAreNaN) {
    TemporaryDirectory directory;
    const std::string path = directory.File("metal.sdf");
    WriteText(path, Cdk2Records()[0] + EthylIron + Cdk2Records()[1]);
    std::vector<Problem> problems;
    const std::vector<Molecule> molecules = ReadAll(path, ReadOptions(), &problems);
    EXPECT_EQ(Titles(molecules), std::vector<std::string>({"ZINC03814457", "ZINC03814459"}));
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].Message(),
              path + ", record 2 (ethyliron): partial charges could not be computed (NaN)");
}

TEST(BadInput, MoleculesWithoutChargesKeptWhenChargesAreNotRequired) {
    TemporaryDirectory directory;
    const std::string path = directory.File("metal.sdf");
    WriteText(path, std::string(EthylIron) + Cdk2Records()[0]);
    ReadOptions options;
    options.chargesRequired = false;
    std::vector<Problem> problems;
    std::vector<Molecule> molecules = ReadAll(path, options, &problems);
    EXPECT_EQ(Titles(molecules), std::vector<std::string>({"ethyliron", "ZINC03814457"}));
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_FALSE(problems[0].skipped);
    EXPECT_EQ(problems[0].Message(), path +
                                         ", record 1 (ethyliron): partial charges could not be "
                                         "computed (NaN); kept with NaN charges");
    const QVChem::QVMol& ethylIron = molecules[0].conformers[0].Mol();
    ASSERT_EQ(ethylIron.NumAtoms(), 3u);
    EXPECT_TRUE(std::isnan(ethylIron.GetAtom(2).GetPartialCharge()));

    // MMFF94 typing fails on iron: every charge is NaN, the shape is there.
    options.charges = ChargeModel::MMFF94;
    problems.clear();
    molecules = ReadAll(path, options, &problems);
    ASSERT_EQ(molecules.size(), 2u);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].reason,
              "MMFF94 charges could not be computed: MMFF94 atom typing failed; kept with NaN "
              "charges");
    for (const QVChem::QVAtom& atom : molecules[0].conformers[0].Mol()) {
        EXPECT_TRUE(std::isnan(atom.GetPartialCharge()));
    }
    EXPECT_FALSE(std::isnan(molecules[1].conformers[0].Mol().GetAtom(0).GetPartialCharge()));

    // SMILES read with input charges.
    const std::string smiles = directory.File("in.smi");
    WriteText(smiles, "CCO ethanol\n");
    options.charges = ChargeModel::Input;
    options.smilesConformers = 2;
    problems.clear();
    molecules = ReadAll(smiles, options, &problems);
    ASSERT_EQ(molecules.size(), 1u);
    EXPECT_EQ(molecules[0].conformers.size(), 2u);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_FALSE(problems[0].skipped);
}

TEST(BadInput, Mmff94TypingFailure) {
    TemporaryDirectory directory;
    const std::string path = directory.File("boron.smi");
    WriteText(path, "OB(O)c1ccccc1 phenylboronic-acid\nc1ccccc1O phenol\n");
    ReadOptions options;
    options.smilesConformers = 1;
    options.charges = ChargeModel::MMFF94;
    std::vector<Problem> problems;
    const std::vector<Molecule> molecules = ReadAll(path, options, &problems);
    EXPECT_EQ(Titles(molecules), std::vector<std::string>({"phenol"}));
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].Message(),
              path +
                  ", record 1 (phenylboronic-acid): MMFF94 charges could not be computed: "
                  "MMFF94 atom typing failed");
    // Gasteiger charges exist for it.
    options.charges = ChargeModel::Gasteiger;
    EXPECT_EQ(ReadAll(path, options).size(), 2u);
}

TEST(BadInput, UnparsableSmilesLine) {
    TemporaryDirectory directory;
    const std::string path = directory.File("bad.smi");
    WriteText(path, "CCO ethanol\nC1CC(C unclosed\n\nC[Xx] nonsense\nCCN ethylamine\n");
    ReadOptions options;
    options.smilesConformers = 1;
    std::vector<Problem> problems;
    const std::vector<Molecule> molecules = ReadAll(path, options, &problems);
    EXPECT_EQ(Titles(molecules), std::vector<std::string>({"ethanol", "ethylamine"}));
    ASSERT_EQ(problems.size(), 2u);
    EXPECT_EQ(problems[0].record, 2u);  // line numbers
    EXPECT_EQ(problems[0].title, "unclosed");
    EXPECT_EQ(problems[0].reason, "RDKit could not parse the SMILES 'C1CC(C'");
    EXPECT_EQ(problems[1].record, 4u);
}

TEST(BadInput, InputChargesThatAreNotThere) {
    TemporaryDirectory directory;
    const std::string smiles = directory.File("in.smi");
    WriteText(smiles, "CCO ethanol\n");
    ReadOptions options;
    options.charges = ChargeModel::Input;
    options.smilesConformers = 1;
    std::vector<Problem> problems;
    EXPECT_TRUE(ReadAll(smiles, options, &problems).empty());
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].reason, "SMILES have no input partial charges (use gasteiger or mmff)");

    problems.clear();
    EXPECT_TRUE(ReadAll(Cdk2Path, options, &problems).empty());
    ASSERT_EQ(problems.size(), 47u);
    EXPECT_EQ(problems[0].reason.rfind("no input partial charges", 0), 0u);
}

TEST(BadInput, SdInputChargesFromDataItems) {
    std::string record = Dihydrogen;
    record.insert(record.find("$$$$"), "> <atom.dprop.PartialCharge>\n0.25 -0.25\n\n");
    std::string wrongCount = Dihydrogen;
    wrongCount.insert(wrongCount.find("$$$$"), "> <PartialCharges>\n0.25 -0.25 0.1\n\n");
    std::string sparse = Dihydrogen;
    sparse.insert(sparse.find("$$$$"), "> <PUBCHEM_MMFF94_PARTIAL_CHARGES>\n1\n2 -0.5\n\n");
    TemporaryDirectory directory;
    const std::string path = directory.File("charged.sdf");
    WriteText(path, record + Retitled(wrongCount, "wrong") + Retitled(sparse, "sparse"));
    ReadOptions options;
    options.charges = ChargeModel::Input;
    options.hydrogens = true;
    std::vector<Problem> problems;
    const std::vector<Molecule> molecules = ReadAll(path, options, &problems);
    ASSERT_EQ(molecules.size(), 2u);
    const QVChem::QVMol& dense = molecules[0].conformers[0].Mol();
    EXPECT_DOUBLE_EQ(dense.GetAtom(0).GetPartialCharge(), 0.25);
    EXPECT_DOUBLE_EQ(dense.GetAtom(1).GetPartialCharge(), -0.25);
    const QVChem::QVMol& sparseMol = molecules[1].conformers[0].Mol();
    EXPECT_DOUBLE_EQ(sparseMol.GetAtom(0).GetPartialCharge(), 0.0);
    EXPECT_DOUBLE_EQ(sparseMol.GetAtom(1).GetPartialCharge(), -0.5);
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].Message(),
              path +
                  ", record 2 (wrong): data item <PartialCharges> has 3 partial charges for "
                  "2 atoms");
}

TEST(BadInput, SkippedRecordsStillSeparateConformerRuns) {
    std::vector<std::string> records = Cdk2Records();
    TemporaryDirectory directory;
    const std::string path = directory.File("runs.sdf");
    // A, A (2-D), B (2-D), A: the flat B ends the first run of A.
    WriteText(path, Retitled(records[0], "A") + Retitled(FlattenedUndeclared(records[1]), "A") +
                        Retitled(FlattenedUndeclared(records[2]), "B") + Retitled(records[3], "A"));
    std::vector<Problem> problems;
    const std::vector<Molecule> molecules = ReadAll(path, ReadOptions(), &problems);
    ASSERT_EQ(molecules.size(), 2u);
    EXPECT_EQ(molecules[0].conformers.size(), 1u);
    EXPECT_EQ(molecules[1].conformers.size(), 1u);
    EXPECT_EQ(molecules[1].conformers[0].Record(), 4u);
    EXPECT_EQ(problems.size(), 2u);
}

}  // namespace
}  // namespace hermite::io
