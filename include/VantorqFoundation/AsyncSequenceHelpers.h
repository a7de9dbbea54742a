#pragma once

#include <concepts>
#include <exception>
#include <optional>
#include <type_traits>
#include <utility>

#include "Platform/Async.h"
#include "Platform/AsyncSequence.h"
#include "Platform/AsyncStream.h"
#include "Platform/RefCounted.h"

/// From any sequence to the two concrete streams, and a tap on a stream.
///
///     AsyncStream<Package> packages = eraseToNonthrowingStream(database.packages());
///     auto [iterableStream, observer] = makeObserver(packages);
///     auto counting = Task<int>::start([observer] { return count(observer); });
///     co_await show(iterableStream);  // the observer gets what this reads
///
/// The sequence is asked for one iterator, at once, and each `next` of the stream is one of that
/// iterator, in the task of the consumer. So the iterator must not need the sequence object any
/// more when that may be gone. Like any unfolding stream, the result is for one consumer at a time;
/// it ends for good when the task of its consumer is cancelled.
///
/// Threads: any.
namespace vantorq {

namespace detail {

/// An iterator that several functions share.
template <AsyncIteratorProtocol Iterator>
class SharedIterator final : public RefCounted {
public:
    using Awaitable = decltype(std::declval<Iterator&>().next());
    using Next = Async<std::remove_cvref_t<AwaitResult<Awaitable>>>;

    explicit SharedIterator(Iterator iterator) : iterator_(std::move(iterator)) {}

    Next next() {
        if constexpr (std::same_as<Awaitable, Next>) {
            return iterator_.next();
        } else {
            return awaitNext(Ref(this));
        }
    }

private:
    ~SharedIterator() override = default;

    static Next awaitNext(Ref<SharedIterator> self) {
        auto&& pending = self->iterator_.next();
        co_return co_await std::forward<Awaitable>(pending);
    }

    Iterator iterator_;
};

template <class Sequence>
auto shareIterator(Sequence& sequence) {
    return make<SharedIterator<AsyncIteratorOf<Sequence>>>(sequence.makeAsyncIterator());
}

/// `next`, with nothing in the place of what it throws.
template <class Element>
Async<std::optional<Element>> nothingIfThrown(Async<std::optional<Element>> next) {
    try {
        std::optional<Element> element = co_await std::move(next);
        co_return element;
    } catch (...) {
        co_return std::nullopt;
    }
}

template <class Element>
std::optional<Element> tap(std::optional<Element> element,
                           const typename AsyncStream<Element>::Continuation& observer) {
    if (element.has_value()) {
        observer.yield(*element);
    } else {
        observer.finish();
    }
    return element;
}
template <class Element>
Async<std::optional<Element>> tapNext(Async<std::optional<Element>> next,
                                      typename AsyncStream<Element>::Continuation observer) {
    std::optional<Element> element = co_await std::move(next);
    co_return tap(std::move(element), observer);
}

}  // namespace detail

/// A stream that does not fail, of the elements of `sequence`: that very stream if it is one
/// already; else a new one. An error of the sequence is discarded, and ends the stream.
template <class Sequence>
    requires AsyncSequence<std::remove_reference_t<Sequence>>
[[nodiscard]] auto asyncStream(Sequence&& sequence) {
    using Element = AsyncElementOf<std::remove_reference_t<Sequence>>;
    using Stream = AsyncStream<Element>;
    if constexpr (std::same_as<std::remove_cvref_t<Sequence>, Stream>) {
        return Stream(std::forward<Sequence>(sequence));
    } else {
        return Stream::unfolding([iterator = detail::shareIterator(sequence)] {
            try {
                auto next = iterator->next();
                return next.isReady() ? std::move(next)
                                      : detail::nothingIfThrown<Element>(std::move(next));
            } catch (...) {
                return Async<std::optional<Element>>::ready(std::nullopt);
            }
        });
    }
}

/// A stream of the elements of `sequence` that ends with its error if it fails: that very stream if
/// it is one already; else a new one.
template <class Sequence>
    requires AsyncSequence<std::remove_reference_t<Sequence>>
[[nodiscard]] auto asyncThrowingStream(Sequence&& sequence) {
    using Stream = AsyncThrowingStream<AsyncElementOf<std::remove_reference_t<Sequence>>>;
    if constexpr (std::same_as<std::remove_cvref_t<Sequence>, Stream>) {
        return Stream(std::forward<Sequence>(sequence));
    } else {
        return Stream::unfolding(
            [iterator = detail::shareIterator(sequence)] { return iterator->next(); });
    }
}

/// `asyncStream(sequence)`.
template <class Sequence>
    requires AsyncSequence<std::remove_reference_t<Sequence>>
[[nodiscard]] auto eraseToNonthrowingStream(Sequence&& sequence) {
    return asyncStream(std::forward<Sequence>(sequence));
}

/// `asyncThrowingStream(sequence)`.
template <class Sequence>
    requires AsyncSequence<std::remove_reference_t<Sequence>>
[[nodiscard]] auto eraseToThrowingStream(Sequence&& sequence) {
    return asyncThrowingStream(std::forward<Sequence>(sequence));
}

/// A stream to read, and one that tells what was read.
template <class Element>
struct ObservedStream {
    AsyncStream<Element> iterableStream;
    AsyncStream<Element> observer;
};

/// Reads `stream` by `iterableStream`, and lets another party see what was read: `observer` gives a
/// copy of each element that consumers of `iterableStream` have got, in the same order, and ends
/// when they have got to the end. It drives nothing itself, and keeps in its buffer, without a
/// bound, what it is not asked for. When `iterableStream` is given up before its end, `observer`
/// does not end; but a consumer that is cancelled while it waits cancels the waiting for `stream`,
/// and where that ends it, `observer` ends as well.
template <class Element>
[[nodiscard]] ObservedStream<Element> makeObserver(const AsyncStream<Element>& stream) {
    static_assert(
        std::copy_constructible<Element>,
        "makeObserver gives each element to two streams, so it has to be copyable; wrap a "
        "move-only element in a Ref");
    auto made = AsyncStream<Element>::makeStream();
    auto iterableStream = AsyncStream<Element>::unfolding(
        [iterator = detail::shareIterator(stream), continuation = std::move(made.continuation)] {
            auto next = iterator->next();
            return next.isReady() ? Async<std::optional<Element>>::ready(
                                        detail::tap<Element>(next.takeReady(), continuation))
                                  : detail::tapNext<Element>(std::move(next), continuation);
        });
    return {std::move(iterableStream), std::move(made.stream)};
}

}  // namespace vantorq
