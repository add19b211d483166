// The Gaussian-to-Hermite transform: coefficients of a sum of Gaussians in the 3-D Hermite basis,
// with their derivatives with respect to the lambdas and to a translation.
//
// The 3-D projection factorises over the axes. For one Gaussian w exp(-a |r - r0|^2) and one
// axis with scale lambda, substitute u = lambda x:
//
//     F_k = lambda * integral of exp(-a (x - x0)^2) H_k(lambda x) exp(-lambda^2 x^2 / 2) dx
//         = integral of exp(-(t^2 / 2) (u - y / t)^2) H_k(u) exp(-u^2 / 2) du,
//
// with r = sqrt(2a), t = r / lambda and the scaled centre y = r x0. Then c_lmn =
// sum over Gaussians of w F^x_l F^y_m F^z_n / (K_l K_m K_n). F obeys a three-term recurrence
// (below), and its derivatives in t and y are combinations of neighbouring degrees (the
// recurrences FirstArgDeriv etc.). Chain rules: dt/dlambda = -r / lambda^2 and dy/dx0 = r,
// which is where the factors (-sqrt(2a))^p of the convolution come from.

#include <cmath>

#include "hermite/hermite.h"
#include "hermite/internal.h"

namespace QVHermiteMath {

namespace {

constexpr unsigned int kTableBlock = 5;  // vectors per axis block of a one-Gaussian table
enum TablePosition : unsigned int {
    kF = 0,
    kLambdaFirst = 1,
    kTranslationFirst = 2,
    kTranslationSecond = 3,
    kLambdaSecond = 4,
};

/// K_l K_m K_n for every coefficient, in lmn order.
std::vector<double> KProducts(unsigned int N, const std::vector<double>& k) {
    std::vector<double> products;
    products.reserve(CoefficientCount(N));
    for (unsigned int s = 0; s <= N; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m) {
                products.push_back(k[l] * k[m] * k[s - l - m]);
            }
        }
    }
    return products;
}

/// The one-axis table F_0..F_(N+4) for scale t, recurrence coefficient A and scaled centre y.
std::vector<double> OneAxisCoefficients(unsigned int N, double q, double A, double t, double y) {
    std::vector<double> F(N + 5);
    const double B = 2.0 * t * q * y;
    F[0] = std::sqrt(6.283185307179586 * q) * std::exp(-0.5 * q * y * y);
    F[1] = B * F[0];
    for (unsigned int k = 2; k < F.size(); ++k) {
        F[k] = static_cast<double>(k - 1) * A * F[k - 2] + B * F[k - 1];
    }
    return F;
}

}  // namespace

std::vector<std::vector<double>> GaussianToHermiteCoefficientsAndDerivs(unsigned int N,
                                                                        double lambda,
                                                                        const QVGaussian& g,
                                                                        unsigned int flag) {
    const double r = std::sqrt(2.0 * static_cast<double>(g.GetExponent()));
    const double t = r / lambda;
    const double q = 1.0 / (t * t + 1.0);
    const double A = 2.0 * (1.0 - t * t) * q;
    const double centre[3] = {g.GetX(), g.GetY(), g.GetZ()};

    std::vector<std::vector<double>> table(3 * kTableBlock);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        std::vector<double>* block = &table[axis * kTableBlock];
        block[kF] = OneAxisCoefficients(N, q, A, t, centre[axis] * r);
        const std::vector<double>& F = block[kF];
        if (flag == LambdaFirstDerivatives || flag == LambdaSecondDerivatives) {
            block[kLambdaFirst] = FirstArgDeriv(N, t, F);
        }
        if (flag == LambdaSecondDerivatives) {
            block[kLambdaSecond] = FirstArgSecondDeriv(N, t, F);
        }
        if (flag == TranslationFirstDerivatives || flag == TranslationSecondDerivatives) {
            block[kTranslationFirst] = SecondArgDeriv(N, t, F);
        }
        if (flag == TranslationSecondDerivatives) {
            block[kTranslationSecond] = SecondArgSecondDeriv(N, t, F);
        }
    }
    return table;
}

QVGaussianToHermite::QVGaussianToHermite(const QVHermiteOptions& options,
                                         const std::vector<QVGaussian>& gaussians,
                                         unsigned int flag)
    : options_(options), gaussians_(gaussians) {
    kCoeffs_ = computeKs(Order());
    ComputeFCoeffsAndDerivs(flag);
    coefficients_ = HermiteCoefficients();
    switch (flag) {
        case LambdaFirstDerivatives:
            singleLambdaDeriv_ = HermiteCoefficientsLambdaDeriv();
            break;
        case LambdaSecondDerivatives:
            singleLambdaDeriv_ = HermiteCoefficientsLambdaDeriv();
            lambdaSecondDerivs_ = HermiteCoefficientsLambdaSecondDerivs();
            break;
        case TranslationFirstDerivatives:
            translationalDerivs_ = ComputeTranslationalDerivs();
            break;
        case TranslationSecondDerivatives:
            translationalDerivs_ = ComputeTranslationalDerivs();
            translationalSecondDerivs_ = ComputeTranslationalSecondDerivs();
            break;
        default:
            break;
    }
}

