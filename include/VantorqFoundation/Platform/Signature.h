#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Bridge.h"
#include "NSObject.h"
#include "NSString.h"
#include "Selector.h"

/// How C++ types travel in a message.
///
/// Each parameter and result type has a wire type, the one that is really passed, and an encoding,
/// a short text that names the wire type: `v` nothing, `B` bool, `c s i q` signed and `C S I Q`
/// unsigned integers of 1, 2, 4 and 8 bytes, `f d` floating point, `@` an object, `:` a selector,
/// `^@` a place for an object, `^v` a pointer, `{NSRange=QQ}` a range. A signature is the encoding
/// of the result followed by those of the parameters. Two sides whose signatures agree may call one
/// another; which class an object has to be is checked when it arrives.
namespace vantorq {

template <class Function>
class Block;
class NSBlock;

namespace wire {

template <class T>
struct IsRef : std::false_type {};
template <class T>
struct IsRef<Ref<T>> : std::true_type {
    using Object = T;
};
template <class T>
struct IsBlock : std::false_type {};
template <class F>
struct IsBlock<Block<F>> : std::true_type {};

template <class T>
concept ObjectType = std::derived_from<std::remove_cv_t<T>, NSObject>;
template <class T>
concept Integer = std::integral<T> && !std::same_as<T, bool>;

template <std::size_t Size, bool Signed>
consteval auto integerOf() {
    if constexpr (Size == 1) {
        return std::conditional_t<Signed, std::int8_t, std::uint8_t>{};
    } else if constexpr (Size == 2) {
        return std::conditional_t<Signed, std::int16_t, std::uint16_t>{};
    } else if constexpr (Size == 4) {
        return std::conditional_t<Signed, std::int32_t, std::uint32_t>{};
    } else {
        return std::conditional_t<Signed, std::int64_t, std::uint64_t>{};
    }
}

/// The wire type of a scalar, and its encoding. Left undefined for types that do not travel.
template <class T>
struct Scalar;
template <>
struct Scalar<bool> {
    using Wire = bool;
    static constexpr std::string_view encoding = "B";
};
template <Integer T>
struct Scalar<T> {
    using Wire = decltype(integerOf<sizeof(T), std::is_signed_v<T>>());
    static constexpr std::string_view encoding =
        std::string_view(std::is_signed_v<T> ? "csiq" : "CSIQ")
            .substr(sizeof(T) == 1   ? 0
                    : sizeof(T) == 2 ? 1
                    : sizeof(T) == 4 ? 2
                                     : 3,
                    1);
};
template <class T>
    requires std::is_enum_v<T>
struct Scalar<T> : Scalar<std::underlying_type_t<T>> {};
template <>
struct Scalar<float> {
    using Wire = float;
    static constexpr std::string_view encoding = "f";
};
template <>
struct Scalar<double> {
    using Wire = double;
    static constexpr std::string_view encoding = "d";
};
template <>
struct Scalar<Selector> {
    using Wire = Selector;
    static constexpr std::string_view encoding = ":";
};
template <>
struct Scalar<NSRange> {
    using Wire = NSRange;
    static constexpr std::string_view encoding = "{NSRange=QQ}";
};
template <>
struct Scalar<id*> {
    using Wire = id*;
    static constexpr std::string_view encoding = "^@";
};
template <>
struct Scalar<void*> {
    using Wire = void*;
    static constexpr std::string_view encoding = "^v";
};
template <>
struct Scalar<const void*> : Scalar<void*> {
    using Wire = void*;
};

template <class T>
concept ScalarType = requires { typename Scalar<std::remove_cvref_t<T>>::Wire; };

/// Objects are passed as borrowed pointers and returned as owning references.
template <class T>
struct Result;
template <>
struct Result<void> {
    using Wire = void;
    static constexpr std::string_view encoding = "v";
};
template <ScalarType T>
    requires(!std::is_reference_v<T>)
struct Result<T> {
    using Wire = typename Scalar<T>::Wire;
    static constexpr std::string_view encoding = Scalar<T>::encoding;
};
/// Objects as they are, and every value that has a bridge, as an object.
template <class T>
    requires(!ScalarType<T> && !std::is_void_v<T>)
struct Result<T> {
    using Wire = id;
    static constexpr std::string_view encoding = "@";
};

template <class T>
struct Parameter {
    using Wire = NSObject*;
    static constexpr std::string_view encoding = "@";
};
template <ScalarType T>
struct Parameter<T> {
    using Wire = typename Scalar<std::remove_cvref_t<T>>::Wire;
    static constexpr std::string_view encoding = Scalar<std::remove_cvref_t<T>>::encoding;
};

template <class... Pieces>
constexpr std::size_t totalSize(Pieces... pieces) {
    return (pieces.size() + ... + 0);
}

/// The signature of `R(A...)` as NUL-terminated text.
template <class R, class... A>
struct Signature {
    static constexpr auto text = [] {
        constexpr std::size_t size = totalSize(Result<R>::encoding, Parameter<A>::encoding...);
        std::array<char, size + 1> out{};
        std::size_t at = 0;
        for (const std::string_view piece : {Result<R>::encoding, Parameter<A>::encoding...}) {
            for (const char c : piece) {
                out[at++] = c;
            }
        }
        return out;
    }();
};
template <class R, class... A>
inline constexpr const char* kSignature = Signature<R, A...>::text.data();

/// A class, by a function, so that tables can name classes without making them.
using ClassGetter = const Class& (*)();

/// What a parameter of type `T` accepts.
struct Acceptance {
    ClassGetter cls = nullptr;  ///< null for a scalar, and for an object of any class
    const char* blockSignature = nullptr;
    bool isObject = false;
    bool isNullable = true;
};

[[noreturn]] VNTQ_EXPORT void refuseArgument(const NSObject* argument, const Acceptance& wanted);
VNTQ_EXPORT bool accepts(const Acceptance& wanted, const NSObject* argument) noexcept;

template <class T>
struct Pointee {
    using Type = void;
};
template <class T>
struct Pointee<T*> {
    using Type = T;
    static constexpr bool nullable = true;
};
template <class T>
struct Pointee<T&> {
    using Type = T;
    static constexpr bool nullable = false;
};

/// Turns what arrives on the wire into an argument of the declared type.
template <class T>
struct Incoming {
    using Bare = std::remove_cvref_t<T>;

