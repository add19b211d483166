// Tests of the Hermite centre of mass: its measurement (QVHermiteCM), the small helpers
// QVTranslateGaussians and max_abs, the objective f(t) = |c(t)|^2 (QVHermiteCOMFunc) and the two
// searches for the translation that brings the centre of mass to the origin.
//
// What the oracles rely on.
//
// The centre of mass c = (m_100, m_010, m_001) / m_000 is a ratio of Hermite moments of the
// truncated expansion. Those moments are the library's own moment functionals (built on a signed
// log-gamma), so c does NOT move rigidly with the density: translating the Gaussians by s moves c
// by J s with a Jacobian J that is far from the identity (for the small densities below its
// diagonal entries are mostly negative). Nothing here assumes rigid motion. What does hold
// whatever the moment functional is:
// - parity: H_l is odd for odd l, so the coefficients with odd l change sign when the density is
//   mirrored in x, and the first moment m_100 (which only sees odd l) changes sign with them. A
//   density made of +-p pairs therefore has c = 0, and its first moments cancel exactly in
//   floating point when the pair members are expanded one after the other;
// - calculus: with equal lambdas the analytic gradient and Hessian of f are the derivatives of
//   the value, which central differences (refined by one Richardson step) reproduce;
// - the iterative search is a fixed sequence of measurements and float translations that the
//   tests replay step by step with the same building blocks.
//
// QVHermiteCOMFunc rounds the translation to float before adding it to the float centres, so all
// finite-difference points are multiples of 1/512 and every centre is a multiple of 1/8 below 4
// in magnitude: each moved centre is then exact in single precision and the objective is sampled
// without rounding of the translation.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "hermite/hermite.h"
#include "qv/error.h"
#include "support/test_support.h"

namespace {

using QVHermiteMath::Hermite3DMoment;
using QVHermiteMath::max_abs;
using QVHermiteMath::QVGaussian;
using QVHermiteMath::QVHermite;
using QVHermiteMath::QVHermiteCM;
using QVHermiteMath::QVHermiteCOMFunc;
using QVHermiteMath::QVHermiteOptions;
using QVHermiteMath::QVIterativeSearchOfHermiteCOM;
using QVHermiteMath::QVOptimizationSearchOfHermiteCOM;
using QVHermiteMath::QVTranslateGaussians;

using hermite_test::Carbons;
using hermite_test::Centre;
using hermite_test::Determinant;
using hermite_test::ExpectSameGaussians;
using hermite_test::FirstDifference;
using hermite_test::FixedOptions;
using hermite_test::MessageRecorder;
using hermite_test::SixAsymmetric;

using Vec3 = std::array<double, 3>;

// The Newton search's gradient tolerance.
constexpr double kNewtonTolerance = 1e-4;

// Four Gaussians without any symmetry.
std::vector<QVGaussian> FourAsymmetric() {
    return Carbons(
        {{0.25f, 0.0f, 0.0f}, {1.5f, 0.5f, 0.0f}, {-1.25f, -0.5f, 0.25f}, {0.75f, -1.0f, -0.25f}});
}

// Three +-p pairs, each member directly followed by its mirror image: centred at the origin by
// point symmetry.
std::vector<QVGaussian> SymmetricPairs() {
    return Carbons({{0.75f, 0.5f, 0.25f},
                    {-0.75f, -0.5f, -0.25f},
                    {1.25f, -0.375f, 0.5f},
                    {-1.25f, 0.375f, -0.5f},
                    {0.25f, 1.0f, -0.75f},
                    {-0.25f, -1.0f, 0.75f}});
}

std::vector<Centre> CentresOf(const std::vector<QVGaussian>& gaussians) {
    std::vector<Centre> centres;
    for (const QVGaussian& g : gaussians) {
        centres.push_back({g.GetX(), g.GetY(), g.GetZ()});
    }
    return centres;
}

// Adds the float shift to every centre, one single-precision addition per coordinate.
void ShiftInFloat(std::vector<QVGaussian>& gaussians, const float shift[3]) {
    for (QVGaussian& g : gaussians) {
        const float x = g.GetX() + shift[0];
        const float y = g.GetY() + shift[1];
        const float z = g.GetZ() + shift[2];
        g.SetX(x);
        g.SetY(y);
        g.SetZ(z);
    }
}

// The density moved by t, t rounded to float first (as the objective does).
std::vector<QVGaussian> Moved(const std::vector<QVGaussian>& gaussians, const Vec3& t) {
    std::vector<QVGaussian> moved = gaussians;
    const float shift[3] = {static_cast<float>(t[0]), static_cast<float>(t[1]),
                            static_cast<float>(t[2])};
    ShiftInFloat(moved, shift);
    return moved;
}

double SquaredLength(const std::vector<double>& c) {
    return (c[0] * c[0] + c[1] * c[1]) + c[2] * c[2];
}

double MaxMagnitude(const double* v, std::size_t n) {
    double m = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        m = std::max(m, std::fabs(v[i]));
    }
    return m;
}

// Derivative of a vector-valued function along one coordinate by central differences refined by
// one Richardson step, (4 D(h/2) - D(h)) / 3: the h^2 term cancels, leaving an O(h^4) error.
std::vector<double> RichardsonDerivative(
    const std::function<std::vector<double>(const Vec3&)>& function, const Vec3& x, int axis,
    double h) {
    return FirstDifference(
        [&](double step) {
            Vec3 moved = x;
            moved[axis] += step;
            return function(moved);
        },
        0.5 * h);
}

// Second derivative d2f / dt_a dt_b of a scalar function by central differences (the
// three-point formula on the diagonal, the four-point cross formula off it), refined by one
// Richardson step.
double RichardsonSecondDerivative(const std::function<double(const Vec3&)>& f, const Vec3& x, int a,
                                  int b, double h) {
    const auto central = [&](double step) {
        if (a == b) {
            Vec3 plus = x, minus = x;
            plus[a] += step;
            minus[a] -= step;
            return (f(plus) - 2.0 * f(x) + f(minus)) / (step * step);
        }
        double sum = 0.0;
        for (int sa = -1; sa <= 1; sa += 2) {
            for (int sb = -1; sb <= 1; sb += 2) {
                Vec3 p = x;
                p[a] += sa * step;
                p[b] += sb * step;
                sum += sa * sb * f(p);
            }
        }
        return sum / (4.0 * step * step);
    };
    return (4.0 * central(0.5 * h) - central(h)) / 3.0;
}

