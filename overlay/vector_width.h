/// \file
/// Which vector registers the overlay's arithmetic kernels run in.
///
/// The pair sums, the field walk and the field's sampling are runs of independent IEEE
/// operations, each in an order the code fixes: no fused multiply-adds (the build forbids
/// contraction) and no reassociation. Such a kernel gives the same bits in 128-bit registers
/// (SSE2, every x86-64 processor) and in 256-bit ones (AVX2), only faster in the wider ones. A
/// kernel written as `RunKernel([&] { ... })` is compiled both ways and runs the wide way where
/// the processor has AVX2. Tests switch the width to check that no result changes.
///
/// Thread safety: the width is read by every kernel and may be set at any time; a kernel runs
/// wholly at the width it read when it started.
#pragma once

#include <atomic>

namespace hermite::overlay {

/// The registers of the kernels.
enum class VectorWidth {
    Narrow,  ///< 128-bit (SSE2), on every processor
    Wide,    ///< 256-bit (AVX2), where the processor has it
};

/// The width the kernels run at: Wide on processors with AVX2 unless set otherwise.
VectorWidth KernelVectorWidth();

/// Sets the width of the kernels; Wide is taken only on processors with AVX2 (the width is then
/// Narrow). Results are the same at either width: this is for tests and timings.
void SetKernelVectorWidth(VectorWidth width);

namespace detail {

extern std::atomic<bool> wideKernels;

#if defined(__GNUC__) && defined(__x86_64__)
/// `kernel()` with every call inside it inlined and compiled for AVX2.
template <class Kernel>
__attribute__((target("avx2"), flatten)) auto RunWide(const Kernel& kernel) {
    return kernel();
}
#endif

}  // namespace detail

/// Runs `kernel` (a callable taking no arguments) at the kernels' width (see KernelVectorWidth)
/// and returns what it returns. Everything it calls that can be inlined is compiled at that
/// width too.
template <class Kernel>
auto RunKernel(const Kernel& kernel) {
#if defined(__GNUC__) && defined(__x86_64__)
    if (detail::wideKernels.load(std::memory_order_relaxed)) {
        return detail::RunWide(kernel);
    }
#endif
    return kernel();
}

}  // namespace hermite::overlay
