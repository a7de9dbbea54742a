#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <type_traits>

#include "NSObject.h"
#include "NSString.h"

namespace vantorq {

/// An immutable number that remembers what kind of number it was made from.
///
/// Equality and order are those of the numbers, exactly and whatever the kinds: 1, 1.0 and true are
/// equal, and 2^53 + 1 differs from the floating-point number nearest to it. NaN equals NaN and
/// comes before every other number.
///
/// Threads: any.
class VNTQ_EXPORT NSNumber final : public NSObject {
    VNTQ_OBJECT(NSNumber, NSObject)
public:
    enum class Kind : std::uint8_t {
        boolean,
        int8,
        int16,
        int32,
        int64,
        uint8,
        uint16,
        uint32,
        uint64,
        float32,
        float64,
    };

    /// The two booleans are shared objects; every other number is made. `long double` is rounded.
    template <class T>
        requires std::is_arithmetic_v<T>
    [[nodiscard]] static Ref<NSNumber> number(T value);

    [[nodiscard]] Kind kind() const noexcept { return kind_; }
    [[nodiscard]] bool isBoolean() const noexcept { return kind_ == Kind::boolean; }
    [[nodiscard]] bool isFloatingPoint() const noexcept { return kind_ >= Kind::float32; }
    /// The kind as in Signature.h: one of "B c s i q C S I Q f d".
    [[nodiscard]] const char* encoding() const noexcept;

    // Conversions. Between integers they keep the low bits, as C does; from floating point they cut
    // the fraction off, saturate, and make 0 of NaN.

    /// Whether the number differs from zero.
    [[nodiscard]] bool boolValue() const noexcept;
    [[nodiscard]] std::int32_t intValue() const noexcept;
    [[nodiscard]] NSInteger integerValue() const noexcept;
    [[nodiscard]] std::int64_t longLongValue() const noexcept { return integerValue(); }
    [[nodiscard]] NSUInteger unsignedIntegerValue() const noexcept;
    [[nodiscard]] std::uint64_t unsignedLongLongValue() const noexcept {
        return unsignedIntegerValue();
    }
    [[nodiscard]] float floatValue() const noexcept;
    [[nodiscard]] double doubleValue() const noexcept;
    /// The same as `description`.
    [[nodiscard]] Ref<NSString> stringValue() const { return description(); }

    // Exact conversions: nothing when the type cannot hold the number. A NaN is a `double`.

    [[nodiscard]] std::optional<std::int64_t> exactInt64() const noexcept;
    [[nodiscard]] std::optional<std::uint64_t> exactUInt64() const noexcept;
    [[nodiscard]] std::optional<double> exactDouble() const noexcept;

    [[nodiscard]] NSComparisonResult compare(const NSNumber& other) const noexcept;
    [[nodiscard]] bool isEqualToNumber(const NSNumber* other) const noexcept;
    [[nodiscard]] bool isEqual(const NSObject* other) const override;
    [[nodiscard]] NSUInteger hash() const override;
    /// Decimal; a boolean is 1 or 0. Floating point has the fewest digits that read back as the
    /// same number of its kind, "." as the decimal point, and may be "inf", "-inf" or "nan".
    [[nodiscard]] Ref<NSString> description() const override;
    /// The receiver itself.
    [[nodiscard]] id copyWithZone(void* zone) const override;

private:
    static const NSNumber kFalse;
    static const NSNumber kTrue;

    union Value {
        std::int64_t integer;  // the signed kinds and boolean
        std::uint64_t natural;
        double floating;
    };

    constexpr NSNumber(Kind kind, Value value) noexcept : value_(value), kind_(kind) {}
    constexpr ~NSNumber() override {}

    static Ref<NSNumber> boolean(bool value) noexcept;
    static Ref<NSNumber> create(Kind kind, Value value);
    [[nodiscard]] bool isNatural() const noexcept {
        return kind_ >= Kind::uint8 && kind_ <= Kind::uint64;
    }
    template <class T>
    static consteval Kind kindOf();

    Value value_;
    Kind kind_;
};

template <class T>
consteval NSNumber::Kind NSNumber::kindOf() {
    if constexpr (std::same_as<T, float>) {
        return Kind::float32;
    } else if constexpr (std::floating_point<T>) {
        return Kind::float64;
    } else {
        const Kind smallest = std::is_signed_v<T> ? Kind::int8 : Kind::uint8;
        const int step = sizeof(T) == 1 ? 0 : sizeof(T) == 2 ? 1 : sizeof(T) == 4 ? 2 : 3;
        return static_cast<Kind>(static_cast<int>(smallest) + step);
    }
}

template <class T>
    requires std::is_arithmetic_v<T>
Ref<NSNumber> NSNumber::number(T value) {
    if constexpr (std::same_as<T, bool>) {
        return boolean(value);
    } else if constexpr (std::floating_point<T>) {
        return create(kindOf<T>(), {.floating = static_cast<double>(value)});
    } else if constexpr (std::is_signed_v<T>) {
        return create(kindOf<T>(), {.integer = value});
    } else {
        return create(kindOf<T>(), {.natural = value});
    }
}

}  // namespace vantorq
