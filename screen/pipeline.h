/// \file
/// The engine's one mechanism for threads, bounded queues, cancellation and polling: an ordered
/// pipeline of three stages.
///
///     reader thread        worker threads           calling thread
///     produce(item) --> [queue] --> work(item) --> [reorder window] --> consume(output)
///
/// Items are numbered as they are produced; the calling thread consumes the outputs strictly in
/// that order, so whatever the number of workers and however the work is scheduled, the
/// consumer sees the same sequence. Memory is bounded: the reader holds one item while it
/// waits for room, at most `queueCapacity` items wait for a worker, every worker holds one, a
/// finished output waits only while it is less than `queueCapacity + workers` items ahead of
/// the consumer (a worker that runs further ahead waits), and the consumer holds one: at most
/// 2 (queueCapacity + workers) + 2 items at once, whatever the number of items.
///
/// Cancellation: `RunControl::Cancel` (from any thread, or from `poll` on the calling thread)
/// stops the reader before its next item and the workers before their next item; every wait
/// wakes at least every `pollInterval`, so a run stops within that interval plus the time a
/// worker needs to finish (or abandon, see `RunControl::Flag`) the item in hand.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace hermite::screen {

/// The cancellation state of one run, shared by its stages. Thread-safe.
class RunControl {
public:
    /// Asks the run to stop as soon as it can. Idempotent.
    void Cancel() { cancelled_.store(true); }
    bool Cancelled() const { return cancelled_.load(); }
    /// The flag itself, for long computations that check it on their own (conformer
    /// generation does, between its attempts).
    const std::atomic<bool>& Flag() const { return cancelled_; }

private:
    std::atomic<bool> cancelled_{false};
};

/// What the caller of a run hears while it runs; either member may be empty.
template <class Progress>
struct RunCallbacks {
    /// Called on the calling thread about every 100 ms and once at the end.
    std::function<void(const Progress&)> progress;
    /// Polled on the calling thread about every 100 ms; true cancels the run.
    std::function<bool()> stop;
};

/// The `poll` of a pipeline run: cancels `control` when `callbacks.stop` says so and reports
/// `counts` (read when called, so they may change during the run) to `callbacks.progress`.
template <class Progress>
std::function<void()> PollCallbacks(const RunCallbacks<Progress>& callbacks, const Progress& counts,
                                    RunControl& control) {
    return [&callbacks, &counts, &control] {
        if (callbacks.stop && callbacks.stop()) {
            control.Cancel();
        }
        if (callbacks.progress) {
            callbacks.progress(counts);
        }
    };
}

/// Counts things alive between two points of a pipeline (molecules read and not yet ranked)
/// and keeps the most at once. Thread-safe.
class FlightCounter {
public:
    void Enter(std::size_t count) {
        const std::size_t now = alive_.fetch_add(count) + count;
        std::size_t peak = peak_.load();
        while (now > peak && !peak_.compare_exchange_weak(peak, now)) {
        }
    }
    void Leave(std::size_t count) { alive_.fetch_sub(count); }
    std::size_t Peak() const { return peak_.load(); }

private:
    std::atomic<std::size_t> alive_{0};
    std::atomic<std::size_t> peak_{0};
};

/// How a pipeline runs.
struct PipelineOptions {
    /// Worker threads (at least 1).
    unsigned int workers = 1;
    /// Items waiting for a worker at most; 0 for 4 per worker.
    std::size_t queueCapacity = 0;
    /// How often waiting threads wake up to look at the cancellation flag, and the longest
    /// time between two calls of `poll`.
    std::chrono::milliseconds pollInterval{100};
};

/// What a pipeline run measured.
struct PipelineStatistics {
    /// Items produced and consumed.
    std::size_t items = 0;
    /// The most items alive at once between production and the end of their consumption.
    std::size_t peakInFlight = 0;
    /// True when the run stopped because of `RunControl::Cancel`.
    bool cancelled = false;
};

/// The number of worker threads for a requested count, by RDKit's convention: 0 means all
/// cores, a negative -n all cores but n (at least 1), a positive value that many. `cores` is
/// the number of cores (0 when unknown, taken as 1).
unsigned int ResolveThreadCount(long long requested, unsigned int cores);

/// Puts the calling thread into the floating-point mode the library computes in
/// (flush-to-zero and denormals-are-zero; the library switches them on in the thread that
/// loads it), so that results do not depend on the thread that computed them.
void UseLibraryFloatingPointMode();

