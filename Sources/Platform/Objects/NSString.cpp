#include "VantorqFoundation/Platform/NSString.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <locale.h>
#include <new>

#include <unicode/ustring.h>

#include "Sources/Platform/Objects/TextBuilder.h"
#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/Hasher.h"
#include "VantorqFoundation/Platform/NSArray.h"
#include "VantorqFoundation/Platform/NSData.h"

namespace vantorq {

namespace {

bool isAscii(std::string_view text) noexcept {
    const char* at = text.data();
    std::size_t left = text.size();
    std::uint64_t seen = 0;
    for (; left >= 8; left -= 8, at += 8) {
        std::uint64_t word;
        std::memcpy(&word, at, sizeof word);
        seen |= word;
        if ((seen & 0x8080808080808080) != 0) {
            return false;
        }
    }
    return std::all_of(at, at + left, [](char c) { return (c & 0x80) == 0; });
}

bool isAscii(std::u16string_view units) noexcept {
    return std::ranges::all_of(units, [](char16_t unit) { return unit < 0x80; });
}

/// Calls `f` with the text as it is kept: a `string_view` of ASCII, or a `u16string_view`.
template <class F>
auto withText(const NSString& text, F f) {
    if (const auto ascii = text.asciiView()) {
        return f(*ascii);
    }
    return f(*text.utf16View());
}
template <class F>
auto withTexts(const NSString& a, const NSString& b, F f) {
    return withText(
        a, [&](auto first) { return withText(b, [&](auto second) { return f(first, second); }); });
}

constexpr auto sameUnit = [](auto a, auto b) {
    return static_cast<char16_t>(a) == static_cast<char16_t>(b);
};

template <class A, class B>
bool equalTexts(A a, B b) {
    if constexpr (std::same_as<A, B>) {
        return a == b;
    } else {
        return std::ranges::equal(a, b, sameUnit);
    }
}

constexpr char16_t foldAscii(char16_t unit) {
    return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + 0x20) : unit;
}

template <class Fold>
NSComparisonResult compareTexts(const NSString& a, const NSString& b, Fold fold) {
    return withTexts(a, b, [&](auto first, auto second) {
        const std::size_t count = std::min(first.size(), second.size());
        for (std::size_t i = 0; i < count; ++i) {
            const char16_t x = fold(static_cast<char16_t>(first[i]));
            const char16_t y = fold(static_cast<char16_t>(second[i]));
            if (x != y) {
                return x < y ? NSComparisonResult::ascending : NSComparisonResult::descending;
            }
        }
        return first.size() == second.size()  ? NSComparisonResult::same
               : first.size() < second.size() ? NSComparisonResult::ascending
                                              : NSComparisonResult::descending;
    });
}

/// ICU counts in 32 bits.
std::int32_t icuCount(std::size_t count) {
    if (count > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max())) {
        VNTQ_TRAP("NSString: the text is too long to be converted");
    }
    return static_cast<std::int32_t>(count);
}

/// `convert(buffer, capacity, status)` writes units and returns how many there are; it is called
/// again when the capacity was too small.
template <class Convert>
std::optional<std::u16string> convertedUnits(std::int32_t capacity, Convert convert) {
    std::u16string units;
    UErrorCode status = U_ZERO_ERROR;
    for (int round = 0; round < 2; ++round) {
        status = U_ZERO_ERROR;
        std::int32_t needed = 0;
        units.resize_and_overwrite(
            static_cast<std::size_t>(capacity), [&](char16_t* buffer, std::size_t) {
                needed = convert(buffer, capacity, &status);
                return static_cast<std::size_t>(U_SUCCESS(status) ? needed : 0);
            });
        if (status != U_BUFFER_OVERFLOW_ERROR) {
            break;
        }
        capacity = needed;
    }
    return U_SUCCESS(status) ? std::optional(std::move(units)) : std::nullopt;
}

/// `substitute` stands for each ill-formed sequence; without one (-1), the text is refused.
std::optional<std::u16string> unitsFromUtf8(std::string_view utf8, UChar32 substitute) {
    const std::int32_t count = icuCount(utf8.size());
    return convertedUnits(count, [&](char16_t* buffer, std::int32_t capacity, UErrorCode* status) {
        std::int32_t written = 0;
        u_strFromUTF8WithSub(buffer, capacity, &written, utf8.data(), count, substitute, nullptr,
                             status);
        return written;
    });
}

