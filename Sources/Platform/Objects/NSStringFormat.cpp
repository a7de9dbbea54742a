#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <string>

#include "Sources/Platform/Objects/NumberText.h"
#include "Sources/Platform/Objects/TextBuilder.h"
#include "VantorqFoundation/Platform/FormatArgument.h"
#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/NSString.h"

namespace vantorq {

namespace {

/// Widths and precisions are cut to this.
constexpr std::size_t kGreatestSize = 4096;
/// The digits of the greatest number in fixed notation, beside its fraction.
constexpr std::size_t kGreatestNumberLength = 320;

/// One conversion of a format: `%[n$][flags][width][.precision][length]type`.
struct Conversion {
    bool minus = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    std::size_t width = 0;
    std::optional<std::size_t> precision;
    int bits = 32;  // of an integer
    char16_t type = 0;
    const FormatArgument* argument = nullptr;  // null: missing
};

constexpr bool isOneOf(char16_t unit, std::string_view set) {
    return unit < 0x80 && set.find(static_cast<char>(unit)) != std::string_view::npos;
}
constexpr bool isUpper(char16_t type) {
    return type >= u'A' && type <= u'Z';
}

std::string uppercase(std::string text) {
    for (char& c : text) {
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 0x20) : c;
    }
    return text;
}

/// Reads the conversions of a format in turn, and hands out their arguments.
template <class Text>
class ConversionReader {
public:
    ConversionReader(Text format, std::span<const FormatArgument> arguments)
        : format_(format), arguments_(arguments) {}

    /// The conversion whose '%' stands at `start`, and where it ends; nothing if it is none.
    std::optional<std::pair<Conversion, std::size_t>> read(std::size_t start) {
        at_ = start + 1;
        Conversion conversion;
        const std::optional<std::size_t> position = readPosition();
        readFlags(conversion);
        readWidth(conversion);
        readPrecision(conversion);
        readLength(conversion);
        conversion.type = peek();
        if (!isOneOf(conversion.type, "@diuxXocCsfFeEgGp%")) {
            return std::nullopt;
        }
        if (conversion.type != u'%') {
            conversion.argument = position ? argument(*position) : nextArgument();
        }
        return std::pair(conversion, at_ + 1);
    }

private:
    [[nodiscard]] char16_t peek() const {
        return at_ < format_.size() ? static_cast<char16_t>(format_[at_]) : u'\0';
    }
    bool skip(char16_t unit) {
        const bool found = peek() == unit && at_ < format_.size();
        at_ += found ? 1 : 0;
        return found;
    }
    [[nodiscard]] const FormatArgument* argument(std::size_t position) const {
        return position >= 1 && position <= arguments_.size() ? &arguments_[position - 1] : nullptr;
    }
    const FormatArgument* nextArgument() { return argument(++used_); }

