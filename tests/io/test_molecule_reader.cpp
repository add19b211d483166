// Reading SD (plain and gzip), MOL2 and SMILES files: titles, atoms, coordinates, charges,
// conformer grouping and the deterministic embedding of SMILES.

#include <GraphMol/FileParsers/MolSupplier.h>
#include <GraphMol/ROMol.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <memory>
#include <numeric>

#include "io/molecule_io.h"
#include "io_test_support.h"

namespace hermite::io {
namespace {

using testing::BzrPath;
using testing::Cdk2Path;
using testing::ReadText;
using testing::Retitled;
using testing::SplitSdRecords;
using testing::TemporaryDirectory;
using testing::WriteGzip;
using testing::WriteText;

/// Per-record facts from RDKit's own SD supplier, the oracle for the counts.
struct RDKitRecord {
    std::string title;
    unsigned int heavyAtoms;
    unsigned int allAtoms;
    int formalCharge;
};

std::vector<RDKitRecord> ReadWithRDKit(const std::string& path) {
    RDKit::SDMolSupplier supplier(path, true, false);
    std::vector<RDKitRecord> records;
    while (!supplier.atEnd()) {
        std::unique_ptr<RDKit::ROMol> molecule(supplier.next());
        int charge = 0;
        for (const RDKit::Atom* atom : molecule->atoms()) {
            charge += atom->getFormalCharge();
        }
        records.push_back({molecule->getProp<std::string>("_Name"), molecule->getNumHeavyAtoms(),
                           molecule->getNumAtoms(), charge});
    }
    return records;
}

double ChargeSum(const QVChem::QVMol& mol) {
    double sum = 0.0;
    for (const QVChem::QVAtom& atom : mol) {
        sum += atom.GetPartialCharge();
    }
    return sum;
}

bool AllChargesFinite(const QVChem::QVMol& mol) {
    for (const QVChem::QVAtom& atom : mol) {
        if (!std::isfinite(atom.GetPartialCharge())) {
            return false;
        }
    }
    return true;
}

std::vector<double> Coordinates(const QVChem::QVMol& mol) {
    std::vector<double> coords(3 * mol.NumAtoms());
    mol.GetCoords(coords.data());
    return coords;
}

void ExpectSameMolecules(const std::vector<Molecule>& a, const std::vector<Molecule>& b) {
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].title, b[i].title);
        ASSERT_EQ(a[i].conformers.size(), b[i].conformers.size());
        for (std::size_t j = 0; j < a[i].conformers.size(); ++j) {
            EXPECT_EQ(Coordinates(a[i].conformers[j].Mol()), Coordinates(b[i].conformers[j].Mol()));
        }
    }
}

// ---------------------------------------------------------------------------------------------
// SD files

TEST(MoleculeReader, Cdk2HeavyAtomsMatchRDKit) {
    const std::vector<RDKitRecord> oracle = ReadWithRDKit(Cdk2Path);
    ASSERT_EQ(oracle.size(), 47u);
    MoleculeReader reader(Cdk2Path);
    ASSERT_TRUE(reader.Ok());
    EXPECT_EQ(reader.Format(), FileFormat::Sdf);
    Molecule molecule;
    std::size_t index = 0;
    while (reader.Next(molecule)) {
        ASSERT_LT(index, oracle.size());
        ASSERT_EQ(molecule.conformers.size(), 1u);
        const Conformer& conformer = molecule.conformers[0];
        EXPECT_EQ(molecule.title, oracle[index].title);
        EXPECT_EQ(conformer.Title(), oracle[index].title);
        EXPECT_EQ(conformer.Mol().NumAtoms(), oracle[index].heavyAtoms);
        EXPECT_EQ(conformer.NumRecordAtoms(), oracle[index].allAtoms);
        EXPECT_EQ(conformer.File(), Cdk2Path);
        EXPECT_EQ(conformer.Record(), index + 1);
        EXPECT_TRUE(AllChargesFinite(conformer.Mol()));
        // Hydrogen charges are folded onto heavy atoms, so the total charge is kept.
        EXPECT_NEAR(ChargeSum(conformer.Mol()), oracle[index].formalCharge, 1e-6);
        for (const QVChem::QVAtom& atom : conformer.Mol()) {
            EXPECT_GT(atom.GetAtomicNumber(), 1u);
        }
        ++index;
    }
    EXPECT_EQ(index, 47u);
    EXPECT_TRUE(reader.Problems().empty());
    EXPECT_EQ(reader.RecordsRead(), 47u);
    EXPECT_EQ(reader.RecordsSkipped(), 0u);
    EXPECT_EQ(reader.MoleculesReturned(), 47u);
    EXPECT_EQ(reader.ConformersReturned(), 47u);
}

