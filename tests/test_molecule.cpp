// Unit tests of the conversion of molecules and coordinate arrays into Gaussian densities:
// makeGaussians, makeShapeGaussians, makeElectrostaticGaussians, QVMolToGaussians and
// QVMolToElectroStaticGaussians.
//
// Oracles:
// - Shape density: every atom, whatever its element or charge, gets 2.7 exp(-0.811151803 r^2)
//   with both constants stored as float: 2.700000047683716 and 0.8111518025398254.
// - Electrostatic density of a charge q with width w: q / (sqrt(2 pi) w) exp(-r^2 / (2 w^2)),
//   i.e. prefactor 0.3989422804014327 q / w and exponent 1 / (2 w^2), stored as float.
//   Its integral over space is prefactor * (pi / exponent)^(3/2) = 2 pi w^2 q: the height is
//   the one-dimensional normalisation, so the integral equals q only for w = 1 / sqrt(2 pi).
// - Every record is narrowed to float once, from the double inputs; output order is input
//   order; the tag is 0.

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <vector>

#include "hermite/hermite.h"
#include "support/test_support.h"

namespace {

using QVChem::QVMol;
using QVHermiteMath::QVGaussian;

using hermite_test::ExpectSameGaussian;
using hermite_test::kPi;

// 1 / sqrt(2 pi).
constexpr double kInvSqrtTwoPi = 0.3989422804014327;
// The carbon constants as they read back from a float record.
constexpr double kShapePrefactorAsFloat = 2.700000047683716;
constexpr double kShapeExponentAsFloat = 0.8111518025398254;

void ExpectCentre(const QVGaussian& g, double x, double y, double z) {
    EXPECT_EQ(g.GetX(), static_cast<float>(x));
    EXPECT_EQ(g.GetY(), static_cast<float>(y));
    EXPECT_EQ(g.GetZ(), static_cast<float>(z));
}

void ExpectShapeGaussian(const QVGaussian& g, double x, double y, double z) {
    EXPECT_EQ(static_cast<double>(g.GetPrefactor()), kShapePrefactorAsFloat);
    EXPECT_EQ(static_cast<double>(g.GetExponent()), kShapeExponentAsFloat);
    ExpectCentre(g, x, y, z);
    EXPECT_EQ(g.GetTag(), 0u);
}

/// A small molecule with hydrogens and heavier elements, coordinates of which some are not
/// floats (0.1, 1/3, ...), and distinct partial charges including 0 and negative ones.
QVMol MixedMolecule() {
    QVMol mol;
    mol.SetTitle("mixed");
    mol.AddAtom(6, 0.0, 0.0, 0.0, -0.12);
    mol.AddAtom(1, 1.09, 0.1, -1.0 / 3.0, 0.06);
    mol.AddAtom(8, -1.2, 0.7, 0.25, -0.5);
    mol.AddAtom(17, 2.5, -1.75, 1.125, 0.0);
    mol.AddAtom(26, -0.3, -2.2, 3.3, 1.5);
    mol.AddAtom(1, 0.5, 0.5, 0.5, 0.06);
    return mol;
}

/// A molecule whose coordinates are exact floats.
QVMol DyadicMolecule() {
    QVMol mol;
    mol.AddAtom(6, 0.5, -1.25, 2.0, 0.25);
    mol.AddAtom(7, -0.75, 0.125, 0.0, -0.375);
    mol.AddAtom(1, 3.0, 1.5, -2.5, 0.125);
    return mol;
}

std::vector<double> CoordsOf(const QVMol& mol) {
    std::vector<double> coords(3 * static_cast<std::size_t>(mol.NumAtoms()));
    mol.GetCoords(coords.data());
    return coords;
}

std::vector<double> ChargesOf(const QVMol& mol) {
    std::vector<double> charges;
    for (const QVChem::QVAtom& atom : mol) {
        charges.push_back(atom.GetPartialCharge());
    }
    return charges;
}

// ---------------------------------------------------------------------------------------------
// Molecules

TEST(MoleculeGaussiansTest, MoleculeWithoutAtomsGivesNoGaussians) {
    const QVMol empty;
    EXPECT_TRUE(QVHermiteMath::QVMolToGaussians(empty).empty());
    EXPECT_TRUE(QVHermiteMath::QVMolToElectroStaticGaussians(empty, 1.0).empty());
    EXPECT_TRUE(QVHermiteMath::QVMolToElectroStaticGaussians(empty, 0.4).empty());
}

TEST(MoleculeGaussiansTest, EveryAtomGetsTheSameCarbonLikeShapeGaussianInAtomOrder) {
    const QVMol mol = MixedMolecule();
    const std::vector<QVGaussian> gaussians = QVHermiteMath::QVMolToGaussians(mol);
    ASSERT_EQ(gaussians.size(), mol.NumAtoms());
    unsigned int i = 0;
    for (const QVChem::QVAtom& atom : mol) {
        double xyz[3];
        atom.GetCoords(xyz);
        SCOPED_TRACE(i);
        // Hydrogen, carbon, oxygen, chlorine and iron alike; charges play no part.
        ExpectShapeGaussian(gaussians[i], xyz[0], xyz[1], xyz[2]);
        ++i;
    }
}

TEST(MoleculeGaussiansTest, ShapeConstantsAreTheCarbonValuesNarrowedToFloat) {
    const std::vector<QVGaussian> gaussians = QVHermiteMath::makeShapeGaussians({0.0, 0.0, 0.0});
    ASSERT_EQ(gaussians.size(), 1u);
    EXPECT_EQ(gaussians[0].GetPrefactor(), static_cast<float>(2.7));
    EXPECT_EQ(gaussians[0].GetExponent(), static_cast<float>(0.811151803));
    EXPECT_EQ(static_cast<double>(gaussians[0].GetPrefactor()), kShapePrefactorAsFloat);
    EXPECT_EQ(static_cast<double>(gaussians[0].GetExponent()), kShapeExponentAsFloat);
}

TEST(MoleculeGaussiansTest, MoleculeShapeEqualsShapeOfItsCoordinates) {
    const QVMol mol = MixedMolecule();
    const std::vector<QVGaussian> fromMol = QVHermiteMath::QVMolToGaussians(mol);
    const std::vector<QVGaussian> fromCoords = QVHermiteMath::makeShapeGaussians(CoordsOf(mol));
    ASSERT_EQ(fromMol.size(), fromCoords.size());
    for (std::size_t i = 0; i < fromMol.size(); ++i) {
        SCOPED_TRACE(i);
        ExpectSameGaussian(fromMol[i], fromCoords[i]);
    }
}

TEST(MoleculeGaussiansTest, MoleculeIsLeftUnchanged) {
    const QVMol mol = MixedMolecule();
    const std::vector<double> before = CoordsOf(mol);
    QVHermiteMath::QVMolToGaussians(mol);
    QVHermiteMath::QVMolToElectroStaticGaussians(mol, 0.8);
    EXPECT_EQ(CoordsOf(mol), before);
    EXPECT_EQ(mol.NumAtoms(), 6u);
    EXPECT_EQ(mol.GetTitle(), "mixed");
}

TEST(MoleculeGaussiansTest, ElectrostaticGaussiansOfAMoleculeFollowItsCharges) {
    const QVMol mol = MixedMolecule();
    const double w = 0.8;
    const std::vector<QVGaussian> gaussians = QVHermiteMath::QVMolToElectroStaticGaussians(mol, w);
    ASSERT_EQ(gaussians.size(), mol.NumAtoms());
    unsigned int i = 0;
    for (const QVChem::QVAtom& atom : mol) {
        SCOPED_TRACE(i);
        const double q = atom.GetPartialCharge();
        double xyz[3];
        atom.GetCoords(xyz);
        // q / (sqrt(2 pi) w), computed here from pi; one float rounding apart at most.
        EXPECT_FLOAT_EQ(gaussians[i].GetPrefactor(),
                        static_cast<float>(q / (std::sqrt(2.0 * kPi) * w)));
        EXPECT_EQ(gaussians[i].GetExponent(), static_cast<float>(0.5 / (w * w)));
        ExpectCentre(gaussians[i], xyz[0], xyz[1], xyz[2]);
        EXPECT_EQ(gaussians[i].GetTag(), 0u);
        ++i;
    }
    // The zero charge (atom 3) is kept, with height 0; negative charges give negative heights.
    EXPECT_EQ(gaussians[3].GetPrefactor(), 0.0f);
    EXPECT_LT(gaussians[0].GetPrefactor(), 0.0f);
    EXPECT_LT(gaussians[2].GetPrefactor(), 0.0f);
    EXPECT_GT(gaussians[4].GetPrefactor(), 0.0f);
}

TEST(MoleculeGaussiansTest, MoleculeElectrostaticsEqualTheArrayVersionForFloatCoordinates) {
    // With coordinates that are floats, reading them from the molecule in single precision
    // loses nothing, so both routes give identical records.
    const QVMol mol = DyadicMolecule();
    for (double w : {1.0, 0.5, 0.7, 1.3}) {
        SCOPED_TRACE(w);
        const std::vector<QVGaussian> fromMol =
            QVHermiteMath::QVMolToElectroStaticGaussians(mol, w);
        const std::vector<QVGaussian> fromArrays =
            QVHermiteMath::makeElectrostaticGaussians(CoordsOf(mol), ChargesOf(mol), w);
        ASSERT_EQ(fromMol.size(), fromArrays.size());
        for (std::size_t i = 0; i < fromMol.size(); ++i) {
            ExpectSameGaussian(fromMol[i], fromArrays[i]);
        }
    }
}

TEST(MoleculeGaussiansTest, MoleculeElectrostaticsMatchTheArrayVersionUpToCentreRounding) {
    // Coordinates such as 0.1 and 1/3 are not floats: the centres are the nearest floats on
    // both routes; heights and exponents agree to float precision.
    const QVMol mol = MixedMolecule();
    const double w = 0.7;
    const std::vector<QVGaussian> fromMol = QVHermiteMath::QVMolToElectroStaticGaussians(mol, w);
    const std::vector<double> coords = CoordsOf(mol);
    const std::vector<QVGaussian> fromArrays =
        QVHermiteMath::makeElectrostaticGaussians(coords, ChargesOf(mol), w);
    ASSERT_EQ(fromMol.size(), fromArrays.size());
    for (std::size_t i = 0; i < fromMol.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_FLOAT_EQ(fromMol[i].GetPrefactor(), fromArrays[i].GetPrefactor());
        EXPECT_FLOAT_EQ(fromMol[i].GetExponent(), fromArrays[i].GetExponent());
        // A float centre is within half a float ulp of the double coordinate.
        const float centre[3] = {fromMol[i].GetX(), fromMol[i].GetY(), fromMol[i].GetZ()};
        for (int k = 0; k < 3; ++k) {
            const double exact = coords[3 * i + k];
            EXPECT_LE(std::fabs(centre[k] - exact), 0.5 * std::fabs(exact) * 1.2e-7);
        }
        ExpectCentre(fromMol[i], coords[3 * i], coords[3 * i + 1], coords[3 * i + 2]);
    }
}

TEST(MoleculeGaussiansTest, MoleculeElectrostaticExponentIsHalfOverWidthSquaredAsFloat) {
    const QVMol mol = DyadicMolecule();
    for (double w : {0.3, 0.7, 1.0, 2.5}) {
        const std::vector<QVGaussian> gaussians =
            QVHermiteMath::QVMolToElectroStaticGaussians(mol, w);
        ASSERT_EQ(gaussians.size(), 3u);
        for (const QVGaussian& g : gaussians) {
            EXPECT_EQ(g.GetExponent(), static_cast<float>(0.5 / (w * w))) << w;
            // Independently: 1 / (2 w^2) to float precision.
            EXPECT_FLOAT_EQ(g.GetExponent(), static_cast<float>(1.0 / (2.0 * w * w))) << w;
        }
    }
}

// ---------------------------------------------------------------------------------------------
// Coordinate arrays

TEST(MoleculeGaussiansTest, ShapeGaussiansIgnoreOneOrTwoTrailingValues) {
    const std::vector<double> six = {1.0, 2.0, 3.0, -4.0, 5.5, -6.25};
    for (std::size_t extra = 0; extra < 3; ++extra) {
        std::vector<double> coords = six;
        for (std::size_t k = 0; k < extra; ++k) {
            coords.push_back(100.0 + k);
        }
        const std::vector<QVGaussian> gaussians = QVHermiteMath::makeShapeGaussians(coords);
        ASSERT_EQ(gaussians.size(), 2u) << coords.size() << " values";
        ExpectShapeGaussian(gaussians[0], 1.0, 2.0, 3.0);
        ExpectShapeGaussian(gaussians[1], -4.0, 5.5, -6.25);
    }
    // Fewer than three values make no point at all.
    EXPECT_TRUE(QVHermiteMath::makeShapeGaussians({}).empty());
    EXPECT_TRUE(QVHermiteMath::makeShapeGaussians({1.0}).empty());
    EXPECT_TRUE(QVHermiteMath::makeShapeGaussians({1.0, 2.0}).empty());
}

TEST(MoleculeGaussiansTest, MakeGaussiansTakesItsCountFromThePrefactors) {
    // Two prefactors; the exponents and coordinates hold more, which is ignored.
    const std::vector<QVGaussian> gaussians = QVHermiteMath::makeGaussians(
        {0.1, -2.5}, {0.3, 1.7, 99.0, 99.0}, {0.1, 0.2, 0.3, -1.0, 1.0 / 3.0, 2.0, 7.0, 7.0, 7.0});
    ASSERT_EQ(gaussians.size(), 2u);
    EXPECT_EQ(gaussians[0].GetPrefactor(), 0.1f);
    EXPECT_EQ(gaussians[0].GetExponent(), 0.3f);
    ExpectCentre(gaussians[0], 0.1, 0.2, 0.3);
    EXPECT_EQ(gaussians[1].GetPrefactor(), -2.5f);
    EXPECT_EQ(gaussians[1].GetExponent(), 1.7f);
    ExpectCentre(gaussians[1], -1.0, 1.0 / 3.0, 2.0);
    for (const QVGaussian& g : gaussians) {
        EXPECT_EQ(g.GetTag(), 0u);
    }

    // No prefactors, no Gaussians, whatever else is given.
    EXPECT_TRUE(QVHermiteMath::makeGaussians({}, {1.0}, {1.0, 2.0, 3.0}).empty());
}

TEST(MoleculeGaussiansTest, MakeGaussiansNarrowsEachValueToTheNearestFloat) {
    // Values just above a float by 0.75 ulp round up; truncation would round down.
    const double ulp = std::ldexp(1.0, -23);
    const double v = 1.0 + 0.75 * ulp;
    const std::vector<QVGaussian> gaussians = QVHermiteMath::makeGaussians({v}, {v}, {v, -v, v});
    ASSERT_EQ(gaussians.size(), 1u);
    const float up = static_cast<float>(1.0 + ulp);
    EXPECT_EQ(gaussians[0].GetPrefactor(), up);
    EXPECT_EQ(gaussians[0].GetExponent(), up);
    EXPECT_EQ(gaussians[0].GetX(), up);
    EXPECT_EQ(gaussians[0].GetY(), -up);
    EXPECT_EQ(gaussians[0].GetZ(), up);
}

TEST(MoleculeGaussiansTest, ElectrostaticZeroChargeIsKeptAndNegativeChargeIsNegative) {
    const std::vector<double> coords = {0.0, 0.0, 0.0, 1.0, 0.0, 0.0, 0.0, 2.0, 0.0};
    const std::vector<QVGaussian> gaussians =
        QVHermiteMath::makeElectrostaticGaussians(coords, {0.0, -0.5, 0.25}, 1.0);
    ASSERT_EQ(gaussians.size(), 3u);  // the neutral atom is not skipped
    EXPECT_EQ(gaussians[0].GetPrefactor(), 0.0f);
    EXPECT_EQ(gaussians[0].GetExponent(), 0.5f);
    ExpectCentre(gaussians[0], 0.0, 0.0, 0.0);
    EXPECT_LT(gaussians[1].GetPrefactor(), 0.0f);
    EXPECT_EQ(gaussians[1].GetPrefactor(), -2.0f * gaussians[2].GetPrefactor());
    ExpectCentre(gaussians[1], 1.0, 0.0, 0.0);
    ExpectCentre(gaussians[2], 0.0, 2.0, 0.0);
}

TEST(MoleculeGaussiansTest, ElectrostaticUnitWidthGivesPrefactorOverSqrtTwoPiAndExponentHalf) {
    const std::vector<double> charges = {1.0, -1.0, 0.3, -0.834, 2.0, 1e-3};
    const std::vector<double> coords(3 * charges.size(), 0.5);
    const std::vector<QVGaussian> gaussians =
        QVHermiteMath::makeElectrostaticGaussians(coords, charges, 1.0);
    ASSERT_EQ(gaussians.size(), charges.size());
    for (std::size_t i = 0; i < charges.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(gaussians[i].GetPrefactor(), static_cast<float>(kInvSqrtTwoPi * charges[i]));
        EXPECT_EQ(gaussians[i].GetExponent(), 0.5f);
        // The constant is 1 / sqrt(2 pi) indeed.
        EXPECT_FLOAT_EQ(gaussians[i].GetPrefactor(),
                        static_cast<float>(charges[i] / std::sqrt(2.0 * kPi)));
    }
}

TEST(MoleculeGaussiansTest, ElectrostaticWidthScalesHeightAndExponent) {
    const std::vector<double> coords = {0.25, -0.5, 1.0};
    const double q = -0.6;
    for (double w : {0.25, 0.5, 0.9, 2.0}) {
        const std::vector<QVGaussian> gaussians =
            QVHermiteMath::makeElectrostaticGaussians(coords, {q}, w);
        ASSERT_EQ(gaussians.size(), 1u);
        EXPECT_FLOAT_EQ(gaussians[0].GetPrefactor(),
                        static_cast<float>(q / (std::sqrt(2.0 * kPi) * w)))
            << w;
        EXPECT_FLOAT_EQ(gaussians[0].GetExponent(), static_cast<float>(1.0 / (2.0 * w * w))) << w;
        ExpectCentre(gaussians[0], 0.25, -0.5, 1.0);
    }
    // Dyadic widths give exact exponents: 1 / (2 * 0.25^2) = 8, 1 / (2 * 2^2) = 0.125.
    EXPECT_EQ(QVHermiteMath::makeElectrostaticGaussians(coords, {q}, 0.25)[0].GetExponent(), 8.0f);
    EXPECT_EQ(QVHermiteMath::makeElectrostaticGaussians(coords, {q}, 2.0)[0].GetExponent(), 0.125f);
}

TEST(MoleculeGaussiansTest, ElectrostaticCountComesFromTheCoordinates) {
    // Four charges for two whole points (and one trailing value): two Gaussians, the first two
    // charges.
    const std::vector<QVGaussian> gaussians = QVHermiteMath::makeElectrostaticGaussians(
        {0.0, 0.0, 0.0, 1.0, 1.0, 1.0, 9.0}, {0.5, -0.25, 7.0, 7.0}, 1.0);
    ASSERT_EQ(gaussians.size(), 2u);
    EXPECT_EQ(gaussians[0].GetPrefactor(), static_cast<float>(kInvSqrtTwoPi * 0.5));
    EXPECT_EQ(gaussians[1].GetPrefactor(), static_cast<float>(kInvSqrtTwoPi * -0.25));
    EXPECT_TRUE(QVHermiteMath::makeElectrostaticGaussians({}, {}, 1.0).empty());
}

TEST(MoleculeGaussiansTest, ElectrostaticGaussianIntegratesToTwoPiWidthSquaredTimesCharge) {
    // The integral of p exp(-a r^2) over space is p (pi / a)^(3/2). With p = q / (sqrt(2 pi) w)
    // and a = 1 / (2 w^2) it is 2 pi w^2 q. Evaluated from the float records, so agreement is
    // to float precision (a few 1e-7 relative).
    const std::vector<double> coords = {0.0, 0.0, 0.0};
    const double invSqrtTwoPi = 1.0 / std::sqrt(2.0 * kPi);
    for (double w : {invSqrtTwoPi, 0.5, 1.0, 1.7}) {
        for (double q : {1.0, -0.42, 0.075}) {
            const QVGaussian g = QVHermiteMath::makeElectrostaticGaussians(coords, {q}, w)[0];
            const double p = g.GetPrefactor();
            const double a = g.GetExponent();
            const double integral = p * std::pow(kPi / a, 1.5);
            EXPECT_NEAR(integral, 2.0 * kPi * w * w * q, 1e-6 * std::fabs(2.0 * kPi * w * w * q))
                << "w " << w << " q " << q;
            if (w == invSqrtTwoPi) {
                // The width at which the Gaussian carries exactly its charge.
                EXPECT_NEAR(integral, q, 1e-6 * std::fabs(q));
            }
        }
    }
}

TEST(MoleculeGaussiansTest, ElectrostaticOrderFollowsTheInput) {
    const std::vector<double> coords = {3.0, 0.0, 0.0, 2.0, 0.0, 0.0, 1.0, 0.0, 0.0};
    const std::vector<double> charges = {0.3, 0.2, 0.1};
    const std::vector<QVGaussian> gaussians =
        QVHermiteMath::makeElectrostaticGaussians(coords, charges, 1.0);
    ASSERT_EQ(gaussians.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(gaussians[i].GetX(), static_cast<float>(coords[3 * i]));
        EXPECT_EQ(gaussians[i].GetPrefactor(), static_cast<float>(kInvSqrtTwoPi * charges[i]));
    }
}

}  // namespace
