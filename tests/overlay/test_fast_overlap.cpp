// The fused evaluation of the overlap objective against the objective object of the library,
// and the exact-overlap refinement objective against finite differences and the library's
// analytic overlap.

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <random>
#include <vector>

#include "../support/test_support.h"
#include "hermite/hermite.h"
#include "overlay/exact_overlap.h"
#include "overlay/fast_overlap.h"
#include "overlay/overlay.h"

namespace {

using hermite::overlay::ExactOverlapObjective;
using hermite::overlay::Expansion;
using hermite::overlay::FastOverlap;
using QVHermiteMath::QVHermite;
using QVHermiteMath::QVHermiteOptions;
using QVHermiteMath::QVHermiteOverlap;
using QVSystem::QVGaussian;

/// Carbon-sized Gaussians at fixed pseudo-random centres in a box of edge 6 angstrom.
std::vector<QVGaussian> Molecule(std::uint32_t seed, unsigned int count) {
    std::mt19937 engine(seed);
    const auto coordinate = [&engine] {
        return static_cast<float>(6.0 * (static_cast<double>(engine()) / 4294967296.0 - 0.5));
    };
    std::vector<QVGaussian> gaussians;
    for (unsigned int i = 0; i < count; ++i) {
        const float x = coordinate(), y = coordinate(), z = coordinate();
        const float centre[3] = {x, y, z};
        gaussians.emplace_back(2.7f, 0.811151803f, centre, 0u);
    }
    return gaussians;
}

struct Case {
    unsigned int referenceOrder, fitOrder;
    double referenceLambda[3], fitLambda[3];
};

/// Values and gradients agree with the objective object to the last bit or to a few ulps: the
/// fused path performs the same operations in the same order.
TEST(FastOverlapTest, EqualsTheObjectiveObjectToRounding) {
    const std::vector<Case> cases = {
        {5, 5, {0.6, 0.6, 0.6}, {0.6, 0.6, 0.6}},
        {4, 6, {0.55, 0.55, 0.55}, {0.55, 0.55, 0.55}},
        {6, 3, {0.7, 0.8, 0.9}, {0.65, 0.75, 0.85}},
        {0, 2, {1.0, 1.0, 1.0}, {1.0, 1.0, 1.0}},
    };
    const std::vector<std::vector<double>> poses = {
        {0, 0, 0, 0, 0, 0},
        {0.3, -0.2, 1.2, 0.5, -0.4, 0.2},
        {-2.5, 1.4, 3.0, -1.5, 2.0, 0.75},
    };
    for (const Case& c : cases) {
        QVHermiteOptions referenceOptions = hermite_test::FixedOptions(
            c.referenceOrder, c.referenceLambda[0], c.referenceLambda[1], c.referenceLambda[2]);
        QVHermiteOptions fitOptions =
            hermite_test::FixedOptions(c.fitOrder, c.fitLambda[0], c.fitLambda[1], c.fitLambda[2]);
        const std::vector<QVGaussian> reference = Molecule(11u, 12), fit = Molecule(12u, 9);
        QVHermiteOverlap objective;
        QVHermiteOptions o1 = referenceOptions, o2 = fitOptions;
        objective.SetupRef(reference, o1);
        objective.Setup(fit, o2);
        QVHermite referenceExpansion, fitExpansion;
        referenceExpansion.Setup(reference, referenceOptions);
        fitExpansion.Setup(fit, fitOptions);
        FastOverlap fast(Expansion::From(referenceExpansion), Expansion::From(fitExpansion));

        for (const std::vector<double>& x : poses) {
            double expectedGradient[6], gradient[6];
            const double expected = objective(x.data(), expectedGradient);
            const double value = fast(x.data(), gradient);
            const double scale = std::fabs(expected) + 1e-300;
            EXPECT_NEAR(value, expected, 1e-14 * scale);
            EXPECT_NEAR(fast(x.data()), objective(x.data()), 1e-14 * scale);
            for (int i = 0; i < 6; ++i) {
                EXPECT_NEAR(gradient[i], expectedGradient[i], 1e-13 * scale) << i;
            }
        }
    }
}

/// The direct expansion sums the library transform's terms four Gaussians at a time, with each
/// one-axis table divided by its K before the products: its coefficients and self-overlap equal
/// the transform's to rounding.
TEST(FastExpansionTest, EqualsTheLibraryTransformToRounding) {
    const std::vector<QVGaussian> gaussians = Molecule(31u, 17);
    for (unsigned int order : {0u, 1u, 5u, 9u}) {
        const double lambda[3] = {0.55, 0.7, 0.9};
        const QVHermiteOptions options =
            hermite_test::FixedOptions(order, lambda[0], lambda[1], lambda[2]);
        const QVHermiteMath::QVGaussianToHermite transform(options, gaussians, 0);
        const Expansion direct = Expansion::Of(gaussians, order, lambda);
        const std::vector<double>& expected = transform.GetHermiteCoefficients();
        ASSERT_EQ(direct.coefficients.size(), expected.size());
        const double largest = hermite_test::MaxAbs(expected);
        for (std::size_t i = 0; i < direct.coefficients.size(); ++i) {
            EXPECT_NEAR(direct.coefficients[i], expected[i], 1e-14 * largest) << order << " " << i;
        }
        EXPECT_NEAR(direct.SelfOverlap(), transform.GetSelfOverlap(),
                    1e-14 * transform.GetSelfOverlap());
    }
}

/// Shifted expansions share the tables of the axes a shift leaves alone, and are still the
/// expansions of the moved Gaussians to the last bit: with runs of mixed exponents, shifts along
/// one axis and along several, and a shift back to rest.
TEST(FastExpansionTest, ShiftedExpansionsEqualExpansionsOfMovedGaussians) {
    const float exponents[4] = {0.811151803f, 0.811151803f, 0.35f, 1.2f};
    std::vector<QVGaussian> gaussians;
    for (const QVGaussian& g : Molecule(7u, 12)) {
        const float centre[3] = {g.GetX(), g.GetY(), g.GetZ()};
        gaussians.emplace_back(2.7f, exponents[gaussians.size() % 4], centre, 0u);
    }
    const std::vector<std::array<double, 3>> shifts = {
        {0.0, 0.0, 0.0},  {-1.25, 0.0, 0.0}, {0.0, 0.3, 0.0}, {0.0, 0.0, 1.25},
        {0.7, -0.2, 2.1}, {0.0, 0.3, 1.25},  {0.0, 0.0, 0.0}};
    for (unsigned int order : {0u, 1u, 4u, 7u}) {
        const double lambda[3] = {0.55, 0.7, 0.9};
        const std::vector<Expansion> shifted =
            Expansion::OfShifts(gaussians, order, lambda, shifts);
        ASSERT_EQ(shifted.size(), shifts.size());
        for (std::size_t j = 0; j < shifts.size(); ++j) {
            const double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
            const Expansion moved =
                Expansion::Of(hermite::overlay::MovedGaussians(
                                  gaussians, QVChem::QVTrans(identity, shifts[j].data())),
                              order, lambda);
            EXPECT_EQ(shifted[j].order, order);
            EXPECT_EQ(shifted[j].lambda[2], lambda[2]);
            ASSERT_EQ(shifted[j].coefficients.size(), moved.coefficients.size());
            for (std::size_t i = 0; i < moved.coefficients.size(); ++i) {
                EXPECT_EQ(shifted[j].coefficients[i], moved.coefficients[i]) << order << " " << j;
            }
        }
    }
    // A shift moves the expansion: the x-shifted coefficients differ from those at rest.
    const double lambda[3] = {0.6, 0.6, 0.6};
    const std::vector<Expansion> two =
        Expansion::OfShifts(gaussians, 2, lambda, {shifts[0], shifts[1]});
    EXPECT_NE(two[0].coefficients[1], two[1].coefficients[1]);
    EXPECT_TRUE(Expansion::OfShifts(gaussians, 2, lambda, {}).empty());
}

/// Replacing the fit coefficients is the same as building the evaluation for the new fit.
TEST(FastOverlapTest, SetFitCoefficientsEqualsANewEvaluation) {
    QVHermiteOptions options = hermite_test::FixedOptions(5, 0.6, 0.6, 0.6);
    QVHermite reference, first, second;
    QVHermiteOptions o1 = options, o2 = options, o3 = options;
    reference.Setup(Molecule(1u, 10), o1);
    first.Setup(Molecule(2u, 10), o2);
    second.Setup(Molecule(3u, 10), o3);
    FastOverlap reused(Expansion::From(reference), Expansion::From(first));
    reused.SetFitCoefficients(second.GetCoefficients());
    FastOverlap fresh(Expansion::From(reference), Expansion::From(second));
    const double x[6] = {0.4, 0.1, -0.3, 0.2, 0.3, -0.1};
    EXPECT_EQ(reused(x), fresh(x));
}

/// Each entry of the analytic `gradient` of `objective` at `y` equals the central difference
/// with step 1e-5 (error O(h^2)) within `tolerance`.
void ExpectCentralDifferences(ExactOverlapObjective& objective, const double* y,
                              const double* gradient, double tolerance) {
    const double h = 1e-5;
    for (int i = 0; i < 6; ++i) {
        double plus[6], minus[6];
        for (int j = 0; j < 6; ++j) {
            plus[j] = minus[j] = y[j];
        }
        plus[i] += h;
        minus[i] -= h;
        const double difference = (objective(plus) - objective(minus)) / (2 * h);
        EXPECT_NEAR(gradient[i], difference, tolerance) << i;
    }
}

/// The exact objective's value is minus the library's analytic overlap of the moved density,
/// and its gradient equals central differences (error O(h^2)).
TEST(ExactOverlapObjectiveTest, ValueAndGradientAreExact) {
    const std::vector<QVGaussian> fixed = Molecule(21u, 10), moving = Molecule(22u, 8);
    ExactOverlapObjective objective(fixed, moving);
    const double y[6] = {0.3, -0.4, 0.8, 0.25, -0.5, 0.1};
    double gradient[6];
    const double value = objective(y, gradient);

    const std::vector<QVGaussian> moved =
        hermite::overlay::MovedGaussians(moving, objective.Motion(y));
    // Moved centres are stored as floats (relative error about 1e-7 per coordinate), and the
    // objective leaves out the terms beyond its cut-off.
    EXPECT_NEAR(-value, QVHermiteMath::GaussianOverlap(fixed, moved),
                1e-5 * std::fabs(value) +
                    hermite_test::CutOffTermsBound(fixed, moving, ExactOverlapObjective::kCutoff));

    ExpectCentralDifferences(objective, y, gradient, 1e-6 * std::fabs(value));
}

/// Gaussians of mixed widths scattered over a box of `size` angstrom (a fixed seed per call).
std::vector<QVGaussian> Scattered(unsigned int seed, unsigned int count, double size) {
    std::mt19937_64 engine(seed);
    std::uniform_real_distribution<double> coordinate(0.0, size), exponent(0.4, 1.2);
    std::vector<QVGaussian> gaussians;
    for (unsigned int i = 0; i < count; ++i) {
        const float centre[3] = {static_cast<float>(coordinate(engine)),
                                 static_cast<float>(coordinate(engine)),
                                 static_cast<float>(coordinate(engine))};
        gaussians.emplace_back(2.7f, static_cast<float>(exponent(engine)), centre, 0u);
    }
    return gaussians;
}

/// The objective's value and gradient at y equal a plain sum over every pair of one channel
/// with the same cut-off, to rounding.
void ExpectPlainSum(const std::vector<QVGaussian>& fixed, const std::vector<QVGaussian>& moving,
                    const std::vector<unsigned int>& fixedChannels,
                    const std::vector<unsigned int>& movingChannels) {
    ExactOverlapObjective objective(fixed, moving, fixedChannels, movingChannels);
    const double y[6] = {0.3, -0.2, 0.9, 1.5, -2.0, 0.5};
    double gradient[6];
    const double value = objective(y, gradient);

    // The plain sum, with every centre moved in double precision, p -> R (p - g) + g + t with
    // R = Rx Ry Rz and g the mean centre, and every pair's constants.
    const std::vector<double> R = QVHermiteMath::RotFromEulerXYZ(y[0], y[1], y[2]);
    double g[3] = {0, 0, 0};
    for (const QVGaussian& m : moving) {
        g[0] += m.GetX() / double(moving.size());
        g[1] += m.GetY() / double(moving.size());
        g[2] += m.GetZ() / double(moving.size());
    }
    double overlap = 0.0;
    for (std::size_t j = 0; j < moving.size(); ++j) {
        const QVGaussian& m = moving[j];
        const double r[3] = {m.GetX() - g[0], m.GetY() - g[1], m.GetZ() - g[2]};
        double p[3];
        for (int i = 0; i < 3; ++i) {
            p[i] = R[3 * i] * r[0] + R[3 * i + 1] * r[1] + R[3 * i + 2] * r[2] + g[i] + y[3 + i];
        }
        for (std::size_t i = 0; i < fixed.size(); ++i) {
            const QVGaussian& f = fixed[i];
            const double a = f.GetExponent(), b = m.GetExponent();
            const double k = a * b / (a + b);
            const double d2 = (f.GetX() - p[0]) * (f.GetX() - p[0]) +
                              (f.GetY() - p[1]) * (f.GetY() - p[1]) +
                              (f.GetZ() - p[2]) * (f.GetZ() - p[2]);
            if (fixedChannels[i] == movingChannels[j] && k * d2 <= ExactOverlapObjective::kCutoff) {
                overlap += double(f.GetPrefactor()) * m.GetPrefactor() *
                           std::pow(3.141592653589793 / (a + b), 1.5) * std::exp(-k * d2);
            }
        }
    }
    ASSERT_GT(overlap, 0.0);
    EXPECT_NEAR(-value, overlap, 1e-10 * overlap);

    ExpectCentralDifferences(objective, y, gradient, 1e-5 * std::fabs(value));
    // A motion far from everything overlaps nothing.
    const double away[6] = {0, 0, 0, 1e6, 0, 0};
    EXPECT_EQ(objective(away), 0.0);
}

/// Densities larger than the cut-off reach are summed through cells: the value and gradient
/// equal a plain sum over every pair, with one channel and with several (each with its own
/// grid; moving centres of a channel the fixed density lacks overlap nothing).
TEST(ExactOverlapObjectiveTest, CellsGiveThePlainSumOverEveryPair) {
    const std::vector<QVGaussian> fixed = Scattered(41u, 300, 40.0);
    const std::vector<QVGaussian> moving = Scattered(42u, 200, 30.0);
    ExpectPlainSum(fixed, moving, std::vector<unsigned int>(fixed.size(), 0),
                   std::vector<unsigned int>(moving.size(), 0));
    std::vector<unsigned int> fixedChannels, movingChannels;
    for (std::size_t i = 0; i < fixed.size(); ++i) {
        fixedChannels.push_back(static_cast<unsigned int>(i % 3) * 7);
    }
    for (std::size_t j = 0; j < moving.size(); ++j) {
        movingChannels.push_back(static_cast<unsigned int>(j % 4) * 7);
    }
    ExpectPlainSum(fixed, moving, fixedChannels, movingChannels);
}

/// One pair at every distance up to the cut-off: the value is C e^(-k d^2) to a few units of
/// the last place.
TEST(ExactOverlapObjectiveTest, OnePairFollowsTheClosedFormUpToTheCutoff) {
    const float origin[3] = {0.0f, 0.0f, 0.0f};
    const std::vector<QVGaussian> fixed = {QVGaussian(2.7f, 0.8f, origin, 0u)};
    // The Gaussians' single-precision parameters, exactly.
    const double a = 0.8f, b = 1.3f;
    const double k = a * b / (a + b);
    const double C = double(2.7f) * 1.5 * std::pow(3.141592653589793 / (a + b), 1.5);
    double worst = 0.0;
    for (int step = 0; step < 4000; ++step) {  // the last one just inside the cut-off
        const double d = step * std::sqrt(ExactOverlapObjective::kCutoff / k) / 4000.0;
        const float centre[3] = {static_cast<float>(d), 0.0f, 0.0f};
        ExactOverlapObjective objective(fixed, {QVGaussian(1.5f, 1.3f, centre, 0u)});
        const double zero[6] = {0, 0, 0, 0, 0, 0};
        const double x = static_cast<double>(static_cast<float>(d));
        const double expected = C * std::exp(-k * x * x);
        worst = std::max(worst, std::fabs(-objective(zero) - expected) / expected);
    }
    EXPECT_LT(worst, 1e-14);
}

/// Moving the density to other positions is the same as making the objective for them.
TEST(ExactOverlapObjectiveTest, SetMovingEqualsANewObjective) {
    const std::vector<QVGaussian> fixed = Molecule(31u, 9), first = Molecule(32u, 7);
    std::vector<QVGaussian> second = first;
    for (std::size_t i = 0; i < second.size(); ++i) {
        second[i].SetX(second[i].GetX() + 0.5f * static_cast<float>(i));
        second[i].SetZ(second[i].GetZ() - 1.25f);
    }
    ExactOverlapObjective reused(fixed, first);
    reused.SetMoving(second);
    ExactOverlapObjective fresh(fixed, second);
    const double y[6] = {0.2, -0.7, 0.4, -0.3, 0.6, 0.15};
    double reusedGradient[6], freshGradient[6];
    EXPECT_EQ(reused(y, reusedGradient), fresh(y, freshGradient));
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(reusedGradient[i], freshGradient[i]) << i;
    }
}

