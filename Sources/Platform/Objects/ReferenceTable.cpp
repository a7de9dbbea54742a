#include "VantorqFoundation/Platform/ReferenceTable.h"

#include <algorithm>

namespace vantorq {

namespace {

bool areWeak(NSPointerFunctionsOptions options) noexcept {
    const auto bits = static_cast<NSUInteger>(NSPointerFunctionsOptions::weakMemory);
    return (static_cast<NSUInteger>(options) & bits) == bits;
}

bool areToldByIdentity(NSPointerFunctionsOptions options) noexcept {
    const auto bit = static_cast<NSUInteger>(NSPointerFunctionsOptions::objectPointerPersonality);
    return (static_cast<NSUInteger>(options) & bit) != 0;
}

}  // namespace

/// What is looked for.
struct ReferenceTable::Probe {
    Probe(const RefCounted& key, Options keyOptions)
        : object(key),
          options(keyOptions),
          hash(areToldByIdentity(options) ? reinterpret_cast<NSUInteger>(&key)
                                          : static_cast<const NSObject&>(key).hash()) {}

    const RefCounted& object;
    const Options options;
    const NSUInteger hash;
    /// Weak keys that were met on the way. This may have become their last owner, and must not let
    /// them go, which may run any code, while the table is being searched.
    mutable std::vector<Object> met;
};

ReferenceTable::Holder::Holder(RefCounted* object, Options options) noexcept {
    if (areWeak(options)) {
        weak_ = Weak<RefCounted>(object);
    } else {
        owner_ = Object(object);
    }
}

ReferenceTable::Key::Key(const Probe& probe)
    : hash(probe.hash), object(const_cast<RefCounted*>(&probe.object), probe.options) {}

std::size_t ReferenceTable::KeyHash::operator()(const Probe& probe) const noexcept {
    return probe.hash;
}

bool ReferenceTable::KeyEqual::operator()(const Key& stored, const Probe& probe) const {
    if (stored.hash != probe.hash) {
        return false;
    }
    // The address of an object that is gone may be that of a new one, so nothing less will do.
    Object object = stored.object.load();
    if (object == &probe.object) {
        return true;
    }
    const bool isEqual = object != nullptr && !areToldByIdentity(probe.options) &&
                         static_cast<const NSObject&>(probe.object)
                             .isEqual(static_cast<const NSObject*>(object.get()));
    if (!stored.object.isOwner()) {
        probe.met.push_back(std::move(object));
    }
    return isEqual;
}

bool ReferenceTable::holdsWeakly() const noexcept {
    return areWeak(keys_) || areWeak(values_);
}

ReferenceTable::Entry ReferenceTable::load(const Key& key, const Holder& value) const noexcept {
    return {key.object.load(), value.load()};
}

bool ReferenceTable::isLiving(const Entry& entry) const noexcept {
    return entry.key != nullptr && (entry.value != nullptr || !areWeak(values_));
}

ReferenceTable::Entry ReferenceTable::find(const RefCounted& key) const {
    const Probe probe(key, keys_);
    const auto found = table_.locate(probe);
    if (found == table_.end()) {
        return {};
    }
    Entry entry = load(found->first, found->second);
    return isLiving(entry) ? std::move(entry) : Entry();
}

void ReferenceTable::add(RefCounted& key, RefCounted* value) {
    purgeWhenDue();
    table_.emplace(Probe(key, keys_), value, values_);
}

void ReferenceTable::set(RefCounted& key, RefCounted& value) {
    purgeWhenDue();
    const auto [stored, isNew] = table_.emplace(Probe(key, keys_), &value, values_);
    if (!isNew) {
        Holder replaced(&value, values_);
        std::swap(*stored, replaced);
    }
}

void ReferenceTable::remove(const RefCounted& key) {
    const Probe probe(key, keys_);
    const auto removed = table_.take(probe);
}

void ReferenceTable::removeAll() {
    const auto removed = std::exchange(table_, {});
}

std::vector<ReferenceTable::Entry> ReferenceTable::entries() const {
    std::vector<Entry> living;
    std::vector<Entry> remains;
    living.reserve(table_.size());
    for (const auto& [key, value] : table_) {
        Entry entry = load(key, value);
        (isLiving(entry) ? living : remains).push_back(std::move(entry));
    }
    return living;
}

std::size_t ReferenceTable::count() const {
    return holdsWeakly() ? entries().size() : table_.size();
}

void ReferenceTable::purgeWhenDue() {
    if (table_.size() < purgeAt_ || !holdsWeakly()) {
        return;
    }
    std::vector<Entry> met;  // let go at the end, as those that a probe has met
    met.reserve(table_.size());
    table_.eraseIf([&](const Key& key, const Holder& value) {
        met.push_back(load(key, value));
        return !isLiving(met.back());
    });
    purgeAt_ = std::max<std::size_t>(16, 2 * table_.size());
}

}  // namespace vantorq