    /// Saturates, far above every limit.
    std::optional<std::size_t> readNumber() {
        std::optional<std::size_t> number;
        for (; isOneOf(peek(), "0123456789"); ++at_) {
            const std::size_t digit = static_cast<std::size_t>(peek() - u'0');
            number = std::min<std::size_t>(number.value_or(0) * 10 + digit, 1'000'000'000);
        }
        return number;
    }
    std::optional<std::size_t> readPosition() {
        const std::size_t start = at_;
        const auto number = readNumber();
        if (number && skip(u'$')) {
            return number;
        }
        at_ = start;
        return std::nullopt;
    }
    void readFlags(Conversion& conversion) {
        for (;; ++at_) {
            switch (peek()) {
                case u'-':
                    conversion.minus = true;
                    break;
                case u'+':
                    conversion.plus = true;
                    break;
                case u' ':
                    conversion.space = true;
                    break;
                case u'#':
                    conversion.alternate = true;
                    break;
                case u'0':
                    conversion.zero = true;
                    break;
                default:
                    return;
            }
        }
    }
    /// The integer that stands for a `*`; 0 when the argument is none.
    std::int64_t readStar() {
        const auto position = readPosition();
        const FormatArgument* star = position ? argument(*position) : nextArgument();
        if (star == nullptr) {
            return 0;
        }
        if (const auto* integer = std::get_if<std::int64_t>(&star->value())) {
            return *integer;
        }
        const auto* natural = std::get_if<std::uint64_t>(&star->value());
        return natural != nullptr
                   ? static_cast<std::int64_t>(std::min<std::uint64_t>(*natural, kGreatestSize))
                   : 0;
    }
    void readWidth(Conversion& conversion) {
        if (skip(u'*')) {
            const std::int64_t width = readStar();
            conversion.minus = conversion.minus || width < 0;
            const auto size = width < 0 ? 0 - static_cast<std::uint64_t>(width)
                                        : static_cast<std::uint64_t>(width);
            conversion.width = std::min<std::size_t>(size, kGreatestSize);
        } else {
            conversion.width = std::min(readNumber().value_or(0), kGreatestSize);
        }
    }
    void readPrecision(Conversion& conversion) {
        if (!skip(u'.')) {
            return;
        }
        if (skip(u'*')) {
            const std::int64_t precision = readStar();
            if (precision >= 0) {  // a negative one counts as left out
                conversion.precision =
                    std::min<std::size_t>(static_cast<std::uint64_t>(precision), kGreatestSize);
            }
        } else {
            conversion.precision = std::min(readNumber().value_or(0), kGreatestSize);
        }
    }
    void readLength(Conversion& conversion) {
        if (skip(u'h')) {
            conversion.bits = skip(u'h') ? 8 : 16;
        } else if (skip(u'l')) {
            skip(u'l');
            conversion.bits = 64;
        } else if (isOneOf(peek(), "qjzt")) {
            ++at_;
            conversion.bits = 64;
        }
    }

    Text format_;
    std::span<const FormatArgument> arguments_;
    std::size_t at_ = 0;
    std::size_t used_ = 0;
};

/// Writes one conversion after the other.
class ConversionWriter {
public:
    explicit ConversionWriter(objects::TextBuilder& out) : out_(out) {}

    void write(const Conversion& conversion) {
        if (conversion.type == u'%') {
            out_.appendAscii("%");
        } else if (conversion.argument == nullptr) {
            writeText(conversion, "(null)"_ns);
        } else if (!writeAsNumber(conversion)) {
            writeText(conversion, *plainText(conversion.argument->value()));
        }
    }

private:
    using Value = FormatArgument::Value;

    /// Writes the conversions of numbers; false where the argument does not fit the conversion.
    bool writeAsNumber(const Conversion& conversion) {
        const Value& value = conversion.argument->value();
        if (isOneOf(conversion.type, "fFeEgG")) {
            const auto number = floatingOf(value);
            return number && (writeFloating(conversion, *number), true);
        }
        if (conversion.type == u'p') {
            const auto address = addressOf(value);
            return address && (writeAddress(conversion, *address), true);
        }
        const auto integer = integerOf(value);
        if (!integer || conversion.type == u'@' || conversion.type == u's') {
            return false;
        }
        if (conversion.type == u'c' || conversion.type == u'C') {
            writeUnit(conversion, conversion.type == u'C' ? static_cast<char16_t>(*integer)
                                                          : static_cast<char16_t>(*integer & 0xFF));
        } else if (conversion.type == u'd' || conversion.type == u'i') {
            writeSigned(conversion, *integer);
        } else {
            writeUnsigned(conversion, *integer);
        }
        return true;
    }

    static std::optional<double> floatingOf(const Value& value) {
        if (const auto* floating = std::get_if<double>(&value)) {
            return *floating;
        }
        if (const auto* integer = std::get_if<std::int64_t>(&value)) {
            return static_cast<double>(*integer);
        }
        const auto* natural = std::get_if<std::uint64_t>(&value);
        return natural != nullptr ? std::optional(static_cast<double>(*natural)) : std::nullopt;
    }
    /// The bits of an integer, of which the conversion takes those that it wants.
    static std::optional<std::uint64_t> integerOf(const Value& value) {
        if (const auto* integer = std::get_if<std::int64_t>(&value)) {
            return static_cast<std::uint64_t>(*integer);
        }
        if (const auto* floating = std::get_if<double>(&value)) {
            const auto number = NSNumber::number(*floating);
            return *floating < 0 ? static_cast<std::uint64_t>(number->integerValue())
                                 : number->unsignedIntegerValue();
        }
        const auto* natural = std::get_if<std::uint64_t>(&value);
        return natural != nullptr ? std::optional(*natural) : std::nullopt;
    }
    static std::optional<std::uint64_t> addressOf(const Value& value) {
        if (const auto* object = std::get_if<const NSObject*>(&value)) {
            return reinterpret_cast<std::uintptr_t>(*object);
        }
        if (const auto* pointer = std::get_if<const void*>(&value)) {
            return reinterpret_cast<std::uintptr_t>(*pointer);
        }
        return std::holds_alternative<double>(value) ? std::nullopt : integerOf(value);
    }

