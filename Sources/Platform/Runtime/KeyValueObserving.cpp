#include <array>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "VantorqFoundation/Platform/NSArray.h"
#include "VantorqFoundation/Platform/NSNull.h"
#include "VantorqFoundation/Platform/NSObject.h"
#include "VantorqFoundation/Platform/NSString.h"

namespace vantorq {

namespace {

using Options = KeyValueObservingOptions;

/// One call of `addObserver`.
struct Registration {
    std::uint64_t number;  // tells registrations apart, in the order in which they were made
    Weak<NSObject> observer;
    const NSObject* identity;  // compared only
    Ref<NSArray> keys;
    Options options;
    void* context;

    [[nodiscard]] bool covers(const NSString& key) const noexcept {
        for (const id& own : keys->elements()) {
            if (own.get() == &key || static_cast<NSString*>(own.get())->isEqualToString(&key)) {
                return true;
            }
        }
        return false;
    }
};

/// The observers of one object at one time. Replaced, never changed, so that a notification under
/// way is not disturbed by observers that come and go.
struct Observers final : RefCounted {
    explicit Observers(std::vector<Registration> list) : registrations(std::move(list)) {}
    const std::vector<Registration> registrations;
};

struct Observation final : RefCounted {
    AtomicRef<Observers> observers;
};

/// Serialises replacements. Shared by the objects of one slot; nothing is called while it is held.
std::mutex& replacementLock(const NSObject* object) {
    static std::array<std::mutex, 16> locks;
    return locks[(reinterpret_cast<std::uintptr_t>(object) >> 6) % locks.size()];
}

template <class Edit>
void replaceObservers(const NSObject* object, Observation& observation, Edit edit) {
    Ref<Observers> old;  // released after the lock
    const std::lock_guard guard(replacementLock(object));
    old = observation.observers.load();
    auto list = old != nullptr ? old->registrations : std::vector<Registration>();
    edit(list);
    old = observation.observers.exchange(list.empty() ? nullptr : make<Observers>(std::move(list)));
}

/// A change between its two notifications, which come on one thread: the old values for the
/// registrations that want them.
struct Change {
    const NSObject* object;
    Ref<NSString> key;
    std::vector<std::pair<std::uint64_t, id>> oldValues;

