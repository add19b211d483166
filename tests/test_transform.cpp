// Tests of the Gaussian-to-Hermite transform: coefficients, one-axis tables, self-overlap, and
// the derivatives of the coefficients with respect to the lambdas and to a translation.
//
// Mathematics used as the oracle throughout. The basis is
//     phi_lmn(x, y, z) = H_l(lx x) H_m(ly y) H_n(lz z) exp(-(lx^2 x^2 + ly^2 y^2 + lz^2 z^2) / 2),
// with the physicists' Hermite polynomials H. The one-axis functions H_k(lambda x)
// exp(-lambda^2 x^2 / 2) are orthogonal with squared norm K_k / lambda, K_k = 2^k k! sqrt(pi), so
// the coefficients of the orthogonal projection of rho = sum_g w_g exp(-a_g |r - r_g|^2) are
//     c_lmn = lx ly lz * Integral(rho phi_lmn) / (K_l K_m K_n).
// Each Gaussian factorises over the axes, hence
//     c_lmn = sum_g w_g F^x_l F^y_m F^z_n / (K_l K_m K_n),
//     F_k = lambda * Integral exp(-a (x - x0)^2) H_k(lambda x) exp(-lambda^2 x^2 / 2) dx,
// and each F_k is a 1-D integral that quadrature evaluates independently of the library's
// recurrences. The self-overlap S = (1 / (lx ly lz)) sum c^2 K_l K_m K_n is the squared norm of
// the projection; it grows with the order N towards the exact self-overlap of rho.
//
// Derivatives are checked against central differences of independently recomputed
// coefficients. Gaussian centres are single-precision values, so all moved centres below are
// multiples of powers of two that floats hold exactly; lambdas are doubles and can be perturbed
// freely.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "hermite/hermite.h"
#include "support/test_support.h"

namespace {

using QVHermiteMath::GaussianToHermiteCoefficientsAndDerivs;
using QVHermiteMath::QVGaussian;
using QVHermiteMath::QVGaussianToHermite;
using QVHermiteMath::QVHermiteOptions;

using hermite_test::CoefficientCount;
using hermite_test::FirstDifference;
using hermite_test::FixedOptionsSingleWhenEqual;
using hermite_test::GaussianPairOverlap;
using hermite_test::HermitePolynomials;
using hermite_test::kPi;
using hermite_test::LmnTriples;
using hermite_test::MakeGaussian;
using hermite_test::MaxAbs;
using hermite_test::NormTable;
using hermite_test::Packed;
using hermite_test::Triple;

// ---------------------------------------------------------------------------------------------
// Independent helpers

float Centre(const QVGaussian& g, unsigned int axis) {
    return axis == 0 ? g.GetX() : axis == 1 ? g.GetY() : g.GetZ();
}

struct Lambdas {
    double v[3];
};

QVGaussianToHermite Transform(unsigned int N, const Lambdas& lambdas,
                              const std::vector<QVGaussian>& gaussians, unsigned int flag) {
    return QVGaussianToHermite(
        FixedOptionsSingleWhenEqual(N, lambdas.v[0], lambdas.v[1], lambdas.v[2]), gaussians, flag);
}

// Every centre moved by `delta` along `axis` (float arithmetic; exact for the values used).
std::vector<QVGaussian> Moved(const std::vector<QVGaussian>& gaussians, unsigned int axis,
                              float delta) {
    std::vector<QVGaussian> moved = gaussians;
    for (QVGaussian& g : moved) {
        if (axis == 0)
            g.SetX(g.GetX() + delta);
        if (axis == 1)
            g.SetY(g.GetY() + delta);
        if (axis == 2)
            g.SetZ(g.GetZ() + delta);
    }
    return moved;
}

// F_0..F_kmax of one axis by composite Simpson quadrature:
//     F_k = lambda * Integral exp(-a (x - x0)^2) H_k(lambda x) exp(-lambda^2 x^2 / 2) dx.
// The Gaussian part of the integrand has exponent p = a + lambda^2 / 2 and centre a x0 / p; the
// interval reaches sqrt(120 / p) on either side, where exp(-p x^2) = exp(-120) swamps the
// polynomial growth of H_k for the degrees used here (k <= 12). The integrand is smooth and
// Gaussian-decaying, for which Simpson's rule on 4000 intervals is accurate to rounding.
std::vector<double> QuadratureTable(unsigned int kmax, double lambda, double a, double x0) {
    const double p = a + 0.5 * lambda * lambda;
    const double mid = a * x0 / p;
    const double half = std::sqrt(120.0 / p);
    const unsigned int intervals = 4000;
    const double step = 2.0 * half / intervals;
    std::vector<double> sum(kmax + 1, 0.0), h;
    for (unsigned int i = 0; i <= intervals; ++i) {
        const double x = mid - half + step * i;
        const double weight = (i == 0 || i == intervals) ? 1.0 : (i % 2 == 1 ? 4.0 : 2.0);
        const double envelope = std::exp(-a * (x - x0) * (x - x0) - 0.5 * lambda * lambda * x * x);
        h = HermitePolynomials(kmax, lambda * x);
        for (unsigned int k = 0; k <= kmax; ++k) {
            sum[k] += weight * envelope * h[k];
        }
    }
    for (double& s : sum) {
        s *= lambda * step / 3.0;
    }
    return sum;
}

// Coefficients from quadrature tables: c_lmn = sum_g w_g F^x_l F^y_m F^z_n / (K_l K_m K_n).
std::vector<double> QuadratureCoefficients(unsigned int N, const Lambdas& lambdas,
                                           const std::vector<QVGaussian>& gaussians) {
    const std::vector<double> K = NormTable(N);
    const std::vector<Triple> triples = LmnTriples(N);
    std::vector<double> c(triples.size(), 0.0);
    for (const QVGaussian& g : gaussians) {
        std::vector<double> F[3];
        for (unsigned int axis = 0; axis < 3; ++axis) {
            F[axis] = QuadratureTable(N, lambdas.v[axis], g.GetExponent(), Centre(g, axis));
        }
        for (std::size_t i = 0; i < triples.size(); ++i) {
            const Triple& t = triples[i];
            c[i] += static_cast<double>(g.GetPrefactor()) * F[0][t.l] * F[1][t.m] * F[2][t.n] /
                    (K[t.l] * K[t.m] * K[t.n]);
        }
    }
    return c;
}

// Exact self-overlap of a sum of Gaussians: the product of two Gaussians of exponents a, b is a
// Gaussian of exponent a + b, so the pair integral is
// w_a w_b (pi / (a + b))^(3/2) exp(-(a b / (a + b)) |r_a - r_b|^2).
double ExactSelfOverlap(const std::vector<QVGaussian>& gaussians) {
    double sum = 0.0;
    for (const QVGaussian& g : gaussians) {
        for (const QVGaussian& h : gaussians) {
            double d2 = 0.0;
            for (unsigned int axis = 0; axis < 3; ++axis) {
                const double d = static_cast<double>(Centre(g, axis)) - Centre(h, axis);
                d2 += d * d;
            }
            sum += GaussianPairOverlap(g, h, d2);
        }
    }
    return sum;
}

// Compares entry by entry after multiplying both vectors by `weight`, with a tolerance relative
// to the largest weighted expected entry; reports the worst entry.
void ExpectWeightedClose(const std::vector<double>& actual, const std::vector<double>& expected,
                         const std::vector<double>& weight, double relativeTolerance,
                         const std::string& what) {
    ASSERT_EQ(actual.size(), expected.size()) << what;
    ASSERT_EQ(weight.size(), expected.size()) << what;
    double scale = 0.0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        scale = std::max(scale, std::fabs(expected[i]) * weight[i]);
    }
    ASSERT_GT(scale, 0.0) << what;
    double worst = 0.0;
    std::size_t worstIndex = 0;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const double error = std::fabs(actual[i] - expected[i]) * weight[i];
        if (error > worst) {
            worst = error;
            worstIndex = i;
        }
    }
    EXPECT_LE(worst, relativeTolerance * scale)
        << what << ": worst entry " << worstIndex << " actual " << actual[worstIndex]
        << " expected " << expected[worstIndex] << " (relative weighted error " << worst / scale
        << ")";
}

