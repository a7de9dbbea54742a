#include "VantorqFoundation/Platform/Task.h"

#include <atomic>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "VantorqFoundation/Platform/Actor.h"
#include "VantorqFoundation/Platform/Async.h"
#include "VantorqFoundation/Platform/Continuation.h"
#include "VantorqFoundation/Platform/DispatchQueue.h"

namespace vantorq {
namespace {

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

TEST(Async, AReadyResultIsGivenAtOnce) {
    EXPECT_TRUE(Async<std::string>::ready("x").isReady());
    EXPECT_EQ(syncWait(Async<std::string>::ready("x")), "x");
}

TEST(Task, ItsValueIsAwaited) {
    const auto task = Task<int>::start([] { return sumOf(5); });
    EXPECT_EQ(syncWait(task), 5);
    EXPECT_TRUE(task.isDone());
}

TEST(Task, RunsOnThePool) {
    const auto main = std::this_thread::get_id();
    const auto task = Task<bool>::start(
        [main]() -> Async<bool> { co_return std::this_thread::get_id() != main; });
    EXPECT_TRUE(syncWait(task));
}

TEST(Task, CancellingCallsTheHandler) {
    std::latch started(1);
    const auto task = Task<int>::start([&]() -> Async<int> {
        std::atomic<int> cancelled = 0;
        auto wait = [&]() -> Async<int> {
            started.count_down();
            co_return co_await withContinuation<int>([&](Continuation<int> continuation) {
                DispatchQueue::global()->asyncAfter(0.02,
                                                    [continuation] { continuation.resume(3); });
            });
        };
        auto pending = withTaskCancellationHandler(wait, [&] { ++cancelled; });
        const int value = co_await std::move(pending);
        co_return value + 10 * cancelled;
    });
    started.wait();
    task.cancel();
    EXPECT_EQ(syncWait(task), 13);
    EXPECT_TRUE(task.isCancelled());
}

TEST(Actor, OneThingHappensAtATime) {
    constexpr int kTasks = 50;
    constexpr int kRounds = 200;
    const auto actor = make<Actor>();
    int count = 0;
    std::vector<Task<>> tasks;
    for (int i = 0; i < kTasks; ++i) {
        tasks.push_back(Task<>::start([&]() -> Async<> {
            for (int round = 0; round < kRounds; ++round) {
                co_await actor->run([&] { ++count; });
                co_await thisTask::yield();
            }
        }));
    }
    for (const auto& task : tasks) {
        syncWait(task);
    }
    EXPECT_EQ(count, kTasks * kRounds);
}

}  // namespace
}  // namespace vantorq
