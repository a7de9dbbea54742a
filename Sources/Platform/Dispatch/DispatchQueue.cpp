#include "VantorqFoundation/Platform/DispatchQueue.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <unistd.h>

#include "CurrentQueue.h"
#include "MonotonicTime.h"
#include "PoolQueue.h"
#include "SerialQueue.h"
#include "Thread.h"
#include "ThreadPool.h"
#include "TimerStore.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/DispatchWorkItem.h"

namespace vantorq {

constinit thread_local QueueFrame* QueueFrame::innermost_ = nullptr;

bool QueueFrame::isWithin(const DispatchQueue& queue) noexcept {
    for (const QueueFrame* frame = innermost_; frame != nullptr; frame = frame->outer_) {
        if (frame->queue_ == &queue) {
            return true;
        }
    }
    return false;
}

namespace {

/// From the most urgent on; the place is the lane in the pool.
constexpr std::array kQualities{DispatchQoS::userInteractive, DispatchQoS::userInitiated,
                                DispatchQoS::default_, DispatchQoS::utility,
                                DispatchQoS::background};
static_assert(kQualities.size() == ThreadPool::kLaneCount);

constexpr std::array<std::string_view, kQualities.size()> kGlobalLabels{
    "global.user-interactive", "global.user-initiated", "global.default", "global.utility",
    "global.background"};

std::size_t laneOf(DispatchQoS qos) {
    const auto found = std::ranges::find(kQualities, qos);
    if (found == kQualities.end()) {
        VNTQ_TRAP("DispatchQueue: no such quality of service");
    }
    return static_cast<std::size_t>(found - kQualities.begin());
}

/// Work that is queued when its time has come.
struct DelayedWork : TimerEntry {
    DelayedWork(DispatchQueue& onto, Work& what)
        : TimerEntry([](TimerEntry& entry) {
              const std::unique_ptr<DelayedWork> self(static_cast<DelayedWork*>(&entry));
              return DueWork{std::move(self->queue), &self->work};
          }),
          queue(onto),
          work(what) {}

    Ref<DispatchQueue> queue;
    Work& work;
};

}  // namespace

PoolQueue::PoolQueue(std::string_view label, DispatchQoS qos)
    : DispatchQueue(label, qos), lane_(laneOf(qos)) {}

PoolQueue& PoolQueue::global(DispatchQoS qos) {
    static const std::array<PoolQueue*, kQualities.size()> queues = [] {
        std::array<PoolQueue*, kQualities.size()> made;
        for (std::size_t i = 0; i < made.size(); ++i) {
            made[i] = &immortal(make<PoolQueue>(kGlobalLabels[i], kQualities[i]));
        }
        return made;
    }();
    return *queues[laneOf(qos)];
}

void PoolQueue::enqueue(Work& work) {
    retain();
    work.queue = this;
    ThreadPool::shared().submit(lane_, work);
}

void PoolQueue::runAndWait(void (*function)(void*) noexcept, void* context) {
    const QueueFrame frame(this);
    function(context);
}

Ref<DispatchQueue> DispatchQueue::main() {
    return MainQueue::shared();
}

Ref<DispatchQueue> DispatchQueue::global(DispatchQoS qos) {
    return PoolQueue::global(qos);
}

Ref<DispatchQueue> DispatchQueue::globalQueueWithQualityOfService(NSUInteger qos) {
    for (const DispatchQoS one : kQualities) {
        if (static_cast<NSUInteger>(one) == qos) {
            return global(one);
        }
    }
    return nullptr;
}

Ref<DispatchQueue> DispatchQueue::serial(std::string_view label, DispatchQoS qos) {
    return make<SerialQueue>(label, qos);
}

Ref<DispatchQueue> DispatchQueue::concurrent(std::string_view label, DispatchQoS qos) {
    return make<PoolQueue>(label, qos);
}

DispatchQueue* DispatchQueue::current() noexcept {
    DispatchQueue* queue = QueueFrame::currentQueue();
    return queue == nullptr && isMainThread() ? &MainQueue::shared() : queue;
}

bool DispatchQueue::isMainThread() noexcept {
    static thread_local const bool isMain = currentThreadId() == ::getpid();
    return isMain;
}

void DispatchQueue::async(DispatchWorkItem& item) {
    async([item = Ref<DispatchWorkItem>(item)] { item->perform(); });
}

void DispatchQueue::asyncAfter(double seconds, DispatchWorkItem& item) {
    asyncAfter(seconds, [item = Ref<DispatchWorkItem>(item)] { item->perform(); });
}

void DispatchQueue::enqueueAfter(double seconds, Work& work) {
    constexpr std::int64_t kMostLeeway = 50'000'000;
    const std::int64_t delay = nanosecondsFromSeconds(seconds);
    if (delay == 0) {
        enqueue(work);
        return;
    }
    const std::int64_t due = instantAfter(monotonicNow(), delay);
    TimerStore::monotonic().arm(*new DelayedWork(*this, work), due,
                                instantAfter(due, std::min(delay / 100, kMostLeeway)));
}

Ref<NSString> DispatchQueue::description() const {
    return NSString::string("<DispatchQueue: " + label_->utf8() + ">");
}

namespace {

void performAsync(DispatchQueue& queue, Block<void()> block) {
    queue.async(std::move(block));
}
void performAndWait(DispatchQueue& queue, Block<void()> block) {
    queue.sync(block);
}

constexpr PropertyInfo kProperties[] = {
    property<&DispatchQueue::label>("label"),
    property<&DispatchQueue::qos>("qualityOfService"),
    classProperty<&DispatchQueue::main>("mainQueue"),
};
constexpr MethodInfo kMethods[] = {
    classMethod<&DispatchQueue::globalQueueWithQualityOfService>(
        "globalQueueWithQualityOfService:"),
    method<&performAsync>("async:"),
    method<&performAndWait>("sync:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(DispatchQueue, {.properties = kProperties, .methods = kMethods})

}  // namespace vantorq
