// The expansion object: a density's Hermite coefficients with the lambdas they were made with.

#include <cmath>
#include <map>

#include "hermite/hermite.h"
#include "hermite/internal.h"

namespace QVHermiteMath {

namespace {

/// Twice the largest absolute centre coordinate, starting from the smallest positive normal
/// double so that the result is positive even for an empty list.
double Extent(const std::vector<QVGaussian>& gaussians) {
    double extent = 2.2250738585072014e-308;
    for (const QVGaussian& g : gaussians) {
        for (const float coordinate : {g.GetX(), g.GetY(), g.GetZ()}) {
            const double magnitude = std::fabs(static_cast<double>(coordinate));
            if (magnitude > extent / 2.0) {
                extent = 2.0 * magnitude;
            }
        }
    }
    return extent;
}

}  // namespace

void QVHermite::Setup(const std::vector<QVGaussian>& gaussians, QVHermiteOptions& options) {
    extent_ = Extent(gaussians);
    options_ = options;
    if (options_.GetUseOptimalLambdas()) {
        OptimiseLambdas(gaussians);
    }
    options_.SetUseOptimalLambdas(false);

    const QVGaussianToHermite transform(options_, gaussians, LambdaFirstDerivatives);
    coefficients_ = transform.GetHermiteCoefficients();
    lambdaDerivativeCoefficients_ = transform.GetHermiteCoefficientsLambdaDeriv();
    kCoeffs_ = transform.GetKCoeffs();
    selfOverlap_ = transform.GetSelfOverlap();
    selfOverlapLambdaDerivative_ = transform.GetSelfOverlapLambdaDeriv();

    options = options_;
}

void QVHermite::OptimiseLambdas(const std::vector<QVGaussian>& gaussians) {
    // The self-overlap is maximised in log lambda, so that every trial lambda is positive.
    QVHermiteSelfOverlap objective(options_, gaussians);
    if (options_.GetUseSingleLambda()) {
        const double mean =
            (options_.GetLambda(0) + options_.GetLambda(1) + options_.GetLambda(2)) *
            0.3333333333333333;
        const double start = std::log(mean);
        double solution = start;
        QVOpt::QVBFGSOpt minimiser;
        minimiser(objective, nullptr, &start, &solution);
        const double lambda = std::exp(solution);
        for (unsigned int axis = 0; axis < 3; ++axis) {
            options_.SetLambda(axis, lambda);
        }
    } else {
        const double start[3] = {std::log(options_.GetLambda(0)), std::log(options_.GetLambda(1)),
                                 std::log(options_.GetLambda(2))};
        double solution[3] = {start[0], start[1], start[2]};
        QVOpt::QVNewtonOpt minimiser;
        minimiser(objective, nullptr, start, solution);
        for (unsigned int axis = 0; axis < 3; ++axis) {
            options_.SetLambda(axis, std::exp(solution[axis]));
        }
    }
}

unsigned int QVHermite::NumCoefficients() const {
    const unsigned int N = options_.GetNPolyMax();
    return (N + 1) * (N + 2) * (N + 3) / 6;
}

bool QVHermite::RotateHermites(const std::vector<double>& rotation) {
    const std::vector<double> angles = EulerXYZ(rotation);
    const unsigned int N = options_.GetNPolyMax();
    std::map<unsigned int, SMatrixSet> perAxis;
    for (unsigned int axis = 0; axis < 3; ++axis) {
        BuildSMatrix(N, angles[axis], perAxis[axis]);
    }
    // Rotate about z, then y, then x: R = Rx(a) Ry(b) Rz(c) applied to the density.
    std::vector<double> old = coefficients_;
    for (const unsigned int axis : {2u, 1u, 0u}) {
        RotatePass(N, kCoeffs_, perAxis[axis], old, coefficients_);
        old = coefficients_;
    }
    return true;
}

bool QVHermite::RotateHermites(double r00, double r01, double r02, double r10, double r11,
                               double r12, double r20, double r21, double r22) {
    return RotateHermites({r00, r01, r02, r10, r11, r12, r20, r21, r22});
}

}  // namespace QVHermiteMath
