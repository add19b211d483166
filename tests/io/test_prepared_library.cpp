// Prepared libraries: what is written is read back bit for bit (atoms, frames, sources, whole
// records), in any chunking; damaged, foreign and unfinished files are refused with a message
// naming the file; an uncommitted writer leaves nothing behind.

#include <GraphMol/Conformer.h>
#include <GraphMol/ROMol.h>
#include <gtest/gtest.h>
#include <hdf5.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "io/conformer_builder.h"
#include "io/features.h"
#include "io/molecule_io.h"
#include "io/prepared_library.h"
#include "io_test_support.h"

namespace hermite::io {
namespace {

using testing::Cdk2Path;
using testing::FileExists;
using testing::ReadText;
using testing::TemporaryDirectory;
using testing::WriteText;

/// A translation x no coordinate of the test molecules has, to find frames in the file's bytes.
const double MarkerX = 1234.5678125;

/// The frame stored for conformer `index`: a rotation about z by `index` radians, then a
/// translation starting at `MarkerX`.
QVChem::QVTrans FrameFor(std::size_t index) {
    const double angle = static_cast<double>(index);
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    const double rotation[9] = {c, -s, 0.0, s, c, 0.0, 0.0, 0.0, 1.0};
    const double translation[3] = {MarkerX + static_cast<double>(index), -2.25,
                                   0.125 * static_cast<double>(index)};
    return QVChem::QVTrans(rotation, translation);
}

/// Writes `molecules` (each `repeat` times) to a library at `path`, conformer i with
/// `FrameFor(i)`.
void WriteLibrary(const std::string& path, const std::vector<Molecule>& molecules,
                  const LibraryPreparation& preparation = LibraryPreparation(),
                  std::size_t repeat = 1) {
    PreparedLibraryWriter writer(path, preparation);
    ASSERT_TRUE(writer.Ok()) << writer.Error();
    std::size_t conformer = 0;
    for (std::size_t r = 0; r < repeat; ++r) {
        for (const Molecule& molecule : molecules) {
            std::vector<QVChem::QVTrans> frames;
            for (std::size_t c = 0; c < molecule.conformers.size(); ++c) {
                frames.push_back(FrameFor(conformer++));
            }
            ASSERT_TRUE(writer.Add(molecule, frames)) << writer.Error();
        }
    }
    EXPECT_EQ(writer.Molecules(), molecules.size() * repeat);
    EXPECT_EQ(writer.Conformers(), conformer);
    ASSERT_TRUE(writer.Commit()) << writer.Error();
}

bool SameBits(double a, double b) {
    return std::memcmp(&a, &b, sizeof(double)) == 0;
}

/// Every atom of `actual` has the element, coordinates and charge of `expected`, bit for bit.
void ExpectSameAtoms(const QVChem::QVMol& expected, const QVChem::QVMol& actual) {
    ASSERT_EQ(actual.NumAtoms(), expected.NumAtoms());
    for (unsigned int i = 0; i < expected.NumAtoms(); ++i) {
        const QVChem::QVAtom& a = expected.GetAtom(i);
        const QVChem::QVAtom& b = actual.GetAtom(i);
        EXPECT_EQ(b.GetAtomicNumber(), a.GetAtomicNumber()) << "atom " << i;
        double xyzA[3];
        double xyzB[3];
        a.GetCoords(xyzA);
        b.GetCoords(xyzB);
        for (int axis = 0; axis < 3; ++axis) {
            EXPECT_TRUE(SameBits(xyzA[axis], xyzB[axis]))
                << "atom " << i << " axis " << axis << ": " << xyzA[axis] << " vs " << xyzB[axis];
        }
        EXPECT_TRUE(SameBits(a.GetPartialCharge(), b.GetPartialCharge()))
            << "atom " << i << ": " << a.GetPartialCharge() << " vs " << b.GetPartialCharge();
    }
}

void ExpectSameFrame(const QVChem::QVTrans& expected, const QVChem::QVTrans& actual) {
    double a[12];
    double b[12];
    expected.Extract(a, a + 9, true);
    actual.Extract(b, b + 9, true);
    for (int i = 0; i < 12; ++i) {
        EXPECT_TRUE(SameBits(a[i], b[i])) << "element " << i << ": " << a[i] << " vs " << b[i];
    }
}

/// The features are the same, positions bit for bit.
void ExpectSameFeatures(const std::vector<Feature>& expected, const std::vector<Feature>& actual) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t f = 0; f < expected.size(); ++f) {
        EXPECT_EQ(actual[f].family, expected[f].family) << "feature " << f;
        EXPECT_EQ(actual[f].type, expected[f].type) << "feature " << f;
        EXPECT_TRUE(SameBits(actual[f].x, expected[f].x) && SameBits(actual[f].y, expected[f].y) &&
                    SameBits(actual[f].z, expected[f].z))
            << "feature " << f;
        EXPECT_EQ(actual[f].atoms, expected[f].atoms) << "feature " << f;
    }
}