constexpr bool isWhitespace(char16_t unit) {
    return (unit >= 0x09 && unit <= 0x0D) || unit == 0x20 || unit == 0x85 || unit == 0xA0;
}
constexpr bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// The ASCII characters that follow the white space in front of the text, as far as `wanted` holds.
template <class Wanted>
std::string leadingRun(const NSString& text, Wanted wanted) {
    return withText(text, [&](auto units) {
        std::string run;
        auto at = std::ranges::find_if_not(
            units, [](auto unit) { return isWhitespace(static_cast<char16_t>(unit)); });
        for (; at != units.end() && static_cast<char16_t>(*at) < 0x80 &&
               wanted(static_cast<char>(*at));
             ++at) {
            run += static_cast<char>(*at);
        }
        return run;
    });
}

/// How much of `text` is a decimal number: sign, digits, fraction, exponent.
std::size_t decimalLength(std::string_view text) {
    const auto digitsFrom = [&](std::size_t at) {
        while (at < text.size() && isDigit(text[at])) {
            ++at;
        }
        return at;
    };
    const auto signFrom = [&](std::size_t at) {
        return at < text.size() && (text[at] == '+' || text[at] == '-') ? at + 1 : at;
    };
    const std::size_t start = signFrom(0);
    std::size_t end = digitsFrom(start);
    std::size_t digits = end - start;
    if (end < text.size() && text[end] == '.') {
        const std::size_t fraction = end + 1;
        end = digitsFrom(fraction);
        digits += end - fraction;
    }
    if (digits == 0) {
        return 0;
    }
    if (end < text.size() && (text[end] == 'e' || text[end] == 'E')) {
        const std::size_t exponent = signFrom(end + 1);
        const std::size_t last = digitsFrom(exponent);
        return last > exponent ? last : end;
    }
    return end;
}

void checkRange(NSRange range, NSUInteger length) {
    if (range.location > length || range.length > length - range.location) [[unlikely]] {
        VNTQ_TRAP("NSString: range out of bounds");
    }
}

}  // namespace

// Making strings.

Ref<NSString> NSString::allocate(NSUInteger length, bool wide) {
    void* memory = ::operator new(sizeof(NSString) + (wide ? 2 * length : length));
    auto text = Ref<NSString>::adopt(::new (memory) NSString);
    text->units_ = text->inlineText();
    text->length_ = length;
    text->wide_ = wide;
    return text;
}

Ref<NSString> NSString::string(std::string_view utf8) {
    if (utf8.empty()) {
        return ""_ns;
    }
    if (!isAscii(utf8)) {
        return string(*unitsFromUtf8(utf8, 0xFFFD));
    }
    Ref<NSString> text = allocate(utf8.size(), false);
    std::memcpy(text->inlineText(), utf8.data(), utf8.size());
    return text;
}

Ref<NSString> NSString::string(std::u16string_view units) {
    if (units.empty()) {
        return ""_ns;
    }
    const bool wide = !isAscii(units);
    Ref<NSString> text = allocate(units.size(), wide);
    if (wide) {
        std::memcpy(text->inlineText(), units.data(), 2 * units.size());
    } else {
        std::ranges::transform(units, static_cast<char*>(text->inlineText()),
                               [](char16_t unit) { return static_cast<char>(unit); });
    }
    return text;
}

Ref<NSString> NSString::stringWithUTF8(std::string_view utf8) {
    if (isAscii(utf8)) {
        return string(utf8);
    }
    const auto units = unitsFromUtf8(utf8, U_SENTINEL);
    return units ? string(*units) : nullptr;
}

// Reading.

void NSString::getCharacters(std::span<char16_t> buffer, NSRange range) const {
    checkRange(range, length_);
    if (buffer.size() < range.length) {
        VNTQ_TRAP("NSString: the buffer is smaller than the range");
    }
    withText(*this, [&](auto units) {
        std::ranges::transform(units.substr(range.location, range.length), buffer.begin(),
                               [](auto unit) { return static_cast<char16_t>(unit); });
    });
}

std::string NSString::utf8() const {
    if (const auto ascii = asciiView()) {
        return std::string(*ascii);
    }
    std::string bytes;
    const std::int32_t capacity = icuCount(3 * length_);
    bytes.resize_and_overwrite(static_cast<std::size_t>(capacity), [&](char* buffer, std::size_t) {
        UErrorCode status = U_ZERO_ERROR;
        std::int32_t written = 0;
        u_strToUTF8WithSub(buffer, capacity, &written, utf16View()->data(),
                           static_cast<std::int32_t>(length_), 0xFFFD, nullptr, &status);
        return static_cast<std::size_t>(written);
    });
    return bytes;
}

std::u16string NSString::utf16() const {
    return withText(*this, [](auto units) { return std::u16string(units.begin(), units.end()); });
}

