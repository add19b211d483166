// Expands the shape density of a small molecule (benzoic acid, heavy atoms) in Hermite functions
// of growing order and compares the truncated self-overlap with the exact one.
//
// Each heavy atom carries the carbon-sized shape Gaussian 2.7 * exp(-0.811151803 |r - r_atom|^2).
// The expansion is an orthogonal projection, so its self-overlap grows with the order N and
// approaches the exact self-overlap, the double sum of analytic pair overlaps, from below.
//
// Usage: self_overlap_convergence [lambda]   (basis scale in 1/angstrom, default 0.6)

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "hermite/hermite.h"

namespace {

/// Benzoic acid heavy atoms in a planar idealised geometry (angstrom): a regular ring of
/// C-C 1.39, the carboxyl carbon 1.49 from the ring, C=O 1.21 and C-O 1.36 at 120 degrees.
std::vector<QVSystem::QVGaussian> BenzoicAcidShape() {
    const double pi = 3.141592653589793;
    std::vector<std::vector<double>> atoms;
    for (int i = 0; i < 6; ++i) {
        const double angle = pi / 3.0 * i;
        atoms.push_back({1.39 * std::cos(angle), 1.39 * std::sin(angle), 0.0});
    }
    const double carboxylX = 1.39 + 1.49;
    atoms.push_back({carboxylX, 0.0, 0.0});
    atoms.push_back({carboxylX + 1.21 * std::cos(pi / 3.0), 1.21 * std::sin(pi / 3.0), 0.0});
    atoms.push_back({carboxylX + 1.36 * std::cos(pi / 3.0), -1.36 * std::sin(pi / 3.0), 0.0});

    std::vector<QVSystem::QVGaussian> gaussians;
    for (const auto& atom : atoms) {
        const float centre[3] = {static_cast<float>(atom[0]), static_cast<float>(atom[1]),
                                 static_cast<float>(atom[2])};
        gaussians.emplace_back(2.7f, 0.811151803f, centre, 0u);
    }
    return gaussians;
}

}  // namespace

int main(int argc, char** argv) {
    const double lambda = argc > 1 ? std::atof(argv[1]) : 0.6;
    if (!(lambda > 0.0) || !std::isfinite(lambda)) {
        std::fprintf(stderr, "self_overlap_convergence: lambda must be a positive number\n");
        return 2;
    }
    const std::vector<QVSystem::QVGaussian> shape = BenzoicAcidShape();
    const double exact = QVHermiteMath::GaussianOverlap(shape, shape);

    std::printf("Benzoic acid, %zu heavy-atom Gaussians, lambda %.3f\n", shape.size(), lambda);
    std::printf("exact self-overlap %.6f\n\n", exact);
    std::printf("%3s %14s %14s %10s\n", "N", "coefficients", "self-overlap", "of exact");
    for (unsigned int order = 2; order <= 12; ++order) {
        QVHermiteMath::QVHermiteOptions options;
        options.SetNPolyMax(order);
        for (unsigned int axis = 0; axis < 3; ++axis) {
            options.SetLambda(axis, lambda);
        }
        const QVHermiteMath::QVGaussianToHermite expansion(options, shape, 0);
        const double selfOverlap = expansion.GetSelfOverlap();
        std::printf("%3u %14zu %14.6f %9.4f%%\n", order, expansion.GetHermiteCoefficients().size(),
                    selfOverlap, 100.0 * selfOverlap / exact);
    }
    return 0;
}
