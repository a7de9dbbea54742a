#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

#include "Work.h"

namespace vantorq {

/// Work that one thread has taken for itself, and that others may still take away from it, so that
/// nothing is stuck behind a piece that blocks.
///
/// `fill` is for the owner, when the batch is empty; `claim` is for every thread. One 64-bit word
/// says what is left: the places from `next` to `end`, and a number that changes with every
/// filling, so that a thread which has read an old state cannot take from a new one.
class WorkBatch {
public:
    static constexpr std::size_t kCapacity = 64;

    void fill(std::span<Work* const> works) noexcept {
        for (std::size_t i = 0; i < works.size(); ++i) {
            works_[i].store(works[i], std::memory_order_relaxed);
        }
        const std::uint64_t filling = (state_.load(std::memory_order_relaxed) >> kFillingShift) + 1;
        state_.store((filling << kFillingShift) | works.size() << kEndShift,
                     std::memory_order_release);
    }

    /// The next piece, or null.
    Work* claim() noexcept {
        Work* work = nullptr;
        return claim({&work, 1}) == 1 ? work : nullptr;
    }

    /// Takes at most half of what is there, rounded up, and at most `out.size()` pieces.
    std::size_t claim(std::span<Work*> out) noexcept {
        std::uint64_t state = state_.load(std::memory_order_acquire);
        for (;;) {
            const std::size_t next = state & kPlaceMask;
            const std::size_t left = (state >> kEndShift & kPlaceMask) - next;
            const std::size_t count = std::min((left + 1) / 2, out.size());
            // Read before claiming: afterwards the owner may fill the batch anew.
            for (std::size_t i = 0; i < count; ++i) {
                out[i] = works_[next + i].load(std::memory_order_relaxed);
            }
            if (count == 0 ||
                state_.compare_exchange_weak(state, state + count, std::memory_order_acq_rel)) {
                return count;
            }
        }
    }

    [[nodiscard]] bool isEmpty() const noexcept {
        const std::uint64_t state = state_.load(std::memory_order_acquire);
        return (state & kPlaceMask) == (state >> kEndShift & kPlaceMask);
    }

private:
    static constexpr int kEndShift = 8;
    static constexpr int kFillingShift = 16;
    static constexpr std::uint64_t kPlaceMask = 0xFF;

    alignas(64) std::atomic<std::uint64_t> state_{0};
    std::array<std::atomic<Work*>, kCapacity> works_{};
};

}  // namespace vantorq