// Row and column of the packed Hessian entries (0,0), (1,0), (1,1), (2,0), (2,1), (2,2).
constexpr int kRow[6] = {0, 1, 1, 2, 2, 2};
constexpr int kColumn[6] = {0, 0, 1, 0, 1, 2};

// 3 x 3 helpers (row-major).
using Mat3 = std::array<double, 9>;

// Frobenius norm of the inverse (cofactors over the determinant).
double InverseFrobeniusNorm(const Mat3& m) {
    const double det = Determinant(m);
    const double cof[9] = {
        m[4] * m[8] - m[5] * m[7], m[5] * m[6] - m[3] * m[8], m[3] * m[7] - m[4] * m[6],
        m[2] * m[7] - m[1] * m[8], m[0] * m[8] - m[2] * m[6], m[1] * m[6] - m[0] * m[7],
        m[1] * m[5] - m[2] * m[4], m[2] * m[3] - m[0] * m[5], m[0] * m[4] - m[1] * m[3]};
    double sum = 0.0;
    for (double v : cof) {
        sum += v * v;
    }
    return std::sqrt(sum) / std::fabs(det);
}

double FrobeniusNorm(const Mat3& m) {
    double sum = 0.0;
    for (double v : m) {
        sum += v * v;
    }
    return std::sqrt(sum);
}

// J[a][k] = d c_a / d s_k, the Jacobian of the Hermite centre of mass with respect to a
// translation s of the density, by central differences of QVHermiteCM (h = 1/256). Only used
// to size error bounds, so the float rounding of arbitrary moved centres is harmless here.
Mat3 CentreJacobian(const std::vector<QVGaussian>& gaussians, unsigned int N, double lambda) {
    const double h = 1.0 / 256.0;
    Mat3 J{};
    for (int k = 0; k < 3; ++k) {
        std::vector<QVGaussian> plus = gaussians, minus = gaussians;
        float sp[3] = {0.0f, 0.0f, 0.0f}, sm[3] = {0.0f, 0.0f, 0.0f};
        sp[k] = static_cast<float>(h);
        sm[k] = static_cast<float>(-h);
        ShiftInFloat(plus, sp);
        ShiftInFloat(minus, sm);
        const std::vector<double> cp = QVHermiteCM(plus, N, lambda, lambda, lambda, false);
        const std::vector<double> cm = QVHermiteCM(minus, N, lambda, lambda, lambda, false);
        for (int a = 0; a < 3; ++a) {
            J[3 * a + k] = (cp[a] - cm[a]) / (2.0 * h);
        }
    }
    return J;
}

// Upper bound on |c| at the point where the Newton search stops. It stops once
// max_i |g_i| <= 1e-4, so |g|_2 <= sqrt(3) 1e-4. Since f = |c|^2, g = 2 J^T c, hence
// c = J^-T g / 2 and |c| <= ||J^-1||_2 |g|_2 / 2 <= ||J^-1||_F sqrt(3) 1e-4 / 2. A factor 2
// covers the finite-difference estimate of J and the float rounding of the final translation.
double CentreBoundAtNewtonStop(const Mat3& J) {
    return 2.0 * InverseFrobeniusNorm(J) * std::sqrt(3.0) * kNewtonTolerance / 2.0;
}

// ---------------------------------------------------------------------------------------------
// QVHermiteCM, QVTranslateGaussians, max_abs

// The centre of mass is the ratio of the first moments to the zeroth moment of the expansion
// with the given order and lambdas (fixed, not optimised).
TEST(HermiteCOMTest, EqualsRatiosOfHermiteMomentsOfTheExpansion) {
    struct Case {
        unsigned int N;
        double lx, ly, lz;
    };
    const Case cases[] = {{4, 0.6, 0.6, 0.6}, {5, 0.7, 0.7, 0.7}, {6, 0.5, 0.65, 0.8}};
    for (const Case& k : cases) {
        SCOPED_TRACE("N = " + std::to_string(k.N) + ", lambdaY = " + std::to_string(k.ly));
        std::vector<QVGaussian> gaussians = SixAsymmetric();
        const std::vector<QVGaussian> original = gaussians;

        QVHermiteOptions options = FixedOptions(k.N, k.lx, k.ly, k.lz);
        QVHermite expansion;
        expansion.Setup(gaussians, options);
        const std::vector<double> coef = expansion.GetCoefficients();
        const double m0 = Hermite3DMoment(0, 0, 0, k.N, k.lx, k.ly, k.lz, coef);
        const double expected[3] = {Hermite3DMoment(1, 0, 0, k.N, k.lx, k.ly, k.lz, coef) / m0,
                                    Hermite3DMoment(0, 1, 0, k.N, k.lx, k.ly, k.lz, coef) / m0,
                                    Hermite3DMoment(0, 0, 1, k.N, k.lx, k.ly, k.lz, coef) / m0};

        // The single-lambda flag has no effect when the lambdas are not optimised.
        for (bool single : {false, true}) {
            const std::vector<double> c = QVHermiteCM(gaussians, k.N, k.lx, k.ly, k.lz, single);
            ASSERT_EQ(3u, c.size());
            for (int a = 0; a < 3; ++a) {
                EXPECT_EQ(expected[a], c[a]) << "component " << a << ", single " << single;
            }
        }
        ExpectSameGaussians(original, gaussians);
    }
}

