#pragma once

#include <optional>
#include <utility>

#include "Platform/OSAllocatedUnfairLock.h"

namespace vantorq::detail {

/// Where a value and a failure meet that come from different sides, in whichever order. The side
/// that comes second is given both, and the failure that comes first is final.
///
/// The value is stored once. Threads: any; each operation is one critical section, in which nothing
/// is called but move constructors.
template <class Value, class Failure>
class AtomicSingleReadWithFailure {
public:
    struct Both {
        Value value;
        Failure failure;
    };

    /// Stores the value; or gives it back, with the failure, when there is one already.
    [[nodiscard]] std::optional<Both> store(Value value) {
        return state_.withLock([&](State& state) -> std::optional<Both> {
            if (!state.failure) {
                state.value.emplace(std::move(value));
                return std::nullopt;
            }
            return Both{std::move(value), std::move(*state.failure)};
        });
    }

    /// Records the failure, and takes the value out when it is there. Nothing happens when there is
    /// a failure already.
    [[nodiscard]] std::optional<Both> fail(Failure failure) {
        return state_.withLock([&](State& state) -> std::optional<Both> {
            if (state.failure) {
                return std::nullopt;
            }
            state.failure.emplace(std::move(failure));
            if (!state.value) {
                return std::nullopt;
            }
            // The failure that is moved from stays, as the mark that there was one.
            std::optional<Both> both(Both{std::move(*state.value), std::move(*state.failure)});
            state.value.reset();
            return both;
        });
    }

private:
    struct State {
        std::optional<Value> value;
        std::optional<Failure> failure;
    };
    OSAllocatedUnfairLock<State> state_;
};

}  // namespace vantorq::detail
