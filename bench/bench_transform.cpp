// Timings of the Gaussian-to-Hermite transform for a molecule-sized density: 25 Gaussians at the
// expansion orders used in practice, for every derivative flag.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "bench_data.h"
#include "hermite/hermite.h"

namespace {

using QVHermiteMath::QVGaussianToHermite;
using QVHermiteMath::QVHermiteOptions;
using QVSystem::QVGaussian;
using namespace hermite_bench;

/// Arguments: the order N and the derivative flag (QVTransformFlag, 0 to 4).
void BM_GaussianToHermite(benchmark::State& state) {
    const auto order = static_cast<unsigned int>(state.range(0));
    const auto flag = static_cast<unsigned int>(state.range(1));

    const QVHermiteOptions options = FixedLambdaOptions(order);
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