// Coefficients differ by orders of magnitude between low and high degrees because of the
// 1 / (K_l K_m K_n) factor. Multiplying c_lmn by sqrt(K_l K_m K_n) gives the coordinates of the
// projection in an orthogonal basis of equal norms, whose sizes are comparable across degrees
// (their squares sum to lx ly lz S). Comparisons are made on these coordinates, with a tolerance
// relative to the largest of them: an error small in that scale is small in the function space.
// `stride` values per coefficient (3 or 6 for packed derivatives) share the coefficient's weight.
void ExpectNormalisedClose(const std::vector<double>& actual, const std::vector<double>& expected,
                           unsigned int N, unsigned int stride, double relativeTolerance,
                           const std::string& what) {
    const std::vector<double> K = NormTable(N);
    const std::vector<Triple> triples = LmnTriples(N);
    std::vector<double> weight(expected.size(), 0.0);
    for (std::size_t i = 0; i < weight.size() && i / stride < triples.size(); ++i) {
        const Triple& t = triples[i / stride];
        weight[i] = std::sqrt(K[t.l] * K[t.m] * K[t.n]);
    }
    ExpectWeightedClose(actual, expected, weight, relativeTolerance, what);
}

// The same for one-axis tables F_k (not divided by K_k): F_k / sqrt(K_k) is bounded by
// Cauchy-Schwarz (|F_k| <= sqrt(lambda K_k) times the norm of the one-axis Gaussian).
void ExpectTableClose(const std::vector<double>& actual, const std::vector<double>& expected,
                      double relativeTolerance, const std::string& what) {
    const std::vector<double> K = NormTable(static_cast<unsigned int>(expected.size()));
    std::vector<double> weight(expected.size());
    for (std::size_t k = 0; k < weight.size(); ++k)
        weight[k] = 1.0 / std::sqrt(K[k]);
    ExpectWeightedClose(actual, expected, weight, relativeTolerance, what);
}

// Scalars and short vectors: |actual - expected| <= tolerance * scale for every entry.
void ExpectScaledClose(const std::vector<double>& actual, const std::vector<double>& expected,
                       double relativeTolerance, double scale, const std::string& what) {
    ASSERT_EQ(actual.size(), expected.size()) << what;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_NEAR(actual[i], expected[i], relativeTolerance * scale) << what << " entry " << i;
    }
}

// Second derivative at 0: (f(h) - 2 f(0) + f(-h)) / h^2 = f'' + f'''' h^2 / 12 + O(h^4); the
// Richardson step of FirstDifference, (4 D(h) - D(2h)) / 3, leaves f'' - f^(6) h^4 / 90 + O(h^6).
// The rounding error is about eps |f| / h^2.
std::vector<double> SecondDifference(const std::function<std::vector<double>(double)>& f,
                                     double h) {
    const std::vector<double> p1 = f(h), m1 = f(-h), p2 = f(2 * h), m2 = f(-2 * h), z = f(0.0);
    std::vector<double> d(z.size());
    for (std::size_t i = 0; i < d.size(); ++i) {
        const double dh = (p1[i] - 2.0 * z[i] + m1[i]) / (h * h);
        const double d2h = (p2[i] - 2.0 * z[i] + m2[i]) / (4 * h * h);
        d[i] = (4.0 * dh - d2h) / 3.0;
    }
    return d;
}

// Every `stride`-th entry starting at `offset`.
std::vector<double> Strided(const std::vector<double>& v, unsigned int stride, unsigned int offset,
                            std::size_t count) {
    std::vector<double> out(count);
    for (std::size_t i = 0; i < count; ++i)
        out[i] = v[stride * i + offset];
    return out;
}

double Dot(const std::vector<double>& a, const std::vector<double>& b) {
    double s = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i)
        s += a[i] * b[i];
    return s;
}

// A fixed pseudo-random vector with entries in [-1, 1), from the raw 32-bit output of a
// seeded Mersenne twister (so the values do not depend on the standard library's distributions).
std::vector<double> FixedRandomVector(std::size_t count, std::uint32_t seed) {
    std::mt19937 engine(seed);
    std::vector<double> v(count);
    for (double& x : v)
        x = 2.0 * (static_cast<double>(engine()) / 4294967296.0) - 1.0;
    return v;
}

// Three off-centre Gaussians with different weights (one negative, as in a charge density) and
// exponents. All values are exactly representable in single precision; centres are multiples of
// 1/64 so that moving them by multiples of 1/256 is exact.
std::vector<QVGaussian> ThreeGaussians() {
    return {
        MakeGaussian(2.5f, 0.8125f, 0.515625f, -0.25f, 0.328125f),
        MakeGaussian(1.25f, 1.5f, -0.453125f, 0.390625f, -0.125f),
        MakeGaussian(-0.625f, 0.625f, 0.140625f, -0.578125f, 0.6875f),
    };
}

// A compact shape-like density: positive weights, exponents near 0.8, centres within 1.
std::vector<QVGaussian> CompactDensity() {
    return {
        MakeGaussian(1.0f, 0.8125f, 0.5f, 0.25f, -0.125f),
        MakeGaussian(1.5f, 0.75f, -0.375f, -0.25f, 0.1875f),
        MakeGaussian(0.75f, 0.875f, 0.0625f, 0.4375f, 0.3125f),
    };
}

const Lambdas kUnequal = {{0.9, 1.15, 0.75}};

// =============================================================================================
// Edge cases

TEST(TransformEdgeCaseTest, FlagZeroLeavesEveryDerivativeMemberEmpty) {
    const QVGaussianToHermite t = Transform(4, kUnequal, ThreeGaussians(), 0);
    EXPECT_EQ(t.GetHermiteCoefficients().size(), CoefficientCount(4));
    EXPECT_TRUE(t.GetHermiteCoefficientsLambdaDeriv().empty());
    EXPECT_TRUE(t.GetHermiteCoefficientsLambdaDerivs().empty());
    EXPECT_TRUE(t.GetHermiteCoefficientsLambdaSecondDerivs().empty());
    EXPECT_TRUE(t.GetTranslationalDerivs().empty());
    EXPECT_TRUE(t.GetTranslationalSecondDerivs().empty());
}

