// Colour features in the overlay: exact colour overlaps, the joint Hermite objective against the
// library's objective of each channel and against finite differences, the channelled exact
// objective against the analytic overlaps, and the joint search on a case that shape alone
// cannot decide.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "../io/io_test_support.h"
#include "../support/test_support.h"
#include "hermite/hermite.h"
#include "overlay/colour.h"
#include "overlay/exact_overlap.h"
#include "overlay/joint_overlap.h"
#include "overlay/overlay.h"

namespace {

using hermite::overlay::ColourFeature;
using hermite::overlay::ColourFeatures;
using hermite::overlay::ColourGaussians;
using hermite::overlay::ColourOverlap;
using hermite::overlay::ExactOverlapObjective;
using hermite::overlay::Expansion;
using hermite::overlay::FastOverlap;
using hermite::overlay::JointOverlap;
using QVChem::QVMol;
using QVChem::QVTrans;
using QVHermiteMath::QVHermiteOptions;
using QVHermiteMath::QVHermiteOverlap;
using QVSystem::QVGaussian;

/// A rigid motion: rotation by `angle` about a fixed oblique axis, then a translation.
QVTrans Motion(double angle, double tx, double ty, double tz) {
    return hermite::io::testing::AxisAngleMotion({1.0, 2.0, 3.0}, angle, {tx, ty, tz});
}

ColourFeatures Moved(ColourFeatures features, const QVTrans& motion) {
    for (ColourFeature& feature : features) {
        motion.Apply(feature.position);
    }
    return features;
}

QVMol MovedMolecule(const QVMol& molecule, const QVTrans& motion) {
    QVMol moved = molecule;
    hermite::overlay::TransformMolecule(moved, motion);
    return moved;
}

/// Features of three types at pseudo-random positions in a box of edge 6 angstrom.
ColourFeatures RandomFeatures(std::uint32_t seed, unsigned int count) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<double> coordinate(-3.0, 3.0);
    ColourFeatures features(count);
    for (unsigned int i = 0; i < count; ++i) {
        features[i].type = i % 3;
        for (double& p : features[i].position) {
            p = coordinate(engine);
        }
    }
    return features;
}

/// The colour overlap sums the analytic overlaps of same-type pairs only; a single feature with
/// itself gives 2.7^2 (pi / (2 * 0.3))^(3/2), and two features d apart that times
/// e^(-0.15 d^2).
TEST(ColourOverlapTest, SumsSameTypePairsOnly) {
    const ColourFeatures one = {{4, {0.5, -1.0, 2.0}}};
    const double exponent = 0.3f;  // single precision, as the Gaussians hold it
    const double expected = 2.7 * 2.7 * std::pow(3.141592653589793 / (2 * exponent), 1.5);
    EXPECT_NEAR(ColourOverlap(ColourGaussians(one), ColourGaussians(one)), expected,
                1e-6 * expected);
    const ColourFeatures apart = {{4, {0.5, -1.0, 3.5}}};  // 1.5 angstrom away
    EXPECT_NEAR(ColourOverlap(ColourGaussians(one), ColourGaussians(apart)),
                expected * std::exp(-exponent / 2 * 1.5 * 1.5), 1e-6 * expected);
    const ColourFeatures a = RandomFeatures(3u, 7), b = RandomFeatures(4u, 5);
    double sum = 0.0;
    for (const ColourFeature& fa : a) {
        for (const ColourFeature& fb : b) {
            if (fa.type == fb.type) {
                sum += QVHermiteMath::GaussianOverlap(ColourGaussians({fa}), ColourGaussians({fb}));
            }
        }
    }
    EXPECT_NEAR(ColourOverlap(ColourGaussians(a), ColourGaussians(b)), sum, 1e-12 * sum);
    ColourFeatures otherType = b;
    for (ColourFeature& feature : otherType) {
        feature.type += 10;
    }
    EXPECT_EQ(ColourOverlap(ColourGaussians(a), ColourGaussians(otherType)), 0.0);
}

