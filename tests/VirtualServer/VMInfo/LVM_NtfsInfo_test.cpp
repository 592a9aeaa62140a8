#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "VirtualServer/VMInfo/NtfsVolumeData.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

// What the boot sector of an NTFS volume tells.

namespace {

// The record as its 96 bytes, put together from numbers by their own offsets.
struct InfoBytes_t {
    uint64_t serialNumber = 0x1122334455667788;
    uint64_t sectors = 204799;
    uint64_t clusters = 204799 / 8;
    uint64_t reserved = 0;
    uint32_t bytesPerSector = 512;
    uint32_t bytesPerCluster = 4096;
    uint32_t bytesPerRecord = 1024;
    uint32_t clustersPerRecord = 1;
    uint64_t mft = 8533;
    uint64_t mirror = 2;

    std::string Bytes() const {
        std::string bytes(96, '\0');
        PutLe64(bytes, 0, serialNumber);
        PutLe64(bytes, 8, sectors);
        PutLe64(bytes, 16, clusters);
        PutLe64(bytes, 32, reserved);
        PutLe32(bytes, 40, bytesPerSector);
        PutLe32(bytes, 44, bytesPerCluster);
        PutLe32(bytes, 48, bytesPerRecord);
        PutLe32(bytes, 52, clustersPerRecord);
        PutLe64(bytes, 64, mft);
        PutLe64(bytes, 72, mirror);
        return bytes;
    }
};

class LvmNtfsInfo : public testing::Test {
protected:
    void Open(const std::string& bootSector) {
        const CImageFile image = CPartitionTableBuilder().Slot(0, 7, 63, 100).PutAt(63 * 512, bootSector).Image();
        std::vector<LVM_HardDisk_t> disks = {FlatHardDisk(m_Dir, image)};
        ASSERT_OK(m_Lvm.InitializeFromDisk(disks));
        ASSERT_EQ(1U, m_Lvm.GetVolumes().size());
        m_Volume = m_Lvm.GetVolumes()[0];
    }

    std::string Info(const CNtfsBootBuilder& boot) {
        Open(boot.Bytes());
        NTFS_VOLUME_DATA_BUFFER info;
        std::memset(&info, 0xEE, sizeof(info));
        EXPECT_OK(m_Lvm.GetNTFSVolInfo(m_Volume, &info));
        return BytesOfInfo(info);
    }

    static std::string BytesOfInfo(const NTFS_VOLUME_DATA_BUFFER& info) {
        std::string bytes(sizeof(info), '\0');
        std::memcpy(bytes.data(), &info, sizeof(info));
        return bytes;
    }

    CTempDir m_Dir;
    CLVM m_Lvm;
    LVM_Volume_t m_Volume;
};

TEST_F(LvmNtfsInfo, EveryFieldComesFromItsPlace) {
    EXPECT_SAME_BYTES(InfoBytes_t().Bytes(), Info(CNtfsBootBuilder()));

    InfoBytes_t expected;
    expected.serialNumber = 0xF102030405060708;
    expected.sectors = 0xE122334455667788;
    expected.clusters = 0xE122334455667788 / 200;
    expected.reserved = 5;  // 1001 / 200
    expected.bytesPerSector = 0xFF01;
    expected.bytesPerCluster = 200 * 0xFF01;
    expected.bytesPerRecord = 3 * 200 * 0xFF01;
    expected.clustersPerRecord = 3;
    expected.mft = 0xD102030405060708;
    expected.mirror = 0xC102030405060708;
    EXPECT_SAME_BYTES(expected.Bytes(), Info(CNtfsBootBuilder()
                                                 .SerialNumber(0xF102030405060708)
                                                 .TotalSectors(0xE122334455667788)
                                                 .SectorsPerCluster(200)
                                                 .ReservedSectors(1001)
                                                 .BytesPerSector(0xFF01)
                                                 .ClustersPerRecord(3)
                                                 .MftCluster(0xD102030405060708)
                                                 .MirrorMftCluster(0xC102030405060708)));
}

// Up to 126, signs included, clusters are counted; above it the low byte is a power of two with its sign turned.
TEST_F(LvmNtfsInfo, TheRecordSizeHasTwoForms) {
    const struct {
        uint32_t value;
        uint32_t bytesPerRecord;
        uint32_t clustersPerRecord;
    } rows[] = {
        {0x000000F6, 1024, 1},
        {2, 8192, 2},
        {0, 0, 0},
        {1, 4096, 1},
        {126, 126 * 4096, 126},
        {127, 1U << 1U, 1},  // -127 modulo 32
        {128, 1, 1},         // 128 modulo 32
        {0xFF, 2, 1},
        {0xF4, 4096, 1},
        {0xE1, 1U << 31U, 1},
        {0xE0, 1, 1},
        {0x100, 1, 1},          // the low byte is 0
        {0x101, 1U << 31U, 1},  // -1 modulo 32
        {0x7FFFFFF6, 1024, 1},
        {0xFFFFFFF6, 0U - 10 * 4096, 0xFFFFFFF6},
        {0x80000000, 0, 0x80000000},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.value);
        InfoBytes_t expected;
        expected.bytesPerRecord = row.bytesPerRecord;
        expected.clustersPerRecord = row.clustersPerRecord;
        EXPECT_SAME_BYTES(expected.Bytes(), Info(CNtfsBootBuilder().ClustersPerRecord(row.value)));
    }
}

TEST_F(LvmNtfsInfo, ClustersOfNoSectorsGiveNoClusters) {
    InfoBytes_t expected;
    expected.clusters = 0;
    expected.bytesPerCluster = 0;
    EXPECT_SAME_BYTES(expected.Bytes(), Info(CNtfsBootBuilder().SectorsPerCluster(0).ReservedSectors(50)));
}

TEST_F(LvmNtfsInfo, AnotherFileSystemIsRefused) {
    for (const char* const name : {"MSDOS5.0", "ntfs    ", " NTFS   ", "NTF     "}) {
        Open(CNtfsBootBuilder().OemName(name).Bytes());
        NTFS_VOLUME_DATA_BUFFER info;
        std::memset(&info, 0xEE, sizeof(info));
        EXPECT_REFUSED(m_Lvm.GetNTFSVolInfo(m_Volume, &info), "Not a NTFS volume") << name;
        EXPECT_EQ(std::string(96, '\0'), BytesOfInfo(info)) << "zeroed before anything else";
    }
    EXPECT_EQ(0xFF01U, LittleEndianAt(Info(CNtfsBootBuilder().OemName("NTFSxyz!").BytesPerSector(0xFF01)), 40, 4));
}

TEST_F(LvmNtfsInfo, AFailedReadReachesTheCaller) {
    Open(CNtfsBootBuilder().Bytes());
    EXPECT_EQ(1U, WalkFailures(FaultOp::Read, [&] {
                  NTFS_VOLUME_DATA_BUFFER info;
                  std::memset(&info, 0xEE, sizeof(info));
                  CZuError error = m_Lvm.GetNTFSVolInfo(m_Volume, &info);
                  if (error.IsErrorSet()) {
                      EXPECT_EQ(std::string(96, '\0'), BytesOfInfo(info));
                  }
                  return error;
              }));
    m_Volume.AllDiskFound = 0;
    NTFS_VOLUME_DATA_BUFFER info;
    EXPECT_REFUSED(m_Lvm.GetNTFSVolInfo(m_Volume, &info), "Not all disks where found for this volume.");
}

}  // namespace
