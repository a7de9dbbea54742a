#pragma once

#include <filesystem>
#include <optional>

#include <VantorqFoundation/VantorqFoundation.h>

#include "PackageDatabase.h"

namespace package_browser {

/// The machine's own package database.
inline constexpr const char* kSystemDatabase = "/var/lib/dpkg/status";

/// Reads a database. Fails, with one line as the failure reason, when there is no such file, when
/// it cannot be read, or when nothing in it is a record.
[[nodiscard]] std::optional<PackageDatabase> readDatabase(const std::filesystem::path& path,
                                                          vantorq::NSErrorOut error);

}  // namespace package_browser
