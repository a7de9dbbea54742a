#pragma once

#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include "Support/Tasks.h"
#include "VantorqFoundation/Platform/Actor.h"
#include "VantorqFoundation/Platform/Async.h"
#include "VantorqFoundation/Platform/Clock.h"
#include "VantorqFoundation/Platform/RefCounted.h"
#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualClock.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

namespace vantorq::test {

/// For tests of tasks that take their time: it passes when the test says so.
class TimedTasksTest : public ::testing::Test {
protected:
    template <class T>
    Async<T> after(Clock::Duration length, T value) {
        auto sleeping = clock->sleepFor(length);
        co_await std::move(sleeping);
        co_return value;
    }
    template <class E>
    Async<int> failAfter(Clock::Duration length, E error) {
        auto sleeping = clock->sleepFor(length);
        co_await std::move(sleeping);
        throw error;
    }
    /// Where it is started.
    static Async<Actor*> actorOfStart() { co_return Actor::current(); }

    /// Starts what the function gives, and runs until all of it waits.
    template <class F>
    auto start(F function) {
        using Value = std::invoke_result_t<F&>::Value;
        auto task = Task<Value>::start(std::move(function), {.executor = executor});
        executor->runAll();
        return task;
    }
    void advance(Clock::Duration length) {
        clock->advance(length);
        executor->runAll();
    }

    Ref<::vantorq::testing::ManualExecutor> executor = make<::vantorq::testing::ManualExecutor>();
    Ref<::vantorq::testing::ManualClock> clock = make<::vantorq::testing::ManualClock>();
    Gate gate;
};

}  // namespace vantorq::test
