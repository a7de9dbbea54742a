#include "VantorqFoundation/AsyncSequenceHelpers.h"

#include <concepts>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Streams.h"
#include "Support/Tasks.h"
#include "VantorqFoundation/AsyncBroadcast.h"
#include "VantorqFoundation/Platform/AsyncSequence.h"
#include "VantorqFoundation/Platform/AsyncStream.h"
#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

namespace vantorq {
namespace {

using test::elementsOf;
using test::nextOf;
using test::takeOne;
using testing::ManualExecutor;
using Ints = std::vector<int>;

/// 1 … count, then the end, or an error; each element at once, or after the others' turn.
struct Numbers {
    struct Iterator {
        Async<std::optional<int>> next() {
            if (!waits) {
                return Async<std::optional<int>>::ready(step());
            }
            return later(*this);
        }
        static Async<std::optional<int>> later(Iterator& self) {
            co_await thisTask::yield();
            co_return self.step();
        }
        std::optional<int> step() {
            if (last < count) {
                return ++last;
            }
            if (fails) {
                throw std::runtime_error("no more");
            }
            return std::nullopt;
        }

        int count;
        bool fails;
        bool waits;
        int last = 0;
    };
    [[nodiscard]] Iterator makeAsyncIterator() const {
        ++*iterators;
        return {count, fails, waits};
    }

    int count;
    bool fails = false;
    bool waits = false;
    int* iterators = &ignored;

    static inline constinit int ignored = 0;
};

/// A sequence whose `next` gives an awaitable of its own.
struct Countdown {
    struct Iterator {
        struct Awaiter {
            [[nodiscard]] bool await_ready() const noexcept { return true; }
            void await_suspend(std::coroutine_handle<>) const noexcept {}
            [[nodiscard]] std::optional<int> await_resume() const {
                if (left == 0 && fails) {
                    throw std::runtime_error("no more");
                }
                return left > 0 ? std::optional(left) : std::nullopt;
            }
            int left;
            bool fails;
        };
        Awaiter next() noexcept { return {left--, fails}; }
        int left;
        bool fails;
    };
    [[nodiscard]] Iterator makeAsyncIterator() const noexcept { return {from, fails}; }

