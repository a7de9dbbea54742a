#pragma once

#include "Platform/Block.h"
#include "Platform/Export.h"
#include "VNTQOperation.h"

namespace vantorq {

/// An operation whose work is a block.
///
///     auto load = VNTQBlockOperation::operationWithExecution([](VNTQBlockOperation* self) {
///         self->completeWithSuccess(loadSettings());
///     });
///
/// The block is expected to complete the operation itself, at once or later, through the operation
/// that it is given. Without a block the operation cancels itself. Threads: as `VNTQOperation`.
class VNTQ_EXPORT VNTQBlockOperation : public VNTQOperation {
    VNTQ_OBJECT(VNTQBlockOperation, VNTQOperation)
public:
    using Execution = Block<void(VNTQBlockOperation*)>;

    VNTQBlockOperation() noexcept = default;
    /// A new operation of exactly this class, also when sent to a subclass.
    [[nodiscard]] static Ref<VNTQBlockOperation> operationWithExecution(Execution execution);

    [[nodiscard]] Execution executionBlock() const {
        return Execution::adopt(executionBlock_.load());
    }
    void setExecutionBlock(Execution execution) { executionBlock_.store(execution.takeObject()); }

    void main() override;

protected:
    ~VNTQBlockOperation() override = default;

private:
    AtomicRef<NSBlock> executionBlock_;
};

}  // namespace vantorq
