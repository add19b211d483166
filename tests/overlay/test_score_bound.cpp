// Upper bounds on the scores a fit can reach in any pose. The largest overlap of a density with
// a probe Gaussian is checked against its value at sampled points and at the maxima found by
// mean shift; the score bounds against the best poses found by an exhaustive search on CDK2
// pairs (the true optimum is at least as good), against the crystal poses, and against cases
// whose optimum is known exactly.

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "../support/test_support.h"
#include "cdk2_ligands.h"
#include "overlay/score_bound.h"

namespace {

using hermite::overlay::ColourFeatures;
using hermite::overlay::LargestOverlapWithProbe;
using hermite::overlay::PreparedMolecule;
using hermite::overlay::Query;
using hermite::overlay::ScoreBound;
using hermite::overlay::Scores;
using hermite::overlay::Settings;
using QVChem::QVMol;
using QVSystem::QVGaussian;

using hermite_test::kCarbonExponent;
using hermite_test::kCarbonPrefactor;

/// The sum of the overlaps of `gaussians` with a carbon-like probe centred at p.
double ProbeOverlap(const std::vector<QVGaussian>& gaussians, const double p[3]) {
    const QVGaussian probe = hermite_test::Carbon(
        static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2]));
    return QVHermiteMath::GaussianOverlap(gaussians, {probe});
}

/// The largest probe overlap reached by mean shift from every centre: each step moves the point
/// to the mean of the centres weighted by their terms, which climbs to a local maximum.
double MeanShiftMaximum(const std::vector<QVGaussian>& gaussians) {
    const double rate = kCarbonExponent / 2.0;
    double best = 0.0;
    for (const QVGaussian& start : gaussians) {
        double p[3] = {start.GetX(), start.GetY(), start.GetZ()};
        for (int step = 0; step < 500; ++step) {
            double sum = 0.0, mean[3] = {0.0, 0.0, 0.0};
            for (const QVGaussian& g : gaussians) {
                const double d[3] = {p[0] - g.GetX(), p[1] - g.GetY(), p[2] - g.GetZ()};
                const double w = std::exp(-rate * (d[0] * d[0] + d[1] * d[1] + d[2] * d[2]));
                sum += w;
                mean[0] += w * g.GetX();
                mean[1] += w * g.GetY();
                mean[2] += w * g.GetZ();
            }
            for (int k = 0; k < 3; ++k) {
                p[k] = mean[k] / sum;
            }
        }
        best = std::max(best, ProbeOverlap(gaussians, p));
    }
    return best;
}

/// Colour features standing in for perceived ones: one at each nitrogen (type 0), oxygen
/// (type 1) and halogen or sulfur (type 2).
ColourFeatures HeteroatomFeatures(const QVMol& molecule) {
    ColourFeatures features;
    for (const QVChem::QVAtom& atom : molecule) {
        const unsigned int z = atom.GetAtomicNumber();
        const int type = z == 7                                      ? 0
                         : z == 8                                    ? 1
                         : (z == 9 || z == 16 || z == 17 || z == 35) ? 2
                                                                     : -1;
        if (type >= 0) {
            hermite::overlay::ColourFeature feature;
            feature.type = static_cast<unsigned int>(type);
            atom.GetCoords(feature.position);
            features.push_back(feature);
        }
    }
    return features;
}

/// Every bounded score is at least the score found (less rounding).
void ExpectBounds(const Scores& bound, const Scores& found, const char* what) {
    const double slack = 1e-9;
    EXPECT_GE(bound.shapeTanimoto, found.shapeTanimoto - slack) << what;
    EXPECT_GE(bound.shapeTverskyQuery, found.shapeTverskyQuery - slack) << what;
    EXPECT_GE(bound.shapeTverskyFit, found.shapeTverskyFit - slack) << what;
    EXPECT_GE(bound.colourTanimoto, found.colourTanimoto - slack) << what;
    EXPECT_GE(bound.combo, found.combo - slack) << what;
    EXPECT_GE(bound.electrostaticTanimoto, found.electrostaticTanimoto - slack) << what;
    EXPECT_GE(bound.electrostaticCombo, found.electrostaticCombo - slack) << what;
}

TEST(LargestOverlapWithProbe, OneGaussianPeaksAtItsCentre) {
    const std::vector<QVGaussian> one = {hermite_test::Carbon(1, 2, 3)};
    // 2.7^2 (pi / (2 a))^(3/2) with the probe on the centre.
    const double peak = 2.7 * 2.7 * std::pow(3.141592653589793 / (2 * 0.811151803), 1.5);
    const double found = LargestOverlapWithProbe(one, kCarbonPrefactor, kCarbonExponent);
    EXPECT_GE(found, peak * (1 - 1e-6));
    EXPECT_LE(found, peak * 1.01);
}

// Two Gaussians: close together the sum peaks between them, far apart at either centre.
TEST(LargestOverlapWithProbe, TwoGaussiansPeakBetweenOrAtThem) {
    for (const double d : {0.5, 1.0, 1.5, 2.0, 3.0, 6.0}) {
        const std::vector<QVGaussian> two = {hermite_test::Carbon(0, 0, 0),
                                             hermite_test::Carbon(0, 0, static_cast<float>(d))};
        double best = 0.0;  // along the axis, where the maximum lies by symmetry
        for (int i = 0; i <= 20000; ++i) {
            const double p[3] = {0.0, 0.0, d * i / 20000.0};
            best = std::max(best, ProbeOverlap(two, p));
        }
        const double found = LargestOverlapWithProbe(two, kCarbonPrefactor, kCarbonExponent);
        EXPECT_GE(found, best * (1 - 1e-9)) << "distance " << d;
        EXPECT_LE(found, best * 1.01) << "distance " << d;
    }
}

// Clouds of carbons: the bound is at least every sampled value and within the tolerance of the
// best local maximum.
TEST(LargestOverlapWithProbe, RandomCloudsAreBoundedTightly) {
    for (std::uint32_t seed = 1; seed <= 6; ++seed) {
        const std::vector<QVGaussian> cloud =
            hermite_test::MakeDensity(12 + 3 * seed, seed, 3, 2, 1.5);
        const double found = LargestOverlapWithProbe(cloud, kCarbonPrefactor, kCarbonExponent);
        std::mt19937_64 engine(seed);
        std::uniform_real_distribution<double> coordinate(-6.0, 6.0);
        for (int i = 0; i < 2000; ++i) {
            const double p[3] = {coordinate(engine), coordinate(engine), coordinate(engine)};
            ASSERT_GE(found, ProbeOverlap(cloud, p) * (1 - 1e-9)) << "seed " << seed;
        }
        const double climbed = MeanShiftMaximum(cloud);
        EXPECT_GE(found, climbed * (1 - 1e-9)) << "seed " << seed;
        EXPECT_LE(found, climbed * 1.01) << "seed " << seed;
    }
}

TEST(LargestOverlapWithProbe, NoGaussiansGiveZero) {
    EXPECT_EQ(LargestOverlapWithProbe({}, kCarbonPrefactor, kCarbonExponent), 0.0);
}

// A molecule against itself reaches a Tanimoto of 1 in its own pose, so its bound must be 1.
TEST(ScoreBound, AMoleculeAgainstItselfIsBoundedByOne) {
    Settings settings;
    settings.colour = true;
    const QVMol& ligand = hermite_test::Cdk2Ligands()[5];
    const Query query(ligand, settings, HeteroatomFeatures(ligand));
    const ScoreBound bound(query);
    const Scores self = bound.Of(query.Prepared());
    EXPECT_NEAR(self.shapeTanimoto, 1.0, 1e-12);
    EXPECT_NEAR(self.colourTanimoto, 1.0, 1e-12);
    EXPECT_NEAR(self.combo, 2.0, 1e-12);
}

// One atom against a query: its best overlap is the query's largest probe overlap, reached with
// the atom at that point, so the packing bound is the optimum (within its 1 % tolerance) and
// below the Cauchy-Schwarz bound.
TEST(ScoreBound, OneAtomIsBoundedByTheLargestProbeOverlap) {
    const QVMol& ligand = hermite_test::Cdk2Ligands()[0];
    const Query query(ligand, Settings());
    QVMol atom;
    atom.AddAtom(6, 0.0, 0.0, 0.0, 0.0);
    const PreparedMolecule fit(atom, Settings());
    const Scores bound = ScoreBound(query).Of(fit);
    const double best = MeanShiftMaximum(query.Prepared().shape);
    EXPECT_GE(bound.overlap, best * (1 - 1e-9));
    EXPECT_LE(bound.overlap, best * 1.01);
    EXPECT_LT(bound.overlap,
              std::sqrt(query.Prepared().shapeSelfOverlap * fit.shapeSelfOverlap) * 0.9);
}

// The bound is never below the true optimum: on random CDK2 pairs it is at least the best
// score an exhaustive search finds (with colour and electrostatics), and at least the scores
// of the crystal poses, in which the ligands share the binding site.
TEST(ScoreBound, NeverBelowTheBestPoseOfCdk2Pairs) {
    Settings exhaustive =
        hermite::overlay::WithEffort(Settings(), hermite::overlay::Effort::Thorough);
    exhaustive.scanRotations = 100;
    exhaustive.colour = true;
    exhaustive.electrostatics = true;
    const std::vector<QVMol>& ligands = hermite_test::Cdk2Ligands();
    std::mt19937_64 engine(11);
    std::uniform_int_distribution<std::size_t> pick(0, ligands.size() - 1);
    for (int pair = 0; pair < 12; ++pair) {
        const QVMol& q = ligands[pick(engine)];
        const QVMol& f = ligands[pick(engine)];
        const Query query(q, exhaustive, HeteroatomFeatures(q));
        const PreparedMolecule fit(f, exhaustive, HeteroatomFeatures(f));
        const Scores bound = ScoreBound(query).Of(fit);
        ExpectBounds(bound, query.Overlay(fit).scores, "overlaid");
        ExpectBounds(bound, query.Score(fit).scores, "crystal pose");
        EXPECT_LE(bound.shapeTanimoto, 1.0 + 1e-12);
        EXPECT_LE(bound.electrostaticTanimoto, 1.0 + 1e-12);
    }
}

}  // namespace
