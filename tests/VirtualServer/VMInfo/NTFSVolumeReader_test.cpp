#include "VirtualServer/VMInfo/NTFSVolumeReader.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FakeVolumeControl.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/ImageFile.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/SparseDumpText.h"
#include "tests/support/TempDir.h"

// The volume as a system tells it that serves control codes; what a system does that doesn't is proved elsewhere.

#define EXPECT_END_OF_VOLUME(expression) EXPECT_CONDITION(expression, 3, 7001, 1)
#define EXPECT_NOTHING_ALLOCATED(expression) EXPECT_CONDITION(expression, 3, 7001, 2)

namespace {

constexpr char NothingOpened[] = "Object is in invalid state. Make sure OpenVolume succeeded";
constexpr uint64_t BlockClusters = 8192;
constexpr uint64_t BlockBytes = BlockClusters * 512;  // of a cluster that is a sector

using Calls_t = std::vector<std::string>;

class NTFSVolumeReader : public testing::Test {
protected:
    // A file of that many bytes, holes but for what was put.
    std::string Volume(uint64_t sizeBytes) {
        m_Image.Resize(sizeBytes);
        return m_Image.WriteTo(m_Dir, "volume");
    }
    void Open(uint64_t sizeBytes) { ASSERT_OK(m_Reader.OpenVolume(Volume(sizeBytes).c_str())); }

    CZuError Read(uint64_t block) {
        m_Sectors = 77;
        return m_Reader.ReadBlock(block, m_Buffer.data(), &m_Sectors);
    }

    // The bytes of a block that is given out.
    std::string BlockOf(uint64_t block) {
        EXPECT_OK(Read(block)) << block;
        return m_Buffer.substr(0, size_t{m_Sectors} * 512);
    }

    static std::string Record(uint64_t totalSectors, uint64_t bytesPerCluster, uint64_t blockSectors) {
        return MetadataRecordText("VDNTFS10", totalSectors,
                                  HexDigits(bytesPerCluster, 16) + HexDigits(blockSectors, 16));
    }
    CZuError Create(const std::string& path, const std::string& record) {
        CAutoMemory<char> metadata = BufferOf(record);
        return m_Reader.CreateVolume(path.c_str(), metadata);
    }
    CZuError Write(uint64_t block, const std::string& bytes) {
        CAutoMemory<char> data = BufferOf(bytes);
        return m_Reader.WriteBlock(block, data);
    }

    CTempDir m_Dir;
    CImageFile m_Image;
    CNTFSVolumeReader m_Reader;
    std::string m_Buffer = std::string(BlockBytes, '?');
    uint32_t m_Sectors = 0;
};

TEST_F(NTFSVolumeReader, ABlockWithAClusterInUseComesWhole) {
    CFakeVolumeControl control(3 * BlockClusters);
    control.Use(0);
    control.Use(2 * BlockClusters - 1);
    const std::string first = PatternedBytes(BlockBytes, 1);
    const std::string second = PatternedBytes(BlockBytes, 2);
    m_Image.Put(0, first + second);
    Open(3 * BlockBytes);
    EXPECT_EQ(BlockClusters, m_Reader.GetBlockSize());
    EXPECT_EQ(3 * BlockClusters, m_Reader.GetTotalSectors());
    EXPECT_SAME_BYTES(first, BlockOf(0));
    EXPECT_SAME_BYTES(second, BlockOf(1));
    EXPECT_EQ((Calls_t{"allow", "data", "bitmap"}), control.calls);
}

TEST_F(NTFSVolumeReader, ABlockThatIsEntirelyFreeIsNotRead) {
    CFakeVolumeControl control(2 * BlockClusters);
    control.Use(0);
    m_Image.Put(BlockBytes, PatternedBytes(512));  // what a deleted file left
    Open(2 * BlockBytes);
    const CFaultyFiles counting;
    const CZuError error = Read(1);
    EXPECT_NOTHING_ALLOCATED(error);
    EXPECT_EQ(1, m_Reader.IsErrorSectorNotFound(error));
    EXPECT_EQ(0, m_Reader.IsErrorEOF(error));
    EXPECT_EQ(0U, m_Sectors);
    EXPECT_EQ(0U, counting.Calls(FaultOp::Read));
}

TEST_F(NTFSVolumeReader, TheLastBlockEndsWithTheVolume) {
    const struct {
        uint64_t clusters;
        uint32_t lastSectors;
    } rows[] = {{BlockClusters + 1, 4},
                {BlockClusters + 8, 32},
                {BlockClusters + 9, 36},
                {2 * BlockClusters - 1, 4 * 8191},
                {2 * BlockClusters, 4 * 8192}};
    m_Buffer.resize(4 * BlockBytes);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.clusters);
        CFakeVolumeControl control(row.clusters, 4);
        control.Use(BlockClusters);
        CNTFSVolumeReader reader;
        ASSERT_OK(reader.OpenVolume(Volume(8 * BlockBytes).c_str()));
        EXPECT_OK(reader.ReadBlock(1, m_Buffer.data(), &m_Sectors));
        EXPECT_EQ(row.lastSectors, m_Sectors);
        EXPECT_NOTHING_ALLOCATED(reader.ReadBlock(0, m_Buffer.data(), &m_Sectors));
        EXPECT_END_OF_VOLUME(reader.ReadBlock(2, m_Buffer.data(), &m_Sectors));
    }
}

