#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "VantorqFoundation/Platform/Bridge.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/NSArray.h"
#include "VantorqFoundation/Platform/NSDictionary.h"
#include "VantorqFoundation/Platform/NSNull.h"
#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/NSObject.h"
#include "VantorqFoundation/Platform/NSString.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {

namespace {

/// A key's text; most keys are ASCII and are read where they stand.
class KeyText {
public:
    explicit KeyText(const NSString& key) {
        if (const auto ascii = key.asciiView()) {
            view_ = *ascii;
        } else {
            held_ = key.utf8();
            view_ = held_;
        }
    }
    [[nodiscard]] std::string_view view() const noexcept { return view_; }

private:
    std::string held_;
    std::string_view view_;
};

std::string accessorName(std::string_view prefix, std::string_view key, std::string_view suffix) {
    std::string name(prefix);
    name += key;
    name += suffix;
    if (!key.empty() && key[0] >= 'a' && key[0] <= 'z') {
        name[prefix.size()] = static_cast<char>(key[0] - 'a' + 'A');
    }
    return name;
}

/// The method that `object` answers to an accessor's name; null when there is none.
const MethodInfo* accessor(const NSObject& object, std::string_view name) {
    const ResolvedMethod* method = detail::findMethod(&object, Selector(name));
    return method != nullptr ? method->info : nullptr;
}

template <class T>
id saturated(double value) {
    if (std::isnan(value)) {
        return bridge(T{0});
    }
    if (value <= static_cast<double>(std::numeric_limits<T>::min())) {
        return bridge(std::numeric_limits<T>::min());
    }
    if (value >= static_cast<double>(std::numeric_limits<T>::max())) {
        return bridge(std::numeric_limits<T>::max());
    }
    return bridge(static_cast<T>(value));
}

id saturatedInteger(char encoding, double value) {
    switch (encoding) {
        case 'c':
            return saturated<std::int8_t>(value);
        case 's':
            return saturated<std::int16_t>(value);
        case 'i':
            return saturated<std::int32_t>(value);
        case 'q':
            return saturated<std::int64_t>(value);
        case 'C':
            return saturated<std::uint8_t>(value);
        case 'S':
            return saturated<std::uint16_t>(value);
        case 'I':
            return saturated<std::uint32_t>(value);
        case 'Q':
            return saturated<std::uint64_t>(value);
        default:
            return nullptr;
    }
}

/// The number that `value` gives for a scalar of that encoding when it is not one already: text is
/// read as a number, fractions are cut, and what is out of range is brought to its edge.
id scalarValue(char encoding, const id& value) {
    if (const auto text = objectCast<NSString>(value)) {
        return encoding == 'B'   ? bridge(text->boolValue())
               : encoding == 'q' ? bridge(text->integerValue())
               : encoding == 'd' || encoding == 'f'
                   ? bridge(text->doubleValue())
                   : saturatedInteger(encoding, text->doubleValue());
    }
    const auto number = objectCast<NSNumber>(value);
    if (number == nullptr) {
        return nullptr;
    }
    return encoding == 'B'   ? bridge(number->boolValue())
           : encoding == 'd' ? bridge(number->doubleValue())
                             : saturatedInteger(encoding, number->doubleValue());
}

/// Gives `value` to a setter, a method of one argument.
void callSetter(NSObject& object, const MethodInfo& setter, const id& value, const NSString& key) {
    const bool isScalar = !setter.parameters.front().isObject;
    if (value == nullptr && isScalar) {
        object.setNilValueForKey(key);
        return;
    }
    if (setter.invokeBoxed(&object, {&value, 1})) {
        return;
    }
    if (isScalar) {
        const id converted = scalarValue(std::string_view(setter.signature).back(), value);
        if (converted != nullptr && setter.invokeBoxed(&object, {&converted, 1})) {
            return;
        }
    }
    trap({"-[", object.objectClass().name(),
          " setValue:forKey:]: ", value != nullptr ? "an object of class " : "",
          value != nullptr ? value->objectClass().name() : "nil", " does not fit the property ",
          KeyText(key).view()});
}

}  // namespace

