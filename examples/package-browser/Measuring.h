#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include <VantorqFoundation/VantorqFoundation.h>

#include "InstalledPackages.h"
#include "Package.h"
#include "RunningWork.h"

namespace package_browser {

/// How far the measuring has come. Threads: any.
struct Progress {
    std::atomic<std::size_t> foundCount = 0;     ///< packages to measure, so far
    std::atomic<std::size_t> measuredCount = 0;  ///< those that are done with, whatever came of it
    std::atomic<std::uint64_t> size = 0;         ///< bytes
};

/// The consumer that finds out how much of the disk packages take. It begins with each as soon as
/// its record is there, and has as many operations under way at a time as the machine has cores,
/// two at least; a read that an operation gave up may go on beside them.
class Measurer final : public vantorq::RefCounted {
public:
    /// `databaseFolder` is the one that has the folder `info`; a package may take `timeout`
    /// seconds. The task that it starts for each goes into `running`.
    Measurer(std::filesystem::path databaseFolder, double timeout,
             vantorq::Ref<RunningWork> running);

    /// Gives the outcomes in the order of the packages. Throws `CancellationError` when some are
    /// lacking because their tasks were cancelled.
    [[nodiscard]] vantorq::Async<std::vector<MeasuredPackage>> measureAll(
        InstalledPackages packages);

    [[nodiscard]] const Progress& progress() const noexcept { return progress_; }

private:
    using Measurement = vantorq::Task<std::optional<MeasuredPackage>>;

    ~Measurer() override = default;

    Measurement begin(const Package& package);
    vantorq::Async<std::optional<MeasuredPackage>> measure(Package package);

    const std::filesystem::path databaseFolder_;
    const double timeout_;
    const vantorq::Ref<RunningWork> running_;
    const vantorq::Ref<vantorq::NSOperationQueue> queue_ =
        vantorq::make<vantorq::NSOperationQueue>();
    Progress progress_;
};

}  // namespace package_browser
