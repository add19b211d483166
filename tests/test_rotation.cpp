// Tests of the Euler-angle conventions, the coefficient-space rotation matrices (S), the
// one-axis translation tables (F) and the rotation of Hermite expansions.
//
// Mathematics behind the checks.
//
// Euler angles: R = Rx(a) Ry(b) Rz(c), row-major, acting on column vectors. Its first row is
// (cb cc, -cb sc, sb) and its last column is (sb, -sa cb, ca cb), so a, b and c can be read off
// entries 0, 1, 2, 5 and 8 whenever cos b != 0. At cos b = 0 (gimbal lock) the matrix depends
// only on a + c (b = pi/2) or on c - a (b = -pi/2).
//
// S matrices: in a coordinate plane the products h_p(u) h_q(v) of orthonormal Hermite functions
// with p + q = d span a space that every rotation of the plane maps onto itself (the 2-D
// oscillator eigenspace of energy d). S[d](theta) is the orthogonal matrix of that map; it is a
// representation of the plane rotations, so S(t1) S(t2) = S(t1 + t2), S(0) = I, and
// S(pi) = (-1)^d I since the half turn is the parity (u, v) -> (-u, -v). dS/dtheta = G S with a
// generator G whose eigenvalues are i(d - 2k), so every derivative of order j is bounded by d^j.
//
// F tables: F[r][c] = Integral h_r(u) h_c(u + x) du with h_n(u) = H_n(u) exp(-u^2 / 2), the
// unnormalised Hermite function. By Cauchy-Schwarz |F[r][c]| <= sqrt(K_r K_c), K_n = 2^n n!
// sqrt(pi), which is the natural scale for its errors. d/dx h_c(u + x) = c h_(c-1) - h_(c+1) / 2.
//
// Rotation of an expansion: with equal lambdas the functions of total degree s span the 3-D
// oscillator eigenspace of energy s, which rotations map onto itself. Projection on that space
// therefore commutes with rotation, and the truncated expansion of the rotated density
// rho(R^T r) equals the rotated expansion exactly. The oracle expands the Gaussians with turned
// centres in double precision (support/rotation_oracle.h); the library's own Gaussian records
// hold single-precision centres, which would lose 1e-8 to 1e-7 of relative accuracy.
// The degree-1 functions are 2 lambda x_i exp(-lambda^2 r^2 / 2), so their coefficients
// transform as a vector: new = R * old.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "hermite/hermite.h"
#include "support/rotation_oracle.h"
#include "support/test_support.h"

namespace {

namespace ro = rotation_oracle;

using QVHermiteMath::BuildFMatrix;
using QVHermiteMath::BuildFMatrixDerivative;
using QVHermiteMath::BuildSMatrix;
using QVHermiteMath::BuildSMatrixDerivative;
using QVHermiteMath::EulerXYZ;
using QVHermiteMath::FMatrix;
using QVHermiteMath::GaussianToHermiteCoefficientsAndDerivs;
using QVHermiteMath::GetLmnIndex;
using QVHermiteMath::QVGaussian;
using QVHermiteMath::QVHermite;
using QVHermiteMath::QVHermiteFunc;
using QVHermiteMath::QVHermiteOptions;
using QVHermiteMath::RotFromEulerXYZ;
using QVHermiteMath::SMatrixSet;

using hermite_test::EulerXYZClosedForm;
using hermite_test::FixedOptions;
using hermite_test::MakeGaussian;
using hermite_test::MaxAbs;

constexpr double kPi = ro::kPi;
constexpr double kEps = std::numeric_limits<double>::epsilon();

std::vector<double> AsVector(const ro::Matrix3& m) {
    return std::vector<double>(m.begin(), m.end());
}

ro::Matrix3 AsMatrix(const std::vector<double>& v) {
    ro::Matrix3 m{};
    std::copy(v.begin(), v.begin() + 9, m.begin());
    return m;
}

double MaxAbsDifference(const std::vector<double>& a, const std::vector<double>& b) {
    double m = 0.0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        m = std::max(m, std::abs(a[i] - b[i]));
    }
    return m;
}

std::string TripleText(const ro::Triple& t) {
    std::ostringstream out;
    out << "(" << t.l << "," << t.m << "," << t.n << ")";
    return out.str();
}

// ---------------------------------------------------------------------------------------------
// Densities and expansions

/// A few Gaussians with single-precision parameters, none on a coordinate plane, so that
/// coefficients of every parity class are present.
std::vector<QVGaussian> RandomDensity(ro::Random& random, int count) {
    std::vector<QVGaussian> gaussians;
    for (int i = 0; i < count; ++i) {
        const float w = static_cast<float>(random.Uniform(0.5, 2.5));
        const float a = static_cast<float>(random.Uniform(0.6, 1.4));
        float centre[3];
        for (float& x : centre) {
            const double magnitude = random.Uniform(0.2, 1.5);
            x = static_cast<float>(random.Uniform(0.0, 1.0) < 0.5 ? -magnitude : magnitude);
        }
        gaussians.push_back(MakeGaussian(w, a, centre[0], centre[1], centre[2]));
    }
    return gaussians;
}

/// The Gaussians read back through the record's accessors: single-precision values are exact
/// doubles, so this is the very density the library expands.
std::vector<ro::Gaussian> AsDouble(const std::vector<QVGaussian>& gaussians) {
    std::vector<ro::Gaussian> out;
    for (const QVGaussian& g : gaussians) {
        out.push_back({g.GetPrefactor(), g.GetExponent(), {g.GetX(), g.GetY(), g.GetZ()}});
    }
    return out;
}

/// The same density with every centre turned by R about the origin, in double precision.
std::vector<ro::Gaussian> Turned(const std::vector<ro::Gaussian>& gaussians, const ro::Matrix3& R) {
    std::vector<ro::Gaussian> out = gaussians;
    for (ro::Gaussian& g : out) {
        g.centre = ro::Apply(R, g.centre);
    }
    return out;
}

/// The library's expansion of `gaussians` of order N with three equal, fixed lambdas.
QVHermite Expand(const std::vector<QVGaussian>& gaussians, unsigned int N, double lambda) {
    QVHermiteOptions options = FixedOptions(N, lambda, lambda, lambda);
    QVHermite hermite;
    hermite.Setup(gaussians, options);
    return hermite;
}

std::array<double, 3> DegreeOneBlock(const std::vector<double>& c) {
    return {c[GetLmnIndex(1, 0, 0)], c[GetLmnIndex(0, 1, 0)], c[GetLmnIndex(0, 0, 1)]};
}

// =============================================================================================
// Euler angles

