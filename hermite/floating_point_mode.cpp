// Loading the library switches the loading thread's SSE unit to flush-to-zero (denormal results
// become zero) and denormals-are-zero (denormal inputs read as zero). The expansions are full of
// products of exponentially small terms (Gaussian tails, high-degree coefficients far from a
// density); computing with denormals would cost a hundred cycles per operation for values that
// do not change any result. Other threads keep their own modes.

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

namespace QVHermiteMath {
namespace {

struct FloatingPointModeOnLoad {
    FloatingPointModeOnLoad() {
#if defined(__SSE__)
        constexpr unsigned int kFlushToZero = 0x8000;       // MXCSR bit 15
        constexpr unsigned int kDenormalsAreZero = 0x0040;  // MXCSR bit 6
        _mm_setcsr(_mm_getcsr() | kFlushToZero | kDenormalsAreZero);
#endif
    }
};

const FloatingPointModeOnLoad floatingPointModeOnLoad;

}  // namespace
}  // namespace QVHermiteMath
