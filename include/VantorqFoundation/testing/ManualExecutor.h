#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <random>
#include <utility>
#include <vector>

#include "../Platform/Executor.h"
#include "../Platform/UnfairLock.h"

namespace vantorq::testing {

/// An executor that runs nothing by itself: for tests that say what happens when.
///
///     const auto executor = make<testing::ManualExecutor>(seed);
///     auto task = Task<int>::start(work, {.executor = executor});
///     executor->runAll();
///     EXPECT_TRUE(task.isDone());
///
/// With a seed, the job to run next is chosen at random among those that wait, and the same seed
/// chooses the same ones again; without, the first is. Tasks that a task starts are on its executor
/// too, so a test that uses nothing but tasks, actors and streams is deterministic.
///
/// Threads: jobs are enqueued from any, and run on the one that calls `runOne` or `runAll`.
class ManualExecutor final : public Executor {
public:
    ManualExecutor() noexcept = default;
    explicit ManualExecutor(std::uint64_t seed) : random_(seed) {}

    void enqueue(Job& job) override {
        const std::lock_guard guard(lock_);
        jobs_.push_back(&job);
    }

    /// How many jobs wait.
    [[nodiscard]] std::size_t pendingCount() const noexcept {
        const std::lock_guard guard(lock_);
        return jobs_.size();
    }

    /// Runs one job, up to where it suspends; false when there is none.
    bool runOne() {
        if (Job* const job = take()) {
            run(*job);
            return true;
        }
        return false;
    }

    /// Runs until no job waits, also those that arrive meanwhile. Returns how many it has run.
    std::size_t runAll() {
        std::size_t count = 0;
        while (runOne()) {
            ++count;
        }
        return count;
    }

private:
    ~ManualExecutor() override = default;

    Job* take() {
        const std::lock_guard guard(lock_);
        if (jobs_.empty()) {
            return nullptr;
        }
        std::size_t index = 0;
        if (random_.has_value()) {
            index = std::uniform_int_distribution<std::size_t>(0, jobs_.size() - 1)(*random_);
        }
        Job* const job = jobs_[index];
        jobs_.erase(jobs_.begin() + static_cast<std::ptrdiff_t>(index));
        return job;
    }

    mutable UnfairLock lock_;
    std::vector<Job*> jobs_;
    std::optional<std::mt19937_64> random_;
};

}  // namespace vantorq::testing
