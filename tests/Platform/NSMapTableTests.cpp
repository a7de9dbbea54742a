#include "VantorqFoundation/Platform/NSMapTable.h"

#include <string>

#include <gtest/gtest.h>

#include "Support/Print.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/NSString.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

using enum NSPointerFunctionsOptions;

id text(const std::string& utf8) {
    return NSString::string(utf8 + ", long enough to be an object of its own");
}

TEST(NSMapTable, FindsValuesByEqualKeys) {
    const auto table = make<NSMapTable>();
    const id value = text("value");
    table->setObjectForKey(value, *text("key"));
    EXPECT_EQ(table->objectForKey(*text("key")), value);
    EXPECT_EQ(table->objectForKey(*text("none")), nullptr);
    EXPECT_EQ(table->count(), 1U);
}

TEST(NSMapTable, FindsValuesByTheSameKeyWhereItIsTold) {
    const auto table = NSMapTable::mapTableWithKeyOptions(objectPointerPersonality, strongMemory);
    const id one = text("key");
    const id two = text("key");
    table->setObjectForKey(NSNumber::number(1), *one);
    table->setObjectForKey(NSNumber::number(2), *two);
    EXPECT_EQ(table->count(), 2U);
    EXPECT_EQ(unbridge<int>(table->objectForKey(*one)), 1);
    EXPECT_EQ(unbridge<int>(table->objectForKey(*two)), 2);
    EXPECT_EQ(table->objectForKey(*text("key")), nullptr);
}

TEST(NSMapTable, ReplacesTheValueAndKeepsTheKey) {
    const auto table = make<NSMapTable>();
    const id key = text("key");
    table->setObjectForKey(text("one"), *key);
    const id value = text("two");
    table->setObjectForKey(value, *text("key"));
    EXPECT_EQ(table->count(), 1U);
    EXPECT_EQ(table->objectForKey(*key), value);
    EXPECT_EQ((*table->allKeys())[0], key);
}

TEST(NSMapTable, DoesNotCopyItsKeys) {
    const auto table = make<NSMapTable>();
    const id key = make<NSMutableString>();
    table->setObjectForKey(text("value"), *key);
    EXPECT_EQ((*table->allKeys())[0], key);
}

TEST(NSMapTable, RemovesEntries) {
    const auto table = make<NSMapTable>();
    table->setObjectForKey(text("1"), *text("a"));
    table->setObjectForKey(text("2"), *text("b"));
    table->removeObjectForKey(*text("a"));
    table->removeObjectForKey(*text("none"));
    EXPECT_EQ(table->count(), 1U);
    EXPECT_TRUE((*table->allValues())[0]->isEqual(text("2").get()));
    table->removeAllObjects();
    EXPECT_EQ(table->count(), 0U);
    EXPECT_EQ(table->allKeys()->count(), 0U);
}

TEST(NSMapTable, GivesKeysAndValuesInTheSameOrder) {
    const auto table = make<NSMapTable>();
    for (int n = 0; n < 50; ++n) {
        table->setObjectForKey(NSNumber::number(n), *text(std::to_string(n)));
    }
    const auto keys = table->allKeys();
    const auto values = table->allValues();
    ASSERT_EQ(keys->count(), 50U);
    for (NSUInteger at = 0; at < 50; ++at) {
        EXPECT_EQ(table->objectForKey(*(*keys)[at]), (*values)[at]);
    }
}

TEST(NSMapTable, NilTraps) {
    EXPECT_TRAP(make<NSMapTable>()->setObjectForKey(nullptr, *text("key")),
                "NSMapTable: nil cannot be a value");
}

// The four ways of holding. In each the outside owner of the key, or of the value, lets go.

struct Kept {
    NSUInteger count;
    bool key;
    bool value;
};

bool operator==(const Kept& a, const Kept& b) {
    return a.count == b.count && a.key == b.key && a.value == b.value;
}
std::ostream& operator<<(std::ostream& out, const Kept& kept) {
    return out << kept.count << " entries, key " << kept.key << ", value " << kept.value;
}

Kept afterTheKeyWasLetGo(const Ref<NSMapTable>& table) {
    id key = text("key");
    const id value = text("value");
    table->setObjectForKey(value, *key);
    const Weak<NSObject> weakKey(key);
    key.reset();
    return {table->count(), weakKey.load() != nullptr, table->objectForKey(*text("key")) == value};
}

Kept afterTheValueWasLetGo(const Ref<NSMapTable>& table) {
    const id key = text("key");
    id value = text("value");
    table->setObjectForKey(value, *key);
    const Weak<NSObject> weakValue(value);
    value.reset();
    return {table->count(), !table->allKeys()->isEqual(make<NSArray>().get()),
            weakValue.load() != nullptr};
}

TEST(NSMapTable, StrongToStrongKeepsBothAlive) {
    EXPECT_EQ(afterTheKeyWasLetGo(NSMapTable::strongToStrongObjectsMapTable()),
              (Kept{1, true, true}));
    EXPECT_EQ(afterTheValueWasLetGo(NSMapTable::strongToStrongObjectsMapTable()),
              (Kept{1, true, true}));
}

TEST(NSMapTable, StrongToWeakLosesTheEntryWithItsValue) {
    EXPECT_EQ(afterTheKeyWasLetGo(NSMapTable::strongToWeakObjectsMapTable()),
              (Kept{1, true, true}));
    EXPECT_EQ(afterTheValueWasLetGo(NSMapTable::strongToWeakObjectsMapTable()),
              (Kept{0, false, false}));
}

