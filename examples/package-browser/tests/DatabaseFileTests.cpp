#include "DatabaseFile.h"

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "TemporaryFolder.h"

namespace package_browser {
namespace {

namespace fs = std::filesystem;
using vantorq::CancellationError;
using vantorq::make;
using vantorq::NSErrorException;
using vantorq::syncWait;
using vantorq::Task;

class DatabaseFileTest : public testing::Test {
protected:
    void write(std::string_view text) { std::ofstream(path_) << text; }

    /// All bytes, with a stroke after each chunk.
    static std::string chunks(DatabaseFile& file) {
        std::string text;
        for (;;) {
            const std::string chunk = syncWait(file.nextChunk());
            if (chunk.empty()) {
                return text;
            }
            text += chunk + "|";
        }
    }

    /// The reason that there is no text, of which there is some if that is empty.
    static std::string complaint(const fs::path& path) {
        try {
            const auto file = make<DatabaseFile>(path);
            chunks(*file);
            return "";
        } catch (const NSErrorException& exception) {
            return exception.error()->localizedFailureReason()->utf8();
        }
    }

    const TemporaryFolder folder_;
    const fs::path path_ = folder_.path() / "status";
};

TEST_F(DatabaseFileTest, IsReadInChunks) {
    write("12345");
    const auto file = make<DatabaseFile>(path_, 2U);
    EXPECT_EQ(chunks(*file), "12|34|5|");
}

TEST_F(DatabaseFileTest, EmptyFileHasNoChunks) {
    write("");
    const auto file = make<DatabaseFile>(path_);
    EXPECT_EQ(chunks(*file), "");
}

TEST_F(DatabaseFileTest, MissingFileIsNamed) {
    EXPECT_EQ(complaint(path_), path_.native() + ": No such file or directory");
}

TEST_F(DatabaseFileTest, FolderIsNoFile) {
    EXPECT_EQ(complaint(folder_.path()), folder_.path().native() + ": Is a directory");
}

TEST_F(DatabaseFileTest, FileWithoutAnEndIsTooLarge) {
    EXPECT_EQ(complaint("/dev/zero"), "/dev/zero: no package database (too large)");
}

TEST_F(DatabaseFileTest, PipeIsReadAsItsWriterGoesOn) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    const auto file = make<DatabaseFile>(path_);
    const auto reading = Task<std::string>::start([file] { return file->nextChunk(); });
    std::optional<std::ofstream> writer(path_);
    *writer << "12345" << std::flush;
    EXPECT_EQ(syncWait(reading), "12345");
    writer.reset();
    EXPECT_EQ(chunks(*file), "");
}

TEST_F(DatabaseFileTest, CancellingEndsAReadThatWaits) {
    ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0);
    const auto file = make<DatabaseFile>(path_);
    const auto reading = Task<std::string>::start([file] { return file->nextChunk(); });
    file->cancel();
    EXPECT_THROW(syncWait(reading), CancellationError);
}

TEST_F(DatabaseFileTest, CancelledFileGivesNothingMore) {
    write("12345");
    const auto file = make<DatabaseFile>(path_);
    file->cancel();
    file->cancel();
    EXPECT_THROW(syncWait(file->nextChunk()), CancellationError);
    EXPECT_THROW(syncWait(file->nextChunk()), CancellationError);
}

}  // namespace
}  // namespace package_browser
