#include "VantorqFoundation/Platform/NSSet.h"

#include <algorithm>
#include <new>
#include <vector>

#include <boost/unordered/unordered_flat_set.hpp>

#include "Sources/Platform/Objects/HashTable.h"
#include "Sources/Platform/Objects/TextBuilder.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/Hasher.h"
#include "VantorqFoundation/Platform/NSArray.h"

namespace vantorq {

using objects::StoredKey;
using objects::TextProbe;

struct NSSet::Table : boost::unordered_flat_set<StoredKey, objects::KeyHash, objects::KeyEqual> {};

// The table stands in the object, and its type stays in this file.

NSSet::NSSet() noexcept {
    static_assert(sizeof(Table) <= sizeof storage_ && alignof(Table) <= alignof(void*));
    ::new (static_cast<void*>(storage_)) Table;
}

NSSet::~NSSet() {
    std::destroy_at(&table());
}

NSSet::Table& NSSet::table() noexcept {
    return *std::launder(reinterpret_cast<Table*>(storage_));
}

const NSSet::Table& NSSet::table() const noexcept {
    return *std::launder(reinterpret_cast<const Table*>(storage_));
}

void NSSet::insert(id object) {
    if (object == nullptr) [[unlikely]] {
        VNTQ_TRAP("NSSet: nil cannot be a member");
    }
    objects::withProbe(*object, [&](const auto& probe) {
        if (!table().contains(probe)) {
            constexpr bool isText = std::same_as<decltype(probe), const TextProbe&>;
            table().insert(StoredKey{object, probe.hash, isText});
            ++mutations_;
        }
    });
}

// Making sets.

Ref<NSSet> NSSet::set() {
    static NSSet& empty = immortal(Ref<NSSet>::adopt(new NSSet));
    return empty;
}

Ref<NSSet> NSSet::set(std::initializer_list<id> members) {
    return set(std::span(members.begin(), members.size()));
}

Ref<NSSet> NSSet::set(std::span<const id> members) {
    if (members.empty()) {
        return set();
    }
    auto made = make<NSSet>();
    made->table().reserve(members.size());
    for (const id& member : members) {
        made->insert(member);
    }
    return made;
}

Ref<NSSet> NSSet::setWithObject(id object) {
    return set({std::move(object)});
}

Ref<NSSet> NSSet::setWithArray(const NSArray& array) {
    return set(array.elements());
}

// Reading.

NSUInteger NSSet::count() const noexcept {
    return table().size();
}

bool NSSet::containsObject(const NSObject& object) const {
    return objects::withProbe(object, [&](const auto& probe) { return table().contains(probe); });
}

id NSSet::member(const NSObject& object) const {
    return objects::withProbe(object, [&](const auto& probe) {
        const auto found = table().find(probe);
        return found != table().end() ? found->object : id();
    });
}

id NSSet::anyObject() const {
    return count() > 0 ? table().begin()->object : nullptr;
}

Ref<NSArray> NSSet::allObjects() const {
    std::vector<id> members;
    members.reserve(count());
    enumerate([&](const id& member) { members.push_back(member); });
    return NSArray::array(std::move(members));
}

void NSSet::visitMembers(void (*visit)(void*, const id&), void* context) const {
    const std::uint32_t before = mutations_;
    for (auto at = table().begin(); at != table().end(); ++at) {
        visit(context, at->object);
        if (mutations_ != before) [[unlikely]] {
            VNTQ_TRAP("NSSet: the set was changed while it was enumerated");
        }
    }
}

void NSSet::enumerateObjectsUsingBlock(const Block<void(NSObject&)>& visit) const {
    enumerate([&](const id& member) { visit(*member); });
}

// Comparing and deriving.

bool NSSet::isSubsetOfSet(const NSSet& other) const {
    return count() <= other.count() && std::ranges::all_of(table(), [&](const StoredKey& key) {
               return other.table().contains(key);
           });
}

bool NSSet::intersectsSet(const NSSet& other) const {
    return std::ranges::any_of(table(),
                               [&](const StoredKey& key) { return other.table().contains(key); });
}

Ref<NSSet> NSSet::setByAddingObject(id object) const {
    auto made = make<NSSet>();
    made->table() = table();
    made->insert(std::move(object));
    return made;
}

Ref<NSSet> NSSet::setByAddingObjectsFromSet(const NSSet& other) const {
    auto made = make<NSSet>();
    made->table() = table();
    made->table().insert(other.table().begin(), other.table().end());
    return made;
}

bool NSSet::isEqual(const NSObject* other) const {
    return this == other || isEqualToSet(objectCast<NSSet>(other));
}

bool NSSet::isEqualToSet(const NSSet* other) const {
    return other != nullptr && count() == other->count() && isSubsetOfSet(*other);
}

/// A sum, because equal sets may have different orders.
NSUInteger NSSet::hash() const {
    NSUInteger sum = count();
    for (const StoredKey& key : table()) {
        Hasher hasher;
        hasher.combine(key.hash);
        sum += hasher.finish();
    }
    return sum;
}

Ref<NSString> NSSet::description() const {
    std::vector<Ref<NSString>> members;
    for (const StoredKey& key : table()) {
        objects::TextBuilder member;
        member.appendIndented(*key.object);
        members.push_back(member.finish());
    }
    std::ranges::sort(members, [](const auto& a, const auto& b) {
        return a->compare(*b) == NSComparisonResult::ascending;
    });
    objects::TextBuilder text;
    text.appendAscii("{(");
    for (std::size_t index = 0; index < members.size(); ++index) {
        text.appendAscii(index == 0 ? "\n    " : ",\n    ");
        text.append(*members[index]);
    }
    text.appendAscii("\n)}");
    return text.finish();
}

id NSSet::copyWithZone(void*) const {
    return const_cast<NSSet&>(*this);
}

id NSSet::mutableCopyWithZone(void*) const {
    auto made = make<NSMutableSet>();
    made->table() = table();
    return made;
}

// Sets that change. What is taken out goes only after the table is in order again, because an
// object that goes may run code that uses the set.

Ref<NSMutableSet> NSMutableSet::set() {
    return make<NSMutableSet>();
}

Ref<NSMutableSet> NSMutableSet::set(std::initializer_list<id> members) {
    auto made = make<NSMutableSet>();
    for (const id& member : members) {
        made->insert(member);
    }
    return made;
}

void NSMutableSet::addObject(id object) {
    insert(std::move(object));
}

void NSMutableSet::addObjectsFromArray(const NSArray& array) {
    for (const id& object : array) {
        insert(object);
    }
}

void NSMutableSet::removeObject(const NSObject& object) {
    objects::withProbe(object, [&](const auto& probe) {
        const auto found = table().find(probe);
        if (found != table().end()) {
            const id removed = found->object;
            table().erase(found);
            ++mutations_;
        }
    });
}

void NSMutableSet::removeAllObjects() {
    Table removed;
    removed.swap(table());
    ++mutations_;
}

void NSMutableSet::unionSet(const NSSet& other) {
    if (&other != this) {
        other.enumerate([&](const id& member) { insert(member); });
    }
}

void NSMutableSet::intersectSet(const NSSet& other) {
    Table kept;
    for (const StoredKey& key : table()) {
        if (other.table().contains(key)) {
            kept.insert(key);
        }
    }
    kept.swap(table());
    ++mutations_;
}

void NSMutableSet::minusSet(const NSSet& other) {
    Table kept;
    for (const StoredKey& key : table()) {
        if (!other.table().contains(key)) {
            kept.insert(key);
        }
    }
    kept.swap(table());
    ++mutations_;
}

id NSMutableSet::copyWithZone(void*) const {
    auto made = make<NSSet>();
    made->table() = table();
    return made;
}

namespace {

constexpr const Protocol* kProtocols[] = {&NSCopying, &NSMutableCopying};

constexpr PropertyInfo kProperties[] = {
    property<&NSSet::count>("count"),
    property<&NSSet::allObjects>("allObjects"),
    property<&NSSet::anyObject>("anyObject"),
};

constexpr MethodInfo kMethods[] = {
    classMethod<+[] { return NSSet::set(); }>("set"),
    classMethod<&NSSet::setWithObject>("setWithObject:"),
    classMethod<&NSSet::setWithArray>("setWithArray:"),
    method<+[](const NSSet& self, const NSObject* object) {
        return object != nullptr && self.containsObject(*object);
    }>("containsObject:"),
    method<+[](const NSSet& self, const NSObject* object) {
        return object != nullptr ? self.member(*object) : nullptr;
    }>("member:"),
    method<&NSSet::enumerateObjectsUsingBlock>("enumerateObjectsUsingBlock:"),
    method<&NSSet::isSubsetOfSet>("isSubsetOfSet:"),
    method<&NSSet::intersectsSet>("intersectsSet:"),
    method<&NSSet::isEqualToSet>("isEqualToSet:"),
    method<&NSSet::setByAddingObject>("setByAddingObject:"),
    method<&NSSet::setByAddingObjectsFromSet>("setByAddingObjectsFromSet:"),
};

constexpr MethodInfo kMutableMethods[] = {
    classMethod<+[] { return NSMutableSet::set(); }>("set"),
    classMethod<+[](id object) { return NSMutableSet::set({std::move(object)}); }>(
        "setWithObject:"),
    classMethod<+[](const NSArray& array) {
        auto made = NSMutableSet::set();
        made->addObjectsFromArray(array);
        return made;
    }>("setWithArray:"),
    method<&NSMutableSet::addObject>("addObject:"),
    method<&NSMutableSet::addObjectsFromArray>("addObjectsFromArray:"),
    method<&NSMutableSet::removeObject>("removeObject:"),
    method<&NSMutableSet::removeAllObjects>("removeAllObjects"),
    method<&NSMutableSet::unionSet>("unionSet:"),
    method<&NSMutableSet::intersectSet>("intersectSet:"),
    method<&NSMutableSet::minusSet>("minusSet:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSSet, {.protocols = kProtocols, .properties = kProperties, .methods = kMethods})
VNTQ_DEFINE_CLASS(NSMutableSet, {.methods = kMutableMethods})

}  // namespace vantorq
