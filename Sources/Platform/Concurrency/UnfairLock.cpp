#include "VantorqFoundation/Platform/UnfairLock.h"

#include <limits>

#include "Futex.h"
#include "Sources/Platform/Dispatch/MonotonicTime.h"
#include "SpinPause.h"

namespace vantorq {

namespace {

/// How often a thread looks at a held lock before it sleeps: about as long as a critical section of
/// some dozen instructions takes.
constexpr int kSpins = 40;

}  // namespace

void UnfairLock::lockContended() noexcept {
    (void)tryLockContended(kNever);
}

bool UnfairLock::tryLockContended(std::int64_t deadline) noexcept {
    for (int i = 0; i < kSpins; ++i) {
        spinPause();
        if (state_.load(std::memory_order_relaxed) == kFree && try_lock()) {
            return true;
        }
    }
    // Whoever gets the lock here cannot know whether others still sleep, so it leaves the mark.
    while (state_.exchange(kHeldWithWaiters, std::memory_order_acquire) != kFree) {
        if (deadline != kNever && monotonicNow() >= deadline) {
            return false;
        }
        futexWait(state_, kHeldWithWaiters, deadline);
    }
    return true;
}

void UnfairLock::wakeWaiter() noexcept {
    futexWakeOne(state_);
}

}  // namespace vantorq
