#include "VantorqFoundation/Platform/DispatchTimer.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <latch>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Threads.h"

namespace vantorq {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kMillisecond = 1'000'000;
constexpr std::uint64_t kHour = 3'600'000'000'000;

template <class F>
Ref<DispatchTimer> startTimer(const Ref<DispatchQueue>& queue, std::uint64_t delay, F handler) {
    auto timer = DispatchTimer::timer(queue, std::move(handler));
    timer->schedule(delay);
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
    awaitTimersDueNow();
    DispatchQueue::serial("s")->sync([] {});
    EXPECT_LE(count, 1);
    while (count == 0) {
    }
}

TEST(DispatchTimer, DoesNotFireBeforeItIsScheduled) {
    HeldQueue held;
    bool fired = false;
    const auto timer = DispatchTimer::timer(held.queue, [&] { fired = true; });
    awaitTimersDueNow();
    held.letGoAndDrain();
    EXPECT_FALSE(fired);
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
    const auto captured = DispatchTimer::timer(DispatchQueue::global(), [] {});
    auto timer = startTimer(DispatchQueue::global(), kHour, [captured] {});
    EXPECT_EQ(captured->ownerCount(), 2U);
    timer.reset();
    EXPECT_EQ(captured->ownerCount(), 1U);
}

TEST(DispatchTimer, EnormousTimesNeverCome) {
    const auto timer = DispatchTimer::timer(DispatchQueue::global(), [] { abort(); });
    timer->schedule(UINT64_MAX, UINT64_MAX);
    const auto other = startTimer(DispatchQueue::global(), INT64_MAX, [] { abort(); });
    awaitTimersDueNow();
}

TEST(DispatchTimer, ALeewayDoesNotMakeItFireEarly) {
    const auto start = Clock::now();
    Clock::time_point firedAt;
    std::latch fired(1);
    const auto timer = DispatchTimer::timer(DispatchQueue::global(), [&] {
        firedAt = Clock::now();
        fired.count_down();
    });
    timer->schedule(10 * kMillisecond, 30 * kMillisecond);
    fired.wait();
    EXPECT_GE(firedAt - start, 10ms);
}

/// From a second on, the leeway spares the timer the exact time.
TEST(DispatchTimer, AGenerousLeewayDoesNotMakeItFireEarlyOrLate) {
    HeldQueue held;
    bool fired = false;
    const auto later = DispatchTimer::timer(held.queue, [&] { fired = true; });
    later->schedule(kHour, kHour / 10);
    std::latch waited(1);
    const auto start = Clock::now();
    const auto timer = DispatchTimer::timer(DispatchQueue::global(), [&] { waited.count_down(); });
    timer->schedule(10 * kMillisecond, 1'000 * kMillisecond);
    waited.wait();
    EXPECT_GE(Clock::now() - start, 10ms);
    awaitTimersDueNow();
    held.letGoAndDrain();
    EXPECT_FALSE(fired);
}

TEST(DispatchTimer, TheHandlerMayBeMoveOnlyAndLarge) {
    std::latch fired(1);
    std::array<int, 100> numbers{};
    numbers.back() = 7;
    int seen = 0;
    const auto timer =
        startTimer(DispatchQueue::global(), 0, [&, numbers, one = std::make_unique<int>(1)] {
            seen = numbers.back() + *one;
            fired.count_down();
        });
    fired.wait();
    EXPECT_EQ(seen, 8);
}

/// A copy may take locks that others hold while they arm or cancel timers.
TEST(DispatchTimer, AHandlerThatCanOnlyBeCopiedIsNotWhenItFires) {
    struct CopyOnly {
        explicit CopyOnly(int& of) : copies(of) {}
        CopyOnly(const CopyOnly& other) : copies(other.copies) { ++copies; }
        int& copies;
    };
    int copies = 0;
    std::latch fired(1);
    const auto timer = DispatchTimer::timer(
        DispatchQueue::global(), [&fired, held = CopyOnly(copies)] { fired.count_down(); });
    const int before = copies;
    timer->schedule(0);
    fired.wait();
    EXPECT_EQ(copies, before);
}

TEST(DispatchTimer, ItsThreadEndsThoughATimerThatNeverComesIsLeft) {
    const auto never = startTimer(DispatchQueue::global(), UINT64_MAX, [] { abort(); });
    {
        const auto distant = startTimer(DispatchQueue::global(), kHour, [] { abort(); });
        std::this_thread::sleep_for(2500ms);  // by now the thread sleeps to the distant one
    }
    EXPECT_TRUE(test::eventually([] { return test::countThreads("vntq-timer") == 0; }));
}

TEST(DispatchTimer, IsNotCancelledOnceItsHandlerHasBegun) {
    std::latch begun(1);
    std::latch mayGoOn(1);
    const auto queue = DispatchQueue::serial("s");
    const auto timer = startTimer(queue, 0, [&] {
        begun.count_down();
        mayGoOn.wait();
    });
    begun.wait();
    timer->cancel();
    EXPECT_FALSE(timer->isCancelled());
    mayGoOn.count_down();
    queue->sync([] {});
}

/// The store of timers must not be locked by whoever destroys a handler.
TEST(DispatchTimer, AHandlerMayHoldTheLastOwnerOfAnotherTimer) {
    for (int i = 0; i < 200; ++i) {
        auto other = startTimer(DispatchQueue::global(), kHour, [] { abort(); });
        const auto timer = startTimer(DispatchQueue::global(), static_cast<std::uint64_t>(i) * 500,
                                      [other = std::move(other)] {});
        timer->cancel();
    }
    awaitTimersDueNow();
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

/// They are armed so that all are due when the first of them has to fire.
TEST(DispatchTimer, TimersOfSeveralThreadsFireInTheOrderOfTheirLastMoments) {
    constexpr int kThreads = 6;
    HeldQueue held;
    std::vector<int> fired;
    std::vector<Ref<DispatchTimer>> timers;
    const auto start = Clock::now();
    for (int number = 0; number < kThreads; ++number) {
        std::thread([&] {
            const auto latest = start + 600ms - number * 50ms;
            timers.push_back(
                DispatchTimer::timer(held.queue, [&fired, number] { fired.push_back(number); }));
            timers.back()->schedule(0, static_cast<std::uint64_t>((latest - Clock::now()) / 1ns));
        }).join();
    }
    std::this_thread::sleep_until(start + 600ms);
    awaitTimersDueNow();
    held.letGoAndDrain();
    EXPECT_EQ(fired, (std::vector{5, 4, 3, 2, 1, 0}));
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

}  // namespace
}  // namespace vantorq
