#pragma once

#include <atomic>
#include <coroutine>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

#include "Async.h"
#include "Executor.h"
#include "Export.h"
#include "RefCounted.h"
#include "Task.h"

/// What `whenAll`, `whenAny` and `withTimeout` are made of: tasks that one function starts, and
/// stays for until all of them have ended.
namespace vantorq::detail {

/// How a child decides the matter for all.
enum class Decides : std::uint8_t { byEnding, byEndingUncancelled, byFailing };

template <class T>
class ChildTask;

/// Stands in the function's frame. The child that is the first to decide has the others cancelled;
/// so are all when the function's task is. They run where that task does.
class VNTQ_EXPORT ChildTasks {
public:
    ChildTasks() noexcept = default;
    ~ChildTasks();
    ChildTasks(const ChildTasks&) = delete;
    ChildTasks& operator=(const ChildTasks&) = delete;

    /// One more, to be started by `run`. Called by the function itself.
    template <class T>
    Ref<ChildTask<T>> add(Async<T> async, Decides decides) {
        auto child = make<ChildTask<T>>(*this, decides, std::move(async));
        tasks_.push_back(child);
        return child;
    }

    /// Runs all children, and waits until every one of them has ended; once.
    Async<> run();

    /// After `run`: whether it is the child that has decided. There may be none.
    [[nodiscard]] bool isDecisive(const TaskState& child) const noexcept {
        return decisive_.load(std::memory_order_relaxed) == &child;
    }
    /// After `run`: throws the error of the child if that has decided by it.
    template <class T>
    void rethrowIfDecisive(const ChildTask<T>& child) const {
        if (isDecisive(child)) {
            child.outcome.rethrow();
        }
    }

private:
    template <class>
    friend class ChildTask;

    void decide(const TaskState& child) noexcept;
    void cancel() noexcept;

    std::vector<Ref<TaskState>> tasks_;
    std::atomic<const TaskState*> decisive_{nullptr};
};

template <class T>
class ChildTask final : public TaskWithAsync<T> {
public:
    ChildTask(ChildTasks& family, Decides decides, Async<T> async)
        : TaskWithAsync<T>(currentHome(), std::move(async)), family_(family), decides_(decides) {}

    /// What it has come to; for the function, after `run`.
    Stored<T> take() {
        if constexpr (std::is_void_v<T>) {
            this->outcome.take();
            return {};
        } else {
            return this->outcome.take();
        }
    }

protected:
    void collect() noexcept override {
        TaskWithAsync<T>::collect();
        if (hasDecided()) {
            family_.decide(*this);
        }
    }

private:
    ~ChildTask() override = default;

    [[nodiscard]] bool hasDecided() const noexcept {
        switch (decides_) {
            case Decides::byEnding:
                return true;
            case Decides::byEndingUncancelled:
                return !this->isCancelled();
            case Decides::byFailing:
                return this->outcome.value() == nullptr;
        }
        return false;
    }

    ChildTasks& family_;
    const Decides decides_;
};

}  // namespace vantorq::detail
