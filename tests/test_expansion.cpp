// Tests of the expansion object: Setup (extent, optional lambda optimisation, coefficients,
// self-overlap and their lambda derivatives, the options written back) and the rotation of an
// expansion in coefficient space.
//
// Mathematics used as the oracle.
// - The extent is 2 max |coordinate| over all centre coordinates, starting from the smallest
//   positive normal double so that it stays positive.
// - With fixed lambdas the expansion is that of the Gaussian-to-Hermite transform with the same
//   options; its self-overlap S(lambda) = (1 / lambda^3) sum c^2 K_l K_m K_n for one common
//   lambda, and dS/dlambda, dc/dlambda are checked against central differences in lambda.
// - Optimal lambdas maximise S. At an interior maximum the derivative of S in each log lambda
//   vanishes, S there is not below S at the starting lambdas, and S does not grow when any log
//   lambda is moved a little either way.
// - For equal lambdas the space spanned by the basis functions of total degree <= N is mapped
//   onto itself by every rotation about the origin, and projecting onto it commutes with the
//   rotation. Rotating the coefficients by R must therefore give the expansion of the density
//   whose centres were turned by R (r' = R r), up to the single-precision rounding of the
//   turned centres.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <limits>
#include <thread>
#include <vector>

#include "hermite/hermite.h"
#include "support/test_support.h"