/// The colour overlap of a molecule with itself, and of two molecules, does not change when
/// both are moved together.
TEST(ColourOverlapTest, InvariantUnderRigidMotions) {
    const ColourFeatures a = RandomFeatures(5u, 8), b = RandomFeatures(6u, 6);
    const double self = ColourOverlap(ColourGaussians(a), ColourGaussians(a));
    const double pair = ColourOverlap(ColourGaussians(a), ColourGaussians(b));
    for (const QVTrans& motion : {Motion(0.7, 1, 2, 3), Motion(2.9, -40, 5, 0.5)}) {
        const ColourFeatures ma = Moved(a, motion), mb = Moved(b, motion);
        EXPECT_NEAR(ColourOverlap(ColourGaussians(ma), ColourGaussians(ma)), self, 1e-5 * self);
        EXPECT_NEAR(ColourOverlap(ColourGaussians(ma), ColourGaussians(mb)), pair, 1e-5 * self);
    }
}

/// Gaussians of given centres, one per row of `centres`, carbon-sized.
std::vector<QVGaussian> Gaussians(std::uint32_t seed, unsigned int count) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<double> coordinate(-3.0, 3.0);
    std::vector<QVGaussian> gaussians;
    for (unsigned int i = 0; i < count; ++i) {
        const float centre[3] = {static_cast<float>(coordinate(engine)),
                                 static_cast<float>(coordinate(engine)),
                                 static_cast<float>(coordinate(engine))};
        gaussians.emplace_back(2.7f, 0.811151803f, centre, 0u);
    }
    return gaussians;
}

/// The joint objective is the weighted sum of the library's overlap objective of each channel,
/// value and gradient, to rounding.
TEST(JointOverlapTest, EqualsTheWeightedSumOfTheLibraryObjectives) {
    const unsigned int order = 4;
    const double lambda = 0.6;
    const std::vector<std::vector<QVGaussian>> references = {Gaussians(1u, 12), Gaussians(2u, 3),
                                                             Gaussians(3u, 2)};
    const std::vector<std::vector<QVGaussian>> fits = {Gaussians(4u, 10), Gaussians(5u, 2),
                                                       Gaussians(6u, 4)};
    const double weights[3] = {1.0, 2.5, 0.75};
    JointOverlap joint;
    std::vector<QVHermiteOverlap> library(3);
    for (int c = 0; c < 3; ++c) {
        QVHermiteOptions o1 = hermite_test::FixedOptions(order, lambda, lambda, lambda);
        QVHermiteOptions o2 = o1;
        library[c].SetupRef(references[c], o1);
        library[c].Setup(fits[c], o2);
        const double l[3] = {lambda, lambda, lambda};
        joint.AddChannel(FastOverlap::MakePlan(order, l, order, l),
                         Expansion::Of(references[c], order, l).coefficients,
                         Expansion::Of(fits[c], order, l).coefficients, weights[c]);
    }
    for (const std::vector<double>& x :
         std::vector<std::vector<double>>{{0, 0, 0, 0, 0, 0},
                                          {0.3, -0.2, 1.2, 0.5, -0.4, 0.2},
                                          {-2.5, 1.4, 3.0, -1.5, 2, 0.7}}) {
        double expected = 0.0, expectedGradient[6] = {0, 0, 0, 0, 0, 0};
        for (int c = 0; c < 3; ++c) {
            double gradient[6];
            expected += weights[c] * library[c](x.data(), gradient);
            for (int i = 0; i < 6; ++i) {
                expectedGradient[i] += weights[c] * gradient[i];
            }
        }
        double gradient[6];
        const double value = joint(x.data(), gradient);
        const double scale = std::fabs(expected);
        EXPECT_NEAR(value, expected, 1e-12 * scale);
        EXPECT_NEAR(joint(x.data()), expected, 1e-12 * scale);
        for (int i = 0; i < 6; ++i) {
            EXPECT_NEAR(gradient[i], expectedGradient[i], 1e-11 * scale) << i;
            EXPECT_NEAR(gradient[i],
                        hermite_test::CentralDifference([&](const double* y) { return joint(y); },
                                                        x.data(), 6, i, 1e-5),
                        1e-6 * scale)
                << i;
        }
    }
}

