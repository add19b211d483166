// Tests of the orientation by Hermite moments of inertia (QVOrientByHermiteMomentsOfInertia) and
// of its companions OrderEigenvaluesHighToLow, ComputeRotationMatrix and QVRotateGaussians.
//
// What the oracles rely on.
//
// The moment tensor M(i, j) is the raw Hermite second moment of the expansion with exponent one
// higher along axes i and j. The moments are the library's own functionals (built on a signed
// log-gamma): they are not the second moments of the density, M is not rotation-covariant and its
// eigenvalues may well be negative (they are for every density below). So the tests check M
// against Hermite3DMoment of an expansion built in the test, and check the rotation by what it
// must do to M whatever M is: R is orthonormal with determinant +1, its rows are eigenvectors of
// the symmetric M, so R M R^T is the diagonal of the eigenvalues, largest first.
//
// Handedness: the rows of R are the eigenvectors in falling order of eigenvalue; when they form
// a left-handed frame all nine entries are negated. For a density that is symmetric under each
// of the three coordinate reflections every mixed moment cancels exactly, M is exactly diagonal
// and the eigen-solver returns the unit vectors themselves. The ordered rows are then a
// permutation matrix P, known from the order of the diagonal of M, and the rotation must be P
// for an even permutation and -P for an odd one. A frame of determinant exactly 0 cannot come
// out of the eigen-decomposition of a symmetric tensor (its eigenvectors are independent), so
// the rule that leaves such a frame alone cannot be reached through the public routine.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "hermite/hermite.h"
#include "qv/error.h"
#include "support/test_support.h"

