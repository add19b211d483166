/// \file
/// Eigenvalues and eigenvectors of the symmetric 6 x 6 matrices of Newton's method in the six
/// rigid variables, by a solver written for that size: Householder reduction to tridiagonal
/// form and the implicit QL method with Wilkinson's shifts, as in the classic EISPACK routines
/// (tred2, tql2), with every loop of a fixed length. A third faster than a general solver at
/// this size, where the steps of a walk on a surface that is not concave spend most of their
/// time.
#pragma once

#include <Eigen/Dense>

namespace hermite::overlay {

/// A 6 x 6 matrix, stored by rows (for a symmetric one the order does not matter).
using Matrix6ByRows = Eigen::Matrix<double, 6, 6, Eigen::RowMajor>;

/// The eigen-decomposition A = V diag(values) V^T of a symmetric matrix.
struct SymmetricEigen6 {
    Eigen::Matrix<double, 6, 1> values;  ///< in no particular order
    Matrix6ByRows vectors;               ///< orthonormal columns, column i for values[i]
    /// False for a matrix with entries that are not finite numbers, or when the QL iterations
    /// did not settle within their limit (30 per eigenvalue, where two or three are the rule);
    /// then values and vectors are not to be used.
    bool converged = false;
};

/// The eigenvalues and eigenvectors of the symmetric matrix `A` (its lower triangle is read),
/// to a few units of rounding relative to its largest entry. The matrix is scaled by a power of
/// two to entries at most 1 first, so that no square of an entry overflows or underflows.
///
/// Thread safety: a pure function.
SymmetricEigen6 SymmetricEigenOf(const Matrix6ByRows& A);

}  // namespace hermite::overlay
