#include "overlay/overlay.h"

#include <Eigen/Dense>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <optional>
#include <string>

#include "overlay/exact_overlap.h"
#include "overlay/fast_overlap.h"
#include "overlay/joint_overlap.h"
#include "overlay/newton_step.h"
#include "overlay/overlap_field.h"
#include "overlay/pair_overlap.h"

namespace hermite::overlay {

using QVChem::QVMol;
using QVChem::QVTrans;
using QVSystem::QVGaussian;

namespace {

constexpr double kPi = 3.141592653589793;

/// The rigid transform into the principal frame of a density: its exact centroid to the origin,
/// the eigenvectors of its exact second-moment tensor, largest moment first, onto x, y, z, with
/// a right-handed frame. For a Gaussian w exp(-a |r - p|^2) of mass W = w (pi / a)^(3/2), the
/// density's moments are sums over Gaussians of W p (first) and W (p p' + I / (2a)) (second).
QVTrans PrincipalFrame(const std::vector<QVGaussian>& gaussians) {
    // The masses W; atoms share exponents, so the power is taken once per run of one exponent.
    std::vector<double> masses(gaussians.size());
    float exponent = NAN;
    double power = 0.0;
    for (std::size_t i = 0; i < gaussians.size(); ++i) {
        if (!(gaussians[i].GetExponent() == exponent)) {
            exponent = gaussians[i].GetExponent();
            power = std::pow(kPi / exponent, 1.5);
        }
        masses[i] = gaussians[i].GetPrefactor() * power;
    }
    Eigen::Vector3d centroid = Eigen::Vector3d::Zero();
    double mass = 0.0;
    for (std::size_t i = 0; i < gaussians.size(); ++i) {
        const QVGaussian& g = gaussians[i];
        centroid += masses[i] * Eigen::Vector3d(g.GetX(), g.GetY(), g.GetZ());
        mass += masses[i];
    }
    centroid /= mass;
    Eigen::Matrix3d tensor = Eigen::Matrix3d::Zero();
    for (std::size_t i = 0; i < gaussians.size(); ++i) {
        const QVGaussian& g = gaussians[i];
        const double W = masses[i];
        const Eigen::Vector3d d = Eigen::Vector3d(g.GetX(), g.GetY(), g.GetZ()) - centroid;
        tensor += W * (d * d.transpose() + Eigen::Matrix3d::Identity() / (2.0 * g.GetExponent()));
    }
    const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> solver(tensor);
    Eigen::Matrix3d axes;  // rows: eigenvectors, largest eigenvalue first
    for (int k = 0; k < 3; ++k) {
        axes.row(k) = solver.eigenvectors().col(2 - k).transpose();
    }
    if (axes.determinant() < 0.0) {
        axes.row(2) = -axes.row(2);
    }
    const Eigen::Vector3d shift = -(axes * centroid);
    double rotation[9];
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            rotation[3 * i + j] = axes(i, j);
        }
    }
    const double translation[3] = {shift(0), shift(1), shift(2)};
    return QVTrans(rotation, translation);
}

double SquaredDistance(const std::array<double, 3>& a, const std::array<double, 3>& b) {
    return (a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) +
           (a[2] - b[2]) * (a[2] - b[2]);
}

double Distance(const std::array<double, 3>& a, const std::array<double, 3>& b) {
    return std::sqrt(SquaredDistance(a, b));
}

/// A 3 x 3 row-major rotation as a transform.
QVTrans Rotation(const double* R) {
    const double zero[3] = {0.0, 0.0, 0.0};
    return QVTrans(R, zero);
}

double Tanimoto(double ab, double aa, double bb) {
    return ab / (aa + bb - ab);
}

/// A pose of the fit (fit frame to query frame) with its Hermite and exact overlaps, and, once
/// the exact overlap has been taken there, its gradient and Hessian (unscaled; see Refine).
struct Candidate {
    QVTrans pose;
    double hermiteOverlap;
    double exactOverlap;
    bool curvatureKnown = false;
    Vector6 gradient = Vector6::Zero();
    Matrix6 hessian = Matrix6::Zero();
    /// The exact overlap a Newton step is expected to reach (see NewtonPrediction), when known.
    double predicted = INFINITY;
    /// That Newton step, in the refinement's scaled variables (see NewtonAscent), when the
    /// curvature is known: the refinement's first step.
    Vector6 newtonStep = Vector6::Zero();
};

/// The pose p -> R^T (U p + t) of a Hermite optimum x = (angles, t) reached from the start
/// rotation U: the objective turns the query by R = Rx Ry Rz and moves the turned fit by t.
QVTrans HermitePose(const RotationMatrix& U, const double* x) {
    const std::vector<double> R = QVHermiteMath::RotFromEulerXYZ(x[0], x[1], x[2]);
    const double Rt[9] = {R[0], R[3], R[6], R[1], R[4], R[7], R[2], R[5], R[8]};
    const double t[3] = {x[3], x[4], x[5]};
    double Rtt[3];
    for (int i = 0; i < 3; ++i) {
        Rtt[i] = Rt[3 * i] * t[0] + Rt[3 * i + 1] * t[1] + Rt[3 * i + 2] * t[2];
    }
    return Rotation(U.data()).Then(QVTrans(Rt, Rtt));
}

/// Forwards value-and-gradient evaluations to an objective and counts them.
class CountingObjective : public QVOpt::QVFunc1 {
public:
    using QVFunc1::operator();
    CountingObjective(QVOpt::QVFunc1& objective, unsigned int& count)
        : objective_(objective), count_(count) {}
    unsigned int NumVar() const override { return objective_.NumVar(); }
    double operator()(const double* x) override { return objective_(x); }
    double operator()(const double* x, double* gradient) override {
        ++count_;
        return objective_(x, gradient);
    }

private:
    QVOpt::QVFunc1& objective_;
    unsigned int& count_;
};

/// An objective of three angles and three translations in scaled variables: the angles are
/// divided by a length R (x_angle = u / R), so that a unit step of any variable moves the atoms
/// of a molecule of radius R by about the same distance. The minimiser's curvature model then
/// starts out far better conditioned, which saves about a third of the evaluations.
class ScaledRigidObjective : public QVOpt::QVFunc1 {
public:
    using QVFunc1::operator();
    ScaledRigidObjective(QVOpt::QVFunc1& objective, double radius)
        : objective_(objective), angleScale_(1.0 / radius) {}
    unsigned int NumVar() const override { return 6; }
    double operator()(const double* u) override {
        double x[6];
        Unscale(u, x);
        return objective_(x);
    }
    double operator()(const double* u, double* gradient) override {
        double x[6];
        Unscale(u, x);
        const double value = objective_(x, gradient);
        for (unsigned int i = 0; i < 3; ++i) {
            gradient[i] *= angleScale_;
        }
        return value;
    }
    /// The unscaled variables x of scaled variables u.
    void Unscale(const double* u, double* x) const {
        for (unsigned int i = 0; i < 6; ++i) {
            x[i] = i < 3 ? u[i] * angleScale_ : u[i];
        }
    }

private:
    QVOpt::QVFunc1& objective_;
    double angleScale_;
};