namespace {

using QVHermiteMath::ComputeRotationMatrix;
using QVHermiteMath::Hermite3DMoment;
using QVHermiteMath::OrderEigenvaluesHighToLow;
using QVHermiteMath::QVGaussian;
using QVHermiteMath::QVHermite;
using QVHermiteMath::QVHermiteOptions;
using QVHermiteMath::QVOptimizationSearchOfHermiteCOM;
using QVHermiteMath::QVOrientByHermiteMomentsOfInertia;
using QVHermiteMath::QVRotateGaussians;

using hermite_test::Carbons;
using hermite_test::Determinant;
using hermite_test::ExpectSameGaussians;
using hermite_test::FixedOptions;
using hermite_test::MessageRecorder;
using hermite_test::SixAsymmetric;

using Rows = std::vector<std::vector<double>>;

// Eight Gaussians, elongated along a skew direction.
std::vector<QVGaussian> EightElongated() {
    return Carbons({{-2.0f, -1.0f, 0.5f},
                    {-1.5f, -0.625f, 0.25f},
                    {-0.75f, -0.5f, 0.0f},
                    {-0.25f, 0.125f, -0.25f},
                    {0.5f, 0.25f, 0.125f},
                    {1.0f, 0.75f, -0.5f},
                    {1.75f, 0.875f, -0.375f},
                    {2.25f, 1.25f, -0.75f}});
}

// Pairs on the axes at +-sx, +-sy, +-sz: symmetric under every coordinate reflection.
std::vector<QVGaussian> AxisPairs(float sx, float sy, float sz) {
    return Carbons({{sx, 0.0f, 0.0f},
                    {-sx, 0.0f, 0.0f},
                    {0.0f, sy, 0.0f},
                    {0.0f, -sy, 0.0f},
                    {0.0f, 0.0f, sz},
                    {0.0f, 0.0f, -sz}});
}

// The tensor of the second Hermite moments of the expansion of `gaussians`, built here: entry
// (i, j) is the moment e_i + e_j.
Rows MomentTensor(const std::vector<QVGaussian>& gaussians, unsigned int N, double lx, double ly,
                  double lz) {
    QVHermiteOptions options = FixedOptions(N, lx, ly, lz);
    QVHermite expansion;
    expansion.Setup(gaussians, options);
    const std::vector<double> coef = expansion.GetCoefficients();
    Rows M(3, std::vector<double>(3));
    for (unsigned int i = 0; i < 3; ++i) {
        for (unsigned int j = 0; j < 3; ++j) {
            unsigned int e[3] = {0, 0, 0};
            ++e[i];
            ++e[j];
            M[i][j] = Hermite3DMoment(e[0], e[1], e[2], N, lx, ly, lz, coef);
        }
    }
    return M;
}

struct Orientation {
    std::vector<QVGaussian> gaussians;
    std::vector<double> translation, rotation, eigenvalues;
    Rows inertia;
    bool status = true;
};

Orientation Orient(std::vector<QVGaussian> gaussians, unsigned int N, double lx, double ly,
                   double lz) {
    Orientation o;
    o.status = QVOrientByHermiteMomentsOfInertia(gaussians, N, lx, ly, lz, o.translation,
                                                 o.rotation, o.inertia, o.eigenvalues);
    o.gaussians = std::move(gaussians);
    return o;
}

double MaxAbs(const Rows& m) {
    double largest = 0.0;
    for (const std::vector<double>& row : m) {
        for (double v : row) {
            largest = std::max(largest, std::fabs(v));
        }
    }
    return largest;
}

void ExpectSameOrientation(const Orientation& expected, const Orientation& actual) {
    EXPECT_EQ(expected.status, actual.status);
    EXPECT_EQ(expected.translation, actual.translation);
    EXPECT_EQ(expected.rotation, actual.rotation);
    EXPECT_EQ(expected.inertia, actual.inertia);
    EXPECT_EQ(expected.eigenvalues, actual.eigenvalues);
    ExpectSameGaussians(expected.gaussians, actual.gaussians);
}

struct Case {
    std::vector<QVGaussian> gaussians;
    unsigned int N;
    double lx, ly, lz;
    std::string name;
};

std::vector<Case> GeneralCases() {
    return {{SixAsymmetric(), 5, 0.7, 0.7, 0.7, "six, N 5, lambda 0.7"},
            {EightElongated(), 4, 0.6, 0.6, 0.6, "eight, N 4, lambda 0.6"},
            {SixAsymmetric(), 6, 0.5, 0.65, 0.8, "six, N 6, lambdas 0.5 0.65 0.8"},
            {EightElongated(), 5, 0.75, 0.55, 0.65, "eight, N 5, lambdas 0.75 0.55 0.65"}};
}

// ---------------------------------------------------------------------------------------------
// QVOrientByHermiteMomentsOfInertia

TEST(InertialTest, RotationIsOrthonormalWithDeterminantPlusOne) {
    for (const Case& k : GeneralCases()) {
        SCOPED_TRACE(k.name);
        const Orientation o = Orient(k.gaussians, k.N, k.lx, k.ly, k.lz);
        ASSERT_EQ(9u, o.rotation.size());
        const std::vector<double>& R = o.rotation;
        // Unit eigenvectors of a symmetric tensor with well separated eigenvalues: orthonormal
        // to a few ulps; 1e-12 leaves room for the conditioning of the eigen-solver.
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) {
                const double dot =
                    R[3 * i] * R[3 * j] + R[3 * i + 1] * R[3 * j + 1] + R[3 * i + 2] * R[3 * j + 2];
                EXPECT_NEAR(i == j ? 1.0 : 0.0, dot, 1e-12) << "rows " << i << ", " << j;
            }
        }
        EXPECT_NEAR(1.0, Determinant(R), 1e-12);
    }
}

