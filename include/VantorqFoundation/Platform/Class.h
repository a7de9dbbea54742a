#pragma once

#include <array>
#include <atomic>
#include <concepts>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "Block.h"
#include "Export.h"
#include "NSObject.h"
#include "Selector.h"
#include "Signature.h"

/// Classes at run time, and the tables that describe them.
///
/// A class publishes itself by constant tables in its source file:
///
///     class Person : public NSObject {
///         VNTQ_OBJECT(Person, NSObject)
///     public:
///         Ref<NSString> name() const;
///         void setName(const Ref<NSString>& name);
///         NSInteger ageOn(const NSDate& day) const;
///     };
///
///     constexpr PropertyInfo kProperties[] = {property<&Person::name, &Person::setName>("name")};
///     constexpr MethodInfo kMethods[] = {method<&Person::ageOn>("ageOn:")};
///     VNTQ_DEFINE_CLASS(Person, {.properties = kProperties, .methods = kMethods})
///
/// The tables hold no code that runs at load time; a class is resolved when it is first used and
/// found by name from then on. A property answers its getter and its setter (`name`, `setName:`)
/// as messages. A method may be a member function, or a free function that takes the receiver
/// first. A class that derives from `NSObject` and is default-constructible answers `alloc`.
///
/// Threads: any.
namespace vantorq {

/// One method of a table. Made by `method`, `classMethod` and their kin below.
struct MethodInfo {
    std::string_view selector;
    const char* signature;       ///< of result and parameters, without the receiver
    const void* implementation;  ///< a `TypedImplementation` of that signature
    /// Calls it with boxed arguments; nothing when their number or kinds do not fit.
    std::optional<id> (*invokeBoxed)(NSObject* receiver, std::span<const id> arguments);
    std::span<const wire::Acceptance> parameters;
    bool isClassMethod = false;
    bool isVariadic = false;  ///< takes format arguments after the last colon
};

/// A function pointer with its type, at an address that a constant table can hold.
template <class R, class... A>
struct TypedImplementation {
    using Function = typename wire::Result<R>::Wire (*)(NSObject*,
                                                        typename wire::Parameter<A>::Wire...);
    Function function;
};

/// One property of a table. Made by `property` and `classProperty`.
struct PropertyInfo {
    std::string_view name;
    MethodInfo getter;
    MethodInfo setter;  ///< without implementation when the property is read-only
    [[nodiscard]] constexpr bool isReadOnly() const { return setter.implementation == nullptr; }
    [[nodiscard]] constexpr bool isScalar() const { return getter.signature[0] != '@'; }
};

struct Protocol {
    std::string_view name;
    std::span<const std::string_view> requiredSelectors = {};
    const Protocol* base = nullptr;
};

VNTQ_EXPORT extern const Protocol NSCopying;
VNTQ_EXPORT extern const Protocol NSMutableCopying;

struct ClassTables {
    std::span<const Protocol* const> protocols = {};
    std::span<const PropertyInfo> properties = {};
    std::span<const MethodInfo> methods = {};
};

/// Everything that a class says of itself.
struct ClassInfo {
    std::string_view name;
    wire::ClassGetter superclass;
    id (*allocate)();  ///< null for an abstract class
    ClassTables tables;
};

/// Methods and properties that are added to a class by somebody else.
struct CategoryInfo {
    wire::ClassGetter cls;
    std::string_view name;
    std::span<const MethodInfo> methods;
    std::span<const PropertyInfo> properties = {};
    std::span<const Protocol* const> protocols = {};
};

/// A method as one class has it, inherited or not. Lives as long as the process.
struct ResolvedMethod;

/// A class at run time: an object of its own, which answers the class methods.
class VNTQ_EXPORT Class final : public NSObject {
public:
    using ObjectSelf = Class;
    static const ClassInfo kClass;
    static const Class& classObject();
    const Class& objectClass() const override { return classObject(); }

    /// The class of a table; the same object each time.
    static const Class& of(const ClassInfo& info);
    /// The class of that name, or null: every class of the library, and those of the host that have
    /// been used.
    [[nodiscard]] static const Class* named(std::string_view name);

    [[nodiscard]] std::string_view name() const noexcept { return info_.name; }
    /// Null for the root.
    [[nodiscard]] const Class* superclass() const noexcept { return superclass_; }
    [[nodiscard]] bool isSubclassOf(const Class& cls) const noexcept {
        return depth_ >= cls.depth_ && ancestors_[cls.depth_] == &cls;
    }
    [[nodiscard]] bool classConformsToProtocol(const Protocol& protocol) const noexcept;
    /// Whether instances answer `selector`.
    [[nodiscard]] bool instancesRespondToSelector(Selector selector) const;
    /// Whether the class itself answers `selector`.
    [[nodiscard]] bool respondsToSelector(Selector selector) const override;
    /// The properties declared on this class itself and by its categories, in table order.
    [[nodiscard]] std::vector<const PropertyInfo*> declaredProperties() const;
    /// The instance property of that name, declared here or inherited; null when there is none.
    [[nodiscard]] const PropertyInfo* propertyNamed(std::string_view name) const;
    /// The names of the categories that extend this class itself.
    [[nodiscard]] std::vector<std::string_view> categoryNames() const;
    /// A new instance; nil for an abstract class.
    [[nodiscard]] id alloc() const;

