#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include "Support/AsyncSources.h"
#include "VantorqFoundation/AsyncBroadcast.h"
#include "VantorqFoundation/Platform/Task.h"
#include "VantorqFoundation/testing/ManualExecutor.h"

// Random consumers of one broadcast, scheduled at random, against what a buffer of the policy's
// kind holds after so many elements. All is drawn from numbers, so that a failing run, whose
// message states them, can be repeated and shrinks to a short one.

namespace vantorq {
namespace {

using test::Manner;
using test::Source;
using Shared = AsyncBroadcast<Source>;

/// A scenario: the source, the policy, and what is done while the jobs run.
struct Scenario {
    enum Policy { unbounded, oldest, newest };

    int count;
    bool fails;
    int manner;
    int policy;
    std::int64_t limit;
    std::vector<int> actions;
    std::uint64_t seed;
};

std::ostream& operator<<(std::ostream& out, const Scenario& scenario) {
    out << "{count " << scenario.count << ", fails " << scenario.fails << ", manner "
        << scenario.manner << ", policy " << scenario.policy << ", limit " << scenario.limit
        << ", seed " << scenario.seed << ", actions";
    for (const int action : scenario.actions) {
        out << " " << action;
    }
    return out << "}";
}

BufferingPolicy policyOf(const Scenario& scenario) {
    switch (scenario.policy) {
        case Scenario::oldest:
            return BufferingPolicy::bufferingOldest(scenario.limit);
        case Scenario::newest:
            return BufferingPolicy::bufferingNewest(scenario.limit);
        default:
            return BufferingPolicy::unbounded();
    }
}

/// What is held after `appended` elements, of which each is its own number: the indices from
/// `start` up to `end`, under each of which its own number stands.
struct Held {
    std::int64_t start;
    std::int64_t end;

    Held(const Scenario& scenario, std::int64_t appended) : start(0), end(appended) {
        if (scenario.policy == Scenario::oldest ||
            (scenario.policy == Scenario::newest && scenario.limit == 0)) {
            end = std::min(appended, scenario.limit);
        } else if (scenario.policy == Scenario::newest) {
            start = std::max<std::int64_t>(0, appended - scenario.limit);
        }
    }
    /// The index at which a consumer reads on who has read up to `current`.
    [[nodiscard]] std::int64_t indexAfter(std::optional<std::int64_t> current) const {
        if (!current.has_value()) {
            return start;
        }
        return *current == end ? end : std::max(start, *current + 1);
    }
};

/// What a call has come to.
struct Received {
    std::optional<int> value;
    bool isError;

    friend bool operator==(const Received&, const Received&) = default;
    friend std::ostream& operator<<(std::ostream& out, const Received& received) {
        return received.value.has_value() ? out << *received.value
                                          : out << (received.isError ? "the error" : "the end");
    }
};

class Run {
public:
    explicit Run(const Scenario& scenario)
        : scenario_(scenario),
          source_({scenario.count, scenario.fails, static_cast<Manner>(scenario.manner)}, census_),
          executor_(make<testing::ManualExecutor>(scenario.seed)),
          shared_(broadcast(source_, policyOf(scenario))) {
        for (const int action : scenario.actions) {
            act(action % 4, action / 4);
        }
        while (executor_->runAll() > 0 || account().gate.isWaitedAt()) {
            if (account().gate.isWaitedAt()) {
                account().gate.open();
            }
        }
        checkEnd();
    }

    /// What was wrong first; empty when nothing was.
    [[nodiscard]] const std::string& complaint() const noexcept { return complaint_; }

private:
    [[nodiscard]] Source::Account& account() const noexcept { return source_.account(); }

    void act(int kind, int which) {
        if (kind == 0) {
            const int pause = which % 3;
            consumers_.push_back(
                Task<>::start([this, pause] { return consume(pause); }, {.executor = executor_}));
        } else if (kind == 1) {
            for (int i = 0; i < which && executor_->runOne(); ++i) {
            }
        } else if (kind == 2 && account().gate.isWaitedAt()) {
            account().gate.open();
        } else if (kind == 3 && !consumers_.empty() && which % 4 == 0) {
            consumers_[static_cast<std::size_t>(which) % consumers_.size()].cancel();
        }
    }

