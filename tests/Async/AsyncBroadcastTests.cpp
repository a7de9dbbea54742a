#include "VantorqFoundation/AsyncBroadcast.h"

#include <concepts>
#include <coroutine>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/AsyncSources.h"
#include "Support/Threads.h"
#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

namespace vantorq {
namespace {

using test::Manner;
using test::Source;
using Shared = AsyncBroadcast<Source>;
using Iterator = Shared::AsyncIterator;

static_assert(AsyncSequence<Shared>);
static_assert(std::same_as<AsyncElementOf<Shared>, test::Item>);
static_assert(std::same_as<AsyncIteratorOf<Shared>, Iterator>);
static_assert(!std::default_initializable<test::Item>);

const auto kUnbounded = BufferingPolicy::unbounded();

/// One call of `next`, in a task of its own.
struct Call {
    Task<std::string> task;

    /// "waiting", or what has come: the number of an item, "end" or "error".
    [[nodiscard]] std::string text() const {
        return task.isDone() ? task.outcome().value() : "waiting";
    }
};

/// Everything runs when the test says so, on its thread. At the end nothing may be left.
class AsyncBroadcastTest : public ::testing::Test {
protected:
    Ref<Shared> share(Source::Plan plan, BufferingPolicy policy) {
        const Source source(plan, census_);
        source_ = Ref<Source::Account>(&source.account());
        auto shared = broadcast(source, policy);
        broadcasts_.emplace_back(shared);
        return shared;
    }

    /// Calls `next` in a task, which does not await what that gives.
    void ask(Iterator& iterator) {
        const auto asking = [&iterator]() -> Async<> {
            (void)iterator.next();
            co_return;
        };
        (void)Task<>::start(asking, {.executor = executor_});
        executor_->runAll();
    }
    Call call(Iterator& iterator) {
        return {Task<std::string>::start([this, &iterator] { return wordFrom(iterator); },
                                         {.executor = executor_})};
    }
    /// The same, and lets everything run that can.
    Call callAndRun(Iterator& iterator) {
        Call made = call(iterator);
        executor_->runAll();
        return made;
    }
    std::string next(Iterator& iterator) { return callAndRun(iterator).text(); }
    /// So many calls, one after the other.
    std::string next(Iterator& iterator, int count) {
        std::string words = next(iterator);
        while (--count > 0) {
            words += " " + next(iterator);
        }
        return words;
    }
    /// Up to the end or an error.
    std::string rest(Iterator& iterator) {
        std::string words;
        for (;;) {
            const std::string word = next(iterator);
            words += word;
            if (word == "end" || word == "error" || word == "waiting") {
                return words;
            }
            words += " ";
        }
    }
    void openGate() {
        source_->gate.open();
        executor_->runAll();
    }
    [[nodiscard]] bool isReading() const { return source_->gate.isWaitedAt(); }
    [[nodiscard]] int readings() const { return source_->calls; }

    void TearDown() override {
        EXPECT_EQ(executor_->pendingCount(), 0U);
        EXPECT_EQ(census_.items, 0);
        EXPECT_EQ(census_.sourceIterators, 0) << "a broadcast or a reading is left";
        EXPECT_EQ(census_.consumers, 0);
        for (const auto& shared : broadcasts_) {
            EXPECT_EQ(shared.load().get(), nullptr);
        }
        EXPECT_EQ(executor_->ownerCount(), 1U) << "a task is left";
    }

    Ref<testing::ManualExecutor> executor_ = make<testing::ManualExecutor>();
    test::Census census_;
    Ref<Source::Account> source_;

private:
    Async<std::string> wordFrom(Iterator& iterator) {
        const test::CensusMember alive(census_.consumers);
        try {
            auto pending = iterator.next();
            const auto item = co_await std::move(pending);
            co_return item.has_value() ? std::to_string(item->value) : std::string("end");
        } catch (const test::SourceError& error) {
            co_return error.what();
        }
    }

