#pragma once

#include <cstdint>
#include <limits>

namespace vantorq {

/// When a time-out timer fires: a number of nanoseconds from now, and how many it may be late.
struct TimeoutDelay {
    std::uint64_t nanoseconds;
    std::uint64_t leeway;

    friend bool operator==(const TimeoutDelay&, const TimeoutDelay&) = default;
};

/// The delay of so many seconds, cut to whole nanoseconds, with a tenth of it as leeway. None for
/// what is not above zero; the longest there is for what is longer.
[[nodiscard]] constexpr TimeoutDelay timeoutDelay(double seconds) noexcept {
    constexpr auto kMost = std::uint64_t{std::numeric_limits<std::int64_t>::max()};
    const double exact = seconds * 1'000'000'000;
    std::uint64_t whole = 0;
    if (exact >= static_cast<double>(kMost)) {
        whole = kMost;
    } else if (exact > 0) {
        whole = static_cast<std::uint64_t>(exact);
    }
    return {whole, whole / 10};
}

}  // namespace vantorq