TEST(TransformEdgeCaseTest, FlagsAboveFourBehaveAsFlagZero) {
    const QVGaussianToHermite reference = Transform(4, kUnequal, ThreeGaussians(), 0);
    for (unsigned int flag : {5u, 6u, 100u}) {
        const QVGaussianToHermite t = Transform(4, kUnequal, ThreeGaussians(), flag);
        // The flag selects derivatives only; the coefficients are computed the same way.
        EXPECT_EQ(t.GetHermiteCoefficients(), reference.GetHermiteCoefficients()) << flag;
        EXPECT_TRUE(t.GetHermiteCoefficientsLambdaDeriv().empty()) << flag;
        EXPECT_TRUE(t.GetHermiteCoefficientsLambdaDerivs().empty()) << flag;
        EXPECT_TRUE(t.GetHermiteCoefficientsLambdaSecondDerivs().empty()) << flag;
        EXPECT_TRUE(t.GetTranslationalDerivs().empty()) << flag;
        EXPECT_TRUE(t.GetTranslationalSecondDerivs().empty()) << flag;
    }
}

TEST(TransformEdgeCaseTest, EachFlagFillsExactlyItsDerivativeMembers) {
    const unsigned int N = 3;
    const std::size_t count = CoefficientCount(N);
    const std::vector<QVGaussian> gaussians = ThreeGaussians();

    const QVGaussianToHermite f1 = Transform(N, kUnequal, gaussians, 1);
    EXPECT_EQ(f1.GetHermiteCoefficientsLambdaDerivs().size(), 3 * count);
    EXPECT_EQ(f1.GetHermiteCoefficientsLambdaDeriv().size(), count + 1);
    EXPECT_TRUE(f1.GetHermiteCoefficientsLambdaSecondDerivs().empty());
    EXPECT_TRUE(f1.GetTranslationalDerivs().empty());
    EXPECT_TRUE(f1.GetTranslationalSecondDerivs().empty());

    const QVGaussianToHermite f2 = Transform(N, kUnequal, gaussians, 2);
    EXPECT_EQ(f2.GetHermiteCoefficientsLambdaDerivs().size(), 3 * count);
    EXPECT_EQ(f2.GetHermiteCoefficientsLambdaDeriv().size(), count + 1);
    EXPECT_EQ(f2.GetHermiteCoefficientsLambdaSecondDerivs().size(), 6 * count);
    EXPECT_TRUE(f2.GetTranslationalDerivs().empty());
    EXPECT_TRUE(f2.GetTranslationalSecondDerivs().empty());

    const QVGaussianToHermite f3 = Transform(N, kUnequal, gaussians, 3);
    EXPECT_TRUE(f3.GetHermiteCoefficientsLambdaDerivs().empty());
    EXPECT_TRUE(f3.GetHermiteCoefficientsLambdaDeriv().empty());
    ASSERT_EQ(f3.GetTranslationalDerivs().size(), 3u);
    for (const auto& d : f3.GetTranslationalDerivs())
        EXPECT_EQ(d.size(), count);
    EXPECT_TRUE(f3.GetTranslationalSecondDerivs().empty());

    const QVGaussianToHermite f4 = Transform(N, kUnequal, gaussians, 4);
    EXPECT_TRUE(f4.GetHermiteCoefficientsLambdaDerivs().empty());
    ASSERT_EQ(f4.GetTranslationalDerivs().size(), 3u);
    ASSERT_EQ(f4.GetTranslationalSecondDerivs().size(), 6u);
    for (const auto& d : f4.GetTranslationalSecondDerivs())
        EXPECT_EQ(d.size(), count);
}

// With the centre at the origin the one-axis integrand exp(-a x^2) exp(-lambda^2 x^2 / 2) is
// even while H_k is odd for odd k, so F_k = 0 for odd k, and every coefficient with an odd
// degree along some axis vanishes. The library's recurrence gives these zeros exactly.
TEST(TransformEdgeCaseTest, GaussianAtOriginHasVanishingOddDegreeTables) {
    const unsigned int N = 7;
    const QVGaussian g = MakeGaussian(1.75f, 0.8125f, 0.0f, 0.0f, 0.0f);
    const auto table = GaussianToHermiteCoefficientsAndDerivs(N, 1.2, g, 0);
    ASSERT_EQ(table.size(), 15u);
    for (unsigned int block = 0; block < 3; ++block) {
        const std::vector<double>& F = table[5 * block];
        ASSERT_EQ(F.size(), N + 5);
        for (unsigned int k = 0; k < F.size(); ++k) {
            if (k % 2 == 1) {
                EXPECT_EQ(F[k], 0.0) << "block " << block << " degree " << k;
            } else {
                EXPECT_NE(F[k], 0.0) << "block " << block << " degree " << k;
            }
        }
    }
}

TEST(TransformEdgeCaseTest, GaussianAtOriginHasZeroCoefficientsWithAnOddDegree) {
    const unsigned int N = 6;
    const QVGaussianToHermite t =
        Transform(N, kUnequal, {MakeGaussian(1.75f, 0.8125f, 0.0f, 0.0f, 0.0f)}, 0);
    const std::vector<double>& c = t.GetHermiteCoefficients();
    const std::vector<Triple> triples = LmnTriples(N);
    ASSERT_EQ(c.size(), triples.size());
    for (std::size_t i = 0; i < triples.size(); ++i) {
        const Triple& tr = triples[i];
        const bool anyOdd = (tr.l % 2) || (tr.m % 2) || (tr.n % 2);
        if (anyOdd) {
            EXPECT_EQ(c[i], 0.0) << tr.l << tr.m << tr.n;
        } else {
            EXPECT_NE(c[i], 0.0) << tr.l << tr.m << tr.n;
        }
    }
}

// F_0 has a closed form: lambda * Integral exp(-a (x - x0)^2 - lambda^2 x^2 / 2) dx
// = lambda sqrt(pi / p) exp(-a (lambda^2 / 2) x0^2 / p) with p = a + lambda^2 / 2.
TEST(TransformEdgeCaseTest, OrderZeroGivesOneCoefficientFromClosedFormF0) {
    const std::vector<QVGaussian> gaussians = ThreeGaussians();
    const QVGaussianToHermite t = Transform(0, kUnequal, gaussians, 0);
    const std::vector<double>& c = t.GetHermiteCoefficients();
    ASSERT_EQ(c.size(), 1u);
    double expected = 0.0;
    for (const QVGaussian& g : gaussians) {
        double product = g.GetPrefactor();
        for (unsigned int axis = 0; axis < 3; ++axis) {
            const double a = g.GetExponent(), lambda = kUnequal.v[axis];
            const double x0 = Centre(g, axis);
            const double halfL2 = 0.5 * lambda * lambda, p = a + halfL2;
            product *= lambda * std::sqrt(kPi / p) * std::exp(-a * halfL2 * x0 * x0 / p);
        }
        expected += product / std::pow(std::sqrt(kPi), 3);
    }
    EXPECT_NEAR(c[0], expected, 1e-13 * std::fabs(expected));
}

TEST(TransformEdgeCaseTest, EqualLambdasSingleLambdaDerivativeIsSumOfAxisDerivatives) {
    const unsigned int N = 5;
    const std::size_t count = CoefficientCount(N);
    const QVGaussianToHermite t = Transform(N, {{1.1, 1.1, 1.1}}, ThreeGaussians(), 1);
    const std::vector<double>& single = t.GetHermiteCoefficientsLambdaDeriv();
    const std::vector<double>& perAxis = t.GetHermiteCoefficientsLambdaDerivs();
    ASSERT_EQ(single.size(), count + 1);
    ASSERT_EQ(perAxis.size(), 3 * count);
    for (std::size_t i = 0; i < count; ++i) {
        const double sum = perAxis[3 * i] + perAxis[3 * i + 1] + perAxis[3 * i + 2];
        const double magnitude = std::fabs(perAxis[3 * i]) + std::fabs(perAxis[3 * i + 1]) +
                                 std::fabs(perAxis[3 * i + 2]);
        EXPECT_NEAR(single[i], sum, 1e-15 * magnitude) << i;
    }
    EXPECT_EQ(single.back(), 0.0);
}

