// The sampled overlap field against the exact sums of its terms (value, gradient, Hessian), the
// order of its sampling error, its edges, and the refinement that walks on it.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <thread>
#include <vector>

#include "../support/test_support.h"
#include "cdk2_ligands.h"
#include "overlay/exact_overlap.h"
#include "overlay/overlap_field.h"
#include "overlay/overlay.h"

namespace {

using hermite::overlay::ExactOverlapObjective;
using hermite::overlay::OverlapField;
using hermite::overlay::Query;
using hermite::overlay::Result;
using hermite::overlay::Settings;
using QVSystem::QVGaussian;

using hermite_test::kPi;
constexpr double kCutoff = ExactOverlapObjective::kCutoff;

/// The field of `fixed` at x for moving Gaussians of exponent a, every term summed with std::exp:
/// value, gradient (3) and Hessian (upper triangle, 6).
double ExactField(const std::vector<QVGaussian>& fixed, double a, const double* x, double* g,
                  double* H) {
    double value = 0.0;
    std::fill(g, g + 3, 0.0);
    std::fill(H, H + 6, 0.0);
    for (const QVGaussian& q : fixed) {
        const double p = q.GetExponent() + a;
        const double C = q.GetPrefactor() * std::pow(kPi / p, 1.5);
        const double k = q.GetExponent() * a / p;
        const double d[3] = {q.GetX() - x[0], q.GetY() - x[1], q.GetZ() - x[2]};
        const double T = C * std::exp(-k * (d[0] * d[0] + d[1] * d[1] + d[2] * d[2]));
        const double s = 2 * k * T;
        value += T;
        int i = 0;
        for (int r = 0; r < 3; ++r) {
            g[r] += s * d[r];
            for (int c = r; c < 3; ++c, ++i) {
                H[i] += 2 * k * s * d[r] * d[c] - (r == c ? s : 0.0);
            }
        }
    }
    return value;
}

/// The largest errors of the field's value, gradient and Hessian against the exact sums at
/// `count` random points of the box [-6, 6]^3 (seeded), relative to the largest exact value,
/// gradient component and Hessian entry seen.
struct FieldErrors {
    double value = 0.0;
    double gradient = 0.0;
    double hessian = 0.0;
};

FieldErrors ErrorsOf(const OverlapField& field, const std::vector<QVGaussian>& fixed, double a,
                     unsigned int count) {
    std::mt19937 engine(11);
    std::uniform_real_distribution<double> coordinate(-6.0, 6.0);
    double error[3] = {0, 0, 0}, scale[3] = {0, 0, 0};
    for (unsigned int n = 0; n < count; ++n) {
        const double x[3] = {coordinate(engine), coordinate(engine), coordinate(engine)};
        double g[3], H[6], eg[3], eH[6];
        const double value = field.At(x, g, H);
        const double exact = ExactField(fixed, a, x, eg, eH);
        error[0] = std::max(error[0], std::abs(value - exact));
        scale[0] = std::max(scale[0], std::abs(exact));
        for (int i = 0; i < 3; ++i) {
            error[1] = std::max(error[1], std::abs(g[i] - eg[i]));
            scale[1] = std::max(scale[1], std::abs(eg[i]));
        }
        for (int i = 0; i < 6; ++i) {
            error[2] = std::max(error[2], std::abs(H[i] - eH[i]));
            scale[2] = std::max(scale[2], std::abs(eH[i]));
        }
    }
    return {error[0] / scale[0], error[1] / scale[1], error[2] / scale[2]};
}

/// A drug-sized shape: 25 carbon Gaussians in a 4 x 3 x 2 angstrom box.
std::vector<QVGaussian> Shape() {
    return hermite_test::MakeDensity(25, 5u, 4.0f, 3.0f, 2.0f);
}

TEST(OverlapFieldTest, ApproachesTheExactSumsAtTheOrderOfTheTaylorExpansion) {
    const std::vector<QVGaussian> fixed = Shape();
    const double a = fixed.front().GetExponent();
    const FieldErrors coarse =
        ErrorsOf(OverlapField(fixed, a, 0.4, kCutoff, 1u << 22), fixed, a, 2000);
    const FieldErrors fine =
        ErrorsOf(OverlapField(fixed, a, 0.2, kCutoff, 1u << 22), fixed, a, 2000);
    // Halving the spacing divides the value's error by about 8 (h^3), the gradient's by 4 (h^2)
    // and the Hessian's by 2 (h).
    EXPECT_LT(fine.value, coarse.value / 5);
    EXPECT_LT(fine.gradient, coarse.gradient / 3);
    EXPECT_LT(fine.hessian, coarse.hessian / 1.6);
    // At the spacing the refinement uses, the value is within a few percent of the largest,
    // the gradient within a fifth.
    const FieldErrors used =
        ErrorsOf(OverlapField(fixed, a, 0.6, kCutoff, 1u << 22), fixed, a, 2000);
    EXPECT_LT(used.value, 0.03);
    EXPECT_LT(used.gradient, 0.2);
    EXPECT_GT(used.value, fine.value);  // the errors are real: the comparison can fail
}

TEST(OverlapFieldTest, TakesAnyFixedPrefactorsAndExponents) {
    std::vector<QVGaussian> fixed;
    const float exponents[3] = {0.836f, 0.905f, 1.1f};
    const std::vector<QVGaussian> centres = Shape();
    for (std::size_t i = 0; i < centres.size(); ++i) {
        const float centre[3] = {centres[i].GetX(), centres[i].GetY(), centres[i].GetZ()};
        fixed.emplace_back(static_cast<float>(i % 4) - 1.0f, exponents[i % 3], centre, 0u);
    }
    const double a = 0.7;
    const FieldErrors errors =
        ErrorsOf(OverlapField(fixed, a, 0.15, kCutoff, 1u << 23), fixed, a, 500);
    EXPECT_LT(errors.value, 2e-3);
    EXPECT_LT(errors.gradient, 2e-2);
}

TEST(OverlapFieldTest, IsZeroBeyondTheReachOfEveryTerm) {
    const std::vector<QVGaussian> fixed = Shape();
    const double a = fixed.front().GetExponent();
    const OverlapField field(fixed, a, 0.5, kCutoff, 1u << 22);
    ASSERT_FALSE(field.Empty());
    double g[3], H[6];
    const double far[3] = {40.0, 0.0, 0.0};
    EXPECT_EQ(field.At(far, g, H), 0.0);
    EXPECT_EQ(g[0], 0.0);
    EXPECT_EQ(H[0], 0.0);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double notAPoint[3] = {nan, 0.0, 0.0};
    EXPECT_EQ(field.At(notAPoint, g, H), 0.0);
    const double inf = std::numeric_limits<double>::infinity();
    const double infinite[3] = {0.0, -inf, 0.0};
    EXPECT_EQ(field.At(infinite, g, H), 0.0);
}

TEST(OverlapFieldTest, IsEmptyWhenItWouldNeedTooManyPointsOrHasNoTerms) {
    const std::vector<QVGaussian> fixed = Shape();
    const double a = fixed.front().GetExponent();
    const OverlapField tooLarge(fixed, a, 0.5, kCutoff, 1000);
    EXPECT_TRUE(tooLarge.Empty());
    double g[3], H[6];
    const double centre[3] = {0.0, 0.0, 0.0};
    EXPECT_EQ(tooLarge.At(centre, g, H), 0.0);  // no samples to read
    EXPECT_TRUE(OverlapField({}, a, 0.5, kCutoff, 1u << 22).Empty());
    EXPECT_TRUE(OverlapField(fixed, a, 0.0, kCutoff, 1u << 22).Empty());
    EXPECT_TRUE(OverlapField(fixed, -1.0, 0.5, kCutoff, 1u << 22).Empty());
    EXPECT_TRUE(OverlapField().Empty());
}

/// The largest differences of the value, gradient and translation block of the Hessian of
/// `Curvature` on a field of spacing h from those on the exact pair sums, relative to the
/// largest exact magnitudes.
FieldErrors CurvatureErrors(ExactOverlapObjective& objective, const std::vector<QVGaussian>& fixed,
                            double exponent, double h) {
    double g[6], H[36], fg[6], fH[36];
    const double exact = objective.Curvature(g, H);
    const OverlapField field(fixed, exponent, h, kCutoff, 1u << 24);
    const double sampled = objective.Curvature(field, fg, fH);
    FieldErrors errors;
    errors.value = std::abs(sampled - exact) / exact;
    double gScale = 0.0, hScale = 0.0;
    for (int i = 0; i < 6; ++i) {
        gScale = std::max(gScale, std::abs(g[i]));
        errors.gradient = std::max(errors.gradient, std::abs(fg[i] - g[i]));
    }
    for (int i = 0; i < 36; ++i) {
        EXPECT_EQ(fH[i], fH[6 * (i % 6) + i / 6]) << i;  // symmetric
        if (i / 6 >= 3 && i % 6 >= 3) {
            hScale = std::max(hScale, std::abs(H[i]));
            errors.hessian = std::max(errors.hessian, std::abs(fH[i] - H[i]));
        }
    }
    errors.gradient /= gScale;
    errors.hessian /= hScale;
    return errors;
}

// The refinement's objective on the field: the same rigid-motion derivatives as on the exact
// pair sums, from the field's per-centre values, converging with the spacing. The Hessian is
// the nearest sample's, off by O(h), and in the angles' block by that times the squared lever
// arms (a quarter of the largest entry at h = 0.1 here): good enough to choose Newton steps,
// whose trial values the walk compares before it takes them.
TEST(OverlapFieldTest, CurvatureOnTheFieldConvergesToTheExactCurvature) {
    const std::vector<QVGaussian> fixed = Shape();
    const std::vector<QVGaussian> moving = hermite_test::MakeDensity(18, 6u, 3.5f, 2.5f, 2.0f);
    ExactOverlapObjective objective(fixed, moving);
    const double turn[6] = {0.2, -0.1, 0.3, 0.5, -0.4, 0.3};
    objective.SetMoving(hermite::overlay::MovedGaussians(moving, objective.Motion(turn)));
    const double exponent = moving.front().GetExponent();
    const FieldErrors coarse = CurvatureErrors(objective, fixed, exponent, 0.3);
    const FieldErrors fine = CurvatureErrors(objective, fixed, exponent, 0.1);
    EXPECT_LT(fine.value, 1e-3);
    EXPECT_LT(fine.gradient, 1e-2);
    EXPECT_LT(fine.hessian, 5e-2);
    EXPECT_LT(fine.value, coarse.value);
    EXPECT_LT(fine.gradient, coarse.gradient);
    EXPECT_LT(fine.hessian, coarse.hessian);
}

/// Settings that refine every CDK2 pair on the query's field (the default keeps the field for
/// molecules of 50 atoms and more).
Settings OnTheField() {
    Settings settings;
    settings.refineFieldAtoms = 1;
    return settings;
}

// Walking on the field reaches the poses of the exact walk, without a pair sum.
TEST(OverlayOnFieldTest, ReachesThePosesOfTheExactRefinement) {
    const std::vector<QVChem::QVMol>& ligands = hermite_test::Cdk2Ligands();
    Settings exactOnly;
    exactOnly.refineFieldSpacing = 0.0;
    double fieldSum = 0.0, exactSum = 0.0;
    unsigned int pairs = 0;
    for (std::size_t q = 0; q < 5; ++q) {
        const Query onField(ligands[q], OnTheField()), exact(ligands[q], exactOnly);
        for (std::size_t f = 20; f < 28; ++f) {
            const Result a = onField.Overlay(ligands[f]);
            const Result b = exact.Overlay(ligands[f]);
            EXPECT_GT(a.scores.shapeTanimoto, b.scores.shapeTanimoto - 0.02) << q << ", " << f;
            EXPECT_EQ(a.exactEvaluations, 0u) << q << ", " << f;
            fieldSum += a.scores.shapeTanimoto;
            exactSum += b.scores.shapeTanimoto;
            ++pairs;
        }
    }
    EXPECT_NEAR(fieldSum / pairs, exactSum / pairs, 2e-3);
}

// The query is fixed on the field whichever molecule the search turned: the overlay of f onto
// q is still the one of q onto f.
TEST(OverlayOnFieldTest, QueryAndFitCanExchangeRoles) {
    const std::vector<QVChem::QVMol>& ligands = hermite_test::Cdk2Ligands();
    unsigned int symmetric = 0, pairs = 0;
    for (std::size_t q = 0; q < 4; ++q) {
        for (std::size_t f = 30; f < 34; ++f) {
            const double forward =
                Query(ligands[q], OnTheField()).Overlay(ligands[f]).scores.shapeTanimoto;
            const double backward =
                Query(ligands[f], OnTheField()).Overlay(ligands[q]).scores.shapeTanimoto;
            symmetric += std::abs(forward - backward) <= 0.01 ? 1 : 0;
            ++pairs;
        }
    }
    EXPECT_GE(symmetric, pairs - 1);
}

// The field is sampled by whichever overlay first needs it; overlays running at once on one
// query get the results of overlays run one after another.
TEST(OverlayOnFieldTest, ThreadsSharingAQueryGetTheSequentialResults) {
    const std::vector<QVChem::QVMol>& ligands = hermite_test::Cdk2Ligands();
    std::vector<double> sequential;
    {
        const Query query(ligands[3], OnTheField());
        for (std::size_t f = 10; f < 18; ++f) {
            sequential.push_back(query.Overlay(ligands[f]).scores.shapeTanimoto);
        }
    }
    const Query shared(ligands[3], OnTheField());
    std::vector<double> parallel(sequential.size());
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (std::size_t i = t; i < parallel.size(); i += 4) {
                parallel[i] = shared.Overlay(ligands[10 + i]).scores.shapeTanimoto;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (std::size_t i = 0; i < sequential.size(); ++i) {
        EXPECT_EQ(parallel[i], sequential[i]) << i;
    }
}

// Molecules below the size of Settings::refineFieldAtoms keep the exact walk bit for bit.
TEST(OverlayOnFieldTest, SmallMoleculesKeepTheExactRefinement) {
    const std::vector<QVChem::QVMol>& ligands = hermite_test::Cdk2Ligands();
    Settings exactOnly;
    exactOnly.refineFieldSpacing = 0.0;
    const Query byDefault(ligands[1], Settings()), exact(ligands[1], exactOnly);
    for (std::size_t f = 5; f < 9; ++f) {
        const Result a = byDefault.Overlay(ligands[f]);
        const Result b = exact.Overlay(ligands[f]);
        EXPECT_EQ(a.scores.shapeTanimoto, b.scores.shapeTanimoto) << f;
        EXPECT_EQ(a.exactEvaluations, b.exactEvaluations) << f;
    }
}

}  // namespace
