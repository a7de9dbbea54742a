#include "Measuring.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <VantorqFoundation/VantorqFoundation.h>

#include "PackageSizeOperation.h"
#include "SizeText.h"

namespace package_browser {

using namespace vantorq;

namespace {

using Outcome = MeasuredPackage::Outcome;

constexpr double kSecondsBetweenProgress = 0.1;
constexpr NSInteger kTimeoutErrorCode = 1;  // in the library's domain

bool isTimeout(const NSObject& object) {
    const auto* error = objectCast<NSError>(&object);
    return error != nullptr && error->code() == kTimeoutErrorCode &&
           error->domain()->isEqualToString(&VNTQFoundationErrorDomain);
}

/// The outcomes, as they come in. On the main thread only, where all callbacks run.
class Measurement {
public:
    Measurement(const std::vector<Package>& packages, ProgressLine& progress)
        : progress_(progress) {
        for (const Package& package : packages) {
            measured_.push_back({.package = package});
        }
    }

    /// Starts an operation for each package.
    void begin(const std::filesystem::path& databaseFolder, double timeout) {
        // A package's time runs from the start of its operation: no more are started than can run.
        queue_->setMaxConcurrentOperationCount(
            static_cast<NSInteger>(std::max(2U, std::thread::hardware_concurrency())));
        for (MeasuredPackage& one : measured_) {
            const auto operation = make<PackageSizeOperation>(one.package, databaseFolder);
            operation->setTimeoutInterval(timeout);
            operation->setResultQueue(DispatchQueue::main());
            operation
                ->onValue([this, &one](NSObject* value) {
                    one.size = unbridge<std::uint64_t>(value).value();
                    totalSize_ += one.size;
                })
                ->onError([&one](NSObject* error) {
                    one.outcome = isTimeout(*error) ? Outcome::timedOut : Outcome::withoutFileList;
                })
                ->onCompletion([this] { ++finishedCount_; });
            queue_->addOperation(*operation);
        }
    }

    /// Turns the run loop until all operations have ended.
    std::vector<MeasuredPackage> wait() {
        showProgress();
        const auto timer = NSTimer::scheduledTimerWithTimeInterval(
            kSecondsBetweenProgress, true, [this](NSTimer*) { showProgress(); });
        while (finishedCount_ < measured_.size()) {
            NSRunLoop::main()->runMode(NSDefaultRunLoopMode, *NSDate::distantFuture());
        }
        timer->invalidate();
        return std::move(measured_);
    }

private:
    void showProgress() {
        progress_.show("Measured " + std::to_string(finishedCount_) + " of " +
                       std::to_string(measured_.size()) + " packages, " + sizeText(totalSize_));
    }

    ProgressLine& progress_;
    Ref<NSOperationQueue> queue_ = make<NSOperationQueue>();
    std::vector<MeasuredPackage> measured_;
    std::size_t finishedCount_ = 0;
    std::uint64_t totalSize_ = 0;
};

}  // namespace

std::vector<MeasuredPackage> measure(const std::vector<Package>& packages,
                                     const std::filesystem::path& databaseFolder, double timeout,
                                     ProgressLine& progress) {
    Measurement measurement(packages, progress);
    measurement.begin(databaseFolder, timeout);
    return measurement.wait();
}

}  // namespace package_browser
