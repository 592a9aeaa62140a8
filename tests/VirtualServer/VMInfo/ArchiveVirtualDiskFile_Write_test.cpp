#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <string>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/CowdBuilder.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

namespace {

constexpr char NoFileIsOpen[] = "No file is open. Make sure Open succeeded";
constexpr char MetadataIsCorrupted[] = "Metadata header is corrupted";
constexpr uint64_t NoBlock = ~uint64_t{0};

// What a backup keeps of one disk.
struct Backup_t {
    CAutoMemory<char> metadata;
    std::map<uint64_t, std::string> blocks;
};

class ArchiveVirtualDiskFileWrite : public testing::Test {
protected:
    CZuError Create(DiskType_t type, const std::string& record, unsigned int blockSectors = 8) {
        CAutoMemory<char> metadata = BufferOf(record);
        return m_Disk.Create(m_Dir.File("made").c_str(), type, metadata, blockSectors, m_Context);
    }
    CZuError CreateFlat(uint64_t sectors, unsigned int blockSectors = 8) {
        return Create(DiskType_MonolithicFlat, MetadataRecordText("VDVWFT10", sectors, ""), blockSectors);
    }

    CZuError Write(uint64_t number, const std::string& bytes) {
        CAutoMemory<char> data = BufferOf(bytes);
        return m_Disk.WriteBlock(data, number, m_Context);
    }

    Backup_t Backup(const std::string& path, DiskType_t type, unsigned int blockSectors) {
        Backup_t backup;
        CArchiveVirtualDiskFile disk{VirtualProdType_VMware};
        CAutoMemory<char> block;
        uint64_t number = 0;
        Context_t context{};
        EXPECT_OK(disk.Open(path.c_str(), type));
        EXPECT_OK(disk.GetFirstBlock(backup.metadata, blockSectors, context));
        CZuError error = disk.GetNextBlock(block, number, context);
        for (; !error.IsErrorSet(); error = disk.GetNextBlock(block, number, context))
            backup.blocks[number] = BytesOf(block);
        EXPECT_EQ(1, disk.IsErrorEOF(error)) << error.ConvertToString();
        return backup;
    }

    // Restores to the file "made", the last block first.
    void Restore(Backup_t backup, DiskType_t type, unsigned int blockSectors) {
        ASSERT_OK(m_Disk.Create(m_Dir.File("made").c_str(), type, backup.metadata, blockSectors, m_Context));
        EXPECT_EQ(NoBlock, m_Context.blockNumber);
        for (auto block = backup.blocks.rbegin(); block != backup.blocks.rend(); ++block)
            ASSERT_OK(Write(block->first, block->second));
        EXPECT_OK(m_Disk.Close());
    }

