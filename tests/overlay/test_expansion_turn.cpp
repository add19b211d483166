// Turning expansions of one lambda in coefficient space: the turned coefficients are those of
// the expansion of the turned Gaussians, turns compose like the rotations, and a half-turn
// about an axis only flips signs.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "hermite/hermite.h"
#include "overlay/expansion_turn.h"
#include "overlay/fast_overlap.h"
#include "overlay/overlay.h"

namespace {

using hermite::overlay::Expansion;
using hermite::overlay::ExpansionTurn;
using QVSystem::QVGaussian;

/// Gaussians of mixed prefactors and exponents at pseudo-random centres within 3 angstrom of
/// the origin.
std::vector<QVGaussian> Density(std::uint32_t seed, unsigned int count) {
    std::mt19937 engine(seed);
    const auto uniform = [&engine] { return static_cast<double>(engine()) / 4294967296.0; };
    std::vector<QVGaussian> gaussians;
    for (unsigned int i = 0; i < count; ++i) {
        const float centre[3] = {static_cast<float>(6 * uniform() - 3),
                                 static_cast<float>(6 * uniform() - 3),
                                 static_cast<float>(6 * uniform() - 3)};
        gaussians.emplace_back(static_cast<float>(1 + 2 * uniform()),
                               static_cast<float>(0.5 + uniform()), centre, 0u);
    }
    return gaussians;
}

/// The rotation of the unit quaternion (w, x, y, z), normalised.
std::vector<double> Rotation(double w, double x, double y, double z) {
    const double norm = std::sqrt(w * w + x * x + y * y + z * z);
    w /= norm;
    x /= norm;
    y /= norm;
    z /= norm;
    return {1 - 2 * (y * y + z * z), 2 * (x * y - w * z),     2 * (x * z + w * y),
            2 * (x * y + w * z),     1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
            2 * (x * z - w * y),     2 * (y * z + w * x),     1 - 2 * (x * x + y * y)};
}

std::vector<double> Turned(const ExpansionTurn& turn, const std::vector<double>& R,
                           const std::vector<double>& coefficients) {
    std::vector<double> turned(turn.Size());
    turn.Apply(turn.MapOf(R.data()).data(), coefficients.data(), turned.data());
    return turned;
}

double LargestMagnitude(const std::vector<double>& values) {
    double largest = 0.0;
    for (const double v : values) {
        largest = std::max(largest, std::abs(v));
    }
    return largest;
}

// The oracle: the expansion of the Gaussians turned about the origin (centres turned in double
// precision, rounded to float as the density stores them) holds the same coefficients, to the
// rounding of the stored centres.
TEST(ExpansionTurnTest, TurnedCoefficientsAreThoseOfTheTurnedGaussians) {
    const std::vector<QVGaussian> density = Density(7u, 12);
    const std::vector<double> R = Rotation(0.8, 0.2, -0.4, 0.4);
    const double zero[3] = {0.0, 0.0, 0.0};
    const std::vector<QVGaussian> turnedDensity =
        hermite::overlay::MovedGaussians(density, QVChem::QVTrans(R.data(), zero));
    for (const unsigned int order : {1u, 4u, 6u}) {
        const double lambda[3] = {1.3, 1.3, 1.3};
        const Expansion expansion = Expansion::Of(density, order, lambda);
        const Expansion expected = Expansion::Of(turnedDensity, order, lambda);
        const ExpansionTurn turn(order);
        ASSERT_EQ(turn.Size(), expansion.coefficients.size());
        const std::vector<double> turned = Turned(turn, R, expansion.coefficients);
        const double scale = LargestMagnitude(expected.coefficients);
        for (std::size_t i = 0; i < turned.size(); ++i) {
            EXPECT_NEAR(turned[i], expected.coefficients[i], 1e-6 * scale)
                << "order " << order << ", coefficient " << i;
        }
    }
}

// Turning by R1, then by R2, is turning by R2 R1; turning by R then by R^T gives the
// coefficients back. Both hold to rounding, without re-expanding anything.
TEST(ExpansionTurnTest, TurnsComposeLikeTheRotations) {
    const unsigned int order = 5;
    const double lambda[3] = {1.1, 1.1, 1.1};
    const std::vector<double> c = Expansion::Of(Density(11u, 9), order, lambda).coefficients;
    const ExpansionTurn turn(order);
    const std::vector<double> R1 = Rotation(0.3, -0.9, 0.2, 0.5);
    const std::vector<double> R2 = Rotation(-0.6, 0.1, 0.7, 0.35);
    std::vector<double> R21(9), R1t(9);
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            R21[3 * i + j] =
                R2[3 * i] * R1[j] + R2[3 * i + 1] * R1[3 + j] + R2[3 * i + 2] * R1[6 + j];
            R1t[3 * i + j] = R1[3 * j + i];
        }
    }
    const std::vector<double> twice = Turned(turn, R2, Turned(turn, R1, c));
    const std::vector<double> once = Turned(turn, R21, c);
    const std::vector<double> back = Turned(turn, R1t, Turned(turn, R1, c));
    const double scale = LargestMagnitude(c);
    for (std::size_t i = 0; i < c.size(); ++i) {
        EXPECT_NEAR(twice[i], once[i], 1e-12 * scale) << "coefficient " << i;
        EXPECT_NEAR(back[i], c[i], 1e-12 * scale) << "coefficient " << i;
    }
}

// A half-turn about x takes (x, y, z) to (x, -y, -z): the coefficient of (l, m, n) changes sign
// with m + n, exactly.
TEST(ExpansionTurnTest, AHalfTurnAboutAnAxisOnlyFlipsSigns) {
    const unsigned int order = 4;
    const double lambda[3] = {1.0, 1.0, 1.0};
    const std::vector<double> c = Expansion::Of(Density(3u, 6), order, lambda).coefficients;
    const ExpansionTurn turn(order);
    const std::vector<double> halfTurn = {1, 0, 0, 0, -1, 0, 0, 0, -1};
    const std::vector<double> turned = Turned(turn, halfTurn, c);
    std::size_t i = 0;
    for (unsigned int degree = 0; degree <= order; ++degree) {
        for (unsigned int l = 0; l <= degree; ++l) {
            for (unsigned int m = 0; m <= degree - l; ++m, ++i) {
                const unsigned int n = degree - l - m;
                EXPECT_EQ(turned[i], (m + n) % 2 == 0 ? c[i] : -c[i]) << l << m << n;
            }
        }
    }
}

}  // namespace
