#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <malloc.h>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/detached.hpp>
#include <boost/asio/experimental/concurrent_channel.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/asio/use_awaitable.hpp>

#include <VantorqFoundation/VantorqFoundation.h>

#include "Support/AllocationCount.h"

namespace {

using namespace vantorq;

/// Counts from 1 to a limit.
class Counting {
public:
    explicit Counting(int limit) : limit_(limit) {}

    class AsyncIterator {
    public:
        explicit AsyncIterator(int limit) : limit_(limit) {}
        Async<std::optional<int>> next() {
            return Async<std::optional<int>>::ready(last_ < limit_ ? std::optional(++last_)
                                                                   : std::nullopt);
        }

    private:
        int limit_;
        int last_ = 0;
    };
    [[nodiscard]] AsyncIterator makeAsyncIterator() const { return AsyncIterator(limit_); }

private:
    int limit_;
};

constexpr std::int64_t sumTo(std::int64_t last) {
    return last * (last + 1) / 2;
}

Async<std::int64_t> sumOf(Ref<AsyncBroadcast<Counting>> numbers) {
    auto iterator = numbers->makeAsyncIterator();
    std::int64_t sum = 0;
    for (;;) {
        auto pending = iterator.next();
        const std::optional<int> number = co_await std::move(pending);
        if (!number.has_value()) {
            break;
        }
        sum += *number;
    }
    co_return sum;
}

// Reading what is kept.

constexpr int kReplayed = 1'000'000;

void replay(benchmark::State& state) {
    const auto numbers = broadcast(Counting(kReplayed), BufferingPolicy::unbounded());
    if (syncWait(sumOf(numbers)) != sumTo(kReplayed)) {
        state.SkipWithError("the sum is wrong");
    }
    const std::uint64_t allocationsBefore = allocationCount();
    while (state.KeepRunningBatch(kReplayed)) {
        if (syncWait(sumOf(numbers)) != sumTo(kReplayed)) {
            state.SkipWithError("the sum is wrong");
        }
    }
    state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(allocationCount() - allocationsBefore),
                           benchmark::Counter::kAvgIterations);
}
BENCHMARK(replay)->Name("broadcast, replay/ours");

// One source, many consumers that wait for it. The time is that of one element at one consumer.

constexpr int kConsumers = 8;
constexpr int kElements = 200'000;

void broadcastLive(benchmark::State& state) {
    while (state.KeepRunningBatch(std::int64_t{kElements} * kConsumers)) {
        const auto numbers = broadcast(Counting(kElements), BufferingPolicy::unbounded());
        std::vector<Task<std::int64_t>> consumers;
        for (int i = 0; i < kConsumers; ++i) {
            consumers.push_back(Task<std::int64_t>::start([numbers] { return sumOf(numbers); }));
        }
        for (const auto& consumer : consumers) {
            if (syncWait(consumer) != sumTo(kElements)) {
                state.SkipWithError("a sum is wrong");
            }
        }
    }
}
BENCHMARK(broadcastLive)->Name("broadcast, live/ours")->UseRealTime();

