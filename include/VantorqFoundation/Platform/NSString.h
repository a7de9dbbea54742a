#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "Export.h"
#include "FormatArgument.h"
#include "NSObject.h"

namespace vantorq {

class NSData;
class NSMutableString;

/// A run of UTF-16 units: `length` units from `location` on.
struct NSRange {
    NSUInteger location = 0;
    NSUInteger length = 0;
    friend bool operator==(const NSRange&, const NSRange&) = default;
};

enum class NSComparisonResult : NSInteger { ascending = -1, same = 0, descending = 1 };

/// Immutable text, counted in UTF-16 units, as the platform counts it.
///
/// Text in which every unit is ASCII is kept in one byte per unit, all other text in two; nobody
/// can tell but by `asciiView`. Unpaired surrogates are allowed. Text enters and leaves as UTF-8 by
/// the explicit conversions below; both are O(n), and a copy of bytes for ASCII.
///
/// A literal, `"name"_ns`, is a constant of the program: using it costs nothing at run time.
///
/// Threads: an immutable string may be used from any thread; a mutable one from one at a time.
/// Traps: an index or range outside the text, and non-ASCII text of more than 2^31 - 1 units or
/// bytes where it is converted.
class VNTQ_EXPORT NSString : public NSObject {
    VNTQ_OBJECT(NSString, NSObject)
public:
    /// The empty string.
    NSString() noexcept = default;
    // Making strings.

    /// From UTF-8; every ill-formed sequence becomes U+FFFD (one for each maximal subpart, Unicode
    /// 15.0 §3.9).
    [[nodiscard]] static Ref<NSString> string(std::string_view utf8);
    [[nodiscard]] static Ref<NSString> string(std::u16string_view units);
    /// From UTF-8; nil when it is ill-formed (RFC 3629).
    [[nodiscard]] static Ref<NSString> stringWithUTF8(std::string_view utf8);
    /// `printf` for objects: see FormatArgument.h for the conversions.
    template <class... Args>
    [[nodiscard]] static Ref<NSString> stringWithFormat(const NSString& format,
                                                        const Args&... args) {
        const std::array<FormatArgument, sizeof...(Args)> list{FormatArgument(args)...};
        return stringWithFormatArguments(format, list);
    }
    [[nodiscard]] static Ref<NSString> stringWithFormatArguments(
        const NSString& format, std::span<const FormatArgument> arguments);

    // Reading.

    [[nodiscard]] NSUInteger length() const noexcept { return length_; }
    [[nodiscard]] char16_t characterAtIndex(NSUInteger index) const {
        if (index >= length_) [[unlikely]] {
            VNTQ_TRAP("NSString: character index out of bounds");
        }
        return unit(index);
    }
    void getCharacters(std::span<char16_t> buffer, NSRange range) const;
    /// UTF-8; an unpaired surrogate becomes U+FFFD.
    [[nodiscard]] std::string utf8() const;
    /// The text itself when it is all ASCII; valid while the string lives and is not changed.
    [[nodiscard]] std::optional<std::string_view> asciiView() const noexcept {
        if (wide_) {
            return std::nullopt;
        }
        return std::string_view(static_cast<const char*>(units_), length_);
    }
    /// The text itself when it is kept in two bytes per unit, that is, when `asciiView` gives
    /// nothing.
    [[nodiscard]] std::optional<std::u16string_view> utf16View() const noexcept {
        if (!wide_) {
            return std::nullopt;
        }
        return std::u16string_view(static_cast<const char16_t*>(units_), length_);
    }
    [[nodiscard]] std::u16string utf16() const;

    // Comparing: by UTF-16 units, no locale, no normalisation.