// R M R^T is diagonal, with the eigenvalues on the diagonal, largest first.
TEST(InertialTest, RotationDiagonalisesTheMomentTensor) {
    for (const Case& k : GeneralCases()) {
        SCOPED_TRACE(k.name);
        const Orientation o = Orient(k.gaussians, k.N, k.lx, k.ly, k.lz);
        ASSERT_EQ(3u, o.inertia.size());
        ASSERT_EQ(3u, o.eigenvalues.size());
        const Rows& M = o.inertia;
        const std::vector<double>& R = o.rotation;
        // Backward-stable eigen-decomposition: residuals of order eps ||M||; 1e-10 ||M|| is
        // safely above that and far below the spread of the eigenvalues.
        const double tolerance = 1e-10 * MaxAbs(M);
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) {
                double d = 0.0;
                for (int a = 0; a < 3; ++a) {
                    for (int b = 0; b < 3; ++b) {
                        d += R[3 * i + a] * M[a][b] * R[3 * j + b];
                    }
                }
                EXPECT_NEAR(i == j ? o.eigenvalues[i] : 0.0, d, tolerance)
                    << "entry " << i << ", " << j;
            }
        }
        EXPECT_GE(o.eigenvalues[0], o.eigenvalues[1]);
        EXPECT_GE(o.eigenvalues[1], o.eigenvalues[2]);
        // Distinct eigenvalues, so the axes (and the check above) are well defined.
        EXPECT_GT(o.eigenvalues[0] - o.eigenvalues[2], 1e3 * tolerance);
    }
}

// The inertia output is the tensor of the six second moments of the expansion of the Gaussians
// as they were passed in (before the rotation), with the lambdas given.
TEST(InertialTest, InertiaIsTheSecondHermiteMomentsOfTheUnrotatedGaussians) {
    for (const Case& k : GeneralCases()) {
        SCOPED_TRACE(k.name);
        const Orientation o = Orient(k.gaussians, k.N, k.lx, k.ly, k.lz);
        const Rows expected = MomentTensor(k.gaussians, k.N, k.lx, k.ly, k.lz);
        ASSERT_EQ(3u, o.inertia.size());
        for (int i = 0; i < 3; ++i) {
            ASSERT_EQ(3u, o.inertia[i].size());
            for (int j = 0; j < 3; ++j) {
                EXPECT_EQ(expected[i][j], o.inertia[i][j]) << "entry " << i << ", " << j;
            }
        }
        // The tensor of the rotated Gaussians is a different one.
        const Rows after = MomentTensor(o.gaussians, k.N, k.lx, k.ly, k.lz);
        EXPECT_GT(std::fabs(after[0][1] - expected[0][1]), 1e-3 * MaxAbs(expected));
    }
}

// The centres are rotated in place by the returned rotation (not translated): the same as
// QVRotateGaussians on a copy, and as the row-by-row products rounded to float.
TEST(InertialTest, GaussiansAreRotatedInPlaceByTheReturnedRotation) {
    for (const Case& k : GeneralCases()) {
        SCOPED_TRACE(k.name);
        const Orientation o = Orient(k.gaussians, k.N, k.lx, k.ly, k.lz);
        std::vector<QVGaussian> copy = k.gaussians;
        QVRotateGaussians(copy, o.rotation);
        ExpectSameGaussians(copy, o.gaussians);
        const std::vector<double>& R = o.rotation;
        for (std::size_t i = 0; i < k.gaussians.size(); ++i) {
            const double x = k.gaussians[i].GetX(), y = k.gaussians[i].GetY(),
                         z = k.gaussians[i].GetZ();
            EXPECT_EQ(static_cast<float>((R[0] * x + R[1] * y) + R[2] * z), o.gaussians[i].GetX());
            EXPECT_EQ(static_cast<float>((R[3] * x + R[4] * y) + R[5] * z), o.gaussians[i].GetY());
            EXPECT_EQ(static_cast<float>((R[6] * x + R[7] * y) + R[8] * z), o.gaussians[i].GetZ());
        }
    }
}

