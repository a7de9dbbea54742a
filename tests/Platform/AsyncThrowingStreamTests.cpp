#include <exception>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Streams.h"
#include "VantorqFoundation/Platform/AsyncSequence.h"
#include "VantorqFoundation/Platform/AsyncStream.h"
#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

// What an AsyncThrowingStream has beyond an AsyncStream, whose tests are beside these: errors.

namespace vantorq {
namespace {

using test::elementsOf;
using test::MoveOnly;
using test::nextOf;
using test::noteIn;
using test::takeOne;
using testing::ManualExecutor;
using Ending = StreamTermination::Kind;
using Ints = std::vector<int>;

static_assert(AsyncSequence<AsyncThrowingStream<int>>);
static_assert(!std::same_as<AsyncThrowingStream<int>, AsyncStream<int>>);

struct Failure {
    int number;
};
std::exception_ptr failure(int number) {
    return std::make_exception_ptr(Failure{number});
}
/// The number of the failure that `body` throws; nothing when it returns.
template <class Body>
std::optional<int> failureOf(Body body) {
    try {
        (void)body();
    } catch (const Failure& thrown) {
        return thrown.number;
    }
    return std::nullopt;
}

TEST(AsyncThrowingStream, ElementsComeBeforeTheErrorAndNothingAfterIt) {
    const auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
    continuation.yield(1);
    continuation.yield(2);
    continuation.finish(failure(7));
    auto iterator = stream.makeAsyncIterator();
    EXPECT_EQ(nextOf(iterator), 1);
    EXPECT_EQ(nextOf(iterator), 2);
    EXPECT_EQ(failureOf([&] { return nextOf(iterator); }), 7);
    EXPECT_EQ(nextOf(iterator), std::nullopt);
    EXPECT_EQ(nextOf(iterator), std::nullopt);
}

TEST(AsyncThrowingStream, TheAwaitThrowsNotTheCall) {
    const auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
    continuation.finish(failure(7));
    auto iterator = stream.makeAsyncIterator();
    auto next = iterator.next();
    EXPECT_EQ(failureOf([&] { return syncWait(std::move(next)); }), 7);
}

TEST(AsyncThrowingStream, WithoutAnErrorItJustEnds) {
    const auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
    continuation.yield(1);
    continuation.finish();
    EXPECT_EQ(elementsOf(stream), Ints{1});

    const auto other = AsyncThrowingStream<int>::makeStream();
    other.continuation.finish(nullptr);
    EXPECT_EQ(elementsOf(other.stream), Ints());
}

TEST(AsyncThrowingStream, TheConsumerThatHasWaitedLongestGetsTheErrorAndTheOthersTheEnd) {
    const auto executor = make<ManualExecutor>();
    const auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
    const auto first = takeOne<int>(stream, executor);
    const auto second = takeOne<int>(stream, executor);
    executor->runAll();
    continuation.finish(failure(3));
    executor->runAll();
    EXPECT_EQ(failureOf([&] { std::rethrow_exception(first.outcome().error()); }), 3);
    EXPECT_EQ(*second.outcome(), std::nullopt);
    auto iterator = stream.makeAsyncIterator();
    EXPECT_EQ(nextOf(iterator), std::nullopt);
}

TEST(AsyncThrowingStream, TheTerminationHandlerIsToldTheError) {
    std::vector<StreamTermination> endings;
    const auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
    continuation.setOnTermination(noteIn(endings));
    const auto error = failure(3);
    continuation.finish(error);
    continuation.setOnTermination(noteIn(endings));
    const StreamTermination expected{Ending::finished, error};
    EXPECT_EQ(endings, (std::vector{expected, expected}));
}

TEST(AsyncThrowingStream, OnlyTheFirstEndCounts) {
    const auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
    continuation.finish();
    continuation.finish(failure(1));
    EXPECT_EQ(elementsOf(stream), Ints());
}

TEST(AsyncThrowingStream, CancellingAConsumerThatWaitsGivesNothingAndNoError) {
    const auto executor = make<ManualExecutor>();
    const auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
    std::vector<StreamTermination> endings;
    continuation.setOnTermination(noteIn(endings));
    const auto consumer = takeOne<int>(stream, executor);
    executor->runAll();
    consumer.cancel();
    executor->runAll();
    EXPECT_EQ(*consumer.outcome(), std::nullopt);
    EXPECT_EQ(endings, std::vector{(StreamTermination{Ending::cancelled, nullptr})});
}

TEST(AsyncThrowingStream, AnErrorThatNobodyAsksForIsFreedWithTheStream) {
    struct CountedFailure {
        explicit CountedFailure(int& count) : living(&count) { ++*living; }
        CountedFailure(const CountedFailure& other) : CountedFailure(*other.living) {}
        CountedFailure& operator=(const CountedFailure&) = delete;
        ~CountedFailure() { --*living; }
        int* living;
    };
    int living = 0;
    {
        const auto [stream, continuation] = AsyncThrowingStream<int>::makeStream();
        continuation.finish(std::make_exception_ptr(CountedFailure(living)));
        EXPECT_EQ(living, 1);
    }
    EXPECT_EQ(living, 0);
}

TEST(UnfoldingAsyncThrowingStream, WhatTheProducerThrowsEndsTheStreamOnce) {
    int calls = 0;
    const auto stream = AsyncThrowingStream<int>::unfolding(
        [&calls, token = MoveOnly(0)]() -> Async<std::optional<int>> {
            co_await thisTask::yield();
            if (++calls == 2) {
                throw Failure{calls};
            }
            co_return calls;
        });
    auto iterator = stream.makeAsyncIterator();
    EXPECT_EQ(nextOf(iterator), 1);
    EXPECT_EQ(failureOf([&] { return nextOf(iterator); }), 2);
    EXPECT_EQ(nextOf(iterator), std::nullopt);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(MoveOnly::living, 0);
}

TEST(UnfoldingAsyncThrowingStream, AProducerThatThrowsAtOnceFailsInTheAwaitToo) {
    int calls = 0;
    const auto stream = AsyncThrowingStream<int>::unfolding(
        [&]() -> Async<std::optional<int>> { throw Failure{++calls}; });
    auto iterator = stream.makeAsyncIterator();
    auto next = iterator.next();
    EXPECT_EQ(failureOf([&] { return syncWait(std::move(next)); }), 1);
    EXPECT_EQ(nextOf(iterator), std::nullopt);
    EXPECT_EQ(calls, 1);
}

TEST(UnfoldingAsyncThrowingStream, TheActionIsNotCalledAfterAnError) {
    const auto executor = make<ManualExecutor>();
    int cancels = 0;
    const auto stream = AsyncThrowingStream<int>::unfolding(
        []() -> Async<std::optional<int>> { throw Failure{1}; }, [&] { ++cancels; });
    auto iterator = stream.makeAsyncIterator();
    EXPECT_EQ(failureOf([&] { return nextOf(iterator); }), 1);
    const auto consumer = takeOne<int>(stream, executor);
    consumer.cancel();
    executor->runAll();
    EXPECT_EQ(cancels, 0);
}

}  // namespace
}  // namespace vantorq
