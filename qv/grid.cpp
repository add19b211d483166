#include "qv/grid.h"

#include <algorithm>
#include <cmath>

#include "qv/error.h"

namespace QVSystem {

void QVScalarGrid::SetDim(unsigned int nx, unsigned int ny, unsigned int nz) {
    dims_[0] = nx;
    dims_[1] = ny;
    dims_[2] = nz;
    values_.assign(static_cast<std::size_t>(nx) * ny * nz, 0.0f);
}

void QVScalarGrid::SetCentre(float x, float y, float z) {
    centre_[0] = x;
    centre_[1] = y;
    centre_[2] = z;
}

double QVScalarGrid::GetCoord(unsigned int axis, unsigned int i) const {
    const double halfSpan = (static_cast<double>(dims_[axis]) - 1.0) / 2.0;
    return centre_[axis] + (static_cast<double>(i) - halfSpan) * spacing_;
}

std::size_t QVScalarGrid::Checked(std::size_t index) const {
    if (index >= values_.size()) {
        QVThrow.Fatal("%s\nAssertion failed at line %d of %s.\n",
                      "Grid element index out of range.", __LINE__, "qv_grid");
    }
    return index;
}

float& QVScalarGrid::operator[](std::size_t index) {
    return values_[Checked(index)];
}

float QVScalarGrid::operator[](std::size_t index) const {
    return values_[Checked(index)];
}

float QVScalarGrid::GetValue(unsigned int ix, unsigned int iy, unsigned int iz) const {
    if (ix >= dims_[0] || iy >= dims_[1] || iz >= dims_[2]) {
        Checked(values_.size());
    }
    return (*this)[GetIndex(ix, iy, iz)];
}

void QVScalarGrid::SetValue(unsigned int ix, unsigned int iy, unsigned int iz, float value) {
    if (ix >= dims_[0] || iy >= dims_[1] || iz >= dims_[2]) {
        Checked(values_.size());
    }
    (*this)[GetIndex(ix, iy, iz)] = value;
}

QVSkewGrid::QVSkewGrid(const QVScalarGrid& grid)
    : dims_{grid.GetXDim(), grid.GetYDim(), grid.GetZDim()},
      origin_{grid.GetCoord(0, 0), grid.GetCoord(1, 0), grid.GetCoord(2, 0)},
      axes_{{grid.GetSpacing(), 0.0, 0.0},
            {0.0, grid.GetSpacing(), 0.0},
            {0.0, 0.0, grid.GetSpacing()}},
      values_(grid.GetValues()) {}

namespace {

void RotateVector(const double* R, double* v) {
    const double p[3] = {v[0], v[1], v[2]};
    for (int i = 0; i < 3; ++i) {
        v[i] = R[3 * i] * p[0] + R[3 * i + 1] * p[1] + R[3 * i + 2] * p[2];
    }
}

/// Solves the 3 x 3 system with columns a, b, c for the right-hand side r (Cramer's rule;
/// the axes of a rigidly moved grid are orthogonal and far from singular).
void SolveAxes(const double (*axes)[3], const double* r, double* f) {
    const double* a = axes[0];
    const double* b = axes[1];
    const double* c = axes[2];
    const auto det = [](const double* u, const double* v, const double* w) {
        return u[0] * (v[1] * w[2] - v[2] * w[1]) - v[0] * (u[1] * w[2] - u[2] * w[1]) +
               w[0] * (u[1] * v[2] - u[2] * v[1]);
    };
    const double d = det(a, b, c);
    f[0] = det(r, b, c) / d;
    f[1] = det(a, r, c) / d;
    f[2] = det(a, b, r) / d;
}

}  // namespace

void QVSkewGrid::Rotate(const double* rotation) {
    RotateVector(rotation, origin_);
    for (auto& axis : axes_) {
        RotateVector(rotation, axis);
    }
}

void QVSkewGrid::Translate(const double* translation) {
    for (int i = 0; i < 3; ++i) {
        origin_[i] += translation[i];
    }
}

double QVSkewGrid::ValueAt(double x, double y, double z) const {
    const double r[3] = {x - origin_[0], y - origin_[1], z - origin_[2]};
    double f[3];
    SolveAxes(axes_, r, f);
    unsigned int lower[3];
    double weight[3];
    for (int k = 0; k < 3; ++k) {
        const double last = static_cast<double>(dims_[k]) - 1.0;
        // A tolerance of a few ulps keeps points that sit on the border of the box inside it.
        const double slack = 1e-9 * (1.0 + last);
        if (!(f[k] >= -slack && f[k] <= last + slack) || dims_[k] == 0) {
            return 0.0;
        }
        const double clamped = std::fmin(std::fmax(f[k], 0.0), last);
        const double floor = std::floor(clamped);
        lower[k] = static_cast<unsigned int>(floor);
        if (lower[k] + 1 >= dims_[k]) {
            lower[k] = dims_[k] >= 2 ? dims_[k] - 2 : 0;
        }
        weight[k] = clamped - lower[k];
    }
    double value = 0.0;
    for (unsigned int corner = 0; corner < 8; ++corner) {
        double w = 1.0;
        std::size_t index[3];
        for (int k = 0; k < 3; ++k) {
            const unsigned int step = (corner >> k) & 1u;
            index[k] = std::min<std::size_t>(lower[k] + step, dims_[k] - 1);
            w *= step ? weight[k] : 1.0 - weight[k];
        }
        if (w != 0.0) {
            value += w * values_[index[0] + dims_[0] * (index[1] + dims_[1] * index[2])];
        }
    }
    return value;
}

bool QVRotate(QVSkewGrid& grid, const double* rotation) {
    grid.Rotate(rotation);
    return true;
}

bool QVTranslate(QVSkewGrid& grid, const double* translation) {
    grid.Translate(translation);
    return true;
}

bool QVMakeRegularGrid(QVScalarGrid& grid, const QVSkewGrid& skew, float spacing) {
    grid.SetSpacing(spacing);
    for (unsigned int iz = 0; iz < grid.GetZDim(); ++iz) {
        for (unsigned int iy = 0; iy < grid.GetYDim(); ++iy) {
            for (unsigned int ix = 0; ix < grid.GetXDim(); ++ix) {
                grid[grid.GetIndex(ix, iy, iz)] = static_cast<float>(
                    skew.ValueAt(grid.GetCoord(0, ix), grid.GetCoord(1, iy), grid.GetCoord(2, iz)));
            }
        }
    }
    return true;
}

}  // namespace QVSystem
