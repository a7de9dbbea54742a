#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "NSObject.h"
#include "Signature.h"

namespace vantorq {

/// The object that a block is on the untyped side. Made by `Block`; immutable, so copying one is
/// sharing it. Calling it is as thread-safe as the function inside.
class VNTQ_EXPORT NSBlock : public NSObject {
    VNTQ_OBJECT(NSBlock, NSObject)
public:
    /// The encoding of what the block takes and gives (see Signature.h).
    [[nodiscard]] const char* signature() const noexcept { return signature_; }
    [[nodiscard]] id copyWithZone(void* zone) const override;

protected:
    NSBlock(const char* signature, void (*invoke)()) noexcept
        : invoke_(invoke), signature_(signature) {}
    ~NSBlock() override = default;

private:
    template <class>
    friend class Block;

    void (*invoke_)();  // a Block<F>::Invoke, where F agrees with signature_
    const char* signature_;
};

/// A function that is an object: what callbacks are stored in, and how a lambda travels to the
/// untyped side.
///
/// A `Block` is a nullable, pointer-sized handle. Making one from a callable costs one allocation,
/// which holds the callable itself; copying a handle shares it. Calling an empty block traps.
///
///     Block<NSInteger(NSInteger)> twice = [](NSInteger n) { return 2 * n; };
///     id object = twice;                                     // as any other object
///     auto again = Block<NSInteger(NSInteger)>::from(object);  // empty if it takes something else
template <class R, class... A>
class Block<R(A...)> {
    using WireResult = typename wire::Result<R>::Wire;
    using Invoke = WireResult (*)(const NSBlock*, typename wire::Parameter<A>::Wire...);

public:
    static constexpr const char* kSignature = wire::kSignature<R, A...>;

    constexpr Block() noexcept = default;
    constexpr Block(std::nullptr_t) noexcept {}
    template <class F>
        requires(!std::same_as<std::remove_cvref_t<F>, Block> &&
                 std::is_invocable_r_v<R, const std::decay_t<F>&, A...>)
    Block(F&& function)
        : object_(Ref<NSBlock>::adopt(new Holder<std::decay_t<F>>(std::forward<F>(function)))) {}

    /// The block behind an object; empty when it is nil, no block, or of another signature.
    [[nodiscard]] static Block from(const id& object) {
        return wire::accepts({nullptr, kSignature, true, true}, object.get())
                   ? adoptChecked(object.get())
                   : Block();
    }
    /// For an object that is known to be nil or such a block.
    [[nodiscard]] static Block adoptChecked(NSObject* object) noexcept {
        Block block;
        block.object_ = Ref<NSBlock>(static_cast<NSBlock*>(object));
        return block;
    }
    /// Takes over the handle's count.
    [[nodiscard]] static Block adopt(Ref<NSBlock> object) noexcept {
        Block block;
        block.object_ = std::move(object);
        return block;
    }

    explicit operator bool() const noexcept { return object_ != nullptr; }
    friend bool operator==(const Block&, const Block&) noexcept = default;
    operator id() const noexcept { return object_; }
    [[nodiscard]] const Ref<NSBlock>& object() const noexcept { return object_; }
    [[nodiscard]] Ref<NSBlock> takeObject() noexcept { return std::move(object_); }

    R operator()(A... arguments) const {
        if (object_ == nullptr) [[unlikely]] {
            VNTQ_TRAP("Block: an empty block was called");
        }
        return call(*object_, std::forward<A>(arguments)...);
    }

    /// Calls a block object that is known to have this signature, without taking a handle.
    static R call(const NSBlock& block, A... arguments) {
        const auto invoke = reinterpret_cast<Invoke>(block.invoke_);
        if constexpr (std::is_void_v<R>) {
            invoke(&block, outgoingArgument<A>(arguments)...);
        } else if constexpr (wire::ScalarType<R>) {
            return static_cast<R>(invoke(&block, outgoingArgument<A>(arguments)...));
        } else {
            return wire::Incoming<R>::from(invoke(&block, outgoingArgument<A>(arguments)...).get());
        }
    }

private:
    template <class P>
    static typename wire::Parameter<P>::Wire outgoingArgument(
        std::remove_reference_t<P>& argument) {
        using Bare = std::remove_cvref_t<P>;
        if constexpr (wire::ScalarType<P>) {
            return static_cast<typename wire::Parameter<P>::Wire>(argument);
        } else if constexpr (wire::IsRef<Bare>::value) {
            return argument.get();
        } else if constexpr (wire::IsBlock<Bare>::value) {
            return argument.object().get();
        } else if constexpr (std::is_pointer_v<Bare>) {
            return const_cast<std::remove_const_t<std::remove_pointer_t<Bare>>*>(argument);
        } else {
            return const_cast<Bare*>(&argument);
        }
    }

    template <class F>
    class Holder final : public NSBlock {
    public:
        template <class G>
        explicit Holder(G&& function)
            : NSBlock(kSignature, reinterpret_cast<void (*)()>(&invoke)),
              function_(std::forward<G>(function)) {}

    private:
        static WireResult invoke(const NSBlock* self, typename wire::Parameter<A>::Wire... wires) {
            const F& function = static_cast<const Holder*>(self)->function_;
            if constexpr (std::is_void_v<R>) {
                std::invoke(function, wire::Incoming<A>::from(wires)...);
            } else {
                return wire::outgoing<R>(
                    std::invoke_r<R>(function, wire::Incoming<A>::from(wires)...));
            }
        }

        F function_;
    };

    Ref<NSBlock> object_;
};

namespace detail {

/// The function type of a callable with one, non-generic call operator.
template <class F>
struct CallSignature {};
template <class F>
    requires requires { &F::operator(); }
struct CallSignature<F> : CallSignature<decltype(&F::operator())> {};
template <class C, class R, class... A>
struct CallSignature<R (C::*)(A...) const> {
    using Type = R(A...);
};
template <class C, class R, class... A>
struct CallSignature<R (C::*)(A...) const noexcept> {
    using Type = R(A...);
};
template <class R, class... A>
struct CallSignature<R (*)(A...)> {
    using Type = R(A...);
};

template <class F>
concept PlainCallable = !wire::IsBlock<F>::value && requires { typename CallSignature<F>::Type; };

}  // namespace detail

}  // namespace vantorq