/// With channels, the exact objective is the overlap of each channel with itself only: shape
/// overlap plus the colour overlap, the query's features weighted; its gradient equals central
/// differences.
TEST(ExactOverlapObjectiveTest, ChannelsOverlapOnlyWithThemselves) {
    const std::vector<QVGaussian> fixedShape = Gaussians(7u, 9), movingShape = Gaussians(8u, 8);
    const ColourFeatures fixedFeatures = RandomFeatures(9u, 6);
    const ColourFeatures movingFeatures = RandomFeatures(10u, 5);
    const double weight = 1.7;
    std::vector<QVGaussian> fixed = fixedShape, moving = movingShape;
    std::vector<unsigned int> fixedChannels(fixed.size(), 0), movingChannels(moving.size(), 0);
    for (const QVGaussian& g : ColourGaussians(fixedFeatures)) {
        const float centre[3] = {g.GetX(), g.GetY(), g.GetZ()};
        fixed.emplace_back(static_cast<float>(g.GetPrefactor() * weight), g.GetExponent(), centre,
                           g.GetTag());
        fixedChannels.push_back(g.GetTag() + 1);
    }
    for (const QVGaussian& g : ColourGaussians(movingFeatures)) {
        moving.push_back(g);
        movingChannels.push_back(g.GetTag() + 1);
    }
    ExactOverlapObjective objective(fixed, moving, fixedChannels, movingChannels);
    const double y[6] = {0.2, -0.4, 0.9, 0.3, -0.2, 0.5};
    const QVTrans motion = objective.Motion(y);
    const std::vector<QVGaussian> movedShape =
        hermite::overlay::MovedGaussians(movingShape, motion);
    const double expected = QVHermiteMath::GaussianOverlap(fixedShape, movedShape) +
                            weight * ColourOverlap(ColourGaussians(fixedFeatures),
                                                   ColourGaussians(Moved(movingFeatures, motion)));
    double gradient[6];
    // Terms beyond the objective's cut-off are left out of it.
    EXPECT_NEAR(-objective(y, gradient), expected,
                1e-5 * expected +
                    hermite_test::CutOffTermsBound(fixed, moving, ExactOverlapObjective::kCutoff));
    for (int i = 0; i < 6; ++i) {
        EXPECT_NEAR(gradient[i],
                    hermite_test::CentralDifference([&](const double* v) { return objective(v); },
                                                    y, 6, i, 1e-5),
                    1e-6 * expected)
            << i;
    }
}

/// A rod of seven carbons with a bulge (an eighth carbon) near one end, a donor at the far end
/// and an acceptor at the near one: the query. The fit is the same rod with its bulge moved to
/// the donor's end, turned and moved. By shape the bulges coincide, which puts the fit's donor
/// onto the query's acceptor; with colour the features coincide instead.
TEST(ColourOverlayTest, ColourOutweighsASmallShapeDifference) {
    const auto rod = [](double bulgeX) {
        QVMol molecule;
        for (int i = 0; i < 7; ++i) {
            molecule.AddAtom(6, 1.4 * (i - 3), 0.0, 0.0, 0.0);
        }
        molecule.AddAtom(6, bulgeX, 1.4, 0.0, 0.0);
        return molecule;
    };
    const QVMol queryRod = rod(2.8);
    const ColourFeatures features = {{0, {-4.2, 0.0, 0.0}}, {1, {4.2, 0.0, 0.0}}};
    const QVTrans motion = Motion(2.0, 2.0, -1.0, 0.5);
    const QVMol fit = MovedMolecule(rod(-2.8), motion);
    const ColourFeatures fitFeatures = Moved(features, motion);
    const auto donorAfter = [&](const hermite::overlay::Result& result) {
        double donor[3] = {fitFeatures[0].position[0], fitFeatures[0].position[1],
                           fitFeatures[0].position[2]};
        result.transform.Apply(donor);
        return donor[0];
    };

    hermite::overlay::Settings settings;
    const hermite::overlay::Result byShape =
        hermite::overlay::Query(queryRod, settings, features).Overlay(fit, fitFeatures);
    EXPECT_NEAR(donorAfter(byShape), 4.2, 0.3);

    settings.colour = true;
    const hermite::overlay::Query query(queryRod, settings, features);
    const hermite::overlay::Result result = query.Overlay(fit, fitFeatures);
    EXPECT_NEAR(donorAfter(result), -4.2, 0.3);
    EXPECT_GT(result.scores.colourTanimoto, 0.9);
    EXPECT_LT(result.scores.shapeTanimoto, byShape.scores.shapeTanimoto);
    EXPECT_NEAR(result.scores.combo, result.scores.shapeTanimoto + result.scores.colourTanimoto,
                1e-15);

    // The colour of a molecule with itself is 1; without features it is 0.
    EXPECT_NEAR(query.Score(queryRod, features).scores.colourTanimoto, 1.0, 1e-6);
    EXPECT_EQ(query.Score(queryRod, {}).scores.colourTanimoto, 0.0);
}

