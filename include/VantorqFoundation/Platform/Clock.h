#pragma once

#include "Async.h"
#include "ContinuousClock.h"
#include "Export.h"
#include "RefCounted.h"

namespace vantorq {

/// A clock that can be chosen: the machine's, or in a test one that stands still until it is moved
/// (testing/ManualClock.h).
///
///     Async<> blink(Ref<Clock> clock) {
///         for (;;) {
///             lamp.toggle();
///             co_await clock->sleepFor(std::chrono::milliseconds(500));
///         }
///     }
///
/// Threads: any.
class VNTQ_EXPORT Clock : public RefCounted {
public:
    using Duration = ContinuousClock::duration;
    /// Of this clock. Instants of different clocks have nothing to do with each other.
    using Instant = ContinuousClock::time_point;

    /// `ContinuousClock`.
    [[nodiscard]] static Clock& continuous();

    [[nodiscard]] virtual Instant now() const noexcept = 0;
    /// Awaited, waits until `deadline`, not at all if that has passed. Throws `CancellationError`
    /// at once when the task is cancelled before or meanwhile.
    virtual Async<> sleep(Instant deadline) = 0;

    /// The same for a length of time, counted from the await.
    Async<> sleepFor(Duration length);
    /// The instant so far ahead of now: now for a negative length, and the last one there is when
    /// it is beyond that.
    [[nodiscard]] Instant after(Duration length) const noexcept;

protected:
    ~Clock() override;
};

}  // namespace vantorq
