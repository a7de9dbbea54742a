#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Hasher.h"
#include "RefCounted.h"

namespace vantorq {

/// A hash map in one block of memory, which copies share until one of them changes.
///
/// Keys and values stand beside one another in an open-addressing table, so finding an entry costs
/// one hash and, as a rule, two cache lines. Copying a map is O(1), whatever its size; the first
/// change of a map whose block is shared copies the block. Entries have no order, but the order in
/// which they are walked through stays the same until the map changes.
///
/// Pointers to values, and iterators, are valid until the map changes. Values that can only be
/// moved are allowed; such a map can only be moved itself. A key must not change what it is equal
/// to, and its hash function and its equality must not throw.
///
/// Threads: one map belongs to one thread at a time. Copies of it are independent, although they
/// share: distinct ones may be used and changed by different threads without a lock.
template <class Key, class Value, class Hash = std::hash<Key>, class Equal = std::equal_to<Key>>
class FlatMap {
    static constexpr bool kIsCopyable =
        std::is_copy_constructible_v<Key> && std::is_copy_constructible_v<Value>;

public:
    using key_type = Key;
    using mapped_type = Value;
    using value_type = std::pair<Key, Value>;
    using size_type = std::size_t;
    class const_iterator;
    using iterator = const_iterator;

    FlatMap() noexcept = default;
    /// The first of several equal keys stays.
    FlatMap(std::initializer_list<value_type> entries)
        requires kIsCopyable;
    /// The entries of another kind of map, `std::unordered_map` for example.
    template <class Other>
        requires(!std::derived_from<std::remove_cvref_t<Other>, FlatMap> &&
                 requires(const std::remove_cvref_t<Other>& other) {
                     typename std::remove_cvref_t<Other>::mapped_type;
                     { other.begin()->first } -> std::convertible_to<Key>;
                     { other.begin()->second } -> std::convertible_to<Value>;
                     other.size();
                 })
    FlatMap(const Other& entries);
    FlatMap(const FlatMap& other) noexcept
        requires kIsCopyable
    = default;
    FlatMap(FlatMap&& other) noexcept = default;
    FlatMap& operator=(const FlatMap& other) noexcept
        requires kIsCopyable
    = default;
    FlatMap& operator=(FlatMap&& other) noexcept = default;

    // Reading. `Probe` is the key type, or another one that `Hash` and `Equal` take.

    [[nodiscard]] std::size_t size() const noexcept { return table_ ? table_->size : 0; }
    [[nodiscard]] bool empty() const noexcept { return size() == 0; }
    /// How many entries fit before the map needs a larger block.
    [[nodiscard]] std::size_t capacity() const noexcept {
        return table_ ? limitOf(table_->mask + 1) : 0;
    }
    /// The value; null when there is none.
    template <class Probe = Key>
    [[nodiscard]] const Value* find(const Probe& key) const noexcept;
    template <class Probe = Key>
    [[nodiscard]] bool contains(const Probe& key) const noexcept {
        return find(key) != nullptr;
    }
    /// The entry; `end()` when there is none.
    template <class Probe = Key>
    [[nodiscard]] const_iterator locate(const Probe& key) const noexcept {
        const std::size_t slot = slotOf(key, hashOf(key));
        return slot != kNone ? const_iterator(table_.get(), slot) : end();
    }
    [[nodiscard]] const_iterator begin() const noexcept;
    [[nodiscard]] const_iterator end() const noexcept;
    /// Whether the map shares its block, so that its next change will copy.
    [[nodiscard]] bool isShared() const noexcept { return table_ && table_->isShared(); }

    // Changing. O(1), amortised, unless the map is shared. When the copy of an entry throws, the
    // map is as it was.

