// The global scan of orientations: its rotations are proper and cover every orientation, its
// overlaps are the Hermite overlaps the local search computes, and the search it seeds finds
// the best pose where the principal frames alone mislead.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "cdk2_ligands.h"
#include "hermite/hermite.h"
#include "io/molecule_io.h"
#include "overlay/fast_overlap.h"
#include "overlay/orientation_scan.h"
#include "overlay/overlay.h"

namespace {

using hermite::overlay::Expansion;
using hermite::overlay::FastOverlap;
using hermite::overlay::OrientationScan;
using hermite::overlay::PreparedMolecule;
using hermite::overlay::Query;
using hermite::overlay::RotationMatrix;
using hermite::overlay::Settings;
using hermite::overlay::StartOrientations;
using QVChem::QVTrans;

constexpr double kPi = 3.141592653589793;

/// The rotation angle between two rotations, radians.
double Angle(const RotationMatrix& a, const RotationMatrix& b) {
    double trace = 0.0;  // trace of a^T b
    for (int i = 0; i < 9; ++i) {
        trace += a[i] * b[i];
    }
    return std::acos(std::clamp((trace - 1.0) / 2.0, -1.0, 1.0));
}

RotationMatrix RandomRotation(std::mt19937_64& engine) {
    std::normal_distribution<double> normal;
    double q[4];
    for (double& c : q) {
        c = normal(engine);
    }
    const double n = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    const double w = q[0] / n, x = q[1] / n, y = q[2] / n, z = q[3] / n;
    return {1 - 2 * (y * y + z * z), 2 * (x * y - w * z),     2 * (x * z + w * y),
            2 * (x * y + w * z),     1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
            2 * (x * z - w * y),     2 * (y * z + w * x),     1 - 2 * (x * x + y * y)};
}

/// The largest angle from any of 2,000 random rotations to its nearest rotation of the set.
double CoveringAngle(const std::vector<RotationMatrix>& set) {
    std::mt19937_64 engine(11);
    double worst = 0.0;
    for (int i = 0; i < 2000; ++i) {
        const RotationMatrix r = RandomRotation(engine);
        double nearest = kPi;
        for (const RotationMatrix& s : set) {
            nearest = std::min(nearest, Angle(r, s));
        }
        worst = std::max(worst, nearest);
    }
    return worst;
}

QVTrans AsTransform(const RotationMatrix& R) {
    const double zero[3] = {0.0, 0.0, 0.0};
    return QVTrans(R.data(), zero);
}

std::vector<QVSystem::QVGaussian> Turned(const std::vector<QVSystem::QVGaussian>& gaussians,
                                         const RotationMatrix& R) {
    return hermite::overlay::MovedGaussians(gaussians, AsTransform(R));
}

TEST(OrientationScan, StartsWithTheFlipsAndEveryRotationIsProper) {
    const std::vector<RotationMatrix> set = StartOrientations(30, 5, 3);
    ASSERT_EQ(set.size(), 39u);
    EXPECT_EQ(set[0], (RotationMatrix{1, 0, 0, 0, 1, 0, 0, 0, 1}));
    EXPECT_EQ(set[1], (RotationMatrix{1, 0, 0, 0, -1, 0, 0, 0, -1}));
    EXPECT_EQ(set[2], (RotationMatrix{-1, 0, 0, 0, 1, 0, 0, 0, -1}));
    EXPECT_EQ(set[3], (RotationMatrix{-1, 0, 0, 0, -1, 0, 0, 0, 1}));
    for (const RotationMatrix& R : set) {
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) {
                const double dot =
                    R[3 * i] * R[3 * j] + R[3 * i + 1] * R[3 * j + 1] + R[3 * i + 2] * R[3 * j + 2];
                EXPECT_NEAR(dot, i == j ? 1.0 : 0.0, 1e-12);
            }
        }
        const double det = R[0] * (R[4] * R[8] - R[5] * R[7]) - R[1] * (R[3] * R[8] - R[5] * R[6]) +
                           R[2] * (R[3] * R[7] - R[4] * R[6]);
        EXPECT_NEAR(det, 1.0, 1e-12);
    }
    // The same seed draws the same random rotations.
    EXPECT_EQ(StartOrientations(30, 5, 3), set);
}

// Every orientation lies near one of the scanned ones, and more rotations cover more closely:
// the flips alone leave orientations 2 radians (115 degrees) away.
TEST(OrientationScan, SpreadRotationsCoverEveryOrientation) {
    const double flips = CoveringAngle(StartOrientations(0, 0, 0));
    const double thirty = CoveringAngle(StartOrientations(30, 0, 0));
    const double sixty = CoveringAngle(StartOrientations(60, 0, 0));
    EXPECT_GT(flips, 1.9);
    EXPECT_LT(thirty, 1.25);
    EXPECT_LT(sixty, 1.0);
    EXPECT_LT(sixty, thirty);
}

