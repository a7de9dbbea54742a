#pragma once

#include <algorithm>
#include <atomic>
#include <iterator>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "AnyPublisher.h"
#include "RefCounted.h"
#include "UnfairLock.h"

namespace vantorq {

/// Sends values to whoever is subscribed at that moment, and keeps none.
///
///     const auto subject = make<PassthroughSubject<Reading>>();
///     auto subscription = subject->sink([](const Reading& reading) { show(reading); });
///     subject->send(reading);
///
/// `send` calls the subscribers on the sending thread, in the order in which they have subscribed,
/// and returns when all have returned. A subscriber may send, subscribe, and cancel itself or
/// others: one that is cancelled meanwhile is not called any more, one that subscribes meanwhile
/// gets the next value, and a value that is sent meanwhile is delivered first, to all.
///
/// A subject that is dropped does not complete; but its subscriptions keep it.
///
/// Threads: any. Values that two threads send at once reach each subscriber at once, in no order;
/// so does a completion that is sent beside a value. No lock is held while a subscriber runs. A
/// send takes no allocation; subscribing and cancelling copy the list of subscribers.
template <class Output, class Failure = Never>
class PassthroughSubject final : public Publisher<Output, Failure> {
public:
    PassthroughSubject() = default;

    void send(const Output& value) {
        if (const Ref<Members> members = snapshot()) {
            for (const Ref<Member>& member : members->all) {
                member->deliver(value);
            }
        }
    }

    /// Completes the subject: what is sent later reaches nobody, a second completion included. Who
    /// subscribes later is given the completion at once.
    void send(const Completion<Failure>& completion) {
        Ref<Members> members;
        {
            const std::lock_guard guard(lock_);
            if (completion_.has_value()) {
                return;
            }
            completion_ = completion;
            members = std::exchange(members_, nullptr);
        }
        if (members != nullptr) {
            for (const Ref<Member>& member : members->all) {
                member->complete(completion);
            }
        }
    }

    [[nodiscard]] AnyPublisher<Output, Failure> eraseToAnyPublisher() {
        return AnyPublisher<Output, Failure>(this);
    }

private:
    using typename Publisher<Output, Failure>::Subscriber;

    class Member final : public detail::Subscription {
    public:
        Member(Ref<PassthroughSubject> subject, Ref<Subscriber> subscriber) noexcept
            : subject_(std::move(subject)), subscriber_(std::move(subscriber)) {}

        void deliver(const Output& value) {
            if (isActive_.load(std::memory_order_acquire)) {
                subscriber_->receive(value);
            }
        }
        void complete(const Completion<Failure>& completion) {
            if (isActive_.exchange(false, std::memory_order_acq_rel)) {
                subscriber_->receive(completion);
            }
        }
        void cancel() noexcept override {
            if (isActive_.exchange(false, std::memory_order_acq_rel)) {
                subject_->remove(*this);
            }
        }

    private:
        ~Member() override = default;

        const Ref<PassthroughSubject> subject_;
        const Ref<Subscriber> subscriber_;
        std::atomic<bool> isActive_{true};
    };

    /// A list that does not change, so that a send can go through it without the lock.
    struct Members final : RefCounted {
        explicit Members(std::vector<Ref<Member>> list) noexcept : all(std::move(list)) {}
        const std::vector<Ref<Member>> all;

    private:
        ~Members() override = default;
    };

    ~PassthroughSubject() override = default;

    AnyCancellable subscribe(Ref<Subscriber> subscriber) override {
        const auto member = make<Member>(Ref(this), std::move(subscriber));
        if (add(member)) {
            return AnyCancellable(member);
        }
        member->complete(*completion_);  // which does not change any more
        return AnyCancellable();
    }

    Ref<Members> snapshot() {
        const std::lock_guard guard(lock_);
        return members_;
    }
    /// False when the subject has completed.
    bool add(const Ref<Member>& member) {
        Ref<Members> former;  // ends after the lock
        const std::lock_guard guard(lock_);
        if (completion_.has_value()) {
            return false;
        }
        auto all = members_ != nullptr ? members_->all : std::vector<Ref<Member>>();
        all.push_back(member);
        former = std::exchange(members_, make<Members>(std::move(all)));
        return true;
    }
    void remove(const Member& member) {
        Ref<Members> former;
        const std::lock_guard guard(lock_);
        if (members_ == nullptr) {
            return;
        }
        std::vector<Ref<Member>> all;
        std::ranges::copy_if(members_->all, std::back_inserter(all),
                             [&member](const Ref<Member>& other) { return other != &member; });
        former = std::exchange(members_, all.empty() ? nullptr : make<Members>(std::move(all)));
    }

    UnfairLock lock_;
    Ref<Members> members_;                           // guarded by the lock; null when there is none
    std::optional<Completion<Failure>> completion_;  // likewise, until it is set
};

}  // namespace vantorq