/// Runs the pipeline described in the file comment until `produce` returns false and every
/// item is consumed, or until the run is cancelled. `produce` runs on one reader thread,
/// `work` on `options.workers` threads at once, `consume` and `poll` on the calling thread.
/// An exception thrown by any of them cancels the run and is rethrown here once every thread
/// has stopped.
template <class Item, class Output>
PipelineStatistics RunOrderedPipeline(const PipelineOptions& options, RunControl& control,
                                      const std::function<bool(Item&)>& produce,
                                      const std::function<Output(Item&)>& work,
                                      const std::function<void(Output&)>& consume,
                                      const std::function<void()>& poll) {
    using Clock = std::chrono::steady_clock;
    const unsigned int workers = std::max(1u, options.workers);
    const std::size_t capacity = options.queueCapacity > 0 ? options.queueCapacity : 4 * workers;
    const std::size_t window = capacity + workers;

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::pair<std::size_t, Item>> queue;
    std::map<std::size_t, Output> finished;
    std::size_t producedCount = 0;
    std::size_t nextToConsume = 0;
    std::size_t inFlight = 0;
    bool producing = true;
    std::exception_ptr error;
    PipelineStatistics statistics;

    // Called with the lock held.
    const auto stopping = [&] { return control.Cancelled() || error != nullptr; };
    const auto fail = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        if (!error) {
            error = std::current_exception();
        }
        changed.notify_all();
    };

    const auto readerLoop = [&] {
        UseLibraryFloatingPointMode();
        while (true) {
            Item item;
            try {
                if (control.Cancelled() || !produce(item)) {
                    break;
                }
            } catch (...) {
                fail();
                break;
            }
            std::unique_lock<std::mutex> lock(mutex);
            while (queue.size() >= capacity && !stopping()) {
                changed.wait_for(lock, options.pollInterval);
            }
            if (stopping()) {
                break;
            }
            queue.emplace_back(producedCount++, std::move(item));
            statistics.peakInFlight = std::max(statistics.peakInFlight, ++inFlight);
            changed.notify_all();
        }
        std::lock_guard<std::mutex> lock(mutex);
        producing = false;
        changed.notify_all();
    };

    const auto workerLoop = [&] {
        UseLibraryFloatingPointMode();
        while (true) {
            std::pair<std::size_t, Item> job;
            {
                std::unique_lock<std::mutex> lock(mutex);
                while (queue.empty() && producing && !stopping()) {
                    changed.wait_for(lock, options.pollInterval);
                }
                if (stopping() || queue.empty()) {
                    return;
                }
                job = std::move(queue.front());
                queue.pop_front();
                changed.notify_all();
            }
            Output output;
            try {
                output = work(job.second);
            } catch (...) {
                fail();
                return;
            }
            std::unique_lock<std::mutex> lock(mutex);
            while (job.first >= nextToConsume + window && !stopping()) {
                changed.wait_for(lock, options.pollInterval);
            }
            if (stopping()) {
                return;
            }
            finished.emplace(job.first, std::move(output));
            changed.notify_all();
        }
    };

    poll();  // a run may be cancelled before it starts
    std::vector<std::thread> threads;
    const auto joinAll = [&] {
        {
            std::lock_guard<std::mutex> lock(mutex);
            changed.notify_all();
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    };
    try {
        threads.emplace_back(readerLoop);
        for (unsigned int w = 0; w < workers; ++w) {
            threads.emplace_back(workerLoop);
        }
    } catch (...) {
        control.Cancel();  // a thread could not be started
        joinAll();
        throw;
    }

    Clock::time_point lastPoll = Clock::now();
    try {
        while (true) {
            if (Clock::now() - lastPoll >= options.pollInterval) {
                poll();
                lastPoll = Clock::now();
            }
            std::unique_lock<std::mutex> lock(mutex);
            const auto ready = [&] {
                return stopping() || finished.count(nextToConsume) > 0 ||
                       (!producing && nextToConsume == producedCount);
            };
            if (!ready()) {
                changed.wait_for(lock, options.pollInterval, ready);
            }
            if (stopping() || (!producing && nextToConsume == producedCount)) {
                break;
            }
            auto next = finished.find(nextToConsume);
            if (next == finished.end()) {
                continue;
            }
            Output output = std::move(next->second);
            finished.erase(next);
            ++nextToConsume;
            changed.notify_all();
            lock.unlock();
            consume(output);
            lock.lock();
            --inFlight;
        }
    } catch (...) {
        fail();
    }
    joinAll();
    if (error) {
        std::rethrow_exception(error);
    }
    statistics.items = nextToConsume;
    statistics.cancelled = control.Cancelled();
    poll();
    return statistics;
}

}  // namespace hermite::screen
