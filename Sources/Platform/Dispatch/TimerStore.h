#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Alarm.h"
#include "VantorqFoundation/Platform/DispatchTimer.h"
#include "VantorqFoundation/Platform/UnfairLock.h"
#include "Work.h"

namespace vantorq {

/// Work whose time has come. Without a queue it is run by the timer thread itself.
struct detail::DueWork {
    Ref<DispatchQueue> queue;
    Work* work = nullptr;
};

using detail::DueWork;
using detail::TimerEntry;

/// All armed timers of the process that go by one clock, and the thread that waits for them.
///
/// A heap ordered by the last moment to fire, so that the thread sleeps as long as the leeways
/// allow. Arming wakes the thread only for a time before the one it sleeps to, and disarming hardly
/// ever: it wakes up in vain instead, once. The thread ends when it has had nothing to do for a
/// second.
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

private:
    explicit TimerStore(Alarm& alarm) noexcept : alarm_(alarm) {}

    void threadMain();
    bool waitForWork();
    void takeDue(std::vector<DueWork>& out);
    [[nodiscard]] std::int64_t nextWakeUp() const noexcept;
    void place(TimerEntry& entry, std::size_t index) noexcept;
    void siftUp(TimerEntry& entry, std::size_t index) noexcept;
    void siftDown(TimerEntry& entry, std::size_t index) noexcept;
    void remove(TimerEntry& entry) noexcept;

    Alarm& alarm_;
    UnfairLock lock_;
    std::vector<TimerEntry*> heap_;
    bool isThreadRunning_ = false;
    bool wasUsed_ = false;          // since the thread last looked
    bool sleepsForLong_ = false;    // longer than it would to end
    std::int64_t sleepsUntil_ = 0;  // what the thread sleeps to; 0 while it is awake
};

}  // namespace vantorq
