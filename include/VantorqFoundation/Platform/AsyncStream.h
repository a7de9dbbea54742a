#pragma once

#include <concepts>
#include <cstdint>
#include <exception>
#include <functional>
#include <limits>
#include <optional>
#include <type_traits>
#include <utility>

#include "Async.h"
#include "BufferingPolicy.h"
#include "RefCounted.h"
#include "Task.h"

/// Sequences whose elements come from elsewhere: from callbacks, or from a function that is asked
/// for one after the other.
///
///     auto [stream, continuation] = AsyncStream<Reading>::makeStream();
///     sensor->onReading([continuation](Reading reading) { continuation.yield(reading); });
///     continuation.setOnTermination([sensor](const StreamTermination&) { sensor->stop(); });
///
///     auto iterator = stream.makeAsyncIterator();
///     while (auto reading = co_await iterator.next()) {
///         show(*reading);
///     }
///
/// `AsyncStream` ends without an error; `AsyncThrowingStream` may end with one, which its consumer
/// gets thrown. Both are made in one of two forms:
///
/// - By a continuation. What is yielded waits in a buffer until it is asked for. The stream is over
///   when the continuation finishes it, when the task of a consumer is cancelled, or when all
///   handles and iterators of the stream are gone, whichever comes first; the termination handler
///   is told which, once. What the buffer holds then is still handed over; after that the error, if
///   there is one, is thrown once; every further `next` gives nothing. A stream that is never
///   finished never ends: dropping its continuation does not end it.
/// - By unfolding a producer, which is called for each element, by the consumer's task, and not any
///   more after it has given nothing or has thrown, or after the task of a consumer was cancelled.
///
/// A stream is a source, not a container: each element goes to one consumer. Consumers that wait
/// for a continuation's elements at the same time get them in the order in which they came; the
/// producer of an unfolding stream would be called by all of them at once, so such a stream is for
/// one consumer at a time.
///
/// Threads: any. Streams, iterators and continuations are values whose copies mean the same stream.
/// No lock is held while a handler or a producer runs, or a dropped element is destroyed; but
/// elements are moved into and out of the buffer under one, so moving an element, and destroying
/// what is left of it, must not use its stream.
namespace vantorq {

/// How a stream has come to its end.
struct StreamTermination {
    enum class Kind : std::uint8_t {
        finished,   ///< by its continuation
        cancelled,  ///< because the consumer was cancelled, or is gone
    };
    Kind kind = Kind::finished;
    std::exception_ptr error;  ///< what it was finished with; null without an error

    friend bool operator==(const StreamTermination&, const StreamTermination&) noexcept = default;
};

/// What has become of an element that was yielded.
template <class Element>
struct YieldResult {
    enum class Kind : std::uint8_t {
        enqueued,    ///< it is in the buffer, or has gone to a consumer that waited
        dropped,     ///< the buffer was full, so an element was dropped: this one or an older one
        terminated,  ///< the stream is over, and the element is gone
    };
    Kind kind = Kind::terminated;
    /// When enqueued: how many more elements the buffer has room for; without a bound, the greatest
    /// number there is.
    std::int64_t remaining = 0;
    /// When dropped: the element that was, by the policy the new one or the one that waited
    /// longest.
    std::optional<Element> element;
};

namespace detail {
template <class Element>
class StreamSource;
template <class Element>
class StreamStorage;
}  // namespace detail

/// Both kinds of stream; used by the names `AsyncStream` and `AsyncThrowingStream`. `Failure` is
/// `Never` or `std::exception_ptr`.
template <std::move_constructible Element, class Failure>
class BasicAsyncStream {
public:
    class Continuation;
    class Iterator;
    struct Made;

    /// Calls `build(continuation)` at once, which stores the continuation where elements come up,
    /// or yields them there and then.
    template <class Build>
        requires std::invocable<Build, Continuation>
    explicit BasicAsyncStream(Build&& build, BufferingPolicy policy = BufferingPolicy::unbounded());

    /// A stream, and the continuation that feeds it.
    [[nodiscard]] static Made makeStream(BufferingPolicy policy = BufferingPolicy::unbounded());