    /// What `%@` writes.
    static Ref<NSString> plainText(const Value& value) {
        objects::TextBuilder text;
        if (const auto* object = std::get_if<const NSObject*>(&value)) {
            text.appendDescription(*object);
        } else if (const auto* utf8 = std::get_if<std::string_view>(&value)) {
            text.appendUtf8(*utf8);
        } else if (const auto* floating = std::get_if<double>(&value)) {
            text.appendAscii(objects::numberText(*floating));
        } else if (const auto* integer = std::get_if<std::int64_t>(&value)) {
            text.appendAscii(std::to_string(*integer));
        } else if (const auto* natural = std::get_if<std::uint64_t>(&value)) {
            text.appendAscii(std::to_string(*natural));
        } else {
            text.appendAscii("0x" + digits(*addressOf(value), 16));
        }
        return text.finish();
    }

    static std::string digits(std::uint64_t value, int base) {
        std::array<char, 64> text;
        const auto end = std::to_chars(text.data(), text.data() + text.size(), value, base);
        return {text.data(), end.ptr};
    }

    void writeText(const Conversion& conversion, const NSString& text) {
        const NSUInteger length =
            std::min<NSUInteger>(text.length(), conversion.precision.value_or(text.length()));
        pad(conversion, !conversion.minus, length);
        out_.append(length == text.length() ? text : *text.substringToIndex(length));
        pad(conversion, conversion.minus, length);
    }

    void writeUnit(const Conversion& conversion, char16_t unit) {
        pad(conversion, !conversion.minus, 1);
        out_.append(std::u16string_view(&unit, 1));
        pad(conversion, conversion.minus, 1);
    }

    void writeSigned(const Conversion& conversion, std::uint64_t bits) {
        const int unused = 64 - conversion.bits;
        const auto value = static_cast<std::int64_t>(bits << unused) >> unused;
        const auto size =
            value < 0 ? 0 - static_cast<std::uint64_t>(value) : static_cast<std::uint64_t>(value);
        writeInteger(conversion, signText(conversion, value < 0), digits(size, 10), size == 0);
    }

    void writeUnsigned(const Conversion& conversion, std::uint64_t bits) {
        const int unused = 64 - conversion.bits;
        const std::uint64_t value = bits << unused >> unused;
        const char16_t type = conversion.type;
        const int base = type == u'u' ? 10 : type == u'o' ? 8 : 16;
        std::string text = digits(value, base);
        if (type == u'o' && conversion.alternate && value != 0) {
            text.insert(0, 1, '0');
        }
        const bool isPrefixed = base == 16 && conversion.alternate && value != 0;
        writeInteger(conversion,
                     !isPrefixed    ? ""
                     : type == u'X' ? "0X"
                                    : "0x",
                     isUpper(type) ? uppercase(std::move(text)) : std::move(text),
                     value == 0 && !(type == u'o' && conversion.alternate));
    }

    void writeAddress(const Conversion& conversion, std::uint64_t address) {
        writeInteger(conversion, "0x", digits(address, 16), false);
    }

    /// The precision is the least number of digits, and zero has none where that is 0.
    void writeInteger(const Conversion& conversion, std::string_view prefix, std::string text,
                      bool vanishes) {
        if (conversion.precision == 0 && vanishes) {
            text.clear();
        }
        const std::size_t least = conversion.precision.value_or(0);
        if (text.size() < least) {
            text.insert(0, least - text.size(), '0');
        }
        writeNumber(conversion, prefix, text, conversion.zero && !conversion.precision);
    }

