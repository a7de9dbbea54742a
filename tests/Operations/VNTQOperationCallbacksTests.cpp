#include <algorithm>
#include <latch>
#include <ostream>
#include <thread>
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
using test::Step;
using namespace test::steps;

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

}  // namespace
}  // namespace vantorq
