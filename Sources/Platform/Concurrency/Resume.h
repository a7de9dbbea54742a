#pragma once

#include "VantorqFoundation/Platform/Executor.h"

namespace vantorq {

/// Sends a job that has its actor, or needs none, to where its task runs.
void post(detail::Job& job) noexcept;

}  // namespace vantorq
