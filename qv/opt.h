/// \file
/// Objective-function interfaces and local minimisers of the platform layer.
///
/// An objective is a real function of `NumVar()` double-precision variables. `QVFunc1` supplies
/// the value and, optionally, the gradient; `QVFunc2` adds the Hessian. Two minimisers work on
/// them: `QVBFGSOpt`, a quasi-Newton method that needs values and gradients, and `QVNewtonOpt`,
/// a safeguarded Newton method that also needs second derivatives. Both are local, monotone
/// methods: the point they return is never worse than the start point.
///
/// Conventions shared by every operation here:
/// - A point is an array of `NumVar()` doubles; a gradient is an array of `NumVar()` doubles,
///   gradient[i] = df/dx_i.
/// - A Hessian is packed as its lower triangle by rows: (0,0), (1,0), (1,1), (2,0), (2,1),
///   (2,2), ..., that is entry (i, j) with j <= i lives at index i(i+1)/2 + j; there are
///   n(n+1)/2 entries for n variables.
/// - Minimisers minimise. An objective that measures something to be maximised presents its
///   negative.
#pragma once

namespace QVOpt {

/// A real objective of `NumVar()` variables with its value and first derivatives.
///
/// A subclass must supply `NumVar` and the value operation. The gradient operation has a
/// finite-difference default, which a subclass should override with analytic derivatives when
/// it has them.
///
/// Overloads: the value, float-array and gradient operations are all overloads of
/// `operator()`. A subclass that declares any of them hides the others from calls made through
/// the subclass's own type (calls through a `QVFunc1&` are unaffected). A subclass that wants
/// the inherited overloads callable on its own type writes `using QVFunc1::operator();` (or
/// `using QVFunc2::operator();` when it derives from `QVFunc2`) in its class body.
///
/// Return values: the value and gradient operations return f(x). Every value-returning
/// operation of an objective is expected to be deterministic: the same x gives the same value.
///
/// Thread safety: evaluations are non-const because an objective may keep scratch state; an
/// objective object is therefore used from one thread at a time unless the subclass documents
/// otherwise.
class QVFunc1 {
public:
    QVFunc1() = default;
    QVFunc1(const QVFunc1&) = default;
    QVFunc1& operator=(const QVFunc1&) = default;

    /// The number of variables n. Constant over the life of the object.
    virtual unsigned int NumVar() const = 0;

    /// The value f(x). `x` points to `NumVar()` doubles.
    virtual double operator()(const double* x) = 0;

    /// Computes the components of a sum-of-terms objective at `x`, for the subclasses that
    /// expose them. The default has none and returns false.
    virtual bool GetFComponents(const double* x);

    virtual ~QVFunc1();

    /// The value at a single-precision point: `x[0]` points to `NumVar()` floats (only the first
    /// row of `x` is read). The default widens them to double and returns the value operation
    /// at that point.
    virtual double operator()(const float** x);

    /// Writes the `NumVar()` components of the gradient of f at `x` into `gradient` and returns
    /// f(x).
    ///
    /// The default approximates the gradient by central differences of the value operation,
    /// gradient[i] = (f(x + h_i e_i) - f(x - h_i e_i)) / (2 h_i), with the step
    /// h_i = eps^(1/3) * max(1, |x_i|) (eps the double-precision machine epsilon, so h_i is
    /// about 6e-6 for |x_i| <= 1). The step is rounded so that x_i + h_i is exactly
    /// representable. This balances the O(h^2) truncation error against the O(eps/h) rounding
    /// error and gives roughly 10 correct digits for smooth functions scaled near unity. It costs
    /// 2n + 1 value evaluations.
    virtual double operator()(const double* x, double* gradient);

    /// True when `x` is a point at which the objective may be evaluated. Minimisers test the
    /// start point and every trial point with it and never evaluate a point it rejects. The
    /// default accepts exactly the points whose `NumVar()` entries are all finite.
    virtual bool CheckVariablesValidity(const double* x);

    /// True when the points `a` and `b` describe the same solution within `tolerance`. The
    /// default compares coordinate-wise: true iff max_i |a_i - b_i| <= tolerance (false when a
    /// difference is NaN).
    virtual bool IsRedundant(const double* a, const double* b, double tolerance) const;
};

/// An objective that also supplies its second derivatives.
///
/// The base is virtual so that a class may combine several interfaces sharing one `QVFunc1`.
class QVFunc2 : public virtual QVFunc1 {
public:
    using QVFunc1::operator();

