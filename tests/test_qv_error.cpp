// Unit tests of the process-wide error handler QVSystem::QVThrow.

#include <gtest/gtest.h>

#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "qv/error.h"
#include "support/test_support.h"

namespace {

using QVSystem::QVErrorCallback;
using QVSystem::QVSeverity;
using QVSystem::QVThrow;

using hermite_test::HandlerGuard;

/// One message as the handler received it.
struct Message {
    QVSeverity severity;
    std::string text;
};

/// A handler that appends every message to `messages`.
QVErrorCallback Recorder(std::vector<Message>& messages) {
    return [&messages](QVSeverity severity, const std::string& text) {
        messages.push_back({severity, text});
    };
}

/// A handler that turns fatal errors into exceptions and records warnings.
QVErrorCallback ThrowingRecorder(std::vector<Message>& messages) {
    return [&messages](QVSeverity severity, const std::string& text) {
        messages.push_back({severity, text});
        if (severity == QVSeverity::Fatal) {
            throw std::runtime_error(text);
        }
    };
}

TEST(QVErrorHandlerTest, SetHandlerReturnsThePreviouslyInstalledHandler) {
    std::vector<Message> first;
    std::vector<Message> second;
    HandlerGuard guard(Recorder(first));

    QVErrorCallback previous = QVThrow.SetHandler(Recorder(second));
    ASSERT_TRUE(static_cast<bool>(previous));
    // The returned function is the first recorder: calling it records into `first`.
    previous(QVSeverity::Warning, "direct call");
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0].text, "direct call");
    EXPECT_TRUE(second.empty());

    // Reports now go to the second handler only.
    QVThrow.Warning("to the second");
    ASSERT_EQ(second.size(), 1u);
    EXPECT_EQ(second[0].text, "to the second");
    EXPECT_EQ(first.size(), 1u);

    // Swapping back returns the second handler.
    QVErrorCallback displaced = QVThrow.SetHandler(std::move(previous));
    ASSERT_TRUE(static_cast<bool>(displaced));
    displaced(QVSeverity::Warning, "second again");
    ASSERT_EQ(second.size(), 2u);
    EXPECT_EQ(second[1].text, "second again");
}

TEST(QVErrorHandlerTest, EmptyHandlerStandsForTheDefaultAndIsReturnedAsEmpty) {
    HandlerGuard guard(QVErrorCallback{});
    std::vector<Message> messages;
    // The default handler is represented by an empty function.
    QVErrorCallback previous = QVThrow.SetHandler(Recorder(messages));
    EXPECT_FALSE(static_cast<bool>(previous));
    QVThrow.SetHandler(QVErrorCallback{});
}

TEST(QVErrorHandlerTest, WarningFormatsPrintfStyleAndReachesHandlerAsWarning) {
    std::vector<Message> messages;
    HandlerGuard guard(Recorder(messages));

    QVThrow.Warning("%s has %d items at %.2f each (%u%%)", "list", 3, 1.5, 40u);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].severity, QVSeverity::Warning);
    EXPECT_EQ(messages[0].text, "list has 3 items at 1.50 each (40%)");

    // A format without conversions passes through unchanged, including a trailing newline.
    QVThrow.Warning("This method has not been implemented yet.\n");
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[1].severity, QVSeverity::Warning);
    EXPECT_EQ(messages[1].text, "This method has not been implemented yet.\n");
}

TEST(QVErrorHandlerTest, WarningReturnsToTheCallerAfterTheHandler) {
    std::vector<Message> messages;
    HandlerGuard guard(Recorder(messages));
    bool continued = false;
    QVThrow.Warning("recoverable %d", 1);
    continued = true;
    EXPECT_TRUE(continued);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].text, "recoverable 1");
}

TEST(QVErrorHandlerTest, LongMessagesAreFormattedCompletely) {
    std::vector<Message> messages;
    HandlerGuard guard(Recorder(messages));
    const std::string long_text(5000, 'x');
    QVThrow.Warning("<%s>", long_text.c_str());
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].text, "<" + long_text + ">");
}

