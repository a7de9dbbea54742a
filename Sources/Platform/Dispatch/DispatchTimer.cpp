#include "VantorqFoundation/Platform/DispatchTimer.h"

#include <algorithm>

#include "MonotonicTime.h"
#include "TimerStore.h"

namespace vantorq {

namespace {

std::int64_t saturated(std::uint64_t nanoseconds) noexcept {
    return static_cast<std::int64_t>(std::min(nanoseconds, static_cast<std::uint64_t>(kNever)));
}

/// From this leeway on, a timer does without the exact time, which takes several times as long to
/// read, and keeps to the later half of its leeway. The coarse clock lags behind by a tick, and by
/// as long as the host of a virtual machine holds up the processor that advances it.
constexpr std::int64_t kLeewayForCoarseTime = kNanosecondsPerSecond;

detail::TimerHandler& handlerIn(std::uintptr_t state) noexcept {
    return *reinterpret_cast<detail::TimerHandler*>(state);
}

}  // namespace

DispatchTimer::DispatchTimer(Ref<DispatchQueue> queue) noexcept
    : TimerEntry(&DispatchTimer::fire), queue_(std::move(queue)) {}

DispatchTimer::~DispatchTimer() {
    if (const std::uintptr_t state = state_.load(std::memory_order_acquire); state > kCancelled) {
        handlerIn(state).release();
    }
}

void DispatchTimer::schedule(std::uint64_t delay, std::uint64_t leeway) noexcept {
    if (state_.load(std::memory_order_acquire) != kWaiting) {
        return;
    }
    const std::int64_t span = saturated(leeway);
    const bool isCoarse = span >= kLeewayForCoarseTime;
    const std::int64_t earliest =
        instantAfter(isCoarse ? coarseMonotonicNow() : monotonicNow(), saturated(delay));
    TimerStore::monotonic().arm(*this, isCoarse ? instantAfter(earliest, span / 2) : earliest,
                                instantAfter(earliest, span));
    // A cancellation that came in between may have found nothing to disarm.
    if (state_.load(std::memory_order_acquire) != kWaiting) {
        TimerStore::monotonic().disarm(*this);
    }
}

void DispatchTimer::cancel() noexcept {
    std::uintptr_t state = state_.load(std::memory_order_acquire);
    if (state == kCancelled) {
        return;
    }
    while (state == kWaiting &&
           !state_.compare_exchange_weak(state, kCancelled, std::memory_order_acq_rel)) {
    }
    if (state > kCancelled) {
        handlerIn(state).cancel();
    }
    // Also waits until `fire`, if it is under way, no longer uses the timer.
    TimerStore::monotonic().disarm(*this);
}

bool DispatchTimer::isCancelled() const noexcept {
    const std::uintptr_t state = state_.load(std::memory_order_acquire);
    return state == kCancelled || (state != kWaiting && handlerIn(state).isCancelled());
}

/// The work holds the handler, not the timer, which may be on its way out.
detail::DueWork DispatchTimer::fire(detail::TimerEntry& entry) {
    auto& self = static_cast<DispatchTimer&>(entry);
    // It may have been scheduled again while it fired.
    if (self.state_.load(std::memory_order_acquire) != kWaiting) {
        return {};
    }
    Ref<detail::TimerHandler> handler = self.makeHandler();
    handler->retain();
    std::uintptr_t state = kWaiting;
    if (!self.state_.compare_exchange_strong(state, reinterpret_cast<std::uintptr_t>(handler.get()),
                                             std::memory_order_acq_rel)) {
        // Cancelled just now. What the handler holds must not be let go of under a lock.
        handler->cancel();
        handler->release();
    }
    return {self.queue_, &makeWork([handler = std::move(handler)] {
                if (handler->begin()) {
                    handler->call();
                }
            })};
}

}  // namespace vantorq
