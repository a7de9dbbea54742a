#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <type_traits>
#include <utility>

#include "Block.h"
#include "NSObject.h"
#include "NSString.h"

namespace vantorq {

/// An immutable table of objects by key; keys and values are never nil, keys are unequal to one
/// another, and their order is none.
///
/// A key is copied when it goes in, if its class adopts `NSCopying` (immutable text is its own
/// copy), and must not change what it is equal to while it is there. Lookup is O(1); text keys are
/// found by their stored hash, without a virtual call.
///
///     Ref<NSDictionary> ages = NSDictionary::dictionary({{"Ada"_ns, bridge(36)}});
///     id age = ages->objectForKey("Ada"_ns);
///
/// Threads: an immutable dictionary may be used from any thread; a mutable one from one at a time.
/// Traps: a nil key or value, and walking on in a dictionary that was changed since the walk began.
class VNTQ_EXPORT NSDictionary : public NSObject {
    VNTQ_OBJECT(NSDictionary, NSObject)
public:
    using Entry = std::pair<id, id>;  ///< key, value

    /// The empty dictionary.
    NSDictionary() noexcept;

    // Making dictionaries. O(n). The last of several equal keys stays.

    [[nodiscard]] static Ref<NSDictionary> dictionary();
    [[nodiscard]] static Ref<NSDictionary> dictionary(std::initializer_list<Entry> entries);
    [[nodiscard]] static Ref<NSDictionary> dictionary(std::span<const Entry> entries);
    [[nodiscard]] static Ref<NSDictionary> dictionaryWithDictionary(const NSDictionary& other);
    [[nodiscard]] static Ref<NSDictionary> dictionaryWithObjectForKey(id object,
                                                                      const NSObject& key);
    /// Traps unless there are as many objects as keys.
    [[nodiscard]] static Ref<NSDictionary> dictionaryWithObjectsForKeys(const NSArray& objects,
                                                                        const NSArray& keys);

    // Reading. Nil, or null, when there is no such key.

    [[nodiscard]] NSUInteger count() const noexcept;
    [[nodiscard]] id objectForKey(const NSObject& key) const { return peekObjectForKey(key); }
    [[nodiscard]] id objectForKey(const NSString& key) const { return peekObjectForKey(key); }
    [[nodiscard]] id operator[](const NSObject& key) const { return peekObjectForKey(key); }
    [[nodiscard]] id operator[](const NSString& key) const { return peekObjectForKey(key); }
    /// The value without a count of its own: valid until the dictionary changes or goes.
    [[nodiscard]] NSObject* peekObjectForKey(const NSObject& key) const;
    [[nodiscard]] NSObject* peekObjectForKey(const NSString& key) const noexcept;
    [[nodiscard]] Ref<NSArray> allKeys() const;
    /// In the order of `allKeys`.
    [[nodiscard]] Ref<NSArray> allValues() const;
    /// The keys whose value is equal to `object`. O(n).
    [[nodiscard]] Ref<NSArray> allKeysForObject(const NSObject& object) const;
    /// Calls `visit(key, value)` with two `const id&` for each entry, in the order of `allKeys`.
    template <class Visit>
    void enumerate(Visit&& visit) const;
    void enumerateKeysAndObjectsUsingBlock(
        const Block<void(NSObject& key, NSObject& value)>& visit) const;

    /// `objectForKey`.
    [[nodiscard]] id valueForKey(const NSString& key) const override;

    /// The same keys, with equal values.
    [[nodiscard]] bool isEqual(const NSObject* other) const override;
    [[nodiscard]] bool isEqualToDictionary(const NSDictionary* other) const;
    [[nodiscard]] NSUInteger hash() const override;
    /// One entry a line, in braces, ordered by the descriptions of the keys.
    [[nodiscard]] Ref<NSString> description() const override;
    /// The receiver itself when it is immutable.
    [[nodiscard]] id copyWithZone(void* zone) const override;
    [[nodiscard]] id mutableCopyWithZone(void* zone) const override;

protected:
    ~NSDictionary() override;

private:
    friend class NSMutableDictionary;
    struct Table;

    [[nodiscard]] Table& table() noexcept;
    [[nodiscard]] const Table& table() const noexcept;
    void store(const NSObject& key, id value);
    void storeAll(std::span<const Entry> entries);
    void visitEntries(void (*visit)(void* context, const id& key, const id& value),
                      void* context) const;

    alignas(void*) std::byte storage_[48];  // a Table
    std::uint32_t mutations_ = 0;
};

/// A dictionary that can be changed in place. One thread at a time.
class VNTQ_EXPORT NSMutableDictionary final : public NSDictionary {
    VNTQ_OBJECT(NSMutableDictionary, NSDictionary)
public:
    NSMutableDictionary() noexcept = default;

    [[nodiscard]] static Ref<NSMutableDictionary> dictionary();
    [[nodiscard]] static Ref<NSMutableDictionary> dictionary(std::initializer_list<Entry> entries);
    [[nodiscard]] static Ref<NSMutableDictionary> dictionaryWithDictionary(
        const NSDictionary& other);
    /// Empty, with room for `capacity` entries.
    [[nodiscard]] static Ref<NSMutableDictionary> dictionaryWithCapacity(NSUInteger capacity);

    /// Adds the entry, or replaces its value and keeps the key that is there. O(1), amortised.
    void setObjectForKey(id object, const NSObject& key);
    /// Without such a key, nothing happens.
    void removeObjectForKey(const NSObject& key);
    void removeObjectsForKeys(const NSArray& keys);
    void removeAllObjects();
    void addEntriesFromDictionary(const NSDictionary& other);
    void setDictionary(const NSDictionary& other);

    /// `setObjectForKey`; nil removes the entry.
    void setValueForKey(const id& value, const NSString& key) override;

    /// An immutable dictionary.
    [[nodiscard]] id copyWithZone(void* zone) const override;

private:
    ~NSMutableDictionary() override = default;
};

template <class Visit>
void NSDictionary::enumerate(Visit&& visit) const {
    using Function = std::remove_reference_t<Visit>;
    Function* function = &visit;
    visitEntries([](void* context, const id& key,
                    const id& value) { (**static_cast<Function**>(context))(key, value); },
                 &function);
}

}  // namespace vantorq
