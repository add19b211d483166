/// \file
/// Upper bounds on the scores a fit can reach in any pose, for screens that keep only their
/// best hits: a fit whose bound cannot reach the last hit cannot be a hit, so its overlay may be
/// skipped without changing the hits.
///
/// The overlap O_qf of two sums of Gaussians is bounded in two ways, and the smaller counts:
/// - Cauchy-Schwarz: O_qf <= sqrt(O_qq O_ff), for any two densities (signed ones too);
/// - packing: O_qf is the sum, over the fit's Gaussians j, of F_q(y_j), the overlap of the
///   query's density with a Gaussian of j's kind centred at y_j; so O_qf <= n_f max_p F_q(p)
///   when the fit's n_f Gaussians are of one kind. The largest F_q is found once per query, by
///   branch and bound over boxes, so the bound of a fit costs a count of its Gaussians.
/// Shape and colour (per feature type) take the smaller of the two, the electrostatic density
/// Cauchy-Schwarz alone. Every score grows with its overlap while the self-overlaps stay (see
/// `ScoresOf`), so the scores of the bounded overlaps bound the scores, whatever the search
/// finds. Both bounds hold for every pose, which is why they are loose: they see how many atoms
/// a molecule has and how closely they pack, not how they are arranged (measured in
/// docs/overlay.md).
///
/// Thread safety: a `ScoreBound` is immutable after construction and may be shared by threads.
#pragma once

#include <vector>

#include "overlay/overlay.h"

namespace hermite::overlay {

/// The largest value over all points p of the sum of the overlaps of `gaussians` with a
/// Gaussian of height `prefactor` and exponent `exponent` centred at p, overestimated by at most
/// `relativeTolerance` of it (never underestimated); 0 for no Gaussians.
double LargestOverlapWithProbe(const std::vector<QVSystem::QVGaussian>& gaussians, float prefactor,
                               float exponent, double relativeTolerance = 0.01);

/// Upper bounds on the scores of fits against one query.
class ScoreBound {
public:
    /// The bounds against `query`; the query must outlive the bound.
    explicit ScoreBound(const Query& query);

    /// Upper bounds, over every rigid motion of `fit` (prepared with the query's settings), on
    /// each of its exact scores; the Hermite Tanimoto, which is not an exact score, gets the
    /// bound of the shape Tanimoto.
    Scores Of(const PreparedMolecule& fit) const;

private:
    /// One density of the query (the shape, or the colour features of one type): its
    /// self-overlap, the kind of its first Gaussian (height and exponent), and the largest
    /// overlap a fit Gaussian of that kind can have with the density.
    struct Density {
        double selfOverlap = 0.0;
        float prefactor = 0.0f;
        float exponent = 0.0f;
        double largestOverlap = 0.0;
    };

    static Density Prepare(const std::vector<QVSystem::QVGaussian>& gaussians);
    /// The bounded overlap of `density` with `fit`'s Gaussians of self-overlap `fitSelfOverlap`.
    static double BoundOverlap(const Density& density, const std::vector<QVSystem::QVGaussian>& fit,
                               double fitSelfOverlap);

    const Query& query_;
    Density shape_;
    /// Per feature type of the query, ascending by type.
    std::vector<unsigned int> colourTypes_;
    std::vector<Density> colour_;
};

}  // namespace hermite::overlay
