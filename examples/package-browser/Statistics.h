#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <VantorqFoundation/VantorqFoundation.h>

#include "Package.h"
#include "PackageRecords.h"

namespace package_browser {

/// What a database tells besides its packages.
struct Statistics {
    /// How many installed packages there are of each architecture.
    std::map<std::string, std::size_t> architectures;
    /// The installed package that depends on most others; the first one of several.
    std::optional<Package> mostDependent;
    /// Packages that are known, but not installed.
    std::size_t notInstalledCount = 0;
    /// In the order of their lines.
    std::vector<RejectedRecord> rejected;
};

/// The consumer that counts.
[[nodiscard]] vantorq::Async<Statistics> gatherStatistics(SharedRecords::AsyncIterator records);

}  // namespace package_browser
