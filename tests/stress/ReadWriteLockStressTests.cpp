#include <array>
#include <atomic>

#include <gtest/gtest.h>

#include "Support/Threads.h"
#include "VantorqFoundation/Platform/Send.h"
#include "VantorqFoundation/ReadWriteLock.h"

namespace vantorq {
namespace {

using test::together;

constexpr int kThreads = 4;

/// Several numbers that a writer keeps equal, though not at every instant.
struct Guarded {
    std::array<int, 8> numbers{};

    void step() {
        for (int& number : numbers) {
            ++number;
        }
    }
    bool isWhole() const {
        for (const int number : numbers) {
            if (number != numbers[0]) {
                return false;
            }
        }
        return true;
    }
};

TEST(ReadWriteLockStress, ReadersNeverMeetAWriterAndWritersNeverOneAnother) {
    constexpr int kRounds = 5'000;
    const auto lock = make<ReadWriteLock>();
    Guarded guarded;
    std::atomic<int> torn{0};
    together(kThreads, [&](int thread) {
        for (int n = 0; n < kRounds; ++n) {
            if ((n + thread) % 4 == 0) {
                lock->writeBlock([&] { guarded.step(); });
            } else {
                torn += lock->readBlock([&] { return guarded.isWhole(); }) ? 0 : 1;
            }
        }
    });
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(guarded.numbers[0], kThreads * kRounds / 4);
}

TEST(ReadWriteLockStress, AllWaysOfTakingItAreOneLock) {
    constexpr int kRounds = 3'000;
    const auto lock = make<ReadWriteLock>();
    Guarded guarded;
    std::atomic<int> torn{0};
    const auto check = [&] { torn += guarded.isWhole() ? 0 : 1; };
    const auto step = [&] { guarded.step(); };
    together(kThreads, [&](int thread) {
        for (int n = 0; n < kRounds; ++n) {
            switch (thread) {
                case 0:
                    lock->writeLock();
                    step();
                    lock->unlock();
                    lock->readLock();
                    check();
                    lock->unlock();
                    break;
                case 1:
                    lock->writeBlockObjc(step);
                    lock->readBlockObjc(check);
                    break;
                case 2:
                    send<void>(lock, "writeBlockObjc:"_sel, [&] { step(); });
                    send<void>(lock, "readBlockObjc:"_sel, [&] { check(); });
                    break;
                default:
                    send<void>(lock, "writeLock"_sel);
                    step();
                    send<void>(lock, "unlock"_sel);
                    lock->readBlock(check);
                    break;
            }
        }
    });
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(guarded.numbers[0], kThreads * kRounds);
}

TEST(ReadWriteLockStress, TheLastOwnerMayBeAnyThread) {
    for (int round = 0; round < 500; ++round) {
        std::array<Ref<ReadWriteLock>, kThreads> owners;
        owners.fill(make<ReadWriteLock>());
        const Weak<ReadWriteLock> weak(owners[0]);
        int sum = 0;
        together(kThreads, [&](int thread) {
            Ref<ReadWriteLock> mine = std::move(owners[static_cast<std::size_t>(thread)]);
            mine->writeBlock([&] { ++sum; });
        });
        ASSERT_EQ(sum, kThreads);
        ASSERT_EQ(weak.load(), nullptr);
    }
}

}  // namespace
}  // namespace vantorq