namespace {

using QVHermiteMath::QVGaussian;
using QVHermiteMath::QVGaussianToHermite;
using QVHermiteMath::QVHermite;
using QVHermiteMath::QVHermiteOptions;
using QVHermiteMath::QVHermiteSelfOverlap;

using hermite_test::Carbon;
using hermite_test::CoefficientCount;
using hermite_test::FixedOptions;
using hermite_test::FixedOptionsSingleWhenEqual;
using hermite_test::kPi;
using hermite_test::MakeDensity;
using hermite_test::MaxAbs;
using hermite_test::TurnedInFloat;

constexpr double kSmallestNormal = 2.2250738585072014e-308;

// Options asking Setup to optimise the lambdas from the given start.
QVHermiteOptions OptimalOptions(unsigned int N, bool single, double lx, double ly, double lz) {
    QVHermiteOptions options = FixedOptions(N, lx, ly, lz, single);
    options.SetUseOptimalLambdas(true);
    return options;
}

// The self-overlap of the expansion with the given lambdas (no optimisation).
double SelfOverlapAt(const std::vector<QVGaussian>& gaussians, unsigned int N, double lx, double ly,
                     double lz) {
    const QVGaussianToHermite transform(FixedOptionsSingleWhenEqual(N, lx, ly, lz), gaussians,
                                        QVHermiteMath::NoDerivatives);
    return transform.GetSelfOverlap();
}

// Checks that the lambdas of `options` maximise the self-overlap in log lambda: the gradient of
// the lambda objective (one common variable when the options keep a single lambda, else three)
// is ~0 relative to S, S is not below its value at `start`, and moving any free log lambda by
// +-0.05 does not increase S.
void ExpectStationaryMaximum(const std::vector<QVGaussian>& gaussians,
                             const QVHermiteOptions& options, const double start[3]) {
    const unsigned int N = options.GetNPolyMax();
    const double lambdas[3] = {options.GetLambda(0), options.GetLambda(1), options.GetLambda(2)};
    const double S = SelfOverlapAt(gaussians, N, lambdas[0], lambdas[1], lambdas[2]);
    ASSERT_GT(S, 0.0);

    const bool single = options.GetUseSingleLambda();
    QVHermiteOptions objectiveOptions = FixedOptionsSingleWhenEqual(N, 1.0, 1.0, 1.0);
    objectiveOptions.SetUseSingleLambda(single);
    QVHermiteSelfOverlap objective(objectiveOptions, gaussians);
    const double x[3] = {std::log(lambdas[0]), std::log(lambdas[1]), std::log(lambdas[2])};
    double gradient[3] = {0.0, 0.0, 0.0};
    EXPECT_NEAR(-objective(x, gradient), S, 1e-12 * S);
    // The minimisers stop at gradients far below this bound (~1e-8 S here), whereas lambdas a
    // few per cent away from the optimum already give derivatives of ~1e-3 S.
    for (unsigned int i = 0; i < objective.NumVar(); ++i) {
        EXPECT_LT(std::fabs(gradient[i]), 1e-4 * S) << "variable " << i;
    }

    const double startS = SelfOverlapAt(gaussians, N, start[0], start[1], start[2]);
    EXPECT_GE(S, startS);

    // A maximum in every direction the optimiser was free to move along.
    const double step = 0.05;
    if (single) {
        for (const double sign : {-1.0, 1.0}) {
            const double f = std::exp(sign * step);
            EXPECT_LE(SelfOverlapAt(gaussians, N, lambdas[0] * f, lambdas[1] * f, lambdas[2] * f),
                      S);
        }
    } else {
        for (unsigned int i = 0; i < 3; ++i) {
            for (const double sign : {-1.0, 1.0}) {
                double moved[3] = {lambdas[0], lambdas[1], lambdas[2]};
                moved[i] *= std::exp(sign * step);
                EXPECT_LE(SelfOverlapAt(gaussians, N, moved[0], moved[1], moved[2]), S)
                    << "axis " << i << " sign " << sign;
            }
        }
    }
}

class ExpansionTest : public ::testing::Test {
protected:
    // Eight Gaussians in a box of half-widths 1.5 (compact, fast-converging expansions) and an
    // anisotropic density of ten Gaussians spread most along x and least along z.
    std::vector<QVGaussian> compact_ = MakeDensity(8, 7u, 1.5f, 1.5f, 1.5f);
    std::vector<QVGaussian> elongated_ = MakeDensity(10, 99u, 2.0f, 1.1f, 0.5f);
};

// ---------------------------------------------------------------------------------------------
// Extent

TEST_F(ExpansionTest, DefaultObjectHasSmallestNormalExtent) {
    const QVHermite expansion;
    EXPECT_EQ(expansion.GetExtent(), kSmallestNormal);
    EXPECT_EQ(kSmallestNormal, std::numeric_limits<double>::min());
}

TEST_F(ExpansionTest, EmptyGaussianListLeavesExtentAtSmallestNormal) {
    for (const bool optimal : {false, true}) {
        QVHermiteOptions options = FixedOptionsSingleWhenEqual(5, 1.0, 1.0, 1.0);
        options.SetUseOptimalLambdas(optimal);
        QVHermite expansion;
        expansion.Setup({}, options);
        EXPECT_EQ(expansion.GetExtent(), kSmallestNormal) << "optimal " << optimal;
        // Nothing to expand: all coefficients and the self-overlap vanish.
        EXPECT_EQ(expansion.GetCoefficients().size(), CoefficientCount(5));
        EXPECT_EQ(MaxAbs(expansion.GetCoefficients()), 0.0);
        EXPECT_EQ(expansion.GetSelfOverlap(), 0.0);
    }
}

TEST_F(ExpansionTest, GaussiansAtOriginLeaveExtentAtSmallestNormal) {
    QVHermiteOptions options = FixedOptionsSingleWhenEqual(4, 1.0, 1.0, 1.0);
    QVHermite expansion;
    expansion.Setup({Carbon(0.0f, 0.0f, 0.0f), Carbon(-0.0f, 0.0f, -0.0f)}, options);
    EXPECT_EQ(expansion.GetExtent(), kSmallestNormal);
}

TEST_F(ExpansionTest, ExtentIsTwiceTheLargestAbsoluteCoordinate) {
    QVHermiteOptions options = FixedOptionsSingleWhenEqual(4, 1.0, 1.0, 1.0);
    QVHermite expansion;
    // The largest magnitude is a negative y coordinate of a Gaussian in the middle of the list.
    const std::vector<QVGaussian> gaussians = {
        Carbon(1.25f, -0.5f, 2.0f), Carbon(0.0f, -3.375f, 1.0f), Carbon(3.0f, 0.25f, -2.5f)};
    expansion.Setup(gaussians, options);
    EXPECT_EQ(expansion.GetExtent(), 6.75);

    // Each Setup measures afresh: a smaller density gives a smaller extent.
    expansion.Setup({Carbon(0.5f, -0.75f, 0.125f)}, options);
    EXPECT_EQ(expansion.GetExtent(), 1.5);

    // The pseudo-random density, against a direct maximum over all coordinates.
    double largest = 0.0;
    for (const QVGaussian& g : elongated_) {
        for (const float c : {g.GetX(), g.GetY(), g.GetZ()}) {
            largest = std::max(largest, std::fabs(static_cast<double>(c)));
        }
    }
    expansion.Setup(elongated_, options);
    EXPECT_EQ(expansion.GetExtent(), 2.0 * largest);
}

// ---------------------------------------------------------------------------------------------
// Sizes and fixed-lambda expansions

TEST_F(ExpansionTest, NumCoefficientsIsTheNumberOfDegreeTriples) {
    QVHermiteOptions five = FixedOptionsSingleWhenEqual(5, 1.0, 1.0, 1.0);
    QVHermite expansion;
    expansion.Setup(compact_, five);
    EXPECT_EQ(expansion.NumCoefficients(), 56u);

    for (const unsigned int N : {0u, 1u, 2u, 3u, 7u, 10u, 16u}) {
        QVHermiteOptions options = FixedOptionsSingleWhenEqual(N, 1.0, 1.0, 1.0);
        expansion.Setup(compact_, options);
        // Count of (l, m, n) with l + m + n <= N, by direct enumeration.
        unsigned int triples = 0;
        for (unsigned int l = 0; l <= N; ++l) {
            for (unsigned int m = 0; l + m <= N; ++m) {
                triples += N - l - m + 1;
            }
        }
        EXPECT_EQ(expansion.NumCoefficients(), triples) << "N " << N;
        EXPECT_EQ(expansion.NumCoefficients(), (N + 1) * (N + 2) * (N + 3) / 6) << "N " << N;
        EXPECT_EQ(expansion.GetCoefficients().size(), triples) << "N " << N;
        // The lambda-derivative vector has one extra final entry.
        EXPECT_EQ(expansion.GetLambdaDerivativeCoefficients().size(), triples + 1u) << "N " << N;
        // K_i = 2^i i! sqrt(pi) for i = 0..N.
        ASSERT_EQ(expansion.GetKCoeffs().size(), N + 1u);
        for (unsigned int i = 0; i <= N; ++i) {
            const double K = std::ldexp(std::tgamma(i + 1.0), static_cast<int>(i)) * std::sqrt(kPi);
            EXPECT_NEAR(expansion.GetKCoeffs()[i], K, 1e-14 * K) << "i " << i;
        }
    }
}

TEST_F(ExpansionTest, FixedLambdaSetupEqualsTransformAndKeepsTheLambdas) {
    QVHermiteOptions options = FixedOptionsSingleWhenEqual(7, 0.85, 0.85, 0.85);
    QVHermite expansion;
    expansion.Setup(compact_, options);

    const QVGaussianToHermite transform(FixedOptionsSingleWhenEqual(7, 0.85, 0.85, 0.85), compact_,
                                        QVHermiteMath::LambdaFirstDerivatives);
    const std::vector<double>& expected = transform.GetHermiteCoefficients();
    ASSERT_EQ(expansion.GetCoefficients().size(), expected.size());
    const double scale = MaxAbs(expected);
    for (std::size_t i = 0; i < expected.size(); ++i) {
        // The same transform: equal to rounding.
        EXPECT_NEAR(expansion.GetCoefficients()[i], expected[i], 1e-14 * scale) << "index " << i;
        EXPECT_EQ(expansion.GetCoefficient(i), expansion.GetCoefficients()[i]) << "index " << i;
    }
    EXPECT_NEAR(expansion.GetSelfOverlap(), transform.GetSelfOverlap(),
                1e-14 * transform.GetSelfOverlap());

    // The options are kept as given, in the object and in the caller's copy.
    for (const QVHermiteOptions* o :
         std::initializer_list<const QVHermiteOptions*>{&options, &expansion.GetOptions()}) {
        EXPECT_EQ(o->GetNPolyMax(), 7u);
        EXPECT_EQ(o->GetLambda(0), 0.85);
        EXPECT_EQ(o->GetLambda(1), 0.85);
        EXPECT_EQ(o->GetLambda(2), 0.85);
        EXPECT_FALSE(o->GetUseOptimalLambdas());
    }
}

TEST_F(ExpansionTest, LambdaDerivativesEqualCentralDifferencesInTheCommonLambda) {
    const unsigned int N = 6;
    const double lambda = 0.9;
    QVHermiteOptions options = FixedOptionsSingleWhenEqual(N, lambda, lambda, lambda);
    QVHermite expansion;
    expansion.Setup(compact_, options);

    // S and c are smooth in lambda on a scale of order one; with h = 1e-4 the truncation error
    // h^2 |f'''| / 6 is ~1e-9 of the magnitude and the rounding error eps / h ~1e-12.
    const double h = 1e-4;
    QVHermiteOptions up = FixedOptionsSingleWhenEqual(N, lambda + h, lambda + h, lambda + h);
    QVHermiteOptions down = FixedOptionsSingleWhenEqual(N, lambda - h, lambda - h, lambda - h);
    QVHermite plus, minus;
    plus.Setup(compact_, up);
    minus.Setup(compact_, down);

    const double S = expansion.GetSelfOverlap();
    EXPECT_NEAR(expansion.GetLambdaDerivative(),
                (plus.GetSelfOverlap() - minus.GetSelfOverlap()) / (2.0 * h), 1e-7 * S);

    const std::vector<double>& dc = expansion.GetLambdaDerivativeCoefficients();
    const double scale = MaxAbs(expansion.GetCoefficients());
    for (std::size_t i = 0; i < expansion.NumCoefficients(); ++i) {
        const double difference =
            (plus.GetCoefficients()[i] - minus.GetCoefficients()[i]) / (2.0 * h);
        EXPECT_NEAR(dc[i], difference, 1e-7 * scale) << "index " << i;
    }
    // The extra final entry carries no coefficient and is zero.
    EXPECT_EQ(dc.back(), 0.0);
}

// ---------------------------------------------------------------------------------------------
// Optimal lambdas

TEST_F(ExpansionTest, OptimalSingleLambdaIsWrittenBackAndNotOptimisedAgain) {
    QVHermiteOptions options = OptimalOptions(5, true, 1.0, 1.0, 1.0);
    QVHermite first;
    first.Setup(compact_, options);

    // The caller's options now hold the lambdas used, all equal, and no longer ask for
    // optimisation; so do the object's own.
    EXPECT_FALSE(options.GetUseOptimalLambdas());
    EXPECT_FALSE(first.GetOptions().GetUseOptimalLambdas());
    const double lambda = options.GetLambda(0);
    EXPECT_EQ(options.GetLambda(1), lambda);
    EXPECT_EQ(options.GetLambda(2), lambda);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        EXPECT_EQ(first.GetOptions().GetLambda(axis), lambda);
    }
    // The optimum is not the start, else this test could not see whether optimisation ran.
    EXPECT_GT(std::fabs(lambda - 1.0), 1e-3);

