// The densities and settings shared by the benchmarks.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include "hermite/hermite.h"

namespace hermite_bench {

constexpr unsigned int kGaussianCount = 25;
constexpr float kPrefactor = 2.7f;
constexpr float kExponent = 0.811151803f;
constexpr float kBoxEdge = 6.0f;  // angstrom
/// About the optimal single lambda of a 25-heavy-atom ligand at order 5.
constexpr double kLambda = 0.56;

/// A fixed drug-like arrangement of kGaussianCount carbon-sized Gaussians: centres spread over
/// a box of edge kBoxEdge centred on the origin. The raw engine output is scaled by hand (the
/// standard distributions differ between standard libraries), so every run and every platform
/// times the same density. Different seeds give different molecules.
inline std::vector<QVSystem::QVGaussian> DrugLikeGaussians(std::uint32_t seed = 20240611u) {
    std::mt19937 engine(seed);
    const auto coordinate = [&engine] {
        const double unit = static_cast<double>(engine()) / 4294967296.0;  // [0, 1)
        return static_cast<float>(kBoxEdge * (unit - 0.5));
    };
    std::vector<QVSystem::QVGaussian> gaussians;
    gaussians.reserve(kGaussianCount);
    for (unsigned int i = 0; i < kGaussianCount; ++i) {
        const float x = coordinate();
        const float y = coordinate();
        const float z = coordinate();
        const float centre[3] = {x, y, z};
        gaussians.emplace_back(kPrefactor, kExponent, centre, i);
    }
    return gaussians;
}

/// Options of order N with all three lambdas kLambda, used as they are.
inline QVHermiteMath::QVHermiteOptions FixedLambdaOptions(unsigned int order) {
    QVHermiteMath::QVHermiteOptions options;
    options.SetNPolyMax(order);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        options.SetLambda(axis, kLambda);
    }
    options.SetUseOptimalLambdas(false);
    return options;
}

}  // namespace hermite_bench
