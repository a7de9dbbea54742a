#pragma once

#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

#include "Block.h"
#include "DispatchQueue.h"
#include "Export.h"
#include "NSObject.h"

namespace vantorq {

/// A block that can be cancelled before it starts, waited for, and followed by others.
///
///     auto item = make<DispatchWorkItem>([] { refresh(); });
///     DispatchQueue::main()->asyncAfter(0.3, *item);
///     ...
///     item->cancel();
///
/// An item is complete when its first execution has ended. The execution of a cancelled item skips
/// the block, and completes it as well.
///
/// Threads: any.
class VNTQ_EXPORT DispatchWorkItem final : public NSObject {
    VNTQ_OBJECT(DispatchWorkItem, NSObject)
public:
    /// An empty block traps.
    explicit DispatchWorkItem(Block<void()> block);

    /// Executes the item on the calling thread. An exception that leaves the block ends the
    /// process.
    void perform() noexcept;
    /// Makes executions that have not begun skip the block; one that has begun is not disturbed.
    void cancel() noexcept;
    [[nodiscard]] bool isCancelled() const noexcept;

    /// Blocks until the item is complete: for ever when nobody executes it.
    void wait();
    /// The same for some seconds at most; a negative number, or NaN, does not wait. Returns whether
    /// the item is complete.
    [[nodiscard]] bool wait(double seconds);
    /// Queues `block` when the item completes, or at once when it has.
    void notify(DispatchQueue& queue, Block<void()> block);

private:
    struct Follower {
        Ref<DispatchQueue> queue;
        Block<void()> block;
    };

    ~DispatchWorkItem() override = default;
    void complete();

    const Block<void()> block_;
    mutable std::mutex mutex_;
    std::condition_variable completed_;
    std::vector<Follower> followers_;
    bool isComplete_ = false;
    bool isCancelled_ = false;
};

}  // namespace vantorq
