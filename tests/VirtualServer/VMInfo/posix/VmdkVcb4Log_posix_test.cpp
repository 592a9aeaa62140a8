#include <gtest/gtest.h>

#include <string>

#include "VirtualServer/VMInfo/VmdkVcb4ExtentReader.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FakeVMInfo.h"
#include "tests/support/posix/ChildProcess.h"

// What the opening of a disk behind a hypervisor tells the log, which is settled once per process: a child works, and
// we read.

namespace {

void OpenOnce(const char* changeId) {
    CFakeVMInfo server(std::string(51200, 'x'));
    server.Answer("", 0, 51200, {{0, 512}, {4096, 512}, {8192, 512}});
    server.Answer("since", 0, 51200, {{0, 512}, {4096, 512}});
    CVmdkVcb4ExtentReader reader;
    reader.SetVMInfo(&server, "", "");
    reader.SetChangeId(changeId);
    EXPECT_OK(reader.OpenDisk("disk", 0, VwExtentTypeSparse));
}

TEST(VmdkVcb4Log, TellsHowManyEntriesTheTablesHave) {
    if (InChildProcess()) {
        OpenOnce("since");
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    const size_t allocated = child.errorOutput.find("There are 3 entries in the allocated extent table\n");
    const size_t changed = child.errorOutput.find("There are 2 entries in the changed extent table\n");
    EXPECT_NE(std::string::npos, allocated) << child.errorOutput;
    EXPECT_NE(std::string::npos, changed) << child.errorOutput;
    EXPECT_LT(allocated, changed);
}

TEST(VmdkVcb4Log, TellsOfNoChangedTableWithoutAChangeId) {
    if (InChildProcess()) {
        OpenOnce("");
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_EQ(std::string::npos, child.errorOutput.find("changed extent table")) << child.errorOutput;
}

}  // namespace
