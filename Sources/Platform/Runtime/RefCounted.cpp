#include "VantorqFoundation/Platform/RefCounted.h"

#include <memory>

#include "Sources/Platform/Concurrency/SpinPause.h"

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

constinit std::atomic<SideRecord*> chunks[kChunks] = {};
constinit std::atomic<std::uint32_t> nextUnused{1};  // index 0 means "no record"
// Low half: index of the first free record. High half: a turn count against reuse while popping.
constinit std::atomic<std::uint64_t> freeRecords{0};

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

std::uint32_t popFree() noexcept {
    std::uint64_t head = freeRecords.load(std::memory_order_acquire);
    while (static_cast<std::uint32_t>(head) != 0) {
        const auto index = static_cast<std::uint32_t>(head);
        const std::uint64_t next = SideRecord::at(index).nextFree.load(std::memory_order_relaxed) |
                                   (((head >> 32) + 1) << 32);
        if (freeRecords.compare_exchange_weak(head, next, std::memory_order_acquire)) {
            return index;
        }
    }
    return 0;
}

}  // namespace

SideRecord& SideRecord::at(std::uint32_t index) noexcept {
    return chunks[index >> kChunkBits].load(std::memory_order_acquire)[index & (kChunkSize - 1)];
}

SideRecord* SideRecord::allocate(const RefCounted* object) noexcept {
    std::uint32_t index = popFree();
    if (index == 0) {
        index = nextUnused.fetch_add(1, std::memory_order_relaxed);
        if (index >= kChunks * kChunkSize) {
            VNTQ_TRAP("RefCounted: too many objects have weak handles");
        }
        (void)chunk(index >> kChunkBits);
    }
    SideRecord& record = at(index);
    record.index = index;
    record.object = object;
    record.owners.store(1, std::memory_order_relaxed);
    return &record;
}

void SideRecord::free(SideRecord& record) noexcept {
    std::uint64_t head = freeRecords.load(std::memory_order_relaxed);
    do {
        record.nextFree.store(static_cast<std::uint32_t>(head), std::memory_order_relaxed);
    } while (!freeRecords.compare_exchange_weak(head, (head >> 32 << 32) | record.index,
                                                std::memory_order_release));
}

/// Cuts the record off its object, which is about to be destroyed.
void SideRecord::abandon(SideRecord& record) noexcept {
    record.lock();
    record.object = nullptr;
    record.unlock();
    const auto attached = Ref<RefCounted>::adopt(record.attachment.exchange(nullptr));
    detail::releaseSide(&record);
}

SideRecord* RefCounted::side() const noexcept {
    std::uint64_t bits = bits_.load(std::memory_order_acquire);
    SideRecord* fresh = nullptr;
    while ((bits >> kSideShift) == 0) {
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
    return &SideRecord::at(static_cast<std::uint32_t>(bits >> kSideShift));
}

RefCounted* RefCounted::attachment() const noexcept {
    const auto index =
        static_cast<std::uint32_t>(bits_.load(std::memory_order_acquire) >> kSideShift);
    return index == 0 ? nullptr : SideRecord::at(index).attachment.load(std::memory_order_acquire);
}

RefCounted* RefCounted::setAttachmentOnce(RefCounted* attachment) const noexcept {
    RefCounted* current = nullptr;
    if (side()->attachment.compare_exchange_strong(current, attachment,
                                                   std::memory_order_acq_rel)) {
        attachment->retain();
        return attachment;
    }
    return current;
}

void RefCounted::dispose() const noexcept {
    const std::uint64_t sideBits = bits_.load(std::memory_order_relaxed) >> kSideShift
                                                                                << kSideShift;
    bits_.store(kDeallocating, std::memory_order_relaxed);
    if (sideBits != 0) {
        SideRecord::abandon(SideRecord::at(static_cast<std::uint32_t>(sideBits >> kSideShift)));
    }
    delete this;
}

namespace detail {

SideRecord* weakSide(const RefCounted* object) noexcept {
    const std::uint32_t owners = object->ownerCount();
    if (owners >= RefCounted::kDeallocating && !RefCounted::isImmortal(owners)) {
        return nullptr;  // an object that is being destroyed cannot be referred to again
    }
    SideRecord* side = object->side();
    retainSide(side);
    return side;
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
