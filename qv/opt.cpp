#include "qv/opt.h"

#include <Eigen/Cholesky>
#include <Eigen/Core>

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>
#include <vector>

namespace QVOpt {

namespace {

using Vector = Eigen::VectorXd;
using Matrix = Eigen::MatrixXd;

constexpr double kEpsilon = std::numeric_limits<double>::epsilon();

/// Sufficient-decrease (Armijo) constant of both line searches.
constexpr double kArmijoC1 = 1e-4;
/// Curvature constant of the strong Wolfe conditions; 0.9 is the usual quasi-Newton choice:
/// loose enough that the unit step is mostly accepted.
constexpr double kWolfeC2 = 0.9;
/// Relative threshold below which s'y carries no usable curvature information.
constexpr double kCurvatureFloor = 1e-10;
/// Relative threshold below which an LDL' pivot counts as non-positive.
constexpr double kPivotFloor = 1e-10;
/// Levenberg shifts tried before falling back to steepest descent.
constexpr int kMaxShiftDoublings = 64;

/// A point with its value and gradient.
struct Point {
    Vector x;
    double f = 0.0;
    Vector g;
};

bool GradientConverged(const Vector& gradient, double tolerance) {
    return gradient.size() == 0 || gradient.cwiseAbs().maxCoeff() <= tolerance;
}

/// The step length of a steepest-descent step: moves at most a unit distance.
Vector SteepestDescent(const Vector& gradient) {
    return -gradient / std::max(1.0, gradient.norm());
}

/// Stores `x` into the caller's solution buffer.
void Publish(const Vector& x, double* solution) {
    std::copy(x.data(), x.data() + x.size(), solution);
}

/// True when the accepted step lowered f by no more than the rounding error of f.
bool DecreaseIsRoundingOnly(double previousValue, double value) {
    return previousValue - value <= kEpsilon * std::fabs(value);
}

/// Reports an accepted iteration; false when the checkpoint asks to stop.
bool ContinueAfter(QVCheckpoint* checkpoint, unsigned int iteration, const Point& point) {
    return checkpoint == nullptr ||
           checkpoint->OnIteration(iteration, static_cast<unsigned int>(point.x.size()),
                                   point.x.data(), point.f);
}

/// Makes `next` the current point after an accepted step: counts the iteration, publishes the
/// point and reports it. False when the run should end here (the checkpoint asked to stop, or
/// the step lowered f by no more than rounding).
bool AcceptStep(Point& current, Point&& next, unsigned int& iteration, double* solution,
                QVCheckpoint* checkpoint) {
    const double previousValue = current.f;
    current = std::move(next);
    ++iteration;
    Publish(current.x, solution);
    return ContinueAfter(checkpoint, iteration, current) &&
           !DecreaseIsRoundingOnly(previousValue, current.f);
}

// ---------------------------------------------------------------------------------------------
// Strong Wolfe line search (bracketing and zoom) for the quasi-Newton method.

/// One evaluation of phi(alpha) = f(x + alpha p) with phi'(alpha) = g(x + alpha p)'p. `usable`
/// is false when the point was rejected or its value or gradient is not finite; such a sample
/// acts as an infinitely high value.
struct LineSample {
    double alpha = 0.0;
    Point point;
    double slope = 0.0;
    bool usable = false;
};

class WolfeLineSearch {
public:
    WolfeLineSearch(QVFunc1& objective, const Point& origin, const Vector& direction, double slope)
        : objective_(objective), origin_(origin), direction_(direction), slope0_(slope) {}

    /// Searches from the trial step `firstStep`. On success writes the accepted point, which
    /// satisfies at least the sufficient-decrease condition with f below the origin's, and
    /// returns true; returns false when no such point was found.
    bool Run(double firstStep, Point& accepted);

private:
    LineSample Sample(double alpha);
    LineSample OriginSample() const;
    bool Zoom(LineSample low, LineSample high, Point& accepted);
    double Interpolate(const LineSample& low, const LineSample& high) const;
    bool BracketNegligible(const LineSample& low, const LineSample& high) const;

