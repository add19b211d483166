// Unit tests of the molecule and rigid-transform records of the platform layer: QVChem::QVAtom,
// QVChem::QVMol and QVChem::QVTrans.
//
// Oracles: hand-worked values for molecules and for quarter-turn rotations (whose matrices are
// exact in double precision), and the algebra of rigid motions for general rotations:
// - T(p) = R p + t; T.Then(U)(p) = U(T(p));
// - R p + t = R (p + t') with t' = R^T t for an orthogonal R;
// - T.Inverse()(T(p)) = p, T.Then(T.Inverse()) is the identity.
// General rotations are built here from three angles as Rx(a) Ry(b) Rz(c), independently of the
// library's own Euler helpers.

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <string>
#include <vector>

#include "qv/chem.h"

namespace {

using QVChem::QVAtom;
using QVChem::QVMol;
using QVChem::QVTrans;

// Double-precision round-off of a few products of unit-sized numbers.
constexpr double kRoundOff = 1e-14;

// A proper rotation Rx(a) Ry(b) Rz(c), row-major, acting on column vectors.
std::vector<double> ChemRotation(double a, double b, double c) {
    const double ca = std::cos(a), sa = std::sin(a);
    const double cb = std::cos(b), sb = std::sin(b);
    const double cc = std::cos(c), sc = std::sin(c);
    const double rx[9] = {1, 0, 0, 0, ca, -sa, 0, sa, ca};
    const double ry[9] = {cb, 0, sb, 0, 1, 0, -sb, 0, cb};
    const double rz[9] = {cc, -sc, 0, sc, cc, 0, 0, 0, 1};
    double rxy[9];
    std::vector<double> r(9);
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            rxy[3 * i + j] = 0.0;
            for (int k = 0; k < 3; ++k) {
                rxy[3 * i + j] += rx[3 * i + k] * ry[3 * k + j];
            }
        }
    }
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            for (int k = 0; k < 3; ++k) {
                r[3 * i + j] += rxy[3 * i + k] * rz[3 * k + j];
            }
        }
    }
    return r;
}

// R p + t computed in the test.
std::vector<double> RigidMotion(const std::vector<double>& r, const double* t, const double* p) {
    std::vector<double> q(3);
    for (int i = 0; i < 3; ++i) {
        q[i] = r[3 * i] * p[0] + r[3 * i + 1] * p[1] + r[3 * i + 2] * p[2] + t[i];
    }
    return q;
}

void ExpectPoint(const double* actual, double x, double y, double z, double tolerance) {
    EXPECT_NEAR(actual[0], x, tolerance);
    EXPECT_NEAR(actual[1], y, tolerance);
    EXPECT_NEAR(actual[2], z, tolerance);
}

void ExpectIdentity(const QVTrans& trans, double tolerance) {
    double rotation[9];
    double translation[3];
    trans.Extract(rotation, translation, true);
    for (int i = 0; i < 9; ++i) {
        EXPECT_NEAR(rotation[i], (i % 4 == 0) ? 1.0 : 0.0, tolerance) << "entry " << i;
    }
    ExpectPoint(translation, 0.0, 0.0, 0.0, tolerance);
}

// A quarter turn about z: (x, y, z) -> (-y, x, z). Exact in double precision.
constexpr double kQuarterTurnZ[9] = {0, -1, 0, 1, 0, 0, 0, 0, 1};
// A quarter turn about x: (x, y, z) -> (x, -z, y).
constexpr double kQuarterTurnX[9] = {1, 0, 0, 0, 0, -1, 0, 1, 0};
constexpr double kNoRotation[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};

// ---------------------------------------------------------------------------------------------
// QVMol and QVAtom

TEST(QVMolTest, NewMoleculeHasNoAtomsAndAnEmptyTitle) {
    const QVMol mol;
    EXPECT_EQ(mol.NumAtoms(), 0u);
    EXPECT_TRUE(mol.begin() == mol.end());
    EXPECT_EQ(mol.GetTitle(), "");
}

TEST(QVMolTest, AddAtomAppendsAndReturnsTheNewAtom) {
    QVMol mol;
    QVAtom& first = mol.AddAtom(6, 1.5, -2.25, 3.0, -0.125);
    EXPECT_EQ(first.GetAtomicNumber(), 6u);
    EXPECT_EQ(first.GetPartialCharge(), -0.125);
    EXPECT_EQ(mol.NumAtoms(), 1u);

    // The returned reference is the stored atom: changing it changes the molecule.
    first.SetPartialCharge(0.5);
    EXPECT_EQ(mol.GetAtom(0).GetPartialCharge(), 0.5);

    mol.AddAtom(1, 0.0, 0.0, 1.0, 0.25);
    mol.AddAtom(8, -1.0, 0.5, 0.0, -0.75);
    ASSERT_EQ(mol.NumAtoms(), 3u);
    EXPECT_EQ(mol.GetAtom(0).GetAtomicNumber(), 6u);
    EXPECT_EQ(mol.GetAtom(1).GetAtomicNumber(), 1u);
    EXPECT_EQ(mol.GetAtom(2).GetAtomicNumber(), 8u);
}

