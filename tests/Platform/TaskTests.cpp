#include "VantorqFoundation/Platform/Task.h"

#include <atomic>
#include <csignal>
#include <functional>
#include <latch>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Tasks.h"
#include "Support/Threads.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/Continuation.h"
#include "VantorqFoundation/Platform/DispatchQueue.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

namespace vantorq {
namespace {

using test::Counted;
using test::Gate;
using test::Token;
using testing::ManualExecutor;

Async<int> three() {
    co_return 3;
}

Async<int> failing() {
    throw std::runtime_error("no");
    co_return 0;
}

/// Waits at the gate, and counts when the task is cancelled meanwhile.
Async<> waitAndCount(Gate& gate, std::atomic<int>& cancellations) {
    auto pending = withTaskCancellationHandler([&gate] { return gate.wait(); },
                                               [&cancellations] { ++cancellations; });
    co_await std::move(pending);
}

// Values.

TEST(Task, ItsValueIsAwaited) {
    const auto task = Task<int>::start(three);
    const auto waiting = [&task]() -> Async<int> { co_return co_await task.value(); };
    EXPECT_EQ(syncWait(waiting()), 3);
    EXPECT_TRUE(task.isDone());
}

TEST(Task, ItsValueIsAwaitedBySeveral) {
    const auto executor = make<ManualExecutor>();
    Gate gate;
    const auto task = Task<std::string>::start(
        [&]() -> Async<std::string> {
            co_await gate.wait();
            co_return "all";
        },
        {.executor = executor});
    std::vector<Task<std::string>> readers;
    for (int i = 0; i < 3; ++i) {
        readers.push_back(Task<std::string>::start(
            [&task]() -> Async<std::string> { co_return co_await task.value(); },
            {.executor = executor}));
    }
    executor->runAll();
    gate.open();
    executor->runAll();
    for (const auto& reader : readers) {
        ASSERT_TRUE(reader.isDone());
        EXPECT_EQ(reader.outcome().value(), "all");
    }
    EXPECT_EQ(syncWait(task), "all");
}

TEST(Task, ThoseWhoWaitGoOnInTheOrderOfArrival) {
    const auto executor = make<ManualExecutor>();
    Gate gate;
    const auto task = Task<>::start([&] { return gate.wait(); }, {.executor = executor});
    std::vector<int> order;
    std::vector<Task<>> readers;
    for (int i = 0; i < 4; ++i) {
        readers.push_back(Task<>::start(
            [&, i]() -> Async<> {
                co_await task.value();
                order.push_back(i);
            },
            {.executor = executor}));
    }
    executor->runAll();
    gate.open();
    executor->runAll();
    EXPECT_EQ(order, (std::vector{0, 1, 2, 3}));
}

TEST(Task, AHundredThousandThatWaitForEachOtherDoNotDeepenTheStack) {
    constexpr int kTasks = 100'000;
    const auto executor = make<ManualExecutor>();
    Gate gate;
    auto last = Task<int>::start(
        [&gate]() -> Async<int> {
            co_await gate.wait();
            co_return 0;
        },
        {.executor = executor});
    for (int i = 0; i < kTasks; ++i) {
        last = Task<int>::start(
            [before = last]() -> Async<int> {
                const int value = co_await before.value();
                co_return value + 1;
            },
            {.executor = executor});
        executor->runAll();
    }
    EXPECT_FALSE(last.isDone());
    gate.open();
    executor->runAll();
    EXPECT_EQ(last.outcome().value(), kTasks);
}

TEST(Task, ItsErrorIsThrownToWhomAwaitsTheValue) {
    const auto task = Task<int>::start(failing);
    const auto waiting = [&task]() -> Async<int> { co_return co_await task.value(); };
    EXPECT_THROW(syncWait(waiting()), std::runtime_error);
    EXPECT_THROW(syncWait(task), std::runtime_error);
}

TEST(Task, ItsResultIsAValueOrAnError) {
    const auto good = Task<int>::start(three);
    const auto bad = Task<int>::start(failing);
    const auto nothing = Task<>::start([]() -> Async<> { co_return; });
    const auto check = [&]() -> Async<> {
        const Result<int> value = co_await good.result();
        EXPECT_EQ(value.value(), 3);
        const Result<int> error = co_await bad.result();
        EXPECT_FALSE(error.has_value());
        EXPECT_THROW(std::rethrow_exception(error.error()), std::runtime_error);
        const Result<void> none = co_await nothing.result();
        EXPECT_TRUE(none.has_value());
    };
    syncWait(check());
}

TEST(Task, AReadyResultIsATasksValueToo) {
    const auto task = Task<int>::start([] { return Async<int>::ready(4); });
    EXPECT_EQ(syncWait(task), 4);
}

TEST(Task, WorkThatCannotFailEndsTheProcessWhenItDoes) {
    const auto fail = [] {
        const auto executor = make<ManualExecutor>();  // the process that ends has one thread
        const auto task = Task<int, Never>::start(failing, {.executor = executor});
        executor->runAll();
        const auto waiting = [&task]() -> Async<int> { co_return co_await task.value(); };
        (void)syncWait(waiting());
    };
    EXPECT_EXIT(fail(), ::testing::KilledBySignal(SIGABRT), "");
}

// Running.

TEST(Task, RunsOnThePool) {
    const auto main = std::this_thread::get_id();
    const auto task = Task<bool>::start(
        [main]() -> Async<bool> { co_return std::this_thread::get_id() != main; });
    EXPECT_TRUE(syncWait(task));
}

TEST(Task, GoesOnWithoutAHandle) {
    std::latch done(1);
    Task<>::start([&done]() -> Async<> {
        co_await thisTask::yield();
        done.count_down();
    });
    done.wait();
}

TEST(Task, HandlesAreEqualAndHashAlikeWhenTheyMeanTheSameTask) {
    const auto executor = make<ManualExecutor>();
    const auto first = Task<int>::start(three, {.executor = executor});
    const auto second = Task<int>::start(three, {.executor = executor});
    const auto copy = first;
    EXPECT_EQ(first, copy);
    EXPECT_NE(first, second);
    EXPECT_EQ(std::hash<Task<int>>()(first), std::hash<Task<int>>()(copy));
    const std::unordered_set<Task<int>> tasks{first, second, copy};
    EXPECT_EQ(tasks.size(), 2U);
    executor->runAll();
}

TEST(Task, ATaskThatATaskStartsIsOnItsExecutor) {
    const auto executor = make<ManualExecutor>();
    std::optional<Task<int>> inner;
    const auto outer = Task<>::start(
        [&]() -> Async<> {
            inner = Task<int>::start(three);
            co_return;
        },
        {.executor = executor});
    executor->runOne();
    EXPECT_TRUE(outer.isDone());
    EXPECT_FALSE(inner->isDone());
    executor->runAll();
    EXPECT_TRUE(inner->isDone());
}

TEST(Task, GoesOnOnItsOwnExecutorAfterItHasWaitedForAnother) {
    const auto here = make<ManualExecutor>();
    const auto there = make<ManualExecutor>();
    const auto other = Task<int>::start(three, {.executor = there});
    const auto task = Task<int>::start(
        [&other]() -> Async<int> { co_return co_await other.value(); }, {.executor = here});
    here->runAll();
    EXPECT_EQ(there->runAll(), 1U);
    EXPECT_FALSE(task.isDone());
    EXPECT_EQ(here->runAll(), 1U);
    EXPECT_EQ(task.outcome().value(), 3);
}

TEST(Task, YieldingLetsOthersRunFirst) {
    const auto executor = make<ManualExecutor>();
    std::string trace;
    const auto count = [&](char name) {
        return Task<>::start(
            [&trace, name]() -> Async<> {
                for (int i = 0; i < 3; ++i) {
                    trace.push_back(name);
                    co_await thisTask::yield();
                }
            },
            {.executor = executor});
    };
    const auto a = count('a');
    const auto b = count('b');
    executor->runAll();
    EXPECT_EQ(trace, "ababab");
}

TEST(Task, KeepsItsFunctionUntilTheWorkHasEndedAndNoLonger) {
    const int before = Counted::living;
    const auto executor = make<ManualExecutor>();
    Gate gate;
    const auto task = Task<>::start(
        [&gate, token = make<Token>()]() -> Async<> {
            co_await gate.wait();
            EXPECT_EQ(token->ownerCount(), 1U);
        },
        {.executor = executor});
    executor->runAll();
    EXPECT_EQ(Counted::living, before + 1);
    gate.open();
    executor->runAll();
    EXPECT_TRUE(task.isDone());
    EXPECT_EQ(Counted::living, before);
}

TEST(Task, SyncWaitInsideAPoolThread) {
    std::latch done(1);
    int value = 0;
    DispatchQueue::global()->async([&] {
        const auto work = []() -> Async<int> {
            const auto task = Task<int>::start(three);
            co_return co_await task.value();
        };
        value = syncWait(work());
        done.count_down();
    });
    done.wait();
    EXPECT_EQ(value, 3);
}

TEST(Task, SyncWaitInsideATask) {
    const auto task = Task<int>::start([]() -> Async<int> {
        const auto inner = Task<int>::start(three);
        co_return syncWait(inner) + syncWait(three());
    });
    EXPECT_EQ(syncWait(task), 6);
}

// Cancelling.

TEST(Task, OutsideOfAnyTaskNothingIsCancelled) {
    EXPECT_FALSE(thisTask::isCancelled());
    EXPECT_NO_THROW(thisTask::checkCancellation());
}

TEST(Task, TheWorkSeesThatItIsCancelled) {
    const auto executor = make<ManualExecutor>();
    Gate gate;
    const auto task = Task<int>::start(
        [&]() -> Async<int> {
            EXPECT_FALSE(thisTask::isCancelled());
            thisTask::checkCancellation();
            co_await gate.wait();
            EXPECT_TRUE(thisTask::isCancelled());
            thisTask::checkCancellation();
            co_return 1;
        },
        {.executor = executor});
    executor->runAll();
    EXPECT_FALSE(task.isCancelled());
    task.cancel();
    EXPECT_TRUE(task.isCancelled());
    gate.open();
    executor->runAll();
    EXPECT_THROW(std::rethrow_exception(task.outcome().error()), CancellationError);
}

TEST(Task, ACancellationHasAText) {
    EXPECT_STREQ(CancellationError().what(), "The work was cancelled.");
}

TEST(Task, CancellingCallsTheHandlerOnceOnTheCancellingThread) {
    const auto executor = make<ManualExecutor>();
    Gate gate;
    std::atomic<int> cancellations = 0;
    const auto task =
        Task<>::start([&] { return waitAndCount(gate, cancellations); }, {.executor = executor});
    executor->runAll();
    EXPECT_EQ(cancellations, 0);
    task.cancel();
    EXPECT_EQ(cancellations, 1);
    task.cancel();
    EXPECT_EQ(cancellations, 1);
    gate.open();
    executor->runAll();
    EXPECT_TRUE(task.isDone());
}

TEST(Task, CancellingWhoWaitsDoesNotCancelWhatItWaitsFor) {
    const auto executor = make<ManualExecutor>();
    Gate gate;
    const auto task = Task<>::start([&] { return gate.wait(); }, {.executor = executor});
    const auto waiter =
        Task<>::start([&]() -> Async<> { co_await task.value(); }, {.executor = executor});
    executor->runAll();
    waiter.cancel();
    EXPECT_FALSE(task.isCancelled());
    gate.open();
    executor->runAll();
    EXPECT_TRUE(waiter.outcome().has_value());
}

TEST(Task, TheHandlerOfACancelledTaskIsCalledBeforeTheOperation) {
    const auto executor = make<ManualExecutor>();
    std::string trace;
    const auto task = Task<>::start(
        [&]() -> Async<> {
            const auto operation = [&]() -> Async<> {
                trace += "operation ";
                co_return;
            };
            auto pending = withTaskCancellationHandler(operation, [&] { trace += "handler "; });
            trace += "start ";
            co_await std::move(pending);
        },
        {.executor = executor});
    task.cancel();
    executor->runAll();
    EXPECT_EQ(trace, "start handler operation ");
}

TEST(Task, AHandlerWhoseOperationHasEndedOrThrownNeverRuns) {
    for (const bool throws : {false, true}) {
        const auto executor = make<ManualExecutor>();
        Gate inside;
        Gate after;
        int cancellations = 0;
        const auto operation = [&]() -> Async<> {
            co_await inside.wait();
            if (throws) {
                throw std::runtime_error("no");
            }
        };
        const auto task = Task<>::start(
            [&]() -> Async<> {
                bool hasThrown = false;
                auto pending = withTaskCancellationHandler(operation, [&] { ++cancellations; });
                try {
                    co_await std::move(pending);
                } catch (const std::runtime_error&) {
                    hasThrown = true;
                }
                EXPECT_EQ(hasThrown, throws);
                co_await after.wait();
            },
            {.executor = executor});
        executor->runAll();
        inside.open();
        executor->runAll();
        task.cancel();
        EXPECT_EQ(cancellations, 0);
        after.open();
        executor->runAll();
        EXPECT_TRUE(task.isDone());
    }
}

TEST(Task, EachOfNestedHandlersIsCalled) {
    const auto executor = make<ManualExecutor>();
    Gate gate;
    std::atomic<int> inner = 0;
    std::atomic<int> outer = 0;
    const auto task = Task<>::start(
        [&]() -> Async<> {
            auto pending = withTaskCancellationHandler([&] { return waitAndCount(gate, inner); },
                                                       [&] { ++outer; });
            co_await std::move(pending);
        },
        {.executor = executor});
    executor->runAll();
    task.cancel();
    EXPECT_EQ(inner, 1);
    EXPECT_EQ(outer, 1);
    gate.open();
    executor->runAll();
    EXPECT_TRUE(task.isDone());
}

TEST(Task, TheOuterHandlerIsCalledWhenTheInnerOneIsGone) {
    const auto executor = make<ManualExecutor>();
    Gate first;
    Gate second;
    std::atomic<int> inner = 0;
    std::atomic<int> outer = 0;
    const auto task = Task<>::start(
        [&]() -> Async<> {
            const auto operation = [&]() -> Async<> {
                auto waiting = waitAndCount(first, inner);
                co_await std::move(waiting);
                co_await second.wait();
            };
            auto pending = withTaskCancellationHandler(operation, [&] { ++outer; });
            co_await std::move(pending);
        },
        {.executor = executor});
    executor->runAll();
    first.open();
    executor->runAll();
    task.cancel();
    EXPECT_EQ(inner, 0);
    EXPECT_EQ(outer, 1);
    second.open();
    executor->runAll();
    EXPECT_TRUE(task.isDone());
}

TEST(Task, AnOperationEndsNotBeforeItsHandlerThatRuns) {
    Gate gate;
    std::latch isWaiting(1);
    std::atomic<bool> hasOperationEnded = false;
    std::atomic<bool> hasHandlerEnded = false;
    const auto task = Task<bool>::start([&]() -> Async<bool> {
        const auto operation = [&]() -> Async<> {
            isWaiting.count_down();
            co_await gate.wait();
            hasOperationEnded = true;
        };
        const auto onCancel = [&] {
            gate.open();
            while (!hasOperationEnded) {
                std::this_thread::yield();
            }
            for (int i = 0; i < 1'000; ++i) {
                std::this_thread::yield();
            }
            hasHandlerEnded = true;
        };
        auto pending = withTaskCancellationHandler(operation, onCancel);
        co_await std::move(pending);
        co_return hasHandlerEnded;
    });
    isWaiting.wait();
    task.cancel();
    EXPECT_TRUE(syncWait(task));
}

TEST(Task, AHandlerMayEndTheOperationOnItsOwnThread) {
    const auto executor = make<ManualExecutor>();
    Gate gate;
    const auto task = Task<>::start(
        [&]() -> Async<> {
            auto pending = withTaskCancellationHandler([&] { return gate.wait(); },
                                                       [&] {
                                                           gate.open();
                                                           executor->runAll();
                                                       });
            co_await std::move(pending);
        },
        {.executor = executor});
    executor->runAll();
    task.cancel();
    EXPECT_TRUE(task.isDone());
}

TEST(Task, CancellingADoneTaskDoesNothing) {
    const auto task = Task<int>::start(three);
    EXPECT_EQ(syncWait(task), 3);
    task.cancel();
    EXPECT_EQ(syncWait(task), 3);
}

TEST(Task, TheOutcomeOfWorkThatHasNotEndedTraps) {
    EXPECT_TRAP(
        {
            const auto executor = make<testing::ManualExecutor>();
            const auto task = Task<int>::start(three, {.executor = executor});
            (void)task.outcome();
        },
        "Task: the outcome of work that has not ended was asked for");
}

TEST(Task, AnExceptionThatLeavesACancellationHandlerEndsTheProcess) {
    const auto endByHandler = [] {
        const auto executor = make<testing::ManualExecutor>();
        const auto task = Task<>::start(
            []() -> Async<> {
                auto pending = withTaskCancellationHandler(
                    []() -> Async<> {
                        auto never = [](const Continuation<void>&) {};
                        co_await withContinuation<void>(never);
                    },
                    [] { throw std::runtime_error("no"); });
                co_await std::move(pending);
            },
            {.executor = executor});
        executor->runAll();
        task.cancel();
    };
    EXPECT_EXIT(endByHandler(), ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
}  // namespace vantorq