    /// f(x + alpha p) <= f(x) + c1 alpha phi'(0), and strictly below f(x).
    bool DecreasesEnough(const LineSample& s) const {
        return s.usable && s.point.f < origin_.f &&
               s.point.f <= origin_.f + kArmijoC1 * s.alpha * slope0_;
    }
    /// |phi'(alpha)| <= c2 |phi'(0)|.
    bool CurvatureHolds(const LineSample& s) const {
        return std::fabs(s.slope) <= -kWolfeC2 * slope0_;
    }
    /// Accepts the best sufficient-decrease sample found, if it is not the origin.
    static bool AcceptIfMoved(LineSample& s, Point& accepted) {
        if (!(s.alpha > 0.0)) {
            return false;
        }
        accepted = std::move(s.point);
        return true;
    }

    QVFunc1& objective_;
    const Point& origin_;
    const Vector& direction_;
    double slope0_;
    unsigned int evaluations_ = 0;
};

LineSample WolfeLineSearch::OriginSample() const {
    LineSample s;
    s.alpha = 0.0;
    s.point = origin_;
    s.slope = slope0_;
    s.usable = true;
    return s;
}

LineSample WolfeLineSearch::Sample(double alpha) {
    ++evaluations_;
    LineSample s;
    s.alpha = alpha;
    s.point.x = origin_.x + alpha * direction_;
    s.point.g.resize(origin_.x.size());
    if (!objective_.CheckVariablesValidity(s.point.x.data())) {
        return s;
    }
    s.point.f = objective_(s.point.x.data(), s.point.g.data());
    s.usable = std::isfinite(s.point.f) && s.point.g.allFinite();
    s.slope = s.usable ? s.point.g.dot(direction_) : 0.0;
    return s;
}

bool WolfeLineSearch::Run(double firstStep, Point& accepted) {
    LineSample previous = OriginSample();
    double alpha = firstStep;
    while (evaluations_ < QVBFGSOpt::kMaxLineSearchEvaluations) {
        LineSample current = Sample(alpha);
        if (!DecreasesEnough(current) ||
            (previous.alpha > 0.0 && current.point.f >= previous.point.f)) {
            // The step overshot: a point with the Wolfe conditions lies in (previous, current).
            return Zoom(std::move(previous), std::move(current), accepted);
        }
        if (CurvatureHolds(current)) {
            return AcceptIfMoved(current, accepted);
        }
        if (current.slope >= 0.0) {
            // f turns upwards beyond `current`: bracket between it and the previous step.
            return Zoom(std::move(current), std::move(previous), accepted);
        }
        // Still descending steeply: the step may grow.
        previous = std::move(current);
        alpha *= 2.0;
    }
    return AcceptIfMoved(previous, accepted);
}

/// Invariants (as in the zoom of the classic bracketing line search): `low` has the lowest value
/// of all samples that satisfy sufficient decrease (or is the origin), and the interval from
/// low to high contains step lengths satisfying the strong Wolfe conditions, because
/// phi'(low) (high - low) < 0.
bool WolfeLineSearch::Zoom(LineSample low, LineSample high, Point& accepted) {
    while (evaluations_ < QVBFGSOpt::kMaxLineSearchEvaluations && !BracketNegligible(low, high)) {
        LineSample trial = Sample(Interpolate(low, high));
        if (!DecreasesEnough(trial) || trial.point.f >= low.point.f) {
            high = std::move(trial);
            continue;
        }
        if (CurvatureHolds(trial)) {
            return AcceptIfMoved(trial, accepted);
        }
        if (trial.slope * (high.alpha - low.alpha) >= 0.0) {
            high = std::move(low);
        }
        low = std::move(trial);
    }
    return AcceptIfMoved(low, accepted);
}

/// The minimiser of the cubic through the values and slopes at both ends (or of the quadratic
/// through both values and the slope at `low` when the cubic has no minimum), clamped to the
/// middle 80% of the bracket so that it shrinks by at least 10% per sample. When `high` is not
/// usable, nothing is known there but "too high": bisect.
double WolfeLineSearch::Interpolate(const LineSample& low, const LineSample& high) const {
    const double a = low.alpha;
    const double b = high.alpha;
    const double lower = std::min(a, b);
    const double width = std::fabs(b - a);
    const double midpoint = lower + 0.5 * width;
    if (!high.usable) {
        return midpoint;
    }
    const double fa = low.point.f;
    const double fb = high.point.f;
    const double da = low.slope;
    const double db = high.slope;
    double candidate;
    const double d1 = da + db - 3.0 * (fa - fb) / (a - b);
    const double discriminant = d1 * d1 - da * db;
    if (discriminant >= 0.0) {
        const double d2 = std::copysign(std::sqrt(discriminant), b - a);
        candidate = b - (b - a) * (db + d2 - d1) / (db - da + 2.0 * d2);
    } else {
        const double h = b - a;
        candidate = a - da * h * h / (2.0 * (fb - fa - da * h));
    }
    if (!std::isfinite(candidate)) {
        return midpoint;
    }
    return std::clamp(candidate, lower + 0.1 * width, lower + 0.9 * width);
}

/// True when the bracket is so narrow that its points differ from each other only by rounding.
bool WolfeLineSearch::BracketNegligible(const LineSample& low, const LineSample& high) const {
    const double directionSize = direction_.cwiseAbs().maxCoeff();
    const double pointSize = low.point.x.cwiseAbs().maxCoeff();
    return std::fabs(high.alpha - low.alpha) * directionSize <= kEpsilon * pointSize;
}

// ---------------------------------------------------------------------------------------------
// BFGS inverse-Hessian approximation.

class InverseHessian {
public:
    explicit InverseHessian(Eigen::Index n) : matrix_(Matrix::Identity(n, n)) {}