/// The source conformers in library order.
std::vector<const Conformer*> Flatten(const std::vector<Molecule>& molecules) {
    std::vector<const Conformer*> conformers;
    for (const Molecule& molecule : molecules) {
        for (const Conformer& conformer : molecule.conformers) {
            conformers.push_back(&conformer);
        }
    }
    return conformers;
}

/// The library's molecules equal `source` (repeated as written by `WriteLibrary`).
void ExpectLibraryEquals(const std::vector<LibraryMolecule>& library,
                         const std::vector<Molecule>& source, std::size_t firstMolecule,
                         std::size_t firstConformer) {
    std::size_t conformer = firstConformer;
    for (std::size_t m = 0; m < library.size(); ++m) {
        const Molecule& expected = source[(firstMolecule + m) % source.size()];
        const LibraryMolecule& actual = library[m];
        EXPECT_EQ(actual.title, expected.title);
        ASSERT_EQ(actual.conformers.size(), expected.conformers.size());
        for (std::size_t c = 0; c < expected.conformers.size(); ++c) {
            const Conformer& sourceConformer = expected.conformers[c];
            const LibraryConformer& stored = actual.conformers[c];
            EXPECT_EQ(stored.mol.GetTitle(), expected.title);
            EXPECT_EQ(stored.file, sourceConformer.File());
            EXPECT_EQ(stored.record, sourceConformer.Record());
            EXPECT_EQ(stored.index, conformer);
            ExpectSameAtoms(sourceConformer.Mol(), stored.mol);
            ExpectSameFeatures(sourceConformer.Features(), stored.features);
            ExpectSameFrame(FrameFor(conformer), stored.frame);
            ++conformer;
        }
    }
}

/// The library's molecules [first, first + count) read in one call.
std::vector<LibraryMolecule> ReadRange(PreparedLibraryReader& reader, std::size_t first,
                                       std::size_t count) {
    std::vector<LibraryMolecule> molecules;
    EXPECT_TRUE(reader.Read(first, count, molecules)) << reader.Error();
    return molecules;
}

/// The coordinates of every atom of a conformer's record.
std::vector<RDGeom::Point3D> RecordPositions(const Conformer& conformer) {
    const Conformer::RecordData* data = ConformerAccess::Data(conformer);
    if (data == nullptr) {
        return {};
    }
    return data->molecule->getConformer(data->conformerId).getPositions();
}

/// Every stored conformer loads as its source: the same SD text (in the original pose and in
/// another), atoms, record-atom indices, data items, source and full-precision coordinates.
void ExpectLoadedConformersEqualSource(PreparedLibraryReader& reader,
                                       const std::vector<Molecule>& source) {
    const std::vector<const Conformer*> conformers = Flatten(source);
    ASSERT_EQ(reader.NumConformers(), conformers.size());
    for (std::size_t i = 0; i < conformers.size(); ++i) {
        const Conformer& expected = *conformers[i];
        Conformer loaded;
        ASSERT_TRUE(reader.LoadConformer(i, loaded)) << reader.Error();
        EXPECT_EQ(FormatSdRecord(loaded), FormatSdRecord(expected)) << "conformer " << i;
        EXPECT_EQ(FormatSdRecord(loaded, FrameFor(i), {{"hermite_rank", "1"}}),
                  FormatSdRecord(expected, FrameFor(i), {{"hermite_rank", "1"}}))
            << "conformer " << i;
        ExpectSameAtoms(expected.Mol(), loaded.Mol());
        EXPECT_EQ(loaded.Title(), expected.Title());
        EXPECT_EQ(loaded.File(), expected.File());
        EXPECT_EQ(loaded.Record(), expected.Record());
        EXPECT_EQ(loaded.Properties(), expected.Properties());
        EXPECT_EQ(loaded.RecordAtomIndices(), expected.RecordAtomIndices());
        EXPECT_EQ(loaded.NumRecordAtoms(), expected.NumRecordAtoms());
        ExpectSameFeatures(expected.Features(), loaded.Features());
        const std::vector<RDGeom::Point3D> expectedPositions = RecordPositions(expected);
        const std::vector<RDGeom::Point3D> loadedPositions = RecordPositions(loaded);
        ASSERT_EQ(loadedPositions.size(), expectedPositions.size());
        for (std::size_t a = 0; a < expectedPositions.size(); ++a) {
            EXPECT_TRUE(SameBits(loadedPositions[a].x, expectedPositions[a].x) &&
                        SameBits(loadedPositions[a].y, expectedPositions[a].y) &&
                        SameBits(loadedPositions[a].z, expectedPositions[a].z))
                << "conformer " << i << ", record atom " << a;
        }
    }
}

/// The offsets at which the little-endian bytes of `value` occur in `bytes`.
std::vector<std::size_t> FindDouble(const std::string& bytes, double value) {
    char pattern[sizeof(double)];
    std::memcpy(pattern, &value, sizeof(double));  // x86-64 is little-endian, as the file
    std::vector<std::size_t> found;
    for (std::size_t at = bytes.find(std::string(pattern, sizeof(pattern)));
         at != std::string::npos; at = bytes.find(std::string(pattern, sizeof(pattern)), at + 1)) {
        found.push_back(at);
    }
    return found;
}

