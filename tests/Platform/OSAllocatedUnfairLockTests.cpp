#include "VantorqFoundation/Platform/OSAllocatedUnfairLock.h"

#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Threads.h"

namespace vantorq {
namespace {

template <class F>
auto onAnotherThread(F function) {
    decltype(function()) result{};
    std::thread([&] { result = function(); }).join();
    return result;
}

TEST(OSAllocatedUnfairLock, HoldsTheStateInline) {
    EXPECT_EQ(sizeof(OSAllocatedUnfairLock<>), sizeof(UnfairLock));
    EXPECT_EQ(sizeof(OSAllocatedUnfairLock<int>), sizeof(UnfairLock) + sizeof(int));
}

TEST(OSAllocatedUnfairLock, StartsWithTheStateThatItIsGiven) {
    OSAllocatedUnfairLock<int> zero;
    EXPECT_EQ(zero.withLock([](int& state) { return state; }), 0);
    OSAllocatedUnfairLock<std::unique_ptr<int>> moved(std::make_unique<int>(7));
    EXPECT_EQ(moved.withLock([](auto& state) { return *state; }), 7);
}

TEST(OSAllocatedUnfairLock, HandsOutTheStateToChange) {
    OSAllocatedUnfairLock<std::vector<int>> numbers;
    numbers.withLock([](std::vector<int>& all) { all = {1, 2}; });
    EXPECT_EQ(numbers.withLock([](std::vector<int>& all) { return all.size(); }), 2U);
    const auto& constant = numbers;
    EXPECT_EQ(constant.withLock([](const std::vector<int>& all) { return all.back(); }), 2);
}

TEST(OSAllocatedUnfairLock, PassesOnWhatTheFunctionReturnsReferencesIncluded) {
    OSAllocatedUnfairLock<int> lock(1);
    static int outside = 2;
    static_assert(
        std::is_same_v<decltype(lock.withLock([](int&) -> int& { return outside; })), int&>);
    static_assert(std::is_void_v<decltype(lock.withLock([](int&) {}))>);
    EXPECT_EQ(&lock.withLock([](int&) -> int& { return outside; }), &outside);
}

TEST(OSAllocatedUnfairLock, IsNoexceptWhereTheFunctionIs) {
    OSAllocatedUnfairLock<int> lock;
    static_assert(noexcept(lock.withLock([](int&) noexcept {})));
    static_assert(!noexcept(lock.withLock([](int&) {})));
    static_assert(noexcept(lock.withLockIfAvailable([](int&) noexcept {})));
    static_assert(!noexcept(lock.withLockIfAvailable([](int&) {})));
    lock.withLock([](int& state) noexcept { ++state; });
    EXPECT_EQ(lock.withLock([](int& state) { return state; }), 1);
}

TEST(OSAllocatedUnfairLock, IsHeldWhileTheFunctionRuns) {
    OSAllocatedUnfairLock<int> lock(3);
    lock.withLock([&](int&) {
        EXPECT_FALSE(onAnotherThread([&] { return lock.withLockIfAvailable([](int&) {}); }));
        EXPECT_EQ(
            onAnotherThread([&] { return lock.withLockIfAvailable([](int& n) { return n; }); }),
            std::nullopt);
    });
    EXPECT_TRUE(onAnotherThread([&] { return lock.withLockIfAvailable([](int& n) { ++n; }); }));
    EXPECT_EQ(lock.withLockIfAvailable([](int& n) { return n; }), 4);
}

TEST(OSAllocatedUnfairLock, IsFreeAgainAfterAnException) {
    OSAllocatedUnfairLock<int> lock;
    EXPECT_THROW(lock.withLock([](int&) { throw std::runtime_error("failed"); }),
                 std::runtime_error);
    EXPECT_THROW(lock.withLockIfAvailable([](int&) { throw std::runtime_error("failed"); }),
                 std::runtime_error);
    EXPECT_TRUE(lock.withLockIfAvailable([](int&) {}));
}

TEST(OSAllocatedUnfairLock, AdmitsOneThreadAtATime) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 20'000;
    OSAllocatedUnfairLock<int> count;
    test::together(kThreads, [&](int) {
        for (int round = 0; round < kRounds; ++round) {
            count.withLock([](int& n) { ++n; });
        }
    });
    EXPECT_EQ(count.withLock([](int& n) { return n; }), kThreads * kRounds);
}

TEST(OSAllocatedUnfairLock, WithoutStateItIsLockedAndUnlocked) {
    OSAllocatedUnfairLock<> lock;
    lock.lock();
    EXPECT_FALSE(onAnotherThread([&] { return lock.lockIfAvailable(); }));
    EXPECT_FALSE(onAnotherThread([&] { return lock.withLockIfAvailable([] {}); }));
    EXPECT_EQ(onAnotherThread([&] { return lock.withLockIfAvailable([] { return 1; }); }),
              std::nullopt);
    lock.unlock();
    EXPECT_EQ(lock.withLock([] { return 5; }), 5);
    EXPECT_EQ(lock.withLockIfAvailable([] { return 6; }), 6);
    EXPECT_TRUE(lock.withLockIfAvailable([] {}));
    EXPECT_THROW(lock.withLock([] { throw 1; }), int);
    EXPECT_TRUE(lock.lockIfAvailable());
    lock.unlock();
    const std::lock_guard guard(lock);
    EXPECT_FALSE(onAnotherThread([&] { return lock.try_lock(); }));
}

}  // namespace
}  // namespace vantorq
