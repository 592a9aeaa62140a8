#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <set>
#include <string>
#include <utility>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/CowdBuilder.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/VhdBuilder.h"
#include "tests/support/VmdkSparseBuilder.h"

namespace {

constexpr char NoFileIsOpen[] = "No file is open. Make sure Open succeeded";
constexpr char AlreadyOpen[] = "Already have an open file. Close it first";
constexpr char NoXenName[] =
    R"(OpenDisk() failed. Not in expected format. Expected format="<VDIGUID>#\\?\PhysicalDriveX")";
constexpr uint64_t NoBlock = ~uint64_t{0};

bool IsSparse(int type) {
    return type == 1 || type == 2 || type == 5;
}

bool IsFlat(int type) {
    return type == 3 || type == 6;
}

bool IsServed(int product, int type) {
    const bool isVhd = type >= 12 && type <= 14;
    const bool isPhysical = type == 15 || type == 16 || type == 19;
    return (product == 1 && (IsSparse(type) || IsFlat(type))) || (product == 2 && isVhd) ||
           (product == 3 && isPhysical);
}

class ArchiveVirtualDiskFileOpen : public testing::Test {
protected:
    std::string Sparse() const { return CVmdkSparseBuilder().Grain(1, 'x').WriteTo(m_Dir); }
    std::string Flat() const { return m_Dir.Write("flat", PatternedBytes(16 * 512)); }
    std::string Vhd(int type) const {
        const CVhdBuilder files[] = {CVhdBuilder::Fixed(16), CVhdBuilder::Dynamic(16), CVhdBuilder::Differencing(16)};
        return files[type - 12].WriteTo(m_Dir);
    }
    std::string FileFor(int type) const {
        if (type >= 12 && type <= 14)
            return Vhd(type);
        if (type == 19)
            return "vdi#" + Flat();
        return IsSparse(type) ? Sparse() : Flat();
    }

    void ExpectClosed(CArchiveVirtualDiskFile& disk) {
        CAutoMemory<char> buffer = BufferOf("emptied");
        Context_t context{5, 8};
        EXPECT_REFUSED(disk.GetFirstBlock(buffer, 8, context), NoFileIsOpen);
        EXPECT_EQ(0U, buffer.GetSize());
        EXPECT_EQ(5U, context.blockNumber);
        EXPECT_EQ(8U, context.blockSectors);
    }

