// The overlap objective: minus the overlap of a rotated reference expansion with a translated
// fit expansion, with its analytic gradient, all in coefficient space.
//
// Rotation: three passes of the per-plane S matrices (about z, y, x); the derivative with
// respect to one angle replaces that angle's S by dS/dtheta.
// Translation: moving the fit by t along one axis couples a reference function of degree r
// with a fit function of degree c through the integral F[r][c] of their product, a table built
// for the shift -lambda t; the derivative with respect to t is -lambda dF/dx.

#include "hermite/hermite.h"
#include "hermite/internal.h"

namespace QVHermiteMath {

namespace {

/// The reference coefficients turned by the passes z, y, x with the given sets.
void ThreePasses(unsigned int N, const std::vector<double>& K, const SMatrixSet& Sx,
                 const SMatrixSet& Sy, const SMatrixSet& Sz, const std::vector<double>& in,
                 std::vector<double>& out) {
    std::vector<double> scratch(in.size());
    RotatePass(N, K, Sz, in, out);
    RotatePass(N, K, Sy, out, scratch);
    RotatePass(N, K, Sx, scratch, out);
}

}  // namespace

QVHermiteOverlap::~QVHermiteOverlap() = default;

bool QVHermiteOverlap::SetupRef(const std::vector<QVGaussian>& gaussians,
                                QVHermiteOptions& options) {
    reference_.Setup(gaussians, options);
    referenceCoefficients_ = reference_.GetCoefficients();
    kTable_ = computeKs(options.GetNPolyMax() + 1);
    referenceOptions_ = options;
    return true;
}

bool QVHermiteOverlap::Setup(const std::vector<QVGaussian>& gaussians, QVHermiteOptions& options) {
    fit_.Setup(gaussians, options);
    fitCoefficients_ = fit_.GetCoefficients();
    fitOptions_ = options;
    return true;
}

unsigned int QVHermiteOverlap::NumVar() const {
    return 6;
}

bool QVHermiteOverlap::GetFComponents(const double*) {
    return WarnNotImplemented();
}

double QVHermiteOverlap::ReferenceVolume() const {
    return referenceOptions_.GetLambda(0) * referenceOptions_.GetLambda(1) *
           referenceOptions_.GetLambda(2);
}

void QVHermiteOverlap::RotateHermiteRef(const SMatrixSet& Sx, const SMatrixSet& Sy,
                                        const SMatrixSet& Sz, std::vector<double>& out) const {
    out.assign(referenceCoefficients_.size(), 0.0);
    ThreePasses(referenceOptions_.GetNPolyMax(), kTable_, Sx, Sy, Sz, referenceCoefficients_, out);
}

void QVHermiteOverlap::RotateHermiteRefWithDerivatives(
    const SMatrixSet& Sx, const SMatrixSet& Sy, const SMatrixSet& Sz, std::vector<double>& out,
    std::vector<double>& outA, std::vector<double>& outB, std::vector<double>& outC) const {
    const unsigned int N = referenceOptions_.GetNPolyMax();
    SMatrixSet dSx, dSy, dSz;
    BuildSMatrixDerivative(N, Sx, dSx);
    BuildSMatrixDerivative(N, Sy, dSy);
    BuildSMatrixDerivative(N, Sz, dSz);
    const std::vector<double>& in = referenceCoefficients_;
    for (std::vector<double>* v : {&out, &outA, &outB, &outC}) {
        v->assign(in.size(), 0.0);
    }
    ThreePasses(N, kTable_, Sx, Sy, Sz, in, out);
    ThreePasses(N, kTable_, dSx, Sy, Sz, in, outA);
    ThreePasses(N, kTable_, Sx, dSy, Sz, in, outB);
    ThreePasses(N, kTable_, Sx, Sy, dSz, in, outC);
}

void QVHermiteOverlap::Translate(const FMatrix& Fx, const FMatrix& Fy, const FMatrix& Fz,
                                 std::vector<double>& out) const {
    const unsigned int Nr = referenceOptions_.GetNPolyMax();
    const unsigned int Nf = fitOptions_.GetNPolyMax();
    const std::vector<double>& fit = fitCoefficients_;
    const std::vector<double>& K = kTable_;

    // Stage z: Tz[n][(l', m')] = sum over n' of Fz[n][n'] fit(l', m', n') / K_n, for every
    // reference degree n and fit pair l' + m' <= Nf (pairs indexed l' (Nf + 1) + m').
    const unsigned int pairs = (Nf + 1) * (Nf + 1);
    std::vector<double> Tz((Nr + 1) * pairs, 0.0);
    for (unsigned int n = 0; n <= Nr; ++n) {
        for (unsigned int lf = 0; lf <= Nf; ++lf) {
            for (unsigned int mf = 0; mf <= Nf - lf; ++mf) {
                double sum = 0.0;
                for (unsigned int nf = 0; nf <= Nf - lf - mf; ++nf) {
                    sum += Fz[n][nf] * fit[GetLmnIndex(lf, mf, nf)];
                }
                Tz[n * pairs + lf * (Nf + 1) + mf] = sum / K[n];
            }
        }
    }
    // Stage y: Ty[(m, n)][l'] = sum over m' of Fy[m][m'] Tz[n][(l', m')] / K_m.
    std::vector<double> Ty((Nr + 1) * (Nr + 1) * (Nf + 1), 0.0);
    for (unsigned int m = 0; m <= Nr; ++m) {
        for (unsigned int n = 0; n <= Nr - m; ++n) {
            for (unsigned int lf = 0; lf <= Nf; ++lf) {
                double sum = 0.0;
                for (unsigned int mf = 0; mf <= Nf - lf; ++mf) {
                    sum += Fy[m][mf] * Tz[n * pairs + lf * (Nf + 1) + mf];
                }
                Ty[(m * (Nr + 1) + n) * (Nf + 1) + lf] = sum / K[m];
            }
        }
    }
    // Stage x: B(l, m, n) = sum over l' of Fx[l][l'] Ty[(m, n)][l'] / K_l, in lmn order.
    out.assign(CoefficientCount(Nr), 0.0);
    std::size_t index = 0;
    for (unsigned int s = 0; s <= Nr; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m, ++index) {
                const unsigned int n = s - l - m;
                double sum = 0.0;
                for (unsigned int lf = 0; lf <= Nf; ++lf) {
                    sum += Fx[l][lf] * Ty[(m * (Nr + 1) + n) * (Nf + 1) + lf];
                }
                out[index] = sum / K[l];
            }
        }
    }
}

