#pragma once

#include <chrono>

#include "Async.h"
#include "Export.h"

namespace vantorq {

/// Time as it passes for the user: counted from the start of the machine, and also while that is
/// suspended (`CLOCK_BOOTTIME`, clock_gettime(2)). Never set back.
///
///     const auto begin = ContinuousClock::now();
///     co_await ContinuousClock::sleepFor(std::chrono::milliseconds(200));
///     report(ContinuousClock::now() - begin);
///
/// A clock in the sense of `std::chrono`, in nanoseconds. Code that is to be tested with a clock
/// that stands still takes a `Clock` (Clock.h) instead.
///
/// Threads: any.
class VNTQ_EXPORT ContinuousClock {
public:
    using duration = std::chrono::nanoseconds;
    using rep = duration::rep;
    using period = duration::period;
    using time_point = std::chrono::time_point<ContinuousClock>;
    static constexpr bool is_steady = true;

    [[nodiscard]] static time_point now() noexcept;

    /// Awaited, waits until `deadline`, not at all if that has passed. Throws `CancellationError`
    /// at once when the task is cancelled before or meanwhile. `time_point::max()` never comes.
    ///
    /// Takes no thread while it waits. Never ends early, and late by what the machine needs to get
    /// to it. It does not wake a machine that is suspended: a deadline that passes meanwhile ends
    /// the sleep as soon as the machine is awake again. Throws `std::system_error` when the process
    /// has no file descriptor left for the timer, of which there is one for all sleeps; traps when
    /// it has no room for the thread of the timers.
    static Async<> sleep(time_point deadline);
    /// The same for a length of time, counted from the await.
    static Async<> sleepFor(duration length);
};

}  // namespace vantorq
