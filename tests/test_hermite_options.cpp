// Unit tests of QVHermiteOptions, the settings object of every Hermite expansion.

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "hermite/hermite.h"
#include "qv/options.h"
#include "support/test_support.h"

namespace {

using QVHermiteMath::QVHermiteOptions;
using QVSystem::QVBoolParameter;
using QVSystem::QVDoubleParameter;
using QVSystem::QVOptions;
using QVSystem::QVUIntParameter;

using hermite_test::MessageRecorder;

template <class Parameter>
const Parameter* Slot(const QVHermiteOptions& options, unsigned int slot) {
    return dynamic_cast<const Parameter*>(options.GetParameter(slot));
}

TEST(HermiteOptionsTest, NameAndSlotCount) {
    const QVHermiteOptions options;
    EXPECT_EQ(options.GetName(), "Hermite Options");
    EXPECT_EQ(options.GetNumSlots(), 6u);
    for (unsigned int slot = 0; slot < 6; ++slot) {
        EXPECT_NE(options.GetParameter(slot), nullptr) << "slot " << slot;
    }
}

TEST(HermiteOptionsTest, SlotNumbersOfTheParameters) {
    EXPECT_EQ(QVHermiteOptions::NPolyMaxSlot, 0u);
    EXPECT_EQ(QVHermiteOptions::LambdaXSlot, 1u);
    EXPECT_EQ(QVHermiteOptions::LambdaYSlot, 2u);
    EXPECT_EQ(QVHermiteOptions::LambdaZSlot, 3u);
    EXPECT_EQ(QVHermiteOptions::UseSingleLambdaSlot, 4u);
    EXPECT_EQ(QVHermiteOptions::UseOptimalLambdasSlot, 5u);
}

TEST(HermiteOptionsTest, ParameterNamesTypesAndBriefTextsBySlot) {
    const QVHermiteOptions options;

    const auto* order = Slot<QVUIntParameter>(options, 0);
    ASSERT_NE(order, nullptr);
    EXPECT_EQ(order->GetName(), "-NPolyMax");
    EXPECT_EQ(order->GetBrief(), "Resolution Parameter.");

    const auto* lx = Slot<QVDoubleParameter>(options, 1);
    ASSERT_NE(lx, nullptr);
    EXPECT_EQ(lx->GetName(), "-LambdaX");
    EXPECT_EQ(lx->GetBrief(), "Exponential X Width Coefficient.");

    const auto* ly = Slot<QVDoubleParameter>(options, 2);
    ASSERT_NE(ly, nullptr);
    EXPECT_EQ(ly->GetName(), "-LambdaY");
    EXPECT_EQ(ly->GetBrief(), "Exponential Y Width Coefficient.");

    const auto* lz = Slot<QVDoubleParameter>(options, 3);
    ASSERT_NE(lz, nullptr);
    EXPECT_EQ(lz->GetName(), "-LambdaZ");
    EXPECT_EQ(lz->GetBrief(), "Exponential Z Width Coefficient.");

    const auto* single = Slot<QVBoolParameter>(options, 4);
    ASSERT_NE(single, nullptr);
    EXPECT_EQ(single->GetName(), "-UseSingleLambda");
    EXPECT_EQ(single->GetBrief(), "When True all Lambdas will be equal to each other.");

    const auto* optimal = Slot<QVBoolParameter>(options, 5);
    ASSERT_NE(optimal, nullptr);
    EXPECT_EQ(optimal->GetName(), "-UseOptimalLambdas");
    EXPECT_EQ(optimal->GetBrief(),
              "When True the Optimal Lambdas will be found, otherwise user needs to specify.");
}

TEST(HermiteOptionsTest, DefaultsReadThroughSlots) {
    const QVHermiteOptions options;
    unsigned int order = 0;
    ASSERT_TRUE(Slot<QVUIntParameter>(options, 0)->GetSetting(order, 0));
    EXPECT_EQ(order, 5u);
    for (unsigned int slot = 1; slot <= 3; ++slot) {
        double lambda = 0.0;
        ASSERT_TRUE(Slot<QVDoubleParameter>(options, slot)->GetSetting(lambda, 0));
        EXPECT_EQ(lambda, 1.0) << "slot " << slot;
    }
    for (unsigned int slot = 4; slot <= 5; ++slot) {
        bool flag = false;
        ASSERT_TRUE(Slot<QVBoolParameter>(options, slot)->GetSetting(flag, 0));
        EXPECT_TRUE(flag) << "slot " << slot;
    }
    // Nothing is set by construction: every read falls back to the default.
    for (unsigned int slot = 0; slot < 6; ++slot) {
        EXPECT_FALSE(options.GetParameter(slot)->GetHasValue(0)) << "slot " << slot;
    }
}

TEST(HermiteOptionsTest, DefaultsReadByName) {
    const QVHermiteOptions options;
    unsigned int order = 0;
    double lx = 0.0;
    double ly = 0.0;
    double lz = 0.0;
    bool single = false;
    bool optimal = false;
    EXPECT_TRUE(options.Get("-NPolyMax", order));
    EXPECT_TRUE(options.Get("-LambdaX", lx));
    EXPECT_TRUE(options.Get("-LambdaY", ly));
    EXPECT_TRUE(options.Get("-LambdaZ", lz));
    EXPECT_TRUE(options.Get("-UseSingleLambda", single));
    EXPECT_TRUE(options.Get("-UseOptimalLambdas", optimal));
    EXPECT_EQ(order, 5u);
    EXPECT_EQ(lx, 1.0);
    EXPECT_EQ(ly, 1.0);
    EXPECT_EQ(lz, 1.0);
    EXPECT_TRUE(single);
    EXPECT_TRUE(optimal);
}

TEST(HermiteOptionsTest, DefaultsReadByTypedAccessors) {
    const QVHermiteOptions options;
    EXPECT_EQ(options.GetNPolyMax(), 5u);
    EXPECT_EQ(options.GetLambda(0), 1.0);
    EXPECT_EQ(options.GetLambda(1), 1.0);
    EXPECT_EQ(options.GetLambda(2), 1.0);
    EXPECT_TRUE(options.GetUseSingleLambda());
    EXPECT_TRUE(options.GetUseOptimalLambdas());
}

TEST(HermiteOptionsTest, OrderHasLegalRangeZeroToHundredAndOthersNone) {
    const QVHermiteOptions options;
    const auto* order = Slot<QVUIntParameter>(options, 0);
    ASSERT_TRUE(order->HasLegalRange());
    EXPECT_EQ(order->GetMinimum(), 0u);
    EXPECT_EQ(order->GetMaximum(), 100u);
    for (unsigned int slot = 1; slot <= 3; ++slot) {
        EXPECT_FALSE(Slot<QVDoubleParameter>(options, slot)->HasLegalRange()) << slot;
    }
    // Registering a range on a boolean is a no-op, so neither boolean has one.
    EXPECT_FALSE(Slot<QVBoolParameter>(options, 4)->HasLegalRange());
    EXPECT_FALSE(Slot<QVBoolParameter>(options, 5)->HasLegalRange());
}

TEST(HermiteOptionsTest, BooleanAddLegalRangeReturnsFalse) {
    QVHermiteOptions options;
    for (unsigned int slot = 4; slot <= 5; ++slot) {
        QVSystem::QVParameter* parameter = options.GetParameter(slot);
        EXPECT_FALSE(parameter->AddLegalRange("true", "false")) << slot;
        EXPECT_FALSE(parameter->AddLegalRange("false", "true")) << slot;
        EXPECT_FALSE(dynamic_cast<QVBoolParameter*>(parameter)->HasLegalRange());
    }
}

TEST(HermiteOptionsTest, OrderAboveHundredIsRejectedWithOneWarning) {
    QVHermiteOptions options;
    MessageRecorder collector;
    EXPECT_FALSE(options.Set("-NPolyMax", "101"));
    EXPECT_EQ(collector.warnings.size(), 1u);
    EXPECT_EQ(options.GetNPolyMax(), 5u);
    EXPECT_FALSE(options.GetParameter(0)->GetHasValue(0));

    EXPECT_FALSE(options.SetNPolyMax(101));
    EXPECT_EQ(collector.warnings.size(), 2u);
    EXPECT_FALSE(options.SetNPolyMax(4294967295u));
    EXPECT_EQ(collector.warnings.size(), 3u);
    EXPECT_EQ(options.GetNPolyMax(), 5u);
    EXPECT_TRUE(collector.fatals.empty());
}

TEST(HermiteOptionsTest, OrderHundredIsAccepted) {
    QVHermiteOptions options;
    MessageRecorder collector;
    EXPECT_TRUE(options.Set("-NPolyMax", "100"));
    EXPECT_TRUE(collector.warnings.empty());
    unsigned int order = 0;
    EXPECT_TRUE(options.Get("-NPolyMax", order));
    EXPECT_EQ(order, 100u);
    EXPECT_EQ(options.GetNPolyMax(), 100u);

    // A rejected value afterwards keeps the accepted one.
    EXPECT_FALSE(options.Set("-NPolyMax", "101"));
    EXPECT_EQ(collector.warnings.size(), 1u);
    EXPECT_EQ(options.GetNPolyMax(), 100u);
}

TEST(HermiteOptionsTest, OrderZeroIsLegal) {
    // Order 0: a basis of the constant function only.
    QVHermiteOptions options;
    MessageRecorder collector;
    EXPECT_TRUE(options.Set("-NPolyMax", "0"));
    EXPECT_EQ(options.GetNPolyMax(), 0u);
    EXPECT_TRUE(options.SetNPolyMax(0));
    EXPECT_EQ(options.GetNPolyMax(), 0u);
    EXPECT_TRUE(collector.warnings.empty());
}

TEST(HermiteOptionsTest, BadTextForEachParameterIsRejectedWithOneWarning) {
    QVHermiteOptions options;
    struct Case {
        const char* name;
        const char* text;
    };
    const Case cases[] = {{"-NPolyMax", "abc"},       {"-NPolyMax", "-3"},
                          {"-NPolyMax", "1.5x"},      {"-LambdaX", "1.5x"},
                          {"-LambdaZ", "abc"},        {"-UseSingleLambda", "maybe"},
                          {"-UseOptimalLambdas", ""}, {"-NoSuchOption", "1"}};
    for (const Case& c : cases) {
        MessageRecorder collector;
        EXPECT_FALSE(options.Set(c.name, c.text)) << c.name << " " << c.text;
        EXPECT_EQ(collector.warnings.size(), 1u) << c.name << " " << c.text;
    }
    for (unsigned int slot = 0; slot < 6; ++slot) {
        EXPECT_FALSE(options.GetParameter(slot)->GetHasValue(0)) << slot;
    }
}

TEST(HermiteOptionsTest, LambdasHaveNoLowerBound) {
    // The options put no bound on the lambdas; positivity is the caller's duty.
    QVHermiteOptions options;
    MessageRecorder collector;
    EXPECT_TRUE(options.Set("-LambdaX", "-2.5"));
    EXPECT_TRUE(options.Set("-LambdaY", "0"));
    EXPECT_TRUE(options.SetLambda(2, 1e6));
    EXPECT_TRUE(collector.warnings.empty());
    EXPECT_EQ(options.GetLambda(0), -2.5);
    EXPECT_EQ(options.GetLambda(1), 0.0);
    EXPECT_EQ(options.GetLambda(2), 1e6);
}

TEST(HermiteOptionsTest, CreateCopyCarriesLambdaYAndDefaultsElsewhere) {
    QVHermiteOptions options;
    ASSERT_TRUE(options.Set("-LambdaY", "2.5"));

    std::unique_ptr<QVHermiteOptions> copy(options.CreateCopy());
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->GetName(), "Hermite Options");
    EXPECT_EQ(copy->GetNumSlots(), 6u);

