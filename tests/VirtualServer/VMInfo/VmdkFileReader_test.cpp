#include "VirtualServer/VMInfo/VmdkFileReader.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "tests/support/Bytes.h"
#include "tests/support/CowdBuilder.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/SameBytes.h"
#include "tests/support/SparseDumpText.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkDescriptorBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"

#define EXPECT_OUT_OF_RANGE(expression) EXPECT_CONDITION_TEXT(expression, 7, 3001, 1, "Sector Out of Range")
#define EXPECT_SECTOR_NOT_FOUND(expression) EXPECT_CONDITION_TEXT(expression, 7, 3001, 2, "Sector Not Found")

namespace {

constexpr char NothingOpen[] = "Object is in invalid state. Make sure OpenDisk succeeded";

class VmdkFileReader : public testing::Test {
protected:
    // Flat extents of these many sectors, each filled with its own pattern.
    std::string FlatDisk(std::initializer_list<uint64_t> sectors) {
        CVmdkDescriptorBuilder builder;
        uint64_t index = 0;
        for (const uint64_t count : sectors) {
            const std::string name = "f" + std::to_string(++index);
            m_Dir.Write(name, PatternedBytes(count * 512, index));
            builder.Extent(count, "FLAT", name);
        }
        return builder.WriteTo(m_Dir);
    }

    // Two sparse extents: 4096 sectors with grains 0 and 511, and 256 sectors with grain 2.
    std::string SparseDisk() {
        CVmdkSparseBuilder().Capacity(4096).Grain(0, 'a').Grain(511, 'b').WriteTo(m_Dir, "s1");
        CVmdkSparseBuilder().RedundantIsActive().Grain(2, 'c').WriteTo(m_Dir, "s2");
        return CVmdkDescriptorBuilder().Extent(4096, "SPARSE", "s1").Extent(256, "SPARSE", "s2").WriteTo(m_Dir);
    }

    std::string ReadSector(uint64_t sector, unsigned long size = 512) {
        std::string bytes(512, '?');
        EXPECT_OK(m_Reader.ReadSector(sector, bytes.data(), size)) << sector;
        return bytes;
    }

    std::string Dump(const char* name, uint64_t blockSectors) {
        CZuFile out;
        EXPECT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenTruncating | OpenForWriting, 384));
        EXPECT_OK(m_Reader.DumpSparseInfo(out, name, blockSectors));
        EXPECT_OK(out.Close());
        return m_Dir.Read("dump");
    }

    CTempDir m_Dir;
    CVmdkFileReader m_Reader;
    char m_Buffer[512] = {};
};

TEST_F(VmdkFileReader, RefusesANullName) {
    EXPECT_REFUSED(m_Reader.OpenDisk(nullptr, DiskType_MonolithicSparse), "File name is null");
    EXPECT_REFUSED(m_Reader.OpenDisk(nullptr, DiskType_t(99)), "File name is null");
}

TEST_F(VmdkFileReader, RefusesTheTypesThatNoReaderServes) {
    const std::string path = FlatDisk({1});
    for (int type = 0; type <= 20; ++type) {
        if (type == 1 || type == 2 || type == 3 || type == 5 || type == 6)
            continue;
        if (type == DiskType_VMInfoDisk)
            continue;  // its reader has no server to ask
        EXPECT_REFUSED(m_Reader.OpenDisk(path.c_str(), DiskType_t(type)), "Not a supported disk type") << type;
        EXPECT_REFUSED(m_Reader.ReadSector(0, m_Buffer, 512), NothingOpen);
    }
}

TEST_F(VmdkFileReader, ASparseFileIsItselfTheOneExtent) {
    const std::string path = CVmdkSparseBuilder().Grain(1, 'x').WriteTo(m_Dir);
    for (const DiskType_t type : {DiskType_MonolithicSparse, DiskType_VmfsSparse}) {
        ASSERT_OK(m_Reader.OpenDisk(path.c_str(), type));
        EXPECT_SAME_BYTES(std::string(512, 'x'), ReadSector(8));
        EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadSector(0, m_Buffer, 512));
        EXPECT_OUT_OF_RANGE(m_Reader.ReadSector(256, m_Buffer, 512));
        EXPECT_OK(m_Reader.CloseDisk());
    }
    const std::string cowd = CCowdBuilder().Grain(1, 'y').WriteTo(m_Dir);
    ASSERT_OK(m_Reader.OpenDisk(cowd.c_str(), DiskType_VmfsSparse));
    EXPECT_SAME_BYTES(std::string(512, 'y'), ReadSector(1));
}

