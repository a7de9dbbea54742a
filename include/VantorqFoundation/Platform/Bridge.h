#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "Export.h"
#include "NSObject.h"

/// Typed values in and out of the untyped side.
///
/// `bridge(value)` makes an object of an integer, float, boolean, enumeration (NSNumber), text
/// (NSString, from UTF-8), optional (nil when empty), vector or other range (NSArray; an empty
/// optional inside becomes the null object) or map (NSDictionary); an object is its own bridge.
/// `unbridge<T>(object)` reads a `T` back, or nothing when the object is nil, is of another kind,
/// or holds a number that `T` cannot represent exactly (`float` takes any number, rounded). Where
/// `T` is an optional, nil and the null object are read as an empty one. A type of the host joins
/// in by an overload of `bridge` beside it, and by a specialisation of `BridgeTraits`.
///
/// Threads: any.
namespace vantorq {

namespace detail {
VNTQ_EXPORT id bridgeSigned(std::int64_t value, std::size_t size);
VNTQ_EXPORT id bridgeUnsigned(std::uint64_t value, std::size_t size);
VNTQ_EXPORT id bridgeDouble(double value);
VNTQ_EXPORT id bridgeFloat(float value);
VNTQ_EXPORT id bridgeBool(bool value);
VNTQ_EXPORT id bridgeText(std::string_view utf8);
VNTQ_EXPORT id bridgeSequence(std::vector<id> elements);
VNTQ_EXPORT id bridgeEntries(std::vector<std::pair<id, id>> entries);

/// Whether the object is nil or the null object.
VNTQ_EXPORT bool isNilOrNull(const NSObject* object) noexcept;
VNTQ_EXPORT std::optional<std::int64_t> unbridgeSigned(const NSObject* object);
VNTQ_EXPORT std::optional<std::uint64_t> unbridgeUnsigned(const NSObject* object);
VNTQ_EXPORT std::optional<double> unbridgeDouble(const NSObject* object);
VNTQ_EXPORT std::optional<float> unbridgeFloat(const NSObject* object);
VNTQ_EXPORT std::optional<bool> unbridgeBool(const NSObject* object);
VNTQ_EXPORT std::optional<std::string> unbridgeText(const NSObject* object);
VNTQ_EXPORT std::optional<std::vector<id>> unbridgeSequence(const NSObject* object);
VNTQ_EXPORT std::optional<std::vector<std::pair<id, id>>> unbridgeEntries(const NSObject* object);

template <class T>
concept MapLike = requires {
    typename T::key_type;
    typename T::mapped_type;
};
template <class T>
concept SequenceLike = requires(const T& t) {
    typename T::value_type;
    t.begin();
    t.end();
} && !MapLike<T> && !std::convertible_to<T, std::string_view>;
}  // namespace detail

template <class T>
    requires std::derived_from<T, NSObject>
[[nodiscard]] id bridge(Ref<T> object) {
    return object;
}
template <class T>
    requires std::derived_from<T, NSObject>
[[nodiscard]] id bridge(T* object) {
    return id(object);
}
template <class T>
    requires std::is_arithmetic_v<T>
[[nodiscard]] id bridge(T value) {
    if constexpr (std::same_as<T, bool>) {
        return detail::bridgeBool(value);
    } else if constexpr (std::same_as<T, float>) {
        return detail::bridgeFloat(value);
    } else if constexpr (std::floating_point<T>) {
        return detail::bridgeDouble(static_cast<double>(value));
    } else if constexpr (std::signed_integral<T>) {
        return detail::bridgeSigned(value, sizeof value);
    } else {
        return detail::bridgeUnsigned(value, sizeof value);
    }
}
template <class T>
    requires std::is_enum_v<T>
[[nodiscard]] id bridge(T value) {
    return bridge(static_cast<std::underlying_type_t<T>>(value));
}
template <class T>
    requires(std::convertible_to<const T&, std::string_view> && !std::same_as<T, std::nullptr_t>)
[[nodiscard]] id bridge(const T& utf8) {
    return detail::bridgeText(utf8);
}
template <class T>
[[nodiscard]] id bridge(const std::optional<T>& value);
template <detail::MapLike T>
[[nodiscard]] id bridge(const T& map);

template <detail::SequenceLike T>
[[nodiscard]] id bridge(const T& sequence) {
    std::vector<id> elements;
    elements.reserve(static_cast<std::size_t>(std::distance(sequence.begin(), sequence.end())));
    for (auto&& element : sequence) {
        elements.push_back(bridge(static_cast<const typename T::value_type&>(element)));
    }
    return detail::bridgeSequence(std::move(elements));
}
template <class T>
[[nodiscard]] id bridge(const std::optional<T>& value) {
    return value ? bridge(*value) : nullptr;
}
template <detail::MapLike T>
[[nodiscard]] id bridge(const T& map) {
    std::vector<std::pair<id, id>> entries;
    for (const auto& [key, value] : map) {
        entries.emplace_back(bridge(key), bridge(value));
    }
    return detail::bridgeEntries(std::move(entries));
}

template <class T>
struct BridgeTraits;

template <class T>
[[nodiscard]] std::optional<T> unbridge(const NSObject* object) {
    return BridgeTraits<T>::unbridge(object);
}
template <class T, class U>
[[nodiscard]] std::optional<T> unbridge(const Ref<U>& object) {
    return BridgeTraits<T>::unbridge(object.get());
}

template <class T>
    requires std::is_arithmetic_v<T>
struct BridgeTraits<T> {
    static std::optional<T> unbridge(const NSObject* object) {
        if constexpr (std::same_as<T, bool>) {
            return detail::unbridgeBool(object);
        } else if constexpr (std::same_as<T, float>) {
            return detail::unbridgeFloat(object);
        } else if constexpr (std::floating_point<T>) {
            const auto value = detail::unbridgeDouble(object);
            return value ? std::optional<T>(static_cast<T>(*value)) : std::nullopt;
        } else if constexpr (std::signed_integral<T>) {
            return narrow(detail::unbridgeSigned(object));
        } else {
            return narrow(detail::unbridgeUnsigned(object));
        }
    }

private:
    template <class Wide>
    static std::optional<T> narrow(std::optional<Wide> value) {
        if (!value ||
            !std::in_range<std::conditional_t<
                sizeof(T) == 1, std::conditional_t<std::is_signed_v<T>, std::int8_t, std::uint8_t>,
                std::conditional_t<std::is_signed_v<T>, std::make_signed_t<T>,
                                   std::make_unsigned_t<T>>>>(*value)) {
            return std::nullopt;
        }
        return static_cast<T>(*value);
    }
};
template <class T>
    requires std::is_enum_v<T>
struct BridgeTraits<T> {
    static std::optional<T> unbridge(const NSObject* object) {
        const auto value = BridgeTraits<std::underlying_type_t<T>>::unbridge(object);
        return value ? std::optional<T>(static_cast<T>(*value)) : std::nullopt;
    }
};
template <>
struct BridgeTraits<std::string> {
    static std::optional<std::string> unbridge(const NSObject* object) {
        return detail::unbridgeText(object);
    }
};
template <class T>
struct BridgeTraits<Ref<T>> {
    static std::optional<Ref<T>> unbridge(const NSObject* object) {
        if constexpr (std::same_as<T, NSObject>) {
            return object != nullptr ? std::optional(id(const_cast<NSObject*>(object)))
                                     : std::nullopt;
        } else {
            auto* typed = const_cast<T*>(objectCast<T>(object));
            return typed != nullptr ? std::optional(Ref<T>(typed)) : std::nullopt;
        }
    }
};
template <class T>
struct BridgeTraits<std::optional<T>> {
    static std::optional<std::optional<T>> unbridge(const NSObject* object) {
        if (detail::isNilOrNull(object)) {
            return std::optional<T>();
        }
        auto value = BridgeTraits<T>::unbridge(object);
        if (!value) {
            return std::nullopt;
        }
        return value;
    }
};
template <class T>
struct BridgeTraits<std::vector<T>> {
    static std::optional<std::vector<T>> unbridge(const NSObject* object) {
        const auto elements = detail::unbridgeSequence(object);
        if (!elements) {
            return std::nullopt;
        }
        std::vector<T> out;
        out.reserve(elements->size());
        for (const id& element : *elements) {
            auto value = BridgeTraits<T>::unbridge(element.get());
            if (!value) {
                return std::nullopt;
            }
            out.push_back(std::move(*value));
        }
        return out;
    }
};
template <detail::MapLike T>
struct BridgeTraits<T> {
    static std::optional<T> unbridge(const NSObject* object) {
        const auto entries = detail::unbridgeEntries(object);
        if (!entries) {
            return std::nullopt;
        }
        T out;
        for (const auto& [key, value] : *entries) {
            auto typedKey = BridgeTraits<typename T::key_type>::unbridge(key.get());
            auto typedValue = BridgeTraits<typename T::mapped_type>::unbridge(value.get());
            if (!typedKey || !typedValue) {
                return std::nullopt;
            }
            out.emplace(std::move(*typedKey), std::move(*typedValue));
        }
        return out;
    }
};

}  // namespace vantorq
