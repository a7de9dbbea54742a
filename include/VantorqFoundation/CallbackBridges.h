#pragma once

#include <concepts>
#include <exception>
#include <functional>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "AnyDisposable.h"
#include "AtomicSingleReadWithFailure.h"
#include "Platform/Actor.h"
#include "Platform/Async.h"
#include "Platform/Continuation.h"
#include "Platform/RefCounted.h"
#include "Platform/Task.h"

/// From an operation with a completion handler to an awaitable, cancellable call.
///
///     Async<Page> load(Ref<Connection> connection, std::string address) {
///         auto page = withCancellableThrowingResultHandler<Page>([&](auto complete) {
///             auto request = connection->get(address, complete);
///             return [request] { request->cancel(); };
///         });
///         co_return co_await std::move(page);
///     }
///
/// `operation` is given a completion handler and returns a closure that cancels what it has begun.
/// The first of these outcomes is final: a call of the completion handler, or the cancelling of the
/// awaiting task. The awaiting code goes on exactly once, and later outcomes are ignored. The
/// cancel closure is called at most once, and only when the cancelling came first; it must not
/// throw.
///
/// | function                               | the handler takes      | the call gives | cancelled |
/// |----------------------------------------|------------------------|----------------|-----------|
/// | `withCancellableResultHandler`         | `Result<T, Never>`     | optional value | nothing   |
/// | `withCancellableSuccessHandler`        | `T`                    | optional value | nothing   |
/// | `withCancellableThrowingResultHandler` | `Result<T>`            | `T`; throws    | throws    |
/// | `withCancellableThrowingSuccessHandler`| `T`                    | `T`            | throws    |
///
/// The throwing ones throw the error of a failed result, and `CancellationError` when they are
/// cancelled. For `void` the success handlers take nothing, and the optional value is a
/// `std::monostate`.
///
/// The operation is called on the awaiting thread, also when the task is cancelled already: then
/// its cancel closure is called as soon as it returns. With an actor given as `isolation`, the
/// operation is called on that actor. What the operation throws, the call throws. While neither
/// outcome comes about, the call waits; so a handler that is dropped without having been called
/// leaves it waiting until the task is cancelled. A cancelled call goes on once the cancel closure
/// has returned: what the operation has begun may not have ended by then, and must not refer to
/// what ends with the call.
///
/// Threads: the completion handler may be called from any thread, any number of times, also within
/// `operation`. The cancel closure is called on the thread that cancels the task, or that calls the
/// operation.
namespace vantorq {

namespace detail {

/// The box that the awaiting call, its cancellation handler and the completion handlers share.
template <class T, class Failure>
class CallbackBridge final : public RefCounted {
public:
    /// Empty: cancelled.
    using Outcome = std::optional<Result<T, Failure>>;

    void finish(Outcome outcome) { goOn(cell_.fail(std::move(outcome))); }

    /// Calls the operation for the suspended call.
    template <class Operation, class Handler>
    void begin(Operation& operation, Handler handler, const Continuation<Outcome>& continuation) {
        auto cancel = std::invoke(operation, std::move(handler));
        cancel_.emplace(ActionHandler<decltype(cancel)>{std::move(cancel)});
        goOn(cell_.store(Registration{cancel_.take(), continuation}));
    }

private:
    struct Registration {
        CancellationAction::Work cancel;  // of the closure in cancel_
        Continuation<Outcome> continuation;
    };
    using Cell = AtomicSingleReadWithFailure<Registration, Outcome>;

    ~CallbackBridge() override = default;

    static void goOn(std::optional<typename Cell::Both> ended) {
        if (ended) {
            auto& [registration, outcome] = *ended;
            if (!outcome) {
                registration.cancel.run();
            }
            registration.cancel.reset();  // before the awaiting code goes on
            registration.continuation.resume(std::move(outcome));
        }
    }

    CancellationAction cancel_;
    Cell cell_;
};

}  // namespace detail

/// What an operation calls when it has come to a result. Copies mean the same call. Threads: any.
template <class T, class Failure = std::exception_ptr>
class ResultHandler {
public:
    explicit ResultHandler(Ref<detail::CallbackBridge<T, Failure>> bridge) noexcept
        : bridge_(std::move(bridge)) {}

    void operator()(Result<T, Failure> result) const { bridge_->finish(std::move(result)); }

private:
    Ref<detail::CallbackBridge<T, Failure>> bridge_;
};

/// The same for one that cannot fail: takes the value, or nothing for `void`.
template <class T, class Failure = std::exception_ptr>
class SuccessHandler {
public:
    explicit SuccessHandler(Ref<detail::CallbackBridge<T, Failure>> bridge) noexcept
        : bridge_(std::move(bridge)) {}

