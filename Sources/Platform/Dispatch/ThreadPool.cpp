#include "ThreadPool.h"

#include <algorithm>
#include <mutex>
#include <span>
#include <sys/types.h>
#include <thread>
#include <utility>

#include "CurrentQueue.h"
#include "MonotonicTime.h"
#include "PoolQueue.h"
#include "Sources/Platform/Concurrency/Futex.h"
#include "Sources/Platform/Concurrency/SpinPause.h"
#include "Thread.h"

namespace vantorq {

namespace {

constexpr std::size_t kMostThreads = 256;
/// How long a parked thread stays.
constexpr std::int64_t kIdleTime = kNanosecondsPerSecond;
/// How long the monitor rests between looks.
constexpr std::int64_t kMonitorInterval = 5'000'000;
/// The monitor rests so many times as long as it takes it to look, if that is longer.
constexpr std::int64_t kMonitorRest = 20;
/// One batch in so many is taken from the least urgent lane.
constexpr std::uint32_t kLowShare = 16;
/// How often a searching thread looks before it parks, and how long it pauses in between: short
/// enough to leave the processor to those who make the work, long enough to let some gather.
constexpr int kLooks = 4;
constexpr int kPausesBetweenLooks = 20;
/// How many pieces of work in a row may follow on what queued them.
constexpr std::uint32_t kMostFollowing = 8;

}  // namespace

struct ThreadPool::Worker {
    ThreadPool& pool;
    WorkBatch batch;
    std::atomic<Work*> following{nullptr};  // queued by what the thread runs; filled by the owner

    // Of the owner alone.
    std::size_t batchLane = kNoLane;
    std::size_t runningLane = kNoLane;
    std::uint32_t followed = 0;  // pieces of work in a row

    std::atomic<std::uint64_t> begun{0};    // pieces of work; counted by the owner
    std::atomic<std::uint32_t> parking{0};  // 1 while parked

    // Guarded by the pool's lock.
    Worker* parkedBelow = nullptr;
    bool hasThread = false;
    bool isParked = false;
    pid_t thread = 0;               // while one runs
    std::uint64_t begunBefore = 0;  // when the monitor looked last

    explicit Worker(ThreadPool& owner) : pool(owner) {}
};

/// What the timer store calls the pool with.
struct ThreadPool::Monitor : TimerEntry {
    explicit Monitor(ThreadPool& ofPool)
        : TimerEntry([](TimerEntry& entry) {
              ThreadPool& watched = static_cast<Monitor&>(entry).pool;
              return DueWork{nullptr, &makeWork([&watched] { watched.watch(); })};
          }),
          pool(ofPool) {}

    void lookAfter(std::int64_t delay) {
        const std::int64_t next = monotonicNow() + delay;
        TimerStore::monotonic().arm(*this, next, next);
    }

