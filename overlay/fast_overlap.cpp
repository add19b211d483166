#include "overlay/fast_overlap.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>

#include "overlay/lanes.h"
#include "overlay/negative_exp.h"
#include "overlay/vector_width.h"

namespace hermite::overlay {

using QVHermiteMath::GetLmnIndex;

namespace {

std::size_t CoefficientCount(unsigned int N) {
    const std::size_t n = N;
    return (n + 1) * (n + 2) * (n + 3) / 6;
}

/// Offset of matrix d in a flat S set: the sizes (e + 1)^2 of the matrices before it.
std::size_t SOffset(unsigned int d) {
    const std::size_t n = d;
    return n * (n + 1) * (2 * n + 1) / 6;
}

}  // namespace

Expansion Expansion::From(const QVHermiteMath::QVHermite& expansion) {
    Expansion result;
    result.order = expansion.GetOptions().GetNPolyMax();
    for (unsigned int axis = 0; axis < 3; ++axis) {
        result.lambda[axis] = expansion.GetOptions().GetLambda(axis);
    }
    result.coefficients = expansion.GetCoefficients();
    return result;
}

namespace {

/// What the one-axis tables of a Gaussian of exponent a need on each axis, four Gaussians at a
/// time (one per lane): with r = sqrt(2a) and t = r / lambda, q = 1 / (t^2 + 1),
/// A = 2 (1 - t^2) q, the factor 2 t q of B and the factor sqrt(2 pi q) of F_0.
struct AxisConstants {
    Lanes r = {};
    Lanes A[3] = {};
    Lanes halfQ[3] = {};  ///< q / 2
    Lanes twoTQ[3] = {};  ///< 2 t q
    Lanes root[3] = {};   ///< sqrt(2 pi q)

    /// The exponent of each lane's constants (none yet: NaN equals nothing).
    float exponent[kLanes];

    AxisConstants() { std::fill(std::begin(exponent), std::end(exponent), NAN); }

    /// Sets lane `lane` to the constants of exponent `a`. A molecule's Gaussians share a few
    /// exponents, and a lane that holds them already keeps them: the square roots and divisions
    /// are most of the cost of a lane otherwise.
    void Set(std::size_t lane, float a, const double* lambda) {
        if (a == exponent[lane]) {
            return;
        }
        exponent[lane] = a;
        r[lane] = std::sqrt(2.0 * static_cast<double>(a));
        for (unsigned int axis = 0; axis < 3; ++axis) {
            const double t = r[lane] / lambda[axis];
            const double q = 1.0 / (t * t + 1.0);
            A[axis][lane] = 2.0 * (1.0 - t * t) * q;
            halfQ[axis][lane] = 0.5 * q;
            twoTQ[axis][lane] = 2.0 * t * q;
            root[axis][lane] = std::sqrt(6.283185307179586 * q);
        }
    }
};

/// F_0..F_N on `axis` of four Gaussians of constants `c` centred at `centre` (angstrom), each
/// divided by K_k: the recurrence of the library's one-Gaussian tables, F_0 = sqrt(2 pi q)
/// e^(-q y^2 / 2), F_1 = B F_0, F_k = (k - 1) A F_(k-2) + B F_(k-1), with y = centre r and
/// B = 2 t q y.
void OneAxisTables(unsigned int N, const AxisConstants& c, unsigned int axis, const Lanes& centre,
                   const std::vector<double>& K, LanesSlot* F) {
    const Lanes y = centre * c.r;
    double exponent[kLanes];
    for (std::size_t lane = 0; lane < kLanes; ++lane) {
        exponent[lane] = c.halfQ[axis][lane] * y[lane] * y[lane];
    }
    CutOffExponentials(exponent, kLanes, kLargestExponent);
    const Lanes gaussian = {exponent[0], exponent[1], exponent[2], exponent[3]};
    const Lanes A = c.A[axis];
    const Lanes B = c.twoTQ[axis] * y;
    F[0].lanes = c.root[axis] * gaussian;
    if (N >= 1) {
        F[1].lanes = B * F[0].lanes;
    }
    for (unsigned int k = 2; k <= N; ++k) {
        F[k].lanes = static_cast<double>(k - 1) * A * F[k - 2].lanes + B * F[k - 1].lanes;
    }
    for (unsigned int k = 0; k <= N; ++k) {
        F[k].lanes = F[k].lanes / K[k];
    }
}

/// The distinct values that the shifts take on each axis, and for each shift the position of
/// its value on each axis: shifts along one axis at a time share the other axes' tables.
struct ShiftValues {
    std::array<std::vector<double>, 3> values;
    std::vector<std::array<std::size_t, 3>> slots;

