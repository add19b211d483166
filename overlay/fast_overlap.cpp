#include "overlay/fast_overlap.h"

#include <cmath>

namespace hermite::overlay {

using QVHermiteMath::GetLmnIndex;

namespace {

std::size_t CoefficientCount(unsigned int N) {
    const std::size_t n = N;
    return (n + 1) * (n + 2) * (n + 3) / 6;
}

/// Offset of matrix d in a flat S set: the sizes (e + 1)^2 of the matrices before it.
std::size_t SOffset(unsigned int d) {
    const std::size_t n = d;
    return n * (n + 1) * (2 * n + 1) / 6;
}

}  // namespace

Expansion Expansion::From(const QVHermiteMath::QVHermite& expansion) {
    Expansion result;
    result.order = expansion.GetOptions().GetNPolyMax();
    for (unsigned int axis = 0; axis < 3; ++axis) {
        result.lambda[axis] = expansion.GetOptions().GetLambda(axis);
    }
    result.coefficients = expansion.GetCoefficients();
    return result;
}

namespace {

/// F_0..F_N of one axis of one Gaussian: the recurrence of the library's one-Gaussian tables
/// (F_1 = B F_0, F_k = (k - 1) A F_(k-2) + B F_(k-1)) with the same operations.
void OneAxisTable(unsigned int N, double q, double A, double t, double y, double* F) {
    const double B = 2.0 * t * q * y;
    F[0] = std::sqrt(6.283185307179586 * q) * std::exp(-0.5 * q * y * y);
    if (N >= 1) {
        F[1] = B * F[0];
    }
    for (unsigned int k = 2; k <= N; ++k) {
        F[k] = static_cast<double>(k - 1) * A * F[k - 2] + B * F[k - 1];
    }
}

}  // namespace

Expansion Expansion::Of(const std::vector<QVSystem::QVGaussian>& gaussians, unsigned int order,
                        const double* lambda) {
    Expansion result;
    result.order = order;
    for (unsigned int axis = 0; axis < 3; ++axis) {
        result.lambda[axis] = lambda[axis];
    }
    const std::vector<double> K = QVHermiteMath::computeKs(order);
    std::vector<double> kProduct;
    for (unsigned int s = 0; s <= order; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m) {
                kProduct.push_back(K[l] * K[m] * K[s - l - m]);
            }
        }
    }
    result.coefficients.assign(kProduct.size(), 0.0);
    std::vector<double> tables(3 * (order + 1));
    for (const QVSystem::QVGaussian& g : gaussians) {
        const double r = std::sqrt(2.0 * static_cast<double>(g.GetExponent()));
        const double centre[3] = {g.GetX(), g.GetY(), g.GetZ()};
        for (unsigned int axis = 0; axis < 3; ++axis) {
            const double t = r / lambda[axis];
            const double q = 1.0 / (t * t + 1.0);
            const double A = 2.0 * (1.0 - t * t) * q;
            OneAxisTable(order, q, A, t, centre[axis] * r, &tables[axis * (order + 1)]);
        }
        const double w = g.GetPrefactor();
        const double* X = &tables[0];
        const double* Y = &tables[order + 1];
        const double* Z = &tables[2 * (order + 1)];
        std::size_t index = 0;
        for (unsigned int s = 0; s <= order; ++s) {
            for (unsigned int l = 0; l <= s; ++l) {
                for (unsigned int m = 0; m <= s - l; ++m, ++index) {
                    result.coefficients[index] += w * X[l] * Y[m] * Z[s - l - m] / kProduct[index];
                }
            }
        }
    }
    return result;
}

double Expansion::SelfOverlap() const {
    const std::vector<double> K = QVHermiteMath::computeKs(order);
    double sum = 0.0;
    std::size_t index = 0;
    for (unsigned int s = 0; s <= order; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m, ++index) {
                const double c = coefficients[index];
                sum += c * c * K[l] * K[m] * K[s - l - m];
            }
        }
    }
    return (1.0 / (lambda[0] * lambda[1] * lambda[2])) * sum;
}