    /// The value, to be changed in place; null when there is none.
    template <class Probe = Key>
    [[nodiscard]] Value* findMutable(const Probe& key);
    /// Adds an entry, its value made from `arguments`, unless the key is there already; then
    /// nothing is moved from. The value that is there now, and whether it is new.
    template <class Probe = Key, class... Arguments>
    std::pair<Value*, bool> emplace(Probe&& key, Arguments&&... arguments);
    /// Adds an entry, or replaces its value and keeps the key that is there.
    template <class Probe = Key>
    Value& insertOrAssign(Probe&& key, Value value);
    /// Takes the entry out; nothing when there is none.
    template <class Probe = Key>
    std::optional<value_type> take(const Probe& key);
    /// Whether there was such an entry.
    template <class Probe = Key>
    bool erase(const Probe& key);
    /// Erases the entries of which `predicate(key, value)` holds, and counts them. O(n).
    template <class Predicate>
    std::size_t eraseIf(Predicate predicate);
    /// Makes room for `count` entries altogether.
    void reserve(std::size_t count);
    /// Erases every entry and gives the memory back.
    void clear() noexcept { table_.reset(); }

    /// The same keys with equal values.
    friend bool operator==(const FlatMap& a, const FlatMap& b)
        requires std::equality_comparable<Value>
    {
        return a.table_ == b.table_ || (a.size() == b.size() && a.isPartOf(b));
    }

private:
    struct Table;
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
    static constexpr std::size_t kLeastSlots = 8;

    /// Three quarters: a search then looks at two or three slots.
    static constexpr std::size_t limitOf(std::size_t slots) noexcept { return slots - slots / 4; }
    static constexpr std::size_t slotsFor(std::size_t count) noexcept {
        std::size_t slots = kLeastSlots;
        while (limitOf(slots) < count) {
            slots *= 2;
        }
        return slots;
    }
    template <class Probe>
    static std::uint64_t hashOf(const Probe& key) noexcept {
        return Hasher::mix(Hash()(key));
    }
    template <class Probe>
    std::size_t slotOf(const Probe& key, std::uint64_t hash) const noexcept {
        return table_ ? table_->find(key, hash) : kNone;
    }
    bool isPartOf(const FlatMap& other) const;
    /// Makes the block this map's own. Every entry stays in its slot.
    void unshare();
    /// Puts the entries into a block of so many slots that nobody shares.
    void rebuild(std::size_t slots);
    void prepareToInsert();

    Ref<Table> table_;  // null: no entries, no memory
};

/// The block: this header, then the entries, then one mark per slot. A mark says that the slot is
/// free, or was left by an entry and is still passed by searches, or carries seven bits of the hash
/// of the entry that stands there.
///
/// An entry stands in the first slot, from the one that its hash names on, that was not taken. So a
/// search may look at a window of eight marks at once, in which the entry nearly always is: without
/// a branch whose way depends on how far away it is. The first marks are repeated behind the last,
/// so that every slot begins a window.
template <class Key, class Value, class Hash, class Equal>
struct FlatMap<Key, Value, Hash, Equal>::Table {
    using Mark = unsigned char;
    static constexpr Mark kFree = 0;
    static constexpr Mark kLeft = 1;
    static constexpr Mark kTaken = 0x80;
    static constexpr std::size_t kWindow = 8;
    static_assert(kLeastSlots >= kWindow);

    static Mark markOf(std::uint64_t hash) noexcept {
        return static_cast<Mark>(kTaken | (hash >> 57));
    }

    static Ref<Table> ofSlots(std::size_t slots) {
        static_assert(sizeof(Table) == kHeaderBytes);
        void* memory = ::operator new(bytesOf(slots), kAlignment);
        auto table = Ref<Table>::adopt(::new (memory) Table(slots));
        std::uninitialized_fill_n(table->marks(), slots + kWindow - 1, kFree);
        return table;
    }

    Ref<Table> copy() {
        auto made = ofSlots(mask + 1);
        for (std::size_t slot = takenFrom(0); slot <= mask; slot = takenFrom(slot + 1)) {
            std::construct_at(made->entries() + slot, std::as_const(entries()[slot]));
            made->setMark(slot, marks()[slot]);
        }
        std::copy_n(marks(), mask + kWindow, made->marks());
        made->size = size;
        made->room = room;
        return made;
    }

    void retain() const noexcept { owners_.fetch_add(1, std::memory_order_relaxed); }
    void release() const noexcept {
        if (owners_.load(std::memory_order_acquire) == 1 ||
            owners_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            auto* self = const_cast<Table*>(this);
            self->~Table();
            ::operator delete(self, kAlignment);
        }
    }
    /// Acquires, so that what a former sharer has read is read before the owner changes it.
    bool isShared() const noexcept { return owners_.load(std::memory_order_acquire) != 1; }

