#include "VantorqFoundation/Platform/AsyncStream.h"

#include <algorithm>
#include <deque>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include "Support/Streams.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/Actor.h"
#include "VantorqFoundation/Platform/AsyncSequence.h"
#include "VantorqFoundation/Platform/Continuation.h"
#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

namespace vantorq {
namespace {

using test::elementsOf;
using test::MoveOnly;
using test::nextOf;
using test::noteIn;
using test::takeOne;
using testing::ManualExecutor;
using Ending = StreamTermination::Kind;
using Yielded = YieldResult<int>::Kind;
using Ints = std::vector<int>;

static_assert(AsyncSequence<AsyncStream<int>>);
static_assert(AsyncSequence<const AsyncStream<int>>);
static_assert(std::same_as<AsyncElementOf<AsyncStream<std::string>>, std::string>);

constexpr std::int64_t kNoBound = std::numeric_limits<std::int64_t>::max();

Ints kindsOf(const std::vector<StreamTermination>& endings) {
    Ints kinds;
    for (const auto& ending : endings) {
        kinds.push_back(static_cast<int>(ending.kind));
    }
    return kinds;
}
Ints only(Ending kind) {
    return {static_cast<int>(kind)};
}

TEST(BufferingPolicy, IsItsKindAndItsLimit) {
    EXPECT_EQ(BufferingPolicy::unbounded().kind(), BufferingPolicy::Kind::unbounded);
    EXPECT_EQ(BufferingPolicy::unbounded().limit(), 0);
    EXPECT_EQ(BufferingPolicy::bufferingOldest(3).kind(), BufferingPolicy::Kind::oldest);
    EXPECT_EQ(BufferingPolicy::bufferingOldest(3).limit(), 3);
    EXPECT_EQ(BufferingPolicy::bufferingNewest(-4).kind(), BufferingPolicy::Kind::newest);
    EXPECT_EQ(BufferingPolicy::bufferingNewest(-4).limit(), -4);
}

TEST(BufferingPolicy, IsEqualByKindAndLimit) {
    EXPECT_EQ(BufferingPolicy::bufferingOldest(3), BufferingPolicy::bufferingOldest(3));
    EXPECT_NE(BufferingPolicy::bufferingOldest(3), BufferingPolicy::bufferingOldest(2));
    EXPECT_NE(BufferingPolicy::bufferingOldest(3), BufferingPolicy::bufferingNewest(3));
    EXPECT_NE(BufferingPolicy::bufferingOldest(0), BufferingPolicy::unbounded());
}

// Elements.

TEST(AsyncStream, ElementsComeInTheOrderInWhichTheyWereYielded) {
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    for (int i = 1; i <= 3; ++i) {
        continuation.yield(i);
    }
    continuation.finish();
    EXPECT_EQ(elementsOf(stream), (Ints{1, 2, 3}));
}

TEST(AsyncStream, WhatIsBufferedAtTheEndIsHandedOverAndThenNothingForEver) {
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    continuation.yield(1);
    continuation.finish();
    auto iterator = stream.makeAsyncIterator();
    EXPECT_EQ(nextOf(iterator), 1);
    EXPECT_EQ(nextOf(iterator), std::nullopt);
    EXPECT_EQ(nextOf(iterator), std::nullopt);
}

TEST(AsyncStream, AnElementOrEndThatIsThereIsGivenWithoutSuspending) {
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    auto iterator = stream.makeAsyncIterator();
    EXPECT_FALSE(iterator.next().isReady());
    continuation.yield(1);
    continuation.finish();
    EXPECT_TRUE(iterator.next().isReady());
    EXPECT_TRUE(iterator.next().isReady());
}

TEST(AsyncStream, AConsumerThatWaitsGoesOnOnItsOwnExecutorNotInYield) {
    const auto executor = make<ManualExecutor>();
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    const auto consumer = takeOne<int>(stream, executor);
    executor->runAll();
    EXPECT_FALSE(consumer.isDone());
    continuation.yield(7);
    EXPECT_FALSE(consumer.isDone());
    EXPECT_EQ(executor->pendingCount(), 1U);
    executor->runAll();
    EXPECT_EQ(*consumer.outcome(), 7);
}

TEST(AsyncStream, AConsumerOnAnActorGoesOnOnIt) {
    const auto executor = make<ManualExecutor>();
    const auto actor = make<Actor>();
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    const auto consumer = Task<bool>::start(
        [&actor, stream]() -> Async<bool> {
            co_await actor->enter();
            auto iterator = stream.makeAsyncIterator();
            const auto element = co_await iterator.next();
            co_return element == 1 && actor->isCurrent();
        },
        {.executor = executor});
    executor->runAll();
    continuation.yield(1);
    executor->runAll();
    EXPECT_TRUE(*consumer.outcome());
}

TEST(AsyncStream, ElementsNeedNotBeCopyable) {
    {
        const auto [stream, continuation] = AsyncStream<MoveOnly>::makeStream();
        EXPECT_EQ(continuation.yield(MoveOnly(1)).kind, YieldResult<MoveOnly>::Kind::enqueued);
        auto iterator = stream.makeAsyncIterator();
        EXPECT_EQ(nextOf(iterator)->value, 1);
        const auto executor = make<ManualExecutor>();
        int received = 0;
        const auto consumer = Task<>::start(
            [&]() -> Async<> {
                auto element = co_await iterator.next();
                received = element->value;
            },
            {.executor = executor});
        executor->runAll();
        continuation.yield(MoveOnly(2));
        executor->runAll();
        EXPECT_EQ(received, 2);
    }
    EXPECT_EQ(MoveOnly::living, 0);
}

TEST(AsyncStream, ConsumersThatWaitAreServedInTheOrderInWhichTheyCame) {
    const auto executor = make<ManualExecutor>();
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    std::vector<Task<std::optional<int>>> consumers;
    for (int i = 0; i < 3; ++i) {
        consumers.push_back(takeOne<int>(stream, executor));
    }
    executor->runAll();
    for (int i = 0; i < 3; ++i) {
        continuation.yield(i);
    }
    executor->runAll();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(*consumers[static_cast<std::size_t>(i)].outcome(), i);
    }
}

TEST(AsyncStream, IteratorsShareTheElements) {
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    auto first = stream.makeAsyncIterator();
    auto second = stream.makeAsyncIterator();
    continuation.yield(1);
    continuation.yield(2);
    EXPECT_EQ(nextOf(first), 1);
    EXPECT_EQ(nextOf(second), 2);
}

TEST(AsyncStream, AMillionElementsDoNotDeepenTheStack) {
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    for (int i = 0; i < 1'000'000; ++i) {
        continuation.yield(i);
    }
    continuation.finish();
    EXPECT_EQ(elementsOf(stream).size(), 1'000'000U);
}

TEST(AsyncStream, AMillionElementsThatAreWaitedForDoNotDeepenTheStack) {
    constexpr int kCount = 1'000'000;
    // Two that answer each other, so that each element is waited for.
    const auto answer = [](AsyncStream<int> from, AsyncStream<int>::Continuation to) -> Async<int> {
        auto iterator = from.makeAsyncIterator();
        int last = 0;
        while (const auto element = co_await iterator.next()) {
            last = *element;
            if (last == kCount) {
                break;
            }
            to.yield(last + 1);
        }
        to.finish();
        co_return last;
    };
    const auto executor = make<ManualExecutor>();
    const auto there = AsyncStream<int>::makeStream();
    const auto back = AsyncStream<int>::makeStream();
    const auto first = Task<int>::start([&] { return answer(there.stream, back.continuation); },
                                        {.executor = executor});
    const auto second = Task<int>::start([&] { return answer(back.stream, there.continuation); },
                                         {.executor = executor});
    executor->runAll();
    there.continuation.yield(1);
    executor->runAll();
    EXPECT_EQ(*first.outcome(), kCount - 1);
    EXPECT_EQ(*second.outcome(), kCount);
}

// Making one.

TEST(AsyncStream, CopiesAreTheSameStream) {
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    const AsyncStream<int> copy = stream;
    const auto other = AsyncStream<int>::makeStream();
    EXPECT_EQ(copy, stream);
    EXPECT_NE(copy, other.stream);
    continuation.yield(1);
    auto iterator = copy.makeAsyncIterator();
    EXPECT_EQ(nextOf(iterator), 1);
}

TEST(AsyncStream, TheBuilderRunsAtOnceAndMayYieldAndFinish) {
    bool hasRun = false;
    const AsyncStream<int> stream([&](const AsyncStream<int>::Continuation& continuation) {
        continuation.yield(1);
        continuation.yield(2);
        continuation.finish();
        hasRun = true;
    });
    EXPECT_TRUE(hasRun);
    EXPECT_EQ(elementsOf(stream), (Ints{1, 2}));
}

TEST(AsyncStream, TheBuilderFormKeepsWhatItsPolicySays) {
    const AsyncStream<int> stream(
        [](auto continuation) {
            for (int i = 1; i <= 3; ++i) {
                continuation.yield(i);
            }
            continuation.finish();
        },
        BufferingPolicy::bufferingNewest(1));
    EXPECT_EQ(elementsOf(stream), Ints{3});
}

TEST(AsyncStream, WhatTheBuilderThrowsIsPassedOnAndTheStreamIsGone) {
    std::vector<StreamTermination> endings;
    EXPECT_THROW(AsyncStream<int>([&](const auto& continuation) {
                     continuation.setOnTermination(noteIn(endings));
                     throw std::runtime_error("no");
                 }),
                 std::runtime_error);
    EXPECT_EQ(kindsOf(endings), only(Ending::cancelled));
}

// What is kept.

TEST(AsyncStream, WithoutABoundEverythingIsKept) {
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    for (int i = 0; i < 1'000; ++i) {
        const auto result = continuation.yield(i);
        ASSERT_EQ(result.kind, Yielded::enqueued);
        ASSERT_EQ(result.remaining, kNoBound);
    }
    continuation.finish();
    EXPECT_EQ(elementsOf(stream).size(), 1'000U);
}

TEST(AsyncStream, BufferingOldestDropsTheNewElementWhenItIsFull) {
    const auto [stream, continuation] =
        AsyncStream<int>::makeStream(BufferingPolicy::bufferingOldest(2));
    EXPECT_EQ(continuation.yield(1).remaining, 1);
    const auto second = continuation.yield(2);
    EXPECT_EQ(second.kind, Yielded::enqueued);
    EXPECT_EQ(second.remaining, 0);
    const auto third = continuation.yield(3);
    EXPECT_EQ(third.kind, Yielded::dropped);
    EXPECT_EQ(third.element, 3);
    continuation.finish();
    EXPECT_EQ(elementsOf(stream), (Ints{1, 2}));
}

TEST(AsyncStream, BufferingNewestDropsTheElementThatHasWaitedLongestWhenItIsFull) {
    const auto [stream, continuation] =
        AsyncStream<int>::makeStream(BufferingPolicy::bufferingNewest(2));
    EXPECT_EQ(continuation.yield(1).remaining, 1);
    EXPECT_EQ(continuation.yield(2).remaining, 0);
    const auto third = continuation.yield(3);
    EXPECT_EQ(third.kind, Yielded::dropped);
    EXPECT_EQ(third.element, 1);
    continuation.finish();
    EXPECT_EQ(elementsOf(stream), (Ints{2, 3}));
}

TEST(AsyncStream, ABufferWithoutRoomKeepsNothingButServesAConsumerThatWaits) {
    for (const auto policy :
         {BufferingPolicy::bufferingOldest(0), BufferingPolicy::bufferingNewest(0),
          BufferingPolicy::bufferingOldest(-1), BufferingPolicy::bufferingNewest(-1)}) {
        const auto executor = make<ManualExecutor>();
        const auto [stream, continuation] = AsyncStream<int>::makeStream(policy);
        const auto lost = continuation.yield(1);
        EXPECT_EQ(lost.kind, Yielded::dropped);
        EXPECT_EQ(lost.element, 1);
        const auto consumer = takeOne<int>(stream, executor);
        executor->runAll();
        const auto served = continuation.yield(2);
        EXPECT_EQ(served.kind, Yielded::enqueued);
        EXPECT_EQ(served.remaining, 0);
        executor->runAll();
        EXPECT_EQ(*consumer.outcome(), 2);
    }
}

TEST(AsyncStream, AnElementThatAConsumerHasWaitedForTakesNoRoom) {
    const auto executor = make<ManualExecutor>();
    const auto [stream, continuation] =
        AsyncStream<int>::makeStream(BufferingPolicy::bufferingOldest(2));
    const auto consumer = takeOne<int>(stream, executor);
    executor->runAll();
    EXPECT_EQ(continuation.yield(1).remaining, 2);
    EXPECT_EQ(continuation.yield(2).remaining, 1);
    executor->runAll();
}

TEST(AsyncStream, TakingAnElementMakesRoom) {
    const auto [stream, continuation] =
        AsyncStream<int>::makeStream(BufferingPolicy::bufferingOldest(1));
    auto iterator = stream.makeAsyncIterator();
    continuation.yield(1);
    EXPECT_EQ(continuation.yield(2).kind, Yielded::dropped);
    EXPECT_EQ(nextOf(iterator), 1);
    EXPECT_EQ(continuation.yield(3).kind, Yielded::enqueued);
    EXPECT_EQ(nextOf(iterator), 3);
}

// The end.

TEST(AsyncStream, WhatIsYieldedAfterTheEndIsGone) {
    const auto [stream, continuation] = AsyncStream<MoveOnly>::makeStream();
    continuation.finish();
    EXPECT_EQ(continuation.yield(MoveOnly(1)).kind, YieldResult<MoveOnly>::Kind::terminated);
    EXPECT_EQ(MoveOnly::living, 0);
    auto iterator = stream.makeAsyncIterator();
    EXPECT_FALSE(nextOf(iterator).has_value());
}

TEST(AsyncStream, FinishingEndsTheWaitOfEveryConsumer) {
    const auto executor = make<ManualExecutor>();
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    const auto first = takeOne<int>(stream, executor);
    const auto second = takeOne<int>(stream, executor);
    executor->runAll();
    continuation.finish();
    executor->runAll();
    EXPECT_EQ(*first.outcome(), std::nullopt);
    EXPECT_EQ(*second.outcome(), std::nullopt);
}

TEST(AsyncStream, TheTerminationHandlerIsToldOnceThatTheStreamWasFinished) {
    std::vector<StreamTermination> endings;
    {
        const auto [stream, continuation] = AsyncStream<int>::makeStream();
        continuation.setOnTermination(noteIn(endings));
        EXPECT_TRUE(endings.empty());
        continuation.finish();
        EXPECT_EQ(kindsOf(endings), only(Ending::finished));
        EXPECT_EQ(endings[0].error, nullptr);
        continuation.finish();
    }
    EXPECT_EQ(endings.size(), 1U);
}

TEST(AsyncStream, CancellingAConsumerThatWaitsEndsTheStream) {
    const auto executor = make<ManualExecutor>();
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    std::vector<StreamTermination> endings;
    continuation.setOnTermination(noteIn(endings));
    const auto consumer = takeOne<int>(stream, executor);
    executor->runAll();
    consumer.cancel();
    EXPECT_EQ(kindsOf(endings), only(Ending::cancelled));
    EXPECT_EQ(continuation.yield(1).kind, Yielded::terminated);
    executor->runAll();
    EXPECT_EQ(*consumer.outcome(), std::nullopt);
    continuation.finish();
    EXPECT_EQ(endings.size(), 1U);
}

TEST(AsyncStream, CancellingOneOfSeveralConsumersEndsTheStreamForAll) {
    const auto executor = make<ManualExecutor>();
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    const auto first = takeOne<int>(stream, executor);
    const auto second = takeOne<int>(stream, executor);
    executor->runAll();
    second.cancel();
    executor->runAll();
    EXPECT_EQ(*first.outcome(), std::nullopt);
    EXPECT_EQ(*second.outcome(), std::nullopt);
}

TEST(AsyncStream, ACancelledTaskEndsTheStreamAndStillGetsWhatIsBuffered) {
    const auto executor = make<ManualExecutor>();
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    std::vector<StreamTermination> endings;
    continuation.setOnTermination(noteIn(endings));
    continuation.yield(1);
    const auto consumer = Task<Ints>::start(
        [stream] { return test::collectRest(stream.makeAsyncIterator()); }, {.executor = executor});
    consumer.cancel();
    EXPECT_TRUE(endings.empty());
    executor->runAll();
    EXPECT_EQ(*consumer.outcome(), Ints{1});
    EXPECT_EQ(kindsOf(endings), only(Ending::cancelled));
}

TEST(AsyncStream, DroppingAllHandlesEndsTheStreamAndFreesWhatIsBuffered) {
    auto made = std::make_optional(AsyncStream<MoveOnly>::makeStream());
    const auto continuation = made->continuation;
    std::vector<StreamTermination> endings;
    continuation.setOnTermination(noteIn(endings));
    continuation.yield(MoveOnly(1));
    const auto copy = std::make_unique<AsyncStream<MoveOnly>>(made->stream);
    made.reset();
    EXPECT_TRUE(endings.empty());
    *copy = AsyncStream<MoveOnly>::makeStream().stream;
    EXPECT_EQ(kindsOf(endings), only(Ending::cancelled));
    EXPECT_EQ(MoveOnly::living, 0);
    EXPECT_EQ(continuation.yield(MoveOnly(2)).kind, YieldResult<MoveOnly>::Kind::terminated);
}

TEST(AsyncStream, AnIteratorKeepsTheStreamGoing) {
    auto made = std::make_optional(AsyncStream<int>::makeStream());
    const auto continuation = made->continuation;
    std::vector<StreamTermination> endings;
    continuation.setOnTermination(noteIn(endings));
    {
        auto iterator = made->stream.makeAsyncIterator();
        made.reset();
        continuation.yield(1);
        EXPECT_EQ(nextOf(iterator), 1);
        EXPECT_TRUE(endings.empty());
    }
    EXPECT_EQ(kindsOf(endings), only(Ending::cancelled));
}

TEST(AsyncStream, AConsumerThatWaitsKeepsTheStreamGoing) {
    const auto executor = make<ManualExecutor>();
    auto made = std::make_optional(AsyncStream<int>::makeStream());
    const auto continuation = made->continuation;
    const auto consumer = Task<std::optional<int>>::start(
        [iterator = std::make_optional(made->stream.makeAsyncIterator())]() mutable {
            auto next = iterator->next();
            iterator.reset();
            return next;
        },
        {.executor = executor});
    made.reset();
    executor->runAll();
    EXPECT_EQ(continuation.yield(5).kind, Yielded::enqueued);
    executor->runAll();
    EXPECT_EQ(*consumer.outcome(), 5);
}

TEST(AsyncStream, DroppingTheContinuationDoesNotEndTheStream) {
    const auto executor = make<ManualExecutor>();
    auto made = std::make_optional(AsyncStream<int>::makeStream());
    const auto consumer = takeOne<int>(made->stream, executor);
    made.reset();
    executor->runAll();
    EXPECT_FALSE(consumer.isDone());
    consumer.cancel();
    executor->runAll();
    EXPECT_TRUE(consumer.isDone());
}

TEST(AsyncStream, AHandlerThatIsSetAfterTheEndIsToldAtOnce) {
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    continuation.finish();
    std::vector<StreamTermination> endings;
    continuation.setOnTermination(noteIn(endings));
    EXPECT_EQ(kindsOf(endings), only(Ending::finished));
    continuation.setOnTermination(nullptr);
    EXPECT_EQ(endings.size(), 1U);
}

TEST(AsyncStream, AHandlerThatIsReplacedIsDestroyedAndNotCalled) {
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    std::vector<StreamTermination> endings;
    continuation.setOnTermination(
        [&, token = MoveOnly(1)](const StreamTermination& how) { endings.push_back(how); });
    EXPECT_GT(MoveOnly::living, 0);
    continuation.setOnTermination(nullptr);
    EXPECT_EQ(MoveOnly::living, 0);
    continuation.finish();
    EXPECT_TRUE(endings.empty());
}

TEST(AsyncStream, TheHandlerIsDestroyedWhenItWasCalled) {
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    continuation.setOnTermination([token = MoveOnly(1)](const StreamTermination&) {});
    continuation.finish();
    EXPECT_EQ(MoveOnly::living, 0);
}

TEST(AsyncStream, TheHandlerMayUseTheContinuationAndRunsBeforeTheConsumerGoesOn) {
    const auto executor = make<ManualExecutor>();
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    std::vector<Yielded> results;
    continuation.setOnTermination([&, continuation](const StreamTermination&) {
        EXPECT_EQ(executor->pendingCount(), 0U);
        results.push_back(continuation.yield(1).kind);
        continuation.finish();
    });
    const auto consumer = takeOne<int>(stream, executor);
    executor->runAll();
    continuation.finish();
    executor->runAll();
    EXPECT_EQ(results, std::vector{Yielded::terminated});
    EXPECT_EQ(*consumer.outcome(), std::nullopt);
}

TEST(AsyncStream, NoLockIsHeldWhileADroppedElementIsDestroyed) {
    struct Yielding {
        AsyncStream<std::unique_ptr<Yielding>>::Continuation continuation;
        int* destroyed;
        ~Yielding() {
            ++*destroyed;
            continuation.yield(nullptr);
        }
    };
    int destroyed = 0;
    using Stream = AsyncStream<std::unique_ptr<Yielding>>;
    {
        const auto [stream, continuation] = Stream::makeStream(BufferingPolicy::bufferingNewest(1));
        for (int i = 0; i < 3; ++i) {
            continuation.yield(std::unique_ptr<Yielding>(new Yielding{continuation, &destroyed}));
        }
        EXPECT_GE(destroyed, 2);
        continuation.finish();
        continuation.yield(std::unique_ptr<Yielding>(new Yielding{continuation, &destroyed}));
    }
    EXPECT_EQ(destroyed, 4);
}

// Unfolding.

/// A producer of 1 … count that can be counted.
auto countTo(int count, int& calls) {
    return [count, &calls, token = MoveOnly(0)]() -> Async<std::optional<int>> {
        ++calls;
        co_await thisTask::yield();
        co_return calls <= count ? std::optional(calls) : std::nullopt;
    };
}

TEST(UnfoldingAsyncStream, TheProducerIsCalledForEachElementUpToItsEnd) {
    int calls = 0;
    const auto stream = AsyncStream<int>::unfolding(countTo(2, calls));
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(elementsOf(stream), (Ints{1, 2}));
    EXPECT_EQ(calls, 3);
}

TEST(UnfoldingAsyncStream, TheProducerIsDestroyedAndNotCalledAfterTheEnd) {
    int calls = 0;
    const auto stream = AsyncStream<int>::unfolding(countTo(1, calls));
    EXPECT_EQ(elementsOf(stream), Ints{1});
    EXPECT_EQ(MoveOnly::living, 0);
    auto iterator = stream.makeAsyncIterator();
    EXPECT_EQ(nextOf(iterator), std::nullopt);
    EXPECT_EQ(calls, 2);
}

TEST(UnfoldingAsyncStream, WhatTheProducerHasReadyIsGivenWithoutSuspending) {
    int number = 0;
    const auto stream = AsyncStream<int>::unfolding([&] {
        ++number;
        return Async<std::optional<int>>::ready(number < 3 ? std::optional(number) : std::nullopt);
    });
    auto iterator = stream.makeAsyncIterator();
    for (const std::optional<int> expected :
         {std::optional(1), std::optional(2), std::optional<int>(), std::optional<int>()}) {
        auto next = iterator.next();
        ASSERT_TRUE(next.isReady());
        EXPECT_EQ(syncWait(std::move(next)), expected);
    }
    EXPECT_EQ(number, 3);
}

TEST(UnfoldingAsyncStream, TheProducerOutlivesTheStreamWhileItRuns) {
    const auto executor = make<ManualExecutor>();
    int calls = 0;
    auto stream = std::make_optional(AsyncStream<int>::unfolding(countTo(1, calls)));
    const auto consumer = Task<std::optional<int>>::start(
        [iterator = std::make_optional(stream->makeAsyncIterator())]() mutable {
            auto next = iterator->next();
            iterator.reset();
            return next;
        },
        {.executor = executor});
    stream.reset();
    executor->runAll();
    EXPECT_EQ(*consumer.outcome(), 1);
    EXPECT_EQ(MoveOnly::living, 0);
}

TEST(UnfoldingAsyncStream, CancellingAConsumerCallsTheActionOnceAndEndsTheStream) {
    const auto executor = make<ManualExecutor>();
    int calls = 0;
    int cancels = 0;
    const auto stream = AsyncStream<int>::unfolding(countTo(9, calls), [&] { ++cancels; });
    const auto consumer = Task<Ints>::start(
        [stream] { return test::collectRest(stream.makeAsyncIterator()); }, {.executor = executor});
    EXPECT_TRUE(executor->runOne());
    EXPECT_EQ(calls, 1);
    consumer.cancel();
    EXPECT_EQ(cancels, 1);
    executor->runAll();
    // What the producer was about to give still counts.
    EXPECT_EQ(*consumer.outcome(), Ints{1});
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(cancels, 1);
    EXPECT_EQ(MoveOnly::living, 0);
    auto iterator = stream.makeAsyncIterator();
    EXPECT_EQ(nextOf(iterator), std::nullopt);
}

TEST(UnfoldingAsyncStream, ACancelledTaskGetsNothingAndDoesNotCallTheProducer) {
    const auto executor = make<ManualExecutor>();
    int calls = 0;
    int cancels = 0;
    const auto stream = AsyncStream<int>::unfolding(countTo(9, calls), [&] { ++cancels; });
    const auto consumer = takeOne<int>(stream, executor);
    consumer.cancel();
    executor->runAll();
    EXPECT_EQ(*consumer.outcome(), std::nullopt);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(cancels, 1);
}

TEST(UnfoldingAsyncStream, TheActionIsNotCalledAfterTheEndOrWhenTheStreamIsDropped) {
    const auto executor = make<ManualExecutor>();
    int calls = 0;
    int cancels = 0;
    {
        const auto stream = AsyncStream<int>::unfolding(countTo(0, calls), [&] { ++cancels; });
        EXPECT_EQ(elementsOf(stream), Ints());
        const auto consumer = takeOne<int>(stream, executor);
        consumer.cancel();
        executor->runAll();
        const auto dropped = AsyncStream<int>::unfolding(countTo(1, calls), [&] { ++cancels; });
    }
    EXPECT_EQ(cancels, 0);
}

/// Takes an element on this thread, the only one that can report a trap.
void takeHere(const AsyncStream<int>& stream) {
    const auto executor = make<ManualExecutor>();
    (void)takeOne<int>(stream, executor);
    executor->runAll();
}

TEST(UnfoldingAsyncStreamDeathTest, AProducerThatThrowsTraps) {
    const auto atOnce = AsyncStream<int>::unfolding(
        []() -> Async<std::optional<int>> { throw std::runtime_error("no"); });
    EXPECT_TRAP(takeHere(atOnce), "AsyncStream: the producer has thrown");
    const auto later = AsyncStream<int>::unfolding([]() -> Async<std::optional<int>> {
        co_await thisTask::yield();
        throw std::runtime_error("no");
    });
    EXPECT_TRAP(takeHere(later), "AsyncStream: the producer has thrown");
}

// Random commands against a model: consumers that take one element each, in tasks whose order is
// random too.

struct Command {
    enum Kind { yield, consume, run, runAll, cancel, finish, kKinds };
    int kind;
    int number;
};

std::ostream& operator<<(std::ostream& out, const Command& command) {
    return out << "{" << command.kind << ", " << command.number << "}";
}

/// What a stream is.
class Model {
public:
    explicit Model(BufferingPolicy policy) : policy_(policy) {}

    YieldResult<int> yield(int element) {
        using enum Yielded;
        const bool isBounded = policy_.kind() != BufferingPolicy::Kind::unbounded;
        const auto room = [&](std::size_t count) {
            return isBounded ? policy_.limit() - static_cast<std::int64_t>(count) : kNoBound;
        };
        if (end.has_value()) {
            return {terminated, 0, std::nullopt};
        }
        if (!waiting_.empty()) {
            given[waiting_.front()] = element;
            waiting_.pop_front();
            return {enqueued, room(0), std::nullopt};
        }
        buffer_.push_back(element);
        if (!isBounded || static_cast<std::int64_t>(buffer_.size()) <= policy_.limit()) {
            return {enqueued, room(buffer_.size()), std::nullopt};
        }
        const bool isNewDropped = policy_.kind() == BufferingPolicy::Kind::oldest;
        const auto victim = isNewDropped ? std::prev(buffer_.end()) : buffer_.begin();
        const int dropped_ = *victim;
        buffer_.erase(victim);
        return {dropped, 0, dropped_};
    }
    /// A consumer calls `next`.
    void arrive(int consumer) {
        if (cancelled_.contains(consumer)) {
            terminate(Ending::cancelled);
        }
        if (!buffer_.empty()) {
            given[consumer] = buffer_.front();
            buffer_.pop_front();
        } else if (end.has_value()) {
            given[consumer] = std::nullopt;
        } else {
            waiting_.push_back(consumer);
            suspended_.insert(consumer);
        }
    }
    void leave(int consumer) { suspended_.erase(consumer); }
    void cancel(int consumer) {
        cancelled_.insert(consumer);
        if (suspended_.contains(consumer)) {
            terminate(Ending::cancelled);
        }
    }
    void terminate(Ending how) {
        if (!end.has_value()) {
            end = how;
            for (const int consumer : std::exchange(waiting_, {})) {
                given[consumer] = std::nullopt;
            }
        }
    }

    std::map<int, std::optional<int>> given;
    std::optional<Ending> end;

private:
    BufferingPolicy policy_;
    std::deque<int> buffer_;
    std::deque<int> waiting_;
    std::set<int> suspended_;  // until their tasks go on
    std::set<int> cancelled_;
};

RC_GTEST_PROP(AsyncStreamModel, AStreamIsABufferAndALineOfConsumers, ()) {
    const auto limit = *rc::gen::inRange<std::int64_t>(0, 4);
    const auto policy =
        *rc::gen::element(BufferingPolicy::unbounded(), BufferingPolicy::bufferingOldest(limit),
                          BufferingPolicy::bufferingNewest(limit));
    const auto executor = make<ManualExecutor>(*rc::gen::arbitrary<std::uint64_t>());
    const auto commands = *rc::gen::container<std::vector<Command>>(
        rc::gen::construct<Command>(rc::gen::weightedElement<int>({{6, Command::yield},
                                                                   {6, Command::consume},
                                                                   {5, Command::run},
                                                                   {1, Command::runAll},
                                                                   {1, Command::cancel},
                                                                   {1, Command::finish}}),
                                    rc::gen::inRange(0, 20)));

    Model model(policy);
    std::map<int, std::optional<int>> received;
    std::vector<StreamTermination> endings;
    auto made = std::make_optional(AsyncStream<int>::makeStream(policy));
    const auto continuation = made->continuation;
    continuation.setOnTermination(noteIn(endings));
    std::vector<Task<>> consumers;

    const auto consume = [&](int name) {
        return [&, name, stream = made->stream]() -> Async<> {
            auto iterator = stream.makeAsyncIterator();
            model.arrive(name);
            const std::optional<int> element = co_await iterator.next();
            received[name] = element;
            model.leave(name);
        };
    };
    for (const auto& [kind, number] : commands) {
        switch (kind) {
            case Command::yield: {
                const auto result = continuation.yield(number);
                const auto expected = model.yield(number);
                RC_ASSERT(result.kind == expected.kind);
                RC_ASSERT(result.remaining == expected.remaining);
                RC_ASSERT(result.element == expected.element);
                break;
            }
            case Command::consume:
                consumers.push_back(Task<>::start(consume(static_cast<int>(consumers.size())),
                                                  {.executor = executor}));
                break;
            case Command::run:
                executor->runOne();
                break;
            case Command::runAll:
                executor->runAll();
                RC_ASSERT(received == model.given);
                break;
            case Command::cancel:
                if (!consumers.empty()) {
                    const auto index = static_cast<std::size_t>(number) % consumers.size();
                    consumers[index].cancel();
                    model.cancel(static_cast<int>(index));
                }
                break;
            default:
                continuation.finish();
                model.terminate(Ending::finished);
                break;
        }
        RC_ASSERT(endings.size() == (model.end.has_value() ? 1U : 0U));
    }
    executor->runAll();
    continuation.finish();
    model.terminate(Ending::finished);
    executor->runAll();
    made.reset();
    RC_ASSERT(received == model.given);
    RC_ASSERT(received.size() == consumers.size());
    RC_ASSERT(kindsOf(endings) == only(*model.end));
}

}  // namespace
}  // namespace vantorq
