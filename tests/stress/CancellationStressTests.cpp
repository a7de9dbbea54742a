#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Bridges.h"
#include "Support/Cancellables.h"
#include "Support/Rounds.h"
#include "Support/Threads.h"
#include "VantorqFoundation/AnyDisposable.h"
#include "VantorqFoundation/CancellableTracker.h"
#include "VantorqFoundation/ManagedCancellableSet.h"
#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

namespace vantorq {
namespace {

using test::Counted;
using test::CountedCancellable;

constexpr int kThreads = 4;

template <class Bridge>
class CallbackBridgeStress : public ::testing::Test {};

struct BridgeNames {
    template <class Bridge>
    static std::string GetName(int) {
        return Bridge::kName;
    }
};
TYPED_TEST_SUITE(CallbackBridgeStress, test::AllBridges, BridgeNames);

/// A call that two threads end at once, and what has become of it.
template <class Bridge>
class RacedCall {
public:
    static constexpr int kValue = 7;

    /// The call stands on `executor`, which has not run it yet.
    RacedCall(const Ref<testing::ManualExecutor>& executor, bool completesWhileItBegins)
        : task_(Task<>::start(
              [this, completesWhileItBegins]() -> Async<> {
                  auto call = Bridge::call(
                      nullptr, [this, completesWhileItBegins](typename Bridge::Handler complete) {
                          if (completesWhileItBegins) {
                              Bridge::succeed(complete, kValue);
                          }
                          complete_.emplace(std::move(complete));
                          return [this, held = make<CountedCancellable>()] { ++cancels_; };
                      });
                  outcome_ = co_await std::move(call);
                  ++resumptions_;
              },
              {.executor = executor})) {}

    void complete() const { Bridge::succeed(*complete_, kValue); }
    void cancel() const { task_.cancel(); }