/// Opens an HDF5 file for writing with the C API, to damage it in controlled ways.
class RawHdfFile {
public:
    explicit RawHdfFile(const std::string& path)
        : id_(H5Fopen(path.c_str(), H5F_ACC_RDWR, H5P_DEFAULT)) {}
    ~RawHdfFile() {
        if (id_ >= 0) {
            H5Fclose(id_);
        }
    }
    RawHdfFile(const RawHdfFile&) = delete;
    RawHdfFile& operator=(const RawHdfFile&) = delete;
    hid_t Id() const { return id_; }

    /// Overwrites an unsigned integer root attribute.
    bool SetRootAttribute(const char* name, std::uint64_t value) {
        const hid_t attribute = H5Aopen(id_, name, H5P_DEFAULT);
        if (attribute < 0) {
            return false;
        }
        const bool written = H5Awrite(attribute, H5T_NATIVE_UINT64, &value) >= 0;
        H5Aclose(attribute);
        return written;
    }

    /// Replaces a root attribute by a variable-length string holding `value`, as libraries of
    /// format version 1 stored their strings.
    bool SetVariableLengthRootAttribute(const char* name, const char* value) {
        if (H5Adelete(id_, name) < 0) {
            return false;
        }
        const hid_t type = H5Tcopy(H5T_C_S1);
        H5Tset_size(type, H5T_VARIABLE);
        const hid_t space = H5Screate(H5S_SCALAR);
        const hid_t attribute = H5Acreate2(id_, name, type, space, H5P_DEFAULT, H5P_DEFAULT);
        const bool written = attribute >= 0 && H5Awrite(attribute, type, &value) >= 0;
        if (attribute >= 0) {
            H5Aclose(attribute);
        }
        H5Sclose(space);
        H5Tclose(type);
        return written;
    }

private:
    hid_t id_;
};

/// The 47 CDK2 ligands, heavy atoms, Gasteiger charges.
const std::vector<Molecule>& Cdk2() {
    static const std::vector<Molecule> molecules = ReadAll(Cdk2Path);
    return molecules;
}

/// The CDK2 library written at `path`, damaged by `damage` (false: it could not be damaged),
/// then opened: the reader's error, which must be a refusal.
std::string ErrorOfDamagedLibrary(const std::string& path,
                                  const std::function<bool(RawHdfFile&)>& damage) {
    WriteLibrary(path, Cdk2());
    {
        RawHdfFile file(path);
        if (file.Id() < 0 || !damage(file)) {
            return "the library could not be damaged";
        }
    }
    PreparedLibraryReader reader(path);
    return reader.Ok() ? "the damaged library was read" : reader.Error();
}

// ---------------------------------------------------------------------------------------------

TEST(PreparedLibrary, Cdk2RoundTripsAtomsFramesAndSources) {
    TemporaryDirectory directory;
    const std::string path = directory.File("cdk2.h5");
    LibraryPreparation preparation;
    preparation.charges = "gasteiger";
    preparation.smilesConformers = 7;
    preparation.seed = 1234;
    preparation.minimize = true;
    preparation.pruneRms = 0.25;
    ASSERT_EQ(Cdk2().size(), 47u);
    WriteLibrary(path, Cdk2(), preparation);
    EXPECT_EQ(directory.Entries(), std::vector<std::string>{"cdk2.h5"});  // no temporary left

    PreparedLibraryReader reader(path);
    ASSERT_TRUE(reader.Ok()) << reader.Error();
    EXPECT_TRUE(reader.Error().empty());
    EXPECT_EQ(reader.NumMolecules(), 47u);
    EXPECT_EQ(reader.NumConformers(), 47u);
    const LibraryPreparation& stored = reader.Preparation();
    EXPECT_FALSE(stored.hydrogens);
    EXPECT_EQ(stored.charges, "gasteiger");
    EXPECT_EQ(stored.smilesConformers, 7u);
    EXPECT_EQ(stored.seed, 1234u);
    EXPECT_TRUE(stored.minimize);
    EXPECT_EQ(stored.pruneRms, 0.25);

    const std::vector<LibraryMolecule> all = ReadRange(reader, 0, 1000);
    ASSERT_EQ(all.size(), 47u);
    ExpectLibraryEquals(all, Cdk2(), 0, 0);
    EXPECT_EQ(all[0].title, "ZINC03814457");
    EXPECT_EQ(all[0].conformers[0].file, Cdk2Path);
    EXPECT_EQ(all[0].conformers[0].record, 1u);
    EXPECT_EQ(all[46].conformers[0].record, 47u);
    EXPECT_TRUE(std::isfinite(all[0].conformers[0].mol.GetAtom(0).GetPartialCharge()));
}

/// The CDK2 ligands with their colour features (built-in definitions).
const std::vector<Molecule>& Cdk2WithFeatures() {
    static const std::vector<Molecule> molecules = [] {
        ReadOptions options;
        options.features =
            std::make_shared<const FeatureDefinitions>(FeatureDefinitions::Default());
        return ReadAll(Cdk2Path, options);
    }();
    return molecules;
}

