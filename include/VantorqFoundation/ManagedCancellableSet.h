#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

#include "Cancellable.h"
#include "Platform/FlatMap.h"
#include "Platform/Hasher.h"
#include "Platform/KeyPath.h"
#include "Platform/OSAllocatedUnfairLock.h"
#include "Platform/RefCounted.h"

namespace vantorq {

/// A type that names the keys of its cancellables: by a member type `CancellableKeys`, which can be
/// hashed by `std::hash` and compared.
template <class Manager>
concept CancellableManager = std::equality_comparable<typename Manager::CancellableKeys> &&
                             requires(const typename Manager::CancellableKeys& key) {
                                 {
                                     std::hash<typename Manager::CancellableKeys>()(key)
                                 } -> std::convertible_to<std::size_t>;
                             };

/// What an object keeps for all that it has started: cancellables without a name, which only ever
/// end together, and ones under a key, where a new one cancels the one that it replaces.
///
///     class SearchController {
///     public:
///         enum class CancellableKeys { query, thumbnails };
///         void search(std::string text) { (*running_)[CancellableKeys::query] = startQuery(text);
///         }
///
///     private:
///         Ref<ManagedCancellableSet<SearchController>> running_ =
///             make<ManagedCancellableSet<SearchController>>();
///     };
///
/// A key is a `CancellableKeys`, or the path of a member of the manager (KeyPath.h); the two never
/// mean the same entry. Cancelling the set, or letting go of it, cancels everything in it and
/// closes it for good: whatever is offered to a closed set is cancelled at once. Equal and hashed
/// by identity, as its `Ref` is.
///
/// What has ended by itself stays: what is under a key until it is replaced or removed, what has
/// none until the set is closed. For work that comes and goes use keys, or a `CancellableTracker`.
///
/// Threads: any. One unfair lock guards the set, and cancellables that are in the set are cancelled
/// while it is held: neither their `cancel`, nor anything that it leads to in place (cancellation
/// handlers, cancel closures, observers, callbacks without a queue), may use the set or wait for a
/// thread that does, or it waits for ever. Those offered to a closed set are cancelled without the
/// lock. What leaves the set is destroyed without it.
template <CancellableManager Manager>
class ManagedCancellableSet final : public Disposable {
public:
    using CancellableKeys = typename Manager::CancellableKeys;
    class Entry;

    /// Open and empty.
    ManagedCancellableSet() = default;

    /// Adds a cancellable without a key; a closed set cancels it instead.
    void insert(CancellableRef cancellable);

    /// The place of `key`: converts to the optional cancellable, and takes a cancellable, or
    /// nothing to remove the entry. Each of these is one critical section. Meant to be used where
    /// it is made.
    ///
    /// Reading a closed set gives nothing. Writing cancels the entry that was there, also when it
    /// is the very object that is written; that one is cancelled then, and stays. In a closed set,
    /// writing cancels what is written.
    [[nodiscard]] Entry operator[](CancellableKeys key) {
        return Entry(*this, KeyType(std::in_place_index<kExplicitKey>, std::move(key)));
    }
    [[nodiscard]] Entry operator[](PartialKeyPath<Manager> path) {
        return Entry(*this, KeyType(std::in_place_index<kKeyPath>, path));
    }

    /// Changes an entry in place: calls `change(std::optional<CancellableRef>&)` with what is
    /// there, and writes what `change` leaves. So the entry that was there is cancelled, whether it
    /// was replaced or not.
    ///
    /// These are two critical sections, a read and a write, and `change` runs between them without
    /// the lock. When it throws, nothing is written.
    template <std::invocable<std::optional<CancellableRef>&> Change>
    void modify(CancellableKeys key, Change&& change) {
        (*this)[std::move(key)].modify(std::forward<Change>(change));
    }
    template <std::invocable<std::optional<CancellableRef>&> Change>
    void modify(PartialKeyPath<Manager> path, Change&& change) {
        (*this)[path].modify(std::forward<Change>(change));
    }

    /// Cancels everything, the cancellables without a key first, in the order of their insertion,
    /// and closes the set. Does nothing to a closed set.
    void cancel() noexcept override;

    /// Whether the set is closed.
    [[nodiscard]] bool isCancelled() const noexcept {
        return storedCancellables_.withLock([](const auto& open) noexcept { return !open; });
    }

