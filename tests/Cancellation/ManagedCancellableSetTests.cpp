#include "VantorqFoundation/ManagedCancellableSet.h"

#include <array>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include "Support/Cancellables.h"
#include "Support/Trap.h"
#include "VantorqFoundation/AnyDisposable.h"

namespace vantorq {
namespace {

using test::Counted;
using test::CountedCancellable;
using test::CountedValue;

/// Owns its set, as a manager does.
struct Manager {
    enum class CancellableKeys { query, thumbnails };

    int query = 0;
    int pages = 0;
    Ref<ManagedCancellableSet<Manager>> running = make<ManagedCancellableSet<Manager>>();
};
using Keys = Manager::CancellableKeys;
using Set = ManagedCancellableSet<Manager>;

constexpr auto kQueryPath = keyPath<&Manager::query>();
constexpr auto kPagesPath = keyPath<&Manager::pages>();

std::optional<CancellableRef> read(Set& set, Keys key) {
    return set[key];
}
std::optional<CancellableRef> read(Set& set, PartialKeyPath<Manager> path) {
    return set[path];
}

/// Notes when it is cancelled among others.
class Noting final : public Counted {
public:
    Noting(std::vector<int>& order, int number) : order_(order), number_(number) {}
    void cancel() { order_.push_back(number_); }

private:
    std::vector<int>& order_;
    const int number_;
};

/// Calls the test back when it is cancelled, and when it ends.
class Calling final : public Counted {
public:
    explicit Calling(
        std::function<void()> onCancel, std::function<void()> atEnd = [] {})
        : onCancel_(std::move(onCancel)), atEnd_(std::move(atEnd)) {}
    void cancel() { onCancel_(); }

private:
    ~Calling() override { atEnd_(); }
    std::function<void()> onCancel_;
    std::function<void()> atEnd_;
};

TEST(CancellableManager, NamesKeysThatCanBeHashed) {
    struct WithText {
        using CancellableKeys = std::string;
    };
    struct WithoutKeys {};
    struct NoKey {
        int value;
    };
    struct WithKeysThatCannotBeHashed {
        using CancellableKeys = NoKey;
    };
    static_assert(CancellableManager<Manager>);
    static_assert(CancellableManager<WithText>);
    static_assert(!CancellableManager<WithoutKeys>);
    static_assert(!CancellableManager<WithKeysThatCannotBeHashed>);
}

TEST(ManagedCancellableSet, IsADisposable) {
    static_assert(std::is_base_of_v<Disposable, Set>);
    static_assert(std::is_final_v<Set>);
    static_assert(Cancellable<Ref<Set>>);
}

TEST(ManagedCancellableSet, IsNoStatefulCancellableSoThatAWrapperDoesNotAskIt) {
    static_assert(!StatefulCancellable<Ref<Set>>);
    const auto set = make<Set>();
    const auto wrapper = disposable(set);
    set->cancel();
    EXPECT_FALSE(wrapper->isCancelled());
}

TEST(ManagedCancellableSet, BeginsOpenAndEmpty) {
    const auto set = make<Set>();
    EXPECT_FALSE(set->isCancelled());
    EXPECT_EQ(read(*set, Keys::query), std::nullopt);
    EXPECT_EQ(read(*set, kQueryPath), std::nullopt);
}

TEST(ManagedCancellableSet, CancelsWhatWasInsertedInTheOrderOfInsertion) {
    std::vector<int> order;
    const auto set = make<Set>();
    for (int i = 0; i < 5; ++i) {
        set->insert(make<Noting>(order, i));
    }
    EXPECT_TRUE(order.empty());
    set->cancel();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(ManagedCancellableSet, CancelsAnonymousOnesBeforeKeyedOnes) {
    std::vector<int> order;
    const auto set = make<Set>();
    (*set)[Keys::query] = make<Noting>(order, 2);
    (*set)[kQueryPath] = make<Noting>(order, 2);
    set->insert(make<Noting>(order, 0));
    set->insert(make<Noting>(order, 1));
    set->cancel();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 2}));
}

TEST(ManagedCancellableSet, KeepsOneThatIsInsertedTwiceTwice) {
    const auto one = make<CountedCancellable>();
    const auto set = make<Set>();
    set->insert(one);
    set->insert(one);
    set->cancel();
    EXPECT_EQ(one->cancels, 2);
}

TEST(ManagedCancellableSet, TakesValuesAndDisposables) {
    int cancels = 0;
    int living = 0;
    const auto set = make<Set>();
    set->insert(CountedValue(cancels, living));
    set->insert(make<AnyDisposable>([&] { ++cancels; }));
    (*set)[Keys::query] = CountedValue(cancels, living);
    set->cancel();
    EXPECT_EQ(cancels, 3);
    EXPECT_EQ(living, 0);
}

