#include "Columns.h"

#include <gtest/gtest.h>

namespace package_browser {
namespace {

TEST(Columns, WidthCountsColumnsNotBytes) {
    EXPECT_EQ(displayWidth(""), 0U);
    EXPECT_EQ(displayWidth("abc"), 3U);
    EXPECT_EQ(displayWidth("Vesterø"), 7U);
    EXPECT_EQ(displayWidth("港の時計"), 8U);
    EXPECT_EQ(displayWidth("e\u0301"), 1U);
}

TEST(Columns, BytesThatAreNoTextTakeOneColumnEach) {
    EXPECT_EQ(displayWidth("a\xFF\xFE"), 3U);
}

TEST(Columns, TextThatFitsStays) {
    EXPECT_EQ(fitted("abc", 3), "abc");
    EXPECT_EQ(fitted("港", 2), "港");
    EXPECT_EQ(fitted("", 0), "");
}

TEST(Columns, TextThatIsTooWideEndsWithAnEllipsis) {
    EXPECT_EQ(fitted("abcd", 3), "ab…");
    EXPECT_EQ(fitted("abcd", 1), "…");
    EXPECT_EQ(fitted("abcd", 0), "");
}

TEST(Columns, WideCharacterIsNotCutInHalf) {
    EXPECT_EQ(fitted("港の時計", 4), "港…");
    EXPECT_EQ(fitted("港の時計", 5), "港の…");
}

TEST(Columns, PaddingCountsColumns) {
    EXPECT_EQ(padded("ø", 3), "ø  ");
    EXPECT_EQ(padded("港", 3), "港 ");
    EXPECT_EQ(padded("abcd", 3), "abcd");
}

}  // namespace
}  // namespace package_browser