/// The root-mean-square distance of the centres from their mean, at least 1 (length units).
double Radius(const std::vector<QVGaussian>& gaussians) {
    double mean[3] = {0, 0, 0};
    for (const QVGaussian& g : gaussians) {
        mean[0] += g.GetX();
        mean[1] += g.GetY();
        mean[2] += g.GetZ();
    }
    const double count = static_cast<double>(std::max<std::size_t>(gaussians.size(), 1));
    double sum = 0.0;
    for (const QVGaussian& g : gaussians) {
        const double d[3] = {g.GetX() - mean[0] / count, g.GetY() - mean[1] / count,
                             g.GetZ() - mean[2] / count};
        sum += d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
    }
    return std::max(1.0, std::sqrt(sum / count));
}

/// A start of a local search: an orientation of the fit and a shift of the fit along the axes
/// of its own frame before it is turned (angstrom).
struct SearchStart {
    std::size_t index;  // of the rotation in the scan's set
    RotationMatrix rotation;
    std::array<double, 3> shift;
};

/// The shifts of the fit at which every orientation is scanned: none, and `distance` both ways
/// along the two longest axes of the fit's frame, x and y. Along the thinnest axis a shift
/// hardly ever gives the start a search ends best from: without those two shifts every overlay
/// of CDK2 and FABP4 ended the same, and the means of the other test sets moved by at most
/// 5e-5 (and rose by 0.001 for the 70-atom chains), for 5 to 15 % more overlays a second.
std::vector<std::array<double, 3>> ScanShifts(double distance) {
    std::vector<std::array<double, 3>> shifts = {{0.0, 0.0, 0.0}};
    if (distance > 0.0) {
        for (int axis = 0; axis < 2; ++axis) {
            for (const double sign : {-1.0, 1.0}) {
                std::array<double, 3> shift = {0.0, 0.0, 0.0};
                shift[axis] = sign * distance;
                shifts.push_back(shift);
            }
        }
    }
    return shifts;
}

/// The starts of the local searches: every orientation of the scan at the shift of
/// `ScanShifts(settings.scanShift)` with its largest scanned overlap (the first of equal ones),
/// `scannedAt(j)` giving the overlaps of every orientation with the mover at shift j; every
/// orientation when there are no more than `count`, in its order, else the `count` with the
/// largest overlaps. Centring both molecules on their centroids is right for molecules of
/// about one size and shape; a small molecule often belongs off-centre along a larger one, and
/// the shifts let the scan see where.
template <class ScannedAt>
std::vector<SearchStart> BestStarts(const std::vector<RotationMatrix>& rotations,
                                    ScannedAt scannedAt, unsigned int count,
                                    const Settings& settings) {
    const std::vector<std::array<double, 3>> shifts = ScanShifts(settings.scanShift);
    std::vector<double> best(rotations.size(), -INFINITY);
    std::vector<std::size_t> bestShift(rotations.size(), 0);
    for (std::size_t j = 0; j < shifts.size(); ++j) {
        const std::vector<double> overlaps = scannedAt(j);
        for (std::size_t k = 0; k < rotations.size(); ++k) {
            if (overlaps[k] > best[k]) {
                best[k] = overlaps[k];
                bestShift[k] = j;
            }
        }
    }
    std::vector<std::size_t> chosen(rotations.size());
    std::iota(chosen.begin(), chosen.end(), 0);
    if (rotations.size() > count) {
        chosen = OrientationScan::Largest(best, std::max(1u, count));
    }
    std::vector<SearchStart> starts;
    for (const std::size_t k : chosen) {
        starts.push_back({k, rotations[k], shifts[bestShift[k]]});
    }
    return starts;
}

/// Minimises `objective` (a Hermite objective of the six rigid variables) from every start
/// (orientation U, shift v), after `turnMover(start)` has turned the mover's expansions by U: the
/// search starts with the turned mover moved by U v. Candidates best first, their poses taking
/// the mover's frame to the reference's.
template <class TurnMover>
std::vector<Candidate> SearchFromStarts(QVOpt::QVFunc1& objective, TurnMover turnMover,
                                        const std::vector<SearchStart>& starts, double radius,
                                        const Settings& settings, double tolerance,
                                        unsigned int& evaluations) {
    CountingObjective counting(objective, evaluations);
    ScaledRigidObjective counted(counting, radius);
    QVOpt::QVBFGSOpt minimiser;
    minimiser.SetTolerance(tolerance);
    minimiser.SetIterLimit(settings.iterationLimit);
    std::vector<Candidate> candidates;
    for (const SearchStart& searchStart : starts) {
        const RotationMatrix& U = searchStart.rotation;
        turnMover(searchStart);
        double start[6] = {0, 0, 0, 0, 0, 0};
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) {
                start[3 + i] += U[3 * i + j] * searchStart.shift[j];
            }
        }
        double u[6], x[6];
        const double value = minimiser(counted, nullptr, start, u);
        counted.Unscale(u, x);
        candidates.push_back({HermitePose(U, x), -value, 0.0});
    }
    // Stable: equal overlaps keep the order of the starts.
    std::stable_sort(
        candidates.begin(), candidates.end(),
        [](const Candidate& a, const Candidate& b) { return a.hermiteOverlap > b.hermiteOverlap; });
    return candidates;
}

/// One density of a Hermite search on its two sides: the reference's coefficients, turned by
/// the search's angles about the origin, and the mover's expansion, turned by each start's
/// rotation and moved by the search's translation; with its weight in the objective.
struct SearchDensity {
    std::shared_ptr<const FastOverlap::Plan> plan;
    std::vector<double> reference;
    Expansion mover;
    double weight;
    /// The maps of the scan's rotations for the density's order.
    const TurnMaps* turns;
};

/// Maximises the weighted sum of the Hermite overlaps of `densities` from the `count` starts
/// of `BestStarts` (`scannedAt` as there); candidates best first.
template <class ScannedAt>
std::vector<Candidate> HermiteSearch(const std::vector<SearchDensity>& densities,
                                     const std::vector<RotationMatrix>& rotations,
                                     ScannedAt scannedAt, unsigned int count, double radius,
                                     const Settings& settings, double tolerance,
                                     unsigned int& evaluations) {
    JointOverlap objective;
    for (const SearchDensity& density : densities) {
        objective.AddChannel(density.plan, density.reference, density.mover.coefficients,
                             density.weight);
    }
    const auto turnMover = [&](const SearchStart& start) {
        for (std::size_t c = 0; c < densities.size(); ++c) {
            const TurnMaps& turns = *densities[c].turns;
            objective.TurnFit(c, densities[c].mover.coefficients, turns.turn,
                              turns.Map(start.index));
        }
    };
    return SearchFromStarts(objective, turnMover, BestStarts(rotations, scannedAt, count, settings),
                            radius, settings, tolerance, evaluations);
}

/// The densities the exact refinement overlaps: the shape (channel 0) and the Gaussians of
/// search channel i (channel i + 1). The query's are scaled by each channel's weight, so that
/// the objective is shape overlap + the weighted overlaps of the other channels.
struct ExactChannels {
    std::vector<QVGaussian> gaussians;
    std::vector<unsigned int> channels;
};

