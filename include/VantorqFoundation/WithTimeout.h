#pragma once

#include <chrono>
#include <utility>

#include "Errors.h"
#include "Platform/Async.h"
#include "Platform/ChildTasks.h"
#include "Platform/Clock.h"
#include "Platform/NSError.h"
#include "Platform/RefCounted.h"

namespace vantorq {

/// Cancels a function that has not ended after a time, and waits until it has. The time is by the
/// clock: the machine's, which counts on while the machine is suspended, or one that a test moves.
///
///     try {
///         show(co_await withTimeout(std::chrono::seconds(30), load(page)));
///     } catch (const NSErrorException& exception) {
///         show(*exception.error());
///     }
///
/// Gives what the function gives, and throws what it throws. When it has not ended in time it is
/// cancelled and, once it has ended, an `NSErrorException` is thrown with code 1 of
/// `VNTQFoundationErrorDomain` ("Timeout waiting 30.0 seconds for completion"). Whatever the
/// function came to then is dropped. A length that is not above zero is over at once: the function
/// does not run.
///
/// The function runs as a task of its own, on the executor of the calling task, and is cancelled
/// with that; it starts on no actor. It never outlives the await: one that does not notice its
/// cancellation, because it awaits another task's value, a `withContinuation` or a broadcast whose
/// source is silent, is waited for.
template <class T>
Async<T> withTimeout(Clock::Duration length, Async<T> function,
                     Ref<Clock> clock = Clock::continuous()) {
    const double seconds = std::chrono::duration<double>(length).count();
    if (!(seconds > 0)) {
        throw NSErrorException(detail::timeoutError(seconds));
    }
    detail::ChildTasks children;
    const auto task = children.add(std::move(function), detail::Decides::byEnding);
    // A timer that is cancelled, with the caller, has not run out.
    const auto timer =
        children.add(clock->sleep(clock->after(length)), detail::Decides::byEndingUncancelled);
    auto running = children.run();
    co_await std::move(running);
    if (children.isDecisive(*timer)) {
        timer->outcome.rethrow();
        throw NSErrorException(detail::timeoutError(seconds));
    }
    co_return task->outcome.take();
}

}  // namespace vantorq