    explicit ShiftValues(const std::vector<std::array<double, 3>>& shifts) {
        for (const std::array<double, 3>& shift : shifts) {
            std::array<std::size_t, 3> slot{};
            for (unsigned int axis = 0; axis < 3; ++axis) {
                std::vector<double>& axisValues = values[axis];
                const auto found = std::find(axisValues.begin(), axisValues.end(), shift[axis]);
                slot[axis] = static_cast<std::size_t>(found - axisValues.begin());
                if (found == axisValues.end()) {
                    axisValues.push_back(shift[axis]);
                }
            }
            slots.push_back(slot);
        }
    }
};

/// The centres of `gaussians` on each axis at each of the axis's shift values, rounded to single
/// precision as a moved Gaussian's are: [axis][value * gaussians + gaussian]. Made outside the
/// kernels (not inlined into them): vectorised for AVX2, the round trip from double to float and
/// back may be dropped, and the moved centres would keep double precision.
__attribute__((noinline)) std::array<std::vector<double>, 3> MovedCentres(
    const std::vector<QVSystem::QVGaussian>& gaussians, const ShiftValues& shiftValues) {
    std::array<std::vector<double>, 3> moved;
    for (unsigned int axis = 0; axis < 3; ++axis) {
        for (const double value : shiftValues.values[axis]) {
            for (const QVSystem::QVGaussian& g : gaussians) {
                const float centre[3] = {g.GetX(), g.GetY(), g.GetZ()};
                moved[axis].push_back(value == 0.0 ? centre[axis]
                                                   : static_cast<float>(centre[axis] + value));
            }
        }
    }
    return moved;
}

}  // namespace

Expansion Expansion::Of(const std::vector<QVSystem::QVGaussian>& gaussians, unsigned int order,
                        const double* lambda) {
    return OfShifts(gaussians, order, lambda, {{0.0, 0.0, 0.0}}).front();
}

std::vector<Expansion> Expansion::OfShifts(const std::vector<QVSystem::QVGaussian>& gaussians,
                                           unsigned int order, const double* lambda,
                                           const std::vector<std::array<double, 3>>& shifts) {
    return RunKernel([&] {
        // c_lmn = sum over Gaussians of w X_l Y_m Z_n, with each one-axis table divided by its
        // K and the prefactor w in the x table; four Gaussians at a time, one per lane. The
        // sums run in (l, m, n) order, n fastest, so that the innermost loop is a run of
        // products of one X_l Y_m with the z table; they are put in the coefficients' order
        // (by total degree) at the end.
        const std::vector<double> K = QVHermiteMath::computeKs(order);
        std::vector<std::size_t> position;  // of each (l, m, n) term in the coefficients
        for (unsigned int l = 0; l <= order; ++l) {
            for (unsigned int m = 0; m + l <= order; ++m) {
                for (unsigned int n = 0; n + m + l <= order; ++n) {
                    position.push_back(GetLmnIndex(l, m, n));
                }
            }
        }
        const std::size_t terms = position.size();
        std::vector<LanesSlot> sums(shifts.size() * terms, LanesSlot{});
        const ShiftValues shiftValues(shifts);
        const std::size_t rows = order + 1;
        std::array<std::vector<LanesSlot>, 3> tables;  // per axis: one row per distinct value
        for (unsigned int axis = 0; axis < 3; ++axis) {
            tables[axis].resize(shiftValues.values[axis].size() * rows);
        }
        const std::array<std::vector<double>, 3> movedCentres =
            MovedCentres(gaussians, shiftValues);
        AxisConstants constants;
        for (std::size_t first = 0; first < gaussians.size(); first += kLanes) {
            // Lanes past the last Gaussian repeat it with no weight.
            std::size_t index[kLanes];
            Lanes weight = {};
            for (std::size_t lane = 0; lane < kLanes; ++lane) {
                index[lane] = std::min(first + lane, gaussians.size() - 1);
                const QVSystem::QVGaussian& g = gaussians[index[lane]];
                constants.Set(lane, g.GetExponent(), lambda);
                weight[lane] = first + lane < gaussians.size() ? g.GetPrefactor() : 0.0;
            }
            for (unsigned int axis = 0; axis < 3; ++axis) {
                for (std::size_t v = 0; v < shiftValues.values[axis].size(); ++v) {
                    const double* centres = &movedCentres[axis][v * gaussians.size()];
                    const Lanes moved = {centres[index[0]], centres[index[1]], centres[index[2]],
                                         centres[index[3]]};
                    LanesSlot* F = &tables[axis][v * rows];
                    OneAxisTables(order, constants, axis, moved, K, F);
                    for (std::size_t k = 0; axis == 0 && k < rows; ++k) {
                        F[k].lanes = weight * F[k].lanes;
                    }
                }
            }
            for (std::size_t j = 0; j < shifts.size(); ++j) {
                const LanesSlot* X = &tables[0][shiftValues.slots[j][0] * rows];
                const LanesSlot* Y = &tables[1][shiftValues.slots[j][1] * rows];
                const LanesSlot* Z = &tables[2][shiftValues.slots[j][2] * rows];
                LanesSlot* sum = &sums[j * terms];
                for (unsigned int l = 0; l <= order; ++l) {
                    for (unsigned int m = 0; m + l <= order; ++m) {
                        const Lanes xy = X[l].lanes * Y[m].lanes;
                        const unsigned int run = order - l - m + 1;
                        for (unsigned int n = 0; n < run; ++n) {
                            sum[n].lanes += xy * Z[n].lanes;
                        }
                        sum += run;
                    }
                }
            }
        }
        Expansion blank;
        blank.order = order;
        std::copy(lambda, lambda + 3, blank.lambda);
        blank.coefficients.assign(terms, 0.0);
        std::vector<Expansion> result(shifts.size(), blank);
        for (std::size_t j = 0; j < shifts.size(); ++j) {
            for (std::size_t t = 0; t < terms; ++t) {
                result[j].coefficients[position[t]] = SumOfLanes(sums[j * terms + t].lanes);
            }
        }
        return result;
    });
}

double Expansion::SelfOverlap() const {
    const std::vector<double> K = QVHermiteMath::computeKs(order);
    double sum = 0.0;
    std::size_t index = 0;
    for (unsigned int s = 0; s <= order; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m, ++index) {
                const double c = coefficients[index];
                sum += c * c * K[l] * K[m] * K[s - l - m];
            }
        }
    }
    return (1.0 / (lambda[0] * lambda[1] * lambda[2])) * sum;
}

