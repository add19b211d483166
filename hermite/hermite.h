/// \file
/// hermite: 3-D Hermite expansions of Gaussian densities.
///
/// A density made of isotropic Gaussians w * exp(-a |r - r0|^2) (the shape of a molecule, or
/// its charge distribution) is expanded in the unnormalised 3-D Hermite functions
///
///     phi_lmn(x, y, z) = H_l(lx x) H_m(ly y) H_n(lz z) exp(-(lx^2 x^2 + ly^2 y^2 + lz^2 z^2) / 2)
///
/// with H the physicists' Hermite polynomials and lx, ly, lz the basis scales ("lambdas", in
/// inverse length units). An expansion of order N holds one coefficient per triple (l, m, n)
/// with l + m + n <= N, (N+1)(N+2)(N+3)/6 in all.
///
/// Conventions used throughout:
/// - Coefficient vectors are stored in lmn order: by total degree s = l + m + n, then by l, then
///   by m (see `GetLmnIndex`). Vectors of derivatives and of weights use the same order.
/// - K_i = 2^i i! sqrt(pi) is the squared norm of H_i(u) exp(-u^2/2); the self-overlap of an
///   expansion is (1 / (lx ly lz)) * sum of c_lmn^2 K_l K_m K_n.
/// - Packed symmetric 3 x 3 data hold six entries in the order xx, xy, yy, xz, yz, zz.
/// - All arithmetic is double precision; Gaussians are read as single-precision records.
/// - No routine checks its numerical preconditions (enough coefficients, positive lambdas):
///   those are the caller's duty.
///
/// Thread safety: there is no global mutable state. Different objects may be used from
/// different threads at once; one object is used by one thread at a time.
///
/// Loading the library switches on flush-to-zero and denormals-are-zero for the loading thread,
/// so denormal intermediate values count as zero.
#pragma once

#include <map>
#include <vector>

#include "qv/gaussian.h"
#include "qv/options.h"

namespace QVHermiteMath {

using QVSystem::QVGaussian;

// =============================================================================================
// Options

/// The settings of every expansion: order, the three lambdas, and whether the lambdas are kept
/// equal and optimised. Six parameters in fixed slots:
///
/// | slot | name                 | type     | default | legal range |
/// |------|----------------------|----------|---------|-------------|
/// | 0    | "-NPolyMax"          | unsigned | 5       | 0 to 100    |
/// | 1    | "-LambdaX"           | double   | 1.0     |             |
/// | 2    | "-LambdaY"           | double   | 1.0     |             |
/// | 3    | "-LambdaZ"           | double   | 1.0     |             |
/// | 4    | "-UseSingleLambda"   | bool     | true    |             |
/// | 5    | "-UseOptimalLambdas" | bool     | true    |             |
///
/// The typed accessors below read with `GetSetting(value, 0)` and write with the parameter's
/// `SetValue(value, 0)`; they are shorthands for going through the slots.
class QVHermiteOptions : public QVSystem::QVOptions {
public:
    /// Slot numbers of the six parameters.
    enum Slot : unsigned int {
        NPolyMaxSlot = 0,
        LambdaXSlot = 1,
        LambdaYSlot = 2,
        LambdaZSlot = 3,
        UseSingleLambdaSlot = 4,
        UseOptimalLambdasSlot = 5,
    };

    QVHermiteOptions();
    QVHermiteOptions(const QVHermiteOptions&) = default;
    QVHermiteOptions& operator=(const QVHermiteOptions&) = default;
    ~QVHermiteOptions() override;

    /// A newly allocated copy, values included; the caller owns it.
    QVHermiteOptions* CreateCopy() const override;

    /// "-NPolyMax": the expansion order N.
    unsigned int GetNPolyMax() const;
    /// "-LambdaX", "-LambdaY", "-LambdaZ" for axis 0, 1, 2.
    double GetLambda(unsigned int axis) const;
    bool GetUseSingleLambda() const;
    bool GetUseOptimalLambdas() const;

