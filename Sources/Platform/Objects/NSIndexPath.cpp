#include "VantorqFoundation/Platform/NSIndexPath.h"

#include <algorithm>
#include <string>

#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/Hasher.h"

namespace vantorq {

NSIndexPath::NSIndexPath(std::span<const NSUInteger> indexes)
    : indexes_(indexes.begin(), indexes.end()) {}

Ref<NSIndexPath> NSIndexPath::indexPathForItemInSection(NSUInteger item, NSUInteger section) {
    return indexPathWithIndexes({section, item});
}

Ref<NSIndexPath> NSIndexPath::indexPathForRowInSection(NSUInteger row, NSUInteger section) {
    return indexPathWithIndexes({section, row});
}

Ref<NSIndexPath> NSIndexPath::indexPathWithIndex(NSUInteger index) {
    return indexPathWithIndexes({index});
}

Ref<NSIndexPath> NSIndexPath::indexPathWithIndexes(std::span<const NSUInteger> indexes) {
    return make<NSIndexPath>(indexes);
}

Ref<NSIndexPath> NSIndexPath::indexPathWithIndexes(std::initializer_list<NSUInteger> indexes) {
    return indexPathWithIndexes(std::span(indexes.begin(), indexes.size()));
}

Ref<NSIndexPath> NSIndexPath::indexPathByAddingIndex(NSUInteger index) const {
    auto longer = make<NSIndexPath>(indexes());
    longer->indexes_.push_back(index);
    return longer;
}

NSComparisonResult NSIndexPath::compare(const NSIndexPath& other) const noexcept {
    const auto order = indexes_ <=> other.indexes_;
    return order < 0   ? NSComparisonResult::ascending
           : order > 0 ? NSComparisonResult::descending
                       : NSComparisonResult::same;
}

bool NSIndexPath::isEqual(const NSObject* other) const {
    const auto* path = objectCast<NSIndexPath>(other);
    return path != nullptr && indexes_ == path->indexes_;
}

NSUInteger NSIndexPath::hash() const {
    Hasher hasher;
    hasher.combineBytes(indexes_.data(), indexes_.size() * sizeof(NSUInteger));
    return hasher.finish();
}

Ref<NSString> NSIndexPath::description() const {
    std::string text = "<NSIndexPath:";
    for (const NSUInteger& index : indexes_) {
        text += (&index == indexes_.data() ? " " : ", ") + std::to_string(index);
    }
    return NSString::string(text + ">");
}

id NSIndexPath::copyWithZone(void*) const {
    return const_cast<NSIndexPath&>(*this);
}

namespace {

constexpr const Protocol* kProtocols[] = {&NSCopying};

constexpr PropertyInfo kProperties[] = {
    property<&NSIndexPath::length>("length"),
    property<&NSIndexPath::section>("section"),
    property<&NSIndexPath::item>("item"),
    property<&NSIndexPath::row>("row"),
};

constexpr MethodInfo kMethods[] = {
    classMethod<&NSIndexPath::indexPathForItemInSection>("indexPathForItem:inSection:"),
    classMethod<&NSIndexPath::indexPathForRowInSection>("indexPathForRow:inSection:"),
    classMethod<&NSIndexPath::indexPathWithIndex>("indexPathWithIndex:"),
    method<&NSIndexPath::indexPathByAddingIndex>("indexPathByAddingIndex:"),
    method<&NSIndexPath::indexAtPosition>("indexAtPosition:"),
    method<&NSIndexPath::compare>("compare:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSIndexPath,
                  {.protocols = kProtocols, .properties = kProperties, .methods = kMethods})

}  // namespace vantorq