ExactChannels ExactChannelsOf(const PreparedMolecule& molecule,
                              const std::vector<SearchChannel>& searchChannels, bool weighted) {
    ExactChannels all{molecule.shape, std::vector<unsigned int>(molecule.shape.size(), 0)};
    for (std::size_t i = 0; i < searchChannels.size(); ++i) {
        const double weight = weighted ? searchChannels[i].weight : 1.0;
        for (const QVGaussian& g : ChannelGaussians(molecule, searchChannels[i])) {
            const float centre[3] = {g.GetX(), g.GetY(), g.GetZ()};
            all.gaussians.emplace_back(static_cast<float>(g.GetPrefactor() * weight),
                                       g.GetExponent(), centre, g.GetTag());
            all.channels.push_back(static_cast<unsigned int>(i + 1));
        }
    }
    return all;
}

/// The Hermite overlap of the query's shape expansion with the fit's shape placed by `pose`.
double HermiteShapeOverlap(const std::shared_ptr<const FastOverlap::Plan>& plan,
                           const Expansion& query, const std::vector<QVGaussian>& fitShape,
                           const QVTrans& pose, double& fitSelfOverlap) {
    const Expansion placed =
        Expansion::Of(MovedGaussians(fitShape, pose), query.order, query.lambda);
    fitSelfOverlap = placed.SelfOverlap();
    FastOverlap objective(plan, query.coefficients, placed.coefficients);
    const double zero[6] = {0, 0, 0, 0, 0, 0};
    return -objective(zero);
}

/// Poses closer than this (RMS displacement of the fit's atoms, angstrom) are the same optimum.
constexpr double kSamePose = 0.5;

/// The spread of a molecule's centres that the distance between two of its poses depends on:
/// their mean c and their second moment about it, M = (1/N) sum (p - c)(p - c)^T.
struct CentreMoments {
    double mean[3] = {0, 0, 0};
    double second[3][3] = {};

    explicit CentreMoments(const std::vector<QVGaussian>& gaussians) {
        const double count = static_cast<double>(std::max<std::size_t>(gaussians.size(), 1));
        for (const QVGaussian& g : gaussians) {
            mean[0] += g.GetX();
            mean[1] += g.GetY();
            mean[2] += g.GetZ();
        }
        for (double& m : mean) {
            m /= count;
        }
        for (const QVGaussian& g : gaussians) {
            const double d[3] = {g.GetX() - mean[0], g.GetY() - mean[1], g.GetZ() - mean[2]};
            for (int i = 0; i < 3; ++i) {
                for (int j = 0; j < 3; ++j) {
                    second[i][j] += d[i] * d[j] / count;
                }
            }
        }
    }
};

/// The RMS distance between the fit's atom centres placed by two poses, from the moments of
/// the centres: with D = R_a - R_b and e = D c + t_a - t_b, the mean of |D (p - c) + e|^2 is
/// trace(D M D^T) + |e|^2 (the cross term vanishes about the mean), two sums of squares.
double PoseDistance(const CentreMoments& fit, const QVTrans& a, const QVTrans& b) {
    double Ra[9], ta[3], Rb[9], tb[3];
    a.Extract(Ra, ta, true);
    b.Extract(Rb, tb, true);
    double sum = 0.0;
    for (int i = 0; i < 3; ++i) {
        const double D[3] = {Ra[3 * i] - Rb[3 * i], Ra[3 * i + 1] - Rb[3 * i + 1],
                             Ra[3 * i + 2] - Rb[3 * i + 2]};
        double e = ta[i] - tb[i];
        for (int j = 0; j < 3; ++j) {
            e += D[j] * fit.mean[j];
            for (int k = 0; k < 3; ++k) {
                sum += D[j] * fit.second[j][k] * D[k];
            }
        }
        sum += e * e;
    }
    return std::sqrt(std::max(sum, 0.0));
}

/// The indices of the first `count` candidates (best first) whose poses differ: local searches
/// from several starts often converge to one optimum, and refining it twice would be wasted.
std::vector<std::size_t> DistinctCandidates(const std::vector<Candidate>& candidates,
                                            std::size_t count, const std::vector<QVGaussian>& fit) {
    const CentreMoments moments(fit);
    std::vector<std::size_t> chosen;
    for (std::size_t i = 0; i < candidates.size() && chosen.size() < count; ++i) {
        const bool repeated = std::any_of(chosen.begin(), chosen.end(), [&](std::size_t j) {
            return PoseDistance(moments, candidates[i].pose, candidates[j].pose) < kSamePose;
        });
        if (!repeated) {
            chosen.push_back(i);
        }
    }
    return chosen;
}

/// The scales of the refinement's variables: angles turn the fit about its own centre and are
/// scaled by its radius, like translations.
Vector6 RefinementScale(double fitRadius) {
    return (Vector6() << 1 / fitRadius, 1 / fitRadius, 1 / fitRadius, 1, 1, 1).finished();
}

/// The exact overlap that one Newton step from a candidate, at most a unit long in the scaled
/// variables, is expected to reach: the quadratic model of its gradient and Hessian at the step
/// `NewtonAscent` takes, which is recorded. Candidates are compared a unit step away (twice
/// that ranked worse: the model of a pose far from its optimum promises too much that far).
double NewtonPrediction(Candidate& candidate, double fitRadius) {
    const Vector6 scale = RefinementScale(fitRadius);
    const Vector6 g = scale.cwiseProduct(candidate.gradient);
    const Matrix6 H = scale.asDiagonal() * candidate.hessian * scale.asDiagonal();
    candidate.newtonStep = NewtonAscent(g, H, 1.0);
    const Vector6& step = candidate.newtonStep;
    return candidate.exactOverlap + g.dot(step) + 0.5 * step.dot(H * step);
}

/// The overlap of `objective` at y = 0 with its gradient and Hessian, from the pair sums or,
/// when `field` is not null, from the field.
double CurvatureOf(const ExactOverlapObjective& objective, const OverlapField* field,
                   double* gradient, double* hessian) {
    return field != nullptr ? objective.Curvature(*field, gradient, hessian)
                            : objective.Curvature(gradient, hessian);
}