    /// Whether the call was resumed once, and its operation cancelled exactly if that has won.
    [[nodiscard]] bool isRight() const {
        return task_.isDone() && resumptions_ == 1 && cancels_ == (wasCancelled() ? 1 : 0) &&
               outcome_.value_or(kValue) == kValue;
    }
    [[nodiscard]] bool wasCancelled() const { return !outcome_.has_value(); }

private:
    std::optional<typename Bridge::Handler> complete_;
    std::optional<int> outcome_;
    int resumptions_ = 0;
    std::atomic<int> cancels_{0};
    const Task<> task_;
};

/// A million calls, each ended by a completion on one thread and a cancellation on another. Half of
/// them wait when that begins; of the others, the operations are begun by then, too.
TYPED_TEST(CallbackBridgeStress, EveryCallGoesOnOnceHoweverItsEndIsRaced) {
    constexpr std::size_t kBatch = 50;
    constexpr std::uint64_t kRounds = 1'000'000 / kBatch;
    using Call = RacedCall<TypeParam>;
    const int livingBefore = Counted::living;
    const auto waiting = make<testing::ManualExecutor>();
    const auto beginning = make<testing::ManualExecutor>();
    std::array<std::optional<Call>, kBatch> calls;
    std::mt19937 random(1);
    std::uint64_t wrong = 0;
    std::uint64_t cancelled = 0;
    std::uint64_t checked = 0;

    const auto check = [&] {
        waiting->runAll();
        beginning->runAll();
        for (auto& call : calls) {
            if (call.has_value()) {
                ++checked;
                wrong += call->isRight() ? 0U : 1U;
                cancelled += call->wasCancelled() ? 1U : 0U;
            }
        }
    };
    test::Rounds(2, kRounds)
        .run(
            [&](std::uint64_t) {
                check();
                for (std::size_t i = 0; i < kBatch; ++i) {
                    calls[i].emplace(i % 2 == 0 ? waiting : beginning, random() % 4 == 0);
                }
                waiting->runAll();
            },
            [&](std::uint32_t thread, std::uint64_t round) {
                const bool cancels = (thread == 1) != (round % 4 < 2);
                if (cancels) {
                    for (std::size_t i = 0; i < kBatch; ++i) {
                        calls[round % 2 == 0 ? i : kBatch - 1 - i]->cancel();
                    }
                    return;
                }
                beginning->runAll();
                for (const auto& call : calls) {
                    call->complete();
                    call->complete();
                }
            });
    check();
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(checked, kRounds * kBatch);
    EXPECT_GT(cancelled, 0U);
    EXPECT_LT(cancelled, checked);
    for (auto& call : calls) {
        call.reset();
    }
    EXPECT_EQ(Counted::living, livingBefore);
}

/// Two owners of each let go of it, some after a cancellation, some without one.
TEST(AnyDisposableStress, RunsItsActionOnceHoweverItsEndIsRaced) {
    constexpr std::size_t kBatch = 50;
    constexpr std::uint64_t kRounds = 200'000 / kBatch;
    const int livingBefore = Counted::living;
    std::array<std::array<Ref<AnyDisposable>, kBatch>, 2> owners;
    std::array<Ref<CountedCancellable>, kBatch> items;
    std::uint64_t wrong = 0;
    std::uint64_t checked = 0;

    const auto check = [&] {
        for (auto& item : items) {
            if (item != nullptr) {
                ++checked;
                wrong += item->cancels != 1 || item->ownerCount() != 1 ? 1U : 0U;
                item.reset();
            }
        }
    };
    test::Rounds(2, kRounds)
        .run(
            [&](std::uint64_t) {
                check();
                for (std::size_t i = 0; i < kBatch; ++i) {
                    items[i] = make<CountedCancellable>();
                    owners[0][i] = i % 2 == 0
                                       ? make<AnyDisposable>([item = items[i]] { item->cancel(); })
                                       : make<AnyDisposable>(CancellableRef(items[i]));
                    owners[1][i] = owners[0][i];
                }
            },
            [&](std::uint32_t thread, std::uint64_t round) {
                for (std::size_t i = 0; i < kBatch; ++i) {
                    Ref<AnyDisposable>& own = owners[thread][i];
                    if ((i + round + thread) % 3 == 0) {
                        own->cancel();
                    }
                    own.reset();
                }
            });
    check();
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(checked, kRounds * kBatch);
    EXPECT_EQ(Counted::living, livingBefore);
}

/// The owners of each cancel it, ask it, or cancel behind its back what it wraps and ask it then,
/// two of these at once; and let go of it.
TEST(AnyDisposableStress, CancelsAStatefulOneThatItFindsCancelledNoMoreHoweverItsEndIsRaced) {
    constexpr std::size_t kBatch = 51;
    constexpr std::uint64_t kRounds = 4'000;
    const int livingBefore = Counted::living;
    std::array<std::array<Ref<AnyDisposable>, kBatch>, 2> owners;
    std::array<Ref<CountedCancellable>, kBatch> items;
    std::atomic<std::uint64_t> wrong{0};
    std::uint64_t checked = 0;

    const auto check = [&] {
        for (std::size_t i = 0; i < kBatch; ++i) {
            if (auto& item = items[i]; item != nullptr) {
                ++checked;
                // Twice, where one owner cancels while the other does so behind its back.
                const bool isRight = item->cancels == 1 || (item->cancels == 2 && i % 3 == 2);
                wrong += !isRight || item->ownerCount() != 1 ? 1U : 0U;
                item.reset();
            }
        }
    };
    test::Rounds(2, kRounds)
        .run(
            [&](std::uint64_t) {
                check();
                for (std::size_t i = 0; i < kBatch; ++i) {
                    items[i] = make<CountedCancellable>();
                    owners[0][i] = make<AnyDisposable>(items[i]);
                    owners[1][i] = owners[0][i];
                }
            },
            [&](std::uint32_t thread, std::uint64_t) {
                for (std::size_t i = 0; i < kBatch; ++i) {
                    Ref<AnyDisposable>& own = owners[thread][i];
                    switch ((i + thread) % 3) {
                        case 0:
                            own->cancel();
                            wrong += own->isCancelled() ? 0U : 1U;
                            break;
                        case 1: {
                            const bool wasCancelled = own->isCancelled();
                            wrong += wasCancelled && !own->isCancelled() ? 1U : 0U;
                            break;
                        }
                        default:
                            items[i]->cancel();
                            wrong += own->isCancelled() ? 0U : 1U;
                            break;
                    }
                    own.reset();
                }
            });
    check();
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(checked, kRounds * kBatch);
    EXPECT_EQ(Counted::living, livingBefore);
}

using Tracker = CancellableTracker<Ref<CountedCancellable>>;

/// Every thread tracks elements, untracks some by calling and some by dropping, and cancels all now
/// and then.
void hammer(const Ref<Tracker>& tracker) {
    constexpr int kEach = 50'000;
    std::atomic<std::uint64_t> wrong{0};
    test::together(kThreads, [&](int thread) {
        std::mt19937 random(static_cast<unsigned>(thread));
        std::vector<std::pair<Ref<CountedCancellable>, Tracker::Untrack>> tracked;
        for (int i = 0; i < kEach; ++i) {
            auto item = make<CountedCancellable>();
            auto untrack = tracker->track(item);
            switch (random() % 8) {
                case 0:
                    tracker->cancel();
                    wrong += item->cancels > 1 ? 1U : 0U;  // by this thread or another one
                    break;
                case 1:
                    untrack();
                    break;
                case 2:
                    tracked.emplace_back(std::move(item), std::move(untrack));
                    break;
                default:
                    break;
            }
            if (tracked.size() > 64) {
                tracked.clear();
            }
        }
        tracker->cancel();
        for (const auto& [item, untrack] : tracked) {
            // Another thread may have taken the item out, and cancel it only now.
            wrong += test::eventually([&] { return item->cancels == 1; }) ? 0U : 1U;
        }
    });
    EXPECT_EQ(wrong, 0U);
}

TEST(CancellableTrackerStress, OverASetCancelsEachElementAtMostOnce) {
    const int before = Counted::living;
    hammer(Tracker::set());
    EXPECT_EQ(Counted::living, before);
}

TEST(CancellableTrackerStress, OverAWeakHashTableCancelsEachElementAtMostOnce) {
    const int before = Counted::living;
    hammer(Tracker::hashTable(NSHashTable<CountedCancellable>::weakObjectsHashTable()));
    EXPECT_EQ(Counted::living, before);
}

TEST(CancellableTrackerStress, EndsWhileItsClosuresAreCalled) {
    constexpr std::size_t kBatch = 50;
    constexpr std::uint64_t kRounds = 100'000 / kBatch;
    const int before = Counted::living;
    struct Tracked {
        Ref<Tracker> tracker;
        Ref<CountedCancellable> item;
        std::optional<Tracker::Untrack> untrack;
    };
    std::array<Tracked, kBatch> all;
    std::uint64_t wrong = 0;
    std::uint64_t cancelled = 0;
    std::uint64_t checked = 0;
    const auto check = [&] {
        for (auto& [tracker, item, untrack] : all) {
            if (item != nullptr) {
                untrack.reset();
                ++checked;
                wrong += item->cancels > 1 || item->ownerCount() != 1 ? 1U : 0U;
                cancelled += item->cancels == 1 ? 1U : 0U;
                item.reset();
            }
        }
    };
    test::Rounds(2, kRounds)
        .run(
            [&](std::uint64_t) {
                check();
                for (auto& [tracker, item, untrack] : all) {
                    item = make<CountedCancellable>();
                    tracker = Tracker::set();
                    untrack = tracker->track(item);
                }
            },
            [&](std::uint32_t thread, std::uint64_t) {
                for (auto& [tracker, item, untrack] : all) {
                    if (thread == 0) {
                        tracker.reset();
                    } else {
                        (*untrack)();
                    }
                }
            });
    check();
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(checked, kRounds * kBatch);
    EXPECT_GT(cancelled, 0U);
    EXPECT_EQ(Counted::living, before);
}

struct Manager {
    using CancellableKeys = std::uint32_t;
    int first = 0;
    int second = 0;
};

/// Every thread inserts, replaces, reads and removes; one of them closes the set in the middle.
TEST(ManagedCancellableSetStress, CancelsEachOneOnceWhenItLeavesHoweverThreadsMeet) {
    constexpr int kSets = 200;
    constexpr std::size_t kEach = 400;
    constexpr std::uint32_t kKeys = 3;
    const int before = Counted::living;
    for (int n = 0; n < kSets; ++n) {
        const auto set = make<ManagedCancellableSet<Manager>>();
        std::array<std::vector<Ref<CountedCancellable>>, kThreads> items;
        std::atomic<int> wrong{0};
        test::together(kThreads, [&](int thread) {
            std::mt19937 random(static_cast<unsigned>(n * kThreads + thread));
            auto& own = items[static_cast<std::size_t>(thread)];
            for (std::size_t i = 0; i < kEach; ++i) {
                if (thread == 0 && i == kEach / 2) {
                    set->cancel();
                }
                const auto item = own.emplace_back(make<CountedCancellable>());
                const std::uint32_t key = static_cast<std::uint32_t>(random() % kKeys);
                switch (random() % 5) {
                    case 0:
                        set->insert(item);
                        break;
                    case 1:
                        (*set)[keyPath<&Manager::first>()] = item;
                        break;
                    case 2:
                        (*set)[key] = item;
                        (*set)[key] = std::nullopt;
                        break;
                    default:
                        (*set)[key] = item;
                        break;
                }
                const std::optional<CancellableRef> found = (*set)[key];
                if (found && found->as<CountedCancellable>() == nullptr) {
                    ++wrong;
                }
            }
        });
        EXPECT_EQ(wrong, 0);
        EXPECT_TRUE(set->isCancelled());
        for (const auto& own : items) {
            for (const auto& item : own) {
                ASSERT_EQ(item->cancels, 1);
                ASSERT_EQ(item->ownerCount(), 1U);
            }
        }
    }
    EXPECT_EQ(Counted::living, before);
}

}  // namespace
}  // namespace vantorq
