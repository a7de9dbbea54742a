#include "VantorqFoundation/VNTQOperation.h"

#include <atomic>
#include <latch>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Cancellables.h"
#include "Support/Operations.h"

namespace vantorq {
namespace {

using test::ChangeLog;
using test::drain;
using test::inlineOperation;
using test::meddle;
using test::ProbeOperation;
using test::Step;
using namespace test::steps;
using enum test::Meddler::When;
using Log = std::vector<std::string>;

Ref<ChangeLog> observeAll(VNTQOperation& operation) {
    auto log = make<ChangeLog>();
    log->observe(operation,
                 {operation_keys::isExecuting, operation_keys::isFinished, operation_keys::isReady,
                  operation_keys::isCancelled},
                 KeyValueObservingOptions::prior);
    return log;
}

// Defaults and configuration.

TEST(Operation, StartsOutPendingWithoutAnyDeadline) {
    const auto operation = make<VNTQOperation>();
    EXPECT_FALSE(operation->isExecuting());
    EXPECT_FALSE(operation->isFinished());
    EXPECT_FALSE(operation->isCancelled());
    EXPECT_TRUE(operation->isReady());
    EXPECT_TRUE(operation->isAsynchronous());
    EXPECT_FALSE(operation->explicitResultDispatch());
    EXPECT_EQ(operation->executionQueue(), nullptr);
    EXPECT_EQ(operation->resultQueue(), nullptr);
    EXPECT_EQ(operation->result(), nullptr);
    EXPECT_EQ(operation->timeoutDate(), nullptr);
    EXPECT_EQ(operation->timeoutInterval(), 0);
    EXPECT_FALSE(operation->invalidateTimer());
    EXPECT_EQ(operation->timeRemaining(), std::numeric_limits<double>::infinity());
}

TEST(Operation, KeepsTheDateThatItIsGiven) {
    const auto operation = make<VNTQOperation>();
    const auto date = NSDate::dateWithTimeIntervalSinceNow(60);
    operation->setTimeoutDate(date);
    EXPECT_EQ(operation->timeoutDate(), date);
}

// Starting.

TEST(OperationStart, RunsMainOnTheCallingThreadWithoutAnExecutionQueue) {
    std::thread::id thread;
    const auto operation =
        inlineOperation([&](ProbeOperation*) { thread = std::this_thread::get_id(); });
    operation->start();
    EXPECT_EQ(thread, std::this_thread::get_id());
    EXPECT_TRUE(operation->isExecuting());
}

TEST(OperationStart, RunsMainOnTheExecutionQueue) {
    const auto queue = DispatchQueue::serial("test.execution");
    const DispatchQueue* current = nullptr;
    const auto operation =
        make<ProbeOperation>([&](ProbeOperation*) { current = DispatchQueue::current(); });
    operation->setExecutionQueue(queue);
    operation->start();
    drain(queue);
    EXPECT_EQ(current, queue.get());
}

TEST(OperationStart, KeepsTheOperationAliveUntilItsQueueHasRunIt) {
    const auto queue = DispatchQueue::serial("test.alive");
    std::latch hold(1);
    queue->async([&] { hold.wait(); });
    std::atomic<int> runs = 0;
    {
        auto operation = make<ProbeOperation>([&](ProbeOperation*) { ++runs; });
        operation->setExecutionQueue(queue);
        operation->start();
    }
    hold.count_down();
    drain(queue);
    EXPECT_EQ(runs, 1);
}

TEST(OperationStart, DoesNothingTheSecondTime) {
    const auto operation = inlineOperation();
    operation->start();
    const auto log = observeAll(*operation);
    operation->start();
    EXPECT_EQ(operation->mainCalls, 1);
    EXPECT_EQ(log->entries, Log());
    operation->completeWithSuccess();
    operation->start();
    EXPECT_EQ(operation->mainCalls, 1);
}

TEST(OperationStart, FromTwoThreadsRunsMainOnce) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> runs = 0;
        const auto operation = inlineOperation([&](ProbeOperation*) { ++runs; });
        test::together(2, [&](int) { operation->start(); });
        EXPECT_EQ(runs, 1);
    }
}

