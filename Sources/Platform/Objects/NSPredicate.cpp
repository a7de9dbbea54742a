#include "VantorqFoundation/Platform/NSPredicate.h"

#include <array>
#include <optional>
#include <utility>

#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/NSArray.h"
#include "VantorqFoundation/Platform/NSDate.h"
#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/NSSet.h"

namespace vantorq {

namespace {

using Type = NSPredicateOperatorType;

/// How two things are ordered; nothing when they are not.
std::optional<NSComparisonResult> order(const NSObject* a, const NSObject* b) {
    if (const auto *x = objectCast<NSNumber>(a), *y = objectCast<NSNumber>(b); x && y) {
        return x->compare(*y);
    }
    if (const auto *x = objectCast<NSString>(a), *y = objectCast<NSString>(b); x && y) {
        return x->compare(*y);
    }
    if (const auto *x = objectCast<NSDate>(a), *y = objectCast<NSDate>(b); x && y) {
        return x->compare(*y);
    }
    return std::nullopt;
}

bool isMember(const NSObject* value, const NSObject* collection) {
    if (value == nullptr) {
        return false;
    }
    if (const auto* array = objectCast<NSArray>(collection)) {
        return array->containsObject(*value);
    }
    if (const auto* set = objectCast<NSSet>(collection)) {
        return set->containsObject(*value);
    }
    const auto* text = objectCast<NSString>(collection);
    const auto* piece = objectCast<NSString>(value);
    return text != nullptr && piece != nullptr && text->containsString(*piece);
}

bool holds(const NSObject* value, Type type, const NSObject* constant) {
    const auto ordered = [&](auto accept) {
        const auto result = order(value, constant);
        return result.has_value() && accept(*result);
    };
    using Order = NSComparisonResult;
    const auto* text = objectCast<NSString>(value);
    const auto* piece = objectCast<NSString>(constant);
    switch (type) {
        case Type::lessThan:
            return ordered([](Order o) { return o == Order::ascending; });
        case Type::lessThanOrEqualTo:
            return ordered([](Order o) { return o != Order::descending; });
        case Type::greaterThan:
            return ordered([](Order o) { return o == Order::descending; });
        case Type::greaterThanOrEqualTo:
            return ordered([](Order o) { return o != Order::ascending; });
        case Type::equalTo:
            return isEqual(value, constant);
        case Type::notEqualTo:
            return !isEqual(value, constant);
        case Type::beginsWith:
            return text && piece && text->hasPrefix(*piece);
        case Type::endsWith:
            return text && piece && text->hasSuffix(*piece);
        case Type::in:
            return isMember(value, constant);
        case Type::contains:
            return isMember(constant, value);
    }
    return false;
}

}  // namespace

Ref<NSPredicate> NSPredicate::predicateWithBlock(Block<bool(NSObject*)> block) {
    if (!block) {
        VNTQ_TRAP("NSPredicate: an empty block is no condition");
    }
    return make<NSPredicate>(std::move(block));
}

Ref<NSPredicate> NSPredicate::predicateWithKeyPath(const NSString& keyPath, Type type,
                                                   const id& value) {
    const auto path = objectCast<NSString>(keyPath.copy());
    return make<NSPredicate>(Block<bool(NSObject*)>([path, type, value](NSObject* object) {
        const id read =
            object == nullptr || path->length() == 0 ? id(object) : object->valueForKeyPath(*path);
        return holds(read.get(), type, value.get());
    }));
}

id NSPredicate::copyWithZone(void*) const {
    return id(const_cast<NSPredicate&>(*this));
}

namespace {

constexpr const Protocol* kProtocols[] = {&NSCopying};
constexpr MethodInfo kMethods[] = {
    classMethod<&NSPredicate::predicateWithBlock>("predicateWithBlock:"),
    classMethod<&NSPredicate::predicateWithKeyPath>("predicateWithKeyPath:type:value:"),
    method<&NSPredicate::evaluateWithObject>("evaluateWithObject:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSPredicate, {.protocols = kProtocols, .methods = kMethods})

}  // namespace vantorq
