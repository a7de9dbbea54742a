#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <deque>
#include <latch>
#include <pthread.h>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Support/Threads.h"
#include "VantorqFoundation/Platform/DispatchQueue.h"
#include "VantorqFoundation/Platform/DispatchTimer.h"

namespace vantorq {
namespace {

using namespace std::chrono_literals;
using test::countThreads;
using test::eventually;

const int kBase = static_cast<int>(std::max(std::thread::hardware_concurrency(), 1U));

/// Blocks work until it is opened; waits for all of it at the end.
class Gate {
public:
    explicit Gate(int works) : ended_(works) {}
    void pass() {
        isOpen_.wait(false);
        ended_.count_down();
    }
    void openAndWait() {
        isOpen_ = true;
        isOpen_.notify_all();
        ended_.wait();
    }

private:
    std::atomic<bool> isOpen_ = false;
    std::latch ended_;
};

TEST(ThreadPool, ThreadsAreNamedAndTakeNoSignals) {
    std::latch done(1);
    char name[16] = {};
    sigset_t blocked;
    DispatchQueue::global()->async([&] {
        pthread_getname_np(pthread_self(), name, sizeof name);
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        done.count_down();
    });
    done.wait();
    EXPECT_STREQ(name, "vntq-worker");
    for (const int signal : {SIGINT, SIGTERM, SIGALRM, SIGCHLD, SIGUSR1}) {
        EXPECT_EQ(sigismember(&blocked, signal), 1);
    }
    sigset_t ours;
    pthread_sigmask(SIG_BLOCK, nullptr, &ours);
    EXPECT_EQ(sigismember(&ours, SIGTERM), 0);
}

TEST(ThreadPool, BlockedWorkDoesNotKeepFurtherWorkFromRunning) {
    constexpr int kBlocked = 64;
    Gate gate(kBlocked);
    for (int i = 0; i < kBlocked; ++i) {
        DispatchQueue::global()->async([&] { gate.pass(); });
    }
    std::latch ran(1);
    DispatchQueue::global()->async([&] { ran.count_down(); });
    ran.wait();
    gate.openAndWait();
}

TEST(ThreadPool, WorkBehindABlockedPieceOfOneBatchIsRun) {
    constexpr int kBehind = 63;
    std::latch behind(kBehind);
    std::latch done(1);
    // All is queued from one piece of work, so that one thread may well take it all at once.
    DispatchQueue::global()->async([&] {
        DispatchQueue::global()->async([&] {
            behind.wait();
            done.count_down();
        });
        for (int i = 0; i < kBehind; ++i) {
            DispatchQueue::global()->async([&] { behind.count_down(); });
        }
    });
    done.wait();
}

TEST(ThreadPool, EveryPieceMayWaitForTheNext) {
    constexpr std::size_t kChain = 100;
    std::deque<std::latch> latches;
    for (std::size_t i = 0; i <= kChain; ++i) {
        latches.emplace_back(1);
    }
    std::latch done(kChain);
    for (std::size_t i = 0; i < kChain; ++i) {
        DispatchQueue::global()->async([&, i] {
            latches[i + 1].wait();
            latches[i].count_down();
            done.count_down();
        });
    }
    latches[kChain].count_down();
    done.wait();
    EXPECT_TRUE(latches[0].try_wait());
}

TEST(ThreadPool, WorkMayWaitForWorkThatItQueued) {
    constexpr int kChain = 20;
    std::latch done(1);
    struct Link {
        static void run(int left, std::latch& outer) {
            std::latch inner(1);
            if (left > 0) {
                DispatchQueue::global()->async([left, &inner] { run(left - 1, inner); });
                inner.wait();
            }
            outer.count_down();
        }
    };
    DispatchQueue::global()->async([&] { Link::run(kChain, done); });
    done.wait();
    EXPECT_TRUE(done.try_wait());
}

TEST(ThreadPool, WorkThatQueuesItselfAgainAndAgainDoesNotKeepOthersWaiting) {
    const int chains = 4 * kBase;
    std::atomic<bool> isOver = false;
    std::latch ended(chains);
    struct Chain {
        std::atomic<bool>& isOver;
        std::latch& ended;
        void operator()() const {
            if (isOver) {
                ended.count_down();
            } else {
                DispatchQueue::global()->async(*this);
            }
        }
    };
    for (int i = 0; i < chains; ++i) {
        DispatchQueue::global()->async(Chain{isOver, ended});
    }
    std::latch ran(100);
    for (int i = 0; i < 100; ++i) {
        DispatchQueue::global()->async([&] { ran.count_down(); });
    }
    ran.wait();
    isOver = true;
    ended.wait();
    EXPECT_TRUE(ran.try_wait());
}

TEST(ThreadPool, WorkThatComputesDoesNotMakeItGrow) {
    constexpr int kPieces = 64;
    // Threads that another test needed would join in.
    ASSERT_TRUE(eventually([] { return countThreads("vntq-worker") == 0; }));
    std::atomic<int> running = 0;
    std::atomic<int> most = 0;
    std::latch done(kPieces);
    for (int i = 0; i < kPieces; ++i) {
        DispatchQueue::global()->async([&] {
            const int now = ++running;
            for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) {
            }
            const auto end = std::chrono::steady_clock::now() + 15ms;
            while (std::chrono::steady_clock::now() < end) {
            }
            --running;
            done.count_down();
        });
    }
    done.wait();
    // A thread that a busy machine gives no time for a while looks blocked, but not all of them do.
    EXPECT_LE(most, kBase + 2);
}

TEST(ThreadPool, ThereAreNeverMoreThan256Threads) {
    constexpr int kBlocked = 300;
    Gate gate(kBlocked);
    std::atomic<int> begun = 0;
    for (int i = 0; i < kBlocked; ++i) {
        DispatchQueue::global()->async([&] {
            ++begun;
            gate.pass();
        });
    }
    EXPECT_TRUE(eventually([&] { return begun == 256; }));
    EXPECT_EQ(countThreads("vntq-worker"), 256);
    gate.openAndWait();
    EXPECT_EQ(begun, kBlocked);
}

TEST(ThreadPool, ThreadsEndWhenThereIsNothingToDo) {
    std::latch done(1);
    DispatchQueue::global()->asyncAfter(0.001, [&] { done.count_down(); });
    done.wait();
    {
        const auto timer = DispatchTimer::timer(DispatchQueue::global(), [] {});
        timer->schedule(3'600'000'000'000);
        EXPECT_GT(countThreads("vntq-"), 0);
    }
    EXPECT_TRUE(eventually([] { return countThreads("vntq-") == 0; }));

    std::latch again(1);
    DispatchQueue::global()->async([&] { again.count_down(); });
    again.wait();
}

TEST(ThreadPool, AProcessMayEndWhileWorkRuns) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child needs a pool of its own
    EXPECT_EXIT(
        {
            std::latch begun(1);
            DispatchQueue::global()->async([&] {
                begun.count_down();
                std::latch(1).wait();
            });
            begun.wait();
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace vantorq
