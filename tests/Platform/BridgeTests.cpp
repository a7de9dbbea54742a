#include "VantorqFoundation/Platform/Bridge.h"

#include <cmath>
#include <map>

#include <gtest/gtest.h>

#include "Support/Print.h"
#include "VantorqFoundation/Platform/NSArray.h"
#include "VantorqFoundation/Platform/NSDictionary.h"
#include "VantorqFoundation/Platform/NSNull.h"
#include "VantorqFoundation/Platform/NSNumber.h"

namespace vantorq {
namespace {

NSNumber::Kind kindOf(const id& object) {
    return objectCast<NSNumber>(object)->kind();
}

TEST(Bridge, NumbersKeepTheirKind) {
    EXPECT_EQ(kindOf(bridge(true)), NSNumber::Kind::boolean);
    EXPECT_EQ(kindOf(bridge(std::int8_t{-1})), NSNumber::Kind::int8);
    EXPECT_EQ(kindOf(bridge(std::int16_t{-1})), NSNumber::Kind::int16);
    EXPECT_EQ(kindOf(bridge(-1)), NSNumber::Kind::int32);
    EXPECT_EQ(kindOf(bridge(-1L)), NSNumber::Kind::int64);
    EXPECT_EQ(kindOf(bridge(std::uint8_t{1})), NSNumber::Kind::uint8);
    EXPECT_EQ(kindOf(bridge(std::uint16_t{1})), NSNumber::Kind::uint16);
    EXPECT_EQ(kindOf(bridge(1U)), NSNumber::Kind::uint32);
    EXPECT_EQ(kindOf(bridge(1UL)), NSNumber::Kind::uint64);
    EXPECT_EQ(kindOf(bridge(1.0F)), NSNumber::Kind::float32);
    EXPECT_EQ(kindOf(bridge(1.0)), NSNumber::Kind::float64);
}

TEST(Bridge, NumbersComeBackWhenTheyFit) {
    EXPECT_EQ(unbridge<int>(bridge(7L)), 7);
    EXPECT_EQ(unbridge<int>(bridge(7.0)), 7);
    EXPECT_EQ(unbridge<std::int8_t>(bridge(128)), std::nullopt);
    EXPECT_EQ(unbridge<unsigned>(bridge(-1)), std::nullopt);
    EXPECT_EQ(unbridge<int>(bridge(7.5)), std::nullopt);
    EXPECT_EQ(unbridge<std::uint64_t>(bridge(UINT64_MAX)), UINT64_MAX);
    EXPECT_EQ(unbridge<double>(bridge(7)), 7.0);
    EXPECT_EQ(unbridge<double>(bridge((1LL << 53) + 1)), std::nullopt);
    EXPECT_EQ(unbridge<float>(bridge(0.1)), 0.1F);
    EXPECT_EQ(unbridge<float>(bridge((1LL << 53) + 1)), 0x1p53F);
    EXPECT_TRUE(std::isnan(unbridge<double>(bridge(std::nan(""))).value_or(0)));
}

TEST(Bridge, BooleansAreZeroAndOne) {
    EXPECT_EQ(unbridge<bool>(bridge(true)), true);
    EXPECT_EQ(unbridge<bool>(bridge(0)), false);
    EXPECT_EQ(unbridge<bool>(bridge(1.0)), true);
    EXPECT_EQ(unbridge<bool>(bridge(2)), std::nullopt);
    EXPECT_EQ(unbridge<int>(bridge(true)), 1);
}

TEST(Bridge, NilAndOtherKindsGiveNothing) {
    EXPECT_EQ(unbridge<int>(id()), std::nullopt);
    EXPECT_EQ(unbridge<int>(bridge("7")), std::nullopt);
    EXPECT_EQ(unbridge<float>(bridge("7")), std::nullopt);
    EXPECT_EQ(unbridge<std::string>(bridge(7)), std::nullopt);
    EXPECT_EQ(unbridge<std::vector<int>>(bridge(7)), std::nullopt);
    EXPECT_EQ((unbridge<std::map<std::string, int>>(bridge(7))), std::nullopt);
}

TEST(Bridge, Text) {
    EXPECT_EQ(unbridge<std::string>(bridge(std::string("né"))), "né");
    EXPECT_EQ(test::description(bridge("né")), "né");
}

TEST(Bridge, SequencesBecomeArraysAndEmptyOptionalsNull) {
    const std::vector<std::optional<int>> values{1, std::nullopt};
    const auto array = objectCast<NSArray>(bridge(values));
    EXPECT_EQ(test::description(array), "(\n    1,\n    <null>\n)");
    EXPECT_EQ(bridge(std::optional<int>()), nullptr);
    EXPECT_EQ(unbridge<std::vector<int>>(bridge(std::vector<int>{1, 2})), (std::vector<int>{1, 2}));
    EXPECT_EQ(unbridge<std::vector<int>>(array), std::nullopt);
}

TEST(Bridge, OptionalsAreEmptyForNilAndTheNullObject) {
    using Number = std::optional<int>;
    EXPECT_EQ(unbridge<Number>(id()).value(), std::nullopt);
    EXPECT_EQ(unbridge<Number>(NSNull::orNull(nullptr)).value(), std::nullopt);
    EXPECT_EQ(unbridge<Number>(bridge(7)).value(), 7);
    EXPECT_EQ(unbridge<Number>(bridge("7")), std::nullopt) << "neither a number nor nothing";
    const id text = bridge("x");
    EXPECT_EQ(unbridge<std::optional<id>>(text).value(), text);
}

TEST(Bridge, OptionalsInsideSequencesAndMapsComeBack) {
    const std::vector<std::optional<int>> values{1, std::nullopt, 3};
    EXPECT_EQ(unbridge<std::vector<std::optional<int>>>(bridge(values)), values);
    EXPECT_EQ(unbridge<std::vector<std::optional<std::string>>>(bridge(values)), std::nullopt);
    const std::map<std::string, std::optional<double>> map{{"a", 1.5}, {"b", std::nullopt}};
    EXPECT_EQ((unbridge<std::map<std::string, std::optional<double>>>(bridge(map))), map);
}

TEST(Bridge, MapsBecomeDictionaries) {
    const std::map<std::string, int> map{{"a", 1}, {"b", 2}};
    EXPECT_EQ(test::description(bridge(map)), "{\n    a = 1;\n    b = 2;\n}");
    EXPECT_EQ((unbridge<std::map<std::string, int>>(bridge(map))), map);
}

TEST(Bridge, ObjectsAreThemselves) {
    const auto text = NSString::string("x");
    EXPECT_EQ(bridge(text), text);
    EXPECT_EQ(unbridge<Ref<NSString>>(bridge(text)), text);
    EXPECT_EQ(unbridge<Ref<NSNumber>>(bridge(text)), std::nullopt);
}

}  // namespace
}  // namespace vantorq
