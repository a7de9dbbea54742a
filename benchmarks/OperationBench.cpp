#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <malloc.h>
#include <memory>
#include <utility>
#include <vector>

#include <QFuture>
#include <QPromise>
#include <QThreadPool>
#include <benchmark/benchmark.h>

#include <VantorqFoundation/VantorqFoundation.h>

#include "Countdown.h"
#include "Support/AllocationCount.h"

namespace {

using namespace vantorq;

/// Ends with its number, from within `main`.
class NumberOperation final : public VNTQOperation {
    VNTQ_OBJECT(NumberOperation, VNTQOperation)
public:
    NumberOperation() = default;
    explicit NumberOperation(int number) : number_(number) {}

    void main() override { completeWithSuccess(NSNumber::number(number_)); }

private:
    int number_ = 0;
};

/// Counts on several threads, without making them contend: what is measured does not either.
class Tally {
public:
    void add() noexcept {
        static constinit std::atomic<std::size_t> threads{0};
        static thread_local const std::size_t own = threads++ % kSlots;
        slots_[own].count.fetch_add(1, std::memory_order_relaxed);
    }
    void reset() noexcept {
        for (Slot& slot : slots_) {
            slot.count = 0;
        }
    }
    [[nodiscard]] int total() const noexcept {
        int sum = 0;
        for (const Slot& slot : slots_) {
            sum += slot.count;
        }
        return sum;
    }

private:
    struct alignas(64) Slot {
        std::atomic<int> count{0};
    };
    static constexpr std::size_t kSlots = 16;

    std::array<Slot, kSlots> slots_;
};

/// Ends with its number, from a block that `main` has queued.
class LateOperation final : public VNTQOperation {
    VNTQ_OBJECT(LateOperation, VNTQOperation)
public:
    LateOperation() = default;
    explicit LateOperation(int number) : number_(number) {}

    /// Static, because an operation may be delivered before it gets to arming its timer.
    static inline constinit Tally armedTimers;

    void main() override {
        executionQueue()->async([self = Ref<LateOperation>(this)] {
            self->completeWithSuccess(NSNumber::number(self->number_));
        });
    }

    void scheduleTimer(double seconds) override {
        armedTimers.add();
        VNTQOperation::scheduleTimer(seconds);
    }

private:
    int number_ = 0;
};

/// Ends with an object that it is given, without queues.
class InlineOperation final : public VNTQOperation {
    VNTQ_OBJECT(InlineOperation, VNTQOperation)
public:
    InlineOperation() = default;
    explicit InlineOperation(NSObject* value) : value_(value) {}

    void main() override { completeWithSuccess(id(value_)); }

private:
    NSObject* value_ = nullptr;
};

VNTQ_DEFINE_CLASS(NumberOperation, {})
VNTQ_DEFINE_CLASS(LateOperation, {})
VNTQ_DEFINE_CLASS(InlineOperation, {})

int numberIn(const VNTQResult* result) {
    const auto* number = result != nullptr ? objectCast<NSNumber>(result->value().get()) : nullptr;
    return number != nullptr ? number->intValue() : -1;
}

// Many operations at a time, each with its work and one callback on the thread pool. The time is
// that of one operation, from the first start to the last callback.

constexpr int kBatch = 10'000;

/// What the callbacks have been given.
struct Deliveries {
    Countdown countdown;
    std::atomic<std::int64_t> sum{0};

