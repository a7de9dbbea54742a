#include "VantorqFoundation/Platform/NSHashTable.h"

#include <cstddef>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include "Support/Print.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/NSArray.h"
#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/NSString.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using enum NSPointerFunctionsOptions;

/// No `NSObject`.
class Listener : public RefCounted {};
void PrintTo(const Ref<Listener>& listener, std::ostream* out) {
    *out << static_cast<const void*>(listener.get());
}

id text(const char* utf8) {
    return NSString::string(std::string(utf8) + ", long enough to be an object of its own");
}

TEST(NSHashTable, OwnsItsObjectsAndTellsThemApartByEquality) {
    const auto table = make<NSHashTable<>>();
    const id first = text("a");
    table->addObject(first);
    table->addObject(text("a"));
    table->addObject(text("b"));
    EXPECT_EQ(table->count(), 2U);
    EXPECT_TRUE(table->containsObject(*text("b")));
    EXPECT_FALSE(table->containsObject(*text("c")));
    EXPECT_EQ(table->member(*text("a")), first);
    EXPECT_EQ(table->member(*text("c")), nullptr);
}

TEST(NSHashTable, TellsObjectsApartByIdentityWhereItIsTold) {
    const auto table = NSHashTable<>::hashTableWithOptions(objectPointerPersonality);
    const id one = text("a");
    const id two = text("a");
    table->addObject(one);
    table->addObject(one);
    table->addObject(two);
    EXPECT_EQ(table->count(), 2U);
    EXPECT_FALSE(table->containsObject(*text("a")));
    EXPECT_EQ(table->member(*two), two);
}

TEST(NSHashTable, RemovesObjects) {
    const auto table = make<NSHashTable<>>();
    table->addObject(text("a"));
    table->addObject(text("b"));
    table->removeObject(*text("a"));
    table->removeObject(*text("none"));
    ASSERT_EQ(table->count(), 1U);
    EXPECT_TRUE(table->allObjects()[0]->isEqual(text("b").get()));
    table->removeAllObjects();
    EXPECT_EQ(table->count(), 0U);
    EXPECT_THAT(table->allObjects(), IsEmpty());
}

TEST(NSHashTable, NilTraps) {
    EXPECT_TRAP(make<NSHashTable<>>()->addObject(nullptr), "NSHashTable: nil cannot be a member");
}

TEST(NSHashTable, KeepsWhatItOwnsAlive) {
    const auto table = make<NSHashTable<Listener>>();
    auto listener = make<Listener>();
    const Weak<Listener> weak(listener);
    table->addObject(listener);
    listener.reset();
    EXPECT_NE(weak.load(), nullptr);
    table->removeAllObjects();
    EXPECT_EQ(weak.load(), nullptr);
}

TEST(NSHashTable, HoldsObjectsThatAreNoNSObjectsByIdentity) {
    const auto table = make<NSHashTable<Listener>>();
    const auto one = make<Listener>();
    const auto two = make<Listener>();
    table->addObject(one);
    table->addObject(two);
    table->addObject(one);
    EXPECT_THAT(table->allObjects(), UnorderedElementsAre(one, two));
    table->removeObject(*one);
    EXPECT_FALSE(table->containsObject(*one));
    EXPECT_THAT(table->allObjects(), ElementsAre(two));
}

TEST(NSHashTable, HoldsObjectsOfOneClass) {
    const auto table = NSHashTable<NSNumber>::weakObjectsHashTable();
    const auto number = NSNumber::number(1.5);
    table->addObject(number);
    EXPECT_EQ(table->member(*NSNumber::number(1.5)), number);
}

TEST(NSHashTable, AWeaklyHeldObjectThatEndsVanishes) {
    const auto table = NSHashTable<Listener>::weakObjectsHashTable();
    auto one = make<Listener>();
    const auto two = make<Listener>();
    table->addObject(one);
    table->addObject(two);
    EXPECT_EQ(table->count(), 2U);
    one.reset();
    EXPECT_EQ(table->count(), 1U);
    EXPECT_THAT(table->allObjects(), ElementsAre(two));
}

TEST(NSHashTable, ASnapshotKeepsItsObjectsAlive) {
    const auto table = NSHashTable<Listener>::weakObjectsHashTable();
    auto one = make<Listener>();
    table->addObject(one);
    const auto snapshot = table->allObjects();
    const Listener* address = one.get();
    one.reset();
    EXPECT_EQ(snapshot.at(0).get(), address);
    EXPECT_EQ(table->count(), 1U);
}

