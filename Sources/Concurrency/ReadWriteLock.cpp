#include "VantorqFoundation/ReadWriteLock.h"

#include <utility>

#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/Trap.h"

namespace vantorq {

void ReadWriteLock::aroundBlock(Acquire* acquireLock, Block<void()> body) {
    const Ref<ReadWriteLock> self(this);
    const Block<void()> copy = std::move(body);
    around(acquireLock, copy);
}

struct ReadWriteLockMessages {
    /// What allocation made is ready for use.
    static id init(ReadWriteLock& self) { return self; }
    /// The one way to end an object by name, for a sender that holds the only count by hand.
    static void dealloc(ReadWriteLock& self) {
        if (self.ownerCount() != 1) [[unlikely]] {
            VNTQ_TRAP("VQReadWriteLock: dealloc was sent to a lock that has other owners");
        }
        self.release();
    }
    static void readBlock(ReadWriteLock& self, Block<void()> body) {
        self.aroundBlock(&pthread_rwlock_rdlock, std::move(body));
    }
    static void writeBlock(ReadWriteLock& self, Block<void()> body) {
        self.aroundBlock(&pthread_rwlock_wrlock, std::move(body));
    }
};

namespace {

constexpr MethodInfo kMethods[] = {
    method<&ReadWriteLockMessages::init>("init"),
    method<&ReadWriteLockMessages::dealloc>("dealloc"),
    method<&ReadWriteLock::readLock>("readLock"),
    method<&ReadWriteLock::writeLock>("writeLock"),
    method<&ReadWriteLock::unlock>("unlock"),
    method<&ReadWriteLockMessages::readBlock>("readBlockObjc:"),
    method<&ReadWriteLockMessages::writeBlock>("writeBlockObjc:"),
};

}  // namespace

VNTQ_DEFINE_CLASS_NAMED(ReadWriteLock, "VQReadWriteLock", {.methods = kMethods})

}  // namespace vantorq