    double ly = 0.0;
    ASSERT_TRUE(Slot<QVDoubleParameter>(*copy, 2)->GetSetting(ly, 0));
    EXPECT_EQ(ly, 2.5);
    EXPECT_TRUE(copy->GetParameter(2)->GetHasValue(0));

    unsigned int order = 0;
    ASSERT_TRUE(Slot<QVUIntParameter>(*copy, 0)->GetSetting(order, 0));
    EXPECT_EQ(order, 5u);
    double lx = 0.0;
    double lz = 0.0;
    ASSERT_TRUE(Slot<QVDoubleParameter>(*copy, 1)->GetSetting(lx, 0));
    ASSERT_TRUE(Slot<QVDoubleParameter>(*copy, 3)->GetSetting(lz, 0));
    EXPECT_EQ(lx, 1.0);
    EXPECT_EQ(lz, 1.0);
    bool single = false;
    bool optimal = false;
    ASSERT_TRUE(Slot<QVBoolParameter>(*copy, 4)->GetSetting(single, 0));
    ASSERT_TRUE(Slot<QVBoolParameter>(*copy, 5)->GetSetting(optimal, 0));
    EXPECT_TRUE(single);
    EXPECT_TRUE(optimal);
    for (unsigned int slot : {0u, 1u, 3u, 4u, 5u}) {
        EXPECT_FALSE(copy->GetParameter(slot)->GetHasValue(0)) << slot;
    }

