/// \file
/// Four doubles handled as one value, for sums over many atoms taken four atoms at a time.
#pragma once

#include <cstddef>

namespace hermite::overlay {

/// Four doubles handled as one value (a GCC and Clang vector extension): sums over atoms are
/// taken four atoms at once, each of the four lanes summing its own atoms in order, and the
/// lanes are added at the end. The operations act lane by lane, so every machine rounds alike;
/// the compiler maps them to vector registers where it can. The alignment is stated: left to
/// the compiler it is 16 bytes in code built for SSE2 and 32 in code built for AVX2, and a
/// kernel of each width may use the same memory.
using Lanes = double __attribute__((vector_size(4 * sizeof(double)), aligned(4 * sizeof(double))));
constexpr std::size_t kLanes = 4;

/// Lanes as the element of a standard container: a template argument loses the alignment of
/// the vector type, a member of a struct keeps it.
struct LanesSlot {
    Lanes lanes;
};

/// The sum of the four lanes, (l0 + l1) + (l2 + l3).
inline double SumOfLanes(const Lanes& lanes) {
    return (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
}

}  // namespace hermite::overlay
