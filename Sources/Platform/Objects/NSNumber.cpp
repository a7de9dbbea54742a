#include "VantorqFoundation/Platform/NSNumber.h"

#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "Sources/Platform/Objects/NumberText.h"
#include "Sources/Platform/Objects/Ordering.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/Hasher.h"

namespace vantorq {

namespace {

constexpr double kTwoTo63 = 0x1p63;
constexpr double kTwoTo64 = 0x1p64;

template <class T>
T saturated(double value) noexcept {
    constexpr double low = static_cast<double>(std::numeric_limits<T>::min());
    // 2^63 and 2^64 are floating-point numbers; the greatest integers below them are not.
    constexpr double beyond = std::is_signed_v<T> ? kTwoTo63 : kTwoTo64;
    return std::isnan(value) ? T{0}
           : value <= low    ? std::numeric_limits<T>::min()
           : value >= beyond ? std::numeric_limits<T>::max()
                             : static_cast<T>(value);
}

template <class T>
std::optional<T> exact(double value) noexcept {
    const T integer = saturated<T>(value);
    const bool inRange = value < (std::is_signed_v<T> ? kTwoTo63 : kTwoTo64);
    return inRange && static_cast<double>(integer) == value ? std::optional(integer) : std::nullopt;
}

template <class A, class B>
NSComparisonResult compareIntegers(A a, B b) noexcept {
    return std::cmp_less(a, b)      ? NSComparisonResult::ascending
           : std::cmp_greater(a, b) ? NSComparisonResult::descending
                                    : NSComparisonResult::same;
}

/// Exact: the integer parts as integers, then the fraction.
template <class T>
NSComparisonResult compareToDouble(T integer, double value) noexcept {
    if (std::isnan(value) || value < -kTwoTo63) {
        return NSComparisonResult::descending;
    }
    if (value >= kTwoTo64) {
        return NSComparisonResult::ascending;
    }
    const double whole = std::trunc(value);
    const auto order = whole < 0 ? compareIntegers(integer, static_cast<std::int64_t>(whole))
                                 : compareIntegers(integer, static_cast<std::uint64_t>(whole));
    return order != NSComparisonResult::same ? order : objects::compareDoubles(whole, value);
}

constexpr NSComparisonResult reversed(NSComparisonResult order) noexcept {
    return static_cast<NSComparisonResult>(-static_cast<NSInteger>(order));
}

}  // namespace

constexpr NSNumber NSNumber::kFalse{Kind::boolean, {.integer = 0}};
constexpr NSNumber NSNumber::kTrue{Kind::boolean, {.integer = 1}};

Ref<NSNumber> NSNumber::boolean(bool value) noexcept {
    return const_cast<NSNumber&>(value ? kTrue : kFalse);
}

Ref<NSNumber> NSNumber::create(Kind kind, Value value) {
    return Ref<NSNumber>::adopt(new NSNumber(kind, value));
}

const char* NSNumber::encoding() const noexcept {
    static constexpr const char* kEncodings[] = {"B", "c", "s", "i", "q", "C",
                                                 "S", "I", "Q", "f", "d"};
    return kEncodings[static_cast<std::size_t>(kind_)];
}

bool NSNumber::boolValue() const noexcept {
    return isFloatingPoint() ? value_.floating != 0 : unsignedIntegerValue() != 0;
}

std::int32_t NSNumber::intValue() const noexcept {
    if (isFloatingPoint()) {
        return static_cast<std::int32_t>(
            std::clamp<std::int64_t>(integerValue(), std::numeric_limits<std::int32_t>::min(),
                                     std::numeric_limits<std::int32_t>::max()));
    }
    return static_cast<std::int32_t>(integerValue());
}

NSInteger NSNumber::integerValue() const noexcept {
    return isFloatingPoint() ? saturated<NSInteger>(value_.floating)
           : isNatural()     ? static_cast<NSInteger>(value_.natural)
                             : value_.integer;
}

NSUInteger NSNumber::unsignedIntegerValue() const noexcept {
    return isFloatingPoint() ? saturated<NSUInteger>(value_.floating)
           : isNatural()     ? value_.natural
                             : static_cast<NSUInteger>(value_.integer);
}

float NSNumber::floatValue() const noexcept {
    // One rounding only: straight from the kind that is there.
    return isFloatingPoint() ? static_cast<float>(value_.floating)
           : isNatural()     ? static_cast<float>(value_.natural)
                             : static_cast<float>(value_.integer);
}

double NSNumber::doubleValue() const noexcept {
    return isFloatingPoint() ? value_.floating
           : isNatural()     ? static_cast<double>(value_.natural)
                             : static_cast<double>(value_.integer);
}

std::optional<std::int64_t> NSNumber::exactInt64() const noexcept {
    if (isFloatingPoint()) {
        return exact<std::int64_t>(value_.floating);
    }
    return isNatural() && value_.natural > INT64_MAX ? std::nullopt : std::optional(integerValue());
}

std::optional<std::uint64_t> NSNumber::exactUInt64() const noexcept {
    if (isFloatingPoint()) {
        return exact<std::uint64_t>(value_.floating);
    }
    return !isNatural() && value_.integer < 0 ? std::nullopt
                                              : std::optional(unsignedIntegerValue());
}

std::optional<double> NSNumber::exactDouble() const noexcept {
    const double value = doubleValue();
    const auto order = isFloatingPoint() ? NSComparisonResult::same
                       : isNatural()     ? compareToDouble(value_.natural, value)
                                         : compareToDouble(value_.integer, value);
    return order == NSComparisonResult::same ? std::optional(value) : std::nullopt;
}

NSComparisonResult NSNumber::compare(const NSNumber& other) const noexcept {
    if (isFloatingPoint()) {
        return other.isFloatingPoint()
                   ? objects::compareDoubles(value_.floating, other.value_.floating)
                   : reversed(other.compare(*this));
    }
    const auto compareInteger = [&](auto mine) {
        return other.isFloatingPoint() ? compareToDouble(mine, other.value_.floating)
               : other.isNatural()     ? compareIntegers(mine, other.value_.natural)
                                       : compareIntegers(mine, other.value_.integer);
    };
    return isNatural() ? compareInteger(value_.natural) : compareInteger(value_.integer);
}

bool NSNumber::isEqualToNumber(const NSNumber* other) const noexcept {
    return other != nullptr && compare(*other) == NSComparisonResult::same;
}

bool NSNumber::isEqual(const NSObject* other) const {
    return this == other || isEqualToNumber(objectCast<NSNumber>(other));
}

/// Integers hash by value, also those that are kept as floating point; so equal numbers agree.
NSUInteger NSNumber::hash() const {
    Hasher hasher;
    if (const auto integer = exactInt64()) {
        hasher.combine(*integer);
    } else if (const auto natural = exactUInt64()) {
        hasher.combine(*natural);
    } else {
        hasher.combine(std::isnan(value_.floating) ? std::numeric_limits<double>::quiet_NaN()
                                                   : value_.floating);
    }
    return hasher.finish();
}

Ref<NSString> NSNumber::description() const {
    return NSString::string(kind_ == Kind::float32
                                ? objects::numberText(static_cast<float>(value_.floating))
                            : kind_ == Kind::float64 ? objects::numberText(value_.floating)
                            : isNatural()            ? std::to_string(value_.natural)
                                                     : std::to_string(value_.integer));
}

id NSNumber::copyWithZone(void*) const {
    return const_cast<NSNumber&>(*this);
}

namespace {

constexpr const Protocol* kProtocols[] = {&NSCopying};

constexpr PropertyInfo kProperties[] = {
    property<&NSNumber::boolValue>("boolValue"),
    property<&NSNumber::intValue>("intValue"),
    property<&NSNumber::integerValue>("integerValue"),
    property<&NSNumber::longLongValue>("longLongValue"),
    property<&NSNumber::unsignedIntegerValue>("unsignedIntegerValue"),
    property<&NSNumber::unsignedLongLongValue>("unsignedLongLongValue"),
    property<&NSNumber::floatValue>("floatValue"),
    property<&NSNumber::doubleValue>("doubleValue"),
    property<&NSNumber::stringValue>("stringValue"),
};

constexpr MethodInfo kMethods[] = {
    classMethod<&NSNumber::number<bool>>("numberWithBool:"),
    classMethod<&NSNumber::number<std::int32_t>>("numberWithInt:"),
    classMethod<&NSNumber::number<NSInteger>>("numberWithInteger:"),
    classMethod<&NSNumber::number<NSUInteger>>("numberWithUnsignedInteger:"),
    classMethod<&NSNumber::number<std::int64_t>>("numberWithLongLong:"),
    classMethod<&NSNumber::number<std::uint64_t>>("numberWithUnsignedLongLong:"),
    classMethod<&NSNumber::number<float>>("numberWithFloat:"),
    classMethod<&NSNumber::number<double>>("numberWithDouble:"),
    method<&NSNumber::compare>("compare:"),
    method<&NSNumber::isEqualToNumber>("isEqualToNumber:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSNumber,
                  {.protocols = kProtocols, .properties = kProperties, .methods = kMethods})

}  // namespace vantorq