    void writeFloating(const Conversion& conversion, double value) {
        const double size = std::abs(value);
        std::string text;
        if (std::isfinite(size)) {
            text = decimal(conversion, size);
        } else {
            text = std::isnan(size) ? "nan" : "inf";
        }
        writeNumber(conversion, signText(conversion, std::signbit(value) && !std::isnan(value)),
                    isUpper(conversion.type) ? uppercase(std::move(text)) : std::move(text),
                    conversion.zero && std::isfinite(size));
    }

    static std::string decimal(const Conversion& conversion, double size) {
        const auto precision = static_cast<int>(conversion.precision.value_or(6));
        std::string text;
        switch (conversion.type) {
            case u'f':
            case u'F':
                text = decimal(size, std::chars_format::fixed, precision);
                break;
            case u'e':
            case u'E':
                text = decimal(size, std::chars_format::scientific, precision);
                break;
            default:
                text = conversion.alternate ? untrimmedGeneral(size, std::max(precision, 1))
                                            : decimal(size, std::chars_format::general, precision);
                break;
        }
        if (conversion.alternate && text.find('.') == std::string::npos) {
            text.insert(std::min(text.find('e'), text.size()), 1, '.');
        }
        return text;
    }
    static std::string decimal(double size, std::chars_format notation, int precision) {
        std::array<char, kGreatestSize + kGreatestNumberLength> text;
        const auto end =
            std::to_chars(text.data(), text.data() + text.size(), size, notation, precision);
        return {text.data(), end.ptr};
    }
    /// `%#g`: as `%g` chooses, but all of the `significant` digits.
    static std::string untrimmedGeneral(double size, int significant) {
        std::string text = decimal(size, std::chars_format::scientific, significant - 1);
        int exponent = 0;
        const std::size_t mark = text.find('e');
        const std::size_t first = text[mark + 1] == '+' ? mark + 2 : mark + 1;
        std::from_chars(text.data() + first, text.data() + text.size(), exponent);
        return exponent < -4 || exponent >= significant
                   ? text
                   : decimal(size, std::chars_format::fixed, significant - 1 - exponent);
    }

    static std::string_view signText(const Conversion& conversion, bool isNegative) {
        return isNegative ? "-" : conversion.plus ? "+" : conversion.space ? " " : "";
    }

    void writeNumber(const Conversion& conversion, std::string_view prefix, std::string_view text,
                     bool fillsWithZeros) {
        const std::size_t length = prefix.size() + text.size();
        const bool zeros = fillsWithZeros && !conversion.minus;
        pad(conversion, !conversion.minus && !zeros, length);
        out_.appendAscii(prefix);
        pad(conversion, zeros, length, '0');
        out_.appendAscii(text);
        pad(conversion, conversion.minus, length);
    }

    void pad(const Conversion& conversion, bool here, std::size_t length, char filler = ' ') {
        if (here && conversion.width > length) {
            out_.appendAscii(conversion.width - length, filler);
        }
    }

    objects::TextBuilder& out_;
};

void appendRun(objects::TextBuilder& out, std::string_view ascii) {
    out.appendAscii(ascii);
}
void appendRun(objects::TextBuilder& out, std::u16string_view units) {
    out.append(units);
}

/// What is no conversion is written as it stands.
template <class Text>
Ref<NSString> formatted(Text format, std::span<const FormatArgument> arguments) {
    objects::TextBuilder out;
    ConversionReader<Text> reader(format, arguments);
    ConversionWriter writer(out);
    std::size_t done = 0;
    for (std::size_t at = format.find('%'); at != Text::npos;) {
        const auto conversion = reader.read(at);
        if (conversion) {
            appendRun(out, format.substr(done, at - done));
            writer.write(conversion->first);
            done = conversion->second;
        }
        at = format.find('%', conversion ? done : at + 1);
    }
    appendRun(out, format.substr(done));
    return out.finish();
}

}  // namespace

Ref<NSString> NSString::stringWithFormatArguments(const NSString& format,
                                                  std::span<const FormatArgument> arguments) {
    if (const auto ascii = format.asciiView()) {
        return formatted(*ascii, arguments);
    }
    return formatted(*format.utf16View(), arguments);
}

}  // namespace vantorq
