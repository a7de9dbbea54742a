#pragma once

#include <atomic>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "VantorqFoundation/Platform/Trap.h"

/// EXPECT_TRAP(statement, "text"): the statement stops the process by a trap whose crash text
/// contains "text". It runs in a child process; any other end of it, another signal included, is a
/// failure.
namespace vantorq::test {

inline constexpr int kTrapped = 86;

/// Makes this process end with `kTrapped` when it traps, and its crash text the last thing it
/// writes.
inline void reportTraps() {
    const auto report = [](int) {
        const char* stored = std::atomic_ref(vntq_crash_text).load();  // others may trap as well
        const char* text = stored != nullptr ? stored : "(no crash text)";
        const ssize_t written = write(STDERR_FILENO, text, strlen(text));
        _exit(written > 0 ? kTrapped : kTrapped + 1);
    };
    signal(SIGILL, report);
    signal(SIGTRAP, report);
}

}  // namespace vantorq::test

#define EXPECT_TRAP(statement, text)        \
    EXPECT_EXIT(                            \
        {                                   \
            ::vantorq::test::reportTraps(); \
            statement;                      \
        },                                  \
        ::testing::ExitedWithCode(::vantorq::test::kTrapped), ::testing::HasSubstr(text))