TEST(EulerTest, ZeroAnglesGiveIdentity) {
    // cos 0 = 1 and sin 0 = 0 make every entry an exact product of 0s and 1s.
    const std::vector<double> R = RotFromEulerXYZ(0.0, 0.0, 0.0);
    const std::vector<double> identity = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    ASSERT_EQ(R.size(), 9u);
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(R[i], identity[i]) << "entry " << i;
    }
}

TEST(EulerTest, IdentityGivesZeroAngles) {
    // atan2(0, 1) is exactly 0 (possibly negative zero, which compares equal).
    const std::vector<double> angles = EulerXYZ({1, 0, 0, 0, 1, 0, 0, 0, 1});
    ASSERT_EQ(angles.size(), 3u);
    EXPECT_EQ(angles[0], 0.0);
    EXPECT_EQ(angles[1], 0.0);
    EXPECT_EQ(angles[2], 0.0);
}

TEST(EulerTest, EntriesFollowClosedForms) {
    // The nine entries of Rx(a) Ry(b) Rz(c) multiplied out by hand. Entries are sums of at most
    // two products of sines and cosines, so they agree to a few units in the last place.
    ro::Random random(101);
    for (int trial = 0; trial < 200; ++trial) {
        const double a = random.Uniform(-kPi, kPi);
        const double b = random.Uniform(-kPi, kPi);
        const double c = random.Uniform(-kPi, kPi);
        const std::vector<double> expected = EulerXYZClosedForm(a, b, c);
        const std::vector<double> R = RotFromEulerXYZ(a, b, c);
        ASSERT_EQ(R.size(), 9u);
        for (int i = 0; i < 9; ++i) {
            EXPECT_NEAR(R[i], expected[i], 8 * kEps)
                << "entry " << i << " at " << a << " " << b << " " << c;
        }
    }
}

TEST(EulerTest, MatrixIsProductOfAxisRotationsXThenYThenZ) {
    // R = Rx(a) Ry(b) Rz(c), formed as an explicit matrix product of the elementary rotations
    // (entries bounded by 1, a handful of roundings each).
    ro::Random random(102);
    for (int trial = 0; trial < 200; ++trial) {
        const double a = random.Uniform(-kPi, kPi);
        const double b = random.Uniform(-kPi, kPi);
        const double c = random.Uniform(-kPi, kPi);
        const ro::Matrix3 expected =
            ro::Multiply(ro::Multiply(ro::RotationX(a), ro::RotationY(b)), ro::RotationZ(c));
        const std::vector<double> R = RotFromEulerXYZ(a, b, c);
        for (int i = 0; i < 9; ++i) {
            EXPECT_NEAR(R[i], expected[i], 8 * kEps) << "entry " << i;
        }
    }
}

TEST(EulerTest, MatrixIsARotation) {
    // R R^T = I and det R = 1 (sums of three products of entries bounded by 1).
    ro::Random random(103);
    for (int trial = 0; trial < 100; ++trial) {
        const ro::Matrix3 R = AsMatrix(RotFromEulerXYZ(
            random.Uniform(-kPi, kPi), random.Uniform(-kPi, kPi), random.Uniform(-kPi, kPi)));
        ro::Matrix3 Rt{};
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) {
                Rt[3 * i + j] = R[3 * j + i];
            }
        }
        const ro::Matrix3 P = ro::Multiply(R, Rt);
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) {
                EXPECT_NEAR(P[3 * i + j], i == j ? 1.0 : 0.0, 16 * kEps);
            }
        }
        const double det = R[0] * (R[4] * R[8] - R[5] * R[7]) - R[1] * (R[3] * R[8] - R[5] * R[6]) +
                           R[2] * (R[3] * R[7] - R[4] * R[6]);
        EXPECT_NEAR(det, 1.0, 16 * kEps);
    }
}

TEST(EulerTest, AnglesAboutZAloneGivePureZRotation) {
    for (const double c : {0.3, -1.2, 2.9, kPi / 2, -kPi}) {
        const std::vector<double> R = RotFromEulerXYZ(0.0, 0.0, c);
        const double cc = std::cos(c), sc = std::sin(c);
        const double expected[9] = {cc, -sc, 0, sc, cc, 0, 0, 0, 1};
        for (int i = 0; i < 9; ++i) {
            EXPECT_NEAR(R[i], expected[i], 4 * kEps) << "entry " << i << " c = " << c;
        }
        // sin 0 = 0 and cos 0 = 1 exactly, so the entries that involve only a and b are exact.
        EXPECT_EQ(R[2], 0.0);
        EXPECT_EQ(R[5], 0.0);
        EXPECT_EQ(R[8], 1.0);
    }
}

TEST(EulerTest, RoundTripRecoversAnglesAwayFromGimbalLock) {
    // b is recovered from sin b and sqrt(1 - sin^2 b); the cancellation in 1 - sin^2 b costs
    // about eps / cos b, so the tolerance scales with 1 / cos b. a and c come from ratios in
    // which cos b cancels and are good to a few eps.
    ro::Random random(104);
    for (int trial = 0; trial < 2000; ++trial) {
        const double a = random.Uniform(-kPi, kPi);
        const double b = random.Uniform(-kPi / 2, kPi / 2);
        const double c = random.Uniform(-kPi, kPi);
        if (std::abs(b) >= kPi / 2) {
            continue;
        }
        const std::vector<double> angles = EulerXYZ(RotFromEulerXYZ(a, b, c));
        ASSERT_EQ(angles.size(), 3u);
        const double tolerance = 16 * kEps * (1.0 + 1.0 / std::cos(b));
        EXPECT_NEAR(angles[0], a, tolerance) << "a at " << a << " " << b << " " << c;
        EXPECT_NEAR(angles[1], b, tolerance) << "b at " << a << " " << b << " " << c;
        EXPECT_NEAR(angles[2], c, tolerance) << "c at " << a << " " << b << " " << c;
    }
}

TEST(EulerTest, AnglesOfRandomRotationsRebuildTheMatrix) {
    // For a rotation not built from angles, the angles found must rebuild the same matrix.
    ro::Random random(105);
    for (int trial = 0; trial < 200; ++trial) {
        const ro::Matrix3 R = ro::RandomRotation(random);
        const std::vector<double> angles = EulerXYZ(AsVector(R));
        EXPECT_GE(angles[1], -kPi / 2);
        EXPECT_LE(angles[1], kPi / 2);
        const std::vector<double> rebuilt = RotFromEulerXYZ(angles[0], angles[1], angles[2]);
        // Conditioning of b as above: errors grow like eps / cos b.
        const double tolerance = 32 * kEps * (1.0 + 1.0 / std::cos(angles[1]));
        for (int i = 0; i < 9; ++i) {
            EXPECT_NEAR(rebuilt[i], R[i], tolerance) << "entry " << i;
        }
    }
}

