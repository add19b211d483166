/// \file
/// The exact overlap of two Gaussian densities as a function of a rigid motion of the second,
/// with its analytic gradient and Hessian: the objective of the final refinement of an overlay.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include "hermite/hermite.h"
#include "overlay/overlap_field.h"

namespace hermite::overlay {

/// -O(y), O the overlap integral of `fixed` with `moving` after the motion y = (a, b, c, tx, ty,
/// tz): every centre p of `moving` goes to Rx(a) Ry(b) Rz(c) (p - g) + g + t, g the mean centre
/// of `moving` (so that the angles turn the density about itself). Pair terms whose exponent
/// factor exceeds kCutoff (contributing below e^-kCutoff of their prefactor) are skipped.
///
/// Thread safety: evaluation only reads the object.
class ExactOverlapObjective : public QVOpt::QVFunc1 {
public:
    using QVFunc1::operator();

    /// The exponent factor k d^2 beyond which pair terms are negligible (e^-10 = 4.5e-5 of
    /// their prefactor: the overlaps of drug-sized molecules change by about 1e-4 relative, and
    /// a refined pose moves by far less than the refinement's tolerance).
    static constexpr double kCutoff = 10.0;

    ExactOverlapObjective(const std::vector<QVSystem::QVGaussian>& fixed,
                          const std::vector<QVSystem::QVGaussian>& moving);
    /// The overlap of densities of several channels (shape, colour feature types): only
    /// Gaussians of the same channel overlap. `fixedChannels` and `movingChannels` give the
    /// channel of each Gaussian.
    ExactOverlapObjective(const std::vector<QVSystem::QVGaussian>& fixed,
                          const std::vector<QVSystem::QVGaussian>& moving,
                          const std::vector<unsigned int>& fixedChannels,
                          const std::vector<unsigned int>& movingChannels);

    /// Moves the moving density to other positions: `moving` must hold the same Gaussians
    /// (prefactors and exponents, in the same order) as the one the objective was made with, so
    /// that the pair constants are kept. The motion y = 0 is then `moving` as given.
    void SetMoving(const std::vector<QVSystem::QVGaussian>& moving);
    /// The same with `moving` placed by `motion`: each centre moved in double precision and
    /// rounded to float, as MovedGaussians places them, without copying the Gaussians.
    void SetMoving(const std::vector<QVSystem::QVGaussian>& moving, const QVChem::QVTrans& motion);

    unsigned int NumVar() const override { return 6; }
    double operator()(const double* y) override;
    double operator()(const double* y, double* gradient) override;

    /// The motion y as a transform p -> R (p - g) + g + t.
    QVChem::QVTrans Motion(const double* y) const;

    /// O at y = 0 (the moving centres as set), with its gradient dO/dy (6 values) and its
    /// Hessian (6 x 6, row-major), for Newton steps: one pass over the near pairs.
    double Curvature(double* gradient, double* hessian) const;

    /// The same with the overlap of each moving centre taken from `field` (sampled from the
    /// fixed density for moving Gaussians of their exponent) instead of the pair sums: one
    /// lookup per moving centre. Every moving Gaussian must have the field's exponent.
    double Curvature(const OverlapField& field, double* gradient, double* hessian) const;

private:
    struct Point {
        double x[3];
        double prefactor;
        double exponent;
    };
    /// The constants of the overlap of a fixed and a moving Gaussian: C exp(-k d^2) with
    /// C = w_i w_j (pi / (a_i + a_j))^(3/2) and k = a_i a_j / (a_i + a_j); C = 0 for Gaussians of
    /// different channels.
    struct Pair {
        double C;
        double k;
    };
    /// A Gaussian's prefactor, exponent and channel: what the pair constants depend on.
    struct GaussianKind {
        double prefactor;
        double exponent;
        unsigned int channel;
    };
    /// The kind of each of `points` (of the given channels), as an index into `kinds`, to which
    /// kinds not seen before are added.
    static std::vector<unsigned int> KindsOf(const std::vector<Point>& points,
                                             const std::vector<unsigned int>& channels,
                                             std::vector<GaussianKind>& kinds);

    /// Stores `moving` relative to its mean centre, each centre first placed by `motion`
    /// (unless null) in double precision and rounded to float.
    void PlaceMoving(const std::vector<QVSystem::QVGaussian>& moving,
                     const QVChem::QVTrans* motion);

    /// O and, when `gradient` is not null, dO/dy.
    double Evaluate(const double* y, double* gradient) const;

    /// Whether moving centre j has fixed centres of its channel to overlap.
    bool Overlaps(std::size_t j) const;

