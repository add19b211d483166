// Thread counts and the floating-point mode of the engine's threads.

#include "screen/pipeline.h"

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

namespace hermite::screen {

unsigned int ResolveThreadCount(long long requested, unsigned int cores) {
    const long long available = cores == 0 ? 1 : cores;
    long long count = requested;
    if (requested == 0) {
        count = available;
    } else if (requested < 0) {
        count = available + requested;
    }
    return static_cast<unsigned int>(count < 1 ? 1 : count);
}

void UseLibraryFloatingPointMode() {
#if defined(__SSE__)
    // MXCSR bit 15: flush-to-zero; bit 6: denormals-are-zero.
    _mm_setcsr(_mm_getcsr() | 0x8040u);
#endif
}

}  // namespace hermite::screen
