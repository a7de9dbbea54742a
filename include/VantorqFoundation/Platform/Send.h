#pragma once

#include <atomic>
#include <concepts>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <span>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Block.h"
#include "Class.h"
#include "NSObject.h"
#include "Selector.h"
#include "Signature.h"

/// Messages found at run time.
///
///     auto first = send<id>(array, "objectAtIndex:"_sel, NSUInteger{0});
///     send<void>(operation, "onCompletion:"_sel, [] { puts("done"); });
///     id made = send<id>(VNTQResult::classObject(), "resultWithSuccess:"_sel, first);
///
/// Scalars are passed as they are and must be of the method's own kind and size. Objects are passed
/// as `Ref`, pointer or reference; text, optionals, vectors and maps are bridged to objects, and a
/// callable becomes a block. A message to nil answers zero, false, nil or nothing.
///
/// `send` stops the process when the receiver does not answer the selector, when the types do not
/// fit the method's, or when an object is nil or of a class that the method refuses. `trySend`
/// answers nothing instead (`false` for `void`), and calls nothing. `perform` takes boxed
/// arguments, for callers that know no types, and answers nothing in the same cases.
///
/// A send whose receiver has the class that the same message found last costs a load, a compare and
/// an indirect call. Threads: as the method.
namespace vantorq {

/// A method as one class has it.
struct ResolvedMethod {
    struct Cached {
        const void* identity;
        const MethodInfo* info;
        void (*function)();
        const Cached* next;
    };
    Selector selector;
    const MethodInfo* info;
    /// The receivers' identities that have met this method; a few at most.
    mutable std::atomic<const Cached*> cached{nullptr};
};

namespace detail {

/// The vtable pointer stands for the receiver's class: one load, and different for every class.
inline const void* dispatchIdentity(const NSObject* object) noexcept {
    const void* vtable;
    std::memcpy(&vtable, static_cast<const void*>(object), sizeof vtable);
    return vtable;
}

VNTQ_EXPORT const ResolvedMethod* findMethod(const NSObject* receiver, Selector selector);
/// The entry of `method` for `identity`, made when there is none; `function` is the implementation.
VNTQ_EXPORT const ResolvedMethod::Cached* cacheMethod(const ResolvedMethod& method,
                                                      const void* identity, void (*function)());
[[noreturn]] VNTQ_EXPORT void refuseMessage(const NSObject* receiver, Selector selector,
                                            const ResolvedMethod* method, const char* signature);

template <class T>
struct Outgoing {
    id held;
    NSObject* wire() const noexcept { return held.get(); }
};

/// What is passed for an argument of type `T`: a type of which `wire()` is the wire value, alive
/// for the length of the call.
template <class T>
auto outgoingArgument(T&& argument) {
    using Bare = std::remove_cvref_t<T>;
    if constexpr (wire::ScalarType<Bare>) {
        struct Plain {
            typename wire::Scalar<Bare>::Wire value;
            auto wire() const noexcept { return value; }
        };
        return Plain{static_cast<typename wire::Scalar<Bare>::Wire>(argument)};
    } else if constexpr (wire::IsRef<Bare>::value) {
        struct Borrowed {
            NSObject* value;
            NSObject* wire() const noexcept { return value; }
        };
        return Borrowed{argument.get()};
    } else if constexpr (std::derived_from<Bare, NSObject>) {
        struct Borrowed {
            NSObject* value;
            NSObject* wire() const noexcept { return value; }
        };
        return Borrowed{const_cast<Bare*>(&argument)};
    } else if constexpr (std::is_pointer_v<Bare> &&
                         std::derived_from<std::remove_cv_t<std::remove_pointer_t<Bare>>,
                                           NSObject>) {
        struct Borrowed {
            NSObject* value;
            NSObject* wire() const noexcept { return value; }
        };
        return Borrowed{const_cast<std::remove_cv_t<std::remove_pointer_t<Bare>>*>(argument)};
    } else if constexpr (std::is_null_pointer_v<Bare>) {
        return Outgoing<Bare>{};
    } else if constexpr (wire::IsBlock<Bare>::value) {
        return Outgoing<Bare>{argument};
    } else if constexpr (PlainCallable<Bare>) {
        return Outgoing<Bare>{Block<typename CallSignature<Bare>::Type>(std::forward<T>(argument))};
    } else {
        return Outgoing<Bare>{bridge(argument)};
    }
}

template <class T>
using WireOf = decltype(outgoingArgument(std::declval<T>()).wire());

template <class R>
R incomingResult(typename wire::Result<R>::Wire&& wire) {
    if constexpr (wire::ScalarType<R>) {
        return static_cast<R>(wire);
    } else if constexpr (std::same_as<R, id>) {
        return std::move(wire);
    } else {
        return wire::Incoming<R>::from(wire.get());
    }
}

/// One message with the argument types of one call.
template <class R, class... Wires>
struct Message {
    using Function = typename wire::Result<R>::Wire (*)(NSObject*, Wires...);
    static constexpr const char* signature = wire::kSignature<R, Wires...>;

