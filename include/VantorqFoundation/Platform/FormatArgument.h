#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "NSObject.h"

namespace vantorq {

/// One argument of a format string.
///
/// A format string is text with conversions, each `%[n$][flags][width][.precision][length]type`
/// (POSIX `fprintf`; flags `-+ #0`, `*` for width and precision), of type `@` (an object's
/// description, "(null)" for nil), `d i u x X o c C s f F e E g G p` and `%%`. An integer is cut to
/// the size that the length (`hh h l ll q j z t`) names, and to 32 bits without one, as C does. `C`
/// is a UTF-16 unit, `s` UTF-8 text; the precision of text counts UTF-16 units. The decimal point
/// is always ".". Widths and precisions above 4,096 count as 4,096. What is no conversion is
/// written as it stands.
///
/// The argument knows its type, so a conversion cannot read what is not there: `%@` takes any
/// argument and writes it plainly, an integer under a floating conversion (or the reverse) is
/// converted, a missing argument reads "(null)", and anything else that does not fit its conversion
/// is written as `%@` would.
///
/// It borrows what it is made from, for the length of the call.
class FormatArgument {
public:
    template <std::signed_integral T>
    FormatArgument(T value) noexcept : value_(static_cast<std::int64_t>(value)) {}
    template <std::unsigned_integral T>
    FormatArgument(T value) noexcept : value_(static_cast<std::uint64_t>(value)) {}
    template <std::floating_point T>
    FormatArgument(T value) noexcept : value_(static_cast<double>(value)) {}
    template <class T>
        requires std::is_enum_v<T>
    FormatArgument(T value) noexcept
        : FormatArgument(static_cast<std::underlying_type_t<T>>(value)) {}
    FormatArgument(std::string_view utf8) noexcept : value_(utf8) {}
    FormatArgument(const std::string& utf8) noexcept : value_(std::string_view(utf8)) {}
    FormatArgument(const char* utf8) noexcept
        : value_(utf8 != nullptr ? std::string_view(utf8) : std::string_view("(null)")) {}
    FormatArgument(const NSObject* object) noexcept : value_(object) {}
    FormatArgument(const NSObject& object) noexcept : value_(&object) {}
    FormatArgument(std::nullptr_t) noexcept : value_(static_cast<const NSObject*>(nullptr)) {}
    template <class T>
        requires std::derived_from<T, NSObject>
    FormatArgument(const Ref<T>& object) noexcept
        : value_(static_cast<const NSObject*>(object.get())) {}
    FormatArgument(const void* pointer) noexcept : value_(pointer) {}

    using Value = std::variant<std::int64_t, std::uint64_t, double, const NSObject*,
                               std::string_view, const void*>;
    [[nodiscard]] const Value& value() const noexcept { return value_; }

private:
    Value value_;
};

}  // namespace vantorq
