#include "Support/AllocationCount.h"

#include <cstddef>
#include <cstdlib>
#include <new>

#include "VantorqFoundation/Platform/RefCounted.h"

namespace {

constinit thread_local std::uint64_t allocations = 0;

}  // namespace

std::uint64_t allocationCount() noexcept {
    return allocations + vantorq::detail::reuseCount();
}

// The array and the non-throwing forms come down to these two.

void* operator new(std::size_t size) {
    ++allocations;
    void* memory = std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void* operator new(std::size_t size, std::align_val_t alignment) {
    ++allocations;
    const auto boundary = static_cast<std::size_t>(alignment);
    void* memory = std::aligned_alloc(boundary, (size + boundary - 1) / boundary * boundary);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    return memory;
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
    std::free(memory);
}
