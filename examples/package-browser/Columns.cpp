#include "Columns.h"

#include <clocale>
#include <cstddef>
#include <cwchar>
#include <string>
#include <string_view>

namespace package_browser {

namespace {

/// While it lives, the C library takes the calling thread's text as UTF-8, whatever the user's
/// locale.
class Utf8Locale {
public:
    Utf8Locale() : before_(::uselocale(locale())) {}
    Utf8Locale(const Utf8Locale&) = delete;
    Utf8Locale& operator=(const Utf8Locale&) = delete;
    ~Utf8Locale() { ::uselocale(before_); }

private:
    static locale_t locale() {
        static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        return utf8;
    }

    locale_t before_;
};

struct Extent {
    std::size_t bytes = 0;
    std::size_t columns = 0;
};

/// As much from the text's beginning as goes into so many columns.
Extent extentWithin(std::string_view text, std::size_t columns) {
    const Utf8Locale utf8;
    Extent extent;
    while (extent.bytes < text.size()) {
        wchar_t character = 0;
        std::mbstate_t state{};
        const std::size_t bytes = std::mbrtowc(&character, text.data() + extent.bytes,
                                               text.size() - extent.bytes, &state);
        // What is no character is shown as one replacement character per byte.
        const bool isCharacter = bytes > 0 && bytes <= text.size();
        const int width = isCharacter ? ::wcwidth(character) : 1;
        const std::size_t taken = width > 0 ? static_cast<std::size_t>(width) : 0;
        if (extent.columns + taken > columns) {
            break;
        }
        extent.bytes += isCharacter ? bytes : 1;
        extent.columns += taken;
    }
    return extent;
}

}  // namespace

std::size_t displayWidth(std::string_view utf8) {
    return extentWithin(utf8, std::string_view::npos).columns;
}

std::string fitted(std::string_view utf8, std::size_t columns) {
    if (displayWidth(utf8) <= columns) {
        return std::string(utf8);
    }
    if (columns == 0) {
        return {};
    }
    return std::string(utf8.substr(0, extentWithin(utf8, columns - 1).bytes)) + "…";
}

std::string padded(std::string_view utf8, std::size_t columns) {
    const std::size_t width = displayWidth(utf8);
    return std::string(utf8) + std::string(columns > width ? columns - width : 0, ' ');
}

}  // namespace package_browser
