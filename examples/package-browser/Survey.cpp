#include "Survey.h"

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <VantorqFoundation/VantorqFoundation.h>

#include "DatabaseFile.h"
#include "InstalledPackages.h"
#include "PackageRecords.h"
#include "SizeText.h"

namespace package_browser {

using namespace vantorq;

namespace {

constexpr double kSecondsBetweenProgress = 0.1;

using Key = RunningWork::CancellableKeys;

/// Starts a consumer, which ends with the rest of the work.
template <class Findings, class Consume>
Task<Findings> start(Key key, RunningWork& running, Consume consume) {
    auto consumer = Task<Findings>::start(std::move(consume));
    running[key] = consumer;
    return consumer;
}

}  // namespace

Survey::Survey(std::filesystem::path database, std::optional<std::string> section, double timeout)
    : database_(std::move(database)),
      section_(std::move(section)),
      measurer_(make<Measurer>(database_.parent_path(), timeout, running_)) {}

Survey::Findings Survey::run(ProgressLine& line) {
    const auto file = make<DatabaseFile>(database_);
    (*running_)[Key::file] = file;
    showProgress(line);

    const auto records = sharedRecords(file);
    const auto measurer = start<std::vector<MeasuredPackage>>(
        Key::measurer, *running_,
        [this, records] { return measurer_->measureAll(InstalledPackages(*records, section_)); });
    const auto indexer = start<SectionIndex>(Key::indexer, *running_, [this, records] {
        return indexBySection(InstalledPackages(*records, section_));
    });
    const auto statistician = start<Statistics>(Key::statistics, *running_, [records] {
        return gatherStatistics(records->makeAsyncIterator());
    });

    bool isOver = false;  // of the main thread
    Task<>::start([&]() -> Async<> {
        auto measurersEnd = measurer.result();
        co_await measurersEnd;
        auto indexersEnd = indexer.result();
        co_await indexersEnd;
        auto statisticiansEnd = statistician.result();
        co_await statisticiansEnd;
        DispatchQueue::main()->async([&isOver] { isOver = true; });
    });
    const auto timer = NSTimer::scheduledTimerWithTimeInterval(
        kSecondsBetweenProgress, true, [&](NSTimer*) { showProgress(line); });
    while (!isOver) {
        NSRunLoop::main()->runMode(NSDefaultRunLoopMode, *NSDate::distantFuture());
    }
    timer->invalidate();

    if (running_->isCancelled()) {
        throw CancellationError();
    }
    return {.packages = syncWait(measurer),
            .sections = syncWait(indexer),
            .statistics = syncWait(statistician)};
}

void Survey::showProgress(ProgressLine& line) const {
    const Progress& now = progress();
    if (now.foundCount == 0) {
        line.show("Reading " + database_.native());
        return;
    }
    line.show("Measured " + std::to_string(now.measuredCount) + " of " +
              std::to_string(now.foundCount) + " packages, " + sizeText(now.size));
}

}  // namespace package_browser
