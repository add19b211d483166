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

#include "qv/chem.h"
#include "qv/gaussian.h"
#include "qv/grid.h"
#include "qv/opt.h"
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
// Molecule to Gaussians

/// Gaussians prefactors[i] * exp(-exponents[i] |r - (coords[3i], coords[3i+1], coords[3i+2])|^2)
/// for i < prefactors.size(), all narrowed to float, tag 0. `exponents` and `coords` must hold
/// at least as many entries (n and 3n).
std::vector<QVGaussian> makeGaussians(std::vector<double> prefactors, std::vector<double> exponents,
                                      std::vector<double> coords);

/// The shape density of points: one Gaussian 2.7 exp(-0.811151803 |r - p|^2) per point (a
/// carbon-sized Gaussian for every atom, whatever its element). Trailing coordinates that do
/// not make a whole point are ignored.
std::vector<QVGaussian> makeShapeGaussians(const std::vector<double>& coords);

/// The electrostatic density of point charges: q / (sqrt(2 pi) w) exp(-|r - p|^2 / (2 w^2))
/// per point, w = `width` (length units). Zero charges give zero-height Gaussians (kept).
std::vector<QVGaussian> makeElectrostaticGaussians(const std::vector<double>& coords,
                                                   const std::vector<double>& charges,
                                                   double width);

/// The shape density of a molecule: one carbon-sized Gaussian per atom, in atom order.
std::vector<QVGaussian> QVMolToGaussians(QVChem::QVMol mol);

/// The electrostatic density of a molecule from its partial charges, in atom order (centres
/// read from the molecule in single precision).
std::vector<QVGaussian> QVMolToElectroStaticGaussians(QVChem::QVMol mol, double width);

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
/// Applied to the one-axis coefficient table of a Gaussian
/// (`GaussianToHermiteCoefficientsAndDerivs`) with s = sqrt(2a) / lambda, the first-argument forms
/// give derivatives with respect to s, and the second-argument forms the first and second
/// derivatives with respect to -y, y = sqrt(2a) * x0 the scaled centre (so that the factor
/// -sqrt(2a) per order turns them into derivatives with respect to the centre x0).
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
    LambdaSecondDerivatives = 2,  ///< first and second lambda derivatives
    TranslationFirstDerivatives = 3,
    TranslationSecondDerivatives = 4,  ///< first and second translational derivatives
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
    std::vector<double> GetCoefficientsConvolution(unsigned int p, const Tables& X, const Tables& Y,
                                                   const Tables& Z) const;

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

// =============================================================================================
// Euler angles and the coefficient-space rotation and translation matrices

/// Rotation matrices are 9 doubles, row-major (entry 3r + c is row r, column c), acting on
/// column vectors. Euler angles (a, b, c) are in radians about x, y and z with
/// R = Rx(a) Ry(b) Rz(c).
std::vector<double> RotFromEulerXYZ(double a, double b, double c);

/// The Euler angles (a, b, c) of a rotation matrix: a = atan2(-R5, R8),
/// b = atan2(R2, sqrt(1 - R2^2)) in [-pi/2, pi/2], c = atan2(-R1, R0). Inverse of
/// RotFromEulerXYZ for -pi/2 < b < pi/2 and a, c in (-pi, pi]. No clamping: |R2| > 1 gives a
/// NaN b. At gimbal lock (cos b = 0) only a combination of a and c is recoverable.
std::vector<double> EulerXYZ(const std::vector<double>& R);

/// One square matrix per total degree d = 0..N, each a vector of rows: S[d][i][j].
using SMatrixSet = std::vector<std::vector<std::vector<double>>>;
/// A table of rows of possibly different lengths: F[r][c].
using FMatrix = std::vector<std::vector<double>>;

/// The rotation matrices of one coordinate plane for angle theta: S[d] ((d+1) x (d+1),
/// orthogonal) expresses the rotated orthonormal 2-D Hermite functions of total degree d in the
/// unrotated ones (rows: rotated, columns: unrotated); S[0] = [1],
/// S[1] = [cos, sin; -sin, cos]. Replaces the content of S. Returns true.
bool BuildSMatrix(unsigned int N, double theta, SMatrixSet& S);

/// dS/dtheta of a set built by BuildSMatrix (same shapes). Returns true.
bool BuildSMatrixDerivative(unsigned int N, const SMatrixSet& S, SMatrixSet& dS);

