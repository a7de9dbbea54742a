#pragma once

#include <array>
#include <charconv>
#include <cmath>
#include <concepts>
#include <string>

namespace vantorq::objects {

/// The fewest digits that read back as the same number of type `T`: without an exponent from 0.0001
/// up to, but without, 10^16. "inf", "-inf" or "nan" for what is no number. No locale.
template <std::floating_point T>
std::string numberText(T value) {
    if (std::isnan(value)) {
        return "nan";
    }
    const T size = std::abs(value);
    const bool plain = size == 0 || (size >= T(1e-4) && size < T(1e16)) || std::isinf(size);
    std::array<char, 64> text;
    const auto end =
        std::to_chars(text.data(), text.data() + text.size(), value,
                      plain ? std::chars_format::fixed : std::chars_format::scientific);
    return {text.data(), end.ptr};
}

}  // namespace vantorq::objects
