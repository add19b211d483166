// Unit tests of the typed parameters and the named options container of the platform layer.

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "qv/error.h"
#include "qv/options.h"
#include "support/test_support.h"

namespace {

using QVSystem::QVBoolParameter;
using QVSystem::QVDoubleParameter;
using QVSystem::QVErrorCallback;
using QVSystem::QVOptions;
using QVSystem::QVParameter;
using QVSystem::QVThrow;
using QVSystem::QVUIntParameter;

using hermite_test::MessageRecorder;

/// True when `text` contains `part`.
bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// ---------------------------------------------------------------------------------------------
// Typed parameters

TEST(QVParameterTest, UIntParameterKeepsNameDefaultAndBrief) {
    QVUIntParameter parameter("-Order", 5u);
    EXPECT_EQ(parameter.GetName(), "-Order");
    EXPECT_EQ(parameter.GetBrief(), "");
    parameter.SetBrief("Resolution.");
    EXPECT_EQ(parameter.GetBrief(), "Resolution.");

    unsigned int value = 0;
    EXPECT_TRUE(parameter.GetDefault(value));
    EXPECT_EQ(value, 5u);
    EXPECT_EQ(parameter.GetDefaultText(), "5");
    EXPECT_FALSE(parameter.HasLegalRange());
}

TEST(QVParameterTest, DoubleAndBoolParametersKeepNameAndDefault) {
    QVDoubleParameter width("-Width", 1.5);
    double w = 0.0;
    EXPECT_TRUE(width.GetDefault(w));
    EXPECT_EQ(w, 1.5);
    EXPECT_EQ(width.GetName(), "-Width");
    EXPECT_EQ(width.GetDefaultText(), "1.5");

    QVBoolParameter flag("-Flag", true);
    bool b = false;
    EXPECT_TRUE(flag.GetDefault(b));
    EXPECT_TRUE(b);
    EXPECT_EQ(flag.GetName(), "-Flag");
    EXPECT_EQ(flag.GetDefaultText(), "true");
    QVBoolParameter off("-Off", false);
    EXPECT_EQ(off.GetDefaultText(), "false");
}

TEST(QVParameterTest, LegalRangeBoundsMayComeInEitherOrder) {
    QVUIntParameter descending("-A", 5u);
    EXPECT_TRUE(descending.AddLegalRange("100", "0"));
    EXPECT_TRUE(descending.HasLegalRange());
    EXPECT_EQ(descending.GetMinimum(), 0u);
    EXPECT_EQ(descending.GetMaximum(), 100u);

    QVUIntParameter ascending("-B", 5u);
    EXPECT_TRUE(ascending.AddLegalRange("3", "9"));
    EXPECT_EQ(ascending.GetMinimum(), 3u);
    EXPECT_EQ(ascending.GetMaximum(), 9u);

    QVDoubleParameter real("-C", 0.0);
    EXPECT_TRUE(real.AddLegalRange("2.5", "-1.25"));
    EXPECT_EQ(real.GetMinimum(), -1.25);
    EXPECT_EQ(real.GetMaximum(), 2.5);
}

TEST(QVParameterTest, UnparsableRangeIsRefusedAndKeepsEarlierRange) {
    QVUIntParameter parameter("-A", 5u);
    ASSERT_TRUE(parameter.AddLegalRange("1", "10"));
    EXPECT_FALSE(parameter.AddLegalRange("x", "20"));
    EXPECT_FALSE(parameter.AddLegalRange("0", "-4"));
    EXPECT_EQ(parameter.GetMinimum(), 1u);
    EXPECT_EQ(parameter.GetMaximum(), 10u);

    QVDoubleParameter fresh("-B", 0.0);
    EXPECT_FALSE(fresh.AddLegalRange("1.0", "two"));
    EXPECT_FALSE(fresh.HasLegalRange());
}

TEST(QVParameterTest, BoolParameterRefusesAnyRange) {
    QVBoolParameter flag("-Flag", true);
    EXPECT_FALSE(flag.AddLegalRange("true", "false"));
    EXPECT_FALSE(flag.HasLegalRange());
    // Both values stay settable.
    EXPECT_TRUE(flag.SetValue(false));
    EXPECT_TRUE(flag.SetValue(true));
}

TEST(QVParameterTest, HasValueIsTrackedPerIndex) {
    QVUIntParameter parameter("-A", 5u);
    EXPECT_FALSE(parameter.GetHasValue(0));
    EXPECT_FALSE(parameter.GetHasValue(2));

    EXPECT_TRUE(parameter.SetValue(7u, 2));
    EXPECT_FALSE(parameter.GetHasValue(0));
    EXPECT_FALSE(parameter.GetHasValue(1));
    EXPECT_TRUE(parameter.GetHasValue(2));
    EXPECT_FALSE(parameter.GetHasValue(3));
    EXPECT_FALSE(parameter.GetHasValue(1000));

    unsigned int value = 0;
    EXPECT_TRUE(parameter.GetValue(value, 2));
    EXPECT_EQ(value, 7u);

    EXPECT_TRUE(parameter.SetValue(9u));  // index 0
    EXPECT_TRUE(parameter.GetHasValue(0));
    EXPECT_TRUE(parameter.GetValue(value, 0));
    EXPECT_EQ(value, 9u);
    EXPECT_TRUE(parameter.GetValue(value, 2));
    EXPECT_EQ(value, 7u);
}

TEST(QVParameterTest, GetValueFailsWithoutAValueAndLeavesTheArgument) {
    QVDoubleParameter parameter("-W", 2.0);
    double value = -123.0;
    EXPECT_FALSE(parameter.GetValue(value));
    EXPECT_EQ(value, -123.0);
    EXPECT_FALSE(parameter.GetValue(value, 4));
    EXPECT_EQ(value, -123.0);

    ASSERT_TRUE(parameter.SetValue(3.0, 1));
    // Index 0 still has no value even though the storage grew past it.
    EXPECT_FALSE(parameter.GetValue(value, 0));
    EXPECT_EQ(value, -123.0);
}

TEST(QVParameterTest, GetSettingFallsBackToTheDefault) {
    QVDoubleParameter parameter("-W", 2.0);
    double value = 0.0;
    EXPECT_TRUE(parameter.GetSetting(value));
    EXPECT_EQ(value, 2.0);

    ASSERT_TRUE(parameter.SetValue(0.75, 0));
    EXPECT_TRUE(parameter.GetSetting(value, 0));
    EXPECT_EQ(value, 0.75);
    EXPECT_TRUE(parameter.GetSetting(value, 1));
    EXPECT_EQ(value, 2.0);

    parameter.ClearValue(0);
    EXPECT_FALSE(parameter.GetHasValue(0));
    EXPECT_TRUE(parameter.GetSetting(value, 0));
    EXPECT_EQ(value, 2.0);
}

TEST(QVParameterTest, UIntSetValueOutOfRangeIsRejectedWithOneWarning) {
    QVUIntParameter parameter("-NPolyMax", 5u);
    ASSERT_TRUE(parameter.AddLegalRange("100", "0"));
    ASSERT_TRUE(parameter.SetValue(12u));

    MessageRecorder handler;
    EXPECT_FALSE(parameter.SetValue(101u));
    ASSERT_EQ(handler.warnings.size(), 1u);
    EXPECT_PRED2(Contains, handler.warnings[0], "-NPolyMax");
    unsigned int value = 0;
    EXPECT_TRUE(parameter.GetValue(value));
    EXPECT_EQ(value, 12u);

    // The bounds themselves are legal.
    EXPECT_TRUE(parameter.SetValue(100u));
    EXPECT_TRUE(parameter.SetValue(0u));
    EXPECT_EQ(handler.warnings.size(), 1u);
}

TEST(QVParameterTest, RejectedValueAtFreshIndexLeavesNoValue) {
    QVDoubleParameter parameter("-W", 1.0);
    ASSERT_TRUE(parameter.AddLegalRange("-1", "1"));
    MessageRecorder handler;
    EXPECT_FALSE(parameter.SetValue(1.0000001, 3));
    EXPECT_FALSE(parameter.SetValue(-2.0, 0));
    EXPECT_EQ(handler.warnings.size(), 2u);
    EXPECT_FALSE(parameter.GetHasValue(3));
    EXPECT_FALSE(parameter.GetHasValue(0));
    double value = 0.0;
    EXPECT_TRUE(parameter.GetSetting(value, 3));
    EXPECT_EQ(value, 1.0);
}

TEST(QVParameterTest, SetValueFromTextParsesEachType) {
    MessageRecorder handler;
    QVUIntParameter order("-A", 0u);
    EXPECT_TRUE(order.SetValueFromText(" 42 "));
    unsigned int u = 0;
    EXPECT_TRUE(order.GetValue(u));
    EXPECT_EQ(u, 42u);

    QVDoubleParameter width("-B", 0.0);
    EXPECT_TRUE(width.SetValueFromText("-2.5e-1", 1));
    double d = 0.0;
    EXPECT_TRUE(width.GetValue(d, 1));
    EXPECT_EQ(d, -0.25);

    QVBoolParameter flag("-C", false);
    bool b = false;
    for (const char* text : {"true", "TRUE", "1", "yes", "On"}) {
        ASSERT_TRUE(flag.SetValue(false));
        EXPECT_TRUE(flag.SetValueFromText(text)) << text;
        EXPECT_TRUE(flag.GetValue(b));
        EXPECT_TRUE(b) << text;
    }
    for (const char* text : {"false", "False", "0", "no", "off"}) {
        ASSERT_TRUE(flag.SetValue(true));
        EXPECT_TRUE(flag.SetValueFromText(text)) << text;
        EXPECT_TRUE(flag.GetValue(b));
        EXPECT_FALSE(b) << text;
    }
    EXPECT_TRUE(handler.warnings.empty());
}

TEST(QVParameterTest, SetValueFromTextRejectsBadTextWithOneWarningEach) {
    QVUIntParameter order("-A", 3u);
    QVDoubleParameter width("-B", 1.0);
    QVBoolParameter flag("-C", false);
    MessageRecorder handler;

    EXPECT_FALSE(order.SetValueFromText("abc"));
    EXPECT_EQ(handler.warnings.size(), 1u);
    EXPECT_FALSE(order.SetValueFromText("-3"));
    EXPECT_EQ(handler.warnings.size(), 2u);
    EXPECT_FALSE(order.SetValueFromText("1.5x"));
    EXPECT_EQ(handler.warnings.size(), 3u);
    EXPECT_FALSE(order.SetValueFromText(""));
    EXPECT_EQ(handler.warnings.size(), 4u);
    EXPECT_FALSE(order.SetValueFromText("4294967296"));  // one above the unsigned maximum
    EXPECT_EQ(handler.warnings.size(), 5u);
    EXPECT_FALSE(order.GetHasValue(0));

    EXPECT_FALSE(width.SetValueFromText("1.5x"));
    EXPECT_EQ(handler.warnings.size(), 6u);
    EXPECT_FALSE(width.SetValueFromText("abc"));
    EXPECT_EQ(handler.warnings.size(), 7u);
    EXPECT_FALSE(width.GetHasValue(0));

    EXPECT_FALSE(flag.SetValueFromText("maybe"));
    EXPECT_EQ(handler.warnings.size(), 8u);
    EXPECT_FALSE(flag.GetHasValue(0));
    EXPECT_TRUE(handler.fatals.empty());
}

TEST(QVParameterTest, UnsignedTextAcceptsTheFull32BitRange) {
    QVUIntParameter order("-A", 3u);
    EXPECT_TRUE(order.SetValueFromText("4294967295"));
    unsigned int value = 0;
    EXPECT_TRUE(order.GetValue(value));
    EXPECT_EQ(value, 4294967295u);
}

TEST(QVParameterTest, IndexBeyondTheLimitIsRefusedWithOneWarning) {
    MessageRecorder handler;
    QVDoubleParameter parameter("-Width", 1.0);
    EXPECT_FALSE(parameter.SetValue(2.0, 4294967295u));
    EXPECT_FALSE(parameter.SetValue(2.0, QVParameter::kMaxIndex));
    EXPECT_TRUE(parameter.SetValue(3.0, QVParameter::kMaxIndex - 1));
    EXPECT_EQ(handler.warnings.size(), 2u);
    double value = 0.0;
    EXPECT_FALSE(parameter.GetValue(value, 4294967295u));
    EXPECT_TRUE(parameter.GetValue(value, QVParameter::kMaxIndex - 1));
    EXPECT_EQ(value, 3.0);
}

TEST(QVParameterTest, NonFiniteDoublesAreRefused) {
    MessageRecorder handler;
    QVDoubleParameter free("-Lambda", 1.0);
    for (const char* text : {"nan", "NaN", "inf", "-inf", "1e400"}) {
        EXPECT_FALSE(free.SetValueFromText(text)) << text;
    }
    EXPECT_EQ(handler.warnings.size(), 5u);
    // A ranged parameter also refuses a NaN set programmatically: it lies in no range.
    QVDoubleParameter ranged("-Fraction", 0.5);
    ASSERT_TRUE(ranged.AddLegalRange("0", "1"));
    EXPECT_FALSE(ranged.SetValue(std::nan("")));
    EXPECT_FALSE(ranged.GetHasValue(0));
    EXPECT_EQ(handler.warnings.size(), 6u);
}

TEST(QVParameterTest, CloneCopiesValuesDefaultAndRangeIndependently) {
    QVUIntParameter original("-A", 5u);
    original.SetBrief("brief");
    ASSERT_TRUE(original.AddLegalRange("0", "10"));
    ASSERT_TRUE(original.SetValue(8u, 1));

    std::unique_ptr<QVParameter> clone = original.Clone();
    auto* typed = dynamic_cast<QVUIntParameter*>(clone.get());
    ASSERT_NE(typed, nullptr);
    EXPECT_EQ(typed->GetName(), "-A");
    EXPECT_EQ(typed->GetBrief(), "brief");
    EXPECT_TRUE(typed->HasLegalRange());
    EXPECT_EQ(typed->GetMaximum(), 10u);
    unsigned int value = 0;
    EXPECT_TRUE(typed->GetValue(value, 1));
    EXPECT_EQ(value, 8u);
    EXPECT_FALSE(typed->GetHasValue(0));
    EXPECT_TRUE(typed->GetDefault(value));
    EXPECT_EQ(value, 5u);

    // Changing either one leaves the other as it was.
    ASSERT_TRUE(original.SetValue(2u, 1));
    EXPECT_TRUE(typed->GetValue(value, 1));
    EXPECT_EQ(value, 8u);
    ASSERT_TRUE(typed->SetValue(9u, 0));
    EXPECT_FALSE(original.GetHasValue(0));
}

TEST(QVParameterTest, CloneKeepsTheDynamicTypeOfEachParameterKind) {
    QVDoubleParameter real("-R", 0.5);
    ASSERT_TRUE(real.SetValue(1.25));
    std::unique_ptr<QVParameter> real_clone = real.Clone();
    auto* real_typed = dynamic_cast<QVDoubleParameter*>(real_clone.get());
    ASSERT_NE(real_typed, nullptr);
    double d = 0.0;
    EXPECT_TRUE(real_typed->GetValue(d));
    EXPECT_EQ(d, 1.25);

    QVBoolParameter flag("-F", true);
    ASSERT_TRUE(flag.SetValue(false));
    std::unique_ptr<QVParameter> flag_clone = flag.Clone();
    auto* flag_typed = dynamic_cast<QVBoolParameter*>(flag_clone.get());
    ASSERT_NE(flag_typed, nullptr);
    bool b = true;
    EXPECT_TRUE(flag_typed->GetValue(b));
    EXPECT_FALSE(b);
}

TEST(QVParameterTest, WholeObjectCopyIsIndependent) {
    QVDoubleParameter original("-R", 0.5);
    ASSERT_TRUE(original.SetValue(3.0));
    QVDoubleParameter copy(original);
    ASSERT_TRUE(original.SetValue(4.0));
    double value = 0.0;
    EXPECT_TRUE(copy.GetValue(value));
    EXPECT_EQ(value, 3.0);

    QVDoubleParameter assigned("-Other", 9.0);
    assigned = original;
    EXPECT_EQ(assigned.GetName(), "-R");
    EXPECT_TRUE(assigned.GetValue(value));
    EXPECT_EQ(value, 4.0);
    ASSERT_TRUE(assigned.SetValue(5.0));
    EXPECT_TRUE(original.GetValue(value));
    EXPECT_EQ(value, 4.0);
}

// ---------------------------------------------------------------------------------------------
// Options container

/// A three-slot options object: "-Count" (unsigned, default 7, range 2..20), "-Scale" (double,
/// default 1.5, range -1..4) and "-Flag" (bool, default false).
QVOptions MakeTestOptions() {
    QVOptions options("Test Options", 3, 0);
    auto count = std::make_unique<QVUIntParameter>("-Count", 7u);
    count->SetBrief("How many.");
    count->AddLegalRange("20", "2");
    options.SetParameter(0, std::move(count));
    auto scale = std::make_unique<QVDoubleParameter>("-Scale", 1.5);
    scale->AddLegalRange("-1.0", "4.0");
    options.SetParameter(1, std::move(scale));
    options.SetParameter(2, std::make_unique<QVBoolParameter>("-Flag", false));
    return options;
}

TEST(QVOptionsTest, NameSlotsAndParameterLookup) {
    QVOptions options = MakeTestOptions();
    EXPECT_EQ(options.GetName(), "Test Options");
    EXPECT_EQ(options.GetNumSlots(), 3u);
    ASSERT_NE(options.GetParameter(0), nullptr);
    EXPECT_EQ(options.GetParameter(0)->GetName(), "-Count");
    EXPECT_EQ(options.GetParameter(2)->GetName(), "-Flag");
    EXPECT_EQ(options.FindParameter("-Scale"), options.GetParameter(1));
    EXPECT_EQ(options.FindParameter("-Missing"), nullptr);
    EXPECT_EQ(options.FindParameter("Scale"), nullptr);

    const QVOptions& constant = options;
    EXPECT_EQ(constant.GetParameter(1), constant.FindParameter("-Scale"));
}

TEST(QVOptionsTest, EmptySlotsHoldNoParameter) {
    QVOptions options("Empty", 2, 0);
    EXPECT_EQ(options.GetNumSlots(), 2u);
    EXPECT_EQ(options.GetParameter(0), nullptr);
    EXPECT_EQ(options.GetParameter(1), nullptr);
    EXPECT_EQ(options.FindParameter("-Anything"), nullptr);
}

TEST(QVOptionsTest, GetReadsDefaultsBeforeAnythingIsSet) {
    const QVOptions options = MakeTestOptions();
    unsigned int count = 0;
    double scale = 0.0;
    bool flag = true;
    EXPECT_TRUE(options.Get("-Count", count));
    EXPECT_EQ(count, 7u);
    EXPECT_TRUE(options.Get("-Scale", scale));
    EXPECT_EQ(scale, 1.5);
    EXPECT_TRUE(options.Get("-Flag", flag));
    EXPECT_FALSE(flag);
}

TEST(QVOptionsTest, SetThenGetRoundTripsEachType) {
    QVOptions options = MakeTestOptions();
    MessageRecorder handler;
    EXPECT_TRUE(options.Set("-Count", "12"));
    EXPECT_TRUE(options.Set("-Scale", "-0.5"));
    EXPECT_TRUE(options.Set("-Flag", "true"));
    EXPECT_TRUE(handler.warnings.empty());

    unsigned int count = 0;
    double scale = 0.0;
    bool flag = false;
    EXPECT_TRUE(options.Get("-Count", count));
    EXPECT_EQ(count, 12u);
    EXPECT_TRUE(options.Get("-Scale", scale));
    EXPECT_EQ(scale, -0.5);
    EXPECT_TRUE(options.Get("-Flag", flag));
    EXPECT_TRUE(flag);
    // Set writes index 0 of the parameter.
    EXPECT_TRUE(options.GetParameter(0)->GetHasValue(0));
}

TEST(QVOptionsTest, GetWithWrongTypeOrUnknownNameReturnsFalse) {
    const QVOptions options = MakeTestOptions();
    double as_double = -1.0;
    bool as_bool = true;
    unsigned int as_uint = 99;
    EXPECT_FALSE(options.Get("-Count", as_double));
    EXPECT_EQ(as_double, -1.0);
    EXPECT_FALSE(options.Get("-Scale", as_bool));
    EXPECT_FALSE(options.Get("-Flag", as_uint));
    EXPECT_FALSE(options.Get("-Missing", as_uint));
    EXPECT_EQ(as_uint, 99u);
}

TEST(QVOptionsTest, SetUnknownNameFailsWithExactlyOneWarning) {
    QVOptions options = MakeTestOptions();
    MessageRecorder handler;
    EXPECT_FALSE(options.Set("-Missing", "1"));
    ASSERT_EQ(handler.warnings.size(), 1u);
    EXPECT_PRED2(Contains, handler.warnings[0], "-Missing");
    EXPECT_TRUE(handler.fatals.empty());
}

TEST(QVOptionsTest, SetUnparsableTextFailsWithExactlyOneWarningEach) {
    QVOptions options = MakeTestOptions();
    ASSERT_TRUE(options.Set("-Count", "10"));
    ASSERT_TRUE(options.Set("-Scale", "2"));

    struct Case {
        const char* name;
        const char* text;
    };
    const Case cases[] = {{"-Count", "abc"}, {"-Count", "-3"},   {"-Count", "1.5x"},
                          {"-Scale", "abc"}, {"-Scale", "1.5x"}, {"-Flag", "abc"}};
    for (const Case& c : cases) {
        MessageRecorder handler;
        EXPECT_FALSE(options.Set(c.name, c.text)) << c.name << " " << c.text;
        ASSERT_EQ(handler.warnings.size(), 1u) << c.name << " " << c.text;
        EXPECT_PRED2(Contains, handler.warnings[0], c.name);
    }

    // Every failed Set left the earlier values alone.
    unsigned int count = 0;
    double scale = 0.0;
    bool flag = true;
    EXPECT_TRUE(options.Get("-Count", count));
    EXPECT_EQ(count, 10u);
    EXPECT_TRUE(options.Get("-Scale", scale));
    EXPECT_EQ(scale, 2.0);
    EXPECT_TRUE(options.Get("-Flag", flag));
    EXPECT_FALSE(flag);
    EXPECT_FALSE(options.GetParameter(2)->GetHasValue(0));
}

TEST(QVOptionsTest, SetOutOfRangeFailsWithExactlyOneWarningEach) {
    QVOptions options = MakeTestOptions();
    struct Case {
        const char* name;
        const char* text;
    };
    const Case cases[] = {{"-Count", "21"},
                          {"-Count", "1"},
                          {"-Count", "0"},
                          {"-Scale", "4.5"},
                          {"-Scale", "-1.0001"}};
    for (const Case& c : cases) {
        MessageRecorder handler;
        EXPECT_FALSE(options.Set(c.name, c.text)) << c.name << " " << c.text;
        EXPECT_EQ(handler.warnings.size(), 1u) << c.name << " " << c.text;
    }
    EXPECT_FALSE(options.GetParameter(0)->GetHasValue(0));
    EXPECT_FALSE(options.GetParameter(1)->GetHasValue(0));

    // Both ends of each range are legal.
    MessageRecorder handler;
    EXPECT_TRUE(options.Set("-Count", "2"));
    EXPECT_TRUE(options.Set("-Count", "20"));
    EXPECT_TRUE(options.Set("-Scale", "-1"));
    EXPECT_TRUE(options.Set("-Scale", "4"));
    EXPECT_TRUE(handler.warnings.empty());
}

TEST(QVOptionsTest, CreateCopyCarriesValuesAndIsIndependent) {
    QVOptions options = MakeTestOptions();
    ASSERT_TRUE(options.Set("-Count", "11"));
    ASSERT_TRUE(options.Set("-Flag", "yes"));

    std::unique_ptr<QVOptions> copy(options.CreateCopy());
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(copy->GetName(), "Test Options");
    EXPECT_EQ(copy->GetNumSlots(), 3u);
    unsigned int count = 0;
    bool flag = false;
    double scale = 0.0;
    EXPECT_TRUE(copy->Get("-Count", count));
    EXPECT_EQ(count, 11u);
    EXPECT_TRUE(copy->Get("-Flag", flag));
    EXPECT_TRUE(flag);
    EXPECT_TRUE(copy->Get("-Scale", scale));
    EXPECT_EQ(scale, 1.5);
    EXPECT_FALSE(copy->GetParameter(1)->GetHasValue(0));
    EXPECT_EQ(copy->GetParameter(0)->GetBrief(), "How many.");
    // The copy owns new parameters.
    EXPECT_NE(copy->GetParameter(0), options.GetParameter(0));

    ASSERT_TRUE(options.Set("-Count", "3"));
    EXPECT_TRUE(copy->Get("-Count", count));
    EXPECT_EQ(count, 11u);
    ASSERT_TRUE(copy->Set("-Scale", "0.25"));
    EXPECT_TRUE(options.Get("-Scale", scale));
    EXPECT_EQ(scale, 1.5);

    // The legal range travels with the copy.
    MessageRecorder handler;
    EXPECT_FALSE(copy->Set("-Count", "21"));
    EXPECT_EQ(handler.warnings.size(), 1u);
}

TEST(QVOptionsTest, CopyConstructionAndAssignmentCarryValues) {
    QVOptions options = MakeTestOptions();
    ASSERT_TRUE(options.Set("-Scale", "3.5"));

    QVOptions constructed(options);
    double scale = 0.0;
    EXPECT_TRUE(constructed.Get("-Scale", scale));
    EXPECT_EQ(scale, 3.5);

    QVOptions assigned("Other", 1, 0);
    assigned = options;
    EXPECT_EQ(assigned.GetName(), "Test Options");
    EXPECT_EQ(assigned.GetNumSlots(), 3u);
    EXPECT_TRUE(assigned.Get("-Scale", scale));
    EXPECT_EQ(scale, 3.5);

    ASSERT_TRUE(options.Set("-Scale", "-0.75"));
    EXPECT_TRUE(assigned.Get("-Scale", scale));
    EXPECT_EQ(scale, 3.5);
    EXPECT_TRUE(constructed.Get("-Scale", scale));
    EXPECT_EQ(scale, 3.5);

    // Self-assignment keeps the object intact.
    QVOptions& alias = assigned;
    assigned = alias;
    EXPECT_TRUE(assigned.Get("-Scale", scale));
    EXPECT_EQ(scale, 3.5);
}

TEST(QVOptionsTest, SetParameterReplacesTheParameterInTheSlot) {
    QVOptions options = MakeTestOptions();
    options.SetParameter(1, std::make_unique<QVDoubleParameter>("-Other", 8.0));
    EXPECT_EQ(options.FindParameter("-Scale"), nullptr);
    double value = 0.0;
    EXPECT_TRUE(options.Get("-Other", value));
    EXPECT_EQ(value, 8.0);
}

TEST(QVOptionsTest, DescribeListsEveryParameterWithDefaultAndBrief) {
    const QVOptions options = MakeTestOptions();
    const std::string listing = options.Describe();
    EXPECT_PRED2(Contains, listing, "Test Options");
    EXPECT_PRED2(Contains, listing, "-Count");
    EXPECT_PRED2(Contains, listing, "How many.");
    EXPECT_PRED2(Contains, listing, "-Scale");
    EXPECT_PRED2(Contains, listing, "-Flag");
}

TEST(QVOptionsTest, SlotOutsideRangeIsFatal) {
    QVOptions options = MakeTestOptions();
    const QVOptions& constant = options;
    MessageRecorder handler(/*throwOnFatal=*/true);
    EXPECT_THROW(options.GetParameter(3), std::runtime_error);
    EXPECT_THROW(constant.GetParameter(100), std::runtime_error);
    EXPECT_THROW(options.SetParameter(3, std::make_unique<QVBoolParameter>("-X", true)),
                 std::runtime_error);
    EXPECT_EQ(handler.fatals.size(), 3u);
    EXPECT_TRUE(handler.warnings.empty());
    // The object is untouched by the failed calls.
    EXPECT_EQ(options.GetNumSlots(), 3u);
    EXPECT_EQ(options.FindParameter("-X"), nullptr);
}

TEST(QVOptionsTest, NestedGroupsAreFatal) {
    MessageRecorder handler(/*throwOnFatal=*/true);
    EXPECT_THROW(QVOptions("Grouped", 2, 1), std::runtime_error);
    EXPECT_EQ(handler.fatals.size(), 1u);
}

TEST(QVOptionsDeathTest, SlotOutsideRangeAbortsWithTheDefaultHandler) {
    EXPECT_DEATH(
        {
            QVThrow.SetHandler(QVErrorCallback{});
            QVOptions options("Small", 2, 0);
            options.GetParameter(2);
        },
        "Fatal: .*slot 2");
}

}  // namespace
