// Tests of the lambda objective: the negated self-overlap -S of the Hermite expansion of a fixed
// density, as a function of the natural logarithms of the lambdas.
//
// Mathematics used as the oracle. For lambdas (lx, ly, lz) the expansion's self-overlap is
//     S(lx, ly, lz) = (1 / (lx ly lz)) sum over l+m+n <= N of c_lmn^2 K_l K_m K_n,
// which the Gaussian-to-Hermite transform computes for any fixed lambdas. The objective's
// variables are x_i = log lambda_i, so by the chain rule
//     d(-S)/dx_i = -lambda_i dS/dlambda_i,
//     d2(-S)/dx_i dx_j = -(lambda_i lambda_j d2S/dlambda_i dlambda_j + delta_ij lambda_i
//     dS/dlambda_i).
// Instead of re-deriving these from the transform's own derivative routines, the tests compare
// the objective's analytic derivatives with central differences of its values (and of its
// gradients for the Hessian): those are independent of every derivative formula.
//
// With one variable a single lambda exp(x_0) serves all three axes; with three, axis i uses
// exp(x_i). A density whose extent differs along the axes makes the three axes distinguishable.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "hermite/hermite.h"
#include "qv/error.h"
#include "support/test_support.h"

namespace {

using QVHermiteMath::QVGaussian;
using QVHermiteMath::QVGaussianToHermite;
using QVHermiteMath::QVHermiteOptions;
using QVHermiteMath::QVHermiteSelfOverlap;

using hermite_test::CentralDifference;
using hermite_test::FixedOptions;
using hermite_test::MakeDensity;
using hermite_test::MessageRecorder;
using hermite_test::Packed;

// The self-overlap of the transform built with the given lambdas and the other settings of
// `base`: the quantity the objective must negate.
double TransformSelfOverlap(const QVHermiteOptions& base, const std::vector<QVGaussian>& gaussians,
                            double lx, double ly, double lz) {
    QVHermiteOptions options(base);
    options.SetLambda(0, lx);
    options.SetLambda(1, ly);
    options.SetLambda(2, lz);
    const QVGaussianToHermite transform(options, gaussians, QVHermiteMath::NoDerivatives);
    return transform.GetSelfOverlap();
}

class SelfOverlapObjectiveTest : public ::testing::Test {
protected:
    // Nine Gaussians spread most along x and least along z: the optimal lambdas and the
    // derivatives of S differ from axis to axis.
    std::vector<QVGaussian> density_ = MakeDensity(9, 20240611u, 1.8f, 1.2f, 0.6f);
};

// ---------------------------------------------------------------------------------------------
// Number of variables and the lambdas each evaluation uses

TEST_F(SelfOverlapObjectiveTest, NumVarIsOneWithSingleLambdaAndThreeOtherwise) {
    QVHermiteSelfOverlap single(FixedOptions(5, 1.0, 1.0, 1.0, true), density_);
    QVHermiteSelfOverlap three(FixedOptions(5, 1.0, 1.0, 1.0, false), density_);
    EXPECT_EQ(single.NumVar(), 1u);
    EXPECT_EQ(three.NumVar(), 3u);

    // The count is fixed for the life of the object, evaluations included.
    const double x1 = std::log(0.8);
    const double x3[3] = {std::log(0.8), std::log(0.9), std::log(1.1)};
    single(&x1);
    three(x3);
    EXPECT_EQ(single.NumVar(), 1u);
    EXPECT_EQ(three.NumVar(), 3u);
}

TEST_F(SelfOverlapObjectiveTest, SingleVariableValueUsesOneLambdaOnAllThreeAxes) {
    // The options start with three different lambdas; an evaluation at x must replace all
    // three by exp(x). Were any axis left at its old lambda, S would be that of an anisotropic
    // basis and differ from the isotropic transform below (the density is anisotropic, so the
    // difference is of order one).
    const QVHermiteOptions options = FixedOptions(6, 0.6, 1.1, 1.5, true);
    QVHermiteSelfOverlap objective(options, density_);
    for (const double lambda : {0.55, 0.8, 1.0, 1.35}) {
        const double x = std::log(lambda);
        const double lambdaUsed = std::exp(x);
        const double expected =
            -TransformSelfOverlap(options, density_, lambdaUsed, lambdaUsed, lambdaUsed);
        // Same coefficients summed in the same way: equal to a few ulps.
        EXPECT_DOUBLE_EQ(objective(&x), expected) << "lambda " << lambda;

        double gradient = 0.0;
        EXPECT_DOUBLE_EQ(objective(&x, &gradient), expected) << "lambda " << lambda;
    }
    // Sanity of the oracle: the unequal starting lambdas give a clearly different S.
    const double isotropic = TransformSelfOverlap(options, density_, 1.1, 1.1, 1.1);
    const double anisotropic = TransformSelfOverlap(options, density_, 0.6, 1.1, 1.5);
    EXPECT_GT(std::fabs(isotropic - anisotropic), 1e-3 * isotropic);
}

TEST_F(SelfOverlapObjectiveTest, SingleVariableHessianCallLeavesAllThreeLambdasEqual) {
    // The Hessian call of a one-variable objective sets the lambdas too; the value evaluated
    // afterwards at the same x is that of the isotropic basis exp(x), and the gradient it
    // returns is that of the gradient call at the same point.
    const QVHermiteOptions options = FixedOptions(5, 0.7, 1.2, 0.9, true);
    QVHermiteSelfOverlap objective(options, density_);
    const double x = std::log(0.85);
    double hessian[6] = {0, 0, 0, 0, 0, 0};
    double gradientFromHessianCall = 0.0;
    objective(&x, hessian, &gradientFromHessianCall);
    double gradient = 0.0;
    const double value = objective(&x, &gradient);
    const double lambda = std::exp(x);
    EXPECT_DOUBLE_EQ(value, -TransformSelfOverlap(options, density_, lambda, lambda, lambda));
    EXPECT_DOUBLE_EQ(gradientFromHessianCall, gradient);
}

TEST_F(SelfOverlapObjectiveTest, ThreeVariableValueUsesExpOfEachVariableOnItsOwnAxis) {
    // Axis i must take lambda_i = exp(x_i): permuting the lambdas over the axes of this
    // anisotropic density changes S, so a mix-up of the axes would be seen.
    const QVHermiteOptions options = FixedOptions(6, 1.0, 1.0, 1.0, false);
    QVHermiteSelfOverlap objective(options, density_);
    const double lambdas[3] = {0.65, 0.95, 1.4};
    const double x[3] = {std::log(lambdas[0]), std::log(lambdas[1]), std::log(lambdas[2])};
    const double expected =
        -TransformSelfOverlap(options, density_, std::exp(x[0]), std::exp(x[1]), std::exp(x[2]));
    EXPECT_DOUBLE_EQ(objective(x), expected);
    double gradient[3];
    EXPECT_DOUBLE_EQ(objective(x, gradient), expected);

    const double permuted =
        -TransformSelfOverlap(options, density_, lambdas[2], lambdas[1], lambdas[0]);
    EXPECT_GT(std::fabs(permuted - expected), 1e-3 * std::fabs(expected));
}

TEST_F(SelfOverlapObjectiveTest, ValueEqualsValueReturnedWithGradient) {
    for (const bool single : {true, false}) {
        QVHermiteSelfOverlap objective(FixedOptions(5, 1.0, 1.0, 1.0, single), density_);
        const double points[3][3] = {{std::log(0.6), std::log(0.9), std::log(1.3)},
                                     {0.0, 0.0, 0.0},
                                     {std::log(1.2), std::log(0.75), std::log(1.05)}};
        for (const auto& x : points) {
            double gradient[3] = {0.0, 0.0, 0.0};
            const double value = objective(x);
            const double valueWithGradient = objective(x, gradient);
            // Both negate the self-overlap of the same expansion: equal to a few ulps, and the
            // self-overlap of a non-empty density is positive.
            EXPECT_DOUBLE_EQ(value, valueWithGradient) << "single " << single;
            EXPECT_LT(value, 0.0);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Unimplemented component evaluation

TEST_F(SelfOverlapObjectiveTest, GetFComponentsAlwaysWarnsAndReturnsFalse) {
    for (const bool single : {true, false}) {
        QVHermiteSelfOverlap objective(FixedOptions(5, 1.0, 1.0, 1.0, single), density_);
        const double x[3] = {std::log(0.9), std::log(1.1), 0.0};
        MessageRecorder capture;
        // Repeated calls, before and after evaluations, behave the same.
        EXPECT_FALSE(objective.GetFComponents(x));
        objective(x);
        EXPECT_FALSE(objective.GetFComponents(x));
        ASSERT_EQ(capture.messages.size(), 2u) << "single " << single;
        for (const auto& message : capture.messages) {
            EXPECT_EQ(message.first, QVSystem::QVSeverity::Warning);
            EXPECT_EQ(message.second, "This method has not been implemented yet.");
        }
    }
}

TEST_F(SelfOverlapObjectiveTest, EvaluationsReportNoMessages) {
    MessageRecorder capture;
    QVHermiteSelfOverlap objective(FixedOptions(5, 1.0, 1.0, 1.0, false), density_);
    const double x[3] = {std::log(0.9), std::log(1.1), 0.0};
    double gradient[3], hessian[6];
    objective(x);
    objective(x, gradient);
    objective(x, hessian, gradient);
    EXPECT_TRUE(capture.messages.empty());
}

// ---------------------------------------------------------------------------------------------
// Hessian call

TEST_F(SelfOverlapObjectiveTest, OneVariableHessianCallFillsOnlyTheGradient) {
    QVHermiteSelfOverlap objective(FixedOptions(5, 1.0, 1.0, 1.0, true), density_);
    const double x = std::log(0.8);
    // Sentinels: any write to the Hessian buffer or past gradient[0] would change them.
    const double sentinel = -12345.678;
    double hessian[6];
    std::fill(hessian, hessian + 6, sentinel);
    double gradient[3] = {sentinel, sentinel, sentinel};

    const double returned = objective(&x, hessian, gradient);

    for (unsigned int i = 0; i < 6; ++i) {
        EXPECT_EQ(hessian[i], sentinel) << "hessian entry " << i;
    }
    EXPECT_EQ(gradient[1], sentinel);
    EXPECT_EQ(gradient[2], sentinel);
    double expectedGradient = 0.0;
    objective(&x, &expectedGradient);
    EXPECT_DOUBLE_EQ(gradient[0], expectedGradient);
    // The Hessian call does not compute the value; it returns true converted to double.
    EXPECT_EQ(returned, 1.0);
}

TEST_F(SelfOverlapObjectiveTest, ThreeVariableHessianCallGivesTheSameGradientAsTheGradientCall) {
    QVHermiteSelfOverlap objective(FixedOptions(5, 1.0, 1.0, 1.0, false), density_);
    const double x[3] = {std::log(0.7), std::log(0.95), std::log(1.25)};
    double hessian[6];
    double gradientFromHessianCall[3];
    EXPECT_EQ(objective(x, hessian, gradientFromHessianCall), 1.0);
    double gradient[3];
    objective(x, gradient);
    for (unsigned int i = 0; i < 3; ++i) {
        EXPECT_DOUBLE_EQ(gradientFromHessianCall[i], gradient[i]) << "axis " << i;
    }
}

// ---------------------------------------------------------------------------------------------
// Analytic derivatives against central differences

TEST_F(SelfOverlapObjectiveTest, OneVariableGradientEqualsCentralDifference) {
    for (const unsigned int N : {3u, 6u, 9u}) {
        QVHermiteSelfOverlap objective(FixedOptions(N, 1.0, 1.0, 1.0, true), density_);
        for (const double lambda : {0.5, 0.8, 1.1, 1.6}) {
            const double x = std::log(lambda);
            double gradient = 0.0;
            const double value = objective(&x, &gradient);
            // S is smooth in log lambda on the scale of one unit; with h = 1e-4 the truncation
            // error h^2 |f'''| / 6 is ~1e-9 |S| and the rounding error eps |S| / h ~1e-12 |S|.
            const double h = 1e-4;
            const double difference = CentralDifference(objective, &x, 1, 0, h);
            EXPECT_NEAR(gradient, difference, 1e-7 * std::fabs(value))
                << "N " << N << " lambda " << lambda;
        }
    }
}

TEST_F(SelfOverlapObjectiveTest, ThreeVariableGradientEqualsCentralDifferences) {
    QVHermiteSelfOverlap objective(FixedOptions(6, 1.0, 1.0, 1.0, false), density_);
    const double points[3][3] = {{std::log(0.7), std::log(0.95), std::log(1.25)},
                                 {0.0, 0.0, 0.0},
                                 {std::log(1.4), std::log(0.6), std::log(0.85)}};
    for (const auto& point : points) {
        double gradient[3];
        const double value = objective(point, gradient);
        for (unsigned int i = 0; i < 3; ++i) {
            // Same step and error budget as for one variable.
            const double h = 1e-4;
            const double difference = CentralDifference(objective, point, 3, i, h);
            EXPECT_NEAR(gradient[i], difference, 1e-7 * std::fabs(value)) << "axis " << i;
        }
    }
}

TEST_F(SelfOverlapObjectiveTest, ThreeVariableHessianEqualsCentralDifferencesOfGradient) {
    QVHermiteSelfOverlap objective(FixedOptions(6, 1.0, 1.0, 1.0, false), density_);
    const double points[3][3] = {{std::log(0.7), std::log(0.95), std::log(1.25)},
                                 {0.0, 0.0, 0.0},
                                 {std::log(1.4), std::log(0.6), std::log(0.85)}};
    for (const auto& point : points) {
        const double value = objective(point);
        double hessian[6];
        double gradient[3];
        objective(point, hessian, gradient);
        // Both differences of a mixed pair are compared with the one stored entry; the check
        // can only tell misplaced mixed entries apart because the three differ for this
        // anisotropic density.
        EXPECT_GT(std::fabs(hessian[Packed(1, 0)] - hessian[Packed(2, 0)]),
                  1e-6 * std::fabs(value));
        EXPECT_GT(std::fabs(hessian[Packed(1, 0)] - hessian[Packed(2, 1)]),
                  1e-6 * std::fabs(value));
        EXPECT_GT(std::fabs(hessian[Packed(2, 0)] - hessian[Packed(2, 1)]),
                  1e-6 * std::fabs(value));
        for (unsigned int j = 0; j < 3; ++j) {
            const double h = 1e-4;
            double xp[3] = {point[0], point[1], point[2]};
            double xm[3] = {point[0], point[1], point[2]};
            xp[j] += h;
            xm[j] -= h;
            double gp[3], gm[3];
            objective(xp, gp);
            objective(xm, gm);
            for (unsigned int i = 0; i < 3; ++i) {
                // Second derivatives of S in log lambda are of the size of S; the differences
                // of analytic gradients carry the same O(h^2) and O(eps / h) errors as above.
                const double difference = (gp[i] - gm[i]) / (2.0 * h);
                EXPECT_NEAR(hessian[Packed(i, j)], difference, 1e-7 * std::fabs(value))
                    << "entry (" << i << ", " << j << ")";
            }
        }
    }
}

}  // namespace
