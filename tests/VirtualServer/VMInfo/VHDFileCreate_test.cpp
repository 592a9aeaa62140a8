#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VhdBuilder.h"

#define EXPECT_END_OF_DISK(expression) EXPECT_CONDITION(expression, 3, 4001, 1)
#define EXPECT_NOT_ALLOCATED(expression) EXPECT_CONDITION(expression, 3, 4001, 2)

namespace {

constexpr char NoOpenDisk[] = "Object is in invalid state. Make sure OpenDisk succeeded";
constexpr char MetadataIsCorrupted[] = "Metadata header is corrupted";

CVhdBuilder Sound() {
    return CVhdBuilder::Dynamic(800).Block(7, PatternedBytes(4096, 7)).Block(2, PatternedBytes(4096, 2));
}

CVhdBuilder SoundDifferencing() {
    return CVhdBuilder::Differencing(800)
        .Block(3, 'x')
        .Bitmap(3, "\x55")
        .Locator(0, "W2ru", PatternedBytes(40, 1))
        .Locator(6, "W2ku", PatternedBytes(700, 2));
}

class VHDFileCreate : public testing::Test {
protected:
    std::string Name() const { return m_Dir.File("made.vhd"); }
    std::string Made() const { return m_Dir.Read("made.vhd"); }

    CZuError Create(const std::string& record, DiskType_t type) {
        CAutoMemory<char> metadata = BufferOf(record);
        return m_Reader.CreateDisk(Name().c_str(), type, metadata);
    }

    CZuError Write(uint64_t index, const std::string& bytes, uint32_t blockSectors = 9) {
        CAutoMemory<char> data = BufferOf(bytes);
        return m_Reader.WriteBlock(index, blockSectors, data);
    }

    void ExpectRefusedAndEmpty(const std::string& record, DiskType_t type) {
        WriteFileBytes(Name(), "what stood there before");
        EXPECT_REFUSED(Create(record, type), MetadataIsCorrupted);
        EXPECT_SAME_BYTES("", Made());
        EXPECT_REFUSED(Write(0, "x"), NoOpenDisk);
    }

    CTempDir m_Dir;
    CVHDFileReader m_Reader;
};

TEST_F(VHDFileCreate, ADynamicDiskComesBackByteForByte) {
    ASSERT_OK(Create(Sound().Record(), DiskType_VhdDynamic));
    EXPECT_OK(Write(2, Sound().BlockBytes(2)));
    EXPECT_OK(Write(7, Sound().BlockBytes(7)));
    EXPECT_OK(m_Reader.CloseDisk());
    EXPECT_SAME_BYTES(Sound().Bytes(), Made());
}

TEST_F(VHDFileCreate, ADifferencingDiskComesBackByteForByte) {
    ASSERT_OK(Create(SoundDifferencing().Record(), DiskType_VhdDifferencing));
    EXPECT_OK(Write(3, SoundDifferencing().BlockBytes(3)));
    EXPECT_OK(m_Reader.CloseDisk());
    EXPECT_SAME_BYTES(SoundDifferencing().Bytes(), Made());
}

TEST_F(VHDFileCreate, AFixedDiskComesBackByteForByteButForItsUnwrittenSectors) {
    const std::string bytes = PatternedBytes(24 * 512);
    const CVhdBuilder file = CVhdBuilder::Fixed(24).Data(0, bytes);
    ASSERT_OK(Create(file.Record(), DiskType_VhdFixed));
    EXPECT_SAME_BYTES(std::string(24 * 512, '\0') + file.FooterBytes(), Made()) << "at once in its full size";
    for (uint64_t index = 0; index < 3; ++index)
        EXPECT_OK(Write(index, bytes.substr(index * 8 * 512, 8 * 512), 8));
    EXPECT_OK(m_Reader.CloseDisk());
    EXPECT_SAME_BYTES(file.Bytes(), Made());
}

// Checksum, unique id and all else are what the source held, sound or not.
TEST_F(VHDFileCreate, NothingIsComputedAnew) {
    std::string record = Sound().Record();
    PutBytes(record, 32 + 64, "sum1");
    PutBytes(record, 32 + 512 + 36, "sum2");
    PutBytes(record, record.size() - 512 + 64, "sum3");
    PutBytes(record, record.size() - 100, PatternedBytes(100));
    ASSERT_OK(Create(record, DiskType_VhdDynamic));
    const std::string made = Made();
    EXPECT_SAME_BYTES(record.substr(32, 1536), made.substr(0, 1536));
    EXPECT_SAME_BYTES(record.substr(record.size() - 512), made.substr(made.size() - 512));
}

TEST_F(VHDFileCreate, TheObjectIsOpenAsAfterAnOpen) {
    ASSERT_OK(Create(SoundDifferencing().Record(), DiskType_VhdDifferencing));
    EXPECT_EQ(800U, m_Reader.GetTotalSectors());
    EXPECT_EQ(9U, m_Reader.GetBlockSize());
    EXPECT_EQ(3U, m_Reader.NextHeldBlock(0));
    VHD_FOOTER_t footer;
    VHD_DYNAMIC_HEADER_t header;
    m_Reader.GetFooterInformation(footer);
    m_Reader.GetDynamicHeaderInformation(header);
    EXPECT_EQ(4U, footer.diskType);
    EXPECT_EQ(100U, header.maxTableEntries);
    EXPECT_EQ(700U, header.parentLocators[6].platformDataLength);
    EXPECT_OK(m_Reader.CloseDisk());
    EXPECT_EQ(0U, m_Reader.GetBlockSize());

    ASSERT_OK(Create(CVhdBuilder::Fixed(24).Record(), DiskType_VhdFixed));
    EXPECT_EQ(24U, m_Reader.GetTotalSectors());
    EXPECT_EQ(0U, m_Reader.GetBlockSize());
}

TEST_F(VHDFileCreate, WhatWasCreatedOpensAndHasTheSameRecord) {
    const struct {
        CVhdBuilder file;
        DiskType_t type;
    } rows[] = {{CVhdBuilder::Fixed(24), DiskType_VhdFixed},
                {Sound(), DiskType_VhdDynamic},
                {CVhdBuilder::Dynamic(0), DiskType_VhdDynamic},
                {SoundDifferencing(), DiskType_VhdDifferencing}};
    for (const auto& row : rows) {
        ASSERT_OK(Create(row.file.Record(), row.type));
        ASSERT_OK(m_Reader.OpenDisk(Name().c_str(), row.type));
        CAutoMemory<char> metadata;
        ASSERT_OK(m_Reader.GetMetadataInfo(metadata));
        EXPECT_SAME_BYTES(row.file.Record(), BytesOf(metadata));
    }
}

TEST_F(VHDFileCreate, ADiskOfTerabytesIsCheap) {
    constexpr uint64_t sectors = uint64_t{1} << 32U;
    const CVhdBuilder large = CVhdBuilder::Dynamic(sectors).BlockSize(2 << 20).Block(1'000'000, 'x');
    ASSERT_OK(Create(large.Record(), DiskType_VhdDynamic));
    EXPECT_EQ(1'000'000U, m_Reader.NextHeldBlock(0));
    EXPECT_OK(Write(1'000'000, "x", 4097));
    ASSERT_OK(Create(CVhdBuilder::Fixed(sectors).Record(), DiskType_VhdFixed));
    EXPECT_EQ(sectors, m_Reader.GetTotalSectors());
    EXPECT_OK(Write(sectors / 8 - 1, std::string(4096, 'x'), 8));
}

TEST_F(VHDFileCreate, RefusesNameAndTypeBeforeItTouchesAFile) {
    CAutoMemory<char> metadata = BufferOf(Sound().Record());
    EXPECT_REFUSED(m_Reader.CreateDisk(nullptr, DiskType_t{99}, metadata), "Disk name is NULL");
    for (const int type : {0, 1, 11, 15, 19, -1}) {
        EXPECT_REFUSED(m_Reader.CreateDisk(Name().c_str(), DiskType_t(type), metadata),
                       ("Disk of type " + std::to_string(type) + " is not supported by this class").c_str());
    }
    EXPECT_TRUE(m_Dir.Entries().empty());
}

TEST_F(VHDFileCreate, PassesOnWhatTheSystemSaysToTheName) {
    CAutoMemory<char> metadata = BufferOf(Sound().Record());
    EXPECT_SYSTEM_ERROR(m_Reader.CreateDisk((m_Dir.File("none") + "/made").c_str(), DiskType_VhdDynamic, metadata),
                        ENOENT);
}

TEST_F(VHDFileCreate, ARefusedRecordLeavesAnEmptyFileBehind) {
    const std::string fixed = CVhdBuilder::Fixed(24).Record();
    const std::string dynamic = Sound().Record();
    const struct {
        const char* name;
        std::string record;
        DiskType_t type;
    } rows[] = {
        {"no bytes", "", DiskType_VhdFixed},
        {"31 bytes", fixed.substr(0, 31), DiskType_VhdFixed},
        {"a fixed record for a dynamic disk", fixed, DiskType_VhdDynamic},
        {"a fixed record for a differencing disk", fixed, DiskType_VhdDifferencing},
        {"a dynamic record for a fixed disk", dynamic, DiskType_VhdFixed},
        {"another kind", MetadataRecordText("VDVWFT10", 24, fixed.substr(32)), DiskType_VhdFixed},
        {"a byte too many", dynamic + '\0', DiskType_VhdDynamic},
        {"a byte too few", dynamic.substr(0, dynamic.size() - 1), DiskType_VhdDynamic},
        {"a fixed one with a byte too many", fixed + '\0', DiskType_VhdFixed},
        {"a size in capitals", "VDMSSP10" + std::string("000009C0") + dynamic.substr(16), DiskType_VhdDynamic},
        {"a head alone", MetadataRecordText("VDMSFT10", 24, ""), DiskType_VhdFixed},
        {"a fixed footer that is cut", MetadataRecordText("VDMSFT10", 24, fixed.substr(32, 527)), DiskType_VhdFixed},
        {"a dynamic head alone", MetadataRecordText("VDMSSP10", 24, ""), DiskType_VhdDynamic},
        {"a header that is cut", MetadataRecordText("VDMSSP10", 24, dynamic.substr(32, 1535)), DiskType_VhdDynamic},
    };
    ASSERT_EQ(0x9C0U, MetadataRecordText("VDMSSP10", 0, dynamic.substr(32)).size());
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        ExpectRefusedAndEmpty(row.record, row.type);
    }
}