TEST(OperationStart, AnnouncesExecutingAroundTheFlag) {
    const auto operation = inlineOperation();
    const auto log = observeAll(*operation);
    operation->start();
    EXPECT_EQ(log->entries, (Log{"will isExecuting", "did isExecuting"}));
    EXPECT_EQ(log->states, (Log{"---", "E--"}));
}

TEST(OperationStart, DoesNothingTheSecondTimeAfterAnEndBeforeTheFirst) {
    for (const bool cancels : {false, true}) {
        const auto operation = inlineOperation();
        if (cancels) {
            operation->cancel();
        } else {
            operation->completeWithSuccess();
        }
        operation->start();
        const auto log = observeAll(*operation);
        operation->start();
        EXPECT_EQ(log->entries, Log());
    }
}

TEST(OperationStart, DoesNothingTheSecondTimeWhenAnObserverOfTheFirstOneDoesIt) {
    const std::pair<Step, NSString&> ways[] = {{kNothing, operation_keys::isExecuting},
                                               {kComplete, operation_keys::isFinished},
                                               {kCancel, operation_keys::isFinished}};
    for (const auto& [before, key] : ways) {
        for (const auto when : {ahead, after}) {
            const auto operation = inlineOperation();
            int deliveries = 0;
            operation->onCompletion([&] { ++deliveries; });
            before(*operation);
            const auto meddler = meddle(*operation, when, key, kStart);
            const auto log = observeAll(*operation);
            operation->start();
            EXPECT_EQ(log->entries, (Log{"will " + key.utf8(), "did " + key.utf8()}));
            EXPECT_EQ(operation->mainCalls, before == kNothing ? 1 : 0);
            operation->completeWithSuccess();
            EXPECT_EQ(deliveries, 1);
        }
    }
}

TEST(OperationStart, FinishesAnOperationThatAnObserverOfTheStartCancels) {
    const auto operation = inlineOperation();
    int deliveries = 0;
    operation->onCompletion([&] { ++deliveries; });
    const auto meddler = meddle(*operation, ahead, operation_keys::isExecuting, kCancel);
    operation->start();
    EXPECT_EQ(operation->mainCalls, 0);
    EXPECT_TRUE(operation->isFinished());
    EXPECT_EQ(deliveries, 1);
}

TEST(OperationStart, IgnoresUnfinishedDependenciesWhenDoneByHand) {
    const auto dependency = make<VNTQOperation>();
    const auto operation = inlineOperation();
    operation->addDependency(*dependency);
    EXPECT_FALSE(operation->isReady());
    operation->start();
    EXPECT_EQ(operation->mainCalls, 1);
}

// Completing.

TEST(OperationCompletion, AnnouncesBothKeysTogetherAndStoresTheResultBetween) {
    const auto operation = inlineOperation();
    operation->start();
    const auto log = observeAll(*operation);
    const auto result = VNTQResult::resultWithSuccess("value"_ns);
    operation->completeWithResult(result);
    EXPECT_EQ(log->entries,
              (Log{"will isExecuting", "will isFinished", "did isExecuting", "did isFinished"}));
    EXPECT_EQ(log->states, (Log{"E--", "E--", "-FR", "-FR"}));
    EXPECT_EQ(operation->result(), result);
    EXPECT_TRUE(operation->isFinished());
    EXPECT_FALSE(operation->isExecuting());
}

