#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VhdBuilder.h"

namespace {

constexpr char NoOpenDisk[] = "Object is in invalid state. Make sure OpenDisk succeeded";
constexpr uint64_t Gibibyte = uint64_t{1} << 30U;

CVhdBuilder Fixed() {
    return CVhdBuilder::Fixed(24).Data(0, PatternedBytes(24 * 512));
}

CVhdBuilder Dynamic() {
    return CVhdBuilder::Dynamic(40).Block(3, 'd').Block(0, 'a');
}

CVhdBuilder Differencing() {
    return CVhdBuilder::Differencing(40).Block(1, 'b').Locator(0, "W2ru", PatternedBytes(40));
}

// What a structure of the machine's numbers looks like in a file that was written on this machine.
template <typename Structure> std::string MachineBytes(const Structure& structure) {
    return {reinterpret_cast<const char*>(&structure), sizeof(structure)};
}

class VHDFileReaderOpen : public testing::Test {
protected:
    CZuError Open(const CVhdBuilder& file, DiskType_t type) {
        return m_Reader.OpenDisk(file.WriteTo(m_Dir).c_str(), type);
    }

    void ExpectClosed(CVHDFileReader& reader) {
        char sector[512];
        unsigned int got = 77;
        EXPECT_REFUSED(reader.ReadSector(0, sector, 512), NoOpenDisk);
        EXPECT_REFUSED(reader.ReadBlock(0, sector, 1, got), NoOpenDisk);
        EXPECT_EQ(0U, got);
        EXPECT_EQ(0U, reader.GetBlockSize());
        EXPECT_EQ(1U, reader.GetTotalSectors()) << "one more than the last sector, which is 0";
        EXPECT_EQ(0U, reader.NextHeldBlock(0)) << "no table";
        VHD_FOOTER_t footer;
        VHD_DYNAMIC_HEADER_t header;
        reader.GetFooterInformation(footer);
        reader.GetDynamicHeaderInformation(header);
        EXPECT_EQ(std::string(512, '\0'), MachineBytes(footer));
        EXPECT_EQ(std::string(1024, '\0'), MachineBytes(header));
    }

