// Hermite functions, their norms, the library's Hermite moments and the one-axis derivative
// recurrences of the Gaussian-to-Hermite tables.

#include <cmath>
#include <limits>

#include "hermite/hermite.h"

namespace QVHermiteMath {

namespace {

/// m! as the plain product 2 * 3 * ... * m in double precision.
double Factorial(unsigned int m) {
    double product = 1.0;
    for (unsigned int i = 2; i <= m; ++i) {
        product *= static_cast<double>(i);
    }
    return product;
}

/// The signed logarithm of the gamma function: ln|Gamma(x)|, negated where Gamma(x) < 0.
/// Reentrant (lgamma_r reports the sign instead of setting the global signgam).
double SignedLogGamma(double x) {
    int sign = 1;
    const double logAbs = lgamma_r(x, &sign);
    return sign < 0 ? -logAbs : logAbs;
}

}  // namespace

double QVHermiteFunc(unsigned int n, double x) {
    // H_n(x) = n! * sum over k of (-1)^k (2x)^(n-2k) / (k! (n-2k)!).
    double sum = 0.0;
    for (unsigned int k = 0; k <= n / 2; ++k) {
        sum += std::pow(-1.0, static_cast<double>(k)) *
               std::pow(2.0 * x, static_cast<double>(n - 2 * k)) /
               (Factorial(k) * Factorial(n - 2 * k));
    }
    return Factorial(n) * sum * std::exp(-0.5 * x * x);
}

std::vector<double> computeKs(unsigned int order) {
    std::vector<double> ks(order + 1);
    if (ks.empty()) {
        return ks;
    }
    ks[0] = 1.7724538509055159;  // sqrt(pi)
    for (unsigned int i = 1; i < ks.size(); ++i) {
        ks[i] = 2.0 * i * ks[i - 1];
    }
    return ks;
}

double HermiteMomentsMasterIntegral(unsigned int p, double a, unsigned int n) {
    const double h = static_cast<double>(n + p) / 2.0;
    const double nFactorial = std::tgamma(n + 1.0);
    double sum = 0.0;
    for (unsigned int k = 0; k <= n / 2; ++k) {
        const double kd = static_cast<double>(k);
        sum += std::pow(-1.0, kd) * std::exp2(static_cast<double>(n + 1 - 2 * k)) *
               std::pow(a, kd - h) * SignedLogGamma(h - kd) * 0.25 * nFactorial /
               (std::tgamma(static_cast<double>(n + 1 - 2 * k)) * std::tgamma(kd + 1.0));
    }
    return sum;
}

double Hermite1DMoment(unsigned int n, unsigned int p) {
    if ((n & 1u) != (p & 1u)) {
        return 0.0;
    }
    return 2.0 * HermiteMomentsMasterIntegral(p + 1, 0.5, n);
}

double Hermite3DMoment(unsigned int a, unsigned int b, unsigned int c, unsigned int N, double sx,
                       double sy, double sz, const std::vector<double>& coeffs) {
    if (N == std::numeric_limits<unsigned int>::max()) {
        return 0.0;
    }
    const double px = std::pow(sx, -static_cast<double>(a + 1));
    const double py = std::pow(sy, -static_cast<double>(b + 1));
    const double pz = std::pow(sz, -static_cast<double>(c + 1));
    double sum = 0.0;
    unsigned int index = 0;
    for (unsigned int s = 0; s <= N; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m, ++index) {
                const unsigned int n = s - l - m;
                // Moments of mismatched parity vanish; skip them without evaluating.
                if (((l ^ a) & 1u) || ((m ^ b) & 1u) || ((n ^ c) & 1u)) {
                    continue;
                }
                sum += coeffs[index] * Hermite1DMoment(l, a) * Hermite1DMoment(m, b) *
                       Hermite1DMoment(n, c);
            }
        }
    }
    return px * py * pz * sum;
}

// The recurrences below differentiate the one-axis table F_k(t, y) of a Gaussian (see
// GaussianToHermiteCoefficientsAndDerivs). They express derivatives of F_k through its
// neighbours F_(k-4)..F_(k+4), which follow from H_k' = 2k H_(k-1) and
// u H_k = H_(k+1)/2 + k H_(k-1); this is why the tables carry four degrees beyond N.

std::vector<double> FirstArgDeriv(unsigned int n, double s, const std::vector<double>& v) {
    std::vector<double> d(n + 1);
    const double inverse = 1.0 / s;
    for (unsigned int k = 0; k < d.size(); ++k) {
        double value = -0.5 * v[k] + 0.25 * v[k + 2];
        if (k >= 2) {
            value -= static_cast<double>(k * (k - 1)) * v[k - 2];
        }
        d[k] = value * inverse;
    }
    return d;
}

std::vector<double> SecondArgDeriv(unsigned int n, double s, const std::vector<double>& v) {
    std::vector<double> d(n + 1);
    const double inverse = 1.0 / s;
    for (unsigned int k = 0; k < d.size(); ++k) {
        double value = 0.5 * v[k + 1];
        if (k >= 1) {
            value -= static_cast<double>(k) * v[k - 1];
        }
        d[k] = value * inverse;
    }
    return d;
}

std::vector<double> SecondArgSecondDeriv(unsigned int n, double s, const std::vector<double>& v) {
    std::vector<double> d(n + 1);
    const double inverse = 1.0 / (s * s);
    for (unsigned int k = 0; k < d.size(); ++k) {
        double value = 0.25 * v[k + 2];
        if (k >= 2) {
            value += static_cast<double>(k * (k - 1)) * v[k - 2];
        }
        value -= (static_cast<double>(k) + 0.5) * v[k];
        d[k] = value * inverse;
    }
    return d;
}

std::vector<double> FirstArgSecondDeriv(unsigned int n, double s, const std::vector<double>& v) {
    std::vector<double> d(n + 1);
    const double inverse = 1.0 / (s * s);
    for (unsigned int k = 0; k < d.size(); ++k) {
        double value = (0.25 - 0.5 * static_cast<double>(k * (k + 1))) * v[k] - 0.5 * v[k + 2] +
                       0.0625 * v[k + 4];
        if (k >= 2) {
            value += 2.0 * static_cast<double>(k * (k - 1)) * v[k - 2];
        }
        if (k >= 4) {
            value += static_cast<double>(k * (k - 1) * (k - 2) * (k - 3)) * v[k - 4];
        }
        d[k] = value * inverse;
    }
    return d;
}

}  // namespace QVHermiteMath
