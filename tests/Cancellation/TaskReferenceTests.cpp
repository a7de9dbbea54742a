#include "VantorqFoundation/TaskReference.h"

#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Cancellables.h"
#include "Support/Tasks.h"
#include "Support/Threads.h"
#include "VantorqFoundation/AnyDisposable.h"
#include "VantorqFoundation/CancellableTracker.h"
#include "VantorqFoundation/ManagedCancellableSet.h"
#include "VantorqFoundation/Platform/Continuation.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

namespace vantorq {
namespace {

using test::Counted;

/// A task that waits until the test resumes it, and then says whether it was cancelled.
class Waiting {
public:
    [[nodiscard]] Task<std::string> start() {
        return Task<std::string>::start([this] { return wait(); }, {.executor = executor_});
    }
    void resume() {
        continuation_->resume();
        executor_->runAll();
    }
    [[nodiscard]] testing::ManualExecutor& executor() { return *executor_; }

private:
    Async<std::string> wait() {
        auto suspension = withContinuation<void>(
            [this](const auto& continuation) { continuation_ = continuation; });
        co_await suspension;
        std::string text = thisTask::isCancelled() ? "cancelled" : "done";
        co_return text;
    }

    Ref<testing::ManualExecutor> executor_ = make<testing::ManualExecutor>();
    std::optional<Continuation<void>> continuation_;
};

Task<int> taskThatFails() {
    return Task<int>::start([]() -> Async<int> {
        throw std::runtime_error("failed");
        co_return 0;
    });
}

Async<std::string> valueOf(Ref<TaskReference<std::string>> reference) {
    auto value = reference->value();
    co_return co_await value;
}
Async<Result<std::string>> resultOf(Ref<TaskReference<std::string>> reference) {
    auto result = reference->result();
    co_return co_await result;
}

TEST(TaskHandle, IsACancellableAndAStatefulCancellable) {
    static_assert(StatefulCancellable<Task<>>);
    static_assert(StatefulCancellable<Task<int, Never>>);
}

TEST(TaskHandle, CancelsItsTaskAsACancellable) {
    Waiting waiting;
    const auto task = waiting.start();
    waiting.executor().runAll();
    const auto disposable = vantorq::disposable(task);
    EXPECT_FALSE(disposable->isCancelled());
    disposable->cancel();
    EXPECT_TRUE(task.isCancelled());
    waiting.resume();
    EXPECT_EQ(syncWait(task), "cancelled");
}

TEST(TaskHandle, ReportsItsFlagAsAStatefulCancellable) {
    Waiting waiting;
    const auto task = waiting.start();
    waiting.executor().runAll();
    const auto disposable = vantorq::disposable(task);
    task.cancel();
    EXPECT_TRUE(disposable->isCancelled());
    waiting.resume();
}

TEST(TaskHandle, IsTrackedAndManagedAsAValue) {
    struct Manager {
        enum class CancellableKeys { only };
    };
    Waiting waiting;
    const auto task = waiting.start();
    const auto tracker = CancellableTracker<Task<std::string>>::set();
    const auto untrack = tracker->track(task);
    untrack();
    tracker->cancel();
    EXPECT_FALSE(task.isCancelled());
    const auto set = make<ManagedCancellableSet<Manager>>();
    (*set)[Manager::CancellableKeys::only] = task;
    set->cancel();
    EXPECT_TRUE(task.isCancelled());
    waiting.executor().runAll();
    waiting.resume();
}

TEST(TaskReference, IsAStatefulCancellableObject) {
    static_assert(std::is_base_of_v<RefCounted, TaskReference<int>>);
    static_assert(std::is_final_v<TaskReference<int>>);
    static_assert(StatefulCancellable<Ref<TaskReference<int>>>);
    static_assert(!std::is_base_of_v<Disposable, TaskReference<int>>);
}

TEST(TaskReference, GivesTheValueOfItsTask) {
    Waiting waiting;
    const auto made = reference(waiting.start());
    waiting.executor().runAll();
    waiting.resume();
    EXPECT_EQ(syncWait(valueOf(made)), "done");
    EXPECT_EQ(syncWait(valueOf(made)), "done");
}

TEST(TaskReference, ThrowsWhatItsTaskHasThrown) {
    const auto made = reference(taskThatFails());
    const auto value = [&]() -> Async<int> {
        auto pending = made->value();
        co_return co_await pending;
    };
    EXPECT_THROW(syncWait(value()), std::runtime_error);
}

TEST(TaskReference, GivesTheOutcomeOfItsTask) {
    Waiting waiting;
    const auto made = reference(waiting.start());
    waiting.executor().runAll();
    waiting.resume();
    const auto outcome = syncWait(resultOf(made));
    ASSERT_TRUE(outcome.has_value());
    EXPECT_EQ(*outcome, "done");

    const auto failed = reference(taskThatFails());
    const auto result = [&]() -> Async<Result<int>> {
        auto pending = failed->result();
        co_return co_await pending;
    };
    const auto failure = syncWait(result());
    ASSERT_FALSE(failure.has_value());
    EXPECT_THROW(std::rethrow_exception(failure.error()), std::runtime_error);
}

TEST(TaskReference, IsMadeOfATaskThatCannotFail) {
    const auto made = reference(Task<int, Never>::start([]() -> Async<int> { co_return 3; }));
    const auto result = [&]() -> Async<Result<int, Never>> {
        auto pending = made->result();
        co_return co_await pending;
    };
    EXPECT_EQ(*syncWait(result()), 3);
}

TEST(TaskReference, IsCancelledOnceItWasCancelledAndGivesWhatTheTaskMakesOfThat) {
    Waiting waiting;
    const auto made = reference(waiting.start());
    waiting.executor().runAll();
    EXPECT_FALSE(made->isCancelled());
    made->cancel();
    EXPECT_TRUE(made->isCancelled());
    EXPECT_TRUE(made->task().isCancelled());
    waiting.resume();
    EXPECT_EQ(syncWait(valueOf(made)), "cancelled");
}

TEST(TaskReference, SeesThatItsTaskWasCancelledElsewhere) {
    Waiting waiting;
    const auto task = waiting.start();
    const auto made = reference(task);
    task.cancel();
    EXPECT_TRUE(made->isCancelled());
    waiting.executor().runAll();
    waiting.resume();
}

TEST(TaskReference, IsAnotherOneEachTime) {
    const auto task = Task<int>::start([]() -> Async<int> { co_return 1; });
    const auto a = reference(task);
    const auto b = reference(task);
    EXPECT_NE(a, b);
    EXPECT_EQ(a->task(), b->task());
}

TEST(TaskReference, LivesUntilItsTaskHasEndedWhoeverLetsGoOfItAndDoesNotCancelIt) {
    Waiting waiting;
    const auto task = waiting.start();
    Weak<TaskReference<std::string>> weak;
    // In a task of the same executor, so that the one that keeps the reference alive is there too.
    const auto maker = Task<>::start(
        [&]() -> Async<> {
            weak = reference(task);
            co_return;
        },
        {.executor = Ref<Executor>(waiting.executor())});
    waiting.executor().runAll();
    EXPECT_TRUE(maker.isDone());
    EXPECT_NE(weak.load(), nullptr);
    EXPECT_FALSE(task.isCancelled());
    waiting.resume();
    EXPECT_TRUE(task.isDone());
    EXPECT_FALSE(task.isCancelled());
    EXPECT_EQ(weak.load(), nullptr);
}

TEST(TaskReference, LivesUntilAFailedTaskHasEnded) {
    test::Gate gate;
    Weak<TaskReference<int>> weak = reference(Task<int>::start([&]() -> Async<int> {
        co_await gate.wait();
        throw std::runtime_error("no");
    }));
    EXPECT_TRUE(test::eventually([&] { return gate.waiterCount() == 1; }));
    EXPECT_NE(weak.load(), nullptr);
    gate.open();
    EXPECT_TRUE(test::eventually([&] { return weak.load() == nullptr; }));
}

TEST(TaskReference, HasNothingToEndWithItUntilItIsGiven) {
    const auto made = reference(Task<>::start([]() -> Async<> { co_return; }));
    EXPECT_EQ(made->disposable(), nullptr);
}

TEST(TaskReference, LetsGoOfItsDisposableAtItsEnd) {
    int runs = 0;
    auto made = make<TaskReference<>>(Task<>::start([]() -> Async<> { co_return; }));
    made->setDisposable(make<AnyDisposable>([&] { ++runs; }));
    EXPECT_NE(made->disposable(), nullptr);
    EXPECT_EQ(runs, 0);
    made.reset();
    EXPECT_EQ(runs, 1);
}

TEST(TaskReference, CancellingItLeavesItsDisposableAlone) {
    int runs = 0;
    const auto made = make<TaskReference<>>(Task<>::start([]() -> Async<> { co_return; }));
    made->setDisposable(make<AnyDisposable>([&] { ++runs; }));
    made->cancel();
    EXPECT_EQ(runs, 0);
}

TEST(TaskReference, LeavesNothingBehind) {
    const int before = Counted::living;
    for (int i = 0; i < 20; ++i) {
        const auto made = reference(
            Task<>::start([held = make<test::PlainCancellable>()]() -> Async<> { co_return; }));
        if (i % 2 == 0) {
            made->cancel();
        }
    }
    EXPECT_TRUE(test::eventually([&] { return Counted::living == before; }));
}

}  // namespace
}  // namespace vantorq
