// Timings of the Gaussian-to-Hermite transform for a molecule-sized density: 25 Gaussians at the
// expansion orders used in practice, for every derivative flag.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "hermite/hermite.h"

namespace {

using QVHermiteMath::QVGaussianToHermite;
using QVHermiteMath::QVHermiteOptions;
using QVSystem::QVGaussian;

constexpr unsigned int kGaussianCount = 25;
constexpr float kPrefactor = 2.7f;
constexpr float kExponent = 0.811151803f;
constexpr float kBoxEdge = 6.0f;  // angstrom
constexpr double kLambda = 0.56;

/// A fixed drug-like arrangement: centres spread over a box of edge kBoxEdge centred on the
/// origin. The raw engine output is scaled by hand (the standard distributions are not the same
/// on every standard library), so every run and every platform times the same density.
std::vector<QVGaussian> DrugLikeGaussians() {
    std::mt19937 engine(20240611u);
    const auto coordinate = [&engine] {
        const double unit = static_cast<double>(engine()) / 4294967296.0;  // [0, 1)
        return static_cast<float>(kBoxEdge * (unit - 0.5));
    };
    std::vector<QVGaussian> gaussians;
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

/// Arguments: the order N and the derivative flag (QVTransformFlag, 0 to 4).
void BM_GaussianToHermite(benchmark::State& state) {
    const auto order = static_cast<unsigned int>(state.range(0));
    const auto flag = static_cast<unsigned int>(state.range(1));

    QVHermiteOptions options;
    options.SetNPolyMax(order);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        options.SetLambda(axis, kLambda);
    }
    const std::vector<QVGaussian> gaussians = DrugLikeGaussians();

    for (auto _ : state) {
        const QVGaussianToHermite transform(options, gaussians, flag);
        benchmark::DoNotOptimize(transform.GetHermiteCoefficients().data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) *
                            static_cast<std::int64_t>(gaussians.size()));
}

BENCHMARK(BM_GaussianToHermite)
    ->ArgNames({"N", "flag"})
    ->ArgsProduct({{5, 8, 12}, {0, 1, 2, 3, 4}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
