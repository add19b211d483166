// Expanding one molecule's shape or electrostatic density for `hermite grid` and `expand`.

#include "cli/density.h"

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

}  // namespace hermite::cli
