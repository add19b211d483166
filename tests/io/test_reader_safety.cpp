// What the reader must not get wrong about its input: different compounds under one title are
// not conformers of one molecule, a planar 3-D structure is not a drawing, and the column
// header of a SMILES file is not a bad record.

#include <GraphMol/FileParsers/FileParsers.h>
#include <GraphMol/MolOps.h>
#include <GraphMol/RWMol.h>
#include <GraphMol/SmilesParse/SmilesParse.h>
#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "io/molecule_io.h"
#include "io_test_support.h"

namespace hermite::io {
namespace {

using testing::Cdk2Path;
using testing::ReadText;
using testing::Retitled;
using testing::SplitSdRecords;
using testing::TemporaryDirectory;
using testing::WriteText;

std::vector<std::string> Cdk2Records() {
    return SplitSdRecords(ReadText(Cdk2Path));
}

/// Every molecule of `path`, through `Next`, with the reader's problems.
struct ReadResult {
    std::vector<Molecule> molecules;
    std::vector<Problem> problems;
    unsigned long recordsRead = 0;
    unsigned long recordsSkipped = 0;
    unsigned long moleculesReturned = 0;
    unsigned long conformersReturned = 0;
};

ReadResult ReadThrough(const std::string& path, const ReadOptions& options = ReadOptions()) {
    MoleculeReader reader(path, options);
    ReadResult result;
    Molecule molecule;
    while (reader.Next(molecule)) {
        result.molecules.push_back(molecule);
    }
    result.problems = reader.Problems();
    result.recordsRead = reader.RecordsRead();
    result.recordsSkipped = reader.RecordsSkipped();
    result.moleculesReturned = reader.MoleculesReturned();
    result.conformersReturned = reader.ConformersReturned();
    return result;
}

std::vector<unsigned int> RecordsOf(const Molecule& molecule) {
    std::vector<unsigned int> records;
    for (const Conformer& conformer : molecule.conformers) {
        records.push_back(conformer.Record());
    }
    return records;
}

/// `record` (an SD record) rewritten by RDKit after `change` was applied to its molecule, with
/// its title kept and without data items; aromatic bonds as bond type 4 unless `kekulize`.
template <typename Change>
std::string Rewritten(const std::string& record, Change change, bool kekulize = true) {
    std::unique_ptr<RDKit::RWMol> molecule(RDKit::MolBlockToMol(record, true, false));
    change(*molecule);
    return RDKit::MolToMolBlock(*molecule, true, -1, kekulize) + "$$$$\n";
}

// ---------------------------------------------------------------------------------------------
// One title, several compounds

TEST(ReaderSafety, SameTitleWithAnotherConstitutionIsAnotherMolecule) {
    const std::vector<std::string> records = Cdk2Records();
    TemporaryDirectory directory;
    const std::string path = directory.File("series.sdf");
    // multi: ligand 1, ligand 1, ligand 2, ligand 2, ligand 1.
    const std::string first = Retitled(records[0], "multi");
    const std::string second = Retitled(records[1], "multi");
    WriteText(path, first + first + second + second + first);
    const ReadResult result = ReadThrough(path);

    ASSERT_EQ(result.molecules.size(), 3u);
    for (const Molecule& molecule : result.molecules) {
        EXPECT_EQ(molecule.title, "multi");
    }
    EXPECT_EQ(RecordsOf(result.molecules[0]), std::vector<unsigned int>({1, 2}));
    EXPECT_EQ(RecordsOf(result.molecules[1]), std::vector<unsigned int>({3, 4}));
    EXPECT_EQ(RecordsOf(result.molecules[2]), std::vector<unsigned int>({5}));
    // ZINC03814457 and ZINC03814459 both have 17 heavy atoms: the count alone cannot tell them
    // apart, the graph does.
    for (const Molecule& molecule : result.molecules) {
        for (const Conformer& conformer : molecule.conformers) {
            EXPECT_EQ(conformer.Mol().NumAtoms(), 17u);
        }
    }
    double xyz[3];
    result.molecules[1].conformers[0].Mol().GetAtom(0).GetCoords(xyz);
    const std::vector<Molecule> cdk2 = ReadAll(Cdk2Path);
    double expected[3];
    cdk2[1].conformers[0].Mol().GetAtom(0).GetCoords(expected);
    EXPECT_DOUBLE_EQ(xyz[0], expected[0]);
    EXPECT_DOUBLE_EQ(xyz[2], expected[2]);

    ASSERT_EQ(result.problems.size(), 2u);
    EXPECT_FALSE(result.problems[0].skipped);
    EXPECT_EQ(result.problems[0].Message(),
              path +
                  ", record 3 (multi): records 3..4 share the title \"multi\" with record 1 but "
                  "have another constitution: read as a separate molecule");
    EXPECT_FALSE(result.problems[1].skipped);
    EXPECT_EQ(result.problems[1].Message(),
              path +
                  ", record 5 (multi): record 5 shares the title \"multi\" with record 3 but "
                  "has another constitution: read as a separate molecule");
    EXPECT_EQ(result.recordsRead, 5u);
    EXPECT_EQ(result.recordsSkipped, 0u);
    EXPECT_EQ(result.moleculesReturned, 3u);
    EXPECT_EQ(result.conformersReturned, 5u);
}

TEST(ReaderSafety, OneCompoundWrittenDifferentlyStaysOneMolecule) {
    const std::string record = Cdk2Records()[0];
    TemporaryDirectory directory;
    const std::string path = directory.File("forms.sdf");
    // The record as it is (explicit hydrogens), without its hydrogens (Kekule form), with
    // aromatic bonds (bond type 4, hydrogens kept), and protonated on its amino nitrogen (the last
    // heavy atom): one compound, four conformers.
    const auto removeHydrogens = [](RDKit::RWMol& molecule) { RDKit::MolOps::removeHs(molecule); };
    const std::string noHydrogens = Rewritten(record, removeHydrogens);
    const std::string aromatic = Rewritten(
        record, [](RDKit::RWMol&) {}, false);
    const std::string protonated = Rewritten(record, [](RDKit::RWMol& molecule) {
        RDKit::MolOps::removeHs(molecule);
        RDKit::Atom* nitrogen = molecule.getAtomWithIdx(16);
        nitrogen->setFormalCharge(1);
        RDKit::MolOps::sanitizeMol(molecule);
    });
    ASSERT_NE(aromatic.find("  4  0\n"), std::string::npos);
    ASSERT_EQ(noHydrogens.find("  4  0\n"), std::string::npos);
    ASSERT_NE(protonated.find("CHG"), std::string::npos);
    WriteText(path, record + noHydrogens + aromatic + protonated);
    const ReadResult result = ReadThrough(path);
    EXPECT_TRUE(result.problems.empty()) << result.problems[0].Message();
    ASSERT_EQ(result.molecules.size(), 1u);
    EXPECT_EQ(result.molecules[0].title, "ZINC03814457");
    EXPECT_EQ(RecordsOf(result.molecules[0]), std::vector<unsigned int>({1, 2, 3, 4}));
    for (const Conformer& conformer : result.molecules[0].conformers) {
        EXPECT_EQ(conformer.Mol().NumAtoms(), 17u);
    }
    EXPECT_EQ(result.molecules[0].conformers[0].NumRecordAtoms(), 30u);
    EXPECT_EQ(result.molecules[0].conformers[1].NumRecordAtoms(), 17u);
    EXPECT_EQ(result.molecules[0].conformers[2].NumRecordAtoms(), 30u);
}

TEST(ReaderSafety, SkippedRecordsNeitherJoinNorSplitConstitutions) {
    const std::vector<std::string> records = Cdk2Records();
    std::string unparsable = Retitled(records[0], "multi");
    const std::size_t countsStart = unparsable.rfind('\n', unparsable.find(" V2000")) + 1;
    const std::size_t countsEnd = unparsable.find('\n', countsStart);
    unparsable.replace(countsStart, countsEnd - countsStart, "this is not a counts line");
    TemporaryDirectory directory;
    const std::string path = directory.File("gaps.sdf");
    const std::string first = Retitled(records[0], "multi");
    const std::string second = Retitled(records[1], "multi");
    // multi: ligand 1, (unparsable), ligand 1, ligand 2, (unparsable).
    WriteText(path, first + unparsable + first + second + unparsable);
    const ReadResult result = ReadThrough(path);
    ASSERT_EQ(result.molecules.size(), 2u);
    EXPECT_EQ(RecordsOf(result.molecules[0]), std::vector<unsigned int>({1, 3}));
    EXPECT_EQ(RecordsOf(result.molecules[1]), std::vector<unsigned int>({4}));
    // In record order: the skipped record 2, the new molecule at record 4, the skipped record 5.
    ASSERT_EQ(result.problems.size(), 3u);
    EXPECT_EQ(result.problems[0].record, 2u);
    EXPECT_TRUE(result.problems[0].skipped);
    EXPECT_EQ(result.problems[1].record, 4u);
    EXPECT_FALSE(result.problems[1].skipped);
    EXPECT_EQ(result.problems[1].reason,
              "record 4 shares the title \"multi\" with record 1 but has another constitution: "
              "read as a separate molecule");
    EXPECT_EQ(result.problems[2].record, 5u);
    EXPECT_TRUE(result.problems[2].skipped);
    EXPECT_EQ(result.recordsSkipped, 2u);
}

TEST(ReaderSafety, ParseMoleculeGivesEveryMoleculeOfAGroup) {
    const std::vector<std::string> records = Cdk2Records();
    TemporaryDirectory directory;
    const std::string path = directory.File("group.sdf");
    WriteText(path, Retitled(records[2], "x") + Retitled(records[3], "x") +
                        Retitled(records[3], "x") + Retitled(records[4], "y"));
    RecordReader reader(path);
    RecordGroup group;
    ASSERT_TRUE(reader.Next(group));
    // Splitting records needs no chemistry: the title alone makes the group.
    EXPECT_EQ(group.title, "x");
    ASSERT_EQ(group.records.size(), 3u);
    std::vector<Problem> problems;
    const std::vector<Molecule> molecules = ParseMolecule(group, ReadOptions(), problems);
    ASSERT_EQ(molecules.size(), 2u);
    EXPECT_EQ(RecordsOf(molecules[0]), std::vector<unsigned int>({1}));
    EXPECT_EQ(RecordsOf(molecules[1]), std::vector<unsigned int>({2, 3}));
    EXPECT_EQ(molecules[1].title, "x");
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_EQ(problems[0].reason,
              "records 2..3 share the title \"x\" with record 1 but have another constitution: "
              "read as a separate molecule");
    ASSERT_TRUE(reader.Next(group));
    EXPECT_EQ(group.title, "y");
    problems.clear();
    EXPECT_EQ(ParseMolecule(group, ReadOptions(), problems).size(), 1u);
    EXPECT_TRUE(problems.empty());
    EXPECT_FALSE(reader.Next(group));
}

TEST(ReaderSafety, ParseMoleculeOfUnusableRecordsIsEmpty) {
    TemporaryDirectory directory;
    const std::string path = directory.File("bad.sdf");
    WriteText(path, "bad\n  nothing here\n\nnot a counts line\nM  END\n$$$$\n");
    RecordReader reader(path);
    RecordGroup group;
    ASSERT_TRUE(reader.Next(group));
    std::vector<Problem> problems;
    EXPECT_TRUE(ParseMolecule(group, ReadOptions(), problems).empty());
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_TRUE(problems[0].skipped);
}

// ---------------------------------------------------------------------------------------------
// Planar 3-D structures

/// Benzene (heavy atoms only) in the xy plane, with `dimension` at columns 21-22 of the program
/// line and `z` as the first atom's z coordinate.
std::string Benzene(const std::string& dimension, const std::string& z = "0.0000") {
    return "benzene\n"
           "     RDKit          " +
           dimension +
           "\n"
           "\n"
           "  6  6  0  0  0  0  0  0  0  0999 V2000\n"
           "    1.3970    0.0000    " +
           z +
           " C   0  0  0  0  0  0  0  0  0  0  0  0\n"
           "    0.6985    1.2098    0.0000 C   0  0  0  0  0  0  0  0  0  0  0  0\n"
           "   -0.6985    1.2098    0.0000 C   0  0  0  0  0  0  0  0  0  0  0  0\n"
           "   -1.3970    0.0000    0.0000 C   0  0  0  0  0  0  0  0  0  0  0  0\n"
           "   -0.6985   -1.2098    0.0000 C   0  0  0  0  0  0  0  0  0  0  0  0\n"
           "    0.6985   -1.2098    0.0000 C   0  0  0  0  0  0  0  0  0  0  0  0\n"
           "  1  2  2  0\n"
           "  2  3  1  0\n"
           "  3  4  2  0\n"
           "  4  5  1  0\n"
           "  5  6  2  0\n"
           "  6  1  1  0\n"
           "M  END\n"
           "$$$$\n";
}

/// Tetrachloroplatinate(II), square planar in the xy plane, declared 3-D.
const char* const Tetrachloroplatinate =
    "tetrachloroplatinate\n"
    "     RDKit          3D\n"
    "\n"
    "  5  4  0  0  0  0  0  0  0  0999 V2000\n"
    "    0.0000    0.0000    0.0000 Pt  0  0  0  0  0  0  0  0  0  0  0  0\n"
    "    2.3100    0.0000    0.0000 Cl  0  0  0  0  0  0  0  0  0  0  0  0\n"
    "    0.0000    2.3100    0.0000 Cl  0  0  0  0  0  0  0  0  0  0  0  0\n"
    "   -2.3100    0.0000    0.0000 Cl  0  0  0  0  0  0  0  0  0  0  0  0\n"
    "    0.0000   -2.3100    0.0000 Cl  0  0  0  0  0  0  0  0  0  0  0  0\n"
    "  1  2  1  0\n"
    "  1  3  1  0\n"
    "  1  4  1  0\n"
    "  1  5  1  0\n"
    "M  END\n"
    "$$$$\n";

TEST(ReaderSafety, PlanarMoleculeDeclared3DIsRead) {
    TemporaryDirectory directory;
    const std::string path = directory.File("benzene.sdf");
    WriteText(path, Benzene("3D"));
    const ReadResult result = ReadThrough(path);
    EXPECT_TRUE(result.problems.empty()) << result.problems[0].Message();
    ASSERT_EQ(result.molecules.size(), 1u);
    const QVChem::QVMol& mol = result.molecules[0].conformers[0].Mol();
    ASSERT_EQ(mol.NumAtoms(), 6u);
    double xyz[3];
    mol.GetAtom(1).GetCoords(xyz);
    EXPECT_DOUBLE_EQ(xyz[0], 0.6985);
    EXPECT_DOUBLE_EQ(xyz[1], 1.2098);
    EXPECT_DOUBLE_EQ(xyz[2], 0.0);
    for (const QVChem::QVAtom& atom : mol) {
        atom.GetCoords(xyz);
        EXPECT_EQ(xyz[2], 0.0);
        EXPECT_EQ(atom.GetAtomicNumber(), 6u);
        EXPECT_TRUE(std::isfinite(atom.GetPartialCharge()));
    }

    // Written back it is still declared 3-D, and read again.
    const std::string written = directory.File("written.sdf");
    SdfWriter writer(written);
    ASSERT_TRUE(writer.Write(result.molecules[0].conformers[0]));
    ASSERT_TRUE(writer.Commit());
    std::vector<Problem> problems;
    const std::vector<Molecule> again = ReadAll(written, ReadOptions(), &problems);
    EXPECT_TRUE(problems.empty());
    ASSERT_EQ(again.size(), 1u);
    EXPECT_EQ(again[0].conformers[0].Mol().NumAtoms(), 6u);
}

TEST(ReaderSafety, SquarePlanarComplexDeclared3DIsRead) {
    TemporaryDirectory directory;
    const std::string path = directory.File("platinum.sdf");
    WriteText(path, Tetrachloroplatinate);
    ReadOptions shapeOnly;
    shapeOnly.computeCharges = false;
    const ReadResult result = ReadThrough(path, shapeOnly);
    EXPECT_TRUE(result.problems.empty()) << result.problems[0].Message();
    ASSERT_EQ(result.molecules.size(), 1u);
    const QVChem::QVMol& mol = result.molecules[0].conformers[0].Mol();
    ASSERT_EQ(mol.NumAtoms(), 5u);
    EXPECT_EQ(mol.GetAtom(0).GetAtomicNumber(), 78u);
    EXPECT_EQ(mol.GetAtom(4).GetAtomicNumber(), 17u);
    double xyz[3];
    mol.GetAtom(2).GetCoords(xyz);
    EXPECT_DOUBLE_EQ(xyz[1], 2.31);
    EXPECT_DOUBLE_EQ(xyz[2], 0.0);
}

TEST(ReaderSafety, RecordDeclared2DIsRejected) {
    TemporaryDirectory directory;
    const std::string path = directory.File("drawings.sdf");
    // Declared 2-D and flat; declared 2-D with a z value left in; no declaration and flat; and
    // the planar 3-D one, which is read.
    WriteText(path, Retitled(Benzene("2D"), "flat 2D") +
                        Retitled(Benzene("2D", "0.1000"), "2D with z") +
                        Retitled(Benzene("  "), "undeclared") + Retitled(Benzene("3D"), "3D"));
    const ReadResult result = ReadThrough(path);
    ASSERT_EQ(result.molecules.size(), 1u);
    EXPECT_EQ(result.molecules[0].title, "3D");
    ASSERT_EQ(result.problems.size(), 3u);
    EXPECT_EQ(result.problems[0].Message(),
              path + ", record 1 (flat 2D): molecule has no 3-D coordinates");
    EXPECT_EQ(result.problems[1].Message(),
              path + ", record 2 (2D with z): molecule has no 3-D coordinates");
    EXPECT_EQ(result.problems[2].Message(),
              path + ", record 3 (undeclared): molecule has no 3-D coordinates");
    for (const Problem& problem : result.problems) {
        EXPECT_TRUE(problem.skipped);
    }
    EXPECT_EQ(result.recordsSkipped, 3u);
}

TEST(ReaderSafety, UndeclaredRecordWithDepthIsRead) {
    TemporaryDirectory directory;
    const std::string path = directory.File("undeclared.sdf");
    WriteText(path, Benzene("  ", "0.1000"));
    const ReadResult result = ReadThrough(path);
    EXPECT_TRUE(result.problems.empty());
    ASSERT_EQ(result.molecules.size(), 1u);
    double xyz[3];
    result.molecules[0].conformers[0].Mol().GetAtom(0).GetCoords(xyz);
    EXPECT_DOUBLE_EQ(xyz[2], 0.1);
}

// ---------------------------------------------------------------------------------------------
// SMILES column headers

TEST(ReaderSafety, SmilesHeaderLineIsNotARecord) {
    TemporaryDirectory directory;
    ReadOptions options;
    options.smilesConformers = 1;
    const std::vector<std::string> headers = {"SMILES Name", "smiles name", "Smiles\tName",
                                              "SMILES", "smiles,name"};
    for (const std::string& header : headers) {
        const std::string path = directory.File("header.smi");
        WriteText(path, "# made by hand\n\n" + header + "\nCCO ethanol\nc1ccccc1O phenol\n");
        const ReadResult result = ReadThrough(path, options);
        EXPECT_TRUE(result.problems.empty()) << header << ": " << result.problems[0].Message();
        ASSERT_EQ(result.molecules.size(), 2u) << header;
        EXPECT_EQ(result.molecules[0].title, "ethanol");
        EXPECT_EQ(result.molecules[0].conformers[0].Record(), 4u);  // line numbers stay
        EXPECT_EQ(result.molecules[0].conformers[0].Mol().NumAtoms(), 3u);
        EXPECT_EQ(result.molecules[1].title, "phenol");
        EXPECT_EQ(result.molecules[1].conformers[0].Record(), 5u);
        EXPECT_EQ(result.recordsRead, 2u);
        EXPECT_EQ(result.recordsSkipped, 0u);
    }
}

TEST(ReaderSafety, SmilesHeaderOnlyCountsAsTheFirstLine) {
    TemporaryDirectory directory;
    const std::string path = directory.File("late-header.smi");
    WriteText(path, "CCO ethanol\nSMILES Name\nCCN ethylamine\n");
    ReadOptions options;
    options.smilesConformers = 1;
    const ReadResult result = ReadThrough(path, options);
    ASSERT_EQ(result.molecules.size(), 2u);
    ASSERT_EQ(result.problems.size(), 1u);
    EXPECT_EQ(result.problems[0].Message(),
              path + ", record 2 (Name): RDKit could not parse the SMILES 'SMILES'");
    EXPECT_EQ(result.recordsRead, 3u);
    EXPECT_EQ(result.recordsSkipped, 1u);
}

TEST(ReaderSafety, NoSpellingOfTheHeaderWordIsASmiles) {
    // Skipping the header by its text alone loses no molecule: RDKit parses none of the 64
    // spellings of "smiles".
    const std::string word = "smiles";
    for (unsigned int mask = 0; mask < 64; ++mask) {
        std::string spelling = word;
        for (unsigned int i = 0; i < 6; ++i) {
            if ((mask >> i) & 1u) {
                spelling[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(word[i])));
            }
        }
        std::unique_ptr<RDKit::RWMol> molecule;
        try {
            molecule.reset(RDKit::SmilesToMol(spelling));
        } catch (const std::exception&) {
        }
        EXPECT_EQ(molecule, nullptr) << spelling;
    }
}

TEST(ReaderSafety, SmilesWithoutHeaderStillReadsItsFirstLine) {
    TemporaryDirectory directory;
    const std::string path = directory.File("plain.smi");
    WriteText(path, "CS methanethiol\nCCO ethanol\n");
    ReadOptions options;
    options.smilesConformers = 1;
    const ReadResult result = ReadThrough(path, options);
    EXPECT_TRUE(result.problems.empty());
    ASSERT_EQ(result.molecules.size(), 2u);
    EXPECT_EQ(result.molecules[0].title, "methanethiol");
    EXPECT_EQ(result.molecules[0].conformers[0].Record(), 1u);
}

/// A two-atom MOL2 record whose single bond joins atoms `first` and `second` (as written), with
/// `counts` as its counts line.
std::string Mol2Ethane(const std::string& title, const std::string& first,
                       const std::string& second, const std::string& counts = "2 1") {
    return "@<TRIPOS>MOLECULE\n" + title + "\n" + counts +
           "\nSMALL\nUSER_CHARGES\n\n@<TRIPOS>ATOM\n"
           "1 C1 0.0 0.0 0.0 C.3 1 UNL 0.0\n"
           "2 C2 1.5 0.2 0.1 C.3 1 UNL 0.0\n"
           "@<TRIPOS>BOND\n1 " +
           first + " " + second + " 1\n";
}

// RDKit's MOL2 parser dereferences atom -1 for a bond to atom 0 or below (a crash found by
// fuzzing): such records are skipped with a message, and the records around them are read.
TEST(ReaderSafety, Mol2BondToAtomZeroOrBelowIsSkipped) {
    TemporaryDirectory directory;
    const std::string path = directory.File("bonds.mol2");
    WriteText(path, Mol2Ethane("good", "1", "2") + Mol2Ethane("zero", "0", "2") +
                        Mol2Ethane("negative", "2", "-1") + Mol2Ethane("also good", "+1", "02"));
    const ReadResult result = ReadThrough(path);
    ASSERT_EQ(result.molecules.size(), 2u);
    EXPECT_EQ(result.molecules[0].title, "good");
    EXPECT_EQ(result.molecules[1].title, "also good");
    ASSERT_EQ(result.problems.size(), 2u);
    EXPECT_EQ(result.problems[0].record, 2u);
    EXPECT_EQ(result.problems[0].reason,
              "bond 1 refers to atom 0 (MOL2 atoms are numbered from 1)");
    EXPECT_EQ(result.problems[1].record, 3u);
    EXPECT_EQ(result.problems[1].reason,
              "bond 1 refers to atom -1 (MOL2 atoms are numbered from 1)");
}

/// Reads the MOL2 `text`, whose one usable record is titled "good", and expects the other
/// records skipped for `reasons`, in file order.
void ExpectOnlyGoodRecordRead(const std::string& text, const std::vector<std::string>& reasons) {
    TemporaryDirectory directory;
    const std::string path = directory.File("records.mol2");
    WriteText(path, text);
    const ReadResult result = ReadThrough(path);
    ASSERT_EQ(result.molecules.size(), 1u);
    EXPECT_EQ(result.molecules[0].title, "good");
    ASSERT_EQ(result.problems.size(), reasons.size());
    for (std::size_t i = 0; i < reasons.size(); ++i) {
        EXPECT_EQ(result.problems[i].reason, reasons[i]);
    }
}

// RDKit's MOL2 parser checks only that one of a bond's atom numbers is in range before it
// looks both up: a bond to atom 900000 of a two-atom record crashed it (found by fuzzing).
// Records whose bonds are not between two of their atoms are skipped with a message.
TEST(ReaderSafety, Mol2BondsBetweenAtomsTheRecordLacksAreSkipped) {
    ExpectOnlyGoodRecordRead(
        Mol2Ethane("beyond", "1", "900000") + Mol2Ethane("third", "3", "1") +
            Mol2Ethane("not a number", "1", "two") + Mol2Ethane("itself", "2", "2") +
            Mol2Ethane("good", "2", "1") + Mol2Ethane("twice", "1", "2 1\n2 2 1", "2 2") +
            Mol2Ethane("short line", "1", "2\n2 1", "2 2"),
        {"bond 1 refers to atom 900000 of a record with 2 atoms",
         "bond 1 refers to atom 3 of a record with 2 atoms",
         "bond 1 refers to atom 'two', which is not an atom number",
         "bond 1 joins atom 2 to itself", "bond 2 joins atoms 2 and 1 a second time",
         "the MOL2 bond line '1 1 2' lacks a field (a bond number, two atom numbers and a type)"});
}

// The parser reads as many lines after the ATOM and BOND headers as the counts line announces,
// into the next section, and takes the last of repeated sections: records whose sections do
// not match their counts, or that repeat one, are skipped with a message.
TEST(ReaderSafety, Mol2SectionsThatDoNotMatchTheCountsAreSkipped) {
    const std::string noBonds = Mol2Ethane("no bond section", "1", "2");
    ExpectOnlyGoodRecordRead(
        Mol2Ethane("few atoms", "1", "2", "3 1") + Mol2Ethane("few bonds", "1", "2", "2 2") +
            noBonds.substr(0, noBonds.find("@<TRIPOS>BOND")) +
            Mol2Ethane("two bond sections", "1", "2") + "@<TRIPOS>BOND\n1 1 2 1\n" +
            Mol2Ethane("good", "1", "2") + "@<TRIPOS>SUBSTRUCTURE\n@<TRIPOS>SUBSTRUCTURE\n",
        {"the MOL2 ATOM section holds fewer than the 3 atom lines the counts line announces",
         "the MOL2 BOND section holds fewer than the 2 bond lines the counts line announces",
         "the MOL2 counts line announces 1 bonds but the record has no BOND section",
         "the MOL2 record has more than one BOND section"});
}

// RDKit's MOL2 parser reads the counts as unsigned numbers and reserves that much: a negative
// count asked for gigabytes (found by fuzzing).
TEST(ReaderSafety, Mol2CountsThatCannotMatchTheRecordAreSkipped) {
    TemporaryDirectory directory;
    const std::string path = directory.File("counts.mol2");
    WriteText(path, Mol2Ethane("negative atoms", "1", "2", "-20 1") +
                        Mol2Ethane("huge bonds", "1", "2", "2 4000000000") +
                        Mol2Ethane("good", "1", "2", " 2  1  0 0 0"));
    const ReadResult result = ReadThrough(path);
    ASSERT_EQ(result.molecules.size(), 1u);
    EXPECT_EQ(result.molecules[0].title, "good");
    ASSERT_EQ(result.problems.size(), 2u);
    EXPECT_EQ(result.problems[0].reason, "the MOL2 atom count -20 does not match the record");
    EXPECT_EQ(result.problems[1].reason,
              "the MOL2 bond count 4000000000 does not match the record");
}

// RDKit's MOL2 parser aborts the process (a failed assertion in its line splitting) when a line
// of the UNITY_ATOM_ATTR section lacks a field it reads (found by fuzzing): such records are
// skipped with a message; well-formed sections, trailing blank lines and attribute lines of one
// field are read.
TEST(ReaderSafety, Mol2AtomAttributeLinesRDKitCannotSplitAreSkipped) {
    const auto withAttributes = [](const std::string& title, const std::string& section) {
        return Mol2Ethane(title, "1", "2") + "@<TRIPOS>UNITY_ATOM_ATTR\n" + section;
    };
    TemporaryDirectory directory;
    const std::string path = directory.File("attributes.mol2");
    WriteText(path, withAttributes("head without count", " 1\ncharge 1\n") +
                        withAttributes("blank head", "\n1 1\ncharge 1\n") +
                        withAttributes("blank attribute", "1 2\ncharge 1\n\n2 1\ncharge 0\n") +
                        withAttributes("carriage return", " 1\r\ncharge 1\n") +
                        withAttributes("good", "1 1\ncharge 1\n\n\n") +
                        withAttributes("one-field attribute", "1 1\ncharge\n") +
                        withAttributes("too few attributes",
                                       "1 1\ncharge 1\n2 1\n@<TRIPOS>SUBSTRUCTURE\n 1\n") +
                        withAttributes("third atom", "3 1\ncharge 1\n") +
                        withAttributes("bare AtomExpr", "1 1\nAtomExpr\n"));
    const ReadResult result = ReadThrough(path);
    ASSERT_EQ(result.molecules.size(), 2u);
    EXPECT_EQ(result.molecules[0].title, "good");
    EXPECT_EQ(result.molecules[1].title, "one-field attribute");
    const std::string noCount =
        "a line of the MOL2 UNITY_ATOM_ATTR section gives no atom and number of attributes: ";
    const std::vector<std::string> reasons = {
        noCount + "' 1'",
        noCount + "''",
        "an atom attribute line of the MOL2 UNITY_ATOM_ATTR section is empty",
        noCount + "' 1'",  // the carriage return is not part of the line
        "a block of the MOL2 UNITY_ATOM_ATTR section announces more attribute lines than the "
        "section holds",
        "the MOL2 UNITY_ATOM_ATTR section gives attributes of atom 3 of a record with 2 atoms",
        "an AtomExpr line of the MOL2 UNITY_ATOM_ATTR section has no value"};
    ASSERT_EQ(result.problems.size(), reasons.size());
    for (std::size_t i = 0; i < reasons.size(); ++i) {
        EXPECT_EQ(result.problems[i].reason, reasons[i]);
    }
    EXPECT_EQ(result.problems[3].record, 4u);
}

}  // namespace
}  // namespace hermite::io
