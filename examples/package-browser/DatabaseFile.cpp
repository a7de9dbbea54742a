#include "DatabaseFile.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

using namespace vantorq;

namespace {

// A large installation has ten megabytes; more than this is some other file, or one without an end.
constexpr std::size_t kMaximumSize = 64'000'000;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

/// The file's bytes, up to the first that is too many; nothing, with `errno` set, when it cannot be
/// read.
std::optional<std::string> contents(const std::filesystem::path& path) {
    const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "rbe"));
    if (file == nullptr) {
        return std::nullopt;
    }
    std::string text;
    char block[64 * 1024];
    while (text.size() <= kMaximumSize) {
        const std::size_t count = std::fread(block, 1, sizeof block, file.get());
        text.append(block, count);
        if (count < sizeof block) {
            break;
        }
    }
    return std::ferror(file.get()) != 0 ? std::nullopt : std::optional(std::move(text));
}

/// Why text without a record is no database.
std::string reason(const PackageDatabase& database) {
    if (database.problems.empty()) {
        return "nothing in it";
    }
    const PackageDatabase::Problem& first = database.problems.front();
    return "line " + std::to_string(first.line) + ": " + first.text;
}

}  // namespace

std::optional<PackageDatabase> readDatabase(const std::filesystem::path& path, NSErrorOut error) {
    const auto text = contents(path);
    if (!text) {
        *error = vntq_errorUnspecified("%s: %s"_ns, path.native(), std::strerror(errno));
        return std::nullopt;
    }
    if (text->size() > kMaximumSize) {
        *error = vntq_errorUnspecified("%s: no package database (too large)"_ns, path.native());
        return std::nullopt;
    }
    auto database = PackageDatabase::parse(*text);
    if (database.recordCount == 0) {
        *error = vntq_errorUnspecified("%s: no package database (%s)"_ns, path.native(),
                                       reason(database));
        return std::nullopt;
    }
    return database;
}

}  // namespace package_browser
