#include "DatabaseFile.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <iterator>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

#include <VantorqFoundation/VantorqFoundation.h>

namespace package_browser {

using namespace vantorq;

namespace {

// A large installation has ten megabytes; more than this is some other file, or one without an end.
constexpr std::size_t kMaximumSize = 64'000'000;

}  // namespace

// A pipe is opened without waiting for its writer: waiting is what reads do, which can be
// cancelled.
DatabaseFile::DatabaseFile(std::filesystem::path path, std::size_t chunkSize)
    : path_(std::move(path)),
      chunkSize_(chunkSize),
      cancellation_(::eventfd(0, EFD_CLOEXEC)),
      file_(::open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    if (!cancellation_.isOpen() || !file_.isOpen()) {
        throw error(std::strerror(errno));
    }
}

Async<std::string> DatabaseFile::nextChunk() {
    auto reading = withThrowingContinuation<std::string>(
        [this](const Continuation<std::string, std::exception_ptr>& continuation) {
            queue_->async([self = Ref(this), continuation] {
                try {
                    continuation.resume(self->read());
                } catch (...) {
                    continuation.resumeThrowing(std::current_exception());
                }
            });
        });
    std::string chunk = co_await reading;
    co_return chunk;
}

void DatabaseFile::cancel() noexcept {
    constexpr std::uint64_t kOnce = 1;
    (void)!::write(cancellation_.number(), &kOnce, sizeof kOnce);  // cannot fail so early
}

NSErrorException DatabaseFile::error(const std::string& reason) const {
    return NSErrorException(vntq_errorUnspecified("%s: %s"_ns, path_.native(), reason));
}

std::string DatabaseFile::read() {
    std::string chunk(chunkSize_, '\0');
    for (;;) {
        pollfd inputs[] = {{cancellation_.number(), POLLIN, 0}, {file_.number(), POLLIN, 0}};
        ::poll(inputs, std::size(inputs), -1);
        if (inputs[0].revents != 0) {
            throw CancellationError();
        }
        const ssize_t count = ::read(file_.number(), chunk.data(), chunk.size());
        if (count >= 0) {
            chunk.resize(static_cast<std::size_t>(count));
            break;
        }
        if (errno != EAGAIN && errno != EINTR) {
            throw error(std::strerror(errno));
        }
    }
    size_ += chunk.size();
    if (size_ > kMaximumSize) {
        throw error("no package database (too large)");
    }
    return chunk;
}

}  // namespace package_browser