TEST(OperationEnd, ThatAnObserverOfAnotherOneBringsAboutCountsAsTheFirst) {
    struct Way {
        Step end;
        Step meddling;
        bool isCancelled;
        Ref<VNTQResult> result;
    };
    const Way ways[] = {
        {kComplete, kFail, false, VNTQResult::failure()},
        {kComplete, kCancel, true, nullptr},
        {kCancel, kComplete, true, nullptr},  // marked as cancelled by then
    };
    for (const Way& way : ways) {
        for (NSString* key : {&operation_keys::isExecuting, &operation_keys::isFinished}) {
            const auto operation = inlineOperation();
            std::vector<Ref<VNTQResult>> delivered;
            operation->onResult([&](const Ref<VNTQResult>& r) { delivered.push_back(r); });
            operation->start();
            bool meddled = false;
            const auto meddler = meddle(*operation, ahead, *key, [&](VNTQOperation& told) {
                way.meddling(told);
                meddled = true;
            });
            way.end(*operation);
            EXPECT_TRUE(meddled);
            EXPECT_EQ(operation->isCancelled(), way.isCancelled);
            EXPECT_EQ(operation->result(), way.result);
            EXPECT_EQ(delivered, std::vector{way.result});
            EXPECT_TRUE(operation->isFinished());
            EXPECT_FALSE(operation->isExecuting());
        }
    }
}

TEST(OperationCompletion, HasItsForms) {
    const auto complete = [](auto act) {
        const auto operation = inlineOperation();
        operation->start();
        act(*operation);
        return operation->result();
    };
    const id payload("payload"_ns);
    const auto success = complete([&](auto& o) { o.completeWithSuccess(payload); });
    EXPECT_EQ(success->type(), VNTQResultTypeSuccess);
    EXPECT_EQ(success->value(), payload);
    const auto failure = complete([&](auto& o) { o.completeWithFailure(payload); });
    EXPECT_EQ(failure->type(), VNTQResultTypeFailure);
    EXPECT_EQ(failure->error(), payload);
    EXPECT_EQ(complete([](auto& o) { o.completeWithSuccess(); }), VNTQResult::success());
    EXPECT_EQ(complete([](auto& o) { o.completeWithFailure(); }), VNTQResult::failure());
}

TEST(OperationCompletion, CountsOnceAndIgnoresWhatFollows) {
    const auto operation = inlineOperation();
    int deliveries = 0;
    operation->onCompletion([&] { ++deliveries; });
    operation->start();
    operation->completeWithSuccess();
    const auto log = observeAll(*operation);
    operation->completeWithFailure();
    operation->completeWithTimeout();
    operation->cancel();
    EXPECT_EQ(operation->result(), VNTQResult::success());
    EXPECT_FALSE(operation->isCancelled());
    EXPECT_EQ(log->entries, Log());
    EXPECT_EQ(deliveries, 1);
}

TEST(OperationCompletion, WithNilFinishesWithoutAResult) {
    const auto operation = inlineOperation();
    bool deliveredNil = false;
    operation->onResult([&](VNTQResult* result) { deliveredNil = result == nullptr; });
    operation->start();
    operation->completeWithResult(nullptr);
    EXPECT_TRUE(operation->isFinished());
    EXPECT_TRUE(deliveredNil);
}

TEST(OperationCompletion, FromAnObserverOnTheSameThreadIsAllowedByTheRecursiveLock) {
    const auto operation = inlineOperation();
    const auto meddler = meddle(*operation, after, operation_keys::isExecuting, kComplete);
    operation->start();
    EXPECT_TRUE(operation->isFinished());
    EXPECT_EQ(operation->result(), VNTQResult::success());
    EXPECT_EQ(operation->mainCalls, 0);
}

// The lock.

