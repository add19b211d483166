#include "overlay/vector_width.h"

namespace hermite::overlay {

namespace {

bool ProcessorHasAvx2() {
#if defined(__GNUC__) && defined(__x86_64__)
    // The width is decided while the program's constructors run, perhaps before the one that
    // reads the processor's features: read them here first.
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2");
#else
    return false;
#endif
}

}  // namespace

namespace detail {

std::atomic<bool> wideKernels{ProcessorHasAvx2()};

}  // namespace detail

VectorWidth KernelVectorWidth() {
    return detail::wideKernels.load(std::memory_order_relaxed) ? VectorWidth::Wide
                                                               : VectorWidth::Narrow;
}

void SetKernelVectorWidth(VectorWidth width) {
    detail::wideKernels.store(width == VectorWidth::Wide && ProcessorHasAvx2(),
                              std::memory_order_relaxed);
}

}  // namespace hermite::overlay
