#include "VantorqFoundation/Platform/NSError.h"

#include <string>

#include <gtest/gtest.h>

#include "Support/Print.h"
#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

using test::text;

Ref<NSError> error(const Ref<NSDictionary>& userInfo = nullptr) {
    return NSError::errorWithDomain("Domain"_ns, 7, userInfo);
}

TEST(NSError, KeysAndDomainsHaveTheirValues) {
    EXPECT_EQ(NSLocalizedDescriptionKey.utf8(), "NSLocalizedDescription");
    EXPECT_EQ(NSLocalizedFailureReasonErrorKey.utf8(), "NSLocalizedFailureReason");
    EXPECT_EQ(NSLocalizedRecoverySuggestionErrorKey.utf8(), "NSLocalizedRecoverySuggestion");
    EXPECT_EQ(NSUnderlyingErrorKey.utf8(), "NSUnderlyingError");
    EXPECT_EQ(NSURLErrorDomain.utf8(), "NSURLErrorDomain");
    EXPECT_EQ(NSCocoaErrorDomain.utf8(), "NSCocoaErrorDomain");
    EXPECT_EQ(NSPOSIXErrorDomain.utf8(), "NSPOSIXErrorDomain");
}

TEST(NSError, KeepsDomainCodeAndUserInfo) {
    const auto made = error(NSDictionary::dictionary({{"k"_ns, "v"_ns}}));
    EXPECT_EQ(text(made->domain()), "Domain");
    EXPECT_EQ(made->code(), 7);
    EXPECT_EQ(test::description(made->userInfo()->objectForKey("k"_ns)), "v");
}

TEST(NSError, CopiesWhatCouldChange) {
    const auto domain = make<NSMutableString>("Domain"_ns);
    const auto userInfo = NSMutableDictionary::dictionary({{"k"_ns, "v"_ns}});
    const auto made = NSError::errorWithDomain(*domain, 1, userInfo);
    domain->appendString("!"_ns);
    userInfo->removeAllObjects();
    EXPECT_EQ(text(made->domain()), "Domain");
    EXPECT_EQ(made->userInfo()->count(), 1U);
}

TEST(NSError, UserInfoIsNeverNil) {
    ASSERT_NE(error()->userInfo(), nullptr);
    EXPECT_EQ(error()->userInfo()->count(), 0U);
}

TEST(NSError, DescriptionForTheUserComesFromTheUserInfo) {
    const auto made = error(NSDictionary::dictionary({
        {NSLocalizedDescriptionKey, "It broke."_ns},
        {NSLocalizedFailureReasonErrorKey, "Rust."_ns},
        {NSLocalizedRecoverySuggestionErrorKey, "Oil it."_ns},
    }));
    EXPECT_EQ(text(made->localizedDescription()), "It broke.");
    EXPECT_EQ(text(made->localizedFailureReason()), "Rust.");
    EXPECT_EQ(text(made->localizedRecoverySuggestion()), "Oil it.");
}

TEST(NSError, DescriptionForTheUserFallsBackToTheReasonThenToDomainAndCode) {
    const auto made =
        error(NSDictionary::dictionary({{NSLocalizedFailureReasonErrorKey, "Rust."_ns}}));
    EXPECT_EQ(text(made->localizedDescription()), "The operation couldn’t be completed. Rust.");
    EXPECT_EQ(text(error()->localizedDescription()),
              "The operation couldn’t be completed. (Domain error 7.)");
}

TEST(NSError, WhatIsAbsentOrNoTextIsNil) {
    EXPECT_EQ(error()->localizedFailureReason(), nullptr);
    EXPECT_EQ(error()->localizedRecoverySuggestion(), nullptr);
    EXPECT_EQ(error()->underlyingError(), nullptr);
    const auto odd =
        error(NSDictionary::dictionary({{NSLocalizedFailureReasonErrorKey, NSNumber::number(1)}}));
    EXPECT_EQ(odd->localizedFailureReason(), nullptr);
}

TEST(NSError, KnowsTheErrorThatLedToIt) {
    const auto cause = error();
    EXPECT_EQ(error(NSDictionary::dictionary({{NSUnderlyingErrorKey, cause}}))->underlyingError(),
              cause);
}

TEST(NSError, EqualityIsByDomainCodeAndUserInfo) {
    const auto info = NSDictionary::dictionary({{"k"_ns, "v"_ns}});
    EXPECT_TRUE(error(info)->isEqual(error(info).get()));
    EXPECT_EQ(error(info)->hash(), error(info)->hash());
    EXPECT_FALSE(error(info)->isEqual(error().get()));
    EXPECT_FALSE(error()->isEqual(NSError::errorWithDomain("Domain"_ns, 8).get()));
    EXPECT_FALSE(error()->isEqual(NSError::errorWithDomain("Other"_ns, 7).get()));
    EXPECT_FALSE(error()->isEqual(nullptr));
}

TEST(NSError, Description) {
    const auto made = error(
        NSDictionary::dictionary({{NSLocalizedDescriptionKey, "It broke."_ns}, {"a"_ns, "1"_ns}}));
    EXPECT_EQ(test::description(made),
              "Error Domain=Domain Code=7 \"It broke.\" "
              "UserInfo={NSLocalizedDescription=It broke., a=1}");
    EXPECT_EQ(test::description(NSError::errorWithDomain("D"_ns, INT64_MIN)),
              "Error Domain=D Code=-9223372036854775808 \"The operation couldn’t be completed. "
              "(D error -9223372036854775808.)\" UserInfo={}");
}

TEST(NSError, IsItsOwnCopy) {
    const auto made = error();
    EXPECT_EQ(made->copy(), made);
}

TEST(NSErrorException, CarriesTheError) {
    const auto made = error();
    try {
        throw NSErrorException(made);
    } catch (const std::exception& caught) {
        EXPECT_EQ(std::string(caught.what()), test::description(made));
        EXPECT_EQ(dynamic_cast<const NSErrorException&>(caught).error(), made);
    }
}

TEST(NSError, AnswersMessages) {
    const id made = send<id>(NSError::classObject(), "errorWithDomain:code:userInfo:"_sel, "D",
                             NSInteger{3}, nullptr);
    EXPECT_EQ(send<NSInteger>(made, "code"_sel), 3);
    EXPECT_EQ(test::description(send<id>(made, "domain"_sel)), "D");
    EXPECT_EQ(test::description(made->valueForKeyPath("userInfo.x"_ns)), "nil");
}

}  // namespace
}  // namespace vantorq
