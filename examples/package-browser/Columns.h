#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace package_browser {

/// The columns that UTF-8 text takes on a terminal: two for a wide character, none for a combining
/// one.
[[nodiscard]] std::size_t displayWidth(std::string_view utf8);

/// The text, cut to at most so many columns; where something is cut off, the last of them is "…".
[[nodiscard]] std::string fitted(std::string_view utf8, std::size_t columns);

/// The text with spaces after it, up to so many columns.
[[nodiscard]] std::string padded(std::string_view utf8, std::size_t columns);

}  // namespace package_browser
