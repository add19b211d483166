// The Hermite centre of mass: the ratio of the first to the zeroth moment of the truncated
// expansion of a density, its measurement, the objective |c(t)|^2 over a translation t, and the
// two searches for the translation that brings it to the origin.
//
// The moments are the library's moment functionals (Hermite3DMoment), so the Hermite centre of
// mass does not in general move rigidly with the density; the searches find where it vanishes
// rather than assuming it does.

#include <cmath>

#include "hermite/hermite.h"
#include "hermite/internal.h"

namespace QVHermiteMath {

namespace {

/// The coefficients of the expansion of `gaussians` with `options` (a copy: Setup writes the
/// options used back).
std::vector<double> ExpansionCoefficients(const std::vector<QVGaussian>& gaussians,
                                          QVHermiteOptions options) {
    QVHermite expansion;
    expansion.Setup(gaussians, options);
    return expansion.GetCoefficients();
}

}  // namespace

std::vector<double> QVHermiteCM(std::vector<QVGaussian>& gaussians, unsigned int order,
                                double lambdaX, double lambdaY, double lambdaZ, bool singleLambda) {
    const std::vector<double> coef = ExpansionCoefficients(
        gaussians, FixedLambdaOptions(order, lambdaX, lambdaY, lambdaZ, singleLambda));
    const auto moment = [&](unsigned int a, unsigned int b, unsigned int c) {
        return Hermite3DMoment(a, b, c, order, lambdaX, lambdaY, lambdaZ, coef);
    };
    const double m0 = moment(0, 0, 0);
    std::vector<double> centre;
    centre.push_back(moment(1, 0, 0) / m0);
    centre.push_back(moment(0, 1, 0) / m0);
    centre.push_back(moment(0, 0, 1) / m0);
    return centre;
}

bool QVTranslateGaussians(std::vector<QVGaussian>& gaussians, float* t) {
    for (QVGaussian& g : gaussians) {
        g.SetX(g.GetX() + t[0]);
        g.SetY(g.GetY() + t[1]);
        g.SetZ(g.GetZ() + t[2]);
    }
    return true;
}

double max_abs(const std::vector<double>& v) {
    double largest = std::fabs(v[0]);
    for (std::size_t i = 1; i < v.size(); ++i) {
        const double magnitude = std::fabs(v[i]);
        largest = largest > magnitude ? largest : magnitude;
    }
    return largest;
}

std::vector<double> QVIterativeSearchOfHermiteCOM(std::vector<QVGaussian>& gaussians,
                                                  unsigned int order, double lambdaX,
                                                  double lambdaY, double lambdaZ, double tolerance,
                                                  unsigned int maxIterations) {
    std::vector<double> total(3, 0.0);
    const auto measure = [&]() {
        const std::vector<double> c =
            QVHermiteCM(gaussians, order, lambdaX, lambdaY, lambdaZ, false);
        for (int i = 0; i < 3; ++i) {
            total[i] += c[i];
        }
        return c;
    };
    std::vector<double> c = measure();
    for (unsigned int k = 0;; ++k) {
        // A NaN largest magnitude also ends the search.
        if (k >= maxIterations || !(max_abs(c) > tolerance)) {
            return total;
        }
        float shift[3] = {-static_cast<float>(c[0]), -static_cast<float>(c[1]),
                          -static_cast<float>(c[2])};
        QVTranslateGaussians(gaussians, shift);
        c = measure();
    }
}

std::vector<double> QVOptimizationSearchOfHermiteCOM(std::vector<QVGaussian>& gaussians,
                                                     unsigned int order, double lambda) {
    QVOpt::QVNewtonOpt minimiser;
    minimiser.SetTolerance(0.0001);
    minimiser.SetIterLimit(100);
    QVHermiteCOMFunc objective(FixedLambdaOptions(order, lambda, lambda, lambda, true), gaussians);
    const double start[3] = {0.0, 0.0, 0.0};
    double solution[3] = {0.0, 0.0, 0.0};
    minimiser(objective, nullptr, start, solution);
    // The minimiser t* brings the centre of mass to the origin, so it sat at -t*.
    return {-solution[0], -solution[1], -solution[2]};
}

// ---------------------------------------------------------------------------------------------
// The objective f(t) = |c(t)|^2, c(t) the Hermite centre of mass of the density moved by t.
//
// With m_a the first moments and m0 the zeroth, both linear in the coefficients, the gradient of
// c_a = m_a / m0 with respect to the coefficient vector (c_a held fixed) is
// w_a = (dm_a/dcoef - c_a dm0/dcoef) / m0; its contraction with the translational derivatives
// of the coefficients gives dc_a/dt. The weights use lambdaX on all axes (the searches keep the
// three lambdas equal).

QVHermiteCOMFunc::QVHermiteCOMFunc(const QVHermiteOptions& options,
                                   const std::vector<QVGaussian>& gaussians)
    : options_(options), gaussians_(gaussians) {}

QVHermiteCOMFunc::~QVHermiteCOMFunc() = default;

unsigned int QVHermiteCOMFunc::NumVar() const {
    return 3;
}

bool QVHermiteCOMFunc::GetFComponents(const double*) {
    return WarnNotImplemented();
}

std::vector<QVGaussian> QVHermiteCOMFunc::Moved(const double* x) const {
    std::vector<QVGaussian> moved = gaussians_;
    float shift[3] = {static_cast<float>(x[0]), static_cast<float>(x[1]), static_cast<float>(x[2])};
    QVTranslateGaussians(moved, shift);
    return moved;
}

std::vector<double> QVHermiteCOMFunc::Centre(std::vector<QVGaussian>& moved) const {
    const double lambdaZ = options_.GetLambda(2);
    const double lambdaY = options_.GetLambda(1);
    const double lambdaX = options_.GetLambda(0);
    const unsigned int N = options_.GetNPolyMax();
    return QVHermiteCM(moved, N, lambdaX, lambdaY, lambdaZ, false);
}

double QVHermiteCOMFunc::operator()(const double* x) {
    std::vector<QVGaussian> moved = Moved(x);
    const std::vector<double> c = Centre(moved);
    return (c[0] * c[0] + c[1] * c[1]) + c[2] * c[2];
}

QVHermiteCOMFunc::Derivatives QVHermiteCOMFunc::Differentiate(const std::vector<QVGaussian>& moved,
                                                              const std::vector<double>& c,
                                                              unsigned int flag) const {
    const QVGaussianToHermite transform(options_, moved, flag);
    const std::vector<double> coef = ExpansionCoefficients(moved, options_);

    const unsigned int N = options_.GetNPolyMax();
    const double lambdaX = options_.GetLambda(0);
    const double lambdaY = options_.GetLambda(1);
    const double lambdaZ = options_.GetLambda(2);
    const double m0 = Hermite3DMoment(0, 0, 0, N, lambdaX, lambdaY, lambdaZ, coef);

    const double L = lambdaX;
    const double inverseL4 = 1.0 / ((L * L) * (L * L));
    const double inverseL3 = 1.0 / ((L * L) * L);
    const double inverseM0 = 1.0 / m0;

    Derivatives result;
    std::vector<double> u;
    for (unsigned int a = 0; a < 3; ++a) {
        std::vector<double>& w = result.weights[a];
        w.reserve(CoefficientCount(N));
        for (unsigned int t = 0; t <= N; ++t) {
            for (unsigned int i = 0; i <= t; ++i) {
                for (unsigned int j = 0; j <= t - i; ++j) {
                    const unsigned int k = t - i - j;
                    const double A = Hermite1DMoment(i, a == 0) * Hermite1DMoment(j, a == 1) *
                                     Hermite1DMoment(k, a == 2) * inverseL4;
                    const double B = Hermite1DMoment(i, 0) * Hermite1DMoment(j, 0) *
                                     Hermite1DMoment(k, 0) * inverseL3;
                    w.push_back((A - c[a] * B) * inverseM0);
                    if (a == 0) {
                        u.push_back(-B * inverseM0);
                    }
                }
            }
        }
        result.first[a] = transform.GetTranslationalDerivativeConvolution(w);
    }
    if (flag == TranslationSecondDerivatives) {
        // -(dm0/dt) / m0: how the normalisation moves.
        const std::vector<double> U = transform.GetTranslationalDerivativeConvolution(u);
        for (unsigned int a = 0; a < 3; ++a) {
            std::vector<double> S =
                transform.GetTranslationalSecondDerivativeConvolution(result.weights[a]);
            const std::vector<double>& D = result.first[a];
            for (unsigned int p = 0; p < 6; ++p) {
                const unsigned int ap = kPackedRow[p], bp = kPackedColumn[p];
                S[p] += D[bp] * U[ap] + D[ap] * U[bp];
            }
            result.second[a] = std::move(S);
        }
    }
    return result;
}

void QVHermiteCOMFunc::WriteGradient(const std::vector<double>& c, const Derivatives& d,
                                     double* gradient) {
    for (unsigned int k = 0; k < 3; ++k) {
        gradient[k] = 2.0 * (c[0] * d.first[0][k] + c[1] * d.first[1][k] + c[2] * d.first[2][k]);
    }
}

double QVHermiteCOMFunc::operator()(const double* x, double* gradient) {
    std::vector<QVGaussian> moved = Moved(x);
    const std::vector<double> c = Centre(moved);
    const double f = (c[0] * c[0] + c[1] * c[1]) + c[2] * c[2];
    WriteGradient(c, Differentiate(moved, c, TranslationFirstDerivatives), gradient);
    return f;
}

double QVHermiteCOMFunc::operator()(const double* x, double* hessian, double* gradient) {
    std::vector<QVGaussian> moved = Moved(x);
    const std::vector<double> c = Centre(moved);
    const double f = (c[0] * c[0] + c[1] * c[1]) + c[2] * c[2];
    const Derivatives d = Differentiate(moved, c, TranslationSecondDerivatives);
    WriteGradient(c, d, gradient);
    // d2f/dt_a dt_b = 2 sum over axes of (dc/dt_a dc/dt_b + c d2c/dt_a dt_b).
    for (unsigned int p = 0; p < 6; ++p) {
        const unsigned int ap = kPackedRow[p], bp = kPackedColumn[p];
        double sum = 0.0;
        for (unsigned int a = 0; a < 3; ++a) {
            const double term = d.first[a][ap] * d.first[a][bp] + c[a] * d.second[a][p];
            sum += term + term;
        }
        hessian[p] = sum;
    }
    return f;
}

}  // namespace QVHermiteMath
