#pragma once

#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>

#include "UnfairLock.h"

namespace vantorq {

/// An `UnfairLock` together with the state that it protects, so that the one is not reached without
/// the other. Both are held inline: four bytes, and padding, more than the state.
///
///     OSAllocatedUnfairLock<std::vector<int>> numbers;
///     numbers.withLock([](std::vector<int>& all) { all.push_back(42); });
///
/// The state is handed out for the length of a call only; a reference to it must not leave the
/// function. What the function throws passes through, after the lock is free again.
///
/// The lock itself is that of UnfairLock.h: no order among waiting threads, and not recursive, so a
/// function that enters the same lock again waits for ever. Threads: any.
template <class State = void>
class OSAllocatedUnfairLock {
public:
    constexpr OSAllocatedUnfairLock() noexcept(std::is_nothrow_default_constructible_v<State>)
        requires std::is_default_constructible_v<State>
    = default;
    constexpr explicit OSAllocatedUnfairLock(State initialState) noexcept(
        std::is_nothrow_move_constructible_v<State>)
        : state_(std::move(initialState)) {}
    OSAllocatedUnfairLock(const OSAllocatedUnfairLock&) = delete;
    OSAllocatedUnfairLock& operator=(const OSAllocatedUnfairLock&) = delete;

    /// Calls `function(State&)` while the lock is held, and returns what it returns.
    template <class Function>
    decltype(auto) withLock(Function&& function) noexcept(
        std::is_nothrow_invocable_v<Function, State&>) {
        const std::lock_guard guard(lock_);
        return std::forward<Function>(function)(state_);
    }
    /// The same with `function(const State&)`.
    template <class Function>
    decltype(auto) withLock(Function&& function) const
        noexcept(std::is_nothrow_invocable_v<Function, const State&>) {
        const std::lock_guard guard(lock_);
        return std::forward<Function>(function)(state_);
    }

    /// `withLock` if the lock is free, else nothing, at once. Answers the function's result as an
    /// optional, or for `void` whether it was called.
    template <class Function>
    auto withLockIfAvailable(Function&& function) noexcept(
        std::is_nothrow_invocable_v<Function, State&>) {
        using Result = std::invoke_result_t<Function, State&>;
        const std::unique_lock guard(lock_, std::try_to_lock);
        if constexpr (std::is_void_v<Result>) {
            if (guard.owns_lock()) {
                std::forward<Function>(function)(state_);
            }
            return guard.owns_lock();
        } else {
            return guard.owns_lock()
                       ? std::optional<Result>(std::forward<Function>(function)(state_))
                       : std::nullopt;
        }
    }

private:
    mutable UnfairLock lock_;
    State state_{};
};

/// The lock alone, for state that stands elsewhere. Works with `std::lock_guard` and its kin.
template <>
class OSAllocatedUnfairLock<void> {
public:
    constexpr OSAllocatedUnfairLock() noexcept = default;
    OSAllocatedUnfairLock(const OSAllocatedUnfairLock&) = delete;
    OSAllocatedUnfairLock& operator=(const OSAllocatedUnfairLock&) = delete;

    void lock() noexcept { lock_.lock(); }
    /// By the thread that locked.
    void unlock() noexcept { lock_.unlock(); }
    /// False, at once, when the lock is held.
    [[nodiscard]] bool lockIfAvailable() noexcept { return lock_.try_lock(); }
    [[nodiscard]] bool try_lock() noexcept { return lock_.try_lock(); }

    /// Calls `function()` while the lock is held, and returns what it returns.
    template <class Function>
    decltype(auto) withLock(Function&& function) noexcept(std::is_nothrow_invocable_v<Function>) {
        const std::lock_guard guard(lock_);
        return std::forward<Function>(function)();
    }
    /// `withLock` if the lock is free, else nothing, at once. Answers the function's result as an
    /// optional, or for `void` whether it was called.
    template <class Function>
    auto withLockIfAvailable(Function&& function) noexcept(std::is_nothrow_invocable_v<Function>) {
        using Result = std::invoke_result_t<Function>;
        const std::unique_lock guard(lock_, std::try_to_lock);
        if constexpr (std::is_void_v<Result>) {
            if (guard.owns_lock()) {
                std::forward<Function>(function)();
            }
            return guard.owns_lock();
        } else {
            return guard.owns_lock() ? std::optional<Result>(std::forward<Function>(function)())
                                     : std::nullopt;
        }
    }

private:
    UnfairLock lock_;
};

}  // namespace vantorq