    /// Writes the n(n+1)/2 packed lower-triangle entries of the Hessian of f at `x` into
    /// `hessian` (layout in the file comment) and the n gradient components into `gradient`.
    /// Note the argument order: the Hessian comes first.
    ///
    /// Return value: objectives conventionally return f(x), but not all of them compute it here
    /// (one objective of the library returns `true` converted to double). Callers must therefore
    /// not rely on this return value and obtain the value from the one-argument operation.
    virtual double operator()(const double* x, double* hessian, double* gradient) = 0;
};

/// Observer of a minimisation, called once after every accepted iteration.
///
/// Thread safety: a minimiser calls it from the thread that runs the minimisation.
class QVCheckpoint {
public:
    QVCheckpoint() = default;
    QVCheckpoint(const QVCheckpoint&) = default;
    QVCheckpoint& operator=(const QVCheckpoint&) = default;
    virtual ~QVCheckpoint();

    /// Receives the number of iterations accepted so far (1 after the first), the current point
    /// (`numVar` doubles, valid only during the call) and its value. Returning false stops the
    /// minimisation at this point, which then becomes its result.
    virtual bool OnIteration(unsigned int iteration, unsigned int numVar, const double* x,
                             double value) = 0;
};

/// Quasi-Newton (BFGS) minimiser of a `QVFunc1`, using its value and gradient.
///
/// Method: from the start point, each iteration takes the direction p = -H g, where g is the
/// gradient and H approximates the inverse Hessian, and finds a step length alpha by a line
/// search satisfying the strong Wolfe conditions
///   f(x + alpha p) <= f(x) + c1 alpha g'p   and   |g(x + alpha p)'p| <= c2 |g'p|,
/// with c1 = 1e-4 and c2 = 0.9 (a bracketing phase that doubles the step, followed by a zoom
/// phase with cubic or quadratic interpolation kept inside the middle 80% of the bracket). The
/// first trial step is 1 along a quasi-Newton direction and min(1, 1/|g|_2) along the
/// steepest-descent direction -g (first iteration and after a reset), so that a move along an
/// unscaled gradient has length at most 1.
/// With s the step and y the change of gradient, H is updated as
///   H <- (I - rho s y') H (I - rho y s') + rho s s',   rho = 1 / (s'y),
/// which keeps H positive definite when s'y > 0. H starts as the identity and is rescaled to
/// (s'y / y'y) I just before the first update, which matches its scale to the curvature of f.
/// The update is skipped when s'y <= 1e-10 |s|_2 |y|_2 (no usable curvature information). A
/// direction that is not a descent direction, or a line search that finds no decrease along
/// a quasi-Newton direction, resets H to the identity and retries along -g.
///
/// Trial points rejected by `CheckVariablesValidity`, or where the value or gradient is not
/// finite, count as too large a step: the line search shrinks the step towards the last good
/// point.
///
/// Stopping: the minimisation ends with the current point when
/// - the gradient is small: max_i |g_i| <= tolerance (absolute, in units of f per unit of x;
///   default 1e-5);
/// - the last accepted step reduced f by no more than rounding, |delta f| <= eps |f|;
/// - no decrease can be found along -g (the point is a minimum to working precision, or the
///   objective is too irregular to go on);
/// - the iteration limit (default 200) has been reached; or
/// - the checkpoint asked to stop.
///
/// Work is bounded: at most 1 + iterLimit * 2 * kMaxLineSearchEvaluations value-and-gradient
/// evaluations.
///
/// Thread safety: an object holds only its settings. One call at a time per object; distinct
/// objects may run in different threads (each on its own objective).
class QVBFGSOpt {
public:
    /// Upper bound on objective evaluations per line search.
    static constexpr unsigned int kMaxLineSearchEvaluations = 40;

    /// Sets the gradient tolerance: the run stops when max_i |g_i| <= tolerance. A negative
    /// tolerance disables this test.
    void SetTolerance(double tolerance) { tolerance_ = tolerance; }
    /// Sets the largest number of iterations (accepted steps). 0 evaluates the start only.
    void SetIterLimit(unsigned int iterLimit) { iterLimit_ = iterLimit; }
    double GetTolerance() const { return tolerance_; }
    unsigned int GetIterLimit() const { return iterLimit_; }