    // The coefficients are those of the transform with the lambdas written back.
    const QVGaussianToHermite transform(FixedOptionsSingleWhenEqual(5, lambda, lambda, lambda),
                                        compact_, QVHermiteMath::NoDerivatives);
    const double scale = MaxAbs(transform.GetHermiteCoefficients());
    for (std::size_t i = 0; i < transform.GetHermiteCoefficients().size(); ++i) {
        EXPECT_NEAR(first.GetCoefficients()[i], transform.GetHermiteCoefficients()[i],
                    1e-14 * scale);
    }

    // Same options again, same density: the lambdas stay exactly as they are.
    QVHermite second;
    second.Setup(compact_, options);
    EXPECT_EQ(second.GetOptions().GetLambda(0), lambda);
    EXPECT_EQ(second.GetCoefficients(), first.GetCoefficients());

    // Same options with another density, whose own optimum lies elsewhere: were Setup to
    // optimise again the lambda would move; it must stay.
    QVHermiteOptions fresh = OptimalOptions(5, true, 1.0, 1.0, 1.0);
    QVHermite other;
    other.Setup(elongated_, fresh);
    ASSERT_GT(std::fabs(fresh.GetLambda(0) - lambda), 1e-3);

    QVHermite third;
    third.Setup(elongated_, options);
    EXPECT_EQ(options.GetLambda(0), lambda);
    EXPECT_EQ(third.GetOptions().GetLambda(0), lambda);
    EXPECT_EQ(third.GetOptions().GetLambda(2), lambda);
}