// Origin-centred Gaussian: d c_lmn / dx involves dF^x_l / dx0 F^y_m F^z_n. At x0 = 0 the
// derivative of the even function F^x_l(x0) (l even) vanishes, and the odd ones F^y_m, F^z_n
// (m or n odd) vanish; so d/dx is 0 for even l or odd m or odd n. Likewise for y and z.
TEST(TransformEdgeCaseTest, GaussianAtOriginTranslationalDerivativesFollowParity) {
    const unsigned int N = 6;
    const QVGaussianToHermite t =
        Transform(N, kUnequal, {MakeGaussian(1.75f, 0.8125f, 0.0f, 0.0f, 0.0f)}, 4);
    const auto& d = t.GetTranslationalDerivs();
    ASSERT_EQ(d.size(), 3u);
    const std::vector<Triple> triples = LmnTriples(N);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        ASSERT_EQ(d[axis].size(), triples.size());
        for (std::size_t i = 0; i < triples.size(); ++i) {
            const unsigned int deg[3] = {triples[i].l, triples[i].m, triples[i].n};
            bool zero = deg[axis] % 2 == 0;
            for (unsigned int other = 0; other < 3; ++other) {
                if (other != axis && deg[other] % 2 == 1)
                    zero = true;
            }
            if (zero) {
                EXPECT_EQ(d[axis][i], 0.0)
                    << "axis " << axis << " lmn " << deg[0] << deg[1] << deg[2];
            } else {
                EXPECT_NE(d[axis][i], 0.0)
                    << "axis " << axis << " lmn " << deg[0] << deg[1] << deg[2];
            }
        }
    }
    // c_000 is even in each translation separately, so its mixed second derivatives vanish,
    // while the pure ones (the curvature of the Gaussian overlap) do not.
    const auto& d2 = t.GetTranslationalSecondDerivs();
    ASSERT_EQ(d2.size(), 6u);
    EXPECT_EQ(d2[Packed(0, 1)][0], 0.0);
    EXPECT_EQ(d2[Packed(0, 2)][0], 0.0);
    EXPECT_EQ(d2[Packed(1, 2)][0], 0.0);
    EXPECT_LT(d2[Packed(0, 0)][0], 0.0);
    EXPECT_LT(d2[Packed(1, 1)][0], 0.0);
    EXPECT_LT(d2[Packed(2, 2)][0], 0.0);
}

TEST(TransformEdgeCaseTest, ContractingWithZerosGivesZeros) {
    const unsigned int N = 4;
    const QVGaussianToHermite t = Transform(N, kUnequal, ThreeGaussians(), 4);
    const std::vector<double> zeros(CoefficientCount(N), 0.0);
    EXPECT_EQ(t.GetTranslationalDerivativeConvolution(zeros), std::vector<double>(3, 0.0));
    EXPECT_EQ(t.GetTranslationalSecondDerivativeConvolution(zeros), std::vector<double>(6, 0.0));
}

TEST(TransformEdgeCaseTest, KCoefficientsAreHermiteNorms) {
    const unsigned int N = 12;
    const QVGaussianToHermite t = Transform(N, kUnequal, ThreeGaussians(), 0);
    EXPECT_EQ(t.GetKCoeffs(), QVHermiteMath::computeKs(N));
    const std::vector<double> K = NormTable(N);
    ASSERT_EQ(t.GetKCoeffs().size(), K.size());
    for (unsigned int i = 0; i <= N; ++i) {
        // Up to one rounding per factor of 2^i i!.
        EXPECT_NEAR(t.GetKCoeffs()[i], K[i], 1e-14 * K[i]) << i;
    }
}

TEST(TransformEdgeCaseTest, EmptyGaussianListGivesZeroCoefficientsAndZeroSelfOverlap) {
    const unsigned int N = 4;
    const std::size_t count = CoefficientCount(N);
    const QVGaussianToHermite t = Transform(N, kUnequal, {}, 0);
    EXPECT_EQ(t.GetHermiteCoefficients(), std::vector<double>(count, 0.0));
    EXPECT_EQ(t.GetSelfOverlap(), 0.0);

    const QVGaussianToHermite t4 = Transform(N, kUnequal, {}, 4);
    EXPECT_EQ(t4.GetHermiteCoefficients(), std::vector<double>(count, 0.0));
    for (const auto& d : t4.GetTranslationalDerivs()) {
        EXPECT_EQ(d, std::vector<double>(count, 0.0));
    }
    for (const auto& d : t4.GetTranslationalSecondDerivs()) {
        EXPECT_EQ(d, std::vector<double>(count, 0.0));
    }
}

// =============================================================================================
// One-Gaussian tables against quadrature

TEST(GaussianTableTest, OneAxisCoefficientsEqualQuadratureOfProjectionIntegral) {
    const unsigned int N = 8;
    const double lambda = 1.3;
    const QVGaussian g = MakeGaussian(3.0f, 0.8125f, 0.515625f, -0.75f, 1.125f);
    const auto table = GaussianToHermiteCoefficientsAndDerivs(N, lambda, g, 0);
    ASSERT_EQ(table.size(), 15u);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        const std::vector<double>& F = table[5 * axis];
        ASSERT_EQ(F.size(), N + 5);
        // The table is that of a unit-height Gaussian: the weight is not in it.
        const std::vector<double> expected =
            QuadratureTable(N + 4, lambda, g.GetExponent(), Centre(g, axis));
        ExpectTableClose(F, expected, 1e-12, "F axis " + std::to_string(axis));
    }
}

TEST(GaussianTableTest, UnrequestedVectorsAreEmptyAndRequestedHaveOrderPlusOneEntries) {
    const unsigned int N = 5;
    const QVGaussian g = MakeGaussian(1.0f, 0.8125f, 0.25f, -0.5f, 0.125f);
    // Positions within a block: 1 lambda first (flags 1, 2), 2 translation first (3, 4),
    // 3 translation second (4), 4 lambda second (2).
    const bool filled[6][5] = {
        {true, false, false, false, false}, {true, true, false, false, false},
        {true, true, false, false, true},   {true, false, true, false, false},
        {true, false, true, true, false},   {true, false, false, false, false},
    };
    for (unsigned int flag = 0; flag <= 5; ++flag) {
        const auto table = GaussianToHermiteCoefficientsAndDerivs(N, 1.1, g, flag);
        ASSERT_EQ(table.size(), 15u) << flag;
        for (unsigned int block = 0; block < 3; ++block) {
            EXPECT_EQ(table[5 * block].size(), N + 5) << flag;
            for (unsigned int position = 1; position < 5; ++position) {
                const std::size_t size = table[5 * block + position].size();
                if (filled[flag][position]) {
                    EXPECT_EQ(size, N + 1) << "flag " << flag << " position " << position;
                } else {
                    EXPECT_EQ(size, 0u) << "flag " << flag << " position " << position;
                }
            }
        }
    }
}

