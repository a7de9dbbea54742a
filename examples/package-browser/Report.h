#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Package.h"
#include "SectionIndex.h"
#include "Statistics.h"

namespace package_browser {

/// The packages of one section.
struct Section {
    std::string name;
    std::vector<MeasuredPackage> packages;  ///< largest first, then by name
    std::uint64_t size = 0;                 ///< bytes
};

/// The sections of the index, largest first, then by name. The places in the index are those in
/// `packages`.
[[nodiscard]] std::vector<Section> sections(const SectionIndex& index,
                                            const std::vector<MeasuredPackage>& packages);

/// How a listing looks.
struct ListingStyle {
    /// The columns of a terminal, which bold and dim text are for as well. Without them, lines are
    /// plain and as long as they come.
    std::optional<std::size_t> columns = std::nullopt;
    /// The packages to show of each section; all of them without it.
    std::optional<std::size_t> top = std::nullopt;
};

/// The sections with their packages and, unless there is just one, the totals and what the
/// statistics have to add.
[[nodiscard]] std::string listing(const std::vector<Section>& sections,
                                  const Statistics& statistics, const ListingStyle& style);

}  // namespace package_browser
