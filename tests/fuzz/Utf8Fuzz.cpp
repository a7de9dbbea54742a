// Any bytes are text: strict and lenient conversion agree on what is well-formed, well-formed text
// survives the way there and back, and equal texts hash alike whatever their storage.

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "VantorqFoundation/Platform/NSString.h"
#include "VantorqFoundation/Platform/Trap.h"

using namespace vantorq;

namespace {

void require(bool holds, const char* what) {
    if (!holds) {
        trap(what);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const auto lenient = NSString::string(bytes);
    const auto strict = NSString::stringWithUTF8(bytes);

    const std::string back = lenient->utf8();
    require(NSString::stringWithUTF8(back) != nullptr, "a conversion gave ill-formed UTF-8");
    require((strict != nullptr) == (back == bytes), "strict and lenient conversion disagree");
    require(lenient->length() <= size, "more units than bytes");
    if (strict != nullptr) {
        require(strict->isEqualToString(lenient.get()), "one text became two");
    }

    const auto rewritten = make<NSMutableString>(*lenient);
    require(rewritten->isEqualToString(lenient.get()), "a mutable copy differs");
    require(rewritten->hash() == lenient->hash(), "equal texts hash differently");

    // The same bytes as UTF-16 units, unpaired surrogates included.
    std::u16string units(size / 2, u'\0');
    for (std::size_t index = 0; index < units.size(); ++index) {
        units[index] = static_cast<char16_t>(data[2 * index] << 8 | data[2 * index + 1]);
    }
    const auto fromUnits = NSString::string(units);
    require(fromUnits->utf16() == units, "units changed");
    require(NSString::stringWithUTF8(fromUnits->utf8()) != nullptr, "units gave ill-formed UTF-8");
    require(fromUnits->uppercaseString()->length() <= 3 * units.size(), "a unit became too many");
    (void)fromUnits->lowercaseString();
    (void)lenient->doubleValue();
    (void)lenient->integerValue();
    return 0;
}