// The derivative vectors of a table are derivatives of F_k(t, y) with t = sqrt(2a) / lambda and
// y = sqrt(2a) x0. Positions 1 and 4 are dF/dt and d2F/dt2 (checked by recomputing F at
// lambda = sqrt(2a) / (t +- h)). Positions 2 and 3 carry the centre dependence: multiplied by
// the chain-rule factors -sqrt(2a) and 2a, they are dF/dx0 and d2F/dx0^2 (checked by moving x0
// by float-exact steps).
TEST(GaussianTableTest, DerivativeVectorsAreScaleAndCentreDerivativesOfF) {
    const unsigned int N = 6;
    const double lambda = 1.2;
    const float x0 = 0.515625f;
    const QVGaussian g = MakeGaussian(1.0f, 0.8125f, x0, 0.0f, 0.0f);
    const double r = std::sqrt(2.0 * static_cast<double>(g.GetExponent()));
    const double t = r / lambda;
    const auto lambdaTable = GaussianToHermiteCoefficientsAndDerivs(N, lambda, g, 2);
    const auto moveTable = GaussianToHermiteCoefficientsAndDerivs(N, lambda, g, 4);
    const auto firstN1 = [&](const std::vector<double>& F) {
        return std::vector<double>(F.begin(), F.begin() + N + 1);
    };

    // F as a function of a shift of t.
    const auto ofT = [&](double dt) {
        return firstN1(GaussianToHermiteCoefficientsAndDerivs(N, r / (t + dt), g, 0)[0]);
    };
    // F as a function of a shift of the centre (x block).
    const auto ofX = [&](double dx) {
        const QVGaussian moved =
            MakeGaussian(1.0f, g.GetExponent(), x0 + static_cast<float>(dx), 0.0f, 0.0f);
        return firstN1(GaussianToHermiteCoefficientsAndDerivs(N, lambda, moved, 0)[0]);
    };

    // Richardson-extrapolated differences, truncation error ~ h^4 / 30 times the fifth
    // derivative. F varies in t and in y = sqrt(2a) x0 on a scale of about 1 / sqrt(N), so
    // relative to the derivative's size the truncation error is near (h sqrt(N) sqrt(2a))^4 / 30:
    // about 1e-11 for h = 1e-3 in t and 1e-10 for h = 1/512 in x0 (a step that keeps every moved
    // centre exact in single precision). Rounding is about eps / h (first derivatives, ~1e-13)
    // and eps / h^2 (second, ~2e-10 in t and 6e-11 in x0). Tolerances: 1e-9 and 1e-8.
    ExpectTableClose(lambdaTable[1], FirstDifference(ofT, 1e-3), 1e-9, "dF/dt");
    ExpectTableClose(lambdaTable[4], SecondDifference(ofT, 1e-3), 1e-8, "d2F/dt2");

    const double hx = 1.0 / 512;
    std::vector<double> dFdx(N + 1), d2Fdx2(N + 1);
    for (unsigned int k = 0; k <= N; ++k) {
        dFdx[k] = -r * moveTable[2][k];
        d2Fdx2[k] = r * r * moveTable[3][k];
    }
    ExpectTableClose(dFdx, FirstDifference(ofX, hx), 1e-9, "dF/dx0");
    ExpectTableClose(d2Fdx2, SecondDifference(ofX, hx), 1e-8, "d2F/dx0^2");
}

// =============================================================================================
// Coefficients against quadrature

TEST(TransformQuadratureTest, CoefficientsEqualFactorisedProjectionIntegrals) {
    // Three off-centre Gaussians (one of negative weight) with unequal lambdas.
    {
        const unsigned int N = 8;
        const std::vector<QVGaussian> gaussians = ThreeGaussians();
        const QVGaussianToHermite t = Transform(N, kUnequal, gaussians, 0);
        // Simpson's rule is accurate to rounding here; 1e-12 leaves room for the rounding of
        // the 4000-term sums and of the products over three axes.
        ExpectNormalisedClose(t.GetHermiteCoefficients(),
                              QuadratureCoefficients(N, kUnequal, gaussians), N, 1, 1e-12,
                              "three Gaussians, N = 8");
    }
    // Two Gaussians, other lambdas and order.
    {
        const unsigned int N = 6;
        const Lambdas lambdas = {{1.4, 0.8, 1.05}};
        const std::vector<QVGaussian> gaussians = {
            MakeGaussian(0.5f, 2.0f, -0.828125f, 0.0625f, 0.25f),
            MakeGaussian(4.0f, 0.5f, 0.3125f, 0.71875f, -0.96875f),
        };
        const QVGaussianToHermite t = Transform(N, lambdas, gaussians, 0);
        ExpectNormalisedClose(t.GetHermiteCoefficients(),
                              QuadratureCoefficients(N, lambdas, gaussians), N, 1, 1e-12,
                              "two Gaussians, N = 6");
    }
}

// The self-overlap is (1 / (lx ly lz)) sum c^2 K_l K_m K_n: recomputed here from the quadrature
// coefficients.
TEST(TransformQuadratureTest, SelfOverlapEqualsKWeightedSumOfQuadratureCoefficients) {
    const unsigned int N = 8;
    const std::vector<QVGaussian> gaussians = ThreeGaussians();
    const std::vector<double> c = QuadratureCoefficients(N, kUnequal, gaussians);
    const std::vector<double> K = NormTable(N);
    const std::vector<Triple> triples = LmnTriples(N);
    double sum = 0.0;
    for (std::size_t i = 0; i < triples.size(); ++i) {
        sum += c[i] * c[i] * K[triples[i].l] * K[triples[i].m] * K[triples[i].n];
    }
    const double expected = sum / (kUnequal.v[0] * kUnequal.v[1] * kUnequal.v[2]);
    const double S = Transform(N, kUnequal, gaussians, 0).GetSelfOverlap();
    EXPECT_NEAR(S, expected, 1e-12 * expected);
}

