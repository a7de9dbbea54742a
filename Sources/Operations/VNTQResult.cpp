#include "VantorqFoundation/VNTQResult.h"

#include "VantorqFoundation/Errors.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/NSNull.h"

namespace vantorq {

Ref<VNTQResult> VNTQResult::resultWithSuccess(const id& value) {
    return make<VNTQResult>()->initWithSuccess(value);
}

Ref<VNTQResult> VNTQResult::resultWithFailure(const id& error) {
    return make<VNTQResult>()->initWithFailure(error);
}

Ref<VNTQResult> VNTQResult::success() {
    static VNTQResult& shared = immortal(resultWithSuccess(NSNull::null()));
    return shared;
}

Ref<VNTQResult> VNTQResult::failure() {
    static VNTQResult& shared = immortal(resultWithFailure(vntq_foundationErrorWithCode(
        VNTQFoundationErrorFailure,
        NSDictionary::dictionary(
            {{NSLocalizedDescriptionKey, "Operation could not be completed."_ns}}))));
    return shared;
}

Ref<VNTQResult> VNTQResult::initWithSuccess(const id& value) {
    type_ = VNTQResultType::success;
    value_ = value;
    return *this;
}

Ref<VNTQResult> VNTQResult::initWithFailure(const id& error) {
    type_ = VNTQResultType::failure;
    error_ = error;
    return *this;
}

id VNTQResult::copyWithZone(void*) const {
    switch (type_) {
        case VNTQResultType::success:
            return resultWithSuccess(value_);
        case VNTQResultType::failure:
            return resultWithFailure(error_);
        case VNTQResultType::none:
            break;
    }
    return nullptr;
}

Ref<NSString> VNTQResult::description() const {
    auto root = NSObject::description();
    switch (type_) {
        case VNTQResultType::success:
            return NSString::stringWithFormat("%@ : Success { %@ }"_ns, root, value_);
        case VNTQResultType::failure:
            return NSString::stringWithFormat("%@ : Failure { %@ }"_ns, root, error_);
        case VNTQResultType::none:
            break;
    }
    return root;
}

namespace {

constexpr const Protocol* kProtocols[] = {&NSCopying};
constexpr PropertyInfo kProperties[] = {
    property<&VNTQResult::type, &VNTQResult::setType>("type"),
    property<&VNTQResult::error, &VNTQResult::setError>("error"),
    property<&VNTQResult::value, &VNTQResult::setValue>("value"),
};
constexpr MethodInfo kMethods[] = {
    classMethod<&VNTQResult::resultWithSuccess>("resultWithSuccess:"),
    classMethod<&VNTQResult::resultWithFailure>("resultWithFailure:"),
    method<&VNTQResult::initWithSuccess>("initWithSuccess:"),
    method<&VNTQResult::initWithFailure>("initWithFailure:"),
};
constexpr PropertyInfo kStandardProperties[] = {
    classProperty<&VNTQResult::success>("success"),
    classProperty<&VNTQResult::failure>("failure"),
};

}  // namespace

VNTQ_DEFINE_CLASS(VNTQResult,
                  {.protocols = kProtocols, .properties = kProperties, .methods = kMethods})

extern const CategoryInfo kVNTQResultStandard;
constinit const CategoryInfo kVNTQResultStandard{
    &VNTQResult::classObject, "VNTQResultStandard", {}, kStandardProperties};

}  // namespace vantorq