// Comparing.

bool NSString::isEqual(const NSObject* other) const {
    return this == other || isEqualToString(objectCast<NSString>(other));
}

bool NSString::isEqualToString(const NSString* other) const noexcept {
    if (other == this) {
        return true;
    }
    if (other == nullptr || length_ != other->length_) {
        return false;
    }
    if (wide_ == other->wide_) {
        return length_ == 0 || std::memcmp(units_, other->units_, length_ << wide_) == 0;
    }
    return withTexts(*this, *other, [](auto a, auto b) { return equalTexts(a, b); });
}

/// Text hashes by its bytes, and wide text that is all ASCII, as mutable text can be, by the bytes
/// that it would have as immutable text.
std::uint32_t NSString::computeHash() const noexcept {
    Hasher hasher;
    withText(*this, [&](auto units) {
        if constexpr (std::same_as<decltype(units), std::u16string_view>) {
            if (mutable_ && isAscii(units)) {
                hasher.combine(std::string(units.begin(), units.end()));
                return;
            }
        }
        hasher.combineBytes(units.data(), units.size() * sizeof units[0]);
    });
    const std::uint64_t wholeHash = hasher.finish();
    const auto folded = static_cast<std::uint32_t>(wholeHash ^ (wholeHash >> 32));
    const std::uint32_t hash = folded != 0 ? folded : 1;
    if (!mutable_) {
        cachedHash_.store(hash, std::memory_order_relaxed);
    }
    return hash;
}

NSComparisonResult NSString::compare(const NSString& other) const noexcept {
    return compareTexts(*this, other, [](char16_t unit) { return unit; });
}

NSComparisonResult NSString::caseInsensitiveCompare(const NSString& other) const noexcept {
    return compareTexts(*this, other, foldAscii);
}

// Searching.

bool NSString::hasPrefix(const NSString& prefix) const noexcept {
    return prefix.length_ <= length_ && withTexts(*this, prefix, [](auto text, auto start) {
               return equalTexts(text.substr(0, start.size()), start);
           });
}

bool NSString::hasSuffix(const NSString& suffix) const noexcept {
    return suffix.length_ <= length_ && withTexts(*this, suffix, [](auto text, auto end) {
               return equalTexts(text.substr(text.size() - end.size()), end);
           });
}

bool NSString::containsString(const NSString& text) const noexcept {
    return rangeOfString(text).location != NSNotFound;
}

NSRange NSString::rangeOfString(const NSString& text, NSUInteger from) const noexcept {
    checkRange({from, 0}, length_);
    if (text.length_ == 0) {
        return {NSNotFound, 0};
    }
    return withTexts(*this, text, [&](auto whole, auto wanted) -> NSRange {
        std::size_t at;
        if constexpr (std::same_as<decltype(whole), decltype(wanted)>) {
            at = whole.find(wanted, from);
        } else {
            const auto rest = whole.substr(from);
            const auto found = std::ranges::search(rest, wanted, sameUnit);
            at = found.empty() ? whole.npos
                               : from + static_cast<std::size_t>(found.begin() - rest.begin());
        }
        return at != whole.npos ? NSRange{at, wanted.size()} : NSRange{NSNotFound, 0};
    });
}

// Deriving.

Ref<NSString> NSString::substringFromIndex(NSUInteger index) const {
    checkRange({index, 0}, length_);
    return substringWithRange({index, length_ - index});
}

Ref<NSString> NSString::substringToIndex(NSUInteger index) const {
    return substringWithRange({0, index});
}

Ref<NSString> NSString::substringWithRange(NSRange range) const {
    checkRange(range, length_);
    if (range.length == length_ && !mutable_) {
        return const_cast<NSString&>(*this);
    }
    return withText(*this,
                    [&](auto units) { return string(units.substr(range.location, range.length)); });
}

Ref<NSString> NSString::stringByAppendingString(const NSString& text) const {
    if (text.length_ == 0 && !mutable_) {
        return const_cast<NSString&>(*this);
    }
    const auto first = asciiView();
    const auto second = text.asciiView();
    if (first && second) {
        Ref<NSString> joined = allocate(length_ + text.length_, false);
        auto* at = static_cast<char*>(joined->inlineText());
        std::ranges::copy(*second, std::ranges::copy(*first, at).out);
        return joined;
    }
    objects::TextBuilder joined;
    joined.append(*this);
    joined.append(text);
    return joined.finish();
}

