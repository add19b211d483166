#include "qv/platform.h"

namespace QVPlatform {

std::size_t QVGetAllocaThreshold() {
    return std::size_t{64} * 1024;
}

}  // namespace QVPlatform