TEST(EulerTest, GimbalLockZeroesFirstRowAndLastColumnEntries) {
    // cos(+-pi/2) is about 6e-17 in double, so R0, R1, R5, R8 (all multiples of cos b) vanish
    // to rounding, and sin(+-pi/2) = +-1 exactly makes b come back as exactly +-pi/2.
    for (const double b : {kPi / 2, -kPi / 2}) {
        for (const double a : {0.4, -2.1}) {
            for (const double c : {1.3, -0.7}) {
                const std::vector<double> R = RotFromEulerXYZ(a, b, c);
                for (const int i : {0, 1, 5, 8}) {
                    EXPECT_NEAR(R[i], 0.0, 4 * kEps) << "entry " << i << " b = " << b;
                }
                const std::vector<double> angles = EulerXYZ(R);
                EXPECT_NEAR(angles[1], b, 4 * kEps);
                EXPECT_TRUE(std::isfinite(angles[0]));
                EXPECT_TRUE(std::isfinite(angles[2]));
            }
        }
    }
}

TEST(EulerTest, GimbalLockAnglesRebuildTheMatrix) {
    // Whatever split of the angle combination EulerXYZ returns, it must describe the same
    // rotation (entries bounded by 1; a few roundings each).
    for (const double b : {kPi / 2, -kPi / 2}) {
        for (const double a : {0.4, -2.1, 3.0}) {
            for (const double c : {1.3, -0.7, 0.0}) {
                const std::vector<double> R = RotFromEulerXYZ(a, b, c);
                const std::vector<double> angles = EulerXYZ(R);
                const std::vector<double> rebuilt =
                    RotFromEulerXYZ(angles[0], angles[1], angles[2]);
                for (int i = 0; i < 9; ++i) {
                    EXPECT_NEAR(rebuilt[i], R[i], 16 * kEps)
                        << "entry " << i << " at " << a << " " << b << " " << c;
                }
            }
        }
    }
}

TEST(EulerTest, GimbalLockMatrixDependsOnlyOnAngleCombination) {
    // With b = pi/2: Ry = [0 0 1; 0 1 0; -1 0 0] and Rx(a) Ry Rz(c) depends on a + c only;
    // with b = -pi/2 on c - a only. So a alone cannot be recovered.
    const double shift = 0.9;
    const std::vector<double> plus1 = RotFromEulerXYZ(0.2, kPi / 2, 0.5);
    const std::vector<double> plus2 = RotFromEulerXYZ(0.2 + shift, kPi / 2, 0.5 - shift);
    const std::vector<double> minus1 = RotFromEulerXYZ(0.2, -kPi / 2, 0.5);
    const std::vector<double> minus2 = RotFromEulerXYZ(0.2 + shift, -kPi / 2, 0.5 + shift);
    for (int i = 0; i < 9; ++i) {
        EXPECT_NEAR(plus1[i], plus2[i], 8 * kEps) << "entry " << i;
        EXPECT_NEAR(minus1[i], minus2[i], 8 * kEps) << "entry " << i;
    }
    // The second pair of each does differ in a, so the test would see a matrix depending on a.
    const std::vector<double> other = RotFromEulerXYZ(0.2 + shift, kPi / 2, 0.5);
    EXPECT_GT(MaxAbsDifference(plus1, other), 0.1);
}

TEST(EulerTest, GimbalLockWithExactZerosGivesAtan2OfSignedZeros) {
    // A gimbal-lock matrix with exact zeros in R0, R1, R5, R8: a and c are atan2 of signed
    // zeros, hence each is 0 or +-pi; b is exactly pi/2.
    const double phi = 0.8;
    const std::vector<double> R = {
        0, 0, 1, std::sin(phi), std::cos(phi), 0, -std::cos(phi), std::sin(phi), 0};
    const std::vector<double> angles = EulerXYZ(R);
    EXPECT_DOUBLE_EQ(angles[1], kPi / 2);
    for (const int i : {0, 2}) {
        const double v = std::abs(angles[i]);
        EXPECT_TRUE(v == 0.0 || v == kPi) << "angle " << i << " = " << angles[i];
    }
}

TEST(EulerTest, SineEntryJustAboveOneGivesNanPitch) {
    // 1 - R2^2 < 0 for R2 = 1 + 2^-52; there is no clamping, so b is NaN.
    const std::vector<double> R = {0, 0, 1.0000000000000002, 0, 1, 0, -1, 0, 0};
    const std::vector<double> angles = EulerXYZ(R);
    ASSERT_EQ(angles.size(), 3u);
    EXPECT_TRUE(std::isnan(angles[1])) << angles[1];
}

TEST(EulerTest, ReadsOnlyFirstRowAndLastColumn) {
    // a, b, c depend only on R0, R1, R2, R5, R8: scrambling R3, R4, R6, R7 changes nothing.
    const std::vector<double> R = RotFromEulerXYZ(0.7, -0.4, 1.9);
    std::vector<double> scrambled = R;
    for (const int i : {3, 4, 6, 7}) {
        scrambled[i] = 12.5 + i;
    }
    const std::vector<double> expected = EulerXYZ(R);
    const std::vector<double> actual = EulerXYZ(scrambled);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(actual[i], expected[i]);
    }
}

// =============================================================================================
// S matrices

/// Largest entry of S S^T - I.
double OrthogonalityDefect(const std::vector<std::vector<double>>& S) {
    const std::size_t n = S.size();
    double defect = 0.0;
    for (std::size_t i = 0; i < n; ++i) {
        for (std::size_t j = 0; j < n; ++j) {
            double sum = 0.0;
            for (std::size_t k = 0; k < n; ++k) {
                sum += S[i][k] * S[j][k];
            }
            defect = std::max(defect, std::abs(sum - (i == j ? 1.0 : 0.0)));
        }
    }
    return defect;
}

TEST(SMatrixTest, EverySetHasSquareMatricesOfSizeDegreePlusOne) {
    SMatrixSet S;
    EXPECT_TRUE(BuildSMatrix(9, 0.77, S));
    ASSERT_EQ(S.size(), 10u);
    for (std::size_t d = 0; d < S.size(); ++d) {
        ASSERT_EQ(S[d].size(), d + 1);
        for (const auto& row : S[d]) {
            EXPECT_EQ(row.size(), d + 1);
        }
    }
}

TEST(SMatrixTest, ReplacesPreviousContent) {
    SMatrixSet S(20, {{5.0, 5.0}, {5.0}});
    BuildSMatrix(3, 0.2, S);
    ASSERT_EQ(S.size(), 4u);
    EXPECT_EQ(S[0].size(), 1u);
    EXPECT_EQ(S[0][0].size(), 1u);
    EXPECT_EQ(S[0][0][0], 1.0);
}

