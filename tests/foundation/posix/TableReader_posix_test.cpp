#include <gtest/gtest.h>

#include <string>

#include "VirtualServer/VMInfo/detail/TableReader.h"
#include "foundation/ByteOrder.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/TempDir.h"
#include "tests/support/posix/MemoryMeter.h"

namespace {

constexpr uint64_t Mebibyte = uint64_t{1} << 20U;

class TableReaderMemory : public testing::Test {
protected:
    void OpenFile(uint64_t sizeBytes) { ASSERT_OK(m_File.Open(m_Dir.WriteHole("file", sizeBytes).c_str(), 0x8080, 0)); }

    const CTempDir m_Dir;
    CZuFile m_File;
};

}  // namespace

TEST_F(TableReaderMemory, FollowsTheBytesThatAreThereAndNotTheCount) {
    const struct {
        uint64_t fileBytes;
        size_t mostBytes;
    } rows[] = {{0, 2 * Mebibyte}, {1000, 2 * Mebibyte}, {8 * Mebibyte, 32 * Mebibyte}};
    for (const auto& row : rows) {
        for (const uint64_t count : {uint64_t{1} << 26U, uint64_t{1} << 40U, ~uint64_t{0}}) {
            SCOPED_TRACE(std::to_string(row.fileBytes) + " bytes, count " + std::to_string(count));
            OpenFile(row.fileBytes);
            CTableReader reader(m_File);
            CAutoMemory<Le32_t> table;
            const CMemoryMeter meter;
            EXPECT_FAILURE(reader.Read(0, count, table));
            EXPECT_LE(meter.PeakBytes(), row.mostBytes);
        }
    }
}

TEST_F(TableReaderMemory, ATableKeepsNoMoreThanItsElements) {
    OpenFile(11 * Mebibyte);
    CTableReader reader(m_File);
    const CMemoryMeter meter;
    CAutoMemory<Le32_t> table;
    EXPECT_OK(reader.Read(0, 11 * Mebibyte / 4, table));
    EXPECT_LE(meter.BytesInUse(), 11 * Mebibyte + 64 * 1024);
}

TEST_F(TableReaderMemory, RunningOutOfItIsAFailure) {
    OpenFile(16 * Mebibyte);
    CTableReader reader(m_File);
    CAutoMemory<Le32_t> table;
    CMemoryMeter meter;
    meter.RefuseAbove(4 * Mebibyte);
    EXPECT_REFUSED(reader.Read(0, 16 * Mebibyte / 4, table), "Out of memory");
    EXPECT_EQ(table.GetPtr(), nullptr);
}
