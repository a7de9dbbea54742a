#include <atomic>
#include <cstddef>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Threads.h"
#include "VantorqFoundation/ThreadSafeDictionary.h"

namespace vantorq {
namespace {

using test::together;

constexpr int kThreads = 4;
constexpr int kKeys = 64;

/// A value that says which key it belongs to, in memory of its own.
std::string valueFor(int key, int number) {
    return "the value of " + std::to_string(key) + ", number " + std::to_string(number);
}
bool belongsTo(const std::string& value, int key) {
    return value.starts_with("the value of " + std::to_string(key) + ",");
}

TEST(ThreadSafeDictionaryStress, ReadersSeeWholeValuesOfTheirKeysWhateverWritersDo) {
    const auto dictionary = make<ThreadSafeDictionary<int, std::string>>();
    std::atomic<int> wrong{0};
    together(kThreads, [&](int thread) {
        for (int n = 0; n < 20'000; ++n) {
            const int key = (n * 7 + thread * 13) % kKeys;
            if (n % 11 == 0) {
                (*dictionary)[key] = std::nullopt;
            } else if (n % 3 == 0) {
                (*dictionary)[key] = valueFor(key, n);
            } else if (const std::optional<std::string> value = (*dictionary)[key]) {
                wrong += belongsTo(*value, key) ? 0 : 1;
            }
        }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_LE(dictionary->count(), static_cast<std::size_t>(kKeys));
}

TEST(ThreadSafeDictionaryStress, SnapshotsAreWholeWhileOthersWrite) {
    const auto dictionary = make<ThreadSafeDictionary<int, std::string>>();
    std::atomic<int> wrong{0};
    together(kThreads, [&](int thread) {
        for (int n = 0; n < 2'000; ++n) {
            const int key = (n * 7 + thread * 13) % kKeys;
            if (thread < 2) {
                for (int k = 0; k < 8; ++k) {
                    (*dictionary)[(key + k) % kKeys] = valueFor((key + k) % kKeys, n);
                }
            } else if (thread == 2) {
                const auto keys = dictionary->keys();
                const std::set<int> distinct(keys.begin(), keys.end());
                wrong += distinct.size() == keys.size() ? 0 : 1;
                for (const std::string& value : dictionary->values()) {
                    wrong += value.starts_with("the value of ") ? 0 : 1;
                }
            } else if (n % 5 == 0) {
                for (const std::string& value :
                     dictionary->removeKeys(std::set<int>{key, key + 1})) {
                    wrong += belongsTo(value, key) || belongsTo(value, key + 1) ? 0 : 1;
                }
            } else if (n % 7 == 0) {
                dictionary->removeAll(n % 2 == 0);
            } else {
                dictionary->forEach(
                    [&](int k, const std::string& value) { wrong += belongsTo(value, k) ? 0 : 1; });
            }
        }
    });
    EXPECT_EQ(wrong, 0);
}

/// One thread adds keys in their order and takes all of them away at once, so at every moment those
/// that are there are the first ones.
TEST(ThreadSafeDictionaryStress, EveryViewIsOfOneMoment) {
    constexpr int kRounds = 5'000;
    const auto dictionary = make<ThreadSafeDictionary<int, int>>();
    std::set<int> all;
    for (int key = 0; key < kKeys; ++key) {
        all.insert(key);
    }
    const auto areTheFirst = [](const std::set<int>& keys) {
        return keys.empty() ||
               (*keys.begin() == 0 && *keys.rbegin() == static_cast<int>(keys.size()) - 1);
    };
    std::atomic<int> wrong{0};
    std::atomic<bool> isOver{false};
    together(kThreads, [&](int thread) {
        if (thread == 0) {
            for (int n = 0; n < kRounds; ++n) {
                for (const int key : all) {
                    (*dictionary)[key] = key;
                }
                wrong += dictionary->removeKeys(all).size() == all.size() ? 0 : 1;
            }
            isOver = true;
            return;
        }
        while (!isOver) {
            const auto keys = dictionary->keys();
            wrong += areTheFirst(std::set<int>(keys.begin(), keys.end())) ? 0 : 1;
            std::set<int> walked;
            dictionary->forEach([&](int key, int) { walked.insert(key); });
            wrong += areTheFirst(walked) ? 0 : 1;
        }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_TRUE(dictionary->isEmpty());
}

/// Some keys stand still, and each thread adds and removes one of its own.
TEST(ThreadSafeDictionaryStress, CountsLieBetweenTheFewestAndTheMostEntriesThatThereAre) {
    constexpr std::size_t kStanding = 3;
    const auto dictionary = make<ThreadSafeDictionary<int, int>>();
    for (int key = 0; key < static_cast<int>(kStanding); ++key) {
        (*dictionary)[key] = key;
    }
    std::atomic<int> wrong{0};
    together(kThreads, [&](int thread) {
        const int own = 100 + thread;
        for (int n = 0; n < 20'000; ++n) {
            (*dictionary)[own] = n;
            const std::size_t count = dictionary->count();
            wrong += count > kStanding && count <= kStanding + kThreads ? 0 : 1;
            wrong += dictionary->isEmpty() ? 1 : 0;
            (*dictionary)[own] = std::nullopt;
        }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(dictionary->count(), kStanding);
}

TEST(ThreadSafeDictionaryStress, DistinctKeysDoNotDisturbOneAnother) {
    constexpr int kEach = 5'000;
    const auto dictionary = make<ThreadSafeDictionary<int, int>>();
    together(kThreads, [&](int thread) {
        for (int n = 0; n < kEach; ++n) {
            (*dictionary)[n * kThreads + thread] = n;
            dictionary->modify(n * kThreads + thread, [](std::optional<int>& value) { ++*value; });
            if (n % 3 == 0) {
                (*dictionary)[n * kThreads + thread] = std::nullopt;
            }
        }
    });
    int entries = 0;
    int wrong = 0;
    dictionary->forEach([&](int key, int value) {
        ++entries;
        wrong += value == key / kThreads + 1 && (key / kThreads) % 3 != 0 ? 0 : 1;
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(entries, kThreads * (kEach - (kEach + 2) / 3));
}

TEST(ThreadSafeDictionaryStress, StepsThatMeetInModifyMayBeLostButNoneIsInvented) {
    constexpr int kSteps = 20'000;
    const auto dictionary = make<ThreadSafeDictionary<int, int>>();
    together(kThreads, [&](int) {
        for (int n = 0; n < kSteps; ++n) {
            dictionary->modify(0, [](std::optional<int>& value) { value = value.value_or(0) + 1; });
        }
    });
    const int sum = std::optional<int>((*dictionary)[0]).value();
    EXPECT_GT(sum, 0);
    EXPECT_LE(sum, kThreads * kSteps);
}

TEST(ThreadSafeDictionaryStress, WalksThatFailLeaveTheLockFree) {
    const auto dictionary = make<ThreadSafeDictionary<int, int>>();
    for (int key = 0; key < 8; ++key) {
        (*dictionary)[key] = key;
    }
    std::atomic<int> failures{0};
    together(kThreads, [&](int thread) {
        for (int n = 0; n < 2'000; ++n) {
            try {
                dictionary->forEach([&](int key, int) {
                    if (key % kThreads == thread) {
                        throw std::runtime_error("failed");
                    }
                });
            } catch (const std::runtime_error&) {
                ++failures;
            }
        }
    });
    EXPECT_EQ(failures, kThreads * 2'000);
    EXPECT_EQ(dictionary->count(), 8U);
}

}  // namespace
}  // namespace vantorq