// The scan's overlap for rotation k is the Hermite overlap the local search computes for the
// fit turned by rotation k, at the start (no motion): the same number to rounding.
TEST(OrientationScan, OverlapsAreTheHermiteOverlapsOfTheTurnedFit) {
    const std::vector<hermite::io::Molecule> ligands =
        hermite::io::ReadAll(hermite_test::kCdk2Path);
    Settings settings;
    const PreparedMolecule query(ligands[0].conformers[0].Mol(), settings);
    const PreparedMolecule fit(ligands[5].conformers[0].Mol(), settings);
    QVHermiteMath::QVHermiteOptions options;
    options.SetNPolyMax(settings.order);
    options.SetUseSingleLambda(true);
    options.SetUseOptimalLambdas(true);
    QVHermiteMath::QVHermite expansion;
    expansion.Setup(query.shape, options);
    const Expansion queryExpansion = Expansion::From(expansion);

    const OrientationScan scan(queryExpansion, StartOrientations(20, 0, 0));
    const Expansion fitExpansion =
        Expansion::Of(fit.shape, queryExpansion.order, queryExpansion.lambda);
    const std::vector<double> overlaps = scan.Overlaps(fitExpansion);
    ASSERT_EQ(overlaps.size(), 24u);
    const double zero[6] = {0, 0, 0, 0, 0, 0};
    for (std::size_t k = 0; k < overlaps.size(); ++k) {
        const Expansion turned = Expansion::Of(Turned(fit.shape, scan.Rotations()[k]),
                                               queryExpansion.order, queryExpansion.lambda);
        FastOverlap objective(queryExpansion, turned);
        const double expected = -objective(zero);
        EXPECT_NEAR(overlaps[k], expected, 1e-5 * std::abs(expected)) << "rotation " << k;
    }
    // Best: the largest overlaps, best first.
    const std::vector<std::size_t> best = scan.Best(fitExpansion, 3);
    ASSERT_EQ(best.size(), 3u);
    std::vector<double> sorted = overlaps;
    std::sort(sorted.rbegin(), sorted.rend());
    for (std::size_t i = 0; i < best.size(); ++i) {
        EXPECT_EQ(overlaps[best[i]], sorted[i]);
    }
}

// A CDK2 pair whose best pose lies far from every flip of the principal frames (found by
// comparing searches over all pairs), both ways round: the local searches from the four flips
// alone, the most promising of their optima refined, stop at least 0.1 below the best pose
// known, and the search seeded by the scan reaches it.
TEST(OrientationScan, SearchFindsTheBestPoseWhereTheFramesMislead) {
    const std::vector<hermite::io::Molecule> ligands =
        hermite::io::ReadAll(hermite_test::kCdk2Path);
    const auto mol = [&ligands](std::size_t i) { return ligands[i].conformers[0].Mol(); };
    Settings flips;
    flips.scanRotations = 0;
    flips.searchStarts = 4;
    flips.refineCandidates = 1;
    Settings scanned;
    scanned.scanRotations = 60;
    scanned.searchStarts = 4;
    scanned.refineCandidates = 3;
    Settings exhaustive;
    exhaustive.order = 6;
    exhaustive.scanRotations = 300;
    exhaustive.searchStarts = 40;
    exhaustive.refineCandidates = 8;
    const std::pair<std::size_t, std::size_t> pairs[] = {{36, 44}, {44, 36}};
    for (const auto& [q, f] : pairs) {
        const double best = Query(mol(q), exhaustive).Overlay(mol(f)).scores.shapeTanimoto;
        const double fromFlips = Query(mol(q), flips).Overlay(mol(f)).scores.shapeTanimoto;
        const double fromScan = Query(mol(q), scanned).Overlay(mol(f)).scores.shapeTanimoto;
        EXPECT_LT(fromFlips, best - 0.1) << "query " << q << ", fit " << f;
        EXPECT_GT(fromScan, best - 0.002) << "query " << q << ", fit " << f;
    }
}

/// `molecule` with every atom moved by `motion`, in double precision.
QVChem::QVMol Moved(const QVChem::QVMol& molecule, const QVTrans& motion) {
    QVChem::QVMol moved = molecule;
    hermite::overlay::TransformMolecule(moved, motion);
    return moved;
}

/// A rigid motion: the rotation drawn from `engine` and a shift of a few angstrom.
QVTrans RandomMotion(std::mt19937_64& engine) {
    const RotationMatrix R = RandomRotation(engine);
    std::uniform_real_distribution<double> shift(-4.0, 4.0);
    const double t[3] = {shift(engine), shift(engine), shift(engine)};
    return QVTrans(R.data(), t);
}