    void receive(int number) noexcept {
        sum.fetch_add(number, std::memory_order_relaxed);
        countdown.countDown();
    }
};

/// `startOne(number, deliveries)` for each of a batch, until all have been delivered.
template <class StartOne>
void runInBatches(benchmark::State& state, int batch, StartOne startOne) {
    static Deliveries deliveries;
    deliveries.sum = 0;
    std::int64_t expected = 0;
    while (state.KeepRunningBatch(batch)) {
        deliveries.countdown.start(batch);
        for (int number = 0; number < batch; ++number) {
            startOne(number + 1, deliveries);
            expected += number + 1;
        }
        deliveries.countdown.wait();
    }
    if (deliveries.sum != expected) {
        state.SkipWithError("the sum of what was delivered is wrong");
    }
}

void startOnGlobalQueue(VNTQOperation& operation, const Ref<DispatchQueue>& queue,
                        Deliveries& deliveries) {
    operation.setExecutionQueue(queue);
    operation.setResultQueue(queue);
    operation.onResult([&deliveries](VNTQResult* result) { deliveries.receive(numberIn(result)); });
    operation.start();
}

void runOperations(benchmark::State& state, int batch) {
    const auto queue = DispatchQueue::global();
    runInBatches(state, batch, [&](int number, Deliveries& deliveries) {
        startOnGlobalQueue(*make<NumberOperation>(number), queue, deliveries);
    });
}

void runOperationsByBlock(benchmark::State& state) {
    const auto queue = DispatchQueue::global();
    runInBatches(state, kBatch, [&](int number, Deliveries& deliveries) {
        const auto operation =
            VNTQBlockOperation::operationWithExecution([number](VNTQBlockOperation* self) {
                self->completeWithSuccess(NSNumber::number(number));
            });
        startOnGlobalQueue(*operation, queue, deliveries);
    });
}

/// The futures of one batch. Qt 6.4 may crash when they are let go of before they have finished.
class Futures {
public:
    explicit Futures(int batch) {
        works_.reserve(static_cast<std::size_t>(batch));
        continuations_.reserve(static_cast<std::size_t>(batch));
    }
    Futures(const Futures&) = delete;
    Futures& operator=(const Futures&) = delete;
    ~Futures() { finish(); }

    /// The first of a batch ends the batch before it.
    void add(int number, QFuture<int> work, QFuture<void> continuation) {
        if (number == 1) {
            finish();
        }
        works_.push_back(std::move(work));
        continuations_.push_back(std::move(continuation));
    }

private:
    void finish() {
        for (auto& continuation : continuations_) {
            continuation.waitForFinished();
        }
        continuations_.clear();
        works_.clear();
    }

