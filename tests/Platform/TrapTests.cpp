#include "VantorqFoundation/Platform/Trap.h"

#include <atomic>
#include <signal.h>
#include <string>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Support/Threads.h"
#include "Support/Trap.h"

namespace vantorq {
namespace {

void trapWithPieces() {
    trap({"-[", "Dog", " bark]: ", "", "not now"});
}

void trapWithLongPieces() {
    trap({"text", std::string(1'016, '-'), "end", "over"});
}

std::atomic<bool> hasTrapped = false;

/// A handler that keeps the thread that trapped where it is.
void stay(int) {
    hasTrapped = true;
    for (;;) {
        pause();
    }
}

void trapOnOneThreadAfterAnother() {
    const auto reportIll = signal(SIGILL, stay);
    const auto reportTrap = signal(SIGTRAP, stay);
    std::thread([] { trap({"the ", "first"}); }).detach();
    while (!hasTrapped) {
        std::this_thread::yield();
    }
    signal(SIGILL, reportIll);
    signal(SIGTRAP, reportTrap);
    trap({"the ", "second"});
}

void trapOnTwoThreadsAtOnce() {
    test::together(2, [](int number) { trap({"thread ", number == 0 ? "0" : "1", " trapped"}); });
}

class TrapDeathTest : public testing::Test {
protected:
    TrapDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }  // children start threads
};

TEST_F(TrapDeathTest, LeavesItsText) {
    EXPECT_TRAP(VNTQ_TRAP("the reason"), "the reason");
}

TEST_F(TrapDeathTest, PutsPiecesTogether) {
    EXPECT_TRAP(trapWithPieces(), "-[Dog bark]: not now");
}

TEST_F(TrapDeathTest, CutsALongTextAtItsEnd) {
    EXPECT_EXIT(
        {
            test::reportTraps();
            trapWithLongPieces();
        },
        testing::ExitedWithCode(test::kTrapped), "text-{1016}end$");
}

TEST_F(TrapDeathTest, TheTextOfTheFirstThreadStays) {
    EXPECT_TRAP(trapOnOneThreadAfterAnother(), "the first");
}

TEST_F(TrapDeathTest, ThreadsThatTrapAtOnceLeaveTheTextOfOneOfThem) {
    for (int round = 0; round < 5; ++round) {
        EXPECT_EXIT(
            {
                test::reportTraps();
                trapOnTwoThreadsAtOnce();
            },
            testing::ExitedWithCode(test::kTrapped), "thread [01] trapped");
    }
}

}  // namespace
}  // namespace vantorq