// +-p pairs: the odd-l coefficients of the two members cancel, so every first moment and the
// centre of mass are exactly zero.
TEST(HermiteCOMTest, PointSymmetricDensityHasCentreExactlyAtOrigin) {
    std::vector<QVGaussian> gaussians = SymmetricPairs();
    for (unsigned int N : {4u, 5u, 6u}) {
        const std::vector<double> c = QVHermiteCM(gaussians, N, 0.7, 0.7, 0.7, false);
        EXPECT_EQ(0.0, c[0]) << "N = " << N;
        EXPECT_EQ(0.0, c[1]) << "N = " << N;
        EXPECT_EQ(0.0, c[2]) << "N = " << N;
    }
}

// Mirroring the density in x negates c_x and keeps c_y, c_z (parity of the Hermite functions);
// swapping the x and y coordinates with equal lambdas swaps c_x and c_y. Both hold whatever the
// moment functional is, so they test QVHermiteCM without assuming rigid motion.
TEST(HermiteCOMTest, FollowsMirrorImagesAndAxisSwaps) {
    std::vector<QVGaussian> gaussians = SixAsymmetric();
    std::vector<Centre> mirrored, swapped;
    for (const Centre& p : CentresOf(gaussians)) {
        mirrored.push_back({-p[0], p[1], p[2]});
        swapped.push_back({p[1], p[0], p[2]});
    }
    std::vector<QVGaussian> mirror = Carbons(mirrored);
    std::vector<QVGaussian> swap = Carbons(swapped);
    const unsigned int N = 5;
    const double lambda = 0.7;
    const std::vector<double> c = QVHermiteCM(gaussians, N, lambda, lambda, lambda, false);
    const std::vector<double> cm = QVHermiteCM(mirror, N, lambda, lambda, lambda, false);
    const std::vector<double> cs = QVHermiteCM(swap, N, lambda, lambda, lambda, false);
    // Rounding only: the coefficients are sums of the same terms in the same order, so a few
    // ulps of the components (of order 0.1 to 1) suffice.
    const double tolerance = 1e-13;
    EXPECT_NEAR(-c[0], cm[0], tolerance);
    EXPECT_NEAR(c[1], cm[1], tolerance);
    EXPECT_NEAR(c[2], cm[2], tolerance);
    EXPECT_NEAR(c[1], cs[0], tolerance);
    EXPECT_NEAR(c[0], cs[1], tolerance);
    EXPECT_NEAR(c[2], cs[2], tolerance);
    // The density is not symmetric, so the checks above are not vacuous.
    EXPECT_GT(std::fabs(c[0]), 0.01);
    EXPECT_GT(std::fabs(c[0] - c[1]), 0.01);
}

TEST(HermiteCOMTest, TranslateGaussiansAddsInSinglePrecision) {
    const std::vector<QVGaussian> original =
        Carbons({{1.0f, -2.5f, 16777216.0f}, {0.1f, 0.2f, -0.3f}, {3.0f, 0.0f, -1.0f}});
    std::vector<QVGaussian> gaussians = original;
    // Each coordinate becomes the float sum of the stored float and the given float. 1e-8 is
    // below half an ulp of 1, and 1 is half an ulp of 2^24 (a tie, rounded to even): both
    // additions leave the coordinate as it was.
    float t[3] = {1e-8f, 0.7f, 1.0f};
    EXPECT_TRUE(QVTranslateGaussians(gaussians, t));
    ASSERT_EQ(original.size(), gaussians.size());
    for (std::size_t i = 0; i < original.size(); ++i) {
        const float x = original[i].GetX() + t[0];
        const float y = original[i].GetY() + t[1];
        const float z = original[i].GetZ() + t[2];
        EXPECT_EQ(x, gaussians[i].GetX()) << i;
        EXPECT_EQ(y, gaussians[i].GetY()) << i;
        EXPECT_EQ(z, gaussians[i].GetZ()) << i;
        EXPECT_EQ(original[i].GetPrefactor(), gaussians[i].GetPrefactor());
        EXPECT_EQ(original[i].GetExponent(), gaussians[i].GetExponent());
        EXPECT_EQ(original[i].GetTag(), gaussians[i].GetTag());
    }
    EXPECT_EQ(1.0f, gaussians[0].GetX());
    EXPECT_EQ(16777216.0f, gaussians[0].GetZ());
    // The translation itself is read, not modified.
    EXPECT_EQ(1e-8f, t[0]);
    EXPECT_EQ(0.7f, t[1]);
    EXPECT_EQ(1.0f, t[2]);
}

TEST(HermiteCOMTest, TranslateGaussiansOfEmptyListReturnsTrue) {
    std::vector<QVGaussian> none;
    float t[3] = {1.0f, 2.0f, 3.0f};
    EXPECT_TRUE(QVTranslateGaussians(none, t));
    EXPECT_TRUE(none.empty());
}

TEST(HermiteCOMTest, MaxAbsIsLargestMagnitudeOfMixedSigns) {
    EXPECT_EQ(3.0, max_abs({-3.0, 2.0, 1.0}));
    EXPECT_EQ(5.0, max_abs({1.0, -5.0, 4.0}));
    EXPECT_EQ(4.5, max_abs({-1.0, 2.0, 4.5}));
    EXPECT_EQ(2.0, max_abs({-2.0}));
    EXPECT_EQ(0.0, max_abs({-0.0, 0.0, -0.0}));
    EXPECT_EQ(7.25, max_abs({-7.25, 7.0, -7.0, 7.25}));
    EXPECT_EQ(1e300, max_abs({1e-300, -1e300, 1.0}));
}

// ---------------------------------------------------------------------------------------------
// The objective f(t) = |c(t)|^2

