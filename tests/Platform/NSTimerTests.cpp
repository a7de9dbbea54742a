#include "VantorqFoundation/Platform/NSTimer.h"

#include <cmath>
#include <limits>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Trap.h"
#include "VantorqFoundation/Platform/NSRunLoop.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

/// A mode of its own, so that the main queue of the main thread's loop plays no part.
NSString& mode = "test"_ns;

/// Turns the loop until no timer is left.
void drain() {
    while (NSRunLoop::current()->runMode(mode, *NSDate::dateWithTimeIntervalSinceNow(30))) {
    }
}

TEST(NSTimer, FiresOnceOnTheThreadThatTurnsTheLoop) {
    int count = 0;
    std::thread::id firedOn;
    const auto timer = NSTimer::timerWithTimeInterval(0.005, false, [&](NSTimer*) {
        ++count;
        firedOn = std::this_thread::get_id();
    });
    NSRunLoop::current()->addTimer(*timer, mode);
    EXPECT_EQ(count, 0);
    drain();
    EXPECT_EQ(count, 1);
    EXPECT_EQ(firedOn, std::this_thread::get_id());
    EXPECT_FALSE(timer->isValid());
    EXPECT_EQ(timer->ownerCount(), 1U);
}

TEST(NSTimer, DoesNotFireBeforeItsDate) {
    const auto timer = NSTimer::timerWithTimeInterval(0.01, false, [&](NSTimer* self) {
        EXPECT_LE(self->fireDate()->timeIntervalSinceNow(), 0.001);
        EXPECT_TRUE(self->isValid());
    });
    EXPECT_NEAR(timer->fireDate()->timeIntervalSinceNow(), 0.01, 5);
    NSRunLoop::current()->addTimer(*timer, mode);
    EXPECT_FALSE(NSRunLoop::current()->limitDateForMode(mode)->timeIntervalSinceNow() > 0.01);
    drain();
}

TEST(NSTimer, RepeatsUntilInvalidated) {
    int count = 0;
    const auto timer = NSTimer::timerWithTimeInterval(0.001, true, [&](NSTimer* self) {
        if (++count == 5) {
            self->invalidate();
        }
    });
    NSRunLoop::current()->addTimer(*timer, mode);
    drain();
    EXPECT_EQ(count, 5);
    EXPECT_FALSE(timer->isValid());
}

TEST(NSTimer, ARepeatingOneLeavesOutFiringsThatTheLoopWasTooBusyFor) {
    std::vector<double> dates;
    const auto timer = NSTimer::timerWithTimeInterval(0.002, true, [&](NSTimer* self) {
        dates.push_back(self->fireDate()->timeIntervalSinceReferenceDate());
        if (dates.size() == 1) {
            const auto busyUntil = NSDate::dateWithTimeIntervalSinceNow(0.02);
            while (busyUntil->timeIntervalSinceNow() > 0) {
            }
        } else {
            self->invalidate();
        }
    });
    NSRunLoop::current()->addTimer(*timer, mode);
    drain();
    ASSERT_EQ(dates.size(), 2U);
    const double intervals = (dates[1] - dates[0]) / 0.002;
    EXPECT_GE(intervals, 9.0);
    EXPECT_NEAR(intervals, std::round(intervals), 0.01);
}

TEST(NSTimer, FireCallsTheHandlerAtOnceAndEndsOneThatDoesNotRepeat) {
    int count = 0;
    const auto handler = [&](NSTimer*) { ++count; };
    const auto once = NSTimer::timerWithTimeInterval(3600, false, handler);
    once->fire();
    once->fire();
    EXPECT_EQ(count, 1);
    EXPECT_FALSE(once->isValid());

    const auto repeating = NSTimer::timerWithTimeInterval(3600, true, handler);
    const double date = repeating->fireDate()->timeIntervalSinceReferenceDate();
    repeating->fire();
    repeating->fire();
    EXPECT_EQ(count, 3);
    EXPECT_TRUE(repeating->isValid());
    EXPECT_EQ(repeating->fireDate()->timeIntervalSinceReferenceDate(), date);
}

TEST(NSTimer, DoesNotFireWithinItsOwnHandler) {
    int count = 0;
    const auto timer = NSTimer::timerWithTimeInterval(0.0001, true, [&](NSTimer* self) {
        ++count;
        self->fire();
        EXPECT_FALSE(NSRunLoop::current()->runMode(mode, *NSDate::distantFuture()));
        self->invalidate();
    });
    NSRunLoop::current()->addTimer(*timer, mode);
    drain();
    EXPECT_EQ(count, 1);
}

