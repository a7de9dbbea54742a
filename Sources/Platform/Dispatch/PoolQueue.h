#pragma once

#include <cstddef>
#include <string_view>

#include "VantorqFoundation/Platform/DispatchQueue.h"
#include "Work.h"

namespace vantorq {

/// A queue whose work goes straight to the thread pool.
class PoolQueue final : public DispatchQueue {
public:
    PoolQueue(std::string_view label, DispatchQoS qos);

    /// The process's queue for this quality of service; never destroyed.
    static PoolQueue& global(DispatchQoS qos);

    void enqueue(Work& work) override;
    /// Called by the pool when a piece of work has been run.
    void workEnded() noexcept { release(); }
    [[nodiscard]] std::size_t lane() const noexcept { return lane_; }

protected:
    void runAndWait(void (*function)(void*) noexcept, void* context) override;

private:
    ~PoolQueue() override = default;

    const std::size_t lane_;
};

}  // namespace vantorq
