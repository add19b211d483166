/// \file
/// A fused, allocation-free evaluation of the six-variable Hermite overlap objective.
///
/// `FastOverlap` computes what `QVHermiteMath::QVHermiteOverlap` computes — minus the overlap of
/// a reference expansion rotated by the Euler angles x[0..2] (about x, y, z; R = Rx Ry Rz) with
/// a fit expansion translated by x[3..5], divided by the reference's lambda product — with every
/// table allocated once and the square-root factors and coefficient positions of the rotation
/// precomputed. Values are formed by the library's operations in the library's order and equal
/// its values to the last bit or a few ulps. Gradients take a shorter road to the same
/// derivatives (equal to rounding): a derivative of the rotated or translated expansion is a
/// sparse ladder operator applied to it, so one rotation and one translation serve the value and
/// all six derivatives, where differentiating each factor of R and of the translation would cost
/// six more rotation passes and six more translation stages.
///
/// Thread safety: an object owns its scratch space; one object per thread.
#pragma once

#include <array>
#include <memory>
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
    /// coefficients of QVHermiteMath::QVGaussianToHermite (the same one-axis tables) to
    /// rounding, without its derivative tables. The sums run over four Gaussians at a time,
    /// each of four lanes summing its Gaussians in order, and the one-axis tables are divided
    /// by their K before the products, a few ulps from the transform's order of operations;
    /// the same bits on every machine and at every vector width.
    static Expansion Of(const std::vector<QVSystem::QVGaussian>& gaussians, unsigned int order,
                        const double* lambda);

    /// The expansions of `gaussians` moved by each of `shifts` (angstrom), each moved centre
    /// rounded to single precision as MovedGaussians rounds it: equal to the last bit to Of of
    /// the moved Gaussians, at a fraction of the cost when the shifts move along one axis at a
    /// time (the tables of the axes a shift leaves alone are shared). One expansion per shift,
    /// in their order; about 10 microseconds for 70 atoms at order 4 and seven shifts.
    static std::vector<Expansion> OfShifts(const std::vector<QVSystem::QVGaussian>& gaussians,
                                           unsigned int order, const double* lambda,
                                           const std::vector<std::array<double, 3>>& shifts);

    /// (1 / (lx ly lz)) * sum of c^2 K_l K_m K_n, as QVHermiteMath::QVHermite computes it.
    double SelfOverlap() const;
};

class FastOverlap : public QVOpt::QVFunc1 {
public:
    using QVFunc1::operator();

    /// What an evaluation needs besides the coefficients: the orders and lambdas of the
    /// reference and the fit, and the tables of the rotation passes and ladder operators. Built
    /// once and shared, read-only, by the evaluations of any number of expansion pairs of those
    /// orders and lambdas (thread-safe).
    struct Plan;
    static std::shared_ptr<const Plan> MakePlan(unsigned int referenceOrder,
                                                const double* referenceLambda,
                                                unsigned int fitOrder, const double* fitLambda);

    /// Prepares the evaluation for a reference and a fit expansion.
    FastOverlap(const Expansion& reference, const Expansion& fit);
    /// Prepares the evaluation for the `reference` and `fit` coefficients (of the plan's orders
    /// and lambdas).
    FastOverlap(std::shared_ptr<const Plan> plan, std::vector<double> reference,
                std::vector<double> fit);
    ~FastOverlap() override;

    /// Replaces the fit coefficients (same order and lambdas), e.g. by a flipped copy.
    void SetFitCoefficients(const std::vector<double>& coefficients);

    unsigned int NumVar() const override { return 6; }
    /// The objective value at x.
    double operator()(const double* x) override;
    /// The value, with the six gradient entries written to `gradient`.
    double operator()(const double* x, double* gradient) override;

private:
    /// The rotation (A = Px Py Pz reference) and translation (B, `order` deep) of x.
    void RotateAndTranslate(const double* x, unsigned int order);

    std::shared_ptr<const Plan> plan_;
    std::vector<double> reference_;
    std::vector<double> fit_;
    // Scratch: S matrices and F tables per axis, the rotation passes' results (Z, YZ, A), the
    // translation stages' (Tz, Ty, B).
    std::vector<double> S_[3], F_[3];
    std::vector<double> Z_, YZ_, A_, B_;
    std::vector<double> Tz_, Ty_;
};

}  // namespace hermite::overlay
