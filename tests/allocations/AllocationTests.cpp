#include <array>
#include <cstdint>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <VantorqFoundation/VantorqFoundation.h>
#include <VantorqFoundation/testing/ManualExecutor.h>

#include "Sources/Platform/Dispatch/WorkLine.h"
#include "Support/AllocationCount.h"

namespace vantorq {
namespace {

constexpr int kCalls = 100;

/// How many allocations one of many calls makes on the calling thread, once it is warm.
template <class F>
double allocationsOf(F call) {
    call();
    const std::uint64_t before = allocationCount();
    for (int i = 0; i < kCalls; ++i) {
        call();
    }
    return static_cast<double>(allocationCount() - before) / kCalls;
}

/// Out of line, so that its frame is not a part of the caller's.
[[gnu::noinline]] Async<int> numberOf(int number) {
    co_return number;
}

class InlineOperation final : public VNTQOperation {
    VNTQ_OBJECT(InlineOperation, VNTQOperation)
public:
    void main() override { completeWithSuccess(NSNull::null()); }
};
VNTQ_DEFINE_CLASS(InlineOperation, {})

TEST(Allocations, AnOperationIsThatItsCallbackAndItsResult) {
    EXPECT_EQ(allocationsOf([] {
                  const auto operation = make<InlineOperation>();
                  operation->setExplicitResultDispatch(true);
                  int delivered = 0;
                  operation->onResult([&delivered](VNTQResult*) { ++delivered; });
                  operation->start();
                  EXPECT_EQ(delivered, 1);
              }),
              3);
}

TEST(Allocations, ALineOfWorkTakesOneWhenItGrows) {
    WorkLine line;
    Work work;
    std::vector<Work*> out(100'000);
    const auto lineUp = [&](std::size_t count) {
        const std::uint64_t before = allocationCount();
        for (std::size_t i = 0; i < count; ++i) {
            line.push(work);
        }
        EXPECT_EQ(line.take(out), count);
        return allocationCount() - before;
    };
    EXPECT_EQ(lineUp(100), 2U);  // 64 and 128
    EXPECT_EQ(lineUp(128), 0U);
    EXPECT_EQ(lineUp(129), 1U);
    EXPECT_EQ(lineUp(65'536), 8U);
    EXPECT_EQ(lineUp(65'536), 0U);
    EXPECT_EQ(lineUp(65'537), 1U);
    EXPECT_EQ(lineUp(1), 1U);  // so long a line was not kept
}

TEST(Allocations, ATimerIsOne) {
    const auto queue = DispatchQueue::serial("s");
    EXPECT_EQ(allocationsOf([&] {
                  const auto timer = DispatchTimer::timer(queue, [] {});
                  timer->schedule(3'600'000'000'000);
              }),
              1);
}

TEST(Allocations, AWeakHandleIsNone) {
    const auto object = make<NSObject>();
    EXPECT_EQ(allocationsOf([&] {
                  const Weak<NSObject> weak(object);
                  EXPECT_EQ(weak.load(), object);
              }),
              0);
}

TEST(Allocations, ThreadsLeaveTheRecordsOfWeakHandlesToOthers) {
    constexpr int kThreads = 600;
    constexpr int kObjects = 16;
    std::uint64_t allocations = 0;
    for (int i = 0; i < kThreads; ++i) {
        std::thread([&] {
            const std::uint64_t before = allocationCount();
            std::array<Ref<NSObject>, kObjects> objects;
            for (auto& object : objects) {
                object = make<NSObject>();
                (void)Weak<NSObject>(object);
            }
            allocations += allocationCount() - before;
        }).join();
    }
    // The first may have made room for records, 4,096 at a time.
    EXPECT_LE(allocations, kThreads * kObjects + 1);
}

TEST(Allocations, AReadWriteLockIsOneAndTakingItNone) {
    EXPECT_EQ(allocationsOf([] { (void)make<ReadWriteLock>(); }), 1);
    const auto lock = make<ReadWriteLock>();
    int sum = 0;
    EXPECT_EQ(allocationsOf([&] {
                  lock->readBlock([&] { ++sum; });
                  lock->writeBlock([&] { ++sum; });
              }),
              0);
    EXPECT_EQ(sum, 2 * (kCalls + 1));
}

TEST(Allocations, AwaitingAFunctionTakesItsFrame) {
    const auto awaitMany = []() -> Async<> {
        int sum = 0;
        for (int warm = 0; warm < kCalls; ++warm) {
            sum += co_await numberOf(1);
        }
        const std::uint64_t before = allocationCount();
        for (int i = 0; i < kCalls; ++i) {
            sum += co_await numberOf(1);
        }
        EXPECT_EQ(allocationCount() - before, kCalls);
        EXPECT_EQ(sum, 2 * kCalls);
    };
    syncWait(awaitMany());
}

TEST(Allocations, StartingATaskTakesOneBesideTheFrameOfItsFunction) {
    const auto executor = make<testing::ManualExecutor>();
    const auto work = [] { return numberOf(1); };
    const auto start = [&] {
        const auto task = Task<int>::start(work, {.executor = executor});
        executor->runAll();
        EXPECT_EQ(task.outcome().value(), 1);
    };
    EXPECT_EQ(allocationsOf(start) - allocationsOf([&] { (void)numberOf(1); }), 1);
}

TEST(Allocations, EnteringAnActorThatIsIdleTakesNone) {
    const auto actor = make<Actor>();
    syncWait([](Ref<Actor> home) -> Async<> {
        co_await home->enter();
        const std::uint64_t before = allocationCount();
        for (int i = 0; i < kCalls; ++i) {
            co_await home->enter();
        }
        EXPECT_EQ(allocationCount(), before);
    }(actor));
}

TEST(Allocations, ReadingWhatAStreamHoldsTakesNone) {
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    for (int i = 0; i < 2 * kCalls; ++i) {
        continuation.yield(i);
    }
    auto iterator = stream.makeAsyncIterator();
    syncWait([](auto& reading) -> Async<> {
        std::optional<int> element = co_await reading.next();
        const std::uint64_t before = allocationCount();
        for (int i = 0; i < kCalls; ++i) {
            element = co_await reading.next();
        }
        EXPECT_EQ(allocationCount(), before);
        EXPECT_EQ(element, kCalls);
    }(iterator));
}

TEST(Allocations, ReadingWhatABroadcastKeepsTakesNone) {
    const auto [stream, continuation] = AsyncStream<int>::makeStream();
    for (int i = 0; i <= kCalls; ++i) {
        continuation.yield(i);
    }
    continuation.finish();
    const auto shared = broadcast(stream, BufferingPolicy::unbounded());
    const auto readAll = [](auto reading) -> Async<std::uint64_t> {
        std::optional<int> element = co_await reading.next();
        const std::uint64_t before = allocationCount();
        for (int i = 0; i < kCalls; ++i) {
            element = co_await reading.next();
        }
        const std::uint64_t allocations = allocationCount() - before;
        EXPECT_EQ(element, kCalls);
        co_return allocations;
    };
    (void)syncWait(readAll(shared->makeAsyncIterator()));
    EXPECT_EQ(syncWait(readAll(shared->makeAsyncIterator())), 0U);
}

TEST(Allocations, ABridgeWhoseOperationCompletesAtOnceTakesThree) {
    syncWait([]() -> Async<> {
        std::uint64_t before = 0;
        for (int i = 0; i <= kCalls; ++i) {
            if (i == 1) {
                before = allocationCount();
            }
            auto call = withCancellableSuccessHandler<int>([](SuccessHandler<int, Never> complete) {
                complete(1);
                return [] {};
            });
            const std::optional<int> value = co_await std::move(call);
            EXPECT_EQ(value, 1);
        }
        EXPECT_LE(allocationCount() - before, 3 * kCalls);
    }());
}

}  // namespace
}  // namespace vantorq
