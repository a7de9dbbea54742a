#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "Export.h"

/// One hash function for the whole library.
///
/// A value feeds its fields, in the order of their declaration, into one `Hasher`. The seed is
/// drawn once per process, so hashes must not be stored or sent; equal values hash alike within a
/// process. Positive and negative zero hash alike. Values of this type belong to one thread.
namespace vantorq {

class Hasher {
public:
    Hasher() noexcept : state_(seed()) {}

    void combine(std::uint64_t word) noexcept { state_ = fold(state_ ^ word, kMultiplier); }
    template <class T>
        requires std::integral<T> || std::is_enum_v<T>
    void combine(T value) noexcept {
        combine(static_cast<std::uint64_t>(value));
    }
    void combine(double value) noexcept {
        combine(value == 0.0 ? 0 : std::bit_cast<std::uint64_t>(value));
    }
    void combine(float value) noexcept { combine(static_cast<double>(value)); }
    void combine(const void* pointer) noexcept {
        combine(reinterpret_cast<std::uintptr_t>(pointer));
    }
    void combine(std::string_view text) noexcept { combineBytes(text.data(), text.size()); }

    /// Feeds the length too, so that neighbouring byte strings do not run into one another.
    void combineBytes(const void* bytes, std::size_t count) noexcept {
        const auto* at = static_cast<const unsigned char*>(bytes);
        std::size_t left = count;
        for (; left > 16; left -= 16, at += 16) {
            state_ = fold(word(at) ^ kMultiplier, word(at + 8) ^ state_);
        }
        std::uint64_t low = 0;
        std::uint64_t high = 0;
        if (left >= 8) {
            low = word(at);
            high = word(at + left - 8);
        } else if (left >= 4) {
            low = half(at);
            high = half(at + left - 4);
        } else if (left > 0) {
            low = (std::uint64_t{at[0]} << 16) | (std::uint64_t{at[left / 2]} << 8) | at[left - 1];
        }
        state_ = fold(low ^ kMultiplier, high ^ state_);
        combine(std::uint64_t{count});
    }

    [[nodiscard]] std::uint64_t finish() const noexcept { return fold(state_, kFinisher); }

    /// Spreads one word over all bits, for tables whose hash function may leave it as it is. Not
    /// seeded.
    [[nodiscard]] static std::uint64_t mix(std::uint64_t word) noexcept {
        return fold(word ^ kFinisher, kMultiplier);
    }

    /// The process's seed.
    VNTQ_EXPORT static std::uint64_t seed() noexcept;

private:
    static constexpr std::uint64_t kMultiplier = 0x9E3779B97F4A7C15;
    static constexpr std::uint64_t kFinisher = 0xD6E8FEB86659FD93;

    /// Both halves of the full product: every bit of either factor reaches every bit of the result.
    static std::uint64_t fold(std::uint64_t a, std::uint64_t b) noexcept {
        __extension__ using Wide = unsigned __int128;
        const Wide product = static_cast<Wide>(a) * b;
        return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
    }
    static std::uint64_t word(const unsigned char* at) noexcept {
        std::uint64_t value;
        std::memcpy(&value, at, sizeof value);
        return value;
    }
    static std::uint64_t half(const unsigned char* at) noexcept {
        std::uint32_t value;
        std::memcpy(&value, at, sizeof value);
        return value;
    }

    std::uint64_t state_;
};

}  // namespace vantorq