TEST(COMObjectiveTest, NumVarIsThreeWhateverTheOptions) {
    const std::vector<QVGaussian> gaussians = FourAsymmetric();
    QVHermiteOptions defaults;
    QVHermiteOptions unequal = FixedOptions(6, 0.5, 0.9, 1.3);
    unequal.SetUseSingleLambda(false);
    QVHermiteOptions orderZero = FixedOptions(0, 0.7, 0.7, 0.7);
    QVHermiteOptions singleOptimal = FixedOptions(3, 0.7, 0.7, 0.7);
    singleOptimal.SetUseOptimalLambdas(true);
    singleOptimal.SetUseSingleLambda(true);
    for (const QVHermiteOptions* options : {&defaults, &unequal, &orderZero, &singleOptimal}) {
        EXPECT_EQ(3u, QVHermiteCOMFunc(*options, gaussians).NumVar());
        EXPECT_EQ(3u, QVHermiteCOMFunc(*options, {}).NumVar());
    }
}

TEST(COMObjectiveTest, GetFComponentsWarnsAndReturnsFalse) {
    QVHermiteCOMFunc objective(FixedOptions(4, 0.7, 0.7, 0.7), FourAsymmetric());
    const double x[3] = {0.0, 0.0, 0.0};
    MessageRecorder capture;
    EXPECT_FALSE(objective.GetFComponents(x));
    ASSERT_EQ(1u, capture.messages.size());
    EXPECT_EQ(QVSystem::QVSeverity::Warning, capture.messages[0].first);
    EXPECT_EQ("This method has not been implemented yet.", capture.messages[0].second);
}

// The value is |c|^2 of the Gaussians moved by the translation rounded to float, with all three
// lambdas; the three evaluation forms agree on it.
TEST(COMObjectiveTest, ValueIsSquaredCentreOfMassOfTheMovedDensity) {
    const std::vector<QVGaussian> gaussians = SixAsymmetric();
    const unsigned int N = 5;
    const double lx = 0.6, ly = 0.75, lz = 0.7;
    QVHermiteCOMFunc objective(FixedOptions(N, lx, ly, lz), gaussians);
    const Vec3 points[] = {{0.0, 0.0, 0.0}, {0.25, -0.125, 0.0625}, {0.1, -0.3, 0.7}};
    for (const Vec3& t : points) {
        std::vector<QVGaussian> moved = Moved(gaussians, t);
        const double expected = SquaredLength(QVHermiteCM(moved, N, lx, ly, lz, false));
        double gradient[3], hessian[6];
        EXPECT_EQ(expected, objective(t.data()));
        EXPECT_EQ(expected, objective(t.data(), gradient));
        EXPECT_EQ(expected, objective(t.data(), hessian, gradient));
    }
    // 0.1 is not a float: the translation actually applied is float(0.1).
    const Vec3 exact = {0.1, -0.3, 0.7};
    const Vec3 rounded = {static_cast<float>(0.1), static_cast<float>(-0.3),
                          static_cast<float>(0.7)};
    EXPECT_EQ(objective(rounded.data()), objective(exact.data()));
    // Evaluations do not change the object: the same point gives the same value again.
    EXPECT_EQ(objective(points[1].data()), objective(points[1].data()));
}

// With equal lambdas the analytic gradient is the derivative of the value.
TEST(COMObjectiveTest, GradientMatchesFiniteDifferencesOfValue) {
    struct Case {
        std::vector<QVGaussian> gaussians;
        unsigned int N;
        double lambda;
        Vec3 x;
    };
    const Case cases[] = {{SixAsymmetric(), 5, 0.7, {0.25, -0.125, 0.0625}},
                          {SixAsymmetric(), 4, 0.6, {0.0, 0.0, 0.0}},
                          {FourAsymmetric(), 6, 0.55, {-0.375, 0.25, 0.5}}};
    for (const Case& k : cases) {
        SCOPED_TRACE("N = " + std::to_string(k.N));
        QVHermiteCOMFunc objective(FixedOptions(k.N, k.lambda, k.lambda, k.lambda), k.gaussians);
        double gradient[3];
        objective(k.x.data(), gradient);
        double gradient2[3], hessian[6];
        objective(k.x.data(), hessian, gradient2);
        const auto value = [&](const Vec3& t) { return std::vector<double>{objective(t.data())}; };
        // Richardson-refined differences with h = 1/256 leave an O(h^4) error below 1e-9 of
        // the gradient scale here, and rounding of f (about 0.3) costs only 1e-16 / h: 1e-7 of
        // the scale is well above both and far below the lambda-weighting error tested below.
        const double scale = std::max(1.0, MaxMagnitude(gradient, 3));
        for (int k2 = 0; k2 < 3; ++k2) {
            const double fd = RichardsonDerivative(value, k.x, k2, 1.0 / 256.0)[0];
            EXPECT_NEAR(fd, gradient[k2], 1e-7 * scale) << "component " << k2;
            EXPECT_EQ(gradient[k2], gradient2[k2]) << "component " << k2;
        }
        EXPECT_GT(MaxMagnitude(gradient, 3), 0.1);  // a point away from the minimum
    }
}

// With equal lambdas the packed Hessian holds the second derivatives of the value and the
// derivatives of the analytic gradient.
TEST(COMObjectiveTest, HessianMatchesFiniteDifferencesOfValueAndGradient) {
    struct Case {
        std::vector<QVGaussian> gaussians;
        unsigned int N;
        double lambda;
        Vec3 x;
    };
    const Case cases[] = {{SixAsymmetric(), 5, 0.7, {0.25, -0.125, 0.0625}},
                          {FourAsymmetric(), 4, 0.6, {-0.375, 0.25, 0.5}}};
    for (const Case& k : cases) {
        SCOPED_TRACE("N = " + std::to_string(k.N));
        QVHermiteCOMFunc objective(FixedOptions(k.N, k.lambda, k.lambda, k.lambda), k.gaussians);
        double hessian[6], gradient[3];
        objective(k.x.data(), hessian, gradient);
        const auto value = [&](const Vec3& t) { return objective(t.data()); };
        const auto analyticGradient = [&](const Vec3& t) {
            std::vector<double> g(3);
            objective(t.data(), g.data());
            return g;
        };
        std::vector<double> gradientDerivative[3];
        for (int b = 0; b < 3; ++b) {
            gradientDerivative[b] = RichardsonDerivative(analyticGradient, k.x, b, 1.0 / 256.0);
        }
        // Same error budget as for the gradient (observed errors stay below 1e-9 of the scale);
        // second differences of the value divide the rounding of f by h^2 (about 1e-11 here),
        // still far below 1e-7 of the scale.
        const double scale = std::max(1.0, MaxMagnitude(hessian, 6));
        for (int p = 0; p < 6; ++p) {
            const int a = kRow[p], b = kColumn[p];
            EXPECT_NEAR(RichardsonSecondDerivative(value, k.x, a, b, 1.0 / 256.0), hessian[p],
                        1e-7 * scale)
                << "entry " << p;
            EXPECT_NEAR(gradientDerivative[b][a], hessian[p], 1e-7 * scale) << "entry " << p;
            EXPECT_NEAR(gradientDerivative[a][b], hessian[p], 1e-7 * scale) << "entry " << p;
        }
    }
}

