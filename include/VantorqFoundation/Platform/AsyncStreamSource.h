#pragma once

#include <algorithm>
#include <deque>
#include <mutex>

#include "AsyncStream.h"
#include "UnfairLock.h"

/// What is behind a stream. No part of the interface; included by AsyncStream.h.
namespace vantorq {

namespace detail {

/// What the handles and the iterators of a stream share.
template <class Element>
class StreamSource : public RefCounted {
public:
    using Next = Async<std::optional<Element>>;

    virtual Next next() = 0;

protected:
    ~StreamSource() override = default;

    /// A `next` that throws.
    static Next failed(std::exception_ptr error) {
        std::rethrow_exception(std::move(error));
        co_return std::nullopt;
    }
};

/// What a consumer gets. Stands in the frame of its `next` while it waits.
template <class Element>
struct StreamDelivery {
    std::optional<Element> element;
    std::exception_ptr error;
    Job job;
    StreamDelivery* next = nullptr;
};

/// What a continuation writes and consumers read.
template <class Element>
class StreamStorage final : public RefCounted {
public:
    using Delivery = StreamDelivery<Element>;
    using Result = YieldResult<Element>;
    using OnTermination = std::move_only_function<void(const StreamTermination&)>;

    explicit StreamStorage(BufferingPolicy policy) : policy_(policy) {}

    Result yield(Element element) {
        std::unique_lock lock(lock_);
        if (end_.has_value()) {
            return {};
        }
        if (firstWaiting_ == nullptr) {
            return keep(element);
        }
        Delivery& delivery = *firstWaiting_;
        delivery.element.emplace(std::move(element));
        firstWaiting_ = delivery.next;
        lock.unlock();
        resume(delivery.job);
        return enqueued(0);
    }

    void terminate(StreamTermination how) noexcept {
        std::unique_lock lock(lock_);
        if (end_.has_value()) {
            return;
        }
        end_ = how;
        Delivery* waiting = std::exchange(firstWaiting_, nullptr);
        (waiting != nullptr ? waiting->error : error_) = how.error;
        OnTermination handler = std::exchange(onTermination_, nullptr);
        lock.unlock();
        if (handler) {
            handler(how);
        }
        while (waiting != nullptr) {
            resume(std::exchange(waiting, waiting->next)->job);
        }
    }

    void setOnTermination(OnTermination handler) {
        std::unique_lock lock(lock_);
        if (!end_.has_value()) {
            std::swap(onTermination_, handler);
            return;
        }
        const StreamTermination how = *end_;
        lock.unlock();
        if (handler) {
            handler(how);
        }
    }

    /// False when there is neither an element nor an end yet.
    bool take(Delivery& delivery) {
        const std::lock_guard guard(lock_);
        return takeLocked(delivery);
    }

    /// False when the delivery is waited for now: whoever makes it resumes the job.
    bool takeOrWait(Delivery& delivery) {
        const std::lock_guard guard(lock_);
        if (takeLocked(delivery)) {
            return true;
        }
        (firstWaiting_ != nullptr ? lastWaiting_->next : firstWaiting_) = &delivery;
        lastWaiting_ = &delivery;
        return false;
    }

    /// When nobody can take anything any more.
    void abandon() noexcept {
        terminate({StreamTermination::Kind::cancelled, nullptr});
        std::deque<Element> unwanted;
        const std::lock_guard guard(lock_);
        buffer_.swap(unwanted);
    }

private:
    ~StreamStorage() override = default;

    Result keep(Element& element) {
        const auto count = static_cast<std::int64_t>(buffer_.size());
        if (policy_.kind() == BufferingPolicy::Kind::unbounded || count < policy_.limit()) {
            buffer_.push_back(std::move(element));
            return enqueued(count + 1);
        }
        if (policy_.kind() == BufferingPolicy::Kind::oldest) {
            return {Result::Kind::dropped, 0, std::move(element)};
        }
        buffer_.push_back(std::move(element));
        Result result{Result::Kind::dropped, 0, std::move(buffer_.front())};
        buffer_.pop_front();
        return result;
    }
    Result enqueued(std::int64_t count) const {
        const std::int64_t remaining = policy_.kind() == BufferingPolicy::Kind::unbounded
                                           ? std::numeric_limits<std::int64_t>::max()
                                           : std::max<std::int64_t>(policy_.limit(), 0) - count;
        return {Result::Kind::enqueued, remaining, std::nullopt};
    }

    bool takeLocked(Delivery& delivery) {
        if (!buffer_.empty()) {
            delivery.element.emplace(std::move(buffer_.front()));
            buffer_.pop_front();
            return true;
        }
        if (end_.has_value()) {
            delivery.error = std::exchange(error_, nullptr);
            return true;
        }
        return false;
    }

    const BufferingPolicy policy_;
    UnfairLock lock_;  // guards all below
    std::deque<Element> buffer_;
    // In order; only while nothing is buffered and the stream is not over.
    Delivery* firstWaiting_ = nullptr;
    Delivery* lastWaiting_ = nullptr;
    OnTermination onTermination_;
    std::optional<StreamTermination> end_;
    std::exception_ptr error_;  // not delivered yet
};

/// The consumers' side of a stream that a continuation feeds.
template <class Element>
class ContinuationSource final : public StreamSource<Element> {
public:
    using typename StreamSource<Element>::Next;

