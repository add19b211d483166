/// \file
/// The overlay driver: superposes a fit molecule onto a query molecule by shape and scores the
/// result.
///
/// Procedure for one pair:
/// 1. Each molecule is put into its principal frame: the exact centroid of its shape density
///    at the origin and the axes of its exact second-moment tensor (largest moment first,
///    right-handed) along x, y, z. Both are properties of the Gaussian density itself, so the
///    result does not depend on the input poses.
/// 2. Both molecules are expanded in Hermite functions with one lambda (`Settings::lambda`),
///    so that rotations are exact and the overlap consistent.
/// 3. Roles: the search turns the smaller molecule (by shape self-overlap; the query when they
///    are equal) and moves the larger, whichever is the query, so that the overlay of a pair
///    does not depend on which molecule is the query.
/// 4. Orientation scan: the Hermite overlap of the two expansions, centroid on centroid and with
///    the moved molecule shifted by `scanShift` both ways along its two longest axes (x and y
///    of its frame), for it turned by each of the four proper 180-degree flips of its frame
///    (identity and the half-turns about x, y and z), `scanRotations` evenly spread rotations
///    and `extraStarts` random ones (see `OrientationScan`; the query's turned coefficients are
///    made once, for either role).
/// 5. Local search: from the `searchStarts` orientations with the largest scanned overlaps,
///    each at its best shift, the six-variable Hermite overlap (three angles, three
///    translations) is maximised with BFGS.
/// 6. Refinement: the distinct poses (poses within 0.5 angstrom RMS of a better one are the
///    same optimum) are ranked by the exact overlap one Newton step from each is expected to
///    reach, and the best `refineCandidates` of them are refined by Newton's method on the
///    exact analytic overlap of the atom Gaussians (its analytic gradient and Hessian); the
///    best exact overlap wins. A refinement stops early once the overlap is concave and the
///    top of its quadratic model falls short of a pose refined before it.
///
/// With colour (`Settings::colour`), steps 5 and 6 maximise shape overlap + w * colour overlap
/// (w = `colourWeight`): each feature type present in both molecules is one more density,
/// expanded with the shape's lambda and turned and moved with the shape in the Hermite search,
/// and refined with it on the exact overlaps (see overlay/colour.h), with
/// `colourSearchStarts` searches and `colourRefineCandidates` refined poses.
///
/// A pair of large molecules overlaid by shape (both with `largeLambdaAtoms` heavy atoms or
/// more) is expanded with `largeLambda` instead, and searched with its own `largeScanRotations`,
/// `largeSearchStarts` and `largeRefineCandidates`.
///
/// Scores (all at the final pose, from exact analytic overlap integrals unless named Hermite):
/// - shape Tanimoto O_qf / (O_qq + O_ff - O_qf), in [0, 1];
/// - shape Tversky, query-weighted O_qf / (0.95 O_qq + 0.05 O_ff) and fit-weighted
///   O_qf / (0.05 O_qq + 0.95 O_ff);
/// - Hermite shape Tanimoto: the same formula with the overlaps of the truncated expansions at
///   the best Hermite pose (before refinement);
/// - electrostatic Tanimoto E_qf / (E_qq + E_ff - E_qf) and Carbo E_qf / sqrt(E_qq E_ff) of the
///   electrostatic densities (one Gaussian per atom of height proportional to its partial
///   charge), in [-1/3, 1] and [-1, 1];
/// - colour Tanimoto C_qf / (C_qq + C_ff - C_qf) of the colour features (see overlay/colour.h),
///   in [0, 1];
/// - combo = shape Tanimoto + colour Tanimoto (0 to 2), the usual meaning of the word;
/// - electrostatic combo = shape Tanimoto + electrostatic Tanimoto (-1/3 to 2).
///
/// Thread safety: a `Query` is immutable after construction and may be shared by threads; each
/// call of `Overlay` works on its own data.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hermite/hermite.h"
#include "overlay/colour.h"
#include "overlay/fast_overlap.h"
#include "overlay/orientation_scan.h"
#include "overlay/overlap_field.h"

