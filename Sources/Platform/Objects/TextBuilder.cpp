#include "Sources/Platform/Objects/TextBuilder.h"

#include <algorithm>

#include "VantorqFoundation/Platform/NSDictionary.h"

namespace vantorq::objects {

void TextBuilder::widen() {
    if (!isWide_) {
        wide_.assign(narrow_.begin(), narrow_.end());
        isWide_ = true;
    }
}

void TextBuilder::appendAscii(std::string_view text) {
    if (isWide_) {
        wide_.append(text.begin(), text.end());
    } else {
        narrow_.append(text);
    }
}

void TextBuilder::appendAscii(std::size_t count, char c) {
    if (isWide_) {
        wide_.append(count, static_cast<char16_t>(c));
    } else {
        narrow_.append(count, c);
    }
}

void TextBuilder::append(std::u16string_view units) {
    widen();
    wide_.append(units);
}

void TextBuilder::append(const NSString& text) {
    if (const auto ascii = text.asciiView()) {
        appendAscii(*ascii);
    } else {
        append(*text.utf16View());
    }
}

void TextBuilder::appendUtf8(std::string_view text) {
    append(*NSString::string(text));
}

void TextBuilder::appendDescription(const NSObject* object) {
    const Ref<NSString> text = object != nullptr ? object->description() : nullptr;
    append(text != nullptr ? *text : "(null)"_ns);
}

void TextBuilder::appendIndented(const NSObject& object) {
    const Ref<NSString> text = object.description();
    append(*text->stringByReplacingOccurrencesOfString("\n"_ns, "\n    "_ns));
}

Ref<NSString> TextBuilder::finish() const {
    return isWide_ ? NSString::string(wide_) : NSString::string(narrow_);
}

std::vector<std::pair<Ref<NSString>, id>> describedEntries(const NSDictionary& dictionary) {
    std::vector<std::pair<Ref<NSString>, id>> entries;
    entries.reserve(dictionary.count());
    dictionary.enumerate(
        [&](const id& key, const id& value) { entries.emplace_back(key->description(), value); });
    std::ranges::sort(entries, [](const auto& a, const auto& b) {
        return a.first->compare(*b.first) == NSComparisonResult::ascending;
    });
    return entries;
}

}  // namespace vantorq::objects
