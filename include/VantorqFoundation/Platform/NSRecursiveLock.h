#pragma once

#include <atomic>
#include <cstdint>

#include "Export.h"
#include "NSDate.h"
#include "NSObject.h"
#include "Trap.h"
#include "UnfairLock.h"

namespace vantorq {

/// Mutual exclusion that the thread which holds it may take again; it is free once it was given
/// back as often as it was taken. Works with `std::lock_guard` and its kin.
///
/// Taking a free one and giving it back costs two atomic operations; taking it again costs none.
/// Traps: unlocking on a thread that does not hold it. Threads: any.
class RecursiveLock {
public:
    constexpr RecursiveLock() noexcept = default;
    RecursiveLock(const RecursiveLock&) = delete;
    RecursiveLock& operator=(const RecursiveLock&) = delete;

    void lock() noexcept {
        if (isHeldByCaller()) {
            takeAgain();
        } else {
            lock_.lock();
            takeFirst();
        }
    }
    [[nodiscard]] bool try_lock() noexcept {
        if (isHeldByCaller()) {
            takeAgain();
            return true;
        }
        return lock_.try_lock() && takeFirst();
    }
    /// Waits until `deadline`, in nanoseconds of `CLOCK_MONOTONIC`, at most.
    [[nodiscard]] bool tryLockUntil(std::int64_t deadline) noexcept {
        if (isHeldByCaller()) {
            takeAgain();
            return true;
        }
        return lock_.tryLockUntil(deadline) && takeFirst();
    }
    void unlock() noexcept {
        if (!isHeldByCaller()) [[unlikely]] {
            VNTQ_TRAP("RecursiveLock: unlocked by a thread that does not hold it");
        }
        if (--depth_ == 0) {
            owner_.store(nullptr, std::memory_order_relaxed);
            lock_.unlock();
        }
    }

    /// Whether the calling thread holds the lock.
    [[nodiscard]] bool isHeldByCaller() const noexcept {
        // Only the caller itself stores this value, so an old value of another thread does no harm.
        return owner_.load(std::memory_order_relaxed) == __builtin_thread_pointer();
    }

private:
    bool takeFirst() noexcept {
        owner_.store(__builtin_thread_pointer(), std::memory_order_relaxed);
        depth_ = 1;
        return true;
    }
    void takeAgain() noexcept {
        if (++depth_ == 0) [[unlikely]] {
            VNTQ_TRAP("RecursiveLock: taken too often");
        }
    }

    UnfairLock lock_;
    std::uint32_t depth_ = 0;  // guarded by lock_
    std::atomic<void*> owner_{
        nullptr};  // the holder's thread pointer, which is unique while it lives
};

/// A `RecursiveLock` as an object.
class VNTQ_EXPORT NSRecursiveLock final : public NSObject {
    VNTQ_OBJECT(NSRecursiveLock, NSObject)
public:
    NSRecursiveLock() noexcept = default;

    void lock() noexcept { lock_.lock(); }
    void unlock() noexcept { lock_.unlock(); }
    /// False, at once, when another thread holds the lock.
    [[nodiscard]] bool tryLock() noexcept { return lock_.try_lock(); }
    [[nodiscard]] bool try_lock() noexcept { return lock_.try_lock(); }
    /// False when the lock could not be had before `limit`; a date in the past tries once.
    [[nodiscard]] bool lockBeforeDate(const NSDate& limit) noexcept;

private:
    ~NSRecursiveLock() override = default;

    RecursiveLock lock_;
};

}  // namespace vantorq