void QVGaussianToHermite::ComputeFCoeffsAndDerivs(unsigned int flag) {
    const unsigned int N = Order();
    const double lambdas[3] = {Lambda(0), Lambda(1), Lambda(2)};
    gaussianTables_.clear();
    gaussianTables_.reserve(3 * gaussians_.size());
    // One table per Gaussian and lambda; the expansion uses only the block of the table's own
    // axis (x of the LambdaX table, and so on). One routine thus serves every axis.
    for (const QVGaussian& g : gaussians_) {
        for (double lambda : lambdas) {
            gaussianTables_.push_back(GaussianToHermiteCoefficientsAndDerivs(N, lambda, g, flag));
        }
    }
}

QVGaussianToHermite::Tables QVGaussianToHermite::Gather(unsigned int axis,
                                                        unsigned int position) const {
    Tables gathered;
    gathered.reserve(gaussians_.size());
    for (std::size_t g = 0; g < gaussians_.size(); ++g) {
        gathered.push_back(gaussianTables_[3 * g + axis][axis * kTableBlock + position]);
    }
    return gathered;
}

std::vector<double> QVGaussianToHermite::GetCoefficientsConvolution(unsigned int p, const Tables& X,
                                                                    const Tables& Y,
                                                                    const Tables& Z) const {
    const unsigned int N = Order();
    const std::vector<double> kProducts = KProducts(N, kCoeffs_);
    std::vector<double> result(kProducts.size(), 0.0);
    // Gaussians in the outer loop: each coefficient still accumulates its terms in Gaussian
    // order, so the sums are those of the coefficient-by-coefficient definition, bit for bit.
    for (std::size_t g = 0; g < gaussians_.size(); ++g) {
        const double w = gaussians_[g].GetPrefactor();
        const double f =
            p == 0
                ? w
                : w * std::pow(-std::sqrt(2.0 * static_cast<double>(gaussians_[g].GetExponent())),
                               static_cast<double>(p));
        const double* x = X[g].data();
        const double* y = Y[g].data();
        const double* z = Z[g].data();
        std::size_t index = 0;
        for (unsigned int s = 0; s <= N; ++s) {
            for (unsigned int l = 0; l <= s; ++l) {
                for (unsigned int m = 0; m <= s - l; ++m, ++index) {
                    result[index] += f * x[l] * y[m] * z[s - l - m] / kProducts[index];
                }
            }
        }
    }
    return result;
}

std::vector<double> QVGaussianToHermite::HermiteCoefficients() const {
    return GetCoefficientsConvolution(0, Gather(0, kF), Gather(1, kF), Gather(2, kF));
}

std::vector<double> QVGaussianToHermite::HermiteCoefficientsLambdaDerivs() const {
    const Tables X = Gather(0, kF), Y = Gather(1, kF), Z = Gather(2, kF);
    const Tables dX = Gather(0, kLambdaFirst), dY = Gather(1, kLambdaFirst),
                 dZ = Gather(2, kLambdaFirst);
    const std::vector<double> perAxis[3] = {
        GetCoefficientsConvolution(1, dX, Y, Z),
        GetCoefficientsConvolution(1, X, dY, Z),
        GetCoefficientsConvolution(1, X, Y, dZ),
    };
    std::vector<double> interleaved(3 * perAxis[0].size());
    for (unsigned int axis = 0; axis < 3; ++axis) {
        const double lambda = Lambda(axis);
        const double inverseSquare = 1.0 / (lambda * lambda);
        for (std::size_t i = 0; i < perAxis[axis].size(); ++i) {
            interleaved[3 * i + axis] = perAxis[axis][i] * inverseSquare;
        }
    }
    return interleaved;
}

std::vector<double> QVGaussianToHermite::HermiteCoefficientsLambdaDeriv() {
    lambdaDerivs_ = HermiteCoefficientsLambdaDerivs();
    // One more entry than there are coefficients; its summands lie past the interleaved values
    // and are taken as zeros, so the last entry is 0.
    const std::size_t count = CoefficientCount(Order()) + 1;
    std::vector<double> derivative(count, 0.0);
    for (std::size_t i = 0; i + 1 < count; ++i) {
        derivative[i] = lambdaDerivs_[3 * i] + lambdaDerivs_[3 * i + 1] + lambdaDerivs_[3 * i + 2];
    }
    return derivative;
}

