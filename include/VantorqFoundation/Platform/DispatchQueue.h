#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "Block.h"
#include "Export.h"
#include "NSObject.h"
#include "NSString.h"

namespace vantorq {

class DispatchQueue;
class DispatchWorkItem;

/// How urgent work is. Higher ones go first; lower ones keep a small share, so that they never
/// starve.
enum class DispatchQoS : std::uint32_t {
    background = 0x09,
    utility = 0x11,
    default_ = 0x15,
    userInitiated = 0x19,
    userInteractive = 0x21,
};

namespace detail {

/// One piece of queued work: a callable with what it captures, in one cache line.
struct alignas(64) Work {
    static constexpr std::size_t kCapacity = 48;
    static constexpr std::size_t kAlignment = 16;

    void (*run)(Work&) noexcept = nullptr;  ///< calls the callable, once, and destroys it
    union {
        Work* next = nullptr;  ///< while it waits in a serial queue
        DispatchQueue* queue;  ///< while it is in the pool: whose work it is
    };
    alignas(kAlignment) std::byte storage[kCapacity];
};

/// Memory for one piece of work; whoever runs it gives it back.
VNTQ_EXPORT Work& allocateWork();

template <class F>
Work& makeWork(F&& function) {
    using Function = std::decay_t<F>;
    if constexpr (sizeof(Function) <= Work::kCapacity && alignof(Function) <= Work::kAlignment &&
                  std::is_nothrow_constructible_v<Function, F>) {
        Work& work = allocateWork();
        ::new (static_cast<void*>(work.storage)) Function(std::forward<F>(function));
        work.run = [](Work& self) noexcept {
            auto* callable = std::launder(reinterpret_cast<Function*>(self.storage));
            std::invoke(*callable);
            std::destroy_at(callable);
        };
        return work;
    } else {
        return makeWork([boxed = std::make_unique<Function>(std::forward<F>(function))] {
            std::invoke(*boxed);
        });
    }
}

}  // namespace detail

/// Runs work on threads of the process's pool, or on the main thread.
///
///     DispatchQueue::global()->async([image] { image->decode(); });
///     auto writer = DispatchQueue::serial("writer");
///     writer->async([=] { file->append(record); });
///     auto size = writer->sync([=] { return file->size(); });
///
/// - The global queues, one for each quality of service, run their work side by side. They start it
///   in order, but for work that is queued by work: a few pieces of that may go first, on the same
///   thread, while what they share is at hand. Own concurrent queues do the same under a label.
/// - A serial queue runs one piece of work at a time, strictly in order.
/// - The main queue is a serial queue whose work runs on the main thread, whenever that turns its
///   run loop in a common mode.
///
/// The pool starts its threads on first use, as many as the machine runs at a time, and more when
/// queued work waits because those are blocked (256 at most). Threads that had nothing to do for a
/// second end. All signals are blocked in them. The end of the process does not wait for them: what
/// is queued then may not run, and what runs may be cut off.
///
/// Work is any callable without arguments, also a move-only one or a `Block`; a result is dropped.
/// Callables of up to 48 bytes cost no allocation in the long run. A callable is destroyed on the
/// thread that ran it. An exception that leaves it ends the process (`std::terminate`). No lock is
/// held while it runs. A queue with work to do stays alive.
///
/// Threads: any.
class VNTQ_EXPORT DispatchQueue : public NSObject {
    VNTQ_OBJECT(DispatchQueue, NSObject)
public:
    // Getting queues.

    [[nodiscard]] static Ref<DispatchQueue> main();
    [[nodiscard]] static Ref<DispatchQueue> global(DispatchQoS qos = DispatchQoS::default_);
    /// The global queue for the numeric value of a `DispatchQoS`; nil for other numbers.
    [[nodiscard]] static Ref<DispatchQueue> globalQueueWithQualityOfService(NSUInteger qos);
    [[nodiscard]] static Ref<DispatchQueue> serial(std::string_view label,
                                                   DispatchQoS qos = DispatchQoS::default_);
    [[nodiscard]] static Ref<DispatchQueue> concurrent(std::string_view label,
                                                       DispatchQoS qos = DispatchQoS::default_);
    /// The queue that the calling code runs on: the main queue on the main thread, unless it runs
    /// work of another; null on a thread of the host's own. Valid while that work runs.
    [[nodiscard]] static DispatchQueue* current() noexcept;
    /// Whether the caller is on the thread that the process began with.
    [[nodiscard]] static bool isMainThread() noexcept;

    // Giving work.

    /// Queues `function` and returns.
    template <class F>
        requires std::invocable<std::decay_t<F>&>
    void async(F&& function) {
        enqueue(detail::makeWork(std::forward<F>(function)));
    }
    /// Queues one execution of `item`, and keeps it alive until then.
    void async(DispatchWorkItem& item);

    /// Queues `function` when `seconds` have passed; at once for 0, a negative number, or NaN, and
    /// never for infinity. It may be late by a hundredth of the time, 50 ms at most.
    template <class F>
        requires std::invocable<std::decay_t<F>&>
    void asyncAfter(double seconds, F&& function) {
        enqueueAfter(seconds, detail::makeWork(std::forward<F>(function)));
    }
    void asyncAfter(double seconds, DispatchWorkItem& item);

    /// Runs `function` as work of this queue, waits for it, and returns its result. On an idle
    /// serial queue and on a concurrent one it runs in place, on the calling thread; else where its
    /// turn comes, for the main queue on the main thread. Traps on a serial queue whose work the
    /// caller is part of, and for the main queue on the main thread: it would wait for itself. An
    /// exception that leaves `function` ends the process.
    template <class F>
        requires std::invocable<F&>
    std::invoke_result_t<F&> sync(F&& function) {
        using Result = std::invoke_result_t<F&>;
        if constexpr (std::is_void_v<Result>) {
            callAndWait([&] { std::invoke(function); });
        } else {
            std::optional<Result> result;
            callAndWait([&] { result.emplace(std::invoke(function)); });
            return std::move(*result);
        }
    }

    [[nodiscard]] Ref<NSString> label() const { return label_; }
    [[nodiscard]] DispatchQoS qos() const noexcept { return qos_; }
    /// "<DispatchQueue: label>".
    [[nodiscard]] Ref<NSString> description() const override;

    /// Takes over `work`. What the templates above come down to.
    virtual void enqueue(detail::Work& work) = 0;

protected:
    DispatchQueue(std::string_view label, DispatchQoS qos)
        : label_(NSString::string(label)), qos_(qos) {}
    ~DispatchQueue() override = default;

    /// Calls `function(context)` as work of this queue and returns when it is done.
    virtual void runAndWait(void (*function)(void*) noexcept, void* context) = 0;

private:
    template <class Call>
    void callAndWait(Call call) {
        runAndWait([](void* context) noexcept { (*static_cast<Call*>(context))(); }, &call);
    }
    void enqueueAfter(double seconds, detail::Work& work);

    Ref<NSString> label_;
    DispatchQoS qos_;
};

}  // namespace vantorq
