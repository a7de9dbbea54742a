#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "Export.h"
#include "RefCounted.h"
#include "Selector.h"

namespace vantorq {

class Class;
class NSArray;
class NSDictionary;
class NSObject;
class NSString;
struct ClassInfo;
struct KeyValueChange;
struct Protocol;

using NSInteger = std::int64_t;
using NSUInteger = std::uint64_t;
/// An owning reference to any object; empty is nil.
using id = Ref<NSObject>;

/// The index that stands for "not found".
inline constexpr NSUInteger NSNotFound = static_cast<NSUInteger>(INT64_MAX);

/// Which values a change notification carries, and when it is sent. Combine with `|`.
enum class KeyValueObservingOptions : NSUInteger {
    none = 0,
    newValue = 1,  ///< the change carries the value after it
    oldValue = 2,  ///< the change carries the value before it
    initial = 4,   ///< one notification is sent at once, from within `addObserver`
    prior = 8,     ///< a further notification is sent before each change
};
constexpr KeyValueObservingOptions operator|(KeyValueObservingOptions a,
                                             KeyValueObservingOptions b) noexcept {
    return static_cast<KeyValueObservingOptions>(static_cast<NSUInteger>(a) |
                                                 static_cast<NSUInteger>(b));
}
constexpr bool contains(KeyValueObservingOptions set, KeyValueObservingOptions one) noexcept {
    return (static_cast<NSUInteger>(set) & static_cast<NSUInteger>(one)) != 0;
}

/// The root of everything that the untyped side can see.
///
/// A subclass declares itself with `VNTQ_OBJECT(Self, Super)` as its first line and defines its
/// tables once, in a source file (see Class.h). Inheritance from `NSObject` is single and not
/// virtual.
///
/// Threads: identity, class queries and change observers may be used from any thread; everything
/// else is as thread-safe as the subclass says it is.
class VNTQ_EXPORT NSObject : public RefCounted {
public:
    using ObjectSelf = NSObject;
    static const ClassInfo kClass;
    static const Class& classObject();

    constexpr NSObject() noexcept = default;
    constexpr explicit NSObject(Immortal constant) noexcept : RefCounted(constant) {}

    // Class queries.

    /// The object's class: the nearest one, upwards, that declares itself with `VNTQ_OBJECT`.
    [[nodiscard]] virtual const Class& objectClass() const;
    /// Whether the object is an instance of `cls` or of a subclass.
    [[nodiscard]] bool isKindOfClass(const Class& cls) const;
    /// Whether the object is an instance of exactly `cls`.
    [[nodiscard]] bool isMemberOfClass(const Class& cls) const;
    [[nodiscard]] virtual bool respondsToSelector(Selector selector) const;
    [[nodiscard]] bool conformsToProtocol(const Protocol& protocol) const;

    // Equality, hashing, description. The root's are those of identity.

    [[nodiscard]] virtual bool isEqual(const NSObject* other) const;
    /// Equal objects hash alike. Valid within the process only.
    [[nodiscard]] virtual NSUInteger hash() const;
    /// The root gives "<ClassName: 0xADDRESS>".
    [[nodiscard]] virtual Ref<NSString> description() const;
    [[nodiscard]] virtual Ref<NSString> debugDescription() const;

    // Copying. The root traps in the two overridable members: an object is copyable when its class
    // says so by adopting `NSCopying` or `NSMutableCopying`.

    [[nodiscard]] id copy() const { return copyWithZone(nullptr); }
    [[nodiscard]] id mutableCopy() const { return mutableCopyWithZone(nullptr); }
    /// `zone` is ignored.
    [[nodiscard]] virtual id copyWithZone(void* zone) const;
    [[nodiscard]] virtual id mutableCopyWithZone(void* zone) const;

    // Key-value coding. `valueForKey` reads the declared property of that name, else sends the
    // first of `key`, `isKey` that the object answers. `setValueForKey` writes the declared
    // property, else sends `setKey:`. Scalars are boxed as NSNumber and unboxed.

