/// \file
/// Colour: pharmacophore features (hydrogen-bond donors and acceptors, charged groups, rings,
/// hydrophobes...) as Gaussians that overlap only with features of their own type.
///
/// Each feature is one Gaussian 2.7 exp(-0.3 |r - p|^2) at the feature's position p: the height
/// of an atom's shape Gaussian, with the volume of a sphere of radius 2.8 angstrom. The colour
/// overlap of two molecules is the sum, over the feature types, of the exact overlap integrals of
/// their features of that type (angstrom^3; 87.3 exp(-0.15 d^2) for two features d angstrom
/// apart); the colour Tanimoto is C_qf / (C_qq + C_ff - C_qf), 0 when
/// neither molecule has a feature.
///
/// Types are small integers, the index of the feature's family in the definitions that
/// perceived it; the overlay never interprets them.
#pragma once

#include <vector>

#include "hermite/hermite.h"

namespace hermite::overlay {

/// One feature: its type and its position (angstrom, the molecule's coordinates).
struct ColourFeature {
    unsigned int type = 0;
    double position[3] = {0.0, 0.0, 0.0};
};

using ColourFeatures = std::vector<ColourFeature>;

/// The Gaussians of features, each with its type as tag (`QVGaussian::GetTag`).
std::vector<QVSystem::QVGaussian> ColourGaussians(const ColourFeatures& features);

/// The exact colour overlap of two sets of feature Gaussians (tags are the types): the sum of
/// the overlap integrals of every pair of the same type, angstrom^3.
double ColourOverlap(const std::vector<QVSystem::QVGaussian>& a,
                     const std::vector<QVSystem::QVGaussian>& b);

/// The feature Gaussians of one type.
std::vector<QVSystem::QVGaussian> OfType(const std::vector<QVSystem::QVGaussian>& features,
                                         unsigned int type);

/// The types present in `features`, ascending.
std::vector<unsigned int> TypesOf(const std::vector<QVSystem::QVGaussian>& features);

}  // namespace hermite::overlay
