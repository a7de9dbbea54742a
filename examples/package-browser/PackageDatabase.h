#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Package.h"

namespace package_browser {

/// The text of a package database, understood.
///
/// The text is a row of records, parted by blank lines. A record is a row of fields, `Name: value`,
/// whose names differ without regard to case; a line that begins with a blank continues the field
/// above it. A record that breaks these rules is left out, and costs none of the others.
struct PackageDatabase {
    struct Problem {
        std::size_t line;  ///< counted from 1
        std::string text;
    };

    /// The installed packages, in the order of their records.
    std::vector<Package> packages;
    /// One for each record that was left out.
    std::vector<Problem> problems;
    /// The records that were understood, installed or not.
    std::size_t recordCount = 0;

    /// Never fails, whatever the text: at worst all is problems.
    [[nodiscard]] static PackageDatabase parse(std::string_view text);
};

}  // namespace package_browser
