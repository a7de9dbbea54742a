#include "VantorqFoundation/Platform/NSNumber.h"

#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Print.h"
#include "VantorqFoundation/Platform/NSNull.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

using Kind = NSNumber::Kind;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

template <class T>
Ref<NSNumber> num(T value) {
    return NSNumber::number(value);
}

TEST(NSNumber, KeepsItsKind) {
    EXPECT_EQ(num(true)->kind(), Kind::boolean);
    EXPECT_EQ(num(std::int8_t{1})->kind(), Kind::int8);
    EXPECT_EQ(num(std::int16_t{1})->kind(), Kind::int16);
    EXPECT_EQ(num(1)->kind(), Kind::int32);
    EXPECT_EQ(num(1L)->kind(), Kind::int64);
    EXPECT_EQ(num(1LL)->kind(), Kind::int64);
    EXPECT_EQ(num(std::uint8_t{1})->kind(), Kind::uint8);
    EXPECT_EQ(num(std::uint16_t{1})->kind(), Kind::uint16);
    EXPECT_EQ(num(1U)->kind(), Kind::uint32);
    EXPECT_EQ(num(1UL)->kind(), Kind::uint64);
    EXPECT_EQ(num(1.0F)->kind(), Kind::float32);
    EXPECT_EQ(num(1.0)->kind(), Kind::float64);
}

TEST(NSNumber, EncodingNamesTheKind) {
    EXPECT_STREQ(num(true)->encoding(), "B");
    EXPECT_STREQ(num('a')->encoding(), "c");
    EXPECT_STREQ(num(1L)->encoding(), "q");
    EXPECT_STREQ(num(1UL)->encoding(), "Q");
    EXPECT_STREQ(num(1.0F)->encoding(), "f");
    EXPECT_STREQ(num(1.0)->encoding(), "d");
}

TEST(NSNumber, BooleansAreShared) {
    EXPECT_EQ(num(true), num(true));
    EXPECT_EQ(num(false), num(false));
    EXPECT_NE(num(true), num(false));
    EXPECT_TRUE(num(true)->isBoolean());
    EXPECT_FALSE(num(1)->isBoolean());
}

TEST(NSNumber, ConvertsBetweenIntegersByTheLowBits) {
    EXPECT_EQ(num(-1)->unsignedIntegerValue(), UINT64_MAX);
    EXPECT_EQ(num(UINT64_MAX)->integerValue(), -1);
    EXPECT_EQ(num(0x1'0000'0002)->intValue(), 2);
    EXPECT_EQ(num(true)->integerValue(), 1);
    EXPECT_TRUE(num(INT64_MIN)->boolValue());
    EXPECT_FALSE(num(0U)->boolValue());
}

TEST(NSNumber, ConvertsFromFloatingPointBySaturating) {
    EXPECT_EQ(num(-2.9)->integerValue(), -2);
    EXPECT_EQ(num(1e300)->integerValue(), INT64_MAX);
    EXPECT_EQ(num(-kInfinity)->integerValue(), INT64_MIN);
    EXPECT_EQ(num(kNaN)->integerValue(), 0);
    EXPECT_EQ(num(-1.0)->unsignedIntegerValue(), 0U);
    EXPECT_EQ(num(0x1p64)->unsignedIntegerValue(), UINT64_MAX);
    EXPECT_EQ(num(1e10)->intValue(), INT32_MAX);
    EXPECT_TRUE(num(0.1)->boolValue());
    EXPECT_FALSE(num(-0.0)->boolValue());
}

TEST(NSNumber, ExactConversionsRefuseWhatDoesNotFit) {
    EXPECT_EQ(num(3.0)->exactInt64(), 3);
    EXPECT_EQ(num(3.5)->exactInt64(), std::nullopt);
    EXPECT_EQ(num(kNaN)->exactInt64(), std::nullopt);
    EXPECT_EQ(num(0x1p63)->exactInt64(), std::nullopt);
    EXPECT_EQ(num(-0x1p63)->exactInt64(), INT64_MIN);
    EXPECT_EQ(num(UINT64_MAX)->exactInt64(), std::nullopt);
    EXPECT_EQ(num(-1)->exactUInt64(), std::nullopt);
    EXPECT_EQ(num(0x1p63)->exactUInt64(), std::uint64_t{1} << 63);
    EXPECT_EQ(num(0x1p64)->exactUInt64(), std::nullopt);
    EXPECT_EQ(num((1LL << 53) + 1)->exactDouble(), std::nullopt);
    EXPECT_EQ(num(1LL << 53)->exactDouble(), 0x1p53);
    EXPECT_EQ(num(INT64_MAX)->exactDouble(), std::nullopt);
    EXPECT_EQ(num(UINT64_MAX)->exactDouble(), std::nullopt);
}

