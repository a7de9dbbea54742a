#include "Options.h"

#include <charconv>
#include <cmath>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <system_error>

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

using namespace vantorq;

namespace {

/// The number that is all of `text`.
template <class Number>
std::optional<Number> number(std::string_view text) {
    Number value{};
    const char* const end = text.data() + text.size();
    const auto [rest, failure] = std::from_chars(text.data(), end, value);
    return failure == std::errc() && rest == end ? std::optional(value) : std::nullopt;
}

/// Goes through the arguments one by one; throws what is wrong with them.
class ArgumentReader {
public:
    explicit ArgumentReader(std::span<const char* const> arguments) : rest_(arguments) {}

    Options read() {
        while (!rest_.empty()) {
            const std::string_view argument = next();
            if (argument == "--") {
                while (!rest_.empty()) {
                    takeFile(next());
                }
            } else if (argument.starts_with("-")) {
                takeOption(argument);
            } else {
                takeFile(argument);
            }
        }
        return options_;
    }

private:
    template <class... Args>
    [[noreturn]] static void fail(const NSString& format, const Args&... args) {
        throw NSErrorException(vntq_errorUnspecified(format, args...));
    }

    std::string_view next() {
        const std::string_view argument = rest_.front();
        rest_ = rest_.subspan(1);
        return argument;
    }

    void takeFile(std::string_view argument) {
        if (options_.file) {
            fail("one FILE at a time, not also '%s'"_ns, argument);
        }
        options_.file = argument;
    }

    /// `--name value` or `--name=value`.
    void takeOption(std::string_view argument) {
        const std::size_t equals = argument.find('=');
        const std::string_view name = argument.substr(0, equals);
        if (argument == "--help") {
            options_.showsHelp = true;
            return;
        }
        if (name != "--section" && name != "--top" && name != "--timeout") {
            fail("unknown option '%s'; --help tells which there are"_ns, argument);
        }
        if (equals == std::string_view::npos && rest_.empty()) {
            fail("%s needs a value"_ns, name);
        }
        takeValue(name, equals != std::string_view::npos ? argument.substr(equals + 1) : next());
    }

    void takeValue(std::string_view name, std::string_view value) {
        if (name == "--section") {
            options_.section = value;
        } else if (name == "--top") {
            options_.top = number<std::size_t>(value);
            if (!options_.top) {
                fail("--top needs a whole number, not '%s'"_ns, value);
            }
        } else {
            const auto seconds = number<double>(value);
            if (!seconds || !std::isfinite(*seconds) || *seconds <= 0) {
                fail("--timeout needs a positive number of seconds, not '%s'"_ns, value);
            }
            options_.timeout = *seconds;
        }
    }

    std::span<const char* const> rest_;
    Options options_;
};

}  // namespace

std::optional<Options> Options::parse(std::span<const char* const> arguments, NSErrorOut error) {
    try {
        return ArgumentReader(arguments).read();
    } catch (const NSErrorException& exception) {
        *error = exception.error();
        return std::nullopt;
    }
}

std::string_view usage() {
    return R"(Usage: package-browser [OPTION]... [FILE]

Lists the installed packages by section, with the sizes of the files that they
have on disk, largest first.

  FILE               The package database, /var/lib/dpkg/status by default.
                     The packages' file lists are in the folder info beside it.
  --section NAME     Only the packages of this section.
  --top N            No more than N packages of each section.
  --timeout SECONDS  How long one package may take to measure, 10 by default.
  --help             Shows this text.

Exits with 0, with 2 when an argument is wrong, no package is in the section,
the database cannot be read or the listing cannot be written, or with 130 when
interrupted by Ctrl-C.
)";
}

}  // namespace package_browser
