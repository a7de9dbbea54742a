#include "Survey.h"

#include <fcntl.h>
#include <fstream>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <thread>

#include <gtest/gtest.h>

#include "FileDescriptor.h"
#include "TemporaryDatabase.h"

namespace package_browser {
namespace {

using vantorq::CancellationError;
using vantorq::NSErrorException;

constexpr double kTimeout = 60;

class SurveyTest : public testing::Test {
protected:
    static std::string record(std::string_view name, std::string_view section = "x") {
        return TemporaryDatabase::record(name, section);
    }

    const TemporaryDatabase database_;
    ProgressLine noProgress_{std::nullopt};
};

TEST_F(SurveyTest, ConsumersAgreeOnThePlacesOfPackages) {
    std::string text;
    for (int count = 0; count < 300; ++count) {
        const std::string name = "p" + std::to_string(count);
        database_.write("info/" + name + ".list", name + "\n");
        database_.write(name, std::string(static_cast<std::size_t>(count), 'x'));
        text += record(name, count % 3 == 0 ? "libs" : "utils");
    }
    database_.write("status", text);
    Survey survey(database_.file(), std::nullopt, kTimeout);
    const auto found = survey.run(noProgress_);
    ASSERT_EQ(found.packages.size(), 300U);
    ASSERT_EQ(found.sections.size(), 2U);
    EXPECT_EQ(found.sections.at("libs").size(), 100U);
    for (const auto& [name, places] : found.sections) {
        for (const std::size_t place : places) {
            EXPECT_EQ(found.packages.at(place).package.section->utf8(), name);
            EXPECT_EQ(found.packages.at(place).size, place);
        }
    }
    EXPECT_EQ(found.statistics.architectures.at("amd64"), 300U);
    EXPECT_EQ(survey.progress().measuredCount, 300U);
}

TEST_F(SurveyTest, SectionNarrowsThePackagesAndNotTheStatistics) {
    database_.write("status", record("a", "libs") + record("b", "utils"));
    const auto found = Survey(database_.file(), "utils", kTimeout).run(noProgress_);
    ASSERT_EQ(found.packages.size(), 1U);
    EXPECT_EQ(found.packages[0].package.name->utf8(), "b");
    EXPECT_EQ(found.statistics.architectures.at("amd64"), 2U);
}

TEST_F(SurveyTest, MissingFileIsAnError) {
    Survey survey(database_.file(), std::nullopt, kTimeout);
    EXPECT_THROW((void)survey.run(noProgress_), NSErrorException);
}

TEST_F(SurveyTest, ErrorBehindThePackagesIsAnErrorOfAll) {
    // More bytes than a database ever has, behind a good record whose measuring has begun.
    std::ofstream(database_.file()) << record("a");
    std::filesystem::resize_file(database_.file(), 65'000'000);
    ASSERT_EQ(::mkfifo((database_.folder() / "info" / "a.list").c_str(), 0600), 0);
    Survey survey(database_.file(), std::nullopt, kTimeout);
    EXPECT_THROW((void)survey.run(noProgress_), NSErrorException);
    EXPECT_EQ(survey.progress().foundCount, 1U);
    // Lets the thread go on that waits for the list.
    const FileDescriptor writer(
        ::open((database_.folder() / "info" / "a.list").c_str(), O_WRONLY | O_CLOEXEC));
}

TEST_F(SurveyTest, CancelledBeforeItBeginsItReadsNothing) {
    database_.write("status", record("a"));
    Survey survey(database_.file(), std::nullopt, kTimeout);
    survey.cancel();
    EXPECT_THROW((void)survey.run(noProgress_), CancellationError);
    EXPECT_EQ(survey.progress().measuredCount, 0U);
}

TEST_F(SurveyTest, CancelledWhileItReadsItEnds) {
    ASSERT_EQ(::mkfifo(database_.file().c_str(), 0600), 0);
    Survey survey(database_.file(), std::nullopt, kTimeout);
    std::thread writer([&] {
        std::ofstream pipe(database_.file());  // waits until the survey has opened it
        pipe << record("a") << std::flush;
        survey.cancel();  // with the pipe still open
    });
    EXPECT_THROW((void)survey.run(noProgress_), CancellationError);
    writer.join();
}

TEST_F(SurveyTest, CancelledWhileItMeasuresItEnds) {
    database_.write("status", record("a") + record("b"));
    ASSERT_EQ(::mkfifo((database_.folder() / "info" / "b.list").c_str(), 0600), 0);
    Survey survey(database_.file(), std::nullopt, kTimeout);
    std::thread writer([&] {
        std::ofstream pipe(database_.folder() / "info" / "b.list");  // waits until it is read
        survey.cancel();
        // What waited for the list goes on when the pipe closes, with nobody interested any more.
    });
    EXPECT_THROW((void)survey.run(noProgress_), CancellationError);
    writer.join();
    EXPECT_LE(survey.progress().measuredCount, 1U);
}

}  // namespace
}  // namespace package_browser