TEST(NSHashTable, AnEqualObjectIsAddedAnewWhenTheOneInTheTableHasEnded) {
    const auto table = NSHashTable<>::weakObjectsHashTable();
    id first = text("a");
    table->addObject(first);
    first.reset();
    const id second = text("a");
    EXPECT_FALSE(table->containsObject(*second));
    table->addObject(second);
    EXPECT_EQ(table->member(*text("a")), second);
    EXPECT_EQ(table->count(), 1U);
}

/// All objects of this type stand, one after the other, at the same address.
class Successor final : public RefCounted {
public:
    static void* operator new(std::size_t) { return memory; }
    static void operator delete(void*, std::size_t) {}

private:
    alignas(std::max_align_t) static inline std::byte memory[sizeof(RefCounted)];
};

TEST(NSHashTable, AnObjectAtTheAddressOfOneThatHasEndedIsAnotherOne) {
    const auto table = NSHashTable<Successor>::weakObjectsHashTable();
    auto first = make<Successor>();
    const void* const address = first.get();
    table->addObject(first);
    first.reset();
    const auto second = make<Successor>();
    ASSERT_EQ(second.get(), address);
    EXPECT_FALSE(table->containsObject(*second));
    table->addObject(second);
    EXPECT_EQ(table->member(*second).get(), second.get());
    EXPECT_EQ(table->allObjects().size(), 1U);
}

TEST(NSHashTable, WhatRemainsOfEndedObjectsDoesNotPileUp) {
    ReferenceTable table(weakMemory | objectPointerPersonality, strongMemory);
    const auto kept = make<Listener>();
    table.add(*kept);
    for (int n = 0; n < 10'000; ++n) {
        table.add(*make<Listener>());
        ASSERT_LE(table.storedCount(), 17U);
    }
    EXPECT_EQ(table.count(), 1U);
}

