#include "VantorqFoundation/Errors.h"

#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "Support/Trap.h"
#include "VantorqFoundation/VantorqFoundation.h"

namespace vantorq {
namespace {

Ref<NSError> errorIn(std::string_view domain, std::int64_t code, const id& underlying = nullptr) {
    const auto info = underlying != nullptr
                          ? NSDictionary::dictionary({{NSUnderlyingErrorKey, underlying}})
                          : nullptr;
    return NSError::errorWithDomain(*NSString::string(domain), code, info);
}

std::string shortDomain(std::string_view domain) {
    return vntq_shortDomainForError(*errorIn(domain, 0))->utf8();
}

std::string entry(const NSError& error, const NSString& key) {
    const auto text = objectCast<NSString>(error.userInfo()->objectForKey(key));
    return text != nullptr ? text->utf8() : "(none)";
}

void expectReason(const NSError& error, std::int64_t code, std::string_view reason) {
    EXPECT_TRUE(error.domain()->isEqualToString(&VNTQErrorDomain));
    EXPECT_EQ(error.code(), code);
    EXPECT_EQ(error.userInfo()->count(), 1U);
    EXPECT_EQ(entry(error, NSLocalizedFailureReasonErrorKey), reason);
}

TEST(ErrorDomains, OfHyphenationIsItsOwnName) {
    EXPECT_EQ(VNTQNSStringSoftHyphenationErrorDomain.utf8(),
              "VNTQNSStringSoftHyphenationErrorDomain");
}

TEST(ErrorDomains, AreReverseDNSNamesOfTheirOwners) {
    EXPECT_TRUE(VNTQFoundationErrorDomain.hasSuffix(".VNTQFoundationError"_ns));
    EXPECT_GE(VNTQErrorDomain.componentsSeparatedByString("."_ns)->count(), 2U);
    EXPECT_FALSE(VNTQErrorDomain.isEqualToString(&VNTQFoundationErrorDomain));
}

TEST(FoundationError, CarriesExactlyWhatItIsGiven) {
    const auto info = NSDictionary::dictionary({{"key"_ns, "value"_ns}});
    const auto error = vntq_foundationErrorWithCode(7, info);
    EXPECT_TRUE(error->domain()->isEqualToString(&VNTQFoundationErrorDomain));
    EXPECT_EQ(error->code(), 7);
    EXPECT_TRUE(error->userInfo()->isEqual(info.get()));
}

TEST(FoundationError, KeepsTheBitsOfAnUnsignedCode) {
    const auto error =
        vntq_foundationErrorWithCode(std::numeric_limits<std::uint64_t>::max(), nullptr);
    EXPECT_EQ(error->code(), -1);
}

TEST(HostError, CarriesExactlyWhatItIsGiven) {
    const auto info = NSDictionary::dictionary({{"key"_ns, "value"_ns}});
    const auto error = vntq_error(-3, info);
    EXPECT_TRUE(error->domain()->isEqualToString(&VNTQErrorDomain));
    EXPECT_EQ(error->code(), -3);
    EXPECT_TRUE(error->userInfo()->isEqual(info.get()));
}

TEST(HostError, HasAnEmptyDictionaryForNil) {
    EXPECT_EQ(vntq_error(1, nullptr)->userInfo()->count(), 0U);
    EXPECT_EQ(vntq_foundationErrorWithCode(1, nullptr)->userInfo()->count(), 0U);
    EXPECT_EQ(vntq_errorUnspecifiedWithUserInfo(nullptr)->userInfo()->count(), 0U);
}

TEST(UnspecifiedError, IsCodeZeroWithTheCallersInformation) {
    const auto info = NSDictionary::dictionary({{"key"_ns, "value"_ns}});
    const auto error = vntq_errorUnspecifiedWithUserInfo(info);
    EXPECT_TRUE(error->domain()->isEqualToString(&VNTQErrorDomain));
    EXPECT_EQ(error->code(), 0);
    EXPECT_TRUE(error->userInfo()->isEqual(info.get()));
}

TEST(UnspecifiedError, FormatsItsReasonAndAsksForAReport) {
    const auto error = vntq_errorUnspecified("%@ failed after %d tries"_ns, "Fetch"_ns, 3);
    EXPECT_EQ(error->code(), 0);
    EXPECT_TRUE(error->domain()->isEqualToString(&VNTQErrorDomain));
    EXPECT_EQ(error->userInfo()->count(), 2U);
    EXPECT_EQ(entry(*error, NSLocalizedFailureReasonErrorKey), "Fetch failed after 3 tries");
    EXPECT_EQ(entry(*error, NSLocalizedRecoverySuggestionErrorKey),
              "This is an unknown error and should be reported.");
}

TEST(UnspecifiedError, TakesItsArgumentsByMessageToo) {
    const id error = send<id>(NSError::classObject(), "vntq_errorUnspecified:"_sel, "%@ is %.1f"_ns,
                              "pi"_ns, 3.14);
    EXPECT_EQ(entry(*objectCast<NSError>(error), NSLocalizedFailureReasonErrorKey), "pi is 3.1");
}

TEST(UnspecifiedErrorDeathTest, TrapsOnANilFormat) {
    EXPECT_TRAP(
        (void)send<id>(NSError::classObject(), "vntq_errorUnspecified:"_sel, Ref<NSString>()),
        "nil was sent where NSString is required");
}

TEST(UnspecifiedError, WithANilFormatIsRefusedByTrySend) {
    EXPECT_FALSE(trySend<id>(NSError::classObject(), "vntq_errorUnspecified:"_sel, Ref<NSString>())
                     .has_value());
}

TEST(FixedErrors, HaveTheirCodesAndTexts) {
    expectReason(*vntq_errorPINVerificationRequiredError(), 2, "PIN Verification is required.");
    expectReason(*vntq_errorPINVerificationCanceledError(), 3, "PIN Verification was cancelled.");
    expectReason(*vntq_errorAgeVerificationNeededError(), 4, "Age Verification is required.");
    expectReason(*vntq_errorCreatePinInvalidPINError(), 7, "Invalid PIN - must be 4 digits.");
}

TEST(FixedErrors, AreNewEachTime) {
    EXPECT_NE(vntq_errorPINVerificationRequiredError(), vntq_errorPINVerificationRequiredError());
}

TEST(ShortDomain, ShortensTheKnownDomains) {
    EXPECT_EQ(shortDomain("AVFoundationErrorDomain"), "AVF");
    EXPECT_EQ(shortDomain("CoreMediaErrorDomain"), "CM");
    EXPECT_EQ(shortDomain("NSOSStatusErrorDomain"), "OS");
    EXPECT_EQ(shortDomain("kCFErrorDomainCFNetwork"), "CFNet");
    EXPECT_EQ(shortDomain("NSPosixErrorDomain"), "Posix");
    EXPECT_EQ(shortDomain("CorvidErrorDomain"), "CV");
    EXPECT_EQ(shortDomain("LatticeErrorDomain"), "LT");
    EXPECT_EQ(shortDomain("PinionErrorDomain"), "PN");
}

TEST(ShortDomain, DropsErrorDomainAndCutsToFiveUnits) {
    EXPECT_EQ(shortDomain("NSURLErrorDomain"), "NSURL");
    EXPECT_EQ(shortDomain("NSCocoaErrorDomain"), "NSCoc");
    EXPECT_EQ(shortDomain("ErrorDomain"), "");
    EXPECT_EQ(shortDomain(""), "");
    EXPECT_EQ(shortDomain("abcde"), "abcde");
    EXPECT_EQ(shortDomain("abcdef"), "abcde");
}

TEST(ShortDomain, CutsTheLibrarysOwnDomain) {
    EXPECT_EQ(vntq_shortDomainForError(*vntq_foundationErrorWithCode(1, nullptr))->utf8(),
              VNTQFoundationErrorDomain.substringToIndex(5)->utf8());
}

TEST(ShortDomain, RewritesNamesWhereverTheyStand) {
    EXPECT_EQ(shortDomain("x.CorvidErrorDomain"), "x.CV");
    EXPECT_EQ(shortDomain("aErrorDomainbErrorDomain"), "ab");
    EXPECT_EQ(shortDomain("corviderrordomain"), "corvi");  // case counts
}

TEST(ShortDomain, TakesOutErrorDomainOnlyAfterTheLongerNames) {
    EXPECT_EQ(shortDomain("ErPinionErrorDomain"), "ErPN");
    EXPECT_EQ(shortDomain("ErrorErrorDomainDomain"), "Error");
    EXPECT_EQ(shortDomain("CoreMediaErrorDomainAVFoundationErrorDomain"), "CMAVF");
}

TEST(ShortDomain, CountsUTF16Units) {
    EXPECT_EQ(shortDomain("äöüßéè"), "äöüßé");
    EXPECT_EQ(vntq_shortDomainForError(*errorIn("abcd\U0001F600", 0))->length(), 5U);
}

TEST(UserFacingErrorcode, NamesDomainAndMagnitudeOfTheCode) {
    EXPECT_EQ(vntq_UserFacingErrorcode(*errorIn("NSURLErrorDomain", -1001))->utf8(), "NSURL:1001;");
    EXPECT_EQ(vntq_UserFacingErrorcode(*errorIn("CV", 0))->utf8(), "CV:0;");
    EXPECT_EQ(vntq_UserFacingErrorcode(*errorIn("ErrorDomain", 5))->utf8(), ":5;");
    EXPECT_EQ(
        vntq_UserFacingErrorcode(*errorIn("CV", std::numeric_limits<std::int64_t>::min()))->utf8(),
        "CV:9223372036854775808;");
}

TEST(UserFacingErrorcode, NamesAnUnderlyingErrorOfAnotherCode) {
    const auto cause = errorIn("NSURLErrorDomain", -1001);
    const auto error =
        vntq_foundationErrorWithCode(1, NSDictionary::dictionary({{NSUnderlyingErrorKey, cause}}));
    EXPECT_EQ(vntq_UserFacingErrorcode(*error)->utf8(),
              VNTQFoundationErrorDomain.substringToIndex(5)->utf8() + ":1;NSURL:1001;");
}

TEST(UserFacingErrorcode, LeavesOutAnUnderlyingErrorOfTheSameCode) {
    EXPECT_EQ(vntq_UserFacingErrorcode(*errorIn("AA", 5, errorIn("BB", 5)))->utf8(), "AA:5;");
}

TEST(UserFacingErrorcode, ComparesCodesWithTheirSign) {
    EXPECT_EQ(vntq_UserFacingErrorcode(*errorIn("AA", 5, errorIn("BB", -5)))->utf8(), "AA:5;BB:5;");
}

TEST(UserFacingErrorcode, DoesNotVisitTheCauseOfTheCause) {
    const auto deepest = errorIn("CC", 3);
    const auto cause = errorIn("BB", 2, deepest);
    EXPECT_EQ(vntq_UserFacingErrorcode(*errorIn("AA", 1, cause))->utf8(), "AA:1;BB:2;");
}

TEST(UserFacingErrorcode, IgnoresAnUnderlyingObjectThatIsNoError) {
    EXPECT_EQ(vntq_UserFacingErrorcode(*errorIn("AA", 1, id("text"_ns)))->utf8(), "AA:1;");
}

TEST(NetworkError, IsToldByTheCodeAloneWhateverTheDomain) {
    for (const std::int64_t code : {-1009, -1005, -1001}) {
        EXPECT_TRUE(vntq_isNetworkError(*errorIn("NSURLErrorDomain", code))) << code;
        EXPECT_TRUE(vntq_isNetworkError(*errorIn("anything", code))) << code;
    }
    for (const std::int64_t code : {0, 1009, -1000, -1002, -1004, -1006, -1008, -1010}) {
        EXPECT_FALSE(vntq_isNetworkError(*errorIn("NSURLErrorDomain", code))) << code;
    }
}

TEST(NetworkError, IsToldByTheUnderlyingErrorWhereThereIsOne) {
    EXPECT_TRUE(vntq_isNetworkError(*errorIn("AA", 42, errorIn("BB", -1005))));
    EXPECT_FALSE(vntq_isNetworkError(*errorIn("AA", -1009, errorIn("BB", 42))));
}

TEST(UnderlyingError, IsGivenAsItIs) {
    const id text("no error"_ns);
    EXPECT_EQ(vntq_underlyingError(*errorIn("AA", 1, text)), text);
    EXPECT_EQ(vntq_underlyingError(*errorIn("AA", 1)), nullptr);
    EXPECT_EQ(vntq_underlyingError(*vntq_error(1, nullptr)), nullptr);
}

TEST(DebugRecoverySuggestion, IsTheLocalisedOne) {
    EXPECT_EQ(vntq_debugRecoverySuggestion(*vntq_errorUnspecified("x"_ns))->utf8(),
              "This is an unknown error and should be reported.");
    EXPECT_EQ(vntq_debugRecoverySuggestion(*vntq_error(1, nullptr)), nullptr);
}

TEST(ErrorCategory, AnswersEveryMessageAsItsTypedTwinDoes) {
    const auto& cls = NSError::classObject();
    const auto error = errorIn("NSURLErrorDomain", -1001);
    const auto code = send<id>(error, "vntq_UserFacingErrorcode"_sel);
    EXPECT_TRUE(isEqual(code.get(), vntq_UserFacingErrorcode(*error).get()));
    EXPECT_TRUE(send<bool>(error, "vntq_isNetworkError"_sel));
    EXPECT_FALSE(send<bool>(errorIn("AA", 1), "vntq_isNetworkError"_sel));
    EXPECT_EQ(send<id>(errorIn("AA", 1, error), "vntq_underlyingError"_sel), id(error));
    EXPECT_EQ(send<id>(error, "vntq_debugRecoverySuggestion"_sel), nullptr);
    const auto advised = vntq_error(
        1, NSDictionary::dictionary({{NSLocalizedRecoverySuggestionErrorKey, "Try again."_ns},
                                     {NSUnderlyingErrorKey, error}}));
    EXPECT_EQ(send<id>(advised, "vntq_debugRecoverySuggestion"_sel), id("Try again."_ns));
    EXPECT_EQ(send<id>(advised, "vntq_underlyingError"_sel), id(error));
    EXPECT_EQ(objectCast<NSString>(send<id>(cls, "vntq_shortDomainForError:"_sel, error))->utf8(),
              "NSURL");
    const auto info = NSDictionary::dictionary({{"key"_ns, "value"_ns}});
    for (const Ref<NSDictionary>& given : {info, Ref<NSDictionary>()}) {
        const auto made =
            send<Ref<NSError>>(cls, "vntq_error:userInfo:"_sel, std::int64_t{9}, given);
        EXPECT_TRUE(made->isEqual(vntq_error(9, given).get()));
        const auto own = send<Ref<NSError>>(cls, "vntq_foundationErrorWithCode:userInfo:"_sel,
                                            std::uint64_t{9}, given);
        EXPECT_TRUE(own->isEqual(vntq_foundationErrorWithCode(9, given).get()));
        const auto unspecified =
            send<Ref<NSError>>(cls, "vntq_errorUnspecifiedWithUserInfo:"_sel, given);
        EXPECT_TRUE(unspecified->isEqual(vntq_errorUnspecifiedWithUserInfo(given).get()));
    }
    EXPECT_EQ(send<Ref<NSError>>(cls, "vntq_errorPINVerificationRequiredError"_sel)->code(), 2);
    EXPECT_EQ(send<Ref<NSError>>(cls, "vntq_errorPINVerificationCanceledError"_sel)->code(), 3);
    EXPECT_EQ(send<Ref<NSError>>(cls, "vntq_errorAgeVerificationNeededError"_sel)->code(), 4);
    EXPECT_EQ(send<Ref<NSError>>(cls, "vntq_errorCreatePinInvalidPINError"_sel)->code(), 7);
}

TEST(ErrorCategoryDeathTest, TrapsOnMessagesWithArgumentsOfOtherTypes) {
    const auto& cls = NSError::classObject();
    EXPECT_TRAP((void)send<id>(cls, "vntq_error:userInfo:"_sel, 9, nullptr),
                "+[NSError vntq_error:userInfo:]: sent with the types @i@, but the method has the "
                "types @q@");
    EXPECT_TRAP(
        (void)send<id>(cls, "vntq_foundationErrorWithCode:userInfo:"_sel, std::int64_t{9}, nullptr),
        "sent with the types @q@, but the method has the types @Q@");
    EXPECT_TRAP((void)send<id>(cls, "vntq_error:userInfo:"_sel, std::int64_t{9},
                               NSArray::arrayWithObject("value"_ns)),
                "an object of class NSArray was sent where NSDictionary is required");
    EXPECT_TRAP((void)send<id>(cls, "vntq_errorUnspecifiedWithUserInfo:"_sel,
                               NSArray::arrayWithObject("value"_ns)),
                "an object of class NSArray was sent where NSDictionary is required");
    EXPECT_TRAP((void)send<id>(cls, "vntq_shortDomainForError:"_sel, nullptr),
                "nil was sent where NSError is required");
    EXPECT_TRAP((void)send<id>(cls, "vntq_shortDomainForError:"_sel, "NSURLErrorDomain"_ns),
                "an object of class NSString was sent where NSError is required");
}

}  // namespace
}  // namespace vantorq
