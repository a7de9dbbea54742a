#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <type_traits>
#include <utility>

#include "DispatchQueue.h"
#include "Export.h"
#include "RefCounted.h"

namespace vantorq {

namespace detail {

struct DueWork;

/// A place in a store of timers, which is ordered by the last moment to fire.
struct TimerEntry {
    static constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();
    static constexpr std::size_t kNotArmed = std::numeric_limits<std::size_t>::max();

    std::int64_t due = kNever;     ///< nanoseconds of the store's clock
    std::int64_t latest = kNever;  ///< `due` plus the leeway
    std::size_t index = kNotArmed;
    /// What is to be done now that the time has come. Called with the store locked.
    DueWork (*take)(TimerEntry&) = nullptr;
};

/// A timer's handler, and whether it may still begin.
class TimerHandler : public RefCounted {
public:
    virtual void call() noexcept = 0;
    /// True for the first caller, unless cancelled.
    bool begin() noexcept { return leave(State::begun); }
    void cancel() noexcept { leave(State::cancelled); }
    [[nodiscard]] bool isCancelled() const noexcept { return state() == State::cancelled; }
    /// Whether it has begun, or never will.
    [[nodiscard]] bool isOver() const noexcept { return state() != State::waiting; }

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
    template <class G>
    explicit TimerHandlerOf(G&& function) : function_(std::forward<G>(function)) {}
    void call() noexcept override { std::invoke(function_); }

private:
    F function_;
};

}  // namespace detail

/// Runs a handler on a queue, once, when a time has passed.
///
///     auto timer = make<DispatchTimer>(DispatchQueue::global());
///     timer->setEventHandler([] { giveUp(); });
///     timer->schedule(30'000'000'000, 1'000'000);
///     timer->resume();
///     ...
///     timer->cancel();
///
/// Time is `CLOCK_MONOTONIC`, which stands still while the machine sleeps. The handler is queued
/// between the due time and the due time plus the leeway, within which timers share a wake-up.
/// Letting go of a timer cancels it. Arming and disarming cost O(log n) among n armed timers and,
/// as a rule, no system call.
///
/// Threads: once the handler is set, `cancel` may be called from any, at any time; the rest from
/// one at a time.
class VNTQ_EXPORT DispatchTimer final : public RefCounted, private detail::TimerEntry {
public:
    /// A timer without handler and time, not yet resumed.
    explicit DispatchTimer(Ref<DispatchQueue> queue) noexcept;

    /// Sets what to run. Before `resume` only, else it traps.
    template <class F>
        requires std::invocable<std::decay_t<F>&>
    void setEventHandler(F&& function) {
        setHandler(make<detail::TimerHandlerOf<std::decay_t<F>>>(std::forward<F>(function)));
    }
    /// Sets the due time, in nanoseconds from now, and the leeway in nanoseconds. Moves a timer
    /// that was resumed and has not fired. A time beyond some 292 years, as that of a timer without
    /// one, never comes.
    void schedule(std::uint64_t delay, std::uint64_t leeway = 0) noexcept;
    /// Lets the timer fire. Traps without a handler; does nothing the second time.
    void resume();
    /// Disarms the timer for good: a handler that has not begun when this returns never begins. One
    /// that has is not waited for.
    void cancel() noexcept;
    [[nodiscard]] bool isCancelled() const noexcept;

private:
    ~DispatchTimer() override;
    void setHandler(Ref<detail::TimerHandler> handler);
    void arm(std::int64_t newDue, std::int64_t newLatest);
    static detail::DueWork takeHandler(detail::TimerEntry& entry);

    // The entry is guarded by the store's lock once the timer is resumed; queue and handler no
    // longer change then.
    Ref<DispatchQueue> queue_;
    Ref<detail::TimerHandler> handler_;
    bool isResumed_ = false;
    std::atomic<bool> mayBeArmed_{false};
};

}  // namespace vantorq
