#include "agent/Restore.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "agent/BackupSetReader.h"
#include "tests/agent/AgentAssertions.h"
#include "tests/agent/AgentRuns.h"
#include "tests/support/CowdBuilder.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/SameBytes.h"
#include "tests/support/VmdkSparseBuilder.h"

namespace {

using Names_t = std::vector<std::string>;

class RestoreOfASet : public testing::Test {
protected:
    // The set of a flat disk in two extents.
    std::string SplitSet() {
        const std::string disk = WriteFlatDisk(m_Disks, {DiskContent(300), DiskContent(129, 2)});
        EXPECT_OK(BackUp(disk, m_Sets.File("set"), true));
        return m_Sets.File("set");
    }

    CTempDir m_Disks;
    CTempDir m_Sets;
    CTempDir m_Target;
    RestoreOptions_t m_Options;
    RestoreResult_t m_Result;
};

TEST_F(RestoreOfASet, TellsItsFilesAndCounts) {
    ASSERT_OK(RestoreDisk(SplitSet(), m_Target.Path(), m_Options, m_Result));
    EXPECT_EQ((Names_t{m_Target.File("disk-f001.vmdk"), m_Target.File("disk-f002.vmdk"), m_Target.File("disk.vmdk")}),
              m_Result.files);
    EXPECT_EQ(429U * 512U, m_Result.diskBytes);
    EXPECT_EQ(5U, m_Result.blockCount);  // 300 sectors in 3 blocks, 129 in 2
    // The second block of the first extent is zeros; the last one of the second holds a sector.
    EXPECT_EQ((429U - 128U) * 512U, m_Result.writtenBytes);
    EXPECT_EQ(Names_t{}, m_Result.warnings);
}

TEST_F(RestoreOfASet, ADescriptorMayGetAnotherNameAndItsExtentsKeepTheirs) {
    ASSERT_OK(Restore(SplitSet(), m_Target.File("other.vmdk")));
    EXPECT_EQ((Names_t{"disk-f001.vmdk", "disk-f002.vmdk", "other.vmdk"}), m_Target.Entries());
    EXPECT_SAME_BYTES(m_Disks.Read("disk.vmdk"), m_Target.Read("other.vmdk"));
}

TEST_F(RestoreOfASet, ATargetNamedAsAnExtentIsRefused) {
    EXPECT_FAILS_SAYING(Restore(SplitSet(), m_Target.File("disk-f001.vmdk")), m_Target.File("disk-f001.vmdk"),
                        "two of its files");
    EXPECT_EQ(Names_t{}, m_Target.Entries());
}

TEST_F(RestoreOfASet, EachStandingFileIsInTheWayUnlessForced) {
    const std::string set = SplitSet();
    for (const char* name : {"disk.vmdk", "disk-f001.vmdk", "disk-f002.vmdk"}) {
        SCOPED_TRACE(name);
        const CTempDir target;
        target.Write(name, "stands here");
        EXPECT_FAILS_SAYING(Restore(set, target.Path()), target.File(name), "exists already", "--force");
        EXPECT_EQ(Names_t{name}, target.Entries());
        EXPECT_EQ("stands here", target.Read(name));
        ASSERT_OK(Restore(set, target.Path(), true));
        EXPECT_SAME_BYTES(m_Disks.Read(name), target.Read(name));
        EXPECT_EQ(m_Disks.Entries(), target.Entries());
    }
}

TEST_F(RestoreOfASet, TheSetItselfIsNeverReplaced) {
    const std::string set = SplitSet();
    const std::string before = m_Sets.Read("set");
    EXPECT_FAILS_SAYING(Restore(set, set, true), set, "is the set that is to be restored");
    EXPECT_FAILS_SAYING(RestoreRaw(set, m_Sets.Path() + "/./set", true), "is the set that is to be restored");
    EXPECT_SAME_BYTES(before, m_Sets.Read("set"));
}

TEST_F(RestoreOfASet, AsRawGetsANameOfItsOwnInADirectory) {
    ASSERT_OK(RestoreRaw(SplitSet(), m_Target.Path()));
    EXPECT_EQ(Names_t{"disk.raw"}, m_Target.Entries());
    EXPECT_SAME_BYTES(DiskContent(300) + DiskContent(129, 2), m_Target.Read("disk.raw"));
    EXPECT_FAILS_SAYING(RestoreRaw(m_Sets.File("set"), m_Target.Path()), m_Target.File("disk.raw"), "exists already");
    ASSERT_OK(RestoreRaw(m_Sets.File("set"), m_Target.Path(), true));
}

TEST_F(RestoreOfASet, ATargetInNoDirectoryIsRefused) {
    EXPECT_FAILS_SAYING(Restore(SplitSet(), m_Target.File("none") + "/disk.vmdk"), "directory doesn't exist");
    EXPECT_FAILS_SAYING(RestoreRaw(m_Sets.File("set"), m_Target.File("none") + "/disk.raw"), "directory doesn't exist");
    EXPECT_EQ(Names_t{}, m_Target.Entries());
}

TEST_F(RestoreOfASet, WhatIsNoSetIsRefused) {
    EXPECT_FAILS_SAYING(Restore(m_Sets.File("none"), m_Target.Path()), m_Sets.File("none"), "No such file");
    EXPECT_FAILS_SAYING(Restore(m_Sets.Path(), m_Target.Path()), m_Sets.Path());
    EXPECT_FAILS_SAYING(Restore(m_Sets.Write("text", "no set at all"), m_Target.Path()), "is no backup set");
    EXPECT_EQ((Names_t{"text"}), m_Sets.Entries());
}

TEST_F(RestoreOfASet, HolesOfTheRawImageTakeNoRoom) {
    const std::string disk =
        CVmdkSparseBuilder().Capacity(uint64_t{1} << 21U).GrainSize(128).Grain(7, 'x').WriteTo(m_Disks);
    ASSERT_OK(BackUp(disk, m_Sets.File("set")));
    ASSERT_OK(RestoreDisk(
        m_Sets.File("set"), m_Target.File("raw"),
        [] {
            RestoreOptions_t options;
            options.asRaw = true;
            return options;
        }(),
        m_Result));
    EXPECT_EQ(uint64_t{1} << 30U, std::filesystem::file_size(m_Target.File("raw")));
    EXPECT_EQ(uint64_t{1} << 30U, m_Result.diskBytes);
    EXPECT_EQ(65536U, m_Result.writtenBytes);
}

TEST_F(RestoreOfASet, ALinkOfAChainWarnsWhereItsHolesMatter) {
    const std::string descriptor = CVmdkDescriptorBuilder()
                                       .ParentCid("0172e8a4")
                                       .CreateType("monolithicSparse")
                                       .Line("parentFileNameHint=\"base.vmdk\"")
                                       .Extent(256, "SPARSE", "sparse.vmdk")
                                       .Text();
    const std::string disk = CVmdkSparseBuilder().Descriptor(descriptor).Grain(2, 'x').WriteTo(m_Disks);
    BackupResult_t backup;
    ASSERT_OK(BackUpDisk(disk, m_Sets.File("set"), BackupOptions_t(), backup));
    ASSERT_EQ(1U, backup.warnings.size());
    EXPECT_NE(std::string::npos, backup.warnings[0].find("base.vmdk"));
    CBackupSetReader reader;
    ASSERT_OK(reader.Open(m_Sets.File("set")));
    EXPECT_TRUE(reader.Disks()[0].hasParent);
    EXPECT_EQ("base.vmdk", reader.Disks()[0].parentName);

    ASSERT_OK(RestoreDisk(m_Sets.File("set"), m_Target.Path(), m_Options, m_Result));
    EXPECT_EQ(Names_t{}, m_Result.warnings);
    m_Options.asRaw = true;
    ASSERT_OK(RestoreDisk(m_Sets.File("set"), m_Target.Path(), m_Options, m_Result));
    EXPECT_EQ(1U, m_Result.warnings.size());
}

TEST_F(RestoreOfASet, CancellingAtAnyMomentLeavesNothing) {
    const std::string set = SplitSet();
    for (const bool asRaw : {false, true}) {
        bool isThrough = false;
        for (int cancelAt = 0; !isThrough; ++cancelAt) {
            SCOPED_TRACE(testing::Message() << "as raw " << asRaw << ", step " << cancelAt);
            int step = 0;
            m_Options.asRaw = asRaw;
            m_Options.progress = [&](const Progress_t&) { return step++ != cancelAt; };
            const CTempDir target;
            const CZuError error = RestoreDisk(set, target.Path(), m_Options, m_Result);
            isThrough = step <= cancelAt;
            if (isThrough) {
                EXPECT_OK(error);
                EXPECT_GT(cancelAt, 0);
                break;
            }
            EXPECT_FAILS_SAYING(error, "cancelled");
            EXPECT_EQ(Names_t{}, target.Entries());
        }
    }
}

TEST_F(RestoreOfASet, ProgressGrowsToItsTotal) {
    Progress_t last;
    m_Options.progress = [&](const Progress_t& progress) {
        EXPECT_GE(progress.doneBytes, last.doneBytes);
        EXPECT_LE(progress.doneBytes, progress.totalBytes);
        last = progress;
        return true;
    };
    ASSERT_OK(RestoreDisk(SplitSet(), m_Target.Path(), m_Options, m_Result));
    EXPECT_GT(last.doneBytes, 0U);
    EXPECT_EQ(last.totalBytes, last.doneBytes);
}

// Each call to the machine's files fails in its turn: the error reaches the caller with its reason
// and the name of a file, and nothing is left behind.
TEST_F(RestoreOfASet, EveryFailureOfTheMachineIsToldAndLeavesNothing) {
    const std::string flatSet = SplitSet();
    const std::string sparse = CVmdkSparseBuilder().Grain(3, 'x').Grain(31, 'y').WriteTo(m_Disks);
    ASSERT_OK(BackUp(sparse, m_Sets.File("sparse")));
    const struct {
        const char* name;
        std::string set;
        bool asRaw;
    } rows[] = {{"flat", flatSet, false},
                {"flat as raw", flatSet, true},
                {"sparse", m_Sets.File("sparse"), false},
                {"sparse as raw", m_Sets.File("sparse"), true}};
    for (const auto& row : rows) {
        for (const FaultOp op : {FaultOp::Open, FaultOp::Write, FaultOp::Seek, FaultOp::Truncate, FaultOp::Sync}) {
            bool fired = true;
            for (unsigned int failAt = 0; fired; ++failAt) {
                SCOPED_TRACE(testing::Message() << row.name << ", operation " << int(op) << ", call " << failAt);
                const CTempDir target;
                m_Options.asRaw = row.asRaw;
                CZuError error;
                {
                    CFaultyFiles faulty(Fault_t{op, failAt, ENOSPC});
                    error = RestoreDisk(row.set, target.Path(), m_Options, m_Result);
                    fired = faulty.Fired();
                }
                EXPECT_EQ(fired, error.IsErrorSet()) << DescribeError(error);
                if (!fired)
                    break;
                EXPECT_FAILS_SAYING(error, "No space left on device");
                EXPECT_EQ(Names_t{}, target.Entries());
            }
        }
    }
}

}  // namespace
