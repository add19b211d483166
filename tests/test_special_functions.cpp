// Unit tests of the special functions of the Hermite expansions: the Hermite functions, their
// norms K_i, the library's Hermite moments and the one-axis derivative recurrences.
//
// Every expected value is computed here from first principles (hand-worked closed forms, the
// three-term recurrence of the Hermite polynomials, numerical quadrature, or the defining sums
// written out independently), never taken from the library's own output.

#include <gtest/gtest.h>

#include <math.h>  // lgamma_r

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "hermite/hermite.h"
#include "support/test_support.h"

namespace {

using QVHermiteMath::computeKs;
using QVHermiteMath::FirstArgDeriv;
using QVHermiteMath::FirstArgSecondDeriv;
using QVHermiteMath::GetLmnIndex;
using QVHermiteMath::Hermite1DMoment;
using QVHermiteMath::Hermite3DMoment;
using QVHermiteMath::HermiteMomentsMasterIntegral;
using QVHermiteMath::QVHermiteFunc;
using QVHermiteMath::SecondArgDeriv;
using QVHermiteMath::SecondArgSecondDeriv;

using hermite_test::HermitePolynomials;

constexpr unsigned int kLargestOrder = 4294967295u;
const double kPi = std::acos(-1.0);
const double kSqrtPi = std::sqrt(kPi);
const double kSqrt2 = std::sqrt(2.0);

/// Expects |actual - expected| <= relative * scale, where `scale` is a magnitude for the
/// quantity (its value, or the sum of absolute values of the terms that produced it).
void ExpectClose(double actual, double expected, double scale, double relative) {
    EXPECT_NEAR(actual, expected, relative * std::max(std::fabs(scale), 1e-300))
        << "expected " << expected << " got " << actual;
}

/// The signed log-gamma G(x) = ln|Gamma(x)|, negated where Gamma(x) < 0.
double SignedLogGamma(double x) {
    int sign = 0;
    const double value = lgamma_r(x, &sign);
    return sign < 0 ? -value : value;
}

/// n! exactly, as a 64-bit integer (n <= 20).
std::uint64_t IntegerFactorial(unsigned int n) {
    std::uint64_t product = 1;
    for (unsigned int i = 2; i <= n; ++i) {
        product *= i;
    }
    return product;
}

// ---------------------------------------------------------------------------------------------
// Hermite functions H_n(x) exp(-x^2/2)

/// The sum of the absolute values of the terms of the explicit sum of H_n(x) exp(-x^2/2):
/// the magnitude against which cancellation in that sum is measured.
double HermiteTermMagnitude(unsigned int n, double x) {
    double total = 0.0;
    for (unsigned int k = 0; 2 * k <= n; ++k) {
        total += static_cast<double>(IntegerFactorial(n)) /
                 (static_cast<double>(IntegerFactorial(k)) *
                  static_cast<double>(IntegerFactorial(n - 2 * k))) *
                 std::pow(std::fabs(2.0 * x), static_cast<double>(n - 2 * k));
    }
    return total * std::exp(-0.5 * x * x);
}

TEST(SpecialFunctionsTest, HermiteFunctionOfDegreeZeroIsTheGaussian) {
    for (double x : {0.0, 0.25, -0.5, 1.0, -2.0, 3.5, 6.0}) {
        EXPECT_DOUBLE_EQ(QVHermiteFunc(0, x), std::exp(-x * x / 2.0)) << x;
    }
    EXPECT_EQ(QVHermiteFunc(0, 0.0), 1.0);
}

TEST(SpecialFunctionsTest, HermiteFunctionOfDegreeOneIsTwoXTimesTheGaussian) {
    for (double x : {0.0, 0.25, -0.5, 1.0, -2.0, 3.5, 6.0}) {
        EXPECT_DOUBLE_EQ(QVHermiteFunc(1, x), 2.0 * x * std::exp(-x * x / 2.0)) << x;
    }
}

TEST(SpecialFunctionsTest, HermiteFunctionOfOddDegreeVanishesAtZero) {
    for (unsigned int n = 1; n <= 21; n += 2) {
        EXPECT_EQ(QVHermiteFunc(n, 0.0), 0.0) << "n = " << n;
    }
}

TEST(SpecialFunctionsTest, HermiteFunctionOfEvenDegreeAtZero) {
    // H_(2j)(0) = (-1)^j (2j)! / j!.
    for (unsigned int j = 0; j <= 8; ++j) {
        const double expected = (j % 2 == 0 ? 1.0 : -1.0) *
                                static_cast<double>(IntegerFactorial(2 * j)) /
                                static_cast<double>(IntegerFactorial(j));
        ExpectClose(QVHermiteFunc(2 * j, 0.0), expected, expected, 1e-14);
    }
    EXPECT_DOUBLE_EQ(QVHermiteFunc(2, 0.0), -2.0);
    EXPECT_DOUBLE_EQ(QVHermiteFunc(4, 0.0), 12.0);
}

TEST(SpecialFunctionsTest, HermiteFunctionLowDegreesByHand) {
    // H_2 = 4x^2 - 2, H_3 = 8x^3 - 12x, H_4 = 16x^4 - 48x^2 + 12.
    for (double x : {0.3, -1.1, 2.0}) {
        const double g = std::exp(-0.5 * x * x);
        ExpectClose(QVHermiteFunc(2, x), (4 * x * x - 2) * g, (4 * x * x + 2) * g, 1e-14);
        ExpectClose(QVHermiteFunc(3, x), (8 * x * x * x - 12 * x) * g,
                    (8 * std::fabs(x * x * x) + 12 * std::fabs(x)) * g, 1e-14);
        ExpectClose(QVHermiteFunc(4, x), (16 * std::pow(x, 4) - 48 * x * x + 12) * g,
                    (16 * std::pow(x, 4) + 48 * x * x + 12) * g, 1e-14);
    }
}

TEST(SpecialFunctionsTest, HermiteFunctionAgreesWithThreeTermRecurrence) {
    const unsigned int max_degree = 15;
    for (double x : {0.0, 0.3, -0.7, 1.0, 1.9, -2.5, 3.2, -4.4, 5.0, 7.5}) {
        const std::vector<double> h = HermitePolynomials(max_degree, x);
        const double gaussian = std::exp(-0.5 * x * x);
        for (unsigned int n = 0; n <= max_degree; ++n) {
            SCOPED_TRACE(testing::Message() << "n = " << n << ", x = " << x);
            ExpectClose(QVHermiteFunc(n, x), h[n] * gaussian, HermiteTermMagnitude(n, x), 1e-13);
        }
    }
}

TEST(SpecialFunctionsTest, HermiteFunctionHasTheParityOfItsDegree) {
    // H_n(-x) = (-1)^n H_n(x).
    for (unsigned int n = 0; n <= 12; ++n) {
        for (double x : {0.4, 1.7, 3.3}) {
            const double sign = n % 2 == 0 ? 1.0 : -1.0;
            EXPECT_DOUBLE_EQ(QVHermiteFunc(n, -x), sign * QVHermiteFunc(n, x))
                << "n = " << n << ", x = " << x;
        }
    }
}

TEST(SpecialFunctionsTest, HermiteFunctionsAreOrthogonalWithNormsK) {
    // The integral over the real line of H_i(x) H_j(x) exp(-x^2) is K_i delta_ij with
    // K_i = 2^i i! sqrt(pi). Composite Simpson on [-12, 12]; beyond it the integrand is below
    // 1e-40 for the degrees used.
    const unsigned int max_degree = 12;
    const double lower = -12.0;
    const double upper = 12.0;
    const int intervals = 4800;  // even
    const double step = (upper - lower) / intervals;

    std::vector<std::vector<double>> values(max_degree + 1, std::vector<double>(intervals + 1));
    for (unsigned int n = 0; n <= max_degree; ++n) {
        for (int i = 0; i <= intervals; ++i) {
            values[n][i] = QVHermiteFunc(n, lower + i * step);
        }
    }
    for (unsigned int a = 0; a <= max_degree; ++a) {
        const double norm_a = std::ldexp(static_cast<double>(IntegerFactorial(a)), a) * kSqrtPi;
        for (unsigned int b = a; b <= max_degree; ++b) {
            const double norm_b = std::ldexp(static_cast<double>(IntegerFactorial(b)), b) * kSqrtPi;
            double sum = 0.0;
            for (int i = 0; i <= intervals; ++i) {
                const double weight = (i == 0 || i == intervals) ? 1.0 : (i % 2 ? 4.0 : 2.0);
                sum += weight * values[a][i] * values[b][i];
            }
            const double integral = sum * step / 3.0;
            const double expected = a == b ? norm_a : 0.0;
            SCOPED_TRACE(testing::Message() << "i = " << a << ", j = " << b);
            ExpectClose(integral, expected, std::sqrt(norm_a * norm_b), 1e-10);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Norms K_i

TEST(SpecialFunctionsTest, NormsOfOrderZero) {
    const std::vector<double> ks = computeKs(0);
    ASSERT_EQ(ks.size(), 1u);
    EXPECT_DOUBLE_EQ(ks[0], kSqrtPi);
    EXPECT_DOUBLE_EQ(ks[0], 1.7724538509055159);
}

TEST(SpecialFunctionsTest, NormsOfOrderThree) {
    const std::vector<double> ks = computeKs(3);
    ASSERT_EQ(ks.size(), 4u);
    EXPECT_DOUBLE_EQ(ks[0], kSqrtPi);
    EXPECT_DOUBLE_EQ(ks[1], 2.0 * kSqrtPi);
    EXPECT_DOUBLE_EQ(ks[2], 8.0 * kSqrtPi);
    EXPECT_DOUBLE_EQ(ks[3], 48.0 * kSqrtPi);
}

TEST(SpecialFunctionsTest, NormsFollowTwoToTheITimesIFactorialTimesRootPi) {
    const unsigned int order = 20;
    const std::vector<double> ks = computeKs(order);
    ASSERT_EQ(ks.size(), order + 1);
    for (unsigned int i = 0; i <= order; ++i) {
        const double expected = std::ldexp(static_cast<double>(IntegerFactorial(i)), i) * kSqrtPi;
        ExpectClose(ks[i], expected, expected, 1e-14);
    }
}

TEST(SpecialFunctionsTest, NormsOfLargestOrderAreEmpty) {
    // order + 1 wraps to 0.
    EXPECT_TRUE(computeKs(kLargestOrder).empty());
}

// ---------------------------------------------------------------------------------------------
// Hermite moments
//
// The master integral is the sum
//   sum_(k=0..n/2) (-1)^k 2^(n+1-2k) a^(k-h) G(h-k) 0.25 n! / ((n-2k)! k!),  h = (n + p)/2,
// which with Gamma in place of G would be the half-line integral of x^(p-1) H_n(x) exp(-a x^2).
// The library defines its moments with the signed log-gamma G instead; the tests below pin that
// definition and show that it differs from the Gamma-based integral.

/// The master sum written out independently, with integer factorials, exact powers of two and
/// the sign by parity. Also returns the sum of absolute values of the terms in `magnitude`.
double MasterSum(unsigned int p, double a, unsigned int n, double* magnitude) {
    const double h = (n + p) / 2.0;
    double sum = 0.0;
    double total = 0.0;
    for (unsigned int k = 0; 2 * k <= n; ++k) {
        const double sign = k % 2 == 0 ? 1.0 : -1.0;
        const double combinatorial = static_cast<double>(
            IntegerFactorial(n) / (IntegerFactorial(n - 2 * k) * IntegerFactorial(k)));
        const double term = std::ldexp(1.0, static_cast<int>(n + 1 - 2 * k)) * std::pow(a, k - h) *
                            SignedLogGamma(h - k) * 0.25 * combinatorial;
        sum += sign * term;
        total += std::fabs(term);
    }
    if (magnitude != nullptr) {
        *magnitude = total;
    }
    return sum;
}

// Hand values of G: Gamma(1/2) = sqrt(pi), Gamma(3/2) = sqrt(pi)/2, Gamma(5/2) = 3 sqrt(pi)/4,
// all positive, so G is their natural logarithm.
const double kG05 = 0.5 * std::log(kPi);
const double kG15 = 0.5 * std::log(kPi) - std::log(2.0);
const double kG25 = std::log(3.0) + 0.5 * std::log(kPi) - 2.0 * std::log(2.0);

TEST(SpecialFunctionsTest, SignedLogGammaHandValues) {
    // A check of the test's own G against the hand values used below.
    EXPECT_NEAR(SignedLogGamma(0.5), kG05, 1e-15);
    EXPECT_NEAR(SignedLogGamma(1.5), kG15, 1e-15);
    EXPECT_NEAR(SignedLogGamma(2.5), kG25, 1e-15);
    // Gamma(-0.5) = -2 sqrt(pi) < 0, so G(-0.5) = -ln(2 sqrt(pi)).
    EXPECT_NEAR(SignedLogGamma(-0.5), -std::log(2.0 * kSqrtPi), 1e-15);
}

TEST(SpecialFunctionsTest, MomentOfDegreeZeroPowerZeroUsesLogGamma) {
    // n = 0, p = 0: 2 * master(1, 0.5, 0) with h = 1/2, a single term
    //   2 * [2^1 * 0.5^(-1/2) * G(1/2) * 0.25] = sqrt(2) * ln(sqrt(pi)).
    const double expected = 2.0 * 0.25 * 2.0 * std::pow(0.5, -0.5) * kG05;
    EXPECT_NEAR(expected, kSqrt2 * 0.5 * std::log(kPi), 1e-15);
    EXPECT_NEAR(Hermite1DMoment(0, 0), expected, 1e-14);
    EXPECT_NEAR(HermiteMomentsMasterIntegral(1, 0.5, 0), expected / 2.0, 1e-14);
}

TEST(SpecialFunctionsTest, MomentDiffersFromTheGammaBasedIntegral) {
    // With Gamma instead of G the same term gives the true integral of exp(-x^2/2) over the
    // real line, sqrt(2 pi) = 2.5066...; the library's logarithmic form gives
    // sqrt(2) ln(sqrt(pi)) = 0.8094... This difference is intended.
    const double gamma_based = 2.0 * 0.25 * 2.0 * std::pow(0.5, -0.5) * std::tgamma(0.5);
    EXPECT_NEAR(gamma_based, std::sqrt(2.0 * kPi), 1e-14);
    EXPECT_GT(std::fabs(Hermite1DMoment(0, 0) - gamma_based), 1.0);

    // The same for H_2: the true integral of (4x^2 - 2) exp(-x^2/2) is 2 sqrt(2 pi).
    const double gamma_based_2 = 8.0 * kSqrt2 * std::tgamma(1.5) - 2.0 * kSqrt2 * std::tgamma(0.5);
    EXPECT_NEAR(gamma_based_2, 2.0 * std::sqrt(2.0 * kPi), 1e-13);
    EXPECT_GT(std::fabs(Hermite1DMoment(2, 0) - gamma_based_2), 1.0);
}

TEST(SpecialFunctionsTest, OneDimensionalMomentsByHand) {
    // Worked from the master sum with a = 1/2 and the hand values of G:
    //   M(2,0): h = 3/2: 2 * (8 * 2^(3/2) G(3/2) / 4 - 2 * 2^(1/2) G(1/2) * 2 / 4)
    //         = 8 sqrt(2) G(3/2) - 2 sqrt(2) G(1/2)
    //   M(1,1): h = 3/2: 2 * (4 * 2^(3/2) G(3/2) / 4) = 4 sqrt(2) G(3/2)
    //   M(0,2): h = 3/2: 2 * (2 * 2^(3/2) G(3/2) / 4) = 2 sqrt(2) G(3/2)
    //   M(2,2): h = 5/2: 2 * (8 * 2^(5/2) G(5/2) / 4 - 2 * 2^(3/2) G(3/2) * 2 / 4)
    //         = 16 sqrt(2) G(5/2) - 4 sqrt(2) G(3/2)
    EXPECT_NEAR(Hermite1DMoment(2, 0), 8.0 * kSqrt2 * kG15 - 2.0 * kSqrt2 * kG05, 1e-13);
    EXPECT_NEAR(Hermite1DMoment(1, 1), 4.0 * kSqrt2 * kG15, 1e-13);
    EXPECT_NEAR(Hermite1DMoment(0, 2), 2.0 * kSqrt2 * kG15, 1e-13);
    EXPECT_NEAR(Hermite1DMoment(2, 2), 16.0 * kSqrt2 * kG25 - 4.0 * kSqrt2 * kG15, 1e-13);
}

TEST(SpecialFunctionsTest, MasterIntegralByHandForOtherScales) {
    // p = 2, a = 1.5, n = 3, h = 5/2:
    //   k = 0: 2^4 * 1.5^(-5/2) G(5/2) * 0.25 * 1       =  4 * 1.5^(-5/2) G(5/2)
    //   k = 1: -2^2 * 1.5^(-3/2) G(3/2) * 0.25 * 3!/1!1! = -6 * 1.5^(-3/2) G(3/2)
    const double expected_a = 4.0 * std::pow(1.5, -2.5) * kG25 - 6.0 * std::pow(1.5, -1.5) * kG15;
    EXPECT_NEAR(HermiteMomentsMasterIntegral(2, 1.5, 3), expected_a, 1e-13);

    // p = 1, a = 2, n = 4, h = 5/2:
    //   k = 0:  2^5 2^(-5/2) G(5/2) * 0.25 * 1         =   8 * 2^(-5/2) G(5/2)
    //   k = 1: -2^3 2^(-3/2) G(3/2) * 0.25 * 4!/(2!1!) = -24 * 2^(-3/2) G(3/2)
    //   k = 2:  2^1 2^(-1/2) G(1/2) * 0.25 * 4!/(0!2!) =   6 * 2^(-1/2) G(1/2)
    const double expected_b = 8.0 * std::pow(2.0, -2.5) * kG25 - 24.0 * std::pow(2.0, -1.5) * kG15 +
                              6.0 * std::pow(2.0, -0.5) * kG05;
    EXPECT_NEAR(HermiteMomentsMasterIntegral(1, 2.0, 4), expected_b, 1e-13);
}

TEST(SpecialFunctionsTest, MasterIntegralAgreesWithTheSumWrittenOut) {
    for (unsigned int n = 0; n <= 12; ++n) {
        for (unsigned int p = 1; p <= 6; ++p) {
            for (double a : {0.5, 0.25, 1.0, 1.7, 3.0}) {
                double magnitude = 0.0;
                const double expected = MasterSum(p, a, n, &magnitude);
                SCOPED_TRACE(testing::Message() << "p = " << p << ", a = " << a << ", n = " << n);
                ExpectClose(HermiteMomentsMasterIntegral(p, a, n), expected, magnitude, 1e-13);
            }
        }
    }
}

TEST(SpecialFunctionsTest, OneDimensionalMomentIsTwiceMasterAtHalf) {
    for (unsigned int n = 0; n <= 10; ++n) {
        for (unsigned int p = 0; p <= 6; ++p) {
            SCOPED_TRACE(testing::Message() << "n = " << n << ", p = " << p);
            if (n % 2 != p % 2) {
                continue;
            }
            double magnitude = 0.0;
            const double expected = 2.0 * MasterSum(p + 1, 0.5, n, &magnitude);
            ExpectClose(Hermite1DMoment(n, p), expected, 2.0 * magnitude, 1e-13);
        }
    }
}

TEST(SpecialFunctionsTest, OneDimensionalMomentsOfMixedParityAreExactlyZero) {
    EXPECT_EQ(Hermite1DMoment(1, 0), 0.0);
    EXPECT_EQ(Hermite1DMoment(0, 1), 0.0);
    for (unsigned int n = 0; n <= 9; ++n) {
        for (unsigned int p = 0; p <= 9; ++p) {
            if (n % 2 != p % 2) {
                EXPECT_EQ(Hermite1DMoment(n, p), 0.0) << "n = " << n << ", p = " << p;
            }
        }
    }
}

// Moments of an order-2 expansion. Coefficient positions (lmn order):
//   0:(0,0,0) 1:(0,0,1) 2:(0,1,0) 3:(1,0,0) 4:(0,0,2) 5:(0,1,1) 6:(0,2,0) 7:(1,0,1) 8:(1,1,0)
//   9:(2,0,0)
// The 1-D moments needed, from the hand values above (M(n, p) for degree n, power p):
struct OrderTwoMoments {
    double m00 = kSqrt2 * kG05;                               // M(0,0) = 2 sqrt(2) G(1/2) / 2
    double m20 = 8.0 * kSqrt2 * kG15 - 2.0 * kSqrt2 * kG05;   // M(2,0)
    double m11 = 4.0 * kSqrt2 * kG15;                         // M(1,1)
    double m02 = 2.0 * kSqrt2 * kG15;                         // M(0,2)
    double m22 = 16.0 * kSqrt2 * kG25 - 4.0 * kSqrt2 * kG15;  // M(2,2)
};

TEST(SpecialFunctionsTest, OrderTwoMomentsHandValuesMatchOneDimensionalMoments) {
    const OrderTwoMoments m;
    EXPECT_NEAR(Hermite1DMoment(0, 0), m.m00, 1e-14);
    EXPECT_NEAR(Hermite1DMoment(2, 0), m.m20, 1e-13);
    EXPECT_NEAR(Hermite1DMoment(1, 1), m.m11, 1e-13);
    EXPECT_NEAR(Hermite1DMoment(0, 2), m.m02, 1e-13);
    EXPECT_NEAR(Hermite1DMoment(2, 2), m.m22, 1e-13);
}

TEST(SpecialFunctionsTest, ThreeDimensionalMomentOfTwoCoefficientsByHand) {
    // Only c(0,0,0) = 1 and c(2,0,0) = 0.5 are non-zero.
    std::vector<double> coeffs(10, 0.0);
    coeffs[0] = 1.0;
    coeffs[9] = 0.5;
    const OrderTwoMoments m;
    const double sx = 2.0;
    const double sy = 1.5;
    const double sz = 0.5;

    // (a, b, c) = (0, 0, 0): (c000 M(0,0)^3 + c200 M(2,0) M(0,0)^2) / (sx sy sz).
    const double zeroth =
        (1.0 * m.m00 * m.m00 * m.m00 + 0.5 * m.m20 * m.m00 * m.m00) / (sx * sy * sz);
    ExpectClose(Hermite3DMoment(0, 0, 0, 2, sx, sy, sz, coeffs), zeroth, 1.0, 1e-13);

    // (2, 0, 0): (c000 M(0,2) M(0,0)^2 + c200 M(2,2) M(0,0)^2) * sx^-3 sy^-1 sz^-1.
    const double second_x =
        (m.m02 * m.m00 * m.m00 + 0.5 * m.m22 * m.m00 * m.m00) / (sx * sx * sx * sy * sz);
    ExpectClose(Hermite3DMoment(2, 0, 0, 2, sx, sy, sz, coeffs), second_x, 1.0, 1e-13);

    // (0, 0, 2): (c000 M(0,0)^2 M(0,2) + c200 M(2,0) M(0,0) M(0,2)) * sx^-1 sy^-1 sz^-3.
    const double second_z =
        (m.m00 * m.m00 * m.m02 + 0.5 * m.m20 * m.m00 * m.m02) / (sx * sy * sz * sz * sz);
    ExpectClose(Hermite3DMoment(0, 0, 2, 2, sx, sy, sz, coeffs), second_z, 1.0, 1e-13);

    // Any odd power meets only coefficients of even degree along that axis: zero.
    EXPECT_EQ(Hermite3DMoment(1, 0, 0, 2, sx, sy, sz, coeffs), 0.0);
    EXPECT_EQ(Hermite3DMoment(0, 1, 0, 2, sx, sy, sz, coeffs), 0.0);
    EXPECT_EQ(Hermite3DMoment(0, 0, 1, 2, sx, sy, sz, coeffs), 0.0);
}

/// An order-2 vector with every coefficient set to a distinct value.
std::vector<double> FullOrderTwoCoefficients() {
    std::vector<double> c(10);
    c[GetLmnIndex(0, 0, 0)] = 1.0;
    c[GetLmnIndex(0, 0, 1)] = 0.3;
    c[GetLmnIndex(0, 1, 0)] = -0.6;
    c[GetLmnIndex(1, 0, 0)] = -0.25;
    c[GetLmnIndex(0, 0, 2)] = 2.0;
    c[GetLmnIndex(0, 1, 1)] = 3.0;
    c[GetLmnIndex(0, 2, 0)] = 0.75;
    c[GetLmnIndex(1, 0, 1)] = -1.5;
    c[GetLmnIndex(1, 1, 0)] = 0.125;
    c[GetLmnIndex(2, 0, 0)] = 0.5;
    return c;
}

TEST(SpecialFunctionsTest, ThreeDimensionalMomentsOfAFullOrderTwoVector) {
    const std::vector<double> c = FullOrderTwoCoefficients();
    const OrderTwoMoments m;
    const double sx = 2.0;
    const double sy = 1.5;
    const double sz = 0.5;

    // (0,0,0): all-even triples (0,0,0), (0,0,2), (0,2,0), (2,0,0).
    const double zeroth = (1.0 * m.m00 * m.m00 * m.m00 + 2.0 * m.m00 * m.m00 * m.m20 +
                           0.75 * m.m00 * m.m20 * m.m00 + 0.5 * m.m20 * m.m00 * m.m00) /
                          (sx * sy * sz);
    ExpectClose(Hermite3DMoment(0, 0, 0, 2, sx, sy, sz, c), zeroth, 1.0, 1e-13);

    // (1,0,0): only (1,0,0) has odd l and even m, n: c100 M(1,1) M(0,0)^2 / (sx^2 sy sz).
    const double first_x = -0.25 * m.m11 * m.m00 * m.m00 / (sx * sx * sy * sz);
    ExpectClose(Hermite3DMoment(1, 0, 0, 2, sx, sy, sz, c), first_x, 1.0, 1e-13);

    // (0,2,0): the y power weights (0,2,0) with M(2,2) and (0,0,2) with M(0,2) M(2,0), so the
    // positions of c(0,2,0) and c(0,0,2) are told apart.
    const double second_y = (1.0 * m.m00 * m.m02 * m.m00 + 2.0 * m.m00 * m.m02 * m.m20 +
                             0.75 * m.m00 * m.m22 * m.m00 + 0.5 * m.m20 * m.m02 * m.m00) /
                            (sx * sy * sy * sy * sz);
    ExpectClose(Hermite3DMoment(0, 2, 0, 2, sx, sy, sz, c), second_y, 1.0, 1e-13);

    // (0,1,1): only (0,1,1): c011 M(0,0) M(1,1)^2 / (sx sy^2 sz^2).
    const double yz = 3.0 * m.m00 * m.m11 * m.m11 / (sx * sy * sy * sz * sz);
    ExpectClose(Hermite3DMoment(0, 1, 1, 2, sx, sy, sz, c), yz, 1.0, 1e-13);

    // (1,1,0): only (1,1,0); (1,0,1): only (1,0,1).
    const double xy = 0.125 * m.m11 * m.m11 * m.m00 / (sx * sx * sy * sy * sz);
    ExpectClose(Hermite3DMoment(1, 1, 0, 2, sx, sy, sz, c), xy, 1.0, 1e-13);
    const double xz = -1.5 * m.m11 * m.m00 * m.m11 / (sx * sx * sy * sz * sz);
    ExpectClose(Hermite3DMoment(1, 0, 1, 2, sx, sy, sz, c), xz, 1.0, 1e-13);

    // (1,1,1): no triple of degree <= 2 has three odd entries.
    EXPECT_EQ(Hermite3DMoment(1, 1, 1, 2, sx, sy, sz, c), 0.0);
}

TEST(SpecialFunctionsTest, ThreeDimensionalMomentSkipsTermsOfMismatchedParity) {
    // Terms whose parity does not match are skipped, so whatever sits in those positions
    // (here NaN) never enters the sum.
    std::vector<double> c = FullOrderTwoCoefficients();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (unsigned int p : {GetLmnIndex(0, 0, 1), GetLmnIndex(0, 1, 0), GetLmnIndex(1, 0, 0),
                           GetLmnIndex(0, 1, 1), GetLmnIndex(1, 0, 1), GetLmnIndex(1, 1, 0)}) {
        c[p] = nan;
    }
    const OrderTwoMoments m;
    const double zeroth = (1.0 * m.m00 * m.m00 * m.m00 + 2.0 * m.m00 * m.m00 * m.m20 +
                           0.75 * m.m00 * m.m20 * m.m00 + 0.5 * m.m20 * m.m00 * m.m00) /
                          (1.0 * 1.0 * 1.0);
    const double value = Hermite3DMoment(0, 0, 0, 2, 1.0, 1.0, 1.0, c);
    EXPECT_FALSE(std::isnan(value));
    ExpectClose(value, zeroth, 1.0, 1e-13);
}

TEST(SpecialFunctionsTest, ThreeDimensionalMomentOfOrderZero) {
    const std::vector<double> c = {2.5};
    const double m00 = kSqrt2 * kG05;
    ExpectClose(Hermite3DMoment(0, 0, 0, 0, 1.25, 0.8, 2.0, c),
                2.5 * m00 * m00 * m00 / (1.25 * 0.8 * 2.0), 1.0, 1e-13);
    // Moments of any odd power vanish for the constant function.
    EXPECT_EQ(Hermite3DMoment(0, 0, 3, 0, 1.25, 0.8, 2.0, c), 0.0);
}

TEST(SpecialFunctionsTest, ThreeDimensionalMomentReadsOnlyTheFirstCoefficientsOfItsOrder) {
    // An order-1 moment uses the first four positions; later entries are not read.
    std::vector<double> c = FullOrderTwoCoefficients();
    const std::vector<double> first_four(c.begin(), c.begin() + 4);
    const double short_value = Hermite3DMoment(0, 0, 0, 1, 1.5, 1.5, 1.5, first_four);
    const double long_value = Hermite3DMoment(0, 0, 0, 1, 1.5, 1.5, 1.5, c);
    EXPECT_EQ(short_value, long_value);
    const double m00 = kSqrt2 * kG05;
    ExpectClose(short_value, m00 * m00 * m00 / (1.5 * 1.5 * 1.5), 1.0, 1e-13);
}

TEST(SpecialFunctionsTest, ThreeDimensionalMomentOfLargestOrderIsZeroWithoutCoefficients) {
    const std::vector<double> empty;
    EXPECT_EQ(Hermite3DMoment(0, 0, 0, kLargestOrder, 1.0, 1.0, 1.0, empty), 0.0);
    EXPECT_EQ(Hermite3DMoment(2, 1, 3, kLargestOrder, 0.5, 2.0, 3.0, empty), 0.0);
}

// ---------------------------------------------------------------------------------------------
// One-axis derivative recurrences
//
//   FirstArgDeriv:        D_k = (-v_k/2 + v_(k+2)/4 - k(k-1) v_(k-2)) / s
//   SecondArgDeriv:       D_k = (v_(k+1)/2 - k v_(k-1)) / s
//   SecondArgSecondDeriv: D_k = (v_(k+2)/4 + k(k-1) v_(k-2) - (k + 1/2) v_k) / s^2
//   FirstArgSecondDeriv:  D_k = ((1/4 - k(k+1)/2) v_k - v_(k+2)/2 + v_(k+4)/16
//                                + 2k(k-1) v_(k-2) + k(k-1)(k-2)(k-3) v_(k-4)) / s^2
// Terms whose index would be negative are left out.

/// v_k = 1 / (k + 1), k = 0..count-1.
std::vector<double> Reciprocals(unsigned int count) {
    std::vector<double> v(count);
    for (unsigned int k = 0; k < count; ++k) {
        v[k] = 1.0 / (k + 1.0);
    }
    return v;
}

TEST(SpecialFunctionsTest, FirstArgDerivExactValues) {
    // n = 4, s = 2, v_k = 1/(k+1); exact fractions worked by hand, e.g.
    // D_0 = (-1/2 + 1/12)/2 = -5/24 (no v_(-2) term), D_2 = (-1/6 + 1/20 - 2)/2 = -127/120.
    const std::vector<double> d = FirstArgDeriv(4, 2.0, Reciprocals(4 + 3));
    ASSERT_EQ(d.size(), 5u);
    const double expected[5] = {-5.0 / 24, -3.0 / 32, -127.0 / 120, -37.0 / 24, -569.0 / 280};
    for (unsigned int k = 0; k < 5; ++k) {
        ExpectClose(d[k], expected[k], expected[k], 1e-15);
    }
}

TEST(SpecialFunctionsTest, SecondArgDerivExactValues) {
    // D_0 = (1/4)/2 = 1/8 (no v_(-1) term), D_1 = (1/6 - 1)/2 = -5/12.
    const std::vector<double> d = SecondArgDeriv(4, 2.0, Reciprocals(4 + 3));
    ASSERT_EQ(d.size(), 5u);
    const double expected[5] = {1.0 / 8, -5.0 / 12, -7.0 / 16, -9.0 / 20, -11.0 / 24};
    for (unsigned int k = 0; k < 5; ++k) {
        ExpectClose(d[k], expected[k], expected[k], 1e-15);
    }
}

TEST(SpecialFunctionsTest, SecondArgSecondDerivExactValues) {
    // D_0 = (1/12 - 1/2)/4 = -5/48, D_2 = (1/20 + 2 - 5/6)/4 = 73/240.
    const std::vector<double> d = SecondArgSecondDeriv(4, 2.0, Reciprocals(4 + 3));
    ASSERT_EQ(d.size(), 5u);
    const double expected[5] = {-5.0 / 48, -11.0 / 64, 73.0 / 240, 13.0 / 24, 439.0 / 560};
    for (unsigned int k = 0; k < 5; ++k) {
        ExpectClose(d[k], expected[k], expected[k], 1e-15);
    }
}

TEST(SpecialFunctionsTest, FirstArgSecondDerivExactValues) {
    // D_0 = (1/4 - 1/6 + 1/80)/4 = 23/960; D_4 includes 4*3*2*1 * v_0 = 24.
    const std::vector<double> d = FirstArgSecondDeriv(4, 2.0, Reciprocals(4 + 5));
    ASSERT_EQ(d.size(), 5u);
    const double expected[5] = {23.0 / 960, -47.0 / 384, 5027.0 / 6720, 1723.0 / 1536,
                                151127.0 / 20160};
    for (unsigned int k = 0; k < 5; ++k) {
        ExpectClose(d[k], expected[k], expected[k], 1e-15);
    }
}

/// v at a signed index; out-of-range (negative) indices contribute nothing.
double At(const std::vector<double>& v, long long i) {
    return i < 0 ? 0.0 : v[static_cast<std::size_t>(i)];
}

TEST(SpecialFunctionsTest, DerivativeRecurrencesAgreeWithFormulasForLongerVectors) {
    const unsigned int n = 14;
    const double s = 0.7;
    // A vector with mixed signs and magnitudes: v_k = (-1)^k (k + 2) / 3 + 1 / (k + 1).
    std::vector<double> v(n + 5);
    for (unsigned int k = 0; k < v.size(); ++k) {
        v[k] = (k % 2 ? -1.0 : 1.0) * (k + 2.0) / 3.0 + 1.0 / (k + 1.0);
    }
    const std::vector<double> first = FirstArgDeriv(n, s, v);
    const std::vector<double> second = SecondArgDeriv(n, s, v);
    const std::vector<double> second_second = SecondArgSecondDeriv(n, s, v);
    const std::vector<double> first_second = FirstArgSecondDeriv(n, s, v);
    ASSERT_EQ(first.size(), n + 1);
    ASSERT_EQ(second.size(), n + 1);
    ASSERT_EQ(second_second.size(), n + 1);
    ASSERT_EQ(first_second.size(), n + 1);

    for (long long k = 0; k <= n; ++k) {
        SCOPED_TRACE(testing::Message() << "k = " << k);
        const double kd = static_cast<double>(k);
        {
            const double terms[3] = {-0.5 * At(v, k), 0.25 * At(v, k + 2),
                                     -kd * (kd - 1) * At(v, k - 2)};
            const double expected = (terms[0] + terms[1] + terms[2]) / s;
            const double scale =
                (std::fabs(terms[0]) + std::fabs(terms[1]) + std::fabs(terms[2])) / s;
            ExpectClose(first[k], expected, scale, 1e-14);
        }
        {
            const double terms[2] = {0.5 * At(v, k + 1), -kd * At(v, k - 1)};
            const double expected = (terms[0] + terms[1]) / s;
            ExpectClose(second[k], expected, (std::fabs(terms[0]) + std::fabs(terms[1])) / s,
                        1e-14);
        }
        {
            const double terms[3] = {0.25 * At(v, k + 2), kd * (kd - 1) * At(v, k - 2),
                                     -(kd + 0.5) * At(v, k)};
            const double expected = (terms[0] + terms[1] + terms[2]) / (s * s);
            const double scale =
                (std::fabs(terms[0]) + std::fabs(terms[1]) + std::fabs(terms[2])) / (s * s);
            ExpectClose(second_second[k], expected, scale, 1e-14);
        }
        {
            const double terms[5] = {(0.25 - 0.5 * kd * (kd + 1)) * At(v, k), -0.5 * At(v, k + 2),
                                     0.0625 * At(v, k + 4), 2.0 * kd * (kd - 1) * At(v, k - 2),
                                     kd * (kd - 1) * (kd - 2) * (kd - 3) * At(v, k - 4)};
            double expected = 0.0;
            double scale = 0.0;
            for (double t : terms) {
                expected += t;
                scale += std::fabs(t);
            }
            ExpectClose(first_second[k], expected / (s * s), scale / (s * s), 1e-14);
        }
    }
}

TEST(SpecialFunctionsTest, DerivativeRecurrencesOfDegreeZeroUseOnlyForwardTerms) {
    // n = 0 leaves only the forward neighbours: D_0 from v_0, v_1, v_2 (and v_4).
    const std::vector<double> v = {3.0, 5.0, 7.0, 11.0, 13.0};
    const double s = 4.0;
    ASSERT_EQ(FirstArgDeriv(0, s, v).size(), 1u);
    EXPECT_DOUBLE_EQ(FirstArgDeriv(0, s, v)[0], (-1.5 + 1.75) / 4.0);
    EXPECT_DOUBLE_EQ(SecondArgDeriv(0, s, v)[0], 2.5 / 4.0);
    EXPECT_DOUBLE_EQ(SecondArgSecondDeriv(0, s, v)[0], (1.75 - 1.5) / 16.0);
    EXPECT_DOUBLE_EQ(FirstArgSecondDeriv(0, s, v)[0], (0.75 - 3.5 + 13.0 / 16.0) / 16.0);
}

TEST(SpecialFunctionsTest, DerivativeRecurrencesScaleInverselyWithS) {
    // The first-derivative forms carry 1/s, the second-derivative forms 1/s^2.
    const std::vector<double> v = Reciprocals(12);
    const auto a1 = FirstArgDeriv(5, 1.0, v);
    const auto b1 = FirstArgDeriv(5, 4.0, v);
    const auto a2 = SecondArgDeriv(5, 1.0, v);
    const auto b2 = SecondArgDeriv(5, 4.0, v);
    const auto a3 = SecondArgSecondDeriv(5, 1.0, v);
    const auto b3 = SecondArgSecondDeriv(5, 4.0, v);
    const auto a4 = FirstArgSecondDeriv(5, 1.0, v);
    const auto b4 = FirstArgSecondDeriv(5, 4.0, v);
    for (unsigned int k = 0; k <= 5; ++k) {
        EXPECT_DOUBLE_EQ(b1[k], a1[k] / 4.0);
        EXPECT_DOUBLE_EQ(b2[k], a2[k] / 4.0);
        EXPECT_DOUBLE_EQ(b3[k], a3[k] / 16.0);
        EXPECT_DOUBLE_EQ(b4[k], a4[k] / 16.0);
    }
}

TEST(SpecialFunctionsTest, DerivativeRecurrencesOfLargestOrderAreEmpty) {
    // n + 1 wraps to 0: no values, and the input is never read.
    const std::vector<double> empty;
    EXPECT_TRUE(FirstArgDeriv(kLargestOrder, 1.0, empty).empty());
    EXPECT_TRUE(SecondArgDeriv(kLargestOrder, 1.0, empty).empty());
    EXPECT_TRUE(SecondArgSecondDeriv(kLargestOrder, 1.0, empty).empty());
    EXPECT_TRUE(FirstArgSecondDeriv(kLargestOrder, 1.0, empty).empty());
}

}  // namespace
