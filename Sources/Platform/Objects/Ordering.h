#pragma once

#include <cmath>

#include "VantorqFoundation/Platform/NSString.h"

namespace vantorq::objects {

/// Total: NaN equals NaN and comes first.
inline NSComparisonResult compareDoubles(double a, double b) noexcept {
    if (std::isnan(a) || std::isnan(b)) {
        return std::isnan(a) == std::isnan(b) ? NSComparisonResult::same
               : std::isnan(a)                ? NSComparisonResult::ascending
                                              : NSComparisonResult::descending;
    }
    return a < b   ? NSComparisonResult::ascending
           : a > b ? NSComparisonResult::descending
                   : NSComparisonResult::same;
}

}  // namespace vantorq::objects