TEST(NSTimer, IntervalsAreAdjusted) {
    const auto handler = [](NSTimer*) {};
    EXPECT_EQ(NSTimer::timerWithTimeInterval(2, true, handler)->timeInterval(), 2);
    EXPECT_EQ(NSTimer::timerWithTimeInterval(2, false, handler)->timeInterval(), 0);
    for (const double none : {0.0, -1.0, kNaN}) {
        EXPECT_EQ(NSTimer::timerWithTimeInterval(none, true, handler)->timeInterval(), 0.0001);
        const auto once = NSTimer::timerWithTimeInterval(none, false, handler);
        EXPECT_LE(once->fireDate()->timeIntervalSinceNow(), 0);
    }
}

TEST(NSTimer, AnInfiniteIntervalNeverFires) {
    const double infinity = std::numeric_limits<double>::infinity();
    const auto timer = NSTimer::timerWithTimeInterval(infinity, true, [](NSTimer*) { abort(); });
    NSRunLoop::current()->addTimer(*timer, mode);
    EXPECT_TRUE(NSRunLoop::current()->runMode(mode, *NSDate::dateWithTimeIntervalSinceNow(0.002)));
    timer->invalidate();
}

TEST(NSTimer, InvalidatingLeavesTheLoopAndLetsGoOfTheHandler) {
    const auto captured = make<RunLoopSource>(Block<void()>([] {}));
    const auto timer = NSTimer::timerWithTimeInterval(3600, true, [captured](NSTimer*) {});
    NSRunLoop::current()->addTimer(*timer, mode);
    EXPECT_EQ(timer->ownerCount(), 2U);
    timer->invalidate();
    timer->invalidate();
    EXPECT_EQ(timer->ownerCount(), 1U);
    EXPECT_EQ(captured->ownerCount(), 1U);
    EXPECT_FALSE(NSRunLoop::current()->runMode(mode, *NSDate::distantFuture()));
}

TEST(NSTimer, InvalidatingFromAnotherThreadEndsTheWaitForIt) {
    const auto timer = NSTimer::timerWithTimeInterval(3600, false, [](NSTimer*) { abort(); });
    NSRunLoop::current()->addTimer(*timer, mode);
    std::thread other([&] { timer->invalidate(); });
    drain();
    other.join();
    EXPECT_FALSE(timer->isValid());
}

TEST(NSTimer, InvalidatingWithinTheHandlerOfOneThatDoesNotRepeatIsAllowed) {
    int count = 0;
    const auto timer = NSTimer::timerWithTimeInterval(0, false, [&](NSTimer* self) {
        ++count;
        self->invalidate();
    });
    NSRunLoop::current()->addTimer(*timer, mode);
    drain();
    EXPECT_EQ(count, 1);
}

TEST(NSTimer, AScheduledOneIsInTheDefaultModeOfTheThread) {
    int count = 0;
    std::thread([&] {
        NSTimer::scheduledTimerWithTimeInterval(0.001, false, [&](NSTimer*) { ++count; });
        NSRunLoop::current()->run();
    }).join();
    EXPECT_EQ(count, 1);
}

TEST(NSTimer, AddingItToASecondLoopTraps) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child starts a thread
    const auto timer = NSTimer::timerWithTimeInterval(3600, false, [](NSTimer*) {});
    NSRunLoop::current()->addTimer(*timer, mode);
    NSRunLoop::current()->addTimer(*timer, NSDefaultRunLoopMode);
    EXPECT_TRAP(std::thread([&] { NSRunLoop::current()->addTimer(*timer, mode); }).join(),
                "added to a second run loop");
    timer->invalidate();
}

TEST(NSTimer, AnEmptyHandlerTraps) {
    EXPECT_TRAP((void)NSTimer::timerWithTimeInterval(1, false, nullptr),
                "made with an empty handler");
}

TEST(NSTimer, AnswersMessages) {
    int count = 0;
    const auto timer =
        send<Ref<NSTimer>>(NSTimer::classObject(), "timerWithTimeInterval:repeats:block:"_sel,
                           3600.0, true, Block<void(NSTimer*)>([&](NSTimer*) { ++count; }));
    EXPECT_TRUE(send<bool>(timer, "isValid"_sel));
    EXPECT_EQ(send<double>(timer, "timeInterval"_sel), 3600);
    EXPECT_GT(send<Ref<NSDate>>(timer, "fireDate"_sel)->timeIntervalSinceNow(), 3000);
    send<void>(timer, "fire"_sel);
    send<void>(timer, "invalidate"_sel);
    EXPECT_FALSE(send<bool>(timer, "isValid"_sel));
    EXPECT_EQ(count, 1);
}

}  // namespace
}  // namespace vantorq
