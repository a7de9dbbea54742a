#include "SerialQueue.h"

#include <condition_variable>
#include <mutex>
#include <utility>

#include "CurrentQueue.h"
#include "PoolQueue.h"
#include "VantorqFoundation/Platform/NSRunLoop.h"
#include "VantorqFoundation/Platform/Trap.h"

namespace vantorq {

namespace {

/// How much work of one queue is run before others get the thread.
constexpr int kMostInOneTurn = 64;

Work* inOrder(Work* newest) noexcept {
    Work* oldest = nullptr;
    while (newest != nullptr) {
        oldest = std::exchange(newest, std::exchange(newest->next, oldest));
    }
    return oldest;
}

}  // namespace

void SerialQueue::enqueue(Work& work) {
    std::uintptr_t arrived = arrived_.load(std::memory_order_relaxed);
    do {
        work.next = arrived > kOwned ? reinterpret_cast<Work*>(arrived) : nullptr;
    } while (!arrived_.compare_exchange_weak(arrived, reinterpret_cast<std::uintptr_t>(&work),
                                             std::memory_order_acq_rel, std::memory_order_relaxed));
    if (arrived == kIdle) {
        requestDrain();
    }
}

void SerialQueue::requestDrain() {
    PoolQueue::global(qos()).async([self = Ref<SerialQueue>(this)] { self->drain(); });
}

void SerialQueue::drain() {
    const QueueFrame frame(this);
    for (int i = 0; i < kMostInOneTurn; ++i) {
        Work* work = nextWork();
        if (work == nullptr) {
            return;
        }
        runAndRecycle(*work);
    }
    if (ready_ != nullptr || !giveUp()) {
        requestDrain();
    }
}

/// Null when the queue was given up.
Work* SerialQueue::nextWork() noexcept {
    if (ready_ == nullptr) {
        if (giveUp()) {
            return nullptr;
        }
        ready_ =
            inOrder(reinterpret_cast<Work*>(arrived_.exchange(kOwned, std::memory_order_acquire)));
    }
    return std::exchange(ready_, ready_->next);
}

/// False when there is more to do.
bool SerialQueue::giveUp() noexcept {
    std::uintptr_t nothing = kOwned;
    return arrived_.compare_exchange_strong(nothing, kIdle, std::memory_order_release,
                                            std::memory_order_relaxed);
}

void SerialQueue::runAndWait(void (*function)(void*) noexcept, void* context) {
    if (QueueFrame::isWithin(*this)) {
        VNTQ_TRAP("DispatchQueue: sync on a serial queue from within its own work");
    }
    std::uintptr_t idle = kIdle;
    if (!arrived_.compare_exchange_strong(idle, kOwned, std::memory_order_acquire,
                                          std::memory_order_relaxed)) {
        runInTurn(function, context);
        return;
    }
    {
        const QueueFrame frame(this);
        function(context);
    }
    if (!giveUp()) {
        requestDrain();
    }
}

void SerialQueue::runInTurn(void (*function)(void*) noexcept, void* context) {
    std::mutex mutex;
    std::condition_variable ended;
    bool hasEnded = false;
    async([&] {
        function(context);
        const std::lock_guard guard(mutex);
        hasEnded = true;
        ended.notify_one();
    });
    std::unique_lock lock(mutex);
    ended.wait(lock, [&] { return hasEnded; });
}

MainQueue& MainQueue::shared() {
    static MainQueue& queue = immortal(Ref<MainQueue>::adopt(new MainQueue));
    return queue;
}

bool MainQueue::serve() {
    if (isIdle() || isServing()) {
        return false;
    }
    drain();
    return true;
}

bool MainQueue::isServing() noexcept {
    return QueueFrame::isWithin(shared());
}

void MainQueue::requestDrain() {
    NSRunLoop::main()->wakeUp();
}

void MainQueue::runAndWait(void (*function)(void*) noexcept, void* context) {
    if (isMainThread()) {
        VNTQ_TRAP("DispatchQueue: sync on the main queue from the main thread");
    }
    runInTurn(function, context);
}

}  // namespace vantorq
