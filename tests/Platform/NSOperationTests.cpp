#include "VantorqFoundation/Platform/NSOperation.h"

#include <atomic>
#include <functional>
#include <latch>
#include <mutex>
#include <pthread.h>
#include <semaphore>
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
using Log = std::vector<std::string>;

/// An operation with a function as its work.
class Task final : public NSOperation {
public:
    explicit Task(std::function<void(Task&)> work = {}) : work_(std::move(work)) {}

    void main() override {
        ++runs;
        if (work_) {
            work_(*this);
        }
    }

    int runs = 0;

private:
    std::function<void(Task&)> work_;
};

/// An asynchronous operation, which the test begins and ends. It answers for its state under the
/// lock that it announces changes under.
class ManualOperation final : public NSOperation {
public:
    void start() override { change(true, false); }
    void end() { change(false, true); }

    bool isAsynchronous() const override { return true; }
    bool isExecuting() const override { return locked(executing_); }
    bool isFinished() const override {
        if (beforeAnswer) {
            beforeAnswer();
        }
        return locked(finished_);
    }

    mutable std::recursive_mutex lock;
    std::function<void()> beforeAnswer;

private:
    bool locked(const bool& flag) const {
        const std::lock_guard guard(lock);
        return flag;
    }
    void change(bool executing, bool finished) {
        const std::lock_guard guard(lock);
        willChangeValueForKey(operation_keys::isExecuting);
        willChangeValueForKey(operation_keys::isFinished);
        executing_ = executing;
        finished_ = finished;
        didChangeValueForKey(operation_keys::isExecuting);
        didChangeValueForKey(operation_keys::isFinished);
    }

    bool executing_ = false;
    bool finished_ = false;
};

/// Writes down every notification of an operation, with the state that it then finds.
class Observer final : public NSObject {
public:
    Observer(NSOperation& operation, Log& entries) : log_(entries) {
        operation.addObserver(
            *this,
            *NSArray::array({operation_keys::isReady, operation_keys::isExecuting,
                             operation_keys::isFinished, operation_keys::isCancelled}),
            KeyValueObservingOptions::prior, nullptr);
    }
    void observeValueForKeyPath(const NSString& key, NSObject& object, const KeyValueChange& change,
                                void*) override {
        const bool value = unbridge<bool>(object.valueForKey(key)).value();
        log_.push_back((change.isPrior ? "before " : "") + key.utf8() + (value ? " yes" : " no"));
    }

private:
    Log& log_;
};

// The synchronous life.

TEST(NSOperation, IsReadyAtFirst) {
    const auto task = make<Task>();
    EXPECT_TRUE(task->isReady());
    EXPECT_FALSE(task->isExecuting());
    EXPECT_FALSE(task->isFinished());
    EXPECT_FALSE(task->isCancelled());
    EXPECT_FALSE(task->isAsynchronous());
}

TEST(NSOperation, StartRunsMainOnTheCallingThreadAndFinishes) {
    std::thread::id thread;
    bool wasExecuting = false;
    const auto task = make<Task>([&](Task& self) {
        thread = std::this_thread::get_id();
        wasExecuting = self.isExecuting() && !self.isFinished();
    });
    task->start();
    EXPECT_EQ(thread, std::this_thread::get_id());
    EXPECT_TRUE(wasExecuting);
    EXPECT_FALSE(task->isExecuting());
    EXPECT_TRUE(task->isFinished());
}

TEST(NSOperation, AnnouncesItsLifeInOrder) {
    Log log;
    const auto task = make<Task>([&](Task&) { log.push_back("main"); });
    const auto observer = make<Observer>(*task, log);
    task->start();
    EXPECT_THAT(log, ElementsAre("before isExecuting no", "isExecuting yes", "main",
                                 "before isExecuting yes", "before isFinished no", "isExecuting no",
                                 "isFinished yes"));
}