// The translation is minus the optimisation search's centre of mass with the mean lambda
// ((lambdaY + lambdaZ) + lambdaX) * 0.3333333333333333; it is reported, not applied (the previous
// test shows the centres only rotated).
TEST(InertialTest, TranslationIsTheNegatedOptimisationSearchWithTheMeanLambda) {
    for (const Case& k : GeneralCases()) {
        SCOPED_TRACE(k.name);
        const Orientation o = Orient(k.gaussians, k.N, k.lx, k.ly, k.lz);
        std::vector<QVGaussian> copy = k.gaussians;
        const double mean = ((k.ly + k.lz) + k.lx) * 0.3333333333333333;
        const std::vector<double> centre = QVOptimizationSearchOfHermiteCOM(copy, k.N, mean);
        ASSERT_EQ(3u, o.translation.size());
        for (int a = 0; a < 3; ++a) {
            EXPECT_EQ(-centre[a], o.translation[a]) << "component " << a;
        }
        // These densities are not centred, so the translation is not trivially zero.
        EXPECT_GT(std::max({std::fabs(o.translation[0]), std::fabs(o.translation[1]),
                            std::fabs(o.translation[2])}),
                  0.01);
    }
}

// Outputs are replaced, not appended to; the status is false on a normal completion.
TEST(InertialTest, OutputsAreReplacedAndStatusIsFalse) {
    const Case k = GeneralCases()[0];
    std::vector<QVGaussian> gaussians = k.gaussians;
    std::vector<double> translation = {9.0, 9.0};
    std::vector<double> rotation(12, 9.0);
    Rows inertia = {{9.0}, {9.0, 9.0}, {9.0}, {9.0, 9.0, 9.0, 9.0}, {}};
    std::vector<double> eigenvalues = {9.0, 9.0, 9.0, 9.0, 9.0};
    const bool status = QVOrientByHermiteMomentsOfInertia(
        gaussians, k.N, k.lx, k.ly, k.lz, translation, rotation, inertia, eigenvalues);
    EXPECT_FALSE(status);
    const Orientation fresh = Orient(k.gaussians, k.N, k.lx, k.ly, k.lz);
    EXPECT_FALSE(fresh.status);
    EXPECT_EQ(fresh.translation, translation);
    EXPECT_EQ(fresh.rotation, rotation);
    EXPECT_EQ(fresh.inertia, inertia);
    EXPECT_EQ(fresh.eigenvalues, eigenvalues);
    ExpectSameGaussians(fresh.gaussians, gaussians);
}

// A second call works on the rotated centres: its tensor is that of the rotated Gaussians and it
// rotates them once more by its own rotation.
TEST(InertialTest, SecondCallRotatesTheAlreadyRotatedCentres) {
    const Case k = GeneralCases()[0];
    const Orientation first = Orient(k.gaussians, k.N, k.lx, k.ly, k.lz);
    const Orientation second = Orient(first.gaussians, k.N, k.lx, k.ly, k.lz);

    const Rows expected = MomentTensor(first.gaussians, k.N, k.lx, k.ly, k.lz);
    EXPECT_EQ(expected, second.inertia);
    // The first rotation did change the tensor (the moments are not rotation-covariant, and the
    // off-diagonal entries of the rotated tensor need not vanish).
    EXPECT_NE(first.inertia, second.inertia);

    std::vector<QVGaussian> twice = first.gaussians;
    QVRotateGaussians(twice, second.rotation);
    ExpectSameGaussians(twice, second.gaussians);

    std::vector<QVGaussian> copy = first.gaussians;
    const double mean = ((k.ly + k.lz) + k.lx) * 0.3333333333333333;
    const std::vector<double> centre = QVOptimizationSearchOfHermiteCOM(copy, k.N, mean);
    for (int a = 0; a < 3; ++a) {
        EXPECT_EQ(-centre[a], second.translation[a]) << "component " << a;
    }
}

TEST(InertialTest, OneLambdaOverloadEqualsMainEntryWithThreeEqualLambdas) {
    for (const Case& k : GeneralCases()) {
        SCOPED_TRACE(k.name);
        const double lambda = k.lx;
        const Orientation main = Orient(k.gaussians, k.N, lambda, lambda, lambda);
        Orientation single;
        single.gaussians = k.gaussians;
        single.status =
            QVOrientByHermiteMomentsOfInertia(single.gaussians, k.N, lambda, single.translation,
                                              single.rotation, single.inertia, single.eigenvalues);
        ExpectSameOrientation(main, single);
    }
}