TEST(SMatrixTest, ZeroAngleGivesIdentityOfEverySize) {
    for (unsigned int N = 0; N <= 12; ++N) {
        SMatrixSet S;
        BuildSMatrix(N, 0.0, S);
        ASSERT_EQ(S.size(), N + 1);
        for (unsigned int d = 0; d <= N; ++d) {
            for (unsigned int i = 0; i <= d; ++i) {
                for (unsigned int j = 0; j <= d; ++j) {
                    EXPECT_NEAR(S[d][i][j], i == j ? 1.0 : 0.0, 4 * kEps)
                        << "N " << N << " d " << d << " (" << i << "," << j << ")";
                }
            }
        }
    }
}

TEST(SMatrixTest, QuarterTurnDegreeOneIsZeroOneMinusOneZero) {
    // cos(pi/2) is about 6e-17 in double.
    for (const unsigned int N : {1u, 4u, 12u}) {
        SMatrixSet S;
        BuildSMatrix(N, kPi / 2, S);
        ASSERT_GE(S.size(), 2u);
        EXPECT_NEAR(S[1][0][0], 0.0, 4 * kEps);
        EXPECT_NEAR(S[1][0][1], 1.0, 4 * kEps);
        EXPECT_NEAR(S[1][1][0], -1.0, 4 * kEps);
        EXPECT_NEAR(S[1][1][1], 0.0, 4 * kEps);
    }
}

TEST(SMatrixTest, DegreeOneIsThePlaneRotation) {
    for (const double theta : {0.3, -1.1, 2.6, -3.0}) {
        SMatrixSet S;
        BuildSMatrix(2, theta, S);
        EXPECT_NEAR(S[1][0][0], std::cos(theta), 4 * kEps);
        EXPECT_NEAR(S[1][0][1], std::sin(theta), 4 * kEps);
        EXPECT_NEAR(S[1][1][0], -std::sin(theta), 4 * kEps);
        EXPECT_NEAR(S[1][1][1], std::cos(theta), 4 * kEps);
    }
}

TEST(SMatrixTest, OrderZeroIsTheOneByOneUnitWhateverTheAngle) {
    for (const double theta : {0.0, 0.5, -2.0, kPi, 100.0}) {
        SMatrixSet S;
        EXPECT_TRUE(BuildSMatrix(0, theta, S));
        ASSERT_EQ(S.size(), 1u);
        ASSERT_EQ(S[0].size(), 1u);
        ASSERT_EQ(S[0][0].size(), 1u);
        EXPECT_EQ(S[0][0][0], 1.0);
    }
}

TEST(SMatrixTest, EveryDegreeIsOrthogonal) {
    // S[d] is built by d steps of a recurrence whose coefficients are below sqrt(d) in size;
    // rounding accumulates to a few hundred eps at d = 12.
    for (const double theta : {0.0, 0.1, 0.7, kPi / 2, 1.9, kPi, -0.45, -2.8, 5.5}) {
        SMatrixSet S;
        BuildSMatrix(12, theta, S);
        for (unsigned int d = 0; d <= 12; ++d) {
            EXPECT_LT(OrthogonalityDefect(S[d]), 64 * kEps * (d + 1))
                << "theta " << theta << " degree " << d;
        }
    }
}

TEST(SMatrixTest, AnglesComposeAdditively) {
    // A representation of the plane rotations: S(t1) S(t2) = S(t1 + t2) in every degree.
    const unsigned int N = 10;
    const double pairs[][2] = {{0.3, 0.5}, {-1.2, 2.0}, {2.5, 1.4}};
    for (const auto& pair : pairs) {
        SMatrixSet A, B, C;
        BuildSMatrix(N, pair[0], A);
        BuildSMatrix(N, pair[1], B);
        BuildSMatrix(N, pair[0] + pair[1], C);
        for (unsigned int d = 0; d <= N; ++d) {
            for (unsigned int i = 0; i <= d; ++i) {
                for (unsigned int j = 0; j <= d; ++j) {
                    double sum = 0.0;
                    for (unsigned int k = 0; k <= d; ++k) {
                        sum += A[d][i][k] * B[d][k][j];
                    }
                    EXPECT_NEAR(sum, C[d][i][j], 64 * kEps * (d + 1))
                        << "degree " << d << " (" << i << "," << j << ")";
                }
            }
        }
    }
}

TEST(SMatrixTest, HalfTurnIsParityOfTheDegree) {
    // The half turn maps (u, v) to (-u, -v), and h_p(-u) h_q(-v) = (-1)^(p+q) h_p(u) h_q(v).
    SMatrixSet S;
    BuildSMatrix(10, kPi, S);
    for (unsigned int d = 0; d <= 10; ++d) {
        const double sign = d % 2 == 0 ? 1.0 : -1.0;
        for (unsigned int i = 0; i <= d; ++i) {
            for (unsigned int j = 0; j <= d; ++j) {
                EXPECT_NEAR(S[d][i][j], i == j ? sign : 0.0, 64 * kEps * (d + 1))
                    << "degree " << d << " (" << i << "," << j << ")";
            }
        }
    }
}

TEST(SMatrixTest, DerivativeMatchesCentralDifferences) {
    // Central differences err by h^2/6 times the third derivative, bounded by d^3 (the
    // generator's eigenvalues are at most d in modulus), plus rounding of order d eps / h.
    const unsigned int N = 10;
    const double h = 1e-5;
    for (const double theta : {0.0, 0.35, 1.2, -2.4, kPi / 2}) {
        SMatrixSet S, dS, plus, minus;
        BuildSMatrix(N, theta, S);
        EXPECT_TRUE(BuildSMatrixDerivative(N, S, dS));
        BuildSMatrix(N, theta + h, plus);
        BuildSMatrix(N, theta - h, minus);
        ASSERT_EQ(dS.size(), N + 1);
        for (unsigned int d = 0; d <= N; ++d) {
            ASSERT_EQ(dS[d].size(), d + 1);
            const double tolerance = h * h * d * d * d / 6.0 + 64.0 * (d + 1) * kEps / h;
            for (unsigned int i = 0; i <= d; ++i) {
                ASSERT_EQ(dS[d][i].size(), d + 1);
                for (unsigned int j = 0; j <= d; ++j) {
                    const double difference = (plus[d][i][j] - minus[d][i][j]) / (2 * h);
                    EXPECT_NEAR(dS[d][i][j], difference, tolerance)
                        << "theta " << theta << " degree " << d << " (" << i << "," << j << ")";
                }
            }
        }
    }
}