    CTempDir m_Dir;
    CArchiveVirtualDiskFile m_Disk{VirtualProdType_VMware};
};

// A reader that lands takes its pairs out of the refused ones.
TEST_F(ArchiveVirtualDiskFileOpen, TakesThePairsThatAReaderServesAndNoOther) {
    for (int product = 1; product <= 3; ++product) {
        for (int type = 0; type <= 20; ++type) {
            SCOPED_TRACE("product " + std::to_string(product) + ", type " + std::to_string(type));
            CArchiveVirtualDiskFile disk{ProductType_t(product)};
            const CZuError error = disk.Open(FileFor(type).c_str(), DiskType_t(type));
            if (IsServed(product, type)) {
                EXPECT_OK(error);
                continue;
            }
            if (product == 1 && type == DiskType_VMInfoDisk) {
                EXPECT_REFUSED(error, "Failed to SetCurrVmdkFile.") << "its reader has no server to ask";
                continue;
            }
            if (product == 3 && type == DiskType_NTFSVolume) {
                EXPECT_EQ(1U, error.GetErrorType()) << "what the system says to a file without a volume";
                ExpectClosed(disk);
                continue;
            }
            EXPECT_REFUSED(error, ("Disk type not supported " + std::to_string(type)).c_str());
            ExpectClosed(disk);
        }
    }
    CArchiveVirtualDiskFile disk{VirtualProdType_Physical};
    EXPECT_REFUSED(disk.Open(Flat().c_str(), DiskType_XenVDI), NoXenName);
    ExpectClosed(disk);
}

TEST_F(ArchiveVirtualDiskFileOpen, RefusesAnUnknownProductWhateverTheType) {
    for (const int product : {0, 4, -1}) {
        for (const int type : {0, 1, 99}) {
            CArchiveVirtualDiskFile disk{ProductType_t(product)};
            EXPECT_REFUSED(disk.Open(Sparse().c_str(), DiskType_t(type)),
                           ("Unknown product type " + std::to_string(product)).c_str());
            ExpectClosed(disk);
        }
    }
}

TEST_F(ArchiveVirtualDiskFileOpen, ASecondOpenIsRefusedAndKeepsTheFirst) {
    ASSERT_OK(m_Disk.Open(Sparse().c_str(), DiskType_MonolithicSparse));
    EXPECT_REFUSED(m_Disk.Open(Flat().c_str(), DiskType_MonolithicFlat), AlreadyOpen);
    EXPECT_REFUSED(m_Disk.Open(nullptr, DiskType_t(99)), AlreadyOpen);
    CAutoMemory<char> block;
    uint64_t number = 0;
    Context_t context{NoBlock, 8};
    ASSERT_OK(m_Disk.GetNextBlock(block, number, context));
    EXPECT_SAME_BYTES(std::string(4096, 'x'), BytesOf(block));
}

TEST_F(ArchiveVirtualDiskFileOpen, PassesOnWhatTheReaderRefuses) {
    for (const int type : {1, 2, 5, 3, 6}) {
        EXPECT_REFUSED(m_Disk.Open(nullptr, DiskType_t(type)), "Invalid Parameter") << type;
        EXPECT_SYSTEM_ERROR(m_Disk.Open(m_Dir.File("none").c_str(), DiskType_t(type)), ENOENT) << type;
    }
    EXPECT_REFUSED(m_Disk.Open(m_Dir.Write("odd", "odd").c_str(), DiskType_MonolithicFlat),
                   "File size 3 is not a multiple of sector size 512");
    EXPECT_REFUSED(m_Disk.Open(Flat().c_str(), DiskType_MonolithicSparse),
                   "File signature does not match with standard sparse extent signatures VMDK or COWD");
    ExpectClosed(m_Disk);
    EXPECT_OK(m_Disk.Open(Flat().c_str(), DiskType_MonolithicFlat)) << "a failed open leaves the object closed";
}

TEST_F(ArchiveVirtualDiskFileOpen, EverySparseTypeTakesBothFormsOfTheFile) {
    const std::string hosted = Sparse();
    const std::string cowd = CCowdBuilder().WriteTo(m_Dir);
    for (const int type : {1, 2, 5}) {
        EXPECT_OK(CArchiveVirtualDiskFile(VirtualProdType_VMware).Open(hosted.c_str(), DiskType_t(type)));
        EXPECT_OK(CArchiveVirtualDiskFile(VirtualProdType_VMware).Open(cowd.c_str(), DiskType_t(type)));
    }
}

TEST_F(ArchiveVirtualDiskFileOpen, EveryFailureReachesTheCallerAndLeavesTheObjectClosed) {
    const std::pair<std::string, DiskType_t> disks[] = {{Sparse(), DiskType_MonolithicSparse},
                                                        {Flat(), DiskType_MonolithicFlat}};
    for (const auto& [path, type] : disks) {
        unsigned int failures = 0;
        for (const FaultOp op : {FaultOp::Open, FaultOp::Size, FaultOp::Seek, FaultOp::Read}) {
            failures += WalkFailures(op, [&, path = path, type = type] {
                CArchiveVirtualDiskFile disk{VirtualProdType_VMware};
                CZuError error = disk.Open(path.c_str(), type);
                if (error.IsErrorSet())
                    ExpectClosed(disk);
                return error;
            });
        }
        EXPECT_GE(failures, 2U);
    }
}

// Callers rely on it: one object serves one disk, and its product goes with the closing.
TEST_F(ArchiveVirtualDiskFileOpen, AfterCloseTheProductIsUnknown) {
    ASSERT_OK(m_Disk.Open(Sparse().c_str(), DiskType_MonolithicSparse));
    EXPECT_OK(m_Disk.Close());
    ExpectClosed(m_Disk);
    EXPECT_REFUSED(m_Disk.Open(Sparse().c_str(), DiskType_MonolithicSparse), "Unknown product type 0");
    CAutoMemory<char> metadata = BufferOf(MetadataRecordText("VDVWFT10", 1, ""));
    Context_t context{};
    EXPECT_REFUSED(m_Disk.Create(m_Dir.File("made").c_str(), DiskType_MonolithicFlat, metadata, 8, context),
                   "Unknown product type 0");
    EXPECT_OK(m_Disk.Close());
}

TEST_F(ArchiveVirtualDiskFileOpen, ClosingWhatWasNeverOpenTakesTheProductToo) {
    EXPECT_OK(m_Disk.Close());
    EXPECT_REFUSED(m_Disk.Open(Sparse().c_str(), DiskType_MonolithicSparse), "Unknown product type 0");
}

TEST_F(ArchiveVirtualDiskFileOpen, CloseClosesTheFileAndSucceedsWhateverTheSystemSays) {
    const std::pair<std::string, DiskType_t> disks[] = {{Sparse(), DiskType_MonolithicSparse},
                                                        {Flat(), DiskType_MonolithicFlat}};
    for (const auto& [path, type] : disks) {
        CArchiveVirtualDiskFile disk{VirtualProdType_VMware};
        ASSERT_OK(disk.Open(path.c_str(), type));
        const CFaultyFiles faulty(Fault_t{FaultOp::Close, 0, EIO});
        EXPECT_OK(disk.Close());
        EXPECT_TRUE(faulty.Fired());
        ExpectClosed(disk);
    }
}

TEST_F(ArchiveVirtualDiskFileOpen, AClosedObjectRefusesEveryBlockCallAndStillSetsTheNumber) {
    CAutoMemory<char> block = BufferOf("emptied");
    uint64_t number = 99;
    Context_t context{7, 8};
    EXPECT_REFUSED(m_Disk.GetNextBlock(block, number, context), NoFileIsOpen);
    EXPECT_EQ(0U, block.GetSize());
    EXPECT_EQ(7U, number);
    EXPECT_EQ(7U, context.blockNumber);

    block = BufferOf("emptied");
    EXPECT_REFUSED(m_Disk.ReadBlock(block, 33, context), NoFileIsOpen);
    EXPECT_EQ(0U, block.GetSize());
    EXPECT_EQ(33U, context.blockNumber);

    block = BufferOf("kept");
    EXPECT_REFUSED(m_Disk.WriteBlock(block, 1, context), NoFileIsOpen);
    EXPECT_EQ("kept", BytesOf(block));
    EXPECT_REFUSED(m_Disk.SetDiskSize(512), NoFileIsOpen);
}

TEST_F(ArchiveVirtualDiskFileOpen, TheFileNameIsEmptyForEveryImage) {
    for (const auto& [product, type] :
         {std::pair{1, 0}, {1, 1}, {1, 3}, {2, 12}, {2, 13}, {2, 14}, {3, 15}, {3, 16}, {3, 19}}) {
        CArchiveVirtualDiskFile disk{ProductType_t(product)};
        if (type != 0) {
            ASSERT_OK(disk.Open(FileFor(type).c_str(), DiskType_t(type)));
        }
        std::string name = "emptied";
        disk.GetFileName(name);
        EXPECT_EQ("", name);
    }
}

TEST_F(ArchiveVirtualDiskFileOpen, WhatAHypervisorsDiskNeedsChangesNothingForImages) {
    m_Disk.SetVMInfo(nullptr, nullptr, "b");
    m_Disk.SetDataStore(nullptr);
    m_Disk.SetChangeId("id");
    m_Disk.SetExtentSize(12345);
    ASSERT_OK(m_Disk.Open(Sparse().c_str(), DiskType_MonolithicSparse));
    CAutoMemory<char> metadata;
    Context_t context{};
    ASSERT_OK(m_Disk.GetFirstBlock(metadata, 77, context));
    EXPECT_EQ(8U, context.blockSectors);
}

TEST_F(ArchiveVirtualDiskFileOpen, OnlyTheirOwnTriplesAreTheConditions) {
    const struct {
        int type;
        unsigned long module;
        unsigned long code;
        int isEnd;
        int isNoSpace;
        int isReadOnly;
    } rows[] = {
        {7, 5001, 1, 1, 0, 0}, {7, 5001, 4, 0, 1, 0}, {7, 5001, 5, 0, 0, 1}, {7, 5001, 2, 0, 0, 0},
        {7, 3001, 1, 0, 0, 0}, {3, 5001, 1, 0, 0, 0}, {3, 5001, 4, 0, 0, 0}, {3, 5001, 5, 0, 0, 0},
        {3, 1001, 1, 0, 0, 0}, {3, 2001, 1, 0, 0, 0}, {7, 5002, 4, 0, 0, 0}, {7, 5002, 5, 0, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.type) + "/" + std::to_string(row.module) + "/" + std::to_string(row.code));
        CZuError error;
        error.SetError(row.type, row.module, row.code, "x", __FILE__, __LINE__);
        EXPECT_EQ(row.isEnd, m_Disk.IsErrorEOF(error));
        EXPECT_EQ(row.isNoSpace, m_Disk.IsErrorNoSpace(error));
        EXPECT_EQ(row.isReadOnly, m_Disk.IsErrorReadOnly(error));
    }
}

