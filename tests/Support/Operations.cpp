#include "Support/Operations.h"

#include <regex>
#include <string>

namespace vantorq::test {

VNTQ_DEFINE_CLASS(ChangeLog, {})
VNTQ_DEFINE_CLASS(ProbeOperation, {})

std::atomic<int> ProbeOperation::liveCount = 0;

std::optional<double> secondsInTimeoutText(const VNTQOperation& operation) {
    static const std::regex form("Timeout waiting ([0-9]+\\.[0-9]) seconds for completion");
    const auto result = operation.result();
    const auto error = result != nullptr ? objectCast<NSError>(result->error()) : nullptr;
    const std::string text = error != nullptr ? error->localizedFailureReason()->utf8() : "";
    std::smatch match;
    return std::regex_match(text, match, form) ? std::optional(std::stod(match[1])) : std::nullopt;
}

}  // namespace vantorq::test
