// Expanding one molecule's shape or electrostatic density, and rendering it onto a map, for
// `hermite grid`, `expand` and the maps of overlay reports.

#include "cli/density.h"

#include <algorithm>
#include <cmath>

#include "cli/arguments.h"
#include "cli/text_format.h"

namespace hermite::cli {

namespace {

/// Options for an expansion of order `order`: one lambda, optimised from 1.0 unless `lambda`
/// is given.
QVHermiteMath::QVHermiteOptions ExpansionOptions(unsigned int order,
                                                 const std::optional<double>& lambda) {
    QVHermiteMath::QVHermiteOptions options;
    options.SetNPolyMax(order);
    options.SetUseSingleLambda(true);
    options.SetUseOptimalLambdas(!lambda.has_value());
    if (lambda) {
        for (unsigned int axis = 0; axis < 3; ++axis) {
            options.SetLambda(axis, *lambda);
        }
    }
    return options;
}

/// The span of the rendering (see `QVHermiteMath::CreateGrid`): the extent (twice the largest
/// centre coordinate) plus 6 angstrom, a margin of 3 angstrom on each side.
constexpr double kGridMargin = 6.0;
/// The most points per axis the rendering makes.
constexpr double kMaxGridPoints = 300.0;

/// The rendering's rule for the points per axis: one point more than the span needs, at least
/// 5 (no upper limit here; see `RequireCoveringSpacing`).
double PointsNeeded(double extent, double spacing) {
    return std::max(5.0, std::trunc((extent + kGridMargin) / spacing + 1.0) + 1.0);
}

unsigned int PredictedGridSize(double extent, double spacing) {
    return static_cast<unsigned int>(std::min(kMaxGridPoints, PointsNeeded(extent, spacing)));
}

/// Throws `UsageError` when `spacing` is too fine for the map to cover the density with its
/// margin within the rendering's 300 points per axis: a clamped grid would cover only part of
/// the molecule, a silently wrong map.
void RequireCoveringSpacing(double extent, double spacing) {
    if (PointsNeeded(extent, spacing) <= kMaxGridPoints) {
        return;
    }
    // The finest spacing that fits, rounded up to 0.001 angstrom.
    const double finest =
        std::ceil((extent + kGridMargin) / (kMaxGridPoints - 2.0) * 1000.0) / 1000.0;
    throw UsageError("--spacing " + FormatFixed(spacing, 3) +
                     " is too fine for this molecule: covering it with its margin (" +
                     FormatFixed(extent + kGridMargin, 1) +
                     " angstrom) takes more than 300 points per axis; use --spacing " +
                     FormatFixed(finest, 3) + " or more");
}

/// Places a grid of `points` per axis about the density's centre `centre` on the lattice of
/// multiples of `spacing`, and sets the grid's centre accordingly in the coordinates of the
/// expansion (the molecule's coordinates minus `centre`).
MapGeometry PlaceGrid(QVSystem::QVScalarGrid& grid, unsigned int points, double spacing,
                      const std::array<double, 3>& centre) {
    MapGeometry geometry;
    geometry.points = points;
    geometry.spacing = spacing;
    const double halfSpan = (points - 1) / 2.0;
    double gridCentre[3];
    for (unsigned int axis = 0; axis < 3; ++axis) {
        // The first point at k s, as close as possible to centering the grid on the density.
        const long k = std::lround(centre[axis] / spacing - halfSpan);
        geometry.first[axis] = static_cast<int>(k);
        gridCentre[axis] = (static_cast<double>(k) + halfSpan) * spacing - centre[axis];
    }
    grid.SetCentre(static_cast<float>(gridCentre[0]), static_cast<float>(gridCentre[1]),
                   static_cast<float>(gridCentre[2]));
    return geometry;
}

}  // namespace

std::array<double, 3> MeanCentre(const std::vector<QVSystem::QVGaussian>& gaussians) {
    std::array<double, 3> sum = {0.0, 0.0, 0.0};
    for (const QVSystem::QVGaussian& g : gaussians) {
        sum[0] += g.GetX();
        sum[1] += g.GetY();
        sum[2] += g.GetZ();
    }
    const double count = gaussians.empty() ? 1.0 : static_cast<double>(gaussians.size());
    return {sum[0] / count, sum[1] / count, sum[2] / count};
}

std::vector<QVSystem::QVGaussian> Shifted(const std::vector<QVSystem::QVGaussian>& gaussians,
                                          const std::array<double, 3>& offset) {
    std::vector<QVSystem::QVGaussian> moved = gaussians;
    for (QVSystem::QVGaussian& g : moved) {
        g.SetX(static_cast<float>(g.GetX() - offset[0]));
        g.SetY(static_cast<float>(g.GetY() - offset[1]));
        g.SetZ(static_cast<float>(g.GetZ() - offset[2]));
    }
    return moved;
}

Density ExpandDensity(const QVChem::QVMol& molecule, const DensityRequest& request) {
    Density density;
    const std::vector<QVSystem::QVGaussian> shape = QVHermiteMath::QVMolToGaussians(molecule);
    if (request.centre) {
        density.centre = MeanCentre(shape);
    }
    density.optimalLambda = !request.lambda.has_value();

    QVHermiteMath::QVHermiteOptions options = ExpansionOptions(request.order, request.lambda);
    if (!request.electrostatics) {
        density.gaussians = Shifted(shape, density.centre);
        density.expansion.Setup(density.gaussians, options);
        return density;
    }

    std::optional<double> lambda = request.lambda;
    if (!lambda) {
        // The shape's optimal lambda, as the overlay expands electrostatic densities with.
        QVHermiteMath::QVHermite shapeExpansion;
        shapeExpansion.Setup(Shifted(shape, density.centre), options);
        lambda = options.GetLambda(0);
    }
    QVHermiteMath::QVHermiteOptions fixed = ExpansionOptions(request.order, lambda);
    density.gaussians =
        Shifted(QVHermiteMath::QVMolToElectroStaticGaussians(molecule, kElectrostaticWidth),
                density.centre);
    density.expansion.Setup(density.gaussians, fixed);
    return density;
}

MapGeometry Render(const Density& density, double spacing, QVSystem::QVScalarGrid& grid) {
    const double extent = density.expansion.GetExtent();
    RequireCoveringSpacing(extent, spacing);
    MapGeometry geometry =
        PlaceGrid(grid, PredictedGridSize(extent, spacing), spacing, density.centre);
    density.expansion.CreateGrid(grid, spacing, extent);
    if (grid.GetXDim() != geometry.points) {
        // The rendering chose another size than predicted: place and render again.
        geometry = PlaceGrid(grid, grid.GetXDim(), spacing, density.centre);
        density.expansion.CreateGrid(grid, spacing, extent);
    }
    return geometry;
}

}  // namespace hermite::cli
