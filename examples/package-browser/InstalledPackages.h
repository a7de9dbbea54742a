#pragma once

#include <optional>
#include <string>

#include <VantorqFoundation/VantorqFoundation.h>

#include "Package.h"
#include "PackageRecords.h"

namespace package_browser {

/// What a consumer reads the packages with that are to be listed: those that are installed, of one
/// section if that is given.
class InstalledPackages {
public:
    InstalledPackages(SharedRecords& records, const std::optional<std::string>& section);

    [[nodiscard]] vantorq::Async<std::optional<Package>> next();

private:
    bool isWanted(const Package& package) const;

    SharedRecords::AsyncIterator records_;
    vantorq::Ref<vantorq::NSString> section_;  // nil: all of them
};

}  // namespace package_browser
