#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <optional>
#include <ranges>
#include <utility>
#include <vector>

#include "Platform/FlatMap.h"
#include "Platform/OSAllocatedUnfairLock.h"
#include "Platform/RefCounted.h"

namespace vantorq {

/// A hash map that many threads may read and write at once.
///
///     auto ages = make<ThreadSafeDictionary<std::string, int>>();
///     (*ages)["Ada"] = 36;
///     std::optional<int> age = (*ages)["Ada"];
///     (*ages)["Ada"] = std::nullopt;  // removes it
///
/// Every operation but `modify` is one short critical section around one operation of the map,
/// under one unfair lock, which stands in the object together with the map. None reads and writes
/// an entry in one: for values that several threads change by what they were, put a lock around a
/// map. Values are copied in and out. Single entries are hashed, compared and copied under the
/// lock; what is replaced or removed is destroyed after it. Only `forEach` calls the caller while
/// the lock is held.
///
/// `keys` and `values` copy nothing under the lock: they take a share of the map as it is, build
/// the array from that after the lock, and a writer that comes meanwhile copies the map first. So
/// the first write during or after a snapshot that is still being built costs O(n), and one element
/// may be copied by several threads at once.
///
/// Threads: any. There is no order among waiting threads.
template <class Key, class Value, class Hash = std::hash<Key>, class Equal = std::equal_to<Key>>
class ThreadSafeDictionary final : public RefCounted {
public:
    using Map = FlatMap<Key, Value, Hash, Equal>;
    class Entry;

    /// With these entries. Other maps, `std::unordered_map` for example, convert.
    explicit ThreadSafeDictionary(Map dictionary = {}) noexcept
        : dictionary_(std::move(dictionary)) {}

    [[nodiscard]] std::size_t count() const noexcept {
        return dictionary_.withLock([](const Map& map) noexcept { return map.size(); });
    }
    [[nodiscard]] bool isEmpty() const noexcept {
        return dictionary_.withLock([](const Map& map) noexcept { return map.empty(); });
    }
    /// All keys, as they were at one moment. O(n), outside the lock.
    [[nodiscard]] std::vector<Key> keys() const { return elements<0>(); }
    /// All values, as they were at one moment. O(n), outside the lock. While nobody writes, in the
    /// order of `keys`.
    [[nodiscard]] std::vector<Value> values() const { return elements<1>(); }

    /// The place of `key`: converts to the optional value, and takes a value, or nothing to remove
    /// the entry. Each of these is one critical section. The key must outlive the place, which is
    /// meant to be used where it is made.
    [[nodiscard]] Entry operator[](const Key& key) noexcept { return Entry(*this, key); }
    [[nodiscard]] std::optional<Value> operator[](const Key& key) const { return read(key); }

    /// Reads an entry, has it changed, and writes it back, which is not one step: calls
    /// `change(std::optional<Value>&)` with a copy of the value, or nothing, and stores what
    /// `change` leaves; nothing removes the entry.
    ///
    ///     (*dictionary).modify("Grace", [](std::optional<int>& age) { age = 85; });
    ///
    /// These are two critical sections, a read and a write, and `change` runs between them without
    /// the lock. What another thread writes meanwhile is overwritten: two threads that count up at
    /// once may lose a step. When `change` throws, nothing is written.
    template <class Change>
    void modify(const Key& key, Change&& change) {
        std::optional<Value> value = read(key);
        std::forward<Change>(change)(value);
        write(key, std::move(value));
    }

    /// Removes every entry. With `keepingCapacity`, as many entries as before fit again without
    /// growing.
    void removeAll(bool keepingCapacity = false);

    /// Calls `body(key, value)` once for each entry, in the map's order, while the lock is held. A
    /// body that touches this dictionary waits for ever; it should be short. What it throws ends
    /// the walk and passes through, after the lock is free again.
    template <class Body>
    void forEach(Body&& body) const {
        dictionary_.withLock([&](const Map& map) {
            for (const auto& [key, value] : map) {
                body(key, value);
            }
        });
    }

