// Helpers shared by the library's sources; not part of the public interface.
#pragma once

#include <cstddef>
#include <vector>

#include "hermite/hermite.h"

namespace QVHermiteMath {

/// Number of coefficients of an order-N expansion, (N+1)(N+2)(N+3)/6, without overflow.
inline std::size_t CoefficientCount(unsigned int N) {
    const std::size_t n = N;
    return (n + 1) * (n + 2) * (n + 3) / 6;
}

/// One pass of the rotation of an order-N coefficient vector about one axis with the S
/// matrices S of that axis: for every (w, t, u) in lmn order, with D = t + u,
///
///     out[(w, t, u)] = sum over v = 0..D of sqrt(K[D-v] K[v] / (K[t] K[u]))
///                      * in[(v, D - v, w)] * S[D][t][v].
///
/// The pass mixes the first two indices of the stored triple (the plane of the rotation) and
/// moves the third to the front, so three passes about z, y and x give back the lmn order.
/// The square root converts between the coefficients of the unnormalised Hermite functions
/// (norms K) and the orthonormal ones in which S is written. `out` must hold the coefficients.
void RotatePass(unsigned int N, const std::vector<double>& K, const SMatrixSet& S,
                const std::vector<double>& in, std::vector<double>& out);

/// Options of order `order` with the given lambdas, used as they are ("-UseOptimalLambdas"
/// false), and "-UseSingleLambda" set to `singleLambda`. The values are set in slot order 0, 1,
/// 2, 3, 5, 4.
QVHermiteOptions FixedLambdaOptions(unsigned int order, double lambdaX, double lambdaY,
                                    double lambdaZ, bool singleLambda);

/// Reports that an objective has no per-component evaluation.
bool WarnNotImplemented();

}  // namespace QVHermiteMath