TEST(ManagedCancellableSet, GivesWhatIsStoredUnderAKey) {
    const auto a = make<CountedCancellable>();
    const auto b = make<CountedCancellable>();
    const auto set = make<Set>();
    (*set)[Keys::query] = a;
    (*set)[Keys::thumbnails] = b;
    EXPECT_EQ(read(*set, Keys::query), CancellableRef(a));
    EXPECT_EQ(read(*set, Keys::thumbnails), CancellableRef(b));
    EXPECT_EQ(a->cancels + b->cancels, 0);
}

TEST(ManagedCancellableSet, CancelsTheOneThatIsReplaced) {
    const auto a = make<CountedCancellable>();
    const auto b = make<CountedCancellable>();
    const auto set = make<Set>();
    (*set)[Keys::query] = a;
    (*set)[Keys::query] = b;
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(b->cancels, 0);
    EXPECT_EQ(read(*set, Keys::query), CancellableRef(b));
    EXPECT_EQ(a->ownerCount(), 1U);
}

TEST(ManagedCancellableSet, CancelsTheOneThatIsRemovedByWritingNothing) {
    const auto a = make<CountedCancellable>();
    const auto b = make<CountedCancellable>();
    const auto set = make<Set>();
    (*set)[Keys::query] = a;
    (*set)[Keys::query] = std::nullopt;
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(read(*set, Keys::query), std::nullopt);
    (*set)[kQueryPath] = b;
    (*set)[kQueryPath] = std::optional<CancellableRef>();
    EXPECT_EQ(b->cancels, 1);
    EXPECT_EQ(read(*set, kQueryPath), std::nullopt);
    set->cancel();
    EXPECT_EQ(a->cancels + b->cancels, 2);
}

TEST(ManagedCancellableSet, WritingNothingWithoutAnEntryDoesNothing) {
    const auto set = make<Set>();
    (*set)[Keys::query] = std::nullopt;
    EXPECT_EQ(read(*set, Keys::query), std::nullopt);
    EXPECT_FALSE(set->isCancelled());
}

TEST(ManagedCancellableSet, CancelsAndKeepsTheOneThatIsWrittenBackUnderItsOwnKey) {
    const auto a = make<CountedCancellable>();
    const auto set = make<Set>();
    (*set)[Keys::query] = a;
    (*set)[Keys::query] = a;
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(read(*set, Keys::query), CancellableRef(a));
    EXPECT_EQ(a->ownerCount(), 2U);
}

TEST(ManagedCancellableSet, ModifyIsAReadAndAWriteSoItCancelsWhatItLeaves) {
    const auto a = make<CountedCancellable>();
    const auto set = make<Set>();
    (*set)[Keys::query] = a;
    std::optional<CancellableRef> seen;
    set->modify(Keys::query, [&](std::optional<CancellableRef>& entry) { seen = entry; });
    EXPECT_EQ(seen, CancellableRef(a));
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(read(*set, Keys::query), CancellableRef(a));
}

TEST(ManagedCancellableSet, ModifyReplacesAddsAndRemoves) {
    const auto a = make<CountedCancellable>();
    const auto b = make<CountedCancellable>();
    const auto set = make<Set>();
    set->modify(kQueryPath, [&](auto& entry) {
        EXPECT_EQ(entry, std::nullopt);
        entry = CancellableRef(a);
    });
    EXPECT_EQ(read(*set, kQueryPath), CancellableRef(a));
    EXPECT_EQ(a->cancels, 0);
    set->modify(kQueryPath, [&](auto& entry) { entry = CancellableRef(b); });
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(read(*set, kQueryPath), CancellableRef(b));
    set->modify(kQueryPath, [&](auto& entry) { entry.reset(); });
    EXPECT_EQ(b->cancels, 1);
    EXPECT_EQ(read(*set, kQueryPath), std::nullopt);
}

TEST(ManagedCancellableSet, ModifyCallsWithoutTheLock) {
    const auto set = make<Set>();
    set->modify(Keys::query, [&](auto&) { EXPECT_FALSE(set->isCancelled()); });
}

TEST(ManagedCancellableSet, ModifyThatThrowsWritesNothing) {
    const auto a = make<CountedCancellable>();
    const auto set = make<Set>();
    (*set)[Keys::query] = a;
    EXPECT_THROW(set->modify(Keys::query,
                             [](auto& entry) {
                                 entry.reset();
                                 throw std::runtime_error("failed");
                             }),
                 std::runtime_error);
    EXPECT_EQ(a->cancels, 0);
    EXPECT_EQ(read(*set, Keys::query), CancellableRef(a));
}