TEST_F(VmdkFileReader, FlatExtentsLieOneBehindTheOther) {
    const std::string path = FlatDisk({100, 100});
    for (const DiskType_t type : {DiskType_MonolithicFlat, DiskType_TwoGbMaxExtentFlat}) {
        ASSERT_OK(m_Reader.OpenDisk(path.c_str(), type));
        EXPECT_SAME_BYTES(PatternedBytes(51200, 1).substr(99 * 512), ReadSector(99));
        EXPECT_SAME_BYTES(PatternedBytes(512, 2), ReadSector(100));
        EXPECT_SAME_BYTES(PatternedBytes(51200, 2).substr(99 * 512), ReadSector(199));
        EXPECT_OUT_OF_RANGE(m_Reader.ReadSector(200, m_Buffer, 512));
        EXPECT_OUT_OF_RANGE(m_Reader.ReadSector(~uint64_t{0}, m_Buffer, 512));
        EXPECT_OK(m_Reader.CloseDisk());
    }
}

TEST_F(VmdkFileReader, EveryExtentBeginsBehindAllBeforeIt) {
    ASSERT_OK(m_Reader.OpenDisk(FlatDisk({3, 5, 2, 4}).c_str(), DiskType_TwoGbMaxExtentFlat));
    EXPECT_SAME_BYTES(PatternedBytes(512, 3), ReadSector(8));
    EXPECT_SAME_BYTES(PatternedBytes(512, 4), ReadSector(10));
    EXPECT_OUT_OF_RANGE(m_Reader.ReadSector(14, m_Buffer, 512));
}

TEST_F(VmdkFileReader, SparseExtentsLieOneBehindTheOther) {
    ASSERT_OK(m_Reader.OpenDisk(SparseDisk().c_str(), DiskType_TwoGbMaxExtentSparse));
    EXPECT_SAME_BYTES(std::string(512, 'a'), ReadSector(7));
    EXPECT_SAME_BYTES(std::string(512, 'b'), ReadSector(4095));
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadSector(8, m_Buffer, 512));
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadSector(4096, m_Buffer, 512));
    EXPECT_SAME_BYTES(std::string(512, 'c'), ReadSector(4096 + 16));
    EXPECT_OUT_OF_RANGE(m_Reader.ReadSector(4352, m_Buffer, 512));
}

// The line's size places the next extent, the file's own size ends its reads.
TEST_F(VmdkFileReader, TheLinesTellWhereExtentsBeginAndTheFilesWhereTheyEnd) {
    m_Dir.Write("small", PatternedBytes(2 * 512, 1));
    m_Dir.Write("large", PatternedBytes(9 * 512, 2));
    const std::string path =
        CVmdkDescriptorBuilder().Extent(5, "FLAT", "small").Extent(5, "FLAT", "large").WriteTo(m_Dir);
    ASSERT_OK(m_Reader.OpenDisk(path.c_str(), DiskType_TwoGbMaxExtentFlat));
    EXPECT_SAME_BYTES(PatternedBytes(1024, 1).substr(512), ReadSector(1));
    EXPECT_OUT_OF_RANGE(m_Reader.ReadSector(2, m_Buffer, 512));
    EXPECT_OUT_OF_RANGE(m_Reader.ReadSector(4, m_Buffer, 512));
    EXPECT_SAME_BYTES(PatternedBytes(512, 2), ReadSector(5));
    EXPECT_SAME_BYTES(PatternedBytes(9 * 512, 2).substr(8 * 512), ReadSector(13));
    EXPECT_OUT_OF_RANGE(m_Reader.ReadSector(14, m_Buffer, 512));
}

TEST_F(VmdkFileReader, TheTypeWordsOfTheLinesHaveNoSay) {
    m_Dir.Write("f", PatternedBytes(512));
    const std::string path =
        CVmdkDescriptorBuilder().CreateType("fullDevice").Extent(1, "ZERO", "f", "NOACCESS").WriteTo(m_Dir);
    ASSERT_OK(m_Reader.OpenDisk(path.c_str(), DiskType_MonolithicFlat));
    EXPECT_SAME_BYTES(PatternedBytes(512), ReadSector(0));
}

