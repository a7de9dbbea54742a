#include "VantorqFoundation/Platform/NSData.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

#include "VantorqFoundation/Platform/Class.h"
#include "VantorqFoundation/Platform/Hasher.h"

namespace vantorq {

namespace {

constexpr std::size_t kBytesShown = 24;
constexpr std::size_t kFirstBytesShown = 16;

void checkRange(NSRange range, NSUInteger length) {
    if (range.location > length || range.length > length - range.location) [[unlikely]] {
        VNTQ_TRAP("NSData: range out of bounds");
    }
}

void appendHex(std::string& text, std::span<const std::byte> bytes) {
    for (const std::byte byte : bytes) {
        text += "0123456789abcdef"[std::to_integer<unsigned>(byte >> 4)];
        text += "0123456789abcdef"[std::to_integer<unsigned>(byte & std::byte{0xF})];
    }
}

}  // namespace

Ref<NSData> NSData::data() {
    static NSData& empty = immortal(Ref<NSData>::adopt(new NSData));
    return empty;
}

Ref<NSData> NSData::dataWithBytes(std::span<const std::byte> bytes) {
    if (bytes.empty()) {
        return data();
    }
    void* memory = ::operator new(sizeof(NSData) + bytes.size());
    auto made = Ref<NSData>::adopt(::new (memory) NSData);
    made->bytes_ = static_cast<std::byte*>(static_cast<void*>(made.get() + 1));
    made->length_ = bytes.size();
    std::memcpy(made->bytes_, bytes.data(), bytes.size());
    return made;
}

Ref<NSData> NSData::dataWithBytes(std::string_view bytes) {
    return dataWithBytes(std::as_bytes(std::span(bytes)));
}

Ref<NSData> NSData::dataWithData(const NSData& other) {
    return objectCast<NSData>(other.copy());
}

Ref<NSData> NSData::subdataWithRange(NSRange range) const {
    checkRange(range, length_);
    return dataWithBytes(bytes().subspan(range.location, range.length));
}

bool NSData::isEqual(const NSObject* other) const {
    return this == other || isEqualToData(objectCast<NSData>(other));
}

bool NSData::isEqualToData(const NSData* other) const noexcept {
    return other != nullptr && std::ranges::equal(bytes(), other->bytes());
}

NSUInteger NSData::hash() const {
    Hasher hasher;
    hasher.combineBytes(bytes_, length_);
    return hasher.finish();
}

Ref<NSString> NSData::description() const {
    std::string text = "{length = " + std::to_string(length_) + ", bytes = 0x";
    if (length_ <= kBytesShown) {
        appendHex(text, bytes());
    } else {
        appendHex(text, bytes().first(kFirstBytesShown));
        text += " ... ";
        appendHex(text, bytes().last(kBytesShown - kFirstBytesShown));
    }
    return NSString::string(text + "}");
}

id NSData::copyWithZone(void*) const {
    return const_cast<NSData&>(*this);
}

id NSData::mutableCopyWithZone(void*) const {
    return NSMutableData::dataWithBytes(bytes());
}

void NSMutableData::update() noexcept {
    bytes_ = buffer_.data();
    length_ = buffer_.size();
}

Ref<NSMutableData> NSMutableData::data() {
    return make<NSMutableData>();
}

Ref<NSMutableData> NSMutableData::dataWithBytes(std::span<const std::byte> bytes) {
    auto made = make<NSMutableData>();
    made->appendBytes(bytes);
    return made;
}

Ref<NSMutableData> NSMutableData::dataWithLength(NSUInteger length) {
    auto made = make<NSMutableData>();
    made->setLength(length);
    return made;
}

void NSMutableData::appendBytes(std::span<const std::byte> bytes) {
    replaceBytesInRange({length(), 0}, bytes);
}

void NSMutableData::appendData(const NSData& other) {
    // By way of a copy, which is `other` itself unless it can change: it may be this object.
    appendBytes(NSData::dataWithData(other)->bytes());
}

void NSMutableData::setLength(NSUInteger length) {
    buffer_.resize(length);
    update();
}

void NSMutableData::replaceBytesInRange(NSRange range, std::span<const std::byte> bytes) {
    checkRange(range, length());
    const auto first = buffer_.begin() + static_cast<std::ptrdiff_t>(range.location);
    const std::size_t overwritten = std::min<std::size_t>(range.length, bytes.size());
    const auto next = std::ranges::copy(bytes.first(overwritten), first).out;
    if (overwritten < range.length) {
        buffer_.erase(next, next + static_cast<std::ptrdiff_t>(range.length - overwritten));
    } else {
        buffer_.insert(next, bytes.begin() + static_cast<std::ptrdiff_t>(overwritten), bytes.end());
    }
    update();
}

id NSMutableData::copyWithZone(void*) const {
    return NSData::dataWithBytes(bytes());
}

namespace {

constexpr const Protocol* kProtocols[] = {&NSCopying, &NSMutableCopying};

constexpr PropertyInfo kProperties[] = {property<&NSData::length>("length")};

constexpr MethodInfo kMethods[] = {
    classMethod<+[] { return NSData::data(); }>("data"),
    classMethod<&NSData::dataWithData>("dataWithData:"),
    method<&NSData::subdataWithRange>("subdataWithRange:"),
    method<&NSData::isEqualToData>("isEqualToData:"),
};

constexpr PropertyInfo kMutableProperties[] = {
    property<&NSData::length, &NSMutableData::setLength>("length"),
};

constexpr MethodInfo kMutableMethods[] = {
    classMethod<+[] { return NSMutableData::data(); }>("data"),
    classMethod<+[](const NSData& other) { return NSMutableData::dataWithBytes(other.bytes()); }>(
        "dataWithData:"),
    classMethod<&NSMutableData::dataWithLength>("dataWithLength:"),
    method<&NSMutableData::appendData>("appendData:"),
};

}  // namespace

VNTQ_DEFINE_CLASS(NSData, {.protocols = kProtocols, .properties = kProperties, .methods = kMethods})
VNTQ_DEFINE_CLASS(NSMutableData, {.properties = kMutableProperties, .methods = kMutableMethods})

}  // namespace vantorq
