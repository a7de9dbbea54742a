#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

/// A package, as its record in the database tells. No string is nil.
struct Package {
    vantorq::Ref<vantorq::NSString> name;
    vantorq::Ref<vantorq::NSString> architecture;
    vantorq::Ref<vantorq::NSString> section;
    vantorq::Ref<vantorq::NSString> summary;
    std::size_t dependencyCount = 0;
    bool isInstalled = false;
};

/// A record that is no package.
struct RejectedRecord {
    std::size_t line;  ///< the first that is wrong, counted from 1
    std::string reason;
};

using Record = std::variant<Package, RejectedRecord>;

/// An installed package with what was found on disk.
struct MeasuredPackage {
    enum class Outcome : std::uint8_t { measured, timedOut, withoutFileList };

    Package package;
    Outcome outcome = Outcome::measured;
    std::uint64_t size = 0;  ///< bytes; 0 when it could not be measured
};

}  // namespace package_browser
