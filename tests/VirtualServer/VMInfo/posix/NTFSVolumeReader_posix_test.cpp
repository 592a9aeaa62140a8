#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "VirtualServer/VMInfo/NTFSVolumeReader.h"
#include "platform/DeviceClaim.h"
#include "platform/DriveName.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/NtfsBitmapVolume.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/posix/LoopDevice.h"
#include "tests/support/posix/MemoryMeter.h"

// Volumes as this system has them: their own bytes tell which clusters are in use, and locks are those of files and
// block devices.

namespace {

constexpr uint64_t BlockClusters = 8192;
constexpr uint64_t BlockBytes = BlockClusters * 512;

class NTFSVolumeOnPosix : public testing::Test {
protected:
    CZuError Read(uint64_t block) { return m_Reader.ReadBlock(block, m_Buffer.data(), &m_Sectors); }

    CZuError Create(CNTFSVolumeReader& reader, const std::string& path) {
        CAutoMemory<char> metadata = m_Record;
        return reader.CreateVolume(path.c_str(), metadata);
    }
    void TakeRecord(const std::string& path) {
        CNTFSVolumeReader reader;
        ASSERT_OK(reader.OpenVolume(path.c_str()));
        ASSERT_OK(reader.GetMetadataInfo(m_Record));
    }

