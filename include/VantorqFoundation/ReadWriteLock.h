#pragma once

#include <pthread.h>
#include <type_traits>
#include <utility>

#include "Platform/Block.h"
#include "Platform/Export.h"
#include "Platform/NSObject.h"

namespace vantorq {

/// Admits many readers or one writer: a POSIX read-write lock (pthread_rwlock_rdlock(3p) and its
/// kin, default attributes) as an object. The runtime knows the class as `VQReadWriteLock`.
///
///     auto lock = make<ReadWriteLock>();
///     int sum = lock->readBlock([&] { return a + b; });
///     lock->writeBlock([&] { a = 1; });
///
/// The lock stands in the object itself, and every member is a direct call of one POSIX function:
/// nothing is counted, and nothing else is allocated. Which waiting thread comes first, and whether
/// a waiting writer keeps new readers out, is up to the system. Not reentrant: taking it again on a
/// thread that holds it for writing, or for writing where it is held for reading, is an error of
/// the caller; reading within reading goes as far as the system lets it.
///
/// The status that POSIX returns is discarded everywhere: no member reports, throws or stops. A
/// scoped form whose lock could not be taken still calls its body, and gives back afterwards.
/// Giving back a lock that is not held, or destroying one that is, has the effect that the system
/// gives it.
///
/// By message, `dealloc` ends the lock at once; it traps while there are other owners.
///
/// Threads: any; the one that took it gives it back.
class VNTQ_EXPORT ReadWriteLock final : public NSObject {
    VNTQ_OBJECT(ReadWriteLock, NSObject)
public:
    /// Unlocked.
    ReadWriteLock() noexcept : backingLock_() { (void)pthread_rwlock_init(&backingLock_, nullptr); }

    /// Waits until no thread writes. Paired with one `unlock` on the same thread.
    void readLock() noexcept { acquire(&pthread_rwlock_rdlock); }
    /// Waits until no thread reads or writes. Paired with one `unlock` on the same thread.
    void writeLock() noexcept { acquire(&pthread_rwlock_wrlock); }
    /// Gives back either kind.
    void unlock() noexcept { (void)pthread_rwlock_unlock(&backingLock_); }

    // A function under the lock. It is called once, where it stands: nothing is allocated for it.
    // What it throws passes through, after the lock was given back.

    /// Calls `body()` under the read lock and returns what it returns.
    template <class Body>
    std::invoke_result_t<Body> readBlock(Body&& body) {
        return around(&pthread_rwlock_rdlock, std::forward<Body>(body));
    }
    /// Calls `body()` under the write lock and returns what it returns.
    template <class Body>
    std::invoke_result_t<Body> writeBlock(Body&& body) {
        return around(&pthread_rwlock_wrlock, std::forward<Body>(body));
    }

    // The same for bodies without a result. The runtime has these too: there the block and the lock
    // are kept alive for the length of the call.

    template <class Body>
        requires std::is_void_v<std::invoke_result_t<Body>>
    void readBlockObjc(Body&& body) {
        around(&pthread_rwlock_rdlock, std::forward<Body>(body));
    }
    template <class Body>
        requires std::is_void_v<std::invoke_result_t<Body>>
    void writeBlockObjc(Body&& body) {
        around(&pthread_rwlock_wrlock, std::forward<Body>(body));
    }

private:
    friend struct ReadWriteLockMessages;
    using Acquire = int(pthread_rwlock_t*);

    ~ReadWriteLock() override { (void)pthread_rwlock_destroy(&backingLock_); }

    void acquire(Acquire* acquireLock) noexcept { (void)acquireLock(&backingLock_); }

    template <class Body>
    std::invoke_result_t<Body> around(Acquire* acquireLock, Body&& body) {
        struct Held {
            ReadWriteLock& lock;
            ~Held() { lock.unlock(); }
        };
        acquire(acquireLock);
        const Held held{*this};
        return std::forward<Body>(body)();
    }

    /// Around a block that came by message. Its sender may drop its references to both meanwhile.
    void aroundBlock(Acquire* acquireLock, Block<void()> body);

    pthread_rwlock_t backingLock_;
};

}  // namespace vantorq
