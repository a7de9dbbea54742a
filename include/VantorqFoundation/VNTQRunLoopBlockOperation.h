#pragma once

#include "Platform/Block.h"
#include "Platform/Export.h"
#include "VNTQRunLoopOperation.h"

namespace vantorq {

/// A run-loop operation whose work is a block. The block is expected to complete the operation
/// itself, at once or from something that the loop drives. Without a block the operation cancels
/// itself. Threads: as `VNTQRunLoopOperation`.
class VNTQ_EXPORT VNTQRunLoopBlockOperation : public VNTQRunLoopOperation {
    VNTQ_OBJECT(VNTQRunLoopBlockOperation, VNTQRunLoopOperation)
public:
    using Execution = Block<void(VNTQRunLoopBlockOperation*)>;

    VNTQRunLoopBlockOperation() noexcept = default;
    /// A new operation of exactly this class, also when sent to a subclass.
    [[nodiscard]] static Ref<VNTQRunLoopBlockOperation> operationWithExecution(Execution execution);

    [[nodiscard]] Execution executionBlock() const {
        return Execution::adopt(executionBlock_.load());
    }
    void setExecutionBlock(Execution execution) { executionBlock_.store(execution.takeObject()); }

    void main() override;

protected:
    ~VNTQRunLoopBlockOperation() override = default;

private:
    AtomicRef<NSBlock> executionBlock_;
};

}  // namespace vantorq