// A chiral propeller with a three-fold axis (three twisted blades round a hub, a cap on one
// side): its two in-plane moments are equal, so any pair of in-plane axes is principal, and the
// frames of the query and of a moved copy differ by an arbitrary turn about the axis, which no
// flip undoes. The search must still lay the copy onto the query.
TEST(OrientationScan, SearchOverlaysASymmetricTopOntoItselfWhateverItsFrame) {
    QVChem::QVMol propeller;
    propeller.AddAtom(6, 0.0, 0.0, 0.0, 0.0);
    propeller.AddAtom(6, 0.0, 0.0, 1.5, 0.0);
    for (int blade = 0; blade < 3; ++blade) {
        const double angle = 2.0 * kPi * blade / 3.0;
        propeller.AddAtom(6, 1.5 * std::cos(angle), 1.5 * std::sin(angle), 0.0, 0.0);
        propeller.AddAtom(6, 2.7 * std::cos(angle + 0.4), 2.7 * std::sin(angle + 0.4), 0.5, 0.0);
        propeller.AddAtom(6, 3.6 * std::cos(angle + 0.9), 3.6 * std::sin(angle + 0.9), -0.3, 0.0);
    }
    const Query query(propeller, Settings());
    std::mt19937_64 engine(2024);
    for (int trial = 0; trial < 8; ++trial) {
        const double tanimoto =
            query.Overlay(Moved(propeller, RandomMotion(engine))).scores.shapeTanimoto;
        EXPECT_GT(tanimoto, 0.999) << "motion " << trial;
    }
}

// A rod of ten atoms with a bulge near one end, and a fit of half its length with a bulge in
// its middle, moved: the fit's longest axis is across its bulge, not along the query's rod, so
// the frames do not line up the rods. The default search reaches the best pose of an
// exhaustive one.
TEST(OrientationScan, SearchAlignsAShortBulgedRodWithALongOne) {
    QVChem::QVMol rod;
    for (int i = 0; i < 10; ++i) {
        rod.AddAtom(6, 1.4 * i, 0.0, 0.0, 0.0);
    }
    rod.AddAtom(6, 1.4, 1.4, 0.0, 0.0);
    rod.AddAtom(6, 1.4, 2.8, 0.0, 0.0);
    QVChem::QVMol stub;
    for (int i = 0; i < 5; ++i) {
        stub.AddAtom(6, 1.4 * i, 0.0, 0.0, 0.0);
    }
    stub.AddAtom(6, 2.8, 1.4, 0.0, 0.0);
    stub.AddAtom(6, 2.8, 2.8, 0.0, 0.0);
    stub.AddAtom(6, 2.8, 4.2, 0.0, 0.0);
    Settings exhaustive;
    exhaustive.order = 6;
    exhaustive.scanRotations = 300;
    exhaustive.searchStarts = 40;
    exhaustive.refineCandidates = 8;
    std::mt19937_64 engine(7);
    for (int trial = 0; trial < 4; ++trial) {
        const QVChem::QVMol fit = Moved(stub, RandomMotion(engine));
        const double best = Query(rod, exhaustive).Overlay(fit).scores.shapeTanimoto;
        const double found = Query(rod, Settings()).Overlay(fit).scores.shapeTanimoto;
        EXPECT_GT(found, best - 0.002) << "motion " << trial;
    }
}

// A query's scans are made when an overlay first needs them: the scan of turned fits for fits
// larger than the query, the query's turned scans for smaller ones. Overlays of both kinds run
// at once from four threads on a fresh query get the results of one thread on another query.
TEST(OrientationScan, ScansMadeOnFirstUseGiveTheSequentialResultsFromManyThreads) {
    const std::vector<QVChem::QVMol>& ligands = hermite_test::Cdk2Ligands();
    const Settings settings;
    // The query: the ligand of median self-overlap among the first sixteen, the rest its fits.
    std::vector<std::pair<double, std::size_t>> sizes;
    for (std::size_t i = 0; i < 16; ++i) {
        sizes.emplace_back(PreparedMolecule(ligands[i], settings).shapeSelfOverlap, i);
    }
    std::sort(sizes.begin(), sizes.end());
    const std::size_t queryIndex = sizes[8].second;
    std::vector<std::size_t> fits;
    for (std::size_t i = 0; i < 16; ++i) {
        if (i != queryIndex) {
            fits.push_back(i);
        }
    }
    ASSERT_LT(sizes.front().first, sizes[8].first);  // both scans are needed
    ASSERT_GT(sizes.back().first, sizes[8].first);
    std::vector<double> sequential;
    {
        const Query alone(ligands[queryIndex], settings);
        for (const std::size_t f : fits) {
            sequential.push_back(alone.Overlay(ligands[f]).scores.shapeTanimoto);
        }
    }
    const Query shared(ligands[queryIndex], settings);
    std::vector<double> parallel(fits.size());
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (std::size_t i = t; i < fits.size(); i += 4) {
                parallel[i] = shared.Overlay(ligands[fits[i]]).scores.shapeTanimoto;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (std::size_t i = 0; i < fits.size(); ++i) {
        EXPECT_EQ(parallel[i], sequential[i]) << "fit " << fits[i];
    }
}

}  // namespace
