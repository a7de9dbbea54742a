#include "SizeText.h"

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

using namespace vantorq;

std::string sizeText(std::uint64_t bytes) {
    static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    auto value = static_cast<double>(bytes);
    std::size_t unit = 0;
    // The limits are those at which rounding would give "1024" or "10.0".
    while (value >= 1023.5 && unit + 1 < std::size(kUnits)) {
        value /= 1024;
        ++unit;
    }
    const bool hasFraction = unit > 0 && value < 9.95;
    return NSString::stringWithFormat(hasFraction ? "%.1f %s"_ns : "%.0f %s"_ns, value,
                                      kUnits[unit])
        ->utf8();
}

}  // namespace package_browser
