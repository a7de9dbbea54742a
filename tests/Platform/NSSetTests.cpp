#include "VantorqFoundation/Platform/NSSet.h"

#include <gtest/gtest.h>

#include "Support/Print.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/NSArray.h"
#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

using test::description;

TEST(NSSet, HoldsEqualObjectsOnce) {
    const auto first = NSString::string("a");
    const auto set = NSSet::set({first, NSString::string("a"), NSNumber::number(1)});
    EXPECT_EQ(set->count(), 2U);
    EXPECT_TRUE(set->containsObject("a"_ns));
    EXPECT_TRUE(set->containsObject(*NSNumber::number(1.0)));
    EXPECT_FALSE(set->containsObject("b"_ns));
    EXPECT_EQ(set->member("a"_ns), first);
    EXPECT_EQ(set->member("b"_ns), nullptr);
}

TEST(NSSet, GivesItsMembers) {
    EXPECT_EQ(NSSet::set({"a"_ns})->anyObject().get(), &"a"_ns);
    EXPECT_EQ(NSSet::set()->anyObject(), nullptr);
    const auto set = NSSet::setWithArray(*NSArray::array({"a"_ns, "b"_ns, "a"_ns}));
    const auto members = set->allObjects();
    NSUInteger index = 0;
    set->enumerate([&](const id& member) { EXPECT_EQ((*members)[index++], member); });
    EXPECT_EQ(index, 2U);
}

TEST(NSSet, NilTraps) {
    EXPECT_TRAP((void)NSSet::set({id()}), "NSSet: nil cannot be a member");
    EXPECT_TRAP(make<NSMutableSet>()->addObject(nullptr), "NSSet: nil cannot be a member");
}

TEST(NSSet, Comparisons) {
    const auto small = NSSet::set({"a"_ns});
    const auto large = NSSet::set({"a"_ns, "b"_ns});
    const auto other = NSSet::set({"c"_ns});
    EXPECT_TRUE(small->isSubsetOfSet(*large));
    EXPECT_FALSE(large->isSubsetOfSet(*small));
    EXPECT_FALSE(other->isSubsetOfSet(*large));
    EXPECT_TRUE(NSSet::set()->isSubsetOfSet(*small));
    EXPECT_TRUE(large->intersectsSet(*small));
    EXPECT_FALSE(large->intersectsSet(*other));
}

TEST(NSSet, EqualSetsAreEqualAndHashAlike) {
    const auto one = NSSet::set({"a"_ns, "b"_ns});
    const auto two = NSMutableSet::set({"b"_ns, "a"_ns});
    EXPECT_TRUE(one->isEqual(two.get()));
    EXPECT_EQ(one->hash(), two->hash());
    EXPECT_FALSE(one->isEqual(NSSet::set({"a"_ns, "c"_ns}).get()));
    EXPECT_FALSE(one->isEqual(NSSet::set({"a"_ns}).get()));
    EXPECT_FALSE(one->isEqual(nullptr));
}

TEST(NSSet, DerivesSets) {
    const auto set = NSSet::set({"a"_ns});
    EXPECT_EQ(description(set->setByAddingObject("b"_ns)), "{(\n    a,\n    b\n)}");
    EXPECT_EQ(description(set->setByAddingObjectsFromSet(*NSSet::set({"c"_ns, "a"_ns}))),
              "{(\n    a,\n    c\n)}");
    EXPECT_EQ(set->count(), 1U);
}

TEST(NSMutableSet, Changes) {
    const auto set = NSMutableSet::set({"a"_ns});
    set->addObject("b"_ns);
    set->addObjectsFromArray(*NSArray::array({"c"_ns, "b"_ns}));
    set->removeObject("a"_ns);
    set->removeObject("none"_ns);
    EXPECT_EQ(description(set), "{(\n    b,\n    c\n)}");
    set->unionSet(*NSSet::set({"d"_ns, "e"_ns}));
    set->minusSet(*NSSet::set({"b"_ns}));
    set->intersectSet(*NSSet::set({"c"_ns, "d"_ns, "x"_ns}));
    EXPECT_EQ(description(set), "{(\n    c,\n    d\n)}");
    set->unionSet(*set);
    set->intersectSet(*set);
    EXPECT_EQ(set->count(), 2U);
    set->minusSet(*set);
    EXPECT_EQ(set->count(), 0U);
    set->addObject("a"_ns);
    set->removeAllObjects();
    EXPECT_EQ(set->count(), 0U);
}

void addWhileEnumerating() {
    const auto set = NSMutableSet::set({"a"_ns});
    set->enumerate([&](const id&) { set->addObject("b"_ns); });
}

TEST(NSMutableSet, ChangingItWhileItIsEnumeratedTraps) {
    EXPECT_TRAP(addWhileEnumerating(), "the set was changed while it was enumerated");
}

TEST(NSMutableSet, CopiesAreIndependentAndImmutable) {
    const auto set = NSMutableSet::set({"a"_ns});
    const auto copied = objectCast<NSSet>(set->copy());
    const auto mutableCopied = objectCast<NSMutableSet>(set->mutableCopy());
    set->removeAllObjects();
    EXPECT_EQ(copied->count(), 1U);
    EXPECT_EQ(mutableCopied->count(), 1U);
    EXPECT_EQ(copied->copy(), copied);
    EXPECT_FALSE(copied->isKindOfClass(NSMutableSet::classObject()));
}

TEST(NSSet, AnswersMessages) {
    const id made = send<id>(NSMutableSet::classObject(), "set"_sel);
    send<void>(made, "addObject:"_sel, "a");
    EXPECT_TRUE(send<bool>(made, "containsObject:"_sel, "a"));
    EXPECT_FALSE(send<bool>(made, "containsObject:"_sel, nullptr));
    EXPECT_EQ(send<NSUInteger>(made, "count"_sel), 1U);
}

}  // namespace
}  // namespace vantorq
