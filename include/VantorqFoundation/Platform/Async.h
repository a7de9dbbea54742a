#pragma once

#include <concepts>
#include <coroutine>
#include <cstddef>
#include <exception>
#include <functional>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "Executor.h"
#include "RefCounted.h"
#include "Trap.h"

/// The result of a function that may have to wait.
///
///     Async<int> area(Ref<Image> image) {
///         const auto size = co_await image->size();
///         co_return size.width * size.height;
///     }
///
/// Such a function does nothing until its result is awaited. It then runs on the awaiting thread,
/// up to the first await that has to wait, and the awaiting code goes on when it ends: on the actor
/// where it was, else on its task's executor. An exception that leaves the function is thrown by
/// the await. To run a function beside others, give it to a `Task`; to wait for one in a thread of
/// one's own, use `syncWait`.
///
/// An `Async` is awaited within a task or a `syncWait`. An awaitable of another library may be
/// awaited in it only if it resumes on the thread that awaits: elsewhere the function would be
/// outside of its task. Use `withContinuation` or a callback bridge for what comes from elsewhere.
///
/// A call and its await take one allocation, the function's frame. A chain of awaits of any length
/// does not deepen the stack; with GCC that holds in code that is compiled with optimisation, as it
/// passes from one coroutine to the next by plain calls at `-O0`.
///
/// GCC 12 compiles some awaits wrongly, without a word. Closures, and aggregates that own
/// something, are destroyed twice when they are made within the awaited expression, and aggregates
/// when an await stands in their initialiser: give what you await a name first (`auto pending =
/// f([value] { … });`). A condition such as `if (co_await f() == 1)` may never end: await there
/// only to declare a variable, or test one that was set before.
///
/// What the function's parameters refer to has to live until the await ends. Beware of a lambda
/// with captures that is itself a coroutine: its captures are those of the lambda, which may be
/// gone while the function still runs; `Task` keeps the lambda that it is given.
namespace vantorq {

template <class T = void>
class Async;

namespace detail {

template <class T>
using Stored = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

/// What a function has come to: nothing yet, a value, or an exception.
template <class T>
class Outcome {
public:
    template <class... A>
    void setValue(A&&... arguments) {
        state_.template emplace<1>(std::forward<A>(arguments)...);
    }
    void setError(std::exception_ptr error) noexcept {
        state_.template emplace<2>(std::move(error));
    }
    [[nodiscard]] const Stored<T>* value() const noexcept { return std::get_if<1>(&state_); }
    [[nodiscard]] std::exception_ptr error() const noexcept {
        const auto* error = std::get_if<2>(&state_);
        return error != nullptr ? *error : nullptr;
    }
    /// The value, moved out; throws the exception.
    T take() {
        rethrow();
        if constexpr (!std::is_void_v<T>) {
            return std::move(*std::get_if<1>(&state_));
        }
    }
    void rethrow() const {
        if (const auto* error = std::get_if<2>(&state_)) {
            std::rethrow_exception(*error);
        }
    }

private:
    std::variant<std::monostate, Stored<T>, std::exception_ptr> state_;
};

/// What every coroutine of ours has in its frame.
class PromiseBase {
public:
    static void* operator new(std::size_t size) { return allocateObject(size); }
    static void operator delete(void* memory, std::size_t size) noexcept {
        freeObject(memory, size);
    }

    std::suspend_always initial_suspend() const noexcept { return {}; }