    static consteval auto objectType() {
        if constexpr (IsRef<Bare>::value) {
            return std::type_identity<typename IsRef<Bare>::Object>{};
        } else {
            return std::type_identity<std::remove_cv_t<typename Pointee<T>::Type>>{};
        }
    }
    using Object = typename decltype(objectType())::type;

    static constexpr Acceptance acceptance = [] {
        if constexpr (ScalarType<T>) {
            return Acceptance{};
        } else if constexpr (IsBlock<Bare>::value) {
            return Acceptance{nullptr, Bare::kSignature, true, true};
        } else if constexpr (std::same_as<Object, NSObject>) {
            return Acceptance{nullptr, nullptr, true,
                              !std::is_reference_v<T> || IsRef<Bare>::value};
        } else {
            static_assert(ObjectType<Object>, "this parameter type does not travel in a message");
            static_assert(std::same_as<typename Object::ObjectSelf, Object>,
                          "the parameter's class does not declare VNTQ_OBJECT");
            return Acceptance{&Object::classObject, nullptr, true,
                              !std::is_reference_v<T> || IsRef<Bare>::value};
        }
    }();

    static decltype(auto) from(typename Parameter<T>::Wire wire) {
        if constexpr (ScalarType<T>) {
            return static_cast<Bare>(wire);
        } else {
            if constexpr (acceptance.cls != nullptr || acceptance.blockSignature != nullptr ||
                          !acceptance.isNullable) {
                if (!accepts(acceptance, wire)) [[unlikely]] {
                    refuseArgument(wire, acceptance);
                }
            }
            if constexpr (IsBlock<Bare>::value) {
                return Bare::adoptChecked(wire);
            } else if constexpr (IsRef<Bare>::value) {
                return Bare(static_cast<Object*>(wire));
            } else if constexpr (std::is_reference_v<T>) {
                return static_cast<Object&>(*static_cast<Object*>(wire));
            } else {
                return static_cast<Object*>(wire);
            }
        }
    }
};

/// Turns the result of a typed function into what goes back on the wire.
template <class R>
typename Result<std::remove_cvref_t<R>>::Wire outgoing(R&& result) {
    using Bare = std::remove_cvref_t<R>;
    if constexpr (ScalarType<Bare>) {
        return static_cast<typename Result<Bare>::Wire>(result);
    } else if constexpr (ObjectType<Bare>) {
        return id(const_cast<std::remove_const_t<Bare>&>(result));
    } else if constexpr (IsBlock<Bare>::value) {
        return id(result);
    } else {
        return bridge(std::forward<R>(result));
    }
}

}  // namespace wire

}  // namespace vantorq
