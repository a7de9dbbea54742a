#pragma once

#include <unistd.h>

namespace package_browser {

/// Owns an open file, and closes it at the end of its scope.
class FileDescriptor {
public:
    /// A negative number is no file.
    explicit FileDescriptor(int number) noexcept : number_(number) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (isOpen()) {
            ::close(number_);
        }
    }

    [[nodiscard]] bool isOpen() const noexcept { return number_ >= 0; }
    [[nodiscard]] int number() const noexcept { return number_; }

private:
    const int number_;
};

}  // namespace package_browser
