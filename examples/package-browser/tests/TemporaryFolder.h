#pragma once

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace package_browser {

/// A new folder that goes away, with all in it, at the end of its scope.
class TemporaryFolder {
public:
    TemporaryFolder() {
        // mkdtemp(3) replaces as many of this letter at the end by what makes the name new.
        std::string name = std::filesystem::temp_directory_path() / "package-browser-";
        name.append(6, 'X');
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), name);
        }
        path_ = name;
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }

    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

}  // namespace package_browser
