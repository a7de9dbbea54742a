#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <type_traits>
#include <utility>

#include "Cancellable.h"
#include "Platform/Export.h"
#include "Platform/RefCounted.h"
#include "Platform/Trap.h"
#include "Platform/UnfairLock.h"

namespace vantorq {

namespace detail {

// What an action can hold: a closure to run, a cancellable, or a cancellable that is also asked
// whether it is cancelled.
template <class Closure>
struct ActionHandler {
    Closure closure;
    void cancel() { closure(); }
};
template <class T>
struct WrappedCancellable {
    T cancellable;
    void cancel() { CancellableTarget<T>::of(cancellable).cancel(); }
};
template <class T>
struct WrappedStatefulCancellable {
    T cancellable;
    void cancel() { CancellableTarget<T>::of(cancellable).cancel(); }
    [[nodiscard]] bool isCancelled() const {
        return CancellableTarget<T>::of(cancellable).isCancelled();
    }
};

/// Something to do at most once, of any type, and whether that is over: the state of an
/// `AnyDisposable`. What it holds stands in the action itself, unless it is large.
class CancellationAction {
    struct Operations;

public:
    /// What was in an action that is over now. It stands where it stood, and ends with this handle,
    /// which the action has to outlive.
    class Work {
    public:
        Work(Work&& other) noexcept
            : operations_(std::exchange(other.operations_, nullptr)), held_(other.held_) {}
        Work& operator=(Work&&) = delete;
        ~Work() { reset(); }

        void run() noexcept {
            if (operations_ != nullptr) {
                operations_->cancel(held_);
            }
        }
        void reset() noexcept {
            if (const Operations* operations = std::exchange(operations_, nullptr);
                operations != nullptr && operations->destroy != nullptr) {
                operations->destroy(held_);
            }
        }

    private:
        friend class CancellationAction;
        Work(const Operations* operations, void* held) noexcept
            : operations_(operations), held_(held) {}

        const Operations* operations_;
        void* held_;
    };

    /// Over from the beginning.
    CancellationAction() noexcept = default;
    template <class Held>
    explicit CancellationAction(Held held) {
        emplace(std::move(held));
    }
    CancellationAction(const CancellationAction&) = delete;
    CancellationAction& operator=(const CancellationAction&) = delete;
    ~CancellationAction() { (void)take(); }

    /// For an action that is over and whose work has ended.
    template <class Held>
    void emplace(Held held) {
        if constexpr (sizeof(Held) <= kInlineSize && alignof(Held) <= alignof(void*)) {
            ::new (static_cast<void*>(storage_)) Held(std::move(held));
            operations_ = &kOperations<Held>;
        } else {
            using Outside = OutOfLine<Held>;
            ::new (static_cast<void*>(storage_)) Outside{std::make_unique<Held>(std::move(held))};
            operations_ = &kOperations<Outside>;
        }
    }

    [[nodiscard]] bool isCancelled() const noexcept { return operations_ == nullptr; }
    /// Whether the wrapped cancellable says of itself that it is cancelled.
    [[nodiscard]] bool isCancelledElsewhere() const noexcept {
        return operations_ != nullptr && operations_->isCancelled != nullptr &&
               operations_->isCancelled(storage_);
    }

    /// Makes the action cancelled, and gives what is left to do; nothing when it was over before.
    [[nodiscard]] Work take() noexcept { return {std::exchange(operations_, nullptr), storage_}; }

private:
    static constexpr std::size_t kInlineSize = 48;

    template <class Held>
    struct OutOfLine {
        std::unique_ptr<Held> held;
        void cancel() { held->cancel(); }
        [[nodiscard]] bool isCancelled() const
            requires requires(const Held& inner) { inner.isCancelled(); }
        {
            return held->isCancelled();
        }
    };

    struct Operations {
        void (*cancel)(void* held) noexcept;
        bool (*isCancelled)(const void* held) noexcept;  ///< null where nobody is asked
        void (*destroy)(void* held) noexcept;            ///< null where that does nothing
    };
    template <class Held>
    static constexpr Operations operationsOf() {
        Operations operations{};
        operations.cancel = [](void* held) noexcept { static_cast<Held*>(held)->cancel(); };
        if constexpr (requires(const Held& held) { held.isCancelled(); }) {
            operations.isCancelled = [](const void* held) noexcept {
                return static_cast<bool>(static_cast<const Held*>(held)->isCancelled());
            };
        }
        if constexpr (!std::is_trivially_destructible_v<Held>) {
            operations.destroy = [](void* held) noexcept { static_cast<Held*>(held)->~Held(); };
        }
        return operations;
    }
    template <class Held>
    static constexpr Operations kOperations = operationsOf<Held>();