TEST_F(VmdkFileReader, ADescriptorOfNoExtentsIsADiskOfNoSectors) {
    const std::string path = CVmdkDescriptorBuilder().WriteTo(m_Dir);
    for (const DiskType_t type : {DiskType_TwoGbMaxExtentFlat, DiskType_TwoGbMaxExtentSparse}) {
        ASSERT_OK(m_Reader.OpenDisk(path.c_str(), type));
        EXPECT_OUT_OF_RANGE(m_Reader.ReadSector(0, m_Buffer, 512));
        EXPECT_EQ("00000000", Dump("x", 8));
    }
}

TEST_F(VmdkFileReader, ReadsAsManyBytesOfASectorAsAsked) {
    ASSERT_OK(m_Reader.OpenDisk(FlatDisk({2}).c_str(), DiskType_MonolithicFlat));
    EXPECT_EQ(PatternedBytes(513, 1)[512] + std::string(511, '?'), ReadSector(1, 1));
    EXPECT_REFUSED(m_Reader.ReadSector(1, m_Buffer, 513), "Cannot read more than sector size");
    ASSERT_OK(m_Reader.OpenDisk(SparseDisk().c_str(), DiskType_TwoGbMaxExtentSparse));
    EXPECT_EQ("a" + std::string(511, '?'), ReadSector(1, 1));
    EXPECT_REFUSED(m_Reader.ReadSector(1, m_Buffer, 513), "Cannot read more than sector size");
    EXPECT_REFUSED(m_Reader.ReadSector(1, nullptr, 512), "Data pointer is null");
}

TEST_F(VmdkFileReader, AFailureOfAnExtentIsNoReasonToGoOnToTheNext) {
    ASSERT_OK(m_Reader.OpenDisk(FlatDisk({4, 4}).c_str(), DiskType_TwoGbMaxExtentFlat));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return m_Reader.ReadSector(1, m_Buffer, 512); }));
    ASSERT_OK(m_Reader.OpenDisk(SparseDisk().c_str(), DiskType_TwoGbMaxExtentSparse));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return m_Reader.ReadSector(1, m_Buffer, 512); }));
}

TEST_F(VmdkFileReader, WithNothingOpenItSaysSo) {
    CZuFile out;
    EXPECT_REFUSED(m_Reader.ReadSector(0, m_Buffer, 512), NothingOpen);
    EXPECT_REFUSED(m_Reader.DumpSparseInfo(out, "x", 8), NothingOpen);
    EXPECT_OK(m_Reader.CloseDisk());
}

TEST_F(VmdkFileReader, CloseClosesEveryExtentWhateverItsKind) {
    for (const bool isFlat : {false, true}) {
        const std::string path = isFlat ? FlatDisk({1, 2, 3}) : SparseDisk();
        const CFaultyFiles counting;
        ASSERT_OK(
            m_Reader.OpenDisk(path.c_str(), isFlat ? DiskType_TwoGbMaxExtentFlat : DiskType_TwoGbMaxExtentSparse));
        EXPECT_EQ(1U, counting.Calls(FaultOp::Close)) << "the descriptor";
        EXPECT_OK(m_Reader.CloseDisk());
        EXPECT_EQ(counting.Calls(FaultOp::Open), counting.Calls(FaultOp::Close));
        EXPECT_REFUSED(m_Reader.ReadSector(0, m_Buffer, 512), NothingOpen);
    }
}

TEST_F(VmdkFileReader, CloseSucceedsWhateverTheSystemSays) {
    ASSERT_OK(m_Reader.OpenDisk(FlatDisk({1}).c_str(), DiskType_MonolithicFlat));
    const CFaultyFiles faulty(Fault_t{FaultOp::Close, 0, EIO});
    EXPECT_OK(m_Reader.CloseDisk());
    EXPECT_TRUE(faulty.Fired());
}

TEST_F(VmdkFileReader, ASecondOpenTakesThePlaceOfTheFirst) {
    ASSERT_OK(m_Reader.OpenDisk(FlatDisk({4, 4}).c_str(), DiskType_TwoGbMaxExtentFlat));
    ASSERT_OK(m_Reader.OpenDisk(SparseDisk().c_str(), DiskType_TwoGbMaxExtentSparse));
    EXPECT_SAME_BYTES(std::string(512, 'a'), ReadSector(0));
    EXPECT_SECTOR_NOT_FOUND(m_Reader.ReadSector(8, m_Buffer, 512));
    EXPECT_EQ("00000002", Dump("x", 8).substr(0, 8));
    const std::string single = CVmdkSparseBuilder().Grain(0, 's').WriteTo(m_Dir);
    ASSERT_OK(m_Reader.OpenDisk(single.c_str(), DiskType_MonolithicSparse));
    EXPECT_SAME_BYTES(std::string(512, 's'), ReadSector(0));
    EXPECT_OUT_OF_RANGE(m_Reader.ReadSector(256, m_Buffer, 512));
    ASSERT_OK(m_Reader.OpenDisk(FlatDisk({4}).c_str(), DiskType_MonolithicFlat));
    EXPECT_OUT_OF_RANGE(m_Reader.ReadSector(8, m_Buffer, 512));
}