    std::vector<Weak<Shared>> broadcasts_;
};

std::string nameOf(Manner manner) {
    return manner == Manner::atOnce ? "AtOnce" : manner == Manner::atGate ? "AtGate" : "Yielding";
}

/// The same for each manner in which a source can give its results.
class AsyncBroadcastOfAnySource : public AsyncBroadcastTest,
                                  public ::testing::WithParamInterface<Manner> {
protected:
    /// Lets the reading go on for as long as there is one.
    void runReadings() {
        executor_->runAll();
        while (isReading()) {
            openGate();
        }
    }
    std::string read(Iterator& iterator) {
        const Call made = call(iterator);
        runReadings();
        return made.text();
    }
    std::string read(Iterator& iterator, int count) {
        std::string words = read(iterator);
        while (--count > 0) {
            words += " " + read(iterator);
        }
        return words;
    }
    Ref<Shared> shareItems(int count, BufferingPolicy policy = kUnbounded) {
        return share({count, false, GetParam()}, policy);
    }
    Ref<Shared> shareFailing(int count) { return share({count, true, GetParam()}, kUnbounded); }
};

INSTANTIATE_TEST_SUITE_P(Manners, AsyncBroadcastOfAnySource,
                         ::testing::Values(Manner::atOnce, Manner::atGate, Manner::yielding),
                         [](const auto& suite) { return nameOf(suite.param); });

// What everybody receives.

TEST_P(AsyncBroadcastOfAnySource, TwoConsumersReceiveEverythingAndTheSourceIsReadOnce) {
    const auto shared = shareItems(3);
    auto a = shared->makeAsyncIterator();
    auto b = shared->makeAsyncIterator();
    for (const std::string expected : {"0", "1", "2", "end"}) {
        const Call callA = call(a);
        const Call callB = call(b);
        runReadings();
        EXPECT_EQ(callA.text(), expected);
        EXPECT_EQ(callB.text(), expected);
    }
    EXPECT_EQ(readings(), 4) << "one for each element and one for the end";
}

TEST_P(AsyncBroadcastOfAnySource, OneConsumerAfterTheOtherReceivesEverything) {
    const auto shared = shareItems(3);
    auto a = shared->makeAsyncIterator();
    EXPECT_EQ(read(a, 4), "0 1 2 end");
    auto b = shared->makeAsyncIterator();
    EXPECT_EQ(read(b, 4), "0 1 2 end");
    EXPECT_EQ(readings(), 4);
}

TEST_P(AsyncBroadcastOfAnySource, TheErrorComesAfterTheElementsAndAgainAtEachCall) {
    const auto shared = shareFailing(1);
    auto a = shared->makeAsyncIterator();
    EXPECT_EQ(read(a, 4), "0 error error error");
    EXPECT_EQ(readings(), 2) << "a source that has failed is not read again";
}

TEST_P(AsyncBroadcastOfAnySource, AConsumerCreatedAfterAFailureReplaysAndThenReceivesTheError) {
    const auto shared = shareFailing(2);
    auto a = shared->makeAsyncIterator();
    EXPECT_EQ(read(a, 3), "0 1 error");
    auto b = shared->makeAsyncIterator();
    EXPECT_EQ(read(b, 4), "0 1 error error");
    EXPECT_EQ(readings(), 3);
}

TEST_P(AsyncBroadcastOfAnySource, AnEmptySourceEndsEveryConsumer) {
    const auto shared = shareItems(0);
    auto a = shared->makeAsyncIterator();
    auto b = shared->makeAsyncIterator();
    EXPECT_EQ(read(a, 2), "end end");
    EXPECT_EQ(read(b, 2), "end end");
    EXPECT_EQ(readings(), 1);
}

TEST_P(AsyncBroadcastOfAnySource, ASourceThatFailsAtOnceFailsEveryConsumer) {
    const auto shared = shareFailing(0);
    auto a = shared->makeAsyncIterator();
    auto b = shared->makeAsyncIterator();
    EXPECT_EQ(read(a, 2), "error error");
    EXPECT_EQ(read(b, 2), "error error");
    EXPECT_EQ(readings(), 1);
}

TEST_P(AsyncBroadcastOfAnySource, AfterTheEndTheSourceIsNotReadAgainWhateverThePolicy) {
    for (const auto policy :
         {kUnbounded, BufferingPolicy::bufferingOldest(1), BufferingPolicy::bufferingNewest(0),
          BufferingPolicy::bufferingNewest(1), BufferingPolicy::bufferingNewest(-1)}) {
        const auto shared = shareItems(2, policy);
        auto a = shared->makeAsyncIterator();
        EXPECT_EQ(read(a, 4), "0 1 end end");
        for (int i = 0; i < 3; ++i) {
            auto late = shared->makeAsyncIterator();
            while (read(late) != "end") {
            }
        }
        EXPECT_EQ(readings(), 3);
    }
}

// When the source is read.

TEST_F(AsyncBroadcastTest, NothingIsReadBeforeAConsumerAsks) {
    const auto shared = share({.count = 3}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    executor_->runAll();
    EXPECT_EQ(readings(), 0);
    EXPECT_EQ(census_.sourceIterators, 1) << "it is made once, with the broadcast";
}

TEST_F(AsyncBroadcastTest, TheReadingBeginsOnTheThreadOfWhoAsksNotInItsExecutor) {
    const auto shared = share({.count = 1, .manner = Manner::atGate}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    const Call made = call(a);
    EXPECT_TRUE(executor_->runOne());
    EXPECT_TRUE(isReading());
    EXPECT_EQ(executor_->pendingCount(), 0U);
    openGate();
    EXPECT_EQ(made.text(), "0");
}

TEST_F(AsyncBroadcastTest, AnElementIsReadOnlyWhenItIsAskedFor) {
    const auto shared = share({.count = 3}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    EXPECT_EQ(next(a), "0");
    EXPECT_EQ(readings(), 1);
    EXPECT_EQ(next(a), "1");
    EXPECT_EQ(readings(), 2);
}

TEST_F(AsyncBroadcastTest, AllWhoWaitShareOneReadingAndGoOnRightAfterItsElement) {
    const auto shared = share({.count = 2, .manner = Manner::atGate}, kUnbounded);
    std::vector<Iterator> iterators;
    for (int i = 0; i < 10; ++i) {
        iterators.push_back(shared->makeAsyncIterator());
    }
    for (const std::string expected : {"0", "1", "end"}) {
        std::vector<Call> calls;
        for (auto& iterator : iterators) {
            calls.push_back(callAndRun(iterator));
            EXPECT_EQ(calls.back().text(), "waiting");
        }
        EXPECT_EQ(source_->underWay, 1);
        openGate();
        for (const auto& made : calls) {
            EXPECT_EQ(made.text(), expected);
        }
    }
    EXPECT_EQ(readings(), 3);
    EXPECT_EQ(source_->mostUnderWay, 1);
}

TEST_F(AsyncBroadcastTest, AllWhoWaitReceiveTheError) {
    const auto shared = share({.fails = true, .manner = Manner::atGate}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    auto b = shared->makeAsyncIterator();
    const Call callA = callAndRun(a);
    const Call callB = callAndRun(b);
    openGate();
    EXPECT_EQ(callA.text(), "error");
    EXPECT_EQ(callB.text(), "error");
    EXPECT_EQ(readings(), 1);
}

TEST_F(AsyncBroadcastTest, AConsumerThatComesWhileTheSourceIsReadInPlaceReceivesTheSame) {
    for (const std::string expected : {"0", "end", "error"}) {
        const auto shared =
            share({.count = expected == "0" ? 1 : 0, .fails = expected == "error"}, kUnbounded);
        auto a = shared->makeAsyncIterator();
        auto b = shared->makeAsyncIterator();
        std::optional<Call> callB;
        source_->onReadingAtOnce = [&] {
            callB = callAndRun(b);
            EXPECT_EQ(callB->text(), "waiting");
        };
        EXPECT_EQ(next(a), expected);
        EXPECT_EQ(callB->text(), expected);
        EXPECT_EQ(readings(), 1);
        source_->onReadingAtOnce = nullptr;
    }
}

TEST_F(AsyncBroadcastTest, AConsumerCancelledWhileItReadsTheSourceInPlaceEndsForItselfOnly) {
    for (const std::string expected : {"0", "end", "error"}) {
        const auto shared =
            share({.count = expected == "0" ? 1 : 0, .fails = expected == "error"}, kUnbounded);
        auto a = shared->makeAsyncIterator();
        auto b = shared->makeAsyncIterator();
        const Call callA = call(a);
        std::optional<Call> callB;
        source_->onReadingAtOnce = [&] {
            callB = callAndRun(b);
            callA.task.cancel();
            EXPECT_FALSE(thisTask::isCancelled()) << "the reading is not part of the task";
        };
        executor_->runAll();
        EXPECT_EQ(callA.text(), "end");
        EXPECT_EQ(next(a), "end");
        EXPECT_EQ(callB->text(), expected);
        EXPECT_EQ(readings(), 1);
        source_->onReadingAtOnce = nullptr;
    }
}

TEST_F(AsyncBroadcastTest, AConsumerThatComesDuringAReadingJoinsIt) {
    const auto shared = share({.count = 1, .manner = Manner::atGate}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    const Call callA = callAndRun(a);
    auto late = shared->makeAsyncIterator();
    const Call lateCall = callAndRun(late);
    openGate();
    EXPECT_EQ(callA.text(), "0");
    EXPECT_EQ(lateCall.text(), "0");
    EXPECT_EQ(readings(), 1);
}

TEST_F(AsyncBroadcastTest, WhoIsBehindReadsOnWhileAnotherWaits) {
    const auto shared = share({.count = 9, .manner = Manner::atGate}, kUnbounded);
    auto fast = shared->makeAsyncIterator();
    for (int i = 0; i < 2; ++i) {
        const Call made = callAndRun(fast);
        openGate();
        EXPECT_EQ(made.text(), std::to_string(i));
    }
    const Call fastCall = callAndRun(fast);
    auto slow = shared->makeAsyncIterator();
    EXPECT_EQ(next(slow, 2), "0 1");
    const Call slowCall = callAndRun(slow);
    EXPECT_EQ(slowCall.text(), "waiting");
    EXPECT_EQ(fastCall.text(), "waiting");
    openGate();
    EXPECT_EQ(slowCall.text(), "2");
    EXPECT_EQ(fastCall.text(), "2");
    EXPECT_EQ(readings(), 3);
}

TEST_F(AsyncBroadcastTest, AnElementThatIsKeptIsHandedOverWithoutSuspending) {
    const auto shared = share({.count = 2, .manner = Manner::atGate}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    const Call made = callAndRun(a);
    openGate();
    ASSERT_EQ(made.text(), "0");

    auto b = shared->makeAsyncIterator();
    auto kept = b.next();
    EXPECT_TRUE(kept.isReady());
    EXPECT_EQ(syncWait(std::move(kept)).value().value, 0);
}

TEST_F(AsyncBroadcastTest, AnElementThatIsNotThereIsWaitedFor) {
    const auto shared = share({.count = 1, .manner = Manner::atGate}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    const auto readOne = [&]() -> Async<bool> {
        auto pending = a.next();
        const bool isReady = pending.isReady();
        (void)co_await std::move(pending);
        co_return isReady;
    };
    const auto task = Task<bool>::start(readOne, {.executor = executor_});
    executor_->runAll();
    EXPECT_FALSE(task.isDone());
    openGate();
    EXPECT_FALSE(task.outcome().value());
}

TEST_P(AsyncBroadcastOfAnySource, ACallThatIsNotAwaitedDoesNotDelayTheOthers) {
    const auto shared = shareItems(2);
    auto a = shared->makeAsyncIterator();
    ask(a);
    runReadings();
    auto b = shared->makeAsyncIterator();
    EXPECT_EQ(read(b, 3), "0 1 end");
    EXPECT_EQ(readings(), 3);
}

TEST_P(AsyncBroadcastOfAnySource, ACallThatIsAwaitedLaterDoesNotDelayTheOthers) {
    const auto shared = shareItems(2);
    const auto readBoth = [&]() -> Async<std::vector<int>> {
        auto a = shared->makeAsyncIterator();
        auto b = shared->makeAsyncIterator();
        auto pendingA = a.next();
        auto pendingB = b.next();
        const auto fromB = co_await std::move(pendingB);
        const auto fromA = co_await std::move(pendingA);
        std::vector<int> values;
        values.push_back(fromB->value);
        values.push_back(fromA->value);
        co_return values;
    };
    const auto task = Task<std::vector<int>>::start(readBoth, {.executor = executor_});
    runReadings();
    ASSERT_TRUE(task.isDone());
    EXPECT_EQ(task.outcome().value(), (std::vector{0, 0}));
    EXPECT_EQ(readings(), 1);
}

TEST_F(AsyncBroadcastTest, AnIteratorThatHasEndedSaysSoWithoutSuspending) {
    const auto shared = share({}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    EXPECT_EQ(next(a), "end");
    EXPECT_TRUE(a.next().isReady());
}

TEST_F(AsyncBroadcastTest, AMillionElementsDoNotDeepenTheStack) {
    for (const Manner manner : {Manner::atOnce, Manner::yielding}) {
        constexpr int kCount = 1'000'000;
        const auto shared =
            share({.count = kCount, .manner = manner}, BufferingPolicy::bufferingNewest(1));
        const auto readAll = [&]() -> Async<int> {
            auto iterator = shared->makeAsyncIterator();
            int count = 0;
            for (;;) {
                auto pending = iterator.next();
                const auto item = co_await std::move(pending);
                if (!item.has_value() || item->value != count) {
                    co_return count;
                }
                ++count;
            }
        };
        const auto task = Task<int>::start(readAll, {.executor = executor_});
        executor_->runAll();
        EXPECT_EQ(task.outcome().value(), kCount);
    }
}

// What the policies keep.

TEST_F(AsyncBroadcastTest, Newest2GivesALateConsumerTheLastTwo) {
    const auto shared = share({.count = 4}, BufferingPolicy::bufferingNewest(2));
    auto fast = shared->makeAsyncIterator();
    EXPECT_EQ(rest(fast), "0 1 2 3 end");
    auto late = shared->makeAsyncIterator();
    EXPECT_EQ(rest(late), "2 3 end");
}

TEST_F(AsyncBroadcastTest, ASlowConsumerOfNewestJumpsToTheOldestThatIsHeld) {
    const auto shared = share({.count = 8}, BufferingPolicy::bufferingNewest(2));
    auto slow = shared->makeAsyncIterator();
    EXPECT_EQ(next(slow), "0");
    auto fast = shared->makeAsyncIterator();
    EXPECT_EQ(next(fast, 6), "0 1 2 3 4 5");
    EXPECT_EQ(rest(slow), "4 5 6 7 end");
    EXPECT_EQ(rest(fast), "6 7 end");
}

TEST_F(AsyncBroadcastTest, ASlowConsumerOfNewestWhosePlaceIsStillHeldSkipsNothing) {
    const auto shared = share({.count = 8}, BufferingPolicy::bufferingNewest(2));
    auto slow = shared->makeAsyncIterator();
    auto fast = shared->makeAsyncIterator();
    EXPECT_EQ(next(slow), "0");
    EXPECT_EQ(next(fast, 3), "0 1 2");  // the slow one's own element is gone, not its next one
    EXPECT_EQ(rest(slow), "1 2 3 4 5 6 7 end");
}

TEST_F(AsyncBroadcastTest, Newest1HoldsTheLatestElement) {
    const auto shared = share({.count = 5}, BufferingPolicy::bufferingNewest(1));
    auto slow = shared->makeAsyncIterator();
    EXPECT_EQ(next(slow), "0");
    auto fast = shared->makeAsyncIterator();
    EXPECT_EQ(next(fast, 4), "0 1 2 3");
    auto late = shared->makeAsyncIterator();
    EXPECT_EQ(next(late), "3");
    EXPECT_EQ(next(slow, 2), "3 4");
    EXPECT_EQ(rest(fast), "4 end");
}

TEST_F(AsyncBroadcastTest, Oldest1GivesALateConsumerTheFirstAndThenOnlyWhatIsReadFromThenOn) {
    const auto shared = share({.count = 5}, BufferingPolicy::bufferingOldest(1));
    auto early = shared->makeAsyncIterator();
    EXPECT_EQ(next(early, 3), "0 1 2");
    auto late = shared->makeAsyncIterator();
    EXPECT_EQ(next(late, 2), "0 3");
    EXPECT_EQ(rest(early), "4 end");
    EXPECT_EQ(next(late), "end");
    EXPECT_EQ(readings(), 6);
}

TEST_F(AsyncBroadcastTest, WhenOldestIsFullAllWhoWaitReceiveTheElementAndNobodyLater) {
    const auto shared =
        share({.count = 4, .manner = Manner::atGate}, BufferingPolicy::bufferingOldest(1));
    auto a = shared->makeAsyncIterator();
    auto b = shared->makeAsyncIterator();
    for (const std::string expected : {"0", "1", "2"}) {
        const Call callA = callAndRun(a);
        const Call callB = callAndRun(b);
        openGate();
        EXPECT_EQ(callA.text(), expected);
        EXPECT_EQ(callB.text(), expected);
    }
    EXPECT_EQ(census_.items, 1) << "only the first is kept";
    const Call callA = callAndRun(a);
    openGate();
    EXPECT_EQ(callA.text(), "3");
    const Call callB = callAndRun(b);
    openGate();
    EXPECT_EQ(callB.text(), "end") << "it was not waiting when 3 came";
}

TEST_F(AsyncBroadcastTest, Newest0KeepsNothingAndGivesEachElementToThoseWhoWait) {
    const auto shared =
        share({.count = 2, .manner = Manner::atGate}, BufferingPolicy::bufferingNewest(0));
    auto a = shared->makeAsyncIterator();
    auto b = shared->makeAsyncIterator();
    const Call firstA = callAndRun(a);
    const Call firstB = callAndRun(b);
    openGate();
    EXPECT_EQ(firstA.text(), "0");
    EXPECT_EQ(firstB.text(), "0");
    EXPECT_EQ(census_.items, 0);
    const Call secondB = callAndRun(b);
    openGate();
    EXPECT_EQ(secondB.text(), "1");
    const Call secondA = callAndRun(a);
    openGate();
    EXPECT_EQ(secondA.text(), "end");
    auto late = shared->makeAsyncIterator();
    EXPECT_EQ(next(late), "end");
}

TEST_F(AsyncBroadcastTest, LimitsBelow0KeepNothing) {
    for (const auto policy :
         {BufferingPolicy::bufferingOldest(-2), BufferingPolicy::bufferingNewest(-2)}) {
        const auto shared = share({.count = 4}, policy);
        auto a = shared->makeAsyncIterator();
        EXPECT_EQ(next(a, 2), "0 1");
        auto b = shared->makeAsyncIterator();
        EXPECT_EQ(next(b), "2");
        EXPECT_EQ(rest(a), "3 end");
        EXPECT_EQ(next(b), "end");
        EXPECT_EQ(census_.items, 0);
    }
}

TEST_F(AsyncBroadcastTest, WhatIsRetainedComesBeforeTheEndAndBeforeTheError) {
    for (const bool fails : {false, true}) {
        const std::string end = fails ? "error" : "end";
        const auto shared =
            share({.count = 4, .fails = fails}, BufferingPolicy::bufferingNewest(2));
        auto slow = shared->makeAsyncIterator();
        EXPECT_EQ(next(slow), "0");
        auto fast = shared->makeAsyncIterator();
        EXPECT_EQ(rest(fast), "0 1 2 3 " + end);
        EXPECT_EQ(rest(slow), "2 3 " + end);
        EXPECT_EQ(next(slow), end);
    }
}

// Cancellation.

TEST_F(AsyncBroadcastTest, ACancelledConsumerThatWaitsEndsAndTheOthersReceiveTheElement) {
    const auto shared = share({.count = 2, .manner = Manner::atGate}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    auto b = shared->makeAsyncIterator();
    const Call callA = callAndRun(a);
    const Call callB = callAndRun(b);
    callA.task.cancel();
    executor_->runAll();
    EXPECT_TRUE(isReading()) << "the reading goes on";
    EXPECT_EQ(callA.text(), "waiting") << "for the reading, as the others do";
    openGate();
    EXPECT_EQ(callA.text(), "end");
    EXPECT_EQ(callB.text(), "0");
    EXPECT_FALSE(source_->wasCancelled);
    EXPECT_EQ(next(a), "end") << "also in a task that is not cancelled";
    auto late = shared->makeAsyncIterator();
    EXPECT_EQ(next(late), "0");
}

TEST_F(AsyncBroadcastTest, AReadingThatOnlyACancelledConsumerWaitsForIsKeptForTheOthers) {
    const auto shared = share({.count = 2, .manner = Manner::atGate}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    const Call made = callAndRun(a);
    made.task.cancel();
    executor_->runAll();
    EXPECT_EQ(made.text(), "waiting");
    openGate();
    EXPECT_EQ(made.text(), "end");
    EXPECT_FALSE(source_->wasCancelled);
    auto late = shared->makeAsyncIterator();
    EXPECT_EQ(next(late), "0");
    EXPECT_EQ(readings(), 1);
}

TEST_F(AsyncBroadcastTest, ACancelledTaskStartsNoReading) {
    const auto shared = share({.count = 2}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    const Call made = call(a);
    made.task.cancel();
    executor_->runAll();
    EXPECT_EQ(made.text(), "end");
    EXPECT_EQ(readings(), 0);
    EXPECT_EQ(next(a), "end");
}

TEST_F(AsyncBroadcastTest, ACancelledTaskReceivesNoElementThatIsKept) {
    const auto shared = share({.count = 2}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    EXPECT_EQ(next(a, 2), "0 1");
    auto b = shared->makeAsyncIterator();
    EXPECT_EQ(next(b), "0");
    const Call made = call(b);
    made.task.cancel();
    executor_->runAll();
    EXPECT_EQ(made.text(), "end");
    EXPECT_EQ(next(b), "end");
}

TEST_F(AsyncBroadcastTest, ACancelledConsumerEndsWithoutAnErrorAlsoWhenTheSourceFails) {
    const auto shared = share({.fails = true, .manner = Manner::atGate}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    auto b = shared->makeAsyncIterator();
    const Call callA = callAndRun(a);
    const Call callB = callAndRun(b);
    callA.task.cancel();
    openGate();
    EXPECT_EQ(callA.text(), "end");
    EXPECT_EQ(callB.text(), "error");
    EXPECT_EQ(next(a), "end");
}

TEST_F(AsyncBroadcastTest, ACancelledConsumerOfAFailedSourceEnds) {
    const auto shared = share({.fails = true}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    EXPECT_EQ(next(a), "error");
    const Call made = call(a);
    made.task.cancel();
    executor_->runAll();
    EXPECT_EQ(made.text(), "end");
    EXPECT_EQ(next(a), "end");
}

// Who owns whom.

TEST_F(AsyncBroadcastTest, AnIteratorKeepsTheBroadcast) {
    auto shared = share({.count = 2}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    const Weak<Shared> weak(shared);
    shared.reset();
    EXPECT_EQ(weak.load()->ownerCount(), 2U);  // the iterator, and the handle just loaded
    EXPECT_EQ(rest(a), "0 1 end");
    EXPECT_EQ(weak.load().get(), nullptr) << "it has let go at its end";
    EXPECT_EQ(census_.items, 0);
}

TEST_P(AsyncBroadcastOfAnySource, TheLastConsumerToEndOrToBeCancelledTakesTheBroadcastWithIt) {
    for (const bool isCancelled : {false, true}) {
        auto shared = shareItems(1);
        const Weak<Shared> weak(shared);
        auto a = shared->makeAsyncIterator();
        auto b = shared->makeAsyncIterator();
        shared.reset();
        EXPECT_EQ(read(a, 2), "0 end");
        EXPECT_EQ(read(b), "0");
        EXPECT_NE(weak.load().get(), nullptr);
        const Call made = call(b);
        if (isCancelled) {
            made.task.cancel();
        }
        runReadings();
        EXPECT_EQ(made.text(), "end");
        EXPECT_EQ(weak.load().get(), nullptr);
    }
}

TEST_F(AsyncBroadcastTest, EachIteratorIsAnOwnerUntilItsEnd) {
    const auto shared = share({.count = 1}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    auto b = shared->makeAsyncIterator();
    EXPECT_EQ(shared->ownerCount(), 3U);
    EXPECT_EQ(rest(a), "0 end");
    EXPECT_EQ(shared->ownerCount(), 2U);
    const Call made = call(b);
    made.task.cancel();
    executor_->runAll();
    EXPECT_EQ(shared->ownerCount(), 1U);
}

TEST_F(AsyncBroadcastTest, AnIteratorThatHasThrownStillOwnsTheBroadcast) {
    const auto shared = share({.fails = true}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    EXPECT_EQ(next(a, 2), "error error");
    EXPECT_EQ(shared->ownerCount(), 2U);
}

TEST_F(AsyncBroadcastTest, AReadingOwnsTheSourceButNotTheBroadcast) {
    const auto shared = share({.count = 1, .manner = Manner::atGate}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    const Call made = callAndRun(a);
    EXPECT_EQ(shared->ownerCount(), 2U) << "this test and the iterator";
    openGate();
    EXPECT_EQ(made.text(), "0");
    EXPECT_EQ(shared->ownerCount(), 2U);
}

TEST_F(AsyncBroadcastTest, AReadingOutlivesTheBroadcast) {
    for (const Source::Plan plan : {Source::Plan{.count = 1, .manner = Manner::atGate},
                                    Source::Plan{.manner = Manner::atGate},
                                    Source::Plan{.fails = true, .manner = Manner::atGate}}) {
        auto shared = share(plan, kUnbounded);
        const Weak<Shared> weak(shared);
        {
            auto iterator = shared->makeAsyncIterator();
            shared.reset();
            ask(iterator);
            EXPECT_EQ(weak.load()->ownerCount(), 2U) << "the iterator, and the handle just loaded";
        }
        EXPECT_EQ(weak.load().get(), nullptr);
        ASSERT_TRUE(isReading());
        EXPECT_EQ(census_.sourceIterators, 1) << "the reading has it";
        openGate();
        EXPECT_FALSE(source_->wasCancelled);
        EXPECT_EQ(source_->returned, plan.count);
        EXPECT_EQ(readings(), 1);
        EXPECT_TRUE(census_.isEmpty());
        EXPECT_EQ(executor_->ownerCount(), 1U);
    }
}

TEST_F(AsyncBroadcastTest, ABroadcastThatNobodyReadsIsDestroyedWithItsSource) {
    auto shared = share({.count = 2}, kUnbounded);
    EXPECT_EQ(shared->ownerCount(), 1U);
    EXPECT_EQ(census_.sourceIterators, 1);
    shared.reset();
    EXPECT_EQ(census_.sourceIterators, 0);
    EXPECT_EQ(readings(), 0);
}

TEST_F(AsyncBroadcastTest, TheSourcesIteratorIsDestroyedWhenTheSourceHasEndedOrFailed) {
    for (const bool fails : {false, true}) {
        const auto shared = share({.count = 1, .fails = fails}, kUnbounded);
        auto a = shared->makeAsyncIterator();
        EXPECT_EQ(next(a), "0");
        EXPECT_EQ(census_.sourceIterators, 1);
        EXPECT_EQ(next(a), fails ? "error" : "end");
        EXPECT_EQ(census_.sourceIterators, 0);
    }
}

// Iterators are values.

TEST_F(AsyncBroadcastTest, AnIteratorThatIsMovedGoesOnAtItsPlace) {
    const auto shared = share({.count = 4}, kUnbounded);
    auto first = shared->makeAsyncIterator();
    EXPECT_EQ(next(first), "0");
    auto second = std::move(first);
    EXPECT_EQ(next(second), "1");
    auto third = shared->makeAsyncIterator();
    third = std::move(second);
    EXPECT_EQ(shared->ownerCount(), 2U);
    EXPECT_EQ(rest(third), "2 3 end");
}

TEST_F(AsyncBroadcastTest, ACopyOfAnIteratorIsAConsumerOfItsOwnAtTheSamePlace) {
    const auto shared = share({.count = 3}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    EXPECT_EQ(next(a), "0");
    auto b = a;
    EXPECT_EQ(rest(a), "1 2 end");
    EXPECT_EQ(rest(b), "1 2 end");
    EXPECT_EQ(readings(), 4);
}

TEST_F(AsyncBroadcastTest, SeveralConsumersInOneTaskTakeTurns) {
    const auto shared = share({.count = 3, .manner = Manner::yielding}, kUnbounded);
    const auto readBoth = [&]() -> Async<std::vector<int>> {
        auto a = shared->makeAsyncIterator();
        auto b = shared->makeAsyncIterator();
        std::vector<int> values;
        for (;;) {
            auto pendingA = a.next();
            const auto fromA = co_await std::move(pendingA);
            auto pendingB = b.next();
            const auto fromB = co_await std::move(pendingB);
            if (!fromA.has_value() || !fromB.has_value()) {
                values.push_back(fromA.has_value() || fromB.has_value() ? -2 : -1);
                co_return values;
            }
            values.push_back(fromA->value);
            values.push_back(fromB->value);
        }
    };
    const auto task = Task<std::vector<int>>::start(readBoth, {.executor = executor_});
    executor_->runAll();
    EXPECT_EQ(task.outcome().value(), (std::vector{0, 0, 1, 1, 2, 2, -1}));
    EXPECT_EQ(readings(), 4);
}

TEST_F(AsyncBroadcastTest, AThreadMayWaitOutsideOfAnyTask) {
    const auto shared = share({.count = 2, .manner = Manner::yielding}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    EXPECT_EQ(syncWait(a.next()).value().value, 0);
    EXPECT_EQ(syncWait(a.next()).value().value, 1);
    EXPECT_FALSE(syncWait(a.next()).has_value());
    // The thread that has read may not have left yet.
    EXPECT_TRUE(test::eventually([&] { return shared->ownerCount() == 1 && census_.items == 2; }));
}

TEST_F(AsyncBroadcastTest, TheErrorIsTheSourcesOwnEachTime) {
    const auto shared = share({.fails = true}, kUnbounded);
    auto a = shared->makeAsyncIterator();
    std::vector<const test::SourceError*> thrown;
    for (int i = 0; i < 2; ++i) {
        try {
            (void)syncWait(a.next());
        } catch (const test::SourceError& caught) {
            thrown.push_back(&caught);
        }
    }
    ASSERT_EQ(thrown.size(), 2U);
    EXPECT_EQ(thrown[0], thrown[1]) << "the same object";
}

// Elements of any copyable type.

template <class Element>
std::vector<Element> replayed(const std::vector<Element>& list, BufferingPolicy policy) {
    const auto shared = broadcast(test::ListSource<Element>(list), policy);
    std::vector<Element> received;
    for (int consumer = 0; consumer < 2; ++consumer) {
        auto iterator = shared->makeAsyncIterator();
        while (auto element = syncWait(iterator.next())) {
            received.push_back(*std::move(element));
        }
    }
    return received;
}

TEST(AsyncBroadcastElements, MayBeStrings) {
    const std::string text(100, 'x');
    EXPECT_EQ(replayed<std::string>({"", "a", text}, kUnbounded),
              (std::vector<std::string>{"", "a", text, "", "a", text}));
}

TEST(AsyncBroadcastElements, MayBeBooleans) {
    const std::vector expected{true, false, true, true, false, true};
    EXPECT_EQ(replayed<bool>({true, false, true}, kUnbounded), expected);
    EXPECT_EQ(replayed<bool>({true, false, true}, BufferingPolicy::bufferingNewest(3)), expected);
}

/// Counts down to its error, by an awaitable of its own type.
struct Countdown {
    struct AsyncIterator {
        struct Awaitable {
            [[nodiscard]] bool await_ready() const noexcept { return false; }
            static bool await_suspend(std::coroutine_handle<>) noexcept { return false; }
            [[nodiscard]] std::optional<int> await_resume() const {
                if (left == 0) {
                    throw test::SourceError();
                }
                return left;
            }

            int left;
        };
        Awaitable next() noexcept { return {left--}; }

        int left;
    };
    [[nodiscard]] AsyncIterator makeAsyncIterator() const noexcept { return {from}; }

    int from;
};

TEST(AsyncBroadcastElements, MayComeFromAnyAwaitable) {
    const auto shared = broadcast(Countdown{2}, kUnbounded);
    for (int consumer = 0; consumer < 2; ++consumer) {
        auto iterator = shared->makeAsyncIterator();
        EXPECT_EQ(syncWait(iterator.next()), 2);
        EXPECT_EQ(syncWait(iterator.next()), 1);
        EXPECT_THROW((void)syncWait(iterator.next()), test::SourceError);
        EXPECT_THROW((void)syncWait(iterator.next()), test::SourceError);
    }
}

TEST(AsyncBroadcastElements, AMillionFromAnyAwaitableDoNotDeepenTheStack) {
    constexpr int kCount = 1'000'000;
    const auto shared = broadcast(Countdown{kCount}, BufferingPolicy::bufferingNewest(1));
    const auto readAll = [&]() -> Async<int> {
        auto iterator = shared->makeAsyncIterator();
        int count = 0;
        try {
            while (const auto left = co_await iterator.next()) {
                count += *left == kCount - count ? 1 : 0;
            }
        } catch (const test::SourceError&) {
        }
        co_return count;
    };
    EXPECT_EQ(syncWait(readAll()), kCount);
}

TEST(AsyncBroadcastElements, MayBeEmptyOptionalsWhichAreNotTheEnd) {
    using Maybe = std::optional<int>;
    EXPECT_EQ(replayed<Maybe>({1, std::nullopt, 2}, kUnbounded),
              (std::vector<Maybe>{1, std::nullopt, 2, 1, std::nullopt, 2}));
}

/// Throws when it is copied, once it is told to.
struct Fragile {
    Fragile() = default;
    Fragile(const Fragile& other) : breaks(other.breaks) {
        if (breaks) {
            throw test::SourceError();
        }
    }
    Fragile& operator=(const Fragile& other) {
        Fragile copy(other);
        breaks = copy.breaks;
        return *this;
    }
    Fragile(Fragile&&) noexcept = default;
    Fragile& operator=(Fragile&&) noexcept = default;
    ~Fragile() = default;

    bool breaks = false;
};

struct FragileSource {
    struct AsyncIterator {
        Async<std::optional<Fragile>> next() {
            Fragile fragile;
            fragile.breaks = true;
            return Async<std::optional<Fragile>>::ready(std::move(fragile));
        }
    };
    [[nodiscard]] AsyncIterator makeAsyncIterator() const noexcept { return {}; }
};

TEST(AsyncBroadcastElements, OneWhoseCopyThrowsFailsTheSource) {
    const auto shared = broadcast(FragileSource(), kUnbounded);
    for (int consumer = 0; consumer < 2; ++consumer) {
        auto iterator = shared->makeAsyncIterator();
        EXPECT_THROW((void)syncWait(iterator.next()), test::SourceError);
        EXPECT_THROW((void)syncWait(iterator.next()), test::SourceError);
    }
}

/// Throws at its copies as long as it is told to.
struct Stubborn {
    explicit Stubborn(int itsNumber) : number(itsNumber) {}
    Stubborn(const Stubborn& other) : number(other.number) {
        if (throws) {
            throw test::SourceError();
        }
    }
    Stubborn& operator=(const Stubborn& other) {
        number = Stubborn(other).number;
        return *this;
    }
    Stubborn(Stubborn&&) noexcept = default;
    Stubborn& operator=(Stubborn&&) noexcept = default;
    ~Stubborn() = default;

    static inline constinit bool throws = false;
    int number;
};

struct StubbornSource {
    struct AsyncIterator {
        Async<std::optional<Stubborn>> next() {
            return Async<std::optional<Stubborn>>::ready(std::in_place, ++last);
        }
        int last = 0;
    };
    [[nodiscard]] AsyncIterator makeAsyncIterator() const noexcept { return {}; }
};

TEST(AsyncBroadcastElements, OneWhoseCopyToAConsumerThrowsMayBeAskedForAgain) {
    for (const auto policy : {kUnbounded, BufferingPolicy::bufferingNewest(5)}) {
        const auto shared = broadcast(StubbornSource(), policy);
        auto ahead = shared->makeAsyncIterator();
        EXPECT_EQ(syncWait(ahead.next())->number, 1);
        auto behind = shared->makeAsyncIterator();
        Stubborn::throws = true;
        EXPECT_THROW((void)syncWait(behind.next()), test::SourceError);
        Stubborn::throws = false;
        EXPECT_EQ(syncWait(behind.next())->number, 1);
    }
}

TEST(AsyncBroadcastElements, MayComeFromAnotherBroadcast) {
    const auto inner = broadcast(Countdown{2}, kUnbounded);
    const auto outer = broadcast(inner, kUnbounded);
    for (int consumer = 0; consumer < 2; ++consumer) {
        auto iterator = outer->makeAsyncIterator();
        EXPECT_EQ(syncWait(iterator.next()), 2);
        EXPECT_EQ(syncWait(iterator.next()), 1);
        EXPECT_THROW((void)syncWait(iterator.next()), test::SourceError);
    }
}

/// Starts a task for each element.
struct StartingSource {
    struct AsyncIterator {
        Async<std::optional<int>> next() {
            started->push_back(Task<>::start([]() -> Async<> { co_return; }));
            return Async<std::optional<int>>::ready(static_cast<int>(started->size()));
        }
        std::vector<Task<>>* started;
    };
    [[nodiscard]] AsyncIterator makeAsyncIterator() const noexcept { return {started}; }
    std::vector<Task<>>* started;
};

TEST(AsyncBroadcastSource, StartsTasksOnTheExecutorOfItsConsumer) {
    std::vector<Task<>> started;
    const auto shared = broadcast(StartingSource{&started}, kUnbounded);
    const auto executor = make<testing::ManualExecutor>();
    const auto reading = Task<int>::start(
        [shared]() -> Async<int> {
            auto iterator = shared->makeAsyncIterator();
            const auto element = co_await iterator.next();
            co_return element.value();
        },
        {.executor = executor});
    EXPECT_TRUE(executor->runOne());
    EXPECT_EQ(reading.outcome().value(), 1);
    ASSERT_EQ(started.size(), 1U);
    EXPECT_EQ(executor->pendingCount(), 1U);
    executor->runAll();
    EXPECT_TRUE(started[0].isDone());
}

/// Each element is the thread that awaits it, in an awaitable of its own type.
struct ThreadSource {
    struct AsyncIterator {
        struct Awaitable {
            [[nodiscard]] bool await_ready() const noexcept { return false; }
            bool await_suspend(std::coroutine_handle<>) noexcept {
                thread = std::this_thread::get_id();
                return false;
            }
            [[nodiscard]] std::optional<std::thread::id> await_resume() const noexcept {
                return thread;
            }

            std::thread::id thread{};
        };
        Awaitable next() noexcept { return {}; }
    };
    [[nodiscard]] AsyncIterator makeAsyncIterator() const noexcept { return {}; }
};

TEST(AsyncBroadcastSource, AnyAwaitableIsAwaitedOnTheThreadOfTheConsumer) {
    const auto shared = broadcast(ThreadSource(), kUnbounded);
    auto iterator = shared->makeAsyncIterator();
    EXPECT_EQ(syncWait(iterator.next()), std::this_thread::get_id());
}

}  // namespace
}  // namespace vantorq
