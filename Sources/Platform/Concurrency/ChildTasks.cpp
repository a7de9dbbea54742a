#include "VantorqFoundation/Platform/ChildTasks.h"

namespace vantorq::detail {

namespace {

/// Awaited, waits until a task has ended.
struct End {
    [[nodiscard]] bool await_ready() const noexcept { return task.isDone(); }
    bool await_suspend(std::coroutine_handle<> awaiter) noexcept {
        noteSuspension(job, awaiter);
        return task.addWaiter(job);
    }
    void await_resume() const noexcept {}

    TaskState& task;
    Job job{};
};

}  // namespace

ChildTasks::~ChildTasks() = default;

Async<> ChildTasks::run() {
    auto cancelAll = [this] { cancel(); };
    const CancellationScope scope(cancelAll);
    for (const auto& task : tasks_) {
        task->start();
    }
    for (const auto& task : tasks_) {
        co_await End{*task};
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
