#pragma once

#include <atomic>
#include <cstdint>

#include "Export.h"

namespace vantorq {

/// Mutual exclusion in four bytes.
///
/// For short critical sections: taking and giving back a free lock costs one atomic operation each,
/// a thread that meets a held lock tries for a moment and then sleeps in the kernel (futex(7)).
/// There is no order among waiting threads. Not recursive: locking twice on one thread waits for
/// ever. Works with `std::lock_guard` and its kin.
///
/// Threads: any; the one that locked unlocks.
class UnfairLock {
public:
    constexpr UnfairLock() noexcept = default;
    UnfairLock(const UnfairLock&) = delete;
    UnfairLock& operator=(const UnfairLock&) = delete;

    void lock() noexcept {
        if (!try_lock()) {
            lockContended();
        }
    }
    [[nodiscard]] bool try_lock() noexcept {
        std::uint32_t free = kFree;
        return state_.compare_exchange_strong(free, kHeld, std::memory_order_acquire,
                                              std::memory_order_relaxed);
    }
    /// Waits until `deadline`, in nanoseconds of `CLOCK_MONOTONIC`, at most.
    [[nodiscard]] bool tryLockUntil(std::int64_t deadline) noexcept {
        return try_lock() || tryLockContended(deadline);
    }
    void unlock() noexcept {
        if (state_.exchange(kFree, std::memory_order_release) == kHeldWithWaiters) {
            wakeWaiter();
        }
    }

private:
    static constexpr std::uint32_t kFree = 0;
    static constexpr std::uint32_t kHeld = 1;
    static constexpr std::uint32_t kHeldWithWaiters = 2;

    VNTQ_EXPORT void lockContended() noexcept;
    VNTQ_EXPORT bool tryLockContended(std::int64_t deadline) noexcept;
    VNTQ_EXPORT void wakeWaiter() noexcept;

    std::atomic<std::uint32_t> state_{kFree};
};

}  // namespace vantorq
