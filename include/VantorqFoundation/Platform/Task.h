#pragma once

#include <atomic>
#include <concepts>
#include <coroutine>
#include <cstdint>
#include <exception>
#include <expected>
#include <optional>
#include <type_traits>
#include <utility>

#include "Async.h"
#include "Executor.h"
#include "Export.h"
#include "RefCounted.h"
#include "Trap.h"
#include "UnfairLock.h"

namespace vantorq {

/// What ends work that notices that it was cancelled.
class VNTQ_EXPORT CancellationError final : public std::exception {
public:
    CancellationError() noexcept = default;
    ~CancellationError() override;
    /// "The work was cancelled."
    [[nodiscard]] const char* what() const noexcept override;
};

/// The failure of what cannot fail. There is no value of this type.
struct Never {
    Never() = delete;
};

/// An outcome: a value, or what went wrong.
template <class Success, class Failure = std::exception_ptr>
using Result = std::expected<Success, Failure>;

namespace detail {

/// A function to call when a task is cancelled. Stands in the frame of the code that waits.
struct CancellationHandler {
    void (*call)(CancellationHandler& self) noexcept = nullptr;
    CancellationHandler* previous = nullptr;
    CancellationHandler* next = nullptr;
};

/// What a task is, but for its value.
class VNTQ_EXPORT TaskState : public RefCounted {
public:
    explicit TaskState(Ref<Executor> home) noexcept : home_(std::move(home)) {}

    /// Null: the default global queue.
    [[nodiscard]] const Ref<Executor>& home() const noexcept { return home_; }

    void cancel() noexcept;
    [[nodiscard]] bool isCancelled() const noexcept {
        return (flags_.load(std::memory_order_acquire) & kCancelled) != 0;
    }
    [[nodiscard]] bool isDone() const noexcept {
        return (flags_.load(std::memory_order_acquire) & kDone) != 0;
    }

    /// False when the task is cancelled already: the caller calls the handler.
    bool addHandler(CancellationHandler& handler);
    /// When this returns, the handler does not run and never will.
    void removeHandler(CancellationHandler& handler) noexcept;

    /// False when the task is done: the caller goes on.
    bool addWaiter(Job& waiter) noexcept;
    /// Blocks the thread until the task is done.
    void wait() noexcept;
    /// Runs the task on the calling thread as far as it goes there.
    void runHere() noexcept;

    /// Starts the task by sending its function to the executor.
    void start() noexcept;
    /// Ends a task that has no coroutine, once its outcome is there, for those who wait.
    void finish() noexcept;

protected:
    ~TaskState() override = default;

    /// The coroutine that the task is.
    void setCoroutine(std::coroutine_handle<> coroutine, PromiseBase& promise) noexcept {
        job_.handle = coroutine;
        promise.ownTask = this;
    }
    /// Takes the coroutine's outcome over and frees the coroutine.
    virtual void collect() noexcept {}

private:
    friend class PromiseBase;

    static constexpr std::uint32_t kCancelled = 1;
    static constexpr std::uint32_t kDone = 2;
    static constexpr std::uint32_t kIsWaitedForByThread = 4;

    std::coroutine_handle<> end() noexcept;
    Job* markDone() noexcept;
    std::coroutine_handle<> goOnWith(Job* waiters) noexcept;
    void unlink(CancellationHandler& handler) noexcept;

    std::atomic<std::uint32_t> flags_{0};
    UnfairLock lock_;
    CancellationHandler* handlers_ = nullptr;        // guarded by the lock
    CancellationHandler* runningHandler_ = nullptr;  // likewise
    const void* handlersThread_ = nullptr;           // likewise: the thread that calls it
    std::atomic<std::uint32_t> handlersRun_{0};
    Job* waiters_ = nullptr;  // guarded by the lock; the last one first
    Ref<Executor> home_;
    Job job_;
};

/// Awaited, waits until a task has ended.
struct TaskEnd {
    [[nodiscard]] bool await_ready() const noexcept { return awaited.isDone(); }
    bool await_suspend(std::coroutine_handle<> awaiter) noexcept {
        noteSuspension(job, awaiter);
        return awaited.addWaiter(job);
    }
    void await_resume() const noexcept {}

    TaskState& awaited;
    Job job{};
};

/// A task with a value.
template <class T>
class TaskOf : public TaskState {
public:
    using TaskState::TaskState;
    Outcome<T> outcome;

protected:
    ~TaskOf() override = default;

