#pragma once

#include <atomic>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

#include "Export.h"
#include "Trap.h"

// glibc's word for "no other thread has been started"; its header is not one of the standard
// library.
#if defined(__GLIBC__)
#if __GLIBC_PREREQ(2, 32)
extern "C" char __libc_single_threaded;
#define VNTQ_SINGLE_THREADED (__libc_single_threaded != 0)
#endif
#endif
#ifndef VNTQ_SINGLE_THREADED
#define VNTQ_SINGLE_THREADED false
#endif

/// Shared ownership for every reference type of the library.
///
/// An object carries its own count, in the one word beside its vtable pointer, so that a `Ref` is a
/// plain pointer, making an object costs one allocation, and `this` can become an owner at any
/// time. `Weak` never keeps an object alive and reads as empty once the object is gone.
///
/// Threads: `retain`, `release`, and distinct `Ref` and `Weak` handles of one object may be used
/// from any thread. One handle that several threads read and write needs a lock, or `AtomicRef`.
///
/// Traps: more than 2^30 owners of one object (found at half as many again).
namespace vantorq {

class RefCounted;

namespace detail {
/// The out-of-line half of an object that has weak handles or an attachment. It outlives the object
/// until the last weak handle is gone.
struct SideRecord;
/// The object's record with a new count for the caller; null while the object is being destroyed.
VNTQ_EXPORT SideRecord* weakSide(const RefCounted* object) noexcept;
VNTQ_EXPORT void retainSide(SideRecord* side) noexcept;
VNTQ_EXPORT void releaseSide(SideRecord* side) noexcept;
/// The object with a new count for the caller, or null when it is gone or going.
VNTQ_EXPORT const RefCounted* lockSide(SideRecord* side) noexcept;

/// The memory of objects. What small objects leave is kept, within bounds, for the next ones, also
/// for those of other threads.
[[nodiscard]] VNTQ_EXPORT void* allocateObject(std::size_t size);
VNTQ_EXPORT void freeObject(void* memory, std::size_t size) noexcept;
/// How often the calling thread was given memory that another object had left. With its calls of
/// `operator new` that makes the number of its allocations.
[[nodiscard]] VNTQ_EXPORT std::uint64_t reuseCount() noexcept;
}  // namespace detail

/// What constructs an object that is never destroyed and whose owners are not counted: a constant.
struct Immortal {};

/// The root of every shared object. Objects live on the heap, are made by `make<T>()` and deleted
/// by their last owner; the destructor runs on that owner's thread.
class VNTQ_EXPORT RefCounted {
public:
    RefCounted(const RefCounted&) = delete;
    RefCounted& operator=(const RefCounted&) = delete;

    void retain() const noexcept {
        std::uint64_t before = bits_.load(std::memory_order_relaxed);
        if (isImmortal(before)) [[unlikely]] {
            return;
        }
        if (VNTQ_SINGLE_THREADED) {
            bits_.store(before + 1, std::memory_order_relaxed);
        } else {
            before = bits_.fetch_add(1, std::memory_order_relaxed);
        }
        if (static_cast<std::uint32_t>(before) >= kCountLimit) [[unlikely]] {
            VNTQ_TRAP("RefCounted: an object has too many owners");
        }
    }

    void release() const noexcept {
        std::uint64_t before = bits_.load(std::memory_order_acquire);
        // The only owner of an object that nobody refers to weakly has no one to race with.
        if (before != 1) {
            if (isImmortal(before)) [[unlikely]] {
                return;
            }
            if (VNTQ_SINGLE_THREADED) {
                bits_.store(before - 1, std::memory_order_relaxed);
            } else {
                before = bits_.fetch_sub(1, std::memory_order_acq_rel);
            }
            if (static_cast<std::uint32_t>(before) != 1) {
                return;
            }
        }
        dispose();
    }

    static void* operator new(std::size_t size) { return detail::allocateObject(size); }
    static void* operator new(std::size_t size, std::align_val_t alignment) {
        return ::operator new(size, alignment);
    }
    static constexpr void operator delete(void* memory, std::size_t size) noexcept {
        if (!std::is_constant_evaluated()) {  // where a constant's destructor names it
            detail::freeObject(memory, size);
        }
    }
    static void operator delete(void* memory, std::size_t, std::align_val_t alignment) noexcept {
        ::operator delete(memory, alignment);
    }

    /// The number of owners, for tests and diagnosis; stale as soon as it is read.
    [[nodiscard]] std::uint32_t ownerCount() const noexcept {
        return static_cast<std::uint32_t>(bits_.load(std::memory_order_relaxed));
    }

