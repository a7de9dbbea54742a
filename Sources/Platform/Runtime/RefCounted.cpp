#include "VantorqFoundation/Platform/RefCounted.h"

#include <memory>

#include "Sources/Platform/Concurrency/SpinPause.h"
#include "Sources/Platform/Dispatch/Thread.h"

namespace vantorq {

namespace detail {

/// Records live in chunks that are never given back, so that an index or a stale free-list link
/// always leads to a record. A record is owned by its object and by every weak handle.
struct SideRecord {
    std::atomic<std::uint32_t> owners{0};
    std::atomic<std::uint32_t> nextFree{0};
    std::atomic<bool> locked{false};
    std::uint32_t index = 0;
    const RefCounted* object = nullptr;            // guarded by `locked`
    std::atomic<RefCounted*> attachment{nullptr};  // owned; set once

    void lock() noexcept {
        while (locked.exchange(true, std::memory_order_acquire)) {
            spinPause();
        }
    }
    void unlock() noexcept { locked.store(false, std::memory_order_release); }

    static SideRecord& at(std::uint32_t index) noexcept;
    /// With two owners, the object and the caller.
    static SideRecord* allocate(const RefCounted* object) noexcept;
    static void free(SideRecord& record) noexcept;
    static void abandon(SideRecord& record) noexcept;
};

}  // namespace detail

using detail::SideRecord;

namespace {

constexpr std::uint32_t kChunkBits = 12;
constexpr std::uint32_t kChunkSize = 1U << kChunkBits;
constexpr std::uint32_t kChunks = 1U << 16;
static_assert(kChunks * kChunkSize <= 1U << 31, "an index is to fit beside the attachment's flag");

constinit std::atomic<SideRecord*> chunks[kChunks] = {};
constinit std::atomic<std::uint32_t> nextUnused{1};  // index 0 means "no record"

SideRecord* chunk(std::uint32_t number) noexcept {
    SideRecord* records = chunks[number].load(std::memory_order_acquire);
    if (records == nullptr) {
        auto fresh = std::make_unique<SideRecord[]>(kChunkSize);
        if (chunks[number].compare_exchange_strong(records, fresh.get(),
                                                   std::memory_order_acq_rel)) {
            records = fresh.release();
        }
    }
    return records;
}

/// Records that are free, the one that was freed last first.
class alignas(64) FreeList {
public:
    void push(SideRecord& record) noexcept {
        std::uint64_t head = head_.load(std::memory_order_relaxed);
        do {
            record.nextFree.store(static_cast<std::uint32_t>(head), std::memory_order_relaxed);
        } while (!head_.compare_exchange_weak(head, (head >> 32 << 32) | record.index,
                                              std::memory_order_release));
    }
    /// 0 when there is none.
    std::uint32_t pop() noexcept {
        std::uint64_t head = head_.load(std::memory_order_acquire);
        while (static_cast<std::uint32_t>(head) != 0) {
            const auto index = static_cast<std::uint32_t>(head);
            const std::uint64_t next =
                SideRecord::at(index).nextFree.load(std::memory_order_relaxed) |
                (((head >> 32) + 1) << 32);
            if (head_.compare_exchange_weak(head, next, std::memory_order_acquire)) {
                return index;
            }
        }
        return 0;
    }

private:
    // Low half: index of the first record. High half: a turn count against reuse while popping.
    std::atomic<std::uint64_t> head_{0};
};

/// A thread keeps to one list, so that threads seldom meet, and takes from the others when its own
/// has run out.
constexpr std::uint32_t kFreeLists = 16;
constinit FreeList freeLists[kFreeLists];

std::uint32_t popFree() noexcept {
    const std::uint32_t own = threadNumber();
    for (std::uint32_t i = 0; i < kFreeLists; ++i) {
        if (const std::uint32_t index = freeLists[(own + i) % kFreeLists].pop(); index != 0) {
            return index;
        }
    }
    return 0;
}

/// The records that the thread has freed last, and that it takes first: without a lock, and still
/// in its cache.
class OwnFree {
public:
    /// False when there is no room, or not yet, or no more.
    bool push(SideRecord& record) noexcept {
        if (!isOpen_ || count_ == kMost) {
            return false;
        }
        record.nextFree.store(first_, std::memory_order_relaxed);
        first_ = record.index;
        ++count_;
        return true;
    }
    /// Null when there is none.
    SideRecord* pop() noexcept {
        if (count_ == 0) {
            return nullptr;
        }
        --count_;
        SideRecord& record = SideRecord::at(first_);
        first_ = record.nextFree.load(std::memory_order_relaxed);
        return &record;
    }
    void open() noexcept {
        if (!isOpen_ && !hasEnded_) {
            atThreadEnd<&OwnFree::close>(this);
            isOpen_ = true;
        }
    }

private:
    static constexpr std::uint32_t kMost = 16;

    static void close(void* self) noexcept {
        auto& own = *static_cast<OwnFree*>(self);
        own.isOpen_ = false;
        own.hasEnded_ = true;
        while (SideRecord* record = own.pop()) {
            SideRecord::free(*record);
        }
    }

