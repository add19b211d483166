#include "overlay/pair_overlap.h"

#include <algorithm>
#include <cmath>

#include "overlay/negative_exp.h"

namespace hermite::overlay {

namespace {

constexpr double kPi = 3.141592653589793;

/// What the constants of a pair depend on besides the prefactors: exponent and, when pairs
/// are tagged, tag.
struct Kind {
    double exponent;
    unsigned int tag;

    bool operator==(const Kind& other) const {
        return exponent == other.exponent && tag == other.tag;
    }
};

Kind KindOf(const QVSystem::QVGaussian& g, Pairing pairing) {
    return {g.GetExponent(), pairing == Pairing::SameTag ? g.GetTag() : 0u};
}

/// The Gaussians of `b` as the inner loop reads them, for one kind of Gaussian of `a`: the
/// coordinates, and per Gaussian its exponent factor k = a_i a_j / (a_i + a_j) and its
/// prefactor times (pi / (a_i + a_j))^(3/2) (zero for pairs of different tags).
struct Partners {
    std::vector<double> x, y, z, k, weight;

    Partners(const std::vector<QVSystem::QVGaussian>& b, const Kind& kind, Pairing pairing) {
        for (const QVSystem::QVGaussian& g : b) {
            const Kind other = KindOf(g, pairing);
            const double exponentSum = kind.exponent + other.exponent;
            const double piOverP = kPi / exponentSum;
            x.push_back(g.GetX());
            y.push_back(g.GetY());
            z.push_back(g.GetZ());
            k.push_back(kind.exponent * other.exponent / exponentSum);
            weight.push_back(
                other.tag == kind.tag ? g.GetPrefactor() * (piOverP * std::sqrt(piOverP)) : 0.0);
        }
    }
};

/// The overlap of one Gaussian of `a` (centre `p`, of the kind `partners` were made for) with
/// the Gaussians of `b` from `first` on, without its own prefactor.
double OverlapWithPartners(const double* p, const Partners& partners, std::size_t first) {
    constexpr std::size_t kBlock = 64;
    double sum = 0.0;
    const std::size_t count = partners.x.size();
    for (std::size_t block = first; block < count; block += kBlock) {
        const std::size_t size = std::min(kBlock, count - block);
        const double* x = partners.x.data() + block;
        const double* y = partners.y.data() + block;
        const double* z = partners.z.data() + block;
        const double* k = partners.k.data() + block;
        const double* weight = partners.weight.data() + block;
        double terms[kBlock];
        for (std::size_t t = 0; t < size; ++t) {
            const double dx = x[t] - p[0], dy = y[t] - p[1], dz = z[t] - p[2];
            terms[t] = k[t] * (dx * dx + dy * dy + dz * dz);
        }
        CutOffExponentials(terms, size, kLargestExponent);
        // Four running sums, so that the additions do not wait on one another.
        double partial[4] = {0.0, 0.0, 0.0, 0.0};
        for (std::size_t t = 0; t < size; ++t) {
            partial[t % 4] += weight[t] * terms[t];
        }
        sum += (partial[0] + partial[1]) + (partial[2] + partial[3]);
    }
    return sum;
}

/// The kinds of the Gaussians of `a`, each once, in order of first appearance.
std::vector<Kind> KindsOf(const std::vector<QVSystem::QVGaussian>& a, Pairing pairing) {
    std::vector<Kind> kinds;
    for (const QVSystem::QVGaussian& g : a) {
        if (std::find(kinds.begin(), kinds.end(), KindOf(g, pairing)) == kinds.end()) {
            kinds.push_back(KindOf(g, pairing));
        }
    }
    return kinds;
}

}  // namespace

double PairOverlap(const std::vector<QVSystem::QVGaussian>& a,
                   const std::vector<QVSystem::QVGaussian>& b, Pairing pairing) {
    // Molecules repeat a few kinds of Gaussian (one per element), so the partners' constants
    // are made once per kind of `a`.
    double overlap = 0.0;
    for (const Kind& kind : KindsOf(a, pairing)) {
        const Partners partners(b, kind, pairing);
        for (const QVSystem::QVGaussian& g : a) {
            if (KindOf(g, pairing) == kind) {
                const double p[3] = {g.GetX(), g.GetY(), g.GetZ()};
                overlap += g.GetPrefactor() * OverlapWithPartners(p, partners, 0);
            }
        }
    }
    return overlap;
}

double SelfOverlap(const std::vector<QVSystem::QVGaussian>& a, Pairing pairing) {
    // Each pair once: a Gaussian with itself, and twice with each Gaussian after it.
    double overlap = 0.0;
    for (const Kind& kind : KindsOf(a, pairing)) {
        const Partners partners(a, kind, pairing);
        for (std::size_t i = 0; i < a.size(); ++i) {
            if (KindOf(a[i], pairing) == kind) {
                const double p[3] = {a[i].GetX(), a[i].GetY(), a[i].GetZ()};
                overlap += a[i].GetPrefactor() *
                           (partners.weight[i] + 2.0 * OverlapWithPartners(p, partners, i + 1));
            }
        }
    }
    return overlap;
}

}  // namespace hermite::overlay