/// Without colour the scores carry no colour and combo is the shape Tanimoto; the
/// electrostatic combo is shape + electrostatic Tanimoto.
TEST(ColourOverlayTest, ShapeOnlyRunsCarryNoColour) {
    QVMol molecule;
    const double centres[5][3] = {
        {0, 0, 0}, {1.5, 0, 0}, {0, 1.4, 0.3}, {-1.2, -0.5, 1}, {2, 2, 0}};
    for (const auto& c : centres) {
        molecule.AddAtom(6, c[0], c[1], c[2], 0.1);
    }
    hermite::overlay::Settings settings;
    const hermite::overlay::Query query(molecule, settings, RandomFeatures(1u, 3));
    const hermite::overlay::Result result =
        query.Overlay(MovedMolecule(molecule, Motion(1.0, 1, 1, 1)), RandomFeatures(2u, 3));
    EXPECT_EQ(result.scores.colourTanimoto, 0.0);
    EXPECT_EQ(result.scores.colourOverlap, 0.0);
    EXPECT_EQ(result.scores.combo, result.scores.shapeTanimoto);
    EXPECT_EQ(result.scores.electrostaticCombo, result.scores.shapeTanimoto);
}

/// The electrostatics join the search as another channel: the rod with a bulge again, now with
/// a positive charge at one end and a negative one at the other, the fit's bulge at the other
/// end. By shape the bulges coincide and the charges of opposite sign meet (a negative
/// electrostatic Tanimoto); with a weight on the electrostatic overlap the charges of equal
/// sign meet instead.
TEST(ElectrostaticSearchTest, WeightLetsTheChargesTurnThePose) {
    const auto rod = [](double bulgeX) {
        QVMol molecule;
        for (int i = 0; i < 7; ++i) {
            const double charge = i == 0 ? 0.4 : i == 6 ? -0.4 : 0.0;
            molecule.AddAtom(6, 1.4 * (i - 3), 0.0, 0.0, charge);
        }
        molecule.AddAtom(6, bulgeX, 1.4, 0.0, 0.0);
        return molecule;
    };
    const QVMol queryRod = rod(2.8);
    const QVMol fit = MovedMolecule(rod(-2.8), Motion(2.0, 2.0, -1.0, 0.5));

    hermite::overlay::Settings settings;
    settings.electrostatics = true;
    const hermite::overlay::Result byShape =
        hermite::overlay::Query(queryRod, settings).Overlay(fit);
    EXPECT_LT(byShape.scores.electrostaticTanimoto, -0.25);  // -1/3 at worst

    settings.electrostaticWeight = 2000.0;
    const hermite::overlay::Result result =
        hermite::overlay::Query(queryRod, settings).Overlay(fit);
    EXPECT_GT(result.scores.electrostaticTanimoto, 0.9);
    EXPECT_LT(result.scores.shapeTanimoto, byShape.scores.shapeTanimoto);
    EXPECT_GT(result.scores.shapeTanimoto, 0.7);  // still the rods on one another

    // A weight without electrostatics changes nothing.
    settings.electrostatics = false;
    const hermite::overlay::Result ignored =
        hermite::overlay::Query(queryRod, settings).Overlay(fit);
    EXPECT_EQ(ignored.scores.shapeTanimoto, byShape.scores.shapeTanimoto);
}

}  // namespace
