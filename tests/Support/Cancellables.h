#pragma once

#include <atomic>
#include <concepts>
#include <thread>
#include <utility>

#include "VantorqFoundation/Platform/RefCounted.h"

/// What the tests of cancellation cancel.
namespace vantorq::test {

/// A shared object of which a test can see how many there are.
class Counted : public RefCounted {
public:
    static inline constinit std::atomic<int> living{0};

protected:
    Counted() noexcept { ++living; }
    ~Counted() override { --living; }
};

/// Counts its cancellations, and knows whether there was one.
class CountedCancellable : public Counted {
public:
    void cancel() { ++cancels; }
    [[nodiscard]] bool isCancelled() const { return cancels > 0; }

    std::atomic<int> cancels{0};
};

/// The same, without the property.
class PlainCancellable : public Counted {
public:
    void cancel() { ++cancels; }

    std::atomic<int> cancels{0};
};

/// A value that counts its cancellations, and the values that there are, in what belongs to the
/// test.
class CountedValue {
public:
    CountedValue(int& cancels, int& living) : cancels_(&cancels), living_(&living) { ++*living_; }
    CountedValue(const CountedValue& other) : CountedValue(*other.cancels_, *other.living_) {}
    CountedValue& operator=(const CountedValue&) = delete;
    ~CountedValue() { --*living_; }

    void cancel() { ++*cancels_; }

private:
    int* cancels_;
    int* living_;
};

/// Something that another thread does while the caller holds a lock that it needs, maybe.
class Attempt {
public:
    /// Begins, and gives the other thread ample opportunity to end.
    template <std::invocable<> Action>
    explicit Attempt(Action action)
        : thread_([this, action] {
              hasBegun_ = true;
              action();
              hasEnded_ = true;
          }) {
        while (!hasBegun_) {
            std::this_thread::yield();
        }
        hadSucceeded_ = succeeds();
    }

    /// Whether it has ended while the constructor waited for it.
    [[nodiscard]] bool hadSucceeded() const { return hadSucceeded_; }
    /// Gives it ample opportunity again, and tells whether it has ended.
    [[nodiscard]] bool succeeds() const {
        for (int i = 0; i < 1'000; ++i) {
            std::this_thread::yield();
        }
        return hasEnded_;
    }
    void join() { thread_.join(); }

private:
    std::atomic<bool> hasBegun_{false};
    std::atomic<bool> hasEnded_{false};
    bool hadSucceeded_ = false;
    std::jthread thread_;
};

}  // namespace vantorq::test
