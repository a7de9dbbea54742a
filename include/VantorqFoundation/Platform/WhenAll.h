#pragma once

#include <cstddef>
#include <tuple>
#include <utility>
#include <vector>

#include "Async.h"
#include "ChildTasks.h"
#include "RefCounted.h"

namespace vantorq {

/// Runs functions side by side, and gives what all of them have come to, in the order of the
/// arguments; `std::monostate` for one that gives nothing.
///
///     auto [profile, friends] = co_await whenAll(loadProfile(user), loadFriends(user));
///
/// Each one runs as a task of its own, on the executor of the calling task, and starts on no actor.
/// When one throws, the others are cancelled; once they have ended too, the error that was thrown
/// first is thrown, and whatever the others came to is dropped. When the calling task is cancelled,
/// or was already, all are. None outlives the await, so what they refer to has to live as long as
/// that; one that does not notice its cancellation, because it awaits another task's value,
/// a `withContinuation` or a broadcast whose source is silent, is waited for.
template <class... T>
Async<std::tuple<detail::Stored<T>...>> whenAll(Async<T>... functions) {
    detail::ChildTasks children;
    const std::tuple<Ref<detail::ChildTask<T>>...> tasks{
        children.add(std::move(functions), detail::Decides::byFailing)...};
    auto running = children.run();
    co_await std::move(running);
    co_return std::apply(
        [&](const auto&... task) {
            (children.rethrowIfDecisive(*task), ...);
            return std::tuple<detail::Stored<T>...>{task->take()...};
        },
        tasks);
}

/// The same for any number of functions of one type, also for none.
template <class T>
Async<std::vector<detail::Stored<T>>> whenAll(std::vector<Async<T>> functions) {
    detail::ChildTasks children;
    std::vector<Ref<detail::ChildTask<T>>> tasks;
    tasks.reserve(functions.size());
    for (Async<T>& function : functions) {
        tasks.push_back(children.add(std::move(function), detail::Decides::byFailing));
    }
    auto running = children.run();
    co_await std::move(running);
    std::vector<detail::Stored<T>> values;
    values.reserve(tasks.size());
    for (const auto& task : tasks) {
        children.rethrowIfDecisive(*task);
    }
    for (const auto& task : tasks) {
        values.push_back(task->take());
    }
    co_return values;
}

}  // namespace vantorq