    explicit ContinuationSource(Ref<StreamStorage<Element>> storage) noexcept
        : storage_(std::move(storage)) {}

    Next next() override {
        if (thisTask::isCancelled()) {
            cancel();
        }
        StreamDelivery<Element> delivery;
        if (!storage_->take(delivery)) {
            return wait(Ref(this));
        }
        return delivery.error == nullptr ? Next::ready(std::move(delivery.element))
                                         : this->failed(std::move(delivery.error));
    }

private:
    ~ContinuationSource() override { storage_->abandon(); }

    void cancel() noexcept { storage_->terminate({StreamTermination::Kind::cancelled, nullptr}); }

    struct Awaiter {
        [[nodiscard]] bool await_ready() const noexcept { return false; }
        bool await_suspend(std::coroutine_handle<> awaiter) {
            noteSuspension(delivery.job, awaiter);
            return !storage.takeOrWait(delivery);
        }
        void await_resume() const noexcept {}

        StreamStorage<Element>& storage;
        StreamDelivery<Element>& delivery;
    };

    static Next wait(Ref<ContinuationSource> source) {
        auto onCancel = [&source] { source->cancel(); };
        const CancellationScope scope(onCancel);
        StreamDelivery<Element> delivery;
        Awaiter delivered{*source->storage_, delivery};
        co_await delivered;
        if (delivery.error != nullptr) {
            std::rethrow_exception(std::move(delivery.error));
        }
        co_return std::move(delivery.element);
    }

    const Ref<StreamStorage<Element>> storage_;
};

/// A stream that calls a producer.
template <class Element, class Failure, class Produce, class OnCancel>
class UnfoldingSource final : public StreamSource<Element> {
public:
    using typename StreamSource<Element>::Next;

    UnfoldingSource(Produce produce, OnCancel onCancel) {
        functions_.store(make<Functions>(std::move(produce), std::move(onCancel)));
    }

    Next next() override {
        if (thisTask::isCancelled()) {
            cancel();
        }
        const Ref<Functions> functions = functions_.load();
        if (functions == nullptr) {
            return Next::ready(std::nullopt);
        }
        try {
            Next produced = functions->produce();
            if (!produced.isReady()) {
                return wait(Ref(this), functions, std::move(produced));
            }
            return Next::ready(checked(produced.takeReady()));
        } catch (...) {
            return this->failed(failure());
        }
    }

private:
    /// Apart from the stream, because a call that runs needs them longer than the stream does.
    struct Functions final : RefCounted {
        Functions(Produce p, OnCancel c) : produce(std::move(p)), onCancel(std::move(c)) {}

        Produce produce;
        OnCancel onCancel;

    private:
        ~Functions() override = default;
    };

    ~UnfoldingSource() override = default;

    static Next wait(Ref<UnfoldingSource> source, [[maybe_unused]] Ref<Functions> functions,
                     Next produced) {
        auto onCancel = [&source] { source->cancel(); };
        const CancellationScope scope(onCancel);
        std::exception_ptr error;
        try {
            std::optional<Element> element = co_await std::move(produced);
            co_return source->checked(std::move(element));
        } catch (...) {
            error = source->failure();
        }
        std::rethrow_exception(std::move(error));
    }

    std::optional<Element> checked(std::optional<Element> element) noexcept {
        if (!element.has_value()) {
            functions_.store(nullptr);
        }
        return element;
    }
    /// In a handler of what the producer has thrown.
    std::exception_ptr failure() noexcept {
        if constexpr (std::same_as<Failure, Never>) {
            VNTQ_TRAP("AsyncStream: the producer has thrown");
        }
        functions_.store(nullptr);
        return std::current_exception();
    }
    void cancel() noexcept {
        if (const Ref<Functions> functions = functions_.exchange(nullptr)) {
            functions->onCancel();
        }
    }

    AtomicRef<Functions> functions_;  // null when the stream is over
};

}  // namespace detail

template <std::move_constructible Element, class Failure>
auto BasicAsyncStream<Element, Failure>::makeStream(BufferingPolicy policy) -> Made {
    auto storage = make<detail::StreamStorage<Element>>(policy);
    BasicAsyncStream stream(make<detail::ContinuationSource<Element>>(storage));
    return {std::move(stream), Continuation(std::move(storage))};
}

template <std::move_constructible Element, class Failure>
template <class Build>
    requires std::invocable<Build, typename BasicAsyncStream<Element, Failure>::Continuation>
BasicAsyncStream<Element, Failure>::BasicAsyncStream(Build&& build, BufferingPolicy policy) {
    Made made = makeStream(policy);
    source_ = std::move(made.stream.source_);
    std::invoke(std::forward<Build>(build), std::move(made.continuation));
}

template <std::move_constructible Element, class Failure>
template <class Produce, std::invocable<> OnCancel>
    requires std::same_as<std::invoke_result_t<Produce&>, Async<std::optional<Element>>>
auto BasicAsyncStream<Element, Failure>::unfolding(Produce produce, OnCancel onCancel)
    -> BasicAsyncStream {
    using Unfolding = detail::UnfoldingSource<Element, Failure, Produce, OnCancel>;
    return BasicAsyncStream(make<Unfolding>(std::move(produce), std::move(onCancel)));
}

}  // namespace vantorq
