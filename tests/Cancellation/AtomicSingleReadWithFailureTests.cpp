#include "VantorqFoundation/AtomicSingleReadWithFailure.h"

#include <atomic>
#include <memory>
#include <utility>

#include <gtest/gtest.h>

#include "Support/Cancellables.h"
#include "Support/Threads.h"

namespace vantorq {
namespace {

/// Values and failures that can only be moved, as those of the bridges.
using Value = std::unique_ptr<int>;
using Failure = std::unique_ptr<char>;
using Cell = detail::AtomicSingleReadWithFailure<Value, Failure>;

Value value(int number) {
    return std::make_unique<int>(number);
}
Failure failure(char letter) {
    return std::make_unique<char>(letter);
}

TEST(AtomicSingleReadWithFailure, GivesNothingForTheFirstValue) {
    Cell cell;
    EXPECT_FALSE(cell.store(value(1)).has_value());
}

TEST(AtomicSingleReadWithFailure, GivesNothingForTheFirstFailure) {
    Cell cell;
    EXPECT_FALSE(cell.fail(failure('a')).has_value());
}

TEST(AtomicSingleReadWithFailure, GivesAFailureTheValueThatIsThere) {
    Cell cell;
    (void)cell.store(value(1));
    const auto both = cell.fail(failure('a'));
    ASSERT_TRUE(both.has_value());
    EXPECT_EQ(*both->value, 1);
    EXPECT_EQ(*both->failure, 'a');
}

TEST(AtomicSingleReadWithFailure, GivesAValueTheFailureThatIsThere) {
    Cell cell;
    (void)cell.fail(failure('a'));
    const auto both = cell.store(value(1));
    ASSERT_TRUE(both.has_value());
    EXPECT_EQ(*both->value, 1);
    EXPECT_EQ(*both->failure, 'a');
}

TEST(AtomicSingleReadWithFailure, TheFirstFailureIsFinalBeforeTheValueIsThere) {
    Cell cell;
    (void)cell.fail(failure('a'));
    EXPECT_FALSE(cell.fail(failure('b')).has_value());
    EXPECT_EQ(*cell.store(value(1))->failure, 'a');
}

TEST(AtomicSingleReadWithFailure, TheFirstFailureIsFinalAfterTheValueWasThere) {
    Cell cell;
    (void)cell.store(value(1));
    EXPECT_TRUE(cell.fail(failure('a')).has_value());
    EXPECT_FALSE(cell.fail(failure('b')).has_value());
    EXPECT_FALSE(cell.fail(failure('c')).has_value());
}

TEST(AtomicSingleReadWithFailure, AFailureStaysFinalWhenBothWereGiven) {
    Cell cell;
    (void)cell.fail(failure('a'));
    (void)cell.store(value(1));
    EXPECT_FALSE(cell.fail(failure('b')).has_value());
}

TEST(AtomicSingleReadWithFailure, OwnsWhatNobodyHasRead) {
    using Shared = Ref<test::PlainCancellable>;
    const Shared shared = make<test::PlainCancellable>();
    {
        detail::AtomicSingleReadWithFailure<Shared, int> cell;
        (void)cell.store(shared);
        EXPECT_EQ(shared->ownerCount(), 2U);
        (void)cell.fail(0);
        EXPECT_EQ(shared->ownerCount(), 1U);
    }
    {
        detail::AtomicSingleReadWithFailure<int, Shared> cell;
        (void)cell.fail(shared);
        EXPECT_EQ(shared->ownerCount(), 2U);
    }
    EXPECT_EQ(shared->ownerCount(), 1U);
}

TEST(AtomicSingleReadWithFailure, GivesBothToExactlyOneOfManyThreads) {
    for (int round = 0; round < 500; ++round) {
        Cell cell;
        std::atomic<int> given{0};
        test::together(3, [&](int number) {
            const auto both =
                number == 0 ? cell.store(value(7)) : cell.fail(failure(number == 1 ? 'a' : 'b'));
            if (both) {
                given += *both->value;
            }
        });
        ASSERT_EQ(given, 7);
    }
}

}  // namespace
}  // namespace vantorq
