#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "VantorqFoundation/Platform/Async.h"
#include "VantorqFoundation/Platform/Continuation.h"
#include "VantorqFoundation/Platform/RefCounted.h"
#include "VantorqFoundation/Platform/Task.h"

/// Asynchronous sequences for tests, which count what lives and how they are read.
namespace vantorq::test {

/// One of the living in `count`, and so is each copy.
class CensusMember {
public:
    explicit CensusMember(std::atomic<int>& count) noexcept : count_(&count) { ++*count_; }
    CensusMember(const CensusMember& other) noexcept : CensusMember(*other.count_) {}
    CensusMember& operator=(const CensusMember& other) noexcept {
        CensusMember copy(other);
        std::swap(count_, copy.count_);
        return *this;
    }
    ~CensusMember() { --*count_; }

private:
    std::atomic<int>* count_;
};

/// How many live.
struct Census {
    std::atomic<int> items{0};
    std::atomic<int> sourceIterators{0};
    std::atomic<int> consumers{0};

    [[nodiscard]] bool isEmpty() const {
        return items == 0 && sourceIterators == 0 && consumers == 0;
    }
};

/// An element: it can be copied, has no default, and is counted.
class Item {
public:
    Item(int itsValue, Census& census) noexcept : value(itsValue), counted_(census.items) {}

    int value;

private:
    CensusMember counted_;
};

/// Where a reading waits until the test lets it go on. For one thread, and one reading.
class ReadingGate {
public:
    Async<> pass() {
        EXPECT_FALSE(isWaitedAt()) << "two readings at a time";
        auto opening = withContinuation<void>(
            [this](Continuation<void> continuation) { waiting_ = std::move(continuation); });
        co_await opening;
    }
    [[nodiscard]] bool isWaitedAt() const noexcept { return waiting_.has_value(); }
    /// Somebody has to be waiting.
    void open() { std::exchange(waiting_, std::nullopt).value().resume(); }

private:
    std::optional<Continuation<void>> waiting_;
};

/// What one reading of a source does before it gives its result.
enum class Manner { atOnce, atGate, yielding };

/// What ends a source that fails.
class SourceError final : public std::runtime_error {
public:
    SourceError() : std::runtime_error("error") {}
};

/// Gives the items 0, 1, …, `count` - 1, then the end or an error. Iterators of one source share
/// all but their place.
class Source {
public:
    struct Plan {
        int count = 0;
        bool fails = false;
        Manner manner = Manner::atOnce;
    };

    class Account final : public RefCounted {
    public:
        Account(Plan itsPlan, Census& itsCensus) : plan(itsPlan), census(itsCensus) {}

        Plan plan;
        Census& census;
        ReadingGate gate;
        /// A yielding reading of a place that is not below this one waits.
        std::atomic<int> allowed{std::numeric_limits<int>::max()};
        std::function<void()> onReadingAtOnce;  ///< called during each, when set
        std::atomic<int> calls{0};              ///< of `next`
        std::atomic<int> returned{0};           ///< items
        std::atomic<int> underWay{0};           ///< readings
        std::atomic<int> mostUnderWay{0};
        std::atomic<bool> wasCancelled{false};  ///< the task of a reading, seen after its wait

        Async<std::optional<Item>> read(int place, Manner manner) {
            if (manner == Manner::atOnce) {
                const Reading scope(*this);
                if (onReadingAtOnce) {
                    onReadingAtOnce();
                }
                return Async<std::optional<Item>>::ready(resultAt(place));
            }
            return readLater(place, manner);
        }

    private:
        /// Under way as long as it lives.
        class Reading {
        public:
            explicit Reading(Account& account) : counted_(account.underWay) {
                const int now = account.underWay;
                int most = account.mostUnderWay;
                while (most < now && !account.mostUnderWay.compare_exchange_weak(most, now)) {
                }
            }

        private:
            CensusMember counted_;
        };

        ~Account() override = default;

        std::optional<Item> resultAt(int place) {
            if (place < plan.count) {
                ++returned;
                return Item(place, census);
            }
            if (plan.fails) {
                throw SourceError();
            }
            return std::nullopt;
        }
        Async<std::optional<Item>> readLater(int place, Manner manner) {
            const Reading scope(*this);
            if (manner == Manner::atGate) {
                auto passing = gate.pass();
                co_await std::move(passing);
            } else {
                do {
                    co_await thisTask::yield();
                } while (place >= allowed);
            }
            if (thisTask::isCancelled()) {
                wasCancelled = true;
            }
            co_return resultAt(place);
        }
    };

    Source(Plan plan, Census& census) : account_(make<Account>(plan, census)) {}

    class AsyncIterator {
    public:
        explicit AsyncIterator(Ref<Account> account)
            : account_(std::move(account)), counted_(account_->census.sourceIterators) {}

        Async<std::optional<Item>> next() {
            ++account_->calls;
            return account_->read(place_++, account_->plan.manner);
        }

    private:
        Ref<Account> account_;
        CensusMember counted_;
        int place_ = 0;
    };
    [[nodiscard]] AsyncIterator makeAsyncIterator() const { return AsyncIterator(account_); }

    [[nodiscard]] Account& account() const noexcept { return *account_; }

private:
    Ref<Account> account_;
};

/// Gives the elements of a list, each at once.
template <std::copyable Element>
class ListSource {
public:
    explicit ListSource(std::vector<Element> list) : list_(std::move(list)) {}

    class AsyncIterator {
    public:
        explicit AsyncIterator(std::vector<Element> list) : list_(std::move(list)) {}

        Async<std::optional<Element>> next() {
            std::optional<Element> element;
            if (place_ < list_.size()) {
                element = list_[place_++];
            }
            return Async<std::optional<Element>>::ready(std::move(element));
        }

    private:
        std::vector<Element> list_;
        std::size_t place_ = 0;
    };
    [[nodiscard]] AsyncIterator makeAsyncIterator() const { return AsyncIterator(list_); }

private:
    std::vector<Element> list_;
};

}  // namespace vantorq::test
