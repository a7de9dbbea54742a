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

TimerEntry::TimerEntry(Take taker) noexcept
    : heap(threadNumber() % TimerStore::kHeaps), take(taker) {}

void TimerStore::arm(TimerEntry& entry, std::int64_t due, std::int64_t latest) {
    TimerHeap& heap = heaps_[entry.heap];
    {
        const std::lock_guard guard(heap.lock);
        if (entry.index != TimerEntry::kNotArmed) {
            heap.remove(entry);
        }
        entry.due = due;
        entry.latest = latest;
        heap.add(entry);
    }
    noteUse();
    bringThreadTo(latest);
}

bool TimerStore::disarm(TimerEntry& entry) noexcept {
    TimerHeap& heap = heaps_[entry.heap];
    bool isLast;
    {
        const std::lock_guard guard(heap.lock);
        if (entry.index == TimerEntry::kNotArmed) {
            return false;
        }
        heap.remove(entry);
        isLast = heap.nextWakeUp() == kNever;
    }
    noteUse();
    // The thread is to end soon after the last timer, not when that would have fired.
    if (isLast && sleepsForLong_ && sleepsForLong_.exchange(false)) {
        alarm_.wake();
    }
    return true;
}

/// Sees to it that the thread does not sleep beyond `instant`.
void TimerStore::bringThreadTo(std::int64_t instant) {
    std::int64_t until = sleepsUntil_;
    while (instant < until) {
        const bool needsThread = until == kNoThread;
        if (sleepsUntil_.compare_exchange_weak(until, needsThread ? kAwake : instant)) {
            needsThread ? startTimerThread() : alarm_.wake();
            return;
        }
    }
}

void TimerStore::startTimerThread() {
    if (!startThread(
            "vntq-timer", [](void* self) { static_cast<TimerStore*>(self)->threadMain(); }, this)) {
        VNTQ_TRAP("Timers: the system has no room for a thread");
    }
}

void TimerStore::noteUse() noexcept {
    if (!wasUsed_.load(std::memory_order_relaxed)) {
        wasUsed_.store(true, std::memory_order_relaxed);
    }
}

void TimerStore::threadMain() {
    std::vector<DueWork> due;
    while (waitForWork()) {
        takeDue(due);
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
        sleepsForLong_ = true;  // like every state that this one may lead to
        sleepsUntil_ = kLooking;
        const std::int64_t next = nextWakeUp();
        if (next <= now) {
            sleepsUntil_ = kAwake;
            noteUse();
            return true;
        }
        // In a time of much arming and disarming it wakes up now and then to see whether that is
        // over; then it sleeps as long as the timers allow.
        const bool isIdle = !wasUsed_.exchange(false);
        const std::int64_t soon = now + kIdleTime;
        const bool ends = isIdle && next == kNever;
        const std::int64_t until = isIdle ? next : std::min(next, soon);
        if (ends || until <= soon) {
            sleepsForLong_ = false;
        }
        std::int64_t state = kLooking;
        if (sleepsUntil_.compare_exchange_strong(state, ends ? kNoThread : until)) {
            if (ends) {
                return false;
            }
            alarm_.sleepUntil(until, wakeUps);
        }
    }
}

std::int64_t TimerStore::nextWakeUp() noexcept {
    std::int64_t next = kNever;
    for (TimerHeap& heap : heaps_) {
        const std::lock_guard guard(heap.lock);
        next = std::min(next, heap.nextWakeUp());
    }
    return next;
}

void TimerStore::takeDue(std::vector<DueWork>& out) {
    const std::int64_t now = alarm_.now();
    for (TimerHeap& heap : heaps_) {
        const std::lock_guard guard(heap.lock);
        while (!heap.isEmpty() && heap.first().due <= now) {
            TimerEntry& entry = heap.first();
            const std::int64_t latest = entry.latest;
            heap.remove(entry);
            if (DueWork due = entry.take(entry); due.work != nullptr) {
                due.latest = latest;
                out.push_back(std::move(due));
            }
        }
    }
    std::ranges::sort(out, {}, &DueWork::latest);
}

// The children of the entry at index i are at 2i + 1 and 2i + 2.

void TimerHeap::add(TimerEntry& entry) {
    entries_.push_back(&entry);
    siftUp(entry, entries_.size() - 1);
}

void TimerHeap::remove(TimerEntry& entry) noexcept {
    const std::size_t index = std::exchange(entry.index, TimerEntry::kNotArmed);
    TimerEntry& last = *entries_.back();
    entries_.pop_back();
    if (&last == &entry) {
        return;
    }
    if (index > 0 && last.latest < entries_[(index - 1) / 2]->latest) {
        siftUp(last, index);
    } else {
        siftDown(last, index);
    }
}

void TimerHeap::place(TimerEntry& entry, std::size_t index) noexcept {
    entries_[index] = &entry;
    entry.index = index;
}

void TimerHeap::siftUp(TimerEntry& entry, std::size_t index) noexcept {
    while (index > 0) {
        const std::size_t parent = (index - 1) / 2;
        if (entries_[parent]->latest <= entry.latest) {
            break;
        }
        place(*entries_[parent], index);
        index = parent;
    }
    place(entry, index);
}

void TimerHeap::siftDown(TimerEntry& entry, std::size_t index) noexcept {
    for (;;) {
        std::size_t child = 2 * index + 1;
        if (child >= entries_.size()) {
            break;
        }
        if (child + 1 < entries_.size() && entries_[child + 1]->latest < entries_[child]->latest) {
            ++child;
        }
        if (entry.latest <= entries_[child]->latest) {
            break;
        }
        place(*entries_[child], index);
        index = child;
    }
    place(entry, index);
}

}  // namespace vantorq
