#pragma once

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

namespace vantorq::test {

/// Threads that do the same numbered rounds together: all begin a round at one moment, when each of
/// them is awake.
class Rounds {
public:
    Rounds(std::uint32_t threads, std::uint64_t rounds) : threads_(threads), rounds_(rounds) {}

    /// `prepare(round)` on the calling thread, then `act(thread, round)` on all of them at once.
    template <class Prepare, class Act>
    void run(Prepare prepare, Act act) {
        std::vector<std::thread> others;
        for (std::uint32_t i = 1; i < threads_; ++i) {
            others.emplace_back([this, i, &act] {
                for (std::uint64_t round = 0; round < rounds_; ++round) {
                    waitFor(begun_, round + 1);
                    ready_.fetch_add(1);
                    ready_.notify_all();
                    spinUntil(started_, round + 1);
                    act(i, round);
                    arrived_.fetch_add(1);
                    arrived_.notify_all();
                }
            });
        }
        for (std::uint64_t round = 0; round < rounds_; ++round) {
            prepare(round);
            begun_.store(round + 1);
            begun_.notify_all();
            waitFor(ready_, (round + 1) * (threads_ - 1));
            started_.store(round + 1);
            act(0, round);
            waitFor(arrived_, (round + 1) * (threads_ - 1));
        }
        for (auto& thread : others) {
            thread.join();
        }
    }

private:
    static void waitFor(const std::atomic<std::uint64_t>& counter, std::uint64_t value) {
        for (std::uint64_t seen = counter; seen < value; seen = counter) {
            counter.wait(seen);
        }
    }

    /// Without sleeping, so that the threads meet in the middle of things; the wait is short, as
    /// all are awake.
    static void spinUntil(const std::atomic<std::uint64_t>& counter, std::uint64_t value) {
        for (int spin = 0; counter < value; ++spin) {
            if (spin > 1'000) {
                std::this_thread::yield();
            }
        }
    }

    const std::uint32_t threads_;
    const std::uint64_t rounds_;
    std::atomic<std::uint64_t> begun_{0};
    std::atomic<std::uint64_t> ready_{0};
    std::atomic<std::uint64_t> started_{0};
    std::atomic<std::uint64_t> arrived_{0};
};

}  // namespace vantorq::test