// A point-symmetric density sits at the minimum at t = 0: c = 0 exactly, so f and the gradient
// (which is 2 J^T c) are exactly zero. The Hessian 2 J^T J is not.
TEST(COMObjectiveTest, VanishesForSymmetricDensityCentredAtOrigin) {
    for (unsigned int N : {4u, 5u, 6u}) {
        SCOPED_TRACE("N = " + std::to_string(N));
        QVHermiteCOMFunc objective(FixedOptions(N, 0.7, 0.7, 0.7), SymmetricPairs());
        const double x[3] = {0.0, 0.0, 0.0};
        double gradient[3] = {1.0, 1.0, 1.0}, gradient2[3] = {1.0, 1.0, 1.0}, hessian[6];
        EXPECT_EQ(0.0, objective(x));
        EXPECT_EQ(0.0, objective(x, gradient));
        EXPECT_EQ(0.0, objective(x, hessian, gradient2));
        for (int k = 0; k < 3; ++k) {
            EXPECT_EQ(0.0, gradient[k]) << k;
            EXPECT_EQ(0.0, gradient2[k]) << k;
        }
        // Diagonal of 2 J^T J: positive as J is regular.
        EXPECT_GT(hessian[0], 0.0);
        EXPECT_GT(hessian[2], 0.0);
        EXPECT_GT(hessian[5], 0.0);
    }
}

// At the translation found by the optimisation search the centre of mass is at the origin up to
// the consequences of the Newton tolerance: f <= bound^2 and |g| <= 2 ||J||_F bound (g = 2 J^T c),
// with bound from CentreBoundAtNewtonStop.
TEST(COMObjectiveTest, NearlyVanishesAtOptimisationSearchResult) {
    std::vector<QVGaussian> gaussians = SixAsymmetric();
    const unsigned int N = 5;
    const double lambda = 0.7;
    const std::vector<double> centre = QVOptimizationSearchOfHermiteCOM(gaussians, N, lambda);
    const Vec3 t = {-centre[0], -centre[1], -centre[2]};
    const Mat3 J = CentreJacobian(Moved(gaussians, t), N, lambda);
    const double bound = CentreBoundAtNewtonStop(J);

    QVHermiteCOMFunc objective(FixedOptions(N, lambda, lambda, lambda), gaussians);
    double gradient[3];
    const double f = objective(t.data(), gradient);
    EXPECT_LE(f, bound * bound);
    EXPECT_LE(std::sqrt((gradient[0] * gradient[0] + gradient[1] * gradient[1]) +
                        gradient[2] * gradient[2]),
              2.0 * FrobeniusNorm(J) * bound);
    // ...while at t = 0 it is far from zero.
    const double origin[3] = {0.0, 0.0, 0.0};
    EXPECT_GT(objective(origin), 1e4 * bound * bound);
}

// The value uses the three lambdas: changing lambdaY or lambdaZ alone changes it, and it equals
// |c|^2 with the three lambdas given.
TEST(COMObjectiveTest, ValueUsesAllThreeLambdas) {
    const std::vector<QVGaussian> gaussians = SixAsymmetric();
    const unsigned int N = 5;
    const Vec3 t = {0.25, -0.125, 0.0625};
    const double equal = QVHermiteCOMFunc(FixedOptions(N, 0.7, 0.7, 0.7), gaussians)(t.data());
    const double otherY = QVHermiteCOMFunc(FixedOptions(N, 0.7, 0.9, 0.7), gaussians)(t.data());
    const double otherZ = QVHermiteCOMFunc(FixedOptions(N, 0.7, 0.7, 0.55), gaussians)(t.data());
    EXPECT_GT(std::fabs(otherY - equal), 1e-3 * equal);
    EXPECT_GT(std::fabs(otherZ - equal), 1e-3 * equal);
    std::vector<QVGaussian> moved = Moved(gaussians, t);
    EXPECT_EQ(SquaredLength(QVHermiteCM(moved, N, 0.7, 0.9, 0.7, false)), otherY);
    EXPECT_EQ(SquaredLength(QVHermiteCM(moved, N, 0.7, 0.7, 0.55, false)), otherZ);
}

