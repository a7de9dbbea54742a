#pragma once

#include <initializer_list>
#include <string_view>

#include "Export.h"

/// How a programming error ends the process.
///
/// A trap stores a text where a debugger and a core dump show it, in the exported variable
/// `vntq_crash_text`, and executes the machine's trap instruction (SIGILL on x86-64, SIGTRAP on
/// arm64). Nothing is printed and nothing is unwound. Any thread may trap; the text of the first
/// one stays.

extern "C" {
/// The text of the trap that is ending the process, NUL-terminated UTF-8; null until then.
VNTQ_EXPORT extern const char* vntq_crash_text;
}

namespace vantorq {

/// Stops the process with `text`, which must outlive it (a string literal).
[[noreturn]] VNTQ_EXPORT void trap(const char* text) noexcept;

/// Stops the process with the concatenation of `pieces`, cut at 1,023 bytes.
[[noreturn]] VNTQ_EXPORT void trap(std::initializer_list<std::string_view> pieces) noexcept;

}  // namespace vantorq

#define VNTQ_TRAP(text) ::vantorq::trap(text)
