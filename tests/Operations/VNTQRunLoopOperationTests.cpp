#include "VantorqFoundation/VNTQRunLoopOperation.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <latch>
#include <limits>
#include <thread>

#include <gtest/gtest.h>

#include "Support/Operations.h"
#include "Support/Trap.h"

namespace vantorq {

/// A run-loop operation whose work, and what it sees of its loop, is the test's.
class ProbeRunLoopOperation : public VNTQRunLoopOperation {
    VNTQ_OBJECT(ProbeRunLoopOperation, VNTQRunLoopOperation)
public:
    void main() override {
        if (work) {
            work(this);
        }
    }
    bool runMode(const NSString& mode, const NSDate& beforeDate) override {
        ++passes;
        turnedOn = DispatchQueue::current();
        longestSlice = std::max(longestSlice, beforeDate.timeIntervalSinceNow());
        EXPECT_TRUE(mode.isEqualToString(&NSDefaultRunLoopMode));
        return VNTQRunLoopOperation::runMode(mode, beforeDate);
    }

    Block<void(ProbeRunLoopOperation*)> work;
    int passes = 0;
    const DispatchQueue* turnedOn = nullptr;
    double longestSlice = 0;
};
VNTQ_DEFINE_CLASS(ProbeRunLoopOperation, {})

namespace {

using test::isTimeout;

double secondsTaken(auto&& body) {
    const auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(RunLoopOperation, DispatchesExplicitlyAndIsSynchronous) {
    const auto operation = make<VNTQRunLoopOperation>();
    EXPECT_TRUE(operation->explicitResultDispatch());
    EXPECT_FALSE(operation->isAsynchronous());
    EXPECT_EQ(operation->loopInterval(), 0.016666666666666666);
    EXPECT_EQ(operation->runPredicate(), nullptr);
}

TEST(RunLoopOperation, UsesTheLoopOfTheThreadThatAsks) {
    const auto operation = make<VNTQRunLoopOperation>();
    EXPECT_EQ(operation->runLoop(), NSRunLoop::current());
    std::thread([&] { EXPECT_EQ(operation->runLoop(), NSRunLoop::current()); }).join();
    const auto mine = NSRunLoop::current();
    operation->setRunLoop(mine);
    std::thread([&] { EXPECT_EQ(operation->runLoop(), mine); }).join();
}

TEST(RunLoopOperation, TimesOutAfterTheSecondsThatItWaits) {
    const auto operation = make<ProbeRunLoopOperation>();
    const double taken = secondsTaken([&] { operation->startAndWaitFor(0.5); });
    EXPECT_GE(taken, 0.45);
    EXPECT_TRUE(operation->isFinished());
    EXPECT_TRUE(isTimeout(*operation));
    const double seconds = test::secondsInTimeoutText(*operation).value_or(-1);
    EXPECT_GE(seconds, 0.5);
    EXPECT_LE(seconds, taken + 0.051);
    EXPECT_LE(operation->longestSlice, 0.016666666666666666);
    EXPECT_EQ(operation->timeoutInterval(), 0.5);
}

TEST(RunLoopOperation, ArmsNothingAndDoesNotWaitForInfiniteSeconds) {
    const auto operation = make<ProbeRunLoopOperation>();
    operation->startAndWaitFor(std::numeric_limits<double>::infinity());
    EXPECT_TRUE(operation->isExecuting());
    EXPECT_EQ(operation->passes, 0);
    EXPECT_FALSE(operation->invalidateTimer());
    operation->cancel();
}

TEST(RunLoopOperation, TurnsItsLoopInSlicesOfItsInterval) {
    const auto operation = make<ProbeRunLoopOperation>();
    operation->setLoopInterval(0.05);
    operation->startAndWaitFor(0.12);
    EXPECT_GT(operation->longestSlice, 0.02);
    EXPECT_LE(operation->longestSlice, 0.05);
    EXPECT_LE(operation->passes, 5);
}

TEST(RunLoopOperation, TimesOutAtTheDateThatItWaitsFor) {
    const auto operation = make<ProbeRunLoopOperation>();
    const auto date = NSDate::dateWithTimeIntervalSinceNow(0.05);
    operation->startAndWaitUntil(date);
    EXPECT_TRUE(isTimeout(*operation));
    EXPECT_EQ(operation->timeoutDate(), date);
}

TEST(RunLoopOperation, TimesOutBeforeItsWorkAtADateThatHasPassed) {
    const auto operation = make<ProbeRunLoopOperation>();
    bool worked = false;
    operation->work = [&](ProbeRunLoopOperation*) { worked = true; };
    operation->startAndWaitUntil(NSDate::dateWithTimeIntervalSinceNow(-1));
    EXPECT_TRUE(isTimeout(*operation));
    EXPECT_FALSE(worked);
    EXPECT_EQ(operation->passes, 0);
}

TEST(RunLoopOperation, EndsWithWhatATimerOfItsLoopCompletesItWith) {
    const auto operation = make<ProbeRunLoopOperation>();
    operation->work = [](ProbeRunLoopOperation* self) {
        NSTimer::scheduledTimerWithTimeInterval(
            0.02, false, [operation = Ref<ProbeRunLoopOperation>(self)](NSTimer*) {
                operation->completeWithSuccess("done"_ns);
            });
    };
    std::thread::id deliveredOn;
    operation->onCompletion([&] { deliveredOn = std::this_thread::get_id(); });
    operation->startAndWaitFor(60);
    EXPECT_EQ(operation->result()->value(), id("done"_ns));
    EXPECT_EQ(deliveredOn, std::this_thread::get_id());
    EXPECT_GE(operation->passes, 1);
}

TEST(RunLoopOperation, SeesACompletionFromAnotherThread) {
    const auto operation = make<ProbeRunLoopOperation>();
    std::thread other;
    operation->work = [&](ProbeRunLoopOperation* self) {
        other = std::thread(
            [operation = Ref<ProbeRunLoopOperation>(self)] { operation->completeWithSuccess(); });
    };
    operation->startAndWaitFor(60);
    other.join();
    EXPECT_EQ(operation->result(), VNTQResult::success());
}

TEST(RunLoopOperation, SeesACancellationFromAnotherThread) {
    const auto operation = make<ProbeRunLoopOperation>();
    std::thread other;
    operation->work = [&](ProbeRunLoopOperation* self) {
        other =
            std::thread([operation = Ref<ProbeRunLoopOperation>(self)] { operation->cancel(); });
    };
    operation->startAndWaitFor(60);
    other.join();
    EXPECT_TRUE(operation->isCancelled());
    EXPECT_EQ(operation->result(), nullptr);
}

TEST(RunLoopOperation, WithoutADeadlineGetsOneInTheDistantFutureAndStillTurnsItsLoop) {
    using Start = void (*)(VNTQRunLoopOperation&);
    const Start starts[] = {
        [](auto& operation) { operation.start(); },
        [](auto& operation) { operation.startAndWaitFor(0); },
        [](auto& operation) { operation.startAndWaitFor(-1); },
        [](auto& operation) {
            operation.startAndWaitFor(std::numeric_limits<double>::quiet_NaN());
        },
        [](auto& operation) { operation.startAndWaitUntil(nullptr); },
    };
    for (const Start start : starts) {
        const auto operation = make<ProbeRunLoopOperation>();
        operation->work = [](ProbeRunLoopOperation* self) {
            EXPECT_TRUE(isEqual(self->timeoutDate().get(), NSDate::distantFuture().get()));
            NSTimer::scheduledTimerWithTimeInterval(
                0.01, false, [operation = Ref<ProbeRunLoopOperation>(self)](NSTimer*) {
                    operation->completeWithSuccess();
                });
        };
        start(*operation);
        EXPECT_TRUE(operation->isFinished());
        EXPECT_GE(operation->passes, 1);
        EXPECT_EQ(operation->result(), VNTQResult::success());
    }
}

/// Runs an operation on a thread of its own, and calls `act` with it from its loop's first pass;
/// `check` is called on that thread when the wait is over.
void runWithBlockInLoop(void (*act)(ProbeRunLoopOperation&),
                        void (*check)(const ProbeRunLoopOperation&)) {
    std::thread([=] {
        const auto operation = make<ProbeRunLoopOperation>();
        operation->work = [=](ProbeRunLoopOperation* self) {
            NSRunLoop::current()->performBlock([=] { act(*self); });
        };
        operation->startAndWaitFor(60);
        check(*operation);
        operation->cancel();
    }).join();
}

TEST(RunLoopOperation, LeavesNothingInItsLoopWhenItEndsEarly) {
    const auto check = [](const ProbeRunLoopOperation& operation) {
        EXPECT_TRUE(operation.isFinished());
        EXPECT_FALSE(NSRunLoop::current()->runMode(NSDefaultRunLoopMode, *NSDate::distantPast()));
    };
    runWithBlockInLoop([](auto& operation) { operation.completeWithSuccess(); }, check);
    runWithBlockInLoop([](auto& operation) { operation.cancel(); }, check);
    runWithBlockInLoop(
        [](auto& operation) {
            operation.setRunPredicate(
                NSPredicate::predicateWithBlock([](NSObject*) { return false; }));
        },
        check);
}

TEST(RunLoopOperation, StopsWaitingWhenItsTimerIsDisarmedThoughItStillExecutes) {
    runWithBlockInLoop([](auto& operation) { operation.invalidateTimerIfNeeded(); },
                       [](const auto& operation) {
                           EXPECT_TRUE(operation.isExecuting());
                           EXPECT_EQ(operation.passes, 1);
                       });
}

TEST(RunLoopOperation, StopsWaitingWhenItIsOverThoughItsTimerIsStillArmed) {
    runWithBlockInLoop(
        [](auto& operation) {
            operation.setInvalidateTimer([] {});
            operation.completeWithSuccess();
        },
        [](const auto& operation) {
            EXPECT_EQ(operation.result(), VNTQResult::success());
            EXPECT_EQ(operation.passes, 1);
            // The timer stands in the loop.
            EXPECT_TRUE(
                NSRunLoop::current()->runMode(NSDefaultRunLoopMode, *NSDate::distantPast()));
        });
}

TEST(RunLoopOperation, AddsItsTimerToTheLoopThatItIsGiven) {
    /// Leaves its loop to the thread whose loop it is.
    class Waiting : public VNTQRunLoopOperation {
    public:
        bool runMode(const NSString&, const NSDate&) override {
            return test::eventually([this] { return isFinished(); });
        }
    };
    const auto operation = make<Waiting>();
    std::latch isReady(1);
    std::latch isOver(1);
    std::thread::id firedOn;
    std::thread owner([&] {
        const auto loop = NSRunLoop::current();
        const auto source = make<RunLoopSource>([] {});  // keeps the loop turning
        loop->addSource(*source, NSDefaultRunLoopMode);
        operation->setRunLoop(loop);
        operation->onCompletion([&, loop] {
            firedOn = std::this_thread::get_id();
            loop->removeSource(*source, NSDefaultRunLoopMode);
        });
        isReady.count_down();
        loop->run();
        isOver.wait();
    });
    isReady.wait();
    operation->startAndWaitFor(0.02);
    isOver.count_down();
    const auto ownerId = owner.get_id();
    owner.join();
    EXPECT_TRUE(isTimeout(*operation));
    EXPECT_EQ(firedOn, ownerId);
}

TEST(RunLoopOperationDeathTest, TurnsNoOtherLoopThanTheOneThatItIsGiven) {
    Ref<NSRunLoop> foreign;
    std::thread([&] { foreign = NSRunLoop::current(); }).join();
    const auto operation = make<VNTQRunLoopOperation>();
    operation->setRunLoop(foreign);
    EXPECT_TRAP((void)operation->runMode(NSDefaultRunLoopMode, *NSDate::distantPast()),
                "NSRunLoop: turned by a thread that is not its own");
}

TEST(RunLoopOperation, FailsAtOnceWhenItsConditionNeverHeld) {
    const auto operation = make<ProbeRunLoopOperation>();
    operation->setRunPredicate(NSPredicate::predicateWithBlock([](NSObject*) { return false; }));
    operation->startAndWaitFor(60);
    EXPECT_EQ(operation->result(), VNTQResult::failure());
    EXPECT_EQ(operation->passes, 1);
    EXPECT_FALSE(operation->invalidateTimer());
}

TEST(RunLoopOperation, FailsWhenItsConditionHoldsNoLonger) {
    const auto operation = make<ProbeRunLoopOperation>();
    NSObject* evaluated = nullptr;
    operation->setRunPredicate(NSPredicate::predicateWithBlock([&](NSObject* object) {
        evaluated = object;
        return operation->passes < 4;
    }));
    operation->startAndWaitFor(60);
    EXPECT_EQ(operation->result(), VNTQResult::failure());
    EXPECT_EQ(operation->passes, 4);
    EXPECT_EQ(evaluated, operation.get());
}

TEST(RunLoopOperation, TakesAConditionOnItsOwnProperties) {
    const auto condition = NSPredicate::predicateWithKeyPath(
        "timeRemaining"_ns, NSPredicateOperatorType::greaterThan, NSNumber::number(59.97));
    const auto operation = make<ProbeRunLoopOperation>();
    EXPECT_EQ(operation->initWithRunPredicate(condition), operation);
    EXPECT_TRUE(isEqual(operation->runPredicate().get(), condition.get()));
    operation->startAndWaitFor(60);
    EXPECT_EQ(operation->result(), VNTQResult::failure());
}

TEST(RunLoopOperation, DoesNotTouchTheLoopWhenTheConditionFails) {
    const auto operation = make<VNTQRunLoopOperation>();
    bool touched = false;
    NSRunLoop::current()->performBlock([&] { touched = true; });
    operation->setRunPredicate(NSPredicate::predicateWithBlock([](NSObject*) { return false; }));
    EXPECT_FALSE(operation->runMode(NSDefaultRunLoopMode, *NSDate::distantPast()));
    EXPECT_FALSE(touched);
    operation->setRunPredicate(nullptr);
    EXPECT_TRUE(operation->runMode(NSDefaultRunLoopMode, *NSDate::distantPast()));
    EXPECT_TRUE(touched);
}

TEST(RunLoopOperation, AnswersFalseForALoopThatHasNothingToWaitFor) {
    std::thread([] {
        const auto operation = make<VNTQRunLoopOperation>();
        EXPECT_FALSE(
            operation->runMode(NSDefaultRunLoopMode, *NSDate::dateWithTimeIntervalSinceNow(60)));
    }).join();
}

TEST(RunLoopOperation, FailsWhenItsLoopCannotRun) {
    class Stuck : public VNTQRunLoopOperation {
    public:
        bool runMode(const NSString&, const NSDate&) override { return false; }
    };
    const auto operation = make<Stuck>();
    operation->startAndWaitFor(60);
    EXPECT_EQ(operation->result(), VNTQResult::failure());
}

TEST(RunLoopOperation, ServesOtherTimersOfItsLoopInBetween) {
    const auto operation = make<VNTQRunLoopOperation>();
    int fired = 0;
    const auto timer = NSTimer::scheduledTimerWithTimeInterval(0.01, true, [&](NSTimer*) {
        if (++fired == 3) {
            operation->completeWithSuccess();
        }
    });
    operation->startAndWaitFor(60);
    timer->invalidate();
    EXPECT_GE(fired, 3);  // it may fire again before the loop looks at the operation
    EXPECT_EQ(operation->result(), VNTQResult::success());
}

TEST(RunLoopOperation, OnAnExecutionQueueTurnsTheLoopOfThatThread) {
    const auto queue = DispatchQueue::serial("test.loop");
    std::latch hold(1);
    queue->async([&] { hold.wait(); });
    const auto operation = make<ProbeRunLoopOperation>();
    operation->setExecutionQueue(queue);
    operation->work = [](ProbeRunLoopOperation* self) {
        NSRunLoop::current()->performBlock([self] { self->completeWithSuccess(); });
    };
    operation->startAndWaitFor(60);  // returns, though the queue has not come to it
    EXPECT_TRUE(operation->isExecuting());
    hold.count_down();
    queue->sync([] {});
    EXPECT_EQ(operation->result(), VNTQResult::success());
    EXPECT_EQ(operation->turnedOn, queue.get());
}

TEST(RunLoopOperation, AnswersItsMessages) {
    const id operation = send<id>(send<id>(ProbeRunLoopOperation::classObject(), "alloc"_sel),
                                  "initWithRunPredicate:"_sel, Ref<NSPredicate>());
    send<void>(operation, "setLoopInterval:"_sel, 0.01);
    EXPECT_EQ(send<double>(operation, "loopInterval"_sel), 0.01);
    EXPECT_EQ(send<id>(operation, "runLoop"_sel), id(NSRunLoop::current()));
    EXPECT_EQ(send<id>(operation, "runPredicate"_sel), nullptr);
    EXPECT_FALSE(send<bool>(operation, "isAsynchronous"_sel));
    const auto condition = NSPredicate::predicateWithBlock([](NSObject*) { return true; });
    EXPECT_EQ(send<id>(operation, "initWithRunPredicate:"_sel, condition), operation);
    EXPECT_TRUE(isEqual(send<id>(operation, "runPredicate"_sel).get(), condition.get()));
    send<void>(operation, "startAndWaitFor:"_sel, 0.02);
    EXPECT_TRUE(isTimeout(*objectCast<VNTQOperation>(operation)));
}

TEST(RunLoopOperation, ExecutesAndTurnsItsLoopByMessage) {
    const auto operation = make<ProbeRunLoopOperation>();
    send<void>(operation, "execute"_sel);  // not started, so it only gets its deadline
    EXPECT_TRUE(isEqual(operation->timeoutDate().get(), NSDate::distantFuture().get()));
    EXPECT_EQ(operation->passes, 0);
    operation->work = [](ProbeRunLoopOperation* self) {
        send<void>(*self, "scheduleTimer:"_sel, 0.01);
        EXPECT_GE(self->passes, 1);
        EXPECT_TRUE(isTimeout(*self));
    };
    operation->start();
    EXPECT_TRUE(operation->isFinished());
}

TEST(RunLoopOperationDeathTest, TrapsOnMessagesWithArgumentsOfOtherTypes) {
    const id operation = make<VNTQRunLoopOperation>();
    EXPECT_TRAP(send<void>(operation, "startAndWaitFor:"_sel, 1), "sent with the types vi");
    EXPECT_TRAP(send<void>(operation, "startAndWaitUntil:"_sel, NSNumber::number(1.0)),
                "an object of class NSNumber was sent where NSDate is required");
    EXPECT_TRAP((void)send<id>(operation, "initWithRunPredicate:"_sel, "TRUEPREDICATE"_ns),
                "an object of class NSString was sent where NSPredicate is required");
    EXPECT_TRAP((void)send<bool>(operation, "runMode:beforeDate:"_sel, nullptr, NSDate::now()),
                "sent with the types B@d");
    EXPECT_TRAP(
        (void)send<bool>(operation, "runMode:beforeDate:"_sel, nullptr, NSDate::distantPast()),
        "nil was sent where NSString is required");
    EXPECT_TRAP(
        (void)send<bool>(operation, "runMode:beforeDate:"_sel, NSDefaultRunLoopMode, nullptr),
        "nil was sent where NSDate is required");
}

TEST(RunLoopOperation, StartsByMessageAndWaitsUntilADate) {
    const auto operation = make<ProbeRunLoopOperation>();
    const auto date = NSDate::dateWithTimeIntervalSinceNow(0.02);
    send<void>(operation, "startAndWaitUntil:"_sel, date);
    EXPECT_TRUE(isTimeout(*operation));
    EXPECT_EQ(operation->timeoutDate(), date);
    EXPECT_LE(date->timeIntervalSinceNow(), 0);
    EXPECT_GE(operation->passes, 1);
}

TEST(RunLoopOperation, TurnsTheLoopThatItIsGivenByMessageWhileItsConditionHolds) {
    const auto operation = make<VNTQRunLoopOperation>();
    const id object = operation;
    bool holds = false;
    send<void>(object, "setRunPredicate:"_sel,
               NSPredicate::predicateWithBlock([&](NSObject*) { return holds; }));
    const auto loop = NSRunLoop::current();
    std::thread([&] {
        send<void>(object, "setRunLoop:"_sel, loop);
        EXPECT_EQ(send<id>(object, "runLoop"_sel), id(loop));
    }).join();
    bool touched = false;
    loop->performBlock([&] { touched = true; });
    const auto turn = [&] {
        return trySend<bool>(object, "runMode:beforeDate:"_sel, NSDefaultRunLoopMode,
                             NSDate::distantPast());
    };
    EXPECT_EQ(turn(), false);
    EXPECT_FALSE(touched);
    holds = true;
    EXPECT_EQ(turn(), true);
    EXPECT_TRUE(touched);
    EXPECT_TRUE(trySend<void>(object, "setRunPredicate:"_sel, nullptr));
    EXPECT_EQ(operation->runPredicate(), nullptr);
    EXPECT_FALSE(trySend<void>(object, "setRunLoop:"_sel, NSDate::distantPast()));
    EXPECT_EQ(operation->runLoop(), loop);
}

}  // namespace
}  // namespace vantorq
