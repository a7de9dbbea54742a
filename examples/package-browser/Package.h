#pragma once

#include <cstdint>

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

/// An installed package, as its record in the database tells. No member is nil.
struct Package {
    vantorq::Ref<vantorq::NSString> name;
    vantorq::Ref<vantorq::NSString> architecture;
    vantorq::Ref<vantorq::NSString> section;
    vantorq::Ref<vantorq::NSString> summary;
};

/// A package with what was found on disk.
struct MeasuredPackage {
    enum class Outcome : std::uint8_t { measured, timedOut, withoutFileList };

    Package package;
    Outcome outcome = Outcome::measured;
    std::uint64_t size = 0;  ///< bytes; 0 when it could not be measured
};

}  // namespace package_browser
