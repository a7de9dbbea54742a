#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "Export.h"
#include "FlatMap.h"
#include "NSObject.h"
#include "RefCounted.h"

namespace vantorq {

/// How a table holds its objects, and how it tells one from another. Combine with `|`.
enum class NSPointerFunctionsOptions : NSUInteger {
    strongMemory = 0,                ///< the table owns them
    weakMemory = 5,                  ///< the table does not keep them alive
    objectPersonality = 0,           ///< by `isEqual` and `hash`
    objectPointerPersonality = 512,  ///< by identity
};
constexpr NSPointerFunctionsOptions operator|(NSPointerFunctionsOptions a,
                                              NSPointerFunctionsOptions b) noexcept {
    return static_cast<NSPointerFunctionsOptions>(static_cast<NSUInteger>(a) |
                                                  static_cast<NSUInteger>(b));
}

/// What `NSHashTable` and `NSMapTable` stand on: a table of shared objects, and of a further object
/// for each where there is one, both of them owned or not as the options say.
///
/// An entry of which a weakly held half is gone counts as removed from that moment on. Its memory,
/// and what it owns, go when so many entries have been added that looking for such remains costs
/// O(1) for each of them.
///
/// An object is told from another by identity, unless the options say by equality: then it is an
/// `NSObject`, and its hash is remembered from when it went in. What leaves the table is let go
/// after the table is in order again, so a destructor may use it.
///
/// Threads: one at a time; objects that are held weakly may end on any thread meanwhile.
class VNTQ_EXPORT ReferenceTable {
public:
    using Object = Ref<RefCounted>;
    using Options = NSPointerFunctionsOptions;
    struct Entry {
        Object key;
        Object value;
    };

    ReferenceTable(Options keys, Options values) noexcept : keys_(keys), values_(values) {}
    ReferenceTable(const ReferenceTable&) = delete;
    ReferenceTable& operator=(const ReferenceTable&) = delete;

    /// The entry of `key`; both halves nil when there is none.
    [[nodiscard]] Entry find(const RefCounted& key) const;
    /// Adds an entry, or leaves the one that is there. A table without values has nil ones.
    void add(RefCounted& key, RefCounted* value = nullptr);
    /// Adds an entry, or replaces its value and keeps the key that is there.
    void set(RefCounted& key, RefCounted& value);
    void remove(const RefCounted& key);
    void removeAll();
    /// The living entries, in the table's order. O(n).
    [[nodiscard]] std::vector<Entry> entries() const;
    /// O(1), but O(n) where something is held weakly.
    [[nodiscard]] std::size_t count() const;
    /// Entries that still take memory, remains included. O(1).
    [[nodiscard]] std::size_t storedCount() const noexcept { return table_.size(); }

private:
    /// An owner, or a weak handle.
    class Holder {
    public:
        Holder() noexcept = default;
        Holder(RefCounted* object, Options options) noexcept;
        [[nodiscard]] Object load() const noexcept {
            return owner_ != nullptr ? owner_ : weak_.load();
        }
        [[nodiscard]] bool isOwner() const noexcept { return owner_ != nullptr; }

    private:
        Object owner_;
        Weak<RefCounted> weak_;
    };
    struct Probe;
    struct Key {
        explicit Key(const Probe& probe);
        NSUInteger hash;
        Holder object;
    };
    struct KeyHash {
        std::size_t operator()(const Key& key) const noexcept { return key.hash; }
        std::size_t operator()(const Probe& probe) const noexcept;
    };
    struct KeyEqual {
        bool operator()(const Key& stored, const Probe& probe) const;
    };

    [[nodiscard]] bool holdsWeakly() const noexcept;
    [[nodiscard]] Entry load(const Key& key, const Holder& value) const noexcept;
    [[nodiscard]] bool isLiving(const Entry& entry) const noexcept;
    void purgeWhenDue();

    const Options keys_;
    const Options values_;
    FlatMap<Key, Holder, KeyHash, KeyEqual> table_;
    std::size_t purgeAt_ = 16;  // the number of entries at which to look for remains
};

}  // namespace vantorq
