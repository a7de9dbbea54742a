#pragma once

#include "Export.h"
#include "NSArray.h"
#include "NSObject.h"
#include "ReferenceTable.h"

namespace vantorq {

/// A table of objects by key that owns keys and values, or holds either weakly: then an entry whose
/// key or value ends elsewhere is no longer in the table. (A value that such an entry owns may stay
/// alive until further entries are added.)
///
///     auto titles = NSMapTable::weakToStrongObjectsMapTable();
///     titles->setObjectForKey("First"_ns, *window);
///     id title = titles->objectForKey(*window);
///
/// Keys are told apart by `isEqual` and `hash`, or by identity with `objectPointerPersonality`.
/// They are not copied, and must not change what they are equal to while they are there; their hash
/// is remembered from when they went in. Lookup is O(1).
///
/// Threads: one at a time; objects held weakly may end on any thread meanwhile.
class VNTQ_EXPORT NSMapTable final : public NSObject {
    VNTQ_OBJECT(NSMapTable, NSObject)
public:
    using Options = NSPointerFunctionsOptions;

    /// Owns keys and values, unless the options say otherwise.
    explicit NSMapTable(Options keyOptions = Options::strongMemory,
                        Options valueOptions = Options::strongMemory) noexcept
        : table_(keyOptions, valueOptions) {}

    [[nodiscard]] static Ref<NSMapTable> mapTableWithKeyOptions(Options keyOptions,
                                                                Options valueOptions);
    [[nodiscard]] static Ref<NSMapTable> strongToStrongObjectsMapTable();
    [[nodiscard]] static Ref<NSMapTable> strongToWeakObjectsMapTable();
    [[nodiscard]] static Ref<NSMapTable> weakToStrongObjectsMapTable();
    [[nodiscard]] static Ref<NSMapTable> weakToWeakObjectsMapTable();

    // Reading.

    /// O(n) when something is held weakly.
    [[nodiscard]] NSUInteger count() const { return table_.count(); }
    /// Nil when there is no such key.
    [[nodiscard]] id objectForKey(const NSObject& key) const;
    /// The living keys, in no order. O(n). By message also as `keyEnumerator`.
    [[nodiscard]] Ref<NSArray> allKeys() const;
    /// Their values; while the table does not change and nothing ends, in the order of `allKeys`.
    /// O(n). By message also as `objectEnumerator`.
    [[nodiscard]] Ref<NSArray> allValues() const;

    // Changing.

    /// Adds the entry, or replaces its value and keeps the key that is there. O(1), amortised. Nil
    /// traps.
    void setObjectForKey(const id& object, const NSObject& key);
    /// Without such a key, nothing happens.
    void removeObjectForKey(const NSObject& key) { table_.remove(key); }
    void removeAllObjects() { table_.removeAll(); }

private:
    ~NSMapTable() override = default;

    [[nodiscard]] Ref<NSArray> all(Ref<RefCounted> ReferenceTable::Entry::* half) const;

    ReferenceTable table_;
};

}  // namespace vantorq
