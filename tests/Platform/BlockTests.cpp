#include "VantorqFoundation/Platform/Block.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Trap.h"
#include "VantorqFoundation/VantorqFoundation.h"

namespace vantorq {
namespace {

using Doubling = Block<NSInteger(NSInteger)>;

TEST(Block, CallsTheFunctionThatItWasMadeFrom) {
    const Doubling twice = [](NSInteger n) { return 2 * n; };
    EXPECT_EQ(twice(21), 42);
}

TEST(Block, CopiesShareOneFunctionWithItsCaptures) {
    const auto counter = std::make_unique<int>(0);
    const Block<void()> count = [&counter] { ++*counter; };
    const Block<void()> copy = count;
    count();
    copy();
    EXPECT_EQ(*counter, 2);
    EXPECT_EQ(count, copy);
    EXPECT_EQ(id(count), id(copy));
    EXPECT_NE(count, Block<void()>([&counter] { ++*counter; }));
}

TEST(Block, CopyingTheObjectIsSharingIt) {
    const Doubling twice = [](NSInteger n) { return 2 * n; };
    EXPECT_EQ(id(twice)->copy(), id(twice));
    EXPECT_TRUE(id(twice)->conformsToProtocol(NSCopying));
}

TEST(Block, DestroysItsCapturesWithItsLastHandle) {
    const id captured = make<NSObject>();
    Block<void()> block = [captured] {};
    Block<void()> copy = block;
    EXPECT_EQ(captured->ownerCount(), 2U);
    block = nullptr;
    EXPECT_EQ(captured->ownerCount(), 2U);
    copy = nullptr;
    EXPECT_EQ(captured->ownerCount(), 1U);
}

TEST(Block, IsEmptyByDefault) {
    EXPECT_FALSE(Block<void()>());
    EXPECT_FALSE(Block<void()>(nullptr));
    EXPECT_TRUE(Block<void()>([] {}));
    EXPECT_EQ(id(Block<void()>()), nullptr);
}

TEST(Block, CallingAnEmptyOneTraps) {
    EXPECT_TRAP(Block<void()>()(), "an empty block was called");
}

TEST(Block, CarriesScalarsOfEveryKind) {
    EXPECT_EQ(Block<bool(bool)>([](bool b) { return !b; })(false), true);
    EXPECT_EQ(Block<std::int8_t(std::int8_t)>([](std::int8_t n) { return n; })(-128), -128);
    EXPECT_EQ(Block<std::uint16_t(std::uint16_t)>([](std::uint16_t n) { return n; })(65535), 65535);
    EXPECT_EQ(Block<std::int32_t(std::int32_t)>([](std::int32_t n) { return n; })(INT32_MIN),
              INT32_MIN);
    EXPECT_EQ(Block<std::uint64_t(std::uint64_t)>([](std::uint64_t n) { return n; })(UINT64_MAX),
              UINT64_MAX);
    EXPECT_EQ(Block<float(float)>([](float f) { return f / 2; })(3.0F), 1.5F);
    EXPECT_EQ(Block<double(double)>([](double d) { return d / 2; })(3.0), 1.5);
    EXPECT_EQ(Block<NSRange(NSRange)>([](NSRange r) { return r; })({2, 3}), (NSRange{2, 3}));
    EXPECT_EQ(Block<Selector(Selector)>([](Selector s) { return s; })("count"_sel), "count"_sel);
    EXPECT_EQ(Block<NSComparisonResult(NSComparisonResult)>([](NSComparisonResult r) { return r; })(
                  NSComparisonResult::descending),
              NSComparisonResult::descending);
}

TEST(Block, TakesAndGivesObjectsByReferencePointerAndHandle) {
    const auto text = NSString::string("text");
    EXPECT_EQ(
        Block<NSUInteger(const NSString&)>([](const NSString& t) { return t.length(); })(*text),
        4U);
    EXPECT_TRUE(
        Block<bool(const NSString*)>([](const NSString* t) { return t == nullptr; })(nullptr));
    const Block<Ref<NSString>(const Ref<NSString>&)> echo = [](const Ref<NSString>& t) {
        return t;
    };
    EXPECT_EQ(echo(text), text);
    EXPECT_EQ(echo(nullptr), nullptr);
}

TEST(Block, TakesAndGivesBlocks) {
    const Block<Doubling(Doubling)> twiceOver = [](Doubling inner) -> Doubling {
        return [inner](NSInteger n) { return inner(inner(n)); };
    };
    EXPECT_EQ(twiceOver([](NSInteger n) { return 3 * n; })(2), 18);
}

TEST(Block, FromReadsABlockBack) {
    const Doubling twice = [](NSInteger n) { return 2 * n; };
    const id object = twice;
    EXPECT_EQ(Doubling::from(object), twice);
    EXPECT_EQ(Doubling::from(object)(4), 8);
}

TEST(Block, FromRefusesAnotherSignature) {
    const id object = Doubling([](NSInteger n) { return n; });
    EXPECT_FALSE(Block<double(double)>::from(object));
    EXPECT_FALSE(Block<NSInteger()>::from(object));
    EXPECT_FALSE((Block<NSInteger(NSInteger, NSInteger)>::from(object)));
    EXPECT_FALSE(Block<void(NSInteger)>::from(object));
    EXPECT_FALSE(Block<NSInteger(NSUInteger)>::from(object));
}

TEST(Block, FromRefusesNilAndWhatIsNoBlock) {
    EXPECT_FALSE(Doubling::from(nullptr));
    EXPECT_FALSE(Doubling::from(make<NSObject>()));
}

TEST(Block, TellsItsSignature) {
    const Block<bool(NSObject*, NSInteger)> block = [](NSObject*, NSInteger) { return true; };
    EXPECT_STREQ(block.object()->signature(), "B@q");
    EXPECT_TRUE(block.object()->isKindOfClass(NSBlock::classObject()));
}

TEST(Block, AnArgumentOfAnotherClassTrapsWithBothNames) {
    const id object =
        Block<NSUInteger(const NSString&)>([](const NSString& text) { return text.length(); });
    const auto untyped = Block<NSUInteger(NSObject*)>::from(object);
    EXPECT_EQ(untyped("four"_ns.copy().get()), 4U);
    EXPECT_TRAP(untyped(NSNull::null().copy().get()),
                "an object of class NSNull was sent where NSString is required");
    EXPECT_TRAP(untyped(nullptr), "nil was sent where NSString is required");
}

TEST(Block, AResultOfAnotherClassTraps) {
    const id object = Block<id()>([] { return bridge(1); });
    const auto asText = Block<Ref<NSString>()>::from(object);
    EXPECT_TRAP((void)asText(), "an object of class NSNumber was sent where NSString is required");
}

TEST(Block, BridgesAValueThatItReturns) {
    const Block<std::string()> text = [] { return std::string("text"); };
    const id object = Block<id()>::from(id(text))();
    EXPECT_EQ(unbridge<std::string>(object), "text");
}

}  // namespace
}  // namespace vantorq
