#pragma once

#include <concepts>
#include <optional>
#include <utility>

#include "RefCounted.h"
#include "Task.h"

/// Announcements to whoever has subscribed. `PassthroughSubject` makes them.
///
///     AnyCancellable subscription = publisher.sink([](const Reading& reading) { show(reading); });
///
/// A subscription gets values, each by reference for the length of the call, and at the end, if
/// there is one, one completion, and nothing after that.
namespace vantorq {

/// How a publisher has ended. `Failure` is the type of its errors, `Never` if there are none.
template <class Failure>
class Completion {
public:
    [[nodiscard]] static Completion finished() { return Completion(std::nullopt); }
    [[nodiscard]] static Completion failure(Failure error)
        requires(!std::same_as<Failure, Never>)
    {
        return Completion(std::move(error));
    }

    /// What it has failed with; nothing when it has finished.
    [[nodiscard]] const std::optional<Failure>& error() const noexcept { return error_; }

private:
    explicit Completion(std::optional<Failure> error) : error_(std::move(error)) {}

    std::optional<Failure> error_;
};

namespace detail {

class Subscription : public RefCounted {
public:
    virtual void cancel() noexcept = 0;

protected:
    ~Subscription() override = default;
};

template <class Output, class Failure>
class Subscriber : public RefCounted {
public:
    virtual void receive(const Output& value) = 0;
    virtual void receive(const Completion<Failure>& completion) = 0;

protected:
    ~Subscriber() override = default;
};

template <class Output, class Failure, class OnCompletion, class OnValue>
class Sink final : public Subscriber<Output, Failure> {
public:
    Sink(OnCompletion onCompletion, OnValue onValue)
        : onCompletion_(std::move(onCompletion)), onValue_(std::move(onValue)) {}

    void receive(const Output& value) override { onValue_(value); }
    void receive(const Completion<Failure>& completion) override { onCompletion_(completion); }

private:
    ~Sink() override = default;

    OnCompletion onCompletion_;
    OnValue onValue_;
};

}  // namespace detail

/// A subscription. Ends it when `cancel` is called, or when this handle is destroyed or assigned
/// to.
///
/// Threads: any, one at a time.
class [[nodiscard]] AnyCancellable {
public:
    /// A handle of nothing.
    AnyCancellable() noexcept = default;
    explicit AnyCancellable(Ref<detail::Subscription> subscription) noexcept
        : subscription_(std::move(subscription)) {}
    AnyCancellable(AnyCancellable&&) noexcept = default;
    AnyCancellable& operator=(AnyCancellable&& other) noexcept {
        AnyCancellable replaced(std::move(*this));
        subscription_ = std::move(other.subscription_);
        return *this;
    }
    ~AnyCancellable() { cancel(); }

    /// Nothing that is sent after this has returned is received. A call of the subscriber that runs
    /// on another thread then may still be running.
    void cancel() noexcept {
        if (const auto subscription = std::exchange(subscription_, nullptr)) {
            subscription->cancel();
        }
    }

private:
    Ref<detail::Subscription> subscription_;
};

/// What can be subscribed to.
///
/// Derive from it to publish in a way of one's own; see PassthroughSubject.h for one.
template <class Output, class Failure = Never>
class Publisher : public RefCounted {
public:
    /// Has `onValue(const Output&)` called with each value, and `onCompletion(const
    /// Completion<Failure>&)` at the end, until the returned handle is cancelled or dropped. The
    /// functions are kept as long, and a little longer when one of them is running at that time.
    template <std::invocable<const Completion<Failure>&> OnCompletion,
              std::invocable<const Output&> OnValue>
    AnyCancellable sink(OnCompletion onCompletion, OnValue onValue) {
        return subscribe(make<detail::Sink<Output, Failure, OnCompletion, OnValue>>(
            std::move(onCompletion), std::move(onValue)));
    }
    /// The same for a publisher that does not fail, of whose end the subscriber need not know.
    template <std::invocable<const Output&> OnValue>
    AnyCancellable sink(OnValue onValue)
        requires std::same_as<Failure, Never>
    {
        return sink([](const Completion<Failure>&) {}, std::move(onValue));
    }

protected:
    using Subscriber = detail::Subscriber<Output, Failure>;

    ~Publisher() override = default;

    virtual AnyCancellable subscribe(Ref<Subscriber> subscriber) = 0;
};

/// A publisher of which only the subscribers' side shows.
///
/// A value: copies mean the same publisher, keep it alive, and compare equal.
template <class Output, class Failure = Never>
class AnyPublisher {
public:
    explicit AnyPublisher(Ref<Publisher<Output, Failure>> publisher) noexcept
        : publisher_(std::move(publisher)) {}

    /// See `Publisher`.
    template <class... Functions>
        requires requires(Publisher<Output, Failure>& publisher, Functions... functions) {
            publisher.sink(std::move(functions)...);
        }
    AnyCancellable sink(Functions... functions) const {
        return publisher_->sink(std::move(functions)...);
    }

    friend bool operator==(const AnyPublisher&, const AnyPublisher&) noexcept = default;

private:
    Ref<Publisher<Output, Failure>> publisher_;
};

}  // namespace vantorq
