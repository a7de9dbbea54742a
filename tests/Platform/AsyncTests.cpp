#include "VantorqFoundation/Platform/Async.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "Support/Tasks.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/Task.h"

namespace vantorq {
namespace {

using test::Counted;
using test::Token;

Async<int> one() {
    co_return 1;
}

Async<int> sumOf(int count) {
    int sum = 0;
    for (int i = 0; i < count; ++i) {
        sum += co_await one();
    }
    co_return sum;
}

Async<int> nested(int depth) {
    if (depth == 0) {
        co_return 0;
    }
    co_return 1 + co_await nested(depth - 1);
}

Async<int> failing() {
    throw std::runtime_error("no");
    co_return 0;
}

Async<int> ownersOf(Ref<Token> token) {
    co_return static_cast<int>(token->ownerCount());
}

TEST(Async, AValueIsGivenToTheAwaitingCode) {
    EXPECT_EQ(syncWait(sumOf(3)), 3);
}

TEST(Async, AMillionAwaitsDoNotDeepenTheStack) {
    EXPECT_EQ(syncWait(sumOf(1'000'000)), 1'000'000);
}

TEST(Async, AMillionNestedAwaitsDoNotDeepenTheStack) {
    EXPECT_EQ(syncWait(nested(1'000'000)), 1'000'000);
}

TEST(Async, WhatAFunctionThrowsTheAwaitThrows) {
    EXPECT_THROW(syncWait(failing()), std::runtime_error);
}

TEST(Async, AnErrorPassesThroughNestedAwaits) {
    const auto outer = []() -> Async<int> { co_return co_await failing() + 1; };
    EXPECT_THROW(syncWait(outer()), std::runtime_error);
}

TEST(Async, AReadyResultIsGivenAtOnce) {
    EXPECT_TRUE(Async<std::string>::ready("x").isReady());
    EXPECT_EQ(syncWait(Async<std::string>::ready("x")), "x");
}

TEST(Async, AFunctionIsNotReadyBeforeItHasRun) {
    EXPECT_FALSE(one().isReady());
}

TEST(Async, AValueThatCanOnlyBeMovedIsMoved) {
    const auto boxed = [](int value) -> Async<std::unique_ptr<int>> {
        co_return std::make_unique<int>(value);
    };
    EXPECT_EQ(*syncWait(boxed(4)), 4);
}

TEST(Async, DoesNothingUntilItIsAwaited) {
    bool hasRun = false;
    const auto run = [&hasRun]() -> Async<> {
        hasRun = true;
        co_return;
    };
    auto pending = run();
    EXPECT_FALSE(hasRun);
    syncWait(std::move(pending));
    EXPECT_TRUE(hasRun);
}

TEST(Async, OneThatIsNeverAwaitedNeverRunsAndFreesItsParameters) {
    const int before = Counted::living;
    bool hasRun = false;
    const auto run = [&hasRun](Ref<Token>) -> Async<> {
        hasRun = true;
        co_return;
    };
    {
        const auto pending = run(make<Token>());
        EXPECT_EQ(Counted::living, before + 1);
    }
    EXPECT_FALSE(hasRun);
    EXPECT_EQ(Counted::living, before);
}

TEST(Async, FreesItsParametersWhenItHasRun) {
    const int before = Counted::living;
    EXPECT_EQ(syncWait(ownersOf(make<Token>())), 1);
    EXPECT_EQ(Counted::living, before);
}

TEST(Async, FreesItsVariablesWhenItThrows) {
    const int before = Counted::living;
    const auto run = [](Ref<Token> parameter) -> Async<> {
        const Ref<Token> variable = parameter;
        throw std::runtime_error("no");
        co_return;
    };
    EXPECT_THROW(syncWait(run(make<Token>())), std::runtime_error);
    EXPECT_EQ(Counted::living, before);
}

TEST(Async, CanBeMovedBeforeItIsAwaited) {
    const int before = Counted::living;
    auto first = ownersOf(make<Token>());
    auto second = ownersOf(make<Token>());
    second = std::move(first);
    EXPECT_EQ(Counted::living, before + 1);
    auto third = std::move(second);
    EXPECT_EQ(syncWait(std::move(third)), 1);
    EXPECT_EQ(Counted::living, before);
}

TEST(Async, AwaitingTwiceTraps) {
    const auto twice = []() -> Async<int> {
        auto pending = one();
        const int first = co_await std::move(pending);
        const int second = co_await std::move(pending);
        co_return first + second;
    };
    EXPECT_TRAP(syncWait(twice()), "Async: awaited twice");
}

TEST(Async, SyncWaitRunsOnTheCallingThreadAsATaskOfItsOwn) {
    const auto caller = std::this_thread::get_id();
    const auto isHere = [caller]() -> Async<bool> {
        co_return std::this_thread::get_id() == caller&& detail::context().task != nullptr;
    };
    EXPECT_TRUE(syncWait(isHere()));
    EXPECT_EQ(detail::context().task, nullptr);
}

}  // namespace
}  // namespace vantorq
