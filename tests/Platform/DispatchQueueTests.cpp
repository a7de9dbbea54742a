#include "VantorqFoundation/Platform/DispatchQueue.h"

#include <array>
#include <atomic>
#include <chrono>
#include <latch>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Trap.h"
#include "VantorqFoundation/Platform/NSDate.h"
#include "VantorqFoundation/Platform/NSRunLoop.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

using namespace std::chrono_literals;

void turnMainLoop() {
    (void)NSRunLoop::main()->runMode(NSDefaultRunLoopMode,
                                     *NSDate::dateWithTimeIntervalSinceNow(30));
}

// Getting queues.

TEST(DispatchQueue, ThereIsOneMainQueueAndOneGlobalQueueForEachQuality) {
    EXPECT_EQ(DispatchQueue::main(), DispatchQueue::main());
    EXPECT_EQ(DispatchQueue::global(), DispatchQueue::global(DispatchQoS::default_));
    EXPECT_NE(DispatchQueue::global(), DispatchQueue::global(DispatchQoS::utility));
}

TEST(DispatchQueue, GlobalQueuesAreFoundByTheNumberOfTheirQuality) {
    const auto byNumber = DispatchQueue::globalQueueWithQualityOfService;
    EXPECT_EQ(byNumber(0x21), DispatchQueue::global(DispatchQoS::userInteractive));
    EXPECT_EQ(byNumber(0x19), DispatchQueue::global(DispatchQoS::userInitiated));
    EXPECT_EQ(byNumber(0x15), DispatchQueue::global(DispatchQoS::default_));
    EXPECT_EQ(byNumber(0x11), DispatchQueue::global(DispatchQoS::utility));
    EXPECT_EQ(byNumber(0x09), DispatchQueue::global(DispatchQoS::background));
    EXPECT_EQ(byNumber(0x10), nullptr);
}

TEST(DispatchQueue, AQualityThatDoesNotExistTraps) {
    EXPECT_TRAP((void)DispatchQueue::global(DispatchQoS{0x10}), "no such quality of service");
}

TEST(DispatchQueue, OwnQueuesHaveALabelAndAQuality) {
    const auto queue = DispatchQueue::serial("writer", DispatchQoS::utility);
    EXPECT_EQ(queue->label()->utf8(), "writer");
    EXPECT_EQ(queue->qos(), DispatchQoS::utility);
    EXPECT_EQ(queue->description()->utf8(), "<DispatchQueue: writer>");
    EXPECT_EQ(DispatchQueue::concurrent("reader")->qos(), DispatchQoS::default_);
}

TEST(DispatchQueue, AnswersMessages) {
    const auto queue = send<Ref<DispatchQueue>>(
        DispatchQueue::classObject(), "globalQueueWithQualityOfService:"_sel, NSUInteger{0x11});
    EXPECT_EQ(queue, DispatchQueue::global(DispatchQoS::utility));
    EXPECT_EQ(send<Ref<DispatchQueue>>(DispatchQueue::classObject(), "mainQueue"_sel),
              DispatchQueue::main());
    std::latch done(1);
    send<void>(queue, "async:"_sel, [&] { done.count_down(); });
    done.wait();
    bool ran = false;
    send<void>(queue, "sync:"_sel, [&] { ran = true; });
    EXPECT_TRUE(ran);
}

// Global and concurrent queues.

TEST(DispatchQueue, AsyncRunsOnAnotherThread) {
    std::latch done(1);
    std::thread::id ranOn;
    DispatchQueue::global()->async([&] {
        ranOn = std::this_thread::get_id();
        done.count_down();
    });
    done.wait();
    EXPECT_NE(ranOn, std::this_thread::get_id());
}

TEST(DispatchQueue, WorkOfEveryQualityRuns) {
    constexpr std::array qualities{DispatchQoS::userInteractive, DispatchQoS::userInitiated,
                                   DispatchQoS::default_, DispatchQoS::utility,
                                   DispatchQoS::background};
    std::latch done(qualities.size());
    for (const DispatchQoS qos : qualities) {
        DispatchQueue::global(qos)->async([&] { done.count_down(); });
    }
    done.wait();
}

TEST(DispatchQueue, TakesMoveOnlyAndLargeCallablesAndBlocks) {
    const auto queue = DispatchQueue::serial("s");
    std::vector<int> seen;
    queue->async([&seen, number = std::make_unique<int>(1)] { seen.push_back(*number); });
    queue->async([&seen, numbers = std::array<int, 100>{2}] { seen.push_back(numbers[0]); });
    queue->async(Block<void()>([&seen] { seen.push_back(3); }));
    queue->async([&seen] {
        seen.push_back(4);
        return seen.size();  // dropped
    });
    queue->sync([] {});
    EXPECT_EQ(seen, (std::vector{1, 2, 3, 4}));
}

