// The order of the coefficients of an expansion, and its lexicographic variant used by grids.
//
// Loops run to `order + 1` in unsigned arithmetic, so the largest unsigned order (for which
// order + 1 wraps to 0) describes an empty basis rather than an endless one.

#include "hermite/hermite.h"

namespace QVHermiteMath {

unsigned int GetLmnIndex(unsigned int l, unsigned int m, unsigned int n) {
    const unsigned int s = l + m + n;
    // Triples of lower total degree, then triples of degree s with a smaller l, then m.
    return s * (s + 1) * (s + 2) / 6 + l * (2 * s + 3 - l) / 2 + m;
}

std::map<unsigned int, std::vector<unsigned int>> lmnMapBuilder(unsigned int order) {
    std::map<unsigned int, std::vector<unsigned int>> forward;
    unsigned int position = 0;
    for (unsigned int s = 0; s < order + 1; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m) {
                forward.emplace_hint(forward.end(), position++,
                                     std::vector<unsigned int>{l, m, s - l - m});
            }
        }
    }
    return forward;
}

std::map<std::vector<unsigned int>, unsigned int> lmnInvMapBuilder(
    const std::map<unsigned int, std::vector<unsigned int>>& forward) {
    std::map<std::vector<unsigned int>, unsigned int> inverse;
    for (const auto& [position, triple] : forward) {
        inverse.emplace(triple, position);
    }
    return inverse;
}

std::vector<double> reorder(unsigned int order, const std::vector<double>& coeffs) {
    std::vector<double> lexicographic;
    for (unsigned int l = 0; l < order + 1; ++l) {
        for (unsigned int m = 0; m <= order - l; ++m) {
            for (unsigned int n = 0; n <= order - l - m; ++n) {
                lexicographic.push_back(coeffs[GetLmnIndex(l, m, n)]);
            }
        }
    }
    return lexicographic;
}

}  // namespace QVHermiteMath
