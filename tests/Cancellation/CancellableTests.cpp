#include "VantorqFoundation/Cancellable.h"

#include <string>
#include <type_traits>
#include <unordered_set>
#include <utility>

#include <gtest/gtest.h>

#include "Support/Cancellables.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/NSOperation.h"

namespace vantorq {
namespace {

using test::CountedCancellable;
using test::CountedValue;
using test::PlainCancellable;

struct NoCancellable {
    void stop() {}
};
struct NotMovable {
    NotMovable() = default;
    NotMovable(NotMovable&&) = delete;
    void cancel() {}
};

TEST(Cancellable, IsAValueWithCancelOrARefToAnObjectWithIt) {
    static_assert(Cancellable<CountedValue>);
    static_assert(Cancellable<Ref<CountedCancellable>>);
    static_assert(Cancellable<Ref<NSOperation>>);
    static_assert(Cancellable<Ref<Disposable>>);
    static_assert(Cancellable<CancellableRef>);
    static_assert(!Cancellable<NoCancellable>);
    static_assert(!Cancellable<NotMovable>);
    static_assert(!Cancellable<CountedCancellable>);  // an object is meant by its Ref
    static_assert(!Cancellable<int>);
    static_assert(!Cancellable<Ref<NSObject>>);
}

TEST(Cancellable, IsStatefulWhenItTellsWhetherItIsCancelled) {
    static_assert(StatefulCancellable<Ref<CountedCancellable>>);
    static_assert(StatefulCancellable<Ref<NSOperation>>);
    static_assert(!StatefulCancellable<Ref<PlainCancellable>>);
    static_assert(!StatefulCancellable<CountedValue>);
    static_assert(!StatefulCancellable<Ref<Disposable>>);
    static_assert(!StatefulCancellable<CancellableRef>);
}

TEST(Cancellable, DisposableIsForSharedObjectsOnly) {
    static_assert(std::is_base_of_v<RefCounted, Disposable>);
    static_assert(std::is_abstract_v<Disposable>);
    static_assert(!std::is_copy_constructible_v<Disposable>);
}

TEST(CancellableRef, CancelsTheObjectThatItRefersTo) {
    const auto object = make<CountedCancellable>();
    const CancellableRef handle = object;
    handle.cancel();
    handle.cancel();
    EXPECT_EQ(object->cancels, 2);
}

TEST(CancellableRef, OwnsTheObjectWithoutABoxAroundIt) {
    auto object = make<CountedCancellable>();
    {
        const CancellableRef handle = object;
        EXPECT_EQ(object->ownerCount(), 2U);
        EXPECT_EQ(handle.as<CountedCancellable>(), object);
    }
    EXPECT_EQ(object->ownerCount(), 1U);
}

TEST(CancellableRef, SharesAValueAmongItsCopies) {
    int cancels = 0;
    int living = 0;
    {
        const CancellableRef handle = CountedValue(cancels, living);
        const CancellableRef copy = handle;
        EXPECT_EQ(living, 1);
        EXPECT_EQ(copy, handle);
        copy.cancel();
        EXPECT_EQ(cancels, 1);
    }
    EXPECT_EQ(living, 0);
}

TEST(CancellableRef, CancelsNothingWhenItIsDestroyed) {
    const auto object = make<CountedCancellable>();
    {
        const CancellableRef handle = object;
    }
    EXPECT_EQ(object->cancels, 0);
}

TEST(CancellableRef, ComparesAndHashesByIdentity) {
    const auto a = make<CountedCancellable>();
    const auto b = make<CountedCancellable>();
    EXPECT_EQ(CancellableRef(a), CancellableRef(a));
    EXPECT_NE(CancellableRef(a), CancellableRef(b));
    EXPECT_EQ(CancellableRef(a), a);
    const std::unordered_set<CancellableRef> all{a, b, a};
    EXPECT_EQ(all.size(), 2U);
    EXPECT_TRUE(all.contains(b));
}

TEST(CancellableRef, GivesTheObjectOnlyAsATypeThatItIs) {
    const CancellableRef handle = make<CountedCancellable>();
    EXPECT_NE(handle.as<CountedCancellable>(), nullptr);
    EXPECT_EQ(handle.as<PlainCancellable>(), nullptr);
}

TEST(CancellableRef, OfNilTraps) {
    EXPECT_TRAP(CancellableRef(Ref<CountedCancellable>()), "CancellableRef: nil is no cancellable");
}

}  // namespace
}  // namespace vantorq
