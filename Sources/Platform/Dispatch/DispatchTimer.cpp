#include "VantorqFoundation/Platform/DispatchTimer.h"

#include <algorithm>

#include "MonotonicTime.h"
#include "TimerStore.h"
#include "VantorqFoundation/Platform/Trap.h"

namespace vantorq {

namespace {

std::int64_t saturated(std::uint64_t nanoseconds) noexcept {
    return static_cast<std::int64_t>(std::min(nanoseconds, static_cast<std::uint64_t>(kNever)));
}

}  // namespace

DispatchTimer::DispatchTimer(Ref<DispatchQueue> queue) noexcept : queue_(std::move(queue)) {
    take = &DispatchTimer::takeHandler;
}

DispatchTimer::~DispatchTimer() {
    cancel();
}

void DispatchTimer::setHandler(Ref<detail::TimerHandler> handler) {
    if (isResumed_) {
        VNTQ_TRAP("DispatchTimer: the handler was set after resume");
    }
    handler_ = std::move(handler);
}

void DispatchTimer::schedule(std::uint64_t delay, std::uint64_t leeway) noexcept {
    const std::int64_t newDue = instantAfter(monotonicNow(), saturated(delay));
    const std::int64_t newLatest = instantAfter(newDue, saturated(leeway));
    if (isResumed_) {
        arm(newDue, newLatest);
    } else {
        due = newDue;
        latest = newLatest;
    }
}

void DispatchTimer::resume() {
    if (handler_ == nullptr) {
        VNTQ_TRAP("DispatchTimer: resumed without a handler");
    }
    if (!std::exchange(isResumed_, true)) {
        arm(due, latest);
    }
}

void DispatchTimer::arm(std::int64_t newDue, std::int64_t newLatest) {
    if (handler_->isOver()) {
        return;
    }
    TimerStore::monotonic().arm(*this, newDue, newLatest);
    // Set last: a cancellation that comes in between leaves the entry to the destructor.
    mayBeArmed_.store(true, std::memory_order_release);
}

void DispatchTimer::cancel() noexcept {
    if (handler_ != nullptr) {
        handler_->cancel();
    }
    if (mayBeArmed_.exchange(false, std::memory_order_acq_rel)) {
        TimerStore::monotonic().disarm(*this);
    }
}

bool DispatchTimer::isCancelled() const noexcept {
    return handler_ != nullptr && handler_->isCancelled();
}

/// The work holds the handler, not the timer, which may be on its way out.
detail::DueWork DispatchTimer::takeHandler(detail::TimerEntry& entry) {
    const auto& self = static_cast<DispatchTimer&>(entry);
    return {self.queue_, &makeWork([handler = self.handler_] {
                if (handler->begin()) {
                    handler->call();
                }
            })};
}

}  // namespace vantorq
