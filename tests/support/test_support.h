// Small helpers shared by the unit tests in tests/test_*.cpp: handlers that capture the messages
// of the process-wide error handler, makers of shape densities and expansion options, basis
// indexing, finite differences and closed-form reference values.
//
// Everything here is computed in the test itself from first principles; nothing calls into the
// code under test except to build its inputs (Gaussian records and options), so that a helper can
// serve as an independent oracle.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "hermite/hermite.h"
#include "qv/error.h"
#include "rotation_oracle.h"

namespace hermite_test {

using QVHermiteMath::QVGaussian;
using QVHermiteMath::QVHermiteOptions;

// ---------------------------------------------------------------------------------------------
// Error handler

/// Installs `handler` on the process-wide QVSystem::QVThrow for the lifetime of the guard and
/// puts the previous handler back when it goes, so that no test leaks its handler into the next.
class HandlerGuard {
public:
    explicit HandlerGuard(QVSystem::QVErrorCallback handler)
        : previous_(QVSystem::QVThrow.SetHandler(std::move(handler))) {}
    ~HandlerGuard() { QVSystem::QVThrow.SetHandler(std::move(previous_)); }
    HandlerGuard(const HandlerGuard&) = delete;
    HandlerGuard& operator=(const HandlerGuard&) = delete;

private:
    QVSystem::QVErrorCallback previous_;
};

/// The exception a MessageRecorder made with `throwOnFatal` turns fatal errors into. It is a
/// std::runtime_error, whose what() is the text of the message.
struct FatalError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Records every message sent to QVSystem::QVThrow while it is alive and puts the previous
/// handler back when it goes. Without `throwOnFatal` a fatal error is recorded and the handler
/// returns (so the reporting routine aborts the process, as with the default handler); with it,
/// the fatal error is recorded and then thrown as FatalError so that a test can observe it.
class MessageRecorder {
public:
    explicit MessageRecorder(bool throwOnFatal = false)
        : guard_([this, throwOnFatal](QVSystem::QVSeverity severity, const std::string& text) {
              messages.emplace_back(severity, text);
              (severity == QVSystem::QVSeverity::Warning ? warnings : fatals).push_back(text);
              if (severity == QVSystem::QVSeverity::Fatal && throwOnFatal) {
                  throw FatalError(text);
              }
          }) {}
    MessageRecorder(const MessageRecorder&) = delete;
    MessageRecorder& operator=(const MessageRecorder&) = delete;