/// The tables of an evaluation (see FastOverlap::MakePlan) and the steps that read only them.
struct FastOverlap::Plan {
    /// One term of a ladder operator: `factor` times the coefficient at `source`.
    struct LadderTerm {
        unsigned int source = 0;
        double factor = 0.0;
    };

    Plan(unsigned int referenceOrder, const double* referenceLambda, unsigned int fitOrder,
         const double* fitLambda);
    void BuildLadders();

    void BuildS(double theta, double* S) const;
    void RotatePass(const double* S, const double* in, double* out) const;
    void BuildF(double shift, unsigned int rows, double* F) const;
    void StageZ(unsigned int order, const double* Fz, const double* fit, double* Tz) const;
    void StageY(unsigned int order, const double* Fy, const double* Tz, double* Ty) const;
    void StageX(unsigned int order, const double* Fx, const double* Ty, double* B) const;
    double Contract(const double* A, const double* B) const;

    unsigned int Nr;
    unsigned int Nf;
    double referenceVolume;
    double fitLambda[3];
    std::vector<double> roots;            // sqrt(k) for the S-matrix recurrences
    std::vector<double> inverseRoots;     // 1 / sqrt(k) (0 for k = 0)
    std::vector<double> K;                // K_0..K_(Nr+1)
    std::vector<double> kProduct;         // K_l K_m K_n per reference coefficient
    std::vector<unsigned int> lOf;        // l of each reference coefficient (lmn order)
    std::vector<unsigned int> mOf;        // m of each reference coefficient
    std::vector<unsigned int> nOf;        // n of each reference coefficient
    std::vector<double> passFactor;       // per pass term: sqrt(K_(D-v) K_v / (K_t K_u))
    std::vector<unsigned int> passIn;     // per pass term: position of (v, D - v, w)
    std::vector<unsigned int> passTerms;  // per output position (pass order): number of terms
    std::vector<unsigned int> passOut;    // per output (pass order): position of (w, t, u)
    std::vector<unsigned int> passRow;    // per output (pass order): offset of row S[D][t]
    std::vector<unsigned int> fitColumn;  // position of fit (l', m', n'), n' fastest
    unsigned int fRowLength;              // columns stored per F row
    /// Per reference coefficient, two terms each: the generators of rotations about x, y and z
    /// (`turn[k]`) and the derivatives along x, y and z of the translated fit (`shift[k]`, into
    /// B one degree deeper, the fit's lambda included).
    std::vector<LadderTerm> turn[3];
    std::vector<LadderTerm> shift[3];
};

