#include "overlay/overlay.h"

#include <Eigen/Dense>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <random>
#include <string>

#include "overlay/exact_overlap.h"
#include "overlay/fast_overlap.h"

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
    Eigen::Vector3d centroid = Eigen::Vector3d::Zero();
    double mass = 0.0;
    for (const QVGaussian& g : gaussians) {
        const double W = g.GetPrefactor() * std::pow(kPi / g.GetExponent(), 1.5);
        centroid += W * Eigen::Vector3d(g.GetX(), g.GetY(), g.GetZ());
        mass += W;
    }
    centroid /= mass;
    Eigen::Matrix3d tensor = Eigen::Matrix3d::Zero();
    for (const QVGaussian& g : gaussians) {
        const double W = g.GetPrefactor() * std::pow(kPi / g.GetExponent(), 1.5);
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

double Distance(const std::array<double, 3>& a, const std::array<double, 3>& b) {
    return std::sqrt((a[0] - b[0]) * (a[0] - b[0]) + (a[1] - b[1]) * (a[1] - b[1]) +
                     (a[2] - b[2]) * (a[2] - b[2]));
}

/// Gaussians moved by a rigid transform (computed in double, stored as float).
std::vector<QVGaussian> Moved(const std::vector<QVGaussian>& gaussians, const QVTrans& motion) {
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

/// A 3 x 3 row-major rotation as a transform.
QVTrans Rotation(const double* R) {
    const double zero[3] = {0.0, 0.0, 0.0};
    return QVTrans(R, zero);
}

/// A uniformly distributed random rotation (from a unit quaternion with normally distributed
/// components), drawn from the engine's raw output so that every platform draws the same.
std::vector<double> RandomRotation(std::mt19937_64& engine) {
    const auto uniform = [&engine] {
        return (static_cast<double>(engine() >> 11) + 0.5) / 9007199254740992.0;  // (0, 1)
    };
    double q[4];
    for (int i = 0; i < 4; i += 2) {
        // Box-Muller: two normal deviates from two uniform ones.
        const double radius = std::sqrt(-2.0 * std::log(uniform()));
        const double angle = 2.0 * kPi * uniform();
        q[i] = radius * std::cos(angle);
        q[i + 1] = radius * std::sin(angle);
    }
    const double norm = std::sqrt(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3]);
    const double w = q[0] / norm, x = q[1] / norm, y = q[2] / norm, z = q[3] / norm;
    return {1 - 2 * (y * y + z * z), 2 * (x * y - w * z),     2 * (x * z + w * y),
            2 * (x * y + w * z),     1 - 2 * (x * x + z * z), 2 * (y * z - w * x),
            2 * (x * z - w * y),     2 * (y * z + w * x),     1 - 2 * (x * x + y * y)};
}

/// The starting orientations of the fit: the identity, the three half-turns about the axes,
/// then `extra` random rotations.
std::vector<std::vector<double>> StartRotations(unsigned int extra, std::uint64_t seed) {
    std::vector<std::vector<double>> starts = {
        {1, 0, 0, 0, 1, 0, 0, 0, 1},
        {1, 0, 0, 0, -1, 0, 0, 0, -1},
        {-1, 0, 0, 0, 1, 0, 0, 0, -1},
        {-1, 0, 0, 0, -1, 0, 0, 0, 1},
    };
    std::mt19937_64 engine(seed);
    for (unsigned int i = 0; i < extra; ++i) {
        starts.push_back(RandomRotation(engine));
    }
    return starts;
}

/// The coefficients of the expansion of `gaussians` turned by a rotation R. Half-turns about the
/// axes only change signs: diag(sx, sy, sz) multiplies c_lmn by sx^l sy^m sz^n. Any other
/// rotation is applied to the Gaussians, which are expanded again.
std::vector<double> RotatedCoefficients(const std::vector<QVGaussian>& gaussians,
                                        const Expansion& expansion, const std::vector<double>& R) {
    const bool diagonal =
        R[1] == 0 && R[2] == 0 && R[3] == 0 && R[5] == 0 && R[6] == 0 && R[7] == 0;
    const unsigned int N = expansion.order;
    if (!diagonal) {
        return Expansion::Of(Moved(gaussians, Rotation(R.data())), N, expansion.lambda)
            .coefficients;
    }
    std::vector<double> coefficients = expansion.coefficients;
    std::size_t index = 0;
    for (unsigned int s = 0; s <= N; ++s) {
        for (unsigned int l = 0; l <= s; ++l) {
            for (unsigned int m = 0; m <= s - l; ++m, ++index) {
                const unsigned int n = s - l - m;
                const double sign = (R[0] < 0 && (l & 1u) ? -1.0 : 1.0) *
                                    (R[4] < 0 && (m & 1u) ? -1.0 : 1.0) *
                                    (R[8] < 0 && (n & 1u) ? -1.0 : 1.0);
                coefficients[index] *= sign;
            }
        }
    }
    return coefficients;
}

double Tanimoto(double ab, double aa, double bb) {
    return ab / (aa + bb - ab);
}

/// A pose of the fit (fit frame to query frame) with its Hermite and exact overlaps.
struct Candidate {
    QVTrans pose;
    double hermiteOverlap;
    double exactOverlap;
};

/// The pose p -> R^T (U p + t) of a Hermite optimum x = (angles, t) reached from the start
/// rotation U: the objective turns the query by R = Rx Ry Rz and moves the turned fit by t.
QVTrans HermitePose(const std::vector<double>& U, const double* x) {
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

/// Maximises the Hermite overlap from every start; candidates best first.
std::vector<Candidate> HermiteSearch(const Expansion& query, const Expansion& fit,
                                     const std::vector<QVGaussian>& fitGaussians, double radius,
                                     const Settings& settings, double tolerance,
                                     unsigned int& evaluations) {
    FastOverlap objective(query, fit);
    CountingObjective counting(objective, evaluations);
    ScaledRigidObjective counted(counting, radius);
    QVOpt::QVBFGSOpt minimiser;
    minimiser.SetTolerance(tolerance);
    minimiser.SetIterLimit(settings.iterationLimit);
    std::vector<Candidate> candidates;
    for (const std::vector<double>& U : StartRotations(settings.extraStarts, settings.seed)) {
        objective.SetFitCoefficients(RotatedCoefficients(fitGaussians, fit, U));
        const double start[6] = {0, 0, 0, 0, 0, 0};
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

/// Maximises the exact overlap from a candidate's pose and records the refined pose.
void Refine(const std::vector<QVGaussian>& query, const std::vector<QVGaussian>& fit,
            const Settings& settings, double tolerance, Candidate& candidate,
            unsigned int& evaluations) {
    ExactOverlapObjective objective(query, Moved(fit, candidate.pose));
    CountingObjective counting(objective, evaluations);
    // The angles turn the fit about its own centre: scaled by the fit's radius.
    ScaledRigidObjective counted(counting, Radius(fit));
    QVOpt::QVBFGSOpt minimiser;
    minimiser.SetTolerance(tolerance);
    minimiser.SetIterLimit(settings.refineIterationLimit);
    const double start[6] = {0, 0, 0, 0, 0, 0};
    double u[6], y[6];
    minimiser(counted, nullptr, start, u);
    counted.Unscale(u, y);
    candidate.pose = candidate.pose.Then(objective.Motion(y));
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
    // Grow one cloud from the first atom through neighbours closer than `gap`.
    std::vector<bool> reached(n, false);
    std::vector<unsigned int> frontier = {0};
    reached[0] = n > 0;
    unsigned int count = n > 0 ? 1 : 0;
    while (!frontier.empty()) {
        const unsigned int i = frontier.back();
        frontier.pop_back();
        for (unsigned int j = 0; j < n; ++j) {
            if (!reached[j] && Distance(positions[i], positions[j]) < gap) {
                reached[j] = true;
                ++count;
                frontier.push_back(j);
            }
        }
    }
    if (count == n) {
        return "";
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
    return "its atoms are not one cloud: " + std::to_string(n - count) + " of " +
           std::to_string(n) + " atoms (atom " + std::to_string(outside + 1) + ") lie " + distance +
           " angstrom from the rest; shapes compare one molecule at a time (split "
           "the record or remove the distant atoms)";
}

PreparedMolecule::PreparedMolecule(const QVMol& molecule, const Settings& settings)
    : PreparedMolecule(molecule, settings, PrincipalFrameOf(molecule)) {}

PreparedMolecule::PreparedMolecule(const QVMol& molecule, const Settings& settings,
                                   const QVTrans& frame)
    : toFrame(frame) {
    // The frame is applied to the double-precision coordinates before the Gaussians (single
    // precision) are made, so that the densities do not depend on where the molecule lay.
    const QVMol inFrame = MovedMolecule(molecule, toFrame);
    shape = QVHermiteMath::QVMolToGaussians(inFrame);
    shapeSelfOverlap = QVHermiteMath::GaussianOverlap(shape, shape);
    if (settings.electrostatics) {
        electrostatic =
            QVHermiteMath::QVMolToElectroStaticGaussians(inFrame, settings.electrostaticWidth);
        electrostaticSelfOverlap = QVHermiteMath::GaussianOverlap(electrostatic, electrostatic);
    }
}

Query::Query(const QVMol& molecule, const Settings& settings)
    : settings_(settings), prepared_(molecule, settings) {
    QVHermiteMath::QVHermiteOptions options;
    options.SetNPolyMax(settings.order);
    options.SetUseSingleLambda(true);
    options.SetUseOptimalLambdas(true);
    expansion_.Setup(prepared_.shape, options);
}

Result Query::Overlay(const QVMol& molecule) const {
    return Overlay(PreparedMolecule(molecule, settings_));
}

Result Query::Overlay(const PreparedMolecule& fit) const {
    const Expansion query = Expansion::From(expansion_);
    const Expansion fitExpansion = Expansion::Of(fit.shape, query.order, query.lambda);
    const double tolerance = settings_.relativeTolerance * prepared_.shapeSelfOverlap;

    Result result;
    std::vector<Candidate> candidates =
        HermiteSearch(query, fitExpansion, fit.shape, Radius(prepared_.shape), settings_, tolerance,
                      result.hermiteEvaluations);
    const double hermiteOverlap = candidates.front().hermiteOverlap;
    const std::size_t refined = std::max<std::size_t>(
        1, std::min<std::size_t>(settings_.refineCandidates, candidates.size()));
    for (std::size_t i = 0; i < refined; ++i) {
        if (settings_.refineCandidates > 0) {
            Refine(prepared_.shape, fit.shape, settings_, tolerance, candidates[i],
                   result.exactEvaluations);
        }
        candidates[i].exactOverlap =
            QVHermiteMath::GaussianOverlap(prepared_.shape, Moved(fit.shape, candidates[i].pose));
    }
    const Candidate& best = *std::max_element(
        candidates.begin(), candidates.begin() + refined,
        [](const Candidate& a, const Candidate& b) { return a.exactOverlap < b.exactOverlap; });
    result.transform = fit.toFrame.Then(best.pose).Then(prepared_.toFrame.Inverse());
    result.scores =
        ScorePose(fit, best.pose, best.exactOverlap, hermiteOverlap, fitExpansion.SelfOverlap());
    return result;
}

Result Query::Score(const QVMol& molecule) const {
    return Score(PreparedMolecule(molecule, settings_));
}

Result Query::Score(const PreparedMolecule& fit) const {
    // The fit as it lies, seen from the query's frame.
    const QVTrans pose = fit.toFrame.Inverse().Then(prepared_.toFrame);
    const Expansion query = Expansion::From(expansion_);
    const Expansion fitExpansion = Expansion::Of(Moved(fit.shape, pose), query.order, query.lambda);
    FastOverlap objective(query, fitExpansion);
    const double zero[6] = {0, 0, 0, 0, 0, 0};
    const double hermiteOverlap = -objective(zero);
    const double overlap = QVHermiteMath::GaussianOverlap(prepared_.shape, Moved(fit.shape, pose));
    Result result;
    result.scores = ScorePose(fit, pose, overlap, hermiteOverlap, fitExpansion.SelfOverlap());
    return result;
}

Scores Query::ScorePose(const PreparedMolecule& fit, const QVTrans& pose, double overlap,
                        double hermiteOverlap, double fitHermiteSelfOverlap) const {
    Scores scores;
    scores.overlap = overlap;
    scores.querySelfOverlap = prepared_.shapeSelfOverlap;
    scores.fitSelfOverlap = fit.shapeSelfOverlap;
    scores.shapeTanimoto = Tanimoto(overlap, prepared_.shapeSelfOverlap, fit.shapeSelfOverlap);
    scores.shapeTverskyQuery =
        overlap / (0.95 * prepared_.shapeSelfOverlap + 0.05 * fit.shapeSelfOverlap);
    scores.shapeTverskyFit =
        overlap / (0.05 * prepared_.shapeSelfOverlap + 0.95 * fit.shapeSelfOverlap);
    scores.hermiteTanimoto =
        Tanimoto(hermiteOverlap, expansion_.GetSelfOverlap(), fitHermiteSelfOverlap);
    if (settings_.electrostatics) {
        const double electrostatic =
            QVHermiteMath::GaussianOverlap(prepared_.electrostatic, Moved(fit.electrostatic, pose));
        const double qq = prepared_.electrostaticSelfOverlap;
        const double ff = fit.electrostaticSelfOverlap;
        // Molecules without charges have no electrostatic density: their similarity is 0.
        scores.electrostaticTanimoto =
            qq + ff - electrostatic > 0.0 ? Tanimoto(electrostatic, qq, ff) : 0.0;
        scores.electrostaticCarbo = qq * ff > 0.0 ? electrostatic / std::sqrt(qq * ff) : 0.0;
    }
    scores.combo = scores.shapeTanimoto + scores.electrostaticTanimoto;
    return scores;
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
