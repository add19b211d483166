#include "overlay/overlap_field.h"

#include <algorithm>
#include <cmath>
#include <new>

#include "overlay/negative_exp.h"
#include "overlay/vector_width.h"

namespace hermite::overlay {

namespace {

constexpr double kPi = 3.141592653589793;

/// out[v] += factors[v] * in[v] for v below Floats: a loop of a fixed length, which the
/// compiler unrolls into whole vector registers.
template <std::size_t Floats>
inline void MultiplyAdd(float* out, const float* factors, const float* in) {
    for (std::size_t v = 0; v < Floats; ++v) {
        out[v] += factors[v] * in[v];
    }
}

}  // namespace

struct OverlapField::TermTables {
    std::vector<double> offset[3], factor[3];  ///< per axis, q - x and e^{-k (q - x)^2}
    std::vector<float> columnFactors;          ///< kValues per column
    std::vector<double> chord;                 ///< per row of a plane, the half chord
    std::vector<long> from, to;                ///< per row of a plane, its columns
};

OverlapField::OverlapField(const std::vector<QVSystem::QVGaussian>& fixed, double movingExponent,
                           double spacing, double cutoff, std::size_t maxPoints)
    : movingExponent_(movingExponent), spacing_(spacing), inverseSpacing_(1.0 / spacing) {
    if (fixed.empty() || !(movingExponent > 0.0) || !(spacing > 0.0) || !(cutoff > 0.0)) {
        return;
    }
    cutoff = std::min(cutoff, kLargestExponent);  // beyond, the exponentials are 0 anyway
    // The pair constants of each fixed Gaussian with a moving one of unit prefactor, and the
    // box its terms above e^-cutoff reach.
    struct Term {
        double q[3];
        double C;
        double k;
        double reach;
    };
    std::vector<Term> terms;
    double low[3] = {INFINITY, INFINITY, INFINITY};
    double high[3] = {-INFINITY, -INFINITY, -INFINITY};
    for (const QVSystem::QVGaussian& g : fixed) {
        const double exponentSum = g.GetExponent() + movingExponent;
        const double piOverP = kPi / exponentSum;
        const double k = g.GetExponent() * movingExponent / exponentSum;
        const Term term{{g.GetX(), g.GetY(), g.GetZ()},
                        g.GetPrefactor() * piOverP * std::sqrt(piOverP),
                        k,
                        std::sqrt(cutoff / k)};
        if (term.C == 0.0 || !std::isfinite(term.reach)) {
            continue;
        }
        for (int a = 0; a < 3; ++a) {
            low[a] = std::min(low[a], term.q[a] - term.reach);
            high[a] = std::max(high[a], term.q[a] + term.reach);
        }
        terms.push_back(term);
    }
    if (terms.empty()) {
        return;
    }
    double count = 1.0;
    for (int a = 0; a < 3; ++a) {
        origin_[a] = low[a];
        // One point more than the extent needs, so that every point within the reach has its
        // nearest point on the grid.
        const double points = std::floor((high[a] - low[a]) * inverseSpacing_) + 2.0;
        points_[a] = static_cast<long>(std::min(points, 1e9));
        count *= points;
    }
    if (!(count <= static_cast<double>(maxPoints))) {
        std::fill(points_, points_ + 3, 0L);  // empty: every point lies beyond the grid
        return;
    }
    samples_.reset(
        static_cast<float*>(std::calloc(kValues * static_cast<std::size_t>(count), sizeof(float))));
    if (samples_ == nullptr) {
        throw std::bad_alloc();
    }
    TermTables tables;
    for (const Term& term : terms) {
        AddTerm(term.q, term.C, term.k, term.reach, tables);
    }
}

void OverlapField::AddTerm(const double* q, double C, double k, double reach, TermTables& tables) {
    return RunKernel([&] {
        // With d = q - x, T = C e^{-k d^2} and s = 2k T, the gradient of T is s d and its Hessian
        // 2k s d d^T - s I. The term factorises along the axes, e^{-k d^2} = e^{-k dx^2}
        // e^{-k dy^2} e^{-k dz^2}, and so does each of the ten values: a product of a factor of
        // the point's x, taken from tables along the row, and one of its row (y, z), one product
        // per value and point.
        long first[3], last[3];
        std::vector<double>* const offset = tables.offset;
        std::vector<double>* const factor = tables.factor;
        for (int a = 0; a < 3; ++a) {
            first[a] = std::max(
                0L, static_cast<long>(std::ceil((q[a] - reach - origin_[a]) * inverseSpacing_)));
            last[a] = std::min(
                points_[a] - 1,
                static_cast<long>(std::floor((q[a] + reach - origin_[a]) * inverseSpacing_)));
            const std::size_t count =
                static_cast<std::size_t>(std::max(0L, last[a] - first[a] + 1));
            offset[a].resize(count);
            factor[a].resize(count);
            double* const d = offset[a].data();
            double* const e = factor[a].data();
            for (std::size_t i = 0; i < count; ++i) {
                d[i] = q[a] - (origin_[a] +
                               static_cast<double>(first[a] + static_cast<long>(i)) * spacing_);
            }
            // The polynomial exponential, all of the axis's at once in vector registers: the
            // same bits on every machine (k d^2 <= cutoff).
            for (std::size_t i = 0; i < count; ++i) {
                e[i] = ExpOfNegative(-k * d[i] * d[i]);
            }
        }
        // Each value is a factor of the point's x times one of its row (y, z): per column, the x
        // factors of the ten values in their order (e, 2k e dx, e, e, 4k^2 e dx^2 - 2k e,
        // 4k^2 e dx, 4k^2 e dx, e, e, e) ...
        const std::size_t columns = offset[0].size();
        std::vector<float>& columnFactors = tables.columnFactors;
        columnFactors.resize(kValues * columns);
        for (std::size_t i = 0; i < columns; ++i) {
            const double e = factor[0][i], dx = offset[0][i];
            const float ex = static_cast<float>(e);
            const float exD2 = static_cast<float>(4 * k * k * e * dx);
            const float values[kValues] = {ex,
                                           static_cast<float>(2 * k * e * dx),
                                           ex,
                                           ex,
                                           static_cast<float>((4 * k * k * dx * dx - 2 * k) * e),
                                           exD2,
                                           exD2,
                                           ex,
                                           ex,
                                           ex};
            std::copy(values, values + kValues, &columnFactors[kValues * i]);
        }
        // ... and only the points within the reach (a sphere, half the box): the rows of the box
        // cut to the chord of the sphere at their y and z. A row's samples and its columns' factors
        // are both runs of ten floats per point, so that a row is one product of two runs, with the
        // row's ten factors repeated four times (forty floats, a whole number of SIMD widths).
        const double reach2 = reach * reach;
        const long rowsY = last[1] - first[1] + 1;
        std::vector<long>& from = tables.from;
        std::vector<long>& to = tables.to;
        std::vector<double>& chord = tables.chord;
        from.resize(rowsY);
        to.resize(rowsY);
        chord.resize(rowsY);
        for (long z = first[2]; z <= last[2]; ++z) {
            const double dz = offset[2][z - first[2]];
            // The plane's chords first, then its rows' columns: the square roots of all rows
            // are taken together instead of each waited for by its row.
            for (long i = 0; i < rowsY; ++i) {
                const double dy = offset[1][i];
                chord[i] = std::sqrt(std::max(0.0, reach2 - dy * dy - dz * dz));
            }
            for (long i = 0; i < rowsY; ++i) {
                const double dy = offset[1][i];
                const bool inside = reach2 - dy * dy - dz * dz >= 0.0;
                from[i] = std::max(
                    first[0],
                    static_cast<long>(std::ceil((q[0] - chord[i] - origin_[0]) * inverseSpacing_)));
                to[i] = inside ? std::min(last[0],
                                          static_cast<long>(std::floor(
                                              (q[0] + chord[i] - origin_[0]) * inverseSpacing_)))
                               : from[i] - 1;
            }
            for (long y = first[1]; y <= last[1]; ++y) {
                const long i = y - first[1];
                if (from[i] > to[i]) {
                    continue;
                }
                const double dy = offset[1][i];
                const double row = C * factor[2][z - first[2]] * factor[1][i];
                const double rowValues[kValues] = {row,
                                                   row,
                                                   row * 2 * k * dy,
                                                   row * 2 * k * dz,
                                                   row,
                                                   row * dy,
                                                   row * dz,
                                                   row * (4 * k * k * dy * dy - 2 * k),
                                                   row * 4 * k * k * dy * dz,
                                                   row * (4 * k * k * dz * dz - 2 * k)};
                float rowFactors[4 * kValues];
                for (std::size_t v = 0; v < kValues; ++v) {
                    rowFactors[v] = rowFactors[kValues + v] = rowFactors[2 * kValues + v] =
                        rowFactors[3 * kValues + v] = static_cast<float>(rowValues[v]);
                }
                float* out = &samples_[kValues * static_cast<std::size_t>(
                                                     (z * points_[1] + y) * points_[0] + from[i])];
                const float* in =
                    &columnFactors[kValues * static_cast<std::size_t>(from[i] - first[0])];
                const std::size_t n = static_cast<std::size_t>(to[i] - from[i] + 1);
                std::size_t p = 0;
                for (; p + 4 <= n; p += 4) {
                    MultiplyAdd<4 * kValues>(out + kValues * p, rowFactors, in + kValues * p);
                }
                if (p + 2 <= n) {
                    MultiplyAdd<2 * kValues>(out + kValues * p, rowFactors, in + kValues * p);
                    p += 2;
                }
                if (p < n) {
                    MultiplyAdd<kValues>(out + kValues * p, rowFactors, in + kValues * p);
                }
            }
        }
    });
}

}  // namespace hermite::overlay
