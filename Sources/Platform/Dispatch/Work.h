#pragma once

#include "VantorqFoundation/Platform/DispatchQueue.h"

namespace vantorq {

using detail::makeWork;
using detail::Work;

/// Gives back the memory of work that has been run.
void recycleWork(Work& work) noexcept;

inline void runAndRecycle(Work& work) noexcept {
    work.run(work);
    recycleWork(work);
}

}  // namespace vantorq
