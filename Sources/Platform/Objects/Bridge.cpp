#include "VantorqFoundation/Platform/Bridge.h"

#include "VantorqFoundation/Platform/NSArray.h"
#include "VantorqFoundation/Platform/NSDictionary.h"
#include "VantorqFoundation/Platform/NSNull.h"
#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/NSString.h"

namespace vantorq::detail {

id bridgeSigned(std::int64_t value, std::size_t size) {
    switch (size) {
        case 1:
            return NSNumber::number(static_cast<std::int8_t>(value));
        case 2:
            return NSNumber::number(static_cast<std::int16_t>(value));
        case 4:
            return NSNumber::number(static_cast<std::int32_t>(value));
        default:
            return NSNumber::number(value);
    }
}

id bridgeUnsigned(std::uint64_t value, std::size_t size) {
    switch (size) {
        case 1:
            return NSNumber::number(static_cast<std::uint8_t>(value));
        case 2:
            return NSNumber::number(static_cast<std::uint16_t>(value));
        case 4:
            return NSNumber::number(static_cast<std::uint32_t>(value));
        default:
            return NSNumber::number(value);
    }
}

id bridgeDouble(double value) {
    return NSNumber::number(value);
}

id bridgeFloat(float value) {
    return NSNumber::number(value);
}

id bridgeBool(bool value) {
    return NSNumber::number(value);
}

id bridgeText(std::string_view utf8) {
    return NSString::string(utf8);
}

id bridgeSequence(std::vector<id> elements) {
    for (id& element : elements) {
        element = NSNull::orNull(std::move(element));
    }
    return NSArray::array(std::move(elements));
}

id bridgeEntries(std::vector<std::pair<id, id>> entries) {
    for (auto& [key, value] : entries) {
        key = NSNull::orNull(std::move(key));
        value = NSNull::orNull(std::move(value));
    }
    return NSDictionary::dictionary(entries);
}

bool isNilOrNull(const NSObject* object) noexcept {
    return object == nullptr || object == &NSNull::null();
}

std::optional<std::int64_t> unbridgeSigned(const NSObject* object) {
    const auto* number = objectCast<NSNumber>(object);
    return number != nullptr ? number->exactInt64() : std::nullopt;
}

std::optional<std::uint64_t> unbridgeUnsigned(const NSObject* object) {
    const auto* number = objectCast<NSNumber>(object);
    return number != nullptr ? number->exactUInt64() : std::nullopt;
}

std::optional<double> unbridgeDouble(const NSObject* object) {
    const auto* number = objectCast<NSNumber>(object);
    return number != nullptr ? number->exactDouble() : std::nullopt;
}

std::optional<float> unbridgeFloat(const NSObject* object) {
    const auto* number = objectCast<NSNumber>(object);
    return number != nullptr ? std::optional(number->floatValue()) : std::nullopt;
}

std::optional<bool> unbridgeBool(const NSObject* object) {
    const auto value = unbridgeUnsigned(object);
    return value && *value <= 1 ? std::optional(*value == 1) : std::nullopt;
}

std::optional<std::string> unbridgeText(const NSObject* object) {
    const auto* text = objectCast<NSString>(object);
    return text != nullptr ? std::optional(text->utf8()) : std::nullopt;
}

std::optional<std::vector<id>> unbridgeSequence(const NSObject* object) {
    const auto* array = objectCast<NSArray>(object);
    if (array == nullptr) {
        return std::nullopt;
    }
    return std::vector<id>(array->elements().begin(), array->elements().end());
}

std::optional<std::vector<std::pair<id, id>>> unbridgeEntries(const NSObject* object) {
    const auto* dictionary = objectCast<NSDictionary>(object);
    if (dictionary == nullptr) {
        return std::nullopt;
    }
    std::vector<std::pair<id, id>> entries;
    entries.reserve(dictionary->count());
    dictionary->enumerate(
        [&](const id& key, const id& value) { entries.emplace_back(key, value); });
    return entries;
}

}  // namespace vantorq::detail
