#pragma once

#include <cstddef>
#include <string_view>

#include "VantorqFoundation/Platform/DispatchQueue.h"
#include "Work.h"

namespace vantorq {

/// A queue whose work goes straight to the thread pool.
class PoolQueue final : public DispatchQueue {
public:
    enum class Lifetime : bool { counted, endless };

    PoolQueue(std::string_view label, DispatchQoS qos, Lifetime lifetime);

    /// The process's queue for this quality of service; never destroyed.
    static PoolQueue& global(DispatchQoS qos);

    void enqueue(Work& work) override;
    /// Called by the pool when a piece of work has been run.
    void workEnded() noexcept {
        if (lifetime_ == Lifetime::counted) {
            release();
        }
    }

protected:
    void runAndWait(void (*function)(void*) noexcept, void* context) override;

private:
    ~PoolQueue() override = default;

    const std::size_t lane_;
    const Lifetime lifetime_;
};

}  // namespace vantorq
