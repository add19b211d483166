// The ordered pipeline: input order, bounded memory, cancellation and errors.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "screen/pipeline.h"

namespace hermite::screen {
namespace {

/// Counts the objects alive at once: a token is alive from its creation until it is destroyed
/// (a moved-from token is not alive).
class LiveCounter {
public:
    void Born() {
        const int now = ++alive_;
        int peak = peak_.load();
        while (now > peak && !peak_.compare_exchange_weak(peak, now)) {
        }
    }
    void Died() { --alive_; }
    int Alive() const { return alive_.load(); }
    int Peak() const { return peak_.load(); }

private:
    std::atomic<int> alive_{0};
    std::atomic<int> peak_{0};
};

class Token {
public:
    Token() = default;
    Token(LiveCounter& counter, int value) : counter_(&counter), value_(value) { counter.Born(); }
    Token(Token&& other) noexcept : counter_(other.counter_), value_(other.value_) {
        other.counter_ = nullptr;
    }
    Token& operator=(Token&& other) noexcept {
        Release();
        counter_ = other.counter_;
        value_ = other.value_;
        other.counter_ = nullptr;
        return *this;
    }
    Token(const Token&) = delete;
    Token& operator=(const Token&) = delete;
    ~Token() { Release(); }
    int Value() const { return value_; }

private:
    void Release() {
        if (counter_ != nullptr) {
            counter_->Died();
            counter_ = nullptr;
        }
    }
    LiveCounter* counter_ = nullptr;
    int value_ = 0;
};

/// Runs `count` items through a pipeline whose work takes a random time of up to
/// `maxMicroseconds`; returns the values in consumption order.
std::vector<int> RunNumbers(int count, unsigned int workers, std::size_t capacity,
                            LiveCounter& counter, PipelineStatistics* statistics = nullptr,
                            int maxMicroseconds = 200) {
    int next = 0;
    std::vector<int> consumed;
    std::atomic<unsigned int> seed{1};
    const std::function<bool(Token&)> produce = [&](Token& item) {
        if (next == count) {
            return false;
        }
        item = Token(counter, next++);
        return true;
    };
    const std::function<Token(Token&)> work = [&](Token& item) {
        std::minstd_rand random(seed.fetch_add(1));
        std::this_thread::sleep_for(
            std::chrono::microseconds(random() % static_cast<unsigned int>(maxMicroseconds + 1)));
        return Token(std::move(item));
    };
    const std::function<void(Token&)> consume = [&](Token& output) {
        consumed.push_back(output.Value());
    };
    PipelineOptions options;
    options.workers = workers;
    options.queueCapacity = capacity;
    RunControl control;
    const PipelineStatistics result =
        RunOrderedPipeline<Token, Token>(options, control, produce, work, consume, [] {});
    if (statistics != nullptr) {
        *statistics = result;
    }
    return consumed;
}

TEST(PipelineTest, ConsumesInProductionOrderForAnyNumberOfWorkers) {
    for (unsigned int workers : {1u, 2u, 5u}) {
        LiveCounter counter;
        const std::vector<int> consumed = RunNumbers(2000, workers, 3, counter);
        ASSERT_EQ(consumed.size(), 2000u) << workers;
        for (int i = 0; i < 2000; ++i) {
            ASSERT_EQ(consumed[static_cast<std::size_t>(i)], i) << workers;
        }
        EXPECT_EQ(counter.Alive(), 0);
    }
}

TEST(PipelineTest, ObjectsAliveAtOnceAreBoundedByTheQueuesNotByTheInput) {
    // Bound: one held by the reader while it waits for room, `capacity` waiting, one per
    // worker, a window of capacity + workers finished ahead of the consumer, and the one being
    // consumed.
    const unsigned int workers = 3;
    const std::size_t capacity = 4;
    const int bound = static_cast<int>(2 * capacity + 2 * workers + 2);
    for (int count : {100, 20000}) {
        LiveCounter counter;
        PipelineStatistics statistics;
        RunNumbers(count, workers, capacity, counter, &statistics, 50);
        EXPECT_LE(counter.Peak(), bound) << count;
        EXPECT_GE(counter.Peak(), static_cast<int>(workers)) << count;
        EXPECT_LE(statistics.peakInFlight, static_cast<std::size_t>(bound));
        EXPECT_EQ(statistics.items, static_cast<std::size_t>(count));
        EXPECT_EQ(counter.Alive(), 0);
    }
}

TEST(PipelineTest, CancellationFromPollStopsWithinTheInterval) {
    std::atomic<int> produced{0};
    std::vector<int> consumed;
    RunControl control;
    const auto start = std::chrono::steady_clock::now();
    const std::function<bool(int&)> produce = [&](int& item) {
        item = produced++;
        return true;  // endless
    };
    const std::function<int(int&)> work = [](int& item) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        return item;
    };
    const std::function<void(int&)> consume = [&](int& value) { consumed.push_back(value); };
    const std::function<void()> poll = [&] {
        if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(300)) {
            control.Cancel();
        }
    };
    PipelineOptions options;
    options.workers = 2;
    const PipelineStatistics statistics =
        RunOrderedPipeline<int, int>(options, control, produce, work, consume, poll);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_TRUE(statistics.cancelled);
    const char* scale = std::getenv("HERMITE_TIME_SCALE");  // slow builds (sanitizers)
    EXPECT_LT(seconds, 1.0 * (scale != nullptr && std::atof(scale) > 0.0 ? std::atof(scale) : 1.0));
    EXPECT_GT(consumed.size(), 10u);
    for (std::size_t i = 0; i < consumed.size(); ++i) {
        ASSERT_EQ(consumed[i], static_cast<int>(i));
    }
}

TEST(PipelineTest, AnExceptionInAWorkerStopsTheRunAndIsRethrown) {
    int next = 0;
    const std::function<bool(int&)> produce = [&](int& item) {
        item = next++;
        return next <= 1000;
    };
    const std::function<int(int&)> work = [](int& item) {
        if (item == 123) {
            throw std::runtime_error("bad item 123");
        }
        return item;
    };
    int last = -1;
    const std::function<void(int&)> consume = [&](int& value) { last = value; };
    PipelineOptions options;
    options.workers = 2;
    RunControl control;
    try {
        RunOrderedPipeline<int, int>(options, control, produce, work, consume, [] {});
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "bad item 123");
    }
    EXPECT_LT(last, 123);
}

TEST(PipelineTest, ThreadCountsFollowTheUsualConvention) {
    EXPECT_EQ(ResolveThreadCount(0, 8), 8u);
    EXPECT_EQ(ResolveThreadCount(3, 8), 3u);
    EXPECT_EQ(ResolveThreadCount(-2, 8), 6u);
    EXPECT_EQ(ResolveThreadCount(-20, 8), 1u);
    EXPECT_EQ(ResolveThreadCount(0, 0), 1u);
}

}  // namespace
}  // namespace hermite::screen
