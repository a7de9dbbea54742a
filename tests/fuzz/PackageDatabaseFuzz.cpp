// The parser of the example program package-browser: any bytes may stand in a database's file.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <variant>

// A program is nothing to link with, so the parser is compiled as a part of this file.
#include "examples/package-browser/RecordParser.cpp"  // NOLINT(bugprone-suspicious-include)

namespace {

using package_browser::Package;
using package_browser::Record;
using package_browser::RecordParser;
using package_browser::RejectedRecord;

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void check(const Package& package) {
    require(package.name->length() > 0);
    require(package.name->utf8().find('/') == std::string::npos);
    require(package.section->length() > 0);
    require(package.summary->utf8().find('\n') == std::string::npos);
}

/// What a text comes to that is taken in chunks of this size.
std::string parsed(std::string_view text, std::size_t chunkSize) {
    RecordParser parser;
    for (; !text.empty(); text.remove_prefix(std::min(chunkSize, text.size()))) {
        parser.take(text.substr(0, chunkSize));
    }
    parser.end();

    std::string description;
    std::size_t lastLine = 0;
    while (const auto record = parser.next()) {
        if (const auto* package = std::get_if<Package>(&*record)) {
            check(*package);
            description += package->name->utf8() + "|" + package->section->utf8() + "|" +
                           package->summary->utf8() + "\n";
        } else {
            const auto& [line, reason] = std::get<RejectedRecord>(*record);
            require(line > lastLine);
            require(!reason.empty());
            lastLine = line;
            description += std::to_string(line) + ": " + reason + "\n";
        }
    }
    return description;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::string whole = parsed(text, std::string_view::npos);
    require(parsed(text, 1) == whole);
    require(parsed(text, 7) == whole);
    return 0;
}
