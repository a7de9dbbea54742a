#include "DatabaseFile.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "TemporaryFolder.h"

namespace package_browser {
namespace {

namespace fs = std::filesystem;
using vantorq::NSError;
using vantorq::Ref;

class DatabaseFile : public testing::Test {
protected:
    void write(std::string_view text) { std::ofstream(path_) << text; }

    static std::string complaint(const fs::path& path) {
        Ref<NSError> error;
        const auto database = readDatabase(path, &error);
        EXPECT_FALSE(database);
        return database ? "" : error->localizedFailureReason()->utf8();
    }

    const TemporaryFolder folder_;
    const fs::path path_ = folder_.path() / "status";
};

TEST_F(DatabaseFile, IsRead) {
    write("Package: a\nStatus: install ok installed\n");
    Ref<NSError> error;
    const auto database = readDatabase(path_, &error);
    ASSERT_TRUE(database);
    EXPECT_EQ(database->packages.size(), 1U);
    EXPECT_EQ(error, nullptr);
}

TEST_F(DatabaseFile, OneGoodRecordIsEnough) {
    write("nonsense\n\nPackage: a\n");
    Ref<NSError> error;
    EXPECT_TRUE(readDatabase(path_, &error));
}

TEST_F(DatabaseFile, MissingFileIsNamed) {
    EXPECT_EQ(complaint(path_), path_.native() + ": No such file or directory");
}

TEST_F(DatabaseFile, FolderIsNoFile) {
    EXPECT_EQ(complaint(folder_.path()), folder_.path().native() + ": Is a directory");
}

TEST_F(DatabaseFile, EmptyFileIsNoDatabase) {
    write("");
    EXPECT_EQ(complaint(path_), path_.native() + ": no package database (nothing in it)");
}

TEST_F(DatabaseFile, FileWithoutARecordIsNoDatabase) {
    write("\nnonsense\n");
    EXPECT_EQ(complaint(path_),
              path_.native() + ": no package database (line 2: a line without a colon)");
}

TEST_F(DatabaseFile, FileWithoutAnEndIsTooLarge) {
    EXPECT_EQ(complaint("/dev/zero"), "/dev/zero: no package database (too large)");
}

}  // namespace
}  // namespace package_browser
