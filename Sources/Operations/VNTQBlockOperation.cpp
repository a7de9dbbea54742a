#include "VantorqFoundation/VNTQBlockOperation.h"

#include <utility>

#include "VantorqFoundation/Platform/Class.h"

namespace vantorq {

Ref<VNTQBlockOperation> VNTQBlockOperation::operationWithExecution(Execution execution) {
    auto operation = make<VNTQBlockOperation>();
    operation->setExecutionBlock(std::move(execution));
    return operation;
}

void VNTQBlockOperation::main() {
    if (const auto execution = executionBlock()) {
        execution(this);
    } else {
        cancel();
    }
}

namespace {

constexpr PropertyInfo kProperties[] = {
    property<&VNTQBlockOperation::executionBlock, &VNTQBlockOperation::setExecutionBlock>(
        "executionBlock"),
};
constexpr MethodInfo kMethods[] = {
    classMethod<&VNTQBlockOperation::operationWithExecution>("operationWithExecution:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(VNTQBlockOperation, {.properties = kProperties, .methods = kMethods})

}  // namespace vantorq
