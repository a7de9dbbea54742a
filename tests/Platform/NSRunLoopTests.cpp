#include "VantorqFoundation/Platform/NSRunLoop.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <latch>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Trap.h"
#include "VantorqFoundation/Platform/DispatchQueue.h"
#include "VantorqFoundation/Platform/NSTimer.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

using namespace std::chrono_literals;

/// Runs a test on a thread whose loop is new, and is not that of the main queue.
void onNewThread(const std::function<void(NSRunLoop&)>& body) {
    std::thread([&] { body(*NSRunLoop::current()); }).join();
}

Ref<NSDate> inSeconds(double seconds) {
    return NSDate::dateWithTimeIntervalSinceNow(seconds);
}

Ref<NSTimer> addTimer(NSRunLoop& loop, double seconds, Block<void(NSTimer*)> handler) {
    auto timer = NSTimer::timerWithTimeInterval(seconds, false, std::move(handler));
    loop.addTimer(*timer, NSDefaultRunLoopMode);
    return timer;
}

// Loops and threads.

TEST(NSRunLoop, EveryThreadHasOneLoop) {
    const auto mine = NSRunLoop::current();
    EXPECT_EQ(NSRunLoop::current(), mine);
    onNewThread([&](NSRunLoop& loop) {
        EXPECT_NE(&loop, mine.get());
        EXPECT_EQ(NSRunLoop::current(), &loop);
    });
}

TEST(NSRunLoop, TheMainLoopIsThatOfTheMainThreadWhoeverAsksFirst) {
    Ref<NSRunLoop> seen;
    std::thread([&] { seen = NSRunLoop::main(); }).join();
    EXPECT_EQ(NSRunLoop::current(), seen);
}

TEST(NSRunLoop, TurningTheLoopOfAnotherThreadTraps) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child starts a thread
    EXPECT_TRAP(std::thread([] {
                    NSRunLoop::main()->runMode(NSDefaultRunLoopMode, *NSDate::distantPast());
                }).join(),
                "turned by a thread that is not its own");
}

TEST(NSRunLoop, TurningItInTheCommonModesTraps) {
    EXPECT_TRAP(NSRunLoop::main()->runMode(NSRunLoopCommonModes, *NSDate::distantPast()),
                "the common modes are no mode");
}

TEST(NSRunLoop, WhatIsInTheLoopIsDroppedWithItsThread) {
    const auto captured = make<RunLoopSource>(Block<void()>([] {}));
    const auto source = make<RunLoopSource>(Block<void()>([] {}));
    Ref<NSRunLoop> survivor;
    onNewThread([&](NSRunLoop& loop) {
        survivor = &loop;
        loop.performBlock([captured] {});
        loop.addSource(*source, NSDefaultRunLoopMode);
        (void)addTimer(loop, 3600, [captured](NSTimer*) {});
        EXPECT_EQ(captured->ownerCount(), 3U);
    });
    EXPECT_EQ(captured->ownerCount(), 1U);
    EXPECT_EQ(source->ownerCount(), 1U);
    survivor->performBlock([captured] {});
    EXPECT_EQ(captured->ownerCount(), 1U);
    source->signal();
}

// Nothing to wait for.

TEST(NSRunLoop, WithNothingToWaitForRunModeAnswersFalseAtOnce) {
    onNewThread([](NSRunLoop& loop) {
        EXPECT_FALSE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantFuture()));
        loop.runUntilDate(*NSDate::distantFuture());
        loop.run();
    });
}

TEST(NSRunLoop, WhatIsInAnotherModeDoesNotCount) {
    onNewThread([](NSRunLoop& loop) {
        const auto source = make<RunLoopSource>(Block<void()>([] {}));
        loop.addSource(*source, "other"_ns);
        loop.performInModes(*NSArray::arrayWithObject("other"_ns), [] {});
        EXPECT_FALSE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantFuture()));
        EXPECT_TRUE(loop.runMode("other"_ns, *NSDate::distantFuture()));
    });
}

TEST(NSRunLoop, TheMainLoopWaitsForTheMainQueueInTheDefaultModeOnly) {
    EXPECT_TRUE(NSRunLoop::main()->runMode(NSDefaultRunLoopMode, *inSeconds(0.001)));
    EXPECT_FALSE(NSRunLoop::main()->runMode("other"_ns, *NSDate::distantFuture()));
}

TEST(NSRunLoop, TheWaitEndsWhenNothingIsLeft) {
    onNewThread([](NSRunLoop& loop) {
        bool fired = false;
        const auto timer = addTimer(loop, 0.001, [&](NSTimer*) { fired = true; });
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantFuture()));
        EXPECT_TRUE(fired);
    });
}

// The end of a turn.

