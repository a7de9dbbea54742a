#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "Block.h"
#include "DispatchQueue.h"
#include "Export.h"
#include "NSObject.h"
#include "NSString.h"

namespace vantorq {

enum class NSOperationQueuePriority : NSInteger {
    veryLow = -8,
    low = -4,
    normal = 0,
    high = 4,
    veryHigh = 8,
};

/// A unit of work with a life: ready, executing, finished, or cancelled.
///
/// This base class is synchronous: `start` runs `main` on the calling thread and finishes when it
/// returns. An asynchronous subclass overrides `start`, `isExecuting`, `isFinished` and
/// `isAsynchronous`, and sends the change notifications for "isExecuting" and "isFinished" itself;
/// queues, dependents and `waitUntilFinished` rely on nothing but these notifications.
///
/// An operation is ready when all its dependencies have finished, or when it was cancelled: a
/// cancelled operation must still be started, so that it can finish. An operation lets go of its
/// dependencies when it finishes. Operations that depend on each other in a circle never become
/// ready.
///
/// Threads: any.
class VNTQ_EXPORT NSOperation : public NSObject {
    VNTQ_OBJECT(NSOperation, NSObject)
public:
    NSOperation() noexcept = default;

    /// Runs `main` and finishes; without `main` when cancelled. The second start of one operation
    /// does nothing. Starting an operation that is not ready traps.
    virtual void start();
    /// The work. Empty here. A long one looks at `isCancelled` from time to time.
    virtual void main();
    /// Marks the operation as cancelled, once, and announces "isCancelled" and "isReady". Does
    /// nothing once it has finished. It does not stop what is running.
    virtual void cancel();

    [[nodiscard]] virtual bool isCancelled() const noexcept {
        return cancelled_.load(std::memory_order_seq_cst);
    }
    [[nodiscard]] virtual bool isExecuting() const {
        return phase_.load(std::memory_order_seq_cst) == Phase::executing;
    }
    [[nodiscard]] virtual bool isFinished() const {
        return phase_.load(std::memory_order_seq_cst) == Phase::finished;
    }
    [[nodiscard]] virtual bool isReady() const {
        return unfinishedDependencies_.load(std::memory_order_seq_cst) == 0 || isCancelled();
    }
    [[nodiscard]] virtual bool isAsynchronous() const { return false; }

    /// Makes this operation wait for `dependency`. No effect once this one is executing.
    void addDependency(NSOperation& dependency);
    void removeDependency(NSOperation& dependency);
    [[nodiscard]] Ref<NSArray> dependencies() const;

    /// Where the operation stands among the ready ones of its queue. Read when it becomes ready.
    [[nodiscard]] NSOperationQueuePriority queuePriority() const noexcept { return priority_; }
    /// Other numbers are brought to the nearest of the five towards normal.
    void setQueuePriority(NSOperationQueuePriority priority) noexcept;
    [[nodiscard]] Ref<NSString> name() const;
    void setName(const Ref<NSString>& name);

    /// Called once, on the global queue, after the operation has announced that it is finished.
    [[nodiscard]] Block<void()> completionBlock() const;
    void setCompletionBlock(Block<void()> block);

    /// Blocks until the operation has finished. Must not be called from within the operation.
    void waitUntilFinished();

    /// Calls the base, and acts on the end of the operation.
    void didChangeValueForKey(const NSString& key) override;
    void observeValueForKeyPath(const NSString& key, NSObject& object, const KeyValueChange& change,
                                void* context) override;

protected:
    ~NSOperation() override;

private:
    friend class NSOperationQueue;

    enum class Phase : std::uint8_t { pending, executing, finished };
    struct Extras;

    Extras& extras() const;
    Extras* existingExtras() const noexcept { return extras_.load(std::memory_order_seq_cst); }
    void finish();
    void announceEnd();
    void dependencyFinished(NSOperation& dependency);

    // What few operations have: dependencies, a name, a completion block, threads that wait.
    mutable std::atomic<Extras*> extras_{nullptr};
    std::atomic<std::uint32_t> unfinishedDependencies_{0};
    std::atomic<NSOperationQueuePriority> priority_{NSOperationQueuePriority::normal};
    std::atomic<Phase> phase_{Phase::pending};
    std::atomic<bool> cancelled_{false};
    std::atomic<bool> hasStarted_{false};
    std::atomic<bool> isQueued_{false};      // belongs, or belonged, to a queue
    std::atomic<bool> endAnnounced_{false};  // "isFinished" was announced
};

/// An operation that runs blocks, one after the other, on the thread that starts it.
class VNTQ_EXPORT NSBlockOperation : public NSOperation {
    VNTQ_OBJECT(NSBlockOperation, NSOperation)
public:
    NSBlockOperation() = default;
    [[nodiscard]] static Ref<NSBlockOperation> blockOperationWithBlock(Block<void()> block);

    /// Adds a block. Not once the operation has been started or queued. An empty block traps.
    void addExecutionBlock(Block<void()> block);
    void main() override;

protected:
    ~NSBlockOperation() override = default;

private:
    std::vector<Block<void()>> blocks_;
};

/// The names under which an operation announces its changes.
namespace operation_keys {
VNTQ_EXPORT extern NSString& isExecuting;
VNTQ_EXPORT extern NSString& isFinished;
VNTQ_EXPORT extern NSString& isReady;
VNTQ_EXPORT extern NSString& isCancelled;
}  // namespace operation_keys

}  // namespace vantorq
