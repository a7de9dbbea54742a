#pragma once

#include <stdexcept>

#include "NSDictionary.h"
#include "NSObject.h"
#include "NSString.h"

namespace vantorq {

// Keys of an error's dictionary.

/// The whole text for the user (NSString).
VNTQ_EXPORT extern NSString& NSLocalizedDescriptionKey;
/// Why it failed (NSString).
VNTQ_EXPORT extern NSString& NSLocalizedFailureReasonErrorKey;
/// What the user can do (NSString).
VNTQ_EXPORT extern NSString& NSLocalizedRecoverySuggestionErrorKey;
/// The error that led to this one (NSError).
VNTQ_EXPORT extern NSString& NSUnderlyingErrorKey;

// Domains. Each one's value is its own name.

VNTQ_EXPORT extern NSString& NSURLErrorDomain;
VNTQ_EXPORT extern NSString& NSCocoaErrorDomain;
/// Codes are those of `errno`.
VNTQ_EXPORT extern NSString& NSPOSIXErrorDomain;

/// An immutable account of a failure: a code within a domain, and what is known beside it.
///
/// Threads: any, as far as what the dictionary holds may be used from any.
class VNTQ_EXPORT NSError final : public NSObject {
    VNTQ_OBJECT(NSError, NSObject)
public:
    /// Without `userInfo` its dictionary is empty.
    NSError(const NSString& domain, NSInteger code, const NSDictionary* userInfo);

    [[nodiscard]] static Ref<NSError> errorWithDomain(const NSString& domain, NSInteger code,
                                                      const NSDictionary* userInfo = nullptr);
    [[nodiscard]] static Ref<NSError> errorWithDomain(const NSString& domain, NSInteger code,
                                                      const Ref<NSDictionary>& userInfo) {
        return errorWithDomain(domain, code, userInfo.get());
    }

    [[nodiscard]] Ref<NSString> domain() const { return domain_; }
    [[nodiscard]] NSInteger code() const noexcept { return code_; }
    /// Never nil.
    [[nodiscard]] Ref<NSDictionary> userInfo() const { return userInfo_; }

    /// The text of the dictionary, else "The operation couldn’t be completed." followed by the
    /// failure reason or, without one, by domain and code in parentheses.
    [[nodiscard]] Ref<NSString> localizedDescription() const;
    /// Nil when the dictionary has none; so the others.
    [[nodiscard]] Ref<NSString> localizedFailureReason() const;
    [[nodiscard]] Ref<NSString> localizedRecoverySuggestion() const;
    [[nodiscard]] Ref<NSError> underlyingError() const;

    /// The same domain and code, and equal dictionaries.
    [[nodiscard]] bool isEqual(const NSObject* other) const override;
    [[nodiscard]] NSUInteger hash() const override;
    /// `Error Domain=… Code=… "…" UserInfo={…}`
    [[nodiscard]] Ref<NSString> description() const override;
    /// The receiver itself.
    [[nodiscard]] id copyWithZone(void* zone) const override;

private:
    ~NSError() override = default;

    Ref<NSString> domain_;
    NSInteger code_;
    Ref<NSDictionary> userInfo_;
};

/// Where a function that fails puts its error; null when the caller does not want to know.
using NSErrorOut = Ref<NSError>*;

/// An error on its way up. `what()` is the error's description in UTF-8.
class VNTQ_EXPORT NSErrorException : public std::runtime_error {
public:
    explicit NSErrorException(Ref<NSError> error);
    [[nodiscard]] const Ref<NSError>& error() const noexcept { return error_; }

private:
    Ref<NSError> error_;
};

}  // namespace vantorq
