#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "VirtualServer/VMInfo/XenVDIDiskReader.h"
#include "tests/support/CharBuffer.h"
#include "tests/support/ErrorAssertions.h"
#include "tests/support/FakeXenHost.h"
#include "tests/support/FaultyFiles.h"
#include "tests/support/TempDir.h"
#include "tests/support/XenRecordXml.h"

// The files that a restore leaves behind lie where others may have put something under their names.

namespace {

class XenVDIFiles : public testing::Test {
protected:
    void Create() {
        m_Host.device = m_Dir.Write("device", "device");
        m_Reader.SetVMInfo(&m_Host, nullptr, nullptr);
        CAutoMemory<char> metadata = BufferOf(m_Xml);
        ASSERT_OK(m_Reader.CreateDisk(m_Dir.File("disk").c_str(), m_Record, true, m_Device, metadata));
    }
    mode_t ModeOf(const std::string& name) {
        struct stat status {};
        EXPECT_EQ(0, lstat(m_Dir.File(name).c_str(), &status)) << name;
        return status.st_mode;
    }

    CTempDir m_Dir;
    CFakeXenHost m_Host;
    CXenVDIDiskReader m_Reader;
    xen_vdi_record m_Record;
    std::string m_Device;
    const std::string m_Xml = CXenRecordXml().Put("Uuid", "vdi").Element();
};

TEST_F(XenVDIFiles, AreNobodysToReadAndTheOwnersToWrite) {
    const mode_t mask = umask(0);
    Create();
    umask(mask);
    for (const char* const name : {"vdi.origConfig", "vdi.newConfig"})
        EXPECT_EQ(mode_t{S_IFREG | 0200}, ModeOf(name)) << name;
}

TEST_F(XenVDIFiles, FollowNoLink) {
    m_Dir.Write("precious", "precious");
    ASSERT_EQ(0, symlink(m_Dir.File("precious").c_str(), m_Dir.File("vdi.origConfig").c_str()));
    ASSERT_EQ(0, symlink(m_Dir.File("not there yet").c_str(), m_Dir.File("vdi.newConfig").c_str()));
    Create();
    EXPECT_EQ("precious", m_Dir.Read("precious"));
    EXPECT_EQ((std::vector<std::string>{"device", "precious", "vdi.newConfig", "vdi.origConfig"}), m_Dir.Entries());
    EXPECT_TRUE(S_ISREG(ModeOf("vdi.origConfig")));
    EXPECT_TRUE(S_ISREG(ModeOf("vdi.newConfig")));
    EXPECT_EQ(m_Xml, m_Dir.Read("vdi.origConfig"));
}

// Somebody else is quicker: the name was free, and is a link when it is opened.
TEST_F(XenVDIFiles, FollowNoLinkThatAppearsInBetween) {
    class CQuickerFiles final : public CFaultyFiles {
    public:
        explicit CQuickerFiles(std::string target) : m_Target(std::move(target)) {}
        int Open(const char* name, int flags, int mode, int& fd) override {
            std::string path = name;
            std::replace(path.begin(), path.end(), '\\', '/');
            if (path.ends_with("Config")) {
                EXPECT_EQ(0, symlink(m_Target.c_str(), path.c_str()));
            }
            return CFaultyFiles::Open(name, flags, mode, fd);
        }

    private:
        const std::string m_Target;
    };
    m_Dir.Write("precious", "precious");
    {
        CQuickerFiles files(m_Dir.File("precious"));
        Create();
    }
    EXPECT_EQ("precious", m_Dir.Read("precious"));
    EXPECT_TRUE(S_ISLNK(ModeOf("vdi.origConfig")));
}

TEST_F(XenVDIFiles, DoNotTouchTheOtherNamesOfAFile) {
    m_Dir.Write("precious", "precious");
    ASSERT_EQ(0, link(m_Dir.File("precious").c_str(), m_Dir.File("vdi.origConfig").c_str()));
    Create();
    EXPECT_EQ("precious", m_Dir.Read("precious"));
    EXPECT_EQ(m_Xml, m_Dir.Read("vdi.origConfig"));
}

TEST_F(XenVDIFiles, LeaveADirectoryOfTheirNameAlone) {
    ASSERT_EQ(0, mkdir(m_Dir.File("vdi.origConfig").c_str(), 0700));
    Create();
    EXPECT_TRUE(S_ISDIR(ModeOf("vdi.origConfig")));
    EXPECT_TRUE(S_ISREG(ModeOf("vdi.newConfig")));
}

}  // namespace
