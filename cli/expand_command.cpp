// `hermite expand`: a molecule's Hermite expansion as JSON.

#include <array>
#include <cmath>
#include <iostream>

#include "cli/commands.h"
#include "cli/density.h"
#include "cli/exit_status.h"
#include "cli/file_identity.h"
#include "cli/json_output.h"
#include "cli/library_errors.h"
#include "cli/molecule_reading.h"
#include "cli/text_format.h"
#include "io/atomic_file.h"

namespace hermite::cli {

namespace {

/// The coefficients as [l, m, n, value] lines, in lmn order.
std::string CoefficientsJson(const QVHermiteMath::QVHermite& expansion) {
    const unsigned int order = expansion.GetOptions().GetNPolyMax();
    const std::vector<double>& coefficients = expansion.GetCoefficients();
    std::string json = "[";
    for (const auto& [index, lmn] : QVHermiteMath::lmnMapBuilder(order)) {
        json += std::string(index == 0 ? "\n" : ",\n") + "    [" + std::to_string(lmn[0]) + ", " +
                std::to_string(lmn[1]) + ", " + std::to_string(lmn[2]) + ", " +
                JsonNumber(coefficients[index]) + "]";
    }
    return json + "\n  ]";
}

/// The whole JSON document.
std::string ExpansionJson(const io::Conformer& conformer, const Density& density,
                          bool electrostatics) {
    const QVHermiteMath::QVHermite& expansion = density.expansion;
    const QVHermiteMath::QVHermiteOptions& options = expansion.GetOptions();
    const double exact = QVHermiteMath::GaussianOverlap(density.gaussians, density.gaussians);
    std::string json = "{\n";
    auto field = [&json](const std::string& name, const std::string& value, bool last = false) {
        json += "  " + JsonString(name) + ": " + value + (last ? "\n" : ",\n");
    };
    field("title", JsonString(conformer.Title()));
    field("file", JsonString(conformer.File()));
    field("record", std::to_string(conformer.Record()));
    field("density", JsonString(electrostatics ? "electrostatic" : "shape"));
    field("atoms", std::to_string(conformer.Mol().NumAtoms()));
    field("order", std::to_string(options.GetNPolyMax()));
    field("lambdas",
          JsonNumbers({options.GetLambda(0), options.GetLambda(1), options.GetLambda(2)}));
    field("optimal_lambda", density.optimalLambda ? "true" : "false");
    field("self_overlap", JsonNumber(expansion.GetSelfOverlap()));
    field("exact_self_overlap", JsonNumber(exact));
    field("centre", JsonNumbers({density.centre[0], density.centre[1], density.centre[2]}));
    field("coefficient_order", JsonString("lmn: by total degree, then l, then m"));
    field("coefficients", CoefficientsJson(expansion), true);
    return json + "}\n";
}

/// Warns when the truncated expansion holds less than half of the density's exact self-overlap:
/// the density lies too far from the origin for the basis (only without centring).
void WarnAboutLostDensity(const Density& density) {
    const double exact = QVHermiteMath::GaussianOverlap(density.gaussians, density.gaussians);
    const double held = density.expansion.GetSelfOverlap();
    if (!(exact > 0.0) || held >= 0.5 * exact) {
        return;
    }
    const std::array<double, 3> mean = MeanCentre(density.gaussians);
    const double distance = std::sqrt(mean[0] * mean[0] + mean[1] * mean[1] + mean[2] * mean[2]);
    std::cerr << "hermite expand: warning: the expansion holds only "
              << FormatFixed(100.0 * held / exact, 1)
              << "% of the density's exact self-overlap: the density lies "
              << FormatFixed(distance, 1)
              << " angstrom from the origin, where the Hermite functions are centred; leave out "
                 "--no-centre to centre it\n";
}

}  // namespace

ArgumentParser ExpandParser() {
    ArgumentParser parser(
        "expand", "MOL [options]",
        "Expands the density of a molecule (the first conformer of the first molecule in MOL) "
        "in 3-D Hermite functions and prints the expansion as JSON: title, file, record, "
        "density (shape or electrostatic), atoms, order, lambdas [lx, ly, lz], optimal_lambda, "
        "self_overlap (of the truncated expansion, sum of c^2 K_l K_m K_n / (lx ly lz)), "
        "exact_self_overlap (the analytic overlap integral of the Gaussians with themselves), "
        "centre (the point the density was moved from to the origin before expanding; zeros "
        "with --no-centre), coefficient_order and coefficients, a list of [l, m, n, value] in "
        "lmn order (by total degree, then l, then m). Numbers are written with 17 significant "
        "digits, so they read back exactly.\n"
        "\n"
        "The lambda is the optimal single lambda of the shape density unless --lambda is given; "
        "the electrostatic density is expanded with the shape's optimal lambda.\n"
        "\n"
        "Exit status: 0 on success; 1 when records before the molecule were skipped; 2 for a "
        "mistake on the command line; 3 when the molecule cannot be read or the output cannot "
        "be written.");
    parser.Positional("MOL", "The molecule file (SD, MOL2 or SMILES, optionally .gz).")
        .Option("--out", "FILE", "Write the JSON to this file instead of standard output.")
        .Flag("--electrostatics", "Expand the electrostatic density instead of the shape.")
        .Option("--lambda", "L",
                "Use this lambda (1/angstrom, from 0.001 to 100) for all three axes instead of "
                "the optimal one.")
        .Flag("--centre",
              "Move the density so that the mean of the atom positions is at the origin before "
              "expanding it (the default).")
        .Flag("--no-centre",
              "Expand the density where it lies. Hermite functions are centred on the origin: "
              "a density far from it loses most of itself, which is reported as a warning.");
    AddOrderOption(parser, 5);
    AddReadOptions(parser);
    return parser;
}

int RunExpand(const CommandLine& line) {
    const std::string path = line.Positionals().front();
    DensityRequest request;
    request.order = OrderFrom(line, request.order);
    request.electrostatics = line.Has("--electrostatics");
    if (line.Has("--centre") && line.Has("--no-centre")) {
        throw UsageError("--centre and --no-centre exclude each other");
    }
    request.centre = !line.Has("--no-centre");
    if (line.Has("--lambda")) {
        request.lambda = ParseReal("--lambda", line.Value("--lambda"), 0.001, 100.0);
    }
    const io::ReadOptions readOptions = ReadOptionsFrom(line);
    const std::string out = line.Value("--out");
    RequireDistinctFiles({path}, {{"--out", out}});

    LibraryErrors libraryErrors("expand");
    io::SetRDKitLogging(false);
    const FirstMolecule input =
        ReadInputMolecule("expand", path, readOptions, request.electrostatics);
    const Density density = ExpandDensity(input.conformer.Mol(), request);
    WarnAboutLostDensity(density);
    const std::string json = ExpansionJson(input.conformer, density, request.electrostatics);
    if (out.empty()) {
        std::cout << json << std::flush;
    } else {
        std::string error;
        if (!io::WriteFileAtomically(out, json, &error)) {
            throw FatalError("cannot write the expansion: " + error);
        }
    }
    return AnySkipped(input.problems) ? kExitSkipped : kExitOk;
}

}  // namespace hermite::cli
