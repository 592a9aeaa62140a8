#include "VirtualServer/VMInfo/VmdkVcb4ExtentReader.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FakeVMInfo.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/SparseDumpText.h"
#include "tests/support/TempDir.h"

#define EXPECT_END_OF_MANAGED(expression) EXPECT_CONDITION(expression, 3, 3001, 1)
#define EXPECT_NOT_ALLOCATED(expression) EXPECT_CONDITION(expression, 3, 3001, 2)
#define EXPECT_NOT_CHANGED(expression) EXPECT_CONDITION(expression, 3, 3001, 3)

namespace {

constexpr uint64_t Sector = 512;
using Transfers_t = std::vector<CFakeVMInfo::Transfer_t>;

class VmdkVcb4ExtentReader : public testing::Test {
protected:
    explicit VmdkVcb4ExtentReader(uint64_t sectors = 100) : m_Server(PatternedBytes(sectors * Sector)) {
        m_Reader.SetVMInfo(&m_Server, "first", "second");
        m_Reader.SetBlockSize(8);
    }

    // Only these stretches, in sectors, for the change id; the rest of the disk in the same answer.
    void OnlyIn(const std::string& changeId, const std::vector<VmdkFileStretch_t>& sectors) {
        std::vector<VmdkFileStretch_t> stretches;
        for (const VmdkFileStretch_t& stretch : sectors)
            stretches.push_back({stretch.start * Sector, stretch.length * Sector});
        m_Server.Answer(changeId, 0, m_Server.reportedSectors * Sector, stretches);
    }

    CZuError Open() { return m_Reader.OpenDisk("disk", 0, VwExtentTypeSparse); }
    CZuError ReadBlock(uint64_t number) {
        m_Block.assign(size_t{m_Reader.GetBlockSize()} * Sector, '?');
        return m_Reader.ReadBlock(number, m_Block.data());
    }
    std::string OnDisk(uint64_t firstSector, uint64_t sectors) const {
        return m_Server.bytes.substr(firstSector * Sector, sectors * Sector);
    }
    CZuError Write(uint64_t number, unsigned int sectors, const std::string& bytes) {
        CAutoMemory<char> data = BufferOf(bytes);
        return m_Reader.WriteBlock(number, sectors, data);
    }

