#include "VantorqFoundation/Platform/NSDate.h"

#include <chrono>
#include <cmath>
#include <limits>
#include <time.h>

#include "Sources/Platform/Objects/NumberText.h"
#include "Sources/Platform/Objects/Ordering.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/Hasher.h"

namespace vantorq {

namespace {

/// 30,000 years of 365.2425 days: as far as the description goes.
constexpr NSTimeInterval kDescribedSeconds = 30'000 * 365.2425 * 86'400;

NSTimeInterval nowOf(clockid_t clock) noexcept {
    timespec time{};
    clock_gettime(clock, &time);
    // Seconds of both epochs first, as integers, so that only one rounding happens.
    const auto whole = time.tv_sec - static_cast<time_t>(NSTimeIntervalSince1970);
    return static_cast<double>(whole) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace

NSTimeInterval NSDate::now() noexcept {
    return nowOf(CLOCK_REALTIME);
}

NSTimeInterval NSDate::coarseNow() noexcept {
    return nowOf(CLOCK_REALTIME_COARSE);
}

NSDate::NSDate() noexcept : seconds_(now()) {}

Ref<NSDate> NSDate::dateWithTimeIntervalSinceNow(NSTimeInterval seconds) {
    return make<NSDate>(now() + seconds);
}

Ref<NSDate> NSDate::dateWithTimeIntervalSinceReferenceDate(NSTimeInterval seconds) {
    return make<NSDate>(seconds);
}

Ref<NSDate> NSDate::dateWithTimeIntervalSince1970(NSTimeInterval seconds) {
    return make<NSDate>(seconds - NSTimeIntervalSince1970);
}

Ref<NSDate> NSDate::distantFuture() {
    static NSDate& shared = immortal(make<NSDate>(63'113'904'000.0));
    return shared;
}

Ref<NSDate> NSDate::distantPast() {
    static NSDate& shared = immortal(make<NSDate>(-63'114'076'800.0));
    return shared;
}

NSTimeInterval NSDate::timeIntervalSinceNow() const noexcept {
    return seconds_ - now();
}

Ref<NSDate> NSDate::dateByAddingTimeInterval(NSTimeInterval seconds) const {
    return make<NSDate>(seconds_ + seconds);
}

NSComparisonResult NSDate::compare(const NSDate& other) const noexcept {
    return objects::compareDoubles(seconds_, other.seconds_);
}

Ref<NSDate> NSDate::earlierDate(const NSDate& other) const {
    return const_cast<NSDate&>(compare(other) == NSComparisonResult::descending ? other : *this);
}

Ref<NSDate> NSDate::laterDate(const NSDate& other) const {
    return const_cast<NSDate&>(compare(other) == NSComparisonResult::ascending ? other : *this);
}

bool NSDate::isEqualToDate(const NSDate* other) const noexcept {
    return other != nullptr && compare(*other) == NSComparisonResult::same;
}

bool NSDate::isEqual(const NSObject* other) const {
    return this == other || isEqualToDate(objectCast<NSDate>(other));
}

NSUInteger NSDate::hash() const {
    Hasher hasher;
    hasher.combine(std::isnan(seconds_) ? std::numeric_limits<double>::quiet_NaN() : seconds_);
    return hasher.finish();
}

Ref<NSString> NSDate::description() const {
    if (!(std::abs(seconds_) <= kDescribedSeconds)) {
        return NSString::string(objects::numberText(seconds_));
    }
    using namespace std::chrono;
    const sys_seconds instant =
        sys_days(2001y / January / 1) + seconds(static_cast<std::int64_t>(std::floor(seconds_)));
    const auto day = floor<days>(instant);
    const year_month_day date(day);
    const hh_mm_ss time(instant - day);
    return NSString::stringWithFormat(
        "%04d-%02u-%02u %02d:%02d:%02d +0000"_ns, static_cast<int>(date.year()),
        static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
        time.hours().count(), time.minutes().count(), time.seconds().count());
}

id NSDate::copyWithZone(void*) const {
    return const_cast<NSDate&>(*this);
}

namespace {

constexpr const Protocol* kProtocols[] = {&NSCopying};

constexpr PropertyInfo kProperties[] = {
    property<&NSDate::timeIntervalSinceReferenceDate>("timeIntervalSinceReferenceDate"),
    property<&NSDate::timeIntervalSince1970>("timeIntervalSince1970"),
    property<&NSDate::timeIntervalSinceNow>("timeIntervalSinceNow"),
    classProperty<&NSDate::distantFuture>("distantFuture"),
    classProperty<&NSDate::distantPast>("distantPast"),
};

constexpr MethodInfo kMethods[] = {
    classMethod<&NSDate::date>("date"),
    classMethod<&NSDate::dateWithTimeIntervalSinceNow>("dateWithTimeIntervalSinceNow:"),
    classMethod<&NSDate::dateWithTimeIntervalSinceReferenceDate>(
        "dateWithTimeIntervalSinceReferenceDate:"),
    classMethod<&NSDate::dateWithTimeIntervalSince1970>("dateWithTimeIntervalSince1970:"),
    method<&NSDate::timeIntervalSinceDate>("timeIntervalSinceDate:"),
    method<&NSDate::dateByAddingTimeInterval>("dateByAddingTimeInterval:"),
    method<&NSDate::compare>("compare:"),
    method<&NSDate::earlierDate>("earlierDate:"),
    method<&NSDate::laterDate>("laterDate:"),
    method<&NSDate::isEqualToDate>("isEqualToDate:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSDate, {.protocols = kProtocols, .properties = kProperties, .methods = kMethods})

}  // namespace vantorq
