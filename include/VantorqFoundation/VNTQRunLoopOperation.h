#pragma once

#include <atomic>

#include "Platform/Export.h"
#include "Platform/NSDate.h"
#include "Platform/NSPredicate.h"
#include "Platform/NSRunLoop.h"
#include "VNTQOperation.h"

namespace vantorq {

/// An operation that turns a run loop until it is done: a way to wait for work that timers and
/// callbacks of that loop drive, without blocking the loop.
///
/// Without an execution queue, `start` returns only when the operation has finished. It turns the
/// loop in slices of `loopInterval` seconds, and ends when the work completes it, with the time-out
/// error when its deadline passes, and with the shared failure when `runPredicate` no longer holds
/// or the loop cannot run. Callbacks run in place by default (`explicitResultDispatch` is set).
///
/// Threads: the operation belongs to the thread whose run loop it turns. Any thread may complete
/// it; the loop sees that within one slice.
class VNTQ_EXPORT VNTQRunLoopOperation : public VNTQOperation {
    VNTQ_OBJECT(VNTQRunLoopOperation, VNTQOperation)
public:
    VNTQRunLoopOperation() noexcept;
    /// Sets the run condition, and returns the operation.
    Ref<VNTQRunLoopOperation> initWithRunPredicate(const Ref<NSPredicate>& predicate);

    /// The loop to turn. When nil, the default: that of the thread that asks.
    [[nodiscard]] Ref<NSRunLoop> runLoop() const;
    void setRunLoop(const Ref<NSRunLoop>& loop) { runLoop_.store(loop); }
    /// Seconds in one slice; 1/60 by default.
    [[nodiscard]] double loopInterval() const noexcept { return loopInterval_; }
    void setLoopInterval(double seconds) noexcept { loopInterval_ = seconds; }
    /// What has to hold, of the operation, for the loop to go on; nil, the default, always does.
    [[nodiscard]] Ref<NSPredicate> runPredicate() const { return runPredicate_.load(); }
    void setRunPredicate(const Ref<NSPredicate>& predicate);

    [[nodiscard]] bool isAsynchronous() const override { return false; }

    /// Sets the time-out interval, in seconds, and starts.
    void startAndWaitFor(double seconds);
    /// Sets the deadline, and starts.
    void startAndWaitUntil(const Ref<NSDate>& date);

    /// Turns the loop once in `mode`, until `date` at the latest. False when the run condition does
    /// not hold, or the loop has nothing to wait for.
    virtual bool runMode(const NSString& mode, const NSDate& beforeDate);
    /// Gives an operation without a deadline one in the distant future, so that the loop always
    /// runs.
    void execute() override;
    /// Turns the loop until the operation is over; `seconds` is its time left.
    void scheduleTimer(double seconds) override;

protected:
    ~VNTQRunLoopOperation() override = default;

private:
    AtomicRef<NSRunLoop> runLoop_;
    AtomicRef<NSPredicate> runPredicate_;
    std::atomic<double> loopInterval_{0.016666666666666666};
};

}  // namespace vantorq
