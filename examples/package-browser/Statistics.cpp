#include "Statistics.h"

#include <optional>
#include <utility>
#include <variant>

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

using namespace vantorq;

namespace {

void count(const Package& package, Statistics& statistics) {
    if (!package.isInstalled) {
        ++statistics.notInstalledCount;
        return;
    }
    ++statistics.architectures[package.architecture->utf8()];
    const auto& most = statistics.mostDependent;
    if (package.dependencyCount > (most ? most->dependencyCount : 0)) {
        statistics.mostDependent = package;
    }
}

}  // namespace

Async<Statistics> gatherStatistics(SharedRecords::AsyncIterator records) {
    Statistics statistics;
    for (;;) {
        auto reading = records.next();
        const std::optional<Record> record = co_await std::move(reading);
        if (!record) {
            co_return statistics;
        }
        if (const auto* package = std::get_if<Package>(&*record)) {
            count(*package, statistics);
        } else {
            statistics.rejected.push_back(std::get<RejectedRecord>(*record));
        }
    }
}

}  // namespace package_browser
