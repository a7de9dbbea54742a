#include <cstdint>
#include <optional>
#include <stop_token>
#include <thread>
#include <utility>

#include <benchmark/benchmark.h>

#include <VantorqFoundation/VantorqFoundation.h>

#include "Support/AllocationCount.h"

namespace {

using namespace vantorq;

// Making a handle with a closure, and cancelling it. The closures have the captures of a usual one:
// two pointers.

struct Observed {
    std::uint64_t removals = 0;
    std::uint64_t row = 1;
};

template <class Body>
void countRemovals(benchmark::State& state, Body body) {
    // No application is without threads. A process that has never started one is a special case to
    // both sides, and others of these benchmarks end it.
    std::thread([] {}).join();
    Observed observed;
    std::uint64_t rounds = 0;
    for (auto _ : state) {
        body(observed);
        ++rounds;
    }
    if (observed.removals != rounds) {
        state.SkipWithError("a closure was not called exactly once");
    }
}

void cancelAnyDisposable(benchmark::State& state) {
    countRemovals(state, [](Observed& observed) {
        const std::uint64_t* row = &observed.row;
        const auto disposable =
            make<AnyDisposable>([&observed, row] { observed.removals += *row; });
        disposable->cancel();
    });
}
BENCHMARK(cancelAnyDisposable)->Name("AnyDisposable, make and cancel/ours");

void cancelStopSource(benchmark::State& state) {
    countRemovals(state, [](Observed& observed) {
        const std::uint64_t* row = &observed.row;
        std::stop_source source;
        const std::stop_callback callback(source.get_token(),
                                          [&observed, row] { observed.removals += *row; });
        source.request_stop();
    });
}
BENCHMARK(cancelStopSource)->Name("AnyDisposable, make and cancel/std::stop_source");

/// Calls through a bridge whose operation completes before it returns, one after the other.
Async<std::uint64_t> callSynchronously(benchmark::State& state) {
    int value = 0;
    int sum = 0;
    const std::uint64_t allocationsBefore = allocationCount();
    for (auto _ : state) {
        auto call =
            withCancellableSuccessHandler<int>([&value](SuccessHandler<int, Never> complete) {
                complete(++value);
                return [&value] { value = 0; };
            });
        const std::optional<int> result = co_await std::move(call);
        sum += result.value_or(0) - value + 1;
    }
    const std::uint64_t allocations = allocationCount() - allocationsBefore;
    if (static_cast<benchmark::IterationCount>(sum) != state.iterations()) {
        state.SkipWithError("a call gives the wrong value");
    }
    co_return allocations;
}

void bridgeSynchronously(benchmark::State& state) {
    auto calls = callSynchronously(state);
    const auto allocations = static_cast<double>(syncWait(std::move(calls)));
    state.counters["allocs"] = allocations / static_cast<double>(state.iterations());
}
BENCHMARK(bridgeSynchronously)->Name("callback bridge, synchronous completion/ours");

}  // namespace