TEST(MoleculeReader, Cdk2FirstLigand) {
    std::vector<Problem> problems;
    const std::vector<Molecule> molecules = ReadAll(Cdk2Path, ReadOptions(), &problems);
    ASSERT_EQ(molecules.size(), 47u);
    EXPECT_TRUE(problems.empty());
    EXPECT_EQ(molecules[0].title, "ZINC03814457");
    EXPECT_EQ(molecules[1].title, "ZINC03814459");
    EXPECT_EQ(molecules[46].title, "ZINC03831630");
    const QVChem::QVMol& mol = molecules[0].conformers[0].Mol();
    ASSERT_EQ(mol.NumAtoms(), 17u);
    double xyz[3];
    mol.GetAtom(0).GetCoords(xyz);
    EXPECT_DOUBLE_EQ(xyz[0], 5.4230);
    EXPECT_DOUBLE_EQ(xyz[1], -0.4412);
    EXPECT_DOUBLE_EQ(xyz[2], 0.7616);
    EXPECT_EQ(mol.GetAtom(4).GetAtomicNumber(), 8u);
    mol.GetAtom(16).GetCoords(xyz);  // the last heavy atom, an amino nitrogen
    EXPECT_EQ(mol.GetAtom(16).GetAtomicNumber(), 7u);
    EXPECT_DOUBLE_EQ(xyz[0], -2.1448);
    EXPECT_DOUBLE_EQ(xyz[1], 3.1672);
    EXPECT_DOUBLE_EQ(xyz[2], -0.0074);
    const SdProperties& properties = molecules[0].conformers[0].Properties();
    ASSERT_EQ(properties.size(), 7u);
    EXPECT_EQ(properties[0], SdProperty("id", "ZINC03814457"));
    EXPECT_EQ(properties[1], SdProperty("Cluster", "1"));
    EXPECT_EQ(properties[2], SdProperty("MODEL.SOURCE", "CORINA 3.44 0027  09.01.2008"));
}

TEST(MoleculeReader, Cdk2WithHydrogensHasEveryAtom) {
    const std::vector<RDKitRecord> oracle = ReadWithRDKit(Cdk2Path);
    ReadOptions withHydrogens;
    withHydrogens.hydrogens = true;
    const std::vector<Molecule> all = ReadAll(Cdk2Path, withHydrogens);
    const std::vector<Molecule> heavy = ReadAll(Cdk2Path);
    ASSERT_EQ(all.size(), 47u);
    for (std::size_t i = 0; i < all.size(); ++i) {
        const Conformer& conformer = all[i].conformers[0];
        EXPECT_EQ(conformer.Mol().NumAtoms(), oracle[i].allAtoms);
        EXPECT_TRUE(AllChargesFinite(conformer.Mol()));
        EXPECT_NEAR(ChargeSum(conformer.Mol()), oracle[i].formalCharge, 1e-6);
        // The same charges, hydrogens explicit or folded.
        EXPECT_NEAR(ChargeSum(conformer.Mol()), ChargeSum(heavy[i].conformers[0].Mol()), 1e-9);
    }
    // Atom order is the record's: the heavy atoms of cdk2 come first, hydrogens after.
    const QVChem::QVMol& first = all[0].conformers[0].Mol();
    EXPECT_EQ(first.GetAtom(17).GetAtomicNumber(), 1u);
    double xyz[3];
    first.GetAtom(17).GetCoords(xyz);
    EXPECT_DOUBLE_EQ(xyz[0], 5.7118);
}