TEST(DispatchQueue, ACallableIsDestroyedOnceItHasRun) {
    const auto queue = DispatchQueue::serial("s");
    const auto small = make<RunLoopSource>(Block<void()>([] {}));
    const auto large = make<RunLoopSource>(Block<void()>([] {}));
    queue->async([small] {});
    queue->async([large, filler = std::array<int, 100>()] { (void)filler; });
    queue->sync([] {});
    EXPECT_EQ(small->ownerCount(), 1U);
    EXPECT_EQ(large->ownerCount(), 1U);
}

TEST(DispatchQueue, AConcurrentQueueRunsItsWorkSideBySide) {
    const auto queue = DispatchQueue::concurrent("c");
    std::latch together(2);
    std::latch done(2);
    for (int i = 0; i < 2; ++i) {
        queue->async([&] {
            together.arrive_and_wait();
            done.count_down();
        });
    }
    done.wait();
}

TEST(DispatchQueue, AConcurrentQueueStaysAliveWhileItHasWork) {
    std::latch mayRun(1);
    std::latch done(1);
    std::string label;
    DispatchQueue::concurrent("kept")->async([&] {
        mayRun.wait();
        label = DispatchQueue::current()->label()->utf8();
        done.count_down();
    });
    mayRun.count_down();
    done.wait();
    EXPECT_EQ(label, "kept");
}

// Serial queues.

TEST(DispatchQueue, ASerialQueueRunsItsWorkInOrder) {
    const auto queue = DispatchQueue::serial("s");
    std::vector<int> seen;
    std::vector<int> expected;
    for (int i = 0; i < 10'000; ++i) {
        queue->async([&seen, i] { seen.push_back(i); });
        expected.push_back(i);
    }
    queue->sync([] {});
    EXPECT_EQ(seen, expected);
}

TEST(DispatchQueue, ASerialQueueStaysAliveWhileItHasWork) {
    std::latch mayRun(1);
    std::latch done(2);
    {
        const auto queue = DispatchQueue::serial("s");
        queue->async([&] {
            mayRun.wait();
            done.count_down();
        });
        queue->async([&] { done.count_down(); });
    }
    mayRun.count_down();
    done.wait();
}

/// The order in which work that `submit` hands to a serial queue goes on (1), and the work that it
/// adds to that queue meanwhile runs (2).
std::vector<int> orderOfWorkThatQueuesMore(auto submit) {
    const auto queue = DispatchQueue::serial("s");
    std::vector<int> seen;
    std::latch done(1);
    submit(*queue, [&] {
        queue->async([&] {
            seen.push_back(2);
            done.count_down();
        });
        seen.push_back(1);
    });
    done.wait();
    return seen;
}

TEST(DispatchQueue, WorkMayQueueMoreWorkOnItsOwnSerialQueue) {
    const auto async = [](DispatchQueue& queue, auto work) { queue.async(work); };
    EXPECT_EQ(orderOfWorkThatQueuesMore(async), (std::vector{1, 2}));
}

// sync.

TEST(DispatchQueue, SyncReturnsTheResultAlsoAMoveOnlyOne) {
    const auto queue = DispatchQueue::serial("s");
    EXPECT_EQ(queue->sync([] { return 42; }), 42);
    EXPECT_EQ(*queue->sync([] { return std::make_unique<int>(7); }), 7);
}

TEST(DispatchQueue, SyncOnAnIdleSerialQueueRunsInPlace) {
    const auto queue = DispatchQueue::serial("s");
    EXPECT_EQ(queue->sync([] { return std::this_thread::get_id(); }), std::this_thread::get_id());
    EXPECT_EQ(queue->sync([] { return DispatchQueue::current(); }), queue.get());
}

TEST(DispatchQueue, SyncOnAConcurrentQueueRunsInPlace) {
    for (const auto& queue : {DispatchQueue::global(), DispatchQueue::concurrent("c")}) {
        EXPECT_EQ(queue->sync([] { return std::this_thread::get_id(); }),
                  std::this_thread::get_id());
        EXPECT_EQ(queue->sync([] { return DispatchQueue::current(); }), queue.get());
    }
}

