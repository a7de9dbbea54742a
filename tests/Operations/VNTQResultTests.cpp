#include "VantorqFoundation/VNTQResult.h"

#include <array>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "Support/Threads.h"
#include "Support/Trap.h"
#include "VantorqFoundation/VantorqFoundation.h"

namespace vantorq {

class SpecialResult : public VNTQResult {
    VNTQ_OBJECT(SpecialResult, VNTQResult)
};
VNTQ_DEFINE_CLASS(SpecialResult, {})

namespace {

TEST(Result, OfASuccessHasAValueAndNoError) {
    const id value("value"_ns);
    const auto result = VNTQResult::resultWithSuccess(value);
    EXPECT_EQ(result->type(), VNTQResultTypeSuccess);
    EXPECT_EQ(result->value(), value);
    EXPECT_EQ(result->error(), nullptr);
}

TEST(Result, OfAFailureHasAnErrorAndNoValue) {
    const id error(vntq_error(3, nullptr));
    const auto result = VNTQResult::resultWithFailure(error);
    EXPECT_EQ(result->type(), VNTQResultTypeFailure);
    EXPECT_EQ(result->error(), error);
    EXPECT_EQ(result->value(), nullptr);
}

TEST(Result, OfASuccessWithNilHasNilAndNotTheNullObject) {
    EXPECT_EQ(VNTQResult::resultWithSuccess(nullptr)->value(), nullptr);
}

TEST(Result, MadePlainlyIsNeitherSuccessNorFailure) {
    const auto result = make<VNTQResult>();
    EXPECT_EQ(result->type(), VNTQResultTypeNone);
    EXPECT_EQ(result->value(), nullptr);
    EXPECT_EQ(result->error(), nullptr);
}

TEST(Result, KindsHaveTheirNumbers) {
    EXPECT_EQ(static_cast<NSUInteger>(VNTQResultTypeNone), 0U);
    EXPECT_EQ(static_cast<NSUInteger>(VNTQResultTypeSuccess), 1U);
    EXPECT_EQ(static_cast<NSUInteger>(VNTQResultTypeFailure), 2U);
}

TEST(Result, PropertiesCanBeWritten) {
    const auto result = make<VNTQResult>();
    result->setType(VNTQResultTypeFailure);
    result->setError("error"_ns);
    result->setValue("value"_ns);
    EXPECT_EQ(result->type(), VNTQResultTypeFailure);
    EXPECT_EQ(result->error(), id("error"_ns));
    EXPECT_EQ(result->value(), id("value"_ns));
}

TEST(Result, CopiesShareThePayload) {
    const id value(make<NSMutableString>("value"_ns));
    const auto success = VNTQResult::resultWithSuccess(value);
    const auto copied = objectCast<VNTQResult>(success->copy());
    EXPECT_NE(copied, success);
    EXPECT_EQ(copied->type(), VNTQResultTypeSuccess);
    EXPECT_EQ(copied->value(), value);

    const id error(vntq_error(3, nullptr));
    const auto failure = objectCast<VNTQResult>(VNTQResult::resultWithFailure(error)->copy());
    EXPECT_EQ(failure->type(), VNTQResultTypeFailure);
    EXPECT_EQ(failure->error(), error);
}

TEST(Result, CopiesAreOfExactlyThisClass) {
    const auto special = make<SpecialResult>();
    special->initWithSuccess("value"_ns);
    const id copied = special->copy();
    EXPECT_TRUE(copied->isMemberOfClass(VNTQResult::classObject()));
    EXPECT_TRUE(special->conformsToProtocol(NSCopying));
}

TEST(Result, OfNoKindCopiesToNil) {
    EXPECT_EQ(make<VNTQResult>()->copy(), nullptr);
}

TEST(Result, DescribesItsKindAndPayload) {
    const auto success = VNTQResult::resultWithSuccess("value"_ns);
    EXPECT_EQ(success->description()->utf8(),
              success->NSObject::description()->utf8() + " : Success { value }");
    const auto failure = VNTQResult::resultWithFailure("reason"_ns);
    EXPECT_EQ(failure->description()->utf8(),
              failure->NSObject::description()->utf8() + " : Failure { reason }");
    const auto none = make<VNTQResult>();
    EXPECT_EQ(none->description()->utf8(), none->NSObject::description()->utf8());
    EXPECT_TRUE(none->description()->hasPrefix("<VNTQResult: 0x"_ns));
}

TEST(Result, OfNilDescribesTheNil) {
    EXPECT_TRUE(VNTQResult::resultWithSuccess(nullptr)->description()->hasSuffix(
        " : Success { (null) }"_ns));
}

TEST(StandardResults, AreTheSameEachTime) {
    EXPECT_EQ(VNTQResult::success(), VNTQResult::success());
    EXPECT_EQ(VNTQResult::failure(), VNTQResult::failure());
}

TEST(StandardResults, SucceedWithTheNullObject) {
    EXPECT_EQ(VNTQResult::success()->type(), VNTQResultTypeSuccess);
    EXPECT_EQ(VNTQResult::success()->value(), id(NSNull::null()));
}

TEST(StandardResults, FailWithTheLibrarysGenericError) {
    EXPECT_EQ(VNTQResult::failure()->type(), VNTQResultTypeFailure);
    const auto error = objectCast<NSError>(VNTQResult::failure()->error());
    ASSERT_NE(error, nullptr);
    EXPECT_TRUE(error->domain()->isEqualToString(&VNTQFoundationErrorDomain));
    EXPECT_EQ(error->code(), 0);
    EXPECT_EQ(error->userInfo()->count(), 1U);
    EXPECT_EQ(error->localizedDescription()->utf8(), "Operation could not be completed.");
}

TEST(StandardResults, AreMadeOnceWhenAskedForByManyThreads) {
    constexpr int kThreads = 4;
    std::array<std::pair<Ref<VNTQResult>, Ref<VNTQResult>>, kThreads> seen;
    test::together(kThreads, [&](int t) {
        seen[static_cast<std::size_t>(t)] = {VNTQResult::success(), VNTQResult::failure()};
    });
    for (const auto& [success, failure] : seen) {
        EXPECT_EQ(success, VNTQResult::success());
        EXPECT_EQ(failure, VNTQResult::failure());
    }
}

TEST(ResultMessages, AnswerAsTheTypedTwinsDo) {
    const auto& cls = VNTQResult::classObject();
    const id value("value"_ns);
    const auto success = send<Ref<VNTQResult>>(cls, "resultWithSuccess:"_sel, value);
    EXPECT_EQ(send<VNTQResultType>(success, "type"_sel), VNTQResultTypeSuccess);
    EXPECT_EQ(send<id>(success, "value"_sel), value);
    const auto failure = send<Ref<VNTQResult>>(cls, "resultWithFailure:"_sel, value);
    EXPECT_EQ(send<id>(failure, "error"_sel), value);
    EXPECT_EQ(send<id>(cls, "success"_sel), id(VNTQResult::success()));
    EXPECT_EQ(send<id>(cls, "failure"_sel), id(VNTQResult::failure()));
    const id made = send<id>(send<id>(cls, "alloc"_sel), "initWithSuccess:"_sel, value);
    EXPECT_EQ(objectCast<VNTQResult>(made)->value(), value);
    const id failed = send<id>(send<id>(cls, "alloc"_sel), "initWithFailure:"_sel, value);
    EXPECT_EQ(objectCast<VNTQResult>(failed)->error(), value);
    EXPECT_TRUE(isEqual(send<id>(success, "description"_sel).get(), success->description().get()));
    for (const id& copied : {send<id>(success, "copy"_sel),
                             send<id>(success, "copyWithZone:"_sel, static_cast<void*>(nullptr))}) {
        EXPECT_NE(copied, success);
        ASSERT_NE(objectCast<VNTQResult>(copied), nullptr);
        EXPECT_EQ(objectCast<VNTQResult>(copied)->type(), VNTQResultTypeSuccess);
        EXPECT_EQ(objectCast<VNTQResult>(copied)->value(), value);
    }
    send<void>(success, "setType:"_sel, VNTQResultTypeNone);
    send<void>(success, "setValue:"_sel, nullptr);
    send<void>(success, "setError:"_sel, value);
    EXPECT_EQ(success->type(), VNTQResultTypeNone);
    EXPECT_EQ(success->value(), nullptr);
    EXPECT_EQ(success->error(), value);
}

TEST(ResultMessagesDeathTest, TrapOnArgumentsOfOtherTypes) {
    const auto result = make<VNTQResult>();
    EXPECT_TRAP(send<void>(result, "setType:"_sel, 1),
                "-[VNTQResult setType:]: sent with the types vi, but the method has the types vQ");
    EXPECT_TRAP((void)send<id>(VNTQResult::classObject(), "resultWithSuccess:"_sel, 1),
                "+[VNTQResult resultWithSuccess:]: sent with the types @i");
}

}  // namespace
}  // namespace vantorq