    /// Set values at index 0; each returns false (with a warning) for a value outside the
    /// parameter's legal range.
    bool SetNPolyMax(unsigned int order);
    bool SetLambda(unsigned int axis, double lambda);
    bool SetUseSingleLambda(bool value);
    bool SetUseOptimalLambdas(bool value);

private:
    template <class Parameter>
    const Parameter& Typed(Slot slot) const;
    template <class Parameter>
    Parameter& Typed(Slot slot);
};

// =============================================================================================
// Basis indexing

/// Position of (l, m, n) in the lmn order: s(s+1)(s+2)/6 + l(2s + 3 - l)/2 + m with
/// s = l + m + n. The same in every expansion of order at least s. Unsigned 32-bit arithmetic,
/// exact for s below about 1600.
unsigned int GetLmnIndex(unsigned int l, unsigned int m, unsigned int n);

/// Position in lmn order to triple {l, m, n}, for all triples of degree <= order.
std::map<unsigned int, std::vector<unsigned int>> lmnMapBuilder(unsigned int order);

/// The inverse of a forward map: triple {l, m, n} to its position.
std::map<std::vector<unsigned int>, unsigned int> lmnInvMapBuilder(
    const std::map<unsigned int, std::vector<unsigned int>>& forward);

/// The coefficients of an order-N expansion rearranged from lmn order into lexicographic order
/// (l, then m, then n ascending, n fastest), the order in which grids are rendered. `coeffs`
/// must hold at least (N+1)(N+2)(N+3)/6 values; any excess is ignored.
std::vector<double> reorder(unsigned int order, const std::vector<double>& coeffs);

// =============================================================================================
// Special functions and Hermite moments

/// The unnormalised Hermite function H_n(x) exp(-x^2/2), by the explicit sum of H_n.
double QVHermiteFunc(unsigned int n, double x);

/// K_0..K_order with K_i = 2^i i! sqrt(pi), the integral of H_i(x)^2 exp(-x^2).
std::vector<double> computeKs(unsigned int order);

/// The moment integral behind `Hermite1DMoment`, with h = (n + p)/2:
/// sum over k = 0..n/2 of (-1)^k 2^(n+1-2k) a^(k-h) G(h-k) n! / (4 (n-2k)! k!), where G is the
/// signed logarithm of the gamma function (ln|Gamma(x)|, negated where Gamma(x) < 0). The
/// logarithmic G is what the library's moments are defined with; every Hermite moment, centre
/// of mass and inertia tensor of the library follows from it.
double HermiteMomentsMasterIntegral(unsigned int p, double a, unsigned int n);

/// The library's p-th moment of the Hermite function of degree n: 0 when n and p differ in
/// parity, else 2 * HermiteMomentsMasterIntegral(p + 1, 0.5, n).
double Hermite1DMoment(unsigned int n, unsigned int p);

/// The (a, b, c) moment of an order-N expansion with per-axis scales sx, sy, sz:
/// sx^-(a+1) sy^-(b+1) sz^-(c+1) * sum of c_lmn M(l, a) M(m, b) M(n, c), M = Hermite1DMoment,
/// summed in lmn order. 0 when N is the largest unsigned value.
double Hermite3DMoment(unsigned int a, unsigned int b, unsigned int c, unsigned int N, double sx,
                       double sy, double sz, const std::vector<double>& coeffs);

/// One-axis derivative recurrences on a vector v indexed by Hermite degree, returning D_0..D_n
/// (terms with a negative index are left out):
/// - FirstArgDeriv: D_k = (-v_k / 2 + v_(k+2) / 4 - k(k-1) v_(k-2)) / s; v holds n + 3 values.
/// - SecondArgDeriv: D_k = (v_(k+1) / 2 - k v_(k-1)) / s; v holds n + 3 values.
/// - SecondArgSecondDeriv: D_k = (v_(k+2) / 4 + k(k-1) v_(k-2) - (k + 1/2) v_k) / s^2.
/// - FirstArgSecondDeriv: D_k = ((1/4 - k(k+1)/2) v_k - v_(k+2) / 2 + v_(k+4) / 16
///   + 2 k(k-1) v_(k-2) + k(k-1)(k-2)(k-3) v_(k-4)) / s^2; v holds n + 5 values.
/// Applied to the one-axis coefficient table of a Gaussian (`GaussianToHermiteCoefficientsAndDerivs`)
/// with s = sqrt(2a) / lambda, the first-argument forms give derivatives with respect to s and
/// the second-argument forms derivatives with respect to the scaled centre sqrt(2a) * x0.
std::vector<double> FirstArgDeriv(unsigned int n, double s, const std::vector<double>& v);
std::vector<double> SecondArgDeriv(unsigned int n, double s, const std::vector<double>& v);
std::vector<double> SecondArgSecondDeriv(unsigned int n, double s, const std::vector<double>& v);
std::vector<double> FirstArgSecondDeriv(unsigned int n, double s, const std::vector<double>& v);

// =============================================================================================
// Exact Gaussian overlaps

/// The exact overlap integral of two Gaussian densities over all space (volume units times the
/// product of the prefactors). Independent of any expansion: the value that the overlap of two
/// truncated expansions approaches as the order grows.
double GaussianOverlap(const QVGaussian& a, const QVGaussian& b);

/// The exact overlap integral of two sums of Gaussians: the sum over all pairs. With a == b it
/// is the exact self-overlap, the limit of an expansion's self-overlap.
double GaussianOverlap(const std::vector<QVGaussian>& a, const std::vector<QVGaussian>& b);

// =============================================================================================
// Gaussian-to-Hermite transform

/// Which derivatives a `QVGaussianToHermite` computes besides the coefficients.
enum QVTransformFlag : unsigned int {
    NoDerivatives = 0,
    LambdaFirstDerivatives = 1,
    LambdaSecondDerivatives = 2,        ///< first and second lambda derivatives
    TranslationFirstDerivatives = 3,
    TranslationSecondDerivatives = 4,   ///< first and second translational derivatives
};

/// The one-axis coefficient tables of one Gaussian for one lambda: 15 vectors, five per axis in
/// the blocks x (0-4), y (5-9), z (10-14). Within a block:
/// 0: F, N + 5 one-axis coefficients F_k = lambda * integral of g(x) H_k(lambda x)
///    exp(-lambda^2 x^2 / 2) dx for the unit-height one-axis Gaussian g;
/// 1: FirstArgDeriv(N, t, F) (flag 1 or 2); 2: SecondArgDeriv(N, t, F) (flag 3 or 4);
/// 3: SecondArgSecondDeriv(N, t, F) (flag 4); 4: FirstArgSecondDeriv(N, t, F) (flag 2);
/// with t = sqrt(2a) / lambda. Vectors not asked for are empty.
std::vector<std::vector<double>> GaussianToHermiteCoefficientsAndDerivs(unsigned int N,
                                                                        double lambda,
                                                                        const QVGaussian& g,
                                                                        unsigned int flag);

/// The Hermite expansion of a list of Gaussians, computed in the constructor, with optional
/// derivatives of the coefficients with respect to the lambdas or to a translation of the
/// whole density. Read-only after construction.
class QVGaussianToHermite {
public:
    /// A list of per-Gaussian vectors (one inner vector per Gaussian).
    using Tables = std::vector<std::vector<double>>;