    [[nodiscard]] virtual id valueForKey(const NSString& key) const;
    virtual void setValueForKey(const id& value, const NSString& key);
    /// Traps in the root.
    [[nodiscard]] virtual id valueForUndefinedKey(const NSString& key) const;
    /// Traps in the root.
    virtual void setValueForUndefinedKey(const id& value, const NSString& key);
    /// Called for a nil that is to be stored in a scalar property. Traps in the root.
    virtual void setNilValueForKey(const NSString& key);
    /// Keys joined by dots; a nil on the way gives nil.
    [[nodiscard]] id valueForKeyPath(const NSString& path) const;
    /// A nil on the way ends the call without effect.
    void setValueForKeyPath(const id& value, const NSString& path);
    /// `setValueForKey` for each entry; the null object stands for nil.
    void setValuesForKeysWithDictionary(const NSDictionary& values);
    /// One entry per key; nil is exported as the null object.
    [[nodiscard]] Ref<NSDictionary> dictionaryWithValuesForKeys(const NSArray& keys) const;

    // Change notifications. Observers are held weakly and are called on the thread that makes the
    // change, between the pair of calls below, in the order in which they were added. Values set
    // through key-value coding notify by themselves; a typed setter that wants to be observed, or a
    // computed state, sends the pair itself. Pairs for different keys may overlap.

    /// Adds `observer` for `key` (a key, not a path); the same observer may be added repeatedly,
    /// and is then called repeatedly. `context` is handed back.
    void addObserver(NSObject& observer, const NSString& key,
                     KeyValueObservingOptions options = KeyValueObservingOptions::none,
                     void* context = nullptr);
    /// The same for several keys at once.
    void addObserver(NSObject& observer, const NSArray& keys, KeyValueObservingOptions options,
                     void* context);
    /// Removes the observer's latest registration for `key` (with that `context` in the second
    /// form). Without one, nothing happens. A notification that another thread has begun may still
    /// arrive.
    void removeObserver(const NSObject& observer, const NSString& key);
    void removeObserver(const NSObject& observer, const NSString& key, const void* context);
    /// Removes every registration of the observer that has this context, whatever the key.
    void removeObserver(const NSObject& observer, const void* context);

    virtual void willChangeValueForKey(const NSString& key);
    virtual void didChangeValueForKey(const NSString& key);
    /// What an observer overrides. The root does nothing.
    virtual void observeValueForKeyPath(const NSString& key, NSObject& object,
                                        const KeyValueChange& change, void* context);
    /// Whether anybody observes the object, for setters whose notifications cost something.
    [[nodiscard]] bool hasObservers() const noexcept;

protected:
    constexpr ~NSObject() override {}
};

/// What an observer is told of a change.
struct KeyValueChange {
    id oldValue;           ///< with `oldValue`; the null object stands for nil
    id newValue;           ///< with `newValue`; the null object stands for nil
    bool isPrior = false;  ///< sent before the change
};

/// Equality of two references: both nil, identical, or equal by `isEqual`.
[[nodiscard]] inline bool isEqual(const NSObject* a, const NSObject* b) {
    return a == b || (a != nullptr && b != nullptr && a->isEqual(b));
}

/// The object as a `T`, or nil when it is nil or not an instance of `T`. O(1).
template <class T>
[[nodiscard]] T* objectCast(NSObject* object) {
    static_assert(std::is_same_v<typename T::ObjectSelf, T>, "T does not declare VNTQ_OBJECT");
    return object != nullptr && object->isKindOfClass(T::classObject()) ? static_cast<T*>(object)
                                                                        : nullptr;
}
template <class T>
[[nodiscard]] const T* objectCast(const NSObject* object) {
    return objectCast<T>(const_cast<NSObject*>(object));
}
template <class T, class U>
[[nodiscard]] Ref<T> objectCast(const Ref<U>& object) {
    return objectCast<T>(static_cast<NSObject*>(object.get()));
}

}  // namespace vantorq

/// The first line of a class that derives, singly and not virtually, from `NSObject`.
#define VNTQ_OBJECT(Self, Super)                           \
public:                                                    \
    using ObjectSelf = Self;                               \
    using ObjectSuper = Super;                             \
    static const ::vantorq::ClassInfo kClass;              \
    static const ::vantorq::Class& classObject();          \
    const ::vantorq::Class& objectClass() const override { \
        return classObject();                              \
    }                                                      \
                                                           \
private:
