#pragma once

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

#include "AnyDisposable.h"
#include "Cancellable.h"
#include "Platform/NSHashTable.h"
#include "Platform/OSAllocatedUnfairLock.h"
#include "Platform/RefCounted.h"

namespace vantorq {

namespace detail {

/// Where a `CancellableTracker` keeps its elements. What leaves the storage is handed out, so that
/// it ends after the tracker's lock.
template <class Element>
class CancellableTrackerStorage {
public:
    virtual ~CancellableTrackerStorage() = default;
    /// Adds the element, unless it or an equal one is there.
    virtual void insert(const Element& element) = 0;
    /// Nothing when it is not there.
    virtual std::optional<Element> remove(const Element& element) = 0;
    [[nodiscard]] virtual std::vector<Element> removeAll() = 0;
};

template <class Element>
class SetStorage final : public CancellableTrackerStorage<Element> {
public:
    explicit SetStorage(std::unordered_set<Element> initial) : set_(std::move(initial)) {}

    void insert(const Element& element) override { set_.insert(element); }
    std::optional<Element> remove(const Element& element) override {
        auto node = set_.extract(element);
        return node ? std::optional<Element>(std::move(node.value())) : std::nullopt;
    }
    std::vector<Element> removeAll() override {
        std::vector<Element> snapshot;
        snapshot.reserve(set_.size());
        while (!set_.empty()) {
            snapshot.push_back(std::move(set_.extract(set_.begin()).value()));
        }
        set_ = std::unordered_set<Element>();  // `= {}` would keep the memory
        return snapshot;
    }

private:
    std::unordered_set<Element> set_;
};

template <class Element>
class HashTableStorage;
template <class Object>
class HashTableStorage<Ref<Object>> final : public CancellableTrackerStorage<Ref<Object>> {
public:
    explicit HashTableStorage(Ref<NSHashTable<Object>> table) : hashTable_(std::move(table)) {}

    void insert(const Ref<Object>& element) override { hashTable_->addObject(element); }
    std::optional<Ref<Object>> remove(const Ref<Object>& element) override {
        std::optional<Ref<Object>> removed = hashTable_->member(*element);
        hashTable_->removeObject(*element);
        return removed;
    }
    std::vector<Ref<Object>> removeAll() override {
        std::vector<Ref<Object>> snapshot = hashTable_->allObjects();
        hashTable_->removeAllObjects();
        return snapshot;
    }

private:
    const Ref<NSHashTable<Object>> hashTable_;
};

/// The object type of a `Ref`; void for other types.
template <class T>
struct ReferencedObject {
    using Type = void;
};
template <class Object>
struct ReferencedObject<Ref<Object>> {
    using Type = Object;
};

}  // namespace detail

/// A live collection of cancellables. It cancels all that are still in it when it is told to, or
/// when its last owner lets go of it. Whoever tracks something is given the way to untrack it.
///
///     auto requests = CancellableTracker<Ref<Request>>::set();
///     auto untrack = requests->track(request);
///     …
///     untrack();           // the request has ended; it is not cancelled by this
///     requests->cancel();  // cancels the others
///
/// `Element` is any `Cancellable`: a value, a `Ref`, or `CancellableRef` for elements of several
/// types. The tracker goes on after `cancel`, empty.
///
/// Threads: any. One unfair lock guards the collection; elements are hashed, compared and copied
/// under it, and cancelled and destroyed without it, so that their `cancel` may use the tracker. A
/// table that holds its objects weakly may be the last to let go of one that it looks at, under the
/// lock; such objects must not use the tracker as they are destroyed.
template <Cancellable Element>
    requires std::copy_constructible<Element>
class CancellableTracker final : public Disposable {
public:
    class Untrack;

    /// A tracker that begins with these elements. Equal ones, by `std::hash` and `==`, are kept
    /// once.
    [[nodiscard]] static Ref<CancellableTracker> set(std::unordered_set<Element> initial = {})
        requires std::equality_comparable<Element>
    {
        if (std::ranges::any_of(initial, &detail::CancellableTarget<Element>::isNil)) [[unlikely]] {
            VNTQ_TRAP("CancellableTracker: nil cannot be tracked");
        }
        return tracking(std::make_unique<detail::SetStorage<Element>>(std::move(initial)));
    }
    /// A tracker over the table itself, not a copy of it, which holds its objects as its options
    /// say. The table belongs to the tracker from now on: what else uses it must not do so at the
    /// same time. Nil traps.
    template <std::same_as<typename detail::ReferencedObject<Element>::Type> Object>
    [[nodiscard]] static Ref<CancellableTracker> hashTable(Ref<NSHashTable<Object>> table) {
        if (table == nullptr) [[unlikely]] {
            VNTQ_TRAP("CancellableTracker: nil is no hash table");
        }
        return tracking(std::make_unique<detail::HashTableStorage<Element>>(std::move(table)));
    }

    /// Adds an element, unless an equal one is there, and gives the closure that takes it out
    /// again, which it also does when it is dropped. Of equal ones that are tracked twice, the
    /// first closure takes out the one that is there. Nil traps.
    [[nodiscard]] Untrack track(Element element);

    /// Takes everything out, and then cancels it, in no promised order.
    void cancel() noexcept override {
        auto snapshot = storage_.withLock([](auto& storage) { return storage->removeAll(); });
        for (auto& element : snapshot) {
            detail::CancellableTarget<Element>::of(element).cancel();
        }
    }

private:
    using Storage = std::unique_ptr<detail::CancellableTrackerStorage<Element>>;

    explicit CancellableTracker(Storage storage) noexcept : storage_(std::move(storage)) {}
    ~CancellableTracker() override { cancel(); }

    [[nodiscard]] static Ref<CancellableTracker> tracking(Storage storage) {
        return Ref<CancellableTracker>::adopt(new CancellableTracker(std::move(storage)));
    }

    OSAllocatedUnfairLock<Storage> storage_;
};

/// Takes one element out of its tracker, once: when it is called, or else when its last copy is
/// destroyed. The element is not cancelled by that. Does nothing when the tracker is gone.
///
/// Owns the element until then, also when the table holds it weakly: an element that keeps its own
/// closure keeps itself alive. A `cancel` that is under way may still cancel the element.
///
/// Threads: any.
template <Cancellable Element>
    requires std::copy_constructible<Element>
class CancellableTracker<Element>::Untrack {
public:
    void operator()() const noexcept {
        if (removal_ != nullptr) {  // unless it was moved from
            removal_->cancel();
        }
    }

private:
    friend class CancellableTracker;
    explicit Untrack(Ref<AnyDisposable> removal) noexcept : removal_(std::move(removal)) {}

    Ref<AnyDisposable> removal_;
};

template <Cancellable Element>
    requires std::copy_constructible<Element>
auto CancellableTracker<Element>::track(Element element) -> Untrack {
    if (detail::CancellableTarget<Element>::isNil(element)) [[unlikely]] {
        VNTQ_TRAP("CancellableTracker: nil cannot be tracked");
    }
    storage_.withLock([&](auto& storage) { storage->insert(element); });
    return Untrack(make<AnyDisposable>([weakSelf = Weak<CancellableTracker>(this),
                                        element = std::move(element)] {
        if (const auto self = weakSelf.load()) {
            const auto removed =
                self->storage_.withLock([&](auto& storage) { return storage->remove(element); });
        }
    }));
}

}  // namespace vantorq
