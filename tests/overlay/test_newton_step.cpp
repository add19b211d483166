// Newton's method in the six rigid variables: the ascent step where the overlap is concave and
// where it is not, the test that a refinement has lost, and the bound on what a step promises,
// against the quadratic model itself on random gradients and Hessians.

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "overlay/newton_step.h"

namespace {

using hermite::overlay::Matrix6;
using hermite::overlay::ModelGain;
using hermite::overlay::ModelTopBelow;
using hermite::overlay::NewtonAscent;
using hermite::overlay::PredictionBound;
using hermite::overlay::Vector6;

/// A random symmetric matrix with eigenvalues drawn from [low, high], turned by a random
/// orthogonal matrix.
Matrix6 RandomSymmetric(std::mt19937& engine, double low, double high) {
    std::normal_distribution<double> normal;
    std::uniform_real_distribution<double> uniform(low, high);
    Matrix6 A;
    for (int i = 0; i < 36; ++i) {
        A.data()[i] = normal(engine);
    }
    const Eigen::HouseholderQR<Matrix6> qr(A);
    const Matrix6 Q = qr.householderQ();
    Vector6 values;
    for (int i = 0; i < 6; ++i) {
        values[i] = uniform(engine);
    }
    return Q * values.asDiagonal() * Q.transpose();
}

Vector6 RandomVector(std::mt19937& engine, double scale) {
    std::normal_distribution<double> normal(0.0, scale);
    Vector6 v;
    for (int i = 0; i < 6; ++i) {
        v[i] = normal(engine);
    }
    return v;
}

TEST(NewtonStepTest, ConcaveOverlapTakesTheNewtonStepCutToTheLongestStep) {
    Matrix6 H = Matrix6::Zero();
    H.diagonal() << -2.0, -4.0, -1.0, -8.0, -5.0, -10.0;
    Vector6 g;
    g << 0.2, -0.4, 0.1, 0.8, 0.0, -1.0;
    // -H^-1 g = (0.1, -0.1, 0.1, 0.1, 0, -0.1): within the unit ball, taken as it is.
    const Vector6 step = NewtonAscent(g, H, 1.0);
    Vector6 expected;
    expected << 0.1, -0.1, 0.1, 0.1, 0.0, -0.1;
    for (int i = 0; i < 6; ++i) {
        EXPECT_NEAR(step[i], expected[i], 1e-15) << i;
    }
    // Ten times the gradient: the same direction, unit length.
    const Vector6 cut = NewtonAscent(10.0 * g, H, 1.0);
    EXPECT_NEAR(cut.norm(), 1.0, 1e-15);
    for (int i = 0; i < 6; ++i) {
        EXPECT_NEAR(cut[i], expected[i] / expected.norm(), 1e-15) << i;
    }
    // Allowed twice as far: the same direction, twice the length (the uncut step is 2.24 long).
    const Vector6 twice = NewtonAscent(10.0 * g, H, 2.0);
    EXPECT_NEAR(twice.norm(), 2.0, 1e-15);
    for (int i = 0; i < 6; ++i) {
        EXPECT_NEAR(twice[i], 2.0 * cut[i], 1e-15) << i;
    }
}

TEST(NewtonStepTest, StepsWhereTheOverlapIsNotConcaveStillClimbWithinTheUnitBall) {
    std::mt19937 engine(7u);
    for (int trial = 0; trial < 200; ++trial) {
        const Matrix6 H = RandomSymmetric(engine, -3.0, 1.0);  // mostly indefinite
        const Vector6 g = RandomVector(engine, 0.5);
        const Vector6 step = NewtonAscent(g, H, 1.0);
        EXPECT_LE(step.norm(), 1.0 + 1e-12) << trial;
        EXPECT_GT(g.dot(step), 0.0) << trial;  // uphill
    }
    // A saddle with no slope along the direction of positive curvature: the step follows the
    // gradient, across the saddle, to the unit sphere.
    Matrix6 H = Matrix6::Zero();
    H.diagonal() << -1.0, -1.0, -1.0, -1.0, -1.0, 2.0;
    Vector6 g = Vector6::Zero();
    g[5] = 0.3;
    const Vector6 step = NewtonAscent(g, H, 1.0);
    EXPECT_NEAR(step[5], 1.0, 1e-15);
    EXPECT_NEAR(step.head<5>().norm(), 0.0, 1e-15);
}

TEST(NewtonStepTest, StepsWhereTheOverlapIsNotConcaveFloorTheCurvature) {
    // The step is -H^-1 g with -H's eigenvalues raised to at least 1 % of the largest in
    // magnitude, cut to unit length: against the same from Eigen's general eigensolver.
    std::mt19937 engine(13u);
    int compared = 0;
    for (int trial = 0; trial < 200; ++trial) {
        const Matrix6 H = RandomSymmetric(engine, -3.0, 1.0);
        const Vector6 g = RandomVector(engine, trial % 2 == 0 ? 0.05 : 2.0);
        if (Eigen::LLT<Matrix6>(-H).info() == Eigen::Success) {
            continue;  // concave: the plain Newton step (see the test above)
        }
        ++compared;
        const Eigen::SelfAdjointEigenSolver<Matrix6> eigen(-H);
        const Vector6 values = eigen.eigenvalues();
        const double floor = 1e-2 * values.cwiseAbs().maxCoeff();
        Vector6 expected =
            eigen.eigenvectors() *
            (eigen.eigenvectors().transpose() * g).cwiseQuotient(values.cwiseMax(floor));
        if (expected.norm() > 1.0) {
            expected /= expected.norm();
        }
        const Vector6 step = NewtonAscent(g, H, 1.0);
        EXPECT_LE((step - expected).cwiseAbs().maxCoeff(), 1e-12 * (1.0 + expected.norm()))
            << trial;
    }
    EXPECT_GT(compared, 150);
    // A Hessian that is not a number gives a step that is not one either, which no walk takes.
    Matrix6 broken = RandomSymmetric(engine, -3.0, 1.0);
    broken(1, 4) = broken(4, 1) = NAN;
    EXPECT_FALSE(NewtonAscent(RandomVector(engine, 1.0), broken, 1.0).allFinite());
}

TEST(NewtonStepTest, ModelGainIsTheRiseOfTheQuadraticFromItsTermsOneByOne) {
    std::mt19937 engine(11);
    for (int trial = 0; trial < 20; ++trial) {
        const Matrix6 H = RandomSymmetric(engine, -3.0, 2.0);
        const Vector6 g = RandomVector(engine, 1.0), s = RandomVector(engine, 0.5);
        // q(s) - q(0) for q(x) = sum_i g_i x_i + sum_ij H_ij x_i x_j / 2, term by term.
        double rise = 0.0;
        for (int i = 0; i < 6; ++i) {
            rise += g[i] * s[i];
            for (int j = 0; j < 6; ++j) {
                rise += 0.5 * H(i, j) * s[i] * s[j];
            }
        }
        EXPECT_NEAR(ModelGain(g, H, s), rise, 1e-12 * (1.0 + std::abs(rise))) << trial;
        // Where the model is concave, its top is the Newton step (here within the unit ball)
        // and rises by g^T (-H)^-1 g / 2: no other step rises further.
        const Matrix6 concave = RandomSymmetric(engine, -3.0, -0.5);
        const Vector6 small = RandomVector(engine, 0.1);
        const Vector6 top = NewtonAscent(small, concave, 1.0);
        ASSERT_LT(top.norm(), 1.0) << trial;
        EXPECT_NEAR(ModelGain(small, concave, top), 0.5 * small.dot(top), 1e-14) << trial;
        EXPECT_GT(ModelGain(small, concave, top), ModelGain(small, concave, top + 0.1 * s))
            << trial;
    }
}

TEST(NewtonStepTest, ModelTopBelowComparesTheTopOfAConcaveModel) {
    Matrix6 H = Matrix6::Zero();
    H.diagonal() << -2.0, -2.0, -2.0, -2.0, -2.0, -2.0;
    Vector6 g = Vector6::Zero();
    g[0] = 1.0;  // the top is 0.5 away, 0.25 above the value
    EXPECT_TRUE(ModelTopBelow(g, H, 10.0, 10.26, 1.0));
    EXPECT_FALSE(ModelTopBelow(g, H, 10.0, 10.24, 1.0));
    // A top farther away than the reach is not trusted, nor a model that is not concave: this
    // one is 2 away, 4 above the value.
    EXPECT_FALSE(ModelTopBelow(4.0 * g, H, 10.0, 100.0, 1.0));
    EXPECT_TRUE(ModelTopBelow(4.0 * g, H, 10.0, 14.01, 2.0));
    EXPECT_FALSE(ModelTopBelow(4.0 * g, H, 10.0, 13.99, 2.0));
    H(5, 5) = 1.0;
    EXPECT_FALSE(ModelTopBelow(g, H, 10.0, 100.0, 1.0));
}

TEST(NewtonStepTest, PredictionBoundIsAboveTheModelAtTheStepAndNotFarAbove) {
    std::mt19937 engine(11u);
    double largestGap = 0.0;
    for (int trial = 0; trial < 1000; ++trial) {
        const bool concave = trial % 2 == 0;
        const Matrix6 H =
            concave ? RandomSymmetric(engine, -5.0, -0.1) : RandomSymmetric(engine, -5.0, 2.0);
        const Vector6 g = RandomVector(engine, trial % 3 == 0 ? 5.0 : 0.3);
        const double value = 40.0;
        const double bound = PredictionBound(value, g, H);
        const double predicted = value + ModelGain(g, H, NewtonAscent(g, H, 1.0));
        EXPECT_GE(bound, predicted) << trial;
        // Also above the model at any other step in the unit ball.
        const Vector6 other = RandomVector(engine, 1.0).normalized();
        EXPECT_GE(bound, value + ModelGain(g, H, other)) << trial;
        largestGap = std::max(largestGap, bound - predicted);
    }
    // A bound, not a wild one: within the scale of |g| and the curvature.
    EXPECT_LT(largestGap, 60.0);
    // Where the model is flat the bound is the value and the slope.
    Vector6 g = Vector6::Zero();
    g[2] = 0.5;
    EXPECT_NEAR(PredictionBound(1.0, g, Matrix6::Zero()), 1.5, 1e-11);
}

}  // namespace
