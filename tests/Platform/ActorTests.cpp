#include "VantorqFoundation/Platform/Actor.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Tasks.h"
#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

namespace vantorq {
namespace {

using test::Gate;
using testing::ManualExecutor;

class CountedActor final : public Actor {
public:
    static inline constinit int living = 0;

    CountedActor() { ++living; }

private:
    ~CountedActor() override { --living; }
};

class Account final : public Actor {
public:
    Async<int> deposit(int amount) {
        co_await enter();
        co_return balance_ += amount;
    }

private:
    int balance_ = 0;
};

/// Whether a task of the executor that enters the actor now gets there at once.
bool isFree(Actor& actor, const Ref<ManualExecutor>& executor) {
    const auto task =
        Task<>::start([&actor]() -> Async<> { co_await actor.enter(); }, {.executor = executor});
    executor->runAll();
    return task.isDone();
}

TEST(Actor, OneThingHappensAtATime) {
    constexpr int kTasks = 50;
    constexpr int kRounds = 200;
    const auto actor = make<Actor>();
    int count = 0;
    std::vector<Task<>> tasks;
    for (int i = 0; i < kTasks; ++i) {
        tasks.push_back(Task<>::start([&]() -> Async<> {
            for (int round = 0; round < kRounds; ++round) {
                auto counting = actor->run([&] { ++count; });
                co_await std::move(counting);
                co_await thisTask::yield();
            }
        }));
    }
    for (const auto& task : tasks) {
        syncWait(task);
    }
    EXPECT_EQ(count, kTasks * kRounds);
}

TEST(Actor, AnIdleOneIsEnteredWithoutSuspending) {
    const auto executor = make<ManualExecutor>();
    const auto account = make<Account>();
    const auto task = Task<int>::start([&] { return account->deposit(5); }, {.executor = executor});
    EXPECT_EQ(executor->runAll(), 1U);
    EXPECT_EQ(task.outcome().value(), 5);
}

TEST(Actor, CodeThatFindsItBusyGoesOnInTheOrderOfArrival) {
    const auto executor = make<ManualExecutor>();
    const auto actor = make<Actor>();
    std::vector<int> order;
    std::vector<Task<>> tasks;
    tasks.push_back(Task<>::start(
        [&]() -> Async<> {
            co_await actor->enter();
            executor->runAll();  // the others arrive
            EXPECT_TRUE(order.empty());
            order.push_back(0);
        },
        {.executor = executor}));
    for (int i = 1; i <= 4; ++i) {
        tasks.push_back(Task<>::start(
            [&, i]() -> Async<> {
                co_await actor->enter();
                order.push_back(i);
            },
            {.executor = executor}));
    }
    executor->runAll();
    EXPECT_EQ(order, (std::vector{0, 1, 2, 3, 4}));
}

TEST(Actor, OnesWhoArriveLaterComeAfterThoseInLine) {
    const auto executor = make<ManualExecutor>();
    const auto actor = make<Actor>();
    std::vector<int> order;
    std::vector<Task<>> tasks;
    const auto enterAs = [&](int number, int latecomer) {
        tasks.push_back(Task<>::start(
            [&, number, latecomer]() -> Async<> {
                co_await actor->enter();
                if (latecomer != 0) {
                    tasks.push_back(Task<>::start([&, latecomer]() -> Async<> {
                        co_await actor->enter();
                        order.push_back(latecomer);
                    }));
                }
                executor->runAll();
                order.push_back(number);
            },
            {.executor = executor}));
    };
    tasks.reserve(8);
    enterAs(1, 0);
    enterAs(2, 4);
    enterAs(3, 0);
    executor->runAll();
    EXPECT_EQ(order, (std::vector{1, 2, 3, 4}));
}

TEST(Actor, YieldingOnItLetsThoseInLineGoFirst) {
    const auto executor = make<ManualExecutor>();
    const auto actor = make<Actor>();
    std::vector<int> order;
    const auto append = [&](int number) { order.push_back(number); };
    const auto yielding = Task<>::start(
        [&]() -> Async<> {
            co_await actor->enter();
            executor->runAll();  // the others arrive
            append(0);
            co_await thisTask::yield();
            EXPECT_TRUE(actor->isCurrent());
            append(3);
        },
        {.executor = executor});
    std::vector<Task<>> others;
    for (const int number : {1, 2}) {
        others.push_back(
            Task<>::start([&, number] { return actor->run([&, number] { append(number); }); },
                          {.executor = executor}));
    }
    executor->runAll();
    EXPECT_EQ(order, (std::vector{0, 1, 2, 3}));
    EXPECT_TRUE(yielding.isDone());
}

/// From one actor to the other and back, each within a call on the one before.
Async<int> nest(Actor& here, Actor& there, int depth) {
    if (depth == 0) {
        co_return 0;
    }
    auto running = here.run([&, depth] { return nest(there, here, depth - 1); });
    const int below = co_await std::move(running);
    co_return 1 + below;
}

TEST(Actor, AMillionCallsDoNotDeepenTheStack) {
    constexpr int kCalls = 1'000'000;
    const auto one = make<Actor>();
    const auto other = make<Actor>();
    const auto callAll = [&]() -> Async<int> {
        int count = 0;
        for (int i = 0; i < kCalls; ++i) {
            Actor& actor = i % 2 == 0 ? *one : *other;
            auto counting = actor.run([&count] { ++count; });
            co_await std::move(counting);
        }
        co_return count;
    };
    EXPECT_EQ(syncWait(callAll()), kCalls);
    auto calling = one->run(callAll);
    EXPECT_EQ(syncWait(std::move(calling)), kCalls);
}

TEST(Actor, AHundredThousandNestedCallsDoNotDeepenTheStack) {
    constexpr int kDepth = 100'000;
    const auto one = make<Actor>();
    const auto other = make<Actor>();
    EXPECT_EQ(syncWait(nest(*one, *other, kDepth)), kDepth);
    EXPECT_EQ(syncWait(nest(*one, *one, kDepth)), kDepth);
}

TEST(Actor, TheCallerGoesBackToItsActorAfterACallIntoAnother) {
    const auto here = make<Actor>();
    const auto there = make<Account>();
    const auto call = [&]() -> Async<bool> {
        co_await here->enter();
        auto depositing = there->deposit(1);
        co_await std::move(depositing);
        co_return here->isCurrent() && Actor::current() == here.get();
    };
    EXPECT_TRUE(syncWait(call()));
    EXPECT_EQ(Actor::current(), nullptr);
}

TEST(Actor, ACallerWithoutAnActorGoesOnOnNone) {
    const auto executor = make<ManualExecutor>();
    const auto account = make<Account>();
    const auto call = [&]() -> Async<bool> {
        auto depositing = account->deposit(1);
        co_await std::move(depositing);
        co_return Actor::current() == nullptr&& isFree(*account, executor);
    };
    EXPECT_TRUE(syncWait(call()));
}

TEST(Actor, TheCallerGoesBackWhenTheCallThrows) {
    const auto here = make<Actor>();
    const auto there = make<Actor>();
    const auto call = [&]() -> Async<bool> {
        co_await here->enter();
        auto failing = there->run([&]() -> int {
            EXPECT_TRUE(there->isCurrent());
            throw std::runtime_error("no");
        });
        try {
            co_await std::move(failing);
        } catch (const std::runtime_error&) {
            co_return here->isCurrent();
        }
        co_return false;
    };
    EXPECT_TRUE(syncWait(call()));
}

TEST(Actor, IsFreeForOthersWhileCodeOnItWaits) {
    const auto executor = make<ManualExecutor>();
    const auto account = make<Account>();
    Gate gate;
    int balanceAfter = 0;
    const auto waiting = Task<>::start(
        [&]() -> Async<> {
            co_await account->enter();
            co_await gate.wait();
            EXPECT_TRUE(account->isCurrent());
            auto depositing = account->deposit(1);
            balanceAfter = co_await std::move(depositing);
        },
        {.executor = executor});
    executor->runAll();
    EXPECT_FALSE(waiting.isDone());
    auto depositing = account->deposit(10);
    EXPECT_EQ(syncWait(std::move(depositing)), 10);
    gate.open();
    executor->runAll();
    EXPECT_EQ(balanceAfter, 11);
}

TEST(Actor, CodeThatComesBackToABusyOneWaitsForItsTurn) {
    const auto executor = make<ManualExecutor>();
    const auto actor = make<Actor>();
    Gate gate;
    std::vector<int> order;
    const auto waiting = Task<>::start(
        [&]() -> Async<> {
            co_await actor->enter();
            co_await gate.wait();
            order.push_back(2);
        },
        {.executor = executor});
    const auto holding = Task<>::start(
        [&]() -> Async<> {
            co_await actor->enter();
            gate.open();
            executor->runAll();
            order.push_back(1);
        },
        {.executor = executor});
    executor->runAll();
    EXPECT_EQ(order, (std::vector{1, 2}));
    EXPECT_TRUE(waiting.isDone());
    EXPECT_TRUE(holding.isDone());
}

TEST(Actor, RunAwaitsWhatTheFunctionReturns) {
    const auto actor = make<Actor>();
    auto running = actor->run([&]() -> Async<bool> { co_return actor->isCurrent(); });
    EXPECT_TRUE(syncWait(std::move(running)));
}

TEST(Actor, IsNotFreeWhileCodeRunsOnIt) {
    const auto executor = make<ManualExecutor>();
    const auto actor = make<Actor>();
    const auto enter = [&]() -> Async<bool> {
        co_await actor->enter();
        co_return isFree(*actor, executor);
    };
    EXPECT_FALSE(syncWait(enter()));
    executor->runAll();
    EXPECT_TRUE(isFree(*actor, executor));
}

TEST(Actor, LeavingGoesOnOnNone) {
    const auto executor = make<ManualExecutor>();
    const auto actor = make<Actor>();
    const auto leave = [&]() -> Async<bool> {
        co_await actor->enter();
        co_await Actor::leave();
        co_return Actor::current() == nullptr&& isFree(*actor, executor);
    };
    EXPECT_TRUE(syncWait(leave()));
}

TEST(Actor, EnteringNoneStaysWhereTheCodeIs) {
    const auto actor = make<Actor>();
    const auto stay = [&]() -> Async<bool> {
        co_await Actor::enterIfAny(actor.get());
        co_await Actor::enterIfAny(nullptr);
        co_return actor->isCurrent();
    };
    EXPECT_TRUE(syncWait(stay()));
}

TEST(Actor, LivesUntilTheCodeOnItHasEnded) {
    const auto executor = make<ManualExecutor>();
    auto task = Task<>::start(
        [actor = make<CountedActor>()]() mutable -> Async<> {
            co_await actor->enter();
            actor = nullptr;
            EXPECT_EQ(CountedActor::living, 1);
        },
        {.executor = executor});
    EXPECT_EQ(CountedActor::living, 1);
    executor->runAll();
    EXPECT_TRUE(task.isDone());
    EXPECT_EQ(CountedActor::living, 0);
}

TEST(Actor, LivesWhileCodeWaitsToComeBackToIt) {
    const auto executor = make<ManualExecutor>();
    Gate gate;
    auto task = Task<>::start(
        [&gate, actor = make<CountedActor>()]() mutable -> Async<> {
            co_await actor->enter();
            co_await gate.wait();
            EXPECT_TRUE(actor->isCurrent());
            actor = nullptr;
            co_await Actor::leave();
            EXPECT_EQ(CountedActor::living, 0);
        },
        {.executor = executor});
    executor->runAll();
    EXPECT_EQ(CountedActor::living, 1);
    gate.open();
    executor->runAll();
    EXPECT_TRUE(task.isDone());
    EXPECT_EQ(CountedActor::living, 0);
}

/// Two executors: a task of the second waits for the actor that a task of the first has.
TEST(Actor, CodeOfAnotherExecutorGoesOnThere) {
    const auto actor = make<Actor>();
    const auto first = make<ManualExecutor>();
    const auto second = make<ManualExecutor>();
    Task<>* waiting = nullptr;
    std::optional<Task<>> waitingTask;
    const auto holding = Task<>::start(
        [&]() -> Async<> {
            co_await actor->enter();
            // Runs while this code has the actor, up to where it has to wait for that.
            waitingTask = Task<>::start(
                [&actor]() -> Async<> {
                    auto nothing = actor->run([] {});
                    co_await std::move(nothing);
                },
                {.executor = second});
            waiting = &*waitingTask;
            second->runAll();
        },
        {.executor = first});
    first->runAll();
    EXPECT_TRUE(holding.isDone());
    ASSERT_NE(waiting, nullptr);
    EXPECT_FALSE(waiting->isDone());
    EXPECT_EQ(second->pendingCount(), 1U);
    second->runAll();
    EXPECT_TRUE(waiting->isDone());
}

}  // namespace
}  // namespace vantorq
