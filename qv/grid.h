/// \file
/// Scalar grids of the platform layer: a regular (axis-aligned, cubic-cell) grid of float
/// values, a skew grid with arbitrary axes for moving rendered densities rigidly, and the
/// resampling between them.
///
/// Coordinates: the point of index i on an axis with n points lies at
/// centre + (i - (n - 1) / 2) * spacing, with (n - 1) / 2 taken as a real number, so a grid is
/// symmetric about its centre. Units are those of the caller (angstrom in this project).
/// Element order: x fastest, then y, then z (index = ix + nx (iy + ny iz)).
///
/// Thread safety: const members may be called concurrently; anything that modifies a grid
/// needs exclusive access.
#pragma once

#include <cstddef>
#include <vector>

namespace QVSystem {

/// A regular grid of float values with equal spacing on all three axes.
class QVScalarGrid {
public:
    /// Sets the numbers of points per axis; every value becomes 0.
    void SetDim(unsigned int nx, unsigned int ny, unsigned int nz);
    unsigned int GetXDim() const { return dims_[0]; }
    unsigned int GetYDim() const { return dims_[1]; }
    unsigned int GetZDim() const { return dims_[2]; }
    /// The number of points, nx * ny * nz.
    std::size_t GetSize() const { return values_.size(); }

    /// The distance between neighbouring points (default 1).
    void SetSpacing(float spacing) { spacing_ = spacing; }
    float GetSpacing() const { return spacing_; }

    /// The centre of the grid (default the origin).
    void SetCentre(float x, float y, float z);
    float GetXCentre() const { return centre_[0]; }
    float GetYCentre() const { return centre_[1]; }
    float GetZCentre() const { return centre_[2]; }

    /// The coordinate of index i on axis 0 (x), 1 (y) or 2 (z).
    double GetCoord(unsigned int axis, unsigned int i) const;

    /// The element index of point (ix, iy, iz); unchecked.
    std::size_t GetIndex(unsigned int ix, unsigned int iy, unsigned int iz) const {
        return ix +
               static_cast<std::size_t>(dims_[0]) * (iy + static_cast<std::size_t>(dims_[1]) * iz);
    }

    /// Checked element access: an index at or past GetSize() is a fatal error.
    float& operator[](std::size_t index);
    float operator[](std::size_t index) const;
    /// Checked access by point; an index outside the grid is a fatal error.
    float GetValue(unsigned int ix, unsigned int iy, unsigned int iz) const;
    void SetValue(unsigned int ix, unsigned int iy, unsigned int iz, float value);

    /// All values in element order.
    const std::vector<float>& GetValues() const { return values_; }

private:
    std::size_t Checked(std::size_t index) const;

    unsigned int dims_[3] = {0, 0, 0};
    float spacing_ = 1.0f;
    float centre_[3] = {0.0f, 0.0f, 0.0f};
    std::vector<float> values_;
};

/// A grid whose points lie at origin + ix a + iy b + iz c for three arbitrary axis vectors
/// a, b, c: a regular grid after a rigid motion. Between points its values are interpolated
/// trilinearly; outside its box they are 0.
class QVSkewGrid {
public:
    /// The same points and values as `grid`.
    explicit QVSkewGrid(const QVScalarGrid& grid);

    /// Turns the grid about the coordinate origin by a row-major 3 x 3 rotation (p -> R p).
    void Rotate(const double* rotation);
    /// Moves the grid by a translation (p -> p + t).
    void Translate(const double* translation);

    /// The trilinear interpolation of the values at point (x, y, z): the point is mapped to
    /// fractional indices (fx, fy, fz) by inverting p = origin + fx a + fy b + fz c, and the
    /// eight surrounding values are weighted by (1 - |f - i|) per axis. 0 outside the box
    /// [0, n - 1] on any axis. Exact for densities that are linear within a cell; the error
    /// otherwise is at most h^2 / 8 times the largest second derivative along a cell edge,
    /// h the spacing.
    double ValueAt(double x, double y, double z) const;

    /// The coordinates of point (0, 0, 0) and the three step vectors.
    const double* GetOrigin() const { return origin_; }
    const double* GetAxis(unsigned int axis) const { return axes_[axis]; }

private:
    unsigned int dims_[3];
    double origin_[3];
    double axes_[3][3];  // axes_[k] is the step vector of index k
    std::vector<float> values_;
};

/// Rotates a skew grid about the origin by a row-major 3 x 3 matrix. Returns true.
bool QVRotate(QVSkewGrid& grid, const double* rotation);
/// Translates a skew grid by a 3-vector. Returns true.
bool QVTranslate(QVSkewGrid& grid, const double* translation);
/// Resamples `skew` onto `grid`: keeps the grid's dimensions and centre, sets its spacing to
/// `spacing` and gives every point the trilinear interpolation of `skew` there
/// (QVSkewGrid::ValueAt). Returns true.
bool QVMakeRegularGrid(QVScalarGrid& grid, const QVSkewGrid& skew, float spacing);

}  // namespace QVSystem
