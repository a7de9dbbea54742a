#include "VantorqFoundation/CallbackBridges.h"

#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Bridges.h"
#include "Support/Cancellables.h"
#include "VantorqFoundation/Platform/Actor.h"
#include "VantorqFoundation/Platform/Block.h"
#include "VantorqFoundation/Platform/Executor.h"
#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

namespace vantorq {
namespace {

using test::Counted;
using test::PlainCancellable;

/// Runs nothing by itself, and calls the test back at the moment when code is resumed.
class WatchedExecutor final : public Executor {
public:
    void enqueue(Job& job) override {
        onEnqueue();
        jobs_->enqueue(job);
    }
    std::size_t runAll() { return jobs_->runAll(); }

    std::function<void()> onEnqueue = [] {};

private:
    const Ref<testing::ManualExecutor> jobs_ = make<testing::ManualExecutor>();
};

/// An operation that the test completes, and what has become of it.
template <class Bridge>
class Controlled {
public:
    using Handler = typename Bridge::Handler;

    [[nodiscard]] auto operation() {
        return [this](Handler handler) {
            ++begins;
            complete_.emplace(std::move(handler));
            whileItBegins();
            return [this] {
                ++cancels;
                onCancel();
            };
        };
    }
    /// Starts the call in a task of its own, which runs when the executor is run.
    [[nodiscard]] Task<std::optional<int>> start(Actor* isolation = nullptr) {
        return Task<std::optional<int>>::start(
            [this, isolation] { return Bridge::call(isolation, operation()); },
            {.executor = executor});
    }
    void complete(int value) const { Bridge::succeed(*complete_, value); }

