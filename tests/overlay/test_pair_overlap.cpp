// The exact pair sums that score overlays: against the term-by-term sum with the standard
// exponential, against the closed form of two Gaussians, and on the cases where terms vanish
// (other tags, distances beyond the exponential's range, empty densities).

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "hermite/hermite.h"
#include "overlay/pair_overlap.h"

namespace {

using hermite::overlay::Pairing;
using hermite::overlay::PairOverlap;
using hermite::overlay::SelfOverlap;
using QVSystem::QVGaussian;

constexpr double kPi = 3.141592653589793;

/// `count` Gaussians in a box of edge `edge` angstrom, with exponents of three elements,
/// prefactors of either sign (as the electrostatic densities have) and tags 0 to 2.
std::vector<QVGaussian> RandomGaussians(std::uint32_t seed, unsigned int count, double edge) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<double> coordinate(-edge / 2, edge / 2);
    std::uniform_real_distribution<double> prefactor(-1.5, 3.0);
    const float exponents[3] = {0.836f, 0.905f, 1.1f};
    std::vector<QVGaussian> gaussians;
    for (unsigned int i = 0; i < count; ++i) {
        const float centre[3] = {static_cast<float>(coordinate(engine)),
                                 static_cast<float>(coordinate(engine)),
                                 static_cast<float>(coordinate(engine))};
        gaussians.emplace_back(static_cast<float>(prefactor(engine)), exponents[i % 3], centre,
                               (i / 3) % 3);
    }
    return gaussians;
}

/// The sum over pairs of the tags `pairing` lets overlap, term by term with std::exp.
double TermByTerm(const std::vector<QVGaussian>& a, const std::vector<QVGaussian>& b,
                  Pairing pairing) {
    double sum = 0.0;
    for (const QVGaussian& ga : a) {
        for (const QVGaussian& gb : b) {
            if (pairing == Pairing::All || ga.GetTag() == gb.GetTag()) {
                sum += QVHermiteMath::GaussianOverlap(ga, gb);
            }
        }
    }
    return sum;
}

/// The sum of the magnitudes of the terms: the scale of the rounding errors of a signed sum.
double MagnitudeScale(const std::vector<QVGaussian>& a, const std::vector<QVGaussian>& b) {
    double sum = 0.0;
    for (const QVGaussian& ga : a) {
        for (const QVGaussian& gb : b) {
            sum += std::abs(QVHermiteMath::GaussianOverlap(ga, gb));
        }
    }
    return sum;
}

TEST(PairOverlapTest, TwoGaussiansGiveTheClosedForm) {
    // w1 w2 (pi / (a1 + a2))^(3/2) exp(-a1 a2 / (a1 + a2) d^2) at d = 1.5 angstrom.
    const float origin[3] = {0.0f, 0.0f, 0.0f}, apart[3] = {0.0f, 1.5f, 0.0f};
    const std::vector<QVGaussian> a = {QVGaussian(2.0f, 0.5f, origin, 0)};
    const std::vector<QVGaussian> b = {QVGaussian(3.0f, 1.5f, apart, 0)};
    const double expected = 6.0 * std::pow(kPi / 2.0, 1.5) * std::exp(-0.375 * 2.25);
    EXPECT_NEAR(PairOverlap(a, b), expected, 1e-14 * expected);
    EXPECT_NEAR(PairOverlap(b, a), expected, 1e-14 * expected);
}

TEST(PairOverlapTest, MatchesTheTermByTermSumWithTheStandardExponential) {
    // 70 against 55 Gaussians: blocks of the vectorised sum end part-way, and every term
    // from exp(0) to exp(-200) occurs.
    const std::vector<QVGaussian> a = RandomGaussians(11u, 70, 20.0);
    const std::vector<QVGaussian> b = RandomGaussians(12u, 55, 20.0);
    for (const Pairing pairing : {Pairing::All, Pairing::SameTag}) {
        const double expected = TermByTerm(a, b, pairing);
        EXPECT_NEAR(PairOverlap(a, b, pairing), expected, 1e-14 * MagnitudeScale(a, b));
        EXPECT_NEAR(SelfOverlap(a, pairing), TermByTerm(a, a, pairing),
                    1e-14 * MagnitudeScale(a, a));
    }
}

TEST(PairOverlapTest, SelfOverlapIsThePairOverlapOfADensityWithItself) {
    const std::vector<QVGaussian> a = RandomGaussians(5u, 131, 12.0);
    EXPECT_NEAR(SelfOverlap(a), PairOverlap(a, a), 1e-14 * MagnitudeScale(a, a));
    // A positive density overlaps itself positively: the carbon-like shape of a molecule.
    std::vector<QVGaussian> shape;
    for (const QVGaussian& g : a) {
        const float centre[3] = {g.GetX(), g.GetY(), g.GetZ()};
        shape.emplace_back(2.7f, g.GetExponent(), centre, 0u);
    }
    EXPECT_GT(SelfOverlap(shape), 0.0);
    EXPECT_NEAR(SelfOverlap(shape), TermByTerm(shape, shape, Pairing::All),
                1e-14 * SelfOverlap(shape));
}

