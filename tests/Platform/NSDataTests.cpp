#include "VantorqFoundation/Platform/NSData.h"

#include <gtest/gtest.h>

#include "Support/Print.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

using test::description;

Ref<NSData> dataOf(std::string_view bytes) {
    return NSData::dataWithBytes(bytes);
}
std::span<const std::byte> bytesOf(std::string_view bytes) {
    return std::as_bytes(std::span(bytes));
}

TEST(NSData, CopiesTheBytes) {
    std::string bytes = "abc";
    const auto made = dataOf(bytes);
    bytes[0] = 'x';
    EXPECT_EQ(made->length(), 3U);
    EXPECT_EQ(made->bytes()[0], std::byte{'a'});
}

TEST(NSData, EqualDataIsEqualAndHashesAlike) {
    const auto made = NSMutableData::dataWithBytes(bytesOf("abc"));
    EXPECT_TRUE(dataOf("abc")->isEqual(made.get()));
    EXPECT_EQ(dataOf("abc")->hash(), made->hash());
    EXPECT_EQ(NSData::data()->hash(), make<NSMutableData>()->hash());
    EXPECT_FALSE(dataOf("abc")->isEqual(dataOf("abd").get()));
    EXPECT_FALSE(dataOf("abc")->isEqual(dataOf("ab").get()));
    EXPECT_FALSE(dataOf("abc")->isEqual(nullptr));
}

TEST(NSData, Subdata) {
    EXPECT_TRUE(dataOf("abcd")->subdataWithRange({1, 2})->isEqual(dataOf("bc").get()));
    EXPECT_EQ(dataOf("abcd")->subdataWithRange({4, 0})->length(), 0U);
    EXPECT_TRAP((void)dataOf("abcd")->subdataWithRange({3, 2}), "NSData: range out of bounds");
    EXPECT_TRAP((void)dataOf("abcd")->subdataWithRange({1, UINT64_MAX}), "out of bounds");
}

TEST(NSData, DescriptionShowsLengthAndBytes) {
    EXPECT_EQ(description(dataOf("\x01\x02\xFF")), "{length = 3, bytes = 0x0102ff}");
    EXPECT_EQ(description(NSData::data()), "{length = 0, bytes = 0x}");
    EXPECT_EQ(description(dataOf("0123456789abcdefghijklmn")),
              "{length = 24, bytes = 0x303132333435363738396162636465666768696a6b6c6d6e}");
    EXPECT_EQ(description(dataOf("0123456789abcdefghijklmnop")),
              "{length = 26, bytes = 0x30313233343536373839616263646566 ... 696a6b6c6d6e6f70}");
}

TEST(NSMutableData, Changes) {
    const auto made = NSMutableData::dataWithLength(2);
    EXPECT_EQ(description(made), "{length = 2, bytes = 0x0000}");
    made->mutableBytes()[0] = std::byte{1};
    made->appendBytes(bytesOf("\x05"));
    made->appendData(*dataOf("\x06"));
    EXPECT_EQ(description(made), "{length = 4, bytes = 0x01000506}");
    made->setLength(3);
    EXPECT_EQ(description(made), "{length = 3, bytes = 0x010005}");
    made->replaceBytesInRange({1, 1}, bytesOf("\x07\x08\x09"));
    EXPECT_EQ(description(made), "{length = 5, bytes = 0x0107080905}");
    made->replaceBytesInRange({0, 3}, bytesOf("\x0A"));
    EXPECT_EQ(description(made), "{length = 3, bytes = 0x0a0905}");
    EXPECT_TRAP(made->replaceBytesInRange({4, 0}, {}), "NSData: range out of bounds");
}

TEST(NSMutableData, AppendsItself) {
    const auto made = NSMutableData::dataWithBytes(bytesOf("ab"));
    made->appendData(*made);
    EXPECT_TRUE(made->isEqual(dataOf("abab").get()));
}

TEST(NSMutableData, CopiesAreIndependentAndImmutable) {
    const auto made = NSMutableData::dataWithBytes(bytesOf("ab"));
    const auto copied = objectCast<NSData>(made->copy());
    made->setLength(0);
    EXPECT_TRUE(copied->isEqual(dataOf("ab").get()));
    EXPECT_EQ(copied->copy(), copied);
    EXPECT_FALSE(copied->isKindOfClass(NSMutableData::classObject()));
    EXPECT_TRUE(copied->mutableCopy()->isKindOfClass(NSMutableData::classObject()));
}

TEST(NSData, AnswersMessages) {
    const id made = send<id>(NSMutableData::classObject(), "dataWithLength:"_sel, NSUInteger{3});
    send<void>(made, "setLength:"_sel, NSUInteger{2});
    EXPECT_EQ(send<NSUInteger>(made, "length"_sel), 2U);
}

}  // namespace
}  // namespace vantorq
