/// \file
/// A fused, allocation-free evaluation of the six-variable Hermite overlap objective.
///
/// `FastOverlap` computes exactly what `QVHermiteMath::QVHermiteOverlap` computes — minus the
/// overlap of a reference expansion rotated by the Euler angles x[0..2] (about x, y, z; R =
/// Rx Ry Rz) with a fit expansion translated by x[3..5], divided by the reference's lambda
/// product — in the same order of operations, but with every table allocated once, the
/// square-root factors and coefficient positions of the rotation precomputed, and the
/// intermediate results of the rotation passes and translation stages shared between the value
/// and the six derivatives. The results equal those of the objective object to rounding.
///
/// Thread safety: an object owns its scratch space; one object per thread.
#pragma once

#include <vector>

#include "hermite/hermite.h"

namespace hermite::overlay {

/// An expansion as the objective needs it: order, lambdas and coefficients in lmn order.
struct Expansion {
    unsigned int order = 0;
    double lambda[3] = {1.0, 1.0, 1.0};
    std::vector<double> coefficients;

    /// The expansion held by a set-up expansion object.
    static Expansion From(const QVHermiteMath::QVHermite& expansion);

    /// The expansion of `gaussians` at order N with the three lambdas, computed directly: the
    /// coefficients equal those of QVHermiteMath::QVGaussianToHermite (same one-axis tables,
    /// same products and sums in the same order) without its derivative tables.
    static Expansion Of(const std::vector<QVSystem::QVGaussian>& gaussians, unsigned int order,
                        const double* lambda);

    /// (1 / (lx ly lz)) * sum of c^2 K_l K_m K_n, as QVHermiteMath::QVHermite computes it.
    double SelfOverlap() const;
};

class FastOverlap : public QVOpt::QVFunc1 {
public:
    using QVFunc1::operator();

    /// Prepares the evaluation for a reference and a fit expansion.
    FastOverlap(const Expansion& reference, const Expansion& fit);

    /// Replaces the fit coefficients (same order and lambdas), e.g. by a flipped copy.
    void SetFitCoefficients(const std::vector<double>& coefficients);

    unsigned int NumVar() const override { return 6; }
    /// The objective value at x.
    double operator()(const double* x) override;
    /// The value, with the six gradient entries written to `gradient`.
    double operator()(const double* x, double* gradient) override;

private:
    /// S matrices of one angle, flat: matrix d starts at offset d(d+1)(2d+1)/6.
    using FlatS = std::vector<double>;

    void BuildS(double theta, FlatS& S) const;
    void BuildSDerivative(const FlatS& S, FlatS& dS) const;
    void RotatePass(const FlatS& S, const double* in, double* out) const;
    void BuildF(double shift, std::vector<double>& F) const;
    void BuildFDerivative(unsigned int axis, const std::vector<double>& F,
                          std::vector<double>& dF) const;
    void StageZ(const std::vector<double>& Fz, double* Tz) const;
    void StageY(const std::vector<double>& Fy, const double* Tz, double* Ty) const;
    void StageX(const std::vector<double>& Fx, const double* Ty, double* B) const;
    double Contract(const double* A, const double* B) const;

    unsigned int Nr_;
    unsigned int Nf_;
    double referenceVolume_;
    double fitLambda_[3];
    std::vector<double> reference_;
    std::vector<double> fit_;
    std::vector<double> roots_;            // sqrt(k) for the S-matrix recurrences
    std::vector<double> K_;                // K_0..K_(Nr+1)
    std::vector<double> kProduct_;         // K_l K_m K_n per reference coefficient
    std::vector<unsigned int> lOf_;        // l of each reference coefficient (lmn order)
    std::vector<unsigned int> mOf_;        // m of each reference coefficient
    std::vector<unsigned int> nOf_;        // n of each reference coefficient
    std::vector<double> passFactor_;       // per pass term: sqrt(K_(D-v) K_v / (K_t K_u))
    std::vector<unsigned int> passIn_;     // per pass term: position of (v, D - v, w)
    std::vector<unsigned int> passTerms_;  // per output position (pass order): number of terms
    std::vector<unsigned int> passOut_;    // per output (pass order): position of (w, t, u)
    std::vector<unsigned int> passRow_;    // per output (pass order): offset of row S[D][t]
    std::vector<unsigned int> fitColumn_;  // position of fit (l', m', n'), n' fastest
    unsigned int fRowLength_;              // columns stored per F row
    // Scratch.
    FlatS S_[3], dS_[3];
    std::vector<double> F_[3], dF_[3];
    std::vector<double> rotated_[6];  // Z, YZ, A, and derivative intermediates
    std::vector<double> A_[4], B_[4];
    std::vector<double> Tz_[2], Ty_[3];
};

}  // namespace hermite::overlay