std::vector<double> QVGaussianToHermite::HermiteCoefficientsLambdaSecondDerivs() const {
    const double lx = Lambda(0), ly = Lambda(1), lz = Lambda(2);
    const Tables X = Gather(0, kF), Y = Gather(1, kF), Z = Gather(2, kF);
    const Tables dX = Gather(0, kLambdaFirst), dY = Gather(1, kLambdaFirst),
                 dZ = Gather(2, kLambdaFirst);
    const Tables d2X = Gather(0, kLambdaSecond), d2Y = Gather(1, kLambdaSecond),
                 d2Z = Gather(2, kLambdaSecond);

    // With c = conv(G(t_x), ...) and t = r / lambda, the chain rule gives
    // d2c/dlambda^2 = (r^2 / lambda^4) d2G/dt^2 + (2 r / lambda^3) dG/dt, the r factors
    // being carried by the convolution weights (p = 2 and p = 1).
    const std::vector<double> xx2 = GetCoefficientsConvolution(2, d2X, Y, Z);
    const std::vector<double> xx1 = GetCoefficientsConvolution(1, dX, Y, Z);
    const std::vector<double> xy = GetCoefficientsConvolution(2, dX, dY, Z);
    const std::vector<double> yy2 = GetCoefficientsConvolution(2, X, d2Y, Z);
    const std::vector<double> yy1 = GetCoefficientsConvolution(1, X, dY, Z);
    const std::vector<double> xz = GetCoefficientsConvolution(2, dX, Y, dZ);
    const std::vector<double> yz = GetCoefficientsConvolution(2, X, dY, dZ);
    const std::vector<double> zz2 = GetCoefficientsConvolution(2, X, Y, d2Z);
    const std::vector<double> zz1 = GetCoefficientsConvolution(1, X, Y, dZ);

    const double xx2Scale = 1.0 / (lx * lx * lx * lx), xx1Scale = 2.0 / (lx * lx * lx);
    const double xyScale = 1.0 / (lx * lx * ly * ly);
    const double yy2Scale = 1.0 / (ly * ly * ly * ly), yy1Scale = 2.0 / (ly * ly * ly);
    const double xzScale = 1.0 / (lx * lx * lz * lz);
    const double yzScale = 1.0 / (ly * ly * lz * lz);
    const double zz2Scale = 1.0 / (lz * lz * lz * lz), zz1Scale = 2.0 / (lz * lz * lz);

    std::vector<double> packed(6 * xx2.size());
    for (std::size_t i = 0; i < xx2.size(); ++i) {
        double* out = &packed[6 * i];
        out[0] = xx2[i] * xx2Scale - xx1[i] * xx1Scale;
        out[1] = xy[i] * xyScale;
        out[2] = yy2[i] * yy2Scale - yy1[i] * yy1Scale;
        out[3] = xz[i] * xzScale;
        out[4] = yz[i] * yzScale;
        out[5] = zz2[i] * zz2Scale - zz1[i] * zz1Scale;
    }
    return packed;
}

std::vector<std::vector<double>> QVGaussianToHermite::ComputeTranslationalDerivs() const {
    const Tables X = Gather(0, kF), Y = Gather(1, kF), Z = Gather(2, kF);
    const Tables dX = Gather(0, kTranslationFirst), dY = Gather(1, kTranslationFirst),
                 dZ = Gather(2, kTranslationFirst);
    return {
        GetCoefficientsConvolution(1, dX, Y, Z),
        GetCoefficientsConvolution(1, X, dY, Z),
        GetCoefficientsConvolution(1, X, Y, dZ),
    };
}

std::vector<std::vector<double>> QVGaussianToHermite::ComputeTranslationalSecondDerivs() const {
    const Tables X = Gather(0, kF), Y = Gather(1, kF), Z = Gather(2, kF);
    const Tables dX = Gather(0, kTranslationFirst), dY = Gather(1, kTranslationFirst),
                 dZ = Gather(2, kTranslationFirst);
    const Tables d2X = Gather(0, kTranslationSecond), d2Y = Gather(1, kTranslationSecond),
                 d2Z = Gather(2, kTranslationSecond);
    std::vector<double> xx = GetCoefficientsConvolution(2, d2X, Y, Z);
    std::vector<double> yy = GetCoefficientsConvolution(2, X, d2Y, Z);
    std::vector<double> zz = GetCoefficientsConvolution(2, X, Y, d2Z);
    std::vector<double> xy = GetCoefficientsConvolution(2, dX, dY, Z);
    std::vector<double> xz = GetCoefficientsConvolution(2, dX, Y, dZ);
    std::vector<double> yz = GetCoefficientsConvolution(2, X, dY, dZ);
    std::vector<std::vector<double>> packed;
    packed.reserve(6);
    for (std::vector<double>* entry : {&xx, &xy, &yy, &xz, &yz, &zz}) {
        packed.push_back(std::move(*entry));
    }
    return packed;
}

