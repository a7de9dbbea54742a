#include "VantorqFoundation/testing/ManualExecutor.h"

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "VantorqFoundation/Platform/Actor.h"
#include "VantorqFoundation/Platform/Task.h"

namespace vantorq {
namespace {

using testing::ManualExecutor;

/// The order in which four tasks take their steps, some of them on an actor.
std::string interleaving(const Ref<ManualExecutor>& executor) {
    std::string trace;
    const auto actor = make<Actor>();
    std::vector<Task<>> tasks;
    for (char name = 'a'; name < 'e'; ++name) {
        tasks.push_back(Task<>::start(
            [&trace, &actor, name]() -> Async<> {
                for (int i = 0; i < 4; ++i) {
                    auto step = actor->run([&] { trace.push_back(name); });
                    co_await std::move(step);
                    co_await thisTask::yield();
                }
            },
            {.executor = executor}));
    }
    executor->runAll();
    for (const auto& task : tasks) {
        EXPECT_TRUE(task.isDone());
    }
    return trace;
}

TEST(ManualExecutor, RunsNothingByItself) {
    const auto executor = make<ManualExecutor>();
    bool hasRun = false;
    const auto task = Task<>::start(
        [&hasRun]() -> Async<> {
            hasRun = true;
            co_return;
        },
        {.executor = executor});
    EXPECT_FALSE(hasRun);
    EXPECT_EQ(executor->pendingCount(), 1U);
    EXPECT_TRUE(executor->runOne());
    EXPECT_TRUE(hasRun);
    EXPECT_EQ(executor->pendingCount(), 0U);
    EXPECT_FALSE(executor->runOne());
}

TEST(ManualExecutor, RunsAJobUpToWhereItSuspends) {
    const auto executor = make<ManualExecutor>();
    int steps = 0;
    const auto task = Task<>::start(
        [&steps]() -> Async<> {
            ++steps;
            co_await thisTask::yield();
            ++steps;
        },
        {.executor = executor});
    executor->runOne();
    EXPECT_EQ(steps, 1);
    executor->runOne();
    EXPECT_EQ(steps, 2);
}

TEST(ManualExecutor, RunAllRunsWhatArrivesMeanwhileAndCounts) {
    const auto executor = make<ManualExecutor>();
    const auto task = Task<>::start(
        []() -> Async<> {
            co_await thisTask::yield();
            co_await thisTask::yield();
        },
        {.executor = executor});
    EXPECT_EQ(executor->runAll(), 3U);
    EXPECT_EQ(executor->runAll(), 0U);
}

TEST(ManualExecutor, WithoutASeedTheFirstJobIsNext) {
    EXPECT_EQ(interleaving(make<ManualExecutor>()), "abcdabcdabcdabcd");
}

TEST(ManualExecutor, TheSameSeedChoosesTheSameInterleavingAgain) {
    for (std::uint64_t seed = 0; seed < 20; ++seed) {
        EXPECT_EQ(interleaving(make<ManualExecutor>(seed)),
                  interleaving(make<ManualExecutor>(seed)));
    }
}

TEST(ManualExecutor, OtherSeedsChooseOtherInterleavings) {
    std::set<std::string> traces;
    for (std::uint64_t seed = 0; seed < 20; ++seed) {
        traces.insert(interleaving(make<ManualExecutor>(seed)));
    }
    EXPECT_GT(traces.size(), 10U);
}

}  // namespace
}  // namespace vantorq
