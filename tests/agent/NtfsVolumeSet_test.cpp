#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"
#include "agent/ImageInfo.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/agent/SetSurgery.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FakeVolumeControl.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/NtfsBitmapVolume.h"
#include "tests/support/SameBytes.h"

// NTFS volumes in sets: what is in use is there and comes back, with the sectors behind the last whole cluster; what is
// free isn't there.

namespace {

constexpr uint64_t PieceBytes = 65536;

using Differences_t = std::vector<std::string>;

class NtfsVolumeSet : public testing::Test {
protected:
    std::string Set() const { return m_Sets.File("set"); }

    CZuError BackUpVolume(const std::string& volume) {
        m_Options.image.type = DiskType_NTFSVolume;
        m_Options.force = true;
        m_Options.progress = [this](const Progress_t& progress) {
            m_Progress = progress;
            return true;
        };
        return BackUpDisk(volume, Set(), m_Options, m_Result);
    }

    // The numbers and sectors of the set's blocks.
    std::map<uint64_t, uint64_t> Blocks() const {
        std::map<uint64_t, uint64_t> blocks;
        const std::string rows = AskSet(Set(), "SELECT group_concat(number || ':' || sectors, ' ') FROM block");
        std::istringstream words(rows);
        for (std::string word; words >> word;) {
            const size_t colon = word.find(':');
            blocks[std::stoull(word)] = std::stoull(word.substr(colon + 1));
        }
        return blocks;
    }

    // The pieces with a cluster in use, and those with what is behind the last whole cluster.
    static std::map<uint64_t, uint64_t> ExpectedBlocks(const CNtfsBitmapVolume& volume, uint64_t clusters) {
        std::map<uint64_t, uint64_t> blocks;
        const uint64_t end = volume.VolumeBytes();
        const auto hold = [&](uint64_t first, uint64_t last) {
            for (uint64_t piece = first / PieceBytes; piece <= last / PieceBytes; ++piece)
                blocks[piece] = std::min(PieceBytes, end - piece * PieceBytes) / 512;
        };
        for (uint64_t lcn = 0; lcn < clusters; ++lcn) {
            if (volume.IsUsed(lcn))
                hold(lcn * volume.ClusterBytes(), (lcn + 1) * volume.ClusterBytes() - 1);
        }
        hold(clusters * volume.ClusterBytes(), end - 1);
        return blocks;
    }

    // What comes back: the pieces that are held, zeros elsewhere.
    static std::string ExpectedBytes(const std::string& whole, const std::map<uint64_t, uint64_t>& blocks) {
        std::string bytes(whole.size(), '\0');
        for (const auto& [number, sectors] : blocks)
            bytes.replace(number * PieceBytes, sectors * 512, whole, number * PieceBytes, sectors * 512);
        return bytes;
    }

