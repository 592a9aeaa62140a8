#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/posix/ChildProcess.h"

// What the mapping of a volume tells the log.

namespace {

TEST(LvmMappingLog, TellsEachPieceAndWhereAHoleIs) {
    if (InChildProcess()) {
        LVM_Volume_t volume;
        volume.Segments.resize(1);
        for (const uint64_t start : {0, 10}) {
            LVM_Component_t component;
            component.HardDiskIndex = 0;
            component.DiskLBAStart = 100 + start;
            component.VolLBAStart = start;
            component.VolLBAEnd = start + 9;
            volume.Segments[0].Components.push_back(component);
        }
        ExtentSparseInfo_t extent;
        extent.ExtentEndLBA = 999;
        extent.BlockSize = 8;
        SparseInfo_t disks = {{{extent}}};
        std::vector<LVM_Disk_Offset_Len_t> runs;
        EXPECT_OK(CLVM::ConvertVolumeOffsetToDiskExtents(5 * 512, 6 * 512, volume, disks, runs));
        disks[0][0][0].GrainSize = 8;
        disks[0][0][0].GrainsPerBucket = 8;
        disks[0][0][0].BucketCount = 8;
        EXPECT_FAILURE(CLVM::ConvertVolumeOffsetToDiskExtents(10 * 512 + 1, 1000, volume, disks, runs));
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    size_t at = 0;
    for (const char* const text :
         {"debug CLVM::ConvertVolumeOffsetToDiskExtents 1..llOffsetLBA = 5\n",
          "debug CLVM::ConvertVolumeOffsetToDiskExtents 1..llOffsetLBA = 10\n",
          "debug CLVM::ConvertVolumeOffsetToDiskExtents 1..llOffsetLBA = 10\n",
          "llOffset=5121\\x09llDiskReadLength=1000\\x09harddiskindex=0\\x09llDiskOffset=56321\n"}) {
        at = child.errorOutput.find(text, at);
        ASSERT_NE(std::string::npos, at) << text << " in " << child.errorOutput;
        at += 1;
    }
}

}  // namespace
