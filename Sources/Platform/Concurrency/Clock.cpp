#include "VantorqFoundation/Platform/Clock.h"

#include <algorithm>

#include "Sources/Platform/Dispatch/MonotonicTime.h"

namespace vantorq {

namespace {

class ContinuousClockObject final : public Clock {
public:
    [[nodiscard]] Instant now() const noexcept override { return ContinuousClock::now(); }
    Async<> sleep(Instant deadline) override { return ContinuousClock::sleep(deadline); }

private:
    ~ContinuousClockObject() override = default;
};

}  // namespace

Clock::~Clock() = default;

Clock& Clock::continuous() {
    static Clock& clock = immortal(make<ContinuousClockObject>());
    return clock;
}

Async<> Clock::sleepFor(Duration length) {
    auto sleeping = sleep(after(length));
    co_await std::move(sleeping);
}

Clock::Instant Clock::after(Duration length) const noexcept {
    const std::int64_t instant = now().time_since_epoch().count();
    return Instant(Duration(instantAfter(instant, std::max<Duration::rep>(length.count(), 0))));
}

}  // namespace vantorq
