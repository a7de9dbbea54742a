#include "Interrupts.h"

#include <csignal>
#include <functional>
#include <pthread.h>
#include <thread>
#include <utility>

namespace package_browser {

namespace {

sigset_t interruptSignal() {
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGINT);
    return set;
}

}  // namespace

Interrupts::Interrupts(std::function<void()> onInterrupt) : onInterrupt_(std::move(onInterrupt)) {
    const sigset_t interrupt = interruptSignal();
    ::pthread_sigmask(SIG_BLOCK, &interrupt, &before_);
    thread_ = std::thread([this] { wait(); });
}

Interrupts::~Interrupts() {
    isOver_ = true;
    ::pthread_kill(thread_.native_handle(), SIGINT);
    thread_.join();
    ::pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void Interrupts::wait() {
    const sigset_t interrupt = interruptSignal();
    for (;;) {
        int signal = 0;
        ::sigwait(&interrupt, &signal);
        if (isOver_) {
            return;
        }
        onInterrupt_();
    }
}

}  // namespace package_browser
