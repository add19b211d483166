// Tests of the overlap objective: minus the overlap of a reference expansion turned by Euler
// angles (x0, x1, x2) about the origin with a fit expansion moved by (x3, x4, x5), computed in
// coefficient space, with its analytic gradient.
//
// Mathematics used as the oracle.
// - The one-axis Hermite functions H_k(lambda u) exp(-lambda^2 u^2 / 2) are orthogonal with
//   squared norm K_k / lambda, K_k = 2^k k! sqrt(pi). For equal lambdas of reference and fit the
//   overlap integral of two expansions a and b is therefore
//       (1 / lambda^3) sum over lmn of a_lmn b_lmn K_l K_m K_n,
//   the sum running over the triples both expansions hold. This is the value at x = 0, where
//   the rotation is the identity and the shift table couples only equal degrees.
// - For equal lambdas the basis space of total degree <= N is mapped onto itself by rotations,
//   so turning the coefficients is exact; moving the fit and projecting it on the reference
//   basis converges as the orders grow. The value therefore tends to minus the exact overlap
//       sum over pairs (i, j) of w_i w_j (pi / p)^(3/2) exp(-(a_i a_j / p) |R r_i - (r_j + t)|^2),
//   p = a_i + a_j, of the reference Gaussians turned by R = RotFromEulerXYZ(x0, x1, x2) with the
//   fit Gaussians moved by t = (x3, x4, x5); the oracle evaluates it in double precision from
//   the stored single-precision centres, which are exactly what both expansions see.
// - The value depends on the angles only through the rotation matrix, so any Euler set of the
//   same matrix gives the same value.
// - Derivatives are checked against central differences in the angles and translations, which
//   are double variables.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <thread>
#include <vector>

#include "hermite/hermite.h"
#include "qv/error.h"
#include "support/test_support.h"

