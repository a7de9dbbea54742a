#pragma once

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <sys/types.h>

#include "VantorqFoundation/Platform/Trap.h"

namespace vantorq {

/// Starts a detached thread that runs `body(context)`, with every signal blocked, so that the
/// host's handlers run on the host's threads only. `name` has 15 characters at most. False when the
/// system has no room for another thread.
[[nodiscard]] bool startThread(const char* name, void (*body)(void*), void* context);

/// The number that the system knows the calling thread by.
[[nodiscard]] pid_t currentThreadId() noexcept;

/// A number that the calling thread keeps; threads get theirs in turn. For spreading threads over
/// things that each would else contend for.
[[nodiscard]] inline std::uint32_t threadNumber() noexcept {
    static constinit std::atomic<std::uint32_t> last{0};
    [[gnu::tls_model("initial-exec")]] static constinit thread_local std::uint32_t number = 0;
    if (number == 0) [[unlikely]] {
        number = last.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    return number;
}

/// Whether a thread of this process runs or could run, as opposed to one that waits for something.
/// False also when that cannot be found out.
[[nodiscard]] bool isThreadRunnable(pid_t thread);

/// Has `Function(context)` called when the calling thread ends, after its thread-local objects are
/// gone. Once per function: a later context replaces the one before. Never called on a thread that
/// ends with the process. Traps when the system has no room for it.
template <void (*Function)(void*)>
void atThreadEnd(void* context) {
    static const pthread_key_t key = [] {
        pthread_key_t made;
        if (::pthread_key_create(&made, Function) != 0) {
            VNTQ_TRAP("Threads: the system has no room for one more key");
        }
        return made;
    }();
    if (::pthread_setspecific(key, context) != 0) {
        VNTQ_TRAP("Threads: the system has no memory for a thread's value");
    }
}

}  // namespace vantorq
