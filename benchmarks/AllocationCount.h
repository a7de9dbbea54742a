#pragma once

#include <cstdint>

/// How often the calling thread has called `operator new`, in the program or in a library.
std::uint64_t allocationCount() noexcept;
