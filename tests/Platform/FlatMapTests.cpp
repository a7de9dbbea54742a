#include "VantorqFoundation/Platform/FlatMap.h"

#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

namespace vantorq {
namespace {

using testing::IsNull;
using testing::Pair;
using testing::Pointee;
using testing::UnorderedElementsAre;

/// Every key in one slot, so that searches have to pass the others.
struct OneHash {
    std::size_t operator()(int) const noexcept { return 1; }
};

TEST(FlatMap, AnEmptyMapHasNoMemory) {
    const FlatMap<int, int> map;
    EXPECT_EQ(sizeof map, sizeof(void*));
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(map.size(), 0U);
    EXPECT_EQ(map.capacity(), 0U);
    EXPECT_THAT(map.find(1), IsNull());
    EXPECT_EQ(map.begin(), map.end());
}

TEST(FlatMap, FindsWhatWasAdded) {
    FlatMap<std::string, int> map{{"one", 1}, {"two", 2}, {"one", 3}};
    EXPECT_EQ(map.size(), 2U);
    EXPECT_THAT(map.find("one"), Pointee(1));
    EXPECT_THAT(map.find("three"), IsNull());
    EXPECT_TRUE(map.contains("two"));
    EXPECT_THAT(map, UnorderedElementsAre(Pair("one", 1), Pair("two", 2)));
}

TEST(FlatMap, EmplaceLeavesWhatIsThere) {
    FlatMap<int, std::unique_ptr<int>> map;
    EXPECT_TRUE(map.emplace(1, std::make_unique<int>(10)).second);
    auto refused = std::make_unique<int>(11);
    const auto [stored, isNew] = map.emplace(1, std::move(refused));
    EXPECT_FALSE(isNew);
    EXPECT_THAT(*stored, Pointee(10));
    EXPECT_THAT(refused, Pointee(11));
}

TEST(FlatMap, InsertOrAssignReplacesTheValue) {
    FlatMap<int, std::string> map;
    map.insertOrAssign(1, "a");
    EXPECT_EQ(map.insertOrAssign(1, "b"), "b");
    EXPECT_THAT(map, UnorderedElementsAre(Pair(1, "b")));
}

TEST(FlatMap, TakesEntriesOut) {
    FlatMap<int, std::unique_ptr<int>> map;
    map.emplace(1, std::make_unique<int>(10));
    const auto taken = map.take(1);
    ASSERT_TRUE(taken.has_value());
    EXPECT_EQ(taken->first, 1);
    EXPECT_THAT(taken->second, Pointee(10));
    EXPECT_FALSE(map.take(1).has_value());
    EXPECT_FALSE(map.erase(1));
    EXPECT_TRUE(map.empty());
}

TEST(FlatMap, EntriesBehindAnErasedOneAreStillFound) {
    FlatMap<int, int, OneHash> map{{1, 10}, {2, 20}, {3, 30}, {4, 40}};
    EXPECT_TRUE(map.erase(2));
    EXPECT_THAT(map.find(4), Pointee(40));
    EXPECT_FALSE(map.contains(2));
    map.insertOrAssign(4, 41);
    EXPECT_EQ(map.size(), 3U);
    EXPECT_TRUE(map.erase(4));
    EXPECT_TRUE(map.erase(3));
    EXPECT_THAT(map, UnorderedElementsAre(Pair(1, 10)));
}

TEST(FlatMap, AddingAndErasingForEverNeedsNoMoreMemory) {
    FlatMap<int, int> map;
    map.reserve(100);
    const std::size_t capacity = map.capacity();
    for (int n = 0; n < 100'000; ++n) {
        map.emplace(n, n);
        if (n >= 40) {
            ASSERT_TRUE(map.erase(n - 40));
        }
    }
    EXPECT_EQ(map.size(), 40U);
    EXPECT_EQ(map.capacity(), capacity);
}

TEST(FlatMap, ReservedRoomIsEnough) {
    FlatMap<int, int> map;
    map.reserve(1'000);
    const std::size_t capacity = map.capacity();
    EXPECT_GE(capacity, 1'000U);
    map.emplace(0, 0);
    const int* first = map.find(0);
    for (int n = 1; n < 1'000; ++n) {
        map.emplace(n, n);
    }
    EXPECT_EQ(map.capacity(), capacity);
    EXPECT_EQ(map.find(0), first);
    map.reserve(10);
    EXPECT_EQ(map.find(0), first);
}

TEST(FlatMap, EraseIfErasesAndCounts) {
    FlatMap<int, int> map;
    EXPECT_EQ(map.eraseIf([](int, int) { return true; }), 0U);
    for (int n = 0; n < 100; ++n) {
        map.emplace(n, n % 10);
    }
    EXPECT_EQ(map.eraseIf([](int key, int& value) { return key >= 10 || value == 3; }), 91U);
    EXPECT_EQ(map.size(), 9U);
    EXPECT_FALSE(map.contains(3));
}

TEST(FlatMap, ClearGivesTheMemoryBack) {
    FlatMap<int, int> map{{1, 1}};
    map.clear();
    EXPECT_TRUE(map.empty());
    EXPECT_EQ(map.capacity(), 0U);
}

TEST(FlatMap, IsMadeFromOtherMaps) {
    const FlatMap<std::string, int> map = std::map<std::string, int>{{"a", 1}, {"b", 2}};
    EXPECT_THAT(map, UnorderedElementsAre(Pair("a", 1), Pair("b", 2)));
    EXPECT_EQ((FlatMap<std::string, int>(std::unordered_map<const char*, short>{{"a", 1}})),
              (FlatMap<std::string, int>{{"a", 1}}));
}

TEST(FlatMap, MapsAreEqualWhenTheirEntriesAre) {
    const FlatMap<int, int> map{{1, 10}, {2, 20}};
    EXPECT_EQ(map, (FlatMap<int, int>{{2, 20}, {1, 10}}));
    EXPECT_NE(map, (FlatMap<int, int>{{1, 10}}));
    EXPECT_NE(map, (FlatMap<int, int>{{1, 10}, {2, 21}}));
    EXPECT_NE(map, (FlatMap<int, int>{{1, 10}, {3, 20}}));
    EXPECT_EQ((FlatMap<int, int>()), (FlatMap<int, int>()));
    EXPECT_NE((FlatMap<int, int>()), map);
}

// Sharing.

TEST(FlatMap, CopiesShareUntilOneChanges) {
    FlatMap<int, std::string> map{{1, "a"}, {2, "b"}};
    EXPECT_FALSE(map.isShared());
    const FlatMap<int, std::string> copy = map;
    EXPECT_TRUE(map.isShared());
    EXPECT_EQ(copy.find(1), map.find(1));
    map.insertOrAssign(1, "changed");
    EXPECT_FALSE(map.isShared());
    EXPECT_FALSE(copy.isShared());
    EXPECT_THAT(copy.find(1), Pointee(std::string("a")));
    EXPECT_THAT(map.find(1), Pointee(std::string("changed")));
}

TEST(FlatMap, NoKindOfChangeReachesACopy) {
    const FlatMap<int, int> original{{1, 10}, {2, 20}};
    const auto changed = [&](auto change) {
        FlatMap<int, int> map = original;
        change(map);
        return map;
    };
    EXPECT_EQ(changed([](auto& map) { map.emplace(3, 30); }).size(), 3U);
    EXPECT_EQ(changed([](auto& map) { *map.emplace(1, 0).first = 11; }).size(), 2U);
    EXPECT_THAT(changed([](auto& map) { *map.findMutable(1) = 11; }).find(1), Pointee(11));
    EXPECT_EQ(changed([](auto& map) { map.erase(1); }).size(), 1U);
    EXPECT_EQ(changed([](auto& map) { map.eraseIf([](int, int) { return true; }); }).size(), 0U);
    EXPECT_EQ(changed([](auto& map) { map.clear(); }).size(), 0U);
    EXPECT_GE(changed([](auto& map) { map.reserve(100); }).capacity(), 100U);
    EXPECT_EQ(original, (FlatMap<int, int>{{1, 10}, {2, 20}}));
}

TEST(FlatMap, WhatChangesNothingDoesNotCopy) {
    FlatMap<int, int> map{{1, 10}};
    const FlatMap<int, int> copy = map;
    EXPECT_FALSE(map.erase(2));
    EXPECT_THAT(map.findMutable(2), IsNull());
    map.reserve(1);
    EXPECT_EQ(map.find(1), copy.find(1));
}

TEST(FlatMap, ACopyIsWalkedThroughInTheSameOrderAfterAChange) {
    FlatMap<int, int> map;
    for (int n = 0; n < 20; ++n) {
        map.emplace(n, n);
    }
    const FlatMap<int, int> copy = map;
    *map.findMutable(7) = 70;
    std::vector<int> keys;
    std::vector<int> keysOfCopy;
    for (const auto& [key, value] : map) {
        keys.push_back(key);
    }
    for (const auto& [key, value] : copy) {
        keysOfCopy.push_back(key);
    }
    EXPECT_EQ(keys, keysOfCopy);
}

TEST(FlatMap, AMapOfMovableValuesCannotBeCopied) {
    using Movable = FlatMap<int, std::unique_ptr<int>>;
    static_assert(!std::is_copy_constructible_v<Movable> && !std::is_copy_assignable_v<Movable>);
    static_assert(std::is_nothrow_move_constructible_v<Movable>);
    Movable map;
    for (int n = 0; n < 100; ++n) {
        map.emplace(n, std::make_unique<int>(n));
    }
    const Movable moved = std::move(map);
    EXPECT_EQ(moved.size(), 100U);
    EXPECT_THAT(*moved.find(42), Pointee(42));
}

// What goes wrong.

/// Counts the living; the copy of `throwing` throws.
struct Counted {
    explicit Counted(int n) : number(n) { ++living; }
    Counted(const Counted& other) : number(other.number) {
        if (number == throwing) {
            throw std::runtime_error("no copy");
        }
        ++living;
    }
    Counted& operator=(const Counted&) = default;
    ~Counted() { --living; }

    int number;
    static inline int living = 0;
    static inline int throwing = -1;
};

TEST(FlatMap, EveryEntryIsDestroyedOnce) {
    {
        FlatMap<int, Counted> map;
        for (int n = 0; n < 50; ++n) {
            map.emplace(n, n);
        }
        EXPECT_EQ(Counted::living, 50);
        FlatMap<int, Counted> copy = map;
        EXPECT_EQ(Counted::living, 50);
        copy.erase(0);
        EXPECT_EQ(Counted::living, 99);
        map.clear();
        EXPECT_EQ(Counted::living, 49);
    }
    EXPECT_EQ(Counted::living, 0);
}

TEST(FlatMap, WhenACopyThrowsTheMapIsAsItWas) {
    {
        FlatMap<int, Counted> map;
        for (int n = 0; n < 6; ++n) {
            map.emplace(n, n);
        }
        ASSERT_EQ(map.size(), map.capacity());
        Counted::throwing = 3;
        EXPECT_THROW(map.emplace(6, 6), std::runtime_error);  // has to grow
        FlatMap<int, Counted> copy = map;
        EXPECT_THROW(copy.erase(1), std::runtime_error);  // has to copy
        Counted::throwing = -1;
        EXPECT_EQ(map.size(), 6U);
        EXPECT_EQ(copy.size(), 6U);
        EXPECT_EQ(Counted::living, 6);
        EXPECT_TRUE(copy.erase(1));
        EXPECT_TRUE(map.emplace(6, 6).second);
    }
    EXPECT_EQ(Counted::living, 0);
}

TEST(FlatMap, EntriesOfAnyAlignmentStandAligned) {
    struct alignas(64) Wide {
        int number;
    };
    FlatMap<char, Wide> map;
    for (char c = 'a'; c <= 'z'; ++c) {
        map.emplace(c, Wide{c});
    }
    for (const auto& [key, value] : map) {
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&value) % 64, 0U);
        EXPECT_EQ(value.number, key);
    }
}

// Random commands on a map, and on a copy that is taken now and then, against std::map.

struct Command {
    int kind;
    int key;
    int value;
};

std::ostream& operator<<(std::ostream& out, const Command& command) {
    return out << "{" << command.kind << ", " << command.key << ", " << command.value << "}";
}

/// Hashes that meet often.
struct FewHashes {
    std::size_t operator()(int key) const noexcept { return static_cast<std::size_t>(key % 3); }
};

template <class Hash>
void behavesLikeAMap() {
    const auto commands = *rc::gen::container<std::vector<Command>>(rc::gen::construct<Command>(
        rc::gen::inRange(0, 9), rc::gen::inRange(0, 40), rc::gen::inRange(0, 1'000)));
    using Map = FlatMap<int, int, Hash>;
    using Model = std::map<int, int>;
    Map map;
    Map copy;
    Model model;
    Model copyModel;
    const auto agree = [](const Map& ours, const Model& theirs) {
        return ours.size() == theirs.size() && ours == Map(theirs) &&
               std::distance(ours.begin(), ours.end()) == std::ssize(theirs);
    };
    for (const auto& [kind, key, value] : commands) {
        if (kind <= 2) {
            map.insertOrAssign(key, value);
            model[key] = value;
        } else if (kind == 3) {
            RC_ASSERT(map.emplace(key, value).second == model.emplace(key, value).second);
        } else if (kind <= 5) {
            RC_ASSERT(map.erase(key) == (model.erase(key) == 1));
        } else if (kind == 6) {
            const auto isGone = [&](int k, int v) { return k % 7 == key % 7 || v < value / 4; };
            const auto count = std::erase_if(
                model, [&](const auto& entry) { return isGone(entry.first, entry.second); });
            RC_ASSERT(map.eraseIf(isGone) == count);
        } else if (kind == 7) {
            copy = map;
            copyModel = model;
        } else if (value == 0) {
            map.clear();
            model.clear();
        } else {
            map.reserve(static_cast<std::size_t>(value));
        }
        RC_ASSERT(agree(map, model));
        RC_ASSERT(agree(copy, copyModel));
        for (int probe = 0; probe < 40; ++probe) {
            RC_ASSERT(map.contains(probe) == model.contains(probe));
        }
    }
}

RC_GTEST_PROP(FlatMapModel, BehavesLikeAMap, ()) {
    behavesLikeAMap<std::hash<int>>();
}
RC_GTEST_PROP(FlatMapModel, BehavesLikeAMapWhenHashesMeet, ()) {
    behavesLikeAMap<FewHashes>();
}

}  // namespace
}  // namespace vantorq