FastOverlap::FastOverlap(const Expansion& reference, const Expansion& fit)
    : Nr_(reference.order),
      Nf_(fit.order),
      referenceVolume_(reference.lambda[0] * reference.lambda[1] * reference.lambda[2]),
      fitLambda_{fit.lambda[0], fit.lambda[1], fit.lambda[2]},
      reference_(reference.coefficients),
      fit_(fit.coefficients),
      K_(QVHermiteMath::computeKs(reference.order + 1)),
      fRowLength_(reference.order + fit.order + 2) {
    // Square roots of the small integers the S-matrix recurrences use, (N + 2)^2 at most.
    for (unsigned int k = 0; k <= (Nr_ + 2) * (Nr_ + 2); ++k) {
        roots_.push_back(std::sqrt(static_cast<double>(k)));
    }
    const std::size_t count = CoefficientCount(Nr_);
    for (unsigned int s = 0; s <= Nr_; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m) {
                lOf_.push_back(l);
                mOf_.push_back(m);
                nOf_.push_back(s - l - m);
                kProduct_.push_back(K_[l] * K_[m] * K_[s - l - m]);
            }
        }
    }
    // Positions of the fit coefficients (l', m', n'), n' fastest, for the z stage.
    fitColumn_.assign(static_cast<std::size_t>(Nf_ + 1) * (Nf_ + 1) * (Nf_ + 1), 0);
    for (unsigned int lf = 0; lf <= Nf_; ++lf) {
        for (unsigned int mf = 0; mf <= Nf_ - lf; ++mf) {
            for (unsigned int nf = 0; nf <= Nf_ - lf - mf; ++nf) {
                fitColumn_[(lf * (Nf_ + 1) + mf) * (Nf_ + 1) + nf] = GetLmnIndex(lf, mf, nf);
            }
        }
    }
    // The rotation pass, unrolled into flat tables in the order in which it is evaluated.
    for (unsigned int k = 0; k <= Nr_; ++k) {
        for (unsigned int t = 0; t <= k; ++t) {
            for (unsigned int u = 0; u <= k - t; ++u) {
                const unsigned int w = k - t - u;
                const unsigned int D = t + u;
                const double normTU = K_[t] * K_[u];
                passOut_.push_back(GetLmnIndex(w, t, u));
                passRow_.push_back(static_cast<unsigned int>(SOffset(D) + t * (D + 1)));
                passTerms_.push_back(D + 1);
                for (unsigned int v = 0; v <= D; ++v) {
                    passFactor_.push_back(std::sqrt((K_[D - v] * K_[v]) / normTU));
                    passIn_.push_back(GetLmnIndex(v, D - v, w));
                }
            }
        }
    }
    for (unsigned int axis = 0; axis < 3; ++axis) {
        S_[axis].assign(SOffset(Nr_ + 1), 0.0);
        dS_[axis].assign(SOffset(Nr_ + 1), 0.0);
        F_[axis].assign(static_cast<std::size_t>(Nr_ + 1) * fRowLength_, 0.0);
        dF_[axis].assign(static_cast<std::size_t>(Nr_ + 1) * fRowLength_, 0.0);
    }
    for (std::vector<double>& v : rotated_) {
        v.assign(count, 0.0);
    }
    for (unsigned int i = 0; i < 4; ++i) {
        A_[i].assign(count, 0.0);
        B_[i].assign(count, 0.0);
    }
    const std::size_t pairs = static_cast<std::size_t>(Nf_ + 1) * (Nf_ + 1);
    for (std::vector<double>& v : Tz_) {
        v.assign((Nr_ + 1) * pairs, 0.0);
    }
    for (std::vector<double>& v : Ty_) {
        v.assign(static_cast<std::size_t>(Nr_ + 1) * (Nr_ + 1) * (Nf_ + 1), 0.0);
    }
}

void FastOverlap::SetFitCoefficients(const std::vector<double>& coefficients) {
    fit_ = coefficients;
}