    /// Ends the counting of owners: the object is never destroyed. For the objects that a process
    /// shares from all its threads, which would else contend for the count.
    void makeImmortal() const noexcept { bits_.fetch_or(kImmortal, std::memory_order_relaxed); }

protected:
    constexpr RefCounted() noexcept = default;
    constexpr explicit RefCounted(Immortal) noexcept : bits_(kImmortal) {}
    constexpr virtual ~RefCounted() {}  // a body: GCC 12 cannot use a defaulted one in constants

    /// One further object that this one owns out of line, for state that few objects have (the
    /// observers of an `NSObject`). Null until set.
    [[nodiscard]] RefCounted* attachment() const noexcept;
    /// Sets the attachment if there is none yet, and returns the one that is set now.
    RefCounted* setAttachmentOnce(RefCounted* attachment) const noexcept;
    /// Whether an attachment is set: one load, for hot paths.
    [[nodiscard]] bool hasAttachment() const noexcept {
        return (bits_.load(std::memory_order_acquire) & kHasAttachment) != 0;
    }

private:
    friend struct detail::SideRecord;
    friend detail::SideRecord* detail::weakSide(const RefCounted*) noexcept;
    friend const RefCounted* detail::lockSide(detail::SideRecord*) noexcept;

    static constexpr std::uint32_t kCountLimit = 3U << 29;
    /// What the count reads while the destructor runs, so that owners that it makes and drops on
    /// the way do not delete the object again.
    static constexpr std::uint32_t kDeallocating = 1U << 30;
    static constexpr std::uint32_t kImmortal = 1U << 31;
    static constexpr int kSideShift = 32;
    static constexpr std::uint64_t kHasAttachment = std::uint64_t{1} << 63;

    static constexpr std::uint32_t sideIndex(std::uint64_t bits) noexcept {
        return static_cast<std::uint32_t>((bits & ~kHasAttachment) >> kSideShift);
    }
    static constexpr bool isImmortal(std::uint64_t bits) noexcept {
        return (bits & kImmortal) != 0;
    }

    void dispose() const noexcept;
    detail::SideRecord* retainedSide() const noexcept;

    // Low half: owners. High half: whether there is an attachment, and the index of the side record
    // (weak handles, attachment), 0 = none.
    mutable std::atomic<std::uint64_t> bits_{1};
};

/// An owning, nullable, pointer-sized handle. Compares and hashes by identity.
template <class T>
class Ref {
public:
    using element_type = T;

    constexpr Ref() noexcept = default;
    constexpr Ref(std::nullptr_t) noexcept {}
    Ref(T* object) noexcept : object_(object) {
        if (object_ != nullptr) {
            object_->retain();
        }
    }
    Ref(T& object) noexcept : object_(&object) { object_->retain(); }
    Ref(const Ref& other) noexcept : Ref(other.object_) {}
    Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    template <class U>
        requires std::convertible_to<U*, T*>
    Ref(const Ref<U>& other) noexcept : Ref(other.get()) {}
    template <class U>
        requires std::convertible_to<U*, T*>
    Ref(Ref<U>&& other) noexcept : object_(other.leak()) {}
    ~Ref() {
        if (object_ != nullptr) {
            object_->release();
        }
    }

    Ref& operator=(const Ref& other) noexcept {
        Ref(other).swap(*this);
        return *this;
    }
    Ref& operator=(Ref&& other) noexcept {
        Ref(std::move(other)).swap(*this);
        return *this;
    }

    /// Takes over one count that the caller owns.
    [[nodiscard]] static Ref adopt(T* object) noexcept {
        Ref ref;
        ref.object_ = object;
        return ref;
    }
    /// Hands the count over to the caller and leaves the handle empty.
    [[nodiscard]] T* leak() noexcept { return std::exchange(object_, nullptr); }

    [[nodiscard]] T* get() const noexcept { return object_; }
    T* operator->() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }

    void reset() noexcept { Ref().swap(*this); }
    void swap(Ref& other) noexcept { std::swap(object_, other.object_); }

    template <class U>
    friend bool operator==(const Ref& a, const Ref<U>& b) noexcept {
        return a.get() == b.get();
    }
    friend bool operator==(const Ref& a, std::nullptr_t) noexcept { return a.get() == nullptr; }
    template <class U>
    friend bool operator==(const Ref& a, const U* b) noexcept {
        return a.get() == b;
    }

private:
    T* object_ = nullptr;
};