FastOverlap::Plan::Plan(unsigned int referenceOrder, const double* referenceLambda,
                        unsigned int fitOrder, const double* fitLambda)
    : Nr(referenceOrder),
      Nf(fitOrder),
      referenceVolume(referenceLambda[0] * referenceLambda[1] * referenceLambda[2]),
      fitLambda{fitLambda[0], fitLambda[1], fitLambda[2]},
      K(QVHermiteMath::computeKs(referenceOrder + 1)),
      fRowLength(referenceOrder + fitOrder + 2) {
    // Square roots of the small integers the S-matrix recurrences use, (N + 2)^2 at most.
    for (unsigned int k = 0; k <= (Nr + 2) * (Nr + 2); ++k) {
        roots.push_back(std::sqrt(static_cast<double>(k)));
        inverseRoots.push_back(k > 0 ? 1.0 / roots.back() : 0.0);
    }
    for (unsigned int s = 0; s <= Nr; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m) {
                lOf.push_back(l);
                mOf.push_back(m);
                nOf.push_back(s - l - m);
                kProduct.push_back(K[l] * K[m] * K[s - l - m]);
            }
        }
    }
    // Positions of the fit coefficients (l', m', n'), n' fastest, for the z stage.
    fitColumn.assign(static_cast<std::size_t>(Nf + 1) * (Nf + 1) * (Nf + 1), 0);
    for (unsigned int lf = 0; lf <= Nf; ++lf) {
        for (unsigned int mf = 0; mf <= Nf - lf; ++mf) {
            for (unsigned int nf = 0; nf <= Nf - lf - mf; ++nf) {
                fitColumn[(lf * (Nf + 1) + mf) * (Nf + 1) + nf] = GetLmnIndex(lf, mf, nf);
            }
        }
    }
    // The rotation pass, unrolled into flat tables in the order in which it is evaluated.
    for (unsigned int k = 0; k <= Nr; ++k) {
        for (unsigned int t = 0; t <= k; ++t) {
            for (unsigned int u = 0; u <= k - t; ++u) {
                const unsigned int w = k - t - u;
                const unsigned int D = t + u;
                const double normTU = K[t] * K[u];
                passOut.push_back(GetLmnIndex(w, t, u));
                passRow.push_back(static_cast<unsigned int>(SOffset(D) + t * (D + 1)));
                passTerms.push_back(D + 1);
                for (unsigned int v = 0; v <= D; ++v) {
                    passFactor.push_back(std::sqrt((K[D - v] * K[v]) / normTU));
                    passIn.push_back(GetLmnIndex(v, D - v, w));
                }
            }
        }
    }
    BuildLadders();
}

