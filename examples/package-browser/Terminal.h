#pragma once

#include <cstddef>
#include <optional>

namespace package_browser {

/// The columns of the terminal that the file descriptor writes to. Nothing when it writes to
/// something else, or to a terminal that calls itself dumb and so understands no control sequences.
[[nodiscard]] std::optional<std::size_t> terminalColumns(int descriptor);

/// ECMA-48 control sequences.
inline constexpr const char* kBold = "\x1b[1m";
inline constexpr const char* kDim = "\x1b[2m";
inline constexpr const char* kPlain = "\x1b[m";
inline constexpr const char* kEraseLine = "\r\x1b[K";

}  // namespace package_browser