// Densities symmetric under every coordinate reflection have an exactly diagonal tensor, and the
// rotation is the permutation P that orders its diagonal from high to low, negated when P is odd
// (a left-handed frame). The spreads below make every moment negative; the larger the spread
// along an axis, the smaller its moment here, and the cases are chosen so that both parities
// occur.
TEST(InertialTest, DiagonalTensorGivesSignedPermutationRotation) {
    struct AxisCase {
        float sx, sy, sz;
    };
    const AxisCase cases[] = {{1.5f, 0.75f, 0.25f},
                              {0.5f, 1.5f, 0.75f},
                              {0.75f, 1.5f, 0.25f},
                              {0.25f, 0.75f, 1.5f},
                              {1.25f, 0.375f, 0.875f}};
    bool sawEven = false, sawOdd = false;
    for (const AxisCase& c : cases) {
        SCOPED_TRACE("spreads " + std::to_string(c.sx) + ", " + std::to_string(c.sy) + ", " +
                     std::to_string(c.sz));
        const Orientation o = Orient(AxisPairs(c.sx, c.sy, c.sz), 5, 0.7, 0.7, 0.7);
        const Rows& M = o.inertia;
        // Preconditions: exactly diagonal, distinct diagonal entries.
        ASSERT_EQ(0.0, M[0][1]);
        ASSERT_EQ(0.0, M[0][2]);
        ASSERT_EQ(0.0, M[1][2]);
        ASSERT_NE(M[0][0], M[1][1]);
        ASSERT_NE(M[0][0], M[2][2]);
        ASSERT_NE(M[1][1], M[2][2]);

        int p[3] = {0, 1, 2};
        std::sort(p, p + 3, [&](int a, int b) { return M[a][a] > M[b][b]; });
        std::vector<double> P(9, 0.0);
        for (int k = 0; k < 3; ++k) {
            P[3 * k + p[k]] = 1.0;
        }
        const double sign = Determinant(P);
        (sign > 0.0 ? sawEven : sawOdd) = true;
        for (int i = 0; i < 9; ++i) {
            EXPECT_EQ(sign * P[i], o.rotation[i]) << "entry " << i;
        }
        EXPECT_EQ(1.0, Determinant(o.rotation));
        // The eigenvalues of a diagonal tensor are its diagonal; the relative slack covers a
        // scaling inside the eigen-solver.
        for (int k = 0; k < 3; ++k) {
            EXPECT_NEAR(M[p[k]][p[k]], o.eigenvalues[k], 1e-14 * MaxAbs(M)) << k;
        }
    }
    EXPECT_TRUE(sawEven);
    EXPECT_TRUE(sawOdd);
}

// ---------------------------------------------------------------------------------------------
// ComputeRotationMatrix and QVRotateGaussians

TEST(InertialTest, ComputeRotationMatrixAppendsTheRowsInOrder) {
    const Rows rows = {{1.0, 2.0, 3.0}, {4.0, 5.0, 6.0}, {7.0, 8.0, 9.0}};
    std::vector<double> rotation;
    ComputeRotationMatrix(rows, rotation);
    EXPECT_EQ(std::vector<double>({1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0, 8.0, 9.0}), rotation);
    // It pushes back without clearing.
    std::vector<double> prefilled = {-1.0};
    ComputeRotationMatrix(rows, prefilled);
    EXPECT_EQ(std::vector<double>({-1.0, 1.0, 2.0, 3.0, 4.0, 5.0, 6.0, 7.0, 8.0, 9.0}), prefilled);
}

