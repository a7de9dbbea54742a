#include "VantorqFoundation/Platform/NSObject.h"

#include <array>
#include <cstdint>
#include <string>

#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/Hasher.h"
#include "VantorqFoundation/Platform/NSArray.h"
#include "VantorqFoundation/Platform/NSDictionary.h"
#include "VantorqFoundation/Platform/NSString.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {

const Class& NSObject::objectClass() const {
    return classObject();
}

bool NSObject::isKindOfClass(const Class& cls) const {
    return objectClass().isSubclassOf(cls);
}

bool NSObject::isMemberOfClass(const Class& cls) const {
    return &objectClass() == &cls;
}

bool NSObject::respondsToSelector(Selector selector) const {
    return objectClass().instancesRespondToSelector(selector);
}

bool NSObject::conformsToProtocol(const Protocol& protocol) const {
    return objectClass().classConformsToProtocol(protocol);
}

bool NSObject::isEqual(const NSObject* other) const {
    return this == other;
}

NSUInteger NSObject::hash() const {
    Hasher hasher;
    hasher.combine(static_cast<const void*>(this));
    return hasher.finish();
}

Ref<NSString> NSObject::description() const {
    std::array<char, 19> address{'0', 'x'};
    auto value = reinterpret_cast<std::uintptr_t>(this);
    std::size_t digits = 1;
    for (auto rest = value >> 4; rest != 0; rest >>= 4) {
        ++digits;
    }
    for (std::size_t at = digits; at > 0; --at, value >>= 4) {
        address[1 + at] = "0123456789abcdef"[value & 0xF];
    }
    return NSString::string("<" + std::string(objectClass().name()) + ": " +
                            std::string(address.data(), digits + 2) + ">");
}

Ref<NSString> NSObject::debugDescription() const {
    return description();
}

id NSObject::copyWithZone(void*) const {
    trap({"-[", objectClass().name(), " copyWithZone:]: the class does not adopt NSCopying"});
}

id NSObject::mutableCopyWithZone(void*) const {
    trap({"-[", objectClass().name(),
          " mutableCopyWithZone:]: the class does not adopt NSMutableCopying"});
}

id NSBlock::copyWithZone(void*) const {
    return id(const_cast<NSBlock&>(*this));
}

namespace {

constexpr const Protocol* kBlockProtocols[] = {&NSCopying};

constexpr PropertyInfo kProperties[] = {
    property<&NSObject::hash>("hash"),
    property<+[](const NSObject& self) {
        return id(const_cast<Class*>(self.objectClass().superclass()));
    }>("superclass"),
    property<&NSObject::description>("description"),
    property<&NSObject::debugDescription>("debugDescription"),
    classProperty<+[](const Class& cls) { return id(const_cast<Class*>(cls.superclass())); }>(
        "superclass"),
};

constexpr MethodInfo kMethods[] = {
    classMethod<+[](const Class& cls) { return cls.alloc(); }>("alloc"),
    classMethod<+[](const Class& cls) { return send<id>(cls.alloc(), "init"_sel); }>("new"),
    classMethod<+[](const Class& cls) { return id(const_cast<Class&>(cls)); }>("class"),
    method<+[](NSObject& self) { return id(self); }>("init"),
    method<+[](NSObject& self) { return id(self); }>("self"),
    method<+[](const NSObject& self) { return id(const_cast<Class&>(self.objectClass())); }>(
        "class"),
    method<&NSObject::isKindOfClass>("isKindOfClass:"),
    method<&NSObject::isMemberOfClass>("isMemberOfClass:"),
    method<&NSObject::respondsToSelector>("respondsToSelector:"),
    method<&NSObject::isEqual>("isEqual:"),
    method<&NSObject::copy>("copy"),
    method<&NSObject::mutableCopy>("mutableCopy"),
    method<&NSObject::copyWithZone>("copyWithZone:"),
    method<&NSObject::mutableCopyWithZone>("mutableCopyWithZone:"),
    method<&NSObject::valueForKey>("valueForKey:"),
    method<&NSObject::setValueForKey>("setValue:forKey:"),
    method<&NSObject::valueForUndefinedKey>("valueForUndefinedKey:"),
    method<&NSObject::setValueForUndefinedKey>("setValue:forUndefinedKey:"),
    method<&NSObject::setNilValueForKey>("setNilValueForKey:"),
    method<&NSObject::valueForKeyPath>("valueForKeyPath:"),
    method<&NSObject::setValueForKeyPath>("setValue:forKeyPath:"),
    method<&NSObject::setValuesForKeysWithDictionary>("setValuesForKeysWithDictionary:"),
    method<&NSObject::dictionaryWithValuesForKeys>("dictionaryWithValuesForKeys:"),
    method<&NSObject::willChangeValueForKey>("willChangeValueForKey:"),
    method<&NSObject::didChangeValueForKey>("didChangeValueForKey:"),
    method<+[](NSObject& self, NSObject& observer, const NSString& key,
               KeyValueObservingOptions options, void* context) {
        self.addObserver(observer, key, options, context);
    }>("addObserver:forKeyPath:options:context:"),
    method<+[](NSObject& self, const NSObject& observer, const NSString& key) {
        self.removeObserver(observer, key);
    }>("removeObserver:forKeyPath:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSBlock, {.protocols = kBlockProtocols})

constinit const ClassInfo NSObject::kClass{"NSObject",
                                           nullptr,
                                           [] { return id(make<NSObject>()); },
                                           {.properties = kProperties, .methods = kMethods}};

const Class& NSObject::classObject() {
    static const Class& cls = Class::of(kClass);
    return cls;
}

}  // namespace vantorq