TEST(SMatrixTest, DerivativeOfDegreeOneIsDerivativeOfPlaneRotation) {
    // d/dtheta [c s; -s c] = [-s c; -c -s].
    const double theta = 0.83;
    SMatrixSet S, dS;
    BuildSMatrix(3, theta, S);
    BuildSMatrixDerivative(3, S, dS);
    const double c = std::cos(theta), s = std::sin(theta);
    EXPECT_NEAR(dS[1][0][0], -s, 4 * kEps);
    EXPECT_NEAR(dS[1][0][1], c, 4 * kEps);
    EXPECT_NEAR(dS[1][1][0], -c, 4 * kEps);
    EXPECT_NEAR(dS[1][1][1], -s, 4 * kEps);
    EXPECT_EQ(dS[0][0][0], 0.0);
}

// =============================================================================================
// F tables

/// sqrt(K_r K_c): the Cauchy-Schwarz bound of |F[r][c]| for every shift.
double FScale(unsigned int r, unsigned int c) {
    const std::vector<double> K = ro::NormTable(r + c + 4);
    return std::sqrt(K[r] * K[c]);
}

/// Integral of h_r(u) h_c(u + x) du for r < R, c <= L, by composite Simpson on [-20, 20]
/// with step 1/64. Beyond |u| = 20 the integrand is below exp(-200); for such smooth, rapidly
/// decaying integrands Simpson's rule is accurate to rounding.
std::vector<std::vector<double>> QuadratureF(unsigned int R, unsigned int L, double x) {
    const double lo = -20.0, hi = 20.0;
    const int intervals = 2560;
    const double step = (hi - lo) / intervals;
    std::vector<std::vector<double>> F(R, std::vector<double>(L + 1, 0.0));
    std::vector<double> left(R), right(L + 1);
    for (int i = 0; i <= intervals; ++i) {
        const double u = lo + step * i;
        const double weight = (i == 0 || i == intervals) ? 1.0 : (i % 2 == 1 ? 4.0 : 2.0);
        for (unsigned int r = 0; r < R; ++r) {
            left[r] = QVHermiteFunc(r, u);
        }
        for (unsigned int c = 0; c <= L; ++c) {
            right[c] = QVHermiteFunc(c, u + x);
        }
        for (unsigned int r = 0; r < R; ++r) {
            for (unsigned int c = 0; c <= L; ++c) {
                F[r][c] += weight * left[r] * right[c];
            }
        }
    }
    for (auto& row : F) {
        for (double& value : row) {
            value *= step / 3.0;
        }
    }
    return F;
}

TEST(FMatrixTest, ZeroShiftFirstRowAndColumn) {
    // F[0][0] = sqrt(pi) exp(0); the other entries of row 0 and column 0 carry a factor x.
    for (const auto& rq : {std::array<unsigned int, 2>{1, 1}, {3, 4}, {6, 2}, {7, 7}}) {
        FMatrix F;
        EXPECT_TRUE(BuildFMatrix(rq[0], rq[1], 0.0, F));
        ASSERT_EQ(F.size(), rq[0]);
        EXPECT_EQ(F[0][0], 1.7724538509055159);
        for (std::size_t c = 1; c < F[0].size(); ++c) {
            EXPECT_EQ(F[0][c], 0.0) << "column " << c;
        }
        for (std::size_t r = 1; r < F.size(); ++r) {
            EXPECT_EQ(F[r][0], 0.0) << "row " << r;
        }
    }
}

TEST(FMatrixTest, ZeroShiftIsTheOrthogonalityOfHermiteFunctions) {
    // At x = 0, F[r][c] = Integral h_r h_c = K_r delta_rc.
    FMatrix F;
    BuildFMatrix(6, 6, 0.0, F);
    for (unsigned int r = 0; r < F.size(); ++r) {
        for (unsigned int c = 0; c < F[r].size(); ++c) {
            const double expected = r == c ? ro::NormTable(r)[r] : 0.0;
            EXPECT_NEAR(F[r][c], expected, 16 * kEps * FScale(r, c)) << r << "," << c;
        }
    }
}

TEST(FMatrixTest, RowsShrinkByOneFromRPlusQMinusOne) {
    for (unsigned int R = 1; R <= 6; ++R) {
        for (unsigned int Q = 1; Q <= 6; ++Q) {
            FMatrix F;
            BuildFMatrix(R, Q, 0.37, F);
            ASSERT_EQ(F.size(), R) << "R " << R << " Q " << Q;
            for (unsigned int r = 0; r < R; ++r) {
                EXPECT_EQ(F[r].size(), R + Q - 2 - r + 1) << "R " << R << " Q " << Q << " r " << r;
            }
        }
    }
}

TEST(FMatrixTest, ReplacesPreviousContent) {
    FMatrix F(9, std::vector<double>(3, 7.0));
    BuildFMatrix(2, 2, 0.0, F);
    ASSERT_EQ(F.size(), 2u);
    EXPECT_EQ(F[0].size(), 3u);
    EXPECT_EQ(F[1].size(), 2u);
    EXPECT_EQ(F[0][0], 1.7724538509055159);
}

TEST(FMatrixTest, EqualsOverlapIntegralOfShiftedHermiteFunctions) {
    // Rounding in the quadrature sum is at most a few eps times Integral |h_r| |h_(c)|, which is
    // at most sqrt(K_r K_c): tolerances are relative to that scale.
    const unsigned int R = 6, Q = 5;
    for (const double x : {-1.7, -0.3, 0.0, 0.9, 2.5}) {
        FMatrix F;
        BuildFMatrix(R, Q, x, F);
        const auto expected = QuadratureF(R, R + Q - 2, x);
        for (unsigned int r = 0; r < R; ++r) {
            for (unsigned int c = 0; c < F[r].size(); ++c) {
                EXPECT_NEAR(F[r][c], expected[r][c], 1e-12 * FScale(r, c))
                    << "x " << x << " (" << r << "," << c << ")";
            }
        }
    }
}

TEST(FMatrixTest, DerivativeMatchesCentralDifferences) {
    // d^3/dx^3 of h_c(u + x) is a combination of h_(c-3) .. h_(c+3) with coefficients up to
    // (c+3)^(3/2) after normalisation, so the h^2/6 truncation is below h^2 (c+3)^(3/2) times the
    // scale sqrt(K_r K_c); rounding adds eps / h of that scale.
    const unsigned int R = 5, Q = 6;
    const double h = 1e-5;
    for (const double x : {-1.3, 0.0, 0.45, 2.2}) {
        FMatrix F, dF, plus, minus;
        BuildFMatrix(R, Q + 1, x, F);  // column Q is needed in every row
        EXPECT_TRUE(BuildFMatrixDerivative(R, Q, F, dF));
        BuildFMatrix(R, Q + 1, x + h, plus);
        BuildFMatrix(R, Q + 1, x - h, minus);
        ASSERT_EQ(dF.size(), R);
        for (unsigned int r = 0; r < R; ++r) {
            ASSERT_GE(dF[r].size(), Q);
            for (unsigned int c = 0; c < Q; ++c) {
                const double difference = (plus[r][c] - minus[r][c]) / (2 * h);
                const double tolerance =
                    (h * h * std::pow(c + 3.0, 1.5) + 64 * kEps / h) * FScale(r, c);
                EXPECT_NEAR(dF[r][c], difference, tolerance)
                    << "x " << x << " (" << r << "," << c << ")";
            }
        }
    }
}