TEST(QVMolTest, GetCoordsWritesEveryAtomInOrderAndNothingMore) {
    QVMol mol;
    mol.AddAtom(6, 0.1, 0.2, 0.3, 0.0);
    mol.AddAtom(7, -1.5, 2.5, -3.5, 0.0);
    mol.AddAtom(1, 1e-3, -1e3, 7.0, 0.0);

    // A sentinel after the 9 coordinates must stay untouched.
    std::vector<double> coords(10, -99.0);
    mol.GetCoords(coords.data());
    const double expected[9] = {0.1, 0.2, 0.3, -1.5, 2.5, -3.5, 1e-3, -1e3, 7.0};
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(coords[i], expected[i]) << "coordinate " << i;  // doubles are copied as is
    }
    EXPECT_EQ(coords[9], -99.0);
}

TEST(QVMolTest, GetCoordsOfAnEmptyMoleculeWritesNothing) {
    const QVMol mol;
    double sentinel[3] = {4.0, 5.0, 6.0};
    mol.GetCoords(sentinel);
    ExpectPoint(sentinel, 4.0, 5.0, 6.0, 0.0);
}

TEST(QVMolTest, IterationVisitsAllAtomsInInsertionOrder) {
    QVMol mol;
    const unsigned int elements[5] = {1, 6, 8, 17, 1};
    for (unsigned int i = 0; i < 5; ++i) {
        mol.AddAtom(elements[i], i, 2.0 * i, -1.0 * i, 0.1 * i);
    }
    unsigned int visited = 0;
    for (const QVAtom& atom : mol) {
        ASSERT_LT(visited, 5u);
        EXPECT_EQ(atom.GetAtomicNumber(), elements[visited]);
        double xyz[3];
        atom.GetCoords(xyz);
        ExpectPoint(xyz, visited, 2.0 * visited, -1.0 * visited, 0.0);
        EXPECT_EQ(atom.GetPartialCharge(), 0.1 * visited);
        ++visited;
    }
    EXPECT_EQ(visited, 5u);
}

TEST(QVMolTest, GetAtomGivesMutableAccessToOneAtom) {
    QVMol mol;
    mol.AddAtom(6, 0.0, 0.0, 0.0, 0.0);
    mol.AddAtom(8, 1.0, 1.0, 1.0, -0.4);
    mol.GetAtom(1).SetCoords(-2.0, 3.0, 4.5);
    mol.GetAtom(1).SetPartialCharge(0.3);

    const QVMol& view = mol;
    double xyz[3];
    view.GetAtom(1).GetCoords(xyz);
    ExpectPoint(xyz, -2.0, 3.0, 4.5, 0.0);
    EXPECT_EQ(view.GetAtom(1).GetPartialCharge(), 0.3);
    // The other atom is unchanged.
    view.GetAtom(0).GetCoords(xyz);
    ExpectPoint(xyz, 0.0, 0.0, 0.0, 0.0);

    std::vector<double> all(6);
    mol.GetCoords(all.data());
    EXPECT_EQ(all[3], -2.0);
    EXPECT_EQ(all[5], 4.5);
}

TEST(QVMolTest, PartialChargesAreStoredPerAtom) {
    QVMol mol;
    const double charges[4] = {-0.834, 0.417, 0.417, 0.0};
    for (double q : charges) {
        mol.AddAtom(1, 0.0, 0.0, 0.0, q);
    }
    double total = 0.0;
    unsigned int i = 0;
    for (const QVAtom& atom : mol) {
        EXPECT_EQ(atom.GetPartialCharge(), charges[i++]);
        total += atom.GetPartialCharge();
    }
    EXPECT_NEAR(total, 0.0, kRoundOff);
}

TEST(QVMolTest, TitleCanBeSetAndRead) {
    QVMol mol;
    mol.SetTitle("benzene, planar");
    EXPECT_EQ(mol.GetTitle(), "benzene, planar");
    mol.SetTitle("");
    EXPECT_EQ(mol.GetTitle(), "");
}

TEST(QVMolTest, CopiesAreIndependent) {
    QVMol mol;
    mol.AddAtom(6, 1.0, 2.0, 3.0, 0.1);
    QVMol copy = mol;
    copy.GetAtom(0).SetCoords(9.0, 9.0, 9.0);
    copy.AddAtom(1, 0.0, 0.0, 0.0, 0.0);
    EXPECT_EQ(mol.NumAtoms(), 1u);
    double xyz[3];
    mol.GetAtom(0).GetCoords(xyz);
    ExpectPoint(xyz, 1.0, 2.0, 3.0, 0.0);
}

