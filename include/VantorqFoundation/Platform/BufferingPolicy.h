#pragma once

#include <cstdint>

namespace vantorq {

/// What a buffer keeps: a stream's of the elements that nobody has taken yet, a broadcast's of all
/// that its source has given.
///
///     AsyncStream<Reading>::makeStream(BufferingPolicy::bufferingNewest(1))
///
/// Threads: any. A value.
class BufferingPolicy {
public:
    enum class Kind : std::uint8_t {
        unbounded,  ///< every element
        oldest,     ///< the first ones; those that come when the buffer is full are dropped
        newest,     ///< the last ones; those that have waited longest make room
    };

    [[nodiscard]] static constexpr BufferingPolicy unbounded() noexcept {
        return {Kind::unbounded, 0};
    }
    /// Up to `limit` elements; none when that is not above zero.
    [[nodiscard]] static constexpr BufferingPolicy bufferingOldest(std::int64_t limit) noexcept {
        return {Kind::oldest, limit};
    }
    /// Up to `limit` elements; none when that is not above zero.
    [[nodiscard]] static constexpr BufferingPolicy bufferingNewest(std::int64_t limit) noexcept {
        return {Kind::newest, limit};
    }

    [[nodiscard]] constexpr Kind kind() const noexcept { return kind_; }
    /// How many elements, as given; 0 of the unbounded policy.
    [[nodiscard]] constexpr std::int64_t limit() const noexcept { return limit_; }

    friend constexpr bool operator==(BufferingPolicy, BufferingPolicy) noexcept = default;

private:
    constexpr BufferingPolicy(Kind kind, std::int64_t limit) noexcept
        : limit_(limit), kind_(kind) {}

    std::int64_t limit_;
    Kind kind_;
};

}  // namespace vantorq
