#include "InstalledPackages.h"

#include <optional>
#include <string>
#include <utility>
#include <variant>

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

using namespace vantorq;

InstalledPackages::InstalledPackages(SharedRecords& records,
                                     const std::optional<std::string>& section)
    : records_(records.makeAsyncIterator()),
      section_(section ? NSString::string(*section) : nullptr) {}

Async<std::optional<Package>> InstalledPackages::next() {
    for (;;) {
        auto reading = records_.next();
        const std::optional<Record> record = co_await std::move(reading);
        if (!record) {
            co_return std::nullopt;
        }
        const auto* package = std::get_if<Package>(&*record);
        if (package != nullptr && isWanted(*package)) {
            co_return *package;
        }
    }
}

bool InstalledPackages::isWanted(const Package& package) const {
    return package.isInstalled &&
           (section_ == nullptr || package.section->isEqualToString(section_.get()));
}

}  // namespace package_browser
