#include "VantorqFoundation/Platform/Continuation.h"

#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "Support/Tasks.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/Actor.h"
#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

namespace vantorq {
namespace {

using test::Counted;
using test::Token;
using testing::ManualExecutor;
using Throwing = Continuation<int, std::exception_ptr>;

/// Awaits a continuation that is given to `body`.
template <class T, class Body>
Async<T> awaiting(Body body) {
    co_return co_await withContinuation<T>(body);
}
template <class T, class Body>
Async<T> awaitingThrowing(Body body) {
    co_return co_await withThrowingContinuation<T>(body);
}

TEST(Continuation, ResumedInsideTheBodyTheAwaitDoesNotSuspend) {
    const auto executor = make<ManualExecutor>();
    const auto task = Task<int>::start(
        [] {
            return awaiting<int>([](Continuation<int> continuation) { continuation.resume(3); });
        },
        {.executor = executor});
    EXPECT_EQ(executor->runAll(), 1U);
    EXPECT_EQ(task.outcome().value(), 3);
}

TEST(Continuation, ResumedLaterTheCodeGoesOnOnItsExecutor) {
    const auto executor = make<ManualExecutor>();
    std::optional<Continuation<int>> kept;
    const auto task = Task<int>::start(
        [&kept] {
            return awaiting<int>([&kept](Continuation<int> continuation) { kept = continuation; });
        },
        {.executor = executor});
    executor->runAll();
    EXPECT_FALSE(task.isDone());
    kept->resume(4);
    EXPECT_FALSE(task.isDone());
    EXPECT_EQ(executor->pendingCount(), 1U);
    executor->runAll();
    EXPECT_EQ(task.outcome().value(), 4);
}

TEST(Continuation, ResumedFromAnotherThread) {
    std::jthread other;
    auto waiting = awaiting<std::string>([&other](Continuation<std::string> continuation) {
        other = std::jthread([continuation] { continuation.resume("from there"); });
    });
    EXPECT_EQ(syncWait(std::move(waiting)), "from there");
}

TEST(Continuation, TheCodeGoesBackToItsActor) {
    const auto actor = make<Actor>();
    std::jthread other;
    const auto isBack = [&]() -> Async<bool> {
        co_await actor->enter();
        auto pending = awaiting<void>([&other](Continuation<void> continuation) {
            other = std::jthread([continuation] { continuation.resume(); });
        });
        co_await std::move(pending);
        co_return actor->isCurrent();
    };
    EXPECT_TRUE(syncWait(isBack()));
}

TEST(Continuation, AValueThatCanOnlyBeMovedIsMoved) {
    auto waiting = awaiting<std::unique_ptr<int>>([](Continuation<std::unique_ptr<int>> resumer) {
        resumer.resume(std::make_unique<int>(5));
    });
    EXPECT_EQ(*syncWait(std::move(waiting)), 5);
}

TEST(Continuation, ResumingTwiceTraps) {
    const auto twice = [](Continuation<int> continuation) {
        const Continuation<int> copy = continuation;
        continuation.resume(1);
        copy.resume(2);
    };
    EXPECT_TRAP(syncWait(awaiting<int>(twice)), "Continuation: resumed twice");
}

TEST(Continuation, ResumingOnceMoreAfterTheAwaitTraps) {
    std::optional<Continuation<int>> kept;
    auto waiting = awaiting<int>([&kept](Continuation<int> continuation) {
        kept = continuation;
        continuation.resume(1);
    });
    EXPECT_EQ(syncWait(std::move(waiting)), 1);
    EXPECT_TRAP(kept->resume(2), "Continuation: resumed twice");
}

TEST(Continuation, AnErrorIsThrownByTheAwait) {
    auto waiting = awaitingThrowing<int>([](Throwing continuation) {
        continuation.resumeThrowing(std::make_exception_ptr(std::runtime_error("no")));
    });
    EXPECT_THROW(syncWait(std::move(waiting)), std::runtime_error);
}

TEST(Continuation, IsResumedWithAResult) {
    auto good = awaitingThrowing<int>(
        [](Throwing continuation) { continuation.resumeWith(Result<int>(6)); });
    EXPECT_EQ(syncWait(std::move(good)), 6);
    auto bad = awaitingThrowing<int>([](Throwing continuation) {
        continuation.resumeWith(std::unexpected(std::make_exception_ptr(std::logic_error("no"))));
    });
    EXPECT_THROW(syncWait(std::move(bad)), std::logic_error);
}

TEST(Continuation, WhatTheBodyThrowsTheAwaitThrows) {
    auto waiting =
        awaiting<int>([](Continuation<int>) -> void { throw std::runtime_error("body"); });
    EXPECT_THROW(syncWait(std::move(waiting)), std::runtime_error);
}

TEST(Continuation, ABodyThatThrowsMayHaveHandedTheContinuationOn) {
    std::optional<Continuation<int>> kept;
    auto waiting = awaiting<int>([&kept](Continuation<int> continuation) {
        kept = continuation;
        throw std::runtime_error("body");
    });
    EXPECT_THROW(syncWait(std::move(waiting)), std::runtime_error);
    kept->resume(1);
}

TEST(Continuation, TheBodyIsGoneOnceItHasRun) {
    const int before = Counted::living;
    const auto executor = make<ManualExecutor>();
    std::optional<Continuation<void>> kept;
    const auto task = Task<>::start(
        [&kept]() -> Async<> {
            auto body = [&kept, token = make<Token>()](Continuation<void> continuation) {
                kept = continuation;
            };
            co_await withContinuation<void>(std::move(body));
        },
        {.executor = executor});
    executor->runAll();
    EXPECT_EQ(Counted::living, before);
    kept->resume();
    executor->runAll();
    EXPECT_TRUE(task.isDone());
}

}  // namespace
}  // namespace vantorq