    CTempDir m_Dir;
    CVHDFileReader m_Reader;
};

TEST_F(VHDFileReaderOpen, ANewObjectIsClosed) {
    ExpectClosed(m_Reader);
}

TEST_F(VHDFileReaderOpen, TakesEachTypeByItsNumber) {
    EXPECT_OK(Open(Fixed(), DiskType_t{12}));
    EXPECT_EQ(24U, m_Reader.GetTotalSectors());
    EXPECT_EQ(0U, m_Reader.GetBlockSize()) << "a fixed disk has none of its own";
    EXPECT_OK(Open(Dynamic(), DiskType_t{13}));
    EXPECT_EQ(40U, m_Reader.GetTotalSectors());
    EXPECT_EQ(9U, m_Reader.GetBlockSize()) << "the bitmap counts";
    EXPECT_OK(Open(Differencing(), DiskType_t{14}));
    EXPECT_EQ(9U, m_Reader.GetBlockSize());
}

TEST_F(VHDFileReaderOpen, RefusesNoNameBeforeItLooksAtTheType) {
    EXPECT_REFUSED(m_Reader.OpenDisk(nullptr, DiskType_VhdFixed), "Disk name is NULL");
    EXPECT_REFUSED(m_Reader.OpenDisk(nullptr, DiskType_t{99}), "Disk name is NULL");
}

TEST_F(VHDFileReaderOpen, RefusesEveryOtherTypeBeforeItLooksAtTheFile) {
    for (int type = -1; type <= 20; ++type) {
        if (type >= 12 && type <= 14)
            continue;
        EXPECT_REFUSED(m_Reader.OpenDisk(m_Dir.File("none").c_str(), DiskType_t(type)),
                       ("Disk of type " + std::to_string(type) + " is not supported by this class").c_str());
    }
}

TEST_F(VHDFileReaderOpen, PassesOnWhatTheSystemSaysToTheName) {
    EXPECT_SYSTEM_ERROR(m_Reader.OpenDisk(m_Dir.File("none").c_str(), DiskType_VhdFixed), ENOENT);
    ExpectClosed(m_Reader);
}

TEST_F(VHDFileReaderOpen, RefusesAFooterOfAnotherType) {
    const struct {
        CVhdBuilder file;
        uint32_t footerType;
    } files[] = {{Fixed(), 2}, {Dynamic(), 3}, {Differencing(), 4}, {Fixed().Footer(60, BigEndianBytes(0, 4)), 0}};
    for (const auto& row : files) {
        for (const uint32_t wanted : {2U, 3U, 4U}) {
            const std::string path = row.file.WriteTo(m_Dir);
            const CZuError error = m_Reader.OpenDisk(path.c_str(), DiskType_t(wanted + 10));
            if (wanted == row.footerType) {
                EXPECT_OK(error);
                continue;
            }
            EXPECT_REFUSED(error, ("Disk Type does not match for " + path + " Disk Type " +
                                   std::to_string(row.footerType) + " != Input " + std::to_string(wanted))
                                      .c_str());
            ExpectClosed(m_Reader);
        }
    }
}

TEST_F(VHDFileReaderOpen, RefusesAFooterThatItDoesNotKnow) {
    const struct {
        const char* name;
        CVhdBuilder file;
        const char* text;
    } rows[] = {
        {"another cookie", Fixed().Footer(0, "conectiy"), "Disk footer information is corrupted. Unknown Cookie"},
        {"a cookie of capitals", Fixed().Footer(0, "CONECTIX"), "Disk footer information is corrupted. Unknown Cookie"},
        {"version 2.0", Fixed().Footer(12, BigEndianBytes(0x20000, 4)), "Unknown format version 131072"},
        {"version 1.1", Fixed().Footer(12, BigEndianBytes(0x10001, 4)), "Unknown format version 65537"},
        {"a version in the other byte order", Fixed().Footer(12, LittleEndianBytes(0x10000, 4)),
         "Unknown format version 256"},
        {"cookie before version", Fixed().Footer(0, "c0nectix").Footer(12, BigEndianBytes(0, 4)),
         "Disk footer information is corrupted. Unknown Cookie"},
        {"version before type", Fixed().Footer(12, BigEndianBytes(0, 4)).Footer(60, BigEndianBytes(9, 4)),
         "Unknown format version 0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_REFUSED(Open(row.file, DiskType_VhdFixed), row.text);
        ExpectClosed(m_Reader);
    }
}

TEST_F(VHDFileReaderOpen, LooksAtTheEndFooterAloneAndNeverAtTheCopy) {
    EXPECT_OK(Open(Dynamic().PutAt(0, PatternedBytes(512)), DiskType_VhdDynamic));
    EXPECT_REFUSED(Open(Dynamic().PutEndFooter(0, "damaged!"), DiskType_VhdDynamic),
                   "Disk footer information is corrupted. Unknown Cookie");
}

// Older programs wrote 511 bytes: then the last 512 begin one byte too early.
TEST_F(VHDFileReaderOpen, AFooterOf511BytesIsUnknown) {
    EXPECT_REFUSED(Open(Fixed().CutTo(24 * 512 + 511), DiskType_VhdFixed),
                   "Disk footer information is corrupted. Unknown Cookie");
}

TEST_F(VHDFileReaderOpen, AFileWithoutRoomForAFooterFailsInTheSeek) {
    for (const uint64_t size : {0U, 1U, 511U}) {
        EXPECT_SYSTEM_ERROR(Open(Fixed().CutTo(size), DiskType_VhdFixed), EINVAL);
        ExpectClosed(m_Reader);
    }
}

TEST_F(VHDFileReaderOpen, RefusesAHeaderThatItDoesNotKnow) {
    constexpr char corrupted[] = "Dynamic header information is corrupted. Unknown Cookie";
    const struct {
        const char* name;
        CVhdBuilder file;
        const char* text;
    } rows[] = {
        {"another cookie", Dynamic().Header(0, "cxsparsf"), corrupted},
        {"an offset that points elsewhere", Dynamic().Footer(16, BigEndianBytes(513, 8)), corrupted},
        {"version 2.0", Dynamic().Header(24, BigEndianBytes(0x20000, 4)), "Unknown format version 131072"},
        {"cookie before version", Dynamic().Header(0, "c").Header(1, "-").Header(24, BigEndianBytes(7, 4)), corrupted},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_REFUSED(Open(row.file, DiskType_VhdDynamic), row.text);
        ExpectClosed(m_Reader);
    }
    EXPECT_REFUSED(Open(Differencing().Header(0, "x"), DiskType_VhdDifferencing), corrupted);
}

TEST_F(VHDFileReaderOpen, TheFooterSaysWhereTheHeaderLies) {
    const CVhdBuilder moved = Dynamic()
                                  .Footer(16, BigEndianBytes(1'000'001, 8))
                                  .PutAt(512, "no header")
                                  .PutAt(1'000'001, Dynamic().HeaderBytes());
    // What lies behind the end footer becomes the end, so that the footer goes there too.
    const CVhdBuilder whole = CVhdBuilder(moved).PutAt(1'002'000, moved.FooterBytes());
    ASSERT_OK(Open(whole, DiskType_VhdDynamic));
    EXPECT_EQ(9U, m_Reader.GetBlockSize());
}

TEST_F(VHDFileReaderOpen, AFixedDiskHasNoHeaderToRead) {
    EXPECT_OK(Open(Fixed().Footer(16, BigEndianBytes(0, 8)), DiskType_VhdFixed));
    VHD_DYNAMIC_HEADER_t header;
    m_Reader.GetDynamicHeaderInformation(header);
    EXPECT_EQ(std::string(1024, '\0'), MachineBytes(header));
}

TEST_F(VHDFileReaderOpen, NoChecksumIsProved) {
    EXPECT_OK(Open(Dynamic().PutEndFooter(64, "nope").PutAt(512 + 36, "nope"), DiskType_VhdDynamic));
    EXPECT_OK(Open(Fixed().PutEndFooter(64, "nope"), DiskType_VhdFixed));
}

TEST_F(VHDFileReaderOpen, TheSizeOfTheFileAndThatOfTheDiskNeedNotFit) {
    EXPECT_OK(Open(Fixed().CurrentSize(1000 * 512), DiskType_VhdFixed));
    EXPECT_EQ(1000U, m_Reader.GetTotalSectors());
    EXPECT_OK(Open(Fixed().CurrentSize(3 * 512 + 511), DiskType_VhdFixed));
    EXPECT_EQ(3U, m_Reader.GetTotalSectors()) << "a begun sector doesn't count";
    EXPECT_OK(Open(Dynamic().Entries(2).CurrentSize(4000 * 512), DiskType_VhdDynamic))
        << "a table shorter than the disk";
    EXPECT_EQ(4000U, m_Reader.GetTotalSectors());
}

TEST_F(VHDFileReaderOpen, ADiskOfNoSectorsOpens) {
    for (const uint64_t size : {0U, 511U}) {
        EXPECT_OK(Open(Fixed().CurrentSize(size), DiskType_VhdFixed));
        EXPECT_EQ(0U, m_Reader.GetTotalSectors());
        EXPECT_OK(Open(Dynamic().CurrentSize(size), DiskType_VhdDynamic));
        EXPECT_EQ(0U, m_Reader.GetTotalSectors());
    }
}

// The published form rounds a bitmap up to whole sectors; callers rely on the size rounded down.
TEST_F(VHDFileReaderOpen, ABlockIsItsDataAndABitmapRoundedDown) {
    const struct {
        uint32_t blockBytes;
        uint64_t sectors;
    } rows[] = {
        {512, 1 + 1},
        {4096, 1 + 8},
        {1000, 1 + 1},
        {512 * 1024, 1 + 1024},
        {2 * 1024 * 1024, 1 + 4096},
        {3 * 1024 * 1024, 1 + 6144},
        {4 * 1024 * 1024, 2 + 8192},
        {16 * 1024 * 1024, 8 + 32768},
        {0x80000000, 1024 + 4194304},
    };
    for (const auto& row : rows) {
        ASSERT_OK(Open(CVhdBuilder::Dynamic(8).Entries(1).BlockSize(row.blockBytes), DiskType_VhdDynamic));
        EXPECT_EQ(row.sectors, m_Reader.GetBlockSize()) << row.blockBytes;
    }
}

TEST_F(VHDFileReaderOpen, LargeDisksAreCheapToOpen) {
    const CVhdBuilder large = CVhdBuilder::Dynamic(20 * Gibibyte / 512).BlockSize(2 << 20).Block(10239, 'z');
    ASSERT_OK(Open(large, DiskType_VhdDynamic));
    EXPECT_EQ(20 * Gibibyte / 512, m_Reader.GetTotalSectors());
    char sector[512];
    ASSERT_OK(m_Reader.ReadSector(20 * Gibibyte / 512 - 1, sector, 512));
    EXPECT_EQ('z', sector[511]);
    ASSERT_OK(Open(CVhdBuilder::Dynamic(2048 * Gibibyte / 512).BlockSize(2 << 20), DiskType_VhdDynamic));
    EXPECT_EQ(2048 * Gibibyte / 512, m_Reader.GetTotalSectors());
}

TEST_F(VHDFileReaderOpen, TheNumbersOfTheFooterComeInTheMachinesOrderAndTheRestAsItLies) {
    const std::string bytes = PatternedBytes(512);
    std::string expected = bytes;
    for (const auto& [offset, width] : {std::pair{8U, 4U},
                                        {12U, 4U},
                                        {16U, 8U},
                                        {24U, 4U},
                                        {32U, 4U},
                                        {36U, 4U},
                                        {40U, 8U},
                                        {48U, 8U},
                                        {56U, 2U},
                                        {60U, 4U},
                                        {64U, 4U}})
        PutBytes(expected, offset, std::string(bytes.rbegin() + 512 - offset - width, bytes.rbegin() + 512 - offset));
    VhdFileFooter_t file;
    std::memcpy(&file, bytes.data(), sizeof(file));
    VHD_FOOTER_t host;
    ConvertFooterFromNetToHost(file, host);
    EXPECT_SAME_BYTES(expected, MachineBytes(host));
}

TEST_F(VHDFileReaderOpen, TheNumbersOfTheHeaderComeInTheMachinesOrderAndTheRestAsItLies) {
    const std::string bytes = PatternedBytes(1024);
    std::string expected = bytes;
    const auto reverse = [&](size_t offset, size_t width) {
        PutBytes(expected, offset, std::string(bytes.rbegin() + 1024 - offset - width, bytes.rbegin() + 1024 - offset));
    };
    for (const size_t offset : {8U, 16U})
        reverse(offset, 8);
    for (const size_t offset : {24U, 28U, 32U, 36U, 56U})
        reverse(offset, 4);
    for (size_t locator = 576; locator < 768; locator += 24) {
        for (const size_t field : {0U, 4U, 8U})
            reverse(locator + field, 4);
        reverse(locator + 16, 8);
    }
    VhdFileDynamicHeader_t file;
    std::memcpy(&file, bytes.data(), sizeof(file));
    VHD_DYNAMIC_HEADER_t host;
    ConvertDynHdrFromNetToHost(file, host);
    EXPECT_SAME_BYTES(expected, MachineBytes(host));
}

TEST_F(VHDFileReaderOpen, TellsFooterAndHeader) {
    ASSERT_OK(Open(Differencing(), DiskType_VhdDifferencing));
    VHD_FOOTER_t footer;
    VHD_DYNAMIC_HEADER_t header;
    m_Reader.GetFooterInformation(footer);
    m_Reader.GetDynamicHeaderInformation(header);
    EXPECT_EQ("conectix", std::string(footer.cookie, 8));
    EXPECT_EQ(512U, footer.dataOffset);
    EXPECT_EQ(0x2D3A4B5CU, footer.timeStamp);
    EXPECT_EQ("tstb", std::string(footer.creatorApplication, 4));
    EXPECT_EQ(40U * 512, footer.currentSize);
    EXPECT_EQ(0x0102U, footer.cylinders);
    EXPECT_EQ(4U, footer.heads);
    EXPECT_EQ(17U, footer.sectorsPerTrack);
    EXPECT_EQ(4U, footer.diskType);
    EXPECT_EQ("cxsparse", std::string(header.cookie, 8));
    EXPECT_EQ(1536U, header.tableOffset);
    EXPECT_EQ(5U, header.maxTableEntries);
    EXPECT_EQ(4096U, header.blockSize);
    EXPECT_EQ(0x57327275U, header.parentLocators[0].platformCode);
    EXPECT_EQ(512U, header.parentLocators[0].platformDataSpace);
    EXPECT_EQ(40U, header.parentLocators[0].platformDataLength);
    EXPECT_EQ(2048U, header.parentLocators[0].platformDataOffset);
    EXPECT_EQ(0U, header.parentLocators[1].platformDataLength);
}

TEST_F(VHDFileReaderOpen, AfterClosingNothingIsLeft) {
    ASSERT_OK(Open(Differencing(), DiskType_VhdDifferencing));
    {
        const CFaultyFiles counting;
        EXPECT_OK(m_Reader.CloseDisk());
        EXPECT_EQ(1U, counting.Calls(FaultOp::Close));
    }
    ExpectClosed(m_Reader);
    EXPECT_OK(m_Reader.CloseDisk()) << "what isn't open closes well";
}

TEST_F(VHDFileReaderOpen, CloseTellsWhatTheSystemSaysAndStillCloses) {
    ASSERT_OK(Open(Dynamic(), DiskType_VhdDynamic));
    const CFaultyFiles faulty(Fault_t{FaultOp::Close, 0, EIO});
    EXPECT_SYSTEM_ERROR(m_Reader.CloseDisk(), EIO);
    ExpectClosed(m_Reader);
}

TEST_F(VHDFileReaderOpen, ASecondOpenTakesThePlaceOfTheFirst) {
    ASSERT_OK(Open(Dynamic(), DiskType_VhdDynamic));
    const std::string path = Fixed().WriteTo(m_Dir, "fixed");
    {
        const CFaultyFiles counting;
        ASSERT_OK(m_Reader.OpenDisk(path.c_str(), DiskType_VhdFixed));
        EXPECT_EQ(1U, counting.Calls(FaultOp::Close));
    }
    EXPECT_EQ(24U, m_Reader.GetTotalSectors());
    EXPECT_EQ(0U, m_Reader.GetBlockSize());
    VHD_DYNAMIC_HEADER_t header;
    m_Reader.GetDynamicHeaderInformation(header);
    EXPECT_EQ(0U, header.maxTableEntries);
}

TEST_F(VHDFileReaderOpen, ACopyHasItsOwnTablesAndSharesTheFile) {
    ASSERT_OK(Open(Dynamic(), DiskType_VhdDynamic));
    CVHDFileReader copy = m_Reader;
    char sector[512];
    ASSERT_OK(copy.ReadSector(24, sector, 512));
    EXPECT_EQ('d', sector[0]);
    ASSERT_OK(m_Reader.ReadSector(7, sector, 512));
    EXPECT_EQ('a', sector[511]);
    EXPECT_OK(m_Reader.CloseDisk());
    EXPECT_EQ(9U, copy.GetBlockSize());
}

TEST_F(VHDFileReaderOpen, EveryFailureReachesTheCallerAndLeavesTheObjectClosed) {
    const struct {
        std::string path;
        DiskType_t type;
        unsigned int reads;
    } disks[] = {
        {Fixed().WriteTo(m_Dir, "fixed"), DiskType_VhdFixed, 1},
        {Dynamic().WriteTo(m_Dir, "dynamic"), DiskType_VhdDynamic, 3},
        {Differencing().WriteTo(m_Dir, "differencing"), DiskType_VhdDifferencing, 3},
    };
    for (const auto& disk : disks) {
        SCOPED_TRACE(disk.type);
        for (const FaultOp op : {FaultOp::Open, FaultOp::Seek, FaultOp::Read}) {
            const unsigned int failures = WalkFailures(op, [&] {
                CVHDFileReader reader;
                CZuError error = reader.OpenDisk(disk.path.c_str(), disk.type);
                if (error.IsErrorSet())
                    ExpectClosed(reader);
                return error;
            });
            EXPECT_EQ(op == FaultOp::Open ? 1U : disk.reads, failures) << "footer, header, table";
        }
    }
}

// The first error is the one to report.
TEST_F(VHDFileReaderOpen, AFailedOpenClosesTheFileWhateverTheSystemSaysToThat) {
    const CFaultyFiles faulty(Fault_t{FaultOp::Close, 0, EIO});
    EXPECT_REFUSED(Open(Dynamic().Header(0, "x"), DiskType_VhdDynamic),
                   "Dynamic header information is corrupted. Unknown Cookie");
    EXPECT_TRUE(faulty.Fired());
}

}  // namespace
