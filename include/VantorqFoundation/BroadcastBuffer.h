#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <utility>
#include <variant>

#include "Platform/BufferingPolicy.h"
#include "Platform/Trap.h"

/// What an `AsyncBroadcast` keeps of its elements. Each element is found under its place in the
/// stream of those that were kept, counted from 0, which never changes.
///
/// Threads: one at a time, but for `appendOnly`; the broadcast sees to that.
namespace vantorq::detail {

/// `a + b`; traps when that is too large for the type.
inline std::int64_t checkedIndex(std::int64_t a, std::int64_t b) noexcept {
    std::int64_t sum;
    if (__builtin_add_overflow(a, b, &sum)) [[unlikely]] {
        VNTQ_TRAP("BroadcastBuffer: the index is too large");
    }
    return sum;
}

/// Elements that are never moved and never let go of, so that others may read what was there when
/// they looked while more is appended.
///
/// They stand in chunks, each twice as large as the one before.
///
/// Threads: one at a time appends. Any thread may ask for `size()`, and read what is below it.
template <std::copyable Element>
class AppendOnlyList {
public:
    AppendOnlyList() noexcept = default;
    AppendOnlyList(const AppendOnlyList&) = delete;
    AppendOnlyList& operator=(const AppendOnlyList&) = delete;
    ~AppendOnlyList() {
        const std::uint64_t end = size();
        for (std::uint64_t index = 0; index < end; ++index) {
            std::destroy_at(std::addressof(at(index)));
        }
        for (std::size_t number = 0; number < kChunks && chunks_[number] != nullptr; ++number) {
            std::allocator<Element>().deallocate(chunks_[number], capacity(number));
        }
    }

    [[nodiscard]] std::uint64_t size() const noexcept {
        return size_.load(std::memory_order_acquire);
    }
    [[nodiscard]] const Element& operator[](std::uint64_t index) const noexcept {
        return at(index);
    }

    /// Makes room for so many elements in all.
    void reserve(std::uint64_t count) {
        for (std::size_t number = 0; count > 0 && number <= chunkOf(count - 1); ++number) {
            makeRoom(number);
        }
    }
    void append(Element element) {
        const std::uint64_t index = size_.load(std::memory_order_relaxed);
        makeRoom(chunkOf(index));
        std::construct_at(std::addressof(at(index)), std::move(element));
        size_.store(index + 1, std::memory_order_release);
    }

private:
    static constexpr int kFirstBits = 6;
    static constexpr std::size_t kChunks = 48;

    void makeRoom(std::size_t number) {
        if (chunks_[number] == nullptr) {
            chunks_[number] = std::allocator<Element>().allocate(capacity(number));
        }
    }
    static constexpr std::size_t chunkOf(std::uint64_t index) noexcept {
        return static_cast<std::size_t>(std::bit_width((index >> kFirstBits) + 1) - 1);
    }
    static constexpr std::size_t capacity(std::size_t number) noexcept {
        return std::size_t{1} << (static_cast<std::size_t>(kFirstBits) + number);
    }
    [[nodiscard]] Element& at(std::uint64_t index) const noexcept {
        const std::size_t number = chunkOf(index);
        return chunks_[number][index - (capacity(number) - capacity(0))];
    }

    // The size is written after the element and its chunk, and read before them.
    std::array<Element*, kChunks> chunks_{};
    std::atomic<std::uint64_t> size_{0};
};

/// The last elements: a full queue lets go of the oldest one for each that comes.
///
/// The indices held are `startIndex()` up to `endIndex() - 1`. They are consecutive, so the element
/// at index i stands in the slot i modulo the queue's size; slots are added until that is reached.
template <std::copyable Element>
class LimitedQueue {
public:
    explicit LimitedQueue(std::int64_t maxSize) noexcept : maxSize_(maxSize) {}

    [[nodiscard]] std::int64_t startIndex() const noexcept { return startIndex_; }
    [[nodiscard]] std::int64_t endIndex() const noexcept {
        return checkedIndex(startIndex_, size_);
    }
    /// Traps when the index is not held.
    [[nodiscard]] const Element& operator[](std::int64_t index) const noexcept {
        if (index < startIndex_ || index >= endIndex()) [[unlikely]] {
            VNTQ_TRAP("BroadcastBuffer: there is no element at this index");
        }
        return slots_[slot(index)];
    }
    /// Where a reader goes on who has read up to `index`: when what comes next is gone, at the
    /// oldest element that is held.
    [[nodiscard]] std::int64_t indexAfter(std::int64_t index) const noexcept {
        return index < startIndex_ ? startIndex_ : checkedIndex(index, 1);
    }