TEST(NSRunLoop, ADateInThePastMakesOnePass) {
    onNewThread([](NSRunLoop& loop) {
        int count = 0;
        const auto due = addTimer(loop, 0, [&](NSTimer*) { ++count; });
        const auto later = addTimer(loop, 3600, [](NSTimer*) { abort(); });
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantPast()));
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantPast()));
        EXPECT_EQ(count, 1);
    });
}

TEST(NSRunLoop, WithoutAnInputItTurnsUntilTheDate) {
    onNewThread([](NSRunLoop& loop) {
        const auto source = make<RunLoopSource>(Block<void()>([] { abort(); }));
        loop.addSource(*source, NSDefaultRunLoopMode);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *inSeconds(0.02)));
        EXPECT_GE(std::chrono::steady_clock::now() - start, 19ms);
    });
}

TEST(NSRunLoop, TimersDoNotEndATurnButInputsDo) {
    onNewThread([](NSRunLoop& loop) {
        int fired = 0;
        const auto source = make<RunLoopSource>(Block<void()>([] {}));
        loop.addSource(*source, NSDefaultRunLoopMode);
        const auto first = addTimer(loop, 0.001, [&](NSTimer*) { ++fired; });
        const auto second = addTimer(loop, 0.003, [&](NSTimer*) {
            ++fired;
            source->signal();
        });
        const auto never = addTimer(loop, 3600, [](NSTimer*) { abort(); });
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantFuture()));
        EXPECT_EQ(fired, 2);
    });
}

TEST(NSRunLoop, TimersFireInTheOrderOfTheirDates) {
    onNewThread([](NSRunLoop& loop) {
        std::vector<int> seen;
        const auto late = addTimer(loop, 0.002, [&](NSTimer*) { seen.push_back(2); });
        const auto early = addTimer(loop, 0.001, [&](NSTimer*) { seen.push_back(1); });
        std::this_thread::sleep_for(3ms);  // so that one pass finds both due
        loop.run();
        EXPECT_EQ(seen, (std::vector{1, 2}));
    });
}

TEST(NSRunLoop, RunUntilDateGoesOnAfterAnInput) {
    onNewThread([](NSRunLoop& loop) {
        int handled = 0;
        const auto source = make<RunLoopSource>(Block<void()>([&] { ++handled; }));
        loop.addSource(*source, NSDefaultRunLoopMode);
        source->signal();
        const auto again = addTimer(loop, 0.001, [&](NSTimer*) { source->signal(); });
        const auto start = std::chrono::steady_clock::now();
        loop.runUntilDate(*inSeconds(0.02));
        EXPECT_GE(std::chrono::steady_clock::now() - start, 19ms);
        EXPECT_EQ(handled, 2);
    });
}

TEST(NSRunLoop, StopEndsTheInnermostCallOnly) {
    onNewThread([](NSRunLoop& loop) {
        const auto source = make<RunLoopSource>(Block<void()>([] {}));
        loop.addSource(*source, NSDefaultRunLoopMode);
        std::vector<int> seen;
        const auto inner = addTimer(loop, 0, [&](NSTimer*) {
            const auto stopper = addTimer(loop, 0, [&](NSTimer*) { loop.stop(); });
            loop.run();
            seen.push_back(1);
        });
        const auto outer = addTimer(loop, 0.001, [&](NSTimer*) {
            seen.push_back(2);
            loop.stop();
        });
        loop.run();
        EXPECT_EQ(seen.size(), 2U);
    });
}

TEST(NSRunLoop, StopWithoutATurnDoesNothing) {
    onNewThread([](NSRunLoop& loop) {
        bool handled = false;
        loop.stop();
        const auto timer =
            addTimer(loop, 0.001, [&](NSTimer*) { loop.performBlock([&] { handled = true; }); });
        loop.run();
        EXPECT_TRUE(handled);
    });
}

TEST(NSRunLoop, AnotherThreadMayStopIt) {
    onNewThread([](NSRunLoop& loop) {
        const auto source = make<RunLoopSource>(Block<void()>([] {}));
        loop.addSource(*source, NSDefaultRunLoopMode);
        std::thread stopper;
        loop.performBlock([&] { stopper = std::thread([&] { loop.stop(); }); });
        loop.run();
        stopper.join();
    });
}

// Performed blocks.

TEST(NSRunLoop, PerformedBlocksRunInOrderAndEndTheTurn) {
    onNewThread([](NSRunLoop& loop) {
        std::vector<int> seen;
        loop.performBlock([&] { seen.push_back(1); });
        loop.performBlock([&] { seen.push_back(2); });
        const auto timer = addTimer(loop, 3600, [](NSTimer*) { abort(); });
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantFuture()));
        EXPECT_EQ(seen, (std::vector{1, 2}));
    });
}