    /// Every message in the order received, with its severity.
    std::vector<std::pair<QVSystem::QVSeverity, std::string>> messages;
    /// The texts of the warnings, in order.
    std::vector<std::string> warnings;
    /// The texts of the fatal errors, in order.
    std::vector<std::string> fatals;

private:
    HandlerGuard guard_;  // declared last: installed after, and removed before, the lists
};

// ---------------------------------------------------------------------------------------------
// Gaussians and densities

/// A Gaussian centre in single precision, as the records store it.
using Centre = std::array<float, 3>;

/// Carbon-like shape Gaussian: height 2.7 and exponent 0.811151803 give the volume of a carbon
/// atom.
constexpr float kCarbonPrefactor = 2.7f;
constexpr float kCarbonExponent = 0.811151803f;

/// A Gaussian record w exp(-a |r - (x, y, z)|^2) with tag 0.
inline QVGaussian MakeGaussian(float w, float a, float x, float y, float z) {
    const float centre[3] = {x, y, z};
    return QVGaussian(w, a, centre, 0u);
}

/// A carbon-like Gaussian at (x, y, z).
inline QVGaussian Carbon(float x, float y, float z) {
    return MakeGaussian(kCarbonPrefactor, kCarbonExponent, x, y, z);
}

/// Carbon-like Gaussians at the given centres, in order.
inline std::vector<QVGaussian> Carbons(const std::vector<Centre>& centres) {
    std::vector<QVGaussian> gaussians;
    for (const Centre& c : centres) {
        gaussians.push_back(Carbon(c[0], c[1], c[2]));
    }
    return gaussians;
}

/// Six carbon-like Gaussians without any symmetry (centres are multiples of 1/8).
inline std::vector<QVGaussian> SixAsymmetric() {
    return Carbons({{0.5f, 0.25f, -0.125f},
                    {1.25f, -0.75f, 0.375f},
                    {-1.0f, 0.5f, 0.75f},
                    {0.25f, 1.5f, -0.5f},
                    {-0.625f, -1.125f, 0.25f},
                    {1.75f, 0.625f, 1.0f}});
}

/// `count` carbon-like Gaussians at deterministic pseudo-random centres, coordinate i uniform in
/// [-spread_i, spread_i] for the spreads (sx, sy, sz). The numbers come from the raw output of
/// std::mt19937 seeded with `seed`, three per Gaussian in x, y, z order, so a seed gives the same
/// centres with every standard library; the 24-bit fractions make every centre an exactly stored
/// float.
inline std::vector<QVGaussian> MakeDensity(unsigned int count, std::uint32_t seed, float sx,
                                           float sy, float sz) {
    std::mt19937 engine(seed);
    const float spread[3] = {sx, sy, sz};
    std::vector<QVGaussian> gaussians;
    for (unsigned int g = 0; g < count; ++g) {
        float centre[3];
        for (unsigned int axis = 0; axis < 3; ++axis) {
            const float u = static_cast<float>(engine() >> 8) * (1.0f / 16777216.0f);
            centre[axis] = spread[axis] * (2.0f * u - 1.0f);
        }
        gaussians.push_back(Carbon(centre[0], centre[1], centre[2]));
    }
    return gaussians;
}

/// The Gaussians with every centre turned about the origin by the row-major 3 x 3 matrix R
/// (r' = R r, formed in double precision from the stored centres and then rounded to float);
/// prefactors and exponents are kept, tags are 0.
inline std::vector<QVGaussian> TurnedInFloat(const std::vector<QVGaussian>& gaussians,
                                             const std::vector<double>& R) {
    std::vector<QVGaussian> turned;
    for (const QVGaussian& g : gaussians) {
        const double r[3] = {g.GetX(), g.GetY(), g.GetZ()};
        float moved[3];
        for (unsigned int i = 0; i < 3; ++i) {
            moved[i] =
                static_cast<float>(R[3 * i] * r[0] + R[3 * i + 1] * r[1] + R[3 * i + 2] * r[2]);
        }
        turned.emplace_back(g.GetPrefactor(), g.GetExponent(), moved, 0u);
    }
    return turned;
}

/// Every field of the two Gaussian records is bitwise the same.
/// The most that the overlap terms of `a` with `b` left out by a cut-off can add up to: each
/// left-out term is below e^-cutoff of its prefactor w_i w_j (pi / (a_i + a_j))^(3/2), so their
/// sum is below the number of pairs times the largest prefactor times e^-cutoff.
inline double CutOffTermsBound(const std::vector<QVGaussian>& a, const std::vector<QVGaussian>& b,
                               double cutoff) {
    double largest = 0.0;
    for (const QVGaussian& g : a) {
        for (const QVGaussian& h : b) {
            const double sum = double(g.GetExponent()) + h.GetExponent();
            largest = std::max(largest, std::fabs(double(g.GetPrefactor()) * h.GetPrefactor()) *
                                            std::pow(3.141592653589793 / sum, 1.5));
        }
    }
    return double(a.size()) * double(b.size()) * largest * std::exp(-cutoff);
}

inline void ExpectSameGaussian(const QVGaussian& expected, const QVGaussian& actual) {
    EXPECT_EQ(expected.GetX(), actual.GetX());
    EXPECT_EQ(expected.GetY(), actual.GetY());
    EXPECT_EQ(expected.GetZ(), actual.GetZ());
    EXPECT_EQ(expected.GetPrefactor(), actual.GetPrefactor());
    EXPECT_EQ(expected.GetExponent(), actual.GetExponent());
    EXPECT_EQ(expected.GetTag(), actual.GetTag());
}

/// The two lists have the same length and every field of every Gaussian is bitwise the same.
inline void ExpectSameGaussians(const std::vector<QVGaussian>& expected,
                                const std::vector<QVGaussian>& actual) {
    ASSERT_EQ(expected.size(), actual.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE("Gaussian " + std::to_string(i));
        ExpectSameGaussian(expected[i], actual[i]);
    }
}

// ---------------------------------------------------------------------------------------------
// Expansion options

/// Options of order N with the lambdas (lx, ly, lz) used as they are (no optimisation); the
/// single-lambda switch keeps its default.
inline QVHermiteOptions FixedOptions(unsigned int N, double lx, double ly, double lz) {
    QVHermiteOptions options;
    options.SetNPolyMax(N);
    options.SetLambda(0, lx);
    options.SetLambda(1, ly);
    options.SetLambda(2, lz);
    options.SetUseOptimalLambdas(false);
    return options;
}

/// The same with the single-lambda switch set to `single`.
inline QVHermiteOptions FixedOptions(unsigned int N, double lx, double ly, double lz, bool single) {
    QVHermiteOptions options = FixedOptions(N, lx, ly, lz);
    options.SetUseSingleLambda(single);
    return options;
}

/// The same with the single-lambda switch on exactly when the three lambdas are equal.
inline QVHermiteOptions FixedOptionsSingleWhenEqual(unsigned int N, double lx, double ly,
                                                    double lz) {
    return FixedOptions(N, lx, ly, lz, lx == ly && ly == lz);
}

// ---------------------------------------------------------------------------------------------
// Basis indexing and norms

/// pi in double precision.
using rotation_oracle::kPi;

/// An index triple (l, m, n) of a 3-D basis function.
using rotation_oracle::Triple;

/// All (l, m, n) with l + m + n <= N in storage order: by total degree, then l, then m.
using rotation_oracle::LmnTriples;

/// K_0..K_N with K_k = 2^k k! sqrt(pi), the integral of H_k(u)^2 exp(-u^2), from the closed form.
using rotation_oracle::NormTable;

/// Physicists' Hermite polynomials H_0..H_N at x by the three-term recurrence
/// H_(k+1) = 2x H_k - 2k H_(k-1), from H_0 = 1 and H_1 = 2x.
inline std::vector<double> HermitePolynomials(unsigned int N, double x) {
    std::vector<double> h(N + 1);
    h[0] = 1.0;
    if (N >= 1) {
        h[1] = 2.0 * x;
    }
    for (unsigned int k = 1; k < N; ++k) {
        h[k + 1] = 2.0 * x * h[k] - 2.0 * static_cast<double>(k) * h[k - 1];
    }
    return h;
}

/// Number of triples (l, m, n) with l + m + n <= N: the tetrahedral number
/// (N + 1)(N + 2)(N + 3) / 6, computed in 64 bits.
inline std::uint64_t CoefficientCount(std::uint64_t N) {
    return (N + 1) * (N + 2) * (N + 3) / 6;
}

/// Position of the symmetric entry (i, j) in a packed lower triangle stored by rows
/// (00, 10, 11, 20, 21, 22, ...; for three axes xx, xy, yy, xz, yz, zz). The order of i and j
/// does not matter.
inline std::size_t Packed(std::size_t i, std::size_t j) {
    if (j > i) {
        std::swap(i, j);
    }
    return i * (i + 1) / 2 + j;
}

/// The largest magnitude of the entries (0 for an empty vector).
inline double MaxAbs(const std::vector<double>& v) {
    double m = 0.0;
    for (const double value : v) {
        m = std::max(m, std::fabs(value));
    }
    return m;
}

/// The determinant of a row-major 3 x 3 matrix (any container of nine doubles), by cofactors
/// along the first row.
template <class Matrix>
double Determinant(const Matrix& m) {
    return m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
           m[2] * (m[3] * m[7] - m[4] * m[6]);
}

/// The rotation Rx(a) Ry(b) Rz(c), row-major, acting on column vectors, with its nine entries
/// multiplied out by hand.
inline std::vector<double> EulerXYZClosedForm(double a, double b, double c) {
    const double ca = std::cos(a), sa = std::sin(a);
    const double cb = std::cos(b), sb = std::sin(b);
    const double cc = std::cos(c), sc = std::sin(c);
    return {cb * cc,
            -cb * sc,
            sb,
            sa * sb * cc + ca * sc,
            ca * cc - sa * sb * sc,
            -sa * cb,
            sa * sc - ca * sb * cc,
            sa * cc + ca * sb * sc,
            ca * cb};
}

// ---------------------------------------------------------------------------------------------
// Closed-form overlaps

/// The overlap integral of the two Gaussians when their centres are `d2` apart (squared
/// distance): the product of Gaussians of exponents a and b is a Gaussian of exponent
/// p = a + b, so the integral is w_a w_b (pi / p)^(3/2) exp(-(a b / p) d2), in double precision
/// from the stored single-precision parameters.
inline double GaussianPairOverlap(const QVGaussian& g, const QVGaussian& h, double d2) {
    const double a = g.GetExponent(), b = h.GetExponent();
    const double p = a + b;
    return static_cast<double>(g.GetPrefactor()) * h.GetPrefactor() * std::pow(kPi / p, 1.5) *
           std::exp(-(a * b / p) * d2);
}

// ---------------------------------------------------------------------------------------------
// Finite differences

/// The central difference (f(x + h e_i) - f(x - h e_i)) / (2 h) of a scalar function of the n
/// doubles x[0..n) along variable i. `f` takes a pointer to n doubles.
template <class Function>
double CentralDifference(Function&& f, const double* x, std::size_t n, std::size_t i, double h) {
    std::vector<double> plus(x, x + n), minus(x, x + n);
    plus[i] += h;
    minus[i] -= h;
    return (f(plus.data()) - f(minus.data())) / (2.0 * h);
}

/// Derivative at 0 of a vector-valued function of one variable by central differences with one
/// Richardson step: D(h) = (f(h) - f(-h)) / (2h) = f' + f''' h^2 / 6 + f^(5) h^4 / 120 + ...,
/// so (4 D(h) - D(2h)) / 3 = f' - f^(5) h^4 / 30 + O(h^6). The rounding error is about
/// eps |f| / h.
inline std::vector<double> FirstDifference(const std::function<std::vector<double>(double)>& f,
                                           double h) {
    const std::vector<double> p1 = f(h), m1 = f(-h), p2 = f(2 * h), m2 = f(-2 * h);
    std::vector<double> d(p1.size());
    for (std::size_t i = 0; i < d.size(); ++i) {
        const double dh = (p1[i] - m1[i]) / (2 * h);
        const double d2h = (p2[i] - m2[i]) / (4 * h);
        d[i] = (4.0 * dh - d2h) / 3.0;
    }
    return d;
}

}  // namespace hermite_test
