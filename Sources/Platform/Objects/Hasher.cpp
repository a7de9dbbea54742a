#include "VantorqFoundation/Platform/Hasher.h"

#include <sys/random.h>

#include "VantorqFoundation/Platform/Trap.h"

namespace vantorq {

std::uint64_t Hasher::seed() noexcept {
    static const std::uint64_t drawn = [] {
        std::uint64_t value;
        if (getrandom(&value, sizeof value, 0) != sizeof value) {
            VNTQ_TRAP("Hasher: the system gives no random seed");
        }
        return value;
    }();
    return drawn;
}

}  // namespace vantorq
