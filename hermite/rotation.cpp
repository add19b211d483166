// Euler angles, and the matrices that rotate and translate Hermite expansions in coefficient
// space: the per-plane rotation matrices S (one orthogonal matrix per total degree of the two
// axes of the plane) and the one-axis translation tables F.

#include <cmath>

#include "hermite/hermite.h"
#include "hermite/internal.h"

namespace QVHermiteMath {

namespace {

double Root(unsigned int k) {
    return std::sqrt(static_cast<double>(k));
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Euler angles: R = Rx(a) Ry(b) Rz(c), row-major, acting on column vectors.

std::vector<double> RotFromEulerXYZ(double a, double b, double c) {
    double sc, cc, sb, cb, sa, ca;
    ::sincos(c, &sc, &cc);
    ::sincos(b, &sb, &cb);
    ::sincos(a, &sa, &ca);
    std::vector<double> R;
    R.reserve(9);
    R.push_back(cb * cc);
    R.push_back(-cb * sc);
    R.push_back(sb);
    R.push_back(sa * sb * cc + ca * sc);
    R.push_back(ca * cc - sa * sb * sc);
    R.push_back(-sa * cb);
    R.push_back(sa * sc - ca * sb * cc);
    R.push_back(sa * cc + ca * sb * sc);
    R.push_back(ca * cb);
    return R;
}

std::vector<double> EulerXYZ(const std::vector<double>& R) {
    // R[2] = sin b with cos b taken non-negative; R[5]/R[8] = -tan a and R[1]/R[0] = -tan c
    // once the common factor cos b is divided out. No clamping: |R[2]| > 1 yields NaN.
    return {std::atan2(-R[5], R[8]), std::atan2(R[2], std::sqrt(1.0 - R[2] * R[2])),
            std::atan2(-R[1], R[0])};
}

// ---------------------------------------------------------------------------------------------
// S matrices. In a plane, the products of orthonormal Hermite functions of degrees
// (d - i, i) for i = 0..d span a space that rotations map onto itself; S[d] is the matrix of
// the rotation by theta in that space. S[d+1] follows from S[d] by the ladder relations of the
// one-dimensional functions, which is what the recurrence below expresses.

bool BuildSMatrix(unsigned int N, double theta, SMatrixSet& S) {
    double s, c;
    ::sincos(theta, &s, &c);
    S.assign(1, {{1.0}});
    double cn = c;  // c^n for the corner of degree n
    for (unsigned int j = 0; j < N; ++j) {
        const std::vector<std::vector<double>>& P = S[j];
        const unsigned int n = j + 1;
        std::vector<std::vector<double>> M(n + 1, std::vector<double>(n + 1, 0.0));
        for (unsigned int i = 0; i <= j; ++i) {
            M[0][i] = P[0][i] * (c * Root(n)) / Root(n - i);
            M[i][0] = P[i][0] * (c * Root(n)) / Root(n - i);
        }
        for (unsigned int r = 1; r <= j; ++r) {
            for (unsigned int q = 1; q <= j; ++q) {
                M[q][r] = (P[q][r - 1] * Root(r) * s + P[q][r] * Root(n - r) * c) / Root(n - q);
            }
        }
        M[n][0] = -(P[j][0] * s);
        M[0][n] = s * P[0][j];
        for (unsigned int k = 0; k < j; ++k) {
            M[n][k + 1] = (P[j][k] * Root(k + 1) * c - P[j][k + 1] * Root(j - k) * s) / Root(n);
            M[k + 1][n] = (Root(k + 1) * c * P[k][j] + Root(j - k) * s * P[k + 1][j]) / Root(n);
        }
        M[n][n] = cn;
        cn = cn * c;
        S.push_back(std::move(M));
    }
    return true;
}

bool BuildSMatrixDerivative(unsigned int N, const SMatrixSet& S, SMatrixSet& dS) {
    // dS/dtheta = G S with G the generator of the rotation, tridiagonal in the index i:
    // row i of dS combines rows i - 1 and i + 1 of S.
    dS.resize(N + 1);
    dS[0] = {{0.0}};
    for (unsigned int d = 1; d <= N; ++d) {
        const std::vector<std::vector<double>>& Sd = S[d];
        std::vector<std::vector<double>>& out = dS[d];
        out.assign(d + 1, std::vector<double>(d + 1, 0.0));
        for (unsigned int col = 0; col <= d; ++col) {
            out[0][col] = Root(d) * Sd[1][col];
            out[d][col] = -Root(d) * Sd[d - 1][col];
        }
        for (unsigned int i = 1; i < d; ++i) {
            const double up = Root((i + 1) * (d - i));
            const double down = Root(i * (d - i + 1));
            for (unsigned int col = 0; col <= d; ++col) {
                out[i][col] = up * Sd[i + 1][col] - down * Sd[i - 1][col];
            }
        }
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// F tables: F[r][c] is the integral over one axis of a Hermite function of degree r times one
// of degree c shifted by x (scaled units). Row 0 and column 0 are closed forms; the rest
// follows from the three-term recurrence of H applied to the first factor.

bool BuildFMatrix(unsigned int R, unsigned int Q, double x, FMatrix& F) {
    const long L = static_cast<long>(R) + static_cast<long>(Q) - 2;
    F.assign(1, std::vector<double>(L >= 0 ? L + 1 : 1, 0.0));
    F[0][0] = std::exp(-x * 0.25 * x) * 1.7724538509055159;
    for (long c = 1; c <= L; ++c) {
        F[0][c] = x * F[0][c - 1];
    }
    for (long r = 1; r < static_cast<long>(R); ++r) {
        std::vector<double> row(L - r + 1, 0.0);
        row[0] = -x * F[r - 1][0];
        for (long c = 1; c <= L - r; ++c) {
            row[c] = 2.0 * static_cast<double>(c) * F[r - 1][c - 1] - F[r - 1][c + 1];
            if (r >= 2) {
                row[c] += 2.0 * static_cast<double>(r - 1) * F[r - 2][c];
            }
        }
        F.push_back(std::move(row));
    }
    return true;
}

bool BuildFMatrixDerivative(unsigned int R, unsigned int Q, const FMatrix& F, FMatrix& dF) {
    // d/dx of the shifted factor lowers and raises its degree: dF[r][c] = c F[r][c-1] -
    // F[r][c+1] / 2.
    dF.resize(R, std::vector<double>(Q, 0.0));
    for (unsigned int r = 0; r < R; ++r) {
        std::vector<double>& row = dF[r];
        if (row.size() < Q) {
            row.resize(Q, 0.0);
        }
        if (Q == 0) {
            continue;
        }
        row[0] = -0.5 * F[r][1];
        for (unsigned int c = 1; c < Q; ++c) {
            row[c] = static_cast<double>(c) * F[r][c - 1] - 0.5 * F[r][c + 1];
        }
    }
    return true;
}

// ---------------------------------------------------------------------------------------------
// Rotation of coefficient vectors.

void RotatePass(unsigned int N, const std::vector<double>& K, const SMatrixSet& S,
                const std::vector<double>& in, std::vector<double>& out) {
    for (unsigned int k = 0; k <= N; ++k) {
        for (unsigned int t = 0; t <= k; ++t) {
            for (unsigned int u = 0; u <= k - t; ++u) {
                const unsigned int w = k - t - u;
                const unsigned int D = t + u;
                const std::vector<double>& row = S[D][t];
                const double normTU = K[t] * K[u];
                double sum = 0.0;
                for (unsigned int v = 0; v <= D; ++v) {
                    sum += std::sqrt((K[D - v] * K[v]) / normTU) * in[GetLmnIndex(v, D - v, w)] *
                           row[v];
                }
                out[GetLmnIndex(w, t, u)] = sum;
            }
        }
    }
}

}  // namespace QVHermiteMath
