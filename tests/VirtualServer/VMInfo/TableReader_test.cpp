#include "VirtualServer/VMInfo/detail/TableReader.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "foundation/ByteOrder.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/TempDir.h"

namespace {

constexpr uint64_t Mebibyte = uint64_t{1} << 20U;
constexpr uint64_t Ceiling = uint64_t{1} << 30U;

class TableReader : public testing::Test {
protected:
    // A file of these bytes, and a reader of it.
    CTableReader& ReaderOf(const std::string& bytes) {
        EXPECT_OK(m_File.Open(m_Dir.Write("file", bytes).c_str(), 0x8080, 0));
        return m_Reader;
    }

    CTableReader& ReaderOfHole(uint64_t sizeBytes) {
        EXPECT_OK(m_File.Open(m_Dir.WriteHole("file", sizeBytes).c_str(), 0x8080, 0));
        return m_Reader;
    }

    const CTempDir m_Dir;
    CZuFile m_File;
    CTableReader m_Reader{m_File};
};

template <typename Element> std::string Bytes(const CAutoMemory<Element>& table) {
    std::string bytes(table.GetSize() * sizeof(Element), '\0');
    if (!bytes.empty())
        std::memcpy(bytes.data(), table.GetPtr(), bytes.size());
    return bytes;
}

uint64_t Sum(const std::vector<uint32_t>& sizes) {
    return std::accumulate(sizes.begin(), sizes.end(), uint64_t{0});
}

}  // namespace

TEST_F(TableReader, ReadsSoManyElementsAtAnOffset) {
    const std::string bytes = PatternedBytes(1000);
    CTableReader& reader = ReaderOf(bytes);
    CAutoMemory<Le32_t> wide;
    EXPECT_OK(reader.Read(100, 200, wide));
    EXPECT_EQ(wide.GetSize(), 200U);
    EXPECT_EQ(Bytes(wide), bytes.substr(100, 800));
    EXPECT_EQ(wide.GetPtr()[0], LittleEndianAt(bytes, 100, 4));
    CAutoMemory<char> narrow;
    EXPECT_OK(reader.Read(999, 1, narrow));
    EXPECT_EQ(Bytes(narrow), bytes.substr(999, 1));
}

TEST_F(TableReader, ATableOfNothingReadsNothing) {
    CTableReader& reader = ReaderOf("");
    const CFaultyFiles counted;
    CAutoMemory<Le32_t> table;
    ASSERT_NE(table.Alloc(5), nullptr);
    EXPECT_OK(reader.Read(12345, 0, table));
    EXPECT_EQ(table.GetSize(), 0U);
    EXPECT_EQ(counted.Calls(FaultOp::Read), 0U);
}

TEST_F(TableReader, WhatTheTableHeldBeforeIsReplaced) {
    CTableReader& reader = ReaderOf("abcdefgh");
    CAutoMemory<char> table;
    ASSERT_NE(table.Alloc(100), nullptr);
    EXPECT_OK(reader.Read(2, 3, table));
    EXPECT_EQ(Bytes(table), "cde");
}

TEST_F(TableReader, LargeTablesComeInPiecesOfAMebibyte) {
    const std::string bytes = PatternedBytes(5 * Mebibyte + 8);
    CTableReader& reader = ReaderOf(bytes);
    const struct {
        uint64_t count;
        std::vector<uint32_t> reads;
    } rows[] = {
        {Mebibyte / 4, {1U << 20U}},
        {Mebibyte / 4 + 1, {1U << 20U, 4}},
        {5 * Mebibyte / 4 + 1, {1U << 20U, 1U << 20U, 1U << 20U, 1U << 20U, 1U << 20U, 4}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.count);
        const CFaultyFiles counted;
        CAutoMemory<Le32_t> table;
        EXPECT_OK(reader.Read(4, row.count, table));
        EXPECT_EQ(counted.Sizes(FaultOp::Read), row.reads);
        EXPECT_EQ(table.GetSize(), row.count);
        EXPECT_TRUE(Bytes(table) == bytes.substr(4, row.count * 4));
    }
}

