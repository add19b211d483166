// `hermite grid`: renders a molecule's Hermite density onto a CCP4/MRC or cube map.

#include <algorithm>
#include <cmath>
#include <iostream>

#include "cli/commands.h"
#include "cli/density.h"
#include "cli/exit_status.h"
#include "cli/file_identity.h"
#include "cli/library_errors.h"
#include "cli/map_writers.h"
#include "cli/molecule_reading.h"
#include "cli/text_format.h"
#include "io/atomic_file.h"

namespace hermite::cli {

namespace {

/// Replaces the values of `grid` by the exact density of `gaussians` (their sum, in double
/// precision, at every point; the same coordinates as the expansion). Gaussians contribute
/// where exp(-a r^2) is above 1e-17 of their height.
void RenderExact(const std::vector<QVSystem::QVGaussian>& gaussians, QVSystem::QVScalarGrid& grid) {
    for (unsigned int iz = 0; iz < grid.GetZDim(); ++iz) {
        const double z = grid.GetCoord(2, iz);
        for (unsigned int iy = 0; iy < grid.GetYDim(); ++iy) {
            const double y = grid.GetCoord(1, iy);
            for (unsigned int ix = 0; ix < grid.GetXDim(); ++ix) {
                const double x = grid.GetCoord(0, ix);
                double value = 0.0;
                for (const QVSystem::QVGaussian& g : gaussians) {
                    const double dx = x - g.GetX(), dy = y - g.GetY(), dz = z - g.GetZ();
                    const double exponent = g.GetExponent() * (dx * dx + dy * dy + dz * dz);
                    if (exponent < 40.0) {
                        value += g.GetPrefactor() * std::exp(-exponent);
                    }
                }
                grid.SetValue(ix, iy, iz, static_cast<float>(value));
            }
        }
    }
}

/// The second comment line of a cube file / the description in the summary.
std::string Describe(const Density& density, bool electrostatics, bool exact) {
    const QVHermiteMath::QVHermiteOptions& options = density.expansion.GetOptions();
    const std::string kind = electrostatics ? "electrostatic" : "shape";
    if (exact) {
        return kind + " density, exact sum of Gaussians";
    }
    return kind + " density, Hermite order " + std::to_string(options.GetNPolyMax()) + ", lambda " +
           FormatFixed(options.GetLambda(0), 6);
}

}  // namespace

ArgumentParser GridParser() {
    ArgumentParser parser(
        "grid", "MOL --spacing S --out FILE [options]",
        "Renders the Hermite expansion of a molecule's density (the first conformer of the "
        "first molecule in MOL) onto a cubic grid and writes it as a map. The density is the "
        "shape density (one Gaussian per atom) or, with --electrostatics, the electrostatic "
        "density of the partial charges (Gaussians of width 1 angstrom). It is expanded about "
        "the mean of the atom positions with the optimal single lambda of the shape density.\n"
        "\n"
        "The grid covers the molecule with a margin of 3 angstrom beyond its outermost atom "
        "centre on every side (6 angstrom in all), in at most 300 points per axis: a spacing "
        "too fine for that is refused with the finest one that fits. Its points lie at integer "
        "multiples of "
        "the spacing in the molecule's coordinates, so the map lines up with the molecule in "
        "PyMOL, ChimeraX and other viewers.\n"
        "\n"
        "Formats, by the extension of --out: .ccp4, .map or .mrc for a CCP4/MRC map (32-bit "
        "floats, P1 cell); .cube for a Gaussian cube file (lengths in Bohr). The file appears "
        "complete or not at all.\n"
        "\n"
        "Exit status: 0 on success; 1 when records before the molecule were skipped (the map "
        "is still written); 2 for a mistake on the command line; 3 when the molecule cannot be "
        "read or the map cannot be written.");
    parser.Positional("MOL", "The molecule file (SD, MOL2 or SMILES, optionally .gz).")
        .Option("--spacing", "S",
                "Distance between grid points in angstrom, from 0.001 to 100 (0.2 to 1 is "
                "typical).",
                true)
        .Option("--out", "FILE", "The map file: .ccp4, .map, .mrc or .cube.", true)
        .Flag("--electrostatics", "Render the electrostatic density instead of the shape.")
        .Flag("--exact",
              "Render the exact density, the sum of its Gaussians, instead of its Hermite "
              "expansion (whose truncation leaves small negative values and ripples); the grid "
              "is the same.");
    AddOrderOption(parser, 5);
    AddReadOptions(parser);
    return parser;
}

int RunGrid(const CommandLine& line) {
    const std::string path = line.Positionals().front();
    const double spacing = ParseReal("--spacing", line.Value("--spacing"), 0.001, 100.0);
    const std::string out = line.Value("--out");
    RequireDistinctFiles({path}, {{"--out", out}});
    const std::optional<MapFormat> format = MapFormatFromPath(out);
    if (!format) {
        throw UsageError("--out must end in .ccp4, .map, .mrc or .cube, got " + out);
    }
    DensityRequest request;
    request.order = OrderFrom(line, request.order);
    request.electrostatics = line.Has("--electrostatics");
    request.centre = true;
    const io::ReadOptions readOptions = ReadOptionsFrom(line);

    LibraryErrors libraryErrors("grid");
    io::SetRDKitLogging(false);
    const FirstMolecule input =
        ReadInputMolecule("grid", path, readOptions, request.electrostatics);
    const QVChem::QVMol& molecule = input.conformer.Mol();
    const Density density = ExpandDensity(molecule, request);

    QVSystem::QVScalarGrid grid;
    const MapGeometry geometry = Render(density, spacing, grid);
    const bool exact = line.Has("--exact");
    if (exact) {
        RenderExact(density.gaussians, grid);
    }
    const std::string description = Describe(density, request.electrostatics, exact);
    const std::string title = "hermite grid: " + OneLine(input.conformer.Title());
    const std::string contents =
        *format == MapFormat::Ccp4
            ? FormatCcp4Map(grid, geometry, title)
            : FormatCubeMap(grid, geometry, molecule, title, description + ", lengths in Bohr");
    std::string error;
    if (!io::WriteFileAtomically(out, contents, &error)) {
        throw FatalError("cannot write the map: " + error);
    }
    std::cerr << "hermite grid: " << DescribeSource(input.conformer) << ": " << description << "; "
              << geometry.points << "^3 points, spacing " << spacing << " angstrom, first point ("
              << geometry.first[0] * spacing << ", " << geometry.first[1] * spacing << ", "
              << geometry.first[2] * spacing << ") written to " << out << "\n";
    return AnySkipped(input.problems) ? kExitSkipped : kExitOk;
}

}  // namespace hermite::cli
