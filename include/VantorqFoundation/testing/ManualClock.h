#pragma once

#include <algorithm>
#include <cstddef>
#include <exception>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "../Platform/Clock.h"
#include "../Platform/Continuation.h"
#include "../Platform/Task.h"
#include "../Platform/UnfairLock.h"

namespace vantorq::testing {

/// A clock that stands still until it is moved: for tests of what waits.
///
///     const auto clock = make<testing::ManualClock>();
///     const auto executor = make<testing::ManualExecutor>();
///     auto task = Task<>::start([&] { return blink(clock); }, {.executor = executor});
///     executor->runAll();
///     clock->advance(std::chrono::milliseconds(500));
///     executor->runAll();
///
/// It begins at the epoch. Moving it resumes those whose deadline has come, in the order of the
/// deadlines, and of arrival where these are equal. They run on their executors, not in the call;
/// one that sleeps again sleeps from the time that the clock shows then.
///
/// Threads: any.
class ManualClock final : public Clock {
public:
    ManualClock() noexcept = default;

    [[nodiscard]] Instant now() const noexcept override {
        const std::lock_guard guard(lock_);
        return now_;
    }

    Async<> sleep(Instant deadline) override {
        thisTask::checkCancellation();
        Sleeper sleeper(deadline);
        auto cancel = [this, &sleeper] { interrupt(sleeper); };
        const detail::CancellationScope scope(cancel);
        auto begin = [this, &sleeper](SleepContinuation continuation) {
            add(sleeper, std::move(continuation));
        };
        co_await withThrowingContinuation<void>(begin);
    }

    /// How many sleep.
    [[nodiscard]] std::size_t sleeperCount() const noexcept {
        const std::lock_guard guard(lock_);
        return sleepers_.size();
    }

    /// Moves the time on, by nothing if `length` is negative.
    void advance(Duration length) { advanceTo(after(length)); }
    /// Moves the time to `instant`, unless that has passed.
    void advanceTo(Instant instant) {
        std::vector<SleepContinuation> due;
        {
            const std::lock_guard guard(lock_);
            now_ = std::max(now_, instant);
            const auto later = sleepers_.upper_bound(now_);
            for (auto sleeper = sleepers_.begin(); sleeper != later; ++sleeper) {
                due.push_back(*std::move(sleeper->second->continuation));
                sleeper->second->continuation.reset();
            }
            sleepers_.erase(sleepers_.begin(), later);
        }
        for (const SleepContinuation& continuation : due) {
            continuation.resume();
        }
    }

private:
    using SleepContinuation = Continuation<void, std::exception_ptr>;

    /// Stands in the frame of the await.
    struct Sleeper {
        explicit Sleeper(Instant until) noexcept : deadline(until) {}

        const Instant deadline;
        bool isCancelled = false;                       // guarded by the lock
        std::optional<SleepContinuation> continuation;  // likewise; while it sleeps
    };

    ~ManualClock() override = default;

    void add(Sleeper& sleeper, SleepContinuation continuation) {
        std::unique_lock lock(lock_);
        if (!sleeper.isCancelled && sleeper.deadline > now_) {
            sleeper.continuation = std::move(continuation);
            sleepers_.emplace(sleeper.deadline, &sleeper);
            return;
        }
        const bool isCancelled = sleeper.isCancelled;
        lock.unlock();
        if (isCancelled) {
            continuation.resumeThrowing(std::make_exception_ptr(CancellationError()));
        } else {
            continuation.resume();
        }
    }

    void interrupt(Sleeper& sleeper) {
        std::optional<SleepContinuation> continuation;
        {
            const std::lock_guard guard(lock_);
            sleeper.isCancelled = true;
            continuation = std::exchange(sleeper.continuation, std::nullopt);
            if (continuation.has_value()) {
                std::erase_if(sleepers_,
                              [&](const auto& entry) { return entry.second == &sleeper; });
            }
        }
        if (continuation.has_value()) {
            continuation->resumeThrowing(std::make_exception_ptr(CancellationError()));
        }
    }

    mutable UnfairLock lock_;
    Instant now_{};
    std::multimap<Instant, Sleeper*> sleepers_;  // equal deadlines in the order of arrival
};

}  // namespace vantorq::testing
