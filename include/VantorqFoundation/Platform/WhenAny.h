#pragma once

#include <cstddef>
#include <optional>
#include <tuple>
#include <utility>
#include <variant>
#include <vector>

#include "Async.h"
#include "ChildTasks.h"
#include "RefCounted.h"
#include "Trap.h"

namespace vantorq {

/// What the first of several functions has come to, and which one that was.
template <class T>
struct WhenAnyResult {
    std::size_t index;
    T value;

    friend bool operator==(const WhenAnyResult&, const WhenAnyResult&) = default;
};

/// Runs functions side by side, and gives what the first to end has come to, as the alternative of
/// its place among the arguments; `std::monostate` for one that gives nothing. What it throws, the
/// await throws.
///
///     auto answer = co_await whenAny(askServer(question), askUser(question));
///     if (answer.index() == 1) { … }
///
/// Each one runs as a task of its own, on the executor of the calling task, and starts on no actor.
/// Once one has ended the others are cancelled, and waited for; what they come to, errors included,
/// is dropped. When the calling task is cancelled, or was already, all are. None outlives the
/// await, so what they refer to has to live as long as that; one that does not notice its
/// cancellation, because it awaits another task's value, a `withContinuation` or a broadcast whose
/// source is silent, is waited for.
template <class... T>
    requires(sizeof...(T) > 0)
Async<std::variant<detail::Stored<T>...>> whenAny(Async<T>... functions) {
    detail::ChildTasks children;
    const std::tuple<Ref<detail::ChildTask<T>>...> tasks{
        children.add(std::move(functions), detail::Decides::byEnding)...};
    auto running = children.run();
    co_await std::move(running);
    std::optional<std::variant<detail::Stored<T>...>> first;
    const auto take = [&]<std::size_t... index>(std::index_sequence<index...>) {
        (void)((children.isDecisive(*std::get<index>(tasks)) &&
                (first.emplace(std::in_place_index<index>, std::get<index>(tasks)->take()),
                 true)) ||
               ...);
    };
    take(std::index_sequence_for<T...>());
    co_return *std::move(first);
}

/// The same for any number of functions of one type. Awaited, traps when there is none.
template <class T>
Async<WhenAnyResult<detail::Stored<T>>> whenAny(std::vector<Async<T>> functions) {
    if (functions.empty()) {
        VNTQ_TRAP("whenAny: nothing to wait for");
    }
    detail::ChildTasks children;
    std::vector<Ref<detail::ChildTask<T>>> tasks;
    tasks.reserve(functions.size());
    for (Async<T>& function : functions) {
        tasks.push_back(children.add(std::move(function), detail::Decides::byEnding));
    }
    auto running = children.run();
    co_await std::move(running);
    std::size_t index = 0;
    while (!children.isDecisive(*tasks[index])) {
        ++index;
    }
    co_return WhenAnyResult<detail::Stored<T>>{index, tasks[index]->take()};
}

}  // namespace vantorq