TEST(QVMolTest, AtomFloatCoordinatesAreRoundedToNearest) {
    // 1 + 0.75 float ulp lies between the floats 1 and 1 + 2^-23, nearer the upper one:
    // rounding to nearest gives 1 + 2^-23, truncation would give 1.
    const double ulp = std::ldexp(1.0, -23);
    const double above = 1.0 + 0.75 * ulp;
    // 3 + 0.25 float ulp (ulp of 3 is 2^-22) rounds down to 3.
    const double below = 3.0 + 0.25 * std::ldexp(1.0, -22);
    const QVAtom atom(6, above, -above, below, 0.0);

    float xyz[3];
    atom.GetCoords(xyz);
    EXPECT_EQ(xyz[0], static_cast<float>(1.0 + ulp));
    EXPECT_EQ(xyz[1], static_cast<float>(-(1.0 + ulp)));
    EXPECT_EQ(xyz[2], 3.0f);

    // A value that is not a float: 0.1 becomes the float nearest to it.
    const QVAtom tenth(1, 0.1, 1.0 / 3.0, -2.5, 0.0);
    tenth.GetCoords(xyz);
    EXPECT_EQ(xyz[0], 0.1f);
    EXPECT_EQ(xyz[1], 1.0f / 3.0f);
    EXPECT_EQ(xyz[2], -2.5f);
    EXPECT_NE(static_cast<double>(xyz[0]), 0.1);  // really rounded, not kept in double

    // The double overload keeps the full value.
    double exact[3];
    atom.GetCoords(exact);
    ExpectPoint(exact, above, -above, below, 0.0);
}

// ---------------------------------------------------------------------------------------------
// QVTrans

TEST(QVTransTest, DefaultTransformIsTheIdentity) {
    const QVTrans identity;
    ExpectIdentity(identity, 0.0);
    double p[3] = {1.25, -3.5, 7.0};
    identity.Apply(p);
    ExpectPoint(p, 1.25, -3.5, 7.0, 0.0);
}

TEST(QVTransTest, ApplyRotatesAboutTheOriginThenTranslates) {
    const double t[3] = {1.0, 2.0, 3.0};
    const QVTrans trans(kQuarterTurnZ, t);
    // (1, 0, 0) -> (0, 1, 0) -> (1, 3, 3); translating first would give (-2, 2, 3).
    double p[3] = {1.0, 0.0, 0.0};
    trans.Apply(p);
    ExpectPoint(p, 1.0, 3.0, 3.0, 0.0);
    // (2, -1, 5) -> (1, 2, 5) -> (2, 4, 8).
    double q[3] = {2.0, -1.0, 5.0};
    trans.Apply(q);
    ExpectPoint(q, 2.0, 4.0, 8.0, 0.0);
}

TEST(QVTransTest, ApplyMatchesRPlusTForAGeneralRotation) {
    const std::vector<double> r = ChemRotation(0.4, -1.1, 2.3);
    const double t[3] = {-0.7, 1.9, 0.35};
    const QVTrans trans(r.data(), t);
    const double p0[3] = {1.5, -0.25, 2.0};
    double p[3] = {p0[0], p0[1], p0[2]};
    trans.Apply(p);
    const std::vector<double> expected = RigidMotion(r, t, p0);
    ExpectPoint(p, expected[0], expected[1], expected[2], kRoundOff);
}

TEST(QVTransTest, ExtractRotateFirstGivesTheConstructorArguments) {
    const std::vector<double> r = ChemRotation(0.3, 0.2, -0.9);
    const double t[3] = {4.0, -5.0, 0.5};
    const QVTrans trans(r.data(), t);
    double rotation[9];
    double translation[3];
    trans.Extract(rotation, translation, true);
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(rotation[i], r[i]) << "entry " << i;
    }
    ExpectPoint(translation, 4.0, -5.0, 0.5, 0.0);
}

TEST(QVTransTest, ExtractTranslateFirstGivesRTransposeT) {
    // With the quarter turn about z, R^T t = (t_y, -t_x, t_z) = (2, -1, 3).
    const double t[3] = {1.0, 2.0, 3.0};
    const QVTrans trans(kQuarterTurnZ, t);
    double rotation[9];
    double translation[3];
    trans.Extract(rotation, translation, false);
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(rotation[i], kQuarterTurnZ[i]) << "entry " << i;
    }
    ExpectPoint(translation, 2.0, -1.0, 3.0, 0.0);
}