TEST(NSOperation, ASecondStartDoesNothing) {
    Log log;
    const auto task = make<Task>([](Task& self) { self.start(); });
    task->start();
    const auto observer = make<Observer>(*task, log);
    task->start();
    EXPECT_EQ(task->runs, 1);
    EXPECT_THAT(log, IsEmpty());
}

TEST(NSOperation, StaysAliveUntilItHasAnnouncedItsEnd) {
    Ref<Task> task = make<Task>([&](Task&) { task.reset(); });
    Weak<Task> weak(task);
    task->start();
    EXPECT_EQ(weak.load(), nullptr);
}

// Cancelling.

TEST(NSOperation, ACancelledOneFinishesWithoutMain) {
    Log log;
    const auto task = make<Task>();
    task->cancel();
    EXPECT_TRUE(task->isCancelled());
    EXPECT_FALSE(task->isFinished());
    const auto observer = make<Observer>(*task, log);
    task->start();
    EXPECT_EQ(task->runs, 0);
    EXPECT_TRUE(task->isFinished());
    EXPECT_THAT(log, ElementsAre("before isFinished no", "isFinished yes"));
}

TEST(NSOperation, CancellingTwiceAnnouncesItOnce) {
    Log log;
    const auto task = make<Task>();
    const auto observer = make<Observer>(*task, log);
    task->cancel();
    task->cancel();
    EXPECT_THAT(log, ElementsAre("before isCancelled no", "isCancelled yes"));
}

TEST(NSOperation, CancellingDoesNotStopWhatIsRunning) {
    bool wentOn = false;
    const auto task = make<Task>([&](Task& self) {
        self.cancel();
        wentOn = self.isExecuting() && self.isCancelled();
    });
    task->start();
    EXPECT_TRUE(wentOn);
    EXPECT_TRUE(task->isFinished());
}

TEST(NSOperation, CancellingAfterTheEndDoesNothing) {
    const auto task = make<Task>();
    task->start();
    task->cancel();
    EXPECT_FALSE(task->isCancelled());
}

TEST(NSOperation, CancellingMakesReadyAndAnnouncesIt) {
    Log log;
    const auto dependency = make<Task>();
    const auto task = make<Task>();
    task->addDependency(*dependency);
    const auto observer = make<Observer>(*task, log);
    task->cancel();
    EXPECT_TRUE(task->isReady());
    EXPECT_THAT(log, ElementsAre("before isCancelled no", "before isReady no", "isReady yes",
                                 "isCancelled yes"));
    task->start();
    EXPECT_TRUE(task->isFinished());
    EXPECT_EQ(task->runs, 0);
}

// Dependencies.

TEST(NSOperation, StartingBeforeReadyTraps) {
    const auto dependency = make<Task>();
    const auto task = make<Task>();
    task->addDependency(*dependency);
    EXPECT_TRAP(task->start(), "NSOperation: an operation was started before it was ready");
}

TEST(NSOperation, BecomesReadyWhenItsDependencyFinishes) {
    Log log;
    const auto dependency = make<Task>();
    const auto task = make<Task>();
    task->addDependency(*dependency);
    EXPECT_FALSE(task->isReady());
    const auto observer = make<Observer>(*task, log);
    dependency->start();
    EXPECT_TRUE(task->isReady());
    EXPECT_THAT(log, ElementsAre("before isReady no", "isReady yes"));
}

TEST(NSOperation, BecomesReadyWithTheLastOfSeveralDependencies) {
    const auto first = make<Task>();
    const auto second = make<Task>();
    const auto task = make<Task>();
    task->addDependency(*first);
    task->addDependency(*second);
    second->start();
    EXPECT_FALSE(task->isReady());
    first->start();
    EXPECT_TRUE(task->isReady());
}

TEST(NSOperation, AFinishedDependencyDoesNotDelay) {
    const auto dependency = make<Task>();
    dependency->start();
    const auto task = make<Task>();
    task->addDependency(*dependency);
    EXPECT_TRUE(task->isReady());
}

