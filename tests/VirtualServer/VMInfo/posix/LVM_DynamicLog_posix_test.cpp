#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/HardDisks.h"
#include "tests/support/LdmGroupBuilder.h"
#include "tests/support/LdmSteps.h"
#include "tests/support/TempDir.h"
#include "tests/support/posix/ChildProcess.h"

// What the reading of dynamic disks tells the log.

namespace {

bool Tells(const ChildOutcome_t& child, const std::string& text) {
    return child.errorOutput.find(text) != std::string::npos;
}

TEST(LvmDynamicLog, TellsTheStepsOfDiscovery) {
    if (InChildProcess()) {
        const CTempDir dir;
        const CLdmGroupBuilder group = CLdmGroupBuilder(3)
                                           .Volume(LdmRaid5(8, {{0, 0, 960}, {1, 0, 960}, {0, 960, 960}}))
                                           .Volume(LdmSimple({2, 0, 10}));
        std::vector<LVM_HardDisk_t> disks = {FlatHardDisk(dir, group.Image(0), "first"),
                                             FlatHardDisk(dir, group.Image(1), "second")};
        CLVM lvm;
        EXPECT_OK(lvm.InitializeFromDisk(disks));
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    for (const char* const text :
         {"The disk is dynamic disk. Parse and add LDM Partitions for this disk.\n", "Named the volume as Volume1\n",
          "Named the volume as Volume2\n", "Adjusted the LBAEnd of segment of volume Volume1 to 000000000000077f\n",
          "Volume Volume2 does not have all disks required\n"})
        EXPECT_TRUE(Tells(child, text)) << text << " in " << child.errorOutput;
    EXPECT_FALSE(Tells(child, "Volume Volume1 does not have"));
    EXPECT_FALSE(Tells(child, "segment of volume Volume2"));
}

TEST(LvmDynamicLog, TellsWhatADatabaseDoesWithout) {
    if (InChildProcess()) {
        const CTempDir dir;
        CLdmSteps disk;
        LDM_DB_t db;
        LdmDiskRecord_t unused;
        unused.id = 12345678901234;
        disk.OpenWith(dir, CLdmDatabaseBuilder().Add(LdmGroupRecord_t()).Add(unused));
        EXPECT_OK(disk.GetDynamicDiskDatabase(db, 6));
        disk.OpenWith(dir, CLdmDatabaseBuilder(), 2048 + 2046);
        EXPECT_OK(disk.GetDynamicDiskDatabase(db, 6));
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    for (const char* const text : {"Disk object id 12345678901234 does not have any partition. Continuing...\n",
                                   "Failed to find tocblock 3\n", "No VBLKs found. Database seems to be empty\n"})
        EXPECT_TRUE(Tells(child, text)) << text << " in " << child.errorOutput;
    EXPECT_FALSE(Tells(child, "Failed to find tocblock 2"));
}

}  // namespace
