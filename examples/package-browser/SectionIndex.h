#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include <VantorqFoundation/VantorqFoundation.h>

#include "InstalledPackages.h"

namespace package_browser {

/// The sections by their names, with the places of their packages in the order of the records.
using SectionIndex = std::map<std::string, std::vector<std::size_t>>;

/// The consumer that groups packages.
[[nodiscard]] vantorq::Async<SectionIndex> indexBySection(InstalledPackages packages);

}  // namespace package_browser