void FastOverlap::Plan::BuildLadders() {
    // A rotation about axis k turns the indices of the two other axes (p, q) = (k + 1, k + 2)
    // into each other within their total D: the generator takes the coefficient of (t, D - t)
    // in those two places from (t + 1, D - t - 1) and (t - 1, D - t + 1) — the recurrence of
    // the S matrices' derivative, dS/dtheta = L S, carried through the normalisation of the
    // rotation passes.
    for (unsigned int k = 0; k < 3; ++k) {
        const unsigned int p = (k + 1) % 3, q = (k + 2) % 3;
        for (std::size_t i = 0; i < kProduct.size(); ++i) {
            const unsigned int index[3] = {lOf[i], mOf[i], nOf[i]};
            const unsigned int t = index[p], D = index[p] + index[q];
            LadderTerm up, down;
            if (t + 1 <= D) {
                unsigned int from[3] = {index[0], index[1], index[2]};
                ++from[p];
                --from[q];
                up = {GetLmnIndex(from[0], from[1], from[2]),
                      std::sqrt((t + 1.0) * (D - t)) *
                          std::sqrt(K[t + 1] * K[D - t - 1] / (K[t] * K[D - t]))};
            }
            if (t >= 1) {
                unsigned int from[3] = {index[0], index[1], index[2]};
                --from[p];
                ++from[q];
                down = {GetLmnIndex(from[0], from[1], from[2]),
                        -std::sqrt(t * (D - t + 1.0)) *
                            std::sqrt(K[t - 1] * K[D - t + 1] / (K[t] * K[D - t]))};
            }
            turn[k].push_back(up);
            turn[k].push_back(down);
        }
    }
    // Moving the fit by dt along an axis changes the translated coefficient of degree l along
    // it by lambda (B_(l-1) / 2 - (l + 1) B_(l+1)) dt, lambda the fit's on that axis: the
    // derivative of a Hermite function is a sum of its neighbours in degree.
    for (unsigned int axis = 0; axis < 3; ++axis) {
        const double lambda = fitLambda[axis];
        for (std::size_t i = 0; i < kProduct.size(); ++i) {
            const unsigned int index[3] = {lOf[i], mOf[i], nOf[i]};
            const unsigned int l = index[axis];
            unsigned int above[3] = {index[0], index[1], index[2]};
            ++above[axis];
            shift[axis].push_back(
                {GetLmnIndex(above[0], above[1], above[2]), -lambda * static_cast<double>(l + 1)});
            LadderTerm down;
            if (l >= 1) {
                unsigned int below[3] = {index[0], index[1], index[2]};
                --below[axis];
                down = {GetLmnIndex(below[0], below[1], below[2]), 0.5 * lambda};
            }
            shift[axis].push_back(down);
        }
    }
}

std::shared_ptr<const FastOverlap::Plan> FastOverlap::MakePlan(unsigned int referenceOrder,
                                                               const double* referenceLambda,
                                                               unsigned int fitOrder,
                                                               const double* fitLambda) {
    return std::make_shared<const Plan>(referenceOrder, referenceLambda, fitOrder, fitLambda);
}

