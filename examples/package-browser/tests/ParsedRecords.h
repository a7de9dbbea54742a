#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "RecordParser.h"

namespace package_browser {

/// What a parser makes of a text, sorted by kind.
struct ParsedRecords {
    std::vector<Package> packages;
    std::vector<std::string> rejected;  ///< "line: reason"

    void add(const Record& record) {
        if (const auto* package = std::get_if<Package>(&record)) {
            packages.push_back(*package);
        } else {
            const auto& [line, reason] = std::get<RejectedRecord>(record);
            rejected.push_back(std::to_string(line) + ": " + reason);
        }
    }

    [[nodiscard]] std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const Package& package : packages) {
            names.push_back(package.name->utf8());
        }
        return names;
    }
};

/// Parses a text that comes in chunks of this size.
inline ParsedRecords parsed(std::string_view text, std::size_t chunkSize = std::string_view::npos) {
    ParsedRecords records;
    RecordParser parser;
    const auto takeComplete = [&] {
        while (const auto record = parser.next()) {
            records.add(*record);
        }
    };
    while (!text.empty()) {
        parser.take(text.substr(0, chunkSize));
        text.remove_prefix(std::min(chunkSize, text.size()));
        takeComplete();
    }
    parser.end();
    takeComplete();
    return records;
}

}  // namespace package_browser