    /// Expands `gaussians` with the order and lambdas of `options`. `flag` selects the
    /// derivatives (`QVTransformFlag`); values above 4 act as 0.
    QVGaussianToHermite(const QVHermiteOptions& options, const std::vector<QVGaussian>& gaussians,
                        unsigned int flag);

    /// Rebuilds the per-Gaussian one-axis tables: for each Gaussian, the tables for
    /// "-LambdaX", "-LambdaY" and "-LambdaZ" in turn.
    void ComputeFCoeffsAndDerivs(unsigned int flag);

    /// c_lmn = sum over Gaussians of w * X[l] * Y[m] * Z[n] / (K_l K_m K_n).
    std::vector<double> HermiteCoefficients() const;

    /// In lmn order: sum over Gaussians g of f_g X_g[l] Y_g[m] Z_g[n] / (K_l K_m K_n), with
    /// f_g = w_g for p = 0 and w_g (-sqrt(2 a_g))^p otherwise. Serves the coefficients and all
    /// their derivatives.
    std::vector<double> GetCoefficientsConvolution(unsigned int p, const Tables& X,
                                                   const Tables& Y, const Tables& Z) const;

    /// dc/dlx, dc/dly, dc/dlz per coefficient, interleaved (three values per coefficient).
    std::vector<double> HermiteCoefficientsLambdaDerivs() const;