TEST(ManagedCancellableSet, ModifyOfAClosedSetCancelsWhatItWrites) {
    const auto a = make<CountedCancellable>();
    const auto set = make<Set>();
    set->cancel();
    set->modify(Keys::query, [&](auto& entry) {
        EXPECT_EQ(entry, std::nullopt);
        entry = CancellableRef(a);
    });
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(read(*set, Keys::query), std::nullopt);
}

TEST(ManagedCancellableSet, ExplicitKeysAndKeyPathsNeverReplaceEachOther) {
    const auto set = make<Set>();
    std::array<Ref<CountedCancellable>, 4> all;
    for (auto& one : all) {
        one = make<CountedCancellable>();
    }
    (*set)[Keys::query] = all[0];
    (*set)[Keys::thumbnails] = all[1];
    (*set)[kQueryPath] = all[2];
    (*set)[kPagesPath] = all[3];
    EXPECT_EQ(read(*set, Keys::query), CancellableRef(all[0]));
    EXPECT_EQ(read(*set, Keys::thumbnails), CancellableRef(all[1]));
    EXPECT_EQ(read(*set, kQueryPath), CancellableRef(all[2]));
    EXPECT_EQ(read(*set, kPagesPath), CancellableRef(all[3]));
    for (const auto& one : all) {
        EXPECT_EQ(one->cancels, 0);
    }
    (*set)[kQueryPath] = std::nullopt;
    EXPECT_EQ(all[2]->cancels, 1);
    EXPECT_EQ(read(*set, Keys::query), CancellableRef(all[0]));
}

TEST(ManagedCancellableSet, ReplacingUnderAKeyLeavesAnonymousOnesAlone) {
    const auto a = make<CountedCancellable>();
    const auto set = make<Set>();
    set->insert(a);
    (*set)[Keys::query] = make<CountedCancellable>();
    (*set)[Keys::query] = std::nullopt;
    EXPECT_EQ(a->cancels, 0);
}

/// An open set with a cancellable of either kind.
struct Filled {
    Filled() {
        set->insert(anonymous);
        (*set)[Keys::query] = keyed;
    }
    void expectCancelledOnceAndLetGo() const {
        for (const auto& one : {anonymous, keyed}) {
            EXPECT_EQ(one->cancels, 1);
            EXPECT_EQ(one->ownerCount(), 2U);  // this test, twice
        }
    }

    const Ref<CountedCancellable> anonymous = make<CountedCancellable>();
    const Ref<CountedCancellable> keyed = make<CountedCancellable>();
    Ref<Set> set = make<Set>();
};

TEST(ManagedCancellableSet, CancelClosesItAndLetsGoOfItsContent) {
    const Filled filled;
    filled.set->cancel();
    EXPECT_TRUE(filled.set->isCancelled());
    filled.expectCancelledOnceAndLetGo();
}

TEST(ManagedCancellableSet, CancelledTwiceCancelsItsContentOnce) {
    const Filled filled;
    filled.set->cancel();
    filled.set->cancel();
    filled.expectCancelledOnceAndLetGo();
}

TEST(ManagedCancellableSet, CancelsItsContentWhenItsLastOwnerLetsGo) {
    Filled filled;
    filled.set.reset();
    filled.expectCancelledOnceAndLetGo();
}

TEST(ManagedCancellableSet, CancelsWhatIsInsertedWhenItIsClosedAndDoesNotKeepIt) {
    const auto a = make<CountedCancellable>();
    const auto set = make<Set>();
    set->cancel();
    set->insert(a);
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(a->ownerCount(), 1U);
    EXPECT_TRUE(set->isCancelled());
}

TEST(ManagedCancellableSet, ClosedReadsNothingAndCancelsWhatIsWritten) {
    const auto a = make<CountedCancellable>();
    const auto b = make<CountedCancellable>();
    const auto set = make<Set>();
    (*set)[Keys::query] = make<CountedCancellable>();
    (*set)[kQueryPath] = make<CountedCancellable>();
    set->cancel();
    EXPECT_EQ(read(*set, Keys::query), std::nullopt);
    EXPECT_EQ(read(*set, kQueryPath), std::nullopt);
    (*set)[Keys::query] = a;
    (*set)[kQueryPath] = b;
    EXPECT_EQ(a->cancels, 1);
    EXPECT_EQ(b->cancels, 1);
    EXPECT_EQ(read(*set, Keys::query), std::nullopt);
    EXPECT_EQ(read(*set, kQueryPath), std::nullopt);
    (*set)[Keys::query] = std::nullopt;
    EXPECT_TRUE(set->isCancelled());
}

