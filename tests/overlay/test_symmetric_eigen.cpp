// The 6 x 6 symmetric eigensolver of the Newton steps: against the definition A V = V diag(w)
// with V orthonormal, against Eigen's general solver, on random matrices of every sign pattern
// and scale and on the degenerate ones (diagonal, repeated eigenvalues, rank one, zero).

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "overlay/symmetric_eigen.h"

namespace {

using hermite::overlay::Matrix6ByRows;
using hermite::overlay::SymmetricEigen6;
using hermite::overlay::SymmetricEigenOf;
using Vector6 = Eigen::Matrix<double, 6, 1>;

/// A random orthogonal matrix.
Matrix6ByRows RandomRotation(std::mt19937& engine) {
    std::normal_distribution<double> normal;
    Matrix6ByRows A;
    for (int i = 0; i < 36; ++i) {
        A.data()[i] = normal(engine);
    }
    return Eigen::HouseholderQR<Matrix6ByRows>(A).householderQ();
}

/// Checks that `eigen` decomposes `A`: orthonormal vectors, A V = V diag(values), to rounding
/// relative to A's largest entry; and that its values are Eigen's, in sorted order.
void ExpectDecomposes(const Matrix6ByRows& A, const SymmetricEigen6& eigen, int trial) {
    ASSERT_TRUE(eigen.converged) << trial;
    const double scale = A.cwiseAbs().maxCoeff();
    const Matrix6ByRows& V = eigen.vectors;
    EXPECT_LE((V.transpose() * V - Matrix6ByRows::Identity()).cwiseAbs().maxCoeff(), 1e-14)
        << trial;
    EXPECT_LE((A * V - V * eigen.values.asDiagonal()).cwiseAbs().maxCoeff(), 1e-14 * scale)
        << trial;
    Vector6 sorted = eigen.values;
    std::sort(sorted.data(), sorted.data() + 6);
    const Vector6 expected = Eigen::SelfAdjointEigenSolver<Matrix6ByRows>(A).eigenvalues();
    for (int i = 0; i < 6; ++i) {
        EXPECT_NEAR(sorted[i], expected[i], 1e-14 * scale) << trial << " " << i;
    }
}

TEST(SymmetricEigenTest, RandomMatricesOfEverySignAndScale) {
    std::mt19937 engine(3u);
    std::normal_distribution<double> normal;
    for (int trial = 0; trial < 300; ++trial) {
        Matrix6ByRows B;
        for (int i = 0; i < 36; ++i) {
            B.data()[i] = normal(engine);
        }
        // Scales from 1e-200 to 1e+200: the scaling by a power of two keeps the squares finite.
        const double scale = std::pow(10.0, (trial % 9 - 4) * 50.0);
        const Matrix6ByRows A = scale * (B + B.transpose());
        ExpectDecomposes(A, SymmetricEigenOf(A), trial);
    }
}

TEST(SymmetricEigenTest, ScalingByAPowerOfTwoScalesTheValuesExactly) {
    // Entries of magnitude 1/2 to 2, so that even scaled by 2^-1002 they stay normal numbers.
    // The solver works on the matrix scaled to entries of at most 1, which is the same matrix
    // for every power: the vectors come out the same and the values scaled exactly, both where
    // the power's scaling is a multiplication (2^-600, 2^600) and where it is ldexp's (2^-1002,
    // 2^1010).
    std::mt19937 engine(17u);
    std::uniform_real_distribution<double> magnitude(0.25, 1.0);
    Matrix6ByRows A;
    for (int i = 0; i < 6; ++i) {
        for (int j = 0; j <= i; ++j) {
            A(i, j) = A(j, i) = (engine() % 2 == 0 ? 1.0 : -1.0) * magnitude(engine);
        }
    }
    const SymmetricEigen6 unscaled = SymmetricEigenOf(A);
    ASSERT_TRUE(unscaled.converged);
    for (const int power : {-1002, -600, 600, 1010}) {
        const SymmetricEigen6 scaled = SymmetricEigenOf(std::ldexp(1.0, power) * A);
        ASSERT_TRUE(scaled.converged) << power;
        for (int i = 0; i < 6; ++i) {
            EXPECT_EQ(scaled.values[i], std::ldexp(unscaled.values[i], power)) << power;
            for (int j = 0; j < 6; ++j) {
                EXPECT_EQ(scaled.vectors(i, j), unscaled.vectors(i, j)) << power;
            }
        }
    }
}

TEST(SymmetricEigenTest, RepeatedAndZeroEigenvalues) {
    std::mt19937 engine(5u);
    const double spectra[][6] = {
        {1, 1, 1, 1, 1, 1},        // a multiple of the identity
        {2, 2, 2, -1, -1, 0},      // clusters and a zero
        {0, 0, 0, 0, 0, 3},        // rank one
        {1e-12, 1, 1, 1e12, 0, 0}  // widely spread
    };
    int trial = 0;
    for (const double* spectrum : spectra) {
        const Matrix6ByRows Q = RandomRotation(engine);
        const Vector6 w = Eigen::Map<const Vector6>(spectrum);
        const Matrix6ByRows A = Q * w.asDiagonal() * Q.transpose();
        ExpectDecomposes(A, SymmetricEigenOf(A), trial++);
    }
    // Already diagonal, and already tridiagonal: nothing to reduce.
    Matrix6ByRows D = Matrix6ByRows::Zero();
    D.diagonal() << 3, -1, 4, -1, 5, -9;
    ExpectDecomposes(D, SymmetricEigenOf(D), trial++);
    Matrix6ByRows T = D;
    for (int i = 0; i + 1 < 6; ++i) {
        T(i, i + 1) = T(i + 1, i) = 0.5 * (i + 1);
    }
    ExpectDecomposes(T, SymmetricEigenOf(T), trial++);
}

TEST(SymmetricEigenTest, ZeroAndNonFiniteMatrices) {
    const SymmetricEigen6 zero = SymmetricEigenOf(Matrix6ByRows::Zero());
    EXPECT_TRUE(zero.converged);
    EXPECT_EQ(zero.values, Vector6::Zero());
    EXPECT_EQ(zero.vectors, Matrix6ByRows::Identity());
    Matrix6ByRows broken = Matrix6ByRows::Identity();
    broken(2, 3) = broken(3, 2) = NAN;
    EXPECT_FALSE(SymmetricEigenOf(broken).converged);
    broken(2, 3) = broken(3, 2) = INFINITY;
    EXPECT_FALSE(SymmetricEigenOf(broken).converged);
}

}  // namespace