TEST_F(ExpansionTest, OptimalThreeLambdasAreWrittenBackAndNotOptimisedAgain) {
    QVHermiteOptions options = OptimalOptions(5, false, 1.0, 1.0, 1.0);
    QVHermite first;
    first.Setup(elongated_, options);

    EXPECT_FALSE(options.GetUseOptimalLambdas());
    EXPECT_FALSE(options.GetUseSingleLambda());
    const double lambdas[3] = {options.GetLambda(0), options.GetLambda(1), options.GetLambda(2)};
    for (unsigned int axis = 0; axis < 3; ++axis) {
        EXPECT_EQ(first.GetOptions().GetLambda(axis), lambdas[axis]);
    }
    // The density is widest along x and narrowest along z, so the best basis is widest (the
    // smallest lambda) along x and narrowest along z.
    EXPECT_LT(lambdas[0], lambdas[1]);
    EXPECT_LT(lambdas[1], lambdas[2]);

    QVHermite second;
    second.Setup(compact_, options);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        EXPECT_EQ(options.GetLambda(axis), lambdas[axis]) << "axis " << axis;
        EXPECT_EQ(second.GetOptions().GetLambda(axis), lambdas[axis]) << "axis " << axis;
    }
}

TEST_F(ExpansionTest, OptimalSingleLambdaMaximisesTheSelfOverlap) {
    const double starts[3][3] = {{1.0, 1.0, 1.0}, {0.5, 0.6, 0.7}, {1.2, 1.8, 1.5}};
    for (const std::vector<QVGaussian>* density :
         std::initializer_list<const std::vector<QVGaussian>*>{&compact_, &elongated_}) {
        for (const auto& start : starts) {
            QVHermiteOptions options = OptimalOptions(5, true, start[0], start[1], start[2]);
            QVHermite expansion;
            expansion.Setup(*density, options);
            // The single optimisation starts from the mean of the three lambdas.
            const double mean = (start[0] + start[1] + start[2]) / 3.0;
            const double common[3] = {mean, mean, mean};
            ExpectStationaryMaximum(*density, options, common);
            const double lambda = options.GetLambda(0);
            EXPECT_NEAR(expansion.GetSelfOverlap(),
                        SelfOverlapAt(*density, 5, lambda, lambda, lambda),
                        1e-13 * expansion.GetSelfOverlap());
        }
    }
}

