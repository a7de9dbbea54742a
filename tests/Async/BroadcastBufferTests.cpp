#include "VantorqFoundation/BroadcastBuffer.h"

#include <cstdint>
#include <limits>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include "Support/AsyncSources.h"
#include "Support/Trap.h"

namespace vantorq::detail {
namespace {

constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kSmallest = std::numeric_limits<std::int64_t>::min();

/// What a buffer or a queue holds, from its start index to its end index.
template <class Kept>
std::vector<std::string> heldBy(const Kept& kept) {
    std::vector<std::string> held;
    for (std::int64_t index = kept.startIndex(); index != kept.endIndex();
         index = kept.indexAfter(index)) {
        held.push_back(kept[index]);
    }
    return held;
}

/// One to which elements were appended.
template <class Kept, class Limit>
class Filled : public Kept {
public:
    Filled(Limit limit, const std::vector<std::string>& elements) : Kept(limit) {
        for (const auto& element : elements) {
            this->append(element);
        }
    }
};

using Strings = std::vector<std::string>;
using StringBuffer = Buffer<std::string>;
using StringQueue = LimitedQueue<std::string>;
using FilledBuffer = Filled<StringBuffer, BufferingPolicy>;
using FilledQueue = Filled<StringQueue, std::int64_t>;

const BufferingPolicy kPolicies[] = {
    BufferingPolicy::unbounded(),
    BufferingPolicy::bufferingOldest(0),
    BufferingPolicy::bufferingOldest(2),
    BufferingPolicy::bufferingOldest(-1),
    BufferingPolicy::bufferingNewest(0),
    BufferingPolicy::bufferingNewest(1),
    BufferingPolicy::bufferingNewest(2),
    BufferingPolicy::bufferingNewest(-1),
    BufferingPolicy::bufferingOldest(kLargest),
    BufferingPolicy::bufferingNewest(kLargest),
};

// The queue.

TEST(LimitedQueue, BeginsEmptyAtIndex0) {
    const StringQueue queue(2);
    EXPECT_EQ(queue.startIndex(), 0);
    EXPECT_EQ(queue.endIndex(), 0);
}

TEST(LimitedQueue, GrowsAtItsEndUntilItIsFull) {
    StringQueue queue(2);
    queue.append("a");
    EXPECT_EQ(queue.startIndex(), 0);
    EXPECT_EQ(queue.endIndex(), 1);
    queue.append("b");
    EXPECT_EQ(queue.startIndex(), 0);
    EXPECT_EQ(queue.endIndex(), 2);
    EXPECT_EQ(heldBy(queue), (Strings{"a", "b"}));
}

TEST(LimitedQueue, WhenFullItLetsTheOldestGo) {
    const FilledQueue queue(2, {"a", "b", "c"});
    EXPECT_EQ(queue.startIndex(), 1);
    EXPECT_EQ(queue.endIndex(), 3);
    EXPECT_EQ(queue[1], "b");
    EXPECT_EQ(queue[2], "c");
}

TEST(LimitedQueue, TheIndexAfterOneThatIsGoneIsTheStart) {
    const FilledQueue queue(2, {"a", "b", "c", "d", "e"});
    EXPECT_EQ(queue.startIndex(), 3);
    EXPECT_EQ(queue.indexAfter(kSmallest), 3);
    EXPECT_EQ(queue.indexAfter(-1), 3);
    EXPECT_EQ(queue.indexAfter(0), 3);
    EXPECT_EQ(queue.indexAfter(2), 3);
}

TEST(LimitedQueue, TheIndexAfterOneThatIsHeldIsTheNextOne) {
    const FilledQueue queue(2, {"a", "b", "c"});
    EXPECT_EQ(queue.indexAfter(0), 1);
    EXPECT_EQ(queue.indexAfter(1), 2);
    EXPECT_EQ(queue.indexAfter(2), 3);
    EXPECT_EQ(queue.indexAfter(3), 4);
}

TEST(LimitedQueue, OfSize1EveryAppendReplacesTheElementAndAdvancesTheStart) {
    StringQueue queue(1);
    queue.append("a");
    EXPECT_EQ(queue.startIndex(), 0);
    EXPECT_EQ(heldBy(queue), Strings{"a"});
    queue.append("b");
    EXPECT_EQ(queue.startIndex(), 1);
    EXPECT_EQ(heldBy(queue), Strings{"b"});
    queue.append("c");
    EXPECT_EQ(queue.startIndex(), 2);
    EXPECT_EQ(queue.endIndex(), 3);
    EXPECT_EQ(heldBy(queue), Strings{"c"});
}

TEST(LimitedQueue, AfterManyAppendsHoldsTheLastOnesUnderTheirOwnIndices) {
    for (const std::int64_t size : {1, 2, 3, 7, 64}) {
        LimitedQueue<std::int64_t> queue(size);
        for (std::int64_t appended = 0; appended < 500; ++appended) {
            queue.append(appended);
            const std::int64_t count = appended + 1;
            ASSERT_EQ(queue.startIndex(), count < size ? 0 : count - size);
            ASSERT_EQ(queue.endIndex(), count);
            for (std::int64_t index = queue.startIndex(); index < count; ++index) {
                ASSERT_EQ(queue[index], index);
            }
        }
    }
}

TEST(LimitedQueue, AnElementThatIsLetGoIsDestroyed) {
    test::Census census;
    {
        LimitedQueue<test::Item> queue(3);
        for (int value = 0; value < 10; ++value) {
            queue.append(test::Item(value, census));
            EXPECT_EQ(census.items, value < 3 ? value + 1 : 3);
        }
    }
    EXPECT_EQ(census.items, 0);
}

TEST(LimitedQueue, ACopyIsAValueOfItsOwn) {
    const FilledQueue queue(2, {"a", "b", "c"});
    StringQueue copy = queue;
    copy.append("d");
    EXPECT_EQ(heldBy(copy), (Strings{"c", "d"}));
    EXPECT_EQ(heldBy(queue), (Strings{"b", "c"}));
}

TEST(LimitedQueue, ASizeBelow0HoldsNothingAndAdvances) {
    const FilledQueue queue(-3, {"a", "b"});
    EXPECT_EQ(queue.startIndex(), 2);
    EXPECT_EQ(queue.endIndex(), 2);
    EXPECT_EQ(queue.indexAfter(0), 2);
}

TEST(LimitedQueueDeathTest, AnIndexThatIsNotHeldTraps) {
    const FilledQueue queue(2, {"a", "b", "c"});
    EXPECT_TRAP((void)queue[0], "no element at this index");
    EXPECT_TRAP((void)queue[3], "no element at this index");
    EXPECT_TRAP((void)queue[-1], "no element at this index");
    EXPECT_TRAP((void)queue[kSmallest], "no element at this index");
    EXPECT_TRAP((void)queue[kLargest], "no element at this index");
    EXPECT_TRAP((void)StringQueue(2)[0], "no element at this index");
    EXPECT_TRAP((void)FilledQueue(-1, {"a"})[0], "no element at this index");
    EXPECT_TRAP((void)FilledQueue(-1, {"a"})[1], "no element at this index");
}

TEST(LimitedQueueDeathTest, AnIndexThatBecomesTooLargeTraps) {
    const StringQueue queue(2);
    EXPECT_EQ(queue.indexAfter(kLargest - 1), kLargest);
    EXPECT_TRAP((void)queue.indexAfter(kLargest), "the index is too large");
    EXPECT_TRAP((void)checkedIndex(kLargest, 1), "the index is too large");
    EXPECT_TRAP((void)checkedIndex(kLargest - 1, 2), "the index is too large");
}

// The buffer.

TEST(Buffer, IsEmptyAtFirstUnderEveryPolicy) {
    for (const auto& policy : kPolicies) {
        const StringBuffer buffer(policy);
        EXPECT_EQ(buffer.startIndex(), 0);
        EXPECT_EQ(buffer.endIndex(), 0);
    }
}

TEST(Buffer, UnboundedKeepsEverything) {
    Buffer<int> buffer(BufferingPolicy::unbounded());
    for (int value = 0; value < 10'000; ++value) {
        buffer.append(value);
        ASSERT_EQ(buffer.endIndex(), value + 1);
    }
    EXPECT_EQ(buffer.startIndex(), 0);
    for (int value = 0; value < 10'000; ++value) {
        ASSERT_EQ(buffer[value], value);
    }
}

TEST(Buffer, OldestKeepsTheFirstOnesAndNoLaterOne) {
    const FilledBuffer buffer(BufferingPolicy::bufferingOldest(2), {"a", "b", "c", "d"});
    EXPECT_EQ(buffer.startIndex(), 0);
    EXPECT_EQ(buffer.endIndex(), 2);
    EXPECT_EQ(heldBy(buffer), (Strings{"a", "b"}));
}

TEST(Buffer, NewestKeepsTheLastOnesUnderTheirOwnIndices) {
    const FilledBuffer buffer(BufferingPolicy::bufferingNewest(2), {"a", "b", "c"});
    EXPECT_EQ(buffer.startIndex(), 1);
    EXPECT_EQ(buffer.endIndex(), 3);
    EXPECT_EQ(buffer[1], "b");
    EXPECT_EQ(buffer[2], "c");
    EXPECT_EQ(buffer.indexAfter(0), 1);
    EXPECT_EQ(buffer.indexAfter(1), 2);
}

TEST(Buffer, Newest0KeepsNothingAndItsIndicesStay0) {
    const FilledBuffer buffer(BufferingPolicy::bufferingNewest(0), {"a", "b", "c"});
    EXPECT_EQ(buffer.startIndex(), 0);
    EXPECT_EQ(buffer.endIndex(), 0);
    EXPECT_EQ(buffer.indexAfter(0), 1) << "it is a list";
}

TEST(Buffer, Oldest0KeepsNothing) {
    const FilledBuffer buffer(BufferingPolicy::bufferingOldest(0), {"a", "b"});
    EXPECT_EQ(buffer.startIndex(), 0);
    EXPECT_EQ(buffer.endIndex(), 0);
}

TEST(Buffer, AnOldestLimitBelow0KeepsNothing) {
    for (const std::int64_t limit : {std::int64_t{-1}, kSmallest}) {
        const FilledBuffer buffer(BufferingPolicy::bufferingOldest(limit), {"a", "b"});
        EXPECT_EQ(buffer.startIndex(), 0);
        EXPECT_EQ(buffer.endIndex(), 0);
    }
}

TEST(Buffer, ANewestLimitBelow0KeepsNothingAndAdvances) {
    for (const std::int64_t limit : {std::int64_t{-1}, kSmallest}) {
        const FilledBuffer buffer(BufferingPolicy::bufferingNewest(limit), {"a", "b"});
        EXPECT_EQ(buffer.startIndex(), 2);
        EXPECT_EQ(buffer.endIndex(), 2);
    }
}

TEST(Buffer, TheLargestLimitsKeepEverythingAndTakeNoMemoryInAdvance) {
    for (const auto& policy :
         {BufferingPolicy::bufferingOldest(kLargest), BufferingPolicy::bufferingNewest(kLargest)}) {
        const FilledBuffer buffer(policy, {"a", "b", "c"});
        EXPECT_EQ(heldBy(buffer), (Strings{"a", "b", "c"}));
    }
}

TEST(Buffer, MoreThanWhatRoomWasMadeForIsKept) {
    Buffer<int> buffer(BufferingPolicy::bufferingOldest(5000));
    for (int value = 0; value < 6000; ++value) {
        buffer.append(value);
    }
    EXPECT_EQ(buffer.endIndex(), 5000);
    EXPECT_EQ(buffer[4999], 4999);
}

TEST(Buffer, InAListTheIndexAfterIsTheNextOneAlsoOfOnesThatAreNotHeld) {
    for (const auto& policy : {BufferingPolicy::unbounded(), BufferingPolicy::bufferingOldest(2)}) {
        const FilledBuffer buffer(policy, {"a", "b"});
        EXPECT_EQ(buffer.indexAfter(-5), -4);
        EXPECT_EQ(buffer.indexAfter(0), 1);
        EXPECT_EQ(buffer.indexAfter(7), 8);
    }
}

TEST(Buffer, ElementsMayBeBooleans) {
    for (const auto& policy : {BufferingPolicy::unbounded(), BufferingPolicy::bufferingOldest(8),
                               BufferingPolicy::bufferingNewest(8)}) {
        Buffer<bool> buffer(policy);
        for (int index = 0; index < 6; ++index) {
            buffer.append(index % 3 == 0);
        }
        for (int index = 0; index < 6; ++index) {
            EXPECT_EQ(buffer[index], index % 3 == 0) << index;
        }
    }
}

TEST(Buffer, WhatIsNotKeptIsDestroyedAtOnceAndAllElseWithTheBuffer) {
    for (const auto& policy : kPolicies) {
        test::Census census;
        {
            Buffer<test::Item> buffer(policy);
            for (int value = 0; value < 10; ++value) {
                buffer.append(test::Item(value, census));
                EXPECT_EQ(census.items, buffer.endIndex() - buffer.startIndex());
            }
        }
        EXPECT_EQ(census.items, 0);
    }
}

TEST(BufferDeathTest, AnIndexThatIsNotHeldTraps) {
    for (const auto& policy : {BufferingPolicy::unbounded(), BufferingPolicy::bufferingOldest(2)}) {
        const FilledBuffer buffer(policy, {"a", "b"});
        EXPECT_TRAP((void)buffer[2], "no element at this index");
        EXPECT_TRAP((void)buffer[-1], "no element at this index");
    }
    const FilledBuffer newest(BufferingPolicy::bufferingNewest(2), {"a", "b", "c"});
    EXPECT_TRAP((void)newest[0], "no element at this index");
    EXPECT_TRAP((void)newest[3], "no element at this index");
    const FilledBuffer nothing(BufferingPolicy::bufferingNewest(0), {"a"});
    EXPECT_TRAP((void)nothing[0], "no element at this index");
}

TEST(BufferDeathTest, AnIndexThatBecomesTooLargeTrapsUnderEveryPolicy) {
    for (const auto& policy : kPolicies) {
        const StringBuffer buffer(policy);
        EXPECT_TRAP((void)buffer.indexAfter(kLargest), "the index is too large");
    }
}

// Against models: a list, and a map from each index to its element.

struct ModelQueue {
    std::map<std::int64_t, int> sparseArray;
    std::int64_t size;
    std::int64_t maxSize;
    std::int64_t startIndex;

