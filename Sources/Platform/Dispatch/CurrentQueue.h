#pragma once

#include "VantorqFoundation/Platform/DispatchQueue.h"

namespace vantorq {

/// Says, while it lives on a thread's stack, that the thread runs work of `queue`. The outer frames
/// are the queues whose work waits for that work to end.
class QueueFrame {
public:
    explicit QueueFrame(DispatchQueue* queue) noexcept : queue_(queue), outer_(innermost_) {
        innermost_ = this;
    }
    ~QueueFrame() { innermost_ = outer_; }
    QueueFrame(const QueueFrame&) = delete;
    QueueFrame& operator=(const QueueFrame&) = delete;

    void setQueue(DispatchQueue* queue) noexcept { queue_ = queue; }

    /// Null when the thread runs no queue's work.
    [[nodiscard]] static DispatchQueue* currentQueue() noexcept {
        return innermost_ != nullptr ? innermost_->queue_ : nullptr;
    }
    /// Whether the thread's work is part, however deep, of the work of `queue`.
    [[nodiscard]] static bool isWithin(const DispatchQueue& queue) noexcept;

private:
    [[gnu::tls_model("initial-exec")]] static constinit thread_local QueueFrame* innermost_;

    DispatchQueue* queue_;
    QueueFrame* const outer_;
};

}  // namespace vantorq