// A direct 3-D check of the projection for a low order, without using the factorisation:
// c_lmn = lx ly lz * Integral(rho phi_lmn) / (K_l K_m K_n), rho evaluated as a sum of 3-D
// Gaussians at every grid point. The trapezoidal rule on a uniform grid converges
// geometrically for smooth Gaussian-decaying integrands: with spacing 1/4 and exponents of the
// integrand's Gaussian factor between 0.9 and 2 the discretisation error is below
// exp(-2 pi^2 sigma^2 / h^2) ~ e^-80, and the box [-8, 8]^3 cuts tails below e^-40.
TEST(TransformQuadratureTest, LowOrderCoefficientsEqualThreeDimensionalProjectionIntegrals) {
    const unsigned int N = 2;
    const std::vector<QVGaussian> gaussians = ThreeGaussians();
    const double half = 8.0, h = 0.25;
    const unsigned int points = static_cast<unsigned int>(2 * half / h) + 1;
    std::vector<double> grid(points);
    for (unsigned int i = 0; i < points; ++i)
        grid[i] = -half + h * i;

    // basis[axis][k][i] = H_k(lambda x_i) exp(-lambda^2 x_i^2 / 2)
    std::vector<std::vector<double>> basis[3];
    std::vector<double> hp;
    for (unsigned int axis = 0; axis < 3; ++axis) {
        basis[axis].assign(N + 1, std::vector<double>(points));
        const double lambda = kUnequal.v[axis];
        for (unsigned int i = 0; i < points; ++i) {
            const double u = lambda * grid[i];
            hp = HermitePolynomials(N, u);
            for (unsigned int k = 0; k <= N; ++k)
                basis[axis][k][i] = hp[k] * std::exp(-0.5 * u * u);
        }
    }

    const std::vector<Triple> triples = LmnTriples(N);
    std::vector<double> integral(triples.size(), 0.0);
    for (unsigned int i = 0; i < points; ++i) {
        for (unsigned int j = 0; j < points; ++j) {
            for (unsigned int k = 0; k < points; ++k) {
                double rho = 0.0;
                for (const QVGaussian& g : gaussians) {
                    const double dx = grid[i] - g.GetX(), dy = grid[j] - g.GetY(),
                                 dz = grid[k] - g.GetZ();
                    rho += g.GetPrefactor() *
                           std::exp(-g.GetExponent() * (dx * dx + dy * dy + dz * dz));
                }
                for (std::size_t t = 0; t < triples.size(); ++t) {
                    integral[t] += rho * basis[0][triples[t].l][i] * basis[1][triples[t].m][j] *
                                   basis[2][triples[t].n][k];
                }
            }
        }
    }
    const std::vector<double> K = NormTable(N);
    std::vector<double> expected(triples.size());
    for (std::size_t t = 0; t < triples.size(); ++t) {
        expected[t] = kUnequal.v[0] * kUnequal.v[1] * kUnequal.v[2] * h * h * h * integral[t] /
                      (K[triples[t].l] * K[triples[t].m] * K[triples[t].n]);
    }
    const QVGaussianToHermite transform = Transform(N, kUnequal, gaussians, 0);
    ExpectNormalisedClose(transform.GetHermiteCoefficients(), expected, N, 1, 1e-12,
                          "3-D projection");
}

// =============================================================================================
// Self-overlap

// S_N is the squared norm of the orthogonal projection of rho onto the span of the basis
// functions of degree <= N. These spans are nested, so S_N is non-decreasing in N and bounded by
// the squared norm of rho (its exact self-overlap), to which it converges.
TEST(TransformSelfOverlapTest, TruncatedSelfOverlapGrowsWithOrderTowardsExactOverlap) {
    const std::vector<QVGaussian> gaussians = CompactDensity();
    const double exact = ExactSelfOverlap(gaussians);
    EXPECT_NEAR(QVHermiteMath::GaussianOverlap(gaussians, gaussians), exact, 1e-14 * exact);
    double previous = 0.0;
    double S = 0.0;
    for (unsigned int N = 0; N <= 20; ++N) {
        S = Transform(N, {{1.0, 1.0, 1.0}}, gaussians, 0).GetSelfOverlap();
        // Rounding allowance only: the sums are of positive terms.
        EXPECT_GE(S, previous * (1.0 - 1e-13)) << "N = " << N;
        EXPECT_LE(S, exact * (1.0 + 1e-13)) << "N = " << N;
        previous = S;
    }
    EXPECT_NEAR(S, exact, 1e-6 * exact);
}

TEST(TransformSelfOverlapTest, TruncatedSelfOverlapWithUnequalLambdasIsMonotoneAndBounded) {
    const std::vector<QVGaussian> gaussians = ThreeGaussians();
    const double exact = ExactSelfOverlap(gaussians);
    double previous = 0.0;
    double S = 0.0;
    for (unsigned int N = 0; N <= 16; ++N) {
        S = Transform(N, kUnequal, gaussians, 0).GetSelfOverlap();
        EXPECT_GE(S, previous * (1.0 - 1e-13)) << "N = " << N;
        EXPECT_LE(S, exact * (1.0 + 1e-13)) << "N = " << N;
        previous = S;
    }
    // Slower convergence with the smaller lambdas, but well on the way.
    EXPECT_GT(S, 0.99 * exact);
}

// Translating the density leaves its exact self-overlap unchanged, but the basis is centred at
// the origin, so the truncated projection captures a different part of it: moved well away
// from the origin, a visibly smaller part.
TEST(TransformSelfOverlapTest, TranslationChangesTruncatedButNotExactSelfOverlap) {
    const unsigned int N = 4;
    const std::vector<QVGaussian> gaussians = CompactDensity();
    const std::vector<QVGaussian> moved = Moved(Moved(gaussians, 0, 1.5f), 2, -1.0f);
    const double exact = ExactSelfOverlap(gaussians);
    EXPECT_NEAR(QVHermiteMath::GaussianOverlap(moved, moved), exact, 1e-13 * exact);
    const double S = Transform(N, {{1.0, 1.0, 1.0}}, gaussians, 0).GetSelfOverlap();
    const double movedS = Transform(N, {{1.0, 1.0, 1.0}}, moved, 0).GetSelfOverlap();
    EXPECT_LT(movedS, S * (1.0 - 1e-2));
    EXPECT_LE(movedS, exact);
}

// =============================================================================================
// Lambda derivatives
//
// Lambdas are doubles, so any step works. Central differences with one Richardson step have a
// truncation error h^4 f^(5) / 30; with h = 1e-3 and coefficients varying with lambda on a scale
// of about lambda / N (N = 6, lambdas 0.75 to 1.15) the relative error is at most
// (h N / lambda)^4 / 30 ~ 1e-10, and the rounding error about eps / h = 2e-13. Tolerances of
// 1e-9 (first derivatives) and 1e-8 (second derivatives, differences of first derivatives, whose
// own error adds in) leave a margin of one to two orders of magnitude.

constexpr unsigned int kLambdaOrder = 6;
constexpr double kLambdaStep = 1e-3;

std::vector<double> CoefficientsAt(const Lambdas& lambdas) {
    return Transform(kLambdaOrder, lambdas, ThreeGaussians(), 0).GetHermiteCoefficients();
}

TEST(TransformLambdaDerivativeTest, FirstLambdaDerivativesEqualCentralDifferences) {
    const std::size_t count = CoefficientCount(kLambdaOrder);
    const QVGaussianToHermite t = Transform(kLambdaOrder, kUnequal, ThreeGaussians(), 1);
    const std::vector<double>& interleaved = t.GetHermiteCoefficientsLambdaDerivs();
    ASSERT_EQ(interleaved.size(), 3 * count);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        const auto f = [&](double d) {
            Lambdas moved = kUnequal;
            moved.v[axis] += d;
            return CoefficientsAt(moved);
        };
        ExpectNormalisedClose(Strided(interleaved, 3, axis, count), FirstDifference(f, kLambdaStep),
                              kLambdaOrder, 1, 1e-9, "dc/dlambda axis " + std::to_string(axis));
    }
    // Asking for second derivatives as well does not change the first ones.
    EXPECT_EQ(
        Transform(kLambdaOrder, kUnequal, ThreeGaussians(), 2).GetHermiteCoefficientsLambdaDerivs(),
        interleaved);
}

// With one lambda shared by all axes, dc/dlambda is the derivative along (1, 1, 1) in lambda
// space: move all three lambdas together.
TEST(TransformLambdaDerivativeTest, SingleLambdaDerivativeEqualsCentralDifferenceOfCommonLambda) {
    const std::size_t count = CoefficientCount(kLambdaOrder);
    for (const Lambdas& base : {Lambdas{{1.1, 1.1, 1.1}}, kUnequal}) {
        const QVGaussianToHermite t = Transform(kLambdaOrder, base, ThreeGaussians(), 1);
        const std::vector<double>& single = t.GetHermiteCoefficientsLambdaDeriv();
        ASSERT_EQ(single.size(), count + 1);
        const auto f = [&](double d) {
            Lambdas moved = base;
            for (double& l : moved.v)
                l += d;
            return CoefficientsAt(moved);
        };
        ExpectNormalisedClose(std::vector<double>(single.begin(), single.begin() + count),
                              FirstDifference(f, kLambdaStep), kLambdaOrder, 1, 1e-9,
                              "dc/dlambda common");
        EXPECT_EQ(single.back(), 0.0);
    }
}

