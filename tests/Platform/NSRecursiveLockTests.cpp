#include "VantorqFoundation/Platform/NSRecursiveLock.h"

#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include "Support/Threads.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

bool anotherThreadGets(RecursiveLock& lock) {
    bool gets = false;
    std::thread([&] {
        gets = lock.try_lock();
        if (gets) {
            lock.unlock();
        }
    }).join();
    return gets;
}

TEST(RecursiveLock, TheHolderTakesItAgain) {
    RecursiveLock lock;
    EXPECT_FALSE(lock.isHeldByCaller());
    const std::lock_guard outer(lock);
    const std::lock_guard inner(lock);
    EXPECT_TRUE(lock.try_lock());
    EXPECT_TRUE(lock.tryLockUntil(0));
    EXPECT_TRUE(lock.isHeldByCaller());
    lock.unlock();
    lock.unlock();
}

TEST(RecursiveLock, IsFreeOnceItWasGivenBackAsOftenAsItWasTaken) {
    RecursiveLock lock;
    lock.lock();
    lock.lock();
    EXPECT_FALSE(anotherThreadGets(lock));
    lock.unlock();
    EXPECT_FALSE(anotherThreadGets(lock));
    lock.unlock();
    EXPECT_TRUE(anotherThreadGets(lock));
}

TEST(RecursiveLock, AnotherThreadDoesNotHoldIt) {
    RecursiveLock lock;
    const std::lock_guard guard(lock);
    std::thread([&] { EXPECT_FALSE(lock.isHeldByCaller()); }).join();
}

TEST(RecursiveLock, AdmitsOneThreadAtATime) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 10'000;
    RecursiveLock lock;
    int count = 0;
    test::together(kThreads, [&](int) {
        for (int round = 0; round < kRounds; ++round) {
            const std::lock_guard outer(lock);
            ++count;
            const std::lock_guard inner(lock);
            ++count;
        }
    });
    EXPECT_EQ(count, 2 * kThreads * kRounds);
}

TEST(RecursiveLock, UnlockingWithoutHoldingTraps) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child starts a thread
    RecursiveLock lock;
    EXPECT_TRAP(lock.unlock(), "unlocked by a thread that does not hold it");
    lock.lock();
    EXPECT_TRAP(std::thread([&] { lock.unlock(); }).join(),
                "unlocked by a thread that does not hold it");
    lock.unlock();
}

// Any sequence of taking and giving back on one thread is that of a counter.
RC_GTEST_PROP(RecursiveLock, CountsLikeAnInteger, (const std::vector<bool>& commands)) {
    RecursiveLock lock;
    std::uint32_t depth = 0;
    for (const bool takes : commands) {
        if (takes) {
            lock.lock();
            ++depth;
        } else if (depth > 0) {
            lock.unlock();
            --depth;
        }
        RC_ASSERT(lock.isHeldByCaller() == (depth > 0));
    }
    RC_ASSERT(anotherThreadGets(lock) == (depth == 0));
}

TEST(NSRecursiveLock, LocksAsAnObject) {
    const auto lock = make<NSRecursiveLock>();
    lock->lock();
    EXPECT_TRUE(lock->tryLock());
    std::thread([&] { EXPECT_FALSE(lock->tryLock()); }).join();
    lock->unlock();
    lock->unlock();
    const std::scoped_lock guard(*lock);
}

TEST(NSRecursiveLock, LockBeforeDateGivesUpAtTheDate) {
    const auto lock = make<NSRecursiveLock>();
    lock->lock();
    std::thread([&] {
        const auto date = NSDate::dateWithTimeIntervalSinceNow(0.005);
        EXPECT_FALSE(lock->lockBeforeDate(*date));
        EXPECT_FALSE(lock->lockBeforeDate(*NSDate::distantPast()));
    }).join();
    EXPECT_TRUE(lock->lockBeforeDate(*NSDate::distantPast()));
    lock->unlock();
    lock->unlock();
    EXPECT_TRUE(lock->lockBeforeDate(*NSDate::distantFuture()));
    lock->unlock();
}

TEST(NSRecursiveLock, AnswersMessages) {
    const auto lock = make<NSRecursiveLock>();
    send<void>(lock, "lock"_sel);
    EXPECT_TRUE(send<bool>(lock, "tryLock"_sel));
    EXPECT_TRUE(send<bool>(lock, "lockBeforeDate:"_sel, *NSDate::distantFuture()));
    send<void>(lock, "unlock"_sel);
    send<void>(lock, "unlock"_sel);
    std::thread([&] { EXPECT_FALSE(lock->tryLock()); }).join();
    send<void>(lock, "unlock"_sel);
    std::thread([&] {
        EXPECT_TRUE(lock->tryLock());
        lock->unlock();
    }).join();
}

}  // namespace
}  // namespace vantorq