FastOverlap::FastOverlap(const Expansion& reference, const Expansion& fit)
    : FastOverlap(MakePlan(reference.order, reference.lambda, fit.order, fit.lambda),
                  reference.coefficients, fit.coefficients) {}

FastOverlap::FastOverlap(std::shared_ptr<const Plan> plan, std::vector<double> reference,
                         std::vector<double> fit)
    : plan_(std::move(plan)), reference_(std::move(reference)), fit_(std::move(fit)) {
    const unsigned int Nr = plan_->Nr, Nf = plan_->Nf;
    // Translations are taken one degree deeper than the reference for the gradient.
    const unsigned int deep = Nr + 1;
    for (unsigned int axis = 0; axis < 3; ++axis) {
        S_[axis].assign(SOffset(Nr + 1), 0.0);
        F_[axis].assign(static_cast<std::size_t>(deep + 1) * plan_->fRowLength, 0.0);
    }
    const std::size_t count = CoefficientCount(Nr);
    Z_.assign(count, 0.0);
    YZ_.assign(count, 0.0);
    A_.assign(count, 0.0);
    B_.assign(CoefficientCount(deep), 0.0);
    Tz_.assign(static_cast<std::size_t>(deep + 1) * (Nf + 1) * (Nf + 1), 0.0);
    Ty_.assign(static_cast<std::size_t>(deep + 1) * (deep + 1) * (Nf + 1), 0.0);
}

FastOverlap::~FastOverlap() = default;

void FastOverlap::SetFitCoefficients(const std::vector<double>& coefficients) {
    fit_ = coefficients;
}

// ---------------------------------------------------------------------------------------------
// S matrices: the recurrence of QVHermiteMath::BuildSMatrix on flat storage, its divisions by
// square roots taken as multiplications by their reciprocals (a few ulps apart).

void FastOverlap::Plan::BuildS(double theta, double* S) const {
    double s, c;
    ::sincos(theta, &s, &c);
    S[0] = 1.0;
    double cn = c;
    for (unsigned int j = 0; j < Nr; ++j) {
        const double* P = &S[SOffset(j)];
        const unsigned int pn = j + 1;  // row length of P
        const unsigned int n = j + 1;
        double* M = &S[SOffset(n)];
        const unsigned int mn = n + 1;  // row length of M
        for (unsigned int i = 0; i <= j; ++i) {
            M[0 * mn + i] = P[0 * pn + i] * (c * roots[n]) * inverseRoots[n - i];
            M[i * mn + 0] = P[i * pn + 0] * (c * roots[n]) * inverseRoots[n - i];
        }
        for (unsigned int r = 1; r <= j; ++r) {
            for (unsigned int q = 1; q <= j; ++q) {
                M[q * mn + r] =
                    (P[q * pn + r - 1] * roots[r] * s + P[q * pn + r] * roots[n - r] * c) *
                    inverseRoots[n - q];
            }
        }
        M[n * mn + 0] = -(P[j * pn + 0] * s);
        M[0 * mn + n] = s * P[0 * pn + j];
        for (unsigned int k = 0; k < j; ++k) {
            M[n * mn + k + 1] =
                (P[j * pn + k] * roots[k + 1] * c - P[j * pn + k + 1] * roots[j - k] * s) *
                inverseRoots[n];
            M[(k + 1) * mn + n] =
                (roots[k + 1] * c * P[k * pn + j] + roots[j - k] * s * P[(k + 1) * pn + j]) *
                inverseRoots[n];
        }
        M[n * mn + n] = cn;
        cn = cn * c;
    }
}

