#include "Measuring.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include <VantorqFoundation/VantorqFoundation.h>

#include "PackageSizeOperation.h"

namespace package_browser {

using namespace vantorq;

namespace {

using Outcome = MeasuredPackage::Outcome;

bool isTimeout(const NSObject& object) {
    const auto* error = objectCast<NSError>(&object);
    return error != nullptr && error->code() == VNTQFoundationErrorTimeout &&
           error->domain()->isEqualToString(&VNTQFoundationErrorDomain);
}

/// What the result of a package's operation means.
MeasuredPackage measured(const Package& package, const VNTQResult& result) {
    if (result.type() == VNTQResultType::success) {
        return {.package = package, .size = unbridge<std::uint64_t>(result.value().get()).value()};
    }
    return {.package = package,
            .outcome = isTimeout(*result.error()) ? Outcome::timedOut : Outcome::withoutFileList};
}

}  // namespace

Measurer::Measurer(std::filesystem::path databaseFolder, double timeout, Ref<RunningWork> running)
    : databaseFolder_(std::move(databaseFolder)), timeout_(timeout), running_(std::move(running)) {
    // A package's time runs from the start of its operation: no more are started than can run.
    queue_->setMaxConcurrentOperationCount(
        static_cast<NSInteger>(std::max(2U, std::thread::hardware_concurrency())));
}

Async<std::vector<MeasuredPackage>> Measurer::measureAll(InstalledPackages packages) {
    std::vector<Measurement> measurements;
    for (;;) {
        auto reading = packages.next();
        const std::optional<Package> package = co_await std::move(reading);
        if (!package) {
            break;
        }
        measurements.push_back(begin(*package));
    }

    std::vector<MeasuredPackage> outcomes;
    for (const Measurement& measurement : measurements) {
        auto value = measurement.value();
        std::optional<MeasuredPackage> outcome = co_await value;
        if (!outcome) {
            throw CancellationError();
        }
        outcomes.push_back(std::move(*outcome));
    }
    co_return outcomes;
}

Measurer::Measurement Measurer::begin(const Package& package) {
    ++progress_.foundCount;
    auto measurement =
        Measurement::start([self = Ref(this), package] { return self->measure(package); });
    running_->insert(measurement);
    return measurement;
}

/// Nothing when the calling task is cancelled.
Async<std::optional<MeasuredPackage>> Measurer::measure(Package package) {
    const auto operation = make<PackageSizeOperation>(package, databaseFolder_);
    operation->setTimeoutInterval(timeout_);
    auto ending = withCancellableSuccessHandler<Ref<VNTQResult>>([&](auto finish) {
        operation->onResult([finish](VNTQResult* result) { finish(Ref<VNTQResult>(result)); });
        queue_->addOperation(*operation);
        return [operation] { operation->cancel(); };
    });
    const std::optional<Ref<VNTQResult>> result = co_await std::move(ending);
    if (!result || *result == nullptr) {
        co_return std::nullopt;
    }
    MeasuredPackage outcome = measured(package, **result);
    progress_.size += outcome.size;
    ++progress_.measuredCount;
    co_return outcome;
}

}  // namespace package_browser
