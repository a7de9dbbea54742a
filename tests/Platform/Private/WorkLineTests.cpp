#include "Sources/Platform/Dispatch/WorkLine.h"

#include <array>
#include <cstddef>
#include <deque>
#include <random>
#include <span>
#include <vector>

#include <gtest/gtest.h>

namespace vantorq {
namespace {

TEST(WorkLine, IsEmptyAtFirst) {
    WorkLine line;
    EXPECT_TRUE(line.isEmpty());
    EXPECT_EQ(line.size(), 0U);
    std::array<Work*, 1> out{};
    EXPECT_EQ(line.take(out), 0U);
}

TEST(WorkLine, GivesAllThereIsToWhoeverAsksForMore) {
    WorkLine line;
    std::array<Work, 3> works;
    for (Work& work : works) {
        line.push(work);
    }
    std::array<Work*, 5> out{};
    EXPECT_EQ(line.take(out), 3U);
    EXPECT_EQ(out, (std::array<Work*, 5>{&works[0], &works[1], &works[2], nullptr, nullptr}));
    EXPECT_TRUE(line.isEmpty());
}

/// Lets a line and a model get longer and shorter until `most` works wait, and empties them.
void growAndShrink(WorkLine& line, std::size_t most, unsigned seed) {
    std::mt19937 random(seed);
    const auto upTo = [&random](std::size_t limit) {
        return std::uniform_int_distribution<std::size_t>(0, limit)(random);
    };
    std::vector<Work> works(most);
    std::deque<Work*> model;
    std::vector<Work*> out(most);
    const auto takeFromBoth = [&](std::size_t count) {
        count = line.take(std::span(out).first(count));
        ASSERT_LE(count, model.size());
        for (std::size_t i = 0; i < count; ++i) {
            ASSERT_EQ(out[i], model.front());
            model.pop_front();
        }
    };
    while (model.size() < most) {
        for (std::size_t i = upTo(most / 4) + 1; i > 0 && model.size() < most; --i) {
            Work& work = works[upTo(most - 1)];
            line.push(work);
            model.push_back(&work);
        }
        ASSERT_EQ(line.size(), model.size());
        if (model.size() < most) {
            takeFromBoth(upTo(most / 5));
        }
    }
    takeFromBoth(most);
    EXPECT_TRUE(model.empty());
    EXPECT_TRUE(line.isEmpty());
}

TEST(WorkLine, KeepsTheOrderHoweverItGrowsAndShrinks) {
    WorkLine line;
    // After the longest the line gives its memory back, and begins anew.
    unsigned seed = 0;
    for (const std::size_t most : {1U, 2U, 63U, 64U, 65U, 1'000U, 100'000U, 200U}) {
        SCOPED_TRACE(most);
        growAndShrink(line, most, ++seed);
    }
}

}  // namespace
}  // namespace vantorq