void FastOverlap::Plan::RotatePass(const double* S, const double* in, double* out) const {
    const double* factor = passFactor.data();
    const unsigned int* source = passIn.data();
    for (std::size_t o = 0; o < passOut.size(); ++o) {
        const double* row = &S[passRow[o]];
        const unsigned int terms = passTerms[o];
        double sum = 0.0;
        for (unsigned int v = 0; v < terms; ++v) {
            sum += factor[v] * in[source[v]] * row[v];
        }
        factor += terms;
        source += terms;
        out[passOut[o]] = sum;
    }
}

// ---------------------------------------------------------------------------------------------
// F tables: the recurrence of QVHermiteMath::BuildFMatrix with R = Nr + 1, Q = Nf + 2, rows of
// fixed stride; rows 0..`rows`.

void FastOverlap::Plan::BuildF(double x, unsigned int rows, double* F) const {
    const long L = static_cast<long>(Nr) + static_cast<long>(Nf) + 1;
    const std::size_t stride = fRowLength;
    F[0] = std::exp(-x * 0.25 * x) * 1.7724538509055159;
    for (long c = 1; c <= L; ++c) {
        F[c] = x * F[c - 1];
    }
    for (long r = 1; r <= static_cast<long>(rows); ++r) {
        double* row = F + r * stride;
        const double* above = row - stride;
        row[0] = -x * above[0];
        for (long c = 1; c <= L - r; ++c) {
            row[c] = 2.0 * static_cast<double>(c) * above[c - 1] - above[c + 1];
            if (r >= 2) {
                row[c] += 2.0 * static_cast<double>(r - 1) * (above - stride)[c];
            }
        }
    }
}

// ---------------------------------------------------------------------------------------------
// The separable translation of the fit coefficients onto the reference basis, to degree `order`
// (the reference order, or one more for the gradient).

void FastOverlap::Plan::StageZ(unsigned int order, const double* Fz, const double* fit,
                               double* Tz) const {
    const unsigned int pairs = (Nf + 1) * (Nf + 1);
    for (unsigned int n = 0; n <= order; ++n) {
        const double* row = &Fz[n * fRowLength];
        for (unsigned int lf = 0; lf <= Nf; ++lf) {
            for (unsigned int mf = 0; mf <= Nf - lf; ++mf) {
                double sum = 0.0;
                const unsigned int* position = &fitColumn[(lf * (Nf + 1) + mf) * (Nf + 1)];
                for (unsigned int nf = 0; nf <= Nf - lf - mf; ++nf) {
                    sum += row[nf] * fit[position[nf]];
                }
                Tz[n * pairs + lf * (Nf + 1) + mf] = sum / K[n];
            }
        }
    }
}

void FastOverlap::Plan::StageY(unsigned int order, const double* Fy, const double* Tz,
                               double* Ty) const {
    const unsigned int pairs = (Nf + 1) * (Nf + 1);
    const unsigned int stride = Nr + 2;  // rows of Ty, enough for either depth
    for (unsigned int m = 0; m <= order; ++m) {
        const double* row = &Fy[m * fRowLength];
        for (unsigned int n = 0; n <= order - m; ++n) {
            for (unsigned int lf = 0; lf <= Nf; ++lf) {
                const double* tz = &Tz[n * pairs + lf * (Nf + 1)];
                double sum = 0.0;
                for (unsigned int mf = 0; mf <= Nf - lf; ++mf) {
                    sum += row[mf] * tz[mf];
                }
                Ty[(m * stride + n) * (Nf + 1) + lf] = sum / K[m];
            }
        }
    }
}

void FastOverlap::Plan::StageX(unsigned int order, const double* Fx, const double* Ty,
                               double* B) const {
    const unsigned int stride = Nr + 2;
    std::size_t index = 0;
    for (unsigned int s = 0; s <= order; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            const double* row = &Fx[l * fRowLength];
            for (unsigned int m = 0; m <= s - l; ++m, ++index) {
                const unsigned int n = s - l - m;
                const double* ty = &Ty[(m * stride + n) * (Nf + 1)];
                double sum = 0.0;
                for (unsigned int lf = 0; lf <= Nf; ++lf) {
                    sum += row[lf] * ty[lf];
                }
                B[index] = sum / K[l];
            }
        }
    }
}

