#include "VantorqFoundation/Platform/Send.h"

#include <cstring>
#include <string>

namespace vantorq {

namespace wire {

namespace {

bool isKind(const Acceptance& wanted, const NSObject& argument) noexcept {
    if (wanted.blockSignature != nullptr) {
        const auto* block = objectCast<NSBlock>(&argument);
        return block != nullptr && std::strcmp(block->signature(), wanted.blockSignature) == 0;
    }
    return wanted.cls == nullptr || argument.isKindOfClass(wanted.cls());
}

}  // namespace

bool accepts(const Acceptance& wanted, const NSObject* argument) noexcept {
    return argument == nullptr ? wanted.isNullable : isKind(wanted, *argument);
}

void refuseArgument(const NSObject* argument, const Acceptance& wanted) {
    const std::string_view expected = wanted.blockSignature != nullptr ? wanted.blockSignature
                                      : wanted.cls != nullptr          ? wanted.cls().name()
                                                              : std::string_view("an object");
    if (argument == nullptr) {
        trap({"nil was sent where ", expected, " is required"});
    }
    trap({"an object of class ", argument->objectClass().name(), " was sent where ",
          wanted.blockSignature != nullptr ? "a block of signature " : "", expected,
          " is required"});
}

}  // namespace wire

namespace detail {

const ResolvedMethod* findMethod(const NSObject* receiver, Selector selector) {
    const Class& cls = receiver->objectClass();
    if (&cls == &Class::classObject()) {
        const auto* method = static_cast<const Class*>(receiver)->methodFor(selector, true);
        if (method != nullptr) {
            return method;
        }
    }
    return cls.methodFor(selector, false);
}

const ResolvedMethod::Cached* cacheMethod(const ResolvedMethod& method, const void* identity,
                                          void (*function)()) {
    const ResolvedMethod::Cached* first = method.cached.load(std::memory_order_acquire);
    for (const auto* entry = first; entry != nullptr; entry = entry->next) {
        if (entry->identity == identity) {
            return entry;
        }
    }
    // Two threads may both add an entry for one identity; either serves.
    auto* fresh = new ResolvedMethod::Cached{identity, method.info, function, first};
    while (!method.cached.compare_exchange_weak(fresh->next, fresh, std::memory_order_acq_rel)) {
    }
    return fresh;
}

void refuseMessage(const NSObject* receiver, Selector selector, const ResolvedMethod* method,
                   const char* signature) {
    const bool isClass = &receiver->objectClass() == &Class::classObject();
    const std::string_view name =
        isClass ? static_cast<const Class*>(receiver)->name() : receiver->objectClass().name();
    const std::string_view sign = isClass ? "+[" : "-[";
    if (method == nullptr) {
        trap({sign, name, " ", selector.name(), "]: unrecognised selector"});
    }
    trap({sign, name, " ", selector.name(), "]: sent with the types ", signature,
          ", but the method has the types ", method->info->signature});
}

}  // namespace detail

std::optional<id> perform(const id& receiver, Selector selector, std::span<const id> arguments) {
    if (receiver == nullptr) {
        return id();
    }
    const ResolvedMethod* method = detail::findMethod(receiver.get(), selector);
    return method != nullptr ? method->info->invokeBoxed(receiver.get(), arguments) : std::nullopt;
}

}  // namespace vantorq