    /// Of an `Async` that is not ready.
    void adopt(Async<T>& async) noexcept {
        setCoroutine(async.coroutine_, async.coroutine_.promise());
    }
    void collectFrom(Async<T>& async) noexcept {
        outcome = std::move(async.coroutine_.promise().outcome);
    }
};

/// Turns a ready result into a coroutine.
template <class T>
Async<T> coroutineOf(Async<T> async) {
    if (!async.isReady()) {
        return async;
    }
    return
        [](Async<T> ready) -> Async<T> { co_return co_await std::move(ready); }(std::move(async));
}

/// The executor of the task whose code the caller is; null outside of any.
inline Ref<Executor> currentHome() noexcept {
    const TaskState* current = context().task;
    return current != nullptr ? current->home() : nullptr;
}

/// A task that runs what a function has returned.
template <class T>
class TaskWithAsync : public TaskOf<T> {
public:
    TaskWithAsync(Ref<Executor> home, Async<T> async)
        : TaskOf<T>(std::move(home)), async_(coroutineOf(std::move(async))) {
        this->adopt(*async_);
    }

protected:
    ~TaskWithAsync() override = default;

    void collect() noexcept override {
        this->collectFrom(*async_);
        async_.reset();
    }

private:
    std::optional<Async<T>> async_;
};

/// A task with the function that it runs.
template <class T, class F>
class TaskWithFunction final : public TaskOf<T> {
public:
    template <class G>
    TaskWithFunction(Ref<Executor> home, G&& function)
        : TaskOf<T>(std::move(home)), function_(std::forward<G>(function)) {
        async_.emplace(coroutineOf((*function_)()));
        this->adopt(*async_);
    }

protected:
    void collect() noexcept override {
        this->collectFrom(*async_);
        async_.reset();
        function_.reset();
    }

private:
    ~TaskWithFunction() override = default;

    std::optional<F> function_;
    std::optional<Async<T>> async_;
};

}  // namespace detail

/// What a task may be told at its start.
struct TaskOptions {
    /// Where it runs: the executor of the task that starts it when not given, else the default
    /// global queue.
    Ref<Executor> executor = nullptr;
};

/// A handle of work that runs beside others, and may be cancelled and waited for.
///
///     auto task = Task<int>::start([image]() -> Async<int> { co_return co_await area(image); });
///     task.cancel();
///     int pixels = co_await task.value();
///
/// A task goes on to its end whether or not somebody holds a handle or waits. Cancelling it sets a
/// flag, which the work may look at (`thisTask::isCancelled`), and calls the handlers that the work
/// has installed (`withTaskCancellationHandler`), nothing more: sleeping, waiting in a stream and
/// the like notice that by themselves. Cancelling who waits for a task does not cancel the task.
///
/// Starting a task takes one allocation beside the frame of the function. `start` calls the
/// function object, on the calling thread, and throws what that throws; the function that it gives
/// is run by the executor, on no actor, also when the task is cancelled before. The function object
/// is kept, with all that it has captured, until the work has ended. What the work throws is for
/// those who ask for its value or its outcome; when nobody does, it is dropped.
///
/// `Failure` is `std::exception_ptr`, or `Never` for work that throws nothing: asking for the value
/// of work that an exception has left then ends the process.
///
/// Threads: any. Handles are values: copies mean the same task, and compare equal.
template <class Success = void, class Failure = std::exception_ptr>
class Task {
public:
    using Outcome = Result<Success, Failure>;

    /// Starts `function`, which takes nothing and returns an `Async<Success>`.
    template <class F>
        requires std::same_as<std::invoke_result_t<std::decay_t<F>&>, Async<Success>>
    static Task start(F&& function, TaskOptions options = {}) {
        Task task;
        task.state_ = make<detail::TaskWithFunction<Success, std::decay_t<F>>>(
            options.executor != nullptr ? std::move(options.executor) : detail::currentHome(),
            std::forward<F>(function));
        task.state_->start();
        return task;
    }

    void cancel() const noexcept { state_->cancel(); }
    [[nodiscard]] bool isCancelled() const noexcept { return state_->isCancelled(); }
    [[nodiscard]] bool isDone() const noexcept { return state_->isDone(); }

    /// Awaited, gives a copy of the value when the work has ended, or throws what it has thrown.
    [[nodiscard]] auto value() const noexcept { return ValueAwaiter(state_); }
    /// Awaited, gives the outcome when the work has ended.
    [[nodiscard]] auto result() const noexcept { return ResultAwaiter(state_); }
    /// The outcome; traps when the work has not ended.
    [[nodiscard]] Outcome outcome() const {
        if (!isDone()) {
            VNTQ_TRAP("Task: the outcome of work that has not ended was asked for");
        }
        if (std::exception_ptr error = state_->outcome.error()) {
            if constexpr (std::same_as<Failure, Never>) {
                std::rethrow_exception(std::move(error));
            } else {
                return std::unexpected(std::move(error));
            }
        }
        if constexpr (std::is_void_v<Success>) {
            return {};
        } else {
            return *state_->outcome.value();
        }
    }

