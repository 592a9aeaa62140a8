#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "VirtualServer/VMInfo/XenVDIDiskReader.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/FakeXenHost.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/TempDir.h"
#include "tests/support/XenRecordXml.h"
#include "tests/support/posix/ChildProcess.h"

// What a Xen disk tells the log, which is settled once per process: a child works, and we read.

namespace {

class CImpatientReader final : public CXenVDIDiskReader {
protected:
    void WaitForDevice(unsigned int /*milliseconds*/) override {}
};

class CNoWrites final : public CFaultyFiles {
public:
    explicit CNoWrites(int error) : m_Error(error) {}
    int Write(int /*fd*/, const void* /*buffer*/, uint32_t /*size*/, uint32_t& /*put*/) override { return m_Error; }

private:
    const int m_Error;
};

void WriteWithError(int code) {
    const CTempDir dir;
    CImpatientReader reader;
    EXPECT_FALSE(reader.CreateDisk(dir.Write("device", "device").c_str()).IsErrorSet());
    CAutoMemory<char> data = BufferOf("x");
    const CNoWrites files(code);
    EXPECT_TRUE(reader.WriteBlock(0, 1, data).IsErrorSet());
}

void CreateFrom(const std::string& xml, const char* name) {
    const CTempDir dir;
    CFakeXenHost host;
    host.device = dir.Write("device", "device");
    CXenVDIDiskReader reader;
    reader.SetVMInfo(&host, nullptr, nullptr);
    xen_vdi_record record;
    std::string device;
    CAutoMemory<char> metadata = BufferOf(xml);
    EXPECT_EQ(xml.empty(), reader.CreateDisk(dir.File(name).c_str(), record, true, device, metadata).IsErrorSet());
}

size_t CountOf(const std::string& text, const std::string& piece) {
    size_t count = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + piece.size()))
        ++count;
    return count;
}

TEST(XenVDILog, TellsEachTryOfAWrite) {
    if (InChildProcess()) {
        WriteWithError(5);
        WriteWithError(21);
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    const std::string& log = child.errorOutput;
    const std::string failed = "debug-1 CXenVDIDiskReader::WriteBlock Error [0x5] writing to disk [";
    EXPECT_EQ(1U, CountOf(log, failed));
    const size_t line = log.find(failed);
    EXPECT_EQ(std::string::npos, log.substr(line, log.find('\n', line) - line).find("Retry")) << log;
    EXPECT_EQ(30U, CountOf(log, "debug-1 CXenVDIDiskReader::WriteBlock Error [0x15] writing to disk ["));
    for (int left = 0; left < 30; ++left)
        EXPECT_EQ(1U, CountOf(log, "]. Retry counts remaining = " + std::to_string(left) + "\n")) << left;
}

TEST(XenVDILog, TellsTheRecordOfANewImage) {
    const std::string xml = CXenRecordXml().Element();
    if (InChildProcess()) {
        CreateFrom(xml, "disk");
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_EQ(1U, CountOf(child.errorOutput, "debug2 CXenVDIDiskReader::CreateDisk XML-char: [" + xml + "]\n"));
    EXPECT_EQ(1U, CountOf(child.errorOutput, "debug2 CXenVDIDiskReader::CreateDisk XML-string: [" + xml + "]\n"));
    EXPECT_EQ(0U, CountOf(child.errorOutput, " error "));
}

TEST(XenVDILog, TellsWhatIsWrongWithARecordAndWhere) {
    if (InChildProcess()) {
        CreateFrom("", "disk");
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_EQ(1U, CountOf(child.errorOutput,
                          "error ::ReadXmlMessage A message XenVDIRecord is wrong about byte 0 of 0: code [0x2]\n"));
}

TEST(XenVDILog, TellsWhichFilesCouldNotBeKept) {
    if (InChildProcess()) {
        CreateFrom(CXenRecordXml().Element(), "none/disk");
        return;
    }
    const ChildOutcome_t child = RunThisTestInChild({{"DISKSTREAM_LOG", "-"}});
    EXPECT_TRUE(child.passed) << child.output;
    EXPECT_EQ(2U, CountOf(child.errorOutput, " error CXenVDIDiskReader::CreateDisk "));
    EXPECT_EQ(1U, CountOf(child.errorOutput, ".origConfig: "));
    EXPECT_EQ(1U, CountOf(child.errorOutput, ".newConfig: "));
}

}  // namespace
