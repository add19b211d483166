// The lambda objective: the negated self-overlap of an expansion as a function of the
// logarithms of its lambdas.
//
// With x = log lambda, d/dx = lambda d/dlambda, and
// d2/dx_a dx_b = lambda_a lambda_b d2/dlambda_a dlambda_b + delta_ab lambda_a d/dlambda_a.

#include <cmath>

#include "hermite/hermite.h"
#include "hermite/internal.h"
#include "qv/error.h"

namespace QVHermiteMath {

bool WarnNotImplemented() {
    QVSystem::QVThrow.Warning("This method has not been implemented yet.");
    return false;
}

QVHermiteSelfOverlap::QVHermiteSelfOverlap(const QVHermiteOptions& options,
                                           const std::vector<QVGaussian>& gaussians)
    : options_(options), gaussians_(gaussians) {}

QVHermiteSelfOverlap::~QVHermiteSelfOverlap() = default;

unsigned int QVHermiteSelfOverlap::NumVar() const {
    return options_.GetUseSingleLambda() ? 1 : 3;
}

bool QVHermiteSelfOverlap::GetFComponents(const double*) {
    return WarnNotImplemented();
}

std::vector<double> QVHermiteSelfOverlap::SetLambdas(const double* x) {
    std::vector<double> lambdas(3);
    if (NumVar() == 1) {
        lambdas.assign(3, std::exp(x[0]));
    } else {
        for (unsigned int axis = 0; axis < 3; ++axis) {
            lambdas[axis] = std::exp(x[axis]);
        }
    }
    for (unsigned int axis = 0; axis < 3; ++axis) {
        options_.SetLambda(axis, lambdas[axis]);
    }
    return lambdas;
}

double QVHermiteSelfOverlap::operator()(const double* x) {
    SetLambdas(x);
    options_.SetUseOptimalLambdas(false);
    const QVGaussianToHermite transform(options_, gaussians_, NoDerivatives);
    return -transform.GetSelfOverlap();
}

double QVHermiteSelfOverlap::operator()(const double* x, double* gradient) {
    const std::vector<double> lambdas = SetLambdas(x);
    options_.SetUseOptimalLambdas(false);
    const QVGaussianToHermite transform(options_, gaussians_, LambdaFirstDerivatives);
    if (NumVar() == 1) {
        gradient[0] = -(lambdas[0] * transform.GetSelfOverlapLambdaDeriv());
    } else {
        std::vector<double> d;
        transform.GetSelfOverlapLambdaDerivs(d);
        for (unsigned int i = 0; i < 3; ++i) {
            gradient[i] = -(d[i] * lambdas[i]);
        }
    }
    return -transform.GetSelfOverlap();
}

double QVHermiteSelfOverlap::operator()(const double* x, double* hessian, double* gradient) {
    const std::vector<double> lambdas = SetLambdas(x);
    const QVGaussianToHermite transform(options_, gaussians_, LambdaSecondDerivatives);
    if (NumVar() == 1) {
        // One variable is minimised by BFGS, which never asks for the Hessian.
        gradient[0] = -(lambdas[0] * transform.GetSelfOverlapLambdaDeriv());
        return true;
    }
    std::vector<double> d;
    std::vector<double> s;
    transform.GetSelfOverlapLambdaDerivs(d);
    transform.GetSelfOverlapLambdaSecondDerivs(s);
    for (unsigned int i = 0; i < 3; ++i) {
        gradient[i] = -(d[i] * lambdas[i]);
    }
    const double lx = lambdas[0], ly = lambdas[1], lz = lambdas[2];
    hessian[0] = -(lx * lx * s[0]) - lx * d[0];
    hessian[1] = -(lx * ly * s[1]);
    hessian[2] = -(ly * ly * s[2]) - ly * d[1];
    hessian[3] = -(lx * lz * s[3]);
    hessian[4] = -(ly * lz * s[4]);
    hessian[5] = -(lz * lz * s[5]) - lz * d[2];
    return true;
}

}  // namespace QVHermiteMath
