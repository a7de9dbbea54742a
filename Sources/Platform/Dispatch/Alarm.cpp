#include "Alarm.h"

#include <cerrno>
#include <ctime>
#include <sys/timerfd.h>
#include <system_error>
#include <unistd.h>

#include "MonotonicTime.h"
#include "Sources/Platform/Concurrency/Futex.h"

namespace vantorq {

std::int64_t MonotonicAlarm::now() const noexcept {
    return monotonicNow();
}

void MonotonicAlarm::sleepUntil(std::int64_t instant, std::uint32_t seen) noexcept {
    futexWait(wakeUps_, seen, instant);
}

void MonotonicAlarm::wake() noexcept {
    wakeUps_.fetch_add(1, std::memory_order_release);
    futexWakeOne(wakeUps_);
}

ContinuousAlarm::ContinuousAlarm() : timer_(::timerfd_create(CLOCK_BOOTTIME, TFD_CLOEXEC)) {
    if (timer_ < 0) {
        throw std::system_error(errno, std::generic_category(), "timerfd_create");
    }
}

ContinuousAlarm::~ContinuousAlarm() {
    ::close(timer_);
}

std::int64_t ContinuousAlarm::now() const noexcept {
    return continuousNow();
}

void ContinuousAlarm::sleepUntil(std::int64_t instant, std::uint32_t seen) noexcept {
    setTime(instant);
    // Whoever wakes counts first and sets the time then: a wake-up whose time was overwritten just
    // now has counted, and any later one ends the read.
    if (wakeUps() == seen) {
        std::uint64_t expirations;
        [[maybe_unused]] const auto size = ::read(timer_, &expirations, sizeof expirations);
    }
}

void ContinuousAlarm::wake() noexcept {
    wakeUps_.fetch_add(1);
    setTime(1);  // long past
}

void ContinuousAlarm::setTime(std::int64_t instant) const noexcept {
    itimerspec time{};
    time.it_value.tv_sec = instant / kNanosecondsPerSecond;
    time.it_value.tv_nsec = instant % kNanosecondsPerSecond;
    ::timerfd_settime(timer_, TFD_TIMER_ABSTIME, &time, nullptr);
}

}  // namespace vantorq