LibraryPreparation PreparationWithDefaultFeatures() {
    LibraryPreparation preparation;
    preparation.featureDefinitions = FeatureDefinitions::DefaultText();
    preparation.featureFamilies = FeatureDefinitions::Default().Families();
    return preparation;
}

TEST(PreparedLibrary, ColourFeaturesRoundTrip) {
    TemporaryDirectory directory;
    const std::string path = directory.File("cdk2-features.h5");
    std::size_t numFeatures = 0;
    for (const Conformer* conformer : Flatten(Cdk2WithFeatures())) {
        numFeatures += conformer->Features().size();
    }
    ASSERT_GT(numFeatures, 47u * 4);  // every ligand has several
    WriteLibrary(path, Cdk2WithFeatures(), PreparationWithDefaultFeatures(), 3);

    PreparedLibraryReader reader(path);
    ASSERT_TRUE(reader.Ok()) << reader.Error();
    EXPECT_EQ(reader.Preparation().featureDefinitions, FeatureDefinitions::DefaultText());
    EXPECT_EQ(reader.Preparation().featureFamilies,
              (std::vector<std::string>{"Donor", "Acceptor", "Cation", "Anion", "Aromatic",
                                        "Hydrophobe"}));
    ExpectLibraryEquals(ReadRange(reader, 0, 1000), Cdk2WithFeatures(), 0, 0);
    ExpectLibraryEquals(ReadRange(reader, 50, 7), Cdk2WithFeatures(), 50, 50);
    Conformer loaded;
    ASSERT_TRUE(reader.LoadConformer(47 + 5, loaded)) << reader.Error();
    ExpectSameFeatures(Cdk2WithFeatures()[5].conformers[0].Features(), loaded.Features());
}

/// The CDK2 ligands written as a library without colour features, opened for reading.
class Cdk2Library : public ::testing::Test {
protected:
    void SetUp() override {
        WriteLibrary(path_, Cdk2());
        reader_ = std::make_unique<PreparedLibraryReader>(path_);
        ASSERT_TRUE(reader_->Ok()) << reader_->Error();
    }

    TemporaryDirectory directory_;
    const std::string path_ = directory_.File("cdk2.h5");
    std::unique_ptr<PreparedLibraryReader> reader_;
};

TEST_F(Cdk2Library, LibraryWithoutFeatureDefinitionsStoresNone) {
    PreparedLibraryReader& reader = *reader_;
    EXPECT_TRUE(reader.Preparation().featureDefinitions.empty());
    EXPECT_TRUE(reader.Preparation().featureFamilies.empty());
    for (const LibraryMolecule& molecule : ReadRange(reader, 0, 47)) {
        EXPECT_TRUE(molecule.conformers.front().features.empty());
    }
}

TEST(PreparedLibrary, WriterRefusesFeatureTypesOutsideItsFamilies) {
    TemporaryDirectory directory;
    const std::string path = directory.File("refused.h5");
    LibraryPreparation preparation = PreparationWithDefaultFeatures();
    preparation.featureFamilies.resize(4);  // no Aromatic (4) nor Hydrophobe (5)
    PreparedLibraryWriter writer(path, preparation);
    ASSERT_TRUE(writer.Ok()) << writer.Error();
    const Molecule& molecule = Cdk2WithFeatures()[0];
    EXPECT_FALSE(writer.Add(molecule, {FrameFor(0)}));
    EXPECT_EQ(writer.Error(), path + ": molecule '" + molecule.title +
                                  "': feature type 4 is not one of the library's 4 feature "
                                  "families");
    EXPECT_TRUE(writer.Ok());  // the molecule is refused, the library goes on

    LibraryPreparation badNames = PreparationWithDefaultFeatures();
    badNames.featureFamilies.push_back("Two\nLines");
    PreparedLibraryWriter refused(directory.File("names.h5"), badNames);
    EXPECT_FALSE(refused.Ok());
    EXPECT_EQ(refused.Error(), directory.File("names.h5") +
                                   ": a feature family name is empty or holds a line break or a "
                                   "null character");
}

TEST_F(Cdk2Library, ReadingInChunksEqualsReadingAll) {
    PreparedLibraryReader& reader = *reader_;
    const std::vector<LibraryMolecule> all = ReadRange(reader, 0, reader.NumMolecules());
    ASSERT_EQ(all.size(), 47u);
    std::size_t next = 0;
    for (std::size_t first = 0; first < reader.NumMolecules(); first += 5) {
        const std::vector<LibraryMolecule> chunk = ReadRange(reader, first, 5);
        ASSERT_EQ(chunk.size(), std::min<std::size_t>(5, 47 - first));  // the last one clipped
        for (const LibraryMolecule& molecule : chunk) {
            const LibraryMolecule& expected = all[next++];
            EXPECT_EQ(molecule.title, expected.title);
            ASSERT_EQ(molecule.conformers.size(), expected.conformers.size());
            for (std::size_t c = 0; c < molecule.conformers.size(); ++c) {
                ExpectSameAtoms(expected.conformers[c].mol, molecule.conformers[c].mol);
                ExpectSameFrame(expected.conformers[c].frame, molecule.conformers[c].frame);
                EXPECT_EQ(molecule.conformers[c].index, expected.conformers[c].index);
                EXPECT_EQ(molecule.conformers[c].record, expected.conformers[c].record);
            }
        }
    }
    EXPECT_EQ(next, 47u);

    std::vector<LibraryMolecule> beyond = {LibraryMolecule()};
    EXPECT_TRUE(reader.Read(47, 10, beyond));
    EXPECT_TRUE(beyond.empty());
    EXPECT_TRUE(reader.Read(3, 0, beyond));
    EXPECT_TRUE(beyond.empty());
}