/// Keeps the `count` of the distinct candidates `distinct` (indices, best Hermite overlap first)
/// whose exact overlaps are expected to be largest after a Newton step from their Hermite poses
/// (`NewtonPrediction`), in that order. The truncated expansion is a smoothed shape, so the
/// order of its optima is not quite that of the exact overlaps, and a pose that a short step
/// lifts far can beat one that is higher where it starts; one exact evaluation per candidate is
/// cheap against a refinement, and the refinement is then spent on the poses most likely to
/// win. The refinement of a kept pose starts from the gradient and Hessian taken here. With a
/// `field`, the evaluations are taken on it instead of the pair sums (see RefineOnField).
void KeepMostPromising(ExactOverlapObjective& objective, const OverlapField* field,
                       const std::vector<QVGaussian>& fit, double fitRadius,
                       std::vector<Candidate>& candidates, std::vector<std::size_t>& distinct,
                       std::size_t count, unsigned int& evaluations) {
    if (distinct.size() <= count) {
        return;
    }
    for (const std::size_t i : distinct) {
        Candidate& candidate = candidates[i];
        objective.SetMoving(fit, candidate.pose);
        candidate.exactOverlap =
            CurvatureOf(objective, field, candidate.gradient.data(), candidate.hessian.data());
        candidate.curvatureKnown = true;
        ++evaluations;
    }
    // The predictions where the overlap is concave first (a Cholesky factorisation each), then
    // the others (an eigendecomposition each), highest bound first; one whose bound is below the
    // count-th best prediction so far cannot be kept, and is left at -infinity unpredicted.
    const Vector6 scale = RefinementScale(fitRadius);
    std::vector<std::pair<double, std::size_t>> notConcave;  // (bound, index)
    std::vector<double> best;                                // the predictions so far
    for (const std::size_t i : distinct) {
        Candidate& candidate = candidates[i];
        const Matrix6 H = scale.asDiagonal() * candidate.hessian * scale.asDiagonal();
        if (Eigen::LLT<Matrix6>(-H).info() == Eigen::Success) {
            candidate.predicted = NewtonPrediction(candidate, fitRadius);
            best.push_back(candidate.predicted);
        } else {
            notConcave.emplace_back(
                PredictionBound(candidate.exactOverlap, scale.cwiseProduct(candidate.gradient), H),
                i);
        }
    }
    std::stable_sort(notConcave.begin(), notConcave.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    for (const auto& [bound, i] : notConcave) {
        std::sort(best.begin(), best.end(), std::greater<double>());
        if (best.size() >= count && bound < best[count - 1]) {
            candidates[i].predicted = -INFINITY;
            continue;
        }
        candidates[i].predicted = NewtonPrediction(candidates[i], fitRadius);
        best.push_back(candidates[i].predicted);
    }
    // Stable: equal predictions keep the Hermite order.
    std::stable_sort(distinct.begin(), distinct.end(), [&](std::size_t a, std::size_t b) {
        return candidates[a].predicted > candidates[b].predicted;
    });
    distinct.resize(count);
}

/// The smallest relative rise of the overlap a walk on the field tries to take. Near an optimum
/// the field's value steps by 2e-4 to 2e-3 of the overlap from one sample's Taylor expansion to
/// the next, so that a step promising less falls as often as it climbs, and the walk would spend
/// its halvings on the field's error. A bar of 1e-4 took 28 % of the walks' trial steps away on
/// the 70-atom chain and changed the mean Tanimoto by 1e-5; this one, at the low end of the
/// field's steps, makes its overlays 3 % faster again, and over 761 pairs of 60- and 70-atom
/// conformers lowers the mean Tanimoto by 2.5e-5 and no pair's by more than 4e-4 (1e-3: 4 %
/// faster, 1.1e-4 and 1e-3 lower).
constexpr double kFieldResolution = 3e-4;

/// The longest step of a walk on the field after its first (the ranking's), in the scaled
/// variables (about the angstroms the fit's atoms move); walks on the pair sums take unit steps.
/// On the 60- and 70-atom chains most steps are cut to this length: the exact optimum lies
/// several steps from the Hermite one, and the overlap is often not concave on the way. There
/// steps of 2 take a sixth fewer steps than unit steps, with the same mean Tanimoto within 1e-5;
/// steps of 3, or a length doubled after each step that rose as the model promised, save no
/// more. The smaller molecules' walks take few steps either way, and steps of 2 lowered the
/// FABP4 mean by 1.6e-4.
constexpr double kFieldWalkStep = 2.0;

/// Maximises the exact overlap from a candidate's pose by Newton's method, records the refined
/// pose and returns the overlap there as the objective computes it (pairs beyond its cut-off
/// left out). `objective` holds the query and the fit; it is moved to each pose in turn, so
/// that the derivatives are always taken at y = 0. From a Hermite optimum the exact optimum is
/// a few Newton steps away: on CDK2 pairs a refinement takes about 3 evaluations of value,
/// gradient and Hessian, where BFGS took about 9 of value and gradient. A step that does not
/// raise the overlap is halved, at most four times; the search stops when none does, when the
/// largest scaled gradient component is at most `tolerance`, or after `iterations` steps. It
/// also stops, the candidate lost, when the top of the overlap's quadratic model lies within
/// the walk's longest step and below `toBeat`, the best overlap refined before (see ModelTopBelow):
/// the rest of the walk would be spent on a pose that is not kept. On CDK2 that saves a sixth
/// of the exact evaluations (9.1 to 7.6 per overlay) and changes the mean Tanimoto by 1e-5.
/// With a `field`, the walk is taken on it instead of the pair sums (see RefineOnField), and
/// also stops where a step, however halved, promises less than kFieldResolution of the overlap.
double Refine(ExactOverlapObjective& objective, const OverlapField* field,
              const std::vector<QVGaussian>& fit, double fitRadius, unsigned int iterations,
              double tolerance, double toBeat, Candidate& candidate, unsigned int& evaluations) {
    // Angles turn the fit about its own centre: scaled by its radius, like translations.
    const Vector6 scale = RefinementScale(fitRadius);
    const auto scaled = [&](Vector6& g, Matrix6& H) {
        g = scale.cwiseProduct(g);
        H = scale.asDiagonal() * H * scale.asDiagonal();
    };
    const auto curvatureAt = [&](const QVTrans& pose, Vector6& g, Matrix6& H) {
        objective.SetMoving(fit, pose);
        ++evaluations;
        const double value = CurvatureOf(objective, field, g.data(), H.data());
        scaled(g, H);
        return value;
    };
    const double longestStep = field != nullptr ? kFieldWalkStep : 1.0;
    QVTrans pose = candidate.pose;
    Vector6 g = candidate.gradient;
    Matrix6 H = candidate.hessian;
    double value = candidate.exactOverlap;
    if (candidate.curvatureKnown) {
        objective.SetMoving(fit, pose);  // Motion turns about its centre
        scaled(g, H);
    } else {
        value = curvatureAt(pose, g, H);
    }
    for (unsigned int iteration = 0; iteration < iterations; ++iteration) {
        if (g.cwiseAbs().maxCoeff() <= tolerance) {
            break;
        }
        if (value < toBeat && ModelTopBelow(g, H, value, toBeat, longestStep)) {
            break;
        }
        // The first step from a ranked candidate was taken by the ranking (the same gradient
        // and Hessian, scaled alike).
        const Vector6 step = iteration == 0 && candidate.curvatureKnown
                                 ? candidate.newtonStep
                                 : NewtonAscent(g, H, longestStep);
        bool climbed = false;
        for (double length = 1.0; length >= 1.0 / 16 && !climbed; length /= 2) {
            if (field != nullptr &&
                ModelGain(g, H, length * step) < kFieldResolution * std::abs(value)) {
                break;  // a rise the field cannot tell from its own error
            }
            const Vector6 y = length * scale.cwiseProduct(step);
            if (length < 1.0) {
                objective.SetMoving(fit, pose);  // Motion turns about its centre
            }
            const QVTrans trial = pose.Then(objective.Motion(y.data()));
            Vector6 trialG;
            Matrix6 trialH;
            const double trialValue = curvatureAt(trial, trialG, trialH);
            if (trialValue > value) {
                climbed = true;
                pose = trial;
                value = trialValue;
                g = trialG;
                H = trialH;
            }
        }
        if (!climbed) {
            break;
        }
    }
    candidate.pose = pose;
    return value;
}

/// Refines the candidates `refined` in turn (see Refine), each after the first given the best
/// overlap refined before, and records their refined overlaps.
void RefineEach(ExactOverlapObjective& objective, const OverlapField* field,
                const std::vector<QVGaussian>& fit, double fitRadius, const Settings& settings,
                double tolerance, const std::vector<std::size_t>& refined,
                std::vector<Candidate>& candidates, unsigned int& evaluations) {
    double best = -INFINITY;
    for (const std::size_t i : refined) {
        candidates[i].exactOverlap =
            Refine(objective, field, fit, fitRadius, settings.refineIterationLimit, tolerance, best,
                   candidates[i], evaluations);
        best = std::max(best, candidates[i].exactOverlap);
    }
}

/// The candidate of `refined` with the largest refined overlap, the first of equal ones.
std::size_t Best(const std::vector<Candidate>& candidates,
                 const std::vector<std::size_t>& refined) {
    std::size_t winner = refined.front();
    for (const std::size_t i : refined) {
        winner = candidates[i].exactOverlap > candidates[winner].exactOverlap ? i : winner;
    }
    return winner;
}

/// Refines the `count` most promising distinct candidates (see KeepMostPromising) on the exact
/// overlap of the reference's and the mover's densities, the search channels' included, and
/// returns the index of the winner: the largest refined overlap (the refinement's own, pairs
/// beyond its cut-off left out), the first of equal ones. Each refinement after the first is
/// given the best overlap so far, and stops once it cannot reach it (see Refine). With `count`
/// 0, the best Hermite candidate, unrefined.
std::size_t RefineBest(const PreparedMolecule& reference, const PreparedMolecule& mover,
                       const std::vector<SearchChannel>& channels, const Settings& settings,
                       unsigned int count, std::vector<Candidate>& candidates,
                       unsigned int& evaluations) {
    std::vector<std::size_t> refined =
        DistinctCandidates(candidates, count > 0 ? candidates.size() : 1, mover.shape);
    if (count > 0) {
        const ExactChannels fixed = ExactChannelsOf(reference, channels, true);
        const ExactChannels moving = ExactChannelsOf(mover, channels, false);
        ExactOverlapObjective exact(fixed.gaussians, moving.gaussians, fixed.channels,
                                    moving.channels);
        const double moverRadius = Radius(mover.shape);
        KeepMostPromising(exact, nullptr, moving.gaussians, moverRadius, candidates, refined, count,
                          evaluations);
        RefineEach(exact, nullptr, moving.gaussians, moverRadius, settings,
                   settings.refineTolerance * reference.shapeSelfOverlap, refined, candidates,
                   evaluations);
    }
    return Best(candidates, refined);
}

/// RefineBest for a shape-only overlay, with `field` the query's overlap field: the fit moves
/// and the query stays fixed whichever of them the search turned, so that the field, sampled
/// once per query, serves every fit. The most promising candidates are ranked and walked on
/// the field to the refinement's tolerance, and the winner is the pose with the largest overlap
/// on the field; no pair sums are taken. Finishing the winner on the pair sums instead, after
/// shorter walks, gave the same poses more slowly: walking both candidates to the tolerance
/// polishes both, and the query's cells for pair sums are not built per fit. `exchanged` tells
/// that the candidates' poses take the query to the fit (the search turned the fit); they are
/// returned so.
std::size_t RefineOnField(const PreparedMolecule& query, const PreparedMolecule& fit,
                          const OverlapField& field, bool exchanged, const Settings& settings,
                          unsigned int count, std::vector<Candidate>& candidates) {
    const PreparedMolecule& mover = exchanged ? query : fit;
    std::vector<std::size_t> refined =
        DistinctCandidates(candidates, candidates.size(), mover.shape);
    const auto turnAround = [&] {
        if (exchanged) {
            for (const std::size_t i : refined) {
                candidates[i].pose = candidates[i].pose.Inverse();
            }
        }
    };
    turnAround();  // every pose now takes the fit to the query
    // The query enters through the field only: the objective holds no fixed Gaussians, and
    // builds no cells for pair sums.
    ExactOverlapObjective walker({}, fit.shape);
    const double fitRadius = Radius(fit.shape);
    // The search's tolerance is relative to the self-overlap of the molecule it turned, the
    // smaller one.
    const double tolerance =
        settings.refineTolerance * std::min(query.shapeSelfOverlap, fit.shapeSelfOverlap);
    unsigned int fieldEvaluations = 0;
    KeepMostPromising(walker, &field, fit.shape, fitRadius, candidates, refined, count,
                      fieldEvaluations);
    RefineEach(walker, &field, fit.shape, fitRadius, settings, tolerance, refined, candidates,
               fieldEvaluations);
    const std::size_t winner = Best(candidates, refined);
    turnAround();
    return winner;
}

}  // namespace

