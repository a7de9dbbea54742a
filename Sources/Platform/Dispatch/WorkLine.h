#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <span>
#include <utility>

#include "Work.h"

namespace vantorq {

/// Work that waits in the order in which it came.
///
/// It is a ring: only a line that grows longer than it was before allocates. One that was very long
/// gives its memory back once it is empty.
///
/// Threads: one at a time.
class WorkLine {
public:
    [[nodiscard]] std::size_t size() const noexcept { return size_; }
    [[nodiscard]] bool isEmpty() const noexcept { return size_ == 0; }

    /// Without memory the process ends: others already count on the work being here.
    void push(Work& work) noexcept {
        if (size_ == capacity_) {
            grow();
        }
        works_[place(size_)] = &work;
        ++size_;
    }

    /// Takes the first pieces: `out.size()` of them, or all. Returns how many.
    std::size_t take(std::span<Work*> out) noexcept {
        const std::size_t count = std::min(out.size(), size_);
        for (std::size_t i = 0; i < count; ++i) {
            out[i] = works_[place(i)];
        }
        first_ = place(count);
        size_ -= count;
        if (size_ == 0 && capacity_ > kMostKept) {
            *this = {};
        }
        return count;
    }

private:
    static constexpr std::size_t kLeast = 64;
    static constexpr std::size_t kMostKept = std::size_t{1} << 16;

    std::size_t place(std::size_t index) const noexcept {
        return (first_ + index) & (capacity_ - 1);
    }

    void grow() {
        const std::size_t capacity = std::max(kLeast, 2 * capacity_);
        auto works = std::make_unique_for_overwrite<Work*[]>(capacity);
        for (std::size_t i = 0; i < size_; ++i) {
            works[i] = works_[place(i)];
        }
        works_ = std::move(works);
        capacity_ = capacity;
        first_ = 0;
    }

    std::unique_ptr<Work*[]> works_;
    std::size_t capacity_ = 0;  // a power of two, or none
    std::size_t first_ = 0;
    std::size_t size_ = 0;
};

}  // namespace vantorq
