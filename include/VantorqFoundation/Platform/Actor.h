#pragma once

#include <atomic>
#include <concepts>
#include <coroutine>
#include <cstdint>
#include <type_traits>
#include <utility>

#include "Async.h"
#include "Executor.h"

namespace vantorq {

/// A place where one thing happens at a time, without a lock that anybody waits for.
///
///     class Account : public Actor {
///     public:
///         Async<int> deposit(int amount) {
///             co_await enter();
///             co_return balance_ += amount;
///         }
///     private:
///         int balance_ = 0;
///     };
///
/// Code that has entered an actor has it for itself until it ends, enters another one, leaves, or
/// suspends: an await that has to wait gives the actor free, and the code comes back to it before
/// it goes on. So what an actor guards may have changed across an await, and never else. A caller
/// goes on where it was, whatever actors the called function has entered.
///
/// Entering an idle actor takes no lock, no memory, and no change of thread. Code that
/// finds the actor busy is queued in its own frame, and goes on in the order of arrival. As with
/// any object, who calls an actor's functions keeps it alive until they have ended. Code that comes
/// back to an idle actor has it from the moment it is sent to its executor.
///
/// Threads: any. Derive from it, or use it as it is and hold it with `make<Actor>()`.
class VNTQ_EXPORT Actor : public RefCounted {
public:
    Actor() noexcept = default;

    class [[nodiscard]] Entry;
    /// Awaited, goes on on this actor.
    Entry enter() noexcept;
    /// Awaited, goes on on no actor.
    static Entry leave() noexcept;
    /// Awaited, goes on on `actor`, or where it is if that is null.
    static Entry enterIfAny(Actor* actor) noexcept;

    /// Calls `function` on this actor; what it returns, awaited if it can be.
    template <class F>
        requires std::invocable<F&>
    AsyncResult<F> run(F function);

    /// Whether the calling code runs on this actor.
    [[nodiscard]] bool isCurrent() const noexcept { return detail::context().actor == this; }
    /// The actor that the calling code runs on, or null.
    [[nodiscard]] static Actor* current() noexcept { return detail::context().actor; }

protected:
    ~Actor() override;

private:
    friend void detail::run(detail::Job&) noexcept;
    friend void detail::resume(detail::Job&) noexcept;
    friend bool detail::enter(Actor*, detail::Job&) noexcept;

    // `line_` is 0 when idle, kHeld when held, and kHeld with the job that arrived last when others
    // wait in line.
    static constexpr std::uintptr_t kIdle = 0;
    static constexpr std::uintptr_t kHeld = 1;

    detail::Job* nextOrUnlock() noexcept;
    bool lockOrQueue(detail::Job& job) noexcept;
    static void leaveCurrent(detail::Context& here) noexcept;

    std::atomic<std::uintptr_t> line_{kIdle};
    detail::Job* turn_ = nullptr;  // the ones whose turn is next, in order; of the holder alone
};

class [[nodiscard]] Actor::Entry {
public:
    Entry(Actor* actor, bool stays) noexcept : actor_(actor), stays_(stays) {}

    [[nodiscard]] bool await_ready() const noexcept {
        return stays_ || detail::context().actor == actor_;
    }
    bool await_suspend(std::coroutine_handle<> coroutine) noexcept {
        detail::noteSuspension(job_, coroutine);
        return !detail::enter(actor_, job_);
    }
    void await_resume() const noexcept {}

private:
    Actor* actor_;
    bool stays_;
    detail::Job job_;
};

template <class F>
    requires std::invocable<F&>
AsyncResult<F> Actor::run(F function) {
    co_await enter();
    if constexpr (isAsync<std::invoke_result_t<F&>>) {
        auto pending = function();
        co_return co_await std::move(pending);
    } else {
        co_return function();
    }
}

inline Actor::Entry Actor::enter() noexcept {
    return {this, false};
}
inline Actor::Entry Actor::leave() noexcept {
    return {nullptr, false};
}
inline Actor::Entry Actor::enterIfAny(Actor* actor) noexcept {
    return {actor, actor == nullptr};
}

}  // namespace vantorq
