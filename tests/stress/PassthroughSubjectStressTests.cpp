#include <atomic>

#include <gtest/gtest.h>

#include "Support/Streams.h"
#include "Support/Threads.h"
#include "VantorqFoundation/Platform/PassthroughSubject.h"

namespace vantorq {
namespace {

using test::MoveOnly;

TEST(PassthroughSubjectStress, SubscribersComeAndGoWhileValuesAreSent) {
    constexpr int kRounds = 5'000;
    const auto subject = make<PassthroughSubject<int>>();
    std::atomic<int> seen = 0;
    const auto permanent = subject->sink([&](int) { ++seen; });
    test::together(4, [&](int thread) {
        for (int i = 0; i < kRounds; ++i) {
            if (thread < 2) {
                subject->send(i);
                continue;
            }
            auto own = subject->sink([token = MoveOnly(i)](int) {});
            own = subject->sink([](int) {});
        }
    });
    EXPECT_EQ(seen, 2 * kRounds);
    EXPECT_EQ(MoveOnly::living, 0);
    EXPECT_EQ(subject->ownerCount(), 2U);
}

}  // namespace
}  // namespace vantorq