    void append(int element) {
        sparseArray[startIndex + size] = element;
        if (size < maxSize) {
            ++size;
            return;
        }
        sparseArray.erase(startIndex);
        ++startIndex;
    }
    [[nodiscard]] std::map<std::int64_t, int> held() const { return sparseArray; }
    [[nodiscard]] std::int64_t start() const { return startIndex; }
    [[nodiscard]] std::int64_t end() const { return startIndex + size; }
    [[nodiscard]] std::int64_t indexAfter(std::int64_t index) const {
        return index < startIndex ? startIndex : index + 1;
    }
};

struct ModelList {
    std::vector<int> list;
    std::int64_t maxSize;

    void append(int element) {
        if (end() < maxSize) {
            list.push_back(element);
        }
    }
    [[nodiscard]] std::map<std::int64_t, int> held() const {
        std::map<std::int64_t, int> held;
        for (const int element : list) {
            held.emplace(static_cast<std::int64_t>(held.size()), element);
        }
        return held;
    }
    [[nodiscard]] std::int64_t start() const { return 0; }
    [[nodiscard]] std::int64_t end() const { return static_cast<std::int64_t>(list.size()); }
    [[nodiscard]] std::int64_t indexAfter(std::int64_t index) const { return index + 1; }
};

/// Appends the same to both, and compares all that can be asked after each element.
template <class Kept, class Model>
void checkAgainst(Model model, Kept& kept) {
    for (const int element : *rc::gen::arbitrary<std::vector<int>>()) {
        kept.append(element);
        model.append(element);
        RC_ASSERT(kept.startIndex() == model.start());
        RC_ASSERT(kept.endIndex() == model.end());
        std::map<std::int64_t, int> held;
        for (std::int64_t index = kept.startIndex(); index < kept.endIndex(); ++index) {
            held.emplace(index, kept[index]);
        }
        RC_ASSERT(held == model.held());
        for (std::int64_t index = -2; index < kept.endIndex() + 2; ++index) {
            RC_ASSERT(kept.indexAfter(index) == model.indexAfter(index));
        }
    }
}

rc::Gen<std::int64_t> limits() {
    return rc::gen::inRange<std::int64_t>(-2, 12);
}

RC_GTEST_PROP(BufferModel, UnboundedIsAList, ()) {
    Buffer<int> buffer(BufferingPolicy::unbounded());
    checkAgainst(ModelList{{}, kLargest}, buffer);
}

RC_GTEST_PROP(BufferModel, OldestIsAListThatStopsGrowing, ()) {
    const auto limit = *limits();
    Buffer<int> buffer(BufferingPolicy::bufferingOldest(limit));
    checkAgainst(ModelList{{}, limit}, buffer);
}

RC_GTEST_PROP(BufferModel, NewestIsASparseQueueAndOfNoSizeAListThatIsFull, ()) {
    const auto limit = *limits();
    Buffer<int> buffer(BufferingPolicy::bufferingNewest(limit));
    if (limit == 0) {
        checkAgainst(ModelList{{}, 0}, buffer);
    } else {
        checkAgainst(ModelQueue{{}, 0, limit, 0}, buffer);
    }
}

RC_GTEST_PROP(LimitedQueueModel, HoldsExactlyTheIndicesFromItsStartToItsEnd, ()) {
    const auto maxSize = *limits();
    LimitedQueue<int> queue(maxSize);
    checkAgainst(ModelQueue{{}, 0, maxSize, 0}, queue);
}

}  // namespace
}  // namespace vantorq::detail