// With lambdaY or lambdaZ different from lambdaX the gradient and Hessian weights still use
// lambdaX on every axis, so they are no longer the derivatives of the value: the mismatch is of
// the order of the derivatives themselves, far beyond the finite-difference error (1e-7 of the
// scale, see the equal-lambda tests).
TEST(COMObjectiveTest, UnequalLambdasBreakTheDerivativesOfTheValue) {
    const std::vector<QVGaussian> gaussians = SixAsymmetric();
    const unsigned int N = 5;
    const Vec3 x = {0.25, -0.125, 0.0625};
    const double lambdaSets[2][3] = {{0.7, 0.9, 0.7}, {0.7, 0.7, 0.55}};
    for (const auto& l : lambdaSets) {
        SCOPED_TRACE("lambdas " + std::to_string(l[1]) + ", " + std::to_string(l[2]));
        QVHermiteCOMFunc objective(FixedOptions(N, l[0], l[1], l[2]), gaussians);
        double hessian[6], gradient[3];
        objective(x.data(), hessian, gradient);
        const auto value = [&](const Vec3& t) { return std::vector<double>{objective(t.data())}; };
        double gradientMismatch = 0.0;
        for (int k = 0; k < 3; ++k) {
            const double fd = RichardsonDerivative(value, x, k, 1.0 / 256.0)[0];
            gradientMismatch = std::max(gradientMismatch, std::fabs(fd - gradient[k]));
        }
        EXPECT_GT(gradientMismatch, 1e-2 * std::max(1.0, MaxMagnitude(gradient, 3)));

        const auto scalar = [&](const Vec3& t) { return objective(t.data()); };
        double hessianMismatch = 0.0;
        for (int p = 0; p < 6; ++p) {
            const double fd = RichardsonSecondDerivative(scalar, x, kRow[p], kColumn[p], 1.0 / 256);
            hessianMismatch = std::max(hessianMismatch, std::fabs(fd - hessian[p]));
        }
        EXPECT_GT(hessianMismatch, 1e-2 * std::max(1.0, MaxMagnitude(hessian, 6)));
    }
}

// What the gradient is with unequal lambdas. Let m~_a and m~_0 be the first and zeroth moments of
// the expansion (made with lambdaX, lambdaY, lambdaZ) evaluated with the scale L = lambdaX on all
// three axes, m_0 the true zeroth moment and c the true centre of mass. Weighting every axis with
// L makes the contraction d c_a / dt = (d m~_a / dt - c_a d m~_0 / dt) / m_0, and the gradient is
// 2 sum_a c_a of that. The moments m~ are differentiated numerically here.
TEST(COMObjectiveTest, GradientWithUnequalLambdasWeighsEveryAxisWithLambdaX) {
    const std::vector<QVGaussian> gaussians = SixAsymmetric();
    const unsigned int N = 5;
    const double lx = 0.7, ly = 0.85, lz = 0.6;
    const Vec3 x = {0.25, -0.125, 0.0625};
    const auto moments = [&](const Vec3& t) {
        std::vector<QVGaussian> moved = Moved(gaussians, t);
        QVHermiteOptions options = FixedOptions(N, lx, ly, lz);
        QVHermite expansion;
        expansion.Setup(moved, options);
        const std::vector<double>& coef = expansion.GetCoefficients();
        return std::vector<double>{Hermite3DMoment(1, 0, 0, N, lx, lx, lx, coef),
                                   Hermite3DMoment(0, 1, 0, N, lx, lx, lx, coef),
                                   Hermite3DMoment(0, 0, 1, N, lx, lx, lx, coef),
                                   Hermite3DMoment(0, 0, 0, N, lx, lx, lx, coef),
                                   Hermite3DMoment(0, 0, 0, N, lx, ly, lz, coef)};
    };
    std::vector<QVGaussian> moved = Moved(gaussians, x);
    const std::vector<double> c = QVHermiteCM(moved, N, lx, ly, lz, false);
    const double m0 = moments(x)[4];

    QVHermiteCOMFunc objective(FixedOptions(N, lx, ly, lz), gaussians);
    double gradient[3];
    objective(x.data(), gradient);
    const double scale = std::max(1.0, MaxMagnitude(gradient, 3));
    for (int k = 0; k < 3; ++k) {
        const std::vector<double> dm = RichardsonDerivative(moments, x, k, 1.0 / 256.0);
        double expected = 0.0;
        for (int a = 0; a < 3; ++a) {
            expected += c[a] * (dm[a] - c[a] * dm[3]) / m0;
        }
        expected *= 2.0;
        // Finite-difference budget as in the equal-lambda gradient test.
        EXPECT_NEAR(expected, gradient[k], 1e-7 * scale) << "component " << k;
    }
}

// ---------------------------------------------------------------------------------------------
// The searches

// The iterative search replayed with the same building blocks: measure c with QVHermiteCM, add
// it to the total, stop when maxIterations translations were made or no component exceeds the
// tolerance (or c is NaN), else move every centre by -float(c) in single precision.
struct IterativeReplay {
    std::vector<double> total;
    std::vector<QVGaussian> gaussians;
    unsigned int translations = 0;
    bool endedOnNaN = false;
};

IterativeReplay ReplayIterativeSearch(std::vector<QVGaussian> gaussians, unsigned int N, double lx,
                                      double ly, double lz, double tolerance,
                                      unsigned int maxIterations) {
    IterativeReplay replay;
    replay.total.assign(3, 0.0);
    std::vector<double> c = QVHermiteCM(gaussians, N, lx, ly, lz, false);
    for (int a = 0; a < 3; ++a) {
        replay.total[a] += c[a];
    }
    for (;;) {
        const bool nan = std::isnan(c[0]) || std::isnan(c[1]) || std::isnan(c[2]);
        const bool above = std::fabs(c[0]) > tolerance || std::fabs(c[1]) > tolerance ||
                           std::fabs(c[2]) > tolerance;
        if (replay.translations >= maxIterations || nan || !above) {
            replay.endedOnNaN = nan;
            break;
        }
        const float shift[3] = {-static_cast<float>(c[0]), -static_cast<float>(c[1]),
                                -static_cast<float>(c[2])};
        ShiftInFloat(gaussians, shift);
        ++replay.translations;
        c = QVHermiteCM(gaussians, N, lx, ly, lz, false);
        for (int a = 0; a < 3; ++a) {
            replay.total[a] += c[a];
        }
    }
    replay.gaussians = gaussians;
    return replay;
}

void ExpectSameTotals(const std::vector<double>& expected, const std::vector<double>& actual) {
    ASSERT_EQ(3u, actual.size());
    for (int a = 0; a < 3; ++a) {
        if (std::isnan(expected[a])) {
            EXPECT_TRUE(std::isnan(actual[a])) << "component " << a;
        } else {
            EXPECT_EQ(expected[a], actual[a]) << "component " << a;
        }
    }
}