TEST(NSMapTable, WeakToStrongLosesTheEntryWithItsKey) {
    EXPECT_EQ(afterTheKeyWasLetGo(NSMapTable::weakToStrongObjectsMapTable()),
              (Kept{0, false, false}));
    EXPECT_EQ(afterTheValueWasLetGo(NSMapTable::weakToStrongObjectsMapTable()),
              (Kept{1, true, true}));
}

TEST(NSMapTable, WeakToWeakLosesTheEntryWithEither) {
    EXPECT_EQ(afterTheKeyWasLetGo(NSMapTable::weakToWeakObjectsMapTable()),
              (Kept{0, false, false}));
    EXPECT_EQ(afterTheValueWasLetGo(NSMapTable::weakToWeakObjectsMapTable()),
              (Kept{0, false, false}));
}

TEST(NSMapTable, AnEntryWhoseValueHasEndedTakesANewOne) {
    const auto table = NSMapTable::strongToWeakObjectsMapTable();
    const id key = text("key");
    table->setObjectForKey(text("gone"), *key);
    EXPECT_EQ(table->objectForKey(*key), nullptr);
    const id value = text("value");
    table->setObjectForKey(value, *key);
    EXPECT_EQ(table->objectForKey(*key), value);
    EXPECT_EQ(table->count(), 1U);
}

TEST(NSMapTable, ValuesOfEndedKeysAreLetGoAsEntriesAreAdded) {
    const auto table = NSMapTable::weakToStrongObjectsMapTable();
    id value = text("value");
    const Weak<NSObject> weakValue(value);
    table->setObjectForKey(value, *text("gone"));
    value.reset();
    for (int n = 0; n < 16; ++n) {
        table->setObjectForKey(text("other"), *text("gone too"));
    }
    EXPECT_EQ(weakValue.load(), nullptr);
}

/// Equal to nothing but itself, and forgets its hash.
class Changing final : public NSObject {
    VNTQ_OBJECT(Changing, NSObject)
public:
    NSUInteger hash() const override { return hashes++; }
    static inline NSUInteger hashes = 0;
};
VNTQ_DEFINE_CLASS(Changing, {})

TEST(NSMapTable, TheHashOfAKeyIsRememberedFromWhenItWentIn) {
    const auto table = make<NSMapTable>();
    const auto key = make<Changing>();
    table->setObjectForKey(text("value"), *key);
    EXPECT_EQ(Changing::hashes, 1U);
    for (int n = 0; n < 100; ++n) {
        table->setObjectForKey(text("value"), *text(std::to_string(n)));  // grows
    }
    EXPECT_EQ(table->count(), 101U);
    EXPECT_EQ(Changing::hashes, 1U);
}

TEST(NSMapTable, AnswersMessages) {
    const id table = send<id>(*Class::named("NSMapTable"), "new"_sel);
    send<void>(table, "setObject:forKey:"_sel, "value", "key");
    EXPECT_TRUE(
        send<id>(table, "objectForKey:"_sel, "key")->isEqual(NSString::string("value").get()));
    EXPECT_EQ(send<id>(table, "objectForKey:"_sel, nullptr), nullptr);
    EXPECT_EQ(send<NSUInteger>(table, "count"_sel), 1U);
    EXPECT_TRUE((*send<Ref<NSArray>>(table, "keyEnumerator"_sel))[0]->isEqual(
        NSString::string("key").get()));
    EXPECT_TRUE((*send<Ref<NSArray>>(table, "objectEnumerator"_sel))[0]->isEqual(
        NSString::string("value").get()));
    send<void>(table, "removeObjectForKey:"_sel, "key");
    EXPECT_EQ(send<NSUInteger>(table, "count"_sel), 0U);
    send<void>(table, "setObject:forKey:"_sel, "value", "key");
    send<void>(table, "removeAllObjects"_sel);
    EXPECT_EQ(send<NSUInteger>(table, "count"_sel), 0U);
}

TEST(NSMapTable, IsMadeByMessage) {
    const Class& cls = *Class::named("NSMapTable");
    const auto keepsKey = [](const id& made) {
        return afterTheKeyWasLetGo(objectCast<NSMapTable>(made)).count == 1;
    };
    const auto keepsValue = [](const id& made) {
        return afterTheValueWasLetGo(objectCast<NSMapTable>(made)).count == 1;
    };
    const auto strongToWeak = [&] { return send<id>(cls, "strongToWeakObjectsMapTable"_sel); };
    EXPECT_TRUE(keepsKey(strongToWeak()));
    EXPECT_FALSE(keepsValue(strongToWeak()));
    const auto weakToStrong = [&] { return send<id>(cls, "weakToStrongObjectsMapTable"_sel); };
    EXPECT_FALSE(keepsKey(weakToStrong()));
    EXPECT_TRUE(keepsValue(weakToStrong()));
    const auto weakToWeak = [&] { return send<id>(cls, "weakToWeakObjectsMapTable"_sel); };
    EXPECT_FALSE(keepsKey(weakToWeak()));
    EXPECT_FALSE(keepsValue(weakToWeak()));
    const auto strongToStrong = [&] { return send<id>(cls, "strongToStrongObjectsMapTable"_sel); };
    EXPECT_TRUE(keepsKey(strongToStrong()));
    EXPECT_TRUE(keepsValue(strongToStrong()));
    EXPECT_FALSE(keepsKey(
        send<id>(cls, "mapTableWithKeyOptions:valueOptions:"_sel, weakMemory, strongMemory)));
}

}  // namespace
}  // namespace vantorq
