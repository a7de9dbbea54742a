#include "VantorqFoundation/Platform/NSMapTable.h"

#include <utility>
#include <vector>

#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/Trap.h"

namespace vantorq {

Ref<NSMapTable> NSMapTable::mapTableWithKeyOptions(Options keyOptions, Options valueOptions) {
    return make<NSMapTable>(keyOptions, valueOptions);
}

Ref<NSMapTable> NSMapTable::strongToStrongObjectsMapTable() {
    return mapTableWithKeyOptions(Options::strongMemory, Options::strongMemory);
}

Ref<NSMapTable> NSMapTable::strongToWeakObjectsMapTable() {
    return mapTableWithKeyOptions(Options::strongMemory, Options::weakMemory);
}

Ref<NSMapTable> NSMapTable::weakToStrongObjectsMapTable() {
    return mapTableWithKeyOptions(Options::weakMemory, Options::strongMemory);
}

Ref<NSMapTable> NSMapTable::weakToWeakObjectsMapTable() {
    return mapTableWithKeyOptions(Options::weakMemory, Options::weakMemory);
}

id NSMapTable::objectForKey(const NSObject& key) const {
    return id(static_cast<NSObject*>(table_.find(key).value.get()));
}

Ref<NSArray> NSMapTable::all(Ref<RefCounted> ReferenceTable::Entry::* half) const {
    std::vector<id> objects;
    for (const auto& entry : table_.entries()) {
        objects.emplace_back(static_cast<NSObject*>((entry.*half).get()));
    }
    return NSArray::array(std::move(objects));
}

Ref<NSArray> NSMapTable::allKeys() const {
    return all(&ReferenceTable::Entry::key);
}

Ref<NSArray> NSMapTable::allValues() const {
    return all(&ReferenceTable::Entry::value);
}

void NSMapTable::setObjectForKey(const id& object, const NSObject& key) {
    if (object == nullptr) [[unlikely]] {
        VNTQ_TRAP("NSMapTable: nil cannot be a value");
    }
    table_.set(const_cast<NSObject&>(key), *object);
}

namespace {

constexpr PropertyInfo kProperties[] = {
    property<&NSMapTable::count>("count"),
};

constexpr MethodInfo kMethods[] = {
    classMethod<&NSMapTable::mapTableWithKeyOptions>("mapTableWithKeyOptions:valueOptions:"),
    classMethod<&NSMapTable::strongToStrongObjectsMapTable>("strongToStrongObjectsMapTable"),
    classMethod<&NSMapTable::strongToWeakObjectsMapTable>("strongToWeakObjectsMapTable"),
    classMethod<&NSMapTable::weakToStrongObjectsMapTable>("weakToStrongObjectsMapTable"),
    classMethod<&NSMapTable::weakToWeakObjectsMapTable>("weakToWeakObjectsMapTable"),
    method<+[](const NSMapTable& self, const NSObject* key) {
        return key != nullptr ? self.objectForKey(*key) : nullptr;
    }>("objectForKey:"),
    method<&NSMapTable::allKeys>("keyEnumerator"),
    method<&NSMapTable::allValues>("objectEnumerator"),
    method<&NSMapTable::setObjectForKey>("setObject:forKey:"),
    method<+[](NSMapTable& self, const NSObject* key) {
        if (key != nullptr) {
            self.removeObjectForKey(*key);
        }
    }>("removeObjectForKey:"),
    method<&NSMapTable::removeAllObjects>("removeAllObjects"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSMapTable, {.properties = kProperties, .methods = kMethods})

}  // namespace vantorq