TEST_F(ArchiveVirtualDiskFileOpen, ParsingTheRecordOfAnImageTouchesNothing) {
    CAutoMemory<char> metadata = BufferOf("record");
    DiskGeometry_t geometry{1, 2, 3};
    DiskProvisioningType_t provisioning = DiskProvisioning_Thin;
    std::string texts[] = {"adapter", "uuid", "version"};
    for (const int type : {1, 3, 6, 12, 13, 15, 17, 19}) {
        EXPECT_OK(
            m_Disk.ParseDiskMetaData(DiskType_t(type), metadata, geometry, provisioning, texts[0], texts[1], texts[2]))
            << type;
        EXPECT_EQ(1U, geometry.cylinders);
        EXPECT_EQ(2U, geometry.heads);
        EXPECT_EQ(3U, geometry.sectors);
        EXPECT_EQ(DiskProvisioning_Thin, provisioning);
        EXPECT_EQ("adapter/uuid/version", texts[0] + "/" + texts[1] + "/" + texts[2]);
        EXPECT_EQ("record", BytesOf(metadata));
    }
    EXPECT_REFUSED(m_Disk.ParseDiskMetaData(NoDiskType, metadata, geometry, provisioning, texts[0], texts[1], texts[2]),
                   "unknown disk type");
}

}  // namespace
