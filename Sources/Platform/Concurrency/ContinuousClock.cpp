#include "VantorqFoundation/Platform/ContinuousClock.h"

#include <atomic>
#include <exception>
#include <optional>
#include <utility>

#include "Sources/Platform/Dispatch/MonotonicTime.h"
#include "Sources/Platform/Dispatch/TimerStore.h"
#include "Sources/Platform/Dispatch/Work.h"
#include "VantorqFoundation/Platform/Clock.h"
#include "VantorqFoundation/Platform/Continuation.h"
#include "VantorqFoundation/Platform/Task.h"

namespace vantorq {

namespace {

using SleepContinuation = Continuation<void, std::exception_ptr>;

/// A sleep's place in the timer store; stands in the frame of the await. Whoever takes it out of
/// the store, the timer or the cancellation, resumes.
class Sleeper : private TimerEntry {
public:
    explicit Sleeper(ContinuousClock::time_point deadline)
        : TimerEntry([](TimerEntry& entry) {
              const auto& self = static_cast<Sleeper&>(entry);
              // A copy: the frame goes as soon as the await is resumed.
              return DueWork{nullptr, &makeWork([continuation = *self.continuation_] {
                                 continuation.resume();
                             })};
          }),
          store_(TimerStore::continuous()),
          deadline_(deadline.time_since_epoch().count()) {}
    Sleeper(const Sleeper&) = delete;
    Sleeper& operator=(const Sleeper&) = delete;

    void begin(SleepContinuation continuation) {
        continuation_ = std::move(continuation);
        store_.arm(*this, deadline_, deadline_);
        if (isCancelled_) {
            interrupt();  // the cancellation may have come before there was anything to disarm
        }
    }
    void cancel() {
        isCancelled_ = true;
        interrupt();
    }

private:
    void interrupt() {
        if (store_.disarm(*this)) {
            const SleepContinuation continuation = *continuation_;
            continuation.resumeThrowing(std::make_exception_ptr(CancellationError()));
        }
    }

    TimerStore& store_;
    const std::int64_t deadline_;
    std::optional<SleepContinuation> continuation_;
    std::atomic<bool> isCancelled_{false};
};

}  // namespace

ContinuousClock::time_point ContinuousClock::now() noexcept {
    return time_point(duration(continuousNow()));
}

Async<> ContinuousClock::sleep(time_point deadline) {
    thisTask::checkCancellation();
    if (deadline <= now()) {
        co_return;
    }
    Sleeper sleeper(deadline);
    auto cancel = [&sleeper] { sleeper.cancel(); };
    const detail::CancellationScope scope(cancel);
    auto begin = [&sleeper](SleepContinuation continuation) {
        sleeper.begin(std::move(continuation));
    };
    co_await withThrowingContinuation<void>(begin);
}

Async<> ContinuousClock::sleepFor(duration length) {
    return Clock::continuous().sleepFor(length);
}

}  // namespace vantorq