/// The one-axis translation table for a shift x in scaled units: R rows r = 0..R-1 with
/// columns 0..R+Q-2-r. F[0][0] = sqrt(pi) exp(-x^2/4), F[0][c] = x F[0][c-1],
/// F[r][0] = -x F[r-1][0] and F[r][c] = 2c F[r-1][c-1] - F[r-1][c+1] + 2(r-1) F[r-2][c].
/// Replaces the content of F. Returns true.
bool BuildFMatrix(unsigned int R, unsigned int Q, double x, FMatrix& F);

/// dF/dx for rows 0..R-1 and columns 0..Q-1: dF[r][c] = c F[r][c-1] - F[r][c+1] / 2. F must
/// hold column Q in each of those rows. dF is resized to R rows (existing rows kept, at least
/// Q entries each). Returns true.
bool BuildFMatrixDerivative(unsigned int R, unsigned int Q, const FMatrix& F, FMatrix& dF);

// =============================================================================================
// Lambda self-overlap objective

/// The negated self-overlap -S of the expansion of a fixed density, as a function of the
/// natural logarithms of the lambdas, for the minimisers: one variable (a common lambda) when
/// "-UseSingleLambda" is true, else three (x, y, z). Working in log lambda keeps every lambda
/// positive.
///
/// Every evaluation writes the lambdas exp(x) into the object's own options and expands the
/// density afresh; nothing is cached. Not safe to evaluate from two threads at once.
class QVHermiteSelfOverlap : public QVOpt::QVFunc2 {
public:
    using QVFunc2::operator();

    QVHermiteSelfOverlap(const QVHermiteOptions& options, const std::vector<QVGaussian>& gaussians);
    ~QVHermiteSelfOverlap() override;

    /// 1 with "-UseSingleLambda" true, else 3.
    unsigned int NumVar() const override;
    /// -S at lambdas exp(x).
    double operator()(const double* x) override;
    /// Not available: warns "This method has not been implemented yet." and returns false.
    bool GetFComponents(const double* x) override;
    /// -S and its gradient in the log lambdas: gradient[i] = -lambda_i dS/dlambda_i.
    double operator()(const double* x, double* gradient) override;
    /// Gradient, and with three variables the packed Hessian in the log lambdas (entries
    /// (x,x), (y,x), (y,y), (z,x), (z,y), (z,z)); with one variable the Hessian is not
    /// written. Does not compute the value: returns true (1.0).
    double operator()(const double* x, double* hessian, double* gradient) override;

private:
    /// Writes exp(x) into the lambda slots and returns the three lambdas.
    std::vector<double> SetLambdas(const double* x);

    QVHermiteOptions options_;
    std::vector<QVGaussian> gaussians_;
};

// =============================================================================================
// Expansion object

/// The Hermite expansion of one density: coefficients (lmn order), their derivative with
/// respect to a common lambda, the K table, the self-overlap and its lambda derivative, and the
/// options actually used. Filled by `Setup`, optionally after choosing the lambdas that
/// maximise the self-overlap.
class QVHermite {
public:
    /// Expands `gaussians` with `options`. When "-UseOptimalLambdas" is true the lambdas are
    /// first optimised (one common lambda by BFGS when "-UseSingleLambda" is true, three by
    /// Newton otherwise, both in log lambda from the current lambdas). The lambdas used, with
    /// "-UseOptimalLambdas" false, are written back into `options`, so a second `Setup` with
    /// the same options does not optimise again.
    void Setup(const std::vector<QVGaussian>& gaussians, QVHermiteOptions& options);

    const std::vector<double>& GetCoefficients() const { return coefficients_; }
    /// The coefficient at `index` (lmn order); unchecked: index < NumCoefficients().
    double GetCoefficient(unsigned long index) const { return coefficients_[index]; }
    /// (N+1)(N+2)(N+3)/6 for the order N of the options in use (unsigned 32-bit arithmetic).
    unsigned int NumCoefficients() const;
    /// dc/dlambda for a common lambda, with one extra final entry (0).
    const std::vector<double>& GetLambdaDerivativeCoefficients() const {
        return lambdaDerivativeCoefficients_;
    }
    const std::vector<double>& GetKCoeffs() const { return kCoeffs_; }
    double GetSelfOverlap() const { return selfOverlap_; }
    /// dS/dlambda for a common lambda.
    double GetLambdaDerivative() const { return selfOverlapLambdaDerivative_; }
    /// Twice the largest absolute centre coordinate of the last Setup (the smallest positive
    /// normal double when there were no Gaussians or all sat at the origin).
    double GetExtent() const { return extent_; }
    /// The options of the last Setup, with the lambdas used.
    const QVHermiteOptions& GetOptions() const { return options_; }

