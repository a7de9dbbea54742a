#include "VantorqFoundation/Platform/Selector.h"

#include <array>
#include <string>
#include <unordered_set>

#include <gtest/gtest.h>

#include "Support/Threads.h"

namespace vantorq {
namespace {

TEST(Selector, TwoOfOneNameAreOne) {
    EXPECT_EQ(Selector("objectAtIndex:"), Selector(std::string("objectAtIndex") + ":"));
    EXPECT_NE(Selector("objectAtIndex:"), Selector("objectAtIndex"));
}

TEST(Selector, ALiteralAndARunTimeNameAgree) {
    EXPECT_EQ(Selector("setValue:forKey:"_sel), Selector("setValue:forKey:"));
    EXPECT_EQ(Selector("setValue:forKey:"_sel), Selector("setValue:forKey:"_sel));
}

TEST(Selector, KeepsItsOwnCopyOfTheName) {
    std::string text = "temporary:";
    const Selector selector(text);
    text = "replaced..";
    EXPECT_EQ(selector.name(), "temporary:");
    EXPECT_EQ(selector.name().data()[selector.name().size()], '\0');
}

TEST(Selector, ADefaultMadeOneIsFalseAndNameless) {
    EXPECT_FALSE(Selector());
    EXPECT_EQ(Selector().name(), "");
    EXPECT_TRUE(Selector(""));
    EXPECT_NE(Selector(), Selector(""));
}

TEST(Selector, HashesByIdentity) {
    const std::unordered_set<Selector> set{Selector("a"), Selector("b"), "a"_sel};
    EXPECT_EQ(set.size(), 2U);
}

TEST(Selector, ThreadsThatInternTheSameNamesGetTheSameSelectors) {
    constexpr std::size_t kThreads = 4;
    constexpr std::size_t kNames = 500;
    std::array<std::array<Selector, kNames>, kThreads> found;
    test::together(kThreads, [&](int t) {
        for (std::size_t n = 0; n < kNames; ++n) {
            found[static_cast<std::size_t>(t)][n] = Selector("interned" + std::to_string(n) + ":");
        }
    });
    for (std::size_t t = 1; t < kThreads; ++t) {
        EXPECT_EQ(found[t], found[0]);
    }
    EXPECT_EQ(std::unordered_set<Selector>(found[0].begin(), found[0].end()).size(), kNames);
}

}  // namespace
}  // namespace vantorq
