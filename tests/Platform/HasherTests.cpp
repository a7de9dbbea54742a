#include "VantorqFoundation/Platform/Hasher.h"

#include <set>
#include <string>

#include <gtest/gtest.h>

namespace vantorq {
namespace {

template <class... Values>
std::uint64_t hashOf(const Values&... values) {
    Hasher hasher;
    (hasher.combine(values), ...);
    return hasher.finish();
}

TEST(Hasher, IsTheSameWithinAProcess) {
    EXPECT_EQ(Hasher::seed(), Hasher::seed());
    EXPECT_EQ(hashOf(1, 2.5, std::string_view("x")), hashOf(1, 2.5, std::string_view("x")));
}

TEST(Hasher, OrderAndNumberOfFieldsMatter) {
    EXPECT_NE(hashOf(1, 2), hashOf(2, 1));
    EXPECT_NE(hashOf(1), hashOf(1, 0));
}

TEST(Hasher, ZerosHashAlike) {
    EXPECT_EQ(hashOf(0.0), hashOf(-0.0));
    EXPECT_EQ(hashOf(0.0F), hashOf(-0.0F));
    EXPECT_EQ(hashOf(1.5F), hashOf(1.5));
}

TEST(Hasher, NeighbouringTextsDoNotRunIntoOneAnother) {
    EXPECT_NE(hashOf(std::string_view("ab"), std::string_view("c")),
              hashOf(std::string_view("a"), std::string_view("bc")));
    EXPECT_NE(hashOf(std::string_view("")), hashOf(std::string_view("\0", 1)));
}

TEST(Hasher, EveryByteOfATextMatters) {
    std::set<std::uint64_t> seen;
    for (std::size_t length = 0; length <= 40; ++length) {
        const std::string text(length, 'x');
        EXPECT_TRUE(seen.insert(hashOf(std::string_view(text))).second) << length;
        for (std::size_t at = 0; at < length; ++at) {
            std::string changed = text;
            changed[at] = 'y';
            EXPECT_TRUE(seen.insert(hashOf(std::string_view(changed))).second)
                << length << ", " << at;
        }
    }
}

}  // namespace
}  // namespace vantorq
