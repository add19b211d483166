#include "overlay/symmetric_eigen.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace hermite::overlay {

namespace {

constexpr int kN = 6;

/// The QL iterations allowed per eigenvalue; two or three are the rule.
constexpr int kIterations = 30;

/// sqrt(a^2 + b^2), by the plain formula where its squares neither overflow nor underflow
/// (always, for the scaled matrices here), else by the library's careful and slower one.
double Hypot(double a, double b) {
    const double sum = a * a + b * b;
    return sum >= DBL_MIN && sum <= DBL_MAX ? std::sqrt(sum) : std::hypot(a, b);
}

/// Reduces the symmetric `a` (its lower triangle is read) to tridiagonal form T = Q^T A Q by
/// Householder reflections, the last row first: on return `d` holds T's diagonal, e[1..5] its
/// sub-diagonal (e[0] = 0) and `a` the orthogonal Q.
void Tridiagonalise(double a[kN][kN], double d[kN], double e[kN]) {
    for (int i = kN - 1; i > 0; --i) {
        const int l = i - 1;
        double h = 0.0;
        double scale = 0.0;
        for (int k = 0; k <= l; ++k) {
            scale += std::abs(a[i][k]);
        }
        if (l == 0 || scale == 0.0) {
            e[i] = a[i][l];  // nothing to annihilate
        } else {
            for (int k = 0; k <= l; ++k) {
                a[i][k] /= scale;
                h += a[i][k] * a[i][k];
            }
            double f = a[i][l];
            double g = f >= 0.0 ? -std::sqrt(h) : std::sqrt(h);
            e[i] = scale * g;
            h -= f * g;
            a[i][l] = f - g;  // the reflection's vector u, and u / h stored in column i
            f = 0.0;
            for (int j = 0; j <= l; ++j) {
                a[j][i] = a[i][j] / h;
                g = 0.0;
                for (int k = 0; k <= j; ++k) {
                    g += a[j][k] * a[i][k];
                }
                for (int k = j + 1; k <= l; ++k) {
                    g += a[k][j] * a[i][k];
                }
                e[j] = g / h;  // p = A u / h, kept in the unused part of e
                f += e[j] * a[i][j];
            }
            const double hh = f / (h + h);
            for (int j = 0; j <= l; ++j) {  // A - (q u^T + u q^T) with q = p - hh u
                f = a[i][j];
                e[j] = g = e[j] - hh * f;
                for (int k = 0; k <= j; ++k) {
                    a[j][k] -= f * e[k] + g * a[i][k];
                }
            }
        }
        d[i] = h;
    }
    d[0] = 0.0;
    e[0] = 0.0;
    // Q, the product of the reflections, built in place from the first row on.
    for (int i = 0; i < kN; ++i) {
        const int l = i - 1;
        if (d[i] != 0.0) {
            for (int j = 0; j <= l; ++j) {
                double g = 0.0;
                for (int k = 0; k <= l; ++k) {
                    g += a[i][k] * a[k][j];
                }
                for (int k = 0; k <= l; ++k) {
                    a[k][j] -= g * a[k][i];
                }
            }
        }
        d[i] = a[i][i];
        a[i][i] = 1.0;
        for (int j = 0; j <= l; ++j) {
            a[j][i] = a[i][j] = 0.0;
        }
    }
}

/// Diagonalises the symmetric tridiagonal matrix of diagonal `d` and sub-diagonal e[1..5] by
/// the implicit QL method with Wilkinson's shifts, applying its rotations to the columns of `z`;
/// on return `d` holds the eigenvalues. False when an eigenvalue takes more than kIterations.
bool DiagonaliseTridiagonal(double d[kN], double e[kN], double z[kN][kN]) {
    for (int i = 1; i < kN; ++i) {
        e[i - 1] = e[i];
    }
    e[kN - 1] = 0.0;
    for (int l = 0; l < kN; ++l) {
        for (int iteration = 0;; ++iteration) {
            // The first negligible sub-diagonal entry from l on splits the matrix.
            int m = l;
            while (m < kN - 1 &&
                   std::abs(e[m]) > DBL_EPSILON * (std::abs(d[m]) + std::abs(d[m + 1]))) {
                ++m;
            }
            if (m == l) {
                break;  // d[l] is an eigenvalue
            }
            if (iteration == kIterations) {
                return false;
            }
            double g = (d[l + 1] - d[l]) / (2.0 * e[l]);
            double r = Hypot(g, 1.0);
            g = d[m] - d[l] + e[l] / (g + (g >= 0.0 ? r : -r));  // d[m] - the shift
            double s = 1.0, c = 1.0, p = 0.0;
            int i = m - 1;
            for (; i >= l; --i) {
                double f = s * e[i];
                const double b = c * e[i];
                r = Hypot(f, g);
                e[i + 1] = r;
                if (r == 0.0) {  // the rotation underflowed: deflate here instead
                    d[i + 1] -= p;
                    e[m] = 0.0;
                    break;
                }
                s = f / r;
                c = g / r;
                g = d[i + 1] - p;
                r = (d[i] - g) * s + 2.0 * c * b;
                p = s * r;
                d[i + 1] = g + p;
                g = c * r - b;
                for (int k = 0; k < kN; ++k) {
                    f = z[k][i + 1];
                    z[k][i + 1] = s * z[k][i] + c * f;
                    z[k][i] = c * z[k][i] - s * f;
                }
            }
            if (r == 0.0 && i >= l) {
                continue;
            }
            d[l] -= p;
            e[l] = g;
            e[m] = 0.0;
        }
    }
    return true;
}

}  // namespace

SymmetricEigen6 SymmetricEigenOf(const Matrix6ByRows& A) {
    SymmetricEigen6 result;
    const bool finite = A.allFinite();
    const double largest = finite ? A.cwiseAbs().maxCoeff() : 0.0;
    if (largest == 0.0) {
        // The zero matrix (any basis will do), or one with entries that are not numbers.
        result.values.setZero();
        result.vectors.setIdentity();
        result.converged = finite;
        return result;
    }
    // A power of two, so that scaling and scaling back are exact: multiplications by the power
    // and its inverse where both are normal numbers (always, but for matrices of entries beyond
    // 1e300 or below 1e-300), else the library's ldexp, a function call per entry.
    int exponent = 0;
    std::frexp(largest, &exponent);
    const bool normalPowers = std::abs(exponent) < 1000;
    const double down = normalPowers ? std::ldexp(1.0, -exponent) : 0.0;
    const double up = normalPowers ? std::ldexp(1.0, exponent) : 0.0;
    double a[kN][kN], d[kN], e[kN];
    for (int i = 0; i < kN; ++i) {
        for (int j = 0; j < kN; ++j) {
            a[i][j] = normalPowers ? A(i, j) * down : std::ldexp(A(i, j), -exponent);
        }
    }
    Tridiagonalise(a, d, e);
    result.converged = DiagonaliseTridiagonal(d, e, a);
    for (int i = 0; i < kN; ++i) {
        result.values[i] = normalPowers ? d[i] * up : std::ldexp(d[i], exponent);
        for (int j = 0; j < kN; ++j) {
            result.vectors(i, j) = a[i][j];
        }
    }
    return result;
}

}  // namespace hermite::overlay
