#include "VantorqFoundation/Platform/NSError.h"

#include "Sources/Platform/Objects/TextBuilder.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/Hasher.h"

namespace vantorq {

constinit NSString& NSLocalizedDescriptionKey = "NSLocalizedDescription"_ns;
constinit NSString& NSLocalizedFailureReasonErrorKey = "NSLocalizedFailureReason"_ns;
constinit NSString& NSLocalizedRecoverySuggestionErrorKey = "NSLocalizedRecoverySuggestion"_ns;
constinit NSString& NSUnderlyingErrorKey = "NSUnderlyingError"_ns;

constinit NSString& NSURLErrorDomain = "NSURLErrorDomain"_ns;
constinit NSString& NSCocoaErrorDomain = "NSCocoaErrorDomain"_ns;
constinit NSString& NSPOSIXErrorDomain = "NSPOSIXErrorDomain"_ns;

NSError::NSError(const NSString& domain, NSInteger code, const NSDictionary* userInfo)
    : domain_(objectCast<NSString>(domain.copy())),
      code_(code),
      userInfo_(userInfo != nullptr ? NSDictionary::dictionaryWithDictionary(*userInfo)
                                    : NSDictionary::dictionary()) {}

Ref<NSError> NSError::errorWithDomain(const NSString& domain, NSInteger code,
                                      const NSDictionary* userInfo) {
    return make<NSError>(domain, code, userInfo);
}

Ref<NSString> NSError::localizedDescription() const {
    if (auto text = objectCast<NSString>(userInfo_->objectForKey(NSLocalizedDescriptionKey))) {
        return text;
    }
    if (const auto reason = localizedFailureReason()) {
        return NSString::stringWithFormat("The operation couldn’t be completed. %@"_ns, reason);
    }
    return NSString::stringWithFormat("The operation couldn’t be completed. (%@ error %ld.)"_ns,
                                      domain_, code_);
}

Ref<NSString> NSError::localizedFailureReason() const {
    return objectCast<NSString>(userInfo_->objectForKey(NSLocalizedFailureReasonErrorKey));
}

Ref<NSString> NSError::localizedRecoverySuggestion() const {
    return objectCast<NSString>(userInfo_->objectForKey(NSLocalizedRecoverySuggestionErrorKey));
}

Ref<NSError> NSError::underlyingError() const {
    return objectCast<NSError>(userInfo_->objectForKey(NSUnderlyingErrorKey));
}

bool NSError::isEqual(const NSObject* other) const {
    if (this == other) {
        return true;
    }
    const auto* error = objectCast<NSError>(other);
    return error != nullptr && code_ == error->code_ &&
           domain_->isEqualToString(error->domain_.get()) &&
           userInfo_->isEqualToDictionary(error->userInfo_.get());
}

NSUInteger NSError::hash() const {
    Hasher hasher;
    hasher.combine(domain_->hash());
    hasher.combine(code_);
    return hasher.finish();
}

Ref<NSString> NSError::description() const {
    objects::TextBuilder text;
    text.append(*NSString::stringWithFormat("Error Domain=%@ Code=%ld \"%@\" UserInfo={"_ns,
                                            domain_, code_, localizedDescription()));
    bool isFirst = true;
    for (const auto& [key, value] : objects::describedEntries(*userInfo_)) {
        text.appendAscii(isFirst ? "" : ", ");
        isFirst = false;
        text.append(*key);
        text.appendAscii("=");
        text.appendDescription(value.get());
    }
    text.appendAscii("}");
    return text.finish();
}

id NSError::copyWithZone(void*) const {
    return const_cast<NSError&>(*this);
}

NSErrorException::NSErrorException(Ref<NSError> error)
    : std::runtime_error(error->description()->utf8()), error_(std::move(error)) {}

namespace {

constexpr const Protocol* kProtocols[] = {&NSCopying};

constexpr PropertyInfo kProperties[] = {
    property<&NSError::domain>("domain"),
    property<&NSError::code>("code"),
    property<&NSError::userInfo>("userInfo"),
    property<&NSError::localizedDescription>("localizedDescription"),
    property<&NSError::localizedFailureReason>("localizedFailureReason"),
    property<&NSError::localizedRecoverySuggestion>("localizedRecoverySuggestion"),
};

constexpr MethodInfo kMethods[] = {
    classMethod<+[](const NSString& domain, NSInteger code, const NSDictionary* userInfo) {
        return NSError::errorWithDomain(domain, code, userInfo);
    }>("errorWithDomain:code:userInfo:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSError,
                  {.protocols = kProtocols, .properties = kProperties, .methods = kMethods})

}  // namespace vantorq