TEST(DispatchQueue, SyncOnABusySerialQueueWaitsForItsTurn) {
    const auto queue = DispatchQueue::serial("s");
    std::latch begun(1);
    std::latch mayGoOn(1);
    std::vector<int> seen;
    queue->async([&] {
        begun.count_down();
        mayGoOn.wait();
        seen.push_back(1);
    });
    begun.wait();
    std::thread waiter([&] { queue->sync([&] { seen.push_back(2); }); });
    mayGoOn.count_down();
    waiter.join();
    EXPECT_EQ(seen, (std::vector{1, 2}));
}

TEST(DispatchQueue, WorkThatArrivesDuringASyncInPlaceRunsAfterwards) {
    const auto sync = [](DispatchQueue& queue, auto work) { queue.sync(work); };
    EXPECT_EQ(orderOfWorkThatQueuesMore(sync), (std::vector{1, 2}));
}

TEST(DispatchQueue, SyncFromWithinTheQueuesOwnWorkTraps) {
    const auto outer = DispatchQueue::serial("outer");
    const auto inner = DispatchQueue::serial("inner");
    const auto nothing = [] {};
    EXPECT_TRAP(outer->sync([&] { outer->sync(nothing); }),
                "sync on a serial queue from within its own work");
    EXPECT_TRAP(outer->sync([&] { inner->sync([&] { outer->sync(nothing); }); }),
                "sync on a serial queue from within its own work");
}

// The main queue.

TEST(DispatchQueue, TheMainQueueRunsWhileTheMainThreadTurnsItsRunLoop) {
    std::vector<int> seen;
    DispatchQueue::main()->async([&] { seen.push_back(DispatchQueue::isMainThread() ? 1 : -1); });
    DispatchQueue::main()->async([&] { seen.push_back(2); });
    EXPECT_TRUE(seen.empty());
    turnMainLoop();
    EXPECT_EQ(seen, (std::vector{1, 2}));
}

TEST(DispatchQueue, SyncOnTheMainQueueRunsOnTheMainThread) {
    bool wasMain = false;
    std::atomic<bool> isDone = false;
    std::thread other([&] {
        wasMain = DispatchQueue::main()->sync([] { return DispatchQueue::isMainThread(); });
        isDone = true;
        NSRunLoop::main()->stop();
    });
    while (!isDone) {
        turnMainLoop();
    }
    other.join();
    EXPECT_TRUE(wasMain);
}

TEST(DispatchQueue, SyncOnTheMainQueueFromTheMainThreadTraps) {
    EXPECT_TRAP(DispatchQueue::main()->sync([] {}), "sync on the main queue from the main thread");
}

TEST(DispatchQueue, WorkOfTheMainQueueThatTurnsTheRunLoopIsNotInterruptedByTheNext) {
    std::vector<int> seen;
    bool hadSomethingToWaitFor = true;
    DispatchQueue::main()->async([&] {
        seen.push_back(1);
        hadSomethingToWaitFor =
            NSRunLoop::main()->runMode(NSDefaultRunLoopMode, *NSDate::distantFuture());
        seen.push_back(2);
    });
    DispatchQueue::main()->async([&] { seen.push_back(3); });
    turnMainLoop();
    EXPECT_EQ(seen, (std::vector{1, 2, 3}));
    EXPECT_FALSE(hadSomethingToWaitFor);
}

// Which queue the code runs on.

TEST(DispatchQueue, CurrentIsTheQueueWhoseWorkRuns) {
    for (const auto& queue :
         {DispatchQueue::global(), DispatchQueue::global(DispatchQoS::background),
          DispatchQueue::concurrent("c"), DispatchQueue::serial("s")}) {
        std::latch done(1);
        DispatchQueue* seen = nullptr;
        queue->async([&] {
            seen = DispatchQueue::current();
            done.count_down();
        });
        done.wait();
        EXPECT_EQ(seen, queue.get());
    }
}

TEST(DispatchQueue, CurrentIsTheInnermostQueueDuringSync) {
    const auto outer = DispatchQueue::serial("outer");
    const auto inner = DispatchQueue::serial("inner");
    outer->sync([&] {
        inner->sync([&] { EXPECT_EQ(DispatchQueue::current(), inner.get()); });
        EXPECT_EQ(DispatchQueue::current(), outer.get());
    });
}