    /// The implementation when `method` takes exactly these types, else null.
    static Function typed(const ResolvedMethod* method) {
        if (method == nullptr || method->info->isVariadic ||
            std::strcmp(method->info->signature, signature) != 0) {
            return nullptr;
        }
        return static_cast<const TypedImplementation<R, Wires...>*>(method->info->implementation)
            ->function;
    }

    static R call(Function function, NSObject* receiver, Wires... wires) {
        if constexpr (std::is_void_v<R>) {
            function(receiver, wires...);
        } else {
            return incomingResult<R>(function(receiver, wires...));
        }
    }

    /// A method with format arguments behind its last colon.
    static std::optional<id> callVariadic([[maybe_unused]] const ResolvedMethod* method,
                                          [[maybe_unused]] NSObject* receiver,
                                          [[maybe_unused]] Wires... wires) {
        if constexpr (sizeof...(Wires) > 0 && std::same_as<typename wire::Result<R>::Wire, id> &&
                      (std::constructible_from<FormatArgument, Wires> && ...)) {
            if (method != nullptr && method->info->isVariadic) {
                if constexpr (std::same_as<std::tuple_element_t<0, std::tuple<Wires...>>,
                                           NSObject*>) {
                    const std::array<FormatArgument, sizeof...(Wires)> list{
                        FormatArgument(wires)...};
                    NSObject* format = std::get<0>(std::tuple<Wires...>(wires...));
                    using Implementation =
                        id (*)(NSObject*, NSObject*, std::span<const FormatArgument>);
                    return (*static_cast<const Implementation*>(method->info->implementation))(
                        receiver, format, std::span(list).subspan(1));
                }
            }
        }
        return std::nullopt;
    }

