#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "VirtualServer/VMInfo/VmdkVcb4ExtentReader.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/TempDir.h"

namespace {

// Callers rely on it: only a name with a backslash has its slashes taken out.
TEST(VmdkVcb4CreatePosix, ANameWithoutABackslashKeepsItsSlashes) {
    const CTempDir dir;
    std::filesystem::create_directory(dir.File("v1.5"));
    CVmdkVcb4ExtentReader reader;
    CAutoMemory<char> metadata = BufferOf(MetadataRecordText("VDVWVD10", 2, ""));
    ASSERT_OK(reader.CreateDisk(dir.File("v1.5/disk").c_str(), VwExtentTypeFlat, metadata));
    EXPECT_TRUE(std::filesystem::exists(dir.File("v1.5/disk")));
    EXPECT_TRUE(std::filesystem::exists(dir.File("v1.5/disk-flat.vmdk")));
}

}  // namespace
