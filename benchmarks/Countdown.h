#pragma once

#include <atomic>

/// Waits for a number of things that other threads do. One atomic step for each of them, for
/// ours and for the peers alike; the last one wakes the waiting thread.
///
/// The waiting thread may be gone before the last one has ended its call, so a countdown is static.
class Countdown {
public:
    void start(int count) noexcept { left_.store(count, std::memory_order_relaxed); }

    void countDown() noexcept {
        if (left_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            left_.notify_one();
        }
    }

    void wait() const noexcept {
        for (int left = left_.load(std::memory_order_acquire); left > 0;
             left = left_.load(std::memory_order_acquire)) {
            left_.wait(left, std::memory_order_acquire);
        }
    }

private:
    std::atomic<int> left_{0};
};
