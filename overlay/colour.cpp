#include "overlay/colour.h"

#include "overlay/pair_overlap.h"

#include <algorithm>

namespace hermite::overlay {

namespace {

/// Height and exponent of a feature's Gaussian: the height of an atom's shape Gaussian, and
/// broader than an atom, so that features match over the distances by which the groups of two
/// ligands binding alike are apart. Chosen by measurement (docs/colour.md).
constexpr float kFeatureHeight = 2.7f;
constexpr float kFeatureExponent = 0.3f;

}  // namespace

std::vector<QVSystem::QVGaussian> ColourGaussians(const ColourFeatures& features) {
    std::vector<QVSystem::QVGaussian> gaussians;
    gaussians.reserve(features.size());
    for (const ColourFeature& feature : features) {
        const float centre[3] = {static_cast<float>(feature.position[0]),
                                 static_cast<float>(feature.position[1]),
                                 static_cast<float>(feature.position[2])};
        gaussians.emplace_back(kFeatureHeight, kFeatureExponent, centre, feature.type);
    }
    return gaussians;
}

double ColourOverlap(const std::vector<QVSystem::QVGaussian>& a,
                     const std::vector<QVSystem::QVGaussian>& b) {
    return PairOverlap(a, b, Pairing::SameTag);
}

std::vector<QVSystem::QVGaussian> OfType(const std::vector<QVSystem::QVGaussian>& features,
                                         unsigned int type) {
    std::vector<QVSystem::QVGaussian> selected;
    for (const QVSystem::QVGaussian& g : features) {
        if (g.GetTag() == type) {
            selected.push_back(g);
        }
    }
    return selected;
}

std::vector<unsigned int> TypesOf(const std::vector<QVSystem::QVGaussian>& features) {
    std::vector<unsigned int> types;
    for (const QVSystem::QVGaussian& g : features) {
        types.push_back(g.GetTag());
    }
    std::sort(types.begin(), types.end());
    types.erase(std::unique(types.begin(), types.end()), types.end());
    return types;
}

}  // namespace hermite::overlay
