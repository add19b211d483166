/// \file
/// The exponential of many non-positive arguments at once, for the pair sums of Gaussian
/// overlaps: glibc's exp takes one argument per call, this one runs in vector registers.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace hermite::overlay {

/// e^x for -700 <= x <= 0, to about 1e-14 relative, written so that the compiler can evaluate
/// several at once in vector registers: x = n ln 2 + r with |r| <= ln 2 / 2 (n rounded by the
/// 1.5 * 2^52 shifter), e^r by its Taylor polynomial of degree 11 (remainder below 7e-15
/// relative), 2^n assembled in the exponent bits. Pure IEEE operations, so the result is the
/// same on every machine.
inline double ExpOfNegative(double x) {
    constexpr double kLog2E = 1.4426950408889634;
    constexpr double kLn2High = 0.6931471803691238;     // ln 2 to 33 bits: n * kLn2High is exact
    constexpr double kLn2Low = 1.9082149292705877e-10;  // ln 2 - kLn2High
    constexpr double kShifter = 6755399441055744.0;     // 1.5 * 2^52
    const double shifted = x * kLog2E + kShifter;
    const double n = shifted - kShifter;
    const double r = (x - n * kLn2High) - n * kLn2Low;
    double p = 1.0 / 39916800.0;
    p = p * r + 1.0 / 3628800.0;
    p = p * r + 1.0 / 362880.0;
    p = p * r + 1.0 / 40320.0;
    p = p * r + 1.0 / 5040.0;
    p = p * r + 1.0 / 720.0;
    p = p * r + 1.0 / 120.0;
    p = p * r + 1.0 / 24.0;
    p = p * r + 1.0 / 6.0;
    p = p * r + 0.5;
    p = p * r + 1.0;
    p = p * r + 1.0;
    // The low bits of `shifted` hold n; 2^n has the biased exponent n + 1023.
    std::uint64_t bits;
    std::memcpy(&bits, &shifted, sizeof bits);
    bits = (bits - 0x4338000000000000ull + 1023u) << 52;
    double scale;
    std::memcpy(&scale, &bits, sizeof scale);
    return p * scale;
}

/// The largest argument `CutOffExponentials` takes without cutting: e^-700 is about 1e-304,
/// near the smallest normal double.
constexpr double kLargestExponent = 700.0;

/// Replaces each of `values` (count of them, each >= 0) by e^-value, or by 0 above `cutoff`
/// (at most kLargestExponent). The exponential is taken in any case, of an argument kept in
/// range, so that the loop has no branch and runs in vector registers.
inline void CutOffExponentials(double* values, std::size_t count, double cutoff) {
    for (std::size_t t = 0; t < count; ++t) {
        const double value = values[t];
        const double factor = ExpOfNegative(-std::min(value, cutoff));
        values[t] = value <= cutoff ? factor : 0.0;
    }
}

}  // namespace hermite::overlay