Ref<NSString> NSString::stringByReplacingOccurrencesOfString(const NSString& target,
                                                             const NSString& replacement) const {
    NSRange found = rangeOfString(target);
    if (found.location == NSNotFound) {
        return substringFromIndex(0);
    }
    objects::TextBuilder text;
    const auto appendPart = [&](NSUInteger from, NSUInteger to) {
        withText(*this, [&](auto units) {
            if constexpr (std::same_as<decltype(units), std::string_view>) {
                text.appendAscii(units.substr(from, to - from));
            } else {
                text.append(units.substr(from, to - from));
            }
        });
    };
    NSUInteger done = 0;
    for (; found.location != NSNotFound; found = rangeOfString(target, done)) {
        appendPart(done, found.location);
        text.append(replacement);
        done = found.location + found.length;
    }
    appendPart(done, length_);
    return text.finish();
}

Ref<NSArray> NSString::componentsSeparatedByString(const NSString& separator) const {
    std::vector<id> pieces;
    NSUInteger done = 0;
    NSRange found = rangeOfString(separator);
    for (; found.location != NSNotFound; found = rangeOfString(separator, done)) {
        pieces.push_back(substringWithRange({done, found.location - done}));
        done = found.location + found.length;
    }
    pieces.push_back(substringFromIndex(done));
    return NSArray::array(std::move(pieces));
}

namespace {

using CaseMapping = std::int32_t (*)(char16_t*, std::int32_t, const char16_t*, std::int32_t,
                                     const char*, UErrorCode*);

/// ASCII text by shifting the letters from `first` to `last`, other text by ICU's root locale.
Ref<NSString> mapCase(const NSString& text, char first, char last, CaseMapping mapping) {
    const auto isMapped = [&](char c) { return c >= first && c <= last; };
    if (const auto ascii = text.asciiView()) {
        if (std::ranges::none_of(*ascii, isMapped)) {
            return text.substringFromIndex(0);
        }
        std::string mapped(*ascii);
        for (char& c : mapped) {
            c = isMapped(c) ? static_cast<char>(c ^ 0x20) : c;
        }
        return NSString::string(mapped);
    }
    const std::u16string_view units = *text.utf16View();
    const std::int32_t count = icuCount(units.size());
    return NSString::string(
        *convertedUnits(count, [&](char16_t* buffer, std::int32_t capacity, UErrorCode* status) {
            return mapping(buffer, capacity, units.data(), count, "", status);
        }));
}

}  // namespace

Ref<NSString> NSString::lowercaseString() const {
    return mapCase(*this, 'A', 'Z', u_strToLower);
}

Ref<NSString> NSString::uppercaseString() const {
    return mapCase(*this, 'a', 'z', u_strToUpper);
}

Ref<NSString> NSString::stringByTrimmingWhitespace() const {
    NSUInteger start = 0;
    NSUInteger end = length_;
    while (start < end && isWhitespace(unit(start))) {
        ++start;
    }
    while (end > start && isWhitespace(unit(end - 1))) {
        --end;
    }
    return substringWithRange({start, end - start});
}

Ref<NSData> NSString::dataUsingUTF8() const {
    return NSData::dataWithBytes(utf8());
}

// Numbers.

NSInteger NSString::integerValue() const noexcept {
    const std::string run =
        leadingRun(*this, [](char c) { return isDigit(c) || c == '+' || c == '-'; });
    const bool negative = run.starts_with('-');
    NSInteger value = 0;
    for (std::size_t at = negative || run.starts_with('+') ? 1 : 0;
         at < run.size() && isDigit(run[at]); ++at) {
        const NSInteger digit = negative ? '0' - run[at] : run[at] - '0';
        if (__builtin_mul_overflow(value, 10, &value) ||
            __builtin_add_overflow(value, digit, &value)) {
            return negative ? std::numeric_limits<NSInteger>::min()
                            : std::numeric_limits<NSInteger>::max();
        }
    }
    return value;
}

double NSString::doubleValue() const noexcept {
    static const locale_t plain = newlocale(LC_ALL_MASK, "C", nullptr);
    std::string run = leadingRun(*this, [](char c) {
        return isDigit(c) || c == '+' || c == '-' || c == '.' || c == 'e' || c == 'E';
    });
    run.resize(decimalLength(run));
    return run.empty() ? 0 : strtod_l(run.c_str(), nullptr, plain);
}

bool NSString::boolValue() const noexcept {
    const std::string run = leadingRun(*this, [](char) { return true; });
    std::size_t at = run.starts_with('+') || run.starts_with('-') ? 1 : 0;
    while (at < run.size() && run[at] == '0') {
        ++at;
    }
    return at < run.size() && std::string_view("YyTt123456789").find(run[at]) != std::string::npos;
}

