#include "overlay/expansion_turn.h"

#include <algorithm>

#include "hermite/hermite.h"

namespace hermite::overlay {

ExpansionTurn::ExpansionTurn(unsigned int order) {
    std::size_t entries = 0;
    for (unsigned int degree = 0; degree <= order; ++degree) {
        for (unsigned int l = 0; l <= degree; ++l) {
            for (unsigned int m = 0; m <= degree - l; ++m) {
                const unsigned int index[3] = {l, m, degree - l - m};
                degreeOf_.push_back(degree);
                degreeStart_.push_back(degree * (degree + 1) * (degree + 2) / 6);
                blockStart_.push_back(entries);
                const unsigned int axis = l > 0 ? 0 : m > 0 ? 1 : 2;
                unsigned int lower[3] = {index[0], index[1], index[2]};
                lower[axis] -= degree > 0 ? 1 : 0;
                lowerOf_.push_back(QVHermiteMath::GetLmnIndex(lower[0], lower[1], lower[2]));
                factorAxis_.push_back(axis);
                for (unsigned int a = 0; a < 3; ++a) {
                    unsigned int up[3] = {index[0], index[1], index[2]};
                    ++up[a];
                    raised_[a].push_back(
                        degree < order ? QVHermiteMath::GetLmnIndex(up[0], up[1], up[2]) : 0);
                }
            }
        }
        const std::size_t size = (degree + 1) * (degree + 2) / 2;
        entries += size * size;
    }
    mapSize_ = entries;
}

std::vector<double> ExpansionTurn::MapOf(const double* R) const {
    // Degree by degree: each product is one linear factor times a product of one degree less.
    std::vector<double> map(mapSize_, 0.0);
    map[0] = 1.0;
    for (std::size_t i = 1; i < Size(); ++i) {
        const unsigned int axis = factorAxis_[i];
        const double factor[3] = {R[axis], R[3 + axis], R[6 + axis]};
        const std::size_t lower = lowerOf_[i];
        // Column i of its degree's block, and column `lower` of the block below, row-major.
        const std::size_t lowerSize = BlockSize(lower), size = BlockSize(i);
        const double* from = &map[blockStart_[lower] + (lower - degreeStart_[lower])];
        double* column = &map[blockStart_[i] + (i - degreeStart_[i])];
        for (std::size_t j = 0; j < lowerSize; ++j) {
            const std::size_t monomial = degreeStart_[lower] + j;
            for (unsigned int a = 0; a < 3; ++a) {
                column[(raised_[a][monomial] - degreeStart_[i]) * size] +=
                    from[j * lowerSize] * factor[a];
            }
        }
    }
    return map;
}

void ExpansionTurn::Apply(const double* map, const double* coefficients, double* turned) const {
    for (std::size_t r = 0; r < Size(); ++r) {
        const std::size_t size = BlockSize(r);
        const double* row = map + blockStart_[r] + (r - degreeStart_[r]) * size;
        const double* c = coefficients + degreeStart_[r];
        double sum = 0.0;
        for (std::size_t j = 0; j < size; ++j) {
            sum += row[j] * c[j];
        }
        turned[r] = sum;
    }
}

}  // namespace hermite::overlay
