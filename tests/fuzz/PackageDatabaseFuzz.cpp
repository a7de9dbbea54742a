// The parser of the example program package-browser: any bytes may stand in a database's file.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

// A program is nothing to link with, so the parser is compiled as a part of this file.
#include "examples/package-browser/PackageDatabase.cpp"  // NOLINT(bugprone-suspicious-include)

namespace {

void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using package_browser::Package;
    using package_browser::PackageDatabase;

    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const PackageDatabase database = PackageDatabase::parse(text);

    require(database.packages.size() <= database.recordCount);
    for (const Package& package : database.packages) {
        require(package.name->length() > 0);
        require(package.name->utf8().find('/') == std::string::npos);
        require(package.section->length() > 0);
        require(package.summary->utf8().find('\n') == std::string::npos);
    }
    std::size_t lastLine = 0;
    for (const PackageDatabase::Problem& problem : database.problems) {
        require(problem.line > lastLine);
        require(!problem.text.empty());
        lastLine = problem.line;
    }
    return 0;
}