TEST_F(Cdk2Library, LoadedConformersAreTheRecordsThatWereRead) {
    PreparedLibraryReader& reader = *reader_;
    ExpectLoadedConformersEqualSource(reader, Cdk2());

    Conformer loaded;
    EXPECT_FALSE(reader.LoadConformer(47, loaded));
    EXPECT_NE(reader.Error().find(path_), std::string::npos) << reader.Error();
    EXPECT_TRUE(reader.Ok());  // a failed call leaves the reader usable
    EXPECT_TRUE(reader.LoadConformer(0, loaded)) << reader.Error();
}

TEST(PreparedLibrary, HydrogensAndMmffChargesRoundTrip) {
    ReadOptions options;
    options.hydrogens = true;
    options.charges = ChargeModel::MMFF94;
    const std::vector<Molecule> molecules = ReadAll(Cdk2Path, options);
    ASSERT_EQ(molecules.size(), 47u);
    TemporaryDirectory directory;
    const std::string path = directory.File("cdk2-h.h5");
    LibraryPreparation preparation;
    preparation.hydrogens = true;
    preparation.charges = "mmff";
    WriteLibrary(path, molecules, preparation);
    PreparedLibraryReader reader(path);
    ASSERT_TRUE(reader.Ok()) << reader.Error();
    EXPECT_TRUE(reader.Preparation().hydrogens);
    EXPECT_EQ(reader.Preparation().charges, "mmff");
    ExpectLibraryEquals(ReadRange(reader, 0, 47), molecules, 0, 0);
    ExpectLoadedConformersEqualSource(reader, molecules);
}

TEST(PreparedLibrary, SmilesConformersKeepFullPrecisionCoordinates) {
    TemporaryDirectory directory;
    const std::string smiles = directory.File("three.smi");
    WriteText(smiles,
              "CC(=O)Oc1ccccc1C(=O)O aspirin\n"
              "# a comment line\n"
              "CN1C=NC2=C1C(=O)N(C(=O)N2C)C caffeine\n"
              "C[C@H](N)C(=O)O alanine\n");
    ReadOptions options;
    options.smilesConformers = 3;
    std::vector<Problem> problems;
    const std::vector<Molecule> molecules = ReadAll(smiles, options, &problems);
    ASSERT_EQ(molecules.size(), 3u);
    for (const Molecule& molecule : molecules) {
        EXPECT_EQ(molecule.conformers.size(), 3u) << molecule.title;
    }
    const std::string path = directory.File("three.h5");
    WriteLibrary(path, molecules);

    PreparedLibraryReader reader(path);
    ASSERT_TRUE(reader.Ok()) << reader.Error();
    EXPECT_EQ(reader.NumMolecules(), 3u);
    EXPECT_EQ(reader.NumConformers(), 9u);
    const std::vector<LibraryMolecule> stored = ReadRange(reader, 0, 3);
    ExpectLibraryEquals(stored, molecules, 0, 0);
    EXPECT_EQ(stored[0].title, "aspirin");
    EXPECT_EQ(stored[1].conformers[2].record, 3u);  // the line number
    EXPECT_EQ(stored[2].conformers[0].record, 4u);
    EXPECT_EQ(stored[2].conformers[0].file, smiles);
    // Coordinates that a molfile's four decimals would round must come back exactly.
    ExpectLoadedConformersEqualSource(reader, molecules);
}

