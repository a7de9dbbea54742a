#include "VantorqFoundation/Platform/NSRecursiveLock.h"

#include "Sources/Platform/Dispatch/MonotonicTime.h"
#include "VantorqFoundation/Platform/Class.h"

namespace vantorq {

bool NSRecursiveLock::lockBeforeDate(const NSDate& limit) noexcept {
    return lock_.tryLockUntil(instantAfterSeconds(limit.timeIntervalSinceNow()));
}

namespace {

constexpr MethodInfo kMethods[] = {
    method<&NSRecursiveLock::lock>("lock"),
    method<&NSRecursiveLock::unlock>("unlock"),
    method<&NSRecursiveLock::tryLock>("tryLock"),
    method<&NSRecursiveLock::lockBeforeDate>("lockBeforeDate:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSRecursiveLock, {.methods = kMethods})

}  // namespace vantorq