    /// Gives back the element that is let go of.
    std::optional<Element> append(Element element) {
        const std::int64_t index = endIndex();
        if (size_ < maxSize_) {
            slots_.push_back(std::move(element));
            ++size_;
            return std::nullopt;
        }
        startIndex_ = checkedIndex(startIndex_, 1);
        if (size_ > 0) {
            std::swap(slots_[slot(index)], element);
        }
        return element;
    }

private:
    [[nodiscard]] std::size_t slot(std::int64_t index) const noexcept {
        return static_cast<std::size_t>(index % maxSize_);
    }

    std::deque<Element> slots_;
    std::int64_t size_ = 0;
    std::int64_t maxSize_;
    std::int64_t startIndex_ = 0;
};

/// The elements that a buffering policy keeps.
template <std::copyable Element>
class Buffer {
public:
    explicit Buffer(BufferingPolicy policy) {
        switch (policy.kind()) {
            case BufferingPolicy::Kind::unbounded:
                break;
            case BufferingPolicy::Kind::oldest:
                kept_.template emplace<Oldest>(policy.limit());
                break;
            case BufferingPolicy::Kind::newest:
                if (policy.limit() == 0) {
                    // A queue of no size could not hold what it has just stored; a list that is
                    // full from the beginning keeps nothing, as is wanted.
                    kept_.template emplace<Oldest>(0);
                } else {
                    kept_.template emplace<Newest>(policy.limit());
                }
                break;
        }
    }

    [[nodiscard]] std::int64_t startIndex() const noexcept {
        const auto* newest = std::get_if<Newest>(&kept_);
        return newest != nullptr ? newest->startIndex() : 0;
    }
    [[nodiscard]] std::int64_t endIndex() const noexcept {
        const auto* newest = std::get_if<Newest>(&kept_);
        return newest != nullptr ? newest->endIndex()
                                 : static_cast<std::int64_t>(appendOnly()->size());
    }
    /// Traps when the index is not held.
    [[nodiscard]] const Element& operator[](std::int64_t index) const noexcept {
        if (const auto* newest = std::get_if<Newest>(&kept_)) {
            return (*newest)[index];
        }
        if (index < 0 || index >= endIndex()) [[unlikely]] {
            VNTQ_TRAP("BroadcastBuffer: there is no element at this index");
        }
        return (*appendOnly())[static_cast<std::uint64_t>(index)];
    }
    [[nodiscard]] std::int64_t indexAfter(std::int64_t index) const noexcept {
        const auto* newest = std::get_if<Newest>(&kept_);
        return newest != nullptr ? newest->indexAfter(index) : checkedIndex(index, 1);
    }

    /// Gives back what is not kept: the element itself, or the one that makes room for it.
    std::optional<Element> append(Element element) {
        if (auto* newest = std::get_if<Newest>(&kept_)) {
            return newest->append(std::move(element));
        }
        if (auto* oldest = std::get_if<Oldest>(&kept_)) {
            if (static_cast<std::int64_t>(oldest->list.size()) >= oldest->maxSize) {
                return element;
            }
            oldest->list.append(std::move(element));
        } else {
            std::get<Unbounded>(kept_).append(std::move(element));
        }
        return std::nullopt;
    }

    /// The list behind a buffer that lets go of nothing, else null. Any thread may read it.
    [[nodiscard]] const AppendOnlyList<Element>* appendOnly() const noexcept {
        if (const auto* unbounded = std::get_if<Unbounded>(&kept_)) {
            return unbounded;
        }
        const auto* oldest = std::get_if<Oldest>(&kept_);
        return oldest != nullptr ? &oldest->list : nullptr;
    }

private:
    using Unbounded = AppendOnlyList<Element>;
    struct Oldest {
        // A limit may be a way to say "all": beyond this the memory comes as it is needed.
        static constexpr std::int64_t kMostReserved = 1024;

        explicit Oldest(std::int64_t limit) : maxSize(limit) {
            list.reserve(
                static_cast<std::uint64_t>(std::clamp(limit, std::int64_t{0}, kMostReserved)));
        }
        AppendOnlyList<Element> list;
        std::int64_t maxSize;
    };
    using Newest = LimitedQueue<Element>;

    std::variant<Unbounded, Oldest, Newest> kept_;
};

}  // namespace vantorq::detail
