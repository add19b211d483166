// Unit tests of the floating-point modes that loading the library switches on for the loading
// thread: flush-to-zero (denormal results become zero) and denormals-are-zero (denormal inputs
// read as zero).
//
// The test executable links the library, so it is loaded, and its start-up code has run, in the
// main thread before any test starts; GoogleTest runs the tests in that same thread.

#include <gtest/gtest.h>

#include <cfloat>
#include <cstdint>
#include <cstring>
#include <vector>

#include <xmmintrin.h>

#include "hermite/hermite.h"

namespace {

/// The bit pattern of a double: distinguishes a true zero from a denormal, which compares
/// equal to zero when denormals-are-zero is on.
std::uint64_t Bits(double value) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

/// Calls into the library so that the link to it cannot be dropped as unneeded.
void TouchLibrary() {
    const std::vector<double> ks = QVHermiteMath::computeKs(0);
    ASSERT_EQ(ks.size(), 1u);
}

TEST(FloatingPointModeTest, ControlRegisterHasFlushToZeroAndDenormalsAreZero) {
    TouchLibrary();
    const unsigned int csr = _mm_getcsr();
    EXPECT_NE(csr & (1u << 15), 0u) << "flush-to-zero (MXCSR bit 15) is off";
    EXPECT_NE(csr & (1u << 6), 0u) << "denormals-are-zero (MXCSR bit 6) is off";
}

TEST(FloatingPointModeTest, DenormalProductIsFlushedToZero) {
    TouchLibrary();
    // 1e-300 * 1e-10 = 1e-310 lies below DBL_MIN (2.2e-308): a denormal result, which
    // flush-to-zero replaces by zero. The bit pattern shows a true zero was stored, not a
    // denormal that merely compares equal to zero.
    volatile double a = 1e-300;
    volatile double b = 1e-10;
    const double product = a * b;
    EXPECT_EQ(product, 0.0);
    EXPECT_EQ(Bits(product), 0u);

    // A negative tiny product flushes to a signed zero.
    volatile double c = -1e-300;
    const double negative = c * b;
    EXPECT_EQ(negative, 0.0);
    EXPECT_EQ(Bits(negative) & ~(std::uint64_t{1} << 63), 0u);
}

TEST(FloatingPointModeTest, DenormalQuotientIsFlushedToZero) {
    TouchLibrary();
    volatile double a = DBL_MIN;
    volatile double b = 8.0;
    const double quotient = a / b;
    EXPECT_EQ(Bits(quotient), 0u);
}

TEST(FloatingPointModeTest, DenormalInputReadsAsZero) {
    TouchLibrary();
    // The smallest denormal 4.9e-324 and DBL_MIN / 4 are exact operands of x * 1 and x + 0,
    // whose exact results would be the operand itself (no underflow, so flush-to-zero alone
    // would keep it). With denormals-are-zero the operand reads as zero.
    volatile double smallest = 4.9e-324;
    volatile double quarter = DBL_MIN / 4.0;  // folded at compile time: a denormal constant
    volatile double one = 1.0;
    volatile double zero = 0.0;
    EXPECT_EQ(Bits(smallest * one), 0u);
    EXPECT_EQ(Bits(smallest + zero), 0u);
    EXPECT_EQ(Bits(quarter * one), 0u);
    EXPECT_EQ(Bits(quarter + zero), 0u);
    EXPECT_EQ(smallest * one, 0.0);
    EXPECT_EQ(quarter + zero, 0.0);
}

TEST(FloatingPointModeTest, NormalNumbersAreUnaffected) {
    TouchLibrary();
    volatile double a = DBL_MIN;
    volatile double one = 1.0;
    EXPECT_EQ(a * one, DBL_MIN);
    volatile double b = 1e-150;
    EXPECT_DOUBLE_EQ(b * b, 1e-300);
}

}  // namespace