    /// Removes the entries of these keys, in one critical section, and gives the values that were
    /// removed, in the order of the set. A key without an entry adds nothing.
    template <std::ranges::input_range Keys>
        requires std::convertible_to<std::ranges::range_reference_t<const Keys>, const Key&>
    std::vector<Value> removeKeys(const Keys& keys);

private:
    ~ThreadSafeDictionary() override = default;

    [[nodiscard]] std::optional<Value> read(const Key& key) const {
        return dictionary_.withLock([&](const Map& map) -> std::optional<Value> {
            const Value* found = map.find(key);
            return found != nullptr ? std::optional<Value>(*found) : std::nullopt;
        });
    }
    void write(const Key& key, std::optional<Value> value) {
        if (value.has_value()) {
            store(key, std::move(*value));
        } else {
            remove(key);
        }
    }
    void store(const Key& key, Value value) {
        change([&](Map& map) {
            const auto [stored, isNew] = map.emplace(key, std::move(value));
            if (!isNew) {
                std::swap(*stored, value);  // the old one ends with this call, after the lock
            }
        });
    }
    void remove(const Key& key) {
        [[maybe_unused]] const auto removed = change([&](Map& map) { return map.take(key); });
    }

    /// `changeMap(Map&)` under the lock. If the map is shared with a snapshot, the old block is
    /// kept until the lock is free: the snapshot may end meanwhile, and the entries of a block must
    /// not be destroyed under the lock.
    template <class ChangeMap>
    auto change(ChangeMap changeMap) {
        Map kept;
        return dictionary_.withLock([&](Map& map) {
            if (map.isShared()) {
                kept = map;
            }
            return changeMap(map);
        });
    }

    template <std::size_t Part>
    auto elements() const {
        const Map snapshot = dictionary_.withLock([](const Map& map) noexcept { return map; });
        std::vector<std::tuple_element_t<Part, typename Map::value_type>> all;
        all.reserve(snapshot.size());
        for (const auto& entry : snapshot) {
            all.push_back(std::get<Part>(entry));
        }
        return all;
    }

    OSAllocatedUnfairLock<Map> dictionary_;
};

template <class Key, class Value, class Hash, class Equal>
class ThreadSafeDictionary<Key, Value, Hash, Equal>::Entry {
public:
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    operator std::optional<Value>() && { return dictionary_.read(key_); }
    void operator=(Value value) && { dictionary_.store(key_, std::move(value)); }
    void operator=(std::nullopt_t) && { dictionary_.remove(key_); }
    /// Not by conversion, which would make an assignment of what converts to a value ambiguous.
    template <std::same_as<std::optional<Value>> Optional>
    void operator=(Optional value) && {
        dictionary_.write(key_, std::move(value));
    }

private:
    friend class ThreadSafeDictionary;
    Entry(ThreadSafeDictionary& dictionary, const Key& key) noexcept
        : dictionary_(dictionary), key_(key) {}

    ThreadSafeDictionary& dictionary_;
    const Key& key_;
};

template <class Key, class Value, class Hash, class Equal>
void ThreadSafeDictionary<Key, Value, Hash, Equal>::removeAll(bool keepingCapacity) {
    // The entries go with this map, after the lock.
    Map removed;
    dictionary_.withLock([&](Map& map) {
        if (keepingCapacity) {
            removed.reserve(map.capacity());
        }
        std::swap(map, removed);
    });
}

template <class Key, class Value, class Hash, class Equal>
template <std::ranges::input_range Keys>
    requires std::convertible_to<std::ranges::range_reference_t<const Keys>, const Key&>
std::vector<Value> ThreadSafeDictionary<Key, Value, Hash, Equal>::removeKeys(const Keys& keys) {
    std::vector<typename Map::value_type> entries;
    change([&](Map& map) {
        for (const Key& key : keys) {
            if (auto entry = map.take(key)) {
                entries.push_back(*std::move(entry));
            }
        }
    });
    std::vector<Value> removed;
    removed.reserve(entries.size());
    for (auto& entry : entries) {
        removed.push_back(std::move(entry.second));
    }
    return removed;
}

}  // namespace vantorq