TEST(OperationLock, IsHeldWhileAChangeIsAnnounced) {
    struct Change {
        Step before;
        Step change;
        NSString& key;
    };
    const Change changes[] = {
        {kNothing, kStart, operation_keys::isExecuting},
        {kNothing, kComplete, operation_keys::isReady},
        {kNothing, kCancel, operation_keys::isCancelled},
        {kStart, kComplete, operation_keys::isExecuting},
        {kStart, kComplete, operation_keys::isFinished},
        {kStart, kCancel, operation_keys::isCancelled},
        {kStart, kCancel, operation_keys::isExecuting},
        {kStart, kCancel, operation_keys::isFinished},
        {kComplete, kStart, operation_keys::isFinished},
        {kCancel, kStart, operation_keys::isFinished},
    };
    const auto dependency = make<VNTQOperation>();
    for (const Change& change : changes) {
        for (const auto when : {ahead, after}) {
            const auto operation = inlineOperation();
            operation->addDependency(*dependency);
            change.before(*operation);
            std::atomic<int> calls = 0;
            std::optional<test::Attempt> registration;  // it takes the lock
            const auto meddler = meddle(*operation, when, change.key, [&](VNTQOperation& told) {
                registration.emplace([&] { told.onCompletion([&] { ++calls; }); });
            });
            change.change(*operation);
            ASSERT_TRUE(registration.has_value());
            EXPECT_FALSE(registration->hadSucceeded()) << change.key.utf8();
            registration->join();
            operation->completeWithSuccess();
            EXPECT_EQ(calls, 1) << change.key.utf8();
        }
    }
}

TEST(OperationLock, IsNotTakenByWhatComesTooLate) {
    struct Way {
        Step before;
        Step change;
        NSString& key;
        std::vector<Step> tooLate;
    };
    const Way ways[] = {
        {kStart, kComplete, operation_keys::isFinished, {kStart, kCancel, kFail, kTimeOut}},
        {kStart, kCancel, operation_keys::isFinished, {kStart, kCancel, kFail, kTimeOut}},
        {kNothing, kCancel, operation_keys::isCancelled, {kCancel, kFail, kTimeOut}},
    };
    for (const Way& way : ways) {
        const auto operation = inlineOperation();
        way.before(*operation);
        bool returned = false;
        const auto meddler = meddle(*operation, after, way.key, [&](VNTQOperation& told) {
            // The lock is held here, so that only what needs it not can return.
            std::thread([&] {
                for (const Step step : way.tooLate) {
                    step(told);
                }
            }).join();
            returned = true;
        });
        way.change(*operation);
        EXPECT_TRUE(returned);
        EXPECT_EQ(operation->isCancelled(), way.change == kCancel);
        EXPECT_EQ(operation->result(), way.change == kCancel ? nullptr : VNTQResult::success());
    }
}

// Completing before the start.

TEST(PreCompletedOperation, IsFinishedSilently) {
    const auto operation = inlineOperation();
    const auto log = observeAll(*operation);
    int deliveries = 0;
    operation->onCompletion([&] { ++deliveries; });
    operation->completeWithSuccess("value"_ns);
    EXPECT_TRUE(operation->isFinished());
    EXPECT_EQ(operation->result()->value(), id("value"_ns));
    EXPECT_EQ(log->entries, Log());  // it was ready, so not even that is announced
    EXPECT_EQ(deliveries, 0);
}

TEST(PreCompletedOperation, AnnouncesItsEndAndDeliversWhenStarted) {
    const auto operation = inlineOperation();
    id delivered;
    operation->onValue([&](NSObject* value) { delivered = id(value); });
    operation->completeWithSuccess("value"_ns);
    const auto log = observeAll(*operation);
    operation->start();
    EXPECT_EQ(log->entries, (Log{"will isFinished", "did isFinished"}));
    EXPECT_EQ(log->states, (Log{"-FR", "-FR"}));
    EXPECT_EQ(delivered, id("value"_ns));
    EXPECT_EQ(operation->mainCalls, 0);
    EXPECT_FALSE(operation->isExecuting());
}

