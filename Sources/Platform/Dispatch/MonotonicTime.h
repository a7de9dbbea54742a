#pragma once

#include <cmath>
#include <cstdint>
#include <ctime>
#include <limits>

namespace vantorq {

/// Instants of a clock and lengths of time, both in nanoseconds. The greatest is "never".
inline constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
inline constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

inline std::int64_t nowOf(clockid_t clock) noexcept {
    timespec now;
    ::clock_gettime(clock, &now);
    return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

/// Stands still while the machine sleeps.
inline std::int64_t monotonicNow() noexcept {
    return nowOf(CLOCK_MONOTONIC);
}

/// The same as of the clock's last tick, some milliseconds ago; much faster to read.
inline std::int64_t coarseMonotonicNow() noexcept {
    return nowOf(CLOCK_MONOTONIC_COARSE);
}

/// Counts on while the machine sleeps.
inline std::int64_t continuousNow() noexcept {
    return nowOf(CLOCK_BOOTTIME);
}

/// `now + delay`, both not negative, held at "never".
inline std::int64_t instantAfter(std::int64_t now, std::int64_t delay) noexcept {
    std::int64_t sum;
    return __builtin_add_overflow(now, delay, &sum) ? kNever : sum;
}

/// 0 for a negative number and NaN; held at "never".
inline std::int64_t nanosecondsFromSeconds(double seconds) noexcept {
    const double nanoseconds = seconds * static_cast<double>(kNanosecondsPerSecond);
    if (!(nanoseconds > 0)) {
        return 0;
    }
    return nanoseconds < 0x1p63 ? static_cast<std::int64_t>(nanoseconds) : kNever;
}

inline std::int64_t instantAfterSeconds(double seconds) noexcept {
    return instantAfter(monotonicNow(), nanosecondsFromSeconds(seconds));
}

}  // namespace vantorq