    /// Reads until the end, or the error for the third time, and pauses after each element.
    Async<> consume(int pause) {
        const test::CensusMember alive(census_.consumers);
        auto iterator = shared_->makeAsyncIterator();
        std::optional<std::int64_t> current;
        for (int errors = 0; errors < 3;) {
            const std::int64_t appendedBefore = surelyAppended();
            Received received{std::nullopt, false};
            try {
                auto pending = iterator.next();
                const auto item = co_await std::move(pending);
                if (item.has_value()) {
                    received.value = item->value;
                }
            } catch (const test::SourceError&) {
                received.isError = true;
                ++errors;
            }
            if (thisTask::isCancelled()) {
                expect(received == Received{std::nullopt, false}, "cancelled, but received ",
                       received);
                break;
            }
            check(current, appendedBefore, received);
            if (!received.value.has_value() && !received.isError) {
                break;
            }
            for (int i = 0; i < pause; ++i) {
                co_await thisTask::yield();
            }
        }
    }

    /// How many elements have been received by the broadcast at least: a reading begins when all
    /// before it have been.
    [[nodiscard]] std::int64_t surelyAppended() const {
        return std::clamp<std::int64_t>(account().calls - 1, 0, scenario_.count);
    }

    /// Whether there was a time during the call at which it had to come to this.
    void check(std::optional<std::int64_t>& current, std::int64_t appendedBefore,
               const Received& received) {
        for (std::int64_t appended = appendedBefore; appended <= account().returned; ++appended) {
            const Held held(scenario_, appended);
            const std::int64_t index = held.indexAfter(current);
            if (received == expectedAt(index, held, appended)) {
                current = index;
                return;
            }
        }
        expect(false, "after index ", current.value_or(-1), ", with ", appendedBefore, " to ",
               account().returned, " elements read, received ", received);
    }
    [[nodiscard]] Received expectedAt(std::int64_t index, const Held& held,
                                      std::int64_t appended) const {
        if (index != held.end) {
            return {static_cast<int>(index), false};
        }
        if (appended < scenario_.count) {
            return {static_cast<int>(appended), false};  // straight from the reading
        }
        return {std::nullopt, scenario_.fails};
    }

    void checkEnd() {
        for (const auto& task : consumers_) {
            expect(task.isDone(), "a consumer waits for ever");
        }
        expect(account().calls <= scenario_.count + 1, "read ", account().calls, " times");
        expect(account().mostUnderWay <= 1, "two readings at a time");
        expect(!account().wasCancelled, "a reading was cancelled");
        expect(shared_->ownerCount() == 1, "a consumer still owns the broadcast");
        expect(census_.consumers == 0, "a consumer is left");
        shared_.reset();
        consumers_.clear();
        expect(census_.isEmpty(), "something is left");
        expect(executor_->ownerCount() == 1, "a task is left");
    }

    template <class... Words>
    void expect(bool isTrue, const Words&... words) {
        if (!isTrue && complaint_.empty()) {
            std::ostringstream text;
            (text << ... << words);
            complaint_ = text.str();
        }
    }

    Scenario scenario_;
    test::Census census_;
    Source source_;
    Ref<testing::ManualExecutor> executor_;
    Ref<Shared> shared_;
    std::vector<Task<>> consumers_;
    std::string complaint_;
};

rc::Gen<Scenario> scenarios() {
    return rc::gen::build<Scenario>(
        rc::gen::set(&Scenario::count, rc::gen::inRange(0, 10)), rc::gen::set(&Scenario::fails),
        rc::gen::set(&Scenario::manner, rc::gen::inRange(0, 3)),
        rc::gen::set(&Scenario::policy, rc::gen::inRange(0, 3)),
        rc::gen::set(&Scenario::limit, rc::gen::inRange<std::int64_t>(0, 5)),
        rc::gen::set(&Scenario::actions,
                     rc::gen::container<std::vector<int>>(rc::gen::inRange(0, 48))),
        rc::gen::set(&Scenario::seed));
}

RC_GTEST_PROP(AsyncBroadcastModel, EveryConsumerReceivesWhatThePolicyKeepsForIt, ()) {
    Scenario scenario = *scenarios();
    for (int round = 0; round < 20; ++round) {
        const Run run(scenario);
        if (!run.complaint().empty()) {
            RC_LOG() << scenario;
            RC_FAIL(run.complaint());
        }
        ++scenario.seed;
    }
}

}  // namespace
}  // namespace vantorq