TEST(NSOperation, ADependencyAddedTwiceCountsOnce) {
    const auto dependency = make<Task>();
    const auto task = make<Task>();
    task->addDependency(*dependency);
    task->addDependency(*dependency);
    EXPECT_EQ(task->dependencies()->count(), 1U);
    dependency->start();
    EXPECT_TRUE(task->isReady());
}

TEST(NSOperation, ACancelledDependencyCountsOnlyOnceItHasFinished) {
    const auto dependency = make<Task>();
    const auto task = make<Task>();
    task->addDependency(*dependency);
    dependency->cancel();
    EXPECT_FALSE(task->isReady());
    dependency->start();
    EXPECT_TRUE(task->isReady());
}

TEST(NSOperation, AnAsynchronousDependencyCountsWhenItAnnouncesItsEnd) {
    const auto dependency = make<ManualOperation>();
    const auto task = make<Task>();
    task->addDependency(*dependency);
    dependency->start();
    EXPECT_FALSE(task->isReady());
    dependency->end();
    EXPECT_TRUE(task->isReady());
}

TEST(NSOperation, RemovingADependencyMakesReadyAndAnnouncesIt) {
    Log log;
    const auto dependency = make<Task>();
    const auto task = make<Task>();
    task->addDependency(*dependency);
    const auto observer = make<Observer>(*task, log);
    task->removeDependency(*dependency);
    EXPECT_TRUE(task->isReady());
    EXPECT_EQ(task->dependencies()->count(), 0U);
    EXPECT_THAT(log, ElementsAre("before isReady no", "isReady yes"));
    dependency->start();
    EXPECT_EQ(log.size(), 2U) << "no longer its concern";
}

TEST(NSOperation, RemovingWhatIsNoDependencyDoesNothing) {
    const auto dependency = make<Task>();
    const auto task = make<Task>();
    task->addDependency(*dependency);
    task->removeDependency(*make<Task>());
    EXPECT_FALSE(task->isReady());
}

TEST(NSOperation, ListsItsDependenciesInOrder) {
    const auto first = make<Task>();
    const auto second = make<Task>();
    const auto task = make<Task>();
    EXPECT_EQ(task->dependencies()->count(), 0U);
    task->addDependency(*first);
    task->addDependency(*second);
    EXPECT_TRUE(task->dependencies()->isEqual(NSArray::array({first, second}).get()));
}

TEST(NSOperation, LetsGoOfItsDependenciesWhenItFinishes) {
    auto dependency = make<Task>();
    const Weak<Task> weak(dependency);
    const auto task = make<Task>();
    task->addDependency(*dependency);
    dependency->start();
    dependency.reset();
    EXPECT_NE(weak.load(), nullptr);
    task->start();
    EXPECT_EQ(weak.load(), nullptr);
}

TEST(NSOperation, LetsGoOfUnfinishedDependenciesToo) {
    auto dependency = make<Task>();
    const Weak<Task> weak(dependency);
    const auto task = make<Task>();
    task->addDependency(*dependency);
    dependency.reset();
    task->cancel();
    task->start();
    EXPECT_EQ(weak.load(), nullptr);
}

TEST(NSOperation, ADependencyAddedWhileExecutingOrAfterTheEndHasNoEffect) {
    const auto dependency = make<Task>();
    const auto task = make<Task>([&](Task& self) {
        self.addDependency(*dependency);
        EXPECT_TRUE(self.isReady());
    });
    task->start();
    task->addDependency(*dependency);
    EXPECT_TRUE(task->isReady());
    EXPECT_EQ(task->dependencies()->count(), 0U);
}

TEST(NSOperation, ACircleOfDependenciesNeverBecomesReadyUntilItIsCut) {
    const auto first = make<Task>();
    const auto second = make<Task>();
    first->addDependency(*second);
    second->addDependency(*first);
    EXPECT_FALSE(first->isReady());
    EXPECT_FALSE(second->isReady());
    first->removeDependency(*second);
    first->start();
    EXPECT_TRUE(second->isReady());
}

