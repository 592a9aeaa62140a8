#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/DriveOfFile.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FailureWalk.h"
#include "tests/support/FakeXenHost.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/XenRecordXml.h"

#define EXPECT_END_OF_DISK(expression) EXPECT_CONDITION_TEXT(expression, 7, 5001, 1, "Read out of range")

namespace {

constexpr uint64_t NoBlock = ~uint64_t{0};
constexpr char NoFileIsOpen[] = "No file is open. Make sure Open succeeded";
constexpr char NoNewImage[] = "CreateXenVDI() Failed";

class ArchiveVirtualDiskFileXen : public testing::Test {
protected:
    ArchiveVirtualDiskFileXen() {
        m_Disk.SetVMInfo(&m_Host, "first", "second");
        m_Host.onRecord = [](xen_vdi_record& record) { record = SoundXenRecord(); };
    }

    // A device as this machine sees it, whose size is known where it is opened as a drive.
    std::string Device(uint64_t sectors) {
        m_Bytes = PatternedBytes(sectors * 512);
        return m_Dir.Write("device", m_Bytes);
    }
    CZuError Open(const std::string& device) { return m_Disk.Open(("vdi-1#" + device).c_str(), DiskType_XenVDI); }
    CZuError Create(const std::string& xml) {
        CAutoMemory<char> metadata = BufferOf(xml);
        return m_Disk.Create(m_Dir.File("disk").c_str(), DiskType_XenVDI, metadata, 8, m_Context);
    }
    CZuError Write(uint64_t number, const std::string& bytes) {
        CAutoMemory<char> data = BufferOf(bytes);
        return m_Disk.WriteBlock(data, number, m_Context);
    }
    CZuError Next() {
        CZuError error = m_Disk.GetNextBlock(m_Block, m_Number, m_Context);
        EXPECT_EQ(m_Context.blockNumber, m_Number) << "in every case";
        return error;
    }

