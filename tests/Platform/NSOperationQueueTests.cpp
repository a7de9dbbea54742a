#include "VantorqFoundation/Platform/NSOperationQueue.h"

#include <algorithm>
#include <atomic>
#include <barrier>
#include <latch>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Support/Trap.h"
#include "VantorqFoundation/VantorqFoundation.h"

namespace vantorq {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Priority = NSOperationQueuePriority;

Ref<NSBlockOperation> operation(Block<void()> block) {
    return NSBlockOperation::blockOperationWithBlock(std::move(block));
}

/// An asynchronous operation that knows the platform only by the notifications that it sends. The
/// test ends it.
class ManualOperation final : public NSOperation {
public:
    void start() override {
        if (isCancelled()) {
            announce(operation_keys::isFinished, finished_, true);
            return;
        }
        announce(operation_keys::isExecuting, executing_, true);
        started.count_down();
    }
    void end() {
        announce(operation_keys::isExecuting, executing_, false);
        announce(operation_keys::isFinished, finished_, true);
    }
    bool isAsynchronous() const override { return true; }
    bool isExecuting() const override { return executing_; }
    bool isFinished() const override { return finished_; }

    std::latch started{1};

private:
    void announce(NSString& key, std::atomic<bool>& flag, bool value) {
        willChangeValueForKey(key);
        flag = value;
        didChangeValueForKey(key);
    }

    std::atomic<bool> executing_{false};
    std::atomic<bool> finished_{false};
};

/// A queue whose operations start on a serial dispatch queue, so that a test can wait until all
/// that was to be started has been.
class SerialFixture : public testing::Test {
protected:
    SerialFixture() { queue->setUnderlyingQueue(starter); }

    void flush() {
        std::latch reached(1);
        starter->async([&] { reached.count_down(); });
        reached.wait();
    }
    Ref<NSBlockOperation> logging(const std::string& name) {
        return operation([this, name] { log.push_back(name); });
    }

