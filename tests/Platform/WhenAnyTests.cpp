#include "VantorqFoundation/Platform/WhenAny.h"

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include "Support/TimedTasks.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/Actor.h"
#include "VantorqFoundation/Platform/Task.h"

namespace vantorq {
namespace {

using namespace std::chrono_literals;
using test::Counted;
using test::Gate;
using test::Token;

class WhenAnyTest : public test::TimedTasksTest {
protected:
    /// Holds the token, and waits at the gate whatever happens.
    Async<int> behindGate(Ref<Token>, bool isToFail = false) {
        co_await gate.wait();
        if (isToFail) {
            throw std::logic_error("dropped");
        }
        co_return 1;
    }
};

TEST_F(WhenAnyTest, GivesTheFirstToEndInItsPlace) {
    const auto task = start([this] {
        return whenAny(after(3s, 1), after(1s, std::string("two")), clock->sleepFor(2s));
    });
    EXPECT_EQ(clock->sleeperCount(), 3U);
    advance(1s);
    ASSERT_TRUE(task.isDone());
    const auto first = task.outcome().value();
    EXPECT_EQ(first.index(), 1U);
    EXPECT_EQ(std::get<1>(first), "two");
}

TEST_F(WhenAnyTest, GivesTheFirstOfAListWithItsIndex) {
    const auto task = start([this] {
        std::vector<Async<int>> functions;
        for (int i = 0; i < 5; ++i) {
            functions.push_back(after((5 - i) * 1s, 10 * i));
        }
        return whenAny(std::move(functions));
    });
    advance(1s);
    EXPECT_EQ(task.outcome().value(), (WhenAnyResult<int>{4, 40}));
}

TEST_F(WhenAnyTest, FunctionsOfOneTypeAreToldApartByTheirPlace) {
    const auto task = start([this] { return whenAny(after(2s, 1), after(1s, 1)); });
    advance(1s);
    EXPECT_EQ(task.outcome().value().index(), 1U);
}

TEST_F(WhenAnyTest, AFunctionWithoutAValueGivesAPlaceholder) {
    const auto task = start([this] { return whenAny(clock->sleepFor(1s), after(2s, 2)); });
    advance(1s);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(task.outcome().value()));
}

TEST_F(WhenAnyTest, AValueThatCanOnlyBeMovedIsMoved) {
    const auto boxed = []() -> Async<std::unique_ptr<int>> { co_return std::make_unique<int>(3); };
    EXPECT_EQ(*std::get<0>(syncWait(whenAny(boxed()))), 3);
    std::vector<Async<std::unique_ptr<int>>> functions;
    functions.push_back(boxed());
    EXPECT_EQ(*syncWait(whenAny(std::move(functions))).value, 3);
}

TEST_F(WhenAnyTest, OfResultsThatAreThereAlreadyTheFirstWins) {
    const auto task = start([] { return whenAny(Async<int>::ready(1), Async<int>::ready(2)); });
    EXPECT_EQ(task.outcome().value().index(), 0U);
    EXPECT_EQ(std::get<0>(task.outcome().value()), 1);
}

TEST_F(WhenAnyTest, TheErrorOfTheFirstToEndIsThrown) {
    const auto task =
        start([this] { return whenAny(after(2s, 1), failAfter(1s, std::runtime_error("no"))); });
    advance(1s);
    EXPECT_EQ(clock->sleeperCount(), 0U);
    EXPECT_THROW(std::rethrow_exception(task.outcome().error()), std::runtime_error);
}

TEST_F(WhenAnyTest, TheErrorOfALoserIsDropped) {
    const auto task =
        start([this] { return whenAny(after(1s, 1), behindGate(make<Token>(), true)); });
    advance(1s);
    gate.open();
    executor->runAll();
    EXPECT_EQ(std::get<0>(task.outcome().value()), 1);
}

TEST_F(WhenAnyTest, LosersAreCancelled) {
    const auto task = start([this] { return whenAny(after(1s, 1), after(2s, 2), after(3s, 3)); });
    advance(1s);
    EXPECT_EQ(clock->sleeperCount(), 0U);
    EXPECT_TRUE(task.isDone());
}

TEST_F(WhenAnyTest, ALoserThatDoesNotNoticeItsCancellationIsWaitedFor) {
    const int before = Counted::living;
    const auto task = start([this] { return whenAny(after(1s, 1), behindGate(make<Token>())); });
    advance(1s);
    EXPECT_FALSE(task.isDone());
    EXPECT_EQ(Counted::living, before + 1);
    gate.open();
    executor->runAll();
    EXPECT_EQ(std::get<0>(task.outcome().value()), 1);
    EXPECT_EQ(Counted::living, before);
}

TEST_F(WhenAnyTest, CancellingTheCallerCancelsAll) {
    const auto task = start([this] { return whenAny(after(1s, 1), after(2s, 2)); });
    task.cancel();
    executor->runAll();
    EXPECT_EQ(clock->sleeperCount(), 0U);
    EXPECT_THROW(std::rethrow_exception(task.outcome().error()), CancellationError);
}

TEST_F(WhenAnyTest, InACancelledTaskAllAreCancelledFromTheStart) {
    const auto sees = []() -> Async<bool> { co_return thisTask::isCancelled(); };
    const auto task = Task<std::variant<bool, bool>>::start([&] { return whenAny(sees(), sees()); },
                                                            {.executor = executor});
    task.cancel();
    executor->runAll();
    EXPECT_EQ(task.outcome().value(), (std::variant<bool, bool>(std::in_place_index<0>, true)));
}

TEST_F(WhenAnyTest, StartsOnNoActorAndGoesBackToTheCallers) {
    const auto actor = make<Actor>();
    const auto task = start([&]() -> Async<bool> {
        co_await actor->enter();
        auto one = whenAny(actorOfStart());
        const auto where = co_await std::move(one);
        co_return std::get<0>(where) == nullptr && actor->isCurrent();
    });
    EXPECT_TRUE(task.outcome().value());
}

TEST_F(WhenAnyTest, OfNothingTraps) {
    EXPECT_TRAP((void)syncWait(whenAny(std::vector<Async<int>>())), "whenAny: nothing to wait for");
}

TEST_F(WhenAnyTest, OneThatIsNeverAwaitedNeverRunsAndFreesWhatItWasGiven) {
    const int before = Counted::living;
    {
        const auto pending = whenAny(behindGate(make<Token>()), behindGate(make<Token>()));
        EXPECT_EQ(Counted::living, before + 2);
    }
    EXPECT_EQ(gate.waiterCount(), 0U);
    EXPECT_EQ(Counted::living, before);
}

}  // namespace
}  // namespace vantorq