    /// Nil for a registration that was made within the change.
    [[nodiscard]] id oldValueFor(const Registration& registration) const {
        for (const auto& [number, value] : oldValues) {
            if (number == registration.number) {
                return value;
            }
        }
        return nullptr;
    }
};

std::vector<Change>& changesUnderWay() {
    static thread_local std::vector<Change> changes;
    return changes;
}

/// Ends the innermost change of that key, whoever still observes it.
Change takeChange(const NSObject* object, const NSString& key) {
    auto& changes = changesUnderWay();
    for (auto at = changes.rbegin(); at != changes.rend(); ++at) {
        if (at->object == object && at->key->isEqualToString(&key)) {
            Change change = std::move(*at);
            changes.erase(std::next(at).base());
            return change;
        }
    }
    return {};
}

std::uint64_t nextRegistrationNumber() noexcept {
    static constinit std::atomic<std::uint64_t> last{0};
    return ++last;
}

}  // namespace

bool NSObject::hasObservers() const noexcept {
    return hasAttachment() && static_cast<Observation*>(attachment())->observers.load() != nullptr;
}

void NSObject::addObserver(NSObject& observer, const NSString& key, Options options,
                           void* context) {
    addObserver(observer, *NSArray::array({key.copy()}), options, context);
}

void NSObject::addObserver(NSObject& observer, const NSArray& keys, Options options,
                           void* context) {
    auto* observation = static_cast<Observation*>(attachment());
    if (observation == nullptr) {
        observation = static_cast<Observation*>(setAttachmentOnce(make<Observation>().get()));
    }
    const auto held = objectCast<NSArray>(keys.copy());
    for (const id& key : held->elements()) {
        if (objectCast<NSString>(key) == nullptr) {
            VNTQ_TRAP("-[NSObject addObserver:]: a key is no string");
        }
    }
    replaceObservers(this, *observation, [&](std::vector<Registration>& list) {
        list.push_back({nextRegistrationNumber(), Weak<NSObject>(&observer), &observer, held,
                        options, context});
    });
    if (contains(options, Options::initial)) {
        for (const id& key : held->elements()) {
            const auto& name = static_cast<const NSString&>(*key);
            KeyValueChange change;
            if (contains(options, Options::newValue)) {
                change.newValue = NSNull::orNull(valueForKey(name));
            }
            observer.observeValueForKeyPath(name, *this, change, context);
        }
    }
}

namespace {

/// Takes `key` out of the latest registration that matches.
template <class Matches>
void removeLatest(const NSObject* object, Observation* observation, const NSString& key,
                  Matches matches) {
    if (observation == nullptr) {
        return;
    }
    replaceObservers(object, *observation, [&](std::vector<Registration>& list) {
        for (auto at = list.rbegin(); at != list.rend(); ++at) {
            if (!matches(*at) || !at->covers(key)) {
                continue;
            }
            const auto left = make<NSMutableArray>();
            for (const id& own : at->keys->elements()) {
                if (!static_cast<NSString*>(own.get())->isEqualToString(&key)) {
                    left->addObject(own);
                }
            }
            if (left->count() == 0) {
                list.erase(std::next(at).base());
            } else {
                at->keys = left;
            }
            return;
        }
    });
}

}  // namespace

void NSObject::removeObserver(const NSObject& observer, const NSString& key) {
    removeLatest(this, static_cast<Observation*>(attachment()), key,
                 [&](const Registration& one) { return one.identity == &observer; });
}

void NSObject::removeObserver(const NSObject& observer, const NSString& key, const void* context) {
    removeLatest(this, static_cast<Observation*>(attachment()), key, [&](const Registration& one) {
        return one.identity == &observer && one.context == context;
    });
}

void NSObject::removeObserver(const NSObject& observer, const void* context) {
    if (auto* observation = static_cast<Observation*>(attachment())) {
        replaceObservers(this, *observation, [&](std::vector<Registration>& list) {
            std::erase_if(list, [&](const Registration& one) {
                return one.identity == &observer && one.context == context;
            });
        });
    }
}

void NSObject::willChangeValueForKey(const NSString& key) {
    if (!hasAttachment()) {
        return;
    }
    const auto observers = static_cast<Observation*>(attachment())->observers.load();
    if (observers == nullptr) {
        return;
    }
    Change underWay{this, nullptr, {}};
    for (const Registration& one : observers->registrations) {
        const bool wantsOld = contains(one.options, Options::oldValue);
        const bool wantsPrior = contains(one.options, Options::prior);
        if ((!wantsOld && !wantsPrior) || !one.covers(key)) {
            continue;
        }
        KeyValueChange change;
        change.isPrior = true;
        if (wantsOld) {
            change.oldValue = NSNull::orNull(valueForKey(key));
            underWay.oldValues.emplace_back(one.number, change.oldValue);
        }
        if (wantsPrior) {
            if (const auto observer = one.observer.load()) {
                observer->observeValueForKeyPath(key, *this, change, one.context);
            }
        }
    }
    if (!underWay.oldValues.empty()) {
        underWay.key = objectCast<NSString>(key.copy());
        changesUnderWay().push_back(std::move(underWay));
    }
}

void NSObject::didChangeValueForKey(const NSString& key) {
    if (!hasAttachment()) {
        return;
    }
    const Change change = takeChange(this, key);
    const auto observers = static_cast<Observation*>(attachment())->observers.load();
    if (observers == nullptr) {
        return;
    }
    for (const Registration& one : observers->registrations) {
        if (!one.covers(key)) {
            continue;
        }
        KeyValueChange told;
        if (contains(one.options, Options::oldValue)) {
            told.oldValue = change.oldValueFor(one);
        }
        if (contains(one.options, Options::newValue)) {
            told.newValue = NSNull::orNull(valueForKey(key));
        }
        if (const auto observer = one.observer.load()) {
            observer->observeValueForKeyPath(key, *this, told, one.context);
        }
    }
}

void NSObject::observeValueForKeyPath(const NSString&, NSObject&, const KeyValueChange&, void*) {}

}  // namespace vantorq
