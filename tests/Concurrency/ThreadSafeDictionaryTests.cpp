#include "VantorqFoundation/ThreadSafeDictionary.h"

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include "Support/Cancellables.h"
#include "Support/Threads.h"

namespace vantorq {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

using Ages = ThreadSafeDictionary<std::string, int>;

Ref<Ages> someAges() {
    return make<Ages>(Ages::Map{{"Ada", 36}, {"Alan", 41}, {"Grace", 85}});
}

template <class Dictionary, class Key>
auto valueOf(Dictionary& dictionary, const Key& key) {
    return std::as_const(dictionary)[key];
}

template <class Dictionary>
auto entriesOf(const Dictionary& dictionary) {
    std::map<std::string, int> entries;
    dictionary.forEach([&](const std::string& key, int value) { entries[key] = value; });
    return entries;
}

TEST(ThreadSafeDictionary, OneFromAnEmptyMapIsEmpty) {
    const auto ages = make<Ages>(Ages::Map());
    EXPECT_EQ(ages->count(), 0U);
    EXPECT_TRUE(ages->isEmpty());
    EXPECT_THAT(ages->keys(), IsEmpty());
    EXPECT_THAT(ages->values(), IsEmpty());
    EXPECT_TRUE(make<Ages>()->isEmpty());
}

TEST(ThreadSafeDictionary, StartsWithTheEntriesOfAnOrdinaryMap) {
    EXPECT_THAT(entriesOf(*someAges()),
                ElementsAre(Pair("Ada", 36), Pair("Alan", 41), Pair("Grace", 85)));
    const std::unordered_map<std::string, int> ordinary{{"Ada", 36}, {"Alan", 41}};
    const auto ages = make<Ages>(ordinary);
    EXPECT_EQ(ages->count(), 2U);
    EXPECT_FALSE(ages->isEmpty());
    EXPECT_EQ(valueOf(*ages, "Alan"), 41);
}

TEST(ThreadSafeDictionary, TheMapThatItStartedWithIsACopy) {
    Ages::Map map{{"Ada", 36}};
    const auto ages = make<Ages>(map);
    map.insertOrAssign("Ada", 37);
    EXPECT_EQ(valueOf(*ages, "Ada"), 36);
    (*ages)["Ada"] = 38;
    EXPECT_EQ(*map.find("Ada"), 37);
}

TEST(ThreadSafeDictionary, TheSubscriptReads) {
    const auto ages = someAges();
    const std::optional<int> present = (*ages)["Ada"];
    const std::optional<int> absent = (*ages)["Kurt"];
    EXPECT_EQ(present, 36);
    EXPECT_EQ(absent, std::nullopt);
}

TEST(ThreadSafeDictionary, TheSubscriptWrites) {
    const auto ages = someAges();
    (*ages)["Ada"] = 37;
    (*ages)["Kurt"] = 71;
    EXPECT_EQ(valueOf(*ages, "Ada"), 37);
    EXPECT_EQ(valueOf(*ages, "Kurt"), 71);
    EXPECT_EQ(ages->count(), 4U);
    (*ages)["Kurt"] = std::optional<int>(72);
    EXPECT_EQ(valueOf(*ages, "Kurt"), 72);
    auto texts = make<ThreadSafeDictionary<int, std::string>>();
    (*texts)[1] = "text";
    EXPECT_EQ(valueOf(*texts, 1), "text");
}

TEST(ThreadSafeDictionary, WritingNoValueRemovesTheEntry) {
    const auto ages = someAges();
    (*ages)["Ada"] = std::nullopt;
    (*ages)["Alan"] = std::optional<int>();
    EXPECT_THAT(ages->keys(), ElementsAre("Grace"));
}

TEST(ThreadSafeDictionary, WritingNoValueForAnAbsentKeyChangesNothing) {
    const auto ages = someAges();
    const auto before = entriesOf(*ages);
    (*ages)["Kurt"] = std::nullopt;
    EXPECT_EQ(entriesOf(*ages), before);
}

TEST(ThreadSafeDictionary, ModifyChangesAddsAndRemoves) {
    const auto ages = someAges();
    const auto older = [](std::optional<int>& age) { age = age.value_or(0) + 1; };
    ages->modify("Ada", older);
    ages->modify("Kurt", older);
    ages->modify("Alan", [](std::optional<int>& age) { age.reset(); });
    EXPECT_THAT(entriesOf(*ages), ElementsAre(Pair("Ada", 37), Pair("Grace", 85), Pair("Kurt", 1)));
}

TEST(ThreadSafeDictionary, ModifyRunsTheChangeWithoutTheLock) {
    const auto ages = someAges();
    std::size_t countInside = 0;
    ages->modify("Ada", [&](std::optional<int>& age) {
        (*ages)["Kurt"] = 71;  // with the lock held this would never return
        countInside = ages->count();
        age = 37;
    });
    EXPECT_EQ(countInside, 4U);
    EXPECT_EQ(valueOf(*ages, "Ada"), 37);
}

TEST(ThreadSafeDictionary, AnUpdateBetweenTheTwoStepsOfModifyIsOverwritten) {
    const auto ages = someAges();
    ages->modify("Ada", [&](std::optional<int>& age) {
        std::thread([&] { (*ages)["Ada"] = 100; }).join();
        age = *age + 1;
    });
    EXPECT_EQ(valueOf(*ages, "Ada"), 37);
}

TEST(ThreadSafeDictionary, AChangeThatThrowsWritesNothing) {
    const auto ages = someAges();
    const auto fail = [](std::optional<int>& age) {
        age = 0;
        throw std::runtime_error("failed");
    };
    EXPECT_THROW(ages->modify("Ada", fail), std::runtime_error);
    EXPECT_EQ(valueOf(*ages, "Ada"), 36);
}

TEST(ThreadSafeDictionary, KeysAndValuesComeInTheSameOrder) {
    const auto squares = make<ThreadSafeDictionary<int, int>>();
    for (int n = 0; n < 100; ++n) {
        (*squares)[n] = n * n;
    }
    const auto keys = squares->keys();
    const auto values = squares->values();
    ASSERT_EQ(keys.size(), 100U);
    ASSERT_EQ(values.size(), 100U);
    std::vector<int> visited;
    squares->forEach([&](int key, int) { visited.push_back(key); });
    EXPECT_EQ(keys, visited);
    for (std::size_t at = 0; at < keys.size(); ++at) {
        EXPECT_EQ(values[at], keys[at] * keys[at]);
    }
}

TEST(ThreadSafeDictionary, RemoveAllEmptiesIt) {
    const auto ages = someAges();
    ages->removeAll();
    EXPECT_EQ(ages->count(), 0U);
    (*ages)["Ada"] = 1;
    EXPECT_EQ(ages->count(), 1U);
}

TEST(ThreadSafeDictionary, RemoveAllKeepingCapacityEmptiesIt) {
    const auto ages = someAges();
    ages->removeAll(true);
    EXPECT_EQ(ages->count(), 0U);
    EXPECT_TRUE(ages->isEmpty());
    EXPECT_THAT(ages->keys(), IsEmpty());
    (*ages)["Ada"] = 1;
    EXPECT_EQ(valueOf(*ages, "Ada"), 1);
}

/// Counts how often values are moved.
struct Mover {
    static inline constinit int moves = 0;