TEST(MoleculeReader, Cdk2Mmff94Charges) {
    const std::vector<RDKitRecord> oracle = ReadWithRDKit(Cdk2Path);
    ReadOptions options;
    options.charges = ChargeModel::MMFF94;
    std::vector<Problem> problems;
    const std::vector<Molecule> molecules = ReadAll(Cdk2Path, options, &problems);
    ASSERT_EQ(molecules.size(), 47u);
    EXPECT_TRUE(problems.empty());
    const std::vector<Molecule> gasteiger = ReadAll(Cdk2Path);
    for (std::size_t i = 0; i < molecules.size(); ++i) {
        const QVChem::QVMol& mol = molecules[i].conformers[0].Mol();
        EXPECT_TRUE(AllChargesFinite(mol));
        EXPECT_NEAR(ChargeSum(mol), oracle[i].formalCharge, 1e-6);
    }
    EXPECT_NE(molecules[0].conformers[0].Mol().GetAtom(4).GetPartialCharge(),
              gasteiger[0].conformers[0].Mol().GetAtom(4).GetPartialCharge());
}

TEST(MoleculeReader, BzrHeavyAtomRecords) {
    const std::vector<RDKitRecord> oracle = ReadWithRDKit(BzrPath);
    ReadOptions withHydrogens;
    withHydrogens.hydrogens = true;
    std::vector<Problem> problems;
    const std::vector<Molecule> molecules = ReadAll(BzrPath, withHydrogens, &problems);
    EXPECT_TRUE(problems.empty());
    ASSERT_EQ(molecules.size(), 163u);
    ASSERT_EQ(oracle.size(), 163u);
    for (std::size_t i = 0; i < molecules.size(); ++i) {
        EXPECT_EQ(molecules[i].title, oracle[i].title);
        // The records have no hydrogens, and none are added to 3-D input.
        EXPECT_EQ(molecules[i].conformers[0].Mol().NumAtoms(), oracle[i].heavyAtoms);
        EXPECT_TRUE(AllChargesFinite(molecules[i].conformers[0].Mol()));
        // Implicit hydrogens contribute to their heavy atoms.
        EXPECT_NEAR(ChargeSum(molecules[i].conformers[0].Mol()), oracle[i].formalCharge, 1e-6);
    }
    EXPECT_EQ(molecules[0].title, "Adinazolam");
    EXPECT_EQ(molecules[0].conformers[0].Properties(),
              SdProperties({SdProperty("ACTIVITY", "6.87")}));
}

TEST(MoleculeReader, GzipCompressedSdf) {
    TemporaryDirectory directory;
    const std::string path = directory.File("cdk2.sdf.gz");
    WriteGzip(path, ReadText(Cdk2Path));
    MoleculeReader reader(path);
    ASSERT_TRUE(reader.Ok());
    EXPECT_EQ(reader.Format(), FileFormat::Sdf);
    ExpectSameMolecules(ReadAll(path), ReadAll(Cdk2Path));
    EXPECT_EQ(ReadAll(path)[5].conformers[0].File(), path);
}

