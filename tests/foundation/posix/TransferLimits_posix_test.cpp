#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "VirtualServer/VMInfo/UtilityFunctions.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/TempDir.h"
#include "tests/support/posix/ChildProcess.h"

// The limits are settled once per process, so each setting is tried in a new one.

namespace {

constexpr const char* ReadSetting = "DISKSTREAM_VirtualServer_ImageLevelMaxReadSize";
constexpr const char* WriteSetting = "DISKSTREAM_VirtualServer_ImageLevelMaxWriteSize";
constexpr const char* NoConfig = "/nowhere/at/all";

CZuFile OpenedHole(const CTempDir& dir, uint64_t sizeBytes) {
    CZuFile file;
    EXPECT_OK(file.Open(dir.WriteHole("file", sizeBytes).c_str(), 0x8082, 0));
    return file;
}

std::vector<uint32_t> ReadsOf(unsigned int size) {
    const CTempDir dir;
    CZuFile file = OpenedHole(dir, size);
    std::string target(size, 'x');
    const CFaultyFiles counted;
    EXPECT_OK(ReadFileAt(file, 0, 0, target.data(), size, nullptr));
    return counted.Sizes(FaultOp::Read);
}

std::vector<uint32_t> WritesOf(unsigned int size) {
    const CTempDir dir;
    CZuFile file = OpenedHole(dir, 0);
    const std::string source(size, 'x');
    const CFaultyFiles counted;
    EXPECT_OK(WriteFileAt(file, 0, 0, source.data(), size, nullptr));
    return counted.Sizes(FaultOp::Write);
}

size_t CountOf(const std::string& text, const std::string& piece) {
    size_t count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1))
        ++count;
    return count;
}

}  // namespace

TEST(TransferLimits, AreAMebibyteUnlessSet) {
    if (InChildProcess()) {
        EXPECT_EQ(ReadsOf(0x300000), (std::vector<uint32_t>{0x100000, 0x100000, 0x100000}));
        EXPECT_EQ(WritesOf(0x100001), (std::vector<uint32_t>{0x100000, 1}));
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_CONFIG", NoConfig}, {"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_EQ(CountOf(child.errorOutput, "::ReadFileAt Using max read size of 1048576 bytes\n"), 1U);
    EXPECT_EQ(CountOf(child.errorOutput, "::WriteFileAt Using max write size of 1048576 bytes\n"), 1U);
}

TEST(TransferLimits, EachDirectionTakesItsOwnSetting) {
    if (InChildProcess()) {
        EXPECT_EQ(ReadsOf(2500), (std::vector<uint32_t>{1000, 1000, 500}));
        EXPECT_EQ(WritesOf(2500), (std::vector<uint32_t>{2000, 500}));
        return;
    }
    const ChildOutcome_t child =
        RunThisTestInChild({{ReadSetting, "1000"}, {WriteSetting, "2000"}, {"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_EQ(CountOf(child.errorOutput, "Using max read size of 1000 bytes"), 1U);
    EXPECT_EQ(CountOf(child.errorOutput, "Using max write size of 2000 bytes"), 1U);
}

TEST(TransferLimits, ComeFromTheSettingsFileToo) {
    if (InChildProcess()) {
        EXPECT_EQ(ReadsOf(7), (std::vector<uint32_t>{3, 3, 1}));
        EXPECT_EQ(WritesOf(5), (std::vector<uint32_t>{1, 1, 1, 1, 1}));
        return;
    }
    const CTempDir dir;
    const std::string settings =
        dir.Write("settings", "[VirtualServer]\nImageLevelMaxReadSize = 3\nImageLevelMaxWriteSize = 1\n");
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_CONFIG", settings}});
    EXPECT_TRUE(child.passed) << child.output;
}

TEST(TransferLimits, ASettingThatIsNoNumberCountsAsAbsent) {
    if (InChildProcess()) {
        EXPECT_EQ(ReadsOf(0x100001), (std::vector<uint32_t>{0x100000, 1}));
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{ReadSetting, "large"}, {"DISKSTREAM_CONFIG", NoConfig}});
    EXPECT_TRUE(child.passed) << child.output;
}

TEST(TransferLimits, AreNotLookedAtAgainAfterAChange) {
    if (InChildProcess()) {
        EXPECT_EQ(ReadsOf(2000), (std::vector<uint32_t>{1000, 1000}));
        setenv(ReadSetting, "500", 1);
        EXPECT_EQ(ReadsOf(2000), (std::vector<uint32_t>{1000, 1000}));
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{ReadSetting, "1000"}});
    EXPECT_TRUE(child.passed) << child.output;
}

TEST(TransferLimits, AreSettledByATransferOfNothingToo) {
    if (InChildProcess()) {
        const CTempDir dir;
        CZuFile file = OpenedHole(dir, 10);
        EXPECT_OK(ReadFileAt(file, 0, 0, nullptr, 0, nullptr));
        setenv(ReadSetting, "500", 1);
        EXPECT_EQ(ReadsOf(1000), (std::vector<uint32_t>{1000}));
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{ReadSetting, "1000"}, {"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_EQ(CountOf(child.errorOutput, "Using max read size of 1000 bytes"), 1U);
    EXPECT_EQ(CountOf(child.errorOutput, "Using max write size"), 0U);
}

TEST(TransferLimits, AreSettledEvenWhereTheSeekFails) {
    if (InChildProcess()) {
        CZuFile closed;
        EXPECT_FAILURE(ReadFileAt(closed, 0, 0, nullptr, 0, nullptr));
        setenv(ReadSetting, "500", 1);
        EXPECT_EQ(ReadsOf(1000), (std::vector<uint32_t>{1000}));
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{ReadSetting, "1000"}});
    EXPECT_TRUE(child.passed) << child.output;
}

TEST(TransferLimits, ALimitOfNothingEndsWithTheTextInsteadOfALoop) {
    if (InChildProcess()) {
        const CTempDir dir;
        CZuFile file = OpenedHole(dir, 10);
        char bytes[10] = {};
        unsigned int count = 99;
        EXPECT_REFUSED(ReadFileAt(file, 0, 0, bytes, 10, &count), "Read failed. Tried 10 bytes read 0 bytes");
        EXPECT_EQ(count, 0U);
        count = 99;
        EXPECT_REFUSED(WriteFileAt(file, 0, 0, bytes, 7, &count), "Write failed. Tried 7 bytes wrote 0 bytes");
        EXPECT_EQ(count, 0U);
        EXPECT_OK(ReadFileAt(file, 0, 0, bytes, 0, nullptr));
        setenv(ReadSetting, "4", 1);
        EXPECT_EQ(ReadsOf(10), (std::vector<uint32_t>{4, 4, 2})) << "0 is looked up again";
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{ReadSetting, "0"}, {WriteSetting, "0"}});
    EXPECT_TRUE(child.passed) << child.output;
}

TEST(TransferLimits, ALimitLargerThanAnyTransferMovesItAtOnce) {
    if (InChildProcess()) {
        EXPECT_EQ(ReadsOf(0x300000), (std::vector<uint32_t>{0x300000}));
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{ReadSetting, "0xFFFFFFFF"}});
    EXPECT_TRUE(child.passed) << child.output;
}