namespace {

using QVHermiteMath::BuildFMatrix;
using QVHermiteMath::BuildSMatrix;
using QVHermiteMath::FMatrix;
using QVHermiteMath::QVGaussian;
using QVHermiteMath::QVHermite;
using QVHermiteMath::QVHermiteOptions;
using QVHermiteMath::QVHermiteOverlap;
using QVHermiteMath::RotFromEulerXYZ;
using QVHermiteMath::SMatrixSet;

using hermite_test::CentralDifference;
using hermite_test::FixedOptions;
using hermite_test::GaussianPairOverlap;
using hermite_test::kPi;
using hermite_test::LmnTriples;
using hermite_test::MakeDensity;
using hermite_test::MaxAbs;
using hermite_test::MessageRecorder;
using hermite_test::NormTable;
using hermite_test::Triple;
using hermite_test::TurnedInFloat;

// Sets up `objective` with fixed lambdas for reference and fit.
void SetUpFixed(QVHermiteOverlap& objective, const std::vector<QVGaussian>& reference,
                const std::vector<QVGaussian>& fit, unsigned int Nr, unsigned int Nf,
                double lambdaRef, double lambdaFit) {
    QVHermiteOptions refOptions = FixedOptions(Nr, lambdaRef, lambdaRef, lambdaRef, true);
    QVHermiteOptions fitOptions = FixedOptions(Nf, lambdaFit, lambdaFit, lambdaFit, true);
    ASSERT_TRUE(objective.SetupRef(reference, refOptions));
    ASSERT_TRUE(objective.Setup(fit, fitOptions));
}

// The exact overlap integral of the reference turned by RotFromEulerXYZ(x0, x1, x2) with the
// fit moved by (x3, x4, x5), all in double precision.
double ExactOverlap(const std::vector<QVGaussian>& reference, const std::vector<QVGaussian>& fit,
                    const double* x) {
    const std::vector<double> R = RotFromEulerXYZ(x[0], x[1], x[2]);
    double sum = 0.0;
    for (const QVGaussian& g : reference) {
        const double r[3] = {g.GetX(), g.GetY(), g.GetZ()};
        double turned[3];
        for (unsigned int i = 0; i < 3; ++i) {
            turned[i] = R[3 * i] * r[0] + R[3 * i + 1] * r[1] + R[3 * i + 2] * r[2];
        }
        for (const QVGaussian& h : fit) {
            const double moved[3] = {h.GetX() + x[3], h.GetY() + x[4], h.GetZ() + x[5]};
            double d2 = 0.0;
            for (unsigned int i = 0; i < 3; ++i) {
                d2 += (turned[i] - moved[i]) * (turned[i] - moved[i]);
            }
            sum += GaussianPairOverlap(g, h, d2);
        }
    }
    return sum;
}

// The three F tables the objective uses for a fit moved by t (shift -lambda_fit t in scaled
// units; rows up to the reference order, columns past the fit order).
void TranslationTables(unsigned int Nr, unsigned int Nf, double lambdaFit, const double t[3],
                       FMatrix F[3]) {
    for (unsigned int axis = 0; axis < 3; ++axis) {
        BuildFMatrix(Nr + 1, Nf + 2, -(lambdaFit * t[axis]), F[axis]);
    }
}

class OverlapObjectiveTest : public ::testing::Test {
protected:
    // Compact densities (centres within +-1.5) so that moderate orders converge well.
    std::vector<QVGaussian> reference_ = MakeDensity(8, 11u, 1.5f, 1.5f, 1.5f);
    std::vector<QVGaussian> fit_ = MakeDensity(6, 23u, 1.5f, 1.5f, 1.5f);
};

// Points (a, b, c, tx, ty, tz) with b inside (-pi/2, pi/2) and a, c inside (-pi, pi], so
// that they are the angles that EulerXYZ recovers from their matrix.
const double kPoints[4][6] = {{0.4, -0.3, 0.7, 0.3, -0.2, 0.25},
                              {-0.8, 1.0, 0.3, 1.0, -0.8, 0.6},
                              {2.5, -1.3, -0.4, -1.5, 0.9, 1.2},
                              {-2.9, 0.2, 3.0, 0.05, 0.6, -0.7}};

// ---------------------------------------------------------------------------------------------
// Interface

TEST_F(OverlapObjectiveTest, NumVarIsSix) {
    QVHermiteOverlap objective;
    EXPECT_EQ(objective.NumVar(), 6u);
    SetUpFixed(objective, reference_, fit_, 5, 5, 0.9, 0.9);
    EXPECT_EQ(objective.NumVar(), 6u);
}

TEST_F(OverlapObjectiveTest, GetFComponentsAlwaysWarnsAndReturnsFalse) {
    QVHermiteOverlap objective;
    SetUpFixed(objective, reference_, fit_, 5, 5, 0.9, 0.9);
    MessageRecorder capture;
    EXPECT_FALSE(objective.GetFComponents(kPoints[0]));
    objective(kPoints[0]);
    EXPECT_FALSE(objective.GetFComponents(kPoints[1]));
    ASSERT_EQ(capture.messages.size(), 2u);
    for (const auto& message : capture.messages) {
        EXPECT_EQ(message.first, QVSystem::QVSeverity::Warning);
        EXPECT_EQ(message.second, "This method has not been implemented yet.");
    }
}

TEST_F(OverlapObjectiveTest, SelfOverlapGettersEqualTheExpansionsSelfOverlaps) {
    // Fixed lambdas: the expansions made with the same options.
    {
        QVHermiteOverlap objective;
        SetUpFixed(objective, reference_, fit_, 6, 4, 0.9, 0.8);
        QVHermiteOptions refOptions = FixedOptions(6, 0.9, 0.9, 0.9, true);
        QVHermiteOptions fitOptions = FixedOptions(4, 0.8, 0.8, 0.8, true);
        QVHermite reference, fit;
        reference.Setup(reference_, refOptions);
        fit.Setup(fit_, fitOptions);
        EXPECT_DOUBLE_EQ(objective.GetRefSelfOverlap(), reference.GetSelfOverlap());
        EXPECT_DOUBLE_EQ(objective.GetFitSelfOverlap(), fit.GetSelfOverlap());
        // The two densities differ, so the two getters cannot be confused.
        EXPECT_GT(std::fabs(reference.GetSelfOverlap() - fit.GetSelfOverlap()),
                  1e-3 * reference.GetSelfOverlap());
    }
    // Optimal lambdas: each setup optimises, writes the lambdas used back into the caller's
    // options and switches the optimisation off there.
    {
        QVHermiteOverlap objective;
        QVHermiteOptions refOptions, fitOptions;
        ASSERT_TRUE(refOptions.GetUseOptimalLambdas());
        objective.SetupRef(reference_, refOptions);
        objective.Setup(fit_, fitOptions);
        EXPECT_FALSE(refOptions.GetUseOptimalLambdas());
        EXPECT_FALSE(fitOptions.GetUseOptimalLambdas());

        QVHermiteOptions refFresh, fitFresh;
        QVHermite reference, fit;
        reference.Setup(reference_, refFresh);
        fit.Setup(fit_, fitFresh);
        EXPECT_EQ(refOptions.GetLambda(0), refFresh.GetLambda(0));
        EXPECT_EQ(fitOptions.GetLambda(0), fitFresh.GetLambda(0));
        EXPECT_DOUBLE_EQ(objective.GetRefSelfOverlap(), reference.GetSelfOverlap());
        EXPECT_DOUBLE_EQ(objective.GetFitSelfOverlap(), fit.GetSelfOverlap());
    }
}

// ---------------------------------------------------------------------------------------------
// Value

TEST_F(OverlapObjectiveTest, ValueAtZeroIsTheKWeightedSumOfCoefficientProducts) {
    // At shift 0 the translation table starts with the row sqrt(pi), 0, 0, ... and, by the
    // orthogonality of the Hermite functions, couples degree r only with itself, with weight
    // K_r: the moved fit is the fit itself, restricted to the reference's triples.
    FMatrix F;
    BuildFMatrix(4, 5, 0.0, F);
    const std::vector<double> K7 = NormTable(7);
    EXPECT_DOUBLE_EQ(F[0][0], std::sqrt(kPi));
    for (std::size_t r = 0; r < F.size(); ++r) {
        for (std::size_t c = 0; c < F[r].size(); ++c) {
            EXPECT_NEAR(F[r][c], r == c ? K7[r] : 0.0, 1e-13 * K7[r]) << r << " " << c;
        }
    }

    struct Case {
        unsigned int Nr, Nf;
        double lambdaRef, lambdaFit;
    };
    // Equal and unequal orders; in the last case the fit has its own lambda. At zero shift the
    // shift argument -lambda_fit t vanishes whatever lambda_fit is, so the fit enters through
    // its coefficients alone, and the sum is divided by the reference's lambda product.
    const Case cases[4] = {{6, 6, 0.9, 0.9}, {6, 4, 0.9, 0.9}, {4, 7, 0.9, 0.9}, {5, 5, 1.1, 0.8}};
    for (const Case& c : cases) {
        QVHermiteOverlap objective;
        SetUpFixed(objective, reference_, fit_, c.Nr, c.Nf, c.lambdaRef, c.lambdaFit);
        QVHermiteOptions refOptions =
            FixedOptions(c.Nr, c.lambdaRef, c.lambdaRef, c.lambdaRef, true);
        QVHermiteOptions fitOptions =
            FixedOptions(c.Nf, c.lambdaFit, c.lambdaFit, c.lambdaFit, true);
        QVHermite reference, fit;
        reference.Setup(reference_, refOptions);
        fit.Setup(fit_, fitOptions);

        // Both coefficient vectors list the triples by total degree first, so the first
        // entries of the longer one are the triples of the shorter one, in the same order.
        const unsigned int Nmin = std::min(c.Nr, c.Nf);
        const std::vector<Triple> triples = LmnTriples(Nmin);
        const std::vector<double> K = NormTable(Nmin);
        double sum = 0.0, magnitude = 0.0;
        for (std::size_t i = 0; i < triples.size(); ++i) {
            const Triple& t = triples[i];
            const double term = reference.GetCoefficients()[i] * fit.GetCoefficients()[i] * K[t.l] *
                                K[t.m] * K[t.n];
            sum += term;
            magnitude += std::fabs(term);
        }
        const double volume = c.lambdaRef * c.lambdaRef * c.lambdaRef;
        const double expected = -sum / volume;
        const double zero[6] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
        // The same sum formed in another order: agreement to rounding of the summed magnitudes.
        const double tolerance = 1e-13 * magnitude / volume;
        EXPECT_NEAR(objective(zero), expected, tolerance) << "Nr " << c.Nr << " Nf " << c.Nf;
        double gradient[6];
        EXPECT_NEAR(objective(zero, gradient), expected, tolerance)
            << "Nr " << c.Nr << " Nf " << c.Nf;
    }
}

TEST_F(OverlapObjectiveTest, ValueWithGradientEqualsValue) {
    QVHermiteOverlap objective;
    SetUpFixed(objective, reference_, fit_, 7, 5, 0.9, 0.85);
    for (const auto& x : kPoints) {
        double gradient[6];
        EXPECT_DOUBLE_EQ(objective(x, gradient), objective(x));
    }
}

TEST_F(OverlapObjectiveTest, ValueApproachesMinusExactOverlapAsOrderGrows) {
    const double lambda = 0.9;
    const unsigned int orders[5] = {4, 8, 12, 16, 20};
    const double zero[6] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
    std::vector<const double*> points = {zero};
    for (const auto& x : kPoints) {
        points.push_back(x);
    }
    for (const double* x : points) {
        const double exact = ExactOverlap(reference_, fit_, x);
        ASSERT_GT(exact, 1.0);  // densities that overlap substantially at every point
        double previous = 0.0;
        for (unsigned int k = 0; k < 5; ++k) {
            QVHermiteOverlap objective;
            SetUpFixed(objective, reference_, fit_, orders[k], orders[k], lambda, lambda);
            const double error = std::fabs(-objective(x) - exact) / exact;
            if (k > 0) {
                // Each step of four orders gains accuracy for these compact densities.
                EXPECT_LT(error, previous) << "N " << orders[k] << " point " << x[0];
            }
            previous = error;
        }
        // Truncation at order 20 for centres within +-1.5 and lambda 0.9 leaves well under a
        // part in a million.
        EXPECT_LT(previous, 1e-6) << "point " << x[0];
    }
}

TEST_F(OverlapObjectiveTest, EquivalentEulerAnglesGiveTheSameValue) {
    QVHermiteOverlap objective;
    SetUpFixed(objective, reference_, fit_, 8, 8, 0.9, 0.9);
    for (const auto& x : kPoints) {
        const double a = x[0], b = x[1], c = x[2];
        // Full turns in each angle, and the second Euler set (a + pi, pi - b, c + pi) of the
        // same matrix Rx(a) Ry(b) Rz(c).
        const double equivalents[5][3] = {{a + 2.0 * kPi, b, c},
                                          {a, b - 2.0 * kPi, c},
                                          {a, b, c + 2.0 * kPi},
                                          {a + kPi, kPi - b, c + kPi},
                                          {a - kPi, kPi - b, c - kPi}};
        const std::vector<double> R = RotFromEulerXYZ(a, b, c);
        const double value = objective(x);
        for (const auto& e : equivalents) {
            const std::vector<double> Re = RotFromEulerXYZ(e[0], e[1], e[2]);
            for (unsigned int i = 0; i < 9; ++i) {
                ASSERT_NEAR(Re[i], R[i], 1e-14);
            }
            const double y[6] = {e[0], e[1], e[2], x[3], x[4], x[5]};
            // The sines and cosines of shifted angles differ by a few ulps; through
            // coefficients of order 8 that moves the value by ~1e-14 relative.
            EXPECT_NEAR(objective(y), value, 1e-11 * std::fabs(value))
                << "angles " << e[0] << " " << e[1] << " " << e[2];
        }
        // A genuinely different rotation does change the value (the check can fail).
        const double other[6] = {a + 0.5, b, c, x[3], x[4], x[5]};
        EXPECT_GT(std::fabs(objective(other) - value), 1e-4 * std::fabs(value));
    }
}

TEST_F(OverlapObjectiveTest, LargeTranslationDrivesTheValueToZero) {
    QVHermiteOverlap objective;
    SetUpFixed(objective, reference_, fit_, 8, 8, 0.9, 0.9);
    const double zero[6] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
    const double v0 = std::fabs(objective(zero));
    // The extent of the densities is below 3. Along every direction the shift tables decay as
    // exp(-(lambda t)^2 / 4) times a polynomial of degree below 2N + 2 in lambda t: at t = 30
    // (lambda t = 27) this is below 1e-40, at t = 60 it underflows.
    const double directions[4][3] = {{1, 0, 0}, {0, -1, 0}, {0, 0, 1}, {0.6, -0.48, 0.64}};
    for (const auto& d : directions) {
        for (const double distance : {30.0, 60.0}) {
            const double x[6] = {0.3, 0.2, 0.1, distance * d[0], distance * d[1], distance * d[2]};
            const double value = objective(x);
            EXPECT_TRUE(std::isfinite(value));
            EXPECT_LT(std::fabs(value), 1e-30 * v0) << "distance " << distance;
            double gradient[6];
            objective(x, gradient);
            for (unsigned int i = 0; i < 6; ++i) {
                EXPECT_LT(std::fabs(gradient[i]), 1e-25 * v0) << "entry " << i;
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Gradient

TEST_F(OverlapObjectiveTest, GradientEqualsCentralDifferences) {
    struct Case {
        unsigned int Nr, Nf;
        double lambdaRef, lambdaFit;
    };
    // Equal orders and lambdas, and unequal ones (where the chain factor of the fit lambda and
    // the projection between orders both enter).
    const Case cases[3] = {{8, 8, 0.9, 0.9}, {6, 4, 1.0, 0.8}, {4, 7, 0.85, 1.1}};
    const double zero[6] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
    std::vector<const double*> points = {zero};
    for (const auto& x : kPoints) {
        points.push_back(x);
    }
    for (const Case& c : cases) {
        QVHermiteOverlap objective;
        SetUpFixed(objective, reference_, fit_, c.Nr, c.Nf, c.lambdaRef, c.lambdaFit);
        for (const double* x : points) {
            double gradient[6];
            const double value = objective(x, gradient);
            for (unsigned int i = 0; i < 6; ++i) {
                // The value varies on a scale of order one in angle and translation; with
                // h = 1e-4 the truncation error h^2 |f'''| / 6 is ~1e-9 |f| and the rounding
                // error eps |f| / h ~1e-12 |f|.
                const double h = 1e-4;
                const double difference = CentralDifference(objective, x, 6, i, h);
                EXPECT_NEAR(gradient[i], difference, 1e-7 * std::fabs(value))
                    << "Nr " << c.Nr << " Nf " << c.Nf << " variable " << i << " point " << x[0];
            }
        }
    }
}

TEST_F(OverlapObjectiveTest, GradientAtHighOrderEqualsDerivativesOfExactOverlap) {
    // At a high order the objective is minus the exact overlap to ~1e-10, and so are its
    // derivatives; the exact overlap's derivatives by central differences provide an oracle
    // that shares nothing with the coefficient-space formulas.
    QVHermiteOverlap objective;
    SetUpFixed(objective, reference_, fit_, 20, 20, 0.9, 0.9);
    const auto exact = [&](const double* y) { return ExactOverlap(reference_, fit_, y); };
    for (const auto& x : kPoints) {
        double gradient[6];
        const double value = objective(x, gradient);
        for (unsigned int i = 0; i < 6; ++i) {
            const double h = 1e-4;
            const double difference = -CentralDifference(exact, x, 6, i, h);
            // Truncation at order 20 (~1e-9 relative) and the difference (~1e-9 relative).
            EXPECT_NEAR(gradient[i], difference, 1e-6 * std::fabs(value)) << "variable " << i;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Rotation and translation helpers

TEST_F(OverlapObjectiveTest, RotatingTheReferenceExpansionEqualsEvaluatingWithTheAngles) {
    const unsigned int Nr = 8, Nf = 6;
    const double lambda = 0.9;
    QVHermiteOverlap objective;
    SetUpFixed(objective, reference_, fit_, Nr, Nf, lambda, lambda);
    const std::vector<Triple> triples = LmnTriples(Nr);
    const std::vector<double> K = NormTable(Nr);

    for (const auto& x : kPoints) {
        // The reference expansion turned in place by the matrix of the angles.
        QVHermiteOptions options = FixedOptions(Nr, lambda, lambda, lambda, true);
        QVHermite reference;
        reference.Setup(reference_, options);
        ASSERT_TRUE(reference.RotateHermites(RotFromEulerXYZ(x[0], x[1], x[2])));
        const std::vector<double>& turned = reference.GetCoefficients();

        // The objective's own rotation of its reference by the same angles.
        SMatrixSet Sx, Sy, Sz;
        BuildSMatrix(Nr, x[0], Sx);
        BuildSMatrix(Nr, x[1], Sy);
        BuildSMatrix(Nr, x[2], Sz);
        std::vector<double> A;
        objective.RotateHermiteRef(Sx, Sy, Sz, A);
        ASSERT_EQ(A.size(), turned.size());
        // The matrix-to-angles round trip perturbs the angles by rounding only.
        const double scale = MaxAbs(turned);
        for (std::size_t i = 0; i < A.size(); ++i) {
            EXPECT_NEAR(A[i], turned[i], 1e-12 * scale) << "index " << i;
        }

        // The turned expansion with zero angles: the sum of the value formula with the moved
        // fit, against the objective evaluated with the angles.
        FMatrix F[3];
        TranslationTables(Nr, Nf, lambda, x + 3, F);
        std::vector<double> B;
        objective.TranslateHermiteFit(F[0], F[1], F[2], B);
        double sum = 0.0, magnitude = 0.0;
        for (std::size_t i = 0; i < triples.size(); ++i) {
            const Triple& t = triples[i];
            const double term = turned[i] * B[i] * K[t.l] * K[t.m] * K[t.n];
            sum += term;
            magnitude += std::fabs(term);
        }
        const double volume = lambda * lambda * lambda;
        EXPECT_NEAR(objective(x), -sum / volume, 1e-12 * magnitude / volume);
    }
}

TEST_F(OverlapObjectiveTest, TurningTheReferenceGaussiansEqualsTurningByTheAngles) {
    // The direction of the rotation: the reference with its centres turned by R (r' = R r,
    // stored in single precision) at zero angles, against the original reference at the angles.
    const unsigned int N = 10;
    const double lambda = 0.9;
    QVHermiteOverlap objective;
    SetUpFixed(objective, reference_, fit_, N, N, lambda, lambda);
    for (const auto& x : kPoints) {
        const std::vector<QVGaussian> turned =
            TurnedInFloat(reference_, RotFromEulerXYZ(x[0], x[1], x[2]));
        QVHermiteOverlap turnedObjective;
        SetUpFixed(turnedObjective, turned, fit_, N, N, lambda, lambda);
        const double y[6] = {0.0, 0.0, 0.0, x[3], x[4], x[5]};
        // Single-precision centres move the overlap by ~1e-7 relative; the wrong direction
        // (R transposed) would change it by far more.
        const double value = objective(x);
        EXPECT_NEAR(turnedObjective(y), value, 1e-6 * std::fabs(value));
    }
}

TEST_F(OverlapObjectiveTest, RotationHelperAndItsDerivativesEqualCentralDifferences) {
    const unsigned int Nr = 8;
    QVHermiteOverlap objective;
    SetUpFixed(objective, reference_, fit_, Nr, 6, 0.9, 0.9);
    for (const auto& x : kPoints) {
        SMatrixSet S[3];
        for (unsigned int axis = 0; axis < 3; ++axis) {
            BuildSMatrix(Nr, x[axis], S[axis]);
        }
        std::vector<double> plain, out, outA, outB, outC;
        objective.RotateHermiteRef(S[0], S[1], S[2], plain);
        objective.RotateHermiteRefWithDerivatives(S[0], S[1], S[2], out, outA, outB, outC);
        ASSERT_EQ(out.size(), plain.size());
        const double scale = MaxAbs(plain);
        for (std::size_t i = 0; i < out.size(); ++i) {
            EXPECT_NEAR(out[i], plain[i], 1e-14 * scale) << "index " << i;
        }

        const std::vector<double>* derivatives[3] = {&outA, &outB, &outC};
        for (unsigned int axis = 0; axis < 3; ++axis) {
            ASSERT_EQ(derivatives[axis]->size(), plain.size());
            // Degree-d coefficients turn with angular frequencies up to d, so the third angle
            // derivative is at most ~d^3 times their size: with h = 1e-5 the truncation error
            // h^2 d^3 / 6 stays below 1e-7 of the largest coefficient for d <= 8.
            const double h = 1e-5;
            SMatrixSet up[3] = {S[0], S[1], S[2]}, down[3] = {S[0], S[1], S[2]};
            BuildSMatrix(Nr, x[axis] + h, up[axis]);
            BuildSMatrix(Nr, x[axis] - h, down[axis]);
            std::vector<double> plus, minus;
            objective.RotateHermiteRef(up[0], up[1], up[2], plus);
            objective.RotateHermiteRef(down[0], down[1], down[2], minus);
            for (std::size_t i = 0; i < plain.size(); ++i) {
                EXPECT_NEAR((*derivatives[axis])[i], (plus[i] - minus[i]) / (2.0 * h), 1e-7 * scale)
                    << "angle " << axis << " index " << i;
            }
        }
    }
}

TEST_F(OverlapObjectiveTest, TranslationHelperAndItsDerivativesEqualCentralDifferences) {
    // Unequal orders and a fit lambda other than 1, so that the chain factor -lambda_fit of the
    // shift argument is visible.
    const unsigned int Nr = 6, Nf = 8;
    const double lambdaFit = 0.8;
    QVHermiteOverlap objective;
    SetUpFixed(objective, reference_, fit_, Nr, Nf, 1.0, lambdaFit);
    for (const auto& x : kPoints) {
        FMatrix F[3];
        TranslationTables(Nr, Nf, lambdaFit, x + 3, F);
        std::vector<double> plain, out, outX, outY, outZ;
        objective.TranslateHermiteFit(F[0], F[1], F[2], plain);
        objective.TranslateHermiteFitWithDerivatives(F[0], F[1], F[2], out, outX, outY, outZ);
        ASSERT_EQ(plain.size(), LmnTriples(Nr).size());
        ASSERT_EQ(out.size(), plain.size());
        const double scale = MaxAbs(plain);
        for (std::size_t i = 0; i < out.size(); ++i) {
            EXPECT_NEAR(out[i], plain[i], 1e-14 * scale) << "index " << i;
        }

        const std::vector<double>* derivatives[3] = {&outX, &outY, &outZ};
        for (unsigned int axis = 0; axis < 3; ++axis) {
            ASSERT_EQ(derivatives[axis]->size(), plain.size());
            // The moved coefficients are polynomials of degree < Nr + Nf + 2 in lambda t times
            // a Gaussian; with h = 1e-5 the central-difference error is ~1e-8 of the largest.
            const double h = 1e-5;
            double tp[3] = {x[3], x[4], x[5]}, tm[3] = {x[3], x[4], x[5]};
            tp[axis] += h;
            tm[axis] -= h;
            FMatrix Fp[3], Fm[3];
            TranslationTables(Nr, Nf, lambdaFit, tp, Fp);
            TranslationTables(Nr, Nf, lambdaFit, tm, Fm);
            std::vector<double> plus, minus;
            objective.TranslateHermiteFit(Fp[0], Fp[1], Fp[2], plus);
            objective.TranslateHermiteFit(Fm[0], Fm[1], Fm[2], minus);
            for (std::size_t i = 0; i < plain.size(); ++i) {
                EXPECT_NEAR((*derivatives[axis])[i], (plus[i] - minus[i]) / (2.0 * h), 1e-7 * scale)
                    << "axis " << axis << " index " << i;
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Concurrency

TEST_F(OverlapObjectiveTest, ConcurrentObjectsInTwoThreadsEqualTheSameWorkInOneThread) {
    // Each job sets up an objective (with lambda optimisation) and evaluates values and
    // gradients at every point; the objects share nothing, so running two jobs at once must
    // give bitwise the results of running them one after the other.
    struct Result {
        std::vector<double> values;
        std::vector<double> gradients;
    };
    auto job = [](const std::vector<QVGaussian>& reference, const std::vector<QVGaussian>& fit,
                  bool single, Result& result) {
        QVHermiteOptions refOptions, fitOptions;
        refOptions.SetNPolyMax(7);
        fitOptions.SetNPolyMax(7);
        refOptions.SetUseSingleLambda(single);
        fitOptions.SetUseSingleLambda(single);
        QVHermiteOverlap objective;
        objective.SetupRef(reference, refOptions);
        objective.Setup(fit, fitOptions);
        for (const auto& x : kPoints) {
            double gradient[6];
            result.values.push_back(objective(x));
            result.values.push_back(objective(x, gradient));
            result.gradients.insert(result.gradients.end(), gradient, gradient + 6);
        }
    };
    Result serialFirst, serialSecond;
    job(reference_, fit_, true, serialFirst);
    job(fit_, reference_, false, serialSecond);
    ASSERT_EQ(serialFirst.values.size(), 8u);

    for (unsigned int repeat = 0; repeat < 3; ++repeat) {
        Result parallelFirst, parallelSecond;
        std::thread first([&] { job(reference_, fit_, true, parallelFirst); });
        std::thread second([&] { job(fit_, reference_, false, parallelSecond); });
        first.join();
        second.join();
        EXPECT_EQ(parallelFirst.values, serialFirst.values);
        EXPECT_EQ(parallelFirst.gradients, serialFirst.gradients);
        EXPECT_EQ(parallelSecond.values, serialSecond.values);
        EXPECT_EQ(parallelSecond.gradients, serialSecond.gradients);
    }
}

}  // namespace