TEST(FMatrixTest, DerivativeKeepsExistingRowsAndDropsExtraOnes) {
    FMatrix F;
    BuildFMatrix(3, 4, 0.6, F);
    FMatrix dF(5, std::vector<double>(2, -9.0));
    BuildFMatrixDerivative(3, 3, F, dF);
    ASSERT_EQ(dF.size(), 3u);
    for (unsigned int r = 0; r < 3; ++r) {
        ASSERT_GE(dF[r].size(), 3u);
        EXPECT_DOUBLE_EQ(dF[r][0], -0.5 * F[r][1]);
    }
}

// =============================================================================================
// Rotation of expansions: oracle validation

TEST(RotateHermitesOracleTest, OneAxisClosedFormMatchesLibraryTable) {
    // The double-precision closed form of the test oracle and the library's one-axis table are
    // derived independently; for float centres they must agree to rounding (relative to the
    // largest entry, since entries of high degree are sums of terms of that size).
    ro::Random random(201);
    const unsigned int N = 10;
    for (int trial = 0; trial < 20; ++trial) {
        const std::vector<QVGaussian> g = RandomDensity(random, 1);
        const double lambda = random.Uniform(0.6, 1.6);
        const auto table = GaussianToHermiteCoefficientsAndDerivs(N, lambda, g[0], 0);
        ASSERT_EQ(table.size(), 15u);
        const double centre[3] = {g[0].GetX(), g[0].GetY(), g[0].GetZ()};
        for (int axis = 0; axis < 3; ++axis) {
            const std::vector<double>& library = table[5 * axis];
            const std::vector<double> oracle =
                ro::OneAxisCoefficients(N, lambda, g[0].GetExponent(), centre[axis]);
            const double scale = MaxAbs(oracle);
            for (unsigned int k = 0; k <= N; ++k) {
                EXPECT_NEAR(library[k], oracle[k], 1e-13 * scale)
                    << "trial " << trial << " axis " << axis << " degree " << k;
            }
        }
    }
}

TEST(RotateHermitesOracleTest, OneAxisClosedFormMatchesQuadrature) {
    // The oracle's F_k against Simpson quadrature of its defining integral
    // lambda * Integral exp(-a (x - x0)^2) H_k(lambda x) exp(-lambda^2 x^2 / 2) dx.
    const double lambda = 0.85, a = 1.1, x0 = -0.7;
    const unsigned int N = 8;
    const std::vector<double> oracle = ro::OneAxisCoefficients(N, lambda, a, x0);
    const double lo = -25.0, hi = 25.0;
    const int intervals = 4000;
    const double step = (hi - lo) / intervals;
    for (unsigned int k = 0; k <= N; ++k) {
        double sum = 0.0;
        for (int i = 0; i <= intervals; ++i) {
            const double x = lo + step * i;
            const double weight = (i == 0 || i == intervals) ? 1.0 : (i % 2 == 1 ? 4.0 : 2.0);
            sum += weight * std::exp(-a * (x - x0) * (x - x0)) * QVHermiteFunc(k, lambda * x);
        }
        // Relative to sqrt(K_k) sqrt(pi / a), the Cauchy-Schwarz bound of the integral.
        const double scale = std::sqrt(ro::NormTable(k)[k] * std::sqrt(kPi / (2 * a)) * lambda);
        EXPECT_NEAR(lambda * sum * step / 3.0, oracle[k], 1e-12 * scale) << "degree " << k;
    }
}

TEST(RotateHermitesOracleTest, ExpansionMatchesLibraryForUnrotatedDensity) {
    ro::Random random(202);
    for (const unsigned int N : {0u, 3u, 10u}) {
        const std::vector<QVGaussian> gaussians = RandomDensity(random, 4);
        const double lambda = 0.9;
        const QVHermite hermite = Expand(gaussians, N, lambda);
        const std::vector<double> oracle = ro::ExpandGaussians(N, lambda, AsDouble(gaussians));
        ASSERT_EQ(hermite.GetCoefficients().size(), oracle.size());
        EXPECT_LT(MaxAbsDifference(hermite.GetCoefficients(), oracle), 1e-13 * MaxAbs(oracle))
            << "N " << N;
    }
}

// =============================================================================================
// Rotation of expansions

TEST(RotateHermitesTest, EqualsExpansionOfGaussiansTurnedByTheSameRotation) {
    // Exact for equal lambdas (see the header comment). The rotation mixes coefficients through
    // orthogonal matrices in the orthonormal basis, so rounding is relative to the norm of the
    // expansion, which for these compact densities is of the size of the largest coefficient.
    ro::Random random(301);
    for (const unsigned int N : {1u, 2u, 5u, 8u, 10u}) {
        for (int trial = 0; trial < 5; ++trial) {
            const std::vector<QVGaussian> gaussians = RandomDensity(random, 3);
            const double lambda = random.Uniform(0.7, 1.3);
            const ro::Matrix3 R = ro::RandomRotation(random);
            QVHermite hermite = Expand(gaussians, N, lambda);
            EXPECT_TRUE(hermite.RotateHermites(AsVector(R)));
            const std::vector<double> expected =
                ro::ExpandGaussians(N, lambda, Turned(AsDouble(gaussians), R));
            ASSERT_EQ(hermite.GetCoefficients().size(), expected.size());
            EXPECT_LT(MaxAbsDifference(hermite.GetCoefficients(), expected),
                      1e-11 * MaxAbs(expected))
                << "N " << N << " trial " << trial;
        }
    }
}

TEST(RotateHermitesTest, EqualsExpansionOfTurnedGaussiansForRotationsFromAngles) {
    // Same oracle, for rotations given by their Euler angles, including large pitch angles.
    ro::Random random(302);
    const unsigned int N = 7;
    for (const double b : {-1.4, -0.6, 0.0, 0.3, 1.2}) {
        const std::vector<QVGaussian> gaussians = RandomDensity(random, 3);
        const double lambda = 1.1;
        const std::vector<double> R =
            RotFromEulerXYZ(random.Uniform(-kPi, kPi), b, random.Uniform(-kPi, kPi));
        QVHermite hermite = Expand(gaussians, N, lambda);
        hermite.RotateHermites(R);
        const std::vector<double> expected =
            ro::ExpandGaussians(N, lambda, Turned(AsDouble(gaussians), AsMatrix(R)));
        EXPECT_LT(MaxAbsDifference(hermite.GetCoefficients(), expected), 1e-11 * MaxAbs(expected))
            << "b " << b;
    }
}