    [[nodiscard]] bool isEqual(const NSObject* other) const override;
    [[nodiscard]] bool isEqualToString(const NSString* other) const noexcept;
    [[nodiscard]] NSUInteger hash() const override { return textHash(); }
    /// `hash`, for tables that know that they look up text: no virtual call, and computed once.
    [[nodiscard]] NSUInteger textHash() const noexcept {
        const std::uint32_t known = cachedHash_.load(std::memory_order_relaxed);
        return known != 0 ? known : computeHash();
    }
    [[nodiscard]] NSComparisonResult compare(const NSString& other) const noexcept;
    /// ASCII letters only, whatever the locale.
    [[nodiscard]] NSComparisonResult caseInsensitiveCompare(const NSString& other) const noexcept;

    // Searching. The empty text is found nowhere, begins and ends everything.

    [[nodiscard]] bool hasPrefix(const NSString& prefix) const noexcept;
    [[nodiscard]] bool hasSuffix(const NSString& suffix) const noexcept;
    [[nodiscard]] bool containsString(const NSString& text) const noexcept;
    /// The first place at or after `from`; {NSNotFound, 0} when there is none.
    [[nodiscard]] NSRange rangeOfString(const NSString& text, NSUInteger from = 0) const noexcept;

    // Deriving.

    [[nodiscard]] Ref<NSString> substringFromIndex(NSUInteger index) const;
    [[nodiscard]] Ref<NSString> substringToIndex(NSUInteger index) const;
    [[nodiscard]] Ref<NSString> substringWithRange(NSRange range) const;
    [[nodiscard]] Ref<NSString> stringByAppendingString(const NSString& text) const;
    template <class... Args>
    [[nodiscard]] Ref<NSString> stringByAppendingFormat(const NSString& format,
                                                        const Args&... args) const {
        return stringByAppendingString(*stringWithFormat(format, args...));
    }
    /// Every occurrence, from the front, without overlap.
    [[nodiscard]] Ref<NSString> stringByReplacingOccurrencesOfString(
        const NSString& target, const NSString& replacement) const;
    /// At least one piece; pieces may be empty. An empty separator gives the whole text.
    [[nodiscard]] Ref<NSArray> componentsSeparatedByString(const NSString& separator) const;
    [[nodiscard]] Ref<NSString> lowercaseString() const;
    [[nodiscard]] Ref<NSString> uppercaseString() const;
    /// Without the white space and line ends (U+0009 to U+000D, U+0020, U+0085, U+00A0) around it.
    [[nodiscard]] Ref<NSString> stringByTrimmingWhitespace() const;
    [[nodiscard]] Ref<NSData> dataUsingUTF8() const;

    // Numbers at the start of the text, after white space; 0 when there is none. Integers saturate.

    [[nodiscard]] NSInteger integerValue() const noexcept;
    [[nodiscard]] double doubleValue() const noexcept;
    /// True for a leading Y, y, T, t, or a digit 1 to 9, after a sign and zeros.
    [[nodiscard]] bool boolValue() const noexcept;

    [[nodiscard]] Ref<NSString> description() const override;
    /// The receiver itself when it is immutable.
    [[nodiscard]] id copyWithZone(void* zone) const override;
    [[nodiscard]] id mutableCopyWithZone(void* zone) const override;

    /// Frees text and object at once: the text of an immutable string stands behind it.
    static constexpr void operator delete(void* memory) noexcept {
        if (!std::is_constant_evaluated()) {
            ::operator delete(memory);
        }
    }

protected:
    // Of constants.
    constexpr NSString(const char* ascii, NSUInteger length) noexcept
        : NSObject(Immortal()), units_(ascii), length_(length), wide_(false) {}
    constexpr NSString(const char16_t* units, NSUInteger length) noexcept
        : NSObject(Immortal()), units_(units), length_(length), wide_(true) {}
    constexpr ~NSString() override {}

    [[nodiscard]] char16_t unit(NSUInteger index) const noexcept {
        return wide_ ? static_cast<const char16_t*>(units_)[index]
                     : static_cast<char16_t>(static_cast<const unsigned char*>(units_)[index]);
    }

