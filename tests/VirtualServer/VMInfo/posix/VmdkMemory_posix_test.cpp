#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/VmdkFlatExtentReader.h"
#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/CowdBuilder.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkDescriptorBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"
#include "tests/support/posix/MemoryMeter.h"

// Memory follows the bytes that are there and not what a header promises, and a machine without
// memory is a failure like others.

namespace {

constexpr size_t Mebibyte = 1U << 20U;

class VmdkMemory : public testing::Test {
protected:
    // The most that the opening of `path` takes at one time.
    size_t PeakOfOpening(const std::string& path) {
        CVmdkSparseExtentReader reader;
        const CMemoryMeter meter;
        reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse).IsErrorSet();
        return meter.PeakBytes();
    }

    CZuError OpenWithoutMemoryAbove(size_t sizeBytes, const CVmdkSparseBuilder& file) {
        const std::string path = file.WriteTo(m_Dir);
        CMemoryMeter meter;
        meter.RefuseAbove(sizeBytes);
        return m_Reader.OpenExtent(path.c_str(), 0, VwExtentTypeSparse);
    }

    CTempDir m_Dir;
    CVmdkSparseExtentReader m_Reader;
};

TEST_F(VmdkMemory, AHeaderThatPromisesMoreThanTheFileHoldsTakesNothing) {
    constexpr uint64_t size = 1 << 20;
    const std::string paths[] = {
        CVmdkSparseBuilder().Put64(12, uint64_t{1} << 44U).CutTo(size).WriteTo(m_Dir, "directory"),
        CVmdkSparseBuilder().Put64(28, 1).Put64(36, uint64_t{1} << 25U).CutTo(size).WriteTo(m_Dir, "descriptor"),
        CCowdBuilder().Put32(24, 0xFFFFFFFF).CutTo(size).WriteTo(m_Dir, "cowd"),
    };
    for (const std::string& path : paths)
        EXPECT_LE(PeakOfOpening(path), 4 * Mebibyte) << path;
}

// A run of tables is read at once, but never more than 1 MiB of it.
TEST_F(VmdkMemory, TablesThatLieTogetherOutsideTheFileTakeOneRun) {
    constexpr uint32_t entries = 100'000;
    std::string directory;
    for (uint32_t entry = 0; entry < entries; ++entry)
        directory += LittleEndianBytes(0x10000000 + uint64_t{entry} * 32, 4);
    const std::string path = CCowdBuilder().PutAt(4 * 512, directory).Put32(24, entries).WriteTo(m_Dir);
    EXPECT_LE(PeakOfOpening(path), entries * (4 + sizeof(GrainTableRef_t)) + 3 * Mebibyte);
}

TEST_F(VmdkMemory, ATableThatEveryEntryNamesIsHeldOnce) {
    constexpr uint64_t entries = 16384;
    std::string directory;
    for (uint64_t entry = 0; entry < entries; ++entry)
        directory += LittleEndianBytes(CVmdkSparseBuilder().TableSectors(TableCopy_t::Primary)[0], 4);
    const std::string path = CVmdkSparseBuilder()
                                 .Put64(12, entries * 4096)
                                 .Put64(48, 1000)
                                 .Put64(56, 1000)
                                 .PutAt(1000 * 512, directory)
                                 .WriteTo(m_Dir);
    EXPECT_LE(PeakOfOpening(path), 2 * Mebibyte);
}

TEST_F(VmdkMemory, ARecordThatPromisesMoreThanItHoldsTakesNothing) {
    const std::string sound = CVmdkSparseBuilder().Descriptor("text").Record();
    for (const size_t field : {12U, 36U}) {
        std::string record = sound;
        PutLe64(record, 32 + field, (uint64_t{1} << 18U) * (field == 12 ? 4096 : 1));
        CAutoMemory<char> metadata = BufferOf(record);
        const std::string path = m_Dir.File("made");
        const CMemoryMeter meter;
        EXPECT_REFUSED(m_Reader.CreateExtent(path.c_str(), VwExtentTypeSparse, metadata),
                       "Metadata header is corrupted");
        EXPECT_OK(m_Reader.CloseExtent());
        EXPECT_LE(meter.PeakBytes(), Mebibyte / 4) << field;
    }
}

