#include "VantorqFoundation/VNTQRunLoopOperation.h"

#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/NSTimer.h"

namespace vantorq {

VNTQRunLoopOperation::VNTQRunLoopOperation() noexcept {
    setExplicitResultDispatch(true);
}

Ref<VNTQRunLoopOperation> VNTQRunLoopOperation::initWithRunPredicate(
    const Ref<NSPredicate>& predicate) {
    setRunPredicate(predicate);
    return *this;
}

Ref<NSRunLoop> VNTQRunLoopOperation::runLoop() const {
    auto loop = runLoop_.load();
    return loop != nullptr ? loop : NSRunLoop::current();
}

void VNTQRunLoopOperation::setRunPredicate(const Ref<NSPredicate>& predicate) {
    runPredicate_.store(predicate != nullptr ? objectCast<NSPredicate>(predicate->copy())
                                             : nullptr);
}

void VNTQRunLoopOperation::startAndWaitFor(double seconds) {
    setTimeoutInterval(seconds);
    start();
}

void VNTQRunLoopOperation::startAndWaitUntil(const Ref<NSDate>& date) {
    setTimeoutDate(date);
    start();
}

bool VNTQRunLoopOperation::runMode(const NSString& mode, const NSDate& beforeDate) {
    const auto predicate = runPredicate();
    if (predicate != nullptr && !predicate->evaluateWithObject(this)) {
        return false;
    }
    return runLoop()->runMode(mode, beforeDate);
}

void VNTQRunLoopOperation::execute() {
    // A finite deadline takes the base class to `scheduleTimer`, which is where the loop is turned.
    if (timeoutDate() == nullptr) {
        setTimeoutDate(NSDate::distantFuture());
    }
    VNTQOperation::execute();
}

void VNTQRunLoopOperation::scheduleTimer(double seconds) {
    const Ref<VNTQRunLoopOperation> alive(this);
    const auto timer = NSTimer::timerWithTimeInterval(
        seconds, false, [weakSelf = Weak<VNTQRunLoopOperation>(this)](NSTimer*) {
            if (const auto self = weakSelf.load()) {
                self->invalidateTimerIfNeeded();
                self->completeWithTimeout();
            }
        });
    setInvalidateTimer([timer] { timer->invalidate(); });
    runLoop()->addTimer(*timer, NSDefaultRunLoopMode);
    bool ran = true;
    do {
        ran = runMode(NSDefaultRunLoopMode, *NSDate::dateWithTimeIntervalSinceNow(loopInterval()));
        if (!ran) {
            completeWithFailure();
        }
    } while (ran && timer->isValid() && isExecuting());
}

namespace {

constexpr PropertyInfo kProperties[] = {
    property<&VNTQRunLoopOperation::runLoop, &VNTQRunLoopOperation::setRunLoop>("runLoop"),
    property<&VNTQRunLoopOperation::loopInterval, &VNTQRunLoopOperation::setLoopInterval>(
        "loopInterval"),
    property<&VNTQRunLoopOperation::runPredicate, &VNTQRunLoopOperation::setRunPredicate>(
        "runPredicate"),
};
constexpr MethodInfo kMethods[] = {
    method<&VNTQRunLoopOperation::initWithRunPredicate>("initWithRunPredicate:"),
    method<&VNTQRunLoopOperation::startAndWaitFor>("startAndWaitFor:"),
    method<&VNTQRunLoopOperation::startAndWaitUntil>("startAndWaitUntil:"),
    method<&VNTQRunLoopOperation::runMode>("runMode:beforeDate:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(VNTQRunLoopOperation, {.properties = kProperties, .methods = kMethods})

}  // namespace vantorq
