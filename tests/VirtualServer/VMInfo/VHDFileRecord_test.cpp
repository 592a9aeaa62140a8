#include <gtest/gtest.h>

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
#include "tests/support/SameBytes.h"
#include "tests/support/SparseDumpText.h"
#include "tests/support/TempDir.h"
#include "tests/support/VhdBuilder.h"

namespace {

CVhdBuilder WithLocators() {
    return CVhdBuilder::Differencing(800)
        .Block(7, 'x')
        .Block(2, PatternedBytes(4096))
        .Bitmap(2, "\x18")
        .Locator(0, "W2ru", PatternedBytes(40, 1))
        .Locator(3, "W2ku", PatternedBytes(700, 2))
        .Locator(7, "MacX", PatternedBytes(512, 3));
}

class VHDFileRecord : public testing::Test {
protected:
    void Open(const CVhdBuilder& file, DiskType_t type = DiskType_VhdDynamic) {
        ASSERT_OK(m_Reader.OpenDisk(file.WriteTo(m_Dir).c_str(), type));
    }

    std::string Record() {
        CAutoMemory<char> metadata = BufferOf("what stood there before");
        EXPECT_OK(m_Reader.GetMetadataInfo(metadata));
        return BytesOf(metadata);
    }

    std::string Dump(const std::string& name = "disk", uint64_t blockSectors = 128) {
        CZuFile out;
        EXPECT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenTruncating | OpenForWriting, 384));
        EXPECT_OK(m_Reader.DumpSparseInfo(out, name.c_str(), blockSectors));
        EXPECT_OK(out.Close());
        return m_Dir.Read("dump");
    }

    CTempDir m_Dir;
    CVHDFileReader m_Reader;
};

TEST_F(VHDFileRecord, OfAFixedDiskIsTheFootersPlaceAndTheFooter) {
    const CVhdBuilder file = CVhdBuilder::Fixed(0x321);
    Open(file, DiskType_VhdFixed);
    const std::string record = Record();
    EXPECT_EQ(560U, record.size());
    EXPECT_EQ("VDMSFT10"
              "00000230"
              "0000000000000321"
              "0000000000064200",
              record.substr(0, 48));
    EXPECT_SAME_BYTES(file.FooterBytes(), record.substr(48));
    EXPECT_SAME_BYTES(file.Record(), record);
}

TEST_F(VHDFileRecord, OfADiskWithATableIsFooterHeaderLocatorsTableAndFooter) {
    const struct {
        const char* name;
        CVhdBuilder file;
        DiskType_t type;
    } rows[] = {
        {"no block", CVhdBuilder::Dynamic(80), DiskType_VhdDynamic},
        {"no sector", CVhdBuilder::Dynamic(0), DiskType_VhdDynamic},
        {"blocks", CVhdBuilder::Dynamic(80).Block(9, 'x').Block(0, 'y'), DiskType_VhdDynamic},
        {"locators", WithLocators(), DiskType_VhdDifferencing},
        {"a locator of one byte", CVhdBuilder::Differencing(8).Locator(5, "W2ru", "x"), DiskType_VhdDifferencing},
        {"many blocks", CVhdBuilder::Dynamic(uint64_t{1} << 32U).BlockSize(2 << 20).Block(1048575, 'x'),
         DiskType_VhdDynamic},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Open(row.file, row.type);
        EXPECT_SAME_BYTES(row.file.Record(), Record());
    }
}

TEST_F(VHDFileRecord, HasItsSizeInItsHead) {
    Open(WithLocators(), DiskType_VhdDifferencing);
    const std::string record = Record();
    EXPECT_EQ(32U + 1536 + 100 * 4 + (40 + 700 + 512) + 528, record.size());
    EXPECT_EQ("VDMSSP10"
              "00000ea4"
              "0000000000000320",
              record.substr(0, 32));
}

// The parts are the file's own bytes, whatever they say.
TEST_F(VHDFileRecord, TakesThePartsAsTheyLieInTheFile) {
    const std::string copy = PatternedBytes(512, 4);
    const std::string reserved = PatternedBytes(256, 5);
    CVhdBuilder file = CVhdBuilder::Dynamic(80).Block(3, 'x');
    file.PutAt(0, copy).PutAt(512 + 768, reserved).PutAt(512 + 36, "sum?").PutEndFooter(64, "sum!");
    Open(file);
    const std::string bytes = file.Bytes();
    const std::string record = Record();
    EXPECT_SAME_BYTES(copy, record.substr(32, 512));
    EXPECT_SAME_BYTES(bytes.substr(512, 1024), record.substr(32 + 512, 1024));
    EXPECT_SAME_BYTES(bytes.substr(1536, 40), record.substr(32 + 1536, 40));
    EXPECT_SAME_BYTES(bytes.substr(bytes.size() - 512), record.substr(record.size() - 512));
}