/// Runs `work` on a thread with too little stack for deep recursion.
void withLittleStack(std::function<void()> work) {
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, 512 * 1024), 0);
    pthread_t thread{};
    const auto run = [](void* function) -> void* {
        (*static_cast<std::function<void()>*>(function))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, run, &work), 0);
    ASSERT_EQ(pthread_join(thread, nullptr), 0);
    ASSERT_EQ(pthread_attr_destroy(&attributes), 0);
}

TEST(NSOperation, ALongChainOfDependenciesIsDestroyedWithoutRecursion) {
    auto last = make<Task>();
    const Weak<Task> first(last);
    for (int n = 0; n < 100'000; ++n) {
        auto next = make<Task>();
        next->addDependency(*last);
        last = next;
    }
    withLittleStack([&] { last.reset(); });
    EXPECT_EQ(first.load(), nullptr);
}

TEST(NSOperation, ATreeOfDependenciesIsDestroyedWhole) {
    std::vector<Weak<Task>> leaves;
    auto root = make<Task>();
    for (int n = 0; n < 3; ++n) {
        const auto branch = make<Task>();
        root->addDependency(*branch);
        for (int m = 0; m < 3; ++m) {
            const auto leaf = make<Task>();
            branch->addDependency(*leaf);
            leaves.emplace_back(leaf);
        }
    }
    root.reset();
    for (const auto& leaf : leaves) {
        EXPECT_EQ(leaf.load(), nullptr);
    }
}

// The end.

TEST(NSOperation, CallsItsCompletionBlockOnceAfterItHasFinished) {
    std::atomic<int> calls{0};
    std::atomic<bool> hadFinished{false};
    std::binary_semaphore called(0);
    const auto task = make<Task>();
    task->setCompletionBlock([&, raw = task.get()] {
        ++calls;
        hadFinished = raw->isFinished();
        called.release();
    });
    task->start();
    task->start();
    called.acquire();
    EXPECT_TRUE(hadFinished);
    EXPECT_FALSE(task->completionBlock()) << "it is let go of, with what it holds";

    // Whatever was queued by mistake would have been queued before this.
    std::latch drained(1);
    DispatchQueue::global()->async([&] { drained.count_down(); });
    drained.wait();
    EXPECT_EQ(calls, 1);
}

TEST(NSOperation, CallsItsCompletionBlockWhenItWasCancelled) {
    std::latch called(1);
    const auto task = make<Task>();
    task->setCompletionBlock([&] { called.count_down(); });
    task->cancel();
    task->start();
    called.wait();
    EXPECT_EQ(task->runs, 0);
}

TEST(NSOperation, WaitsOnAnotherThreadUntilItHasFinished) {
    std::latch inMain(1);
    std::latch mayEnd(1);
    const auto task = make<Task>([&](Task&) {
        inMain.count_down();
        mayEnd.wait();
    });
    std::jthread runner([&] { task->start(); });
    inMain.wait();
    std::atomic<bool> sawTheEnd{false};
    std::jthread waiter([&] {
        task->waitUntilFinished();
        sawTheEnd = task->isFinished();
    });
    mayEnd.count_down();
    waiter.join();
    EXPECT_TRUE(sawTheEnd);
}

TEST(NSOperation, WaitingAfterTheEndReturnsAtOnce) {
    const auto task = make<Task>();
    task->start();
    task->waitUntilFinished();
    EXPECT_TRUE(task->isFinished());
}

