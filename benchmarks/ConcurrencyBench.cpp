#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <thread>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>

#include <VantorqFoundation/VantorqFoundation.h>

namespace {

using namespace vantorq;

// A dictionary of 10,000 numbers that two threads use at once: nine times out of ten they read. The
// time is that of one use.

constexpr int kThreads = 2;
constexpr int kUses = 500'000;  // of each thread
constexpr int kKeys = 10'000;

constexpr int valueOf(int key) {
    return 3 * (key & 0xFFFF);
}

/// Keys from 0 on, without a gap: each has a bucket of its own in a table of as many buckets.
constexpr int consecutive(int number) {
    return number;
}
/// Keys from all over the positive range, as identifiers are. An odd factor keeps them distinct.
constexpr int scattered(int number) {
    return static_cast<int>((static_cast<std::uint32_t>(number) * 2'654'435'761U) & 0x7FFF'FFFF);
}

/// The keys that one thread uses, and how; the same in every round and for everybody.
template <auto KeyOf>
class Uses {
public:
    explicit Uses(int thread) : state_(static_cast<std::uint64_t>(thread)) {}

    struct Use {
        int key;
        bool isWrite;
    };
    /// A few cycles, so that the time is that of the dictionary.
    Use next() {
        state_ = state_ * 6364136223846793005U + 1442695040888963407U;
        const std::uint64_t high = state_ >> 32;
        const std::uint64_t middle = (state_ >> 16) & 0xFFFF;
        return {KeyOf(static_cast<int>((high * kKeys) >> 32)), (middle * 10) >> 16 == 0};
    }

private:
    std::uint64_t state_;
};

/// What one thread does in a round: the sum of all that it has read.
template <auto KeyOf, class Read, class Write>
std::int64_t useOften(int thread, Read read, Write write) {
    Uses<KeyOf> uses(thread);
    std::int64_t sum = 0;
    for (int n = 0; n < kUses; ++n) {
        const auto [key, isWrite] = uses.next();
        if (isWrite) {
            write(key, valueOf(key));
        } else {
            sum += read(key);
        }
    }
    return sum;
}

/// `read(key)` gives a number, `write(key, number)` stores one.
template <auto KeyOf, class Read, class Write>
void useDictionary(benchmark::State& state, Read read, Write write) {
    std::int64_t expected[kThreads];
    for (int thread = 0; thread < kThreads; ++thread) {
        expected[thread] = useOften<KeyOf>(thread, valueOf, [](int, int) {});
    }
    for (int number = 0; number < kKeys; ++number) {
        write(KeyOf(number), valueOf(KeyOf(number)));
    }
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(kThreads) * kUses)) {
        std::int64_t sums[kThreads];
        {
            std::vector<std::jthread> threads;
            for (int thread = 0; thread < kThreads; ++thread) {
                threads.emplace_back(
                    [&, thread] { sums[thread] = useOften<KeyOf>(thread, read, write); });
            }
        }
        if (!std::ranges::equal(sums, expected)) {
            state.SkipWithError("a thread has read something that nobody wrote");
            return;
        }
    }
}

template <auto KeyOf>
void useOurDictionary(benchmark::State& state) {
    const auto dictionary = make<ThreadSafeDictionary<int, int>>();
    useDictionary<KeyOf>(
        state, [&](int key) { return std::optional<int>((*dictionary)[key]).value_or(-1); },
        [&](int key, int value) { (*dictionary)[key] = value; });
}
BENCHMARK(useOurDictionary<scattered>)
    ->Name("thread-safe dictionary, 90 % reads/ours")
    ->UseRealTime();
BENCHMARK(useOurDictionary<consecutive>)
    ->Name("thread-safe dictionary, 90 % reads, consecutive keys/ours")
    ->UseRealTime();

template <auto KeyOf>
void useStandardMap(benchmark::State& state) {
    std::unordered_map<int, int> map;
    std::mutex mutex;
    useDictionary<KeyOf>(
        state,
        [&](int key) {
            const std::lock_guard guard(mutex);
            const auto found = map.find(key);
            return found != map.end() ? found->second : -1;
        },
        [&](int key, int value) {
            const std::lock_guard guard(mutex);
            map[key] = value;
        });
}
BENCHMARK(useStandardMap<scattered>)
    ->Name("thread-safe dictionary, 90 % reads/std::unordered_map with std::mutex")
    ->UseRealTime();
BENCHMARK(useStandardMap<consecutive>)
    ->Name(
        "thread-safe dictionary, 90 % reads, consecutive keys/std::unordered_map with std::mutex")
    ->UseRealTime();

// A read-write lock that is free, in a process that has several threads. Either one is on the heap,
// as locks are that threads share.

template <class Read>
void readUnderLock(benchmark::State& state, Read read) {
    std::jthread([] {}).join();
    std::int64_t value = 1;
    std::int64_t sum = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(value);
        sum += read(value);
    }
    if (sum != static_cast<std::int64_t>(state.iterations())) {
        state.SkipWithError("not every read has seen the value");
    }
}

void readUnderOurLock(benchmark::State& state) {
    const auto owner = make<ReadWriteLock>();
    ReadWriteLock& lock = *owner;
    readUnderLock(state, [&lock](const std::int64_t& value) {
        return lock.readBlock([&] { return value; });
    });
}
BENCHMARK(readUnderOurLock)->Name("read-write lock, scoped read/ours");

void readUnderSystemLock(benchmark::State& state) {
    const auto owner = std::make_unique<pthread_rwlock_t>();
    pthread_rwlock_t& lock = *owner;
    pthread_rwlock_init(&lock, nullptr);
    readUnderLock(state, [&lock](const std::int64_t& value) {
        pthread_rwlock_rdlock(&lock);
        const std::int64_t seen = value;
        pthread_rwlock_unlock(&lock);
        return seen;
    });
    pthread_rwlock_destroy(&lock);
}
BENCHMARK(readUnderSystemLock)->Name("read-write lock, scoped read/pthread_rwlock");

}  // namespace
