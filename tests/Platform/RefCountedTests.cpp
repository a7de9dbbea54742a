#include "VantorqFoundation/Platform/RefCounted.h"

#include <functional>
#include <thread>
#include <unordered_set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace vantorq {
namespace {

/// Counts its destructions, and does in its destructor what a test asks for.
class Thing : public RefCounted {
public:
    explicit Thing(int& destroyed, std::function<void(Thing&)> atEnd = {})
        : destroyed_(destroyed), atEnd_(std::move(atEnd)) {}

    using RefCounted::attachment;
    using RefCounted::hasAttachment;
    using RefCounted::setAttachmentOnce;

protected:
    ~Thing() override {
        ++destroyed_;
        if (atEnd_) {
            atEnd_(*this);
        }
    }

private:
    int& destroyed_;
    std::function<void(Thing&)> atEnd_;
};

class Special final : public Thing {
public:
    using Thing::Thing;
};

TEST(RefCounted, MakeGivesTheOnlyOwner) {
    int destroyed = 0;
    const auto thing = make<Thing>(destroyed);
    EXPECT_EQ(thing->ownerCount(), 1U);
    EXPECT_EQ(destroyed, 0);
}

TEST(RefCounted, TheLastOwnerDestroysTheObject) {
    int destroyed = 0;
    auto first = make<Thing>(destroyed);
    auto second = first;
    first.reset();
    EXPECT_EQ(destroyed, 0);
    second.reset();
    EXPECT_EQ(destroyed, 1);
}

TEST(RefCounted, ThisBecomesAnOwnerAtAnyTime) {
    int destroyed = 0;
    auto thing = make<Thing>(destroyed);
    Ref<Thing> again(*thing.get());
    EXPECT_EQ(thing->ownerCount(), 2U);
    thing.reset();
    EXPECT_EQ(destroyed, 0);
}

TEST(RefCounted, AnObjectMayOwnItselfWhileItIsDestroyedAndIsDeletedOnce) {
    int destroyed = 0;
    make<Thing>(destroyed, [](Thing& self) {
        const Ref<Thing> owner(&self);
        const Ref<Thing> another = owner;
    }).reset();
    EXPECT_EQ(destroyed, 1);
}

TEST(RefCounted, AnAttachmentIsSetOnceAndGoesWithItsObject) {
    int destroyed = 0;
    int attachmentsDestroyed = 0;
    auto thing = make<Thing>(destroyed);
    EXPECT_FALSE(thing->hasAttachment());
    EXPECT_EQ(thing->attachment(), nullptr);

    RefCounted* const first = thing->setAttachmentOnce(make<Thing>(attachmentsDestroyed).get());
    EXPECT_TRUE(thing->hasAttachment());
    EXPECT_EQ(thing->attachment(), first);
    EXPECT_EQ(thing->setAttachmentOnce(make<Thing>(attachmentsDestroyed).get()), first);
    EXPECT_EQ(attachmentsDestroyed, 1) << "the one that came too late";

    thing.reset();
    EXPECT_EQ(attachmentsDestroyed, 2);
}

TEST(RefCounted, AnObjectWithAWeakHandleHasNoAttachmentYet) {
    int destroyed = 0;
    const auto thing = make<Thing>(destroyed);
    const Weak<Thing> weak(thing);
    EXPECT_EQ(thing->attachment(), nullptr);
}

TEST(Ref, ComparesAndHashesByIdentity) {
    int destroyed = 0;
    const auto a = make<Special>(destroyed);
    const auto b = make<Special>(destroyed);
    const Ref<Thing> sameAsA = a;
    EXPECT_TRUE(a == sameAsA);
    EXPECT_TRUE(a == a.get());
    EXPECT_FALSE(a == b);
    EXPECT_FALSE(a == nullptr);
    EXPECT_TRUE(Ref<Thing>() == nullptr);

    const std::unordered_set<Ref<Thing>> set{a, b, sameAsA};
    EXPECT_EQ(set.size(), 2U);
    EXPECT_TRUE(set.contains(sameAsA));
}

TEST(Ref, MovingLeavesTheSourceEmptyAndTheCountAlone) {
    int destroyed = 0;
    auto special = make<Special>(destroyed);
    const Ref<Thing> thing = std::move(special);
    EXPECT_EQ(special, nullptr);
    EXPECT_EQ(thing->ownerCount(), 1U);
}

TEST(Ref, AssigningToItselfKeepsTheObject) {
    int destroyed = 0;
    auto thing = make<Thing>(destroyed);
    auto& alias = thing;
    thing = alias;
    EXPECT_EQ(thing->ownerCount(), 1U);
    EXPECT_EQ(destroyed, 0);
}

TEST(Ref, LeakAndAdoptHandACountOver) {
    int destroyed = 0;
    auto thing = make<Thing>(destroyed);
    Thing* const leaked = thing.leak();
    EXPECT_EQ(thing, nullptr);
    EXPECT_EQ(destroyed, 0);
    Ref<Thing>::adopt(leaked).reset();
    EXPECT_EQ(destroyed, 1);
}

TEST(Ref, SwapExchangesObjects) {
    int destroyed = 0;
    auto a = make<Thing>(destroyed);
    Ref<Thing> b;
    Thing* const object = a.get();
    a.swap(b);
    EXPECT_EQ(a, nullptr);
    EXPECT_EQ(b, object);
}

TEST(Weak, LoadGivesAnOwnerWhileTheObjectLives) {
    int destroyed = 0;
    auto thing = make<Thing>(destroyed);
    const Weak<Thing> weak(thing);
    {
        const auto loaded = weak.load();
        EXPECT_EQ(loaded, thing);
        EXPECT_EQ(thing->ownerCount(), 2U);
    }
    EXPECT_EQ(thing->ownerCount(), 1U);
}

TEST(Weak, IsEmptyOnceTheObjectIsGone) {
    int destroyed = 0;
    auto thing = make<Thing>(destroyed);
    const Weak<Thing> weak(thing);
    const Weak<Thing> copy = weak;
    thing.reset();
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(weak.load(), nullptr);
    EXPECT_EQ(copy.load(), nullptr);
}

TEST(Weak, OfNothingIsEmpty) {
    EXPECT_EQ(Weak<Thing>().load(), nullptr);
    EXPECT_EQ(Weak<Thing>(nullptr).load(), nullptr);
    EXPECT_EQ(Weak<Thing>(Ref<Thing>()).load(), nullptr);
}

TEST(Weak, IsEmptyFromWithinTheDestructorOn) {
    int destroyed = 0;
    Weak<Thing> weak;
    bool wasEmpty = false;
    auto thing = make<Thing>(destroyed, [&](Thing&) { wasEmpty = weak.load() == nullptr; });
    weak = Weak<Thing>(thing);
    thing.reset();
    EXPECT_TRUE(wasEmpty);
}

TEST(Weak, MadeWithinTheDestructorIsEmpty) {
    int destroyed = 0;
    Weak<Thing> weak;
    make<Thing>(destroyed, [&](Thing& self) { weak = Weak<Thing>(&self); }).reset();
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(weak.load(), nullptr);
}

TEST(Weak, DoesNotConfuseAnObjectWithItsSuccessorAtTheSameAddress) {
    int destroyed = 0;
    for (int round = 0; round < 100; ++round) {
        auto first = make<Thing>(destroyed);
        const Weak<Thing> weak(first);
        first.reset();
        const auto second = make<Thing>(destroyed);
        const Weak<Thing> weakToSecond(second);
        ASSERT_EQ(weak.load(), nullptr);
        ASSERT_EQ(weakToSecond.load(), second);
    }
}

TEST(Weak, ReadsThroughABaseClass) {
    int destroyed = 0;
    const auto special = make<Special>(destroyed);
    const Weak<Thing> weak(special);
    EXPECT_EQ(weak.load(), special);
}

TEST(Weak, MovingLeavesTheSourceEmpty) {
    int destroyed = 0;
    const auto thing = make<Thing>(destroyed);
    Weak<Thing> from(thing);
    const Weak<Thing> to = std::move(from);
    EXPECT_EQ(from.load(), nullptr);
    EXPECT_EQ(to.load(), thing);
}

TEST(Weak, RefersToTheSameObjectEvenAfterItsEnd) {
    int destroyed = 0;
    auto thing = make<Thing>(destroyed);
    const auto other = make<Thing>(destroyed);
    const Weak<Thing> a(thing);
    const Weak<Thing> b(thing);
    const Weak<Thing> c(other);
    EXPECT_TRUE(a.refersToSameObjectAs(b));
    EXPECT_FALSE(a.refersToSameObjectAs(c));
    thing.reset();
    EXPECT_TRUE(a.refersToSameObjectAs(b));
    EXPECT_FALSE(a.refersToSameObjectAs(c));
}

TEST(Weak, AnObjectWithManyWeakHandlesIsDestroyedByItsLastOwnerOnAnotherThread) {
    int destroyed = 0;
    auto thing = make<Thing>(destroyed);
    const std::vector<Weak<Thing>> handles(1000, Weak<Thing>(thing));
    std::thread([owner = std::move(thing)]() mutable { owner.reset(); }).join();
    EXPECT_EQ(destroyed, 1);
    for (const auto& handle : handles) {
        ASSERT_EQ(handle.load(), nullptr);
    }
}

TEST(AtomicRef, IsEmptyAtFirst) {
    const AtomicRef<Thing> atomic;
    EXPECT_EQ(atomic.load(), nullptr);
}

TEST(AtomicRef, KeepsWhatWasStoredUntilItIsReplaced) {
    int destroyed = 0;
    AtomicRef<Thing> atomic;
    atomic.store(make<Thing>(destroyed));
    EXPECT_NE(atomic.load(), nullptr);
    atomic.store(make<Thing>(destroyed));
    EXPECT_EQ(destroyed, 1);
    atomic.store(nullptr);
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(atomic.load(), nullptr);
}

TEST(AtomicRef, ExchangeHandsTheOldObjectOver) {
    int destroyed = 0;
    AtomicRef<Thing> atomic;
    const auto first = make<Thing>(destroyed);
    const auto second = make<Thing>(destroyed);
    EXPECT_EQ(atomic.exchange(first), nullptr);
    EXPECT_EQ(atomic.exchange(second), first);
    EXPECT_EQ(first->ownerCount(), 1U);
    EXPECT_EQ(atomic.exchange(nullptr), second);
    EXPECT_EQ(atomic.exchange(nullptr), nullptr);
}

TEST(AtomicRef, LetsGoOfItsObjectAtItsEnd) {
    int destroyed = 0;
    {
        AtomicRef<Thing> atomic;
        atomic.store(make<Thing>(destroyed));
    }
    EXPECT_EQ(destroyed, 1);
}

}  // namespace
}  // namespace vantorq
