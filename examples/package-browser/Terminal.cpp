#include "Terminal.h"

#include <cstddef>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace package_browser {

std::optional<std::size_t> terminalColumns(int descriptor) {
    constexpr std::size_t kUsualColumns = 80;
    const char* const kind = std::getenv("TERM");
    if (::isatty(descriptor) == 0 || kind == nullptr || std::string_view(kind) == "dumb") {
        return std::nullopt;
    }
    winsize size{};
    const bool isKnown = ::ioctl(descriptor, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return isKnown ? size.ws_col : kUsualColumns;
}

}  // namespace package_browser
