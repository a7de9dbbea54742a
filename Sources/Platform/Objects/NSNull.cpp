#include "VantorqFoundation/Platform/NSNull.h"

#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/NSString.h"

namespace vantorq {

constexpr NSNull NSNull::kInstance;

NSNull& NSNull::null() {
    return const_cast<NSNull&>(kInstance);
}

id NSNull::orNull(id value) noexcept {
    return value != nullptr ? std::move(value) : id(null());
}

Ref<NSString> NSNull::description() const {
    return "<null>"_ns;
}

id NSNull::copyWithZone(void*) const {
    return null();
}

namespace {
constexpr const Protocol* kProtocols[] = {&NSCopying};
constexpr MethodInfo kMethods[] = {classMethod<&NSNull::null>("null")};
}  // namespace

VNTQ_DEFINE_CLASS(NSNull, {.protocols = kProtocols, .methods = kMethods})

}  // namespace vantorq
