#include <chrono>
#include <functional>
#include <latch>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Operations.h"
#include "Support/Threads.h"
#include "VantorqFoundation/VNTQOperation.h"

namespace vantorq {
namespace {

using test::drain;
using test::errorOf;
using test::inlineOperation;
using test::isTimeout;
using test::meddle;
using test::ProbeOperation;
using test::secondsUntil;
using test::Step;
using namespace test::steps;
using enum test::Meddler::When;
using Log = std::vector<std::string>;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNotANumber = std::numeric_limits<double>::quiet_NaN();

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

TEST(OperationDeadline, IsArmedForWhatIsLeft) {
    const auto sleep = [](auto*) { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
    for (const double interval : {0.5, 5.0}) {
        const auto operation = inlineOperation(sleep);
        operation->armsTimer = false;
        operation->setTimeoutInterval(interval);
        operation->start();
        ASSERT_EQ(operation->scheduledSeconds.size(), 1U);
        EXPECT_LE(operation->scheduledSeconds[0], interval - 0.019);
        EXPECT_GE(operation->scheduledSeconds[0], operation->timeRemaining());
        operation->cancel();
    }
}

TEST(OperationDeadline, ThatIsFarAheadIsSeenFromTheClocksLastTickButNoFartherThanFromTheStart) {
    const double before = NSDate::coarseNow();
    for (int i = 0; i < 100; ++i) {
        const auto operation = inlineOperation();
        operation->armsTimer = false;
        operation->setTimeoutInterval(30);
        operation->start();
        const double deadline = operation->timeoutDate()->timeIntervalSinceReferenceDate();
        const double seconds = operation->scheduledSeconds.at(0);
        EXPECT_LE(seconds, 30 + 1e-6);  // as far as a date can tell
        EXPECT_GE(seconds, operation->timeRemaining());
        EXPECT_LE(seconds, deadline - before + 1e-6);
        operation->cancel();
    }
}

TEST(OperationDeadline, ThatIsFarAheadOfAStartLongAgoIsSeenFromNow) {
    const auto operation = inlineOperation([](ProbeOperation* self) {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        self->setTimeoutDate(NSDate::dateWithTimeIntervalSinceNow(20));
    });
    operation->armsTimer = false;
    operation->start();
    EXPECT_LE(operation->scheduledSeconds.at(0), 20.15);
    EXPECT_GE(operation->scheduledSeconds.at(0), operation->timeRemaining());
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

/// The queue that an operation with such an execution queue times out on.
const DispatchQueue* queueOfTimeout(const Ref<DispatchQueue>& executionQueue) {
    std::latch delivered(1);
    const DispatchQueue* current = nullptr;
    const auto operation = inlineOperation();
    operation->setExecutionQueue(executionQueue);
    operation->setTimeoutInterval(0.01);
    operation->onCompletion([&] {
        current = DispatchQueue::current();
        delivered.count_down();
    });
    operation->start();
    delivered.wait();
    return current;
}

TEST(OperationTimeout, FiresOnTheExecutionQueue) {
    const auto queue = DispatchQueue::serial("test.timer");
    EXPECT_EQ(queueOfTimeout(queue), queue.get());
}

TEST(OperationTimeout, FiresOnTheGlobalQueueWithoutAnExecutionQueue) {
    const DispatchQueue* const queue = queueOfTimeout(nullptr);
    EXPECT_EQ(queue, DispatchQueue::global().get());
    EXPECT_EQ(queue->qos(), DispatchQoS::default_);
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

}  // namespace
}  // namespace vantorq