    /// Rotates the coefficients in place by the 3 x 3 row-major rotation matrix R: the expanded
    /// density is turned by R about the origin. The rotation is split into Euler angles
    /// (EulerXYZ) and applied as rotations about z, y and x, each mixing the coefficients of one
    /// coordinate plane with the S matrices. Exact for equal lambdas; with unequal lambdas the
    /// same matrices are applied without correction. Returns true.
    bool RotateHermites(const std::vector<double>& rotation);
    /// The same with the nine entries row by row.
    bool RotateHermites(double r00, double r01, double r02, double r10, double r11, double r12,
                        double r20, double r21, double r22);

    /// Renders the expansion onto `grid` (see the free CreateGrid) with the order and lambdas
    /// in use. Returns false, leaving the grid untouched, only for an inconsistent expansion.
    bool CreateGrid(QVSystem::QVScalarGrid& grid, double spacing, double extent) const;
    /// The same, then moves the rendered density by `trans` (see the free CreateGrid).
    bool CreateGrid(QVSystem::QVScalarGrid& grid, double spacing, double extent,
                    QVChem::QVTrans trans) const;

private:
    void OptimiseLambdas(const std::vector<QVGaussian>& gaussians);

    double extent_ = 2.2250738585072014e-308;
    QVHermiteOptions options_;
    std::vector<double> coefficients_;
    std::vector<double> lambdaDerivativeCoefficients_;
    std::vector<double> kCoeffs_;
    double selfOverlap_ = 0.0;
    double selfOverlapLambdaDerivative_ = 0.0;
};

// =============================================================================================
// Overlap objective

/// The negated overlap of a reference and a fit density, for superposition by a minimiser.
/// Six variables: x[0..2] = Euler angles (a, b, c) rotating the reference about the origin,
/// x[3..5] = translation of the fit along x, y, z. Value:
///
///     -(sum over l+m+n <= N_ref of A_lmn B_lmn K_l K_m K_n) / (lx ly lz)_ref
///
/// with A the rotated reference coefficients and B the translated fit coefficients projected
/// on the reference basis. For equal lambdas of reference and fit this is minus the overlap
/// integral of the two expansions. Everything is computed in coefficient space; the analytic
/// gradient comes with the value in one pass.
///
/// Evaluations keep no state; one object is evaluated by one thread at a time.
class QVHermiteOverlap : public virtual QVOpt::QVFunc1 {
public:
    using QVFunc1::operator();

    ~QVHermiteOverlap() override;

    /// Expands the reference (QVHermite::Setup, which may optimise the lambdas and writes the
    /// options used back into `options`). Must precede the first evaluation. Returns true.
    bool SetupRef(const std::vector<QVGaussian>& gaussians, QVHermiteOptions& options);
    /// Expands the fit likewise. Returns true.
    bool Setup(const std::vector<QVGaussian>& gaussians, QVHermiteOptions& options);

    double GetRefSelfOverlap() const { return reference_.GetSelfOverlap(); }
    double GetFitSelfOverlap() const { return fit_.GetSelfOverlap(); }

    /// 6.
    unsigned int NumVar() const override;
    /// The value at x.
    double operator()(const double* x) override;
    /// Not available: warns "This method has not been implemented yet." and returns false.
    bool GetFComponents(const double* x) override;
    /// The value at x, with the six gradient entries written to `grad`.
    double operator()(const double* x, double* grad) override;

    /// The reference coefficients rotated by the three given S-matrix sets (passes z, y, x).
    void RotateHermiteRef(const SMatrixSet& Sx, const SMatrixSet& Sy, const SMatrixSet& Sz,
                          std::vector<double>& out) const;
    /// The same, with the derivatives of the result with respect to the angles a, b, c.
    void RotateHermiteRefWithDerivatives(const SMatrixSet& Sx, const SMatrixSet& Sy,
                                         const SMatrixSet& Sz, std::vector<double>& out,
                                         std::vector<double>& outA, std::vector<double>& outB,
                                         std::vector<double>& outC) const;
    /// The fit coefficients translated by the F tables of the three axes and projected on the
    /// reference basis (lmn order of the reference).
    void TranslateHermiteFit(const FMatrix& Fx, const FMatrix& Fy, const FMatrix& Fz,
                             std::vector<double>& out) const;
    /// The same, with the derivatives with respect to the translations x[3], x[4], x[5].
    void TranslateHermiteFitWithDerivatives(const FMatrix& Fx, const FMatrix& Fy, const FMatrix& Fz,
                                            std::vector<double>& out, std::vector<double>& outX,
                                            std::vector<double>& outY,
                                            std::vector<double>& outZ) const;

private:
    /// The F table of axis i for the shift of x[3 + i] (in the fit's scaled units).
    FMatrix TranslationTable(unsigned int axis, const double* x) const;
    /// -lambda_fit,i dF/dx of a table: the derivative with respect to the translation.
    FMatrix TranslationTableDerivative(unsigned int axis, const FMatrix& F) const;
    /// The separable three-stage product of the fit coefficients with the three tables.
    void Translate(const FMatrix& Fx, const FMatrix& Fy, const FMatrix& Fz,
                   std::vector<double>& out) const;
    /// The product of the three reference lambdas.
    double ReferenceVolume() const;