    /// The terms of fixed centres near one moving centre p, a block of them: for each term
    /// t < count, the offset d = q - p of the fixed centre q, the exponent factor k of the pair
    /// and the pair term C e^{-k d^2}, each in one array so that sums over the block can be
    /// taken several terms at once.
    struct NearBlock {
        static constexpr std::size_t kCapacity = 64;
        double d[3][kCapacity];
        double k[kCapacity];
        double term[kCapacity];
        std::size_t count = 0;
    };

    /// Calls `visit(block)` for blocks of the terms of every fixed centre within the cut-off of
    /// moving centre j placed at `p` (each term in one block).
    template <class Visit>
    void ForEachNearBlock(std::size_t j, const double* p, Visit visit) const;

    /// Stores the pair constants of every moving kind with every fixed centre (in cell order).
    void StorePairConstants();

    /// Builds the cell grid of the fixed centres of each channel.
    void BuildCells(const std::vector<unsigned int>& fixedChannels,
                    const std::vector<unsigned int>& movingChannels);

    /// The cell grid of the fixed centres of one channel: cubic cells of edge `reach`, the
    /// farthest distance at which a pair term of the channel is kept, numbered from `first` in
    /// `cellStart_` (x fastest).
    struct Grid {
        double reach = 0.0;
        double origin[3] = {0.0, 0.0, 0.0};
        int cells[3] = {0, 0, 0};
        std::size_t first = 0;

        /// The index of the cell holding `x` (clamped to the grid).
        std::size_t CellOf(const double* x) const {
            int index[3];
            for (int a = 0; a < 3; ++a) {
                index[a] =
                    std::clamp(static_cast<int>((x[a] - origin[a]) / reach), 0, cells[a] - 1);
            }
            return first +
                   static_cast<std::size_t>((index[2] * cells[1] + index[1]) * cells[0] + index[0]);
        }
    };

    /// Calls `visit(first, last)` for every row of cells of `grid` (cells `first` to `last`,
    /// consecutive along x) within one cell of the one holding `p`: the cells that can hold
    /// fixed centres within `grid.reach` of it.
    template <class Visit>
    static void ForEachNearRow(const Grid& grid, const double* p, Visit visit) {
        int low[3], high[3];
        for (int a = 0; a < 3; ++a) {
            const double cell = std::floor((p[a] - grid.origin[a]) / grid.reach);
            if (!std::isfinite(cell)) {
                return;
            }
            low[a] = static_cast<int>(std::clamp(cell - 1.0, 0.0, double(grid.cells[a])));
            high[a] = static_cast<int>(std::clamp(cell + 1.0, -1.0, grid.cells[a] - 1.0));
        }
        if (low[0] > high[0]) {
            return;
        }
        for (int z = low[2]; z <= high[2]; ++z) {
            for (int y = low[1]; y <= high[1]; ++y) {
                const std::size_t row =
                    grid.first + static_cast<std::size_t>((z * grid.cells[1] + y) * grid.cells[0]);
                visit(row + low[0], row + high[0]);
            }
        }
    }

    /// Copies the coordinates of the fixed centres into `fixedCoords_`.
    void StoreFixedCoordinates();

    std::vector<Point> fixed_;  // in cell order (see BuildCells)
    /// The x, y and z coordinates of `fixed_`, each in one array, for distances taken in blocks.
    std::vector<double> fixedCoords_[3];
    std::vector<Point> moving_;  // relative to g
    /// The moving centres as placed, x, y and z in one array each (room kept between placements).
    std::vector<double> placed_[3];
    /// The kind of each fixed and moving centre, and the constants of each pair of kinds,
    /// moving-major: kindPairs_[movingKind * fixedKindCount_ + fixedKind].
    std::vector<unsigned int> fixedKind_;
    std::vector<unsigned int> movingKind_;
    std::size_t fixedKindCount_ = 0;
    std::vector<Pair> kindPairs_;
    /// The constants of each moving kind with each fixed centre, in one array each so that a
    /// block of fixed centres reads them in order: pairK_[movingKind * fixed_.size() + i].
    std::vector<double> pairK_;
    std::vector<double> pairC_;
    double centre_[3];
    // The fixed centres sorted by channel, then into the cells of their channel's grid: the
    // terms of a moving centre come from the 27 cells around its own in the grid of its own
    // channel, so an evaluation costs in proportion to the near pairs that overlap, not to all
    // pairs. Empty when a channel has no finite reach: every pair is then visited.
    std::vector<Grid> grids_;              // one per dense channel
    std::vector<unsigned int> cellStart_;  // per cell of every grid, into fixed_; then the end
    /// The dense channel of each moving centre, or kNoChannel when no fixed centre shares it.
    std::vector<unsigned int> movingChannel_;
    static constexpr unsigned int kNoChannel = ~0u;
};

}  // namespace hermite::overlay
