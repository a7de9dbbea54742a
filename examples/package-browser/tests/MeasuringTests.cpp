#include "Measuring.h"

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

#include <gtest/gtest.h>

#include "TemporaryDatabase.h"

namespace package_browser {
namespace {

using vantorq::Async;
using vantorq::CancellationError;
using vantorq::make;
using vantorq::Ref;
using vantorq::syncWait;
using vantorq::Task;
using Outcome = MeasuredPackage::Outcome;
namespace fs = std::filesystem;

/// Measures the packages of a database's folder of its own.
class Measuring : public testing::Test {
protected:
    const fs::path& path() const { return database_.folder(); }
    void write(const std::string& name, std::string_view text) const {
        database_.write(name, text);
    }

    Async<std::vector<MeasuredPackage>> measuring(const std::vector<std::string>& names,
                                                  double timeout) {
        std::string text;
        for (const std::string& name : names) {
            text += TemporaryDatabase::record(name);
        }
        measurer_ = make<Measurer>(path(), timeout, running_);
        return measurer_->measureAll(InstalledPackages(*database_.records(text), std::nullopt));
    }
    std::vector<MeasuredPackage> measured(const std::vector<std::string>& names,
                                          double timeout = kTimeout) {
        return syncWait(measuring(names, timeout));
    }

    static constexpr double kTimeout = 60;

    const TemporaryDatabase database_;
    const Ref<RunningWork> running_ = make<RunningWork>();
    Ref<Measurer> measurer_;
};

TEST_F(Measuring, AddsUpTheRegularFilesOfTheList) {
    write("a", "12345");
    write("b", "123");
    fs::create_directory(path() / "folder");
    fs::create_symlink("a", path() / "link");
    write("info/p.list", "/.\n" + (path() / "a").native() + "\n" + (path() / "b").native() + "\n" +
                             (path() / "folder").native() + "\n" + (path() / "link").native() +
                             "\n/no/such/file\n");
    const auto result = measured({"p"});
    ASSERT_EQ(result.size(), 1U);
    EXPECT_EQ(result[0].outcome, Outcome::measured);
    EXPECT_EQ(result[0].size, 8U);
}

TEST_F(Measuring, RelativePathsCountFromTheDatabasesFolder) {
    write("a", "12345");
    write("info/p.list", "a\n");
    EXPECT_EQ(measured({"p"})[0].size, 5U);
}

TEST_F(Measuring, ListOfTheArchitectureGoesFirst) {
    write("a", "1");
    write("b", "22");
    write("info/p.list", "a\n");
    write("info/p:amd64.list", "b\n");
    EXPECT_EQ(measured({"p"})[0].size, 2U);
}

TEST_F(Measuring, EmptyListIsAMeasuredNothing) {
    write("info/p.list", "");
    const auto result = measured({"p"});
    EXPECT_EQ(result[0].outcome, Outcome::measured);
    EXPECT_EQ(result[0].size, 0U);
}

TEST_F(Measuring, PackageWithoutAListIsKept) {
    const auto result = measured({"p"});
    ASSERT_EQ(result.size(), 1U);
    EXPECT_EQ(result[0].outcome, Outcome::withoutFileList);
}

TEST_F(Measuring, PackageThatTakesTooLongIsKept) {
    write("info/p.list", "/.\n");
    const auto result = measured({"p", "q"}, 1e-6);
    ASSERT_EQ(result.size(), 2U);
    EXPECT_EQ(result[0].outcome, Outcome::timedOut);
    EXPECT_EQ(result[0].size, 0U);
}

TEST_F(Measuring, OutcomesAreInTheOrderOfThePackages) {
    constexpr std::size_t kCount = 500;
    std::vector<std::string> names;
    for (std::size_t index = 0; index < kCount; ++index) {
        const std::string name = "p" + std::to_string(index);
        write(name, std::string(index, 'x'));
        write("info/" + name + ".list", name + "\n");
        names.push_back(name);
    }
    const auto result = measured(names);
    ASSERT_EQ(result.size(), kCount);
    for (std::size_t index = 0; index < kCount; ++index) {
        EXPECT_EQ(result[index].package.name->utf8(), "p" + std::to_string(index));
        EXPECT_EQ(result[index].size, index);
    }
}

TEST_F(Measuring, ProgressCountsWhateverCameOfIt) {
    write("a", "12345");
    write("info/p.list", "a\n");
    write("info/q.list", "a\n");
    (void)measured({"p", "q", "r"});
    const Progress& progress = measurer_->progress();
    EXPECT_EQ(progress.foundCount, 3U);
    EXPECT_EQ(progress.measuredCount, 3U);
    EXPECT_EQ(progress.size, 10U);
}

TEST_F(Measuring, CancellingTheRunningWorkEndsIt) {
    const fs::path list = path() / "info" / "p.list";
    ASSERT_EQ(::mkfifo(list.c_str(), 0600), 0);
    const auto task = Task<std::vector<MeasuredPackage>>::start(
        [this] { return measuring({"p", "q", "r"}, kTimeout); });
    const std::ofstream pipe(list);  // waits until the list is read
    running_->cancel();
    EXPECT_THROW(syncWait(task), CancellationError);
}

}  // namespace
}  // namespace package_browser
