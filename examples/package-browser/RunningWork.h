#pragma once

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

/// Names what a survey has under way once; the tasks of the single packages have no names.
struct SurveyWork {
    enum class CancellableKeys { file, measurer, indexer, statistics };
};

/// All that has to end when the user has had enough.
using RunningWork = vantorq::ManagedCancellableSet<SurveyWork>;

}  // namespace package_browser
