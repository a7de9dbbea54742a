#include "RecordParser.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

using namespace vantorq;

namespace {

// Of a line and of a field. The longest field that is seen in practice, a list of configuration
// files, is a hundred times shorter.
constexpr std::size_t kMaximumLength = 1'000'000;

constexpr std::string_view kBlanks = " \t";

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

/// Whether the text would do more to a terminal than to show letters: it holds a control character
/// of ASCII, or one of those that UTF-8 writes as C2 80 to C2 9F.
bool hasControlCharacter(std::string_view text) {
    bool isAfterC2 = false;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < 0x20 && c != '\t') || byte == 0x7F || (isAfterC2 && byte < 0xA0)) {
            return true;
        }
        isAfterC2 = byte == 0xC2;
    }
    return false;
}

bool isFieldName(std::string_view text) {
    return !text.empty() && std::ranges::all_of(text, [](char c) { return c > ' ' && c < 0x7F; });
}

/// Packages and architectures are parts of the names of files.
bool isFileNamePart(const NSString& text) {
    return !text.containsString("/"_ns) && !text.containsString(" "_ns) &&
           !text.containsString("\n"_ns);
}

/// The value of a field, empty when the record lacks it.
Ref<NSString> value(const NSDictionary& record, const NSString& lowercaseName) {
    const auto text = objectCast<NSString>(record[lowercaseName]);
    return text != nullptr ? text : ""_ns;
}

Ref<NSString> firstLine(const NSString& text) {
    return objectCast<NSString>(text.componentsSeparatedByString("\n"_ns)->firstObject());
}

/// Why the record is of no use, if it is not.
std::optional<std::string> defect(const NSDictionary& record) {
    const auto name = value(record, "package"_ns);
    if (name->length() == 0) {
        return "no Package field";
    }
    if (!isFileNamePart(*name)) {
        return "the Package field is not a package's name";
    }
    if (!isFileNamePart(*value(record, "architecture"_ns))) {
        return "the Architecture field is not an architecture's name";
    }
    return std::nullopt;
}

/// The field's three words are what is wanted, whether there is an error, and what is.
bool isInstalled(const NSDictionary& record) {
    return value(record, "status"_ns)->hasSuffix(" installed"_ns);
}

/// A dependency is what stands between commas, whatever alternatives it names.
std::size_t dependencyCount(const NSString& field) {
    return field.length() > 0 ? field.componentsSeparatedByString(","_ns)->count() : 0;
}

Package package(const NSDictionary& record) {
    const auto section = firstLine(*value(record, "section"_ns));
    return {
        .name = value(record, "package"_ns),
        .architecture = value(record, "architecture"_ns),
        .section = section->length() > 0 ? section : "(none)"_ns,
        .summary = firstLine(*value(record, "description"_ns)),
        .dependencyCount = dependencyCount(*value(record, "depends"_ns)) +
                           dependencyCount(*value(record, "pre-depends"_ns)),
        .isInstalled = isInstalled(record),
    };
}

}  // namespace

void RecordParser::take(std::string_view chunk) {
    while (!chunk.empty()) {
        const std::string_view part = chunk.substr(0, chunk.find('\n'));
        // One byte too many is kept, to tell by.
        line_ += part.substr(0, kMaximumLength + 1 - line_.size());
        if (part.size() == chunk.size()) {
            return;
        }
        takeLine(line_);
        line_.clear();
        ++lineNumber_;
        chunk.remove_prefix(part.size() + 1);
    }
}

void RecordParser::end() {
    takeLine(line_);
    endRecord();
}

std::optional<Record> RecordParser::next() {
    if (complete_.empty()) {
        return std::nullopt;
    }
    std::optional<Record> record = std::move(complete_.front());
    complete_.pop_front();
    return record;
}

void RecordParser::takeLine(std::string_view line) {
    if (trimmed(line).empty() && line.size() <= kMaximumLength) {
        endRecord();
        return;
    }
    if (firstLine_ == 0) {
        firstLine_ = lineNumber_;
    }
    if (isRejected_) {
        return;
    }
    if (line.size() > kMaximumLength) {
        reject(lineNumber_, "a line longer than a million bytes");
    } else if (hasControlCharacter(line)) {
        reject(lineNumber_, "a control character");
    } else if (kBlanks.contains(line.front())) {
        continueField(line);
    } else {
        beginField(line);
    }
}

void RecordParser::beginField(std::string_view line) {
    endField();
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        reject(lineNumber_, "a line without a colon");
        return;
    }
    if (!isFieldName(line.substr(0, colon))) {
        reject(lineNumber_, "no field name before the colon");
        return;
    }
    fieldName_ = NSString::string(line.substr(0, colon))->lowercaseString();
    if (record_->objectForKey(*fieldName_) != nullptr) {
        reject(lineNumber_, "a field for the second time");
        return;
    }
    append(trimmed(line.substr(colon + 1)));
}

void RecordParser::continueField(std::string_view line) {
    if (fieldName_ == nullptr) {
        reject(lineNumber_, "a continuation of no field");
        return;
    }
    append("\n" + std::string(trimmed(line)));
}

void RecordParser::append(std::string_view text) {
    fieldValue_ += text;
    if (fieldValue_.size() > kMaximumLength) {
        reject(lineNumber_, "a field longer than a million bytes");
    }
}

void RecordParser::endField() {
    if (fieldName_ != nullptr) {
        std::ranges::replace(fieldValue_, '\t', ' ');
        record_->setObjectForKey(NSString::string(fieldValue_), *fieldName_);
    }
    fieldName_ = nullptr;
    fieldValue_.clear();
}

void RecordParser::endRecord() {
    if (firstLine_ == 0) {
        return;
    }
    if (!isRejected_) {
        endField();
        takeRecord();
    }
    record_->removeAllObjects();
    firstLine_ = 0;
    isRejected_ = false;
}

void RecordParser::takeRecord() {
    if (auto text = defect(*record_)) {
        reject(firstLine_, std::move(*text));
        return;
    }
    complete_.push_back(package(*record_));
}

/// Only the first problem of a record is told; the others tend to follow from it.
void RecordParser::reject(std::size_t line, std::string reason) {
    complete_.push_back(RejectedRecord{line, std::move(reason)});
    isRejected_ = true;
    fieldName_ = nullptr;
    fieldValue_.clear();
}

}  // namespace package_browser
