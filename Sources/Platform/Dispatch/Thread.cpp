#include "Thread.h"

#include <csignal>
#include <memory>
#include <pthread.h>

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

}  // namespace vantorq
