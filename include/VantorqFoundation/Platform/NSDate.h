#pragma once

#include "NSObject.h"
#include "NSString.h"

namespace vantorq {

/// A length of time in seconds.
using NSTimeInterval = double;

/// The seconds from 1970-01-01 to the reference date, 2001-01-01, both 00:00:00 UTC.
inline constexpr NSTimeInterval NSTimeIntervalSince1970 = 978'307'200.0;

/// An immutable instant: seconds since the reference date, 2001-01-01 00:00:00 UTC, without leap
/// seconds. NaN is allowed, equals itself, and comes before every other instant.
///
/// Threads: any.
class VNTQ_EXPORT NSDate final : public NSObject {
    VNTQ_OBJECT(NSDate, NSObject)
public:
    /// Now, by the system's clock (`CLOCK_REALTIME`), which may be set back.
    NSDate() noexcept;
    explicit NSDate(NSTimeInterval sinceReferenceDate) noexcept : seconds_(sinceReferenceDate) {}

    [[nodiscard]] static Ref<NSDate> date() { return make<NSDate>(); }
    /// The seconds from the reference date to now, without making a date.
    [[nodiscard]] static NSTimeInterval now() noexcept;
    /// What `now()` was at the last tick of the system's clock, as a rule less than 10 milliseconds
    /// ago; several times faster to read.
    [[nodiscard]] static NSTimeInterval coarseNow() noexcept;
    [[nodiscard]] static Ref<NSDate> dateWithTimeIntervalSinceNow(NSTimeInterval seconds);
    [[nodiscard]] static Ref<NSDate> dateWithTimeIntervalSinceReferenceDate(NSTimeInterval seconds);
    [[nodiscard]] static Ref<NSDate> dateWithTimeIntervalSince1970(NSTimeInterval seconds);
    /// An instant some millennia from now, later than any that a program deals with.
    [[nodiscard]] static Ref<NSDate> distantFuture();
    /// An instant about two millennia ago, earlier than any that a program deals with.
    [[nodiscard]] static Ref<NSDate> distantPast();

    [[nodiscard]] NSTimeInterval timeIntervalSinceReferenceDate() const noexcept {
        return seconds_;
    }
    [[nodiscard]] NSTimeInterval timeIntervalSince1970() const noexcept {
        return seconds_ + NSTimeIntervalSince1970;
    }
    /// Negative for the past.
    [[nodiscard]] NSTimeInterval timeIntervalSinceNow() const noexcept;
    [[nodiscard]] NSTimeInterval timeIntervalSinceDate(const NSDate& other) const noexcept {
        return seconds_ - other.seconds_;
    }
    [[nodiscard]] Ref<NSDate> dateByAddingTimeInterval(NSTimeInterval seconds) const;

    [[nodiscard]] NSComparisonResult compare(const NSDate& other) const noexcept;
    /// The receiver when both are the same instant.
    [[nodiscard]] Ref<NSDate> earlierDate(const NSDate& other) const;
    [[nodiscard]] Ref<NSDate> laterDate(const NSDate& other) const;
    [[nodiscard]] bool isEqualToDate(const NSDate* other) const noexcept;
    [[nodiscard]] bool isEqual(const NSObject* other) const override;
    [[nodiscard]] NSUInteger hash() const override;
    /// "YYYY-MM-DD HH:MM:SS +0000", in UTC by the Gregorian calendar, rounded down to the second.
    /// Instants that are more than 30,000 years away, and NaN, are given as the number of seconds
    /// since the reference date.
    [[nodiscard]] Ref<NSString> description() const override;
    /// The receiver itself.
    [[nodiscard]] id copyWithZone(void* zone) const override;

private:
    ~NSDate() override = default;

    NSTimeInterval seconds_;
};

}  // namespace vantorq