    /// A stream of what `produce()` gives, an `Async<std::optional<Element>>`, nothing at the end.
    ///
    /// `onCancel()` is called when the task of a consumer is cancelled while the stream is not
    /// over, once, on the cancelling thread. A call of the producer that runs then goes on to its
    /// end, and what it gives still counts; a producer that can wait long watches for the
    /// cancellation itself. Of an `AsyncStream`, a producer that throws traps. `onCancel` must not
    /// throw.
    template <class Produce, std::invocable<> OnCancel = void(*)()>
        requires std::same_as<std::invoke_result_t<Produce&>, Async<std::optional<Element>>>
    [[nodiscard]] static BasicAsyncStream unfolding(Produce produce, OnCancel onCancel = [] {});

    [[nodiscard]] Iterator makeAsyncIterator() const noexcept { return Iterator(source_); }

    /// Whether both are the same stream.
    friend bool operator==(const BasicAsyncStream&, const BasicAsyncStream&) noexcept = default;

private:
    using Source = detail::StreamSource<Element>;

    explicit BasicAsyncStream(Ref<Source> source) noexcept : source_(std::move(source)) {}

    Ref<Source> source_;
};

/// A stream that does not fail.
template <class Element>
using AsyncStream = BasicAsyncStream<Element, Never>;

/// A stream that may end with an error.
template <class Element>
using AsyncThrowingStream = BasicAsyncStream<Element, std::exception_ptr>;

/// Reads a stream. Iterators of one stream share its elements.
template <std::move_constructible Element, class Failure>
class BasicAsyncStream<Element, Failure>::Iterator {
public:
    /// Awaited, gives the next element, or nothing at the end.
    ///
    /// An element that is there already is taken by the call itself, and handed over without
    /// suspending and without an allocation. Waiting for one takes one allocation. Called by a task
    /// that is cancelled, or whose cancellation comes while it waits, this ends the stream, for all
    /// its iterators; so do `withTimeout` and `whenAny` around it when they cancel it. What is
    /// given is to be awaited: one that is dropped takes its element with it.
    [[nodiscard]] Async<std::optional<Element>> next() { return source_->next(); }

private:
    friend BasicAsyncStream;
    explicit Iterator(Ref<Source> source) noexcept : source_(std::move(source)) {}

    Ref<Source> source_;
};

/// Feeds a stream, and ends it.
template <std::move_constructible Element, class Failure>
class BasicAsyncStream<Element, Failure>::Continuation {
public:
    using Termination = StreamTermination;
    using YieldResult = vantorq::YieldResult<Element>;

    /// Gives `element` to the consumer that has waited longest, or to the buffer. The consumer goes
    /// on on its own executor and actor, not in this call.
    YieldResult yield(Element element) const { return storage_->yield(std::move(element)); }

    /// Ends the stream, if it is not over yet.
    void finish() const noexcept { storage_->terminate({}); }
    /// Ends it with an error; null is none.
    void finish(std::exception_ptr error) const noexcept
        requires(!std::same_as<Failure, Never>)
    {
        storage_->terminate({Termination::Kind::finished, std::move(error)});
    }

    /// Has `handler(const Termination&)` called when the stream is over, once, on the thread that
    /// ends it; at once if it is over already. Replaces, and destroys, a handler that was not
    /// called; null for none.
    ///
    /// Consumers that wait go on when the handler has returned, so it must not wait for them. It
    /// must not throw, and must not own the stream, which would keep itself alive then.
    void setOnTermination(std::move_only_function<void(const Termination&)> handler) const {
        storage_->setOnTermination(std::move(handler));
    }

private:
    friend BasicAsyncStream;
    explicit Continuation(Ref<detail::StreamStorage<Element>> storage) noexcept
        : storage_(std::move(storage)) {}

    Ref<detail::StreamStorage<Element>> storage_;
};

template <std::move_constructible Element, class Failure>
struct BasicAsyncStream<Element, Failure>::Made {
    BasicAsyncStream stream;
    Continuation continuation;
};

}  // namespace vantorq

#include "AsyncStreamSource.h"  // the definitions