    // Names, brief texts and the order's range travel with the copy.
    EXPECT_EQ(copy->GetParameter(0)->GetName(), "-NPolyMax");
    EXPECT_EQ(copy->GetParameter(3)->GetBrief(), "Exponential Z Width Coefficient.");
    EXPECT_EQ(Slot<QVUIntParameter>(*copy, 0)->GetMaximum(), 100u);
}

TEST(HermiteOptionsTest, CreateCopyIsIndependentOfTheOriginal) {
    QVHermiteOptions options;
    ASSERT_TRUE(options.SetLambda(1, 2.5));
    std::unique_ptr<QVHermiteOptions> copy(options.CreateCopy());

    ASSERT_TRUE(options.SetLambda(1, 7.0));
    ASSERT_TRUE(options.SetNPolyMax(9));
    EXPECT_EQ(copy->GetLambda(1), 2.5);
    EXPECT_EQ(copy->GetNPolyMax(), 5u);

    ASSERT_TRUE(copy->SetUseOptimalLambdas(false));
    EXPECT_TRUE(options.GetUseOptimalLambdas());
}

TEST(HermiteOptionsTest, CreateCopyThroughTheBaseKeepsTheDerivedType) {
    QVHermiteOptions options;
    ASSERT_TRUE(options.SetNPolyMax(3));
    const QVOptions& base = options;
    std::unique_ptr<QVOptions> copy(base.CreateCopy());
    auto* derived = dynamic_cast<QVHermiteOptions*>(copy.get());
    ASSERT_NE(derived, nullptr);
    EXPECT_EQ(derived->GetNPolyMax(), 3u);
}

