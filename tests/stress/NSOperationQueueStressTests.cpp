#include <atomic>
#include <latch>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Threads.h"
#include "VantorqFoundation/VantorqFoundation.h"

namespace vantorq {
namespace {

constexpr int kThreads = 4;

/// Counts its runs, and how often it has announced its end.
class CountedOperation final : public NSOperation {
public:
    void main() override {
        ++runs;
        for (const id& one : *dependencies()) {
            sawUnfinished = sawUnfinished || !static_cast<const NSOperation&>(*one).isFinished();
        }
    }
    void didChangeValueForKey(const NSString& key) override {
        if (key.isEqualToString(&operation_keys::isFinished)) {
            ++ends;
        }
        NSOperation::didChangeValueForKey(key);
    }

    std::atomic<int> runs{0};
    std::atomic<int> ends{0};
    std::atomic<bool> sawUnfinished{false};
};

TEST(NSOperationQueueStress, ManyThreadsAddToOneQueueAndItsLimitHolds) {
    const auto queue = make<NSOperationQueue>();
    queue->setMaxConcurrentOperationCount(3);
    std::atomic<int> running{0};
    std::atomic<int> runs{0};
    std::atomic<bool> wasExceeded{false};
    test::together(kThreads, [&](int) {
        for (int n = 0; n < 1'000; ++n) {
            queue->addOperationWithBlock([&] {
                if (++running > 3) {
                    wasExceeded = true;
                }
                ++runs;
                --running;
            });
        }
    });
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(runs, kThreads * 1'000);
    EXPECT_FALSE(wasExceeded);
}

TEST(NSOperationQueueStress, EveryOperationEndsOnceWhateverIsDoneToTheQueueMeanwhile) {
    const auto queue = make<NSOperationQueue>();
    std::vector<std::vector<Ref<CountedOperation>>> added(kThreads);
    test::together(kThreads, [&](int t) {
        for (int n = 0; n < 500; ++n) {
            auto operation = make<CountedOperation>();
            added[static_cast<std::size_t>(t)].push_back(operation);
            queue->addOperation(*operation);
            switch ((n + t) % 5) {
                case 0:
                    queue->setSuspended(true);
                    break;
                case 1:
                    queue->setMaxConcurrentOperationCount(n % 3);
                    break;
                case 2:
                    operation->cancel();
                    break;
                case 3:
                    operation->start();
                    break;
                default:
                    queue->setSuspended(false);
                    break;
            }
            if (n % 100 == 0) {
                queue->cancelAllOperations();
            }
        }
    });
    queue->setMaxConcurrentOperationCount(-1);
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    for (const auto& list : added) {
        for (const auto& operation : list) {
            operation->waitUntilFinished();
            ASSERT_LE(operation->runs, 1);
            ASSERT_EQ(operation->ends, 1);
        }
    }
    EXPECT_EQ(queue->operationCount(), 0U);
}

TEST(NSOperationQueueStress, OperationsRunAfterTheirDependenciesAcrossQueues) {
    constexpr std::size_t kOperations = 2'000;
    const Ref<NSOperationQueue> queues[] = {make<NSOperationQueue>(), make<NSOperationQueue>()};
    std::vector<Ref<CountedOperation>> operations;
    std::mt19937 random(20'240'501);
    for (std::size_t n = 0; n < kOperations; ++n) {
        operations.push_back(make<CountedOperation>());
        for (int k = 0; n > 0 && k < 3; ++k) {
            operations[n]->addDependency(*operations[random() % n]);
        }
    }
    test::together(kThreads, [&](int t) {
        for (auto n = static_cast<std::size_t>(t); n < kOperations; n += kThreads) {
            queues[n % 2]->addOperation(*operations[kOperations - 1 - n]);
        }
    });
    for (const auto& queue : queues) {
        queue->waitUntilAllOperationsAreFinished();
    }
    for (const auto& operation : operations) {
        ASSERT_EQ(operation->runs, 1);
        ASSERT_FALSE(operation->sawUnfinished);
    }
}

TEST(NSOperationQueueStress, ADependencyThatFinishesWhileItIsAddedIsNotMissed) {
    for (int round = 0; round < 300; ++round) {
        const auto dependency = make<CountedOperation>();
        std::vector<Ref<CountedOperation>> dependents;
        for (int t = 0; t < kThreads; ++t) {
            dependents.push_back(make<CountedOperation>());
        }
        test::together(kThreads, [&](int t) {
            if (t == 0) {
                dependency->start();
            }
            dependents[static_cast<std::size_t>(t)]->addDependency(*dependency);
        });
        for (const auto& dependent : dependents) {
            ASSERT_TRUE(dependent->isReady());
            dependent->start();
        }
    }
}

TEST(NSOperationQueueStress, StartAndCancelRaceToOneEnd) {
    for (int round = 0; round < 300; ++round) {
        const auto dependency = make<CountedOperation>();
        const auto operation = make<CountedOperation>();
        operation->addDependency(*dependency);
        dependency->start();
        test::together(kThreads, [&](int t) {
            if (t % 2 == 0) {
                operation->start();
            } else {
                operation->cancel();
            }
        });
        ASSERT_LE(operation->runs, 1);
        ASSERT_EQ(operation->ends, 1);
    }
}

TEST(NSOperationQueueStress, ThreadsThatWaitAllSeeTheEnd) {
    const auto queue = make<NSOperationQueue>();
    for (int round = 0; round < 300; ++round) {
        const auto operation = make<CountedOperation>();
        std::atomic<int> completions{0};
        std::latch completed(1);
        operation->setCompletionBlock([&] {
            ++completions;
            completed.count_down();
        });
        test::together(kThreads, [&](int t) {
            if (t == 0) {
                queue->addOperation(*operation);
            }
            operation->waitUntilFinished();
            ASSERT_TRUE(operation->isFinished());
        });
        completed.wait();
        ASSERT_EQ(completions, 1);
    }
}

TEST(NSOperationQueueStress, QueuesThatAreLetGoFinishTheirWork) {
    constexpr int kQueues = 500;
    std::atomic<int> runs{0};
    std::latch done(kQueues * 2);
    for (int n = 0; n < kQueues; ++n) {
        const auto queue = make<NSOperationQueue>();
        queue->setMaxConcurrentOperationCount(1);
        for (int k = 0; k < 2; ++k) {
            queue->addOperationWithBlock([&] {
                ++runs;
                done.count_down();
            });
        }
    }
    done.wait();
    EXPECT_EQ(runs, kQueues * 2);
}

}  // namespace
}  // namespace vantorq
