#include "VantorqFoundation/CancellableTracker.h"

#include <cstddef>
#include <functional>
#include <optional>
#include <ostream>
#include <set>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include "Support/Cancellables.h"
#include "Support/Trap.h"

namespace vantorq {
namespace {

using test::Counted;
using test::CountedCancellable;
using test::CountedValue;

using Item = Ref<CountedCancellable>;
using Tracker = CancellableTracker<Item>;
using Table = NSHashTable<CountedCancellable>;

/// Values that are equal when their numbers are, whatever they cancel.
class Numbered {
public:
    Numbered(int number, Item item) : number_(number), item_(std::move(item)) {}
    void cancel() { item_->cancel(); }
    friend bool operator==(const Numbered& a, const Numbered& b) { return a.number_ == b.number_; }
    [[nodiscard]] int number() const { return number_; }

private:
    int number_;
    Item item_;
};

/// Calls the test back when it is cancelled, and when it ends.
class Calling final : public Counted {
public:
    std::function<void()> onCancel = [] {};
    std::function<void()> atEnd = [] {};
    void cancel() { onCancel(); }

private:
    ~Calling() override { atEnd(); }
};

}  // namespace
}  // namespace vantorq

template <>
struct std::hash<vantorq::Numbered> {
    std::size_t operator()(const vantorq::Numbered& value) const noexcept {
        return std::hash<int>()(value.number());
    }
};

namespace vantorq {
namespace {

TEST(CancellableTracker, IsADisposable) {
    static_assert(std::is_base_of_v<Disposable, Tracker>);
    static_assert(std::is_final_v<Tracker>);
    static_assert(Cancellable<Ref<Tracker>>);
    static_assert(!StatefulCancellable<Ref<Tracker>>);
}

TEST(CancellableTracker, CancelsWhatItTracks) {
    const auto a = make<CountedCancellable>();
    const auto b = make<CountedCancellable>();
    const auto tracker = Tracker::set();
    const auto untrackA = tracker->track(a);
    const auto untrackB = tracker->track(b);
    EXPECT_EQ(a->cancels + b->cancels, 0);
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(b->cancels, 1);
}

TEST(CancellableTracker, BeginsWithTheSetThatItIsGiven) {
    const auto a = make<CountedCancellable>();
    const auto b = make<CountedCancellable>();
    const auto tracker = Tracker::set({a, b});
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(b->cancels, 1);
}

TEST(CancellableTracker, DoesNotCancelWhatWasUntracked) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::set();
    const auto untrack = tracker->track(a);
    untrack();
    EXPECT_EQ(a->cancels, 0);
    tracker->cancel();
    EXPECT_EQ(a->cancels, 0);
}

TEST(CancellableTracker, UntracksWhenTheClosureIsDropped) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::set();
    {
        const auto untrack = tracker->track(a);
    }
    EXPECT_EQ(a->ownerCount(), 1U);
    tracker->cancel();
    EXPECT_EQ(a->cancels, 0);
}

TEST(CancellableTracker, UntracksWhenTheLastCopyOfTheClosureIsDropped) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::set();
    std::optional untrack = tracker->track(a);
    std::optional copy = untrack;
    untrack.reset();
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
    untrack = tracker->track(a);
    copy = untrack;
    untrack.reset();
    copy.reset();
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
}

TEST(CancellableTracker, UntracksOnceSoThatAnElementTrackedAgainStays) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::set();
    const auto first = tracker->track(a);
    first();
    const auto second = tracker->track(a);
    first();
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
}

TEST(CancellableTracker, ClosuresThatWereCalledUntrackNothingWhenTheyAreDropped) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::set();
    std::optional first = tracker->track(a);
    (*first)();
    const auto second = tracker->track(a);
    first.reset();
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
}

TEST(CancellableTracker, ClosuresCanBeStoredAsFunctions) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::set();
    std::function<void()> untrack = tracker->track(a);
    untrack();
    tracker->cancel();
    EXPECT_EQ(a->cancels, 0);
}

TEST(CancellableTracker, ClosuresThatWereMovedFromDoNothing) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::set();
    auto untrack = tracker->track(a);
    const auto moved = std::move(untrack);
    untrack();
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
}