TEST(MoleculeReader, ConsecutiveRecordsWithTheSameTitleAreConformers) {
    const std::vector<std::string> records = SplitSdRecords(ReadText(Cdk2Path));
    TemporaryDirectory directory;
    const std::string path = directory.File("conformers.sdf");
    // A, A, A, B, C, C, A: the last A follows C, so it is a molecule of its own. Conformers of
    // one molecule share its constitution.
    WriteText(path, Retitled(records[0], "A") + Retitled(records[0], "A") +
                        Retitled(records[0], "A") + Retitled(records[3], "B") +
                        Retitled(records[4], "C") + Retitled(records[4], "C") +
                        Retitled(records[6], "A"));
    MoleculeReader reader(path);
    std::vector<Molecule> molecules;
    Molecule molecule;
    while (reader.Next(molecule)) {
        molecules.push_back(molecule);
    }
    ASSERT_EQ(molecules.size(), 4u);
    EXPECT_EQ(molecules[0].title, "A");
    EXPECT_EQ(molecules[0].conformers.size(), 3u);
    EXPECT_EQ(molecules[1].title, "B");
    EXPECT_EQ(molecules[1].conformers.size(), 1u);
    EXPECT_EQ(molecules[2].title, "C");
    EXPECT_EQ(molecules[2].conformers.size(), 2u);
    EXPECT_EQ(molecules[3].title, "A");
    EXPECT_EQ(molecules[3].conformers.size(), 1u);
    EXPECT_EQ(molecules[0].conformers[2].Record(), 3u);
    EXPECT_EQ(molecules[2].conformers[1].Record(), 6u);
    EXPECT_EQ(molecules[2].conformers[1].Title(), "C");
    EXPECT_EQ(reader.RecordsRead(), 7u);
    EXPECT_EQ(reader.MoleculesReturned(), 4u);
    EXPECT_EQ(reader.ConformersReturned(), 7u);
    EXPECT_TRUE(reader.Problems().empty());
}

TEST(MoleculeReader, RecordsWithoutTitleAreNeverGrouped) {
    const std::vector<std::string> records = SplitSdRecords(ReadText(Cdk2Path));
    TemporaryDirectory directory;
    const std::string path = directory.File("untitled.sdf");
    WriteText(path, Retitled(records[0], "") + Retitled(records[1], ""));
    const std::vector<Molecule> molecules = ReadAll(path);
    ASSERT_EQ(molecules.size(), 2u);
    EXPECT_EQ(molecules[0].conformers.size(), 1u);
}

TEST(MoleculeReader, SingleMolfileWithoutTerminator) {
    std::string record = SplitSdRecords(ReadText(Cdk2Path))[0];
    record = record.substr(0, record.find("M  END") + 7);
    TemporaryDirectory directory;
    const std::string path = directory.File("ligand.MOL");
    WriteText(path, record);
    const std::vector<Molecule> molecules = ReadAll(path);
    ASSERT_EQ(molecules.size(), 1u);
    EXPECT_EQ(molecules[0].title, "ZINC03814457");
    EXPECT_TRUE(molecules[0].conformers[0].Properties().empty());
}

// ---------------------------------------------------------------------------------------------
// SMILES

std::string WriteSmiles(const TemporaryDirectory& directory) {
    const std::string path = directory.File("ligands.smi");
    WriteText(path,
              "c1ccccc1O phenol\n"
              "\n"
              "# a comment line\n"
              "CC(=O)Nc1ccc(O)cc1\tparacetamol tablets\n"
              "CCO\n");
    return path;
}

TEST(MoleculeReader, SmilesGetEtkdgConformers) {
    TemporaryDirectory directory;
    const std::string path = WriteSmiles(directory);
    ReadOptions options;
    options.smilesConformers = 4;
    MoleculeReader reader(path, options);
    ASSERT_TRUE(reader.Ok());
    EXPECT_EQ(reader.Format(), FileFormat::Smiles);
    std::vector<Molecule> molecules;
    Molecule molecule;
    while (reader.Next(molecule)) {
        molecules.push_back(molecule);
    }
    EXPECT_TRUE(reader.Problems().empty());
    ASSERT_EQ(molecules.size(), 3u);
    EXPECT_EQ(molecules[0].title, "phenol");
    EXPECT_EQ(molecules[1].title, "paracetamol tablets");
    EXPECT_EQ(molecules[2].title, "CCO");
    const unsigned int heavyAtoms[] = {7, 11, 3};
    const unsigned int lines[] = {1, 4, 5};
    for (std::size_t i = 0; i < 3; ++i) {
        ASSERT_EQ(molecules[i].conformers.size(), 4u);
        for (const Conformer& conformer : molecules[i].conformers) {
            EXPECT_EQ(conformer.Mol().NumAtoms(), heavyAtoms[i]);
            EXPECT_EQ(conformer.Record(), lines[i]);
            EXPECT_TRUE(AllChargesFinite(conformer.Mol()));
            EXPECT_NEAR(ChargeSum(conformer.Mol()), 0.0, 1e-6);
        }
    }
    // Embedded in 3-D with sensible bond lengths: C-O of ethanol about 1.43 angstrom (ETKDG
    // geometries are not minimised).
    std::vector<double> ethanol = Coordinates(molecules[2].conformers[0].Mol());
    const double co =
        std::sqrt(std::pow(ethanol[3] - ethanol[6], 2) + std::pow(ethanol[4] - ethanol[7], 2) +
                  std::pow(ethanol[5] - ethanol[8], 2));
    EXPECT_NEAR(co, 1.43, 0.1);
    // Different conformers of paracetamol differ.
    EXPECT_NE(Coordinates(molecules[1].conformers[0].Mol()),
              Coordinates(molecules[1].conformers[1].Mol()));
    EXPECT_EQ(reader.RecordsRead(), 3u);
    EXPECT_EQ(reader.ConformersReturned(), 12u);
}