    ThreadPool& pool;
};

/// The worker that the thread is.
[[gnu::tls_model("initial-exec")]] constinit thread_local ThreadPool::Worker* ThreadPool::worker_ =
    nullptr;

ThreadPool& ThreadPool::shared() {
    static ThreadPool& pool = *new ThreadPool;
    return pool;
}

ThreadPool::ThreadPool()
    : baseCount_(std::max<std::size_t>(std::thread::hardware_concurrency(), 1)),
      allowed_(baseCount_),
      monitor_(std::make_unique<Monitor>(*this)) {
    workers_.reserve(kMostThreads);
}

void ThreadPool::submit(std::size_t lane, Work& work) {
    const bool isKept = keepForOwnThread(lane, work);
    // Work is kept before this is read, and found by whoever takes it back.
    if (isKept && isAttended_.load(std::memory_order_seq_cst)) {
        return;
    }
    FollowUp followUp;
    {
        const std::lock_guard guard(lock_);
        if (!isKept) {
            lanes_[lane].push(work);
            ++queued_;
            if (lane < mostUrgent_.load(std::memory_order_relaxed)) {
                mostUrgent_.store(lane, std::memory_order_relaxed);
            }
        }
        followUp = keepGoing();
    }
    carryOut(followUp);
}

bool ThreadPool::keepForOwnThread(std::size_t lane, Work& work) {
    Worker* const self = worker_;
    if (self == nullptr || self->runningLane != lane || self->followed == kMostFollowing ||
        self->following.load(std::memory_order_relaxed) != nullptr) {
        return false;
    }
    self->following.store(&work, std::memory_order_seq_cst);
    return true;
}

void ThreadPool::noteAttention() noexcept {
    isAttended_.store(searching_ > 0 || (active_ >= allowed_ && isMonitored_),
                      std::memory_order_seq_cst);
}

/// Sees to it that work which waits is found. With the lock held.
ThreadPool::FollowUp ThreadPool::keepGoing() {
    FollowUp followUp;
    noteAttention();
    if (isAttended_.load(std::memory_order_relaxed) || !isWorkWaiting()) {
        return followUp;
    }
    if (active_ >= allowed_) {
        isMonitored_ = true;
        noteAttention();
        followUp.startsMonitor = true;
        return followUp;
    }
    ++active_;
    ++searching_;
    noteAttention();
    if (parked_ != nullptr) {
        followUp.wake = std::exchange(parked_, parked_->parkedBelow);
        followUp.wake->isParked = false;
    } else {
        followUp.start = &idleSlot();
        followUp.start->hasThread = true;
    }
    return followUp;
}

void ThreadPool::carryOut(const FollowUp& followUp) {
    if (followUp.wake != nullptr) {
        followUp.wake->parking.store(0, std::memory_order_release);
        futexWakeOne(followUp.wake->parking);
    } else if (followUp.start != nullptr) {
        startWorker(*followUp.start);
    } else if (followUp.startsMonitor) {
        monitor_->lookAfter(kMonitorInterval);
    }
}

void ThreadPool::startWorker(Worker& worker) {
    const auto body = [](void* context) {
        auto& self = *static_cast<Worker*>(context);
        self.pool.workerMain(self);
    };
    if (startThread("vntq-worker", body, &worker)) {
        return;
    }
    // The monitor tries again.
    bool startsMonitor;
    {
        const std::lock_guard guard(lock_);
        --active_;
        --searching_;
        worker.hasThread = false;
        startsMonitor = !std::exchange(isMonitored_, true);
        noteAttention();
    }
    if (startsMonitor) {
        monitor_->lookAfter(kMonitorInterval);
    }
}

ThreadPool::Worker& ThreadPool::idleSlot() {
    for (const auto& worker : workers_) {
        if (!worker->hasThread) {
            return *worker;
        }
    }
    return *workers_.emplace_back(std::make_unique<Worker>(*this));
}

bool ThreadPool::isWorkWaiting() const noexcept {
    return queued_ > 0 || std::ranges::any_of(workers_, [](const auto& worker) {
               return !worker->batch.isEmpty() ||
                      worker->following.load(std::memory_order_seq_cst) != nullptr;
           });
}

void ThreadPool::workerMain(Worker& self) {
    worker_ = &self;
    QueueFrame frame(nullptr);
    std::unique_lock lock(lock_);
    self.thread = currentThreadId();
    for (Work* work = search(self, lock); work != nullptr; work = next(self)) {
        auto& queue = static_cast<PoolQueue&>(*work->queue);
        frame.setQueue(&queue);
        self.runningLane = queue.lane();
        self.begun.store(self.begun.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        runAndRecycle(*work);
        queue.workEnded();
    }
}

/// The next piece of work; null when the thread is to end.
Work* ThreadPool::next(Worker& self) {
    if (self.runningLane <= mostUrgent_.load(std::memory_order_relaxed) &&
        self.following.load(std::memory_order_relaxed) != nullptr) {
        if (Work* work = self.following.exchange(nullptr, std::memory_order_acquire)) {
            ++self.followed;
            return work;
        }
    }
    self.followed = 0;
    if (self.batchLane <= mostUrgent_.load(std::memory_order_relaxed)) {
        if (Work* work = self.batch.claim()) {
            return work;
        }
    }
    std::unique_lock lock(lock_);
    ++searching_;
    return search(self, lock);
}

/// The same for a thread that is counted as searching; with the lock, which it releases.
Work* ThreadPool::search(Worker& self, std::unique_lock<UnfairLock>& lock) {
    do {
        Work* work = nullptr;
        if (active_ <= allowed_) {
            work = take(self);
            if (work == nullptr) {
                lock.unlock();
                awaitWork();
                lock.lock();
                work = take(self);
            }
            if (work == nullptr) {
                work = takeFollowing();
            }
        }
        if (work != nullptr) {
            --searching_;
            const FollowUp followUp = keepGoing();
            lock.unlock();
            carryOut(followUp);
            return work;
        }
    } while (park(self, lock));
    return nullptr;
}

/// Spins until there is work in a lane, for a moment at most.
void ThreadPool::awaitWork() const noexcept {
    for (int look = 0; look < kLooks; ++look) {
        if (mostUrgent_.load(std::memory_order_relaxed) != kNoLane) {
            return;
        }
        for (int pause = 0; pause < kPausesBetweenLooks; ++pause) {
            spinPause();
        }
    }
}

/// A piece of work to run now; more of the kind goes into the thread's batch if that is empty.
Work* ThreadPool::take(Worker& self) {
    if (queued_ == 0) {
        return steal(self);
    }
    const std::size_t lane = chooseLane();
    WorkLine& line = lanes_[lane];
    const std::size_t fairShare =
        self.batch.isEmpty() ? (line.size() + allowed_ - 1) / allowed_ : 1;
    std::array<Work*, WorkBatch::kCapacity> works;
    const std::size_t count = line.take(std::span(works).first(std::min(fairShare, works.size())));
    queued_ -= count;
    const auto waiting = std::ranges::find_if_not(lanes_, &WorkLine::isEmpty);
    mostUrgent_.store(static_cast<std::size_t>(waiting - lanes_.begin()),
                      std::memory_order_relaxed);
    return share(std::span(works).first(count), lane, self);
}

/// The first of the works; the others go into the batch, which is empty if there are any.
Work* ThreadPool::share(std::span<Work*> works, std::size_t lane, Worker& self) {
    if (works.size() > 1) {
        self.batch.fill(works.subspan(1));
        self.batchLane = lane;
    }
    return works.front();
}

/// The most urgent lane with work, but the least urgent one from time to time.
std::size_t ThreadPool::chooseLane() noexcept {
    if (++takes_ % kLowShare != 0) {
        return mostUrgent_.load(std::memory_order_relaxed);
    }
    std::size_t lane = kLaneCount - 1;
    while (lanes_[lane].isEmpty()) {
        --lane;
    }
    return lane;
}

Work* ThreadPool::steal(Worker& self) {
    std::array<Work*, WorkBatch::kCapacity> loot;
    const std::size_t most = self.batch.isEmpty() ? loot.size() : 1;
    for (const auto& victim : workers_) {
        const std::size_t count = victim->batch.claim(std::span(loot).first(most));
        if (count > 0) {
            return share(std::span(loot).first(count), victim->batchLane, self);
        }
    }
    return nullptr;
}

/// What another thread has kept for itself and has not come to.
Work* ThreadPool::takeFollowing() noexcept {
    for (const auto& victim : workers_) {
        if (victim->following.load(std::memory_order_relaxed) != nullptr) {
            if (Work* work = victim->following.exchange(nullptr, std::memory_order_acquire)) {
                return work;
            }
        }
    }
    return nullptr;
}

/// Waits until somebody wakes the thread, and counts it as searching; false when it is to end. With
/// the lock, which is released in the latter case.
bool ThreadPool::park(Worker& self, std::unique_lock<UnfairLock>& lock) {
    --searching_;
    --active_;
    self.isParked = true;
    self.parkedBelow = std::exchange(parked_, &self);
    self.parking.store(1, std::memory_order_relaxed);
    const FollowUp followUp = keepGoing();
    lock.unlock();
    carryOut(followUp);

    const std::int64_t end = monotonicNow() + kIdleTime;
    while (self.parking.load(std::memory_order_acquire) == 1 && monotonicNow() < end) {
        futexWait(self.parking, 1, end);
    }
    lock.lock();
    if (!self.isParked) {
        return true;
    }
    Worker** link = &parked_;
    while (*link != &self) {
        link = &(*link)->parkedBelow;
    }
    *link = self.parkedBelow;
    self.isParked = false;
    self.hasThread = false;
    self.thread = 0;
    lock.unlock();
    return false;
}

/// The monitor's look: allows as many threads as the machine runs at a time, beside those that are
/// blocked. When all are, it allows half as many again, since those to come may well block too.
void ThreadPool::watch() {
    const std::int64_t start = monotonicNow();
    std::vector<pid_t> suspects;
    {
        const std::lock_guard guard(lock_);
        isMonitored_ = isWorkWaiting();
        if (!isMonitored_) {
            allowed_ = baseCount_;
            noteAttention();
            isMonitored_ = isWorkWaiting();  // what came before that was noted
        }
        if (!isMonitored_) {
            return;
        }
        suspects = threadsWithoutProgress();
    }
    const auto blocked = suspects.size() - static_cast<std::size_t>(
                                               std::ranges::count_if(suspects, &isThreadRunnable));
    FollowUp followUp;
    {
        const std::lock_guard guard(lock_);
        const std::size_t extra = blocked >= active_ ? blocked / 2 : 0;
        allowed_ = std::min(baseCount_ + blocked + extra, kMostThreads);
        followUp = keepGoing();
    }
    carryOut(followUp);
    monitor_->lookAfter(std::max(kMonitorInterval, kMonitorRest * (monotonicNow() - start)));
}

/// The threads that are busy with the same piece of work as at the last look. With the lock.
std::vector<pid_t> ThreadPool::threadsWithoutProgress() {
    std::vector<pid_t> threads;
    for (const auto& worker : workers_) {
        const std::uint64_t begun = worker->begun.load(std::memory_order_relaxed);
        if (begun == std::exchange(worker->begunBefore, begun) && worker->thread != 0 &&
            !worker->isParked) {
            threads.push_back(worker->thread);
        }
    }
    return threads;
}

}  // namespace vantorq
