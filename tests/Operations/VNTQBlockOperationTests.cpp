#include "VantorqFoundation/VNTQBlockOperation.h"

#include <gtest/gtest.h>

#include "Support/Operations.h"
#include "Support/Trap.h"

namespace vantorq {

class SpecialBlockOperation : public VNTQBlockOperation {
    VNTQ_OBJECT(SpecialBlockOperation, VNTQBlockOperation)
};
VNTQ_DEFINE_CLASS(SpecialBlockOperation, {})

namespace {

TEST(BlockOperation, RunsItsBlockWithItself) {
    VNTQOperation* given = nullptr;
    const auto operation =
        VNTQBlockOperation::operationWithExecution([&](VNTQBlockOperation* self) { given = self; });
    operation->start();
    EXPECT_EQ(given, operation.get());
    EXPECT_TRUE(operation->isExecuting());  // the block has not completed it
    operation->completeWithSuccess();
}

TEST(BlockOperation, EndsWithWhatItsBlockCompletesItWith) {
    const auto operation = VNTQBlockOperation::operationWithExecution(
        [](VNTQBlockOperation* self) { self->completeWithSuccess("value"_ns); });
    operation->setTimeoutInterval(100);
    operation->start();
    EXPECT_TRUE(operation->isFinished());
    EXPECT_EQ(operation->result()->value(), id("value"_ns));
    EXPECT_FALSE(operation->invalidateTimer());  // done within main, so no timer was armed
}

TEST(BlockOperation, WithoutABlockCancelsItself) {
    const auto operation = make<VNTQBlockOperation>();
    operation->setExplicitResultDispatch(true);
    bool deliveredNil = false;
    operation->onResult([&](VNTQResult* result) { deliveredNil = result == nullptr; });
    operation->start();
    EXPECT_TRUE(operation->isCancelled());
    EXPECT_TRUE(operation->isFinished());
    EXPECT_TRUE(deliveredNil);
}

TEST(BlockOperation, KeepsTheBlockThatIsSet) {
    const auto operation = make<VNTQBlockOperation>();
    EXPECT_FALSE(operation->executionBlock());
    const VNTQBlockOperation::Execution block = [](VNTQBlockOperation*) {};
    operation->setExecutionBlock(block);
    EXPECT_EQ(operation->executionBlock(), block);
}

TEST(BlockOperation, KeepsTheBlockThatIsSetByMessage) {
    const auto operation = make<VNTQBlockOperation>();
    EXPECT_EQ(send<id>(operation, "executionBlock"_sel), nullptr);
    send<void>(operation, "setExecutionBlock:"_sel,
               [](VNTQBlockOperation* self) { self->completeWithSuccess(); });
    EXPECT_EQ(send<id>(operation, "executionBlock"_sel), operation->executionBlock().object());
    operation->start();
    EXPECT_EQ(operation->result(), VNTQResult::success());
}

TEST(BlockOperation, MadeByMessageToASubclassIsOfExactlyThisClass) {
    const id made = send<id>(SpecialBlockOperation::classObject(), "operationWithExecution:"_sel,
                             [](VNTQBlockOperation* self) { self->completeWithSuccess(); });
    EXPECT_TRUE(made->isMemberOfClass(VNTQBlockOperation::classObject()));
    send<void>(made, "start"_sel);
    EXPECT_TRUE(send<bool>(made, "isFinished"_sel));
}

TEST(BlockOperationDeathTest, TrapsOnABlockOfAnotherShape) {
    EXPECT_TRAP(send<id>(VNTQBlockOperation::classObject(), "operationWithExecution:"_sel, [] {}),
                "a block of signature v@ is required");
    EXPECT_TRAP(send<void>(make<VNTQBlockOperation>(), "setExecutionBlock:"_sel, [] {}),
                "a block of signature v@ is required");
}

}  // namespace
}  // namespace vantorq