    value_type* entries() noexcept {
        return reinterpret_cast<value_type*>(reinterpret_cast<std::byte*>(this) + kEntriesAt);
    }
    Mark* marks() noexcept { return reinterpret_cast<Mark*>(entries() + mask + 1); }
    void setMark(std::size_t slot, Mark mark) noexcept {
        marks()[slot] = mark;
        if (slot < kWindow - 1) {
            marks()[mask + 1 + slot] = mark;
        }
    }
    bool isTaken(std::size_t slot) noexcept { return (marks()[slot] & kTaken) != 0; }
    /// The first slot from `slot` on where an entry stands, or the number of slots.
    std::size_t takenFrom(std::size_t slot) noexcept {
        while (slot <= mask && !isTaken(slot)) {
            ++slot;
        }
        return slot;
    }

    template <class Probe>
    std::size_t find(const Probe& key, std::uint64_t hash) noexcept {
        const std::uint64_t wanted = kLowBits * markOf(hash);
        for (std::size_t start = hash & mask;; start = (start + kWindow) & mask) {
            const std::uint64_t window = windowAt(start);
            for (std::uint64_t same = zeroBytes(window ^ wanted); same != 0; same &= same - 1) {
                const auto offset = static_cast<std::size_t>(std::countr_zero(same)) / 8;
                const std::size_t slot = (start + offset) & mask;
                if (Equal()(entries()[slot].first, key)) [[likely]] {
                    return slot;
                }
            }
            if (zeroBytes(window) != 0) [[likely]] {
                return kNone;
            }
        }
    }

    /// Makes an entry of a key that is not there; there must be room.
    template <class... Arguments>
    value_type& insert(std::uint64_t hash, Arguments&&... arguments) {
        std::size_t slot = hash & mask;
        while (isTaken(slot)) {
            slot = (slot + 1) & mask;
        }
        auto* entry = std::construct_at(entries() + slot, std::forward<Arguments>(arguments)...);
        if (marks()[slot] == kFree) {
            --room;
        }
        setMark(slot, markOf(hash));
        ++size;
        return *entry;
    }

    void erase(std::size_t slot) noexcept {
        std::destroy_at(entries() + slot);
        --size;
        if (marks()[(slot + 1) & mask] != kFree) {
            setMark(slot, kLeft);
            return;
        }
        // Searches end behind this slot anyway, so they may as well end at it.
        do {
            setMark(slot, kFree);
            ++room;
            slot = (slot - 1) & mask;
        } while (marks()[slot] == kLeft);
    }

    std::size_t size = 0;
    std::size_t room;  // free slots that may be filled before there are too few
    const std::size_t mask;

private:
    static constexpr std::size_t kHeaderBytes = 4 * sizeof(std::size_t);
    static constexpr std::align_val_t kAlignment{
        alignof(value_type) > alignof(std::size_t) ? alignof(value_type) : alignof(std::size_t)};
    static constexpr std::size_t kEntriesAt =
        (kHeaderBytes + alignof(value_type) - 1) / alignof(value_type) * alignof(value_type);

    static std::size_t bytesOf(std::size_t slots) noexcept {
        return kEntriesAt + slots * (sizeof(value_type) + sizeof(Mark)) + kWindow - 1;
    }

    static constexpr std::uint64_t kLowBits = 0x0101'0101'0101'0101;
    static_assert(kFree == 0);

    /// Eight marks, the first one in the lowest byte.
    std::uint64_t windowAt(std::size_t slot) noexcept {
        std::uint64_t window;
        std::memcpy(&window, marks() + slot, sizeof window);
        return std::endian::native == std::endian::little ? window : __builtin_bswap64(window);
    }
    /// The high bit of each byte that is zero. A byte of value one above such a byte may be named
    /// too: as the mark of an entry with nearly the same bits, which the keys then tell apart.
    static std::uint64_t zeroBytes(std::uint64_t bytes) noexcept {
        return (bytes - kLowBits) & ~bytes & (kLowBits * 0x80);
    }

