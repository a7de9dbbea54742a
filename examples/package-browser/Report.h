#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Package.h"

namespace package_browser {

/// The packages of one section.
struct Section {
    std::string name;
    std::vector<MeasuredPackage> packages;  ///< largest first, then by name
    std::uint64_t size = 0;                 ///< bytes
};

/// The packages by section, largest section first, then by name.
[[nodiscard]] std::vector<Section> groupedBySection(std::vector<MeasuredPackage> packages);

/// How a listing looks.
struct ListingStyle {
    /// The columns of a terminal, which bold and dim text are for as well. Without them, lines are
    /// plain and as long as they come.
    std::optional<std::size_t> columns = std::nullopt;
    /// The packages to show of each section; all of them without it.
    std::optional<std::size_t> top = std::nullopt;
};

/// The sections with their packages, and the totals.
[[nodiscard]] std::string listing(const std::vector<Section>& sections, const ListingStyle& style);

}  // namespace package_browser
