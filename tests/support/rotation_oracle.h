// Independent double-precision reference computations for the rotation tests: a closed-form
// expansion of Gaussian densities in 3-D Hermite functions, 3 x 3 matrix helpers, and a
// portable random source.
//
// One-axis coefficients. For one Gaussian factor exp(-a (x - x0)^2) and scale lambda,
//     F_k = lambda * Integral exp(-a (x - x0)^2) H_k(lambda x) exp(-lambda^2 x^2 / 2) dx.
// With u = lambda x the exponent is -alpha u^2 + 2 (a x0 / lambda) u - a x0^2, where
// alpha = a / lambda^2 + 1/2. Completing the square about mu = a x0 / (lambda alpha) leaves
//     F_k = exp(-a x0^2 / (2 alpha)) * Integral exp(-alpha (u - mu)^2) H_k(u) du.
// Multiplying by s^k / k! and summing with the generating function
// sum_k H_k(u) s^k / k! = exp(2 u s - s^2) gives
//     sum_k g_k s^k / k! = sqrt(pi / alpha) exp(2 mu s + gamma s^2),   gamma = 1 / alpha - 1,
// for g_k = Integral exp(-alpha (u - mu)^2) H_k(u) du. Differentiating the right-hand side
// in s, G' = (2 mu + 2 gamma s) G, and matching powers of s yields the recurrence
//     g_0 = sqrt(pi / alpha),  g_1 = 2 mu g_0,  g_(k+1) = 2 mu g_k + 2 gamma k g_(k-1).
//
// Expansion. The one-axis functions H_k(lambda x) exp(-lambda^2 x^2 / 2) are orthogonal with
// squared norm K_k / lambda, K_k = 2^k k! sqrt(pi). Projecting
// rho = sum_g w_g exp(-a_g |r - r_g|^2) on the products of three of them gives
//     c_lmn = sum_g w_g F^x_l F^y_m F^z_n / (K_l K_m K_n),
// stored in lmn order (by total degree, then l, then m).
#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

namespace rotation_oracle {

constexpr double kPi = 3.14159265358979323846;

/// One isotropic Gaussian w exp(-a |r - centre|^2) held in double precision.
struct Gaussian {
    double w;
    double a;
    std::array<double, 3> centre;
};

/// A 3 x 3 matrix, row-major, acting on column vectors.
using Matrix3 = std::array<double, 9>;

struct Triple {
    unsigned int l, m, n;
};

/// All (l, m, n) with l + m + n <= N in storage order: by total degree, then l, then m.
inline std::vector<Triple> LmnTriples(unsigned int N) {
    std::vector<Triple> triples;
    for (unsigned int s = 0; s <= N; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m) {
                triples.push_back({l, m, s - l - m});
            }
        }
    }
    return triples;
}

/// K_k = 2^k k! sqrt(pi), the integral of H_k(u)^2 exp(-u^2), from the closed form.
inline std::vector<double> NormTable(unsigned int N) {
    std::vector<double> k(N + 1);
    for (unsigned int i = 0; i <= N; ++i) {
        k[i] = std::ldexp(std::tgamma(static_cast<double>(i) + 1.0), static_cast<int>(i)) *
               std::sqrt(kPi);
    }
    return k;
}

/// F_0..F_N of one axis by the generating-function recurrence derived above.
inline std::vector<double> OneAxisCoefficients(unsigned int N, double lambda, double a, double x0) {
    const double alpha = a / (lambda * lambda) + 0.5;
    const double mu = a * x0 / (lambda * alpha);
    const double gamma = 1.0 / alpha - 1.0;
    const double prefactor = std::exp(-a * x0 * x0 / (2.0 * alpha));
    std::vector<double> g(N + 1);
    g[0] = std::sqrt(kPi / alpha);
    if (N >= 1) {
        g[1] = 2.0 * mu * g[0];
    }
    for (unsigned int k = 1; k < N; ++k) {
        g[k + 1] = 2.0 * mu * g[k] + 2.0 * gamma * static_cast<double>(k) * g[k - 1];
    }
    for (double& value : g) {
        value *= prefactor;
    }
    return g;
}

