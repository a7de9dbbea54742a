#include "RecordParser.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ParsedRecords.h"

namespace package_browser {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::string_view kInstalled = "Status: install ok installed\n";

std::string record(std::string_view name) {
    return "Package: " + std::string(name) + "\n" + std::string(kInstalled);
}

TEST(RecordParser, ReadsTheFieldsOfARecord) {
    const auto records = parsed(
        "Package: tide-tables\n"
        "Status: install ok installed\n"
        "Section: science\n"
        "Architecture: all\n"
        "Description: tide tables of two harbours\n"
        " A fortnight of water levels.\n");
    ASSERT_EQ(records.packages.size(), 1U);
    const Package& package = records.packages[0];
    EXPECT_EQ(package.name->utf8(), "tide-tables");
    EXPECT_EQ(package.section->utf8(), "science");
    EXPECT_EQ(package.architecture->utf8(), "all");
    EXPECT_EQ(package.summary->utf8(), "tide tables of two harbours");
    EXPECT_THAT(records.rejected, IsEmpty());
}

TEST(RecordParser, KeepsTheOrderOfTheRecords) {
    const auto records = parsed(record("b") + "\n" + record("a"));
    EXPECT_THAT(records.names(), ElementsAre("b", "a"));
}

TEST(RecordParser, EmptyTextHasNoRecords) {
    const auto records = parsed("");
    EXPECT_THAT(records.names(), IsEmpty());
    EXPECT_THAT(records.rejected, IsEmpty());
}

TEST(RecordParser, TellsWhichPackagesAreInstalled) {
    const auto records = parsed(
        "Package: removed\nStatus: deinstall ok config-files\n\n"
        "Package: never\nStatus: unknown ok not-installed\n\n"
        "Package: known\n\n"
        "Package: held\nStatus: hold ok installed\n");
    ASSERT_THAT(records.names(), ElementsAre("removed", "never", "known", "held"));
    EXPECT_FALSE(records.packages[0].isInstalled);
    EXPECT_FALSE(records.packages[1].isInstalled);
    EXPECT_FALSE(records.packages[2].isInstalled);
    EXPECT_TRUE(records.packages[3].isInstalled);
    EXPECT_THAT(records.rejected, IsEmpty());
}

TEST(RecordParser, SeveralBlankLinesPartRecordsAsOneDoes) {
    const auto records = parsed("\n\n" + record("a") + "\n \t\n\n" + record("b"));
    EXPECT_THAT(records.names(), ElementsAre("a", "b"));
}

TEST(RecordParser, LastLineNeedsNoLineEnd) {
    const auto records = parsed("Status: install ok installed\nPackage: a");
    EXPECT_THAT(records.names(), ElementsAre("a"));
}

TEST(RecordParser, FieldNamesDifferWithoutRegardToCase) {
    const auto records = parsed("PACKAGE: a\nstatus: install ok installed\n");
    EXPECT_THAT(records.names(), ElementsAre("a"));
}

TEST(RecordParser, ValuesMayHoldColonsAndBeEmpty) {
    const auto records = parsed(record("a") + "Homepage: https://a.example\nTag:\n");
    EXPECT_THAT(records.names(), ElementsAre("a"));
}

TEST(RecordParser, BlanksAroundAValueDoNotCount) {
    const auto records = parsed("Package:\ta \t\nStatus:install ok installed  \n");
    EXPECT_THAT(records.names(), ElementsAre("a"));
}

TEST(RecordParser, TabsWithinAValueBecomeSpaces) {
    const auto records = parsed(record("a") + "Description: one\ttwo\n");
    ASSERT_EQ(records.packages.size(), 1U);
    EXPECT_EQ(records.packages[0].summary->utf8(), "one two");
}

TEST(RecordParser, PackageWithoutASectionIsInTheSectionNone) {
    const auto records = parsed(record("a"));
    ASSERT_EQ(records.packages.size(), 1U);
    EXPECT_EQ(records.packages[0].section->utf8(), "(none)");
    EXPECT_EQ(records.packages[0].summary->utf8(), "");
}

TEST(RecordParser, IllFormedUtf8IsReplaced) {
    const auto records = parsed(record("a") + "Description: caf\xE9\n");
    ASSERT_EQ(records.packages.size(), 1U);
    EXPECT_EQ(records.packages[0].summary->utf8(), "caf\uFFFD");
}

/// That a record, which begins in line 4, is left out for this reason, and no other with it.
void expectLeftOut(std::string_view malformed, std::string_view problem) {
    const auto records =
        parsed(record("before") + "\n" + std::string(malformed) + "\n" + record("after"));
    EXPECT_THAT(records.names(), ElementsAre("before", "after"));
    EXPECT_THAT(records.rejected, ElementsAre(problem));
}

TEST(MalformedRecord, RecordWithoutAPackage) {
    expectLeftOut("Version: 1\nSection: a\n", "4: no Package field");
}

TEST(MalformedRecord, RecordOfAnEmptyPackage) {
    expectLeftOut("Section: a\nPackage:\n", "4: no Package field");
}

TEST(MalformedRecord, LineWithoutAColon) {
    expectLeftOut("Package: a\nno colon\n", "5: a line without a colon");
}

TEST(MalformedRecord, LineWithoutAFieldName) {
    expectLeftOut("Package: a\n: b\n", "5: no field name before the colon");
}

TEST(MalformedRecord, FieldNameWithABlank) {
    expectLeftOut("Package: a\nb c: d\n", "5: no field name before the colon");
}

TEST(MalformedRecord, FieldNameBeyondAscii) {
    expectLeftOut("Package: a\nä: d\n", "5: no field name before the colon");
}

TEST(MalformedRecord, ContinuationOfNoField) {
    expectLeftOut(" text\nPackage: a\n", "4: a continuation of no field");
}

TEST(MalformedRecord, SecondFieldOfOneName) {
    expectLeftOut("Package: a\nSection: b\nsection: c\n", "6: a field for the second time");
}

TEST(MalformedRecord, NulByte) {
    expectLeftOut(std::string_view("Package: a\nSection: b\0c\n", 24), "5: a control character");
}

TEST(MalformedRecord, EscapeSequence) {
    expectLeftOut("Package: \x1b[2Ja\n", "4: a control character");
}

TEST(MalformedRecord, EscapeSequenceOfOneCharacter) {
    expectLeftOut("Package: \u009B2Ja\n", "4: a control character");
}

TEST(MalformedRecord, CarriageReturn) {
    expectLeftOut("Package: a\r\n", "4: a control character");
}

TEST(MalformedRecord, LineOfMoreThanAMillionBytes) {
    expectLeftOut("Package: a\n" + std::string(1'000'001, 'x') + "\n",
                  "5: a line longer than a million bytes");
}

TEST(MalformedRecord, BlankLineOfMoreThanAMillionBytes) {
    expectLeftOut("Package: a\n" + std::string(1'000'001, ' ') + "\n",
                  "5: a line longer than a million bytes");
}

TEST(MalformedRecord, ContinuedFieldOfMoreThanAMillionBytes) {
    expectLeftOut("Package: a\nTag:\n " + std::string(600'000, 'x') + "\n " +
                      std::string(600'000, 'x') + "\n",
                  "7: a field longer than a million bytes");
}

TEST(MalformedRecord, SlashInAPackagesName) {
    expectLeftOut("Package: ../../etc/a\n", "4: the Package field is not a package's name");
}

TEST(MalformedRecord, BlankInAPackagesName) {
    expectLeftOut("Package: a b\n", "4: the Package field is not a package's name");
}

TEST(MalformedRecord, LineEndInAPackagesName) {
    expectLeftOut("Package: a\n b\n", "4: the Package field is not a package's name");
}

TEST(MalformedRecord, SlashInAnArchitecturesName) {
    expectLeftOut("Package: a\nArchitecture: x/y\n",
                  "4: the Architecture field is not an architecture's name");
}

TEST(MalformedRecord, OnlyTheFirstProblemOfARecordIsTold) {
    const auto records = parsed("one\ntwo\n : three\n\nfour\n");
    EXPECT_THAT(records.rejected,
                ElementsAre("1: a line without a colon", "5: a line without a colon"));
}

TEST(RecordParser, LineOfExactlyAMillionBytesIsTaken) {
    const std::string field = "Tag:";
    const auto records =
        parsed(record("a") + field + std::string(1'000'000 - field.size(), 'x') + "\n");
    EXPECT_THAT(records.names(), ElementsAre("a"));
}

TEST(RecordParser, FieldOfExactlyAMillionBytesIsTaken) {
    // Each continuation brings a line end.
    const auto records = parsed(record("a") + "Tag:" + std::string(500'000, 'x') + "\n " +
                                std::string(499'999, 'x') + "\n");
    EXPECT_THAT(records.names(), ElementsAre("a"));
}

TEST(RecordParser, CountsTheDependencies) {
    const auto records = parsed(record("a") + "Depends: b (>= 1), c | d,\n e\nPre-Depends: f\n\n" +
                                record("b") + "Depends:\n\n" + record("c"));
    ASSERT_EQ(records.packages.size(), 3U);
    EXPECT_EQ(records.packages[0].dependencyCount, 4U);
    EXPECT_EQ(records.packages[1].dependencyCount, 0U);
    EXPECT_EQ(records.packages[2].dependencyCount, 0U);
}

/// All that a text comes to, in one line for each record.
std::vector<std::string> description(const ParsedRecords& records) {
    std::vector<std::string> lines = records.rejected;
    for (const Package& package : records.packages) {
        lines.push_back(package.name->utf8() + "|" + package.architecture->utf8() + "|" +
                        package.section->utf8() + "|" + package.summary->utf8() + "|" +
                        std::to_string(package.dependencyCount) +
                        (package.isInstalled ? "|installed" : ""));
    }
    return lines;
}

TEST(RecordParser, BordersOfChunksMeanNothing) {
    const std::string text =
        "\n" + record("first") +
        "Description: Vesterø \t lights\n of the coast\nDepends: a,\n b\n\n\n \t\n"
        "no colon\nPackage: second\n\n" +
        "Package: third\nArchitecture: all\nSection: s\n\n continues nothing\n\n" +
        "Package: fourth\n: nothing\n\nPackage: \u009B\n\n" + record("last") + "Tag:";
    const auto whole = description(parsed(text));
    ASSERT_EQ(whole.size(), 7U);
    for (std::size_t size = 1; size <= text.size(); ++size) {
        EXPECT_EQ(description(parsed(text, size)), whole) << "in chunks of " << size;
    }
}

TEST(RecordParser, RecordIsThereAsSoonAsTheNextLineIsBlank) {
    RecordParser parser;
    parser.take(record("a"));
    EXPECT_FALSE(parser.next());
    parser.take("\n");
    EXPECT_TRUE(parser.next());
    EXPECT_FALSE(parser.next());
}

TEST(RecordParser, LineWithoutAnEndIsToldOnce) {
    RecordParser parser;
    const std::string chunk(600'000, 'x');
    for (int count = 0; count < 10; ++count) {
        parser.take(chunk);
        EXPECT_FALSE(parser.next());
    }
    parser.end();
    const auto record = parser.next();
    ASSERT_TRUE(record);
    EXPECT_EQ(std::get<RejectedRecord>(*record).reason, "a line longer than a million bytes");
    EXPECT_FALSE(parser.next());
}

}  // namespace
}  // namespace package_browser
