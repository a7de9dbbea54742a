#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include <VantorqFoundation/VantorqFoundation.h>

#include "FileDescriptor.h"

namespace package_browser {

/// The machine's own package database.
inline constexpr const char* kSystemDatabase = "/var/lib/dpkg/status";

/// A package database that is read in chunks. It may also be a pipe, whose writer takes its time.
///
/// Threads: one reader; any may cancel.
class DatabaseFile final : public vantorq::RefCounted {
public:
    static constexpr std::size_t kUsualChunkSize = 64 * 1024;

    /// Opens the file. Throws an `NSErrorException` when that fails.
    explicit DatabaseFile(std::filesystem::path path, std::size_t chunkSize = kUsualChunkSize);

    /// Awaited, gives the next bytes, no more than a chunk; none at the end. Throws an
    /// `NSErrorException` when they cannot be read, or are more than a database ever has, and
    /// `CancellationError` once cancelled.
    ///
    /// The calling thread does not wait for the file.
    [[nodiscard]] vantorq::Async<std::string> nextChunk();

    /// Ends a read that waits for bytes, and all later ones.
    void cancel() noexcept;

    /// An error with one line as its reason that begins with the file's name.
    [[nodiscard]] vantorq::NSErrorException error(const std::string& reason) const;

private:
    ~DatabaseFile() override = default;

    std::string read();

    const std::filesystem::path path_;
    const std::size_t chunkSize_;
    const FileDescriptor cancellation_;  // readable once cancelled
    const FileDescriptor file_;
    const vantorq::Ref<vantorq::DispatchQueue> queue_ = vantorq::DispatchQueue::global();
    std::size_t size_ = 0;  // of what was read
};

}  // namespace package_browser