    CTempDir m_Dir;
    CTempDir m_Sets;
    BackupOptions_t m_Options;
    BackupResult_t m_Result;
    Progress_t m_Progress;  // as it was told last
};

TEST_F(NtfsVolumeSet, HoldsThePiecesInUseAndBringsThemBack) {
    struct Shape_t {
        uint64_t clusters;
        uint32_t sectorsPerCluster;
    };
    for (const Shape_t& shape : {Shape_t{2000, 1}, Shape_t{2048, 1}, Shape_t{1000, 8}, Shape_t{200, 256}}) {
        SCOPED_TRACE(std::to_string(shape.clusters) + " of " + std::to_string(shape.sectorsPerCluster));
        CNtfsBitmapVolume volume(shape.clusters, shape.sectorsPerCluster);
        for (uint64_t lcn = 70; lcn < shape.clusters; lcn += 90)
            volume.Data(lcn, PatternedBytes(volume.ClusterBytes(), lcn));
        volume.Data(shape.clusters - 1, "in the last cluster");
        for (uint64_t lcn = 100; lcn < shape.clusters; lcn += 90)
            volume.Stale(lcn, PatternedBytes(volume.ClusterBytes(), lcn));
        const std::string path = volume.WriteTo(m_Dir);
        const auto expected = ExpectedBlocks(volume, shape.clusters);

        ASSERT_OK(BackUpVolume(path));
        EXPECT_EQ(expected, Blocks());
        EXPECT_EQ(expected.size(), m_Result.blockCount);
        EXPECT_EQ(volume.VolumeBytes(), m_Result.diskBytes);
        EXPECT_TRUE(m_Result.warnings.empty());
        EXPECT_EQ(m_Result.readBytes, m_Progress.doneBytes);
        EXPECT_EQ(expected.size() * PieceBytes, m_Progress.totalBytes) << "the last one as if it were whole";
        ASSERT_OK(Verify(Set()));
        Differences_t differences;
        ASSERT_OK(VerifyAgainst(Set(), path, differences));
        EXPECT_EQ(Differences_t{}, differences) << "what is free isn't compared";

        const CTempDir restored;
        ASSERT_OK(Restore(Set(), restored.Path()));
        ASSERT_EQ(Differences_t{"volume"}, restored.Entries());
        EXPECT_SAME_BYTES(ExpectedBytes(m_Dir.Read("volume"), expected), restored.Read("volume"));
        ASSERT_OK(VerifyAgainst(Set(), restored.File("volume"), differences));
        EXPECT_EQ(Differences_t{}, differences);
    }
}

TEST_F(NtfsVolumeSet, FreePiecesAreNotRead) {
    CNtfsBitmapVolume volume(100000);
    volume.Use(90000).Stale(50000, PatternedBytes(PieceBytes));
    const std::string path = volume.WriteTo(m_Dir);
    ASSERT_OK(BackUpVolume(path));
    EXPECT_EQ(ExpectedBlocks(volume, 100000), Blocks());
    EXPECT_EQ(m_Result.blockCount * PieceBytes - (PieceBytes - 100001 * 512 % PieceBytes), m_Result.readBytes);
    EXPECT_LT(m_Result.readBytes, 300000U);
}

// It is what mends a volume whose first sector was lost.
TEST_F(NtfsVolumeSet, TheCopyOfTheBootSectorComesBack) {
    CNtfsBitmapVolume volume(2048 + 128);  // it is alone in its piece
    const std::string path = volume.WriteTo(m_Dir);
    ASSERT_OK(BackUpVolume(path));
    ASSERT_OK(Restore(Set(), m_Dir.File("back")));
    const std::string back = m_Dir.Read("back");
    ASSERT_EQ(volume.VolumeBytes(), back.size());
    EXPECT_SAME_BYTES(volume.SoundBoot().Bytes(), back.substr(back.size() - 512));
}

TEST_F(NtfsVolumeSet, APartitionThatIsLargerThanItsVolumeIsNotKeptAsAWhole) {
    const CNtfsBitmapVolume volume(2000);
    CImageFile image = volume.Image();
    image.Put(volume.VolumeBytes(), "of nobody");
    image.Resize(volume.VolumeBytes() + 100 * 512);
    ASSERT_OK(BackUpVolume(image.WriteTo(m_Dir, "volume")));
    EXPECT_EQ(volume.VolumeBytes(), m_Result.diskBytes);
    EXPECT_EQ(ExpectedBlocks(volume, 2000), Blocks());
}

TEST_F(NtfsVolumeSet, AVolumeWithoutTheCopyOfItsBootSectorIsKeptUpToItsEnd) {
    const CNtfsBitmapVolume volume(2000);
    CImageFile image = volume.Image();
    image.Resize(2000 * 512 + 100);
    ASSERT_OK(BackUpVolume(image.WriteTo(m_Dir, "volume")));
    EXPECT_EQ(2000U * 512, m_Result.diskBytes);
}

// The core's own stream would place its blocks elsewhere.
TEST_F(NtfsVolumeSet, SectorsOf4KiBComeBackToo) {
    CNtfsBitmapVolume volume(500, 2);
    volume.SectorBytes(4096).Data(300, PatternedBytes(8192)).Data(499, PatternedBytes(8192, 2));
    const std::string path = volume.WriteTo(m_Dir);
    ASSERT_OK(BackUpVolume(path));
    EXPECT_EQ(ExpectedBlocks(volume, 500), Blocks());
    ASSERT_OK(Restore(Set(), m_Dir.File("back")));
    EXPECT_SAME_BYTES(m_Dir.Read("volume"), m_Dir.Read("back"));
}

TEST_F(NtfsVolumeSet, TheSetTellsTheVolume) {
    const CNtfsBitmapVolume volume(2000, 8);
    ASSERT_OK(BackUpVolume(volume.WriteTo(m_Dir)));
    CBackupSetReader set;
    ASSERT_OK(set.Open(Set()));
    ASSERT_EQ(1U, set.Disks().size());
    EXPECT_EQ("volume", set.Disks()[0].imageName);
    EXPECT_EQ(VirtualProdType_Physical, set.Disks()[0].product);
    EXPECT_EQ(DiskType_NTFSVolume, set.Disks()[0].diskType);
    EXPECT_EQ(16004U, set.Disks()[0].diskSectors);
    ASSERT_EQ(1U, set.Streams().size());
    EXPECT_EQ(DiskType_NTFSVolume, set.Streams()[0].diskType);
    EXPECT_EQ(128U, set.Streams()[0].blockSectors);
    CAutoMemory<char> record;
    ASSERT_OK(set.ReadRecord(set.Streams()[0], record));
    EXPECT_EQ(MetadataRecordText("VDNTFS10", 16003, HexDigits(4096, 16) + HexDigits(65536, 16)),
              std::string(record.GetPtr(), record.GetSize()));
}

TEST_F(NtfsVolumeSet, AChangeOfWhatIsInUseIsADifference) {
    CNtfsBitmapVolume volume(2000);
    volume.Data(1500, "before");
    const std::string path = volume.WriteTo(m_Dir);
    ASSERT_OK(BackUpVolume(path));
    Differences_t differences;
    volume.Data(1500, "behind").Stale(1000, "free").WriteTo(m_Dir);
    ASSERT_OK(VerifyAgainst(Set(), path, differences));
    EXPECT_EQ(Differences_t{"block 11 of volume, at sector 1408"}, differences);
    ImageOptions_t asRaw;
    asRaw.type = DiskType_PhysicalDisk;
    ASSERT_OK(VerifyAgainst(Set(), path, differences, asRaw));
    EXPECT_EQ((Differences_t{"block 7 of volume, at sector 896", "block 11 of volume, at sector 1408"}), differences)
        << "with all bytes of it, what is free is compared to zeros";
}

TEST_F(NtfsVolumeSet, FlatteningChangesNothing) {
    CNtfsBitmapVolume volume(2000);
    volume.Stale(1000, PatternedBytes(512));
    m_Options.flatten = true;
    ASSERT_OK(BackUpVolume(volume.WriteTo(m_Dir)));
    EXPECT_EQ(ExpectedBlocks(volume, 2000), Blocks());
}

TEST_F(NtfsVolumeSet, InfoTellsTheClusters) {
    CNtfsBitmapVolume volume(2000, 8);
    volume.Use(1000, 11);
    uint64_t used = 0;
    for (uint64_t lcn = 0; lcn < 2000; ++lcn)
        used += volume.IsUsed(lcn) ? 1 : 0;
    ImageOptions_t options;
    options.type = DiskType_NTFSVolume;
    ImageInfo_t info;
    ASSERT_OK(DescribeImage(volume.WriteTo(m_Dir), options, info));
    EXPECT_EQ(DiskType_NTFSVolume, info.diskType);
    EXPECT_EQ(16004U, info.diskSectors);
    ASSERT_EQ(1U, info.extents.size());
    ASSERT_TRUE(info.extents[0].ntfs.has_value());
    EXPECT_EQ(4096U, info.extents[0].ntfs->clusterBytes);
    EXPECT_EQ(2000U, info.extents[0].ntfs->clusterCount);
    EXPECT_EQ(used, info.extents[0].ntfs->usedClusters);
    EXPECT_FALSE(info.extents[0].vhd.has_value());
}

TEST_F(NtfsVolumeSet, AVolumeThatCantBeReadIsRefusedWithWhatIsWrong) {
    const CNtfsBitmapVolume sound(2000);
    const auto bootOf = [&](const CNtfsBootBuilder& boot) { return CNtfsBitmapVolume(2000).Boot(boot); };
    const struct {
        const char* name;
        CNtfsBitmapVolume volume;
        const char* text;
    } rows[] = {
        {"another file system", bootOf(sound.SoundBoot().OemName("MSDOS5.0")), "holds no NTFS volume; as --type raw"},
        {"no cluster size", bootOf(sound.SoundBoot().SectorsPerCluster(0)), "no size of sectors or clusters"},
        {"no sectors", bootOf(sound.SoundBoot().TotalSectors(0)), "tells of no clusters; as --type raw"},
        {"cut short", bootOf(sound.SoundBoot().TotalSectors(2002)),
         "holds 1024512 bytes where its volume needs 1025024; it is cut short"},
        {"a damaged record", CNtfsBitmapVolume(2000).Record(6, CNtfsFileRecordBuilder()),
         "the file record of $Bitmap is damaged; as --type raw"},
        {"a short bitmap",
         CNtfsBitmapVolume(2000).BitmapAttribute(CNtfsAttributeBuilder::Resident(NtfsDataType, std::string(249, 'x'))),
         "ends in front of the volume's end"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string path = row.volume.WriteTo(m_Dir);
        EXPECT_FAILS_SAYING(BackUpVolume(path), path, row.text);
        EXPECT_FALSE(std::filesystem::exists(Set()));
        EXPECT_TRUE(m_Sets.Entries().empty());
    }
}

TEST_F(NtfsVolumeSet, ASystemsOwnAnswersAreTakenAsTheyCome) {
    // Its bitmap comes in three replies, and says other things than the bytes of the volume.
    CFakeVolumeControl control(10000);
    control.mostBitmapBytes = 500;
    for (const uint64_t lcn : {0U, 3999U, 4000U, 9999U})
        control.Use(lcn);
    const std::string path = m_Dir.Write("volume", std::string(10001 * 512, 'x'));
    ASSERT_OK(BackUpVolume(path));
    EXPECT_EQ((std::map<uint64_t, uint64_t>{{0, 128}, {31, 128}, {78, 17}}), Blocks());
    EXPECT_EQ((std::vector<uint64_t>{0, 4000, 8000}), control.askedLcns);
    for (const int error : {EIO, EPERM}) {
        control.bitmapError = error;
        EXPECT_FAILS_SAYING(BackUpVolume(path), path, "holds no NTFS volume");
    }
}

TEST_F(NtfsVolumeSet, TheSystemsFailuresAreToldWhereTheBytesAreSound) {
    CFakeVolumeControl control(2000);
    const std::string path = CNtfsBitmapVolume(2000).WriteTo(m_Dir);
    control.allowError = EPERM;
    EXPECT_FAILS_SAYING(BackUpVolume(path), path, "Operation not permitted");
    control.allowError = 0;
    control.dataError = EIO;
    EXPECT_FAILS_SAYING(BackUpVolume(path), path, "Input/output error");
    control.dataError = 0;
    control.bitmapError = EIO;
    EXPECT_FAILS_SAYING(BackUpVolume(path), path, "Input/output error");
    EXPECT_TRUE(m_Sets.Entries().empty());
}

TEST_F(NtfsVolumeSet, EveryFailureOfAReadIsTold) {
    CNtfsBitmapVolume volume(2000);
    const std::string path = volume.WriteTo(m_Dir);
    for (unsigned int failAt = 0;; ++failAt) {
        CFaultyFiles faulty(Fault_t{FaultOp::Read, failAt, EIO});
        const CZuError error = BackUpVolume(path);
        EXPECT_EQ(faulty.Fired(), error.IsErrorSet()) << "read " << failAt;
        EXPECT_EQ(!faulty.Fired(), std::filesystem::exists(Set()));
        if (!faulty.Fired())
            break;
        EXPECT_FAILS_SAYING(error, path);
    }
}

// More pieces than a volume's machine could have: the claim is compared with the file before memory is taken.
TEST_F(NtfsVolumeSet, AClaimOfEightExbibytesTakesNoMemory) {
    CNtfsBitmapVolume volume(2000);
    volume.Boot(volume.SoundBoot().TotalSectors((uint64_t{1} << 54U) - 1));
    const std::string path = volume.WriteTo(m_Dir);
    EXPECT_FAILS_SAYING(BackUpVolume(path), path, "it is cut short");
}

TEST_F(NtfsVolumeSet, TwoVolumesShareASet) {
    const CNtfsBitmapVolume volume(2000);
    const std::string first = volume.WriteTo(m_Dir, "first");
    const std::string second = CNtfsBitmapVolume(3000).Data(2500, "second").WriteTo(m_Dir, "second");
    m_Options.image.type = DiskType_NTFSVolume;
    ASSERT_OK(BackUpDisks({first, second}, Set(), m_Options, m_Result));
    RestoreOptions_t options;
    options.disk = 2;
    RestoreResult_t result;
    ASSERT_OK(RestoreDisk(Set(), m_Dir.File("back"), options, result));
    EXPECT_SAME_BYTES(m_Dir.Read("second"), m_Dir.Read("back"));
}

}  // namespace
