#pragma once

#include <filesystem>
#include <vector>

#include "Package.h"
#include "ProgressLine.h"

namespace package_browser {

/// Measures every package, as many at a time as the machine has cores, and gives the outcomes in
/// the order of the packages. A package may take `timeout` seconds.
///
/// Call it on the main thread: it turns the main run loop until the last outcome is there.
[[nodiscard]] std::vector<MeasuredPackage> measure(const std::vector<Package>& packages,
                                                   const std::filesystem::path& databaseFolder,
                                                   double timeout, ProgressLine& progress);

}  // namespace package_browser
