#include "PackageSizeOperation.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

using namespace vantorq;

VNTQ_DEFINE_CLASS(PackageSizeOperation, {})

PackageSizeOperation::PackageSizeOperation(const Package& package,
                                           const std::filesystem::path& databaseFolder)
    : folder_(databaseFolder),
      name_(package.name->utf8()),
      architecture_(package.architecture->utf8()) {}

// The time-out is armed when this returns, so that also a read that hangs, on a network file system
// that has gone away, is given up in time.
void PackageSizeOperation::main() {
    DispatchQueue::global()->async([self = Ref(this)] { self->measure(); });
}

void PackageSizeOperation::measure() {
    // A package that can be installed for several architectures has a list for each.
    std::ifstream list(folder_ / "info" / (name_ + ":" + architecture_ + ".list"));
    if (!list) {
        list.open(folder_ / "info" / (name_ + ".list"));
    }
    if (!list) {
        completeWithFailure(vntq_errorUnspecified("%s has no file list"_ns, name_));
        return;
    }

    std::uint64_t total = 0;
    std::string path;
    while (!isCancelled() && timeRemaining() > 0) {
        if (!std::getline(list, path)) {
            completeWithSuccess(NSNumber::number(total));
            return;
        }
        total += fileSize(path);
    }
    completeWithTimeout();  // ignored when cancelled
}

std::uint64_t PackageSizeOperation::fileSize(const std::string& path) const {
    const std::string absolute = path.starts_with('/') ? path : (folder_ / path).native();
    struct stat status = {};
    if (::lstat(absolute.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
        return 0;
    }
    return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace package_browser
