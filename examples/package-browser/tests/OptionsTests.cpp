#include "Options.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace package_browser {
namespace {

using vantorq::NSError;
using vantorq::Ref;
using Arguments = std::vector<const char*>;

Options parsed(const Arguments& arguments) {
    Ref<NSError> error;
    auto options = Options::parse(arguments, &error);
    EXPECT_TRUE(options) << error->description()->utf8();
    return options.value_or(Options());
}

/// What is said of arguments that are wrong.
std::string complaint(const Arguments& arguments) {
    Ref<NSError> error;
    const auto options = Options::parse(arguments, &error);
    EXPECT_FALSE(options);
    return options ? "" : error->localizedFailureReason()->utf8();
}

TEST(Options, WithoutArgumentsAllIsShownOfTheMachinesDatabase) {
    const Options options = parsed({});
    EXPECT_EQ(options.file, std::nullopt);
    EXPECT_EQ(options.section, std::nullopt);
    EXPECT_EQ(options.top, std::nullopt);
    EXPECT_EQ(options.timeout, 10);
    EXPECT_FALSE(options.showsHelp);
}

TEST(Options, OptionsAndFileMayStandInAnyOrder) {
    const Options options =
        parsed({"--top", "3", "status", "--section", "libs", "--timeout", "0.5"});
    EXPECT_EQ(options.file, "status");
    EXPECT_EQ(options.section, "libs");
    EXPECT_EQ(options.top, 3U);
    EXPECT_EQ(options.timeout, 0.5);
}

TEST(Options, ValueMayFollowAnEqualsSign) {
    const Options options = parsed({"--section=a=b", "--top=0", "--timeout=1e-6"});
    EXPECT_EQ(options.section, "a=b");
    EXPECT_EQ(options.top, 0U);
    EXPECT_EQ(options.timeout, 1e-6);
}

TEST(Options, FileMayBeginWithADashAfterTwoDashes) {
    EXPECT_EQ(parsed({"--", "--top"}).file, "--top");
}

TEST(Options, HelpIsAskedFor) {
    EXPECT_TRUE(parsed({"--help"}).showsHelp);
}

TEST(Options, EveryOptionIsInTheUsage) {
    for (const char* option : {"FILE", "--section", "--top", "--timeout", "--help"}) {
        EXPECT_NE(usage().find(option), std::string::npos) << option;
    }
}

TEST(Options, WrongArgumentIsNamed) {
    EXPECT_EQ(complaint({"--colour"}), "unknown option '--colour'; --help tells which there are");
    EXPECT_EQ(complaint({"-t"}), "unknown option '-t'; --help tells which there are");
    EXPECT_EQ(complaint({"--help=me"}), "unknown option '--help=me'; --help tells which there are");
    EXPECT_EQ(complaint({"a", "b"}), "one FILE at a time, not also 'b'");
    EXPECT_EQ(complaint({"--", "a", "b"}), "one FILE at a time, not also 'b'");
}

TEST(Options, ValueMustNotBeMissing) {
    for (const std::string option : {"--section", "--top", "--timeout"}) {
        EXPECT_EQ(complaint({option.c_str()}), option + " needs a value");
    }
}

TEST(Options, TopTakesWholeNumbersOnly) {
    for (const std::string value :
         {"", "x", "-1", "1.5", "3x", " 3", "+3", "99999999999999999999999"}) {
        EXPECT_EQ(complaint({"--top", value.c_str()}),
                  "--top needs a whole number, not '" + value + "'");
    }
}

TEST(Options, TimeoutTakesPositiveFiniteNumbersOnly) {
    for (const std::string value : {"", "soon", "0", "-1", "inf", "nan", "1s", "1e999"}) {
        EXPECT_EQ(complaint({"--timeout", value.c_str()}),
                  "--timeout needs a positive number of seconds, not '" + value + "'");
    }
}

}  // namespace
}  // namespace package_browser
