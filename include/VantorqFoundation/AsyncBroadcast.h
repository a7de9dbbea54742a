#pragma once

#include <concepts>
#include <cstdint>
#include <exception>
#include <expected>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>

#include "BroadcastBuffer.h"
#include "Platform/Async.h"
#include "Platform/AsyncSequence.h"
#include "Platform/BufferingPolicy.h"
#include "Platform/RefCounted.h"
#include "Platform/Task.h"
#include "Platform/UnfairLock.h"

namespace vantorq {

/// One asynchronous sequence, shared among any number of consumers.
///
///     auto records = broadcast(readRecords(file), BufferingPolicy::bufferingNewest(100));
///     // in each consumer's task:
///     auto iterator = records->makeAsyncIterator();
///     while (auto record = co_await iterator.next()) {
///         use(*record);
///     }
///
/// The source is read once. An element is read when the first consumer waits for it; everybody who
/// waits then receives the same one. Elements are kept as the policy says, for consumers that are
/// behind or come late:
///
/// - A new consumer first receives all that is kept, from the oldest on.
/// - One that has fallen behind what a `bufferingNewest` buffer holds goes on at the oldest element
///   in it.
/// - When a `bufferingOldest` buffer is full, further elements reach those who wait for them, and
///   nobody later. A limit of 0 keeps nothing.
/// - After the source has ended or failed, each consumer receives what is kept beyond its place,
///   then the end, or the error, the latter at every further call.
/// - `unbounded` keeps every element as long as the broadcast lives, also those that all consumers
///   have read, and `bufferingOldest` the first ones; for a source without an end there is
///   `bufferingNewest`.
///
/// Consumers do not disturb each other. Cancelling a consumer's task ends that consumer's sequence,
/// without an error, once the element that it waits for is there; the reading of the source goes on
/// for the others. At most one reading is under way at a time. The consumer that begins one calls
/// the source's `next`, on its thread and its actor; what that returns is awaited by a task of its
/// own, on no actor, which nobody cancels and which outlives the broadcast. It ends when the source
/// answers; what is to be stopped is the source.
///
/// A broadcast lives as long as somebody holds it or one of its iterators. Of the source it keeps
/// the iterator alone, which must not refer to the sequence itself. Elements are copied to each
/// consumer. Reading an element that is kept neither suspends nor allocates. A `bufferingNewest`
/// buffer copies its elements to consumers while it is locked: a copy constructor must not lead
/// back to the broadcast. No other code of the elements, and none of the source, runs with the
/// lock. An element whose copy throws as it is stored fails the source with that error; when the
/// copy to a consumer throws, that call does, and the element may be asked for again while it is
/// kept. Moving elements must not throw.
///
/// Threads: any. An iterator belongs to one consumer. The source is read by one thread at a time.
template <AsyncSequence Base>
class AsyncBroadcast final : public RefCounted {
public:
    using Element = AsyncElementOf<Base>;
    static_assert(std::copyable<Element>,
                  "AsyncBroadcast gives each element to every consumer, so it has to be copyable; "
                  "wrap a move-only element in a Ref");

    class AsyncIterator;

    /// For `broadcast`.
    template <class S>
    AsyncBroadcast(S& source, BufferingPolicy policy)
        : iterator_(Queryable{make<Source>(source)}), buffer_(policy) {}

    /// An iterator for one more consumer.
    [[nodiscard]] AsyncIterator makeAsyncIterator() { return AsyncIterator(*this); }

private:
    using Index = std::int64_t;
    using MaybeElement = std::optional<Element>;
    class Pull;

    /// The source's iterator, for one reading at a time; a reading may outlive the broadcast.
    class Source final : public RefCounted {
    public:
        template <class S>
        explicit Source(S& sequence) : iterator(sequence.makeAsyncIterator()) {}
        AsyncIteratorOf<Base> iterator;

    private:
        ~Source() override = default;
    };

    // Where the source is.
    struct Queryable {
        Ref<Source> source;
    };
    struct Threw {
        std::exception_ptr error;
    };
    struct Exhausted {};
    using IteratorState = std::variant<Queryable, Threw, Exhausted>;

    /// What the source has given: an element, nothing at its end, or an error.
    struct Answer {
        MaybeElement element;
        std::exception_ptr error;
        MaybeElement copy;  // for the buffer

        void makeCopy() noexcept {
            try {
                copy = element;
            } catch (...) {
                *this = Answer{std::nullopt, std::current_exception(), std::nullopt};
            }
        }
    };

    /// Whether the source's `next` gives what can tell that it is ready.
    static constexpr bool kMayBeReady =
        std::same_as<decltype(std::declval<Source&>().iterator.next()), Async<MaybeElement>>;

    ~AsyncBroadcast() override = default;