FMatrix QVHermiteOverlap::TranslationTable(unsigned int axis, const double* x) const {
    FMatrix F;
    BuildFMatrix(referenceOptions_.GetNPolyMax() + 1, fitOptions_.GetNPolyMax() + 2,
                 -(fitOptions_.GetLambda(axis) * x[3 + axis]), F);
    return F;
}

FMatrix QVHermiteOverlap::TranslationTableDerivative(unsigned int axis, const FMatrix& F) const {
    FMatrix dF;
    BuildFMatrixDerivative(referenceOptions_.GetNPolyMax() + 1, fitOptions_.GetNPolyMax() + 1, F,
                           dF);
    const double chain = -fitOptions_.GetLambda(axis);
    for (std::vector<double>& row : dF) {
        for (double& value : row) {
            value = chain * value;
        }
    }
    return dF;
}

void QVHermiteOverlap::TranslateHermiteFit(const FMatrix& Fx, const FMatrix& Fy, const FMatrix& Fz,
                                           std::vector<double>& out) const {
    Translate(Fx, Fy, Fz, out);
}

void QVHermiteOverlap::TranslateHermiteFitWithDerivatives(
    const FMatrix& Fx, const FMatrix& Fy, const FMatrix& Fz, std::vector<double>& out,
    std::vector<double>& outX, std::vector<double>& outY, std::vector<double>& outZ) const {
    Translate(Fx, Fy, Fz, out);
    Translate(TranslationTableDerivative(0, Fx), Fy, Fz, outX);
    Translate(Fx, TranslationTableDerivative(1, Fy), Fz, outY);
    Translate(Fx, Fy, TranslationTableDerivative(2, Fz), outZ);
}

double QVHermiteOverlap::operator()(const double* x) {
    const unsigned int Nr = referenceOptions_.GetNPolyMax();
    SMatrixSet Sx, Sy, Sz;
    BuildSMatrix(Nr, x[0], Sx);
    BuildSMatrix(Nr, x[1], Sy);
    BuildSMatrix(Nr, x[2], Sz);
    std::vector<double> A, B;
    RotateHermiteRef(Sx, Sy, Sz, A);
    TranslateHermiteFit(TranslationTable(0, x), TranslationTable(1, x), TranslationTable(2, x), B);

    const std::vector<double>& K = kTable_;
    double S = 0.0;
    std::size_t index = 0;
    for (unsigned int s = 0; s <= Nr; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m, ++index) {
                S += A[index] * B[index] * K[l] * K[m] * K[s - l - m];
            }
        }
    }
    return -(S / ReferenceVolume());
}

double QVHermiteOverlap::operator()(const double* x, double* grad) {
    const unsigned int Nr = referenceOptions_.GetNPolyMax();
    SMatrixSet Sx, Sy, Sz;
    BuildSMatrix(Nr, x[0], Sx);
    BuildSMatrix(Nr, x[1], Sy);
    BuildSMatrix(Nr, x[2], Sz);
    std::vector<double> A, Aa, Ab, Ac, B, Bx, By, Bz;
    RotateHermiteRefWithDerivatives(Sx, Sy, Sz, A, Aa, Ab, Ac);
    TranslateHermiteFitWithDerivatives(TranslationTable(0, x), TranslationTable(1, x),
                                       TranslationTable(2, x), B, Bx, By, Bz);

    for (unsigned int i = 0; i < NumVar(); ++i) {
        grad[i] = 0.0;
    }
    const std::vector<double>& K = kTable_;
    double S = 0.0;
    std::size_t i = 0;
    for (unsigned int s = 0; s <= Nr; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m, ++i) {
                const double w = K[l] * K[m] * K[s - l - m];
                S += A[i] * B[i] * w;
                grad[0] += B[i] * Aa[i] * w;
                grad[1] += Ab[i] * B[i] * w;
                grad[2] += Ac[i] * B[i] * w;
                grad[3] += Bx[i] * A[i] * w;
                grad[4] += By[i] * A[i] * w;
                grad[5] += w * Bz[i] * A[i];
            }
        }
    }
    const double P = ReferenceVolume();
    const double inverseP = 1.0 / P;
    for (unsigned int k = 0; k < NumVar(); ++k) {
        grad[k] = -(grad[k] * inverseP);
    }
    return -(S / P);
}

}  // namespace QVHermiteMath
