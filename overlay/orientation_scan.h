/// \file
/// A global scan of orientations: the Hermite overlap of the query with the fit, both in their
/// principal frames, for every rotation of a fixed and evenly spread set, so that the local
/// search starts only from the orientations that look best.
///
/// A rotation of an expansion with one lambda only mixes the coefficients of one total degree,
/// and the overlap of two expansions at the same centre is a weighted dot product of their
/// coefficients. The query's coefficients are turned by every rotation of the set once, when the
/// query is prepared; scanning a fit then costs one dot product per rotation (35 products per
/// rotation at order 4), far less than one step of the local search. The maps by which the
/// rotations act on the coefficients (see ExpansionTurn) depend only on the rotations and the
/// order: they are made once per run and kept for the next queries, so that preparing a query
/// costs a product with each map per expansion (about 0.1 microseconds at order 4).
///
/// Thread safety: a scan is read-only once made; any number of threads may use it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "hermite/hermite.h"
#include "overlay/expansion_turn.h"
#include "overlay/fast_overlap.h"

namespace hermite::overlay {

/// A rotation as a row-major 3 x 3 matrix.
using RotationMatrix = std::array<double, 9>;

/// The four proper 180-degree flips of a principal frame (identity, half-turns about x, y, z),
/// then `spread` rotations evenly spread over all orientations (a super-Fibonacci spiral of unit
/// quaternions), then `random` uniformly distributed random rotations drawn from `seed`.
std::vector<RotationMatrix> StartOrientations(unsigned int spread, unsigned int random,
                                              std::uint64_t seed);

/// The maps (ExpansionTurn::MapOf) of a set of rotations for expansions of one order, one after
/// another.
struct TurnMaps {
    ExpansionTurn turn;
    std::vector<double> maps;

    /// The map of rotation k of the set.
    const double* Map(std::size_t k) const { return maps.data() + k * turn.MapSize(); }
};

/// The maps of `rotations` (of their transposes when `transposed`) for expansions of order
/// `order`. Every query of a run scans and starts its searches from the same rotations at the
/// same orders, so the maps of the last few sets asked for are kept and made once (200
/// rotations at order 4 take 600 kilobytes, and making them takes longer than using them for
/// a query). Thread-safe.
std::shared_ptr<const TurnMaps> TurnMapsOf(unsigned int order,
                                           const std::vector<RotationMatrix>& rotations,
                                           bool transposed);

class OrientationScan {
public:
    /// Which of the two expansions of a scanned overlap the rotations turn.
    enum class Turning {
        /// The other one, given to `Overlaps`.
        Other,
        /// The scan's own expansion.
        Own,
    };

    /// Prepares the scan of `rotations` for `expansion` (one lambda, in its molecule's frame):
    /// the overlaps of the expansion with others, either of them turned by each rotation. The
    /// expansion is turned in coefficient space, once per rotation (by the transpose of the
    /// rotation when the other is to be turned, which gives the same overlap).
    OrientationScan(const Expansion& expansion, std::vector<RotationMatrix> rotations,
                    Turning turning = Turning::Other);

    /// The scans of `rotations` for several expansions of one order and lambda, as the
    /// constructor makes them one at a time, with the map of each rotation (see TurnMapsOf)
    /// fetched once.
    static std::vector<OrientationScan> Of(const std::vector<Expansion>& expansions,
                                           std::vector<RotationMatrix> rotations,
                                           Turning turning = Turning::Other);

    /// The rotations, in the order given.
    const std::vector<RotationMatrix>& Rotations() const { return rotations_; }

    /// The Hermite overlap of the scan's expansion with `other` (the same order and lambdas, in
    /// its frame, at the same centre) for each rotation turning the one the scan was made for
    /// (angstrom^3).
    std::vector<double> Overlaps(const Expansion& other) const;

    /// The indices of the `count` rotations with the largest overlaps, best first (equal
    /// overlaps in the order of the rotations).
    std::vector<std::size_t> Best(const Expansion& other, std::size_t count) const;

    /// The indices of the `count` largest of `overlaps` (one per rotation, e.g. sums of the
    /// overlaps of several scans of the same rotations), best first, equal ones in order.
    static std::vector<std::size_t> Largest(const std::vector<double>& overlaps, std::size_t count);

private:
    /// An empty scan of `rotations` for expansions of `size` coefficients.
    OrientationScan(std::vector<RotationMatrix> rotations, std::size_t size);

    std::vector<RotationMatrix> rotations_;
    std::size_t size_ = 0;
    /// Per rotation, the turned expansion's coefficients times K_l K_m K_n / (lx ly lz).
    std::vector<double> weighted_;
};

}  // namespace hermite::overlay
