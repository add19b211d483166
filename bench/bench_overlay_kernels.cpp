// Timings of the overlay driver's inner objectives: the fused Hermite overlap (value with
// gradient) that the local searches evaluate, the exact overlap (value with gradient, and
// with its Hessian for the refinement's Newton steps, on the pair sums and on a sampled
// overlap field), and the exact pair sums that score a pose, on molecule-sized densities. The
// kernels that pick their vector width at run time are timed at both ("wide" 0 for SSE2, 1 for
// AVX2, skipped on processors without it): the same results, in less time.

#include <benchmark/benchmark.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "bench_data.h"
#include "overlay/exact_overlap.h"
#include "overlay/expansion_turn.h"
#include "overlay/fast_overlap.h"
#include "overlay/newton_step.h"
#include "overlay/overlap_field.h"
#include "overlay/pair_overlap.h"
#include "overlay/vector_width.h"

namespace {

using hermite::overlay::ExactOverlapObjective;
using hermite::overlay::Expansion;
using hermite::overlay::FastOverlap;
using hermite::overlay::OverlapField;
using hermite::overlay::VectorWidth;
using namespace hermite_bench;

/// Sets the kernels' vector width for the benchmark's run from its argument `index` (0 narrow,
/// 1 wide) until it ends; false, with the run skipped, when the processor cannot run it.
class KernelWidth {
public:
    KernelWidth(benchmark::State& state, int index) {
        const bool wide = state.range(index) == 1;
        hermite::overlay::SetKernelVectorWidth(wide ? VectorWidth::Wide : VectorWidth::Narrow);
        usable_ = !wide || hermite::overlay::KernelVectorWidth() == VectorWidth::Wide;
        if (!usable_) {
            state.SkipWithError("the processor has no AVX2");
        }
    }
    ~KernelWidth() { hermite::overlay::SetKernelVectorWidth(VectorWidth::Wide); }
    KernelWidth(const KernelWidth&) = delete;
    KernelWidth& operator=(const KernelWidth&) = delete;

