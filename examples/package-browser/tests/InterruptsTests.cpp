#include "Interrupts.h"

#include <atomic>
#include <csignal>
#include <semaphore>
#include <unistd.h>

#include <gtest/gtest.h>

namespace package_browser {
namespace {

bool isInterruptBlocked() {
    sigset_t blocked;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    return ::sigismember(&blocked, SIGINT) == 1;
}

TEST(Interrupts, CallTheFunctionEachTime) {
    std::counting_semaphore<> calls(0);
    const Interrupts interrupts([&] { calls.release(); });
    for (int count = 0; count < 3; ++count) {
        ::kill(::getpid(), SIGINT);
        calls.acquire();
    }
    EXPECT_FALSE(calls.try_acquire());
}

TEST(Interrupts, WithoutOneTheFunctionIsNotCalled) {
    std::atomic<int> calls = 0;
    {
        const Interrupts interrupts([&] { ++calls; });
    }
    EXPECT_EQ(calls, 0);
}

TEST(Interrupts, SignalIsAsBeforeAtTheEnd) {
    ASSERT_FALSE(isInterruptBlocked());
    {
        const Interrupts interrupts([] {});
        EXPECT_TRUE(isInterruptBlocked());
    }
    EXPECT_FALSE(isInterruptBlocked());
}

}  // namespace
}  // namespace package_browser