// ---------------------------------------------------------------------------------------------
// S matrices: the recurrence of QVHermiteMath::BuildSMatrix on flat storage.

void FastOverlap::BuildS(double theta, FlatS& S) const {
    double s, c;
    ::sincos(theta, &s, &c);
    S[0] = 1.0;
    double cn = c;
    for (unsigned int j = 0; j < Nr_; ++j) {
        const double* P = &S[SOffset(j)];
        const unsigned int pn = j + 1;  // row length of P
        const unsigned int n = j + 1;
        double* M = &S[SOffset(n)];
        const unsigned int mn = n + 1;  // row length of M
        for (unsigned int i = 0; i <= j; ++i) {
            M[0 * mn + i] = P[0 * pn + i] * (c * roots_[n]) / roots_[n - i];
            M[i * mn + 0] = P[i * pn + 0] * (c * roots_[n]) / roots_[n - i];
        }
        for (unsigned int r = 1; r <= j; ++r) {
            for (unsigned int q = 1; q <= j; ++q) {
                M[q * mn + r] =
                    (P[q * pn + r - 1] * roots_[r] * s + P[q * pn + r] * roots_[n - r] * c) /
                    roots_[n - q];
            }
        }
        M[n * mn + 0] = -(P[j * pn + 0] * s);
        M[0 * mn + n] = s * P[0 * pn + j];
        for (unsigned int k = 0; k < j; ++k) {
            M[n * mn + k + 1] =
                (P[j * pn + k] * roots_[k + 1] * c - P[j * pn + k + 1] * roots_[j - k] * s) /
                roots_[n];
            M[(k + 1) * mn + n] =
                (roots_[k + 1] * c * P[k * pn + j] + roots_[j - k] * s * P[(k + 1) * pn + j]) /
                roots_[n];
        }
        M[n * mn + n] = cn;
        cn = cn * c;
    }
}

void FastOverlap::BuildSDerivative(const FlatS& S, FlatS& dS) const {
    dS[0] = 0.0;
    for (unsigned int d = 1; d <= Nr_; ++d) {
        const double* Sd = &S[SOffset(d)];
        double* out = &dS[SOffset(d)];
        const unsigned int n = d + 1;
        for (unsigned int col = 0; col <= d; ++col) {
            out[col] = roots_[d] * Sd[1 * n + col];
            out[d * n + col] = -roots_[d] * Sd[(d - 1) * n + col];
        }
        for (unsigned int i = 1; i < d; ++i) {
            const double up = roots_[(i + 1) * (d - i)];
            const double down = roots_[i * (d - i + 1)];
            for (unsigned int col = 0; col <= d; ++col) {
                out[i * n + col] = up * Sd[(i + 1) * n + col] - down * Sd[(i - 1) * n + col];
            }
        }
    }
}

void FastOverlap::RotatePass(const FlatS& S, const double* in, double* out) const {
    const double* factor = passFactor_.data();
    const unsigned int* source = passIn_.data();
    for (std::size_t o = 0; o < passOut_.size(); ++o) {
        const double* row = &S[passRow_[o]];
        const unsigned int terms = passTerms_[o];
        double sum = 0.0;
        for (unsigned int v = 0; v < terms; ++v) {
            sum += factor[v] * in[source[v]] * row[v];
        }
        factor += terms;
        source += terms;
        out[passOut_[o]] = sum;
    }
}

// ---------------------------------------------------------------------------------------------
// F tables: the recurrence of QVHermiteMath::BuildFMatrix with R = Nr + 1, Q = Nf + 2, rows of
// fixed stride.

