#include "VantorqFoundation/Platform/Clock.h"

#include <chrono>
#include <utility>

#include <gtest/gtest.h>

#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualClock.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

namespace vantorq {
namespace {

using namespace std::chrono_literals;
using testing::ManualClock;
using testing::ManualExecutor;

TEST(Clock, AnInstantAheadIsNeverBeforeNowNorBeyondTheLast) {
    const auto clock = make<ManualClock>();
    clock->advance(4s);
    EXPECT_EQ(clock->after(1s), Clock::Instant(5s));
    EXPECT_EQ(clock->after(0s), Clock::Instant(4s));
    EXPECT_EQ(clock->after(-1s), Clock::Instant(4s));
    EXPECT_EQ(clock->after(Clock::Duration::min()), Clock::Instant(4s));
    EXPECT_EQ(clock->after(Clock::Duration::max()), Clock::Instant::max());
}

TEST(Clock, ALengthOfSleepCountsFromTheAwait) {
    const auto clock = make<ManualClock>();
    const auto executor = make<ManualExecutor>();
    const auto task = Task<>::start(
        [&]() -> Async<> {
            auto sleeping = clock->sleepFor(2s);
            clock->advance(10s);
            co_await std::move(sleeping);
            EXPECT_EQ(clock->now(), Clock::Instant(12s));
        },
        {.executor = executor});
    executor->runAll();
    EXPECT_FALSE(task.isDone());
    clock->advance(2s);
    executor->runAll();
    EXPECT_TRUE(task.isDone());
}

TEST(Clock, TheContinuousOneIsOneObjectThatShowsTheMachinesTime) {
    Clock& clock = Clock::continuous();
    EXPECT_EQ(&clock, &Clock::continuous());
    const auto before = ContinuousClock::now();
    const auto now = clock.now();
    EXPECT_LE(before, now);
    EXPECT_LE(now, ContinuousClock::now());
}

TEST(Clock, TheContinuousOneSleeps) {
    Clock& clock = Clock::continuous();
    const auto begin = clock.now();
    syncWait(clock.sleepFor(2ms));
    EXPECT_GE(clock.now() - begin, 2ms);
}

}  // namespace
}  // namespace vantorq