    explicit Table(std::size_t slots) noexcept : room(limitOf(slots)), mask(slots - 1) {}
    ~Table() {
        if constexpr (!std::is_trivially_destructible_v<value_type>) {
            for (std::size_t slot = takenFrom(0); slot <= mask; slot = takenFrom(slot + 1)) {
                std::destroy_at(entries() + slot);
            }
        }
    }

    mutable std::atomic<std::size_t> owners_{1};
};

/// Walks through the entries; the map must not be changed meanwhile.
template <class Key, class Value, class Hash, class Equal>
class FlatMap<Key, Value, Hash, Equal>::const_iterator {
public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = FlatMap::value_type;
    using difference_type = std::ptrdiff_t;
    using pointer = const value_type*;
    using reference = const value_type&;

    const_iterator() noexcept = default;
    reference operator*() const noexcept { return table_->entries()[slot_]; }
    pointer operator->() const noexcept { return &**this; }
    const_iterator& operator++() noexcept {
        slot_ = table_->takenFrom(slot_ + 1);
        return *this;
    }
    const_iterator operator++(int) noexcept {
        const_iterator before = *this;
        ++*this;
        return before;
    }
    friend bool operator==(const const_iterator&, const const_iterator&) noexcept = default;

private:
    friend class FlatMap;
    const_iterator(Table* table, std::size_t slot) noexcept : table_(table), slot_(slot) {}