TEST(COMSearchTest, IterativeWithZeroIterationsReturnsFirstCentreAndMovesNothing) {
    std::vector<QVGaussian> gaussians = SixAsymmetric();
    const std::vector<QVGaussian> original = gaussians;
    const std::vector<double> first = QVHermiteCM(gaussians, 5, 0.7, 0.7, 0.7, false);
    const std::vector<double> total =
        QVIterativeSearchOfHermiteCOM(gaussians, 5, 0.7, 0.7, 0.7, 1e-6, 0);
    ExpectSameTotals(first, total);
    ExpectSameGaussians(original, gaussians);
    EXPECT_GT(max_abs(first), 1e-6);  // the tolerance alone would not have stopped it
}

// A density whose first centre of mass is at or below the tolerance is returned as measured.
TEST(COMSearchTest, IterativeLeavesAnAlreadyCentredDensityUntouched) {
    // Exactly centred: c = 0 <= 0.
    {
        std::vector<QVGaussian> gaussians = SymmetricPairs();
        const std::vector<QVGaussian> original = gaussians;
        const std::vector<double> total =
            QVIterativeSearchOfHermiteCOM(gaussians, 5, 0.7, 0.7, 0.7, 0.0, 10);
        ExpectSameTotals({0.0, 0.0, 0.0}, total);
        ExpectSameGaussians(original, gaussians);
    }
    // Centred within a tolerance equal to the largest component (the boundary counts as
    // centred) ...
    std::vector<QVGaussian> gaussians = FourAsymmetric();
    const std::vector<QVGaussian> original = gaussians;
    const std::vector<double> first = QVHermiteCM(gaussians, 4, 0.6, 0.6, 0.6, false);
    const double largest =
        std::max({std::fabs(first[0]), std::fabs(first[1]), std::fabs(first[2])});
    std::vector<double> total =
        QVIterativeSearchOfHermiteCOM(gaussians, 4, 0.6, 0.6, 0.6, largest, 10);
    ExpectSameTotals(first, total);
    ExpectSameGaussians(original, gaussians);
    // ... but a tolerance just below it makes one move.
    const double below = std::nextafter(largest, 0.0);
    total = QVIterativeSearchOfHermiteCOM(gaussians, 4, 0.6, 0.6, 0.6, below, 1);
    const IterativeReplay replay = ReplayIterativeSearch(original, 4, 0.6, 0.6, 0.6, below, 1);
    ASSERT_EQ(1u, replay.translations);
    ExpectSameTotals(replay.total, total);
    ExpectSameGaussians(replay.gaussians, gaussians);
}

// With a negative tolerance no magnitude is small enough, so exactly maxIterations moves are
// made: the centres end at the original minus the first k measured centres, each rounded to
// float and subtracted in float, and the total holds k + 1 measurements.
TEST(COMSearchTest, IterativeWithNegativeToleranceMovesExactlyMaxIterationsTimes) {
    const std::vector<QVGaussian> original = SixAsymmetric();
    const unsigned int N = 5;
    const double lambda = 0.7;
    // The measured centres of the successive positions, replayed by hand.
    std::vector<std::vector<double>> measured;
    std::vector<QVGaussian> walk = original;
    for (int k = 0; k < 4; ++k) {
        measured.push_back(QVHermiteCM(walk, N, lambda, lambda, lambda, false));
        const float shift[3] = {-static_cast<float>(measured.back()[0]),
                                -static_cast<float>(measured.back()[1]),
                                -static_cast<float>(measured.back()[2])};
        ShiftInFloat(walk, shift);
    }
    for (unsigned int maxIterations = 1; maxIterations <= 3; ++maxIterations) {
        SCOPED_TRACE("maxIterations = " + std::to_string(maxIterations));
        std::vector<QVGaussian> gaussians = original;
        const std::vector<double> total = QVIterativeSearchOfHermiteCOM(
            gaussians, N, lambda, lambda, lambda, -1.0, maxIterations);
        std::vector<double> expectedTotal(3, 0.0);
        for (unsigned int k = 0; k <= maxIterations; ++k) {
            for (int a = 0; a < 3; ++a) {
                expectedTotal[a] += measured[k][a];
            }
        }
        ExpectSameTotals(expectedTotal, total);
        for (std::size_t i = 0; i < original.size(); ++i) {
            float x = original[i].GetX(), y = original[i].GetY(), z = original[i].GetZ();
            for (unsigned int k = 0; k < maxIterations; ++k) {
                x = x + -static_cast<float>(measured[k][0]);
                y = y + -static_cast<float>(measured[k][1]);
                z = z + -static_cast<float>(measured[k][2]);
            }
            EXPECT_EQ(x, gaussians[i].GetX()) << "Gaussian " << i;
            EXPECT_EQ(y, gaussians[i].GetY()) << "Gaussian " << i;
            EXPECT_EQ(z, gaussians[i].GetZ()) << "Gaussian " << i;
        }
    }
}

// Step by step against the replay, for 0 to 3 iterations with a tolerance that never stops this
// (diverging) sequence, and for a tolerance that ends it part of the way.
TEST(COMSearchTest, IterativeFollowsTheMeasureAndSubtractSteps) {
    const std::vector<QVGaussian> original = SixAsymmetric();
    for (unsigned int maxIterations = 0; maxIterations <= 3; ++maxIterations) {
        SCOPED_TRACE("maxIterations = " + std::to_string(maxIterations));
        std::vector<QVGaussian> gaussians = original;
        const std::vector<double> total =
            QVIterativeSearchOfHermiteCOM(gaussians, 5, 0.7, 0.7, 0.7, 1e-6, maxIterations);
        const IterativeReplay replay =
            ReplayIterativeSearch(original, 5, 0.7, 0.7, 0.7, 1e-6, maxIterations);
        ASSERT_EQ(maxIterations, replay.translations);
        ExpectSameTotals(replay.total, total);
        ExpectSameGaussians(replay.gaussians, gaussians);
    }
    // At N = 4, lambda 0.55 the largest component of this density's centre grows for three
    // steps and then drops: a tolerance of 0.2 ends the search there, before maxIterations.
    const std::vector<QVGaussian> four = FourAsymmetric();
    std::vector<QVGaussian> gaussians = four;
    const std::vector<double> total =
        QVIterativeSearchOfHermiteCOM(gaussians, 4, 0.55, 0.55, 0.55, 0.2, 10);
    const IterativeReplay replay = ReplayIterativeSearch(four, 4, 0.55, 0.55, 0.55, 0.2, 10);
    ASSERT_GT(replay.translations, 0u);
    ASSERT_LT(replay.translations, 10u);
    ASSERT_FALSE(replay.endedOnNaN);
    ExpectSameTotals(replay.total, total);
    ExpectSameGaussians(replay.gaussians, gaussians);
    // The last measured centre is in the total but the Gaussians were not moved by it.
    std::vector<QVGaussian> last = replay.gaussians;
    const std::vector<double> lastCentre = QVHermiteCM(last, 4, 0.55, 0.55, 0.55, false);
    EXPECT_LE(max_abs(lastCentre), 0.2);
}

