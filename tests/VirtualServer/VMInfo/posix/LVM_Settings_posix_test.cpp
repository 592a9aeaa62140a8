#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "VirtualServer/VMInfo/LVM.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/HardDisks.h"
#include "tests/support/PartitionTableBuilder.h"
#include "tests/support/TempDir.h"
#include "tests/support/posix/ChildProcess.h"
#include "tests/support/posix/ScopedEnvironment.h"

// The setting for Linux volumes, and what discovery tells the log.

namespace {

constexpr char LinuxSupport[] = "DISKSTREAM_VirtualServer_LinuxMetadataSupport";

CZuError Discover(const CTempDir& dir, const std::vector<CPartitionTableBuilder>& tables) {
    std::vector<LVM_HardDisk_t> disks;
    for (const CPartitionTableBuilder& table : tables)
        disks.push_back(FlatHardDisk(dir, table.Image(), "disk" + std::to_string(disks.size())));
    CLVM lvm;
    return lvm.InitializeFromDisk(disks);
}

CPartitionTableBuilder WithoutMbr() {
    return CPartitionTableBuilder().PutAt(0, std::string(512, '\0'));
}

bool Tells(const ChildOutcome_t& child, const std::string& text) {
    return child.errorOutput.find(text) != std::string::npos;
}

TEST(LvmSettings, ADiskWithoutAnMbrMayHoldLinuxVolumesWhereTheyAreLookedFor) {
    const struct {
        const char* value;
        bool isLookedFor;
    } rows[] = {{"1", true}, {"0x10", true}, {"0", false}, {"", false}, {"yes", false}};
    for (const auto& row : rows) {
        const CScopedEnvironment setting(LinuxSupport, row.value);
        const CTempDir dir;
        const CZuError error = Discover(dir, {WithoutMbr()});
        if (row.isLookedFor) {
            EXPECT_OK(error) << row.value;
        } else {
            EXPECT_CONDITION_TEXT(error, 7, 6001, 1, "MBR signature does not match") << row.value;
        }
    }
}

TEST(LvmSettings, TheSettingIsLookedUpOncePerObject) {
    const CTempDir dir;
    std::vector<LVM_HardDisk_t> disks = {FlatHardDisk(dir, WithoutMbr().Image())};
    const CScopedEnvironment before(LinuxSupport);
    CLVM off;
    const CScopedEnvironment setting(LinuxSupport, "1");
    CLVM on;
    const CScopedEnvironment after(LinuxSupport);
    EXPECT_OK(on.InitializeFromDisk(disks));
    EXPECT_FAILURE(off.InitializeFromDisk(disks));
}

TEST(LvmSettings, TheLogTellsTheStepsOfDiscovery) {
    if (InChildProcess()) {
        const CTempDir dir;
        EXPECT_OK(Discover(dir, {CPartitionTableBuilder().Slot(0, 7, 63, 10).Slot(1, 7, 80, 10),
                                 CPartitionTableBuilder().Gpt(CGptBuilder()).PutAt(512, "x")}));
        EXPECT_FAILURE(Discover(dir, {WithoutMbr()}));
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    for (const char* const text :
         {"Linux metadata collection is disabled.\n", "Processing a Hard Disk of ProdType: 1\n",
          "Checking if the disk is dynamic disk.\n",
          "The disk is not dynamic disk. Parse and add DOS Partitions for this disk.\n", "Failed to read disk [",
          "GPT Partition header signature didn't match.", "]. Skipping this disk\n",
          "MBR missing or corrupted on disk. Possibly LVM or uninitialized disk.\n",
          "Now go through all the volumes and make sure you have all the disks. If not mark the volumes accordingly\n",
          "Named the volume as Volume1\n", "Named the volume as Volume2\n"})
        EXPECT_TRUE(Tells(child, text)) << text << " in " << child.errorOutput;
    EXPECT_FALSE(Tells(child, "undecided"));
}

// What may be a Linux physical volume: partitions that aren't NTFS, and a whole disk without a table.
TEST(LvmSettings, TheLogCountsWhatMayHoldLinuxVolumes) {
    if (InChildProcess()) {
        const CTempDir dir;
        EXPECT_OK(Discover(
            dir, {CPartitionTableBuilder().Slot(0, 7, 63, 10).Slot(1, 0x8E, 80, 10).Slot(2, 12, 90, 5), WithoutMbr()}));
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}, {LinuxSupport, "1"}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_TRUE(Tells(child, "Linux metadata collection is enabled.\n"));
    EXPECT_TRUE(
        Tells(child, "We found 3 undecided components. Generate Vol List From Partitions with Linux Disk Parser.\n"))
        << child.errorOutput;
}

}  // namespace