    /// Minimises `objective` from `start` (`NumVar()` doubles) and writes the best point found
    /// into `solution` (`NumVar()` doubles; it may be the same array as `start`). Returns the
    /// value at that point. `checkpoint` may be null.
    ///
    /// The result is never worse than the start: only steps that lower f are accepted, so when
    /// nothing improves, solution = start and the start value is returned. When the start is
    /// rejected by `CheckVariablesValidity`, its value (from the value operation) is returned
    /// with solution = start; when the start value or gradient is not finite, the value is
    /// returned with solution = start. `solution` holds the current point after every accepted
    /// step, so it is meaningful even when the objective or checkpoint throws.
    double operator()(QVFunc1& objective, QVCheckpoint* checkpoint, const double* start,
                      double* solution) const;

private:
    double tolerance_ = 1e-5;
    unsigned int iterLimit_ = 200;
};

/// Newton minimiser of a `QVFunc2`, using its value, gradient and Hessian.
///
/// Method: each iteration unpacks the Hessian B into a symmetric matrix and solves
/// (B + tau I) p = -g by a pivoted LDL' factorisation. A matrix counts as safely positive
/// definite when every pivot of its D exceeds 1e-10 times its Frobenius norm (by the law of
/// inertia the signs of the pivots are those of the eigenvalues). tau is 0 when B itself
/// passes this test; otherwise tau is a Levenberg shift that starts at
/// max(0, -min_i B_ii) + beta, beta = 1e-3 |B|_F (1 when B = 0), and doubles until B + tau I
/// passes. Near a saddle or maximum this turns negative curvature into a long step downhill
/// instead of a step towards the stationary point. If no shift works within 64 doublings, the
/// Hessian is not finite, or the direction is not a descent direction (g'p >= 0 or not
/// finite), the direction becomes the steepest descent -g / max(1, |g|_2). The step length comes
/// from a backtracking line search with the Armijo condition f(x + alpha p) <= f(x) + 1e-4 alpha
/// g'p and strict decrease, starting at alpha = 1 and shrinking by safeguarded quadratic
/// interpolation (factor in [0.1, 0.5]; 0.5 after a rejected or non-finite trial) for at most
/// kMaxBacktracks trials. When the Newton direction fails to give a decrease, steepest descent is
/// tried once.
///
/// Values come from the one-argument value operation; the gradient and Hessian come from the
/// three-argument operation, whose return value is ignored (see `QVFunc2`).
///
/// Stopping: the minimisation ends with the current point when
/// - the gradient is small: max_i |g_i| <= tolerance (absolute; default 1e-6);
/// - the last accepted step reduced f by no more than rounding, |delta f| <= eps |f|;
/// - neither the Newton nor the steepest-descent direction gives a decrease;
/// - the gradient is not finite;
/// - the iteration limit (default 100) has been reached; or
/// - the checkpoint asked to stop.
///
/// Work is bounded: at most iterLimit Hessian evaluations and
/// 1 + iterLimit * 2 * kMaxBacktracks value evaluations.
///
/// Thread safety: an object holds only its settings. One call at a time per object; distinct
/// objects may run in different threads (each on its own objective).
class QVNewtonOpt {
public:
    /// Upper bound on value evaluations per line search.
    static constexpr unsigned int kMaxBacktracks = 60;

    /// Sets the gradient tolerance: the run stops when max_i |g_i| <= tolerance. A negative
    /// tolerance disables this test.
    void SetTolerance(double tolerance) { tolerance_ = tolerance; }
    /// Sets the largest number of iterations (accepted steps). 0 evaluates the start only.
    void SetIterLimit(unsigned int iterLimit) { iterLimit_ = iterLimit; }
    double GetTolerance() const { return tolerance_; }
    unsigned int GetIterLimit() const { return iterLimit_; }

    /// Minimises `objective` from `start` (`NumVar()` doubles) and writes the best point found
    /// into `solution` (`NumVar()` doubles; it may be the same array as `start`). Returns the
    /// value at that point. `checkpoint` may be null. The guarantees on the start point and on
    /// `solution` are those of `QVBFGSOpt::operator()`.
    double operator()(QVFunc2& objective, QVCheckpoint* checkpoint, const double* start,
                      double* solution) const;

private:
    double tolerance_ = 1e-6;
    unsigned int iterLimit_ = 100;
};

}  // namespace QVOpt
