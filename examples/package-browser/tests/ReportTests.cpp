#include "Report.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

namespace package_browser {
namespace {

using vantorq::NSString;
using Outcome = MeasuredPackage::Outcome;

MeasuredPackage measured(std::string_view section, std::string_view name, std::uint64_t size,
                         std::string_view summary = "", std::string_view architecture = "all") {
    return {
        .package = {.name = NSString::string(name),
                    .architecture = NSString::string(architecture),
                    .section = NSString::string(section),
                    .summary = NSString::string(summary),
                    .dependencyCount = 0,
                    .isInstalled = true},
        .size = size,
    };
}

MeasuredPackage unmeasured(std::string_view section, std::string_view name, Outcome outcome) {
    MeasuredPackage one = measured(section, name, 0);
    one.outcome = outcome;
    return one;
}

std::string names(const std::vector<Section>& sections) {
    std::string names;
    for (const Section& section : sections) {
        names += section.name + "(";
        for (const MeasuredPackage& one : section.packages) {
            names += " " + one.package.name->utf8();
        }
        names += " ) ";
    }
    return names;
}

/// The sections of packages that an index lists in the order in which they are given.
std::vector<Section> grouped(const std::vector<MeasuredPackage>& packages) {
    SectionIndex index;
    for (std::size_t place = 0; place < packages.size(); ++place) {
        index[packages[place].package.section->utf8()].push_back(place);
    }
    return sections(index, packages);
}

std::string plainListing(const std::vector<MeasuredPackage>& packages, ListingStyle style = {},
                         const Statistics& statistics = {}) {
    return listing(grouped(packages), statistics, style);
}

TEST(Grouping, LargestComeFirst) {
    const auto found =
        grouped({measured("small", "a", 1), measured("large", "b", 2), measured("large", "c", 3)});
    EXPECT_EQ(names(found), "large( c b ) small( a ) ");
    EXPECT_EQ(found[0].size, 5U);
    EXPECT_EQ(found[1].size, 1U);
}

TEST(Grouping, NamesDecideBetweenEqualSizes) {
    const auto found = grouped({measured("y", "b", 1), measured("y", "a", 1), measured("x", "d", 1),
                                measured("x", "c", 1)});
    EXPECT_EQ(names(found), "x( c d ) y( a b ) ");
}

TEST(Grouping, WhatWasNotMeasuredComesLast) {
    const auto found = grouped({unmeasured("x", "a", Outcome::withoutFileList),
                                unmeasured("x", "b", Outcome::timedOut), measured("x", "c", 0)});
    EXPECT_EQ(names(found), "x( c b a ) ");
}

TEST(Listing, IsAlignedAndTotalled) {
    EXPECT_EQ(plainListing({measured("libs", "libtide1", 2048, "harmonic constants"),
                            measured("utils", "harbour-clock", 512, "tells the time"),
                            measured("libs", "c", 1024)}),
              "  3.0 KiB  libs, 2 packages\n"
              "  2.0 KiB    libtide1       harmonic constants\n"
              "  1.0 KiB    c\n"
              "\n"
              "    512 B  utils, 1 package\n"
              "    512 B    harbour-clock  tells the time\n"
              "\n"
              "  3.5 KiB  3 packages in 2 sections\n"
              "  1.2 KiB  a package on average\n");
}

TEST(Listing, OneSectionNeedsNoTotals) {
    EXPECT_EQ(plainListing({measured("libs", "a", 1)}),
              "      1 B  libs, 1 package\n"
              "      1 B    a\n"
              "\n");
}

TEST(Listing, NothingHasTotalsToo) {
    EXPECT_EQ(plainListing({}), "      0 B  0 packages in 0 sections\n");
}

TEST(Listing, WhatWasNotMeasuredIsListedAndCounted) {
    EXPECT_EQ(plainListing({measured("libs", "a", 1), unmeasured("libs", "b", Outcome::timedOut),
                            unmeasured("libs", "c", Outcome::timedOut),
                            unmeasured("libs", "d", Outcome::withoutFileList)}),
              "      1 B  libs, 4 packages\n"
              "      1 B    a\n"
              "timed out    b\n"
              "timed out    c\n"
              "  no list    d\n"
              "\n"
              "           Timed out: 2 packages, as 0 B\n"
              "           No file list: 1 package, as 0 B\n");
}

TEST(Listing, TopLeavesOutTheSmallestAndTellsHowMany) {
    EXPECT_EQ(
        plainListing({measured("libs", "a", 3), measured("libs", "b", 2), measured("libs", "c", 1)},
                     {.top = 1}),
        "      6 B  libs, 3 packages\n"
        "      3 B    a\n"
        "      3 B    2 more\n"
        "\n");
}

TEST(Listing, TopOfNothingShowsTheSectionsAlone) {
    EXPECT_EQ(plainListing({measured("x", "a", 3), measured("y", "b", 2)}, {.top = 0}),
              "      3 B  x, 1 package\n"
              "      2 B  y, 1 package\n"
              "      5 B  2 packages in 2 sections\n"
              "      2 B  a package on average\n");
}

TEST(Listing, AverageIsOfThePackagesThatWereMeasured) {
    EXPECT_EQ(plainListing({measured("x", "a", 2), measured("y", "b", 4),
                            unmeasured("z", "c", Outcome::timedOut)},
                           {.top = 0}),
              "      4 B  y, 1 package\n"
              "      2 B  x, 1 package\n"
              "      0 B  z, 1 package\n"
              "      6 B  3 packages in 3 sections\n"
              "      3 B  a package on average\n"
              "           Timed out: 1 package, as 0 B\n");
}

TEST(Listing, StatisticsFollowTheTotals) {
    const Statistics statistics{
        .architectures = {{"all", 1}, {"amd64", 2}, {"", 1}},
        .mostDependent = Package{.name = NSString::string("b"),
                                 .architecture = NSString::string("all"),
                                 .section = NSString::string("x"),
                                 .summary = NSString::string(""),
                                 .dependencyCount = 7,
                                 .isInstalled = true},
        .notInstalledCount = 2,
        .rejected = {},
    };
    EXPECT_EQ(plainListing({}, {}, statistics),
              "      0 B  0 packages in 0 sections\n"
              "           Architectures: (none) 1, all 1, amd64 2\n"
              "           Most dependencies: b, 7\n"
              "           Known but not installed: 2 packages\n");
}

TEST(Listing, OneSectionNeedsNoStatistics) {
    EXPECT_EQ(plainListing({measured("x", "a", 1)}, {.top = 0},
                           {.architectures = {{"all", 9}},
                            .mostDependent = {},
                            .notInstalledCount = 3,
                            .rejected = {}}),
              "      1 B  x, 1 package\n");
}

TEST(Listing, ArchitectureTellsPackagesOfOneNameApart) {
    EXPECT_EQ(plainListing({measured("libs", "libc", 2, "", "amd64"),
                            measured("libs", "libc", 1, "", "i386"), measured("libs", "a", 0)}),
              "      3 B  libs, 3 packages\n"
              "      2 B    libc:amd64\n"
              "      1 B    libc:i386\n"
              "      0 B    a\n"
              "\n");
}

TEST(Listing, LongNamePushesItsSummary) {
    const std::string name(40, 'n');
    EXPECT_EQ(plainListing({measured("x", name, 1, "long"), measured("x", "b", 0, "short")}),
              "      1 B  x, 2 packages\n"
              "      1 B    " +
                  name +
                  "  long\n"
                  "      0 B    b" +
                  std::string(29, ' ') +
                  "  short\n"
                  "\n");
}

TEST(Listing, TerminalGetsBoldSectionsAndDimSummaries) {
    EXPECT_EQ(plainListing({measured("x", "a", 1, "one two three")}, {.columns = 80}),
              "      1 B  \x1b[1mx, 1 package\x1b[m\n"
              "      1 B    a  \x1b[2mone two three\x1b[m\n"
              "\n");
}

TEST(Listing, SummaryIsCutAtTheEdgeOfTheTerminal) {
    EXPECT_EQ(plainListing({measured("x", "a", 1, "one two three four five")}, {.columns = 32}),
              "      1 B  \x1b[1mx, 1 package\x1b[m\n"
              "      1 B    a  \x1b[2mone two three f…\x1b[m\n"
              "\n");
}

TEST(Listing, NarrowTerminalGetsNoSummariesAndCutNames) {
    EXPECT_EQ(plainListing({measured("x", "harbour-clock", 1, "tells the time")}, {.columns = 20}),
              "      1 B  \x1b[1mx, 1 pac…\x1b[m\n"
              "      1 B  \x1b[m  harbou…\x1b[m\n"
              "\n");
}

TEST(Listing, WideNamesAreAlignedByTheirColumns) {
    EXPECT_EQ(plainListing({measured("x", "港の時計", 1, "one"), measured("x", "clock", 0, "two")}),
              "      1 B  x, 2 packages\n"
              "      1 B    港の時計  one\n"
              "      0 B    clock     two\n"
              "\n");
}

}  // namespace
}  // namespace package_browser