    /// The index of the next element for a consumer that is at `current`, maybe the end index.
    [[nodiscard]] Index readIndex(std::optional<Index> current) const noexcept {
        if (!current.has_value()) {
            return buffer_.startIndex();
        }
        return *current == buffer_.endIndex() ? *current : buffer_.indexAfter(*current);
    }
    /// The reading under way; only while there is one.
    Ref<Pull> queryIteratorTask() {
        if (queryIteratorTask_ == nullptr) {
            queryIteratorTask_ = make<Pull>();
        }
        return queryIteratorTask_;
    }
    Ref<Pull> receive(Answer& answer) noexcept;

    UnfairLock lock_;
    // Guarded by the lock, which nobody holds while waiting, and which no code of the source runs
    // under. What `appendOnly` gives may also be read without it.
    IteratorState iterator_;
    detail::Buffer<Element> buffer_;
    bool isPulling_ = false;
    Ref<Pull> queryIteratorTask_;  // the reading under way, once somebody waits for it
};

/// One reading of the source, for those who wait for it.
///
/// A reading whose element is there at once needs no task and is done in place; whoever comes to
/// wait during that makes the task, and the reader finishes it. All other readings are coroutines.
template <AsyncSequence Base>
class AsyncBroadcast<Base>::Pull final : public detail::TaskOf<MaybeElement> {
public:
    Pull() : detail::TaskOf<MaybeElement>(detail::currentHome()) {}

    /// Gives the reading its coroutine, which awaits what the source has given.
    void setBody(Ref<Source> source, Async<MaybeElement> pending, Weak<AsyncBroadcast> broadcast) {
        body_.emplace(read(std::move(source), std::move(pending), std::move(broadcast)));
        this->adopt(*body_);
    }
    /// Ends a reading that has no coroutine.
    void finishWith(const Answer& answer) {
        try {
            if (answer.error != nullptr) {
                this->outcome.setError(answer.error);
            } else {
                this->outcome.setValue(answer.element);
            }
        } catch (...) {
            this->outcome.setError(std::current_exception());
        }
        this->finish();
    }

protected:
    void collect() noexcept override {
        this->collectFrom(*body_);
        body_.reset();
    }

private:
    ~Pull() override = default;

    static Async<MaybeElement> read(Ref<Source>, Async<MaybeElement> pending,
                                    Weak<AsyncBroadcast> weakBroadcast) {
        Answer answer;
        try {
            answer.element = co_await std::move(pending);
        } catch (...) {
            answer.error = std::current_exception();
        }
        if (const Ref<AsyncBroadcast> broadcast = weakBroadcast.load()) {
            broadcast->receive(answer);
        }
        if (answer.error != nullptr) {
            std::rethrow_exception(answer.error);
        }
        co_return std::move(answer.element);
    }

    std::optional<Async<MaybeElement>> body_;
};

/// What a consumer reads with. Holds the broadcast until its end. Can be moved while no `next` is
/// awaited.
template <AsyncSequence Base>
class AsyncBroadcast<Base>::AsyncIterator {
public:
    using Element = AsyncBroadcast::Element;

    explicit AsyncIterator(AsyncBroadcast& source) noexcept
        : source_(source), kept_(source.buffer_.appendOnly()) {}

    /// The next element; nothing at the end, and once the calling task is cancelled. Throws the
    /// source's error. To be awaited at once: an element that is there is taken by the call.
    [[nodiscard]] Async<std::optional<Element>> next() {
        if (isOver()) {
            return Async<MaybeElement>::ready(std::nullopt);
        }
        if (kept_ != nullptr) {
            const Index index = currentIndex_.has_value() ? *currentIndex_ + 1 : 0;
            if (index < static_cast<Index>(kept_->size())) {
                auto kept = Async<MaybeElement>::ready((*kept_)[static_cast<std::uint64_t>(index)]);
                currentIndex_ = index;  // not when the copy has thrown
                return kept;
            }
        }
        return nextAtEdge();
    }

private:
    /// Whether the sequence has ended for this consumer; ends it when its task is cancelled.
    bool isOver() noexcept {
        if (source_ != nullptr && thisTask::isCancelled()) {
            source_ = nullptr;
        }
        return source_ == nullptr;
    }

    /// The next element when it is probably not kept.
    Async<MaybeElement> nextAtEdge() {
        std::unique_lock lock(source_->lock_);
        const Index index = source_->readIndex(currentIndex_);
        if (index != source_->buffer_.endIndex()) {
            auto kept = Async<MaybeElement>::ready(source_->buffer_[index]);
            currentIndex_ = index;
            return kept;
        }
        if (const auto* threw = std::get_if<Threw>(&source_->iterator_)) {
            return failed(index, threw->error);
        }
        const auto* queryable = std::get_if<Queryable>(&source_->iterator_);
        if (queryable == nullptr) {
            lock.unlock();  // the broadcast may go with its last consumer
            source_ = nullptr;
            return Async<MaybeElement>::ready(std::nullopt);
        }
        if (source_->isPulling_) {
            Ref<Pull> pull = source_->queryIteratorTask();
            lock.unlock();
            return wait(index, std::move(pull));
        }
        source_->isPulling_ = true;
        Ref<Source> source = queryable->source;
        lock.unlock();
        return pull(index, std::move(source));
    }