/// The coefficients c_lmn (lmn order) of a list of Gaussians for one common lambda.
inline std::vector<double> ExpandGaussians(unsigned int N, double lambda,
                                           const std::vector<Gaussian>& gaussians) {
    const std::vector<double> K = NormTable(N);
    const std::vector<Triple> triples = LmnTriples(N);
    std::vector<double> c(triples.size(), 0.0);
    for (const Gaussian& g : gaussians) {
        const std::vector<double> X = OneAxisCoefficients(N, lambda, g.a, g.centre[0]);
        const std::vector<double> Y = OneAxisCoefficients(N, lambda, g.a, g.centre[1]);
        const std::vector<double> Z = OneAxisCoefficients(N, lambda, g.a, g.centre[2]);
        for (std::size_t i = 0; i < triples.size(); ++i) {
            const Triple& t = triples[i];
            c[i] += g.w * X[t.l] * Y[t.m] * Z[t.n] / (K[t.l] * K[t.m] * K[t.n]);
        }
    }
    return c;
}

/// (1 / lambda^3) * sum of c_lmn^2 K_l K_m K_n: the squared norm of the expanded density.
inline double SelfOverlap(unsigned int N, double lambda, const std::vector<double>& c) {
    const std::vector<double> K = NormTable(N);
    const std::vector<Triple> triples = LmnTriples(N);
    double sum = 0.0;
    for (std::size_t i = 0; i < triples.size(); ++i) {
        const Triple& t = triples[i];
        sum += c[i] * c[i] * K[t.l] * K[t.m] * K[t.n];
    }
    return sum / (lambda * lambda * lambda);
}

inline Matrix3 Multiply(const Matrix3& A, const Matrix3& B) {
    Matrix3 C{};
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            double sum = 0.0;
            for (int k = 0; k < 3; ++k) {
                sum += A[3 * i + k] * B[3 * k + j];
            }
            C[3 * i + j] = sum;
        }
    }
    return C;
}

inline std::array<double, 3> Apply(const Matrix3& R, const std::array<double, 3>& v) {
    std::array<double, 3> out{};
    for (int i = 0; i < 3; ++i) {
        out[i] = R[3 * i] * v[0] + R[3 * i + 1] * v[1] + R[3 * i + 2] * v[2];
    }
    return out;
}

/// The elementary rotations written out from their definitions.
inline Matrix3 RotationX(double angle) {
    const double c = std::cos(angle), s = std::sin(angle);
    return {1, 0, 0, 0, c, -s, 0, s, c};
}
inline Matrix3 RotationY(double angle) {
    const double c = std::cos(angle), s = std::sin(angle);
    return {c, 0, s, 0, 1, 0, -s, 0, c};
}
inline Matrix3 RotationZ(double angle) {
    const double c = std::cos(angle), s = std::sin(angle);
    return {c, -s, 0, s, c, 0, 0, 0, 1};
}

/// Uniform doubles in [lo, hi) from the raw 64-bit Mersenne twister, whose output sequence is
/// fixed by the language standard; the conversion is written out so that a seed gives the same
/// numbers with every standard library.
class Random {
public:
    explicit Random(std::uint64_t seed) : engine_(seed) {}
    double Uniform(double lo, double hi) {
        const double unit = static_cast<double>(engine_() >> 11) * 0x1.0p-53;
        return lo + (hi - lo) * unit;
    }

private:
    std::mt19937_64 engine_;
};

/// A rotation matrix from a unit quaternion drawn uniformly on the 3-sphere (rejection from
/// the 4-cube).
inline Matrix3 RandomRotation(Random& random) {
    double q[4];
    double norm2 = 0.0;
    do {
        norm2 = 0.0;
        for (double& component : q) {
            component = random.Uniform(-1.0, 1.0);
            norm2 += component * component;
        }
    } while (norm2 > 1.0 || norm2 < 0.01);
    const double inv = 1.0 / std::sqrt(norm2);
    const double w = q[0] * inv, x = q[1] * inv, y = q[2] * inv, z = q[3] * inv;
    return {1 - 2 * (y * y + z * z), 2 * (x * y - w * z),     2 * (x * z + w * y),
            2 * (x * y + w * z),     1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
            2 * (x * z - w * y),     2 * (y * z + w * x),     1 - 2 * (x * x + y * y)};
}

}  // namespace rotation_oracle
