// Timings of the superposition path: the overlap objective (value, and value with gradient) of
// two molecule-sized densities, and the expansion set-up with optimised lambdas.

#include <benchmark/benchmark.h>

#include <vector>

#include "bench_data.h"
#include "hermite/hermite.h"

namespace {

using QVHermiteMath::QVHermite;
using QVHermiteMath::QVHermiteOptions;
using QVHermiteMath::QVHermiteOverlap;
using namespace hermite_bench;

/// A reference and a fit of 25 Gaussians each, expanded at order N with lambda kLambda.
void SetUpOverlap(QVHermiteOverlap& overlap, unsigned int order) {
    QVHermiteOptions referenceOptions = FixedLambdaOptions(order);
    QVHermiteOptions fitOptions = FixedLambdaOptions(order);
    overlap.SetupRef(DrugLikeGaussians(1u), referenceOptions);
    overlap.Setup(DrugLikeGaussians(2u), fitOptions);
}

/// A generic pose: all three angles and translations non-zero.
constexpr double kPose[6] = {0.3, -0.7, 1.1, 0.4, -0.25, 0.6};

void BM_OverlapValue(benchmark::State& state) {
    QVHermiteOverlap overlap;
    SetUpOverlap(overlap, static_cast<unsigned int>(state.range(0)));
    for (auto _ : state) {
        benchmark::DoNotOptimize(overlap(kPose));
    }
}
BENCHMARK(BM_OverlapValue)->ArgName("N")->Arg(5)->Arg(6)->Arg(8)->Unit(benchmark::kMicrosecond);

void BM_OverlapValueAndGradient(benchmark::State& state) {
    QVHermiteOverlap overlap;
    SetUpOverlap(overlap, static_cast<unsigned int>(state.range(0)));
    double gradient[6];
    for (auto _ : state) {
        benchmark::DoNotOptimize(overlap(kPose, gradient));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_OverlapValueAndGradient)
    ->ArgName("N")
    ->Arg(5)
    ->Arg(6)
    ->Arg(8)
    ->Unit(benchmark::kMicrosecond);

/// Setup with optimised lambdas: argument 1 for one common lambda (BFGS), 3 for three (Newton).
void BM_SetupOptimalLambdas(benchmark::State& state) {
    const bool single = state.range(0) == 1;
    const std::vector<QVSystem::QVGaussian> gaussians = DrugLikeGaussians();
    for (auto _ : state) {
        QVHermiteOptions options;  // order 5, lambdas 1.0, optimised
        options.SetUseSingleLambda(single);
        QVHermite expansion;
        expansion.Setup(gaussians, options);
        benchmark::DoNotOptimize(expansion.GetSelfOverlap());
    }
}
BENCHMARK(BM_SetupOptimalLambdas)
    ->ArgName("lambdas")
    ->Arg(1)
    ->Arg(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace
