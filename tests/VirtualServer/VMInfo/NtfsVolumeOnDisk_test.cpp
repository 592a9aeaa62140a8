#include "VirtualServer/VMInfo/detail/NtfsVolumeOnDisk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/NtfsBitmapVolume.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"

// The geometry and the bitmap of a volume from its own bytes, as systems need it that serve no control codes.

namespace {

constexpr char SpreadBitmap[] = "the bitmap of its clusters is told by several file records, which isn't read here";
constexpr char ShortBitmap[] = "the bitmap of its clusters ends in front of the volume's end";
constexpr char DamagedMft[] = "the file record of $MFT is damaged";
constexpr char DamagedBitmap[] = "the file record of $Bitmap is damaged";

class NtfsVolumeOnDisk : public testing::Test {
protected:
    CZuError Open(const std::string& path) {
        CZuFile file;
        EXPECT_OK(file.Open(path.c_str(), OpenAsBinary, 0));
        return m_Volume.Open(file);
    }
    CZuError Open(const CNtfsBitmapVolume& volume) { return Open(volume.WriteTo(m_Dir)); }

    CZuError OpenAndRead(const CNtfsBitmapVolume& volume) {
        const CZuError error = Open(volume);
        return error.IsErrorSet() ? error : m_Volume.ReadBitmap(0, m_Bits.data(), 4096, m_Got);
    }

    std::string BitsFrom(uint64_t lcn, uint32_t most = 4096) {
        EXPECT_OK(m_Volume.ReadBitmap(lcn, m_Bits.data(), most, m_Got)) << lcn;
        return m_Bits.substr(0, m_Got);
    }

    // What the clusters say themselves.
    static std::string ExpectedBits(const CNtfsBitmapVolume& volume, uint64_t clusters) {
        std::string bits((clusters + 7) / 8, '\0');
        for (uint64_t lcn = 0; lcn < clusters; ++lcn) {
            if (volume.IsUsed(lcn))
                bits[lcn / 8] = static_cast<char>(bits[lcn / 8] | 1 << lcn % 8);
        }
        return bits;
    }

