// Tests of the platform objective interfaces and minimisers (QVOpt).

#include "qv/opt.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "support/test_support.h"

namespace {

using QVOpt::QVBFGSOpt;
using QVOpt::QVCheckpoint;
using QVOpt::QVFunc1;
using QVOpt::QVFunc2;
using QVOpt::QVNewtonOpt;

using hermite_test::MaxAbs;
using hermite_test::Packed;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

/// The extended Rosenbrock function of an even number n of variables: the sum over the pairs
/// (u, v) = (x_2k, x_2k+1) of 100 (v - u^2)^2 + (1 - u)^2. Its only minimum is at all ones,
/// value 0. The standard start is (-1.2, 1, -1.2, 1, ...).
class Rosenbrock : public QVFunc2 {
public:
    using QVFunc2::operator();

    explicit Rosenbrock(unsigned int n) : n_(n) {}

    unsigned int NumVar() const override { return n_; }

    double operator()(const double* x) override {
        double f = 0.0;
        for (unsigned int k = 0; k + 1 < n_; k += 2) {
            const double valley = x[k + 1] - x[k] * x[k];
            const double offset = 1.0 - x[k];
            f += 100.0 * valley * valley + offset * offset;
        }
        return f;
    }

    double operator()(const double* x, double* gradient) override {
        for (unsigned int k = 0; k + 1 < n_; k += 2) {
            const double valley = x[k + 1] - x[k] * x[k];
            gradient[k] = -400.0 * x[k] * valley - 2.0 * (1.0 - x[k]);
            gradient[k + 1] = 200.0 * valley;
        }
        return (*this)(x);
    }

    double operator()(const double* x, double* hessian, double* gradient) override {
        std::fill(hessian, hessian + n_ * (n_ + 1) / 2, 0.0);
        for (unsigned int k = 0; k + 1 < n_; k += 2) {
            hessian[Packed(k, k)] = 1200.0 * x[k] * x[k] - 400.0 * x[k + 1] + 2.0;
            hessian[Packed(k + 1, k)] = -400.0 * x[k];
            hessian[Packed(k + 1, k + 1)] = 200.0;
        }
        return (*this)(x, gradient);
    }

    std::vector<double> StandardStart() const {
        std::vector<double> start(n_);
        for (unsigned int k = 0; k < n_; ++k) {
            start[k] = k % 2 == 0 ? -1.2 : 1.0;
        }
        return start;
    }

private:
    unsigned int n_;
};

/// f = 1/2 x'Ax - b'x with a fixed positive-definite A whose off-diagonal entries all differ
/// (so that a misread Hessian layout would show) and the minimum x* = A^{-1} b = (1, -2, 0.5),
/// f(x*) = -7.875; all these numbers are exact in binary. Like some objectives of the library,
/// its Hessian operation returns 1.0 (true) instead of the value.
class Quadratic : public QVFunc2 {
public:
    using QVFunc2::operator();

    static constexpr double kA[3][3] = {{4.0, 1.0, 0.5}, {1.0, 3.0, -1.0}, {0.5, -1.0, 5.0}};
    static constexpr double kB[3] = {2.25, -5.5, 5.0};
    static constexpr double kMinimum[3] = {1.0, -2.0, 0.5};
    static constexpr double kMinimumValue = -7.875;

    unsigned int NumVar() const override { return 3; }

    double operator()(const double* x) override {
        double f = 0.0;
        for (int i = 0; i < 3; ++i) {
            double ax = 0.0;
            for (int j = 0; j < 3; ++j) {
                ax += kA[i][j] * x[j];
            }
            f += 0.5 * x[i] * ax - kB[i] * x[i];
        }
        return f;
    }

    double operator()(const double* x, double* gradient) override {
        for (int i = 0; i < 3; ++i) {
            gradient[i] = -kB[i];
            for (int j = 0; j < 3; ++j) {
                gradient[i] += kA[i][j] * x[j];
            }
        }
        return (*this)(x);
    }

