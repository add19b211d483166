// Pharmacophore features: the default definitions on known drugs, feature positions, rigid
// motions, user definitions and malformed definition files.

#include <GraphMol/FileParsers/FileParsers.h>
#include <GraphMol/RWMol.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <thread>

#include "io/features.h"
#include "io/molecule_io.h"
#include "io_test_support.h"

namespace hermite::io {
namespace {

using testing::BzrPath;
using testing::Cdk2Path;
using testing::ReadText;
using testing::TemporaryDirectory;
using testing::WriteText;

const std::vector<std::string> DefaultFamilies = {"Donor", "Acceptor", "Cation",
                                                  "Anion", "Aromatic", "Hydrophobe"};

/// Features per default type: Donor, Acceptor, Cation, Anion, Aromatic, Hydrophobe.
using TypeCounts = std::array<int, 6>;

TypeCounts CountTypes(const std::vector<Feature>& features) {
    TypeCounts counts{};
    for (const Feature& feature : features) {
        counts.at(feature.type) += 1;
    }
    return counts;
}

std::string Show(const TypeCounts& counts) {
    std::string text;
    for (std::size_t type = 0; type < counts.size(); ++type) {
        text += DefaultFamilies[type] + " " + std::to_string(counts[type]) + "  ";
    }
    return text;
}

/// One embedded conformer (with hydrogens in its record) of each "SMILES name" line, by name.
std::map<std::string, Conformer> EmbedSmiles(const TemporaryDirectory& directory,
                                             const std::vector<std::string>& lines) {
    const std::string path = directory.File("molecules.smi");
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    WriteText(path, text);
    ReadOptions options;
    options.smilesConformers = 1;
    options.computeCharges = false;
    std::vector<Problem> problems;
    std::map<std::string, Conformer> conformers;
    for (const Molecule& molecule : ReadAll(path, options, &problems)) {
        conformers.emplace(molecule.title, molecule.conformers.at(0));
    }
    EXPECT_TRUE(problems.empty()) << problems.at(0).Message();
    EXPECT_EQ(conformers.size(), lines.size());
    return conformers;
}

Conformer EmbedOne(const TemporaryDirectory& directory, const std::string& smiles) {
    return EmbedSmiles(directory, {smiles + " molecule"}).at("molecule");
}

/// Every conformer of the SD file `path` (default reading: heavy atoms selected).
std::vector<Conformer> ReadConformers(const std::string& path) {
    std::vector<Conformer> conformers;
    ReadOptions options;
    options.computeCharges = false;
    for (const Molecule& molecule : ReadAll(path, options)) {
        conformers.insert(conformers.end(), molecule.conformers.begin(), molecule.conformers.end());
    }
    return conformers;
}

std::array<double, 3> AtomPosition(const Conformer& conformer, unsigned int atom) {
    std::array<double, 3> xyz;
    conformer.Mol().GetAtom(atom).GetCoords(xyz.data());
    return xyz;
}

double Distance(const Feature& feature, const std::array<double, 3>& point) {
    return std::hypot(feature.x - point[0], feature.y - point[1], feature.z - point[2]);
}

/// The message of the std::runtime_error that `action` throws ("" if it throws none).
std::string ErrorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "";
}

// ---------------------------------------------------------------------------------------------
// The default definitions

TEST(FeatureDefinitions, DefaultHasTheSixFamiliesInOrder) {
    const FeatureDefinitions& definitions = FeatureDefinitions::Default();
    EXPECT_EQ(definitions.Families(), DefaultFamilies);
    EXPECT_EQ(definitions.TypeOf("Donor"), 0u);
    EXPECT_EQ(definitions.TypeOf("Anion"), 3u);
    EXPECT_EQ(definitions.TypeOf("Hydrophobe"), 5u);
    EXPECT_FALSE(definitions.TypeOf("Halogen").has_value());
    EXPECT_EQ(&FeatureDefinitions::Default(), &definitions);
    const FeatureDefinitions byDefault;
    EXPECT_EQ(byDefault.Families(), DefaultFamilies);
    EXPECT_EQ(byDefault.Source(), "default feature definitions");
}

TEST(FeatureDefinitions, DefaultIsTheRepositoryFile) {
    EXPECT_EQ(FeatureDefinitions::DefaultText(), ReadText(HERMITE_DEFAULT_FDEF));
    EXPECT_EQ(FeatureDefinitions::Default().Text(), ReadText(HERMITE_DEFAULT_FDEF));
    EXPECT_EQ(FeatureDefinitions::FromFile(HERMITE_DEFAULT_FDEF).Families(), DefaultFamilies);
}

/// A molecule, and the features the default definitions give it (see docs/colour.md).
struct KnownCounts {
    std::string name;
    std::string smiles;
    TypeCounts expected;  // Donor, Acceptor, Cation, Anion, Aromatic, Hydrophobe
};

TEST(PerceiveFeatures, DefaultCountsOnKnownMolecules) {
    const std::vector<KnownCounts> molecules = {
        // Carboxylic acid: one anion, its OH no donor; four oxygens accept; no hydrophobe (the
        // acetyl methyl is next to a carbonyl).
        {"aspirin", "CC(=O)Oc1ccccc1C(=O)O", {0, 4, 0, 1, 1, 0}},
        // Isobutyl lumped (CH and two methyls) + benzylic CH2 + alpha methyl.
        {"ibuprofen", "CC(C)Cc1ccc(cc1)C(C)C(=O)O", {0, 2, 0, 1, 1, 2}},
        // Tertiary amine: a cation and no acceptor; the ether oxygen accepts.
        {"diphenhydramine", "CN(C)CCOC(c1ccccc1)c1ccccc1", {0, 1, 1, 0, 2, 0}},
        // Guanidine and alpha amine: two cations; donors NH2, NH, =NH, NH2 (guanidine).
        {"arginine", "N[C@@H](CCCNC(=N)N)C(=O)O", {4, 2, 2, 1, 0, 0}},
        // Two amidines; the three inner CH2 of the pentyl chain are hydrophobes.
        {"pentamidine", "NC(=N)c1ccc(OCCCCCOc2ccc(C(N)=N)cc2)cc1", {4, 2, 2, 0, 2, 0}},
        {"benzamidine", "NC(=N)c1ccccc1", {2, 0, 1, 0, 1, 0}},
        // Biguanide: one guanidine unit qualifies (the other has a doubly bonded inner N).
        {"metformin", "CN(C)C(=N)N=C(N)N", {3, 0, 1, 0, 0, 0}},
        // Tetrazole: anion and aromatic ring; its NH is no donor, its three n accept.
        {"phenyltetrazole", "c1ccccc1-c1nn[nH]n1", {0, 3, 0, 1, 2, 0}},
        {"methyltetrazole", "c1ccccc1-c1nnnn1C", {0, 3, 0, 0, 2, 0}},
        {"mesylic acid", "CS(=O)(=O)O", {0, 3, 0, 1, 0, 0}},
        {"methylphosphonic acid", "CP(=O)(O)O", {0, 3, 0, 1, 0, 0}},
        {"tetramethylammonium", "C[N+](C)(C)C", {0, 0, 1, 0, 0, 0}},
        {"acetamide", "CC(N)=O", {1, 1, 0, 0, 0, 0}},
        {"aniline", "Nc1ccccc1", {1, 0, 0, 0, 1, 0}},
        {"pyridine", "c1ccncc1", {0, 1, 0, 0, 1, 0}},
        {"nitrobenzene", "O=[N+]([O-])c1ccccc1", {0, 0, 0, 0, 1, 0}},
        {"naphthalene", "c1ccc2ccccc2c1", {0, 0, 0, 0, 2, 0}},
        {"indole", "c1ccc2[nH]ccc2c1", {1, 0, 0, 0, 2, 0}},
        {"tert-butylbenzene", "CC(C)(C)c1ccccc1", {0, 0, 0, 0, 1, 1}},
        {"trifluorotoluene", "FC(F)(F)c1ccccc1", {0, 0, 0, 0, 1, 1}},
        {"chlorobenzene", "Clc1ccccc1", {0, 0, 0, 0, 1, 1}},
        {"cyclohexanol", "OC1CCCCC1", {1, 1, 0, 0, 0, 1}},
        // Cyanoguanidine is not basic: no cation; imidazole NH and two NH donate.
        {"cimetidine", "Cc1[nH]cnc1CSCCNC(=NC#N)NC", {3, 2, 0, 0, 1, 2}},
    };
    TemporaryDirectory directory;
    std::vector<std::string> lines;
    for (const KnownCounts& molecule : molecules) {
        lines.push_back(molecule.smiles + " " + molecule.name);
    }
    const std::map<std::string, Conformer> conformers = EmbedSmiles(directory, lines);
    for (const KnownCounts& molecule : molecules) {
        const std::vector<Feature> features =
            PerceiveFeatures(conformers.at(molecule.name), FeatureDefinitions::Default());
        EXPECT_EQ(Show(CountTypes(features)), Show(molecule.expected)) << molecule.name;
        for (const Feature& feature : features) {
            EXPECT_EQ(feature.family, DefaultFamilies.at(feature.type));
        }
    }
}

TEST(PerceiveFeatures, SameFeaturesWithAndWithoutHydrogenAtoms) {
    TemporaryDirectory directory;
    const std::map<std::string, Conformer> conformers = EmbedSmiles(
        directory, {"N[C@@H](CCCNC(=N)N)C(=O)O arginine", "CC(C)Cc1ccc(cc1)C(C)C(=O)O ibuprofen",
                    "Cc1[nH]cnc1CSCCNC(=NC#N)NC cimetidine"});
    for (const auto& [name, withHydrogens] : conformers) {
        ASSERT_GT(withHydrogens.NumRecordAtoms(), withHydrogens.Mol().NumAtoms());
        // The same record written without its hydrogen atoms.
        std::unique_ptr<RDKit::RWMol> heavy(RDKit::MolBlockToMol(
            FormatPosedMolBlock(withHydrogens, QVChem::QVTrans()), true, true));
        ASSERT_NE(heavy, nullptr);
        const std::string path = directory.File(name + ".sdf");
        WriteText(path, RDKit::MolToMolBlock(*heavy) + "$$$$\n");
        const std::vector<Conformer> read = ReadConformers(path);
        ASSERT_EQ(read.size(), 1u);
        ASSERT_EQ(read[0].NumRecordAtoms(), withHydrogens.Mol().NumAtoms());

        const std::vector<Feature> expected =
            PerceiveFeatures(withHydrogens, FeatureDefinitions::Default());
        const std::vector<Feature> actual =
            PerceiveFeatures(read[0], FeatureDefinitions::Default());
        ASSERT_EQ(actual.size(), expected.size()) << name;
        for (std::size_t f = 0; f < expected.size(); ++f) {
            EXPECT_EQ(actual[f].type, expected[f].type) << name;
            EXPECT_EQ(actual[f].atoms, expected[f].atoms) << name;
            // Molfile coordinates have four decimals.
            EXPECT_LT(std::hypot(actual[f].x - expected[f].x, actual[f].y - expected[f].y,
                                 actual[f].z - expected[f].z),
                      1e-4)
                << name;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Positions

TEST(PerceiveFeatures, PositionsAreCentroidsOfTheirGroups) {
    TemporaryDirectory directory;
    // Heavy atoms in SMILES order: 0 C, 1 C, 2 =O, 3 O, 4-9 ring, 10 C, 11 =O, 12 OH.
    const Conformer aspirin = EmbedOne(directory, "CC(=O)Oc1ccccc1C(=O)O");
    ASSERT_EQ(aspirin.Mol().NumAtoms(), 13u);
    const std::vector<Feature> features = PerceiveFeatures(aspirin, FeatureDefinitions::Default());

    std::array<double, 3> ring{0.0, 0.0, 0.0};
    for (unsigned int atom = 4; atom <= 9; ++atom) {
        for (int axis = 0; axis < 3; ++axis) {
            ring[axis] += AtomPosition(aspirin, atom)[axis] / 6.0;
        }
    }
    std::array<double, 3> oxygens{0.0, 0.0, 0.0};
    for (unsigned int atom : {11u, 12u}) {
        for (int axis = 0; axis < 3; ++axis) {
            oxygens[axis] += AtomPosition(aspirin, atom)[axis] / 2.0;
        }
    }
    int aromatic = 0;
    int anion = 0;
    for (const Feature& feature : features) {
        if (feature.family == "Aromatic") {
            ++aromatic;
            EXPECT_LT(Distance(feature, ring), 1e-6);
            std::vector<unsigned int> atoms = feature.atoms;
            std::sort(atoms.begin(), atoms.end());
            EXPECT_EQ(atoms, (std::vector<unsigned int>{4, 5, 6, 7, 8, 9}));
        } else if (feature.family == "Anion") {
            ++anion;
            EXPECT_LT(Distance(feature, oxygens), 1e-6);
        } else if (feature.family == "Acceptor") {
            // One-atom features sit on their atom.
            ASSERT_EQ(feature.atoms.size(), 1u);
            EXPECT_LT(Distance(feature, AtomPosition(aspirin, feature.atoms[0])), 1e-12);
        }
    }
    EXPECT_EQ(aromatic, 1);
    EXPECT_EQ(anion, 1);
}

TEST(PerceiveFeatures, FeaturesFollowARigidMotionOfTheRecord) {
    TemporaryDirectory directory;
    const Conformer original = EmbedOne(directory, "N[C@@H](CCCNC(=N)N)C(=O)O");
    const QVChem::QVTrans pose =
        testing::AxisAngleMotion({2.0, -1.0, 2.0}, 110.0 * M_PI / 180.0, {-4.5, 10.25, 7.0});
    const std::string path = directory.File("moved.sdf");
    WriteText(path, FormatSdRecord(original, pose));
    const std::vector<Conformer> moved = ReadConformers(path);
    ASSERT_EQ(moved.size(), 1u);

    const std::vector<Feature> before = PerceiveFeatures(original, FeatureDefinitions::Default());
    const std::vector<Feature> after = PerceiveFeatures(moved[0], FeatureDefinitions::Default());
    ASSERT_EQ(before.size(), 9u);
    ASSERT_EQ(after.size(), before.size());
    double largestMove = 0.0;
    for (std::size_t f = 0; f < before.size(); ++f) {
        EXPECT_EQ(after[f].type, before[f].type);
        EXPECT_EQ(after[f].atoms, before[f].atoms);
        std::array<double, 3> expected{before[f].x, before[f].y, before[f].z};
        pose.Apply(expected.data());
        // Molfile coordinates have four decimals.
        EXPECT_LT(Distance(after[f], expected), 1e-4);
        largestMove =
            std::max(largestMove, std::hypot(after[f].x - before[f].x, after[f].y - before[f].y,
                                             after[f].z - before[f].z));
    }
    EXPECT_GT(largestMove, 5.0);
}

TEST(PerceiveFeatures, ConformerWithoutRecordHasNoFeatures) {
    QVChem::QVMol mol;
    mol.AddAtom(8, 0.0, 0.0, 0.0, 0.0);
    mol.AddAtom(6, 1.2, 0.0, 0.0, 0.0);
    const Conformer atomsOnly(mol);
    ASSERT_FALSE(atomsOnly.HasRecord());
    EXPECT_TRUE(PerceiveFeatures(atomsOnly, FeatureDefinitions::Default()).empty());
    EXPECT_TRUE(PerceiveFeatures(Conformer(), FeatureDefinitions::Default()).empty());
}

TEST(PerceiveFeatures, ConcurrentPerceptionMatchesSerial) {
    const std::vector<Conformer> conformers = ReadConformers(Cdk2Path);
    ASSERT_EQ(conformers.size(), 47u);
    const FeatureDefinitions& definitions = FeatureDefinitions::Default();
    std::vector<std::vector<Feature>> serial;
    for (const Conformer& conformer : conformers) {
        serial.push_back(PerceiveFeatures(conformer, definitions));
    }
    const unsigned int numThreads = 4;
    std::vector<std::vector<std::vector<Feature>>> parallel(numThreads);
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < numThreads; ++t) {
        threads.emplace_back([&, t] {
            // Every thread perceives every conformer, so the records are shared.
            for (const Conformer& conformer : conformers) {
                parallel[t].push_back(PerceiveFeatures(conformer, definitions));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (unsigned int t = 0; t < numThreads; ++t) {
        ASSERT_EQ(parallel[t].size(), serial.size());
        for (std::size_t c = 0; c < serial.size(); ++c) {
            ASSERT_EQ(parallel[t][c].size(), serial[c].size());
            for (std::size_t f = 0; f < serial[c].size(); ++f) {
                EXPECT_EQ(parallel[t][c][f].type, serial[c][f].type);
                EXPECT_EQ(parallel[t][c][f].atoms, serial[c][f].atoms);
                EXPECT_EQ(parallel[t][c][f].x, serial[c][f].x);
            }
        }
    }
}

TEST(PerceiveFeatures, DataSetTotalsMatchRDKitsPythonFactory) {
    // Totals per type over the records of the two RDKit data sets, as RDKit's Python feature
    // factory counts them with data/colour_features.fdef (cdk2 records carry hydrogen atoms,
    // bzr records do not).
    const std::vector<std::pair<std::string, TypeCounts>> sets = {
        {Cdk2Path, {123, 190, 7, 2, 124, 37}},
        {BzrPath, {88, 434, 13, 3, 365, 257}},
    };
    for (const auto& [path, expected] : sets) {
        TypeCounts totals{};
        for (const Conformer& conformer : ReadConformers(path)) {
            const TypeCounts counts =
                CountTypes(PerceiveFeatures(conformer, FeatureDefinitions::Default()));
            for (std::size_t type = 0; type < totals.size(); ++type) {
                totals[type] += counts[type];
            }
        }
        EXPECT_EQ(Show(totals), Show(expected)) << path;
    }
}

// ---------------------------------------------------------------------------------------------
// User definitions

const char* const HalogenDefinitions =
    "# Halogens on carbon, nothing else.\n"
    "AtomType CarbonHalogen [F,Cl,Br,I;$(*-[#6])]\n"
    "DefineFeature Halogen [{CarbonHalogen}]\n"
    "  Family Halogen\n"
    "  Weights 1\n"
    "EndFeature\n";

TEST(FeatureDefinitions, UserFileReplacesTheDefaultFamilies) {
    TemporaryDirectory directory;
    const std::string path = directory.File("halogen.fdef");
    WriteText(path, HalogenDefinitions);
    const FeatureDefinitions definitions = FeatureDefinitions::FromFile(path);
    EXPECT_EQ(definitions.Families(), std::vector<std::string>{"Halogen"});
    EXPECT_EQ(definitions.Source(), path);
    EXPECT_EQ(definitions.Text(), HalogenDefinitions);

    // Heavy atoms: 0 F, 1-3 ring, 4 C(Cl), 5 Cl, 6-7 ring, 8 C(=O), 9 =O, 10 OH.
    const Conformer molecule = EmbedOne(directory, "Fc1ccc(Cl)cc1C(=O)O");
    const std::vector<Feature> features = PerceiveFeatures(molecule, definitions);
    ASSERT_EQ(features.size(), 2u);
    for (const Feature& feature : features) {
        EXPECT_EQ(feature.family, "Halogen");
        EXPECT_EQ(feature.type, 0u);
    }
    EXPECT_EQ(features[0].atoms, std::vector<unsigned int>{0});
    EXPECT_EQ(features[1].atoms, std::vector<unsigned int>{5});
    EXPECT_LT(Distance(features[0], AtomPosition(molecule, 0)), 1e-12);
    EXPECT_LT(Distance(features[1], AtomPosition(molecule, 5)), 1e-12);
    // The default definitions see other things in the same molecule.
    EXPECT_EQ(Show(CountTypes(PerceiveFeatures(molecule, FeatureDefinitions::Default()))),
              Show({0, 2, 0, 1, 1, 2}));
}

TEST(FeatureDefinitions, TextWithoutFinalLineBreakKeepsItsLastLine) {
    std::string text = HalogenDefinitions;
    text.pop_back();
    text += "\nAtomType Unused [#6]";
    EXPECT_EQ(FeatureDefinitions::FromText(text).Families(), std::vector<std::string>{"Halogen"});
}

TEST(FeatureDefinitions, FeatureWithoutWeightsSitsAtItsCentroid) {
    const FeatureDefinitions definitions = FeatureDefinitions::FromText(
        "DefineFeature Carbonyl C=O\n"
        "  Family Carbonyl\n"
        "EndFeature\n");
    TemporaryDirectory directory;
    const Conformer acetone = EmbedOne(directory, "CC(=O)C");
    const std::vector<Feature> features = PerceiveFeatures(acetone, definitions);
    ASSERT_EQ(features.size(), 1u);
    std::array<double, 3> middle{};
    for (int axis = 0; axis < 3; ++axis) {
        middle[axis] = (AtomPosition(acetone, 1)[axis] + AtomPosition(acetone, 2)[axis]) / 2.0;
    }
    EXPECT_LT(Distance(features[0], middle), 1e-12);
}

TEST(FeatureDefinitions, MalformedFilesAreErrorsNamingTheFile) {
    TemporaryDirectory directory;
    const std::vector<std::pair<std::string, std::string>> cases = {
        // text, a part of the expected message after the file name
        {"DefineFeature Broken [C\n  Family X\nEndFeature\n", ": line 1: invalid SMARTS"},
        {"DefineFeature Open [Cl]\n  Family X\n  Weights 1\n", "could not find EndFeature"},
        {"DefineFeature NoFamily [Cl]\n  Weights 1\nEndFeature\n", "did not find Family"},
        {"AtomType X [Cl]\nDefinefeatur Y [{X}]\n", ": line 2: bad or missing keyword"},
        {"DefineFeature Pair ClC\n  Family X\n  Weights 1,2,3\nEndFeature\n",
         "invalid feature definitions: pattern->getNumAtoms() != len(feature weight vector)"},
        {"DefineFeature Pair ClC\n  Family X\n  Weights 1,x\nEndFeature\n", "bad weight value"},
        {"DefineFeature Pair ClC\n  Family X\n  Weights 1,-1\nEndFeature\n", "sum to zero"},
        // RDKit's reader would abort the process on a line without a word.
        {"AtomType X [Cl]\n  ]\n", ": line 2: no keyword: \"]\""},
        {"DefineFeature A [Cl]\n  Family X\n  ]\nEndFeature\n", ": line 3: no keyword"},
        {"# nothing\n", "no feature is defined"},
        {"", "no feature is defined"},
    };
    for (std::size_t c = 0; c < cases.size(); ++c) {
        const std::string path = directory.File("bad" + std::to_string(c) + ".fdef");
        WriteText(path, cases[c].first);
        const std::string message = ErrorOf([&] { FeatureDefinitions::FromFile(path); });
        EXPECT_EQ(message.rfind(path + ": ", 0), 0u) << message;
        EXPECT_NE(message.find(cases[c].second), std::string::npos) << message;
    }
    const std::string folder = directory.File("folder.fdef");
    std::filesystem::create_directory(folder);
    EXPECT_EQ(ErrorOf([&] { FeatureDefinitions::FromFile(folder); }),
              folder + ": cannot read file: Is a directory");
    const std::string missing = directory.File("missing.fdef");
    EXPECT_EQ(ErrorOf([&] { FeatureDefinitions::FromFile(missing); }),
              missing + ": cannot open file: No such file or directory");
    EXPECT_EQ(ErrorOf([&] { FeatureDefinitions::FromText("Family X\n", "inline"); }),
              "inline: line 1: bad or missing keyword: \"Family X\"");
}

}  // namespace
}  // namespace hermite::io