    const Ref<WatchedExecutor> executor = make<WatchedExecutor>();
    std::function<void()> whileItBegins = [] {};
    std::function<void()> onCancel = [] {};
    int begins = 0;
    int cancels = 0;

private:
    std::optional<Handler> complete_;
};

template <class Bridge>
class CallbackBridge : public ::testing::Test {};

struct BridgeNames {
    template <class Bridge>
    static std::string GetName(int) {
        return Bridge::kName;
    }
};
TYPED_TEST_SUITE(CallbackBridge, test::AllBridges, BridgeNames);

constexpr std::optional<int> kCancelled = std::nullopt;

TYPED_TEST(CallbackBridge, GivesTheValueOfALaterCompletion) {
    Controlled<TypeParam> controlled;
    const auto task = controlled.start();
    controlled.executor->runAll();
    EXPECT_EQ(controlled.begins, 1);
    EXPECT_FALSE(task.isDone());
    controlled.complete(7);
    controlled.executor->runAll();
    EXPECT_EQ(syncWait(task), 7);
    EXPECT_EQ(controlled.begins, 1);
    EXPECT_EQ(controlled.cancels, 0);
}

TYPED_TEST(CallbackBridge, GivesTheValueOfACompletionWithinTheOperation) {
    Controlled<TypeParam> controlled;
    controlled.whileItBegins = [&] { controlled.complete(7); };
    auto call = TypeParam::call(nullptr, controlled.operation());
    EXPECT_EQ(syncWait(std::move(call)), 7);
    EXPECT_EQ(controlled.cancels, 0);
}

TYPED_TEST(CallbackBridge, GivesTheValueOfACompletionOnAnotherThread) {
    Controlled<TypeParam> controlled;
    std::jthread other;
    controlled.whileItBegins = [&] { other = std::jthread([&] { controlled.complete(7); }); };
    auto call = TypeParam::call(nullptr, controlled.operation());
    EXPECT_EQ(syncWait(std::move(call)), 7);
    EXPECT_EQ(controlled.cancels, 0);
}

TYPED_TEST(CallbackBridge, BeginsOnlyWhenItIsAwaited) {
    Controlled<TypeParam> controlled;
    {
        const auto call = TypeParam::call(nullptr, controlled.operation());
        EXPECT_EQ(controlled.begins, 0);
    }
    EXPECT_EQ(controlled.begins, 0);
}

TYPED_TEST(CallbackBridge, StaysSuspendedWhileNothingHappens) {
    Controlled<TypeParam> controlled;
    const auto task = controlled.start();
    controlled.executor->runAll();
    EXPECT_EQ(controlled.executor->runAll(), 0U);
    EXPECT_FALSE(task.isDone());
    EXPECT_EQ(controlled.cancels, 0);
    controlled.complete(1);  // so that the test can end
    controlled.executor->runAll();
    EXPECT_TRUE(task.isDone());
}

TYPED_TEST(CallbackBridge, CancelsTheOperationOnTheCancellingThreadAndEndsWithoutAValue) {
    Controlled<TypeParam> controlled;
    const auto task = controlled.start();
    controlled.executor->runAll();
    task.cancel();
    EXPECT_EQ(controlled.cancels, 1);
    EXPECT_FALSE(task.isDone());
    controlled.executor->runAll();
    EXPECT_EQ(syncWait(task), kCancelled);
    EXPECT_EQ(controlled.cancels, 1);
}

TYPED_TEST(CallbackBridge, OfACancelledTaskBeginsTheOperationAndCancelsItAtOnce) {
    Controlled<TypeParam> controlled;
    int cancelsWhileItBegan = -1;
    controlled.whileItBegins = [&] { cancelsWhileItBegan = controlled.cancels; };
    const auto task = controlled.start();
    task.cancel();
    controlled.executor->runAll();
    EXPECT_EQ(controlled.begins, 1);
    EXPECT_EQ(cancelsWhileItBegan, 0);
    EXPECT_EQ(controlled.cancels, 1);
    EXPECT_EQ(syncWait(task), kCancelled);
}

TYPED_TEST(CallbackBridge, OfACancelledTaskIgnoresACompletionWithinTheOperation) {
    Controlled<TypeParam> controlled;
    controlled.whileItBegins = [&] { controlled.complete(7); };
    const auto task = controlled.start();
    task.cancel();
    controlled.executor->runAll();
    EXPECT_EQ(controlled.cancels, 1);
    EXPECT_EQ(syncWait(task), kCancelled);
}

TYPED_TEST(CallbackBridge, CancelledWithinTheOperationIsCancelledWhenThatReturns) {
    Controlled<TypeParam> controlled;
    std::optional<Task<std::optional<int>>> task;
    controlled.whileItBegins = [&] {
        task->cancel();
        EXPECT_EQ(controlled.cancels, 0);
    };
    task = controlled.start();
    controlled.executor->runAll();
    EXPECT_EQ(controlled.cancels, 1);
    EXPECT_EQ(syncWait(*task), kCancelled);
}

TYPED_TEST(CallbackBridge, IgnoresACancellationAfterACompletionWithinTheOperation) {
    Controlled<TypeParam> controlled;
    std::optional<Task<std::optional<int>>> task;
    controlled.whileItBegins = [&] {
        controlled.complete(7);
        task->cancel();
    };
    task = controlled.start();
    controlled.executor->runAll();
    EXPECT_EQ(controlled.cancels, 0);
    EXPECT_EQ(syncWait(*task), 7);
}

TYPED_TEST(CallbackBridge, IgnoresASecondCompletion) {
    Controlled<TypeParam> controlled;
    const auto task = controlled.start();
    controlled.executor->runAll();
    controlled.complete(7);
    controlled.complete(8);
    controlled.executor->runAll();
    controlled.complete(9);
    controlled.executor->runAll();
    EXPECT_EQ(syncWait(task), 7);
}

TYPED_TEST(CallbackBridge, IgnoresASecondCompletionWithinTheOperation) {
    Controlled<TypeParam> controlled;
    controlled.whileItBegins = [&] {
        controlled.complete(7);
        controlled.complete(8);
    };
    auto call = TypeParam::call(nullptr, controlled.operation());
    EXPECT_EQ(syncWait(std::move(call)), 7);
}

TYPED_TEST(CallbackBridge, IgnoresACompletionAfterTheCancellation) {
    Controlled<TypeParam> controlled;
    const auto task = controlled.start();
    controlled.executor->runAll();
    task.cancel();
    controlled.complete(7);
    controlled.executor->runAll();
    controlled.complete(8);
    EXPECT_EQ(syncWait(task), kCancelled);
    EXPECT_EQ(controlled.cancels, 1);
}

TYPED_TEST(CallbackBridge, IgnoresACompletionByItsCancelClosure) {
    Controlled<TypeParam> controlled;
    controlled.onCancel = [&] { controlled.complete(7); };  // would wait for ever under the lock
    const auto waiting = controlled.start();
    controlled.executor->runAll();
    waiting.cancel();
    controlled.executor->runAll();
    EXPECT_EQ(syncWait(waiting), kCancelled);
    const auto cancelledFirst = controlled.start();
    cancelledFirst.cancel();
    controlled.executor->runAll();
    EXPECT_EQ(syncWait(cancelledFirst), kCancelled);
    EXPECT_EQ(controlled.cancels, 2);
}

TYPED_TEST(CallbackBridge, IgnoresACancellationAfterTheCompletion) {
    Controlled<TypeParam> controlled;
    const auto task = controlled.start();
    controlled.executor->runAll();
    controlled.complete(7);
    task.cancel();
    EXPECT_EQ(controlled.cancels, 0);
    controlled.executor->runAll();
    EXPECT_EQ(syncWait(task), 7);
    task.cancel();
    EXPECT_EQ(controlled.cancels, 0);
}

TYPED_TEST(CallbackBridge, CancelsTheOperationBeforeItResumesTheAwaitingCode) {
    Controlled<TypeParam> controlled;
    std::vector<std::string> order;
    controlled.onCancel = [&] { order.emplace_back("cancel"); };
    const auto task = controlled.start();
    controlled.executor->runAll();
    controlled.executor->onEnqueue = [&] { order.emplace_back("resume"); };
    task.cancel();
    EXPECT_EQ(order, (std::vector<std::string>{"cancel", "resume"}));
    controlled.executor->runAll();
    EXPECT_EQ(syncWait(task), kCancelled);
}

TYPED_TEST(CallbackBridge, OfACancelledTaskCancelsTheOperationBeforeTheAwaitingCodeGoesOn) {
    Controlled<TypeParam> controlled;
    int cancelsBefore = -1;
    const auto task = Task<>::start(
        [&]() -> Async<> {
            auto call = TypeParam::call(nullptr, controlled.operation());
            co_await std::move(call);
            cancelsBefore = controlled.cancels;
        },
        {.executor = controlled.executor});
    task.cancel();
    controlled.executor->runAll();
    EXPECT_TRUE(task.isDone());
    EXPECT_EQ(cancelsBefore, 1);
}

TYPED_TEST(CallbackBridge, ResumesTheAwaitingCodeWithoutItsLock) {
    for (const bool isCancelled : {false, true}) {
        Controlled<TypeParam> controlled;
        int resumptions = 0;
        const auto task = controlled.start();
        controlled.executor->runAll();
        controlled.executor->onEnqueue = [&] {
            ++resumptions;
            controlled.complete(8);  // would wait for ever under the lock
        };
        if (isCancelled) {
            task.cancel();
        } else {
            controlled.complete(7);
        }
        EXPECT_EQ(resumptions, 1);
        controlled.executor->runAll();
        EXPECT_EQ(syncWait(task), isCancelled ? kCancelled : 7);
    }
}

/// The actors that the operation and the code after the call run on, for a caller on `home` and an
/// operation that another thread completes.
template <class Bridge>
std::vector<Actor*> actorsOf(Actor* home, Actor* isolation) {
    Controlled<Bridge> controlled;
    std::vector<Actor*> actors;
    controlled.whileItBegins = [&] { actors.push_back(Actor::current()); };
    const auto task = Task<>::start(
        [&]() -> Async<> {
            auto entry = Actor::enterIfAny(home);
            co_await entry;
            auto call = Bridge::call(isolation, controlled.operation());
            co_await std::move(call);
            actors.push_back(Actor::current());
        },
        {.executor = controlled.executor});
    controlled.executor->runAll();
    std::thread([&] { controlled.complete(7); }).join();
    controlled.executor->runAll();
    EXPECT_TRUE(task.isDone());
    return actors;
}

TYPED_TEST(CallbackBridge, CallsTheOperationOnTheGivenActorAndGoesOnWhereItWas) {
    const auto home = make<Actor>();
    const auto isolation = make<Actor>();
    EXPECT_EQ(actorsOf<TypeParam>(home.get(), isolation.get()),
              (std::vector<Actor*>{isolation.get(), home.get()}));
    EXPECT_EQ(actorsOf<TypeParam>(nullptr, isolation.get()),
              (std::vector<Actor*>{isolation.get(), nullptr}));
}

TYPED_TEST(CallbackBridge, StaysOnTheCallersActorWhenItIsGivenThatOneOrNone) {
    const auto home = make<Actor>();
    const std::vector<Actor*> allHome{home.get(), home.get()};
    EXPECT_EQ(actorsOf<TypeParam>(home.get(), home.get()), allHome);
    EXPECT_EQ(actorsOf<TypeParam>(home.get(), nullptr), allHome);
    EXPECT_EQ(actorsOf<TypeParam>(nullptr, nullptr), (std::vector<Actor*>{nullptr, nullptr}));
}

TYPED_TEST(CallbackBridge, LeavesTheActorFreeWhileItWaits) {
    Controlled<TypeParam> controlled;
    const auto actor = make<Actor>();
    const auto task = controlled.start(actor.get());
    controlled.executor->runAll();
    bool hasRun = false;
    const auto other = Task<>::start([&] { return actor->run([&] { hasRun = true; }); },
                                     {.executor = controlled.executor});
    controlled.executor->runAll();
    EXPECT_TRUE(other.isDone());
    EXPECT_TRUE(hasRun);
    controlled.complete(7);
    controlled.executor->runAll();
    EXPECT_EQ(syncWait(task), 7);
}

TYPED_TEST(CallbackBridge, ThrowsWhatTheOperationThrows) {
    auto call = TypeParam::call(nullptr, [](typename TypeParam::Handler) {
        throw std::runtime_error("failed");
        return [] {};
    });
    EXPECT_THROW(syncWait(std::move(call)), std::runtime_error);
}

TYPED_TEST(CallbackBridge, LetsGoOfItsCancelClosureBeforeItResumesTheAwaitingCode) {
    Controlled<TypeParam> controlled;
    const int before = Counted::living;
    for (const bool isCancelled : {false, true}) {
        std::optional<typename TypeParam::Handler> complete;
        int livingAtResumption = -1;
        const auto task = Task<std::optional<int>>::start(
            [&] {
                return TypeParam::call(nullptr, [&](typename TypeParam::Handler handler) {
                    complete.emplace(std::move(handler));
                    return [held = make<PlainCancellable>()] { held->cancel(); };
                });
            },
            {.executor = controlled.executor});
        controlled.executor->runAll();
        EXPECT_EQ(Counted::living, before + 1);
        controlled.executor->onEnqueue = [&] { livingAtResumption = Counted::living; };
        if (isCancelled) {
            task.cancel();
        } else {
            TypeParam::succeed(*complete, 7);
        }
        EXPECT_EQ(livingAtResumption, before);
        controlled.executor->runAll();
        EXPECT_TRUE(task.isDone());
        controlled.executor->onEnqueue = [] {};
    }
}

TYPED_TEST(CallbackBridge, LeavesNothingBehindHoweverItEnds) {
    using Handler = typename TypeParam::Handler;
    Controlled<TypeParam> controlled;
    const int before = Counted::living;
    enum { completes, completesAtOnce, isCancelled, isCancelledFirst, throws, kEnds };
    for (int end = 0; end < kEnds; ++end) {
        std::optional<Handler> complete;
        const auto task = Task<std::optional<int>>::start(
            [&, end] {
                return TypeParam::call(
                    nullptr, [&, end, held = make<PlainCancellable>()](Handler handler) {
                        if (end == completesAtOnce) {
                            TypeParam::succeed(handler, 7);
                        } else if (end == throws) {
                            throw std::runtime_error("failed");
                        }
                        complete.emplace(std::move(handler));
                        return [held, own = make<PlainCancellable>()] { own->cancel(); };
                    });
            },
            {.executor = controlled.executor});
        if (end == isCancelledFirst) {
            task.cancel();
        }
        controlled.executor->runAll();
        if (end == completes) {
            EXPECT_EQ(Counted::living, before + 2);
            TypeParam::succeed(*complete, 7);
        } else if (end == isCancelled) {
            task.cancel();
        }
        controlled.executor->runAll();
        EXPECT_TRUE(task.isDone());
        EXPECT_EQ(Counted::living, before) << "end " << end;
    }
}

// What only some of the bridges do.

/// An error that can be told from another one of the same type.
struct NumberedError {
    int number;
};

TEST(WithCancellableThrowingResultHandler, ThrowsTheErrorOfAFailure) {
    const auto call = [] {
        return withCancellableThrowingResultHandler<int>([](ResultHandler<int> complete) {
            complete(std::unexpected(std::make_exception_ptr(NumberedError{7})));
            return [] {};
        });
    };
    try {
        auto pending = call();
        (void)syncWait(std::move(pending));
        FAIL() << "nothing is thrown";
    } catch (const NumberedError& error) {
        EXPECT_EQ(error.number, 7);
    }
}

TEST(WithCancellableThrowingResultHandler, IgnoresAFailureAfterASuccess) {
    auto call = withCancellableThrowingResultHandler<int>([](ResultHandler<int> complete) {
        complete(7);
        complete(std::unexpected(std::make_exception_ptr(NumberedError{7})));
        return [] {};
    });
    EXPECT_EQ(syncWait(std::move(call)), 7);
}

template <class Call>
void expectCancellationError(Call call) {
    const auto executor = make<testing::ManualExecutor>();
    const auto task = Task<int>::start([&] { return call(); }, {.executor = executor});
    executor->runAll();
    task.cancel();
    executor->runAll();
    EXPECT_THROW(syncWait(task), CancellationError);
}

TEST(ThrowingCallbackBridges, ThrowTheCancellationErrorWhenTheyAreCancelled) {
    expectCancellationError([] {
        return withCancellableThrowingResultHandler<int>(
            [](const ResultHandler<int>&) { return [] {}; });
    });
    expectCancellationError([] {
        return withCancellableThrowingSuccessHandler<int>(
            [](const SuccessHandler<int>&) { return [] {}; });
    });
}

TEST(CallbackBridges, CarryValuesThatCanOnlyBeMoved) {
    using Value = std::unique_ptr<int>;
    auto success = withCancellableSuccessHandler<Value>([](SuccessHandler<Value, Never> complete) {
        complete(std::make_unique<int>(7));
        return [] {};
    });
    EXPECT_EQ(**syncWait(std::move(success)), 7);
    auto throwing = withCancellableThrowingResultHandler<Value>([](ResultHandler<Value> complete) {
        complete(std::make_unique<int>(8));
        return [] {};
    });
    EXPECT_EQ(*syncWait(std::move(throwing)), 8);
}

TEST(CallbackBridges, CarryNothingAtAll) {
    auto result = withCancellableResultHandler<void>([](ResultHandler<void, Never> complete) {
        complete({});
        return [] {};
    });
    EXPECT_EQ(syncWait(std::move(result)), std::monostate());
    auto success = withCancellableSuccessHandler<void>([](SuccessHandler<void, Never> complete) {
        complete();
        return [] {};
    });
    EXPECT_EQ(syncWait(std::move(success)), std::monostate());
    bool wentOn = false;
    const auto both = [&]() -> Async<> {
        auto throwingSuccess =
            withCancellableThrowingSuccessHandler<void>([](SuccessHandler<void> complete) {
                complete();
                return [] {};
            });
        co_await std::move(throwingSuccess);
        auto throwingResult =
            withCancellableThrowingResultHandler<void>([](ResultHandler<void> complete) {
                complete({});
                return [] {};
            });
        co_await std::move(throwingResult);
        wentOn = true;
    };
    auto pending = both();
    syncWait(std::move(pending));
    EXPECT_TRUE(wentOn);
}

TEST(CallbackBridges, TakeFunctionsAndBlocksAsHandlersAndClosures) {
    auto function = withCancellableSuccessHandler<int>([](std::function<void(int)> complete) {
        complete(7);
        return std::function<void()>([] {});
    });
    EXPECT_EQ(syncWait(std::move(function)), 7);
    auto block = withCancellableThrowingSuccessHandler<int>([](Block<void(int)> complete) {
        complete(8);
        return Block<void()>([] {});
    });
    EXPECT_EQ(syncWait(std::move(block)), 8);
}

TEST(CallbackBridges, TakeOperationsThatCanOnlyBeMoved) {
    auto call = withCancellableSuccessHandler<int>(
        [number = std::make_unique<int>(7)](const auto& complete) mutable {
            complete(*number);
            return [number = std::move(number)] {};
        });
    EXPECT_EQ(syncWait(std::move(call)), 7);
}

TEST(CallbackBridges, RefuseOperationsThatReturnNoClosure) {
    const auto withClosure = [](const SuccessHandler<int>&) { return [] {}; };
    const auto withoutClosure = [](const SuccessHandler<int>&) { return 1; };
    const auto withoutHandler = [] { return [] {}; };
    static_assert(CancellableOperation<decltype(withClosure), SuccessHandler<int>>);
    static_assert(!CancellableOperation<decltype(withoutClosure), SuccessHandler<int>>);
    static_assert(!CancellableOperation<decltype(withoutHandler), SuccessHandler<int>>);
}

}  // namespace
}  // namespace vantorq
