#pragma once

#include <cstdint>
#include <optional>

#include "Block.h"
#include "Export.h"
#include "NSDate.h"
#include "NSObject.h"
#include "UnfairLock.h"

namespace vantorq {

class NSRunLoop;

/// A timer that fires on the thread of the run loop it was added to, while that loop turns.
///
/// A repeating timer fires at its first fire date plus whole intervals; firings that the loop was
/// too busy for are left out. One that does not repeat becomes invalid when its handler returns. An
/// invalid timer has left its loop, never fires again, and has let go of its handler.
///
/// Threads: any may invalidate and ask; the handler runs on the loop's thread, or on that of the
/// caller of `fire`. An exception that leaves the handler ends the process.
class VNTQ_EXPORT NSTimer final : public NSObject {
    VNTQ_OBJECT(NSTimer, NSObject)
public:
    using Handler = Block<void(NSTimer*)>;

    /// A timer that first fires `interval` seconds from now. A repeating one needs a positive
    /// interval: others become 0.0001. NaN counts as 0. An empty handler traps.
    [[nodiscard]] static Ref<NSTimer> timerWithTimeInterval(NSTimeInterval interval, bool repeats,
                                                            Handler handler);
    /// The same, added to the calling thread's run loop in the default mode.
    static Ref<NSTimer> scheduledTimerWithTimeInterval(NSTimeInterval interval, bool repeats,
                                                       Handler handler);

    /// Calls the handler now, on this thread; a timer that does not repeat is invalid afterwards,
    /// and the dates of a repeating one stay. Does nothing when invalid, or within the timer's own
    /// handler.
    void fire();
    void invalidate();
    [[nodiscard]] bool isValid() const noexcept;
    /// When the timer fires next, or, when invalid, would have fired.
    [[nodiscard]] Ref<NSDate> fireDate() const;
    /// Seconds between firings; 0 when the timer does not repeat.
    [[nodiscard]] NSTimeInterval timeInterval() const noexcept { return interval_; }

private:
    friend class NSRunLoop;

    NSTimer(NSTimeInterval delay, NSTimeInterval interval, Handler handler);
    ~NSTimer() override = default;

    /// Makes the timer one of `loop`; false when it is invalid. Traps in another loop.
    bool join(NSRunLoop& loop);
    /// The due time in nanoseconds of `CLOCK_MONOTONIC`; nothing while it cannot fire.
    [[nodiscard]] std::optional<std::int64_t> dueTime() const noexcept;
    /// Fires if due at `now`, and moves a repeating timer to its next date.
    void fireIfDue(std::int64_t now);
    void callHandler(const Handler& handler);

    const NSTimeInterval interval_;
    mutable UnfairLock lock_;  // guards what follows
    Handler handler_;          // empty: invalid
    Weak<NSRunLoop> loop_;
    std::int64_t due_;
    NSTimeInterval fireTime_;  // the due time as seconds since the reference date
    bool isFiring_ = false;
};

}  // namespace vantorq