TEST_F(TableReader, ATableThatRunsOutOfItsFileEndsWithTheReadsOwnError) {
    CTableReader& reader = ReaderOf(std::string(1000, 'x'));
    const struct {
        const char* name;
        uint64_t offset;
        uint64_t count;
    } rows[] = {
        {"one element too many", 0, 251},       {"an offset at the end", 1000, 1},
        {"an offset behind the end", 5000, 1},  {"a count of 2^32", 0, uint64_t{1} << 32U},
        {"the most there is", 0, ~uint64_t{0}}, {"a count whose bytes wrap to 4", 0, (uint64_t{1} << 62U) + 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CAutoMemory<Le32_t> table;
        const CZuError error = reader.Read(row.offset, row.count, table);
        EXPECT_EQ(error.GetErrorType(), 4U) << error.ConvertToString();
        EXPECT_STRNE(error.GetErrorText(), "Out of memory");
    }
}

TEST_F(TableReader, ACountThatLiesCostsNoMoreThanOnePieceBehindTheFile) {
    CTableReader& reader = ReaderOf(std::string(3 * Mebibyte, 'x'));
    for (const uint64_t count : {uint64_t{1} << 20U, uint64_t{1} << 28U, uint64_t{1} << 40U, ~uint64_t{0}}) {
        SCOPED_TRACE(count);
        const CFaultyFiles counted;
        CAutoMemory<Le32_t> table;
        EXPECT_FAILURE(reader.Read(0, count, table));
        EXPECT_LE(Sum(counted.Sizes(FaultOp::Read)), 4 * Mebibyte);
        EXPECT_LE(uint64_t{table.GetSize()} * 4, 2 * 4 * Mebibyte);
    }
}

TEST_F(TableReader, OffsetsThatNoFileHasFailInTheSeek) {
    CTableReader& reader = ReaderOf(std::string(1000, 'x'));
    for (const uint64_t offset : {uint64_t{1} << 63U, ~uint64_t{0}, ~uint64_t{0} - 3}) {
        CAutoMemory<Le32_t> table;
        EXPECT_SYSTEM_ERROR(reader.Read(offset, 1, table), EINVAL) << offset;
    }
}

TEST_F(TableReader, EveryFailureOfTheMachineReachesTheCaller) {
    CTableReader& reader = ReaderOf(std::string(3 * Mebibyte, 'x'));
    unsigned int failAt = 0;
    for (;; ++failAt) {
        const CFaultyFiles faulty(Fault_t{FaultOp::Read, failAt, EIO});
        CAutoMemory<Le32_t> table;
        const CZuError error = reader.Read(0, 3 * Mebibyte / 4, table);
        if (!faulty.Fired())
            break;
        EXPECT_SYSTEM_ERROR(error, EIO) << failAt;
    }
    EXPECT_EQ(failAt, 3U);
}

TEST_F(TableReader, ChargesAreCountedUpToTheCeiling) {
    EXPECT_EQ(TableCeilingBytes, Ceiling);
    CTableReader& reader = ReaderOf("");
    EXPECT_OK(reader.Charge(Ceiling - 5));
    EXPECT_REFUSED(reader.Charge(6), "Out of memory");
    EXPECT_OK(reader.Charge(5)) << "what was refused isn't counted";
    EXPECT_OK(reader.Charge(0));
    EXPECT_REFUSED(reader.Charge(1), "Out of memory");
    EXPECT_REFUSED(reader.Charge(~uint64_t{0}), "Out of memory");
}

TEST_F(TableReader, OneReadersTablesShareTheCeiling) {
    CTableReader& reader = ReaderOf(std::string(2000, 'x'));
    CAutoMemory<char> first;
    CAutoMemory<char> second;
    EXPECT_OK(reader.Charge(Ceiling - 1500));
    EXPECT_OK(reader.Read(0, 1000, first));
    EXPECT_REFUSED(reader.Read(0, 501, second), "Out of memory");
    EXPECT_OK(reader.Read(0, 500, second));
    CTableReader other(m_File);
    EXPECT_OK(other.Read(0, 2000, second)) << "a ceiling of its own";
}

TEST_F(TableReader, AFileOfHolesEndsAtTheCeiling) {
    CTableReader& reader = ReaderOfHole(uint64_t{1} << 40U);
    EXPECT_OK(reader.Charge(Ceiling - 8 * Mebibyte));
    CFaultyFiles counted;
    CAutoMemory<Le32_t> table;
    EXPECT_REFUSED(reader.Read(0, uint64_t{1} << 36U, table), "Out of memory");
    EXPECT_EQ(Sum(counted.Sizes(FaultOp::Read)), 8 * Mebibyte);
}
