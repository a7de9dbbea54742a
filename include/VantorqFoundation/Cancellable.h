#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "Platform/Export.h"
#include "Platform/RefCounted.h"
#include "Platform/Trap.h"

/// The vocabulary for things that can be stopped.
///
///     class Download : public RefCounted {
///     public:
///         void cancel() noexcept;                          // a Ref<Download> is a Cancellable
///         [[nodiscard]] bool isCancelled() const noexcept;  // … and a StatefulCancellable
///     };
///
///     std::vector<CancellableRef> running;  // any of them, side by side
///     running.push_back(make<Download>());
///     running.push_back(task);
///
/// Cancelling is idempotent and silent: stopping what is stopped already does nothing. `cancel` and
/// `isCancelled` may be called from any thread, and must not throw: an exception that leaves them
/// ends the process.
namespace vantorq {

namespace detail {

/// What is called when a cancellable is meant: the object of a `Ref`, else the value itself.
template <class T>
struct CancellableTarget {
    using Type = T;
    template <class V>  // T or const T
    static V& of(V& value) noexcept {
        return value;
    }
    static bool isNil(const T&) noexcept { return false; }
};
template <class Object>
struct CancellableTarget<Ref<Object>> {
    using Type = Object;
    static Object& of(const Ref<Object>& object) noexcept { return *object; }
    static bool isNil(const Ref<Object>& object) noexcept { return object == nullptr; }
};

}  // namespace detail

/// For a type whose `isCancelled` is no promise of a `StatefulCancellable`: specialised as true,
/// for the object type where the cancellable is a `Ref`.
template <class T>
inline constexpr bool kDisableStatefulCancellable = false;

/// A value with `cancel()`, or a `Ref` to an object with it.
template <class T>
concept Cancellable = requires(T& cancellable) {
    detail::CancellableTarget<T>::of(cancellable).cancel();
} && std::move_constructible<T>;

/// A `Cancellable` that also tells, by `isCancelled()`, whether it has been cancelled, by whomever.
template <class T>
concept StatefulCancellable =
    Cancellable<T> && !kDisableStatefulCancellable<typename detail::CancellableTarget<T>::Type> &&
    requires(const T& cancellable) {
        {
            detail::CancellableTarget<T>::of(cancellable).isCancelled()
        } -> std::convertible_to<bool>;
    };

/// An object that cancels itself when its last owner lets go of it. A `Ref` to one is a
/// `Cancellable`. Threads: any.
class VNTQ_EXPORT Disposable : public RefCounted {
public:
    virtual void cancel() noexcept = 0;

protected:
    Disposable() noexcept = default;
    ~Disposable() override = default;
};

/// An owning handle on any `Cancellable`, whatever its type.
///
/// It refers to the same object as the `Ref` it is made from, which costs no allocation; a value is
/// moved into an object of its own, which copies of the handle share. Destroying a handle cancels
/// nothing by itself. Compares and hashes by the identity of the object. Only a handle that was
/// moved from is empty; making one from a nil `Ref` traps.
///
/// Threads: as `Ref`: distinct handles may be used from any thread, one handle by one at a time.
class CancellableRef {
public:
    template <class T>
        requires(!std::same_as<T, CancellableRef>) && Cancellable<T>
    CancellableRef(T cancellable) {
        if (detail::CancellableTarget<T>::isNil(cancellable)) [[unlikely]] {
            VNTQ_TRAP("CancellableRef: nil is no cancellable");
        }
        if constexpr (std::derived_from<typename detail::CancellableTarget<T>::Type, RefCounted>) {
            using Object = typename detail::CancellableTarget<T>::Type;
            object_ = std::move(cancellable);
            cancel_ = [](RefCounted& object) noexcept { static_cast<Object&>(object).cancel(); };
        } else {
            object_ = make<Box<T>>(std::move(cancellable));
            cancel_ = [](RefCounted& object) noexcept {
                T& value = static_cast<Box<T>&>(object).value;
                detail::CancellableTarget<T>::of(value).cancel();
            };
        }
    }

    void cancel() const noexcept { cancel_(*object_); }

    /// The object that the handle refers to, if it is an `Object`; else an empty `Ref`.
    template <class Object>
    [[nodiscard]] Ref<Object> as() const noexcept {
        return Ref<Object>(dynamic_cast<Object*>(object_.get()));
    }

    friend bool operator==(const CancellableRef& a, const CancellableRef& b) noexcept {
        return a.object_ == b.object_;
    }

private:
    friend struct std::hash<CancellableRef>;

    template <class T>
    struct Box final : RefCounted {
        explicit Box(T boxed) : value(std::move(boxed)) {}
        T value;
    };

    Ref<RefCounted> object_;
    void (*cancel_)(RefCounted&) noexcept;
};

}  // namespace vantorq

template <>
struct std::hash<vantorq::CancellableRef> {
    std::size_t operator()(const vantorq::CancellableRef& ref) const noexcept {
        return std::hash<vantorq::Ref<vantorq::RefCounted>>()(ref.object_);
    }
};
