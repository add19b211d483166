// CCP4/MRC maps through gemmi and cube files written directly.

#include "cli/map_writers.h"

#include <gemmi/ccp4.hpp>

#include <cstdio>
#include <cstring>

#include "cli/text_format.h"

namespace hermite::cli {

namespace {

/// Length of the title lines of a CCP4 header.
constexpr std::size_t kCcp4LabelLength = 80;
/// Header word of the first label.
constexpr int kCcp4FirstLabelWord = 57;
/// Header word of NXSTART (NYSTART and NZSTART follow).
constexpr int kCcp4StartWord = 5;
/// Map mode 2: 32-bit floats.
constexpr int kCcp4FloatMode = 2;

/// Appends printf-formatted text.
template <typename... Arguments>
void AppendFormatted(std::string& text, const char* format, Arguments... arguments) {
    char buffer[128];
    const int length = std::snprintf(buffer, sizeof buffer, format, arguments...);
    text.append(buffer, static_cast<std::size_t>(length < 0 ? 0 : length));
}

}  // namespace

std::optional<MapFormat> MapFormatFromPath(const std::string& path) {
    for (const char* extension : {".ccp4", ".map", ".mrc"}) {
        if (EndsWithIgnoringCase(path, extension)) {
            return MapFormat::Ccp4;
        }
    }
    if (EndsWithIgnoringCase(path, ".cube")) {
        return MapFormat::Cube;
    }
    return std::nullopt;
}

std::string FormatCcp4Map(const QVSystem::QVScalarGrid& grid, const MapGeometry& geometry,
                          const std::string& label) {
    const int n = static_cast<int>(geometry.points);
    const double edge = n * geometry.spacing;
    gemmi::Ccp4<float> map;
    map.grid.spacegroup = gemmi::find_spacegroup_by_name("P 1");
    map.grid.set_size_without_checking(n, n, n);
    map.grid.set_unit_cell(edge, edge, edge, 90.0, 90.0, 90.0);
    // Both grids store x fastest, then y, then z.
    map.grid.data = grid.GetValues();
    map.update_ccp4_header(kCcp4FloatMode, true);
    map.set_header_3i32(kCcp4StartWord, geometry.first[0], geometry.first[1], geometry.first[2]);
    std::string title = label.substr(0, kCcp4LabelLength);
    title.resize(kCcp4LabelLength, ' ');
    map.set_header_str(kCcp4FirstLabelWord, title);

    // The header words, then the values, as gemmi writes them (native byte order, which the
    // header's machine stamp records).
    std::string bytes(
        map.ccp4_header.size() * sizeof(std::int32_t) + map.grid.data.size() * sizeof(float), '\0');
    std::memcpy(&bytes[0], map.ccp4_header.data(), map.ccp4_header.size() * sizeof(std::int32_t));
    std::memcpy(&bytes[map.ccp4_header.size() * sizeof(std::int32_t)], map.grid.data.data(),
                map.grid.data.size() * sizeof(float));
    return bytes;
}

std::string FormatCubeMap(const QVSystem::QVScalarGrid& grid, const MapGeometry& geometry,
                          const QVChem::QVMol& molecule, const std::string& comment1,
                          const std::string& comment2) {
    const unsigned int n = geometry.points;
    const double step = geometry.spacing * kBohrPerAngstrom;
    std::string text = OneLine(comment1) + "\n" + OneLine(comment2) + "\n";
    AppendFormatted(text, "%5u%12.6f%12.6f%12.6f\n", molecule.NumAtoms(), geometry.first[0] * step,
                    geometry.first[1] * step, geometry.first[2] * step);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        AppendFormatted(text, "%5u%12.6f%12.6f%12.6f\n", n, axis == 0 ? step : 0.0,
                        axis == 1 ? step : 0.0, axis == 2 ? step : 0.0);
    }
    for (const QVChem::QVAtom& atom : molecule) {
        double xyz[3];
        atom.GetCoords(xyz);
        AppendFormatted(text, "%5u%12.6f%12.6f%12.6f%12.6f\n", atom.GetAtomicNumber(),
                        static_cast<double>(atom.GetAtomicNumber()), xyz[0] * kBohrPerAngstrom,
                        xyz[1] * kBohrPerAngstrom, xyz[2] * kBohrPerAngstrom);
    }
    text.reserve(text.size() + grid.GetSize() * 14 + grid.GetSize() / 6 + n * n);
    for (unsigned int ix = 0; ix < n; ++ix) {
        for (unsigned int iy = 0; iy < n; ++iy) {
            for (unsigned int iz = 0; iz < n; ++iz) {
                AppendFormatted(text, "%13.5E",
                                static_cast<double>(grid[grid.GetIndex(ix, iy, iz)]));
                if (iz % 6 == 5 || iz + 1 == n) {
                    text += '\n';
                }
            }
        }
    }
    return text;
}

}  // namespace hermite::cli
