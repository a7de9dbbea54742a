#include <algorithm>
#include <array>
#include <atomic>
#include <exception>
#include <optional>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Streams.h"
#include "Support/Threads.h"
#include "VantorqFoundation/Platform/AsyncStream.h"
#include "VantorqFoundation/Platform/Task.h"

namespace vantorq {
namespace {

using test::MoveOnly;

constexpr int kProducers = 3;

TEST(AsyncStreamStress, OneConsumerGetsEveryElementOfSeveralProducersInTheirOrder) {
    constexpr int kEach = 50'000;
    {
        const auto [stream, continuation] = AsyncStream<MoveOnly>::makeStream();
        std::atomic<int> endings = 0;
        continuation.setOnTermination([&](const StreamTermination&) { ++endings; });
        const auto consumer = Task<bool>::start([stream]() -> Async<bool> {
            std::array<int, kProducers> next{};
            auto iterator = stream.makeAsyncIterator();
            while (auto element = co_await iterator.next()) {
                const auto producer = static_cast<std::size_t>(element->value % kProducers);
                if (element->value / kProducers != next[producer]++) {
                    co_return false;
                }
            }
            co_return next == std::array<int, kProducers>{kEach, kEach, kEach};
        });
        std::atomic<int> producing = kProducers;
        test::together(kProducers, [&](int producer) {
            for (int i = 0; i < kEach; ++i) {
                continuation.yield(MoveOnly(i * kProducers + producer));
            }
            if (--producing == 0) {
                continuation.finish();
            }
        });
        EXPECT_TRUE(syncWait(consumer));
        EXPECT_EQ(endings, 1);
    }
    EXPECT_EQ(MoveOnly::living, 0);
}

TEST(AsyncStreamStress, SeveralConsumersShareTheElements) {
    constexpr int kElements = 100'000;
    constexpr int kConsumers = 3;
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    std::vector<Task<std::vector<int>>> consumers;
    for (int i = 0; i < kConsumers; ++i) {
        consumers.push_back(Task<std::vector<int>>::start(
            [stream] { return test::collectRest(stream.makeAsyncIterator()); }));
    }
    for (int i = 0; i < kElements; ++i) {
        continuation.yield(i);
    }
    continuation.finish();
    std::vector<bool> received(kElements);
    int count = 0;
    for (const auto& consumer : consumers) {
        const auto elements = syncWait(consumer);
        EXPECT_TRUE(std::ranges::is_sorted(elements));
        for (const int element : elements) {
            received[static_cast<std::size_t>(element)] = true;
            ++count;
        }
    }
    EXPECT_EQ(count, kElements);
    EXPECT_EQ(std::ranges::count(received, true), kElements);
}

// Whoever is first, of an end, a cancellation and the last handle's going: there is one end, the
// consumer goes on, and nothing is left.
TEST(AsyncStreamStress, EveryRaceForTheEndHasOneWinner) {
    constexpr int kRounds = 3'000;
    for (int round = 0; round < kRounds; ++round) {
        using Stream = AsyncThrowingStream<MoveOnly>;
        std::atomic<int> endings = 0;
        std::atomic<int> kept = 0;
        int received = 0;
        {
            auto made = std::make_optional(Stream::makeStream());
            const auto continuation = made->continuation;
            continuation.setOnTermination(
                [&, token = MoveOnly(0)](const StreamTermination&) { ++endings; });
            const auto consumer = Task<>::start([&, stream = made->stream]() -> Async<> {
                auto iterator = stream.makeAsyncIterator();
                while (const auto element = co_await iterator.next()) {
                    ++received;
                }
            });
            const bool isHandleDropped = round % 2 == 0;
            if (isHandleDropped) {
                made.reset();
            }
            test::together(3, [&](int thread) {
                if (thread == 0) {
                    consumer.cancel();
                } else if (thread == 1) {
                    for (int i = 0; i < 20; ++i) {
                        const auto result = continuation.yield(MoveOnly(i));
                        kept += result.kind == YieldResult<MoveOnly>::Kind::enqueued ? 1 : 0;
                    }
                } else {
                    continuation.finish(round % 3 == 0 ? std::make_exception_ptr(round) : nullptr);
                }
            });
            try {
                syncWait(consumer);
            } catch (int error) {
                ASSERT_EQ(error, round);
            }
        }
        ASSERT_EQ(endings, 1);
        ASSERT_LE(received, kept);
        ASSERT_EQ(MoveOnly::living, 0);
    }
}

TEST(AsyncStreamStress, AnUnfoldingStreamIsCancelledAtMostOnceWhileItsProducerRuns) {
    constexpr int kRounds = 3'000;
    for (int round = 0; round < kRounds; ++round) {
        std::atomic<int> cancels = 0;
        const auto consumer = Task<int>::start([&]() -> Async<int> {
            int produced = 0;
            const auto stream = AsyncStream<int>::unfolding(
                [&produced, token = MoveOnly(0)]() -> Async<std::optional<int>> {
                    co_await thisTask::yield();
                    co_return ++produced < 20 ? std::optional(produced) : std::nullopt;
                },
                [&] { ++cancels; });
            auto iterator = stream.makeAsyncIterator();
            int last = 0;
            while (const auto element = co_await iterator.next()) {
                last = *element;
            }
            co_return last;
        });
        consumer.cancel();
        const int last = syncWait(consumer);
        ASSERT_LE(cancels, 1);
        ASSERT_TRUE(cancels == 1 || last == 19);
        ASSERT_EQ(MoveOnly::living, 0);
    }
}

}  // namespace
}  // namespace vantorq
