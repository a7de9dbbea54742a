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

#include <VantorqFoundation/VantorqFoundation.h>

#include "DatabaseFile.h"
#include "Interrupts.h"
#include "Options.h"
#include "ProgressLine.h"
#include "Report.h"
#include "Survey.h"
#include "Terminal.h"

using namespace package_browser;
using namespace vantorq;

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 2;
constexpr int kInterrupted = 130;  // as shells have it for a program that SIGINT has ended

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

/// Shows progress only where it does not get between the lines of the listing: on the terminal that
/// the listing goes to.
std::optional<std::size_t> progressColumns() {
    return terminalColumns(STDOUT_FILENO) ? terminalColumns(STDERR_FILENO) : std::nullopt;
}

/// Finds out what there is, and stops when the user presses Ctrl-C.
Survey::Findings findings(Survey& survey) {
    const Interrupts interrupts([&survey] { survey.cancel(); });
    ProgressLine line(progressColumns());
    return survey.run(line);
}

int report(const Survey::Findings& found, const std::filesystem::path& database,
           const Options& options) {
    for (const auto& [line, reason] : found.statistics.rejected) {
        complain(database.native() + ":" + std::to_string(line) + ": " + reason +
                 "; the record is left out");
    }
    if (options.section && found.packages.empty()) {
        complain("no installed package is in a section '" + *options.section + "'");
        return kFailure;
    }
    return print(listing(sections(found.sections, found.packages), found.statistics,
                         {.columns = terminalColumns(STDOUT_FILENO), .top = options.top}));
}

int browse(const Options& options) {
    const std::filesystem::path path = databasePath(options);
    Survey survey(path, options.section, options.timeout);
    try {
        return report(findings(survey), path, options);
    } catch (const NSErrorException& exception) {
        return fail(*exception.error());
    } catch (const CancellationError&) {
        const Progress& progress = survey.progress();
        std::fprintf(stderr, "Interrupted: measured %zu of %zu packages.\n",
                     progress.measuredCount.load(), progress.foundCount.load());
        return kInterrupted;
    }
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