    Table* table_ = nullptr;
    std::size_t slot_ = 0;
};

template <class Key, class Value, class Hash, class Equal>
FlatMap<Key, Value, Hash, Equal>::FlatMap(std::initializer_list<value_type> entries)
    requires kIsCopyable
{
    reserve(entries.size());
    for (const auto& [key, value] : entries) {
        emplace(key, value);
    }
}

template <class Key, class Value, class Hash, class Equal>
template <class Other>
    requires(!std::derived_from<std::remove_cvref_t<Other>, FlatMap<Key, Value, Hash, Equal>> &&
             requires(const std::remove_cvref_t<Other>& other) {
                 typename std::remove_cvref_t<Other>::mapped_type;
                 { other.begin()->first } -> std::convertible_to<Key>;
                 { other.begin()->second } -> std::convertible_to<Value>;
                 other.size();
             })
FlatMap<Key, Value, Hash, Equal>::FlatMap(const Other& entries) {
    reserve(entries.size());
    for (const auto& [key, value] : entries) {
        emplace(key, value);
    }
}

template <class Key, class Value, class Hash, class Equal>
auto FlatMap<Key, Value, Hash, Equal>::begin() const noexcept -> const_iterator {
    return table_ ? const_iterator(table_.get(), table_->takenFrom(0)) : end();
}

template <class Key, class Value, class Hash, class Equal>
auto FlatMap<Key, Value, Hash, Equal>::end() const noexcept -> const_iterator {
    return table_ ? const_iterator(table_.get(), table_->mask + 1) : const_iterator();
}

template <class Key, class Value, class Hash, class Equal>
template <class Probe>
const Value* FlatMap<Key, Value, Hash, Equal>::find(const Probe& key) const noexcept {
    const std::size_t slot = slotOf(key, hashOf(key));
    return slot != kNone ? &table_->entries()[slot].second : nullptr;
}

template <class Key, class Value, class Hash, class Equal>
bool FlatMap<Key, Value, Hash, Equal>::isPartOf(const FlatMap& other) const {
    for (const auto& [key, value] : *this) {
        const Value* theirs = other.find(key);
        if (theirs == nullptr || !(value == *theirs)) {
            return false;
        }
    }
    return true;
}

template <class Key, class Value, class Hash, class Equal>
void FlatMap<Key, Value, Hash, Equal>::unshare() {
    if constexpr (kIsCopyable) {
        if (isShared()) {
            table_ = table_->copy();
        }
    }
}

template <class Key, class Value, class Hash, class Equal>
void FlatMap<Key, Value, Hash, Equal>::rebuild(std::size_t slots) {
    constexpr bool kMovesSafely = std::is_nothrow_move_constructible_v<value_type>;
    auto fresh = Table::ofSlots(slots);
    if (table_) {
        Table& old = *table_;
        const bool copies = kIsCopyable && (!kMovesSafely || old.isShared());
        for (std::size_t slot = old.takenFrom(0); slot <= old.mask;
             slot = old.takenFrom(slot + 1)) {
            value_type& entry = old.entries()[slot];
            const std::uint64_t hash = hashOf(entry.first);
            if constexpr (kIsCopyable) {
                if (copies) {
                    fresh->insert(hash, std::as_const(entry));
                    continue;
                }
            }
            fresh->insert(hash, std::move(entry));
        }
    }
    table_ = std::move(fresh);
}

template <class Key, class Value, class Hash, class Equal>
void FlatMap<Key, Value, Hash, Equal>::prepareToInsert() {
    if (!table_) {
        rebuild(kLeastSlots);
    } else if (table_->room == 0) {
        // Where entries that are gone have used up half of the room, as many slots will do again.
        const std::size_t slots = table_->mask + 1;
        rebuild(table_->size > limitOf(slots) / 2 ? 2 * slots : slots);
    } else {
        unshare();
    }
}

template <class Key, class Value, class Hash, class Equal>
template <class Probe>
Value* FlatMap<Key, Value, Hash, Equal>::findMutable(const Probe& key) {
    const std::size_t slot = slotOf(key, hashOf(key));
    if (slot == kNone) {
        return nullptr;
    }
    unshare();
    return &table_->entries()[slot].second;
}

template <class Key, class Value, class Hash, class Equal>
template <class Probe, class... Arguments>
std::pair<Value*, bool> FlatMap<Key, Value, Hash, Equal>::emplace(Probe&& key,
                                                                  Arguments&&... arguments) {
    const std::uint64_t hash = hashOf(key);
    const std::size_t slot = slotOf(key, hash);
    if (slot != kNone) {
        unshare();
        return {&table_->entries()[slot].second, false};
    }
    prepareToInsert();
    auto& entry = table_->insert(hash, std::piecewise_construct,
                                 std::forward_as_tuple(std::forward<Probe>(key)),
                                 std::forward_as_tuple(std::forward<Arguments>(arguments)...));
    return {&entry.second, true};
}

template <class Key, class Value, class Hash, class Equal>
template <class Probe>
Value& FlatMap<Key, Value, Hash, Equal>::insertOrAssign(Probe&& key, Value value) {
    const auto [stored, isNew] = emplace(std::forward<Probe>(key), std::move(value));
    if (!isNew) {
        *stored = std::move(value);
    }
    return *stored;
}

template <class Key, class Value, class Hash, class Equal>
template <class Probe>
auto FlatMap<Key, Value, Hash, Equal>::take(const Probe& key) -> std::optional<value_type> {
    const std::size_t slot = slotOf(key, hashOf(key));
    if (slot == kNone) {
        return std::nullopt;
    }
    unshare();
    std::optional<value_type> taken(std::move(table_->entries()[slot]));
    table_->erase(slot);
    return taken;
}

template <class Key, class Value, class Hash, class Equal>
template <class Probe>
bool FlatMap<Key, Value, Hash, Equal>::erase(const Probe& key) {
    return take(key).has_value();
}

template <class Key, class Value, class Hash, class Equal>
template <class Predicate>
std::size_t FlatMap<Key, Value, Hash, Equal>::eraseIf(Predicate predicate) {
    if (!table_) {
        return 0;
    }
    unshare();
    const std::size_t before = size();
    for (std::size_t slot = table_->takenFrom(0); slot <= table_->mask;
         slot = table_->takenFrom(slot + 1)) {
        value_type& entry = table_->entries()[slot];
        if (predicate(std::as_const(entry.first), entry.second)) {
            table_->erase(slot);
        }
    }
    return before - size();
}

template <class Key, class Value, class Hash, class Equal>
void FlatMap<Key, Value, Hash, Equal>::reserve(std::size_t count) {
    if (count > capacity()) {
        rebuild(slotsFor(count));
    }
}

}  // namespace vantorq
