#pragma once

#include <cstddef>
#include <mutex>
#include <utility>
#include <vector>

#include "Support/Cancellables.h"
#include "VantorqFoundation/Platform/Async.h"
#include "VantorqFoundation/Platform/Continuation.h"
#include "VantorqFoundation/Platform/RefCounted.h"
#include "VantorqFoundation/Platform/UnfairLock.h"

/// What the tests of tasks wait for and pass about.
namespace vantorq::test {

/// What tests give to functions, to see when these let go of it.
class Token final : public Counted {
private:
    ~Token() override = default;
};

/// What functions wait at until the test opens it, cancelled or not. Any thread may open it, once.
class Gate {
public:
    Async<> wait() {
        auto add = [this](Continuation<void> continuation) {
            {
                const std::lock_guard guard(lock_);
                if (!isOpen_) {
                    waiters_.push_back(std::move(continuation));
                    return;
                }
            }
            continuation.resume();
        };
        co_await withContinuation<void>(add);
    }

    [[nodiscard]] std::size_t waiterCount() const {
        const std::lock_guard guard(lock_);
        return waiters_.size();
    }

    void open() {
        std::vector<Continuation<void>> waiters;
        {
            const std::lock_guard guard(lock_);
            isOpen_ = true;
            waiters.swap(waiters_);
        }
        for (const auto& waiter : waiters) {
            waiter.resume();
        }
    }

private:
    mutable UnfairLock lock_;
    bool isOpen_ = false;
    std::vector<Continuation<void>> waiters_;
};

}  // namespace vantorq::test
