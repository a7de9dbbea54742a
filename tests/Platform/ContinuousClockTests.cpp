#include "VantorqFoundation/Platform/ContinuousClock.h"

#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <latch>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Tasks.h"
#include "Support/Threads.h"
#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

namespace vantorq {
namespace {

using namespace std::chrono_literals;
using testing::ManualExecutor;

static_assert(std::chrono::is_clock_v<ContinuousClock>);
static_assert(ContinuousClock::is_steady);

std::chrono::nanoseconds bootTime() {
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

/// How many timers of the process go by this clock of the system.
int countTimersOf(clockid_t clock) {
    const std::string wanted = "clockid: " + std::to_string(clock);
    int count = 0;
    for (const auto& file : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
        std::ifstream lines(file.path());
        for (std::string line; std::getline(lines, line);) {
            count += line == wanted ? 1 : 0;
        }
    }
    return count;
}

TEST(ContinuousClock, ShowsTheTimeSinceTheStartOfTheMachineSleepIncluded) {
    const auto before = bootTime();
    const auto now = ContinuousClock::now();
    EXPECT_LE(before, now.time_since_epoch());
    EXPECT_LE(now.time_since_epoch(), bootTime());
}

TEST(ContinuousClock, ASleepEndsNotBeforeItsDeadline) {
    const auto deadline = ContinuousClock::now() + 3ms;
    syncWait(ContinuousClock::sleep(deadline));
    EXPECT_GE(ContinuousClock::now(), deadline);
}

TEST(ContinuousClock, ASleepForALengthOfTime) {
    const auto begin = ContinuousClock::now();
    syncWait(ContinuousClock::sleepFor(3ms));
    EXPECT_GE(ContinuousClock::now() - begin, 3ms);
}

TEST(ContinuousClock, ADeadlineThatHasPassedIsNotWaitedFor) {
    for (const auto deadline : {ContinuousClock::now(), ContinuousClock::time_point::min()}) {
        const auto executor = make<ManualExecutor>();
        const auto task = Task<>::start([deadline] { return ContinuousClock::sleep(deadline); },
                                        {.executor = executor});
        EXPECT_EQ(executor->runAll(), 1U);
        EXPECT_TRUE(task.outcome().has_value());
    }
}

TEST(ContinuousClock, SleepsWithATimerThatCountsOnWhileTheMachineSleeps) {
    const auto executor = make<ManualExecutor>();
    const auto task =
        Task<>::start([] { return ContinuousClock::sleepFor(1h); }, {.executor = executor});
    executor->runAll();
    EXPECT_EQ(countTimersOf(CLOCK_BOOTTIME), 1);
    task.cancel();
    executor->runAll();
    EXPECT_TRUE(task.isDone());
}

TEST(ContinuousClock, CancellingEndsASleepAtOnce) {
    const auto executor = make<ManualExecutor>();
    for (const auto length : {std::chrono::nanoseconds(1h), std::chrono::nanoseconds::max()}) {
        const auto task = Task<>::start([length] { return ContinuousClock::sleepFor(length); },
                                        {.executor = executor});
        executor->runAll();
        EXPECT_FALSE(task.isDone());
        task.cancel();
        EXPECT_EQ(executor->runAll(), 1U);
        EXPECT_THROW(std::rethrow_exception(task.outcome().error()), CancellationError);
    }
}

TEST(ContinuousClock, ACancelledTaskDoesNotSleep) {
    const auto executor = make<ManualExecutor>();
    for (const auto length : {0ns, std::chrono::nanoseconds(1h)}) {
        const auto task = Task<>::start([length] { return ContinuousClock::sleepFor(length); },
                                        {.executor = executor});
        task.cancel();
        EXPECT_EQ(executor->runAll(), 1U);
        EXPECT_THROW(std::rethrow_exception(task.outcome().error()), CancellationError);
    }
}

TEST(ContinuousClock, AShortSleepEndsBesideALongOne) {
    const auto sleep = [](std::chrono::nanoseconds length) {
        return Task<>::start([length] { return ContinuousClock::sleepFor(length); });
    };
    const auto longOne = sleep(1h);
    syncWait(sleep(2ms));
    syncWait(sleep(1ms));
    EXPECT_FALSE(longOne.isDone());
    longOne.cancel();
    EXPECT_THROW(syncWait(longOne), CancellationError);
}

TEST(ContinuousClock, ManySleepAtOnce) {
    std::vector<Task<bool>> tasks;
    for (int i = 0; i < 500; ++i) {
        tasks.push_back(Task<bool>::start([i]() -> Async<bool> {
            const auto deadline = ContinuousClock::now() + i * 7 % 50 * 100us;
            auto sleeping = ContinuousClock::sleep(deadline);
            co_await std::move(sleeping);
            co_return ContinuousClock::now() >= deadline;
        }));
    }
    for (const auto& task : tasks) {
        EXPECT_TRUE(syncWait(task));
    }
}

}  // namespace
}  // namespace vantorq
