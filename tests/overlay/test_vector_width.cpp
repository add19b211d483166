// The overlay's kernels give the same bits in narrow (SSE2) and wide (AVX2) vector registers:
// pair sums, field sampling and walks, and whole overlays on real ligands. Skipped on
// processors without AVX2, where only the narrow kernels run.

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "../support/test_support.h"
#include "cdk2_ligands.h"
#include "overlay/exact_overlap.h"
#include "overlay/fast_overlap.h"
#include "overlay/overlap_field.h"
#include "overlay/overlay.h"
#include "overlay/pair_overlap.h"
#include "overlay/vector_width.h"

namespace {

using hermite::overlay::ExactOverlapObjective;
using hermite::overlay::Expansion;
using hermite::overlay::KernelVectorWidth;
using hermite::overlay::OverlapField;
using hermite::overlay::Query;
using hermite::overlay::Result;
using hermite::overlay::SetKernelVectorWidth;
using hermite::overlay::Settings;
using hermite::overlay::VectorWidth;
using QVSystem::QVGaussian;

/// `run()` at each width, narrow first; the width is set back to wide (the default where the
/// processor has AVX2) afterwards.
template <class Run>
auto AtBothWidths(const Run& run) {
    SetKernelVectorWidth(VectorWidth::Narrow);
    EXPECT_EQ(KernelVectorWidth(), VectorWidth::Narrow);
    auto narrow = run();
    SetKernelVectorWidth(VectorWidth::Wide);
    auto wide = run();
    return std::make_pair(narrow, wide);
}

class VectorWidthTest : public ::testing::Test {
protected:
    void SetUp() override {
        SetKernelVectorWidth(VectorWidth::Wide);
        if (KernelVectorWidth() != VectorWidth::Wide) {
            GTEST_SKIP() << "the processor has no AVX2: only the narrow kernels run";
        }
    }
    void TearDown() override { SetKernelVectorWidth(VectorWidth::Wide); }
};

/// A cloud of carbon-sized Gaussians in a box of 8 x 6 x 5 angstrom.
std::vector<QVGaussian> Cloud(unsigned int count, std::uint32_t seed) {
    return hermite_test::MakeDensity(count, seed, 4.0f, 3.0f, 2.5f);
}

TEST_F(VectorWidthTest, PairSumsAreTheSame) {
    const std::vector<QVGaussian> a = Cloud(37, 1u), b = Cloud(53, 2u);
    const auto sums = AtBothWidths([&] {
        return std::vector<double>{hermite::overlay::PairOverlap(a, b),
                                   hermite::overlay::SelfOverlap(b)};
    });
    EXPECT_EQ(sums.first, sums.second);
    EXPECT_GT(sums.first[0], 0.0);
}

/// The expansions at the scan's shifts round each moved centre to single precision at either
/// width (a vectorised round trip from double to float and back must not be dropped).
TEST_F(VectorWidthTest, ExpansionsAtShiftsAreTheSame) {
    const std::vector<QVGaussian> gaussians = Cloud(23, 5u);
    const double lambda[3] = {0.5, 0.5, 0.5};
    const std::vector<std::array<double, 3>> shifts = {
        {0.0, 0.0, 0.0}, {-1.5, 0.0, 0.0}, {0.0, 1.5, 0.0}, {0.3, 0.0, -1.5}};
    const auto expansions = AtBothWidths([&] {
        std::vector<double> coefficients;
        for (const Expansion& e : Expansion::OfShifts(gaussians, 4, lambda, shifts)) {
            coefficients.insert(coefficients.end(), e.coefficients.begin(), e.coefficients.end());
        }
        return coefficients;
    });
    EXPECT_EQ(expansions.first, expansions.second);
    EXPECT_EQ(expansions.first.size(), 4u * 35u);
}

TEST_F(VectorWidthTest, NewtonStepsOnPairsAndOnTheFieldAreTheSame) {
    const std::vector<QVGaussian> fixed = Cloud(41, 3u), moving = Cloud(29, 4u);
    const double exponent = moving.front().GetExponent();
    const auto curvatures = AtBothWidths([&] {
        const ExactOverlapObjective objective(fixed, moving);
        const OverlapField field(fixed, exponent, 0.6, ExactOverlapObjective::kCutoff,
                                 std::size_t{1} << 20);
        std::vector<double> values(2 * 43);
        values[0] = objective.Curvature(&values[1], &values[7]);
        values[43] = objective.Curvature(field, &values[44], &values[50]);
        return values;
    });
    EXPECT_EQ(curvatures.first, curvatures.second);
    EXPECT_GT(curvatures.first[0], 0.0);
    EXPECT_GT(curvatures.first[43], 0.0);
}

/// Overlays of CDK2 ligands, refined on the pair sums and, with the field's threshold lowered
/// to drug-sized molecules, on the query's overlap field.
TEST_F(VectorWidthTest, OverlaysAreTheSame) {
    const std::vector<QVChem::QVMol>& ligands = hermite_test::Cdk2Ligands();
    for (const unsigned int fieldAtoms : {50u, 10u}) {
        Settings settings;
        settings.refineFieldAtoms = fieldAtoms;
        const auto results = AtBothWidths([&] {
            std::vector<double> values;
            for (std::size_t q = 0; q < 4; ++q) {
                const Query query(ligands[q], settings);
                for (std::size_t f = 4; f < 10; ++f) {
                    const Result result = query.Overlay(ligands[f]);
                    double rotation[9], translation[3];
                    result.transform.Extract(rotation, translation, true);
                    values.push_back(result.scores.shapeTanimoto);
                    values.insert(values.end(), rotation, rotation + 9);
                    values.insert(values.end(), translation, translation + 3);
                }
            }
            return values;
        });
        EXPECT_EQ(results.first, results.second) << "field from " << fieldAtoms << " atoms";
    }
}

}  // namespace
