/// \file
/// A global scan of orientations: the Hermite overlap of the query with the fit, both in their
/// principal frames, for every rotation of a fixed and evenly spread set, so that the local
/// search starts only from the orientations that look best.
///
/// A rotation of an expansion with one lambda only mixes the coefficients of one total degree,
/// and the overlap of two expansions at the same centre is a weighted dot product of their
/// coefficients. The query's coefficients are turned by every rotation of the set once, when the
/// query is prepared; scanning a fit then costs one dot product per rotation (35 products per
/// rotation at order 4), far less than one step of the local search.
///
/// Thread safety: a scan is read-only once made; any number of threads may use it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "hermite/hermite.h"
#include "overlay/fast_overlap.h"

namespace hermite::overlay {

/// A rotation as a row-major 3 x 3 matrix.
using RotationMatrix = std::array<double, 9>;

/// The four proper 180-degree flips of a principal frame (identity, half-turns about x, y, z),
/// then `spread` rotations evenly spread over all orientations (a super-Fibonacci spiral of unit
/// quaternions), then `random` uniformly distributed random rotations drawn from `seed`.
std::vector<RotationMatrix> StartOrientations(unsigned int spread, unsigned int random,
                                              std::uint64_t seed);

class OrientationScan {
public:
    /// Prepares the scan of `rotations` for the query `expansion` of `gaussians` (in the
    /// query's frame): the query is turned by the transpose of each rotation, which is the same
    /// as turning the fit by the rotation.
    OrientationScan(const std::vector<QVSystem::QVGaussian>& gaussians, const Expansion& expansion,
                    std::vector<RotationMatrix> rotations);

    /// The rotations of the fit, in the order given.
    const std::vector<RotationMatrix>& Rotations() const { return rotations_; }

    /// The Hermite overlap of the query with `fit` (the same order and lambdas, in its frame)
    /// turned by each rotation, at the same centre (angstrom^3).
    std::vector<double> Overlaps(const Expansion& fit) const;

    /// The indices of the `count` rotations with the largest overlaps, best first (equal
    /// overlaps in the order of the rotations).
    std::vector<std::size_t> Best(const Expansion& fit, std::size_t count) const;

    /// The indices of the `count` largest of `overlaps` (one per rotation, e.g. sums of the
    /// overlaps of several scans of the same rotations), best first, equal ones in order.
    static std::vector<std::size_t> Largest(const std::vector<double>& overlaps, std::size_t count);

private:
    std::vector<RotationMatrix> rotations_;
    std::size_t size_ = 0;
    /// Per rotation, the turned query's coefficients times K_l K_m K_n / (lx ly lz).
    std::vector<double> weighted_;
};

}  // namespace hermite::overlay