TEST(PreCompletedOperation, BecomesReadyAheadOfItsDependencies) {
    const auto dependency = make<VNTQOperation>();
    const auto operation = inlineOperation();
    operation->addDependency(*dependency);
    const auto log = observeAll(*operation);
    operation->completeWithSuccess("value"_ns);
    EXPECT_EQ(log->entries, (Log{"will isReady", "did isReady"}));
    EXPECT_TRUE(operation->isReady());
    operation->start();
    EXPECT_EQ(operation->mainCalls, 0);
    EXPECT_TRUE(operation->isFinished());
}

TEST(PreCompletedOperation, IgnoresFurtherCompletionsAndCancellation) {
    const auto operation = inlineOperation();
    operation->completeWithSuccess();
    operation->completeWithFailure();
    operation->completeWithTimeout();
    operation->cancel();
    EXPECT_FALSE(operation->isCancelled());
    EXPECT_EQ(operation->result(), VNTQResult::success());
}

TEST(PreCompletedOperation, PassesThroughAQueueAheadOfItsDependencies) {
    const auto queue = make<NSOperationQueue>();
    const auto dependency = make<VNTQOperation>();
    const auto operation = make<ProbeOperation>();
    operation->addDependency(*dependency);
    std::latch delivered(1);
    operation->onSuccess([&] { delivered.count_down(); });
    queue->addOperation(*operation);
    operation->completeWithSuccess();
    delivered.wait();
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(operation->mainCalls, 0);
}

TEST(PreCompletedOperation, PassesThroughAQueueWhenCompletedBeforeItWasAdded) {
    const auto queue = make<NSOperationQueue>();
    const auto operation = make<ProbeOperation>();
    operation->completeWithSuccess();
    queue->addOperation(*operation);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(operation->mainCalls, 0);
    EXPECT_EQ(operation->result(), VNTQResult::success());
}

// Cancelling.

TEST(OperationCancel, OfAnExecutingOneEndsItWithNil) {
    const auto operation = inlineOperation();
    int nils = 0;
    int values = 0;
    operation->onResult([&](VNTQResult* result) { nils += result == nullptr ? 1 : 0; });
    operation->onCompletion([&] { ++nils; });
    operation->onValue([&](NSObject*) { ++values; }, [&](NSObject*) { ++values; });
    operation->onSuccess([&] { ++values; }, [&] { ++values; });
    operation->start();
    const auto log = observeAll(*operation);
    operation->cancel();
    EXPECT_EQ(log->entries, (Log{"will isCancelled", "did isCancelled", "will isExecuting",
                                 "will isFinished", "did isExecuting", "did isFinished"}));
    EXPECT_EQ(log->states, (Log{"E--", "E--", "E--", "E--", "-F-", "-F-"}));
    EXPECT_TRUE(operation->isCancelled());
    EXPECT_TRUE(operation->isFinished());
    EXPECT_EQ(operation->result(), nullptr);
    EXPECT_EQ(nils, 2);
    EXPECT_EQ(values, 0);
}

TEST(OperationCancel, BeforeTheStartOnlyMarksTheOperation) {
    const auto operation = inlineOperation();
    int deliveries = 0;
    operation->onCompletion([&] { ++deliveries; });
    operation->cancel();
    EXPECT_TRUE(operation->isCancelled());
    EXPECT_FALSE(operation->isFinished());
    EXPECT_EQ(deliveries, 0);
    const auto log = observeAll(*operation);
    operation->completeWithSuccess();
    operation->cancel();
    EXPECT_EQ(log->entries, Log());
    operation->start();
    EXPECT_EQ(log->entries, (Log{"will isFinished", "did isFinished"}));
    EXPECT_EQ(log->states, (Log{"---", "-F-"}));
    EXPECT_TRUE(operation->isFinished());
    EXPECT_EQ(operation->mainCalls, 0);
    EXPECT_EQ(operation->result(), nullptr);
    EXPECT_EQ(deliveries, 1);
}