TEST(CancellableTracker, ClosuresOutliveTheTracker) {
    const auto a = make<CountedCancellable>();
    auto tracker = Tracker::set();
    {
        const auto untrack = tracker->track(a);
        tracker.reset();
        EXPECT_EQ(a->cancels, 1);
        untrack();
        EXPECT_EQ(a->cancels, 1);
    }
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(a->ownerCount(), 1U);
}

TEST(CancellableTracker, ClosuresDoNotKeepTheTrackerAlive) {
    auto tracker = Tracker::set();
    const auto untrack = tracker->track(make<CountedCancellable>());
    const Weak<Tracker> weak = tracker;
    tracker.reset();
    EXPECT_EQ(weak.load(), nullptr);
}

TEST(CancellableTracker, ClosuresOwnTheElementUntilTheyAreCalled) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::set();
    const auto untrack = tracker->track(a);
    tracker->cancel();
    EXPECT_EQ(a->ownerCount(), 2U);
    untrack();
    EXPECT_EQ(a->ownerCount(), 1U);
}

TEST(CancellableTracker, KeepsAnElementThatIsTrackedTwiceOnce) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::set();
    const auto first = tracker->track(a);
    const auto second = tracker->track(a);
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
}

TEST(CancellableTracker, EitherClosureTakesAnElementOutThatIsTrackedTwice) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::set();
    const auto first = tracker->track(a);
    const auto second = tracker->track(a);
    first();
    tracker->cancel();
    EXPECT_EQ(a->cancels, 0);
    second();
}

TEST(CancellableTracker, KeepsTheFirstOfEqualElements) {
    const auto a = make<CountedCancellable>();
    const auto b = make<CountedCancellable>();
    const auto tracker = CancellableTracker<Numbered>::set();
    const auto first = tracker->track(Numbered(1, a));
    const auto second = tracker->track(Numbered(1, b));
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(b->cancels, 0);
}

TEST(CancellableTracker, UntracksAnEqualElement) {
    const auto a = make<CountedCancellable>();
    const auto b = make<CountedCancellable>();
    const auto tracker = CancellableTracker<Numbered>::set({Numbered(1, a)});
    tracker->track(Numbered(1, b))();
    EXPECT_EQ(a->ownerCount(), 1U);
    tracker->cancel();
    EXPECT_EQ(a->cancels, 0);
}

TEST(CancellableTracker, TracksElementsOfSeveralTypes) {
    const auto a = make<CountedCancellable>();
    const auto b = make<test::PlainCancellable>();
    const auto tracker = CancellableTracker<CancellableRef>::set();
    const auto first = tracker->track(a);
    const auto second = tracker->track(b);
    second();
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(b->cancels, 0);
}

TEST(CancellableTracker, CancelledTwiceCancelsItsContentOnce) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::set({a});
    tracker->cancel();
    EXPECT_EQ(a->ownerCount(), 1U);
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
}

TEST(CancellableTracker, TracksOnAfterItWasCancelled) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::set();
    tracker->cancel();
    const auto untrack = tracker->track(a);
    EXPECT_EQ(a->cancels, 0);
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
}

TEST(CancellableTracker, CancelsItsContentWhenItsLastOwnerLetsGo) {
    const auto a = make<CountedCancellable>();
    const auto b = make<CountedCancellable>();
    {
        const auto tracker = Tracker::set({a});
        const auto untrack = tracker->track(b);
        EXPECT_EQ(a->cancels, 0);
        untrack();
    }
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(b->cancels, 0);
}

TEST(CancellableTracker, CancelsEachOnceWithoutItsLockHoweverItsItemsComeBackToIt) {
    using Callings = CancellableTracker<Ref<Calling>>;
    using CallingTable = NSHashTable<Calling>;
    const auto check = [](Ref<Callings> tracker, bool isLetGo) {
        const auto a = make<Calling>();
        const auto b = make<Calling>();
        const auto untrackA = tracker->track(a);
        const auto untrackB = tracker->track(b);
        int cancelsOfA = 0;
        int cancelsOfB = 0;
        const auto comeBack = [&](int& cancels) {
            ++cancels;
            untrackA();  // these would wait for ever under the lock
            untrackB();
            if (!isLetGo) {
                tracker->cancel();
            }
        };
        a->onCancel = [&] { comeBack(cancelsOfA); };
        b->onCancel = [&] { comeBack(cancelsOfB); };
        if (isLetGo) {
            tracker.reset();
        } else {
            tracker->cancel();
        }
        EXPECT_EQ(cancelsOfA, 1);
        EXPECT_EQ(cancelsOfB, 1);
    };
    for (const bool isLetGo : {false, true}) {
        check(Callings::set(), isLetGo);
        check(Callings::hashTable(make<CallingTable>()), isLetGo);
        check(Callings::hashTable(CallingTable::weakObjectsHashTable()), isLetGo);
    }
}