namespace hermite::overlay {

/// Settings of the overlay.
struct Settings {
    /// Order of the Hermite expansions (0 to 100).
    unsigned int order = 4;
    /// The lambda (1/angstrom) of the Hermite functions of every expansion, one for all axes
    /// and all molecules: rotations of the expansions are then exact, and a pair of molecules
    /// is searched with the same functions whichever is the query, so that the overlay of f
    /// onto q is the one of q onto f (see Query::Overlay). Drug-sized molecules are described
    /// about equally well from 0.4 to 0.6; pairs of larger ones take `largeLambda`. (Measured
    /// in docs/overlay.md.)
    double lambda = 0.5;
    /// The lambda for a pair of large molecules, both with `largeLambdaAtoms` heavy atoms or
    /// more, overlaid by shape only; 0 keeps `lambda` for every pair. At a fixed order, wider
    /// functions describe a long molecule's shape better, and its searches end nearer the
    /// exact optimum: at 55 to 70 heavy atoms 0.3 finds poses 0.005 to 0.006 better in mean
    /// shape Tanimoto than 0.5, 5 to 9 % faster. Below 50 atoms it is worse (CDK2 0.0018
    /// lower), hence two lambdas. The choice depends on both molecules alike, so that the
    /// overlay of a pair still does not depend on which is the query.
    double largeLambda = 0.3;
    /// The size, in heavy atoms, from which both molecules of a pair count as large (see
    /// `largeLambda`).
    unsigned int largeLambdaAtoms = 50;
    /// The search of a pair searched at `largeLambda`: evenly spread rotations scanned, local
    /// searches and refined poses, in place of `scanRotations`, `searchStarts` and
    /// `refineCandidates`. The wide functions of the large lambda change slowly with the
    /// orientation, so that a few dozen scanned rotations find the basins that two hundred
    /// find, while the misses of such pairs are right basins ranked below wrong ones before
    /// the refinement, which one more refined pose catches. On three sets of 440 pairs of
    /// molecules of 50 to 80 heavy atoms, 30 rotations, 4 searches and 3 refined poses found
    /// poses 0.0011 better in mean shape Tanimoto than 200, 5 and 2, in less time.
    unsigned int largeScanRotations = 30;
    /// Local searches of a pair searched at `largeLambda` (see `largeScanRotations`).
    unsigned int largeSearchStarts = 4;
    /// Refined poses of a pair searched at `largeLambda` (see `largeScanRotations`).
    unsigned int largeRefineCandidates = 3;
    /// Evenly spread rotations scanned in addition to the four flips of the principal frame.
    unsigned int scanRotations = 200;
    /// Random rotations scanned in addition (seeded by `seed`).
    unsigned int extraStarts = 0;
    /// Every orientation is also scanned with the fit shifted this far (angstrom) both ways along
    /// the two longest axes of its frame (x and y), and the local search from it starts at its
    /// best shift; 0 scans the centred fit only. (Measured in docs/overlay.md.)
    double scanShift = 1.5;
    /// Seed of the random rotations.
    std::uint64_t seed = 42;
    /// Local (BFGS) searches, started from the scanned orientations with the largest Hermite
    /// overlaps; every scanned orientation is started when there are no more than this.
    unsigned int searchStarts = 5;
    /// The same when colour features (or a weighted electrostatic density) join the search, at
    /// most `searchStarts`: the joint search costs a channel per feature type, and two
    /// searches with one refined pose were measured to rank as well (docs/colour.md).
    unsigned int colourSearchStarts = 2;
    /// BFGS gradient tolerance of the Hermite search, relative to the self-overlap of the
    /// molecule the search turns. Loose: the search need only reach the right basin, the exact
    /// refinement finishes the pose (1e-2 gave the gaps of 1e-3 in two thirds of the time).
    double relativeTolerance = 1e-2;
    /// BFGS iteration limit per start.
    unsigned int iterationLimit = 100;
    /// Distinct poses of the local searches refined on the exact overlap, those with the largest
    /// exact overlaps before refinement; the best refined pose is kept (0: the best Hermite
    /// pose, unrefined).
    unsigned int refineCandidates = 2;
    /// The same when colour features join the search, at most `refineCandidates`: the features
    /// set the candidate poses apart, and refining the best joint pose alone ranks as well as
    /// refining two, at three quarters of the time (measured in docs/colour.md).
    unsigned int colourRefineCandidates = 1;
    /// Newton iteration limit of the exact refinement.
    unsigned int refineIterationLimit = 20;
    /// Gradient tolerance of the exact refinement (its largest component, angles scaled by the
    /// moving molecule's radius), relative to the self-overlap of the smaller molecule.
    double refineTolerance = 1e-3;
    /// Molecules of this many atoms or more are refined on the query's overlap field (see
    /// OverlapField) when both are and the overlay is of shapes only: the candidate poses are
    /// ranked and walked on the field, a lookup per atom instead of a sum over its neighbours,
    /// and the winner is the best pose on the field (the scores are still exact). For large
    /// molecules the walk is long and each exact step costly; at 70 heavy atoms a screen runs
    /// 1.7 times as fast with it, with the same poses. Smaller molecules keep the exact walk:
    /// there the field saves less and its poses are slightly worse (docs/overlay.md).
    unsigned int refineFieldAtoms = 50;
    /// Spacing (angstrom) of the overlap field's samples; 0 never refines on a field. The
    /// field is sampled once per query, when a fit first needs it (about 1.9 megabytes and
    /// 0.3 milliseconds at 70 heavy atoms; a query that would need more than 2^20 samples is
    /// refined on the exact pair sums). Against 0.6 angstrom, the samples are a third fewer and
    /// the walks take 5 % more steps: a large query's set-up is a quarter shorter, and the mean
    /// Tanimoto of 1,320 pairs of 50 to 80 heavy atoms moved by +2e-4, within such sets' noise.
    double refineFieldSpacing = 0.7;
    /// Compute electrostatic scores (needs partial charges).
    bool electrostatics = false;
    /// Width w of the electrostatic Gaussians q / (sqrt(2 pi) w) exp(-r^2 / (2 w^2)), angstrom.
    double electrostaticWidth = 1.0;
    /// Optimise and score the colour features too (the molecules' features must be given).
    bool colour = false;
    /// Weight of the colour overlap against the shape overlap in the optimised objective.
    double colourWeight = 3.0;
    /// Order of the Hermite expansions of the colour features in the search (at most `order`):
    /// each feature type costs a channel of the search, and a low order keeps colour screens
    /// fast; the exact refinement then places the features exactly. Chosen by measurement
    /// (docs/colour.md).
    unsigned int colourOrder = 2;
    /// Weight of the electrostatic overlap (signed) against the shape overlap in the optimised
    /// objective, with `electrostatics`; 0 (the default) scores the electrostatics at the pose
    /// the shape (and colour) found, without letting them move it.
    double electrostaticWeight = 0.0;
};

/// How hard the search tries: presets of the settings that trade speed for the best pose
/// (order, scanned rotations, local searches, refined poses). Measured in docs/overlay.md.
enum class Effort { Fast, Default, Thorough };

/// The effort named "fast", "default" or "thorough"; nothing for another name.
std::optional<Effort> ParseEffort(std::string_view name);

/// `settings` with the search settings of `effort`; the others (seed, tolerances,
/// electrostatics) unchanged.
Settings WithEffort(Settings settings, Effort effort);

/// Scores of one overlay; see the file comment for their definitions.
struct Scores {
    double shapeTanimoto = 0.0;
    double shapeTverskyQuery = 0.0;
    double shapeTverskyFit = 0.0;
    double hermiteTanimoto = 0.0;
    double electrostaticTanimoto = 0.0;
    double electrostaticCarbo = 0.0;
    double electrostaticCombo = 0.0;
    double colourTanimoto = 0.0;
    double combo = 0.0;
    double colourOverlap = 0.0;     ///< exact colour overlap C_qf, angstrom^3
    double overlap = 0.0;           ///< exact shape overlap O_qf, angstrom^3
    double querySelfOverlap = 0.0;  ///< O_qq
    double fitSelfOverlap = 0.0;    ///< O_ff
};

/// The overlaps that score one density at one pose (angstrom^3, or the units of the density
/// squared): the query's with the fit's, and each molecule's with itself.
struct Overlaps {
    double between = 0.0;
    double query = 0.0;
    double fit = 0.0;
};

/// The scores made of the overlaps of the shape densities, of the Hermite expansions of the
/// shape, and of the electrostatic and colour densities when they are scored (see the file
/// comment; scores of an absent density are 0). Every score grows with the overlap `between` of
/// its density while the self-overlaps stay, so bounds on the overlaps bound the scores.
Scores ScoresOf(const Overlaps& shape, const Overlaps& hermite,
                const std::optional<Overlaps>& electrostatic,
                const std::optional<Overlaps>& colour);

/// The result of overlaying one fit molecule.
struct Result {
    /// The rigid motion of the fit molecule onto the query, in the input coordinates.
    QVChem::QVTrans transform;
    Scores scores;
    /// Value-and-gradient evaluations of the Hermite objective and of the exact overlap (those
    /// on the query's overlap field, see Settings::refineFieldAtoms, not counted).
    unsigned int hermiteEvaluations = 0;
    unsigned int exactEvaluations = 0;
};

/// The densities of a molecule in its principal frame.
struct PreparedMolecule {
    /// Input coordinates to principal frame.
    QVChem::QVTrans toFrame;
    std::vector<QVSystem::QVGaussian> shape;          ///< in the principal frame
    std::vector<QVSystem::QVGaussian> electrostatic;  ///< in the principal frame (optional)
    /// The colour features' Gaussians in the principal frame, tagged by type (with colour).
    std::vector<QVSystem::QVGaussian> colour;
    double shapeSelfOverlap = 0.0;
    double electrostaticSelfOverlap = 0.0;
    double colourSelfOverlap = 0.0;