// A length without a code counts, a code without a length doesn't.
TEST_F(VHDFileRecord, ALocatorIsThereWhenItHasALength) {
    CVhdBuilder file = CVhdBuilder::Differencing(80).Header(576, "W2ru").Header(576 + 16, BigEndianBytes(512, 8));
    Open(file, DiskType_VhdDifferencing);
    EXPECT_SAME_BYTES(file.Record(), Record());
    file.Header(576, std::string(4, '\0')).Header(576 + 8, BigEndianBytes(8, 4)).Locator(1, "W2ku", "second");
    Open(file, DiskType_VhdDifferencing);
    EXPECT_EQ("cxsparsesecond", Record().substr(32 + 1536, 14));
}

TEST_F(VHDFileRecord, TellsTheDisksSectorsAndTheFilesEnd) {
    Open(CVhdBuilder::Fixed(24).CurrentSize(uint64_t{0xABCDE} * 512 + 100), DiskType_VhdFixed);
    EXPECT_EQ("00000000000abcde"
              "0000000000003000",
              Record().substr(16, 32));
    Open(CVhdBuilder::Fixed(24).CurrentSize(0), DiskType_VhdFixed);
    EXPECT_EQ("0000000000000000", Record().substr(16, 16));
}

TEST_F(VHDFileRecord, IsRefusedOnAClosedObject) {
    CAutoMemory<char> metadata = BufferOf("kept");
    EXPECT_REFUSED(m_Reader.GetMetadataInfo(metadata), "Object is in invalid state. Make sure OpenDisk succeeded");
    EXPECT_SAME_BYTES("kept", BytesOf(metadata));
}

TEST_F(VHDFileRecord, ALocatorThatLeavesTheFileFailsInTheRead) {
    Open(WithLocators().Header(576 + 8, BigEndianBytes(0xFFFFFFFF, 4)), DiskType_VhdDifferencing);
    CAutoMemory<char> metadata = BufferOf("gone");
    const CZuError error = m_Reader.GetMetadataInfo(metadata);
    EXPECT_FAILURE(error);
    EXPECT_STRNE("Out of memory", error.GetErrorText());
    EXPECT_EQ(0U, metadata.GetSize());
    Open(WithLocators().Header(576 + 16, BigEndianBytes(~uint64_t{0}, 8)), DiskType_VhdDifferencing);
    EXPECT_FAILURE(m_Reader.GetMetadataInfo(metadata));
}

TEST_F(VHDFileRecord, EveryFailureReachesTheCaller) {
    CAutoMemory<char> metadata;
    Open(CVhdBuilder::Fixed(24), DiskType_VhdFixed);
    for (const FaultOp op : {FaultOp::Size, FaultOp::Seek, FaultOp::Read})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return m_Reader.GetMetadataInfo(metadata); }));
    Open(WithLocators(), DiskType_VhdDifferencing);
    EXPECT_EQ(1U, WalkFailures(FaultOp::Size, [&] { return m_Reader.GetMetadataInfo(metadata); }));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read})
        EXPECT_EQ(6U, WalkFailures(op, [&] { return m_Reader.GetMetadataInfo(metadata); }))
            << "three locators, two footers, the header; the table is in memory";
}

TEST_F(VHDFileRecord, TheDumpOfAFixedDiskIsOneRecordOfAFlatExtent) {
    Open(CVhdBuilder::Fixed(24), DiskType_VhdFixed);
    SparseDumpText_t expected;
    expected.name = "disk_00000000";
    expected.endLba = ~uint64_t{0};
    expected.blockSize = 0x10000;
    expected.grainSize = 0x10000;
    EXPECT_SAME_BYTES("00000001" + expected.Bytes(), Dump("disk_00000000", 0x10000));
}

