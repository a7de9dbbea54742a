#pragma once

#include "NSObject.h"

namespace vantorq {

/// The object that stands for "nothing" where nil cannot: inside arrays and dictionaries.
///
/// There is one, so identity is equality. Threads: any.
class VNTQ_EXPORT NSNull final : public NSObject {
    VNTQ_OBJECT(NSNull, NSObject)
public:
    [[nodiscard]] static NSNull& null();
    /// `value`, or the null object for nil.
    [[nodiscard]] static id orNull(id value) noexcept;

    /// "<null>"
    [[nodiscard]] Ref<NSString> description() const override;
    /// The receiver itself.
    [[nodiscard]] id copyWithZone(void* zone) const override;

private:
    static const NSNull kInstance;

    constexpr NSNull() noexcept : NSObject(Immortal()) {}
    constexpr ~NSNull() override {}
};

}  // namespace vantorq
