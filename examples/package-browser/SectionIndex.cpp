#include "SectionIndex.h"

#include <cstddef>
#include <optional>
#include <utility>

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

using namespace vantorq;

Async<SectionIndex> indexBySection(InstalledPackages packages) {
    SectionIndex index;
    for (std::size_t place = 0;; ++place) {
        auto reading = packages.next();
        const std::optional<Package> package = co_await std::move(reading);
        if (!package) {
            co_return index;
        }
        index[package->section->utf8()].push_back(place);
    }
}

}  // namespace package_browser