// In ascending order; the numbers of one row are equal.
std::vector<std::vector<Ref<NSNumber>>> orderedNumbers() {
    return {
        {num(kNaN), num(-kNaN), num(std::numeric_limits<float>::quiet_NaN())},
        {num(-kInfinity)},
        {num(-1e300)},
        {num(INT64_MIN), num(-0x1p63)},
        {num(INT64_MIN + 1)},
        {num(-1.5)},
        {num(-1), num(std::int8_t{-1}), num(-1.0), num(-1.0F)},
        {num(-0.5)},
        {num(0), num(0U), num(false), num(0.0), num(-0.0)},
        {num(0.1)},
        {num(0.1F)},
        {num(1), num(1U), num(true), num(1.0)},
        {num(1.5), num(1.5F)},
        {num(0x1p53), num(1LL << 53)},
        {num((1LL << 53) + 1), num((1ULL << 53) + 1)},
        {num(0x1p53 + 2)},
        {num(INT64_MAX), num(std::uint64_t{INT64_MAX})},
        {num(0x1p63), num(std::uint64_t{1} << 63)},
        {num(UINT64_MAX)},
        {num(0x1p64)},
        {num(kInfinity)},
    };
}

TEST(NSNumber, OrderIsExactAcrossKinds) {
    const auto rows = orderedNumbers();
    for (std::size_t i = 0; i < rows.size(); ++i) {
        for (std::size_t j = 0; j < rows.size(); ++j) {
            for (const auto& a : rows[i]) {
                for (const auto& b : rows[j]) {
                    EXPECT_EQ(a->compare(*b), i < j   ? NSComparisonResult::ascending
                                              : i > j ? NSComparisonResult::descending
                                                      : NSComparisonResult::same)
                        << test::description(a) << " and " << test::description(b);
                    EXPECT_EQ(a->isEqual(b.get()), i == j);
                }
            }
        }
    }
}

TEST(NSNumber, EqualNumbersHashAlike) {
    for (const auto& row : orderedNumbers()) {
        for (const auto& number : row) {
            EXPECT_EQ(number->hash(), row.front()->hash()) << test::description(number);
        }
    }
    EXPECT_NE(num(1)->hash(), num(2)->hash());
    EXPECT_NE(num(0.1)->hash(), num(0.2)->hash());
}

TEST(NSNumber, EqualsOnlyNumbers) {
    EXPECT_FALSE(num(1)->isEqual("1"_ns.copy().get()));
    EXPECT_FALSE(num(1)->isEqual(nullptr));
    EXPECT_FALSE(num(1)->isEqualToNumber(nullptr));
}

TEST(NSNumber, Descriptions) {
    EXPECT_EQ(test::description(num(true)), "1");
    EXPECT_EQ(test::description(num(false)), "0");
    EXPECT_EQ(test::description(num('a')), "97");
    EXPECT_EQ(test::description(num(INT64_MIN)), "-9223372036854775808");
    EXPECT_EQ(test::description(num(UINT64_MAX)), "18446744073709551615");
    EXPECT_EQ(test::description(num(0.1)), "0.1");
    EXPECT_EQ(test::description(num(0.1F)), "0.1");
    EXPECT_EQ(test::description(num(100000.0)), "100000");
    EXPECT_EQ(test::description(num(-0.0)), "-0");
    EXPECT_EQ(test::description(num(1e22)), "1e+22");
    EXPECT_EQ(test::description(num(1.5e-7)), "1.5e-07");
    EXPECT_EQ(test::description(num(kNaN)), "nan");
    EXPECT_EQ(test::description(num(-kInfinity)), "-inf");
    EXPECT_EQ(test::description(num(1)->stringValue()), "1");
}

TEST(NSNumber, IsItsOwnCopy) {
    const auto number = num(7);
    EXPECT_EQ(number->copy(), number);
}

TEST(NSNumber, AnswersMessages) {
    const id made = send<id>(NSNumber::classObject(), "numberWithInteger:"_sel, NSInteger{7});
    EXPECT_EQ(send<NSInteger>(made, "integerValue"_sel), 7);
    EXPECT_EQ(send<double>(made, "doubleValue"_sel), 7.0);
    EXPECT_EQ(send<NSComparisonResult>(made, "compare:"_sel, num(8)),
              NSComparisonResult::ascending);
}

TEST(NSNull, IsOneObject) {
    EXPECT_EQ(&NSNull::null(), &NSNull::null());
    EXPECT_EQ(NSNull::null().copy().get(), &NSNull::null());
    EXPECT_EQ(test::description(NSNull::null()), "<null>");
    EXPECT_EQ(send<id>(NSNull::classObject(), "null"_sel).get(), &NSNull::null());
    EXPECT_EQ(send<id>(NSNull::classObject(), "alloc"_sel), nullptr);
}

TEST(NSNull, StandsForNil) {
    EXPECT_EQ(NSNull::orNull(nullptr).get(), &NSNull::null());
    EXPECT_EQ(NSNull::orNull("a"_ns).get(), &"a"_ns);
}

}  // namespace
}  // namespace vantorq
