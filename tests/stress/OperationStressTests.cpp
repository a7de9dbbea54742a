#include <atomic>
#include <cstdint>
#include <latch>
#include <memory>
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

/// A million operations, each raced over by completion, cancellation, time-out and registration
/// from two threads. The operations of a round are worked through by both threads, each in an order
/// and with actions of its own, so that the two meet in every way.
TEST(OperationStress, EveryCallbackFiresExactlyOnceHoweverTheEndIsRaced) {
    std::vector<Ref<VNTQOperation>> operations(kBatch);
    std::vector<std::atomic<int>> calls(kBatch);
    std::atomic<std::uint64_t> wrong = 0;
    std::uint64_t results = 0;
    std::uint64_t nils = 0;
    std::vector<std::mt19937_64> random;
    random.emplace_back(1);
    random.emplace_back(2);
    int expected = 0;

    const auto check = [&] {
        for (std::uint64_t i = 0; i < kBatch; ++i) {
            if (operations[i] == nullptr) {
                continue;
            }
            operations[i]->start();  // an operation that was cancelled before its start ends here
            wrong += calls[i] != expected ? 1 : 0;
            (operations[i]->result() != nullptr ? results : nils) += 1;
        }
    };
    Rounds(2, kRounds)
        .run(
            [&](std::uint64_t) {
                check();
                expected = 3;
                for (std::uint64_t i = 0; i < kBatch; ++i) {
                    calls[i] = 0;
                    operations[i] = make<VNTQOperation>();
                    operations[i]->setExplicitResultDispatch(true);
                    operations[i]->onCompletion([&calls, i] { ++calls[i]; });
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
                        operation.onCompletion([&calls, i] { ++calls[i]; });
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
                        operation.onCompletion([&calls, i] { ++calls[i]; });
                    }
                }
            });
    check();
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(results + nils, kRounds * kBatch);
    EXPECT_GT(results, 0U);
    EXPECT_GT(nils, 0U);
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

/// The same through dispatch queues, with timers that really fire.
TEST(OperationStress, TimersThatFireWhileOperationsEndLoseNoCallback) {
    constexpr int kOperations = 20'000;
    std::atomic<int> calls = 0;
    std::latch delivered(kOperations);
    std::mt19937 random(3);
    for (int i = 0; i < kOperations; ++i) {
        const auto operation = make<VNTQOperation>();
        operation->setTimeoutInterval(1e-6 * static_cast<double>(random() % 200));
        operation->onCompletion([&, operation] {
            ++calls;
            delivered.count_down();
        });
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
    delivered.wait();
    EXPECT_EQ(calls, kOperations);
}

TEST(OperationStress, OperationsReleasedWhileTheirTimersFireAreGone) {
    constexpr int kOperations = 20'000;
    for (int i = 0; i < kOperations; ++i) {
        const auto operation = test::inlineOperation();
        operation->setTimeoutInterval(1e-6 * (i % 100 + 1));
        operation->start();
    }
    EXPECT_TRUE(test::eventually([] { return test::ProbeOperation::liveCount == 0; }));
}

TEST(OperationStress, ConfigurationMayBeReadAndReplacedWhileOperationsRun) {
    const auto operation = make<VNTQOperation>();
    const auto queue = DispatchQueue::serial("stress.configuration");
    std::atomic<bool> stop = false;
    std::thread reader([&] {
        double sum = 0;
        while (!stop) {
            sum += operation->timeRemaining() > 0 ? 1 : 0;
            sum += operation->resultQueue() != nullptr ? 1 : 0;
            sum += operation->invalidateTimer() ? 1 : 0;
        }
        EXPECT_GE(sum, 0);
    });
    for (int i = 0; i < 100'000; ++i) {
        operation->setTimeoutDate(NSDate::dateWithTimeIntervalSinceNow(i));
        operation->setResultQueue(i % 2 == 0 ? queue : nullptr);
        operation->setInvalidateTimer([] {});
    }
    stop = true;
    reader.join();
    EXPECT_NE(operation->timeoutDate(), nullptr);
}

}  // namespace
}  // namespace vantorq