/// The motion turns the moving density about its mean centre: a pure rotation keeps the mean
/// centre in place, and a pure translation moves every centre by t.
TEST(ExactOverlapObjectiveTest, MotionTurnsAboutTheMeanCentre) {
    const std::vector<QVGaussian> moving = Molecule(5u, 6);
    ExactOverlapObjective objective(Molecule(6u, 6), moving);
    double mean[3] = {0, 0, 0};
    for (const QVGaussian& g : moving) {
        mean[0] += g.GetX() / 6.0;
        mean[1] += g.GetY() / 6.0;
        mean[2] += g.GetZ() / 6.0;
    }
    const double turn[6] = {0.7, -0.2, 1.9, 0, 0, 0};
    double p[3] = {mean[0], mean[1], mean[2]};
    objective.Motion(turn).Apply(p);
    for (int i = 0; i < 3; ++i) {
        EXPECT_NEAR(p[i], mean[i], 1e-12);
    }
    const double shift[6] = {0, 0, 0, 1.5, -2.0, 0.25};
    double q[3] = {1.0, 2.0, 3.0};
    objective.Motion(shift).Apply(q);
    EXPECT_NEAR(q[0], 2.5, 1e-12);
    EXPECT_NEAR(q[1], 0.0, 1e-12);
    EXPECT_NEAR(q[2], 3.25, 1e-12);
}

