#pragma once

#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "NSObject.h"
#include "NSString.h"

namespace vantorq {

/// Immutable bytes, kept in one block with the object.
///
/// Threads: immutable data may be used from any thread; mutable data from one at a time.
/// Traps: a range outside the bytes.
class VNTQ_EXPORT NSData : public NSObject {
    VNTQ_OBJECT(NSData, NSObject)
public:
    /// No bytes.
    NSData() noexcept = default;

    // Making data. Copies the bytes.

    [[nodiscard]] static Ref<NSData> data();
    [[nodiscard]] static Ref<NSData> dataWithBytes(std::span<const std::byte> bytes);
    [[nodiscard]] static Ref<NSData> dataWithBytes(std::string_view bytes);
    [[nodiscard]] static Ref<NSData> dataWithData(const NSData& other);

    [[nodiscard]] NSUInteger length() const noexcept { return length_; }
    /// Valid until the data changes or goes.
    [[nodiscard]] std::span<const std::byte> bytes() const noexcept { return {bytes_, length_}; }
    [[nodiscard]] Ref<NSData> subdataWithRange(NSRange range) const;

    [[nodiscard]] bool isEqual(const NSObject* other) const override;
    [[nodiscard]] bool isEqualToData(const NSData* other) const noexcept;
    [[nodiscard]] NSUInteger hash() const override;
    /// "{length = 3, bytes = 0x010203}"; of more than 24 bytes the first 16 and the last 8.
    [[nodiscard]] Ref<NSString> description() const override;
    /// The receiver itself when it is immutable.
    [[nodiscard]] id copyWithZone(void* zone) const override;
    [[nodiscard]] id mutableCopyWithZone(void* zone) const override;

    /// Frees bytes and object at once: the bytes of immutable data stand behind it.
    static void operator delete(void* memory) noexcept { ::operator delete(memory); }

protected:
    ~NSData() override = default;

private:
    friend class NSMutableData;

    std::byte* bytes_ = nullptr;
    NSUInteger length_ = 0;
};

/// Bytes that can be changed in place. One thread at a time.
class VNTQ_EXPORT NSMutableData final : public NSData {
    VNTQ_OBJECT(NSMutableData, NSData)
public:
    NSMutableData() noexcept = default;

    [[nodiscard]] static Ref<NSMutableData> data();
    [[nodiscard]] static Ref<NSMutableData> dataWithBytes(std::span<const std::byte> bytes);
    /// That many zeros.
    [[nodiscard]] static Ref<NSMutableData> dataWithLength(NSUInteger length);

    /// Valid until the length changes or the data goes.
    [[nodiscard]] std::span<std::byte> mutableBytes() noexcept { return buffer_; }
    void appendBytes(std::span<const std::byte> bytes);
    void appendData(const NSData& other);
    /// Cuts, or adds zeros.
    void setLength(NSUInteger length);
    void replaceBytesInRange(NSRange range, std::span<const std::byte> bytes);

    /// Immutable data.
    [[nodiscard]] id copyWithZone(void* zone) const override;

private:
    ~NSMutableData() override = default;
    void update() noexcept;

    std::vector<std::byte> buffer_;
};

}  // namespace vantorq