TEST(MoleculeReader, SmilesEmbeddingIsDeterministicForASeed) {
    TemporaryDirectory directory;
    const std::string path = WriteSmiles(directory);
    ReadOptions options;
    options.smilesConformers = 3;
    const std::vector<Molecule> first = ReadAll(path, options);
    const std::vector<Molecule> second = ReadAll(path, options);
    ExpectSameMolecules(first, second);
    options.seed = 7;
    const std::vector<Molecule> otherSeed = ReadAll(path, options);
    ASSERT_EQ(otherSeed.size(), first.size());
    EXPECT_NE(Coordinates(otherSeed[1].conformers[0].Mol()),
              Coordinates(first[1].conformers[0].Mol()));
}

TEST(MoleculeReader, SmilesWithHydrogens) {
    TemporaryDirectory directory;
    const std::string path = WriteSmiles(directory);
    ReadOptions options;
    options.smilesConformers = 2;
    options.hydrogens = true;
    const std::vector<Molecule> molecules = ReadAll(path, options);
    ASSERT_EQ(molecules.size(), 3u);
    EXPECT_EQ(molecules[0].conformers[0].Mol().NumAtoms(), 13u);  // C6H5OH
    EXPECT_EQ(molecules[2].conformers[0].Mol().NumAtoms(), 9u);   // C2H5OH
    EXPECT_NEAR(ChargeSum(molecules[0].conformers[0].Mol()), 0.0, 1e-6);
    // The heavy atoms keep their positions and order whether hydrogens are selected or not.
    options.hydrogens = false;
    const std::vector<Molecule> heavy = ReadAll(path, options);
    double withH[3];
    double withoutH[3];
    molecules[1].conformers[1].Mol().GetAtom(3).GetCoords(withH);
    heavy[1].conformers[1].Mol().GetAtom(3).GetCoords(withoutH);
    for (int axis = 0; axis < 3; ++axis) {
        EXPECT_DOUBLE_EQ(withH[axis], withoutH[axis]);
    }
}

// ---------------------------------------------------------------------------------------------
// MOL2

const std::string SmallMol2 = std::string(HERMITE_IO_TEST_DATA) + "/small.mol2";