/// Compares the value, gradient and Hessian of `Curvature` with the value and gradient of the
/// objective (the negated overlap) and with central differences of that gradient.
void ExpectCurvatureMatchesDifferences(hermite::overlay::ExactOverlapObjective& objective) {
    double g[6], H[36], g0[6];
    const double value = objective.Curvature(g, H);
    const double zero[6] = {0, 0, 0, 0, 0, 0};
    const double reference = -objective(zero, g0);
    EXPECT_NEAR(value, reference, 1e-13 * reference);
    double largest = 0.0;
    for (int i = 0; i < 36; ++i) {
        largest = std::max(largest, std::abs(H[i]));
    }
    ASSERT_GT(largest, 0.0);
    const double h = 1e-5;
    for (int i = 0; i < 6; ++i) {
        EXPECT_NEAR(g[i], -g0[i], 1e-12 * reference) << i;
        double yp[6] = {0, 0, 0, 0, 0, 0}, ym[6] = {0, 0, 0, 0, 0, 0};
        yp[i] = h;
        ym[i] = -h;
        double gp[6], gm[6];
        objective(yp, gp);
        objective(ym, gm);
        for (int j = 0; j < 6; ++j) {
            // Differences of the negated overlap's gradient; error O(h^2) of the Hessian's scale.
            EXPECT_NEAR(H[6 * i + j], -(gp[j] - gm[j]) / (2 * h), 1e-6 * largest) << i << ", " << j;
            EXPECT_EQ(H[6 * i + j], H[6 * j + i]) << i << ", " << j;
        }
    }
}