// Its byte of the bitmap is the last one of the reply.
TEST_F(NTFSVolumeReader, TheLastClusterOfAFullLastBlockIsSeen) {
    CFakeVolumeControl control(2 * BlockClusters);
    control.Use(2 * BlockClusters - 1);
    Open(2 * BlockBytes);
    EXPECT_NOTHING_ALLOCATED(Read(0));
    EXPECT_OK(Read(1));
    EXPECT_EQ(BlockClusters, m_Sectors);
}

TEST_F(NTFSVolumeReader, BehindTheVolumeIsItsEnd) {
    CFakeVolumeControl control(2 * BlockClusters);
    Open(2 * BlockBytes);
    const CZuError error = Read(2);
    EXPECT_END_OF_VOLUME(error);
    EXPECT_EQ(1, m_Reader.IsErrorEOF(error));
    EXPECT_EQ(0, m_Reader.IsErrorSectorNotFound(error));
    EXPECT_EQ(1U, control.askedLcns.size()) << "the number of blocks itself is asked for";
    for (const uint64_t block : {uint64_t{3}, uint64_t{1} << 51U, ~uint64_t{0}})
        EXPECT_END_OF_VOLUME(Read(block)) << block;
    EXPECT_EQ(1U, control.askedLcns.size());
    EXPECT_NOTHING_ALLOCATED(Read(0)) << "the volume can be read still";
}

TEST_F(NTFSVolumeReader, OneReplyServesAThousandBlocks) {
    constexpr uint64_t clusters = 2500 * BlockClusters + 5;
    CFakeVolumeControl control(clusters);
    for (const uint64_t block : {999U, 1000U, 1999U, 2000U, 2500U})
        control.Use(block * BlockClusters);
    Open(clusters * 512);
    std::vector<uint64_t> held;
    for (uint64_t block = 0;; ++block) {
        const CZuError error = Read(block);
        if (m_Reader.IsErrorEOF(error) != 0)
            break;
        if (m_Reader.IsErrorSectorNotFound(error) != 0)
            continue;
        EXPECT_OK(error);
        EXPECT_EQ(block == 2500 ? 5 : BlockClusters, m_Sectors) << block << ": one at the end of a reply is whole";
        held.push_back(block);
    }
    EXPECT_EQ((std::vector<uint64_t>{999, 1000, 1999, 2000, 2500}), held);
    EXPECT_EQ((std::vector<uint64_t>{0, 1000 * BlockClusters, 2000 * BlockClusters, 2501 * BlockClusters}),
              control.askedLcns);
}

TEST_F(NTFSVolumeReader, ABlockInFrontOfTheCachedOnesIsAskedForAgain) {
    CFakeVolumeControl control(4 * BlockClusters);
    control.Use(0);
    Open(4 * BlockBytes);
    EXPECT_NOTHING_ALLOCATED(Read(2));
    EXPECT_NOTHING_ALLOCATED(Read(3));
    EXPECT_OK(Read(0));
    EXPECT_NOTHING_ALLOCATED(Read(1));
    EXPECT_EQ((std::vector<uint64_t>{2 * BlockClusters, 0}), control.askedLcns);
}