TEST(MoleculeReader, Mol2InputCharges) {
    ReadOptions options;
    options.charges = ChargeModel::Input;
    options.hydrogens = true;
    MoleculeReader reader(SmallMol2, options);
    ASSERT_TRUE(reader.Ok());
    EXPECT_EQ(reader.Format(), FileFormat::Mol2);
    Molecule methanol;
    Molecule formaldehyde;
    Molecule none;
    ASSERT_TRUE(reader.Next(methanol));
    ASSERT_TRUE(reader.Next(formaldehyde));
    EXPECT_FALSE(reader.Next(none));
    EXPECT_EQ(methanol.title, "methanol");
    EXPECT_EQ(formaldehyde.title, "formaldehyde");
    const QVChem::QVMol& mol = methanol.conformers[0].Mol();
    ASSERT_EQ(mol.NumAtoms(), 6u);
    const double expected[] = {0.1, -0.6, 0.05, 0.05, 0.05, 0.35};
    for (unsigned int i = 0; i < 6; ++i) {
        EXPECT_DOUBLE_EQ(mol.GetAtom(i).GetPartialCharge(), expected[i]);
    }
    double xyz[3];
    mol.GetAtom(1).GetCoords(xyz);
    EXPECT_DOUBLE_EQ(xyz[0], 0.95);
    EXPECT_DOUBLE_EQ(xyz[1], -0.4441);
    EXPECT_DOUBLE_EQ(xyz[2], 0.128);
    // The third record has a garbled coordinate.
    ASSERT_EQ(reader.Problems().size(), 1u);
    EXPECT_EQ(reader.Problems()[0].record, 3u);
    EXPECT_EQ(reader.Problems()[0].title, "broken");
    EXPECT_EQ(reader.Problems()[0].reason.rfind("RDKit could not parse the record", 0), 0u);
    EXPECT_EQ(reader.RecordsRead(), 3u);
    EXPECT_EQ(reader.RecordsSkipped(), 1u);
}

TEST(MoleculeReader, Mol2InputChargesFoldedOntoHeavyAtoms) {
    ReadOptions options;
    options.charges = ChargeModel::Input;
    const std::vector<Molecule> molecules = ReadAll(SmallMol2, options);
    ASSERT_EQ(molecules.size(), 2u);
    const QVChem::QVMol& methanol = molecules[0].conformers[0].Mol();
    ASSERT_EQ(methanol.NumAtoms(), 2u);
    EXPECT_NEAR(methanol.GetAtom(0).GetPartialCharge(), 0.25, 1e-12);   // C + 3 H
    EXPECT_NEAR(methanol.GetAtom(1).GetPartialCharge(), -0.25, 1e-12);  // O + H
    const QVChem::QVMol& formaldehyde = molecules[1].conformers[0].Mol();
    EXPECT_NEAR(formaldehyde.GetAtom(0).GetPartialCharge(), 0.4, 1e-12);
}

TEST(MoleculeReader, Mol2GasteigerCharges) {
    const std::vector<Molecule> molecules = ReadAll(SmallMol2);
    ASSERT_EQ(molecules.size(), 2u);
    EXPECT_NEAR(ChargeSum(molecules[0].conformers[0].Mol()), 0.0, 1e-9);
    EXPECT_NE(molecules[0].conformers[0].Mol().GetAtom(1).GetPartialCharge(), -0.25);
}

/// The charge column of the ATOM section of the n-th (0-based) record of a MOL2 text.
std::vector<double> Mol2ChargeColumn(const std::string& text, std::size_t recordIndex) {
    std::size_t start = 0;
    for (std::size_t i = 0; i <= recordIndex; ++i) {
        start = text.find("@<TRIPOS>ATOM", start) + 1;
    }
    std::istringstream lines(text.substr(start - 1));
    std::vector<double> charges;
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line) && line.rfind("@<TRIPOS>", 0) != 0) {
        charges.push_back(std::stod(line.substr(line.find_last_of(" \t") + 1)));
    }
    return charges;
}