    int from;
    bool fails = false;
};

static_assert(AsyncSequence<Numbers> && AsyncSequence<Countdown>);

/// A broadcast, which is a sequence as well.
Ref<AsyncBroadcast<Numbers>> sharedNumbers(int count, bool fails) {
    return broadcast(Numbers{count, fails}, BufferingPolicy::unbounded());
}

// Erasing.

TEST(AsyncSequenceHelpers, ANonthrowingStreamErasesToThatVeryStream) {
    const auto stream = AsyncStream<int>::makeStream().stream;
    EXPECT_EQ(eraseToNonthrowingStream(stream), stream);
    EXPECT_EQ(asyncStream(stream), stream);
    auto moved = stream;
    EXPECT_EQ(eraseToNonthrowingStream(std::move(moved)), stream);
}

TEST(AsyncSequenceHelpers, AThrowingStreamErasesToThatVeryStream) {
    const auto stream = AsyncThrowingStream<int>::makeStream().stream;
    EXPECT_EQ(eraseToThrowingStream(stream), stream);
    EXPECT_EQ(asyncThrowingStream(stream), stream);
}

TEST(AsyncSequenceHelpers, EachKindOfStreamErasesToTheOther) {
    const auto nonthrowing = AsyncStream<int>::makeStream();
    nonthrowing.continuation.yield(1);
    nonthrowing.continuation.finish();
    const std::same_as<AsyncThrowingStream<int>> auto erased =
        eraseToThrowingStream(nonthrowing.stream);
    EXPECT_EQ(elementsOf(erased), Ints{1});

    const auto throwing = AsyncThrowingStream<int>::makeStream();
    throwing.continuation.yield(2);
    throwing.continuation.finish(std::make_exception_ptr(std::runtime_error("no")));
    const std::same_as<AsyncStream<int>> auto silent = eraseToNonthrowingStream(throwing.stream);
    EXPECT_EQ(elementsOf(silent), Ints{2});
}

TEST(AsyncSequenceHelpers, ElementsAndTheEndPassThrough) {
    for (const bool waits : {false, true}) {
        EXPECT_EQ(elementsOf(eraseToNonthrowingStream(Numbers{3, false, waits})), (Ints{1, 2, 3}));
        EXPECT_EQ(elementsOf(eraseToThrowingStream(Numbers{3, false, waits})), (Ints{1, 2, 3}));
    }
}

TEST(AsyncSequenceHelpers, ErasedToANonthrowingStreamAnErrorIsASilentEnd) {
    const auto check = [](const AsyncStream<int>& stream, const Ints& elements) {
        auto iterator = stream.makeAsyncIterator();
        for (const int element : elements) {
            EXPECT_EQ(nextOf(iterator), element);
        }
        EXPECT_EQ(nextOf(iterator), std::nullopt);
        EXPECT_EQ(nextOf(iterator), std::nullopt);
    };
    check(eraseToNonthrowingStream(Numbers{2, true, false}), {1, 2});
    check(eraseToNonthrowingStream(Numbers{2, true, true}), {1, 2});
    check(eraseToNonthrowingStream(Countdown{2, true}), {2, 1});
    check(eraseToNonthrowingStream(*sharedNumbers(2, true)), {1, 2});
}

TEST(AsyncSequenceHelpers, ErasedToAThrowingStreamAnErrorIsPassedOnAndEndsTheStream) {
    const auto check = [](const AsyncThrowingStream<int>& stream, const Ints& elements) {
        auto iterator = stream.makeAsyncIterator();
        for (const int element : elements) {
            EXPECT_EQ(nextOf(iterator), element);
        }
        EXPECT_THROW(nextOf(iterator), std::runtime_error);
        EXPECT_EQ(nextOf(iterator), std::nullopt);
    };
    check(eraseToThrowingStream(Numbers{2, true, false}), {1, 2});
    check(eraseToThrowingStream(Numbers{2, true, true}), {1, 2});
    check(eraseToThrowingStream(Countdown{2, true}), {2, 1});
    check(eraseToThrowingStream(*sharedNumbers(2, true)), {1, 2});
}

TEST(AsyncSequenceHelpers, TheSequenceIsAskedForOneIterator) {
    int iterators = 0;
    const auto stream = eraseToNonthrowingStream(Numbers{2, false, false, &iterators});
    EXPECT_EQ(iterators, 1);
    auto first = stream.makeAsyncIterator();
    auto second = stream.makeAsyncIterator();
    EXPECT_EQ(nextOf(first), 1);
    EXPECT_EQ(nextOf(second), 2);
    EXPECT_EQ(nextOf(first), std::nullopt);
    EXPECT_EQ(iterators, 1);
}

TEST(AsyncSequenceHelpers, ASequenceWithAnAwaitableOfItsOwnIsErasedToo) {
    EXPECT_EQ(elementsOf(eraseToNonthrowingStream(Countdown{3})), (Ints{3, 2, 1}));
    EXPECT_EQ(elementsOf(eraseToThrowingStream(Countdown{3})), (Ints{3, 2, 1}));
}

TEST(AsyncSequenceHelpers, ABroadcastIsErasedForOneMoreConsumerWhoKeepsIt) {
    auto shared = sharedNumbers(3, false);
    const Weak weak(shared);
    const auto nonthrowing = eraseToNonthrowingStream(*shared);
    const auto throwing = eraseToThrowingStream(*shared);
    shared.reset();
    EXPECT_EQ(elementsOf(nonthrowing), (Ints{1, 2, 3}));
    EXPECT_EQ(weak.load()->ownerCount(), 2U) << "the other stream, and the handle just loaded";
    EXPECT_EQ(elementsOf(throwing), (Ints{1, 2, 3}));
    EXPECT_EQ(weak.load().get(), nullptr);
}

TEST(AsyncSequenceHelpers, ElementsThatAreThereAreGivenWithoutSuspending) {
    const auto nonthrowing = eraseToNonthrowingStream(Numbers{1});
    const auto throwing = eraseToThrowingStream(Numbers{1});
    EXPECT_TRUE(nonthrowing.makeAsyncIterator().next().isReady());
    EXPECT_TRUE(throwing.makeAsyncIterator().next().isReady());
}

TEST(AsyncSequenceHelpers, AnErasedStreamNeedNotHaveCopyableElements) {
    {
        const auto made = AsyncThrowingStream<test::MoveOnly>::makeStream();
        made.continuation.yield(test::MoveOnly(1));
        made.continuation.finish();
        const auto elements = elementsOf(eraseToNonthrowingStream(made.stream));
        ASSERT_EQ(elements.size(), 1U);
        EXPECT_EQ(elements[0].value, 1);
    }
    EXPECT_EQ(test::MoveOnly::living, 0);
}

TEST(AsyncSequenceHelpers, TheSourceIsLetGoAtTheEnd) {
    const auto token = make<test::Token>();
    const auto erased = eraseToNonthrowingStream(AsyncThrowingStream<int>::unfolding(
        [kept = token, left = 1]() mutable -> Async<std::optional<int>> {
            co_return left-- > 0 ? std::optional(1) : std::nullopt;
        }));
    auto iterator = erased.makeAsyncIterator();
    EXPECT_EQ(nextOf(iterator), 1);
    EXPECT_EQ(token->ownerCount(), 2U);
    EXPECT_EQ(nextOf(iterator), std::nullopt);
    EXPECT_EQ(token->ownerCount(), 1U);
}

TEST(AsyncSequenceHelpers, CancellingTheConsumerCancelsTheSource) {
    std::optional<StreamTermination> ending;
    const auto erased = [&] {
        const auto [source, continuation] = AsyncThrowingStream<int>::makeStream();
        continuation.setOnTermination([&](const StreamTermination& how) { ending = how; });
        return eraseToNonthrowingStream(source);
    }();
    EXPECT_FALSE(ending.has_value());
    const auto executor = make<ManualExecutor>();
    const auto consumer = takeOne<int>(erased, executor);
    executor->runAll();
    consumer.cancel();
    executor->runAll();
    EXPECT_EQ(*consumer.outcome(), std::nullopt);
    ASSERT_TRUE(ending.has_value());
    EXPECT_EQ(ending->kind, StreamTermination::Kind::cancelled);
}

// Observing.

AsyncStream<int> streamOf(std::initializer_list<int> elements) {
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    for (const int element : elements) {
        continuation.yield(element);
    }
    continuation.finish();
    return stream;
}

TEST(MakeObserver, TheObserverGetsWhatWasReadAndEndsWithTheSource) {
    const auto [iterableStream, observer] = makeObserver(streamOf({1, 2, 3}));
    EXPECT_EQ(elementsOf(iterableStream), (Ints{1, 2, 3}));
    EXPECT_EQ(elementsOf(observer), (Ints{1, 2, 3}));
}

TEST(MakeObserver, TheObserverSeesNoMoreThanWasReadAndDoesNotEnd) {
    const auto [iterableStream, observer] = makeObserver(streamOf({1, 2, 3}));
    auto iterator = iterableStream.makeAsyncIterator();
    EXPECT_EQ(nextOf(iterator), 1);
    auto observing = observer.makeAsyncIterator();
    EXPECT_EQ(nextOf(observing), 1);
    EXPECT_FALSE(observing.next().isReady());
}

TEST(MakeObserver, TheObserverDrivesNothing) {
    const auto executor = make<ManualExecutor>();
    const auto source = streamOf({1, 2});
    const auto [iterableStream, observer] = makeObserver(source);
    const auto observed = takeOne<int>(observer, executor);
    executor->runAll();
    EXPECT_FALSE(observed.isDone());
    auto iterator = iterableStream.makeAsyncIterator();
    EXPECT_EQ(nextOf(iterator), 1);
    executor->runAll();
    EXPECT_EQ(*observed.outcome(), 1);
    auto rest = source.makeAsyncIterator();
    EXPECT_EQ(nextOf(rest), 2);
}

TEST(MakeObserver, WhatIsWaitedForIsObservedBeforeItIsGiven) {
    const auto executor = make<ManualExecutor>();
    const auto [source, continuation] = AsyncStream<int>::makeStream();
    const auto observed = makeObserver(source);
    auto observing = observed.observer.makeAsyncIterator();
    const auto readBoth = [&]() -> Async<Ints> {
        auto iterator = observed.iterableStream.makeAsyncIterator();
        Ints elements;
        for (;;) {
            EXPECT_FALSE(observing.next().isReady());
            const std::optional<int> element = co_await iterator.next();
            auto seen = observing.next();
            const bool isSeen = seen.isReady() && seen.takeReady() == element;
            EXPECT_TRUE(isSeen) << elements.size();
            if (!element.has_value() || !isSeen) {
                co_return elements;
            }
            elements.push_back(*element);
        }
    };
    const auto consumer = Task<Ints>::start(readBoth, {.executor = executor});
    for (const int element : {1, 2}) {
        executor->runAll();
        continuation.yield(element);
    }
    executor->runAll();
    EXPECT_FALSE(consumer.isDone());
    continuation.finish();
    executor->runAll();
    EXPECT_EQ(*consumer.outcome(), (Ints{1, 2}));
}

TEST(MakeObserver, AConsumerCancelledWhileItWaitsEndsTheStreamAndTheObserver) {
    const auto executor = make<ManualExecutor>();
    const auto made = AsyncStream<int>::makeStream();
    const auto [iterableStream, observer] = makeObserver(made.stream);
    const auto observing = takeOne<int>(observer, executor);
    const auto consumer = takeOne<int>(iterableStream, executor);
    executor->runAll();
    EXPECT_FALSE(observing.isDone());
    consumer.cancel();
    executor->runAll();
    EXPECT_EQ(*consumer.outcome(), std::nullopt);
    ASSERT_TRUE(observing.isDone());
    EXPECT_EQ(*observing.outcome(), std::nullopt);
}

TEST(MakeObserver, AConsumerCancelledBeforehandDoesNotEndTheObserver) {
    const auto executor = make<ManualExecutor>();
    const auto [iterableStream, observer] = makeObserver(streamOf({1}));
    const auto consumer = takeOne<int>(iterableStream, executor);
    consumer.cancel();
    executor->runAll();
    EXPECT_EQ(*consumer.outcome(), std::nullopt);
    EXPECT_FALSE(observer.makeAsyncIterator().next().isReady()) << "no element and no end";
}

TEST(MakeObserver, AbandoningTheIterableStreamDoesNotEndTheObserver) {
    const auto executor = make<ManualExecutor>();
    auto observed = std::make_optional(makeObserver(streamOf({1, 2, 3})));
    const auto observer = observed->observer;
    {
        auto iterator = observed->iterableStream.makeAsyncIterator();
        EXPECT_EQ(nextOf(iterator), 1);
    }
    observed.reset();
    const auto first = takeOne<int>(observer, executor);
    const auto second = takeOne<int>(observer, executor);
    executor->runAll();
    EXPECT_EQ(*first.outcome(), 1);
    EXPECT_FALSE(second.isDone());
    second.cancel();
    executor->runAll();
    EXPECT_TRUE(second.isDone());
}

TEST(MakeObserver, WithoutTheObserverTheIterableStreamGoesOn) {
    const auto iterableStream = makeObserver(streamOf({1, 2})).iterableStream;
    EXPECT_EQ(elementsOf(iterableStream), (Ints{1, 2}));
}

TEST(MakeObserver, ElementsThatAreThereAreGivenWithoutSuspending) {
    const auto [iterableStream, observer] = makeObserver(streamOf({1}));
    auto iterator = iterableStream.makeAsyncIterator();
    EXPECT_TRUE(iterator.next().isReady());
    EXPECT_TRUE(iterator.next().isReady());
}

}  // namespace
}  // namespace vantorq