    std::vector<QFuture<int>> works_;
    std::vector<QFuture<void>> continuations_;
};

/// `launch` says where the callback runs: wherever the work has ended, or through the pool, as
/// ours. The continuation is attached before the work starts: in Qt 6.4
/// `QtConcurrent::run(…).then(…)` crashes now and then when the work ends while its continuation is
/// being attached.
void runFutures(benchmark::State& state, int batch, QtFuture::Launch launch) {
    Futures futures(batch);
    runInBatches(state, batch, [&](int number, Deliveries& deliveries) {
        auto promise = std::make_shared<QPromise<int>>();
        auto work = promise->future();
        auto continuation =
            work.then(launch, [&deliveries](int result) { deliveries.receive(result); });
        QThreadPool::globalInstance()->start([promise = std::move(promise), number] {
            promise->start();
            promise->addResult(number);
            promise->finish();
        });
        futures.add(number, std::move(work), std::move(continuation));
    });
}

BENCHMARK_CAPTURE(runOperations, many, kBatch)->Name("operation on queues/ours")->UseRealTime();
BENCHMARK_CAPTURE(runFutures, many, kBatch, QtFuture::Launch::Sync)
    ->Name("operation on queues/QPromise.then on QThreadPool")
    ->UseRealTime();
BENCHMARK_CAPTURE(runFutures, manyAsync, kBatch, QtFuture::Launch::Async)
    ->Name("operation on queues/QPromise.then on QThreadPool Async")
    ->UseRealTime();
BENCHMARK(runOperationsByBlock)->Name("operation with a block on queues/ours")->UseRealTime();

BENCHMARK_CAPTURE(runOperations, one, 1)
    ->Name("operation on queues, one at a time/ours")
    ->UseRealTime();
BENCHMARK_CAPTURE(runFutures, one, 1, QtFuture::Launch::Sync)
    ->Name("operation on queues, one at a time/QPromise.then on QThreadPool")
    ->UseRealTime();
BENCHMARK_CAPTURE(runFutures, oneAsync, 1, QtFuture::Launch::Async)
    ->Name("operation on queues, one at a time/QPromise.then on QThreadPool Async")
    ->UseRealTime();

// Operations that still execute when `main` has returned, so that a time-out is armed and disarmed.

void runLateOperations(benchmark::State& state, double timeout) {
    const auto queue = DispatchQueue::global();
    LateOperation::armedTimers.reset();
    runInBatches(state, kBatch, [&](int number, Deliveries& deliveries) {
        const auto operation = make<LateOperation>(number);
        operation->setTimeoutInterval(timeout);
        startOnGlobalQueue(*operation, queue, deliveries);
    });
    state.counters["armed"] =
        benchmark::Counter(LateOperation::armedTimers.total(), benchmark::Counter::kAvgIterations);
}
BENCHMARK_CAPTURE(runLateOperations, without, 0)
    ->Name("operation that outlasts main/ours")
    ->UseRealTime();
BENCHMARK_CAPTURE(runLateOperations, with, 30)
    ->Name("operation that outlasts main, with a time-out/ours")
    ->UseRealTime();

// The bare operation.

void runInline(benchmark::State& state) {
    const id value = NSNumber::number(42);
    std::int64_t sum = 0;
    const std::uint64_t allocationsBefore = allocationCount();
    for (auto _ : state) {
        const auto operation = make<InlineOperation>(value.get());
        operation->setExplicitResultDispatch(true);
        operation->onResult([&sum](VNTQResult* result) { sum += numberIn(result); });
        operation->start();
    }
    state.counters["allocs"] =
        benchmark::Counter(static_cast<double>(allocationCount() - allocationsBefore),
                           benchmark::Counter::kAvgIterations);
    if (sum != 42 * static_cast<std::int64_t>(state.iterations())) {
        state.SkipWithError("not every result has been delivered");
    }
}
BENCHMARK(runInline)->Name("operation without queues/ours");

// Memory of operations that wait.

constexpr int kPending = 100'000;

double mebibytesInUse() {
    const auto usage = mallinfo2();
    return static_cast<double>(usage.uordblks + usage.hblkhd) / (1024.0 * 1024.0);
}

/// Measures `kPending` operations with a callback each, between their making and their end; in
/// `queue` if there is one. What the library keeps for later use is new to the first run only, so
/// the largest figure counts.
void holdPending(benchmark::State& state, double& largest, NSOperationQueue* queue) {
    static Deliveries deliveries;
    while (state.KeepRunningBatch(kPending)) {
        std::vector<Ref<NumberOperation>> operations;
        operations.reserve(kPending);
        deliveries.countdown.start(kPending);
        const double before = mebibytesInUse();
        for (int number = 0; number < kPending; ++number) {
            auto operation = make<NumberOperation>(number);
            operation->setExplicitResultDispatch(true);
            operation->onResult([receiver = &deliveries](VNTQResult* result) {
                receiver->receive(numberIn(result));
            });
            if (queue != nullptr) {
                queue->addOperation(*operation);
            }
            operations.push_back(std::move(operation));
        }
        largest = std::max(largest, mebibytesInUse() - before);

        state.PauseTiming();
        for (const auto& operation : operations) {
            operation->cancel();
            if (queue == nullptr) {
                operation->start();
            }
        }
        if (queue != nullptr) {
            queue->setSuspended(false);
        }
        deliveries.countdown.wait();
        operations.clear();
        state.ResumeTiming();
    }
    state.counters["MiB"] = largest;
}

void holdUnqueued(benchmark::State& state) {
    static double largest = 0;
    holdPending(state, largest, nullptr);
}
BENCHMARK(holdUnqueued)->Name("100,000 pending operations/ours")->Iterations(kPending);

void holdQueued(benchmark::State& state) {
    static double largest = 0;
    const auto queue = make<NSOperationQueue>();
    queue->setSuspended(true);
    holdPending(state, largest, queue.get());
}
BENCHMARK(holdQueued)->Name("100,000 pending operations in a queue/ours")->Iterations(kPending);

}  // namespace