TEST(PairOverlapTest, GaussiansOfOtherTagsDoNotOverlapWhenPairedByTag) {
    const float centre[3] = {0.2f, -0.1f, 0.4f};
    const std::vector<QVGaussian> a = {QVGaussian(2.7f, 0.3f, centre, 1)};
    const std::vector<QVGaussian> b = {QVGaussian(2.7f, 0.3f, centre, 2)};
    EXPECT_EQ(PairOverlap(a, b, Pairing::SameTag), 0.0);
    const double w = 2.7f, exponentSum = 2.0 * static_cast<double>(0.3f);
    const double expected = w * w * std::pow(kPi / exponentSum, 1.5);
    EXPECT_NEAR(PairOverlap(a, b, Pairing::All), expected, 1e-14 * expected);
}

TEST(PairOverlapTest, TermsBeyondTheExponentialsRangeAreZero) {
    // k d^2 = 0.25 * 100^2 = 2500: e^-2500 is no double, and the pair adds nothing.
    const float origin[3] = {0.0f, 0.0f, 0.0f}, far[3] = {100.0f, 0.0f, 0.0f};
    const std::vector<QVGaussian> a = {QVGaussian(1.0f, 0.5f, origin, 0)};
    const std::vector<QVGaussian> b = {QVGaussian(1.0f, 0.5f, far, 0)};
    EXPECT_EQ(PairOverlap(a, b), 0.0);
    const std::vector<QVGaussian> both = {a.front(), b.front()};
    EXPECT_NEAR(SelfOverlap(both), 2.0 * std::pow(kPi, 1.5), 1e-14 * std::pow(kPi, 1.5));
}

TEST(PairOverlapTest, TermsBelowTheCutOffAreLeftOutAndTheRestKept) {
    // Two Gaussians of exponent 1 (k = 1/2) along x: k d^2 = 39.5 is kept, 40.5 left out; the
    // same along y, where the sort along x does not part them.
    const float origin[3] = {0.0f, 0.0f, 0.0f};
    const auto pair = [&](int axis, double kd2) {
        float centre[3] = {0.0f, 0.0f, 0.0f};
        centre[axis] = static_cast<float>(std::sqrt(2.0 * kd2));
        const std::vector<QVGaussian> a = {QVGaussian(1.0f, 1.0f, origin, 0)};
        const std::vector<QVGaussian> b = {QVGaussian(1.0f, 1.0f, centre, 0)};
        return PairOverlap(a, b);
    };
    const double d = static_cast<float>(std::sqrt(79.0));  // the kept pair's distance
    const double kept = std::pow(kPi / 2.0, 1.5) * std::exp(-0.5 * d * d);
    for (const int axis : {0, 1}) {
        EXPECT_NEAR(pair(axis, 39.5), kept, 1e-13 * kept) << axis;
        EXPECT_EQ(pair(axis, 40.5), 0.0) << axis;
    }
}

TEST(PairOverlapTest, LongChainsMatchTheTermByTermSum) {
    // Chains 60 angstrom long, unsorted along x and with mixed kinds and tags: most pairs lie
    // beyond the reach and are never formed; the sums still match to 1e-14.
    std::vector<QVGaussian> a = RandomGaussians(21u, 150, 6.0);
    std::vector<QVGaussian> b = RandomGaussians(22u, 120, 6.0);
    std::mt19937 engine(23u);
    std::uniform_real_distribution<float> along(-30.0f, 30.0f);
    for (std::vector<QVGaussian>* chain : {&a, &b}) {
        for (QVGaussian& g : *chain) {
            g.SetX(along(engine));
        }
    }
    for (const Pairing pairing : {Pairing::All, Pairing::SameTag}) {
        EXPECT_NEAR(PairOverlap(a, b, pairing), TermByTerm(a, b, pairing),
                    1e-14 * MagnitudeScale(a, b));
        EXPECT_NEAR(PairOverlap(b, a, pairing), TermByTerm(b, a, pairing),
                    1e-14 * MagnitudeScale(a, b));
        EXPECT_NEAR(SelfOverlap(a, pairing), TermByTerm(a, a, pairing),
                    1e-14 * MagnitudeScale(a, a));
    }
}

TEST(PairOverlapTest, EmptyDensitiesOverlapNothing) {
    const std::vector<QVGaussian> none;
    const std::vector<QVGaussian> some = RandomGaussians(3u, 4, 5.0);
    EXPECT_EQ(PairOverlap(none, some), 0.0);
    EXPECT_EQ(PairOverlap(some, none), 0.0);
    EXPECT_EQ(SelfOverlap(none), 0.0);
}

}  // namespace