// What is behind the cut could be in use.
TEST_F(NTFSVolumeReader, ABlockThatAShortReplyHasInPartIsAskedForAgain) {
    CFakeVolumeControl control(4 * BlockClusters);
    control.mostBitmapBytes = 1500;
    control.Use(2 * BlockClusters - 1);
    Open(4 * BlockBytes);
    EXPECT_NOTHING_ALLOCATED(Read(0));
    EXPECT_OK(Read(1));
    EXPECT_EQ(BlockClusters, m_Sectors);
    EXPECT_EQ((std::vector<uint64_t>{0, BlockClusters}), control.askedLcns);
}

TEST_F(NTFSVolumeReader, AFailedQuestionLeavesNothingCached) {
    CFakeVolumeControl control(2 * BlockClusters);
    control.Use(0);
    Open(2 * BlockBytes);
    EXPECT_OK(Read(0));
    EXPECT_END_OF_VOLUME(Read(2));
    control.bitmapError = EIO;
    EXPECT_SYSTEM_ERROR(Read(0), EIO);
    EXPECT_SYSTEM_ERROR(Read(0), EIO);
    EXPECT_EQ(0U, m_Sectors);
    control.bitmapError = 0;
    EXPECT_OK(Read(0));
    EXPECT_EQ(5U, control.askedLcns.size());
}

TEST_F(NTFSVolumeReader, AReplyThatMakesNoSenseIsTheSystemsBadParameter) {
    const auto reply = [](uint64_t first, uint64_t clusters, size_t bytes) {
        return LittleEndianBytes(first, 8) + LittleEndianBytes(clusters, 8) + std::string(bytes, '\xFF');
    };
    const struct {
        const char* name;
        std::string bytes;
        uint32_t got;
        int outcome;
    } rows[] = {
        {"empty", "", 0, 0},
        {"a head alone", reply(8 * BlockClusters, 100, 0), 16, 0},
        {"more than there is room for", reply(8 * BlockClusters, 100, 13), 0xFFFFFFFF, 0},
        {"another block", reply(9 * BlockClusters, 100, 13), 29, 0},
        {"an older block alone", reply(7 * BlockClusters, BlockClusters, 1024), 1040, 0},
        {"a start within a block", reply(8 * BlockClusters - 8, 3 * BlockClusters, 2048), 2064, 0},
        {"cut in front of a whole block", reply(8 * BlockClusters, 3 * BlockClusters, 1023), 1039, 234},
        {"fewer bits than clusters", reply(8 * BlockClusters, 105, 13), 29, 0},
    };
    const std::string path = Volume(16 * BlockBytes);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const CScriptedBitmap control(row.bytes, row.got, row.outcome);
        CNTFSVolumeReader reader;
        ASSERT_OK(reader.OpenVolume(path.c_str()));
        EXPECT_SYSTEM_ERROR(reader.ReadBlock(8, m_Buffer.data(), &m_Sectors), BadVolumeReplyError());
    }
    const CScriptedBitmap sound(reply(8 * BlockClusters, 104, 13), 29, 0);
    CNTFSVolumeReader reader;
    ASSERT_OK(reader.OpenVolume(path.c_str()));
    EXPECT_OK(reader.ReadBlock(8, m_Buffer.data(), &m_Sectors)) << "but this one does";
    EXPECT_EQ(104U, m_Sectors);
}

// The number of clusters is 64 bits wide; of both numbers the low halves are looked at, and they may wrap.
TEST_F(NTFSVolumeReader, TheLastBlockOfALargeVolumeIsCountedInTheLowHalves) {
    const uint64_t first = (uint64_t{1} << 33U) + 8 * BlockClusters;
    const CScriptedBitmap control(LittleEndianBytes(first, 8) + LittleEndianBytes((uint64_t{5} << 32U) + 3, 8) + "\xFF",
                                  17, 0);
    CNTFSVolumeReader reader;
    ASSERT_OK(reader.OpenVolume(Volume(512).c_str()));
    EXPECT_SYSTEM_ERROR(reader.ReadBlock(8, m_Buffer.data(), &m_Sectors), BadVolumeReplyError()) << "another block";
    const CScriptedBitmap low(LittleEndianBytes(0, 8) + LittleEndianBytes((uint64_t{5} << 32U) + 3, 8) + "\xFF", 17, 0);
    CNTFSVolumeReader other;
    ASSERT_OK(other.OpenVolume(Volume(8192).c_str()));
    EXPECT_OK(other.ReadBlock(0, m_Buffer.data(), &m_Sectors));
    EXPECT_EQ(3U, m_Sectors);
}