id NSObject::valueForKey(const NSString& key) const {
    const KeyText text(key);
    if (const PropertyInfo* property = objectClass().propertyNamed(text.view())) {
        return property->getter.invokeBoxed(const_cast<NSObject*>(this), {}).value_or(nullptr);
    }
    for (const std::string& name :
         {std::string(text.view()), accessorName("is", text.view(), "")}) {
        const MethodInfo* getter = accessor(*this, name);
        // What gives nothing back is an action, not a value.
        if (getter != nullptr && getter->parameters.empty() && getter->signature[0] != 'v') {
            return getter->invokeBoxed(const_cast<NSObject*>(this), {}).value_or(nullptr);
        }
    }
    return valueForUndefinedKey(key);
}

void NSObject::setValueForKey(const id& value, const NSString& key) {
    const KeyText text(key);
    const bool observed = hasObservers();
    if (observed) {
        willChangeValueForKey(key);
    }
    const PropertyInfo* property = objectClass().propertyNamed(text.view());
    const MethodInfo* setter = property != nullptr && !property->isReadOnly()
                                   ? &property->setter
                                   : accessor(*this, accessorName("set", text.view(), ":"));
    if (setter != nullptr && setter->parameters.size() == 1) {
        callSetter(*this, *setter, value, key);
    } else {
        setValueForUndefinedKey(value, key);
    }
    if (observed) {
        didChangeValueForKey(key);
    }
}

id NSObject::valueForUndefinedKey(const NSString& key) const {
    trap({"-[", objectClass().name(), " valueForUndefinedKey:]: there is no value for the key ",
          KeyText(key).view()});
}

void NSObject::setValueForUndefinedKey(const id&, const NSString& key) {
    trap({"-[", objectClass().name(),
          " setValue:forUndefinedKey:]: no value can be set for the key ", KeyText(key).view()});
}

void NSObject::setNilValueForKey(const NSString& key) {
    trap({"-[", objectClass().name(), " setNilValueForKey:]: nil was set for the scalar ",
          KeyText(key).view()});
}

id NSObject::valueForKeyPath(const NSString& path) const {
    id value(const_cast<NSObject&>(*this));
    const auto keys = path.componentsSeparatedByString("."_ns);
    for (const id& key : keys->elements()) {
        if (value == nullptr) {
            break;
        }
        value = value->valueForKey(static_cast<const NSString&>(*key));
    }
    return value;
}

void NSObject::setValueForKeyPath(const id& value, const NSString& path) {
    const NSRange first = path.rangeOfString("."_ns);
    if (first.location == NSNotFound) {
        setValueForKey(value, path);
        return;
    }
    const id next = valueForKey(*path.substringToIndex(first.location));
    if (next != nullptr) {
        next->setValueForKeyPath(value, *path.substringFromIndex(first.location + 1));
    }
}

void NSObject::setValuesForKeysWithDictionary(const NSDictionary& values) {
    const auto keys = values.allKeys();
    for (const id& key : keys->elements()) {
        const auto name = objectCast<NSString>(key);
        if (name == nullptr) {
            trap({"-[", objectClass().name(),
                  " setValuesForKeysWithDictionary:]: a key is no string but of class ",
                  key->objectClass().name()});
        }
        const id value = values.objectForKey(*key);
        setValueForKey(objectCast<NSNull>(value) != nullptr ? nullptr : value, *name);
    }
}

Ref<NSDictionary> NSObject::dictionaryWithValuesForKeys(const NSArray& keys) const {
    const auto values = make<NSMutableDictionary>();
    for (const id& key : keys.elements()) {
        const auto name = objectCast<NSString>(key);
        if (name == nullptr) {
            trap({"-[", objectClass().name(),
                  " dictionaryWithValuesForKeys:]: a key is no string but of class ",
                  key->objectClass().name()});
        }
        values->setObjectForKey(NSNull::orNull(valueForKey(*name)), *key);
    }
    return values;
}

}  // namespace vantorq
