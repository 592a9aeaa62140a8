#include "foundation/detail/CheckedMath.h"

#include <gtest/gtest.h>

namespace {
constexpr uint64_t Most = ~uint64_t{0};
}

TEST(CheckedMath, SumsSayWhetherTheyFit) {
    uint64_t result = 0;
    EXPECT_TRUE(CheckedAdd(Most - 1, 1, result));
    EXPECT_EQ(result, Most);
    EXPECT_FALSE(CheckedAdd(Most, 1, result));
    EXPECT_FALSE(CheckedAdd(Most, Most, result));
    EXPECT_TRUE(CheckedAdd(0, 0, result));
    EXPECT_EQ(result, 0U);
}

TEST(CheckedMath, ProductsSayWhetherTheyFit) {
    uint64_t result = 1;
    EXPECT_TRUE(CheckedMul(0, Most, result));
    EXPECT_EQ(result, 0U);
    EXPECT_TRUE(CheckedMul(uint64_t{1} << 31U, uint64_t{1} << 32U, result));
    EXPECT_EQ(result, uint64_t{1} << 63U);
    EXPECT_FALSE(CheckedMul(uint64_t{1} << 32U, uint64_t{1} << 32U, result));
    EXPECT_FALSE(CheckedMul(Most, 2, result));
}

TEST(CheckedMath, SectorsBecomeBytesOnlyWhereTheyFit) {
    uint64_t bytes = 0;
    EXPECT_TRUE(SectorsToBytes(3, bytes));
    EXPECT_EQ(bytes, 1536U);
    EXPECT_TRUE(SectorsToBytes(Most / 512, bytes));
    EXPECT_EQ(bytes, Most - 511);
    EXPECT_FALSE(SectorsToBytes(Most / 512 + 1, bytes));
}

TEST(CheckedMath, AnOffsetThatDoesNotFitIsOneThatNoSeekReaches) {
    EXPECT_EQ(FileOffsetOfSector(2), 1024U);
    EXPECT_EQ(FileOffsetOfSector(Most / 512 + 1), Most);
    EXPECT_EQ(FileOffsetOfSector(Most), Most);
}

TEST(CheckedMath, NarrowingSaysWhetherItFits) {
    uint32_t result = 0;
    EXPECT_TRUE(NarrowTo32(0xFFFFFFFFU, result));
    EXPECT_EQ(result, 0xFFFFFFFFU);
    EXPECT_FALSE(NarrowTo32(0x100000000U, result));
    EXPECT_FALSE(NarrowTo32(Most, result));
    EXPECT_TRUE(NarrowTo32(0, result));
    EXPECT_EQ(result, 0U);
}

TEST(CheckedMath, DividingRoundsUpWithoutWrapping) {
    EXPECT_EQ(DivideRoundingUp(0, 512), 0U);
    EXPECT_EQ(DivideRoundingUp(1, 512), 1U);
    EXPECT_EQ(DivideRoundingUp(512, 512), 1U);
    EXPECT_EQ(DivideRoundingUp(513, 512), 2U);
    EXPECT_EQ(DivideRoundingUp(Most, 1), Most);
    EXPECT_EQ(DivideRoundingUp(Most, Most), 1U);
    EXPECT_EQ(DivideRoundingUp(Most, 2), uint64_t{1} << 63U);
}
