// Timings of the centring search and of grid rendering for a molecule-sized density.

#include <benchmark/benchmark.h>

#include <vector>

#include "bench_data.h"
#include "hermite/hermite.h"

namespace {

using QVHermiteMath::QVHermite;
using QVHermiteMath::QVHermiteOptions;
using namespace hermite_bench;

/// The Newton search of the Hermite centre of mass at order 5.
void BM_OptimizationSearchOfHermiteCOM(benchmark::State& state) {
    std::vector<QVSystem::QVGaussian> gaussians = DrugLikeGaussians();
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            QVHermiteMath::QVOptimizationSearchOfHermiteCOM(gaussians, 5, kLambda));
    }
}
BENCHMARK(BM_OptimizationSearchOfHermiteCOM)->Unit(benchmark::kMillisecond);

/// Rendering onto a 60 x 60 x 60 grid at order N: the spacing is chosen so that the size rule
/// gives 60 points per axis for this density's extent.
void BM_CreateGrid60(benchmark::State& state) {
    QVHermiteOptions options = FixedLambdaOptions(static_cast<unsigned int>(state.range(0)));
    QVHermite expansion;
    expansion.Setup(DrugLikeGaussians(), options);
    const double extent = expansion.GetExtent();
    const double spacing = (extent + 6.0) / 58.5;
    QVSystem::QVScalarGrid grid;
    for (auto _ : state) {
        expansion.CreateGrid(grid, spacing, extent);
        benchmark::DoNotOptimize(grid.GetValues().data());
    }
    if (grid.GetXDim() != 60) {
        state.SkipWithError("the grid does not have 60 points per axis");
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * 60 * 60 * 60);
}
BENCHMARK(BM_CreateGrid60)->ArgName("N")->Arg(5)->Arg(8)->Unit(benchmark::kMillisecond);

}  // namespace
