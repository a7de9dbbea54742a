#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace package_browser {

/// A line on standard error that is written over and over while work goes on, and is gone when it
/// is done.
class ProgressLine {
public:
    /// Without a width nothing is ever written.
    explicit ProgressLine(std::optional<std::size_t> columns) : columns_(columns) {}
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    ~ProgressLine();

    void show(std::string_view text);

private:
    std::optional<std::size_t> columns_;
    bool isShown_ = false;
};

}  // namespace package_browser