TEST(ManagedCancellableSet, EndsWithItsManager) {
    const auto a = make<CountedCancellable>();
    {
        const Manager manager;
        (*manager.running)[kPagesPath] = a;
        EXPECT_EQ(a->cancels, 0);
    }
    EXPECT_EQ(a->cancels, 1);
}

TEST(ManagedCancellableSet, CancelsItsContentUnderItsLock) {
    const auto expectCancelsUnderTheLock = [](auto place) {
        const auto set = make<Set>();
        std::optional<test::Attempt> attempt;
        place(*set, make<Calling>([&] { attempt.emplace([&] { (void)set->isCancelled(); }); }));
        set->cancel();
        ASSERT_TRUE(attempt.has_value());
        EXPECT_FALSE(attempt->hadSucceeded());
    };
    expectCancelsUnderTheLock([](Set& set, auto calling) { set.insert(calling); });
    expectCancelsUnderTheLock([](Set& set, auto calling) { set[Keys::query] = calling; });
    expectCancelsUnderTheLock([](Set& set, auto calling) { set[kQueryPath] = calling; });
}

TEST(ManagedCancellableSet, CancelsTheReplacedOneUnderItsLockSoThatAReaderWaitsForTheNewOne) {
    const auto expectReaderWaits = [](auto key, std::optional<CancellableRef> next) {
        const auto set = make<Set>();
        std::optional<test::Attempt> attempt;
        std::optional<CancellableRef> seen;
        (*set)[key] = make<Calling>([&] { attempt.emplace([&] { seen = read(*set, key); }); });
        (*set)[key] = next;
        ASSERT_TRUE(attempt.has_value());
        EXPECT_FALSE(attempt->hadSucceeded());
        attempt->join();
        EXPECT_EQ(seen, next);
    };
    expectReaderWaits(Keys::query, make<CountedCancellable>());
    expectReaderWaits(kQueryPath, make<CountedCancellable>());
    expectReaderWaits(Keys::query, std::nullopt);
}

TEST(ManagedCancellableSet, CancelsWhatIsOfferedToAClosedSetWithoutItsLock) {
    const auto set = make<Set>();
    set->cancel();
    int calls = 0;
    const auto calling = make<Calling>([&] {
        EXPECT_TRUE(set->isCancelled());  // would wait for ever under the lock
        ++calls;
    });
    set->insert(calling);
    (*set)[Keys::query] = calling;
    EXPECT_EQ(calls, 2);
}

TEST(ManagedCancellableSet, DestroysWhatLeavesItWithoutItsLock) {
    const auto set = make<Set>();
    std::vector<bool> seen;
    const auto calling = [&] {
        return make<Calling>([] {}, [&] { seen.push_back(set->isCancelled()); });
    };
    (*set)[Keys::query] = calling();
    (*set)[Keys::query] = calling();
    EXPECT_EQ(seen, (std::vector<bool>{false}));
    (*set)[Keys::query] = std::nullopt;
    EXPECT_EQ(seen, (std::vector<bool>{false, false}));
    set->insert(calling());
    (*set)[kQueryPath] = calling();
    set->cancel();
    EXPECT_EQ(seen, (std::vector<bool>{false, false, true, true}));
}

TEST(ManagedCancellableSet, IsEqualToItselfOnly) {
    const auto a = make<Set>();
    const auto b = make<Set>();
    EXPECT_TRUE(*a == *a);
    EXPECT_FALSE(*a == *b);
    EXPECT_EQ(std::hash<Set>()(*a), std::hash<Set>()(*a));
    EXPECT_NE(std::hash<Set>()(*a), std::hash<Set>()(*b));
}

TEST(ManagedCancellableSet, TakesKeysOfAnyTypeThatCanBeHashed) {
    struct WithText {
        using CancellableKeys = std::string;
    };
    const auto a = make<CountedCancellable>();
    const auto set = make<ManagedCancellableSet<WithText>>();
    (*set)["query"] = a;
    EXPECT_EQ(std::optional<CancellableRef>((*set)["query"]), CancellableRef(a));
    EXPECT_EQ(std::optional<CancellableRef>((*set)["Query"]), std::nullopt);
}