TEST(PreparedLibrary, ManyChunksKeepEveryRow) {
    // 47 x 100 conformers: several buffer flushes (the SD text fills the buffer first), and
    // rows that straddle the chunks of every column.
    const std::size_t repeat = 100;
    const std::size_t count = 47 * repeat;
    TemporaryDirectory directory;
    const std::string path = directory.File("big.h5");
    WriteLibrary(path, Cdk2(), LibraryPreparation(), repeat);
    {
        // A library written in several flushes has full-size chunks: 2048 frames each.
        RawHdfFile file(path);
        ASSERT_GE(file.Id(), 0);
        const hid_t dataset = H5Dopen2(file.Id(), "conformers/frame", H5P_DEFAULT);
        ASSERT_GE(dataset, 0);
        const hid_t creation = H5Dget_create_plist(dataset);
        hsize_t chunk[2] = {0, 0};
        EXPECT_EQ(H5Pget_chunk(creation, 2, chunk), 2);
        EXPECT_EQ(chunk[0], 2048u);
        EXPECT_EQ(chunk[1], 12u);
        H5Pclose(creation);
        H5Dclose(dataset);
    }
    PreparedLibraryReader reader(path);
    ASSERT_TRUE(reader.Ok()) << reader.Error();
    ASSERT_EQ(reader.NumMolecules(), count);
    ASSERT_EQ(reader.NumConformers(), count);
    std::size_t total = 0;
    for (std::size_t first = 0; first < reader.NumMolecules(); first += 256) {
        const std::vector<LibraryMolecule> chunk = ReadRange(reader, first, 256);
        ExpectLibraryEquals(chunk, Cdk2(), first, first);
        total += chunk.size();
        if (::testing::Test::HasFailure()) {
            break;
        }
    }
    EXPECT_EQ(total, count);
    for (std::size_t index : {std::size_t(0), std::size_t(2047), std::size_t(2048), count - 1}) {
        Conformer loaded;
        ASSERT_TRUE(reader.LoadConformer(index, loaded)) << reader.Error();
        EXPECT_EQ(FormatSdRecord(loaded), FormatSdRecord(Cdk2()[index % 47].conformers[0]));
    }
}

TEST(PreparedLibrary, EmptyLibrary) {
    TemporaryDirectory directory;
    const std::string path = directory.File("empty.h5");
    WriteLibrary(path, {});
    PreparedLibraryReader reader(path);
    ASSERT_TRUE(reader.Ok()) << reader.Error();
    EXPECT_EQ(reader.NumMolecules(), 0u);
    EXPECT_EQ(reader.NumConformers(), 0u);
    std::vector<LibraryMolecule> molecules;
    EXPECT_TRUE(reader.Read(0, 10, molecules));
    EXPECT_TRUE(molecules.empty());
}

TEST(PreparedLibrary, MissingFile) {
    TemporaryDirectory directory;
    const std::string path = directory.File("absent.h5");
    PreparedLibraryReader reader(path);
    EXPECT_FALSE(reader.Ok());
    EXPECT_EQ(reader.Error(), path + ": cannot open file: No such file or directory");
    EXPECT_EQ(reader.NumMolecules(), 0u);
    std::vector<LibraryMolecule> molecules;
    EXPECT_FALSE(reader.Read(0, 1, molecules));
    EXPECT_FALSE(IsPreparedLibrary(path));

    PreparedLibraryReader directoryReader(directory.File(""));
    EXPECT_FALSE(directoryReader.Ok());
    EXPECT_NE(directoryReader.Error().find("Is a directory"), std::string::npos)
        << directoryReader.Error();
}

TEST(PreparedLibrary, TextFileIsNotALibrary) {
    TemporaryDirectory directory;
    const std::string path = directory.File("molecules.h5");
    WriteText(path, ReadText(Cdk2Path));
    EXPECT_FALSE(IsPreparedLibrary(path));
    PreparedLibraryReader reader(path);
    EXPECT_FALSE(reader.Ok());
    EXPECT_EQ(reader.Error(), path + ": not a prepared library (not an HDF5 file)");
}