TEST(DispatchQueue, CurrentIsTheMainQueueOnTheMainThreadAndNothingOnAnyOther) {
    EXPECT_EQ(DispatchQueue::current(), DispatchQueue::main().get());
    EXPECT_TRUE(DispatchQueue::isMainThread());
    std::thread([] {
        EXPECT_EQ(DispatchQueue::current(), nullptr);
        EXPECT_FALSE(DispatchQueue::isMainThread());
    }).join();
}

// Quality of service.

TEST(DispatchQueue, MoreUrgentWorkOvertakes) {
    constexpr int kBacklog = 4'000;
    const auto slow = DispatchQueue::global(DispatchQoS::background);
    std::atomic<bool> isQueued = false;
    std::atomic<int> finished = 0;
    std::atomic<int> finishedBefore = -1;
    std::latch done(kBacklog + 1);
    const auto spin = [] {
        const auto end = std::chrono::steady_clock::now() + 50us;
        while (std::chrono::steady_clock::now() < end) {
        }
    };
    slow->async([&] {
        while (!isQueued) {
        }
        DispatchQueue::global(DispatchQoS::userInteractive)->async([&] {
            finishedBefore = finished.load();
            done.count_down();
        });
        done.count_down();
    });
    for (int i = 1; i < kBacklog; ++i) {
        slow->async([&] {
            while (!isQueued) {
            }
            spin();
            ++finished;
            done.count_down();
        });
    }
    isQueued = true;
    done.wait();
    EXPECT_LT(finishedBefore, kBacklog / 2);
}

TEST(DispatchQueue, LessUrgentWorkIsNotStarved) {
    struct Flood {
        std::atomic<bool> hasBackgroundRun = false;
        std::latch ended{64};
        void step() {
            if (hasBackgroundRun) {
                ended.count_down();
            } else {
                DispatchQueue::global(DispatchQoS::userInteractive)->async([this] { step(); });
            }
        }
    } flood;
    for (int i = 0; i < 64; ++i) {
        DispatchQueue::global(DispatchQoS::userInteractive)->async([&] { flood.step(); });
    }
    DispatchQueue::global(DispatchQoS::background)->async([&] { flood.hasBackgroundRun = true; });
    flood.ended.wait();
}

// Later.

TEST(DispatchQueue, AsyncAfterDoesNotRunBeforeItsTime) {
    const auto start = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point ranAt;
    std::latch done(1);
    DispatchQueue::global()->asyncAfter(0.02, [&] {
        ranAt = std::chrono::steady_clock::now();
        done.count_down();
    });
    done.wait();
    EXPECT_GE(ranAt - start, 20ms);
}

TEST(DispatchQueue, AsyncAfterRunsInTheOrderOfTheTimes) {
    const auto queue = DispatchQueue::serial("s");
    std::vector<int> seen;
    std::latch done(3);
    for (const int i : {3, 1, 2}) {
        queue->asyncAfter(0.02 * i, [&, i] {
            seen.push_back(i);
            done.count_down();
        });
    }
    done.wait();
    EXPECT_EQ(seen, (std::vector{1, 2, 3}));
}

TEST(DispatchQueue, AsyncAfterNoTimeQueuesAtOnce) {
    const auto queue = DispatchQueue::serial("s");
    int count = 0;
    for (const double seconds : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN()}) {
        queue->asyncAfter(seconds, [&] { ++count; });
    }
    queue->sync([] {});
    EXPECT_EQ(count, 3);
}

TEST(DispatchQueue, AsyncAfterInfinityNeverRuns) {
    std::latch done(1);
    DispatchQueue::global()->asyncAfter(std::numeric_limits<double>::infinity(), [] { abort(); });
    DispatchQueue::global()->asyncAfter(1e300, [] { abort(); });
    DispatchQueue::global()->asyncAfter(0.01, [&] { done.count_down(); });
    done.wait();
}

TEST(DispatchQueue, AsyncAfterReachesTheMainQueue) {
    bool ran = false;
    DispatchQueue::main()->asyncAfter(0.01, [&] { ran = true; });
    turnMainLoop();
    EXPECT_TRUE(ran);
}

// Exceptions.

TEST(DispatchQueue, AnExceptionThatLeavesTheWorkEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child needs a pool of its own
    EXPECT_EXIT(
        {
            DispatchQueue::global()->async([] { throw std::runtime_error("lost"); });
            std::latch(1).wait();
        },
        ::testing::KilledBySignal(SIGABRT), "lost");
    EXPECT_EXIT(DispatchQueue::serial("s")->sync([] { throw std::runtime_error("lost"); }),
                ::testing::KilledBySignal(SIGABRT), "lost");
}

}  // namespace
}  // namespace vantorq
