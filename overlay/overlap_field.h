/// \file
/// The overlap of a fixed Gaussian density with one moving Gaussian, as a function of where the
/// moving Gaussian sits, sampled on a grid: a cheap stand-in for the exact pair sums while the
/// exact refinement walks towards an optimum.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <vector>

#include "hermite/hermite.h"

namespace hermite::overlay {

/// phi(x) = sum over the fixed Gaussians i of C_i e^{-k_i |q_i - x|^2}: the overlap of the fixed
/// density with a Gaussian of unit prefactor and exponent a centred at x, with
/// C_i = w_i (pi / (a_i + a))^(3/2) and k_i = a_i a / (a_i + a). The field, its gradient and its
/// Hessian with respect to x are sampled on a cubic grid that covers every point where a term
/// is above e^-cutoff of its prefactor; between the points they are taken from the second-order
/// Taylor expansion about the nearest one. With points h apart the value is then off by
/// O(h^3) and the gradient by O(h^2), in units of the field's length scale k^-1/2 (1.6
/// angstrom for two atoms of the shape density): from where a refinement that walks on the
/// field at h = 0.6 angstrom ends, one or two Newton steps on the exact pair sums reach the
/// exact optimum. Beyond the grid the field is 0.
///
/// Evaluating it costs one lookup per moving Gaussian, whatever the number of fixed ones; the
/// samples take 40 bytes a point (at the overlay's 0.7 angstrom, under a megabyte for a
/// drug-sized density and about 1.9 for one of 70 heavy atoms).
///
/// Thread safety: immutable once made.
class OverlapField {
public:
    /// An empty field (see `Empty`).
    OverlapField() = default;

    /// The field of `fixed` for moving Gaussians of exponent `movingExponent` (> 0), sampled
    /// every `spacing` angstrom (> 0) over the points within the reach of a term above
    /// e^-`cutoff` (at most e^-kLargestExponent); empty when `fixed` is, or when that needs
    /// more than `maxPoints` points.
    OverlapField(const std::vector<QVSystem::QVGaussian>& fixed, double movingExponent,
                 double spacing, double cutoff, std::size_t maxPoints);

    /// Whether the field has no samples: then it cannot be evaluated.
    bool Empty() const { return samples_ == nullptr; }

    /// The exponent of the moving Gaussians the field is for.
    double MovingExponent() const { return movingExponent_; }

    /// phi at `x` (angstrom), with its gradient (3 values) and its Hessian (the upper triangle
    /// xx, xy, xz, yy, yz, zz); all 0 beyond the grid.
    double At(const double* x, double* gradient, double* hessian) const;

    /// The same at `count` points, one array per component: point j at (x[0][j], x[1][j],
    /// x[2][j]), its phi in value[j], its gradient in gradient[a][j] and its Hessian in
    /// hessian[i][j] (i in the order above). The samples are scattered over megabytes: those
    /// of many points are requested from memory together, then read.
    void At(std::size_t count, const double* const* x, double* value, double* const* gradient,
            double* const* hessian) const;

private:
    /// Values per sample: phi, its gradient and the upper triangle of its Hessian.
    static constexpr std::size_t kValues = 10;

    static constexpr std::size_t kNowhere = ~std::size_t{0};

    /// The index of the sample nearest to `x` and the offset `delta` of `x` from it; kNowhere
    /// beyond the grid (or for a point that is not finite).
    std::size_t Locate(const double* x, double* delta) const;

    /// The tables of one term along the axes and its rows, kept from term to term.
    struct TermTables;

    /// Adds the terms of one fixed Gaussian, C e^{-k |q - x|^2} at the points x within `reach`
    /// of q, to the samples (summed in single precision: a few 1e-7 relative for the sums of
    /// the tens of terms that reach a point, far below the sampling's own error).
    void AddTerm(const double* q, double C, double k, double reach, TermTables& tables);

