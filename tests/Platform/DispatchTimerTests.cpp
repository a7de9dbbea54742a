#include "VantorqFoundation/Platform/DispatchTimer.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <latch>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Trap.h"

namespace vantorq {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kMillisecond = 1'000'000;
constexpr std::uint64_t kHour = 3'600'000'000'000;

template <class F>
Ref<DispatchTimer> startTimer(const Ref<DispatchQueue>& queue, std::uint64_t delay, F handler) {
    auto timer = make<DispatchTimer>(queue);
    timer->setEventHandler(std::move(handler));
    timer->schedule(delay);
    timer->resume();
    return timer;
}

/// Returns when every timer that is due now has been taken from the store.
void awaitTimersDueNow() {
    std::latch fired(1);
    const auto timer =
        startTimer(DispatchQueue::global(), kMillisecond, [&] { fired.count_down(); });
    fired.wait();
}

/// A serial queue that runs nothing until it is let go.
class HeldQueue {
public:
    HeldQueue() {
        queue->async([this] { mayGoOn_.wait(); });
    }
    void letGoAndDrain() {
        mayGoOn_.count_down();
        queue->sync([] {});
    }
    const Ref<DispatchQueue> queue = DispatchQueue::serial("held");

private:
    std::latch mayGoOn_{1};
};

TEST(DispatchTimer, FiresOnItsQueueNotBeforeItsTime) {
    const auto queue = DispatchQueue::serial("s");
    const auto start = Clock::now();
    Clock::time_point firedAt;
    DispatchQueue* firedOn = nullptr;
    std::latch fired(1);
    const auto timer = startTimer(queue, 20 * kMillisecond, [&] {
        firedAt = Clock::now();
        firedOn = DispatchQueue::current();
        fired.count_down();
    });
    fired.wait();
    EXPECT_GE(firedAt - start, 20ms);
    EXPECT_EQ(firedOn, queue.get());
}

TEST(DispatchTimer, FiresOnce) {
    std::atomic<int> count = 0;
    const auto timer = startTimer(DispatchQueue::global(), 0, [&] { ++count; });
    awaitTimersDueNow();
    timer->schedule(0);
    timer->resume();
    awaitTimersDueNow();
    DispatchQueue::serial("s")->sync([] {});
    EXPECT_LE(count, 1);
    while (count == 0) {
    }
}

TEST(DispatchTimer, DoesNotFireBeforeItIsResumed) {
    HeldQueue held;
    bool fired = false;
    const auto timer = make<DispatchTimer>(held.queue);
    timer->setEventHandler([&] { fired = true; });
    timer->schedule(0);
    awaitTimersDueNow();
    held.letGoAndDrain();
    EXPECT_FALSE(fired);
}

TEST(DispatchTimer, MayBeResumedBeforeItIsScheduled) {
    std::latch fired(1);
    const auto timer = make<DispatchTimer>(DispatchQueue::global());
    timer->setEventHandler([&] { fired.count_down(); });
    timer->resume();
    awaitTimersDueNow();
    EXPECT_FALSE(fired.try_wait());
    timer->schedule(0);
    fired.wait();
}

TEST(DispatchTimer, SchedulingAgainMovesIt) {
    std::latch fired(1);
    const auto timer = startTimer(DispatchQueue::global(), kHour, [&] { fired.count_down(); });
    timer->schedule(kMillisecond);
    fired.wait();
}

TEST(DispatchTimer, ScheduledForLaterItDoesNotFireAtItsOldTime) {
    HeldQueue held;
    bool fired = false;
    const auto timer = startTimer(held.queue, kHour / 2, [&] { fired = true; });
    timer->schedule(kHour);
    awaitTimersDueNow();
    held.letGoAndDrain();
    EXPECT_FALSE(fired);
}

TEST(DispatchTimer, AnEarlierTimerOvertakesAWaitingOne) {
    const auto later = startTimer(DispatchQueue::global(), kHour, [] { abort(); });
    awaitTimersDueNow();
    const auto muchLater = startTimer(DispatchQueue::global(), 2 * kHour, [] { abort(); });
    awaitTimersDueNow();
}

TEST(DispatchTimer, ACancelledOneNeverFires) {
    HeldQueue held;
    bool fired = false;
    const auto timer = startTimer(held.queue, 0, [&] { fired = true; });
    timer->cancel();
    EXPECT_TRUE(timer->isCancelled());
    timer->schedule(0);
    awaitTimersDueNow();
    held.letGoAndDrain();
    EXPECT_FALSE(fired);
}

TEST(DispatchTimer, CancellingKeepsAHandlerThatIsQueuedAlreadyFromBeginning) {
    HeldQueue held;
    bool fired = false;
    const auto timer = startTimer(held.queue, 0, [&] { fired = true; });
    awaitTimersDueNow();
    timer->cancel();
    held.letGoAndDrain();
    EXPECT_FALSE(fired);
}

TEST(DispatchTimer, LettingGoCancelsIt) {
    HeldQueue held;
    bool fired = false;
    (void)startTimer(held.queue, kMillisecond, [&] { fired = true; });
    auto queued = startTimer(held.queue, 0, [&] { fired = true; });
    awaitTimersDueNow();
    queued.reset();
    held.letGoAndDrain();
    EXPECT_FALSE(fired);
}

TEST(DispatchTimer, LettingGoWithinTheHandlerIsAllowed) {
    std::latch done(1);
    std::latch isStored(1);
    Ref<DispatchTimer> timer;
    timer = startTimer(DispatchQueue::global(), 0, [&, alive = 7] {
        isStored.wait();
        timer.reset();
        if (alive == 7) {
            done.count_down();
        }
    });
    isStored.count_down();
    done.wait();
}

TEST(DispatchTimer, LetsGoOfItsHandlerWithItself) {
    const auto captured = make<DispatchTimer>(DispatchQueue::global());
    auto timer = startTimer(DispatchQueue::global(), kHour, [captured] {});
    EXPECT_EQ(captured->ownerCount(), 2U);
    timer.reset();
    EXPECT_EQ(captured->ownerCount(), 1U);
}

TEST(DispatchTimer, EnormousTimesNeverCome) {
    const auto timer = make<DispatchTimer>(DispatchQueue::global());
    timer->setEventHandler([] { abort(); });
    timer->schedule(UINT64_MAX, UINT64_MAX);
    timer->resume();
    const auto other = startTimer(DispatchQueue::global(), INT64_MAX, [] { abort(); });
    awaitTimersDueNow();
}

TEST(DispatchTimer, ALeewayDoesNotMakeItFireEarly) {
    const auto start = Clock::now();
    Clock::time_point firedAt;
    std::latch fired(1);
    const auto timer = make<DispatchTimer>(DispatchQueue::global());
    timer->setEventHandler([&] {
        firedAt = Clock::now();
        fired.count_down();
    });
    timer->schedule(10 * kMillisecond, 30 * kMillisecond);
    timer->resume();
    fired.wait();
    EXPECT_GE(firedAt - start, 10ms);
}

TEST(DispatchTimer, ManyTimersFireEachNotBeforeItsTime) {
    constexpr int kTimers = 5'000;
    std::mt19937 random(1);
    std::uniform_int_distribution<std::uint64_t> delay(0, 100 * kMillisecond);
    std::atomic<int> early = 0;
    std::latch fired(kTimers);
    std::vector<Ref<DispatchTimer>> timers;
    for (int i = 0; i < kTimers; ++i) {
        const std::uint64_t nanoseconds = delay(random);
        const auto due = Clock::now() + std::chrono::nanoseconds(nanoseconds);
        timers.push_back(startTimer(DispatchQueue::global(), nanoseconds, [&, due] {
            early += Clock::now() < due ? 1 : 0;
            fired.count_down();
        }));
    }
    fired.wait();
    EXPECT_EQ(early, 0);
}

TEST(DispatchTimer, AHundredThousandMayBeArmedAndCancelledInAnyOrder) {
    constexpr int kTimers = 100'000;
    std::mt19937 random(2);
    std::uniform_int_distribution<std::uint64_t> delay(kHour, 2 * kHour);
    std::vector<Ref<DispatchTimer>> timers;
    for (int i = 0; i < kTimers; ++i) {
        timers.push_back(startTimer(DispatchQueue::global(), delay(random), [] { abort(); }));
    }
    std::ranges::shuffle(timers, random);
    for (const auto& timer : timers) {
        timer->cancel();
    }
    awaitTimersDueNow();
}

TEST(DispatchTimer, ResumingWithoutAHandlerTraps) {
    EXPECT_TRAP(make<DispatchTimer>(DispatchQueue::global())->resume(),
                "resumed without a handler");
}

TEST(DispatchTimer, SettingTheHandlerAfterResumingTraps) {
    const auto timer = startTimer(DispatchQueue::global(), kHour, [] {});
    EXPECT_TRAP(timer->setEventHandler([] {}), "the handler was set after resume");
}

}  // namespace
}  // namespace vantorq
