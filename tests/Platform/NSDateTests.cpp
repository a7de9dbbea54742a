#include "VantorqFoundation/Platform/NSDate.h"

#include <chrono>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "Support/Print.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

using test::description;

Ref<NSDate> at(NSTimeInterval seconds) {
    return NSDate::dateWithTimeIntervalSinceReferenceDate(seconds);
}
const double kNaN = std::nan("");

TEST(NSDate, NowIsTheSystemsTime) {
    const auto seconds = [] {
        return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    // A double holds the seconds since 1970 to half a microsecond.
    const double before = seconds() - 1e-6;
    const double now = NSDate::date()->timeIntervalSince1970();
    EXPECT_GE(now, before);
    EXPECT_LE(now, seconds() + 1e-6);
}

TEST(NSDate, TheCoarseTimeIsATimeShortlyBefore) {
    const double before = NSDate::now();
    const double coarse = NSDate::coarseNow();
    EXPECT_LE(coarse, NSDate::now());
    EXPECT_GT(coarse, before - 60) << "even when the machine was held up";
}

TEST(NSDate, IntervalsFromTheEpochs) {
    EXPECT_EQ(NSDate::dateWithTimeIntervalSince1970(0)->timeIntervalSinceReferenceDate(),
              -978307200.0);
    EXPECT_EQ(at(5)->timeIntervalSince1970(), 978307205.0);
    EXPECT_EQ(at(5)->timeIntervalSinceDate(*at(3)), 2.0);
    EXPECT_EQ(at(5)->dateByAddingTimeInterval(-6)->timeIntervalSinceReferenceDate(), -1.0);
}

TEST(NSDate, IntervalsFromNow) {
    EXPECT_GT(NSDate::dateWithTimeIntervalSinceNow(1000)->timeIntervalSinceNow(), 0);
    EXPECT_LE(NSDate::dateWithTimeIntervalSinceNow(1000)->timeIntervalSinceNow(), 1000);
    EXPECT_LT(NSDate::dateWithTimeIntervalSinceNow(-1000)->timeIntervalSinceNow(), 0);
}

TEST(NSDate, DistantDates) {
    EXPECT_EQ(NSDate::distantFuture()->timeIntervalSinceReferenceDate(), 63113904000.0);
    EXPECT_EQ(NSDate::distantPast()->timeIntervalSinceReferenceDate(), -63114076800.0);
    EXPECT_EQ(NSDate::distantFuture(), NSDate::distantFuture());
}

TEST(NSDate, OrderAndEquality) {
    EXPECT_EQ(at(1)->compare(*at(2)), NSComparisonResult::ascending);
    EXPECT_EQ(at(2)->compare(*at(1)), NSComparisonResult::descending);
    EXPECT_EQ(at(0.0)->compare(*at(-0.0)), NSComparisonResult::same);
    EXPECT_TRUE(at(1)->isEqual(at(1).get()));
    EXPECT_FALSE(at(1)->isEqual(at(2).get()));
    EXPECT_FALSE(at(1)->isEqual("x"_ns.copy().get()));
    EXPECT_FALSE(at(1)->isEqual(nullptr));
    EXPECT_EQ(at(0.0)->hash(), at(-0.0)->hash());
    EXPECT_NE(at(1)->hash(), at(2)->hash());
}

TEST(NSDate, EarlierAndLater) {
    const auto early = at(1);
    const auto late = at(2);
    EXPECT_EQ(early->earlierDate(*late), early);
    EXPECT_EQ(late->earlierDate(*early), early);
    EXPECT_EQ(early->laterDate(*late), late);
    const auto same = at(1);
    EXPECT_EQ(early->earlierDate(*same), early);
    EXPECT_EQ(early->laterDate(*same), early);
}

TEST(NSDate, NanEqualsItselfAndComesFirst) {
    EXPECT_TRUE(at(kNaN)->isEqual(at(-kNaN).get()));
    EXPECT_EQ(at(kNaN)->hash(), at(-kNaN)->hash());
    EXPECT_EQ(at(kNaN)->compare(*NSDate::distantPast()), NSComparisonResult::ascending);
    EXPECT_EQ(at(0)->compare(*at(kNaN)), NSComparisonResult::descending);
}

TEST(NSDate, DescriptionIsUtcRoundedDown) {
    EXPECT_EQ(description(at(0)), "2001-01-01 00:00:00 +0000");
    EXPECT_EQ(description(at(-0.5)), "2000-12-31 23:59:59 +0000");
    EXPECT_EQ(description(NSDate::dateWithTimeIntervalSince1970(951782399.9)),
              "2000-02-28 23:59:59 +0000");
    EXPECT_EQ(description(NSDate::dateWithTimeIntervalSince1970(951782400)),
              "2000-02-29 00:00:00 +0000");
    EXPECT_EQ(description(NSDate::distantFuture()), "4001-01-01 00:00:00 +0000");
    EXPECT_EQ(description(NSDate::distantPast()), "0000-12-30 00:00:00 +0000");
}

TEST(NSDate, DescriptionOfWhatNoCalendarReaches) {
    EXPECT_EQ(description(at(kNaN)), "nan");
    EXPECT_EQ(description(at(std::numeric_limits<double>::infinity())), "inf");
    EXPECT_EQ(description(at(-1e300)), "-1e+300");
    EXPECT_EQ(description(at(946'708'560'000.0)), "32001-01-01 00:00:00 +0000");
    EXPECT_EQ(description(at(946'708'560'001.0)), "946708560001");
}

TEST(NSDate, IsItsOwnCopy) {
    const auto date = at(1);
    EXPECT_EQ(date->copy(), date);
}

TEST(NSDate, AnswersMessages) {
    const id made = send<id>(NSDate::classObject(), "dateWithTimeIntervalSince1970:"_sel, 10.0);
    EXPECT_EQ(send<double>(made, "timeIntervalSince1970"_sel), 10.0);
    EXPECT_EQ(send<id>(NSDate::classObject(), "distantPast"_sel), NSDate::distantPast());
}

}  // namespace
}  // namespace vantorq
