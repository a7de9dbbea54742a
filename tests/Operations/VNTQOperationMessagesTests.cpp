#include <functional>
#include <latch>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Operations.h"
#include "Support/Trap.h"
#include "VantorqFoundation/VNTQOperation.h"

namespace vantorq {
namespace {

using test::drain;
using test::inlineOperation;
using test::ProbeOperation;
using Log = std::vector<std::string>;

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

}  // namespace
}  // namespace vantorq