TEST(HermiteOptionsTest, CopyConstructionAndAssignmentCarryValues) {
    QVHermiteOptions source;
    ASSERT_TRUE(source.SetNPolyMax(12));
    ASSERT_TRUE(source.SetLambda(0, 0.75));
    ASSERT_TRUE(source.SetLambda(2, 1.25));
    ASSERT_TRUE(source.SetUseSingleLambda(false));

    const QVHermiteOptions constructed(source);
    EXPECT_EQ(constructed.GetNPolyMax(), 12u);
    EXPECT_EQ(constructed.GetLambda(0), 0.75);
    EXPECT_EQ(constructed.GetLambda(1), 1.0);
    EXPECT_EQ(constructed.GetLambda(2), 1.25);
    EXPECT_FALSE(constructed.GetUseSingleLambda());
    EXPECT_TRUE(constructed.GetUseOptimalLambdas());

    QVHermiteOptions assigned;
    ASSERT_TRUE(assigned.SetLambda(1, 9.0));
    assigned = source;
    EXPECT_EQ(assigned.GetNPolyMax(), 12u);
    EXPECT_EQ(assigned.GetLambda(0), 0.75);
    // Assignment replaces every parameter, so the earlier value at slot 2 is gone.
    EXPECT_EQ(assigned.GetLambda(1), 1.0);
    EXPECT_FALSE(assigned.GetParameter(2)->GetHasValue(0));

    ASSERT_TRUE(source.SetLambda(0, 3.0));
    EXPECT_EQ(assigned.GetLambda(0), 0.75);
    EXPECT_EQ(constructed.GetLambda(0), 0.75);
}