// Callers rely on it: the stream counts 512 bytes, and the block's size is in the volume's own sectors.
TEST_F(NTFSVolumeReader, LargerSectorsAreCountedAsIfTheyHad512Bytes) {
    CFakeVolumeControl control(2 * BlockClusters, 1);
    control.data.BytesPerSector = 4096;
    control.data.BytesPerCluster = 4096;
    control.Use(BlockClusters);
    const std::string bytes = PatternedBytes(BlockBytes);
    m_Image.Put(BlockBytes, bytes);
    Open(2 * BlockBytes);
    EXPECT_EQ(BlockClusters, m_Reader.GetBlockSize());
    EXPECT_SAME_BYTES(bytes, BlockOf(1));
}

TEST_F(NTFSVolumeReader, OpenTellsWhatTheSystemSays) {
    CFakeVolumeControl control(BlockClusters);
    const std::string path = Volume(BlockBytes);
    EXPECT_REFUSED(m_Reader.OpenVolume(nullptr), "Volume name is NULL");
    EXPECT_SYSTEM_ERROR(m_Reader.OpenVolume(m_Dir.File("none").c_str()), ENOENT);
    EXPECT_TRUE(control.calls.empty());
    control.allowError = EPERM;
    EXPECT_SYSTEM_ERROR(m_Reader.OpenVolume(path.c_str()), EPERM);
    EXPECT_EQ(Calls_t{"allow"}, control.calls);
    control.allowError = 0;
    control.dataError = EIO;
    EXPECT_SYSTEM_ERROR(m_Reader.OpenVolume(path.c_str()), EIO);
    control.dataError = 0;
    EXPECT_REFUSED(m_Reader.ReadData(0, m_Buffer.data(), 1), NothingOpened) << "it was closed";
    EXPECT_EQ(0U, m_Reader.GetBlockSize());
    ASSERT_OK(m_Reader.OpenVolume(path.c_str()));
    EXPECT_REFUSED(m_Reader.OpenVolume(path.c_str()), "Object already have an open volume.");
    EXPECT_REFUSED(m_Reader.OpenVolume(nullptr), "Volume name is NULL");
    EXPECT_EQ(BlockClusters, m_Reader.GetBlockSize()) << "the open volume stays";
}

TEST_F(NTFSVolumeReader, AGeometryThatMakesNoSenseIsTheSystemsBadParameter) {
    const struct {
        const char* name;
        uint32_t bytesPerSector;
        uint32_t bytesPerCluster;
        uint32_t gotBytes;
    } rows[] = {{"a short reply", 512, 512, 95},
                {"no sector size", 0, 512, 96},
                {"no cluster size", 512, 0, 96},
                {"a cluster below a sector", 512, 511, 96}};
    const std::string path = Volume(BlockBytes);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        CFakeVolumeControl control(BlockClusters);
        control.data.BytesPerSector = row.bytesPerSector;
        control.data.BytesPerCluster = row.bytesPerCluster;
        control.dataBytes = row.gotBytes;
        EXPECT_SYSTEM_ERROR(m_Reader.OpenVolume(path.c_str()), BadVolumeReplyError());
        EXPECT_REFUSED(m_Reader.ReadData(0, m_Buffer.data(), 1), NothingOpened);
    }
}

TEST_F(NTFSVolumeReader, NumbersThatPass64BitsAreTheEndOfTheVolume) {
    CFakeVolumeControl control(BlockClusters);
    control.data.NumberSectors.QuadPart = -1;
    control.data.TotalClusters.QuadPart = -1;
    control.data.BytesPerSector = 1;
    control.data.BytesPerCluster = 0xFFFFFFFF;
    Open(BlockBytes);
    EXPECT_EQ(~uint64_t{0}, m_Reader.GetTotalSectors());
    EXPECT_EQ(0xFFFFFFFFU * BlockClusters, m_Reader.GetBlockSize());
    const CScriptedBitmap unused("", 0, EIO);
    EXPECT_END_OF_VOLUME(Read((uint64_t{1} << 51U) + 1)) << "behind the last block";
    EXPECT_END_OF_VOLUME(Write(uint64_t{1} << 40U, "x"));
}

