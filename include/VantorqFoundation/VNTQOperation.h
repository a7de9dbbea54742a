#pragma once

#include <atomic>
#include <cmath>
#include <cstdint>
#include <limits>

#include "Platform/Block.h"
#include "Platform/DispatchQueue.h"
#include "Platform/Export.h"
#include "Platform/NSDate.h"
#include "Platform/NSOperation.h"
#include "Platform/NSRecursiveLock.h"
#include "VNTQResult.h"

namespace vantorq {

/// An asynchronous unit of work that ends with a result, may time out, and hands its result to any
/// number of callbacks.
///
///     class Fetch : public VNTQOperation {
///         VNTQ_OBJECT(Fetch, VNTQOperation)
///     public:
///         void main() override {
///             client_.get(url_, [self = Ref<Fetch>(this)](id body) {
///                 self->completeWithSuccess(body);
///             });
///         }
///     };
///     auto fetch = make<Fetch>();
///     fetch->setTimeoutInterval(30);
///     fetch->onValue([](NSObject* body) { show(body); })->onError([](NSObject* e) { report(e); });
///     queue->addOperation(*fetch);  // or fetch->start()
///
/// A subclass puts its work in `main` and calls one of the completion methods, at once or later,
/// from any thread. The first completion or cancellation counts; all later ones are ignored. A
/// callback of `onResult` or `onCompletion` is called exactly once, also one that is registered
/// after the end; a cancelled operation delivers nil.
///
/// An operation queue keeps its operations alive until they finish. Once `main` has returned
/// nothing else does, not even the time-out: whoever is to complete the operation holds it, as
/// above. One that is let go of before its end calls nobody.
///
/// The time-out is counted from the start, and armed when `main` has returned: one that expires
/// while `main` runs is reported as soon as it returns. Deadlines are wall-clock dates, but a timer
/// that is armed counts by `CLOCK_MONOTONIC`: it does not follow when the clock is set, and stands
/// still while the machine sleeps. It fires on the execution queue, else on the global queue, and
/// up to a tenth of its time late.
///
/// An operation may be completed before it is started. `isFinished` and `result` tell so at once,
/// and it is ready ahead of its dependencies; "isFinished" is announced, and the callbacks that are
/// registered so far are called, when it is started, without running `main`. One that is cancelled
/// before its start waits for it likewise, with nil. Callbacks that are registered later are called
/// at once.
///
/// Threads: any thread may call any member. State changes are serialised by a recursive lock, and
/// "isExecuting", "isFinished", "isReady" and "isCancelled" are announced while it is held, so an
/// observer may call back into the operation on its own thread, and must not wait for another.
/// Callbacks run after the lock is released; only those of an end that an observer brings about
/// in place run while the change that it was told of still holds it.
class VNTQ_EXPORT VNTQOperation : public NSOperation {
    VNTQ_OBJECT(VNTQOperation, NSOperation)
public:
    /// Takes the result, or nil from a cancelled operation.
    using ResultCallback = Block<void(VNTQResult*)>;
    /// Takes the value or the error as it was given, which may be nil or an object of any class.
    using ObjectCallback = Block<void(NSObject*)>;
    using Callback = Block<void()>;

    VNTQOperation() noexcept = default;

    // Configuration, normally set before the start.

    /// Where `execute` runs; nil, the default, is the thread that calls `start`.
    [[nodiscard]] Ref<DispatchQueue> executionQueue() const { return executionQueue_.load(); }
    void setExecutionQueue(const Ref<DispatchQueue>& queue) { executionQueue_.store(queue); }
    /// Where callbacks run. When nil, the default: the execution queue, else the global queue, but
    /// with `explicitResultDispatch` in place, on the thread that completes the operation.
    [[nodiscard]] Ref<DispatchQueue> resultQueue() const { return resultQueue_.load(); }
    void setResultQueue(const Ref<DispatchQueue>& queue) { resultQueue_.store(queue); }
    /// Whether callbacks run on `resultQueue` only, and in place without one. False by default.
    [[nodiscard]] bool explicitResultDispatch() const noexcept { return explicitResultDispatch_; }
    void setExplicitResultDispatch(bool flag) noexcept { explicitResultDispatch_ = flag; }
    /// Seconds from the start to the deadline; none when 0 (the default), negative or not a number.
    [[nodiscard]] double timeoutInterval() const noexcept { return timeoutInterval_; }
    void setTimeoutInterval(double seconds) noexcept { timeoutInterval_ = seconds; }
    /// The deadline, or nil. With a time-out interval, `start` moves it to the later of the start
    /// plus the interval and the date that was set.
    [[nodiscard]] Ref<NSDate> timeoutDate() const;
    void setTimeoutDate(const Ref<NSDate>& date);
    /// What disarms the armed time-out timer; empty when none is armed.
    [[nodiscard]] Callback invalidateTimer() const {
        return Callback::adopt(invalidateTimer_.load());
    }
    void setInvalidateTimer(Callback action) { invalidateTimer_.store(action.takeObject()); }

