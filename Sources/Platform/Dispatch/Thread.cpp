#include "Thread.h"

#include <array>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <string_view>
#include <sys/syscall.h>
#include <unistd.h>

namespace vantorq {

namespace {

struct Start {
    const char* name;
    void (*body)(void*);
    void* context;
};

void* enter(void* argument) {
    const Start start = *std::unique_ptr<Start>(static_cast<Start*>(argument));
    ::pthread_setname_np(::pthread_self(), start.name);
    start.body(start.context);
    return nullptr;
}

}  // namespace

bool startThread(const char* name, void (*body)(void*), void* context) {
    auto start = std::make_unique<Start>(Start{name, body, context});
    pthread_attr_t attributes;
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    // A new thread inherits the mask, so there is no moment at which it could take a signal.
    sigset_t all;
    sigset_t before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    const bool hasStarted = ::pthread_create(&thread, &attributes, &enter, start.get()) == 0;
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ::pthread_attr_destroy(&attributes);
    if (hasStarted) {
        (void)start.release();
    }
    return hasStarted;
}

pid_t currentThreadId() noexcept {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

bool isThreadRunnable(pid_t thread) {
    std::array<char, 64> path;
    std::snprintf(path.data(), path.size(), "/proc/self/task/%d/stat", thread);
    const int file = ::open(path.data(), O_RDONLY | O_CLOEXEC);
    if (file < 0) {
        return false;
    }
    std::array<char, 64> text;
    const ssize_t size = ::read(file, text.data(), text.size());
    ::close(file);
    // The line begins with number, name in parentheses, state: "42 (vntq-worker) R".
    const std::string_view line(text.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
    const std::size_t nameEnd = line.rfind(')');
    return nameEnd != std::string_view::npos && line.substr(nameEnd).starts_with(") R");
}

}  // namespace vantorq