/// Makes an object with one owner: the returned handle.
template <class T, class... Args>
[[nodiscard]] Ref<T> make(Args&&... args) {
    return Ref<T>::adopt(new T(std::forward<Args>(args)...));
}

/// An object that is never destroyed, from one that is about to be shared by the whole process.
template <class T>
[[nodiscard]] T& immortal(Ref<T> object) noexcept {
    object->makeImmortal();
    return *object.leak();
}

/// A handle that does not keep its object alive. `load()` gives an owner, or an empty `Ref` from
/// the moment on when the last owner has let go, even while the destructor still runs.
template <class T>
class Weak {
public:
    constexpr Weak() noexcept = default;
    constexpr Weak(std::nullptr_t) noexcept {}
    Weak(T* object) noexcept
        : side_(object != nullptr ? detail::weakSide(object) : nullptr), object_(object) {}
    Weak(const Ref<T>& object) noexcept : Weak(object.get()) {}
    template <class U>
        requires std::convertible_to<U*, T*>
    Weak(const Ref<U>& object) noexcept : Weak(static_cast<T*>(object.get())) {}
    Weak(const Weak& other) noexcept : side_(other.side_), object_(other.object_) {
        if (side_ != nullptr) {
            detail::retainSide(side_);
        }
    }
    Weak(Weak&& other) noexcept
        : side_(std::exchange(other.side_, nullptr)),
          object_(std::exchange(other.object_, nullptr)) {}
    ~Weak() {
        if (side_ != nullptr) {
            detail::releaseSide(side_);
        }
    }
    Weak& operator=(Weak other) noexcept {
        std::swap(side_, other.side_);
        std::swap(object_, other.object_);
        return *this;
    }

    [[nodiscard]] Ref<T> load() const noexcept {
        if (side_ == nullptr || detail::lockSide(side_) == nullptr) {
            return nullptr;
        }
        return Ref<T>::adopt(object_);
    }

    /// Whether both refer, or referred, to the same object. Stays true after its end.
    [[nodiscard]] bool refersToSameObjectAs(const Weak& other) const noexcept {
        return side_ == other.side_;
    }

private:
    detail::SideRecord* side_ = nullptr;
    T* object_ = nullptr;
};

/// A `Ref` that several threads may read and replace without a lock of their own.
///
/// One bit of the pointer is a spin lock held for the length of a retain, so a reader can never
/// retain an object that a writer has just let go. An empty handle is read with one load.
template <class T>
class AtomicRef {
public:
    constexpr AtomicRef() noexcept = default;
    AtomicRef(const AtomicRef&) = delete;
    AtomicRef& operator=(const AtomicRef&) = delete;
    ~AtomicRef() { (void)Ref<T>::adopt(pointer(bits_.load(std::memory_order_acquire))); }

    [[nodiscard]] Ref<T> load() const noexcept {
        if (bits_.load(std::memory_order_acquire) == 0) {
            return nullptr;
        }
        const std::uintptr_t held = lock();
        Ref<T> value(pointer(held));
        bits_.store(held, std::memory_order_release);
        return value;
    }
    [[nodiscard]] Ref<T> exchange(Ref<T> value) noexcept {
        if (value == nullptr && bits_.load(std::memory_order_acquire) == 0) {
            return nullptr;
        }
        const std::uintptr_t held = lock();
        bits_.store(reinterpret_cast<std::uintptr_t>(value.leak()), std::memory_order_release);
        return Ref<T>::adopt(pointer(held));
    }
    void store(Ref<T> value) noexcept { (void)exchange(std::move(value)); }

private:
    static constexpr std::uintptr_t kLocked = 1;
    static T* pointer(std::uintptr_t bits) noexcept { return reinterpret_cast<T*>(bits); }

    std::uintptr_t lock() const noexcept {
        std::uintptr_t seen = bits_.load(std::memory_order_relaxed) & ~kLocked;
        while (!bits_.compare_exchange_weak(seen, seen | kLocked, std::memory_order_acquire,
                                            std::memory_order_relaxed)) {
            seen &= ~kLocked;
        }
        return seen;
    }

    mutable std::atomic<std::uintptr_t> bits_{0};
};

}  // namespace vantorq

template <class T>
struct std::hash<vantorq::Ref<T>> {
    std::size_t operator()(const vantorq::Ref<T>& ref) const noexcept {
        return std::hash<T*>()(ref.get());
    }
};