TEST(NSRunLoop, ABlockThatIsAddedByABlockRunsInTheNextTurn) {
    onNewThread([](NSRunLoop& loop) {
        std::vector<int> seen;
        loop.performBlock([&] {
            seen.push_back(1);
            loop.performBlock([&] { seen.push_back(2); });
        });
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantFuture()));
        EXPECT_EQ(seen, (std::vector{1}));
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantFuture()));
        EXPECT_EQ(seen, (std::vector{1, 2}));
    });
}

TEST(NSRunLoop, ABlockForSeveralModesRunsOnce) {
    onNewThread([](NSRunLoop& loop) {
        int count = 0;
        loop.performInModes(*NSArray::array({"a"_ns, "b"_ns}), [&] { ++count; });
        EXPECT_TRUE(loop.runMode("b"_ns, *NSDate::distantFuture()));
        EXPECT_FALSE(loop.runMode("a"_ns, *NSDate::distantFuture()));
        EXPECT_EQ(count, 1);
    });
}

TEST(NSRunLoop, ABlockForTheCommonModesRunsInTheDefaultMode) {
    onNewThread([](NSRunLoop& loop) {
        int count = 0;
        loop.performInModes(*NSArray::arrayWithObject(NSRunLoopCommonModes), [&] { ++count; });
        EXPECT_FALSE(loop.runMode("other"_ns, *NSDate::distantFuture()));
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantFuture()));
        EXPECT_EQ(count, 1);
    });
}

TEST(NSRunLoop, ABlockFromAnotherThreadEndsTheWait) {
    onNewThread([](NSRunLoop& loop) {
        const auto timer = addTimer(loop, 3600, [](NSTimer*) { abort(); });
        std::thread::id ranOn;
        std::thread other([&] { loop.performBlock([&] { ranOn = std::this_thread::get_id(); }); });
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantFuture()));
        other.join();
        EXPECT_EQ(ranOn, std::this_thread::get_id());
    });
}

TEST(NSRunLoop, BadBlocksAndModesTrap) {
    EXPECT_TRAP(NSRunLoop::main()->performBlock(nullptr), "an empty block to perform");
    EXPECT_TRAP(
        NSRunLoop::main()->performInModes(*NSArray::arrayWithObject(NSArray::array()), [] {}),
        "a mode is no string");
}

// Sources.

TEST(NSRunLoop, ASignalledSourceIsHandledOnTheLoopsThread) {
    onNewThread([](NSRunLoop& loop) {
        std::thread::id handledOn;
        const auto source =
            make<RunLoopSource>(Block<void()>([&] { handledOn = std::this_thread::get_id(); }));
        loop.addSource(*source, NSDefaultRunLoopMode);
        std::thread other([&] { source->signal(); });
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantFuture()));
        other.join();
        EXPECT_EQ(handledOn, std::this_thread::get_id());
    });
}

TEST(NSRunLoop, SignalsThatComeTogetherCountAsOne) {
    onNewThread([](NSRunLoop& loop) {
        int count = 0;
        const auto source = make<RunLoopSource>(Block<void()>([&] { ++count; }));
        source->signal();
        loop.addSource(*source, NSDefaultRunLoopMode);
        source->signal();
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantPast()));
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantPast()));
        EXPECT_EQ(count, 1);
    });
}

TEST(NSRunLoop, ARemovedSourceIsNotHandled) {
    onNewThread([](NSRunLoop& loop) {
        const auto source = make<RunLoopSource>(Block<void()>([] { abort(); }));
        const auto remover = make<RunLoopSource>(
            Block<void()>([&] { loop.removeSource(*source, NSDefaultRunLoopMode); }));
        loop.addSource(*remover, NSDefaultRunLoopMode);
        loop.addSource(*source, NSDefaultRunLoopMode);
        remover->signal();
        source->signal();
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantPast()));
        EXPECT_EQ(source->ownerCount(), 1U);
        loop.removeSource(*remover, NSDefaultRunLoopMode);
        EXPECT_FALSE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantFuture()));
    });
}

TEST(NSRunLoop, ASourceStaysInTheModesThatItWasNotRemovedFrom) {
    onNewThread([](NSRunLoop& loop) {
        int count = 0;
        const auto source = make<RunLoopSource>(Block<void()>([&] { ++count; }));
        loop.addSource(*source, "a"_ns);
        loop.addSource(*source, "b"_ns);
        loop.removeSource(*source, "a"_ns);
        source->signal();
        EXPECT_FALSE(loop.runMode("a"_ns, *NSDate::distantFuture()));
        EXPECT_TRUE(loop.runMode("b"_ns, *NSDate::distantFuture()));
        EXPECT_EQ(count, 1);
    });
}

