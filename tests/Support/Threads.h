#pragma once

#include <chrono>
#include <concepts>
#include <filesystem>
#include <fstream>
#include <latch>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

/// What the tests of threads share.
namespace vantorq::test {

/// Waits until `condition` holds, for a time that no working program needs. For what has no event
/// to wait for.
template <std::predicate Condition>
[[nodiscard]] bool eventually(Condition condition) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/// Runs `work(number)` on so many threads, numbered from 0, that begin together, and waits for all.
template <std::invocable<int> Work>
void together(int threadCount, Work work) {
    std::latch start(threadCount);
    std::vector<std::jthread> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([&start, &work, number] {
            start.arrive_and_wait();
            work(number);
        });
    }
}

/// How many threads of the process have a name that begins so.
inline int countThreads(std::string_view namePrefix) {
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::getline(std::ifstream(task.path() / "comm"), name);
        count += name.starts_with(namePrefix) ? 1 : 0;
    }
    return count;
}

}  // namespace vantorq::test