TEST_F(VmdkFileReader, AFailedOpenLeavesNothingOpen) {
    m_Dir.Write("good", PatternedBytes(512));
    m_Dir.Write("odd", "x");
    const struct {
        const char* name;
        DiskType_t type;
        CVmdkDescriptorBuilder descriptor;
    } rows[] = {
        {"a bad line", DiskType_MonolithicFlat, CVmdkDescriptorBuilder().Extent(1, "FLAT", "good").Line("bad")},
        {"a missing second extent", DiskType_TwoGbMaxExtentFlat,
         CVmdkDescriptorBuilder().Extent(1, "FLAT", "good").Extent(1, "FLAT", "none")},
        {"an odd second extent", DiskType_TwoGbMaxExtentFlat,
         CVmdkDescriptorBuilder().Extent(1, "FLAT", "good").Extent(1, "FLAT", "odd")},
        {"a flat extent as a sparse one", DiskType_TwoGbMaxExtentSparse,
         CVmdkDescriptorBuilder().Extent(1, "SPARSE", "good")},
        {"a descriptor as a sparse file", DiskType_MonolithicSparse, CVmdkDescriptorBuilder()},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::string path = row.descriptor.WriteTo(m_Dir);
        const CFaultyFiles counting;
        EXPECT_FAILURE(m_Reader.OpenDisk(path.c_str(), row.type));
        EXPECT_EQ(counting.Calls(FaultOp::Open),
                  counting.Calls(FaultOp::Close) + (row.descriptor.Text().find("none") != std::string::npos ? 1U : 0U));
        EXPECT_REFUSED(m_Reader.ReadSector(0, m_Buffer, 512), NothingOpen);
    }
}

TEST_F(VmdkFileReader, AFailedOpenReturnsTheFirstError) {
    m_Dir.Write("odd", std::string(1000, 'x'));
    const std::string path = CVmdkDescriptorBuilder().Extent(1, "FLAT", "odd").WriteTo(m_Dir);
    EXPECT_REFUSED(m_Reader.OpenDisk(path.c_str(), DiskType_MonolithicFlat),
                   "File size 1000 is not a multiple of sector size 512");
    EXPECT_REFUSED(m_Reader.OpenDisk(path.c_str(), DiskType_MonolithicSparse),
                   "File signature does not match with standard sparse extent signatures VMDK or COWD");
    EXPECT_SYSTEM_ERROR(m_Reader.OpenDisk(m_Dir.File("none").c_str(), DiskType_MonolithicSparse), ENOENT);
}

TEST_F(VmdkFileReader, EveryFailureOfAnOpenReachesTheCallerAndLeavesNothingOpen) {
    const struct {
        std::string path;
        DiskType_t type;
        FaultOp op;
    } rows[] = {
        {FlatDisk({1, 2}), DiskType_TwoGbMaxExtentFlat, FaultOp::Open},
        {FlatDisk({1, 2}), DiskType_TwoGbMaxExtentFlat, FaultOp::Size},
        {CVmdkSparseBuilder().WriteTo(m_Dir), DiskType_MonolithicSparse, FaultOp::Open},
        {CVmdkSparseBuilder().WriteTo(m_Dir), DiskType_MonolithicSparse, FaultOp::Read},
        {CVmdkSparseBuilder().WriteTo(m_Dir), DiskType_MonolithicSparse, FaultOp::Seek},
    };
    for (const auto& row : rows) {
        const unsigned int failures = WalkFailures(row.op, [&] {
            CZuError error = m_Reader.OpenDisk(row.path.c_str(), row.type);
            if (error.IsErrorSet()) {
                EXPECT_REFUSED(m_Reader.ReadSector(0, m_Buffer, 512), NothingOpen);
            }
            EXPECT_OK(m_Reader.CloseDisk());
            return error;
        });
        EXPECT_GE(failures, 1U) << row.path;
    }
}

