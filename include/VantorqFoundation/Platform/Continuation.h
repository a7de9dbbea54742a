#pragma once

#include <atomic>
#include <concepts>
#include <coroutine>
#include <cstdint>
#include <exception>
#include <type_traits>
#include <utility>

#include "Async.h"
#include "Executor.h"
#include "RefCounted.h"
#include "Task.h"
#include "Trap.h"

namespace vantorq {

namespace detail {

/// A suspended await and what it is resumed with.
template <class T>
class ContinuationState final : public RefCounted {
public:
    /// For the one who resumes: true once.
    [[nodiscard]] bool claim() noexcept {
        return !isClaimed_.exchange(true, std::memory_order_relaxed);
    }
    /// After the outcome was set.
    void finish() noexcept {
        if (phase_.exchange(kResumed, std::memory_order_acq_rel) == kSuspended) {
            detail::resume(job);
        }
    }
    /// False when the await goes on at once.
    [[nodiscard]] bool suspend() noexcept {
        std::uint8_t starting = kStarting;
        return phase_.compare_exchange_strong(starting, kSuspended, std::memory_order_acq_rel);
    }

    Outcome<T> outcome;
    Job job;

private:
    static constexpr std::uint8_t kStarting = 0;
    static constexpr std::uint8_t kSuspended = 1;
    static constexpr std::uint8_t kResumed = 2;

    ~ContinuationState() override = default;

    std::atomic<bool> isClaimed_{false};
    std::atomic<std::uint8_t> phase_{kStarting};
};

}  // namespace detail

/// What resumes an await, from wherever the awaited thing comes to its end.
///
/// Exactly one of the resuming calls is made, once; the second one traps. An await whose
/// continuation is never resumed waits for ever. The code goes on on its own executor and actor,
/// not in the resuming call.
///
/// Threads: any. A value: copies resume the same await.
template <class T, class Failure = Never>
class Continuation {
public:
    explicit Continuation(Ref<detail::ContinuationState<T>> state) noexcept
        : state_(std::move(state)) {}

    template <class... A>
        requires std::constructible_from<detail::Stored<T>, A...>
    void resume(A&&... value) const {
        claim();
        try {
            state_->outcome.setValue(std::forward<A>(value)...);
        } catch (...) {
            state_->outcome.setError(std::current_exception());
        }
        state_->finish();
    }
    /// The await throws `error`.
    void resumeThrowing(std::exception_ptr error) const
        requires(!std::same_as<Failure, Never>)
    {
        claim();
        state_->outcome.setError(std::move(error));
        state_->finish();
    }
    /// The await gives the value of `result`, or throws its error.
    void resumeWith(Result<T, Failure> result) const {
        if constexpr (!std::same_as<Failure, Never>) {
            if (!result.has_value()) {
                resumeThrowing(std::move(result).error());
                return;
            }
        }
        if constexpr (std::is_void_v<T>) {
            resume();
        } else {
            resume(*std::move(result));
        }
    }

private:
    void claim() const {
        if (!state_->claim()) {
            VNTQ_TRAP("Continuation: resumed twice");
        }
    }

    Ref<detail::ContinuationState<T>> state_;
};

namespace detail {

template <class T, class Failure, class Body>
class ContinuationAwaiter {
public:
    explicit ContinuationAwaiter(Body body) : body_(std::move(body)) {}

    [[nodiscard]] bool await_ready() const noexcept { return false; }
    bool await_suspend(std::coroutine_handle<> awaiter) {
        // The frame may be gone as soon as the body has handed the continuation on.
        const Ref<ContinuationState<T>> state = state_;
        noteSuspension(state->job, awaiter);
        {
            Body body = std::move(body_);
            body(Continuation<T, Failure>(state));
        }
        return state->suspend();
    }
    T await_resume() { return state_->outcome.take(); }

private:
    Body body_;
    Ref<ContinuationState<T>> state_ = make<ContinuationState<T>>();
};

}  // namespace detail

/// Awaited, calls `body` with a continuation, and waits until that is resumed: the bridge from a
/// callback.
///
///     double level = co_await withContinuation<double>([&](Continuation<double> continuation) {
///         meter->read([continuation](double level) { continuation.resume(level); });
///     });
///
/// `body` is called on the awaiting thread. When it resumes the continuation itself, nothing is
/// suspended. What it throws, the await throws.
template <class T, class Body>
    requires std::invocable<Body&, Continuation<T>>
[[nodiscard]] auto withContinuation(Body body) {
    return detail::ContinuationAwaiter<T, Never, Body>(std::move(body));
}

/// The same for a continuation that may also be resumed with an error.
template <class T, class Body>
    requires std::invocable<Body&, Continuation<T, std::exception_ptr>>
[[nodiscard]] auto withThrowingContinuation(Body body) {
    return detail::ContinuationAwaiter<T, std::exception_ptr, Body>(std::move(body));
}

}  // namespace vantorq
