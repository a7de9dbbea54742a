#include "Sources/Operations/TimeoutDelay.h"

#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

namespace vantorq {
namespace {

constexpr std::uint64_t kLongest = INT64_MAX;

TEST(TimeoutDelay, IsCutToWholeNanoseconds) {
    EXPECT_EQ(timeoutDelay(2).nanoseconds, 2'000'000'000U);
    EXPECT_EQ(timeoutDelay(0.25).nanoseconds, 250'000'000U);
    EXPECT_EQ(timeoutDelay(15.75e-9).nanoseconds, 15U);
    EXPECT_EQ(timeoutDelay(0.99e-9).nanoseconds, 0U);
}

TEST(TimeoutDelay, MayBeATenthOfItselfLate) {
    EXPECT_EQ(timeoutDelay(2).leeway, 200'000'000U);
    EXPECT_EQ(timeoutDelay(0.25).leeway, 25'000'000U);
    // A tenth of the whole nanoseconds, and cut once more.
    EXPECT_EQ(timeoutDelay(19.5e-9).leeway, 1U);
    EXPECT_EQ(timeoutDelay(9.5e-9).leeway, 0U);
}

TEST(TimeoutDelay, IsNoneForWhatIsNotAboveZero) {
    for (const double seconds : {0.0, -0.0, -1.0, -std::numeric_limits<double>::infinity(),
                                 std::numeric_limits<double>::quiet_NaN()}) {
        EXPECT_EQ(timeoutDelay(seconds), (TimeoutDelay{0, 0})) << seconds;
    }
}

TEST(TimeoutDelay, IsTheLongestForWhatIsLonger) {
    for (const double seconds :
         {9'223'372'036.854'775'807, 1e300, std::numeric_limits<double>::max(),
          std::numeric_limits<double>::infinity()}) {
        EXPECT_EQ(timeoutDelay(seconds), (TimeoutDelay{kLongest, kLongest / 10})) << seconds;
    }
    EXPECT_LT(timeoutDelay(9'223'372'036).nanoseconds, kLongest);
}

}  // namespace
}  // namespace vantorq
