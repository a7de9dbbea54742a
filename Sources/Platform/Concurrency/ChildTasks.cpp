#include "VantorqFoundation/Platform/ChildTasks.h"

namespace vantorq::detail {

ChildTasks::~ChildTasks() = default;

Async<> ChildTasks::run() {
    auto cancelAll = [this] { cancel(); };
    const CancellationScope scope(cancelAll);
    for (const auto& task : tasks_) {
        task->start();
    }
    for (const auto& task : tasks_) {
        TaskEnd end{*task};
        co_await end;
    }
}

void ChildTasks::decide(const TaskState& child) noexcept {
    const TaskState* none = nullptr;
    if (decisive_.compare_exchange_strong(none, &child, std::memory_order_release,
                                          std::memory_order_relaxed)) {
        cancel();
    }
}

void ChildTasks::cancel() noexcept {
    for (const auto& task : tasks_) {
        task->cancel();
    }
}

}  // namespace vantorq::detail