TEST(NSHashTable, LookingForRemainsGetsRarerAsTheTableGrows) {
    ReferenceTable table(weakMemory | objectPointerPersonality, strongMemory);
    std::vector<Ref<Listener>> living;
    for (int n = 0; n < 1'000; ++n) {
        living.push_back(make<Listener>());
        table.add(*living.back());
    }
    for (int n = 0; n < 10'000; ++n) {
        table.add(*make<Listener>());
        ASSERT_LE(table.storedCount(), 2'100U);
    }
    EXPECT_EQ(table.count(), 1'000U);
}

/// Removes itself from its table when it ends.
class Leaver final : public NSObject {
    VNTQ_OBJECT(Leaver, NSObject)
public:
    explicit Leaver(Ref<NSHashTable<>> table) : table_(std::move(table)) {}
    bool isEqual(const NSObject* other) const override {
        return objectCast<Leaver>(other) != nullptr;
    }
    NSUInteger hash() const override { return 1; }

private:
    ~Leaver() override {
        table_->removeAllObjects();
        table_->addObject(NSNumber::number(1));
    }
    Ref<NSHashTable<>> table_;
};
VNTQ_DEFINE_CLASS(Leaver, {})

TEST(NSHashTable, AnObjectThatGoesMayUseTheTable) {
    for (const auto options : {strongMemory, weakMemory}) {
        const auto table = NSHashTable<>::hashTableWithOptions(options);
        auto leaver = make<Leaver>(table);
        table->addObject(leaver);
        const Leaver& raw = *leaver;
        if (options == strongMemory) {
            leaver.reset();
            table->removeObject(raw);
            EXPECT_EQ(table->count(), 1U);
        } else {
            leaver.reset();
            EXPECT_FALSE(table->containsObject(*text("none")));
        }
        table->removeAllObjects();
    }
}

TEST(NSHashTable, ObjectsMayEndOnOtherThreadsWhileItIsUsed) {
    const auto table = NSHashTable<Listener>::weakObjectsHashTable();
    std::vector<Ref<Listener>> listeners;
    for (int n = 0; n < 2'000; ++n) {
        listeners.push_back(make<Listener>());
        table->addObject(listeners.back());
    }
    std::thread other([&] { listeners.clear(); });
    std::size_t before = 2'000;
    while (before > 0) {
        const std::size_t now = table->allObjects().size();
        ASSERT_LE(now, before);
        before = now;
    }
    other.join();
}

TEST(NSHashTable, AnswersMessages) {
    const id table = send<id>(*Class::named("NSHashTable"), "new"_sel);
    send<void>(table, "addObject:"_sel, "a");
    EXPECT_TRUE(send<bool>(table, "containsObject:"_sel, "a"));
    EXPECT_FALSE(send<bool>(table, "containsObject:"_sel, nullptr));
    EXPECT_TRUE(send<id>(table, "member:"_sel, "a")->isEqual(NSString::string("a").get()));
    EXPECT_EQ(send<NSUInteger>(table, "count"_sel), 1U);
    EXPECT_EQ(send<Ref<NSArray>>(table, "allObjects"_sel)->count(), 1U);
    send<void>(table, "removeObject:"_sel, "a");
    EXPECT_EQ(send<NSUInteger>(table, "count"_sel), 0U);
    send<void>(table, "addObject:"_sel, "b");
    send<void>(table, "removeAllObjects"_sel);
    EXPECT_EQ(send<NSUInteger>(table, "count"_sel), 0U);

    const id weak = send<id>(*Class::named("NSHashTable"), "weakObjectsHashTable"_sel);
    send<void>(weak, "addObject:"_sel, text("a"));
    EXPECT_EQ(send<NSUInteger>(weak, "count"_sel), 0U);
    const id byIdentity = send<id>(*Class::named("NSHashTable"), "hashTableWithOptions:"_sel,
                                   objectPointerPersonality);
    send<void>(byIdentity, "addObject:"_sel, text("a"));
    EXPECT_FALSE(send<bool>(byIdentity, "containsObject:"_sel, text("a")));
}

// Random commands against a list of the living. An object is one of a few equal ones, so that
// tables by equality and by identity differ.

struct Command {
    int kind;
    std::size_t object;
};

std::ostream& operator<<(std::ostream& out, const Command& command) {
    return out << "{" << command.kind << ", " << command.object << "}";
}

void behavesLikeASet(NSPointerFunctionsOptions options, bool isWeak, bool isByIdentity) {
    constexpr std::size_t kObjects = 24;
    const auto commands = *rc::gen::container<std::vector<Command>>(rc::gen::construct<Command>(
        rc::gen::inRange(0, 8), rc::gen::inRange<std::size_t>(0, kObjects)));
    const auto fresh = [](std::size_t n) {
        return id(NSString::string("object number " + std::to_string(n / 2) + " of the model"));
    };
    const auto table = NSHashTable<>::hashTableWithOptions(options);
    std::vector<id> owned;  // the owners beside the table
    for (std::size_t n = 0; n < kObjects; ++n) {
        owned.push_back(fresh(n));
    }
    // What must be in the table: the position for identity, half of it for equality.
    std::map<std::size_t, std::size_t> model;
    const auto keyOf = [&](std::size_t n) { return isByIdentity ? n : n / 2; };
    for (const auto& [kind, n] : commands) {
        if (kind <= 3) {
            table->addObject(owned[n]);
            model.emplace(keyOf(n), n);
        } else if (kind <= 5) {
            table->removeObject(*owned[n]);
            model.erase(keyOf(n));
        } else if (kind == 6) {
            const bool isInTable = model.contains(keyOf(n)) && model[keyOf(n)] == n;
            owned[n].reset();
            if (isInTable && isWeak) {
                model.erase(keyOf(n));
            } else if (isInTable && isByIdentity) {
                RC_ASSERT(table->count() == model.size());  // still there, though out of reach
                table->removeAllObjects();
                model.clear();
            }
            owned[n] = fresh(n);
        } else if (n < 4) {
            table->removeAllObjects();
            model.clear();
        }
        RC_ASSERT(table->count() == model.size());
        RC_ASSERT(table->allObjects().size() == model.size());
        for (std::size_t probe = 0; probe < kObjects; ++probe) {
            RC_ASSERT(table->containsObject(*owned[probe]) == model.contains(keyOf(probe)));
        }
    }
}

RC_GTEST_PROP(NSHashTableModel, ByEqualityAndOwning, ()) {
    behavesLikeASet(strongMemory, false, false);
}
RC_GTEST_PROP(NSHashTableModel, ByIdentityAndOwning, ()) {
    behavesLikeASet(strongMemory | objectPointerPersonality, false, true);
}
RC_GTEST_PROP(NSHashTableModel, ByEqualityAndWeak, ()) {
    behavesLikeASet(weakMemory, true, false);
}
RC_GTEST_PROP(NSHashTableModel, ByIdentityAndWeak, ()) {
    behavesLikeASet(weakMemory | objectPointerPersonality, true, true);
}

}  // namespace
}  // namespace vantorq
