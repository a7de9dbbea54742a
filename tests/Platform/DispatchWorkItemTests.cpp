#include "VantorqFoundation/Platform/DispatchWorkItem.h"

#include <atomic>
#include <latch>
#include <limits>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Trap.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

TEST(DispatchWorkItem, RunsOnTheQueueItIsGivenTo) {
    const auto queue = DispatchQueue::serial("s");
    DispatchQueue* ranOn = nullptr;
    const auto item = make<DispatchWorkItem>([&] { ranOn = DispatchQueue::current(); });
    queue->async(*item);
    item->wait();
    EXPECT_EQ(ranOn, queue.get());
}

TEST(DispatchWorkItem, PerformRunsItInPlace) {
    int count = 0;
    const auto item = make<DispatchWorkItem>([&] { ++count; });
    item->perform();
    EXPECT_EQ(count, 1);
    EXPECT_TRUE(item->wait(0));
}

TEST(DispatchWorkItem, RunsAsOftenAsItIsExecuted) {
    int count = 0;
    const auto item = make<DispatchWorkItem>([&] { ++count; });
    item->perform();
    item->perform();
    EXPECT_EQ(count, 2);
}

TEST(DispatchWorkItem, CancelledBeforeItBeginsItSkipsTheBlockAndCompletes) {
    const auto queue = DispatchQueue::serial("s");
    int count = 0;
    const auto item = make<DispatchWorkItem>([&] { ++count; });
    queue->sync([&] {
        queue->async(*item);
        item->cancel();
    });
    item->wait();
    EXPECT_TRUE(item->isCancelled());
    EXPECT_EQ(count, 0);
}

TEST(DispatchWorkItem, CancellingWhileItRunsDoesNotDisturbIt) {
    std::latch begun(1);
    std::latch mayGoOn(1);
    bool hasEnded = false;
    const auto item = make<DispatchWorkItem>([&] {
        begun.count_down();
        mayGoOn.wait();
        hasEnded = true;
    });
    EXPECT_FALSE(item->isCancelled());
    DispatchQueue::global()->async(*item);
    begun.wait();
    item->cancel();
    mayGoOn.count_down();
    item->wait();
    EXPECT_TRUE(hasEnded);
}

TEST(DispatchWorkItem, WaitingForALimitedTimeTellsWhetherItIsComplete) {
    const auto item = make<DispatchWorkItem>([] {});
    EXPECT_FALSE(item->wait(0.001));
    EXPECT_FALSE(item->wait(-1));
    EXPECT_FALSE(item->wait(std::numeric_limits<double>::quiet_NaN()));
    DispatchQueue::global()->async(*item);
    EXPECT_TRUE(item->wait(std::numeric_limits<double>::infinity()));
}

TEST(DispatchWorkItem, NotifyQueuesABlockWhenItCompletes) {
    const auto queue = DispatchQueue::serial("s");
    std::vector<int> seen;
    std::latch done(2);
    const auto item = make<DispatchWorkItem>([&] { seen.push_back(1); });
    const auto follow = [&] {
        seen.push_back(2);
        done.count_down();
    };
    item->notify(*queue, follow);
    item->notify(*queue, follow);
    queue->sync([] {});
    EXPECT_TRUE(seen.empty());
    queue->async(*item);
    done.wait();
    EXPECT_EQ(seen, (std::vector{1, 2, 2}));
}

TEST(DispatchWorkItem, NotifyQueuesAtOnceWhenItIsComplete) {
    const auto queue = DispatchQueue::serial("s");
    const auto item = make<DispatchWorkItem>([] {});
    item->perform();
    bool ran = false;
    item->notify(*queue, [&] { ran = true; });
    queue->sync([] {});
    EXPECT_TRUE(ran);
}

TEST(DispatchWorkItem, ADelayedOneThatIsCancelledIsSkipped) {
    int count = 0;
    const auto cancelled = make<DispatchWorkItem>([&] { ++count; });
    const auto other = make<DispatchWorkItem>([] {});
    DispatchQueue::global()->asyncAfter(0.01, *cancelled);
    DispatchQueue::global()->asyncAfter(0.01, *other);
    cancelled->cancel();
    cancelled->wait();
    other->wait();
    EXPECT_EQ(count, 0);
}

TEST(DispatchWorkItem, StaysAliveUntilItHasRun) {
    std::latch done(1);
    DispatchQueue::global()->async(*make<DispatchWorkItem>([&] { done.count_down(); }));
    done.wait();
}

TEST(DispatchWorkItem, AnEmptyBlockTraps) {
    EXPECT_TRAP((void)make<DispatchWorkItem>(Block<void()>()), "made of an empty block");
}

TEST(DispatchWorkItem, AnswersMessages) {
    int count = 0;
    const auto item = make<DispatchWorkItem>([&] { ++count; });
    send<void>(item, "perform"_sel);
    send<void>(item, "wait"_sel);
    EXPECT_FALSE(send<bool>(item, "isCancelled"_sel));
    send<void>(item, "cancel"_sel);
    EXPECT_TRUE(send<bool>(item, "isCancelled"_sel));
    EXPECT_EQ(count, 1);
}

}  // namespace
}  // namespace vantorq
