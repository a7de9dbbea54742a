// What the consumers make of the records that they share.

#include <cstddef>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "InstalledPackages.h"
#include "SectionIndex.h"
#include "Statistics.h"
#include "TemporaryDatabase.h"

namespace package_browser {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using vantorq::syncWait;

const std::string kRemoved =
    "Package: removed\nStatus: deinstall ok config-files\nSection: games\nArchitecture: i386\n"
    "Depends: a, b, c, d\n\n";

class Consumers : public testing::Test {
protected:
    static std::string record(std::string_view name, std::string_view section = "x",
                              std::string_view fields = "") {
        return TemporaryDatabase::record(name, section, fields);
    }
    std::string installed(const std::string& text, const std::optional<std::string>& section) {
        const auto records = database_.records(text);
        InstalledPackages packages(*records, section);
        std::string names;
        while (const auto package = syncWait(packages.next())) {
            names += package->name->utf8() + " ";
        }
        return names;
    }
    SectionIndex index(const std::string& text, const std::optional<std::string>& section = {}) {
        const auto records = database_.records(text);
        return syncWait(indexBySection(InstalledPackages(*records, section)));
    }
    Statistics statistics(const std::string& text) {
        const auto records = database_.records(text);
        return syncWait(gatherStatistics(records->makeAsyncIterator()));
    }

private:
    const TemporaryDatabase database_;
};

TEST_F(Consumers, InstalledPackagesLeaveOutTheOthers) {
    EXPECT_EQ(installed(record("a") + kRemoved + "nonsense\n\n" + record("b"), std::nullopt),
              "a b ");
}

TEST_F(Consumers, InstalledPackagesMayBeOfOneSection) {
    const std::string text = record("a", "libs") + kRemoved + record("b", "games");
    EXPECT_EQ(installed(text, "games"), "b ");
    EXPECT_EQ(installed(text, "game"), "");
}

TEST_F(Consumers, IndexHoldsPlacesInTheOrderOfTheRecords) {
    EXPECT_THAT(index(record("a", "libs") + kRemoved + record("b", "games") + record("c", "libs")),
                ElementsAre(Pair("games", ElementsAre(1U)), Pair("libs", ElementsAre(0U, 2U))));
}

TEST_F(Consumers, IndexOfOneSectionCountsOnlyItsPackages) {
    EXPECT_THAT(index(record("a", "libs") + record("b", "games") + record("c", "libs"), "libs"),
                ElementsAre(Pair("libs", ElementsAre(0U, 1U))));
}

TEST_F(Consumers, StatisticsCountByArchitecture) {
    const auto found =
        statistics(record("a") + kRemoved +
                   "Package: b\nStatus: install ok installed\nArchitecture: all\n\n" + record("c"));
    EXPECT_THAT(found.architectures, ElementsAre(Pair("all", 1U), Pair("amd64", 2U)));
    EXPECT_EQ(found.notInstalledCount, 1U);
}

TEST_F(Consumers, StatisticsNameTheFirstOfThoseWithMostDependencies) {
    const auto found =
        statistics(kRemoved + record("a", "x", "Depends: p\n") +
                   record("b", "x", "Depends: p, q\n") + record("c", "x", "Pre-Depends: p, q\n"));
    ASSERT_TRUE(found.mostDependent);
    EXPECT_EQ(found.mostDependent->name->utf8(), "b");
    EXPECT_EQ(found.mostDependent->dependencyCount, 2U);
}

TEST_F(Consumers, StatisticsNameNoPackageWhenNoneDependsOnAnother) {
    EXPECT_FALSE(statistics(record("a")).mostDependent);
}

TEST_F(Consumers, StatisticsKeepTheRejectedRecords) {
    const auto found = statistics(record("a") + "nonsense\n\nmore\n");
    ASSERT_EQ(found.rejected.size(), 2U);
    EXPECT_EQ(found.rejected[0].line, 6U);
    EXPECT_EQ(found.rejected[0].reason, "a line without a colon");
    EXPECT_EQ(found.rejected[1].line, 8U);
}

}  // namespace
}  // namespace package_browser
