#include "VantorqFoundation/VNTQRunLoopBlockOperation.h"

#include <gtest/gtest.h>

#include "Support/Operations.h"

namespace vantorq {

class SpecialRunLoopBlockOperation : public VNTQRunLoopBlockOperation {
    VNTQ_OBJECT(SpecialRunLoopBlockOperation, VNTQRunLoopBlockOperation)
};
VNTQ_DEFINE_CLASS(SpecialRunLoopBlockOperation, {})

namespace {

TEST(RunLoopBlockOperation, TurnsTheLoopUntilItsBlocksWorkIsDone) {
    const auto operation =
        VNTQRunLoopBlockOperation::operationWithExecution([](VNTQRunLoopBlockOperation* self) {
            NSTimer::scheduledTimerWithTimeInterval(
                0.01, false, [operation = Ref<VNTQRunLoopBlockOperation>(self)](NSTimer*) {
                    operation->completeWithSuccess("done"_ns);
                });
        });
    operation->startAndWaitFor(60);
    EXPECT_EQ(operation->result()->value(), id("done"_ns));
}

TEST(RunLoopBlockOperation, ThatCompletesInItsBlockNeverTurnsTheLoop) {
    bool touched = false;
    const auto loop = NSRunLoop::current();
    loop->performBlock([&] { touched = true; });
    const auto operation = VNTQRunLoopBlockOperation::operationWithExecution(
        [](VNTQRunLoopBlockOperation* self) { self->completeWithSuccess(); });
    operation->startAndWaitFor(60);
    EXPECT_TRUE(operation->isFinished());
    EXPECT_FALSE(operation->invalidateTimer());
    EXPECT_FALSE(touched);
    EXPECT_TRUE(loop->runMode(NSDefaultRunLoopMode, *NSDate::distantPast()));
}

TEST(RunLoopBlockOperation, WithoutABlockCancelsItself) {
    const auto operation = make<VNTQRunLoopBlockOperation>();
    operation->startAndWaitFor(60);
    EXPECT_TRUE(operation->isCancelled());
    EXPECT_EQ(operation->result(), nullptr);
}

TEST(RunLoopBlockOperation, KeepsTheBlockThatIsSetByMessage) {
    const auto operation = make<VNTQRunLoopBlockOperation>();
    EXPECT_EQ(send<id>(operation, "executionBlock"_sel), nullptr);
    send<void>(operation, "setExecutionBlock:"_sel,
               [](VNTQRunLoopBlockOperation* self) { self->completeWithSuccess(); });
    EXPECT_EQ(send<id>(operation, "executionBlock"_sel), operation->executionBlock().object());
    operation->start();
    EXPECT_EQ(operation->result(), VNTQResult::success());
}

TEST(RunLoopBlockOperation, MadeByMessageToASubclassIsOfExactlyThisClass) {
    const id made =
        send<id>(SpecialRunLoopBlockOperation::classObject(), "operationWithExecution:"_sel,
                 [](VNTQRunLoopBlockOperation* self) { self->completeWithSuccess(); });
    EXPECT_TRUE(made->isMemberOfClass(VNTQRunLoopBlockOperation::classObject()));
    EXPECT_TRUE(send<id>(made, "executionBlock"_sel)->isKindOfClass(NSBlock::classObject()));
    EXPECT_TRUE(send<bool>(made, "explicitResultDispatch"_sel));
}

}  // namespace
}  // namespace vantorq
