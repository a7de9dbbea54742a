#include <clocale>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "Support/Print.h"
#include "VantorqFoundation/Platform/FormatArgument.h"
#include "VantorqFoundation/Platform/NSArray.h"
#include "VantorqFoundation/Platform/NSNumber.h"
#include "VantorqFoundation/Platform/NSString.h"

namespace vantorq {
namespace {

template <class... Args>
std::string format(std::string_view formatText, const Args&... args) {
    return NSString::stringWithFormat(*NSString::string(formatText), args...)->utf8();
}

TEST(FormatString, TextStandsAsItIs) {
    EXPECT_EQ(format(""), "");
    EXPECT_EQ(format("plain"), "plain");
    EXPECT_EQ(format("né 😀"), "né 😀");
    EXPECT_EQ(format("100%%"), "100%");
}

TEST(FormatString, ObjectsAreDescribed) {
    EXPECT_EQ(format("<%@>", NSNumber::number(3)), "<3>");
    EXPECT_EQ(format("<%@>", "né"_ns), "<né>");
    EXPECT_EQ(format("<%@>", nullptr), "<(null)>");
    EXPECT_EQ(format("<%@>", Ref<NSString>()), "<(null)>");
}

TEST(FormatString, Integers) {
    EXPECT_EQ(format("%d %i %u", -5, 6, 7U), "-5 6 7");
    EXPECT_EQ(format("%x %X %o", 255, 255, 8), "ff FF 10");
    EXPECT_EQ(format("%#x %#X %#o %#x", 255, 255, 8, 0), "0xff 0XFF 010 0");
    EXPECT_EQ(format("%ld", INT64_MIN), "-9223372036854775808");
    EXPECT_EQ(format("%lu", UINT64_MAX), "18446744073709551615");
}

TEST(FormatString, LengthsCutIntegers) {
    EXPECT_EQ(format("%hhd %hd %d %lld", 257, 65537, 4294967297, 4294967297), "1 1 1 4294967297");
    EXPECT_EQ(format("%hhu %hu %u", -1, -1, -1), "255 65535 4294967295");
    EXPECT_EQ(format("%x %lx", -1, -1), "ffffffff ffffffffffffffff");
    EXPECT_EQ(format("%qd %jd %zd %td", INT64_MAX, INT64_MAX, INT64_MAX, INT64_MAX),
              "9223372036854775807 9223372036854775807 9223372036854775807 9223372036854775807");
}

TEST(FormatString, FlagsWidthAndPrecisionOfIntegers) {
    EXPECT_EQ(format("[%5d] [%-5d] [%05d]", 42, 42, -42), "[   42] [42   ] [-0042]");
    EXPECT_EQ(format("[%+d] [% d] [%+ d]", 1, 1, 1), "[+1] [ 1] [+1]");
    EXPECT_EQ(format("[%.3d] [%5.3d] [%05.3d] [%-05d]", 7, 7, 7, 7),
              "[007] [  007] [  007] [7    ]");
    EXPECT_EQ(format("[%.0d] [%.0x] [%#.0o]", 0, 0, 0), "[] [] [0]");
    EXPECT_EQ(format("[%#06x]", 255), "[0x00ff]");
}

TEST(FormatString, FloatingPoint) {
    EXPECT_EQ(format("%f %.2f %.0f", 1.5, 2.345, 2.5), "1.500000 2.35 2");
    EXPECT_EQ(format("%e %.1E", 12345.678, 0.00012), "1.234568e+04 1.2E-04");
    EXPECT_EQ(format("%g %g %g %G", 0.0001, 0.00001, 1e20, 1e-10), "0.0001 1e-05 1e+20 1E-10");
    EXPECT_EQ(format("%#g %#.3g %#.0f %#.0e", 1.0, 1e10, 3.0, 3.0), "1.00000 1.00e+10 3. 3.e+00");
    EXPECT_EQ(format("[%8.2f] [%-8.2f] [%08.2f] [%+.1f]", 3.14159, 3.14159, -3.14159, 2.0),
              "[    3.14] [3.14    ] [-0003.14] [+2.0]");
}

TEST(FormatString, NumbersThatAreNone) {
    const double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(format("%f %F %05f %+e", infinity, -infinity, infinity, infinity),
              "inf -INF   inf +inf");
    EXPECT_EQ(format("%f %G", std::nan(""), std::nan("")), "nan NAN");
    EXPECT_EQ(format("%f", -0.0), "-0.000000");
}

TEST(FormatString, TheGreatestNumbersFit) {
    const auto text = format("%.4096f", -std::numeric_limits<double>::max());
    EXPECT_EQ(text.size(), 1 + 309 + 1 + 4096U);
    EXPECT_TRUE(text.starts_with("-179769313486231570814527423731704356798"));
}

TEST(FormatString, TheDecimalPointDoesNotDependOnTheLocale) {
    const char* before = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
    const auto text = format("%.1f %@", 1.5, 2.5);
    if (before != nullptr) {
        std::setlocale(LC_NUMERIC, "C");
    }
    EXPECT_EQ(text, "1.5 2.5");
}

TEST(FormatString, CharactersAndText) {
    EXPECT_EQ(format("%c%c", 'a', 0xE9), "aé");
    EXPECT_EQ(format("%C%C", 0xD83D, 0xDE00), "😀");
    EXPECT_EQ(format("%s|%s", "né", std::string("b")), "né|b");
    EXPECT_EQ(format("[%5s] [%-5s] [%.2s]", "ab", "ab", "abc"), "[   ab] [ab   ] [ab]");
    EXPECT_EQ(format("[%5@] [%.2@]", "ab"_ns, "abc"_ns), "[   ab] [ab]");
    EXPECT_EQ(format("%s", static_cast<const char*>(nullptr)), "(null)");
}

TEST(FormatString, Pointers) {
    EXPECT_EQ(format("%p", reinterpret_cast<const void*>(0xABC)), "0xabc");
    EXPECT_EQ(format("%p", static_cast<const void*>(nullptr)), "0x0");
    EXPECT_EQ(format("%@", reinterpret_cast<const void*>(0xABC)), "0xabc");
}

TEST(FormatString, WidthAndPrecisionFromArguments) {
    EXPECT_EQ(format("[%*d] [%-*d] [%*d]", 4, 1, 4, 1, -4, 1), "[   1] [1   ] [1   ]");
    EXPECT_EQ(format("[%.*f] [%.*f]", 1, 2.0, -1, 2.0), "[2.0] [2.000000]");
    EXPECT_EQ(format("[%*d]", "x", 1), "[1]");
}

TEST(FormatString, PositionsNameArguments) {
    EXPECT_EQ(format("%2$@ %1$@ %2$@", "a"_ns, "b"_ns), "b a b");
    EXPECT_EQ(format("[%1$*2$d]", 7, 3), "[  7]");
    EXPECT_EQ(format("%0$@ %9$@", 1), "(null) (null)");
}

TEST(FormatString, MissingArgumentsAreNull) {
    EXPECT_EQ(format("%@ %d %f %s"), "(null) (null) (null) (null)");
}

TEST(FormatString, ArgumentsOfAnotherKindAreConvertedOrWrittenPlainly) {
    EXPECT_EQ(format("%f %d", 3, 3.9), "3.000000 3");
    EXPECT_EQ(format("%ld %ld", 1e300, std::nan("")), "-1 0");
    EXPECT_EQ(format("%lu", 1e300), "18446744073709551615");
    EXPECT_EQ(format("%d %f %s", "a"_ns, "b"_ns, NSNumber::number(1)), "a b 1");
    EXPECT_EQ(format("%d %c", "text", "t"), "text t");
    EXPECT_EQ(format("%@ %@ %@ %@ %@", -1, 2U, 0.1, true, "utf8"), "-1 2 0.1 1 utf8");
}

TEST(FormatString, WhatIsNoConversionStandsAsItIs) {
    EXPECT_EQ(format("%"), "%");
    EXPECT_EQ(format("50% yes %y %5", 1), "50% yes %y %5");
    EXPECT_EQ(format("%n %@", 1), "%n 1");
    EXPECT_EQ(format("%é%@", 1), "%é1");
}

TEST(FormatString, WidthAndPrecisionAreLimited) {
    EXPECT_EQ(format("%99999999999999999999d", 1).size(), 4096U);
    EXPECT_EQ(format("%.99999999999999999999d", 1).size(), 4096U);
    EXPECT_EQ(format("%*d", INT64_MIN, 1).size(), 4096U);
    EXPECT_EQ(format("%.*f", INT64_MAX, 1.0).size(), 4098U);
}

}  // namespace
}  // namespace vantorq
