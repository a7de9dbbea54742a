#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

/// What the user asks for on the command line.
struct Options {
    std::optional<std::string> file;     ///< nothing: the machine's own database
    std::optional<std::string> section;  ///< nothing: all of them
    std::optional<std::size_t> top;      ///< packages of each section; nothing: all of them
    double timeout = 10;                 ///< seconds for one package; positive and finite
    bool showsHelp = false;

    /// From the arguments without the program's name. Fails, with one line as the failure reason,
    /// on an argument that is not understood.
    [[nodiscard]] static std::optional<Options> parse(std::span<const char* const> arguments,
                                                      vantorq::NSErrorOut error);
};

/// How the program is called.
[[nodiscard]] std::string_view usage();

}  // namespace package_browser