    /// Reads the source, in place if it has the element ready.
    Async<MaybeElement> pull(Index index, Ref<Source> source) {
        if constexpr (kMayBeReady) {
            Result<Async<MaybeElement>> asked = askHere(*source);
            if (!asked.has_value()) {
                return receive(index, {std::nullopt, std::move(asked).error(), std::nullopt});
            }
            if (asked->isReady()) {
                return receive(index, {asked->takeReady(), nullptr, std::nullopt});
            }
            return pullInTask(index, std::move(source), *std::move(asked));
        } else {
            auto pending = ask(source);
            return pullInTask(index, std::move(source), std::move(pending));
        }
    }

    static Result<Async<MaybeElement>> askHere(Source& source) {
        const detail::CancellationShield scope;
        try {
            return source.iterator.next();
        } catch (...) {
            return std::unexpected(std::current_exception());
        }
    }
    static Async<MaybeElement> ask(Ref<Source> source) {
        auto asked = source->iterator.next();
        co_return co_await std::move(asked);
    }

    Async<MaybeElement> pullInTask(Index index, Ref<Source> source, Async<MaybeElement> pending) {
        Ref<Pull> pull;
        {
            const std::lock_guard guard(source_->lock_);
            pull = source_->queryIteratorTask();
        }
        pull->setBody(std::move(source), std::move(pending), source_);
        // Not only when this call is awaited: others may be waiting for the reading before that.
        pull->runHere();
        return wait(index, std::move(pull));
    }

    /// Hands an answer that was there at once to the broadcast and those who have come to wait.
    Async<MaybeElement> receive(Index index, Answer answer) {
        const Ref<Pull> waitedFor = source_->receive(answer);
        if (waitedFor != nullptr) {
            waitedFor->finishWith(answer);
        }
        if (answer.error != nullptr) {
            return failed(index, std::move(answer.error));
        }
        return Async<MaybeElement>::ready(accept(index, std::move(answer.element)));
    }

    Async<MaybeElement> wait(Index index, Ref<Pull> pull) {
        detail::TaskEnd end{*pull};
        co_await end;
        if (isOver()) {
            co_return std::nullopt;
        }
        pull->outcome.rethrow();
        MaybeElement element = *pull->outcome.value();
        co_return accept(index, std::move(element));
    }

    Async<MaybeElement> failed(Index index, std::exception_ptr error) {
        currentIndex_ = index;
        if (isOver()) {
            co_return std::nullopt;
        }
        std::rethrow_exception(std::move(error));
    }

    /// What this consumer makes of an element, or of the end.
    MaybeElement accept(Index index, MaybeElement element) {
        currentIndex_ = index;
        if (isOver()) {
            return std::nullopt;  // also when an element was there: it is the others' as well
        }
        if (!element.has_value()) {
            source_ = nullptr;
        }
        return element;
    }

    Ref<AsyncBroadcast> source_;
    const detail::AppendOnlyList<Element>* kept_;
    std::optional<Index> currentIndex_;
};

/// Takes in what the source has given. Gives the task of those who wait for it, if there are any.
template <AsyncSequence Base>
auto AsyncBroadcast<Base>::receive(Answer& answer) noexcept -> Ref<Pull> {
    answer.makeCopy();
    MaybeElement dropped;  // goes after the lock
    const std::lock_guard guard(lock_);
    if (answer.copy.has_value()) {
        try {
            dropped = buffer_.append(*std::move(answer.copy));
        } catch (...) {
            answer = Answer{std::nullopt, std::current_exception(), std::nullopt};
        }
    }
    if (answer.error != nullptr) {
        iterator_.template emplace<Threw>(Threw{answer.error});
    } else if (!answer.element.has_value()) {
        iterator_.template emplace<Exhausted>();
    }
    isPulling_ = false;
    return std::exchange(queryIteratorTask_, nullptr);
}

/// Shares `source` among any number of consumers; see `AsyncBroadcast`. Makes an iterator of it,
/// and keeps that alone.
template <class S>
    requires AsyncSequence<std::remove_reference_t<S>>
[[nodiscard]] Ref<AsyncBroadcast<std::remove_cvref_t<S>>> broadcast(
    S&& source, BufferingPolicy bufferingPolicy) {
    return make<AsyncBroadcast<std::remove_cvref_t<S>>>(source, bufferingPolicy);
}
/// The same for what another broadcast gives.
template <AsyncSequence Base>
[[nodiscard]] Ref<AsyncBroadcast<AsyncBroadcast<Base>>> broadcast(
    const Ref<AsyncBroadcast<Base>>& source, BufferingPolicy bufferingPolicy) {
    return broadcast(*source, bufferingPolicy);
}

}  // namespace vantorq
