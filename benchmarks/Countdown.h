#pragma once

#include <atomic>

/// Waits for a number of things that other threads do. One relaxed atomic step for each of them,
/// for ours and for the peers alike; the last one wakes the waiting thread.
class Countdown {
public:
    explicit Countdown(int count) noexcept : left_(count) {}

    void countDown() noexcept {
        if (left_.fetch_sub(1, std::memory_order_relaxed) == 1) {
            left_.notify_one();
        }
    }

    void wait() const noexcept {
        for (int left = left_.load(std::memory_order_relaxed); left > 0;
             left = left_.load(std::memory_order_relaxed)) {
            left_.wait(left, std::memory_order_relaxed);
        }
        std::atomic_thread_fence(std::memory_order_acquire);
    }

private:
    std::atomic<int> left_;
};
