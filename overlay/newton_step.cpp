#include "overlay/newton_step.h"

#include <algorithm>
#include <cmath>

#include "overlay/symmetric_eigen.h"

namespace hermite::overlay {

Vector6 NewtonAscent(const Vector6& g, const Matrix6& H, double maxLength) {
    const Matrix6 curvature = -H;
    const Eigen::LLT<Matrix6> cholesky(curvature);
    Vector6 step;
    if (cholesky.info() == Eigen::Success) {
        step = cholesky.solve(g);
    } else {
        SymmetricEigen6 eigen = SymmetricEigenOf(curvature);
        if (!eigen.converged) {
            const Eigen::SelfAdjointEigenSolver<Matrix6> general(curvature);
            eigen.values = general.eigenvalues();
            eigen.vectors = general.eigenvectors();
        }
        const double floor = 1e-2 * std::max(eigen.values.cwiseAbs().maxCoeff(), 1e-300);
        step = eigen.vectors *
               (eigen.vectors.transpose() * g).cwiseQuotient(eigen.values.cwiseMax(floor));
    }
    const double length = step.norm();
    return length > maxLength ? Vector6(step / length * maxLength) : step;
}

double ModelGain(const Vector6& g, const Matrix6& H, const Vector6& s) {
    return g.dot(s) + 0.5 * s.dot(H * s);
}

bool ModelTopBelow(const Vector6& g, const Matrix6& H, double value, double bar, double reach) {
    const Eigen::LLT<Matrix6> cholesky(-H);
    if (cholesky.info() != Eigen::Success) {
        return false;
    }
    const Vector6 step = cholesky.solve(g);
    return step.norm() <= reach && value + 0.5 * g.dot(step) < bar;
}

double PredictionBound(double value, const Vector6& g, const Matrix6& H) {
    double largest = 0.0;
    for (int r = 0; r < 6; ++r) {
        double disc = H(r, r);
        for (int c = 0; c < 6; ++c) {
            disc += c == r ? 0.0 : std::abs(H(r, c));
        }
        largest = std::max(largest, disc);
    }
    const double bound = value + g.norm() + 0.5 * largest;
    return bound + 1e-12 * (std::abs(value) + g.norm() + largest);
}

}  // namespace hermite::overlay