    [[nodiscard]] const Ref<detail::TaskOf<Success>>& state() const noexcept { return state_; }

    friend bool operator==(const Task&, const Task&) noexcept = default;

private:
    struct Awaiter : detail::TaskEnd {
        explicit Awaiter(Ref<detail::TaskOf<Success>> task) noexcept
            : detail::TaskEnd{*task}, state(std::move(task)) {}

        Ref<detail::TaskOf<Success>> state;
    };
    struct ValueAwaiter : Awaiter {
        using Awaiter::Awaiter;
        Success await_resume() const noexcept(std::same_as<Failure, Never>) {
            this->state->outcome.rethrow();
            if constexpr (!std::is_void_v<Success>) {
                return *this->state->outcome.value();
            }
        }
    };
    struct ResultAwaiter : Awaiter {
        using Awaiter::Awaiter;
        Outcome await_resume() const {
            Task task;
            task.state_ = this->state;
            return task.outcome();
        }
    };

    Task() noexcept = default;

    Ref<detail::TaskOf<Success>> state_;
};

/// The task whose code the caller is. Outside of any task nothing is ever cancelled.
namespace thisTask {

[[nodiscard]] inline bool isCancelled() noexcept {
    const detail::Context& here = detail::context();
    return here.task != nullptr && here.task->isCancelled() && !here.isShielded;
}

/// Throws `CancellationError` when the task is cancelled.
inline void checkCancellation() {
    if (isCancelled()) {
        throw CancellationError();
    }
}

/// Awaited, lets what else waits for the executor run first; on an actor, what else waits for that.
inline auto yield() noexcept {
    struct Awaiter {
        [[nodiscard]] bool await_ready() const noexcept { return false; }
        void await_suspend(std::coroutine_handle<> coroutine) noexcept {
            detail::noteSuspension(job, coroutine);
            detail::resume(job);
        }
        void await_resume() const noexcept {}

        detail::Job job;
    };
    return Awaiter();
}

}  // namespace thisTask

namespace detail {

/// Has `function()` called when the current task is cancelled, at once if it already is, for as
/// long as the scope lasts.
template <class F>
class CancellationScope : private CancellationHandler {
public:
    explicit CancellationScope(F& function) noexcept
        : function_(function), task_(context().isShielded ? nullptr : context().task) {
        call = [](CancellationHandler& self) noexcept {
            static_cast<CancellationScope&>(self).function_();
        };
        if (task_ != nullptr && !task_->addHandler(*this)) {
            task_ = nullptr;
            function_();
        }
    }
    ~CancellationScope() {
        if (task_ != nullptr) {
            task_->removeHandler(*this);
        }
    }
    CancellationScope(const CancellationScope&) = delete;
    CancellationScope& operator=(const CancellationScope&) = delete;

private:
    F& function_;
    TaskState* task_;
};

}  // namespace detail

/// Awaits `operation()`, and calls `onCancel()` when the current task is cancelled meanwhile: on
/// the cancelling thread, once, or before the operation if the task is cancelled already. When this
/// returns, `onCancel` does not run and never will; so it must not wait for the operation. An
/// exception that leaves `onCancel` ends the process.
template <class Operation, class OnCancel>
    requires isAsync<std::invoke_result_t<Operation&>> && std::invocable<OnCancel&>
std::invoke_result_t<Operation&> withTaskCancellationHandler(Operation operation,
                                                             OnCancel onCancel) {
    const detail::CancellationScope<OnCancel> scope(onCancel);
    auto pending = operation();
    co_return co_await std::move(pending);
}

/// Waits for `async` in a thread, and returns its value or throws what it throws. The function runs
/// on the calling thread, as a task of its own, up to the first await that has to wait, and then on
/// the default global queue. The thread does nothing else meanwhile: a main thread does not serve
/// the main queue. For `main` functions and tests; code of a task awaits instead.
template <class T>
T syncWait(Async<T> async) {
    const auto task = make<detail::TaskWithAsync<T>>(nullptr, std::move(async));
    task->runHere();
    task->wait();
    return task->outcome.take();
}

/// Waits for a task in a thread.
template <class Success, class Failure>
Success syncWait(const Task<Success, Failure>& task) {
    task.state()->wait();
    task.state()->outcome.rethrow();
    if constexpr (!std::is_void_v<Success>) {
        return *task.state()->outcome.value();
    }
}

}  // namespace vantorq

template <class Success, class Failure>
struct std::hash<vantorq::Task<Success, Failure>> {
    std::size_t operator()(const vantorq::Task<Success, Failure>& task) const noexcept {
        return std::hash<const void*>()(task.state().get());
    }
};