    double movingExponent_ = 0.0;
    double spacing_ = 0.0;
    double inverseSpacing_ = 0.0;
    double origin_[3] = {0.0, 0.0, 0.0};
    long points_[3] = {0, 0, 0};
    /// Releases samples taken from calloc.
    struct FreeSamples {
        void operator()(float* samples) const { std::free(samples); }
    };
    /// kValues per grid point, x fastest, then y, then z; from calloc, which takes fresh pages
    /// of a large block from the system already zeroed instead of writing the zeros.
    std::unique_ptr<float[], FreeSamples> samples_;
};

// The evaluations are defined here, inline, so that a walk's kernel compiles them into its own
// loop, at its own vector width (see vector_width.h): a quarter of a Newton step on the field.

inline std::size_t OverlapField::Locate(const double* x, double* delta) const {
    std::size_t index = 0;
    for (int a = 2; a >= 0; --a) {
        // The nearest point is floor(u), and for u >= 0 floor is the truncation.
        const double u = (x[a] - origin_[a]) * inverseSpacing_ + 0.5;
        if (!(u >= 0.0 && u < static_cast<double>(points_[a]))) {
            return kNowhere;  // beyond the reach of every term (or not a finite point)
        }
        const long nearest = static_cast<long>(u);
        index = index * static_cast<std::size_t>(points_[a]) + static_cast<std::size_t>(nearest);
        delta[a] = x[a] - (origin_[a] + static_cast<double>(nearest) * spacing_);
    }
    return index;
}

inline void OverlapField::At(std::size_t count, const double* const* x, double* value,
                             double* const* gradient, double* const* hessian) const {
    constexpr std::size_t kBlock = 64;
    std::size_t index[kBlock];
    double delta[3][kBlock];
    double sample[kValues][kBlock];
    for (std::size_t first = 0; first < count; first += kBlock) {
        const std::size_t size = std::min(kBlock, count - first);
        for (std::size_t j = 0; j < size; ++j) {
            const double point[3] = {x[0][first + j], x[1][first + j], x[2][first + j]};
            double offset[3] = {0.0, 0.0, 0.0};
            index[j] = Locate(point, offset);
            if (index[j] == kNowhere) {
                std::fill(offset, offset + 3, 0.0);
            } else {
                __builtin_prefetch(&samples_[kValues * index[j]]);
            }
            for (int a = 0; a < 3; ++a) {
                delta[a][j] = offset[a];
            }
        }
        // The samples side by side, zeros beyond the grid (with zero offsets, so that the
        // expansion below gives 0 there), then the second-order Taylor expansions about them of
        // all the points at once, in vector registers.
        for (std::size_t j = 0; j < size; ++j) {
            for (std::size_t v = 0; v < kValues; ++v) {
                sample[v][j] = index[j] == kNowhere ? 0.0 : samples_[kValues * index[j] + v];
            }
        }
        for (std::size_t j = 0; j < size; ++j) {
            const double d[3] = {delta[0][j], delta[1][j], delta[2][j]};
            const double s[kValues] = {sample[0][j], sample[1][j], sample[2][j], sample[3][j],
                                       sample[4][j], sample[5][j], sample[6][j], sample[7][j],
                                       sample[8][j], sample[9][j]};
            const double H[3][3] = {{s[4], s[5], s[6]}, {s[5], s[7], s[8]}, {s[6], s[8], s[9]}};
            double v = s[0];
            for (int a = 0; a < 3; ++a) {
                const double Hdelta = H[a][0] * d[0] + H[a][1] * d[1] + H[a][2] * d[2];
                gradient[a][first + j] = s[1 + a] + Hdelta;
                v += (s[1 + a] + 0.5 * Hdelta) * d[a];
            }
            value[first + j] = v;
            for (int i = 0; i < 6; ++i) {
                hessian[i][first + j] = s[4 + i];
            }
        }
    }
}

inline double OverlapField::At(const double* x, double* gradient, double* hessian) const {
    const double* const point[3] = {x, x + 1, x + 2};
    double value;
    double* const gradients[3] = {gradient, gradient + 1, gradient + 2};
    double* const hessians[6] = {hessian,     hessian + 1, hessian + 2,
                                 hessian + 3, hessian + 4, hessian + 5};
    At(1, point, &value, gradients, hessians);
    return value;
}

}  // namespace hermite::overlay
