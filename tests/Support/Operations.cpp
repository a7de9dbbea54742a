#include "Support/Operations.h"

namespace vantorq::test {

VNTQ_DEFINE_CLASS(ChangeLog, {})
VNTQ_DEFINE_CLASS(ProbeOperation, {})

std::atomic<int> ProbeOperation::liveCount = 0;

}  // namespace vantorq::test
