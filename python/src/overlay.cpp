// hermite.Molecule, the overlay settings, results and the overlay, score and screen functions.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <limits>
#include <optional>
#include <sstream>
#include <thread>

#include "bindings.h"
#include "conversions.h"
#include "gaussians.h"
#include "library_calls.h"
#include "molecule.h"
#include "overlay/overlay.h"
#include "screen/screen.h"

namespace hermite::python {

namespace {

using hermite::overlay::Query;
using hermite::overlay::Result;
using hermite::overlay::Scores;
using hermite::overlay::Settings;
using QVChem::QVMol;

/// The Python class hermite.OverlayResult.
struct OverlayResultObject {
    Result result;
    std::string title;
    std::string queryTitle;
    bool electrostatics = false;
    bool colour = false;
    std::vector<double> aligned;  // the fit's atoms moved by the transform, flat
    /// The 0-based conformer of the fit and of the query of the best pair (screens of
    /// conformer lists); 0 for single molecules.
    std::size_t conformer = 0;
    std::size_t queryConformer = 0;
};

std::string Repr(double value) {
    return py::repr(py::float_(value));
}

// ---------------------------------------------------------------------------------------------
// Molecules

/// The largest feature type: types are the library's unsigned Gaussian tags.
constexpr double kMaxFeatureType = std::numeric_limits<unsigned int>::max();

/// The feature of row `row` of a features argument, (type, x, y, z); ValueError naming `name`
/// for a type that is not an integer in 0..2**32 - 1 or non-finite coordinates.
hermite::overlay::ColourFeature FeatureRow(const double* v, std::size_t row, const char* name) {
    const double type = v[0];
    if (!std::isfinite(type) || type < 0.0 || type > kMaxFeatureType || type != std::floor(type)) {
        throw py::value_error(std::string(name) +
                              ": a type must be an integer in 0..4294967295, got " + Repr(type) +
                              " in row " + std::to_string(row));
    }
    if (!std::isfinite(v[1]) || !std::isfinite(v[2]) || !std::isfinite(v[3])) {
        throw py::value_error(std::string(name) + ": coordinates must be finite, got (" +
                              Repr(v[1]) + ", " + Repr(v[2]) + ", " + Repr(v[3]) + ") in row " +
                              std::to_string(row));
    }
    hermite::overlay::ColourFeature feature;
    feature.type = static_cast<unsigned int>(type);
    std::copy(v + 1, v + 4, feature.position);
    return feature;
}

/// Colour features from an (n, 4) array-like of rows (type, x, y, z); None or an empty
/// sequence for none. ValueError naming `name` for another shape, bad rows (see `FeatureRow`)
/// and coordinates beyond single precision.
hermite::overlay::ColourFeatures ColourFeaturesArgument(py::handle object, const char* name) {
    hermite::overlay::ColourFeatures features;
    if (object.is_none()) {
        return features;
    }
    const auto array = AsDoubleArray(object, name);
    if (array.ndim() == 1 && array.size() == 0) {
        return features;  // an empty list
    }
    if (array.ndim() != 2 || array.shape(1) != 4) {
        throw py::value_error(std::string(name) +
                              " must have shape (n, 4), rows (type, x, y, z); got " +
                              ShapeText(array));
    }
    const double* values = array.data();
    std::vector<double> positions;
    for (std::size_t row = 0; row < static_cast<std::size_t>(array.shape(0)); ++row) {
        features.push_back(FeatureRow(values + 4 * row, row, name));
        positions.insert(positions.end(), values + 4 * row + 1, values + 4 * row + 4);
    }
    RequireSinglePrecision(positions, name);
    return features;
}

/// The (n, 4) array of rows (type, x, y, z) of colour features.
py::array_t<double> FeatureArray(const hermite::overlay::ColourFeatures& features) {
    std::vector<double> rows;
    rows.reserve(4 * features.size());
    for (const auto& feature : features) {
        rows.push_back(static_cast<double>(feature.type));
        rows.insert(rows.end(), feature.position, feature.position + 3);
    }
    return ToArray(std::move(rows), {static_cast<py::ssize_t>(features.size()), 4});
}

MoleculeObject MakeMolecule(py::handle atomicNumbers, py::handle coords, py::handle charges,
                            std::string title, py::handle features) {
    const std::vector<double> xyz = Points(coords, "coords");
    const std::size_t n = xyz.size() / 3;
    const std::vector<double> z = Values(atomicNumbers, "atomic_numbers", n, "one per atom");
    for (std::size_t i = 0; i < n; ++i) {
        if (z[i] < 0.0 || z[i] > 118.0 || z[i] != static_cast<double>(static_cast<int>(z[i]))) {
            throw py::value_error("atomic_numbers must be integers in 0..118, got " + Repr(z[i]) +
                                  " at index " + std::to_string(i));
        }
    }
    std::vector<double> q(n, 0.0);
    if (!charges.is_none()) {
        q = Values(charges, "charges", n, "one per atom");
    }
    RequireSinglePrecision(xyz, "coords");
    MoleculeObject object;
    object.features = ColourFeaturesArgument(features, "features");
    object.mol.SetTitle(std::move(title));
    for (std::size_t i = 0; i < n; ++i) {
        object.mol.AddAtom(static_cast<unsigned int>(z[i]), xyz[3 * i], xyz[3 * i + 1],
                           xyz[3 * i + 2], q[i]);
    }
    return object;
}

py::array_t<double> Coords(const QVMol& mol) {
    std::vector<double> xyz(3 * static_cast<std::size_t>(mol.NumAtoms()));
    mol.GetCoords(xyz.data());
    return ToArray(std::move(xyz), {static_cast<py::ssize_t>(mol.NumAtoms()), 3});
}

py::array_t<int> AtomicNumbers(const QVMol& mol) {
    py::array_t<int> z(static_cast<py::ssize_t>(mol.NumAtoms()));
    auto out = z.mutable_unchecked<1>();
    for (unsigned int i = 0; i < mol.NumAtoms(); ++i) {
        out(i) = static_cast<int>(mol.GetAtom(i).GetAtomicNumber());
    }
    return z;
}

py::array_t<double> Charges(const QVMol& mol) {
    std::vector<double> q;
    for (const QVChem::QVAtom& atom : mol) {
        q.push_back(atom.GetPartialCharge());
    }
    return ToArray(std::move(q));
}

/// The molecule of a Python argument; ValueError when its atoms are not one cloud (see
/// `overlay::CloudProblem`), since its scores would be wrong.
const MoleculeObject& MoleculeArgument(py::handle object, const std::string& name) {
    if (!py::isinstance<MoleculeObject>(object)) {
        throw py::type_error(name + " must be hermite.Molecule, got " +
                             std::string(py::str(py::type::handle_of(object).attr("__name__"))));
    }
    const MoleculeObject& molecule = object.cast<const MoleculeObject&>();
    const std::string cloud = hermite::overlay::CloudProblem(molecule.mol);
    if (!cloud.empty()) {
        throw py::value_error(name + ": " + cloud);
    }
    return molecule;
}

// ---------------------------------------------------------------------------------------------
// Settings

/// The keyword arguments the overlay functions accept besides `settings`: the properties of
/// hermite.OverlaySettings.
const char* const kSettingNames[] = {"order",
                                     "lambda_",
                                     "large_lambda",
                                     "large_lambda_atoms",
                                     "large_scan_rotations",
                                     "large_search_starts",
                                     "large_refine_candidates",
                                     "scan_rotations",
                                     "starts",
                                     "scan_shift",
                                     "search_starts",
                                     "colour_search_starts",
                                     "seed",
                                     "relative_tolerance",
                                     "iteration_limit",
                                     "refine_candidates",
                                     "colour_refine_candidates",
                                     "refine_iteration_limit",
                                     "refine_tolerance",
                                     "refine_field_atoms",
                                     "refine_field_spacing",
                                     "electrostatics",
                                     "electrostatic_width",
                                     "electrostatic_weight",
                                     "colour",
                                     "colour_weight",
                                     "colour_order"};

/// A weight of the search checked to lie in 0..maximum (the command-line tool's range).
double Weight(double value, const char* name, double maximum) {
    if (!std::isfinite(value) || value < 0.0 || value > maximum) {
        throw py::value_error(std::string(name) + " must lie in 0.." +
                              std::to_string(static_cast<long long>(maximum)) + ", got " +
                              Repr(value));
    }
    return value;
}

/// `settings`, refused when they ask for something they would not do.
Settings Consistent(const Settings& settings) {
    if (settings.electrostaticWeight > 0.0 && !settings.electrostatics) {
        throw py::value_error("electrostatic_weight > 0 needs electrostatics=True");
    }
    return settings;
}

unsigned int Count(py::handle value, const char* name, long long maximum) {
    return static_cast<unsigned int>(Integer(value, name, 0, maximum));
}

/// The getter of a member of the settings, for a property.
template <class T>
auto Getter(T Settings::*member) {
    return [member](const Settings& s) { return s.*member; };
}

using SettingsClass = py::class_<Settings>;

/// Defines the property `name` of a flag of the settings.
void FlagProperty(SettingsClass& settings, const char* name, bool Settings::*member,
                  const char* doc) {
    settings.def_property(
        name, Getter(member), [member](Settings& s, bool v) { s.*member = v; }, doc);
}

/// Defines the property `name` of a count of the settings, checked to lie in 0..maximum.
void CountProperty(SettingsClass& settings, const char* name, unsigned int Settings::*member,
                   long long maximum, const char* doc) {
    settings.def_property(
        name, Getter(member),
        [member, name, maximum](Settings& s, py::object v) { s.*member = Count(v, name, maximum); },
        doc);
}

/// Defines the property `name` of a positive real of the settings.
void PositiveProperty(SettingsClass& settings, const char* name, double Settings::*member,
                      const char* doc) {
    settings.def_property(
        name, Getter(member),
        [member, name](Settings& s, double v) { s.*member = RequirePositive(v, name); }, doc);
}

/// Defines the property `name` of a weight (or length) of the settings, checked to lie in
/// 0..maximum.
void WeightProperty(SettingsClass& settings, const char* name, double Settings::*member,
                    double maximum, const char* doc) {
    settings.def_property(
        name, Getter(member),
        [member, name, maximum](Settings& s, double v) { s.*member = Weight(v, name, maximum); },
        doc);
}

/// `settings` (or the defaults) with the keyword arguments applied through the properties, so
/// that they are checked the same way.
Settings ResolveSettings(py::handle settings, const py::kwargs& kwargs) {
    Settings resolved;
    if (!settings.is_none()) {
        if (!py::isinstance<Settings>(settings)) {
            throw py::type_error("settings must be hermite.OverlaySettings");
        }
        resolved = settings.cast<Settings>();
    }
    if (kwargs.empty()) {
        return Consistent(resolved);
    }
    py::object object = py::cast(resolved);
    if (kwargs.contains("effort")) {
        // The preset first, so that the other keywords override it.
        const std::string effort = py::str(kwargs["effort"]);
        const std::optional<hermite::overlay::Effort> preset =
            hermite::overlay::ParseEffort(effort);
        if (!preset || !py::isinstance<py::str>(kwargs["effort"])) {
            throw py::value_error("effort must be 'fast', 'default' or 'thorough', got " +
                                  std::string(py::repr(kwargs["effort"])));
        }
        object = py::cast(hermite::overlay::WithEffort(resolved, *preset));
    }
    for (const auto& item : kwargs) {
        const std::string name = py::str(item.first);
        if (name == "effort") {
            continue;
        }
        const bool known = std::any_of(std::begin(kSettingNames), std::end(kSettingNames),
                                       [&](const char* n) { return name == n; });
        if (!known) {
            throw py::type_error("unexpected keyword argument '" + name + "'");
        }
        py::setattr(object, name.c_str(), item.second);
    }
    return Consistent(object.cast<Settings>());
}

std::string SettingsRepr(const Settings& s) {
    std::ostringstream out;
    out << "OverlaySettings(order=" << s.order << ", lambda_=" << Repr(s.lambda)
        << ", large_lambda=" << Repr(s.largeLambda) << ", large_lambda_atoms=" << s.largeLambdaAtoms
        << ", large_scan_rotations=" << s.largeScanRotations
        << ", large_search_starts=" << s.largeSearchStarts
        << ", large_refine_candidates=" << s.largeRefineCandidates
        << ", scan_rotations=" << s.scanRotations << ", starts=" << s.extraStarts
        << ", scan_shift=" << Repr(s.scanShift) << ", search_starts=" << s.searchStarts
        << ", colour_search_starts=" << s.colourSearchStarts << ", seed=" << s.seed
        << ", relative_tolerance=" << Repr(s.relativeTolerance)
        << ", iteration_limit=" << s.iterationLimit << ", refine_candidates=" << s.refineCandidates
        << ", colour_refine_candidates=" << s.colourRefineCandidates
        << ", refine_iteration_limit=" << s.refineIterationLimit
        << ", refine_tolerance=" << Repr(s.refineTolerance)
        << ", refine_field_atoms=" << s.refineFieldAtoms
        << ", refine_field_spacing=" << Repr(s.refineFieldSpacing)
        << ", electrostatics=" << (s.electrostatics ? "True" : "False")
        << ", electrostatic_width=" << Repr(s.electrostaticWidth)
        << ", electrostatic_weight=" << Repr(s.electrostaticWeight)
        << ", colour=" << (s.colour ? "True" : "False")
        << ", colour_weight=" << Repr(s.colourWeight) << ", colour_order=" << s.colourOrder << ")";
    return out.str();
}

// ---------------------------------------------------------------------------------------------
// Results

py::dict ScoreDict(const Scores& s) {
    py::dict d;
    d["shape_tanimoto"] = s.shapeTanimoto;
    d["hermite_tanimoto"] = s.hermiteTanimoto;
    d["tversky_query"] = s.shapeTverskyQuery;
    d["tversky_fit"] = s.shapeTverskyFit;
    d["es_tanimoto"] = s.electrostaticTanimoto;
    d["es_carbo"] = s.electrostaticCarbo;
    d["es_combo"] = s.electrostaticCombo;
    d["colour_tanimoto"] = s.colourTanimoto;
    d["combo"] = s.combo;
    d["overlap"] = s.overlap;
    d["colour_overlap"] = s.colourOverlap;
    d["query_self_overlap"] = s.querySelfOverlap;
    d["fit_self_overlap"] = s.fitSelfOverlap;
    return d;
}

std::string ScoresRepr(const Scores& s) {
    std::ostringstream out;
    out.precision(4);
    out << std::fixed << "Scores(shape_tanimoto=" << s.shapeTanimoto
        << ", hermite_tanimoto=" << s.hermiteTanimoto << ", tversky_query=" << s.shapeTverskyQuery
        << ", tversky_fit=" << s.shapeTverskyFit << ", es_tanimoto=" << s.electrostaticTanimoto
        << ", es_carbo=" << s.electrostaticCarbo << ", es_combo=" << s.electrostaticCombo
        << ", colour_tanimoto=" << s.colourTanimoto << ", combo=" << s.combo
        << ", overlap=" << s.overlap << ")";
    return out.str();
}

OverlayResultObject MakeResult(const Result& result, const QVMol& fit, const std::string& query,
                               const Settings& settings) {
    OverlayResultObject object;
    object.result = result;
    object.title = fit.GetTitle();
    object.queryTitle = query;
    object.electrostatics = settings.electrostatics;
    object.colour = settings.colour;
    object.aligned.resize(3 * static_cast<std::size_t>(fit.NumAtoms()));
    fit.GetCoords(object.aligned.data());
    result.transform.Apply(object.aligned.data(), fit.NumAtoms());
    return object;
}

// Pickling. The states are plain Python values (dicts, tuples, floats, arrays), so that results
// can travel between processes, e.g. as return values of multiprocessing workers.

py::dict SettingsState(const Settings& s) {
    py::dict d;
    d["order"] = s.order;
    d["lambda_"] = s.lambda;
    d["large_lambda"] = s.largeLambda;
    d["large_lambda_atoms"] = s.largeLambdaAtoms;
    d["large_scan_rotations"] = s.largeScanRotations;
    d["large_search_starts"] = s.largeSearchStarts;
    d["large_refine_candidates"] = s.largeRefineCandidates;
    d["scan_rotations"] = s.scanRotations;
    d["starts"] = s.extraStarts;
    d["scan_shift"] = s.scanShift;
    d["search_starts"] = s.searchStarts;
    d["colour_search_starts"] = s.colourSearchStarts;
    d["seed"] = s.seed;
    d["relative_tolerance"] = s.relativeTolerance;
    d["iteration_limit"] = s.iterationLimit;
    d["refine_candidates"] = s.refineCandidates;
    d["colour_refine_candidates"] = s.colourRefineCandidates;
    d["refine_iteration_limit"] = s.refineIterationLimit;
    d["refine_tolerance"] = s.refineTolerance;
    d["refine_field_atoms"] = s.refineFieldAtoms;
    d["refine_field_spacing"] = s.refineFieldSpacing;
    d["electrostatics"] = s.electrostatics;
    d["electrostatic_width"] = s.electrostaticWidth;
    d["electrostatic_weight"] = s.electrostaticWeight;
    d["colour"] = s.colour;
    d["colour_weight"] = s.colourWeight;
    d["colour_order"] = s.colourOrder;
    return d;
}

Scores ScoresFromDict(const py::dict& d) {
    const auto get = [&d](const char* name) {
        if (!d.contains(name)) {
            throw py::value_error(std::string("invalid pickled Scores state: no ") + name);
        }
        return d[name].cast<double>();
    };
    Scores s;
    s.shapeTanimoto = get("shape_tanimoto");
    s.hermiteTanimoto = get("hermite_tanimoto");
    s.shapeTverskyQuery = get("tversky_query");
    s.shapeTverskyFit = get("tversky_fit");
    s.electrostaticTanimoto = get("es_tanimoto");
    s.electrostaticCarbo = get("es_carbo");
    s.electrostaticCombo = get("es_combo");
    s.colourTanimoto = get("colour_tanimoto");
    s.combo = get("combo");
    s.overlap = get("overlap");
    s.colourOverlap = get("colour_overlap");
    s.querySelfOverlap = get("query_self_overlap");
    s.fitSelfOverlap = get("fit_self_overlap");
    return s;
}

py::tuple ResultState(const OverlayResultObject& r) {
    double R[9], t[3];
    r.result.transform.Extract(R, t, true);
    return py::make_tuple(ToArray(std::vector<double>(R, R + 9), {3, 3}),
                          ToArray(std::vector<double>(t, t + 3)), ScoreDict(r.result.scores),
                          r.result.hermiteEvaluations, r.result.exactEvaluations, Text(r.title),
                          Text(r.queryTitle), r.electrostatics,
                          ToArray(std::vector<double>(r.aligned),
                                  {static_cast<py::ssize_t>(r.aligned.size() / 3), 3}),
                          r.conformer, r.queryConformer, r.colour);
}

OverlayResultObject ResultFromState(const py::tuple& state) {
    // 11 items: a result pickled before the colour scores existed.
    if (state.size() != 11 && state.size() != 12) {
        throw py::value_error("invalid pickled OverlayResult state");
    }
    const std::vector<double> R = Values(state[0].attr("ravel")(), "rotation", 9);
    const std::vector<double> t = Values(state[1], "translation", 3);
    OverlayResultObject r;
    r.result.transform = QVChem::QVTrans(R.data(), t.data());
    r.result.scores = ScoresFromDict(state[2].cast<py::dict>());
    r.result.hermiteEvaluations = state[3].cast<unsigned int>();
    r.result.exactEvaluations = state[4].cast<unsigned int>();
    r.title = state[5].cast<std::string>();
    r.queryTitle = state[6].cast<std::string>();
    r.electrostatics = state[7].cast<bool>();
    r.aligned = Points(state[8], "aligned_coords", true);
    r.conformer = state[9].cast<std::size_t>();
    r.queryConformer = state[10].cast<std::size_t>();
    r.colour = state.size() > 11 && state[11].cast<bool>();
    return r;
}

std::string ResultRepr(const OverlayResultObject& r) {
    std::ostringstream out;
    out.precision(4);
    out << std::fixed << "OverlayResult(title=" << std::string(py::repr(Text(r.title)))
        << ", shape_tanimoto=" << r.result.scores.shapeTanimoto
        << ", tversky_query=" << r.result.scores.shapeTverskyQuery;
    if (r.electrostatics) {
        out << ", es_tanimoto=" << r.result.scores.electrostaticTanimoto
            << ", es_combo=" << r.result.scores.electrostaticCombo;
    }
    if (r.colour) {
        out << ", colour_tanimoto=" << r.result.scores.colourTanimoto
            << ", combo=" << r.result.scores.combo;
    }
    out << ")";
    return out.str();
}

// ---------------------------------------------------------------------------------------------
// Screening

/// The conformers of one molecule of a screen: a hermite.Molecule alone, or a non-empty list
/// or tuple of them (the conformers of one molecule, all with the first one's title).
std::vector<MoleculeObject> ConformersArgument(py::handle object, const std::string& name) {
    if (py::isinstance<MoleculeObject>(object)) {
        return {MoleculeArgument(object, name)};
    }
    if (!py::isinstance<py::list>(object) && !py::isinstance<py::tuple>(object)) {
        throw py::type_error(name + " must be hermite.Molecule or a list of them, got " +
                             std::string(py::str(py::type::handle_of(object).attr("__name__"))));
    }
    std::vector<MoleculeObject> conformers;
    const py::sequence sequence = py::reinterpret_borrow<py::sequence>(object);  // list or tuple
    for (std::size_t i = 0; i < sequence.size(); ++i) {
        conformers.push_back(MoleculeArgument(sequence[i], name + "[" + std::to_string(i) + "]"));
    }
    if (conformers.empty()) {
        throw py::value_error(name + " holds no conformer");
    }
    return conformers;
}

/// The features of a molecule as a conformer of the screening engine carries them (which
/// reads only their types and positions).
std::vector<io::Feature> EngineFeatures(const hermite::overlay::ColourFeatures& features) {
    std::vector<io::Feature> converted;
    converted.reserve(features.size());
    for (const auto& feature : features) {
        io::Feature item;
        item.type = feature.type;
        item.x = feature.position[0];
        item.y = feature.position[1];
        item.z = feature.position[2];
        converted.push_back(std::move(item));
    }
    return converted;
}

/// The screening engine's molecule of a list of conformers: the first one's title for all.
io::Molecule EngineMolecule(const std::vector<MoleculeObject>& conformers) {
    io::Molecule molecule{conformers.front().mol.GetTitle(), {}};
    for (const MoleculeObject& conformer : conformers) {
        molecule.conformers.emplace_back(conformer.mol);
        molecule.conformers.back().SetFeatures(EngineFeatures(conformer.features));
    }
    return molecule;
}

/// Overlays (or scores) every fit molecule, each of one or more conformers, on the screening
/// engine's worker threads, and returns its row (the best pair by the rank metric) in input
/// order. The calling thread holds no GIL while the engine runs, but takes it every 100 ms to
/// let Python handle signals: an interrupt stops the workers after the molecules in progress
/// and is raised. A molecule the library fails on raises `LibraryError` naming it, after the
/// library's warnings.
std::vector<screen::Row> RunScreen(const screen::QuerySet& queries,
                                   const std::vector<std::vector<MoleculeObject>>& fits,
                                   screen::RankMetric rankBy, unsigned int threadCount,
                                   bool scoreOnly, py::handle progress) {
    std::vector<io::Molecule> molecules;
    molecules.reserve(fits.size());
    for (const std::vector<MoleculeObject>& conformers : fits) {
        molecules.push_back(EngineMolecule(conformers));
    }
    screen::ScreenSettings settings;
    settings.rankBy = rankBy;
    settings.scoreOnly = scoreOnly;
    settings.best = 0;
    settings.threads = threadCount;
    std::vector<screen::Row> rows;
    rows.reserve(fits.size());
    screen::ScreenCallbacks callbacks;
    callbacks.row = [&rows](const screen::Row& row) { rows.push_back(row); };
    // A signal or an exception of the progress callback stops the run; it is raised afterwards.
    bool interrupted = false;
    std::exception_ptr callbackError;
    callbacks.stop = [&interrupted, &callbackError] {
        py::gil_scoped_acquire gil;
        interrupted = interrupted || callbackError || PyErr_CheckSignals() != 0;
        return interrupted;
    };
    if (!progress.is_none()) {
        callbacks.progress = [&progress, &callbackError](const screen::ScreenProgress& counts) {
            py::gil_scoped_acquire gil;
            if (callbackError) {
                return;
            }
            try {
                progress(counts.molecules, counts.overlays);
            } catch (...) {
                callbackError = std::current_exception();
            }
        };
    }
    {
        py::gil_scoped_release release;
        screen::RunControl control;
        screen::Screen(queries, screen::Database::Molecules(std::move(molecules)), settings,
                       callbacks, control);
    }
    if (callbackError) {
        std::rethrow_exception(callbackError);
    }
    if (interrupted) {
        throw py::error_already_set();
    }
    Diagnostics diagnostics;
    for (const screen::Row& row : rows) {
        for (const std::string& warning : row.warnings) {
            diagnostics.AddWarning(warning);
        }
    }
    EmitWarnings(diagnostics);
    for (const screen::Row& row : rows) {
        if (!row.Ok()) {
            throw LibraryError("molecules[" + std::to_string(row.position) + "]: " + row.error);
        }
    }
    return rows;
}

std::vector<std::vector<MoleculeObject>> FitMolecules(py::handle molecules) {
    if (py::isinstance<MoleculeObject>(molecules) || py::isinstance<py::str>(molecules)) {
        throw py::type_error(
            "molecules must be an iterable of hermite.Molecule or of lists of them");
    }
    std::vector<std::vector<MoleculeObject>> fits;
    for (py::handle item : py::iter(molecules)) {
        fits.push_back(ConformersArgument(item, "molecules[" + std::to_string(fits.size()) + "]"));
    }
    return fits;
}

/// The metric named by `rank_by` ('shape', 'combo', 'es_combo', 'tversky_query' or
/// 'tversky_fit'; also spelt with hyphens, as the command-line tool's --rank-by), which the
/// `settings` must compute: ValueError for combo without colour and es_combo without
/// electrostatics.
screen::RankMetric RankMetricArgument(py::handle rankBy, const Settings& settings) {
    if (!py::isinstance<py::str>(rankBy)) {
        throw py::type_error("rank_by must be a str, got " +
                             std::string(py::str(py::type::handle_of(rankBy).attr("__name__"))));
    }
    std::string name = rankBy.cast<std::string>();
    std::replace(name.begin(), name.end(), '_', '-');
    const std::optional<screen::RankMetric> metric =
        screen::ParseRankMetric(name == "shape-tanimoto" ? "shape" : name);
    if (!metric) {
        throw py::value_error(
            "rank_by must be 'shape', 'combo', 'es_combo', 'tversky_query' "
            "or 'tversky_fit', got " +
            std::string(py::repr(rankBy)));
    }
    if (*metric == screen::RankMetric::Combo && !settings.colour) {
        throw py::value_error(
            "rank_by='combo' ranks by shape + colour Tanimoto, which needs colour=True");
    }
    if (*metric == screen::RankMetric::ElectrostaticCombo && !settings.electrostatics) {
        throw py::value_error(
            "rank_by='es_combo' ranks by shape + electrostatic Tanimoto, which needs "
            "electrostatics=True");
    }
    return *metric;
}

py::list ScreenResults(py::handle query, py::handle molecules, py::handle threadsArgument,
                       py::handle rankBy, py::handle settings, const py::kwargs& kwargs,
                       bool scoreOnly, py::handle progress) {
    if (!progress.is_none() && !PyCallable_Check(progress.ptr())) {
        throw py::type_error("progress must be callable or None");
    }
    const std::vector<MoleculeObject> queryConformers = ConformersArgument(query, "query");
    const Settings resolved = ResolveSettings(settings, kwargs);
    const screen::RankMetric metric = RankMetricArgument(rankBy, resolved);
    const std::vector<std::vector<MoleculeObject>> fits = FitMolecules(molecules);
    const long long threads = Integer(threadsArgument, "threads", -1024, 1024);
    const unsigned int threadCount = std::min<unsigned int>(
        screen::ResolveThreadCount(threads, std::thread::hardware_concurrency()),
        static_cast<unsigned int>(
            std::max<std::size_t>(1, std::min<std::size_t>(fits.size(), 1024))));
    const io::Molecule queryMolecule = EngineMolecule(queryConformers);
    const screen::QuerySet queries = RunLibrary([&] {
        try {
            return screen::MakeQueries({queryMolecule}, resolved);
        } catch (const screen::QueryError& error) {
            throw LibraryError(error.what());
        }
    });
    const std::vector<screen::Row> rows =
        RunScreen(queries, fits, metric, threadCount, scoreOnly, progress);
    py::list list;
    for (std::size_t i = 0; i < rows.size(); ++i) {
        // The engine counts conformers from 1.
        const std::size_t conformer = rows[i].conformer - 1;
        OverlayResultObject result =
            MakeResult(rows[i].result, fits[i][conformer].mol, queryMolecule.title, resolved);
        result.conformer = conformer;
        result.queryConformer = rows[i].queryConformer - 1;
        list.append(std::move(result));
    }
    return list;
}

OverlayResultObject PairResult(py::handle query, py::handle fit, py::handle settings,
                               const py::kwargs& kwargs, bool scoreOnly) {
    // Copies, so that the computation needs no Python object while the GIL is released.
    const MoleculeObject queryCopy = MoleculeArgument(query, "query");
    const MoleculeObject fitCopy = MoleculeArgument(fit, "fit");
    const Settings resolved = ResolveSettings(settings, kwargs);
    const Result result = RunLibrary([&] {
        const Query prepared(queryCopy.mol, resolved, queryCopy.features);
        return scoreOnly ? prepared.Score(fitCopy.mol, fitCopy.features)
                         : prepared.Overlay(fitCopy.mol, fitCopy.features);
    });
    return MakeResult(result, fitCopy.mol, queryCopy.mol.GetTitle(), resolved);
}

/// The settings section of the overlay functions' docstrings, with the library's defaults.
std::string SettingsDoc() {
    const Settings d;
    std::ostringstream out;
    out << "\nSettings (keyword arguments, or ``settings=hermite.OverlaySettings(...)``; "
           "defaults in brackets):\n"
        << "    effort: 'fast', 'default' or 'thorough': presets of order, scan_rotations, "
           "search_starts and refine_candidates and of their large_ counterparts, which other "
           "keywords override.\n"
        << "    order: Hermite expansion order, 0 to 100 [" << d.order << "].\n"
        << "    lambda_: lambda of the Hermite functions of every expansion (1/angstrom, one for "
           "both molecules, so that an overlay does not depend on which is the query; smaller "
           "for molecules of 60 heavy atoms and more) ["
        << Repr(d.lambda) << "].\n"
        << "    large_lambda: lambda for a pair of large molecules (both with large_lambda_atoms "
           "heavy atoms or more) overlaid by shape only, 0 to 10; 0 keeps lambda_ for every "
           "pair ["
        << Repr(d.largeLambda) << "].\n"
        << "    large_lambda_atoms: the size in heavy atoms from which a molecule counts as "
           "large ["
        << d.largeLambdaAtoms << "].\n"
        << "    large_scan_rotations, large_search_starts, large_refine_candidates: "
           "scan_rotations, search_starts and refine_candidates of a pair searched at "
           "large_lambda (fewer rotations find its basins, a pose more refined the best of "
           "them) ["
        << d.largeScanRotations << ", " << d.largeSearchStarts << ", " << d.largeRefineCandidates
        << "].\n"
        << "    scan_rotations: evenly spread rotations scanned besides the four flips of the "
           "principal frame ["
        << d.scanRotations << "].\n"
        << "    starts: random rotations scanned besides them [" << d.extraStarts << "].\n"
        << "    scan_shift: every orientation is also scanned with the fit shifted this far "
           "(angstrom, 0 to 10) both ways along its two longest axes, and searched from its "
           "best shift ["
        << Repr(d.scanShift) << "].\n"
        << "    search_starts: local searches, from the scanned orientations with the largest "
           "Hermite overlaps (every one when there are no more) ["
        << d.searchStarts << "].\n"
        << "    colour_search_starts: the same when colour features (or a weighted "
           "electrostatic density) join the search, at most search_starts ["
        << d.colourSearchStarts << "].\n"
        << "    seed: seed of the random starts [" << d.seed << "].\n"
        << "    relative_tolerance: BFGS gradient tolerance of the Hermite search relative to the "
           "self-overlap of the smaller molecule ["
        << Repr(d.relativeTolerance) << "].\n"
        << "    iteration_limit: BFGS iterations per start [" << d.iterationLimit << "].\n"
        << "    refine_candidates: best Hermite poses refined on the exact overlap, 0 for none ["
        << d.refineCandidates << "].\n"
        << "    colour_refine_candidates: the same when colour features join the search, at "
           "most refine_candidates ["
        << d.colourRefineCandidates << "].\n"
        << "    refine_iteration_limit: Newton iterations of the exact refinement ["
        << d.refineIterationLimit << "].\n"
        << "    refine_tolerance: gradient tolerance of the exact refinement, relative to "
           "the self-overlap of the smaller molecule ["
        << Repr(d.refineTolerance) << "].\n"
        << "    refine_field_atoms: molecules of this many atoms or more, both of them, are "
           "refined on the query's sampled overlap field instead of the exact pair sums (the "
           "scores stay exact) ["
        << d.refineFieldAtoms << "].\n"
        << "    refine_field_spacing: spacing of the field's samples in angstrom, 0 to 2; 0 "
           "never uses the field ["
        << Repr(d.refineFieldSpacing) << "].\n"
        << "    electrostatics: also compute the electrostatic scores from the partial charges ["
        << (d.electrostatics ? "True" : "False") << "].\n"
        << "    electrostatic_width: width of the electrostatic Gaussians in angstrom ["
        << Repr(d.electrostaticWidth) << "].\n"
        << "    electrostatic_weight: with electrostatics, the search maximises shape (+ colour) "
           "+ electrostatic_weight * electrostatic overlap, 0 to 100000; 0 scores the "
           "electrostatics without letting them move the pose ["
        << Repr(d.electrostaticWeight) << "].\n"
        << "    colour: also match the molecules' colour (pharmacophore) features, given as "
           "``hermite.Molecule(..., features=...)``: the search maximises shape + colour_weight "
           "* colour overlap and the colour scores are computed ["
        << (d.colour ? "True" : "False") << "].\n"
        << "    colour_weight: weight of the colour overlap against the shape overlap in the "
           "search, 0 to 100 ["
        << Repr(d.colourWeight) << "].\n"
        << "    colour_order: order of the Hermite expansions of the colour features in the "
           "search, at most order ["
        << d.colourOrder << "].\n";
    return out.str();
}

}  // namespace

void BindOverlay(py::module_& m) {
    py::class_<MoleculeObject>(m, "Molecule", R"doc(
A molecule for overlays: its atoms' elements, coordinates (angstrom), partial charges
(elementary charges), a title and optionally its colour (pharmacophore) features. Bonds are not
needed.

Args:
    atomic_numbers: (n,) integers 0..118.
    coords: (n, 3) coordinates, n >= 1.
    charges: (n,) partial charges (default zeros).
    title: the molecule's name.
    features: the colour features, an (m, 4) array-like of rows (type, x, y, z): the type, a
        non-negative integer (features interact only with features of the same type), and the
        position in the coordinates of ``coords`` (angstrom). Default none.
        hermite.rdkit.perceive_features makes them from an RDKit molecule.
)doc")
        .def(py::init(&MakeMolecule), py::arg("atomic_numbers"), py::arg("coords"),
             py::arg("charges") = py::none(), py::arg("title") = "", py::kw_only(),
             py::arg("features") = py::none())
        .def_property_readonly(
            "atomic_numbers", [](const MoleculeObject& o) { return AtomicNumbers(o.mol); },
            "(n,) integer array of the atomic numbers (a copy).")
        .def_property_readonly(
            "coords", [](const MoleculeObject& o) { return Coords(o.mol); },
            "(n, 3) array of the coordinates (a copy).")
        .def_property_readonly(
            "charges", [](const MoleculeObject& o) { return Charges(o.mol); },
            "(n,) array of the partial charges (a copy).")
        .def_property_readonly(
            "features", [](const MoleculeObject& o) { return FeatureArray(o.features); },
            "(m, 4) array of the colour features, rows (type, x, y, z) (a copy).")
        .def_property(
            "title", [](const MoleculeObject& o) { return Text(o.mol.GetTitle()); },
            [](MoleculeObject& o, std::string title) { o.mol.SetTitle(std::move(title)); },
            "The molecule's name.")
        .def_property_readonly(
            "num_atoms", [](const MoleculeObject& o) { return o.mol.NumAtoms(); },
            "The number of atoms.")
        .def("__len__", [](const MoleculeObject& o) { return o.mol.NumAtoms(); })
        .def(
            "shape_gaussians",
            [](const MoleculeObject& o) {
                GaussianList list;
                list.items =
                    RunLibrary([&] { return QVHermiteMath::QVMolToGaussians(o.mol); }, false);
                return list;
            },
            "The shape density: one carbon-sized Gaussian per atom.")
        .def(
            "electrostatic_gaussians",
            [](const MoleculeObject& o, double width) {
                RequirePositive(width, "width");
                GaussianList list;
                list.items = RunLibrary(
                    [&] { return QVHermiteMath::QVMolToElectroStaticGaussians(o.mol, width); },
                    false);
                return list;
            },
            py::arg("width") = 1.0,
            "The electrostatic density of the partial charges, Gaussians of width ``width``.")
        .def(
            "copy", [](const MoleculeObject& o) { return o; }, "A copy.")
        .def("__copy__", [](const MoleculeObject& o) { return o; })
        .def("__deepcopy__", [](const MoleculeObject& o, py::dict) { return o; })
        .def("__repr__",
             [](const MoleculeObject& o) {
                 std::string text =
                     "Molecule(title=" + std::string(py::repr(Text(o.mol.GetTitle()))) +
                     ", num_atoms=" + std::to_string(o.mol.NumAtoms());
                 if (!o.features.empty()) {
                     text += ", num_features=" + std::to_string(o.features.size());
                 }
                 return text + ")";
             })
        .def(py::pickle(
            [](const MoleculeObject& o) {
                return py::make_tuple(AtomicNumbers(o.mol), Coords(o.mol), Charges(o.mol),
                                      Text(o.mol.GetTitle()), FeatureArray(o.features));
            },
            [](py::tuple state) {
                // 4 items: a molecule pickled before features existed.
                if (state.size() != 4 && state.size() != 5) {
                    throw py::value_error("invalid pickled Molecule state");
                }
                return MakeMolecule(state[0], state[1], state[2], state[3].cast<std::string>(),
                                    state.size() > 4 ? py::object(state[4]) : py::none());
            }));

    SettingsClass settings(m, "OverlaySettings", R"doc(
Settings of an overlay; every argument is keyword-only and also a property.

Args:
    effort: 'fast', 'default' or 'thorough': presets of order, scan_rotations, search_starts
        and refine_candidates, and of their large_ counterparts (the other arguments override
        them).
    order: Hermite expansion order, 0 to 100.
    lambda_: lambda of the Hermite functions of every expansion (1/angstrom), the same for
        both molecules; pairs of large molecules take large_lambda.
    large_lambda: lambda for a pair of large molecules overlaid by shape only (both with
        large_lambda_atoms heavy atoms or more), 0 to 10; 0 keeps lambda_ for every pair.
        Wider functions describe long molecules better at the same order.
    large_lambda_atoms: the size in heavy atoms from which a molecule counts as large.
    large_scan_rotations, large_search_starts, large_refine_candidates: scan_rotations,
        search_starts and refine_candidates of a pair searched at large_lambda: fewer
        scanned rotations find its basins, and a pose more refined finds the best of them
        more often.
    scan_rotations: evenly spread rotations whose Hermite overlap is scanned besides the four
        flips of the principal frame.
    starts: random rotations scanned besides them.
    scan_shift: every orientation is also scanned with the fit shifted this far (angstrom)
        both ways along its two longest axes.
    search_starts: local (BFGS) searches, from the scanned orientations with the largest
        Hermite overlaps.
    colour_search_starts: the same when colour features (or a weighted electrostatic density)
        join the search (at most search_starts).
    seed: seed of the random rotations.
    relative_tolerance: BFGS gradient tolerance of the Hermite search, relative to the
        self-overlap of the smaller molecule.
    iteration_limit: BFGS iteration limit per start.
    refine_candidates: best distinct Hermite poses refined on the exact overlap (0: no
        refinement).
    colour_refine_candidates: the same when colour features join the search (at most
        refine_candidates; the features set the poses apart, so one is enough by default).
    refine_iteration_limit: Newton iteration limit of the exact refinement.
    refine_tolerance: gradient tolerance of the exact refinement, relative to the
        self-overlap of the smaller molecule.
    refine_field_atoms: molecules of this many atoms or more (both of a pair) are refined on
        the query's overlap field, sampled once per query, instead of the exact pair sums: one
        lookup per atom instead of a sum over its neighbours, for the same poses; the scores
        stay exact.
    refine_field_spacing: spacing of the field's samples, angstrom (0 to 2; 0: never).
    electrostatics: also compute electrostatic scores (needs partial charges).
    electrostatic_width: width of the electrostatic Gaussians, angstrom.
    electrostatic_weight: weight of the electrostatic overlap against the shape overlap in the
        search, 0 to 100000, with electrostatics (0: scored at the pose found, not optimised).
        Electrostatic overlaps are thousands of times smaller than shape overlaps.
    colour: also match the colour (pharmacophore) features of the molecules (see
        hermite.Molecule's ``features``) and compute the colour scores.
    colour_weight: weight of the colour overlap against the shape overlap in the search,
        0 to 100.
    colour_order: order of the Hermite expansions of the colour features in the search (at
        most ``order``; the exact refinement then places them exactly).

Without arguments, the library's defaults: see repr(hermite.OverlaySettings()).
)doc");
    settings.def(py::init([](py::kwargs kwargs) { return ResolveSettings(py::none(), kwargs); }));
    settings.def_property(
        "order", Getter(&Settings::order), [](Settings& s, py::object v) { s.order = Order(v); },
        "Hermite expansion order.");
    PositiveProperty(settings, "lambda_", &Settings::lambda,
                     "Lambda of the Hermite functions of every expansion (1/angstrom).");
    WeightProperty(settings, "large_lambda", &Settings::largeLambda, 10.0,
                   "Lambda for a pair of large molecules overlaid by shape only (1/angstrom; "
                   "0: lambda_ for every pair).");
    CountProperty(settings, "large_lambda_atoms", &Settings::largeLambdaAtoms, 100000,
                  "Heavy atoms from which both molecules of a pair count as large.");
    CountProperty(settings, "large_scan_rotations", &Settings::largeScanRotations, 100000,
                  "Evenly spread rotations scanned for a pair searched at large_lambda.");
    CountProperty(settings, "large_search_starts", &Settings::largeSearchStarts, 100000,
                  "Local searches for a pair searched at large_lambda.");
    CountProperty(settings, "large_refine_candidates", &Settings::largeRefineCandidates, 1000,
                  "Best Hermite poses refined for a pair searched at large_lambda (0: none).");
    CountProperty(settings, "scan_rotations", &Settings::scanRotations, 100000,
                  "Evenly spread rotations scanned besides the four flips.");
    CountProperty(settings, "starts", &Settings::extraStarts, 100000,
                  "Random rotations scanned besides the four flips.");
    WeightProperty(
        settings, "scan_shift", &Settings::scanShift, 10.0,
        "Shift of the fit along each of its axes, both ways, at which every orientation is "
        "also scanned (angstrom; 0: centred only).");
    CountProperty(
        settings, "search_starts", &Settings::searchStarts, 100000,
        "Local searches, from the scanned orientations with the largest Hermite overlaps.");
    CountProperty(
        settings, "colour_search_starts", &Settings::colourSearchStarts, 100000,
        "Local searches when colour features (or a weighted electrostatic density) join the "
        "search (at most search_starts).");
    settings.def_property(
        "seed", Getter(&Settings::seed),
        [](Settings& s, py::object v) {
            s.seed = Unsigned(v, "seed", std::numeric_limits<std::uint64_t>::max());
        },
        "Seed of the random starts (0..2**64 - 1).");
    PositiveProperty(
        settings, "relative_tolerance", &Settings::relativeTolerance,
        "BFGS gradient tolerance of the Hermite search relative to the self-overlap of the "
        "smaller molecule.");
    CountProperty(settings, "iteration_limit", &Settings::iterationLimit, 1000000,
                  "BFGS iteration limit per start.");
    CountProperty(settings, "refine_candidates", &Settings::refineCandidates, 1000,
                  "Best Hermite poses refined on the exact overlap (0: none).");
    CountProperty(settings, "colour_refine_candidates", &Settings::colourRefineCandidates, 1000,
                  "Best Hermite poses refined when colour features join the search (at most "
                  "refine_candidates).");
    CountProperty(settings, "refine_iteration_limit", &Settings::refineIterationLimit, 1000000,
                  "Newton iteration limit of the exact refinement.");
    PositiveProperty(
        settings, "refine_tolerance", &Settings::refineTolerance,
        "Gradient tolerance of the exact refinement relative to the smaller molecule's "
        "self-overlap.");
    CountProperty(settings, "refine_field_atoms", &Settings::refineFieldAtoms, 100000,
                  "Molecules of this many atoms or more (both of a pair) are refined on the "
                  "query's overlap field instead of the exact pair sums (the scores stay "
                  "exact).");
    WeightProperty(settings, "refine_field_spacing", &Settings::refineFieldSpacing, 2.0,
                   "Spacing of the overlap field's samples (angstrom; 0: never used).");
    FlagProperty(settings, "electrostatics", &Settings::electrostatics,
                 "Compute the electrostatic scores.");
    PositiveProperty(settings, "electrostatic_width", &Settings::electrostaticWidth,
                     "Width of the electrostatic Gaussians, angstrom.");
    WeightProperty(settings, "electrostatic_weight", &Settings::electrostaticWeight, 100000.0,
                   "Weight of the electrostatic overlap against the shape overlap in the search "
                   "(0 to 100000, with electrostatics; 0: not optimised).");
    FlagProperty(settings, "colour", &Settings::colour,
                 "Match the colour features and compute the colour scores.");
    WeightProperty(
        settings, "colour_weight", &Settings::colourWeight, 100.0,
        "Weight of the colour overlap against the shape overlap in the search (0 to 100).");
    settings.def_property(
        "colour_order", Getter(&Settings::colourOrder),
        [](Settings& s, py::object v) { s.colourOrder = Order(v); },
        "Order of the Hermite expansions of the colour features in the search.");
    settings.def("__repr__", &SettingsRepr);
    settings.def(
        "copy", [](const Settings& s) { return s; }, "A copy.");
    settings.def("__copy__", [](const Settings& s) { return s; });
    settings.def("__deepcopy__", [](const Settings& s, py::dict) { return s; });
    settings.def(py::pickle(&SettingsState, [](const py::dict& state) {
        // Through the properties, so that a tampered state is checked like arguments.
        return ResolveSettings(py::none(), py::reinterpret_borrow<py::kwargs>(state));
    }));

    py::class_<Scores>(m, "Scores", R"doc(
Scores of an overlay, from exact overlap integrals of the atom Gaussians at the final pose
unless named Hermite.

shape_tanimoto = O_qf / (O_qq + O_ff - O_qf); tversky_query = O_qf / (0.95 O_qq + 0.05 O_ff);
tversky_fit = O_qf / (0.05 O_qq + 0.95 O_ff); hermite_tanimoto: the shape Tanimoto of the
truncated expansions at the best Hermite pose; es_tanimoto and es_carbo: Tanimoto and Carbo of
the electrostatic densities (0 without electrostatics); es_combo = shape_tanimoto + es_tanimoto;
colour_tanimoto = C_qf / (C_qq + C_ff - C_qf) of the colour features (0 without colour, and
when neither molecule has a feature); combo = shape_tanimoto + colour_tanimoto (0 to 2; the
shape Tanimoto without colour); overlap = O_qf, query_self_overlap = O_qq,
fit_self_overlap = O_ff, colour_overlap = C_qf (angstrom^3).
)doc")
        .def_readonly("shape_tanimoto", &Scores::shapeTanimoto)
        .def_readonly("hermite_tanimoto", &Scores::hermiteTanimoto)
        .def_readonly("tversky_query", &Scores::shapeTverskyQuery)
        .def_readonly("tversky_fit", &Scores::shapeTverskyFit)
        .def_readonly("es_tanimoto", &Scores::electrostaticTanimoto)
        .def_readonly("es_carbo", &Scores::electrostaticCarbo)
        .def_readonly("es_combo", &Scores::electrostaticCombo)
        .def_readonly("colour_tanimoto", &Scores::colourTanimoto)
        .def_readonly("combo", &Scores::combo)
        .def_readonly("overlap", &Scores::overlap)
        .def_readonly("colour_overlap", &Scores::colourOverlap)
        .def_readonly("query_self_overlap", &Scores::querySelfOverlap)
        .def_readonly("fit_self_overlap", &Scores::fitSelfOverlap)
        .def("as_dict", &ScoreDict, "The scores as a dict keyed by their names.")
        .def("__repr__", &ScoresRepr)
        .def(py::pickle(&ScoreDict, [](const py::dict& state) { return ScoresFromDict(state); }));

    py::class_<OverlayResultObject>(m, "OverlayResult", R"doc(
The result of overlaying a fit molecule onto a query: scores and the rigid motion of the fit.
)doc")
        .def_property_readonly(
            "scores", [](const OverlayResultObject& r) { return r.result.scores; },
            "The scores (hermite.Scores).")
        .def_property_readonly(
            "transform",
            [](const OverlayResultObject& r) { return TransformToArray(r.result.transform); },
            "The 4 x 4 homogeneous matrix [[R, t], [0, 0, 0, 1]] moving the fit onto the query "
            "(p -> R p + t, in the input coordinates).")
        .def_property_readonly(
            "rotation",
            [](const OverlayResultObject& r) {
                double R[9], t[3];
                r.result.transform.Extract(R, t, true);
                return ToArray(std::vector<double>(R, R + 9), {3, 3});
            },
            "The 3 x 3 rotation R of the transform.")
        .def_property_readonly(
            "translation",
            [](const OverlayResultObject& r) {
                double R[9], t[3];
                r.result.transform.Extract(R, t, true);
                return ToArray(std::vector<double>(t, t + 3));
            },
            "The translation t of the transform.")
        .def_property_readonly(
            "aligned_coords",
            [](const OverlayResultObject& r) {
                return ToArray(std::vector<double>(r.aligned),
                               {static_cast<py::ssize_t>(r.aligned.size() / 3), 3});
            },
            "(n, 3) coordinates of the fit molecule's atoms after the transform.")
        .def(
            "apply",
            [](const OverlayResultObject& r, py::object coords) {
                std::vector<double> xyz = Points(coords, "coords", true);
                for (std::size_t i = 0; i < xyz.size(); i += 3) {
                    r.result.transform.Apply(&xyz[i]);
                }
                return ToArray(std::move(xyz), {static_cast<py::ssize_t>(xyz.size() / 3), 3});
            },
            py::arg("coords"),
            "Moves other (n, 3) coordinates of the fit (e.g. its hydrogens) by the transform.")
        .def_property_readonly(
            "title", [](const OverlayResultObject& r) { return Text(r.title); },
            "The fit molecule's title.")
        .def_property_readonly(
            "query_title", [](const OverlayResultObject& r) { return Text(r.queryTitle); },
            "The query's title.")
        .def_readonly("electrostatics", &OverlayResultObject::electrostatics,
                      "Whether the electrostatic scores were computed.")
        .def_readonly("colour", &OverlayResultObject::colour,
                      "Whether the colour scores were computed.")
        .def_readonly("conformer", &OverlayResultObject::conformer,
                      "0-based index of the fit conformer of the best pair among the "
                      "conformers screened for this molecule (0 for a single molecule).")
        .def_readonly("query_conformer", &OverlayResultObject::queryConformer,
                      "0-based index of the query conformer of the best pair (0 for a single "
                      "query molecule).")
        .def_property_readonly(
            "hermite_evaluations",
            [](const OverlayResultObject& r) { return r.result.hermiteEvaluations; },
            "Value-and-gradient evaluations of the Hermite objective.")
        .def_property_readonly(
            "exact_evaluations",
            [](const OverlayResultObject& r) { return r.result.exactEvaluations; },
            "Value-and-gradient evaluations of the exact overlap (those on the query's overlap "
            "field, see refine_field_atoms, not counted).")
        .def("__repr__", &ResultRepr)
        .def(py::pickle(&ResultState, &ResultFromState));

    const std::string overlayDoc = std::string(R"doc(
Overlays ``fit`` onto ``query`` by shape: both are put into their principal frames, the Hermite
overlap is scanned over the four flips and ``scan_rotations`` spread (and ``starts`` random)
rotations, maximised by BFGS from the ``search_starts`` best of them, and the best distinct poses
are refined on the exact overlap of the atom Gaussians (on the query's sampled overlap field when
both molecules have ``refine_field_atoms`` atoms or more).

Each call prepares the query afresh: its scans and, from ``refine_field_atoms`` atoms, its overlap
field. A call takes about 0.15 milliseconds for two drug-sized molecules and 0.5 for two of 70
heavy atoms, of which about 0.1 is the overlay itself for the first and 0.25 the field for the
second. To overlay many molecules onto one query, ``screen`` prepares the query once.

Args:
    query: the hermite.Molecule that stays.
    fit: the hermite.Molecule that is moved.
)doc") + SettingsDoc() + R"doc(
Returns:
    hermite.OverlayResult
)doc";
    m.def(
        "overlay",
        [](py::object query, py::object fit, py::object settings, py::kwargs kwargs) {
            return PairResult(query, fit, settings, kwargs, false);
        },
        py::arg("query"), py::arg("fit"), py::kw_only(), py::arg("settings") = py::none(),
        overlayDoc.c_str());

    const std::string scoreDoc = std::string(R"doc(
Scores ``fit`` against ``query`` in the pose it has, without moving it (the transform of the
result is the identity).
)doc") + SettingsDoc();
    m.def(
        "score",
        [](py::object query, py::object fit, py::object settings, py::kwargs kwargs) {
            return PairResult(query, fit, settings, kwargs, true);
        },
        py::arg("query"), py::arg("fit"), py::kw_only(), py::arg("settings") = py::none(),
        scoreDoc.c_str());

    const std::string screenDoc = std::string(R"doc(
Overlays every molecule of ``molecules`` onto ``query`` on several threads (the GIL is released
meanwhile; Ctrl-C stops it). A molecule may come as several conformers: every one is overlaid
onto every query conformer, and the molecule keeps its best pair by ``rank_by`` (the first of
equal ones, query conformers first). The results are in input order and do not depend on the
number of threads.

Args:
    query: the hermite.Molecule that stays, or a list (or tuple) of them: the query's
        conformers.
    molecules: an iterable whose items are a hermite.Molecule or a non-empty list (or tuple)
        of them: the conformers of one molecule, titled by the first.
    threads: worker threads: 0 all cores, n > 0 that many, -n all cores but n.
    score_only: score the molecules in their own poses instead of overlaying them.
    rank_by: the score that picks each molecule's best pair: 'shape' (exact shape Tanimoto),
        'combo' (shape + colour Tanimoto; needs colour=True), 'es_combo' (shape +
        electrostatic Tanimoto; needs electrostatics=True), 'tversky_query' or 'tversky_fit'.
    progress: None, or a callable ``progress(molecules_done, overlays_done)`` called on the
        calling thread about every 100 ms and once at the end; an exception it raises stops
        the screen and is raised.
)doc") + SettingsDoc() + R"doc(
Returns:
    list of hermite.OverlayResult, one per molecule, for its best pair; ``conformer`` and
    ``query_conformer`` give the pair's 0-based conformer indices.
)doc";
    m.def(
        "screen",
        [](py::object query, py::object molecules, py::object threads, bool scoreOnly,
           py::object progress, py::object rankBy, py::object settings, py::kwargs kwargs) {
            return ScreenResults(query, molecules, threads, rankBy, settings, kwargs, scoreOnly,
                                 progress);
        },
        py::arg("query"), py::arg("molecules"), py::kw_only(), py::arg("threads") = 0,
        py::arg("score_only") = false, py::arg("progress") = py::none(),
        py::arg("rank_by") = "shape", py::arg("settings") = py::none(), screenDoc.c_str());
}

}  // namespace hermite::python