    // Immutable text is wide only where a unit is not ASCII; mutable text is always wide.
    const void* units_ = nullptr;
    NSUInteger length_ = 0;
    mutable std::atomic<std::uint32_t> cachedHash_{0};  // 0 = not computed; never used when mutable
    bool wide_ = false;
    bool mutable_ = false;

private:
    friend class NSMutableString;

    /// An immutable string over uninitialised memory behind it, which `inlineText` is.
    static Ref<NSString> allocate(NSUInteger length, bool wide);
    [[nodiscard]] void* inlineText() noexcept { return this + 1; }
    [[nodiscard]] std::uint32_t computeHash() const noexcept;
};

/// A string that is a constant of the program, over static text.
class ConstantString final : public NSString {
public:
    template <std::size_t N>
    constexpr explicit ConstantString(const char (&ascii)[N]) noexcept : NSString(ascii, N - 1) {}
    constexpr ConstantString(const char* ascii, NSUInteger length) noexcept
        : NSString(ascii, length) {}
    constexpr ConstantString(const char16_t* units, NSUInteger length) noexcept
        : NSString(units, length) {}
    constexpr ~ConstantString() override {}
};

/// Text that can be changed in place. One thread at a time.
class VNTQ_EXPORT NSMutableString final : public NSString {
    VNTQ_OBJECT(NSMutableString, NSString)
public:
    NSMutableString() noexcept;
    explicit NSMutableString(const NSString& text);

    void appendString(const NSString& text);
    template <class... Args>
    void appendFormat(const NSString& format, const Args&... args) {
        appendString(*stringWithFormat(format, args...));
    }
    void insertString(const NSString& text, NSUInteger index);
    void deleteCharactersInRange(NSRange range);
    void replaceCharactersInRange(NSRange range, const NSString& text);
    void setString(const NSString& text);

    /// An immutable string.
    [[nodiscard]] id copyWithZone(void* zone) const override;

private:
    ~NSMutableString() override = default;
    void update() noexcept;

    std::u16string buffer_;
};

namespace detail {

/// A literal as a constant string. ASCII text stands as it is; other text is converted from UTF-8
/// by the compiler.
template <FixedString Text>
struct LiteralText {
    static constexpr bool isAscii = std::ranges::all_of(
        Text.view(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });

    static consteval std::size_t convert(char16_t* out) {
        std::size_t count = 0;
        const std::string_view text = Text.view();
        for (std::size_t i = 0; i < text.size();) {
            const auto lead = static_cast<unsigned char>(text[i]);
            const int extra = lead < 0x80 ? 0 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
            char32_t c = extra == 0 ? lead : lead & (0x3FU >> extra);
            for (int k = 1; k <= extra; ++k) {
                c = (c << 6) |
                    (static_cast<unsigned char>(text[i + static_cast<std::size_t>(k)]) & 0x3FU);
            }
            i += static_cast<std::size_t>(extra) + 1;
            if (c >= 0x10000) {
                out[count++] = static_cast<char16_t>(0xD7C0 + (c >> 10));
                out[count++] = static_cast<char16_t>(0xDC00 + (c & 0x3FF));
            } else {
                out[count++] = static_cast<char16_t>(c);
            }
        }
        return count;
    }
    struct Units {
        char16_t text[sizeof(Text.text)]{};
        std::size_t count = 0;
        consteval Units() { count = convert(text); }
    };
    static constexpr Units units{};
};

template <FixedString Text>
inline constexpr ConstantString kLiteral = [] {
    if constexpr (LiteralText<Text>::isAscii) {
        return ConstantString(Text.text, sizeof(Text.text) - 1);
    } else {
        return ConstantString(LiteralText<Text>::units.text, LiteralText<Text>::units.count);
    }
}();

}  // namespace detail

inline namespace literals {
/// A constant string. Its own handle is never the last one, so it is never destroyed.
template <FixedString Text>
constexpr NSString& operator""_ns() noexcept {
    return const_cast<ConstantString&>(detail::kLiteral<Text>);
}
}  // namespace literals

}  // namespace vantorq
