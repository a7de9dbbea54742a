#include <algorithm>
#include <cstdint>
#include <future>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/experimental/parallel_group.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/asio/use_future.hpp>

#include <VantorqFoundation/VantorqFoundation.h>

#include "Support/AllocationCount.h"

namespace {

using namespace vantorq;
namespace asio = boost::asio;

asio::thread_pool& asioPool() {
    static auto& pool = *new asio::thread_pool(std::max(std::thread::hardware_concurrency(), 1U));
    return pool;
}

constexpr int kTasks = 10'000;
constexpr std::int64_t kSum = std::int64_t{kTasks} * (kTasks - 1) / 2;

/// `sum()` runs so many tasks, each of which gives its number, and adds these up.
template <class Sum>
void runTasks(benchmark::State& state, Sum sum) {
    while (state.KeepRunningBatch(kTasks)) {
        if (sum() != kSum) {
            state.SkipWithError("not every task has given its value");
            return;
        }
    }
}

Async<std::int64_t> numberOf(std::int64_t number) {
    co_return number;
}

asio::awaitable<std::int64_t> asioNumberOf(std::int64_t number) {
    co_return number;
}

// A coroutine on the pool starts tasks there and awaits their values, one task at a time. The time
// is that of one task.

Async<std::int64_t> awaitOneByOne() {
    std::int64_t sum = 0;
    for (std::int64_t number = 0; number < kTasks; ++number) {
        const auto task = Task<std::int64_t>::start([number] { return numberOf(number); });
        sum += co_await task.value();
    }
    co_return sum;
}

void awaitOurTasks(benchmark::State& state) {
    runTasks(state, [] { return syncWait(Task<std::int64_t>::start(awaitOneByOne)); });
}
BENCHMARK(awaitOurTasks)->Name("start a task and await its value/ours")->UseRealTime();

asio::awaitable<std::int64_t> awaitOneByOneOnAsio() {
    const auto executor = co_await asio::this_coro::executor;
    std::int64_t sum = 0;
    for (std::int64_t number = 0; number < kTasks; ++number) {
        sum += co_await asio::co_spawn(executor, asioNumberOf(number), asio::use_awaitable);
    }
    co_return sum;
}

void awaitAsioTasks(benchmark::State& state) {
    runTasks(state, [] {
        return asio::co_spawn(asioPool(), awaitOneByOneOnAsio(), asio::use_future).get();
    });
}
BENCHMARK(awaitAsioTasks)
    ->Name("start a task and await its value/boost::asio::co_spawn")
    ->UseRealTime();

// The same with all tasks in flight at once.

Async<std::int64_t> awaitTogether() {
    std::vector<Task<std::int64_t>> tasks;
    tasks.reserve(kTasks);
    for (std::int64_t number = 0; number < kTasks; ++number) {
        tasks.push_back(Task<std::int64_t>::start([number] { return numberOf(number); }));
    }
    std::int64_t sum = 0;
    for (const auto& task : tasks) {
        sum += co_await task.value();
    }
    co_return sum;
}

void awaitOurTasksTogether(benchmark::State& state) {
    runTasks(state, [] { return syncWait(Task<std::int64_t>::start(awaitTogether)); });
}
BENCHMARK(awaitOurTasksTogether)
    ->Name("start many tasks, then await their values/ours")
    ->UseRealTime();

asio::awaitable<std::int64_t> awaitTogetherOnAsio() {
    const auto executor = co_await asio::this_coro::executor;
    const auto spawn = [&](std::int64_t number) {
        return asio::co_spawn(executor, asioNumberOf(number), asio::deferred);
    };
    std::vector<decltype(spawn(0))> tasks;
    tasks.reserve(kTasks);
    for (std::int64_t number = 0; number < kTasks; ++number) {
        tasks.push_back(spawn(number));
    }
    const auto [order, errors, values] =
        co_await asio::experimental::make_parallel_group(std::move(tasks))
            .async_wait(asio::experimental::wait_for_all(), asio::use_awaitable);
    std::int64_t sum = 0;
    for (const std::int64_t value : values) {
        sum += value;
    }
    co_return sum;
}

void awaitAsioTasksTogether(benchmark::State& state) {
    runTasks(state, [] {
        return asio::co_spawn(asioPool(), awaitTogetherOnAsio(), asio::use_future).get();
    });
}
BENCHMARK(awaitAsioTasksTogether)
    ->Name("start many tasks, then await their values/boost::asio::co_spawn")
    ->UseRealTime();

/// Each one's value comes by a future.
void awaitAsioFutures(benchmark::State& state) {
    runTasks(state, [] {
        std::vector<std::future<std::int64_t>> futures;
        futures.reserve(kTasks);
        for (std::int64_t number = 0; number < kTasks; ++number) {
            futures.push_back(asio::co_spawn(asioPool(), asioNumberOf(number), asio::use_future));
        }
        std::int64_t sum = 0;
        for (auto& future : futures) {
            sum += future.get();
        }
        return sum;
    });
}
BENCHMARK(awaitAsioFutures)
    ->Name("start many tasks, then await their values/boost::asio::co_spawn with futures")
    ->UseRealTime();

// What starting a task takes on the thread that starts it.

void startTask(benchmark::State& state) {
    const auto work = [] { return numberOf(1); };
    std::vector<Task<std::int64_t>> tasks;
    tasks.reserve(kTasks);
    const std::uint64_t before = allocationCount();
    while (state.KeepRunningBatch(kTasks)) {
        for (int i = 0; i < kTasks; ++i) {
            tasks.push_back(Task<std::int64_t>::start(work));
        }
        for (const auto& task : tasks) {
            if (syncWait(task) != 1) {
                state.SkipWithError("a task has given another value");
            }
        }
        tasks.clear();
    }
    state.counters["allocs"] = benchmark::Counter(static_cast<double>(allocationCount() - before),
                                                  benchmark::Counter::kAvgIterations);
}
BENCHMARK(startTask)->Name("start a task/ours")->UseRealTime();

// A function that returns at once is called and awaited. The time is that of one call.

/// Out of line, so that its frame is not a part of the caller's.
[[gnu::noinline]] Async<int> readyNumber(int number) {
    co_return number;
}

[[gnu::noinline]] asio::awaitable<int> asioReadyNumber(int number) {
    co_return number;
}

Async<std::int64_t> awaitReady(benchmark::State& state) {
    const std::uint64_t before = allocationCount();
    std::int64_t sum = 0;
    for (auto _ : state) {
        sum += co_await readyNumber(1);
    }
    state.counters["allocs"] = benchmark::Counter(static_cast<double>(allocationCount() - before),
                                                  benchmark::Counter::kAvgIterations);
    co_return sum;
}

void awaitOurReadyFunction(benchmark::State& state) {
    if (syncWait(awaitReady(state)) != static_cast<std::int64_t>(state.iterations())) {
        state.SkipWithError("not every call has given its value");
    }
}
BENCHMARK(awaitOurReadyFunction)->Name("await a ready Async<int>/ours");

asio::awaitable<std::int64_t> awaitReadyOnAsio(benchmark::State& state) {
    std::int64_t sum = 0;
    for (auto _ : state) {
        sum += co_await asioReadyNumber(1);
    }
    co_return sum;
}

void awaitAsioReadyFunction(benchmark::State& state) {
    asio::io_context context;
    auto sum = asio::co_spawn(context, awaitReadyOnAsio(state), asio::use_future);
    context.run();
    if (sum.get() != static_cast<std::int64_t>(state.iterations())) {
        state.SkipWithError("not every call has given its value");
    }
}
BENCHMARK(awaitAsioReadyFunction)->Name("await a ready Async<int>/boost::asio::awaitable");

}  // namespace