// The Hessian of the Newton refinement, in one channel and in several (shape and two colour
// types), at the centres as given and after they were moved.
TEST(ExactOverlapObjectiveTest, CurvatureMatchesDifferencesOfTheGradient) {
    const std::vector<QVGaussian> fixed = hermite_test::MakeDensity(20, 3u, 3, 2, 1.5);
    const std::vector<QVGaussian> moving = hermite_test::MakeDensity(15, 4u, 2.5, 2, 1.5);
    ExactOverlapObjective single(fixed, moving);
    ExpectCurvatureMatchesDifferences(single);
    const double turn[6] = {0.3, -0.2, 0.5, 0.4, -0.3, 0.2};
    single.SetMoving(hermite::overlay::MovedGaussians(moving, single.Motion(turn)));
    ExpectCurvatureMatchesDifferences(single);
    std::vector<unsigned int> fixedChannels(fixed.size()), movingChannels(moving.size());
    for (std::size_t i = 0; i < fixed.size(); ++i) {
        fixedChannels[i] = static_cast<unsigned int>(i % 3);
    }
    for (std::size_t i = 0; i < moving.size(); ++i) {
        movingChannels[i] = static_cast<unsigned int>(i % 3);
    }
    ExactOverlapObjective channels(fixed, moving, fixedChannels, movingChannels);
    ExpectCurvatureMatchesDifferences(channels);
}

}  // namespace
