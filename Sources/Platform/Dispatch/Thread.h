#pragma once

namespace vantorq {

/// Starts a detached thread that runs `body(context)`, with every signal blocked, so that the
/// host's handlers run on the host's threads only. `name` has 15 characters at most. False when the
/// system has no room for another thread.
[[nodiscard]] bool startThread(const char* name, void (*body)(void*), void* context);

}  // namespace vantorq
