#include "VantorqFoundation/Platform/NSTimer.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "MonotonicTime.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/NSRunLoop.h"
#include "VantorqFoundation/Platform/Trap.h"

namespace vantorq {

namespace {

constexpr NSTimeInterval kShortestInterval = 0.0001;

NSTimeInterval secondsOf(std::int64_t nanoseconds) noexcept {
    return static_cast<double>(nanoseconds) / static_cast<double>(kNanosecondsPerSecond);
}

}  // namespace

NSTimer::NSTimer(NSTimeInterval delay, NSTimeInterval interval, Handler handler)
    : interval_(interval),
      handler_(std::move(handler)),
      due_(instantAfterSeconds(delay)),
      fireTime_(NSDate::date()->timeIntervalSinceReferenceDate() + delay) {}

Ref<NSTimer> NSTimer::timerWithTimeInterval(NSTimeInterval interval, bool repeats,
                                            Handler handler) {
    if (!handler) {
        VNTQ_TRAP("NSTimer: made with an empty handler");
    }
    // Written so that NaN fails the comparisons.
    const NSTimeInterval delay = interval > 0 ? interval : repeats ? kShortestInterval : 0;
    return Ref<NSTimer>::adopt(new NSTimer(delay, repeats ? delay : 0, std::move(handler)));
}

Ref<NSTimer> NSTimer::scheduledTimerWithTimeInterval(NSTimeInterval interval, bool repeats,
                                                     Handler handler) {
    Ref<NSTimer> timer = timerWithTimeInterval(interval, repeats, std::move(handler));
    NSRunLoop::current()->addTimer(*timer, NSDefaultRunLoopMode);
    return timer;
}

void NSTimer::fire() {
    Handler handler;
    {
        const std::lock_guard guard(lock_);
        if (!handler_ || isFiring_) {
            return;
        }
        isFiring_ = true;
        handler = handler_;
    }
    callHandler(handler);
}

void NSTimer::fireIfDue(std::int64_t now) {
    Handler handler;
    {
        const std::lock_guard guard(lock_);
        if (!handler_ || isFiring_ || due_ > now) {
            return;
        }
        isFiring_ = true;
        handler = handler_;
        if (interval_ > 0) {
            const std::int64_t step = std::max<std::int64_t>(nanosecondsFromSeconds(interval_), 1);
            const std::int64_t steps = (now - due_) / step + 1;
            std::int64_t span;
            if (__builtin_mul_overflow(steps, step, &span)) {
                span = kNever;
            }
            due_ = instantAfter(due_, span);
            fireTime_ += secondsOf(span);
        }
    }
    callHandler(handler);
}

void NSTimer::callHandler(const Handler& handler) {
    [&]() noexcept { handler(this); }();
    if (interval_ > 0) {
        const std::lock_guard guard(lock_);
        isFiring_ = false;
    } else {
        invalidate();
    }
}

void NSTimer::invalidate() {
    Handler handler;
    Ref<NSRunLoop> loop;
    {
        const std::lock_guard guard(lock_);
        handler = std::exchange(handler_, nullptr);
        loop = loop_.load();
        loop_ = nullptr;
    }
    if (loop != nullptr) {
        loop->removeTimer(*this);
    }
}

bool NSTimer::isValid() const noexcept {
    const std::lock_guard guard(lock_);
    return static_cast<bool>(handler_);
}

Ref<NSDate> NSTimer::fireDate() const {
    const std::lock_guard guard(lock_);
    return NSDate::dateWithTimeIntervalSinceReferenceDate(fireTime_);
}

bool NSTimer::join(NSRunLoop& loop) {
    const std::lock_guard guard(lock_);
    if (!handler_) {
        return false;
    }
    const Ref<NSRunLoop> joined = loop_.load();
    if (joined != nullptr && joined != &loop) {
        VNTQ_TRAP("NSTimer: added to a second run loop");
    }
    loop_ = &loop;
    return true;
}

std::optional<std::int64_t> NSTimer::dueTime() const noexcept {
    const std::lock_guard guard(lock_);
    return handler_ && !isFiring_ ? std::optional(due_) : std::nullopt;
}

namespace {

constexpr PropertyInfo kProperties[] = {
    property<&NSTimer::isValid>("valid", "isValid"),
    property<&NSTimer::fireDate>("fireDate"),
    property<&NSTimer::timeInterval>("timeInterval"),
};
constexpr MethodInfo kMethods[] = {
    classMethod<&NSTimer::timerWithTimeInterval>("timerWithTimeInterval:repeats:block:"),
    classMethod<&NSTimer::scheduledTimerWithTimeInterval>(
        "scheduledTimerWithTimeInterval:repeats:block:"),
    method<&NSTimer::fire>("fire"),
    method<&NSTimer::invalidate>("invalidate"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSTimer, {.properties = kProperties, .methods = kMethods})

}  // namespace vantorq
