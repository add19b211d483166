// Rendering an expansion onto a regular grid, optionally under a rigid transform.

#include <alloca.h>

#include <cmath>
#include <cstdint>
#include <string>

#include "hermite/hermite.h"
#include "hermite/internal.h"
#include "qv/error.h"
#include "qv/platform.h"

namespace QVHermiteMath {

namespace {

/// Points per axis at most; finer spacings are clamped with a warning.
constexpr unsigned int kMaxGridPoints = 300;
/// Points per axis at least.
constexpr unsigned int kMinGridPoints = 5;
/// Margin added to the extent so that the tails of the density fit in the grid, in length
/// units.
constexpr double kGridMargin = 6.0;

/// Converts a double to a 64-bit integer by truncation, as a checked conversion: values beyond
/// +-2^53 (or NaN) are fatal errors.
std::int64_t CheckedTruncation(double value) {
    const double limit = 9007199254740992.0;  // 2^53
    const char* tail = " when performing conversions between integers and floating point types";
    if (value < -limit) {
        QVSystem::QVThrow.Fatal("%.17g is less than the minimum allowed%s", value, tail);
    }
    if (!(value <= limit)) {
        QVSystem::QVThrow.Fatal("%.17g is greater than the maximum allowed%s", value, tail);
    }
    return static_cast<std::int64_t>(value);
}

/// The number of points per axis for an extent and a spacing.
unsigned int GridSize(double extent, double spacing) {
    if (std::isinf(spacing)) {
        CheckedTruncation(spacing);
    }
    const double span = extent + kGridMargin;
    const std::int64_t d = CheckedTruncation(span / spacing + 1.0);
    // One more point than the span needs, so that the grid covers at least one spacing beyond
    // the margin.
    const unsigned int n = static_cast<unsigned int>(static_cast<std::int32_t>(d + 1));
    if (n <= kMinGridPoints) {
        return kMinGridPoints;
    }
    if (n > kMaxGridPoints) {
        QVSystem::QVThrow.Warning(
            "The grid spacing for this molecule, requires grid size exceeding maximum allowed of "
            "%d, in order to cover the entire molecule. Instead maximum value will be used. Try "
            "increasing spacing size.",
            static_cast<int>(kMaxGridPoints));
        return kMaxGridPoints;
    }
    return n;
}

}  // namespace

bool CreateGrid(unsigned int N, const std::vector<double>& coeffs, double extent,
                QVSystem::QVScalarGrid& grid, double spacing, double lambdaX, double lambdaY,
                double lambdaZ) {
    if (coeffs.size() != CoefficientCount(N)) {
        return false;
    }
    const unsigned int n = GridSize(extent, spacing);
    grid.SetDim(n, n, n);
    grid.SetSpacing(static_cast<float>(spacing));

    // Hermite functions per axis: table[axis][k * n + i] = QVHermiteFunc(k, lambda * t_i).
    // Small tables live on the stack, large ones on the heap.
    const std::size_t count = static_cast<std::size_t>(n) * (N + 1);
    std::vector<double> heap;
    double* storage = nullptr;
    if (count * sizeof(double) + 16 <= QVPlatform::QVGetAllocaThreshold()) {
        storage = static_cast<double*>(alloca(3 * count * sizeof(double)));
    } else {
        heap.resize(3 * count);
        storage = heap.data();
    }
    double* tables[3] = {storage, storage + count, storage + 2 * count};
    const double lambdas[3] = {lambdaX, lambdaY, lambdaZ};
    for (unsigned int axis = 0; axis < 3; ++axis) {
        for (unsigned int k = 0; k <= N; ++k) {
            for (unsigned int i = 0; i < n; ++i) {
                tables[axis][k * n + i] = QVHermiteFunc(k, lambdas[axis] * grid.GetCoord(axis, i));
            }
        }
    }

    for (unsigned int iz = 0; iz < n; ++iz) {
        for (unsigned int iy = 0; iy < n; ++iy) {
            for (unsigned int ix = 0; ix < n; ++ix) {
                // Products in double, accumulated in single precision like the grid itself.
                float value = 0.0f;
                std::size_t next = 0;
                for (unsigned int l = 0; l <= N; ++l) {
                    for (unsigned int m = 0; m <= N - l; ++m) {
                        for (unsigned int p = 0; p <= N - l - m; ++p) {
                            value +=
                                static_cast<float>(coeffs[next++] * tables[0][l * n + ix] *
                                                   tables[1][m * n + iy] * tables[2][p * n + iz]);
                        }
                    }
                }
                grid[grid.GetIndex(ix, iy, iz)] = value;
            }
        }
    }
    return true;
}

bool CreateGrid(unsigned int N, const std::vector<double>& coeffs, double extent,
                QVSystem::QVScalarGrid& grid, double spacing, double lambdaX, double lambdaY,
                double lambdaZ, QVChem::QVTrans trans) {
    // The transform is applied even when the plain rendering refused the coefficients.
    CreateGrid(N, coeffs, extent, grid, spacing, lambdaX, lambdaY, lambdaZ);
    double rotation[9];
    double translation[3];
    trans.Extract(rotation, translation, true);
    QVSystem::QVSkewGrid skew(grid);
    QVSystem::QVRotate(skew, rotation);
    QVSystem::QVTranslate(skew, translation);
    QVSystem::QVMakeRegularGrid(grid, skew, grid.GetSpacing());
    return true;
}

bool QVHermite::CreateGrid(QVSystem::QVScalarGrid& grid, double spacing, double extent) const {
    const unsigned int N = options_.GetNPolyMax();
    return QVHermiteMath::CreateGrid(N, reorder(N, coefficients_), extent, grid, spacing,
                                     options_.GetLambda(0), options_.GetLambda(1),
                                     options_.GetLambda(2));
}

bool QVHermite::CreateGrid(QVSystem::QVScalarGrid& grid, double spacing, double extent,
                           QVChem::QVTrans trans) const {
    const unsigned int N = options_.GetNPolyMax();
    return QVHermiteMath::CreateGrid(N, reorder(N, coefficients_), extent, grid, spacing,
                                     options_.GetLambda(0), options_.GetLambda(1),
                                     options_.GetLambda(2), trans);
}

}  // namespace QVHermiteMath
