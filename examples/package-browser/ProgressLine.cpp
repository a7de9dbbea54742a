#include "ProgressLine.h"

#include <cstdio>
#include <string>
#include <string_view>

#include "Columns.h"
#include "Terminal.h"

namespace package_browser {

ProgressLine::~ProgressLine() {
    if (isShown_) {
        std::fputs(kEraseLine, stderr);
    }
}

void ProgressLine::show(std::string_view text) {
    if (!columns_) {
        return;
    }
    // A line that reaches the last column may be broken by the terminal, and then stays.
    std::fputs((kEraseLine + fitted(text, *columns_ - 1)).c_str(), stderr);
    isShown_ = true;
}

}  // namespace package_browser
