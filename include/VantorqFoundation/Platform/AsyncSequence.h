#pragma once

#include <concepts>
#include <optional>
#include <type_traits>
#include <utility>

#include "Async.h"

/// What can be read one element after the other, where each may have to be waited for.
///
///     auto iterator = sequence.makeAsyncIterator();
///     while (auto element = co_await iterator.next()) {
///         use(*element);
///     }
///
/// `next` gives nothing at the end, and may throw. An iterator belongs to one consumer: one call of
/// `next` at a time. Whether a sequence can be read twice, or by several consumers, is its own
/// matter.
namespace vantorq {

namespace detail {

template <class A>
decltype(auto) awaiterOf(A&& awaitable) {
    if constexpr (requires { std::forward<A>(awaitable).operator co_await(); }) {
        return std::forward<A>(awaitable).operator co_await();
    } else if constexpr (requires { operator co_await(std::forward<A>(awaitable)); }) {
        return operator co_await(std::forward<A>(awaitable));
    } else {
        return std::forward<A>(awaitable);
    }
}

template <class T>
struct OptionalValue {};
template <class T>
struct OptionalValue<std::optional<T>> {
    using Type = T;
};

}  // namespace detail

/// What awaiting an A gives.
template <class A>
using AwaitResult = decltype(detail::awaiterOf(std::declval<A>()).await_resume());

/// An iterator whose `next()` can be awaited and gives an optional element.
template <class I>
concept AsyncIteratorProtocol = std::move_constructible<I> && requires(I& iterator) {
    typename detail::OptionalValue<AwaitResult<decltype(iterator.next())>>::Type;
};

/// A sequence that makes such iterators.
template <class S>
concept AsyncSequence = requires(S& sequence) {
    { sequence.makeAsyncIterator() } -> AsyncIteratorProtocol;
};

/// The iterator type of a sequence.
template <AsyncSequence S>
using AsyncIteratorOf = decltype(std::declval<S&>().makeAsyncIterator());

/// The element type of a sequence.
template <AsyncSequence S>
using AsyncElementOf =
    detail::OptionalValue<AwaitResult<decltype(std::declval<AsyncIteratorOf<S>&>().next())>>::Type;

}  // namespace vantorq