    QVHermiteOptions referenceOptions_;
    QVHermiteOptions fitOptions_;
    QVHermite reference_;
    QVHermite fit_;
    std::vector<double> referenceCoefficients_;
    std::vector<double> fitCoefficients_;
    std::vector<double> kTable_;
};

// =============================================================================================
// Centre of mass

/// The Hermite centre of mass (m_100 / m_000, m_010 / m_000, m_001 / m_000) of the order-N
/// expansion of `gaussians` with the given lambdas (used as they are). Does not modify the
/// Gaussians. No check for a zero zeroth moment.
std::vector<double> QVHermiteCM(std::vector<QVGaussian>& gaussians, unsigned int order,
                                double lambdaX, double lambdaY, double lambdaZ, bool singleLambda);

/// Adds t[0], t[1], t[2] to every centre (single-precision additions). Returns true.
bool QVTranslateGaussians(std::vector<QVGaussian>& gaussians, float* t);

/// The largest absolute value of the elements of a non-empty vector.
double max_abs(const std::vector<double>& v);

/// Measures the Hermite centre of mass and moves the Gaussians by minus it (rounded to float),
/// repeatedly, until its largest component is at most `tolerance` or `maxIterations` moves
/// were made. Returns the sum of all measured centres (the last one included, although the
/// Gaussians are not moved by it): an estimate of the centre of mass of the Gaussians as they
/// were passed in. The truncated expansion's centre of mass does not move rigidly with the
/// density, so the iteration need not converge.
std::vector<double> QVIterativeSearchOfHermiteCOM(std::vector<QVGaussian>& gaussians,
                                                  unsigned int order, double lambdaX,
                                                  double lambdaY, double lambdaZ, double tolerance,
                                                  unsigned int maxIterations);

/// The Hermite centre of mass found by minimising |c(t)|^2 over a translation t with the Newton
/// minimiser (tolerance 1e-4, at most 100 iterations) from t = 0: returns -t*. Does not move
/// the Gaussians.
std::vector<double> QVOptimizationSearchOfHermiteCOM(std::vector<QVGaussian>& gaussians,
                                                     unsigned int order, double lambda);

/// The squared length of the Hermite centre of mass of the Gaussians moved by t (rounded to
/// float), as a function of t = (tx, ty, tz), with its gradient and Hessian. The gradient and
/// Hessian weight every axis with "-LambdaX" (exact when the three lambdas are equal, as the
/// searches set them). Evaluations only read the object: concurrent evaluations are safe.
class QVHermiteCOMFunc : public QVOpt::QVFunc2 {
public:
    using QVFunc2::operator();

    QVHermiteCOMFunc(const QVHermiteOptions& options, const std::vector<QVGaussian>& gaussians);
    ~QVHermiteCOMFunc() override;

    /// 3.
    unsigned int NumVar() const override;
    /// f(t) = |c(t)|^2.
    double operator()(const double* x) override;
    /// Not available: warns "This method has not been implemented yet." and returns false.
    bool GetFComponents(const double* x) override;
    /// f and its gradient.
    double operator()(const double* x, double* gradient) override;
    /// f, its gradient and its packed Hessian ((0,0), (1,0), (1,1), (2,0), (2,1), (2,2)). The
    /// Hessian pointer comes first.
    double operator()(const double* x, double* hessian, double* gradient) override;

private:
    /// Row and column of each packed Hessian entry.
    static constexpr unsigned int kPackedRow[6] = {0, 1, 1, 2, 2, 2};
    static constexpr unsigned int kPackedColumn[6] = {0, 0, 1, 0, 1, 2};

    /// dc_a/dt (first[a], 3 values), d2c_a/dt dt (second[a], 6 packed values) and the weight
    /// vector dc_a/dcoef (weights[a]) of the three components of the centre of mass.
    struct Derivatives {
        std::vector<double> first[3];
        std::vector<double> second[3];
        std::vector<double> weights[3];
    };

