#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <latch>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Operations.h"
#include "Support/Rounds.h"

namespace vantorq {
namespace {

using test::Rounds;

constexpr std::uint64_t kBatch = 50;
constexpr std::uint64_t kRounds = 1'000'000 / kBatch;

/// What the callbacks of one operation were given.
class Deliveries {
public:
    void add(const VNTQResult* result) {
        const void* first = &kNone;
        if (!first_.compare_exchange_strong(first, result) && first != result) {
            differ_ = true;
        }
        ++count_;
    }
    void clear() {
        first_ = &kNone;
        differ_ = false;
        count_ = 0;
    }
    /// Whether there were so many, each of them of this result.
    [[nodiscard]] bool were(int count, const VNTQResult* result) const {
        return count_ == count && !differ_ && first_ == result;
    }

private:
    static constexpr char kNone = 0;  // its address stands for no delivery

    std::atomic<const void*> first_{&kNone};
    std::atomic<bool> differ_{false};
    std::atomic<int> count_{0};
};

/// A million operations, each raced over by completion, cancellation, time-out and registration
/// from two threads. The operations of a round are worked through by both threads, each in an order
/// and with actions of its own, so that the two meet in every way.
TEST(OperationStress, EveryCallbackFiresExactlyOnceWithTheOneEndHoweverItIsRaced) {
    constexpr int kCallbacks = 3;  // of each operation
    std::vector<Ref<VNTQOperation>> operations(kBatch);
    std::vector<Deliveries> deliveries(kBatch);
    std::uint64_t wrongDeliveries = 0;
    std::uint64_t wrongStates = 0;
    std::uint64_t completed = 0;
    std::uint64_t cancelled = 0;
    std::vector<std::mt19937_64> random;
    random.emplace_back(1);
    random.emplace_back(2);

    const auto callBack = [&](std::uint64_t i) {
        operations[i]->onResult(
            [&deliveries, i](VNTQResult* result) { deliveries[i].add(result); });
    };
    const auto check = [&] {
        for (std::uint64_t i = 0; i < kBatch && operations[i] != nullptr; ++i) {
            VNTQOperation& operation = *operations[i];
            operation.start();  // an operation that was cancelled before its start ends here
            const auto result = operation.result();
            wrongDeliveries += deliveries[i].were(kCallbacks, result.get()) ? 0U : 1U;
            const bool isRight = operation.isFinished() && !operation.isExecuting() &&
                                 operation.isCancelled() == (result == nullptr);
            wrongStates += isRight ? 0U : 1U;
            (operation.isCancelled() ? cancelled : completed) += 1;
        }
    };
    Rounds(2, kRounds)
        .run(
            [&](std::uint64_t) {
                check();
                for (std::uint64_t i = 0; i < kBatch; ++i) {
                    deliveries[i].clear();
                    operations[i] = make<VNTQOperation>();
                    operations[i]->setExplicitResultDispatch(true);
                    callBack(i);
                }
            },
            [&](std::uint32_t thread, std::uint64_t) {
                for (std::uint64_t i = 0; i < kBatch; ++i) {
                    VNTQOperation& operation = *operations[i];
                    const std::uint64_t choice = random[thread]();
                    if ((choice & 1) != 0) {
                        operation.start();
                    }
                    if ((choice & 2) != 0) {
                        callBack(i);
                    }
                    switch ((choice >> 2) & 3) {
                        case 0:
                            operation.completeWithSuccess();
                            break;
                        case 1:
                            operation.completeWithTimeout();
                            break;
                        case 2:
                            operation.cancel();
                            break;
                        default:
                            operation.completeWithFailure();
                            break;
                    }
                    if ((choice & 2) == 0) {
                        callBack(i);
                    }
                }
            });
    check();
    EXPECT_EQ(wrongDeliveries, 0U);
    EXPECT_EQ(wrongStates, 0U);
    EXPECT_GT(completed, 0U);
    EXPECT_GT(cancelled, 0U);
}

TEST(OperationStress, AnEndThatRacesWithTheArmingLeavesNoTimerArmedAndNoFlagWithoutItsResult) {
    constexpr std::uint64_t kArmings = 5'000;
    Ref<VNTQOperation> operation;
    std::uint64_t armed = 0;
    std::uint64_t early = 0;
    Rounds(2, kArmings)
        .run(
            [&](std::uint64_t) {
                armed += operation != nullptr && operation->invalidateTimer() ? 1U : 0U;
                operation = make<VNTQOperation>();
                operation->setExplicitResultDispatch(true);
                operation->setTimeoutInterval(1000);
            },
            [&](std::uint32_t thread, std::uint64_t) {
                if (thread == 1) {
                    operation->completeWithSuccess();
                    return;
                }
                operation->start();
                while (!operation->isFinished()) {
                    std::this_thread::yield();
                }
                early += operation->result() == nullptr ? 1U : 0U;
            });
    EXPECT_EQ(armed, 0U);
    EXPECT_EQ(early, 0U);
}

/// The same through dispatch queues, with timers that really fire. The callbacks keep their
/// operations, so that none can be called once all operations are gone.
TEST(OperationStress, TimersThatFireWhileOperationsEndLoseNoCallbackAndRepeatNone) {
    constexpr std::size_t kOperations = 20'000;
    std::vector<std::atomic<int>> calls(kOperations);
    std::mt19937 random(3);
    for (std::size_t i = 0; i < kOperations; ++i) {
        const auto operation = make<test::ProbeOperation>();
        operation->setTimeoutInterval(1e-6 * static_cast<double>(random() % 200));
        operation->onCompletion([&calls, i, operation] { ++calls[i]; });
        operation->start();
        switch (random() % 3) {
            case 0:
                operation->completeWithSuccess();
                break;
            case 1:
                operation->cancel();
                break;
            default:
                DispatchQueue::global()->async([operation] { operation->cancel(); });
                break;
        }
    }
    ASSERT_TRUE(test::eventually([] { return test::ProbeOperation::liveCount == 0; }));
    EXPECT_TRUE(std::ranges::all_of(calls, [](const auto& count) { return count == 1; }));
}

/// Most are released about when they time out. Some are kept until they have, and some have much
/// time left, so that both ends are met with in any case.
TEST(OperationStress, OperationsReleasedWhileTheirTimersFireAreGone) {
    constexpr int kOperations = 20'000;
    constexpr int kPeriod = 20;
    std::atomic<int> timedOut = 0;
    for (int i = 0; i < kOperations; ++i) {
        const auto operation = test::inlineOperation();
        operation->onError([&](NSObject*) { ++timedOut; });
        const bool hasTime = i % kPeriod == 0;
        operation->setTimeoutInterval(hasTime ? 1000 : 1e-6 * (i % 100 + 1));
        operation->start();
        if (i % kPeriod == 1) {
            operation->waitUntilFinished();
        }
    }
    ASSERT_TRUE(test::eventually([] { return test::ProbeOperation::liveCount == 0; }));
    EXPECT_GE(timedOut, kOperations / kPeriod);
    EXPECT_LE(timedOut, kOperations - kOperations / kPeriod);
}

TEST(OperationStress, ConfigurationMayBeReadAndReplacedWhileOperationsRun) {
    constexpr int kReplacements = 100'000;
    const Ref<DispatchQueue> queues[] = {nullptr, DispatchQueue::serial("stress.configuration")};
    const VNTQOperation::Callback actions[] = {nullptr, [] {}};
    const Ref<NSDate> dates[] = {NSDate::dateWithTimeIntervalSinceNow(10'000),
                                 NSDate::dateWithTimeIntervalSinceNow(20'000)};
    const auto isOneOf = [](const auto& values, const auto& value) {
        return std::ranges::find(values, value) != std::end(values);
    };
    const auto operation = make<VNTQOperation>();
    std::latch delivered(1);
    operation->onCompletion([&] { delivered.count_down(); });
    operation->setTimeoutDate(dates[0]);
    operation->start();
    operation->invalidateTimerIfNeeded();  // what the start has armed
    int wrong = 0;
    test::together(2, [&](int thread) {
        for (int i = 0; i < kReplacements; ++i) {
            if (thread == 0) {
                const auto choice = static_cast<std::size_t>(i % 2);
                operation->setTimeoutDate(dates[choice]);
                operation->setExecutionQueue(queues[choice]);
                operation->setResultQueue(queues[choice]);
                operation->setInvalidateTimer(actions[choice]);
            } else {
                const double left = operation->timeRemaining();
                const bool isRight = left > 0 && left <= 20'000 &&
                                     isOneOf(dates, operation->timeoutDate()) &&
                                     isOneOf(queues, operation->executionQueue()) &&
                                     isOneOf(queues, operation->resultQueue()) &&
                                     isOneOf(actions, operation->invalidateTimer());
                wrong += isRight ? 0 : 1;
            }
        }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(operation->isExecuting());
    operation->completeWithSuccess();
    delivered.wait();
}

}  // namespace
}  // namespace vantorq
