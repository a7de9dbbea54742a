#include "Work.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>
#include <utility>

#include "Thread.h"
#include "VantorqFoundation/Platform/UnfairLock.h"

namespace vantorq {

namespace {

constexpr std::size_t kPageSize = 4096;

/// The memory of as many pieces of work as fit into a page.
///
/// A thread allocates from a block of its own, one piece after the other: that takes no lock, and
/// the work that passes through a queue lies side by side in memory. A block whose pieces have all
/// been given back, by whichever threads, is used again by the thread that needs one next.
struct WorkBlock {
    // Together with its own header and that of the allocator a block fills one page.
    static constexpr std::uint32_t kCapacity = kPageSize / sizeof(Work) - 2;

    std::atomic<std::uint32_t> outstanding{kCapacity};
    WorkBlock* nextFree = nullptr;
    std::array<Work, kCapacity> works;

    static WorkBlock& of(Work& work) noexcept {
        const auto address = reinterpret_cast<std::uintptr_t>(&work);
        return *reinterpret_cast<WorkBlock*>(address & ~(kPageSize - 1));
    }
    static void* operator new(std::size_t size) {
        return ::operator new(size, std::align_val_t{kPageSize});
    }
    static void operator delete(void* memory) noexcept {
        ::operator delete(memory, std::align_val_t{kPageSize});
    }
};
static_assert(sizeof(WorkBlock) <= kPageSize - sizeof(Work));

/// The blocks that nobody uses; a few megabytes at most, the rest goes back to the system.
class FreeBlocks {
public:
    WorkBlock& take() {
        {
            const std::lock_guard guard(lock_);
            if (WorkBlock* block = first_) {
                first_ = block->nextFree;
                --count_;
                return *block;
            }
        }
        return *new WorkBlock;
    }

    void put(WorkBlock& block) noexcept {
        block.outstanding.store(WorkBlock::kCapacity, std::memory_order_relaxed);
        {
            const std::lock_guard guard(lock_);
            if (count_ < kMost) {
                block.nextFree = first_;
                first_ = &block;
                ++count_;
                return;
            }
        }
        delete &block;
    }

private:
    static constexpr std::uint32_t kMost = 2048;

    UnfairLock lock_;
    WorkBlock* first_ = nullptr;
    std::uint32_t count_ = 0;
};

constinit FreeBlocks freeBlocks;

void giveBack(WorkBlock& block, std::uint32_t count) noexcept {
    if (block.outstanding.fetch_sub(count, std::memory_order_acq_rel) == count) {
        freeBlocks.put(block);
    }
}

/// The block that the thread allocates from.
struct ThreadBlock {
    WorkBlock* block;
    std::uint32_t used;
};
[[gnu::tls_model("initial-exec")]] constinit thread_local ThreadBlock threadBlock{nullptr, 0};

void giveBackRest(void*) noexcept {
    WorkBlock& block = *std::exchange(threadBlock.block, nullptr);
    if (threadBlock.used < WorkBlock::kCapacity) {
        giveBack(block, WorkBlock::kCapacity - threadBlock.used);
    }
}

[[gnu::noinline]] Work& allocateFromNewBlock() {
    threadBlock = {&freeBlocks.take(), 1};
    atThreadEnd<&giveBackRest>(&threadBlock);
    return threadBlock.block->works[0];
}

}  // namespace

Work& detail::allocateWork() {
    if (threadBlock.block == nullptr || threadBlock.used == WorkBlock::kCapacity) [[unlikely]] {
        return allocateFromNewBlock();
    }
    return threadBlock.block->works[threadBlock.used++];
}

void recycleWork(Work& work) noexcept {
    giveBack(WorkBlock::of(work), 1);
}

}  // namespace vantorq
