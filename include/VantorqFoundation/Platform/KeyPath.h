#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <tuple>
#include <type_traits>
#include <utility>

#include "Export.h"

/// Members named by value: paths that lead from an object to something inside it, can be stored,
/// compared and hashed, and read or write what they lead to.
///
///     struct Address { std::string street; };
///     struct Person { Address address; };
///
///     constexpr auto street = keyPath<&Person::address, &Address::street>();
///     Person ada;
///     street.in(ada) = "St James's Square";
///     std::string read = street(ada);
///     PartialKeyPath<Person> any = street;  // a key, whatever type it leads to
///
/// Two paths are equal when they are made of the same members in the same order. A step is a data
/// member, or a const member function without parameters; only paths of data members that are not
/// const can write. A path is one pointer. Threads: any.
namespace vantorq {

namespace detail {

template <auto Member, class Object>
constexpr decltype(auto) follow(Object&& object) {
    return std::invoke(Member, std::forward<Object>(object));
}
template <auto First, auto... Rest, class Object>
    requires(sizeof...(Rest) > 0)
constexpr decltype(auto) follow(Object&& object) {
    return follow<Rest...>(std::invoke(First, std::forward<Object>(object)));
}

template <class Member>
struct MemberOf;
template <class Object, class Type>
struct MemberOf<Type Object::*> {
    using Root = Object;
};

/// What a path consists of. There is one for each chain of members in the process, so its address
/// is the chain's identity.
template <class Root, class Value>
struct KeyPathSteps {
    Value (*read)(const Root&);
    Value* (*place)(Root&);  ///< null when the path only reads
};

template <auto... Members>
struct KeyPathTo {
    static consteval auto first() {
        return std::get<0>(std::tuple<decltype(Members)...>(Members...));
    }
    using Root = typename MemberOf<decltype(first())>::Root;
    using Read = decltype(follow<Members...>(std::declval<const Root&>()));
    using Value = std::remove_cvref_t<Read>;
    static constexpr bool kIsWritable = [] {
        if constexpr ((std::is_member_object_pointer_v<decltype(Members)> && ...)) {
            return std::is_same_v<decltype(follow<Members...>(std::declval<Root&>())), Value&>;
        } else {
            return false;
        }
    }();

    static Value read(const Root& root) { return follow<Members...>(root); }
    static Value* place(Root& root)
        requires kIsWritable
    {
        return &follow<Members...>(root);
    }
    static constexpr KeyPathSteps<Root, Value> steps() {
        if constexpr (kIsWritable) {
            return {&read, &place};
        } else {
            return {&read, nullptr};
        }
    }
};

/// Visible to all, so that every shared library means the same one.
template <auto... Members>
VNTQ_EXPORT inline constexpr auto kKeyPathSteps = KeyPathTo<Members...>::steps();

}  // namespace detail

/// A path that begins at a `Root` and leads to something of any type.
template <class Root>
class PartialKeyPath {
public:
    /// A path that begins at a base class: the same path. (A member that is inherited is, for the
    /// language, one of the class that declares it.)
    template <class Base>
        requires(std::derived_from<Root, Base> && !std::same_as<Root, Base>)
    constexpr PartialKeyPath(const PartialKeyPath<Base>& path) noexcept : steps_(path.steps_) {}

    friend constexpr bool operator==(const PartialKeyPath&,
                                     const PartialKeyPath&) noexcept = default;
    [[nodiscard]] std::size_t hash() const noexcept { return std::hash<const void*>()(steps_); }

protected:
    constexpr explicit PartialKeyPath(const void* steps) noexcept : steps_(steps) {}
    [[nodiscard]] constexpr const void* steps() const noexcept { return steps_; }

private:
    template <class>
    friend class PartialKeyPath;

    const void* steps_;
};

/// A path from a `Root` to a `Value`.
template <class Root, class Value>
class KeyPath : public PartialKeyPath<Root> {
public:
    /// A copy of the value.
    [[nodiscard]] Value operator()(const Root& root) const { return to().read(root); }

protected:
    using Steps = detail::KeyPathSteps<Root, Value>;
    constexpr explicit KeyPath(const Steps& steps) noexcept : PartialKeyPath<Root>(&steps) {}
    [[nodiscard]] const Steps& to() const noexcept {
        return *static_cast<const Steps*>(this->steps());
    }

private:
    template <auto... Members>
    friend constexpr auto keyPath() noexcept;
};

/// A path whose end can be written.
template <class Root, class Value>
class WritableKeyPath : public KeyPath<Root, Value> {
public:
    /// The value itself.
    [[nodiscard]] Value& in(Root& root) const { return *this->to().place(root); }

private:
    using KeyPath<Root, Value>::KeyPath;
    template <auto... Members>
    friend constexpr auto keyPath() noexcept;
};

/// The path that follows these members one after the other: a `WritableKeyPath` where its end can
/// be written, else a `KeyPath`.
template <auto... Members>
[[nodiscard]] constexpr auto keyPath() noexcept {
    using To = detail::KeyPathTo<Members...>;
    using Path =
        std::conditional_t<To::kIsWritable, WritableKeyPath<typename To::Root, typename To::Value>,
                           KeyPath<typename To::Root, typename To::Value>>;
    return Path(detail::kKeyPathSteps<Members...>);
}

}  // namespace vantorq

template <class Root>
struct std::hash<vantorq::PartialKeyPath<Root>> {
    std::size_t operator()(const vantorq::PartialKeyPath<Root>& path) const noexcept {
        return path.hash();
    }
};