    CTempDir m_Dir;
    CArchiveVirtualDiskFile m_Disk{VirtualProdType_VMware};
    Context_t m_Context{77, 88};
};

TEST_F(ArchiveVirtualDiskFileWrite, ASparseDiskComesBackByteForByte) {
    const CVmdkSparseBuilder file = CVmdkSparseBuilder()
                                        .Capacity(3 * 4096)
                                        .Descriptor("text")
                                        .Grain(1535, PatternedBytes(4096, 1))
                                        .Grain(0, PatternedBytes(4096, 2))
                                        .Grain(700, PatternedBytes(4096, 3));
    const std::string path = file.WriteTo(m_Dir);
    for (const int type : {1, 2, 5}) {
        m_Disk = CArchiveVirtualDiskFile(VirtualProdType_VMware);
        Restore(Backup(path, DiskType_t(type), 128), DiskType_t(type), 128);
        EXPECT_EQ(8U, m_Context.blockSectors) << "the grain";
        EXPECT_SAME_BYTES(file.Bytes(), m_Dir.Read("made"));
    }
}

TEST_F(ArchiveVirtualDiskFileWrite, AFlatDiskComesBackByteForByte) {
    const std::string bytes = PatternedBytes(48 * 512);
    const std::string path = m_Dir.Write("flat", bytes);
    for (const int type : {3, 6}) {
        m_Disk = CArchiveVirtualDiskFile(VirtualProdType_VMware);
        Restore(Backup(path, DiskType_t(type), 16), DiskType_t(type), 16);
        EXPECT_EQ(16U, m_Context.blockSectors);
        EXPECT_SAME_BYTES(bytes, m_Dir.Read("made"));
    }
}

TEST_F(ArchiveVirtualDiskFileWrite, CreateServesThePairsThatAReaderServesAndNoOther) {
    for (int product = 0; product <= 4; ++product) {
        for (int type = 0; type <= 20; ++type) {
            SCOPED_TRACE("product " + std::to_string(product) + ", type " + std::to_string(type));
            const bool isVmdk = type == 1 || type == 2 || type == 3 || type == 5 || type == 6 || type == 18;
            const bool isVhd = type >= 12 && type <= 14;
            const bool isDrive = type == 15 || type == 16;
            if ((product == 1 && isVmdk) || (product == 2 && isVhd) || (product == 3 && isDrive))
                continue;
            const bool isPhysical = type == 15 || type == 16 || type == 17 || type == 19;
            std::string text = "Disk type not supported " + std::to_string(type);
            if (product == 3 && !isPhysical)
                text = "Unknown disk type " + std::to_string(type) + " for product type VirtualProdType_Physical";
            if (product == 3 && type == 17)
                text = "Metadata header is corrupted";
            if (product == 3 && type == 19)
                text = "CreateXenVDI() Failed";
            if (product == 2)
                text = "Disk of type " + std::to_string(type) + " is not supported by this class";
            if (product == 0 || product == 4)
                text = "Unknown product type " + std::to_string(product);
            m_Disk = CArchiveVirtualDiskFile(ProductType_t(product));
            m_Context = {5, 5};
            EXPECT_REFUSED(Create(DiskType_t(type), MetadataRecordText("VDVWFT10", 8, "")), text.c_str());
            EXPECT_EQ(NoBlock, m_Context.blockNumber);
            EXPECT_EQ(0U, m_Context.blockSectors);
            EXPECT_REFUSED(Write(0, "x"), NoFileIsOpen);
        }
    }
    EXPECT_TRUE(m_Dir.Entries().empty());
}

TEST_F(ArchiveVirtualDiskFileWrite, CreateIsRefusedWhileADiskIsOpen) {
    ASSERT_OK(CreateFlat(8));
    m_Context = {3, 4};
    EXPECT_REFUSED(CreateFlat(8), "Already have an open file. Close it first");
    EXPECT_EQ(3U, m_Context.blockNumber);
    EXPECT_EQ(4U, m_Context.blockSectors);
    EXPECT_REFUSED(m_Disk.Open("x", DiskType_MonolithicFlat), "Already have an open file. Close it first");
    EXPECT_OK(Write(0, std::string(512, 'x')));
}

TEST_F(ArchiveVirtualDiskFileWrite, ARecordOfAnotherKindIsRefusedAndNothingIsOpen) {
    EXPECT_REFUSED(Create(DiskType_MonolithicSparse, MetadataRecordText("VDVWFT10", 8, "")), MetadataIsCorrupted);
    EXPECT_REFUSED(Create(DiskType_MonolithicFlat, CVmdkSparseBuilder().Record()), MetadataIsCorrupted);
    EXPECT_EQ(NoBlock, m_Context.blockNumber);
    EXPECT_EQ(0U, m_Context.blockSectors);
    EXPECT_REFUSED(Write(0, "x"), NoFileIsOpen);
    EXPECT_TRUE(m_Dir.Entries().empty());
    EXPECT_OK(CreateFlat(8));
}

TEST_F(ArchiveVirtualDiskFileWrite, ACowdDisksRecordIsRefusedAndNothingIsOpen) {
    EXPECT_REFUSED(Create(DiskType_VmfsSparse, CCowdBuilder().Record()),
                   "Metadata header is corrupted. Unknown sparse header type");
    EXPECT_REFUSED(Write(0, "x"), NoFileIsOpen);
    // The reader keeps the file that it made: closing lets it go.
    EXPECT_REFUSED(Create(DiskType_VmfsSparse, CVmdkSparseBuilder().Record()), "Object already have an open file.");
    const CFaultyFiles counting;
    EXPECT_OK(m_Disk.Close());
    EXPECT_EQ(1U, counting.Calls(FaultOp::Close));
}

TEST_F(ArchiveVirtualDiskFileWrite, ABlockOfASparseDiskIsItsGrainWhateverTheContextSays) {
    ASSERT_OK(Create(DiskType_MonolithicSparse, CVmdkSparseBuilder().Grain(3, 'x').Record()));
    EXPECT_EQ(8U, m_Context.blockSectors);
    m_Context.blockSectors = 1;
    ASSERT_OK(Write(3, std::string(4096, 'n') + "cut"));
    EXPECT_REFUSED(Write(3, std::string(512, 'n')), "Data size 512 is less than grain size 4096");
    EXPECT_SAME_BYTES(CVmdkSparseBuilder().Grain(3, 'n').Bytes(), m_Dir.Read("made"));
}

TEST_F(ArchiveVirtualDiskFileWrite, ABlockOfAFlatDiskHasTheContextsSize) {
    ASSERT_OK(CreateFlat(16, 4));
    EXPECT_EQ(4U, m_Context.blockSectors);
    ASSERT_OK(Write(1, std::string(2048, 'a')));
    EXPECT_REFUSED(Write(0, std::string(2049, 'b')), "Data size is greater than grain size");
    m_Context.blockSectors = 2;
    ASSERT_OK(Write(7, std::string(1024, 'c')));
    ASSERT_OK(Write(0, "short"));
    EXPECT_SAME_BYTES("short" + std::string(2043, '\0') + std::string(2048, 'a') + std::string(3072, '\0') +
                          std::string(1024, 'c'),
                      m_Dir.Read("made"));
}

TEST_F(ArchiveVirtualDiskFileWrite, TheReadersConditionsComeAsTheyStand) {
    ASSERT_OK(Create(DiskType_MonolithicSparse, CVmdkSparseBuilder().Grain(3, 'x').Record()));
    const CZuError hole = Write(4, std::string(4096, 'x'));
    EXPECT_CONDITION(hole, 3, 1001, 2);
    EXPECT_CONDITION(Write(512, std::string(4096, 'x')), 3, 1001, 1);
    EXPECT_EQ(0, m_Disk.IsErrorEOF(hole));
    EXPECT_EQ(0, m_Disk.IsErrorNoSpace(hole));
    EXPECT_OK(Write(3, std::string(4096, 'x'))) << "a failed write leaves the disk open";

    m_Disk = CArchiveVirtualDiskFile(VirtualProdType_VMware);
    ASSERT_OK(CreateFlat(8));
    EXPECT_CONDITION(Write(1, "x"), 3, 2001, 1);
}

TEST_F(ArchiveVirtualDiskFileWrite, ACreatedDiskIsForWritingAlone) {
    ASSERT_OK(CreateFlat(8));
    CAutoMemory<char> block;
    uint64_t number = 0;
    EXPECT_EQ(1U, m_Disk.GetNextBlock(block, number, m_Context).GetErrorType());
    EXPECT_EQ(0U, number);
    EXPECT_EQ(1U, m_Disk.ReadBlock(block, 0, m_Context).GetErrorType());
}

TEST_F(ArchiveVirtualDiskFileWrite, AnOpenedDiskIsForReadingAlone) {
    ASSERT_OK(m_Disk.Open(m_Dir.Write("flat", std::string(4096, 'a')).c_str(), DiskType_MonolithicFlat));
    m_Context = {NoBlock, 8};
    EXPECT_EQ(1U, Write(0, std::string(4096, 'b')).GetErrorType());
    EXPECT_EQ(std::string(4096, 'a'), m_Dir.Read("flat"));
}

TEST_F(ArchiveVirtualDiskFileWrite, ASetDiskSizeChangesNothingForImages) {
    ASSERT_OK(CreateFlat(8));
    EXPECT_OK(m_Disk.SetDiskSize(1));
    EXPECT_EQ(4096U, m_Dir.Read("made").size());
    m_Disk = CArchiveVirtualDiskFile(VirtualProdType_VMware);
    ASSERT_OK(Create(DiskType_MonolithicSparse, CVmdkSparseBuilder().Record()));
    EXPECT_OK(m_Disk.SetDiskSize(~uint64_t{0}));
}

TEST_F(ArchiveVirtualDiskFileWrite, EveryFailureOfACreationReachesTheCallerAndNothingIsOpen) {
    const std::string sparse = CVmdkSparseBuilder().Descriptor("text").Record();
    const std::string flat = MetadataRecordText("VDVWFT10", 8, "");
    unsigned int failures = 0;
    for (const FaultOp op : {FaultOp::Open, FaultOp::Seek, FaultOp::Write, FaultOp::Truncate}) {
        for (const DiskType_t type : {DiskType_MonolithicSparse, DiskType_MonolithicFlat}) {
            failures += WalkFailures(op, [&] {
                m_Disk = CArchiveVirtualDiskFile(VirtualProdType_VMware);
                CZuError error = Create(type, type == DiskType_MonolithicFlat ? flat : sparse);
                if (error.IsErrorSet()) {
                    EXPECT_REFUSED(Write(0, "x"), NoFileIsOpen);
                    EXPECT_EQ(0U, m_Context.blockSectors);
                }
                return error;
            });
        }
    }
    EXPECT_EQ(2U + 6 + 6 + 1, failures);
}

TEST_F(ArchiveVirtualDiskFileWrite, EveryFailureOfAWriteReachesTheCallerAndTheDiskStaysOpen) {
    ASSERT_OK(Create(DiskType_MonolithicSparse, CVmdkSparseBuilder().Grain(3, 'x').Record()));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Write})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return Write(3, std::string(4096, 'w')); }));
    m_Disk = CArchiveVirtualDiskFile(VirtualProdType_VMware);
    ASSERT_OK(CreateFlat(8));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Write})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return Write(0, std::string(4096, 'w')); }));
    EXPECT_EQ(std::string(4096, 'w'), m_Dir.Read("made"));
}

}  // namespace