    static bool accepts(const MethodInfo& info, Wires... wires) {
        std::size_t index = 0;
        [[maybe_unused]] const auto one = [&](auto wireValue) {
            const std::size_t at = index++;
            if constexpr (std::same_as<decltype(wireValue), NSObject*>) {
                return at >= info.parameters.size() ||
                       wire::accepts(info.parameters[at], wireValue);
            } else {
                return true;
            }
        };
        return (one(wires) && ... && true);
    }
};

template <class R>
R zeroResult() {
    if constexpr (!std::is_void_v<R>) {
        return R{};
    }
}

template <class R, class... Wires>
R sendUncached(NSObject* receiver, Selector selector, Wires... wires) {
    using M = Message<R, Wires...>;
    const ResolvedMethod* method = findMethod(receiver, selector);
    if (const auto function = M::typed(method)) {
        return M::call(function, receiver, wires...);
    }
    if constexpr (std::same_as<typename wire::Result<R>::Wire, id>) {
        if (auto result = M::callVariadic(method, receiver, wires...)) {
            return incomingResult<R>(std::move(*result));
        }
    }
    refuseMessage(receiver, selector, method, M::signature);
}

/// Where one message, with one set of types, remembers what it found last.
template <class Literal, class R, class... Wires>
inline constinit std::atomic<const ResolvedMethod::Cached*> kLastFound{nullptr};

template <class Literal, class R, class... Wires>
[[gnu::noinline, gnu::cold]] R sendFirst(NSObject* receiver, Wires... wires) {
    using M = Message<R, Wires...>;
    const Selector selector = Literal();
    const ResolvedMethod* method = findMethod(receiver, selector);
    const auto function = M::typed(method);
    if (function == nullptr) {
        return sendUncached<R>(receiver, selector, wires...);
    }
    // All classes share a vtable, so a class as receiver is looked up each time.
    if (!method->info->isClassMethod && &receiver->objectClass() != &Class::classObject()) {
        kLastFound<Literal, R, Wires...>.store(cacheMethod(*method, dispatchIdentity(receiver),
                                                           reinterpret_cast<void (*)()>(function)),
                                               std::memory_order_release);
    }
    return M::call(function, receiver, wires...);
}

template <class Literal, class R, class... Wires>
R sendCached(NSObject* receiver, Wires... wires) {
    const auto* last = kLastFound<Literal, R, Wires...>.load(std::memory_order_acquire);
    if (last != nullptr && last->identity == dispatchIdentity(receiver)) [[likely]] {
        using M = Message<R, Wires...>;
        return M::call(reinterpret_cast<typename M::Function>(last->function), receiver, wires...);
    }
    return sendFirst<Literal, R>(receiver, wires...);
}

template <class R, class... Wires>
auto trySendUncached(NSObject* receiver, Selector selector, Wires... wires)
    -> std::conditional_t<std::is_void_v<R>, bool, std::optional<R>> {
    using M = Message<R, Wires...>;
    const ResolvedMethod* method = findMethod(receiver, selector);
    const auto function = M::typed(method);
    if (function != nullptr && M::accepts(*method->info, wires...)) {
        if constexpr (std::is_void_v<R>) {
            function(receiver, wires...);
            return true;
        } else if constexpr (wire::ScalarType<R>) {
            return static_cast<R>(function(receiver, wires...));
        } else {
            id result = function(receiver, wires...);
            return wire::accepts(wire::Incoming<R>::acceptance, result.get())
                       ? std::optional<R>(incomingResult<R>(std::move(result)))
                       : std::nullopt;
        }
    }
    if constexpr (!std::is_void_v<R> && !wire::ScalarType<R>) {
        if (method != nullptr && method->info->isVariadic) {
            if constexpr (sizeof...(Wires) > 0) {
                if (M::accepts(*method->info, wires...)) {
                    if (auto result = M::callVariadic(method, receiver, wires...)) {
                        return incomingResult<R>(std::move(*result));
                    }
                }
            }
        }
    }
    return {};
}

template <class T>
NSObject* receiverOf(const Ref<T>& receiver) noexcept {
    return receiver.get();
}
inline NSObject* receiverOf(const NSObject& receiver) noexcept {
    return const_cast<NSObject*>(&receiver);
}
inline NSObject* receiverOf(const NSObject* receiver) noexcept {
    return const_cast<NSObject*>(receiver);
}

}  // namespace detail

/// Sends a message whose name is known when the code is compiled.
template <class R, FixedString Name, class Receiver, class... Args>
R send(const Receiver& receiver, SelectorLiteral<Name>, Args&&... args) {
    NSObject* object = detail::receiverOf(receiver);
    if (object == nullptr) [[unlikely]] {
        return detail::zeroResult<R>();
    }
    return [&](const auto&... held) -> R {
        return detail::sendCached<SelectorLiteral<Name>, R>(object, held.wire()...);
    }(detail::outgoingArgument(std::forward<Args>(args))...);
}

/// Sends a message whose name is found at run time.
template <class R, class Receiver, class... Args>
R send(const Receiver& receiver, Selector selector, Args&&... args) {
    NSObject* object = detail::receiverOf(receiver);
    if (object == nullptr) {
        return detail::zeroResult<R>();
    }
    return [&](const auto&... held) -> R {
        return detail::sendUncached<R>(object, selector, held.wire()...);
    }(detail::outgoingArgument(std::forward<Args>(args))...);
}

/// `send` that answers nothing (for `void`: false) where `send` would stop the process.
template <class R, class Receiver, class... Args>
auto trySend(const Receiver& receiver, Selector selector, Args&&... args)
    -> std::conditional_t<std::is_void_v<R>, bool, std::optional<R>> {
    NSObject* object = detail::receiverOf(receiver);
    if (object == nullptr) {
        if constexpr (std::is_void_v<R>) {
            return true;
        } else {
            return R{};
        }
    }
    return [&](const auto&... held) {
        return detail::trySendUncached<R>(object, selector, held.wire()...);
    }(detail::outgoingArgument(std::forward<Args>(args))...);
}

/// Sends a message with boxed arguments and boxes its result (`void` gives nil). Nothing when the
/// receiver does not answer, or the arguments do not fit in number or kind. A nil receiver answers
/// nil.
[[nodiscard]] VNTQ_EXPORT std::optional<id> perform(const id& receiver, Selector selector,
                                                    std::span<const id> arguments);
[[nodiscard]] inline std::optional<id> perform(const id& receiver, Selector selector,
                                               std::initializer_list<id> arguments = {}) {
    return perform(receiver, selector, std::span(arguments.begin(), arguments.size()));
}

}  // namespace vantorq
