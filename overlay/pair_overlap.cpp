#include "overlay/pair_overlap.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "overlay/negative_exp.h"
#include "overlay/vector_width.h"

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

/// Terms below e^-kPairCutoff (4e-18) of their largest value are left out: all of them
/// together change a sum of a few thousand pairs by less than its rounding. Beyond that reach
/// along x, about 9.4 angstrom for two carbon-sized Gaussians, no pair is formed at all.
constexpr double kPairCutoff = 40.0;

/// The centres of the Gaussians of `b` in the order of their x coordinates (ties in their own
/// order), as the inner loop reads them; sorted only when every x is finite (`sorted`), else
/// in their own order. Made once for all kinds of Gaussian of `a`.
struct CentresByX {
    std::vector<std::size_t> order;  ///< positions in `b`
    std::vector<double> x, y, z;
    bool sorted = false;

    explicit CentresByX(const std::vector<QVSystem::QVGaussian>& b) : order(b.size()) {
        std::iota(order.begin(), order.end(), std::size_t{0});
        sorted = std::all_of(b.begin(), b.end(),
                             [](const QVSystem::QVGaussian& g) { return std::isfinite(g.GetX()); });
        if (sorted) {
            std::stable_sort(order.begin(), order.end(), [&](std::size_t i, std::size_t j) {
                return b[i].GetX() < b[j].GetX();
            });
        }
        for (std::vector<double>* column : {&x, &y, &z}) {
            column->reserve(b.size());
        }
        for (const std::size_t i : order) {
            x.push_back(b[i].GetX());
            y.push_back(b[i].GetY());
            z.push_back(b[i].GetZ());
        }
    }
};

/// The Gaussians of `b` for one kind of Gaussian of `a`, in the order of `centres`: per
/// Gaussian its exponent factor k = a_i a_j / (a_i + a_j) and its prefactor times
/// (pi / (a_i + a_j))^(3/2) (zero for pairs of different tags). A Gaussian of `a` meets only
/// those within `reach` of it along x (when the centres are sorted; else every one).
struct Partners {
    const CentresByX& centres;
    std::vector<double> k, weight;
    double reach = INFINITY;

    Partners(const std::vector<QVSystem::QVGaussian>& b, const CentresByX& sorted, const Kind& kind,
             Pairing pairing)
        : centres(sorted) {
        k.reserve(b.size());
        weight.reserve(b.size());
        double smallestK = INFINITY;
        // The constants of the last kind met: a molecule's Gaussians share a few kinds, and the
        // divisions and the square root are most of the cost of a partner otherwise.
        Kind last{NAN, 0u};
        double pairK = 0.0, pairFactor = 0.0;  // k, (pi / (a_i + a_j))^(3/2)
        for (const std::size_t i : centres.order) {
            const QVSystem::QVGaussian& g = b[i];
            const Kind other = KindOf(g, pairing);
            if (!(other == last)) {
                last = other;
                const double exponentSum = kind.exponent + other.exponent;
                const double piOverP = kPi / exponentSum;
                pairK = kind.exponent * other.exponent / exponentSum;
                pairFactor = piOverP * std::sqrt(piOverP);
            }
            k.push_back(pairK);
            weight.push_back(other.tag == kind.tag ? g.GetPrefactor() * pairFactor : 0.0);
            if (weight.back() != 0.0) {
                smallestK = std::min(smallestK, k.back());
            }
        }
        if (centres.sorted && smallestK > 0.0) {
            reach = std::sqrt(kPairCutoff / smallestK);
        }
    }

    /// The first partner within reach of x coordinate `at`.
    std::size_t From(double at) const {
        const std::vector<double>& x = centres.x;
        return std::isfinite(reach) && std::isfinite(at)
                   ? static_cast<std::size_t>(std::lower_bound(x.begin(), x.end(), at - reach) -
                                              x.begin())
                   : 0;
    }

    /// One past the last partner within reach of x coordinate `at`.
    std::size_t To(double at) const {
        const std::vector<double>& x = centres.x;
        return std::isfinite(reach) && std::isfinite(at)
                   ? static_cast<std::size_t>(std::upper_bound(x.begin(), x.end(), at + reach) -
                                              x.begin())
                   : x.size();
    }
};

/// The overlap of one Gaussian of `a` (centre `p`, of the kind `partners` were made for) with
/// the partners from `first` to before `last`, without its own prefactor.
double OverlapWithPartners(const double* p, const Partners& partners, std::size_t first,
                           std::size_t last) {
    return RunKernel([&] {
        constexpr std::size_t kBlock = 64;
        double sum = 0.0;
        for (std::size_t block = first; block < last; block += kBlock) {
            const std::size_t size = std::min(kBlock, last - block);
            const double* x = partners.centres.x.data() + block;
            const double* y = partners.centres.y.data() + block;
            const double* z = partners.centres.z.data() + block;
            const double* k = partners.k.data() + block;
            const double* weight = partners.weight.data() + block;
            double terms[kBlock];
            for (std::size_t t = 0; t < size; ++t) {
                const double dx = x[t] - p[0], dy = y[t] - p[1], dz = z[t] - p[2];
                terms[t] = k[t] * (dx * dx + dy * dy + dz * dz);
            }
            CutOffExponentials(terms, size, kPairCutoff);
            // Four running sums, so that the additions do not wait on one another: sum l takes
            // the terms l, l + 4, l + 8... Written four at a time, so that they are one vector
            // register.
            double partial[4] = {0.0, 0.0, 0.0, 0.0};
            std::size_t t = 0;
            for (; t + 4 <= size; t += 4) {
                for (std::size_t l = 0; l < 4; ++l) {
                    partial[l] += weight[t + l] * terms[t + l];
                }
            }
            for (std::size_t l = 0; t + l < size; ++l) {
                partial[l] += weight[t + l] * terms[t + l];
            }
            sum += (partial[0] + partial[1]) + (partial[2] + partial[3]);
        }
        return sum;
    });
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
    // Molecules repeat a few kinds of Gaussian (one per element): the centres of `b` are
    // sorted once, and the partners' constants made once per kind of `a`.
    const CentresByX centres(b);
    double overlap = 0.0;
    for (const Kind& kind : KindsOf(a, pairing)) {
        const Partners partners(b, centres, kind, pairing);
        for (const QVSystem::QVGaussian& g : a) {
            if (KindOf(g, pairing) == kind) {
                const double p[3] = {g.GetX(), g.GetY(), g.GetZ()};
                overlap += g.GetPrefactor() *
                           OverlapWithPartners(p, partners, partners.From(p[0]), partners.To(p[0]));
            }
        }
    }
    return overlap;
}

double SelfOverlap(const std::vector<QVSystem::QVGaussian>& a, Pairing pairing) {
    // Each pair once: a Gaussian with itself, and twice with each Gaussian after it in x order.
    const CentresByX centres(a);
    double overlap = 0.0;
    for (const Kind& kind : KindsOf(a, pairing)) {
        const Partners partners(a, centres, kind, pairing);
        for (std::size_t s = 0; s < a.size(); ++s) {
            const QVSystem::QVGaussian& g = a[centres.order[s]];
            if (KindOf(g, pairing) == kind) {
                const double p[3] = {g.GetX(), g.GetY(), g.GetZ()};
                const double after =
                    OverlapWithPartners(p, partners, s + 1, std::max(s + 1, partners.To(p[0])));
                overlap += g.GetPrefactor() * (partners.weight[s] + 2.0 * after);
            }
        }
    }
    return overlap;
}

}  // namespace hermite::overlay
