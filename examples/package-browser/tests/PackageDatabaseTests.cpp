#include "PackageDatabase.h"

#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace package_browser {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::string_view kInstalled = "Status: install ok installed\n";

std::string record(std::string_view name) {
    return "Package: " + std::string(name) + "\n" + std::string(kInstalled);
}

std::vector<std::string> names(const PackageDatabase& database) {
    std::vector<std::string> names;
    for (const Package& package : database.packages) {
        names.push_back(package.name->utf8());
    }
    return names;
}

std::vector<std::string> problems(const PackageDatabase& database) {
    std::vector<std::string> problems;
    for (const auto& [line, text] : database.problems) {
        problems.push_back(std::to_string(line) + ": " + text);
    }
    return problems;
}

TEST(PackageDatabase, ReadsTheFieldsOfARecord) {
    const auto database = PackageDatabase::parse(
        "Package: tide-tables\n"
        "Status: install ok installed\n"
        "Section: science\n"
        "Architecture: all\n"
        "Description: tide tables of two harbours\n"
        " A fortnight of water levels.\n");
    ASSERT_EQ(database.packages.size(), 1U);
    const Package& package = database.packages[0];
    EXPECT_EQ(package.name->utf8(), "tide-tables");
    EXPECT_EQ(package.section->utf8(), "science");
    EXPECT_EQ(package.architecture->utf8(), "all");
    EXPECT_EQ(package.summary->utf8(), "tide tables of two harbours");
    EXPECT_THAT(problems(database), IsEmpty());
}

TEST(PackageDatabase, KeepsTheOrderOfTheRecords) {
    const auto database = PackageDatabase::parse(record("b") + "\n" + record("a"));
    EXPECT_THAT(names(database), ElementsAre("b", "a"));
}

TEST(PackageDatabase, EmptyTextHasNoRecords) {
    const auto database = PackageDatabase::parse("");
    EXPECT_EQ(database.recordCount, 0U);
    EXPECT_THAT(problems(database), IsEmpty());
}

TEST(PackageDatabase, LeavesOutPackagesThatAreNotInstalledButCountsThem) {
    const auto database = PackageDatabase::parse(
        "Package: removed\nStatus: deinstall ok config-files\n\n"
        "Package: never\nStatus: unknown ok not-installed\n\n"
        "Package: known\n\n"
        "Package: held\nStatus: hold ok installed\n");
    EXPECT_THAT(names(database), ElementsAre("held"));
    EXPECT_EQ(database.recordCount, 4U);
    EXPECT_THAT(problems(database), IsEmpty());
}

TEST(PackageDatabase, SeveralBlankLinesPartRecordsAsOneDoes) {
    const auto database = PackageDatabase::parse("\n\n" + record("a") + "\n \t\n\n" + record("b"));
    EXPECT_THAT(names(database), ElementsAre("a", "b"));
}

TEST(PackageDatabase, LastLineNeedsNoLineEnd) {
    const auto database = PackageDatabase::parse("Status: install ok installed\nPackage: a");
    EXPECT_THAT(names(database), ElementsAre("a"));
}

TEST(PackageDatabase, FieldNamesDifferWithoutRegardToCase) {
    const auto database = PackageDatabase::parse("PACKAGE: a\nstatus: install ok installed\n");
    EXPECT_THAT(names(database), ElementsAre("a"));
}

TEST(PackageDatabase, ValuesMayHoldColonsAndBeEmpty) {
    const auto database =
        PackageDatabase::parse(record("a") + "Homepage: https://a.example\nTag:\n");
    EXPECT_THAT(names(database), ElementsAre("a"));
}

TEST(PackageDatabase, BlanksAroundAValueDoNotCount) {
    const auto database = PackageDatabase::parse("Package:\ta \t\nStatus:install ok installed  \n");
    EXPECT_THAT(names(database), ElementsAre("a"));
}

TEST(PackageDatabase, TabsWithinAValueBecomeSpaces) {
    const auto database = PackageDatabase::parse(record("a") + "Description: one\ttwo\n");
    ASSERT_EQ(database.packages.size(), 1U);
    EXPECT_EQ(database.packages[0].summary->utf8(), "one two");
}

TEST(PackageDatabase, PackageWithoutASectionIsInTheSectionNone) {
    const auto database = PackageDatabase::parse(record("a"));
    ASSERT_EQ(database.packages.size(), 1U);
    EXPECT_EQ(database.packages[0].section->utf8(), "(none)");
    EXPECT_EQ(database.packages[0].summary->utf8(), "");
}

TEST(PackageDatabase, IllFormedUtf8IsReplaced) {
    const auto database = PackageDatabase::parse(record("a") + "Description: caf\xE9\n");
    ASSERT_EQ(database.packages.size(), 1U);
    EXPECT_EQ(database.packages[0].summary->utf8(), "caf\uFFFD");
}

/// That a record, which begins in line 4, is left out for this reason, and no other with it.
void expectLeftOut(std::string_view malformed, std::string_view problem) {
    const auto database = PackageDatabase::parse(record("before") + "\n" + std::string(malformed) +
                                                 "\n" + record("after"));
    EXPECT_THAT(names(database), ElementsAre("before", "after"));
    EXPECT_THAT(problems(database), ElementsAre(problem));
    EXPECT_EQ(database.recordCount, 2U);
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

TEST(MalformedRecord, FieldOfMoreThanAMillionBytes) {
    expectLeftOut("Package: a\nTag: " + std::string(1'000'001, 'x') + "\n",
                  "5: a field longer than a million bytes");
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
    const auto database = PackageDatabase::parse("one\ntwo\n : three\n\nfour\n");
    EXPECT_THAT(problems(database),
                ElementsAre("1: a line without a colon", "5: a line without a colon"));
}

TEST(PackageDatabase, FieldOfExactlyAMillionBytesIsTaken) {
    const auto database =
        PackageDatabase::parse(record("a") + "Tag: " + std::string(1'000'000, 'x') + "\n");
    EXPECT_THAT(names(database), ElementsAre("a"));
}

}  // namespace
}  // namespace package_browser
