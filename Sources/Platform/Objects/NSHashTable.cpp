#include "VantorqFoundation/Platform/NSHashTable.h"

#include "VantorqFoundation/Platform/Class.h"

namespace vantorq {

namespace {

using Table = NSHashTable<>;

constexpr PropertyInfo kProperties[] = {
    property<+[](const Table& self) { return self.count(); }>("count"),
    property<+[](const Table& self) { return self.allObjects(); }>("allObjects"),
};

constexpr MethodInfo kMethods[] = {
    classMethod<&Table::hashTableWithOptions>("hashTableWithOptions:"),
    classMethod<&Table::weakObjectsHashTable>("weakObjectsHashTable"),
    method<+[](Table& self, const id& object) { self.addObject(object); }>("addObject:"),
    method<+[](Table& self, const NSObject* object) {
        if (object != nullptr) {
            self.removeObject(*object);
        }
    }>("removeObject:"),
    method<+[](const Table& self, const NSObject* object) {
        return object != nullptr && self.containsObject(*object);
    }>("containsObject:"),
    method<+[](const Table& self, const NSObject* object) {
        return object != nullptr ? self.member(*object) : nullptr;
    }>("member:"),
    method<+[](Table& self) { self.removeAllObjects(); }>("removeAllObjects"),
};

}  // namespace

VNTQ_DEFINE_CLASS_NAMED(NSHashTable<NSObject>, "NSHashTable",
                        {.properties = kProperties, .methods = kMethods})

}  // namespace vantorq
