#include "TimerStore.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "MonotonicTime.h"
#include "Thread.h"
#include "VantorqFoundation/Platform/Trap.h"

namespace vantorq {

namespace {

/// How long the thread stays when it has nothing to do.
constexpr std::int64_t kIdleTime = kNanosecondsPerSecond;

}  // namespace

TimerStore& TimerStore::monotonic() {
    static TimerStore& store = *new TimerStore(*new MonotonicAlarm);
    return store;
}

TimerStore& TimerStore::continuous() {
    static TimerStore& store = *new TimerStore(*new ContinuousAlarm);
    return store;
}

void TimerStore::arm(TimerEntry& entry, std::int64_t due, std::int64_t latest) {
    bool needsThread = false;
    bool needsWakeUp = false;
    {
        const std::lock_guard guard(lock_);
        if (entry.index != TimerEntry::kNotArmed) {
            remove(entry);
        }
        entry.due = due;
        entry.latest = latest;
        heap_.push_back(&entry);
        siftUp(entry, heap_.size() - 1);
        wasUsed_ = true;
        needsThread = !std::exchange(isThreadRunning_, true);
        needsWakeUp = latest < sleepsUntil_;
        if (needsWakeUp) {
            sleepsUntil_ = latest;
        }
    }
    if (needsThread) {
        if (!startThread(
                "vntq-timer", [](void* self) { static_cast<TimerStore*>(self)->threadMain(); },
                this)) {
            VNTQ_TRAP("Timers: the system has no room for a thread");
        }
    } else if (needsWakeUp) {
        alarm_.wake();
    }
}

bool TimerStore::disarm(TimerEntry& entry) noexcept {
    bool needsWakeUp = false;
    {
        const std::lock_guard guard(lock_);
        if (entry.index == TimerEntry::kNotArmed) {
            return false;
        }
        remove(entry);
        wasUsed_ = true;
        // The thread is to end soon after the last timer, not when that would have fired.
        needsWakeUp = nextWakeUp() == kNever && std::exchange(sleepsForLong_, false);
    }
    if (needsWakeUp) {
        alarm_.wake();
    }
    return true;
}

void TimerStore::threadMain() {
    std::vector<DueWork> due;
    while (waitForWork()) {
        {
            const std::lock_guard guard(lock_);
            takeDue(due);
        }
        for (DueWork& one : due) {
            if (one.queue != nullptr) {
                one.queue->enqueue(*one.work);
            } else {
                runAndRecycle(*one.work);
            }
        }
        due.clear();
    }
}

/// Sleeps until a timer may be due; false when the thread is to end.
bool TimerStore::waitForWork() {
    for (;;) {
        const std::uint32_t wakeUps = alarm_.wakeUps();
        const std::int64_t now = alarm_.now();
        std::int64_t until;
        {
            const std::lock_guard guard(lock_);
            const std::int64_t next = nextWakeUp();
            sleepsUntil_ = 0;
            if (next <= now) {
                wasUsed_ = true;
                return true;
            }
            const bool isIdle = !std::exchange(wasUsed_, false);
            if (next == kNever && isIdle) {
                isThreadRunning_ = false;
                return false;
            }
            // In a time of much arming and disarming it wakes up now and then to see whether that
            // is over; then it sleeps as long as the timers allow.
            const std::int64_t soon = now + kIdleTime;
            sleepsForLong_ = isIdle && next > soon;
            until = sleepsForLong_ ? next : std::min(next, soon);
            sleepsUntil_ = until;
        }
        alarm_.sleepUntil(until, wakeUps);
    }
}

/// "Never" without timers, or with none that ever comes.
std::int64_t TimerStore::nextWakeUp() const noexcept {
    return heap_.empty() ? kNever : heap_.front()->latest;
}

void TimerStore::takeDue(std::vector<DueWork>& out) {
    const std::int64_t now = alarm_.now();
    while (!heap_.empty() && heap_.front()->due <= now) {
        TimerEntry& entry = *heap_.front();
        remove(entry);
        out.push_back(entry.take(entry));
    }
}

// The heap: the children of the entry at index i are at 2i + 1 and 2i + 2.

void TimerStore::place(TimerEntry& entry, std::size_t index) noexcept {
    heap_[index] = &entry;
    entry.index = index;
}

void TimerStore::siftUp(TimerEntry& entry, std::size_t index) noexcept {
    while (index > 0) {
        const std::size_t parent = (index - 1) / 2;
        if (heap_[parent]->latest <= entry.latest) {
            break;
        }
        place(*heap_[parent], index);
        index = parent;
    }
    place(entry, index);
}

void TimerStore::siftDown(TimerEntry& entry, std::size_t index) noexcept {
    for (;;) {
        std::size_t child = 2 * index + 1;
        if (child >= heap_.size()) {
            break;
        }
        if (child + 1 < heap_.size() && heap_[child + 1]->latest < heap_[child]->latest) {
            ++child;
        }
        if (entry.latest <= heap_[child]->latest) {
            break;
        }
        place(*heap_[child], index);
        index = child;
    }
    place(entry, index);
}

void TimerStore::remove(TimerEntry& entry) noexcept {
    const std::size_t index = std::exchange(entry.index, TimerEntry::kNotArmed);
    TimerEntry& last = *heap_.back();
    heap_.pop_back();
    if (&last == &entry) {
        return;
    }
    if (index > 0 && last.latest < heap_[(index - 1) / 2]->latest) {
        siftUp(last, index);
    } else {
        siftDown(last, index);
    }
}

}  // namespace vantorq