    /// Stores `HermiteCoefficientsLambdaDerivs()` and returns dc/dlambda for one lambda shared
    /// by all three axes (the sum of the three). The result has one entry more than there are
    /// coefficients; that last entry is 0.
    std::vector<double> HermiteCoefficientsLambdaDeriv();

    /// Second derivatives of the coefficients with respect to the lambdas, six per coefficient
    /// in the packed order xx, xy, yy, xz, yz, zz.
    std::vector<double> HermiteCoefficientsLambdaSecondDerivs() const;

    /// The derivatives of the coefficients with respect to a translation of every Gaussian
    /// centre: three vectors x, y, z over the coefficients.
    std::vector<std::vector<double>> ComputeTranslationalDerivs() const;

    /// Second translational derivatives: six vectors xx, xy, yy, xz, yz, zz.
    std::vector<std::vector<double>> ComputeTranslationalSecondDerivs() const;

    /// For each axis x, y, z, the dot product of that axis's translational derivative vector
    /// with `v` (at least as long as the coefficients). Needs flag 3 or 4.
    std::vector<double> GetTranslationalDerivativeConvolution(const std::vector<double>& v) const;

    /// The same for the six second-derivative vectors, in the order xx, xy, yy, xz, yz, zz.
    /// Needs flag 4.
    std::vector<double> GetTranslationalSecondDerivativeConvolution(
        const std::vector<double>& v) const;

    const std::vector<double>& GetKCoeffs() const { return kCoeffs_; }
    const std::vector<double>& GetHermiteCoefficients() const { return coefficients_; }
    /// dc/dlambda for one shared lambda (flag 1 or 2), with its extra final entry.
    const std::vector<double>& GetHermiteCoefficientsLambdaDeriv() const {
        return singleLambdaDeriv_;
    }
    /// dc/dlx, dc/dly, dc/dlz interleaved (flag 1 or 2).
    const std::vector<double>& GetHermiteCoefficientsLambdaDerivs() const { return lambdaDerivs_; }
    /// Six second lambda derivatives per coefficient (flag 2).
    const std::vector<double>& GetHermiteCoefficientsLambdaSecondDerivs() const {
        return lambdaSecondDerivs_;
    }
    /// Translational derivatives x, y, z (flag 3 or 4).
    const std::vector<std::vector<double>>& GetTranslationalDerivs() const {
        return translationalDerivs_;
    }
    /// Translational second derivatives xx, xy, yy, xz, yz, zz (flag 4).
    const std::vector<std::vector<double>>& GetTranslationalSecondDerivs() const {
        return translationalSecondDerivs_;
    }

    /// The self-overlap S = (1 / (lx ly lz)) sum c^2 K_l K_m K_n.
    double GetSelfOverlap() const;
    /// dS/dlx, dS/dly, dS/dlz (needs flag 1 or 2).
    void GetSelfOverlapLambdaDerivs(std::vector<double>& out) const;
    /// dS/dlambda for one shared lambda: dS/dlx + dS/dly + dS/dlz.
    double GetSelfOverlapLambdaDeriv() const;
    /// The six second derivatives of S in the packed order xx, xy, yy, xz, yz, zz (flag 2).
    void GetSelfOverlapLambdaSecondDerivs(std::vector<double>& out) const;

private:
    /// One block (0 = x, 1 = y, 2 = z) position of every Gaussian's table for that axis.
    Tables Gather(unsigned int axis, unsigned int position) const;
    double Lambda(unsigned int axis) const { return options_.GetLambda(axis); }
    unsigned int Order() const { return options_.GetNPolyMax(); }

    QVHermiteOptions options_;
    std::vector<QVGaussian> gaussians_;
    std::vector<std::vector<std::vector<double>>> gaussianTables_;
    std::vector<double> coefficients_;
    std::vector<double> lambdaDerivs_;
    std::vector<double> lambdaSecondDerivs_;
    std::vector<double> singleLambdaDeriv_;
    std::vector<std::vector<double>> translationalDerivs_;
    std::vector<std::vector<double>> translationalSecondDerivs_;
    std::vector<double> kCoeffs_;
};

}  // namespace QVHermiteMath