double FastOverlap::Plan::Contract(const double* A, const double* B) const {
    double S = 0.0;
    for (std::size_t i = 0; i < kProduct.size(); ++i) {
        S += A[i] * B[i] * K[lOf[i]] * K[mOf[i]] * K[nOf[i]];
    }
    return S;
}

// ---------------------------------------------------------------------------------------------
// Evaluation.

void FastOverlap::RotateAndTranslate(const double* x, unsigned int order) {
    const Plan& plan = *plan_;
    for (unsigned int axis = 0; axis < 3; ++axis) {
        plan.BuildS(x[axis], S_[axis].data());
        plan.BuildF(-(plan.fitLambda[axis] * x[3 + axis]), order, F_[axis].data());
    }
    // Rotation: passes about z, y, x.
    plan.RotatePass(S_[2].data(), reference_.data(), Z_.data());
    plan.RotatePass(S_[1].data(), Z_.data(), YZ_.data());
    plan.RotatePass(S_[0].data(), YZ_.data(), A_.data());
    // Translation: stages z, y, x.
    plan.StageZ(order, F_[2].data(), fit_.data(), Tz_.data());
    plan.StageY(order, F_[1].data(), Tz_.data(), Ty_.data());
    plan.StageX(order, F_[0].data(), Ty_.data(), B_.data());
}

double FastOverlap::operator()(const double* x) {
    RotateAndTranslate(x, plan_->Nr);
    return -(plan_->Contract(A_.data(), B_.data()) / plan_->referenceVolume);
}

double FastOverlap::operator()(const double* x, double* gradient) {
    const Plan& plan = *plan_;
    RotateAndTranslate(x, plan.Nr + 1);
    // The first coefficients of the deeper B are those of B at the reference order, to the bit.
    const double* A = A_.data();
    const double* B = B_.data();
    const auto ladder = [](const std::vector<Plan::LadderTerm>& terms, std::size_t i,
                           const double* v) {
        const Plan::LadderTerm& up = terms[2 * i];
        const Plan::LadderTerm& down = terms[2 * i + 1];
        return up.factor * v[up.source] + down.factor * v[down.source];
    };
    double S = 0.0;
    double turn[3] = {0.0, 0.0, 0.0};   // <generator k of A, B> about x, y, z
    double shift[3] = {0.0, 0.0, 0.0};  // <A, dB/dt> along x, y, z
    for (std::size_t i = 0; i < plan.kProduct.size(); ++i) {
        const double w = plan.kProduct[i];
        S += A[i] * B[i] * w;
        for (int k = 0; k < 3; ++k) {
            turn[k] += B[i] * ladder(plan.turn[k], i, A) * w;
            shift[k] += A[i] * ladder(plan.shift[k], i, B) * w;
        }
    }
    // R = Rx(a) Ry(b) Rz(c): dR/da, dR/db and dR/dc are R followed by infinitesimal turns about
    // x, Rx(a) y = (0, cos a, sin a) and Rx(a) Ry(b) z = (sin b, -sin a cos b, cos a cos b).
    double sa, ca, sb, cb;
    ::sincos(x[0], &sa, &ca);
    ::sincos(x[1], &sb, &cb);
    const double g[6] = {turn[0],
                         ca * turn[1] + sa * turn[2],
                         sb * turn[0] - sa * cb * turn[1] + ca * cb * turn[2],
                         shift[0],
                         shift[1],
                         shift[2]};
    const double inverseVolume = 1.0 / plan.referenceVolume;
    for (unsigned int k = 0; k < 6; ++k) {
        gradient[k] = -(g[k] * inverseVolume);
    }
    return -(S / plan.referenceVolume);
}

}  // namespace hermite::overlay