    double operator()(const double* x, double* hessian, double* gradient) override {
        for (std::size_t i = 0; i < 3; ++i) {
            for (std::size_t j = 0; j <= i; ++j) {
                hessian[Packed(i, j)] = kA[i][j];
            }
        }
        (*this)(x, gradient);
        return 1.0;
    }
};

/// f = x^4/4 - x^2/2 + y^2: a maximum along x at x = 0 (Hessian indefinite for |x| < 1/sqrt 3)
/// and two minima at (+-1, 0) with value -1/4.
class DoubleWell : public QVFunc2 {
public:
    using QVFunc2::operator();

    unsigned int NumVar() const override { return 2; }

    double operator()(const double* x) override {
        const double x2 = x[0] * x[0];
        return 0.25 * x2 * x2 - 0.5 * x2 + x[1] * x[1];
    }

    double operator()(const double* x, double* gradient) override {
        gradient[0] = x[0] * x[0] * x[0] - x[0];
        gradient[1] = 2.0 * x[1];
        return (*this)(x);
    }

    double operator()(const double* x, double* hessian, double* gradient) override {
        hessian[0] = 3.0 * x[0] * x[0] - 1.0;
        hessian[1] = 0.0;
        hessian[2] = 2.0;
        return (*this)(x, gradient);
    }
};

/// f = (x - 5)^2 of one variable, finite only on the island |x| <= 1e-3 and NaN elsewhere.
class Island : public QVFunc2 {
public:
    using QVFunc2::operator();

    static constexpr double kRadius = 1e-3;

    unsigned int NumVar() const override { return 1; }

    double operator()(const double* x) override {
        return std::fabs(x[0]) <= kRadius ? (x[0] - 5.0) * (x[0] - 5.0) : kNaN;
    }

    double operator()(const double* x, double* gradient) override {
        gradient[0] = 2.0 * (x[0] - 5.0);
        return (*this)(x);
    }

    double operator()(const double* x, double* hessian, double* gradient) override {
        hessian[0] = 2.0;
        return (*this)(x, gradient);
    }
};

/// Finite (value 1, gradient (1, 1), Hessian I) only at exactly the point `centre`; infinite
/// anywhere else, so no step can ever improve on it.
class SinglePoint : public QVFunc2 {
public:
    using QVFunc2::operator();

    static constexpr double kCentre[2] = {0.75, -3.5};

    unsigned int NumVar() const override { return 2; }

    double operator()(const double* x) override {
        return x[0] == kCentre[0] && x[1] == kCentre[1] ? 1.0 : kInf;
    }

    double operator()(const double* x, double* gradient) override {
        gradient[0] = 1.0;
        gradient[1] = 1.0;
        return (*this)(x);
    }

    double operator()(const double* x, double* hessian, double* gradient) override {
        hessian[0] = 1.0;
        hessian[1] = 0.0;
        hessian[2] = 1.0;
        return (*this)(x, gradient);
    }
};

/// f = (x + 1)^2 on the domain x >= 0 (declared through CheckVariablesValidity); its
/// constrained minimum is at x = 0 with value 1. Records whether it was ever evaluated outside
/// its domain.
class HalfLine : public QVFunc2 {
public:
    using QVFunc2::operator();

    unsigned int NumVar() const override { return 1; }

    bool CheckVariablesValidity(const double* x) override { return x[0] >= 0.0; }

    double operator()(const double* x) override {
        ++valueCalls;
        evaluatedOutside = evaluatedOutside || x[0] < 0.0;
        return (x[0] + 1.0) * (x[0] + 1.0);
    }

    double operator()(const double* x, double* gradient) override {
        ++gradientCalls;
        gradient[0] = 2.0 * (x[0] + 1.0);
        return (*this)(x);
    }

    double operator()(const double* x, double* hessian, double* gradient) override {
        hessian[0] = 2.0;
        return (*this)(x, gradient);
    }