    // State.

    /// The outcome; nil until completed, and for good in a cancelled operation.
    [[nodiscard]] Ref<VNTQResult> result() const { return result_.load(); }
    /// Seconds until the deadline, 0 when it has passed. Without a deadline: the time-out interval
    /// if there is one, else 0 when finished and infinity before.
    [[nodiscard]] double timeRemaining() const;
    [[nodiscard]] bool isAsynchronous() const override { return true; }
    [[nodiscard]] bool isExecuting() const override { return executing_; }
    [[nodiscard]] bool isFinished() const override { return finished_; }
    /// Also true, whatever the dependencies, once the operation was completed before its start.
    [[nodiscard]] bool isReady() const override { return forcedReady_ || NSOperation::isReady(); }

    // Running.

    /// Starts the work, or finishes at once when the operation was completed or cancelled before.
    /// The second start does nothing. Does not look at `isReady`.
    void start() override;
    /// Ends the operation with nil. Before the start it only marks it; the start then finishes it.
    void cancel() override;
    /// Runs `main` and arms the time-out. Called by `start`; overridable.
    virtual void execute();
    /// The work. Empty here. Must not throw.
    void main() override;
    /// Arms the time-out timer, to fire after `seconds`. Called by `execute` with `timeRemaining`,
    /// which above ten seconds is that of the system clock's last tick; overridable.
    virtual void scheduleTimer(double seconds);
    /// Disarms the timer if one is armed.
    virtual void invalidateTimerIfNeeded();

    // Completing.

    virtual void completeWithResult(const Ref<VNTQResult>& result);
    virtual void completeWithSuccess(const id& value);
    /// With the shared success.
    void completeWithSuccess();
    virtual void completeWithFailure(const id& error);
    /// With the shared failure.
    void completeWithFailure();
    /// Fails with code 1 of `VNTQFoundationErrorDomain`, unless finished or cancelled.
    virtual void completeWithTimeout();
    /// Delivers to the registered callbacks. Called once per end, overridable; nil when cancelled.
    virtual void didFinishWithResult(const Ref<VNTQResult>& result);

    // Callbacks. Each returns the operation, for chaining. An empty callback traps in `onResult`
    // and `onCompletion`, and is left out in the others, which go through `onResult`. Those that
    // are registered before the end are called in that order, as one piece of work; later ones as a
    // piece of work each. An exception that leaves one on a queue ends the process.

    virtual Ref<VNTQOperation> onResult(ResultCallback callback);
    /// Called at every end, cancellation included.
    Ref<VNTQOperation> onCompletion(Callback callback);
    /// One of the two is called with the value or the error; neither when cancelled.
    Ref<VNTQOperation> onValue(ObjectCallback onValue, ObjectCallback orError);
    Ref<VNTQOperation> onValue(ObjectCallback callback);
    Ref<VNTQOperation> onError(ObjectCallback callback);
    /// One of the two is called; neither when cancelled.
    Ref<VNTQOperation> onSuccess(Callback onSuccess, Callback orFailure);
    Ref<VNTQOperation> onSuccess(Callback callback);
    Ref<VNTQOperation> onFailure(Callback callback);

protected:
    ~VNTQOperation() override;

private:
    static constexpr double kNever = std::numeric_limits<double>::quiet_NaN();

    [[nodiscard]] bool hasStarted() const noexcept { return !std::isnan(startDate_.load()); }
    [[nodiscard]] bool isOver() const { return finished_ || isCancelled(); }
    [[nodiscard]] Ref<DispatchQueue> callbackQueue() const;
    [[nodiscard]] Ref<VNTQResult> resultToDeliver() const;
    [[nodiscard]] bool isStillExecuting() const;
    [[nodiscard]] double timeLeft() const;
    void moveDeadline(double startDate);
    bool announceExecutionEnd(const Ref<VNTQResult>* result);

    // Flags, start date and result change under the lock, the result before the flag that tells of
    // it, and may be read without it.
    mutable RecursiveLock lock_;
    std::atomic<double> startDate_{kNever};  // seconds since the reference date
    std::atomic<double> timeoutInterval_{0};
    std::atomic<double> deadline_{kNever};      // likewise
    std::atomic<std::uintptr_t> callbacks_{0};  // a CallbackList
    AtomicRef<DispatchQueue> executionQueue_;
    AtomicRef<DispatchQueue> resultQueue_;
    AtomicRef<NSDate> timeoutDate_;  // the date that was set; nil when the deadline was computed
    AtomicRef<NSBlock> invalidateTimer_;
    AtomicRef<VNTQResult> result_;
    std::atomic<bool> finished_{false};
    std::atomic<bool> executing_{false};
    std::atomic<bool> forcedReady_{false};
    std::atomic<bool> explicitResultDispatch_{false};
};

}  // namespace vantorq
