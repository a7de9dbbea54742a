#include "VantorqFoundation/Platform/PassthroughSubject.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "VantorqFoundation/Platform/AnyPublisher.h"

namespace vantorq {
namespace {

using Strings = std::vector<std::string>;
using Subject = PassthroughSubject<int>;
using FailingSubject = PassthroughSubject<int, std::string>;

/// Writes down what a subscriber gets, after its name.
class Log {
public:
    auto value(std::string name) {
        return [this, name](int value) { entries.push_back(name + std::to_string(value)); };
    }
    template <class Failure>
    auto completion(std::string name) {
        return [this, name](const Completion<Failure>& completion) {
            std::string text = "finished";
            if constexpr (std::same_as<Failure, std::string>) {
                text = completion.error().value_or(text);
            }
            entries.push_back(name + text);
        };
    }

    Strings entries;
};

TEST(PassthroughSubject, ValuesGoToTheSubscribersInTheOrderOfTheirSubscription) {
    Log log;
    const auto subject = make<Subject>();
    const auto a = subject->sink(log.value("a"));
    const auto b = subject->sink(log.value("b"));
    subject->send(1);
    subject->send(2);
    EXPECT_EQ(log.entries, (Strings{"a1", "b1", "a2", "b2"}));
}

TEST(PassthroughSubject, WhatWasSentBeforeTheSubscriptionIsGone) {
    Log log;
    const auto subject = make<Subject>();
    subject->send(1);
    const auto a = subject->sink(log.value("a"));
    subject->send(2);
    EXPECT_EQ(log.entries, Strings{"a2"});
}

TEST(PassthroughSubject, AValueIsGivenByReferenceAndNotCopied) {
    struct Pinned {
        Pinned() = default;
        Pinned(const Pinned&) = delete;
        Pinned& operator=(const Pinned&) = delete;
    };
    const auto subject = make<PassthroughSubject<Pinned>>();
    const Pinned* received = nullptr;
    const auto a = subject->sink([&](const Pinned& value) { received = &value; });
    const Pinned sent;
    subject->send(sent);
    EXPECT_EQ(received, &sent);
}

TEST(AnyCancellable, CancellingEndsTheSubscription) {
    Log log;
    const auto subject = make<Subject>();
    auto a = subject->sink(log.value("a"));
    const auto b = subject->sink(log.value("b"));
    a.cancel();
    a.cancel();
    subject->send(1);
    EXPECT_EQ(log.entries, Strings{"b1"});
}

TEST(AnyCancellable, DroppingAndReplacingEndTheSubscription) {
    Log log;
    const auto subject = make<Subject>();
    {
        const auto dropped = subject->sink(log.value("a"));
    }
    auto kept = subject->sink(log.value("b"));
    kept = subject->sink(log.value("c"));
    subject->send(1);
    EXPECT_EQ(log.entries, Strings{"c1"});
}

TEST(AnyCancellable, MovingKeepsTheSubscription) {
    Log log;
    const auto subject = make<Subject>();
    std::vector<AnyCancellable> subscriptions;
    for (int i = 0; i < 5; ++i) {
        subscriptions.push_back(subject->sink(log.value("a")));
    }
    subject->send(1);
    EXPECT_EQ(log.entries.size(), 5U);
    AnyCancellable none;
    none.cancel();
}

TEST(AnyCancellable, CancellingFreesTheFunctions) {
    const auto subject = make<Subject>();
    const auto token = make<Subject>();
    auto a = subject->sink([token](int) {});
    EXPECT_EQ(token->ownerCount(), 2U);
    a.cancel();
    EXPECT_EQ(token->ownerCount(), 1U);
}

TEST(PassthroughSubject, IsFreedWithItsLastHandleAndSubscription) {
    auto subject = make<Subject>();
    const Weak<Subject> weak(subject);
    auto a = subject->sink([](int) {});
    subject.reset();
    EXPECT_NE(weak.load(), nullptr);
    a.cancel();
    EXPECT_EQ(weak.load(), nullptr);
}

// While a value is being delivered.

TEST(PassthroughSubject, ASubscriberMayCancelItself) {
    Log log;
    const auto subject = make<Subject>();
    AnyCancellable a;
    a = subject->sink([&, token = std::string("still here")](int) {
        a.cancel();
        log.entries.push_back(token);
    });
    const auto b = subject->sink(log.value("b"));
    subject->send(1);
    subject->send(2);
    EXPECT_EQ(log.entries, (Strings{"still here", "b1", "b2"}));
}

TEST(PassthroughSubject, ASubscriberThatIsCancelledMeanwhileIsNotCalled) {
    Log log;
    const auto subject = make<Subject>();
    AnyCancellable b;
    const auto a = subject->sink([&](int) { b.cancel(); });
    b = subject->sink(log.value("b"));
    const auto c = subject->sink(log.value("c"));
    subject->send(1);
    EXPECT_EQ(log.entries, Strings{"c1"});
}

TEST(PassthroughSubject, ASubscriberThatSubscribesMeanwhileGetsTheNextValue) {
    Log log;
    const auto subject = make<Subject>();
    std::vector<AnyCancellable> later;
    const auto a = subject->sink([&](int) { later.push_back(subject->sink(log.value("b"))); });
    subject->send(1);
    EXPECT_EQ(log.entries, Strings());
    subject->send(2);
    EXPECT_EQ(log.entries, Strings{"b2"});
}

TEST(PassthroughSubject, AValueThatIsSentMeanwhileIsDeliveredFirst) {
    Log log;
    const auto subject = make<Subject>();
    const auto a = subject->sink([&](int value) {
        if (value == 1) {
            subject->send(2);
        }
    });
    const auto b = subject->sink(log.value("b"));
    subject->send(1);
    EXPECT_EQ(log.entries, (Strings{"b2", "b1"}));
}

TEST(PassthroughSubject, TheLastHandleMayBeDroppedMeanwhile) {
    Log log;
    auto subject = make<Subject>();
    AnyCancellable a;
    a = subject->sink([&](int) {
        subject.reset();
        a.cancel();
    });
    subject->send(1);
    EXPECT_EQ(subject, nullptr);
}

// The end.

TEST(PassthroughSubject, AfterTheCompletionNothingIsReceived) {
    Log log;
    const auto subject = make<FailingSubject>();
    const auto a = subject->sink(log.completion<std::string>("a"), log.value("a"));
    const auto b = subject->sink(log.completion<std::string>("b"), log.value("b"));
    subject->send(1);
    subject->send(Completion<std::string>::failure("bad"));
    subject->send(2);
    subject->send(Completion<std::string>::finished());
    EXPECT_EQ(log.entries, (Strings{"a1", "b1", "abad", "bbad"}));
}

TEST(PassthroughSubject, WhoSubscribesAfterTheCompletionGetsItAtOnce) {
    Log log;
    const auto subject = make<FailingSubject>();
    subject->send(Completion<std::string>::failure("bad"));
    subject->send(Completion<std::string>::finished());  // comes too late
    const auto a = subject->sink(log.completion<std::string>("a"), log.value("a"));
    EXPECT_EQ(log.entries, Strings{"abad"});
}

TEST(PassthroughSubject, ASubscriberThatIsCancelledGetsNoCompletion) {
    Log log;
    const auto subject = make<Subject>();
    auto a = subject->sink(log.completion<Never>("a"), log.value("a"));
    a.cancel();
    subject->send(Completion<Never>::finished());
    EXPECT_EQ(log.entries, Strings());
}

TEST(PassthroughSubject, ASubscriberThatWaitsForAValueGetsNoneAfterACompletionInBetween) {
    Log log;
    const auto subject = make<Subject>();
    const auto a = subject->sink([&](int) { subject->send(Completion<Never>::finished()); });
    const auto b = subject->sink(log.completion<Never>("b"), log.value("b"));
    subject->send(1);
    EXPECT_EQ(log.entries, Strings{"bfinished"});
}

TEST(PassthroughSubject, TheCompletionFreesTheListButCancellingStaysHarmless) {
    const auto token = make<Subject>();
    const auto subject = make<Subject>();
    auto a = subject->sink([token](int) {});
    subject->send(Completion<Never>::finished());
    a.cancel();
    EXPECT_EQ(token->ownerCount(), 1U);
}

// AnyPublisher.

TEST(AnyPublisher, SubscribesToTheSubjectBehindIt) {
    Log log;
    const auto subject = make<FailingSubject>();
    const auto publisher = subject->eraseToAnyPublisher();
    const auto a = publisher.sink(log.completion<std::string>("a"), log.value("a"));
    subject->send(1);
    subject->send(Completion<std::string>::finished());
    EXPECT_EQ(log.entries, (Strings{"a1", "afinished"}));
}

TEST(AnyPublisher, OfOneThatDoesNotFailValuesAreEnough) {
    Log log;
    const auto subject = make<Subject>();
    const auto a = subject->eraseToAnyPublisher().sink(log.value("a"));
    subject->send(1);
    EXPECT_EQ(log.entries, Strings{"a1"});
}

TEST(AnyPublisher, IsEqualWhenItIsTheSamePublisher) {
    const auto subject = make<Subject>();
    EXPECT_EQ(subject->eraseToAnyPublisher(), subject->eraseToAnyPublisher());
    EXPECT_NE(subject->eraseToAnyPublisher(), make<Subject>()->eraseToAnyPublisher());
}

TEST(AnyPublisher, KeepsThePublisher) {
    auto subject = make<Subject>();
    const Weak<Subject> weak(subject);
    auto publisher = std::make_optional(subject->eraseToAnyPublisher());
    subject.reset();
    EXPECT_NE(weak.load(), nullptr);
    publisher.reset();
    EXPECT_EQ(weak.load(), nullptr);
}

}  // namespace
}  // namespace vantorq
