/// \file
/// Facts about the running platform that numerical routines tune themselves by.
#pragma once

#include <cstddef>

namespace QVPlatform {

/// The largest scratch buffer, in bytes, that a routine may place on the stack; larger scratch
/// goes to the heap. The value (64 KiB) leaves ample room within the 8 MiB main-thread stack and
/// the 2 MiB default stack of secondary threads. Thread-safe.
std::size_t QVGetAllocaThreshold();

}  // namespace QVPlatform
