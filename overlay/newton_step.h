/// \file
/// Newton's method on an overlap O as a function of the six rigid variables of a fit (three
/// angles times the fit's radius, three translations in angstrom): the ascent step, of a
/// bounded length, and what the quadratic model of O at a pose promises.
#pragma once

#include <Eigen/Dense>

namespace hermite::overlay {

using Vector6 = Eigen::Matrix<double, 6, 1>;
using Matrix6 = Eigen::Matrix<double, 6, 6, Eigen::RowMajor>;

/// The ascent step of Newton's method on O from its gradient `g` and Hessian `H`, at most
/// `maxLength` long: -H^-1 g where O is concave (Cholesky, the usual case near a Hermite
/// optimum), else the same with H's eigenvalues kept at or below -1 % of the largest in
/// magnitude, so that the step still climbs; shortened to `maxLength` when longer.
Vector6 NewtonAscent(const Vector6& g, const Matrix6& H, double maxLength);

/// The rise g^T s + s^T H s / 2 of O that its quadratic model (gradient `g`, Hessian `H`)
/// promises for the step `s`.
double ModelGain(const Vector6& g, const Matrix6& H, const Vector6& s);

/// Whether O (value `value`, gradient g, Hessian H) is concave, the top of its quadratic model
/// is a Newton step of at most `reach` away, and the model's value there,
/// O + g^T (-H)^-1 g / 2, is below `bar`. Farther away the model is not trusted: a long walk
/// climbs past what the model at its start foresees.
bool ModelTopBelow(const Vector6& g, const Matrix6& H, double value, double bar, double reach);

/// An upper bound of the model's value O + g^T s + s^T H s / 2 at any step s at most a unit
/// long, such as NewtonAscent's: O + |g| + max(0, lambda_max(H)) / 2, with lambda_max bounded
/// by Gershgorin's discs, plus a margin for the rounding of the model's value. A fraction of
/// an eigendecomposition.
double PredictionBound(double value, const Vector6& g, const Matrix6& H);

}  // namespace hermite::overlay