Ref<NSString> NSString::description() const {
    return substringFromIndex(0);
}

id NSString::copyWithZone(void*) const {
    return substringFromIndex(0);
}

id NSString::mutableCopyWithZone(void*) const {
    return make<NSMutableString>(*this);
}

// Text that changes.

NSMutableString::NSMutableString() noexcept {
    mutable_ = true;
    wide_ = true;
    update();
}

NSMutableString::NSMutableString(const NSString& text) : buffer_(text.utf16()) {
    mutable_ = true;
    wide_ = true;
    update();
}

void NSMutableString::update() noexcept {
    units_ = buffer_.data();
    length_ = buffer_.size();
}

void NSMutableString::appendString(const NSString& text) {
    if (const auto ascii = text.asciiView()) {
        buffer_.append(ascii->begin(), ascii->end());
    } else {
        buffer_.append(*text.utf16View());
    }
    update();
}

void NSMutableString::insertString(const NSString& text, NSUInteger index) {
    replaceCharactersInRange({index, 0}, text);
}

void NSMutableString::deleteCharactersInRange(NSRange range) {
    checkRange(range, length_);
    buffer_.erase(range.location, range.length);
    update();
}

void NSMutableString::replaceCharactersInRange(NSRange range, const NSString& text) {
    checkRange(range, length_);
    buffer_.replace(range.location, range.length, text.utf16());
    update();
}

void NSMutableString::setString(const NSString& text) {
    buffer_ = text.utf16();
    update();
}

id NSMutableString::copyWithZone(void*) const {
    return NSString::string(buffer_);
}

namespace {

constexpr const Protocol* kProtocols[] = {&NSCopying, &NSMutableCopying};

constexpr PropertyInfo kProperties[] = {
    property<&NSString::length>("length"),
    property<&NSString::integerValue>("integerValue"),
    property<&NSString::doubleValue>("doubleValue"),
    property<&NSString::boolValue>("boolValue"),
    property<&NSString::lowercaseString>("lowercaseString"),
    property<&NSString::uppercaseString>("uppercaseString"),
};

constexpr MethodInfo kMethods[] = {
    classMethod<+[] { return Ref<NSString>(""_ns); }>("string"),
    classMethod<+[](const NSString& text) { return objectCast<NSString>(text.copy()); }>(
        "stringWithString:"),
    formatClassMethod<&NSString::stringWithFormatArguments>("stringWithFormat:"),
    method<&NSString::characterAtIndex>("characterAtIndex:"),
    method<&NSString::isEqualToString>("isEqualToString:"),
    method<&NSString::compare>("compare:"),
    method<&NSString::caseInsensitiveCompare>("caseInsensitiveCompare:"),
    method<&NSString::hasPrefix>("hasPrefix:"),
    method<&NSString::hasSuffix>("hasSuffix:"),
    method<&NSString::containsString>("containsString:"),
    method<+[](const NSString& self, const NSString& text) { return self.rangeOfString(text); }>(
        "rangeOfString:"),
    method<&NSString::substringFromIndex>("substringFromIndex:"),
    method<&NSString::substringToIndex>("substringToIndex:"),
    method<&NSString::substringWithRange>("substringWithRange:"),
    method<&NSString::stringByAppendingString>("stringByAppendingString:"),
    method<&NSString::stringByReplacingOccurrencesOfString>(
        "stringByReplacingOccurrencesOfString:withString:"),
    method<&NSString::componentsSeparatedByString>("componentsSeparatedByString:"),
};

constexpr MethodInfo kMutableMethods[] = {
    classMethod<+[] { return make<NSMutableString>(); }>("string"),
    classMethod<+[](const NSString& text) { return make<NSMutableString>(text); }>(
        "stringWithString:"),
    formatClassMethod<+[](const NSString& format, std::span<const FormatArgument> arguments) {
        return make<NSMutableString>(*NSString::stringWithFormatArguments(format, arguments));
    }>("stringWithFormat:"),
    method<&NSMutableString::appendString>("appendString:"),
    method<&NSMutableString::insertString>("insertString:atIndex:"),
    method<&NSMutableString::deleteCharactersInRange>("deleteCharactersInRange:"),
    method<&NSMutableString::replaceCharactersInRange>("replaceCharactersInRange:withString:"),
    method<&NSMutableString::setString>("setString:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSString,
                  {.protocols = kProtocols, .properties = kProperties, .methods = kMethods})
VNTQ_DEFINE_CLASS(NSMutableString, {.methods = kMutableMethods})

}  // namespace vantorq