TEST_F(ExpansionTest, OptimalThreeLambdasMaximiseTheSelfOverlap) {
    const double starts[2][3] = {{1.0, 1.0, 1.0}, {0.6, 0.9, 1.3}};
    for (const std::vector<QVGaussian>* density :
         std::initializer_list<const std::vector<QVGaussian>*>{&compact_, &elongated_}) {
        for (const auto& start : starts) {
            QVHermiteOptions options = OptimalOptions(5, false, start[0], start[1], start[2]);
            QVHermite expansion;
            expansion.Setup(*density, options);
            ExpectStationaryMaximum(*density, options, start);
        }
    }
}

TEST_F(ExpansionTest, ThreeOptimalLambdasGiveAtLeastTheSelfOverlapOfTheBestSingleLambda) {
    // Three free lambdas include the common one as a special case.
    QVHermiteOptions single = OptimalOptions(5, true, 1.0, 1.0, 1.0);
    QVHermiteOptions three = OptimalOptions(5, false, 1.0, 1.0, 1.0);
    QVHermite a, b;
    a.Setup(elongated_, single);
    b.Setup(elongated_, three);
    EXPECT_GE(b.GetSelfOverlap(), a.GetSelfOverlap() * (1.0 - 1e-12));
}

// ---------------------------------------------------------------------------------------------
// Concurrency

