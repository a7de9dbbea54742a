#include "VantorqFoundation/Platform/NSDictionary.h"

#include <new>
#include <vector>

#include <boost/unordered/unordered_flat_map.hpp>

#include "Sources/Platform/Objects/HashTable.h"
#include "Sources/Platform/Objects/TextBuilder.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/Hasher.h"
#include "VantorqFoundation/Platform/NSArray.h"

namespace vantorq {

using objects::StoredKey;
using objects::TextProbe;

struct NSDictionary::Table
    : boost::unordered_flat_map<StoredKey, id, objects::KeyHash, objects::KeyEqual> {};

namespace {

/// What is stored for a key: a copy, where its class makes copies.
id storedKey(const NSObject& key) {
    if (!key.conformsToProtocol(NSCopying)) {
        return id(const_cast<NSObject&>(key));
    }
    id copied = key.copy();
    if (copied == nullptr) {
        VNTQ_TRAP("NSDictionary: a key's copy is nil");
    }
    return copied;
}

}  // namespace

// The table stands in the object, and its type stays in this file.

NSDictionary::NSDictionary() noexcept {
    static_assert(sizeof(Table) <= sizeof storage_ && alignof(Table) <= alignof(void*));
    ::new (static_cast<void*>(storage_)) Table;
}

NSDictionary::~NSDictionary() {
    std::destroy_at(&table());
}

NSDictionary::Table& NSDictionary::table() noexcept {
    return *std::launder(reinterpret_cast<Table*>(storage_));
}

const NSDictionary::Table& NSDictionary::table() const noexcept {
    return *std::launder(reinterpret_cast<const Table*>(storage_));
}

void NSDictionary::store(const NSObject& key, id value) {
    if (value == nullptr) [[unlikely]] {
        VNTQ_TRAP("NSDictionary: nil cannot be a value");
    }
    objects::withProbe(key, [&](const auto& probe) {
        const auto found = table().find(probe);
        if (found != table().end()) {
            found->second.swap(value);
        } else {
            constexpr bool isText = std::same_as<decltype(probe), const TextProbe&>;
            id stored = isText ? key.copyWithZone(nullptr) : storedKey(key);
            table().emplace(StoredKey{std::move(stored), probe.hash, isText}, std::move(value));
        }
    });
    ++mutations_;
}

void NSDictionary::storeAll(std::span<const Entry> entries) {
    table().reserve(table().size() + entries.size());
    for (const auto& [key, value] : entries) {
        if (key == nullptr) {
            VNTQ_TRAP("NSDictionary: nil cannot be a key");
        }
        store(*key, value);
    }
}

// Making dictionaries.

Ref<NSDictionary> NSDictionary::dictionary() {
    static NSDictionary& empty = immortal(Ref<NSDictionary>::adopt(new NSDictionary));
    return empty;
}

Ref<NSDictionary> NSDictionary::dictionary(std::initializer_list<Entry> entries) {
    return dictionary(std::span(entries.begin(), entries.size()));
}

Ref<NSDictionary> NSDictionary::dictionary(std::span<const Entry> entries) {
    if (entries.empty()) {
        return dictionary();
    }
    auto made = make<NSDictionary>();
    made->storeAll(entries);
    return made;
}

Ref<NSDictionary> NSDictionary::dictionaryWithDictionary(const NSDictionary& other) {
    return objectCast<NSDictionary>(other.copy());
}

Ref<NSDictionary> NSDictionary::dictionaryWithObjectForKey(id object, const NSObject& key) {
    auto made = make<NSDictionary>();
    made->store(key, std::move(object));
    return made;
}

Ref<NSDictionary> NSDictionary::dictionaryWithObjectsForKeys(const NSArray& objects,
                                                             const NSArray& keys) {
    if (objects.count() != keys.count()) {
        VNTQ_TRAP("NSDictionary: there must be as many objects as keys");
    }
    auto made = make<NSDictionary>();
    for (NSUInteger index = 0; index < keys.count(); ++index) {
        made->store(*keys[index], objects[index]);
    }
    return made;
}

// Reading.

NSUInteger NSDictionary::count() const noexcept {
    return table().size();
}

NSObject* NSDictionary::peekObjectForKey(const NSString& key) const noexcept {
    const auto found = table().find(TextProbe(key));
    return found != table().end() ? found->second.get() : nullptr;
}

NSObject* NSDictionary::peekObjectForKey(const NSObject& key) const {
    return objects::withProbe(key, [&](const auto& probe) {
        const auto found = table().find(probe);
        return found != table().end() ? found->second.get() : nullptr;
    });
}

Ref<NSArray> NSDictionary::allKeys() const {
    std::vector<id> keys;
    keys.reserve(count());
    enumerate([&](const id& key, const id&) { keys.push_back(key); });
    return NSArray::array(std::move(keys));
}

Ref<NSArray> NSDictionary::allValues() const {
    std::vector<id> values;
    values.reserve(count());
    enumerate([&](const id&, const id& value) { values.push_back(value); });
    return NSArray::array(std::move(values));
}

Ref<NSArray> NSDictionary::allKeysForObject(const NSObject& object) const {
    std::vector<id> keys;
    enumerate([&](const id& key, const id& value) {
        if (object.isEqual(value.get())) {
            keys.push_back(key);
        }
    });
    return NSArray::array(std::move(keys));
}

void NSDictionary::visitEntries(void (*visit)(void*, const id&, const id&), void* context) const {
    const std::uint32_t before = mutations_;
    for (auto at = table().begin(); at != table().end(); ++at) {
        visit(context, at->first.object, at->second);
        if (mutations_ != before) [[unlikely]] {
            VNTQ_TRAP("NSDictionary: the dictionary was changed while it was enumerated");
        }
    }
}

void NSDictionary::enumerateKeysAndObjectsUsingBlock(
    const Block<void(NSObject&, NSObject&)>& visit) const {
    enumerate([&](const id& key, const id& value) { visit(*key, *value); });
}

id NSDictionary::valueForKey(const NSString& key) const {
    return objectForKey(key);
}

// Equality, description, copying.

bool NSDictionary::isEqual(const NSObject* other) const {
    return this == other || isEqualToDictionary(objectCast<NSDictionary>(other));
}

bool NSDictionary::isEqualToDictionary(const NSDictionary* other) const {
    return other != nullptr && count() == other->count() &&
           std::ranges::all_of(table(), [&](const auto& entry) {
               const auto found = other->table().find(entry.first);
               return found != other->table().end() &&
                      vantorq::isEqual(entry.second.get(), found->second.get());
           });
}

/// A sum, because equal dictionaries may have different orders.
NSUInteger NSDictionary::hash() const {
    NSUInteger sum = count();
    for (const auto& [key, value] : table()) {
        Hasher hasher;
        hasher.combine(key.hash);
        hasher.combine(value->hash());
        sum += hasher.finish();
    }
    return sum;
}

Ref<NSString> NSDictionary::description() const {
    objects::TextBuilder text;
    text.appendAscii("{");
    for (const auto& [key, value] : objects::describedEntries(*this)) {
        text.appendAscii("\n    ");
        text.append(*key);
        text.appendAscii(" = ");
        text.appendIndented(*value);
        text.appendAscii(";");
    }
    text.appendAscii("\n}");
    return text.finish();
}

id NSDictionary::copyWithZone(void*) const {
    return const_cast<NSDictionary&>(*this);
}

id NSDictionary::mutableCopyWithZone(void*) const {
    return NSMutableDictionary::dictionaryWithDictionary(*this);
}

// Dictionaries that change. What is taken out goes only after the table is in order again, because
// an object that goes may run code that uses the dictionary.

Ref<NSMutableDictionary> NSMutableDictionary::dictionary() {
    return make<NSMutableDictionary>();
}

Ref<NSMutableDictionary> NSMutableDictionary::dictionary(std::initializer_list<Entry> entries) {
    auto made = make<NSMutableDictionary>();
    made->storeAll(std::span(entries.begin(), entries.size()));
    return made;
}

Ref<NSMutableDictionary> NSMutableDictionary::dictionaryWithDictionary(const NSDictionary& other) {
    auto made = make<NSMutableDictionary>();
    made->table() = other.table();
    return made;
}

Ref<NSMutableDictionary> NSMutableDictionary::dictionaryWithCapacity(NSUInteger capacity) {
    auto made = make<NSMutableDictionary>();
    made->table().reserve(capacity);
    return made;
}

void NSMutableDictionary::setObjectForKey(id object, const NSObject& key) {
    store(key, std::move(object));
}

void NSMutableDictionary::removeObjectForKey(const NSObject& key) {
    objects::withProbe(key, [&](const auto& probe) {
        const auto found = table().find(probe);
        if (found != table().end()) {
            const StoredKey oldKey = found->first;
            const id oldValue = std::move(found->second);
            table().erase(found);
            ++mutations_;
        }
    });
}

void NSMutableDictionary::removeObjectsForKeys(const NSArray& keys) {
    for (const id& key : keys) {
        removeObjectForKey(*key);
    }
}

void NSMutableDictionary::removeAllObjects() {
    Table removed;
    removed.swap(table());
    ++mutations_;
}

void NSMutableDictionary::addEntriesFromDictionary(const NSDictionary& other) {
    if (&other == this) {
        return;
    }
    other.enumerate([&](const id& key, const id& value) { store(*key, value); });
}

void NSMutableDictionary::setDictionary(const NSDictionary& other) {
    Table replaced(other.table());
    replaced.swap(table());
    ++mutations_;
}

void NSMutableDictionary::setValueForKey(const id& value, const NSString& key) {
    if (value == nullptr) {
        removeObjectForKey(key);
    } else {
        setObjectForKey(value, key);
    }
}

id NSMutableDictionary::copyWithZone(void*) const {
    auto made = make<NSDictionary>();
    made->table() = table();
    return made;
}

namespace {

constexpr const Protocol* kProtocols[] = {&NSCopying, &NSMutableCopying};

constexpr PropertyInfo kProperties[] = {
    property<&NSDictionary::count>("count"),
    property<&NSDictionary::allKeys>("allKeys"),
    property<&NSDictionary::allValues>("allValues"),
};

id objectForKey(const NSDictionary& self, const NSObject* key) {
    return key != nullptr ? self.objectForKey(*key) : nullptr;
}

void setObjectForKey(NSMutableDictionary& self, id object, const NSObject* key) {
    if (key == nullptr) {
        VNTQ_TRAP("NSDictionary: nil cannot be a key");
    }
    self.setObjectForKey(std::move(object), *key);
}

constexpr MethodInfo kMethods[] = {
    classMethod<+[] { return NSDictionary::dictionary(); }>("dictionary"),
    classMethod<&NSDictionary::dictionaryWithDictionary>("dictionaryWithDictionary:"),
    classMethod<&NSDictionary::dictionaryWithObjectForKey>("dictionaryWithObject:forKey:"),
    classMethod<&NSDictionary::dictionaryWithObjectsForKeys>("dictionaryWithObjects:forKeys:"),
    method<&objectForKey>("objectForKey:"),
    method<&objectForKey>("objectForKeyedSubscript:"),
    method<&NSDictionary::allKeysForObject>("allKeysForObject:"),
    method<&NSDictionary::enumerateKeysAndObjectsUsingBlock>("enumerateKeysAndObjectsUsingBlock:"),
    method<&NSDictionary::isEqualToDictionary>("isEqualToDictionary:"),
};

constexpr MethodInfo kMutableMethods[] = {
    classMethod<+[] { return NSMutableDictionary::dictionary(); }>("dictionary"),
    classMethod<&NSMutableDictionary::dictionaryWithDictionary>("dictionaryWithDictionary:"),
    classMethod<&NSMutableDictionary::dictionaryWithCapacity>("dictionaryWithCapacity:"),
    method<&setObjectForKey>("setObject:forKey:"),
    method<&setObjectForKey>("setObject:forKeyedSubscript:"),
    method<&NSMutableDictionary::removeObjectForKey>("removeObjectForKey:"),
    method<&NSMutableDictionary::removeObjectsForKeys>("removeObjectsForKeys:"),
    method<&NSMutableDictionary::removeAllObjects>("removeAllObjects"),
    method<&NSMutableDictionary::addEntriesFromDictionary>("addEntriesFromDictionary:"),
    method<&NSMutableDictionary::setDictionary>("setDictionary:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSDictionary,
                  {.protocols = kProtocols, .properties = kProperties, .methods = kMethods})
VNTQ_DEFINE_CLASS(NSMutableDictionary, {.methods = kMutableMethods})

}  // namespace vantorq
