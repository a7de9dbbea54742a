#include "SizeText.h"

#include <cstdint>

#include <gtest/gtest.h>

namespace package_browser {
namespace {

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1024 * kKiB;

TEST(SizeText, BytesAreWhole) {
    EXPECT_EQ(sizeText(0), "0 B");
    EXPECT_EQ(sizeText(1), "1 B");
    EXPECT_EQ(sizeText(1023), "1023 B");
}

TEST(SizeText, UnitsAreTakenAt1024) {
    EXPECT_EQ(sizeText(kKiB), "1.0 KiB");
    EXPECT_EQ(sizeText(kMiB), "1.0 MiB");
    EXPECT_EQ(sizeText(1024 * kMiB), "1.0 GiB");
}

TEST(SizeText, OneDecimalBelowTenAndNoneFromTenOn) {
    EXPECT_EQ(sizeText(kKiB * 3 / 2), "1.5 KiB");
    EXPECT_EQ(sizeText(10 * kKiB), "10 KiB");
    EXPECT_EQ(sizeText(312 * kMiB), "312 MiB");
}

TEST(SizeText, RoundingNeverGivesAThirdDigitOrA1024) {
    EXPECT_EQ(sizeText(10 * kKiB - 1), "10 KiB");
    EXPECT_EQ(sizeText(kMiB - 1), "1.0 MiB");
    EXPECT_EQ(sizeText(1023 * kKiB), "1023 KiB");
}

TEST(SizeText, LargestNumberHasAUnit) {
    EXPECT_EQ(sizeText(UINT64_MAX), "16 EiB");
}

}  // namespace
}  // namespace package_browser
