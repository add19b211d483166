#include "overlay/score_bound.h"

#include <algorithm>
#include <cmath>
#include <queue>

#include "overlay/pair_overlap.h"

namespace hermite::overlay {

using QVSystem::QVGaussian;

namespace {

/// One Gaussian's overlap with the probe as a function of the probe's centre p:
/// weight exp(-rate |p - centre|^2).
struct Term {
    double centre[3];
    double weight;
    double rate;
};

/// The sum of the terms at `p`.
double SumAt(const std::vector<Term>& terms, const double p[3]) {
    double sum = 0.0;
    for (const Term& term : terms) {
        const double dx = p[0] - term.centre[0];
        const double dy = p[1] - term.centre[1];
        const double dz = p[2] - term.centre[2];
        sum += term.weight * std::exp(-term.rate * (dx * dx + dy * dy + dz * dz));
    }
    return sum;
}

/// An upper bound on the sum of the terms anywhere in the cube of centre `c` and half-edge
/// `half`, the smaller of two:
/// - each term at its largest in the cube, at the point nearest its centre;
/// - the value and gradient at `c` and a bound L on the curvature in the cube, as
///   f(c) + |grad f(c)| rho + L rho^2 / 2 for the half-diagonal rho (Taylor's theorem). A term
///   w exp(-u), u = r s^2 at distance s, curves by at most w r max(2 exp(-u), (4u - 2) exp(-u))
///   in any direction; over u >= u0 that is at most w r max(2 exp(-u0), 4 exp(-3/2)) for
///   u0 <= 3/2 (the second factor peaks at u = 3/2) and w r (4 u0 - 2) exp(-u0) beyond.
/// Near a maximum, where the gradient vanishes, the second bound is the tighter by far, and
/// boxes of a tenth of an angstrom settle it.
double BoundIn(const std::vector<Term>& terms, const double c[3], double half) {
    double largest = 0.0, curvature = 0.0, value = 0.0;
    double gradient[3] = {0.0, 0.0, 0.0};
    for (const Term& term : terms) {
        double nearest = 0.0, squared = 0.0;
        double d[3];
        for (int k = 0; k < 3; ++k) {
            d[k] = c[k] - term.centre[k];
            const double outside = std::max(0.0, std::abs(d[k]) - half);
            nearest += outside * outside;
            squared += d[k] * d[k];
        }
        const double u = term.rate * nearest;
        const double atNearest = term.weight * std::exp(-u);
        largest += atNearest;
        const double peak =
            u <= 1.5 ? 4.0 * std::exp(-1.5) * term.weight : (4.0 * u - 2.0) * atNearest;
        curvature += term.rate * std::max(2.0 * atNearest, peak);
        const double atCentre = term.weight * std::exp(-term.rate * squared);
        value += atCentre;
        for (int k = 0; k < 3; ++k) {
            gradient[k] -= 2.0 * term.rate * atCentre * d[k];
        }
    }
    const double rho = half * std::sqrt(3.0);
    const double slope = std::sqrt(gradient[0] * gradient[0] + gradient[1] * gradient[1] +
                                   gradient[2] * gradient[2]);
    return std::min(largest, value + slope * rho + curvature * rho * rho / 2.0);
}

/// A cube of the search with an upper bound on the sum inside it.
struct Box {
    double centre[3];
    double half;  ///< half the edge, angstrom
    double upper;
};

struct LowerUpperBound {
    bool operator()(const Box& a, const Box& b) const { return a.upper < b.upper; }
};

/// Boxes examined at most; the bound returned then is still valid, only looser.
constexpr std::size_t kBoxLimit = 200000;

}  // namespace

double LargestOverlapWithProbe(const std::vector<QVGaussian>& gaussians, float prefactor,
                               float exponent, double relativeTolerance) {
    if (gaussians.empty()) {
        return 0.0;
    }
    // The overlap of A exp(-a |r - x|^2) with P exp(-e |r - p|^2) is
    // A P (pi / (a + e))^(3/2) exp(-(a e / (a + e)) |p - x|^2).
    std::vector<Term> terms;
    double low[3] = {INFINITY, INFINITY, INFINITY};
    double high[3] = {-INFINITY, -INFINITY, -INFINITY};
    for (const QVGaussian& g : gaussians) {
        const double a = g.GetExponent();
        const double e = exponent;
        const double piOverSum = 3.141592653589793 / (a + e);
        Term term{
            {g.GetX(), g.GetY(), g.GetZ()},
            static_cast<double>(g.GetPrefactor()) * prefactor * piOverSum * std::sqrt(piOverSum),
            a * e / (a + e)};
        for (int k = 0; k < 3; ++k) {
            low[k] = std::min(low[k], term.centre[k]);
            high[k] = std::max(high[k], term.centre[k]);
        }
        terms.push_back(term);
    }
    // Where the gradient vanishes, p is a weighted mean of the centres (the weights are
    // positive), so the maximum lies in their bounding box: the first box covers it.
    Box root{{(low[0] + high[0]) / 2, (low[1] + high[1]) / 2, (low[2] + high[2]) / 2}, 0.0, 0.0};
    for (int k = 0; k < 3; ++k) {
        root.half = std::max(root.half, (high[k] - low[k]) / 2);
    }
    double best = 0.0;  // the largest value seen: a lower bound on the maximum
    for (const Term& term : terms) {
        best = std::max(best, SumAt(terms, term.centre));
    }
    const auto examine = [&](Box& box) {
        box.upper = BoundIn(terms, box.centre, box.half);
        best = std::max(best, SumAt(terms, box.centre));
    };
    examine(root);
    std::priority_queue<Box, std::vector<Box>, LowerUpperBound> open;
    open.push(root);
    // Boxes whose bound is at most the best value seen cannot hold a larger one and are
    // dropped; the open box of the largest bound bounds the maximum from above.
    std::size_t examined = 1;
    while (!open.empty()) {
        const Box box = open.top();
        if (box.upper <= best * (1.0 + relativeTolerance) || examined >= kBoxLimit) {
            return std::max(box.upper, best);
        }
        open.pop();
        for (int corner = 0; corner < 8; ++corner) {
            Box child{{}, box.half / 2, 0.0};
            for (int k = 0; k < 3; ++k) {
                child.centre[k] = box.centre[k] + ((corner >> k) & 1 ? child.half : -child.half);
            }
            examine(child);
            ++examined;
            if (child.upper > best) {
                open.push(child);
            }
        }
    }
    return best;
}

ScoreBound::ScoreBound(const Query& query) : query_(query) {
    const PreparedMolecule& prepared = query.Prepared();
    shape_ = Prepare(prepared.shape);
    colourTypes_ = TypesOf(prepared.colour);
    for (const unsigned int type : colourTypes_) {
        colour_.push_back(Prepare(OfType(prepared.colour, type)));
    }
}

ScoreBound::Density ScoreBound::Prepare(const std::vector<QVGaussian>& gaussians) {
    Density density;
    density.selfOverlap = SelfOverlap(gaussians);
    if (!gaussians.empty()) {
        density.prefactor = gaussians.front().GetPrefactor();
        density.exponent = gaussians.front().GetExponent();
        density.largestOverlap =
            LargestOverlapWithProbe(gaussians, density.prefactor, density.exponent);
    }
    return density;
}

double ScoreBound::BoundOverlap(const Density& density, const std::vector<QVGaussian>& fit,
                                double fitSelfOverlap) {
    const double cauchySchwarz = std::sqrt(density.selfOverlap * fitSelfOverlap);
    const bool probeKind = std::all_of(fit.begin(), fit.end(), [&](const QVGaussian& g) {
        return g.GetPrefactor() == density.prefactor && g.GetExponent() == density.exponent;
    });
    if (!probeKind) {
        return cauchySchwarz;
    }
    return std::min(cauchySchwarz, static_cast<double>(fit.size()) * density.largestOverlap);
}

Scores ScoreBound::Of(const PreparedMolecule& fit) const {
    const PreparedMolecule& query = query_.Prepared();
    const Settings& settings = query_.GetSettings();
    const Overlaps shape{BoundOverlap(shape_, fit.shape, fit.shapeSelfOverlap),
                         query.shapeSelfOverlap, fit.shapeSelfOverlap};
    std::optional<Overlaps> electrostatic;
    if (settings.electrostatics) {
        const double qq = query.electrostaticSelfOverlap;
        const double ff = fit.electrostaticSelfOverlap;
        electrostatic = Overlaps{std::sqrt(qq * ff), qq, ff};
    }
    std::optional<Overlaps> colour;
    if (settings.colour) {
        colour = Overlaps{0.0, query.colourSelfOverlap, fit.colourSelfOverlap};
        for (std::size_t t = 0; t < colourTypes_.size(); ++t) {
            const std::vector<QVGaussian> features = OfType(fit.colour, colourTypes_[t]);
            colour->between +=
                BoundOverlap(colour_[t], features, SelfOverlap(features, Pairing::SameTag));
        }
    }
    return ScoresOf(shape, shape, electrostatic, colour);
}

}  // namespace hermite::overlay
