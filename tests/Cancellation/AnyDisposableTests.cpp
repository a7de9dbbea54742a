#include "VantorqFoundation/AnyDisposable.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Cancellables.h"
#include "Support/Threads.h"
#include "Support/Trap.h"
#include "VantorqFoundation/Platform/Block.h"
#include "VantorqFoundation/Platform/UnfairLock.h"

namespace vantorq {
namespace {

using test::Counted;
using test::CountedCancellable;
using test::CountedValue;
using test::PlainCancellable;

TEST(AnyDisposable, IsADisposableAndAStatefulCancellable) {
    static_assert(std::is_base_of_v<Disposable, AnyDisposable>);
    static_assert(std::is_final_v<AnyDisposable>);
    static_assert(StatefulCancellable<Ref<AnyDisposable>>);
}

TEST(AnyDisposable, RunsItsClosureWhenItIsCancelled) {
    int runs = 0;
    const auto disposable = make<AnyDisposable>([&] { ++runs; });
    EXPECT_FALSE(disposable->isCancelled());
    EXPECT_EQ(runs, 0);
    disposable->cancel();
    EXPECT_TRUE(disposable->isCancelled());
    EXPECT_EQ(runs, 1);
}

TEST(AnyDisposable, RunsItsClosureOnceHoweverOftenItIsCancelled) {
    int runs = 0;
    auto disposable = make<AnyDisposable>([&] { ++runs; });
    disposable->cancel();
    disposable->cancel();
    disposable.reset();
    EXPECT_EQ(runs, 1);
}

TEST(AnyDisposable, RunsItsClosureOnceWhenThreadsCancelAtOnce) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> runs{0};
        const auto disposable = make<AnyDisposable>([&] { ++runs; });
        test::together(2, [&](int) { disposable->cancel(); });
        ASSERT_EQ(runs, 1);
    }
}

TEST(AnyDisposable, RunsItsClosureWhenItsLastOwnerLetsGo) {
    int runs = 0;
    auto disposable = make<AnyDisposable>([&] { ++runs; });
    auto other = disposable;
    disposable.reset();
    EXPECT_EQ(runs, 0);
    other.reset();
    EXPECT_EQ(runs, 1);
}

TEST(AnyDisposable, RunsNothingAtItsEndWhenItWasCancelled) {
    int runs = 0;
    {
        const auto disposable = make<AnyDisposable>([&] { ++runs; });
        disposable->cancel();
        ASSERT_EQ(runs, 1);
    }
    EXPECT_EQ(runs, 1);
}

TEST(AnyDisposable, RunsItsClosureOnTheThreadThatCancels) {
    std::thread::id ran;
    const auto disposable = make<AnyDisposable>([&] { ran = std::this_thread::get_id(); });
    std::thread::id cancelled;
    std::thread([&] {
        cancelled = std::this_thread::get_id();
        disposable->cancel();
    }).join();
    EXPECT_EQ(ran, cancelled);
}

TEST(AnyDisposable, IsCancelledAlreadyWhileItsClosureRuns) {
    std::optional<bool> seen;
    Ref<AnyDisposable> disposable;
    disposable = make<AnyDisposable>([&] { seen = disposable->isCancelled(); });
    disposable->cancel();
    EXPECT_EQ(seen, true);
}

TEST(AnyDisposable, CanBeCancelledByItsOwnClosure) {
    int runs = 0;
    Ref<AnyDisposable> disposable;
    disposable = make<AnyDisposable>([&] {
        ++runs;
        disposable->cancel();
    });
    disposable->cancel();
    EXPECT_EQ(runs, 1);
}

TEST(AnyDisposable, CanBeLetGoByItsOwnClosure) {
    int runs = 0;
    Ref<AnyDisposable> disposable;
    disposable = make<AnyDisposable>([&runs, &disposable, text = std::string(100, 'x')] {
        disposable.reset();
        runs += text.size() == 100 ? 1 : 0;
    });
    disposable->cancel();
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(disposable, nullptr);
}

TEST(AnyDisposable, OwnsItsClosureUntilItHasRun) {
    const auto owned = make<CountedCancellable>();
    std::uint32_t ownersInside = 0;
    const auto disposable =
        make<AnyDisposable>([&ownersInside, owned] { ownersInside = owned->ownerCount(); });
    EXPECT_EQ(owned->ownerCount(), 2U);
    disposable->cancel();
    EXPECT_EQ(ownersInside, 2U);
    EXPECT_EQ(owned->ownerCount(), 1U);
}

