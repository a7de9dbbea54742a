#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <VantorqFoundation/VantorqFoundation.h>

#include "Measuring.h"
#include "Package.h"
#include "ProgressLine.h"
#include "RunningWork.h"
#include "SectionIndex.h"
#include "Statistics.h"

namespace package_browser {

/// One way through a database, which is read once, for three consumers at a time: the one that
/// measures packages, the one that groups them, and the one that counts.
class Survey {
public:
    struct Findings {
        std::vector<MeasuredPackage> packages;  ///< in the order of the records
        SectionIndex sections;
        Statistics statistics;  ///< of all records, whatever the section
    };

    /// Of all sections when none is given. A package may take `timeout` seconds to measure.
    Survey(std::filesystem::path database, std::optional<std::string> section, double timeout);
    Survey(const Survey&) = delete;
    Survey& operator=(const Survey&) = delete;
    /// Also ends what an error has left under way.
    ~Survey() { cancel(); }

    /// Does it; once. Throws an `NSErrorException` when the database cannot be read, and
    /// `CancellationError` when the survey was cancelled.
    ///
    /// Call it on the main thread: it turns the main run loop until the last consumer has ended.
    [[nodiscard]] Findings run(ProgressLine& line);

    /// Ends all work. Threads: any.
    void cancel() noexcept { running_->cancel(); }

    [[nodiscard]] const Progress& progress() const noexcept { return measurer_->progress(); }

private:
    void showProgress(ProgressLine& line) const;

    const std::filesystem::path database_;
    const std::optional<std::string> section_;
    const vantorq::Ref<RunningWork> running_ = vantorq::make<RunningWork>();
    const vantorq::Ref<Measurer> measurer_;
};

}  // namespace package_browser