/// Equal when their numbers are; calls the test back when the last copy ends.
struct NumberedCalling {
    int number;
    Ref<Calling> calling;
    void cancel() const { calling->cancel(); }
    friend bool operator==(const NumberedCalling& a, const NumberedCalling& b) {
        return a.number == b.number;
    }
};

}  // namespace
}  // namespace vantorq

template <>
struct std::hash<vantorq::NumberedCalling> {
    std::size_t operator()(const vantorq::NumberedCalling& value) const noexcept {
        return std::hash<int>()(value.number);
    }
};

namespace vantorq {
namespace {

TEST(CancellableTracker, DestroysWhatLeavesItWithoutItsLock) {
    const auto tracker = CancellableTracker<NumberedCalling>::set();
    int ends = 0;
    const auto calling = [&] {
        auto made = make<Calling>();
        made->atEnd = [&] {
            ++ends;
            tracker->track(NumberedCalling{2, make<Calling>()})();
        };
        return made;
    };
    auto untrack = tracker->track(NumberedCalling{1, calling()});
    tracker->track(NumberedCalling{1, make<Calling>()})();  // takes the equal one out
    untrack();
    EXPECT_EQ(ends, 1);
    untrack = tracker->track(NumberedCalling{1, calling()});
    tracker->cancel();
    untrack();
    EXPECT_EQ(ends, 2);
}

TEST(CancellableTracker, OverAHashTableUsesTheTableItself) {
    const auto a = make<CountedCancellable>();
    const auto b = make<CountedCancellable>();
    const auto table = make<Table>();
    table->addObject(a);
    const auto tracker = Tracker::hashTable(table);
    const auto untrack = tracker->track(b);
    EXPECT_TRUE(table->containsObject(*b));
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(b->cancels, 1);
    EXPECT_EQ(table->count(), 0U);
}

TEST(CancellableTracker, OverAHashTableUntracks) {
    const auto a = make<CountedCancellable>();
    const auto table = make<Table>();
    const auto tracker = Tracker::hashTable(table);
    const auto untrack = tracker->track(a);
    untrack();
    EXPECT_FALSE(table->containsObject(*a));
    {
        const auto dropped = tracker->track(a);
    }
    EXPECT_FALSE(table->containsObject(*a));
    tracker->cancel();
    EXPECT_EQ(a->cancels, 0);
}

TEST(CancellableTracker, OverAHashTableKeepsAnElementThatIsTrackedTwiceOnce) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::hashTable(make<Table>());
    const auto first = tracker->track(a);
    const auto second = tracker->track(a);
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
}

TEST(CancellableTracker, OverAStrongHashTableOwnsItsElements) {
    const auto a = make<CountedCancellable>();
    const auto tracker = Tracker::hashTable(make<Table>());
    const auto untrack = tracker->track(a);
    EXPECT_EQ(a->ownerCount(), 3U);  // the table, and the closure
    tracker->cancel();
    EXPECT_EQ(a->ownerCount(), 2U);
}

TEST(CancellableTracker, OverAWeakHashTableLeavesOutWhatHasEndedElsewhere) {
    const int before = Counted::living;
    const auto table = Table::weakObjectsHashTable();
    const auto a = make<CountedCancellable>();
    auto b = make<CountedCancellable>();
    table->addObject(a);
    table->addObject(b);
    const auto tracker = Tracker::hashTable(table);
    b.reset();
    EXPECT_EQ(Counted::living, before + 1);
    tracker->cancel();
    EXPECT_EQ(a->cancels, 1);
}

TEST(CancellableTracker, OverAWeakHashTableIsKeptFedByItsClosures) {
    auto a = make<CountedCancellable>();
    auto* const object = a.get();
    const auto tracker = Tracker::hashTable(Table::weakObjectsHashTable());
    const auto untrack = tracker->track(a);
    a.reset();  // the closure owns it still
    tracker->cancel();
    EXPECT_EQ(object->cancels, 1);
}

TEST(CancellableTracker, OverAHashTableOfNilTraps) {
    EXPECT_TRAP((void)Tracker::hashTable(Ref<Table>()), "CancellableTracker: nil is no hash table");
}

TEST(CancellableTracker, LeavesNothingBehind) {
    const int before = Counted::living;
    {
        const auto tracker = Tracker::set();
        const auto tableTracker = Tracker::hashTable(make<Table>());
        std::vector<Tracker::Untrack> untracks;
        for (int i = 0; i < 10; ++i) {
            const auto item = make<CountedCancellable>();
            untracks.push_back(tracker->track(item));
            untracks.push_back(tableTracker->track(item));
        }
        EXPECT_EQ(Counted::living, before + 10);
        untracks[0]();
        untracks[1]();
        EXPECT_EQ(Counted::living, before + 9);
    }
    EXPECT_EQ(Counted::living, before);
}

// Random commands against a set of numbers. A command is two small numbers, so that a failing run
// shrinks to few and small ones.

struct Command {
    int kind;
    std::size_t item;
};

std::ostream& operator<<(std::ostream& out, const Command& command) {
    return out << "{" << command.kind << ", " << command.item << "}";
}

void checkAgainstASet(const Ref<Tracker>& tracker) {
    constexpr std::size_t kItems = 5;
    const auto commands = *rc::gen::container<std::vector<Command>>(
        rc::gen::construct<Command>(rc::gen::weightedElement<int>({{6, 0}, {3, 1}, {3, 2}, {1, 3}}),
                                    rc::gen::inRange<std::size_t>(0, kItems)));
    std::vector<Item> items;
    for (std::size_t i = 0; i < kItems; ++i) {
        items.push_back(make<CountedCancellable>());
    }
    struct Tracked {
        std::size_t item;
        bool isCalled;
        Tracker::Untrack untrack;
    };
    std::vector<Tracked> tracked;
    std::set<std::size_t> model;
    std::vector<int> cancels(kItems);

    for (const auto& [kind, item] : commands) {
        const std::size_t choice = tracked.empty() ? 0 : item % tracked.size();
        if (kind == 0) {
            tracked.push_back({item, false, tracker->track(items[item])});
            model.insert(item);
        } else if (kind == 1 && !tracked.empty()) {
            Tracked& called = tracked[choice];
            called.untrack();
            if (!std::exchange(called.isCalled, true)) {
                model.erase(called.item);
            }
        } else if (kind == 2 && !tracked.empty()) {
            if (!tracked[choice].isCalled) {
                model.erase(tracked[choice].item);
            }
            tracked.erase(tracked.begin() + static_cast<std::ptrdiff_t>(choice));
        } else if (kind == 3) {
            tracker->cancel();
            for (const std::size_t one : model) {
                ++cancels[one];
            }
            model.clear();
        }
        for (std::size_t i = 0; i < kItems; ++i) {
            RC_ASSERT(items[i]->cancels == cancels[i]);
        }
    }
    tracker->cancel();
    for (std::size_t i = 0; i < kItems; ++i) {
        RC_ASSERT(items[i]->cancels == cancels[i] + (model.contains(i) ? 1 : 0));
    }
}

RC_GTEST_PROP(CancellableTrackerModel, OverASetIsASet, ()) {
    checkAgainstASet(Tracker::set());
}
RC_GTEST_PROP(CancellableTrackerModel, OverAHashTableIsASet, ()) {
    checkAgainstASet(Tracker::hashTable(make<Table>()));
}
RC_GTEST_PROP(CancellableTrackerModel, OverAWeakHashTableIsASet, ()) {
    checkAgainstASet(Tracker::hashTable(Table::weakObjectsHashTable()));
}

TEST(CancellableTracker, NilIsRefused) {
    EXPECT_TRAP((void)Tracker::set()->track(nullptr), "CancellableTracker: nil cannot be tracked");
    EXPECT_TRAP((void)Tracker::set({Item()}), "CancellableTracker: nil cannot be tracked");
}

}  // namespace
}  // namespace vantorq
