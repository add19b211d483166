// Unit tests of the Gaussian record QVSystem::QVGaussian.

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>
#include <vector>

#include "qv/gaussian.h"

namespace {

using QVSystem::QVGaussian;

TEST(QVGaussianRecordTest, DefaultConstructedRecordIsAllZero) {
    const QVGaussian g;
    EXPECT_EQ(g.GetPrefactor(), 0.0f);
    EXPECT_EQ(g.GetExponent(), 0.0f);
    EXPECT_EQ(g.GetX(), 0.0f);
    EXPECT_EQ(g.GetY(), 0.0f);
    EXPECT_EQ(g.GetZ(), 0.0f);
    EXPECT_EQ(g.GetTag(), 0u);
}

TEST(QVGaussianRecordTest, ConstructorStoresEveryFieldAsFloat) {
    const float centre[3] = {1.5f, -2.25f, 3.0f};
    const QVGaussian g(2.7f, 0.811151803f, centre, 7u);
    EXPECT_EQ(g.GetPrefactor(), 2.7f);
    EXPECT_EQ(g.GetExponent(), 0.811151803f);
    EXPECT_EQ(g.GetX(), 1.5f);
    EXPECT_EQ(g.GetY(), -2.25f);
    EXPECT_EQ(g.GetZ(), 3.0f);
    EXPECT_EQ(g.GetTag(), 7u);

    // The getters return single precision: widened to double they show the float rounding of
    // the carbon constants 2.7 and 0.811151803.
    static_assert(std::is_same_v<decltype(g.GetPrefactor()), float>);
    static_assert(std::is_same_v<decltype(g.GetExponent()), float>);
    static_assert(std::is_same_v<decltype(g.GetX()), float>);
    EXPECT_DOUBLE_EQ(static_cast<double>(g.GetPrefactor()), 2.700000047683716);
    EXPECT_DOUBLE_EQ(static_cast<double>(g.GetExponent()), 0.8111518025398254);
    EXPECT_NE(static_cast<double>(g.GetPrefactor()), 2.7);
}

TEST(QVGaussianRecordTest, ConstructorCopiesTheCentreArray) {
    float centre[3] = {0.5f, 0.25f, 0.125f};
    const QVGaussian g(1.0f, 2.0f, centre, 0u);
    centre[0] = 9.0f;
    centre[1] = 9.0f;
    centre[2] = 9.0f;
    EXPECT_EQ(g.GetX(), 0.5f);
    EXPECT_EQ(g.GetY(), 0.25f);
    EXPECT_EQ(g.GetZ(), 0.125f);
}

TEST(QVGaussianRecordTest, NegativePrefactorIsKept) {
    const float centre[3] = {0.0f, 0.0f, 0.0f};
    const QVGaussian g(-0.3989423f, 0.5f, centre, 0u);
    EXPECT_EQ(g.GetPrefactor(), -0.3989423f);
}

TEST(QVGaussianRecordTest, SettersMoveOnlyTheirOwnCoordinate) {
    const float centre[3] = {1.0f, 2.0f, 3.0f};
    QVGaussian g(4.0f, 5.0f, centre, 6u);

    g.SetX(-1.25f);
    EXPECT_EQ(g.GetX(), -1.25f);
    EXPECT_EQ(g.GetY(), 2.0f);
    EXPECT_EQ(g.GetZ(), 3.0f);

    g.SetY(0.75f);
    EXPECT_EQ(g.GetX(), -1.25f);
    EXPECT_EQ(g.GetY(), 0.75f);
    EXPECT_EQ(g.GetZ(), 3.0f);

    g.SetZ(100.5f);
    EXPECT_EQ(g.GetX(), -1.25f);
    EXPECT_EQ(g.GetY(), 0.75f);
    EXPECT_EQ(g.GetZ(), 100.5f);

    // Prefactor, exponent and tag are untouched by moving the centre.
    EXPECT_EQ(g.GetPrefactor(), 4.0f);
    EXPECT_EQ(g.GetExponent(), 5.0f);
    EXPECT_EQ(g.GetTag(), 6u);
}

TEST(QVGaussianRecordTest, CopyAndAssignmentAreIndependentValues) {
    const float centre[3] = {1.0f, 2.0f, 3.0f};
    QVGaussian original(4.0f, 5.0f, centre, 6u);

    QVGaussian copy(original);
    original.SetX(10.0f);
    EXPECT_EQ(copy.GetX(), 1.0f);
    EXPECT_EQ(copy.GetPrefactor(), 4.0f);
    EXPECT_EQ(copy.GetExponent(), 5.0f);
    EXPECT_EQ(copy.GetTag(), 6u);

    QVGaussian assigned;
    assigned = original;
    EXPECT_EQ(assigned.GetX(), 10.0f);
    EXPECT_EQ(assigned.GetY(), 2.0f);
    EXPECT_EQ(assigned.GetZ(), 3.0f);
    EXPECT_EQ(assigned.GetTag(), 6u);
    assigned.SetZ(-7.0f);
    EXPECT_EQ(original.GetZ(), 3.0f);

    // Records in a vector are copies too.
    std::vector<QVGaussian> list(3, original);
    list[1].SetY(-2.0f);
    EXPECT_EQ(list[0].GetY(), 2.0f);
    EXPECT_EQ(list[2].GetY(), 2.0f);
    EXPECT_EQ(original.GetY(), 2.0f);
}

/// A caller's subclass that attaches data and counts its destructions.
class LabelledGaussian : public QVGaussian {
public:
    LabelledGaussian(float prefactor, float exponent, const float* centre, int* destroyed)
        : QVGaussian(prefactor, exponent, centre, 0u), destroyed_(destroyed) {}
    ~LabelledGaussian() override { ++*destroyed_; }

private:
    int* destroyed_;
};

TEST(QVGaussianRecordTest, RecordIsPolymorphic) {
    static_assert(std::is_polymorphic_v<QVGaussian>);
    static_assert(std::has_virtual_destructor_v<QVGaussian>);
}

TEST(QVGaussianRecordTest, SubclassIsDestroyedThroughABasePointer) {
    const float centre[3] = {0.0f, 1.0f, 2.0f};
    int destroyed = 0;
    {
        QVGaussian* base = new LabelledGaussian(1.0f, 2.0f, centre, &destroyed);
        EXPECT_EQ(base->GetY(), 1.0f);
        delete base;
    }
    EXPECT_EQ(destroyed, 1);

    {
        std::unique_ptr<QVGaussian> owned =
            std::make_unique<LabelledGaussian>(3.0f, 4.0f, centre, &destroyed);
        EXPECT_EQ(owned->GetPrefactor(), 3.0f);
        EXPECT_NE(dynamic_cast<LabelledGaussian*>(owned.get()), nullptr);
    }
    EXPECT_EQ(destroyed, 2);
}

TEST(QVGaussianRecordTest, SlicedCopyOfSubclassKeepsTheBaseFields) {
    const float centre[3] = {0.5f, 1.5f, 2.5f};
    int destroyed = 0;
    {
        const LabelledGaussian labelled(6.0f, 0.25f, centre, &destroyed);
        const QVGaussian plain(labelled);
        EXPECT_EQ(plain.GetPrefactor(), 6.0f);
        EXPECT_EQ(plain.GetExponent(), 0.25f);
        EXPECT_EQ(plain.GetZ(), 2.5f);
    }
    EXPECT_EQ(destroyed, 1);
}

}  // namespace