TEST_F(VHDFileRecord, TheDumpOfADynamicDiskHasABitForEachBlockAndABitmapForEachThatIsThere) {
    const CVhdBuilder file =
        CVhdBuilder::Dynamic(80).Block(9, 'x').Block(0, 'y').Block(8, 'z').Bitmap(0, "\x0F").Bitmap(8, "");
    Open(file);
    SparseDumpText_t expected;
    expected.name = "disk";
    expected.endLba = ~uint64_t{0};
    expected.blockSize = 8;
    expected.grainSize = 1;
    expected.fileOffset = 512;
    expected.grainsPerBucket = 8;
    expected.bucketCount = 10;
    expected.topBitmapBytes = 2;
    expected.bucketBytes = 512;
    expected.topBitmap = "\x80\xC0";
    expected.buckets = {file.BlockBitmap(0), file.BlockBitmap(8), file.BlockBitmap(9)};
    EXPECT_SAME_BYTES("00000001" + expected.Bytes(), Dump("disk", 77)) << "whatever block size is given";
}

TEST_F(VHDFileRecord, TheDumpReadsBack) {
    const struct {
        const char* name;
        CVhdBuilder file;
        size_t buckets;
    } rows[] = {
        {"no block", CVhdBuilder::Dynamic(80), 10},
        {"a bitmap of two sectors", CVhdBuilder::Dynamic(16384).BlockSize(4 << 20).Block(1, 'x'), 2},
        {"entries behind the disk's end", CVhdBuilder::Dynamic(8).Entries(17).Block(16, 'x').Block(0, 'x'), 17},
        {"a whole number of bytes", CVhdBuilder::Dynamic(128).Block(15, 'x'), 16},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Open(row.file);
        std::string bytes = Dump();
        EXPECT_EQ("00000001", bytes.substr(0, 8));
        bytes.erase(0, 8);
        const SparseDumpText_t dump = TakeSparseDump(bytes);
        EXPECT_EQ("", bytes);
        EXPECT_EQ(row.file.BitmapSectors() * 512, dump.bucketBytes);
        EXPECT_EQ(row.file.BitmapSectors() * 512, dump.fileOffset);
        ASSERT_EQ(row.buckets, dump.buckets.size());
        const std::string table = row.file.TableBytes();
        for (size_t index = 0; index < row.buckets; ++index) {
            const bool isThere = table.substr(4 * index, 4) != "\xFF\xFF\xFF\xFF";
            EXPECT_SAME_BYTES(isThere ? row.file.BlockBitmap(index) : "", dump.buckets[index]) << index;
        }
    }
}

TEST_F(VHDFileRecord, TheDumpOfATableWithoutEntriesIsTheRecordAlone) {
    Open(CVhdBuilder::Dynamic(0));
    EXPECT_EQ(8U + 1153, Dump().size());
}

TEST_F(VHDFileRecord, TheNameInTheDumpIsCutAt1023Characters) {
    Open(CVhdBuilder::Fixed(8), DiskType_VhdFixed);
    EXPECT_EQ(std::string(1023, 'n') + '\0', Dump(std::string(2000, 'n')).substr(8, 1024));
}

TEST_F(VHDFileRecord, TheDumpIsRefusedOnAClosedObject) {
    CZuFile out;
    ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenForWriting, 384));
    EXPECT_REFUSED(m_Reader.DumpSparseInfo(out, "x", 8), "Don't have a valid opened extent file");
    EXPECT_SAME_BYTES("", m_Dir.Read("dump"));
}

TEST_F(VHDFileRecord, TheDumpReadsEachBitmapFromTheFile) {
    Open(CVhdBuilder::Dynamic(80).Block(2, 'x').Block(5, 'x'));
    char sector[512];
    ASSERT_OK(m_Reader.ReadSector(16, sector, 512));
    const CFaultyFiles counting;
    Dump();
    EXPECT_EQ((std::vector<uint32_t>{512, 512}), counting.Sizes(FaultOp::Read));
}

TEST_F(VHDFileRecord, EveryFailedOrShortStepOfTheDumpReachesTheCaller) {
    Open(CVhdBuilder::Dynamic(80).Block(2, 'x').Block(5, 'x'));
    CZuFile out;
    ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenForWriting, 384));
    const auto dump = [&] { return m_Reader.DumpSparseInfo(out, "x", 8); };
    EXPECT_EQ(5U, WalkFailures(FaultOp::Write, dump)) << "the count, the record, the top bitmap, two bitmaps";
    EXPECT_EQ(2U, WalkFailures(FaultOp::Read, dump));
    for (unsigned int call = 0; call < 5; ++call) {
        CFaultyFiles cutting;
        cutting.ShortenTransfer(FaultOp::Write, call, call == 2 ? 0 : 7);
        EXPECT_FAILURE(dump()) << call;
    }
    Open(CVhdBuilder::Fixed(8), DiskType_VhdFixed);
    EXPECT_EQ(2U, WalkFailures(FaultOp::Write, dump));
}

}  // namespace
