#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <string>

#include "platform/DriveName.h"
#include "platform/DriveSize.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/TempDir.h"
#include "tests/support/posix/LoopDevice.h"

namespace {

class DriveSize : public testing::Test {
protected:
    DriveSizeResult_t Find(const std::string& name) {
        m_Size = 77;
        m_Error = 77;
        return FindDriveSize(name, m_Size, m_Error);
    }

    CTempDir m_Dir;
    uint64_t m_Size = 0;
    uint32_t m_Error = 0;
};

TEST_F(DriveSize, IsThatOfTheFileWithOrWithoutThePrefix) {
    const std::string path = m_Dir.WriteHole("hole", uint64_t{5} << 40U);
    for (const std::string& name : {path, DriveNamePrefix + path}) {
        EXPECT_EQ(DriveSizeResult_t::Found, Find(name));
        EXPECT_EQ(uint64_t{5} << 40U, m_Size);
        EXPECT_EQ(0U, m_Error);
    }
}

TEST_F(DriveSize, WithoutAFileThereIsNoHandle) {
    EXPECT_EQ(DriveSizeResult_t::NoHandle, Find(DriveNamePrefix + m_Dir.File("none")));
    EXPECT_EQ(static_cast<uint32_t>(ENOENT), m_Error);
}

TEST_F(DriveSize, WithoutAnAnswerThereIsNoGeometry) {
    const std::string path = m_Dir.Write("disk", "x");
    const CFaultyFiles faulty(Fault_t{FaultOp::Size, 0, EIO});
    EXPECT_EQ(DriveSizeResult_t::NoGeometry, Find(path));
    EXPECT_EQ(static_cast<uint32_t>(EIO), m_Error);
    EXPECT_EQ(1U, faulty.Calls(FaultOp::Close)) << "the handle goes in any case";
}

TEST_F(DriveSize, NeitherFilesNorFoldersNorTerminalsAreBlockDevices) {
    EXPECT_FALSE(IsBlockDevice(m_Dir.Write("disk", "x")));
    EXPECT_FALSE(IsBlockDevice(m_Dir.Path()));
    EXPECT_FALSE(IsBlockDevice(m_Dir.File("none")));
    EXPECT_FALSE(IsBlockDevice("/dev/null"));
    EXPECT_FALSE(IsBlockDevice(""));
}

TEST_F(DriveSize, ABlockDeviceIsKnownUnderEachOfItsNames) {
    const CLoopDevice device(m_Dir.WriteHole("hole", 1 << 20));
    SKIP_WITHOUT_LOOP(device);
    std::string withBackslashes = device.Path();
    for (char& letter : withBackslashes)
        letter = letter == '/' ? '\\' : letter;
    for (const std::string& name : {device.Path(), DriveNamePrefix + device.Path(), withBackslashes}) {
        EXPECT_TRUE(IsBlockDevice(name)) << name;
        EXPECT_EQ(DriveSizeResult_t::Found, Find(name)) << name;
        EXPECT_EQ(1U << 20U, m_Size) << name;
    }
}

}  // namespace
