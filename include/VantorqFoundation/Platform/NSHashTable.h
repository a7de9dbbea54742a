#pragma once

#include <concepts>
#include <type_traits>
#include <vector>

#include "Export.h"
#include "NSObject.h"
#include "RefCounted.h"
#include "ReferenceTable.h"
#include "Trap.h"

namespace vantorq {

template <class Element = NSObject>
class NSHashTable;

namespace detail {

/// What an `NSHashTable` can do, whatever its elements are.
template <class Element>
class HashTableInterface {
public:
    using Options = NSPointerFunctionsOptions;

    // Making tables.

    [[nodiscard]] static Ref<NSHashTable<Element>> hashTableWithOptions(Options options) {
        return make<NSHashTable<Element>>(options);
    }
    /// One that does not keep its objects alive.
    [[nodiscard]] static Ref<NSHashTable<Element>> weakObjectsHashTable() {
        return hashTableWithOptions(Options::weakMemory);
    }

    // Reading.

    /// O(n) when the objects are held weakly.
    [[nodiscard]] NSUInteger count() const { return table_.count(); }
    [[nodiscard]] bool containsObject(const Element& object) const {
        return table_.find(object).key != nullptr;
    }
    /// The object in the table that is the same as, or equal to, `object`; nil when there is none.
    [[nodiscard]] Ref<Element> member(const Element& object) const {
        return element(table_.find(object).key);
    }
    /// The living objects, in no order, each kept alive by the list. O(n).
    [[nodiscard]] std::vector<Ref<Element>> allObjects() const {
        std::vector<Ref<Element>> objects;
        for (const auto& entry : table_.entries()) {
            objects.push_back(element(entry.key));
        }
        return objects;
    }

    // Changing.

    /// Adds the object unless it, or an equal one, is there. O(1), amortised. Nil traps.
    void addObject(const Ref<Element>& object) {
        if (object == nullptr) [[unlikely]] {
            VNTQ_TRAP("NSHashTable: nil cannot be a member");
        }
        table_.add(*object);
    }
    /// Without such a member, nothing happens.
    void removeObject(const Element& object) { table_.remove(object); }
    void removeAllObjects() { table_.removeAll(); }

protected:
    explicit HashTableInterface(Options options) noexcept
        : table_(comparable(options), Options::strongMemory) {}
    ~HashTableInterface() = default;

private:
    static Options comparable(Options options) noexcept {
        static_assert(std::derived_from<Element, RefCounted>);
        return std::derived_from<Element, NSObject> ? options
                                                    : options | Options::objectPointerPersonality;
    }
    static Ref<Element> element(const Ref<RefCounted>& object) noexcept {
        return Ref<Element>(static_cast<Element*>(object.get()));
    }

    ReferenceTable table_;
};

}  // namespace detail

/// A set of shared objects that owns them, or holds them weakly: then an object that ends elsewhere
/// is no longer in the table.
///
///     auto listeners = NSHashTable<Listener>::weakObjectsHashTable();
///     listeners->addObject(listener);
///     for (const auto& one : listeners->allObjects()) { … }
///
/// The elements are any `RefCounted` type. `NSObject`s are told apart by `isEqual` and `hash`, or
/// by identity with `objectPointerPersonality`; other types always by identity. An object must not
/// change what it is equal to while it is there; its hash is remembered from when it went in.
///
/// A table of any objects, `NSHashTable<>`, is itself an object, which the runtime knows as
/// `NSHashTable`. Threads: one at a time; objects held weakly may end on any thread meanwhile.
template <class Element>
class NSHashTable final : public RefCounted, public detail::HashTableInterface<Element> {
public:
    /// Owns its objects, unless the options say otherwise.
    explicit NSHashTable(
        NSPointerFunctionsOptions options = NSPointerFunctionsOptions::strongMemory) noexcept
        : detail::HashTableInterface<Element>(options) {}

private:
    ~NSHashTable() override = default;
};

template <>
class VNTQ_EXPORT NSHashTable<NSObject> final : public NSObject,
                                                public detail::HashTableInterface<NSObject> {
    VNTQ_OBJECT(NSHashTable, NSObject)
public:
    explicit NSHashTable(
        NSPointerFunctionsOptions options = NSPointerFunctionsOptions::strongMemory) noexcept
        : detail::HashTableInterface<NSObject>(options) {}

private:
    ~NSHashTable() override = default;
};

}  // namespace vantorq