TEST_F(VHDFileCreate, ARecordThatEndsInItsPartsIsRefused) {
    const std::string body = SoundDifferencing().Record().substr(32);
    for (size_t cut = 1536; cut < body.size(); cut += 37) {
        EXPECT_REFUSED(Create(MetadataRecordText("VDMSSP10", 800, body.substr(0, cut)), DiskType_VhdDifferencing),
                       MetadataIsCorrupted)
            << cut;
        EXPECT_REFUSED(Write(0, "x"), NoOpenDisk);
    }
    EXPECT_OK(Create(MetadataRecordText("VDMSSP10", 800, body), DiskType_VhdDifferencing));
}

TEST_F(VHDFileCreate, AFooterOfAnotherTypeIsRefusedWhenTheFileIsMade) {
    const struct {
        std::string record;
        DiskType_t type;
        const char* numbers;
    } rows[] = {
        {Sound().Record(), DiskType_VhdDifferencing, " Disk Type 3 != Input 4"},
        {SoundDifferencing().Record(), DiskType_VhdDynamic, " Disk Type 4 != Input 3"},
        {CVhdBuilder::Fixed(24).Footer(60, BigEndianBytes(3, 4)).Record(), DiskType_VhdFixed,
         " Disk Type 3 != Input 2"},
    };
    for (const auto& row : rows) {
        EXPECT_REFUSED(Create(row.record, row.type), ("Disk Type does not match for " + Name() + row.numbers).c_str());
        EXPECT_REFUSED(Write(0, "x"), NoOpenDisk);
        EXPECT_FALSE(Made().empty());
    }
}

// The first footer of the record is the one that counts, as it stands at the file's start.
TEST_F(VHDFileCreate, TheCopyOfTheFooterTellsWhatTheDiskIs) {
    std::string record = Sound().Record();
    PutBytes(record, record.size() - 512, std::string(512, 'e'));
    ASSERT_OK(Create(record, DiskType_VhdDynamic));
    EXPECT_EQ(800U, m_Reader.GetTotalSectors());
}

TEST_F(VHDFileCreate, NeitherCookieNorVersionMatters) {
    EXPECT_OK(
        Create(Sound().Footer(0, "whatever").Footer(12, "vers").Header(0, "whatever").Record(), DiskType_VhdDynamic));
}