    /// What goes on when the function has ended, on which actor.
    std::coroutine_handle<> awaiter;
    Actor* awaitersActor = nullptr;
    /// Instead of an awaiter: the task that the function is all of.
    TaskState* ownTask = nullptr;
    Job job;

protected:
    struct End {
        [[nodiscard]] bool await_ready() const noexcept { return false; }
        template <class Promise>
        std::coroutine_handle<> await_suspend(std::coroutine_handle<Promise> ended) const noexcept {
            return static_cast<PromiseBase&>(ended.promise()).goOn();
        }
        void await_resume() const noexcept {}
    };

private:
    std::coroutine_handle<> goOn() noexcept {
        if (ownTask != nullptr) {
            return endTask(*ownTask);
        }
        if (context().actor == awaitersActor) {
            return awaiter;
        }
        noteSuspension(job, awaiter);
        return enter(awaitersActor, job) ? job.handle : std::noop_coroutine();
    }
    VNTQ_EXPORT static std::coroutine_handle<> endTask(TaskState& task) noexcept;
};

template <class T>
class AsyncPromise;

template <class T>
class AsyncPromiseOfValue : public PromiseBase {
public:
    template <class U = T>
        requires std::convertible_to<U&&, T>
    void return_value(U&& value) {
        outcome.setValue(std::forward<U>(value));
    }
    Outcome<T> outcome;
};
template <>
class AsyncPromiseOfValue<void> : public PromiseBase {
public:
    void return_void() { outcome.setValue(); }
    Outcome<void> outcome;
};

template <class T>
class AsyncPromise final : public AsyncPromiseOfValue<T> {
public:
    Async<T> get_return_object() noexcept;
    auto final_suspend() const noexcept { return typename PromiseBase::End(); }
    void unhandled_exception() noexcept { this->outcome.setError(std::current_exception()); }
};

template <class T>
struct IsAsync : std::false_type {};
template <class T>
struct IsAsync<Async<T>> : std::true_type {
    using Value = T;
};

}  // namespace detail

/// Whether T is an `Async` of something.
template <class T>
inline constexpr bool isAsync = detail::IsAsync<std::remove_cvref_t<T>>::value;

template <class T>
class [[nodiscard]] Async {
public:
    using Value = T;
    using promise_type = detail::AsyncPromise<T>;

    /// A result that is there already. Awaiting it does not suspend and takes no allocation.
    template <class... A>
        requires std::constructible_from<detail::Stored<T>, A...>
    [[nodiscard]] static Async ready(A&&... arguments) {
        Async result;
        result.ready_.emplace(std::forward<A>(arguments)...);
        return result;
    }

    Async(Async&& other) noexcept
        : coroutine_(std::exchange(other.coroutine_, nullptr)), ready_(std::move(other.ready_)) {}
    Async& operator=(Async&& other) noexcept {
        if (this != &other) {
            destroy();
            coroutine_ = std::exchange(other.coroutine_, nullptr);
            ready_ = std::move(other.ready_);
        }
        return *this;
    }
    /// A function that was not awaited has never run; its parameters are destroyed.
    ~Async() { destroy(); }

    /// Whether the result is there without waiting.
    [[nodiscard]] bool isReady() const noexcept { return ready_.has_value(); }

    /// The result, moved out, of one that is ready.
    [[nodiscard]] T takeReady() {
        if constexpr (!std::is_void_v<T>) {
            return *std::move(ready_);
        }
    }

    /// Runs the function and gives its result; once.
    auto operator co_await() && noexcept { return Awaiter(*this); }

private:
    friend promise_type;
    friend detail::TaskState;
    template <class>
    friend class detail::TaskOf;

    class Awaiter {
    public:
        explicit Awaiter(Async& async) noexcept : async_(async) {}
        [[nodiscard]] bool await_ready() const noexcept { return async_.isReady(); }
        std::coroutine_handle<> await_suspend(std::coroutine_handle<> awaiter) const noexcept {
            if (async_.coroutine_ == nullptr || async_.coroutine_.done()) {
                VNTQ_TRAP("Async: awaited twice");
            }
            detail::PromiseBase& promise = async_.coroutine_.promise();
            promise.awaiter = awaiter;
            promise.awaitersActor = detail::context().actor;
            return async_.coroutine_;
        }
        T await_resume() const {
            if (async_.coroutine_ != nullptr) {
                return async_.coroutine_.promise().outcome.take();
            }
            if constexpr (!std::is_void_v<T>) {
                return *std::move(async_.ready_);
            }
        }

    private:
        Async& async_;
    };

    Async() noexcept = default;
    explicit Async(std::coroutine_handle<promise_type> coroutine) noexcept
        : coroutine_(coroutine) {}

    void destroy() noexcept {
        if (coroutine_ != nullptr) {
            coroutine_.destroy();
        }
    }

    std::coroutine_handle<promise_type> coroutine_;
    std::optional<detail::Stored<T>> ready_;
};

template <class T>
Async<T> detail::AsyncPromise<T>::get_return_object() noexcept {
    return Async<T>(std::coroutine_handle<AsyncPromise>::from_promise(*this));
}

namespace detail {
template <class R>
struct AsyncOf {
    using Type = Async<R>;
};
template <class T>
struct AsyncOf<Async<T>> {
    using Type = Async<T>;
};
}  // namespace detail

/// The `Async` that awaiting a call of F comes to, whether F returns one or a plain value.
template <class F, class... A>
using AsyncResult = typename detail::AsyncOf<std::invoke_result_t<F&, A...>>::Type;

}  // namespace vantorq