    CTempDir m_Dir;
    CFakeXenHost m_Host;
    CArchiveVirtualDiskFile m_Disk{VirtualProdType_Physical};
    CAutoMemory<char> m_Block;
    uint64_t m_Number = 0;
    Context_t m_Context{5, 77};
    std::string m_Bytes;
};

TEST_F(ArchiveVirtualDiskFileXen, TheStreamHasTheServersRecordAndBlocksOf512Sectors) {
    const std::string device = Device(1024);
    SKIP_UNLESS_A_FILE_CAN_BE_A_DRIVE(device);
    ASSERT_OK(Open(DriveOfFile(device)));
    for (const unsigned int blockSectors : {0U, 8U, 4096U}) {
        CAutoMemory<char> metadata = BufferOf("replaced");
        ASSERT_OK(m_Disk.GetFirstBlock(metadata, blockSectors, m_Context));
        EXPECT_EQ(CXenRecordXml().Document(), BytesOf(metadata));
        EXPECT_EQ(NoBlock, m_Context.blockNumber);
        EXPECT_EQ(512U, m_Context.blockSectors);
    }
    EXPECT_EQ("vdi-1", m_Host.records.at(0).uuid);
    std::string bytes;
    CZuError end = Next();
    for (; !end.IsErrorSet(); end = Next())
        bytes += BytesOf(m_Block);
    EXPECT_SAME_BYTES(m_Bytes, bytes);
    EXPECT_END_OF_DISK(end);
    EXPECT_EQ(1, m_Disk.IsErrorEOF(end));
    EXPECT_EQ(2U, m_Number);
}

TEST_F(ArchiveVirtualDiskFileXen, TheStreamsBlocksStay512SectorsWhateverSizeIsSet) {
    m_Disk.SetExtentSize(16);
    ASSERT_OK(Open(Device(16)));
    CAutoMemory<char> metadata;
    ASSERT_OK(m_Disk.GetFirstBlock(metadata, 16, m_Context));
    EXPECT_EQ(512U, m_Context.blockSectors);
}

TEST_F(ArchiveVirtualDiskFileXen, WithoutTheServersRecordThereIsNoStream) {
    ASSERT_OK(Open(Device(16)));
    m_Host.recordAnswer = 1;
    CAutoMemory<char> metadata = BufferOf("emptied");
    EXPECT_REFUSED(m_Disk.GetFirstBlock(metadata, 16, m_Context), "VDI ");
    EXPECT_EQ(0U, metadata.GetSize());
}

TEST_F(ArchiveVirtualDiskFileXen, ReadsAnyBlockUpToTheSizeInTheRecord) {
    m_Host.device = Device(24);
    ASSERT_OK(Create(CXenRecordXml().Put("Virtual_size", "12288").Document()));
    m_Context = {NoBlock, 8};
    ASSERT_OK(m_Disk.ReadBlock(m_Block, 2, m_Context));
    EXPECT_SAME_BYTES(m_Bytes.substr(16 * 512), BytesOf(m_Block));
    EXPECT_END_OF_DISK(m_Disk.ReadBlock(m_Block, 3, m_Context));
    EXPECT_END_OF_DISK(m_Disk.ReadBlock(m_Block, uint64_t{1} << 61U, m_Context)) << "its sector would be 0";
}

TEST_F(ArchiveVirtualDiskFileXen, ADeviceOfUnknownSizeEndsWithTheReadThatFails) {
    ASSERT_OK(Open(Device(20)));
    m_Context = {NoBlock, 8};
    EXPECT_OK(Next());
    EXPECT_OK(Next());
    const CZuError end = Next();
    EXPECT_FAILURE(end);
    EXPECT_EQ(0, m_Disk.IsErrorEOF(end));
}

TEST_F(ArchiveVirtualDiskFileXen, PassesOnWhatTheReaderRefuses) {
    EXPECT_SYSTEM_ERROR(Open(m_Dir.File("none")), ENOENT);
    EXPECT_REFUSED(Next(), NoFileIsOpen);
    ASSERT_OK(Open(Device(8)));
    EXPECT_REFUSED(Open("x"), "Already have an open file. Close it first");
}

TEST_F(ArchiveVirtualDiskFileXen, ANewImageIsMadeFromTheRecordAndWritten) {
    m_Disk.SetDataStore("store\x12user");
    m_Disk.SetExtentSize((uint64_t{7} << 32U) + 8);
    m_Host.device = Device(24);
    ASSERT_OK(Create(CXenRecordXml().Document()));
    EXPECT_EQ((std::vector<std::string>{"prepare", "create"}), m_Host.questions);
    EXPECT_EQ("store", m_Host.records.at(0).sr_guid);
    EXPECT_EQ("disk one", m_Host.records.at(1).name_label);
    EXPECT_EQ(NoBlock, m_Context.blockNumber);
    EXPECT_EQ(8U, m_Context.blockSectors) << "the low 32 bits of what was set";

    EXPECT_OK(Write(2, std::string(8 * 512, 'x')));
    EXPECT_REFUSED(Write(0, std::string(8 * 512 + 1, 'x')), "Data size is greater than grain size");
    PutBytes(m_Bytes, 16 * 512, std::string(8 * 512, 'x'));
    EXPECT_SAME_BYTES(m_Bytes, m_Dir.Read("device"));
    ASSERT_OK(m_Disk.ReadBlock(m_Block, 2, m_Context)) << "a target can be read";
    EXPECT_SAME_BYTES(m_Bytes.substr(16 * 512), BytesOf(m_Block));
}

TEST_F(ArchiveVirtualDiskFileXen, ANewImagesBlocksHave512SectorsUntilSet) {
    m_Host.device = Device(8);
    ASSERT_OK(Create(CXenRecordXml().Document()));
    EXPECT_EQ(512U, m_Context.blockSectors) << "not the argument";
}

TEST_F(ArchiveVirtualDiskFileXen, AnyFailureOfANewImageIsToldInTheSameWords) {
    m_Host.device = Device(8);
    EXPECT_REFUSED(Create("no record"), NoNewImage);
    EXPECT_EQ(NoBlock, m_Context.blockNumber);
    EXPECT_EQ(0U, m_Context.blockSectors);
    m_Host.prepareAnswer = 1;
    EXPECT_REFUSED(Create(CXenRecordXml().Document()), NoNewImage);
    m_Host.prepareAnswer = 0;
    m_Host.createAnswer = 1;
    EXPECT_REFUSED(Create(CXenRecordXml().Document()), NoNewImage);
    m_Host.createAnswer = 0;
    m_Host.device = m_Dir.File("none");
    EXPECT_REFUSED(Create(CXenRecordXml().Document()), NoNewImage);
    EXPECT_REFUSED(Write(0, "x"), NoFileIsOpen);
    m_Host.device = m_Dir.File("device");
    EXPECT_OK(Create(CXenRecordXml().Document())) << "a failure leaves the object closed";

    CArchiveVirtualDiskFile alone{VirtualProdType_Physical};
    CAutoMemory<char> metadata = BufferOf(CXenRecordXml().Document());
    EXPECT_REFUSED(alone.Create(m_Dir.File("disk").c_str(), DiskType_XenVDI, metadata, 8, m_Context), NoNewImage)
        << "without a server";
}

TEST_F(ArchiveVirtualDiskFileXen, ASizeThatIsSetDoesNotReachTheImage) {
    EXPECT_REFUSED(m_Disk.SetDiskSize(1), NoFileIsOpen);
    ASSERT_OK(Open(Device(24)));
    EXPECT_OK(m_Disk.SetDiskSize(8 * 512));
    m_Context = {NoBlock, 8};
    EXPECT_OK(m_Disk.ReadBlock(m_Block, 2, m_Context));
}

TEST_F(ArchiveVirtualDiskFileXen, CloseLeavesTheDeviceOpenUntilTheObjectsEnd) {
    const std::string device = Device(8);
    const CFaultyFiles counting;
    {
        CArchiveVirtualDiskFile disk{VirtualProdType_Physical};
        ASSERT_OK(disk.Open(("vdi#" + device).c_str(), DiskType_XenVDI));
        EXPECT_OK(disk.Close());
        EXPECT_EQ(0U, counting.Calls(FaultOp::Close));
        EXPECT_REFUSED(disk.GetNextBlock(m_Block, m_Number, m_Context), NoFileIsOpen);
        EXPECT_REFUSED(disk.Open(("vdi#" + device).c_str(), DiskType_XenVDI), "Unknown product type 0");
    }
    EXPECT_EQ(1U, counting.Calls(FaultOp::Close));
}

TEST_F(ArchiveVirtualDiskFileXen, AStreamThatIsBackedUpComesBack) {
    ASSERT_OK(Open(Device(1024)));
    CAutoMemory<char> metadata;
    ASSERT_OK(m_Disk.GetFirstBlock(metadata, 0, m_Context));
    m_Host.device = m_Dir.Write("target", std::string(m_Bytes.size(), '\0'));
    CArchiveVirtualDiskFile target{VirtualProdType_Physical};
    target.SetVMInfo(&m_Host, nullptr, nullptr);
    Context_t targetContext{};
    ASSERT_OK(target.Create(m_Dir.File("restored").c_str(), DiskType_XenVDI, metadata, 0, targetContext));
    EXPECT_EQ(m_Context.blockSectors, targetContext.blockSectors);
    for (CZuError end = Next(); !end.IsErrorSet(); end = Next())
        EXPECT_OK(target.WriteBlock(m_Block, m_Number, targetContext));
    EXPECT_SAME_BYTES(m_Bytes, m_Dir.Read("target"));
}

TEST_F(ArchiveVirtualDiskFileXen, EveryFailureOfTheDeviceReachesTheCaller) {
    const std::string path = Device(24);
    EXPECT_EQ(1U, WalkFailures(FaultOp::Open, [&] {
                  CArchiveVirtualDiskFile disk{VirtualProdType_Physical};
                  return disk.Open(("vdi#" + path).c_str(), DiskType_XenVDI);
              }));
    m_Host.device = path;
    m_Disk.SetExtentSize(8);
    ASSERT_OK(Create(CXenRecordXml().Element()));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Read})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return m_Disk.ReadBlock(m_Block, 1, m_Context); }));
    for (const FaultOp op : {FaultOp::Seek, FaultOp::Write})
        EXPECT_EQ(1U, WalkFailures(op, [&] { return Write(1, std::string(4096, 'w')); }));
}

}  // namespace