namespace {

/// Dot products of each derivative vector with v, accumulated in coefficient order.
std::vector<double> ContractEach(const std::vector<std::vector<double>>& derivatives,
                                 const std::vector<double>& v, std::size_t count) {
    std::vector<double> result;
    result.reserve(derivatives.size());
    for (const std::vector<double>& d : derivatives) {
        double sum = 0.0;
        for (std::size_t i = 0; i < count; ++i) {
            sum += d[i] * v[i];
        }
        result.push_back(sum);
    }
    return result;
}

}  // namespace

std::vector<double> QVGaussianToHermite::GetTranslationalDerivativeConvolution(
    const std::vector<double>& v) const {
    return ContractEach(translationalDerivs_, v, CoefficientCount(Order()));
}

std::vector<double> QVGaussianToHermite::GetTranslationalSecondDerivativeConvolution(
    const std::vector<double>& v) const {
    return ContractEach(translationalSecondDerivs_, v, CoefficientCount(Order()));
}

// ---------------------------------------------------------------------------------------------
// Self-overlap S = P / (lx ly lz), P = sum of c^2 K_l K_m K_n, and its lambda derivatives.

namespace {

/// sum over all coefficients, in lmn order, of term(index) * K_l * K_m * K_n.
template <class Term>
double KWeightedSum(unsigned int N, const std::vector<double>& k, Term term) {
    double sum = 0.0;
    std::size_t index = 0;
    for (unsigned int s = 0; s <= N; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m, ++index) {
                sum += term(index) * k[l] * k[m] * k[s - l - m];
            }
        }
    }
    return sum;
}

}  // namespace

double QVGaussianToHermite::GetSelfOverlap() const {
    const double lx = Lambda(0), ly = Lambda(1), lz = Lambda(2);
    const std::vector<double>& c = coefficients_;
    return (1.0 / (lx * ly * lz)) *
           KWeightedSum(Order(), kCoeffs_, [&](std::size_t i) { return c[i] * c[i]; });
}

void QVGaussianToHermite::GetSelfOverlapLambdaDerivs(std::vector<double>& out) const {
    const double lambdas[3] = {Lambda(0), Lambda(1), Lambda(2)};
    const double twoOverVolume = 2.0 / (lambdas[0] * lambdas[1] * lambdas[2]);
    const double S = GetSelfOverlap();
    out.clear();
    for (unsigned int axis = 0; axis < 3; ++axis) {
        const double sum = KWeightedSum(Order(), kCoeffs_, [&](std::size_t i) {
            return coefficients_[i] * lambdaDerivs_[3 * i + axis];
        });
        out.push_back(twoOverVolume * sum - S / lambdas[axis]);
    }
}

double QVGaussianToHermite::GetSelfOverlapLambdaDeriv() const {
    std::vector<double> d;
    GetSelfOverlapLambdaDerivs(d);
    return d[0] + d[1] + d[2];
}

void QVGaussianToHermite::GetSelfOverlapLambdaSecondDerivs(std::vector<double>& out) const {
    const double lambdas[3] = {Lambda(0), Lambda(1), Lambda(2)};
    const double twoOverVolume = 2.0 / (lambdas[0] * lambdas[1] * lambdas[2]);
    const double S = GetSelfOverlap();
    std::vector<double> dS;
    GetSelfOverlapLambdaDerivs(dS);

    // Packed pairs (a, b): xx, xy, yy, xz, yz, zz.
    static constexpr unsigned int kFirst[6] = {0, 0, 1, 0, 1, 2};
    static constexpr unsigned int kSecond[6] = {0, 1, 1, 2, 2, 2};
    out.clear();
    for (unsigned int pair = 0; pair < 6; ++pair) {
        const unsigned int a = kFirst[pair], b = kSecond[pair];
        // d2(P)/da db = 2 sum (d2c_ab c + dc_a dc_b) K K K.
        const double acc = twoOverVolume * KWeightedSum(Order(), kCoeffs_, [&](std::size_t i) {
                               return lambdaSecondDerivs_[6 * i + pair] * coefficients_[i] +
                                      lambdaDerivs_[3 * i + a] * lambdaDerivs_[3 * i + b];
                           });
        if (a == b) {
            out.push_back(acc - 2.0 * dS[a] / lambdas[a]);
        } else {
            out.push_back(acc - dS[a] / lambdas[b] - dS[b] / lambdas[a] -
                          S / (lambdas[a] * lambdas[b]));
        }
    }
}

}  // namespace QVHermiteMath