TEST(AnyDisposable, TakesClosuresOfEverySize) {
    int runs = 0;
    const auto check = [&]<std::size_t kSize>(std::integral_constant<std::size_t, kSize>) {
        std::array<char, kSize> bytes;
        bytes.fill('x');
        make<AnyDisposable>([&runs, bytes] { runs += bytes.back() == 'x' ? 1 : 0; })->cancel();
    };
    check(std::integral_constant<std::size_t, 1>());
    check(std::integral_constant<std::size_t, 40>());
    check(std::integral_constant<std::size_t, 41>());
    check(std::integral_constant<std::size_t, 500>());
    EXPECT_EQ(runs, 4);
}

TEST(AnyDisposable, TakesClosuresThatCanOnlyBeMoved) {
    int result = 0;
    make<AnyDisposable>([&result, number = std::make_unique<int>(7)] {
        result = *number;
    })->cancel();
    EXPECT_EQ(result, 7);
}

TEST(AnyDisposable, TakesClosuresThatAreStrictlyAligned) {
    struct alignas(64) Wide {
        std::array<char, 64> bytes;
    };
    bool isAligned = false;
    make<AnyDisposable>([&isAligned, wide = Wide()] {
        isAligned = reinterpret_cast<std::uintptr_t>(&wide) % 64 == 0;
    })->cancel();
    EXPECT_TRUE(isAligned);
}

TEST(AnyDisposable, TakesFunctionsAndBlocks) {
    static int runs = 0;
    runs = 0;
    make<AnyDisposable>(+[] { ++runs; })->cancel();
    make<AnyDisposable>(std::function<void()>([] { ++runs; }))->cancel();
    make<AnyDisposable>(Block<void()>([] { ++runs; }))->cancel();
    EXPECT_EQ(runs, 3);
}

TEST(AnyDisposable, NoopIsCancelledOnlyByCancel) {
    const auto disposable = AnyDisposable::noop();
    EXPECT_FALSE(disposable->isCancelled());
    disposable->cancel();
    EXPECT_TRUE(disposable->isCancelled());
}

TEST(AnyDisposable, NoopIsANewOneEachTime) {
    EXPECT_NE(AnyDisposable::noop(), AnyDisposable::noop());
}

TEST(AnyDisposable, CancelsWhatItWrapsOnce) {
    const auto wrapped = make<PlainCancellable>();
    {
        const auto disposable = make<AnyDisposable>(wrapped);
        disposable->cancel();
        disposable->cancel();
        EXPECT_EQ(wrapped->cancels, 1);
    }
    EXPECT_EQ(wrapped->cancels, 1);
}

TEST(AnyDisposable, CancelsWhatItWrapsWhenItIsLetGo) {
    const auto wrapped = make<PlainCancellable>();
    {
        const auto disposable = make<AnyDisposable>(wrapped);
    }
    EXPECT_EQ(wrapped->cancels, 1);
}

TEST(AnyDisposable, OwnsWhatItWrapsUntilItIsCancelled) {
    const auto wrapped = make<PlainCancellable>();
    const auto disposable = make<AnyDisposable>(wrapped);
    EXPECT_EQ(wrapped->ownerCount(), 2U);
    disposable->cancel();
    EXPECT_EQ(wrapped->ownerCount(), 1U);
}

TEST(AnyDisposable, WrapsValues) {
    int cancels = 0;
    int living = 0;
    {
        const auto disposable = make<AnyDisposable>(CountedValue(cancels, living));
        EXPECT_EQ(living, 1);
        disposable->cancel();
        EXPECT_EQ(living, 0);
    }
    EXPECT_EQ(cancels, 1);
}

TEST(AnyDisposable, AroundAPlainCancellableKnowsOnlyItsOwnCancel) {
    const auto wrapped = make<CountedCancellable>();
    const auto disposable = make<AnyDisposable>(CancellableRef(wrapped));
    wrapped->cancel();
    EXPECT_FALSE(disposable->isCancelled());
    disposable->cancel();
    EXPECT_TRUE(disposable->isCancelled());
    EXPECT_EQ(wrapped->cancels, 2);
}

TEST(AnyDisposable, AroundAStatefulCancellableSeesThatItWasCancelledElsewhere) {
    const auto wrapped = make<CountedCancellable>();
    const auto disposable = make<AnyDisposable>(wrapped);
    EXPECT_FALSE(disposable->isCancelled());
    wrapped->cancel();
    EXPECT_TRUE(disposable->isCancelled());
}

/// A value of at least so many bytes, in the state of the object that it owns.
template <std::size_t kSize>
class StatefulValue {
public:
    explicit StatefulValue(Ref<CountedCancellable> object) : object_(std::move(object)) {}
    void cancel() { object_->cancel(); }
    [[nodiscard]] bool isCancelled() const { return object_->isCancelled(); }

private:
    Ref<CountedCancellable> object_;
    std::array<char, kSize> bytes_{};
};

