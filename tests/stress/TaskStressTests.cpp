#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Rounds.h"
#include "Support/Tasks.h"
#include "Support/Threads.h"
#include "VantorqFoundation/Platform/Actor.h"
#include "VantorqFoundation/Platform/ContinuousClock.h"
#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/Platform/WhenAll.h"
#include "VantorqFoundation/Platform/WhenAny.h"

namespace vantorq {
namespace {

using namespace std::chrono_literals;
using test::Counted;
using test::Gate;
using test::Token;

constexpr int kThreads = 4;

/// Waits until the last thread has let go of what a task has held.
void expectNoTokens() {
    EXPECT_TRUE(test::eventually([] { return Counted::living == 0; })) << Counted::living;
}

Async<int> hold(Ref<Token> token, int value) {
    co_await thisTask::yield();
    co_return token != nullptr ? value : -1;
}

Async<int> sleepLong(Ref<Token> token) {
    auto sleeping = ContinuousClock::sleepFor(1h);
    co_await std::move(sleeping);
    co_return token != nullptr ? 1 : -1;
}

TEST(TaskStress, TasksAreStartedAndAwaitedFromManyThreads) {
    constexpr int kEach = 5'000;
    std::atomic<int> sum = 0;
    test::together(kThreads, [&](int) {
        for (int i = 0; i < kEach; ++i) {
            const auto task = Task<int>::start([token = make<Token>()] { return hold(token, 1); });
            sum += syncWait(task);
        }
    });
    EXPECT_EQ(sum, kThreads * kEach);
    expectNoTokens();
}

TEST(TaskStress, OneTaskIsAwaitedByManyWhileItEnds) {
    constexpr int kRounds = 300;
    for (int round = 0; round < kRounds; ++round) {
        Gate gate;
        const auto task = Task<int>::start([&gate]() -> Async<int> {
            co_await gate.wait();
            co_return 1;
        });
        std::atomic<int> sum = 0;
        test::together(kThreads, [&](int number) {
            if (number == 0) {
                gate.open();
            }
            const auto waiter =
                Task<int>::start([&task]() -> Async<int> { co_return co_await task.value(); });
            sum += syncWait(task) + syncWait(waiter);
        });
        ASSERT_EQ(sum, 2 * kThreads);
    }
}

TEST(TaskStress, CancellationRacesWithTheEndOfTheOperation) {
    constexpr int kEach = 2'000;
    std::atomic<int> started = 0;
    std::atomic<int> ended = 0;
    std::atomic<int> lateHandlers = 0;
    test::together(kThreads, [&](int) {
        for (int i = 0; i < kEach; ++i) {
            Gate gate;
            const auto task = Task<>::start([&, token = make<Token>()]() -> Async<> {
                ++started;
                bool isOver = false;
                auto pending = withTaskCancellationHandler([&gate] { return gate.wait(); },
                                                           [&] { lateHandlers += isOver ? 1 : 0; });
                co_await std::move(pending);
                isOver = true;
                ++ended;
            });
            const auto canceller = Task<>::start([&task]() -> Async<> {
                task.cancel();
                co_return;
            });
            gate.open();
            syncWait(task);
            syncWait(canceller);
        }
    });
    EXPECT_EQ(started, kThreads * kEach);
    EXPECT_EQ(ended, kThreads * kEach);
    EXPECT_EQ(lateHandlers, 0);
    expectNoTokens();
}

TEST(TaskStress, SleepsAreCancelledWhileTheirTimeComes) {
    constexpr int kEach = 1'000;
    std::atomic<int> over = 0;
    std::atomic<int> cancelled = 0;
    test::together(kThreads, [&](int number) {
        for (int i = 0; i < kEach; ++i) {
            const auto length = (i + number) % 7 * 20us;
            const auto task = Task<>::start([length]() -> Async<> {
                auto sleeping = ContinuousClock::sleepFor(length);
                co_await std::move(sleeping);
            });
            for (int turn = 0; turn < i % 40; ++turn) {
                std::this_thread::yield();
            }
            task.cancel();
            try {
                syncWait(task);
                ++over;
            } catch (const CancellationError&) {
                ++cancelled;
            }
        }
    });
    EXPECT_EQ(over + cancelled, kThreads * kEach);
    EXPECT_GT(cancelled, 0);
}

TEST(TaskStress, ActorsAreEnteredFromManyTasks) {
    constexpr int kTasks = 64;
    constexpr int kRounds = 500;
    constexpr std::size_t kActors = 3;
    struct Counter final : Actor {
        int count = 0;
    };
    const std::vector<Ref<Counter>> counters{make<Counter>(), make<Counter>(), make<Counter>()};
    std::vector<Task<>> tasks;
    for (int number = 0; number < kTasks; ++number) {
        tasks.push_back(Task<>::start([&counters, number, token = make<Token>()]() -> Async<> {
            for (int round = 0; round < kRounds; ++round) {
                const auto index = static_cast<std::size_t>(number + round);
                Counter& outer = *counters[index % kActors];
                Counter& inner = *counters[(index + 1) % kActors];
                co_await outer.enter();
                ++outer.count;
                auto call = inner.run([&inner] { ++inner.count; });
                co_await std::move(call);
                ++outer.count;
                if (round % 16 == 0) {
                    co_await Actor::leave();
                    co_await thisTask::yield();
                }
            }
        }));
    }
    for (const auto& task : tasks) {
        syncWait(task);
    }
    int sum = 0;
    for (const auto& counter : counters) {
        sum += counter->count;
    }
    EXPECT_EQ(sum, 3 * kTasks * kRounds);
    tasks.clear();
    expectNoTokens();
}

// What waits is sent back to one actor, busy or idle, by several threads at one moment.
TEST(TaskStress, ManyComeBackToOneActorAtOnceAndHaveItOneByOne) {
    constexpr std::uint64_t kRounds = 2'000;
    constexpr std::size_t kTasks = 24;
    const auto actor = make<Actor>();
    std::array<std::optional<Gate>, kThreads> gates;
    std::array<int, kTasks> returns{};
    int inside = 0;  // of the one that has the actor
    bool hasMet = false;
    std::vector<Task<>> tasks;
    const auto comeBack = [&](std::size_t number) {
        return [&, number, token = make<Token>()]() -> Async<> {
            co_await actor->enter();
            co_await gates[number % kThreads]->wait();
            hasMet = hasMet || !actor->isCurrent() || ++inside != 1;
            ++returns[number];
            --inside;
        };
    };
    const auto waiterCount = [&] {
        std::size_t count = 0;
        for (const auto& gate : gates) {
            count += gate->waiterCount();
        }
        return count;
    };
    const auto prepare = [&](std::uint64_t) {
        for (const auto& task : tasks) {
            syncWait(task);
        }
        tasks.clear();
        for (auto& gate : gates) {
            gate.emplace();
        }
        for (std::size_t number = 0; number < kTasks; ++number) {
            tasks.push_back(Task<>::start(comeBack(number)));
        }
        while (waiterCount() < kTasks) {
            std::this_thread::yield();
        }
    };
    test::Rounds(kThreads, kRounds).run(prepare, [&](std::uint32_t thread, std::uint64_t) {
        gates[thread]->open();
    });
    for (const auto& task : tasks) {
        syncWait(task);
    }
    tasks.clear();
    EXPECT_FALSE(hasMet);
    for (const int count : returns) {
        EXPECT_EQ(count, static_cast<int>(kRounds));
    }
    expectNoTokens();
}

TEST(TaskStress, OfManyThatEndAtOnceOneIsTheFirst) {
    constexpr int kEach = 500;
    std::atomic<int> valid = 0;
    test::together(kThreads, [&](int) {
        for (int i = 0; i < kEach; ++i) {
            std::vector<Async<int>> functions;
            for (int value = 0; value < 6; ++value) {
                functions.push_back(hold(make<Token>(), value));
            }
            functions.push_back(sleepLong(make<Token>()));
            const auto first = syncWait(whenAny(std::move(functions)));
            valid += first.index < 6 && first.value == static_cast<int>(first.index) ? 1 : 0;
        }
    });
    EXPECT_EQ(valid, kThreads * kEach);
    expectNoTokens();
}

TEST(TaskStress, CancellationOfAllRacesWithTheirEnds) {
    constexpr int kEach = 500;
    std::atomic<int> complete = 0;
    std::atomic<int> cancelled = 0;
    test::together(kThreads, [&](int) {
        for (int i = 0; i < kEach; ++i) {
            const auto task = Task<int>::start([i]() -> Async<int> {
                auto any = whenAny(sleepLong(make<Token>()), hold(make<Token>(), 1));
                auto all = whenAll(hold(make<Token>(), 1), ContinuousClock::sleepFor(i % 5 * 10us),
                                   std::move(any));
                const auto values = co_await std::move(all);
                co_return std::get<0>(values);
            });
            if (i % 2 == 0) {
                task.cancel();
            }
            try {
                complete += syncWait(task);
            } catch (const CancellationError&) {
                ++cancelled;
            }
        }
    });
    EXPECT_EQ(complete + cancelled, kThreads * kEach);
    EXPECT_GE(complete, kThreads * kEach / 2);
    expectNoTokens();
}

}  // namespace
}  // namespace vantorq
