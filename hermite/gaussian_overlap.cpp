// Exact overlap integrals of Gaussian densities: the reference that truncated expansions
// approach as their order grows.

#include <cmath>

#include "hermite/hermite.h"

namespace QVHermiteMath {

double GaussianOverlap(const QVGaussian& a, const QVGaussian& b) {
    // Product of two Gaussians is a Gaussian of exponent p = a + b centred between them:
    // integral = wa wb (pi / p)^(3/2) exp(-(a b / p) |A - B|^2).
    const double ea = a.GetExponent(), eb = b.GetExponent();
    const double p = ea + eb;
    const double dx = static_cast<double>(a.GetX()) - b.GetX();
    const double dy = static_cast<double>(a.GetY()) - b.GetY();
    const double dz = static_cast<double>(a.GetZ()) - b.GetZ();
    const double distanceSquared = dx * dx + dy * dy + dz * dz;
    const double piOverP = 3.141592653589793 / p;
    return static_cast<double>(a.GetPrefactor()) * b.GetPrefactor() * piOverP * std::sqrt(piOverP) *
           std::exp(-(ea * eb / p) * distanceSquared);
}

double GaussianOverlap(const std::vector<QVGaussian>& a, const std::vector<QVGaussian>& b) {
    double sum = 0.0;
    for (const QVGaussian& ga : a) {
        for (const QVGaussian& gb : b) {
            sum += GaussianOverlap(ga, gb);
        }
    }
    return sum;
}

}  // namespace QVHermiteMath
