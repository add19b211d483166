// Unit tests of the rendering of Hermite expansions onto regular grids: the free CreateGrid
// functions (plain and under a rigid transform) and QVHermite::CreateGrid.
//
// Oracles:
// - Grid size: n = trunc((extent + 6) / spacing + 1) + 1 points per axis, raised to 5 and
//   lowered to 300 (with one warning); cases are worked out by hand below.
// - Values: the expansion evaluated directly at each point's coordinates,
//   sum over l + m + n <= N of c_lmn psi_l(lx x) psi_m(ly y) psi_n(lz z), with
//   psi_k(u) = H_k(u) exp(-u^2 / 2) computed here by the three-term recurrence
//   psi_(k+1) = 2 u psi_k - 2 k psi_(k-1) and the coefficients addressed in lmn order
//   (GetLmnIndex). The grid sums float-rounded products in single precision, so it agrees to a
//   few 1e-7 of the largest term; we allow 1e-5 of the largest |value|.
// - Rendering under p -> R p + t: the value at a grid point q is the trilinear interpolation
//   of the unmoved rendering at R^T (q - t). Its distance from the expansion evaluated there is
//   at most h^2 / 8 (max |f_xx| + max |f_yy| + max |f_zz|) (tensor-product linear
//   interpolation, h the spacing) plus the float error of the rendered values. The second
//   derivatives are exact: psi_k''(u) = (u^2 - 2 k - 1) psi_k(u).

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "hermite/hermite.h"
#include "support/test_support.h"

namespace {

using QVChem::QVTrans;
using QVHermiteMath::QVGaussian;
using QVHermiteMath::QVHermite;
using QVHermiteMath::QVHermiteOptions;
using QVSystem::QVScalarGrid;

using hermite_test::Carbon;
using hermite_test::FatalError;
using hermite_test::FixedOptions;
using hermite_test::MessageRecorder;

constexpr char kClampWarning[] =
    "The grid spacing for this molecule, requires grid size exceeding maximum allowed of 300, in "
    "order to cover the entire molecule. Instead maximum value will be used. Try increasing "
    "spacing size.";
constexpr char kConversionTail[] =
    " when performing conversions between integers and floating point types";

/// Six carbon-like Gaussians at fixed, unsymmetric centres.
std::vector<QVGaussian> RenderDensity() {
    return {Carbon(0.0f, 0.0f, 0.0f),  Carbon(1.2f, 0.3f, -0.4f),   Carbon(-0.8f, 1.0f, 0.5f),
            Carbon(0.4f, -1.1f, 0.9f), Carbon(-0.5f, -0.6f, -1.0f), Carbon(0.9f, 0.8f, 0.7f)};
}

/// The expansion of the density with fixed lambdas.
QVHermite Expand(unsigned int N, double lx, double ly, double lz) {
    QVHermiteOptions options = FixedOptions(N, lx, ly, lz, false);
    QVHermite expansion;
    expansion.Setup(RenderDensity(), options);
    return expansion;
}

/// psi_0..psi_N at u by the three-term recurrence.
std::vector<double> HermiteFunctions(unsigned int N, double u) {
    std::vector<double> psi(N + 1);
    psi[0] = std::exp(-0.5 * u * u);
    if (N >= 1) {
        psi[1] = 2.0 * u * psi[0];
    }
    for (unsigned int k = 1; k < N; ++k) {
        psi[k + 1] = 2.0 * u * psi[k] - 2.0 * k * psi[k - 1];
    }
    return psi;
}

/// Direct evaluation of an expansion (coefficients in lmn order) and of its second derivatives.
struct DirectExpansion {
    unsigned int N;
    std::vector<double> coeffs;  // lmn order
    double lambda[3];

    static DirectExpansion Of(const QVHermite& expansion) {
        const QVHermiteOptions& options = expansion.GetOptions();
        return {options.GetNPolyMax(),
                expansion.GetCoefficients(),
                {options.GetLambda(0), options.GetLambda(1), options.GetLambda(2)}};
    }

