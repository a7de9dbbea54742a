#include <algorithm>
#include <atomic>
#include <cstddef>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Support/AsyncSources.h"
#include "Support/Threads.h"
#include "VantorqFoundation/AsyncBroadcast.h"
#include "VantorqFoundation/Platform/Task.h"

namespace vantorq {
namespace {

using test::Manner;
using test::Source;
using Shared = AsyncBroadcast<Source>;

constexpr int kConsumers = 100;

/// What a consumer has received.
struct Record {
    std::vector<int> values;
    bool hasEnded = false;
    bool hasFailed = false;
};

/// Reads up to `limit` elements, and to the end or the error if it comes first.
Async<Record> consume(Ref<Shared> shared, int limit) {
    Record record;
    auto iterator = shared->makeAsyncIterator();
    shared.reset();
    try {
        while (static_cast<int>(record.values.size()) < limit) {
            auto pending = iterator.next();
            const auto item = co_await std::move(pending);
            if (!item.has_value()) {
                record.hasEnded = true;
                break;
            }
            record.values.push_back(item->value);
        }
    } catch (const test::SourceError&) {
        record.hasFailed = true;
    }
    co_return record;
}

/// Nothing twice, and nothing out of order.
bool isIncreasing(const std::vector<int>& values) {
    for (std::size_t i = 1; i < values.size(); ++i) {
        if (values[i] <= values[i - 1]) {
            return false;
        }
    }
    return true;
}

/// Everything from the first element on.
bool isWithoutGap(const std::vector<int>& values) {
    return values.empty() ||
           (isIncreasing(values) && values.back() == static_cast<int>(values.size()) - 1);
}

struct Case {
    BufferingPolicy policy;
    Manner manner;
    bool fails;

    /// What is there at once is read so fast that it takes more for the consumers to meet.
    [[nodiscard]] int count() const { return manner == Manner::atOnce ? 20'000 : 1'000; }
};

void PrintTo(const Case& which, std::ostream* out) {
    *out << "policy " << static_cast<int>(which.policy.kind()) << " of " << which.policy.limit()
         << ", manner " << static_cast<int>(which.manner) << ", fails " << which.fails;
}

/// Every third consumer leaves early, another third is cancelled at some time, and the rest stay.
enum class Kind { stays, leaves, isCancelled };
Kind kindOf(int number) {
    return static_cast<Kind>(number % 3);
}
/// How many elements a consumer is for, of a source that has `count`.
int limitOf(int number, int count) {
    return kindOf(number) == Kind::leaves ? number : count + 1;
}

class AsyncBroadcastStress : public ::testing::TestWithParam<Case> {
protected:
    const int count_ = GetParam().count();
    test::Census census_;
    Source source_{{count_, GetParam().fails, GetParam().manner}, census_};
    Ref<Shared> shared_ = broadcast(source_, GetParam().policy);

