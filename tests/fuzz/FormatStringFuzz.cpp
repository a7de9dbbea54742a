// A format of any text, with arguments of every kind, is formatted without undefined behaviour, and
// the same way whether the format is kept in one byte per unit or in two.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/NSString.h"
#include "VantorqFoundation/Platform/Trap.h"

using namespace vantorq;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The first byte chooses which arguments there are; the rest is the format.
    const std::uint8_t choice = size > 0 ? data[0] : 0;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto format = NSString::string(text.substr(size > 0 ? 1 : 0));

    const auto number = NSNumber::number(0.1);
    const FormatArgument all[] = {
        INT64_MIN, UINT64_MAX, -1, 1e308,   -0.0, std::nan(""), number,
        nullptr,   "té",       "", &number, 'c',  4096,         "object"_ns,
    };
    const std::size_t count = choice % (std::size(all) + 1);
    const auto arguments = std::span(all).last(count);

    const auto narrow = NSString::stringWithFormatArguments(*format, arguments);
    const auto wideFormat = make<NSMutableString>(*format);
    const auto wide = NSString::stringWithFormatArguments(*wideFormat, arguments);
    if (!narrow->isEqualToString(wide.get()) || narrow->hash() != wide->hash()) {
        VNTQ_TRAP("one format gave two texts");
    }
    return 0;
}