TEST(OperationCancel, MakesAPendingOperationReady) {
    const auto dependency = make<VNTQOperation>();
    const auto operation = inlineOperation();
    operation->addDependency(*dependency);
    operation->cancel();
    EXPECT_TRUE(operation->isReady());
}

TEST(OperationCancel, DeliversNilEvenWhereAnObserverOfItCompletesTheOperation) {
    const auto operation = inlineOperation();
    std::vector<Ref<VNTQResult>> delivered;
    const auto deliver = [&](const Ref<VNTQResult>& result) { delivered.push_back(result); };
    operation->onResult(deliver);
    const auto meddler = meddle(*operation, ahead, operation_keys::isCancelled, kComplete);
    operation->cancel();
    EXPECT_TRUE(operation->isCancelled());
    EXPECT_EQ(operation->result(), VNTQResult::success());
    EXPECT_TRUE(delivered.empty());
    operation->start();
    EXPECT_EQ(operation->mainCalls, 0);
    EXPECT_EQ(delivered, (std::vector<Ref<VNTQResult>>{nullptr}));
    operation->onResult(deliver);
    EXPECT_EQ(delivered, (std::vector<Ref<VNTQResult>>{nullptr, nullptr}));
}

TEST(OperationCancel, DisarmsTheTimer) {
    const auto operation = inlineOperation();
    operation->setTimeoutInterval(1000);
    operation->start();
    EXPECT_TRUE(operation->invalidateTimer());
    operation->cancel();
    EXPECT_FALSE(operation->invalidateTimer());
}

TEST(OperationCancel, WhileMainRunsSkipsTheTimer) {
    const auto operation = inlineOperation([](ProbeOperation* self) { self->cancel(); });
    operation->setTimeoutInterval(1000);
    operation->start();
    EXPECT_TRUE(operation->scheduledSeconds.empty());
    EXPECT_TRUE(operation->isFinished());
}

TEST(OperationCancel, BeforeTheExecutionQueueGetsToItSkipsMain) {
    const auto queue = DispatchQueue::serial("test.cancel");
    std::latch hold(1);
    queue->async([&] { hold.wait(); });
    const auto operation = make<ProbeOperation>();
    operation->setExecutionQueue(queue);
    operation->start();
    operation->cancel();
    hold.count_down();
    drain(queue);
    EXPECT_EQ(operation->mainCalls, 0);
}

TEST(OperationCancel, InAQueueFinishesTheOperation) {
    const auto queue = make<NSOperationQueue>();
    queue->setSuspended(true);
    const auto operation = make<ProbeOperation>();
    queue->addOperation(*operation);
    operation->cancel();
    EXPECT_FALSE(operation->isFinished());
    queue->setSuspended(false);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(operation->isFinished());
    EXPECT_EQ(operation->mainCalls, 0);
}

// Queues.

TEST(OperationInAQueue, IsStartedAndLeavesWhenItCompletes) {
    const auto queue = make<NSOperationQueue>();
    std::latch started(1);
    const auto operation = make<ProbeOperation>([&](ProbeOperation*) { started.count_down(); });
    queue->addOperation(*operation);
    started.wait();
    EXPECT_EQ(queue->operationCount(), 1U);
    operation->completeWithSuccess();
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(queue->operationCount(), 0U);
}

TEST(OperationInAQueue, WaitsForItsDependency) {
    const auto queue = make<NSOperationQueue>();
    std::vector<int> order;
    const auto first = make<ProbeOperation>([&](ProbeOperation* self) {
        order.push_back(1);
        self->completeWithSuccess();
    });
    const auto second = make<ProbeOperation>([&](ProbeOperation* self) {
        order.push_back(2);
        self->completeWithSuccess();
    });
    second->addDependency(*first);
    queue->addOperation(*second);
    queue->addOperation(*first);
    queue->waitUntilAllOperationsAreFinished();
    EXPECT_EQ(order, (std::vector{1, 2}));
}

}  // namespace
}  // namespace vantorq