TEST(HermiteOptionsTest, TypedAccessorsAgreeWithGetByName) {
    QVHermiteOptions options;
    ASSERT_TRUE(options.SetNPolyMax(7));
    ASSERT_TRUE(options.SetLambda(0, 0.5));
    ASSERT_TRUE(options.SetLambda(1, 1.5));
    ASSERT_TRUE(options.SetLambda(2, 2.5));
    ASSERT_TRUE(options.SetUseSingleLambda(false));
    ASSERT_TRUE(options.SetUseOptimalLambdas(false));

    unsigned int order = 0;
    ASSERT_TRUE(options.Get("-NPolyMax", order));
    EXPECT_EQ(order, 7u);
    EXPECT_EQ(options.GetNPolyMax(), order);

    const char* names[3] = {"-LambdaX", "-LambdaY", "-LambdaZ"};
    const double expected[3] = {0.5, 1.5, 2.5};
    for (unsigned int axis = 0; axis < 3; ++axis) {
        double lambda = 0.0;
        ASSERT_TRUE(options.Get(names[axis], lambda));
        EXPECT_EQ(lambda, expected[axis]);
        EXPECT_EQ(options.GetLambda(axis), lambda);
        // The accessor writes index 0 of the slot's parameter.
        EXPECT_TRUE(options.GetParameter(1 + axis)->GetHasValue(0));
    }

    bool single = true;
    bool optimal = true;
    ASSERT_TRUE(options.Get("-UseSingleLambda", single));
    ASSERT_TRUE(options.Get("-UseOptimalLambdas", optimal));
    EXPECT_FALSE(single);
    EXPECT_FALSE(optimal);
    EXPECT_EQ(options.GetUseSingleLambda(), single);
    EXPECT_EQ(options.GetUseOptimalLambdas(), optimal);
}

TEST(HermiteOptionsTest, SetByNameIsSeenByTypedAccessors) {
    QVHermiteOptions options;
    ASSERT_TRUE(options.Set("-NPolyMax", "11"));
    ASSERT_TRUE(options.Set("-LambdaX", "0.125"));
    ASSERT_TRUE(options.Set("-LambdaZ", "4"));
    ASSERT_TRUE(options.Set("-UseSingleLambda", "false"));
    EXPECT_EQ(options.GetNPolyMax(), 11u);
    EXPECT_EQ(options.GetLambda(0), 0.125);
    EXPECT_EQ(options.GetLambda(1), 1.0);
    EXPECT_EQ(options.GetLambda(2), 4.0);
    EXPECT_FALSE(options.GetUseSingleLambda());
    EXPECT_TRUE(options.GetUseOptimalLambdas());
}

TEST(HermiteOptionsTest, GetWithTheWrongTypeReturnsFalse) {
    const QVHermiteOptions options;
    double as_double = 0.0;
    unsigned int as_uint = 0;
    bool as_bool = false;
    EXPECT_FALSE(options.Get("-NPolyMax", as_double));
    EXPECT_FALSE(options.Get("-LambdaX", as_uint));
    EXPECT_FALSE(options.Get("-UseSingleLambda", as_double));
    EXPECT_FALSE(options.Get("-LambdaY", as_bool));
}

TEST(HermiteOptionsTest, SlotSixIsOutOfRange) {
    QVHermiteOptions options;
    MessageRecorder collector(/*throwOnFatal=*/true);
    EXPECT_THROW(options.GetParameter(6), std::runtime_error);
    EXPECT_EQ(collector.fatals.size(), 1u);
    EXPECT_TRUE(collector.warnings.empty());
}

}  // namespace