    CFakeVMInfo m_Server;
    CVmdkVcb4ExtentReader m_Reader;
    std::string m_Block;
    std::string m_Sector = std::string(Sector, '?');
};

TEST_F(VmdkVcb4ExtentReader, OpeningHandsBothNamesAndTheDisksNameOn) {
    ASSERT_OK(Open());
    EXPECT_EQ("SetCurrVmdkFile(first|second|disk)", m_Server.calls.at(0));
    EXPECT_EQ("GetCurrVmdkFileInfo", m_Server.calls.at(1));
}

TEST_F(VmdkVcb4ExtentReader, NamesThatAreNullAreEmpty) {
    m_Reader.SetVMInfo(&m_Server, nullptr, nullptr);
    ASSERT_OK(Open());
    EXPECT_EQ("SetCurrVmdkFile(||disk)", m_Server.calls.at(0));
}

TEST_F(VmdkVcb4ExtentReader, EachFailureOfTheServerHasItsText) {
    const struct {
        const char* operation;
        const char* text;
    } rows[] = {
        {"SetCurrVmdkFile", "Failed to SetCurrVmdkFile."},
        {"GetCurrVmdkFileInfo", "Failed to GetCurrVmdkFileInfo."},
        {"GetCurrVmdkFileExtents", "Failed to get current VMDK file extents"},
    };
    for (const auto& row : rows) {
        m_Server.failing = row.operation;
        EXPECT_REFUSED(Open(), row.text);
        EXPECT_END_OF_MANAGED(ReadBlock(0)) << "what didn't open has no blocks";
    }
}

TEST_F(VmdkVcb4ExtentReader, WithoutAServerNothingOpens) {
    CVmdkVcb4ExtentReader reader;
    EXPECT_REFUSED(reader.OpenDisk("disk", 0, VwExtentTypeSparse), "Failed to SetCurrVmdkFile.");
    EXPECT_REFUSED(m_Reader.OpenDisk(nullptr, 0, VwExtentTypeSparse), "Failed to SetCurrVmdkFile.");
}

TEST_F(VmdkVcb4ExtentReader, TwoBlockSizesStandForOthers) {
    const struct {
        unsigned int given;
        unsigned int adjusted;
    } rows[] = {{0, 512}, {0xFFFFFFFF, 128}, {1, 1}, {128, 128}, {4096, 4096}};
    for (const auto& row : rows) {
        m_Reader.SetBlockSize(row.given);
        EXPECT_EQ(row.given, m_Reader.GetBlockSize());
        ASSERT_OK(Open());
        EXPECT_EQ(row.adjusted, m_Reader.GetBlockSize());
    }
}

TEST_F(VmdkVcb4ExtentReader, TheDiskHasOneSectorMoreThanTheServerReports) {
    ASSERT_OK(Open());
    EXPECT_EQ(101U, m_Reader.GetTotalSectors());
    EXPECT_OK(m_Reader.ReadSector(99, m_Sector.data(), Sector));
    EXPECT_END_OF_MANAGED(m_Reader.ReadSector(100, m_Sector.data(), Sector));
}

TEST_F(VmdkVcb4ExtentReader, AFirstAnswerOfNoLengthMakesTheWholeDiskAllocated) {
    m_Server.Answer("", 0, 0, {});
    ASSERT_OK(Open());
    EXPECT_EQ(std::vector<uint64_t>{0}, m_Server.askedPositions[""]);
    for (uint64_t number = 0; number < 13; ++number)
        EXPECT_OK(ReadBlock(number)) << number;
}

TEST_F(VmdkVcb4ExtentReader, ALaterAnswerOfNoLengthIsRefused) {
    m_Server.Answer("", 0, 10 * Sector, {});
    m_Server.Answer("", 10 * Sector, 0, {});
    EXPECT_REFUSED(Open(), "Received empty VMDK file extents");
}

TEST_F(VmdkVcb4ExtentReader, AnAnswerForAnotherPlaceIsRefused) {
    m_Server.Answer("", 0, 10 * Sector, {});
    m_Server.Answer("", 11 * Sector, 10 * Sector, {});
    EXPECT_REFUSED(Open(), "Received VMDK file extents for incorrect position");
}

TEST_F(VmdkVcb4ExtentReader, EachAnswerIsAskedForWhereTheOneBeforeEnds) {
    m_Server.Answer("", 0, 1000, {{0, 512}});
    m_Server.Answer("", 1000, 40 * Sector, {{30 * Sector, Sector}});
    m_Server.Answer("", 1000 + 40 * Sector, 1000 * Sector, {});
    ASSERT_OK(Open());
    EXPECT_EQ((std::vector<uint64_t>{0, 1000, 1000 + 40 * Sector}), m_Server.askedPositions[""]);
    EXPECT_OK(ReadBlock(0));
    EXPECT_NOT_ALLOCATED(ReadBlock(1));
    EXPECT_OK(ReadBlock(3));
}

TEST_F(VmdkVcb4ExtentReader, AnAnswerThatLeadsPastAllNumbersIsTheLast) {
    m_Server.Answer("", 0, Sector, {});
    m_Server.Answer("", Sector, ~uint64_t{0}, {{~uint64_t{0} - 5, 100}, {2 * Sector, ~uint64_t{0}}});
    ASSERT_OK(Open());
    EXPECT_EQ(2U, m_Server.askedPositions[""].size());
    EXPECT_NOT_ALLOCATED(m_Reader.ReadSector(1, m_Sector.data(), Sector));
}

TEST_F(VmdkVcb4ExtentReader, OnlyAChangeIdAsksForChanges) {
    ASSERT_OK(Open());
    EXPECT_EQ(1U, m_Server.askedPositions.size());
    m_Reader.SetChangeId("since then");
    ASSERT_OK(Open());
    EXPECT_EQ(std::vector<uint64_t>{0}, m_Server.askedPositions["since then"]);
    m_Reader.SetChangeId(nullptr);
    ASSERT_OK(Open());
    EXPECT_EQ(1U, m_Server.askedPositions["since then"].size());
}

TEST_F(VmdkVcb4ExtentReader, TheSectorBehindAStretchIsInTheTableAndTheNextIsNot) {
    OnlyIn("", {{20, 4}});
    ASSERT_OK(Open());
    EXPECT_NOT_ALLOCATED(m_Reader.ReadSector(19, m_Sector.data(), Sector));
    for (uint64_t sector = 20; sector <= 24; ++sector) {
        ASSERT_OK(m_Reader.ReadSector(sector, m_Sector.data(), Sector));
        EXPECT_SAME_BYTES(OnDisk(sector, 1), m_Sector);
    }
    EXPECT_NOT_ALLOCATED(m_Reader.ReadSector(25, m_Sector.data(), Sector));
}

TEST_F(VmdkVcb4ExtentReader, AStretchThatEndsInASectorKeepsThatSector) {
    m_Server.Answer("", 0, 100 * Sector, {{20 * Sector + 1, Sector}});
    ASSERT_OK(Open());
    EXPECT_OK(m_Reader.ReadSector(20, m_Sector.data(), Sector));
    EXPECT_OK(m_Reader.ReadSector(21, m_Sector.data(), Sector));
    EXPECT_NOT_ALLOCATED(m_Reader.ReadSector(22, m_Sector.data(), Sector));
}

TEST_F(VmdkVcb4ExtentReader, ASectorIsReadNoFurtherThanTheBufferGoes) {
    ASSERT_OK(Open());
    std::string buffer(600, '?');
    ASSERT_OK(m_Reader.ReadSector(3, buffer.data(), 100));
    EXPECT_SAME_BYTES(OnDisk(3, 1).substr(0, 100) + std::string(500, '?'), buffer);
    ASSERT_OK(m_Reader.ReadSector(3, buffer.data(), 600));
    EXPECT_SAME_BYTES(OnDisk(3, 1) + std::string(88, '?'), buffer);
    EXPECT_EQ((Transfers_t{{3, 1}, {3, 1}}), m_Server.reads);
}

TEST_F(VmdkVcb4ExtentReader, ReadsWithoutABufferAreRefusedFirst) {
    EXPECT_REFUSED(m_Reader.ReadSector(5000, nullptr, Sector), "Data pointer is null");
    EXPECT_REFUSED(m_Reader.ReadBlock(5000, nullptr), "Data pointer is null");
}

TEST_F(VmdkVcb4ExtentReader, AReadThatTheServerFailsHasItsText) {
    ASSERT_OK(Open());
    m_Server.failing = "ReadCurrVmdkFile";
    EXPECT_REFUSED(m_Reader.ReadSector(0, m_Sector.data(), Sector), "Failed to ReadCurrVmdkFile.");
    EXPECT_REFUSED(m_Reader.ReadSector(0, m_Sector.data(), 10), "Failed to ReadCurrVmdkFile.");
    EXPECT_REFUSED(ReadBlock(0), "Failed to ReadCurrVmdkFile.");
}

TEST_F(VmdkVcb4ExtentReader, ABlockPartlyAllocatedIsReadWholeInOneCall) {
    OnlyIn("", {{15, 0}, {39, 3}, {64, 1}});
    ASSERT_OK(Open());
    ASSERT_OK(ReadBlock(1));
    EXPECT_SAME_BYTES(OnDisk(8, 8), m_Block);
    ASSERT_OK(ReadBlock(4));
    EXPECT_NOT_ALLOCATED(ReadBlock(0));
    EXPECT_NOT_ALLOCATED(ReadBlock(2));
    EXPECT_OK(ReadBlock(5)) << "the stretch goes on in it";
    EXPECT_NOT_ALLOCATED(ReadBlock(6));
    EXPECT_NOT_ALLOCATED(ReadBlock(7)) << "the next one begins a stretch";
    EXPECT_OK(ReadBlock(8));
    EXPECT_EQ((Transfers_t{{8, 8}, {32, 8}, {40, 8}, {64, 8}}), m_Server.reads);
}

TEST_F(VmdkVcb4ExtentReader, TheLastBlockReadsWhatRemainsAndZerosBehindIt) {
    ASSERT_OK(Open());
    ASSERT_OK(ReadBlock(12));
    EXPECT_SAME_BYTES(OnDisk(96, 4) + std::string(4 * Sector, '\0'), m_Block);
    EXPECT_EQ((Transfers_t{{96, 4}}), m_Server.reads);
    EXPECT_END_OF_MANAGED(ReadBlock(13));
    EXPECT_END_OF_MANAGED(ReadBlock(~uint64_t{0}));
    EXPECT_END_OF_MANAGED(ReadBlock((~uint64_t{0} >> 3) + 1)) << "which wraps to the first sector";
}

TEST_F(VmdkVcb4ExtentReader, ABlockThatIsAllocatedAndHasNotChangedSaysSo) {
    OnlyIn("", {{0, 23}});
    OnlyIn("id", {{9, 1}, {80, 1}});
    m_Reader.SetChangeId("id");
    ASSERT_OK(Open());
    EXPECT_NOT_CHANGED(ReadBlock(0));
    EXPECT_OK(ReadBlock(1));
    EXPECT_NOT_CHANGED(ReadBlock(2));
    EXPECT_NOT_ALLOCATED(ReadBlock(10)) << "changed, but free again";
    EXPECT_EQ((Transfers_t{{8, 8}}), m_Server.reads);
}

TEST_F(VmdkVcb4ExtentReader, WithoutAChangeIdEveryAllocatedBlockIsRead) {
    ASSERT_OK(Open());
    for (uint64_t number = 0; number < 13; ++number)
        EXPECT_OK(ReadBlock(number));
}

TEST_F(VmdkVcb4ExtentReader, BlocksAreFoundInAnyOrder) {
    OnlyIn("", {{0, 1}, {40, 1}, {80, 1}});
    ASSERT_OK(Open());
    for (const uint64_t number : {10U, 0U, 5U, 10U, 5U, 0U})
        EXPECT_OK(ReadBlock(number)) << number;
    EXPECT_NOT_ALLOCATED(ReadBlock(1));
}

TEST_F(VmdkVcb4ExtentReader, TheNextHeldBlockIsTheNextThatIsRead) {
    OnlyIn("", {{30, 3}, {75, 1}});
    ASSERT_OK(Open());
    const uint64_t expected[] = {3, 3, 3, 3, 4, 9, 9, 9, 9, 9, 13, 13, 13, 13, 14};
    for (uint64_t number = 0; number < std::size(expected); ++number)
        EXPECT_EQ(expected[number], m_Reader.NextHeldBlock(number)) << number;
}

TEST_F(VmdkVcb4ExtentReader, RunsTellWhatReadSectorWould) {
    OnlyIn("", {{30, 3}});
    ASSERT_OK(Open());
    SectorRun_t run;
    ASSERT_OK(m_Reader.FindRun(0, 1000, run));
    EXPECT_FALSE(run.IsHeld());
    EXPECT_EQ(30U, run.sectors);
    ASSERT_OK(m_Reader.FindRun(31, 1000, run));
    EXPECT_TRUE(run.IsHeld());
    EXPECT_EQ(3U, run.sectors);
    ASSERT_OK(m_Reader.FindRun(34, 1000, run));
    EXPECT_EQ(66U, run.sectors) << "to the disk's end";
    EXPECT_END_OF_MANAGED(m_Reader.FindRun(100, 1, run));
}

TEST_F(VmdkVcb4ExtentReader, SeveralSectorsComeInOneCallAndAPartOfTheLast) {
    ASSERT_OK(Open());
    std::string buffer(3 * Sector, '?');
    ASSERT_OK(m_Reader.ReadSectors(5, buffer.data(), 2 * Sector + 7));
    EXPECT_SAME_BYTES(OnDisk(5, 3).substr(0, 2 * Sector + 7) + std::string(Sector - 7, '?'), buffer);
    EXPECT_EQ((Transfers_t{{5, 2}, {7, 1}}), m_Server.reads);
}

TEST_F(VmdkVcb4ExtentReader, AClosedDiskHasNeitherSectorsNorABlockSize) {
    ASSERT_OK(Open());
    ASSERT_OK(m_Reader.CloseDisk());
    EXPECT_EQ(0U, m_Reader.GetBlockSize());
    EXPECT_EQ(1U, m_Reader.GetTotalSectors());
    EXPECT_END_OF_MANAGED(m_Reader.ReadBlock(0, m_Sector.data()));
    EXPECT_END_OF_MANAGED(Write(0, 8, "x"));
    ASSERT_OK(m_Reader.CloseDisk());
}

TEST_F(VmdkVcb4ExtentReader, TheTablesOfAnOpeningReplaceThoseBefore) {
    OnlyIn("", {{8, 1}, {16, 1}, {24, 1}});
    ASSERT_OK(Open());
    EXPECT_OK(ReadBlock(3));
    EXPECT_NOT_ALLOCATED(ReadBlock(5));
    m_Server.answers.clear();
    m_Server.askedPositions.clear();
    OnlyIn("", {{40, 1}});
    ASSERT_OK(Open());
    EXPECT_OK(ReadBlock(5));
    EXPECT_NOT_ALLOCATED(ReadBlock(3));
}

TEST_F(VmdkVcb4ExtentReader, ACopyReadsByTablesOfItsOwn) {
    ASSERT_OK(Open());
    CVmdkVcb4ExtentReader copy = m_Reader;
    ASSERT_OK(m_Reader.CloseDisk());
    EXPECT_OK(copy.ReadSector(3, m_Sector.data(), Sector));
    EXPECT_SAME_BYTES(OnDisk(3, 1), m_Sector);
}

TEST_F(VmdkVcb4ExtentReader, TheServerTellsTheDisksName) {
    ASSERT_OK(Open());
    std::string name;
    m_Reader.GetFileName(name);
    EXPECT_EQ("server's name", name);
    m_Server.failing = "GetCurrVmdkFileName";
    m_Reader.GetFileName(name);
    EXPECT_EQ("", name);
}

TEST_F(VmdkVcb4ExtentReader, TheRecordHasTheSettingsInTheServersOrder) {
    ASSERT_OK(Open());
    m_Server.settings = {{"uuid", "60 00"}, {"adapterType", "lsi"}, {"x", ""}};
    CAutoMemory<char> metadata;
    ASSERT_OK(m_Reader.GetMetadataInfo(metadata));
    EXPECT_EQ(MetadataRecordText("VDVWVD10", 101, "uuid = \"60 00\";adapterType = \"lsi\";x = \"\""),
              BytesOf(metadata));
}

TEST_F(VmdkVcb4ExtentReader, ARecordWithoutSettingsIsItsHead) {
    ASSERT_OK(Open());
    CAutoMemory<char> metadata;
    ASSERT_OK(m_Reader.GetMetadataInfo(metadata));
    EXPECT_EQ(MetadataRecordText("VDVWVD10", 101, ""), BytesOf(metadata));
}

TEST_F(VmdkVcb4ExtentReader, SettingsThatTheServerDoesNotTellFailTheRecord) {
    ASSERT_OK(Open());
    m_Server.failing = "GetCurrVmdkFileMetaData";
    CAutoMemory<char> metadata;
    EXPECT_REFUSED(m_Reader.GetMetadataInfo(metadata), "Failed to get disk metadata info");
    EXPECT_REFUSED(CVmdkVcb4ExtentReader().GetMetadataInfo(metadata), "Failed to get disk metadata info");
}

TEST_F(VmdkVcb4ExtentReader, AWriteStartsWhereItsBlockDoes) {
    ASSERT_OK(Open());
    const std::string bytes(16 * Sector, 'w');
    ASSERT_OK(Write(2, 16, bytes));
    EXPECT_EQ((Transfers_t{{32, 16}}), m_Server.writes);
    EXPECT_SAME_BYTES(bytes, OnDisk(32, 16));
}

TEST_F(VmdkVcb4ExtentReader, AWritePastTheEndIsCutThere) {
    ASSERT_OK(Open());
    ASSERT_OK(Write(12, 8, std::string(8 * Sector, 'w')));
    EXPECT_EQ((Transfers_t{{96, 4}}), m_Server.writes);
    EXPECT_END_OF_MANAGED(Write(13, 8, "w"));
    EXPECT_END_OF_MANAGED(Write(~uint64_t{0}, 8, "w"));
}

TEST_F(VmdkVcb4ExtentReader, ShortDataWritesTheSectorsThatItHoldsFilledUpWithZeros) {
    ASSERT_OK(Open());
    ASSERT_OK(Write(1, 8, std::string(700, 'w')));
    EXPECT_EQ((Transfers_t{{8, 2}}), m_Server.writes);
    EXPECT_SAME_BYTES(std::string(700, 'w') + std::string(1024 - 700, '\0'), OnDisk(8, 2));
    EXPECT_SAME_BYTES(PatternedBytes(100 * Sector).substr(10 * Sector, 6 * Sector), OnDisk(10, 6));
}

TEST_F(VmdkVcb4ExtentReader, ABlockWithoutContentWritesNothing) {
    ASSERT_OK(Open());
    EXPECT_OK(Write(1, 8, ""));
    EXPECT_TRUE(m_Server.writes.empty());
}

TEST_F(VmdkVcb4ExtentReader, MoreDataThanABlockHoldsIsRefusedFirst) {
    ASSERT_OK(Open());
    EXPECT_OK(Write(0, 2, std::string(2 * Sector, 'w')));
    EXPECT_REFUSED(Write(5000, 2, std::string(2 * Sector + 1, 'w')), "Data size is greater than block size");
}

TEST_F(VmdkVcb4ExtentReader, TheServersErrorTellsADiskThatCannotBeWritten) {
    ASSERT_OK(Open());
    m_Server.failing = "WriteCurrVmdkFile";
    m_Server.lastError = 303;
    EXPECT_CONDITION(Write(0, 8, "x"), 3, 3001, 5);
    for (const int other : {0, 302, 304, 28}) {
        m_Server.lastError = other;
        EXPECT_REFUSED(Write(0, 8, "x"), "Failed to write to vmdk.");
    }
}

TEST_F(VmdkVcb4ExtentReader, WithoutAServerAndALocalFileNothingIsWritten) {
    ASSERT_OK(Open());
    m_Reader.SetVMInfo(nullptr, "", "");
    EXPECT_REFUSED(Write(0, 8, "x"), "Don't have a valid opened extent file");
    EXPECT_REFUSED(ReadBlock(0), "Failed to ReadCurrVmdkFile.");
    EXPECT_REFUSED(m_Reader.ReadSector(0, m_Sector.data(), Sector), "Failed to ReadCurrVmdkFile.");
}

TEST_F(VmdkVcb4ExtentReader, TheDumpTellsAFlatDisk) {
    OnlyIn("", {{30, 3}});
    ASSERT_OK(Open());
    const CTempDir dir;
    CZuFile out;
    ASSERT_OK(out.Open(dir.File("dump").c_str(), OpenCreating | OpenForWriting, 384));
    ASSERT_OK(m_Reader.DumpSparseInfo(out, "name"));
    ASSERT_OK(out.Close());
    SparseDumpText_t expected;
    expected.name = "name";
    expected.endLba = 100;
    expected.blockSize = 8;
    expected.grainSize = 8;
    EXPECT_SAME_BYTES("00000001" + expected.Bytes(), dir.Read("dump"));
}

TEST_F(VmdkVcb4ExtentReader, OnlyTheirOwnTriplesAreTheConditions) {
    const auto predicates = [&](int type, uint32_t module, uint32_t code) {
        CZuError error;
        error.SetError(type, module, code, nullptr, "", 0);
        return std::vector<int>{m_Reader.IsErrorEOF(error), m_Reader.IsErrorSectorNotFound(error),
                                m_Reader.IsErrorSectorNotChanged(error), m_Reader.IsErrorNoSpace(error),
                                m_Reader.IsErrorReadOnly(error)};
    };
    for (uint32_t code = 1; code <= 5; ++code) {
        std::vector<int> expected(5, 0);
        expected[code - 1] = 1;
        EXPECT_EQ(expected, predicates(3, 3001, code));
        EXPECT_EQ(std::vector<int>(5, 0), predicates(7, 3001, code));
        EXPECT_EQ(std::vector<int>(5, 0), predicates(3, 2001, code));
    }
    EXPECT_EQ(std::vector<int>(5, 0), predicates(3, 3001, 6));
}

}  // namespace
