#include "VantorqFoundation/Platform/WhenAll.h"

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include "Support/TimedTasks.h"
#include "VantorqFoundation/Platform/Actor.h"
#include "VantorqFoundation/Platform/Task.h"

namespace vantorq {
namespace {

using namespace std::chrono_literals;
using test::Counted;
using test::Gate;
using test::Token;

class WhenAllTest : public test::TimedTasksTest {
protected:
    /// Holds the token, waits at the gate whatever happens, and notes whether it was cancelled.
    Async<int> behindGate(Ref<Token>) {
        co_await gate.wait();
        sawCancellation = thisTask::isCancelled();
        co_return 1;
    }

    bool sawCancellation = false;
};

TEST_F(WhenAllTest, GivesTheValuesInTheOrderOfTheArguments) {
    const auto task =
        start([this] { return whenAll(after(2s, 1), after(1s, std::string("two"))); });
    EXPECT_EQ(clock->sleeperCount(), 2U);
    advance(1s);
    EXPECT_FALSE(task.isDone());
    advance(1s);
    EXPECT_EQ(task.outcome().value(), std::tuple(1, std::string("two")));
}

TEST_F(WhenAllTest, GivesTheValuesOfAListInItsOrder) {
    const auto task = start([this] {
        std::vector<Async<int>> functions;
        for (int i = 0; i < 10; ++i) {
            functions.push_back(after((10 - i) * 1s, i));
        }
        return whenAll(std::move(functions));
    });
    advance(10s);
    EXPECT_EQ(task.outcome().value(), (std::vector{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
}

TEST_F(WhenAllTest, AFunctionWithoutAValueGivesAPlaceholder) {
    const auto one = [this] { return whenAll(clock->sleepFor(1s), after(1s, 2)); };
    const auto task = start(one);
    const auto listed = start([this] {
        std::vector<Async<>> functions;
        functions.push_back(clock->sleepFor(1s));
        functions.push_back(clock->sleepFor(1s));
        return whenAll(std::move(functions));
    });
    advance(1s);
    EXPECT_EQ(task.outcome().value(), std::tuple(std::monostate(), 2));
    EXPECT_EQ(listed.outcome().value().size(), 2U);
}

TEST_F(WhenAllTest, AValueThatCanOnlyBeMovedIsMoved) {
    const auto boxed = [](int value) -> Async<std::unique_ptr<int>> {
        co_return std::make_unique<int>(value);
    };
    auto [first, second] = syncWait(whenAll(boxed(1), boxed(2)));
    EXPECT_EQ(*first + *second, 3);
    std::vector<Async<std::unique_ptr<int>>> functions;
    functions.push_back(boxed(4));
    EXPECT_EQ(*syncWait(whenAll(std::move(functions))).front(), 4);
}

TEST_F(WhenAllTest, NoneAtAllIsNotWaitedFor) {
    EXPECT_EQ(syncWait(whenAll()), std::tuple<>());
    EXPECT_TRUE(syncWait(whenAll(std::vector<Async<int>>())).empty());
}

TEST_F(WhenAllTest, ResultsThatAreThereAlready) {
    const auto task =
        start([] { return whenAll(Async<int>::ready(1), Async<>::ready(), Async<int>::ready(3)); });
    EXPECT_EQ(task.outcome().value(), std::tuple(1, std::monostate(), 3));
}

TEST_F(WhenAllTest, RunsSideBySideOnThePool) {
    Gate there;
    const auto here = [&]() -> Async<int> {
        co_await gate.wait();
        there.open();
        co_return 1;
    };
    const auto other = [&]() -> Async<int> {
        gate.open();
        co_await there.wait();
        co_return 2;
    };
    EXPECT_EQ(syncWait(whenAll(here(), other())), std::tuple(1, 2));
}

TEST_F(WhenAllTest, WhenOneThrowsTheOthersAreCancelledAndItsErrorIsThrown) {
    const auto task = start([this] {
        return whenAll(after(5s, 1), failAfter(1s, std::runtime_error("first")), after(9s, 3));
    });
    advance(1s);
    EXPECT_EQ(clock->sleeperCount(), 0U);
    ASSERT_TRUE(task.isDone());
    EXPECT_THROW(std::rethrow_exception(task.outcome().error()), std::runtime_error);
}

TEST_F(WhenAllTest, TheErrorIsTheOneThatWasThrownFirst) {
    const auto task = start([this] {
        std::vector<Async<int>> functions;
        functions.push_back(failAfter(2s, std::runtime_error("second")));
        functions.push_back(failAfter(1s, std::logic_error("first")));
        return whenAll(std::move(functions));
    });
    advance(1s);
    EXPECT_THROW(std::rethrow_exception(task.outcome().error()), std::logic_error);
}

TEST_F(WhenAllTest, OneThatDoesNotNoticeItsCancellationIsWaitedFor) {
    const int before = Counted::living;
    const auto task = start([this] {
        return whenAll(failAfter(1s, std::runtime_error("no")), behindGate(make<Token>()));
    });
    advance(1s);
    EXPECT_FALSE(task.isDone());
    EXPECT_EQ(Counted::living, before + 1);
    gate.open();
    executor->runAll();
    EXPECT_TRUE(sawCancellation);
    EXPECT_EQ(Counted::living, before);
    EXPECT_THROW(std::rethrow_exception(task.outcome().error()), std::runtime_error);
}

TEST_F(WhenAllTest, CancellingTheCallerCancelsAll) {
    const auto task = start([this] { return whenAll(after(1s, 1), after(2s, 2)); });
    task.cancel();
    executor->runAll();
    EXPECT_EQ(clock->sleeperCount(), 0U);
    EXPECT_THROW(std::rethrow_exception(task.outcome().error()), CancellationError);
}

TEST_F(WhenAllTest, CancellationReachesThroughNestedAwaits) {
    const auto inner = [this]() -> Async<int> {
        auto both = whenAll(after(1s, 1), after(1s, 2));
        const auto [first, second] = co_await std::move(both);
        co_return first + second;
    };
    const auto task = start([&] { return whenAll(inner(), inner()); });
    EXPECT_EQ(clock->sleeperCount(), 4U);
    task.cancel();
    executor->runAll();
    EXPECT_EQ(clock->sleeperCount(), 0U);
    EXPECT_THROW(std::rethrow_exception(task.outcome().error()), CancellationError);
}

TEST_F(WhenAllTest, InACancelledTaskAllAreCancelledFromTheStart) {
    const auto sees = []() -> Async<bool> { co_return thisTask::isCancelled(); };
    const auto task = Task<std::tuple<bool, bool>>::start([&] { return whenAll(sees(), sees()); },
                                                          {.executor = executor});
    task.cancel();
    executor->runAll();
    EXPECT_EQ(task.outcome().value(), std::tuple(true, true));
}

TEST_F(WhenAllTest, ACallerThatIsNotCancelledGoesOnAfterAnError) {
    const auto task = start([this]() -> Async<int> {
        auto all = whenAll(failAfter(1s, std::runtime_error("no")), after(2s, 2));
        bool hasFailed = false;
        try {
            (void)co_await std::move(all);
        } catch (const std::runtime_error&) {
            hasFailed = true;
        }
        EXPECT_TRUE(hasFailed);
        EXPECT_FALSE(thisTask::isCancelled());
        auto again = after(1s, 7);
        co_return co_await std::move(again);
    });
    advance(1s);
    advance(1s);
    EXPECT_EQ(task.outcome().value(), 7);
}

TEST_F(WhenAllTest, StartsOnNoActorAndGoesBackToTheCallers) {
    const auto actor = make<Actor>();
    const auto task = start([&]() -> Async<bool> {
        co_await actor->enter();
        auto both = whenAll(actorOfStart(), actorOfStart());
        const auto [first, second] = co_await std::move(both);
        co_return first == nullptr&& second == nullptr && actor->isCurrent();
    });
    EXPECT_TRUE(task.outcome().value());
}

TEST_F(WhenAllTest, OneThatIsNeverAwaitedNeverRunsAndFreesWhatItWasGiven) {
    const int before = Counted::living;
    gate.open();
    {
        const auto pending = whenAll(behindGate(make<Token>()), behindGate(make<Token>()));
        EXPECT_EQ(Counted::living, before + 2);
    }
    EXPECT_EQ(Counted::living, before);
}

TEST_F(WhenAllTest, EverythingIsGoneWhenItHasEnded) {
    const int before = Counted::living;
    {
        const auto task =
            start([this] { return whenAll(behindGate(make<Token>()), after(1s, make<Token>())); });
        EXPECT_EQ(Counted::living, before + 2);
        gate.open();
        advance(1s);
        EXPECT_TRUE(task.isDone());
        EXPECT_EQ(Counted::living, before + 1) << "the value";
    }
    EXPECT_EQ(Counted::living, before);
}

}  // namespace
}  // namespace vantorq
