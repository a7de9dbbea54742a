#include "VantorqFoundation/Platform/NSIndexPath.h"

#include <gtest/gtest.h>

#include "Support/Print.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

Ref<NSIndexPath> path(std::initializer_list<NSUInteger> indexes) {
    return NSIndexPath::indexPathWithIndexes(indexes);
}

TEST(NSIndexPath, SectionAndItem) {
    const auto made = NSIndexPath::indexPathForItemInSection(3, 1);
    EXPECT_EQ(made->length(), 2U);
    EXPECT_EQ(made->section(), 1U);
    EXPECT_EQ(made->item(), 3U);
    EXPECT_EQ(made->row(), 3U);
    EXPECT_TRUE(made->isEqual(NSIndexPath::indexPathForRowInSection(3, 1).get()));
}

TEST(NSIndexPath, PositionsBeyondTheEndAreNotFound) {
    EXPECT_EQ(path({5})->indexAtPosition(0), 5U);
    EXPECT_EQ(path({5})->indexAtPosition(1), NSNotFound);
    EXPECT_EQ(path({})->section(), NSNotFound);
    EXPECT_EQ(path({5})->item(), NSNotFound);
}

TEST(NSIndexPath, Grows) {
    EXPECT_EQ(test::description(path({1, 2})->indexPathByAddingIndex(3)), "<NSIndexPath: 1, 2, 3>");
    EXPECT_EQ(test::description(path({})), "<NSIndexPath:>");
}

TEST(NSIndexPath, OrderIsThatOfTheFirstDifference) {
    EXPECT_EQ(path({1, 2})->compare(*path({1, 3})), NSComparisonResult::ascending);
    EXPECT_EQ(path({2})->compare(*path({1, 3})), NSComparisonResult::descending);
    EXPECT_EQ(path({1})->compare(*path({1, 0})), NSComparisonResult::ascending);
    EXPECT_EQ(path({1, 0})->compare(*path({1, 0})), NSComparisonResult::same);
}

TEST(NSIndexPath, EqualPathsAreEqualAndHashAlike) {
    EXPECT_TRUE(path({1, 2})->isEqual(path({1, 2}).get()));
    EXPECT_EQ(path({1, 2})->hash(), path({1, 2})->hash());
    EXPECT_FALSE(path({1, 2})->isEqual(path({2, 1}).get()));
    EXPECT_NE(path({1, 2})->hash(), path({2, 1})->hash());
    EXPECT_FALSE(path({1})->isEqual(path({1, 0}).get()));
    EXPECT_FALSE(path({1})->isEqual(nullptr));
}

TEST(NSIndexPath, AnswersMessages) {
    const id made = send<id>(NSIndexPath::classObject(), "indexPathForItem:inSection:"_sel,
                             NSUInteger{3}, NSUInteger{1});
    EXPECT_EQ(send<NSUInteger>(made, "item"_sel), 3U);
    EXPECT_EQ(send<NSUInteger>(made, "section"_sel), 1U);
}

}  // namespace
}  // namespace vantorq
