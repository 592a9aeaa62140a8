#include "platform/DriveSize.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <cstdint>
#include <string>

#include "platform/DriveName.h"
#include "tests/support/TempDir.h"

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

TEST_F(DriveSize, IsWhatTheDriveTells) {
    const DriveSizeResult_t result = Find(DriveNamePrefix + std::string("0"));
    if (result == DriveSizeResult_t::NoHandle)
        GTEST_SKIP() << "no first drive: " << m_Error;
    EXPECT_EQ(DriveSizeResult_t::Found, result);
    EXPECT_EQ(0U, m_Error);
    EXPECT_LT(0U, m_Size);
    EXPECT_EQ(0U, m_Size % 512);
}

TEST_F(DriveSize, ADriveThatIsntThereHasNoHandle) {
    EXPECT_EQ(DriveSizeResult_t::NoHandle, Find(DriveNamePrefix + std::string("4711")));
    EXPECT_EQ(static_cast<uint32_t>(ERROR_FILE_NOT_FOUND), m_Error);
    EXPECT_EQ(DriveSizeResult_t::NoHandle, Find(DriveNamePrefix + m_Dir.Write("disk", "x"))) << "a path is no number";
}

TEST_F(DriveSize, AFileHasAHandleAndNoGeometry) {
    EXPECT_EQ(DriveSizeResult_t::NoGeometry, Find(m_Dir.Write("disk", "x")));
    EXPECT_NE(0U, m_Error);
}

TEST_F(DriveSize, NoNameIsThatOfABlockDevice) {
    EXPECT_FALSE(IsBlockDevice(m_Dir.Write("disk", "x")));
    EXPECT_FALSE(IsBlockDevice(DriveNamePrefix + std::string("0")));
}

}  // namespace
