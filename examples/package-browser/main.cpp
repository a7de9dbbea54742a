// A client for the machine's own package database: what is installed, by section, and how much of
// the disk it takes. See usage() in Options.cpp.

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>
#include <vector>

#include <VantorqFoundation/VantorqFoundation.h>

#include "DatabaseFile.h"
#include "Measuring.h"
#include "Options.h"
#include "ProgressLine.h"
#include "Report.h"
#include "Terminal.h"

using namespace package_browser;
using namespace vantorq;

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 2;

void complain(const std::string& line) {
    std::fprintf(stderr, "package-browser: %s\n", line.c_str());
}

int fail(const NSError& error) {
    complain(error.localizedFailureReason()->utf8());
    return kFailure;
}

/// Writes to standard output. A reader that has seen enough, such as head, is no failure.
int print(std::string_view text) {
    const bool isWritten =
        std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
    if (isWritten || errno == EPIPE) {
        return kSuccess;
    }
    complain("standard output: " + std::string(std::strerror(errno)));
    return kFailure;
}

/// The database that the user has named, else the machine's own, else the sample.
std::filesystem::path databasePath(const Options& options) {
    if (options.file) {
        return *options.file;
    }
    if (::access(kSystemDatabase, F_OK) == 0) {
        return kSystemDatabase;
    }
    complain("no " + std::string(kSystemDatabase) + " here; this is the sample");
    return PACKAGE_BROWSER_SAMPLE;
}

/// Leaves only the packages of one section. Fails when there are none.
bool selectSection(const std::string& name, std::vector<Package>& packages, NSErrorOut error) {
    std::erase_if(packages, [section = NSString::string(name)](const Package& package) {
        return !package.section->isEqualToString(section.get());
    });
    if (packages.empty()) {
        *error = vntq_errorUnspecified("no installed package is in a section '%s'"_ns, name);
    }
    return !packages.empty();
}

/// Shows progress only where it does not get between the lines of the listing: on the terminal that
/// the listing goes to.
std::optional<std::size_t> progressColumns() {
    return terminalColumns(STDOUT_FILENO) ? terminalColumns(STDERR_FILENO) : std::nullopt;
}

int browse(const Options& options) {
    const std::filesystem::path path = databasePath(options);
    Ref<NSError> error;
    auto database = readDatabase(path, &error);
    if (!database) {
        return fail(*error);
    }
    for (const auto& [line, text] : database->problems) {
        complain(path.native() + ":" + std::to_string(line) + ": " + text +
                 "; the record is left out");
    }
    if (options.section && !selectSection(*options.section, database->packages, &error)) {
        return fail(*error);
    }

    std::vector<MeasuredPackage> packages;
    {
        ProgressLine progress(progressColumns());
        packages = measure(database->packages, path.parent_path(), options.timeout, progress);
    }
    return print(listing(groupedBySection(std::move(packages)),
                         {.columns = terminalColumns(STDOUT_FILENO), .top = options.top}));
}

}  // namespace

int main(int argc, char** argv) {
    // A pipe without a reader is then an error of the write, which `print` understands.
    std::signal(SIGPIPE, SIG_IGN);

    Ref<NSError> error;
    const std::span<const char* const> arguments(argv + 1, argv + argc);
    const auto options = Options::parse(arguments, &error);
    if (!options) {
        return fail(*error);
    }
    return options->showsHelp ? print(usage()) : browse(*options);
}
