#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <type_traits>
#include <utility>

#include "DispatchQueue.h"
#include "Export.h"
#include "RefCounted.h"

namespace vantorq {

namespace detail {

struct DueWork;

/// A place in a store of timers.
struct TimerEntry {
    static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
    static constexpr std::size_t kNotArmed = std::numeric_limits<std::size_t>::max();

    using Take = DueWork (*)(TimerEntry&);
    VNTQ_EXPORT explicit TimerEntry(Take take) noexcept;

    std::int64_t due = kNever;     ///< nanoseconds of the store's clock
    std::int64_t latest = kNever;  ///< `due` plus the leeway
    std::size_t index = kNotArmed;
    const std::uint32_t heap;  ///< which of the store's; one of the thread that made the entry
    /// What is to be done now that the time has come. Called with the heap locked.
    const Take take;
};

/// The handler of a timer whose time has come, and whether it may still begin.
class TimerHandler : public RefCounted {
public:
    virtual void call() noexcept = 0;
    /// True for the first caller, unless cancelled.
    bool begin() noexcept { return leave(State::begun); }
    void cancel() noexcept { leave(State::cancelled); }
    [[nodiscard]] bool isCancelled() const noexcept { return state() == State::cancelled; }

private:
    enum class State : std::uint8_t { waiting, begun, cancelled };

    [[nodiscard]] State state() const noexcept { return state_.load(std::memory_order_acquire); }
    bool leave(State next) noexcept {
        State state = State::waiting;
        return state_.compare_exchange_strong(state, next, std::memory_order_acq_rel);
    }

    std::atomic<State> state_{State::waiting};
};

template <class F>
class TimerHandlerOf final : public TimerHandler {
public:
    explicit TimerHandlerOf(F&& function) : function_(std::move(function)) {}
    void call() noexcept override { std::invoke(function_); }

private:
    F function_;
};

template <class F>
class DispatchTimerOf;

}  // namespace detail

/// Runs a handler on a queue, once, when a time has passed.
///
///     auto timer = DispatchTimer::timer(DispatchQueue::global(), [] { giveUp(); });
///     timer->schedule(30'000'000'000, 1'000'000);
///     ...
///     timer->cancel();
///
/// Time is `CLOCK_MONOTONIC`, which stands still while the machine sleeps. The handler is queued
/// between the due time and the due time plus the leeway, within which timers share a wake-up.
/// Letting go of a timer cancels it. A timer is one allocation; arming and disarming it cost O(log
/// n) among n armed timers and, as a rule, no system call.
///
/// Threads: `cancel` and `isCancelled` may be called from any, at any time; `schedule` from one at
/// a time. The handler is destroyed with the timer, or, once it was queued, by whichever is the
/// later of its queue and the timer.
class VNTQ_EXPORT DispatchTimer : public RefCounted, private detail::TimerEntry {
public:
    /// A timer without a time. The handler is any callable without arguments. One that is moved
    /// without throwing is moved when its time has come, with a lock of the timers held: its move
    /// constructor must not use timers.
    template <class F>
        requires std::invocable<std::decay_t<F>&>
    [[nodiscard]] static Ref<DispatchTimer> timer(Ref<DispatchQueue> queue, F&& handler) {
        using Function = std::decay_t<F>;
        if constexpr (std::is_nothrow_move_constructible_v<Function>) {
            return make<detail::DispatchTimerOf<Function>>(std::move(queue),
                                                           std::forward<F>(handler));
        } else {
            return timer(std::move(queue),
                         [boxed = std::make_unique<Function>(std::forward<F>(handler))] {
                             std::invoke(*boxed);
                         });
        }
    }

    /// Sets the due time, in nanoseconds from now, and the leeway in nanoseconds. Moves a timer
    /// that was scheduled before; does nothing when that has fired, or was cancelled. A time beyond
    /// some 292 years never comes.
    void schedule(std::uint64_t delay, std::uint64_t leeway = 0) noexcept;
    /// Disarms the timer for good: a handler that has not begun when this returns never begins. One
    /// that has is not waited for.
    void cancel() noexcept;
    /// Whether it was cancelled before its handler began.
    [[nodiscard]] bool isCancelled() const noexcept;

protected:
    explicit DispatchTimer(Ref<DispatchQueue> queue) noexcept;
    /// The handler's owner has to cancel, as its handler is no longer there to be taken now.
    ~DispatchTimer() override;

private:
    /// Hands out the handler; called once.
    virtual Ref<detail::TimerHandler> makeHandler() = 0;

    static detail::DueWork fire(detail::TimerEntry& entry);

    // The state is one of these, or the handler that was queued, with a count.
    static constexpr std::uintptr_t kWaiting = 0;
    static constexpr std::uintptr_t kCancelled = 1;

    Ref<DispatchQueue> queue_;
    std::atomic<std::uintptr_t> state_{kWaiting};
};

template <class F>
class detail::DispatchTimerOf final : public DispatchTimer {
public:
    template <class G>
    DispatchTimerOf(Ref<DispatchQueue> queue, G&& function)
        : DispatchTimer(std::move(queue)), function_(std::forward<G>(function)) {}

private:
    ~DispatchTimerOf() override { cancel(); }
    Ref<TimerHandler> makeHandler() override {
        return make<TimerHandlerOf<F>>(std::move(function_));
    }

    F function_;
};

}  // namespace vantorq