    /// The expansion from per-axis tables of psi (and of d^2/dx^2 psi where wanted).
    double Sum(const std::vector<double>& px, const std::vector<double>& py,
               const std::vector<double>& pz) const {
        double value = 0.0;
        for (unsigned int l = 0; l <= N; ++l) {
            for (unsigned int m = 0; m + l <= N; ++m) {
                for (unsigned int n = 0; n + m + l <= N; ++n) {
                    value += coeffs[QVHermiteMath::GetLmnIndex(l, m, n)] * px[l] * py[m] * pz[n];
                }
            }
        }
        return value;
    }

    std::vector<double> Axis(unsigned int axis, double x) const {
        return HermiteFunctions(N, lambda[axis] * x);
    }

    /// d^2/dx^2 psi_k(lambda x) = lambda^2 (u^2 - 2 k - 1) psi_k(u).
    std::vector<double> AxisSecond(unsigned int axis, double x) const {
        const double u = lambda[axis] * x;
        std::vector<double> psi = HermiteFunctions(N, u);
        for (unsigned int k = 0; k <= N; ++k) {
            psi[k] *= lambda[axis] * lambda[axis] * (u * u - 2.0 * k - 1.0);
        }
        return psi;
    }

    double Value(double x, double y, double z) const {
        return Sum(Axis(0, x), Axis(1, y), Axis(2, z));
    }
};

/// Renders `expansion` with the free function, coefficients reordered for grids.
bool RenderFree(const QVHermite& expansion, QVScalarGrid& grid, double spacing, double extent) {
    const DirectExpansion e = DirectExpansion::Of(expansion);
    return QVHermiteMath::CreateGrid(e.N, QVHermiteMath::reorder(e.N, e.coeffs), extent, grid,
                                     spacing, e.lambda[0], e.lambda[1], e.lambda[2]);
}

double MaxAbs(const QVScalarGrid& grid) {
    double largest = 0.0;
    for (float v : grid.GetValues()) {
        largest = std::max(largest, static_cast<double>(std::fabs(v)));
    }
    return largest;
}

/// The points of an n-point axis about `centre` with spacing s: centre + (i - (n - 1) / 2) s.
double AxisPoint(unsigned int n, unsigned int i, double spacing, double centre) {
    return centre + (static_cast<double>(i) - 0.5 * (n - 1.0)) * spacing;
}

/// Checks every value of `grid` against the direct evaluation of `e` at the point's
/// coordinates (computed here from the grid's centre and spacing).
void ExpectMatchesDirect(const QVScalarGrid& grid, const DirectExpansion& e) {
    const unsigned int n = grid.GetXDim();
    ASSERT_EQ(grid.GetYDim(), n);
    ASSERT_EQ(grid.GetZDim(), n);
    const double s = grid.GetSpacing();
    const double centre[3] = {grid.GetXCentre(), grid.GetYCentre(), grid.GetZCentre()};
    std::vector<std::vector<double>> tables[3];
    for (unsigned int axis = 0; axis < 3; ++axis) {
        for (unsigned int i = 0; i < n; ++i) {
            tables[axis].push_back(e.Axis(axis, AxisPoint(n, i, s, centre[axis])));
        }
    }
    double largest = 0.0;
    std::vector<double> direct(grid.GetSize());
    for (unsigned int iz = 0; iz < n; ++iz) {
        for (unsigned int iy = 0; iy < n; ++iy) {
            for (unsigned int ix = 0; ix < n; ++ix) {
                const double v = e.Sum(tables[0][ix], tables[1][iy], tables[2][iz]);
                direct[grid.GetIndex(ix, iy, iz)] = v;
                largest = std::max(largest, std::fabs(v));
            }
        }
    }
    ASSERT_GT(largest, 0.1);  // a real density, not an empty grid
    const double tolerance = 1e-5 * largest;
    unsigned int failures = 0;
    for (std::size_t i = 0; i < grid.GetSize() && failures < 10; ++i) {
        if (std::fabs(grid[i] - direct[i]) > tolerance) {
            ++failures;
            ADD_FAILURE() << "element " << i << ": grid " << grid[i] << ", direct " << direct[i];
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Grid size

TEST(GridRenderTest, ExtentZeroAndUnitSpacingGiveEightPoints) {
    MessageRecorder messages(/*throwOnFatal=*/true);
    QVScalarGrid grid;
    // 6 / 1 + 1 = 7, plus one: 8.
    ASSERT_TRUE(QVHermiteMath::CreateGrid(0, {1.0}, 0.0, grid, 1.0, 1.0, 1.0, 1.0));
    EXPECT_EQ(grid.GetXDim(), 8u);
    EXPECT_EQ(grid.GetYDim(), 8u);
    EXPECT_EQ(grid.GetZDim(), 8u);
    EXPECT_EQ(grid.GetSize(), 512u);
    EXPECT_EQ(grid.GetSpacing(), 1.0f);
    EXPECT_TRUE(messages.warnings.empty());
}

TEST(GridRenderTest, PointsPerAxisFollowTheExtentAndSpacing) {
    struct Case {
        double extent;
        double spacing;
        unsigned int n;
    };
    // n = trunc((extent + 6) / spacing + 1) + 1, worked by hand.
    const Case cases[] = {
        {0.0, 1.0, 8},      // 6 + 1 = 7 -> 8
        {2.0, 0.5, 18},     // 16 + 1 = 17 -> 18
        {3.3, 0.7, 15},     // 13.29 + 1 -> 14 -> 15
        {10.0, 2.0, 10},    // 8 + 1 = 9 -> 10
        {0.0, 1.5, 6},      // 4 + 1 = 5 -> 6
        {1.9, 0.35, 24},    // 22.57 + 1 -> 23 -> 24
        {24.0, 0.25, 122},  // 120 + 1 = 121 -> 122
        {0.5, 2.0, 5},      // 3.25 + 1 -> 4 -> 5
        {4.0, 3.0, 5},      // 3.33 + 1 -> 4 -> 5
    };
    MessageRecorder messages(/*throwOnFatal=*/true);
    for (const Case& c : cases) {
        QVScalarGrid grid;
        ASSERT_TRUE(QVHermiteMath::CreateGrid(0, {0.5}, c.extent, grid, c.spacing, 1.0, 1.0, 1.0));
        EXPECT_EQ(grid.GetXDim(), c.n) << "extent " << c.extent << " spacing " << c.spacing;
        EXPECT_EQ(grid.GetYDim(), c.n);
        EXPECT_EQ(grid.GetZDim(), c.n);
        EXPECT_EQ(grid.GetSpacing(), static_cast<float>(c.spacing));
    }
    EXPECT_TRUE(messages.warnings.empty());
}

TEST(GridRenderTest, SmallExtentWithLargeSpacingGivesFivePoints) {
    MessageRecorder messages(/*throwOnFatal=*/true);
    // Would-be sizes 2, 3 and 4 are all raised to 5.
    for (double spacing : {100.0, 6.0, 3.0}) {
        QVScalarGrid grid;
        ASSERT_TRUE(QVHermiteMath::CreateGrid(0, {1.0}, 0.1, grid, spacing, 1.0, 1.0, 1.0));
        EXPECT_EQ(grid.GetXDim(), 5u) << spacing;
        EXPECT_EQ(grid.GetSize(), 125u);
        EXPECT_EQ(grid.GetSpacing(), static_cast<float>(spacing));
    }
    EXPECT_TRUE(messages.warnings.empty());
}

TEST(GridRenderTest, TooFineSpacingIsClampedToThreeHundredPointsWithOneWarning) {
    // 6 / 0.01 + 1 = 601 -> 602 points wanted. Order 0 keeps the 27 million points cheap.
    MessageRecorder messages(/*throwOnFatal=*/true);
    QVScalarGrid grid;
    const double c0 = 0.75;
    const double lambda[3] = {0.9, 1.0, 1.1};
    ASSERT_TRUE(
        QVHermiteMath::CreateGrid(0, {c0}, 0.0, grid, 0.01, lambda[0], lambda[1], lambda[2]));
    EXPECT_EQ(grid.GetXDim(), 300u);
    EXPECT_EQ(grid.GetYDim(), 300u);
    EXPECT_EQ(grid.GetZDim(), 300u);
    EXPECT_EQ(grid.GetSpacing(), 0.01f);
    ASSERT_EQ(messages.warnings.size(), 1u);
    EXPECT_EQ(messages.warnings[0], kClampWarning);

    // The clamped grid is still filled: c0 exp(-(lx^2 x^2 + ly^2 y^2 + lz^2 z^2) / 2).
    const double s = grid.GetSpacing();
    for (unsigned int i : {0u, 149u, 150u, 299u}) {
        double expected = c0;
        const unsigned int index[3] = {i, 299u - i, 150u};
        for (unsigned int axis = 0; axis < 3; ++axis) {
            const double x = AxisPoint(300, index[axis], s, 0.0);
            expected *= std::exp(-0.5 * lambda[axis] * lambda[axis] * x * x);
        }
        EXPECT_NEAR(grid.GetValue(index[0], index[1], index[2]), expected, 1e-6) << i;
    }
}

// ---------------------------------------------------------------------------------------------
// Refused input

/// A 3 x 4 x 5 grid with recognisable values, spacing 0.5, centre (1, 2, 3).
QVScalarGrid Prefilled() {
    QVScalarGrid grid;
    grid.SetDim(3, 4, 5);
    grid.SetSpacing(0.5f);
    grid.SetCentre(1.0f, 2.0f, 3.0f);
    for (std::size_t i = 0; i < grid.GetSize(); ++i) {
        grid[i] = 1.0f + 0.5f * static_cast<float>(i);
    }
    return grid;
}

void ExpectPrefilled(const QVScalarGrid& grid) {
    EXPECT_EQ(grid.GetXDim(), 3u);
    EXPECT_EQ(grid.GetYDim(), 4u);
    EXPECT_EQ(grid.GetZDim(), 5u);
    EXPECT_EQ(grid.GetSpacing(), 0.5f);
    EXPECT_EQ(grid.GetXCentre(), 1.0f);
    EXPECT_EQ(grid.GetYCentre(), 2.0f);
    EXPECT_EQ(grid.GetZCentre(), 3.0f);
    ASSERT_EQ(grid.GetSize(), 60u);
    for (std::size_t i = 0; i < grid.GetSize(); ++i) {
        EXPECT_EQ(grid[i], 1.0f + 0.5f * static_cast<float>(i)) << "element " << i;
    }
}

TEST(GridRenderTest, WrongCoefficientCountReturnsFalseAndLeavesTheGridUntouched) {
    MessageRecorder messages(/*throwOnFatal=*/true);
    // Order 2 takes exactly 10 coefficients.
    for (std::size_t count : {0u, 1u, 9u, 11u, 20u}) {
        QVScalarGrid grid = Prefilled();
        const std::vector<double> coeffs(count, 0.25);
        EXPECT_FALSE(QVHermiteMath::CreateGrid(2, coeffs, 1.0, grid, 0.7, 1.0, 1.0, 1.0)) << count;
        ExpectPrefilled(grid);
    }
    // Order 0 takes one.
    QVScalarGrid grid = Prefilled();
    EXPECT_FALSE(QVHermiteMath::CreateGrid(0, {}, 1.0, grid, 0.7, 1.0, 1.0, 1.0));
    ExpectPrefilled(grid);
    EXPECT_TRUE(messages.warnings.empty());  // refused silently
}

TEST(GridRenderTest, WrongCoefficientCountWithTransformStillTransformsAndReturnsTrue) {
    MessageRecorder messages(/*throwOnFatal=*/true);
    const std::vector<double> tooFew(9, 0.25);

    // The identity leaves the untouched grid as it was.
    QVScalarGrid grid = Prefilled();
    EXPECT_TRUE(QVHermiteMath::CreateGrid(2, tooFew, 1.0, grid, 0.7, 1.0, 1.0, 1.0, QVTrans()));
    ExpectPrefilled(grid);

    // A shift by one spacing along x moves the old values one point up in x; the first x
    // layer has no preimage and becomes 0. Spacing 0.5 keeps every step exact.
    grid = Prefilled();
    const double rotation[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const double shift[3] = {0.5, 0.0, 0.0};
    EXPECT_TRUE(QVHermiteMath::CreateGrid(2, tooFew, 1.0, grid, 0.7, 1.0, 1.0, 1.0,
                                          QVTrans(rotation, shift)));
    EXPECT_EQ(grid.GetXDim(), 3u);
    EXPECT_EQ(grid.GetSpacing(), 0.5f);  // the grid's own spacing, not the 0.7 passed in
    const QVScalarGrid before = Prefilled();
    for (unsigned int iz = 0; iz < 5; ++iz) {
        for (unsigned int iy = 0; iy < 4; ++iy) {
            EXPECT_EQ(grid.GetValue(0, iy, iz), 0.0f);
            for (unsigned int ix = 1; ix < 3; ++ix) {
                EXPECT_NEAR(grid.GetValue(ix, iy, iz), before.GetValue(ix - 1, iy, iz), 1e-5);
            }
        }
    }
}

/// The message of the fatal error raised by rendering with `spacing` ("" if none).
std::string SpacingFailure(double spacing) {
    MessageRecorder messages(/*throwOnFatal=*/true);
    QVScalarGrid grid;
    try {
        QVHermiteMath::CreateGrid(0, {1.0}, 1.0, grid, spacing, 1.0, 1.0, 1.0);
    } catch (const FatalError& error) {
        return error.what();
    }
    return "";
}

TEST(GridRenderTest, ZeroSpacingIsFatal) {
    // With extent 1: 7 / 0 + 1 is infinite and 7 / 1e-300 + 1 far beyond 2^53, so neither has
    // an exact 64-bit point count.
    for (double spacing : {0.0, 1e-300}) {
        const std::string message = SpacingFailure(spacing);
        EXPECT_NE(message.find(" is greater than the maximum allowed"), std::string::npos)
            << spacing << ": " << message;
        EXPECT_NE(message.find(kConversionTail), std::string::npos) << message;
    }
}

TEST(GridRenderTest, InfiniteSpacingIsFatal) {
    const double infinity = std::numeric_limits<double>::infinity();
    std::string message = SpacingFailure(infinity);
    EXPECT_NE(message.find(" is greater than the maximum allowed"), std::string::npos) << message;
    EXPECT_NE(message.find(kConversionTail), std::string::npos) << message;

    message = SpacingFailure(-infinity);
    EXPECT_NE(message.find(" is less than the minimum"), std::string::npos) << message;
    EXPECT_NE(message.find(kConversionTail), std::string::npos) << message;
}

TEST(GridRenderTest, NegativeZeroSpacingIsFatalAsBelowTheMinimum) {
    // 7 / -0 + 1 is minus infinity.
    const std::string message = SpacingFailure(-0.0);
    EXPECT_NE(message.find(" is less than the minimum allowed"), std::string::npos) << message;
    EXPECT_NE(message.find(kConversionTail), std::string::npos) << message;
}

// ---------------------------------------------------------------------------------------------
// Values

TEST(GridRenderTest, EveryValueEqualsTheExpansionAtThePoint) {
    for (unsigned int N : {4u, 6u}) {
        SCOPED_TRACE(N);
        const QVHermite expansion = Expand(N, 0.85, 1.0, 1.15);
        MessageRecorder messages(/*throwOnFatal=*/true);
        QVScalarGrid grid;
        // Extent 2.5: 8.5 / 0.8 + 1 = 11.6 -> 11 -> 12 points per axis.
        ASSERT_TRUE(RenderFree(expansion, grid, 0.8, 2.5));
        ASSERT_EQ(grid.GetXDim(), 12u);
        ExpectMatchesDirect(grid, DirectExpansion::Of(expansion));
        EXPECT_TRUE(messages.warnings.empty());
    }
}

TEST(GridRenderTest, ValuesAreTakenAboutTheGridsCentre) {
    const QVHermite expansion = Expand(5, 0.9, 1.1, 1.0);
    QVScalarGrid grid;
    grid.SetCentre(0.3f, -0.2f, 0.45f);
    ASSERT_TRUE(RenderFree(expansion, grid, 0.6, 1.0));
    // The centre is kept and the values belong to points about it.
    EXPECT_EQ(grid.GetXCentre(), 0.3f);
    EXPECT_EQ(grid.GetYCentre(), -0.2f);
    EXPECT_EQ(grid.GetZCentre(), 0.45f);
    ExpectMatchesDirect(grid, DirectExpansion::Of(expansion));
}

TEST(GridRenderTest, CoefficientsMustBeInGridOrder) {
    // Handing the lmn-ordered vector directly renders a different function: the reordering is
    // what makes the values right (orders 1 and up differ in the two orders).
    const QVHermite expansion = Expand(4, 0.85, 1.0, 1.15);
    const DirectExpansion e = DirectExpansion::Of(expansion);
    QVScalarGrid right;
    QVScalarGrid wrong;
    ASSERT_TRUE(RenderFree(expansion, right, 0.8, 2.5));
    ASSERT_TRUE(QVHermiteMath::CreateGrid(e.N, e.coeffs, 2.5, wrong, 0.8, e.lambda[0], e.lambda[1],
                                          e.lambda[2]));
    double difference = 0.0;
    for (std::size_t i = 0; i < right.GetSize(); ++i) {
        difference = std::max(difference, static_cast<double>(std::fabs(right[i] - wrong[i])));
    }
    EXPECT_GT(difference, 1e-2 * MaxAbs(right));
}

TEST(GridRenderTest, ExpansionObjectRendersLikeTheFreeFunctionWithReorderedCoefficients) {
    const QVHermite expansion = Expand(5, 0.8, 1.05, 1.2);
    QVScalarGrid member;
    QVScalarGrid free;
    ASSERT_TRUE(expansion.CreateGrid(member, 0.7, 2.0));
    ASSERT_TRUE(RenderFree(expansion, free, 0.7, 2.0));
    ASSERT_EQ(member.GetSize(), free.GetSize());
    EXPECT_EQ(member.GetXDim(), free.GetXDim());
    EXPECT_EQ(member.GetSpacing(), free.GetSpacing());
    for (std::size_t i = 0; i < member.GetSize(); ++i) {
        ASSERT_EQ(member[i], free[i]) << "element " << i;  // the very same computation
    }

    // The same under a transform.
    const std::vector<double> r = QVHermiteMath::RotFromEulerXYZ(0.2, -0.3, 0.5);
    const double t[3] = {0.1, 0.2, -0.15};
    const QVTrans trans(r.data(), t);
    QVScalarGrid memberMoved;
    QVScalarGrid freeMoved;
    ASSERT_TRUE(expansion.CreateGrid(memberMoved, 0.7, 2.0, trans));
    const DirectExpansion e = DirectExpansion::Of(expansion);
    ASSERT_TRUE(QVHermiteMath::CreateGrid(e.N, QVHermiteMath::reorder(e.N, e.coeffs), 2.0,
                                          freeMoved, 0.7, e.lambda[0], e.lambda[1], e.lambda[2],
                                          trans));
    ASSERT_EQ(memberMoved.GetSize(), freeMoved.GetSize());
    for (std::size_t i = 0; i < memberMoved.GetSize(); ++i) {
        ASSERT_EQ(memberMoved[i], freeMoved[i]) << "element " << i;
    }
}

// ---------------------------------------------------------------------------------------------
// Rendering under a transform

TEST(GridRenderTest, IdentityTransformKeepsTheRendering) {
    const QVHermite expansion = Expand(4, 1.0, 1.0, 1.0);
    QVScalarGrid plain;
    QVScalarGrid moved;
    ASSERT_TRUE(expansion.CreateGrid(plain, 0.5, 1.0));
    ASSERT_TRUE(expansion.CreateGrid(moved, 0.5, 1.0, QVTrans()));
    ASSERT_EQ(moved.GetSize(), plain.GetSize());
    const double tolerance = 1e-6 * MaxAbs(plain);  // resampling at the grid points themselves
    for (std::size_t i = 0; i < plain.GetSize(); ++i) {
        ASSERT_NEAR(moved[i], plain[i], tolerance) << "element " << i;
    }
}

TEST(GridRenderTest, TranslationByOneSpacingShiftsTheValuesByOnePoint) {
    // p -> p + (0, -h, 0): the new value at (ix, iy, iz) is the old one at (ix, iy + 1, iz);
    // the last y layer has no preimage and is 0. Spacing 0.5 keeps the shift exact.
    const QVHermite expansion = Expand(4, 0.9, 1.0, 1.1);
    QVScalarGrid plain;
    QVScalarGrid moved;
    ASSERT_TRUE(expansion.CreateGrid(plain, 0.5, 1.0));
    const double rotation[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const double shift[3] = {0.0, -0.5, 0.0};
    ASSERT_TRUE(expansion.CreateGrid(moved, 0.5, 1.0, QVTrans(rotation, shift)));
    const unsigned int n = plain.GetXDim();
    const double tolerance = 1e-6 * MaxAbs(plain);
    for (unsigned int iz = 0; iz < n; ++iz) {
        for (unsigned int ix = 0; ix < n; ++ix) {
            for (unsigned int iy = 0; iy + 1 < n; ++iy) {
                ASSERT_NEAR(moved.GetValue(ix, iy, iz), plain.GetValue(ix, iy + 1, iz), tolerance)
                    << ix << " " << iy << " " << iz;
            }
            EXPECT_EQ(moved.GetValue(ix, n - 1, iz), 0.0f);
        }
    }
}

TEST(GridRenderTest, QuarterTurnAboutZMapsGridPointsOntoGridPoints) {
    // p -> R p with R (x, y, z) = (-y, x, z). For a grid centred at the origin the preimage of
    // point (ix, iy, iz) is the point (iy, n - 1 - ix, iz).
    const QVHermite expansion = Expand(5, 0.9, 1.0, 1.1);
    QVScalarGrid plain;
    QVScalarGrid moved;
    ASSERT_TRUE(expansion.CreateGrid(plain, 0.5, 1.5));
    const double quarter[9] = {0, -1, 0, 1, 0, 0, 0, 0, 1};
    const double zero[3] = {0.0, 0.0, 0.0};
    ASSERT_TRUE(expansion.CreateGrid(moved, 0.5, 1.5, QVTrans(quarter, zero)));
    const unsigned int n = plain.GetXDim();
    const double tolerance = 1e-6 * MaxAbs(plain);
    for (unsigned int iz = 0; iz < n; ++iz) {
        for (unsigned int iy = 0; iy < n; ++iy) {
            for (unsigned int ix = 0; ix < n; ++ix) {
                ASSERT_NEAR(moved.GetValue(ix, iy, iz), plain.GetValue(iy, n - 1 - ix, iz),
                            tolerance)
                    << ix << " " << iy << " " << iz;
            }
        }
    }
}

/// The largest |error| of a rendering under `trans` against the expansion evaluated at the
/// preimage of each point, over points whose preimage lies in the unmoved box; also the
/// interpolation bound for that spacing. Points whose preimage lies clearly outside the box
/// must be exactly 0.
struct TransformCheck {
    double maxError = 0.0;
    double bound = 0.0;
    double maxValue = 0.0;
    unsigned int inside = 0;
    unsigned int outside = 0;
    unsigned int nonZeroOutside = 0;  // must stay 0
};

TransformCheck CheckTransformedRendering(const QVHermite& expansion, double spacing,
                                         const std::vector<double>& r, const double* t) {
    const DirectExpansion e = DirectExpansion::Of(expansion);
    const float centre[3] = {0.25f, -0.25f, 0.125f};
    QVScalarGrid grid;
    grid.SetCentre(centre[0], centre[1], centre[2]);
    EXPECT_TRUE(expansion.CreateGrid(grid, spacing, 0.0, QVTrans(r.data(), t)));
    const unsigned int n = grid.GetXDim();
    const double h = grid.GetSpacing();

    // The unmoved box, and the largest |f_aa| over it sampled at half the spacing (the
    // extrema of these smooth functions are resolved well at that density; a factor 1.25
    // covers what falls between samples).
    double low[3];
    double high[3];
    const unsigned int fine = 2 * n - 1;
    std::vector<std::vector<double>> value[3];
    std::vector<std::vector<double>> second[3];
    for (unsigned int axis = 0; axis < 3; ++axis) {
        low[axis] = AxisPoint(n, 0, h, centre[axis]);
        high[axis] = AxisPoint(n, n - 1, h, centre[axis]);
        for (unsigned int i = 0; i < fine; ++i) {
            const double x = AxisPoint(fine, i, 0.5 * h, centre[axis]);
            value[axis].push_back(e.Axis(axis, x));
            second[axis].push_back(e.AxisSecond(axis, x));
        }
    }
    double maxSecond[3] = {0.0, 0.0, 0.0};
    TransformCheck check;
    for (unsigned int iz = 0; iz < fine; ++iz) {
        for (unsigned int iy = 0; iy < fine; ++iy) {
            for (unsigned int ix = 0; ix < fine; ++ix) {
                const auto& vx = value[0][ix];
                const auto& vy = value[1][iy];
                const auto& vz = value[2][iz];
                maxSecond[0] = std::max(maxSecond[0], std::fabs(e.Sum(second[0][ix], vy, vz)));
                maxSecond[1] = std::max(maxSecond[1], std::fabs(e.Sum(vx, second[1][iy], vz)));
                maxSecond[2] = std::max(maxSecond[2], std::fabs(e.Sum(vx, vy, second[2][iz])));
                check.maxValue = std::max(check.maxValue, std::fabs(e.Sum(vx, vy, vz)));
            }
        }
    }
    // Interpolation error plus the float error of the rendered values (see the value test).
    check.bound =
        1.25 * h * h / 8.0 * (maxSecond[0] + maxSecond[1] + maxSecond[2]) + 1e-5 * check.maxValue;

    for (unsigned int iz = 0; iz < n; ++iz) {
        for (unsigned int iy = 0; iy < n; ++iy) {
            for (unsigned int ix = 0; ix < n; ++ix) {
                const double q[3] = {AxisPoint(n, ix, h, centre[0]) - t[0],
                                     AxisPoint(n, iy, h, centre[1]) - t[1],
                                     AxisPoint(n, iz, h, centre[2]) - t[2]};
                // Preimage p = R^T (q - t).
                double p[3];
                bool in = true;
                bool out = false;
                for (int a = 0; a < 3; ++a) {
                    p[a] = r[a] * q[0] + r[3 + a] * q[1] + r[6 + a] * q[2];
                    in = in && p[a] >= low[a] + 1e-7 && p[a] <= high[a] - 1e-7;
                    out = out || p[a] < low[a] - 1e-7 || p[a] > high[a] + 1e-7;
                }
                const float rendered = grid.GetValue(ix, iy, iz);
                if (in) {
                    const double error = std::fabs(rendered - e.Value(p[0], p[1], p[2]));
                    check.maxError = std::max(check.maxError, error);
                    ++check.inside;
                } else if (out) {
                    if (rendered != 0.0f) {
                        ++check.nonZeroOutside;
                    }
                    ++check.outside;
                }
            }
        }
    }
    return check;
}

TEST(GridRenderTest, RenderingUnderATransformIsTheMovedDensityWithinInterpolationError) {
    const QVHermite expansion = Expand(6, 0.9, 1.0, 1.1);
    const std::vector<double> r = QVHermiteMath::RotFromEulerXYZ(0.4, -0.6, 0.9);
    const double t[3] = {0.2, -0.15, 0.1};

    const TransformCheck coarse = CheckTransformedRendering(expansion, 0.5, r, t);
    const TransformCheck fine = CheckTransformedRendering(expansion, 0.25, r, t);
    for (const TransformCheck* check : {&coarse, &fine}) {
        EXPECT_GT(check->inside, 1000u);
        EXPECT_GT(check->outside, 100u);
        EXPECT_EQ(check->nonZeroOutside, 0u);
        EXPECT_LE(check->maxError, check->bound);
    }
    // The bound is tight enough to mean something: at spacing 0.25 it is a few percent of the
    // density's peak, so a rotation or translation applied in the wrong convention (a shift of
    // a few tenths moves values by a good fraction of the peak) cannot pass.
    EXPECT_LT(fine.bound, 0.05 * fine.maxValue);
    // Halving the spacing cuts the second-order interpolation error by about four; the window
    // leaves room for higher-order terms at spacing 0.5 and rejects a first-order scheme (2).
    const double ratio = coarse.maxError / fine.maxError;
    EXPECT_GT(ratio, 2.5);
    EXPECT_LT(ratio, 6.0);
}

}  // namespace
