#pragma once

#include <atomic>
#include <optional>
#include <utility>
#include <vector>

#include "VantorqFoundation/Platform/AsyncSequence.h"
#include "VantorqFoundation/Platform/AsyncStream.h"
#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

/// What the tests of streams share.
namespace vantorq::test {

/// A value that is moved only, and of which a test can see how many there are.
class MoveOnly {
public:
    explicit MoveOnly(int number) noexcept : value(number) { ++living; }
    MoveOnly(MoveOnly&& other) noexcept : value(other.value) { ++living; }
    MoveOnly& operator=(MoveOnly&& other) noexcept = default;
    ~MoveOnly() { --living; }

    int value;

    static inline constinit std::atomic<int> living{0};
};

/// What iterating a sequence gives, up to its end.
template <class Iterator>
auto collectRest(Iterator iterator)
    -> Async<std::vector<typename AwaitResult<decltype(iterator.next())>::value_type>> {
    std::vector<typename AwaitResult<decltype(iterator.next())>::value_type> elements;
    while (auto element = co_await iterator.next()) {
        elements.push_back(*std::move(element));
    }
    co_return elements;
}

/// The same, in a thread, for a sequence that has come to its end.
template <class Sequence>
auto elementsOf(Sequence sequence) {
    return syncWait(collectRest(sequence.makeAsyncIterator()));
}

/// What one `next` gives, in a thread, when it has not to be waited for.
template <class Iterator>
auto nextOf(Iterator& iterator) {
    return syncWait(iterator.next());
}

/// A termination handler that writes down how the stream has ended, each time that it is told.
inline auto noteIn(std::vector<StreamTermination>& endings) {
    return [&endings](const StreamTermination& how) { endings.push_back(how); };
}

/// A task that gets one element of the sequence, on `executor`.
template <class Element, class Sequence>
Task<std::optional<Element>> takeOne(Sequence sequence, Ref<Executor> executor) {
    return Task<std::optional<Element>>::start(
        [sequence]() -> Async<std::optional<Element>> {
            auto iterator = sequence.makeAsyncIterator();
            std::optional<Element> element = co_await iterator.next();
            co_return element;
        },
        {.executor = std::move(executor)});
}

}  // namespace vantorq::test
