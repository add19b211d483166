// Writing posed conformers to SD files: every atom moved by the pose, title and data items kept,
// extra tags appended, and the file written atomically.

#include <gtest/gtest.h>

#include <cmath>

#include "io/molecule_io.h"
#include "io_test_support.h"

namespace hermite::io {
namespace {

using testing::Cdk2Path;
using testing::FileExists;
using testing::ReadText;
using testing::TemporaryDirectory;
using testing::WriteText;

/// Root-mean-square distance between the atoms of `moved` and those of `original` moved by
/// `pose`.
double RmsdToPosed(const QVChem::QVMol& original, const QVChem::QVTrans& pose,
                   const QVChem::QVMol& moved) {
    double sum = 0.0;
    for (unsigned int i = 0; i < original.NumAtoms(); ++i) {
        double expected[3];
        double actual[3];
        original.GetAtom(i).GetCoords(expected);
        pose.Apply(expected);
        moved.GetAtom(i).GetCoords(actual);
        for (int axis = 0; axis < 3; ++axis) {
            sum += (expected[axis] - actual[axis]) * (expected[axis] - actual[axis]);
        }
    }
    return std::sqrt(sum / original.NumAtoms());
}

TEST(SdfWriter, RoundTripKeepsTitlesPropertiesAndEveryAtom) {
    TemporaryDirectory directory;
    const std::string path = directory.File("hits.sdf");
    const std::vector<Molecule> heavy = ReadAll(Cdk2Path);
    const QVChem::QVTrans pose =
        testing::AxisAngleMotion({1.0, 2.0, 2.0}, 50.0 * M_PI / 180.0, {3.5, -12.25, 0.75});
    {
        SdfWriter writer(path);
        ASSERT_TRUE(writer.Ok()) << writer.Error();
        for (const Molecule& molecule : heavy) {
            ASSERT_TRUE(writer.Write(
                molecule.conformers[0], pose,
                {{"hermite_shape_tanimoto", "0.875"}, {"hermite_rank", molecule.title}}))
                << writer.Error();
        }
        EXPECT_EQ(writer.RecordsWritten(), 47u);
        EXPECT_FALSE(FileExists(path));  // nothing at the destination before Commit
        ASSERT_TRUE(writer.Commit()) << writer.Error();
    }
    ASSERT_TRUE(FileExists(path));
    EXPECT_EQ(directory.Entries().size(), 1u);

    ReadOptions withHydrogens;
    withHydrogens.hydrogens = true;
    const std::vector<Molecule> original = ReadAll(Cdk2Path, withHydrogens);
    std::vector<Problem> problems;
    const std::vector<Molecule> written = ReadAll(path, withHydrogens, &problems);
    EXPECT_TRUE(problems.empty());
    ASSERT_EQ(written.size(), 47u);
    for (std::size_t i = 0; i < written.size(); ++i) {
        const Conformer& before = original[i].conformers[0];
        const Conformer& after = written[i].conformers[0];
        EXPECT_EQ(after.Title(), before.Title());
        // All atoms, hydrogens included, moved by the pose (the file has four decimals).
        ASSERT_EQ(after.Mol().NumAtoms(), before.Mol().NumAtoms());
        EXPECT_LT(RmsdToPosed(before.Mol(), pose, after.Mol()), 1e-4);
        SdProperties expected = before.Properties();
        expected.emplace_back("hermite_shape_tanimoto", "0.875");
        expected.emplace_back("hermite_rank", before.Title());
        EXPECT_EQ(after.Properties(), expected);
        // The chemistry is unchanged: same elements and charges.
        for (unsigned int atom = 0; atom < after.Mol().NumAtoms(); ++atom) {
            EXPECT_EQ(after.Mol().GetAtom(atom).GetAtomicNumber(),
                      before.Mol().GetAtom(atom).GetAtomicNumber());
            EXPECT_NEAR(after.Mol().GetAtom(atom).GetPartialCharge(),
                        before.Mol().GetAtom(atom).GetPartialCharge(), 1e-9);
        }
    }
}

TEST(SdfWriter, ExtraTagReplacesAnInputItemOfTheSameName) {
    TemporaryDirectory directory;
    const std::string path = directory.File("renamed.sdf");
    const std::vector<Molecule> molecules = ReadAll(Cdk2Path);
    SdfWriter writer(path);
    ASSERT_TRUE(writer.Write(molecules[0].conformers[0], QVChem::QVTrans(),
                             {{"Cluster", "42"}, {"note", "two\nlines"}}));
    ASSERT_TRUE(writer.Commit());
    const std::vector<Molecule> written = ReadAll(path);
    ASSERT_EQ(written.size(), 1u);
    const SdProperties& properties = written[0].conformers[0].Properties();
    ASSERT_EQ(properties.size(), 8u);
    EXPECT_EQ(properties[0], SdProperty("id", "ZINC03814457"));
    EXPECT_EQ(properties[1].first, "MODEL.SOURCE");
    EXPECT_EQ(properties[6], SdProperty("Cluster", "42"));
    EXPECT_EQ(properties[7], SdProperty("note", "two\nlines"));
    EXPECT_NE(ReadText(path).find("> <Cluster>\n42\n\n"), std::string::npos);
}

TEST(SdfWriter, NoFileWithoutCommit) {
    TemporaryDirectory directory;
    const std::string path = directory.File("interrupted.sdf");
    const std::vector<Molecule> molecules = ReadAll(Cdk2Path);
    {
        SdfWriter writer(path);
        ASSERT_TRUE(writer.Write(molecules[0].conformers[0]));
        ASSERT_TRUE(writer.Write(molecules[1].conformers[0]));
        EXPECT_EQ(directory.Entries().size(), 1u);  // the temporary file
    }
    EXPECT_FALSE(FileExists(path));
    EXPECT_TRUE(directory.Entries().empty());
}

TEST(SdfWriter, UncommittedRewriteLeavesThePreviousFile) {
    TemporaryDirectory directory;
    const std::string path = directory.File("previous.sdf");
    WriteText(path, "previous contents\n");
    const std::vector<Molecule> molecules = ReadAll(Cdk2Path);
    {
        SdfWriter writer(path);
        writer.Write(molecules[0].conformers[0]);
    }
    EXPECT_EQ(ReadText(path), "previous contents\n");
}

TEST(SdfWriter, UnwritableDestination) {
    SdfWriter writer("/nonexistent/directory/hits.sdf");
    EXPECT_FALSE(writer.Ok());
    EXPECT_NE(writer.Error().find("/nonexistent/directory/hits.sdf"), std::string::npos);
    const std::vector<Molecule> molecules = ReadAll(Cdk2Path);
    EXPECT_FALSE(writer.Write(molecules[0].conformers[0]));
    EXPECT_FALSE(writer.Commit());
}

TEST(SdfWriter, SmilesConformersAndAtomOnlyConformers) {
    TemporaryDirectory directory;
    const std::string smiles = directory.File("in.smi");
    WriteText(smiles, "CC(=O)Nc1ccc(O)cc1 paracetamol\n");
    ReadOptions options;
    options.smilesConformers = 3;
    const std::vector<Molecule> molecules = ReadAll(smiles, options);
    ASSERT_EQ(molecules.size(), 1u);

    QVChem::QVMol atoms;
    atoms.SetTitle("three atoms");
    atoms.AddAtom(6, 0.0, 0.0, 0.0, 0.0);
    atoms.AddAtom(8, 1.2, 0.0, 0.1, 0.0);
    atoms.AddAtom(7, -1.0, 1.0, 0.5, 0.0);
    const Conformer atomOnly(atoms);
    EXPECT_FALSE(atomOnly.HasRecord());
    EXPECT_EQ(atomOnly.Title(), "three atoms");

    const std::string path = directory.File("out.sdf");
    SdfWriter writer(path);
    const QVChem::QVTrans pose =
        testing::AxisAngleMotion({1.0, 2.0, 2.0}, 50.0 * M_PI / 180.0, {3.5, -12.25, 0.75});
    for (const Conformer& conformer : molecules[0].conformers) {
        ASSERT_TRUE(writer.Write(conformer, pose));
    }
    ASSERT_TRUE(writer.Write(atomOnly, pose, {{"kind", "atoms"}}));
    ASSERT_TRUE(writer.Commit());

    const std::vector<Molecule> written = ReadAll(path);
    ASSERT_EQ(written.size(), 2u);
    EXPECT_EQ(written[0].title, "paracetamol");
    ASSERT_EQ(written[0].conformers.size(), 3u);  // same title: read back as conformers
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_LT(
            RmsdToPosed(molecules[0].conformers[i].Mol(), pose, written[0].conformers[i].Mol()),
            1e-4);
    }
    EXPECT_EQ(written[1].title, "three atoms");
    EXPECT_LT(RmsdToPosed(atoms, pose, written[1].conformers[0].Mol()), 1e-4);
    EXPECT_EQ(written[1].conformers[0].Properties(), SdProperties({{"kind", "atoms"}}));
}

TEST(SdfWriter, FormattedRecordEndsWithTerminator) {
    const std::vector<Molecule> molecules = ReadAll(Cdk2Path);
    const std::string record = FormatSdRecord(molecules[0].conformers[0]);
    // Title, program line, and the input's comment line.
    EXPECT_EQ(
        record.rfind("ZINC03814457\n     RDKit          3D\n Structure written by MMmdl.\n", 0),
        0u);
    EXPECT_EQ(record.substr(record.size() - 5), "$$$$\n");
    EXPECT_NE(record.find("M  END\n> <id>\nZINC03814457\n\n"), std::string::npos);
}

}  // namespace
}  // namespace hermite::io