    Ref<DispatchQueue> starter = DispatchQueue::serial("starter");
    Ref<NSOperationQueue> queue = make<NSOperationQueue>();
    std::vector<std::string> log;
};
class NSOperationQueueOrder : public SerialFixture {};
class NSOperationQueueLife : public SerialFixture {};

/// The largest number of operations that ran at a time.
class ConcurrencyMeter {
public:
    void enter() {
        const int now = ++running_;
        int most = most_;
        while (now > most && !most_.compare_exchange_weak(most, now)) {
        }
    }
    void leave() { --running_; }
    int most() const { return most_; }

private:
    std::atomic<int> running_{0};
    std::atomic<int> most_{0};
};

// Running.

TEST(NSOperationQueue, RunsWhatIsAdded) {
    const auto queue = make<NSOperationQueue>();
    std::atomic<int> runs{0};
    queue->addOperation(*operation([&] { ++runs; }));
    queue->addOperationWithBlock([&] { ++runs; });
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(runs, 2);
    EXPECT_EQ(queue->operationCount(), 0U);
}

TEST(NSOperationQueue, WaitingForAnEmptyQueueReturnsAtOnce) {
    const auto queue = make<NSOperationQueue>();
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(queue->operationCount(), 0U);
}

TEST(NSOperationQueue, WaitsForTheOperationsThatItIsGiven) {
    const auto queue = make<NSOperationQueue>();
    std::atomic<int> runs{0};
    const auto first = operation([&] { ++runs; });
    const auto second = operation([&] { ++runs; });
    second->addDependency(*first);
    queue->addOperations(*NSArray::array({second, first}), true);
    EXPECT_EQ(runs, 2);
    EXPECT_TRUE(second->isFinished());
}

TEST(NSOperationQueue, StartsAnAsynchronousOperationAndKeepsItUntilItAnnouncesItsEnd) {
    const auto queue = make<NSOperationQueue>();
    const auto manual = make<ManualOperation>();
    queue->addOperation(*manual);
    manual->started.wait();
    EXPECT_EQ(queue->operationCount(), 1U);
    manual->end();
    EXPECT_EQ(queue->operationCount(), 0U);
    manual->waitUntilFinished();
}

TEST(NSOperationQueue, IsTheCurrentQueueOfItsOperations) {
    const auto queue = make<NSOperationQueue>();
    Ref<NSOperationQueue> seen;
    queue->addOperations(
        *NSArray::array({operation([&] { seen = NSOperationQueue::currentQueue(); })}), true);
    EXPECT_EQ(seen, queue);
    EXPECT_EQ(NSOperationQueue::currentQueue(), nullptr);
}

TEST(NSOperationQueue, TheMainQueueRunsOneAfterAnotherOnTheMainRunLoop) {
    const auto queue = NSOperationQueue::mainQueue();
    EXPECT_EQ(queue, NSOperationQueue::mainQueue());
    std::vector<bool> onMainThread;
    const auto first = operation([&] { onMainThread.push_back(DispatchQueue::isMainThread()); });
    const auto second = operation([&] { onMainThread.push_back(DispatchQueue::isMainThread()); });
    queue->addOperation(*first);
    std::thread([&] { queue->addOperation(*second); }).join();
    EXPECT_THAT(onMainThread, IsEmpty());
    while (!second->isFinished() &&
           NSRunLoop::current()->runMode(NSDefaultRunLoopMode, *NSDate::distantFuture())) {
    }
    EXPECT_THAT(onMainThread, ElementsAre(true, true));
}

// Order.

TEST_F(NSOperationQueueOrder, StartsByPriorityThenByArrival) {
    queue->setMaxConcurrentOperationCount(1);
    queue->setSuspended(true);
    const std::pair<const char*, Priority> added[] = {
        {"low 1", Priority::low}, {"normal 1", Priority::normal}, {"lowest", Priority::veryLow},
        {"high", Priority::high}, {"normal 2", Priority::normal}, {"highest", Priority::veryHigh},
        {"low 2", Priority::low},
    };
    for (const auto& [name, priority] : added) {
        const auto one = logging(name);
        one->setQueuePriority(priority);
        queue->addOperation(*one);
    }
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_THAT(log,
                ElementsAre("highest", "high", "normal 1", "normal 2", "low 1", "low 2", "lowest"));
}

TEST_F(NSOperationQueueOrder, ADependencyGoesBeforePriority) {
    queue->setMaxConcurrentOperationCount(1);
    queue->setSuspended(true);
    const auto late = logging("late");
    const auto early = logging("early");
    late->setQueuePriority(Priority::veryHigh);
    early->setQueuePriority(Priority::veryLow);
    late->addDependency(*early);
    queue->addOperation(*late);
    queue->addOperation(*early);
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_THAT(log, ElementsAre("early", "late"));
}

TEST_F(NSOperationQueueOrder, ADependencyAddedToAQueuedOperationIsWaitedFor) {
    queue->setSuspended(true);
    const auto late = logging("late");
    const auto early = logging("early");
    queue->addOperation(*late);
    late->addDependency(*early);
    queue->setSuspended(false);
    flush();
    EXPECT_THAT(log, IsEmpty());
    queue->addOperation(*early);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_THAT(log, ElementsAre("early", "late"));
}

TEST_F(NSOperationQueueOrder, AnOperationThatMustWaitAfterAllGivesItsPlaceToAnother) {
    queue->setMaxConcurrentOperationCount(1);
    queue->setSuspended(true);
    const auto late = logging("late");
    const auto early = logging("early");
    queue->addOperation(*late);
    queue->addOperation(*early);
    late->addDependency(*early);
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_THAT(log, ElementsAre("early", "late"));
}

TEST_F(NSOperationQueueOrder, DependenciesReachAcrossQueues) {
    const auto other = make<NSOperationQueue>();
    const auto late = logging("late");
    const auto early = logging("early");
    late->addDependency(*early);
    queue->addOperation(*late);
    flush();
    EXPECT_THAT(log, IsEmpty());
    other->addOperation(*early);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_THAT(log, ElementsAre("early", "late"));
}

TEST_F(NSOperationQueueOrder, AChainOfDependenciesRunsFromItsBeginning) {
    constexpr int kLength = 1000;
    std::vector<int> order;
    std::vector<Ref<NSBlockOperation>> chain;
    for (int n = 0; n < kLength; ++n) {
        chain.push_back(operation([&order, n] { order.push_back(n); }));
        if (n > 0) {
            chain[static_cast<std::size_t>(n)]->addDependency(
                *chain[static_cast<std::size_t>(n) - 1]);
        }
    }
    const auto parallel = make<NSOperationQueue>();
    for (auto at = chain.rbegin(); at != chain.rend(); ++at) {
        parallel->addOperation(**at);
    }
    parallel->waitUntilAllOperationsAreFinished();
    ASSERT_EQ(order.size(), static_cast<std::size_t>(kLength));
    EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST_F(NSOperationQueueOrder, ListsItsOperationsInTheOrderOfTheirArrival) {
    queue->setSuspended(true);
    const auto first = logging("first");
    const auto second = logging("second");
    second->setQueuePriority(Priority::veryHigh);
    queue->addOperation(*first);
    queue->addOperation(*second);
    EXPECT_TRUE(queue->operations()->isEqual(NSArray::array({first, second}).get()));
    EXPECT_EQ(queue->operationCount(), 2U);
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(queue->operations()->count(), 0U);
}

// How many at a time.

TEST(NSOperationQueue, RunsNoMoreThanOneAtATimeWhenSoLimited) {
    const auto queue = make<NSOperationQueue>();
    queue->setMaxConcurrentOperationCount(1);
    ConcurrencyMeter meter;
    std::vector<int> order;
    for (int n = 0; n < 200; ++n) {
        queue->addOperationWithBlock([&, n] {
            meter.enter();
            order.push_back(n);
            meter.leave();
        });
    }
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(meter.most(), 1);
    EXPECT_EQ(order.size(), 200U);
    EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST(NSOperationQueue, RunsTwoAtATimeAndNoMoreWhenSoLimited) {
    const auto queue = make<NSOperationQueue>();
    queue->setMaxConcurrentOperationCount(2);
    ConcurrencyMeter meter;
    std::barrier both(2);  // nobody gets past it alone
    for (int n = 0; n < 100; ++n) {
        queue->addOperationWithBlock([&] {
            meter.enter();
            both.arrive_and_wait();
            meter.leave();
        });
    }
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(meter.most(), 2);
}

TEST_F(NSOperationQueueLife, ALimitOfZeroStartsNothing) {
    queue->setMaxConcurrentOperationCount(0);
    queue->addOperation(*logging("done"));
    flush();
    EXPECT_THAT(log, IsEmpty());
    queue->setMaxConcurrentOperationCount(1);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_THAT(log, ElementsAre("done"));
}

TEST(NSOperationQueue, HasNoLimitByDefaultAndRefusesOthersThanMinusOneBelowZero) {
    const auto queue = make<NSOperationQueue>();
    EXPECT_EQ(queue->maxConcurrentOperationCount(), -1);
    queue->setMaxConcurrentOperationCount(-1);
    EXPECT_TRAP(queue->setMaxConcurrentOperationCount(-2),
                "NSOperationQueue: a negative number of concurrent operations");
}

TEST_F(NSOperationQueueLife, AnAsynchronousOperationHoldsItsPlaceUntilItsEnd) {
    queue->setMaxConcurrentOperationCount(1);
    const auto manual = make<ManualOperation>();
    queue->addOperation(*manual);
    queue->addOperation(*logging("next"));
    manual->started.wait();
    flush();
    EXPECT_THAT(log, IsEmpty());
    manual->end();
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_THAT(log, ElementsAre("next"));
}

TEST_F(NSOperationQueueLife, AnOperationStartedByHandCountsAndIsNotStartedAgain) {
    queue->setMaxConcurrentOperationCount(1);
    queue->setSuspended(true);
    const auto manual = make<ManualOperation>();
    queue->addOperation(*manual);
    queue->addOperation(*logging("next"));
    manual->start();
    queue->setSuspended(false);
    flush();
    EXPECT_THAT(log, IsEmpty());
    EXPECT_EQ(queue->operationCount(), 2U);
    manual->end();
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_THAT(log, ElementsAre("next"));
}

// Suspending and cancelling.

TEST_F(NSOperationQueueLife, ASuspendedQueueStartsNothing) {
    queue->setSuspended(true);
    EXPECT_TRUE(queue->isSuspended());
    queue->addOperation(*logging("done"));
    flush();
    EXPECT_THAT(log, IsEmpty());
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_THAT(log, ElementsAre("done"));
}

TEST_F(NSOperationQueueLife, WhatIsExecutingGoesOnWhenTheQueueIsSuspended) {
    const auto manual = make<ManualOperation>();
    queue->addOperation(*manual);
    manual->started.wait();
    queue->setSuspended(true);
    manual->end();
    EXPECT_EQ(queue->operationCount(), 0U);
}

TEST_F(NSOperationQueueLife, CancelledOperationsFinishWithoutTheirWork) {
    queue->setSuspended(true);
    const auto first = logging("first");
    const auto second = logging("second");
    second->addDependency(*logging("never started"));
    queue->addOperation(*first);
    queue->addOperation(*second);
    queue->cancelAllOperations();
    flush();
    EXPECT_FALSE(first->isFinished()) << "the queue is suspended";
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(first->isCancelled() && first->isFinished());
    EXPECT_TRUE(second->isCancelled() && second->isFinished());
    EXPECT_THAT(log, IsEmpty());
}

TEST_F(NSOperationQueueLife, AnOperationCancelledInItsQueueFinishesAheadOfItsDependencies) {
    const auto waiting = logging("waiting");
    waiting->addDependency(*logging("never started"));
    queue->addOperation(*waiting);
    flush();
    EXPECT_EQ(queue->operationCount(), 1U);
    waiting->cancel();
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(waiting->isFinished());
    EXPECT_THAT(log, IsEmpty());
}

TEST(NSOperationQueue, CancellingReachesWhatIsExecuting) {
    const auto queue = make<NSOperationQueue>();
    const auto manual = make<ManualOperation>();
    queue->addOperation(*manual);
    manual->started.wait();
    queue->cancelAllOperations();
    EXPECT_TRUE(manual->isCancelled());
    EXPECT_EQ(queue->operationCount(), 1U) << "it has not ended";
    manual->end();
    EXPECT_EQ(queue->operationCount(), 0U);
}

// The queue's own life.

TEST_F(NSOperationQueueLife, AQueueStaysAliveWhileItHasOperations) {
    const Weak<NSOperationQueue> weak(queue);
    queue->setSuspended(true);
    queue->addOperation(*logging("done"));
    queue.reset();
    ASSERT_NE(weak.load(), nullptr);
    weak.load()->setSuspended(false);
    flush();
    EXPECT_THAT(log, ElementsAre("done"));
    flush();
    EXPECT_EQ(weak.load(), nullptr);
}

TEST_F(NSOperationQueueLife, LetsGoOfAFinishedOperation) {
    auto done = logging("done");
    const Weak<NSBlockOperation> weak(done);
    queue->addOperation(*done);
    done.reset();
    queue->waitUntilAllOperationsAreFinished();
    flush();
    EXPECT_EQ(weak.load(), nullptr);
}

TEST(NSOperationQueue, AThreadWaitsUntilTheQueueIsEmpty) {
    const auto queue = make<NSOperationQueue>();
    const auto manual = make<ManualOperation>();
    queue->addOperation(*manual);
    std::atomic<bool> hadEnded{false};
    std::jthread waiter([&] {
        queue->waitUntilAllOperationsAreFinished();
        hadEnded = manual->isFinished();
    });
    manual->started.wait();
    manual->end();
    waiter.join();
    EXPECT_TRUE(hadEnded);
}

TEST_F(NSOperationQueueLife, AddingAnOperationTwiceTraps) {
    queue->setSuspended(true);
    const auto one = logging("one");
    queue->addOperation(*one);
    EXPECT_TRAP(queue->addOperation(*one), "the operation is in a queue already");
    EXPECT_TRAP(make<NSOperationQueue>()->addOperation(*one),
                "the operation is in a queue already");
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
}

TEST(NSOperationQueue, AddingWhatExecutesOrHasFinishedTraps) {
    const auto finished = operation([] {});
    finished->start();
    EXPECT_TRAP(make<NSOperationQueue>()->addOperation(*finished),
                "the operation is executing or has finished");
    const auto executing = make<ManualOperation>();
    executing->start();
    EXPECT_TRAP(make<NSOperationQueue>()->addOperation(*executing),
                "the operation is executing or has finished");
    executing->end();
}

TEST(NSOperationQueue, AddingWhatIsNoOperationTraps) {
    EXPECT_TRAP(make<NSOperationQueue>()->addOperations(*NSArray::array({bridge(1)}), false),
                "an element of the array is no operation");
}

TEST(NSOperationQueue, RunsAHundredThousandOperations) {
    const auto queue = make<NSOperationQueue>();
    std::atomic<int> runs{0};
    for (int n = 0; n < 100'000; ++n) {
        queue->addOperationWithBlock([&] { runs.fetch_add(1, std::memory_order_relaxed); });
    }
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(runs, 100'000);
}

TEST(NSOperationQueue, WorksByMessageAndByKey) {
    const id queue = send<id>(NSOperationQueue::classObject(), "new"_sel);
    queue->setValueForKey(bridge(true), "suspended"_ns);
    queue->setValueForKey(bridge(1), "maxConcurrentOperationCount"_ns);
    queue->setValueForKey("jobs"_ns, "name"_ns);
    std::atomic<int> runs{0};
    send<void>(queue, "addOperation:"_sel, operation([&] { ++runs; }));
    send<void>(queue, "addOperationWithBlock:"_sel, [&runs] { ++runs; });
    EXPECT_EQ(send<NSUInteger>(queue, "operationCount"_sel), 2U);
    EXPECT_EQ(unbridge<bool>(queue->valueForKey("suspended"_ns)), true);
    EXPECT_EQ(unbridge<std::string>(queue->valueForKey("name"_ns)), "jobs");
    send<void>(queue, "setSuspended:"_sel, false);
    send<void>(queue, "addOperations:waitUntilFinished:"_sel,
               NSArray::array({operation([&] { ++runs; })}), true);
    send<void>(queue, "waitUntilAllOperationsAreFinished"_sel);
    EXPECT_EQ(runs, 3);
    EXPECT_EQ(send<id>(NSOperationQueue::classObject(), "mainQueue"_sel),
              NSOperationQueue::mainQueue());
}

}  // namespace
}  // namespace vantorq