    Mover() = default;
    Mover(const Mover&) = default;
    Mover& operator=(const Mover&) = default;
    Mover(Mover&&) noexcept { ++moves; }
    Mover& operator=(Mover&&) noexcept {
        ++moves;
        return *this;
    }
    ~Mover() = default;
};

/// The moves that filling an emptied dictionary again takes.
int movesToRefill(bool keepsCapacity) {
    constexpr int kCount = 1000;
    const auto dictionary = make<ThreadSafeDictionary<int, Mover>>();
    const auto fill = [&] {
        for (int key = 0; key < kCount; ++key) {
            (*dictionary)[key] = Mover();
        }
    };
    fill();
    dictionary->removeAll(keepsCapacity);
    Mover::moves = 0;
    fill();
    return Mover::moves;
}

TEST(ThreadSafeDictionary, RemoveAllKeepingCapacityKeepsTheStorage) {
    EXPECT_LT(movesToRefill(true), movesToRefill(false));
}

TEST(ThreadSafeDictionary, ForEachCallsTheBodyOncePerEntry) {
    const auto ages = someAges();
    std::vector<std::pair<std::string, int>> seen;
    ages->forEach([&](const std::string& key, const int& value) { seen.emplace_back(key, value); });
    EXPECT_THAT(seen, UnorderedElementsAre(Pair("Ada", 36), Pair("Alan", 41), Pair("Grace", 85)));
}

TEST(ThreadSafeDictionary, ForEachHoldsTheLockFromTheFirstEntryToTheLast) {
    const std::vector<std::function<void(Ages&)>> operations = {
        [](Ages& ages) { (void)ages.count(); },
        [](Ages& ages) { (void)ages.isEmpty(); },
        [](Ages& ages) { (void)ages.keys(); },
        [](Ages& ages) { (void)valueOf(ages, "Ada"); },
        [](Ages& ages) { ages["Kurt"] = 71; },
        [](Ages& ages) { ages["Ada"] = std::nullopt; },
        [](Ages& ages) { ages.removeAll(); },
        [](Ages& ages) { (void)ages.removeKeys(std::set<std::string>{"Ada"}); },
    };
    for (const auto& operation : operations) {
        const auto ages = someAges();
        std::optional<test::Attempt> attempt;
        std::size_t calls = 0;
        ages->forEach([&](const std::string&, int) {
            if (++calls == 1) {
                attempt.emplace([&] { operation(*ages); });
            }
            if (calls == 3) {
                EXPECT_FALSE(attempt->succeeds());
            }
        });
        EXPECT_EQ(calls, 3U);
        attempt->join();
    }
}

TEST(ThreadSafeDictionary, ABodyThatFailsEndsTheWalkAndLeavesTheLockFree) {
    const auto ages = someAges();
    int calls = 0;
    const auto failAtSecond = [&](const std::string&, int) {
        if (++calls == 2) {
            throw std::runtime_error("failed");
        }
    };
    EXPECT_THROW(ages->forEach(failAtSecond), std::runtime_error);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(ages->count(), 3U);
}

TEST(ThreadSafeDictionary, RemoveKeysGivesTheValuesThatWereRemoved) {
    const auto ages = someAges();
    EXPECT_THAT(ages->removeKeys(std::unordered_set<std::string>{"Ada", "Kurt"}), ElementsAre(36));
    EXPECT_EQ(valueOf(*ages, "Ada"), std::nullopt);
    EXPECT_EQ(ages->count(), 2U);
}

TEST(ThreadSafeDictionary, RemoveKeysFollowsTheOrderOfTheSet) {
    const auto ages = someAges();
    EXPECT_THAT(ages->removeKeys(std::set<std::string>{"Kurt", "Grace", "Ada"}),
                ElementsAre(36, 85));
    EXPECT_THAT(ages->removeKeys(std::set<std::string>{}), IsEmpty());
    EXPECT_EQ(ages->count(), 1U);
}

// What an entry does when it ends, or is copied, must not find the lock held.

/// Uses the dictionary when it ends.
class Farewell final : public RefCounted {
public:
    using Dictionary = ThreadSafeDictionary<int, Ref<Farewell>>;
    Farewell(Dictionary& dictionary, std::size_t& seen) : dictionary_(dictionary), seen_(seen) {}

private:
    ~Farewell() override { seen_ = dictionary_.count(); }