TEST(PreparedLibrary, ForeignHdf5FileIsNotALibrary) {
    TemporaryDirectory directory;
    const std::string path = directory.File("other.h5");
    const hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
    ASSERT_GE(file, 0);
    const hsize_t size = 4;
    const hid_t space = H5Screate_simple(1, &size, nullptr);
    const hid_t dataset =
        H5Dcreate2(file, "values", H5T_IEEE_F64LE, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
    const double values[4] = {1.0, 2.0, 3.0, 4.0};
    H5Dwrite(dataset, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, values);
    H5Dclose(dataset);
    H5Sclose(space);
    H5Fclose(file);

    EXPECT_TRUE(IsPreparedLibrary(path));  // by its signature
    PreparedLibraryReader reader(path);
    EXPECT_FALSE(reader.Ok());
    EXPECT_EQ(reader.Error().rfind(path + ": an HDF5 file, but not a hermite prepared library", 0),
              0u)
        << reader.Error();
}

TEST(PreparedLibrary, UnsupportedFormatVersion) {
    TemporaryDirectory directory;
    const std::string path = directory.File("future.h5");
    EXPECT_EQ(
        ErrorOfDamagedLibrary(
            path, [](RawHdfFile& file) { return file.SetRootAttribute("format_version", 4); }),
        path +
            ": unsupported prepared library format version 4 (this build "
            "reads version 3)");
    EXPECT_EQ(
        ErrorOfDamagedLibrary(
            path, [](RawHdfFile& file) { return file.SetRootAttribute("format_version", 2); }),
        path +
            ": unsupported prepared library format version 2 (this build "
            "reads version 3; prepare the library again)");
}

// Variable-length strings live in the global heap, which has no checksum; a damaged heap made
// HDF5 loop forever (found by fuzzing). They are refused before anything reads them.
TEST(PreparedLibrary, VariableLengthStringAttributesAreRefusedUnread) {
    TemporaryDirectory directory;
    const std::string path = directory.File("version1.h5");
    EXPECT_EQ(ErrorOfDamagedLibrary(path,
                                    [](RawHdfFile& file) {
                                        return file.SetVariableLengthRootAttribute(
                                            "format", "hermite-prepared-library");
                                    }),
              path +
                  ": the attribute 'format' is a variable-length string, which prepared libraries "
                  "do not use (a library of format version 1, or another program's file: prepare "
                  "the library again)");
}

// The library the fuzzer found looping forever inside HDF5: it is refused, and at once.
TEST(PreparedLibrary, DamagedGlobalHeapIsRefused) {
    const std::string path =
        std::string(HERMITE_FUZZ_CORPUS) + "/prepared_library/damaged-global-heap.h5";
    PreparedLibraryReader reader(path);
    EXPECT_FALSE(reader.Ok());
    EXPECT_NE(reader.Error().find("variable-length string"), std::string::npos) << reader.Error();
}

TEST(PreparedLibrary, IncompleteLibrary) {
    TemporaryDirectory directory;
    const std::string path = directory.File("unfinished.h5");
    EXPECT_EQ(ErrorOfDamagedLibrary(
                  path, [](RawHdfFile& file) { return file.SetRootAttribute("complete", 0); }),
              path +
                  ": incomplete prepared library: the preparation that wrote it "
                  "did not finish");
}

TEST(PreparedLibrary, InconsistentDatasetSizes) {
    TemporaryDirectory directory;
    const std::string path = directory.File("inconsistent.h5");
    WriteLibrary(path, Cdk2());
    {
        RawHdfFile file(path);
        ASSERT_GE(file.Id(), 0);
        const hid_t dataset = H5Dopen2(file.Id(), "atoms/charge", H5P_DEFAULT);
        ASSERT_GE(dataset, 0);
        const hsize_t shorter = 10;
        EXPECT_GE(H5Dset_extent(dataset, &shorter), 0);
        H5Dclose(dataset);
    }
    PreparedLibraryReader reader(path);
    EXPECT_FALSE(reader.Ok());
    EXPECT_EQ(reader.Error().rfind(path + ": inconsistent library: atoms/charge has 10 rows", 0),
              0u)
        << reader.Error();
}

TEST(PreparedLibrary, TruncatedFile) {
    TemporaryDirectory directory;
    const std::string path = directory.File("whole.h5");
    WriteLibrary(path, Cdk2());
    const std::string bytes = ReadText(path);
    const std::string truncated = directory.File("truncated.h5");
    WriteText(truncated, bytes.substr(0, bytes.size() / 2));
    EXPECT_TRUE(IsPreparedLibrary(truncated));
    PreparedLibraryReader reader(truncated);
    std::vector<LibraryMolecule> molecules;
    EXPECT_TRUE(!reader.Ok() || !reader.Read(0, 47, molecules));
    EXPECT_EQ(reader.Error().rfind(truncated + ": ", 0), 0u) << reader.Error();
    EXPECT_NE(reader.Error().find("truncated"), std::string::npos) << reader.Error();
}

TEST(PreparedLibrary, DamagedChunkFailsItsChecksum) {
    TemporaryDirectory directory;
    const std::string path = directory.File("whole.h5");
    WriteLibrary(path, Cdk2());
    std::string bytes = ReadText(path);
    // Conformer 20's frame translation x is stored once, in conformers/frame.
    const std::vector<std::size_t> found = FindDouble(bytes, MarkerX + 20.0);
    ASSERT_EQ(found.size(), 1u);
    bytes[found[0] + 3] = static_cast<char>(bytes[found[0] + 3] ^ 0x10);
    const std::string damaged = directory.File("damaged.h5");
    WriteText(damaged, bytes);

    PreparedLibraryReader reader(damaged);
    ASSERT_TRUE(reader.Ok()) << reader.Error();  // the metadata are intact
    std::vector<LibraryMolecule> molecules;
    EXPECT_FALSE(reader.Read(0, 47, molecules));
    EXPECT_TRUE(molecules.empty());
    EXPECT_EQ(reader.Error().rfind(damaged + ": cannot read conformers/frame", 0), 0u)
        << reader.Error();
    EXPECT_NE(reader.Error().find("Fletcher32"), std::string::npos) << reader.Error();
    // The column is one chunk here, so any read of it meets the damage; the reader stays open.
    EXPECT_FALSE(reader.Read(20, 1, molecules));
    EXPECT_TRUE(reader.Ok());
}

TEST(PreparedLibrary, UncommittedWriterLeavesNothing) {
    TemporaryDirectory directory;
    const std::string path = directory.File("library.h5");
    {
        PreparedLibraryWriter writer(path, LibraryPreparation());
        ASSERT_TRUE(writer.Ok()) << writer.Error();
        ASSERT_TRUE(writer.Add(Cdk2()[0], {FrameFor(0)})) << writer.Error();
        EXPECT_EQ(directory.Entries().size(), 1u);  // the temporary file
        EXPECT_FALSE(FileExists(path));
    }
    EXPECT_TRUE(directory.Entries().empty());

    WriteText(path, "previous contents\n");
    {
        PreparedLibraryWriter writer(path, LibraryPreparation());
        ASSERT_TRUE(writer.Add(Cdk2()[0], {FrameFor(0)})) << writer.Error();
    }
    EXPECT_EQ(ReadText(path), "previous contents\n");
    EXPECT_EQ(directory.Entries(), std::vector<std::string>{"library.h5"});

    // A committed library replaces the previous file.
    WriteLibrary(path, Cdk2());
    EXPECT_TRUE(IsPreparedLibrary(path));
    EXPECT_EQ(directory.Entries(), std::vector<std::string>{"library.h5"});
}

TEST(PreparedLibrary, WriterRefusesWhatItCannotStore) {
    TemporaryDirectory directory;
    const std::string path = directory.File("library.h5");

    LibraryPreparation badCharges;
    badCharges.charges = "eem";
    PreparedLibraryWriter refused(path, badCharges);
    EXPECT_FALSE(refused.Ok());
    EXPECT_EQ(refused.Error().rfind(path + ": unknown charge source 'eem'", 0), 0u)
        << refused.Error();
    EXPECT_FALSE(refused.Commit());
    EXPECT_FALSE(FileExists(path));

    PreparedLibraryWriter unwritable(directory.File("missing/library.h5"), LibraryPreparation());
    EXPECT_FALSE(unwritable.Ok());
    EXPECT_NE(unwritable.Error().find("missing/library.h5"), std::string::npos);

    PreparedLibraryWriter writer(path, LibraryPreparation());
    ASSERT_TRUE(writer.Ok()) << writer.Error();
    EXPECT_FALSE(writer.Add(Cdk2()[0], {}));
    EXPECT_EQ(
        writer.Error().rfind(path + ": molecule 'ZINC03814457': 0 frames for 1 conformers", 0), 0u)
        << writer.Error();
    EXPECT_FALSE(writer.Add(Molecule{"nothing", {}}, {}));
    EXPECT_TRUE(writer.Ok());  // refused molecules leave the library as it was
    EXPECT_TRUE(writer.Add(Cdk2()[1], {FrameFor(0)})) << writer.Error();
    EXPECT_EQ(writer.Molecules(), 1u);
    ASSERT_TRUE(writer.Commit()) << writer.Error();

    PreparedLibraryReader reader(path);
    ASSERT_TRUE(reader.Ok()) << reader.Error();
    ASSERT_EQ(reader.NumMolecules(), 1u);
    ExpectLibraryEquals(ReadRange(reader, 0, 1), {Cdk2()[1]}, 0, 0);
}

TEST(PreparedLibrary, AtomOnlyConformers) {
    QVChem::QVMol mol;
    mol.SetTitle("atoms");
    mol.AddAtom(6, 0.123456789, -1.0 / 3.0, 2.0, -0.25);
    mol.AddAtom(8, 1.5, 0.0, std::nextafter(2.0, 3.0), NAN);
    const std::vector<Molecule> molecules = {Molecule{"atoms", {Conformer(mol)}}};
    TemporaryDirectory directory;
    const std::string path = directory.File("atoms.h5");
    WriteLibrary(path, molecules);
    PreparedLibraryReader reader(path);
    ASSERT_TRUE(reader.Ok()) << reader.Error();
    ExpectLibraryEquals(ReadRange(reader, 0, 1), molecules, 0, 0);
    Conformer loaded;
    ASSERT_TRUE(reader.LoadConformer(0, loaded)) << reader.Error();
    ExpectSameAtoms(mol, loaded.Mol());
    EXPECT_EQ(loaded.NumRecordAtoms(), 2u);
    EXPECT_EQ(FormatSdRecord(loaded), FormatSdRecord(molecules[0].conformers[0]));
}

TEST(PreparedLibrary, TwoReadersInTwoThreads) {
    TemporaryDirectory directory;
    const std::string path = directory.File("cdk2.h5");
    WriteLibrary(path, Cdk2());
    std::vector<std::vector<LibraryMolecule>> results(2);
    std::vector<std::string> errors(2);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 2; ++t) {
        threads.emplace_back([&, t] {
            PreparedLibraryReader reader(path);
            for (int pass = 0; pass < 20 && reader.Ok(); ++pass) {
                if (!reader.Read(0, 47, results[t])) {
                    break;
                }
                Conformer loaded;
                reader.LoadConformer(static_cast<std::size_t>(pass), loaded);
            }
            errors[t] = reader.Error();
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (std::size_t t = 0; t < 2; ++t) {
        EXPECT_TRUE(errors[t].empty()) << errors[t];
        ExpectLibraryEquals(results[t], Cdk2(), 0, 0);
    }
}

TEST(PreparedLibrary, RecognisedBySignatureWhateverTheName) {
    TemporaryDirectory directory;
    const std::string path = directory.File("library.sdf");
    WriteLibrary(path, Cdk2());
    EXPECT_TRUE(IsPreparedLibrary(path));
    EXPECT_FALSE(IsPreparedLibrary(Cdk2Path));
    const std::string empty = directory.File("empty.h5");
    WriteText(empty, "");
    EXPECT_FALSE(IsPreparedLibrary(empty));
}

}  // namespace
}  // namespace hermite::io