/// The reader appends to a vector that all threads read, each up to where it has come.
class SharedVector {
public:
    void append(int number) {
        {
            const std::lock_guard guard(mutex_);
            numbers_.push_back(number);
        }
        arrived_.notify_all();
    }
    void finish() {
        {
            const std::lock_guard guard(mutex_);
            isFinished_ = true;
        }
        arrived_.notify_all();
    }
    std::optional<int> at(std::size_t index) {
        std::unique_lock lock(mutex_);
        arrived_.wait(lock, [&] { return index < numbers_.size() || isFinished_; });
        return index < numbers_.size() ? std::optional(numbers_[index]) : std::nullopt;
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<int> numbers_;
    bool isFinished_ = false;
};

void sharedVectorLive(benchmark::State& state) {
    while (state.KeepRunningBatch(std::int64_t{kElements} * kConsumers)) {
        SharedVector numbers;
        std::atomic<std::int64_t> total{0};
        std::vector<std::thread> consumers;
        for (int i = 0; i < kConsumers; ++i) {
            consumers.emplace_back([&] {
                std::int64_t sum = 0;
                std::size_t index = 0;
                while (const auto number = numbers.at(index++)) {
                    sum += *number;
                }
                total += sum;
            });
        }
        for (int number = 1; number <= kElements; ++number) {
            numbers.append(number);
        }
        numbers.finish();
        for (auto& consumer : consumers) {
            consumer.join();
        }
        if (total != kConsumers * sumTo(kElements)) {
            state.SkipWithError("a sum is wrong");
        }
    }
}
BENCHMARK(sharedVectorLive)->Name("broadcast, live/mutex and shared vector")->UseRealTime();

void channelsLive(benchmark::State& state) {
    namespace asio = boost::asio;
    using Channel = asio::experimental::concurrent_channel<void(boost::system::error_code, int)>;
    constexpr std::size_t kRoom = 1024;
    while (state.KeepRunningBatch(std::int64_t{kElements} * kConsumers)) {
        asio::thread_pool pool(std::max(std::thread::hardware_concurrency(), 1U));
        std::vector<std::unique_ptr<Channel>> channels;
        std::atomic<std::int64_t> total{0};
        for (int i = 0; i < kConsumers; ++i) {
            channels.push_back(std::make_unique<Channel>(pool, kRoom));
        }
        for (const auto& channel : channels) {
            asio::co_spawn(
                pool,
                [&total, &channel = *channel]() -> asio::awaitable<void> {
                    std::int64_t sum = 0;
                    for (int i = 0; i < kElements; ++i) {
                        sum += co_await channel.async_receive(asio::use_awaitable);
                    }
                    total += sum;
                },
                asio::detached);
        }
        asio::co_spawn(
            pool,
            [&channels]() -> asio::awaitable<void> {
                for (int number = 1; number <= kElements; ++number) {
                    for (const auto& channel : channels) {
                        co_await channel->async_send(boost::system::error_code(), number,
                                                     asio::use_awaitable);
                    }
                }
            },
            asio::detached);
        pool.join();
        if (total != kConsumers * sumTo(kElements)) {
            state.SkipWithError("a sum is wrong");
        }
    }
}
BENCHMARK(channelsLive)->Name("broadcast, live/boost concurrent_channel")->UseRealTime();

// What a buffer of the newest elements takes, however many there are.

double mebibytesInUse() {
    const auto usage = mallinfo2();
    return static_cast<double>(usage.uordblks + usage.hblkhd) / (1024.0 * 1024.0);
}

void holdNewest(benchmark::State& state) {
    constexpr int kWarmUp = 10'000;
    constexpr int kAll = 10'000'000;
    double growth = 0;
    while (state.KeepRunningBatch(kAll)) {
        const auto numbers = broadcast(Counting(kAll), BufferingPolicy::bufferingNewest(1000));
        auto iterator = numbers->makeAsyncIterator();
        const auto read = [&](int count) -> Async<std::int64_t> {
            std::int64_t sum = 0;
            for (int i = 0; i < count; ++i) {
                auto pending = iterator.next();
                const auto number = co_await std::move(pending);
                sum += number.value_or(0);
            }
            co_return sum;
        };
        std::int64_t sum = syncWait(read(kWarmUp));
        const double before = mebibytesInUse();
        sum += syncWait(read(kAll - kWarmUp));
        growth = std::max(growth, mebibytesInUse() - before);
        if (sum != sumTo(kAll)) {
            state.SkipWithError("the sum is wrong");
        }
    }
    state.counters["MiB"] = growth;
}
BENCHMARK(holdNewest)
    ->Name("broadcast, the newest 1000 of 10 million/ours")
    ->Iterations(10'000'000);

}  // namespace
