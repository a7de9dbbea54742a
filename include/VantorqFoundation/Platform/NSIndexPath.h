#pragma once

#include <initializer_list>
#include <span>
#include <vector>

#include "NSObject.h"
#include "NSString.h"

namespace vantorq {

/// An immutable path into nested arrays: one index for each level. In a list of sections, the first
/// is the section and the second the item, or row, in it.
///
/// Threads: any.
class VNTQ_EXPORT NSIndexPath final : public NSObject {
    VNTQ_OBJECT(NSIndexPath, NSObject)
public:
    /// The path without indexes.
    NSIndexPath() noexcept = default;
    explicit NSIndexPath(std::span<const NSUInteger> indexes);

    [[nodiscard]] static Ref<NSIndexPath> indexPathForItemInSection(NSUInteger item,
                                                                    NSUInteger section);
    [[nodiscard]] static Ref<NSIndexPath> indexPathForRowInSection(NSUInteger row,
                                                                   NSUInteger section);
    [[nodiscard]] static Ref<NSIndexPath> indexPathWithIndex(NSUInteger index);
    [[nodiscard]] static Ref<NSIndexPath> indexPathWithIndexes(std::span<const NSUInteger> indexes);
    [[nodiscard]] static Ref<NSIndexPath> indexPathWithIndexes(
        std::initializer_list<NSUInteger> indexes);
    [[nodiscard]] Ref<NSIndexPath> indexPathByAddingIndex(NSUInteger index) const;

    [[nodiscard]] NSUInteger length() const noexcept { return indexes_.size(); }
    /// NSNotFound beyond the end.
    [[nodiscard]] NSUInteger indexAtPosition(NSUInteger position) const noexcept {
        return position < indexes_.size() ? indexes_[position] : NSNotFound;
    }
    [[nodiscard]] std::span<const NSUInteger> indexes() const noexcept { return indexes_; }
    [[nodiscard]] NSUInteger section() const noexcept { return indexAtPosition(0); }
    [[nodiscard]] NSUInteger item() const noexcept { return indexAtPosition(1); }
    [[nodiscard]] NSUInteger row() const noexcept { return indexAtPosition(1); }

    /// By the first index that differs; a path comes before its continuations.
    [[nodiscard]] NSComparisonResult compare(const NSIndexPath& other) const noexcept;
    [[nodiscard]] bool isEqual(const NSObject* other) const override;
    [[nodiscard]] NSUInteger hash() const override;
    /// "<NSIndexPath: 0, 3>"
    [[nodiscard]] Ref<NSString> description() const override;
    /// The receiver itself.
    [[nodiscard]] id copyWithZone(void* zone) const override;

private:
    ~NSIndexPath() override = default;

    std::vector<NSUInteger> indexes_;
};

}  // namespace vantorq