TEST(MoleculeReader, Mol2ConvertedFromCdk2) {
    if (std::system("command -v obabel >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "obabel (Debian openbabel) is not installed";
    }
    TemporaryDirectory directory;
    const std::string path = directory.File("cdk2.mol2");
    const std::string command = "obabel '" + Cdk2Path + "' -O '" + path + "' >/dev/null 2>&1";
    ASSERT_EQ(std::system(command.c_str()), 0);
    const std::vector<Molecule> fromSdf = ReadAll(Cdk2Path);
    ReadOptions options;
    options.charges = ChargeModel::Input;
    options.hydrogens = true;
    MoleculeReader reader(path, options);
    const std::string text = ReadText(path);
    Molecule molecule;
    unsigned int used = 0;
    while (reader.Next(molecule)) {
        // Every record gives either a molecule equal to the SD one or a problem naming it.
        const Conformer& conformer = molecule.conformers[0];
        const std::size_t index = conformer.Record() - 1;
        EXPECT_EQ(molecule.title, fromSdf[index].title);
        EXPECT_EQ(conformer.Mol().NumAtoms(), fromSdf[index].conformers[0].NumRecordAtoms());
        double mol2[3];
        double sdf[3];
        conformer.Mol().GetAtom(0).GetCoords(mol2);
        fromSdf[index].conformers[0].Mol().GetAtom(0).GetCoords(sdf);
        EXPECT_DOUBLE_EQ(mol2[0], sdf[0]);
        const std::vector<double> column = Mol2ChargeColumn(text, index);
        ASSERT_EQ(column.size(), conformer.Mol().NumAtoms());
        for (unsigned int i = 0; i < column.size(); ++i) {
            EXPECT_DOUBLE_EQ(conformer.Mol().GetAtom(i).GetPartialCharge(), column[i]);
        }
        ++used;
    }
    EXPECT_GT(used, 0u);
    EXPECT_EQ(reader.RecordsRead(), 47u);
    EXPECT_EQ(used + reader.RecordsSkipped(), 47u);
    for (const Problem& problem : reader.Problems()) {
        EXPECT_TRUE(problem.skipped);
        EXPECT_EQ(problem.title, fromSdf[problem.record - 1].title);
        EXPECT_EQ(problem.reason.rfind("RDKit could not parse the record: ", 0), 0u)
            << problem.Message();
    }
}

// ---------------------------------------------------------------------------------------------
// Small utilities

TEST(MoleculeIo, ChargeModelNames) {
    EXPECT_EQ(ParseChargeModel("gasteiger"), ChargeModel::Gasteiger);
    EXPECT_EQ(ParseChargeModel("mmff"), ChargeModel::MMFF94);
    EXPECT_EQ(ParseChargeModel("mmff94"), ChargeModel::MMFF94);
    EXPECT_EQ(ParseChargeModel("input"), ChargeModel::Input);
    EXPECT_FALSE(ParseChargeModel("Gasteiger "));
    EXPECT_FALSE(ParseChargeModel(""));
    for (ChargeModel model : {ChargeModel::Gasteiger, ChargeModel::MMFF94, ChargeModel::Input}) {
        EXPECT_EQ(ParseChargeModel(ChargeModelName(model)), model);
    }
}

TEST(MoleculeIo, FormatsFromExtensions) {
    EXPECT_EQ(FormatFromPath("a/b/cdk2.sdf"), FileFormat::Sdf);
    EXPECT_EQ(FormatFromPath("x.SD"), FileFormat::Sdf);
    EXPECT_EQ(FormatFromPath("x.mol"), FileFormat::Sdf);
    EXPECT_EQ(FormatFromPath("x.sdf.gz"), FileFormat::Sdf);
    EXPECT_EQ(FormatFromPath("x.mol2"), FileFormat::Mol2);
    EXPECT_EQ(FormatFromPath("x.smi"), FileFormat::Smiles);
    EXPECT_EQ(FormatFromPath("x.smiles.gz"), FileFormat::Smiles);
    EXPECT_EQ(FormatFromPath("x.pdb"), FileFormat::Unknown);
    EXPECT_EQ(FormatFromPath("dir.sdf/noextension"), FileFormat::Unknown);
    EXPECT_EQ(FormatFromPath("x.gz"), FileFormat::Unknown);
}

TEST(MoleculeIo, ProblemMessagesNameFileAndRecord) {
    EXPECT_EQ((Problem{"cdk2.sdf", 3, "ZINC123", "molecule has no 3-D coordinates"}).Message(),
              "cdk2.sdf, record 3 (ZINC123): molecule has no 3-D coordinates");
    EXPECT_EQ((Problem{"cdk2.sdf", 3, "", "molecule has no atoms"}).Message(),
              "cdk2.sdf, record 3: molecule has no atoms");
    EXPECT_EQ((Problem{"gone.sdf", 0, "", "cannot open file: No such file or directory"}).Message(),
              "gone.sdf: cannot open file: No such file or directory");
}

}  // namespace
}  // namespace hermite::io