TEST(InertialTest, RotateGaussiansComputesInDoubleAndStoresFloat) {
    // A rotation about z by 30 degrees and a general orthonormal matrix.
    const double c = std::sqrt(3.0) / 2.0, s = 0.5;
    const std::vector<double> Rz = {c, -s, 0.0, s, c, 0.0, 0.0, 0.0, 1.0};
    const std::vector<double> R = {2.0 / 3.0, 2.0 / 3.0, -1.0 / 3.0, -1.0 / 3.0, 2.0 / 3.0,
                                   2.0 / 3.0, 2.0 / 3.0, -1.0 / 3.0, 2.0 / 3.0};
    std::vector<QVGaussian> original = Carbons({{1.0f, 0.0f, 0.0f}, {0.1f, -2.3f, 4.7f}});
    original.emplace_back(0.5f, 1.25f, std::array<float, 3>{-3.0f, 0.25f, 1e-3f}.data(), 7u);
    for (const std::vector<double>* rotation : {&Rz, &R}) {
        const std::vector<double>& m = *rotation;
        std::vector<QVGaussian> gaussians = original;
        QVRotateGaussians(gaussians, m);
        ASSERT_EQ(original.size(), gaussians.size());
        for (std::size_t i = 0; i < original.size(); ++i) {
            const double x = original[i].GetX(), y = original[i].GetY(), z = original[i].GetZ();
            EXPECT_EQ(static_cast<float>((m[0] * x + m[1] * y) + m[2] * z), gaussians[i].GetX());
            EXPECT_EQ(static_cast<float>((m[3] * x + m[4] * y) + m[5] * z), gaussians[i].GetY());
            EXPECT_EQ(static_cast<float>((m[6] * x + m[7] * y) + m[8] * z), gaussians[i].GetZ());
            EXPECT_EQ(original[i].GetPrefactor(), gaussians[i].GetPrefactor());
            EXPECT_EQ(original[i].GetExponent(), gaussians[i].GetExponent());
            EXPECT_EQ(original[i].GetTag(), gaussians[i].GetTag());
        }
    }
    // The first centre (1, 0, 0) turns to (cos 30, sin 30, 0).
    std::vector<QVGaussian> one = Carbons({{1.0f, 0.0f, 0.0f}});
    QVRotateGaussians(one, Rz);
    EXPECT_EQ(static_cast<float>(c), one[0].GetX());
    EXPECT_EQ(0.5f, one[0].GetY());
    EXPECT_EQ(0.0f, one[0].GetZ());

    std::vector<QVGaussian> none;
    QVRotateGaussians(none, R);
    EXPECT_TRUE(none.empty());
}

// ---------------------------------------------------------------------------------------------
// OrderEigenvaluesHighToLow

// Eigenvectors in column layout with recognisable entries: component r of vector c is
// 10 (c + 1) + r, so column c holds (10(c+1), 10(c+1) + 1, 10(c+1) + 2).
Rows ColumnLayout() {
    Rows columns(3, std::vector<double>(3));
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c) {
            columns[r][c] = 10.0 * (c + 1) + r;
        }
    }
    return columns;
}

// Row k of the result must be column p[k] of the input.
Rows RowsInOrder(const int p[3]) {
    const Rows columns = ColumnLayout();
    Rows rows(3, std::vector<double>(3));
    for (int k = 0; k < 3; ++k) {
        for (int r = 0; r < 3; ++r) {
            rows[k][r] = columns[r][p[k]];
        }
    }
    return rows;
}

// Orders (a, b, c) and checks the permutation p it must apply, with no message.
void ExpectOrder(double a, double b, double c, std::array<int, 3> p) {
    SCOPED_TRACE("eigenvalues " + std::to_string(a) + ", " + std::to_string(b) + ", " +
                 std::to_string(c));
    std::vector<double> values = {a, b, c};
    Rows vectors = ColumnLayout();
    MessageRecorder capture;
    OrderEigenvaluesHighToLow(values, vectors);
    EXPECT_TRUE(capture.messages.empty());
    const double input[3] = {a, b, c};
    EXPECT_EQ(std::vector<double>({input[p[0]], input[p[1]], input[p[2]]}), values);
    EXPECT_EQ(RowsInOrder(p.data()), vectors);
}