TEST(NSRunLoop, ASourceInASecondLoopAndOneWithoutHandlerTrap) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child starts a thread
    const auto source = make<RunLoopSource>(Block<void()>([] {}));
    NSRunLoop::main()->addSource(*source, "other"_ns);
    EXPECT_TRAP(std::thread([&] { NSRunLoop::current()->addSource(*source, "other"_ns); }).join(),
                "added to a second run loop");
    NSRunLoop::main()->removeSource(*source, "other"_ns);
    EXPECT_TRAP((void)make<RunLoopSource>(Block<void()>()), "made with an empty handler");
}

// Turning within a turn.

TEST(NSRunLoop, AHandlerMayTurnTheLoopInAnotherMode) {
    onNewThread([](NSRunLoop& loop) {
        std::vector<std::string> modes;
        const auto note = [&] { modes.push_back(loop.currentMode()->utf8()); };
        EXPECT_EQ(loop.currentMode(), nullptr);
        loop.performBlock([&] {
            loop.performInModes(*NSArray::arrayWithObject("inner"_ns), note);
            EXPECT_TRUE(loop.runMode("inner"_ns, *NSDate::distantFuture()));
            note();
        });
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantFuture()));
        EXPECT_EQ(modes, (std::vector<std::string>{"inner", "kCFRunLoopDefaultMode"}));
        EXPECT_EQ(loop.currentMode(), nullptr);
    });
}

TEST(NSRunLoop, WakeUpDoesNotEndTheTurn) {
    onNewThread([](NSRunLoop& loop) {
        int fired = 0;
        const auto source = make<RunLoopSource>(Block<void()>([] {}));
        loop.addSource(*source, NSDefaultRunLoopMode);
        const auto first = addTimer(loop, 0.001, [&](NSTimer*) {
            ++fired;
            loop.wakeUp();
        });
        const auto second = addTimer(loop, 0.002, [&](NSTimer*) {
            ++fired;
            source->signal();
        });
        EXPECT_TRUE(loop.runMode(NSDefaultRunLoopMode, *NSDate::distantFuture()));
        EXPECT_EQ(fired, 2);
    });
}

// The next date.

TEST(NSRunLoop, LimitDateIsThatOfTheNextTimer) {
    onNewThread([](NSRunLoop& loop) {
        EXPECT_EQ(loop.limitDateForMode(NSDefaultRunLoopMode), nullptr);
        const auto source = make<RunLoopSource>(Block<void()>([] {}));
        loop.addSource(*source, NSDefaultRunLoopMode);
        EXPECT_TRUE(loop.limitDateForMode(NSDefaultRunLoopMode)
                        ->isEqualToDate(NSDate::distantFuture().get()));
        bool fired = false;
        const auto due = addTimer(loop, 0, [&](NSTimer*) { fired = true; });
        const auto later = addTimer(loop, 3600, [](NSTimer*) {});
        const auto limit = loop.limitDateForMode(NSDefaultRunLoopMode);
        EXPECT_TRUE(fired);
        EXPECT_NEAR(limit->timeIntervalSinceDate(*later->fireDate()), 0, 1);
    });
}

// Messages.

TEST(NSRunLoop, TheModesHaveTheirNames) {
    EXPECT_EQ(NSDefaultRunLoopMode.utf8(), "kCFRunLoopDefaultMode");
    EXPECT_EQ(NSRunLoopCommonModes.utf8(), "kCFRunLoopCommonModes");
}

TEST(NSRunLoop, AnswersMessages) {
    onNewThread([](NSRunLoop& loop) {
        const auto& cls = NSRunLoop::classObject();
        EXPECT_EQ(send<id>(cls, "currentRunLoop"_sel), &loop);
        EXPECT_EQ(send<id>(cls, "mainRunLoop"_sel), NSRunLoop::main());
        int count = 0;
        const auto timer = NSTimer::timerWithTimeInterval(0, false, [&](NSTimer*) { ++count; });
        send<void>(loop, "addTimer:forMode:"_sel, timer, NSDefaultRunLoopMode);
        send<void>(loop, "performBlock:"_sel, [&] { ++count; });
        EXPECT_TRUE(send<bool>(loop, "runMode:beforeDate:"_sel, NSDefaultRunLoopMode,
                               NSDate::distantFuture()));
        EXPECT_EQ(count, 2);
        send<void>(loop, "runUntilDate:"_sel, NSDate::distantFuture());
        EXPECT_EQ(send<id>(loop, "limitDateForMode:"_sel, NSDefaultRunLoopMode), nullptr);
        EXPECT_EQ(send<id>(loop, "currentMode"_sel), nullptr);
    });
}

}  // namespace
}  // namespace vantorq