    std::uint32_t first_ = 0;
    std::uint32_t count_ = 0;
    bool isOpen_ = false;
    bool hasEnded_ = false;
};
[[gnu::tls_model("initial-exec")]] constinit thread_local OwnFree ownFree;

[[gnu::noinline]] void freeToList(SideRecord& record) noexcept {
    ownFree.open();
    freeLists[threadNumber() % kFreeLists].push(record);
}

[[gnu::noinline]] SideRecord& takeFromList() {
    std::uint32_t index = popFree();
    if (index == 0) {
        index = nextUnused.fetch_add(1, std::memory_order_relaxed);
        if (index >= kChunks * kChunkSize) {
            VNTQ_TRAP("RefCounted: too many objects have weak handles");
        }
        (void)chunk(index >> kChunkBits);
    }
    SideRecord& record = SideRecord::at(index);
    record.index = index;
    return record;
}

}  // namespace

SideRecord& SideRecord::at(std::uint32_t index) noexcept {
    return chunks[index >> kChunkBits].load(std::memory_order_acquire)[index & (kChunkSize - 1)];
}

SideRecord* SideRecord::allocate(const RefCounted* object) noexcept {
    SideRecord* const own = ownFree.pop();
    SideRecord& record = own != nullptr ? *own : takeFromList();
    record.object = object;
    record.owners.store(2, std::memory_order_relaxed);
    return &record;
}

void SideRecord::free(SideRecord& record) noexcept {
    if (!ownFree.push(record)) {
        freeToList(record);
    }
}

/// Cuts the record off its object, which is about to be destroyed.
void SideRecord::abandon(SideRecord& record) noexcept {
    const auto attached = Ref<RefCounted>::adopt(record.attachment.load(std::memory_order_relaxed));
    record.attachment.store(nullptr, std::memory_order_relaxed);
    if (record.owners.load(std::memory_order_acquire) == 1) {
        free(record);  // no weak handle is left that might look
        return;
    }
    record.lock();
    record.object = nullptr;
    record.unlock();
    detail::releaseSide(&record);
}

/// The object's record, made when there is none, with a new count for the caller.
SideRecord* RefCounted::retainedSide() const noexcept {
    std::uint64_t bits = bits_.load(std::memory_order_acquire);
    SideRecord* fresh = nullptr;
    while (sideIndex(bits) == 0) {
        if (fresh == nullptr) {
            fresh = SideRecord::allocate(this);
        }
        const std::uint64_t wanted = bits | (std::uint64_t{fresh->index} << kSideShift);
        if (bits_.compare_exchange_weak(bits, wanted, std::memory_order_acq_rel)) {
            return fresh;
        }
    }
    if (fresh != nullptr) {
        SideRecord::free(*fresh);
    }
    SideRecord& record = SideRecord::at(sideIndex(bits));
    detail::retainSide(&record);
    return &record;
}

RefCounted* RefCounted::attachment() const noexcept {
    const std::uint64_t bits = bits_.load(std::memory_order_acquire);
    return (bits & kHasAttachment) == 0
               ? nullptr
               : SideRecord::at(sideIndex(bits)).attachment.load(std::memory_order_acquire);
}

RefCounted* RefCounted::setAttachmentOnce(RefCounted* attachment) const noexcept {
    SideRecord* const record = retainedSide();
    RefCounted* current = nullptr;
    if (record->attachment.compare_exchange_strong(current, attachment,
                                                   std::memory_order_acq_rel)) {
        attachment->retain();
        current = attachment;
    }
    // Also by a thread whose attachment came second, which may look before the first gets here.
    bits_.fetch_or(kHasAttachment, std::memory_order_acq_rel);
    detail::releaseSide(record);
    return current;
}

void RefCounted::dispose() const noexcept {
    const std::uint32_t index = sideIndex(bits_.load(std::memory_order_relaxed));
    bits_.store(kDeallocating, std::memory_order_relaxed);
    if (index != 0) {
        SideRecord::abandon(SideRecord::at(index));
    }
    delete this;
}

namespace detail {

SideRecord* weakSide(const RefCounted* object) noexcept {
    const std::uint32_t owners = object->ownerCount();
    if (owners >= RefCounted::kDeallocating && !RefCounted::isImmortal(owners)) {
        return nullptr;  // an object that is being destroyed cannot be referred to again
    }
    return object->retainedSide();
}

void retainSide(SideRecord* side) noexcept {
    side->owners.fetch_add(1, std::memory_order_relaxed);
}

void releaseSide(SideRecord* side) noexcept {
    if (side->owners.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        SideRecord::free(*side);
    }
}

const RefCounted* lockSide(SideRecord* side) noexcept {
    side->lock();
    const RefCounted* object = side->object;
    if (object != nullptr) {
        std::uint64_t bits = object->bits_.load(std::memory_order_relaxed);
        while (!RefCounted::isImmortal(bits)) {
            const auto owners = static_cast<std::uint32_t>(bits);
            if (owners == 0 || owners >= RefCounted::kDeallocating) {
                object = nullptr;
                break;
            }
            if (object->bits_.compare_exchange_weak(bits, bits + 1, std::memory_order_relaxed)) {
                break;
            }
        }
    }
    side->unlock();
    return object;
}

}  // namespace detail

}  // namespace vantorq