TEST_F(VmdkFileReader, TheDumpIsTheNumberOfExtentsAndEachOfThem) {
    ASSERT_OK(m_Reader.OpenDisk(FlatDisk({3, 4}).c_str(), DiskType_TwoGbMaxExtentFlat));
    SparseDumpText_t first;
    first.name = "disk_00000000";
    first.endLba = 2;
    first.blockSize = first.grainSize = 0x80;
    SparseDumpText_t second = first;
    second.name = "disk_00000001";
    second.startLba = 3;
    second.endLba = 6;
    EXPECT_SAME_BYTES("00000002" + first.Bytes() + second.Bytes(), Dump("disk", 0x80));
}

TEST_F(VmdkFileReader, TheDumpOfSparseExtentsReadsBack) {
    ASSERT_OK(m_Reader.OpenDisk(SparseDisk().c_str(), DiskType_TwoGbMaxExtentSparse));
    std::string bytes = Dump("s", 0x80);
    EXPECT_EQ("00000002", bytes.substr(0, 8));
    bytes.erase(0, 8);
    const SparseDumpText_t first = TakeSparseDump(bytes);
    const SparseDumpText_t second = TakeSparseDump(bytes);
    EXPECT_EQ("", bytes);
    EXPECT_EQ("s_00000000", first.name);
    EXPECT_EQ("s_00000001", second.name);
    EXPECT_EQ(4096U, second.startLba);
    EXPECT_EQ(4351U, second.endLba);
    EXPECT_EQ(8U, second.blockSize) << "a sparse extent's block is its grain";
    EXPECT_EQ("\x20" + std::string(63, '\0'), second.buckets.at(0));
}

TEST_F(VmdkFileReader, TheIndexInADumpsNameIsHexadecimal) {
    CVmdkDescriptorBuilder builder;
    for (int index = 0; index < 0x1C; ++index)
        builder.Extent(1, "FLAT", "f1");
    FlatDisk({1});
    ASSERT_OK(m_Reader.OpenDisk(builder.WriteTo(m_Dir).c_str(), DiskType_TwoGbMaxExtentFlat));
    const std::string bytes = Dump("d", 1);
    EXPECT_EQ("0000001c", bytes.substr(0, 8));
    EXPECT_EQ("d_0000001b", bytes.substr(8 + 0x1B * 1153, 10));
}

TEST_F(VmdkFileReader, EveryFailedWriteOfTheDumpReachesTheCaller) {
    ASSERT_OK(m_Reader.OpenDisk(SparseDisk().c_str(), DiskType_TwoGbMaxExtentSparse));
    CZuFile out;
    ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenForWriting, 384));
    EXPECT_EQ(7U, WalkFailures(FaultOp::Write, [&] { return m_Reader.DumpSparseInfo(out, "x", 8); }));
}

TEST_F(VmdkFileReader, WhatAHypervisorsDiskNeedsChangesNothingForOthers) {
    m_Reader.SetVMInfo(nullptr, "a", "b");
    m_Reader.SetVMInfo(nullptr, nullptr, nullptr);
    m_Reader.SetBlockSize(77);
    ASSERT_OK(m_Reader.OpenDisk(FlatDisk({2}).c_str(), DiskType_MonolithicFlat));
    EXPECT_SAME_BYTES(PatternedBytes(512, 1), ReadSector(0));
}

TEST_F(VmdkFileReader, ACopyReadsTheSameDisk) {
    ASSERT_OK(m_Reader.OpenDisk(SparseDisk().c_str(), DiskType_TwoGbMaxExtentSparse));
    CVmdkFileReader copy(m_Reader);
    ASSERT_OK(copy.ReadSector(4112, m_Buffer, 512));
    EXPECT_EQ('c', m_Buffer[511]);
    EXPECT_SAME_BYTES(std::string(512, 'b'), ReadSector(4095));
}

TEST_F(VmdkFileReader, OnlyTheirOwnTriplesAreTheConditions) {
    const struct {
        int type;
        unsigned long module;
        unsigned long code;
        int isEnd;
        int isNotFound;
    } rows[] = {{7, 3001, 1, 1, 0}, {7, 3001, 2, 0, 1}, {3, 3001, 1, 0, 0}, {7, 5001, 1, 0, 0}, {7, 3001, 3, 0, 0}};
    const CVmdkFileReader reader;
    for (const auto& row : rows) {
        CZuError error;
        error.SetError(row.type, row.module, row.code, "x", __FILE__, __LINE__);
        EXPECT_EQ(row.isEnd, reader.IsErrorEOF(error)) << row.type << "/" << row.module << "/" << row.code;
        EXPECT_EQ(row.isNotFound, reader.IsErrorSectorNotFound(error)) << row.code;
    }
}

}  // namespace
