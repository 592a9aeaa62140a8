#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "VirtualServer/VMInfo/VmdkFlatExtentReader.h"
#include "VirtualServer/VMInfo/VmdkSparseExtentReader.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/MetadataRecordText.h"
#include "tests/support/TempDir.h"
#include "tests/support/VmdkSparseBuilder.h"

namespace {

TEST(VmdkFileMode, OnlyTheOwnerReadsAndWritesWhatIsCreated) {
    const CTempDir dir;
    CAutoMemory<char> flat = BufferOf(MetadataRecordText("VDVWFT10", 1, ""));
    CAutoMemory<char> sparse = BufferOf(CVmdkSparseBuilder().Record());
    ASSERT_OK(CVmdkFlatExtentReader().CreateExtent(dir.File("flat").c_str(), VwExtentTypeFlat, flat));
    ASSERT_OK(CVmdkSparseExtentReader().CreateExtent(dir.File("sparse").c_str(), VwExtentTypeSparse, sparse));
    for (const char* const name : {"flat", "sparse"}) {
        const auto mode = std::filesystem::status(dir.File(name)).permissions();
        EXPECT_EQ(std::filesystem::perms::owner_read | std::filesystem::perms::owner_write, mode) << name;
    }
}

}  // namespace
