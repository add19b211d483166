// Unit tests of the grids of the platform layer: the regular grid QVSystem::QVScalarGrid, the
// skew grid QVSystem::QVSkewGrid and the operations QVRotate, QVTranslate and QVMakeRegularGrid.
//
// Oracles:
// - Coordinates: the point of index i on an axis with n points lies at
//   centre + (i - (n - 1) / 2) * spacing; elements are stored x fastest, then y, then z.
// - Trilinear interpolation reproduces every function that is linear in each coordinate
//   separately (a + b x + c y + d z + e x y z, ...) exactly inside the box, and returns the
//   mean of the two end values at the middle of a cell edge (so x^2 is not reproduced).
// - A skew grid moved by p -> R p + t holds at R p + t what the unmoved grid held at p.
// Grid points and test functions use dyadic numbers (multiples of 1/4 or 1/8), so that the
// values stored as float are exact and the expected values can be compared tightly.

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "qv/error.h"
#include "qv/grid.h"
#include "support/test_support.h"

namespace {

using QVSystem::QVErrorCallback;
using QVSystem::QVScalarGrid;
using QVSystem::QVSkewGrid;
using QVSystem::QVThrow;

using hermite_test::EulerXYZClosedForm;
using hermite_test::FatalError;
using hermite_test::MessageRecorder;

/// Runs `action`, which must fail fatally, and returns the message of the failure.
std::string FatalMessage(const std::function<void()>& action) {
    MessageRecorder guard(/*throwOnFatal=*/true);
    try {
        action();
    } catch (const FatalError& error) {
        return error.what();
    }
    ADD_FAILURE() << "no fatal error was reported";
    return "";
}

// p -> R p + t.
void MoveForward(const std::vector<double>& r, const double* t, const double* p, double* q) {
    for (int i = 0; i < 3; ++i) {
        q[i] = r[3 * i] * p[0] + r[3 * i + 1] * p[1] + r[3 * i + 2] * p[2] + t[i];
    }
}

// q -> R^T (q - t).
void MoveBack(const std::vector<double>& r, const double* t, const double* q, double* p) {
    const double d[3] = {q[0] - t[0], q[1] - t[1], q[2] - t[2]};
    for (int i = 0; i < 3; ++i) {
        p[i] = r[i] * d[0] + r[3 + i] * d[1] + r[6 + i] * d[2];
    }
}

/// Whether p lies in the box of `grid` enlarged by `margin` on every side (negative margin:
/// shrunk).
bool InBox(const QVScalarGrid& grid, const double* p, double margin) {
    const unsigned int dims[3] = {grid.GetXDim(), grid.GetYDim(), grid.GetZDim()};
    for (unsigned int axis = 0; axis < 3; ++axis) {
        const double low = grid.GetCoord(axis, 0) - margin;
        const double high = grid.GetCoord(axis, dims[axis] - 1) + margin;
        if (p[axis] < low || p[axis] > high) {
            return false;
        }
    }
    return true;
}

/// Fills `grid` with f at its points.
void Fill(QVScalarGrid& grid, const std::function<double(double, double, double)>& f) {
    for (unsigned int iz = 0; iz < grid.GetZDim(); ++iz) {
        for (unsigned int iy = 0; iy < grid.GetYDim(); ++iy) {
            for (unsigned int ix = 0; ix < grid.GetXDim(); ++ix) {
                grid.SetValue(ix, iy, iz,
                              static_cast<float>(f(grid.GetCoord(0, ix), grid.GetCoord(1, iy),
                                                   grid.GetCoord(2, iz))));
            }
        }
    }
}

// A multilinear function with dyadic coefficients: exact in float at dyadic points, and
// reproduced exactly by trilinear interpolation.
double Multilinear(double x, double y, double z) {
    return 1.5 + 2.0 * x - 0.75 * y + 0.5 * z + 0.25 * x * y * z;
}

// A smooth, clearly non-linear function for tests that only read values at grid points.
double Wavy(double x, double y, double z) {
    return 2.0 + std::sin(1.3 * x + 0.4) * std::cos(0.9 * y) + 0.3 * z * z;
}

/// A 4 x 5 x 6 grid with spacing 1/2 and an off-origin centre; its coordinates are
/// x in {-0.5, 0, 0.5, 1}, y in {-1.5, ..., 0.5}, z in {-0.25, ..., 2.25}.
QVScalarGrid SmallGrid() {
    QVScalarGrid grid;
    grid.SetDim(4, 5, 6);
    grid.SetSpacing(0.5f);
    grid.SetCentre(0.25f, -0.5f, 1.0f);
    return grid;
}

// ---------------------------------------------------------------------------------------------
// QVScalarGrid

TEST(QVScalarGridTest, NewGridIsEmptyWithUnitSpacingAtTheOrigin) {
    const QVScalarGrid grid;
    EXPECT_EQ(grid.GetSize(), 0u);
    EXPECT_EQ(grid.GetXDim(), 0u);
    EXPECT_EQ(grid.GetYDim(), 0u);
    EXPECT_EQ(grid.GetZDim(), 0u);
    EXPECT_EQ(grid.GetSpacing(), 1.0f);
    EXPECT_EQ(grid.GetXCentre(), 0.0f);
    EXPECT_EQ(grid.GetYCentre(), 0.0f);
    EXPECT_EQ(grid.GetZCentre(), 0.0f);
}

TEST(QVScalarGridTest, SetDimSizesTheGridAndZeroesEveryValue) {
    QVScalarGrid grid;
    grid.SetDim(2, 3, 4);
    EXPECT_EQ(grid.GetXDim(), 2u);
    EXPECT_EQ(grid.GetYDim(), 3u);
    EXPECT_EQ(grid.GetZDim(), 4u);
    EXPECT_EQ(grid.GetSize(), 24u);
    for (std::size_t i = 0; i < grid.GetSize(); ++i) {
        grid[i] = 1.0f + static_cast<float>(i);
    }

    // Same dimensions again: the old values are gone.
    grid.SetDim(2, 3, 4);
    ASSERT_EQ(grid.GetSize(), 24u);
    for (float value : grid.GetValues()) {
        EXPECT_EQ(value, 0.0f);
    }

    // Other dimensions: new size, all zero.
    grid[5] = 7.0f;
    grid.SetDim(5, 1, 2);
    ASSERT_EQ(grid.GetSize(), 10u);
    for (std::size_t i = 0; i < grid.GetSize(); ++i) {
        EXPECT_EQ(grid[i], 0.0f) << "element " << i;
    }
}

TEST(QVScalarGridTest, SetDimKeepsSpacingAndCentre) {
    QVScalarGrid grid;
    grid.SetSpacing(0.375f);
    grid.SetCentre(1.0f, -2.0f, 3.5f);
    grid.SetDim(3, 3, 3);
    EXPECT_EQ(grid.GetSpacing(), 0.375f);
    EXPECT_EQ(grid.GetXCentre(), 1.0f);
    EXPECT_EQ(grid.GetYCentre(), -2.0f);
    EXPECT_EQ(grid.GetZCentre(), 3.5f);
}

TEST(QVScalarGridTest, CoordinatesOfAnOddAxisAreCentredOnTheMiddlePoint) {
    QVScalarGrid grid;
    grid.SetDim(5, 5, 5);
    grid.SetSpacing(0.5f);
    grid.SetCentre(1.0f, -2.0f, 0.0f);
    // x: 1 + (i - 2) * 0.5.
    const double x[5] = {0.0, 0.5, 1.0, 1.5, 2.0};
    const double y[5] = {-3.0, -2.5, -2.0, -1.5, -1.0};
    for (unsigned int i = 0; i < 5; ++i) {
        EXPECT_EQ(grid.GetCoord(0, i), x[i]);
        EXPECT_EQ(grid.GetCoord(1, i), y[i]);
        EXPECT_EQ(grid.GetCoord(2, i), (static_cast<double>(i) - 2.0) * 0.5);
    }
    // The middle point is the centre.
    EXPECT_EQ(grid.GetCoord(0, 2), 1.0);
}

TEST(QVScalarGridTest, CoordinatesOfAnEvenAxisStraddleTheCentre) {
    QVScalarGrid grid;
    grid.SetDim(4, 2, 6);
    grid.SetSpacing(2.0f);
    grid.SetCentre(0.0f, 10.0f, -1.0f);
    // (n - 1) / 2 is 1.5, not 1: no point lies at the centre.
    const double x[4] = {-3.0, -1.0, 1.0, 3.0};
    for (unsigned int i = 0; i < 4; ++i) {
        EXPECT_EQ(grid.GetCoord(0, i), x[i]);
    }
    EXPECT_EQ(grid.GetCoord(1, 0), 9.0);
    EXPECT_EQ(grid.GetCoord(1, 1), 11.0);
    EXPECT_EQ(grid.GetCoord(2, 0), -6.0);
    EXPECT_EQ(grid.GetCoord(2, 5), 4.0);
}

TEST(QVScalarGridTest, CoordinatesAreSymmetricAboutTheCentre) {
    // A spacing and centre that are not dyadic: symmetry holds up to double round-off.
    for (unsigned int n : {1u, 2u, 7u, 8u, 31u}) {
        QVScalarGrid grid;
        grid.SetDim(n, n, n);
        grid.SetSpacing(0.3f);
        grid.SetCentre(0.7f, -1.1f, 2.9f);
        const double centres[3] = {grid.GetXCentre(), grid.GetYCentre(), grid.GetZCentre()};
        for (unsigned int axis = 0; axis < 3; ++axis) {
            for (unsigned int i = 0; i < n; ++i) {
                const double sum = grid.GetCoord(axis, i) + grid.GetCoord(axis, n - 1 - i);
                EXPECT_NEAR(sum, 2.0 * centres[axis], 1e-12) << "n " << n << " i " << i;
                if (i + 1 < n) {
                    EXPECT_NEAR(grid.GetCoord(axis, i + 1) - grid.GetCoord(axis, i),
                                static_cast<double>(0.3f), 1e-12);
                }
            }
        }
    }
}

TEST(QVScalarGridTest, ElementIndexRunsXFastestThenYThenZ) {
    QVScalarGrid grid;
    grid.SetDim(2, 3, 4);
    EXPECT_EQ(grid.GetIndex(0, 0, 0), 0u);
    EXPECT_EQ(grid.GetIndex(1, 0, 0), 1u);
    EXPECT_EQ(grid.GetIndex(0, 1, 0), 2u);
    EXPECT_EQ(grid.GetIndex(0, 0, 1), 6u);
    EXPECT_EQ(grid.GetIndex(1, 2, 3), 23u);  // 1 + 2 * (2 + 3 * 3)

    // Point access and element access address the same storage.
    for (unsigned int iz = 0; iz < 4; ++iz) {
        for (unsigned int iy = 0; iy < 3; ++iy) {
            for (unsigned int ix = 0; ix < 2; ++ix) {
                grid.SetValue(ix, iy, iz, static_cast<float>(100 * iz + 10 * iy + ix));
            }
        }
    }
    const std::vector<float>& values = grid.GetValues();
    std::size_t element = 0;
    for (unsigned int iz = 0; iz < 4; ++iz) {
        for (unsigned int iy = 0; iy < 3; ++iy) {
            for (unsigned int ix = 0; ix < 2; ++ix, ++element) {
                const float expected = static_cast<float>(100 * iz + 10 * iy + ix);
                EXPECT_EQ(values[element], expected);
                EXPECT_EQ(grid[element], expected);
                EXPECT_EQ(grid.GetValue(ix, iy, iz), expected);
            }
        }
    }
    const QVScalarGrid& view = grid;
    EXPECT_EQ(view[23], 321.0f);
}

TEST(QVScalarGridTest, ElementAccessAtOrPastTheSizeIsFatal) {
    QVScalarGrid grid;
    grid.SetDim(2, 3, 4);
    const std::size_t size = grid.GetSize();

    std::string message = FatalMessage([&] { grid[size] = 1.0f; });
    EXPECT_NE(message.find("Assertion failed at line"), std::string::npos) << message;
    message = FatalMessage([&] { grid[size + 1000] = 1.0f; });
    EXPECT_NE(message.find("Assertion failed at line"), std::string::npos) << message;

    const QVScalarGrid& view = grid;
    message = FatalMessage([&] { static_cast<void>(view[size]); });
    EXPECT_NE(message.find("Assertion failed at line"), std::string::npos) << message;

    // The last element is fine.
    MessageRecorder guard(/*throwOnFatal=*/true);
    EXPECT_NO_THROW(grid[size - 1] = 2.0f);
    EXPECT_EQ(view[size - 1], 2.0f);
}

TEST(QVScalarGridTest, EmptyGridRejectsEveryElementIndex) {
    QVScalarGrid grid;
    const std::string message = FatalMessage([&] { static_cast<void>(grid[0]); });
    EXPECT_NE(message.find("Assertion failed at line"), std::string::npos) << message;
}

TEST(QVScalarGridTest, PointAccessOutsideTheGridIsFatal) {
    QVScalarGrid grid;
    grid.SetDim(2, 3, 4);
    grid.SetValue(0, 0, 1, 5.0f);

    // (2, 0, 1) has the element index 8, which is inside the storage, but the point is not in
    // the grid: x runs 0..1 only.
    std::string message = FatalMessage([&] { grid.SetValue(2, 0, 1, 9.0f); });
    EXPECT_NE(message.find("Assertion failed at line"), std::string::npos) << message;
    EXPECT_EQ(grid.GetValue(0, 0, 1), 5.0f);  // nothing was written
    for (std::size_t i = 0; i < grid.GetSize(); ++i) {
        if (i != grid.GetIndex(0, 0, 1)) {
            EXPECT_EQ(grid[i], 0.0f);
        }
    }

    message = FatalMessage([&] { static_cast<void>(grid.GetValue(0, 3, 0)); });
    EXPECT_NE(message.find("Assertion failed at line"), std::string::npos) << message;
    message = FatalMessage([&] { static_cast<void>(grid.GetValue(0, 0, 4)); });
    EXPECT_NE(message.find("Assertion failed at line"), std::string::npos) << message;
    message = FatalMessage([&] { grid.SetValue(1, 2, 4, 1.0f); });
    EXPECT_NE(message.find("Assertion failed at line"), std::string::npos) << message;
}

TEST(QVScalarGridTest, OutOfRangeAccessAbortsWithTheDefaultHandler) {
    // The default handler prints the message and aborts; the handler is reset inside the death
    // statement so that only the child process is affected.
    EXPECT_DEATH(
        {
            QVThrow.SetHandler(QVErrorCallback{});
            QVScalarGrid grid;
            grid.SetDim(3, 3, 3);
            grid[27] = 1.0f;
        },
        "Assertion failed at line");
}

// ---------------------------------------------------------------------------------------------
// QVSkewGrid

TEST(QVSkewGridTest, StartsWithThePointsOfTheScalarGrid) {
    const QVScalarGrid grid = SmallGrid();
    const QVSkewGrid skew(grid);
    EXPECT_EQ(skew.GetOrigin()[0], -0.5);
    EXPECT_EQ(skew.GetOrigin()[1], -1.5);
    EXPECT_EQ(skew.GetOrigin()[2], -0.25);
    for (unsigned int axis = 0; axis < 3; ++axis) {
        for (unsigned int k = 0; k < 3; ++k) {
            EXPECT_EQ(skew.GetAxis(axis)[k], axis == k ? 0.5 : 0.0);
        }
    }
}

TEST(QVSkewGridTest, ValueAtGridPointsGivesTheGridValues) {
    QVScalarGrid grid = SmallGrid();
    Fill(grid, Wavy);
    const QVSkewGrid skew(grid);
    for (unsigned int iz = 0; iz < grid.GetZDim(); ++iz) {
        for (unsigned int iy = 0; iy < grid.GetYDim(); ++iy) {
            for (unsigned int ix = 0; ix < grid.GetXDim(); ++ix) {
                // Dyadic coordinates: the fractional indices are exact integers.
                EXPECT_NEAR(
                    skew.ValueAt(grid.GetCoord(0, ix), grid.GetCoord(1, iy), grid.GetCoord(2, iz)),
                    grid.GetValue(ix, iy, iz), 1e-12)
                    << ix << " " << iy << " " << iz;
            }
        }
    }
}

TEST(QVSkewGridTest, InterpolationIsExactForMultilinearFunctions) {
    QVScalarGrid grid = SmallGrid();
    Fill(grid, Multilinear);
    const QVSkewGrid skew(grid);
    // Points off the grid everywhere in the box, corners and faces included.
    unsigned int checked = 0;
    for (double x = -0.5; x <= 1.0; x += 0.1875) {
        for (double y = -1.5; y <= 0.5; y += 0.3125) {
            for (double z = -0.25; z <= 2.25; z += 0.40625) {
                // Values are at most about 8 in size; double round-off only.
                EXPECT_NEAR(skew.ValueAt(x, y, z), Multilinear(x, y, z), 1e-12)
                    << x << " " << y << " " << z;
                ++checked;
            }
        }
    }
    EXPECT_GT(checked, 300u);
}

TEST(QVSkewGridTest, InterpolationIsLinearAlongACellEdge) {
    // f = x^2 at x = 0 and 0.5 gives 0 and 0.25; the middle of the edge gets their mean 0.125,
    // not the true 0.0625.
    QVScalarGrid grid = SmallGrid();
    Fill(grid, [](double x, double, double) { return x * x; });
    const QVSkewGrid skew(grid);
    EXPECT_NEAR(skew.ValueAt(0.25, -1.0, 0.75), 0.125, 1e-15);
    // A quarter of the way from x = 0.5 (0.25) to x = 1 (1): 0.25 + 0.25 * 0.75 = 0.4375.
    EXPECT_NEAR(skew.ValueAt(0.625, 0.0, 1.25), 0.4375, 1e-15);
}

TEST(QVSkewGridTest, ValueAtIsZeroOutsideTheBox) {
    QVScalarGrid grid = SmallGrid();
    Fill(grid, Wavy);  // positive everywhere, so a 0 can only come from outside
    const QVSkewGrid skew(grid);
    // Half a spacing beyond each face.
    EXPECT_EQ(skew.ValueAt(-0.75, -0.5, 1.0), 0.0);
    EXPECT_EQ(skew.ValueAt(1.25, -0.5, 1.0), 0.0);
    EXPECT_EQ(skew.ValueAt(0.25, -1.75, 1.0), 0.0);
    EXPECT_EQ(skew.ValueAt(0.25, 0.75, 1.0), 0.0);
    EXPECT_EQ(skew.ValueAt(0.25, -0.5, -0.5), 0.0);
    EXPECT_EQ(skew.ValueAt(0.25, -0.5, 2.5), 0.0);
    // Slightly outside, and far away.
    EXPECT_EQ(skew.ValueAt(1.01, 0.0, 0.0), 0.0);
    EXPECT_EQ(skew.ValueAt(100.0, 100.0, 100.0), 0.0);
    EXPECT_EQ(skew.ValueAt(-100.0, -0.5, 1.0), 0.0);
    // The box is closed: the corners themselves carry their values.
    EXPECT_NEAR(skew.ValueAt(1.0, 0.5, 2.25), grid.GetValue(3, 4, 5), 1e-12);
    EXPECT_NEAR(skew.ValueAt(-0.5, -1.5, -0.25), grid.GetValue(0, 0, 0), 1e-12);
}

TEST(QVSkewGridTest, RotatedAndTranslatedGridCarriesItsValuesAlong) {
    QVScalarGrid grid = SmallGrid();
    Fill(grid, Wavy);
    const QVSkewGrid original(grid);
    QVSkewGrid moved(grid);
    const std::vector<double> r = EulerXYZClosedForm(0.7, -0.4, 1.9);
    const double t[3] = {1.25, -0.5, 3.0};
    EXPECT_TRUE(QVSystem::QVRotate(moved, r.data()));
    EXPECT_TRUE(QVSystem::QVTranslate(moved, t));

    // The origin is turned about the coordinate origin and then shifted; the step vectors are
    // only turned.
    double origin[3];
    MoveForward(r, t, original.GetOrigin(), origin);
    for (int k = 0; k < 3; ++k) {
        EXPECT_NEAR(moved.GetOrigin()[k], origin[k], 1e-14);
    }
    const double zero[3] = {0.0, 0.0, 0.0};
    for (unsigned int axis = 0; axis < 3; ++axis) {
        double step[3];
        MoveForward(r, zero, original.GetAxis(axis), step);
        for (int k = 0; k < 3; ++k) {
            EXPECT_NEAR(moved.GetAxis(axis)[k], step[k], 1e-14);
        }
    }

    // Grid points: the moved grid holds at R p + t the value held at p. The fractional indices
    // are integers up to round-off, which can only mix in neighbours with weights ~1e-15.
    for (unsigned int iz = 0; iz < grid.GetZDim(); ++iz) {
        for (unsigned int iy = 0; iy < grid.GetYDim(); ++iy) {
            for (unsigned int ix = 0; ix < grid.GetXDim(); ++ix) {
                const double p[3] = {grid.GetCoord(0, ix), grid.GetCoord(1, iy),
                                     grid.GetCoord(2, iz)};
                double q[3];
                MoveForward(r, t, p, q);
                EXPECT_NEAR(moved.ValueAt(q[0], q[1], q[2]), grid.GetValue(ix, iy, iz), 1e-10)
                    << ix << " " << iy << " " << iz;
            }
        }
    }
    // Points between grid points: the same interpolated value.
    for (double x = -0.4; x < 1.0; x += 0.3) {
        for (double y = -1.4; y < 0.5; y += 0.35) {
            for (double z = -0.2; z < 2.25; z += 0.45) {
                const double p[3] = {x, y, z};
                double q[3];
                MoveForward(r, t, p, q);
                EXPECT_NEAR(moved.ValueAt(q[0], q[1], q[2]), original.ValueAt(x, y, z), 1e-10);
            }
        }
    }
}

TEST(QVSkewGridTest, RotationIsAboutTheCoordinateOriginNotTheGridCentre) {
    // A quarter turn about z moves every old point (x, y, z) to (-y, x, z). Turning about the
    // grid centre (0.25, -0.5, 1) instead would put the points elsewhere.
    QVScalarGrid grid = SmallGrid();
    Fill(grid, Wavy);
    QVSkewGrid moved(grid);
    const double quarter[9] = {0, -1, 0, 1, 0, 0, 0, 0, 1};
    QVSystem::QVRotate(moved, quarter);
    // Old (0, -0.5, 0.75), point (1, 2, 2), is now at (0.5, 0, 0.75).
    EXPECT_NEAR(moved.ValueAt(0.5, 0.0, 0.75), grid.GetValue(1, 2, 2), 1e-12);
    // Old (1, 0.5, 2.25), the last corner, is now at (-0.5, 1, 2.25).
    EXPECT_NEAR(moved.ValueAt(-0.5, 1.0, 2.25), grid.GetValue(3, 4, 5), 1e-12);
    // (1.6, 0, 1) would come from (0, -1.6, 1), below the old y range [-1.5, 0.5]: outside.
    EXPECT_EQ(moved.ValueAt(1.6, 0.0, 1.0), 0.0);
}

// ---------------------------------------------------------------------------------------------
// QVMakeRegularGrid

TEST(QVSkewGridTest, RegularGridFromAnUnmovedSkewGridReproducesTheValues) {
    QVScalarGrid grid = SmallGrid();
    Fill(grid, Wavy);
    const QVSkewGrid skew(grid);

    QVScalarGrid copy = grid;
    copy.SetDim(grid.GetXDim(), grid.GetYDim(), grid.GetZDim());  // zero the values
    EXPECT_TRUE(QVSystem::QVMakeRegularGrid(copy, skew, grid.GetSpacing()));
    ASSERT_EQ(copy.GetSize(), grid.GetSize());
    for (std::size_t i = 0; i < grid.GetSize(); ++i) {
        EXPECT_EQ(copy[i], grid[i]) << "element " << i;
    }
}

TEST(QVSkewGridTest, RegularGridFromAnUnmovedSkewGridWithAnInexactSpacing) {
    // Spacing 0.3 and centre 0.1 are not dyadic: fractional indices are integers only up to
    // round-off, which can change a value by a few float ulps at most.
    QVScalarGrid grid;
    grid.SetDim(5, 4, 3);
    grid.SetSpacing(0.3f);
    grid.SetCentre(0.1f, -0.2f, 0.7f);
    Fill(grid, Wavy);
    const QVSkewGrid skew(grid);
    QVScalarGrid copy = grid;
    copy.SetDim(5, 4, 3);
    QVSystem::QVMakeRegularGrid(copy, skew, grid.GetSpacing());
    for (std::size_t i = 0; i < grid.GetSize(); ++i) {
        EXPECT_FLOAT_EQ(copy[i], grid[i]) << "element " << i;
    }
}

TEST(QVSkewGridTest, RegularGridKeepsDimensionsAndCentreAndTakesTheNewSpacing) {
    QVScalarGrid source;
    source.SetDim(9, 9, 9);
    source.SetSpacing(0.5f);
    source.SetCentre(0.5f, -0.5f, 1.0f);
    Fill(source, Multilinear);
    const QVSkewGrid skew(source);

    QVScalarGrid target;
    target.SetDim(3, 4, 5);
    target.SetCentre(0.75f, -0.25f, 1.5f);
    target.SetSpacing(1.0f);
    EXPECT_TRUE(QVSystem::QVMakeRegularGrid(target, skew, 0.25f));
    EXPECT_EQ(target.GetXDim(), 3u);
    EXPECT_EQ(target.GetYDim(), 4u);
    EXPECT_EQ(target.GetZDim(), 5u);
    EXPECT_EQ(target.GetXCentre(), 0.75f);
    EXPECT_EQ(target.GetYCentre(), -0.25f);
    EXPECT_EQ(target.GetZCentre(), 1.5f);
    EXPECT_EQ(target.GetSpacing(), 0.25f);

    // The target points, at the new spacing, all lie inside the source box, where the
    // interpolation of a multilinear function is exact. Values are below 10 in size; the
    // float rounding of the stored result is the only error.
    for (unsigned int iz = 0; iz < 5; ++iz) {
        for (unsigned int iy = 0; iy < 4; ++iy) {
            for (unsigned int ix = 0; ix < 3; ++ix) {
                const double x = 0.75 + (ix - 1.0) * 0.25;
                const double y = -0.25 + (iy - 1.5) * 0.25;
                const double z = 1.5 + (iz - 2.0) * 0.25;
                EXPECT_NEAR(target.GetValue(ix, iy, iz), Multilinear(x, y, z), 1e-6)
                    << ix << " " << iy << " " << iz;
            }
        }
    }
}

TEST(QVSkewGridTest, RegularGridResamplesAMovedGrid) {
    // An affine function f stays affine in the fractional indices of the moved grid, so the
    // moved density g(q) = f(R^T (q - t)) is reproduced exactly wherever R^T (q - t) lies in
    // the source box, and is 0 where it lies clearly outside.
    const auto affine = [](double x, double y, double z) {
        return 3.0 + 2.0 * x - 0.75 * y + 0.5 * z;
    };
    QVScalarGrid source;
    source.SetDim(7, 6, 5);
    source.SetSpacing(0.5f);
    Fill(source, affine);
    QVSkewGrid skew(source);
    const std::vector<double> r = EulerXYZClosedForm(0.3, 0.5, -0.8);
    const double t[3] = {0.25, -0.125, 0.5};
    QVSystem::QVRotate(skew, r.data());
    QVSystem::QVTranslate(skew, t);

    QVScalarGrid target;
    target.SetDim(9, 9, 9);
    QVSystem::QVMakeRegularGrid(target, skew, 0.5f);
    unsigned int inside = 0;
    unsigned int outside = 0;
    for (unsigned int iz = 0; iz < 9; ++iz) {
        for (unsigned int iy = 0; iy < 9; ++iy) {
            for (unsigned int ix = 0; ix < 9; ++ix) {
                const double q[3] = {target.GetCoord(0, ix), target.GetCoord(1, iy),
                                     target.GetCoord(2, iz)};
                double p[3];
                MoveBack(r, t, q, p);
                if (InBox(source, p, -1e-6)) {
                    // Values below 10 in size; float rounding of stored values only.
                    EXPECT_NEAR(target.GetValue(ix, iy, iz), affine(p[0], p[1], p[2]), 1e-5);
                    ++inside;
                } else if (!InBox(source, p, 1e-6)) {
                    EXPECT_EQ(target.GetValue(ix, iy, iz), 0.0f);
                    ++outside;
                }
            }
        }
    }
    EXPECT_GT(inside, 50u);
    EXPECT_GT(outside, 50u);
}

}  // namespace
