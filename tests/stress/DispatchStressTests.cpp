#include <array>
#include <atomic>
#include <cstdint>
#include <latch>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Threads.h"
#include "VantorqFoundation/Platform/DispatchQueue.h"
#include "VantorqFoundation/Platform/DispatchTimer.h"
#include "VantorqFoundation/Platform/DispatchWorkItem.h"
#include "VantorqFoundation/Platform/NSRunLoop.h"
#include "VantorqFoundation/Platform/NSTimer.h"

namespace vantorq {
namespace {

constexpr int kThreads = 4;

TEST(DispatchStress, EveryPieceOfWorkRunsOnce) {
    constexpr std::size_t kEach = 20'000;
    constexpr std::array qualities{DispatchQoS::userInteractive, DispatchQoS::default_,
                                   DispatchQoS::background};
    std::vector<std::atomic<int>> runs(kThreads * kEach);
    std::latch done(kThreads * kEach);
    test::together(kThreads, [&](int number) {
        for (std::size_t i = 0; i < kEach; ++i) {
            auto& count = runs[static_cast<std::size_t>(number) * kEach + i];
            DispatchQueue::global(qualities[i % qualities.size()])->async([&] {
                ++count;
                done.count_down();
            });
        }
    });
    done.wait();
    for (const auto& count : runs) {
        ASSERT_EQ(count, 1);
    }
}

TEST(DispatchStress, WorkThatQueuesWork) {
    constexpr int kDepth = 12;
    struct Tree {
        std::latch leaves{1 << kDepth};
        void grow(int depth) {
            if (depth == kDepth) {
                leaves.count_down();
                return;
            }
            for (int i = 0; i < 2; ++i) {
                DispatchQueue::global()->async([this, depth] { grow(depth + 1); });
            }
        }
    } tree;
    tree.grow(0);
    tree.leaves.wait();
}

TEST(DispatchStress, BlockedPiecesInBetween) {
    constexpr int kGroups = 200;
    constexpr int kGroup = 40;
    std::latch done(kGroups);
    struct Group {
        std::latch others{kGroup};
    };
    std::vector<Group> groups(kGroups);
    for (auto& group : groups) {
        DispatchQueue::global()->async([&] {
            group.others.wait();
            done.count_down();
        });
        for (int i = 0; i < kGroup; ++i) {
            DispatchQueue::global()->async([&] { group.others.count_down(); });
        }
    }
    done.wait();
}

TEST(DispatchStress, ASerialQueueKeepsOrderAndExclusionAmongAsyncAndSync) {
    constexpr int kEach = 5'000;
    const auto queue = DispatchQueue::serial("s");
    std::array<int, kThreads> last{};
    int total = 0;
    bool isOrdered = true;
    test::together(kThreads, [&](int number) {
        for (int i = 1; i <= kEach; ++i) {
            const auto work = [&, number, i] {
                int& previous = last[static_cast<std::size_t>(number)];
                isOrdered &= previous == i - 1;
                previous = i;
                ++total;
            };
            if (i % 7 == 0) {
                queue->sync(work);
            } else {
                queue->async(work);
            }
        }
    });
    EXPECT_EQ(queue->sync([&] { return total; }), kThreads * kEach);
    EXPECT_TRUE(isOrdered);
}

TEST(DispatchStress, ManySerialQueuesThatComeAndGo) {
    constexpr int kEach = 3'000;
    std::latch done(kThreads * kEach * 2);
    test::together(kThreads, [&](int) {
        for (int i = 0; i < kEach; ++i) {
            const auto queue = DispatchQueue::serial("short-lived");
            queue->async([&] { done.count_down(); });
            queue->async([&] { done.count_down(); });
        }
    });
    done.wait();
}

TEST(DispatchStress, TimersThatAreCancelledWhileTheyFire) {
    constexpr int kEach = 3'000;
    std::atomic<int> lateHandlers = 0;
    test::together(kThreads, [&](int number) {
        for (int i = 0; i < kEach; ++i) {
            const auto isOver = std::make_unique<std::atomic<bool>>(false);
            const auto queue = DispatchQueue::serial("s");
            auto timer = DispatchTimer::timer(
                queue, [&, over = isOver.get()] { lateHandlers += *over ? 1 : 0; });
            timer->schedule(static_cast<std::uint64_t>((i * 7 + number) % 40) * 1'000);
            if (i % 2 == 0) {
                timer->cancel();
            } else {
                timer.reset();
            }
            // A handler that has begun before may still run now; one that begins later must not.
            queue->sync([&] { *isOver = true; });
            queue->sync([] {});
        }
    });
    EXPECT_EQ(lateHandlers, 0);
}

TEST(DispatchStress, EveryTimerFiresThatThreadsArmSideBySide) {
    constexpr int kEach = 2'000;
    test::together(kThreads, [&](int number) {
        for (int i = 0; i < kEach; ++i) {
            const auto distant = DispatchTimer::timer(DispatchQueue::global(), [] { abort(); });
            distant->schedule(3'600'000'000'000);
            std::latch fired(1);
            const auto timer =
                DispatchTimer::timer(DispatchQueue::global(), [&] { fired.count_down(); });
            timer->schedule(static_cast<std::uint64_t>((i * 7 + number) % 20) * 1'000);
            fired.wait();
        }
    });
}

TEST(DispatchStress, AHandlerIsHandedOutOnceThoughItsTimerIsScheduledAgainAndAgain) {
    constexpr int kRounds = 20'000;
    for (int i = 0; i < kRounds; ++i) {
        std::latch fired(1);
        const auto runs = std::make_unique<std::atomic<int>>(0);
        const auto timer =
            DispatchTimer::timer(DispatchQueue::global(),
                                 [&, counter = std::make_unique<std::atomic<int>*>(runs.get())] {
                                     ++**counter;  // null in a handler that was moved from
                                     fired.count_down();
                                 });
        for (int again = 0; again < 8; ++again) {
            timer->schedule(0);
        }
        fired.wait();
        EXPECT_EQ(*runs, 1);
    }
}

TEST(DispatchStress, TimersThatAreCancelledByAnotherThread) {
    constexpr int kRounds = 2'000;
    std::atomic<int> fired = 0;
    for (int i = 0; i < kRounds; ++i) {
        const auto timer = DispatchTimer::timer(DispatchQueue::global(), [&] { ++fired; });
        std::latch done(1);
        DispatchQueue::global()->async([&, timer] {
            timer->cancel();
            done.count_down();
        });
        timer->schedule(static_cast<std::uint64_t>(i % 50) * 1'000);
        done.wait();
        EXPECT_TRUE(timer->isCancelled() || fired > 0);
    }
    EXPECT_LE(fired, kRounds);
}

TEST(DispatchStress, WorkItemsThatAreCancelledWaitedForAndFollowed) {
    constexpr int kEach = 2'000;
    std::latch followed(kThreads * kEach);
    test::together(kThreads, [&](int) {
        for (int i = 0; i < kEach; ++i) {
            std::atomic<int> runs = 0;
            const auto item = make<DispatchWorkItem>([&] { ++runs; });
            DispatchQueue::global()->async(*item);
            item->notify(*DispatchQueue::global(), [&] { followed.count_down(); });
            item->cancel();
            item->wait();
            EXPECT_LE(runs, 1);
        }
    });
    followed.wait();
}

TEST(DispatchStress, ARunLoopThatEverybodyFeeds) {
    constexpr int kEach = 2'000;
    std::latch isReady(1);
    Ref<NSRunLoop> loop;
    int performed = 0;
    std::atomic<int> timersLeft = 0;
    std::atomic<bool> isFed = false;
    Ref<RunLoopSource> source;
    // With its last input gone the loop ends by itself, once it has served everything.
    source = make<RunLoopSource>(Block<void()>([&] {
        if (isFed) {
            loop->removeSource(*source, NSDefaultRunLoopMode);
        }
    }));
    std::thread owner([&] {
        loop = NSRunLoop::current();
        loop->addSource(*source, NSDefaultRunLoopMode);
        isReady.count_down();
        loop->run();
    });
    isReady.wait();
    test::together(kThreads, [&](int) {
        for (int i = 0; i < kEach; ++i) {
            loop->performBlock([&] { ++performed; });
            source->signal();
            ++timersLeft;
            const auto timer =
                NSTimer::timerWithTimeInterval(0, false, [&](NSTimer*) { --timersLeft; });
            loop->addTimer(*timer, NSDefaultRunLoopMode);
            if (i % 3 == 0) {
                const auto dropped =
                    NSTimer::timerWithTimeInterval(0, true, [](NSTimer* self) { (void)self; });
                loop->addTimer(*dropped, NSDefaultRunLoopMode);
                dropped->invalidate();
            }
        }
    });
    isFed = true;
    source->signal();
    owner.join();
    EXPECT_EQ(performed, kThreads * kEach);
    EXPECT_EQ(timersLeft, 0);
}

TEST(DispatchStress, TheMainQueueFromManyThreads) {
    constexpr int kEach = 2'000;
    int count = 0;
    std::thread feeders([&] {
        test::together(kThreads, [&](int number) {
            for (int i = 0; i < kEach; ++i) {
                if (number == 0 && i % 20 == 0) {
                    DispatchQueue::main()->sync([&] { ++count; });
                } else {
                    DispatchQueue::main()->async([&] { ++count; });
                }
            }
        });
    });
    while (count < kThreads * kEach) {
        NSRunLoop::main()->runMode(NSDefaultRunLoopMode, *NSDate::distantFuture());
    }
    feeders.join();
    EXPECT_EQ(count, kThreads * kEach);
}

}  // namespace
}  // namespace vantorq
