#include "VantorqFoundation/Platform/Task.h"

#include <mutex>
#include <utility>

#include "Sources/Platform/Concurrency/Resume.h"
#include "VantorqFoundation/Platform/Actor.h"

namespace vantorq {

using detail::CancellationHandler;
using detail::Context;
using detail::context;
using detail::Job;
using detail::TaskState;

CancellationError::~CancellationError() = default;

const char* CancellationError::what() const noexcept {
    return "The work was cancelled.";
}

// Running.

void TaskState::start() noexcept {
    retain();  // until the end
    job_.task = this;
    post(job_);
}

void TaskState::runHere() noexcept {
    retain();
    job_.task = this;
    Context& here = context();
    const bool outer = std::exchange(here.isBorrowed, true);
    run(job_);
    here.isBorrowed = outer;
}

std::coroutine_handle<> detail::PromiseBase::endTask(TaskState& task) noexcept {
    return task.end();
}

/// Called by the coroutine's last suspension: frees it, and says what the thread goes on with.
std::coroutine_handle<> TaskState::end() noexcept {
    const auto self = Ref<TaskState>::adopt(this);
    collect();
    return goOnWith(markDone());
}

void TaskState::finish() noexcept {
    Job* waiters = markDone();
    while (waiters != nullptr) {
        resume(*std::exchange(waiters, waiters->next));
    }
}

/// Those who waited, in the order of their arrival.
Job* TaskState::markDone() noexcept {
    std::uint32_t flags;
    Job* newestFirst;
    {
        const std::lock_guard guard(lock_);
        flags = flags_.fetch_or(kDone, std::memory_order_acq_rel);
        newestFirst = std::exchange(waiters_, nullptr);
    }
    if ((flags & kIsWaitedForByThread) != 0) {
        flags_.notify_all();
    }
    Job* waiters = nullptr;
    while (newestFirst != nullptr) {
        waiters = std::exchange(newestFirst, std::exchange(newestFirst->next, waiters));
    }
    return waiters;
}

/// Resumes those who waited, the first of them on this thread if it may go on there.
std::coroutine_handle<> TaskState::goOnWith(Job* waiters) noexcept {
    Context& here = context();
    Job* inPlace = nullptr;
    if (waiters != nullptr && !here.isBorrowed && waiters->task->home() == home_) {
        inPlace = std::exchange(waiters, waiters->next);
    }
    while (waiters != nullptr) {
        resume(*std::exchange(waiters, waiters->next));
    }
    if (inPlace == nullptr) {
        return std::noop_coroutine();
    }
    const std::coroutine_handle<> handle = inPlace->handle;
    here.task = inPlace->task;
    return enter(inPlace->actor, *inPlace) ? handle : std::noop_coroutine();
}

// Waiting.

bool TaskState::addWaiter(Job& waiter) noexcept {
    const std::lock_guard guard(lock_);
    if (isDone()) {
        return false;
    }
    waiter.next = std::exchange(waiters_, &waiter);
    return true;
}

void TaskState::wait() noexcept {
    std::uint32_t flags = flags_.fetch_or(kIsWaitedForByThread, std::memory_order_acq_rel);
    while ((flags & kDone) == 0) {
        flags |= kIsWaitedForByThread;
        flags_.wait(flags, std::memory_order_acquire);
        flags = flags_.load(std::memory_order_acquire);
    }
}

// Cancelling.

void TaskState::cancel() noexcept {
    if ((flags_.fetch_or(kCancelled, std::memory_order_acq_rel) & kCancelled) != 0) {
        return;
    }
    const Ref<TaskState> alive(this);
    std::unique_lock lock(lock_);
    handlersThread_ = &context();
    while (CancellationHandler* const handler = handlers_) {
        unlink(*handler);
        runningHandler_ = handler;
        lock.unlock();
        handler->call(*handler);
        lock.lock();
        runningHandler_ = nullptr;
        handlersRun_.fetch_add(1, std::memory_order_release);
        handlersRun_.notify_all();
    }
}

bool TaskState::addHandler(CancellationHandler& handler) {
    const std::lock_guard guard(lock_);
    if (isCancelled()) {
        return false;
    }
    handler.next = handlers_;
    if (handlers_ != nullptr) {
        handlers_->previous = &handler;
    }
    handlers_ = &handler;
    return true;
}

void TaskState::removeHandler(CancellationHandler& handler) noexcept {
    std::unique_lock lock(lock_);
    if (handlers_ == &handler || handler.previous != nullptr) {
        unlink(handler);
        return;
    }
    while (runningHandler_ == &handler && handlersThread_ != &context()) {
        const std::uint32_t run = handlersRun_.load(std::memory_order_acquire);
        lock.unlock();
        handlersRun_.wait(run, std::memory_order_acquire);
        lock.lock();
    }
}

void TaskState::unlink(CancellationHandler& handler) noexcept {
    if (handler.next != nullptr) {
        handler.next->previous = handler.previous;
    }
    (handler.previous != nullptr ? handler.previous->next : handlers_) = handler.next;
    handler.previous = nullptr;
    handler.next = nullptr;
}

}  // namespace vantorq
