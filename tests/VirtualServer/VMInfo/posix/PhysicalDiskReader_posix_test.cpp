#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "VirtualServer/VMInfo/ArchiveVirtualDiskFile.h"
#include "VirtualServer/VMInfo/PhysicalDiskReader.h"
#include "platform/DriveName.h"
#include "tests/support/Bytes.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/SameBytes.h"
#include "tests/support/TempDir.h"
#include "tests/support/posix/LoopDevice.h"

#define EXPECT_END_OF_DISK(expression) EXPECT_CONDITION(expression, 3, 8001, 1)

// Drives and block devices as this system has them: a drive's name has a path where others have a number.

namespace {

class PhysicalDrive : public testing::Test {
protected:
    std::string File(uint64_t sectors) {
        m_Bytes = PatternedBytes(sectors * 512);
        return m_Dir.Write("disk", m_Bytes);
    }
    static std::string Drive(const std::string& path) { return DriveNamePrefix + path; }

    CTempDir m_Dir;
    CPhysicalDiskReader m_Reader;
    std::string m_Bytes;
    std::string m_Buffer = std::string(1 << 20, '?');
};

TEST_F(PhysicalDrive, KnowsTheSizeOfTheFileThatHoldsIt) {
    ASSERT_OK(m_Reader.OpenDisk(Drive(File(20)).c_str()));
    EXPECT_EQ(20U * 512, m_Reader.GetDiskSize());
    EXPECT_EQ(Drive(m_Dir.File("disk")), m_Reader.getDiskFileName()) << "as it was given";
    EXPECT_OK(m_Reader.ReadBlock(4, m_Buffer.data(), 4));
    EXPECT_SAME_BYTES(m_Bytes.substr(16 * 512), m_Buffer.substr(0, 4 * 512));
    EXPECT_END_OF_DISK(m_Reader.ReadBlock(5, m_Buffer.data(), 4));
    EXPECT_OK(m_Reader.ReadData(20 * 512 - 7, m_Buffer.data(), 7));
    EXPECT_END_OF_DISK(m_Reader.ReadData(20 * 512 - 7, m_Buffer.data(), 8));
    EXPECT_OK(m_Reader.CloseDisk());
    EXPECT_EQ(0U, m_Reader.GetDiskSize());
}

TEST_F(PhysicalDrive, CanBeATargetToo) {
    ASSERT_OK(m_Reader.CreateDisk(Drive(File(20)).c_str()));
    EXPECT_EQ(0U, m_Reader.GetDiskSize()) << "a target's size is what was set";
    CAutoMemory<char> data = BufferOf(std::string(4 * 512, 'x'));
    EXPECT_OK(m_Reader.WriteBlock(4, 4, data));
    EXPECT_SAME_BYTES(m_Bytes.substr(0, 16 * 512) + std::string(4 * 512, 'x'), m_Dir.Read("disk"));
}

TEST_F(PhysicalDrive, WithoutSizeIsNotOpen) {
    const std::string name = Drive(File(20));
    const struct {
        Fault_t fault;
        const char* text;
    } rows[] = {
        {{FaultOp::Open, 1, EACCES}, "Could not open disk handle to find size."},
        {{FaultOp::Size, 0, EACCES}, "Error in getting disk geometry."},
    };
    for (const auto& row : rows) {
        const CFaultyFiles faulty(row.fault);
        EXPECT_CONDITION_TEXT(m_Reader.OpenDisk(name.c_str()), 4, EACCES, 0, row.text)
            << "the system's number in the module's place";
        EXPECT_TRUE(faulty.Fired());
        EXPECT_REFUSED(m_Reader.ReadData(0, m_Buffer.data(), 1),
                       "Object is in invalid state. Make sure OpenDisk succeeded");
    }
    const CFaultyFiles faulty(Fault_t{FaultOp::Open, 0, EACCES});
    EXPECT_SYSTEM_ERROR(m_Reader.OpenDisk(name.c_str()), EACCES);
}

TEST_F(PhysicalDrive, OfNoFileIsAnError) {
    EXPECT_SYSTEM_ERROR(m_Reader.OpenDisk(Drive(m_Dir.File("none")).c_str()), ENOENT);
    EXPECT_SYSTEM_ERROR(m_Reader.OpenDisk(DriveNamePrefix), ENOENT);
}

TEST_F(PhysicalDrive, LeavesNoHandleOpenBehindItsSize) {
    const std::string name = Drive(File(20));
    const CFaultyFiles counting;
    ASSERT_OK(m_Reader.OpenDisk(name.c_str()));
    EXPECT_EQ(2U, counting.Calls(FaultOp::Open));
    EXPECT_EQ(1U, counting.Calls(FaultOp::Close));
    EXPECT_OK(m_Reader.CloseDisk());
    EXPECT_EQ(2U, counting.Calls(FaultOp::Close));
}

TEST_F(PhysicalDrive, IsABlockDeviceWhoseSizeIsKnownUnderBothNames) {
    const CLoopDevice device(File(64));
    SKIP_WITHOUT_LOOP(device);
    for (const std::string& name : {device.Path(), Drive(device.Path())}) {
        CPhysicalDiskReader reader;
        ASSERT_OK(reader.OpenDisk(name.c_str())) << name;
        EXPECT_EQ(64U * 512, reader.GetDiskSize()) << name;
        EXPECT_OK(reader.ReadBlock(7, m_Buffer.data(), 8));
        EXPECT_SAME_BYTES(m_Bytes.substr(56 * 512), m_Buffer.substr(0, 8 * 512));
        EXPECT_END_OF_DISK(reader.ReadBlock(8, m_Buffer.data(), 8));
        EXPECT_OK(reader.CloseDisk());
    }
}

TEST_F(PhysicalDrive, TakesBlocksAsADevice) {
    const CLoopDevice device(File(64));
    SKIP_WITHOUT_LOOP(device);
    CAutoMemory<char> data = BufferOf(std::string(8 * 512, 'x'));
    ASSERT_OK(m_Reader.CreateDisk(device.Path().c_str()));
    EXPECT_OK(m_Reader.WriteBlock(7, 8, data));
    EXPECT_FAILURE(m_Reader.WriteBlock(8, 8, data)) << "a device doesn't grow";
    EXPECT_OK(m_Reader.CloseDisk());
    ASSERT_TRUE(device.Flush());
    EXPECT_SAME_BYTES(m_Bytes.substr(0, 56 * 512) + std::string(8 * 512, 'x'), m_Dir.Read("disk"));
}

TEST_F(PhysicalDrive, StreamsAsADeviceUpToItsEnd) {
    const CLoopDevice device(File(60));
    SKIP_WITHOUT_LOOP(device);
    CArchiveVirtualDiskFile disk{VirtualProdType_Physical};
    ASSERT_OK(disk.Open(device.Path().c_str(), DiskType_PhysicalDisk));
    CAutoMemory<char> block;
    Context_t context{};
    ASSERT_OK(disk.GetFirstBlock(block, 8, context));
    uint64_t number = 0;
    std::string bytes;
    CZuError error = disk.GetNextBlock(block, number, context);
    for (; !error.IsErrorSet(); error = disk.GetNextBlock(block, number, context))
        bytes += BytesOf(block);
    EXPECT_CONDITION_TEXT(error, 7, 5001, 1, "Read out of range");
    EXPECT_SAME_BYTES(m_Bytes.substr(0, 56 * 512), bytes) << "whole blocks alone";
    EXPECT_EQ(7U, number);
    EXPECT_OK(disk.Close());
}

}  // namespace
