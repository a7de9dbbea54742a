#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "Platform/Export.h"
#include "Platform/FormatArgument.h"
#include "Platform/NSDictionary.h"
#include "Platform/NSError.h"
#include "Platform/NSString.h"

/// The library's errors: their domains, the fixed errors that the library and its host build, and
/// what one wants to know of any error before showing or retrying it.
///
/// The library's own failures are `NSError`s: a domain, a signed 64-bit code, and texts under the
/// platform's standard keys. Coroutines throw them, as `NSErrorException`. Each function here has a
/// twin by message, in the category `NSError(VNTQFoundation)`: `vntq_error(3, info)` is `+[NSError
/// vntq_error:userInfo:]`, and `vntq_isNetworkError(error)` is `-[NSError vntq_isNetworkError]`.
///
/// None of the functions fails, and none keeps state. Threads: any.
namespace vantorq {

/// The host application's domain. Codes 1, 5 and 6 are not used, and are not to be.
VNTQ_EXPORT extern NSString& VNTQErrorDomain;
/// The domain of errors that the library itself raises, with the codes that follow.
VNTQ_EXPORT extern NSString& VNTQFoundationErrorDomain;
/// A failure without a cause of its own: "Operation could not be completed."
inline constexpr NSInteger VNTQFoundationErrorFailure = 0;
/// A time-out: "Timeout waiting 2.5 seconds for completion".
inline constexpr NSInteger VNTQFoundationErrorTimeout = 1;
/// The domain of the error that text in a locale without hyphenation gives. Its value is its name.
VNTQ_EXPORT extern NSString& VNTQNSStringSoftHyphenationErrorDomain;

/// An error of the library's domain, with exactly this code and user information (nil: none).
[[nodiscard]] VNTQ_EXPORT Ref<NSError> vntq_foundationErrorWithCode(
    std::uint64_t code, const Ref<NSDictionary>& userInfo);
/// An error of the host's domain, with exactly this code and user information (nil: none).
[[nodiscard]] VNTQ_EXPORT Ref<NSError> vntq_error(std::int64_t code,
                                                  const Ref<NSDictionary>& userInfo);

/// Code 0 of the host's domain.
[[nodiscard]] VNTQ_EXPORT Ref<NSError> vntq_errorUnspecifiedWithUserInfo(
    const Ref<NSDictionary>& userInfo);
/// Code 0 of the host's domain. The formatted text (see FormatArgument.h) is the failure reason;
/// the recovery suggestion asks for a report. A nil format, possible by message only, traps.
[[nodiscard]] VNTQ_EXPORT Ref<NSError> vntq_errorUnspecifiedWithArguments(
    const NSString& format, std::span<const FormatArgument> arguments);
template <class... Args>
[[nodiscard]] Ref<NSError> vntq_errorUnspecified(const NSString& format, const Args&... args) {
    const std::array<FormatArgument, sizeof...(Args)> list{FormatArgument(args)...};
    return vntq_errorUnspecifiedWithArguments(format, list);
}

/// Code 2: "PIN Verification is required."
[[nodiscard]] VNTQ_EXPORT Ref<NSError> vntq_errorPINVerificationRequiredError();
/// Code 3: "PIN Verification was cancelled."
[[nodiscard]] VNTQ_EXPORT Ref<NSError> vntq_errorPINVerificationCanceledError();
/// Code 4: "Age Verification is required."
[[nodiscard]] VNTQ_EXPORT Ref<NSError> vntq_errorAgeVerificationNeededError();
/// Code 7: "Invalid PIN - must be 4 digits."
[[nodiscard]] VNTQ_EXPORT Ref<NSError> vntq_errorCreatePinInvalidPINError();

/// A name for the error's domain, of at most five UTF-16 units, that fits a user-facing code: known
/// domains have short forms ("AVF", "CM", "OS", "CFNet", "Posix", "CV", "LT", "PN"), wherever in
/// the domain they stand; "ErrorDomain" is taken out; what is left is cut. `NSURLErrorDomain` gives
/// "NSURL".
[[nodiscard]] VNTQ_EXPORT Ref<NSString> vntq_shortDomainForError(const NSError& error);

/// A compact code to show to users and to find in reports: "NSURL:1001;", or, when the error has an
/// underlying one with another code, both: "com.v:1;NSURL:1001;". Codes stand without their sign;
/// the underlying error's own cause is not visited.
[[nodiscard]] VNTQ_EXPORT Ref<NSString> vntq_UserFacingErrorcode(const NSError& error);

/// Whether the code is −1009 (not connected to the internet), −1005 (connection lost) or −1001
/// (timed out): the underlying error's code where there is one, else the error's own, whatever the
/// domain.
[[nodiscard]] VNTQ_EXPORT bool vntq_isNetworkError(const NSError& error);

/// What stands under `NSUnderlyingErrorKey`, as it is, or nil.
[[nodiscard]] VNTQ_EXPORT id vntq_underlyingError(const NSError& error);

/// The error's localised recovery suggestion, or nil.
[[nodiscard]] VNTQ_EXPORT Ref<NSString> vntq_debugRecoverySuggestion(const NSError& error);

namespace detail {
/// Of the library's domain, with the time that was waited.
[[nodiscard]] VNTQ_EXPORT Ref<NSError> timeoutError(double seconds);
}  // namespace detail

}  // namespace vantorq
