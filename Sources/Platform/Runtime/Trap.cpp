#include "VantorqFoundation/Platform/Trap.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>

extern "C" {
const char* vntq_crash_text = nullptr;
}

namespace vantorq {

void trap(const char* text) noexcept {
    const char* none = nullptr;
    std::atomic_ref(vntq_crash_text).compare_exchange_strong(none, text);
    __builtin_trap();
}

void trap(std::initializer_list<std::string_view> pieces) noexcept {
    // On the stack, which this thread never leaves, so that threads that trap at once do not write
    // into each other's text.
    char text[1024];
    std::size_t used = 0;
    for (const std::string_view piece : pieces) {
        const std::size_t count = std::min(piece.size(), sizeof text - 1 - used);
        std::memcpy(text + used, piece.data(), count);
        used += count;
    }
    text[used] = '\0';
    trap(text);
}

}  // namespace vantorq
