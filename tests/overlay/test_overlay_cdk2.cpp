// The overlay driver on real ligands: the 47 CDK2 inhibitors with hydrogens shipped in Debian's
// rdkit-data. A ligand overlaid onto a rigidly moved copy of itself must come back to where it
// was, and the scores of a pair must not depend on where either molecule lies.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "cdk2_ligands.h"
#include "hermite/hermite.h"
#include "io/features.h"
#include "io/molecule_io.h"
#include "overlay/overlay.h"

namespace {

using hermite::overlay::Query;
using hermite::overlay::Result;
using hermite::overlay::Rmsd;
using hermite::overlay::Settings;
using hermite::overlay::TransformMolecule;
using QVChem::QVMol;
using QVChem::QVTrans;

/// A random rigid motion: a uniformly random rotation (from a normalised quaternion of normal
/// deviates) and a translation of up to 10 angstrom per axis. Drawn from the raw engine output,
/// so that every platform draws the same motions.
QVTrans RandomMotion(std::mt19937_64& engine) {
    const auto uniform = [&engine] {
        return (static_cast<double>(engine() >> 11) + 0.5) / 9007199254740992.0;
    };
    double q[4];
    for (int i = 0; i < 4; i += 2) {
        const double radius = std::sqrt(-2.0 * std::log(uniform()));
        const double angle = 2.0 * 3.141592653589793 * uniform();
        q[i] = radius * std::cos(angle);
        q[i + 1] = radius * std::sin(angle);
    }
    const double norm = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    const double w = q[0] / norm, x = q[1] / norm, y = q[2] / norm, z = q[3] / norm;
    const double rotation[9] = {
        1 - 2 * (y * y + z * z), 2 * (x * y - w * z),     2 * (x * z + w * y),
        2 * (x * y + w * z),     1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
        2 * (x * z - w * y),     2 * (y * z + w * x),     1 - 2 * (x * x + y * y)};
    const double translation[3] = {20.0 * (uniform() - 0.5), 20.0 * (uniform() - 0.5),
                                   20.0 * (uniform() - 0.5)};
    return QVTrans(rotation, translation);
}

QVMol Moved(const QVMol& molecule, const QVTrans& motion) {
    QVMol moved = molecule;
    TransformMolecule(moved, motion);
    return moved;
}

TEST(OverlayCdk2Test, ReadsAllLigands) {
    ASSERT_EQ(hermite_test::Cdk2Ligands().size(), 47u);
}

/// Each ligand overlaid onto itself after 10 random rigid motions: the exact shape Tanimoto is
/// at least 0.99 and the fit's atoms return to within 0.1 angstrom RMSD every time.
TEST(OverlayCdk2Test, SelfOverlayRecoversRandomMotions) {
    std::mt19937_64 engine(2024);
    const Settings settings;
    for (std::size_t i = 0; i < hermite_test::Cdk2Ligands().size(); ++i) {
        const QVMol& ligand = hermite_test::Cdk2Ligands()[i];
        const Query query(ligand, settings);
        for (int trial = 0; trial < 10; ++trial) {
            const QVMol moved = Moved(ligand, RandomMotion(engine));
            const Result result = query.Overlay(moved);
            EXPECT_GE(result.scores.shapeTanimoto, 0.99) << "ligand " << i << " trial " << trial;
            EXPECT_LT(Rmsd(Moved(moved, result.transform), ligand), 0.1)
                << "ligand " << i << " trial " << trial;
        }
    }
}

/// Moving the query or the database molecule rigidly changes neither the scores nor the pose
/// of the fit relative to the query.
TEST(OverlayCdk2Test, ScoresAreInvariantUnderRigidMotions) {
    std::mt19937_64 engine(77);
    const Settings settings;
    for (const auto& [q, f] : std::vector<std::pair<int, int>>{{0, 1}, {3, 17}, {25, 40}}) {
        const QVMol& queryLigand = hermite_test::Cdk2Ligands()[q];
        const QVMol& fitLigand = hermite_test::Cdk2Ligands()[f];
        const Result reference = Query(queryLigand, settings).Overlay(fitLigand);
        const QVMol referencePose = Moved(fitLigand, reference.transform);

        const QVTrans queryMotion = RandomMotion(engine);
        const QVTrans fitMotion = RandomMotion(engine);
        const Result moved =
            Query(Moved(queryLigand, queryMotion), settings).Overlay(Moved(fitLigand, fitMotion));
        // Float centres and a different optimisation path: agreement to the optimiser's
        // tolerance, far below any meaningful difference of scores.
        EXPECT_NEAR(moved.scores.shapeTanimoto, reference.scores.shapeTanimoto, 1e-3);
        EXPECT_NEAR(moved.scores.hermiteTanimoto, reference.scores.hermiteTanimoto, 1e-3);
        // The fit lands in the same place relative to the query: bring it back into the
        // reference frame with the inverse of the query's motion.
        const QVMol movedPose =
            Moved(Moved(Moved(fitLigand, fitMotion), moved.transform), queryMotion.Inverse());
        EXPECT_LT(Rmsd(movedPose, referencePose), 0.1);
    }
}

/// The colour features of the first conformer of every CDK2 ligand, in the ligand's input
/// coordinates, with the default definitions.
std::vector<hermite::overlay::ColourFeatures> Cdk2Features() {
    hermite::io::ReadOptions options;
    options.features =
        std::make_shared<hermite::io::FeatureDefinitions>(hermite::io::FeatureDefinitions());
    std::vector<hermite::overlay::ColourFeatures> all;
    for (const hermite::io::Molecule& molecule :
         hermite::io::ReadAll(hermite_test::kCdk2Path, options)) {
        hermite::overlay::ColourFeatures features;
        for (const hermite::io::Feature& f : molecule.conformers.front().Features()) {
            features.push_back({f.type, {f.x, f.y, f.z}});
        }
        all.push_back(features);
    }
    return all;
}

hermite::overlay::ColourFeatures MovedFeatures(hermite::overlay::ColourFeatures features,
                                               const QVTrans& motion) {
    for (hermite::overlay::ColourFeature& feature : features) {
        motion.Apply(feature.position);
    }
    return features;
}

/// Whichever molecule of a pair is the query, the search turns the smaller and moves the
/// larger, so that the two overlays of a pair are one: the same scores (to the rounding of the
/// input coordinates and the refinement's tolerance) and transforms inverse to each other, with the
/// shape alone and with colour, whatever the input poses.
TEST(OverlayCdk2Test, OverlaysAreTheSameWhicheverMoleculeIsTheQuery) {
    const std::vector<QVMol>& ligands = hermite_test::Cdk2Ligands();
    const std::vector<hermite::overlay::ColourFeatures> features = Cdk2Features();
    Settings colour;
    colour.colour = true;
    Settings large;  // every ligand counts as large: the pairs are searched at the large lambda
    large.largeLambdaAtoms = 1;
    std::mt19937_64 engine(11);
    for (const Settings& settings : {Settings(), colour, large}) {
        for (std::size_t q = 0; q < 8; ++q) {
            for (std::size_t f = q + 1; f < 8; ++f) {
                const QVTrans motion = RandomMotion(engine);
                const QVMol movedFit = Moved(ligands[f], motion);
                const Result forward = Query(ligands[q], settings, features[q])
                                           .Overlay(movedFit, MovedFeatures(features[f], motion));
                const Result backward =
                    Query(movedFit, settings, MovedFeatures(features[f], motion))
                        .Overlay(ligands[q], features[q]);
                EXPECT_NEAR(forward.scores.shapeTanimoto, backward.scores.shapeTanimoto, 1e-4)
                    << q << ", " << f;
                EXPECT_NEAR(forward.scores.colourTanimoto, backward.scores.colourTanimoto, 1e-4)
                    << q << ", " << f;
                // The backward transform takes the fit placed by the forward one back.
                const QVMol placed = Moved(movedFit, forward.transform);
                EXPECT_LT(Rmsd(Moved(placed, backward.transform), movedFit), 1e-3)
                    << q << ", " << f;
            }
        }
    }
}

/// A pair of large molecules is overlaid and scored as with the large lambda and the large
/// pairs' search for every pair; a pair with a smaller molecule, or one overlaid with colour, as
/// with one lambda for all.
TEST(OverlayCdk2Test, OnlyPairsOfLargeMoleculesTakeTheLargeLambdaAndSearch) {
    const std::vector<QVMol>& ligands = hermite_test::Cdk2Ligands();
    const std::vector<hermite::overlay::ColourFeatures> features = Cdk2Features();
    Settings oneLambda;
    oneLambda.largeLambda = 0.0;
    // A pair of large molecules is searched as every pair would be with the large lambda and
    // the large pairs' rotations, searches and refined poses.
    Settings atLargeLambda = oneLambda;
    atLargeLambda.lambda = Settings().largeLambda;
    atLargeLambda.scanRotations = Settings().largeScanRotations;
    atLargeLambda.searchStarts = Settings().largeSearchStarts;
    atLargeLambda.refineCandidates = Settings().largeRefineCandidates;
    bool lambdaMatters = false;
    for (std::size_t q = 0; q < 3; ++q) {
        for (std::size_t f = 10; f < 13; ++f) {
            const std::size_t querySize = Query(ligands[q], oneLambda).Prepared().shape.size();
            const std::size_t fitSize = Query(ligands[f], oneLambda).Prepared().shape.size();
            Settings bothLarge;
            bothLarge.largeLambdaAtoms = static_cast<unsigned int>(std::min(querySize, fitSize));
            const Result large = Query(ligands[q], bothLarge).Overlay(ligands[f]);
            const Result reference = Query(ligands[q], atLargeLambda).Overlay(ligands[f]);
            EXPECT_EQ(large.scores.shapeTanimoto, reference.scores.shapeTanimoto) << q << ", " << f;
            EXPECT_EQ(large.scores.hermiteTanimoto, reference.scores.hermiteTanimoto)
                << q << ", " << f;
            EXPECT_EQ(Query(ligands[q], bothLarge).Score(ligands[f]).scores.hermiteTanimoto,
                      Query(ligands[q], atLargeLambda).Score(ligands[f]).scores.hermiteTanimoto)
                << q << ", " << f;

            const Result plain = Query(ligands[q], oneLambda).Overlay(ligands[f]);
            lambdaMatters |= plain.scores.hermiteTanimoto != large.scores.hermiteTanimoto;
            Settings oneLarge;  // only the larger molecule of the pair is large
            oneLarge.largeLambdaAtoms = static_cast<unsigned int>(std::max(querySize, fitSize));
            if (querySize != fitSize) {
                EXPECT_EQ(Query(ligands[q], oneLarge).Overlay(ligands[f]).scores.hermiteTanimoto,
                          plain.scores.hermiteTanimoto)
                    << q << ", " << f;
            }
            Settings colour = bothLarge;
            colour.colour = true;
            Settings colourOneLambda = oneLambda;
            colourOneLambda.colour = true;
            EXPECT_EQ(Query(ligands[q], colour, features[q])
                          .Overlay(ligands[f], features[f])
                          .scores.hermiteTanimoto,
                      Query(ligands[q], colourOneLambda, features[q])
                          .Overlay(ligands[f], features[f])
                          .scores.hermiteTanimoto)
                << q << ", " << f;
        }
    }
    EXPECT_TRUE(lambdaMatters);
}

// A query makes each lambda's search channel when a fit first needs it: whichever kind of
// fit comes first, one query overlays both kinds as fresh queries do.
TEST(OverlayCdk2Test, OneQueryServesLargeAndSmallFitsInEitherOrder) {
    const std::vector<QVMol>& ligands = hermite_test::Cdk2Ligands();
    // The median-sized of the first ligands is the query, and the large molecules are those at
    // least its size: a larger fit and a smaller one.
    std::vector<std::pair<std::size_t, std::size_t>> sized;  // (atoms, ligand)
    for (std::size_t i = 0; i < 9; ++i) {
        sized.emplace_back(Query(ligands[i], Settings()).Prepared().shape.size(), i);
    }
    std::sort(sized.begin(), sized.end());
    ASSERT_LT(sized.front().first, sized[4].first);
    ASSERT_LT(sized[4].first, sized.back().first);
    Settings settings;
    settings.largeLambdaAtoms = static_cast<unsigned int>(sized[4].first);
    const QVMol& query = ligands[sized[4].second];
    const QVMol* fits[2] = {&ligands[sized.back().second], &ligands[sized.front().second]};
    double fresh[2];
    for (int k = 0; k < 2; ++k) {
        fresh[k] = Query(query, settings).Overlay(*fits[k]).scores.shapeTanimoto;
    }
    for (int first = 0; first < 2; ++first) {
        const Query shared(query, settings);
        const double a = shared.Overlay(*fits[first]).scores.shapeTanimoto;
        const double b = shared.Overlay(*fits[1 - first]).scores.shapeTanimoto;
        EXPECT_EQ(a, fresh[first]) << first;
        EXPECT_EQ(b, fresh[1 - first]) << first;
    }
    // The large fit was searched at the large lambda: with one lambda it ends elsewhere.
    Settings oneLambda = settings;
    oneLambda.largeLambda = 0.0;
    EXPECT_NE(Query(query, oneLambda).Overlay(*fits[0]).scores.hermiteTanimoto,
              Query(query, settings).Overlay(*fits[0]).scores.hermiteTanimoto);
}

/// Scoring in place gives the exact scores of the input pose: a ligand against itself scores 1,
/// and a pose found by the overlay scores what the overlay reported.
TEST(OverlayCdk2Test, ScoreInPlaceMatchesTheOverlay) {
    const Settings settings;
    const Query query(hermite_test::Cdk2Ligands()[5], settings);
    EXPECT_NEAR(query.Score(hermite_test::Cdk2Ligands()[5]).scores.shapeTanimoto, 1.0, 1e-12);
    const Result overlay = query.Overlay(hermite_test::Cdk2Ligands()[9]);
    const Result inPlace = query.Score(Moved(hermite_test::Cdk2Ligands()[9], overlay.transform));
    EXPECT_NEAR(inPlace.scores.shapeTanimoto, overlay.scores.shapeTanimoto, 1e-6);
    EXPECT_NEAR(inPlace.scores.overlap, overlay.scores.overlap, 1e-6 * overlay.scores.overlap);
}

/// Refining more of the candidate poses never loses the pose refined alone: that candidate is
/// among those refined, and the others, which stop as soon as they cannot beat the best so far,
/// are kept only when they do.
TEST(OverlayCdk2Test, MoreRefinedPosesNeverScoreLower) {
    Settings one;
    one.refineCandidates = 1;
    Settings three;
    three.refineCandidates = 3;
    const std::vector<QVMol>& ligands = hermite_test::Cdk2Ligands();
    unsigned int improved = 0;
    for (std::size_t q = 0; q < 6; ++q) {
        const Query alone(ligands[q], one), more(ligands[q], three);
        for (std::size_t f = 10; f < 15; ++f) {
            const Result first = alone.Overlay(ligands[f]);
            const Result best = more.Overlay(ligands[f]);
            EXPECT_GE(best.scores.overlap, first.scores.overlap * (1.0 - 1e-6)) << q << ", " << f;
            improved += best.scores.overlap > first.scores.overlap * (1.0 + 1e-6) ? 1 : 0;
            EXPECT_EQ(best.hermiteEvaluations, first.hermiteEvaluations) << q << ", " << f;
        }
    }
    EXPECT_GT(improved, 0u);  // the later candidates do win some pairs
}

}  // namespace