    std::vector<QVGaussian> Moved(const double* x) const;
    std::vector<double> Centre(std::vector<QVGaussian>& moved) const;
    Derivatives Differentiate(const std::vector<QVGaussian>& moved, const std::vector<double>& c,
                              unsigned int flag) const;
    static void WriteGradient(const std::vector<double>& c, const Derivatives& d, double* gradient);

    QVHermiteOptions options_;
    std::vector<QVGaussian> gaussians_;
};

// =============================================================================================
// Inertial orientation

/// Turns `gaussians` into the frame of their Hermite moments of inertia. Computes the
/// translation that carries their Hermite centre of mass to the origin
/// (-QVOptimizationSearchOfHermiteCOM with the mean lambda) without applying it; the second
/// moment tensor M of the order-N expansion with the given lambdas (raw moments (2,0,0),
/// (0,2,0), (0,0,2), (1,1,0), (1,0,1), (0,1,1), returned in `inertia` as three rows); its
/// eigenvalues, largest first (`eigenvalues`); and the rotation whose rows are the matching
/// eigenvectors, made right-handed by negating all three when their determinant is negative
/// (`rotation`, 9 doubles row-major). The centres are rotated by it in place. The return value
/// is a status that is false on every normal completion.
bool QVOrientByHermiteMomentsOfInertia(std::vector<QVGaussian>& gaussians, unsigned int order,
                                       double lambdaX, double lambdaY, double lambdaZ,
                                       std::vector<double>& translation,
                                       std::vector<double>& rotation,
                                       std::vector<std::vector<double>>& inertia,
                                       std::vector<double>& eigenvalues);

/// The same with one lambda for all three axes.
bool QVOrientByHermiteMomentsOfInertia(std::vector<QVGaussian>& gaussians, unsigned int order,
                                       double lambda, std::vector<double>& translation,
                                       std::vector<double>& rotation,
                                       std::vector<std::vector<double>>& inertia,
                                       std::vector<double>& eigenvalues);

/// Sorts three eigenvalues high to low (ties keep their order) and turns the eigenvectors from
/// column layout (eigenvectors[r][c] = component r of vector c) into row layout
/// (eigenvectors[k] = the k-th vector). With a NaN eigenvalue it warns "Unexpected conditional
/// logical error." and keeps the solver's order.
void OrderEigenvaluesHighToLow(std::vector<double>& eigenvalues,
                               std::vector<std::vector<double>>& eigenvectors);

/// Appends the three row-layout eigenvectors, one after the other, to `rotation` (which the
/// caller passes empty): a row-major rotation matrix whose rows are the axes.
void ComputeRotationMatrix(const std::vector<std::vector<double>>& eigenvectors,
                           std::vector<double>& rotation);

/// Rotates every centre by the row-major 3 x 3 matrix (computed in double, stored as float).
void QVRotateGaussians(std::vector<QVGaussian>& gaussians, const std::vector<double>& rotation);

// =============================================================================================
// Grid rendering

/// Renders an order-N expansion, coefficients in lexicographic order (`reorder`), onto a cubic
/// grid: n = trunc((extent + 6) / spacing + 1) + 1 points per axis, at least 5 and at most 300
/// (a finer spacing is clamped with a warning), spaced `spacing`, about the grid's centre;
/// every point gets sum of c_lmn H_l(lx x) H_m(ly y) H_n(lz z) exp(-(lx^2 x^2 + ...)/2). A
/// spacing whose point count cannot be represented (zero, infinite, NaN) is a fatal error.
/// Returns false, leaving the grid untouched, when `coeffs` does not have
/// (N+1)(N+2)(N+3)/6 entries.
bool CreateGrid(unsigned int N, const std::vector<double>& coeffs, double extent,
                QVSystem::QVScalarGrid& grid, double spacing, double lambdaX, double lambdaY,
                double lambdaZ);

/// Renders as above, then moves the rendered density by the rigid transform (rotation about
/// the origin, then translation) and resamples it onto the same grid by trilinear
/// interpolation. Always returns true, also when the rendering itself refused the coefficients
/// (the grid is then transformed as it was).
bool CreateGrid(unsigned int N, const std::vector<double>& coeffs, double extent,
                QVSystem::QVScalarGrid& grid, double spacing, double lambdaX, double lambdaY,
                double lambdaZ, QVChem::QVTrans trans);

}  // namespace QVHermiteMath