void FastOverlap::BuildF(double x, std::vector<double>& table) const {
    const long L = static_cast<long>(Nr_) + static_cast<long>(Nf_) + 1;
    const std::size_t stride = fRowLength_;
    double* F = table.data();
    F[0] = std::exp(-x * 0.25 * x) * 1.7724538509055159;
    for (long c = 1; c <= L; ++c) {
        F[c] = x * F[c - 1];
    }
    for (long r = 1; r <= static_cast<long>(Nr_); ++r) {
        double* row = F + r * stride;
        const double* above = row - stride;
        row[0] = -x * above[0];
        for (long c = 1; c <= L - r; ++c) {
            row[c] = 2.0 * static_cast<double>(c) * above[c - 1] - above[c + 1];
            if (r >= 2) {
                row[c] += 2.0 * static_cast<double>(r - 1) * (above - stride)[c];
            }
        }
    }
}

void FastOverlap::BuildFDerivative(unsigned int axis, const std::vector<double>& table,
                                   std::vector<double>& derivative) const {
    // -lambda dF/dx for columns 0..Nf: the derivative with respect to the fit translation.
    const std::size_t stride = fRowLength_;
    const double chain = -fitLambda_[axis];
    for (unsigned int r = 0; r <= Nr_; ++r) {
        const double* F = &table[r * stride];
        double* dF = &derivative[r * stride];
        dF[0] = chain * (-0.5 * F[1]);
        for (unsigned int c = 1; c <= Nf_; ++c) {
            dF[c] = chain * (static_cast<double>(c) * F[c - 1] - 0.5 * F[c + 1]);
        }
    }
}

// ---------------------------------------------------------------------------------------------
// The separable translation of the fit coefficients onto the reference basis.

void FastOverlap::StageZ(const std::vector<double>& Fz, double* Tz) const {
    const unsigned int pairs = (Nf_ + 1) * (Nf_ + 1);
    for (unsigned int n = 0; n <= Nr_; ++n) {
        const double* row = &Fz[n * fRowLength_];
        for (unsigned int lf = 0; lf <= Nf_; ++lf) {
            for (unsigned int mf = 0; mf <= Nf_ - lf; ++mf) {
                double sum = 0.0;
                const unsigned int* position = &fitColumn_[(lf * (Nf_ + 1) + mf) * (Nf_ + 1)];
                for (unsigned int nf = 0; nf <= Nf_ - lf - mf; ++nf) {
                    sum += row[nf] * fit_[position[nf]];
                }
                Tz[n * pairs + lf * (Nf_ + 1) + mf] = sum / K_[n];
            }
        }
    }
}

void FastOverlap::StageY(const std::vector<double>& Fy, const double* Tz, double* Ty) const {
    const unsigned int pairs = (Nf_ + 1) * (Nf_ + 1);
    for (unsigned int m = 0; m <= Nr_; ++m) {
        const double* row = &Fy[m * fRowLength_];
        for (unsigned int n = 0; n <= Nr_ - m; ++n) {
            for (unsigned int lf = 0; lf <= Nf_; ++lf) {
                const double* tz = &Tz[n * pairs + lf * (Nf_ + 1)];
                double sum = 0.0;
                for (unsigned int mf = 0; mf <= Nf_ - lf; ++mf) {
                    sum += row[mf] * tz[mf];
                }
                Ty[(m * (Nr_ + 1) + n) * (Nf_ + 1) + lf] = sum / K_[m];
            }
        }
    }
}

void FastOverlap::StageX(const std::vector<double>& Fx, const double* Ty, double* B) const {
    std::size_t index = 0;
    for (unsigned int s = 0; s <= Nr_; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            const double* row = &Fx[l * fRowLength_];
            for (unsigned int m = 0; m <= s - l; ++m, ++index) {
                const unsigned int n = s - l - m;
                const double* ty = &Ty[(m * (Nr_ + 1) + n) * (Nf_ + 1)];
                double sum = 0.0;
                for (unsigned int lf = 0; lf <= Nf_; ++lf) {
                    sum += row[lf] * ty[lf];
                }
                B[index] = sum / K_[l];
            }
        }
    }
}

double FastOverlap::Contract(const double* A, const double* B) const {
    double S = 0.0;
    for (std::size_t i = 0; i < kProduct_.size(); ++i) {
        S += A[i] * B[i] * K_[lOf_[i]] * K_[mOf_[i]] * K_[nOf_[i]];
    }
    return S;
}

