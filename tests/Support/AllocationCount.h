#pragma once

#include <cstdint>

/// How many allocations the calling thread has made, in the program or in a library: calls of
/// `operator new`, which the program that links this replaces, and objects that took over memory
/// that others had left.
std::uint64_t allocationCount() noexcept;
