#include "VantorqFoundation/VNTQRunLoopOperation.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <latch>
#include <thread>

#include <gtest/gtest.h>

#include "Support/Operations.h"

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
        longestSlice = std::max(longestSlice, beforeDate.timeIntervalSinceNow());
        EXPECT_TRUE(mode.isEqualToString(&NSDefaultRunLoopMode));
        return VNTQRunLoopOperation::runMode(mode, beforeDate);
    }

    Block<void(ProbeRunLoopOperation*)> work;
    int passes = 0;
    double longestSlice = 0;
};
VNTQ_DEFINE_CLASS(ProbeRunLoopOperation, {})

namespace {

double secondsTaken(auto&& body) {
    const auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

bool isTimeout(const VNTQOperation& operation) {
    const auto error = objectCast<NSError>(operation.result()->error());
    return error != nullptr && error->domain()->isEqualToString(&VNTQFoundationErrorDomain) &&
           error->code() == 1;
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
    const auto operation = make<ProbeRunLoopOperation>();
    operation->work = [](ProbeRunLoopOperation* self) {
        EXPECT_TRUE(self->timeoutDate()->isEqual(NSDate::distantFuture().get()));
        NSTimer::scheduledTimerWithTimeInterval(
            0.01, false, [operation = Ref<ProbeRunLoopOperation>(self)](NSTimer*) {
                operation->completeWithSuccess();
            });
    };
    operation->start();
    EXPECT_TRUE(operation->isFinished());
    EXPECT_GE(operation->passes, 1);
    EXPECT_EQ(operation->result(), VNTQResult::success());
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
    const auto operation = make<ProbeRunLoopOperation>();
    operation->setExecutionQueue(queue);
    std::latch delivered(1);
    operation->onCompletion([&] { delivered.count_down(); });
    operation->startAndWaitFor(0.05);
    delivered.wait();
    queue->sync([] {});
    EXPECT_TRUE(isTimeout(*operation));
}

TEST(RunLoopOperation, AnswersItsMessages) {
    const id operation = send<id>(send<id>(ProbeRunLoopOperation::classObject(), "alloc"_sel),
                                  "initWithRunPredicate:"_sel, Ref<NSPredicate>());
    send<void>(operation, "setLoopInterval:"_sel, 0.01);
    EXPECT_EQ(send<double>(operation, "loopInterval"_sel), 0.01);
    EXPECT_EQ(send<id>(operation, "runLoop"_sel), id(NSRunLoop::current()));
    EXPECT_EQ(send<id>(operation, "runPredicate"_sel), nullptr);
    send<void>(operation, "startAndWaitFor:"_sel, 0.02);
    EXPECT_TRUE(isTimeout(*objectCast<VNTQOperation>(operation)));
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