TEST_F(VHDFileCreate, EveryPieceGoesWhereFooterAndHeaderSay) {
    constexpr uint64_t headerAt = 70'000;
    constexpr uint64_t tableAt = 90'000;
    constexpr uint64_t locatorAt = 80'000;
    const CVhdBuilder file = CVhdBuilder::Differencing(800)
                                 .Block(3, 'x')
                                 .Locator(2, "W2ru", "the parent")
                                 .Footer(16, BigEndianBytes(headerAt, 8))
                                 .Header(16, BigEndianBytes(tableAt, 8))
                                 .Header(576 + 2 * 24 + 16, BigEndianBytes(locatorAt, 8));
    std::string record = file.Record();
    PutBytes(record, record.size() - 528, HexDigits(100'000, 16));
    ASSERT_OK(Create(record, DiskType_VhdDifferencing));
    const std::string made = Made();
    EXPECT_EQ(100'512U, made.size());
    EXPECT_SAME_BYTES(file.FooterBytes(), made.substr(0, 512));
    EXPECT_SAME_BYTES(file.HeaderBytes(), made.substr(headerAt, 1024));
    EXPECT_SAME_BYTES("the parent", made.substr(locatorAt, 10));
    EXPECT_SAME_BYTES(file.TableBytes(), made.substr(tableAt, 400));
    EXPECT_SAME_BYTES(file.FooterBytes(), made.substr(100'000));
}

TEST_F(VHDFileCreate, ABlockThatTheSourceDidNotHaveIsRefused) {
    ASSERT_OK(Create(Sound().Record(), DiskType_VhdDynamic));
    const std::string before = Made();
    const CZuError error = Write(3, std::string(9 * 512, 'x'));
    EXPECT_NOT_ALLOCATED(error);
    EXPECT_EQ(1, m_Reader.IsErrorSectorNotFound(error));
    EXPECT_SAME_BYTES(before, Made());
    EXPECT_OK(Write(2, "still open"));
}

TEST_F(VHDFileCreate, WriteRefusesInOrder) {
    EXPECT_REFUSED(Write(~uint64_t{0}, std::string(4097, 'x'), 8), NoOpenDisk);
    ASSERT_OK(Create(Sound().Record(), DiskType_VhdDynamic));
    EXPECT_REFUSED(Write(~uint64_t{0}, std::string(4097, 'x'), 8),
                   "Dynamic disk block size 8(sectors) does not match the input size 9(sectors)");
    EXPECT_REFUSED(Write(~uint64_t{0}, std::string(9 * 512 + 1, 'x')), "Data size greater than grain size");
    const CZuError end = Write(~uint64_t{0}, std::string(9 * 512, 'x'));
    EXPECT_END_OF_DISK(end);
    EXPECT_EQ(1, m_Reader.IsErrorEOF(end));

    ASSERT_OK(Create(CVhdBuilder::Fixed(24).Record(), DiskType_VhdFixed));
    EXPECT_REFUSED(Write(0, std::string(4097, 'x'), 8), "Data size greater than grain size");
    EXPECT_END_OF_DISK(Write(3, "x", 8));
    EXPECT_END_OF_DISK(Write(uint64_t{1} << 61U, "x", 8)) << "its sector would be 0";
    EXPECT_OK(Write(23, std::string(512, 'x'), 1)) << "the last sector has a place";
    EXPECT_END_OF_DISK(Write(24, "x", 1));
}

TEST_F(VHDFileCreate, TheEndOfADynamicDiskGoesByTheSizeWithTheBitmap) {
    const CVhdBuilder file = CVhdBuilder::Dynamic(80).Block(8, 'x').Block(9, 'y');
    ASSERT_OK(Create(file.Record(), DiskType_VhdDynamic));
    EXPECT_OK(Write(8, file.BlockBytes(8)));
    EXPECT_END_OF_DISK(Write(9, file.BlockBytes(9)));
}

// Unlike a read, which has no blocks there.
TEST_F(VHDFileCreate, ADiskOfASingleSectorTakesItsBlock) {
    ASSERT_OK(Create(CVhdBuilder::Fixed(1).Record(), DiskType_VhdFixed));
    EXPECT_OK(Write(0, std::string(512, 'x'), 1));
    EXPECT_END_OF_DISK(Write(1, "x", 1));
    ASSERT_OK(Create(CVhdBuilder::Fixed(0).Record(), DiskType_VhdFixed));
    EXPECT_END_OF_DISK(Write(0, "x", 1));
}

TEST_F(VHDFileCreate, ATableThatIsTooShortEndsTheDisk) {
    ASSERT_OK(Create(CVhdBuilder::Dynamic(800).Entries(3).Block(2, 'x').Record(), DiskType_VhdDynamic));
    EXPECT_OK(Write(2, "x"));
    EXPECT_END_OF_DISK(Write(3, "x"));
}

TEST_F(VHDFileCreate, ShorterDataIsWrittenAsItIs) {
    ASSERT_OK(Create(Sound().Record(), DiskType_VhdDynamic));
    EXPECT_OK(Write(2, std::string(700, 'x')));
    EXPECT_OK(Write(2, std::string(600, 'y')));
    const std::string made = Made().substr(Sound().BlockSector(2) * 512, 9 * 512);
    EXPECT_SAME_BYTES(std::string(600, 'y') + std::string(100, 'x'), made.substr(0, 700));
    ASSERT_OK(Create(CVhdBuilder::Fixed(24).Record(), DiskType_VhdFixed));
    EXPECT_OK(Write(1, "short", 8));
    EXPECT_EQ("short", Made().substr(8 * 512, 5));
}

// A stream of a fixed disk can end with a block of no sectors.
TEST_F(VHDFileCreate, ABlockWithoutBytesWritesNothing) {
    ASSERT_OK(Create(CVhdBuilder::Fixed(17).Record(), DiskType_VhdFixed));
    const std::string before = Made();
    EXPECT_OK(Write(2, "", 8));
    EXPECT_SAME_BYTES(before, Made());
}

TEST_F(VHDFileCreate, TheFileIsForWritingAlone) {
    ASSERT_OK(Create(Sound().Record(), DiskType_VhdDynamic));
    std::string block(9 * 512, '?');
    unsigned int got = 0;
    EXPECT_EQ(1U, m_Reader.ReadBlock(2, block.data(), 9, got).GetErrorType());
    EXPECT_EQ(1U, m_Reader.ReadSector(16, block.data(), 512).GetErrorType());
}

TEST_F(VHDFileCreate, AnOpenedDiskIsForReadingAlone) {
    const std::string path = Sound().WriteTo(m_Dir);
    ASSERT_OK(m_Reader.OpenDisk(path.c_str(), DiskType_VhdDynamic));
    EXPECT_EQ(1U, Write(2, "x").GetErrorType());
    EXPECT_SAME_BYTES(Sound().Bytes(), ReadFileBytes(path));
}

TEST_F(VHDFileCreate, ACreationTakesThePlaceOfWhatWasOpen) {
    ASSERT_OK(m_Reader.OpenDisk(Sound().WriteTo(m_Dir).c_str(), DiskType_VhdDynamic));
    ASSERT_OK(Create(CVhdBuilder::Fixed(24).Record(), DiskType_VhdFixed));
    EXPECT_EQ(0U, m_Reader.GetBlockSize());
    EXPECT_EQ(24U, m_Reader.GetTotalSectors());
}

TEST_F(VHDFileCreate, EveryFailureOfACreationReachesTheCallerAndNothingIsOpen) {
    const struct {
        std::string record;
        DiskType_t type;
        unsigned int writes;
    } rows[] = {
        {CVhdBuilder::Fixed(24).Record(), DiskType_VhdFixed, 1},
        {Sound().Record(), DiskType_VhdDynamic, 4},
        {SoundDifferencing().Record(), DiskType_VhdDifferencing, 6},
    };
    for (const auto& row : rows) {
        for (const FaultOp op : {FaultOp::Open, FaultOp::Seek, FaultOp::Write, FaultOp::Truncate}) {
            const unsigned int failures = WalkFailures(op, [&] {
                CZuError error = Create(row.record, row.type);
                if (error.IsErrorSet()) {
                    EXPECT_REFUSED(Write(0, "x"), NoOpenDisk);
                }
                return error;
            });
            const bool isOnce = op == FaultOp::Open || op == FaultOp::Truncate;
            EXPECT_EQ(isOnce ? 1 : row.writes, failures) << "type " << row.type;
        }
    }
}

TEST_F(VHDFileCreate, EveryFailureOfAWriteReachesTheCallerAndTheDiskStaysOpen) {
    ASSERT_OK(Create(Sound().Record(), DiskType_VhdDynamic));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Write})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return Write(2, Sound().BlockBytes(2)); }));
    ASSERT_OK(Create(CVhdBuilder::Fixed(24).Record(), DiskType_VhdFixed));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Write})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return Write(1, std::string(4096, 'w'), 8); }));
    EXPECT_EQ(std::string(4096, 'w'), Made().substr(4096, 4096));
}

}  // namespace
