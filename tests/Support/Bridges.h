#pragma once

#include <optional>
#include <utility>

#include <gtest/gtest.h>

#include "VantorqFoundation/CallbackBridges.h"

/// The four callback bridges in one shape, for what is true of each: a number, or nothing when the
/// call was cancelled.
namespace vantorq::test {

struct ResultBridge {
    static constexpr const char* kName = "Result";
    using Handler = ResultHandler<int, Never>;

    template <class Operation>
    static Async<std::optional<int>> call(Actor* isolation, Operation operation) {
        return withCancellableResultHandler<int>(isolation, std::move(operation));
    }
    static void succeed(const Handler& complete, int value) { complete(Result<int, Never>(value)); }
};

struct SuccessBridge {
    static constexpr const char* kName = "Success";
    using Handler = SuccessHandler<int, Never>;

    template <class Operation>
    static Async<std::optional<int>> call(Actor* isolation, Operation operation) {
        return withCancellableSuccessHandler<int>(isolation, std::move(operation));
    }
    static void succeed(const Handler& complete, int value) { complete(value); }
};

/// The value, or nothing instead of a cancellation error.
inline Async<std::optional<int>> valueUnlessCancelled(Async<int> call) {
    try {
        const int value = co_await std::move(call);
        co_return value;
    } catch (const CancellationError&) {
        co_return std::nullopt;
    }
}

struct ThrowingResultBridge {
    static constexpr const char* kName = "ThrowingResult";
    using Handler = ResultHandler<int>;

    template <class Operation>
    static Async<std::optional<int>> call(Actor* isolation, Operation operation) {
        return valueUnlessCancelled(
            withCancellableThrowingResultHandler<int>(isolation, std::move(operation)));
    }
    static void succeed(const Handler& complete, int value) { complete(value); }
};

struct ThrowingSuccessBridge {
    static constexpr const char* kName = "ThrowingSuccess";
    using Handler = SuccessHandler<int>;

    template <class Operation>
    static Async<std::optional<int>> call(Actor* isolation, Operation operation) {
        return valueUnlessCancelled(
            withCancellableThrowingSuccessHandler<int>(isolation, std::move(operation)));
    }
    static void succeed(const Handler& complete, int value) { complete(value); }
};

using AllBridges =
    ::testing::Types<ResultBridge, SuccessBridge, ThrowingResultBridge, ThrowingSuccessBridge>;

}  // namespace vantorq::test
