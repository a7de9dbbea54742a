#include "VantorqFoundation/Errors.h"

#include <array>
#include <cstdint>
#include <utility>

#include "VantorqFoundation/Platform/Class.h"

namespace vantorq {

namespace {

constexpr ConstantString kErrorDomain{"com.vantorq.client"};
constexpr ConstantString kFoundationErrorDomain{"com.vantorq.foundation.VNTQFoundationError"};
constexpr ConstantString kSoftHyphenationErrorDomain{"VNTQNSStringSoftHyphenationErrorDomain"};

Ref<NSError> errorWithReason(std::int64_t code, NSString& reason) {
    return vntq_error(code, NSDictionary::dictionary({{NSLocalizedFailureReasonErrorKey, reason}}));
}

/// Codes are shown without their sign; the magnitude of the lowest one has no signed form.
std::uint64_t magnitude(std::int64_t code) {
    return code < 0 ? 0 - static_cast<std::uint64_t>(code) : static_cast<std::uint64_t>(code);
}

}  // namespace

constinit NSString& VNTQErrorDomain = const_cast<ConstantString&>(kErrorDomain);
constinit NSString& VNTQFoundationErrorDomain = const_cast<ConstantString&>(kFoundationErrorDomain);
constinit NSString& VNTQNSStringSoftHyphenationErrorDomain =
    const_cast<ConstantString&>(kSoftHyphenationErrorDomain);

Ref<NSError> vntq_foundationErrorWithCode(std::uint64_t code, const Ref<NSDictionary>& userInfo) {
    return NSError::errorWithDomain(VNTQFoundationErrorDomain, static_cast<std::int64_t>(code),
                                    userInfo);
}

Ref<NSError> detail::timeoutError(double seconds) {
    const auto reason =
        NSString::stringWithFormat("Timeout waiting %1.1f seconds for completion"_ns, seconds);
    return vntq_foundationErrorWithCode(
        VNTQFoundationErrorTimeout,
        NSDictionary::dictionary({{NSLocalizedFailureReasonErrorKey, reason}}));
}

Ref<NSError> vntq_error(std::int64_t code, const Ref<NSDictionary>& userInfo) {
    return NSError::errorWithDomain(VNTQErrorDomain, code, userInfo);
}

Ref<NSError> vntq_errorUnspecifiedWithUserInfo(const Ref<NSDictionary>& userInfo) {
    return vntq_error(0, userInfo);
}

Ref<NSError> vntq_errorUnspecifiedWithArguments(const NSString& format,
                                                std::span<const FormatArgument> arguments) {
    return vntq_errorUnspecifiedWithUserInfo(NSDictionary::dictionary({
        {NSLocalizedFailureReasonErrorKey, NSString::stringWithFormatArguments(format, arguments)},
        {NSLocalizedRecoverySuggestionErrorKey,
         "This is an unknown error and should be reported."_ns},
    }));
}

Ref<NSError> vntq_errorPINVerificationRequiredError() {
    return errorWithReason(2, "PIN Verification is required."_ns);
}

Ref<NSError> vntq_errorPINVerificationCanceledError() {
    return errorWithReason(3, "PIN Verification was cancelled."_ns);
}

Ref<NSError> vntq_errorAgeVerificationNeededError() {
    return errorWithReason(4, "Age Verification is required."_ns);
}

Ref<NSError> vntq_errorCreatePinInvalidPINError() {
    return errorWithReason(7, "Invalid PIN - must be 4 digits."_ns);
}

Ref<NSString> vntq_shortDomainForError(const NSError& error) {
    // Applied in this order, each to the result of the one before.
    const std::array<std::pair<NSString&, NSString&>, 9> replacements{{
        {"AVFoundationErrorDomain"_ns, "AVF"_ns},
        {"CoreMediaErrorDomain"_ns, "CM"_ns},
        {"NSOSStatusErrorDomain"_ns, "OS"_ns},
        {"kCFErrorDomainCFNetwork"_ns, "CFNet"_ns},
        {"NSPosixErrorDomain"_ns, "Posix"_ns},
        {"CorvidErrorDomain"_ns, "CV"_ns},
        {"LatticeErrorDomain"_ns, "LT"_ns},
        {"PinionErrorDomain"_ns, "PN"_ns},
        {"ErrorDomain"_ns, ""_ns},
    }};
    constexpr NSUInteger kLongest = 5;
    Ref<NSString> text = error.domain();
    for (const auto& [name, shortName] : replacements) {
        text = text->stringByReplacingOccurrencesOfString(name, shortName);
    }
    return text->length() > kLongest ? text->substringToIndex(kLongest) : text;
}

Ref<NSString> vntq_UserFacingErrorcode(const NSError& error) {
    const auto underlying = objectCast<NSError>(vntq_underlyingError(error));
    if (underlying != nullptr && underlying->code() != error.code()) {
        return NSString::stringWithFormat(
            "%@:%llu;%@:%llu;"_ns, vntq_shortDomainForError(error), magnitude(error.code()),
            vntq_shortDomainForError(*underlying), magnitude(underlying->code()));
    }
    return NSString::stringWithFormat("%@:%llu;"_ns, vntq_shortDomainForError(error),
                                      magnitude(error.code()));
}

bool vntq_isNetworkError(const NSError& error) {
    constexpr std::int64_t kNotConnectedToInternet = -1009;
    constexpr std::int64_t kNetworkConnectionLost = -1005;
    constexpr std::int64_t kTimedOut = -1001;
    const auto underlying = objectCast<NSError>(vntq_underlyingError(error));
    const std::int64_t code = underlying != nullptr ? underlying->code() : error.code();
    return code == kNotConnectedToInternet || code == kNetworkConnectionLost || code == kTimedOut;
}

id vntq_underlyingError(const NSError& error) {
    return error.userInfo()->objectForKey(NSUnderlyingErrorKey);
}

Ref<NSString> vntq_debugRecoverySuggestion(const NSError& error) {
    return error.localizedRecoverySuggestion();
}

namespace {

constexpr MethodInfo kMethods[] = {
    classMethod<&vntq_foundationErrorWithCode>("vntq_foundationErrorWithCode:userInfo:"),
    classMethod<&vntq_error>("vntq_error:userInfo:"),
    classMethod<&vntq_errorUnspecifiedWithUserInfo>("vntq_errorUnspecifiedWithUserInfo:"),
    formatClassMethod<&vntq_errorUnspecifiedWithArguments>("vntq_errorUnspecified:"),
    classMethod<&vntq_errorPINVerificationRequiredError>("vntq_errorPINVerificationRequiredError"),
    classMethod<&vntq_errorPINVerificationCanceledError>("vntq_errorPINVerificationCanceledError"),
    classMethod<&vntq_errorAgeVerificationNeededError>("vntq_errorAgeVerificationNeededError"),
    classMethod<&vntq_errorCreatePinInvalidPINError>("vntq_errorCreatePinInvalidPINError"),
    classMethod<&vntq_shortDomainForError>("vntq_shortDomainForError:"),
    method<&vntq_UserFacingErrorcode>("vntq_UserFacingErrorcode"),
    method<&vntq_isNetworkError>("vntq_isNetworkError"),
    method<&vntq_underlyingError>("vntq_underlyingError"),
    method<&vntq_debugRecoverySuggestion>("vntq_debugRecoverySuggestion"),
};

}  // namespace

extern const CategoryInfo kNSErrorVNTQFoundation;
constinit const CategoryInfo kNSErrorVNTQFoundation{&NSError::classObject, "VNTQFoundation",
                                                    kMethods};

}  // namespace vantorq
