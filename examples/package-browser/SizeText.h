#pragma once

#include <cstdint>
#include <string>

namespace package_browser {

/// A number of bytes for people, in units of powers of 1024 and two to four digits: "0 B", "1023
/// B", "1.0 KiB", "312 MiB".
[[nodiscard]] std::string sizeText(std::uint64_t bytes);

}  // namespace package_browser