TEST_F(NTFSVolumeReader, ABlockOf4GiBIsRefused) {
    CFakeVolumeControl control(BlockClusters);
    control.data.BytesPerCluster = 1U << 19U;
    control.Use(0);
    Open(BlockBytes);
    EXPECT_REFUSED(Read(0), "Cannot read 4 GiB or more at once");
    EXPECT_EQ(0U, m_Sectors);
}

TEST_F(NTFSVolumeReader, ReadBlockNeedsItsArgumentsAndAVolume) {
    EXPECT_REFUSED(m_Reader.ReadBlock(0, nullptr, &m_Sectors), "Invalid input parameter");
    EXPECT_REFUSED(m_Reader.ReadBlock(0, m_Buffer.data(), nullptr), "Invalid input parameter");
    EXPECT_REFUSED(Read(0), NothingOpened);
    EXPECT_EQ(77U, m_Sectors) << "untouched";
    EXPECT_REFUSED(m_Reader.ReadData(0, m_Buffer.data(), 1), NothingOpened);
    EXPECT_OK(m_Reader.CloseVolume()) << "what isn't open closes well";
}

TEST_F(NTFSVolumeReader, ReadsBytesWhereverTheyLie) {
    CFakeVolumeControl control(BlockClusters);
    const std::string bytes = PatternedBytes(5000);
    m_Image.Put(0, bytes);
    Open(5000);
    EXPECT_OK(m_Reader.ReadData(1234, m_Buffer.data(), 3000));
    EXPECT_SAME_BYTES(bytes.substr(1234, 3000), m_Buffer.substr(0, 3000));
    EXPECT_FAILURE(m_Reader.ReadData(4999, m_Buffer.data(), 2));
    EXPECT_FAILURE(m_Reader.ReadData(~uint64_t{0}, m_Buffer.data(), 2));
}

TEST_F(NTFSVolumeReader, AFailureOfTheMachineReachesTheCallerAndDoesNotClose) {
    CFakeVolumeControl control(BlockClusters);
    control.Use(0);
    Open(BlockBytes);
    {
        CFaultyFiles faulty(Fault_t{FaultOp::Read, 2, EIO});
        faulty.LimitTransfers(FaultOp::Read, 1 << 20);
        EXPECT_SYSTEM_ERROR(Read(0), EIO);
        EXPECT_EQ(0U, m_Sectors);
    }
    EXPECT_OK(Read(0));
}

TEST_F(NTFSVolumeReader, CloseForgetsTheVolume) {
    CFakeVolumeControl control(BlockClusters);
    control.Use(0);
    Open(BlockBytes);
    EXPECT_OK(Read(0));
    EXPECT_OK(m_Reader.CloseVolume());
    EXPECT_EQ(0U, m_Reader.GetBlockSize());
    EXPECT_EQ(0U, m_Reader.GetTotalSectors());
    EXPECT_REFUSED(Read(0), NothingOpened);
    Open(BlockBytes);
    EXPECT_EQ(BlockClusters, m_Reader.GetBlockSize()) << "a block has as many clusters as before";
    EXPECT_OK(Read(0));
    EXPECT_EQ(2U, control.askedLcns.size());
}

TEST_F(NTFSVolumeReader, ACopySharesTheVolumeAndHasACacheOfItsOwn) {
    CFakeVolumeControl control(4 * BlockClusters);
    control.Use(0);
    Open(4 * BlockBytes);
    EXPECT_OK(Read(0));
    CNTFSVolumeReader copy = m_Reader;
    EXPECT_NOTHING_ALLOCATED(copy.ReadBlock(1, m_Buffer.data(), &m_Sectors));
    EXPECT_EQ(1U, control.askedLcns.size()) << "with what was cached";
    EXPECT_OK(m_Reader.CloseVolume());
    EXPECT_REFUSED(copy.ReadBlock(0, m_Buffer.data(), &m_Sectors), NothingOpened);
}

TEST_F(NTFSVolumeReader, TheRecordTellsTheVolume) {
    CFakeVolumeControl control(3 * BlockClusters, 8);
    CAutoMemory<char> metadata;
    EXPECT_REFUSED(m_Reader.GetMetadataInfo(metadata), "Don't have a valid opened NTFS volume");
    Open(512);
    EXPECT_OK(m_Reader.GetMetadataInfo(metadata));
    EXPECT_EQ("VDNTFS10"
              "00000040"
              "0000000000030000"
              "0000000000001000"
              "0000000000010000",
              BytesOf(metadata));
}