namespace {

/// `mol` translated by `shift` (double precision).
QVMol Translated(const QVMol& mol, const double* shift) {
    const double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    QVMol moved = mol;
    TransformMolecule(moved, QVTrans(identity, shift));
    return moved;
}

TEST(OverlayFarFromTheOrigin, ScoresDoNotDependOnTranslationsUpToAMillionAngstrom) {
    const QVMol& query = hermite_test::Cdk2Ligands()[0];
    const QVMol& fit = hermite_test::Cdk2Ligands()[7];
    Settings settings;
    settings.electrostatics = true;
    const Result near = Query(query, settings).Overlay(fit);
    const Result nearSelf = Query(query, settings).Score(query);
    for (const double distance : {1e3, 1e6}) {
        const double queryShift[3] = {0.6 * distance, -0.48 * distance, 0.64 * distance};
        const double fitShift[3] = {-0.8 * distance, 0.36 * distance, 0.48 * distance};
        const QVMol farQuery = Translated(query, queryShift);
        const Query prepared(farQuery, settings);
        const Result far = prepared.Overlay(Translated(fit, fitShift));
        EXPECT_NEAR(far.scores.shapeTanimoto, near.scores.shapeTanimoto, 1e-6) << distance;
        EXPECT_NEAR(far.scores.shapeTverskyQuery, near.scores.shapeTverskyQuery, 1e-6);
        EXPECT_NEAR(far.scores.electrostaticTanimoto, near.scores.electrostaticTanimoto, 1e-6);
        EXPECT_NEAR(far.scores.overlap / near.scores.overlap, 1.0, 1e-6);
        // A molecule against itself, in place, far away.
        const Result self = prepared.Score(farQuery);
        EXPECT_NEAR(self.scores.shapeTanimoto, 1.0, 1e-6) << distance;
        EXPECT_NEAR(self.scores.shapeTanimoto, nearSelf.scores.shapeTanimoto, 1e-6);
    }
}

TEST(OverlayFarFromTheOrigin, AtomsThatAreNotOneCloudAreNamed) {
    QVMol mol = hermite_test::Cdk2Ligands()[3];
    EXPECT_EQ(hermite::overlay::CloudProblem(mol), "");
    double p[3];
    mol.GetAtom(4).GetCoords(p);
    mol.GetAtom(4).SetCoords(p[0] + 100.0, p[1], p[2]);
    const std::string problem = hermite::overlay::CloudProblem(mol);
    EXPECT_NE(problem.find("its atoms are not one cloud: 1 of"), std::string::npos) << problem;
    EXPECT_NE(problem.find("(atom 5)"), std::string::npos) << problem;
    // Two halves 50 angstrom apart are two clouds too, though every atom has close neighbours.
    QVMol halves = hermite_test::Cdk2Ligands()[3];
    for (unsigned int i = halves.NumAtoms() / 2; i < halves.NumAtoms(); ++i) {
        halves.GetAtom(i).GetCoords(p);
        halves.GetAtom(i).SetCoords(p[0], p[1] + 50.0, p[2]);
    }
    EXPECT_NE(hermite::overlay::CloudProblem(halves), "");
}

TEST(OverlayFarFromTheOrigin, AChainOfNearNeighboursIsOneCloud) {
    // Atoms 9 angstrom apart along a line, visited out of order: each is reached only through
    // its neighbours, so the cloud grows one link at a time.
    const int order[] = {5, 0, 9, 3, 7, 1, 8, 2, 6, 4};
    QVMol chain;
    for (const int i : order) {
        chain.AddAtom(6, 9.0 * i, 0.0, 0.0, 0.0);
    }
    EXPECT_EQ(hermite::overlay::CloudProblem(chain), "");
    // One link of 11 angstrom cuts the chain: the three atoms beyond it are named.
    QVMol cut;
    for (const int i : order) {
        cut.AddAtom(6, 9.0 * i + (i >= 7 ? 2.0 : 0.0), 0.0, 0.0, 0.0);
    }
    const std::string problem = hermite::overlay::CloudProblem(cut);
    EXPECT_NE(problem.find("its atoms are not one cloud: 3 of 10 atoms (atom 5) lie 11.0 angstrom"),
              std::string::npos)
        << problem;
    EXPECT_EQ(hermite::overlay::CloudProblem(QVMol()), "");
}

TEST(OverlayFarFromTheOrigin, AnAtomNearOneListedLongBeforeItIsInTheCloud) {
    // A chain listed in order, then a branch atom 9 angstrom beyond its first atom: far from
    // the atom listed before it, near the first.
    QVMol branched;
    for (int i = 0; i < 10; ++i) {
        branched.AddAtom(6, 9.0 * i, 0.0, 0.0, 0.0);
    }
    branched.AddAtom(6, -9.0, 0.0, 0.0, 0.0);
    EXPECT_EQ(hermite::overlay::CloudProblem(branched), "");
    // 11 angstrom beyond it, it is near no atom: it alone is named.
    QVMol detached = branched;
    detached.GetAtom(10).SetCoords(-11.0, 0.0, 0.0);
    const std::string problem = hermite::overlay::CloudProblem(detached);
    EXPECT_NE(problem.find("1 of 11 atoms (atom 11) lie 11.0 angstrom"), std::string::npos)
        << problem;
    // Its one neighbour a hundred atoms back, beyond the quick pass's look back: the cloud is
    // grown and found whole all the same.
    QVMol longChain;
    for (int i = 0; i < 100; ++i) {
        longChain.AddAtom(6, 9.0 * i, 0.0, 0.0, 0.0);
    }
    longChain.AddAtom(6, -9.0, 0.0, 0.0, 0.0);
    EXPECT_EQ(hermite::overlay::CloudProblem(longChain), "");
}

}  // namespace