TEST(AnyDisposable, LetsGoOfAStatefulCancellableThatItFindsCancelledAndCancelsItNoMore) {
    const auto check = [](auto wrap) {
        const auto wrapped = make<CountedCancellable>();
        {
            const auto disposable = make<AnyDisposable>(wrap(wrapped));
            EXPECT_FALSE(disposable->isCancelled());
            wrapped->cancel();
            EXPECT_EQ(wrapped->ownerCount(), 2U);
            EXPECT_TRUE(disposable->isCancelled());
            EXPECT_EQ(wrapped->ownerCount(), 1U);
            disposable->cancel();
            EXPECT_TRUE(disposable->isCancelled());
        }
        EXPECT_EQ(wrapped->cancels, 1);
    };
    check([](const auto& object) { return object; });
    check([](const auto& object) { return StatefulValue<1>(object); });
    check([](const auto& object) { return StatefulValue<500>(object); });
}

TEST(AnyDisposable, KeepsAStatefulCancellableThatItFindsRunning) {
    const auto wrapped = make<CountedCancellable>();
    const auto disposable = make<AnyDisposable>(wrapped);
    EXPECT_FALSE(disposable->isCancelled());
    EXPECT_EQ(wrapped->ownerCount(), 2U);
    disposable->cancel();
    EXPECT_EQ(wrapped->cancels, 1);
}

TEST(AnyDisposable, CancelsAStatefulCancellableThatWasCancelledElsewhereWhenNobodyHasAsked) {
    const auto wrapped = make<CountedCancellable>();
    wrapped->cancel();
    {
        const auto disposable = make<AnyDisposable>(wrapped);
    }
    EXPECT_EQ(wrapped->cancels, 2);
}

/// Calls the test back when it is asked.
class Asked : public RefCounted {
public:
    void cancel() { ++cancels; }
    [[nodiscard]] bool isCancelled() const {
        if (onQuestion) {
            onQuestion();
        }
        return false;
    }

    int cancels = 0;
    std::function<void()> onQuestion;
};

TEST(AnyDisposable, AsksTheWrappedOneUnderItsLock) {
    const auto wrapped = make<Asked>();
    const auto disposable = make<AnyDisposable>(wrapped);
    std::optional<test::Attempt> attempt;
    wrapped->onQuestion = [&] { attempt.emplace([&] { disposable->cancel(); }); };
    EXPECT_FALSE(disposable->isCancelled());
    ASSERT_TRUE(attempt.has_value());
    EXPECT_FALSE(attempt->hadSucceeded());
    attempt->join();
    EXPECT_EQ(wrapped->cancels, 1);
}

/// At its end asks something of the test.
class AskingAtItsEnd final : public CountedCancellable {
public:
    explicit AskingAtItsEnd(std::function<void()> atEnd) : atEnd_(std::move(atEnd)) {}

private:
    ~AskingAtItsEnd() override { atEnd_(); }
    std::function<void()> atEnd_;
};

TEST(AnyDisposable, LetsGoOfTheWrappedOneWithoutItsLock) {
    AnyDisposable* disposable = nullptr;
    std::vector<bool> seen;
    auto wrapped = make<AskingAtItsEnd>([&] { seen.push_back(disposable->isCancelled()); });
    const auto owner = make<AnyDisposable>(wrapped);
    disposable = owner.get();
    wrapped->cancel();
    wrapped.reset();
    EXPECT_TRUE(owner->isCancelled());
    EXPECT_EQ(seen, std::vector<bool>{true});
}

TEST(AnyDisposable, AroundAnAnyDisposableIsAnotherOneThatCancelsIt) {
    int runs = 0;
    const auto inner = make<AnyDisposable>([&] { ++runs; });
    {
        const auto outer = make<AnyDisposable>(inner);
        EXPECT_NE(outer, inner);
        EXPECT_FALSE(*outer == *inner);
        outer->cancel();
        EXPECT_TRUE(inner->isCancelled());
        EXPECT_EQ(runs, 1);
    }
    const auto second = make<AnyDisposable>([&] { ++runs; });
    {
        const auto outer = make<AnyDisposable>(second);
    }
    EXPECT_TRUE(second->isCancelled());
    EXPECT_EQ(runs, 2);
}

TEST(AnyDisposable, OfNilTraps) {
    EXPECT_TRAP((void)make<AnyDisposable>(Ref<CountedCancellable>()),
                "AnyDisposable: nil is no cancellable");
}

