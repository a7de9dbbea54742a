#pragma once

#include <atomic>
#include <csignal>
#include <functional>
#include <thread>

namespace package_browser {

/// Calls a function when the user presses Ctrl-C, instead of ending the process, for as long as it
/// lives.
///
/// The function runs as ordinary code on a thread of its own: the signal is blocked everywhere, and
/// that thread waits for it. So make this before other threads start, which inherit what is
/// blocked, and let it go on the same thread.
class Interrupts {
public:
    explicit Interrupts(std::function<void()> onInterrupt);
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;
    /// When this returns, the function does not run and never will.
    ~Interrupts();

private:
    void wait();

    const std::function<void()> onInterrupt_;
    std::atomic<bool> isOver_ = false;
    sigset_t before_{};
    std::thread thread_;
};

}  // namespace package_browser