TEST_F(ExpansionTest, ConcurrentSetupsInTwoThreadsEqualSetupsInOneThread) {
    // Setups with optimisation in one thread, then the same setups in two threads at once: no
    // shared mutable state, so the results are bitwise identical.
    QVHermiteOptions singleOptions = OptimalOptions(6, true, 1.0, 1.0, 1.0);
    QVHermiteOptions threeOptions = OptimalOptions(6, false, 1.0, 1.0, 1.0);
    QVHermite singleSerial, threeSerial;
    singleSerial.Setup(compact_, singleOptions);
    threeSerial.Setup(elongated_, threeOptions);

    for (unsigned int repeat = 0; repeat < 3; ++repeat) {
        QVHermiteOptions singleThreaded = OptimalOptions(6, true, 1.0, 1.0, 1.0);
        QVHermiteOptions threeThreaded = OptimalOptions(6, false, 1.0, 1.0, 1.0);
        QVHermite singleParallel, threeParallel;
        std::thread first([&] { singleParallel.Setup(compact_, singleThreaded); });
        std::thread second([&] { threeParallel.Setup(elongated_, threeThreaded); });
        first.join();
        second.join();

        EXPECT_EQ(singleParallel.GetCoefficients(), singleSerial.GetCoefficients());
        EXPECT_EQ(threeParallel.GetCoefficients(), threeSerial.GetCoefficients());
        EXPECT_EQ(singleParallel.GetLambdaDerivativeCoefficients(),
                  singleSerial.GetLambdaDerivativeCoefficients());
        EXPECT_EQ(singleParallel.GetSelfOverlap(), singleSerial.GetSelfOverlap());
        EXPECT_EQ(threeParallel.GetSelfOverlap(), threeSerial.GetSelfOverlap());
        for (unsigned int axis = 0; axis < 3; ++axis) {
            EXPECT_EQ(singleThreaded.GetLambda(axis), singleOptions.GetLambda(axis));
            EXPECT_EQ(threeThreaded.GetLambda(axis), threeOptions.GetLambda(axis));
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Rotation

TEST_F(ExpansionTest, RotatedCoefficientsEqualExpansionOfRotatedGaussians) {
    const unsigned int N = 8;
    const double lambda = 0.9;
    const double angles[3][3] = {{0.4, -0.3, 0.7}, {-1.1, 0.9, 2.4}, {2.9, -1.2, -0.6}};
    for (const auto& a : angles) {
        const std::vector<double> R = QVHermiteMath::RotFromEulerXYZ(a[0], a[1], a[2]);
        // Centres turned in double, r' = R r, then stored in single precision.
        const std::vector<QVGaussian> turned = TurnedInFloat(compact_, R);

        QVHermiteOptions options = FixedOptionsSingleWhenEqual(N, lambda, lambda, lambda);
        QVHermite rotated, direct;
        rotated.Setup(compact_, options);
        direct.Setup(turned, options);
        const std::vector<double> before = rotated.GetCoefficients();
        EXPECT_TRUE(rotated.RotateHermites(R));

        // The stored centres differ from the exact turned ones by ~1e-7 (single precision);
        // the coefficients move by that times their centre derivatives, a few 1e-7 of their
        // size. A wrong direction or index order would give differences of order one.
        const double scale = MaxAbs(direct.GetCoefficients());
        for (std::size_t i = 0; i < before.size(); ++i) {
            EXPECT_NEAR(rotated.GetCoefficients()[i], direct.GetCoefficients()[i], 1e-6 * scale)
                << "index " << i;
        }
        // Rotation keeps the self-overlap (the expansion's norm).
        const std::vector<double> K = rotated.GetKCoeffs();
        double norm = 0.0;
        std::size_t i = 0;
        for (unsigned int s = 0; s <= N; ++s) {
            for (unsigned int l = 0; l <= s; ++l) {
                for (unsigned int m = 0; m <= s - l; ++m, ++i) {
                    const double c = rotated.GetCoefficients()[i];
                    norm += c * c * K[l] * K[m] * K[s - l - m];
                }
            }
        }
        norm /= lambda * lambda * lambda;
        EXPECT_NEAR(norm, rotated.GetSelfOverlap(), 1e-12 * norm);
    }
}

}  // namespace