// d2c / (dl_a dl_b) is the derivative in l_b of the first derivatives dc/dl_a; every ordered
// pair is checked, so the symmetry of the packed storage is checked too.
TEST(TransformLambdaDerivativeTest, SecondLambdaDerivativesEqualCentralDifferencesOfFirst) {
    const std::size_t count = CoefficientCount(kLambdaOrder);
    const QVGaussianToHermite t = Transform(kLambdaOrder, kUnequal, ThreeGaussians(), 2);
    const std::vector<double>& packed = t.GetHermiteCoefficientsLambdaSecondDerivs();
    ASSERT_EQ(packed.size(), 6 * count);
    for (unsigned int b = 0; b < 3; ++b) {
        const auto derivs = [&](double d) {
            Lambdas moved = kUnequal;
            moved.v[b] += d;
            return Transform(kLambdaOrder, moved, ThreeGaussians(), 1)
                .GetHermiteCoefficientsLambdaDerivs();
        };
        const std::vector<double> fd = FirstDifference(derivs, kLambdaStep);
        for (unsigned int a = 0; a < 3; ++a) {
            ExpectNormalisedClose(Strided(packed, 6, Packed(a, b), count), Strided(fd, 3, a, count),
                                  kLambdaOrder, 1, 1e-8,
                                  "d2c/dl" + std::to_string(a) + "dl" + std::to_string(b));
        }
    }
}

// The self-overlap derivatives are scalars; their tolerance is relative to the larger of the
// values and S / lambda^k (k = 1, 2), the natural size of a k-th derivative of S, so that
// derivatives near zero (near the optimal lambdas) are still judged on a meaningful scale.
double SelfOverlapAt(const Lambdas& lambdas) {
    return Transform(kLambdaOrder, lambdas, ThreeGaussians(), 0).GetSelfOverlap();
}

TEST(TransformLambdaDerivativeTest, SelfOverlapLambdaDerivativesEqualCentralDifferences) {
    const QVGaussianToHermite t = Transform(kLambdaOrder, kUnequal, ThreeGaussians(), 1);
    const double S = t.GetSelfOverlap();
    std::vector<double> dS = {123.0};  // the routine clears its output first
    t.GetSelfOverlapLambdaDerivs(dS);
    ASSERT_EQ(dS.size(), 3u);
    std::vector<double> expected(3);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        expected[axis] = FirstDifference(
            [&](double d) {
                Lambdas moved = kUnequal;
                moved.v[axis] += d;
                return std::vector<double>{SelfOverlapAt(moved)};
            },
            kLambdaStep)[0];
    }
    ExpectScaledClose(dS, expected, 1e-9, std::max(MaxAbs(expected), S / 0.75), "dS/dlambda");

    const double common = FirstDifference(
        [&](double d) {
            Lambdas moved = kUnequal;
            for (double& l : moved.v)
                l += d;
            return std::vector<double>{SelfOverlapAt(moved)};
        },
        kLambdaStep)[0];
    EXPECT_NEAR(t.GetSelfOverlapLambdaDeriv(), common,
                1e-9 * std::max(std::fabs(common), S / 0.75));
}

TEST(TransformLambdaDerivativeTest, SelfOverlapLambdaSecondDerivativesEqualCentralDifferences) {
    const QVGaussianToHermite t = Transform(kLambdaOrder, kUnequal, ThreeGaussians(), 2);
    const double S = t.GetSelfOverlap();
    std::vector<double> hessian = {1.0, 2.0};  // the routine clears its output first
    t.GetSelfOverlapLambdaSecondDerivs(hessian);
    ASSERT_EQ(hessian.size(), 6u);
    for (unsigned int b = 0; b < 3; ++b) {
        const std::vector<double> fd = FirstDifference(
            [&](double d) {
                Lambdas moved = kUnequal;
                moved.v[b] += d;
                std::vector<double> out;
                Transform(kLambdaOrder, moved, ThreeGaussians(), 1).GetSelfOverlapLambdaDerivs(out);
                return out;
            },
            kLambdaStep);
        for (unsigned int a = 0; a < 3; ++a) {
            EXPECT_NEAR(hessian[Packed(a, b)], fd[a],
                        1e-8 * std::max(std::fabs(fd[a]), S / (0.75 * 0.75)))
                << "d2S/dl" << a << "dl" << b;
        }
    }
}

// =============================================================================================
// Translational derivatives
//
// Every centre is moved by +t along one axis. Steps are powers of two and the centres
// multiples of 1/64 below 1 in size, so every moved centre is exact in single precision and the
// differences see only the translation. With Richardson-extrapolated central differences the
// truncation error is h^4 f^(5) / 30. Each translation derivative brings a factor of about
// sqrt(2a) sqrt(N) ~ 4, so h = 1/512 gives a relative error near (4 h)^4 / 30 ~ 2e-11 (rounding
// eps / h ~ 1e-13): tolerance 1e-9. For the second differences of the coefficients h = 1/256
// gives truncation (4 h)^4 / 90 ~ 6e-11 and rounding eps / h^2 ~ 2e-11: tolerance 1e-8.

constexpr unsigned int kMoveOrder = 6;
constexpr double kMoveStep = 1.0 / 512;

std::vector<double> MovedCoefficients(unsigned int axis, double delta) {
    return Transform(kMoveOrder, kUnequal, Moved(ThreeGaussians(), axis, static_cast<float>(delta)),
                     0)
        .GetHermiteCoefficients();
}

TEST(TransformTranslationTest, FirstTranslationalDerivativesEqualCentralDifferences) {
    const QVGaussianToHermite t = Transform(kMoveOrder, kUnequal, ThreeGaussians(), 3);
    const auto& d = t.GetTranslationalDerivs();
    ASSERT_EQ(d.size(), 3u);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        const auto f = [&](double delta) { return MovedCoefficients(axis, delta); };
        ExpectNormalisedClose(d[axis], FirstDifference(f, kMoveStep), kMoveOrder, 1, 1e-9,
                              "dc/dt axis " + std::to_string(axis));
    }
    // Asking for second derivatives as well does not change the first ones.
    EXPECT_EQ(Transform(kMoveOrder, kUnequal, ThreeGaussians(), 4).GetTranslationalDerivs(), d);
}

TEST(TransformTranslationTest, SecondTranslationalDerivativesEqualCentralDifferencesOfFirst) {
    const QVGaussianToHermite t = Transform(kMoveOrder, kUnequal, ThreeGaussians(), 4);
    const auto& d2 = t.GetTranslationalSecondDerivs();
    ASSERT_EQ(d2.size(), 6u);
    for (unsigned int b = 0; b < 3; ++b) {
        for (unsigned int a = 0; a < 3; ++a) {
            const auto f = [&](double delta) {
                return Transform(kMoveOrder, kUnequal,
                                 Moved(ThreeGaussians(), b, static_cast<float>(delta)), 3)
                    .GetTranslationalDerivs()[a];
            };
            ExpectNormalisedClose(d2[Packed(a, b)], FirstDifference(f, kMoveStep), kMoveOrder, 1,
                                  1e-9, "d2c/dt" + std::to_string(a) + "dt" + std::to_string(b));
        }
    }
}

TEST(TransformTranslationTest, PureSecondTranslationalDerivativesEqualSecondDifferences) {
    const QVGaussianToHermite t = Transform(kMoveOrder, kUnequal, ThreeGaussians(), 4);
    const auto& d2 = t.GetTranslationalSecondDerivs();
    ASSERT_EQ(d2.size(), 6u);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        const auto f = [&](double delta) { return MovedCoefficients(axis, delta); };
        ExpectNormalisedClose(d2[Packed(axis, axis)], SecondDifference(f, 1.0 / 256), kMoveOrder, 1,
                              1e-8, "d2c/dt2 axis " + std::to_string(axis));
    }
}

// =============================================================================================
// Convolutions

// A fixed vector v: the contraction sum_i (dc_i / dt) v_i is the derivative of c(t) . v.
TEST(TransformConvolutionTest, TranslationalDerivativeConvolutionIsDerivativeOfDotProduct) {
    const std::size_t count = CoefficientCount(kMoveOrder);
    const std::vector<double> v = FixedRandomVector(count, 20240611u);
    const QVGaussianToHermite t = Transform(kMoveOrder, kUnequal, ThreeGaussians(), 3);
    const std::vector<double> conv = t.GetTranslationalDerivativeConvolution(v);
    ASSERT_EQ(conv.size(), 3u);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        const std::vector<double>& d = t.GetTranslationalDerivs()[axis];
        double magnitude = 0.0;
        for (std::size_t i = 0; i < count; ++i)
            magnitude += std::fabs(d[i] * v[i]);
        // Same terms summed in the same order: equal up to rounding.
        EXPECT_NEAR(conv[axis], Dot(d, v), 1e-14 * magnitude) << axis;
        const double fd = FirstDifference(
            [&](double delta) {
                return std::vector<double>{Dot(MovedCoefficients(axis, delta), v)};
            },
            kMoveStep)[0];
        EXPECT_NEAR(conv[axis], fd, 1e-9 * magnitude) << axis;
    }
}

TEST(TransformConvolutionTest, TranslationalSecondDerivativeConvolutionIsSecondDerivative) {
    const std::size_t count = CoefficientCount(kMoveOrder);
    const std::vector<double> v = FixedRandomVector(count, 7771u);
    const QVGaussianToHermite t = Transform(kMoveOrder, kUnequal, ThreeGaussians(), 4);
    const std::vector<double> conv = t.GetTranslationalSecondDerivativeConvolution(v);
    ASSERT_EQ(conv.size(), 6u);
    std::vector<double> magnitude(6, 0.0);
    for (unsigned int pair = 0; pair < 6; ++pair) {
        const std::vector<double>& d = t.GetTranslationalSecondDerivs()[pair];
        for (std::size_t i = 0; i < count; ++i)
            magnitude[pair] += std::fabs(d[i] * v[i]);
        EXPECT_NEAR(conv[pair], Dot(d, v), 1e-14 * magnitude[pair]) << pair;
    }
    // d/dt_b of the first-derivative contraction, from transforms of moved Gaussians.
    for (unsigned int b = 0; b < 3; ++b) {
        const std::vector<double> fd = FirstDifference(
            [&](double delta) {
                return Transform(kMoveOrder, kUnequal,
                                 Moved(ThreeGaussians(), b, static_cast<float>(delta)), 3)
                    .GetTranslationalDerivativeConvolution(v);
            },
            kMoveStep);
        for (unsigned int a = 0; a < 3; ++a) {
            EXPECT_NEAR(conv[Packed(a, b)], fd[a], 1e-9 * magnitude[Packed(a, b)])
                << "pair " << a << b;
        }
    }
}

// GetCoefficientsConvolution(p, X, Y, Z) weighs Gaussian g by w_g (-sqrt(2 a_g))^p (w_g for
// p = 0). With hand-made tables and exponents whose sqrt(2a) is exact (a = 1.125: 1.5; a = 2:
// 2), the expected values are simple products.
TEST(TransformConvolutionTest, CoefficientsConvolutionWeighsByPowerOfMinusSqrtTwoA) {
    const unsigned int N = 3;
    const std::vector<double> K = NormTable(N);
    const std::vector<Triple> triples = LmnTriples(N);
    const std::vector<double> X1 = {1.0, -2.0, 0.5, 3.0}, Y1 = {0.25, 1.0, -1.0, 2.0},
                              Z1 = {2.0, 0.5, 1.5, -0.75};
    const std::vector<double> X2 = {-1.0, 0.75, 2.0, 1.0}, Y2 = {3.0, -0.5, 0.125, 1.0},
                              Z2 = {1.0, 1.0, -2.0, 0.5};

    // One Gaussian.
    {
        const double w = 1.5, root = 1.5;
        const QVGaussianToHermite t =
            Transform(N, kUnequal, {MakeGaussian(1.5f, 1.125f, 0.25f, -0.5f, 0.75f)}, 0);
        for (unsigned int p = 0; p <= 3; ++p) {
            const double factor = w * std::pow(-root, static_cast<int>(p));
            const std::vector<double> c = t.GetCoefficientsConvolution(p, {X1}, {Y1}, {Z1});
            ASSERT_EQ(c.size(), triples.size());
            for (std::size_t i = 0; i < triples.size(); ++i) {
                const Triple& tr = triples[i];
                const double expected =
                    factor * X1[tr.l] * Y1[tr.m] * Z1[tr.n] / (K[tr.l] * K[tr.m] * K[tr.n]);
                EXPECT_NEAR(c[i], expected, 1e-14 * std::fabs(expected))
                    << "p " << p << " lmn " << tr.l << tr.m << tr.n;
            }
        }
    }
    // Two Gaussians: the weighted terms add.
    {
        const QVGaussianToHermite t = Transform(N, kUnequal,
                                                {MakeGaussian(1.5f, 1.125f, 0.25f, -0.5f, 0.75f),
                                                 MakeGaussian(-0.5f, 2.0f, 0.0f, 0.125f, -1.0f)},
                                                0);
        for (unsigned int p = 0; p <= 2; ++p) {
            const double f1 = 1.5 * std::pow(-1.5, static_cast<int>(p));
            const double f2 = -0.5 * std::pow(-2.0, static_cast<int>(p));
            const std::vector<double> c =
                t.GetCoefficientsConvolution(p, {X1, X2}, {Y1, Y2}, {Z1, Z2});
            ASSERT_EQ(c.size(), triples.size());
            for (std::size_t i = 0; i < triples.size(); ++i) {
                const Triple& tr = triples[i];
                const double kk = K[tr.l] * K[tr.m] * K[tr.n];
                const double t1 = f1 * X1[tr.l] * Y1[tr.m] * Z1[tr.n] / kk;
                const double t2 = f2 * X2[tr.l] * Y2[tr.m] * Z2[tr.n] / kk;
                EXPECT_NEAR(c[i], t1 + t2, 1e-14 * (std::fabs(t1) + std::fabs(t2)))
                    << "p " << p << " lmn " << tr.l << tr.m << tr.n;
            }
        }
    }
}

}  // namespace
