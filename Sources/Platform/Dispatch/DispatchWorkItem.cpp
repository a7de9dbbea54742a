#include "VantorqFoundation/Platform/DispatchWorkItem.h"

#include <chrono>
#include <cmath>

#include "MonotonicTime.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/Trap.h"

namespace vantorq {

DispatchWorkItem::DispatchWorkItem(Block<void()> block) : block_(std::move(block)) {
    if (!block_) {
        VNTQ_TRAP("DispatchWorkItem: made of an empty block");
    }
}

void DispatchWorkItem::perform() noexcept {
    if (!isCancelled()) {
        block_();
    }
    complete();
}

void DispatchWorkItem::complete() {
    std::vector<Follower> followers;
    {
        const std::lock_guard guard(mutex_);
        isComplete_ = true;
        followers.swap(followers_);
        completed_.notify_all();
    }
    for (Follower& follower : followers) {
        follower.queue->async(std::move(follower.block));
    }
}

void DispatchWorkItem::cancel() noexcept {
    const std::lock_guard guard(mutex_);
    isCancelled_ = true;
}

bool DispatchWorkItem::isCancelled() const noexcept {
    const std::lock_guard guard(mutex_);
    return isCancelled_;
}

void DispatchWorkItem::wait() {
    std::unique_lock lock(mutex_);
    completed_.wait(lock, [&] { return isComplete_; });
}

bool DispatchWorkItem::wait(double seconds) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point limit{std::chrono::nanoseconds(instantAfterSeconds(seconds))};
    std::unique_lock lock(mutex_);
    return completed_.wait_until(lock, limit, [&] { return isComplete_; });
}

void DispatchWorkItem::notify(DispatchQueue& queue, Block<void()> block) {
    {
        const std::lock_guard guard(mutex_);
        if (!isComplete_) {
            followers_.push_back({queue, std::move(block)});
            return;
        }
    }
    queue.async(std::move(block));
}

namespace {

void waitForItem(DispatchWorkItem& item) {
    item.wait();
}

constexpr PropertyInfo kProperties[] = {
    property<&DispatchWorkItem::isCancelled>("cancelled", "isCancelled"),
};
constexpr MethodInfo kMethods[] = {
    method<&DispatchWorkItem::perform>("perform"),
    method<&DispatchWorkItem::cancel>("cancel"),
    method<&waitForItem>("wait"),
    method<&DispatchWorkItem::notify>("notify:block:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(DispatchWorkItem, {.properties = kProperties, .methods = kMethods})

}  // namespace vantorq