namespace {

/// The translation that brings the mean atom position of `molecule` to the origin, computed in
/// double precision.
QVTrans ToMeanPosition(const QVMol& molecule) {
    double mean[3] = {0.0, 0.0, 0.0};
    for (const QVChem::QVAtom& atom : molecule) {
        double p[3];
        atom.GetCoords(p);
        for (int k = 0; k < 3; ++k) {
            mean[k] += p[k];
        }
    }
    const double count = std::max(1.0, static_cast<double>(molecule.NumAtoms()));
    const double identity[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const double shift[3] = {-mean[0] / count, -mean[1] / count, -mean[2] / count};
    return QVTrans(identity, shift);
}

/// `molecule` moved by `motion`, in double precision.
QVMol MovedMolecule(const QVMol& molecule, const QVTrans& motion) {
    QVMol moved = molecule;
    TransformMolecule(moved, motion);
    return moved;
}

}  // namespace

QVTrans PrincipalFrameOf(const QVMol& molecule) {
    // Gaussians keep single-precision centres: far from the origin (10^6 angstrom) rounding
    // alone would change the shape, so the molecule is first moved near the origin in double
    // precision.
    const QVTrans toMean = ToMeanPosition(molecule);
    return toMean.Then(
        PrincipalFrame(QVHermiteMath::QVMolToGaussians(MovedMolecule(molecule, toMean))));
}

std::string CloudProblem(const QVMol& molecule, double gap) {
    const unsigned int n = molecule.NumAtoms();
    std::vector<std::array<double, 3>> positions(n);
    for (unsigned int i = 0; i < n; ++i) {
        molecule.GetAtom(i).GetCoords(positions[i].data());
    }
    // In a file's order nearly every atom lies within `gap` of the one before it (bonded
    // neighbours, hydrogens after their heavy atoms), and the others, where a branch or a ring
    // closes, near one a little further back. If each atom is within `gap` of some atom before
    // it, every atom is linked to the first through those before it, and the cloud is whole.
    // The look back is bounded, so that this pass stays linear in the atoms.
    constexpr unsigned int kLookBack = 64;
    const double gapSquared = gap * gap;
    const auto nearOneBefore = [&](unsigned int i) {
        for (unsigned int j = i; j-- > 0 && i - j <= kLookBack;) {
            if (SquaredDistance(positions[j], positions[i]) < gapSquared) {
                return true;
            }
        }
        return false;
    };
    bool chained = true;
    for (unsigned int i = 1; i < n && chained; ++i) {
        chained = nearOneBefore(i);
    }
    if (chained) {
        return "";
    }
    // Else grow one cloud from the first atom through neighbours closer than `gap`. Each atom
    // taken from the frontier is compared only with the atoms not reached yet, so that the work
    // shrinks as the cloud grows (squared distances: no square root per pair).
    std::vector<unsigned int> unreached(n > 0 ? n - 1 : 0);
    std::iota(unreached.begin(), unreached.end(), 1u);
    std::vector<unsigned int> frontier;
    if (n > 0) {
        frontier.push_back(0);
    }
    while (!frontier.empty() && !unreached.empty()) {
        const std::array<double, 3> p = positions[frontier.back()];
        frontier.pop_back();
        std::size_t kept = 0;
        for (const unsigned int j : unreached) {
            if (SquaredDistance(p, positions[j]) < gapSquared) {
                frontier.push_back(j);
            } else {
                unreached[kept++] = j;
            }
        }
        unreached.resize(kept);
    }
    if (unreached.empty()) {
        return "";
    }
    std::vector<bool> reached(n, true);
    for (const unsigned int j : unreached) {
        reached[j] = false;
    }
    double nearest = INFINITY;
    unsigned int outside = 0;
    for (unsigned int j = 0; j < n; ++j) {
        for (unsigned int i = 0; i < n && !reached[j]; ++i) {
            if (reached[i] && Distance(positions[i], positions[j]) < nearest) {
                nearest = Distance(positions[i], positions[j]);
                outside = j;
            }
        }
    }
    char distance[32];
    std::snprintf(distance, sizeof(distance), "%.1f", nearest);
    return "its atoms are not one cloud: " + std::to_string(unreached.size()) + " of " +
           std::to_string(n) + " atoms (atom " + std::to_string(outside + 1) + ") lie " + distance +
           " angstrom from the rest; shapes compare one molecule at a time (split "
           "the record or remove the distant atoms)";
}

PreparedMolecule::PreparedMolecule(const QVMol& molecule, const Settings& settings,
                                   const ColourFeatures& features)
    : PreparedMolecule(molecule, settings, PrincipalFrameOf(molecule), features) {}

namespace {

/// The half-turn about x, y or z that makes the third moments of the atoms of `inFrame`, a
/// molecule in a principal frame, along x and along y not negative; none when they are. The axes of
/// the second moments have no sign of their own: without this, two poses of one molecule could
/// get frames a half-turn apart, the orientation scan would look at the molecule from other
/// directions, and the overlay would depend on the input pose.
std::optional<QVTrans> CanonicalHalfTurn(const QVMol& inFrame) {
    double third[2] = {0.0, 0.0};
    for (const QVChem::QVAtom& atom : inFrame) {
        double p[3];
        atom.GetCoords(p);
        third[0] += p[0] * p[0] * p[0];
        third[1] += p[1] * p[1] * p[1];
    }
    const double sx = third[0] < 0.0 ? -1.0 : 1.0;
    const double sy = third[1] < 0.0 ? -1.0 : 1.0;
    if (sx > 0.0 && sy > 0.0) {
        return std::nullopt;
    }
    const double halfTurn[9] = {sx, 0, 0, 0, sy, 0, 0, 0, sx * sy};
    const double zero[3] = {0.0, 0.0, 0.0};
    return QVTrans(halfTurn, zero);
}

}  // namespace

PreparedMolecule::PreparedMolecule(const QVMol& molecule, const Settings& settings,
                                   const QVTrans& frame, const ColourFeatures& features) {
    // The frame is applied to the double-precision coordinates before the Gaussians (single
    // precision) are made, so that the densities do not depend on where the molecule lay. A
    // half-turn only changes signs, exactly: turning the moved molecule gives the same
    // coordinates as moving it by the turned frame.
    QVMol inFrame = MovedMolecule(molecule, frame);
    toFrame = frame;
    if (const std::optional<QVTrans> halfTurn = CanonicalHalfTurn(inFrame)) {
        toFrame = frame.Then(*halfTurn);
        TransformMolecule(inFrame, *halfTurn);
    }
    shape = QVHermiteMath::QVMolToGaussians(inFrame);
    shapeSelfOverlap = SelfOverlap(shape);
    if (settings.electrostatics) {
        electrostatic =
            QVHermiteMath::QVMolToElectroStaticGaussians(inFrame, settings.electrostaticWidth);
        electrostaticSelfOverlap = SelfOverlap(electrostatic);
    }
    if (settings.colour) {
        ColourFeatures inFrameFeatures = features;
        for (ColourFeature& feature : inFrameFeatures) {
            toFrame.Apply(feature.position);
        }
        colour = ColourGaussians(inFrameFeatures);
        colourSelfOverlap = SelfOverlap(colour, Pairing::SameTag);
    }
}

namespace {

/// The search channel of one density of the query, expanded at order `order` with lambda
/// `lambdaValue`: its expansion, the tables of its Hermite overlaps and its expansions at the
/// scan's shifts, of which its scans of `rotations` are made when first needed.
SearchChannel MakeSearchChannel(SearchChannel::Density density, unsigned int type, double weight,
                                const std::vector<QVGaussian>& gaussians, unsigned int order,
                                double lambdaValue, const Settings& settings,
                                const std::vector<RotationMatrix>& rotations) {
    const double lambda[3] = {lambdaValue, lambdaValue, lambdaValue};
    auto scans = std::make_shared<SearchChannel::Scans>();
    scans->shifted = Expansion::OfShifts(gaussians, order, lambda, ScanShifts(settings.scanShift));
    return {density,
            type,
            weight,
            scans->shifted.front(),
            rotations,
            FastOverlap::MakePlan(order, lambda, order, lambda),
            TurnMapsOf(order, rotations, false),
            std::move(scans)};
}

}  // namespace

const OrientationScan& SearchChannel::Scan() const {
    std::call_once(scans->scanMade,
                   [this] { scans->scan.emplace(scans->shifted.front(), rotations); });
    return *scans->scan;
}

const std::vector<OrientationScan>& SearchChannel::TurnedScans() const {
    std::call_once(scans->turnedMade, [this] {
        scans->turned =
            OrientationScan::Of(scans->shifted, rotations, OrientationScan::Turning::Own);
    });
    return scans->turned;
}

std::vector<QVGaussian> ChannelGaussians(const PreparedMolecule& molecule,
                                         const SearchChannel& channel) {
    switch (channel.density) {
        case SearchChannel::Density::Shape:
            return molecule.shape;
        case SearchChannel::Density::Colour:
            return OfType(molecule.colour, channel.type);
        case SearchChannel::Density::Electrostatic:
            break;
    }
    return molecule.electrostatic;
}

Query::Query(const QVMol& molecule, const Settings& settings, const ColourFeatures& features)
    : settings_(settings), prepared_(molecule, settings, features) {
    const std::vector<RotationMatrix> rotations =
        StartOrientations(settings.scanRotations, settings.extraStarts, settings.seed);
    for (const unsigned int type : TypesOf(prepared_.colour)) {
        channels_.push_back(MakeSearchChannel(SearchChannel::Density::Colour, type,
                                              settings.colourWeight, OfType(prepared_.colour, type),
                                              std::min(settings.colourOrder, settings.order),
                                              settings.lambda, settings, rotations));
    }
    if (settings.electrostatics && settings.electrostaticWeight > 0.0 &&
        !prepared_.electrostatic.empty()) {
        channels_.push_back(MakeSearchChannel(
            SearchChannel::Density::Electrostatic, 0, settings.electrostaticWeight,
            prepared_.electrostatic, settings.order, settings.lambda, settings, rotations));
    }
}

bool Query::SearchedAsLarge(const PreparedMolecule& fit) const {
    return settings_.largeLambda > 0.0 && settings_.largeLambda != settings_.lambda &&
           channels_.empty() &&
           std::min(prepared_.shape.size(), fit.shape.size()) >= settings_.largeLambdaAtoms;
}

const SearchChannel& Query::ShapeChannelFor(const PreparedMolecule& fit) const {
    const bool large = SearchedAsLarge(fit);
    LazyChannel& lazy = large ? *largeShape_ : *shape_;
    std::call_once(lazy.made, [&] {
        lazy.channel.emplace(MakeSearchChannel(
            SearchChannel::Density::Shape, 0, 1.0, prepared_.shape, settings_.order,
            large ? settings_.largeLambda : settings_.lambda, settings_,
            StartOrientations(large ? settings_.largeScanRotations : settings_.scanRotations,
                              settings_.extraStarts, settings_.seed)));
    });
    return *lazy.channel;
}

Result Query::Overlay(const QVMol& molecule, const ColourFeatures& features) const {
    return Overlay(PreparedMolecule(molecule, settings_, features));
}

Result Query::Overlay(const PreparedMolecule& fit) const {
    // The search turns the smaller of the two shapes (by self-overlap; the query when they are
    // equal) about its centre and moves the larger: a small molecule is placed along a large
    // one rather than the other way round, which finds the best poses more often, and the
    // overlay of a pair does not depend on which molecule is the query. With the roles
    // exchanged the query's own scans, made once, give the scanned overlaps.
    const bool exchanged = fit.shapeSelfOverlap < prepared_.shapeSelfOverlap;
    const PreparedMolecule& reference = exchanged ? fit : prepared_;
    const PreparedMolecule& mover = exchanged ? prepared_ : fit;

    // The query's densities that the fit has too, the shape first, with the fit's expansions.
    const SearchChannel& shape = ShapeChannelFor(fit);
    std::vector<const SearchChannel*> channels = {&shape};
    std::vector<std::vector<QVGaussian>> fitGaussians = {fit.shape};
    for (const SearchChannel& channel : channels_) {
        std::vector<QVGaussian> gaussians = ChannelGaussians(fit, channel);
        if (!gaussians.empty()) {
            channels.push_back(&channel);
            fitGaussians.push_back(std::move(gaussians));
        }
    }
    // The fit's expansions: at rest, and when the search turns the fit, also at each of the
    // scan's shifts (else the query's shifted scans serve).
    const std::vector<std::array<double, 3>> shifts =
        exchanged ? std::vector<std::array<double, 3>>{{0.0, 0.0, 0.0}}
                  : ScanShifts(settings_.scanShift);
    std::vector<SearchDensity> densities;
    std::vector<std::vector<Expansion>> fitExpansions;  // per channel, per shift
    for (std::size_t c = 0; c < channels.size(); ++c) {
        const Expansion& query = channels[c]->expansion;
        fitExpansions.push_back(
            Expansion::OfShifts(fitGaussians[c], query.order, query.lambda, shifts));
        const Expansion& own = fitExpansions.back().front();
        densities.push_back({channels[c]->plan, (exchanged ? own : query).coefficients,
                             exchanged ? query : own, channels[c]->weight,
                             channels[c]->turns.get()});
    }
    const auto scannedAt = [&](std::size_t j) {
        std::vector<double> sum(shape.rotations.size(), 0.0);
        for (std::size_t c = 0; c < channels.size(); ++c) {
            const std::vector<double> overlaps =
                exchanged ? channels[c]->TurnedScans()[j].Overlaps(fitExpansions[c].front())
                          : channels[c]->Scan().Overlaps(fitExpansions[c][j]);
            for (std::size_t k = 0; k < sum.size(); ++k) {
                sum[k] += channels[c]->weight * overlaps[k];
            }
        }
        return sum;
    };
    const bool joint = channels.size() > 1;
    const bool colour = std::any_of(channels.begin(), channels.end(), [](const auto* channel) {
        return channel->density == SearchChannel::Density::Colour;
    });

    const bool large = SearchedAsLarge(fit);
    unsigned int searchStarts = large ? settings_.largeSearchStarts : settings_.searchStarts;
    unsigned int refineCount = large ? settings_.largeRefineCandidates : settings_.refineCandidates;
    if (joint) {
        searchStarts = std::min(searchStarts, settings_.colourSearchStarts);
    }
    if (colour) {
        refineCount = std::min(refineCount, settings_.colourRefineCandidates);
    }

    Result result;
    std::vector<Candidate> candidates = HermiteSearch(
        densities, shape.rotations, scannedAt, searchStarts, Radius(reference.shape), settings_,
        settings_.relativeTolerance * reference.shapeSelfOverlap, result.hermiteEvaluations);
    const OverlapField* field = refineCount > 0 ? FieldFor(fit) : nullptr;
    const std::size_t winner =
        field != nullptr
            ? RefineOnField(prepared_, fit, *field, exchanged, settings_, refineCount, candidates)
            : RefineBest(reference, mover, channels_, settings_, refineCount, candidates,
                         result.exactEvaluations);
    // The poses take the mover's frame to the reference's; the scores take the fit's to the
    // query's.
    const auto fitToQuery = [&](const QVTrans& pose) { return exchanged ? pose.Inverse() : pose; };
    const QVTrans pose = fitToQuery(candidates[winner].pose);
    // The Hermite shape overlap at the best Hermite pose (the joint search's overlaps include
    // the other channels).
    double fitHermiteSelfOverlap = fitExpansions.front().front().SelfOverlap();
    const double hermiteOverlap =
        joint ? HermiteShapeOverlap(shape.plan, shape.expansion, fit.shape,
                                    fitToQuery(candidates.front().pose), fitHermiteSelfOverlap)
              : candidates.front().hermiteOverlap;
    const double overlap = PairOverlap(prepared_.shape, MovedGaussians(fit.shape, pose));
    result.transform = fit.toFrame.Then(pose).Then(prepared_.toFrame.Inverse());
    result.scores = ScorePose(fit, pose, overlap, hermiteOverlap, fitHermiteSelfOverlap);
    return result;
}

const OverlapField* Query::FieldFor(const PreparedMolecule& fit) const {
    const double exponent = prepared_.shape.front().GetExponent();
    const bool used =
        settings_.refineFieldSpacing > 0.0 && channels_.empty() &&
        std::min(prepared_.shape.size(), fit.shape.size()) >= settings_.refineFieldAtoms &&
        std::all_of(fit.shape.begin(), fit.shape.end(),
                    [&](const QVGaussian& g) { return g.GetExponent() == exponent; });
    if (!used) {
        return nullptr;
    }
    std::call_once(field_->sampled, [&] {
        constexpr std::size_t kMaxSamples = std::size_t{1} << 20;
        field_->field = OverlapField(prepared_.shape, exponent, settings_.refineFieldSpacing,
                                     ExactOverlapObjective::kCutoff, kMaxSamples);
    });
    return field_->field.Empty() ? nullptr : &field_->field;
}

Result Query::Score(const QVMol& molecule, const ColourFeatures& features) const {
    return Score(PreparedMolecule(molecule, settings_, features));
}

Result Query::Score(const PreparedMolecule& fit) const {
    // The fit as it lies, seen from the query's frame.
    const QVTrans pose = fit.toFrame.Inverse().Then(prepared_.toFrame);
    const SearchChannel& shape = ShapeChannelFor(fit);
    const Expansion& query = shape.expansion;
    const Expansion fitExpansion =
        Expansion::Of(MovedGaussians(fit.shape, pose), query.order, query.lambda);
    FastOverlap objective(shape.plan, query.coefficients, fitExpansion.coefficients);
    const double zero[6] = {0, 0, 0, 0, 0, 0};
    const double hermiteOverlap = -objective(zero);
    const double overlap = PairOverlap(prepared_.shape, MovedGaussians(fit.shape, pose));
    Result result;
    result.scores = ScorePose(fit, pose, overlap, hermiteOverlap, fitExpansion.SelfOverlap());
    return result;
}

Scores ScoresOf(const Overlaps& shape, const Overlaps& hermite,
                const std::optional<Overlaps>& electrostatic,
                const std::optional<Overlaps>& colour) {
    Scores scores;
    scores.overlap = shape.between;
    scores.querySelfOverlap = shape.query;
    scores.fitSelfOverlap = shape.fit;
    scores.shapeTanimoto = Tanimoto(shape.between, shape.query, shape.fit);
    scores.shapeTverskyQuery = shape.between / (0.95 * shape.query + 0.05 * shape.fit);
    scores.shapeTverskyFit = shape.between / (0.05 * shape.query + 0.95 * shape.fit);
    scores.hermiteTanimoto = Tanimoto(hermite.between, hermite.query, hermite.fit);
    if (electrostatic) {
        const auto [between, qq, ff] = *electrostatic;
        // Molecules without charges have no electrostatic density: their similarity is 0.
        scores.electrostaticTanimoto = qq + ff - between > 0.0 ? Tanimoto(between, qq, ff) : 0.0;
        scores.electrostaticCarbo = qq * ff > 0.0 ? between / std::sqrt(qq * ff) : 0.0;
    }
    if (colour) {
        scores.colourOverlap = colour->between;
        const double union_ = colour->query + colour->fit - colour->between;
        // Molecules without features share no colour: their colour similarity is 0.
        scores.colourTanimoto = union_ > 0.0 ? colour->between / union_ : 0.0;
    }
    scores.combo = scores.shapeTanimoto + scores.colourTanimoto;
    scores.electrostaticCombo = scores.shapeTanimoto + scores.electrostaticTanimoto;
    return scores;
}

Scores Query::ScorePose(const PreparedMolecule& fit, const QVTrans& pose, double overlap,
                        double hermiteOverlap, double fitHermiteSelfOverlap) const {
    std::optional<Overlaps> electrostatic;
    if (settings_.electrostatics) {
        electrostatic =
            Overlaps{PairOverlap(prepared_.electrostatic, MovedGaussians(fit.electrostatic, pose)),
                     prepared_.electrostaticSelfOverlap, fit.electrostaticSelfOverlap};
    }
    std::optional<Overlaps> colour;
    if (settings_.colour) {
        colour = Overlaps{ColourOverlap(prepared_.colour, MovedGaussians(fit.colour, pose)),
                          prepared_.colourSelfOverlap, fit.colourSelfOverlap};
    }
    return ScoresOf(
        {overlap, prepared_.shapeSelfOverlap, fit.shapeSelfOverlap},
        {hermiteOverlap, ShapeChannelFor(fit).expansion.SelfOverlap(), fitHermiteSelfOverlap},
        electrostatic, colour);
}

std::optional<Effort> ParseEffort(std::string_view name) {
    if (name == "fast") {
        return Effort::Fast;
    }
    if (name == "default") {
        return Effort::Default;
    }
    if (name == "thorough") {
        return Effort::Thorough;
    }
    return std::nullopt;
}

namespace {

/// The search settings of a preset: order, scanned rotations, local searches (without and with
/// colour), refined poses (without and with colour), and the three of a pair searched as large.
struct SearchPreset {
    unsigned int order;
    unsigned int scanRotations;
    unsigned int searchStarts;
    unsigned int colourSearchStarts;
    unsigned int refineCandidates;
    unsigned int colourRefineCandidates;
    unsigned int largeScanRotations;
    unsigned int largeSearchStarts;
    unsigned int largeRefineCandidates;
};

SearchPreset PresetOf(Effort effort) {
    const Settings defaults;
    switch (effort) {
        case Effort::Fast:
            return {4, 100, 2, 2, 1, 1, 20, 2, 2};
        case Effort::Thorough:
            return {4, 300, 10, 6, 3, 3, 60, 8, 4};
        case Effort::Default:
            break;
    }
    return {defaults.order,
            defaults.scanRotations,
            defaults.searchStarts,
            defaults.colourSearchStarts,
            defaults.refineCandidates,
            defaults.colourRefineCandidates,
            defaults.largeScanRotations,
            defaults.largeSearchStarts,
            defaults.largeRefineCandidates};
}

}  // namespace

Settings WithEffort(Settings settings, Effort effort) {
    const SearchPreset preset = PresetOf(effort);
    settings.order = preset.order;
    settings.scanRotations = preset.scanRotations;
    settings.searchStarts = preset.searchStarts;
    settings.colourSearchStarts = preset.colourSearchStarts;
    settings.refineCandidates = preset.refineCandidates;
    settings.colourRefineCandidates = preset.colourRefineCandidates;
    settings.largeScanRotations = preset.largeScanRotations;
    settings.largeSearchStarts = preset.largeSearchStarts;
    settings.largeRefineCandidates = preset.largeRefineCandidates;
    return settings;
}

std::vector<QVGaussian> MovedGaussians(const std::vector<QVGaussian>& gaussians,
                                       const QVTrans& motion) {
    std::vector<QVGaussian> moved = gaussians;
    for (QVGaussian& g : moved) {
        double p[3] = {g.GetX(), g.GetY(), g.GetZ()};
        motion.Apply(p);
        g.SetX(static_cast<float>(p[0]));
        g.SetY(static_cast<float>(p[1]));
        g.SetZ(static_cast<float>(p[2]));
    }
    return moved;
}

void TransformMolecule(QVMol& molecule, const QVTrans& transform) {
    for (unsigned int i = 0; i < molecule.NumAtoms(); ++i) {
        QVChem::QVAtom& atom = molecule.GetAtom(i);
        double p[3];
        atom.GetCoords(p);
        transform.Apply(p);
        atom.SetCoords(p[0], p[1], p[2]);
    }
}

double Rmsd(const QVMol& a, const QVMol& b) {
    double sum = 0.0;
    for (unsigned int i = 0; i < a.NumAtoms(); ++i) {
        double p[3], q[3];
        a.GetAtom(i).GetCoords(p);
        b.GetAtom(i).GetCoords(q);
        sum += (p[0] - q[0]) * (p[0] - q[0]) + (p[1] - q[1]) * (p[1] - q[1]) +
               (p[2] - q[2]) * (p[2] - q[2]);
    }
    return a.NumAtoms() == 0 ? 0.0 : std::sqrt(sum / a.NumAtoms());
}

}  // namespace hermite::overlay