    Dictionary& dictionary_;
    std::size_t& seen_;
};

TEST(ThreadSafeDictionary, AnEntryThatIsReplacedOrRemovedEndsAfterTheLock) {
    const auto dictionary = make<Farewell::Dictionary>();
    std::size_t seen = 100;
    const auto fill = [&] {
        (*dictionary)[1] = make<Farewell>(*dictionary, seen);
        seen = 100;
    };
    fill();
    (*dictionary)[1] = Ref<Farewell>();
    EXPECT_EQ(seen, 1U);
    fill();
    (*dictionary)[1] = std::nullopt;
    EXPECT_EQ(seen, 0U);
    fill();
    dictionary->removeAll(true);
    EXPECT_EQ(seen, 0U);
    fill();
    dictionary->removeAll();
    EXPECT_EQ(seen, 0U);
    fill();
    EXPECT_EQ(dictionary->removeKeys(std::set<int>{1}).size(), 1U);
    EXPECT_EQ(seen, 0U);
}

/// A value whose copy calls out: the only place from which a test gets between the moment when
/// `values` lets the lock go and the end of its walk.
struct Calling {
    Calling(int n, std::function<void()> f) : number(n), onCopy(std::move(f)) {}
    Calling(const Calling& other) : number(other.number), onCopy(other.onCopy) {
        if (onCopy && isArmed) {
            isArmed = false;
            onCopy();
        }
    }
    Calling(Calling&&) = default;
    Calling& operator=(const Calling&) = default;
    Calling& operator=(Calling&&) = default;