TEST(QVErrorHandlerTest, FatalReachesHandlerAsFatalAndUnwindsWhenHandlerThrows) {
    std::vector<Message> messages;
    HandlerGuard guard(ThrowingRecorder(messages));

    bool reached_after_fatal = false;
    try {
        QVThrow.Fatal("Assertion failed at line %d of %s.\n", 42, "hermite_private");
        reached_after_fatal = true;
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "Assertion failed at line 42 of hermite_private.\n");
    }
    EXPECT_FALSE(reached_after_fatal);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].severity, QVSeverity::Fatal);
    EXPECT_EQ(messages[0].text, "Assertion failed at line 42 of hermite_private.\n");
}

TEST(QVErrorHandlerTest, FatalThrowingHandlerPropagatesThroughEXPECT_THROW) {
    std::vector<Message> messages;
    HandlerGuard guard(ThrowingRecorder(messages));
    EXPECT_THROW(QVThrow.Fatal("%s", "boom"), std::runtime_error);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].text, "boom");
}

TEST(QVErrorHandlerTest, HandlerMayReplaceTheHandlerWhileRunning) {
    // The handler runs without the handler lock held, so it may install another handler.
    std::vector<Message> later;
    HandlerGuard guard(QVErrorCallback{});
    int calls = 0;
    QVThrow.SetHandler([&](QVSeverity, const std::string&) {
        ++calls;
        QVThrow.SetHandler(Recorder(later));
    });
    QVThrow.Warning("first");
    QVThrow.Warning("second");
    EXPECT_EQ(calls, 1);
    ASSERT_EQ(later.size(), 1u);
    EXPECT_EQ(later[0].text, "second");
}

TEST(QVErrorHandlerTest, HandlerMayReportWhileRunning) {
    // A handler that itself reports a warning (nested dispatch) must not dead-lock.
    std::vector<Message> messages;
    HandlerGuard guard(QVErrorCallback{});
    QVThrow.SetHandler([&](QVSeverity severity, const std::string& text) {
        messages.push_back({severity, text});
        if (text == "outer") {
            QVThrow.Warning("inner");
        }
    });
    QVThrow.Warning("outer");
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].text, "outer");
    EXPECT_EQ(messages[1].text, "inner");
}

TEST(QVErrorHandlerTest, DefaultHandlerPrintsWarningToStandardError) {
    HandlerGuard guard(QVErrorCallback{});
    testing::internal::CaptureStderr();
    QVThrow.Warning("value %d of %s", 3, "-NPolyMax");
    const std::string captured = testing::internal::GetCapturedStderr();
    EXPECT_EQ(captured, "Warning: value 3 of -NPolyMax\n");
}

TEST(QVErrorHandlerTest, DefaultHandlerDoesNotDoubleATrailingNewline) {
    HandlerGuard guard(QVErrorCallback{});
    testing::internal::CaptureStderr();
    QVThrow.Warning("Unexpected conditional logical error.\n");
    const std::string captured = testing::internal::GetCapturedStderr();
    EXPECT_EQ(captured, "Warning: Unexpected conditional logical error.\n");
}

TEST(QVErrorHandlerDeathTest, FatalAbortsWhenTheHandlerReturns) {
    // The handler is installed inside the death statement, i.e. only in the child process.
    EXPECT_DEATH(
        {
            QVThrow.SetHandler([](QVSeverity severity, const std::string& text) {
                std::fprintf(stderr, "handler saw %s: %s\n",
                             severity == QVSeverity::Fatal ? "fatal" : "warning", text.c_str());
            });
            QVThrow.Fatal("code %d", 17);
        },
        "handler saw fatal: code 17");
}

TEST(QVErrorHandlerDeathTest, DefaultHandlerPrintsFatalAndAborts) {
    EXPECT_DEATH(
        {
            QVThrow.SetHandler(QVErrorCallback{});
            QVThrow.Fatal("%s\nAssertion failed at line %d of %s.\n", "context", 7,
                          "hermite_private");
        },
        "Fatal: context\nAssertion failed at line 7 of hermite_private\\.");
}

}  // namespace
