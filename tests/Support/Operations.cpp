#include "Support/Operations.h"

#include <regex>
#include <string>

namespace vantorq::test {

VNTQ_DEFINE_CLASS(ChangeLog, {})
VNTQ_DEFINE_CLASS(ProbeOperation, {})

std::atomic<int> ProbeOperation::liveCount = 0;

const NSError* errorOf(const VNTQOperation& operation) {
    return operation.result() != nullptr ? objectCast<NSError>(operation.result()->error().get())
                                         : nullptr;
}

bool isTimeout(const VNTQOperation& operation) {
    const NSError* error = errorOf(operation);
    return error != nullptr && error->domain()->isEqualToString(&VNTQFoundationErrorDomain) &&
           error->code() == 1;
}

std::optional<double> secondsInTimeoutText(const VNTQOperation& operation) {
    static const std::regex form("Timeout waiting ([0-9]+\\.[0-9]) seconds for completion");
    const NSError* error = errorOf(operation);
    const std::string text = error != nullptr ? error->localizedFailureReason()->utf8() : "";
    std::smatch match;
    return std::regex_match(text, match, form) ? std::optional(std::stod(match[1])) : std::nullopt;
}

}  // namespace vantorq::test