TEST_F(VmdkMemory, WithoutItAnExtentDoesNotOpen) {
    const CVmdkSparseBuilder large = CVmdkSparseBuilder().GrainSize(1).Capacity(2000 * 512);
    EXPECT_REFUSED(OpenWithoutMemoryAbove(10'000, CVmdkSparseBuilder().Descriptor(std::string(20'000, 'd'))),
                   "Out of memory");
    EXPECT_REFUSED(OpenWithoutMemoryAbove(7'000, large), "Out of memory") << "the directory";
    EXPECT_REFUSED(OpenWithoutMemoryAbove(20'000, large), "Out of memory") << "the references to tables";
    EXPECT_REFUSED(OpenWithoutMemoryAbove(100'000, large), "Out of memory") << "the tables";
    EXPECT_OK(OpenWithoutMemoryAbove(2 * Mebibyte, large));
}

TEST_F(VmdkMemory, WithoutItAnExtentHasNoRecordWithACapital) {
    ASSERT_OK(m_Reader.OpenExtent(CVmdkSparseBuilder().WriteTo(m_Dir).c_str(), 0, VwExtentTypeSparse));
    CAutoMemory<char> metadata;
    CMemoryMeter meter;
    meter.RefuseAbove(4000);
    EXPECT_REFUSED(m_Reader.GetMetadataInfo(metadata), "Out Of memory");
}

TEST_F(VmdkMemory, WithoutItAnExtentHasNoDump) {
    const CVmdkSparseBuilder large = CVmdkSparseBuilder().GrainSize(1).Capacity(40'000 * 512);
    ASSERT_OK(m_Reader.OpenExtent(large.WriteTo(m_Dir).c_str(), 0, VwExtentTypeSparse));
    CZuFile out;
    ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenForWriting, 384));
    CMemoryMeter meter;
    meter.RefuseAbove(4000);
    EXPECT_REFUSED(m_Reader.DumpSparseInfo(out, "x"), "Out of memory");
}

TEST_F(VmdkMemory, WithoutItAnExtentIsNotCreated) {
    CAutoMemory<char> metadata = BufferOf(CVmdkSparseBuilder().GrainSize(1).Capacity(2000 * 512).Record());
    const std::string path = m_Dir.File("made");
    for (const size_t limit : {7'000U, 20'000U, 100'000U}) {
        CMemoryMeter meter;
        meter.RefuseAbove(limit);
        EXPECT_REFUSED(m_Reader.CreateExtent(path.c_str(), VwExtentTypeSparse, metadata), "Out of memory") << limit;
        EXPECT_OK(m_Reader.CloseExtent());
    }
}

TEST_F(VmdkMemory, WithoutItAFlatExtentHasNoRecord) {
    CVmdkFlatExtentReader reader;
    CAutoMemory<char> metadata;
    CMemoryMeter meter;
    meter.RefuseAbove(31);
    EXPECT_REFUSED(reader.GetMetadataInfo(metadata), "Out of memory");
}

TEST_F(VmdkMemory, WithoutItABlockIsRefusedAndTheDiskStaysOpen) {
    CArchiveVirtualDiskFile disk{VirtualProdType_VMware};
    ASSERT_OK(disk.Open(m_Dir.WriteHole("hole", 4 * Mebibyte).c_str(), DiskType_MonolithicFlat));
    CAutoMemory<char> block;
    uint64_t number = 0;
    Context_t context{3, 2048};
    {
        CMemoryMeter meter;
        meter.RefuseAbove(Mebibyte - 1);
        EXPECT_REFUSED(disk.GetNextBlock(block, number, context), "Out of memory (GetNextBlock)");
        EXPECT_EQ(3U, number);
        EXPECT_REFUSED(disk.ReadBlock(block, 1, context), "Out of memory (ReadBlock)");
        EXPECT_EQ(1U, context.blockNumber);
    }
    EXPECT_OK(disk.GetNextBlock(block, number, context));
    EXPECT_EQ(2U, number);
}

TEST_F(VmdkMemory, WithoutItADescriptorIsNotParsed) {
    const std::string path = CVmdkDescriptorBuilder().Line("#" + std::string(19'000, '-')).WriteTo(m_Dir);
    VmdkDescriptorFile_t out;
    CVmdkFileReader reader;
    CMemoryMeter meter;
    meter.RefuseAbove(10'000);
    EXPECT_REFUSED(reader.ParseVmdkDescriptorFile(path.c_str(), out, DiskType_MonolithicFlat), "Out of memory");
    EXPECT_REFUSED(reader.OpenDisk(path.c_str(), DiskType_MonolithicFlat), "Out of memory");
}

}  // namespace
