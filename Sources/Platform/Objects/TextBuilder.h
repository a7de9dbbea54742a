#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VantorqFoundation/Platform/NSString.h"

namespace vantorq::objects {

/// Text that grows: one byte per unit as long as all of it is ASCII, two from then on.
class TextBuilder {
public:
    void appendAscii(std::string_view text);
    void appendAscii(std::size_t count, char c);
    void append(std::u16string_view units);
    void append(const NSString& text);
    /// Ill-formed sequences become U+FFFD.
    void appendUtf8(std::string_view text);
    /// The object's description; "(null)" for nil.
    void appendDescription(const NSObject* object);
    /// The same, each further line indented by four spaces.
    void appendIndented(const NSObject& object);

    [[nodiscard]] Ref<NSString> finish() const;

private:
    void widen();

    std::string narrow_;
    std::u16string wide_;
    bool isWide_ = false;
};

/// The entries of a dictionary in the order of their keys' descriptions: those, and the values.
std::vector<std::pair<Ref<NSString>, id>> describedEntries(const NSDictionary& dictionary);

}  // namespace vantorq::objects
