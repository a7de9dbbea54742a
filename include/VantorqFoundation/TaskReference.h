#pragma once

#include <exception>
#include <utility>

#include "Cancellable.h"
#include "Platform/Async.h"
#include "Platform/RefCounted.h"
#include "Platform/Task.h"

namespace vantorq {

/// A shared object in place of a task's handle: stored, cancelled and awaited like the other
/// cancellables.
///
///     auto request = reference(Task<Page>::start(load));
///     (*running_)[Keys::page] = request;
///     Page page = co_await request->value();
///
/// It stays alive at least until the task has ended, also when nobody else owns it, and keeps alive
/// what it was given to own. Letting go of it does not cancel the task.
///
/// Threads: any, but for `setDisposable`.
template <class Success = void, class Failure = std::exception_ptr>
class TaskReference final : public RefCounted {
public:
    /// For `reference`, which also keeps the object alive.
    explicit TaskReference(Task<Success, Failure> task) noexcept : task_(std::move(task)) {}

    void cancel() { task_.cancel(); }
    [[nodiscard]] bool isCancelled() const noexcept { return task_.isCancelled(); }

    /// Awaited, gives the task's value when it has ended, or throws what it has thrown.
    [[nodiscard]] auto value() const noexcept { return task_.value(); }
    /// Awaited, gives the task's outcome when it has ended.
    [[nodiscard]] auto result() const noexcept { return task_.result(); }

    [[nodiscard]] const Task<Success, Failure>& task() const noexcept { return task_; }

    /// Something that ends with this object; nil until set.
    [[nodiscard]] const Ref<Disposable>& disposable() const noexcept { return disposable_; }
    /// By the thread that has made the object, before others use it.
    void setDisposable(Ref<Disposable> disposable) noexcept { disposable_ = std::move(disposable); }

private:
    ~TaskReference() override = default;

    const Task<Success, Failure> task_;
    Ref<Disposable> disposable_;
};

/// The reference object of a task: a new one each time, kept alive until the task has ended by a
/// task that waits for it.
template <class Success, class Failure>
[[nodiscard]] Ref<TaskReference<Success, Failure>> reference(Task<Success, Failure> task) {
    const auto made = make<TaskReference<Success, Failure>>(std::move(task));
    Task<>::start([made]() -> Async<> {
        detail::TaskEnd end{*made->task().state()};
        co_await end;
    });
    return made;
}

}  // namespace vantorq