    CTempDir m_Dir;
    CNTFSVolumeReader m_Reader;
    CAutoMemory<char> m_Record;
    std::string m_Buffer = std::string(BlockBytes, '?');
    uint32_t m_Sectors = 0;
};

TEST_F(NTFSVolumeOnPosix, BlocksOfAVolumeAreThoseItsBitmapHas) {
    const std::string data = PatternedBytes(3 * 512);
    CNtfsBitmapVolume volume(4 * BlockClusters + 100);
    volume.Data(2 * BlockClusters + 5, data).Use(4 * BlockClusters).Stale(BlockClusters, data);
    const std::string path = volume.WriteTo(m_Dir);
    for (const std::string& name : {path, DriveNamePrefix + path}) {
        ASSERT_OK(m_Reader.OpenVolume(name.c_str()));
        EXPECT_EQ(4 * BlockClusters + 100, m_Reader.GetTotalSectors());
        EXPECT_OK(Read(0));
        EXPECT_CONDITION(Read(1), 3, 7001, 2);
        EXPECT_OK(Read(2));
        EXPECT_SAME_BYTES(data, m_Buffer.substr(5 * 512, data.size()));
        EXPECT_CONDITION(Read(3), 3, 7001, 2);
        EXPECT_OK(Read(4));
        EXPECT_EQ(100U, m_Sectors);
        EXPECT_CONDITION(Read(5), 3, 7001, 1);
        EXPECT_CONDITION(Read(6), 3, 7001, 1);
        EXPECT_OK(m_Reader.CloseVolume());
    }
}

TEST_F(NTFSVolumeOnPosix, BeyondAThousandBlocksTheBitmapIsReadAgain) {
    CNtfsBitmapVolume volume(1001 * BlockClusters + 3);
    volume.Use(999 * BlockClusters).Use(1001 * BlockClusters + 2);
    ASSERT_OK(m_Reader.OpenVolume(volume.WriteTo(m_Dir).c_str()));
    EXPECT_OK(Read(999));
    EXPECT_EQ(BlockClusters, m_Sectors);
    EXPECT_CONDITION(Read(1000), 3, 7001, 2);
    EXPECT_OK(Read(1001));
    EXPECT_EQ(3U, m_Sectors);
}

TEST_F(NTFSVolumeOnPosix, WhatIsNoVolumeIsTheSystemsBadParameter) {
    EXPECT_SYSTEM_ERROR(m_Reader.OpenVolume(m_Dir.Write("zeros", std::string(4096, '\0')).c_str()), EINVAL);
    EXPECT_SYSTEM_ERROR(m_Reader.OpenVolume(m_Dir.Write("short", "NTFS").c_str()), EINVAL);
    EXPECT_SYSTEM_ERROR(m_Reader.OpenVolume(m_Dir.Path().c_str()), EISDIR);
    CNtfsBitmapVolume volume(1000);
    const std::string path = volume.Record(6, CNtfsFileRecordBuilder()).WriteTo(m_Dir);
    ASSERT_OK(m_Reader.OpenVolume(path.c_str())) << "the bitmap is looked for when it is needed";
    EXPECT_SYSTEM_ERROR(Read(0), EINVAL);
}

TEST_F(NTFSVolumeOnPosix, AVolumeIsBroughtToALargerOneBlockByBlock) {
    CNtfsBitmapVolume source(2 * BlockClusters);
    source.Data(BlockClusters, PatternedBytes(512));
    const std::string sourcePath = source.WriteTo(m_Dir, "source");
    const std::string targetPath = CNtfsBitmapVolume(3 * BlockClusters).Stale(300, "old").WriteTo(m_Dir, "target");
    TakeRecord(sourcePath);
    CNTFSVolumeReader target;
    ASSERT_OK(m_Reader.OpenVolume(sourcePath.c_str()));
    ASSERT_OK(Create(target, targetPath));
    for (uint64_t block = 0; block < 2; ++block) {
        ASSERT_OK(Read(block));
        CAutoMemory<char> data = BufferOf(m_Buffer.substr(0, size_t{m_Sectors} * 512));
        EXPECT_OK(target.WriteBlock(block, data));
    }
    EXPECT_OK(target.CloseVolume());
    const std::string restored = m_Dir.Read("target");
    EXPECT_EQ(3 * BlockBytes + 512, restored.size()) << "the target keeps its size";
    EXPECT_SAME_BYTES(m_Dir.Read("source").substr(0, 2 * BlockBytes), restored.substr(0, 2 * BlockBytes));
}

TEST_F(NTFSVolumeOnPosix, ATargetHasOneWriterAlone) {
    const std::string path = CNtfsBitmapVolume(BlockClusters).WriteTo(m_Dir);
    TakeRecord(path);
    CNTFSVolumeReader other;
    ASSERT_OK(Create(m_Reader, path));
    EXPECT_SYSTEM_ERROR(Create(other, path), EAGAIN);
    ASSERT_OK(other.OpenVolume(path.c_str())) << "a reader isn't kept out";
    EXPECT_OK(other.CloseVolume());
    EXPECT_OK(m_Reader.CloseVolume());
    EXPECT_OK(Create(other, path));
}

TEST_F(NTFSVolumeOnPosix, ADeviceThatIsClaimedIsNoTarget) {
    const std::string path = CNtfsBitmapVolume(BlockClusters).WriteTo(m_Dir);
    const CLoopDevice device(path);
    SKIP_WITHOUT_LOOP(device);
    TakeRecord(device.Path());
    EXPECT_FALSE(IsDeviceClaimed(device.Path()));
    {
        CDeviceClaim claim;
        ASSERT_EQ(0, claim.Take(device.Path()));
        EXPECT_SYSTEM_ERROR(Create(m_Reader, device.Path()), EBUSY);
        EXPECT_TRUE(IsDeviceClaimed(device.Path()));
        EXPECT_TRUE(IsDeviceClaimed(DriveNamePrefix + device.Path()));
    }
    ASSERT_OK(Create(m_Reader, device.Path()));
    EXPECT_TRUE(IsDeviceClaimed(device.Path())) << "by the target's writer";
    EXPECT_OK(m_Reader.CloseVolume());
    EXPECT_FALSE(IsDeviceClaimed(device.Path()));
    EXPECT_FALSE(IsDeviceClaimed(path)) << "a file is no device";
    EXPECT_FALSE(IsDeviceClaimed(m_Dir.File("none")));
}

TEST_F(NTFSVolumeOnPosix, WithoutMemoryNothingIsRead) {
    ASSERT_OK(m_Reader.OpenVolume(CNtfsBitmapVolume(BlockClusters).WriteTo(m_Dir).c_str()));
    {
        CMemoryMeter meter;
        meter.RefuseAbove(4096);
        EXPECT_REFUSED(Read(0), "Out Of memory");
    }
    EXPECT_OK(Read(0));
}

// As large as the cache of the bitmap, whatever the boot sector claims.
TEST_F(NTFSVolumeOnPosix, MemoryDoesNotFollowWhatABootSectorClaims) {
    CNtfsBitmapVolume volume(1000);
    volume.Boot(volume.SoundBoot().TotalSectors(uint64_t{1} << 53U));
    const std::string path = volume.WriteTo(m_Dir);
    const CMemoryMeter meter;
    ASSERT_OK(m_Reader.OpenVolume(path.c_str()));
    EXPECT_FAILURE(Read(0));
    EXPECT_LE(meter.PeakBytes(), 2U << 20U);
}

}  // namespace
