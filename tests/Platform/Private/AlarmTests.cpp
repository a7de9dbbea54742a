#include "Sources/Platform/Dispatch/Alarm.h"

#include <cstdint>
#include <limits>
#include <thread>

#include <gtest/gtest.h>

namespace vantorq {
namespace {

constexpr std::int64_t kNever = std::numeric_limits<std::int64_t>::max();

template <class A>
class AlarmTest : public ::testing::Test {
protected:
    A alarm;
};

using Alarms = ::testing::Types<MonotonicAlarm, ContinuousAlarm>;
TYPED_TEST_SUITE(AlarmTest, Alarms);

TYPED_TEST(AlarmTest, SleepsUntilTheInstant) {
    const std::int64_t instant = this->alarm.now() + 3'000'000;
    while (this->alarm.now() < instant) {
        this->alarm.sleepUntil(instant, this->alarm.wakeUps());
    }
    EXPECT_EQ(this->alarm.wakeUps(), 0U);
}

TYPED_TEST(AlarmTest, DoesNotSleepWhenItWasWokenSinceTheSleeperLooked) {
    const std::uint32_t seen = this->alarm.wakeUps();
    this->alarm.wake();
    this->alarm.sleepUntil(kNever, seen);
    EXPECT_EQ(this->alarm.wakeUps(), seen + 1);
}

TYPED_TEST(AlarmTest, IsWokenWhileItSleeps) {
    for (int i = 0; i < 200; ++i) {
        const std::uint32_t seen = this->alarm.wakeUps();
        std::jthread waker([this] { this->alarm.wake(); });
        while (this->alarm.wakeUps() == seen) {
            this->alarm.sleepUntil(kNever, seen);
        }
    }
    EXPECT_EQ(this->alarm.wakeUps(), 200U);
}

TYPED_TEST(AlarmTest, AnEarlierWakeUpDoesNotDisturbALaterSleep) {
    this->alarm.wake();
    const std::int64_t instant = this->alarm.now() + 1'000'000;
    while (this->alarm.now() < instant) {
        this->alarm.sleepUntil(instant, this->alarm.wakeUps());
    }
    EXPECT_EQ(this->alarm.wakeUps(), 1U);
}

}  // namespace
}  // namespace vantorq
