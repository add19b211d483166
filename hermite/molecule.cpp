// Densities of molecules: shape Gaussians (one carbon-sized Gaussian per atom) and
// electrostatic Gaussians (one Gaussian per atom of width w and height q / (sqrt(2 pi) w), the
// one-dimensional normal density scaled by the partial charge q; its integral is 2 pi w^2 q).

#include "hermite/hermite.h"

namespace QVHermiteMath {

namespace {

/// Height of the shape Gaussian of every atom.
const double CarbonPrefactor = 2.7;
/// Exponent (not a radius) of the shape Gaussian of every atom, in 1/angstrom^2.
const double CarbonWidth = 0.811151803;
/// 1 / sqrt(2 pi).
const double InverseSqrtTwoPi = 0.3989422804014327;

}  // namespace

std::vector<QVGaussian> makeGaussians(std::vector<double> prefactors, std::vector<double> exponents,
                                      std::vector<double> coords) {
    std::vector<QVGaussian> gaussians;
    gaussians.reserve(prefactors.size());
    for (std::size_t i = 0; i < prefactors.size(); ++i) {
        const float centre[3] = {static_cast<float>(coords[3 * i]),
                                 static_cast<float>(coords[3 * i + 1]),
                                 static_cast<float>(coords[3 * i + 2])};
        gaussians.emplace_back(static_cast<float>(prefactors[i]), static_cast<float>(exponents[i]),
                               centre, 0u);
    }
    return gaussians;
}

std::vector<QVGaussian> makeShapeGaussians(const std::vector<double>& coords) {
    const unsigned int count = static_cast<unsigned int>(coords.size() / 3);
    return makeGaussians(std::vector<double>(count, CarbonPrefactor),
                         std::vector<double>(count, CarbonWidth), coords);
}

std::vector<QVGaussian> makeElectrostaticGaussians(const std::vector<double>& coords,
                                                   const std::vector<double>& charges,
                                                   double width) {
    // q / (sqrt(2 pi) w) exp(-|r - p|^2 / (2 w^2)) per atom.
    const double height = InverseSqrtTwoPi / width;
    const double exponent = 0.5 / (width * width);
    const unsigned int count = static_cast<unsigned int>(coords.size() / 3);
    std::vector<double> prefactors(count);
    for (unsigned int i = 0; i < count; ++i) {
        prefactors[i] = height * charges[i];
    }
    return makeGaussians(std::move(prefactors), std::vector<double>(count, exponent), coords);
}

std::vector<QVGaussian> QVMolToGaussians(QVChem::QVMol mol) {
    std::vector<double> coords(3 * static_cast<std::size_t>(mol.NumAtoms()), 0.0);
    mol.GetCoords(coords.data());
    return makeShapeGaussians(coords);
}

std::vector<QVGaussian> QVMolToElectroStaticGaussians(QVChem::QVMol mol, double width) {
    const float exponent = static_cast<float>(0.5 / (width * width));
    const double height = InverseSqrtTwoPi / width;
    std::vector<QVGaussian> gaussians;
    gaussians.reserve(mol.NumAtoms());
    for (const QVChem::QVAtom& atom : mol) {
        float centre[3];
        atom.GetCoords(centre);
        gaussians.emplace_back(static_cast<float>(atom.GetPartialCharge() * height), exponent,
                               centre, 0u);
    }
    return gaussians;
}

}  // namespace QVHermiteMath
