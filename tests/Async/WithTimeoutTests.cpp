#include "VantorqFoundation/WithTimeout.h"

#include <chrono>
#include <exception>
#include <memory>
#include <stdexcept>
#include <utility>

#include <gtest/gtest.h>

#include "Support/TimedTasks.h"
#include "VantorqFoundation/Platform/Actor.h"
#include "VantorqFoundation/Platform/ContinuousClock.h"
#include "VantorqFoundation/Platform/Task.h"

namespace vantorq {
namespace {

using namespace std::chrono_literals;
using test::Counted;
using test::Gate;
using test::Token;

/// Whether it is the library's time-out, with this reason.
void expectTimeout(const std::exception_ptr& exception, NSString& reason) {
    try {
        std::rethrow_exception(exception);
    } catch (const NSErrorException& thrown) {
        EXPECT_TRUE(thrown.error()->domain()->isEqual(&VNTQFoundationErrorDomain));
        EXPECT_EQ(thrown.error()->code(), 1);
        EXPECT_TRUE(thrown.error()->localizedFailureReason()->isEqual(&reason));
    } catch (...) {
        ADD_FAILURE() << "another error";
    }
}

class WithTimeoutTest : public test::TimedTasksTest {
protected:
    /// Holds the token, and waits at the gate whatever happens.
    Async<int> behindGate(Ref<Token>) {
        co_await gate.wait();
        co_return 7;
    }
    Task<int> start(Clock::Duration limit, Async<int> function) {
        auto pending = withTimeout(limit, std::move(function), clock);
        return TimedTasksTest::start(
            [pending = std::move(pending)]() mutable { return std::move(pending); });
    }
};

TEST_F(WithTimeoutTest, GivesTheValueThatCameInTime) {
    const auto task = start(2s, after(1s, 5));
    advance(1s);
    EXPECT_EQ(task.outcome().value(), 5);
    EXPECT_EQ(clock->sleeperCount(), 0U) << "the timer is gone";
}

TEST_F(WithTimeoutTest, AFunctionWithoutAValue) {
    const auto task = Task<>::start([this] { return withTimeout(2s, clock->sleepFor(1s), clock); },
                                    {.executor = executor});
    executor->runAll();
    advance(1s);
    EXPECT_TRUE(task.outcome().has_value());
}

TEST_F(WithTimeoutTest, AValueThatCanOnlyBeMovedIsMoved) {
    const auto boxed = []() -> Async<std::unique_ptr<int>> { co_return std::make_unique<int>(3); };
    EXPECT_EQ(*syncWait(withTimeout(1h, boxed(), clock)), 3);
}

TEST_F(WithTimeoutTest, ThrowsWhatTheFunctionThrows) {
    const auto fail = []() -> Async<int> {
        throw std::runtime_error("no");
        co_return 0;
    };
    const auto task = start(2s, fail());
    EXPECT_THROW(std::rethrow_exception(task.outcome().error()), std::runtime_error);
    EXPECT_EQ(clock->sleeperCount(), 0U);
}

TEST_F(WithTimeoutTest, WhenTheTimeHasRunOutTheFunctionIsCancelledAndTheTimeoutThrown) {
    const auto task = start(1500ms, after(2s, 5));
    advance(1499ms);
    EXPECT_FALSE(task.isDone());
    advance(1ms);
    EXPECT_EQ(clock->sleeperCount(), 0U);
    ASSERT_TRUE(task.isDone());
    expectTimeout(task.outcome().error(), "Timeout waiting 1.5 seconds for completion"_ns);
}

TEST_F(WithTimeoutTest, AFunctionThatDoesNotNoticeItsCancellationIsWaitedFor) {
    const int before = Counted::living;
    const auto task = start(30s, behindGate(make<Token>()));
    advance(30s);
    EXPECT_FALSE(task.isDone());
    EXPECT_EQ(Counted::living, before + 1);
    gate.open();
    executor->runAll();
    ASSERT_TRUE(task.isDone());
    EXPECT_EQ(Counted::living, before);
    expectTimeout(task.outcome().error(), "Timeout waiting 30.0 seconds for completion"_ns);
}

TEST_F(WithTimeoutTest, TheTimeCountsFromTheAwait) {
    auto pending = withTimeout(2s, after(1s, 5), clock);
    clock->advance(10s);
    const auto task =
        Task<int>::start([&pending] { return std::move(pending); }, {.executor = executor});
    executor->runAll();
    advance(1s);
    EXPECT_EQ(task.outcome().value(), 5);
}

TEST_F(WithTimeoutTest, WithoutAnyTimeTheFunctionDoesNotRun) {
    for (const Clock::Duration none : {Clock::Duration(0s), Clock::Duration(-1s)}) {
        bool hasRun = false;
        const auto run = [&hasRun]() -> Async<int> {
            hasRun = true;
            co_return 1;
        };
        const auto task = start(none, run());
        EXPECT_FALSE(hasRun);
        EXPECT_THROW(std::rethrow_exception(task.outcome().error()), NSErrorException);
    }
}

TEST_F(WithTimeoutTest, ATimeBeyondAllIsNeverOver) {
    const auto task = start(Clock::Duration::max(), behindGate(make<Token>()));
    advance(Clock::Duration::max() - 1ns);
    EXPECT_EQ(clock->sleeperCount(), 1U) << "the time is not over";
    EXPECT_FALSE(task.isDone());
    gate.open();
    executor->runAll();
    EXPECT_EQ(task.outcome().value(), 7);
}

TEST_F(WithTimeoutTest, StartsOnNoActorAndGoesBackToTheCallers) {
    const auto actor = make<Actor>();
    const auto task = TimedTasksTest::start([&]() -> Async<bool> {
        co_await actor->enter();
        auto one = withTimeout(1s, actorOfStart(), clock);
        const Actor* const where = co_await std::move(one);
        co_return where == nullptr && actor->isCurrent();
    });
    EXPECT_TRUE(task.outcome().value());
}

TEST_F(WithTimeoutTest, CancellingTheCallerCancelsTheFunction) {
    const auto task = start(5s, after(2s, 5));
    task.cancel();
    executor->runAll();
    EXPECT_EQ(clock->sleeperCount(), 0U);
    EXPECT_THROW(std::rethrow_exception(task.outcome().error()), CancellationError);
}

TEST_F(WithTimeoutTest, ACancelledCallerGetsWhatTheFunctionStillGives) {
    const auto task = start(5s, behindGate(make<Token>()));
    task.cancel();
    executor->runAll();
    EXPECT_EQ(clock->sleeperCount(), 0U);
    gate.open();
    executor->runAll();
    EXPECT_EQ(task.outcome().value(), 7);
}

TEST_F(WithTimeoutTest, TheInnerOfTwoRunsOutFirst) {
    auto inner = withTimeout(1s, after(9s, 5), clock);
    const auto task = start(2s, std::move(inner));
    advance(1s);
    ASSERT_TRUE(task.isDone());
    expectTimeout(task.outcome().error(), "Timeout waiting 1.0 seconds for completion"_ns);
    EXPECT_EQ(clock->sleeperCount(), 0U);
}

TEST_F(WithTimeoutTest, AClockThatCannotSleepEndsTheWait) {
    class BrokenClock final : public Clock {
    public:
        [[nodiscard]] Instant now() const noexcept override { return {}; }
        Async<> sleep(Instant) override {
            throw std::logic_error("broken");
            co_return;
        }
    };
    const auto task =
        Task<int>::start([this] { return withTimeout(1s, after(2s, 5), make<BrokenClock>()); },
                         {.executor = executor});
    executor->runAll();
    EXPECT_THROW(std::rethrow_exception(task.outcome().error()), std::logic_error);
}

TEST_F(WithTimeoutTest, GoesByTheMachinesClockByItself) {
    const auto begin = ContinuousClock::now();
    try {
        syncWait(withTimeout(3ms, ContinuousClock::sleepFor(1h)));
        ADD_FAILURE() << "the time is not over";
    } catch (const NSErrorException&) {
        expectTimeout(std::current_exception(), "Timeout waiting 0.0 seconds for completion"_ns);
    }
    EXPECT_GE(ContinuousClock::now() - begin, 3ms);
}

}  // namespace
}  // namespace vantorq
