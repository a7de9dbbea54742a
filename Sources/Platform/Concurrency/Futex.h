#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <limits>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vantorq {

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t) &&
              std::atomic<std::uint32_t>::is_always_lock_free);

/// Sleeps while `word` is `expected`, until it is woken, at most until `deadline` (nanoseconds of
/// `CLOCK_MONOTONIC`; the greatest is never). May also return for no reason: callers look again.
inline void futexWait(std::atomic<std::uint32_t>& word, std::uint32_t expected,
                      std::int64_t deadline = std::numeric_limits<std::int64_t>::max()) noexcept {
    constexpr std::int64_t kSecond = 1'000'000'000;
    timespec limit{};
    limit.tv_sec = deadline / kSecond;
    limit.tv_nsec = deadline % kSecond;
    const bool isLimited = deadline != std::numeric_limits<std::int64_t>::max();
    // Of the two forms of waiting, the one with a bit set takes an instant, not a length of time.
    ::syscall(SYS_futex, &word, FUTEX_WAIT_BITSET_PRIVATE, expected, isLimited ? &limit : nullptr,
              nullptr, FUTEX_BITSET_MATCH_ANY);
}

inline void futexWakeOne(std::atomic<std::uint32_t>& word) noexcept {
    ::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

}  // namespace vantorq
