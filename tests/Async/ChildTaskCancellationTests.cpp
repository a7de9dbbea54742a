#include <chrono>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/TimedTasks.h"
#include "VantorqFoundation/CallbackBridges.h"
#include "VantorqFoundation/Platform/AsyncStream.h"
#include "VantorqFoundation/Platform/WhenAll.h"
#include "VantorqFoundation/Platform/WhenAny.h"
#include "VantorqFoundation/WithTimeout.h"

// What `whenAll`, `whenAny` and `withTimeout` cancel need not be a sleep: whatever their functions
// wait for is told, however deep it stands.

namespace vantorq {
namespace {

using namespace std::chrono_literals;

class ChildTaskTest : public test::TimedTasksTest {
public:
    /// Waits for a callback that never comes.
    Async<> atBridge() {
        auto pending = withCancellableThrowingSuccessHandler<void>(
            [this](const auto&) { return [this] { told.emplace_back("bridge"); }; });
        co_await std::move(pending);
    }
    /// Waits for a stream that nobody writes to.
    Async<> atStream() {
        const auto [stream, continuation] = AsyncStream<int>::makeStream();
        continuation.setOnTermination([this](const StreamTermination& how) {
            const bool isCancelled = how.kind == StreamTermination::Kind::cancelled;
            told.emplace_back(isCancelled ? "stream" : "finished");
        });
        auto iterator = stream.makeAsyncIterator();
        (void)co_await iterator.next();
    }

    using TimedTasksTest::after;
    using TimedTasksTest::clock;
    using TimedTasksTest::failAfter;

protected:
    std::vector<std::string> told;
};

template <class T>
Async<> withoutValue(Async<T> async) {
    (void)co_await std::move(async);
}

/// A function that waits, among others that outlive it or that decide after a second.
struct Family {
    const char* name;
    Async<> (*around)(ChildTaskTest& test, Async<> waiting);
};
constexpr Family kFamilies[] = {
    {"WhenAll",
     [](ChildTaskTest& test, Async<> waiting) {
         return withoutValue(whenAll(test.after(1h, 1), std::move(waiting),
                                     test.failAfter(1s, std::runtime_error("no"))));
     }},
    {"WhenAny",
     [](ChildTaskTest& test, Async<> waiting) {
         return withoutValue(whenAny(test.after(1h, 1), std::move(waiting), test.after(1s, 1)));
     }},
    {"WithTimeout",
     [](ChildTaskTest& test, Async<> waiting) {
         return withTimeout(1s, std::move(waiting), test.clock);
     }},
    {"WhenAnyInWhenAny",
     [](ChildTaskTest& test, Async<> waiting) {
         auto inner = whenAny(std::move(waiting), test.after(1h, 1));
         return withoutValue(whenAny(std::move(inner), test.after(1s, 1)));
     }},
    {"WhenAllInWithTimeout",
     [](ChildTaskTest& test, Async<> waiting) {
         auto inner = whenAll(std::move(waiting), test.after(1h, 1));
         return withoutValue(withTimeout(1s, std::move(inner), test.clock));
     }},
    {"WithTimeoutInWhenAll",
     [](ChildTaskTest& test, Async<> waiting) {
         auto inner = withTimeout(1h, std::move(waiting), test.clock);
         return withoutValue(
             whenAll(std::move(inner), test.failAfter(1s, std::runtime_error("no"))));
     }},
};

void PrintTo(const Family& family, std::ostream* out) {
    *out << family.name;
}

class ChildTaskCancellation : public ChildTaskTest, public ::testing::WithParamInterface<Family> {
protected:
    /// The family in a task, once around each kind of waiting.
    std::vector<Task<>> startAroundEach() {
        std::vector<Task<>> tasks;
        tasks.push_back(start([this] { return GetParam().around(*this, atBridge()); }));
        tasks.push_back(start([this] { return GetParam().around(*this, atStream()); }));
        EXPECT_TRUE(told.empty());
        return tasks;
    }
    void expectAllOver(const std::vector<Task<>>& tasks) {
        EXPECT_EQ(told, (std::vector<std::string>{"bridge", "stream"})) << "each is told once";
        EXPECT_EQ(clock->sleeperCount(), 0U);
        for (const auto& task : tasks) {
            EXPECT_TRUE(task.isDone());
        }
    }
};

TEST_P(ChildTaskCancellation, OfTheCallerReachesABridgeAndAStream) {
    const auto tasks = startAroundEach();
    for (const auto& task : tasks) {
        task.cancel();
    }
    executor->runAll();
    expectAllOver(tasks);
}

TEST_P(ChildTaskCancellation, OfTheOthersByTheOneThatDecidesReachesABridgeAndAStream) {
    const auto tasks = startAroundEach();
    advance(1s);
    expectAllOver(tasks);
}

TEST_P(ChildTaskCancellation, OfACallerBeforehandReachesABridgeAndAStream) {
    std::vector<Task<>> tasks;
    for (const auto wait : {&ChildTaskTest::atBridge, &ChildTaskTest::atStream}) {
        const auto begin = [this, wait] { return GetParam().around(*this, (this->*wait)()); };
        tasks.push_back(Task<>::start(begin, {.executor = executor}));
        tasks.back().cancel();
    }
    executor->runAll();
    expectAllOver(tasks);
}

INSTANTIATE_TEST_SUITE_P(Families, ChildTaskCancellation, ::testing::ValuesIn(kFamilies),
                         [](const auto& suite) { return std::string(suite.param.name); });

}  // namespace
}  // namespace vantorq