TEST(QVTransTest, BothExtractModesDescribeTheSameMotion) {
    const std::vector<double> r = ChemRotation(-0.8, 0.6, 1.7);
    const double t[3] = {0.9, -2.2, 1.3};
    const QVTrans trans(r.data(), t);
    double rotation[9];
    double shift[3];
    double preShift[3];
    trans.Extract(rotation, shift, true);
    trans.Extract(rotation, preShift, false);

    const double points[3][3] = {{0.0, 0.0, 0.0}, {1.0, -2.0, 0.5}, {-3.5, 0.25, 4.0}};
    for (const auto& p : points) {
        // R p + t ...
        const std::vector<double> rotateFirst =
            RigidMotion(std::vector<double>(rotation, rotation + 9), shift, p);
        // ... equals R (p + t').
        const double moved[3] = {p[0] + preShift[0], p[1] + preShift[1], p[2] + preShift[2]};
        const double zero[3] = {0.0, 0.0, 0.0};
        const std::vector<double> translateFirst =
            RigidMotion(std::vector<double>(rotation, rotation + 9), zero, moved);
        ExpectPoint(translateFirst.data(), rotateFirst[0], rotateFirst[1], rotateFirst[2], 1e-13);
    }
}

TEST(QVTransTest, ThenAppliesThisTransformFirst) {
    const double ta[3] = {1.0, 0.0, 0.0};
    const double tb[3] = {0.0, 0.0, 5.0};
    const QVTrans a(kQuarterTurnZ, ta);
    const QVTrans b(kQuarterTurnX, tb);

    // a: (1, 0, 0) -> (0, 1, 0) + (1, 0, 0) = (1, 1, 0); b: -> (1, 0, 1) + (0, 0, 5) = (1, 0, 6).
    double p[3] = {1.0, 0.0, 0.0};
    a.Then(b).Apply(p);
    ExpectPoint(p, 1.0, 0.0, 6.0, 0.0);

    // The other order: b: (1, 0, 0) -> (1, 0, 5); a: -> (0, 1, 5) + (1, 0, 0) = (1, 1, 5).
    double q[3] = {1.0, 0.0, 0.0};
    b.Then(a).Apply(q);
    ExpectPoint(q, 1.0, 1.0, 5.0, 0.0);
}

TEST(QVTransTest, ThenEqualsApplyingBothInTurnForGeneralTransforms) {
    const std::vector<double> ra = ChemRotation(0.5, -0.3, 1.2);
    const std::vector<double> rb = ChemRotation(-1.4, 0.9, 0.1);
    const double ta[3] = {0.3, -1.0, 2.0};
    const double tb[3] = {-2.5, 0.75, 0.0};
    const QVTrans a(ra.data(), ta);
    const QVTrans b(rb.data(), tb);
    const QVTrans ab = a.Then(b);

    const double p0[3] = {1.1, 2.2, -3.3};
    double stepwise[3] = {p0[0], p0[1], p0[2]};
    a.Apply(stepwise);
    b.Apply(stepwise);
    double combined[3] = {p0[0], p0[1], p0[2]};
    ab.Apply(combined);
    ExpectPoint(combined, stepwise[0], stepwise[1], stepwise[2], 1e-13);

    // The combined rotation is Rb Ra.
    double rotation[9];
    double translation[3];
    ab.Extract(rotation, translation, true);
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            double expected = 0.0;
            for (int k = 0; k < 3; ++k) {
                expected += rb[3 * i + k] * ra[3 * k + j];
            }
            EXPECT_NEAR(rotation[3 * i + j], expected, kRoundOff);
        }
    }
}

TEST(QVTransTest, InverseUndoesTheTransform) {
    const std::vector<double> r = ChemRotation(2.1, -0.4, -2.7);
    const double t[3] = {3.0, -1.5, 0.25};
    const QVTrans trans(r.data(), t);
    const QVTrans inverse = trans.Inverse();

    ExpectIdentity(trans.Then(inverse), 1e-14);
    ExpectIdentity(inverse.Then(trans), 1e-14);

    double p[3] = {-0.6, 4.4, 1.0};
    trans.Apply(p);
    inverse.Apply(p);
    ExpectPoint(p, -0.6, 4.4, 1.0, 1e-14);

    // For a quarter turn the inverse is exact: R^T and -R^T t = (-2, 1, -3).
    const double tq[3] = {1.0, 2.0, 3.0};
    double rotation[9];
    double translation[3];
    QVTrans(kQuarterTurnZ, tq).Inverse().Extract(rotation, translation, true);
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) {
            EXPECT_EQ(rotation[3 * i + j], kQuarterTurnZ[3 * j + i]);
        }
    }
    ExpectPoint(translation, -2.0, 1.0, -3.0, 0.0);
}

TEST(QVTransTest, PureTranslationInverseNegatesTheShift) {
    const double t[3] = {0.5, -7.0, 2.0};
    double rotation[9];
    double translation[3];
    QVTrans(kNoRotation, t).Inverse().Extract(rotation, translation, false);
    ExpectPoint(translation, -0.5, 7.0, -2.0, 0.0);
}

}  // namespace