TEST(EigenOrderTest, EqualEigenvaluesKeepTheSolverOrder) {
    ExpectOrder(2.0, 2.0, 2.0, {0, 1, 2});
    ExpectOrder(-4.5, -4.5, -4.5, {0, 1, 2});
}

TEST(EigenOrderTest, TiesWithTheLargestOrSmallestKeepTheSolverOrder) {
    ExpectOrder(3.0, 3.0, 1.0, {0, 1, 2});  // a = b > c
    ExpectOrder(3.0, 1.0, 1.0, {0, 1, 2});  // a > b = c
}

TEST(EigenOrderTest, FirstEqualToLastAboveMiddleSwapsTheLastTwo) {
    ExpectOrder(3.0, 1.0, 3.0, {0, 2, 1});  // a = c > b
}

// The first test that holds decides, so other ties resolve in favour of the earlier test too:
// b = c > a is caught by "b >= c and c >= a" and a = b < c by "a >= b and c >= a".
TEST(EigenOrderTest, OtherTiesFollowTheFirstMatchingTest) {
    ExpectOrder(1.0, 3.0, 3.0, {1, 2, 0});  // b = c > a
    ExpectOrder(1.0, 1.0, 3.0, {2, 0, 1});  // a = b < c
    ExpectOrder(1.0, 3.0, 1.0, {1, 0, 2});  // a = c < b
}

TEST(EigenOrderTest, SolverOrderOneFiveThreeGivesPermutationOneTwoZero) {
    std::vector<double> values = {1.0, 5.0, 3.0};
    Rows vectors = ColumnLayout();
    OrderEigenvaluesHighToLow(values, vectors);
    EXPECT_EQ(std::vector<double>({5.0, 3.0, 1.0}), values);
    // Column 1 becomes row 0, column 2 row 1, column 0 row 2.
    EXPECT_EQ(Rows({{20.0, 21.0, 22.0}, {30.0, 31.0, 32.0}, {10.0, 11.0, 12.0}}), vectors);
}

TEST(EigenOrderTest, EverySolverOrderOfDistinctValuesSortsHighToLow) {
    const double v[3] = {-7.0, 0.5, 12.0};
    int order[3] = {0, 1, 2};
    do {
        const double a = v[order[0]], b = v[order[1]], c = v[order[2]];
        // Positions of the largest, middle and smallest value among (a, b, c).
        std::array<int, 3> p = {0, 1, 2};
        const double in[3] = {a, b, c};
        std::sort(p.begin(), p.end(), [&](int i, int j) { return in[i] > in[j]; });
        ExpectOrder(a, b, c, p);
    } while (std::next_permutation(order, order + 3));
}

// A NaN eigenvalue fails every comparison: one warning, and the values stay in the solver's
// order while the vectors still come out in row layout.
TEST(EigenOrderTest, NaNEigenvalueWarnsOnceAndKeepsTheSolverOrder) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (int position = 0; position < 3; ++position) {
        SCOPED_TRACE("NaN at " + std::to_string(position));
        std::vector<double> values = {3.0, 1.0, 2.0};
        values[position] = nan;
        const std::vector<double> input = values;
        Rows vectors = ColumnLayout();
        MessageRecorder capture;
        OrderEigenvaluesHighToLow(values, vectors);
        ASSERT_EQ(1u, capture.messages.size());
        EXPECT_EQ(QVSystem::QVSeverity::Warning, capture.messages[0].first);
        EXPECT_EQ("Unexpected conditional logical error.", capture.messages[0].second);
        ASSERT_EQ(3u, values.size());
        for (int k = 0; k < 3; ++k) {
            if (k == position) {
                EXPECT_TRUE(std::isnan(values[k]));
            } else {
                EXPECT_EQ(input[k], values[k]) << k;
            }
        }
        const int identity[3] = {0, 1, 2};
        EXPECT_EQ(RowsInOrder(identity), vectors);
    }
}

}  // namespace