    /// The densities of `molecule` (at least one atom) and of its colour `features` (used with
    /// `Settings::colour`) in its principal frame, computed here.
    PreparedMolecule(const QVChem::QVMol& molecule, const Settings& settings,
                     const ColourFeatures& features = {});
    /// The same with a principal frame computed before (by `PrincipalFrameOf` of the same
    /// molecule, for example stored in a prepared library): the results are identical. The
    /// frame is turned by a half-turn about one of its axes when that makes the third moments
    /// of the atoms along x and y positive, so that every pose of a molecule gets one frame.
    PreparedMolecule(const QVChem::QVMol& molecule, const Settings& settings,
                     const QVChem::QVTrans& frame, const ColourFeatures& features = {});
};

/// The rigid transform from input coordinates into the principal frame of the shape density
/// of `molecule` (at least one atom): exact centroid at the origin, the axes of the exact
/// second-moment tensor, largest moment first, along x, y, z, right-handed. Computed from the
/// double-precision coordinates, so that it is as exact 10^6 angstrom from the origin as near it.
QVChem::QVTrans PrincipalFrameOf(const QVChem::QVMol& molecule);

/// Why `molecule` cannot be compared by shape, or empty when it can: its atoms must form one
/// cloud, each reachable from the others through atoms closer than `gap` angstrom. Atoms far
/// from the rest (a stray record, fragments placed apart) would make the principal frame and
/// the expansion describe empty space between them, and the scores would be wrong.
std::string CloudProblem(const QVChem::QVMol& molecule, double gap = 10.0);

/// A density of a prepared query that the search overlays with the fit's density of the same
/// kind, with its weight in the objective: the shape, the colour features of one type, or the
/// electrostatic density. Holds their expansion (the settings' lambda) and its scans of the
/// shape's orientations, with either molecule turned (see Query::Overlay).
///
/// Thread safety: the scans are made when an overlay first needs them (a fit smaller than the
/// query needs only the turned scans, a larger one only the other), once, by whichever thread
/// asks first; copies share them.
struct SearchChannel {
    enum class Density { Shape, Colour, Electrostatic };
    Density density;
    /// The feature type (colour only).
    unsigned int type;
    double weight;
    Expansion expansion;
    /// The rotations scanned: the shape's orientations (see StartOrientations).
    std::vector<RotationMatrix> rotations;
    /// The tables of the channel's Hermite overlaps (both expansions of its order).
    std::shared_ptr<const FastOverlap::Plan> plan;
    /// The maps of the scan's rotations for expansions of the channel's order, which turn the
    /// mover at the start of each local search.
    std::shared_ptr<const TurnMaps> turns;