TEST(ManagedCancellableSet, LeavesNothingBehind) {
    const int before = Counted::living;
    {
        const auto set = make<Set>();
        for (int i = 0; i < 10; ++i) {
            set->insert(make<CountedCancellable>());
            (*set)[Keys::query] = make<CountedCancellable>();
            (*set)[kQueryPath] = make<CountedCancellable>();
        }
        EXPECT_EQ(Counted::living, before + 12);
    }
    EXPECT_EQ(Counted::living, before);
}

// Random commands against lists of numbers. A command is a few small numbers, so that a failing run
// shrinks to few and small ones.

struct Command {
    int kind;
    int key;
    std::size_t item;
};

std::ostream& operator<<(std::ostream& out, const Command& command) {
    return out << "{" << command.kind << ", " << command.key << ", " << command.item << "}";
}

constexpr std::size_t kItems = 6;

/// How often each item has to be cancelled, and where the items are.
class Model {
public:
    void insert(std::size_t item) {
        if (isClosed) {
            ++cancels[item];
        } else {
            anonymous.push_back(item);
        }
    }
    void write(int key, std::optional<std::size_t> item) {
        if (isClosed) {
            cancels[item.value_or(kItems)] += 1;
            return;
        }
        if (const auto found = keyed.find(key); found != keyed.end()) {
            ++cancels[found->second];
            keyed.erase(found);
        }
        if (item) {
            keyed.emplace(key, *item);
        }
    }
    [[nodiscard]] std::optional<std::size_t> read(int key) const {
        const auto found = keyed.find(key);
        return found != keyed.end() ? std::optional(found->second) : std::nullopt;
    }
    void cancel() {
        for (const std::size_t item : anonymous) {
            ++cancels[item];
        }
        for (const auto& [key, item] : keyed) {
            ++cancels[item];
        }
        anonymous.clear();
        keyed.clear();
        isClosed = true;
    }

    bool isClosed = false;
    std::vector<std::size_t> anonymous;
    std::map<int, std::size_t> keyed;
    std::array<int, kItems + 1> cancels{};  // the last one is that of nothing
};

RC_GTEST_PROP(ManagedCancellableSetModel, IsAListAndAMapUntilItIsClosed, ()) {
    const auto commands = *rc::gen::container<std::vector<Command>>(rc::gen::construct<Command>(
        rc::gen::weightedElement<int>({{4, 0}, {6, 1}, {3, 2}, {3, 3}, {2, 4}, {1, 5}}),
        rc::gen::inRange(0, 4), rc::gen::inRange<std::size_t>(0, kItems)));
    const auto set = make<Set>();
    std::vector<Ref<CountedCancellable>> items;
    for (std::size_t i = 0; i < kItems; ++i) {
        items.push_back(make<CountedCancellable>());
    }
    Model model;
    const auto access = [&](int key, auto use) {
        switch (key) {
            case 0:
                return use(Keys::query);
            case 1:
                return use(Keys::thumbnails);
            case 2:
                return use(PartialKeyPath<Manager>(kQueryPath));
            default:
                return use(PartialKeyPath<Manager>(kPagesPath));
        }
    };
    for (const auto& command : commands) {
        const int key = command.key;
        const std::size_t item = command.item;
        switch (command.kind) {
            case 0:
                set->insert(items[item]);
                model.insert(item);
                break;
            case 1:
                access(key, [&](auto at) { (*set)[at] = items[item]; });
                model.write(key, item);
                break;
            case 2:
                access(key, [&](auto at) { (*set)[at] = std::nullopt; });
                model.write(key, std::nullopt);
                break;
            case 3:  // an in-place change that leaves everything as it is
                access(key, [&](auto at) { set->modify(at, [](auto&) {}); });
                model.write(key, model.read(key));
                break;
            case 4:  // from one key to the next
                access((key + 1) % 4, [&](auto to) {
                    (*set)[to] = access(key, [&](auto at) { return read(*set, at); });
                });
                model.write((key + 1) % 4, model.read(key));
                break;
            default:
                set->cancel();
                model.cancel();
        }
        RC_ASSERT(set->isCancelled() == model.isClosed);
        for (int probe = 0; probe < 4; ++probe) {
            const auto expected = model.read(probe);
            const auto found = access(probe, [&](auto at) { return read(*set, at); });
            RC_ASSERT(found.has_value() == expected.has_value());
            if (found) {
                RC_ASSERT(found->as<CountedCancellable>() == items[*expected]);
            }
        }
        for (std::size_t i = 0; i < kItems; ++i) {
            RC_ASSERT(items[i]->cancels == model.cancels[i]);
        }
    }
}

}  // namespace
}  // namespace vantorq