    const Operations* operations_ = nullptr;
    alignas(void*) std::byte storage_[kInlineSize];
};

}  // namespace detail

/// A handle that does its work at most once: when `cancel` is called, or when its last owner lets
/// go of it, whichever comes first. The work is a closure, or the cancelling of something else.
///
///     auto observation = make<AnyDisposable>([list, row] { list->remove(row); });
///     observation->store(observations);  // they end with the vector
///
/// The closure or the wrapped cancellable is released once the work is done. Making one costs one
/// allocation, for closures of up to 48 bytes. Equal and hashed by identity, as its `Ref` is.
///
/// Threads: any. The work runs on the thread that cancels, and never under the lock, so it may use
/// this very object, which then says that it is cancelled. When several threads cancel at once, one
/// of them runs the work, and the others do not wait for it.
class VNTQ_EXPORT AnyDisposable final : public Disposable {
public:
    /// Runs `closure`, which takes nothing and must not throw.
    template <class Closure>
        requires std::invocable<Closure&> && (!Cancellable<Closure>)
    explicit AnyDisposable(Closure closure)
        : action_(detail::ActionHandler<Closure>{std::move(closure)}) {}

    /// Cancels `cancellable`, which it owns until then; also when that is an `AnyDisposable`
    /// itself.
    ///
    /// A `StatefulCancellable` is also asked whether it was cancelled elsewhere. Of another one, or
    /// one behind a `CancellableRef`, only what this object has done itself is known. A nil `Ref`
    /// traps.
    template <Cancellable T>
    explicit AnyDisposable(T cancellable) : action_(wrapping(std::move(cancellable))) {}

    /// One that does nothing, but for becoming cancelled.
    [[nodiscard]] static Ref<AnyDisposable> noop() {
        return make<AnyDisposable>([] {});
    }

    /// Does the work, unless it was done before.
    void cancel() noexcept override;

    /// Whether `cancel` was called, or the wrapped `StatefulCancellable` was found cancelled. The
    /// latter is final too: the wrapped one is let go, and its `cancel` is not called any more.
    ///
    /// The wrapped `isCancelled` is called under the lock, so it must not use this object.
    [[nodiscard]] bool isCancelled() const noexcept;

    /// Adds this object to a growable sequence, at its end, each time; or to a set, once.
    template <class Collection>
        requires requires(Collection& all, Ref<AnyDisposable> one) { all.push_back(one); }
    void store(Collection& collection) {
        collection.push_back(Ref<AnyDisposable>(this));
    }
    template <class Set>
        requires requires(Set& all, Ref<AnyDisposable> one) {
            all.insert(one);
            typename Set::key_type;
        }
    void store(Set& set) {
        set.insert(Ref<AnyDisposable>(this));
    }

    friend bool operator==(const AnyDisposable& a, const AnyDisposable& b) noexcept {
        return &a == &b;
    }

private:
    // Without the lock: nobody else is left.
    ~AnyDisposable() override { action_.take().run(); }

    template <class T>
    static auto wrapping(T cancellable) {
        if (detail::CancellableTarget<T>::isNil(cancellable)) [[unlikely]] {
            VNTQ_TRAP("AnyDisposable: nil is no cancellable");
        }
        if constexpr (StatefulCancellable<T>) {
            return detail::WrappedStatefulCancellable<T>{std::move(cancellable)};
        } else {
            return detail::WrappedCancellable<T>{std::move(cancellable)};
        }
    }

    mutable UnfairLock lock_;
    mutable detail::CancellationAction action_;  // guarded by the lock
};

/// An `AnyDisposable` for `cancellable`: the very same object if it is one already, also behind a
/// `Ref<Disposable>` or a `CancellableRef`; else a new one that wraps it.
template <Cancellable T>
[[nodiscard]] Ref<AnyDisposable> disposable(T cancellable) {
    if constexpr (std::same_as<T, Ref<AnyDisposable>>) {
        if (cancellable == nullptr) [[unlikely]] {
            VNTQ_TRAP("AnyDisposable: nil is no cancellable");
        }
        return cancellable;
    } else {
        if constexpr (std::same_as<T, CancellableRef>) {
            if (auto same = cancellable.template as<AnyDisposable>()) {
                return same;
            }
        } else if constexpr (std::same_as<T, Ref<Disposable>>) {
            if (auto* same = dynamic_cast<AnyDisposable*>(cancellable.get())) {
                return same;
            }
        }
        return make<AnyDisposable>(std::move(cancellable));
    }
}

inline void AnyDisposable::cancel() noexcept {
    const Ref<AnyDisposable> self(this);  // the work may let go of the last other owner
    std::unique_lock guard(lock_);
    auto work = action_.take();
    guard.unlock();
    work.run();
}

inline bool AnyDisposable::isCancelled() const noexcept {
    std::unique_lock guard(lock_);
    if (!action_.isCancelledElsewhere()) {
        return action_.isCancelled();
    }
    const Ref<const AnyDisposable> self(this);  // what is let go may own this object
    const auto dropped = action_.take();
    guard.unlock();
    return true;
}

}  // namespace vantorq

template <>
struct std::hash<vantorq::AnyDisposable> {
    std::size_t operator()(const vantorq::AnyDisposable& disposable) const noexcept {
        return std::hash<const vantorq::AnyDisposable*>()(&disposable);
    }
};
