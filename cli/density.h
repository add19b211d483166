/// \file
/// The Hermite expansion of one molecule's density, as `hermite grid` renders it and
/// `hermite expand` prints it.
///
/// The density is the shape density (one carbon-sized Gaussian per selected atom,
/// `QVMolToGaussians`) or the electrostatic density (one Gaussian of width 1 angstrom per atom,
/// scaled by its partial charge, `QVMolToElectroStaticGaussians`, as the overlay uses it).
///
/// The lambda: by default the optimal single lambda of the shape density (the one that
/// maximises the self-overlap of its expansion). The electrostatic density, whose charges have
/// both signs, has no useful optimum of its own, so it is expanded with the shape's optimal
/// lambda, as the overlay does. A lambda given by the user is used as it is for either density.
///
/// Hermite functions are centred on the coordinate origin, so a molecule far from the origin
/// needs a centring translation for a good expansion: with `centre`, the Gaussians are moved by
/// minus the mean of their centres before they are expanded, and the mean is reported.
#pragma once

#include <array>
#include <optional>
#include <vector>

#include "cli/map_writers.h"
#include "hermite/hermite.h"

namespace hermite::cli {

/// The width of the electrostatic Gaussians, angstrom (the overlay's default).
constexpr double kElectrostaticWidth = 1.0;

/// What to expand and how.
struct DensityRequest {
    unsigned int order = 5;
    bool electrostatics = false;
    /// Move the density so that the mean of the Gaussian centres is at the origin.
    bool centre = false;
    /// A fixed lambda (1/angstrom); none: the shape's optimal single lambda.
    std::optional<double> lambda;
};

/// An expanded density.
struct Density {
    /// The Gaussians as expanded (moved by minus `centre`).
    std::vector<QVSystem::QVGaussian> gaussians;
    /// The translation that was taken off: the mean centre, or zeros without centring.
    std::array<double, 3> centre = {0.0, 0.0, 0.0};
    /// The expansion; its options hold the order and the lambdas used.
    QVHermiteMath::QVHermite expansion;
    /// True when the lambda is the optimal one (not given by the user).
    bool optimalLambda = true;
};

/// Expands the density of `molecule` (at least one atom) as requested.
Density ExpandDensity(const QVChem::QVMol& molecule, const DensityRequest& request);

/// The mean of the Gaussians' centres (computed in double precision).
std::array<double, 3> MeanCentre(const std::vector<QVSystem::QVGaussian>& gaussians);

/// The Gaussians moved by minus `offset` (new centres rounded to single precision).
std::vector<QVSystem::QVGaussian> Shifted(const std::vector<QVSystem::QVGaussian>& gaussians,
                                          const std::array<double, 3>& offset);

/// Renders the expansion of `density` onto `grid`, whose points lie at multiples of `spacing`
/// (angstrom) in the molecule's coordinates, covering the density with a margin of 3 angstrom
/// beyond the outermost atom centre. Throws `UsageError` when `spacing` is too fine for that
/// within 300 points per axis.
MapGeometry Render(const Density& density, double spacing, QVSystem::QVScalarGrid& grid);

}  // namespace hermite::cli
