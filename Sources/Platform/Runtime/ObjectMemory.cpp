#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>
#include <utility>

#include "Sources/Platform/Dispatch/Thread.h"
#include "VantorqFoundation/Platform/RefCounted.h"
#include "VantorqFoundation/Platform/UnfairLock.h"

namespace vantorq {

namespace {

// The sanitizers find a use of freed memory only while it is not used again.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kKeepsMemory = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kKeepsMemory = false;
#else
constexpr bool kKeepsMemory = true;
#endif
#else
constexpr bool kKeepsMemory = true;
#endif

constexpr std::size_t kGranularity = 16;
constexpr std::size_t kLargest = 512;
constexpr std::size_t kClassCount = kLargest / kGranularity;

constexpr std::size_t sizeClass(std::size_t size) noexcept {
    return (size - 1) / kGranularity;
}

/// The memory of an object that is gone. Each piece was allocated by itself, so that any of them
/// can go back to the system at any time.
struct Piece {
    Piece* next;
    Piece* nextStack;  // of the first piece of a stack
};
static_assert(sizeof(Piece) <= kGranularity);

/// Pieces of one size, the one that was freed last first: it may still be in the cache.
struct Stack {
    static constexpr std::uint32_t kCapacity = 32;

    Piece* top = nullptr;
    std::uint32_t count = 0;

    void push(void* memory) noexcept {
        top = ::new (memory) Piece{top, nullptr};
        ++count;
    }
    void* pop() noexcept {
        --count;
        return std::exchange(top, top->next);
    }
    void freeAll() noexcept {
        while (count > 0) {
            ::operator delete(pop());
        }
    }
};

/// The full stacks that no thread holds; an object is often made by one thread and freed by
/// another. Holds a bounded amount of memory for each size.
class Depot {
public:
    /// A full stack, or an empty one.
    Stack take() noexcept {
        const std::lock_guard guard(lock_);
        if (first_ == nullptr) {
            return {};
        }
        --count_;
        Piece* const top = first_;
        first_ = top->nextStack;
        return {top, Stack::kCapacity};
    }

    void put(Stack full, std::size_t pieceSize) noexcept {
        {
            const std::lock_guard guard(lock_);
            if (count_ * Stack::kCapacity * pieceSize < kMostBytes) {
                full.top->nextStack = std::exchange(first_, full.top);
                ++count_;
                return;
            }
        }
        full.freeAll();
    }

private:
    static constexpr std::size_t kMostBytes = std::size_t{2} << 20;

    alignas(64) UnfairLock lock_;
    Piece* first_ = nullptr;
    std::size_t count_ = 0;
};

constinit std::array<Depot, kClassCount> depots;

/// A thread's own pieces of one size: what it allocates from and frees to, without a lock. The
/// spare stack is full or empty; it keeps a thread that goes to and fro across the end of a stack
/// away from the depot.
struct Bin {
    Stack stack;
    Stack spare;
};

struct ThreadCache {
    std::array<Bin, kClassCount> bins;
    std::uint64_t takings;  // how often a bin has served an allocation
    bool isOpen;
    bool hasEnded;
};
[[gnu::tls_model("initial-exec")]] constinit thread_local ThreadCache threadCache{};

void closeCache(void*) noexcept {
    threadCache.isOpen = false;
    threadCache.hasEnded = true;
    for (Bin& bin : threadCache.bins) {
        bin.stack.freeAll();
        bin.spare.freeAll();
    }
}

/// False when the thread is about to end.
[[gnu::noinline]] bool openCache() noexcept {
    if (threadCache.hasEnded) {
        return false;
    }
    atThreadEnd<&closeCache>(&threadCache);
    threadCache.isOpen = true;
    return true;
}

void* takeFrom(Bin& bin) noexcept {
    ++threadCache.takings;
    return bin.stack.pop();
}

[[gnu::noinline]] void* allocateFromDepot(Bin& bin, std::size_t index) {
    const bool isOpen = threadCache.isOpen || openCache();
    bin.stack =
        bin.spare.count > 0 || !isOpen ? std::exchange(bin.spare, {}) : depots[index].take();
    return bin.stack.count > 0 ? takeFrom(bin) : ::operator new((index + 1) * kGranularity);
}

[[gnu::noinline]] void makeRoom(Bin& bin, std::size_t index) noexcept {
    if (bin.spare.count > 0) {
        depots[index].put(bin.spare, (index + 1) * kGranularity);
    }
    bin.spare = std::exchange(bin.stack, {});
}

}  // namespace

void* detail::allocateObject(std::size_t size) {
    if (!kKeepsMemory || size > kLargest) {
        return ::operator new(size);
    }
    const std::size_t index = sizeClass(size);
    Bin& bin = threadCache.bins[index];
    return bin.stack.count > 0 ? takeFrom(bin) : allocateFromDepot(bin, index);
}

std::uint64_t detail::reuseCount() noexcept {
    return threadCache.takings;
}

void detail::freeObject(void* memory, std::size_t size) noexcept {
    if (!kKeepsMemory || size > kLargest || (!threadCache.isOpen && !openCache())) {
        ::operator delete(memory);
        return;
    }
    const std::size_t index = sizeClass(size);
    Bin& bin = threadCache.bins[index];
    if (bin.stack.count == Stack::kCapacity) {
        makeRoom(bin, index);
    }
    bin.stack.push(memory);
}

}  // namespace vantorq
