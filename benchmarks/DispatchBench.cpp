#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <thread>
#include <vector>

#include <QThreadPool>
#include <benchmark/benchmark.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <oneapi/tbb/task_group.h>

#include <VantorqFoundation/VantorqFoundation.h>

#include "Countdown.h"

namespace {

using namespace vantorq;

boost::asio::thread_pool& asioPool() {
    static auto& pool =
        *new boost::asio::thread_pool(std::max(std::thread::hardware_concurrency(), 1U));
    return pool;
}

// Many blocks on a concurrent queue. The time is that of one block, from the first that is queued
// to the end of the last.

constexpr int kBlocks = 1'000'000;

template <class Submit>
void submitBlocks(benchmark::State& state, Submit submit) {
    static Countdown countdown;
    while (state.KeepRunningBatch(kBlocks)) {
        countdown.start(kBlocks);
        for (int i = 0; i < kBlocks; ++i) {
            submit([] { countdown.countDown(); });
        }
        countdown.wait();
    }
}

void submitToGlobalQueue(benchmark::State& state) {
    const auto queue = DispatchQueue::global();
    submitBlocks(state, [&](auto block) { queue->async(block); });
}
BENCHMARK(submitToGlobalQueue)->Name("queue an empty block/ours")->UseRealTime();

void submitToQThreadPool(benchmark::State& state) {
    QThreadPool* pool = QThreadPool::globalInstance();
    submitBlocks(state, [&](auto block) { pool->start(block); });
}
BENCHMARK(submitToQThreadPool)->Name("queue an empty block/QThreadPool")->UseRealTime();

void submitToAsioPool(benchmark::State& state) {
    boost::asio::thread_pool& pool = asioPool();
    submitBlocks(state, [&](auto block) { boost::asio::post(pool, block); });
}
BENCHMARK(submitToAsioPool)->Name("queue an empty block/boost::asio::thread_pool")->UseRealTime();

/// A task group has to be waited for, and the waiting thread then helps.
void submitToTaskGroup(benchmark::State& state) {
    static Countdown countdown;
    while (state.KeepRunningBatch(kBlocks)) {
        countdown.start(kBlocks);
        tbb::task_group group;
        for (int i = 0; i < kBlocks; ++i) {
            group.run([] { countdown.countDown(); });
        }
        group.wait();
        countdown.wait();
    }
}
BENCHMARK(submitToTaskGroup)->Name("queue an empty block/tbb::task_group")->UseRealTime();

// One block at a time: from queueing it until the thread that queued it knows that it has run.

template <class Submit>
void submitAndWait(benchmark::State& state, Submit submit) {
    static Countdown countdown;
    for (auto _ : state) {
        countdown.start(1);
        submit([] { countdown.countDown(); });
        countdown.wait();
    }
}

void submitAndWaitOurs(benchmark::State& state) {
    const auto queue = DispatchQueue::global();
    submitAndWait(state, [&](auto block) { queue->async(block); });
}
BENCHMARK(submitAndWaitOurs)->Name("queue one block and wait/ours")->UseRealTime();

void submitAndWaitQt(benchmark::State& state) {
    QThreadPool* pool = QThreadPool::globalInstance();
    submitAndWait(state, [&](auto block) { pool->start(block); });
}
BENCHMARK(submitAndWaitQt)->Name("queue one block and wait/QThreadPool")->UseRealTime();

void submitAndWaitAsio(benchmark::State& state) {
    boost::asio::thread_pool& pool = asioPool();
    submitAndWait(state, [&](auto block) { boost::asio::post(pool, block); });
}
BENCHMARK(submitAndWaitAsio)
    ->Name("queue one block and wait/boost::asio::thread_pool")
    ->UseRealTime();

// Blocks that run one after the other, which they check.

constexpr int kSerialBlocks = 100'000;

template <class Submit>
void submitInOrder(benchmark::State& state, Submit submit) {
    static Countdown countdown;
    bool isInOrder = true;
    while (state.KeepRunningBatch(kSerialBlocks)) {
        countdown.start(kSerialBlocks);
        int next = 0;
        for (int i = 0; i < kSerialBlocks; ++i) {
            submit([&isInOrder, &next, i] {
                isInOrder = isInOrder && next++ == i;
                countdown.countDown();
            });
        }
        countdown.wait();
    }
    if (!isInOrder) {
        state.SkipWithError("the blocks have not run in their order");
    }
}

void submitToSerialQueue(benchmark::State& state) {
    const auto queue = DispatchQueue::serial("bench");
    submitInOrder(state, [&](auto block) { queue->async(block); });
}
BENCHMARK(submitToSerialQueue)->Name("queue a block on a serial queue/ours")->UseRealTime();

void submitToStrand(benchmark::State& state) {
    auto strand = boost::asio::make_strand(asioPool());
    submitInOrder(state, [&](auto block) { boost::asio::post(strand, block); });
}
BENCHMARK(submitToStrand)
    ->Name("queue a block on a serial queue/boost::asio::strand")
    ->UseRealTime();

// Timers that are armed and then cancelled, as time-outs mostly are, 1,000 at a time.

constexpr int kTimers = 1'000;

void armAndCancelTimers(benchmark::State& state) {
    const auto queue = DispatchQueue::global();
    static constinit std::atomic<int> fired{0};
    std::vector<Ref<DispatchTimer>> timers(kTimers);
    while (state.KeepRunningBatch(kTimers)) {
        for (auto& timer : timers) {
            timer = DispatchTimer::timer(queue, [] { ++fired; });
            timer->schedule(30'000'000'000, 1'000'000'000);
        }
        for (auto& timer : timers) {
            timer->cancel();
            timer.reset();
        }
    }
    if (fired != 0) {
        state.SkipWithError("a cancelled timer has fired");
    }
}
BENCHMARK(armAndCancelTimers)->Name("arm and cancel a timer/ours");

/// A cancelled timer still calls its handler, with an error, when its context is polled.
void armAndCancelAsioTimers(benchmark::State& state) {
    boost::asio::io_context context(1);
    int fired = 0;
    std::vector<boost::asio::steady_timer> timers;
    timers.reserve(kTimers);
    while (state.KeepRunningBatch(kTimers)) {
        for (int i = 0; i < kTimers; ++i) {
            auto& timer = timers.emplace_back(context, std::chrono::seconds(30));
            timer.async_wait([&fired](const boost::system::error_code& error) {
                if (!error) {
                    ++fired;
                }
            });
        }
        for (auto& timer : timers) {
            timer.cancel();
        }
        timers.clear();
        context.restart();
        context.poll();
    }
    if (fired != 0) {
        state.SkipWithError("a cancelled timer has fired");
    }
}
BENCHMARK(armAndCancelAsioTimers)->Name("arm and cancel a timer/boost::asio::steady_timer");

}  // namespace
