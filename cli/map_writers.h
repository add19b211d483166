/// \file
/// Density map files: CCP4/MRC maps (through gemmi) and Gaussian cube files.
///
/// A map is a cubic grid of n x n x n points with spacing s whose first point lies at
/// (kx s, ky s, kz s) in the molecule's coordinates (angstrom), k integers, so that every grid
/// point sits on the lattice of multiples of s and the map lines up with the molecule in
/// viewers:
/// - CCP4/MRC (.ccp4, .map, .mrc): mode 2 (float), an orthogonal P1 cell of edge n s with n
///   samples per edge, NXSTART/NYSTART/NZSTART = kx, ky, kz and the axes in the order x, y, z
///   (x fastest), which PyMOL, ChimeraX and the crystallographic programs all read.
/// - Cube (.cube): two comment lines, the atom count and the origin, the three axes (point
///   count and step vector), one line per atom (atomic number, nuclear charge, position), then
///   the values, six per line in %13.5E, z fastest, then y, then x, a new line after each run
///   along z. Every length is in Bohr, as the format requires (1 angstrom =
///   1.8897261246257702 Bohr); the values are written as they are.
#pragma once

#include <array>
#include <optional>
#include <string>

#include "qv/chem.h"
#include "qv/grid.h"

namespace hermite::cli {

/// Bohr per angstrom.
constexpr double kBohrPerAngstrom = 1.8897261246257702;

/// The file formats of maps.
enum class MapFormat { Ccp4, Cube };

/// The format of a map file by its extension (.ccp4, .map, .mrc or .cube, any case).
std::optional<MapFormat> MapFormatFromPath(const std::string& path);

/// Where a grid lies in the molecule's coordinates.
struct MapGeometry {
    /// Points per axis.
    unsigned int points = 0;
    /// Distance between neighbouring points, angstrom.
    double spacing = 1.0;
    /// The first point is at first[axis] * spacing on each axis.
    std::array<int, 3> first = {0, 0, 0};
};

/// The bytes of a CCP4/MRC map of `grid` (n x n x n, x fastest) placed by `geometry`, with
/// `label` (at most 80 characters are kept) as its title.
std::string FormatCcp4Map(const QVSystem::QVScalarGrid& grid, const MapGeometry& geometry,
                          const std::string& label);

/// The text of a cube file of `grid` placed by `geometry`, with the atoms of `molecule` and two
/// comment lines.
std::string FormatCubeMap(const QVSystem::QVScalarGrid& grid, const MapGeometry& geometry,
                          const QVChem::QVMol& molecule, const std::string& comment1,
                          const std::string& comment2);

}  // namespace hermite::cli
