#include "VantorqFoundation/VNTQOperation.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
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
#include "Support/Trap.h"

namespace vantorq {
namespace {

using test::ChangeLog;
using test::inlineOperation;
using test::ProbeOperation;
using test::secondsUntil;
using Log = std::vector<std::string>;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNotANumber = std::numeric_limits<double>::quiet_NaN();

Ref<ChangeLog> observeAll(VNTQOperation& operation) {
    auto log = make<ChangeLog>();
    log->observe(operation,
                 {operation_keys::isExecuting, operation_keys::isFinished, operation_keys::isReady,
                  operation_keys::isCancelled},
                 KeyValueObservingOptions::prior);
    return log;
}

const NSError* errorOf(const VNTQOperation& operation) {
    return operation.result() != nullptr ? objectCast<NSError>(operation.result()->error().get())
                                         : nullptr;
}

bool isTimeout(const VNTQOperation& operation) {
    const NSError* error = errorOf(operation);
    return error != nullptr && error->domain()->isEqualToString(&VNTQFoundationErrorDomain) &&
           error->code() == 1;
}

/// Runs what is queued on a serial queue so far.
void drain(const Ref<DispatchQueue>& queue) {
    queue->sync([] {});
}

/// Calls `action` on a serial queue when so many seconds have passed, and returns when that is
/// done. Timers of that queue that had to fire by then have done so before.
void callOn(const Ref<DispatchQueue>& queue, double seconds, std::function<void()> action) {
    std::latch called(1);
    const auto timer = DispatchTimer::timer(queue, [&] {
        action();
        called.count_down();
    });
    timer->schedule(static_cast<std::uint64_t>(seconds * 1'000'000'000));
    called.wait();
    drain(queue);
}

/// What may be done to an operation, for what holds in whichever order it is done.
using Step = void (*)(VNTQOperation&);
constexpr Step kNothing = [](VNTQOperation&) {};
constexpr Step kStart = [](VNTQOperation& operation) { operation.start(); };
constexpr Step kComplete = [](VNTQOperation& operation) { operation.completeWithSuccess(); };
constexpr Step kFail = [](VNTQOperation& operation) { operation.completeWithFailure(); };
constexpr Step kCancel = [](VNTQOperation& operation) { operation.cancel(); };
constexpr Step kTimeOut = [](VNTQOperation& operation) { operation.completeWithTimeout(); };

/// Does something to an operation, once, when it is told that a key changes.
class Meddler : public NSObject {
public:
    enum class When { ahead, after };

    Meddler(When when, std::function<void(VNTQOperation&)> act)
        : when_(when), act_(std::move(act)) {}
    void observeValueForKeyPath(const NSString&, NSObject& object, const KeyValueChange& change,
                                void*) override {
        if (change.isPrior == (when_ == When::ahead) && act_ != nullptr) {
            std::exchange(act_, nullptr)(static_cast<VNTQOperation&>(object));
        }
    }

private:
    const When when_;
    std::function<void(VNTQOperation&)> act_;
};
using enum Meddler::When;

/// Has `act` done when the operation announces the key, as long as the result lives.
[[nodiscard]] Ref<Meddler> meddle(VNTQOperation& operation, Meddler::When when, const NSString& key,
                                  std::function<void(VNTQOperation&)> act) {
    auto meddler = make<Meddler>(when, std::move(act));
    operation.addObserver(*meddler, key, KeyValueObservingOptions::prior);
    return meddler;
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
    EXPECT_EQ(operation->timeRemaining(), kInfinity);
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

// Deadlines.

TEST(OperationDeadline, IsTheStartPlusTheInterval) {
    const auto operation = inlineOperation();
    operation->armsTimer = false;
    operation->setTimeoutInterval(5);
    EXPECT_EQ(operation->timeRemaining(), 5);
    operation->start();
    EXPECT_NEAR(secondsUntil(operation->timeoutDate()), 5, 1);
    EXPECT_NEAR(operation->timeRemaining(), 5, 1);
}

TEST(OperationDeadline, IsSetByTheStartAndNotByTheExecutionQueue) {
    const auto queue = DispatchQueue::serial("test.deadline");
    std::latch hold(1);
    queue->async([&] { hold.wait(); });
    const auto operation = inlineOperation();
    operation->armsTimer = false;
    operation->setExecutionQueue(queue);
    operation->setTimeoutInterval(1000);
    Ref<NSDate> announced;
    const auto meddler = meddle(*operation, after, operation_keys::isExecuting,
                                [&](VNTQOperation& told) { announced = told.timeoutDate(); });
    operation->start();
    const auto started = operation->timeoutDate();
    hold.count_down();
    drain(queue);
    ASSERT_NE(announced, nullptr);
    EXPECT_NEAR(secondsUntil(announced), 1000, 100);
    EXPECT_TRUE(isEqual(started.get(), announced.get()));
    EXPECT_TRUE(isEqual(operation->timeoutDate().get(), announced.get()));
}

/// Seconds to the deadline of an operation that has started with an interval of 5 seconds, and with
/// a date so many seconds ahead.
double secondsToDeadlineWithDateIn(double seconds) {
    const auto operation = inlineOperation();
    operation->armsTimer = false;
    operation->setTimeoutInterval(5);
    operation->setTimeoutDate(NSDate::dateWithTimeIntervalSinceNow(seconds));
    operation->start();
    return secondsUntil(operation->timeoutDate());
}

TEST(OperationDeadline, StaysWhereADateLiesFurtherAhead) {
    EXPECT_NEAR(secondsToDeadlineWithDateIn(60), 60, 1);
}

TEST(OperationDeadline, MovesToTheIntervalWhereADateIsNearer) {
    EXPECT_NEAR(secondsToDeadlineWithDateIn(1), 5, 1);
}

TEST(OperationDeadline, IsTheDateAloneWithoutAnInterval) {
    for (const double interval : {0.0, -3.0, -kInfinity, kNotANumber}) {
        const auto operation = inlineOperation();
        operation->armsTimer = false;
        const auto date = NSDate::dateWithTimeIntervalSinceNow(60);
        operation->setTimeoutDate(date);
        operation->setTimeoutInterval(interval);
        operation->start();
        EXPECT_EQ(operation->timeoutDate(), date) << interval;
    }
}

TEST(OperationDeadline, IsNoneForAnIntervalThatIsNoneOrNotANumber) {
    for (const double interval : {0.0, -3.0, -kInfinity, kNotANumber}) {
        const auto operation = inlineOperation();
        operation->setTimeoutInterval(interval);
        operation->start();
        EXPECT_EQ(operation->timeoutDate(), nullptr) << interval;
        EXPECT_EQ(operation->timeRemaining(), kInfinity) << interval;
        EXPECT_TRUE(operation->scheduledSeconds.empty()) << interval;
        EXPECT_TRUE(operation->isExecuting()) << interval;
        operation->completeWithSuccess();
        EXPECT_EQ(operation->timeRemaining(), 0) << interval;
    }
}

TEST(OperationDeadline, LeavesTimeRemainingInAFinishedOperationThatHasOne) {
    const auto finished = [](double interval, const Ref<NSDate>& date) {
        const auto operation = inlineOperation();
        operation->setTimeoutInterval(interval);
        operation->setTimeoutDate(date);
        operation->completeWithSuccess();  // before the start, which would compute a deadline
        EXPECT_TRUE(operation->isFinished());
        return operation;
    };
    const auto ahead = NSDate::dateWithTimeIntervalSinceNow(60);
    const auto passed = NSDate::dateWithTimeIntervalSinceNow(-60);
    EXPECT_EQ(finished(5, nullptr)->timeRemaining(), 5);
    EXPECT_NEAR(finished(0, ahead)->timeRemaining(), 60, 1);
    EXPECT_NEAR(finished(5, ahead)->timeRemaining(), 60, 1);
    EXPECT_EQ(finished(0, passed)->timeRemaining(), 0);
    EXPECT_EQ(finished(5, passed)->timeRemaining(), 0);

    const auto started = inlineOperation([](ProbeOperation* self) { self->completeWithSuccess(); });
    started->setTimeoutInterval(5);
    started->start();
    EXPECT_NEAR(started->timeRemaining(), 5, 1);
}

TEST(OperationDeadline, ArmsNoTimerWhenItIsInfinitelyFar) {
    const auto operation = inlineOperation();
    operation->setTimeoutInterval(kInfinity);
    operation->start();
    EXPECT_EQ(operation->mainCalls, 1);
    EXPECT_TRUE(operation->scheduledSeconds.empty());
    EXPECT_EQ(operation->timeRemaining(), kInfinity);
}

TEST(OperationDeadline, ThatIsNotANumberFailsTheOperationBeforeMain) {
    const auto operation = inlineOperation();
    operation->setTimeoutDate(NSDate::dateWithTimeIntervalSinceReferenceDate(kNotANumber));
    operation->start();
    EXPECT_EQ(operation->mainCalls, 0);
    EXPECT_TRUE(isTimeout(*operation));
}

TEST(OperationDeadline, InThePastFailsTheOperationBeforeMain) {
    const auto operation = inlineOperation();
    operation->setTimeoutDate(NSDate::dateWithTimeIntervalSinceNow(-1));
    EXPECT_EQ(operation->timeRemaining(), 0);
    operation->start();
    EXPECT_EQ(operation->mainCalls, 0);
    EXPECT_TRUE(isTimeout(*operation));
}

TEST(OperationDeadline, ThatPassesWhileMainRunsIsReportedAsSoonAsMainReturns) {
    const auto operation = inlineOperation([](ProbeOperation* self) {
        self->setTimeoutDate(NSDate::dateWithTimeIntervalSinceNow(-1));
        EXPECT_FALSE(self->isFinished());
    });
    operation->setTimeoutInterval(100);
    operation->start();
    EXPECT_EQ(operation->mainCalls, 1);
    EXPECT_TRUE(isTimeout(*operation));
    EXPECT_TRUE(operation->scheduledSeconds.empty());
}

TEST(OperationDeadline, IsArmedOnlyAfterMainHasReturned) {
    const auto operation = inlineOperation([](ProbeOperation* self) {
        EXPECT_TRUE(self->scheduledSeconds.empty());
        EXPECT_FALSE(self->invalidateTimer());
    });
    operation->setTimeoutInterval(100);
    operation->start();
    ASSERT_EQ(operation->scheduledSeconds.size(), 1U);
    EXPECT_NEAR(operation->scheduledSeconds[0], 100, 1);
    EXPECT_TRUE(operation->invalidateTimer());
    operation->cancel();
}

TEST(OperationDeadline, IsNotArmedWhenMainHasCompletedTheOperation) {
    const auto operation =
        inlineOperation([](ProbeOperation* self) { self->completeWithSuccess(); });
    operation->setTimeoutInterval(100);
    operation->start();
    EXPECT_TRUE(operation->scheduledSeconds.empty());
}

TEST(OperationDeadline, IsMeasuredFromTheStartAndNotFromTheArming) {
    const auto operation = inlineOperation([](ProbeOperation* self) {
        self->setTimeoutDate(NSDate::dateWithTimeIntervalSinceNow(40));
    });
    operation->setTimeoutInterval(100);
    operation->start();
    ASSERT_EQ(operation->scheduledSeconds.size(), 1U);
    EXPECT_NEAR(operation->scheduledSeconds[0], 40, 1);
    operation->cancel();
}

TEST(OperationDeadline, DisarmsAnOlderTimerBeforeItArmsItsOwn) {
    int disarmed = 0;
    const auto operation = inlineOperation(
        [&](ProbeOperation* self) { self->setInvalidateTimer([&] { ++disarmed; }); });
    operation->armsTimer = false;
    operation->setTimeoutInterval(100);
    operation->start();
    EXPECT_EQ(disarmed, 1);
    EXPECT_FALSE(operation->invalidateTimer());
}

// The timer.

TEST(OperationTimeout, CompletesWithTheTimeoutError) {
    std::latch delivered(1);
    const auto operation = make<ProbeOperation>();
    operation->setTimeoutInterval(0.02);
    operation->onError([&](NSObject* error) {
        EXPECT_EQ(objectCast<NSError>(error)->code(), 1);
        delivered.count_down();
    });
    operation->start();
    delivered.wait();
    EXPECT_TRUE(isTimeout(*operation));
    EXPECT_FALSE(operation->invalidateTimer());
    EXPECT_TRUE(operation->isFinished());
    EXPECT_FALSE(operation->isCancelled());
    EXPECT_TRUE(test::secondsInTimeoutText(*operation).has_value());
    EXPECT_EQ(errorOf(*operation)->userInfo()->count(), 1U);
}

TEST(OperationTimeout, FiresOnTheExecutionQueue) {
    const auto queue = DispatchQueue::serial("test.timer");
    std::latch delivered(1);
    const DispatchQueue* current = nullptr;
    const auto operation = inlineOperation();
    operation->setExecutionQueue(queue);
    operation->setTimeoutInterval(0.01);
    operation->onCompletion([&] {
        current = DispatchQueue::current();
        delivered.count_down();
    });
    operation->start();
    delivered.wait();
    EXPECT_EQ(current, queue.get());
}

TEST(OperationTimeout, FiresOnTheGlobalQueueWithoutAnExecutionQueue) {
    std::latch delivered(1);
    const DispatchQueue* current = nullptr;
    const auto operation = inlineOperation();
    operation->setTimeoutInterval(0.01);
    operation->onCompletion([&] {
        current = DispatchQueue::current();
        delivered.count_down();
    });
    operation->start();
    delivered.wait();
    EXPECT_EQ(current, DispatchQueue::global().get());
    EXPECT_EQ(current->qos(), DispatchQoS::default_);
}

TEST(OperationTimeout, ComesNoEarlierThanItsInterval) {
    constexpr double kInterval = 0.2;
    std::latch delivered(1);
    std::chrono::steady_clock::time_point end;
    const auto operation = inlineOperation();
    operation->setTimeoutInterval(kInterval);
    operation->onCompletion([&] {
        end = std::chrono::steady_clock::now();
        delivered.count_down();
    });
    const auto begin = std::chrono::steady_clock::now();
    operation->start();
    delivered.wait();
    // The deadline is a date, and the system may be correcting those.
    EXPECT_GE(std::chrono::duration<double>(end - begin).count(), kInterval - 0.001);
    EXPECT_GE(test::secondsInTimeoutText(*operation).value_or(-1), kInterval);
}

/// An operation that executes, and whose timers fire on the queue.
Ref<ProbeOperation> executingOperationOn(const Ref<DispatchQueue>& queue) {
    auto operation = inlineOperation();
    operation->setExecutionQueue(queue);
    operation->start();
    drain(queue);
    return operation;
}

TEST(OperationTimeout, ComesNoLaterThanWhatIsDueAfterItAndItsTenth) {
    const auto queue = DispatchQueue::serial("test.order");
    const auto operation = executingOperationOn(queue);
    Log order;
    operation->onCompletion([&] { order.push_back("time-out"); });
    operation->scheduleTimer(0.05);
    callOn(queue, 0.055, [&] { order.push_back("later"); });
    EXPECT_EQ(order, (Log{"time-out", "later"}));
}

TEST(OperationTimeout, DoesNotKeepTheOperationAlive) {
    Weak<ProbeOperation> weak;
    {
        const auto operation = inlineOperation();
        operation->setTimeoutInterval(1000);
        operation->start();
        EXPECT_TRUE(operation->invalidateTimer());  // armed
        weak = Weak<ProbeOperation>(operation);
        EXPECT_NE(weak.load(), nullptr);
    }
    EXPECT_EQ(weak.load(), nullptr);
}

TEST(OperationTimeout, MayFireWhileTheOperationIsReleased) {
    for (int round = 0; round < 75; ++round) {
        for (const double interval : {0.0001, 0.0002, 0.0004, 1000.0}) {
            const auto operation = inlineOperation();
            operation->setTimeoutInterval(interval);
            operation->start();
        }
    }
    EXPECT_TRUE(test::eventually([] { return ProbeOperation::liveCount == 0; }));
}

TEST(OperationTimeout, TextCountsFromTheStartWithOneDecimal) {
    EXPECT_EQ(detail::timeoutError(2.04)->localizedFailureReason()->utf8(),
              "Timeout waiting 2.0 seconds for completion");
    const auto before = std::chrono::steady_clock::now();
    const auto operation = inlineOperation();
    operation->start();
    std::this_thread::sleep_for(std::chrono::milliseconds(160));
    operation->completeWithTimeout();
    const std::chrono::duration<double> most = std::chrono::steady_clock::now() - before;
    const double seconds = test::secondsInTimeoutText(*operation).value_or(-1);
    EXPECT_GE(seconds, 0.1);
    EXPECT_LE(seconds, most.count() + 0.051);
}

TEST(OperationTimeout, IsIgnoredOnceFinishedOrCancelled) {
    const auto finished = inlineOperation();
    finished->start();
    finished->completeWithSuccess();
    finished->completeWithTimeout();
    EXPECT_EQ(finished->result(), VNTQResult::success());
    const auto cancelled = inlineOperation();
    cancelled->cancel();
    cancelled->completeWithTimeout();
    EXPECT_EQ(cancelled->result(), nullptr);
}

TEST(OperationTimeout, OfAPendingOperationCompletesItBeforeItsStart) {
    const auto operation = inlineOperation();
    operation->completeWithTimeout();
    EXPECT_TRUE(operation->isFinished());
    EXPECT_TRUE(isTimeout(*operation));
    EXPECT_EQ(errorOf(*operation)->localizedFailureReason()->utf8(),
              "Timeout waiting 0.0 seconds for completion");
}

TEST(OperationTimer, IsDisarmedByTheActionThatIsStored) {
    int disarmed = 0;
    const auto operation = inlineOperation();
    operation->setInvalidateTimer([&] {
        ++disarmed;
        EXPECT_FALSE(operation->invalidateTimer());  // cleared before the action runs
    });
    operation->invalidateTimerIfNeeded();
    operation->invalidateTimerIfNeeded();
    EXPECT_EQ(disarmed, 1);
}

TEST(OperationTimer, NeverFiresOnceDisarmed) {
    const auto queue = DispatchQueue::serial("test.disarmed");
    for (const bool byCopy : {false, true}) {
        const auto operation = executingOperationOn(queue);
        std::latch hold(1);
        queue->async([&] { hold.wait(); });  // so that it is disarmed before it can fire
        operation->scheduleTimer(0.01);
        if (byCopy) {
            const auto disarm = operation->invalidateTimer();
            disarm();
        } else {
            operation->invalidateTimerIfNeeded();
        }
        hold.count_down();
        callOn(queue, 0.02, [] {});
        EXPECT_TRUE(operation->isExecuting());
        operation->cancel();
    }
}

TEST(OperationTimer, IsDisarmedWithoutTheLock) {
    for (const Step end : {kComplete, kCancel, kTimeOut}) {
        const auto operation = inlineOperation();
        operation->start();
        int reached = 0;
        operation->setInvalidateTimer([&] {
            // A registration takes the lock, so that it gets through only where nobody holds it.
            std::thread([&] { operation->onCompletion([&] { ++reached; }); }).join();
        });
        end(*operation);
        EXPECT_EQ(reached, 1);
    }
}

TEST(OperationTimer, IsDisarmedAtTheEndBeforeTheDelivery) {
    Log order;
    const auto operation = inlineOperation();
    operation->start();
    operation->setInvalidateTimer([&] { order.push_back("disarmed"); });
    operation->onCompletion([&] { order.push_back("delivered"); });
    operation->completeWithSuccess();
    EXPECT_EQ(order, (Log{"disarmed", "delivered"}));
}

TEST(OperationTimer, BadDelaysFireAtOnceOrNever) {
    for (const double seconds : {0.0, -1.0, kNotANumber}) {
        std::latch delivered(1);
        const auto operation = make<VNTQOperation>();
        operation->start();
        operation->onCompletion([&] { delivered.count_down(); });
        operation->scheduleTimer(seconds);
        delivered.wait();
        EXPECT_TRUE(isTimeout(*operation));
    }
    const auto operation = make<VNTQOperation>();
    operation->start();
    operation->scheduleTimer(kInfinity);
    EXPECT_TRUE(operation->invalidateTimer());
    operation->cancel();
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

// Callbacks.

TEST(OperationCallbacks, RunInTheOrderOfTheirRegistration) {
    const auto operation = inlineOperation();
    std::vector<int> order;
    for (int i = 0; i < 40; ++i) {
        operation->onResult([&order, i](VNTQResult*) { order.push_back(i); });
    }
    operation->start();
    operation->completeWithSuccess();
    ASSERT_EQ(order.size(), 40U);
    EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST(OperationCallbacks, RunInTheirOrderOnAConcurrentQueueToo) {
    constexpr int kCallbacks = 200;
    std::latch delivered(kCallbacks);
    std::vector<int> order;  // one block calls them all, so nothing else writes here
    const auto operation = make<ProbeOperation>();
    for (int i = 0; i < kCallbacks; ++i) {
        operation->onResult([&, i](VNTQResult*) {
            order.push_back(i);
            delivered.count_down();
        });
    }
    operation->start();
    operation->completeWithSuccess();
    delivered.wait();
    EXPECT_TRUE(std::ranges::is_sorted(order));
}

TEST(OperationCallbacks, MayLetGoOfTheOperationThatCallsThem) {
    auto operation = inlineOperation();
    operation->start();
    operation->completeWithSuccess();
    ProbeOperation* const raw = operation.get();
    raw->onCompletion([&] { operation = nullptr; });
    EXPECT_EQ(operation, nullptr);
    EXPECT_EQ(ProbeOperation::liveCount, 0);
}

TEST(OperationCallbacks, GetTheResultThatWasGiven) {
    const auto operation = inlineOperation();
    const auto result = VNTQResult::resultWithFailure("error"_ns);
    Ref<VNTQResult> delivered;
    operation->onResult([&](const Ref<VNTQResult>& r) { delivered = r; });
    operation->start();
    operation->completeWithResult(result);
    EXPECT_EQ(delivered, result);
}

TEST(OperationCallbacks, RunOnTheResultQueueFirstOfAll) {
    const auto results = DispatchQueue::serial("test.results");
    const auto execution = DispatchQueue::serial("test.execution");
    for (const bool isExplicit : {false, true}) {
        const DispatchQueue* current = nullptr;
        const auto operation =
            make<ProbeOperation>([](ProbeOperation* self) { self->completeWithSuccess(); });
        operation->setExplicitResultDispatch(isExplicit);
        operation->setExecutionQueue(execution);
        operation->setResultQueue(results);
        operation->onCompletion([&] { current = DispatchQueue::current(); });
        operation->start();
        drain(execution);
        drain(results);
        EXPECT_EQ(current, results.get());
    }
}

TEST(OperationCallbacks, RunOnTheExecutionQueueWithoutAResultQueue) {
    const auto execution = DispatchQueue::serial("test.execution");
    const DispatchQueue* current = nullptr;
    const auto operation = make<ProbeOperation>();
    operation->setExecutionQueue(execution);
    operation->onCompletion([&] { current = DispatchQueue::current(); });
    operation->start();
    drain(execution);
    operation->completeWithSuccess();
    drain(execution);
    EXPECT_EQ(current, execution.get());
}

TEST(OperationCallbacks, RunOnTheGlobalQueueWithoutAnyQueue) {
    std::latch delivered(1);
    const DispatchQueue* current = nullptr;
    const auto operation = make<ProbeOperation>();
    operation->onCompletion([&] {
        current = DispatchQueue::current();
        delivered.count_down();
    });
    operation->start();
    operation->completeWithSuccess();
    delivered.wait();
    EXPECT_EQ(current, DispatchQueue::global().get());
    EXPECT_EQ(current->qos(), DispatchQoS::default_);
}

TEST(OperationCallbacks, RunInPlaceWithExplicitDispatchAndNoResultQueue) {
    const auto operation = make<ProbeOperation>();
    operation->setExplicitResultDispatch(true);
    operation->setExecutionQueue(DispatchQueue::serial("test.unused"));
    std::thread::id thread;
    operation->onCompletion([&] { thread = std::this_thread::get_id(); });
    operation->start();
    drain(operation->executionQueue());
    operation->completeWithSuccess();
    EXPECT_EQ(thread, std::this_thread::get_id());
}

TEST(OperationCallbacks, RunWithoutTheLockHoweverTheEndComes) {
    const std::pair<Step, Step> ways[] = {{kStart, kComplete}, {kStart, kCancel},
                                          {kStart, kTimeOut},  {kComplete, kStart},
                                          {kCancel, kStart},   {kTimeOut, kStart}};
    for (const auto& [first, second] : ways) {
        const auto operation = inlineOperation();
        int reached = 0;
        operation->onCompletion([&] {
            // A registration takes the lock, so that it gets through only where nobody holds it.
            std::thread([&] { operation->onCompletion([&] { ++reached; }); }).join();
        });
        first(*operation);
        second(*operation);
        EXPECT_EQ(reached, 1);
    }
}

TEST(OperationCallbacks, RegisteredAfterTheEndRunWithoutTheLock) {
    const auto operation = inlineOperation();
    operation->start();
    operation->completeWithSuccess();
    bool reached = false;
    operation->onCompletion(
        [&] { std::thread([&] { operation->onCompletion([&] { reached = true; }); }).join(); });
    EXPECT_TRUE(reached);
}

TEST(OperationCallbacks, RegisteredAfterTheEndFireAtOnceAndOnce) {
    const auto operation = inlineOperation();
    operation->start();
    operation->completeWithSuccess("value"_ns);
    int calls = 0;
    operation->onValue([&](NSObject* value) {
        EXPECT_EQ(value, &"value"_ns);
        ++calls;
    });
    EXPECT_EQ(calls, 1);
    operation->didFinishWithResult(operation->result());
    EXPECT_EQ(calls, 1);
}

TEST(OperationCallbacks, RegisteredAfterTheEndGoToTheQueueThatEarlierOnesGoTo) {
    const auto results = DispatchQueue::serial("test.late");
    const auto execution = DispatchQueue::serial("test.execution");
    struct Way {
        Ref<DispatchQueue> resultQueue;
        Ref<DispatchQueue> executionQueue;
        Ref<DispatchQueue> chosen;
    };
    const Way ways[] = {
        {results, execution, results},
        {results, nullptr, results},
        {nullptr, execution, execution},
        {nullptr, nullptr, DispatchQueue::global()},
    };
    for (const Way& way : ways) {
        const auto operation =
            make<ProbeOperation>([](ProbeOperation* self) { self->completeWithSuccess(); });
        operation->setResultQueue(way.resultQueue);
        operation->setExecutionQueue(way.executionQueue);
        operation->start();
        drain(execution);
        const DispatchQueue* current = nullptr;
        std::latch delivered(1);
        operation->onCompletion([&] {
            current = DispatchQueue::current();
            delivered.count_down();
        });
        delivered.wait();
        EXPECT_EQ(current, way.chosen.get()) << way.chosen->label()->utf8();
    }
}

TEST(OperationCallbacks, RegisteredAfterCancellationFireWithNil) {
    for (const bool started : {false, true}) {
        const auto operation = inlineOperation();
        if (started) {
            operation->start();
        }
        operation->cancel();
        int nils = 0;
        operation->onResult([&](VNTQResult* result) { nils += result == nullptr ? 1 : 0; });
        EXPECT_EQ(nils, 1);
        operation->start();
        EXPECT_EQ(nils, 1);
    }
}

TEST(OperationCallbacks, RegisteredOnAPreCompletedOperationFireAtOnce) {
    const auto operation = inlineOperation();
    operation->completeWithSuccess();
    int calls = 0;
    operation->onSuccess([&] { ++calls; });
    EXPECT_EQ(calls, 1);
    operation->start();
    EXPECT_EQ(calls, 1);
}

TEST(OperationCallbacks, DeliveredByHandBeforeTheEndLeaveRoomForOthers) {
    const auto operation = inlineOperation();
    std::vector<int> calls;
    operation->onCompletion([&] { calls.push_back(1); });
    operation->didFinishWithResult(nullptr);
    operation->onCompletion([&] { calls.push_back(2); });
    operation->start();
    operation->completeWithSuccess();
    EXPECT_EQ(calls, (std::vector{1, 2}));
}

TEST(OperationCallbacks, ReturnTheOperationForChaining) {
    const auto operation = inlineOperation();
    EXPECT_EQ(operation->onResult([](VNTQResult*) {}), operation);
    EXPECT_EQ(operation->onCompletion([] {}), operation);
    EXPECT_EQ(operation->onValue([](NSObject*) {}), operation);
    EXPECT_EQ(operation->onError([](NSObject*) {}), operation);
    EXPECT_EQ(operation->onValue([](NSObject*) {}, [](NSObject*) {}), operation);
    EXPECT_EQ(operation->onSuccess([] {}), operation);
    EXPECT_EQ(operation->onFailure([] {}), operation);
    EXPECT_EQ(operation->onSuccess([] {}, [] {}), operation);
    EXPECT_EQ(operation->onValue(nullptr, nullptr), operation);
    EXPECT_EQ(operation->onSuccess(nullptr, nullptr), operation);
}

struct Calls {
    int value = 0;
    int error = 0;
    int success = 0;
    int failure = 0;
    int oneSided = 0;
    friend bool operator==(const Calls&, const Calls&) = default;
};

void PrintTo(const Calls& c, std::ostream* out) {
    *out << c.value << c.error << c.success << c.failure << c.oneSided;
}

Calls callsFor(const Ref<VNTQResult>& result) {
    Calls calls;
    const auto operation = inlineOperation();
    operation->onValue([&](NSObject*) { ++calls.value; }, [&](NSObject*) { ++calls.error; });
    operation->onSuccess([&] { ++calls.success; }, [&] { ++calls.failure; });
    operation->onValue([&](NSObject*) { calls.oneSided += 1; });
    operation->onError([&](NSObject*) { calls.oneSided += 10; });
    operation->onSuccess([&] { calls.oneSided += 100; });
    operation->onFailure([&] { calls.oneSided += 1000; });
    operation->start();
    operation->completeWithResult(result);
    return calls;
}

TEST(OperationCallbacks, AreChosenByTheKindOfTheResult) {
    EXPECT_EQ(callsFor(VNTQResult::success()), (Calls{1, 0, 1, 0, 101}));
    EXPECT_EQ(callsFor(VNTQResult::failure()), (Calls{0, 1, 0, 1, 1010}));
    EXPECT_EQ(callsFor(make<VNTQResult>()), Calls());
    EXPECT_EQ(callsFor(nullptr), Calls());
}

TEST(OperationCallbacks, GetThePayload) {
    const auto operation = inlineOperation();
    id error;
    operation->onError([&](NSObject* e) { error = id(e); });
    operation->start();
    operation->completeWithFailure("reason"_ns);
    EXPECT_EQ(error, id("reason"_ns));
}

TEST(OperationCallbacks, AreLetGoOfOnceDelivered) {
    const auto operation = inlineOperation();
    const auto witness = make<NSObject>();
    operation->onCompletion([witness] {});
    operation->onCompletion([witness] {});
    EXPECT_EQ(witness->ownerCount(), 3U);
    operation->start();
    operation->completeWithSuccess();
    EXPECT_EQ(witness->ownerCount(), 1U);
}

TEST(OperationCallbacks, AreLetGoOfWithTheOperation) {
    const auto witness = make<NSObject>();
    {
        const auto operation = inlineOperation();
        operation->onCompletion([witness] {});
        operation->onCompletion([witness] {});
        operation->onCompletion([witness] {});
    }
    EXPECT_EQ(witness->ownerCount(), 1U);
}

TEST(OperationCallbacksDeathTest, MustNotBeEmptyWhereOneIsRequired) {
    EXPECT_TRAP(make<VNTQOperation>()->onResult(nullptr), "an empty callback was registered");
    EXPECT_TRAP(make<VNTQOperation>()->onCompletion(nullptr), "an empty callback was registered");
}

// Overriding.

class Overriding : public VNTQOperation {
public:
    void execute() override {
        order.push_back("execute");
        VNTQOperation::execute();
    }
    void main() override { order.push_back("main"); }
    void scheduleTimer(double seconds) override {
        order.push_back("scheduleTimer");
        VNTQOperation::scheduleTimer(seconds);
    }
    void invalidateTimerIfNeeded() override {
        order.push_back("invalidateTimerIfNeeded");
        VNTQOperation::invalidateTimerIfNeeded();
    }
    void completeWithTimeout() override {
        order.push_back("completeWithTimeout");
        VNTQOperation::completeWithTimeout();
    }
    void completeWithResult(const Ref<VNTQResult>& result) override {
        order.push_back("completeWithResult");
        VNTQOperation::completeWithResult(result);
    }
    void didFinishWithResult(const Ref<VNTQResult>& result) override {
        order.push_back("didFinishWithResult");
        VNTQOperation::didFinishWithResult(result);
    }
    Log order;
};

/// Keeps what reaches the two members that the other forms come down to.
class Collecting : public VNTQOperation {
public:
    Ref<VNTQOperation> onResult(ResultCallback callback) override {
        registered.push_back(std::move(callback));
        return other;
    }
    void completeWithResult(const Ref<VNTQResult>& result) override { completed.push_back(result); }

    const Ref<VNTQOperation> other = make<VNTQOperation>();
    std::vector<ResultCallback> registered;
    std::vector<Ref<VNTQResult>> completed;
};

TEST(OperationOverrides, OfTheRegistrationGetThatOfEveryForm) {
    const auto none = [](NSObject*) {};
    const std::function<void(Collecting&)> forms[] = {
        [&](Collecting& o) { EXPECT_EQ(o.onResult([](VNTQResult*) {}), o.other); },
        [&](Collecting& o) { EXPECT_EQ(o.onCompletion([] {}), o.other); },
        [&](Collecting& o) { o.onValue(none, none); },
        [&](Collecting& o) { o.onValue(none, nullptr); },
        [&](Collecting& o) { o.onValue(nullptr, none); },
        [&](Collecting& o) { o.onValue(none); },
        [&](Collecting& o) { o.onError(none); },
        [&](Collecting& o) { o.onSuccess([] {}, [] {}); },
        [&](Collecting& o) { o.onSuccess([] {}, nullptr); },
        [&](Collecting& o) { o.onSuccess(nullptr, [] {}); },
        [&](Collecting& o) { o.onSuccess([] {}); },
        [&](Collecting& o) { o.onFailure([] {}); },
    };
    for (const auto& form : forms) {
        const auto operation = make<Collecting>();
        form(*operation);
        EXPECT_EQ(operation->registered.size(), 1U) << &form - forms;
    }
}

TEST(OperationOverrides, OfTheRegistrationGetNothingWhereAllCallbacksAreEmpty) {
    const auto operation = make<Collecting>();
    EXPECT_EQ(operation->onValue(nullptr, nullptr), operation);
    EXPECT_EQ(operation->onValue(nullptr), operation);
    EXPECT_EQ(operation->onError(nullptr), operation);
    EXPECT_EQ(operation->onSuccess(nullptr, nullptr), operation);
    EXPECT_EQ(operation->onSuccess(nullptr), operation);
    EXPECT_EQ(operation->onFailure(nullptr), operation);
    const id object = operation;
    EXPECT_EQ(send<id>(object, "onValue:orError:"_sel, nullptr, nullptr), object);
    EXPECT_EQ(send<id>(object, "onValue:"_sel, nullptr), object);
    EXPECT_EQ(send<id>(object, "onError:"_sel, nullptr), object);
    EXPECT_EQ(send<id>(object, "onSuccess:orFailure:"_sel, nullptr, nullptr), object);
    EXPECT_EQ(send<id>(object, "onSuccess:"_sel, nullptr), object);
    EXPECT_EQ(send<id>(object, "onFailure:"_sel, nullptr), object);
    EXPECT_TRUE(operation->registered.empty());
}

TEST(OperationOverrides, OfTheCompletionGetThatOfEveryForm) {
    const id payload("payload"_ns);
    const auto operation = make<Collecting>();
    operation->completeWithSuccess(payload);
    operation->completeWithFailure(payload);
    operation->completeWithSuccess();
    operation->completeWithFailure();
    operation->completeWithTimeout();
    EXPECT_FALSE(operation->isFinished());
    const auto& completed = operation->completed;
    ASSERT_EQ(completed.size(), 5U);
    EXPECT_EQ(completed[0]->type(), VNTQResultTypeSuccess);
    EXPECT_EQ(completed[0]->value(), payload);
    EXPECT_EQ(completed[1]->type(), VNTQResultTypeFailure);
    EXPECT_EQ(completed[1]->error(), payload);
    EXPECT_EQ(completed[2], VNTQResult::success());
    EXPECT_EQ(completed[3], VNTQResult::failure());
    EXPECT_EQ(objectCast<NSError>(completed[4]->error())->code(), VNTQFoundationErrorTimeout);
}

TEST(OperationOverrides, AreCalledAtTheirPlaces) {
    const auto operation = make<Overriding>();
    operation->setTimeoutInterval(10);
    operation->start();
    operation->completeWithSuccess();
    EXPECT_EQ(operation->order,
              (Log{"execute", "main", "invalidateTimerIfNeeded", "scheduleTimer",
                   "completeWithResult", "invalidateTimerIfNeeded", "didFinishWithResult"}));
}

TEST(OperationOverrides, AreCalledAtTheirPlacesWhenTheTimerFires) {
    const auto queue = DispatchQueue::serial("test.overrides");  // arms, and fires, in turn
    const auto operation = make<Overriding>();
    std::latch delivered(1);
    operation->setExecutionQueue(queue);
    operation->setTimeoutInterval(0.01);
    operation->onCompletion([&] { delivered.count_down(); });
    operation->start();
    delivered.wait();
    drain(queue);
    EXPECT_EQ(operation->order,
              (Log{"execute", "main", "invalidateTimerIfNeeded", "scheduleTimer",
                   "invalidateTimerIfNeeded", "completeWithTimeout", "completeWithResult",
                   "invalidateTimerIfNeeded", "didFinishWithResult"}));
}

// Messages.

TEST(OperationMessages, DriveAnOperationByNameAlone) {
    const id operation = send<id>(VNTQOperation::classObject(), "new"_sel);
    send<void>(operation, "setExplicitResultDispatch:"_sel, true);
    send<void>(operation, "setTimeoutInterval:"_sel, 30.0);
    id delivered;
    int completions = 0;
    const id chained = send<id>(operation, "onValue:"_sel, [&](NSObject* v) { delivered = id(v); });
    EXPECT_EQ(chained, operation);
    send<id>(operation, "onCompletion:"_sel, [&] { ++completions; });
    send<id>(operation, "onResult:"_sel, [&](VNTQResult*) { ++completions; });
    send<void>(operation, "start"_sel);
    EXPECT_TRUE(send<bool>(operation, "isExecuting"_sel));
    EXPECT_GT(send<double>(operation, "timeRemaining"_sel), 20.0);
    send<void>(operation, "completeWithSuccess:"_sel, "value"_ns);
    EXPECT_EQ(delivered, id("value"_ns));
    EXPECT_EQ(completions, 2);
    EXPECT_TRUE(send<bool>(operation, "isFinished"_sel));
    EXPECT_EQ(send<Ref<VNTQResult>>(operation, "result"_sel)->value(), id("value"_ns));
}

TEST(OperationMessages, OfOneShapeReachTheirOwnTwins) {
    const auto operation = make<ProbeOperation>();
    const id object = operation;
    std::string called;
    send<void>(object, "setExplicitResultDispatch:"_sel, true);
    send<id>(object, "onSuccess:"_sel, [&] { called += "S"; });
    send<id>(object, "onFailure:"_sel, [&] { called += "F"; });
    send<id>(object, "onValue:"_sel, [&](NSObject*) { called += "V"; });
    send<id>(object, "onError:"_sel, [&](NSObject*) { called += "E"; });
    send<id>(
        object, "onValue:orError:"_sel, [&](NSObject*) { called += "v"; },
        [&](NSObject*) { called += "e"; });
    send<id>(object, "onSuccess:orFailure:"_sel, [&] { called += "s"; }, [&] { called += "f"; });
    send<void>(object, "execute"_sel);
    EXPECT_EQ(operation->mainCalls, 0);  // not started, so there is nothing to execute
    send<void>(object, "main"_sel);
    EXPECT_EQ(operation->mainCalls, 1);
    send<void>(object, "start"_sel);
    EXPECT_EQ(operation->mainCalls, 2);
    send<void>(object, "execute"_sel);
    EXPECT_EQ(operation->mainCalls, 3);
    send<void>(object, "completeWithFailure:"_sel, "reason"_ns);
    EXPECT_EQ(called, "FEef");
    EXPECT_EQ(operation->result()->error(), id("reason"_ns));
}

TEST(OperationMessages, CompleteInEachForm) {
    const auto resultOf = [](auto selector) {
        const auto operation = inlineOperation();
        operation->start();
        send<void>(operation, selector);
        return operation->result();
    };
    EXPECT_EQ(resultOf("completeWithSuccess"_sel), VNTQResult::success());
    EXPECT_EQ(resultOf("completeWithFailure"_sel), VNTQResult::failure());
    EXPECT_EQ(objectCast<NSError>(resultOf("completeWithTimeout"_sel)->error())->code(), 1);
    const auto given = VNTQResult::resultWithSuccess("value"_ns);
    const auto completed = inlineOperation();
    send<void>(completed, "completeWithResult:"_sel, given);
    EXPECT_EQ(completed->result(), given);
    const auto operation = inlineOperation();
    operation->start();
    send<void>(operation, "scheduleTimer:"_sel, 1000.0);
    EXPECT_TRUE(operation->invalidateTimer());
    send<void>(operation, "invalidateTimerIfNeeded"_sel);
    EXPECT_FALSE(operation->invalidateTimer());
}

TEST(OperationMessages, DeliverAResultByHand) {
    const auto operation = inlineOperation();
    const auto given = VNTQResult::resultWithSuccess("value"_ns);
    Ref<VNTQResult> delivered;
    operation->onResult([&](const Ref<VNTQResult>& result) { delivered = result; });
    send<void>(operation, "didFinishWithResult:"_sel, given);
    EXPECT_EQ(delivered, given);
    EXPECT_FALSE(operation->isFinished());
}

TEST(OperationMessages, ReadAndWriteTheConfiguration) {
    const auto operation = make<VNTQOperation>();
    const id object = operation;
    const auto execution = DispatchQueue::serial("test.execution");
    const auto results = DispatchQueue::serial("test.results");
    send<void>(object, "setExecutionQueue:"_sel, execution);
    send<void>(object, "setResultQueue:"_sel, results);
    EXPECT_EQ(operation->executionQueue(), execution);
    EXPECT_EQ(operation->resultQueue(), results);
    EXPECT_EQ(send<id>(object, "executionQueue"_sel), execution);
    EXPECT_EQ(send<id>(object, "resultQueue"_sel), results);
    const auto date = NSDate::dateWithTimeIntervalSinceNow(60);
    send<void>(object, "setTimeoutDate:"_sel, date);
    EXPECT_EQ(operation->timeoutDate(), date);
    EXPECT_EQ(send<id>(object, "timeoutDate"_sel), date);
    operation->setTimeoutInterval(2.5);
    EXPECT_EQ(send<double>(object, "timeoutInterval"_sel), 2.5);
    int disarmed = 0;
    send<void>(object, "setInvalidateTimer:"_sel, [&] { ++disarmed; });
    EXPECT_EQ(send<id>(object, "invalidateTimer"_sel), operation->invalidateTimer().object());
    operation->invalidateTimerIfNeeded();
    EXPECT_EQ(disarmed, 1);
    EXPECT_EQ(send<id>(object, "invalidateTimer"_sel), nullptr);
}

TEST(OperationMessages, TellTheStateAndCancel) {
    const auto dependency = make<VNTQOperation>();
    const auto operation = make<VNTQOperation>();
    const id object = operation;
    operation->addDependency(*dependency);
    EXPECT_TRUE(send<bool>(object, "isAsynchronous"_sel));
    EXPECT_FALSE(send<bool>(object, "isReady"_sel));
    EXPECT_FALSE(send<bool>(object, "isCancelled"_sel));
    send<void>(object, "cancel"_sel);
    EXPECT_TRUE(operation->isCancelled());
    EXPECT_TRUE(send<bool>(object, "isReady"_sel));
    EXPECT_TRUE(send<bool>(object, "isCancelled"_sel));
}

TEST(OperationMessages, ReachOverridesInSubclasses) {
    const auto operation = make<Overriding>();
    send<void>(operation, "didFinishWithResult:"_sel, nullptr);
    EXPECT_EQ(operation->order, (Log{"didFinishWithResult"}));
}

TEST(OperationMessagesDeathTest, TrapOnAnArgumentOfAnotherClass) {
    EXPECT_TRAP(send<void>(make<VNTQOperation>(), "completeWithResult:"_sel, "text"_ns),
                "an object of class NSString was sent where VNTQResult is required");
    EXPECT_TRAP(send<id>(make<VNTQOperation>(), "onResult:"_sel, [](NSObject*, NSObject*) {}),
                "a block of signature v@ is required");
    EXPECT_TRAP(send<void>(make<VNTQOperation>(), "setTimeoutInterval:"_sel, 1),
                "sent with the types vi, but the method has the types vd");
    EXPECT_TRAP(send<void>(make<VNTQOperation>(), "completeWithNothing"_sel),
                "-[VNTQOperation completeWithNothing]: unrecognised selector");
}

TEST(OperationMessages, ReadAndWritePropertiesByKey) {
    const auto operation = make<VNTQOperation>();
    operation->setValueForKey(NSNumber::number(2.5), "timeoutInterval"_ns);
    EXPECT_EQ(operation->timeoutInterval(), 2.5);
    EXPECT_TRUE(
        isEqual(operation->valueForKey("timeoutInterval"_ns).get(), NSNumber::number(2.5).get()));
    const auto queue = DispatchQueue::serial("test.key");
    operation->setValueForKey(queue, "resultQueue"_ns);
    EXPECT_EQ(operation->resultQueue(), queue);
    EXPECT_TRUE(unbridge<bool>(operation->valueForKey("isReady"_ns)).value());
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
