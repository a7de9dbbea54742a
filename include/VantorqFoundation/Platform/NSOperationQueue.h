#pragma once

#include <memory>

#include "Block.h"
#include "DispatchQueue.h"
#include "Export.h"
#include "NSArray.h"
#include "NSObject.h"
#include "NSOperation.h"

namespace vantorq {

/// Starts operations when they are ready, in the order of their priority and then of their arrival,
/// no more at a time than it is allowed to.
///
/// A queue learns all it knows of an operation from its change notifications "isReady",
/// "isExecuting", "isFinished" and "isCancelled". Each operation is started by a block on the
/// underlying dispatch queue. A queue stays alive while it has operations, also suspended.
///
/// Threads: any.
class VNTQ_EXPORT NSOperationQueue : public NSObject {
    VNTQ_OBJECT(NSOperationQueue, NSObject)
public:
    /// No limit but the machine's: the dispatch pool decides.
    static constexpr NSInteger kDefaultMaxConcurrentOperationCount = -1;

    NSOperationQueue();
    /// Starts its operations one at a time on the main thread, from its run loop.
    [[nodiscard]] static Ref<NSOperationQueue> mainQueue();
    /// The queue that has started the work that the calling thread is doing, or nil.
    [[nodiscard]] static Ref<NSOperationQueue> currentQueue();

    /// Takes the operation. One that is, or has been, in a queue, that is executing, or that has
    /// announced its end, traps.
    void addOperation(NSOperation& operation);
    /// Adds them in order, and waits for all of them in the second case.
    void addOperations(const NSArray& operations, bool waitUntilFinished);
    void addOperationWithBlock(Block<void()> block);

    /// Those that have not finished, in the order of their arrival.
    [[nodiscard]] Ref<NSArray> operations() const;
    [[nodiscard]] NSUInteger operationCount() const;
    /// Sends `cancel` to every operation of the queue. Those not yet started are then started, so
    /// that they can finish, unless the queue is suspended.
    void cancelAllOperations();
    /// Blocks until the queue is empty. Must not be called from one of its operations.
    void waitUntilAllOperationsAreFinished();

    /// −1, or the number of operations that may execute at a time, 0 included. Others trap.
    [[nodiscard]] NSInteger maxConcurrentOperationCount() const;
    void setMaxConcurrentOperationCount(NSInteger count);
    /// A suspended queue starts nothing; what is executing goes on.
    [[nodiscard]] bool isSuspended() const;
    void setSuspended(bool suspended);
    [[nodiscard]] Ref<NSString> name() const;
    void setName(const Ref<NSString>& name);
    /// Nil, the default, is the global queue of default quality of service.
    [[nodiscard]] Ref<DispatchQueue> underlyingQueue() const;
    void setUnderlyingQueue(const Ref<DispatchQueue>& queue);

    void observeValueForKeyPath(const NSString& key, NSObject& object, const KeyValueChange& change,
                                void* context) override;

protected:
    ~NSOperationQueue() override;

private:
    struct State;

    void consider(NSOperation& operation);
    void noteStarted(NSOperation& operation);
    void noteFinished(NSOperation& operation);
    void startReadyOperations();
    void putBack(NSOperation& operation);

    std::unique_ptr<State> state_;
};

}  // namespace vantorq