    /// Consumer 0 is there from the beginning to the end.
    void check(int number, const Record& record) const {
        const bool isUnbounded = GetParam().policy == BufferingPolicy::unbounded();
        SCOPED_TRACE("consumer " + std::to_string(number));
        EXPECT_TRUE(isUnbounded ? isWithoutGap(record.values) : isIncreasing(record.values));
        // All that it is for, or what there was up to the end.
        const auto limit = static_cast<std::size_t>(limitOf(number, count_));
        EXPECT_EQ(record.hasEnded || record.hasFailed, record.values.size() < limit);
        EXPECT_FALSE(record.hasFailed && !GetParam().fails);
        if (kindOf(number) == Kind::isCancelled) {
            return;
        }
        EXPECT_FALSE(record.hasEnded && GetParam().fails);
        if (isUnbounded) {
            const auto count = static_cast<std::size_t>(count_);
            EXPECT_EQ(record.values.size(), std::min(limit, count));
        }
    }
    void checkSource() {
        EXPECT_EQ(source_.account().calls, count_ + 1);
        EXPECT_EQ(source_.account().returned, count_);
        EXPECT_LE(source_.account().mostUnderWay, 1);
        EXPECT_FALSE(source_.account().wasCancelled);
        // A thread that has read may not have let go yet.
        EXPECT_TRUE(test::eventually([&] { return shared_->ownerCount() == 1; }));
        shared_.reset();
        EXPECT_TRUE(test::eventually([&] { return census_.isEmpty(); }));
    }
    /// Lets those who are there read the source so far, and waits until they have.
    void letReadUpTo(int place) const {
        source_.account().allowed = place == count_ ? count_ + 1 : place;
        while (source_.account().returned < place) {
            std::this_thread::yield();
        }
    }
};

TEST_P(AsyncBroadcastStress, ConsumersJoinAndLeaveWhileTheSourceIsReadToItsEnd) {
    std::vector<Task<Record>> tasks;
    for (int number = 0; number < kConsumers; ++number) {
        const int place = number * count_ / kConsumers;
        letReadUpTo(place);
        const int limit = limitOf(number, count_);
        tasks.push_back(Task<Record>::start([this, limit] { return consume(shared_, limit); }));
        const int earlier = number - 6;
        if (earlier >= 0 && kindOf(earlier) == Kind::isCancelled) {
            tasks[static_cast<std::size_t>(earlier)].cancel();
        }
    }
    letReadUpTo(count_);
    for (int number = 0; number < kConsumers; ++number) {
        check(number, syncWait(tasks[static_cast<std::size_t>(number)]));
    }
    tasks.clear();
    checkSource();
}

TEST_P(AsyncBroadcastStress, ThreadsWaitBesideTasks) {
    std::vector<Task<Record>> tasks;
    for (int number = 0; number < 8; ++number) {
        tasks.push_back(Task<Record>::start([this] { return consume(shared_, count_ + 1); }));
    }
    std::vector<Record> records(3);
    test::together(3, [&](int thread) {
        records[static_cast<std::size_t>(thread)] = syncWait(consume(shared_, count_ + 1));
    });
    for (const Record& record : records) {
        check(0, record);
    }
    for (const auto& task : tasks) {
        check(0, syncWait(task));
    }
    tasks.clear();
    checkSource();
}

INSTANTIATE_TEST_SUITE_P(
    Policies, AsyncBroadcastStress,
    ::testing::Values(Case{BufferingPolicy::unbounded(), Manner::yielding, false},
                      Case{BufferingPolicy::unbounded(), Manner::yielding, true},
                      Case{BufferingPolicy::unbounded(), Manner::atOnce, false},
                      Case{BufferingPolicy::unbounded(), Manner::atOnce, true},
                      Case{BufferingPolicy::bufferingNewest(16), Manner::yielding, false},
                      Case{BufferingPolicy::bufferingNewest(16), Manner::atOnce, true},
                      Case{BufferingPolicy::bufferingOldest(16), Manner::yielding, true},
                      Case{BufferingPolicy::bufferingNewest(0), Manner::atOnce, false}));

TEST(AsyncBroadcastEndStress, WhoComesJustAsTheSourceEndsReceivesAllOfItAndThenTheEnd) {
    constexpr int kThreads = 3;
    test::Census census;
    for (int round = 0; round < 400; ++round) {
        const bool fails = round % 2 == 0;
        const Manner manner = round % 4 < 2 ? Manner::yielding : Manner::atOnce;
        const Source source({2, fails, manner}, census);
        Source::Account& account = source.account();
        account.allowed = 2;
        const auto shared = broadcast(source, BufferingPolicy::unbounded());
        std::vector<Task<Record>> early;
        if (manner == Manner::yielding) {
            early.push_back(Task<Record>::start([&] { return consume(shared, 3); }));
            while (account.calls < 3) {
                std::this_thread::yield();
            }
        }
        std::vector<Record> records(kThreads);
        test::together(kThreads, [&](int thread) {
            if (thread == 0) {
                account.allowed = 3;  // the end, which somebody waits for, comes now
            }
            records[static_cast<std::size_t>(thread)] = syncWait(consume(shared, 3));
        });
        for (const auto& task : early) {
            records.push_back(syncWait(task));
        }
        for (const Record& record : records) {
            ASSERT_EQ(record.values, (std::vector{0, 1}));
            ASSERT_EQ(record.hasEnded, !fails);
            ASSERT_EQ(record.hasFailed, fails);
        }
        ASSERT_EQ(account.calls, 3);
        ASSERT_EQ(account.mostUnderWay, 1);
    }
    EXPECT_TRUE(test::eventually([&] { return census.isEmpty(); }));
}

// A broadcast has one owner less at each consumer's end: the last one, whichever that is, takes it
// along while others leave.
TEST(AsyncBroadcastLifeStress, TheLastOfManyConsumersTakesTheBroadcastWithIt) {
    test::Census census;
    for (int round = 0; round < 100; ++round) {
        std::vector<Task<Record>> tasks;
        {
            const Source source({2, round % 2 == 0, Manner::yielding}, census);
            const auto shared = broadcast(source, BufferingPolicy::unbounded());
            for (int number = 0; number < 4; ++number) {
                tasks.push_back(Task<Record>::start([shared] { return consume(shared, 3); }));
            }
        }
        for (const auto& task : tasks) {
            ASSERT_EQ(syncWait(task).values, (std::vector{0, 1}));
        }
    }
    EXPECT_TRUE(test::eventually([&] { return census.isEmpty(); }));
}

}  // namespace
}  // namespace vantorq