TEST(RotateHermitesTest, PreservesSelfOverlap) {
    // sum c^2 K_l K_m K_n / lambda^3 is the squared norm of the expansion; the rotation is
    // orthogonal in the orthonormal basis, so it is invariant to rounding.
    ro::Random random(303);
    for (const unsigned int N : {2u, 6u, 10u}) {
        for (int trial = 0; trial < 4; ++trial) {
            const double lambda = random.Uniform(0.7, 1.3);
            QVHermite hermite = Expand(RandomDensity(random, 4), N, lambda);
            const double before = ro::SelfOverlap(N, lambda, hermite.GetCoefficients());
            hermite.RotateHermites(AsVector(ro::RandomRotation(random)));
            const double after = ro::SelfOverlap(N, lambda, hermite.GetCoefficients());
            EXPECT_NEAR(after, before, 1e-12 * before) << "N " << N << " trial " << trial;
        }
    }
}

TEST(RotateHermitesTest, IdentityLeavesEveryCoefficientUnchanged) {
    ro::Random random(304);
    QVHermite hermite = Expand(RandomDensity(random, 4), 9, 0.95);
    const std::vector<double> before = hermite.GetCoefficients();
    hermite.RotateHermites({1, 0, 0, 0, 1, 0, 0, 0, 1});
    const std::vector<double>& after = hermite.GetCoefficients();
    ASSERT_EQ(after.size(), before.size());
    for (std::size_t i = 0; i < before.size(); ++i) {
        EXPECT_NEAR(after[i], before[i], 4 * kEps * std::abs(before[i])) << "index " << i;
    }
}

/// Rotates an expansion of a generic density by R and checks that each coefficient is
/// multiplied by -1 exactly when `flips(l, m, n)`, and by +1 otherwise.
void ExpectSignPattern(const std::vector<double>& R, bool (*flips)(const ro::Triple&)) {
    const unsigned int N = 7;
    ro::Random random(305);
    QVHermite hermite = Expand(RandomDensity(random, 4), N, 1.05);
    const std::vector<double> before = hermite.GetCoefficients();
    hermite.RotateHermites(R);
    const std::vector<double>& after = hermite.GetCoefficients();
    const std::vector<ro::Triple> triples = ro::LmnTriples(N);
    // The half turn is exact up to sin(pi) ~ 1e-16 leaking through orthogonal mixing.
    const double tolerance = 1e-13 * MaxAbs(before);
    double largestFlipped = 0.0;
    for (std::size_t i = 0; i < triples.size(); ++i) {
        const double sign = flips(triples[i]) ? -1.0 : 1.0;
        EXPECT_NEAR(after[i], sign * before[i], tolerance) << TripleText(triples[i]);
        if (flips(triples[i])) {
            largestFlipped = std::max(largestFlipped, std::abs(before[i]));
        }
    }
    // The flipped coefficients are far from zero, so a missing sign change would show.
    EXPECT_GT(largestFlipped, 1e6 * tolerance);
}

TEST(RotateHermitesTest, HalfTurnAboutZFlipsCoefficientsWithOddLPlusM) {
    // (x, y, z) -> (-x, -y, z) and H_k is odd for odd k.
    ExpectSignPattern(RotFromEulerXYZ(0, 0, kPi),
                      [](const ro::Triple& t) { return (t.l + t.m) % 2 == 1; });
}

TEST(RotateHermitesTest, HalfTurnAboutXFlipsCoefficientsWithOddMPlusN) {
    ExpectSignPattern(RotFromEulerXYZ(kPi, 0, 0),
                      [](const ro::Triple& t) { return (t.m + t.n) % 2 == 1; });
}

TEST(RotateHermitesTest, HalfTurnAboutYFlipsCoefficientsWithOddLPlusN) {
    ExpectSignPattern(RotFromEulerXYZ(0, kPi, 0),
                      [](const ro::Triple& t) { return (t.l + t.n) % 2 == 1; });
}

TEST(RotateHermitesTest, ExactHalfTurnMatricesFlipTheSameCoefficients) {
    // The same half turns given as exact matrices with no rounding in their entries.
    ExpectSignPattern({-1, 0, 0, 0, -1, 0, 0, 0, 1},
                      [](const ro::Triple& t) { return (t.l + t.m) % 2 == 1; });
    ExpectSignPattern({1, 0, 0, 0, -1, 0, 0, 0, -1},
                      [](const ro::Triple& t) { return (t.m + t.n) % 2 == 1; });
    ExpectSignPattern({-1, 0, 0, 0, 1, 0, 0, 0, -1},
                      [](const ro::Triple& t) { return (t.l + t.n) % 2 == 1; });
}

TEST(RotateHermitesTest, DegreeZeroCoefficientNeverChanges) {
    // The constant-degree function exp(-lambda^2 r^2 / 2) is rotation invariant; its only
    // mixing factor is S[0] = [1] with a unit norm ratio.
    ro::Random random(306);
    for (int trial = 0; trial < 10; ++trial) {
        QVHermite hermite = Expand(RandomDensity(random, 3), 6, 0.9);
        const double before = hermite.GetCoefficients()[GetLmnIndex(0, 0, 0)];
        hermite.RotateHermites(AsVector(ro::RandomRotation(random)));
        EXPECT_NEAR(hermite.GetCoefficients()[GetLmnIndex(0, 0, 0)], before,
                    4 * kEps * std::abs(before));
    }
}

TEST(RotateHermitesTest, NineArgumentOverloadEqualsVectorOverload) {
    ro::Random random(307);
    const std::vector<QVGaussian> gaussians = RandomDensity(random, 3);
    const ro::Matrix3 R = ro::RandomRotation(random);
    QVHermite byVector = Expand(gaussians, 6, 1.0);
    QVHermite byEntries = byVector;
    EXPECT_TRUE(byVector.RotateHermites(AsVector(R)));
    EXPECT_TRUE(byEntries.RotateHermites(R[0], R[1], R[2], R[3], R[4], R[5], R[6], R[7], R[8]));
    const std::vector<double>& a = byVector.GetCoefficients();
    const std::vector<double>& b = byEntries.GetCoefficients();
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        EXPECT_DOUBLE_EQ(b[i], a[i]) << "index " << i;
    }
    // The argument order is row by row: a transposed call is a different rotation.
    QVHermite transposed = Expand(gaussians, 6, 1.0);
    transposed.RotateHermites(R[0], R[3], R[6], R[1], R[4], R[7], R[2], R[5], R[8]);
    EXPECT_GT(MaxAbsDifference(transposed.GetCoefficients(), a), 1e-3 * MaxAbs(a));
}

