#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <sys/types.h>
#include <vector>

#include "TimerStore.h"
#include "VantorqFoundation/Platform/UnfairLock.h"
#include "Work.h"
#include "WorkBatch.h"
#include "WorkLine.h"

namespace vantorq {

/// The threads that run the work of all queues but the main one.
///
/// Work waits in one line for each quality of service. A thread takes a fair share of a line at
/// once, a batch, and works it off; more urgent work is taken in between, piece by piece, and idle
/// threads take from the batches of others. A thread that finds nothing looks around for a moment
/// ("searches"), then parks, and ends when it was parked for a second.
///
/// What a piece of work queues itself is kept for its own thread to follow on with, because what
/// the two share is still in that processor's cache; others take it if it is not begun in a moment.
/// Not more than a few pieces follow on each other before it is the turn of those that waited.
///
/// Giving work wakes or starts a thread only when nobody is searching, and a thread that stops
/// searching because it has found work passes that on. So at all times, while work has not been
/// begun, somebody searches, or as many threads are active as are allowed. In the latter case a
/// monitor looks every few milliseconds whether active threads are blocked, and allows as many
/// more.
///
/// Threads: any.
class ThreadPool {
public:
    static constexpr std::size_t kLaneCount = 5;

    static ThreadPool& shared();

    /// Lane 0 is the most urgent. The work's `queue` has to be set.
    void submit(std::size_t lane, Work& work);

private:
    struct Worker;
    struct Monitor;
    /// What is left to do once the lock is released.
    struct FollowUp {
        Worker* wake = nullptr;
        Worker* start = nullptr;
        bool startsMonitor = false;
    };

    ThreadPool();

    void workerMain(Worker& self);
    Work* next(Worker& self);
    Work* search(Worker& self, std::unique_lock<UnfairLock>& lock);
    void awaitWork() const noexcept;
    bool keepForOwnThread(std::size_t lane, Work& work);
    Work* take(Worker& self);
    Work* takeFollowing() noexcept;
    Work* steal(Worker& self);
    static Work* share(std::span<Work*> works, std::size_t lane, Worker& self);
    std::size_t chooseLane() noexcept;
    bool park(Worker& self, std::unique_lock<UnfairLock>& lock);
    FollowUp keepGoing();
    void noteAttention() noexcept;
    void carryOut(const FollowUp& followUp);
    void startWorker(Worker& worker);
    Worker& idleSlot();
    bool isWorkWaiting() const noexcept;
    void watch();
    std::vector<pid_t> threadsWithoutProgress();

    static constexpr std::size_t kNoLane = kLaneCount;

    static constinit thread_local Worker* worker_;

    const std::size_t baseCount_;

    // Guarded by the lock; what every piece of work touches stands beside it.
    alignas(64) UnfairLock lock_;
    bool isMonitored_ = false;
    std::atomic<std::size_t> mostUrgent_{
        kNoLane};  // the first lane with work; read without the lock
    // Whether somebody searches, or the monitor looks after work that waits; read without the lock.
    std::atomic<bool> isAttended_{false};
    std::size_t queued_ = 0;     // in all lanes
    std::size_t searching_ = 0;  // active threads that look for work
    std::size_t active_ = 0;     // threads that are not parked
    std::size_t allowed_;        // how many may be active
    std::uint32_t takes_ = 0;
    Worker* parked_ = nullptr;  // the one that parked last
    std::array<WorkLine, kLaneCount> lanes_;
    std::vector<std::unique_ptr<Worker>> workers_;
    const std::unique_ptr<Monitor> monitor_;
};

}  // namespace vantorq
