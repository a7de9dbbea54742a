#include "VantorqFoundation/Platform/Executor.h"

#include "Sources/Platform/Concurrency/Resume.h"
#include "Sources/Platform/Dispatch/PoolQueue.h"
#include "VantorqFoundation/Platform/Actor.h"
#include "VantorqFoundation/Platform/Task.h"

namespace vantorq {

namespace {
[[gnu::tls_model("initial-exec")]] constinit thread_local detail::Context threadContext;
}

detail::Context& detail::context() noexcept {
    return threadContext;
}

/// Sends a job that has its actor, or needs none, to where its task runs.
void post(detail::Job& job) noexcept {
    // Once it is queued, the job may be run and its task be gone.
    if (const Ref<Executor> home = job.task->home()) {
        home->enqueue(job);
    } else {
        PoolQueue::global(DispatchQoS::default_).async([&job] { detail::run(job); });
    }
}

void detail::run(Job& first) noexcept {
    Context& here = threadContext;
    const Context outer = here;
    here.isShielded = false;
    const Ref<Executor> home = first.task->home();
    Job* job = &first;
    do {
        here.task = job->task;
        here.actor = job->actor;
        job->handle.resume();
        // Whatever the thread runs has suspended or ended, so the actor is free for the next.
        job = nullptr;
        if (Actor* const actor = here.actor) {
            job = actor->nextOrUnlock();
            if (job == nullptr) {
                actor->release();
            } else if (here.isBorrowed || job->task->home() != home) {
                post(*job);
                job = nullptr;
            }
        }
    } while (job != nullptr);
    here = outer;
}

void detail::resume(Job& job) noexcept {
    Actor* const actor = job.actor;
    if (actor != nullptr) {
        if (!actor->lockOrQueue(job)) {
            return;
        }
        actor->retain();
    }
    post(job);
}

bool detail::enter(Actor* actor, Job& job) noexcept {
    Context& here = threadContext;
    if (here.actor == actor) {
        return true;
    }
    if (actor != nullptr) {
        job.actor = actor;
        if (!actor->lockOrQueue(job)) {
            return false;
        }
        actor->retain();
    }
    Actor::leaveCurrent(here);
    here.actor = actor;
    return true;
}

}  // namespace vantorq