TEST(AnyDisposable, IsEqualToItselfOnly) {
    const auto a = AnyDisposable::noop();
    const auto b = AnyDisposable::noop();
    EXPECT_TRUE(*a == *a);
    EXPECT_FALSE(*a == *b);
    EXPECT_EQ(std::hash<AnyDisposable>()(*a), std::hash<AnyDisposable>()(*a));
    EXPECT_NE(std::hash<AnyDisposable>()(*a), std::hash<AnyDisposable>()(*b));
}

template <class Sequence>
void expectToKeepBoth() {
    Sequence all;
    const auto disposable = AnyDisposable::noop();
    disposable->store(all);
    disposable->store(all);
    EXPECT_EQ(all.size(), 2U);
    EXPECT_EQ(all.front(), disposable);
    EXPECT_EQ(all.back(), disposable);
    EXPECT_EQ(disposable->ownerCount(), 3U);
}

TEST(AnyDisposable, StoredTwiceInASequenceIsThereTwice) {
    expectToKeepBoth<std::vector<Ref<AnyDisposable>>>();
    expectToKeepBoth<std::deque<Ref<AnyDisposable>>>();
    expectToKeepBoth<std::list<Ref<AnyDisposable>>>();
}

TEST(AnyDisposable, IsStoredAtTheEndOfASequence) {
    std::vector<Ref<AnyDisposable>> all{AnyDisposable::noop()};
    const auto disposable = AnyDisposable::noop();
    disposable->store(all);
    EXPECT_EQ(all[1], disposable);
}

TEST(AnyDisposable, StoredTwiceInASetIsThereOnce) {
    std::unordered_set<Ref<AnyDisposable>> all;
    const auto disposable = AnyDisposable::noop();
    disposable->store(all);
    disposable->store(all);
    EXPECT_EQ(all.size(), 1U);
    EXPECT_TRUE(all.contains(disposable));
}

TEST(AnyDisposable, EndsWithTheCollectionThatItIsStoredIn) {
    int runs = 0;
    {
        std::vector<Ref<AnyDisposable>> all;
        make<AnyDisposable>([&] { ++runs; })->store(all);
        make<AnyDisposable>([&] { ++runs; })->store(all);
        EXPECT_EQ(runs, 0);
    }
    EXPECT_EQ(runs, 2);
}

TEST(AnyDisposable, LeavesNothingBehind) {
    const int before = Counted::living;
    {
        std::vector<Ref<AnyDisposable>> all;
        for (int i = 0; i < 10; ++i) {
            make<AnyDisposable>(make<CountedCancellable>())->store(all);
            make<AnyDisposable>(CancellableRef(make<PlainCancellable>()))->store(all);
            make<AnyDisposable>([held = make<PlainCancellable>()] { held->cancel(); })->store(all);
        }
        EXPECT_EQ(Counted::living, before + 30);
        all[0]->cancel();
        all[1]->cancel();
        all[2]->cancel();
        EXPECT_EQ(Counted::living, before + 27);
    }
    EXPECT_EQ(Counted::living, before);
}

TEST(DisposableFunction, GivesAnAnyDisposableItself) {
    const auto disposable = AnyDisposable::noop();
    EXPECT_EQ(vantorq::disposable(disposable), disposable);
    EXPECT_EQ(vantorq::disposable(Ref<Disposable>(disposable)), disposable);
    EXPECT_EQ(vantorq::disposable(CancellableRef(disposable)), disposable);
}

TEST(DisposableFunction, WrapsAnotherDisposable) {
    class Other final : public Disposable {
    public:
        void cancel() noexcept override { ++cancels; }
        int cancels = 0;
    };
    const auto other = make<Other>();
    disposable(Ref<Disposable>(other))->cancel();
    EXPECT_EQ(other->cancels, 1);
}

TEST(DisposableFunction, WrapsAPlainCancellableWithoutAskingIt) {
    const auto wrapped = make<CountedCancellable>();
    const auto disposable = vantorq::disposable(CancellableRef(wrapped));
    wrapped->cancel();
    EXPECT_FALSE(disposable->isCancelled());
}

TEST(DisposableFunction, WrapsAStatefulCancellableAndAsksIt) {
    const auto wrapped = make<CountedCancellable>();
    const auto disposable = vantorq::disposable(wrapped);
    EXPECT_FALSE(disposable->isCancelled());
    wrapped->cancel();
    EXPECT_TRUE(disposable->isCancelled());
    EXPECT_EQ(wrapped->cancels, 1);
}

TEST(DisposableFunction, WrapsAnewEachTime) {
    const auto wrapped = make<PlainCancellable>();
    EXPECT_NE(disposable(wrapped), disposable(wrapped));
}

}  // namespace
}  // namespace vantorq