    bool Usable() const { return usable_; }

private:
    bool usable_ = true;
};

/// A peptide-sized chain of `count` carbon-sized Gaussians, 1.5 angstrom apart along a helix of
/// radius 3 angstrom rising 0.4 angstrom per Gaussian.
std::vector<QVSystem::QVGaussian> ChainGaussians(unsigned int count) {
    const QVSystem::QVGaussian atom = DrugLikeGaussians().front();
    std::vector<QVSystem::QVGaussian> chain;
    for (unsigned int i = 0; i < count; ++i) {
        const double turn = 0.5 * i;
        const float centre[3] = {static_cast<float>(3.0 * std::cos(turn)),
                                 static_cast<float>(3.0 * std::sin(turn)),
                                 static_cast<float>(0.4 * i)};
        chain.emplace_back(atom.GetPrefactor(), atom.GetExponent(), centre, 0u);
    }
    return chain;
}

/// The density a benchmark argument names: 0 a drug-sized molecule, else a chain of that many
/// Gaussians (see ChainGaussians).
std::vector<QVSystem::QVGaussian> DensityOfArgument(std::int64_t atoms) {
    return atoms == 0 ? DrugLikeGaussians(1u) : ChainGaussians(static_cast<unsigned int>(atoms));
}

/// A generic pose: all three angles and translations non-zero.
constexpr double kPose[6] = {0.3, -0.7, 1.1, 0.4, -0.25, 0.6};

void BM_FastOverlapValueAndGradient(benchmark::State& state) {
    const unsigned int order = static_cast<unsigned int>(state.range(0));
    const double lambda[3] = {kLambda, kLambda, kLambda};
    FastOverlap objective(Expansion::Of(DrugLikeGaussians(1u), order, lambda),
                          Expansion::Of(DrugLikeGaussians(2u), order, lambda));
    double gradient[6];
    for (auto _ : state) {
        benchmark::DoNotOptimize(objective(kPose, gradient));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_FastOverlapValueAndGradient)->ArgName("N")->Arg(2)->Arg(4)->Arg(6);

// An orientation scan turns a query's expansions (one per scan shift) by every scanned rotation:
// the map of one generic rotation, and its product with one expansion.
void BM_TurnMap(benchmark::State& state) {
    const hermite::overlay::ExpansionTurn turn(static_cast<unsigned int>(state.range(0)));
    // The rotation of the unit quaternion (0.8, 0.2, -0.4, 0.4).
    const double w = 0.8, x = 0.2, y = -0.4, z = 0.4;
    const double R[9] = {1 - 2 * (y * y + z * z), 2 * (x * y - w * z),     2 * (x * z + w * y),
                         2 * (x * y + w * z),     1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
                         2 * (x * z - w * y),     2 * (y * z + w * x),     1 - 2 * (x * x + y * y)};
    for (auto _ : state) {
        benchmark::DoNotOptimize(turn.MapOf(R));
    }
}
BENCHMARK(BM_TurnMap)->ArgName("N")->Arg(4)->Arg(6);

void BM_TurnExpansion(benchmark::State& state) {
    const unsigned int order = static_cast<unsigned int>(state.range(0));
    const hermite::overlay::ExpansionTurn turn(order);
    const double lambda[3] = {1.6, 1.6, 1.6};
    const Expansion expansion = Expansion::Of(DrugLikeGaussians(1u), order, lambda);
    const double R[9] = {0.36, 0.48, -0.8, -0.8, 0.6, 0.0, 0.48, 0.64, 0.6};
    const std::vector<double> map = turn.MapOf(R);
    std::vector<double> turned(turn.Size());
    for (auto _ : state) {
        turn.Apply(map.data(), expansion.coefficients.data(), turned.data());
        benchmark::DoNotOptimize(turned.data());
    }
}
BENCHMARK(BM_TurnExpansion)->ArgName("N")->Arg(4)->Arg(6);

// A fit's expansions at seven shifts (at rest and 1.5 angstrom both ways along each axis; the
// scan takes five, along x and y), made once per fit: a drug-sized density (0) and a 70-atom
// chain (70).
void BM_ExpansionsAtShifts(benchmark::State& state) {
    const KernelWidth width(state, 1);
    const std::vector<QVSystem::QVGaussian> gaussians = DensityOfArgument(state.range(0));
    const double lambda[3] = {1.6, 1.6, 1.6};
    std::vector<std::array<double, 3>> shifts = {{0.0, 0.0, 0.0}};
    for (unsigned int axis = 0; axis < 3; ++axis) {
        for (const double sign : {-1.0, 1.0}) {
            std::array<double, 3> shift = {0.0, 0.0, 0.0};
            shift[axis] = 1.5 * sign;
            shifts.push_back(shift);
        }
    }
    for (auto _ : state) {
        if (!width.Usable()) {
            break;
        }
        benchmark::DoNotOptimize(Expansion::OfShifts(gaussians, 4, lambda, shifts));
    }
}
BENCHMARK(BM_ExpansionsAtShifts)->ArgNames({"atoms", "wide"})->ArgsProduct({{0, 70}, {0, 1}});

void BM_ExactOverlapValueAndGradient(benchmark::State& state) {
    ExactOverlapObjective objective(DrugLikeGaussians(1u), DrugLikeGaussians(2u));
    double gradient[6];
    for (auto _ : state) {
        benchmark::DoNotOptimize(objective(kPose, gradient));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_ExactOverlapValueAndGradient);

// One Newton step's worth of the exact refinement: value, gradient and Hessian.
void BM_ExactOverlapCurvature(benchmark::State& state) {
    const KernelWidth width(state, 0);
    const ExactOverlapObjective objective(DrugLikeGaussians(1u), DrugLikeGaussians(2u));
    double gradient[6], hessian[36];
    for (auto _ : state) {
        if (!width.Usable()) {
            break;
        }
        benchmark::DoNotOptimize(objective.Curvature(gradient, hessian));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_ExactOverlapCurvature)->ArgName("wide")->Arg(0)->Arg(1);

// The same on the fixed density's sampled overlap field (0.6 angstrom), and the sampling, done
// once per query.
void BM_FieldOverlapCurvature(benchmark::State& state) {
    const KernelWidth width(state, 0);
    const std::vector<QVSystem::QVGaussian> fixed = DrugLikeGaussians(1u);
    const std::vector<QVSystem::QVGaussian> moving = DrugLikeGaussians(2u);
    const ExactOverlapObjective objective(fixed, moving);
    const OverlapField field(fixed, moving.front().GetExponent(), 0.6,
                             ExactOverlapObjective::kCutoff, std::size_t{1} << 20);
    double gradient[6], hessian[36];
    for (auto _ : state) {
        if (!width.Usable()) {
            break;
        }
        benchmark::DoNotOptimize(objective.Curvature(field, gradient, hessian));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_FieldOverlapCurvature)->ArgName("wide")->Arg(0)->Arg(1);

// The sampling of a query's field, done once per query: a drug-sized density (0) and a
// 70-atom chain (70).
void BM_SampleOverlapField(benchmark::State& state) {
    const KernelWidth width(state, 1);
    const std::vector<QVSystem::QVGaussian> fixed = DensityOfArgument(state.range(0));
    for (auto _ : state) {
        if (!width.Usable()) {
            break;
        }
        const OverlapField field(fixed, fixed.front().GetExponent(), 0.6,
                                 ExactOverlapObjective::kCutoff, std::size_t{1} << 20);
        benchmark::DoNotOptimize(field.Empty());
    }
}
BENCHMARK(BM_SampleOverlapField)
    ->ArgNames({"atoms", "wide"})
    ->ArgsProduct({{0, 70}, {0, 1}})
    ->Unit(benchmark::kMicrosecond);

// The exact overlap of two densities as a pose is scored, summed over every pair of Gaussians
// by the overlay's vectorised pair sum (self 0), and the self-overlap of one (self 1), each pair
// taken once: of drug-sized densities (atoms 0) and of 70-atom chains, the second chain the
// first moved by half a bond.
void BM_PairOverlap(benchmark::State& state) {
    const KernelWidth width(state, 2);
    const std::vector<QVSystem::QVGaussian> a =
        state.range(0) == 0 ? DrugLikeGaussians(1u) : DensityOfArgument(state.range(0));
    std::vector<QVSystem::QVGaussian> b = state.range(0) == 0 ? DrugLikeGaussians(2u) : a;
    if (state.range(0) != 0) {
        for (QVSystem::QVGaussian& g : b) {
            g.SetX(g.GetX() + 0.75f);
        }
    }
    const bool self = state.range(1) == 1;
    for (auto _ : state) {
        if (!width.Usable()) {
            break;
        }
        benchmark::DoNotOptimize(self ? hermite::overlay::SelfOverlap(a)
                                      : hermite::overlay::PairOverlap(a, b));
    }
}
BENCHMARK(BM_PairOverlap)
    ->ArgNames({"atoms", "self", "wide"})
    ->ArgsProduct({{0, 70}, {0, 1}, {0, 1}});

// A Newton step of the refinement where the overlap is not concave (a Hessian with eigenvalues
// of both signs): the Cholesky factorisation fails, and the step comes from the eigenvectors,
// by the overlay's own 6 x 6 solver (solver 0) or by Eigen's general one (1).
void BM_NewtonStepNotConcave(benchmark::State& state) {
    std::mt19937 engine(9u);
    std::normal_distribution<double> normal;
    hermite::overlay::Matrix6 A;
    hermite::overlay::Vector6 g;
    for (int i = 0; i < 36; ++i) {
        A.data()[i] = normal(engine);
    }
    for (int i = 0; i < 6; ++i) {
        g[i] = normal(engine);
    }
    const hermite::overlay::Matrix6 H = A + A.transpose();
    for (auto _ : state) {
        if (state.range(0) == 0) {
            benchmark::DoNotOptimize(hermite::overlay::NewtonAscent(g, H, 1.0));
        } else {
            benchmark::DoNotOptimize(
                Eigen::SelfAdjointEigenSolver<hermite::overlay::Matrix6>(-H).eigenvectors());
        }
    }
}
BENCHMARK(BM_NewtonStepNotConcave)->ArgName("solver")->Arg(0)->Arg(1);

void BM_TermByTermOverlap(benchmark::State& state) {
    const std::vector<QVSystem::QVGaussian> a = DrugLikeGaussians(1u), b = DrugLikeGaussians(2u);
    for (auto _ : state) {
        benchmark::DoNotOptimize(QVHermiteMath::GaussianOverlap(a, b));
    }
}
BENCHMARK(BM_TermByTermOverlap);

}  // namespace