// The iteration need not converge: on this density at N = 6, lambda 0.5 the centre of mass
// grows until the moved density no longer overlaps the basis and c turns NaN, which ends the
// search although maxIterations is not reached.
TEST(COMSearchTest, IterativeEndsWhenTheCentreTurnsNaN) {
    const std::vector<QVGaussian> original = SixAsymmetric();
    std::vector<QVGaussian> gaussians = original;
    const std::vector<double> total =
        QVIterativeSearchOfHermiteCOM(gaussians, 6, 0.5, 0.5, 0.5, -1.0, 50);
    const IterativeReplay replay = ReplayIterativeSearch(original, 6, 0.5, 0.5, 0.5, -1.0, 50);
    ASSERT_TRUE(replay.endedOnNaN);
    ASSERT_LT(replay.translations, 50u);
    ExpectSameTotals(replay.total, total);
    ExpectSameGaussians(replay.gaussians, gaussians);
    EXPECT_TRUE(std::isnan(total[0]) && std::isnan(total[1]) && std::isnan(total[2]));
}

// The optimisation search returns -t*, t* the translation that brings the Hermite centre of mass
// to the origin: moving the Gaussians by -result (in float, as the objective does) leaves a
// centre of mass within the bound implied by the Newton gradient tolerance.
TEST(COMSearchTest, OptimisationResultBringsTheCentreOfMassToTheOrigin) {
    struct Case {
        std::vector<QVGaussian> gaussians;
        unsigned int N;
        double lambda;
    };
    const Case cases[] = {{SixAsymmetric(), 5, 0.7},
                          {SixAsymmetric(), 4, 0.5},
                          {FourAsymmetric(), 6, 0.6},
                          {FourAsymmetric(), 5, 0.8}};
    for (const Case& k : cases) {
        SCOPED_TRACE("N = " + std::to_string(k.N) + ", lambda = " + std::to_string(k.lambda));
        std::vector<QVGaussian> gaussians = k.gaussians;
        const std::vector<double> result =
            QVOptimizationSearchOfHermiteCOM(gaussians, k.N, k.lambda);
        ASSERT_EQ(3u, result.size());
        ExpectSameGaussians(k.gaussians, gaussians);

        std::vector<QVGaussian> moved = gaussians;
        float shift[3] = {static_cast<float>(-result[0]), static_cast<float>(-result[1]),
                          static_cast<float>(-result[2])};
        EXPECT_TRUE(QVTranslateGaussians(moved, shift));
        const std::vector<double> c = QVHermiteCM(moved, k.N, k.lambda, k.lambda, k.lambda, false);
        const double bound = CentreBoundAtNewtonStop(CentreJacobian(moved, k.N, k.lambda));
        EXPECT_LE(std::sqrt(SquaredLength(c)), bound);

        // The density was not centred to begin with, by far.
        const std::vector<double> c0 =
            QVHermiteCM(gaussians, k.N, k.lambda, k.lambda, k.lambda, false);
        EXPECT_GT(std::sqrt(SquaredLength(c0)), 100.0 * bound);
    }
}

// The search is the platform Newton minimiser (tolerance 1e-4, at most 100 iterations) on the
// objective with the three lambdas equal, started at the origin; the result is the negated
// minimiser.
TEST(COMSearchTest, OptimisationIsTheNegatedNewtonMinimiserOfTheObjective) {
    std::vector<QVGaussian> gaussians = FourAsymmetric();
    const unsigned int N = 5;
    const double lambda = 0.65;
    const std::vector<double> result = QVOptimizationSearchOfHermiteCOM(gaussians, N, lambda);

    QVOpt::QVNewtonOpt newton;
    newton.SetTolerance(1e-4);
    newton.SetIterLimit(100);
    QVHermiteCOMFunc objective(FixedOptions(N, lambda, lambda, lambda), gaussians);
    const double start[3] = {0.0, 0.0, 0.0};
    double solution[3] = {0.0, 0.0, 0.0};
    newton(objective, nullptr, start, solution);
    ASSERT_EQ(3u, result.size());
    for (int a = 0; a < 3; ++a) {
        EXPECT_EQ(-solution[a], result[a]) << "component " << a;
    }
}

// At the origin of a point-symmetric density the gradient is exactly zero, so the Newton search
// stops at its start point.
TEST(COMSearchTest, OptimisationOnSymmetricDensityAtOriginReturnsZero) {
    for (unsigned int N : {4u, 6u}) {
        std::vector<QVGaussian> gaussians = SymmetricPairs();
        const std::vector<double> result = QVOptimizationSearchOfHermiteCOM(gaussians, N, 0.7);
        ASSERT_EQ(3u, result.size());
        for (int a = 0; a < 3; ++a) {
            EXPECT_NEAR(0.0, result[a], kNewtonTolerance) << "N = " << N << ", component " << a;
        }
        ExpectSameGaussians(SymmetricPairs(), gaussians);
    }
}

}  // namespace