    friend bool operator==(const ManagedCancellableSet& a,
                           const ManagedCancellableSet& b) noexcept {
        return &a == &b;
    }

private:
    static constexpr std::size_t kExplicitKey = 0;
    static constexpr std::size_t kKeyPath = 1;
    using KeyType = std::variant<CancellableKeys, PartialKeyPath<Manager>>;
    struct KeyHash {
        std::size_t operator()(const KeyType& key) const noexcept {
            Hasher hasher;
            hasher.combine(key.index());
            std::visit(
                [&](const auto& held) {
                    hasher.combine(std::hash<std::remove_cvref_t<decltype(held)>>()(held));
                },
                key);
            return hasher.finish();
        }
    };
    struct StoredCancellables {
        std::vector<CancellableRef> anonymousCancellables;
        FlatMap<KeyType, CancellableRef, KeyHash> keyedCancellables;
    };

    ~ManagedCancellableSet() override { cancel(); }

    [[nodiscard]] std::optional<CancellableRef> read(const KeyType& key) const;
    void write(const KeyType& key, std::optional<CancellableRef> value);

    /// Empty when the set is closed.
    OSAllocatedUnfairLock<std::optional<StoredCancellables>> storedCancellables_{
        StoredCancellables()};
};

/// Its `isCancelled` tells whether the set is closed, and takes the lock under which the set
/// cancels others; a wrapper that asked it under a lock of its own could wait for ever.
template <class Manager>
inline constexpr bool kDisableStatefulCancellable<ManagedCancellableSet<Manager>> = true;

template <CancellableManager Manager>
class ManagedCancellableSet<Manager>::Entry {
public:
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

    operator std::optional<CancellableRef>() && { return set_.read(key_); }
    void operator=(CancellableRef value) && { set_.write(key_, std::move(value)); }
    void operator=(std::nullopt_t) && { set_.write(key_, std::nullopt); }
    /// Not by conversion, which would make an assignment of what converts to a value ambiguous.
    template <std::same_as<std::optional<CancellableRef>> Optional>
    void operator=(Optional value) && {
        set_.write(key_, std::move(value));
    }

private:
    friend class ManagedCancellableSet;
    Entry(ManagedCancellableSet& set, KeyType key) noexcept : set_(set), key_(std::move(key)) {}

    template <class Change>
    void modify(Change&& change) {
        std::optional<CancellableRef> value = set_.read(key_);
        std::invoke(std::forward<Change>(change), value);
        set_.write(key_, std::move(value));
    }

    ManagedCancellableSet& set_;
    const KeyType key_;
};

template <CancellableManager Manager>
void ManagedCancellableSet<Manager>::insert(CancellableRef cancellable) {
    const bool isClosed = storedCancellables_.withLock([&](auto& open) {
        if (open) {
            open->anonymousCancellables.push_back(std::move(cancellable));
        }
        return !open;
    });
    if (isClosed) {
        cancellable.cancel();
    }
}

template <CancellableManager Manager>
std::optional<CancellableRef> ManagedCancellableSet<Manager>::read(const KeyType& key) const {
    return storedCancellables_.withLock([&](const auto& open) -> std::optional<CancellableRef> {
        const CancellableRef* entry = open ? open->keyedCancellables.find(key) : nullptr;
        return entry != nullptr ? std::optional(*entry) : std::nullopt;
    });
}

template <CancellableManager Manager>
void ManagedCancellableSet<Manager>::write(const KeyType& key,
                                           std::optional<CancellableRef> value) {
    std::optional<std::pair<KeyType, CancellableRef>> removed;  // ends after the lock
    const bool isClosed = storedCancellables_.withLock([&](auto& open) {
        if (!open) {
            return true;
        }
        auto& keyed = open->keyedCancellables;
        if (const CancellableRef* entry = keyed.find(key)) {
            entry->cancel();
        }
        if (!value) {
            removed = keyed.take(key);
        } else if (const auto [entry, isNew] = keyed.emplace(key, *value); !isNew) {
            std::swap(*entry, *value);  // the old one ends with this call, after the lock
        }
        return false;
    });
    if (isClosed && value) {
        value->cancel();
    }
}

template <CancellableManager Manager>
void ManagedCancellableSet<Manager>::cancel() noexcept {
    std::optional<StoredCancellables> ended;  // ends after the lock
    storedCancellables_.withLock([&](auto& open) noexcept {
        if (open) {
            for (const auto& cancellable : open->anonymousCancellables) {
                cancellable.cancel();
            }
            for (const auto& [key, cancellable] : open->keyedCancellables) {
                cancellable.cancel();
            }
        }
        ended.swap(open);
    });
}

}  // namespace vantorq

template <class Manager>
struct std::hash<vantorq::ManagedCancellableSet<Manager>> {
    std::size_t operator()(const vantorq::ManagedCancellableSet<Manager>& set) const noexcept {
        return std::hash<const void*>()(&set);
    }
};