    CTempDir m_Dir;
    CNtfsVolumeOnDisk m_Volume;
    std::string m_Bits = std::string(4096, '?');
    uint32_t m_Got = 0;
};

CNtfsAttributeBuilder DataIn(const std::vector<NtfsRun_t>& runs, uint64_t bytes) {
    return CNtfsAttributeBuilder::NonResident(NtfsDataType, runs, bytes);
}

TEST_F(NtfsVolumeOnDisk, TellsTheGeometryOfTheBootSector) {
    const CNtfsBitmapVolume volume(1000, 8);
    ASSERT_OK(Open(volume));
    const NTFS_VOLUME_DATA_BUFFER& data = m_Volume.Data();
    EXPECT_EQ(8003, data.NumberSectors.QuadPart);
    EXPECT_EQ(1000, data.TotalClusters.QuadPart);
    EXPECT_EQ(1000U, m_Volume.ClusterCount());
    EXPECT_EQ(512U, data.BytesPerSector);
    EXPECT_EQ(4096U, data.BytesPerCluster);
    EXPECT_EQ(16, data.MftStartLcn.QuadPart);
}

TEST_F(NtfsVolumeOnDisk, ReadsTheBitmapFromAnywhere) {
    for (const uint64_t clusters : {1000U, 1001U, 1007U, 1008U}) {
        SCOPED_TRACE(clusters);
        CNtfsBitmapVolume volume(clusters);
        volume.Use(200, 3).Use(512, 100).Use(clusters - 1);
        ASSERT_OK(Open(volume));
        const std::string expected = ExpectedBits(volume, clusters);
        EXPECT_SAME_BYTES(expected, BitsFrom(0)) << "no bit behind the last cluster";
        EXPECT_SAME_BYTES(expected.substr(25), BitsFrom(200));
        EXPECT_SAME_BYTES(expected.substr(25, 7), BitsFrom(200, 7));
        EXPECT_SAME_BYTES(expected.substr(expected.size() - 1), BitsFrom((clusters - 1) / 8 * 8));
        EXPECT_SAME_BYTES("", BitsFrom(1008));
        EXPECT_SAME_BYTES("", BitsFrom(~uint64_t{7}));
    }
}

TEST_F(NtfsVolumeOnDisk, FollowsTheRunsOfTheBitmap) {
    CNtfsBitmapVolume volume(10000);  // 1264 bytes of bitmap
    volume.BitmapRuns({{900, 1}, {100, 1}, {5000, 1}}).Use(0, 70).Use(4096, 5).Use(9999);
    ASSERT_OK(Open(volume));
    EXPECT_SAME_BYTES(ExpectedBits(volume, 10000), BitsFrom(0));
    EXPECT_SAME_BYTES(ExpectedBits(volume, 10000).substr(500, 30), BitsFrom(4000, 30)) << "over a run's end";
}

// Its records are found by the runs of the first one.
TEST_F(NtfsVolumeOnDisk, FollowsTheRunsOfTheMft) {
    CNtfsBitmapVolume volume(1000);
    volume.MftRuns({{16, 3}, {300, 10}, {30, 3}}).Use(300, 10);  // the record of the bitmap begins in the second
    ASSERT_OK(Open(volume));
    EXPECT_SAME_BYTES(ExpectedBits(volume, 1000), BitsFrom(0));
    volume.MftRuns({{16, 13}, {300, 3}});  // and is torn
    ASSERT_OK(Open(volume));
    EXPECT_SAME_BYTES(ExpectedBits(volume, 1000), BitsFrom(0));
    EXPECT_REFUSED(OpenAndRead(volume.MftRuns({{16, 13}})),
                   "its MFT ends in front of the file record that tells of its clusters");
}

TEST_F(NtfsVolumeOnDisk, ReadsLargePiecesAtOnce) {
    CNtfsBitmapVolume volume(2000000);
    ASSERT_OK(Open(volume));
    m_Bits.resize(250000);
    const CFaultyFiles counting;
    EXPECT_EQ(250000U, BitsFrom(0, 250000).size());
    EXPECT_EQ((std::vector<uint32_t>{1024, 1024, 250000}), counting.Sizes(FaultOp::Read));
    BitsFrom(0, 100);
    EXPECT_EQ(4U, counting.Calls(FaultOp::Read)) << "where the bitmap lies is found once";
}

TEST_F(NtfsVolumeOnDisk, TheBitmapOfASmallVolumeIsInItsRecord) {
    CNtfsBitmapVolume volume(300);
    volume.Use(100, 20);
    volume.BitmapAttribute(CNtfsAttributeBuilder::Resident(NtfsDataType, volume.Bitmap()));
    ASSERT_OK(Open(volume));
    EXPECT_SAME_BYTES(ExpectedBits(volume, 300), BitsFrom(0));
    EXPECT_SAME_BYTES(ExpectedBits(volume, 300).substr(10, 5), BitsFrom(80, 5));
    volume.BitmapAttribute(CNtfsAttributeBuilder::Resident(NtfsDataType, std::string(37, 'x')));
    EXPECT_REFUSED(OpenAndRead(volume), ShortBitmap);
}

TEST_F(NtfsVolumeOnDisk, ClustersMayBeOf2MiB) {
    for (const uint32_t sectors : {128U, 256U, 4096U}) {
        SCOPED_TRACE(sectors);
        CNtfsBitmapVolume volume(100, sectors);
        volume.Use(99);
        ASSERT_OK(Open(volume));
        EXPECT_EQ(sectors * 512, m_Volume.Data().BytesPerCluster);
        EXPECT_EQ(100U, m_Volume.ClusterCount());
        EXPECT_SAME_BYTES(ExpectedBits(volume, 100), BitsFrom(0));
    }
}

TEST_F(NtfsVolumeOnDisk, SectorsMayBeOf4KiB) {
    CNtfsBitmapVolume volume(500, 2);
    volume.SectorBytes(4096).Use(400);
    ASSERT_OK(Open(volume));
    EXPECT_EQ(8192U, m_Volume.Data().BytesPerCluster);
    EXPECT_SAME_BYTES(ExpectedBits(volume, 500), BitsFrom(0));
}

// Only that of the unnamed data counts.
TEST_F(NtfsVolumeOnDisk, OtherAttributesArePassedOver) {
    CNtfsBitmapVolume volume(1000);
    volume.Record(6, CNtfsFileRecordBuilder()
                         .Add(CNtfsAttributeBuilder::Resident(NtfsStandardInformationType, std::string(48, 's')))
                         .Add(CNtfsAttributeBuilder::Resident(NtfsDataType, "named").Name(u"stream"))
                         .Add(DataIn({{CNtfsBitmapVolume::BitmapLcn, 1}}, 136)));
    ASSERT_OK(Open(volume));
    EXPECT_SAME_BYTES(ExpectedBits(volume, 1000), BitsFrom(0));
}

TEST_F(NtfsVolumeOnDisk, ABitmapOfOtherRecordsIsRefused) {
    const auto list = CNtfsAttributeBuilder::Resident(NtfsAttributeListType, NtfsListEntry({}));
    CNtfsBitmapVolume volume(10000);
    EXPECT_REFUSED(OpenAndRead(volume.Record(6, CNtfsFileRecordBuilder().Add(list))), SpreadBitmap);
    EXPECT_REFUSED(OpenAndRead(volume.Record(6, CNtfsFileRecordBuilder().Add(list).Add(DataIn({{64, 2}}, 1264)))),
                   SpreadBitmap);
    ASSERT_OK(OpenAndRead(volume.Record(6, CNtfsFileRecordBuilder().Add(list).Add(DataIn({{64, 3}}, 1264)))));
    EXPECT_SAME_BYTES(ExpectedBits(volume, 10000), BitsFrom(0)) << "the record itself has it all";
}

TEST_F(NtfsVolumeOnDisk, ABootSectorThatMakesNoSenseIsRefused) {
    const CNtfsBitmapVolume sound(1000);
    constexpr char noSizes[] = "its boot sector tells no size of sectors or clusters";
    constexpr char tooManySectors[] = "its boot sector claims more sectors than a volume can have";
    constexpr char mftOutside[] = "its boot sector has the MFT behind the volume's end";
    const struct {
        const char* name;
        CNtfsBootBuilder boot;
        const char* text;
    } rows[] = {
        {"another file system", sound.SoundBoot().OemName("MSDOS5.0"), "holds no NTFS volume"},
        {"no sector size", sound.SoundBoot().BytesPerSector(0), noSizes},
        {"no cluster size", sound.SoundBoot().SectorsPerCluster(0), noSizes},
        {"clusters of 4 MiB", sound.SoundBoot().SectorsPerCluster(0xF3), noSizes},
        {"the least power of two", sound.SoundBoot().SectorsPerCluster(0x81), noSizes},
        {"2^63 bytes", sound.SoundBoot().TotalSectors(uint64_t{1} << 54U), tooManySectors},
        {"2^64 bytes", sound.SoundBoot().TotalSectors(uint64_t{1} << 55U), tooManySectors},
        {"all ones", sound.SoundBoot().TotalSectors(~uint64_t{0}), tooManySectors},
        {"the MFT behind the end", sound.SoundBoot().MftCluster(1000), mftOutside},
        {"the MFT far behind", sound.SoundBoot().MftCluster(~uint64_t{0}), mftOutside},
        {"records of 128 bytes", sound.SoundBoot().ClustersPerRecord(0xF9),
         "its boot sector claims file records of 128 bytes"},
        {"records of 2 MiB", sound.SoundBoot().ClustersPerRecord(0xEB),
         "its boot sector claims file records of 2097152 bytes"},
        {"records of no bytes", sound.SoundBoot().ClustersPerRecord(0),
         "its boot sector claims file records of 0 bytes"},
        {"longer than its bitmap", sound.SoundBoot().TotalSectors(2000), ShortBitmap},
        {"longer than its file", sound.SoundBoot().TotalSectors(uint64_t{1} << 53U), ShortBitmap},
    };
    for (const auto& row : rows)
        EXPECT_REFUSED(OpenAndRead(CNtfsBitmapVolume(1000).Boot(row.boot)), row.text) << row.name;
}

TEST_F(NtfsVolumeOnDisk, ADamagedRecordOfTheMftIsRefused) {
    const auto sound = [] { return CNtfsFileRecordBuilder().Add(DataIn({{16, 16}}, 8192)); };
    const struct {
        const char* name;
        CNtfsFileRecordBuilder record;
    } rows[] = {
        {"another signature", sound().Signature("BAAD")},
        {"not in use", sound().Flags(0)},
        {"a torn sector", sound().BreakSectorEnd(1)},
        {"an update sequence that leaves it", sound().SequenceOffset(1023)},
        {"attributes that leave it", sound().FirstAttribute(1022)},
        {"no end marker", sound().EndMarker(std::string("\x90\0\0\0\0\0\0\0", 8))},
        {"no data", CNtfsFileRecordBuilder()},
        {"resident data", CNtfsFileRecordBuilder().Add(CNtfsAttributeBuilder::Resident(NtfsDataType, "x"))},
        {"a later segment", CNtfsFileRecordBuilder().Add(DataIn({{16, 16}}, 8192).LowestVcn(1))},
        {"packed", CNtfsFileRecordBuilder().Add(DataIn({{16, 16}}, 8192).Flags(1))},
        {"secret", CNtfsFileRecordBuilder().Add(DataIn({{16, 16}}, 8192).Flags(0x4000))},
        {"sparse", CNtfsFileRecordBuilder().Add(DataIn({{16, 16}}, 8192).Flags(0x8000))},
        {"a hole", CNtfsFileRecordBuilder().Add(DataIn({{16, 2}, {NtfsHole, 14}}, 8192))},
        {"a run behind the end", CNtfsFileRecordBuilder().Add(DataIn({{1000, 1}}, 8192))},
        {"a run over the end", CNtfsFileRecordBuilder().Add(DataIn({{16, 985}}, 8192))},
        {"a run in front of the start",
         CNtfsFileRecordBuilder().Add(DataIn({}, 8192).RunList(NtfsRunBytes(1, 16, 1, -1) + std::string(1, '\0')))},
        {"a run that wraps",
         CNtfsFileRecordBuilder().Add(DataIn({}, 8192).RunList(NtfsRunBytes(8, -8, 1, 16) + std::string(1, '\0')))},
        {"clusters that pass 64 bits",
         CNtfsFileRecordBuilder().Add(
             DataIn({}, 8192).RunList(NtfsRunBytes(1, 9, 1, 16) + NtfsRunBytes(8, -8, 1, 16) + std::string(1, '\0')))},
        {"numbers of 9 bytes", CNtfsFileRecordBuilder().Add(DataIn({}, 8192).RunList("\x19" + std::string(12, '\1')))},
        {"a run list that leaves it",
         CNtfsFileRecordBuilder().Add(DataIn({{16, 16}}, 8192).RunListOffset(0x47).Length(0x48).PutAt(0x47, "\x44"))},
        {"no runs", CNtfsFileRecordBuilder().Add(DataIn({}, 8192))},
        {"runs of no clusters",
         CNtfsFileRecordBuilder().Add(DataIn({}, 8192).RunList(NtfsRunBytes(1, 0, 1, 16) + std::string(1, '\0')))},
    };
    for (const auto& row : rows) {
        CNtfsBitmapVolume volume(1000);
        volume.MftRuns({{16, 4}, {300, 12}}).Record(0, row.record);  // the others lie elsewhere
        EXPECT_REFUSED(OpenAndRead(volume), DamagedMft) << row.name;
    }
}

TEST_F(NtfsVolumeOnDisk, ADamagedFirstRecordDoesNotHideTheBitmapWhereTheFirstRecordsLieTogether) {
    for (const uint32_t sectorsPerCluster : {1U, 4U, 64U}) {
        CNtfsBitmapVolume volume(1000, sectorsPerCluster);
        volume.Record(0, CNtfsFileRecordBuilder().Signature("BAAD")).Use(900);
        ASSERT_OK(Open(volume));
        EXPECT_SAME_BYTES(ExpectedBits(volume, 1000), BitsFrom(0)) << sectorsPerCluster;
    }
}

TEST_F(NtfsVolumeOnDisk, ADamagedRecordOfTheBitmapIsRefused) {
    const auto sound = [] { return DataIn({{64, 1}}, 136); };
    const auto record = [](const CNtfsAttributeBuilder& attribute) { return CNtfsFileRecordBuilder().Add(attribute); };
    const struct {
        const char* name;
        CNtfsFileRecordBuilder record;
        const char* text;
    } rows[] = {
        {"another signature", record(sound()).Signature("FILF"), DamagedBitmap},
        {"a torn sector", record(sound()).BreakSectorEnd(0), DamagedBitmap},
        {"no data", CNtfsFileRecordBuilder(), DamagedBitmap},
        {"data with a name alone", record(sound().Name(u"x")), DamagedBitmap},
        {"sparse", record(sound().Flags(0x8000)), DamagedBitmap},
        {"a hole", record(DataIn({{NtfsHole, 1}}, 136)), DamagedBitmap},
        {"a run behind the end", record(DataIn({{1000, 1}}, 136)), DamagedBitmap},
        {"more clusters than the file has", record(DataIn({{0, 1000}, {0, 1000}}, 136)), DamagedBitmap},
        {"fewer bytes than clusters", record(DataIn({{64, 1}}, 124)), ShortBitmap},
        {"bytes that were never written", record(sound().InitializedBytes(124)), ShortBitmap},
        {"a value that leaves it",
         record(CNtfsAttributeBuilder::Resident(NtfsDataType, std::string(136, 'x')).ValueLength(0x10000)),
         DamagedBitmap},
        {"a value that leaves its attribute",
         record(CNtfsAttributeBuilder::Resident(NtfsDataType, std::string(136, 'x')).ValueLength(200)), DamagedBitmap},
    };
    for (const auto& row : rows)
        EXPECT_REFUSED(OpenAndRead(CNtfsBitmapVolume(1000).Record(6, row.record)), row.text) << row.name;
}

// What another file has in its clusters says nothing of clusters in use.
TEST_F(NtfsVolumeOnDisk, ARecordWithANameIsTheBitmapsOrRefused) {
    const auto named = [](const std::u16string& name) {
        NtfsFileNameFields_t fields;
        fields.name = name;
        return CNtfsFileRecordBuilder()
            .Add(CNtfsAttributeBuilder::Resident(NtfsFileNameType, NtfsFileNameValue(fields)))
            .Add(DataIn({{CNtfsBitmapVolume::BitmapLcn, 1}}, 136));
    };
    CNtfsBitmapVolume volume(1000);
    ASSERT_OK(OpenAndRead(volume.Record(6, named(u"$Bitmap"))));
    EXPECT_SAME_BYTES(ExpectedBits(volume, 1000), BitsFrom(0));
    for (const std::u16string& name : {std::u16string(u"$Boot"), std::u16string(u"$Bitmaq"), std::u16string(u"$Bitma"),
                                       std::u16string(u"$Bitmap."), std::u16string()})
        EXPECT_REFUSED(OpenAndRead(volume.Record(6, named(name))), DamagedBitmap);
}

TEST_F(NtfsVolumeOnDisk, AFileThatIsCutShortFailsWhereItEnds) {
    const CNtfsBitmapVolume volume(1000);
    const std::string whole = volume.Image().Bytes();
    for (const size_t size :
         {size_t{0}, size_t{511}, size_t{16 * 512 + 1023}, size_t{16 * 512 + 7 * 1024 - 1}, size_t{64 * 512 + 124}}) {
        CZuError error = Open(m_Dir.Write("cut", std::string_view(whole).substr(0, size)));
        if (!error.IsErrorSet())
            error = m_Volume.ReadBitmap(0, m_Bits.data(), 4096, m_Got);
        EXPECT_FAILURE(error) << size;
        EXPECT_EQ(0U, m_Got);
    }
    ASSERT_OK(Open(m_Dir.Write("cut", std::string_view(whole).substr(0, 64 * 512 + 512))));
    EXPECT_EQ(125U, BitsFrom(0).size());
}

TEST_F(NtfsVolumeOnDisk, EveryFailureOfAReadReachesTheCaller) {
    const std::string path = CNtfsBitmapVolume(1000).WriteTo(m_Dir);
    for (unsigned int failAt = 0;; ++failAt) {
        CFaultyFiles faulty(Fault_t{FaultOp::Read, failAt, EIO});
        CZuError error = Open(path);
        if (!error.IsErrorSet())
            error = m_Volume.ReadBitmap(0, m_Bits.data(), 4096, m_Got);
        if (!faulty.Fired()) {
            EXPECT_OK(error);
            break;
        }
        EXPECT_SYSTEM_ERROR(error, EIO) << "read " << failAt;
    }
}

}  // namespace
