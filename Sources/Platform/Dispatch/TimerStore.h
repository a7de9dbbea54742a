#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Alarm.h"
#include "VantorqFoundation/Platform/DispatchTimer.h"
#include "VantorqFoundation/Platform/UnfairLock.h"
#include "Work.h"

namespace vantorq {

/// Work whose time has come, if there is any. Without a queue it is run by the timer thread itself.
struct detail::DueWork {
    Ref<DispatchQueue> queue;
    Work* work = nullptr;
    std::int64_t latest = 0;  // of its timer
};

using detail::DueWork;
using detail::TimerEntry;

/// Timers, ordered by the last moment to fire, so that their thread sleeps as long as the leeways
/// allow. Not locked by itself.
class alignas(64) TimerHeap {
public:
    UnfairLock lock;

    [[nodiscard]] bool isEmpty() const noexcept { return entries_.empty(); }
    [[nodiscard]] TimerEntry& first() const noexcept { return *entries_.front(); }
    /// The first one's last moment; "never" without timers, or with none that ever comes.
    [[nodiscard]] std::int64_t nextWakeUp() const noexcept {
        return isEmpty() ? TimerEntry::kNever : first().latest;
    }
    void add(TimerEntry& entry);
    void remove(TimerEntry& entry) noexcept;

private:
    void place(TimerEntry& entry, std::size_t index) noexcept;
    void siftUp(TimerEntry& entry, std::size_t index) noexcept;
    void siftDown(TimerEntry& entry, std::size_t index) noexcept;

    std::vector<TimerEntry*> entries_;
};

/// All armed timers of the process that go by one clock, and the thread that waits for them.
///
/// A thread's timers are in a heap that few other threads use, so that arming and disarming do not
/// contend. Arming wakes the timer thread only for a time before the one it sleeps to, and
/// disarming hardly ever: it wakes up in vain instead, once. The thread ends when it has had
/// nothing to do for a second.
///
/// Threads: any.
class TimerStore {
public:
    /// By the clock that stands still while the machine sleeps.
    static TimerStore& monotonic();
    /// By the clock that counts on. Throws `std::system_error` when the process has no file
    /// descriptor left for it.
    static TimerStore& continuous();

    /// Arms `entry`, or moves it. The entry has to stay until it was taken or disarmed.
    void arm(TimerEntry& entry, std::int64_t due, std::int64_t latest);
    /// Whether the entry was armed, and so will not be taken now.
    bool disarm(TimerEntry& entry) noexcept;

    static constexpr std::uint32_t kHeaps = 16;

private:
    // What `sleepsUntil_` says when it is no instant. Each compares to instants as it should.
    static constexpr std::int64_t kAwake = 0;
    static constexpr std::int64_t kLooking = TimerEntry::kNever - 1;
    static constexpr std::int64_t kNoThread = TimerEntry::kNever;

    explicit TimerStore(Alarm& alarm) noexcept : alarm_(alarm) {}

    void bringThreadTo(std::int64_t instant);
    void startTimerThread();
    void threadMain();
    bool waitForWork();
    [[nodiscard]] std::int64_t nextWakeUp() noexcept;
    void takeDue(std::vector<DueWork>& out);
    void noteUse() noexcept;

    Alarm& alarm_;
    std::array<TimerHeap, kHeaps> heaps_;
    // What the thread sleeps to. While it looks for that, every timer that is armed counts as an
    // earlier one, because it may be in a heap that was looked at already.
    std::atomic<std::int64_t> sleepsUntil_{kNoThread};
    std::atomic<bool> sleepsForLong_{false};  // longer than it would to end
    std::atomic<bool> wasUsed_{false};        // since the thread last looked
};

}  // namespace vantorq
