#pragma once

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include <VantorqFoundation/VantorqFoundation.h>

#include "PackageRecords.h"
#include "TemporaryFolder.h"

namespace package_browser {

/// A database with a folder of its own.
class TemporaryDatabase {
public:
    TemporaryDatabase() { std::filesystem::create_directory(folder_.path() / "info"); }

    [[nodiscard]] const std::filesystem::path& folder() const { return folder_.path(); }
    [[nodiscard]] std::filesystem::path file() const { return folder() / "status"; }

    /// Writes a file of the folder.
    void write(const std::string& name, std::string_view text) const {
        std::ofstream(folder() / name) << text;
    }

    /// The records, after `text` has become the database.
    [[nodiscard]] vantorq::Ref<SharedRecords> records(std::string_view text) const {
        write("status", text);
        return sharedRecords(vantorq::make<DatabaseFile>(file()));
    }

    /// The text of the record of an installed package, with the blank line after it.
    [[nodiscard]] static std::string record(std::string_view name, std::string_view section = "x",
                                            std::string_view fields = "") {
        return "Package: " + std::string(name) +
               "\nStatus: install ok installed\nSection: " + std::string(section) +
               "\nArchitecture: amd64\n" + std::string(fields) + "\n";
    }

private:
    const TemporaryFolder folder_;
};

}  // namespace package_browser
