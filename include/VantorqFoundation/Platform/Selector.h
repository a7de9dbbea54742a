#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <functional>
#include <string_view>

#include "Export.h"

namespace vantorq {

/// A string literal as a template argument.
template <std::size_t N>
struct FixedString {
    char text[N]{};
    consteval FixedString(const char (&literal)[N]) { std::copy_n(literal, N, text); }
    [[nodiscard]] constexpr std::string_view view() const { return {text, N - 1}; }
};

/// The name of a message, interned: two selectors of one name are one pointer, so comparing and
/// hashing them costs what it costs for a pointer.
///
/// A selector counts its arguments by its colons: "count" takes none, "setValue:forKey:" two.
/// Threads: any.
class Selector {
public:
    constexpr Selector() noexcept = default;
    /// Interns `name`. Takes a lock; keep the selector, or write `"name:"_sel`.
    VNTQ_EXPORT explicit Selector(std::string_view name);

    /// NUL-terminated; lives as long as the process. Empty for a default-made selector.
    [[nodiscard]] std::string_view name() const noexcept {
        return name_ != nullptr ? *name_ : std::string_view();
    }
    explicit operator bool() const noexcept { return name_ != nullptr; }
    friend bool operator==(Selector, Selector) noexcept = default;

private:
    template <FixedString>
    friend struct SelectorLiteral;
    friend struct std::hash<Selector>;
    constexpr explicit Selector(const std::string_view* name) noexcept : name_(name) {}

    const std::string_view* name_ = nullptr;
};

/// What `"name:"_sel` is: a selector that carries its name in its type, so that the interned
/// pointer and the method that it found last are remembered with the code that sends it.
template <FixedString Name>
struct SelectorLiteral {
    operator Selector() const {
        const std::string_view* name = cached.load(std::memory_order_acquire);
        if (name == nullptr) {
            name = Selector(Name.view()).name_;
            cached.store(name, std::memory_order_release);
        }
        return Selector(name);
    }

private:
    static inline constinit std::atomic<const std::string_view*> cached{nullptr};
};

inline namespace literals {
template <FixedString Name>
consteval SelectorLiteral<Name> operator""_sel() {
    return {};
}
}  // namespace literals

}  // namespace vantorq

template <>
struct std::hash<vantorq::Selector> {
    std::size_t operator()(vantorq::Selector selector) const noexcept {
        return std::hash<const void*>()(selector.name_);
    }
};