// ---------------------------------------------------------------------------------------------
// Evaluation.

double FastOverlap::operator()(const double* x) {
    for (unsigned int axis = 0; axis < 3; ++axis) {
        BuildS(x[axis], S_[axis]);
        BuildF(-(fitLambda_[axis] * x[3 + axis]), F_[axis]);
    }
    // Rotation: passes about z, y, x.
    RotatePass(S_[2], reference_.data(), rotated_[0].data());
    RotatePass(S_[1], rotated_[0].data(), rotated_[1].data());
    RotatePass(S_[0], rotated_[1].data(), A_[0].data());
    // Translation: stages z, y, x.
    StageZ(F_[2], Tz_[0].data());
    StageY(F_[1], Tz_[0].data(), Ty_[0].data());
    StageX(F_[0], Ty_[0].data(), B_[0].data());
    return -(Contract(A_[0].data(), B_[0].data()) / referenceVolume_);
}

double FastOverlap::operator()(const double* x, double* gradient) {
    for (unsigned int axis = 0; axis < 3; ++axis) {
        BuildS(x[axis], S_[axis]);
        BuildSDerivative(S_[axis], dS_[axis]);
        BuildF(-(fitLambda_[axis] * x[3 + axis]), F_[axis]);
        BuildFDerivative(axis, F_[axis], dF_[axis]);
    }
    // A = Px Py Pz ref; each angle derivative replaces one pass by its derivative, sharing the
    // passes before it.
    double* Z = rotated_[0].data();
    double* YZ = rotated_[1].data();
    RotatePass(S_[2], reference_.data(), Z);
    RotatePass(S_[1], Z, YZ);
    RotatePass(S_[0], YZ, A_[0].data());
    RotatePass(dS_[0], YZ, A_[1].data());
    RotatePass(dS_[1], Z, rotated_[2].data());
    RotatePass(S_[0], rotated_[2].data(), A_[2].data());
    RotatePass(dS_[2], reference_.data(), rotated_[3].data());
    RotatePass(S_[1], rotated_[3].data(), rotated_[4].data());
    RotatePass(S_[0], rotated_[4].data(), A_[3].data());
    // B = X Y Z fit; each translation derivative replaces one stage, sharing the stages before.
    StageZ(F_[2], Tz_[0].data());
    StageY(F_[1], Tz_[0].data(), Ty_[0].data());
    StageX(F_[0], Ty_[0].data(), B_[0].data());
    StageX(dF_[0], Ty_[0].data(), B_[1].data());
    StageY(dF_[1], Tz_[0].data(), Ty_[1].data());
    StageX(F_[0], Ty_[1].data(), B_[2].data());
    StageZ(dF_[2], Tz_[1].data());
    StageY(F_[1], Tz_[1].data(), Ty_[2].data());
    StageX(F_[0], Ty_[2].data(), B_[3].data());

    const double *A = A_[0].data(), *Aa = A_[1].data(), *Ab = A_[2].data(), *Ac = A_[3].data();
    const double *B = B_[0].data(), *Bx = B_[1].data(), *By = B_[2].data(), *Bz = B_[3].data();
    double S = 0.0;
    double g[6] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
    for (std::size_t i = 0; i < kProduct_.size(); ++i) {
        const double w = kProduct_[i];
        S += A[i] * B[i] * w;
        g[0] += B[i] * Aa[i] * w;
        g[1] += Ab[i] * B[i] * w;
        g[2] += Ac[i] * B[i] * w;
        g[3] += Bx[i] * A[i] * w;
        g[4] += By[i] * A[i] * w;
        g[5] += w * Bz[i] * A[i];
    }
    const double inverseVolume = 1.0 / referenceVolume_;
    for (unsigned int k = 0; k < 6; ++k) {
        gradient[k] = -(g[k] * inverseVolume);
    }
    return -(S / referenceVolume_);
}

}  // namespace hermite::overlay
