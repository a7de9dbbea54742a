#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Threads.h"
#include "VantorqFoundation/Platform/RefCounted.h"

namespace vantorq {
namespace {

constexpr int kThreads = 4;

/// Counts the living, and can tell whether it is one of them.
class Thing final : public RefCounted {
public:
    explicit Thing(std::atomic<int>& living) : living_(living) { ++living_; }

    bool isAlive() const { return mark_ == kAlive; }
    using RefCounted::attachment;
    using RefCounted::setAttachmentOnce;

private:
    static constexpr std::uint64_t kAlive = 0xA11FE;

    ~Thing() override {
        mark_ = 0;
        --living_;
    }

    std::atomic<int>& living_;
    std::uint64_t mark_ = kAlive;
};

TEST(RefCountedStress, AnObjectSharedByManyThreadsIsDestroyedOnceByTheLast) {
    std::atomic<int> living{0};
    for (int round = 0; round < 200; ++round) {
        std::array<Ref<Thing>, kThreads> owners;
        owners.fill(make<Thing>(living));
        test::together(kThreads, [&](int t) {
            Ref<Thing> mine = std::move(owners[static_cast<std::size_t>(t)]);
            for (int n = 0; n < 100; ++n) {
                const Ref<Thing> copy = mine;
                ASSERT_TRUE(copy->isAlive());
            }
            mine.reset();
        });
        ASSERT_EQ(living, 0);
    }
}

TEST(RefCountedStress, AWeakLoadThatRacesWithTheLastReleaseGivesTheLivingObjectOrNothing) {
    constexpr std::size_t kObjects = 50'000;
    std::atomic<int> living{0};
    std::atomic<int> wrong{0};
    std::vector<Ref<Thing>> owners;
    std::vector<Weak<Thing>> handles;
    for (std::size_t n = 0; n < kObjects; ++n) {
        owners.push_back(make<Thing>(living));
        handles.emplace_back(owners.back());
    }
    test::together(kThreads, [&](int t) {
        for (std::size_t n = 0; n < kObjects; ++n) {
            if (t == 0) {
                owners[n].reset();
            }
            // Loading a living object takes long and a dead one no time, so that the threads that
            // load stay close to the one that lets go.
            for (int k = 0; k < 20; ++k) {
                const auto loaded = handles[n].load();
                if (loaded == nullptr) {
                    break;
                }
                wrong += loaded->isAlive() ? 0 : 1;
            }
        }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(living, 0);
}

TEST(RefCountedStress, TheFirstWeakHandlesOfAnObjectMayBeMadeAtOnce) {
    std::atomic<int> living{0};
    for (int round = 0; round < 500; ++round) {
        const auto owner = make<Thing>(living);
        std::array<Weak<Thing>, kThreads> handles;
        test::together(kThreads,
                       [&](int t) { handles[static_cast<std::size_t>(t)] = Weak<Thing>(owner); });
        for (const auto& handle : handles) {
            ASSERT_TRUE(handle.refersToSameObjectAs(handles[0]));
            ASSERT_EQ(handle.load(), owner);
        }
    }
    EXPECT_EQ(living, 0);
}

TEST(RefCountedStress, OneOfManyAttachmentsWinsAndAllAreDestroyed) {
    std::atomic<int> living{0};
    for (int round = 0; round < 500; ++round) {
        auto owner = make<Thing>(living);
        std::array<RefCounted*, kThreads> winners{};
        test::together(kThreads, [&](int t) {
            winners[static_cast<std::size_t>(t)] =
                owner->setAttachmentOnce(make<Thing>(living).get());
        });
        for (const RefCounted* winner : winners) {
            ASSERT_EQ(winner, owner->attachment());
        }
        ASSERT_EQ(living, 2);
        owner.reset();
        ASSERT_EQ(living, 0);
    }
}

TEST(RefCountedStress, WeakHandlesOfShortLivedObjectsNeverMeetAnotherObject) {
    std::atomic<int> living{0};
    std::array<std::atomic<int>, kThreads> wrong{};
    test::together(kThreads, [&](int t) {
        std::vector<std::pair<Weak<Thing>, Thing*>> kept;
        for (int n = 0; n < 20'000; ++n) {
            auto thing = make<Thing>(living);
            kept.emplace_back(Weak<Thing>(thing), thing.get());
            if (kept.back().first.load() != thing) {
                ++wrong[static_cast<std::size_t>(t)];
            }
            thing.reset();
            if (kept.size() == 16) {
                for (const auto& [weak, identity] : kept) {
                    if (weak.load() != nullptr) {
                        ++wrong[static_cast<std::size_t>(t)];
                    }
                }
                kept.clear();
            }
        }
    });
    for (const auto& count : wrong) {
        EXPECT_EQ(count, 0);
    }
    EXPECT_EQ(living, 0);
}

TEST(RefCountedStress, AnAtomicRefIsReadAndReplacedByManyThreads) {
    std::atomic<int> living{0};
    {
        AtomicRef<Thing> shared;
        test::together(kThreads, [&](int t) {
            for (int n = 0; n < 100'000; ++n) {
                if (t % 2 == 0) {
                    if (const auto loaded = shared.load()) {
                        ASSERT_TRUE(loaded->isAlive());
                    }
                } else if (n % 3 == 0) {
                    shared.store(nullptr);
                } else if (const auto old = shared.exchange(make<Thing>(living))) {
                    ASSERT_TRUE(old->isAlive());
                }
            }
        });
    }
    EXPECT_EQ(living, 0);
}

}  // namespace
}  // namespace vantorq
