#pragma once

#include <atomic>
#include <cstdint>

namespace vantorq {

/// What a timer thread sleeps with: a clock, in nanoseconds, and a way to be woken.
class Alarm {
public:
    virtual ~Alarm() = default;

    [[nodiscard]] virtual std::int64_t now() const noexcept = 0;

    /// How often it was woken. For the sleeper, before it looks at what there is to do.
    [[nodiscard]] std::uint32_t wakeUps() const noexcept {
        return wakeUps_.load(std::memory_order_acquire);
    }
    /// Sleeps until `instant`, unless it is woken, or was woken since `wakeUps()` was `seen`. May
    /// also return for no reason.
    virtual void sleepUntil(std::int64_t instant, std::uint32_t seen) noexcept = 0;
    virtual void wake() noexcept = 0;

protected:
    std::atomic<std::uint32_t> wakeUps_{0};
};

/// Stands still while the machine sleeps.
class MonotonicAlarm final : public Alarm {
public:
    [[nodiscard]] std::int64_t now() const noexcept override;
    void sleepUntil(std::int64_t instant, std::uint32_t seen) noexcept override;
    void wake() noexcept override;
};

/// Counts on while the machine sleeps: what has come to its time meanwhile is due as soon as the
/// machine is awake. A futex cannot wait for this clock, a timerfd(2) can.
class ContinuousAlarm final : public Alarm {
public:
    /// Throws `std::system_error` when the process has no file descriptor left.
    ContinuousAlarm();
    ~ContinuousAlarm() override;

    [[nodiscard]] std::int64_t now() const noexcept override;
    void sleepUntil(std::int64_t instant, std::uint32_t seen) noexcept override;
    void wake() noexcept override;

private:
    void setTime(std::int64_t instant) const noexcept;

    const int timer_;
};

}  // namespace vantorq
