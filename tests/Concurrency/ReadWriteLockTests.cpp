#include "VantorqFoundation/ReadWriteLock.h"

#include <atomic>
#include <latch>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Trap.h"
#include "VantorqFoundation/Platform/Send.h"

namespace vantorq {
namespace {

/// Lets other threads run that do not have to wait. One that has to is not helped by it, so nothing
/// that is right depends on how long it is.
void yieldForAWhile() {
    for (int n = 0; n < 100; ++n) {
        std::this_thread::yield();
    }
}

/// Whether `take`, on a thread of its own, has to wait until `release` is called here.
template <class Take, class Release>
bool waitsFor(Take take, Release release) {
    std::atomic<bool> isReleased{false};
    bool hasWaited = false;
    std::latch begun(1);
    std::thread other([&] {
        begun.count_down();
        take();
        hasWaited = isReleased;
    });
    begun.wait();
    yieldForAWhile();
    isReleased = true;
    release();
    other.join();
    return hasWaited;
}

/// Whether another thread can take the lock for writing and give it back, which ends only if it
/// can.
void expectFree(ReadWriteLock& lock) {
    bool hasWritten = false;
    std::thread([&] { lock.writeBlock([&] { hasWritten = true; }); }).join();
    EXPECT_TRUE(hasWritten);
}

TEST(ReadWriteLock, TheLockStandsInTheObject) {
    EXPECT_EQ(sizeof(ReadWriteLock), sizeof(NSObject) + sizeof(pthread_rwlock_t));
    static_assert(!std::is_copy_constructible_v<ReadWriteLock>);
    static_assert(!std::is_move_constructible_v<ReadWriteLock>);
}

TEST(ReadWriteLock, TwoReadersAreInsideAtTheSameTime) {
    const auto lock = make<ReadWriteLock>();
    std::latch bothInside(2);
    const auto read = [&] { lock->readBlock([&] { bothInside.arrive_and_wait(); }); };
    std::thread other(read);
    read();  // ends only if the other one is inside too
    other.join();
    EXPECT_TRUE(bothInside.try_wait());
}

TEST(ReadWriteLock, AWriterRunsOnlyAfterAllReadersHaveLeft) {
    const auto lock = make<ReadWriteLock>();
    std::atomic<int> readersInside{0};
    std::latch bothInside(3);
    std::latch mayLeave(1);
    std::vector<std::thread> readers;
    for (int i = 0; i < 2; ++i) {
        readers.emplace_back([&] {
            lock->readBlock([&] {
                ++readersInside;
                bothInside.arrive_and_wait();
                mayLeave.wait();
                --readersInside;
            });
        });
    }
    bothInside.arrive_and_wait();
    int readersThatTheWriterMet = -1;
    EXPECT_TRUE(
        waitsFor([&] { lock->writeBlock([&] { readersThatTheWriterMet = readersInside; }); },
                 [&] { mayLeave.count_down(); }));
    for (auto& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(readersThatTheWriterMet, 0);
}

TEST(ReadWriteLock, AWriterKeepsReadersAndWritersOut) {
    const auto lock = make<ReadWriteLock>();
    const auto isKeptOut = [&](auto take) {
        lock->writeLock();
        return waitsFor([&] { take(); }, [&] { lock->unlock(); });
    };
    EXPECT_TRUE(isKeptOut([&] { lock->readBlock([] {}); }));
    EXPECT_TRUE(isKeptOut([&] { lock->writeBlock([] {}); }));
    EXPECT_TRUE(isKeptOut([&] {
        lock->readLock();
        lock->unlock();
    }));
}

TEST(ReadWriteLock, OneUnlockGivesBackEitherKind) {
    const auto lock = make<ReadWriteLock>();
    lock->readLock();
    lock->unlock();
    expectFree(*lock);
    lock->writeLock();
    lock->unlock();
    expectFree(*lock);
}

TEST(ReadWriteLock, WriteBlockReturnsExactlyWhatItsBodyReturned) {
    const auto lock = make<ReadWriteLock>();
    EXPECT_EQ(lock->writeBlock([] { return 42; }), 42);
    EXPECT_EQ(lock->writeBlock([] { return std::string("text"); }), "text");
    EXPECT_EQ(*lock->writeBlock([] { return std::make_unique<int>(7); }), 7);
    EXPECT_EQ(lock->writeBlock([] { return std::optional<int>(); }), std::nullopt);
    int outside = 0;
    EXPECT_EQ(&lock->writeBlock([&]() -> int& { return outside; }), &outside);
    static_assert(std::is_void_v<decltype(lock->writeBlock([] {}))>);
    lock->writeBlock([&] { outside = 1; });
    EXPECT_EQ(outside, 1);
}

TEST(ReadWriteLock, ReadBlockReturnsExactlyWhatItsBodyReturned) {
    const auto lock = make<ReadWriteLock>();
    EXPECT_EQ(lock->readBlock([] { return 42; }), 42);
    EXPECT_EQ(*lock->readBlock([] { return std::make_unique<int>(7); }), 7);
    int outside = 0;
    EXPECT_EQ(&lock->readBlock([&]() -> int& { return outside; }), &outside);
    static_assert(std::is_void_v<decltype(lock->readBlock([] {}))>);
}

TEST(ReadWriteLock, TheFormsWithoutResultCallTheirBodyOnceUnderTheLock) {
    const auto lock = make<ReadWriteLock>();
    int calls = 0;
    lock->readBlockObjc([&] {
        ++calls;
        std::thread([&] { lock->readBlock([&] { ++calls; }); }).join();  // readers share
    });
    EXPECT_EQ(calls, 2);
    std::latch inside(1);
    std::thread writer([&] {
        lock->writeBlockObjc([&] {
            inside.count_down();
            yieldForAWhile();
            ++calls;
        });
    });
    inside.wait();
    EXPECT_EQ(lock->readBlock([&] { return calls; }), 3);
    writer.join();
}

TEST(ReadWriteLock, ABodyMayUseAnotherLock) {
    const auto lock = make<ReadWriteLock>();
    const auto another = make<ReadWriteLock>();
    lock->writeBlock([&] {
        another->readLock();
        another->unlock();
        expectFree(*another);
    });
    expectFree(*lock);
    another->writeLock();
    expectFree(*lock);
    another->unlock();
}

TEST(ReadWriteLock, ABodyThatThrowsLeavesTheLockFree) {
    const auto lock = make<ReadWriteLock>();
    const auto fail = [] { throw std::runtime_error("failed"); };
    EXPECT_THROW(lock->readBlock(fail), std::runtime_error);
    expectFree(*lock);
    EXPECT_THROW(lock->writeBlock(fail), std::runtime_error);
    expectFree(*lock);
    EXPECT_THROW(lock->readBlockObjc(fail), std::runtime_error);
    EXPECT_THROW(lock->writeBlockObjc(fail), std::runtime_error);
    expectFree(*lock);
}

TEST(ReadWriteLock, TakingItForWritingTwiceReportsNothing) {
    const auto lock = make<ReadWriteLock>();
    lock->writeLock();
    lock->writeLock();  // the system says EDEADLK, and the lock passes over it
    lock->unlock();
    expectFree(*lock);
}

TEST(ReadWriteLock, ABodyWhoseLockCouldNotBeTakenRunsAndTheLockIsGivenBackAfterIt) {
    const auto lock = make<ReadWriteLock>();
    lock->writeLock();
    int calls = 0;
    lock->writeBlock([&] { ++calls; });
    EXPECT_EQ(calls, 1);
    expectFree(*lock);  // the body's form has given back what this thread held
    lock->writeLock();
    lock->readBlock([&] { ++calls; });
    EXPECT_EQ(calls, 2);
    expectFree(*lock);
}

// By message.

id makeByMessage() {
    return send<id>(send<id>(*Class::named("VQReadWriteLock"), "alloc"_sel), "init"_sel);
}

TEST(ReadWriteLock, TheRuntimeKnowsItByItsOwnName) {
    EXPECT_EQ(Class::named("VQReadWriteLock"), &ReadWriteLock::classObject());
    EXPECT_EQ(Class::named("ReadWriteLock"), nullptr);
    EXPECT_EQ(ReadWriteLock::classObject().name(), "VQReadWriteLock");
}

TEST(ReadWriteLock, IsAllocatedAndInitialisedByMessage) {
    const id made = makeByMessage();
    const auto lock = objectCast<ReadWriteLock>(made);
    ASSERT_NE(lock, nullptr);
    expectFree(*lock);
}

TEST(ReadWriteLock, LocksByMessage) {
    const id made = makeByMessage();
    const auto lock = objectCast<ReadWriteLock>(made);
    send<void>(made, "readLock"_sel);
    std::thread([&] { lock->readBlock([] {}); }).join();
    send<void>(made, "unlock"_sel);
    send<void>(made, "writeLock"_sel);
    EXPECT_TRUE(waitsFor([&] { lock->readBlock([] {}); }, [&] { send<void>(made, "unlock"_sel); }));
    expectFree(*lock);
}

TEST(ReadWriteLock, RunsBlocksByMessage) {
    const id made = makeByMessage();
    const auto lock = objectCast<ReadWriteLock>(made);
    int reads = 0;
    send<void>(made, "readBlockObjc:"_sel,
               [&] { std::thread([&] { lock->readBlock([&] { ++reads; }); }).join(); });
    EXPECT_EQ(reads, 1);
    std::latch begun(1);
    std::atomic<bool> hasRead{false};
    std::thread reader;
    send<void>(made, "writeBlockObjc:"_sel, [&] {
        reader = std::thread([&] {
            begun.count_down();
            lock->readBlock([&] { hasRead = true; });
        });
        begun.wait();
        yieldForAWhile();
        EXPECT_FALSE(hasRead);
    });
    reader.join();
    EXPECT_TRUE(hasRead);
}

TEST(ReadWriteLock, AMessageKeepsTheLockAndTheBlockAliveForItsCall) {
    auto lock = make<ReadWriteLock>();
    const Weak<ReadWriteLock> weakLock(lock);
    auto token = make<NSObject>();
    const Weak<NSObject> weakToken(token);
    ReadWriteLock& receiver = *lock;
    Block<void()> block;
    bool lockLives = false;
    bool blockLives = false;
    block = Block<void()>([&, held = token] {
        lock.reset();
        token.reset();
        block = nullptr;
        lockLives = weakLock.load() != nullptr;
        blockLives = weakToken.load() != nullptr;
    });
    NSObject* const argument = block.object().get();
    send<void>(receiver, "writeBlockObjc:"_sel, argument);
    EXPECT_TRUE(lockLives);
    EXPECT_TRUE(blockLives);
    EXPECT_EQ(weakLock.load(), nullptr);
    EXPECT_EQ(weakToken.load(), nullptr);
}

TEST(ReadWriteLock, ABlockOfAnotherShapeIsRefused) {
    const auto lock = make<ReadWriteLock>();
    const id takesNumber = Block<void(NSInteger)>([](NSInteger) {});
    EXPECT_FALSE(trySend<void>(lock, "readBlockObjc:"_sel, takesNumber));
    EXPECT_FALSE(trySend<void>(lock, "readBlock:"_sel, [] {}));  // not offered by message
}

TEST(ReadWriteLock, DeallocByMessageEndsALockOfASenderThatOwnsItByHand) {
    auto lock = make<ReadWriteLock>();
    const Weak<ReadWriteLock> weak(lock);
    NSObject* const byHand = lock.leak();
    send<void>(*byHand, "dealloc"_sel);
    EXPECT_EQ(weak.load(), nullptr);
}

TEST(ReadWriteLock, DeallocByMessageOfALockWithOtherOwnersTraps) {
    const auto lock = make<ReadWriteLock>();
    const auto another = lock;
    EXPECT_TRAP(send<void>(lock, "dealloc"_sel),
                "dealloc was sent to a lock that has other owners");
}

}  // namespace
}  // namespace vantorq
