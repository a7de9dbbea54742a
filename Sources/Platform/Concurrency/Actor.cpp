#include "VantorqFoundation/Platform/Actor.h"

#include <utility>

#include "Sources/Platform/Concurrency/Resume.h"

namespace vantorq {

using detail::Job;

Actor::~Actor() = default;

/// True when the actor was idle and is held for the job now; else the job is in line.
bool Actor::lockOrQueue(Job& job) noexcept {
    std::uintptr_t seen = kIdle;
    do {
        if (seen == kIdle) {
            if (line_.compare_exchange_weak(seen, kHeld, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
                return true;
            }
        }
        job.next = reinterpret_cast<Job*>(seen & ~kHeld);
    } while (seen == kIdle ||
             !line_.compare_exchange_weak(seen, reinterpret_cast<std::uintptr_t>(&job) | kHeld,
                                          std::memory_order_release, std::memory_order_relaxed));
    return false;
}

/// The job whose turn is next, which holds the actor now; or null, and the actor is idle.
Job* Actor::nextOrUnlock() noexcept {
    if (turn_ == nullptr) {
        std::uintptr_t held = kHeld;
        if (line_.compare_exchange_strong(held, kIdle, std::memory_order_release,
                                          std::memory_order_relaxed)) {
            return nullptr;
        }
        // The one that arrived last stands first.
        auto* arrived =
            reinterpret_cast<Job*>(line_.exchange(kHeld, std::memory_order_acquire) & ~kHeld);
        while (arrived != nullptr) {
            Job* const earlier = arrived->next;
            arrived->next = std::exchange(turn_, arrived);
            arrived = earlier;
        }
    }
    return std::exchange(turn_, turn_->next);
}

void Actor::leaveCurrent(detail::Context& here) noexcept {
    if (Actor* const actor = std::exchange(here.actor, nullptr)) {
        if (Job* const next = actor->nextOrUnlock()) {
            post(*next);
        } else {
            actor->release();
        }
    }
}

}  // namespace vantorq