    Vector Direction(const Vector& gradient) const { return -(matrix_ * gradient); }
    bool IsIdentity() const { return !updated_; }

    void Reset() {
        matrix_.setIdentity();
        updated_ = false;
    }

    /// H <- (I - rho s y') H (I - rho y s') + rho s s', rho = 1/(s'y), expanded for symmetric H
    /// as H - rho (s (Hy)' + (Hy) s') + (rho^2 y'Hy + rho) s s'. The first update starts from
    /// (s'y / y'y) I, an estimate of the inverse curvature along the step. Skipped when s'y is
    /// not safely positive, which would destroy positive definiteness.
    void Update(const Vector& s, const Vector& y) {
        const double sy = s.dot(y);
        if (!(sy > kCurvatureFloor * s.norm() * y.norm())) {
            return;
        }
        if (!updated_) {
            matrix_ = Matrix::Identity(s.size(), s.size()) * (sy / y.squaredNorm());
            updated_ = true;
        }
        const double rho = 1.0 / sy;
        const Vector hy = matrix_ * y;
        const double yhy = y.dot(hy);
        matrix_ -= rho * (s * hy.transpose() + hy * s.transpose());
        matrix_ += (rho * rho * yhy + rho) * (s * s.transpose());
    }

private:
    Matrix matrix_;
    bool updated_ = false;
};

// ---------------------------------------------------------------------------------------------
// Newton direction and backtracking line search.

/// The symmetric matrix of a Hessian packed as its lower triangle by rows.
Matrix UnpackLowerTriangle(const std::vector<double>& packed, Eigen::Index n) {
    Matrix matrix(n, n);
    std::size_t k = 0;
    for (Eigen::Index i = 0; i < n; ++i) {
        for (Eigen::Index j = 0; j <= i; ++j) {
            matrix(i, j) = packed[k];
            matrix(j, i) = packed[k];
            ++k;
        }
    }
    return matrix;
}

/// Solves (hessian + shift I) p = -gradient when the shifted matrix is safely positive definite.
bool SolveIfPositiveDefinite(const Matrix& hessian, double shift, double scale,
                             const Vector& gradient, Vector& direction) {
    const Eigen::Index n = hessian.rows();
    const Eigen::LDLT<Matrix> factor(hessian + shift * Matrix::Identity(n, n));
    if (factor.info() != Eigen::Success ||
        !(factor.vectorD().minCoeff() > kPivotFloor * (scale + shift))) {
        return false;
    }
    direction = factor.solve(-gradient);
    return direction.allFinite();
}

/// The Newton direction, with a Levenberg shift when the Hessian is not safely positive
/// definite. False when no shift gives a positive-definite system.
bool NewtonDirection(const Matrix& hessian, const Vector& gradient, Vector& direction) {
    const double scale = hessian.norm();
    if (SolveIfPositiveDefinite(hessian, 0.0, scale, gradient, direction)) {
        return true;
    }
    const double beta = scale > 0.0 ? 1e-3 * scale : 1.0;
    double shift = std::max(0.0, -hessian.diagonal().minCoeff()) + beta;
    for (int attempt = 0; attempt < kMaxShiftDoublings; ++attempt) {
        if (SolveIfPositiveDefinite(hessian, shift, scale, gradient, direction)) {
            return true;
        }
        shift *= 2.0;
    }
    return false;
}

/// The value at `x`, or NaN when the point is rejected by the objective.
double ValueIfValid(QVFunc1& objective, const Vector& x) {
    if (!objective.CheckVariablesValidity(x.data())) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    return objective(x.data());
}

/// Backtracking from the unit step until the Armijo condition holds with a strict decrease. The
/// step shrinks to the minimiser of the quadratic through f(x), the slope and the rejected
/// value, kept in [0.1, 0.5] times the rejected step (0.5 after a non-finite or rejected
/// trial). On success writes the new point and value (gradient left empty).
bool ArmijoSearch(QVFunc1& objective, const Point& origin, const Vector& direction, double slope,
                  Point& accepted) {
    double alpha = 1.0;
    for (unsigned int trial = 0; trial < QVNewtonOpt::kMaxBacktracks; ++trial) {
        Vector x = origin.x + alpha * direction;
        if (x == origin.x) {
            return false;  // the step no longer moves the point
        }
        const double f = ValueIfValid(objective, x);
        if (std::isfinite(f) && f < origin.f && f <= origin.f + kArmijoC1 * alpha * slope) {
            accepted.x = std::move(x);
            accepted.f = f;
            return true;
        }
        double next = 0.5 * alpha;
        if (std::isfinite(f)) {
            const double excess = f - origin.f - slope * alpha;
            const double quadraticMinimiser = -slope * alpha * alpha / (2.0 * excess);
            if (excess > 0.0 && std::isfinite(quadraticMinimiser)) {
                next = std::clamp(quadraticMinimiser, 0.1 * alpha, 0.5 * alpha);
            }
        }
        alpha = next;
    }
    return false;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// QVFunc1 defaults.

bool QVFunc1::GetFComponents(const double* /*x*/) {
    return false;
}

QVFunc1::~QVFunc1() = default;

double QVFunc1::operator()(const float** x) {
    const unsigned int n = NumVar();
    std::vector<double> widened(n);
    for (unsigned int i = 0; i < n; ++i) {
        widened[i] = static_cast<double>(x[0][i]);
    }
    return (*this)(widened.data());
}

double QVFunc1::operator()(const double* x, double* gradient) {
    const unsigned int n = NumVar();
    const double value = (*this)(x);
    const double relativeStep = std::cbrt(kEpsilon);
    std::vector<double> probe(x, x + n);
    for (unsigned int i = 0; i < n; ++i) {
        const double xi = x[i];
        // Rounding x_i + h to a double and subtracting x_i gives a step that is exact in both
        // directions of the difference quotient's denominator.
        const double step = (xi + relativeStep * std::max(1.0, std::fabs(xi))) - xi;
        probe[i] = xi + step;
        const double forward = (*this)(probe.data());
        probe[i] = xi - step;
        const double backward = (*this)(probe.data());
        probe[i] = xi;
        gradient[i] = (forward - backward) / (2.0 * step);
    }
    return value;
}

bool QVFunc1::CheckVariablesValidity(const double* x) {
    const unsigned int n = NumVar();
    for (unsigned int i = 0; i < n; ++i) {
        if (!std::isfinite(x[i])) {
            return false;
        }
    }
    return true;
}

bool QVFunc1::IsRedundant(const double* a, const double* b, double tolerance) const {
    const unsigned int n = NumVar();
    for (unsigned int i = 0; i < n; ++i) {
        if (!(std::fabs(a[i] - b[i]) <= tolerance)) {
            return false;
        }
    }
    return true;
}

QVCheckpoint::~QVCheckpoint() = default;

// ---------------------------------------------------------------------------------------------
// Minimisers.

double QVBFGSOpt::operator()(QVFunc1& objective, QVCheckpoint* checkpoint, const double* start,
                             double* solution) const {
    const Eigen::Index n = objective.NumVar();
    Point current;
    current.x = Eigen::Map<const Vector>(start, n);
    Publish(current.x, solution);
    if (!objective.CheckVariablesValidity(current.x.data())) {
        return objective(current.x.data());
    }
    current.g.resize(n);
    current.f = objective(current.x.data(), current.g.data());
    if (!std::isfinite(current.f) || !current.g.allFinite()) {
        return current.f;
    }

    InverseHessian inverseHessian(n);
    for (unsigned int iteration = 0; iteration < iterLimit_;) {
        if (GradientConverged(current.g, tolerance_)) {
            break;
        }
        Vector direction = inverseHessian.Direction(current.g);
        double slope = current.g.dot(direction);
        if (!(slope < 0.0) || !direction.allFinite()) {
            inverseHessian.Reset();
            direction = -current.g;
            slope = -current.g.squaredNorm();
        }
        const double steepestFirstStep = std::min(1.0, 1.0 / current.g.norm());
        Point next;
        bool moved = WolfeLineSearch(objective, current, direction, slope)
                         .Run(inverseHessian.IsIdentity() ? steepestFirstStep : 1.0, next);
        if (!moved && !inverseHessian.IsIdentity()) {
            // The curvature model misled the search: start again from the gradient.
            inverseHessian.Reset();
            direction = -current.g;
            slope = -current.g.squaredNorm();
            moved =
                WolfeLineSearch(objective, current, direction, slope).Run(steepestFirstStep, next);
        }
        if (!moved) {
            break;
        }
        inverseHessian.Update(next.x - current.x, next.g - current.g);
        if (!AcceptStep(current, std::move(next), iteration, solution, checkpoint)) {
            break;
        }
    }
    return current.f;
}

double QVNewtonOpt::operator()(QVFunc2& objective, QVCheckpoint* checkpoint, const double* start,
                               double* solution) const {
    const Eigen::Index n = objective.NumVar();
    Point current;
    current.x = Eigen::Map<const Vector>(start, n);
    Publish(current.x, solution);
    if (!objective.CheckVariablesValidity(current.x.data())) {
        return objective(current.x.data());
    }
    current.f = objective(current.x.data());
    if (!std::isfinite(current.f)) {
        return current.f;
    }

    std::vector<double> packedHessian(static_cast<std::size_t>(n * (n + 1) / 2));
    Vector gradient(n);
    for (unsigned int iteration = 0; iteration < iterLimit_;) {
        // The return value of the Hessian operation is not the value for every objective.
        objective(current.x.data(), packedHessian.data(), gradient.data());
        if (!gradient.allFinite() || GradientConverged(gradient, tolerance_)) {
            break;
        }
        const Matrix hessian = UnpackLowerTriangle(packedHessian, n);
        Vector direction;
        bool steepest = !hessian.allFinite() || !NewtonDirection(hessian, gradient, direction) ||
                        !(gradient.dot(direction) < 0.0);
        if (steepest) {
            direction = SteepestDescent(gradient);
        }
        Point next;
        bool moved = ArmijoSearch(objective, current, direction, gradient.dot(direction), next);
        if (!moved && !steepest) {
            direction = SteepestDescent(gradient);
            moved = ArmijoSearch(objective, current, direction, gradient.dot(direction), next);
        }
        if (!moved) {
            break;
        }
        if (!AcceptStep(current, std::move(next), iteration, solution, checkpoint)) {
            break;
        }
    }
    return current.f;
}

}  // namespace QVOpt