    [[nodiscard]] Ref<NSString> description() const override;

    /// The method that instances (or, for `classMethod`, the class) answer `selector` with.
    [[nodiscard]] const ResolvedMethod* methodFor(Selector selector, bool classMethod) const;

private:
    struct Tables;
    explicit Class(const ClassInfo& info);
    ~Class() override = default;
    const Tables& tables() const;
    static std::unique_ptr<Tables> resolve(const Class& cls);

    const ClassInfo& info_;
    const Class* superclass_;
    std::size_t depth_;
    std::vector<const Class*> ancestors_;  // from the root down to this class
    mutable std::atomic<const Tables*> tables_{nullptr};
};

namespace detail {

template <class Self>
NSObject* receiverObject(Self* self) {
    return self;
}

/// The receiver as the function wants it: `T&`, `const T&`, `T*` or, for class methods, the class.
template <class Receiver>
decltype(auto) receiverAs(NSObject* self) {
    using Object = std::remove_cv_t<std::remove_pointer_t<std::remove_cvref_t<Receiver>>>;
    if constexpr (std::is_pointer_v<std::remove_cvref_t<Receiver>>) {
        return static_cast<Object*>(self);
    } else {
        return *static_cast<Object*>(self);
    }
}

template <auto Function, class R, class... A>
struct BoundMethod {
    /// How `Function` is reached from a receiver: member, free function, or class method.
    template <class Call>
    struct With {
        using Wire = typename wire::Result<std::remove_cvref_t<R>>::Wire;

        static Wire invoke(NSObject* self, typename wire::Parameter<A>::Wire... wires) {
            if constexpr (std::is_void_v<R>) {
                Call::call(self, wire::Incoming<A>::from(wires)...);
            } else {
                return wire::outgoing<R>(Call::call(self, wire::Incoming<A>::from(wires)...));
            }
        }

        static std::optional<id> invokeBoxed(NSObject* self, std::span<const id> arguments) {
            if (arguments.size() != sizeof...(A)) {
                return std::nullopt;
            }
            return unpack(self, arguments, std::index_sequence_for<A...>());
        }

        static constexpr TypedImplementation<std::remove_cvref_t<R>, A...> implementation{&invoke};
        static constexpr std::array<wire::Acceptance, sizeof...(A)> parameters{
            wire::Incoming<A>::acceptance...};

        static constexpr MethodInfo info(std::string_view selector, bool isClassMethod) {
            return {selector,        wire::kSignature<std::remove_cvref_t<R>, A...>,
                    &implementation, &invokeBoxed,
                    parameters,      isClassMethod};
        }

    private:
        template <class P>
        static auto unbox(const id& argument) {
            using WireType = typename wire::Parameter<P>::Wire;
            if constexpr (std::is_arithmetic_v<WireType>) {
                return unbridge<WireType>(argument);
            } else if constexpr (wire::ScalarType<P>) {
                return std::optional<WireType>();  // selectors, ranges and places have no box
            } else {
                return wire::accepts(wire::Incoming<P>::acceptance, argument.get())
                           ? std::optional<NSObject*>(argument.get())
                           : std::nullopt;
            }
        }

