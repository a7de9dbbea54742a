#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

#include <VantorqFoundation/VantorqFoundation.h>

#include "Package.h"

namespace package_browser {

/// Adds up the sizes of the regular files that a package has installed, as its file list names
/// them.
///
/// Ends with the bytes as an `NSNumber`, with an error when the package has no file list that can
/// be read, and with the time-out error when that takes longer than it may. What a list names and
/// the disk lacks counts 0. A path that is not absolute counts from the database's folder.
class PackageSizeOperation final : public vantorq::VNTQOperation {
    VNTQ_OBJECT(PackageSizeOperation, vantorq::VNTQOperation)
public:
    /// `databaseFolder` is the one that has the folder `info`.
    PackageSizeOperation(const Package& package, const std::filesystem::path& databaseFolder);

    void main() override;

private:
    ~PackageSizeOperation() override = default;

    void measure();
    std::uint64_t fileSize(const std::string& path) const;

    const std::filesystem::path folder_;
    const std::string name_;
    const std::string architecture_;
};

}  // namespace package_browser