TEST_F(NTFSVolumeReader, ATargetIsAskedInItsOrderAndThenLocked) {
    CFakeVolumeControl control(BlockClusters);
    const std::string path = Volume(BlockBytes);
    EXPECT_OK(Create(path, Record(BlockClusters, 512, BlockClusters)));
    EXPECT_EQ((Calls_t{"data", "allow", "lock"}), control.calls);
    EXPECT_REFUSED(Create(path, Record(BlockClusters, 512, BlockClusters)), "Object already have an open volue.");
    EXPECT_REFUSED(m_Reader.OpenVolume(path.c_str()), "Object already have an open volume.");
    CAutoMemory<char> metadata;
    EXPECT_REFUSED(m_Reader.CreateVolume(nullptr, metadata), "Volume name is NULL");
}

TEST_F(NTFSVolumeReader, EachFailureOfATargetClosesIt) {
    const std::string record = Record(BlockClusters, 512, BlockClusters);
    const std::string path = Volume(BlockBytes);
    EXPECT_SYSTEM_ERROR(Create(m_Dir.File("none"), record), ENOENT);
    EXPECT_EQ(Calls_t{"volume"}, m_Dir.Entries()) << "a target isn't made";
    const struct {
        int CFakeVolumeControl::*error;
        Calls_t calls;
    } rows[] = {{&CFakeVolumeControl::dataError, {"data"}},
                {&CFakeVolumeControl::allowError, {"data", "allow"}},
                {&CFakeVolumeControl::lockError, {"data", "allow", "lock"}}};
    for (const auto& row : rows) {
        CFakeVolumeControl control(BlockClusters);
        control.*row.error = EBUSY;
        EXPECT_SYSTEM_ERROR(Create(path, record), EBUSY);
        EXPECT_EQ(row.calls, control.calls);
        EXPECT_REFUSED(Write(0, "x"), "Object is in invalid state. Make sure CreateVolume succeeded");
        EXPECT_EQ(0U, m_Reader.GetBlockSize());
    }
}

TEST_F(NTFSVolumeReader, ADamagedRecordIsRefused) {
    CFakeVolumeControl control(BlockClusters);
    const std::string sound = Record(BlockClusters, 512, BlockClusters);
    const std::string path = Volume(BlockBytes);
    const struct {
        const char* name;
        std::string record;
    } rows[] = {
        {"empty", ""},
        {"shorter than its head", sound.substr(0, 31)},
        {"another kind's", MetadataRecordText("VDVWFT10", BlockClusters, sound.substr(32))},
        {"a byte longer than it says", sound + "0"},
        {"a head alone", MetadataRecordText("VDNTFS10", BlockClusters, "")},
        {"cut in its body", MetadataRecordText("VDNTFS10", BlockClusters, sound.substr(32, 31))},
        {"clusters of no bytes", Record(BlockClusters, 0, BlockClusters)},
    };
    for (const auto& row : rows)
        EXPECT_REFUSED(Create(path, row.record), "Metadata header is corrupted") << row.name;
    EXPECT_TRUE(control.calls.empty()) << "the target wasn't looked at";
    EXPECT_OK(Create(path, MetadataRecordText("VDNTFS10", BlockClusters, sound.substr(32) + "more")))
        << "a longer record is as good as any that says its size";
}

TEST_F(NTFSVolumeReader, ATargetMayBeLargerButNoSectorSmaller) {
    CFakeVolumeControl control(BlockClusters);
    const std::string path = Volume(BlockBytes);
    EXPECT_REFUSED(Create(path, Record(BlockClusters + 1, 512, BlockClusters)),
                   "Volume size 4194304 bytes is less than the original volume size is 4194816 Bytes");
    EXPECT_REFUSED(Create(path, Record(~uint64_t{0}, 512, BlockClusters)),
                   "Volume size 4194304 bytes is less than the original volume size is 18446744073709551615 Bytes");
    EXPECT_OK(Create(path, Record(BlockClusters, 512, BlockClusters)));
    EXPECT_OK(m_Reader.CloseVolume());
    EXPECT_OK(Create(path, Record(BlockClusters - 1, 512, BlockClusters)));
    EXPECT_EQ(BlockClusters - 1, m_Reader.GetTotalSectors()) << "the size is that of the volume which was backed up";
}

