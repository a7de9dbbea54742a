#include "Measuring.h"

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "TemporaryFolder.h"

namespace package_browser {
namespace {

using vantorq::NSString;
using Outcome = MeasuredPackage::Outcome;
namespace fs = std::filesystem;

/// Measures the packages of a database's folder of its own.
class Measuring : public testing::Test {
protected:
    Measuring() { fs::create_directory(path() / "info"); }

    const fs::path& path() const { return folder_.path(); }
    void write(const std::string& name, std::string_view text) {
        std::ofstream(path() / name) << text;
    }

    static Package package(std::string_view name) {
        return {.name = NSString::string(name),
                .architecture = NSString::string("amd64"),
                .section = NSString::string("x"),
                .summary = NSString::string("")};
    }

    std::vector<MeasuredPackage> measured(const std::vector<Package>& packages,
                                          double timeout = 60) {
        ProgressLine noProgress(std::nullopt);
        return measure(packages, path(), timeout, noProgress);
    }

private:
    const TemporaryFolder folder_;
};

TEST_F(Measuring, AddsUpTheRegularFilesOfTheList) {
    write("a", "12345");
    write("b", "123");
    fs::create_directory(path() / "folder");
    fs::create_symlink("a", path() / "link");
    write("info/p.list", "/.\n" + (path() / "a").native() + "\n" + (path() / "b").native() + "\n" +
                             (path() / "folder").native() + "\n" + (path() / "link").native() +
                             "\n/no/such/file\n");
    const auto result = measured({package("p")});
    ASSERT_EQ(result.size(), 1U);
    EXPECT_EQ(result[0].outcome, Outcome::measured);
    EXPECT_EQ(result[0].size, 8U);
}

TEST_F(Measuring, RelativePathsCountFromTheDatabasesFolder) {
    write("a", "12345");
    write("info/p.list", "a\n");
    EXPECT_EQ(measured({package("p")})[0].size, 5U);
}

TEST_F(Measuring, ListOfTheArchitectureGoesFirst) {
    write("a", "1");
    write("b", "22");
    write("info/p.list", "a\n");
    write("info/p:amd64.list", "b\n");
    EXPECT_EQ(measured({package("p")})[0].size, 2U);
}

TEST_F(Measuring, EmptyListIsAMeasuredNothing) {
    write("info/p.list", "");
    const auto result = measured({package("p")});
    EXPECT_EQ(result[0].outcome, Outcome::measured);
    EXPECT_EQ(result[0].size, 0U);
}

TEST_F(Measuring, PackageWithoutAListIsKept) {
    const auto result = measured({package("p")});
    ASSERT_EQ(result.size(), 1U);
    EXPECT_EQ(result[0].outcome, Outcome::withoutFileList);
}

TEST_F(Measuring, PackageThatTakesTooLongIsKept) {
    write("info/p.list", "/.\n");
    const auto result = measured({package("p"), package("q")}, 1e-6);
    ASSERT_EQ(result.size(), 2U);
    EXPECT_EQ(result[0].outcome, Outcome::timedOut);
    EXPECT_EQ(result[0].size, 0U);
}

TEST_F(Measuring, OutcomesAreInTheOrderOfThePackages) {
    constexpr std::size_t kCount = 500;
    std::vector<Package> packages;
    for (std::size_t index = 0; index < kCount; ++index) {
        const std::string name = "p" + std::to_string(index);
        write(name, std::string(index, 'x'));
        write("info/" + name + ".list", name + "\n");
        packages.push_back(package(name));
    }
    const auto result = measured(packages);
    ASSERT_EQ(result.size(), kCount);
    for (std::size_t index = 0; index < kCount; ++index) {
        EXPECT_EQ(result[index].package.name->utf8(), "p" + std::to_string(index));
        EXPECT_EQ(result[index].size, index);
    }
}

TEST_F(Measuring, NoPackagesTakeNoTime) {
    EXPECT_TRUE(measured({}).empty());
}

}  // namespace
}  // namespace package_browser