TEST(NSOperation, WaitsForAnAsynchronousOperationThatAnswersUnderTheLockItAnnouncesUnder) {
    const auto operation = make<ManualOperation>();
    operation->start();
    std::latch asked(1);
    std::thread waiter;
    {
        const std::lock_guard guard(operation->lock);
        operation->beforeAnswer = [&, ender = std::this_thread::get_id()] {
            if (std::this_thread::get_id() != ender) {
                asked.count_down();
            }
        };
        waiter = std::thread([&] { operation->waitUntilFinished(); });
        asked.wait();
        operation->end();
    }
    waiter.join();
    EXPECT_TRUE(operation->isFinished());
}

// Properties.

TEST(NSOperation, BringsItsPriorityToTheNearestOfTheFiveTowardsNormal) {
    const auto task = make<Task>();
    EXPECT_EQ(task->queuePriority(), NSOperationQueuePriority::normal);
    const auto brought = [&](NSInteger priority) {
        task->setQueuePriority(static_cast<NSOperationQueuePriority>(priority));
        return static_cast<NSInteger>(task->queuePriority());
    };
    EXPECT_EQ(brought(-100), -8);
    EXPECT_EQ(brought(-8), -8);
    EXPECT_EQ(brought(-7), -4);
    EXPECT_EQ(brought(-4), -4);
    EXPECT_EQ(brought(-3), 0);
    EXPECT_EQ(brought(0), 0);
    EXPECT_EQ(brought(3), 0);
    EXPECT_EQ(brought(4), 4);
    EXPECT_EQ(brought(7), 4);
    EXPECT_EQ(brought(8), 8);
    EXPECT_EQ(brought(100), 8);
}

TEST(NSOperation, RemembersItsName) {
    const auto task = make<Task>();
    EXPECT_EQ(task->name(), nullptr);
    task->setName("download"_ns);
    EXPECT_EQ(task->name()->utf8(), "download");
}

TEST(NSOperation, WorksByMessageAndByKey) {
    const auto dependency = make<Task>();
    const id task = make<Task>();
    send<void>(task, "addDependency:"_sel, dependency);
    EXPECT_EQ(unbridge<bool>(task->valueForKey("ready"_ns)), false);
    EXPECT_EQ(unbridge<bool>(task->valueForKey("isReady"_ns)), false);
    send<void>(task, "removeDependency:"_sel, dependency);
    task->setValueForKey(bridge(8), "queuePriority"_ns);
    EXPECT_EQ(send<NSOperationQueuePriority>(task, "queuePriority"_sel),
              NSOperationQueuePriority::veryHigh);
    send<void>(task, "cancel"_sel);
    send<void>(task, "start"_sel);
    send<void>(task, "waitUntilFinished"_sel);
    EXPECT_TRUE(send<bool>(task, "isFinished"_sel));
    EXPECT_EQ(unbridge<bool>(task->valueForKey("cancelled"_ns)), true);
}

// Block operations.

TEST(NSBlockOperation, RunsItsBlocksInOrder) {
    Log log;
    const auto operation = NSBlockOperation::blockOperationWithBlock([&] { log.push_back("1"); });
    operation->addExecutionBlock([&] { log.push_back("2"); });
    operation->start();
    EXPECT_THAT(log, ElementsAre("1", "2"));
    EXPECT_TRUE(operation->isFinished());
}

TEST(NSBlockOperation, AnEmptyBlockTraps) {
    EXPECT_TRAP((void)NSBlockOperation::blockOperationWithBlock(nullptr),
                "NSBlockOperation: an empty block was added");
    EXPECT_TRAP(make<NSBlockOperation>()->addExecutionBlock(nullptr),
                "NSBlockOperation: an empty block was added");
}

TEST(NSBlockOperation, WorksByMessage) {
    int runs = 0;
    const id operation = send<id>(NSBlockOperation::classObject(), "blockOperationWithBlock:"_sel,
                                  [&runs] { ++runs; });
    send<void>(operation, "addExecutionBlock:"_sel, [&runs] { ++runs; });
    send<void>(operation, "start"_sel);
    EXPECT_EQ(runs, 2);
}

}  // namespace
}  // namespace vantorq