    int valueCalls = 0;
    int gradientCalls = 0;
    bool evaluatedOutside = false;
};

/// Forwards to another objective and counts the calls of each kind.
class Counting : public QVFunc2 {
public:
    using QVFunc2::operator();

    explicit Counting(QVFunc2& inner) : inner_(inner) {}

    unsigned int NumVar() const override { return inner_.NumVar(); }

    double operator()(const double* x) override {
        ++values;
        return inner_(x);
    }

    double operator()(const double* x, double* gradient) override {
        ++gradients;
        return inner_(x, gradient);
    }

    double operator()(const double* x, double* hessian, double* gradient) override {
        ++hessians;
        return inner_(x, hessian, gradient);
    }

    unsigned int values = 0;
    unsigned int gradients = 0;
    unsigned int hessians = 0;

private:
    QVFunc2& inner_;
};

/// Records every report and asks to stop after `stopAfter` iterations (0: never).
class Recorder : public QVCheckpoint {
public:
    explicit Recorder(unsigned int stopAfter = 0) : stopAfter_(stopAfter) {}

    bool OnIteration(unsigned int iteration, unsigned int numVar, const double* x,
                     double value) override {
        iterations.push_back(iteration);
        points.emplace_back(x, x + numVar);
        values.push_back(value);
        return stopAfter_ == 0 || iteration < stopAfter_;
    }

    std::vector<unsigned int> iterations;
    std::vector<std::vector<double>> points;
    std::vector<double> values;

private:
    unsigned int stopAfter_;
};

/// A smooth function of three variables given by its value only; the gradient comes from the
/// interface's finite differences. `Gradient` gives the exact one for comparison.
class ValueOnly : public QVFunc1 {
public:
    using QVFunc1::operator();

    unsigned int NumVar() const override { return 3; }

    double operator()(const double* x) override {
        return std::exp(0.5 * x[0]) + x[0] * x[0] * x[1] + 3.0 * std::sin(x[1]) +
               x[2] * x[2] * x[2] * x[2];
    }

    static std::vector<double> Gradient(const double* x) {
        return {0.5 * std::exp(0.5 * x[0]) + 2.0 * x[0] * x[1], x[0] * x[0] + 3.0 * std::cos(x[1]),
                4.0 * x[2] * x[2] * x[2]};
    }
};

/// (x0 - 1)^2 + 2 (x1 + 0.5)^2 + (x0 - x1)^2 from its value only; minimum (0.4, -0.2), value
/// 0.9.
class ValueOnlyQuadratic : public QVFunc1 {
public:
    using QVFunc1::operator();

    unsigned int NumVar() const override { return 2; }