    int number;
    std::function<void()> onCopy;
    static inline bool isArmed = false;
};

TEST(ThreadSafeDictionary, ASnapshotIsBuiltOutsideTheLockAndUntouchedByLaterWriters) {
    const auto dictionary = make<ThreadSafeDictionary<int, Calling>>();
    const auto removeAllOfThem = [&] {
        (*dictionary)[0] = std::nullopt;  // with the lock held this would never return
        dictionary->removeAll();
    };
    for (int n = 0; n < 10; ++n) {
        (*dictionary)[n] = Calling(n, removeAllOfThem);
    }
    Calling::isArmed = true;
    const auto values = dictionary->values();
    EXPECT_EQ(dictionary->count(), 0U);
    std::vector<int> numbers;
    for (const Calling& value : values) {
        numbers.push_back(value.number);
    }
    EXPECT_THAT(numbers, UnorderedElementsAre(0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
}

TEST(ThreadSafeDictionary, LeavesNothingBehind) {
    constexpr int kCount = 10;
    const int before = test::Counted::living;
    {
        using Key = Ref<test::CountedCancellable>;
        const auto dictionary = make<ThreadSafeDictionary<Key, Ref<test::PlainCancellable>>>();
        const auto fill = [&] {
            for (int n = 0; n < kCount; ++n) {
                (*dictionary)[make<test::CountedCancellable>()] = make<test::PlainCancellable>();
            }
        };
        fill();
        EXPECT_EQ(test::Counted::living, before + 2 * kCount);
        for (const auto& key : dictionary->keys()) {
            (*dictionary)[key] = make<test::PlainCancellable>();
        }
        EXPECT_EQ(test::Counted::living, before + 2 * kCount);
        {
            const auto values = dictionary->values();
            dictionary->removeAll(true);
            EXPECT_EQ(test::Counted::living, before + kCount);
        }
        EXPECT_EQ(test::Counted::living, before);
        fill();
        dictionary->removeAll();
        EXPECT_EQ(test::Counted::living, before);
        fill();
    }
    EXPECT_EQ(test::Counted::living, before);
}

TEST(ThreadSafeDictionary, ManyThreadsThatWriteDistinctKeysEndWithAllOfThem) {
    constexpr int kThreads = 4;
    constexpr int kKeys = 2'000;
    const auto dictionary = make<ThreadSafeDictionary<int, int>>();
    test::together(kThreads, [&](int thread) {
        for (int n = 0; n < kKeys; ++n) {
            (*dictionary)[n * kThreads + thread] = thread;
        }
    });
    EXPECT_EQ(dictionary->count(), static_cast<std::size_t>(kThreads * kKeys));
    for (int key = 0; key < kThreads * kKeys; ++key) {
        ASSERT_EQ(valueOf(*dictionary, key), key % kThreads);
    }
}

// Random commands against a map of the standard library.

struct Command {
    int kind;
    int key;
    int value;
};

std::ostream& operator<<(std::ostream& out, const Command& command) {
    return out << "{" << command.kind << ", " << command.key << ", " << command.value << "}";
}

RC_GTEST_PROP(ThreadSafeDictionaryModel, BehavesLikeAMap, ()) {
    const auto commands = *rc::gen::container<std::vector<Command>>(rc::gen::construct<Command>(
        rc::gen::inRange(0, 8), rc::gen::inRange(0, 24), rc::gen::inRange(0, 100)));
    const auto dictionary = make<ThreadSafeDictionary<int, int>>();
    std::map<int, int> model;
    const auto modelValue = [&](int key) {
        const auto found = model.find(key);
        return found != model.end() ? std::optional(found->second) : std::nullopt;
    };
    for (const auto& [kind, key, value] : commands) {
        if (kind <= 2) {
            (*dictionary)[key] = value;
            model[key] = value;
        } else if (kind == 3) {
            (*dictionary)[key] = std::nullopt;
            model.erase(key);
        } else if (kind == 4) {
            dictionary->modify(key, [&](std::optional<int>& v) { v = v.value_or(0) + value; });
            model[key] += value;
        } else if (kind == 5) {
            std::vector<int> removed;
            for (const int one : {key, value % 24}) {
                if (const auto there = modelValue(one)) {
                    removed.push_back(*there);
                    model.erase(one);
                }
            }
            RC_ASSERT(dictionary->removeKeys(std::vector<int>{key, value % 24}) == removed);
        } else if (kind == 6 && value < 20) {
            dictionary->removeAll(value % 2 == 0);
            model.clear();
        }
        RC_ASSERT(dictionary->count() == model.size());
        RC_ASSERT(dictionary->isEmpty() == model.empty());
        RC_ASSERT(valueOf(*dictionary, key) == modelValue(key));
        const auto keys = dictionary->keys();
        const auto values = dictionary->values();
        std::map<int, int> entries;
        for (std::size_t at = 0; at < keys.size(); ++at) {
            entries[keys[at]] = values.at(at);
        }
        RC_ASSERT(entries == model);
    }
}

}  // namespace
}  // namespace vantorq
