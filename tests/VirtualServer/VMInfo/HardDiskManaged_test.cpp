#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/HardDiskReader.h"
#include "VirtualServer/VMInfo/VmdkFileReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FakeVMInfo.h"
#include "tests/support/SameBytes.h"
#include "tests/support/SparseDumpText.h"
#include "tests/support/TempDir.h"

namespace {

constexpr uint64_t Sector = 512;

class HardDiskManaged : public testing::Test {
protected:
    HardDiskManaged() : m_Server(PatternedBytes(100 * Sector)) {
        m_Server.Answer("", 0, 100 * Sector, {{8 * Sector, 10 * Sector}});
    }

    // What the disk holds, with zeros where nothing is allocated. The sector behind a stretch is in it.
    std::string Expected(uint64_t offset, uint64_t length) const {
        std::string bytes(100 * Sector, '\0');
        bytes.replace(8 * Sector, 11 * Sector, m_Server.bytes, 8 * Sector, 11 * Sector);
        return bytes.substr(offset, length);
    }

    std::string Dump(CVmdkFileReader& reader) const {
        CZuFile out;
        EXPECT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenTruncating | OpenForWriting, 384));
        EXPECT_OK(reader.DumpSparseInfo(out, "name", 99));
        EXPECT_OK(out.Close());
        return m_Dir.Read("dump");
    }

    CTempDir m_Dir;
    CFakeVMInfo m_Server;
};

TEST_F(HardDiskManaged, AVmdkReaderAsksTheServer) {
    CVmdkFileReader reader;
    reader.SetVMInfo(&m_Server, "a", "b");
    reader.SetBlockSize(64);
    ASSERT_OK(reader.OpenDisk("disk", DiskType_VMInfoDisk));
    EXPECT_EQ("SetCurrVmdkFile(a|b|disk)", m_Server.calls.at(0));
    std::string sector(Sector, '?');
    ASSERT_OK(reader.ReadSector(9, sector.data(), Sector));
    EXPECT_SAME_BYTES(Expected(9 * Sector, Sector), sector);
    EXPECT_CONDITION_TEXT(reader.ReadSector(7, sector.data(), Sector), 7, 3001, 2, "Sector Not Found");
    EXPECT_CONDITION_TEXT(reader.ReadSector(100, sector.data(), Sector), 7, 3001, 1, "Sector Out of Range");
    EXPECT_REFUSED(reader.ReadSector(9, nullptr, Sector), "Data pointer is null");
    SectorRun_t run;
    EXPECT_CONDITION_TEXT(reader.FindRun(100, 1, run), 7, 3001, 1, "Sector Out of Range");

    SparseDumpText_t expected;
    expected.name = "name";
    expected.endLba = 100;
    expected.blockSize = 64;
    expected.grainSize = 64;
    EXPECT_SAME_BYTES("00000001" + expected.Bytes(), Dump(reader));

    ASSERT_OK(reader.CloseDisk());
    EXPECT_REFUSED(reader.ReadSector(9, sector.data(), Sector),
                   "Object is in invalid state. Make sure OpenDisk succeeded");
}

TEST_F(HardDiskManaged, AServerThatFailsLeavesTheReaderClosed) {
    CVmdkFileReader reader;
    reader.SetVMInfo(&m_Server, "", "");
    m_Server.failing = "SetCurrVmdkFile";
    EXPECT_REFUSED(reader.OpenDisk("disk", DiskType_VMInfoDisk), "Failed to SetCurrVmdkFile.");
    std::string sector(Sector, '?');
    EXPECT_REFUSED(reader.ReadSector(9, sector.data(), Sector),
                   "Object is in invalid state. Make sure OpenDisk succeeded");
}

TEST_F(HardDiskManaged, AHardDiskIsReadByBytesWithFewCalls) {
    CHardDiskReader disk(VirtualProdType_VMware);
    disk.SetVMInfo(&m_Server, "a", "b");
    std::vector<Disk_t> disks(1);
    disks[0].FileName = "disk";
    disks[0].Type = DiskType_VMInfoDisk;
    ASSERT_OK(disk.OpenHardDisk(disks));
    const struct {
        uint64_t offset;
        uint32_t length;
    } rows[] = {
        {0, 100 * Sector}, {8 * Sector + 5, 3000}, {7 * Sector, 1024}, {19 * Sector - 1, 2}, {99 * Sector, 512}};
    for (const auto& row : rows) {
        std::string bytes(row.length, '?');
        ASSERT_OK(disk.ReadHardDiskData(row.offset, bytes.data(), row.length));
        EXPECT_SAME_BYTES(Expected(row.offset, row.length), bytes) << row.offset;
    }
    EXPECT_LE(m_Server.reads.size(), 8U);
    EXPECT_EQ(8 * Sector, disk.CountHoleBytes(0, 100 * Sector));
}

}  // namespace
