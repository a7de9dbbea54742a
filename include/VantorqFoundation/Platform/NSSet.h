#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <type_traits>

#include "Block.h"
#include "NSObject.h"

namespace vantorq {

/// An immutable set of objects: none of them nil, no two of them equal, in no order.
///
/// A member must not change what it is equal to while it is there. Lookup is O(1).
///
/// Threads: an immutable set may be used from any thread; a mutable one from one at a time.
/// Traps: a nil member, and walking on in a set that was changed since the walk began.
class VNTQ_EXPORT NSSet : public NSObject {
    VNTQ_OBJECT(NSSet, NSObject)
public:
    /// The empty set.
    NSSet() noexcept;

    // Making sets. O(n). The first of several equal objects stays.

    [[nodiscard]] static Ref<NSSet> set();
    [[nodiscard]] static Ref<NSSet> set(std::initializer_list<id> members);
    [[nodiscard]] static Ref<NSSet> set(std::span<const id> members);
    [[nodiscard]] static Ref<NSSet> setWithObject(id object);
    [[nodiscard]] static Ref<NSSet> setWithArray(const NSArray& array);

    // Reading.

    [[nodiscard]] NSUInteger count() const noexcept;
    [[nodiscard]] bool containsObject(const NSObject& object) const;
    /// The member that is equal to `object`; nil when there is none.
    [[nodiscard]] id member(const NSObject& object) const;
    /// Some member; nil when the set is empty.
    [[nodiscard]] id anyObject() const;
    [[nodiscard]] Ref<NSArray> allObjects() const;
    /// Calls `visit(member)` with a `const id&` for each member, in the order of `allObjects`.
    template <class Visit>
    void enumerate(Visit&& visit) const;
    void enumerateObjectsUsingBlock(const Block<void(NSObject& member)>& visit) const;

    // Comparing and deriving.

    [[nodiscard]] bool isSubsetOfSet(const NSSet& other) const;
    [[nodiscard]] bool intersectsSet(const NSSet& other) const;
    [[nodiscard]] Ref<NSSet> setByAddingObject(id object) const;
    [[nodiscard]] Ref<NSSet> setByAddingObjectsFromSet(const NSSet& other) const;

    [[nodiscard]] bool isEqual(const NSObject* other) const override;
    [[nodiscard]] bool isEqualToSet(const NSSet* other) const;
    [[nodiscard]] NSUInteger hash() const override;
    /// One member a line, in braces and parentheses, ordered by description.
    [[nodiscard]] Ref<NSString> description() const override;
    /// The receiver itself when it is immutable.
    [[nodiscard]] id copyWithZone(void* zone) const override;
    [[nodiscard]] id mutableCopyWithZone(void* zone) const override;

protected:
    ~NSSet() override;

private:
    friend class NSMutableSet;
    struct Table;

    [[nodiscard]] Table& table() noexcept;
    [[nodiscard]] const Table& table() const noexcept;
    void insert(id object);
    void visitMembers(void (*visit)(void* context, const id& member), void* context) const;

    alignas(void*) std::byte storage_[48];  // a Table
    std::uint32_t mutations_ = 0;
};

/// A set that can be changed in place. One thread at a time.
class VNTQ_EXPORT NSMutableSet final : public NSSet {
    VNTQ_OBJECT(NSMutableSet, NSSet)
public:
    NSMutableSet() noexcept = default;

    [[nodiscard]] static Ref<NSMutableSet> set();
    [[nodiscard]] static Ref<NSMutableSet> set(std::initializer_list<id> members);

    /// Adds the object unless an equal one is there. O(1), amortised.
    void addObject(id object);
    void addObjectsFromArray(const NSArray& array);
    /// Without an equal member, nothing happens.
    void removeObject(const NSObject& object);
    void removeAllObjects();
    void unionSet(const NSSet& other);
    /// Keeps the members that are in `other`.
    void intersectSet(const NSSet& other);
    /// Removes the members that are in `other`.
    void minusSet(const NSSet& other);

    /// An immutable set.
    [[nodiscard]] id copyWithZone(void* zone) const override;

private:
    ~NSMutableSet() override = default;
};

template <class Visit>
void NSSet::enumerate(Visit&& visit) const {
    using Function = std::remove_reference_t<Visit>;
    Function* function = &visit;
    visitMembers(
        [](void* context, const id& member) { (**static_cast<Function**>(context))(member); },
        &function);
}

}  // namespace vantorq