/// The degree-1 block of the expansion of one Gaussian centred at `centre` after rotating by R,
/// divided by its single non-zero entry before the rotation (the centre lies on an axis, so the
/// other two degree-1 coefficients vanish: odd one-axis coefficients of a centred factor are 0).
std::array<double, 3> TurnedUnitDegreeOne(const float* centre, const std::vector<double>& R,
                                          int axis) {
    std::vector<QVGaussian> gaussians = {MakeGaussian(1.5f, 0.9f, centre[0], centre[1], centre[2])};
    QVHermite hermite = Expand(gaussians, 3, 1.0);
    const std::array<double, 3> before = DegreeOneBlock(hermite.GetCoefficients());
    for (int i = 0; i < 3; ++i) {
        if (i == axis) {
            EXPECT_GT(std::abs(before[i]), 1e-3);
        } else {
            EXPECT_EQ(before[i], 0.0);
        }
    }
    hermite.RotateHermites(R);
    std::array<double, 3> after = DegreeOneBlock(hermite.GetCoefficients());
    for (double& v : after) {
        v /= before[axis];
    }
    return after;
}

void ExpectVector(const std::array<double, 3>& actual, const std::array<double, 3>& expected) {
    // Quarter turns are exact up to cos(pi/2) ~ 6e-17 in the matrix entries.
    for (int i = 0; i < 3; ++i) {
        EXPECT_NEAR(actual[i], expected[i], 1e-14) << "component " << i;
    }
}

TEST(RotateHermitesTest, QuarterTurnAboutZTakesXDegreeOneToY) {
    const float onX[3] = {0.75f, 0.0f, 0.0f};
    ExpectVector(TurnedUnitDegreeOne(onX, RotFromEulerXYZ(0, 0, kPi / 2), 0), {0, 1, 0});
}

TEST(RotateHermitesTest, QuarterTurnAboutZTakesYDegreeOneToMinusX) {
    const float onY[3] = {0.0f, 0.5f, 0.0f};
    ExpectVector(TurnedUnitDegreeOne(onY, RotFromEulerXYZ(0, 0, kPi / 2), 1), {-1, 0, 0});
}

TEST(RotateHermitesTest, QuarterTurnAboutXTakesYDegreeOneToZ) {
    const float onY[3] = {0.0f, -0.625f, 0.0f};
    ExpectVector(TurnedUnitDegreeOne(onY, RotFromEulerXYZ(kPi / 2, 0, 0), 1), {0, 0, 1});
}

TEST(RotateHermitesTest, QuarterTurnAboutYTakesXDegreeOneToMinusZ) {
    const float onX[3] = {1.25f, 0.0f, 0.0f};
    ExpectVector(TurnedUnitDegreeOne(onX, RotFromEulerXYZ(0, kPi / 2, 0), 0), {0, 0, -1});
}

TEST(RotateHermitesTest, DegreeOneBlockTransformsAsVector) {
    // For any density, new = R * old on the three degree-1 coefficients (they share the norm
    // K_1 K_0 K_0, so no rescaling enters). Rounding is relative to the block's length.
    ro::Random random(308);
    for (int trial = 0; trial < 20; ++trial) {
        QVHermite hermite = Expand(RandomDensity(random, 3), 4, random.Uniform(0.7, 1.3));
        const ro::Matrix3 R = ro::RandomRotation(random);
        const std::array<double, 3> old = DegreeOneBlock(hermite.GetCoefficients());
        hermite.RotateHermites(AsVector(R));
        const std::array<double, 3> expected = ro::Apply(R, old);
        const std::array<double, 3> actual = DegreeOneBlock(hermite.GetCoefficients());
        const double length = std::sqrt(old[0] * old[0] + old[1] * old[1] + old[2] * old[2]);
        ASSERT_GT(length, 1e-3);
        for (int i = 0; i < 3; ++i) {
            EXPECT_NEAR(actual[i], expected[i], 1e-13 * length) << "trial " << trial;
        }
    }
}

TEST(RotateHermitesTest, SuccessiveRotationsEqualRotationByTheProduct) {
    // Rotating by R1 and then by R2 turns the density by R2 R1.
    ro::Random random(309);
    const unsigned int N = 8;
    const std::vector<QVGaussian> gaussians = RandomDensity(random, 4);
    for (int trial = 0; trial < 4; ++trial) {
        const ro::Matrix3 R1 = ro::RandomRotation(random);
        const ro::Matrix3 R2 = ro::RandomRotation(random);
        QVHermite twice = Expand(gaussians, N, 1.0);
        twice.RotateHermites(AsVector(R1));
        twice.RotateHermites(AsVector(R2));
        QVHermite once = Expand(gaussians, N, 1.0);
        once.RotateHermites(AsVector(ro::Multiply(R2, R1)));
        EXPECT_LT(MaxAbsDifference(twice.GetCoefficients(), once.GetCoefficients()),
                  1e-12 * MaxAbs(once.GetCoefficients()))
            << "trial " << trial;
    }
}

TEST(RotateHermitesTest, InverseRotationRestoresCoefficients) {
    ro::Random random(310);
    const unsigned int N = 9;
    QVHermite hermite = Expand(RandomDensity(random, 4), N, 0.8);
    const std::vector<double> before = hermite.GetCoefficients();
    const ro::Matrix3 R = ro::RandomRotation(random);
    ro::Matrix3 Rt{};
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            Rt[3 * i + j] = R[3 * j + i];
        }
    }
    hermite.RotateHermites(AsVector(R));
    hermite.RotateHermites(AsVector(Rt));
    EXPECT_LT(MaxAbsDifference(hermite.GetCoefficients(), before), 1e-12 * MaxAbs(before));
}

TEST(RotateHermitesTest, LeavesEverythingButTheCoefficientsAsItWas) {
    ro::Random random(311);
    QVHermite hermite = Expand(RandomDensity(random, 3), 5, 1.2);
    const QVHermite before = hermite;
    hermite.RotateHermites(AsVector(ro::RandomRotation(random)));
    EXPECT_EQ(hermite.GetSelfOverlap(), before.GetSelfOverlap());
    EXPECT_EQ(hermite.GetLambdaDerivative(), before.GetLambdaDerivative());
    EXPECT_EQ(hermite.GetKCoeffs(), before.GetKCoeffs());
    EXPECT_EQ(hermite.GetLambdaDerivativeCoefficients(), before.GetLambdaDerivativeCoefficients());
    EXPECT_EQ(hermite.GetOptions().GetNPolyMax(), 5u);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        EXPECT_EQ(hermite.GetOptions().GetLambda(axis), 1.2);
    }
    EXPECT_EQ(hermite.GetCoefficients().size(), before.GetCoefficients().size());
    EXPECT_GT(MaxAbsDifference(hermite.GetCoefficients(), before.GetCoefficients()), 0.0);
}

}  // namespace