    /// The overlaps with a fit turned by each rotation.
    const OrientationScan& Scan() const;
    /// The overlaps of the density, shifted to each shift of the scan (ScanShifts order) along
    /// the query's axes and turned by each rotation, with a fit at rest.
    const std::vector<OrientationScan>& TurnedScans() const;

    /// The density's expansions at the scan's shifts (the first at rest), and the scans of
    /// them once made.
    struct Scans {
        std::vector<Expansion> shifted;
        std::once_flag scanMade, turnedMade;
        std::optional<OrientationScan> scan;
        std::vector<OrientationScan> turned;
    };
    std::shared_ptr<Scans> scans;
};

/// The Gaussians of `molecule` that `channel` overlaps: its features of the channel's type, or
/// its electrostatic density.
std::vector<QVSystem::QVGaussian> ChannelGaussians(const PreparedMolecule& molecule,
                                                   const SearchChannel& channel);

/// A query prepared for overlays: frame, densities and expansion.
class Query {
public:
    /// Prepares `molecule` (at least one atom) and its colour `features` with `settings`.
    Query(const QVChem::QVMol& molecule, const Settings& settings,
          const ColourFeatures& features = {});

    /// Overlays `fit` (at least one atom, with its colour `features`) onto the query.
    Result Overlay(const QVChem::QVMol& fit, const ColourFeatures& features = {}) const;
    /// Overlays a fit prepared with the query's settings (the same result as from its molecule).
    Result Overlay(const PreparedMolecule& fit) const;

