#include "VantorqFoundation/VNTQRunLoopBlockOperation.h"

#include <utility>

#include "VantorqFoundation/Platform/Class.h"

namespace vantorq {

Ref<VNTQRunLoopBlockOperation> VNTQRunLoopBlockOperation::operationWithExecution(
    Execution execution) {
    auto operation = make<VNTQRunLoopBlockOperation>();
    operation->setExecutionBlock(std::move(execution));
    return operation;
}

void VNTQRunLoopBlockOperation::main() {
    if (const auto execution = executionBlock()) {
        execution(this);
    } else {
        cancel();
    }
}

namespace {

constexpr PropertyInfo kProperties[] = {
    property<&VNTQRunLoopBlockOperation::executionBlock,
             &VNTQRunLoopBlockOperation::setExecutionBlock>("executionBlock"),
};
constexpr MethodInfo kMethods[] = {
    classMethod<&VNTQRunLoopBlockOperation::operationWithExecution>("operationWithExecution:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(VNTQRunLoopBlockOperation, {.properties = kProperties, .methods = kMethods})

}  // namespace vantorq
