#include "VirtualServer/VMInfo/ExtentTable.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <vector>

namespace {

CExtentTable TableOf(const std::vector<ExtentTableEntry_t>& entries) {
    CExtentTable table;
    for (const ExtentTableEntry_t& entry : entries)
        table.Append(entry);
    return table;
}

TEST(ExtentTable, AnEmptyTableHoldsNoSector) {
    CExtentTable table;
    EXPECT_EQ(CExtentTable::NoSector, table.FindSector(0));
    EXPECT_EQ(0U, table.GetCount());
}

TEST(ExtentTable, TheEndSectorIsInsideAndTheOneBehindItIsNot) {
    CExtentTable table = TableOf({{4, 8}, {20, 20}});
    EXPECT_EQ(4U, table.FindSector(0));
    EXPECT_EQ(8U, table.FindSector(8));
    EXPECT_EQ(20U, table.FindSector(9));
    EXPECT_EQ(20U, table.FindSector(20));
    EXPECT_EQ(CExtentTable::NoSector, table.FindSector(21));
}

TEST(ExtentTable, ASectorBelowTheKeptPositionIsStillFound) {
    CExtentTable table = TableOf({{4, 8}, {20, 25}, {40, 41}});
    EXPECT_EQ(41U, table.FindSector(41));
    EXPECT_EQ(5U, table.FindSector(5));
    EXPECT_EQ(40U, table.FindSector(30));
    EXPECT_EQ(22U, table.FindSector(22));
}

TEST(ExtentTable, RunsEndWhereTheAnswerChanges) {
    CExtentTable table = TableOf({{4, 8}});
    bool isInside = true;
    EXPECT_EQ(4U, table.CountAlike(0, 100, isInside));
    EXPECT_FALSE(isInside);
    EXPECT_EQ(2U, table.CountAlike(0, 2, isInside));
    EXPECT_EQ(4U, table.CountAlike(5, 100, isInside));
    EXPECT_TRUE(isInside);
    EXPECT_EQ(100U, table.CountAlike(9, 100, isInside));
    EXPECT_FALSE(isInside);
    EXPECT_EQ(1U, table.CountAlike(9, 0, isInside));
}

TEST(ExtentTable, AStretchToTheEndOfAllNumbersIsOneRun) {
    CExtentTable table = TableOf({{0, ~uint64_t{0}}});
    bool isInside = false;
    EXPECT_EQ(1000U, table.CountAlike(7, 1000, isInside));
    EXPECT_TRUE(isInside);
}

// The walk as its contract has it, one sector after the other.
bool IsInTable(const std::vector<ExtentTableEntry_t>& entries, uint32_t& position, uint64_t sector) {
    if (entries.empty())
        return false;
    if (sector < entries[position].firstSector)
        position = 0;
    for (uint32_t index = position; index < entries.size(); ++index) {
        if (entries[index].firstSector > sector)
            return false;
        position = index;
        if (sector <= entries[index].endSector)
            return true;
    }
    return false;
}

// Also where stretches overlap and where a server doesn't keep their order.
TEST(ExtentTable, FindsWhatAWalkBySectorsFinds) {
    std::mt19937 random(20261122);
    for (int round = 0; round < 2000; ++round) {
        std::vector<ExtentTableEntry_t> entries;
        uint64_t at = 0;
        for (uint64_t count = random() % 6; count > 0; --count) {
            at = round % 3 == 0 ? random() % 40 : at + random() % 8;
            entries.push_back({at, at + random() % 6});
        }
        CExtentTable table = TableOf(entries);
        uint32_t position = 0;
        for (int question = 0; question < 20; ++question) {
            const uint64_t sector = random() % 50;
            uint64_t expected = sector;
            while (expected < 60 && !IsInTable(entries, position, expected))
                ++expected;
            const uint64_t found = table.FindSector(sector);
            if (found != CExtentTable::NoSector) {
                EXPECT_EQ(found, table.FindSector(found)) << "which the walk has tested, too";
            }
            EXPECT_EQ(expected < 60 ? expected : CExtentTable::NoSector, found) << round << ": " << sector;
        }
    }
}

}  // namespace
