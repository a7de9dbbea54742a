#include "VantorqFoundation/VNTQOperation.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <utility>

#include "Sources/Operations/CallbackList.h"
#include "Sources/Operations/TimeoutDelay.h"
#include "VantorqFoundation/Errors.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/DispatchTimer.h"

namespace vantorq {

namespace {

void call(const NSBlock& callback, VNTQResult* result) {
    VNTQOperation::ResultCallback::call(callback, result);
}

}  // namespace

VNTQOperation::~VNTQOperation() {
    (void)CallbackList::take(callbacks_, true);
}

// Running.

void VNTQOperation::start() {
    if (hasStarted()) {
        return;
    }
    const Ref<VNTQOperation> alive(this);
    std::unique_lock lock(lock_);
    if (hasStarted()) {
        return;
    }
    const double startDate = NSDate::now();
    startDate_ = startDate;
    bool isToExecute = !isOver();
    if (isToExecute) {
        willChangeValueForKey(operation_keys::isExecuting);
        isToExecute = !isOver();  // an observer may have ended the operation
        if (isToExecute) {
            moveDeadline(startDate);
            executing_ = true;
        }
        didChangeValueForKey(operation_keys::isExecuting);
    }
    if (!isToExecute) {
        willChangeValueForKey(operation_keys::isFinished);
        finished_ = true;
        didChangeValueForKey(operation_keys::isFinished);
        lock.unlock();
        didFinishWithResult(resultToDeliver());
        return;
    }
    lock.unlock();

    if (const auto queue = executionQueue_.load()) {
        queue->async([alive] { alive->execute(); });
    } else {
        execute();
    }
}

Ref<NSDate> VNTQOperation::timeoutDate() const {
    if (auto date = timeoutDate_.load()) {
        return date;
    }
    const double deadline = deadline_;
    return std::isnan(deadline) ? nullptr
                                : NSDate::dateWithTimeIntervalSinceReferenceDate(deadline);
}

void VNTQOperation::setTimeoutDate(const Ref<NSDate>& date) {
    if (date == nullptr) {
        deadline_ = kNever;
    } else {
        // A date that is not a number has always passed.
        const double deadline = date->timeIntervalSinceReferenceDate();
        deadline_ = std::isnan(deadline) ? -std::numeric_limits<double>::infinity() : deadline;
    }
    timeoutDate_.store(date);
}

/// The interval counts from the start; a deadline that was set further ahead stays.
void VNTQOperation::moveDeadline(double startDate) {
    const double interval = timeoutInterval_;
    if (!(interval > 0)) {
        return;
    }
    const double untilDate = std::isnan(deadline_) ? 0 : deadline_ - NSDate::now();
    deadline_ = startDate + (untilDate > interval ? untilDate : interval);
    timeoutDate_.store(nullptr);
}

double VNTQOperation::timeRemaining() const {
    if (const double deadline = deadline_; !std::isnan(deadline)) {
        const double left = deadline - NSDate::now();
        return left > 0 ? left : 0;
    }
    const double interval = timeoutInterval_;
    if (interval > 0) {
        return interval;
    }
    return finished_ ? 0 : std::numeric_limits<double>::infinity();
}

/// `timeRemaining` for the time-out. A deadline that is far ahead is seen from the last tick of the
/// clock, which is several times faster to read. It is not seen farther than it was at the start,
/// unless the clock has been set back.
double VNTQOperation::timeLeft() const {
    constexpr double kFarAhead = 10;
    constexpr double kMostLag = 1;
    const double deadline = deadline_;
    if (!std::isnan(deadline)) {
        const double tick = NSDate::coarseNow();
        const double start = startDate_;
        if (deadline - tick > kFarAhead && start - tick < kMostLag) {
            return deadline - std::max(start, tick);
        }
    }
    return timeRemaining();
}

bool VNTQOperation::isStillExecuting() const {
    const std::lock_guard guard(lock_);
    return executing_;
}

void VNTQOperation::execute() {
    const Ref<VNTQOperation> alive(this);
    if (!isStillExecuting()) {
        return;
    }
    if (!(timeLeft() > 0)) {
        completeWithTimeout();
        return;
    }
    main();
    if (!isStillExecuting()) {
        return;
    }
    const double left = timeLeft();
    if (!(left > 0)) {
        completeWithTimeout();
        return;
    }
    invalidateTimerIfNeeded();
    if (!std::isfinite(left)) {
        return;
    }
    scheduleTimer(left);
    // An end that came in between found no timer to disarm.
    if (!executing_) {
        invalidateTimerIfNeeded();
    }
}

void VNTQOperation::main() {}

void VNTQOperation::scheduleTimer(double seconds) {
    auto queue = executionQueue_.load();
    const auto timer =
        DispatchTimer::timer(queue != nullptr ? std::move(queue) : DispatchQueue::global(),
                             [weakSelf = Weak<VNTQOperation>(this)] {
                                 if (const auto self = weakSelf.load()) {
                                     self->invalidateTimerIfNeeded();
                                     self->completeWithTimeout();
                                 }
                             });
    setInvalidateTimer([timer = timer] { timer->cancel(); });  // moved, which a constant is not
    const TimeoutDelay delay = timeoutDelay(seconds);
    timer->schedule(delay.nanoseconds, delay.leeway);
}

void VNTQOperation::invalidateTimerIfNeeded() {
    if (const auto action = Callback::adopt(invalidateTimer_.exchange(nullptr))) {
        action();
    }
}

// Ending.

void VNTQOperation::completeWithResult(const Ref<VNTQResult>& result) {
    if (isOver()) {
        return;
    }
    const Ref<VNTQOperation> alive(this);
    std::unique_lock lock(lock_);
    if (isOver()) {
        return;
    }
    if (executing_) {
        const bool isEnded = announceExecutionEnd(&result);
        lock.unlock();
        if (isEnded) {
            invalidateTimerIfNeeded();
            didFinishWithResult(result);
        }
        return;
    }
    // Completed before the start: nothing is announced but readiness, so that a queue starts the
    // operation, which then announces the end and delivers.
    result_.store(result);
    finished_ = true;
    if (!isReady()) {
        willChangeValueForKey(operation_keys::isReady);
        forcedReady_ = true;
        didChangeValueForKey(operation_keys::isReady);
    }
}

void VNTQOperation::cancel() {
    if (isOver()) {
        return;
    }
    const Ref<VNTQOperation> alive(this);
    std::unique_lock lock(lock_);
    if (isOver()) {
        return;
    }
    NSOperation::cancel();
    if (executing_) {
        const bool isEnded = announceExecutionEnd(nullptr);
        lock.unlock();
        if (isEnded) {
            invalidateTimerIfNeeded();
            didFinishWithResult(nullptr);
        }
    }
}

/// From executing to finished, under the lock; a cancelled operation has no result. False when an
/// observer that was told of the end brought about another one first.
bool VNTQOperation::announceExecutionEnd(const Ref<VNTQResult>* result) {
    willChangeValueForKey(operation_keys::isExecuting);
    willChangeValueForKey(operation_keys::isFinished);
    const bool isEnded = executing_;
    if (isEnded) {
        if (result != nullptr) {
            result_.store(*result);
        }
        executing_ = false;
        finished_ = true;
    }
    didChangeValueForKey(operation_keys::isExecuting);
    didChangeValueForKey(operation_keys::isFinished);
    return isEnded;
}

void VNTQOperation::completeWithSuccess(const id& value) {
    completeWithResult(VNTQResult::resultWithSuccess(value));
}

void VNTQOperation::completeWithSuccess() {
    completeWithResult(VNTQResult::success());
}

void VNTQOperation::completeWithFailure(const id& error) {
    completeWithResult(VNTQResult::resultWithFailure(error));
}

void VNTQOperation::completeWithFailure() {
    completeWithResult(VNTQResult::failure());
}

void VNTQOperation::completeWithTimeout() {
    if (isOver()) {
        return;
    }
    completeWithFailure(detail::timeoutError(hasStarted() ? NSDate::now() - startDate_ : 0));
}

// Delivering.

/// Of an operation that is over. An observer may have completed it while it was being cancelled.
Ref<VNTQResult> VNTQOperation::resultToDeliver() const {
    return isCancelled() ? nullptr : result_.load();
}

Ref<DispatchQueue> VNTQOperation::callbackQueue() const {
    auto queue = resultQueue_.load();
    if (queue != nullptr || explicitResultDispatch_) {
        return queue;
    }
    queue = executionQueue_.load();
    return queue != nullptr ? queue : DispatchQueue::global();
}

void VNTQOperation::didFinishWithResult(const Ref<VNTQResult>& result) {
    auto callbacks = CallbackList::take(callbacks_, finished_);
    if (callbacks.isEmpty()) {
        return;
    }
    if (const auto queue = callbackQueue()) {
        queue->async([callbacks = std::move(callbacks), result] {
            callbacks.forEach([&](const NSBlock& one) { call(one, result.get()); });
        });
    } else {
        callbacks.forEach([&](const NSBlock& one) { call(one, result.get()); });
    }
}

Ref<VNTQOperation> VNTQOperation::onResult(ResultCallback callback) {
    if (!callback) {
        VNTQ_TRAP("VNTQOperation: an empty callback was registered");
    }
    const Ref<VNTQOperation> self(this);
    std::unique_lock lock(lock_);
    const bool waits = !isOver();
    lock.unlock();
    if (waits && CallbackList::append(callbacks_, callback.object())) {
        return self;
    }
    const auto result = resultToDeliver();
    if (const auto queue = callbackQueue()) {
        queue->async([callback = std::move(callback), result] { callback(result.get()); });
    } else {
        callback(result.get());
    }
    return self;
}

Ref<VNTQOperation> VNTQOperation::onCompletion(Callback callback) {
    if (!callback) {
        VNTQ_TRAP("VNTQOperation: an empty callback was registered");
    }
    return onResult([callback = std::move(callback)](VNTQResult*) { callback(); });
}

Ref<VNTQOperation> VNTQOperation::onValue(ObjectCallback onValue, ObjectCallback orError) {
    if (!onValue && !orError) {
        return *this;
    }
    return onResult(
        [onValue = std::move(onValue), orError = std::move(orError)](VNTQResult* result) {
            if (result == nullptr) {
                return;
            }
            if (result->type() == VNTQResultType::success && onValue) {
                onValue(result->value().get());
            } else if (result->type() == VNTQResultType::failure && orError) {
                orError(result->error().get());
            }
        });
}

Ref<VNTQOperation> VNTQOperation::onValue(ObjectCallback callback) {
    return onValue(std::move(callback), nullptr);
}

Ref<VNTQOperation> VNTQOperation::onError(ObjectCallback callback) {
    return onValue(nullptr, std::move(callback));
}

Ref<VNTQOperation> VNTQOperation::onSuccess(Callback onSuccess, Callback orFailure) {
    const auto ignoringPayload = [](Callback callback) -> ObjectCallback {
        if (!callback) {
            return nullptr;
        }
        return [callback = std::move(callback)](NSObject*) { callback(); };
    };
    return onValue(ignoringPayload(std::move(onSuccess)), ignoringPayload(std::move(orFailure)));
}

Ref<VNTQOperation> VNTQOperation::onSuccess(Callback callback) {
    return onSuccess(std::move(callback), nullptr);
}

Ref<VNTQOperation> VNTQOperation::onFailure(Callback callback) {
    return onSuccess(nullptr, std::move(callback));
}

namespace {

using Operation = VNTQOperation;

// These pick one of several functions of a name.
template <class... A>
using Member = void (Operation::*)(A...);
template <class... A>
using Registration = Ref<Operation> (Operation::*)(A...);

constexpr PropertyInfo kProperties[] = {
    property<&Operation::explicitResultDispatch, &Operation::setExplicitResultDispatch>(
        "explicitResultDispatch"),
    property<&Operation::executionQueue, &Operation::setExecutionQueue>("executionQueue"),
    property<&Operation::result>("result"),
    property<&Operation::resultQueue, &Operation::setResultQueue>("resultQueue"),
    property<&Operation::timeoutDate, &Operation::setTimeoutDate>("timeoutDate"),
    property<&Operation::timeoutInterval, &Operation::setTimeoutInterval>("timeoutInterval"),
    property<&Operation::invalidateTimer, &Operation::setInvalidateTimer>("invalidateTimer"),
    property<&Operation::timeRemaining>("timeRemaining"),
};
constexpr MethodInfo kMethods[] = {
    method<&Operation::execute>("execute"),
    method<&Operation::scheduleTimer>("scheduleTimer:"),
    method<&Operation::invalidateTimerIfNeeded>("invalidateTimerIfNeeded"),
    method<&Operation::completeWithTimeout>("completeWithTimeout"),
    method<&Operation::completeWithResult>("completeWithResult:"),
    method<static_cast<Member<const id&>>(&Operation::completeWithSuccess)>("completeWithSuccess:"),
    method<static_cast<Member<>>(&Operation::completeWithSuccess)>("completeWithSuccess"),
    method<static_cast<Member<const id&>>(&Operation::completeWithFailure)>("completeWithFailure:"),
    method<static_cast<Member<>>(&Operation::completeWithFailure)>("completeWithFailure"),
    method<&Operation::didFinishWithResult>("didFinishWithResult:"),
    method<&Operation::onResult>("onResult:"),
    method<&Operation::onCompletion>("onCompletion:"),
    method<static_cast<Registration<Operation::ObjectCallback, Operation::ObjectCallback>>(
        &Operation::onValue)>("onValue:orError:"),
    method<static_cast<Registration<Operation::ObjectCallback>>(&Operation::onValue)>("onValue:"),
    method<&Operation::onError>("onError:"),
    method<static_cast<Registration<Operation::Callback, Operation::Callback>>(
        &Operation::onSuccess)>("onSuccess:orFailure:"),
    method<static_cast<Registration<Operation::Callback>>(&Operation::onSuccess)>("onSuccess:"),
    method<&Operation::onFailure>("onFailure:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(VNTQOperation, {.properties = kProperties, .methods = kMethods})

}  // namespace vantorq
