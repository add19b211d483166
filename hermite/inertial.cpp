// Orientation by Hermite moments of inertia: the density's second-moment tensor (from its
// expansion), its principal axes ordered by falling moment, a right-handed frame, and the
// rotation of the Gaussian centres into that frame.

#include <Eigen/Dense>

#include "hermite/hermite.h"
#include "hermite/internal.h"
#include "qv/error.h"

namespace QVHermiteMath {

namespace {

/// The symmetric tensor of the six second moments (2,0,0), (0,2,0), (0,0,2), (1,1,0),
/// (1,0,1), (0,1,1) of an expansion, evaluated in that order.
Eigen::MatrixXd MomentTensor(unsigned int order, double lambdaX, double lambdaY, double lambdaZ,
                             const std::vector<double>& coef) {
    const auto moment = [&](unsigned int a, unsigned int b, unsigned int c) {
        return Hermite3DMoment(a, b, c, order, lambdaX, lambdaY, lambdaZ, coef);
    };
    Eigen::MatrixXd M(3, 3);
    M(0, 0) = moment(2, 0, 0);
    M(1, 1) = moment(0, 2, 0);
    M(2, 2) = moment(0, 0, 2);
    M(0, 1) = M(1, 0) = moment(1, 1, 0);
    M(0, 2) = M(2, 0) = moment(1, 0, 1);
    M(1, 2) = M(2, 1) = moment(0, 1, 1);
    return M;
}

/// Makes the rows a right-handed frame: when their determinant is negative, negates all three
/// (in three dimensions that negates the determinant). A zero or NaN determinant leaves them.
void MakeRightHanded(std::vector<std::vector<double>>& rows) {
    Eigen::MatrixXd frame(3, 3);
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            frame(i, j) = rows[i][j];
        }
    }
    if (0.0 > Eigen::PartialPivLU<Eigen::MatrixXd>(frame).determinant()) {
        for (std::vector<double>& row : rows) {
            for (double& component : row) {
                component = -component;
            }
        }
    }
}

}  // namespace

bool QVOrientByHermiteMomentsOfInertia(std::vector<QVGaussian>& gaussians, unsigned int order,
                                       double lambdaX, double lambdaY, double lambdaZ,
                                       std::vector<double>& translation,
                                       std::vector<double>& rotation,
                                       std::vector<std::vector<double>>& inertia,
                                       std::vector<double>& eigenvalues) {
    translation.clear();
    rotation.clear();

    const double lambdaMean = ((lambdaY + lambdaZ) + lambdaX) * 0.3333333333333333;
    for (const double c : QVOptimizationSearchOfHermiteCOM(gaussians, order, lambdaMean)) {
        translation.push_back(-c);
    }

    // "-UseSingleLambda" keeps its default; it has no effect with fixed lambdas.
    QVHermiteOptions options = FixedLambdaOptions(order, lambdaX, lambdaY, lambdaZ, true);
    QVHermite expansion;
    expansion.Setup(gaussians, options);
    const std::vector<double> coef = expansion.GetCoefficients();

    const Eigen::MatrixXd M = MomentTensor(order, lambdaX, lambdaY, lambdaZ, coef);
    for (std::vector<double>& row : inertia) {
        std::vector<double>().swap(row);
    }
    inertia.clear();
    for (int i = 0; i < 3; ++i) {
        inertia.push_back({M(i, 0), M(i, 1), M(i, 2)});
    }

    // The general eigen-solver on the symmetric tensor; imaginary parts vanish.
    const Eigen::EigenSolver<Eigen::MatrixXd> solver(M, true);
    std::vector<double> values;
    std::vector<std::vector<double>> vectors(3, std::vector<double>(3));
    for (int i = 0; i < 3; ++i) {
        values.push_back(solver.eigenvalues()(i).real());
        for (int j = 0; j < 3; ++j) {
            vectors[i][j] = solver.eigenvectors()(i, j).real();
        }
    }
    OrderEigenvaluesHighToLow(values, vectors);
    MakeRightHanded(vectors);
    ComputeRotationMatrix(vectors, rotation);
    QVRotateGaussians(gaussians, rotation);
    eigenvalues = values;
    return false;
}

bool QVOrientByHermiteMomentsOfInertia(std::vector<QVGaussian>& gaussians, unsigned int order,
                                       double lambda, std::vector<double>& translation,
                                       std::vector<double>& rotation,
                                       std::vector<std::vector<double>>& inertia,
                                       std::vector<double>& eigenvalues) {
    return QVOrientByHermiteMomentsOfInertia(gaussians, order, lambda, lambda, lambda, translation,
                                             rotation, inertia, eigenvalues);
}

void OrderEigenvaluesHighToLow(std::vector<double>& eigenvalues,
                               std::vector<std::vector<double>>& eigenvectors) {
    const double a = eigenvalues[0], b = eigenvalues[1], c = eigenvalues[2];
    // The first test that holds decides; with >= throughout, ties keep the earlier order.
    unsigned int p[3] = {0, 1, 2};
    if (a >= b && b >= c) {
        p[0] = 0, p[1] = 1, p[2] = 2;
    } else if (a >= c && c >= b) {
        p[0] = 0, p[1] = 2, p[2] = 1;
    } else if (a >= c && b >= a) {
        p[0] = 1, p[1] = 0, p[2] = 2;
    } else if (b >= c && c >= a) {
        p[0] = 1, p[1] = 2, p[2] = 0;
    } else if (a >= b && c >= a) {
        p[0] = 2, p[1] = 0, p[2] = 1;
    } else if (c >= b && b >= a) {
        p[0] = 2, p[1] = 1, p[2] = 0;
    } else {
        // Only a NaN gets here; the solver's order is kept.
        QVSystem::QVThrow.Warning("Unexpected conditional logical error.");
    }
    std::vector<double> orderedValues(3);
    std::vector<std::vector<double>> orderedVectors(3, std::vector<double>(3));
    for (int k = 0; k < 3; ++k) {
        orderedValues[k] = eigenvalues[p[k]];
        for (int r = 0; r < 3; ++r) {
            orderedVectors[k][r] = eigenvectors[r][p[k]];  // column p[k] becomes row k
        }
    }
    eigenvalues = orderedValues;
    eigenvectors = orderedVectors;
}

void ComputeRotationMatrix(const std::vector<std::vector<double>>& eigenvectors,
                           std::vector<double>& rotation) {
    for (int k = 0; k < 3; ++k) {
        for (int i = 0; i < 3; ++i) {
            rotation.push_back(eigenvectors[k][i]);
        }
    }
}

void QVRotateGaussians(std::vector<QVGaussian>& gaussians, const std::vector<double>& rotation) {
    const std::vector<double>& R = rotation;
    for (QVGaussian& g : gaussians) {
        const double x = g.GetX(), y = g.GetY(), z = g.GetZ();
        g.SetX(static_cast<float>((R[0] * x + R[1] * y) + R[2] * z));
        g.SetY(static_cast<float>((R[3] * x + R[4] * y) + R[5] * z));
        g.SetZ(static_cast<float>((R[6] * x + R[7] * y) + R[8] * z));
    }
}

}  // namespace QVHermiteMath