    /// Scores `fit` (at least one atom, with its colour `features`) in its input pose, without
    /// moving it; the transform of the result is the identity.
    Result Score(const QVChem::QVMol& fit, const ColourFeatures& features = {}) const;
    /// Scores a fit prepared with the query's settings in its input pose.
    Result Score(const PreparedMolecule& fit) const;

    /// The settings the query was prepared with; fits must be prepared with the same.
    const Settings& GetSettings() const { return settings_; }

    /// The query's densities in its principal frame.
    const PreparedMolecule& Prepared() const { return prepared_; }

private:
    /// The scores of a fit pose (fit frame to query frame), given the exact shape overlap at that
    /// pose, the Hermite overlap of the two expansions and the Hermite self-overlap of the fit's
    /// expansion.
    Scores ScorePose(const PreparedMolecule& fit, const QVChem::QVTrans& pose, double overlap,
                     double hermiteOverlap, double fitHermiteSelfOverlap) const;

    Settings settings_;
    PreparedMolecule prepared_;

    /// Whether the query and `fit` are searched as a pair of large molecules: both large, by
    /// shape only, with a `Settings::largeLambda` of its own.
    bool SearchedAsLarge(const PreparedMolecule& fit) const;

    /// The shape's search channel for overlays with `fit`: at `Settings::largeLambda`, with its
    /// own scanned rotations, for a pair searched as large, else at `Settings::lambda`.
    const SearchChannel& ShapeChannelFor(const PreparedMolecule& fit) const;

    /// The densities searched beside the shape: with colour, one per type of the query's
    /// features; the electrostatic density when it has a weight.
    std::vector<SearchChannel> channels_;
    /// The query's overlap field for the refinement of `fit` (see Settings::refineFieldAtoms),
    /// sampled on first use; null when the refinement walks on the exact pair sums.
    const OverlapField* FieldFor(const PreparedMolecule& fit) const;

    /// The overlap field of the query's shape, sampled once by whichever overlay first needs
    /// it; shared by copies of the query.
    struct LazyField {
        std::once_flag sampled;
        OverlapField field;
    };
    std::shared_ptr<LazyField> field_ = std::make_shared<LazyField>();
    /// A search channel of the shape, made once by whichever overlay first needs it; shared by
    /// copies of the query.
    struct LazyChannel {
        std::once_flag made;
        std::optional<SearchChannel> channel;
    };
    /// The shape's channels at `Settings::lambda` and at `Settings::largeLambda`: a query
    /// that meets only large fits never makes the first, nor one that meets none the second.
    std::shared_ptr<LazyChannel> shape_ = std::make_shared<LazyChannel>();
    std::shared_ptr<LazyChannel> largeShape_ = std::make_shared<LazyChannel>();
};

/// The Gaussians with every centre moved by the rigid transform `motion`, computed in double
/// precision from the stored centres and rounded to float; prefactors, exponents and tags kept.
std::vector<QVSystem::QVGaussian> MovedGaussians(const std::vector<QVSystem::QVGaussian>& gaussians,
                                                 const QVChem::QVTrans& motion);

/// Applies a rigid transform to every atom of a molecule.
void TransformMolecule(QVChem::QVMol& molecule, const QVChem::QVTrans& transform);

/// Root-mean-square distance between the atoms of two molecules with the same atom order.
double Rmsd(const QVChem::QVMol& a, const QVChem::QVMol& b);

}  // namespace hermite::overlay
