#pragma once

#include <coroutine>
#include <utility>

#include "Export.h"
#include "RefCounted.h"

namespace vantorq {

class Actor;

namespace detail {

class TaskState;
template <class T>
class TaskOf;

/// A suspended coroutine on its way to where it goes on. Stands in the coroutine's own frame, so
/// that queueing one takes no memory.
struct Job {
    std::coroutine_handle<> handle;
    TaskState* task = nullptr;  ///< whose code it is; kept alive by that code
    Actor* actor = nullptr;     ///< what it goes on on; held for it while it stands in an executor
    Job* next = nullptr;        ///< for the use of whoever queues it
};

/// What the code that a thread runs belongs to.
struct Context {
    TaskState* task = nullptr;
    Actor* actor = nullptr;   ///< held by the thread, with a count of its own
    bool isBorrowed = false;  ///< the thread is somebody's who waits for this task only
    bool isShielded = false;  ///< the code does not notice that its task is cancelled
};

VNTQ_EXPORT Context& context() noexcept;

/// While it lasts, the code that the thread runs does not notice that its task is cancelled: for
/// what is done in place, on behalf of others.
class CancellationShield {
public:
    CancellationShield() noexcept : outer_(std::exchange(context().isShielded, true)) {}
    ~CancellationShield() { context().isShielded = outer_; }
    CancellationShield(const CancellationShield&) = delete;
    CancellationShield& operator=(const CancellationShield&) = delete;

private:
    bool outer_;
};

/// Runs a job that was taken out of an executor, and what follows on from it on the same thread.
VNTQ_EXPORT void run(Job& job) noexcept;
/// Sends a suspended job to its actor, or to its task's executor.
VNTQ_EXPORT void resume(Job& job) noexcept;
/// Makes the thread go on on `actor`, or on none. False when the actor is busy: the job is in its
/// line, and may be running by now.
VNTQ_EXPORT bool enter(Actor* actor, Job& job) noexcept;

/// Notes where a coroutine that suspends is to go on: where it is now.
inline void noteSuspension(Job& job, std::coroutine_handle<> handle) noexcept {
    const Context& here = context();
    job.handle = handle;
    job.task = here.task;
    job.actor = here.actor;
}

}  // namespace detail

/// Where the code of tasks runs. Tasks that are given none run on the default global queue.
///
/// A host that has a loop of its own derives from this one and hands `enqueue`d jobs to `run` on
/// whichever thread it likes; testing/ManualExecutor.h is one for tests. A task's executor is also
/// that of the tasks that it starts. A job that waits in an executor may have an actor to itself
/// already, so a job that is never run may keep others waiting for ever.
///
/// Threads: `enqueue` is called from any thread, and may not run the job itself.
class VNTQ_EXPORT Executor : public RefCounted {
public:
    using Job = detail::Job;

    virtual void enqueue(Job& job) = 0;

    /// Runs a job that was enqueued; once. The job is gone when this returns.
    static void run(Job& job) noexcept { detail::run(job); }
};

}  // namespace vantorq
