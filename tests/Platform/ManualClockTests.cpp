#include "VantorqFoundation/testing/ManualClock.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

namespace vantorq {
namespace {

using namespace std::chrono_literals;
using testing::ManualClock;
using testing::ManualExecutor;

class ManualClockTest : public ::testing::Test {
protected:
    Task<> sleepUntil(Clock::Instant deadline) {
        return Task<>::start([this, deadline] { return clock->sleep(deadline); },
                             {.executor = executor});
    }
    Task<> sleepFor(Clock::Duration length) { return sleepUntil(clock->after(length)); }

    Ref<ManualExecutor> executor = make<ManualExecutor>();
    Ref<ManualClock> clock = make<ManualClock>();
};

TEST_F(ManualClockTest, BeginsAtTheEpochAndStandsStill) {
    EXPECT_EQ(clock->now(), Clock::Instant());
    EXPECT_EQ(clock->now(), Clock::Instant());
}

TEST_F(ManualClockTest, MovesByAndTo) {
    clock->advance(3s);
    EXPECT_EQ(clock->now(), Clock::Instant(3s));
    clock->advanceTo(Clock::Instant(10s));
    EXPECT_EQ(clock->now(), Clock::Instant(10s));
}

TEST_F(ManualClockTest, NeverMovesBack) {
    clock->advance(3s);
    clock->advance(-1s);
    clock->advanceTo(Clock::Instant(2s));
    EXPECT_EQ(clock->now(), Clock::Instant(3s));
}

TEST_F(ManualClockTest, ASleeperSleepsUntilItsDeadline) {
    const auto task = sleepFor(2s);
    executor->runAll();
    EXPECT_EQ(clock->sleeperCount(), 1U);
    clock->advance(2s - 1ns);
    executor->runAll();
    EXPECT_FALSE(task.isDone());
    clock->advance(1ns);
    EXPECT_EQ(clock->sleeperCount(), 0U);
    EXPECT_FALSE(task.isDone()) << "the sleeper runs on its executor";
    executor->runAll();
    EXPECT_TRUE(task.outcome().has_value());
}

TEST_F(ManualClockTest, ADeadlineThatHasPassedIsNotWaitedFor) {
    clock->advance(5s);
    const auto task = sleepUntil(Clock::Instant(5s));
    EXPECT_EQ(executor->runAll(), 1U);
    EXPECT_TRUE(task.outcome().has_value());
}

TEST_F(ManualClockTest, SleepersGoOnInTheOrderOfDeadlinesThenOfArrival) {
    std::vector<int> order;
    std::vector<Task<>> tasks;
    const auto sleepAs = [&](int number, Clock::Duration length) {
        tasks.push_back(Task<>::start(
            [this, &order, number, length]() -> Async<> {
                auto sleeping = clock->sleepFor(length);
                co_await std::move(sleeping);
                order.push_back(number);
            },
            {.executor = executor}));
    };
    sleepAs(4, 3s);
    sleepAs(2, 2s);
    sleepAs(1, 1s);
    sleepAs(3, 2s);
    sleepAs(5, 9s);
    executor->runAll();
    clock->advance(8s);
    executor->runAll();
    EXPECT_EQ(order, (std::vector{1, 2, 3, 4}));
    EXPECT_EQ(clock->sleeperCount(), 1U);
    tasks.back().cancel();
    executor->runAll();
}

TEST_F(ManualClockTest, OneThatSleepsAgainSleepsFromTheTimeShown) {
    int naps = 0;
    const auto task = Task<>::start(
        [&]() -> Async<> {
            for (; naps < 2; ++naps) {
                auto sleeping = clock->sleepFor(1s);
                co_await std::move(sleeping);
            }
        },
        {.executor = executor});
    executor->runAll();
    clock->advance(10s);
    executor->runAll();
    EXPECT_EQ(naps, 1);
    clock->advance(1s);
    executor->runAll();
    EXPECT_EQ(naps, 2);
    EXPECT_TRUE(task.isDone());
}

TEST_F(ManualClockTest, CancellingEndsASleepAtOnce) {
    const auto task = sleepFor(2s);
    const auto other = sleepFor(2s);
    executor->runAll();
    task.cancel();
    EXPECT_EQ(clock->sleeperCount(), 1U);
    executor->runAll();
    EXPECT_THROW(std::rethrow_exception(task.outcome().error()), CancellationError);
    EXPECT_FALSE(other.isDone());
    clock->advance(2s);
    executor->runAll();
    EXPECT_TRUE(other.outcome().has_value());
}

TEST_F(ManualClockTest, ACancelledTaskDoesNotSleep) {
    const auto task = sleepFor(0s);
    task.cancel();
    executor->runAll();
    EXPECT_THROW(std::rethrow_exception(task.outcome().error()), CancellationError);
}

TEST_F(ManualClockTest, ASleepWhoseTimeHasComeIsNotCancelledAnyMore) {
    const auto task = sleepFor(1s);
    executor->runAll();
    clock->advance(1s);
    task.cancel();
    executor->runAll();
    EXPECT_TRUE(task.outcome().has_value());
}

RC_GTEST_FIXTURE_PROP(ManualClockTest, AgreesWithAListOfDeadlines, ()) {
    struct Sleeper {
        Clock::Instant deadline;
        Task<> task;
        bool isCancelled = false;
    };
    std::vector<Sleeper> sleepers;
    const int steps = *rc::gen::inRange(0, 60);
    for (int step = 0; step < steps; ++step) {
        const Clock::Duration length{*rc::gen::inRange(-2, 10)};
        switch (*rc::gen::inRange(0, 4)) {
            case 0:
            case 1:
                sleepers.push_back({clock->now() + length, sleepUntil(clock->now() + length)});
                break;
            case 2:
                clock->advance(length);
                break;
            default:
                if (!sleepers.empty()) {
                    const auto index = *rc::gen::inRange<std::size_t>(0, sleepers.size());
                    Sleeper& sleeper = sleepers[index];
                    sleeper.isCancelled |= !sleeper.task.isDone();
                    sleeper.task.cancel();
                }
        }
        executor->runAll();
        std::size_t sleeping = 0;
        for (const Sleeper& sleeper : sleepers) {
            const bool isOver = sleeper.isCancelled || sleeper.deadline <= clock->now();
            RC_ASSERT(sleeper.task.isDone() == isOver);
            if (isOver) {
                RC_ASSERT(sleeper.task.outcome().has_value() == !sleeper.isCancelled);
            }
            sleeping += isOver ? 0 : 1;
        }
        RC_ASSERT(clock->sleeperCount() == sleeping);
    }
    clock->advanceTo(Clock::Instant::max());
    executor->runAll();
}

}  // namespace
}  // namespace vantorq