TEST_F(NTFSVolumeReader, TheBlockSizeOfTheRecordMustBeTheOneOfTheTargetsSectors) {
    CFakeVolumeControl control(BlockClusters);
    const std::string path = Volume(BlockBytes);
    EXPECT_REFUSED(Create(path, Record(BlockClusters, 1024, BlockClusters)),
                   "Block size 8192 sectors does not match the computed block size 16384 sectors");
    EXPECT_REFUSED(Create(path, Record(BlockClusters, 1025, 1)),
                   "Block size 1 sectors does not match the computed block size 16384 sectors");
    control.data.BytesPerSector = 1024;
    EXPECT_OK(Create(path, Record(BlockClusters, 1024, BlockClusters)));
    EXPECT_OK(m_Reader.CloseVolume());
    for (const uint64_t bytes : {uint64_t{1023}, ~uint64_t{0}})
        EXPECT_SYSTEM_ERROR(Create(path, Record(BlockClusters, bytes, BlockClusters)), BadVolumeReplyError()) << bytes;
}

TEST_F(NTFSVolumeReader, ATargetWithoutASectorSizeIsRefused) {
    CFakeVolumeControl control(BlockClusters);
    control.data.BytesPerSector = 0;
    EXPECT_SYSTEM_ERROR(Create(Volume(BlockBytes), Record(BlockClusters, 512, BlockClusters)), BadVolumeReplyError());
}

TEST_F(NTFSVolumeReader, BlocksGoWhereTheyBegin) {
    CFakeVolumeControl control(4 * BlockClusters);
    const std::string path = Volume(3 * BlockBytes);
    ASSERT_OK(Create(path, Record(4 * BlockClusters, 512, BlockClusters)));
    const std::string whole = PatternedBytes(BlockBytes);
    EXPECT_OK(Write(1, whole));
    EXPECT_OK(Write(2, "short"));
    EXPECT_OK(Write(0, ""));
    EXPECT_REFUSED(Write(0, whole + "x"), "Data size is greater than grain size");
    EXPECT_OK(m_Reader.CloseVolume());
    EXPECT_SAME_BYTES(std::string(BlockBytes, '\0') + whole + "short" + std::string(BlockBytes - 5, '\0'),
                      m_Dir.Read("volume"));
}

TEST_F(NTFSVolumeReader, WhatWasCreatedCanBeRead) {
    CFakeVolumeControl control(BlockClusters);
    control.Use(7);
    ASSERT_OK(Create(Volume(BlockBytes), Record(BlockClusters, 512, BlockClusters)));
    const std::string whole = PatternedBytes(BlockBytes);
    EXPECT_OK(Write(0, whole));
    EXPECT_SAME_BYTES(whole, BlockOf(0));
}

// Sectors over bytes: of 512 blocks of single sectors, one is left.
TEST_F(NTFSVolumeReader, TheBlocksOfATargetAreCountedFromSectorsOverBytes) {
    CFakeVolumeControl control(600 * BlockClusters);
    ASSERT_OK(Create(Volume(600 * BlockBytes), Record(512 * BlockClusters, 512, BlockClusters)));
    EXPECT_NOTHING_ALLOCATED(Read(0));
    EXPECT_NOTHING_ALLOCATED(Read(599)) << "of what is cached the number of blocks isn't asked";
    EXPECT_OK(m_Reader.CloseVolume());
    ASSERT_OK(Create(m_Dir.File("volume"), Record(512 * BlockClusters, 512, BlockClusters)));
    EXPECT_END_OF_VOLUME(Read(2));
    EXPECT_NOTHING_ALLOCATED(Read(1));
}

TEST_F(NTFSVolumeReader, TheDumpIsOneRecordForTheWholeVolume) {
    CZuFile file;
    ASSERT_OK(file.Open(m_Dir.File("dump").c_str(), OpenForWriting | OpenCreating | OpenAsBinary, 384));
    EXPECT_OK(m_Reader.DumpSparseInfo(file, std::string(1030, 'n').c_str(), 0x12345));
    SparseDumpText_t expected;
    expected.name = std::string(1023, 'n');
    expected.endLba = ~uint64_t{0};
    expected.blockSize = 0x12345;
    expected.grainSize = 0x12345;
    EXPECT_SAME_BYTES(expected.Bytes(), m_Dir.Read("dump"));
}

}  // namespace
