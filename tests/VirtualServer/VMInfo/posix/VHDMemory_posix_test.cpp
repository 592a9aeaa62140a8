#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "VirtualServer/VMInfo/VHDFileReader.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/TempDir.h"
#include "tests/support/VhdBuilder.h"
#include "tests/support/posix/MemoryMeter.h"

// Memory follows the bytes that are there and not what a header promises, and a machine without
// memory is a failure like others.

namespace {

constexpr size_t Mebibyte = 1U << 20U;

CVhdBuilder Sound() {
    return CVhdBuilder::Differencing(800).Block(3, 'x').Locator(0, "W2ru", PatternedBytes(9000));
}

class VHDMemory : public testing::Test {
protected:
    void Open(const CVhdBuilder& file) {
        ASSERT_OK(m_Reader.OpenDisk(file.WriteTo(m_Dir).c_str(), DiskType_VhdDifferencing));
    }

    CTempDir m_Dir;
    CVHDFileReader m_Reader;
    CAutoMemory<char> m_Metadata;
};

TEST_F(VHDMemory, AHeaderThatPromisesMoreThanTheFileHoldsTakesNothing) {
    for (const uint32_t entries : {0xFFFFFFFFU, 1U << 28U, 1U << 20U}) {
        const std::string path = Sound().PutAt(512 + 28, BigEndianBytes(entries, 4)).WriteTo(m_Dir);
        const CMemoryMeter meter;
        EXPECT_FAILURE(m_Reader.OpenDisk(path.c_str(), DiskType_VhdDifferencing));
        EXPECT_LE(meter.PeakBytes(), 4 * Mebibyte) << entries;
    }
}

TEST_F(VHDMemory, ALocatorThatPromisesMoreThanTheFileHoldsTakesNothing) {
    Open(Sound().PutAt(512 + 576 + 8, BigEndianBytes(0xFFFFFFFF, 4)));
    const CMemoryMeter meter;
    EXPECT_FAILURE(m_Reader.GetMetadataInfo(m_Metadata));
    EXPECT_LE(meter.PeakBytes(), 4 * Mebibyte);
}

TEST_F(VHDMemory, ARecordThatPromisesMoreThanItHoldsTakesNothing) {
    for (const size_t field : {size_t{28}, size_t{576 + 8}}) {
        std::string record = Sound().Record();
        PutBe32(record, 32 + 512 + field, 0xFFFFFFFF);
        m_Metadata = BufferOf(record);
        const std::string path = m_Dir.File("made");
        const CMemoryMeter meter;
        EXPECT_FAILURE(m_Reader.CreateDisk(path.c_str(), DiskType_VhdDifferencing, m_Metadata));
        EXPECT_LE(meter.PeakBytes(), Mebibyte / 4);
    }
}

// The bitmap of a block of 2 GiB takes 512 KiB; a thousand entries that name it take no more.
TEST_F(VHDMemory, ABitmapThatManyEntriesNameIsHeldOnce) {
    constexpr uint32_t blockSectors = 1U << 22U;
    constexpr uint32_t entries = 1000;
    CVhdBuilder file = CVhdBuilder::Differencing(uint64_t{blockSectors} * entries).Entries(entries).BlockSize(4096);
    file.Header(32, BigEndianBytes(0x80000000, 4));
    for (uint32_t index = 0; index < entries; ++index)
        file.PutEntry(index, 100);
    file.PutAt(2 * Mebibyte, file.FooterBytes());
    Open(file);
    char sector[512];
    const CMemoryMeter meter;
    for (uint64_t index = 0; index < entries; ++index)
        EXPECT_CONDITION(m_Reader.ReadSector(index * blockSectors, sector, 512), 3, 4001, 2) << "no bit is set";
    EXPECT_LE(meter.PeakBytes(), 2 * Mebibyte);
}

TEST_F(VHDMemory, BitmapsAreMadeWhenTheyAreNeeded) {
    const CVhdBuilder file = CVhdBuilder::Differencing(uint64_t{1} << 32U).BlockSize(2 << 20).Block(7, 'x');
    const std::string path = file.WriteTo(m_Dir);
    const CMemoryMeter meter;
    ASSERT_OK(m_Reader.OpenDisk(path.c_str(), DiskType_VhdDifferencing));
    EXPECT_LE(meter.BytesInUse(), 4 * Mebibyte + Mebibyte / 4) << "the table of 2 TiB";
}

TEST_F(VHDMemory, WithoutItNothingOpensAndNothingIsRecorded) {
    const std::string path = CVhdBuilder::Differencing(uint64_t{1} << 20U).WriteTo(m_Dir);
    {
        CMemoryMeter meter;
        meter.RefuseAbove(100'000);
        EXPECT_REFUSED(m_Reader.OpenDisk(path.c_str(), DiskType_VhdDifferencing), "Out of memory");
    }
    Open(Sound());
    for (const size_t limit : {500U, 5'000U, 9'500U}) {
        CMemoryMeter meter;
        meter.RefuseAbove(limit);
        EXPECT_REFUSED(m_Reader.GetMetadataInfo(m_Metadata), "Out of memory") << limit;
        EXPECT_EQ(0U, m_Metadata.GetSize());
    }
    ASSERT_OK(m_Reader.OpenDisk(CVhdBuilder::Fixed(8).WriteTo(m_Dir).c_str(), DiskType_VhdFixed));
    CMemoryMeter meter;
    meter.RefuseAbove(500);
    EXPECT_REFUSED(m_Reader.GetMetadataInfo(m_Metadata), "Out of memory");
}

TEST_F(VHDMemory, WithoutItABitmapIsTriedAgain) {
    Open(CVhdBuilder::Differencing(16384).BlockSize(4 << 20).Block(0, 'x'));
    char sector[512];
    {
        CMemoryMeter meter;
        meter.RefuseAbove(900);
        EXPECT_REFUSED(m_Reader.ReadSector(0, sector, 512), "Out of memory");
    }
    EXPECT_OK(m_Reader.ReadSector(0, sector, 512));
}

TEST_F(VHDMemory, WithoutItThereIsNoDump) {
    Open(CVhdBuilder::Differencing(16384).BlockSize(4 << 20).Block(0, 'x'));
    CZuFile out;
    ASSERT_OK(out.Open(m_Dir.File("dump").c_str(), OpenCreating | OpenForWriting, 384));
    CMemoryMeter meter;
    meter.RefuseAbove(900);
    EXPECT_REFUSED(m_Reader.DumpSparseInfo(out, "x", 8), "Out of memory");
}

TEST_F(VHDMemory, WithoutItNothingIsCreated) {
    m_Metadata = BufferOf(CVhdBuilder::Differencing(uint64_t{1} << 20U).Record());
    const std::string path = m_Dir.File("made");
    CMemoryMeter meter;
    meter.RefuseAbove(100'000);
    EXPECT_REFUSED(m_Reader.CreateDisk(path.c_str(), DiskType_VhdDifferencing, m_Metadata), "Out of memory");
}

}  // namespace
