#include "VantorqFoundation/Platform/UnfairLock.h"

#include <cstdint>
#include <ctime>
#include <limits>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "Support/Threads.h"

namespace vantorq {
namespace {

std::int64_t now() {
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

template <class F>
auto onAnotherThread(F function) {
    decltype(function()) result;
    std::thread([&] { result = function(); }).join();
    return result;
}

TEST(UnfairLock, IsFourBytes) {
    EXPECT_EQ(sizeof(UnfairLock), 4U);
}

TEST(UnfairLock, AdmitsOneThreadAtATime) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 20'000;
    UnfairLock lock;
    int count = 0;
    test::together(kThreads, [&](int) {
        for (int round = 0; round < kRounds; ++round) {
            const std::lock_guard guard(lock);
            ++count;
        }
    });
    EXPECT_EQ(count, kThreads * kRounds);
}

TEST(UnfairLock, AHeldOneCannotBeTaken) {
    UnfairLock lock;
    lock.lock();
    EXPECT_FALSE(onAnotherThread([&] { return lock.try_lock(); }));
    lock.unlock();
    EXPECT_TRUE(onAnotherThread([&] {
        const std::unique_lock taken(lock, std::try_to_lock);
        return taken.owns_lock();
    }));
}

TEST(UnfairLock, WaitingEndsAtTheDeadline) {
    UnfairLock lock;
    lock.lock();
    const std::int64_t deadline = now() + 2'000'000;
    EXPECT_FALSE(onAnotherThread([&] { return lock.tryLockUntil(deadline); }));
    EXPECT_GE(now(), deadline);
    EXPECT_FALSE(onAnotherThread([&] { return lock.tryLockUntil(0); }));
    lock.unlock();
    EXPECT_TRUE(lock.tryLockUntil(0));
    lock.unlock();
}

TEST(UnfairLock, AWaitingThreadGetsItWhenItIsGivenBack) {
    UnfairLock lock;
    lock.lock();
    bool hasIt = false;
    std::thread waiter([&] {
        hasIt = lock.tryLockUntil(std::numeric_limits<std::int64_t>::max());
        lock.unlock();
    });
    lock.unlock();
    waiter.join();
    EXPECT_TRUE(hasIt);
}

}  // namespace
}  // namespace vantorq