    double operator()(const double* x) override {
        const double a = x[0] - 1.0;
        const double b = x[1] + 0.5;
        const double c = x[0] - x[1];
        return a * a + 2.0 * b * b + c * c;
    }
};

void ExpectNear(const std::vector<double>& actual, const std::vector<double>& expected,
                double tolerance) {
    ASSERT_EQ(actual.size(), expected.size());
    for (std::size_t i = 0; i < actual.size(); ++i) {
        EXPECT_NEAR(actual[i], expected[i], tolerance * std::max(1.0, std::fabs(expected[i])))
            << "component " << i;
    }
}

std::vector<double> Ones(std::size_t n) {
    return std::vector<double>(n, 1.0);
}

std::vector<double> GradientAt(QVFunc1& f, const std::vector<double>& x) {
    std::vector<double> g(x.size());
    f(x.data(), g.data());
    return g;
}

// ---------------------------------------------------------------------------------------------
// Defaults of the objective interface.

TEST(QVOptFunc1, FloatArrayValueWidensTheFirstRow) {
    ValueOnly f;
    const float row[3] = {0.1f, -2.5f, 3.25f};
    const float* rows[1] = {row};
    const double widened[3] = {static_cast<double>(row[0]), static_cast<double>(row[1]),
                               static_cast<double>(row[2])};
    EXPECT_EQ(f(rows), f(widened));
}

TEST(QVOptFunc1, FiniteDifferenceGradientMatchesTheAnalyticOne) {
    ValueOnly f;
    const double points[][3] = {{0.3, -1.2, 2.0}, {0.0, 0.0, 0.0}, {40.0, -25.0, 7.0}};
    for (const auto& x : points) {
        std::vector<double> gradient(3);
        const double value = f(x, gradient.data());
        EXPECT_EQ(value, f(x));
        const std::vector<double> exact = ValueOnly::Gradient(x);
        const double scale = std::max({1.0, std::fabs(value), MaxAbs(exact)});
        for (int i = 0; i < 3; ++i) {
            EXPECT_NEAR(gradient[i], exact[i], 1e-7 * scale) << "component " << i;
        }
    }
}

TEST(QVOptFunc1, CheckVariablesValidityAcceptsExactlyFinitePoints) {
    ValueOnly f;
    const double finite[3] = {1.0, -1e300, 0.0};
    const double withNaN[3] = {1.0, kNaN, 0.0};
    const double withInf[3] = {1.0, 0.0, -kInf};
    EXPECT_TRUE(f.CheckVariablesValidity(finite));
    EXPECT_FALSE(f.CheckVariablesValidity(withNaN));
    EXPECT_FALSE(f.CheckVariablesValidity(withInf));
}

TEST(QVOptFunc1, IsRedundantComparesTheLargestCoordinateDifference) {
    const ValueOnly f;
    const double a[3] = {1.0, 2.0, 3.0};
    const double b[3] = {1.25, 1.5, 3.0};
    const double c[3] = {1.0, kNaN, 3.0};
    EXPECT_TRUE(f.IsRedundant(a, b, 0.5));
    EXPECT_FALSE(f.IsRedundant(a, b, 0.25));
    EXPECT_TRUE(f.IsRedundant(a, a, 0.0));
    EXPECT_FALSE(f.IsRedundant(a, c, 1e300));
}

TEST(QVOptFunc1, GetFComponentsIsNotProvidedByDefault) {
    ValueOnly f;
    const double x[3] = {0.0, 0.0, 0.0};
    EXPECT_FALSE(f.GetFComponents(x));
}

TEST(QVOptSettings, DefaultsAndSetters) {
    QVBFGSOpt bfgs;
    EXPECT_EQ(bfgs.GetTolerance(), 1e-5);
    EXPECT_EQ(bfgs.GetIterLimit(), 200u);
    bfgs.SetTolerance(1e-3);
    bfgs.SetIterLimit(7);
    EXPECT_EQ(bfgs.GetTolerance(), 1e-3);
    EXPECT_EQ(bfgs.GetIterLimit(), 7u);

    QVNewtonOpt newton;
    EXPECT_EQ(newton.GetTolerance(), 1e-6);
    EXPECT_EQ(newton.GetIterLimit(), 100u);
    newton.SetTolerance(1e-4);
    newton.SetIterLimit(9);
    EXPECT_EQ(newton.GetTolerance(), 1e-4);
    EXPECT_EQ(newton.GetIterLimit(), 9u);
}

// ---------------------------------------------------------------------------------------------
// Rosenbrock functions from the standard start.

TEST(QVOptBFGS, Rosenbrock2DWithDefaults) {
    Rosenbrock f(2);
    const std::vector<double> start = f.StandardStart();
    std::vector<double> solution(2);
    const double value = QVBFGSOpt()(f, nullptr, start.data(), solution.data());
    EXPECT_LE(MaxAbs(GradientAt(f, solution)), 1e-5);
    ExpectNear(solution, Ones(2), 1e-4);
    EXPECT_EQ(value, f(solution.data()));
    EXPECT_LT(value, 1e-9);
}

TEST(QVOptBFGS, Rosenbrock2DTightTolerance) {
    Rosenbrock f(2);
    const std::vector<double> start = f.StandardStart();
    std::vector<double> solution(2);
    QVBFGSOpt bfgs;
    bfgs.SetTolerance(1e-10);
    const double value = bfgs(f, nullptr, start.data(), solution.data());
    ExpectNear(solution, Ones(2), 1e-8);
    EXPECT_LT(value, 1e-18);
}

TEST(QVOptBFGS, Rosenbrock6D) {
    Rosenbrock f(6);
    const std::vector<double> start = f.StandardStart();
    std::vector<double> solution(6);
    QVBFGSOpt bfgs;
    bfgs.SetTolerance(1e-9);
    const double value = bfgs(f, nullptr, start.data(), solution.data());
    ExpectNear(solution, Ones(6), 1e-7);
    EXPECT_LT(value, 1e-16);
}

TEST(QVOptNewton, Rosenbrock2DWithDefaults) {
    Rosenbrock f(2);
    const std::vector<double> start = f.StandardStart();
    std::vector<double> solution(2);
    Recorder recorder;
    const double value = QVNewtonOpt()(f, &recorder, start.data(), solution.data());
    EXPECT_LE(MaxAbs(GradientAt(f, solution)), 1e-6);
    ExpectNear(solution, Ones(2), 1e-6);
    EXPECT_EQ(value, f(solution.data()));
    EXPECT_LT(value, 1e-12);
    // Newton's method with a line search takes a few dozen steps here, not hundreds.
    EXPECT_LE(recorder.iterations.size(), 40u);
}

TEST(QVOptNewton, Rosenbrock6D) {
    Rosenbrock f(6);
    const std::vector<double> start = f.StandardStart();
    std::vector<double> solution(6);
    QVNewtonOpt newton;
    newton.SetTolerance(1e-10);
    const double value = newton(f, nullptr, start.data(), solution.data());
    ExpectNear(solution, Ones(6), 1e-9);
    EXPECT_LT(value, 1e-18);
}

// ---------------------------------------------------------------------------------------------
// Convex quadratic: exact minimum A^{-1} b.

TEST(QVOptNewton, QuadraticInOneStep) {
    Quadratic f;
    const double start[3] = {3.0, 1.0, -2.0};
    std::vector<double> solution(3);
    Recorder recorder;
    const double value = QVNewtonOpt()(f, &recorder, start, solution.data());
    ExpectNear(solution, {Quadratic::kMinimum[0], Quadratic::kMinimum[1], Quadratic::kMinimum[2]},
               1e-13);
    EXPECT_EQ(recorder.iterations.size(), 1u);
    // The value comes from the value operation, not from the Hessian operation's 1.0.
    EXPECT_NEAR(value, Quadratic::kMinimumValue, 1e-13 * std::fabs(Quadratic::kMinimumValue));
}

TEST(QVOptBFGS, QuadraticReachesTheExactMinimum) {
    Quadratic f;
    const double start[3] = {3.0, 1.0, -2.0};
    std::vector<double> solution(3);
    QVBFGSOpt bfgs;
    bfgs.SetTolerance(1e-10);
    const double value = bfgs(f, nullptr, start, solution.data());
    ExpectNear(solution, {Quadratic::kMinimum[0], Quadratic::kMinimum[1], Quadratic::kMinimum[2]},
               1e-9);
    EXPECT_NEAR(value, Quadratic::kMinimumValue, 1e-12 * std::fabs(Quadratic::kMinimumValue));
}

// ---------------------------------------------------------------------------------------------
// Indefinite Hessians.

TEST(QVOptNewton, IndefiniteStartNearAMaximumReachesAMinimum) {
    DoubleWell f;
    const double start[2] = {0.01, 1.0};
    std::vector<double> solution(2);
    const double value = QVNewtonOpt()(f, nullptr, start, solution.data());
    // The gradient at the start points towards positive x, so the minimum found is (1, 0).
    ExpectNear(solution, {1.0, 0.0}, 1e-7);
    EXPECT_NEAR(value, -0.25, 1e-12);
}

TEST(QVOptNewton, IndefiniteStartAwayFromTheMaximum) {
    DoubleWell f;
    const double start[2] = {-0.5, -2.0};  // Hessian diag(-0.25, 2)
    std::vector<double> solution(2);
    const double value = QVNewtonOpt()(f, nullptr, start, solution.data());
    ExpectNear(solution, {-1.0, 0.0}, 1e-7);
    EXPECT_NEAR(value, -0.25, 1e-12);
}

TEST(QVOptBFGS, IndefiniteStartNearAMaximumReachesAMinimum) {
    DoubleWell f;
    const double start[2] = {0.01, 1.0};
    std::vector<double> solution(2);
    QVBFGSOpt bfgs;
    bfgs.SetTolerance(1e-9);
    const double value = bfgs(f, nullptr, start, solution.data());
    ExpectNear(solution, {1.0, 0.0}, 1e-8);
    EXPECT_NEAR(value, -0.25, 1e-12);
}

// ---------------------------------------------------------------------------------------------
// The start point: at the minimum, not improvable, or invalid.

TEST(QVOptNewton, StartAtTheMinimumIsReturnedUnchanged) {
    Quadratic f;
    std::vector<double> solution(3, 99.0);
    Recorder recorder;
    const double value = QVNewtonOpt()(f, &recorder, Quadratic::kMinimum, solution.data());
    EXPECT_EQ(solution, std::vector<double>(Quadratic::kMinimum, Quadratic::kMinimum + 3));
    EXPECT_EQ(value, Quadratic::kMinimumValue);
    EXPECT_TRUE(recorder.iterations.empty());
}

TEST(QVOptBFGS, StartAtTheMinimumIsReturnedUnchanged) {
    Quadratic f;
    std::vector<double> solution(3, 99.0);
    Recorder recorder;
    const double value = QVBFGSOpt()(f, &recorder, Quadratic::kMinimum, solution.data());
    EXPECT_EQ(solution, std::vector<double>(Quadratic::kMinimum, Quadratic::kMinimum + 3));
    EXPECT_EQ(value, Quadratic::kMinimumValue);
    EXPECT_TRUE(recorder.iterations.empty());
}

TEST(QVOptNewton, NeverLeavesTheRegionWhereTheObjectiveIsFinite) {
    Island f;
    const double start[1] = {0.0};
    double solution[1] = {7.0};
    const double value = QVNewtonOpt()(f, nullptr, start, solution);
    EXPECT_GT(solution[0], 0.0);
    EXPECT_LE(solution[0], Island::kRadius);
    EXPECT_LT(value, 25.0);
    EXPECT_EQ(value, f(solution));
}

TEST(QVOptBFGS, NeverLeavesTheRegionWhereTheObjectiveIsFinite) {
    Island f;
    const double start[1] = {0.0};
    double solution[1] = {7.0};
    const double value = QVBFGSOpt()(f, nullptr, start, solution);
    EXPECT_GT(solution[0], 0.0);
    EXPECT_LE(solution[0], Island::kRadius);
    EXPECT_LT(value, 25.0);
    EXPECT_EQ(value, f(solution));
}

TEST(QVOptNewton, UnimprovableStartIsReturned) {
    SinglePoint f;
    std::vector<double> solution(2, 0.0);
    const double value = QVNewtonOpt()(f, nullptr, SinglePoint::kCentre, solution.data());
    EXPECT_EQ(solution, std::vector<double>(SinglePoint::kCentre, SinglePoint::kCentre + 2));
    EXPECT_EQ(value, 1.0);
}

TEST(QVOptBFGS, UnimprovableStartIsReturned) {
    SinglePoint f;
    std::vector<double> solution(2, 0.0);
    const double value = QVBFGSOpt()(f, nullptr, SinglePoint::kCentre, solution.data());
    EXPECT_EQ(solution, std::vector<double>(SinglePoint::kCentre, SinglePoint::kCentre + 2));
    EXPECT_EQ(value, 1.0);
}

TEST(QVOptNewton, InvalidStartReturnsItsValue) {
    HalfLine f;
    const double start[1] = {-0.5};
    double solution[1] = {3.0};
    const double value = QVNewtonOpt()(f, nullptr, start, solution);
    EXPECT_EQ(solution[0], -0.5);
    EXPECT_EQ(value, 0.25);
    EXPECT_EQ(f.valueCalls, 1);
    EXPECT_EQ(f.gradientCalls, 0);
}

TEST(QVOptBFGS, InvalidStartReturnsItsValue) {
    HalfLine f;
    const double start[1] = {-0.5};
    double solution[1] = {3.0};
    const double value = QVBFGSOpt()(f, nullptr, start, solution);
    EXPECT_EQ(solution[0], -0.5);
    EXPECT_EQ(value, 0.25);
    EXPECT_EQ(f.valueCalls, 1);
    EXPECT_EQ(f.gradientCalls, 0);
}

TEST(QVOptBFGS, NonFiniteStartReturnsItsValue) {
    Quadratic f;
    const double start[3] = {1.0, kNaN, 0.0};
    std::vector<double> solution(3, 0.0);
    const double value = QVBFGSOpt()(f, nullptr, start, solution.data());
    EXPECT_TRUE(std::isnan(value));
    EXPECT_EQ(solution[0], 1.0);
    EXPECT_TRUE(std::isnan(solution[1]));
    EXPECT_EQ(solution[2], 0.0);
}

TEST(QVOptNewton, TrialPointsStayInTheValidDomain) {
    HalfLine f;
    const double start[1] = {1.0};
    double solution[1] = {0.0};
    const double value = QVNewtonOpt()(f, nullptr, start, solution);
    EXPECT_FALSE(f.evaluatedOutside);
    EXPECT_GE(solution[0], 0.0);
    EXPECT_LT(solution[0], 1e-3);
    EXPECT_LT(value, 4.0);
}

TEST(QVOptBFGS, TrialPointsStayInTheValidDomain) {
    HalfLine f;
    const double start[1] = {1.0};
    double solution[1] = {0.0};
    const double value = QVBFGSOpt()(f, nullptr, start, solution);
    EXPECT_FALSE(f.evaluatedOutside);
    EXPECT_GE(solution[0], 0.0);
    EXPECT_LT(solution[0], 1e-3);
    EXPECT_LT(value, 4.0);
}

TEST(QVOptNewton, SolutionMayShareTheStartArray) {
    Rosenbrock f(2);
    std::vector<double> point = f.StandardStart();
    const double value = QVNewtonOpt()(f, nullptr, point.data(), point.data());
    ExpectNear(point, Ones(2), 1e-6);
    EXPECT_EQ(value, f(point.data()));
}

TEST(QVOptBFGS, SolutionMayShareTheStartArray) {
    Rosenbrock f(2);
    std::vector<double> point = f.StandardStart();
    const double value = QVBFGSOpt()(f, nullptr, point.data(), point.data());
    ExpectNear(point, Ones(2), 1e-4);
    EXPECT_EQ(value, f(point.data()));
}

// ---------------------------------------------------------------------------------------------
// Bounded work and early stopping.

TEST(QVOptBFGS, IterationLimitBoundsTheWork) {
    Rosenbrock inner(2);
    Counting f(inner);
    const std::vector<double> start = inner.StandardStart();
    std::vector<double> solution(2);
    Recorder recorder;
    QVBFGSOpt bfgs;
    bfgs.SetIterLimit(3);
    const double value = bfgs(f, &recorder, start.data(), solution.data());
    EXPECT_EQ(recorder.iterations.size(), 3u);
    EXPECT_LE(f.gradients, 1u + 3u * 2u * QVBFGSOpt::kMaxLineSearchEvaluations);
    EXPECT_EQ(f.hessians, 0u);
    EXPECT_LT(value, inner(start.data()));
    EXPECT_GT(value, 0.0);
}

TEST(QVOptNewton, IterationLimitBoundsTheWork) {
    Rosenbrock inner(2);
    Counting f(inner);
    const std::vector<double> start = inner.StandardStart();
    std::vector<double> solution(2);
    Recorder recorder;
    QVNewtonOpt newton;
    newton.SetIterLimit(3);
    const double value = newton(f, &recorder, start.data(), solution.data());
    EXPECT_EQ(recorder.iterations.size(), 3u);
    EXPECT_LE(f.hessians, 3u);
    EXPECT_LE(f.values, 1u + 3u * 2u * QVNewtonOpt::kMaxBacktracks);
    EXPECT_LT(value, inner(start.data()));
    EXPECT_GT(value, 0.0);
}

TEST(QVOptBFGS, ZeroIterationLimitEvaluatesOnlyTheStart) {
    Rosenbrock inner(2);
    Counting f(inner);
    const std::vector<double> start = inner.StandardStart();
    std::vector<double> solution(2);
    QVBFGSOpt bfgs;
    bfgs.SetIterLimit(0);
    const double value = bfgs(f, nullptr, start.data(), solution.data());
    EXPECT_EQ(solution, start);
    EXPECT_EQ(value, inner(start.data()));
    EXPECT_EQ(f.gradients, 1u);
    EXPECT_EQ(f.values, 0u);
}

TEST(QVOptNewton, ZeroIterationLimitEvaluatesOnlyTheStart) {
    Rosenbrock inner(2);
    Counting f(inner);
    const std::vector<double> start = inner.StandardStart();
    std::vector<double> solution(2);
    QVNewtonOpt newton;
    newton.SetIterLimit(0);
    const double value = newton(f, nullptr, start.data(), solution.data());
    EXPECT_EQ(solution, start);
    EXPECT_EQ(value, inner(start.data()));
    EXPECT_EQ(f.values, 1u);
    EXPECT_EQ(f.hessians, 0u);
}

TEST(QVOptBFGS, CheckpointStopsEarly) {
    Rosenbrock f(2);
    const std::vector<double> start = f.StandardStart();
    std::vector<double> solution(2);
    Recorder recorder(2);
    const double value = QVBFGSOpt()(f, &recorder, start.data(), solution.data());
    EXPECT_EQ(recorder.iterations, (std::vector<unsigned int>{1, 2}));
    EXPECT_EQ(solution, recorder.points.back());
    EXPECT_EQ(value, recorder.values.back());
    EXPECT_LT(recorder.values[1], recorder.values[0]);
    EXPECT_LT(recorder.values[0], f(start.data()));
}

TEST(QVOptNewton, CheckpointStopsEarly) {
    Rosenbrock f(2);
    const std::vector<double> start = f.StandardStart();
    std::vector<double> solution(2);
    Recorder recorder(2);
    const double value = QVNewtonOpt()(f, &recorder, start.data(), solution.data());
    EXPECT_EQ(recorder.iterations, (std::vector<unsigned int>{1, 2}));
    EXPECT_EQ(solution, recorder.points.back());
    EXPECT_EQ(value, recorder.values.back());
    EXPECT_LT(recorder.values[1], recorder.values[0]);
    EXPECT_LT(recorder.values[0], f(start.data()));
}

// ---------------------------------------------------------------------------------------------
// An objective with values only, through the finite-difference gradient.

TEST(QVOptBFGS, MinimisesWithTheFiniteDifferenceGradient) {
    ValueOnlyQuadratic f;
    const double start[2] = {3.0, 2.0};
    std::vector<double> solution(2);
    QVBFGSOpt bfgs;
    bfgs.SetTolerance(1e-8);
    const double value = bfgs(f, nullptr, start, solution.data());
    ExpectNear(solution, {0.4, -0.2}, 1e-6);
    const double minimum[2] = {0.4, -0.2};
    EXPECT_NEAR(value, f(minimum), 1e-12);
}

}  // namespace