    template <class Value = T>
        requires(!std::is_void_v<T>) && std::convertible_to<Value, T>
    void operator()(Value&& value) const {
        bridge_->finish(Result<T, Failure>(std::in_place, std::forward<Value>(value)));
    }
    void operator()() const
        requires std::is_void_v<T>
    {
        bridge_->finish(Result<T, Failure>());
    }

private:
    Ref<detail::CallbackBridge<T, Failure>> bridge_;
};

/// Takes a completion handler and returns a closure.
template <class Operation, class Handler>
concept CancellableOperation =
    std::invocable<Operation&, Handler> &&
    std::invocable<std::decay_t<std::invoke_result_t<Operation&, Handler>>&>;

namespace detail {

/// What the forms of the call make of its outcome.
template <class T>
struct OptionalForm {
    using Failure = Never;
    using Value = std::optional<Stored<T>>;

    static Value valueOf(std::optional<Result<T, Never>> outcome) {
        if (!outcome) {
            return std::nullopt;
        }
        if constexpr (std::is_void_v<T>) {
            return std::monostate();
        } else {
            return std::move(**outcome);
        }
    }
};
template <class T>
struct ThrowingForm {
    using Failure = std::exception_ptr;
    using Value = T;

    static Value valueOf(std::optional<Result<T>> outcome) {
        if (!outcome) {
            throw CancellationError();
        }
        if (!*outcome) {
            std::rethrow_exception(std::move(outcome->error()));
        }
        if constexpr (!std::is_void_v<T>) {
            return std::move(**outcome);
        }
    }
};

template <class T, class Form, class Handler, class Operation>
Async<typename Form::Value> callThroughBridge(Actor* isolation, Operation operation) {
    using Bridge = CallbackBridge<T, typename Form::Failure>;
    using Outcome = typename Bridge::Outcome;

    auto entry = Actor::enterIfAny(isolation);
    co_await entry;
    const auto bridge = make<Bridge>();
    auto onCancel = [&bridge] { bridge->finish(std::nullopt); };
    const CancellationScope<decltype(onCancel)> scope(onCancel);
    auto suspension = withContinuation<Outcome>([&](const Continuation<Outcome>& continuation) {
        bridge->begin(operation, Handler(bridge), continuation);
    });
    auto outcome = co_await suspension;
    if constexpr (std::is_void_v<typename Form::Value>) {
        Form::valueOf(std::move(outcome));
    } else {
        co_return Form::valueOf(std::move(outcome));
    }
}

}  // namespace detail

template <class T, CancellableOperation<ResultHandler<T, Never>> Operation>
[[nodiscard]] Async<std::optional<detail::Stored<T>>> withCancellableResultHandler(
    Actor* isolation, Operation operation) {
    return detail::callThroughBridge<T, detail::OptionalForm<T>, ResultHandler<T, Never>>(
        isolation, std::move(operation));
}
template <class T, CancellableOperation<ResultHandler<T, Never>> Operation>
[[nodiscard]] Async<std::optional<detail::Stored<T>>> withCancellableResultHandler(
    Operation operation) {
    return withCancellableResultHandler<T>(nullptr, std::move(operation));
}

template <class T, CancellableOperation<SuccessHandler<T, Never>> Operation>
[[nodiscard]] Async<std::optional<detail::Stored<T>>> withCancellableSuccessHandler(
    Actor* isolation, Operation operation) {
    return detail::callThroughBridge<T, detail::OptionalForm<T>, SuccessHandler<T, Never>>(
        isolation, std::move(operation));
}
template <class T, CancellableOperation<SuccessHandler<T, Never>> Operation>
[[nodiscard]] Async<std::optional<detail::Stored<T>>> withCancellableSuccessHandler(
    Operation operation) {
    return withCancellableSuccessHandler<T>(nullptr, std::move(operation));
}

template <class T, CancellableOperation<ResultHandler<T>> Operation>
[[nodiscard]] Async<T> withCancellableThrowingResultHandler(Actor* isolation, Operation operation) {
    return detail::callThroughBridge<T, detail::ThrowingForm<T>, ResultHandler<T>>(
        isolation, std::move(operation));
}
template <class T, CancellableOperation<ResultHandler<T>> Operation>
[[nodiscard]] Async<T> withCancellableThrowingResultHandler(Operation operation) {
    return withCancellableThrowingResultHandler<T>(nullptr, std::move(operation));
}

template <class T, CancellableOperation<SuccessHandler<T>> Operation>
[[nodiscard]] Async<T> withCancellableThrowingSuccessHandler(Actor* isolation,
                                                             Operation operation) {
    return detail::callThroughBridge<T, detail::ThrowingForm<T>, SuccessHandler<T>>(
        isolation, std::move(operation));
}
template <class T, CancellableOperation<SuccessHandler<T>> Operation>
[[nodiscard]] Async<T> withCancellableThrowingSuccessHandler(Operation operation) {
    return withCancellableThrowingSuccessHandler<T>(nullptr, std::move(operation));
}

}  // namespace vantorq