        template <std::size_t... I>
        static std::optional<id> unpack([[maybe_unused]] NSObject* self,
                                        [[maybe_unused]] std::span<const id> arguments,
                                        std::index_sequence<I...>) {
            const std::tuple<std::optional<typename wire::Parameter<A>::Wire>...> values{
                unbox<A>(arguments[I])...};
            if (!(std::get<I>(values).has_value() && ...)) {
                return std::nullopt;
            }
            if constexpr (std::is_void_v<R>) {
                invoke(self, *std::get<I>(values)...);
                return id();
            } else if constexpr (std::is_arithmetic_v<Wire> || std::same_as<Wire, id>) {
                return bridge(invoke(self, *std::get<I>(values)...));
            } else {
                return std::nullopt;
            }
        }
    };
};

template <auto Function, class Type = decltype(Function)>
struct InstanceMethod;
template <auto Function, class C, class R, class... A>
struct MemberMethod {
    struct Call {
        static R call(NSObject* self, A... arguments) {
            return (static_cast<C*>(self)->*Function)(std::forward<A>(arguments)...);
        }
    };
    using Bound = typename BoundMethod<Function, R, A...>::template With<Call>;
};
template <auto Function, class C, class R, class... A>
struct InstanceMethod<Function, R (C::*)(A...)> : MemberMethod<Function, C, R, A...> {};
template <auto Function, class C, class R, class... A>
struct InstanceMethod<Function, R (C::*)(A...) const> : MemberMethod<Function, C, R, A...> {};
template <auto Function, class C, class R, class... A>
struct InstanceMethod<Function, R (C::*)(A...) noexcept> : MemberMethod<Function, C, R, A...> {};
template <auto Function, class C, class R, class... A>
struct InstanceMethod<Function, R (C::*)(A...) const noexcept>
    : MemberMethod<Function, C, R, A...> {};
template <auto Function, class Receiver, class R, class... A>
struct InstanceMethod<Function, R (*)(Receiver, A...)> {
    struct Call {
        static R call(NSObject* self, A... arguments) {
            return Function(receiverAs<Receiver>(self), std::forward<A>(arguments)...);
        }
    };
    using Bound = typename BoundMethod<Function, R, A...>::template With<Call>;
};
template <auto Function, class Receiver, class R, class... A>
struct InstanceMethod<Function, R (*)(Receiver, A...) noexcept>
    : InstanceMethod<Function, R (*)(Receiver, A...)> {};

template <auto Function, class Type = decltype(Function)>
struct StaticMethod;
template <auto Function, class R, class... A>
struct StaticMethod<Function, R (*)(A...)> {
    struct Call {
        static R call(NSObject*, A... arguments) { return Function(std::forward<A>(arguments)...); }
    };
    using Bound = typename BoundMethod<Function, R, A...>::template With<Call>;
};
template <auto Function, class R, class... A>
struct StaticMethod<Function, R (*)(const Class&, A...)> {
    struct Call {
        static R call(NSObject* self, A... arguments) {
            return Function(static_cast<const Class&>(*self), std::forward<A>(arguments)...);
        }
    };
    using Bound = typename BoundMethod<Function, R, A...>::template With<Call>;
};
template <auto Function, class R, class... A>
struct StaticMethod<Function, R (*)(A...) noexcept> : StaticMethod<Function, R (*)(A...)> {};

template <auto Function>
struct FormatMethod {
    static id invoke(NSObject*, NSObject* format, std::span<const FormatArgument> arguments) {
        return Function(wire::Incoming<const NSString&>::from(format), arguments);
    }
    static std::optional<id> invokeBoxed(NSObject* self, std::span<const id> arguments) {
        if (arguments.empty() || objectCast<NSString>(arguments[0]) == nullptr) {
            return std::nullopt;
        }
        std::vector<FormatArgument> rest(arguments.begin() + 1, arguments.end());
        return invoke(self, arguments[0].get(), rest);
    }
    struct Implementation {
        decltype(&invoke) function;
    };
    static constexpr Implementation implementation{&invoke};
    static constexpr wire::Acceptance parameters[] = {wire::Incoming<const NSString&>::acceptance};
};

template <class T>
constexpr auto allocator() -> id (*)() {
    // Not std::is_default_constructible, which wants a public destructor.
    if constexpr (requires { new T(); }) {
        return [] { return id(make<T>()); };
    } else {
        return nullptr;
    }
}

}  // namespace detail

/// An instance method: a member function, or a free function that takes the receiver first.
template <auto Function>
constexpr MethodInfo method(std::string_view selector) {
    return detail::InstanceMethod<Function>::Bound::info(selector, false);
}
/// A class method: a static function, which may take the receiving class as `const Class&` first.
template <auto Function>
constexpr MethodInfo classMethod(std::string_view selector) {
    return detail::StaticMethod<Function>::Bound::info(selector, true);
}
/// A class method that takes a format and arguments: `Ref<T>(const NSString&,
/// std::span<const FormatArgument>)`.
template <auto Function>
constexpr MethodInfo formatClassMethod(std::string_view selector) {
    using Bound = detail::FormatMethod<Function>;
    return {selector, "@@", &Bound::implementation, &Bound::invokeBoxed, Bound::parameters,
            true,     true};
}
/// A property with its getter, and its setter unless it is read-only.
template <auto Getter, auto Setter = nullptr>
constexpr PropertyInfo property(std::string_view name, std::string_view getterName = {}) {
    PropertyInfo info{name, method<Getter>(getterName.empty() ? name : getterName), {}};
    if constexpr (!std::is_null_pointer_v<decltype(Setter)>) {
        info.setter = method<Setter>({});
    }
    return info;
}
/// A read-only property of the class itself.
template <auto Getter>
constexpr PropertyInfo classProperty(std::string_view name) {
    return {name, classMethod<Getter>(name), {}};
}

}  // namespace vantorq

/// Defines the tables of a class; stands once, in a source file, at namespace scope. The rest of
/// the arguments is the initialiser of a `ClassTables`, in braces.
#define VNTQ_DEFINE_CLASS(Type, ...) VNTQ_DEFINE_CLASS_NAMED(Type, #Type, __VA_ARGS__)

/// The same for a class that the runtime knows by another name.
#define VNTQ_DEFINE_CLASS_NAMED(Type, Name, ...)                                                   \
    constinit const ::vantorq::ClassInfo Type::kClass{                                             \
        Name, &Type::ObjectSuper::classObject, ::vantorq::detail::allocator<Type>(), __VA_ARGS__}; \
    const ::vantorq::Class& Type::classObject() {                                                  \
        static const ::vantorq::Class& cls = ::vantorq::Class::of(kClass);                         \
        return cls;                                                                                \
    }
