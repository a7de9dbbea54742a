#pragma once

#include <cstddef>
#include <cstdint>

#include "VantorqFoundation/Platform/NSObject.h"
#include "VantorqFoundation/Platform/NSString.h"

/// How dictionaries and sets hash and compare.
///
/// What is stored carries its hash, and whether it is text, so that growing asks no object anything
/// and a lookup of text calls nothing virtual.
namespace vantorq::objects {

inline std::uint32_t tableHash(NSUInteger hash) noexcept {
    return static_cast<std::uint32_t>(hash ^ (hash >> 32));
}

struct StoredKey {
    id object;
    std::uint32_t hash;
    bool isText;
};

/// What a lookup asks for: text, or anything else.
struct TextProbe {
    explicit TextProbe(const NSString& key) noexcept : text(key), hash(tableHash(key.textHash())) {}
    const NSString& text;
    std::uint32_t hash;
};
struct ObjectProbe {
    explicit ObjectProbe(const NSObject& key) : object(key), hash(tableHash(key.hash())) {}
    const NSObject& object;
    std::uint32_t hash;
};

struct KeyHash {
    using is_transparent = void;
    template <class Key>
    std::size_t operator()(const Key& key) const noexcept {
        return key.hash;
    }
};

struct KeyEqual {
    using is_transparent = void;
    bool operator()(const TextProbe& probe, const StoredKey& key) const noexcept {
        return key.object.get() == &probe.text ||
               (key.hash == probe.hash && key.isText &&
                probe.text.isEqualToString(static_cast<const NSString*>(key.object.get())));
    }
    bool operator()(const ObjectProbe& probe, const StoredKey& key) const {
        return key.object.get() == &probe.object ||
               (key.hash == probe.hash && probe.object.isEqual(key.object.get()));
    }
    bool operator()(const StoredKey& a, const StoredKey& b) const {
        return a.object == b.object || (a.hash == b.hash && a.object->isEqual(b.object.get()));
    }
    template <class Probe>
    bool operator()(const StoredKey& key, const Probe& probe) const {
        return (*this)(probe, key);
    }
};

/// Calls `f` with the probe for `key`.
template <class F>
auto withProbe(const NSObject& key, F f) {
    if (const auto* text = objectCast<NSString>(&key)) {
        return f(TextProbe(*text));
    }
    return f(ObjectProbe(key));
}

}  // namespace vantorq::objects
